// tandro iso15693: an ISO 15693 tag's system information and block security status, and its lock, page
// protection and password functions (ICODE and EM4237). A password argument is 8 hex digits, or kN for the
// password held in the reader's key N (its first four bytes).
#include <cstdio>
#include <string>
#include <utility>
#include <vector>

#include "tandro.h"
#include "tools/card_pick.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

const char *USAGE =
    "[--uid HEX] [info [PWD] | status FIRST [COUNT] | em-status FIRST [COUNT] | lock BLOCK [RPWD WPWD] | "
    "protect PAGE RPWD WPWD LR LW HR HW | password ID CURRENT NEW | em-protect PAGE PWD STATUS | "
    "em-rid PWD] (PWD: 8 hex digits, or kN for reader key N; ID: read, write, privacy, ...)";

const tandro::OptionTable TABLE = {
    {
        {"[info [PWD]]", "system information and the locked blocks; with PWD, the protected form"},
        {"status FIRST [COUNT]", "the security status of COUNT blocks (default 1) from block FIRST"},
        {"em-status FIRST [COUNT]", "the same on an EM4237, with its read and write protection bits"},
        {"lock BLOCK [RPWD WPWD]", "locks a block for good, after the read and write passwords when given"},
        {"protect PAGE RPWD WPWD LR LW HR HW",
         "protects a page's halves: LR LW HR HW are low and high read and write, 0 or 1"},
        {"password ID CURRENT NEW", "changes password ID from CURRENT to NEW"},
        {"em-protect PAGE PWD STATUS", "sets the protection status byte of an EM4237 page"},
        {"em-rid PWD", "turns on the random ID of an EM4237"},
    },
    {
        {"--uid", "HEX", "the tag with this UID, when several are in the field"},
    },
    "PWD, RPWD, WPWD, CURRENT and NEW are 4-byte passwords in hexadecimal (8 digits), or kN for the password held "
    "in the reader's key N (its first four bytes); the passwords of one command are either all given or all "
    "reader keys.\n\n"
    "info shows the UID, DSFID, AFI, memory size and IC reference the tag reports, and which blocks are locked.\n\n"
    "ID names a password: read, write, privacy, destroy or eas-afi, or its number. BLOCK, PAGE and STATUS are "
    "numbers from 0 to 255; a status range ends at block 255.",
};

bool number(const std::string &s, uint8_t &out)
{
    uint32_t v = 0;
    if (!tandro::parse_u32(s, &v) || v > 255)
        return false;
    out = static_cast<uint8_t>(v);
    return true;
}

// A password argument: four bytes given, or a reader key index.
struct Pwd {
    bool by_index = false;
    uint8_t index = 0;
    std::vector<uint8_t> bytes;
};

bool password(const std::string &s, Pwd &out)
{
    if (s.size() > 1 && (s[0] == 'k' || s[0] == 'K')) {
        uint32_t v = 0;
        if (!tandro::parse_u32(s.substr(1), &v) || v > 255)
            return false;
        out.by_index = true;
        out.index = static_cast<uint8_t>(v);
        return true;
    }
    return tandro::parse_hex(s, out.bytes) && out.bytes.size() == 4;
}

// Several password arguments of one command: all by index or all given.
bool passwords(const tandro::Args &args, size_t from, size_t count, std::vector<Pwd> &out)
{
    out.assign(count, Pwd{});
    for (size_t i = 0; i < count; ++i)
        if (!password(args[from + i], out[i]) || out[i].by_index != out[0].by_index)
            return false;
    return true;
}

bool password_id(const std::string &s, uint8_t &out)
{
    static const struct {
        const char *name;
        uint8_t id;
    } names[] = {{"read", ZEL_ICODE_PWD_READ},
                 {"write", ZEL_ICODE_PWD_WRITE},
                 {"privacy", ZEL_ICODE_PWD_PRIVACY},
                 {"destroy", ZEL_ICODE_PWD_DESTROY},
                 {"eas-afi", ZEL_ICODE_PWD_EAS_AFI}};
    for (const auto &n : names)
        if (s == n.name) {
            out = n.id;
            return true;
        }
    return number(s, out);
}

int fail(ZEL_STATUS st)
{
    return tandro::fail("iso15693", "", st);
}

