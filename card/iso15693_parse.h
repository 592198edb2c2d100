// Decoding the reader's ISO 15693 system information reply.
#ifndef ZEL_CARD_ISO15693_PARSE_H
#define ZEL_CARD_ISO15693_PARSE_H

#include <cstddef>
#include <cstdint>

namespace zel {

// The tag's answer without its flags byte: information flags, UID least significant byte first, then the
// fields the flags announce.
struct SystemInfo {
    uint8_t flags = 0;
    uint8_t uid[8] = {}; // most significant byte first
    uint8_t dsfid = 0, afi = 0, ic_reference = 0;
    uint16_t memory_size = 0;
};

// Decodes the n data bytes of the reply EXT (checksum left out). False when the bytes do not hold the UID
// and every field the flags announce.
bool parse_system_information(const uint8_t *data, size_t n, SystemInfo &out);

} // namespace zel

#endif
