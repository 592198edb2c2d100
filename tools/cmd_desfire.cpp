// tandro desfire: applications, files, data, values, records and keys of a DESFire card, through the
// reader's DESFire engine.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "smartcard/desfire_internal.h"
#include "tandro.h"
#include "tools/cli.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

using zel::desfire::KeyRef;
using Bytes = std::vector<uint8_t>;

const char *kUsage =
    "[--key HEX|--key-nr N|--sam N|--no-auth] [--key-type T] [--aid-key N] [--comm N] [--access R,W,RW,C] "
    "free|uid|format|config|apps|app-create|app-delete|key-settings|file-settings|sdm-settings|file-create|"
    "file-delete|read|write|value|credit|debit|records|record-write|records-clear|change-key ...";

bool parse_hex(const std::string &s, Bytes &out)
{
    out.clear();
    std::string h;
    for (char c : s)
        if (c != ' ' && c != ':' && c != '-')
            h += c;
    if (h.size() % 2)
        return false;
    for (size_t i = 0; i < h.size(); i += 2) {
        unsigned v = 0;
        if (std::sscanf(h.c_str() + i, "%2x", &v) != 1)
            return false;
        out.push_back(static_cast<uint8_t>(v));
    }
    return true;
}

std::string hex(const uint8_t *p, size_t n)
{
    std::string s;
    char b[4];
    for (size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02X", p[i]);
        s += b;
    }
    return s;
}

bool key_type(const std::string &t, uint8_t &out)
{
    if (t == "aes")
        out = ZEL_DESFIRE_WIRE_AES;
    else if (t == "des")
        out = ZEL_DESFIRE_WIRE_DES;
    else if (t == "2k3des")
        out = ZEL_DESFIRE_WIRE_2K3DES;
    else if (t == "3k3des")
        out = ZEL_DESFIRE_WIRE_3K3DES;
    else
        return false;
    return true;
}

size_t key_len(uint8_t t) { return t == ZEL_DESFIRE_WIRE_DES ? 8 : t == ZEL_DESFIRE_WIRE_3K3DES ? 24 : 16; }

const char *file_type_name(uint8_t t)
{
    static const char *names[] = {"standard", "backup", "value", "linear record", "cyclic record", "transaction MAC"};
    return t < 6 ? names[t] : "unknown";
}

// The settings of a standard file with SDM, with the offsets the card reported.
void print_sdm_settings(uint8_t f, const zel_desfire_sdm_file_settings &s, bool json)
{
    const struct {
        const char *name;
        uint32_t value;
        bool on;
    } offsets[] = {
        {"uid_offset", s.uid_offset, s.meta_read_key_no == 14 && (s.sdm_options & ZEL_DESFIRE_SDM_UID_MIRROR)},
        {"read_ctr_offset", s.read_ctr_offset,
         s.meta_read_key_no == 14 && (s.sdm_options & ZEL_DESFIRE_SDM_READ_CTR_MIRROR)},
        {"picc_data_offset", s.picc_data_offset, s.meta_read_key_no < 14},
        {"mac_input_offset", s.mac_input_offset, s.file_read_key_no != 15},
        {"enc_offset", s.enc_offset, s.file_read_key_no != 15 && (s.sdm_options & ZEL_DESFIRE_SDM_ENC_FILE_DATA)},
        {"enc_length", s.enc_length, s.file_read_key_no != 15 && (s.sdm_options & ZEL_DESFIRE_SDM_ENC_FILE_DATA)},
        {"mac_offset", s.mac_offset, s.file_read_key_no != 15},
        {"read_ctr_limit", s.read_ctr_limit, (s.sdm_options & ZEL_DESFIRE_SDM_READ_CTR_LIMIT) != 0},
    };
    if (json) {
        std::printf("{\"file\": %u, \"communication\": %u, \"keys\": {\"read\": %u, \"write\": %u, "
                    "\"read_write\": %u, \"change\": %u}, \"size\": %u, \"sdm\": %s",
                    f, s.communication_settings, s.read_key_no, s.write_key_no, s.read_write_key_no, s.change_key_no,
                    s.file_size, s.sdm_enabled ? "true" : "false");
        if (s.sdm_enabled) {
            std::printf(", \"sdm_options\": %u, \"sdm_keys\": {\"meta_read\": %u, \"file_read\": %u, "
                        "\"read_ctr\": %u}",
                        s.sdm_options, s.meta_read_key_no, s.file_read_key_no, s.read_ctr_key_no);
            for (const auto &o : offsets)
                if (o.on)
                    std::printf(", \"%s\": %u", o.name, o.value);
        }
        std::printf("}\n");
        return;
    }
    std::printf("file %u: communication %u, keys read %u write %u read-write %u change %u, %u bytes, SDM %s\n", f,
                s.communication_settings, s.read_key_no, s.write_key_no, s.read_write_key_no, s.change_key_no,
                s.file_size, s.sdm_enabled ? "on" : "off");
    if (!s.sdm_enabled)
        return;
    std::printf("  SDM options %02X, keys meta read %u file read %u counter %u\n", s.sdm_options, s.meta_read_key_no,
                s.file_read_key_no, s.read_ctr_key_no);
    for (const auto &o : offsets)
        if (o.on)
            std::printf("  %s %u\n", o.name, o.value);
}

