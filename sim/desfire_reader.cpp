// The reader's DESFire engine: one host frame names a key (in the frame, in the reader's store, or in the
// SAM, which in the simulator holds the same keys as the store), an application and an operation. The
// engine selects the application, authenticates with the card, runs the card commands, commits what needs
// a commit, and answers the card's outcome as card_status: 3001 for success, 3072 plus the card's status
// byte for a refusal, 3000 without a card, 3005 when the card is no DESFire card.
#include <cstring>

#include "core.h"
#include "desfire.h"
#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint16_t CS_NO_CARD = 3000, CS_OK = 3001, CS_WRONG_KEY_TYPE = 3002, CS_KEY_AUTH = 3003, CS_COMM = 3005,
                   CS_CARD = 3072;
constexpr uint8_t WIRE_AES = 0, WIRE_3K3DES = 1, WIRE_DES = 2; // 3 is 2K3DES: a TDES key of 16 bytes
constexpr uint8_t MORE = 0xAD, STREAM_END = 0xDD;
constexpr size_t PIECE = 128;

const uint8_t CMDS[] = {0x6D, 0x80, 0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x8B, 0x8C, 0x8D,
                        0x8E, 0x8F, 0x98, 0x99, 0x9A, 0x9B, 0x9C, 0xC0, 0xC1, 0xC2, 0xC6, 0xC9, 0xCA};

bool is_desfire_cmd(uint8_t c)
{
    for (uint8_t x : CMDS)
        if (x == c)
            return true;
    return false;
}

