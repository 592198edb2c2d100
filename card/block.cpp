// Memory cards: blocks, the linear space, sector trailers and value blocks, each operation once for all its
// key forms. The reader owns the card protocol; here the key is encoded, long transfers are cut into frames and every piece is
// carried with its checksum.
#include <cstring>

#include "card/memory_frames.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "core/wipe.h"
#include "zel_block.h"
#include "zel_port.h"
#include "zel_status.h"

using namespace zel;

namespace zel {

namespace {

constexpr uint8_t kFlagAkm1 = 0x20, kFlagAkm2 = 0x40;

uint8_t fold(const uint8_t *data, uint32_t len, uint8_t seed = 0)
{
    return GetChecksumFragment(seed, data, static_cast<uint16_t>(len));
}

} // namespace

ZEL_STATUS key_route(KeyForm form, uint8_t auth_mode, uint8_t key_index, const uint8_t *key, unsigned rule,
                     KeyRoute &out)
{
    out = KeyRoute{};
    if (!(form == KeyForm::Sam && (rule & KeyRule::AnyMode)) && TestAuthMode(auth_mode) != ZEL_OK)
        return ZEL_PARAMETERS_ERROR;
    switch (form) {
    case KeyForm::Reader:
        out.par0 = auth_mode_par0(auth_mode);
        out.par1 = key_index;
        break;
    case KeyForm::Akm1:
    case KeyForm::Akm2: {
        const uint8_t flag = form == KeyForm::Akm1 ? kFlagAkm1 : kFlagAkm2;
        // Value block and raw row reads keep only the low nibble of the mode: no AES meaning there.
        const uint8_t low =
            (rule & KeyRule::Nibble) ? static_cast<uint8_t>(auth_mode & 0x0F) : auth_mode_par0(auth_mode);
        out.par0 = static_cast<uint8_t>(low | flag);
        break;
    }
    case KeyForm::Provided:
        if (!key)
            return ZEL_PARAMETERS_ERROR;
        out.par0 = auth_mode;
        out.key = key;
        out.key_len = (rule & KeyRule::SixByteKey) || !aes_mode_keys(auth_mode) ? 6 : 16;
        break;
    case KeyForm::Sam:
        out.par0 = auth_mode == 0x60 ? 0x10 : 0x11;
        out.par1 = key_index;
        break;
    }
    return ZEL_OK;
}

ZEL_STATUS common_block_read(ZEL_HANDLE hnd, uint8_t *data, uint8_t *frame, const uint8_t *ext, uint8_t expected)
{
    const uint8_t command = frame[kCmd];
    const uint8_t ext_size = frame[kExtLen];
    uint8_t ack = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack);
    if (status != ZEL_OK)
        return status;
    uint8_t out[256];
    const WipeOnExit wipe_out(out, sizeof out);
    std::memcpy(out, ext, ext_size - 1u);
    out[ext_size - 1u] = static_cast<uint8_t>(fold(out, ext_size - 1u) + 7);
    if ((status = PortWrite(hnd, out, ext_size)) != ZEL_OK)
        return status;
    // A value block whose address bytes disagree is still read: its data come with status 115.
    const ZEL_STATUS intro = GetAndTestResponseIntro(hnd, frame, command);
    if (intro != ZEL_OK && intro != ZEL_VALUE_BLOCK_ADDR_INVALID)
        return intro;
    if ((status = read_block_data(hnd, frame[kExtLen], expected, data)) != ZEL_OK)
        return status;
    return intro;
}

