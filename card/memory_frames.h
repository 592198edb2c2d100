// The shared routines of the memory card operations: how a key form and auth mode become frame parameters
// and key bytes, one block exchange each way, and the chunked linear transfers. Internal; tests and fuzz
// targets reach them through the static library.
#ifndef ZEL_CARD_MEMORY_FRAMES_H
#define ZEL_CARD_MEMORY_FRAMES_H

#include <cstdint>

#include "zel_types.h"

namespace zel {

enum class KeyForm { Reader, Akm1, Akm2, Provided, Sam };

// How a member treats the auth mode, as flags.
namespace KeyRule {
constexpr unsigned Plain = 0;
constexpr unsigned Nibble = 1;     // the automatic forms keep the mode's low nibble (no AES codes)
constexpr unsigned SixByteKey = 2; // a provided key is always 6 bytes
constexpr unsigned AnyMode = 4;    // the SAM form takes any mode untested
constexpr unsigned NibbleSixByteKey = Nibble | SixByteKey;
} // namespace KeyRule

// What goes into the frame: PAR0, PAR1, and the key bytes that follow the head of the EXT.
struct KeyRoute {
    uint8_t par0 = 0;
    uint8_t par1 = 0;
    const uint8_t *key = nullptr;
    uint8_t key_len = 0;
};

// The key of one call as the caller named it: the form, the auth mode, the key index (reader and SAM
// forms) and the key bytes (the provided form). The generated XHnd of every key form passes one.
struct KeyCall {
    KeyForm form;
    uint8_t auth_mode;
    uint8_t key_index;
    const uint8_t *key;
};

// ZEL_PARAMETERS_ERROR for an auth mode outside the five (or a provided key that is null).
ZEL_STATUS key_route(KeyForm form, uint8_t auth_mode, uint8_t key_index, const uint8_t *key, unsigned rule,
                     KeyRoute &out);

// New keys in trailer and format payloads are 16 bytes for these modes.
inline bool aes_mode_keys(uint8_t auth_mode)
{
    return auth_mode == 0x80 || auth_mode == 0x81;
}

// One exchange with an EXT each way: frame (its EXT_LEN set, the EXT data without checksum in ext), a reply
// of `expected` bytes into data. Status 115 still delivers the data, and is returned.
ZEL_STATUS common_block_read(ZEL_HANDLE hnd, uint8_t *data, uint8_t *frame, const uint8_t *ext, uint8_t expected);
// One exchange whose EXT is head, payload and checksum; the reply frame is left in frame.
ZEL_STATUS common_block_write(ZEL_HANDLE hnd, uint8_t *frame, const uint8_t *head, uint32_t head_len,
                              const uint8_t *payload, uint32_t payload_len);

// The chunked transfers of the linear space (cmd 0x14, 0x45 or 0x15).
ZEL_STATUS common_linear_read(ZEL_HANDLE hnd, uint8_t *data, uint16_t address, uint16_t length,
                              uint16_t *bytes_returned, uint8_t cmd, const KeyRoute &key);
ZEL_STATUS common_linear_write(ZEL_HANDLE hnd, const uint8_t *data, uint16_t address, uint16_t length,
                               uint16_t *bytes_written, uint8_t cmd, const KeyRoute &key);

// The assembly buffer of the multi-block stream a reader switches to with status 185.
constexpr uint32_t kStreamAssemblyLen = 3504;
// Reads that stream and hands `remaining` bytes to data from its start.
ZEL_STATUS read_linear_stream(ZEL_HANDLE hnd, uint8_t *data, uint16_t remaining, uint16_t *bytes_returned);

} // namespace zel

#endif
