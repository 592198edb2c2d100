// One link's conversation with the reader: frames in, replies and faults out, in time.
#include <chrono>
#include <cstdio>
#include <cstring>

#include "core.h"
#include "wire.h"

namespace zs {

namespace {

constexpr uint64_t INTERIM_PERIOD_MS = 20;

void log_bytes(const char *dir, const uint8_t *p, size_t n)
{
    char line[3 * 300 + 16];
    size_t pos = 0;
    for (size_t i = 0; i < n && pos + 4 < sizeof line; ++i)
        pos += static_cast<size_t>(std::snprintf(line + pos, sizeof line - pos, " %02X", p[i]));
    if (n * 3 > pos)
        std::snprintf(line + pos, sizeof line - pos, " ...");
    std::fprintf(stderr, "zelsim %s%s\n", dir, line);
}

void schedule(LinkCore &link, Action a)
{
    auto it = link.pending.end();
    while (it != link.pending.begin() && std::prev(it)->due_ms > a.due_ms)
        --it;
    link.pending.insert(it, std::move(a));
}

// Takes the first queued fault that applies to this command.
bool take_fault(zsim *sim, uint8_t cmd, zsim_fault &out)
{
    for (auto it = sim->faults.begin(); it != sim->faults.end(); ++it) {
        if (it->command < 0 || it->command == cmd) {
            out = *it;
            sim->faults.erase(it);
            return true;
        }
    }
    return false;
}

// Sends the reader's reply to a command, bent by a fault if one is queued for it. Returns false when the
// reader acts as if it never heard the command (silence, unplug, endless interim, an error in place of
// the acknowledge).
bool send_reply(zsim *sim, LinkCore &link, uint8_t cmd, std::vector<uint8_t> bytes, uint64_t now)
{
    zsim_fault f{};
    if (!take_fault(sim, cmd, f))
        f.kind = ZSIM_FAULT_NONE;
    Action a;
    a.due_ms = now;
    bool heard = true;
    switch (f.kind) {
    case ZSIM_FAULT_NONE:
        break;
    case ZSIM_FAULT_SILENCE:
        bytes.clear();
        heard = false;
        break;
    case ZSIM_FAULT_LATE:
        a.due_ms = now + f.delay_ms;
        break;
    case ZSIM_FAULT_BAD_CHECKSUM:
        if (bytes.size() >= 7)
            bytes[6] = static_cast<uint8_t>(bytes[6] + 1);
        break;
    case ZSIM_FAULT_WRONG_ECHO:
        if (bytes.size() >= 7) {
            bytes[1] = static_cast<uint8_t>(bytes[1] ^ 0x01);
            bytes[6] = checksum(bytes.data(), 6);
        }
        break;
    case ZSIM_FAULT_ERROR_FRAME:
        bytes.clear();
        put_error(bytes, static_cast<uint8_t>(f.code));
        heard = false;
        break;
    case ZSIM_FAULT_TRUNCATE:
        if (f.count < bytes.size())
            bytes.resize(f.count);
        break;
    case ZSIM_FAULT_EXTRA_BYTES:
        for (uint32_t i = 0; i < f.count && i < 4096; ++i)
            bytes.push_back(static_cast<uint8_t>(0x33 + 0x11 * i));
        break;
    case ZSIM_FAULT_ENDLESS_INTERIM: {
        Action s;
        s.kind = Action::INTERIM;
        s.due_ms = now;
        s.cmd = cmd;
        schedule(link, std::move(s));
        return false;
    }
    case ZSIM_FAULT_UNPLUG: {
        Action u;
        u.kind = Action::UNPLUG;
        u.due_ms = now;
        schedule(link, std::move(u));
        return false;
    }
    }
    if (!bytes.empty()) {
        if (sim->log.load())
            log_bytes("<-", bytes.data(), bytes.size());
        a.bytes = std::move(bytes);
        schedule(link, std::move(a));
    }
    return heard;
}

void record_request(zsim *sim, const uint8_t frame[7], const uint8_t *ext, size_t ext_len)
{
    sim->last_request.assign(frame, frame + 7);
    if (ext)
        sim->last_request.insert(sim->last_request.end(), ext, ext + ext_len);
    if (sim->log.load())
        log_bytes("->", sim->last_request.data(), sim->last_request.size());
    sim->exchanges.fetch_add(1);
}

} // namespace

uint64_t now_ms()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

void link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n)
{
    std::lock_guard<std::mutex> lock(sim->mu);
    const uint64_t now = now_ms();
    if (link.unplugged || n == 0)
        return;
    link.interim = false; // the host speaks: an endless wait ends
    if (now < link.accept_from_ms)
        return; // still booting: nothing is heard
    while (n) {
        Event ev;
        const size_t used = engine_feed(link.engine, in, n, now, ev);
        in += used;
        n -= used;
        switch (ev.kind) {
        case EventKind::NONE:
            break;
        case EventKind::FRAME: {
            const uint8_t cmd = ev.frame[1];
            if (ev.frame[3] != 0 && reader_wants_ext(sim->reader, ev.frame)) {
                std::vector<uint8_t> ack;
                put_frame(ack, ACK_HEADER, cmd, ACK_TRAILER, ev.frame[3], ev.frame[4], ev.frame[5]);
                if (send_reply(sim, link, cmd, std::move(ack), now))
                    engine_expect_ext(link.engine, ev.frame, ev.frame[3]);
                break;
            }
            record_request(sim, ev.frame, nullptr, 0);
            Answer a;
            if (ev.frame[3] != 0)
                put_error(a.bytes, E_NOT_SUPPORTED);
            else
                reader_command(sim->reader, ev.frame, nullptr, 0, a);
            send_reply(sim, link, cmd, std::move(a.bytes), now);
            break;
        }
        case EventKind::EXT: {
            record_request(sim, ev.frame, ev.ext, ev.ext_len);
            Answer a;
            reader_command(sim->reader, ev.frame, ev.ext, ev.ext_len, a);
            std::vector<uint8_t> bytes = std::move(a.bytes);
            Action s;
            s.due_ms = now;
            if (sim->log.load() && !bytes.empty())
                log_bytes("<-", bytes.data(), bytes.size());
            s.bytes = std::move(bytes);
            schedule(link, std::move(s));
            break;
        }
        case EventKind::BAD_FRAME:
        case EventKind::BAD_EXT: {
            std::vector<uint8_t> e;
            put_error(e, E_CHKSUM);
            if (sim->log.load())
                log_bytes("<- (bad checksum)", e.data(), e.size());
            Action s;
            s.due_ms = now;
            s.bytes = std::move(e);
            schedule(link, std::move(s));
            break;
        }
        }
    }
}