ZEL_STATUS common_block_write(ZEL_HANDLE hnd, uint8_t *frame, const uint8_t *head, uint32_t head_len,
                              const uint8_t *payload, uint32_t payload_len)
{
    const uint8_t command = frame[kCmd];
    const uint32_t size = head_len + payload_len + 1;
    if (size > 255)
        return ZEL_MAX_SIZE_EXCEEDED;
    frame[kExtLen] = static_cast<uint8_t>(size);
    uint8_t ack = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack);
    if (status != ZEL_OK)
        return status;
    uint8_t out[256];
    const WipeOnExit wipe_out(out, sizeof out);
    std::memcpy(out, head, head_len);
    if (payload_len)
        std::memcpy(out + head_len, payload, payload_len);
    out[size - 1] = static_cast<uint8_t>(fold(payload, payload_len, fold(head, head_len)) + 7);
    if ((status = PortWrite(hnd, out, size)) != ZEL_OK)
        return status;
    return GetAndTestResponseIntroSam(hnd, frame, command);
}

// The head of a linear access EXT: address, length of this chunk, the key when the frame carries one.
static uint32_t linear_head(uint8_t *ext, uint16_t address, uint32_t chunk, const KeyRoute &key)
{
    uint32_t n = 0;
    ext[n++] = static_cast<uint8_t>(address);
    ext[n++] = static_cast<uint8_t>(address >> 8);
    ext[n++] = static_cast<uint8_t>(chunk);
    ext[n++] = static_cast<uint8_t>(chunk >> 8);
    if (key.key_len) {
        std::memcpy(ext + n, key.key, key.key_len);
        n += key.key_len;
    }
    return n;
}
ZEL_STATUS common_linear_read(ZEL_HANDLE hnd, uint8_t *data, uint16_t address, uint16_t length,
                              uint16_t *bytes_returned, uint8_t cmd, const KeyRoute &key)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!data || !bytes_returned)
        return ZEL_PARAMETERS_ERROR;
    *bytes_returned = 0;
    uint8_t templ[kFrameLen];
    // The frame's size covers address, chunk, key, remaining and checksum.
    make_command(templ, cmd, static_cast<uint8_t>(7 + key.key_len), key.par0, key.par1);
    uint16_t remaining = length;
    for (;;) {
        // The test is on the 16-bit sum: lengths just below 65536 ask for the whole in one chunk.
        const uint16_t chunk = static_cast<uint16_t>(remaining + 8) <= 192 ? remaining : 184;
        uint8_t frame[kFrameBufLen];
        std::memcpy(frame, templ, kFrameLen);
        uint8_t ack = 0;
        ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack);
        if (status != ZEL_OK)
            return status;
        uint8_t ext[32];
        const WipeOnExit wipe_ext(ext, sizeof ext);
        uint32_t n = linear_head(ext, address, chunk, key);
        ext[n++] = static_cast<uint8_t>(remaining);
        ext[n++] = static_cast<uint8_t>(remaining >> 8);
        ext[n] = static_cast<uint8_t>(fold(ext, n) + 7);
        if ((status = PortWrite(hnd, ext, n + 1)) != ZEL_OK)
            return status;
        status = GetAndTestResponseIntroSam(hnd, frame, cmd);
        if (status == ZEL_MFP_MULTI_BLOCKS_READ)
            return read_linear_stream(hnd, data, remaining, bytes_returned);
        if (status != ZEL_OK)
            return status;
        if (frame[kExtLen] != chunk + 1u)
            return ZEL_COMMUNICATION_ERROR;
        if ((status = read_block_data(hnd, frame[kExtLen], frame[kExtLen], data + *bytes_returned)) != ZEL_OK)
            return status;
        *bytes_returned = static_cast<uint16_t>(*bytes_returned + chunk);
        address = static_cast<uint16_t>(address + chunk);
        remaining = static_cast<uint16_t>(remaining - chunk);
        if (remaining == 0)
            return ZEL_OK;
    }
}

ZEL_STATUS read_linear_stream(ZEL_HANDLE hnd, uint8_t *data, uint16_t remaining, uint16_t *bytes_returned)
{
    uint8_t assembly[kStreamAssemblyLen] = {};
    uint32_t got = 0;
    const ZEL_STATUS status = read_multiblock_stream(hnd, assembly, sizeof assembly, &got);
    if (status != ZEL_OK) {
        *bytes_returned = static_cast<uint16_t>(*bytes_returned + got);
        return status;
    }
    // The whole rest is delivered from the start of the caller's data.
    if (remaining > sizeof assembly)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(data, assembly, remaining);
    *bytes_returned = remaining;
    return ZEL_OK;
}

