// tandro desfire: applications, files, data, values, records and keys of a DESFire card, through the
// reader's DESFire engine.
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/progress.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;
using tandro::parse_hex;
using tandro::to_hex;

// Where the key of the operations is (ZEL_DESFIRE_KEY_*), its number there, its bytes when given, its
// type (ZEL_DESFIRE_WIRE_*) and whether to authenticate at all.
struct Key {
    uint8_t source = ZEL_DESFIRE_KEY_PROVIDED;
    uint8_t number = 0;
    const uint8_t *bytes = nullptr;
    uint8_t type = ZEL_DESFIRE_WIRE_AES;
    bool auth = true;
};

// The public forms of one operation, by where the key is and, within that, by its wire type (AES, 3K3DES,
// DES, 2K3DES); null where the library offers no such form.
template <typename... A> struct Forms {
    ZEL_STATUS (*reader[4])(ZEL_HANDLE, uint8_t, A...);
    ZEL_STATUS (*given[4])(ZEL_HANDLE, const uint8_t *, A...);
    ZEL_STATUS (*sam[4])(ZEL_HANDLE, uint8_t, A...);
    ZEL_STATUS (*none)(ZEL_HANDLE, A...);
};
// The Forms type of an operation, from its AES reader-key form.
template <typename... A> Forms<A...> forms_like(ZEL_STATUS (*)(ZEL_HANDLE, uint8_t, A...));

// S the operation's stem, Z what its names end in before the M of the handle forms.
#define TD_FORMS_T(S, Z) decltype(forms_like(Zel_int_##S##_aes##Z##M))
#define TD_READER(S, Z)                                                                                          \
    {                                                                                                            \
        Zel_int_##S##_aes##Z##M, Zel_int_##S##_3k3des##Z##M, Zel_int_##S##_des##Z##M, Zel_int_##S##_2k3des##Z##M \
    }
#define TD_GIVEN(S, Z)                                                                         \
    {                                                                                          \
        Zel_int_##S##_aes_PK##Z##M, Zel_int_##S##_3k3des_PK##Z##M, Zel_int_##S##_des_PK##Z##M, \
            Zel_int_##S##_2k3des_PK##Z##M                                                      \
    }
#define TD_SAM(S, Z)                                                                           \
    {                                                                                          \
        Zel_SAM_##S##AesAuth##Z##M, Zel_SAM_##S##3k3desAuth##Z##M, Zel_SAM_##S##DesAuth##Z##M, \
            Zel_SAM_##S##2k3desAuth##Z##M                                                      \
    }
// Every key form, with or without the one that does not authenticate.
#define TD_ALL(S, Z)                                                               \
    {                                                                              \
        TD_READER(S, Z), TD_GIVEN(S, Z), TD_SAM(S, Z), Zel_int_##S##_no_auth##Z##M \
    }
#define TD_KEYED(S, Z)                                         \
    {                                                          \
        TD_READER(S, Z), TD_GIVEN(S, Z), TD_SAM(S, Z), nullptr \
    }

const TD_FORMS_T(DesfireFormatCard, ) kFormat = TD_KEYED(DesfireFormatCard, );
const TD_FORMS_T(GetDesfireUid, ) kUid = TD_KEYED(GetDesfireUid, );
const TD_FORMS_T(DesfireSetConfigurationEx, ) kConfig = TD_KEYED(DesfireSetConfigurationEx, );
const TD_FORMS_T(DesfireGetKeySettings, ) kKeySettings = TD_ALL(DesfireGetKeySettings, );
const TD_FORMS_T(DesfireGetApplicationIds, ) kAppIds = TD_ALL(DesfireGetApplicationIds, );
const TD_FORMS_T(DesfireCreateAesApplication, ) kCreateAes = TD_ALL(DesfireCreateAesApplication, );
const TD_FORMS_T(DesfireCreateDesApplication, ) kCreateDes = TD_ALL(DesfireCreateDesApplication, );
const TD_FORMS_T(DesfireCreate3k3desApplication, ) kCreate3k3des = TD_ALL(DesfireCreate3k3desApplication, );
const TD_FORMS_T(DesfireDeleteApplication, ) kDeleteApp = TD_KEYED(DesfireDeleteApplication, );
const TD_FORMS_T(DesfireCreateStdDataFile, ) kCreateStd = TD_ALL(DesfireCreateStdDataFile, );
const TD_FORMS_T(DesfireCreateBackupDataFile, ) kCreateBackup = TD_ALL(DesfireCreateBackupDataFile, );
const TD_FORMS_T(DesfireCreateValueFile, ) kCreateValue = TD_ALL(DesfireCreateValueFile, );
const TD_FORMS_T(DesfireCreateLinearRecordFile, ) kCreateLinear = TD_ALL(DesfireCreateLinearRecordFile, );
const TD_FORMS_T(DesfireCreateCyclicRecordFile, ) kCreateCyclic = TD_ALL(DesfireCreateCyclicRecordFile, );
const TD_FORMS_T(DesfireDeleteFile, ) kDeleteFile = TD_ALL(DesfireDeleteFile, );
const TD_FORMS_T(DesfireGetFileSettings, ) kFileSettings = TD_ALL(DesfireGetFileSettings, );
// SDM settings come by AES keys only.
const TD_FORMS_T(DesfireGetFileSettingsSdm, ) kSdmSettings = {{Zel_int_DesfireGetFileSettingsSdm_aesM},
                                                              {Zel_int_DesfireGetFileSettingsSdm_aes_PKM},
                                                              {Zel_SAM_DesfireGetFileSettingsSdmAesAuthM},
                                                              nullptr};
