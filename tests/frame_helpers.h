// Frames and EXT blocks as the reader and the host put them on the wire, for the tests to script replies
// and to compare what was sent. Each frame carries its checksum: (XOR of the bytes before it) + 7.
#ifndef ZEL_TESTS_FRAME_HELPERS_H
#define ZEL_TESTS_FRAME_HELPERS_H

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace zeltest {

using Bytes = std::vector<uint8_t>;

// The checksum of all of b.
inline uint8_t checksum(const Bytes &b)
{
    uint8_t x = 0;
    for (uint8_t v : b)
        x ^= v;
    return static_cast<uint8_t>(x + 7);
}

// A frame of kind (header, trailer) with its checksum.
inline Bytes frame(uint8_t header, uint8_t cmd, uint8_t trailer, uint8_t ext_len = 0, uint8_t p0 = 0, uint8_t p1 = 0)
{
    Bytes f{header, cmd, trailer, ext_len, p0, p1};
    f.push_back(checksum(f));
    return f;
}
// Data followed by its checksum.
inline Bytes ext(const Bytes &data)
{
    Bytes e = data;
    e.push_back(checksum(data));
    return e;
}
inline Bytes cat(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The frame kinds: a command, an acknowledge, a response and an error frame.
inline Bytes cmd(uint8_t code, uint8_t ext_len = 0, uint8_t p0 = 0, uint8_t p1 = 0)
{
    return frame(0x55, code, 0xAA, ext_len, p0, p1);
}
inline Bytes ack(uint8_t code, uint8_t ext_len = 0)
{
    return frame(0xAC, code, 0xCA, ext_len);
}
inline Bytes rsp(uint8_t code, uint8_t ext_len = 0, uint8_t p0 = 0, uint8_t p1 = 0)
{
    return frame(0xDE, code, 0xED, ext_len, p0, p1);
}
inline Bytes err(uint8_t code, uint8_t ext_len = 0, uint8_t p0 = 0)
{
    return frame(0xEC, code, 0xCE, ext_len, p0);
}

// A command and, when there are data, its EXT behind it.
inline Bytes request(uint8_t code, uint8_t p0, uint8_t p1, const Bytes &data = {})
{
    if (data.empty())
        return cmd(code, 0, p0, p1);
    return cat(cmd(code, static_cast<uint8_t>(data.size() + 1), p0, p1), ext(data));
}
// A response (PAR0 0) and, when there are data, its EXT behind it.
inline Bytes response(uint8_t code, const Bytes &data, uint8_t p1 = 0)
{
    if (data.empty())
        return rsp(code, 0, 0, p1);
    return cat(rsp(code, static_cast<uint8_t>(data.size() + 1), 0, p1), ext(data));
}

// Little-endian fields as bytes.
inline Bytes le16(uint32_t v)
{
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)};
}
inline Bytes le32(uint32_t v)
{
    return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
            static_cast<uint8_t>(v >> 24)};
}

} // namespace zeltest

#endif