ZEL_STATUS common_linear_write(ZEL_HANDLE hnd, const uint8_t *data, uint16_t address, uint16_t length,
                               uint16_t *bytes_written, uint8_t cmd, const KeyRoute &key)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if ((!data && length) || !bytes_written)
        return ZEL_PARAMETERS_ERROR;
    *bytes_written = 0;
    const uint32_t prefix = 5u + key.key_len;
    uint32_t remaining = length;
    for (;;) {
        const uint32_t chunk = remaining + prefix <= 189 ? remaining : 189 - prefix;
        uint8_t frame[kFrameBufLen];
        make_command(frame, cmd, static_cast<uint8_t>(chunk + prefix), key.par0, key.par1);
        uint8_t ack = 0;
        ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack);
        if (status != ZEL_OK)
            return status;
        uint8_t ext[256];
        const WipeOnExit wipe_ext(ext, sizeof ext);
        uint32_t n = linear_head(ext, address, chunk, key);
        if (chunk) {
            std::memcpy(ext + n, data + *bytes_written, chunk);
            n += chunk;
        }
        ext[n] = static_cast<uint8_t>(fold(ext, n) + 7);
        if ((status = PortWrite(hnd, ext, n + 1)) != ZEL_OK)
            return status;
        if ((status = GetAndTestResponseIntroSam(hnd, frame, cmd)) != ZEL_OK)
            return status;
        *bytes_written = static_cast<uint16_t>(*bytes_written + chunk);
        address = static_cast<uint16_t>(address + chunk);
        remaining -= chunk;
        if (remaining == 0)
            return ZEL_OK;
    }
}

} // namespace zel

namespace {

// The four-byte head of a block operation: block (or block in sector), sector, mode, fourth byte.
struct Head {
    uint8_t b[4];
};

// One block read: head, key when provided, and the expected reply size.
ZEL_STATUS block_read(ZEL_HANDLE hnd, uint8_t cmd, uint8_t *out, uint8_t expected, Head head, const KeyRoute &key)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t ext[32];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    std::memcpy(ext, head.b, 4);
    if (key.key_len)
        std::memcpy(ext + 4, key.key, key.key_len);
    uint8_t frame[kFrameBufLen];
    make_command(frame, cmd, static_cast<uint8_t>(5 + key.key_len), key.par0, key.par1);
    return common_block_read(hnd, out, frame, ext, expected);
}

ZEL_STATUS block_write(ZEL_HANDLE hnd, uint8_t cmd, Head head, const KeyRoute &key, const uint8_t *payload,
                       uint32_t payload_len, uint8_t *reply_par0 = nullptr)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t h[32];
    const WipeOnExit wipe_h(h, sizeof h);
    std::memcpy(h, head.b, 4);
    if (key.key_len)
        std::memcpy(h + 4, key.key, key.key_len);
    uint8_t frame[kFrameBufLen];
    make_command(frame, cmd, 0, key.par0, key.par1);
    const ZEL_STATUS status = common_block_write(hnd, frame, h, 4u + key.key_len, payload, payload_len);
    if (reply_par0)
        *reply_par0 = frame[kPar0];
    return status;
}

// Value blocks hold a signed 32-bit value, little-endian.
void put_i32(uint8_t *p, int32_t v)
{
    put_le32(p, static_cast<uint32_t>(v));
}

int32_t get_i32(const uint8_t *p)
{
    return static_cast<int32_t>(get_le32(p));
}

// The operations, each once, with the key route already made.

