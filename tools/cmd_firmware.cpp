// tandro firmware: a reader's modules and firmware packages, with the images from a local folder.
//
//   tandro firmware --images DIR list | manifest PACKAGE | install PACKAGE | status
//
// The folder stands in for a firmware service: packages.txt ("package,comment" lines, oldest first),
// PACKAGE.json (the manifest), main-VERSION.hex and display-VERSION.hex (images), config/NAME.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "firmware/manager_internal.h"
#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/progress.h"
#include "tools/session.h"

namespace {

const char *USAGE = "--images DIR [list | manifest PACKAGE | install PACKAGE | status] [--token TOKEN] [--force]";

const tandro::OptionTable TABLE = {
    {
        {"[status]", "the reader's modules (main module and display): hardware, firmware, serial, and the package "
                     "the folder names for the main module's firmware"},
        {"list", "the packages of the folder, oldest first"},
        {"manifest PACKAGE", "the manifest of a package"},
        {"install PACKAGE", "brings every module of the reader to the package, with a progress bar per module"},
    },
    {
        {"--images", "DIR", "the folder that serves the packages, manifests and images"},
        {"--token", "TOKEN", "an access token passed to the service (never printed)"},
        {"--force", nullptr, "installs modules already at the package's versions too"},
    },
    "The folder holds packages.txt (lines \"package,comment\", the newest last), PACKAGE.json (a manifest naming "
    "esp_version, nfc1_version, nfc2_version, display1_version, display2_version), main-VERSION.hex and "
    "display-VERSION.hex (images in hexadecimal; main-VERSION.bin for a network module's binary image) and "
    "config/NAME.\n\nA module already at the package's version is left alone unless --force is given. A failed "
    "install leaves the modules already upgraded as they are: running it again skips them.",
};

constexpr size_t kFileMax = ZEL_FW_IMAGE_MAX + 1;

bool read_file(const std::string &path, std::string &out, size_t max)
{
    std::FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    out.clear();
    char buf[65536];
    size_t n = 0;
    bool ok = true;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        if (out.size() + n > max) {
            ok = false;
            break;
        }
        out.append(buf, n);
    }
    std::fclose(f);
    return ok;
}

// A version or package name used in a file name: no path separators, no leading dot.
bool plain_name(const std::string &s)
{
    if (s.empty() || s.size() > 64 || s[0] == '.')
        return false;
    for (char c : s)
        if (c == '/' || c == '\\' || static_cast<unsigned char>(c) < 32)
            return false;
    return true;
}

// The local-folder firmware service.
struct Folder {
    std::string dir;

    zel_http_response *text(const std::string &name) const
    {
        std::string data;
        if (!plain_name(name) || !read_file(dir + "/" + name, data, 65536))
            return zel::fw::make_response(ZEL_HTTP_ERROR, "Error: not found", 16);
        return zel::fw::make_response(ZEL_HTTP_TEXT, data.data(), data.size());
    }

    zel_http_response *image(const char *kind, const zel_fw_identity *id, const char *version) const
    {
        if (id && id->ask == ZEL_FW_ASK_PACKAGES)
            return text("packages.txt");
        if (!id || !version)
            return nullptr;
        if (id->ask == ZEL_FW_ASK_MANIFEST)
            return text(std::string(version) + ".json");
        const std::string v = version;
        if (!plain_name(v))
            return zel::fw::make_response(ZEL_HTTP_ERROR, "Error: bad version", 18);
        std::string data;
        const std::string base = dir + "/" + kind + "-" + v;
        const bool binary = id->hw_type == ZEL_HW_TYPE_ESP && std::strcmp(kind, "main") == 0;
        if (!read_file(base + (binary ? ".bin" : ".hex"), data, kFileMax))
            return zel::fw::make_response(ZEL_HTTP_ERROR, "Error: no image", 15);
        // Line ends in a hex file are not part of the image.
        if (!binary)
            data.erase(std::remove_if(data.begin(), data.end(), [](char c) { return c == '\n' || c == '\r'; }),
                       data.end());
        return zel::fw::make_response(ZEL_HTTP_FIRMWARE_BINARY, data.data(), data.size());
    }

    // The package whose manifest names this firmware for the main module.
    zel_http_response *package_of(uint8_t hw_type, const char *version) const
    {
        std::string list;
        if (!version || !read_file(dir + "/packages.txt", list, 65536))
            return nullptr;
        std::string found;
        size_t at = 0;
        while (at < list.size()) {
            size_t end = list.find('\n', at);
            if (end == std::string::npos)
                end = list.size();
            const std::string line = list.substr(at, end - at);
            at = end + 1;
            const std::string name = line.substr(0, line.find(','));
            std::string manifest;
            zel::fw::PackageVersions v{};
            if (!plain_name(name) || !read_file(dir + "/" + name + ".json", manifest, 65536) ||
                zel::fw::parse_firmware_manifest(manifest.data(), manifest.size(), &v) != 0)
                continue;
            if (std::strcmp(hw_type == ZEL_HW_TYPE_ESP ? v.esp : v.nfc1, version) == 0)
                found = name;
        }
        return found.empty() ? zel::fw::make_response(ZEL_HTTP_ERROR, "Error: no package", 17)
                             : zel::fw::make_response(ZEL_HTTP_TEXT, found.data(), found.size());
    }

