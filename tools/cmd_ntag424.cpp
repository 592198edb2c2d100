// tandro ntag424: an NTAG 424 DNA (or, with --light, a DESFire Light) through the reader: file settings,
// SDM configuration, keys, UID, read counter and tag-tamper status. tandro sun verify: a tag-generated URL
// checked the way a web service checks a tap.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "zelsim.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "tools/sun.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char *USAGE = "[--key HEX | --reader-key N] [--light] [info | settings FILE | uid KEYNO | counter FILE "
                    "[KEYNO] | tamper [KEYNO] | change-key KEYNO NEW OLD | random-id | enable-tamper KEYNO | "
                    "standard FILE COMM R W RW C | sdm FILE NAME=N...]";
const tandro::OptionTable TABLE = {
    {
        {"[info]", "the settings of files 1 to 3"},
        {"settings FILE", "the settings of file FILE (0 to 31)"},
        {"uid KEYNO", "the real UID, authenticating with key KEYNO (0 to 4)"},
        {"counter FILE [KEYNO]", "the SDM read counter of a file, without authentication or with key KEYNO"},
        {"tamper [KEYNO]", "the tag tamper status, permanent and current; with KEYNO authenticated"},
        {"change-key KEYNO NEW OLD", "changes key KEYNO from OLD to NEW (16 bytes each in hexadecimal)"},
        {"random-id", "turns on the random ID"},
        {"enable-tamper KEYNO", "turns on tag tamper, KEYNO (0 to 15) being the key that reads its status"},
        {"standard FILE COMM R W RW C", "a file's settings without SDM: COMM 0 to 3, keys 0 to 15 (below)"},
        {"sdm FILE NAME=N...", "a file's settings with SDM, from NAME=N pairs and flags (below)"},
    },
    {
        {"--key", "HEX", "the 16 bytes of the key to authenticate with"},
        {"--reader-key", "N", "the reader's key slot to authenticate with, 0 to 255 (default 0)"},
        {"--light", nullptr, "a DESFire Light: info, settings, uid, change-key and standard only"},
    },
    "Settings show the file's type, communication, access keys, size and SDM options. R, W, RW and C of standard "
    "are the read, write, read-write and change keys.\n\n"
    "sdm FILE takes NAME=N pairs: comm, read, write, rw, change (the file's keys; default 0, E, E, E, 0), meta, "
    "file, ctr-key (the SDM keys; 14 free, 15 none), uid, ctr, picc, mac-input, enc, enc-len, mac, limit "
    "(offsets), and the flags uid-mirror, ctr-mirror, tt.\n\n"
    "Keys: --key gives the 16 key bytes, --reader-key the reader's key slot (default 0); the keys are never "
    "printed. The settings change with the file's change key, in plain communication.\n\n"
    "With --sim and no scenario file, an NTAG 424 DNA with its tag tamper loop joins the field.",
};

int fail(const tandro::Options &opt, const char *cmd, const std::string &what, ZEL_STATUS st)
{
    if (opt.json)
        std::printf("{\"error\": %s, \"status\": %u}\n",
                    tandro::json_string(what + ": " + ZEL_Status2String(st)).c_str(), st);
    std::fprintf(stderr, "tandro %s: %s: %s\n", cmd, what.c_str(), ZEL_Status2String(st));
    return 1;
}

int usage_fail(const tandro::Options &opt, const char *cmd, const std::string &msg)
{
    if (opt.json)
        std::printf("{\"error\": %s}\n", tandro::json_string(msg).c_str());
    return tandro::usage_error(cmd, msg);
}

struct Auth {
    bool provided = false, light = false;
    uint8_t reader_key = 0;
    Bytes key;
};

const char *comm_name(uint8_t c)
{
    switch (c & 3) {
    case 0: return "plain";
    case 1: return "maced";
    case 3: return "enciphered";
    default: return "plain (2)";
    }
}

