// Whole-card images of memory cards: the key file that opens the sectors, the layout of sector cards and the
// checks a sector trailer passes before it is written back. Plain functions of bytes, without a reader.
#ifndef TANDRO_TOOLS_CARD_IMAGE_H
#define TANDRO_TOOLS_CARD_IMAGE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tandro {

// The largest sector card has 40 sectors; a key file holds at most that many.
constexpr size_t kMaxKeySectors = 40;

// Keys A and B of one sector.
struct SectorKeys {
    uint8_t a[6];
    uint8_t b[6];
};

enum class KeyFileFormat { AUTO, TEXT, BINARY };

// Reads a key file. Binary: 12 bytes a sector, key A (6 bytes) then key B (6 bytes), sectors in order. Text:
// one key of 12 hex digits a line (either case, blanks around it allowed), '#' starts a comment that runs to
// the end of its line, blank lines are skipped; the keys come as key A of sector 0, key B of sector 0, key A
// of sector 1 and so on. AUTO reads a file as text when every byte is printable ASCII, a tab, a carriage
// return or a line feed, else as binary. At least one and at most kMaxKeySectors sectors. False with err
// naming the line (text) or the size (binary) of the fault.
bool parse_key_file(const uint8_t *data, size_t size, KeyFileFormat format, std::vector<SectorKeys> &out,
                    std::string &err);

// The layout of a sector card with raw_size bytes of memory (320 Mini, 1024 1K, 2048 2K, 4096 4K): false for
// any other size. Sectors below 32 have 4 blocks, the others 16.
bool sector_count(uint32_t raw_size, unsigned &sectors);
unsigned sector_first_block(unsigned sector);
unsigned sector_blocks(unsigned sector);

// The access condition codes (C1 C2 C3, 0 to 7) of blocks 0, 1, 2 and the trailer from the three access bytes
// of a trailer (its bytes 6 to 8). False when the bytes are not in their redundant form (each bit once plain
// and once inverted): a card takes such a trailer and locks its sector for good.
bool access_codes(const uint8_t access[3], uint8_t codes[4]);

// Whether key B of a trailer with this trailer code can be read (it is then data, not a key).
bool key_b_readable(uint8_t trailer_code);

// What is wrong with a trailer that would be written back, or empty when it may be written: access bytes not
// in their redundant form.
std::string trailer_fault(const uint8_t trailer[16]);

} // namespace tandro

#endif
