// The reader's side of the wire: checksums and the frames a reader sends.
#ifndef ZELSIM_WIRE_H
#define ZELSIM_WIRE_H

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zs {

constexpr uint8_t CMD_HEADER = 0x55, CMD_TRAILER = 0xAA;
constexpr uint8_t ACK_HEADER = 0xAC, ACK_TRAILER = 0xCA;
constexpr uint8_t RSP_HEADER = 0xDE, RSP_TRAILER = 0xED;
constexpr uint8_t ERR_HEADER = 0xEC, ERR_TRAILER = 0xCE;
constexpr uint8_t INT_HEADER = 0xA1, INT_TRAILER = 0x85;

// Error codes the reader puts in an error frame.
constexpr uint8_t E_CHKSUM = 2, E_MAX_ADDRESS = 6, E_MAX_KEY_INDEX = 7, E_NO_CARD = 8, E_NOT_SUPPORTED = 9,
                  E_PARAMETERS = 15, E_MAX_SIZE = 16, E_KEYS_LOCKED = 118, E_WRONG_PASSWORD = 120;

// (XOR of the bytes) + 7, modulo 256.
inline uint8_t checksum(const uint8_t *p, size_t n)
{
    uint8_t x = 0;
    for (size_t i = 0; i < n; ++i)
        x ^= p[i];
    return static_cast<uint8_t>(x + 7);
}

// True when the last of n bytes is the checksum of the ones before it.
inline bool checksum_ok(const uint8_t *p, size_t n)
{
    return n >= 1 && p[n - 1] == checksum(p, n - 1);
}

inline bool is_command_frame(const uint8_t *f)
{
    return f[0] == CMD_HEADER && f[2] == CMD_TRAILER && checksum_ok(f, 7);
}

// Appends one 7-byte frame.
inline void put_frame(std::vector<uint8_t> &out, uint8_t header, uint8_t cmd, uint8_t trailer, uint8_t ext_len,
                      uint8_t p0, uint8_t p1)
{
    const uint8_t f[7] = {header, cmd, trailer, ext_len, p0, p1, 0};
    out.insert(out.end(), f, f + 6);
    out.push_back(checksum(f, 6));
}

// Appends a response frame and, when data is given, the EXT block (data then checksum).
inline void put_response(std::vector<uint8_t> &out, uint8_t cmd, uint8_t p0, uint8_t p1, const uint8_t *data = nullptr,
                         size_t len = 0)
{
    if (len > 254)
        len = 254;
    put_frame(out, RSP_HEADER, cmd, RSP_TRAILER, static_cast<uint8_t>(data ? len + 1 : 0), p0, p1);
    if (data) {
        out.insert(out.end(), data, data + len);
        out.push_back(checksum(data, len));
    }
}

inline void put_error(std::vector<uint8_t> &out, uint8_t code)
{
    put_frame(out, ERR_HEADER, code, ERR_TRAILER, 0, 0, 0);
}

} // namespace zs
#endif
