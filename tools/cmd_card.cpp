// tandro card: what is in the field. tandro cards: the reader's multi-card list, and the selection of one.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

const tandro::OptionTable CARD_TABLE = {
    {{"", "the card in the field: UID, type, size, maker, ATQA and SAK"}},
    {},
    "With no card in the field the command says so and succeeds.",
};

const tandro::OptionTable CARDS_TABLE = {
    {
        {"", "every card in the field: UID, ATQA, SAK, card type and memory size"},
        {"--select UID", "selects the card with this UID; multi-card mode stays on"},
        {"--off", "ends multi-card mode"},
    },
    {
        {"--select", "UID", "select the card with this UID (hex) for the commands that follow"},
        {"--off", nullptr, "turn multi-card mode off"},
    },
    "The list uses the reader's multi-card mode and leaves it off afterwards. A detail the reader cannot give "
    "for a card (a card without memory has no size) shows as unknown, null under --json, where the list is one "
    "array with an object a card.",
};

int run_card(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("card", CARD_TABLE, all, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("card", "takes no arguments");
    tandro::ReaderSession session;
    if (!session.open("card", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    uint8_t sak = 0, uid[ZEL_UID_MAX_LEN] = {}, len = 0;
    const ZEL_STATUS st = GetCardIdExM(h, &sak, uid, &len);
    if (st != ZEL_OK) {
        if (opt.json)
            std::printf("{\"card\": null, \"status\": %s}\n", tandro::json_string(ZEL_Status2String(st)).c_str());
        else
            std::printf("no card (%s)\n", ZEL_Status2String(st));
        return st == ZEL_NO_CARD ? 0 : 1;
    }
    uint8_t type = 0;
    const ZEL_STATUS type_st = GetOrbCardTypeM(h, &type);
    uint32_t lin = 0, raw = 0;
    const ZEL_STATUS size_st = GetCardSizeM(h, &lin, &raw);
    char maker[ZEL_MANUFACTURER_NAME_MAX] = {};
    getCardManufacturer(uid[0], maker);
    uint16_t atqa = 0;
    uint8_t sak2 = 0;
    const ZEL_STATUS atqa_st = GetAtqaSakM(h, &atqa, &sak2);
    uint8_t version[8] = {};
    const ZEL_STATUS ver_st = GetNfcT2TVersionM(h, version);
    const std::string uid_hex = tandro::to_hex(uid, len);
    const char *type_name = type_st == ZEL_OK ? ZEL_OrbCardType2String(type) : "unknown";
    if (opt.json) {
        std::printf("{\"uid\": \"%s\", \"sak\": %u, \"type\": %s, \"type_code\": %u", uid_hex.c_str(), sak,
                    tandro::json_string(type_name).c_str(), type);
        if (size_st == ZEL_OK)
            std::printf(", \"linear_size\": %u, \"raw_size\": %u", lin, raw);
        else
            std::printf(", \"linear_size\": null, \"raw_size\": null");
        std::printf(", \"manufacturer\": %s", tandro::json_string(maker).c_str());
        if (atqa_st == ZEL_OK)
            std::printf(", \"atqa\": \"%04X\"", atqa);
        if (ver_st == ZEL_OK)
            std::printf(", \"t2t_version\": \"%s\"", tandro::to_hex(version, 8).c_str());
        std::printf("}\n");
        return 0;
    }
    std::printf("%-14s%s\n", "uid", uid_hex.c_str());
    std::printf("%-14s%s (0x%02X)\n", "type", type_name, type);
    if (size_st == ZEL_OK)
        std::printf("%-14s%u bytes of user data, %u in all\n", "size", lin, raw);
    else
        std::printf("%-14s(%s)\n", "size", ZEL_Status2String(size_st));
    std::printf("%-14s%s (0x%02X)\n", "manufacturer", maker, uid[0]);
    if (atqa_st == ZEL_OK)
        std::printf("%-14sATQA %04X, SAK %02X\n", "atqa/sak", atqa, sak);
    if (ver_st == ZEL_OK)
        std::printf("%-14s%s\n", "version", tandro::to_hex(version, 8).c_str());
    return 0;
}

// One card of the list, its details read while it is selected.
struct Listed {
    std::string uid;
    ZEL_STATUS type_st = ZEL_OK, atqa_st = ZEL_OK, size_st = ZEL_OK;
    uint8_t type = 0, sak = 0;
    uint16_t atqa = 0;
    uint32_t linear = 0, raw = 0;
};

// Every card in the field with its details; the reader's multi-card mode is off again at the end.
ZEL_STATUS list_cards(ZEL_HANDLE h, std::vector<Listed> &out)
{
    ZEL_STATUS st = EnableAntiCollisionM(h);
    uint8_t count = 0, size = 0;
    if (st == ZEL_OK)
        st = EnumCardsM(h, &count, &size);
    uint8_t list[256] = {};
    if (st == ZEL_OK)
        st = ListCardsM(h, list, size);
    if (st == ZEL_NO_CARD)
        st = ZEL_OK, count = size = 0;
    // The reader's records: a length byte and the UID in ten bytes.
    for (size_t at = 0; st == ZEL_OK && at + 11 <= size; at += 11) {
        Listed c;
        const uint8_t len = list[at] > ZEL_UID_MAX_LEN ? ZEL_UID_MAX_LEN : list[at];
        const uint8_t *uid = &list[at + 1];
        c.uid = tandro::to_hex(uid, len);
        c.type_st = SelectCardM(h, uid, len, &c.type);
        if (c.type_st == ZEL_OK) {
            c.atqa_st = GetAtqaSakM(h, &c.atqa, &c.sak);
            c.size_st = GetCardSizeM(h, &c.linear, &c.raw);
            DeslectCardM(h);
        } else {
            c.atqa_st = c.size_st = c.type_st;
        }
        out.push_back(c);
    }
    DisableAntiCollisionM(h);
    return st;
}

void print_cards(const std::vector<Listed> &cards, bool json)
{
    if (json) {
        std::printf("[");
        for (size_t i = 0; i < cards.size(); ++i) {
            const Listed &c = cards[i];
            std::printf("%s{\"uid\": \"%s\"", i ? ", " : "", c.uid.c_str());
            if (c.atqa_st == ZEL_OK)
                std::printf(", \"atqa\": \"%04X\", \"sak\": \"%02X\"", c.atqa, c.sak);
            else
                std::printf(", \"atqa\": null, \"sak\": null");
            if (c.type_st == ZEL_OK)
                std::printf(", \"type\": %s, \"type_code\": %u",
                            tandro::json_string(ZEL_OrbCardType2String(c.type)).c_str(), c.type);
            else
                std::printf(", \"type\": null, \"type_code\": null");
            if (c.size_st == ZEL_OK)
                std::printf(", \"size\": %u, \"linear_size\": %u}", c.raw, c.linear);
            else
                std::printf(", \"size\": null, \"linear_size\": null}");
        }
        std::printf("]\n");
        return;
    }
    std::printf("%zu card%s in the field\n", cards.size(), cards.size() == 1 ? "" : "s");
    for (size_t i = 0; i < cards.size(); ++i) {
        const Listed &c = cards[i];
        char atqa[32] = "ATQA ????  SAK ??";
        if (c.atqa_st == ZEL_OK)
            std::snprintf(atqa, sizeof atqa, "ATQA %04X  SAK %02X", c.atqa, c.sak);
        std::string size = "size unknown";
        if (c.size_st == ZEL_OK)
            size = std::to_string(c.raw) + " bytes (" + std::to_string(c.linear) + " of user data)";
        std::printf("  %zu  %-20s  %s  %-28s  %s\n", i + 1, c.uid.c_str(), atqa,
                    c.type_st == ZEL_OK ? ZEL_OrbCardType2String(c.type) : "type unknown", size.c_str());
    }
}

int run_cards(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("cards", CARDS_TABLE, all, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("cards", "unknown argument \"" + parsed.words[0] + "\"");
    const std::string select = parsed.value("--select");
    const bool off = parsed.has("--off");
    if (off && parsed.has("--select"))
        return tandro::usage_error("cards", "--select and --off exclude each other");
    std::vector<uint8_t> uid;
    if (parsed.has("--select") && (!tandro::parse_hex(select, uid) || uid.empty() || uid.size() > ZEL_UID_MAX_LEN))
        return tandro::usage_error("cards", "--select takes a UID in hexadecimal");
    tandro::ReaderSession session;
    if (!session.open("cards", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    if (off) {
        const ZEL_STATUS st = DisableAntiCollisionM(h);
        if (st != ZEL_OK)
            return tandro::fail("cards", "multi-card mode", st);
        if (opt.json)
            std::printf("{\"multi_card\": false}\n");
        else
            std::printf("multi-card mode off\n");
        return 0;
    }
    if (!parsed.has("--select")) {
        std::vector<Listed> cards;
        const ZEL_STATUS st = list_cards(h, cards);
        if (st != ZEL_OK)
            return tandro::fail("cards", "", st);
        print_cards(cards, opt.json);
        return 0;
    }
    ZEL_STATUS st = EnableAntiCollisionM(h);
    uint8_t count = 0, size = 0, type = 0;
    if (st == ZEL_OK)
        st = EnumCardsM(h, &count, &size);
    if (st == ZEL_OK)
        st = SelectCardM(h, uid.data(), static_cast<uint8_t>(uid.size()), &type);
    if (st != ZEL_OK) {
        DisableAntiCollisionM(h);
        return tandro::fail("cards", "", st);
    }
    if (opt.json)
        std::printf("{\"selected\": \"%s\", \"type\": %s, \"type_code\": %u}\n",
                    tandro::to_hex(uid.data(), uid.size()).c_str(),
                    tandro::json_string(ZEL_OrbCardType2String(type)).c_str(), type);
    else
        std::printf("selected %s: %s (multi-card mode stays on; tandro cards --off ends it)\n",
                    tandro::to_hex(uid.data(), uid.size()).c_str(), ZEL_OrbCardType2String(type));
    return 0;
}

const tandro::Registration card_cmd({"card", "", "the card in the field: UID, type, size, maker, ATQA and SAK",
                                     run_card, false, &CARD_TABLE});
const tandro::Registration cards_cmd({"cards", "[--select UID | --off]",
                                      "every card in the field: UID, ATQA, SAK, type and size; or select one",
                                      run_cards, false, &CARDS_TABLE});

} // namespace
