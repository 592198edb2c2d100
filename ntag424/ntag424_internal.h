// Internals of the NTAG 424 DNA and DESFire Light family that the tests, the tool's helpers and the fuzz
// targets reach: the key reference every form passes, the SDM settings composer and the reply readers.
// Never exported.
#ifndef ZEL_NTAG424_INTERNAL_H
#define ZEL_NTAG424_INTERNAL_H

#include <cstdint>

#include "zel_ntag424.h"

namespace zel::ntag424 {

// The command of the family and its operation numbers (the frame's PAR0).
constexpr uint8_t kCmd = 0xB3;
enum Op : uint8_t {
    kGlobalParameters = 1,
    kChangeFileSettings = 2,
    kSetConfiguration = 3,
    kChangeKey = 4,
    kGetUid = 5,
    kGetFileSettings = 6,
    kGetSdmReadCtr = 7,
    kDeleteTmcFile = 8,
    kGetTtStatus = 9,
};

// Where the key is (NT4H_KEY_*), its number in the reader, its 16 bytes when provided, and the card
// selector (NT4H_CARD_*).
struct KeyRef {
    uint8_t source;
    uint8_t number;
    const uint8_t *bytes;
    uint8_t selector;
};

// The settings field of an SDM file: communication mode with 0x40, access rights, SDM options, SDM access
// rights and the offsets that apply. out holds NT4H_MAX_FILE_SETTINGS bytes; returns the length.
uint8_t compose_sdm_settings(uint8_t comm, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, const nt4h_sdm_settings &s,
                             bool with_tt_status, uint8_t *out);

// The SDM session keys (16 bytes each) of a file read key, UID and read counter.
void session_sdm_keys(const uint8_t *file_key, const uint8_t *uid, uint32_t read_ctr, uint8_t *enc_key,
                      uint8_t *mac_key);

} // namespace zel::ntag424

#endif
