// An NDEF message kept in a DESFire application: the layout of a Type 4 NDEF application made with DESFire
// commands, the message written through the reader's DESFire engine and read back by ISO commands.
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "ndef/ndef_internal.h"
#include "zel_apdu.h"
#include "zel_desfire.h"
#include "zel_ndef.h"
#include "zel_status.h"

namespace {

constexpr uint32_t kAid = 0x000001;
constexpr uint8_t kNdefFile = 2, kCcFile = 1;
const uint8_t kZeroKey[24] = {};
const uint8_t kNdefName[7] = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};
constexpr uint32_t kReplyCap = 0x10008;

// The card's outcome is read only once the call has filled it in.
bool card_ok(ZEL_STATUS st, const uint16_t &cs)
{
    return st == ZEL_OK && cs == CARD_OPERATION_OK;
}

// Three tries, 50 ms apart, until success or a status that another try cannot change.
template <typename Try, typename Final> ZEL_STATUS three_tries(Try once, Final final)
{
    ZEL_STATUS st = ZEL_OK;
    for (int i = 0; i < 3; ++i) {
        if (i)
            zel::os_sleep(50);
        st = once();
        if (st == ZEL_OK || final(st))
            break;
    }
    return st;
}

ZEL_STATUS write_message_once(ZEL_HANDLE hnd, const uint8_t *data, uint32_t len)
{
    uint16_t cs = 0, et = 0;
    const ZEL_STATUS st = Zel_int_DesfireWriteStdDataFile_no_authHnd(hnd, kAid, 0, kNdefFile, 0,
                                                                     static_cast<uint16_t>(len), 0, data, &cs, &et);
    if (cs == CARD_OPERATION_OK)
        return ZEL_OK;
    // The card's outcome, or the reader's own word that no card answered.
    if (cs == NO_CARD_DETECTED || st == ZEL_NO_CARD)
        return ZEL_NO_CARD;
    return st == ZEL_READER_PORT_NOT_OPENED ? st : ZEL_WRITING_ERROR;
}

// One plain APDU; the reply (data and status word) in reply.
ZEL_STATUS apdu(ZEL_HANDLE hnd, const std::vector<uint8_t> &cmd, std::vector<uint8_t> &reply)
{
    reply.assign(kReplyCap, 0);
    uint32_t n = 0;
    const ZEL_STATUS st = APDUPlainTransceiveHnd(hnd, cmd.data(), static_cast<uint32_t>(cmd.size()), reply.data(), &n);
    if (st != ZEL_OK)
        return st;
    reply.resize(n < kReplyCap ? n : kReplyCap);
    return ZEL_OK;
}

bool refused(const std::vector<uint8_t> &r)
{
    return r.size() == 2 && !(r[0] == 0x90 && r[1] == 0x00);
}

// The message of the NDEF file, without its length, into out (cap bytes).
ZEL_STATUS read_message_once(ZEL_HANDLE hnd, uint8_t *out, uint32_t cap, uint32_t &len)
{
    len = 0;
    (void)SetISO14443_4_ModeHnd(hnd);
    std::vector<uint8_t> r;
    ZEL_STATUS st = apdu(hnd, {0x00, 0xA4, 0x04, 0x0C, 0x07, 0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01, 0x00}, r);
    if (st == ZEL_OK && refused(r))
        st = ZEL_APDU_TRANSCEIVE_ERROR;
    if (st == ZEL_OK) {
        st = apdu(hnd, {0x00, 0xA4, 0x02, 0x0C, 0x02, 0xE1, 0x04, 0x00}, r);
        if (st == ZEL_OK && refused(r))
            st = ZEL_APDU_TRANSCEIVE_ERROR;
    }
    uint32_t nlen = 0;
    if (st == ZEL_OK) {
        st = apdu(hnd, {0x00, 0xB0, 0x00, 0x00, 0x02}, r);
        if (st == ZEL_OK && (r.size() < 2 || refused(r)))
            st = ZEL_APDU_TRANSCEIVE_ERROR;
        // A bare 90 00 is taken as the length itself.
        if (st == ZEL_OK)
            nlen = static_cast<uint32_t>(r[0]) << 8 | r[1];
        if (st == ZEL_OK && nlen == 0)
            st = ZEL_APDU_TRANSCEIVE_ERROR;
    }
    if (st == ZEL_OK) {
        st = apdu(hnd, {0x00, 0xB0, 0x00, 0x02, 0x00, static_cast<uint8_t>(nlen >> 8), static_cast<uint8_t>(nlen)}, r);
        if (st == ZEL_OK && r.size() <= 2)
            st = ZEL_APDU_TRANSCEIVE_ERROR;
    }
    if (st == ZEL_OK) {
        const uint32_t got = static_cast<uint32_t>(r.size() - 2);
        if (got > cap) {
            st = ZEL_BUFFER_OVERFLOW;
        } else {
            std::memcpy(out, r.data(), got);
            len = got;
        }
    }
    (void)s_block_deselectHnd(hnd, 100);
    return st;
}

