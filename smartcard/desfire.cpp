// The DESFire command family: one frame per operation to the reader's DESFire engine. The implementations
// here build the frame's extended data and read the reply; the many public names come from the key form
// sets of api/desfire.forms, each a thin generated call of one implementation with its key reference.
#include "smartcard/desfire_internal.h"

#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "core/wipe.h"
#include "transport/port.h"
#include "tandro.h"

namespace zel::desfire {

constexpr uint8_t kCmdUid = 0x80, kCmdWrite = 0x82, kCmdRead = 0x83, kCmdCreateApp = 0x84, kCmdCreateStd = 0x85,
                  kCmdChangeKey = 0x86, kCmdGetKeySettings = 0x87, kCmdChangeKeySettings = 0x88, kCmdDeleteApp = 0x89,
                  kCmdDeleteFile = 0x8A, kCmdSetConfig = 0x8B, kCmdFormat = 0x8C, kCmdFreeMem = 0x8D,
                  kCmdWriteKey = 0x8E, kCmdCreateValue = 0x8F, kCmdWriteRecord = 0x98, kCmdReadRecords = 0x99,
                  kCmdReadValue = 0x9A, kCmdIncrease = 0x9B, kCmdDecrease = 0x9C, kCmdGetAids = 0xC0,
                  kCmdCreateRecord = 0xC1, kCmdCreateTmac = 0xC2, kCmdFileSettings = 0xC6,
                  kCmdChangeFileSettings = 0xCA, kCmdClearRecords = 0x6D;
constexpr uint8_t kMorePrompt = 0xAD;
constexpr uint32_t kFirstChunk = 160, kChunk = 160;
constexpr uint16_t kCardOk = CARD_OPERATION_OK;
// Internal: a refusal without the operation's own bytes (the caller's outputs stay as they were).
constexpr ZEL_STATUS ZEL_CARD_REFUSED_SHORT = 0xFFFFFFFFu;

// The file's short names for its little-endian fields.
constexpr auto put16 = put_le16, put24 = put_le24, put32 = put_le32;
constexpr auto get16 = get_le16, get24 = get_le24, get32 = get_le32;

uint32_t key_len(uint8_t wire_type)
{
    switch (wire_type) {
    case ZEL_DESFIRE_WIRE_DES: return 8;
    case ZEL_DESFIRE_WIRE_3K3DES: return 24;
    default: return 16;
    }
}

uint16_t access_word(uint8_t r, uint8_t w, uint8_t rw, uint8_t c)
{
    return static_cast<uint16_t>((r & 0x0F) << 12 | (w & 0x0F) << 8 | (rw & 0x0F) << 4 | (c & 0x0F));
}

// The common head: key source, key number, key field (24 bytes for 3K3DES), and the AID where the operation
// has one. Returns the offset of the operation fields.
uint32_t head(uint8_t *ext, const KeyRef &k, bool with_aid, uint32_t aid)
{
    const uint32_t field = k.type == ZEL_DESFIRE_WIRE_3K3DES ? 24 : 16;
    ext[0] = k.source;
    ext[1] = k.source == ZEL_DESFIRE_KEY_PROVIDED ? 0 : k.number;
    std::memset(ext + 2, 0, field);
    if (k.source == ZEL_DESFIRE_KEY_PROVIDED && k.auth && k.bytes)
        std::memcpy(ext + 2, k.bytes, key_len(k.type));
    uint32_t at = 2 + field;
    if (with_aid) {
        put24(ext + at, aid);
        at += 3;
    }
    return at;
}

uint8_t par0_of(const KeyRef &k, uint8_t low = 0)
{
    return static_cast<uint8_t>(k.type << 4 | low);
}

void results(const uint8_t *reply, uint32_t useful, uint16_t *cs, uint16_t *et)
{
    if (useful >= 2 && cs)
        *cs = static_cast<uint16_t>(get16(reply));
    if (useful >= 4 && et)
        *et = static_cast<uint16_t>(get16(reply + 2));
}

// The closing reply: the response frame and its extended data into reply (256 bytes), its length without
// the checksum into *useful. The frame's status is not taken, but a frame that is no response at all (an
// error frame, nothing) ends the operation with its status.
ZEL_STATUS finish(ZEL_HANDLE hnd, uint8_t cmd, uint8_t *reply, uint32_t *useful)
{
    *useful = 0;
    uint8_t frame[kFrameBufLen] = {};
    const ZEL_STATUS st = GetAndTestResponseIntro(hnd, frame, cmd);
    if (st != ZEL_OK && !(frame[kHeader] == kRspHeader && frame[kTrailer] == kRspTrailer))
        return st;
    const uint8_t len = frame[kExtLen];
    if (len == 0)
        return ZEL_OK;
    const ZEL_STATUS s = GetAndTestResponseData(hnd, len, reply);
    if (s != ZEL_OK)
        return s;
    *useful = len - 1u;
    return ZEL_OK;
}

// Frame, extended data of n bytes (its checksum is added behind them), and the acknowledge.
ZEL_STATUS send(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *ext, uint32_t n)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen];
    make_command(frame, cmd, static_cast<uint8_t>(n + 1), par0, par1);
    uint8_t ack_len = 0;
    ZEL_STATUS st = InitialHandshaking(hnd, frame, &ack_len);
    if (st != ZEL_OK)
        return st;
    ext[n] = static_cast<uint8_t>(GetChecksumFragment(0, ext, static_cast<uint16_t>(n)) + 7);
    return PortWrite(hnd, ext, n + 1);
}

ZEL_STATUS transact(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *ext, uint32_t n, uint8_t *reply,
                    uint32_t *useful)
{
    *useful = 0;
    const ZEL_STATUS st = send(hnd, cmd, par0, par1, ext, n);
    if (st != ZEL_OK)
        return st;
    return finish(hnd, cmd, reply, useful);
}

// Operations whose reply holds the two results and want bytes after them: the results are written
// whenever they came, and a reply of another size is ZEL_PARAMETERS_ERROR.
ZEL_STATUS plain_op(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *ext, uint32_t n, uint16_t *cs,
                    uint16_t *et, uint32_t want = 4, uint8_t *reply_out = nullptr)
{
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = transact(hnd, cmd, par0, par1, ext, n, reply, &useful);
    if (st != ZEL_OK)
        return st;
    results(reply, useful, cs, et);
    if (reply_out)
        std::memcpy(reply_out, reply, 256);
    if (useful == want)
        return ZEL_OK;
    // A refusal may come with the two results alone: the card's outcome tells.
    if (want > 4 && useful == 4 && get16(reply) != kCardOk)
        return reply_out ? ZEL_CARD_REFUSED_SHORT : ZEL_OK;
    return ZEL_PARAMETERS_ERROR;
}

