// tandro t2t: a Type 2 tag's version, counters, originality signature and tag-tamper status, counter
// increments and password authentication.
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/card_pick.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/cmd_block_common.h"
#include "tools/session.h"

namespace {

const char *USAGE = "[--uid HEX] [info | counter N | increment N BY | nfc-counter [PWD PACK] | auth PWD | "
                    "auth-key INDEX | ulc-auth KEY | ulc-key NEW (OLD | factory | no-auth)]";

const tandro::OptionTable TABLE = {
    {
        {"[info]", "the tag's version and product, its three counters, originality signature and tag tamper status"},
        {"counter N", "reads counter N (0 to 2)"},
        {"increment N BY", "adds BY to counter N and reads it back"},
        {"nfc-counter [PWD PACK]", "the NFC counter of an NTAG, with its password (4 bytes) and PACK (2 bytes)"},
        {"auth PWD", "password authentication with a 4-byte password; prints the tag's PACK"},
        {"auth-key INDEX", "password authentication with the reader's stored key INDEX"},
        {"ulc-auth KEY", "Ultralight C authentication with a 16-byte 3DES key"},
        {"ulc-key NEW OLD", "writes a new Ultralight C key, authenticating with the old one"},
        {"ulc-key NEW factory|no-auth",
         "the same after authenticating with the factory key, or without authentication"},
    },
    {
        {"--uid", "HEX", "the card with this UID, when several are in the field"},
    },
    "Key writes check first that the card is an Ultralight C: on any other card they write nothing.",
};

int fail(ZEL_STATUS st)
{
    return tandro::fail("t2t", "", st);
}

// The product a GET_VERSION answer names: the product type (byte 2) and the storage size byte (byte 6).
std::string product(const uint8_t v[8])
{
    static const struct {
        uint8_t type, storage;
        const char *name;
    } known[] = {
        {0x03, 0x0B, "Ultralight EV1, 48 bytes"},
        {0x03, 0x0E, "Ultralight EV1, 128 bytes"},
        {0x04, 0x0B, "NTAG 210"},
        {0x04, 0x0E, "NTAG 212"},
        {0x04, 0x0F, "NTAG 213"},
        {0x04, 0x11, "NTAG 215"},
        {0x04, 0x13, "NTAG 216"},
    };
    for (const auto &k : known)
        if (v[2] == k.type && v[6] == k.storage)
            return k.name;
    // The storage byte: 2^n bytes of user memory, or between 2^n and 2^(n+1) when its low bit is set.
    const unsigned n = v[6] >> 1;
    char text[80];
    if (n < 16)
        std::snprintf(text, sizeof text, "product type 0x%02X, %s%u bytes", v[2], v[6] & 1 ? "over " : "", 1u << n);
    else
        std::snprintf(text, sizeof text, "product type 0x%02X", v[2]);
    return text;
}

// The tag-tamper status byte as the tag reports it.
const char *tamper_state(uint8_t status)
{
    switch (status) {
    case 'C': return "closed";
    case 'O': return "open";
    case 'I': return "invalid";
    default: return "unknown";
    }
}

struct Info {
    uint8_t version[8] = {};
    ZEL_STATUS ver_st = ZEL_OK;
    uint32_t counters[3] = {};
    ZEL_STATUS cnt_st[3] = {};
    uint8_t sig[ZEL_ECC_SIGNATURE_LEN] = {}, uid[ZEL_UID_MAX_LEN] = {}, uid_len = 0, type = 0;
    ZEL_STATUS sig_st = ZEL_OK;
    uint8_t tt[4] = {}, tt_status = 0;
    ZEL_STATUS tt_st = ZEL_OK;

