// tandro iso15693: an ISO 15693 tag's system information and block security status, and its lock, page
// protection and password functions (ICODE and EM4237).
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/card_pick.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/session.h"

namespace {

const char *USAGE = "[--uid HEX] [info | status FIRST COUNT | lock BLOCK [READ_PWD WRITE_PWD] | "
                    "protect PAGE READ_PWD WRITE_PWD LR LW HR HW | password ID CURRENT NEW | "
                    "em-protect PAGE PWD STATUS | em-rid PWD]";

bool number(const std::string &s, uint8_t &out)
{
    uint32_t v = 0;
    if (!tandro::parse_u32(s, &v) || v > 255)
        return false;
    out = static_cast<uint8_t>(v);
    return true;
}

bool password(const std::string &s, std::vector<uint8_t> &out) { return tandro::parse_hex(s, out) && out.size() == 4; }

int fail(ZEL_STATUS st)
{
    std::fprintf(stderr, "tandro iso15693: %s\n", ZEL_Status2String(st));
    return 1;
}

int info(ZEL_HANDLE h, bool json)
{
    uint8_t flags = 0, uid[8] = {}, dsfid = 0, afi = 0, ic = 0;
    uint16_t size = 0;
    ZEL_STATUS st = iso15693_get_system_information_no_authM(h, &flags, uid, &dsfid, &afi, &size, &ic);
    if (st != ZEL_OK)
        return fail(st);
    // One status byte a block, for the blocks the size tells (the tag's count form: blocks less one).
    std::vector<uint8_t> sec(256, 0);
    const unsigned blocks = (flags & 0x04) && size >= 4 ? size / 4u : 0;
    const ZEL_STATUS sec_st =
        blocks ? iso15693_get_multiply_block_security_statusM(h, 0, static_cast<uint8_t>(blocks - 1), sec.data())
               : ZEL_PARAMETERS_ERROR;
    std::string locked;
    if (sec_st == ZEL_OK)
        for (unsigned b = 0; b < blocks; ++b)
            if (sec[b] & 0x01)
                locked += (locked.empty() ? "" : ",") + std::to_string(b);
    if (json) {
        std::printf("{\"info_flags\": %u, \"uid\": \"%s\"", flags, tandro::to_hex(uid, 8).c_str());
        if (flags & 0x01)
            std::printf(", \"dsfid\": %u", dsfid);
        if (flags & 0x02)
            std::printf(", \"afi\": %u", afi);
        if (flags & 0x04)
            std::printf(", \"memory_size\": %u", size);
        if (flags & 0x08)
            std::printf(", \"ic_reference\": %u", ic);
        if (sec_st == ZEL_OK)
            std::printf(", \"locked_blocks\": [%s]", locked.c_str());
        std::printf("}\n");
        return 0;
    }
    std::printf("%-14s%s\n%-14s0x%02X\n", "uid", tandro::to_hex(uid, 8).c_str(), "info flags", flags);
    if (flags & 0x01)
        std::printf("%-14s0x%02X\n", "DSFID", dsfid);
    if (flags & 0x02)
        std::printf("%-14s0x%02X\n", "AFI", afi);
    if (flags & 0x04)
        std::printf("%-14s%u bytes\n", "memory", size);
    if (flags & 0x08)
        std::printf("%-14s0x%02X\n", "IC reference", ic);
    if (sec_st == ZEL_OK)
        std::printf("%-14s%s\n", "locked blocks", locked.empty() ? "none" : locked.c_str());
    return 0;
}

int run_iso15693(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Args args;
    std::vector<uint8_t> want_uid;
    for (size_t i = 0; i < all.size(); ++i) {
        if (all[i] == "--uid" && i + 1 < all.size()) {
            if (!tandro::parse_hex(all[++i], want_uid) || want_uid.empty())
                return tandro::usage_error("iso15693", "--uid takes a UID in hexadecimal");
        } else {
            args.push_back(all[i]);
        }
    }
    const std::string what = args.empty() ? "info" : args[0];
    const size_t n = args.size();
    tandro::ReaderSession session;
    if (!session.open("iso15693", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    // A vicinity tag: an 8-byte UID whose first byte is E0.
    ZEL_STATUS st = pick.pick(want_uid, [](const uint8_t *u, uint8_t len, uint8_t) { return len == 8 && u[0] == 0xE0; });
    if (st != ZEL_OK)
        return fail(st);
    uint8_t a = 0, b = 0, c = 0;
    std::vector<uint8_t> p1, p2;
    if (what == "info" && n <= 1)
        return info(h, opt.json);
    if (what == "status" && n == 3 && number(args[1], a) && number(args[2], b)) {
        std::vector<uint8_t> out(256, 0);
        if ((st = iso15693_get_multiply_block_security_statusM(h, a, b, out.data())) != ZEL_OK)
            return fail(st);
        for (unsigned i = 0; i <= b; ++i)
            std::printf("block %u: 0x%02X%s\n", a + i, out[i], out[i] & 1 ? " locked" : "");
        return 0;
    }
    if (what == "lock" && n == 2 && number(args[1], a))
        st = iso15693_lock_block_no_authM(h, a);
    else if (what == "lock" && n == 4 && number(args[1], a) && password(args[2], p1) && password(args[3], p2))
        st = icode_lock_block_PK_M(h, p1.data(), p2.data(), a);
    else if (what == "protect" && n == 8 && number(args[1], a) && password(args[2], p1) && password(args[3], p2))
        st = icode_protect_page_PK_M(h, p1.data(), p2.data(), a, args[4] != "0", args[5] != "0", args[6] != "0",
                                     args[7] != "0");
    else if (what == "password" && n == 4 && number(args[1], a) && password(args[2], p1) && password(args[3], p2))
        st = icode_write_password_PK_M(h, a, p1.data(), p2.data());
    else if (what == "em-protect" && n == 4 && number(args[1], a) && password(args[2], p1) && number(args[3], c))
        st = em4237_protect_page_PK_M(h, p1.data(), a, c);
    else if (what == "em-rid" && n == 2 && password(args[1], p1))
        st = em4237_enable_RID_PK_M(h, p1.data());
    else
        return tandro::usage_error("iso15693", std::string("usage: tandro iso15693 ") + USAGE);
    if (st != ZEL_OK)
        return fail(st);
    std::printf("%s: done on %s\n", what.c_str(), tandro::to_hex(pick.uid().data(), pick.uid().size()).c_str());
    return 0;
}

const tandro::Registration iso15693_cmd({"iso15693", USAGE,
                                         "an ISO 15693 tag: system information, locks, page protection, passwords",
                                         run_iso15693});

} // namespace
