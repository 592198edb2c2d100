// What the commands of the tool share: the --help test, the help text, a library failure reported on
// standard error (and under --json as the error object), and a plain "done" line or document.
#ifndef TANDRO_TOOLS_COMMAND_HELPERS_H
#define TANDRO_TOOLS_COMMAND_HELPERS_H

#include <cstdio>
#include <string>

#include "tandro.h"
#include "tools/cli.h"

namespace tandro {

inline bool wants_help(const Args &a)
{
    for (const std::string &w : a)
        if (w == "--help" || w == "-h")
            return true;
    return false;
}

inline int help(const char *text)
{
    std::fputs(text, stdout);
    return 0;
}

// A failure of the library: one line on standard error, and under --json the tool's error object.
inline int failed(const Options &, const char *command, const char *what, ZEL_STATUS st)
{
    return fail(command, what, st);
}

inline void done(const Options &opt, const std::string &what)
{
    if (opt.json)
        std::printf("{\"done\": %s}\n", json_string(what).c_str());
    else
        std::printf("%s\n", what.c_str());
}

} // namespace tandro

#endif
