// tandro sam: the SAM in the reader's contact slot: its version, its key entries, the host authentications
// and key entry changes.
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char *USAGE = "[--key HEX] [--entry N] [--ver V] [--host-mode 0|1|2] (version [--raw] | entries [FROM [TO]] | "
                    "authenticate (des | av2) | change-key ENTRY TYPE NEWKEY [--cek N] [--cek-ver V] [--kuc N] "
                    "[--versions A,B,C])";
const tandro::OptionTable TABLE = {
    {
        {"version", "the SAM's type and UID (--raw: the whole version reply)"},
        {"entries [FROM [TO]]", "the key entries (default 0 to 127): versions, change key, configuration"},
        {"authenticate des", "the legacy DES authentication with the key of eight zero bytes (AV1 mode)"},
        {"authenticate av2", "the AV2 authentication with --key (entry --entry, version --ver)"},
        {"change-key ENTRY TYPE NEWKEY", "authenticates as 'authenticate av2', then writes entry ENTRY (0 to 127)"},
    },
    {
        {"--key", "HEX", "the AES key of 16 bytes to authenticate with (authenticate av2, change-key)"},
        {"--entry", "N", "the key entry to authenticate with, 0 to 127 (default 0)"},
        {"--ver", "V", "its key version, 0 to 255 (default 0)"},
        {"--host-mode", "0|1|2", "the protection after authentication: 0 plain (default), 1 MAC, 2 full"},
        {"--raw", nullptr, "version: the whole version reply in hexadecimal"},
        {"--cek", "N", "change-key: the entry of the entry's change key, 0 to 127 (default 0)"},
        {"--cek-ver", "V", "change-key: the version of that change key, 0 to 255 (default 0)"},
        {"--kuc", "N", "change-key: the key usage counter, 0 to 255 (default 255)"},
        {"--versions", "A,B,C", "change-key host: the versions of the three keys (default 0,1,2)"},
    },
    "The SAM answers through the contact interface, which the command opens and closes.\n\n"
    "TYPE and NEWKEY (in hexadecimal) of change-key: aes, des, 2k3des-ulc, 2k3des-desfire, 3k3des, mifare (NEWKEY is "
    "key A then key B, 12 "
    "bytes) or host (an AES host key: NEWKEY in all three keys, --versions A,B,C).\n\n"
    "Keys given are never printed.\n\n"
    "With --sim and no scenario file, a SAM in AV2 mode whose entry 0 is the AES key of sixteen zero bytes takes "
    "the field.",
};

// The built-in simulated reader, for this command, holds a SAM in AV2 mode whose entry 0 is the AES key of
// sixteen zero bytes.
const char *SAM_SCENARIO = R"({"cards": [{"uid": "04C0FFEE112233", "sak": "20", "atqa": "0344",
  "type": "ORB_GENERIC_ISO14443_4", "model": "sam_av2",
  "setup": {"mode": "av2", "master_key": "00000000000000000000000000000000"}}]})";

struct SamArgs {
    Bytes key;
    bool key_given = false;
    uint32_t entry = 0, ver = 0, host_mode = 0;
    uint32_t cek = 0, cek_ver = 0, kuc = 0xFF;
    uint32_t versions[3] = {0, 1, 2};
    bool raw = false;
    tandro::Args words;
};

std::string sw_text(uint16_t sw)
{
    char t[8];
    std::snprintf(t, sizeof t, "%02X%02X", sw & 0xFF, sw >> 8); // SW1 is the low byte
    return t;
}

int fail(const tandro::Options &opt, const std::string &step, ZEL_STATUS st, uint16_t sw)
{
    const std::string text = ZEL_Status2String(st);
    if (opt.json)
        std::printf("{\"error\": %s, \"step\": %s, \"status\": %u, \"sw\": \"%s\"}\n",
                    tandro::json_string(text).c_str(), tandro::json_string(step).c_str(), st, sw_text(sw).c_str());
    const std::string word = sw ? " (status word " + sw_text(sw) + ")" : "";
    std::fprintf(stderr, "tandro sam: %s: %s%s\n", step.c_str(), text.c_str(), word.c_str());
    return 1;
}

bool byte_arg(const std::string &text, uint32_t max, uint32_t *v)
{
    return tandro::parse_u32(text, v) && *v <= max;
}

bool versions_arg(const std::string &text, uint32_t out[3])
{
    size_t at = 0;
    for (int i = 0; i < 3; ++i) {
        const size_t comma = i < 2 ? text.find(',', at) : text.size();
        if (comma == std::string::npos || !byte_arg(text.substr(at, comma - at), 255, &out[i]))
            return false;
        at = comma + 1;
    }
    return true;
}

