// tandro version, tandro status CODE.
#include <cstdio>
#include <cstring>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"

namespace {

const tandro::OptionTable VERSION_TABLE = {
    {
        {"", "the version of the library the tool runs on, as text and as its number"},
    },
    {},
    "No reader is opened. Under --json: {\"version\": TEXT, \"code\": N}.",
};

const tandro::OptionTable STATUS_TABLE = {
    {
        {"CODE", "the name and text of status CODE, in decimal or 0x-prefixed hexadecimal"},
    },
    {},
    "No reader is opened. Under --json: {\"code\": N, \"name\": TEXT}.",
};

int run_version(const tandro::Options &opt, const tandro::Args &all)
{
    // Words after the command are not looked at; options are refused.
    tandro::Parsed parsed;
    if (!tandro::parse("version", VERSION_TABLE, all, parsed))
        return 2;
    const uint32_t v = GetDllVersion();
    if (opt.json)
        std::printf("{\"version\": \"%s\", \"code\": %u}\n", GetDllVersionStr(), v);
    else
        std::printf("tandro library %s (0x%06X)\n", GetDllVersionStr(), v);
    return 0;
}

int run_status(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("status", STATUS_TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
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

const tandro::Registration version_cmd({"version", "", "the library's version", run_version, false, &VERSION_TABLE});
const tandro::Registration status_cmd({"status", "CODE", "the text of a status code (decimal or 0x hex)", run_status,
                                       false, &STATUS_TABLE});

} // namespace