// With the built-in simulated reader the DESFire card comes first in the field for this session.
struct Ctx {
    ZEL_HANDLE hnd;
    KeyRef key{ZEL_DESFIRE_KEY_PROVIDED, 0, nullptr, ZEL_DESFIRE_WIRE_AES, 1};
    Bytes key_bytes;
    uint8_t aid_key = 0, comm = 0, new_type = ZEL_DESFIRE_WIRE_AES;
    uint8_t access[4] = {14, 14, 14, 0};
    uint16_t cs = 0, et = 0;
};

// The outcome of one operation: 0 when the reader and the card both did it.
int outcome(const char *what, ZEL_STATUS st, const Ctx &c)
{
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro desfire %s: %s\n", what, ZEL_Status2String(st));
        return 1;
    }
    if (c.cs != CARD_OPERATION_OK) {
        std::fprintf(stderr, "tandro desfire %s: card status %u (%s)\n", what, c.cs, ZEL_Status2String(c.cs));
        return 1;
    }
    return 0;
}

bool u32(const std::string &s, uint32_t &v) { return tandro::parse_u32(s, &v); }
bool aid_of(const std::string &s, uint32_t &v)
{
    Bytes b;
    if (s.size() != 6 || !parse_hex(s, b))
        return u32(s, v) && v <= 0xFFFFFF;
    v = static_cast<uint32_t>(b[0]) << 16 | b[1] << 8 | b[2];
    return true;
}

