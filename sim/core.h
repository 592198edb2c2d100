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
// A boot loader packet's EXT: 128 bytes and their checksum.
constexpr size_t REPORT_EXT = 129;

struct LinkCore {
    Engine engine;
    std::deque<Action> pending; // ordered by due time
    bool interim = false;       // sending interim frames until the host speaks
    uint8_t interim_cmd = 0;
    uint64_t interim_next = 0;
    bool unplugged = false;
    bool boot_pending = false;   // the boot bytes are still to come
    uint64_t accept_from_ms = 0; // frames before this moment are not heard (booting)
    bool stream_started = true;  // for TCP: false until the host's wake byte arrives
    bool datagram = false;       // replies go out in datagrams of at most 300 bytes
    bool check_baud = false;     // the link has a line rate: bytes pass only when both sides agree
    uint32_t host_baud = 0;
    size_t report_got = REPORT_EXT; // bytes of an EXT coming in reports; REPORT_EXT: none is coming
};

// The boot loader's announcement after a reset, and the reader's start-up times (before the time scale).
constexpr uint8_t BOOT_BYTES[4] = {0x03, 0x55, 0x55, 0xBB};
constexpr uint64_t BOOT_DELAY_MS = 20; // from the reset edge to the boot bytes
constexpr uint64_t BOOT_READY_MS = 80; // from the boot bytes to the first frame heard

// What the discovery responder announces: the reader's first UDP or TCP link.
struct DiscoveryTarget {
    uint8_t address[4] = {127, 0, 0, 1};
    uint16_t port = 8881;
    uint8_t protocol = 0; // 'U' or 'T'; 0 until a frame link starts (then 'U' on 8881 is announced)
};

// A link asked for by a scenario, started by zsim_serve_links (the D2XX stand-in serves its own).
struct LinkSpec {
    std::string kind; // pty, udp, tcp, discovery, gpio, d2xx
    std::string host = "127.0.0.1";
    uint16_t port = 0;
    bool short_form = false; // discovery: the 19-byte reply
    std::string path;        // gpio: the socket
    uint32_t pin = 23;
    // d2xx
    std::string serial, description;
    bool invert_rts = false;
    int32_t com_port = -1;
};

// Feeds the host's bytes into the reader. Appends what the reader answers to the link's pending actions.
void link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n);
// Moves every byte due by now into out. Returns true when the link is to be closed.
bool link_due(zsim *sim, LinkCore &link, std::vector<uint8_t> &out);
// Milliseconds until the link has something due, or -1 for nothing.
int link_wait_ms(zsim *sim, const LinkCore &link);
// A reset edge: the reader restarts and announces itself. The caller holds the simulator's lock.
void link_reset(zsim *sim, LinkCore &link);
// Puts bytes the reader sends by itself on the link now. The caller holds the simulator's lock.
void link_push(zsim *sim, LinkCore &link, const std::vector<uint8_t> &bytes);
// Scales a reader time by the simulator's time scale.
uint64_t scaled_ms(zsim *sim, uint64_t ms);

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
    std::atomic<uint64_t> resets{0};
    // Lock order: links_mu before mu.
    std::mutex links_mu;
    std::vector<std::unique_ptr<zs::Link>> links;
    std::vector<zs::LinkSpec> link_specs; // under mu
    zs::DiscoveryTarget discovery_target; // under mu
    // The line model (sim/line.h): bit rate, 0 for none, and the turnaround after each command.
    std::atomic<uint32_t> line_rate{0};
    std::atomic<uint32_t> line_turnaround_us{0};
    // What the line model has waited in all, wire time and turnarounds, in microseconds.
    std::atomic<uint64_t> line_waited_us{0};
    // An ESP front answers the address question with esp_address ("0.0.0.0" when empty); under mu.
    bool esp_front = false;
    std::string esp_address;
};

#endif
