// Picking the card a command works on when several are in the field: --uid HEX, or the first card that a
// test accepts. The reader stays in multi-card mode with that card selected until release().
#ifndef TANDRO_TOOLS_CARD_PICK_H
#define TANDRO_TOOLS_CARD_PICK_H

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"

namespace tandro {

class CardPick {
public:
    explicit CardPick(ZEL_HANDLE h) : h_(h) {}
    ~CardPick() { release(); }
    CardPick(const CardPick &) = delete;
    CardPick &operator=(const CardPick &) = delete;

    // Selects the card with uid (when not empty), else the first whose UID and type accept() takes; with a
    // single card in the field and no UID the reader is left as it is. ZEL_NO_CARD when none fits.
    template <typename Accept> ZEL_STATUS pick(const std::vector<uint8_t> &uid, Accept accept)
    {
        uint8_t count = 0, size = 0, type = 0;
        ZEL_STATUS st = EnableAntiCollisionM(h_);
        if (st != ZEL_OK)
            return st;
        on_ = true;
        if ((st = EnumCardsM(h_, &count, &size)) != ZEL_OK)
            return st;
        std::vector<uint8_t> list(size ? size : 1);
        if ((st = ListCardsM(h_, list.data(), size)) != ZEL_OK)
            return st;
        for (size_t at = 0; at + 11 <= size; at += 11) {
            const uint8_t len = list[at] > 10 ? 10 : list[at];
            const uint8_t *u = &list[at + 1];
            if (!uid.empty() && (uid.size() != len || std::memcmp(uid.data(), u, len) != 0))
                continue;
            if (SelectCardM(h_, u, len, &type) != ZEL_OK)
                continue;
            if (!uid.empty() || accept(u, len, type)) {
                uid_.assign(u, u + len);
                return ZEL_OK;
            }
            DeslectCardM(h_);
        }
        return ZEL_NO_CARD;
    }
    const std::vector<uint8_t> &uid() const { return uid_; }
    void release()
    {
        if (on_)
            DisableAntiCollisionM(h_);
        on_ = false;
    }

private:
    ZEL_HANDLE h_;
    bool on_ = false;
    std::vector<uint8_t> uid_;
};

} // namespace tandro

#endif