int run_desfire(const tandro::Options &opt, const tandro::Args &all)
{
    Ctx c{};
    tandro::Args args;
    std::string key_hex, type_name = "aes";
    int key_nr = -1, sam_nr = -1;
    bool no_auth = false;
    for (size_t i = 0; i < all.size(); ++i) {
        const std::string &a = all[i];
        auto value = [&](std::string &out) {
            if (i + 1 >= all.size())
                return false;
            out = all[++i];
            return true;
        };
        std::string v;
        uint32_t n = 0;
        if (a == "--key") {
            if (!value(key_hex))
                return tandro::usage_error("desfire", "--key takes hex");
        } else if (a == "--key-nr" || a == "--sam" || a == "--aid-key" || a == "--comm") {
            if (!value(v) || !u32(v, n) || n > 255)
                return tandro::usage_error("desfire", a + " takes a number");
            if (a == "--key-nr")
                key_nr = static_cast<int>(n);
            else if (a == "--sam")
                sam_nr = static_cast<int>(n);
            else if (a == "--aid-key")
                c.aid_key = static_cast<uint8_t>(n);
            else
                c.comm = static_cast<uint8_t>(n);
        } else if (a == "--key-type") {
            if (!value(type_name))
                return tandro::usage_error("desfire", "--key-type takes aes, des, 2k3des or 3k3des");
        } else if (a == "--new-type") {
            if (!value(v) || !key_type(v, c.new_type))
                return tandro::usage_error("desfire", "--new-type takes aes, des, 2k3des or 3k3des");
        } else if (a == "--access") {
            unsigned r = 0, w = 0, rw = 0, ch = 0;
            if (!value(v) || std::sscanf(v.c_str(), "%u,%u,%u,%u", &r, &w, &rw, &ch) != 4 || r > 15 || w > 15 ||
                rw > 15 || ch > 15)
                return tandro::usage_error("desfire", "--access takes R,W,RW,C (0 to 15 each)");
            c.access[0] = static_cast<uint8_t>(r);
            c.access[1] = static_cast<uint8_t>(w);
            c.access[2] = static_cast<uint8_t>(rw);
            c.access[3] = static_cast<uint8_t>(ch);
        } else if (a == "--no-auth") {
            no_auth = true;
        } else {
            args.push_back(a);
        }
    }
    if (!key_type(type_name, c.key.type))
        return tandro::usage_error("desfire", "--key-type takes aes, des, 2k3des or 3k3des");
    if (no_auth) {
        c.key = KeyRef{ZEL_DESFIRE_KEY_PROVIDED, 0, nullptr, ZEL_DESFIRE_WIRE_AES, 0};
    } else if (key_nr >= 0) {
        c.key.source = ZEL_DESFIRE_KEY_READER;
        c.key.number = static_cast<uint8_t>(key_nr);
    } else if (sam_nr >= 0) {
        c.key.source = ZEL_DESFIRE_KEY_SAM;
        c.key.number = static_cast<uint8_t>(sam_nr);
    } else {
        if (key_hex.empty())
            c.key_bytes.assign(key_len(c.key.type), 0); // the factory key
        else if (!parse_hex(key_hex, c.key_bytes) || c.key_bytes.size() != key_len(c.key.type))
            return tandro::usage_error("desfire", "--key takes " + std::to_string(key_len(c.key.type)) +
                                                      " hex bytes for this key type");
        c.key.bytes = c.key_bytes.data();
    }
    if (args.empty())
        return tandro::usage_error("desfire", "names no subcommand");
    const std::string sub = args[0];
    auto arg_aid = [&](size_t i, uint32_t &aid) { return i < args.size() && aid_of(args[i], aid); };
    auto arg_num = [&](size_t i, uint32_t &v) { return i < args.size() && u32(args[i], v); };

    tandro::ReaderSession session;
    if (!session.open("desfire", opt))
        return 1;
    if (session.sim())
        tandro::bring_forward(session.sim(), "desfire");
    c.hnd = session.hnd();
    using namespace zel::desfire;
    const bool j = opt.json;
    uint32_t aid = 0, fid = 0, n1 = 0, n2 = 0, n3 = 0;

    if (sub == "free") {
        uint32_t free_mem = 0;
        if (int e = outcome("free", Zel_int_DesfireFreeMemM(c.hnd, &free_mem, &c.cs, &c.et), c))
            return e;
        std::printf(j ? "{\"free_memory\": %u}\n" : "free memory %u bytes\n", free_mem);
        return 0;
    }
    if (sub == "uid") {
        uint8_t uid[10] = {}, len = 0;
        arg_aid(1, aid);
        if (int e = outcome("uid", zdf_get_uid(c.hnd, c.key, aid, c.aid_key, uid, &len, &c.cs, &c.et), c))
            return e;
        std::printf(j ? "{\"uid\": \"%s\"}\n" : "UID %s\n", hex(uid, len).c_str());
        return 0;
    }
    if (sub == "format")
        return outcome("format", zdf_format_card(c.hnd, c.key, &c.cs, &c.et), c);
    if (sub == "apps") {
        uint32_t aids[ZEL_DESFIRE_MAX_AIDS] = {};
        uint8_t count = 0;
        if (int e = outcome("apps", zdf_get_application_ids(c.hnd, c.key, aids, &count, &c.cs, &c.et), c))
            return e;
        if (j) {
            std::printf("{\"applications\": [");
            for (uint8_t i = 0; i < count; ++i)
                std::printf("%s\"%06X\"", i ? ", " : "", aids[i] & 0xFFFFFF);
            std::printf("]}\n");
        } else {
            std::printf("%u application%s\n", count, count == 1 ? "" : "s");
            for (uint8_t i = 0; i < count; ++i)
                std::printf("  AID %06X\n", aids[i] & 0xFFFFFF);
        }
        return 0;
    }
    if (sub == "app-create") {
        if (!arg_aid(1, aid))
            return tandro::usage_error("desfire", "app-create takes an AID (6 hex digits)");
        const std::string type = args.size() > 2 ? args[2] : "aes";
        uint32_t keys = 1, settings = 0x0F;
        if ((args.size() > 3 && !arg_num(3, keys)) || (args.size() > 4 && !arg_num(4, settings)) || keys < 1 ||
            keys > 14 || settings > 255)
            return tandro::usage_error("desfire", "app-create: KEYS 1 to 14, SETTINGS a byte");
        auto fn = type == "aes" ? zdf_create_aes_app : type == "des" ? zdf_create_des_app
                                 : type == "3k3des" ? zdf_create_3k3des_app : nullptr;
        if (!fn)
            return tandro::usage_error("desfire", "app-create: the type is aes, des or 3k3des");
        return outcome("app-create", fn(c.hnd, c.key, aid, static_cast<uint8_t>(settings), static_cast<uint8_t>(keys),
                                        &c.cs, &c.et),
                       c);
    }
    if (sub == "app-delete") {
        if (!arg_aid(1, aid))
            return tandro::usage_error("desfire", "app-delete takes an AID");
        return outcome("app-delete", zdf_delete_app(c.hnd, c.key, aid, &c.cs, &c.et), c);
    }
    if (sub == "key-settings") {
        if (!arg_aid(1, aid))
            return tandro::usage_error("desfire", "key-settings takes an AID");
        uint8_t s = 0, m = 0;
        if (int e = outcome("key-settings", zdf_get_key_settings(c.hnd, c.key, aid, &s, &m, &c.cs, &c.et), c))
            return e;
        const char *kt = (m & 0x80) ? "AES" : (m & 0x40) ? "3K3DES" : "DES/2K3DES";
        if (j)
            std::printf("{\"key_settings\": %u, \"keys\": %u, \"key_type\": \"%s\"}\n", s, m & 0x0F, kt);
        else
            std::printf("key settings %02X, %u %s key%s\n", s, m & 0x0F, kt, (m & 0x0F) == 1 ? "" : "s");
        return 0;
    }
    if (sub == "config") {
        // config OPTION HEX [AID]: the card's configuration option with its data, in the application if given.
        Bytes data;
        if (!arg_num(1, n1) || n1 > 255 || args.size() < 3 || !parse_hex(args[2], data) ||
            data.size() > ZEL_DESFIRE_MAX_CONFIG_DATA || (args.size() > 3 && !arg_aid(3, aid)))
            return tandro::usage_error("desfire", "config takes OPTION, the data in hex and an AID if any");
        return outcome("config", zdf_set_configuration_ex(c.hnd, c.key, aid, static_cast<uint8_t>(n1), data.data(),
                                                          static_cast<uint8_t>(data.size()), &c.cs, &c.et),
                       c);
    }
    if (!arg_aid(1, aid) || !arg_num(2, fid) || fid > 31)
        return tandro::usage_error("desfire", sub + " takes an AID and a file id (0 to 31)");
    const uint8_t f = static_cast<uint8_t>(fid);
    const uint8_t *ac = c.access;

    if (sub == "file-settings") {
        zel_desfire_file_settings s;
        if (int e = outcome("file-settings", zdf_get_file_settings(c.hnd, c.key, aid, f, &s, &c.cs, &c.et), c))
            return e;
        if (j) {
            std::printf("{\"file\": %u, \"type\": \"%s\", \"communication\": %u, \"keys\": {\"read\": %u, "
                        "\"write\": %u, \"read_write\": %u, \"change\": %u}",
                        f, file_type_name(s.file_type), s.communication_settings, s.read_key_no, s.write_key_no,
                        s.read_write_key_no, s.change_key_no);
            if (s.file_type <= 1)
                std::printf(", \"size\": %u", s.file_size);
            else if (s.file_type == 2)
                std::printf(", \"lower_limit\": %d, \"upper_limit\": %d, \"limited_credit\": %s, "
                            "\"limited_credit_value\": %u",
                            s.lower_limit, s.upper_limit, s.limited_credit_enabled ? "true" : "false",
                            s.limited_credit_value);
            else if (s.file_type <= 4)
                std::printf(", \"record_size\": %u, \"records\": %u, \"max_records\": %u", s.record_size,
                            s.current_records, s.max_records);
            else
                std::printf(", \"key_type\": %u, \"key_version\": %u", s.tmac_key_type, s.tmac_key_version);
            std::printf("}\n");
            return 0;
        }
        std::printf("file %u: %s, communication %u, keys read %u write %u read-write %u change %u\n", f,
                    file_type_name(s.file_type), s.communication_settings, s.read_key_no, s.write_key_no,
                    s.read_write_key_no, s.change_key_no);
        if (s.file_type <= 1)
            std::printf("  size %u bytes\n", s.file_size);
        else if (s.file_type == 2)
            std::printf("  limits %d to %d, limited credit %s (%u)\n", s.lower_limit, s.upper_limit,
                        s.limited_credit_enabled ? "on" : "off", s.limited_credit_value);
        else if (s.file_type <= 4)
            std::printf("  records of %u bytes: %u of %u\n", s.record_size, s.current_records, s.max_records);
        else
            std::printf("  key type %u, version %u\n", s.tmac_key_type, s.tmac_key_version);
        return 0;
    }
    if (sub == "sdm-settings") {
        if (c.key.type != ZEL_DESFIRE_WIRE_AES)
            return tandro::usage_error("desfire", "sdm-settings authenticates with an AES key");
        zel_desfire_sdm_file_settings s;
        const ZEL_STATUS st = zdf_get_file_settings_sdm(c.hnd, c.key, aid, f, &s, &c.cs, &c.et);
        if (st == ZEL_OK && c.cs == ZEL_DESFIRE_NOT_STANDARD_FILE) {
            std::fprintf(stderr, "tandro desfire sdm-settings: file %u is not a standard data file\n", f);
            return 1;
        }
        if (int e = outcome("sdm-settings", st, c))
            return e;
        print_sdm_settings(f, s, j);
        return 0;
    }
    if (sub == "file-delete")
        return outcome("file-delete", zdf_delete_file(c.hnd, c.key, aid, f, &c.cs, &c.et), c);
    if (sub == "file-create") {
        const std::string kind = args.size() > 3 ? args[3] : "";
        ZEL_STATUS st = ZEL_PARAMETERS_ERROR;
        if ((kind == "std" || kind == "backup") && arg_num(4, n1))
            st = (kind == "std" ? zdf_create_std_file : zdf_create_backup_file)(c.hnd, c.key, aid, f, n1, ac[0], ac[1],
                                                                                 ac[2], ac[3], c.comm, &c.cs, &c.et);
        else if (kind == "value" && args.size() > 6) {
            const int32_t lo = std::stoi(args[4]), up = std::stoi(args[5]), val = std::stoi(args[6]);
            st = zdf_create_value_file(c.hnd, c.key, aid, f, lo, up, val, 0, ac[0], ac[1], ac[2], ac[3], c.comm, &c.cs,
                                       &c.et);
        } else if ((kind == "linear" || kind == "cyclic") && arg_num(4, n1) && arg_num(5, n2))
            st = (kind == "linear" ? zdf_create_linear_file : zdf_create_cyclic_file)(
                c.hnd, c.key, aid, f, n1, n2, ac[0], ac[1], ac[2], ac[3], c.comm, &c.cs, &c.et);
        else
            return tandro::usage_error("desfire", "file-create: std|backup SIZE, value LOWER UPPER VALUE, "
                                                  "linear|cyclic RECSIZE RECORDS");
        return outcome("file-create", st, c);
    }
    if (sub == "read") {
        uint32_t off = 0, len = 0;
        if (args.size() > 4 && (!arg_num(3, off) || !arg_num(4, len)))
            return tandro::usage_error("desfire", "read: OFFSET LENGTH");
        if (args.size() <= 4) {
            zel_desfire_file_settings s;
            if (int e = outcome("read", zdf_get_file_settings(c.hnd, c.key, aid, f, &s, &c.cs, &c.et), c))
                return e;
            len = s.file_size;
        }
        if (off > 0xFFFF || len > 0xFFFF)
            return tandro::usage_error("desfire", "read: at most 65535");
        Bytes data(len ? len : 1);
        if (int e = outcome("read", zdf_read_std(c.hnd, c.key, aid, c.aid_key, f, static_cast<uint16_t>(off),
                                                 static_cast<uint16_t>(len), c.comm, data.data(), &c.cs, &c.et),
                            c))
            return e;
        std::printf(j ? "{\"data\": \"%s\"}\n" : "%s\n", hex(data.data(), len).c_str());
        return 0;
    }
    if (sub == "write" || sub == "record-write") {
        Bytes data;
        uint32_t off = 0;
        if (args.size() < 4 || !parse_hex(args[3], data) || data.size() > 0xFFFF || (args.size() > 4 && !arg_num(4, off)))
            return tandro::usage_error("desfire", sub + ": AID FID HEX [OFFSET]");
        auto fn = sub == "write" ? zdf_write_std : zdf_write_record;
        return outcome(sub.c_str(),
                       fn(c.hnd, c.key, aid, c.aid_key, f, static_cast<uint16_t>(off),
                          static_cast<uint16_t>(data.size()), c.comm, data.data(), &c.cs, &c.et),
                       c);
    }
    if (sub == "value") {
        int32_t v = 0;
        if (int e = outcome("value", zdf_read_value(c.hnd, c.key, aid, c.aid_key, f, c.comm, &v, &c.cs, &c.et), c))
            return e;
        std::printf(j ? "{\"value\": %d}\n" : "value %d\n", v);
        return 0;
    }
    if (sub == "credit" || sub == "debit") {
        if (!arg_num(3, n1))
            return tandro::usage_error("desfire", sub + ": AID FID AMOUNT");
        auto fn = sub == "credit" ? zdf_increase_value : zdf_decrease_value;
        return outcome(sub.c_str(), fn(c.hnd, c.key, aid, c.aid_key, f, c.comm, n1, &c.cs, &c.et), c);
    }
    if (sub == "records") {
        n2 = 0;
        n3 = 0;
        if (!arg_num(3, n1) || n1 == 0 || n1 > 0xFFFF || (args.size() > 5 && (!arg_num(4, n2) || !arg_num(5, n3))))
            return tandro::usage_error("desfire", "records: AID FID RECSIZE [OFFSET COUNT]");
        if (n3 == 0) {
            zel_desfire_file_settings s;
            if (int e = outcome("records", zdf_get_file_settings(c.hnd, c.key, aid, f, &s, &c.cs, &c.et), c))
                return e;
            n3 = s.current_records > n2 ? s.current_records - n2 : 0;
        }
        if (n3 == 0 || n2 > 0xFFFF || n3 > 0xFFFF || static_cast<uint64_t>(n1) * n3 > 0x100000)
            return tandro::usage_error("desfire", "records: nothing to read");
        Bytes data(static_cast<size_t>(n1) * n3);
        if (int e = outcome("records", zdf_read_records(c.hnd, c.key, aid, c.aid_key, f, static_cast<uint16_t>(n2),
                                                        static_cast<uint16_t>(n3), static_cast<uint16_t>(n1), c.comm,
                                                        data.data(), &c.cs, &c.et),
                            c))
            return e;
        if (j)
            std::printf("{\"records\": [");
        for (uint32_t i = 0; i < n3; ++i) {
            const std::string r = hex(data.data() + static_cast<size_t>(i) * n1, n1);
            if (j)
                std::printf("%s\"%s\"", i ? ", " : "", r.c_str());
            else
                std::printf("record %u: %s\n", i, r.c_str());
        }
        if (j)
            std::printf("]}\n");
        return 0;
    }
    if (sub == "records-clear")
        return outcome("records-clear", zdf_clear_records_2(c.hnd, c.key, aid, c.aid_key, f, &c.cs, &c.et), c);
    if (sub == "change-key") {
        Bytes nk, ok;
        if (args.size() < 5 || !parse_hex(args[3], nk) || !parse_hex(args[4], ok) ||
            nk.size() != key_len(c.new_type) || ok.size() != key_len(c.new_type))
            return tandro::usage_error("desfire", "change-key: AID KEYNO NEWHEX OLDHEX (keys of --new-type)");
        const uint8_t auth_nr = c.key.source == ZEL_DESFIRE_KEY_PROVIDED ? ZEL_DESFIRE_KEY_GIVEN : c.key.number;
        return outcome("change-key",
                       Zel_int_DesfireChangeKeyM(c.hnd, auth_nr, c.key.bytes, aid, c.aid_key, ZEL_DESFIRE_KEY_GIVEN,
                                                 nk.data(), f, ZEL_DESFIRE_KEY_GIVEN, ok.data(), &c.cs, &c.et, 0,
                                                 c.key.type, c.new_type),
                       c);
    }
    return tandro::usage_error("desfire", "unknown subcommand '" + sub + "'");
}

