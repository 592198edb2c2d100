// Reaching a reader from a tool command.
#include "tools/session.h"

#include <cstdio>

#include "transport/serial.h"
#include "zelsim.h"

namespace tandro {

const char *default_sim_scenario()
{
    // One card of each modelled family; commands act on the first card in the field unless told otherwise.
    return R"({
  "reader": {"type": "D1180022", "serial_number": 2050001, "serial_description": "SIM00001"},
  "cards": [
    {"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215"}
  ]
})";
}

ReaderSession::~ReaderSession()
{
    if (hnd_)
        Zel_Hnd_Destroy(hnd_);
    if (sim_)
        zsim_free(sim_);
}

bool ReaderSession::open(const char *command, const Options &opt)
{
    char err[256] = {};
    if (opt.sim) {
        sim_ = zsim_new();
        if (!sim_) {
            std::fprintf(stderr, "tandro %s: the simulated reader did not start\n", command);
            return false;
        }
        const int loaded = opt.sim_scenario.empty()
                               ? zsim_load_scenario(sim_, default_sim_scenario(), err, sizeof err)
                               : zsim_load_scenario_file(sim_, opt.sim_scenario.c_str(), err, sizeof err);
        if (loaded != 0) {
            std::fprintf(stderr, "tandro %s: scenario: %s\n", command, err);
            return false;
        }
        char path[256] = {};
        if (zsim_serve_pty(sim_, path, sizeof path) != 0) {
            std::fprintf(stderr, "tandro %s: no pseudo-terminal for the simulated reader\n", command);
            return false;
        }
        where_ = std::string("simulated reader on ") + path;
        hnd_ = Zel_Hnd_Create();
        const ZEL_STATUS st = hnd_ ? zel::serial_open(hnd_, path, 1000000, true) : ZEL_NO_MEMORY_ERROR;
        if (st != ZEL_OK) {
            std::fprintf(stderr, "tandro %s: %s: %s\n", command, path, ZEL_Status2String(st));
            return false;
        }
        PortSetTimeout(hnd_, 1000);
        return true;
    }
    if (opt.port.empty()) {
        std::fprintf(stderr, "tandro %s: name the reader with --port NAME, or use --sim\n", command);
        return false;
    }
    where_ = opt.port;
    hnd_ = Zel_Hnd_Create();
    const ZEL_STATUS st = hnd_ ? zel::serial_open(hnd_, opt.port.c_str(), opt.baud, true) : ZEL_NO_MEMORY_ERROR;
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro %s: %s: %s\n", command, opt.port.c_str(), ZEL_Status2String(st));
        return false;
    }
    PortSetTimeout(hnd_, 1000);
    return true;
}

} // namespace tandro
