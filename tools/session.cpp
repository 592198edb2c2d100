// Reaching a reader from a tool command.
#include "tools/session.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "tools/reader_list.h"
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
    delete sim_readers_;
}

namespace {

bool report(const char *command, const std::string &where, ZEL_STATUS st)
{
    if (st == ZEL_OK)
        return true;
    tandro::fail(command, where, st);
    return false;
}

// A device path's reason not to open, as the system gives it ("No such file or directory"), or empty.
std::string path_problem(const std::string &port)
{
    if (port.empty() || port[0] != '/')
        return std::string();
    if (access(port.c_str(), R_OK | W_OK) == 0)
        return std::string();
    return std::strerror(errno);
}

// A pseudo-terminal has no RTS line, so it is opened without the reset pulse (Unix 98 slaves have the
// majors 136 to 143).
bool is_pseudo_terminal(const std::string &port)
{
    struct stat st {};
    if (port.empty() || stat(port.c_str(), &st) != 0 || !S_ISCHR(st.st_mode))
        return false;
    return major(st.st_rdev) >= 136 && major(st.st_rdev) <= 143;
}

// HOST:PORT, the form of a network reader's address: a port number after the last colon and no slash.
bool is_network_address(const std::string &port)
{
    const size_t colon = port.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == port.size() || port.find('/') != std::string::npos)
        return false;
    for (size_t i = colon + 1; i < port.size(); ++i)
        if (port[i] < '0' || port[i] > '9')
            return false;
    return true;
}

} // namespace

bool ReaderSession::open_from_list(const char *command, const Options &opt)
{
    std::string err, note;
    if (opt.sim) {
        sim_readers_ = new (std::nothrow) SimReaders();
        if (!sim_readers_ || !sim_readers_->start(opt, err)) {
            tandro::usage_error(command, sim_readers_ ? err : std::string("out of memory"));
            return false;
        }
    }
    if (!report(command, "reader list", fill_reader_list(note)))
        return false;
    ZEL_HANDLE entry = nullptr;
    const ZEL_STATUS st = opt.list_serial.empty() ? ReaderList_OpenByIndex(opt.list_index, &entry)
                                                  : ReaderList_OpenBySerial(opt.list_serial.c_str(), &entry);
    where_ = opt.list_serial.empty() ? "reader " + std::to_string(opt.list_index) : "reader " + opt.list_serial;
    if (!report(command, where_, st))
        return false;
    // The session's handle is the entry's record: the list keeps its own, which shares the port.
    hnd_ = Zel_Hnd_Create();
    if (!hnd_)
        return report(command, where_, ZEL_NO_MEMORY_ERROR);
    *hnd_ = *entry;
    where_ += std::string(" on ") + (hnd_->try_port[0] ? hnd_->try_port : "its link");
    return true;
}

bool ReaderSession::open(const char *command, const Options &opt)
{
    if (opt.list_given)
        return open_from_list(command, opt);
    char err[256] = {};
    if (opt.sim) {
        sim_ = zsim_new();
        if (!sim_) {
            tandro::usage_error(command, "the simulated reader did not start");
            return false;
        }
        const int loaded = opt.sim_scenario.empty()
                               ? zsim_load_scenario(sim_, default_sim_scenario(), err, sizeof err)
                               : zsim_load_scenario_file(sim_, opt.sim_scenario.c_str(), err, sizeof err);
        if (loaded != 0) {
            tandro::usage_error(command, std::string("scenario: ") + err);
            return false;
        }
        char path[256] = {};
        if (zsim_serve_pty(sim_, path, sizeof path) != 0) {
            tandro::usage_error(command, "no pseudo-terminal for the simulated reader");
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
    hnd_ = Zel_Hnd_Create();
    if (!hnd_)
        return report(command, where_, ZEL_NO_MEMORY_ERROR);
    const char *port = opt.port.empty() ? nullptr : opt.port.c_str();
    if (opt.port_interface == 0 && is_network_address(opt.port)) {
        // A network reader: datagrams first, then a stream, as the reader list does.
        const char *arg = opt.arg.empty() ? "UNIT_OPEN_RESET_DISABLE" : opt.arg.c_str();
        ZEL_STATUS st = ReaderOpenExHnd(hnd_, opt.reader_type, port, 'U', arg);
        if (st != ZEL_OK)
            st = ReaderOpenExHnd(hnd_, opt.reader_type, port, 'T', arg);
        return report(command, where_, st);
    }
    uint32_t type = opt.reader_type;
    if (type == 0 && opt.port_interface != 'T' && opt.port_interface != 'U' && !opt.port.empty())
        type = 1;
    const char *arg = !opt.arg.empty()               ? opt.arg.c_str()
                      : is_pseudo_terminal(opt.port) ? "UNIT_OPEN_RESET_DISABLE"
                                                     : nullptr;
    const ZEL_STATUS st = ReaderOpenExHnd(hnd_, type, port, opt.port_interface, arg);
    const std::string problem = st == ZEL_OK ? std::string() : path_problem(opt.port);
    return report(command, problem.empty() ? where_ : where_ + ": " + problem, st);
}

} // namespace tandro