bool read_stream(MoreFn more, void *ctx, StreamBuf &sb, uint8_t *out, uint32_t cap, uint32_t *got, bool *overflow)
{
    // Makes k bytes lie at sb.at (k at most the buffer's size); false when the source runs dry first.
    auto need = [&](uint32_t k) {
        if (sb.end - sb.at >= k)
            return true;
        if (sb.cap - sb.at < k) {
            std::memmove(sb.buf, sb.buf + sb.at, sb.end - sb.at);
            sb.end -= sb.at;
            sb.at = 0;
        }
        while (sb.end - sb.at < k) {
            const uint32_t n = more(ctx, sb.buf + sb.end, sb.cap - sb.end);
            if (n == 0 || n > sb.cap - sb.end)
                return false;
            sb.end += n;
        }
        return true;
    };
    // Every piece costs two bytes at least: a reader that never ends is cut off.
    for (uint32_t pieces = 0; pieces < cap + 1024; ++pieces) {
        if (!need(1))
            return false;
        if (sb.buf[sb.at++] != 0)
            return true;
        if (!need(1))
            return false;
        const uint8_t len = sb.buf[sb.at++];
        if (!need(len))
            return false;
        if (len > cap - *got || !out) {
            *overflow = *overflow || len;
        } else {
            std::memcpy(out + *got, sb.buf + sb.at, len);
            *got += len;
        }
        sb.at += len;
    }
    return false;
}

namespace {

// What the port holds of the stream, as it arrives.
uint32_t port_more(void *ctx, uint8_t *dst, uint32_t max)
{
    return port_read_some(static_cast<zel_handle_record *>(ctx), dst, max);
}

} // namespace

// The byte stream of 0x83 and 0x99: 0 and a counted piece, again and again, until another byte. At most cap
// bytes land in out; more is ZEL_BUFFER_OVERFLOW after the whole reply was taken.
ZEL_STATUS streamed(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t *ext, uint32_t n, uint8_t *out, uint32_t cap,
                    bool size_test, uint16_t *cs, uint16_t *et)
{
    ZEL_STATUS st = send(hnd, cmd, par0, 0, ext, n);
    if (st != ZEL_OK)
        return st;
    uint32_t got = 0;
    bool overflow = false;
    if (port_can_stream(hnd)) {
        // A link that reads in pieces, with no session on it and no transfer log: the stream is read as it
        // arrives, in as few reads as the line allows, and the bytes behind its end (the start of the closing
        // reply) go back in front of the port's next read for the reply reading below.
        uint8_t buf[4608];
        StreamBuf sb{buf, sizeof buf};
        read_stream(port_more, hnd, sb, out, cap, &got, &overflow);
        port_unread(hnd, sb.buf + sb.at, sb.end - sb.at);
    } else {
        // Every piece costs two bytes at least: a reader that never ends is cut off.
        for (uint32_t pieces = 0; pieces < cap + 1024; ++pieces) {
            uint8_t mark = 0xFF;
            if (PortRead(hnd, &mark, 1) != ZEL_OK || mark != 0)
                break;
            uint8_t len = 0;
            if (PortRead(hnd, &len, 1) != ZEL_OK)
                break;
            uint8_t piece[256];
            if (len && PortRead(hnd, piece, len) != ZEL_OK)
                break;
            if (len > cap - got || !out) {
                overflow = overflow || len;
                continue;
            }
            std::memcpy(out + got, piece, len);
            got += len;
        }
    }
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    if ((st = finish(hnd, cmd, reply, &useful)) != ZEL_OK)
        return st;
    results(reply, useful, cs, et);
    if (size_test && useful != 4)
        return ZEL_PARAMETERS_ERROR;
    return overflow ? ZEL_BUFFER_OVERFLOW : ZEL_OK;
}

// Writes: up to 160 bytes in the first frame, then a piece of up to 160 for every 0xAD prompt. The reply
// goes to reply/useful.
ZEL_STATUS chunked(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *ext, uint32_t n_head,
                   const uint8_t *data, uint32_t len, uint8_t *reply, uint32_t *useful)
{
    *useful = 0;
    if (len && !data)
        return ZEL_PARAMETERS_ERROR;
    const uint32_t first = len < kFirstChunk ? len : kFirstChunk;
    if (first)
        std::memcpy(ext + n_head, data, first);
    ZEL_STATUS st = send(hnd, cmd, par0, par1, ext, n_head + first);
    if (st != ZEL_OK)
        return st;
    bool ended = false;
    for (uint32_t sent = first; sent < len;) {
        uint8_t prompt = 0;
        if (PortRead(hnd, &prompt, 1) != ZEL_OK || prompt != kMorePrompt) {
            ended = true; // the reader breaks off: what it sent stands for the closing byte
            break;
        }
        const uint32_t piece = len - sent < kChunk ? len - sent : kChunk;
        uint8_t buf[kChunk + 1];
        buf[0] = static_cast<uint8_t>(piece);
        std::memcpy(buf + 1, data + sent, piece);
        if ((st = PortWrite(hnd, buf, piece + 1)) != ZEL_OK)
            return st;
        sent += piece;
    }
    if (!ended) {
        uint8_t closing = 0;
        (void)PortRead(hnd, &closing, 1);
    }
    return finish(hnd, cmd, reply, useful);
}

// Operations that may carry transaction MAC data: without it the reply holds the two results alone, with
// it also the reader id, the previous encrypted reader id, the counter and the 8-byte MAC value.
struct Tmac {
    bool on;
    uint8_t use_reader_id;
    uint8_t *reader_id, *prev_enc_reader_id;
    uint32_t *counter;
    uint8_t *value;
};

uint8_t tmac_par1(const Tmac &t)
{
    return t.on ? (t.use_reader_id ? 3 : 1) : 0;
}

void tmac_clear(const Tmac &t)
{
    if (t.reader_id)
        std::memset(t.reader_id, 0, 16);
    if (t.prev_enc_reader_id)
        std::memset(t.prev_enc_reader_id, 0, 16);
    if (t.counter)
        *t.counter = 0;
    if (t.value)
        std::memset(t.value, 0, 8);
}

ZEL_STATUS tmac_reply(ZEL_STATUS st, const uint8_t *reply, uint32_t useful, const Tmac &t, uint16_t *cs, uint16_t *et)
{
    if (st != ZEL_OK)
        return st;
    if (!t.on) {
        if (useful != 4)
            return ZEL_PARAMETERS_ERROR;
        results(reply, useful, cs, et);
        return ZEL_OK;
    }
    if (useful != 48) {
        tmac_clear(t);
        return ZEL_PARAMETERS_ERROR;
    }
    results(reply, useful, cs, et);
    if (t.reader_id)
        std::memcpy(t.reader_id, reply + 4, 16);
    if (t.prev_enc_reader_id)
        std::memcpy(t.prev_enc_reader_id, reply + 20, 16);
    if (t.counter)
        *t.counter = get32(reply + 36);
    if (t.value)
        std::memcpy(t.value, reply + 40, 8);
    return ZEL_OK;
}

// ---- Card, applications and keys.

ZEL_STATUS zdf_format_card(ZEL_HANDLE hnd, KeyRef k, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, false, 0);
    return plain_op(hnd, kCmdFormat, par0_of(k), 0, ext, at, cs, et);
}

ZEL_STATUS zdf_set_configuration(ZEL_HANDLE hnd, KeyRef k, uint8_t random_uid, uint8_t format_disable, uint16_t *cs,
                                 uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, false, 0);
    ext[at] = random_uid;
    ext[at + 1] = format_disable;
    return plain_op(hnd, kCmdSetConfig, par0_of(k), 0, ext, at + 2, cs, et);
}

