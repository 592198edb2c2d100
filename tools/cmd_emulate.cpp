// tandro emulate and esp: the reader as an NFC tag for a phone, and the network module in front of a reader.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/command_helpers.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

using tandro::Args;
using tandro::Options;

using tandro::done;
using tandro::failed;

// Opens the reader (on the built-in simulated reader, with setup first), runs one step, and reports a failure
// of the opening.
template <typename Setup, typename F> int with_reader(const char *command, const Options &opt, Setup setup, F step)
{
    tandro::ReaderSession session;
    if (!session.open(command, opt)) {
        if (opt.json)
            std::printf("{\"error\": \"no reader\", \"status\": null}\n");
        return 1;
    }
    if (session.sim())
        setup(session.sim());
    return step(session.hnd(), session.sim());
}

// ---- emulate ----

const tandro::OptionTable EMULATE_TABLE = {
    {
        {"ndef", "loads the record the reader shows a phone: --uri URI or --text TEXT"},
        {"start", "starts tag emulation (--ram of the RAM record, --combined or --adhoc: those modes)"},
        {"stop", "stops it (--ram or --adhoc: those modes)"},
        {"status", "the external field and the ad hoc emulation parameters"},
    },
    {
        {"--uri", "URI", "ndef: a URI record (its known prefix abbreviated)"},
        {"--text", "TEXT", "ndef: a text record"},
        {"--lang", "LANG", "ndef: the text's language (en by default, 1 to 63 characters)"},
        {"--aar", "PACKAGE", "ndef: adds an Android application record naming PACKAGE"},
        {"--ram", nullptr, "ndef: the RAM form, for long records; start, stop: RAM tag emulation"},
        {"--start", nullptr, "ndef: starts the emulation once the record is in"},
        {"--combined", nullptr, "start: combined emulation"},
        {"--adhoc", nullptr, "start, stop: ad hoc emulation"},
    },
    "ndef takes exactly one of --uri and --text; --aar does not go with --ram. A record too long for its form is "
    "refused before the reader is asked. With --sim and --start a simulated phone reads the record back.",
};

// The URI identifier codes of the NFC Forum URI record: the longest prefix that matches is abbreviated.
const char *const kUriPrefixes[] = {"",           "http://www.", "https://www.", "http://",
                                    "https://",   "tel:",        "mailto:",      "ftp://anonymous:anonymous@",
                                    "ftp://ftp.", "ftps://",     "sftp://",      "smb://",
                                    "nfs://",     "ftp://"};

std::vector<uint8_t> uri_payload(const std::string &uri)
{
    size_t best = 0, best_len = 0;
    for (size_t i = 1; i < sizeof kUriPrefixes / sizeof kUriPrefixes[0]; ++i) {
        const size_t n = std::strlen(kUriPrefixes[i]);
        if (n > best_len && uri.compare(0, n, kUriPrefixes[i]) == 0) {
            best = i;
            best_len = n;
        }
    }
    std::vector<uint8_t> p{static_cast<uint8_t>(best)};
    p.insert(p.end(), uri.begin() + static_cast<long>(best_len), uri.end());
    return p;
}

std::vector<uint8_t> text_payload(const std::string &lang, const std::string &text)
{
    std::vector<uint8_t> p{static_cast<uint8_t>(lang.size())};
    p.insert(p.end(), lang.begin(), lang.end());
    p.insert(p.end(), text.begin(), text.end());
    return p;
}