uint32_t g16(const uint8_t *p)
{
    return p[0] | static_cast<uint32_t>(p[1]) << 8;
}
uint32_t g24(const uint8_t *p)
{
    return g16(p) | static_cast<uint32_t>(p[2]) << 16;
}
uint32_t g32(const uint8_t *p)
{
    return g24(p) | static_cast<uint32_t>(p[3]) << 24;
}
void a24(std::vector<uint8_t> &v, uint32_t x)
{
    for (int i = 0; i < 3; ++i)
        v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

DfKeyKind kind_of_wire(uint8_t t)
{
    return t == WIRE_AES ? DfKeyKind::AES : t == WIRE_3K3DES ? DfKeyKind::TK3DES : DfKeyKind::TDES;
}

size_t wire_len(uint8_t t)
{
    return t == WIRE_DES ? 8 : t == WIRE_3K3DES ? 24 : 16;
}

// A key as the card's cipher takes it: DES keys become 2K3DES keys of equal halves.
struct Key {
    uint8_t type = WIRE_AES;
    uint8_t bytes[24] = {};
    void set(uint8_t t, const uint8_t *b)
    {
        type = t;
        std::memset(bytes, 0, sizeof bytes);
        std::memcpy(bytes, b, wire_len(t));
        if (t == WIRE_DES)
            std::memcpy(bytes + 8, b, 8);
    }
};

// The card side of one operation, with the card_status it ends in.
struct Op {
    DesfireCard &card;
    uint16_t status = CS_OK;
    uint16_t steps = 0;
    std::vector<uint8_t> last; // the last answer's data (without the status byte)

    bool run(std::vector<uint8_t> cmd, bool no_changes_ok = false)
    {
        ++steps;
        std::vector<uint8_t> ans = card.native(cmd.data(), cmd.size());
        last.assign(ans.begin() + (ans.empty() ? 0 : 1), ans.end());
        const uint8_t s = ans.empty() ? DF_LENGTH : ans[0];
        if (s == DF_OK || (no_changes_ok && s == DF_NO_CHANGES))
            return true;
        status = static_cast<uint16_t>(CS_CARD + s);
        return false;
    }

    bool select(uint32_t aid)
    {
        std::vector<uint8_t> c{0x5A};
        a24(c, aid);
        return run(c);
    }

    // The reader's half of the mutual authentication.
    bool authenticate(uint8_t keyno, const Key &k)
    {
        const DfKeyKind kind = kind_of_wire(k.type);
        ++steps;
        const uint8_t first[2] = {static_cast<uint8_t>(kind == DfKeyKind::AES ? 0xAA : 0x1A), keyno};
        std::vector<uint8_t> a = card.native(first, 2);
        if (a.empty() || a[0] != DF_ADDITIONAL_FRAME) {
            status = static_cast<uint16_t>(CS_CARD + (a.empty() ? DF_LENGTH : a[0]));
            return false;
        }
        std::vector<uint8_t> rndb(a.begin() + 1, a.end());
        const size_t bs = df_block(kind);
        if (rndb.empty() || rndb.size() % bs) {
            status = CS_WRONG_KEY_TYPE;
            return false;
        }
        uint8_t iv[16] = {};
        df_cbc(kind, k.bytes, iv, rndb.data(), rndb.size(), false);
        std::vector<uint8_t> rnda(rndb.size());
        df_random(rnda.data(), rnda.size());
        std::vector<uint8_t> msg = rnda;
        msg.insert(msg.end(), rndb.begin() + 1, rndb.end());
        msg.push_back(rndb[0]);
        df_cbc(kind, k.bytes, iv, msg.data(), msg.size(), true);
        msg.insert(msg.begin(), DF_ADDITIONAL_FRAME);
        ++steps;
        std::vector<uint8_t> b = card.native(msg.data(), msg.size());
        if (b.empty() || b[0] != DF_OK) {
            status = static_cast<uint16_t>(CS_CARD + (b.empty() ? DF_LENGTH : b[0]));
            return false;
        }
        std::vector<uint8_t> ra(b.begin() + 1, b.end());
        if (ra.size() != rnda.size() || !df_cbc(kind, k.bytes, iv, ra.data(), ra.size(), false) ||
            std::memcmp(ra.data(), rnda.data() + 1, ra.size() - 1) != 0 || ra.back() != rnda[0]) {
            status = CS_KEY_AUTH;
            return false;
        }
        return true;
    }
};

// The reply of an operation: card_status, exec_time, then the operation's own bytes.
void reply(Answer &a, uint8_t cmd, const Op *op, uint16_t status, const std::vector<uint8_t> &extra = {})
{
    std::vector<uint8_t> d;
    const uint16_t et = op ? static_cast<uint16_t>(op->steps * 3 + 2) : 0;
    d.push_back(static_cast<uint8_t>(status));
    d.push_back(static_cast<uint8_t>(status >> 8));
    d.push_back(static_cast<uint8_t>(et));
    d.push_back(static_cast<uint8_t>(et >> 8));
    d.insert(d.end(), extra.begin(), extra.end());
    put_response(a.bytes, cmd, 0, 0, d.data(), d.size());
}

// The reader's key store in its EEPROM.
bool stored_key(const Reader &r, uint8_t nr, uint8_t type, Key &k)
{
    if (nr > 15)
        return false;
    k.set(type, r.eeprom + EE_DESFIRE_KEYS + 16u * nr);
    return true;
}

// Reads the common head: the key and the offset of the fields (after the AID where there is one).
struct Head {
    Key key;
    bool key_ok = true;
    uint32_t aid = 0;
    size_t f = 0; // offset of the operation fields
};

Head read_head(const Reader &r, const uint8_t *frame, const uint8_t *ext, size_t n, bool with_aid)
{
    Head h;
    const uint8_t type = frame[4] >> 4 & 3;
    const size_t field = type == WIRE_3K3DES ? 24 : 16;
    h.f = 2 + field + (with_aid ? 3 : 0);
    if (n < h.f) {
        h.key_ok = false;
        return h;
    }
    if (ext[0] == 0)
        h.key.set(type, ext + 2);
    else
        h.key_ok = stored_key(r, ext[1], type, h.key);
    if (with_aid)
        h.aid = g24(ext + 2 + field);
    return h;
}

// What runs after a write or a value change: the commit, with transaction MAC data when asked for.
bool finish_transaction(const Reader &r, Op &op, uint8_t par1, std::vector<uint8_t> &tmac)
{
    if (par1 == 0)
        return op.run({0xC7}, true);
    std::vector<uint8_t> reader_id(16, 0), prev(16, 0);
    if (par1 == 3) {
        reader_id.assign(r.eeprom + EE_READER_ID, r.eeprom + EE_READER_ID + 16);
        std::vector<uint8_t> c{0xC8};
        c.insert(c.end(), reader_id.begin(), reader_id.end());
        if (!op.run(c))
            return false;
        if (op.last.size() == 16)
            prev = op.last;
    }
    if (!op.run({0xC7, 0x01}, true))
        return false;
    tmac = reader_id;
    tmac.insert(tmac.end(), prev.begin(), prev.end());
    std::vector<uint8_t> mac(12, 0);
    if (op.last.size() == 12)
        mac = op.last;
    tmac.insert(tmac.end(), mac.begin(), mac.end());
    return true;
}

// The operations that write data, once all their data is in.
void run_write(Reader &r, DesfireCard &card, const uint8_t *frame, const uint8_t *ext, size_t n,
               const std::vector<uint8_t> &data, Answer &a)
{
    const uint8_t cmd = frame[1];
    Head h = read_head(r, frame, ext, n, true);
    Op op{card};
    std::vector<uint8_t> tmac;
    a.bytes.push_back(STREAM_END);
    if (!h.key_ok || n < h.f + 8)
        return reply(a, cmd, &op, CS_WRONG_KEY_TYPE);
    const uint8_t *f = ext + h.f;
    if (op.select(h.aid) && (!f[2] || op.authenticate(f[0], h.key))) {
        std::vector<uint8_t> c{static_cast<uint8_t>(cmd == 0x98 ? 0x3B : 0x3D), f[1]};
        a24(c, g16(f + 3));
        a24(c, static_cast<uint32_t>(data.size()));
        c.insert(c.end(), data.begin(), data.end());
        if (op.run(c))
            finish_transaction(r, op, cmd == 0x98 ? frame[5] : 0, tmac);
    }
    if (cmd == 0x98 && frame[5] && op.status == CS_OK)
        return reply(a, cmd, &op, op.status, tmac);
    reply(a, cmd, &op, op.status);
}

void stream(Answer &a, const std::vector<uint8_t> &data)
{
    for (size_t at = 0; at < data.size(); at += PIECE) {
        const size_t k = data.size() - at < PIECE ? data.size() - at : PIECE;
        a.bytes.push_back(0);
        a.bytes.push_back(static_cast<uint8_t>(k));
        a.bytes.insert(a.bytes.end(), data.begin() + at, data.begin() + at + k);
    }
    a.bytes.push_back(STREAM_END);
}

void write_key(Reader &r, const uint8_t *frame, const uint8_t *ext, size_t n, Answer &a)
{
    const uint8_t type = frame[4];
    const size_t len = type <= 3 ? wire_len(type) : 0;
    uint8_t result = 0;
    if (n < 1 + len || type > 3)
        result = E_PARAMETERS;
    else if (ext[0] > 15)
        result = E_MAX_KEY_INDEX;
    else
        std::memcpy(r.eeprom + EE_DESFIRE_KEYS + 16u * ext[0], ext + 1, len);
    put_response(a.bytes, frame[1], 0, 0, &result, 1);
}

void change_key(Reader &r, DesfireCard &card, const uint8_t *frame, const uint8_t *ext, size_t n, Answer &a)
{
    Op op{card};
    if (n < 55)
        return reply(a, frame[1], &op, CS_WRONG_KEY_TYPE);
    const bool flag = frame[4] & 0x80;
    uint8_t auth_type = frame[4] & 3, new_type = frame[4] >> 2 & 3;
    Key auth, nk, ok;
    bool have = true;
    if (flag) { // keys named in the SAM, which holds the store's keys; AES keys
        auth_type = new_type = WIRE_AES;
        have = stored_key(r, frame[4] & 0x7F, auth_type, auth) && stored_key(r, frame[5] & 0x7F, new_type, nk) &&
               stored_key(r, ext[1] & 0x7F, new_type, ok);
    } else {
        const bool wide = auth_type == WIRE_3K3DES || new_type == WIRE_3K3DES;
        if (wide && n < 79)
            return reply(a, frame[1], &op, CS_WRONG_KEY_TYPE);
        const uint32_t sel = g16(ext);
        auto take = [&](uint8_t type, bool in_reader, uint8_t nr, size_t field, size_t tail, Key &k) {
            if (in_reader)
                return stored_key(r, nr, type, k);
            uint8_t b[24] = {};
            std::memcpy(b, ext + field, 16);
            if (type == WIRE_3K3DES)
                std::memcpy(b + 16, ext + tail, 8);
            k.set(type, b);
            return true;
        };
        have = take(auth_type, sel & 1, sel >> 8 & 15, 2, 55, auth) &&
               take(new_type, sel & 2, sel >> 12 & 15, 22, 63, nk) &&
               take(new_type, sel & 4, sel >> 4 & 15, 39, 71, ok);
    }
    if (!have)
        return reply(a, frame[1], &op, CS_WRONG_KEY_TYPE);
    const uint32_t aid = g24(ext + 18);
    if (op.select(aid) && op.authenticate(ext[21], auth)) {
        std::vector<uint8_t> c{0xC4, static_cast<uint8_t>(ext[38] | (new_type == WIRE_AES      ? 0x80
                                                                     : new_type == WIRE_3K3DES ? 0x40
                                                                                               : 0))};
        c.insert(c.end(), nk.bytes, nk.bytes + 24);
        // The card compares the old key as it holds it: of the type the key had before.
        Key old_as_held = ok;
        if (aid == 0 && ext[38] == 0 && auth_type != new_type)
            old_as_held = auth;
        c.insert(c.end(), old_as_held.bytes, old_as_held.bytes + 24);
        op.run(c);
    }
    reply(a, frame[1], &op, op.status);
}

// One host operation on its way to its handler: the frame and its EXT, the card, the card side of the
// operation, the key and application of the frame's head, the operation's own fields behind it, and the
// bytes the reply carries behind card_status and exec_time.
struct Job {
    Reader &r;
    DesfireCard &card;
    const uint8_t *frame;
    const uint8_t *ext;
    size_t n;
    Answer &a;
    Op &op;
    const Head &h;
    const uint8_t *f;
    size_t fl; // bytes of the fields
    std::vector<uint8_t> extra;

    uint8_t cmd() const { return frame[1]; }
    // True when the fields hold k bytes; else the answer is a wrong key type.
    bool need(size_t k)
    {
        if (fl >= k)
            return true;
        reply(a, frame[1], &op, CS_WRONG_KEY_TYPE);
        return false;
    }
    bool auth(uint8_t keyno) { return op.authenticate(keyno, h.key); }
    // Selects the application and, when asked to, authenticates with key keyno of it.
    bool enter(uint32_t aid, bool authenticate, uint8_t keyno)
    {
        return op.select(aid) && (!authenticate || auth(keyno));
    }
};

// A handler runs the operation on the card; true when it has answered itself, false when the answer is the
// operation's status with the extra bytes.
using Handler = bool (*)(Job &j);

// ---- The card and its applications ----

bool card_uid(Job &j)
{
    if (!j.need(1))
        return true;
    Op &op = j.op;
    if (j.enter(j.h.aid, true, j.f[0]) && op.run({0x51}) && op.last.size() == 7) {
        std::vector<uint8_t> d = op.last;
        const uint16_t et = static_cast<uint16_t>(op.steps * 3 + 2);
        d.insert(d.end(), {static_cast<uint8_t>(CS_OK & 0xFF), static_cast<uint8_t>(CS_OK >> 8),
                           static_cast<uint8_t>(et), static_cast<uint8_t>(et >> 8)});
        put_response(j.a.bytes, j.cmd(), 0, 0, d.data(), d.size());
        return true;
    }
    return false;
}

bool format(Job &j)
{
    if (j.enter(0, true, 0))
        j.op.run({0xFC});
    return false;
}

// Configuration: PAR1 0 the card's flags (random UID, format disabled), else an option byte with its data,
// in the application behind them when PAR1 is 2.
bool configuration(Job &j)
{
    const uint8_t *f = j.f;
    if (j.frame[5] == 0) {
        if (!j.need(2))
            return true;
        if (j.enter(0, true, 0))
            j.op.run({0x5C, 0x00, static_cast<uint8_t>((f[1] ? 1 : 0) | (f[0] ? 2 : 0))});
        return false;
    }
    if (!j.need(2) || !j.need(2u + f[1]))
        return true;
    const uint32_t aid = j.frame[5] == 2 && j.fl >= 5u + f[1] ? g24(f + 2 + f[1]) : 0;
    std::vector<uint8_t> c{0x5C, f[0]};
    c.insert(c.end(), f + 2, f + 2 + f[1]);
    if (j.enter(aid, true, 0))
        j.op.run(c);
    return false;
}

bool key_settings(Job &j)
{
    if (j.enter(j.h.aid, !(j.frame[4] & 1), 0) && j.op.run({0x45}))
        j.extra = j.op.last;
    return false;
}

bool change_key_settings(Job &j)
{
    if (!j.need(1))
        return true;
    if (j.enter(j.h.aid, true, 0))
        j.op.run({0x54, j.f[0]});
    return false;
}

// Create application: the key kind from PAR0, with an ISO id (0x40) and a DF name (0x80) when flagged.
bool create_application(Job &j)
{
    if (!j.need(3))
        return true;
    const uint8_t *f = j.f;
    const uint8_t par0 = j.frame[4];
    const uint8_t low = par0 & 0x0F;
    const uint8_t kind = low == 0 ? 0x80 : low == 1 ? 0x40 : 0x00;
    std::vector<uint8_t> c{0xCA};
    a24(c, j.h.aid);
    c.push_back(f[1]);
    c.push_back(static_cast<uint8_t>((f[2] & 0x0F) | kind | ((par0 & 0x40) ? 0x20 : 0)));
    if ((par0 & 0x40) && j.fl >= 5)
        c.insert(c.end(), f + 3, f + 5);
    if ((par0 & 0x80) && j.fl >= 6) {
        const size_t avail = j.fl - 6;
        const size_t len = f[5] < avail ? f[5] : avail;
        c.insert(c.end(), f + 6, f + 6 + len);
    }
    if (j.enter(0, f[0], 0))
        j.op.run(c);
    return false;
}

// Delete application, with the card's or the application's master key.
bool delete_application(Job &j)
{
    std::vector<uint8_t> c{0xDA};
    a24(c, j.h.aid);
    if (j.enter((j.frame[4] & 1) ? j.h.aid : 0, true, 0))
        j.op.run(c);
    return false;
}

bool application_ids(Job &j)
{
    if (!j.need(1))
        return true;
    if (j.enter(0, j.f[0], 0) && j.op.run({0x6A})) {
        j.extra.push_back(static_cast<uint8_t>(j.op.last.size() / 3));
        j.extra.insert(j.extra.end(), j.op.last.begin(), j.op.last.end());
    }
    return false;
}

// ---- Files ----

// Standard (PAR1 0) or backup (PAR1 1) file, with an ISO id when PAR0 has 0x80.
bool create_data_file(Job &j)
{
    if (!j.need(9))
        return true;
    const uint8_t *f = j.f;
    std::vector<uint8_t> c{static_cast<uint8_t>(j.frame[5] == 1 ? 0xCB : 0xCD), f[0], f[8], f[1], f[2]};
    a24(c, g32(f + 3));
    if ((j.frame[4] & 0x80) && j.fl >= 11)
        c.insert(c.end(), f + 9, f + 11);
    if (j.enter(j.h.aid, f[7], 0))
        j.op.run(c);
    return false;
}

bool create_value_file(Job &j)
{
    if (!j.need(18))
        return true;
    const uint8_t *f = j.f;
    std::vector<uint8_t> c{0xCC, f[0], f[17], f[1], f[2]};
    c.insert(c.end(), f + 3, f + 15);
    c.push_back(f[15]);
    if (j.enter(j.h.aid, f[16], 0))
        j.op.run(c);
    return false;
}

// Linear or (PAR1 0xC0) cyclic record file.
bool create_record_file(Job &j)
{
    if (!j.need(13))
        return true;
    const uint8_t *f = j.f;
    std::vector<uint8_t> c{static_cast<uint8_t>(j.frame[5] == 0xC0 ? 0xC0 : 0xC1), f[0], f[12], f[1], f[2]};
    a24(c, g32(f + 3));
    a24(c, g32(f + 7));
    if (j.enter(j.h.aid, f[11], 0))
        j.op.run(c);
    return false;
}

bool create_tmac_file(Job &j)
{
    if (!j.need(20))
        return true;
    const uint8_t *f = j.f;
    // The write key nibble is always F.
    std::vector<uint8_t> c{0xCE, f[0], f[1], f[2], static_cast<uint8_t>(f[3] | 0x0F), 0x02};
    c.insert(c.end(), f + 4, f + 20);
    c.push_back(0);
    if (j.enter(j.h.aid, true, 0))
        j.op.run(c);
    return false;
}

bool delete_file(Job &j)
{
    if (!j.need(2))
        return true;
    if (j.enter(j.h.aid, j.f[1], 0))
        j.op.run({0xDF, j.f[0]});
    return false;
}

bool file_settings(Job &j)
{
    if (!j.need(2))
        return true;
    if (j.enter(j.h.aid, j.f[1], 0) && j.op.run({0xF5, j.f[0]}))
        j.extra = j.op.last;
    return false;
}

// Change file settings; SDM settings behind their length go to the card as they stand.
bool change_file_settings(Job &j)
{
    if (!j.need(4))
        return true;
    const uint8_t *f = j.f;
    std::vector<uint8_t> c{0x5F, f[0]};
    if (j.fl >= 5 && f[4]) {
        if (!j.need(5u + f[4]))
            return true;
        c.insert(c.end(), f + 5, f + 5 + f[4]);
    } else {
        c.insert(c.end(), f + 1, f + 4);
    }
    if (j.enter(j.h.aid, true, 0))
        j.op.run(c);
    return false;
}

// ---- Data, values and records ----

// Read data (0x83) or records (0x99), streamed.
bool read_streamed(Job &j)
{
    const bool data_file = j.cmd() == 0x83;
    if (!j.need(data_file ? 8 : 10))
        return true;
    const uint8_t *f = j.f;
    std::vector<uint8_t> c{static_cast<uint8_t>(data_file ? 0xBD : 0xBB), f[1]};
    a24(c, g16(f + 3));
    a24(c, g16(f + 5));
    std::vector<uint8_t> data;
    if (j.enter(j.h.aid, f[2], f[0]) && j.op.run(c))
        data = j.op.last;
    stream(j.a, data);
    reply(j.a, j.cmd(), &j.op, j.op.status);
    return true;
}

// Writes: the first piece here, the rest after 0xAD prompts.
bool write_first_piece(Job &j)
{
    if (!j.need(8))
        return true;
    const uint32_t total = g16(j.f + 5);
    std::vector<uint8_t> data(j.f + 8, j.f + j.fl);
    if (data.size() > total)
        data.resize(total);
    if (data.size() < total) {
        DesfireCard::PendingWrite &p = j.card.pending;
        p.active = true;
        std::memcpy(p.frame, j.frame, 7);
        p.ext.assign(j.ext, j.ext + j.n);
        p.data = data;
        p.total = total;
        p.partial.clear();
        j.a.bytes.push_back(MORE);
        return true;
    }
    run_write(j.r, j.card, j.frame, j.ext, j.n, data, j.a);
    return true;
}

bool read_value(Job &j)
{
    if (!j.need(4))
        return true;
    if (j.enter(j.h.aid, j.f[2], j.f[0]) && j.op.run({0x6C, j.f[1]}))
        j.extra = j.op.last;
    return false;
}

// Credit (0x9B) or debit (0x9C), then the commit; with PAR1 the transaction MAC data comes back.
bool credit_debit(Job &j)
{
    if (!j.need(8))
        return true;
    const uint8_t *f = j.f;
    std::vector<uint8_t> c{static_cast<uint8_t>(j.cmd() == 0x9B ? 0x0C : 0xDC), f[1]};
    c.insert(c.end(), f + 4, f + 8);
    std::vector<uint8_t> tmac;
    if (j.enter(j.h.aid, f[2], f[0]) && j.op.run(c))
        finish_transaction(j.r, j.op, j.frame[5], tmac);
    if (j.frame[5] && j.op.status == CS_OK)
        j.extra = tmac;
    return false;
}

// Clear record file, then the commit.
bool clear_records(Job &j)
{
    if (!j.need(3))
        return true;
    std::vector<uint8_t> tmac;
    if (j.enter(j.h.aid, j.f[1], j.f[2]) && j.op.run({0xEB, j.f[0]}))
        finish_transaction(j.r, j.op, j.frame[5], tmac);
    if (j.frame[5] && j.op.status == CS_OK)
        j.extra = tmac;
    return false;
}

struct Operation {
    uint8_t code;
    Handler run;
};

const Operation OPERATIONS[] = {
    // The card and its applications.
    {0x80, card_uid},
    {0x8C, format},
    {0x8B, configuration},
    {0x87, key_settings},
    {0x88, change_key_settings},
    {0x84, create_application},
    {0x89, delete_application},
    {0xC0, application_ids},
    // Files.
    {0x85, create_data_file},
    {0x8F, create_value_file},
    {0xC1, create_record_file},
    {0xC2, create_tmac_file},
    {0x8A, delete_file},
    {0xC6, file_settings},
    {0xCA, change_file_settings},
    // Data, values and records.
    {0x83, read_streamed},
    {0x99, read_streamed},
    {0x82, write_first_piece},
    {0xC9, write_first_piece},
    {0x98, write_first_piece},
    {0x9A, read_value},
    {0x9B, credit_debit},
    {0x9C, credit_debit},
    {0x6D, clear_records},
};

Handler handler_of(uint8_t cmd)
{
    for (const Operation &o : OPERATIONS)
        if (o.code == cmd)
            return o.run;
    return nullptr;
}

} // namespace