// Reads the options into a; a usage error's exit code for a bad one, else -1.
int read_args(const tandro::Args &all, SamArgs &a)
{
    tandro::Parsed parsed;
    if (!tandro::parse("sam", TABLE, all, parsed))
        return 2;
    a.words = parsed.words;
    // Each value is checked, the last one given counts.
    for (const std::string &key : parsed.values("--key")) {
        if (!tandro::parse_hex(key, a.key) || a.key.size() != 16)
            return tandro::usage_error("sam", "--key takes an AES key of 16 bytes in hexadecimal");
        a.key_given = true;
    }
    const struct {
        const char *name;
        uint32_t max, *value;
        const char *why;
    } numbers[] = {
        {"--entry", 127, &a.entry, " takes a key entry from 0 to 127"},
        {"--cek", 127, &a.cek, " takes a key entry from 0 to 127"},
        {"--ver", 255, &a.ver, " takes a number from 0 to 255"},
        {"--cek-ver", 255, &a.cek_ver, " takes a number from 0 to 255"},
        {"--kuc", 255, &a.kuc, " takes a number from 0 to 255"},
        {"--host-mode", 2, &a.host_mode, " takes 0 (plain), 1 (MAC) or 2 (full)"},
    };
    for (const auto &number : numbers)
        for (const std::string &text : parsed.values(number.name))
            if (!byte_arg(text, number.max, number.value))
                return tandro::usage_error("sam", number.name + std::string(number.why));
    for (const std::string &text : parsed.values("--versions"))
        if (!versions_arg(text, a.versions))
            return tandro::usage_error("sam", "--versions takes three numbers: A,B,C");
    a.raw = parsed.has("--raw");
    return -1;
}

// Opens the reader (the SAM scenario under --sim with no scenario of the caller's) and the contact
// interface, with APDUs going to it.
bool open_sam(const tandro::Options &given, tandro::ReaderSession &session, ZEL_STATUS &st)
{
    tandro::Options opt = given;
    std::string tmp;
    if (opt.sim && opt.sim_scenario.empty()) {
        char path[] = "/tmp/tandro_sam_XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0)
            return false;
        const std::string text = SAM_SCENARIO;
        const bool written = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        close(fd);
        tmp = path;
        opt.sim_scenario = written ? tmp : "";
    }
    const bool opened = session.open("sam", opt);
    if (!tmp.empty())
        std::remove(tmp.c_str());
    if (!opened)
        return false;
    uint8_t atr[64];
    uint32_t atr_len = sizeof atr;
    st = open_ISO7816_interfaceM(session.hnd(), atr, &atr_len);
    if (st == ZEL_OK)
        st = APDU_switch_to_ISO7816_interfaceM(session.hnd());
    return true;
}

const char *type_text(uint32_t t)
{
    switch (t) {
    case SAM_TYPE_AV2_HW3_AV1_MODE: return "SAM AV2 (hardware 3) in AV1 mode";
    case SAM_TYPE_AV2_HW3_AV2_MODE: return "SAM AV2 (hardware 3) in AV2 mode";
    case SAM_TYPE_AV2_HW4_AV1_MODE: return "SAM AV2 (hardware 4) in AV1 mode";
    case SAM_TYPE_AV2_HW4_AV2_MODE: return "SAM AV2 (hardware 4) in AV2 mode";
    default: return "unknown";
    }
}

int run_version(ZEL_HANDLE h, const tandro::Options &opt, bool raw)
{
    if (raw) {
        uint8_t data[SAM_VERSION_RAW_MAX];
        uint32_t n = 0;
        const ZEL_STATUS st = SAM_get_version_rawM(h, data, &n);
        if (st != ZEL_OK)
            return fail(opt, "version", st, 0);
        const std::string hex = tandro::to_hex(data, n);
        if (opt.json)
            std::printf("{\"version\": \"%s\"}\n", hex.c_str());
        else
            std::printf("%s\n", hex.c_str());
        return 0;
    }
    uint32_t type = 0;
    uint8_t uid[SAM_UID_LEN];
    const ZEL_STATUS st = SAM_get_versionM(h, &type, uid);
    if (st != ZEL_OK)
        return fail(opt, "version", st, 0);
    const std::string hex = type ? tandro::to_hex(uid, SAM_UID_LEN) : "";
    if (opt.json)
        std::printf("{\"type\": %u, \"name\": %s, \"uid\": \"%s\"}\n", type,
                    tandro::json_string(type_text(type)).c_str(), hex.c_str());
    else
        std::printf("%s\nUID %s\n", type_text(type), type ? hex.c_str() : "(unknown)");
    return 0;
}