// The raw settings of a file: type, option, access rights, size, and the SDM part.
void print_settings(const tandro::Options &opt, uint8_t file, const uint8_t *s, uint8_t len)
{
    const bool full = len >= 7;
    const unsigned size = full ? static_cast<unsigned>(s[4] | s[5] << 8 | s[6] << 16) : 0;
    const bool sdm = full && (s[1] & 0x40) && len >= 10;
    char keys[32] = "";
    if (full)
        std::snprintf(keys, sizeof keys, "%X %X %X %X", s[3] >> 4, s[3] & 15, s[2] >> 4, s[2] & 15);
    if (opt.json) {
        std::printf("{\"file\": %u, \"raw\": \"%s\"", file, tandro::to_hex(s, len).c_str());
        if (full)
            std::printf(", \"type\": %u, \"communication\": \"%s\", \"access\": \"%s\", \"size\": %u, \"sdm\": %s",
                        s[0], comm_name(s[1]), keys, size, sdm ? "true" : "false");
        if (sdm)
            std::printf(", \"sdm_options\": %u, \"sdm_access\": \"%s\"", s[7], tandro::to_hex(s + 8, 2).c_str());
        std::printf("}");
        return;
    }
    std::printf("file %u: %s\n", file, tandro::to_hex(s, len).c_str());
    if (full)
        std::printf("  type %u, %s, keys (read write read-write change) %s, %u bytes%s\n", s[0], comm_name(s[1]), keys,
                    size, sdm ? ", SDM on" : "");
    if (sdm) {
        const unsigned ar = static_cast<unsigned>(s[8] | s[9] << 8);
        std::printf("  SDM options 0x%02X%s%s%s%s%s, meta key %X, file key %X, counter key %X\n", s[7],
                    s[7] & NT4H_SDM_UID_MIRROR ? " uid" : "", s[7] & NT4H_SDM_READ_CTR_MIRROR ? " counter" : "",
                    s[7] & NT4H_SDM_READ_CTR_LIMIT ? " limit" : "", s[7] & NT4H_SDM_ENC_FILE_DATA ? " encrypted" : "",
                    s[7] & NT4H_SDM_TT_STATUS ? " tamper" : "", ar >> 12, (ar >> 8) & 15, ar & 15);
    }
}

bool parse_sdm(const tandro::Args &args, size_t from, nt4h_sdm_settings &s, uint8_t k[5], bool &tt)
{
    s = nt4h_sdm_settings{};
    s.meta_data_key_no = s.file_data_read_key_no = s.read_ctr_key_no = 0x0F;
    k[0] = 0;
    k[1] = k[2] = k[3] = 0x0E;
    k[4] = 0;
    tt = false;
    for (size_t i = from; i < args.size(); ++i) {
        const std::string &a = args[i];
        const size_t eq = a.find('=');
        const std::string name = a.substr(0, eq);
        if (eq == std::string::npos) {
            if (name == "uid-mirror")
                s.uid_enable = 1;
            else if (name == "ctr-mirror")
                s.sdm_read_ctr_enable = 1;
            else if (name == "tt") {
                s.tt_status_enable = 1;
                tt = true;
            } else
                return false;
            continue;
        }
        uint32_t v = 0;
        if (!tandro::parse_u32(a.substr(eq + 1), &v))
            return false;
        struct {
            const char *name;
            uint32_t *off;
            uint8_t *key;
        } const fields[] = {{"uid", &s.uid_offset, nullptr},
                            {"ctr", &s.sdm_read_ctr_offset, nullptr},
                            {"picc", &s.picc_data_offset, nullptr},
                            {"mac-input", &s.mac_input_offset, nullptr},
                            {"enc", &s.enc_offset, nullptr},
                            {"enc-len", &s.enc_length, nullptr},
                            {"mac", &s.mac_offset, nullptr},
                            {"limit", &s.read_ctr_limit, nullptr},
                            {"meta", nullptr, &s.meta_data_key_no},
                            {"file", nullptr, &s.file_data_read_key_no},
                            {"ctr-key", nullptr, &s.read_ctr_key_no},
                            {"comm", nullptr, &k[0]},
                            {"read", nullptr, &k[1]},
                            {"write", nullptr, &k[2]},
                            {"rw", nullptr, &k[3]},
                            {"change", nullptr, &k[4]}};
        bool known = false;
        for (const auto &f : fields) {
            if (name != f.name)
                continue;
            known = true;
            if (f.off) {
                if (v > 0xFFFFFF)
                    return false;
                *f.off = v;
            } else {
                if (v > 15)
                    return false;
                *f.key = static_cast<uint8_t>(v);
            }
        }
        if (!known)
            return false;
        if (name == "limit")
            s.sdm_read_ctr_limit_enable = 1;
        if (name == "enc")
            s.sdm_enc_file_data_enable = 1;
    }
    return true;
}