    zel_http_response *configuration(const char *name) const
    {
        if (name)
            return plain_name(name) ? text(std::string("config/") + name) : nullptr;
        std::string names;
        if (DIR *d = opendir((dir + "/config").c_str())) {
            while (const dirent *e = readdir(d))
                if (e->d_name[0] != '.')
                    names += std::string(e->d_name) + "\n";
            closedir(d);
        }
        return zel::fw::make_response(ZEL_HTTP_TEXT, names.data(), names.size());
    }

    void install() const
    {
        zel::fw::Service s{};
        s.ctx = const_cast<Folder *>(this);
        s.get_firmware = [](void *c, const zel_fw_identity *id, const char *v, const char *) {
            return static_cast<Folder *>(c)->image("main", id, v);
        };
        s.get_display_firmware = [](void *c, const zel_fw_identity *id, const char *v, const char *) {
            return static_cast<Folder *>(c)->image("display", id, v);
        };
        s.get_configuration = [](void *c, const char *name) { return static_cast<Folder *>(c)->configuration(name); };
        s.get_package_name = [](void *c, uint8_t hw, const char *v) {
            return static_cast<Folder *>(c)->package_of(hw, v);
        };
        zel::fw::set_service(&s);
    }
};

struct ServiceGuard {
    ~ServiceGuard() { zel::fw::set_service(nullptr); }
};

// The progress of an install: a bar per module, the texts of the manager as lines, the last failure.
struct InstallView {
    const tandro::Options *opt = nullptr;
    std::unique_ptr<tandro::Progress> bar;
    std::string module;
    std::vector<std::string> finished;
    std::string last_error;
};
InstallView *g_view = nullptr;

void on_progress(int stage, int code, int percent, const char *text, const char *)
{
    InstallView &v = *g_view;
    const std::string t = text ? text : "";
    if (code != 0)
        v.last_error = t;
    if (stage == 4 && t.rfind("Initializing ", 0) == 0) {
        v.module = t.substr(13);
        if (!v.module.empty() && v.module.back() == '.')
            v.module.pop_back();
        v.bar = std::make_unique<tandro::Progress>(*v.opt, v.module.c_str(), 100, "%");
        return;
    }
    if (stage == 4 && code == 0 && v.bar) {
        v.bar->update(static_cast<uint64_t>(percent));
        return;
    }
    if (stage == 7 && v.bar) {
        v.bar->done(code == 0);
        v.bar.reset();
    }
    if (stage == 7 && code == 0 && t.rfind("Finished ", 0) == 0)
        v.finished.push_back(t);
    if (!v.opt->json && !v.opt->quiet)
        std::fprintf(stderr, "%s\n", t.c_str());
}

std::string module_json(const zel_device_params &p)
{
    return std::string("{\"hw_type\": ") + std::to_string(p.hw_type) + ", \"hw_version\": " + std::to_string(p.hw_ver) +
           ", \"firmware\": " + tandro::json_string(p.fw_str) + ", \"serial\": " + tandro::json_string(p.serial_str) +
           ", \"route\": " + (p.operations ? tandro::json_string(p.operations->name) : std::string("null")) + "}";
}

