// tandro t2t: a Type 2 tag's version, counters, originality signature and tag-tamper status, counter
// increments and password authentication.
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/card_pick.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/session.h"

namespace {

const char *USAGE = "[--uid HEX] [info | counter N | increment N BY | nfc-counter [PWD PACK] | auth PWD]";

int fail(ZEL_STATUS st)
{
    std::fprintf(stderr, "tandro t2t: %s\n", ZEL_Status2String(st));
    return 1;
}

int info(ZEL_HANDLE h, bool json)
{
    uint8_t version[8] = {};
    const ZEL_STATUS ver_st = GetNfcT2TVersionM(h, version);
    uint32_t counters[3] = {};
    ZEL_STATUS cnt_st[3];
    for (uint8_t i = 0; i < 3; ++i)
        cnt_st[i] = ReadCounterM(h, i, &counters[i]);
    uint8_t sig[ZEL_ECC_SIGNATURE_LEN] = {}, uid[ZEL_UID_MAX_LEN] = {}, uid_len = 0, type = 0;
    const ZEL_STATUS sig_st = ReadECCSignatureM(h, sig, uid, &uid_len, &type);
    uint8_t tt[4] = {}, tt_status = 0;
    const ZEL_STATUS tt_st = ReadTTStatusM(h, tt, &tt_status);
    if (json) {
        std::printf("{");
        std::printf("\"version\": %s", ver_st == ZEL_OK ? ("\"" + tandro::to_hex(version, 8) + "\"").c_str() : "null");
        std::printf(", \"counters\": [");
        for (int i = 0; i < 3; ++i)
            std::printf(i ? ", %s" : "%s", cnt_st[i] == ZEL_OK ? std::to_string(counters[i]).c_str() : "null");
        std::printf("]");
        if (sig_st == ZEL_OK)
            std::printf(", \"signature\": \"%s\", \"uid\": \"%s\"", tandro::to_hex(sig, sizeof sig).c_str(),
                        tandro::to_hex(uid, uid_len).c_str());
        else
            std::printf(", \"signature\": null");
        if (tt_st == ZEL_OK)
            std::printf(", \"tt_message\": \"%s\", \"tt_status\": %u", tandro::to_hex(tt, 4).c_str(), tt_status);
        std::printf("}\n");
        return 0;
    }
    std::printf("%-12s%s\n", "version", ver_st == ZEL_OK ? tandro::to_hex(version, 8).c_str() : ZEL_Status2String(ver_st));
    for (int i = 0; i < 3; ++i) {
        const std::string name = "counter " + std::to_string(i);
        if (cnt_st[i] == ZEL_OK)
            std::printf("%-12s%u\n", name.c_str(), counters[i]);
        else
            std::printf("%-12s%s\n", name.c_str(), ZEL_Status2String(cnt_st[i]));
    }
    std::printf("%-12s%s\n", "signature", sig_st == ZEL_OK ? tandro::to_hex(sig, sizeof sig).c_str() : ZEL_Status2String(sig_st));
    if (tt_st == ZEL_OK)
        std::printf("%-12s%s, status 0x%02X\n", "tag tamper", tandro::to_hex(tt, 4).c_str(), tt_status);
    return 0;
}

int run_t2t(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Args args;
    std::vector<uint8_t> want_uid;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i] == "--uid" && i + 1 < all.size()) {
            if (!tandro::parse_hex(all[++i], want_uid) || want_uid.empty())
                return tandro::usage_error("t2t", "--uid takes a UID in hexadecimal");
        } else {
            args.push_back(all[i]);
        }
    }
    const std::string what = args.empty() ? "info" : args[0];
    const size_t n = args.size();
    tandro::ReaderSession session;
    if (!session.open("t2t", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    // Type 2 tags and NFC Forum tags have the type codes 0x01 to 0x15.
    ZEL_STATUS st = pick.pick(want_uid, [](const uint8_t *, uint8_t, uint8_t type) { return type >= 1 && type <= 0x15; });
    if (st != ZEL_OK)
        return fail(st);
    uint32_t a = 0, b = 0;
    std::vector<uint8_t> p1, p2;
    if (what == "info" && n <= 1)
        return info(h, opt.json);
    if (what == "counter" && n == 2 && tandro::parse_u32(args[1], &a) && a < 256) {
        uint32_t v = 0;
        if ((st = ReadCounterM(h, static_cast<uint8_t>(a), &v)) != ZEL_OK)
            return fail(st);
        std::printf("%u\n", v);
        return 0;
    }
    if (what == "increment" && n == 3 && tandro::parse_u32(args[1], &a) && a < 256 && tandro::parse_u32(args[2], &b)) {
        if ((st = IncrementCounterM(h, static_cast<uint8_t>(a), b)) != ZEL_OK)
            return fail(st);
        std::printf("counter %u: +%u\n", a, b);
        return 0;
    }
    if (what == "nfc-counter" && (n == 1 || (n == 3 && tandro::parse_hex(args[1], p1) && p1.size() == 4 &&
                                             tandro::parse_hex(args[2], p2) && p2.size() == 2))) {
        uint32_t v = 0;
        if (n == 3)
            p1.insert(p1.end(), p2.begin(), p2.end());
        if ((st = n == 3 ? ReadNFCCounterPwdAuth_PKM(h, &v, p1.data()) : ReadNFCCounterM(h, &v)) != ZEL_OK)
            return fail(st);
        std::printf("%u\n", v);
        return 0;
    }
    if (what == "auth" && n == 2 && tandro::parse_hex(args[1], p1) && p1.size() == 4) {
        uint8_t pack[2] = {};
        if ((st = T2T_PwdAuth_PKM(h, p1.data(), pack)) != ZEL_OK)
            return fail(st);
        std::printf("PACK %s\n", tandro::to_hex(pack, 2).c_str());
        return 0;
    }
    return tandro::usage_error("t2t", std::string("usage: tandro t2t ") + USAGE);
}

const tandro::Registration t2t_cmd({"t2t", USAGE,
                                    "a Type 2 tag: version, counters, signature, tamper status, password auth",
                                    run_t2t});

} // namespace
