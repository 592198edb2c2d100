// The record family's pure pieces (records_internal.h).
#include <climits>
#include <cstring>
#include <ctime>

#include "core/bytes.h"
#include "core/frame.h"
#include "records/records_internal.h"
#include "zel_port.h"
#include "zel_status.h"

namespace zel::records {

ZEL_STATUS send_with_ext(ZEL_HANDLE hnd, uint8_t *frame, uint8_t cmd, uint8_t par0, const uint8_t *data, uint8_t len)
{
    make_command(frame, cmd, static_cast<uint8_t>(len + 1), par0);
    uint8_t ext_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[256];
    std::memcpy(ext, data, len);
    CalcChecksum(ext, static_cast<uint16_t>(len + 1));
    return PortWrite(hnd, ext, len + 1u);
}

ZEL_STATUS ais_frame_status(const uint8_t *frame, uint8_t cmd)
{
    if (!TestChecksum(frame, kFrameLen))
        return ZEL_COMMUNICATION_ERROR;
    if (frame[kHeader] == kErrHeader || frame[kTrailer] == kErrTrailer)
        return frame[kCmd] ? frame[kCmd] : ZEL_COMMUNICATION_ERROR;
    if (frame[kHeader] == kRspHeader && frame[kTrailer] == kRspTrailer && frame[kCmd] == cmd)
        return ZEL_OK;
    return ZEL_COMMUNICATION_ERROR;
}

uint8_t pack_days(const uint8_t *days)
{
    uint8_t bits = 0;
    for (int i = 0; i < 7; ++i)
        if (days[i])
            bits = static_cast<uint8_t>(bits | 1u << i);
    return bits;
}

void unpack_days(uint8_t bits, uint8_t *days)
{
    for (int i = 0; i < 7; ++i)
        days[i] = (bits >> i) & 1u;
}

void pack_right(uint8_t *out, uint16_t first, uint16_t second, uint8_t start_hour, uint8_t start_minute,
                uint8_t end_hour, uint8_t end_minute)
{
    put_le16(out, first);
    put_le16(out + 2, second);
    put_le16(out + 4, minutes_of_day(start_hour, start_minute));
    put_le16(out + 6, minutes_of_day(end_hour, end_minute));
}

RightFields unpack_right(const uint8_t *in)
{
    const uint32_t start = get_le16(in + 4), end = get_le16(in + 6);
    return RightFields{static_cast<uint16_t>(get_le16(in)), static_cast<uint16_t>(get_le16(in + 2)),
                       static_cast<uint8_t>(start / 60),    static_cast<uint8_t>(start % 60),
                       static_cast<uint8_t>(end / 60),      static_cast<uint8_t>(end % 60)};
}

bool pack_date(uint8_t *out, uint32_t year, uint32_t month, uint32_t day, uint32_t hour, uint32_t minute)
{
    // Every field must fit the calendar's int before the calendar may normalise it.
    const int64_t y = static_cast<int64_t>(year) - 1900, mon = static_cast<int64_t>(month) - 1;
    if (y > INT_MAX || day > INT_MAX || hour > INT_MAX || minute > INT_MAX)
        return false;
    std::tm tm{};
    tm.tm_year = static_cast<int>(y);
    tm.tm_mon = static_cast<int>(mon);
    tm.tm_mday = static_cast<int>(day);
    tm.tm_hour = static_cast<int>(hour);
    tm.tm_min = static_cast<int>(minute);
    tm.tm_isdst = -1;
    if (std::mktime(&tm) == static_cast<std::time_t>(-1))
        return false;
    out[0] = static_cast<uint8_t>(year + 48);
    out[1] = static_cast<uint8_t>(month);
    out[2] = static_cast<uint8_t>(day);
    out[3] = static_cast<uint8_t>(hour);
    out[4] = static_cast<uint8_t>(minute);
    return true;
}

ZEL_STATUS encryption_window(uint32_t from, uint32_t to, uint32_t *start, uint32_t *duration)
{
    if (from < kEpoch2012 || to < from)
        return ZEL_PARAMETERS_ERROR;
    const std::time_t t = static_cast<std::time_t>(from);
    std::tm local{};
    if (!localtime_r(&t, &local))
        return ZEL_PARAMETERS_ERROR;
    const uint32_t back = local.tm_isdst > 0 ? 7200u : 3600u;
    const uint32_t adjusted = from - back;
    // A from in the first hours of 2012 would move before the count's start.
    if (adjusted > kLatestStart || adjusted < kEpoch2012)
        return ZEL_PARAMETERS_ERROR;
    if (to - from > kLongestSpan)
        return ZEL_PARAMETERS_ERROR;
    *start = (adjusted - kEpoch2012) / 60;
    *duration = (to - from) / 60;
    return ZEL_OK;
}

ZEL_STATUS balance_pick(ZEL_STATUS first_status, int32_t first, ZEL_STATUS second_status, int32_t second,
                        int32_t *credit)
{
    if (first_status != ZEL_OK && second_status != ZEL_OK)
        return first_status;
    if (first_status != ZEL_OK) {
        *credit = second;
        return ZEL_OK;
    }
    if (second_status != ZEL_OK) {
        *credit = first;
        return ZEL_OK;
    }
    // Differences in 64 bits: the pair may hold values at both ends of the range.
    const int64_t a = first, b = second;
    if (a == b || b == a + 1)
        *credit = first;
    else if (a == b + 1)
        *credit = second;
    else
        *credit = a > b ? first : second;
    return ZEL_OK;
}

ZEL_STATUS read_card_image(const uint8_t *ext, uint32_t ext_len, char *text, uint32_t *len)
{
    if (ext_len < 4 || ext[ext_len - 4] != 0xDA || ext[ext_len - 3] != 0xBE || ext[ext_len - 2] != ext_len - 4)
        return ZEL_COMMAND_FAILED;
    const uint32_t n = ext_len - 4;
    if (n >= ZEL_CARD_ENCRYPTION_TEXT)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(text, ext, n);
    text[n] = '\0';
    *len = n;
    return ZEL_OK;
}

} // namespace zel::records
