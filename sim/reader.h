// The reader model: identity, stored state, the field of cards, and the answer to each command.
#ifndef ZELSIM_READER_H
#define ZELSIM_READER_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zelsim.h"

namespace zs {

constexpr size_t MAX_CARDS = 16;
constexpr size_t EEPROM_SIZE = 1024;

struct Reader {
    // Identity.
    uint32_t type = 0xD1180022;
    uint32_t serial = 0x12345678;
    std::string serial_desc = "ZS000001";
    uint8_t fw_major = 5, fw_minor = 0;
    uint8_t hw_major = 1, hw_minor = 2;
    uint8_t build = 60;
    // The field; the first card is the one the reader talks to.
    std::vector<zsim_card> cards;
    zsim_card last_card{};
    bool have_last_card = false;
};

// What the reader does with one complete command.
struct Answer {
    std::vector<uint8_t> bytes;
};

// True when the reader takes an EXT for this command frame (it then acknowledges).
bool reader_wants_ext(const Reader &r, const uint8_t frame[7]);
// The reply to a command frame and its EXT (ext may be null).
void reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);

} // namespace zs
#endif