ZEL_STATUS read_message(ZEL_HANDLE hnd, uint8_t *out, uint32_t cap, uint32_t &len)
{
    return three_tries([&] { return read_message_once(hnd, out, cap, len); },
                       [](ZEL_STATUS s) { return s == ZEL_READER_PORT_NOT_OPENED || s == ZEL_BUFFER_OVERFLOW; });
}

// The text of the one-record message the payload writer makes, read from the card into payload.
ZEL_STATUS read_payload_once(ZEL_HANDLE hnd, char *payload, uint32_t &size, bool sized)
{
    std::vector<uint8_t> msg(10000, 0);
    uint32_t len = 0;
    const ZEL_STATUS st = read_message_once(hnd, msg.data(), static_cast<uint32_t>(msg.size()), len);
    if (st == ZEL_BUFFER_OVERFLOW)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (st != ZEL_OK)
        return st;
    return zel::ndef::desfire_payload(msg.data(), len, payload, size, sized);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireNDEFFormatHnd(ZEL_HANDLE hnd, uint32_t ndef_file_size,
                                                           uint8_t ndef_free_write)
{
    uint16_t cs = 0, et = 0;
    // A card with the all-zero DES master key gets the all-zero AES key; any other card keeps its own.
    (void)DES_to_AES_key_typeHnd(hnd);
    if (!card_ok(Zel_int_DesfireFormatCard_aes_PKHnd(hnd, kZeroKey, &cs, &et), cs))
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    if (!card_ok(Zel_int_DesfireCreateAesApplication_iso_aes_PKHnd(hnd, kZeroKey, kAid, 0x0F, 1, 0xE110, kNdefName,
                                                                   sizeof kNdefName, &cs, &et),
                 cs))
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    const uint8_t rw = ndef_free_write ? 0 : 14;
    if (!card_ok(Zel_int_DesfireCreateStdDataFile_iso_aes_PKHnd(hnd, kZeroKey, kAid, kCcFile, 16, 14, 14, rw, 0, 0,
                                                                0xE103, &cs, &et),
                 cs))
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    uint32_t size = ndef_file_size;
    if (size == 0) {
        uint32_t free_mem = 0;
        if (!card_ok(Zel_int_DesfireFreeMemHnd(hnd, &free_mem, &cs, &et), cs) || free_mem <= 32)
            return ZEL_NDEF_CARD_FORMAT_ERROR;
        size = free_mem - 32;
    }
    // The container holds the size in two bytes.
    if (size > 0xFFFF)
        size = 0xFFFF;
    const ZEL_STATUS st = Zel_int_DesfireCreateStdDataFile_iso_aes_PKHnd(hnd, kZeroKey, kAid, kNdefFile, size, 14, 14,
                                                                         rw, 0, 0, 0xE104, &cs, &et);
    if (st != ZEL_OK && cs != CARD_OPERATION_OK)
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    const uint8_t cc[15] = {0x00,
                            0x0F,
                            0x20,
                            0x00,
                            0x3A,
                            0x00,
                            0x34,
                            0x04,
                            0x06,
                            0xE1,
                            0x04,
                            static_cast<uint8_t>(size >> 8),
                            static_cast<uint8_t>(size),
                            0x00,
                            0x00};
    if (!card_ok(
            Zel_int_DesfireWriteStdDataFile_aes_PKHnd(hnd, kZeroKey, kAid, 0, kCcFile, 0, sizeof cc, 0, cc, &cs, &et),
            cs))
        return ZEL_NDEF_CARD_FORMAT_ERROR;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireWriteNDEFMessageHnd(ZEL_HANDLE hnd, const uint8_t *ndef_message,
                                                                 uint32_t ndef_message_length)
{
    if (!ndef_message || ndef_message_length == 0 || ndef_message_length > 0xFFFF)
        return ZEL_PARAMETERS_ERROR;
    return three_tries([&] { return write_message_once(hnd, ndef_message, ndef_message_length); },
                       [](ZEL_STATUS s) { return s == ZEL_READER_PORT_NOT_OPENED; });
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireReadNDEFMessageHnd(ZEL_HANDLE hnd, uint8_t *ndef_message,
                                                                uint32_t *ndef_message_length)
{
    if (!ndef_message || !ndef_message_length)
        return ZEL_PARAMETERS_ERROR;
    return read_message(hnd, ndef_message, ZEL_DESFIRE_NDEF_MAX_MESSAGE, *ndef_message_length);
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireWriteNDEFPayloadHnd(ZEL_HANDLE hnd, const char *payload)
{
    if (!payload)
        return ZEL_PARAMETERS_ERROR;
    const size_t n = std::strlen(payload);
    // NLEN, then a URI record with code 0: the short form while the payload length fits one byte.
    const size_t rec = n + 1 <= 255 ? n + 5 : n + 8;
    if (rec > 0xFFFF - 2)
        return ZEL_PARAMETERS_ERROR;
    std::vector<uint8_t> m;
    m.reserve(rec + 2);
    m.push_back(static_cast<uint8_t>(rec >> 8));
    m.push_back(static_cast<uint8_t>(rec));
    if (n + 1 <= 255) {
        m.push_back(0xD1);
        m.push_back(0x01);
        m.push_back(static_cast<uint8_t>(n + 1));
    } else {
        m.push_back(0xC1);
        m.push_back(0x01);
        for (int shift = 24; shift >= 0; shift -= 8)
            m.push_back(static_cast<uint8_t>((n + 1) >> shift));
    }
    m.push_back(0x55);
    m.push_back(0x00);
    m.resize(m.size() + n);
    std::memcpy(m.data() + m.size() - n, payload, n);
    return Zel_int_DesfireWriteNDEFMessageHnd(hnd, m.data(), static_cast<uint32_t>(m.size()));
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireReadNDEFPayloadHnd(ZEL_HANDLE hnd, char *payload)
{
    if (!payload)
        return ZEL_PARAMETERS_ERROR;
    uint32_t size = 0;
    return three_tries([&] { return read_payload_once(hnd, payload, size, false); }, [](ZEL_STATUS) { return false; });
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireReadNDEFPayloadExHnd(ZEL_HANDLE hnd, char *payload, uint32_t *payload_size)
{
    if (!payload || !payload_size || *payload_size == 0)
        return ZEL_PARAMETERS_ERROR;
    uint32_t size = *payload_size;
    const ZEL_STATUS st = three_tries(
        [&] {
            size = *payload_size;
            return read_payload_once(hnd, payload, size, true);
        },
        [](ZEL_STATUS s) {
            return s == ZEL_BUFFER_OVERFLOW || s == ZEL_PARAMETERS_ERROR || s == ZEL_MAX_SIZE_EXCEEDED ||
                   s == ZEL_NDEF_MESSAGE_NOT_FOUND;
        });
    if (st == ZEL_OK)
        *payload_size = size;
    return st;
}

ZEL_STATUS zel::ndef::desfire_payload(const uint8_t *msg, uint32_t len, char *payload, uint32_t &size, bool sized)
{
    if (len == 0)
        return ZEL_NDEF_MESSAGE_NOT_FOUND;
    if (len > ZEL_DESFIRE_NDEF_MAX_PAYLOAD)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (len < 3)
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    uint32_t plen = 0, at = 0;
    if (msg[0] & 0x10) {
        plen = msg[2];
        at = 5;
        if (plen == 0)
            return ZEL_NDEF_MESSAGE_NOT_FOUND;
    } else {
        if (len < 6)
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        plen = static_cast<uint32_t>(msg[2]) << 24 | static_cast<uint32_t>(msg[3]) << 16 |
               static_cast<uint32_t>(msg[4]) << 8 | msg[5];
        at = 8;
        if (plen < 2)
            return ZEL_WRONG_NDEF_CARD_FORMAT;
        if (plen > ZEL_DESFIRE_NDEF_MAX_PAYLOAD)
            return ZEL_MAX_SIZE_EXCEEDED;
    }
    // The text (the payload less its code byte) must lie within the message.
    const uint32_t text = plen - 1;
    if (at + text > len)
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    if (sized && plen > size)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(payload, msg + at, text);
    payload[text] = 0;
    size = plen;
    return ZEL_OK;
}