int run_ntag424(const tandro::Options &opt, const tandro::Args &all)
{
    const char *cmd = "ntag424";
    tandro::Parsed parsed;
    if (!tandro::parse(cmd, TABLE, all, parsed))
        return 2;
    Auth auth;
    const tandro::Args &args = parsed.words;
    // Each value is checked, the last one given counts.
    for (const std::string &key : parsed.values("--key")) {
        if (!tandro::parse_hex(key, auth.key) || auth.key.size() != 16)
            return usage_fail(opt, cmd, "--key takes 16 bytes in hexadecimal");
        auth.provided = true;
    }
    for (const std::string &slot : parsed.values("--reader-key")) {
        uint32_t v = 0;
        if (!tandro::parse_u32(slot, &v) || v > 255)
            return usage_fail(opt, cmd, "--reader-key takes a key slot from 0 to 255");
        auth.reader_key = static_cast<uint8_t>(v);
    }
    auth.light = parsed.has("--light");
    const std::string what = args.empty() ? "info" : args[0];
    const size_t n = args.size();
    uint32_t a1 = 0, a2 = 0;
    Bytes k1, k2;
    nt4h_sdm_settings sdm{};
    uint8_t fk[5] = {};
    bool tt = false;
    std::vector<uint32_t> std_args(6);
    auto num = [&](size_t i, uint32_t *v, uint32_t max) { return tandro::parse_u32(args[i], v) && *v <= max; };
    bool ok = (what == "info" && n <= 1) || (what == "settings" && n == 2 && num(1, &a1, 31)) ||
              (what == "uid" && n == 2 && num(1, &a1, 4)) ||
              (what == "counter" && (n == 2 || n == 3) && num(1, &a1, 31) && (n == 2 || num(2, &a2, 4))) ||
              (what == "tamper" && n <= 2 && (n == 1 || num(1, &a1, 4))) ||
              (what == "change-key" && n == 4 && num(1, &a1, 4) && tandro::parse_hex(args[2], k1) && k1.size() == 16 &&
               tandro::parse_hex(args[3], k2) && k2.size() == 16) ||
              (what == "random-id" && n == 1) || (what == "enable-tamper" && n == 2 && num(1, &a1, 15)) ||
              (what == "sdm" && n >= 2 && num(1, &a1, 31) && parse_sdm(args, 2, sdm, fk, tt));
    if (what == "standard" && n == 7) {
        ok = num(1, &a1, 31);
        for (size_t i = 0; i < 5 && ok; ++i)
            ok = num(i + 2, &std_args[i], i == 0 ? 3 : 15);
    }
    if (auth.light &&
        (what == "sdm" || what == "counter" || what == "tamper" || what == "random-id" || what == "enable-tamper"))
        ok = false;
    if (!ok)
        return usage_fail(opt, cmd, std::string("usage: tandro ntag424 ") + USAGE);

    tandro::ReaderSession session;
    if (!session.open(cmd, opt)) {
        if (opt.json)
            std::printf("{\"error\": \"the reader did not open\"}\n");
        return 1;
    }
    if (session.sim()) {
        // The default simulated field has no NTAG 424 DNA: this command brings one (with its tamper loop).
        if (opt.sim_scenario.empty() && !auth.light) {
            const zsim_card tag = {{0x04, 0xA5, 0xB6, 0xC7, 0xD8, 0xE9, 0x80}, 7, 0x20, 0x0344, 0x13};
            zsim_card_add_model(session.sim(), &tag, "ntag424_tt", nullptr);
        }
        tandro::bring_forward(session.sim(), auth.light ? "desfire" : "ntag424");
    }
    ZEL_HANDLE h = session.hnd();
    const uint8_t *key = auth.key.data();
    const uint8_t rk = auth.reader_key;
    const bool pk = auth.provided;
    ZEL_STATUS st = ZEL_OK;
    if (what == "info" || what == "settings") {
        if (opt.json && what == "info")
            std::printf("{\"files\": [");
        int shown = 0;
        for (uint8_t f = what == "info" ? 1 : static_cast<uint8_t>(a1); f <= (what == "info" ? 3 : a1); ++f) {
            uint8_t s[NT4H_MAX_FILE_SETTINGS];
            uint8_t len = 0;
            st = auth.light ? dfl_get_file_settingsM(h, f, s, &len) : nt4h_get_file_settingsM(h, f, s, &len);
            if (st != ZEL_OK) {
                if (what == "settings")
                    return fail(opt, cmd, "file settings", st);
                continue;
            }
            if (opt.json && shown)
                std::printf(", ");
            print_settings(opt, f, s, len);
            if (opt.json && what == "settings")
                std::printf("\n");
            ++shown;
        }
        if (opt.json && what == "info")
            std::printf("]}\n");
        if (what == "info" && !shown)
            return fail(opt, cmd, "file settings", st);
        return 0;
    }
    if (what == "uid") {
        uint8_t uid[7];
        st = auth.light ? (pk ? dfl_get_uid_pkM(h, key, static_cast<uint8_t>(a1), uid)
                              : dfl_get_uidM(h, rk, static_cast<uint8_t>(a1), uid))
                        : (pk ? nt4h_get_uid_pkM(h, key, static_cast<uint8_t>(a1), uid)
                              : nt4h_get_uidM(h, rk, static_cast<uint8_t>(a1), uid));
        if (st != ZEL_OK)
            return fail(opt, cmd, "uid", st);
        std::printf(opt.json ? "{\"uid\": \"%s\"}\n" : "UID %s\n", tandro::to_hex(uid, 7).c_str());
        return 0;
    }
    if (what == "counter") {
        uint32_t ctr = 0;
        const auto f = static_cast<uint8_t>(a1), k = static_cast<uint8_t>(a2);
        st = n == 2 ? nt4h_get_sdm_read_ctr_no_authM(h, f, 0, &ctr)
                    : (pk ? nt4h_get_sdm_read_ctr_pkM(h, key, f, k, &ctr) : nt4h_get_sdm_read_ctrM(h, rk, f, k, &ctr));
        if (st != ZEL_OK)
            return fail(opt, cmd, "read counter", st);
        std::printf(opt.json ? "{\"file\": %u, \"read_counter\": %u}\n" : "file %u: read counter %u\n", a1, ctr);
        return 0;
    }
    if (what == "tamper") {
        uint8_t perm = 0, curr = 0;
        const auto k = static_cast<uint8_t>(a1);
        st = n == 1
                 ? nt4h_get_tt_status_no_authM(h, 0, &perm, &curr)
                 : (pk ? nt4h_get_tt_status_pkM(h, key, k, &perm, &curr) : nt4h_get_tt_statusM(h, rk, k, &perm, &curr));
        if (st != ZEL_OK)
            return fail(opt, cmd, "tamper status", st);
        auto name = [](uint8_t v) {
            return v == 'C' ? "closed" : v == 'O' ? "open" : v == 'I' ? "invalid" : "unknown";
        };
        if (opt.json)
            std::printf("{\"permanent\": \"%s\", \"current\": \"%s\"}\n", name(perm), name(curr));
        else
            std::printf("tamper loop: permanent %s, current %s\n", name(perm), name(curr));
        return 0;
    }
    std::string done;
    if (what == "change-key") {
        const auto k = static_cast<uint8_t>(a1);
        st = auth.light ? (pk ? dfl_change_key_pkM(h, key, k, k1.data(), k2.data())
                              : dfl_change_keyM(h, rk, k, k1.data(), k2.data()))
                        : (pk ? nt4h_change_key_pkM(h, key, k, k1.data(), k2.data())
                              : nt4h_change_keyM(h, rk, k, k1.data(), k2.data()));
        done = "key " + std::to_string(k) + " changed";
    } else if (what == "random-id") {
        st = pk ? nt4h_set_rid_pkM(h, key) : nt4h_set_ridM(h, rk);
        done = "random ID set";
    } else if (what == "enable-tamper") {
        st = pk ? nt4h_enable_tt_pkM(h, key, static_cast<uint8_t>(a1))
                : nt4h_enable_ttM(h, rk, static_cast<uint8_t>(a1));
        done = "tag tamper enabled";
    } else if (what == "standard") {
        const auto f = static_cast<uint8_t>(a1);
        const auto c = static_cast<uint8_t>(std_args[0]), r = static_cast<uint8_t>(std_args[1]),
                   w = static_cast<uint8_t>(std_args[2]), rw = static_cast<uint8_t>(std_args[3]),
                   ch = static_cast<uint8_t>(std_args[4]);
        // The command runs in plain communication with the change key.
        st = auth.light ? (pk ? dfl_change_file_settings_pkM(h, key, f, ch, 0, c, r, w, rw, ch)
                              : dfl_change_file_settingsM(h, rk, f, ch, 0, c, r, w, rw, ch))
                        : (pk ? nt4h_change_standard_file_settings_pkM(h, key, f, ch, 0, c, r, w, rw, ch)
                              : nt4h_change_standard_file_settingsM(h, rk, f, ch, 0, c, r, w, rw, ch));
        done = "file " + std::to_string(f) + " settings changed";
    } else { // sdm
        const auto f = static_cast<uint8_t>(a1);
        st = tt ? (pk ? nt4h_tt_change_sdm_file_settings_pkM(h, key, f, fk[4], 0, fk[0], fk[1], fk[2], fk[3], fk[4],
                                                             &sdm)
                      : nt4h_tt_change_sdm_file_settingsM(h, rk, f, fk[4], 0, fk[0], fk[1], fk[2], fk[3], fk[4], &sdm))
                : (pk ? nt4h_change_sdm_file_settings_pkM(h, key, f, fk[4], 0, fk[0], fk[1], fk[2], fk[3], fk[4], &sdm)
                      : nt4h_change_sdm_file_settingsM(h, rk, f, fk[4], 0, fk[0], fk[1], fk[2], fk[3], fk[4], &sdm));
        done = "file " + std::to_string(f) + " SDM settings changed";
    }
    if (st != ZEL_OK)
        return fail(opt, cmd, what, st);
    if (opt.json)
        std::printf("{\"result\": %s}\n", tandro::json_string(done).c_str());
    else
        std::printf("%s\n", done.c_str());
    return 0;
}