// One entry as text or JSON: versions (two for a 3K3DES entry), DESFire AID and key number, change key and
// its version, key usage counter, SET and, in AV2 mode, the extended SET.
std::string entry_line(uint32_t e, const uint8_t *raw, uint8_t n, bool av2, bool json)
{
    const std::string hex = tandro::to_hex(raw, n);
    const size_t tail = av2 ? 3 : 2; // SET (2) and ExtSET behind it
    const size_t v = n >= tail && ((raw[n - tail] >> 3) & 7) == 3 ? 2 : 3;
    const bool full = n == v + 7 + tail;
    char text[160];
    if (json) {
        if (!full)
            std::snprintf(text, sizeof text, "{\"entry\": %u, \"raw\": \"%s\"}", e, hex.c_str());
        else
            std::snprintf(text, sizeof text, "{\"entry\": %u, \"raw\": \"%s\", \"change_key\": %u, \"set\": \"%s\"}", e,
                          hex.c_str(), raw[v + 4], tandro::to_hex(raw + v + 7, 2).c_str());
    } else if (!full) {
        std::snprintf(text, sizeof text, "entry %3u  %s", e, hex.c_str());
    } else {
        std::snprintf(text, sizeof text, "entry %3u  versions %s  change key %u v%u  counter %u  SET %s", e,
                      tandro::to_hex(raw, v).c_str(), raw[v + 4], raw[v + 5], raw[v + 6],
                      tandro::to_hex(raw + v + 7, 2).c_str());
    }
    return text;
}

int run_entries(ZEL_HANDLE h, const tandro::Options &opt, uint32_t from, uint32_t to)
{
    uint32_t type = 0;
    uint8_t uid[SAM_UID_LEN];
    SAM_get_versionM(h, &type, uid);
    const bool av2 = type == SAM_TYPE_AV2_HW3_AV2_MODE || type == SAM_TYPE_AV2_HW4_AV2_MODE;
    std::string json;
    for (uint32_t e = from; e <= to; ++e) {
        uint8_t raw[SAM_KEY_ENTRY_RAW_MAX];
        uint8_t n = 0;
        uint16_t sw = 0;
        const ZEL_STATUS st = SAM_get_key_entry_rawM(h, static_cast<uint8_t>(e), raw, &n, &sw);
        if (st != ZEL_OK)
            return fail(opt, "entry " + std::to_string(e), st, sw);
        if (opt.json)
            json += (json.empty() ? "" : ", ") + entry_line(e, raw, n, av2, true);
        else
            std::printf("%s\n", entry_line(e, raw, n, av2, false).c_str());
        if (!opt.json && to - from >= 8) {
            const int width = 30, fill = static_cast<int>((e - from + 1) * width / (to - from + 1));
            std::fprintf(stderr, "\rreading [%.*s%*s] %u/%u%s", fill, "##############################", width - fill,
                         "", e - from + 1, to - from + 1, e == to ? "\n" : "");
        }
    }
    if (opt.json)
        std::printf("{\"entries\": [%s]}\n", json.c_str());
    return 0;
}

struct KeyType {
    const char *name;
    size_t len;
};
const KeyType TYPES[] = {{"aes", 16},    {"des", 8},     {"2k3des-ulc", 16}, {"2k3des-desfire", 16},
                         {"3k3des", 24}, {"mifare", 12}, {"host", 16}};

ZEL_STATUS change(ZEL_HANDLE h, const std::string &type, uint8_t entry, const Bytes &k, const SamArgs &a, uint16_t *sw)
{
    const uint8_t cek = static_cast<uint8_t>(a.cek), cv = static_cast<uint8_t>(a.cek_ver),
                  kuc = static_cast<uint8_t>(a.kuc);
    if (type == "aes")
        return SAM_change_key_entry_AES_AV2_plain_one_keyM(h, entry, k.data(), cek, cv, kuc, sw);
    if (type == "des")
        return SAM_change_key_entry_DES_AV2_plain_one_keyM(h, entry, k.data(), cek, cv, kuc, sw);
    if (type == "2k3des-ulc")
        return SAM_change_key_entry_2K3DES_ULC_AV2_plain_one_keyM(h, entry, k.data(), cek, cv, kuc, sw);
    if (type == "2k3des-desfire")
        return SAM_change_key_entry_2K3DES_desfire_AV2_plain_one_keyM(h, entry, k.data(), cek, cv, kuc, sw);
    if (type == "3k3des")
        return SAM_change_key_entry_3K3DES_AV2_plain_one_keyM(h, entry, k.data(), cek, cv, kuc, sw);
    if (type == "mifare")
        return SAM_change_key_entry_mifare_AV2_plain_one_keyM(h, entry, k.data(), k.data() + 6, cek, cv, kuc, sw);
    return SAM_change_key_entry_aes_AV2_plain_host_keyM(h, entry, k.data(), static_cast<uint8_t>(a.versions[0]),
                                                        k.data(), static_cast<uint8_t>(a.versions[1]), k.data(),
                                                        static_cast<uint8_t>(a.versions[2]), cek, cv, kuc, sw);
}