// The card's SetConfiguration with an option and its data: parameter 1 is 1 at the card level, 2 with the
// application's AID behind the data.
ZEL_STATUS zdf_set_configuration_ex(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t option, const uint8_t *data,
                                    uint8_t data_length, uint16_t *cs, uint16_t *et)
{
    if (data_length > ZEL_DESFIRE_MAX_CONFIG_DATA || (data_length && !data))
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    uint32_t at = head(ext, k, false, 0);
    ext[at] = option;
    ext[at + 1] = data_length;
    if (data_length)
        std::memcpy(ext + at + 2, data, data_length);
    at += 2u + data_length;
    if (aid) {
        put24(ext + at, aid);
        at += 3;
    }
    return plain_op(hnd, kCmdSetConfig, par0_of(k), aid ? 2 : 1, ext, at, cs, et);
}

ZEL_STATUS zdf_set_transaction_timer(ZEL_HANDLE hnd, KeyRef k, uint8_t timer_value, uint16_t *cs, uint16_t *et)
{
    uint8_t data[10] = {};
    data[5] = timer_value;
    return zdf_set_configuration_ex(hnd, k, 0, 5, data, sizeof data, cs, et);
}

ZEL_STATUS zdf_get_uid(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t *uid, uint8_t *uid_len,
                       uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = aid_key_nr;
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = transact(hnd, kCmdUid, par0_of(k), 0, ext, at + 1, reply, &useful);
    if (st != ZEL_OK)
        return st;
    auto set = [&](const uint8_t *u, uint8_t n, uint16_t s, uint16_t e, bool write_et) {
        if (uid) {
            std::memset(uid, 0, 7);
            if (u)
                std::memcpy(uid, u, 7);
        }
        if (uid_len)
            *uid_len = n;
        if (cs)
            *cs = s;
        if (et && write_et)
            *et = e;
    };
    switch (useful) {
    case 11:
        set(reply, 7, static_cast<uint16_t>(get16(reply + 7)), static_cast<uint16_t>(get16(reply + 9)), true);
        break;
    case 4: set(nullptr, 0, static_cast<uint16_t>(get16(reply)), static_cast<uint16_t>(get16(reply + 2)), true); break;
    case 2:
        if (cs)
            *cs = static_cast<uint16_t>(get16(reply));
        break;
    default: set(nullptr, 0, 0, 0, true); break;
    }
    return ZEL_OK;
}

ZEL_STATUS zdf_get_key_settings(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t *setting, uint8_t *max_key_no,
                                uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    uint8_t reply[256] = {};
    const ZEL_STATUS st = plain_op(hnd, kCmdGetKeySettings, par0_of(k, k.auth ? 0 : 1), 0, ext, at, cs, et, 6, reply);
    if (st == ZEL_CARD_REFUSED_SHORT)
        return ZEL_OK;
    if (st == ZEL_OK) {
        if (setting)
            *setting = reply[4];
        if (max_key_no)
            *max_key_no = reply[5];
    }
    return st;
}

ZEL_STATUS zdf_change_key_settings(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t setting, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = setting;
    return plain_op(hnd, kCmdChangeKeySettings, par0_of(k), 0, ext, at + 1, cs, et);
}

ZEL_STATUS zdf_get_application_ids(ZEL_HANDLE hnd, KeyRef k, uint32_t *aid_list, uint8_t *number_of_aid, uint16_t *cs,
                                   uint16_t *et)
{
    // On entry *number_of_aid is the list's room in entries (0: the most a reply can hold).
    uint32_t room = number_of_aid && *number_of_aid ? *number_of_aid : ZEL_DESFIRE_MAX_AIDS;
    if (number_of_aid)
        *number_of_aid = 0;
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, false, 0);
    ext[at] = k.auth;
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    ZEL_STATUS st = transact(hnd, kCmdGetAids, par0_of(k), 0, ext, at + 1, reply, &useful);
    if (st != ZEL_OK)
        return st;
    results(reply, useful, cs, et);
    if (useful < 5)
        return useful == 4 ? ZEL_OK : ZEL_PARAMETERS_ERROR;
    uint32_t count = reply[4];
    const uint32_t held = (useful - 5) / 3;
    if (count > held)
        count = held;
    if (count > room) {
        count = room;
        st = ZEL_BUFFER_OVERFLOW;
    }
    if (aid_list) {
        // The list is cleared over as many bytes as there are ids; each id fills its three low bytes.
        std::memset(aid_list, 0, count);
        for (uint32_t i = 0; i < count; ++i) {
            auto *p = reinterpret_cast<uint8_t *>(aid_list + i);
            const uint32_t v = get24(reply + 5 + 3 * i);
            uint32_t word;
            std::memcpy(&word, p, 4);
            word = (word & 0xFF000000u) | v;
            std::memcpy(p, &word, 4);
        }
    }
    if (number_of_aid)
        *number_of_aid = static_cast<uint8_t>(count);
    return st;
}

ZEL_STATUS create_app(ZEL_HANDLE hnd, const KeyRef &k, uint8_t app_type, uint32_t aid_nr, uint8_t setting,
                      uint8_t max_key_no, bool iso, uint16_t iso_df_id, const uint8_t *df_name, uint8_t df_name_len,
                      uint8_t par1, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256] = {};
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid_nr);
    ext[at] = k.auth;
    ext[at + 1] = setting;
    ext[at + 2] = max_key_no;
    uint32_t n = at + 3;
    uint8_t low = app_type;
    if (iso) {
        const bool with_id = iso_df_id != 0;
        const bool with_name = df_name && df_name_len;
        if (with_name && df_name_len > 16)
            return ZEL_PARAMETERS_ERROR;
        if (with_id) {
            low |= 0x40;
            put16(ext + at + 3, iso_df_id);
            n = at + 5;
        }
        if (with_name) {
            low |= 0x80;
            ext[at + 5] = df_name_len;
            std::memcpy(ext + at + 6, df_name, df_name_len);
            // With a name but no identifier the size is one short of the name's end; the checksum falls
            // where the size puts it.
            n = at + (with_id ? 6u : 4u) + df_name_len;
        }
    }
    return plain_op(hnd, kCmdCreateApp, par0_of(k, low), par1, ext, n, cs, et);
}

constexpr uint8_t kAppAes = 0, kApp3k3des = 1, kAppDes = 2;

#define ZDF_APP_IMPL(fn, type, iso, par1)                                                                            \
    ZEL_STATUS fn(ZEL_HANDLE hnd, KeyRef k, uint32_t aid_nr, uint8_t setting, uint8_t max_key_no, uint16_t *cs,      \
                  uint16_t *et)                                                                                      \
    {                                                                                                                \
        return create_app(hnd, k, type, aid_nr, setting, max_key_no, false, 0, nullptr, 0, par1, cs, et);            \
    }                                                                                                                \
    ZEL_STATUS fn##_iso(ZEL_HANDLE hnd, KeyRef k, uint32_t aid_nr, uint8_t setting, uint8_t max_key_no,              \
                        uint16_t iso_df_id, const uint8_t *df_name, uint8_t df_name_len, uint16_t *cs, uint16_t *et) \
    {                                                                                                                \
        return create_app(hnd, k, type, aid_nr, setting, max_key_no, true, iso_df_id, df_name, df_name_len, 0, cs,   \
                          et);                                                                                       \
    }