// Security status of count blocks from first, in requests of at most 64 blocks (the tag's count form is
// blocks less one). Bytes that a tag leaves out stay 0.
ZEL_STATUS security_status(ZEL_HANDLE h, bool em, unsigned first, unsigned count, std::vector<uint8_t> &out)
{
    out.assign(count, 0);
    for (unsigned done = 0; done < count;) {
        const unsigned part = count - done < 64 ? count - done : 64;
        uint8_t buf[256] = {};
        const uint8_t at = static_cast<uint8_t>(first + done), n = static_cast<uint8_t>(part - 1);
        const ZEL_STATUS st = em ? em4237_get_multiply_block_security_statusM(h, at, n, buf)
                                 : iso15693_get_multiply_block_security_statusM(h, at, n, buf);
        if (st != ZEL_OK)
            return st;
        for (unsigned i = 0; i < part; ++i)
            out[done + i] = buf[i];
        done += part;
    }
    return ZEL_OK;
}

// Block numbers as ranges: "3, 5-7".
std::string ranges(const std::vector<unsigned> &blocks)
{
    std::string text;
    for (size_t i = 0; i < blocks.size();) {
        size_t j = i;
        while (j + 1 < blocks.size() && blocks[j + 1] == blocks[j] + 1)
            ++j;
        text += (text.empty() ? "" : ", ") + std::to_string(blocks[i]);
        if (j > i)
            text += "-" + std::to_string(blocks[j]);
        i = j + 1;
    }
    return text;
}

int info(ZEL_HANDLE h, bool json, const Pwd *pwd)
{
    uint8_t flags = 0, uid[8] = {}, dsfid = 0, afi = 0, ic = 0;
    uint16_t size = 0;
    ZEL_STATUS st;
    if (!pwd)
        st = iso15693_get_system_information_no_authM(h, &flags, uid, &dsfid, &afi, &size, &ic);
    else if (pwd->by_index)
        st = iso15693_get_system_informationM(h, pwd->index, &flags, uid, &dsfid, &afi, &size, &ic);
    else
        st = iso15693_get_system_information_PK_M(h, pwd->bytes.data(), &flags, uid, &dsfid, &afi, &size, &ic);
    if (st != ZEL_OK)
        return fail(st);
    // The lock bits of the blocks that the memory size tells, taking the blocks as 4 bytes each.
    const unsigned blocks = (flags & 0x04) && size >= 4 ? (size / 4u > 256 ? 256 : size / 4u) : 0;
    std::vector<uint8_t> sec;
    const ZEL_STATUS sec_st = blocks ? security_status(h, false, 0, blocks, sec) : ZEL_PARAMETERS_ERROR;
    std::vector<unsigned> locked;
    for (unsigned b = 0; sec_st == ZEL_OK && b < blocks; ++b)
        if (sec[b] & 0x01)
            locked.push_back(b);
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
        if (sec_st == ZEL_OK) {
            std::printf(", \"locked_blocks\": [");
            for (size_t i = 0; i < locked.size(); ++i)
                std::printf(i ? ", %u" : "%u", locked[i]);
            std::printf("]");
        }
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
        std::printf("%-14s%s\n", "locked blocks", locked.empty() ? "none" : ranges(locked).c_str());
    else if (blocks)
        std::printf("%-14s%s\n", "locked blocks", ZEL_Status2String(sec_st));
    return 0;
}

int status(ZEL_HANDLE h, bool json, bool em, unsigned first, unsigned count)
{
    std::vector<uint8_t> sec;
    const ZEL_STATUS st = security_status(h, em, first, count, sec);
    if (st != ZEL_OK)
        return fail(st);
    if (json)
        std::printf("{\"first\": %u, \"blocks\": [", first);
    for (unsigned i = 0; i < count; ++i) {
        const uint8_t s = sec[i];
        const bool locked = s & 0x01, read_prot = em && (s & 0x02), write_prot = em && (s & 0x04);
        if (json) {
            std::printf("%s{\"block\": %u, \"status\": %u, \"locked\": %s", i ? ", " : "", first + i, s,
                        locked ? "true" : "false");
            if (em)
                std::printf(", \"read_protected\": %s, \"write_protected\": %s", read_prot ? "true" : "false",
                            write_prot ? "true" : "false");
            std::printf("}");
            continue;
        }
        std::string what;
        if (locked)
            what += " locked";
        if (read_prot)
            what += " read-protected";
        if (write_prot)
            what += " write-protected";
        std::printf("block %3u  0x%02X%s\n", first + i, s, what.c_str());
    }
    if (json)
        std::printf("]}\n");
    return 0;
}

