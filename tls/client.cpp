// The client state of the HTTPS request and the GIDS card: the certificate read from the card (compressed,
// in a data object fetched with GET RESPONSE chaining) and the card's signature of a DigestInfo.
#include <openssl/crypto.h>
#include <zlib.h>

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "core/bytes.h"
#include "core/internal.h"
#include "tandro.h"
#include "tls/tls_internal.h"

namespace zel::tls {
namespace {

Client g_client;
ApduHook g_hook = nullptr;
void *g_hook_ctx = nullptr;
uint64_t g_card_us = 0;

const char kSelectGids[] = "00A4040009A0000003974254465900";
const char kManageSecurityEnvironment[] = "002241b606800157840181";
// GET DATA of the certificate object DF 24, and the mark of a compressed certificate behind its length.
const uint8_t kGetDataTag[] = {0x5C, 0x02, 0xDF, 0x24};
constexpr uint8_t kCompressedMark[] = {0x01, 0x00};
constexpr size_t kMaxReply = 258;         // 256 data bytes and the status word
constexpr unsigned kMaxGetResponse = 300; // more than a 65,535-byte object needs in pieces of 256

void wipe_free(uint8_t *&p, uint32_t &len)
{
    if (p) {
        OPENSSL_cleanse(p, len);
        std::free(p);
    }
    p = nullptr;
    len = 0;
}

struct Timed {
    std::chrono::steady_clock::time_point t0 = std::chrono::steady_clock::now();
    ~Timed()
    {
        g_card_us += static_cast<uint64_t>(
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0).count());
    }
};

// One command: the reply's data to out (cap bytes), the status word with SW1 in the high byte.
ZEL_STATUS send(ZEL_HANDLE hnd, uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t nc,
                bool with_le, uint32_t le, uint8_t *out, uint32_t cap, uint32_t *n, uint16_t *sw)
{
    Timed timed;
    *n = 0;
    *sw = 0;
    if (g_hook) {
        uint8_t cmd[4 + 1 + 255 + 1];
        size_t len = 0;
        cmd[len++] = cla;
        cmd[len++] = ins;
        cmd[len++] = p1;
        cmd[len++] = p2;
        if (nc) {
            cmd[len++] = static_cast<uint8_t>(nc);
            std::memcpy(cmd + len, data, nc);
            len += nc;
        }
        if (with_le)
            cmd[len++] = static_cast<uint8_t>(le); // 256 goes as 00
        uint8_t reply[kMaxReply + 64];
        size_t rn = 0;
        const ZEL_STATUS st = g_hook(g_hook_ctx, cmd, len, reply, sizeof reply, &rn);
        OPENSSL_cleanse(cmd, sizeof cmd);
        if (st != ZEL_OK)
            return st;
        if (rn < 2 || rn > sizeof reply)
            return ZEL_COMMUNICATION_ERROR;
        if (rn - 2 > cap)
            return ZEL_BUFFER_SIZE_EXCEEDED;
        std::memcpy(out, reply, rn - 2);
        *n = static_cast<uint32_t>(rn - 2);
        *sw = static_cast<uint16_t>(reply[rn - 2] << 8 | reply[rn - 1]);
        return ZEL_OK;
    }
    uint32_t ne = with_le ? (le < cap ? le : cap) : 0;
    uint16_t raw = 0;
    const ZEL_STATUS st = APDUTransceiveHnd(hnd, cla, ins, p1, p2, data, nc, out, &ne, with_le ? 1 : 0, &raw);
    if (st != ZEL_OK)
        return st;
    *n = ne;
    *sw = static_cast<uint16_t>((raw & 0xFF) << 8 | raw >> 8); // APDUTransceive keeps SW1 in its low byte
    return ZEL_OK;
}

// A command given as hexadecimal text, through APDUHexStrTransceive; only the status word is kept.
ZEL_STATUS send_hex(ZEL_HANDLE hnd, const char *hex, uint16_t *sw)
{
    *sw = 0;
    if (g_hook) {
        uint8_t cmd[64];
        uint32_t n = 0;
        if (!hex_decode(hex, cmd, sizeof cmd, &n) || n < 5)
            return ZEL_PARAMETERS_ERROR;
        uint8_t out[kMaxReply];
        uint32_t got = 0;
        return send(hnd, cmd[0], cmd[1], cmd[2], cmd[3], cmd + 5, cmd[4], n > 5u + cmd[4],
                    n > 5u + cmd[4] ? cmd[n - 1] : 0, out, sizeof out, &got, sw);
    }
    Timed timed;
    char *reply = nullptr;
    const ZEL_STATUS st = APDUHexStrTransceiveHnd(hnd, hex, &reply);
    if (st != ZEL_OK)
        return st;
    const size_t len = reply ? std::strlen(reply) : 0;
    uint8_t w[2];
    uint32_t n = 0;
    if (len < 4 || !hex_decode(reply + len - 4, w, sizeof w, &n) || n != 2)
        return ZEL_COMMUNICATION_ERROR;
    *sw = static_cast<uint16_t>(w[0] << 8 | w[1]);
    return ZEL_OK;
}

} // namespace