int emulate_ndef(const Options &opt, const tandro::Parsed &p)
{
    const char *name = "emulate";
    if (p.words.size() != 1 || p.has("--combined") || p.has("--adhoc"))
        return tandro::usage_error(name, "ndef takes --uri URI or --text TEXT (tandro emulate --help)");
    const bool have_uri = p.has("--uri"), have_text = p.has("--text"), have_aar = p.has("--aar");
    const bool ram = p.has("--ram"), start = p.has("--start");
    const std::string uri = p.value("--uri"), text = p.value("--text"), lang = p.value("--lang", "en"),
                      aar = p.value("--aar");
    if (have_uri == have_text)
        return tandro::usage_error(name, "ndef takes one of --uri URI and --text TEXT");
    if (lang.empty() || lang.size() > 63)
        return tandro::usage_error(name, "--lang takes 1 to 63 characters");
    if (have_aar && (ram || aar.empty()))
        return tandro::usage_error(name, "--aar takes a package name and no --ram");
    const std::vector<uint8_t> payload = have_uri ? uri_payload(uri) : text_payload(lang, text);
    const uint32_t max = ram ? ZEL_EMUL_RAM_MAX_PAYLOAD : have_aar ? ZEL_EMUL_AAR_MAX : ZEL_EMUL_MAX_PAYLOAD;
    if (payload.size() + (have_aar ? aar.size() : 0) > max)
        return tandro::usage_error(name, "the record's payload is over " + std::to_string(max) + " bytes" +
                                             (ram ? "" : " (--ram takes longer ones)"));
    const uint8_t type = have_uri ? 'U' : 'T';
    const auto n = static_cast<uint32_t>(payload.size());
    return with_reader(
        name, opt, [](zsim *) {},
        [&](ZEL_HANDLE h, zsim *sim) {
            ZEL_STATUS st;
            if (have_aar) {
                tandro::GlobalReader lend(h);
                st = WriteEmulationNdefWithAAR(1, &type, 1, nullptr, 0, payload.data(), n,
                                               reinterpret_cast<const uint8_t *>(aar.data()),
                                               static_cast<uint32_t>(aar.size()));
            } else if (ram) {
                st = WriteEmulationNdefRamM(h, 1, &type, 1, nullptr, 0, payload.data(), n);
            } else {
                st = WriteEmulationNdefM(h, 1, &type, 1, nullptr, 0, payload.data(), n);
            }
            if (st != ZEL_OK)
                return failed(opt, name, "record", st);
            if (start) {
                if (ram) {
                    tandro::GlobalReader lend(h);
                    st = TagEmulationStartRam();
                } else {
                    st = TagEmulationStartM(h);
                }
                if (st != ZEL_OK)
                    return failed(opt, name, "start", st);
            }
            // On the simulated reader a phone taps it and tells what it read.
            std::string phone;
            if (sim && start) {
                std::vector<uint8_t> msg(4096);
                const long got = zsim_phone_read_ndef(sim, msg.data(), msg.size());
                if (got >= 0)
                    phone = tandro::to_hex(msg.data(), static_cast<size_t>(got));
            }
            if (opt.json) {
                std::printf("{\"record\": \"%s\", \"payload_bytes\": %u, \"form\": \"%s\", \"started\": %s",
                            have_uri ? "uri" : "text", n,
                            ram        ? "ram"
                            : have_aar ? "aar"
                                       : "frame",
                            start ? "true" : "false");
                if (!phone.empty())
                    std::printf(", \"phone_read\": \"%s\"", phone.c_str());
                std::printf("}\n");
            } else {
                std::printf("emulation record written (%s, %u bytes of payload)%s\n", have_uri ? "uri" : "text", n,
                            start ? ", emulation started" : "");
                char seen[4096 * 2 + 256] = {};
                if (!phone.empty() && zsim_command(sim, "phone", seen, sizeof seen) == 0)
                    std::printf("a phone reads:\n%s", seen);
            }
            return 0;
        });
}

int emulate_status(const Options &opt)
{
    const char *name = "emulate";
    return with_reader(
        name, opt, [](zsim *) {},
        [&](ZEL_HANDLE h, zsim *) {
            uint8_t field = 0, v[5] = {};
            ZEL_STATUS st = GetExternalFieldStateM(h, &field);
            if (st != ZEL_OK)
                return failed(opt, name, "external field", st);
            if ((st = GetAdHocEmulationParamsM(h, v, v + 1, v + 2, v + 3, v + 4)) != ZEL_OK)
                return failed(opt, name, "ad hoc parameters", st);
            if (opt.json)
                std::printf("{\"external_field\": %s, \"adhoc\": [%u, %u, %u, %u, %u]}\n", field ? "true" : "false",
                            v[0], v[1], v[2], v[3], v[4]);
            else
                std::printf("external field %s\nad hoc parameters %u %u %u %u %u\n", field ? "present" : "absent", v[0],
                            v[1], v[2], v[3], v[4]);
            return 0;
        });
}