bool link_due(zsim *sim, LinkCore &link, std::vector<uint8_t> &out)
{
    std::lock_guard<std::mutex> lock(sim->mu);
    const uint64_t now = now_ms();
    while (!link.pending.empty() && link.pending.front().due_ms <= now) {
        Action a = std::move(link.pending.front());
        link.pending.pop_front();
        switch (a.kind) {
        case Action::SEND:
            out.insert(out.end(), a.bytes.begin(), a.bytes.end());
            break;
        case Action::UNPLUG:
            link.unplugged = true;
            link.pending.clear();
            return true;
        case Action::INTERIM:
            link.interim = true;
            link.interim_cmd = a.cmd;
            link.interim_next = now;
            break;
        }
    }
    if (link.interim && link.interim_next <= now) {
        put_frame(out, INT_HEADER, link.interim_cmd, INT_TRAILER, 0, 0, 0);
        link.interim_next = now + INTERIM_PERIOD_MS;
    }
    return false;
}

int link_wait_ms(zsim *sim, const LinkCore &link)
{
    std::lock_guard<std::mutex> lock(sim->mu);
    const uint64_t now = now_ms();
    uint64_t due = UINT64_MAX;
    if (!link.pending.empty())
        due = link.pending.front().due_ms;
    if (link.interim && link.interim_next < due)
        due = link.interim_next;
    if (due == UINT64_MAX)
        return -1;
    if (due <= now)
        return 0;
    const uint64_t d = due - now;
    return d > 60000 ? 60000 : static_cast<int>(d);
}

} // namespace zs
