// tandro: the library from a shell. Each command lives in a cmd_*.cpp file of its own and registers itself.
#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"

namespace {

int usage(FILE *out)
{
    std::fprintf(out, "usage: tandro [--json] [--debug] COMMAND [ARGS]\n\ncommands:\n");
    std::vector<tandro::Command> list = tandro::commands();
    std::sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return std::string(a.name) < b.name; });
    for (const auto &c : list) {
        const std::string head = std::string(c.name) + (c.usage[0] ? " " : "") + c.usage;
        std::fprintf(out, "  %-22s %s\n", head.c_str(), c.summary);
    }
    std::fprintf(out, "\noptions:\n"
                      "  --json                 structured output\n"
                      "  --debug                the library's debug lines on standard error\n");
    return out == stdout ? 0 : 2;
}

} // namespace

int main(int argc, char **argv)
{
    tandro::Options opt;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--json")
            opt.json = true;
        else if (a == "--debug")
            opt.debug = true;
        else if (a == "--help" || a == "-h" || a == "help")
            return usage(stdout);
        else
            break;
    }
    if (i >= argc)
        return usage(stderr);
    const std::string name = argv[i];
    tandro::Args args;
    for (int k = i + 1; k < argc; ++k) {
        const std::string a = argv[k];
        if (a == "--json")
            opt.json = true;
        else if (a == "--debug")
            opt.debug = true;
        else
            args.push_back(a);
    }
    if (opt.debug)
        ZEL_DebugPrintEnable(1);
    for (const auto &c : tandro::commands())
        if (name == c.name)
            return c.run(opt, args);
    std::fprintf(stderr, "tandro: unknown command \"%s\"\n\n", name.c_str());
    return usage(stderr);
}