ZEL_STATUS op_block_read(ZEL_HANDLE h, const KeyRoute &k, uint8_t *data, uint8_t block)
{
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    return block_read(h, 0x16, data, 17, Head{{block, 0, 0, 0}}, k);
}
ZEL_STATUS op_block_in_sector_read(ZEL_HANDLE h, const KeyRoute &k, uint8_t *data, uint8_t sector, uint8_t block)
{
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    return block_read(h, 0x18, data, 17, Head{{block, sector, 0, 0}}, k);
}
ZEL_STATUS op_block_write(ZEL_HANDLE h, const KeyRoute &k, const uint8_t *data, uint8_t block)
{
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    return block_write(h, 0x17, Head{{block, 0, 0, 0}}, k, data, 16);
}
ZEL_STATUS op_block_in_sector_write(ZEL_HANDLE h, const KeyRoute &k, const uint8_t *data, uint8_t sector, uint8_t block)
{
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    return block_write(h, 0x19, Head{{block, sector, 0, 0}}, k, data, 16);
}

ZEL_STATUS op_linear_format(ZEL_HANDLE h, const KeyRoute &k, uint8_t auth_mode, const uint8_t *key_a,
                            uint8_t block_bits, uint8_t trailer_bits, uint8_t byte9, const uint8_t *key_b,
                            uint8_t *formatted)
{
    if (!key_a || !key_b)
        return ZEL_PARAMETERS_ERROR;
    uint8_t payload[32];
    const WipeOnExit wipe_payload(payload, sizeof payload);
    uint32_t n = 0;
    std::memcpy(payload, key_a, 6);
    std::memcpy(payload + 6, key_b, 6);
    n = 12;
    if (aes_mode_keys(auth_mode)) {
        std::memcpy(payload + 12, key_a + 6, 10);
        std::memcpy(payload + 22, key_b + 6, 10);
        n = 32;
    }
    uint8_t count = 0;
    const ZEL_STATUS status = block_write(h, 0x25, Head{{block_bits, trailer_bits, 0, byte9}}, k, payload, n, &count);
    // A failed write or authentication stops a format part way: the count tells how far it came.
    if (formatted)
        *formatted = status == ZEL_OK || status == ZEL_WRITING_ERROR || status == ZEL_AUTH_ERROR ? count : 0;
    return status;
}

ZEL_STATUS op_trailer_write(ZEL_HANDLE h, const KeyRoute &k, uint8_t auth_mode, uint8_t mode, uint8_t address,
                            const uint8_t *key_a, uint8_t b0, uint8_t b1, uint8_t b2, uint8_t bt, uint8_t byte9,
                            const uint8_t *key_b)
{
    if (!key_a || !key_b)
        return ZEL_PARAMETERS_ERROR;
    uint8_t payload[36];
    const WipeOnExit wipe_payload(payload, sizeof payload);
    std::memcpy(payload, key_a, 6);
    payload[6] = b0;
    payload[7] = b1;
    payload[8] = b2;
    payload[9] = bt;
    std::memcpy(payload + 10, key_b, 6);
    uint32_t n = 16;
    if (aes_mode_keys(auth_mode)) {
        std::memcpy(payload + 16, key_a + 6, 10);
        std::memcpy(payload + 26, key_b + 6, 10);
        n = 36;
    }
    return block_write(h, 0x1A, Head{{address, 0, mode, byte9}}, k, payload, n);
}

ZEL_STATUS op_trailer_write_unsafe(ZEL_HANDLE h, const KeyRoute &k, uint8_t mode, uint8_t address,
                                   const uint8_t *trailer)
{
    if (!trailer)
        return ZEL_PARAMETERS_ERROR;
    return block_write(h, 0x2F, Head{{address, 0, mode, 0}}, k, trailer, 16);
}

ZEL_STATUS value_read(ZEL_HANDLE h, uint8_t cmd, const KeyRoute &k, int32_t *value, uint8_t *value_addr, Head head)
{
    if (!h)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!value || !value_addr)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[32];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    std::memcpy(ext, head.b, 4);
    if (k.key_len)
        std::memcpy(ext + 4, k.key, k.key_len);
    uint8_t frame[kFrameBufLen];
    make_command(frame, cmd, static_cast<uint8_t>(5 + k.key_len), k.par0, k.par1);
    uint8_t v[4];
    const ZEL_STATUS status = common_block_read(h, v, frame, ext, 5);
    if (status == ZEL_OK || status == ZEL_VALUE_BLOCK_ADDR_INVALID)
        *value = get_i32(v);
    // The address byte of the reply frame, also after a failure that still carried the value; not with 115.
    if (status != ZEL_VALUE_BLOCK_ADDR_INVALID)
        *value_addr = frame[kPar0];
    return status;
}

