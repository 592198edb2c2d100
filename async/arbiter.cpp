// Who may use the port while a session runs: the application's calls, the event thread's own command and
// the polling thread's looks.
//
// A port call of the application raises port_busy and takes port_lock for the time of the call. That alone
// would let the polling thread read between the write of a command and the read of its reply, and let the
// event thread's card type query interleave with an application command. On the session's record this gate
// adds three rules:
//   - the polling thread looks at the port only when nobody else is in a call and no call ended in the last
//     kHoldMs (a command's calls follow each other within that time);
//   - the event thread runs its command once the application's command is over: no call in progress and
//     either kHoldMs of quiet or the application waiting at the start (the purge) of its next command;
//   - while the event thread runs its command, calls of other threads wait;
//   - the polling thread also keeps away while a command's reply is still due (its write was made and its
//     frame or the EXT that frame announced not yet read), for at most kReplyHold after the last call, so
//     that a caller held up between the calls of one command never finds its reply taken.
// Announcements that reach the port while a command runs (before its purge, or in front of its reply) are
// kept in a store and delivered by the polling thread, instead of being lost with the purge.
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

#include "async/internal.h"
#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "zel_status.h"

namespace zel::async {

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kHold = std::chrono::milliseconds(100);
constexpr auto kReplyHold = std::chrono::milliseconds(2000); // longer than any read time-out of a reply
constexpr auto kCallWaitLimit = std::chrono::seconds(5);     // an application call never waits longer
constexpr auto kCommandWaitLimit = std::chrono::seconds(2);  // nor the event thread for its command
constexpr uint32_t kStoreLen = 256;
constexpr int kRescueRounds = 16; // reads of waiting bytes a purge makes at most before it drops the rest

struct Gate {
    std::mutex m;
    std::condition_variable cv;
    zel_handle_record *hnd = nullptr; // the session's record while one runs
    int inside = 0;                   // manual calls in progress
    int wanting = 0;                  // manual calls waiting to start
    int at_boundary = 0;              // of those, purges (command starts) held back for the event thread
    bool poller_inside = false;
    bool command_wanted = false; // the event thread waits for its turn
    bool command_owned = false;  // the event thread runs its command
    pthread_t command_thread{};
    Clock::time_point last_end{};
    bool reply_next = false; // the next read starts a reply
    uint32_t reply_left = 0; // bytes of a reply's EXT not yet read
    uint8_t store[kStoreLen] = {};
    uint32_t store_len = 0;
};

Gate &gate()
{
    static Gate g;
    return g;
}

enum Token { kPlain = 1, kGated = 2, kOwner = 3 };

bool owner_is_me(const Gate &g)
{
    return g.command_owned && pthread_equal(g.command_thread, pthread_self());
}

// port_busy tells the polling thread that a manual operation wants or holds the port.
void update_busy(const Gate &g, zel_handle_record *hnd)
{
    const uint32_t busy = g.inside > 0 || g.wanting > 0 || g.command_owned || g.command_wanted ? 1u : 0u;
    if (busy)
        __atomic_exchange_n(&hnd->port_busy, 1u, __ATOMIC_ACQUIRE);
    else
        __atomic_exchange_n(&hnd->port_busy, 0u, __ATOMIC_RELEASE);
}

void store_locked(Gate &g, const uint8_t *data, uint32_t len)
{
    const uint32_t room = kStoreLen - g.store_len;
    const uint32_t n = len < room ? len : room;
    std::memcpy(g.store + g.store_len, data, n);
    g.store_len += n;
}

// Whether the polling thread has to keep off the port; the caller holds the gate's lock.
bool port_taken(const Gate &g)
{
    const auto quiet = Clock::now() - g.last_end;
    return g.inside > 0 || g.wanting > 0 || g.command_wanted || g.command_owned || quiet < kHold ||
           ((g.reply_next || g.reply_left > 0) && quiet < kReplyHold);
}

// Where announcements start in bytes taken from the port: the first mark or boot sequence, else nowhere.
uint32_t first_announcement(const uint8_t *data, uint32_t len)
{
    for (uint32_t i = 0; i < len; ++i) {
        if (data[i] == kMark)
            return i;
        if (len - i >= sizeof kBoot && std::memcmp(data + i, kBoot, sizeof kBoot) == 0)
            return i;
    }
    return len;
}

// The length of a complete announcement at the front of data: "!!" or "!HEX!"; 0 when there is none yet,
// with more set when more bytes could still make one.
uint32_t announcement_at_front(const uint8_t *data, uint32_t len, bool *more)
{
    *more = false;
    if (len == 0 || data[0] != kMark)
        return 0;
    for (uint32_t i = 1; i < len; ++i) {
        if (data[i] == kMark)
            return i + 1;
        if (i > kUidTextMax || !is_hex_digit(data[i]))
            return 0;
    }
    *more = len <= kUidTextMax + 1;
    return 0;
}

} // namespace

