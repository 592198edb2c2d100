// The reader's 0xB5 engine: the ICODE, EM4237 and ISO 15693 information commands, told apart by PAR0, with
// the way to the passwords in PAR1 (1: the first four bytes of reader keys named by index; 0x61: the
// passwords in the EXT; 0 and 0x60: none). The engine unpacks the EXT, presents the passwords to the tag,
// runs the tag command and answers with the tag's data, if any.
#include <cstring>

#include "card.h"
#include "iso15693.h"
#include "reader.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint8_t CMD = 0xB5;
constexpr uint8_t FORM_INDEX = 1, FORM_PROVIDED = 0x61, FORM_NONE = 0, FORM_NONE_INFO = 0x60;

// The EXT data length of each subcommand (checksum left out), by PAR0 1 to 8.
constexpr size_t EXT_DATA[9] = {0, 11, 12, 11, 2, 5, 7, 5, 2};

// A password piece: four bytes at pw and a key index at pw + 4. 0 or an error code.
uint8_t password(const Reader &r, uint8_t form, const uint8_t *piece, uint8_t out[4])
{
    if (form == FORM_PROVIDED) {
        std::memcpy(out, piece, 4);
        return 0;
    }
    if (piece[4] >= KEY_COUNT)
        return E_MAX_KEY_INDEX;
    std::memcpy(out, r.keys[piece[4]], 4);
    return 0;
}

uint8_t run(Reader &r, VicinityTag &tag, const uint8_t *f, const uint8_t *d, std::vector<uint8_t> &data)
{
    const uint8_t sub = f[4], form = f[5];
    const bool with_pw = form == FORM_INDEX || form == FORM_PROVIDED;
    const bool no_pw = form == FORM_NONE || form == FORM_NONE_INFO;
    uint8_t a[4] = {}, b[4] = {};
    uint8_t e = 0;
    switch (sub) {
    case 1: // write password: identifier, current (4 + index), new (4 + index)
        if (!with_pw)
            return E_PARAMETERS;
        if ((e = password(r, form, d + 1, a)) || (e = password(r, form, d + 6, b)))
            return e;
        return tag.icode_write_password(d[0], a, b);
    case 2: // protect page: read password, write password, page, status
        if (!with_pw)
            return E_PARAMETERS;
        if ((e = password(r, form, d, a)) || (e = password(r, form, d + 5, b)))
            return e;
        return tag.icode_protect_page(a, b, d[10], d[11]);
    case 3: // lock block: read password, write password, block
        if (no_pw)
            return tag.lock_block(nullptr, nullptr, d[10]);
        if (!with_pw)
            return E_PARAMETERS;
        if ((e = password(r, form, d, a)) || (e = password(r, form, d + 5, b)))
            return e;
        return tag.lock_block(a, b, d[10]);
    case 4:
    case 8: // block security status: first block, count
        return tag.block_security(d[0], d[1], sub == 8, data);
    case 5: // system information
        if (no_pw)
            return tag.system_information(nullptr, data);
        if (!with_pw)
            return E_PARAMETERS;
        if ((e = password(r, form, d, a)))
            return e;
        return tag.system_information(a, data);
    case 6: // EM4237 protect page: password, page, status
    case 7: // EM4237 random id: password
        if (!with_pw)
            return E_PARAMETERS;
        if ((e = password(r, form, d, a)))
            return e;
        return sub == 6 ? tag.em_protect_page(a, d[5], d[6]) : tag.em_enable_rid(a);
    default: return E_PARAMETERS;
    }
}

} // namespace

bool iso15693_reader_wants_ext(const Reader &, const uint8_t f[7])
{
    return f[1] == CMD;
}

bool iso15693_reader_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a)
{
    if (f[1] != CMD)
        return false;
    const uint8_t sub = f[4];
    const size_t len = ext && ext_len ? ext_len - 1 : 0;
    if (sub < 1 || sub > 8 || !ext || len != EXT_DATA[sub]) {
        put_error(a.bytes, E_PARAMETERS);
        return true;
    }
    if (r.cards.empty() || (r.anticollision && !r.card_selected)) {
        put_error(a.bytes, E_NO_CARD);
        return true;
    }
    auto *tag = dynamic_cast<VicinityTag *>(r.cards.front().get());
    if (!tag) {
        put_error(a.bytes, E15_CARD_TYPE);
        return true;
    }
    std::vector<uint8_t> data;
    if (const uint8_t e = run(r, *tag, f, ext, data)) {
        put_error(a.bytes, e);
        return true;
    }
    if (data.size() > 254) // the status of more blocks than one EXT carries
        put_error(a.bytes, E_MAX_SIZE);
    else if (data.empty())
        put_response(a.bytes, CMD, sub, f[5]);
    else
        put_response(a.bytes, CMD, sub, f[5], data.data(), data.size());
    return true;
}

} // namespace zs