ZDF_APP_IMPL(zdf_create_aes_app, kAppAes, false, 0)
ZDF_APP_IMPL(zdf_create_des_app, kAppDes, false, 0)
ZDF_APP_IMPL(zdf_create_3k3des_app, kApp3k3des, false, 0)

ZEL_STATUS zdf_create_aes_app_ascd(ZEL_HANDLE hnd, KeyRef k, uint32_t aid_nr, uint8_t setting, uint8_t max_key_no,
                                   uint16_t iso_df_id, const uint8_t *df_name, uint8_t df_name_len, uint16_t *cs,
                                   uint16_t *et)
{
    return create_app(hnd, k, kAppAes, aid_nr, setting, max_key_no, true, iso_df_id, df_name, df_name_len, 1, cs, et);
}

ZEL_STATUS zdf_delete_app(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    return plain_op(hnd, kCmdDeleteApp, par0_of(k), 0, ext, at, cs, et);
}

ZEL_STATUS zdf_delete_app_master(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    return plain_op(hnd, kCmdDeleteApp, par0_of(k, 1), 0, ext, at, cs, et);
}

// ---- Files.

ZEL_STATUS create_std(ZEL_HANDLE hnd, const KeyRef &k, uint8_t par1, uint32_t aid, uint8_t file_id, uint32_t size,
                      uint16_t access, uint8_t comm, bool with_iso, uint16_t iso_file_id, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    put16(ext + at + 1, access);
    put32(ext + at + 3, size);
    ext[at + 7] = k.auth;
    ext[at + 8] = comm;
    uint32_t n = at + 9;
    uint8_t low = 0;
    if (with_iso && iso_file_id) {
        put16(ext + n, iso_file_id);
        n += 2;
        low = 0x80;
    }
    return plain_op(hnd, kCmdCreateStd, par0_of(k, low), par1, ext, n, cs, et);
}

ZEL_STATUS zdf_create_std_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t file_size, uint8_t r,
                               uint8_t w, uint8_t rw, uint8_t c, uint8_t comm, uint16_t *cs, uint16_t *et)
{
    return create_std(hnd, k, 0, aid, file_id, file_size, access_word(r, w, rw, c), comm, false, 0, cs, et);
}

ZEL_STATUS zdf_create_backup_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t file_size,
                                  uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm, uint16_t *cs, uint16_t *et)
{
    return create_std(hnd, k, 1, aid, file_id, file_size, access_word(r, w, rw, c), comm, false, 0, cs, et);
}

ZEL_STATUS zdf_create_std_file_iso(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t file_size,
                                   uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm, uint16_t iso_file_id,
                                   uint16_t *cs, uint16_t *et)
{
    return create_std(hnd, k, 0, aid, file_id, file_size, access_word(r, w, rw, c), comm, true, iso_file_id, cs, et);
}

ZEL_STATUS zdf_create_std_file_sdm(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t file_size,
                                   uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm, uint16_t iso_file_id,
                                   uint16_t *cs, uint16_t *et)
{
    return create_std(hnd, k, 0, aid, file_id, file_size, access_word(r, w, rw, c), static_cast<uint8_t>(comm + 0x40),
                      true, iso_file_id, cs, et);
}

ZEL_STATUS zdf_create_value_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, int32_t lower, int32_t upper,
                                 int32_t value, uint8_t lc, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm,
                                 uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    put16(ext + at + 1, access_word(r, w, rw, c));
    put32(ext + at + 3, static_cast<uint32_t>(lower));
    put32(ext + at + 7, static_cast<uint32_t>(upper));
    put32(ext + at + 11, static_cast<uint32_t>(value));
    ext[at + 15] = lc;
    ext[at + 16] = k.auth;
    ext[at + 17] = comm;
    return plain_op(hnd, kCmdCreateValue, par0_of(k), 0, ext, at + 18, cs, et);
}

ZEL_STATUS create_record(ZEL_HANDLE hnd, const KeyRef &k, uint8_t kind, uint32_t aid, uint8_t file_id,
                         uint32_t record_size, uint32_t max_rec, uint16_t access, uint8_t comm, uint16_t *cs,
                         uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    put16(ext + at + 1, access);
    put32(ext + at + 3, record_size);
    put32(ext + at + 7, max_rec);
    ext[at + 11] = k.auth;
    ext[at + 12] = comm;
    return plain_op(hnd, kCmdCreateRecord, par0_of(k), kind, ext, at + 13, cs, et);
}

ZEL_STATUS zdf_create_linear_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t record_size,
                                  uint32_t max_rec_no, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm,
                                  uint16_t *cs, uint16_t *et)
{
    return create_record(hnd, k, 0xC1, aid, file_id, record_size, max_rec_no, access_word(r, w, rw, c), comm, cs, et);
}

ZEL_STATUS zdf_create_cyclic_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t record_size,
                                  uint32_t max_rec_no, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, uint8_t comm,
                                  uint16_t *cs, uint16_t *et)
{
    return create_record(hnd, k, 0xC0, aid, file_id, record_size, max_rec_no, access_word(r, w, rw, c), comm, cs, et);
}

ZEL_STATUS zdf_create_tmac_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint8_t read_key_no,
                                uint8_t commit_reader_id_key_no, uint8_t change_key_no, uint8_t comm,
                                const uint8_t *tmac_key, uint16_t *cs, uint16_t *et)
{
    if (!tmac_key)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    ext[at + 1] = comm;
    put16(ext + at + 2, access_word(read_key_no, 0x0F, commit_reader_id_key_no, change_key_no));
    std::memcpy(ext + at + 4, tmac_key, 16);
    return plain_op(hnd, kCmdCreateTmac, par0_of(k), 0, ext, at + 20, cs, et);
}

ZEL_STATUS zdf_delete_file(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    ext[at + 1] = k.auth;
    return plain_op(hnd, kCmdDeleteFile, par0_of(k), 0, ext, at + 2, cs, et);
}

} // namespace zel::desfire

