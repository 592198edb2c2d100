// tandro mfp: MIFARE Plus personalisation at level 0 (one write, the whole minimal personalisation, the
// commit), the switch to level 3, key changes and the UID behind the random id.
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

const char *USAGE = "[--sam] (perso ADDRESS DATA | perso-minimal KEY [KEY x8] | commit | switch-level KEY | "
                    "change-key (master | config | vc-enc | vc-mac) KEY NEW | "
                    "change-key sector N MODE KEY NEW [SELECTOR] | uid KEY [KEY])";

const tandro::OptionTable TABLE = {
    {
        {"perso ADDRESS DATA", "one personalisation write at level 0: 16 bytes of DATA to a block"},
        {"perso-minimal KEY [KEY x8]", "the whole personalisation with nine keys (below), or one for all nine"},
        {"commit", "closes the personalisation"},
        {"switch-level KEY", "to level 3 with the level 3 switch key"},
        {"change-key master|config KEY NEW", "a card key: the master or the configuration key"},
        {"change-key vc-enc|vc-mac KEY NEW", "a VC polling key; KEY is then the configuration key"},
        {"change-key sector N MODE KEY NEW [SELECTOR]",
         "a sector key by MODE (below); SELECTOR 1 writes key A, 2 key B"},
        {"uid KEY [KEY]", "the UID with the VC polling encryption key (and MAC key)"},
    },
    {
        {"--sam", nullptr, "keys are entries of the SAM (not for switch-level)"},
    },
    "perso-minimal commits the personalisation after its writes. Its nine keys, in order: master, configuration, level "
    "2 switch, level 3 switch, level 1 "
    "authentication, select VC, proximity check, VC polling encryption, VC polling MAC.\n\n"
    "MODE of a sector key: 0x60 or 0x61 with a reader or SAM key, 0x80 or 0x81 with a given key.\n\n"
    "A KEY is 16 bytes in hexadecimal (the key itself) or a number (a key index of the reader's store; with "
    "--sam, an entry of the SAM, and NEW too). Keys are never printed.\n\n"
    "With --sim and no scenario file, a MIFARE Plus X 4K card whose keys are all 16 bytes of FF takes the field: "
    "at level 0 for perso, perso-minimal and commit, at level 1 for switch-level, else at level 3.",
};

// A key argument: 16 bytes, or an index.
struct KeyArg {
    bool given_key = false;
    std::vector<uint8_t> key;
    uint8_t index = 0;
};

bool parse_key(const std::string &text, KeyArg &k)
{
    if (tandro::parse_hex(text, k.key) && k.key.size() == 16) {
        k.given_key = true;
        return true;
    }
    uint32_t v = 0;
    if (tandro::parse_u32(text, &v) && v < 256) {
        k.index = static_cast<uint8_t>(v);
        return true;
    }
    return false;
}

int fail(const tandro::Options &, const std::string &what, ZEL_STATUS st)
{
    return tandro::fail("mfp", what, st);
}

int done(const tandro::Options &opt, const std::string &text)
{
    if (opt.json)
        std::printf("{\"result\": %s}\n", tandro::json_string(text).c_str());
    else
        std::printf("%s\n", text.c_str());
    return 0;
}

// What the command line asks for, checked before the reader is reached.
struct Request {
    std::string what;
    bool sam = false;
    uint16_t address = 0;
    std::vector<uint8_t> data;
    std::vector<std::vector<uint8_t>> keys; // perso-minimal
    std::string which;                      // change-key
    uint8_t sector = 0, mode = 0, selector = 0;
    KeyArg key, next;
    bool two_uid_keys = false;
};

