// The reader's ISO 14443-4 side: activation, chained APDUs (command 0x94), host-run blocks, the contact
// interface and the raw front-end paths, in front of a card that hosts ISO 7816-4 applications.
#include <chrono>
#include <cstring>

#include "iso7816.h"
#include "json.h"
#include "reader.h"
#include "scenario.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t CMD_BLOCK_I7F = 0x7F, CMD_BLOCK_I = 0x90, CMD_BLOCK_R = 0x91, CMD_DESELECT = 0x92, CMD_LEVEL4 = 0x93,
                  CMD_CHAIN = 0x94, CMD_CONTACT_OPEN = 0x95, CMD_CONTACT_CLOSE = 0x96, CMD_LEVEL4_STORAGE = 0x97,
                  CMD_FRONT_END = 0x63, CMD_HALT_ENABLE = 0x64;
constexpr uint8_t MARK_MORE = 0x5A;
constexpr uint8_t E_APDU = 174, E_BLOCK = 115;
constexpr size_t REPLY_PIECE = 254;       // data bytes in one reply frame of 0x94
constexpr size_t CHAIN_LIMIT = 0x10008;   // longest chained command
constexpr uint64_t CHAIN_STALE_MS = 3000; // a chained command abandoned this long starts over
const char EXIT_TEXT[] = "exit from transceive mode";

uint64_t mono_ms()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

void put_u32(std::vector<uint8_t> &v, uint32_t x)
{
    for (int i = 0; i < 4; ++i)
        v.push_back(static_cast<uint8_t>(x >> (8 * i)));
}

// A response frame with an EXT of up to 254 data bytes, the 0x94 mark in PAR1 when asked.
void put_piece(std::vector<uint8_t> &out, uint8_t cmd, const uint8_t *data, size_t n, uint8_t par1)
{
    put_frame(out, RSP_HEADER, cmd, RSP_TRAILER, static_cast<uint8_t>(n + 1), 0, par1);
    out.insert(out.end(), data, data + n);
    out.push_back(checksum(data, n));
}

bool is_iblock(uint8_t pcb)
{
    return (pcb & 0xE2) == 0x02;
}
bool is_rblock(uint8_t pcb)
{
    return (pcb & 0xE6) == 0xA2;
}
bool is_sblock(uint8_t pcb)
{
    return (pcb & 0xC7) == 0xC2;
}

} // namespace

struct Iso14443Card::State {
    // The card.
    bool active = false;                  // at level 4 (after RATS)
    std::vector<uint8_t> rx;              // command APDU chained to the card so far
    std::vector<std::vector<uint8_t>> tx; // response blocks still to send (each PCB first)
    std::vector<uint8_t> last;            // the last block sent, for a retransmission
    // The reader.
    uint8_t reader_bn = 0; // block number of the reader's next I-block
    bool contact_open = false;
    bool apdu_to_contact = false;
    std::vector<uint8_t> chain; // chained 0x94 command so far
    bool chaining = false;
    uint64_t chain_ms = 0;
    std::vector<uint8_t> raw_text; // tail of raw-mode input, to see the exit text
};

Iso14443Card::Iso14443Card(const zsim_card &id, Iso14443Setup setup)
    : Card(id), setup_(std::move(setup)), st_(std::make_unique<State>())
{
    if (setup_.block_size < 1)
        setup_.block_size = 1;
}

Iso14443Card::~Iso14443Card() = default;

std::vector<uint8_t> Iso14443Card::rf_block(const uint8_t *b, size_t n)
{
    State &s = *st_;
    if (n == 0)
        return {};
    const uint8_t pcb = b[0];
    if (!s.active) {
        if (n == 2 && pcb == 0xE0) { // RATS
            s.active = true;
            s.rx.clear();
            s.tx.clear();
            host_.reset();
            s.last = setup_.ats;
            return setup_.ats;
        }
        return {};
    }
    if (is_iblock(pcb)) {
        const size_t head = 1 + ((pcb & 0x08) ? 1 : 0) + ((pcb & 0x04) ? 1 : 0); // CID, NAD
        if (n < head)
            return {};
        if (s.rx.size() + (n - head) > CHAIN_LIMIT)
            s.rx.clear();
        s.rx.insert(s.rx.end(), b + head, b + n);
        if (pcb & 0x10) { // chained: acknowledge this block
            s.last = {static_cast<uint8_t>(0xA2 | (pcb & 1))};
            return s.last;
        }
        const std::vector<uint8_t> resp = host_.transceive(s.rx.data(), s.rx.size());
        s.rx.clear();
        s.tx.clear();
        for (size_t at = 0; at < resp.size(); at += setup_.block_size) {
            const size_t k = resp.size() - at < setup_.block_size ? resp.size() - at : setup_.block_size;
            std::vector<uint8_t> blk{static_cast<uint8_t>(at + k < resp.size() ? 0x12 : 0x02)};
            blk.insert(blk.end(), resp.begin() + static_cast<std::ptrdiff_t>(at),
                       resp.begin() + static_cast<std::ptrdiff_t>(at + k));
            s.tx.push_back(std::move(blk));
        }
        // The first block carries the block number of the I-block it answers.
        s.last = s.tx.front();
        s.tx.erase(s.tx.begin());
        s.last[0] = static_cast<uint8_t>(s.last[0] | (pcb & 1));
        return s.last;
    }
    if (is_rblock(pcb)) {
        if ((pcb & 0x10) == 0 && !s.tx.empty()) { // ACK: the next block of a chained response
            s.last = s.tx.front();
            s.tx.erase(s.tx.begin());
            s.last[0] = static_cast<uint8_t>(s.last[0] | (pcb & 1));
            return s.last;
        }
        return s.last; // NAK, or nothing more: the last block again
    }
    if (is_sblock(pcb)) {
        if ((pcb & 0x30) == 0x00) { // DESELECT
            s.active = false;
            host_.reset();
            return {0xC2};
        }
        return {}; // WTX answers are not expected from the reader
    }
    return {};
}