namespace zel::desfire {

// The four key numbers of the access rights at p into the settings s.
template <typename S> void unpack_access(const uint8_t *p, S *s)
{
    const uint32_t a = get16(p);
    s->read_key_no = static_cast<uint8_t>(a >> 12 & 0x0F);
    s->write_key_no = static_cast<uint8_t>(a >> 8 & 0x0F);
    s->read_write_key_no = static_cast<uint8_t>(a >> 4 & 0x0F);
    s->change_key_no = static_cast<uint8_t>(a & 0x0F);
}

// Reads the file settings of a reply (the two results first). Exposed for the fuzz target.
void parse_file_settings(const uint8_t *reply, uint32_t useful, zel_desfire_file_settings *s)
{
    std::memset(s, 0, sizeof *s);
    if (useful < 5)
        return;
    s->file_type = reply[4];
    auto have = [&](uint32_t end) { return useful >= end; };
    if (have(6))
        s->communication_settings = reply[5] & 3;
    if (have(8)) {
        unpack_access(reply + 6, s);
    }
    switch (s->file_type) {
    case ZEL_DESFIRE_FILE_STANDARD:
    case ZEL_DESFIRE_FILE_BACKUP:
        if (have(11))
            s->file_size = get24(reply + 8);
        break;
    case ZEL_DESFIRE_FILE_VALUE:
        if (have(12))
            s->lower_limit = static_cast<int32_t>(get32(reply + 8));
        if (have(16))
            s->upper_limit = static_cast<int32_t>(get32(reply + 12));
        if (have(20))
            s->limited_credit_value = get32(reply + 16);
        if (have(21))
            s->limited_credit_enabled = reply[20] & 1;
        break;
    case ZEL_DESFIRE_FILE_LINEAR_RECORD:
    case ZEL_DESFIRE_FILE_CYCLIC_RECORD:
        if (have(11))
            s->record_size = get24(reply + 8);
        if (have(14))
            s->max_records = get24(reply + 11);
        if (have(17))
            s->current_records = get24(reply + 14);
        break;
    case ZEL_DESFIRE_FILE_TRANSACTION_MAC:
        if (have(9))
            s->tmac_key_type = reply[8] & 3;
        if (have(10))
            s->tmac_key_version = reply[9];
        break;
    default: break;
    }
}

// The reply of the file settings command (0xC6) for one file into reply (256 bytes).
ZEL_STATUS settings_reply(ZEL_HANDLE hnd, const KeyRef &k, uint32_t aid, uint8_t file_id, uint8_t *reply,
                          uint32_t *useful)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    ext[at + 1] = k.auth;
    return transact(hnd, kCmdFileSettings, par0_of(k), 0, ext, at + 2, reply, useful);
}

ZEL_STATUS file_settings(ZEL_HANDLE hnd, const KeyRef &k, uint32_t aid, uint8_t file_id, zel_desfire_file_settings *s,
                         uint16_t *cs, uint16_t *et)
{
    if (s)
        std::memset(s, 0, sizeof *s);
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = settings_reply(hnd, k, aid, file_id, reply, &useful);
    if (st != ZEL_OK)
        return st;
    results(reply, useful, cs, et);
    if (s)
        parse_file_settings(reply, useful, s);
    return ZEL_OK;
}

ZEL_STATUS zdf_get_file_settings(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id,
                                 zel_desfire_file_settings *settings, uint16_t *cs, uint16_t *et)
{
    return file_settings(hnd, k, aid, file_id, settings, cs, et);
}

// Reads the settings of a standard file with SDM of a reply (the two results first): file type, file
// option, access rights and file size as for any standard file, then with SDM on the options, the SDM
// access rights and the offsets that apply.
void parse_sdm_file_settings(const uint8_t *reply, uint32_t useful, zel_desfire_sdm_file_settings *s)
{
    std::memset(s, 0, sizeof *s);
    if (useful < 5)
        return;
    s->file_type = reply[4];
    if (useful < 6)
        return;
    s->communication_settings = reply[5] & 3;
    s->sdm_enabled = reply[5] >> 6 & 1;
    if (useful < 8)
        return;
    unpack_access(reply + 6, s);
    if (useful < 11)
        return;
    s->file_size = get24(reply + 8);
    if (!s->sdm_enabled || useful < 14)
        return;
    const uint8_t opt = reply[11];
    const uint32_t sa = get16(reply + 12);
    s->sdm_options = opt;
    s->read_ctr_key_no = static_cast<uint8_t>(sa & 0x0F);
    s->file_read_key_no = static_cast<uint8_t>(sa >> 8 & 0x0F);
    s->meta_read_key_no = static_cast<uint8_t>(sa >> 12 & 0x0F);
    uint32_t at = 14;
    // The next offset when the card sent it; a missing one leaves the rest at 0.
    auto next = [&](uint32_t *field) {
        if (at + 3 > useful)
            return false;
        *field = get24(reply + at);
        at += 3;
        return true;
    };
    if (s->meta_read_key_no == 14) {
        if ((opt & ZEL_DESFIRE_SDM_UID_MIRROR) && !next(&s->uid_offset))
            return;
        if ((opt & ZEL_DESFIRE_SDM_READ_CTR_MIRROR) && !next(&s->read_ctr_offset))
            return;
    } else if (s->meta_read_key_no != 15 && !next(&s->picc_data_offset)) {
        return;
    }
    if (s->file_read_key_no != 15) {
        if (!next(&s->mac_input_offset))
            return;
        if ((opt & ZEL_DESFIRE_SDM_ENC_FILE_DATA) && (!next(&s->enc_offset) || !next(&s->enc_length)))
            return;
        if (!next(&s->mac_offset))
            return;
    }
    if (opt & ZEL_DESFIRE_SDM_READ_CTR_LIMIT)
        next(&s->read_ctr_limit);
}

ZEL_STATUS zdf_get_file_settings_sdm(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id,
                                     zel_desfire_sdm_file_settings *settings, uint16_t *cs, uint16_t *et)
{
    if (settings)
        std::memset(settings, 0, sizeof *settings);
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = settings_reply(hnd, k, aid, file_id, reply, &useful);
    if (st != ZEL_OK)
        return st;
    uint16_t status = 0;
    results(reply, useful, &status, et);
    if (status == kCardOk && useful >= 5 && reply[4] != ZEL_DESFIRE_FILE_STANDARD)
        status = ZEL_DESFIRE_NOT_STANDARD_FILE;
    else if (status == kCardOk && settings)
        parse_sdm_file_settings(reply, useful, settings);
    if (cs)
        *cs = status;
    return ZEL_OK;
}

ZEL_STATUS zdf_get_std_file_size(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint32_t *file_size,
                                 uint16_t *cs, uint16_t *et)
{
    zel_desfire_file_settings s;
    uint16_t status = 0;
    if (file_size)
        *file_size = 0;
    const ZEL_STATUS st = file_settings(hnd, k, aid, file_id, &s, &status, et);
    if (st != ZEL_OK)
        return st;
    if (status == kCardOk && s.file_type != ZEL_DESFIRE_FILE_STANDARD && s.file_type != ZEL_DESFIRE_FILE_BACKUP)
        status = DESFIRE_CARD_FILE_NOT_FOUND;
    else if (status == kCardOk && file_size)
        *file_size = s.file_size;
    if (cs)
        *cs = status;
    return ZEL_OK;
}

ZEL_STATUS zdf_change_file_settings(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint8_t comm, uint8_t r,
                                    uint8_t w, uint8_t rw, uint8_t c, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    ext[at + 1] = comm;
    put16(ext + at + 2, access_word(r, w, rw, c));
    return plain_op(hnd, kCmdChangeFileSettings, par0_of(k), 0, ext, at + 4, cs, et);
}

// The settings of a file with Secure Dynamic Messaging: file id, communication settings, access rights, then
// the length and the SDM settings as the caller composed them.
ZEL_STATUS zdf_change_file_settings_sdm(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint8_t comm,
                                        uint8_t r, uint8_t w, uint8_t rw, uint8_t c, const uint8_t *sdm_settings,
                                        uint8_t sdm_len, uint16_t *cs, uint16_t *et)
{
    if (sdm_len > ZEL_DESFIRE_MAX_SDM_SETTINGS || (sdm_len && !sdm_settings))
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    ext[at + 1] = comm;
    put16(ext + at + 2, access_word(r, w, rw, c));
    ext[at + 4] = sdm_len;
    if (sdm_len)
        std::memcpy(ext + at + 5, sdm_settings, sdm_len);
    return plain_op(hnd, kCmdChangeFileSettings, par0_of(k), 0, ext, at + 5 + sdm_len, cs, et);
}