// The positional words; r.sam is set beforehand.
std::string parse(const tandro::Args &a, Request &r)
{
    size_t i = 0;
    if (i >= a.size())
        return "names no subcommand";
    r.what = a[i++];
    const size_t n = a.size() - i;
    uint32_t v = 0;
    if (r.what == "perso") {
        if (n != 2 || !tandro::parse_u32(a[i], &v) || v > 0xFFFF || !tandro::parse_hex(a[i + 1], r.data) ||
            r.data.size() != 16)
            return "perso takes a block address (0 to 0xFFFF) and 16 bytes in hexadecimal";
        r.address = static_cast<uint16_t>(v);
        return "";
    }
    if (r.what == "perso-minimal") {
        if (n != 1 && n != 9)
            return "perso-minimal takes nine keys or one, 16 bytes each in hexadecimal";
        for (size_t k = i; k < a.size(); ++k) {
            std::vector<uint8_t> key;
            if (!tandro::parse_hex(a[k], key) || key.size() != 16)
                return "perso-minimal takes nine keys or one, 16 bytes each in hexadecimal";
            r.keys.push_back(key);
        }
        while (r.keys.size() < 9)
            r.keys.push_back(r.keys.front());
        return "";
    }
    if (r.what == "commit")
        return n == 0 ? "" : "commit takes no arguments";
    if (r.what == "switch-level") {
        if (n != 1 || !parse_key(a[i], r.key) || (r.sam && r.key.given_key))
            return "switch-level takes a key (16 bytes in hexadecimal) or a reader key index";
        if (r.sam)
            return "switch-level has no SAM form";
        return "";
    }
    if (r.what == "uid") {
        if ((n != 1 && n != 2) || !parse_key(a[i], r.key) || (n == 2 && !parse_key(a[i + 1], r.next)) ||
            (n == 2 && r.key.given_key != r.next.given_key) || (r.sam && r.key.given_key))
            return "uid takes one or two keys of one kind: 16 bytes in hexadecimal, or key indexes";
        r.two_uid_keys = n == 2;
        return "";
    }
    if (r.what == "change-key") {
        if (n < 1)
            return "change-key names master, config, vc-enc, vc-mac or sector";
        r.which = a[i++];
        const char *form = r.sam ? "change-key takes a SAM entry for the key and one for the new key"
                                 : "change-key takes the key (16 bytes in hexadecimal, or a reader key index) "
                                   "and the new key (16 bytes in hexadecimal)";
        auto key_pair = [&](size_t at) {
            if (!parse_key(a[at], r.key) || !parse_key(a[at + 1], r.next))
                return false;
            // The new key: 16 bytes, or a SAM entry with --sam (where the old key is an entry too).
            return r.sam ? !r.key.given_key && !r.next.given_key : r.next.given_key;
        };
        if (r.which == "master" || r.which == "config" || r.which == "vc-enc" || r.which == "vc-mac") {
            if (a.size() - i != 2 || !key_pair(i))
                return form;
            return "";
        }
        if (r.which == "sector") {
            const size_t m = a.size() - i;
            if (m != 4 && m != 5)
                return "change-key sector takes N MODE KEY NEW [SELECTOR]";
            if (!tandro::parse_u32(a[i], &v) || v > 255)
                return "change-key sector: N is a sector number";
            r.sector = static_cast<uint8_t>(v);
            if (!tandro::parse_u32(a[i + 1], &v) || (v != 0x60 && v != 0x61 && v != 0x80 && v != 0x81))
                return "change-key sector: MODE is 0x60, 0x61, 0x80 or 0x81";
            r.mode = static_cast<uint8_t>(v);
            if (!key_pair(i + 2))
                return form;
            if ((r.mode >= 0x80) != r.key.given_key)
                return "change-key sector: 0x80 and 0x81 take a given key, 0x60 and 0x61 a key index";
            if (m == 5) {
                if (!tandro::parse_u32(a[i + 4], &v) || v > 255)
                    return "change-key sector: SELECTOR is a number up to 255";
                r.selector = static_cast<uint8_t>(v);
            }
            return "";
        }
        return "change-key names master, config, vc-enc, vc-mac or sector, not '" + r.which + "'";
    }
    return "unknown subcommand '" + r.what + "'";
}

// The built-in simulated field: one Plus card at the level the subcommand works at.
void sim_card(zsim *sim, const std::string &what)
{
    zsim_field_clear(sim);
    const zsim_card card{{0x04, 0x5A, 0x11, 0x22, 0x33, 0x44, 0x80}, 7, 0x20, 0x0044, 0x26};
    const char *level = (what == "perso" || what == "perso-minimal" || what == "commit") ? R"({"level": 0})"
                        : what == "switch-level"                                         ? R"({"level": 1})"
                                                                                         : R"({"level": 3})";
    zsim_card_add_model(sim, &card, "plus", level);
}

ZEL_STATUS change_key(ZEL_HANDLE h, const Request &r)
{
    const uint8_t *key = r.key.key.data(), *nk = r.next.key.data();
    if (r.which == "sector") {
        if (r.sam)
            return MFP_ChangeSectorKeySamExtKeyM(h, r.sector, r.mode, r.key.index, r.next.index, r.selector);
        if (r.key.given_key)
            return MFP_ChangeSectorKeyExt_PKM(h, r.sector, r.mode, key, nk, r.selector);
        return MFP_ChangeSectorExtKeyM(h, r.sector, r.mode, r.key.index, nk, r.selector);
    }
    struct Forms {
        const char *which;
        ZEL_STATUS (*reader)(ZEL_HANDLE, uint8_t, const uint8_t *);
        ZEL_STATUS (*sam)(ZEL_HANDLE, uint8_t, uint8_t);
        ZEL_STATUS (*pk)(ZEL_HANDLE, const uint8_t *, const uint8_t *);
    };
    static const Forms forms[] = {
        {"master", MFP_ChangeMasterKeyM, MFP_ChangeMasterKeySamKeyM, MFP_ChangeMasterKey_PKM},
        {"config", MFP_ChangeConfigurationKeyM, MFP_ChangeConfigurationKeySamKeyM, MFP_ChangeConfigurationKey_PKM},
        {"vc-enc", MFP_ChangeVcPollingEncKeyM, MFP_ChangeVcPollingEncKeySamKeyM, MFP_ChangeVcPollingEncKey_PKM},
        {"vc-mac", MFP_ChangeVcPollingMacKeyM, MFP_ChangeVcPollingMacKeySamKeyM, MFP_ChangeVcPollingMacKey_PKM},
    };
    for (const Forms &f : forms)
        if (r.which == f.which) {
            if (r.sam)
                return f.sam(h, r.key.index, r.next.index);
            return r.key.given_key ? f.pk(h, key, nk) : f.reader(h, r.key.index, nk);
        }
    return ZEL_PARAMETERS_ERROR;
}

