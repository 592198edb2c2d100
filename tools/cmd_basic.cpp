// tandro version, tandro status CODE.
#include <cstdio>
#include <cstring>

#include "tandro.h"
#include "tools/cli.h"

namespace {

int run_version(const tandro::Options &opt, const tandro::Args &)
{
    const uint32_t v = GetDllVersion();
    if (opt.json)
        std::printf("{\"version\": \"%s\", \"code\": %u}\n", GetDllVersionStr(), v);
    else
        std::printf("tandro library %s (0x%06X)\n", GetDllVersionStr(), v);
    return 0;
}

int run_status(const tandro::Options &opt, const tandro::Args &args)
{
    if (args.size() != 1)
        return tandro::usage_error("status", "give one status code");
    uint32_t code = 0;
    if (!tandro::parse_u32(args[0], &code))
        return tandro::usage_error("status", "\"" + args[0] + "\" is not a number");
    const char *text = ZEL_Status2String(code);
    if (opt.json) {
        const char *name = std::strchr(text, ']');
        std::printf("{\"code\": %u, \"name\": %s}\n", code, tandro::json_string(name ? name + 2 : text).c_str());
    } else {
        std::printf("%s\n", text);
    }
    return 0;
}

const tandro::Registration version_cmd({"version", "", "the library's version", run_version});
const tandro::Registration status_cmd({"status", "CODE", "the text of a status code (decimal or 0x hex)", run_status});

} // namespace