bool is_session_port(const zel_handle_record *hnd)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    return g.hnd == hnd && hnd != nullptr;
}

void install_port_guard()
{
    static const PortGuardHooks kGuard = {port_enter,   port_leave,          is_session_port,
                                          expect_reply, rescue_before_purge, filter_reply};
    set_port_guard(&kGuard);
}

namespace {
// Installed when the library loads too, so that a record whose port_lock_on is set by other means than a
// session start is guarded as well.
[[maybe_unused]] const bool g_guard_installed = (install_port_guard(), true);
} // namespace

void gate_open(zel_handle_record *hnd)
{
    install_port_guard();
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    g.hnd = hnd;
    g.inside = g.wanting = g.at_boundary = 0;
    g.poller_inside = g.command_wanted = g.command_owned = false;
    g.last_end = Clock::time_point{};
    g.reply_next = false;
    g.reply_left = 0;
    g.store_len = 0;
}

void gate_close(zel_handle_record *hnd)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    if (g.hnd == hnd) {
        g.hnd = nullptr;
        g.store_len = 0;
    }
    g.cv.notify_all();
}

int port_enter(zel_handle_record *hnd, PortCall call)
{
    Gate &g = gate();
    std::unique_lock<std::mutex> lock(g.m);
    if (g.hnd != hnd) {
        lock.unlock();
        __atomic_exchange_n(&hnd->port_busy, 1u, __ATOMIC_ACQUIRE);
        pthread_mutex_lock(&hnd->port_lock);
        return kPlain;
    }
    if (owner_is_me(g)) {
        ++g.inside;
        lock.unlock();
        pthread_mutex_lock(&hnd->port_lock);
        return kOwner;
    }
    ++g.wanting;
    update_busy(g, hnd);
    const auto deadline = Clock::now() + kCallWaitLimit;
    bool at_boundary = false;
    for (;;) {
        const bool held_back = call == PortCall::purge && g.command_wanted;
        if (!g.command_owned && !g.poller_inside && !held_back)
            break;
        if (held_back && !at_boundary) {
            at_boundary = true;
            ++g.at_boundary;
            g.cv.notify_all();
        }
        if (g.cv.wait_until(lock, deadline) == std::cv_status::timeout)
            break; // never stuck behind a command that does not end
    }
    if (at_boundary)
        --g.at_boundary;
    --g.wanting;
    ++g.inside;
    update_busy(g, hnd);
    lock.unlock();
    pthread_mutex_lock(&hnd->port_lock);
    return kGated;
}

void port_leave(zel_handle_record *hnd, int token)
{
    pthread_mutex_unlock(&hnd->port_lock);
    if (token == kPlain) {
        __atomic_exchange_n(&hnd->port_busy, 0u, __ATOMIC_RELEASE);
        return;
    }
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    if (g.inside > 0)
        --g.inside;
    if (token == kGated)
        g.last_end = Clock::now();
    update_busy(g, hnd);
    g.cv.notify_all();
}

void expect_reply(zel_handle_record *hnd)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    if (g.hnd == hnd) {
        g.reply_next = true;
        g.reply_left = 0;
    }
}

bool rescue_before_purge(zel_handle_record *hnd)
{
    {
        Gate &g = gate();
        std::lock_guard<std::mutex> lock(g.m);
        g.reply_next = false;
        g.reply_left = 0;
    }
    // Everything that waits is read here, so the purge need not drop the input: an announcement that
    // arrives while the purge runs stays on the line for the command's reply to bring (filter_reply). A
    // flood that does not end within a few buffers is left to the purge.
    for (int round = 0; round < kRescueRounds; ++round) {
        uint32_t waiting = 0;
        if (port_available_raw(hnd, &waiting) != ZEL_OK)
            return false;
        if (waiting == 0)
            return true;
        uint8_t buf[kStoreLen];
        uint32_t got = 0;
        if (port_read_raw(hnd, buf, waiting < sizeof buf ? waiting : sizeof buf, &got) != ZEL_OK)
            return false;
        const uint32_t from = first_announcement(buf, got);
        if (from < got) {
            Gate &g = gate();
            std::lock_guard<std::mutex> lock(g.m);
            store_locked(g, buf + from, got - from);
        }
    }
    return false;
}