void Iso14443Card::chain_frame_shape(const uint8_t f[7], size_t &ext_len, bool &ack) const
{
    ext_len = static_cast<size_t>(f[3]) | static_cast<size_t>(f[4]) << 8;
    if (ext_len > 257)
        ext_len = 0; // no piece is that long: the reader refuses the frame
    ack = !(st_->chaining && mono_ms() - st_->chain_ms < CHAIN_STALE_MS);
}

bool Iso14443Card::wants_ext(const uint8_t f[7]) const
{
    switch (f[1]) {
    case CMD_BLOCK_I:
    case CMD_CHAIN:
    case CMD_FRONT_END: return true;
    case CMD_BLOCK_I7F: return f[3] != 0;
    default: return false;
    }
}

namespace {

// The reply of the block commands: status, chained flag (not for 0x7F), length, the block.
void put_block_reply(std::vector<uint8_t> &out, uint8_t cmd, const std::vector<uint8_t> &blk)
{
    std::vector<uint8_t> d;
    put_u32(d, 0);
    if (cmd != CMD_BLOCK_I7F)
        d.push_back(!blk.empty() && is_iblock(blk[0]) && (blk[0] & 0x10) ? 1 : 0);
    const size_t n = blk.size() > 247 ? 247 : blk.size();
    d.push_back(static_cast<uint8_t>(n));
    d.insert(d.end(), blk.begin(), blk.begin() + static_cast<std::ptrdiff_t>(n));
    put_piece(out, cmd, d.data(), d.size(), 0);
}

// The card did not answer a block: error 115 with the usual reply behind it, so the host stays in step.
void put_block_silence(std::vector<uint8_t> &out, uint8_t cmd)
{
    std::vector<uint8_t> d;
    put_u32(d, E_BLOCK);
    if (cmd != CMD_BLOCK_I7F)
        d.push_back(0);
    d.push_back(0);
    put_frame(out, ERR_HEADER, E_BLOCK, ERR_TRAILER, static_cast<uint8_t>(d.size() + 1), 0, 0);
    out.insert(out.end(), d.begin(), d.end());
    out.push_back(checksum(d.data(), d.size()));
}

} // namespace