int run_emulate(const Options &opt, const Args &args)
{
    const char *name = "emulate";
    tandro::Parsed parsed;
    if (!tandro::parse(name, EMULATE_TABLE, args, parsed))
        return 2;
    const Args &a = parsed.words;
    if (!a.empty() && a[0] == "ndef")
        return emulate_ndef(opt, parsed);
    // The other forms take no record options; start and stop one mode at most.
    bool record_option = false;
    for (const char *o : {"--uri", "--text", "--lang", "--aar", "--start"})
        record_option = record_option || parsed.has(o);
    const size_t modes = parsed.count("--ram") + parsed.count("--combined") + parsed.count("--adhoc");
    if (a.size() == 1 && a[0] == "status" && !record_option && modes == 0)
        return emulate_status(opt);
    const bool start = !a.empty() && a[0] == "start", stop = !a.empty() && a[0] == "stop";
    if ((start || stop) && a.size() == 1) {
        if (record_option || modes > 1)
            return tandro::usage_error(name, "start takes --ram, --combined or --adhoc; stop --ram or --adhoc");
        const std::string form = parsed.has("--ram")        ? "--ram"
                                 : parsed.has("--combined") ? "--combined"
                                 : parsed.has("--adhoc")    ? "--adhoc"
                                                            : "";
        ZEL_STATUS (*step)(ZEL_HANDLE) = nullptr;
        bool global = false;
        if (form.empty())
            step = start ? TagEmulationStartM : TagEmulationStopM;
        else if (form == "--combined" && start)
            step = CombinedModeEmulationStartM;
        else if (form == "--adhoc")
            step = start ? AdHocEmulationStartM : AdHocEmulationStopM;
        else if (form == "--ram")
            global = true;
        else
            return tandro::usage_error(name, "start takes --ram, --combined or --adhoc; stop --ram or --adhoc");
        return with_reader(
            name, opt, [](zsim *) {},
            [&](ZEL_HANDLE h, zsim *) {
                ZEL_STATUS st;
                if (global) {
                    tandro::GlobalReader lend(h);
                    st = start ? TagEmulationStartRam() : TagEmulationStopRam();
                } else {
                    st = step(h);
                }
                if (st != ZEL_OK)
                    return failed(opt, name, start ? "start" : "stop", st);
                done(opt, start ? "emulation started" : "emulation stopped");
                return 0;
            });
    }
    return tandro::usage_error(name, "ndef, start, stop or status (tandro emulate --help)");
}

// ---- esp ----

const tandro::OptionTable ESP_TABLE = {
    {
        {"info", "the module's serial number, firmware, units and time"},
        {"time", "the module's clock"},
        {"wifi on|off", "turns the module's Wi-Fi on or off"},
        {"reset", "resets the module's link to its units"},
        {"backup FILE", "saves the module's configuration to FILE"},
        {"restore FILE", "loads the configuration in FILE into the module"},
    },
    {},
    "The configuration is a text of at most 65535 bytes; restore refuses a FILE that is not one before the "
    "module is asked. With --sim the simulated reader has a network module in front of it.",
};

std::string time_text(const uint8_t *t)
{
    char buf[32];
    std::snprintf(buf, sizeof buf, "%u %u %u %u %u %u", t[0], t[1], t[2], t[3], t[4], t[5]);
    return buf;
}

void esp_front(zsim *sim)
{
    zsim_esp_enable(sim, 1);
}

int esp_info(const Options &opt, bool time_only)
{
    const char *name = "esp";
    return with_reader(name, opt, esp_front, [&](ZEL_HANDLE h, zsim *) {
        uint8_t t[6] = {};
        ZEL_STATUS st = EspGetReaderTimeM(h, t);
        if (st != ZEL_OK)
            return failed(opt, name, "time", st);
        if (time_only) {
            if (opt.json)
                std::printf("{\"time\": [%u, %u, %u, %u, %u, %u]}\n", t[0], t[1], t[2], t[3], t[4], t[5]);
            else
                std::printf("time %s\n", time_text(t).c_str());
            return 0;
        }
        uint32_t serial = 0;
        uint8_t v[3] = {}, units = 0;
        if ((st = EspGetReaderSerialNumberM(h, &serial)) != ZEL_OK)
            return failed(opt, name, "serial number", st);
        if ((st = EspGetFirmwareVersionM(h, v, v + 1, v + 2)) != ZEL_OK)
            return failed(opt, name, "firmware version", st);
        {
            tandro::GlobalReader lend(h);
            st = EspGetTransparentReaders(&units);
        }
        if (st != ZEL_OK)
            return failed(opt, name, "units", st);
        if (opt.json)
            std::printf("{\"serial\": \"%08X\", \"firmware\": \"%u.%u.%u\", \"units\": %u, \"time\": [%u, %u, %u, "
                        "%u, %u, %u]}\n",
                        serial, v[0], v[1], v[2], units, t[0], t[1], t[2], t[3], t[4], t[5]);
        else
            std::printf("serial %08X\nfirmware %u.%u.%u\nunits %u\ntime %s\n", serial, v[0], v[1], v[2], units,
                        time_text(t).c_str());
        return 0;
    });
}