    void read(ZEL_HANDLE h)
    {
        ver_st = GetNfcT2TVersionM(h, version);
        for (uint8_t i = 0; i < 3; ++i)
            cnt_st[i] = ReadCounterM(h, i, &counters[i]);
        sig_st = ReadECCSignatureM(h, sig, uid, &uid_len, &type);
        if (uid_len > ZEL_UID_MAX_LEN)
            uid_len = ZEL_UID_MAX_LEN;
        tt_st = ReadTTStatusM(h, tt, &tt_status);
    }
};

void print_json(const Info &i, const std::vector<uint8_t> &picked)
{
    std::printf("{\"uid\": \"%s\"", tandro::to_hex(picked.data(), picked.size()).c_str());
    if (i.sig_st == ZEL_OK)
        std::printf(", \"card_type\": %s", tandro::json_string(ZEL_OrbCardType2String(i.type)).c_str());
    if (i.ver_st == ZEL_OK)
        std::printf(", \"version\": \"%s\", \"product\": %s", tandro::to_hex(i.version, 8).c_str(),
                    tandro::json_string(product(i.version)).c_str());
    else
        std::printf(", \"version\": null");
    std::printf(", \"counters\": [");
    for (int c = 0; c < 3; ++c)
        std::printf(c ? ", %s" : "%s", i.cnt_st[c] == ZEL_OK ? std::to_string(i.counters[c]).c_str() : "null");
    std::printf("]");
    if (i.sig_st == ZEL_OK)
        std::printf(", \"signature\": \"%s\", \"signed_uid\": \"%s\"", tandro::to_hex(i.sig, sizeof i.sig).c_str(),
                    tandro::to_hex(i.uid, i.uid_len).c_str());
    else
        std::printf(", \"signature\": null");
    if (i.tt_st == ZEL_OK)
        std::printf(", \"tamper\": {\"message\": \"%s\", \"status\": %u, \"state\": \"%s\"}",
                    tandro::to_hex(i.tt, 4).c_str(), i.tt_status, tamper_state(i.tt_status));
    std::printf("}\n");
}

void print_text(const Info &i, const std::vector<uint8_t> &picked)
{
    auto line = [](const char *name, const std::string &value) { std::printf("%-12s%s\n", name, value.c_str()); };
    line("uid", tandro::to_hex(picked.data(), picked.size()));
    if (i.sig_st == ZEL_OK)
        line("card type", ZEL_OrbCardType2String(i.type));
    line("version", i.ver_st == ZEL_OK ? tandro::to_hex(i.version, 8) + " (" + product(i.version) + ")"
                                       : ZEL_Status2String(i.ver_st));
    for (int c = 0; c < 3; ++c) {
        const std::string name = "counter " + std::to_string(c);
        line(name.c_str(), i.cnt_st[c] == ZEL_OK ? std::to_string(i.counters[c]) : ZEL_Status2String(i.cnt_st[c]));
    }
    if (i.sig_st == ZEL_OK) {
        // The signature in its two halves, r and s, of 16 bytes each.
        line("signature", tandro::to_hex(i.sig, 16));
        line("", tandro::to_hex(i.sig + 16, 16));
    } else {
        line("signature", ZEL_Status2String(i.sig_st));
    }
    if (i.tt_st == ZEL_OK) {
        char status[64];
        std::snprintf(status, sizeof status, "%s, status 0x%02X (%s)", tandro::to_hex(i.tt, 4).c_str(), i.tt_status,
                      tamper_state(i.tt_status));
        line("tag tamper", status);
    }
}

int run_t2t(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("t2t", TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    std::vector<uint8_t> want_uid;
    if (parsed.has("--uid") && (!tandro::parse_hex(parsed.value("--uid"), want_uid) || want_uid.empty()))
        return tandro::usage_error("t2t", "--uid takes a UID in hexadecimal");
    const std::string what = args.empty() ? "info" : args[0];
    const size_t n = args.size();
    // The arguments are checked before the reader is reached.
    uint32_t a = 0, b = 0;
    std::vector<uint8_t> p1, p2;
    const bool ok =
        (what == "info" && n <= 1) || (what == "counter" && n == 2 && tandro::parse_u32(args[1], &a) && a < 256) ||
        (what == "increment" && n == 3 && tandro::parse_u32(args[1], &a) && a < 256 &&
         tandro::parse_u32(args[2], &b)) ||
        (what == "nfc-counter" && (n == 1 || (n == 3 && tandro::parse_hex(args[1], p1) && p1.size() == 4 &&
                                              tandro::parse_hex(args[2], p2) && p2.size() == 2))) ||
        (what == "auth" && n == 2 && tandro::parse_hex(args[1], p1) && p1.size() == 4) ||
        (what == "auth-key" && n == 2 && tandro::parse_u32(args[1], &a) && a < 256) ||
        (what == "ulc-auth" && n == 2 && tandro::parse_hex(args[1], p1) && p1.size() == 16) ||
        (what == "ulc-key" && n == 3 && tandro::parse_hex(args[1], p1) && p1.size() == 16 &&
         (args[2] == "factory" || args[2] == "no-auth" || (tandro::parse_hex(args[2], p2) && p2.size() == 16)));
    if (!ok)
        return tandro::usage_error("t2t", std::string("usage: tandro t2t ") + USAGE);
    tandro::ReaderSession session;
    if (!session.open("t2t", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    // Type 2 tags and NFC Forum tags have the type codes 0x01 to 0x15.
    ZEL_STATUS st =
        pick.pick(want_uid, [](const uint8_t *, uint8_t, uint8_t type) { return type >= 1 && type <= 0x15; });
    if (st != ZEL_OK)
        return fail(st);
    if (what == "info") {
        Info i;
        i.read(h);
        if (opt.json)
            print_json(i, pick.uid());
        else
            print_text(i, pick.uid());
        return 0;
    }
    if (what == "counter" || what == "nfc-counter") {
        uint32_t v = 0;
        if (what == "counter")
            st = ReadCounterM(h, static_cast<uint8_t>(a), &v);
        else if (n == 3) {
            p1.insert(p1.end(), p2.begin(), p2.end());
            st = ReadNFCCounterPwdAuth_PKM(h, &v, p1.data());
        } else {
            st = ReadNFCCounterM(h, &v);
        }
        if (st != ZEL_OK)
            return fail(st);
        const unsigned counter = what == "counter" ? a : 2;
        if (opt.json)
            std::printf("{\"counter\": %u, \"value\": %u}\n", counter, v);
        else
            std::printf("counter %u: %u\n", counter, v);
        return 0;
    }
    if (what == "increment") {
        if ((st = IncrementCounterM(h, static_cast<uint8_t>(a), b)) != ZEL_OK)
            return fail(st);
        uint32_t v = 0;
        const bool read_back = ReadCounterM(h, static_cast<uint8_t>(a), &v) == ZEL_OK;
        if (opt.json)
            std::printf("{\"counter\": %u, \"increment\": %u, \"value\": %s}\n", a, b,
                        read_back ? std::to_string(v).c_str() : "null");
        else if (read_back)
            std::printf("counter %u: +%u, now %u\n", a, b, v);
        else
            std::printf("counter %u: +%u\n", a, b);
        return 0;
    }
    if (what == "ulc-auth" || what == "ulc-key") {
        // The key write has no card check of its own and would land in the user memory of any other tag.
        uint8_t type = 0;
        if ((st = GetOrbCardTypeM(h, &type)) != ZEL_OK)
            return fail(st);
        if (type != ORB_MIFARE_ULTRALIGHT_C)
            return tandro::fail_text("t2t",
                                     std::string(what) + ": the card is " + ZEL_OrbCardType2String(type) +
                                         ", not an Ultralight C" + (what == "ulc-key" ? "; nothing was written" : ""),
                                     ZEL_UNSUPPORTED_CARD_TYPE);
        // Ultralight C keys are 16 bytes, k0 first.
        if (what == "ulc-auth")
            st = UlcAuth_PKM(h, p1.data());
        else if (args[2] == "factory")
            st = ULC_write_3des_key_factory_keyM(h, p1.data());
        else if (args[2] == "no-auth")
            st = ULC_write_3des_key_no_authM(h, p1.data());
        else
            st = ULC_write_3des_keyM(h, p1.data(), p2.data());
        if (st != ZEL_OK)
            return fail(st);
        const char *text = what == "ulc-auth" ? "key accepted" : "key written";
        if (opt.json)
            std::printf("{\"uid\": \"%s\", \"result\": \"%s\"}\n",
                        tandro::to_hex(pick.uid().data(), pick.uid().size()).c_str(), text);
        else
            std::printf("%s\n", text);
        return 0;
    }
    // auth, auth-key
    uint8_t pack[2] = {};
    st = what == "auth" ? T2T_PwdAuth_PKM(h, p1.data(), pack) : T2T_PwdAuthM(h, static_cast<uint8_t>(a), pack);
    if (st != ZEL_OK)
        return fail(st);
    if (opt.json)
        std::printf("{\"pack\": \"%s\"}\n", tandro::to_hex(pack, 2).c_str());
    else
        std::printf("password accepted, PACK %s\n", tandro::to_hex(pack, 2).c_str());
    return 0;
}

const tandro::Registration t2t_cmd({"t2t", USAGE,
                                    "a Type 2 tag: version, counters, signature, tamper status, password auth", run_t2t,
                                    false, &TABLE});

} // namespace