// ---- Data, values, records.

uint32_t data_head(uint8_t *ext, const KeyRef &k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset,
                   uint16_t length, uint8_t comm)
{
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = aid_key_nr;
    ext[at + 1] = file_id;
    ext[at + 2] = k.auth;
    put16(ext + at + 3, offset);
    put16(ext + at + 5, length);
    ext[at + 7] = comm;
    return at + 8;
}

ZEL_STATUS zdf_read_std(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset,
                        uint16_t length, uint8_t comm, uint8_t *data, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t n = data_head(ext, k, aid, aid_key_nr, file_id, offset, length, comm);
    return streamed(hnd, kCmdRead, par0_of(k), ext, n, data, length, true, cs, et);
}

ZEL_STATUS zdf_write_std(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint16_t offset,
                         uint16_t length, uint8_t comm, const uint8_t *data, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t n = data_head(ext, k, aid, aid_key_nr, file_id, offset, length, comm);
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = chunked(hnd, kCmdWrite, par0_of(k), 0, ext, n, data, length, reply, &useful);
    if (st != ZEL_OK)
        return st;
    results(reply, useful, cs, et);
    return useful == 4 ? ZEL_OK : ZEL_PARAMETERS_ERROR;
}

uint32_t value_head(uint8_t *ext, const KeyRef &k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm)
{
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = aid_key_nr;
    ext[at + 1] = file_id;
    ext[at + 2] = k.auth;
    ext[at + 3] = comm;
    return at + 4;
}

ZEL_STATUS zdf_read_value(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm,
                          int32_t *value, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t n = value_head(ext, k, aid, aid_key_nr, file_id, comm);
    uint8_t reply[256] = {};
    const ZEL_STATUS st = plain_op(hnd, kCmdReadValue, par0_of(k), 0, ext, n, cs, et, 8, reply);
    if (st == ZEL_CARD_REFUSED_SHORT)
        return ZEL_OK;
    if (st == ZEL_OK && value)
        *value = static_cast<int32_t>(get32(reply + 4));
    return st;
}

ZEL_STATUS change_value(ZEL_HANDLE hnd, const KeyRef &k, uint8_t cmd, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                        uint8_t comm, uint32_t value, const Tmac &t, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t n = value_head(ext, k, aid, aid_key_nr, file_id, comm);
    put32(ext + n, value);
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = transact(hnd, cmd, par0_of(k), tmac_par1(t), ext, n + 4, reply, &useful);
    return tmac_reply(st, reply, useful, t, cs, et);
}

ZEL_STATUS zdf_increase_value(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm,
                              uint32_t value, uint16_t *cs, uint16_t *et)
{
    return change_value(hnd, k, kCmdIncrease, aid, aid_key_nr, file_id, comm, value, Tmac{}, cs, et);
}

ZEL_STATUS zdf_decrease_value(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id, uint8_t comm,
                              uint32_t value, uint16_t *cs, uint16_t *et)
{
    return change_value(hnd, k, kCmdDecrease, aid, aid_key_nr, file_id, comm, value, Tmac{}, cs, et);
}

ZEL_STATUS zdf_increase_value_tmac(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                                   uint8_t comm, uint32_t value, uint8_t use_reader_id, uint8_t *reader_id,
                                   uint8_t *prev, uint32_t *cnt, uint8_t *mac, uint16_t *cs, uint16_t *et)
{
    return change_value(hnd, k, kCmdIncrease, aid, aid_key_nr, file_id, comm, value,
                        Tmac{true, use_reader_id, reader_id, prev, cnt, mac}, cs, et);
}

ZEL_STATUS zdf_decrease_value_tmac(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                                   uint8_t comm, uint32_t value, uint8_t use_reader_id, uint8_t *reader_id,
                                   uint8_t *prev, uint32_t *cnt, uint8_t *mac, uint16_t *cs, uint16_t *et)
{
    return change_value(hnd, k, kCmdDecrease, aid, aid_key_nr, file_id, comm, value,
                        Tmac{true, use_reader_id, reader_id, prev, cnt, mac}, cs, et);
}

ZEL_STATUS zdf_read_records(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                            uint16_t offset, uint16_t count, uint16_t record_size, uint8_t comm, uint8_t *data,
                            uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    uint32_t n = data_head(ext, k, aid, aid_key_nr, file_id, offset, count, comm);
    put16(ext + n, record_size);
    n += 2;
    return streamed(hnd, kCmdReadRecords, par0_of(k), ext, n, data, static_cast<uint32_t>(count) * record_size, false,
                    cs, et);
}

ZEL_STATUS write_record(ZEL_HANDLE hnd, const KeyRef &k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                        uint16_t offset, uint16_t length, uint8_t comm, const uint8_t *data, const Tmac &t,
                        uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t n = data_head(ext, k, aid, aid_key_nr, file_id, offset, length, comm);
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = chunked(hnd, kCmdWriteRecord, par0_of(k), tmac_par1(t), ext, n, data, length, reply, &useful);
    return tmac_reply(st, reply, useful, t, cs, et);
}

ZEL_STATUS zdf_write_record(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                            uint16_t offset, uint16_t length, uint8_t comm, const uint8_t *data, uint16_t *cs,
                            uint16_t *et)
{
    return write_record(hnd, k, aid, aid_key_nr, file_id, offset, length, comm, data, Tmac{}, cs, et);
}

ZEL_STATUS zdf_write_record_tmac(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                                 uint16_t offset, uint16_t length, uint8_t comm, const uint8_t *data,
                                 uint8_t use_reader_id, uint8_t *reader_id, uint8_t *prev, uint32_t *cnt, uint8_t *mac,
                                 uint16_t *cs, uint16_t *et)
{
    return write_record(hnd, k, aid, aid_key_nr, file_id, offset, length, comm, data,
                        Tmac{true, use_reader_id, reader_id, prev, cnt, mac}, cs, et);
}

ZEL_STATUS clear_records(ZEL_HANDLE hnd, const KeyRef &k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                         const Tmac &t, uint16_t *cs, uint16_t *et)
{
    uint8_t ext[256];
    const WipeOnExit wipe_ext(ext, sizeof ext);
    const uint32_t at = head(ext, k, true, aid);
    ext[at] = file_id;
    ext[at + 1] = k.auth;
    ext[at + 2] = aid_key_nr;
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = transact(hnd, kCmdClearRecords, par0_of(k), tmac_par1(t), ext, at + 3, reply, &useful);
    return tmac_reply(st, reply, useful, t, cs, et);
}

ZEL_STATUS zdf_clear_records(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint16_t *cs, uint16_t *et)
{
    return clear_records(hnd, k, aid, 0, file_id, Tmac{}, cs, et);
}

