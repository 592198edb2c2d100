// The reader list from the tool.
#include "tools/reader_list.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "tools/session.h"
#include "transport/sysfs.h"
#include "zelsim.h"

namespace tandro {

namespace {

// A whole scenario file, at most 4 MiB.
bool read_file(const std::string &path, std::string &text, std::string &err)
{
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        err = "cannot read " + path;
        return false;
    }
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() <= (4u << 20))
        text.append(buf, n);
    std::fclose(f);
    if (text.size() > (4u << 20)) {
        err = path + ": too long for a scenario";
        return false;
    }
    return true;
}

} // namespace

SimReaders::~SimReaders()
{
    zel::set_sysfs_root(nullptr);
    zel::set_dev_root(nullptr);
    zsim_set_free(set_);
    if (!dir_.empty())
        rmdir(dir_.c_str());
}

bool SimReaders::start(const Options &opt, std::string &err)
{
    std::string text = default_sim_scenario();
    if (!opt.sim_scenario.empty()) {
        text.clear();
        if (!read_file(opt.sim_scenario, text, err))
            return false;
    } else {
        // The default reader on a pseudo-terminal.
        text.insert(text.rfind('}'), R"(, "links": [{"kind": "pty"}])");
    }
    char tmpl[] = "/tmp/tandro_readers_XXXXXX";
    if (!mkdtemp(tmpl)) {
        err = "no temporary folder for the simulated ports";
        return false;
    }
    dir_ = tmpl;
    const std::string ports = dir_ + "/ports";
    char report[8192] = {}, e[512] = {};
    set_ = zsim_set_start(text.c_str(), ports.c_str(), report, sizeof report, e, sizeof e);
    if (!set_) {
        err = std::string("scenario: ") + e;
        return false;
    }
    zel::set_sysfs_root((ports + "/sys").c_str());
    zel::set_dev_root(ports.c_str());
    return true;
}

ZEL_STATUS fill_reader_list(std::string &note)
{
    uint32_t count = 0;
    const ZEL_STATUS st = ReaderList_UpdateAndGetCount(&count);
    if (st == ZEL_FTD2XX_DLL_NOT_FOUND) {
        note = "FTDI devices skipped: the D2XX library is not installed";
        // The list still holds what an earlier scan left: it starts empty here.
        for (uint32_t n = list_size(); n > 0; --n)
            (void)list_remove(list_get_by_idx(n - 1));
        zel_com_ports ports;
        if (find_active_com_ports(&ports) == 0) {
            for (int32_t i = 0; i < ports.count && i < ZEL_COM_PORTS_MAX; ++i) {
                char name[80];
                std::snprintf(name, sizeof name, "%.64s%d", ports.prefix[i], ports.number[i]);
                ZEL_HANDLE h = nullptr;
                static const char *const kArgs[] = {"UNIT_OPEN_RESET_DISABLE", "READER_ACTIVE_ON_RTS_LOW",
                                                    "READER_ACTIVE_ON_RTS_HIGH"};
                ZEL_STATUS added = ZEL_READER_OPENING_ERROR;
                for (uint32_t type = 1; type <= 2 && added != ZEL_OK && added != ZEL_DEVICE_ALREADY_OPENED; ++type)
                    for (const char *arg : kArgs) {
                        added = ReaderList_Add(&h, type, name, 1, arg);
                        if (added == ZEL_OK || added == ZEL_DEVICE_ALREADY_OPENED)
                            break;
                    }
            }
        }
    } else if (st != ZEL_OK) {
        return st;
    }
    // Network readers: they answer the broadcast, and their identity is read here.
    const uint32_t before = list_size();
    (void)udp_reader_list();
    for (uint32_t i = before; i < list_size(); ++i)
        (void)GetReaderInfo(list_get_by_idx(i));
    return ZEL_OK;
}

} // namespace tandro
