// tandro card: what is in the field. tandro cards: the reader's multi-card list, and the selection of one.
#include <cstdio>
#include <cstring>
#include <string>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/session.h"

namespace {

int run_card(const tandro::Options &opt, const tandro::Args &args)
{
    if (!args.empty())
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

int run_cards(const tandro::Options &opt, const tandro::Args &args)
{
    std::string select;
    bool off = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--select" && i + 1 < args.size())
            select = args[++i];
        else if (args[i] == "--off")
            off = true;
        else
            return tandro::usage_error("cards", "unknown argument \"" + args[i] + "\"");
    }
    tandro::ReaderSession session;
    if (!session.open("cards", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    if (off) {
        const ZEL_STATUS st = DisableAntiCollisionM(h);
        std::printf("%s\n", st == ZEL_OK ? "multi-card mode off" : ZEL_Status2String(st));
        return st == ZEL_OK ? 0 : 1;
    }
    if (select.empty()) {
        // List, and leave the reader in single-card mode as it was.
        const int rc = tandro::print_card_list(h, opt.json);
        DisableAntiCollisionM(h);
        return rc;
    }
    std::vector<uint8_t> uid;
    if (!tandro::parse_hex(select, uid) || uid.empty() || uid.size() > ZEL_UID_MAX_LEN)
        return tandro::usage_error("cards", "--select takes a UID in hexadecimal");
    ZEL_STATUS st = EnableAntiCollisionM(h);
    uint8_t count = 0, size = 0, type = 0;
    if (st == ZEL_OK)
        st = EnumCardsM(h, &count, &size);
    if (st == ZEL_OK)
        st = SelectCardM(h, uid.data(), static_cast<uint8_t>(uid.size()), &type);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro cards: %s\n", ZEL_Status2String(st));
        DisableAntiCollisionM(h);
        return 1;
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
                                     run_card});
const tandro::Registration cards_cmd({"cards", "[--select UID | --off]",
                                      "every card in the field (multi-card mode), or select one", run_cards});

} // namespace