Client &client()
{
    return g_client;
}

void set_apdu_hook(ApduHook hook, void *ctx)
{
    g_hook = hook;
    g_hook_ctx = ctx;
}

void set_pin(const uint8_t *pin, uint32_t len)
{
    wipe_free(g_client.pin, g_client.pin_len);
    if (!pin || !len)
        return;
    g_client.pin = static_cast<uint8_t *>(std::malloc(len));
    if (!g_client.pin)
        return;
    std::memcpy(g_client.pin, pin, len);
    g_client.pin_len = len;
}

const uint8_t *held_certificate(uint32_t *len)
{
    *len = g_client.cert_len;
    return g_client.cert;
}

uint64_t card_time_us()
{
    return g_card_us;
}

void reset_card_time()
{
    g_card_us = 0;
}

ZEL_STATUS read_gids_certificate(ZEL_HANDLE hnd, uint8_t **der, uint32_t *der_len)
{
    *der = nullptr;
    *der_len = 0;
    uint16_t sw = 0;
    ZEL_STATUS st = send_hex(hnd, kSelectGids, &sw);
    if (st != ZEL_OK)
        return st;
    if (sw != 0x9000)
        return ZEL_APDU_TRANSCEIVE_ERROR;

    uint8_t piece[256];
    uint32_t n = 0;
    st = send(hnd, 0x00, 0xCB, 0xA0, 0x10, kGetDataTag, sizeof kGetDataTag, true, 256, piece, sizeof piece, &n, &sw);
    if (st != ZEL_OK)
        return st;
    // DF 24, a length whose first byte (top bit cleared: 0x01 counts as 0x81) says 1 or 2 bytes follow, and
    // the mark of a compressed certificate.
    if (n < 3 || piece[0] != 0xDF || piece[1] != 0x24)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    const unsigned size_bytes = piece[2] & 0x7F;
    if (size_bytes != 1 && size_bytes != 2)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    const size_t head = 3 + size_bytes;
    if (n < head + sizeof kCompressedMark)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    const size_t length = size_bytes == 1 ? piece[3] : static_cast<size_t>(piece[3]) << 8 | piece[4];
    if (std::memcmp(piece + head, kCompressedMark, sizeof kCompressedMark) != 0)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;

    // The whole object: tag, length field, value.
    const size_t room = length + size_bytes + 3;
    uint8_t *obj = static_cast<uint8_t *>(std::malloc(room));
    if (!obj)
        return ZEL_NO_MEMORY_ERROR;
    struct Free {
        uint8_t *p;
        ~Free() { std::free(p); }
    } free_obj{obj};
    if (n > room)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    std::memcpy(obj, piece, n);
    size_t have = n;
    for (unsigned round = 0; (sw >> 8) == 0x61; ++round) {
        if (round >= kMaxGetResponse)
            return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
        const uint32_t le = (sw & 0xFF) ? (sw & 0xFF) : 256;
        st = send(hnd, 0x00, 0xC0, 0x00, 0x00, nullptr, 0, true, le, piece, sizeof piece, &n, &sw);
        if (st != ZEL_OK)
            return st;
        if (n > room - have)
            return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
        std::memcpy(obj + have, piece, n);
        have += n;
    }
    if (sw != 0x9000)
        return ZEL_APDU_TRANSCEIVE_ERROR;
    if (have != room)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;

    // Behind the mark: the plain length (little-endian) and the zlib stream, inflated in one call.
    const size_t at = head + sizeof kCompressedMark;
    if (room < at + 2)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    const uint32_t plain = get_le16(obj + at);
    if (plain == 0)
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    uint8_t *out = static_cast<uint8_t *>(std::malloc(plain));
    if (!out)
        return ZEL_NO_MEMORY_ERROR;
    z_stream z{};
    if (inflateInit(&z) != Z_OK) {
        std::free(out);
        return ZEL_NO_MEMORY_ERROR;
    }
    z.next_in = obj + at + 2;
    z.avail_in = static_cast<uInt>(room - at - 2);
    z.next_out = out;
    z.avail_out = plain;
    const int zr = inflate(&z, Z_FINISH);
    const uLong produced = z.total_out;
    inflateEnd(&z);
    if (zr != Z_STREAM_END || produced != plain) {
        std::free(out);
        return TLS_ERR_UNKNOWN_GIDS_CERTIFICATE_FORMAT;
    }
    *der = out;
    *der_len = plain;
    return ZEL_OK;
}

} // namespace zel::tls