int run_sam(const tandro::Options &opt, const tandro::Args &all)
{
    SamArgs a;
    const int rc = read_args(all, a);
    if (rc >= 0)
        return rc;
    const tandro::Args &wd = a.words;
    const size_t n = wd.size();
    const std::string what = n ? wd[0] : "";
    uint32_t from = 0, to = 127, entry = 0;
    Bytes new_key;
    const KeyType *type = nullptr;
    bool ok = (what == "version" && n == 1) || (what == "authenticate" && n == 2 && wd[1] == "des");
    if (what == "authenticate" && n == 2 && wd[1] == "av2") {
        if (!a.key_given)
            return tandro::usage_error("sam", "authenticate av2 needs --key");
        ok = true;
    }
    if (what == "entries" && n <= 3) {
        ok = (n < 2 || byte_arg(wd[1], 127, &from)) && (n < 3 || byte_arg(wd[2], 127, &to)) && from <= to;
        if (n == 2)
            to = from;
    }
    if (what == "change-key" && n == 4) {
        for (const KeyType &t : TYPES)
            if (wd[2] == t.name)
                type = &t;
        if (!type || !byte_arg(wd[1], 127, &entry))
            return tandro::usage_error("sam", std::string("usage: tandro sam ") + USAGE);
        if (!tandro::parse_hex(wd[3], new_key) || new_key.size() != type->len)
            return tandro::usage_error("sam",
                                       "a " + wd[2] + " key is " + std::to_string(type->len) + " bytes in hexadecimal");
        if (!a.key_given)
            return tandro::usage_error("sam", "change-key needs --key, the AES key to authenticate with");
        ok = true;
    }
    if (!ok)
        return tandro::usage_error("sam", std::string("usage: tandro sam ") + USAGE);

    tandro::ReaderSession session;
    ZEL_STATUS st = ZEL_OK;
    if (!open_sam(opt, session, st))
        return 1;
    if (st != ZEL_OK)
        return fail(opt, "contact interface", st, 0);
    ZEL_HANDLE h = session.hnd();
    int result = 0;
    uint16_t sw = 0;
    if (what == "version") {
        result = run_version(h, opt, a.raw);
    } else if (what == "entries") {
        result = run_entries(h, opt, from, to);
    } else if (what == "authenticate" && wd[1] == "des") {
        st = SAM_authenticate_host_no_div_desM(h, static_cast<uint8_t>(a.entry), static_cast<uint8_t>(a.ver), nullptr);
        if (st != ZEL_OK)
            result = fail(opt, "authenticate", st, 0);
    } else {
        st = SAM_authenticate_host_AV2_plainM(h, a.key.data(), static_cast<uint8_t>(a.entry),
                                              static_cast<uint8_t>(a.ver), static_cast<uint8_t>(a.host_mode), &sw);
        if (st != ZEL_OK)
            result = fail(opt, "authenticate", st, sw);
        else if (what == "change-key" &&
                 (st = change(h, wd[2], static_cast<uint8_t>(entry), new_key, a, &sw)) != ZEL_OK)
            result = fail(opt, "change-key", st, sw);
    }
    if (result == 0 && what == "authenticate") {
        if (opt.json)
            std::printf("{\"authenticated\": true, \"form\": \"%s\", \"entry\": %u, \"version\": %u}\n", wd[1].c_str(),
                        a.entry, a.ver);
        else
            std::printf("authenticated (%s) with key entry %u version %u\n", wd[1].c_str(), a.entry, a.ver);
    }
    if (result == 0 && what == "change-key") {
        if (opt.json)
            std::printf("{\"entry\": %u, \"type\": \"%s\", \"changed\": true, \"sw\": \"%s\"}\n", entry, type->name,
                        sw_text(sw).c_str());
        else
            std::printf("key entry %u written (%s)\n", entry, type->name);
    }
    close_ISO7816_interface_no_APDUM(h);
    return result;
}

const tandro::Registration sam_cmd({"sam", USAGE,
                                    "the SAM in the contact slot: version, key entries, "
                                    "authentication, key changes",
                                    run_sam, false, &TABLE});

} // namespace