const TD_FORMS_T(DesfireReadStdDataFile, ) kReadStd = TD_ALL(DesfireReadStdDataFile, );
const TD_FORMS_T(DesfireWriteStdDataFile, ) kWriteStd = TD_ALL(DesfireWriteStdDataFile, );
const TD_FORMS_T(DesfireReadValueFile, ) kReadValue = TD_ALL(DesfireReadValueFile, );
const TD_FORMS_T(DesfireIncreaseValueFile, ) kCredit = TD_ALL(DesfireIncreaseValueFile, );
const TD_FORMS_T(DesfireDecreaseValueFile, ) kDebit = TD_ALL(DesfireDecreaseValueFile, );
const TD_FORMS_T(DesfireReadRecords, ) kReadRecords = TD_ALL(DesfireReadRecords, );
const TD_FORMS_T(DesfireWriteRecord, ) kWriteRecord = TD_ALL(DesfireWriteRecord, );
const TD_FORMS_T(DesfireClearRecordFile, _2) kClearRecords = TD_ALL(DesfireClearRecordFile, _2);

#undef TD_FORMS_T
#undef TD_READER
#undef TD_GIVEN
#undef TD_SAM
#undef TD_ALL
#undef TD_KEYED

const char *const kOptions =
    "[--key HEX|--key-nr N|--sam N|--no-auth] [--key-type T] [--aid-key N] [--comm N] [--access R,W,RW,C] ";

const tandro::OptionTable TABLE = {
    {
        {"free", "the card's free memory"},
        {"uid [AID]", "the card's real UID (with the key of the card, or of the application AID)"},
        {"format", "formats the card (authenticates with the card master key)"},
        {"config OPTION HEX [AID]", "sets a configuration option with its data, in the application if given"},
        {"apps", "the application ids"},
        {"app-create AID [aes|des|3k3des] [KEYS] [SETTINGS]", "creates an application (aes, 1 key, settings 0F)"},
        {"app-delete AID", "deletes an application"},
        {"key-settings AID", "an application's key settings, key count and key type"},
        {"file-settings AID FID", "a file's type, access rights and size"},
        {"sdm-settings AID FID", "a standard file's settings with SDM (AES keys only)"},
        {"file-create AID FID std|backup SIZE", "creates a standard or backup data file"},
        {"file-create AID FID value LOWER UPPER VALUE", "creates a value file with its limits"},
        {"file-create AID FID linear|cyclic RECSIZE RECORDS", "creates a record file"},
        {"file-delete AID FID", "deletes a file"},
        {"read AID FID [OFFSET LENGTH]", "reads a data file (the whole file without OFFSET LENGTH)"},
        {"write AID FID HEX [OFFSET]", "writes HEX to a data file at OFFSET (default 0)"},
        {"value AID FID", "reads a value file"},
        {"credit AID FID AMOUNT", "adds AMOUNT to a value file"},
        {"debit AID FID AMOUNT", "takes AMOUNT from a value file"},
        {"records AID FID RECSIZE [OFFSET COUNT]", "reads records of RECSIZE bytes (all without OFFSET COUNT)"},
        {"record-write AID FID HEX [OFFSET]", "writes a record"},
        {"records-clear AID FID", "clears a record file"},
        {"change-key AID KEYNO NEWHEX OLDHEX", "changes key KEYNO of the application to NEWHEX (keys of --new-type)"},
    },
    {
        {"--key", "HEX", "the key to authenticate with (default: the all-zero factory key of --key-type)"},
        {"--key-nr", "N", "the reader's stored DESFire key N"},
        {"--sam", "N", "key entry N of the reader's SAM"},
        {"--no-auth", nullptr, "no authentication"},
        {"--key-type", "T", "aes (the default), des, 2k3des or 3k3des"},
        {"--new-type", "T", "change-key: the type of the new and old keys (default aes)"},
        {"--aid-key", "N", "the application key number to authenticate with (default 0)"},
        {"--comm", "N", "the communication mode of the file operations (0 plain, 1 MACed, 3 enciphered)"},
        {"--access", "R,W,RW,C", "file-create: the read, write, read-write and change keys (0 to 15; 14 free)"},
    },
    "AID is six hex digits (or a number) and FID a file id from 0 to 31. The key forms are tried in the order "
    "--no-auth, --key-nr, --sam, --key. With the built-in simulated reader the DESFire card comes first in the "
    "field. Reads and writes of files show a progress bar on a terminal.",
};

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