extern "C" ZEL_API ZEL_STATUS ORB_TLS_SetClientCertificateHnd(ZEL_HANDLE hnd, int32_t cert_type, const uint8_t *cert,
                                                              uint32_t cert_len)
{
    if (cert_type != ZEL_TLS_CERT_X509 && cert_type != ZEL_TLS_CERT_GIDS)
        return TLS_ERR_UNSUPPORTED_CERTIFICATE_TYPE;
    auto &c = zel::tls::client();
    std::free(c.cert);
    c.cert = nullptr;
    c.cert_len = 0;
    if (c.key_pem) {
        OPENSSL_cleanse(c.key_pem, c.key_len);
        std::free(c.key_pem);
    }
    c.key_pem = nullptr;
    c.key_len = 0;
    c.type = cert_type; // stored on every road
    if (cert_type == ZEL_TLS_CERT_X509) {
        if (!cert || !cert_len)
            return ZEL_PARAMETERS_ERROR;
        c.cert = static_cast<uint8_t *>(std::malloc(cert_len));
        if (!c.cert)
            return ZEL_NO_MEMORY_ERROR;
        std::memcpy(c.cert, cert, cert_len);
        c.cert_len = cert_len;
        return ZEL_OK;
    }
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return zel::tls::read_gids_certificate(hnd, &c.cert, &c.cert_len);
}

extern "C" ZEL_API ZEL_STATUS ORB_TLS_SetClientX509PrivateKey_PEMHnd(ZEL_HANDLE, const uint8_t *pem, uint32_t pem_len)
{
    auto &c = zel::tls::client();
    if (c.type != ZEL_TLS_CERT_X509)
        return TLS_ERR_PRIVATE_KEY_CONTEXT_WRONG;
    if (!pem || !pem_len)
        return ZEL_PARAMETERS_ERROR;
    if (c.key_pem) {
        OPENSSL_cleanse(c.key_pem, c.key_len);
        std::free(c.key_pem);
    }
    c.key_pem = static_cast<char *>(std::malloc(size_t(pem_len) + 1));
    c.key_len = 0;
    if (!c.key_pem)
        return ZEL_NO_MEMORY_ERROR;
    std::memcpy(c.key_pem, pem, pem_len);
    c.key_pem[pem_len] = 0;
    c.key_len = pem_len;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS TLS_Sign_NFC_GIDSHnd(ZEL_HANDLE hnd, const uint8_t *digest_info, uint32_t len,
                                                   uint8_t *signature, uint32_t *signature_len)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!digest_info || !len || len > 255 || !signature || !signature_len)
        return ZEL_PARAMETERS_ERROR;
    *signature_len = 0;
    const auto &c = zel::tls::client();
    uint16_t sw = 0;
    ZEL_STATUS st = zel::tls::send_hex(hnd, zel::tls::kSelectGids, &sw);
    if (st != ZEL_OK)
        return st;
    if (sw != 0x9000)
        return 0xA0000u | sw;
    uint8_t out[zel::tls::kMaxReply];
    uint32_t n = 0;
    if (c.pin_len > 255)
        return ZEL_PARAMETERS_ERROR;
    st = zel::tls::send(hnd, 0x00, 0x20, 0x00, 0x80, c.pin, c.pin_len, false, 0, out, sizeof out, &n, &sw);
    if (st != ZEL_OK)
        return st;
    if (sw != 0x9000)
        return 0xA0000u | sw;
    st = zel::tls::send_hex(hnd, zel::tls::kManageSecurityEnvironment, &sw);
    if (st != ZEL_OK)
        return st;
    if (sw != 0x9000)
        return 0xA0000u | sw;
    st = zel::tls::send(hnd, 0x00, 0x2A, 0x9E, 0x9A, digest_info, len, true, 256, out, sizeof out, &n, &sw);
    if (st == ZEL_BUFFER_SIZE_EXCEEDED)
        return ZEL_BUFFER_OVERFLOW;
    if (st != ZEL_OK)
        return st;
    if (sw != 0x9000)
        return 0xA0000u | sw;
    if (n > ZEL_TLS_SIGNATURE_MAX)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(signature, out, n);
    *signature_len = n;
    return ZEL_OK;
}
