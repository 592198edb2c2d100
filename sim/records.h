// The reader's access system and its card encryption job, as the reader keeps them: right records (plain or
// typed), the validate record, the card's type, durations, number, credit and period, and the job's
// serial numbers. The reader stores what it is given and judges only the record numbers and the sizes.
#ifndef ZELSIM_RECORDS_H
#define ZELSIM_RECORDS_H

#include <cstddef>
#include <cstdint>

namespace zs {

struct Reader;
struct Answer;

// Record numbers the reader holds right records for: 0 to ACCESS_RIGHTS - 1.
constexpr size_t ACCESS_RIGHTS = 64;

struct AccessRecords {
    // Each right record: its type (0 for a plain one) and eleven bytes; a plain record fills the first nine.
    uint8_t right_type[ACCESS_RIGHTS] = {};
    uint8_t right[ACCESS_RIGHTS][11] = {};
    uint8_t validate[10] = {};
    uint8_t card_type = 0;
    uint16_t daily = 0;
    uint32_t total = 0;
    uint16_t card_number = 0;
    uint8_t use = 0;         // the use byte in front of the credit record
    uint8_t credit[14] = {}; // credit (4), begin date (5), end date (5) as written
    // The card encryption job: the salter's number and small value, and the serial number of the last card
    // image made (each image takes the next one). The job number is the reader's job id.
    uint8_t salter[8] = {0x53, 0x41, 0x4C, 0x54, 0x45, 0x52, 0x30, 0x31};
    uint8_t small_value = 3;
    uint32_t card_serial = 0x00018000;
};

bool records_wants_ext(const Reader &r, const uint8_t f[7]);
bool records_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a);

// The card image the reader makes for card serial sn of job `job` in the window (minutes): sixteen bytes
// of serial, window and job, masked with the salter's number, then the data bytes of the request.
size_t records_card_image(const AccessRecords &s, uint16_t job, uint32_t sn, uint32_t start, uint32_t duration,
                          const uint8_t *data, size_t data_len, uint8_t *out);

} // namespace zs
#endif
