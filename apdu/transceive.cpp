// APDUs that the reader carries with its own block protocol: the plain chained exchange, the case builder
// on top of it, and the hexadecimal text form.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "apdu/apdu_internal.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "tandro.h"
#include "zel_apdu.h"

using namespace zel;

uint32_t zel::apdu_build(const uint8_t header[4], const uint8_t *data, uint32_t nc, uint32_t ne, bool send_le,
                         uint8_t out[kApduBuildMax], uint32_t *reply_block)
{
    if (nc > ZEL_APDU_MAX_NC || (!data && nc) || (data && !nc))
        return 0;
    if (ne > 256 && !(nc == 0 && ne <= ZEL_APDU_MAX_NE))
        return 0;
    std::memcpy(out, header, 4);
    uint32_t n = 4;
    if (nc == 0) {
        if (send_le && ne > 256) {
            out[n++] = 0x00;
            out[n++] = static_cast<uint8_t>(ne >> 8);
            out[n++] = static_cast<uint8_t>(ne);
        } else if (send_le && ne > 0) {
            out[n++] = static_cast<uint8_t>(ne); // 256 goes as 00
        }
    } else {
        out[n++] = static_cast<uint8_t>(nc);
        std::memcpy(out + n, data, nc);
        n += nc;
        if (send_le)
            out[n++] = static_cast<uint8_t>(ne); // 256 and 0 both go as 00
    }
    *reply_block = send_le ? ne + 2 : 2;
    return n;
}

uint32_t zel::apdu_build_extended(const uint8_t header[4], uint32_t ne, bool send_le, uint8_t out[kApduBuildMax],
                                  uint32_t *reply_block)
{
    if (ne > ZEL_APDU_MAX_NE)
        return 0;
    std::memcpy(out, header, 4);
    if (!send_le) {
        *reply_block = 2;
        return 4;
    }
    out[4] = 0x00;
    out[5] = static_cast<uint8_t>(ne >> 8);
    out[6] = static_cast<uint8_t>(ne);
    *reply_block = ne + 2;
    return 7;
}

bool zel::apdu_case_decode(const uint8_t *p, uint32_t len, ApduCase &c)
{
    c = ApduCase{};
    if (!p || len < 4)
        return false;
    const uint8_t *b = p + 4;
    const uint32_t body = len - 4;
    if (body == 0) {
        c.kind = 1;
        return true;
    }
    if (body == 1) {
        c.kind = 2;
        c.has_le = true;
        c.ne = b[0] ? b[0] : 256;
        return true;
    }
    if (b[0] != 0) {
        const uint32_t lc = b[0];
        c.nc = lc;
        c.data_at = 5;
        if (body == 1 + lc) {
            c.kind = 3;
            return true;
        }
        if (body == 2 + lc) {
            c.kind = 4;
            c.has_le = true;
            c.ne = b[1 + lc] ? b[1 + lc] : 256;
            return true;
        }
        c = ApduCase{};
        return false;
    }
    if (body < 3) {
        c = ApduCase{};
        return false;
    }
    c.extended = true;
    const uint32_t word = static_cast<uint32_t>(b[1]) << 8 | b[2];
    if (body == 3) {
        c.kind = 2;
        c.has_le = true;
        c.ne = word ? word : 65536;
        return true;
    }
    if (word == 0) {
        c = ApduCase{};
        return false;
    }
    c.nc = word;
    c.data_at = 7;
    if (body == 3 + word) {
        c.kind = 3;
        return true;
    }
    if (body == 5 + word) {
        const uint32_t le = static_cast<uint32_t>(b[3 + word]) << 8 | b[4 + word];
        c.kind = 4;
        c.has_le = true;
        c.ne = le ? le : 65536;
        return true;
    }
    c = ApduCase{};
    return false;
}

namespace {

ZEL_STATUS plain_checks(zel_handle_record *hnd, const uint8_t *cmd, uint32_t len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!cmd || len < ZEL_APDU_MIN_COMMAND)
        return ZEL_PARAMETERS_ERROR;
    if (len > ZEL_APDU_MAX_COMMAND)
        return ZEL_MAX_SIZE_EXCEEDED;
    return ZEL_OK;
}

} // namespace

