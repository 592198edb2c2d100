// The simulated reader's insides, shared by the links, the API and the program.
#ifndef ZELSIM_CORE_H
#define ZELSIM_CORE_H

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "engine.h"
#include "reader.h"
#include "zelsim.h"

namespace zs {

uint64_t now_ms();

// Something the reader will put on a link: bytes at a due time, the link going away, or the start of an
// endless run of interim frames.
struct Action {
    enum Kind { SEND, UNPLUG, INTERIM } kind = SEND;
    uint64_t due_ms = 0;
    std::vector<uint8_t> bytes;
    uint8_t cmd = 0;
};

// What one link knows of the conversation; its owner holds the simulator's lock while touching it.
struct LinkCore {
    Engine engine;
    std::deque<Action> pending;       // ordered by due time
    bool interim = false;             // sending interim frames until the host speaks
    uint8_t interim_cmd = 0;
    uint64_t interim_next = 0;
    bool unplugged = false;
    bool boot_pending = false;        // the boot bytes are still to come
    uint64_t accept_from_ms = 0;      // frames before this moment are not heard (booting)
    bool stream_started = true;       // for TCP: false until the host's wake byte arrives
    bool datagram = false;            // replies go out in datagrams of at most 300 bytes
};

// Feeds the host's bytes into the reader. Appends what the reader answers to the link's pending actions.
void link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n);
// Moves every byte due by now into out. Returns true when the link is to be closed.
bool link_due(zsim *sim, LinkCore &link, std::vector<uint8_t> &out);
// Milliseconds until the link has something due, or -1 for nothing.
int link_wait_ms(zsim *sim, const LinkCore &link);
// A reset edge: the reader restarts and announces itself.
void link_reset(zsim *sim, LinkCore &link);

// One running link (a thread serving a pty or a socket).
struct Link {
    virtual ~Link() = default;
    virtual void stop() = 0;
    // Something changed that may produce output without input (a card came or went).
    virtual void poke() = 0;
    LinkCore core;
};

} // namespace zs

struct zsim {
    std::mutex mu;
    zs::Reader reader;
    std::deque<zsim_fault> faults;
    std::vector<uint8_t> last_request;
    std::atomic<uint64_t> exchanges{0};
    std::atomic<int> log{0};
    std::atomic<uint32_t> time_scale_pct{100};
    std::mutex links_mu;
    std::vector<std::unique_ptr<zs::Link>> links;
};

#endif
