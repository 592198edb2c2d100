// The record family's pure pieces: the test of an access-system reply frame, the packing of times, days and
// dates, the card encryption time window, the pick of the balance pair and the reading of a card image
// reply. The exchanges in ais.cpp, balance.cpp and card_encryption.cpp use them; the tests reach them here.
#ifndef ZEL_RECORDS_INTERNAL_H
#define ZEL_RECORDS_INTERNAL_H

#include <cstdint>

#include "zel_records.h"
#include "zel_types.h"

namespace zel::records {

// Access-system commands.
constexpr uint8_t kSetRight = 0x50, kGetRight = 0x51, kSetValidate = 0x52, kGetValidate = 0x53, kSetCardType = 0x54,
                  kGetCardType = 0x55, kSetDaily = 0x56, kGetDaily = 0x57, kSetTotal = 0x58, kGetTotal = 0x59,
                  kGetCardNumber = 0x5A, kGetCredit = 0x5B, kSetCredit = 0x5C, kSetRightType = 0x5D,
                  kGetRightType = 0x5E;
// Card encryption commands.
constexpr uint8_t kNextEncrypted = 0xA1, kActualCardSN = 0xA2, kJobSN = 0xA3, kGetNext = 0xA4;

// The record sizes, EXT checksum included.
constexpr uint8_t kRightExt = 10, kValidateExt = 11, kTotalExt = 5, kSetCreditExt = 15, kGetCreditExt = 16,
                  kRightTypeExt = 13, kJobExt = 12, kCardSNExt = 5;
constexpr uint8_t kDailyCounterType = 1;

// The first half of an exchange with an EXT: the command frame (cmd, PAR0, EXT_LEN len + 1) and its
// handshake, then the EXT of len data bytes with its checksum. frame (7 bytes) keeps the handshake's reply.
ZEL_STATUS send_with_ext(ZEL_HANDLE hnd, uint8_t *frame, uint8_t cmd, uint8_t par0, const uint8_t *data, uint8_t len);

// The test of a reply frame that the access-system exchanges read themselves: an error frame (either
// marker) gives its CMD byte (ZEL_COMMUNICATION_ERROR for a CMD of 0, which would read as success), a
// response to cmd gives ZEL_OK, anything else ZEL_COMMUNICATION_ERROR. The checksum is tested first.
ZEL_STATUS ais_frame_status(const uint8_t *frame, uint8_t cmd);

// The seven-flag byte: day i in bit i, non-zero counts as set; and back, 0 or 1 each.
uint8_t pack_days(const uint8_t *days);
void unpack_days(uint8_t bits, uint8_t *days);

// Minutes of the day, as the reader counts them (no range check: the reader judges).
inline uint16_t minutes_of_day(uint8_t hour, uint8_t minute)
{
    return static_cast<uint16_t>(hour * 60 + minute);
}

// The eight leading bytes of a right record: both values, start and end in minutes of the day.
void pack_right(uint8_t *out, uint16_t first, uint16_t second, uint8_t start_hour, uint8_t start_minute,
                uint8_t end_hour, uint8_t end_minute);
struct RightFields {
    uint16_t first, second;
    uint8_t start_hour, start_minute, end_hour, end_minute;
};
RightFields unpack_right(const uint8_t *in);

// A date of the credit and period record: false when the local calendar cannot hold it. The five bytes
// are the year less 2000 ((year + 48) mod 256), month, day, hour and minute, as given.
bool pack_date(uint8_t *out, uint32_t year, uint32_t month, uint32_t day, uint32_t hour, uint32_t minute);

// The card encryption window: the start in minutes from 2012-01-01 00:00 UTC (moved back by one hour, two
// in summer time) and the duration in minutes. ZEL_PARAMETERS_ERROR for a window that is refused.
constexpr uint32_t kEpoch2012 = 1325376000u;
constexpr uint32_t kLatestStart = 2332008959u;
constexpr uint32_t kLongestSpan = 0x3BFFFFFu;
ZEL_STATUS encryption_window(uint32_t from, uint32_t to, uint32_t *start, uint32_t *duration);

// The balance pair's pick from the two reads.
ZEL_STATUS balance_pick(ZEL_STATUS first_status, int32_t first, ZEL_STATUS second_status, int32_t second,
                        int32_t *credit);

// The reply of CardEncryption_GetNext, its EXT (ext_len bytes, checksum included and already tested): the
// image goes to text (ZEL_CARD_ENCRYPTION_TEXT bytes) with a zero after it, its length to len.
// ZEL_COMMAND_FAILED unless the EXT ends with DA BE, the image's size and the checksum.
ZEL_STATUS read_card_image(const uint8_t *ext, uint32_t ext_len, char *text, uint32_t *len);

} // namespace zel::records

#endif