int run_firmware(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("firmware", TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    const std::string what = args.empty() ? "status" : args[0];
    const size_t n = args.size();
    const bool ok = ((what == "status" || what == "list") && n <= 1) ||
                    ((what == "manifest" || what == "install") && n == 2 && plain_name(args[1]));
    if (!ok)
        return tandro::usage_error("firmware", std::string("usage: tandro firmware ") + USAGE);
    if (!parsed.has("--images") && what != "status")
        return tandro::usage_error("firmware", "--images DIR names the folder of packages and images");
    Folder folder{parsed.value("--images")};
    ServiceGuard guard;
    if (parsed.has("--images"))
        folder.install();

    tandro::ReaderSession session;
    if (!session.open("firmware", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();

    if (what == "list") {
        char out[65536];
        const ZEL_STATUS st = Flasher_ListReaderFirmwarePackagesHnd(h, out, sizeof out);
        if (st != ZEL_OK)
            return tandro::fail("firmware", "list", st);
        if (!opt.json) {
            std::printf("%s", out);
            return 0;
        }
        std::string json = "{\"packages\": [";
        bool first = true;
        for (char *line = std::strtok(out, "\n"); line; line = std::strtok(nullptr, "\n")) {
            char *comma = std::strchr(line, ',');
            if (comma)
                *comma = '\0';
            json += std::string(first ? "" : ", ") + "{\"package\": " + tandro::json_string(line) +
                    ", \"comment\": " + tandro::json_string(comma ? comma + 1 : "") + "}";
            first = false;
        }
        std::printf("%s]}\n", json.c_str());
        return 0;
    }
    if (what == "manifest" || what == "install") {
        std::string manifest(65537, '\0');
        ZEL_STATUS st = Flasher_GetFirmwarePackageManifestHnd(h, args[1].c_str(), manifest.data(),
                                                              static_cast<uint32_t>(manifest.size()));
        if (st != ZEL_OK)
            return tandro::fail("firmware", "manifest of " + args[1], st);
        manifest.resize(std::strlen(manifest.c_str()));
        if (what == "manifest") {
            zel::fw::PackageVersions v{};
            if (zel::fw::parse_firmware_manifest(manifest.data(), manifest.size(), &v) != 0)
                return tandro::fail("firmware", "manifest of " + args[1], ZEL_FLASHER_FIRMWARE_MANIFEST_ERROR);
            const std::pair<const char *, const char *> rows[] = {{"esp_version", v.esp},
                                                                  {"nfc1_version", v.nfc1},
                                                                  {"nfc2_version", v.nfc2},
                                                                  {"display1_version", v.display1},
                                                                  {"display2_version", v.display2}};
            std::string json = "{\"package\": " + tandro::json_string(args[1]);
            for (const auto &r : rows) {
                if (opt.json)
                    json += std::string(", \"") + r.first +
                            "\": " + (r.second[0] ? tandro::json_string(r.second) : std::string("null"));
                else if (r.second[0])
                    std::printf("%-17s %s\n", r.first, r.second);
            }
            if (opt.json)
                std::printf("%s}\n", json.c_str());
            return 0;
        }
        InstallView view;
        view.opt = &opt;
        g_view = &view;
        const std::string token = parsed.value("--token");
        st = Flasher_InstallFirmwarePackageHnd(h, manifest.c_str(), token.empty() ? nullptr : token.c_str(),
                                               parsed.has("--force") ? 1 : 0, on_progress);
        view.bar.reset();
        g_view = nullptr;
        if (st != ZEL_OK) {
            std::string done_json = "[";
            for (size_t i = 0; i < view.finished.size(); ++i)
                done_json += (i ? ", " : "") + tandro::json_string(view.finished[i]);
            tandro::set_failure_partial(done_json + "]");
            return tandro::fail_text(
                "firmware",
                "install " + args[1] + ": " +
                    (view.last_error.empty() ? std::string(ZEL_Status2String(st)) : view.last_error),
                st);
        }
        if (opt.json) {
            std::string json = "{\"package\": " + tandro::json_string(args[1]) + ", \"finished\": [";
            for (size_t i = 0; i < view.finished.size(); ++i)
                json += (i ? ", " : "") + tandro::json_string(view.finished[i]);
            std::printf("%s]}\n", json.c_str());
        } else {
            std::printf("package %s installed\n", args[1].c_str());
        }
        return 0;
    }
    // status
    zel_device_params reader{};
    reader.hnd = h;
    ZEL_STATUS st = device_get_params(&reader);
    if (st != ZEL_OK)
        return tandro::fail("firmware", "device parameters", st);
    zel_device_params display{};
    display.hnd = h;
    display.kind = ZEL_MODULE_DISPLAY;
    const bool has_display = device_get_params(&display) == ZEL_OK;
    char package[128] = {};
    const bool known =
        parsed.has("--images") && Flasher_GetInstalledPackageNameHnd(h, package, sizeof package) == ZEL_OK;
    if (opt.json) {
        std::printf("{\"main\": %s, \"display\": %s, \"package\": %s}\n", module_json(reader).c_str(),
                    has_display ? module_json(display).c_str() : "null",
                    known ? tandro::json_string(package).c_str() : "null");
    } else {
        std::printf("main module  hw type %d, hw version %d, firmware %s, serial %s\n", reader.hw_type, reader.hw_ver,
                    reader.fw_str, reader.serial_str);
        if (has_display)
            std::printf("display      hw type %d, hw version %d, firmware %s\n", display.hw_type, display.hw_ver,
                        display.fw_str);
        std::printf("package      %s\n", known ? package : "(unknown)");
    }
    device_free_operations(reader.operations);
    device_free_operations(display.operations);
    return 0;
}

const tandro::Registration firmware_cmd(
    {"firmware", USAGE, "firmware packages from a folder: list, manifest, install with progress, status", run_firmware,
     false, &TABLE});

} // namespace
