// The access system's records: right records, typed right records, the validate record, the card's type,
// durations, number, credit and period. The reader keeps the records; the library packs the fields. The
// exchanges that carry an EXT read the reply frame themselves and test it with ais_frame_status.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "records/records_internal.h"
#include "tandro.h"

using namespace zel;
using namespace zel::records;

namespace {

// A command with PAR0 and an EXT of len data bytes (the checksum is added): the handshake, the EXT, then
// the reply frame read and tested here.
ZEL_STATUS set_with_ext(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, const uint8_t *data, uint8_t len)
{
    uint8_t frame[kFrameLen];
    ZEL_STATUS status = send_with_ext(hnd, frame, cmd, par0, data, len);
    if (status != ZEL_OK)
        return status;
    if ((status = PortRead(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    return ais_frame_status(frame, cmd);
}

// A command with PAR0 whose reply carries an EXT: the whole EXT is read and its checksum tested, then the
// reply frame kept from the handshake is tested. A record shorter than need bytes (checksum included) is a
// malformed reply. The EXT lands in ext (256 bytes).
ZEL_STATUS get_with_ext(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t need, uint8_t *ext)
{
    uint8_t frame[kFrameLen];
    make_command(frame, cmd, 0, par0);
    uint8_t ext_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (ext_len < need)
        return ZEL_COMMUNICATION_ERROR;
    if ((status = GetAndTestResponseData(hnd, ext_len, ext)) != ZEL_OK)
        return status;
    return ais_frame_status(frame, cmd);
}

// A getter whose value comes in the reply's PAR0 and PAR1: the value is zeroed first and stays zero when
// the exchange fails.
ZEL_STATUS get_par(ZEL_HANDLE hnd, uint8_t cmd, uint16_t *value)
{
    *value = 0;
    uint8_t par[2] = {};
    const ZEL_STATUS status = handshake(hnd, cmd, 0, 0, par);
    if (status == ZEL_OK)
        *value = static_cast<uint16_t>(get_le16(par));
    return status;
}

ZEL_STATUS set_right(ZEL_HANDLE hnd, uint8_t record_number, uint16_t first, uint16_t second, uint8_t sh, uint8_t sm,
                     uint8_t eh, uint8_t em, const uint8_t *days)
{
    if (!days)
        return ZEL_PARAMETERS_ERROR;
    uint8_t rec[kRightExt - 1];
    pack_right(rec, first, second, sh, sm, eh, em);
    rec[8] = pack_days(days);
    return set_with_ext(hnd, kSetRight, record_number, rec, sizeof rec);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS ais_set_right_recordHnd(ZEL_HANDLE hnd, uint8_t record_number, uint16_t first_value,
                                                      uint16_t second_value, uint8_t start_hour, uint8_t start_minute,
                                                      uint8_t end_hour, uint8_t end_minute, const uint8_t *days)
{
    return set_right(hnd, record_number, first_value, second_value, start_hour, start_minute, end_hour, end_minute,
                     days);
}

extern "C" ZEL_API ZEL_STATUS ais_erase_right_recordHnd(ZEL_HANDLE hnd, uint8_t record_number)
{
    const uint8_t none[7] = {};
    return set_right(hnd, record_number, 0, 0, 0, 0, 0, 0, none);
}

extern "C" ZEL_API ZEL_STATUS ais_get_right_recordHnd(ZEL_HANDLE hnd, uint8_t record_number, uint16_t *first_value,
                                                      uint16_t *second_value, uint8_t *start_hour,
                                                      uint8_t *start_minute, uint8_t *end_hour, uint8_t *end_minute,
                                                      uint8_t *days)
{
    if (!first_value || !second_value || !start_hour || !start_minute || !end_hour || !end_minute || !days)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = get_with_ext(hnd, kGetRight, record_number, kRightExt, ext);
    if (status != ZEL_OK)
        return status;
    const RightFields f = unpack_right(ext);
    *first_value = f.first;
    *second_value = f.second;
    *start_hour = f.start_hour;
    *start_minute = f.start_minute;
    *end_hour = f.end_hour;
    *end_minute = f.end_minute;
    unpack_days(ext[8], days);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ais_set_validate_recordHnd(ZEL_HANDLE hnd, const uint8_t *fields)
{
    if (!fields)
        return ZEL_PARAMETERS_ERROR;
    return set_with_ext(hnd, kSetValidate, 0, fields, kValidateExt - 1);
}

extern "C" ZEL_API ZEL_STATUS ais_get_validate_recordHnd(ZEL_HANDLE hnd, uint8_t *fields)
{
    if (!fields)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = get_with_ext(hnd, kGetValidate, 0, kValidateExt, ext);
    if (status == ZEL_OK)
        std::memcpy(fields, ext, kValidateExt - 1);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ais_set_card_typeHnd(ZEL_HANDLE hnd, uint8_t card_type)
{
    return handshake(hnd, kSetCardType, card_type);
}

extern "C" ZEL_API ZEL_STATUS ais_get_card_typeHnd(ZEL_HANDLE hnd, uint8_t *card_type)
{
    if (!card_type)
        return ZEL_PARAMETERS_ERROR;
    uint16_t par = 0;
    const ZEL_STATUS status = get_par(hnd, kGetCardType, &par);
    *card_type = static_cast<uint8_t>(par);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ais_set_card_daily_durationHnd(ZEL_HANDLE hnd, uint16_t duration)
{
    return handshake(hnd, kSetDaily, static_cast<uint8_t>(duration), static_cast<uint8_t>(duration >> 8));
}

extern "C" ZEL_API ZEL_STATUS ais_get_card_daily_durationHnd(ZEL_HANDLE hnd, uint16_t *duration)
{
    if (!duration)
        return ZEL_PARAMETERS_ERROR;
    return get_par(hnd, kGetDaily, duration);
}

extern "C" ZEL_API ZEL_STATUS ais_set_card_total_durationHnd(ZEL_HANDLE hnd, uint32_t duration)
{
    uint8_t d[kTotalExt - 1];
    put_le32(d, duration);
    return set_with_ext(hnd, kSetTotal, 0, d, sizeof d);
}

extern "C" ZEL_API ZEL_STATUS ais_get_card_total_durationHnd(ZEL_HANDLE hnd, uint32_t *duration)
{
    if (!duration)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = get_with_ext(hnd, kGetTotal, 0, kTotalExt, ext);
    if (status == ZEL_OK)
        *duration = get_le32(ext);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ais_get_card_numberHnd(ZEL_HANDLE hnd, uint32_t *card_number)
{
    if (!card_number)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = get_with_ext(hnd, kGetCardNumber, 0, 3, ext);
    if (status == ZEL_OK)
        *card_number = get_le16(ext);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ais_set_credit_and_period_validityHnd(ZEL_HANDLE hnd, uint32_t credit,
                                                                    uint32_t begin_year, uint32_t begin_month,
                                                                    uint32_t begin_day, uint32_t begin_hour,
                                                                    uint32_t begin_minute, uint32_t end_year,
                                                                    uint32_t end_month, uint32_t end_day,
                                                                    uint32_t end_hour, uint32_t end_minute)
{
    uint8_t frame[kFrameLen];
    make_command(frame, kSetCredit, kSetCreditExt);
    uint8_t ext_len = 0;
    // The reader is told of the record before the dates are judged: a bad date leaves it waiting for an
    // EXT that never comes, until its receive time-out drops the command.
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    uint8_t ext[kSetCreditExt];
    put_le32(ext, credit);
    if (!pack_date(ext + 4, begin_year, begin_month, begin_day, begin_hour, begin_minute) ||
        !pack_date(ext + 9, end_year, end_month, end_day, end_hour, end_minute))
        return ZEL_PARAMETERS_ERROR;
    CalcChecksum(ext, kSetCreditExt);
    if ((status = PortWrite(hnd, ext, kSetCreditExt)) != ZEL_OK)
        return status;
    if ((status = PortRead(hnd, frame, kFrameLen)) != ZEL_OK)
        return status;
    return ais_frame_status(frame, kSetCredit);
}

extern "C" ZEL_API ZEL_STATUS ais_get_credit_and_period_validityHnd(ZEL_HANDLE hnd, uint32_t *credit,
                                                                    uint32_t *begin_year, uint32_t *begin_month,
                                                                    uint32_t *begin_day, uint32_t *begin_hour,
                                                                    uint32_t *begin_minute, uint32_t *end_year,
                                                                    uint32_t *end_month, uint32_t *end_day,
                                                                    uint32_t *end_hour, uint32_t *end_minute)
{
    uint32_t *out[] = {begin_year, begin_month, begin_day, begin_hour, begin_minute,
                       end_year,   end_month,   end_day,   end_hour,   end_minute};
    if (!credit)
        return ZEL_PARAMETERS_ERROR;
    for (uint32_t *p : out)
        if (!p)
            return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = get_with_ext(hnd, kGetCredit, 0, kGetCreditExt, ext);
    if (status != ZEL_OK)
        return status;
    // Byte 0 is the use byte; the credit and the two dates follow.
    *credit = get_le32(ext + 1);
    for (int i = 0; i < 10; ++i)
        *out[i] = ext[5 + i];
    *begin_year += 2000;
    *end_year += 2000;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ais_set_right_type_recordHnd(ZEL_HANDLE hnd, uint8_t record_number,
                                                           uint8_t right_record_type, const uint8_t *right_data)
{
    if (!right_data)
        return ZEL_PARAMETERS_ERROR;
    uint8_t rec[kRightTypeExt - 1];
    rec[0] = right_record_type;
    std::memcpy(rec + 1, right_data, ZEL_AIS_RIGHT_TYPE_DATA);
    return set_with_ext(hnd, kSetRightType, record_number, rec, sizeof rec);
}

extern "C" ZEL_API ZEL_STATUS ais_get_right_type_recordHnd(ZEL_HANDLE hnd, uint8_t record_number,
                                                           uint8_t *right_record_type, uint8_t *right_data)
{
    if (!right_record_type || !right_data)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = get_with_ext(hnd, kGetRightType, record_number, kRightTypeExt, ext);
    if (status != ZEL_OK)
        return status;
    *right_record_type = ext[0];
    std::memcpy(right_data, ext + 1, ZEL_AIS_RIGHT_TYPE_DATA);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ais_set_right_record_type_max_daily_counterHnd(
    ZEL_HANDLE hnd, uint8_t record_number, uint16_t first_value, uint16_t second_value, uint8_t start_hour,
    uint8_t start_minute, uint8_t end_hour, uint8_t end_minute, const uint8_t *days, uint8_t max_daily_counter)
{
    if (!days)
        return ZEL_PARAMETERS_ERROR;
    uint8_t rec[ZEL_AIS_RIGHT_TYPE_DATA] = {};
    pack_right(rec, first_value, second_value, start_hour, start_minute, end_hour, end_minute);
    rec[8] = pack_days(days);
    rec[9] = max_daily_counter;
    return ais_set_right_type_recordHnd(hnd, record_number, kDailyCounterType, rec);
}

extern "C" ZEL_API ZEL_STATUS ais_get_right_record_type_max_daily_counterHnd(
    ZEL_HANDLE hnd, uint8_t record_number, uint16_t *first_value, uint16_t *second_value, uint8_t *start_hour,
    uint8_t *start_minute, uint8_t *end_hour, uint8_t *end_minute, uint8_t *days, uint8_t *max_daily_counter)
{
    if (!first_value || !second_value || !start_hour || !start_minute || !end_hour || !end_minute || !days ||
        !max_daily_counter)
        return ZEL_PARAMETERS_ERROR;
    uint8_t type = 0, rec[ZEL_AIS_RIGHT_TYPE_DATA];
    const ZEL_STATUS status = ais_get_right_type_recordHnd(hnd, record_number, &type, rec);
    if (status != ZEL_OK || type != kDailyCounterType)
        return status;
    const RightFields f = unpack_right(rec);
    *first_value = f.first;
    *second_value = f.second;
    *start_hour = f.start_hour;
    *start_minute = f.start_minute;
    *end_hour = f.end_hour;
    *end_minute = f.end_minute;
    unpack_days(rec[8], days);
    *max_daily_counter = rec[9];
    return ZEL_OK;
}