ZEL_STATUS zdf_clear_records_2(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                               uint16_t *cs, uint16_t *et)
{
    return clear_records(hnd, k, aid, aid_key_nr, file_id, Tmac{}, cs, et);
}

ZEL_STATUS zdf_clear_records_tmac(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t file_id, uint8_t use_reader_id,
                                  uint8_t *reader_id, uint8_t *prev, uint32_t *cnt, uint8_t *mac, uint16_t *cs,
                                  uint16_t *et)
{
    return clear_records(hnd, k, aid, 0, file_id, Tmac{true, use_reader_id, reader_id, prev, cnt, mac}, cs, et);
}

ZEL_STATUS zdf_clear_records_tmac_2(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t aid_key_nr, uint8_t file_id,
                                    uint8_t use_reader_id, uint8_t *reader_id, uint8_t *prev, uint32_t *cnt,
                                    uint8_t *mac, uint16_t *cs, uint16_t *et)
{
    return clear_records(hnd, k, aid, aid_key_nr, file_id, Tmac{true, use_reader_id, reader_id, prev, cnt, mac}, cs,
                         et);
}

// ---- Changing keys.

// Writes a key of a wire type into its 16-byte field, and its last 8 bytes behind for 3K3DES.
void put_key(uint8_t *field, uint8_t *tail, const uint8_t *key, uint8_t type)
{
    if (!key)
        return;
    if (type == ZEL_DESFIRE_WIRE_DES) {
        std::memcpy(field, key, 8);
        std::memcpy(field + 8, key, 8);
    } else if (type == ZEL_DESFIRE_WIRE_3K3DES) {
        std::memcpy(field, key, 16);
        if (tail)
            std::memcpy(tail, key + 16, 8);
    } else {
        std::memcpy(field, key, 16);
    }
}

ZEL_STATUS change_key(ZEL_HANDLE hnd, uint8_t auth_key_nr, const uint8_t *auth_key, uint32_t aid,
                      uint8_t aid_key_no_auth, uint8_t new_key_nr, const uint8_t *new_key, uint8_t aid_key_no,
                      uint8_t old_key_nr, const uint8_t *old_key, uint16_t *cs, uint16_t *et, uint8_t flag,
                      uint8_t auth_type, uint8_t new_type)
{
    if (auth_type > 3 || new_type > 3)
        return ZEL_PARAMETERS_ERROR;
    const bool wide = auth_type == ZEL_DESFIRE_WIRE_3K3DES || new_type == ZEL_DESFIRE_WIRE_3K3DES;
    uint8_t ext[256] = {};
    const WipeOnExit wipe_ext(ext, sizeof ext);
    uint8_t par0 = static_cast<uint8_t>(auth_type + 4 * new_type), par1 = 0;
    if (flag) {
        // Keys named in the SAM: no key bytes go out.
        par0 = static_cast<uint8_t>(auth_key_nr | 0x80);
        par1 = static_cast<uint8_t>(new_key_nr | 0x80);
        ext[0] = 0x0F;
        ext[1] = static_cast<uint8_t>(old_key_nr | 0x80);
    } else {
        uint16_t sel = 0x0008;
        if (auth_key_nr <= 15)
            sel |= 0x0001 | auth_key_nr << 8;
        else
            put_key(ext + 2, wide ? ext + 55 : nullptr, auth_key, auth_type);
        if (new_key_nr <= 15)
            sel |= 0x0002 | new_key_nr << 12;
        else
            put_key(ext + 22, wide ? ext + 63 : nullptr, new_key, new_type);
        if (old_key_nr <= 15)
            sel |= 0x0004 | old_key_nr << 4;
        else
            put_key(ext + 39, wide ? ext + 71 : nullptr, old_key, new_type);
        put16(ext, sel);
    }
    put24(ext + 18, aid);
    ext[21] = aid_key_no_auth;
    ext[38] = aid_key_no;
    return plain_op(hnd, kCmdChangeKey, par0, par1, ext, wide ? 79 : 55, cs, et);
}

uint8_t auth_nr(const KeyRef &k)
{
    return k.source == ZEL_DESFIRE_KEY_PROVIDED ? ZEL_DESFIRE_KEY_GIVEN : k.number;
}
const uint8_t *auth_bytes(const KeyRef &k)
{
    return k.source == ZEL_DESFIRE_KEY_PROVIDED ? k.bytes : nullptr;
}

#define ZDF_CHANGE_IMPL(fn, new_type)                                                                                 \
    ZEL_STATUS fn(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t auth_no, const uint8_t *new_key, uint8_t key_no,    \
                  const uint8_t *old_key, uint16_t *cs, uint16_t *et)                                                 \
    {                                                                                                                 \
        if (!new_key || !old_key)                                                                                     \
            return ZEL_PARAMETERS_ERROR;                                                                              \
        return change_key(hnd, auth_nr(k), auth_bytes(k), aid, auth_no, ZEL_DESFIRE_KEY_GIVEN, new_key, key_no,       \
                          ZEL_DESFIRE_KEY_GIVEN, old_key, cs, et, 0, k.type, new_type);                               \
    }                                                                                                                 \
    ZEL_STATUS fn##_numbered(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t auth_no, uint8_t new_nr, uint8_t key_no, \
                             uint8_t old_nr, uint16_t *cs, uint16_t *et)                                              \
    {                                                                                                                 \
        return change_key(hnd, auth_nr(k), auth_bytes(k), aid, auth_no, new_nr, nullptr, key_no, old_nr, nullptr, cs, \
                          et, 0, k.type, new_type);                                                                   \
    }                                                                                                                 \
    ZEL_STATUS fn##_sam(ZEL_HANDLE hnd, KeyRef k, uint32_t aid, uint8_t auth_no, uint8_t new_nr, uint8_t key_no,      \
                        uint8_t old_nr, uint16_t *cs, uint16_t *et)                                                   \
    {                                                                                                                 \
        return change_key(hnd, k.number, nullptr, aid, auth_no, new_nr, nullptr, key_no, old_nr, nullptr, cs, et, 1,  \
                          k.type, new_type);                                                                          \
    }
ZDF_CHANGE_IMPL(zdf_change_aes, ZEL_DESFIRE_WIRE_AES)
ZDF_CHANGE_IMPL(zdf_change_des, ZEL_DESFIRE_WIRE_DES)
ZDF_CHANGE_IMPL(zdf_change_2k3des, ZEL_DESFIRE_WIRE_2K3DES)
ZDF_CHANGE_IMPL(zdf_change_3k3des, ZEL_DESFIRE_WIRE_3K3DES)

// The card's master key: the old key is the authenticating one.
ZEL_STATUS zdf_change_master(ZEL_HANDLE hnd, KeyRef k, uint8_t auth_key_type, uint8_t new_nr, uint8_t new_key_type,
                             uint16_t *cs, uint16_t *et)
{
    return change_key(hnd, k.number, nullptr, 0, 0, new_nr, nullptr, 0, k.number, nullptr, cs, et, 0, auth_key_type,
                      new_key_type);
}

