// Reaching a reader from a tool command.
#include "tools/session.h"

#include <cstdio>
#include <cstring>
#include <vector>

#include "zelsim.h"

namespace tandro {

void bring_forward(zsim *sim, const char *model_prefix)
{
    char list[4096] = {};
    if (!sim || zsim_command(sim, "list", list, sizeof list) != 0)
        return;
    // One line a card, its model name last.
    std::vector<std::string> ahead;
    for (const char *line = list; *line;) {
        const char *end = std::strchr(line, '\n');
        const std::string l(line, end ? static_cast<size_t>(end - line) : std::strlen(line));
        const size_t space = l.rfind(' ');
        if (space != std::string::npos && l.compare(space + 1, std::strlen(model_prefix), model_prefix) == 0) {
            for (const auto &uid : ahead) {
                char out[128];
                zsim_command(sim, ("remove " + uid).c_str(), out, sizeof out);
            }
            return;
        }
        ahead.push_back(l.substr(0, l.find(' ')));
        if (!end)
            break;
        line = end + 1;
    }
}

const char *default_sim_scenario()
{
    // One card of each modelled family; commands act on the first card in the field unless told otherwise.
    return R"({
  "reader": {"type": "D1180022", "serial_number": 2050001, "serial_description": "SIM00001"},
  "cards": [
    {"uid": "5A3C9E21", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K", "model": "classic_1k",
     "setup": {"blocks": [{"block": 4, "data": "54616E64726F2073696D756C61746564"},
                          {"block": 5, "data": "636C617373696320314B2063617264"}],
               "values": [{"block": 6, "value": 100, "address": 6}]}},
    {"uid": "04A22B1A5C6480", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_215", "model": "ntag215",
     "setup": {"pages": [{"page": 4, "data": "0317D101135504 74616E64726F2E6578616D706C652F73696D FE"}]}},
    {"uid": "04518A2B3C4D80", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4", "model": "iso14443_4"},
    {"uid": "08A1B2C3", "sak": "20", "atqa": "0004", "type": "ORB_GENERIC_ISO14443_4", "model": "passport"},
    {"uid": "04D35F1E6A2B80", "sak": "20", "atqa": "0344", "type": "ORB_MIFARE_DESFIRE_EV1_4K", "model": "desfire",
     "setup": {"size": 4096, "version": "ev1", "master_key_type": "aes",
               "applications": [{"aid": "A1B2C3", "key_type": "aes", "keys": 3,
                                 "files": [{"id": 1, "type": "std", "size": 32,
                                            "data": "54616E64726F204445534669726520646174610A"},
                                           {"id": 2, "type": "value", "lower": 0, "upper": 1000, "value": 100},
                                           {"id": 3, "type": "cyclic", "record_size": 8, "records": 5}]}]}},
    {"uid": "E0040150A1B2C3D4", "sak": "00", "atqa": "0000", "type": "50", "model": "iso15693",
     "setup": {"blocks": 28, "dsfid": 0, "afi": 0, "ic_reference": 1,
               "block_data": [{"block": 0, "data": "E1400E00"}, {"block": 1, "data": "0300FE00"}]}}
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

namespace {

bool report(const char *command, const std::string &where, ZEL_STATUS st)
{
    if (st == ZEL_OK)
        return true;
    std::fprintf(stderr, "tandro %s: %s: %s\n", command, where.c_str(), ZEL_Status2String(st));
    return false;
}

} // namespace

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
        // A pseudo-terminal has no reset line: the reader is opened as it runs.
        return report(command, where_,
                      hnd_ ? ReaderOpenExHnd(hnd_, 1, path, 1, "UNIT_OPEN_RESET_DISABLE") : ZEL_NO_MEMORY_ERROR);
    }
    if (opt.port.empty() && !opt.open_given) {
        ZEL_HANDLE found = nullptr;
        const ZEL_STATUS st = ReaderOpenM(&found);
        if (!report(command, "reader search", st))
            return false;
        // The search's record is shared by every caller; this session keeps a copy of its own.
        hnd_ = Zel_Hnd_Create();
        if (!hnd_)
            return report(command, "reader search", ZEL_NO_MEMORY_ERROR);
        *hnd_ = *found;
        where_ = hnd_->try_port[0] ? hnd_->try_port : "found reader";
        return true;
    }
    where_ = opt.port.empty() ? "reader" : opt.port;
    uint32_t type = opt.reader_type;
    if (type == 0 && opt.port_interface != 'T' && opt.port_interface != 'U' && !opt.port.empty())
        type = 1;
    hnd_ = Zel_Hnd_Create();
    return report(command, where_,
                  hnd_ ? ReaderOpenExHnd(hnd_, type, opt.port.empty() ? nullptr : opt.port.c_str(), opt.port_interface,
                                         opt.arg.empty() ? nullptr : opt.arg.c_str())
                       : ZEL_NO_MEMORY_ERROR);
}

} // namespace tandro
