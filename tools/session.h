// How a tool command reaches a reader: the built-in simulated reader (--sim [SCENARIO]) or a real port.
#ifndef TANDRO_TOOLS_SESSION_H
#define TANDRO_TOOLS_SESSION_H

#include <cstring>
#include <string>

#include "tandro.h"
#include "tools/cli.h"

struct zsim;

namespace tandro {
class SimReaders;
}

namespace tandro {

// The global reader is the given reader while this guard lives, for operations that have only the global
// form (the document session, the payment card calls); the previous global reader comes back after.
struct GlobalReader {
    zel_handle_record saved;
    explicit GlobalReader(ZEL_HANDLE hnd)
    {
        std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
        std::memcpy(static_cast<void *>(&zel_global), hnd, sizeof saved);
    }
    ~GlobalReader() { std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved); }
    GlobalReader(const GlobalReader &) = delete;
    GlobalReader &operator=(const GlobalReader &) = delete;
};

// The cards and reader of the built-in simulated reader when --sim names no scenario file. Every card
// family the simulator models has one card here, so that each command has something to work on.
const char *default_sim_scenario();

// Takes the cards in front of the first one whose model name begins with model_prefix out of the simulated
// field, so that this card answers the commands that follow. Does nothing when no card matches.
void bring_forward(zsim *sim, const char *model_prefix);

class ReaderSession {
public:
    ReaderSession() = default;
    ~ReaderSession();
    ReaderSession(const ReaderSession &) = delete;
    ReaderSession &operator=(const ReaderSession &) = delete;

    // Opens the reader the options name. On failure prints "tandro COMMAND: ..." and returns false.
    bool open(const char *command, const Options &opt);

    ZEL_HANDLE hnd() const { return hnd_; }
    zsim *sim() const { return sim_; } // null on a real reader
    const std::string &where() const { return where_; }

private:
    // --reader N or --serial S: the reader list, and the simulated readers under --sim.
    bool open_from_list(const char *command, const Options &opt);

    ZEL_HANDLE hnd_ = nullptr;
    zsim *sim_ = nullptr;
    SimReaders *sim_readers_ = nullptr;
    std::string where_;
};

} // namespace tandro

#endif
