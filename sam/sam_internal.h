// Internals of the SAM family that the tests, the fuzz targets and the tool reach: the random source seam,
// one APDU exchange with the status word apart, and the key entry message builder. Never exported.
#ifndef ZEL_SAM_INTERNAL_H
#define ZEL_SAM_INTERNAL_H

#include <cstdint>

#include "zel_handle.h"

namespace zel::sam {

// Status words as the transport keeps them: SW1 in the low byte.
constexpr uint16_t kSwOk = 0x0090;   // 90 00
constexpr uint16_t kSwMore = 0xAF90; // 90 AF

constexpr uint8_t kCla = 0x80;
constexpr uint8_t kInsVersion = 0x60, kInsKeyEntry = 0x64, kInsAuthHost = 0xA4, kInsLockUnlock = 0x10,
                  kInsChangeKeyEntry = 0xC1;

// The largest answer any SAM command of this family takes, status word included.
constexpr uint32_t kReplyMax = 64;

// Random bytes for the challenges: OpenSSL's generator unless a test put its own source in place (null
// gives OpenSSL back). The source answers false when it has none to give.
using RandomFn = bool (*)(uint8_t *out, uint32_t n);
void set_random_source(RandomFn fn);

// One APDU to the SAM: the answer's data in data (at most kReplyMax - 2 bytes), its length and the status
// word apart. A transport failure is returned as it came (sw 0); an answer without a status word is
// ZEL_SAM_APDU_ERROR.
struct Answer {
    uint8_t data[kReplyMax] = {};
    uint32_t len = 0;
    uint16_t sw = 0;
};
ZEL_STATUS exchange(ZEL_HANDLE hnd, const uint8_t *cmd, uint32_t len, Answer &a);

// The ChangeKeyEntry APDU of the AV2 mode (66 bytes) from its template: entry in P1, the three 16-byte
// key fields as given (null leaves zeros), the change entry key, its version, the key usage counter, the
// configuration byte and the three versions.
constexpr uint32_t kChangeKeyEntryLen = 66;
struct EntryFields {
    uint8_t entry = 0;
    uint8_t p2 = 0xFF;
    const uint8_t *key_a = nullptr, *key_b = nullptr, *key_c = nullptr;
    uint8_t len_a = 16, len_b = 16, len_c = 16;
    uint8_t cek_no = 0, cek_ver = 0, kuc = 0xFF;
    uint8_t set = 0;
    uint8_t ver_a = 0, ver_b = 1, ver_c = 2;
};
void change_key_entry_apdu(const EntryFields &f, uint8_t out[kChangeKeyEntryLen]);

// The set configuration byte of each key type.
constexpr uint8_t kSetMifare = 0x10, kSetAes = 0x24, kSetDes = 0x34, kSet2k3des = 0x0C, kSet3k3des = 0x1C,
                  kSetAesHost = 0x20;

} // namespace zel::sam

#endif