int run_iso15693(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("iso15693", TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    std::vector<uint8_t> want_uid;
    for (const std::string &uid : parsed.values("--uid")) // the last one given counts; each must be one
        if (!tandro::parse_hex(uid, want_uid) || want_uid.empty())
            return tandro::usage_error("iso15693", "--uid takes a UID in hexadecimal");
    const std::string what = args.empty() ? "info" : args[0];
    const size_t n = args.size();
    // The arguments are checked before the reader is reached.
    uint8_t a = 0, c = 0;
    uint32_t first = 0, count = 1;
    std::vector<Pwd> pw;
    const bool ok =
        (what == "info" && (n <= 1 || (n == 2 && passwords(args, 1, 1, pw)))) ||
        ((what == "status" || what == "em-status") && (n == 2 || n == 3) && tandro::parse_u32(args[1], &first) &&
         first < 256 && (n == 2 || tandro::parse_u32(args[2], &count)) && count >= 1 && first + count <= 256) ||
        (what == "lock" && (n == 2 || (n == 4 && passwords(args, 2, 2, pw))) && number(args[1], a)) ||
        (what == "protect" && n == 8 && number(args[1], a) && passwords(args, 2, 2, pw)) ||
        (what == "password" && n == 4 && password_id(args[1], a) && passwords(args, 2, 2, pw)) ||
        (what == "em-protect" && n == 4 && number(args[1], a) && passwords(args, 2, 1, pw) && number(args[3], c)) ||
        (what == "em-rid" && n == 2 && passwords(args, 1, 1, pw));
    if (!ok)
        return tandro::usage_error("iso15693", std::string("usage: tandro iso15693 ") + USAGE);
    tandro::ReaderSession session;
    if (!session.open("iso15693", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    // A vicinity tag: an 8-byte UID whose first byte is E0.
    ZEL_STATUS st =
        pick.pick(want_uid, [](const uint8_t *u, uint8_t len, uint8_t) { return len == 8 && u[0] == 0xE0; });
    if (st != ZEL_OK)
        return fail(st);
    if (what == "info")
        return info(h, opt.json, pw.empty() ? nullptr : &pw[0]);
    if (what == "status" || what == "em-status")
        return status(h, opt.json, what == "em-status", first, count);
    const bool idx = !pw.empty() && pw[0].by_index;
    auto bytes = [&](size_t i) { return pw[i].bytes.data(); };
    std::string done;
    char text[96];
    if (what == "lock") {
        if (pw.empty())
            st = iso15693_lock_block_no_authM(h, a);
        else
            st = idx ? icode_lock_blockM(h, pw[0].index, pw[1].index, a)
                     : icode_lock_block_PK_M(h, bytes(0), bytes(1), a);
        std::snprintf(text, sizeof text, "block %u locked", a);
    } else if (what == "protect") {
        const bool lr = args[4] != "0", lw = args[5] != "0", hr = args[6] != "0", hw = args[7] != "0";
        st = idx ? icode_protect_pageM(h, pw[0].index, pw[1].index, a, lr, lw, hr, hw)
                 : icode_protect_page_PK_M(h, bytes(0), bytes(1), a, lr, lw, hr, hw);
        std::string which;
        for (const auto &[on, name] :
             {std::pair{lr, "low read"}, {lw, "low write"}, {hr, "high read"}, {hw, "high write"}})
            if (on)
                which += (which.empty() ? "" : ", ") + std::string(name);
        std::snprintf(text, sizeof text, "page %u protection: %s", a, which.empty() ? "none" : which.c_str());
    } else if (what == "password") {
        st = idx ? icode_write_passwordM(h, a, pw[0].index, pw[1].index)
                 : icode_write_password_PK_M(h, a, bytes(0), bytes(1));
        std::snprintf(text, sizeof text, "password 0x%02X changed", a);
    } else if (what == "em-protect") {
        st = idx ? em4237_protect_pageM(h, pw[0].index, a, c) : em4237_protect_page_PK_M(h, bytes(0), a, c);
        std::snprintf(text, sizeof text, "page %u protection status 0x%02X", a, c);
    } else {
        st = idx ? em4237_enable_RID_M(h, pw[0].index) : em4237_enable_RID_PK_M(h, bytes(0));
        std::snprintf(text, sizeof text, "random id enabled");
    }
    if (st != ZEL_OK)
        return fail(st);
    const std::string uid = tandro::to_hex(pick.uid().data(), pick.uid().size());
    if (opt.json)
        std::printf("{\"uid\": \"%s\", \"operation\": \"%s\", \"result\": %s}\n", uid.c_str(), what.c_str(),
                    tandro::json_string(text).c_str());
    else
        std::printf("%s: %s\n", uid.c_str(), text);
    return 0;
}

const tandro::Registration iso15693_cmd({"iso15693", USAGE,
                                         "an ISO 15693 tag: system information, locks, page protection, passwords",
                                         run_iso15693, false, &TABLE});

} // namespace
