// The reader list from the tool: simulated readers shown as serial ports, and the list filled from the scan,
// the serial ports one by one when the D2XX library is missing, and the network readers.
#ifndef TANDRO_TOOLS_READER_LIST_H
#define TANDRO_TOOLS_READER_LIST_H

#include <string>

#include "tandro.h"
#include "tools/cli.h"

struct zsim_set;

namespace tandro {

// The simulated readers of --sim: the scenario's "readers" (or its one reader, or the default one), each
// pseudo-terminal shown to the scan as a serial port for as long as this lives.
class SimReaders {
public:
    SimReaders() = default;
    ~SimReaders();
    SimReaders(const SimReaders &) = delete;
    SimReaders &operator=(const SimReaders &) = delete;
    // False with a message in err.
    bool start(const Options &opt, std::string &err);

private:
    zsim_set *set_ = nullptr;
    std::string dir_;
};

// Rescans the list, then adds the network readers. Without the D2XX library the scan answers
// ZEL_FTD2XX_DLL_NOT_FOUND: the serial ports are then added one by one and note says that FTDI devices were
// skipped. Returns the scan's failure other than that one, else ZEL_OK.
ZEL_STATUS fill_reader_list(std::string &note);

} // namespace tandro

#endif