bool desfire_reader_wants_ext(const Reader &, const uint8_t frame[7])
{
    return is_desfire_cmd(frame[1]) && frame[1] != 0x8D;
}

bool desfire_reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    const uint8_t cmd = frame[1];
    if (!is_desfire_cmd(cmd))
        return false;
    const size_t n = ext && ext_len ? ext_len - 1 : 0;
    if (cmd == 0x8E) {
        write_key(r, frame, ext, n, a);
        return true;
    }
    if (r.cards.empty()) {
        reply(a, cmd, nullptr, CS_NO_CARD, cmd == 0x8D ? std::vector<uint8_t>(4, 0) : std::vector<uint8_t>{});
        return true;
    }
    auto *card = dynamic_cast<DesfireCard *>(r.cards.front().get());
    if (!card) {
        reply(a, cmd, nullptr, CS_COMM, cmd == 0x8D ? std::vector<uint8_t>(4, 0) : std::vector<uint8_t>{});
        return true;
    }
    card->deselect();
    Op op{*card};
    if (cmd == 0x8D) {
        op.run({0x6E});
        std::vector<uint8_t> m(4, 0);
        if (op.last.size() == 3)
            std::memcpy(m.data(), op.last.data(), 3);
        reply(a, cmd, &op, op.status, m);
        return true;
    }
    if (cmd == 0x86) {
        change_key(r, *card, frame, ext, n, a);
        return true;
    }
    const bool with_aid = cmd != 0x8C && cmd != 0x8B && cmd != 0xC0;
    Head h = read_head(r, frame, ext, n, with_aid);
    if (!h.key_ok) {
        reply(a, cmd, &op, CS_WRONG_KEY_TYPE);
        return true;
    }
    const Handler handler = handler_of(cmd);
    if (!handler)
        return false;
    Job j{r, *card, frame, ext, n, a, op, h, ext + h.f, n - h.f, {}};
    if (!handler(j))
        reply(a, cmd, &op, op.status, j.extra);
    return true;
}

bool desfire_link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n)
{
    Reader &r = sim->reader;
    if (r.cards.empty())
        return false;
    auto *card = dynamic_cast<DesfireCard *>(r.cards.front().get());
    if (!card || !card->pending.active)
        return false;
    auto &p = card->pending;
    Answer a;
    for (size_t i = 0; i < n && p.active; ++i) {
        p.partial.push_back(in[i]);
        if (p.partial.size() < 1u + p.partial[0])
            continue;
        p.data.insert(p.data.end(), p.partial.begin() + 1, p.partial.end());
        p.partial.clear();
        if (p.data.size() < p.total) {
            a.bytes.push_back(MORE);
            continue;
        }
        p.data.resize(p.total);
        p.active = false;
        const std::vector<uint8_t> ext = p.ext, data = p.data;
        uint8_t frame[7];
        std::memcpy(frame, p.frame, 7);
        run_write(r, *card, frame, ext.data(), ext.size(), data, a);
    }
    link_push(sim, link, a.bytes);
    return true;
}

} // namespace zs