const char *SUN_USAGE = "verify URL --meta-key HEX --file-key HEX [--show-data]";

const tandro::OptionTable SUN_TABLE = {
    {
        {"verify URL", "checks a URL that an NTAG 424 DNA made, as a web service checks a tap"},
    },
    {
        {"--meta-key", "HEX", "the SDM meta read key, 16 bytes (needed when the URL carries PICC data)"},
        {"--file-key", "HEX", "the SDM file read key, 16 bytes (always needed)"},
        {"--show-data", nullptr, "shows the deciphered file data"},
    },
    "Deciphers the PICC data (p or picc_data) with the meta read key, or takes the plain uid and ctr, checks the "
    "MAC (m or cmac) with the file read key, and deciphers the file data (e or enc). The MAC input runs from the "
    "enciphered data up to the MAC's value, or is empty without it. The file data is shown only with "
    "--show-data.\n\n"
    "No reader is needed. A URL whose MAC does not match is reported as forged or replayed, with exit code 1.",
};

int run_sun(const tandro::Options &opt, const tandro::Args &args)
{
    const char *cmd = "sun";
    tandro::Parsed given;
    if (!tandro::parse(cmd, SUN_TABLE, args, given))
        return 2;
    Bytes meta, file;
    bool have_meta = false, have_file = false;
    // Each value is checked, the last one given counts.
    for (const std::string &key : given.values("--meta-key"))
        if (!(have_meta = tandro::parse_hex(key, meta) && meta.size() == 16))
            return usage_fail(opt, cmd, "--meta-key takes 16 bytes in hexadecimal");
    for (const std::string &key : given.values("--file-key"))
        if (!(have_file = tandro::parse_hex(key, file) && file.size() == 16))
            return usage_fail(opt, cmd, "--file-key takes 16 bytes in hexadecimal");
    const bool show = given.has("--show-data");
    const tandro::Args &words = given.words;
    if (words.size() != 2 || words[0] != "verify" || words[1].empty() || !have_file)
        return usage_fail(opt, cmd, std::string("usage: tandro sun ") + SUN_USAGE);
    const std::string &url = words[1];
    static tandro::SunUrl parsed;
    const tandro::SunParse p = tandro::sun_parse(url.data(), url.size(), parsed);
    if (p != tandro::SunParse::ok)
        return usage_fail(opt, cmd, std::string("the URL: ") + tandro::sun_parse_text(p));
    if (parsed.has_picc && !have_meta)
        return usage_fail(opt, cmd, "the URL carries PICC data: --meta-key is needed");
    static tandro::SunResult r;
    const uint32_t st = tandro::sun_verify(parsed, have_meta ? meta.data() : nullptr, file.data(), r);
    const char *verdict = st == ZEL_OK ? "genuine" : "forged or replayed";
    const std::string data = show && r.file_data_len ? tandro::to_hex(r.file_data, r.file_data_len) : "";
    if (opt.json) {
        std::printf("{\"uid\": \"%s\", \"counter\": %u, \"verdict\": \"%s\", \"mac_ok\": %s",
                    tandro::to_hex(r.uid, 7).c_str(), r.counter, verdict, r.mac_ok ? "true" : "false");
        if (r.file_data_len)
            std::printf(", \"file_data_len\": %u", r.file_data_len);
        if (!data.empty())
            std::printf(", \"file_data\": \"%s\"", data.c_str());
        std::printf("}\n");
    } else {
        std::printf("UID      %s\ncounter  %u\nverdict  %s\n", tandro::to_hex(r.uid, 7).c_str(), r.counter, verdict);
        if (r.file_data_len)
            std::printf("data     %u bytes%s%s\n", r.file_data_len, data.empty() ? "" : ": ", data.c_str());
    }
    return st == ZEL_OK ? 0 : 1;
}

const tandro::Registration ntag424_cmd({"ntag424", USAGE,
                                        "NTAG 424 DNA and DESFire Light: settings, SDM, keys, counter, tamper",
                                        run_ntag424, false, &TABLE});
const tandro::Registration sun_cmd({"sun", SUN_USAGE, "verify a URL an NTAG 424 DNA generated (SUN)", run_sun, false,
                                    &SUN_TABLE});

} // namespace
