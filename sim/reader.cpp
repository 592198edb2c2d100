#include "reader.h"

#include <cstring>

#include "wire.h"

namespace zs {

namespace {

void put_u32(uint8_t *p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

const zsim_card *card_in_field(Reader &r)
{
    if (r.cards.empty())
        return nullptr;
    r.last_card = r.cards.front();
    r.have_last_card = true;
    return &r.cards.front();
}

void card_id(Reader &r, const uint8_t *f, Answer &a)
{
    const zsim_card *c = card_in_field(r);
    if (!c)
        return put_error(a.bytes, E_NO_CARD);
    uint8_t d[4] = {};
    if (f[4] == 1) { // ATQA and SAK
        d[0] = static_cast<uint8_t>(c->atqa);
        d[1] = static_cast<uint8_t>(c->atqa >> 8);
        return put_response(a.bytes, f[1], c->sak, 0, d, 4);
    }
    std::memcpy(d, c->uid, c->uid_len < 4 ? c->uid_len : 4);
    put_response(a.bytes, f[1], c->orb_type, 0, d, 4);
}

void card_id_ex(const zsim_card *c, uint8_t cmd, Answer &a)
{
    uint8_t d[10] = {};
    const uint8_t n = c->uid_len > 10 ? 10 : c->uid_len;
    std::memcpy(d, c->uid, n);
    put_response(a.bytes, cmd, c->sak, n, d, 10);
}

} // namespace

bool reader_wants_ext(const Reader &, const uint8_t frame[7])
{
    switch (frame[1]) {
    default:
        return false;
    }
}

void reader_command(Reader &r, const uint8_t f[7], const uint8_t *, size_t, Answer &a)
{
    const uint8_t cmd = f[1];
    switch (cmd) {
    case 0x10: { // reader type
        uint8_t d[4];
        put_u32(d, r.type);
        return put_response(a.bytes, cmd, 0, 0, d, 4);
    }
    case 0x13:
        return card_id(r, f, a);
    case 0x2C: {
        const zsim_card *c = card_in_field(r);
        if (!c)
            return put_error(a.bytes, E_NO_CARD);
        return card_id_ex(c, cmd, a);
    }
    case 0x3C: {
        const zsim_card *c = card_in_field(r);
        if (!c)
            return put_error(a.bytes, E_NO_CARD);
        return put_response(a.bytes, cmd, c->orb_type, 0);
    }
    case 0x7C:
        if (!r.have_last_card)
            return put_error(a.bytes, E_NO_CARD);
        return card_id_ex(&r.last_card, cmd, a);
    default:
        return put_error(a.bytes, E_NOT_SUPPORTED);
    }
}

} // namespace zs