size_t key_len(uint8_t t)
{
    return t == ZEL_DESFIRE_WIRE_DES ? 8 : t == ZEL_DESFIRE_WIRE_3K3DES ? 24 : 16;
}

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

// What every subcommand works with: the handle, the key and the options, the words after the subcommand
// (args[0] is its name) and the card's outcome of the last operation.
struct Ctx {
    ZEL_HANDLE hnd = nullptr;
    const tandro::Options *opt = nullptr;
    bool json = false;
    Key key;
    Bytes key_bytes;
    uint8_t aid_key = 0, comm = 0, new_type = ZEL_DESFIRE_WIRE_AES;
    uint8_t access[4] = {14, 14, 14, 0};
    tandro::Args args;
    std::string sub;
    const char *usage = ""; // the subcommand's arguments
    uint32_t aid = 0;
    uint8_t file = 0;
    uint16_t cs = 0, et = 0;
    bool no_form = false; // the library has no form of the operation for this key
};

// Runs an operation in the form that fits the key.
template <typename... A, typename... B> ZEL_STATUS run_form(Ctx &c, const Forms<A...> &f, B... args)
{
    static const uint8_t kZeroKey[24] = {};
    const Key &k = c.key;
    const uint8_t t = k.type & 3;
    if (!k.auth) {
        // An operation whose frame has no word on authentication goes out as with a given all-zero AES key,
        // which is what such a frame without a key holds.
        if (f.none)
            return f.none(c.hnd, args..., &c.cs, &c.et);
        if (f.given[ZEL_DESFIRE_WIRE_AES])
            return f.given[ZEL_DESFIRE_WIRE_AES](c.hnd, kZeroKey, args..., &c.cs, &c.et);
    } else if (k.source == ZEL_DESFIRE_KEY_READER) {
        if (f.reader[t])
            return f.reader[t](c.hnd, k.number, args..., &c.cs, &c.et);
    } else if (k.source == ZEL_DESFIRE_KEY_SAM) {
        if (f.sam[t])
            return f.sam[t](c.hnd, k.number, args..., &c.cs, &c.et);
    } else if (f.given[t]) {
        return f.given[t](c.hnd, k.bytes, args..., &c.cs, &c.et);
    }
    c.no_form = true;
    return ZEL_PARAMETERS_ERROR;
}

// The outcome of one operation: 0 when the reader and the card both did it.
int outcome(const char *what, ZEL_STATUS st, const Ctx &c)
{
    if (c.no_form)
        return tandro::usage_error("desfire", std::string(what) + " has no form for this key");
    if (st != ZEL_OK)
        return tandro::fail("desfire", what, st);
    if (c.cs != CARD_OPERATION_OK)
        return tandro::fail_text(
            "desfire",
            std::string(what) + ": card status " + std::to_string(c.cs) + " (" + ZEL_Status2String(c.cs) + ")", c.cs);
    return 0;
}

// The outcome of a change to the card, confirmed when it was made.
int changed(const char *what, ZEL_STATUS st, const Ctx &c)
{
    if (int e = outcome(what, st, c))
        return e;
    if (c.json)
        std::printf("{\"done\": %s}\n", tandro::json_string(what).c_str());
    else
        std::printf("%s: done\n", what);
    return 0;
}