ZEL_STATUS zdf_change_master_pk(ZEL_HANDLE hnd, KeyRef k, uint8_t auth_key_type, const uint8_t *new_key,
                                uint8_t new_key_type, uint16_t *cs, uint16_t *et)
{
    if (!k.bytes || !new_key)
        return ZEL_PARAMETERS_ERROR;
    // The old key is the authenticating one, of the type it had.
    uint8_t ext_auth[24] = {};
    const WipeOnExit wipe_ext_auth(ext_auth, sizeof ext_auth);
    std::memcpy(ext_auth, k.bytes, key_len(auth_key_type));
    if (auth_key_type != new_key_type) {
        // A change of type: the old key field carries the old key as the new type's width takes it.
        uint8_t old[24] = {};
        const WipeOnExit wipe_old(old, sizeof old);
        std::memcpy(old, ext_auth, key_len(auth_key_type));
        if (auth_key_type == ZEL_DESFIRE_WIRE_DES)
            std::memcpy(old + 8, ext_auth, 8);
        return change_key(hnd, ZEL_DESFIRE_KEY_GIVEN, ext_auth, 0, 0, ZEL_DESFIRE_KEY_GIVEN, new_key, 0,
                          ZEL_DESFIRE_KEY_GIVEN, old, cs, et, 0, auth_key_type, new_key_type);
    }
    return change_key(hnd, ZEL_DESFIRE_KEY_GIVEN, ext_auth, 0, 0, ZEL_DESFIRE_KEY_GIVEN, new_key, 0,
                      ZEL_DESFIRE_KEY_GIVEN, ext_auth, cs, et, 0, auth_key_type, new_key_type);
}

ZEL_STATUS zdf_change_master_sam(ZEL_HANDLE hnd, KeyRef k, uint8_t auth_key_type, uint8_t new_nr, uint8_t new_key_type,
                                 uint16_t *cs, uint16_t *et)
{
    return change_key(hnd, k.number, nullptr, 0, 0, new_nr, nullptr, 0, k.number, nullptr, cs, et, 1, auth_key_type,
                      new_key_type);
}

ZEL_STATUS switch_master_type(ZEL_HANDLE hnd, uint8_t from, uint8_t to)
{
    const uint8_t zero[24] = {};
    uint16_t cs = 0, et = 0;
    const ZEL_STATUS st = change_key(hnd, ZEL_DESFIRE_KEY_GIVEN, zero, 0, 0, ZEL_DESFIRE_KEY_GIVEN, zero, 0,
                                     ZEL_DESFIRE_KEY_GIVEN, zero, &cs, &et, 0, from, to);
    return st == ZEL_OK && cs == kCardOk ? ZEL_OK : ZEL_AUTH_ERROR;
}

} // namespace zel::desfire

using namespace zel;
using namespace zel::desfire;

// The XHnd of every key form is generated (smartcard/desfire_forms.cpp from api/desfire.forms): each calls
// one of the zdf_ implementations above with its key reference.

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireFreeMemHnd(ZEL_HANDLE hnd, uint32_t *free_mem_byte, uint16_t *cs,
                                                        uint16_t *et)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t frame[kFrameBufLen];
    make_command(frame, kCmdFreeMem);
    uint8_t len = 0;
    ZEL_STATUS st = InitialHandshaking(hnd, frame, &len);
    if (st != ZEL_OK)
        return st;
    if (len == 0)
        return ZEL_PARAMETERS_ERROR;
    uint8_t reply[256] = {};
    if ((st = GetAndTestResponseData(hnd, len, reply)) != ZEL_OK)
        return st;
    const uint32_t useful = len - 1u;
    results(reply, useful, cs, et);
    if (useful == 4 && get16(reply) != kCardOk)
        return ZEL_OK;
    if (useful != 8)
        return ZEL_PARAMETERS_ERROR;
    if (free_mem_byte)
        *free_mem_byte = get32(reply + 4);
    return ZEL_OK;
}

namespace {

ZEL_STATUS write_key(ZEL_HANDLE hnd, uint8_t key_no, const uint8_t *key, uint8_t key_type, uint32_t n)
{
    if (n && !key)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[32] = {};
    const WipeOnExit wipe_ext(ext, sizeof ext);
    ext[0] = key_no;
    if (n)
        std::memcpy(ext + 1, key, n);
    uint8_t reply[256] = {};
    uint32_t useful = 0;
    const ZEL_STATUS st = transact(hnd, kCmdWriteKey, key_type, 0, ext, n + 1, reply, &useful);
    if (st != ZEL_OK)
        return st;
    return useful >= 1 ? reply[0] : ZEL_COMMUNICATION_ERROR;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireWriteAesKeyHnd(ZEL_HANDLE hnd, uint8_t aes_key_no, const uint8_t *aes_key)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!aes_key)
        return ZEL_PARAMETERS_ERROR;
    if (hnd->ee_route) {
        if (aes_key_no > 15)
            return ZEL_MAX_KEY_INDEX_EXCEEDED;
        return EE_WriteHnd(hnd, 346u + 16u * aes_key_no, 16, aes_key);
    }
    return write_key(hnd, aes_key_no, aes_key, ZEL_DESFIRE_WIRE_AES, 16);
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireWriteKeyHnd(ZEL_HANDLE hnd, uint8_t key_no, const uint8_t *key,
                                                         uint8_t key_type)
{
    uint32_t n = 0;
    switch (key_type) {
    case ZEL_DESFIRE_WIRE_AES:
    case ZEL_DESFIRE_WIRE_2K3DES: n = 16; break;
    case ZEL_DESFIRE_WIRE_DES: n = 8; break;
    case ZEL_DESFIRE_WIRE_3K3DES: n = 24; break;
    default: n = 0; break;
    }
    return write_key(hnd, key_no, key, key_type, n);
}

extern "C" ZEL_API ZEL_STATUS Zel_int_DesfireChangeKeyHnd(ZEL_HANDLE hnd, uint8_t auth_key_nr, const uint8_t *auth_key,
                                                          uint32_t aid, uint8_t aid_key_no_auth, uint8_t new_key_nr,
                                                          const uint8_t *new_key, uint8_t aid_key_no,
                                                          uint8_t old_key_nr, const uint8_t *old_key,
                                                          uint16_t *card_status, uint16_t *exec_time, uint8_t flag,
                                                          uint8_t auth_key_type, uint8_t new_key_type)
{
    if ((!flag && ((auth_key_nr > 15 && !auth_key) || (new_key_nr > 15 && !new_key) || (old_key_nr > 15 && !old_key))))
        return ZEL_PARAMETERS_ERROR;
    return change_key(hnd, auth_key_nr, auth_key, aid, aid_key_no_auth, new_key_nr, new_key, aid_key_no, old_key_nr,
                      old_key, card_status, exec_time, flag, auth_key_type, new_key_type);
}

extern "C" ZEL_API ZEL_STATUS DES_to_AES_key_typeHnd(ZEL_HANDLE hnd)
{
    return switch_master_type(hnd, ZEL_DESFIRE_WIRE_DES, ZEL_DESFIRE_WIRE_AES);
}

extern "C" ZEL_API ZEL_STATUS AES_to_DES_key_typeHnd(ZEL_HANDLE hnd)
{
    return switch_master_type(hnd, ZEL_DESFIRE_WIRE_AES, ZEL_DESFIRE_WIRE_DES);
}
