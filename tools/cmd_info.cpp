// tandro ping: is a reader there, and what type is it. tandro info: everything the reader tells of itself.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "reader/params.h"
#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

using tandro::to_hex;

const tandro::OptionTable PING_TABLE = {
    {
        {"", "opens the reader and asks its type: where it was found and the type"},
    },
    {},
    "The exit status is 1 when no reader is found or it does not answer.",
};

int run_ping(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("ping", PING_TABLE, all, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("ping", "takes no arguments");
    tandro::ReaderSession session;
    if (!session.open("ping", opt))
        return 1;
    uint32_t type = 0;
    const ZEL_STATUS st = GetReaderTypeM(session.hnd(), &type);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro ping: %s\n", ZEL_Status2String(st));
        return 1;
    }
    if (opt.json)
        std::printf("{\"where\": %s, \"reader_type\": \"%08X\"}\n", tandro::json_string(session.where()).c_str(), type);
    else
        std::printf("reader type %08X (%s)\n", type, session.where().c_str());
    return 0;
}

const tandro::Registration ping_cmd({"ping", "", "is a reader there: its type", run_ping, false, &PING_TABLE});

// Eight bytes as text when they all print (up to a terminator), else in hexadecimal.
std::string serial_text(const uint8_t *p)
{
    std::string s;
    for (int i = 0; i < 8 && p[i]; ++i) {
        if (p[i] < 0x20 || p[i] > 0x7E)
            return to_hex(p, 8);
        s += static_cast<char>(p[i]);
    }
    return s;
}

// One line of the report: a label and a value, or the status the reader gave instead.
struct Field {
    std::string name;  // JSON member
    std::string label; // text form
    std::string text;  // the value as text
    std::string json;  // the value as a JSON value
    ZEL_STATUS status = ZEL_OK;
};

struct Report {
    std::vector<Field> fields;
    void add(const char *name, const char *label, ZEL_STATUS st, const std::string &text, const std::string &json)
    {
        fields.push_back({name, label, st == ZEL_OK ? text : std::string(), st == ZEL_OK ? json : "null", st});
    }
    void add_text(const char *name, const char *label, ZEL_STATUS st, const std::string &text)
    {
        add(name, label, st, text, tandro::json_string(text));
    }
};

struct Identity {
    uint8_t mui[ZEL_MUI_MAX_LEN] = {};
    uint64_t serial = 0;
    uint8_t hw_type = 0, hw_ver = 0, major = 0, minor = 0, build = 0;
    uint32_t device_type = 0;
};

// The parameter block: the fixed layout when the firmware has it (a 16-byte identifier), else the block read
// from its end, whose identifier is taken as 12 bytes (6 for a network module).
ZEL_STATUS read_parameters(ZEL_HANDLE h, Identity &id, size_t &mui_len)
{
    ZEL_STATUS st = GetReaderParameters2M(h, id.mui, &id.serial, &id.hw_type, &id.hw_ver, &id.device_type, &id.major,
                                          &id.minor, &id.build);
    mui_len = 16;
    if (st != ZEL_OK) {
        st = GetReaderParametersM(h, id.mui, &id.serial, &id.hw_type, &id.hw_ver, &id.device_type, &id.major, &id.minor,
                                  &id.build);
        mui_len = 12;
    }
    if (id.hw_type == zel::kHwTypeEsp)
        mui_len = 6;
    return st;
}

const tandro::OptionTable INFO_TABLE = {
    {
        {"", "where the reader is, its type and model, serial number and description, firmware and build, "
             "hardware, parameter block (with its MUI), pro mode and description string"},
    },
    {
        {"--report", nullptr, "adds the reader's whole description report"},
    },
    "Every field is asked for; one the reader cannot give is shown with its status in its place, and makes the "
    "exit status 1 (under --json the error object then carries what was read as \"partial\").",
};

