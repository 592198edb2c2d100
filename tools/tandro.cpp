// tandro: the library from a shell.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/internal.h"
#include "tandro.h"
#include "tools/cli.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

int usage(FILE *out)
{
    std::fprintf(out,
                 "usage: tandro [--json] COMMAND [ARGS]\n"
                 "\n"
                 "commands:\n"
                 "  version          the library's version\n"
                 "  status CODE      the text of a status code (decimal or 0x hex)\n"
                 "  demo             run against the built-in simulated reader: reader type and the card\n"
                 "  sim [ARGS]       run the simulated reader (see 'tandro sim --help')\n"
                 "\n"
                 "options:\n"
                 "  --json           structured output\n"
                 "  --debug          print the library's debug lines on standard error\n");
    return out == stdout ? 0 : 2;
}

int cmd_version(const tandro::Options &opt)
{
    const uint32_t v = GetDllVersion();
    if (opt.json)
        std::printf("{\"version\": \"%s\", \"code\": %u}\n", GetDllVersionStr(), v);
    else
        std::printf("tandro library %s (0x%06X)\n", GetDllVersionStr(), v);
    return 0;
}

int cmd_status(const tandro::Options &opt, const std::vector<std::string> &args)
{
    if (args.empty()) {
        std::fprintf(stderr, "tandro status: give a status code\n");
        return 2;
    }
    uint32_t code = 0;
    if (!tandro::parse_u32(args[0], &code)) {
        std::fprintf(stderr, "tandro status: \"%s\" is not a number\n", args[0].c_str());
        return 2;
    }
    const char *text = ZEL_Status2String(code);
    if (opt.json) {
        const char *name = std::strchr(text, ']');
        std::printf("{\"code\": %u, \"text\": %s}\n", code, tandro::json_string(name ? name + 2 : text).c_str());
    } else {
        std::printf("%s\n", text);
    }
    return 0;
}

// The demo: a simulated reader with a card, reached through the library as an application would.
int cmd_demo(const tandro::Options &opt)
{
    zsim *sim = zsim_new();
    if (!sim) {
        std::fprintf(stderr, "tandro demo: the simulated reader did not start\n");
        return 1;
    }
    const zsim_card card = {{0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, ORB_NTAG_215};
    zsim_card_add(sim, &card);
    char path[256] = {};
    if (zsim_serve_pty(sim, path, sizeof path) != 0) {
        std::fprintf(stderr, "tandro demo: no pseudo-terminal for the simulated reader\n");
        zsim_free(sim);
        return 1;
    }
    zel_handle_record *hnd = Zel_Hnd_Create();
    int rc = 0;
    ZEL_STATUS status = zel::serial_open(hnd, path, 1000000, true);
    uint32_t type = 0;
    uint8_t card_type = 0;
    uint32_t uid = 0;
    if (status == ZEL_OK)
        status = GetReaderTypeM(hnd, &type);
    ZEL_STATUS card_status = status == ZEL_OK ? GetCardIdM(hnd, &card_type, &uid) : status;
    if (status != ZEL_OK) {
        std::fprintf(stderr, "tandro demo: reader on %s: %s\n", path, ZEL_Status2String(status));
        rc = 1;
    } else if (opt.json) {
        std::printf("{\"port\": %s, \"reader_type\": \"%08X\"", tandro::json_string(path).c_str(), type);
        if (card_status == ZEL_OK)
            std::printf(", \"card\": {\"type\": %s, \"type_code\": %u, \"uid32\": \"%08X\"}}\n",
                        tandro::json_string(ZEL_OrbCardType2String(card_type)).c_str(), card_type, uid);
        else
            std::printf(", \"card\": null, \"card_status\": %s}\n",
                        tandro::json_string(ZEL_Status2String(card_status)).c_str());
    } else {
        std::printf("Simulated reader on %s\n", path);
        std::printf("  reader type  %08X\n", type);
        if (card_status == ZEL_OK)
            std::printf("  card         %s (0x%02X), UID %08X\n", ZEL_OrbCardType2String(card_type), card_type, uid);
        else
            std::printf("  card         none: %s\n", ZEL_Status2String(card_status));
    }
    Zel_Hnd_Destroy(hnd);
    zsim_free(sim);
    return rc;
}

} // namespace

int main(int argc, char **argv)
{
    tandro::Options opt;
    std::vector<std::string> rest;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (rest.empty() && a == "--json")
            opt.json = true;
        else if (rest.empty() && a == "--debug")
            opt.debug = true;
        else if (rest.empty() && (a == "--help" || a == "-h"))
            return usage(stdout);
        else
            rest.push_back(a);
    }
    if (rest.empty())
        return usage(stderr);
    if (opt.debug)
        ZEL_DebugPrintEnable(1);
    const std::string cmd = rest[0];
    const std::vector<std::string> args(rest.begin() + 1, rest.end());
    if (cmd == "version")
        return cmd_version(opt);
    if (cmd == "status")
        return cmd_status(opt, args);
    if (cmd == "demo")
        return cmd_demo(opt);
    if (cmd == "sim") {
        std::vector<char *> sim_argv;
        sim_argv.push_back(const_cast<char *>("tandro sim"));
        for (int i = 2; i < argc; ++i)
            sim_argv.push_back(argv[i]);
        sim_argv.push_back(nullptr);
        return zsim_main(static_cast<int>(sim_argv.size() - 1), sim_argv.data());
    }
    std::fprintf(stderr, "tandro: unknown command \"%s\"\n", cmd.c_str());
    return usage(stderr);
}