int run_mfp(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("mfp", TABLE, args, parsed))
        return 2;
    Request r;
    r.sam = parsed.has("--sam");
    const std::string bad = parse(parsed.words, r);
    if (!bad.empty())
        return tandro::usage_error("mfp", bad);

    tandro::ReaderSession session;
    if (!session.open("mfp", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    if (session.sim() && opt.sim_scenario.empty())
        sim_card(session.sim(), r.what);
    else if (session.sim())
        tandro::bring_forward(session.sim(), "plus");

    ZEL_STATUS st = ZEL_OK;
    if (r.what == "perso-minimal") {
        // The personalisation deselects on the global reader: lend it this one.
        tandro::GlobalReader global(h);
        const auto &k = r.keys;
        if (!opt.json)
            std::printf("personalising (the card settles for 2 s after the commit) ...\n");
        st = MFP_PersonalizationMinimal(k[0].data(), k[1].data(), k[2].data(), k[3].data(), k[4].data(), k[5].data(),
                                        k[6].data(), k[7].data(), k[8].data());
        if (st != ZEL_OK)
            return fail(opt, "personalisation", st);
        uint8_t type = 0;
        const bool known = GetOrbCardTypeM(h, &type) == ZEL_OK;
        return done(opt, std::string("personalised and committed") +
                             (known ? std::string(", now ") + ZEL_OrbCardType2String(type) : std::string()));
    }
    if (r.what == "perso" || r.what == "commit") {
        if ((st = SetISO14443_4_ModeM(h)) != ZEL_OK)
            return fail(opt, "no card at ISO 14443-4 level", st);
        st = r.what == "perso" ? MFP_WritePersoM(h, r.address, r.data.data()) : MFP_CommitPersoM(h);
        s_block_deselectM(h, 100);
        if (st != ZEL_OK)
            return fail(opt, r.what, st);
        char text[64];
        std::snprintf(text, sizeof text, r.what == "perso" ? "block 0x%04X written" : "personalisation committed",
                      r.address);
        return done(opt, text);
    }
    if (r.what == "switch-level") {
        st = r.key.given_key ? MFP_SwitchToSecurityLevel3_PKM(h, r.key.key.data())
                             : MFP_SwitchToSecurityLevel3M(h, r.key.index);
        if (st != ZEL_OK)
            return fail(opt, "switch to level 3", st);
        return done(opt, "switched to level 3");
    }
    if (r.what == "change-key") {
        if ((st = change_key(h, r)) != ZEL_OK)
            return fail(opt, "change-key " + r.which, st);
        return done(opt, r.which == "sector" ? "sector " + std::to_string(r.sector) + " key written"
                                             : r.which + " key written");
    }
    // uid
    uint8_t uid[10] = {}, len = 0;
    if (r.sam)
        st = r.two_uid_keys ? MFP_GetUidSamKeyM(h, r.key.index, r.next.index, uid, &len)
                            : MFP_EvGetUidSamKeyM(h, r.key.index, uid, &len);
    else if (r.key.given_key)
        st = r.two_uid_keys ? MFP_GetUid_PKM(h, r.key.key.data(), r.next.key.data(), uid, &len)
                            : MFP_EvGetUid_PKM(h, r.key.key.data(), uid, &len);
    else
        st = r.two_uid_keys ? MFP_GetUidM(h, r.key.index, r.next.index, uid, &len)
                            : MFP_EvGetUidM(h, r.key.index, uid, &len);
    if (st != ZEL_OK)
        return fail(opt, "uid", st);
    const std::string hex = tandro::to_hex(uid, len > 10 ? 10 : len);
    if (opt.json)
        std::printf("{\"uid\": \"%s\", \"length\": %u}\n", hex.c_str(), len);
    else
        std::printf("UID %s\n", hex.c_str());
    return 0;
}

const tandro::Registration mfp_cmd({"mfp", USAGE, "MIFARE Plus: personalisation, level 3 switch, key changes, UID",
                                    run_mfp, false, &TABLE});

} // namespace