bool Iso14443Card::command(const uint8_t f[7], const uint8_t *ext, size_t ext_len, std::vector<uint8_t> &out)
{
    State &s = *st_;
    const uint8_t cmd = f[1];
    const uint8_t *data = ext;
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    if (cmd != CMD_CHAIN)
        s.chaining = false;
    switch (cmd) {
    case CMD_LEVEL4:
    case CMD_LEVEL4_STORAGE: {
        s.active = false;
        const uint8_t rats[2] = {0xE0, 0x50};
        if (rf_block(rats, 2).empty())
            return put_error(out, E_NO_CARD), true;
        s.reader_bn = 0;
        if (cmd == CMD_LEVEL4 && f[4] == 7) {
            std::vector<uint8_t> d;
            d.push_back(static_cast<uint8_t>(setup_.ats.size()));
            d.insert(d.end(), setup_.ats.begin(), setup_.ats.end());
            d.push_back(id().uid_len);
            d.insert(d.end(), id().uid, id().uid + id().uid_len);
            d.push_back(id().sak);
            put_piece(out, cmd, d.data(), d.size(), 0);
        } else {
            put_response(out, cmd, 0, 0);
        }
        return true;
    }
    case CMD_DESELECT: {
        const uint8_t blk = 0xC2;
        if (rf_block(&blk, 1).empty())
            return put_error(out, E_NO_CARD), true;
        put_response(out, cmd, 0, 0);
        return true;
    }
    case CMD_HALT_ENABLE: put_response(out, cmd, 0, 0); return true;
    case CMD_BLOCK_I7F:
        if (!ext) { // the interface session switch: 5 opens it, 2 closes it
            const uint8_t what = f[4] & 0x0F;
            if (what == 5) {
                s.active = false;
                const uint8_t rats[2] = {0xE0, 0x50};
                if (rf_block(rats, 2).empty())
                    return put_error(out, E_NO_CARD), true;
                s.reader_bn = 0;
            } else if (what == 2) {
                const uint8_t blk = 0xC2;
                rf_block(&blk, 1);
            } else {
                return put_error(out, E_PARAMETERS), true;
            }
            put_response(out, cmd, 0, 0);
            return true;
        }
        [[fallthrough]];
    case CMD_BLOCK_I: {
        // The reader puts the PCB in front: its block number, chaining when PAR0 says so.
        std::vector<uint8_t> blk{static_cast<uint8_t>(0x02 | s.reader_bn | ((f[4] & 0x08) ? 0x10 : 0))};
        blk.insert(blk.end(), data, data + len);
        const std::vector<uint8_t> r = rf_block(blk.data(), blk.size());
        if (r.empty())
            return put_block_silence(out, cmd), true;
        if (is_iblock(r[0]) || is_rblock(r[0]))
            s.reader_bn ^= 1;
        put_block_reply(out, cmd, r);
        return true;
    }
    case CMD_BLOCK_R: {
        const uint8_t blk = static_cast<uint8_t>((f[4] ? 0xA2 : 0xB2) | s.reader_bn);
        const std::vector<uint8_t> r = rf_block(&blk, 1);
        if (r.empty())
            return put_block_silence(out, cmd), true;
        if (f[4] && is_iblock(r[0]))
            s.reader_bn ^= 1;
        put_block_reply(out, cmd, r);
        return true;
    }
    case CMD_CHAIN: {
        if (!s.chaining)
            s.chain.clear();
        if (s.chain.size() + len > CHAIN_LIMIT) {
            s.chaining = false;
            return put_error(out, E_MAX_SIZE), true;
        }
        s.chain.insert(s.chain.end(), data, data + len);
        if (f[5] == MARK_MORE) { // more pieces follow: acknowledge this one
            s.chaining = true;
            s.chain_ms = mono_ms();
            put_frame(out, ACK_HEADER, cmd, ACK_TRAILER, 0, 0, MARK_MORE);
            return true;
        }
        s.chaining = false;
        std::vector<uint8_t> resp;
        if (s.apdu_to_contact) {
            resp = contact_.transceive(s.chain.data(), s.chain.size());
        } else {
            if (!s.active)
                return put_error(out, E_APDU), true;
            resp = host_.transceive(s.chain.data(), s.chain.size());
        }
        s.chain.clear();
        for (uint32_t i = 0; i < setup_.interim_frames; ++i)
            put_frame(out, INT_HEADER, cmd, INT_TRAILER, 0, 0, 0);
        for (size_t at = 0; at < resp.size(); at += REPLY_PIECE) {
            const size_t k = resp.size() - at < REPLY_PIECE ? resp.size() - at : REPLY_PIECE;
            put_piece(out, cmd, resp.data() + at, k, at + k < resp.size() ? MARK_MORE : 0);
        }
        return true;
    }
    case CMD_CONTACT_OPEN:
        if (f[4] == 1 || f[4] == 4) {
            if (setup_.atr.empty())
                return put_error(out, E_NO_CARD), true;
            s.contact_open = true;
            contact_.reset();
            put_piece(out, cmd, setup_.atr.data(), setup_.atr.size(), 0);
            return true;
        }
        if (f[4] == 2) {
            if (!s.contact_open)
                return put_error(out, E_NO_CARD), true;
            s.apdu_to_contact = true;
            put_response(out, cmd, 0, 0);
            return true;
        }
        return put_error(out, E_PARAMETERS), true;
    case CMD_CONTACT_CLOSE:
        if (f[4] < 1 || f[4] > 4)
            return put_error(out, E_PARAMETERS), true;
        if (f[4] == 1 || f[4] == 2) {
            s.contact_open = false;
            contact_.reset();
        }
        s.apdu_to_contact = false;
        put_response(out, cmd, 0, 0);
        return true;
    case CMD_FRONT_END: {
        if (len == 5 && (f[4] & 0x02)) { // raw transceive mode: parameter, zero byte
            raw_mode_ = true;
            s.raw_text.clear();
            put_response(out, cmd, 0, 0);
            return true;
        }
        // Parameter, send length, send bytes, a zero byte.
        if (len < 6 || data[4] != len - 6)
            return put_error(out, E_PARAMETERS), true;
        const std::vector<uint8_t> r = rf_block(data + 5, data[4]);
        if (r.empty())
            return put_error(out, E_NO_CARD), true;
        put_piece(out, cmd, r.data(), r.size(), 0);
        return true;
    }
    default: return false;
    }
}