ZEL_STATUS value_write(ZEL_HANDLE h, uint8_t cmd, const KeyRoute &k, int32_t value, Head head)
{
    uint8_t v[4];
    put_i32(v, value);
    return block_write(h, cmd, head, k, v, 4);
}

} // namespace

// The shared implementations the generated key forms call (card/block_forms.cpp, from api/block.forms).
// Each routes its key by its rule; the SAM form routes every operation by the plain rule.

namespace {

template <typename Body> ZEL_STATUS routed(const KeyCall &key, unsigned rule, Body body)
{
    KeyRoute k;
    const unsigned r = key.form == KeyForm::Sam ? KeyRule::Plain : rule;
    const ZEL_STATUS s = key_route(key.form, key.auth_mode, key.key_index, key.key, r, k);
    return s != ZEL_OK ? s : body(k);
}

} // namespace

namespace zel {

ZEL_STATUS mem_block_read(ZEL_HANDLE hnd, KeyCall key, uint8_t *data, uint8_t block_address)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) { return op_block_read(hnd, k, data, block_address); });
}
ZEL_STATUS mem_block_in_sector_read(ZEL_HANDLE hnd, KeyCall key, uint8_t *data, uint8_t sector_address,
                                    uint8_t block_in_sector_address)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return op_block_in_sector_read(hnd, k, data, sector_address, block_in_sector_address);
    });
}
ZEL_STATUS mem_block_write(ZEL_HANDLE hnd, KeyCall key, const uint8_t *data, uint8_t block_address)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) { return op_block_write(hnd, k, data, block_address); });
}
ZEL_STATUS mem_block_in_sector_write(ZEL_HANDLE hnd, KeyCall key, const uint8_t *data, uint8_t sector_address,
                                     uint8_t block_in_sector_address)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return op_block_in_sector_write(hnd, k, data, sector_address, block_in_sector_address);
    });
}
ZEL_STATUS mem_linear_read(ZEL_HANDLE hnd, KeyCall key, uint8_t *data, uint16_t linear_address, uint16_t length,
                           uint16_t *bytes_returned)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return common_linear_read(hnd, data, linear_address, length, bytes_returned, 0x14, k);
    });
}
ZEL_STATUS mem_lin_row_read(ZEL_HANDLE hnd, KeyCall key, uint8_t *data, uint16_t linear_address, uint16_t length,
                            uint16_t *bytes_returned)
{
    return routed(key, KeyRule::NibbleSixByteKey, [&](const KeyRoute &k) {
        return common_linear_read(hnd, data, linear_address, length, bytes_returned, 0x45, k);
    });
}
ZEL_STATUS mem_linear_write(ZEL_HANDLE hnd, KeyCall key, const uint8_t *data, uint16_t linear_address, uint16_t length,
                            uint16_t *bytes_written)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return common_linear_write(hnd, data, linear_address, length, bytes_written, 0x15, k);
    });
}
ZEL_STATUS mem_linear_format_card(ZEL_HANDLE hnd, KeyCall key, const uint8_t *new_key_A, uint8_t blocks_access_bits,
                                  uint8_t sector_trailers_access_bits, uint8_t sector_trailers_byte9,
                                  const uint8_t *new_key_B, uint8_t *sectors_formatted)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return op_linear_format(hnd, k, key.auth_mode, new_key_A, blocks_access_bits, sector_trailers_access_bits,
                                sector_trailers_byte9, new_key_B, sectors_formatted);
    });
}
ZEL_STATUS mem_sector_trailer_write(ZEL_HANDLE hnd, KeyCall key, uint8_t addressing_mode, uint8_t address,
                                    const uint8_t *new_key_A, uint8_t block0_access_bits, uint8_t block1_access_bits,
                                    uint8_t block2_access_bits, uint8_t sector_trailer_access_bits,
                                    uint8_t sector_trailer_byte9, const uint8_t *new_key_B)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return op_trailer_write(hnd, k, key.auth_mode, addressing_mode, address, new_key_A, block0_access_bits,
                                block1_access_bits, block2_access_bits, sector_trailer_access_bits,
                                sector_trailer_byte9, new_key_B);
    });
}
ZEL_STATUS mem_sector_trailer_write_unsafe(ZEL_HANDLE hnd, KeyCall key, uint8_t addressing_mode, uint8_t address,
                                           const uint8_t *sector_trailer)
{
    return routed(key, KeyRule::Plain, [&](const KeyRoute &k) {
        return op_trailer_write_unsafe(hnd, k, addressing_mode, address, sector_trailer);
    });
}
ZEL_STATUS mem_value_block_read(ZEL_HANDLE hnd, KeyCall key, int32_t *value, uint8_t *value_addr, uint8_t block_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_read(hnd, 0x1D, k, value, value_addr, Head{{block_address, 0, 0, 0}});
    });
}
ZEL_STATUS mem_value_block_in_sector_read(ZEL_HANDLE hnd, KeyCall key, int32_t *value, uint8_t *value_addr,
                                          uint8_t sector_address, uint8_t block_in_sector_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_read(hnd, 0x1F, k, value, value_addr, Head{{block_in_sector_address, sector_address, 0, 0}});
    });
}
ZEL_STATUS mem_value_block_write(ZEL_HANDLE hnd, KeyCall key, int32_t value, uint8_t value_addr, uint8_t block_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_write(hnd, 0x1E, k, value, Head{{block_address, 0, 0, value_addr}});
    });
}
ZEL_STATUS mem_value_block_in_sector_write(ZEL_HANDLE hnd, KeyCall key, int32_t value, uint8_t value_addr,
                                           uint8_t sector_address, uint8_t block_in_sector_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_write(hnd, 0x20, k, value, Head{{block_in_sector_address, sector_address, 0, value_addr}});
    });
}
ZEL_STATUS mem_value_block_increment(ZEL_HANDLE hnd, KeyCall key, int32_t increment_value, uint8_t block_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_write(hnd, 0x21, k, increment_value, Head{{block_address, 0, 0, 0}});
    });
}
ZEL_STATUS mem_value_block_in_sector_increment(ZEL_HANDLE hnd, KeyCall key, int32_t increment_value,
                                               uint8_t sector_address, uint8_t block_in_sector_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_write(hnd, 0x23, k, increment_value, Head{{block_in_sector_address, sector_address, 0, 0}});
    });
}
// The one operation whose SAM form takes any auth mode: 0x60 goes as 0x10, everything else as 0x11.
ZEL_STATUS mem_value_block_decrement(ZEL_HANDLE hnd, KeyCall key, int32_t decrement_value, uint8_t block_address)
{
    auto body = [&](const KeyRoute &k) {
        return value_write(hnd, 0x22, k, decrement_value, Head{{block_address, 0, 0, 0}});
    };
    if (key.form == KeyForm::Sam) {
        KeyRoute k;
        const ZEL_STATUS s = key_route(key.form, key.auth_mode, key.key_index, key.key, KeyRule::AnyMode, k);
        return s != ZEL_OK ? s : body(k);
    }
    return routed(key, KeyRule::Nibble, body);
}
ZEL_STATUS mem_value_block_in_sector_decrement(ZEL_HANDLE hnd, KeyCall key, int32_t decrement_value,
                                               uint8_t sector_address, uint8_t block_in_sector_address)
{
    return routed(key, KeyRule::Nibble, [&](const KeyRoute &k) {
        return value_write(hnd, 0x24, k, decrement_value, Head{{block_in_sector_address, sector_address, 0, 0}});
    });
}

} // namespace zel