namespace {

// Takes announcements off the front of the first read of a reply and fills the read up from the port.
ZEL_STATUS take_announcements(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got, ZEL_STATUS status)
{
    if (*got == 0 || buffer[0] != kMark || count > kReadBufLen)
        return status;
    // A reply frame never starts with the mark: what stands in front of it was announced by the reader.
    uint8_t work[kReadBufLen + kUidTextMax + 2];
    uint32_t len = *got;
    std::memcpy(work, buffer, len);
    for (int frames = 0; frames < 8 && len > 0 && work[0] == kMark; ++frames) {
        bool more = false;
        uint32_t n = announcement_at_front(work, len, &more);
        while (n == 0 && more && len < sizeof work) {
            uint32_t one = 0;
            if (port_read_raw(hnd, work + len, 1, &one) != ZEL_OK || one != 1)
                break;
            ++len;
            n = announcement_at_front(work, len, &more);
        }
        if (n == 0)
            break; // not an announcement: the caller gets the bytes as they came
        {
            Gate &g = gate();
            std::lock_guard<std::mutex> lock(g.m);
            store_locked(g, work, n);
        }
        std::memmove(work, work + n, len - n);
        len -= n;
    }
    if (len < count) {
        uint32_t rest = 0;
        status = port_read_raw(hnd, work + len, count - len, &rest);
        len += rest;
    } else {
        status = ZEL_OK;
    }
    if (len < count && status == ZEL_OK)
        status = ZEL_COMMUNICATION_BREAK;
    *got = len < count ? len : count;
    std::memcpy(buffer, work, *got);
    return status;
}

// What is still due of a reply after a read of it; the caller holds the gate's lock.
void account_reply(Gate &g, bool first, const uint8_t *buffer, uint32_t got, ZEL_STATUS status)
{
    if (status != ZEL_OK) {
        g.reply_next = false; // the command failed: nothing more of it is read
        g.reply_left = 0;
        return;
    }
    if (!first) {
        g.reply_left -= got < g.reply_left ? got : g.reply_left;
        return;
    }
    g.reply_next = false;
    g.reply_left = 0;
    if (got < zel::kFrameLen)
        return;
    if (buffer[zel::kHeader] == zel::kRspHeader && buffer[zel::kTrailer] == zel::kRspTrailer) {
        const uint32_t ext = buffer[zel::kExtLen];
        const uint32_t read = got - zel::kFrameLen;
        g.reply_left = ext > read ? ext - read : 0;
    } else if (buffer[zel::kHeader] == zel::kInterimHeader) {
        g.reply_next = true; // the reader is still working: its frame is still to come
    }
}

} // namespace

ZEL_STATUS filter_reply(zel_handle_record *hnd, uint8_t *buffer, uint32_t count, uint32_t *got, ZEL_STATUS status)
{
    bool first = false;
    {
        Gate &g = gate();
        std::lock_guard<std::mutex> lock(g.m);
        if (!g.reply_next && g.reply_left == 0)
            return status;
        first = g.reply_next;
    }
    if (first)
        status = take_announcements(hnd, buffer, count, got, status);
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    account_reply(g, first, buffer, *got, status);
    return status;
}

bool poller_must_wait(const zel_handle_record *hnd)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    if (g.hnd != hnd)
        return false; // no session on this record: nothing to arbitrate
    return port_taken(g);
}

bool poller_enter(zel_handle_record *hnd)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    if (g.hnd != hnd)
        return true; // a step called outside a session has the port to itself
    if (port_taken(g))
        return false;
    g.poller_inside = true;
    return true;
}

void poller_leave()
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    g.poller_inside = false;
    g.cv.notify_all();
}

bool command_begin(zel_handle_record *hnd)
{
    Gate &g = gate();
    std::unique_lock<std::mutex> lock(g.m);
    if (g.hnd != hnd)
        return true; // outside a session there is nobody to wait for
    g.command_wanted = true;
    update_busy(g, hnd);
    const auto deadline = Clock::now() + kCommandWaitLimit;
    bool ok = false;
    for (;;) {
        if (__atomic_load_n(&hnd->async_stop, __ATOMIC_ACQUIRE) != 0 || g.hnd != hnd)
            break;
        const auto now = Clock::now();
        if (g.inside == 0 && !g.poller_inside && (g.at_boundary > 0 || now - g.last_end >= kHold)) {
            ok = true;
            break;
        }
        if (now >= deadline)
            break;
        // Woken by every call that ends; the slice lets a stop and the end of the quiet time be seen.
        auto until = now + std::chrono::milliseconds(20);
        if (g.last_end + kHold > now && g.last_end + kHold < until)
            until = g.last_end + kHold;
        g.cv.wait_until(lock, until < deadline ? until : deadline);
    }
    g.command_wanted = false;
    if (ok) {
        g.command_owned = true;
        g.command_thread = pthread_self();
    }
    update_busy(g, hnd);
    g.cv.notify_all();
    return ok;
}

void command_end(zel_handle_record *hnd)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    if (g.hnd != hnd)
        return;
    g.command_owned = false;
    update_busy(g, hnd);
    g.cv.notify_all();
}

uint32_t take_stored(uint8_t *out, uint32_t cap)
{
    Gate &g = gate();
    std::lock_guard<std::mutex> lock(g.m);
    const uint32_t n = g.store_len < cap ? g.store_len : cap;
    std::memcpy(out, g.store, n);
    std::memmove(g.store, g.store + n, g.store_len - n);
    g.store_len -= n;
    return n;
}

} // namespace zel::async