void Iso14443Card::raw_input(const uint8_t *in, size_t n, std::vector<uint8_t> &out)
{
    State &s = *st_;
    s.raw_text.insert(s.raw_text.end(), in, in + n);
    const size_t tn = sizeof EXIT_TEXT - 1;
    if (s.raw_text.size() >= tn && std::memcmp(s.raw_text.data() + s.raw_text.size() - tn, EXIT_TEXT, tn) == 0) {
        raw_mode_ = false;
        s.raw_text.clear();
        out.push_back('O');
        out.push_back('K');
        return;
    }
    if (s.raw_text.size() > tn)
        s.raw_text.erase(s.raw_text.begin(), s.raw_text.end() - static_cast<std::ptrdiff_t>(tn));
    // A part of the exit text is no block for the card.
    if (n < tn && std::memcmp(in, EXIT_TEXT, n) == 0)
        return;
    const std::vector<uint8_t> r = rf_block(in, n);
    out.insert(out.end(), r.begin(), r.end());
}

namespace {

Iso14443Card *iso_card(Reader &r)
{
    if (r.cards.empty())
        return nullptr;
    Card *front = r.cards.front().get();
    if (auto *c = dynamic_cast<Iso14443Card *>(front))
        return c;
    return front->level4_view();
}

} // namespace

bool iso14443_frame_shape(Reader &r, const uint8_t f[7], size_t &ext_len, bool &ack)
{
    Iso14443Card *c = iso_card(r);
    if (!c || f[1] != CMD_CHAIN)
        return false;
    c->chain_frame_shape(f, ext_len, ack);
    return true;
}

bool iso14443_raw_input(Reader &r, const uint8_t *in, size_t n, std::vector<uint8_t> &out)
{
    Iso14443Card *c = iso_card(r);
    if (!c || !c->raw_mode())
        return false;
    c->raw_input(in, n, out);
    return true;
}

bool iso14443_reader_command(Reader &r, const uint8_t f[7], Answer &a)
{
    if (!r.cards.empty())
        return false;
    switch (f[1]) {
    case CMD_BLOCK_I7F:
    case CMD_BLOCK_I:
    case CMD_BLOCK_R:
    case CMD_DESELECT:
    case CMD_LEVEL4:
    case CMD_CHAIN:
    case CMD_CONTACT_OPEN:
    case CMD_LEVEL4_STORAGE:
    case CMD_FRONT_END: put_error(a.bytes, E_NO_CARD); return true;
    default: return false;
    }
}

bool iso14443_setup_read(const Json *setup, Iso14443Setup &out, std::string &err, const std::vector<std::string> &known)
{
    if (!setup || setup->kind == Json::NUL)
        return true;
    if (setup->kind != Json::OBJECT) {
        err = "setup: an object is expected";
        return false;
    }
    for (const auto &m : setup->fields) {
        const std::string &k = m.first;
        const Json &v = m.second;
        if (k == "ats" || k == "atr") {
            std::vector<uint8_t> bytes;
            if (v.kind != Json::STRING || !parse_hex_text(v.str, bytes, k == "ats" ? 25 : 33)) {
                err = "setup: " + k + " takes hex bytes (at most " + (k == "ats" ? "25" : "33") + ")";
                return false;
            }
            (k == "ats" ? out.ats : out.atr) = bytes;
            continue;
        }
        if (k == "block_size" || k == "interim_frames") {
            uint64_t n = 0;
            const bool num = v.kind == Json::NUMBER && v.num >= 0 && v.num <= 1000;
            if (num)
                n = static_cast<uint64_t>(v.num);
            if (!num && !(v.kind == Json::STRING && parse_hex_number(v.str, 1000, n))) {
                err = "setup: " + k + " takes a number up to 1000";
                return false;
            }
            if (k == "block_size") {
                if (n < 1 || n > 240) {
                    err = "setup: block_size is 1 to 240";
                    return false;
                }
                out.block_size = n;
            } else {
                out.interim_frames = static_cast<uint32_t>(n);
            }
            continue;
        }
        bool other = false;
        for (const auto &name : known)
            other = other || name == k;
        if (!other) {
            err = "setup: unknown member '" + k + "'";
            return false;
        }
    }
    return true;
}

} // namespace zs