int run_store_key(const tandro::Options &opt, const tandro::Args &args)
{
    Bytes key;
    uint32_t nr = 0;
    uint8_t type = ZEL_DESFIRE_WIRE_AES;
    if (args.size() < 2 || !tandro::parse_u32(args[0], &nr) || nr > 255 || !parse_hex(args[1], key) ||
        (args.size() > 2 && !key_type(args[2], type)) || key.size() != key_len(type))
        return tandro::usage_error("desfire-key", "N HEX [aes|des|2k3des|3k3des]");
    tandro::ReaderSession session;
    if (!session.open("desfire-key", opt))
        return 1;
    const ZEL_STATUS st = Zel_int_DesfireWriteKeyM(session.hnd(), static_cast<uint8_t>(nr), key.data(), type);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro desfire-key: %s\n", ZEL_Status2String(st));
        return 1;
    }
    std::printf("key %u stored in the reader\n", nr);
    return 0;
}

const tandro::Registration desfire_cmd({"desfire", kUsage, "DESFire applications, files, data, values, records, keys",
                                        run_desfire});
const tandro::Registration desfire_key_cmd({"desfire-key", "N HEX [aes|des|2k3des|3k3des]",
                                            "puts a DESFire key in the reader's key store", run_store_key});

} // namespace