bool u32(const std::string &s, uint32_t &v)
{
    return tandro::parse_u32(s, &v);
}
// A signed 32-bit decimal number.
bool i32(const std::string &s, int32_t &v)
{
    if (s.empty())
        return false;
    errno = 0;
    char *end = nullptr;
    const long long x = std::strtoll(s.c_str(), &end, 10);
    if (errno != 0 || *end != 0 || x < INT32_MIN || x > INT32_MAX)
        return false;
    v = static_cast<int32_t>(x);
    return true;
}
bool aid_of(const std::string &s, uint32_t &v)
{
    Bytes b;
    if (s.size() != 6 || !parse_hex(s, b) || b.size() != 3)
        return u32(s, v) && v <= 0xFFFFFF;
    v = static_cast<uint32_t>(b[0]) << 16 | b[1] << 8 | b[2];
    return true;
}
bool arg_aid(const Ctx &c, size_t i, uint32_t &aid)
{
    return i < c.args.size() && aid_of(c.args[i], aid);
}
bool arg_num(const Ctx &c, size_t i, uint32_t &v)
{
    return i < c.args.size() && u32(c.args[i], v);
}

// ---- The card and its applications ----

int sub_free(Ctx &c)
{
    uint32_t free_mem = 0;
    if (int e = outcome("free", Zel_int_DesfireFreeMemM(c.hnd, &free_mem, &c.cs, &c.et), c))
        return e;
    std::printf(c.json ? "{\"free_memory\": %u}\n" : "free memory %u bytes\n", free_mem);
    return 0;
}

int sub_uid(Ctx &c)
{
    uint8_t uid[10] = {}, len = 0;
    arg_aid(c, 1, c.aid);
    if (int e = outcome("uid", run_form(c, kUid, c.aid, c.aid_key, uid, &len), c))
        return e;
    std::printf(c.json ? "{\"uid\": \"%s\"}\n" : "UID %s\n", to_hex(uid, len).c_str());
    return 0;
}

int sub_format(Ctx &c)
{
    return changed("format", run_form(c, kFormat), c);
}

// config OPTION HEX [AID]: the card's configuration option with its data, in the application if given.
int sub_config(Ctx &c)
{
    Bytes data;
    uint32_t option = 0;
    if (!arg_num(c, 1, option) || option > 255 || c.args.size() < 3 || !parse_hex(c.args[2], data) ||
        data.size() > ZEL_DESFIRE_MAX_CONFIG_DATA || (c.args.size() > 3 && !arg_aid(c, 3, c.aid)))
        return tandro::usage_error("desfire", "config takes OPTION, the data in hex and an AID if any");
    return changed("config",
                   run_form(c, kConfig, c.aid, static_cast<uint8_t>(option), static_cast<const uint8_t *>(data.data()),
                            static_cast<uint8_t>(data.size())),
                   c);
}

