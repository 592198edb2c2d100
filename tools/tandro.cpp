// tandro: the library from a shell. Each command lives in a cmd_*.cpp file of its own and registers itself.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"

namespace {

// Options that every command takes, before or after its name. Returns false when the word is no such option.
bool global_option(tandro::Options &opt, int argc, char **argv, int &i, bool &bad)
{
    const std::string a = argv[i];
    auto value = [&](const char *name, std::string &out) {
        const std::string prefix = std::string(name) + "=";
        if (a.rfind(prefix, 0) == 0) {
            out = a.substr(prefix.size());
            return true;
        }
        if (a == name) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "tandro: %s needs a value\n", name);
                bad = true;
                return true;
            }
            out = argv[++i];
            return true;
        }
        return false;
    };
    std::string text;
    if (a == "--json")
        opt.json = true;
    else if (a == "--debug")
        opt.debug = true;
    else if (a == "--sim")
        opt.sim = true;
    else if (a.rfind("--sim=", 0) == 0) {
        opt.sim = true;
        opt.sim_scenario = a.substr(6);
    } else if (value("--port", opt.port)) {
    } else if (value("--type", text)) {
        opt.open_given = true;
        if (!bad && !tandro::parse_u32(text, &opt.reader_type)) {
            std::fprintf(stderr, "tandro: --type takes a number (0 any, 1, 2, 3, 4 network)\n");
            bad = true;
        }
    } else if (value("--interface", text)) {
        opt.open_given = true;
        if (!bad && text.size() == 1 && (text[0] == 'T' || text[0] == 'U' || text[0] == 'L'))
            opt.port_interface = static_cast<uint8_t>(text[0]);
        else if (!bad && !tandro::parse_u32(text, &opt.port_interface)) {
            std::fprintf(stderr, "tandro: --interface takes 0, 1, 2, 10, T, U or L\n");
            bad = true;
        }
    } else if (value("--arg", opt.arg)) {
        opt.open_given = true;
    } else if (value("--reader", text)) {
        uint32_t index = 0;
        opt.list_given = true;
        if (!bad && (!tandro::parse_u32(text, &index) || index > 0x7FFFFFFFu)) {
            std::fprintf(stderr, "tandro: --reader takes an index of tandro readers\n");
            bad = true;
        }
        opt.list_index = static_cast<int32_t>(index);
    } else if (value("--serial", opt.list_serial)) {
        opt.list_given = true;
        if (!bad && (opt.list_serial.empty() || opt.list_serial.size() > 20)) {
            std::fprintf(stderr, "tandro: --serial takes a serial number of 1 to 20 characters\n");
            bad = true;
        }
    } else
        return false;
    return true;
}

int usage(FILE *out)
{
    std::fprintf(out, "usage: tandro [--json] [--debug] COMMAND [ARGS]\n\ncommands:\n");
    std::vector<tandro::Command> list = tandro::commands();
    std::sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return std::string(a.name) < b.name; });
    for (const auto &c : list) {
        const std::string head = std::string(c.name) + (c.usage[0] ? " " : "") + c.usage;
        std::fprintf(out, "  %-22s %s\n", head.c_str(), c.summary);
    }
    std::fprintf(out,
                 "\noptions:\n"
                 "  --json                 structured output\n"
                 "  --debug                the library's debug lines on standard error\n"
                 "  --sim[=SCENARIO]       the built-in simulated reader (default cards, or a scenario file)\n"
                 "  --port NAME            the reader's port: device path, reader serial, or HOST[:PORT] on a network\n"
                 "  --type N               reader type: 0 any, 1 at 1 Mbit/s, 2 at 115200, 3 at 250000, 4 network\n"
                 "  --interface I          0 auto, 1 serial, 2 FTDI, 10 serial with GPIO reset, T TCP, U UDP\n"
                 "  --arg WORDS            words of the open, such as \"UNIT_OPEN_RESET_DISABLE\"\n"
                 "  --reader N             the reader at index N of tandro readers\n"
                 "  --serial S             the reader of tandro readers whose serial begins with S\n"
                 "  (no --port and no --sim: the reader is searched for on USB and serial ports)\n");
    return out == stdout ? 0 : 2;
}

} // namespace

int main(int argc, char **argv)
{
    tandro::Options opt;
    int i = 1;
    bool bad = false;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h" || a == "help")
            return usage(stdout);
        if (!global_option(opt, argc, argv, i, bad))
            break;
        if (bad)
            return 2;
    }
    if (i >= argc)
        return usage(stderr);
    const std::string name = argv[i];
    tandro::Args args;
    for (int k = i + 1; k < argc; ++k) {
        if (name == "sim") { // the simulated reader's own options pass through untouched
            args.push_back(argv[k]);
            continue;
        }
        if (!global_option(opt, argc, argv, k, bad))
            args.push_back(argv[k]);
        if (bad)
            return 2;
    }
    if (opt.debug)
        ZEL_DebugPrintEnable(1);
    for (const auto &c : tandro::commands())
        if (name == c.name)
            return c.run(opt, args);
    std::fprintf(stderr, "tandro: unknown command \"%s\"\n\n", name.c_str());
    return usage(stderr);
}
