// One link's conversation with the reader: frames in, replies and faults out, in time.
#include <chrono>
#include <cstdio>
#include <cstring>

#include "core.h"
#include "desfire.h"
#include "iso7816.h"
#include "line.h"
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

// Takes the fault that bends this exchange: the first one queued for the command whose wait is over. Faults
// still waiting count the exchange; a rule with times -1 stays, others are used up.
bool take_fault(zsim *sim, uint8_t cmd, zsim_fault &out)
{
    bool found = false;
    for (auto it = sim->faults.begin(); it != sim->faults.end();) {
        if (it->command >= 0 && it->command != cmd) {
            ++it;
            continue;
        }
        if (it->after > 0) {
            --it->after;
            ++it;
            continue;
        }
        if (found) {
            ++it;
            continue;
        }
        found = true;
        out = *it;
        if (it->times > 1) {
            --it->times;
        } else if (it->times >= 0) {
            it = sim->faults.erase(it);
            continue;
        }
        ++it;
    }
    return found;
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
    case ZSIM_FAULT_NONE: break;
    case ZSIM_FAULT_SILENCE:
        bytes.clear();
        heard = false;
        break;
    case ZSIM_FAULT_LATE: a.due_ms = now + f.delay_ms; break;
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

uint64_t scaled_ms(zsim *sim, uint64_t ms)
{
    return ms * sim->time_scale_pct.load() / 100;
}

void link_push(zsim *, LinkCore &link, const std::vector<uint8_t> &bytes)
{
    if (bytes.empty() || link.unplugged)
        return;
    Action a;
    a.due_ms = now_ms();
    a.bytes = bytes;
    schedule(link, std::move(a));
}

void link_reset(zsim *sim, LinkCore &link)
{
    if (link.unplugged)
        return;
    const uint64_t now = now_ms();
    engine_reset(link.engine);
    link.report_got = REPORT_EXT;
    module_restart(sim->reader);
    esp_restart(sim->reader);
    link.pending.clear();
    link.interim = false;
    Action boot;
    boot.due_ms = now + scaled_ms(sim, BOOT_DELAY_MS);
    boot.bytes.assign(BOOT_BYTES, BOOT_BYTES + 4);
    link.accept_from_ms = boot.due_ms + scaled_ms(sim, BOOT_READY_MS);
    schedule(link, std::move(boot));
    if (sim->log.load())
        std::fprintf(stderr, "zelsim reset: boot bytes follow\n");
}

namespace {

// What the reader does after answering: restart, or move to another rate.
void after_answer(zsim *sim, LinkCore &link, const Answer &a)
{
    if (a.new_baud) {
        sim->reader.baud = a.new_baud;
        if (sim->log.load())
            std::fprintf(stderr, "zelsim now at %u bit/s\n", a.new_baud);
    }
    if (a.restart) {
        // The reply goes out before the reader restarts.
        std::deque<Action> keep = std::move(link.pending);
        link.pending.clear();
        link_reset(sim, link);
        sim->resets.fetch_add(1);
        for (auto it = keep.rbegin(); it != keep.rend(); ++it) {
            it->due_ms = now_ms();
            link.pending.push_front(std::move(*it));
        }
    }
}

} // namespace

void link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n)
{
    std::lock_guard<std::mutex> lock(sim->mu);
    const uint64_t now = now_ms();
    if (link.unplugged || n == 0)
        return;
    if (!link.stream_started) {
        // A stream link is woken by the host's zero byte; what comes before it is not heard.
        const uint8_t *z = static_cast<const uint8_t *>(std::memchr(in, 0x00, n));
        if (!z)
            return;
        link.stream_started = true;
        n -= static_cast<size_t>(z + 1 - in);
        in = z + 1;
        if (n == 0)
            return;
    }
    if (link.check_baud && link.host_baud != sim->reader.baud)
        return;           // at another rate the reader hears only noise it cannot frame
    link.interim = false; // the host speaks: an endless wait ends
    if (now < link.accept_from_ms)
        return; // still booting: nothing is heard
    if (front_question(sim, link, in, n))
        return; // an ESP front tells its network address
    if (desfire_link_input(sim, link, in, n))
        return; // the later pieces of a DESFire write come raw
    if (emulation_link_input(sim, link, in, n) || esp_link_input(sim, link, in, n))
        return; // emulation record pieces, the module's keywords and stream data come raw
    std::vector<uint8_t> raw;
    if (iso14443_raw_input(sim->reader, in, n, raw)) { // raw transceive mode: no frames
        link_push(sim, link, raw);
        return;
    }
    if (link.report_got < REPORT_EXT) {
        // A packet's EXT in 64-byte reports: each report, and the checksum byte alone, is acknowledged with
        // its number before the reply.
        std::vector<uint8_t> acks;
        const size_t before = link.report_got;
        link.report_got = before + n < REPORT_EXT ? before + n : REPORT_EXT;
        for (size_t mark : {size_t{64}, size_t{128}, REPORT_EXT})
            if (before < mark && link.report_got >= mark)
                acks.push_back(static_cast<uint8_t>(mark == REPORT_EXT ? 3 : mark / 64));
        link_push(sim, link, acks);
    }
    while (n) {
        Event ev;
        const size_t used = engine_feed(link.engine, in, n, now, ev);
        in += used;
        n -= used;
        switch (ev.kind) {
        case EventKind::NONE: break;
        case EventKind::FRAME: {
            const uint8_t cmd = ev.frame[1];
            size_t need = ev.frame[3];
            bool ack = true; // the pieces of a chained APDU after the first come without an acknowledge
            const bool shaped = iso14443_frame_shape(sim->reader, ev.frame, need, ack);
            module_frame_shape(ev.frame, need);
            if (need != 0 && (shaped || reader_wants_ext(sim->reader, ev.frame))) {
                if (!ack) {
                    engine_expect_ext(link.engine, ev.frame, need);
                    break;
                }
                std::vector<uint8_t> ack_frame;
                put_frame(ack_frame, ACK_HEADER, cmd, ACK_TRAILER, ev.frame[3], ev.frame[4], ev.frame[5]);
                if (send_reply(sim, link, cmd, std::move(ack_frame), now)) {
                    engine_expect_ext(link.engine, ev.frame, need);
                    if (need == REPORT_EXT && esp_ext_in_reports(sim->reader, ev.frame))
                        link.report_got = 0;
                }
                break;
            }
            record_request(sim, ev.frame, nullptr, 0);
            Answer a;
            if (ev.frame[3] != 0)
                put_error(a.bytes, E_NOT_SUPPORTED);
            else
                reader_command(sim->reader, ev.frame, nullptr, 0, a);
            send_reply(sim, link, cmd, std::move(a.bytes), now);
            after_answer(sim, link, a);
            break;
        }
        case EventKind::EXT: {
            record_request(sim, ev.frame, ev.ext, ev.ext_len);
            Answer a;
            reader_command(sim->reader, ev.frame, ev.ext, ev.ext_len, a);
            std::vector<uint8_t> bytes = std::move(a.bytes);
            if (!bytes.empty()) {
                Action s;
                s.due_ms = now + a.delay_ms;
                if (sim->log.load())
                    log_bytes("<-", bytes.data(), bytes.size());
                s.bytes = std::move(bytes);
                schedule(link, std::move(s));
            }
            after_answer(sim, link, a);
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
            if (!link.check_baud || link.host_baud == sim->reader.baud)
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
