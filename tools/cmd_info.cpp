// tandro ping: is a reader there, and what type is it.
#include <cstdio>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/session.h"

namespace {

int run_ping(const tandro::Options &opt, const tandro::Args &args)
{
    if (!args.empty())
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

const tandro::Registration ping_cmd({"ping", "", "is a reader there: its type", run_ping});

} // namespace