ZEL_STATUS zel::apdu_plain(zel_handle_record *hnd, const uint8_t *cmd, uint32_t len, uint8_t *reply, uint32_t capacity,
                           uint32_t *reply_len)
{
    ZEL_STATUS status = plain_checks(hnd, cmd, len);
    if (status != ZEL_OK)
        return status;
    if (!reply || !reply_len)
        return ZEL_PARAMETERS_ERROR;
    uint8_t *block = nullptr;
    uint32_t n = 0;
    if ((status = chain_transceive(hnd, cmd, len, &block, &n, false, false)) != ZEL_OK)
        return status;
    if (n > capacity) {
        std::free(block);
        return ZEL_BUFFER_SIZE_EXCEEDED;
    }
    std::memcpy(reply, block, n);
    *reply_len = n;
    std::free(block);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS APDUPlainTransceiveHnd(ZEL_HANDLE hnd, const uint8_t *c_apdu, uint32_t c_len,
                                                     uint8_t *r_apdu, uint32_t *r_len)
{
    // No capacity comes with the call: the buffer is taken to hold the longest reply there can be.
    return apdu_plain(hnd, c_apdu, c_len, r_apdu, ZEL_APDU_MAX_COMMAND, r_len);
}

extern "C" ZEL_API ZEL_STATUS APDUPlainTransceiveToHeapHnd(ZEL_HANDLE hnd, const uint8_t *c_apdu, uint32_t c_len,
                                                           uint8_t **r_apdu, uint32_t *r_len)
{
    if (r_apdu)
        *r_apdu = nullptr;
    if (r_len)
        *r_len = 0;
    ZEL_STATUS status = plain_checks(hnd, c_apdu, c_len);
    if (status != ZEL_OK)
        return status;
    if (!r_apdu || !r_len)
        return ZEL_PARAMETERS_ERROR;
    uint8_t *block = nullptr;
    uint32_t n = 0;
    if ((status = chain_transceive(hnd, c_apdu, c_len, &block, &n, true, true)) != ZEL_OK)
        return status;
    *r_apdu = block;
    *r_len = n;
    return ZEL_OK;
}

namespace {

// Steps 4 to 6 of the case builder: the exchange, the status word, the data.
ZEL_STATUS run_built(zel_handle_record *hnd, const uint8_t *cmd, uint32_t len, uint32_t block_size, uint8_t *data_out,
                     uint32_t *ne, uint16_t *sw)
{
    const uint32_t asked = *ne;
    *ne = 0;
    *sw = 0;
    uint8_t *block = nullptr;
    uint32_t n = 0;
    ZEL_STATUS status = chain_transceive(hnd, cmd, len, &block, &n, false, false);
    if (status != ZEL_OK)
        return status;
    if (n < 2) {
        std::free(block);
        return ZEL_READING_ERROR;
    }
    // Kept as the bytes came: SW1 in the low byte, SW2 in the high one.
    *sw = static_cast<uint16_t>(block[n - 2] | block[n - 1] << 8);
    *ne = n - 2;
    // More than the block the exchange was sized for, or than the caller's buffer: refused, nothing copied.
    if (n > block_size || n - 2 > asked) {
        std::free(block);
        return ZEL_BUFFER_SIZE_EXCEEDED;
    }
    if (n > 2)
        std::memcpy(data_out, block, n - 2);
    std::free(block);
    return ZEL_OK;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS APDUTransceiveHnd(ZEL_HANDLE hnd, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2,
                                                const uint8_t *data_in, uint32_t nc, uint8_t *data_out, uint32_t *ne,
                                                uint8_t send_le, uint16_t *sw)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!ne || !sw || (!data_out && *ne))
        return ZEL_PARAMETERS_ERROR;
    const uint8_t header[4] = {cla, ins, p1, p2};
    uint8_t cmd[kApduBuildMax];
    uint32_t block = 0;
    const uint32_t len = apdu_build(header, data_in, nc, *ne, send_le != 0, cmd, &block);
    if (!len)
        return ZEL_PARAMETERS_ERROR;
    return run_built(hnd, cmd, len, block, data_out, ne, sw);
}

extern "C" ZEL_API ZEL_STATUS APDUTransceiveForceExtendedHnd(ZEL_HANDLE hnd, uint8_t cla, uint8_t ins, uint8_t p1,
                                                             uint8_t p2, const uint8_t *data_in, uint32_t nc,
                                                             uint8_t *data_out, uint32_t *ne, uint8_t send_le,
                                                             uint16_t *sw)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!ne || !sw || nc != 0 || data_in || (!data_out && *ne))
        return ZEL_PARAMETERS_ERROR;
    const uint8_t header[4] = {cla, ins, p1, p2};
    uint8_t cmd[kApduBuildMax];
    uint32_t block = 0;
    const uint32_t len = apdu_build_extended(header, *ne, send_le != 0, cmd, &block);
    if (!len)
        return ZEL_PARAMETERS_ERROR;
    return run_built(hnd, cmd, len, block, data_out, ne, sw);
}

namespace {

// The reply text of APDUHexStrTransceive, shared by every caller until the next call.
char g_hex_reply[ZEL_APDU_HEX_MAX_REPLY];

} // namespace

extern "C" ZEL_API ZEL_STATUS APDUHexStrTransceiveHnd(ZEL_HANDLE hnd, const char *c_apdu, char **r_apdu)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!c_apdu || !r_apdu)
        return ZEL_PARAMETERS_ERROR;
    if (std::strlen(c_apdu) > ZEL_APDU_HEX_MAX_INPUT)
        return ZEL_MAX_SIZE_EXCEEDED;
    uint8_t cmd[ZEL_APDU_HEX_MAX_INPUT / 2];
    uint32_t len = 0;
    if (!hex_decode(c_apdu, cmd, sizeof cmd, &len) || len < ZEL_APDU_MIN_COMMAND)
        return ZEL_PARAMETERS_ERROR;
    // The reply must fit the text: two characters a byte and the terminating null.
    static thread_local uint8_t reply[ZEL_APDU_HEX_MAX_REPLY];
    uint32_t n = 0;
    dp(12, "--------HexStr->PlainTrans | c_size = %d\n", static_cast<int>(len));
    const ZEL_STATUS status = apdu_plain(hnd, cmd, len, reply, (ZEL_APDU_HEX_MAX_REPLY - 1) / 2, &n);
    dp(12, "--------HexStr->PlainTrans | status = %02X\n", status);
    if (status != ZEL_OK)
        return status;
    hex_encode(reply, n, g_hex_reply);
    *r_apdu = g_hex_reply;
    return ZEL_OK;
}