int esp_backup(const Options &opt, const std::string &path)
{
    const char *name = "esp";
    return with_reader(name, opt, esp_front, [&](ZEL_HANDLE h, zsim *) {
        std::vector<uint8_t> buf(ZEL_ESP_BACKUP_MAX + 1u, 0);
        ZEL_STATUS st;
        {
            tandro::GlobalReader lend(h);
            st = EspBackupConfiguration(buf.data());
        }
        if (st != ZEL_OK)
            return failed(opt, name, "backup", st);
        // The configuration is a text; its end is the first zero byte, if any.
        const size_t n = strnlen(reinterpret_cast<const char *>(buf.data()), ZEL_ESP_BACKUP_MAX);
        FILE *f = std::fopen(path.c_str(), "wb");
        if (!f || std::fwrite(buf.data(), 1, n, f) != n || std::fclose(f) != 0) {
            std::fprintf(stderr, "tandro esp: cannot write %s\n", path.c_str());
            if (opt.json)
                std::printf("{\"error\": %s, \"status\": null}\n", tandro::json_string("cannot write " + path).c_str());
            return 1;
        }
        if (opt.json)
            std::printf("{\"backup\": %s, \"bytes\": %zu}\n", tandro::json_string(path).c_str(), n);
        else
            std::printf("configuration saved to %s (%zu bytes)\n", path.c_str(), n);
        return 0;
    });
}

int esp_restore(const Options &opt, const std::string &path)
{
    const char *name = "esp";
    std::string text;
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return tandro::usage_error(name, "cannot read " + path);
    char chunk[4096];
    size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0 && text.size() <= ZEL_ESP_BACKUP_MAX)
        text.append(chunk, got);
    std::fclose(f);
    if (text.size() > ZEL_ESP_BACKUP_MAX || text.find('\0') != std::string::npos)
        return tandro::usage_error(name, path + " is not a configuration text of at most 65535 bytes");
    return with_reader(name, opt, esp_front, [&](ZEL_HANDLE h, zsim *) {
        ZEL_STATUS st;
        {
            tandro::GlobalReader lend(h);
            st = EspRestoreConfiguration(text.c_str());
        }
        if (st != ZEL_OK)
            return failed(opt, name, "restore", st);
        done(opt, "configuration restored (" + std::to_string(text.size()) + " bytes)");
        return 0;
    });
}

int run_esp(const Options &opt, const Args &args)
{
    const char *name = "esp";
    tandro::Parsed parsed;
    if (!tandro::parse(name, ESP_TABLE, args, parsed))
        return 2;
    const Args &a = parsed.words;
    if (a.size() == 1 && (a[0] == "info" || a[0] == "time"))
        return esp_info(opt, a[0] == "time");
    if (a.size() == 2 && a[0] == "backup")
        return esp_backup(opt, a[1]);
    if (a.size() == 2 && a[0] == "restore")
        return esp_restore(opt, a[1]);
    const bool wifi = a.size() == 2 && a[0] == "wifi" && (a[1] == "on" || a[1] == "off");
    if (wifi || (a.size() == 1 && a[0] == "reset"))
        return with_reader(name, opt, esp_front, [&](ZEL_HANDLE h, zsim *) {
            const ZEL_STATUS st = !wifi ? EspReaderResetM(h) : a[1] == "on" ? EspEnableWifiM(h) : EspDisableWifiM(h);
            if (st != ZEL_OK)
                return failed(opt, name, wifi ? "wifi" : "reset", st);
            done(opt, !wifi ? "module reset" : a[1] == "on" ? "wifi on" : "wifi off");
            return 0;
        });
    return tandro::usage_error(name, "info, time, wifi on|off, reset, backup FILE or restore FILE (tandro esp --help)");
}

const tandro::Registration emulate_cmd({"emulate", "ndef|start|stop|status ...",
                                        "the reader as an NFC tag: its record and the emulation modes", run_emulate,
                                        false, &EMULATE_TABLE});
const tandro::Registration esp_cmd({"esp", "info|time|wifi|reset|backup|restore ...",
                                    "the network module in front of the reader", run_esp, false, &ESP_TABLE});

} // namespace