int sub_apps(Ctx &c)
{
    uint32_t aids[ZEL_DESFIRE_MAX_AIDS] = {};
    uint8_t count = 0;
    if (int e = outcome("apps", run_form(c, kAppIds, aids, &count), c))
        return e;
    if (c.json) {
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

int sub_app_create(Ctx &c)
{
    const tandro::Args &args = c.args;
    if (!arg_aid(c, 1, c.aid))
        return tandro::usage_error("desfire", "app-create takes an AID (6 hex digits)");
    const std::string type = args.size() > 2 ? args[2] : "aes";
    uint32_t keys = 1, settings = 0x0F;
    if ((args.size() > 3 && !arg_num(c, 3, keys)) || (args.size() > 4 && !arg_num(c, 4, settings)) || keys < 1 ||
        keys > 14 || settings > 255)
        return tandro::usage_error("desfire", "app-create: KEYS 1 to 14, SETTINGS a byte");
    const auto *forms = type == "aes"      ? &kCreateAes
                        : type == "des"    ? &kCreateDes
                        : type == "3k3des" ? &kCreate3k3des
                                           : nullptr;
    if (!forms)
        return tandro::usage_error("desfire", "app-create: the type is aes, des or 3k3des");
    return changed("app-create", run_form(c, *forms, c.aid, static_cast<uint8_t>(settings), static_cast<uint8_t>(keys)),
                   c);
}

int sub_app_delete(Ctx &c)
{
    if (!arg_aid(c, 1, c.aid))
        return tandro::usage_error("desfire", "app-delete takes an AID");
    return changed("app-delete", run_form(c, kDeleteApp, c.aid), c);
}

int sub_key_settings(Ctx &c)
{
    if (!arg_aid(c, 1, c.aid))
        return tandro::usage_error("desfire", "key-settings takes an AID");
    uint8_t s = 0, m = 0;
    if (int e = outcome("key-settings", run_form(c, kKeySettings, c.aid, &s, &m), c))
        return e;
    const char *kt = (m & 0x80) ? "AES" : (m & 0x40) ? "3K3DES" : "DES/2K3DES";
    if (c.json)
        std::printf("{\"key_settings\": %u, \"keys\": %u, \"key_type\": \"%s\"}\n", s, m & 0x0F, kt);
    else
        std::printf("key settings %02X, %u %s key%s\n", s, m & 0x0F, kt, (m & 0x0F) == 1 ? "" : "s");
    return 0;
}

// ---- Files (after AID FID) ----

void print_file_settings(uint8_t f, const zel_desfire_file_settings &s, bool json)
{
    if (json) {
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
            std::printf(", \"record_size\": %u, \"records\": %u, \"max_records\": %u", s.record_size, s.current_records,
                        s.max_records);
        else
            std::printf(", \"key_type\": %u, \"key_version\": %u", s.tmac_key_type, s.tmac_key_version);
        std::printf("}\n");
        return;
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
}

int sub_file_settings(Ctx &c)
{
    zel_desfire_file_settings s;
    if (int e = outcome("file-settings", run_form(c, kFileSettings, c.aid, c.file, &s), c))
        return e;
    print_file_settings(c.file, s, c.json);
    return 0;
}

int sub_sdm_settings(Ctx &c)
{
    if (c.key.type != ZEL_DESFIRE_WIRE_AES)
        return tandro::usage_error("desfire", "sdm-settings authenticates with an AES key");
    zel_desfire_sdm_file_settings s;
    const ZEL_STATUS st = run_form(c, kSdmSettings, c.aid, c.file, &s);
    if (st == ZEL_OK && c.cs == ZEL_DESFIRE_NOT_STANDARD_FILE) {
        std::fprintf(stderr, "tandro desfire sdm-settings: file %u is not a standard data file\n", c.file);
        return 1;
    }
    if (int e = outcome("sdm-settings", st, c))
        return e;
    print_sdm_settings(c.file, s, c.json);
    return 0;
}

int sub_file_delete(Ctx &c)
{
    return changed("file-delete", run_form(c, kDeleteFile, c.aid, c.file), c);
}

int sub_file_create(Ctx &c)
{
    const tandro::Args &args = c.args;
    const uint8_t *ac = c.access;
    const std::string kind = args.size() > 3 ? args[3] : "";
    uint32_t n1 = 0, n2 = 0;
    int32_t lo = 0, up = 0, val = 0;
    ZEL_STATUS st = ZEL_PARAMETERS_ERROR;
    if ((kind == "std" || kind == "backup") && arg_num(c, 4, n1))
        st = run_form(c, kind == "std" ? kCreateStd : kCreateBackup, c.aid, c.file, n1, ac[0], ac[1], ac[2], ac[3],
                      c.comm);
    else if (kind == "value" && args.size() > 6 && i32(args[4], lo) && i32(args[5], up) && i32(args[6], val))
        st = run_form(c, kCreateValue, c.aid, c.file, lo, up, val, uint8_t{0}, ac[0], ac[1], ac[2], ac[3], c.comm);
    else if ((kind == "linear" || kind == "cyclic") && arg_num(c, 4, n1) && arg_num(c, 5, n2))
        st = run_form(c, kind == "linear" ? kCreateLinear : kCreateCyclic, c.aid, c.file, n1, n2, ac[0], ac[1], ac[2],
                      ac[3], c.comm);
    else
        return tandro::usage_error("desfire", "file-create: std|backup SIZE, value LOWER UPPER VALUE, "
                                              "linear|cyclic RECSIZE RECORDS");
    return changed("file-create", st, c);
}

// ---- Data, values and records (after AID FID) ----

int sub_read(Ctx &c)
{
    uint32_t off = 0, len = 0;
    if (c.args.size() > 4 && (!arg_num(c, 3, off) || !arg_num(c, 4, len)))
        return tandro::usage_error("desfire", "read: OFFSET LENGTH");
    if (c.args.size() <= 4) {
        zel_desfire_file_settings s;
        if (int e = outcome("read", run_form(c, kFileSettings, c.aid, c.file, &s), c))
            return e;
        len = s.file_size;
    }
    if (off > 0xFFFF || len > 0xFFFF)
        return tandro::usage_error("desfire", "read: at most 65535");
    Bytes data(len ? len : 1);
    tandro::LinkProgress bar(*c.opt, c.hnd, "read", len);
    const ZEL_STATUS st = run_form(c, kReadStd, c.aid, c.aid_key, c.file, static_cast<uint16_t>(off),
                                   static_cast<uint16_t>(len), c.comm, data.data());
    bar.done(st == ZEL_OK && c.cs == CARD_OPERATION_OK);
    if (int e = outcome("read", st, c))
        return e;
    std::printf(c.json ? "{\"data\": \"%s\"}\n" : "%s\n", to_hex(data.data(), len).c_str());
    return 0;
}

// write and record-write: AID FID HEX [OFFSET].
int sub_write(Ctx &c)
{
    Bytes data;
    uint32_t off = 0;
    if (c.args.size() < 4 || !parse_hex(c.args[3], data) || data.size() > 0xFFFF ||
        (c.args.size() > 4 && !arg_num(c, 4, off)))
        return tandro::usage_error("desfire", c.sub + ": " + c.usage);
    const auto &forms = c.sub == "write" ? kWriteStd : kWriteRecord;
    tandro::LinkProgress bar(*c.opt, c.hnd, c.sub.c_str(), data.size());
    const ZEL_STATUS st =
        run_form(c, forms, c.aid, c.aid_key, c.file, static_cast<uint16_t>(off), static_cast<uint16_t>(data.size()),
                 c.comm, static_cast<const uint8_t *>(data.data()));
    bar.done(st == ZEL_OK && c.cs == CARD_OPERATION_OK);
    return changed(c.sub.c_str(), st, c);
}

int sub_value(Ctx &c)
{
    int32_t v = 0;
    if (int e = outcome("value", run_form(c, kReadValue, c.aid, c.aid_key, c.file, c.comm, &v), c))
        return e;
    std::printf(c.json ? "{\"value\": %d}\n" : "value %d\n", v);
    return 0;
}

// credit and debit: AID FID AMOUNT.
int sub_credit_debit(Ctx &c)
{
    uint32_t amount = 0;
    if (!arg_num(c, 3, amount))
        return tandro::usage_error("desfire", c.sub + ": " + c.usage);
    const auto &forms = c.sub == "credit" ? kCredit : kDebit;
    return changed(c.sub.c_str(), run_form(c, forms, c.aid, c.aid_key, c.file, c.comm, amount), c);
}

int sub_records(Ctx &c)
{
    uint32_t size = 0, off = 0, count = 0;
    if (!arg_num(c, 3, size) || size == 0 || size > 0xFFFF ||
        (c.args.size() > 5 && (!arg_num(c, 4, off) || !arg_num(c, 5, count))))
        return tandro::usage_error("desfire", c.sub + ": " + c.usage);
    if (count == 0) {
        zel_desfire_file_settings s;
        if (int e = outcome("records", run_form(c, kFileSettings, c.aid, c.file, &s), c))
            return e;
        count = s.current_records > off ? s.current_records - off : 0;
    }
    if (count == 0 || off > 0xFFFF || count > 0xFFFF || static_cast<uint64_t>(size) * count > 0x100000)
        return tandro::usage_error("desfire", "records: nothing to read");
    Bytes data(static_cast<size_t>(size) * count);
    tandro::LinkProgress bar(*c.opt, c.hnd, "records", data.size());
    const ZEL_STATUS st = run_form(c, kReadRecords, c.aid, c.aid_key, c.file, static_cast<uint16_t>(off),
                                   static_cast<uint16_t>(count), static_cast<uint16_t>(size), c.comm, data.data());
    bar.done(st == ZEL_OK && c.cs == CARD_OPERATION_OK);
    if (int e = outcome("records", st, c))
        return e;
    if (c.json)
        std::printf("{\"records\": [");
    for (uint32_t i = 0; i < count; ++i) {
        const std::string r = to_hex(data.data() + static_cast<size_t>(i) * size, size);
        if (c.json)
            std::printf("%s\"%s\"", i ? ", " : "", r.c_str());
        else
            std::printf("record %u: %s\n", i, r.c_str());
    }
    if (c.json)
        std::printf("]}\n");
    return 0;
}

int sub_records_clear(Ctx &c)
{
    return changed("records-clear", run_form(c, kClearRecords, c.aid, c.aid_key, c.file), c);
}

// change-key AID KEYNO NEWHEX OLDHEX: the key number stands where the other subcommands have their file.
int sub_change_key(Ctx &c)
{
    Bytes nk, ok;
    if (c.args.size() < 5 || !parse_hex(c.args[3], nk) || !parse_hex(c.args[4], ok) ||
        nk.size() != key_len(c.new_type) || ok.size() != key_len(c.new_type))
        return tandro::usage_error("desfire", "change-key: AID KEYNO NEWHEX OLDHEX (keys of --new-type)");
    const uint8_t auth_nr = c.key.source == ZEL_DESFIRE_KEY_PROVIDED ? ZEL_DESFIRE_KEY_GIVEN : c.key.number;
    return changed("change-key",
                   Zel_int_DesfireChangeKeyM(c.hnd, auth_nr, c.key.bytes, c.aid, c.aid_key, ZEL_DESFIRE_KEY_GIVEN,
                                             nk.data(), c.file, ZEL_DESFIRE_KEY_GIVEN, ok.data(), &c.cs, &c.et, 0,
                                             c.key.type, c.new_type),
                   c);
}

// The subcommands: name, arguments, handler, and whether an AID and a file id (0 to 31) come first.
struct Sub {
    const char *name;
    const char *usage;
    int (*run)(Ctx &c);
    bool on_file;
};

const Sub kSubs[] = {
    {"free", "", sub_free, false},
    {"uid", "[AID]", sub_uid, false},
    {"format", "", sub_format, false},
    {"config", "OPTION HEX [AID]", sub_config, false},
    {"apps", "", sub_apps, false},
    {"app-create", "AID [aes|des|3k3des] [KEYS] [SETTINGS]", sub_app_create, false},
    {"app-delete", "AID", sub_app_delete, false},
    {"key-settings", "AID", sub_key_settings, false},
    {"file-settings", "AID FID", sub_file_settings, true},
    {"sdm-settings", "AID FID", sub_sdm_settings, true},
    {"file-create", "AID FID std|backup SIZE | value LOWER UPPER VALUE | linear|cyclic RECSIZE RECORDS",
     sub_file_create, true},
    {"file-delete", "AID FID", sub_file_delete, true},
    {"read", "AID FID [OFFSET LENGTH]", sub_read, true},
    {"write", "AID FID HEX [OFFSET]", sub_write, true},
    {"value", "AID FID", sub_value, true},
    {"credit", "AID FID AMOUNT", sub_credit_debit, true},
    {"debit", "AID FID AMOUNT", sub_credit_debit, true},
    {"records", "AID FID RECSIZE [OFFSET COUNT]", sub_records, true},
    {"record-write", "AID FID HEX [OFFSET]", sub_write, true},
    {"records-clear", "AID FID", sub_records_clear, true},
    {"change-key", "AID KEYNO NEWHEX OLDHEX", sub_change_key, true},
};

const Sub *find_sub(const std::string &name)
{
    for (const Sub &s : kSubs)
        if (name == s.name)
            return &s;
    return nullptr;
}

// The command's usage line: the options, then the subcommands.
const std::string &usage_text()
{
    static const std::string text = [] {
        std::string t = kOptions;
        for (const Sub &s : kSubs)
            t += std::string(&s == kSubs ? "" : "|") + s.name;
        return t + " ...";
    }();
    return text;
}

// The options the table parsed; the words, the subcommand first, land in c.args. Nonzero: a usage error.
int take_options(Ctx &c, const tandro::Parsed &p)
{
    c.args = p.words;
    uint32_t n = 0;
    int key_nr = -1, sam_nr = -1;
    for (const char *name : {"--key-nr", "--sam", "--aid-key", "--comm"}) {
        if (!p.has(name))
            continue;
        if (!u32(p.value(name), n) || n > 255)
            return tandro::usage_error("desfire", std::string(name) + " takes a number");
        const std::string a = name;
        if (a == "--key-nr")
            key_nr = static_cast<int>(n);
        else if (a == "--sam")
            sam_nr = static_cast<int>(n);
        else if (a == "--aid-key")
            c.aid_key = static_cast<uint8_t>(n);
        else
            c.comm = static_cast<uint8_t>(n);
    }
    if (p.has("--new-type") && !key_type(p.value("--new-type"), c.new_type))
        return tandro::usage_error("desfire", "--new-type takes aes, des, 2k3des or 3k3des");
    if (p.has("--access")) {
        unsigned r = 0, w = 0, rw = 0, ch = 0;
        if (std::sscanf(p.value("--access").c_str(), "%u,%u,%u,%u", &r, &w, &rw, &ch) != 4 || r > 15 || w > 15 ||
            rw > 15 || ch > 15)
            return tandro::usage_error("desfire", "--access takes R,W,RW,C (0 to 15 each)");
        c.access[0] = static_cast<uint8_t>(r);
        c.access[1] = static_cast<uint8_t>(w);
        c.access[2] = static_cast<uint8_t>(rw);
        c.access[3] = static_cast<uint8_t>(ch);
    }
    if (!key_type(p.value("--key-type", "aes"), c.key.type))
        return tandro::usage_error("desfire", "--key-type takes aes, des, 2k3des or 3k3des");
    if (p.has("--no-auth")) {
        c.key = Key{};
        c.key.auth = false;
    } else if (key_nr >= 0) {
        c.key.source = ZEL_DESFIRE_KEY_READER;
        c.key.number = static_cast<uint8_t>(key_nr);
    } else if (sam_nr >= 0) {
        c.key.source = ZEL_DESFIRE_KEY_SAM;
        c.key.number = static_cast<uint8_t>(sam_nr);
    } else {
        const std::string key_hex = p.value("--key");
        if (key_hex.empty())
            c.key_bytes.assign(key_len(c.key.type), 0); // the factory key
        else if (!parse_hex(key_hex, c.key_bytes) || c.key_bytes.size() != key_len(c.key.type))
            return tandro::usage_error("desfire", "--key takes " + std::to_string(key_len(c.key.type)) +
                                                      " hex bytes for this key type");
        c.key.bytes = c.key_bytes.data();
    }
    return 0;
}

int run_desfire(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("desfire", TABLE, all, parsed))
        return 2;
    Ctx c;
    c.opt = &opt;
    if (int e = take_options(c, parsed))
        return e;
    if (c.args.empty())
        return tandro::usage_error("desfire", "names no subcommand");
    c.sub = c.args[0];
    c.json = opt.json;
    const Sub *sub = find_sub(c.sub);
    if (!sub)
        return tandro::usage_error("desfire", "unknown subcommand '" + c.sub + "'");

    // With the built-in simulated reader the DESFire card comes first in the field for this session.
    tandro::ReaderSession session;
    if (!session.open("desfire", opt))
        return 1;
    if (session.sim())
        tandro::bring_forward(session.sim(), "desfire");
    c.hnd = session.hnd();
    c.usage = sub->usage;
    if (sub->on_file) {
        uint32_t fid = 0;
        if (!arg_aid(c, 1, c.aid) || !arg_num(c, 2, fid) || fid > 31)
            return tandro::usage_error("desfire", c.sub + " takes an AID and a file id (0 to 31)");
        c.file = static_cast<uint8_t>(fid);
    }
    return sub->run(c);
}

const tandro::OptionTable KEY_TABLE = {
    {{"N HEX [aes|des|2k3des|3k3des]", "stores the key HEX of this type (default aes) as the reader's key N"}},
    {},
    "DES keys have 8 bytes, AES and 2K3DES keys 16, 3K3DES keys 24.",
};

int run_store_key(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("desfire-key", KEY_TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
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
    if (st != ZEL_OK)
        return tandro::fail("desfire-key", "", st);
    if (opt.json)
        std::printf("{\"stored\": %u}\n", nr);
    else
        std::printf("key %u stored in the reader\n", nr);
    return 0;
}

const tandro::Registration desfire_cmd({"desfire", usage_text().c_str(),
                                        "DESFire applications, files, data, values, records, keys", run_desfire, false,
                                        &TABLE});
const tandro::Registration desfire_key_cmd({"desfire-key", "N HEX [aes|des|2k3des|3k3des]",
                                            "puts a DESFire key in the reader's key store", run_store_key, false,
                                            &KEY_TABLE});

} // namespace