int run_info(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("info", INFO_TABLE, args, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("info", "unknown argument \"" + parsed.words[0] + "\"");
    const bool full_report = parsed.has("--report");
    tandro::ReaderSession session;
    if (!session.open("info", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    Report r;
    char buf[160];

    uint32_t type = 0;
    const ZEL_STATUS type_st = GetReaderTypeM(h, &type);
    const char *model = zel::reader_model_name(type);
    std::snprintf(buf, sizeof buf, "%08X (%s)", type, model ? model : "UNKNOWN");
    r.add("reader_type", "reader type", type_st, buf, "\"" + std::string(buf, 8) + "\"");
    r.add_text("model", "model", type_st, model ? model : "UNKNOWN");

    uint32_t serial = 0;
    ZEL_STATUS st = GetReaderSerialNumberM(h, &serial);
    std::snprintf(buf, sizeof buf, "%u (%08X)", serial, serial);
    r.add("serial_number", "serial number", st, buf, std::to_string(serial));

    uint8_t sd[8] = {};
    st = GetReaderSerialDescriptionM(h, sd);
    r.add_text("serial_description", "serial description", st, serial_text(sd));

    uint8_t major = 0, minor = 0, build = 0;
    st = GetReaderFirmwareVersionM(h, &major, &minor);
    std::snprintf(buf, sizeof buf, "%u.%u", major, minor);
    r.add_text("firmware", "firmware", st, buf);
    st = GetBuildNumberM(h, &build);
    r.add("build", "build", st, std::to_string(build), std::to_string(build));

    uint8_t hw_type = 0, hw_ver = 0;
    st = GetReaderHardwareVersionM(h, &hw_type, &hw_ver);
    std::snprintf(buf, sizeof buf, "type %u, version %u", hw_type, hw_ver);
    r.add("hardware", "hardware", st, buf,
          "{\"type\": " + std::to_string(hw_type) + ", \"version\": " + std::to_string(hw_ver) + "}");

    Identity id;
    size_t mui_len = 0;
    st = read_parameters(h, id, mui_len);
    const uint8_t *sn = reinterpret_cast<const uint8_t *>(&id.serial);
    std::snprintf(buf, sizeof buf, "serial %s, HW %u.%u, device type %08X (%s firmware), firmware %u.%u.%u",
                  serial_text(sn).c_str(), id.hw_type, id.hw_ver, id.device_type,
                  zel::firmware_type_name(static_cast<uint8_t>(id.device_type >> 24)), id.major, id.minor, id.build);
    const std::string mui = to_hex(id.mui, mui_len);
    char device_type[9];
    std::snprintf(device_type, sizeof device_type, "%08X", id.device_type);
    char fw[16];
    std::snprintf(fw, sizeof fw, "%u.%u.%u", id.major, id.minor, id.build);
    r.add("parameters", "parameters", st, std::string(buf) + "\n" + std::string(20, ' ') + "MUI " + mui,
          "{\"mui\": \"" + mui + "\", \"serial\": " + tandro::json_string(serial_text(sn)) +
              ", \"hw_type\": " + std::to_string(id.hw_type) + ", \"hw_version\": " + std::to_string(id.hw_ver) +
              ", \"device_type\": \"" + device_type + "\", \"firmware\": \"" + fw + "\"}");

    uint32_t mode = 0;
    uint16_t raw = 0;
    st = GetReaderProModeM(h, &mode, &raw);
    std::snprintf(buf, sizeof buf, "%u (raw %04X)", mode, raw);
    r.add("pro_mode", "pro mode", st, buf,
          "{\"mode\": " + std::to_string(mode) + ", \"raw\": " + std::to_string(raw) + "}");

    const char *info = nullptr;
    st = GetReaderInfoStrM(h, &info);
    r.add_text("description", "description", st, info ? info : "");

    std::string json_report;
    if (opt.json) {
        std::string out = "{\"where\": " + tandro::json_string(session.where());
        std::string errors;
        for (const Field &f : r.fields) {
            out += ", \"" + f.name + "\": " + f.json;
            if (f.status != ZEL_OK)
                errors += std::string(errors.empty() ? "" : ", ") + "\"" + f.name +
                          "\": " + tandro::json_string(ZEL_Status2String(f.status));
        }
        if (full_report)
            out += ", \"report\": " + tandro::json_string(GetReaderDescriptionM(h));
        out += ", \"errors\": {" + errors + "}}";
        std::printf("%s\n", out.c_str());
        json_report = out;
    } else {
        std::printf("%-20s%s\n", "reader", session.where().c_str());
        for (const Field &f : r.fields) {
            if (f.name == "model")
                continue; // part of the reader type line
            if (f.status == ZEL_OK)
                std::printf("%-20s%s\n", f.label.c_str(), f.text.c_str());
            else
                std::printf("%-20s(%s)\n", f.label.c_str(), ZEL_Status2String(f.status));
        }
        if (full_report)
            std::printf("\n%s", GetReaderDescriptionM(h));
    }
    // Every field is asked for; one the reader could not give makes the whole a failure.
    std::string failed;
    ZEL_STATUS first = ZEL_OK;
    for (const Field &f : r.fields)
        if (f.status != ZEL_OK) {
            failed += (failed.empty() ? "" : ", ") + f.name;
            if (first == ZEL_OK)
                first = f.status;
        }
    if (failed.empty())
        return 0;
    const int rc = tandro::fail_text("info", "not read: " + failed, first);
    tandro::set_failure_partial(json_report);
    return rc;
}

const tandro::Registration info_cmd({"info", "[--report]",
                                     "the reader's identity: type, serial numbers, versions, parameters, pro mode",
                                     run_info, false, &INFO_TABLE});

} // namespace
