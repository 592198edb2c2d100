// tandro watch: cards arriving at and leaving the reader, one line per event, until Ctrl-C.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <string>
#include <sys/time.h>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

// What the callbacks need; they run on the library's threads.
struct Watch {
    std::mutex m;
    bool json = false;
    std::string last_uid; // a removal names no card: the last one that arrived is the one that left
    uint32_t events = 0;
};
Watch g_watch;

std::string now_text()
{
    timeval tv{};
    gettimeofday(&tv, nullptr);
    tm parts{};
    localtime_r(&tv.tv_sec, &parts);
    char text[64];
    const size_t n = std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &parts);
    std::snprintf(text + n, sizeof text - n, ".%03ld", static_cast<long>(tv.tv_usec / 1000));
    return text;
}

void print_event(const char *event, const std::string &uid, const char *type, const char *maker)
{
    std::lock_guard<std::mutex> lock(g_watch.m);
    const std::string time = now_text();
    if (g_watch.json) {
        std::printf("{\"time\": %s, \"event\": %s, \"uid\": %s", tandro::json_string(time).c_str(),
                    tandro::json_string(event).c_str(), uid.empty() ? "null" : tandro::json_string(uid).c_str());
        if (type)
            std::printf(", \"type\": %s, \"manufacturer\": %s", tandro::json_string(type).c_str(),
                        tandro::json_string(maker ? maker : "").c_str());
        std::printf("}\n");
    } else {
        std::printf("%s  %-7s  ", time.c_str(), event);
        if (type)
            std::printf("%-20s  %s%s%s%s", uid.c_str(), type, maker && maker[0] ? " (" : "", maker ? maker : "",
                        maker && maker[0] ? ")" : "");
        else
            std::printf("%s", uid.empty() ? "-" : uid.c_str());
        std::printf("\n");
    }
    std::fflush(stdout);
    ++g_watch.events;
}

void on_detected(const char *uid, const char *type, const char *maker)
{
    {
        std::lock_guard<std::mutex> lock(g_watch.m);
        g_watch.last_uid = uid;
    }
    print_event("arrived", uid, type, maker);
}

void on_removed()
{
    std::string uid;
    {
        std::lock_guard<std::mutex> lock(g_watch.m);
        uid.swap(g_watch.last_uid);
    }
    print_event("left", uid, nullptr, nullptr);
}

uint32_t events_so_far()
{
    std::lock_guard<std::mutex> lock(g_watch.m);
    return g_watch.events;
}

// The cards the simulated reader's field takes in turn under --sim.
const zsim_card kSimCards[] = {
    {{0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, ORB_NTAG_215},
    {{0xC1, 0xC2, 0xC3, 0x0D}, 4, 0x08, 0x0004, ORB_MIFARE_CLASSIC_1K},
    {{0x04, 0x35, 0x71, 0x6A, 0x2F, 0x3B, 0x80}, 7, 0x00, 0x0044, ORB_NTAG_213},
};

const tandro::OptionTable TABLE = {
    {
        {"", "a line for each card that arrives or leaves: time, arrived or left, UID, card type and maker"},
    },
    {
        {"--count", "N", "ends after N events (by default it runs until Ctrl-C)"},
        {"--every", "MS", "with --sim: how often the tool changes the simulated field (1500 ms, at least 100)"},
    },
    "With --sim the tool itself puts cards on the simulated reader and takes them off every MS milliseconds. "
    "Ctrl-C (or SIGTERM) stops the session and ends with exit status 0.\n\n"
    "Under --json each event is a JSON object on a line of its own, printed as it happens.",
};

int run_watch(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("watch", TABLE, args, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("watch", "unknown argument " + parsed.words[0]);
    uint32_t count = 0; // 0: until interrupted
    uint32_t period_ms = 1500;
    if (parsed.has("--count") && !tandro::parse_u32(parsed.value("--count"), &count))
        return tandro::usage_error("watch", "--count takes a number");
    if (parsed.has("--every") && (!tandro::parse_u32(parsed.value("--every"), &period_ms) || period_ms < 100))
        return tandro::usage_error("watch", "--every takes milliseconds, at least 100");
    // Ctrl-C and SIGTERM are taken by the main thread alone, by waiting for them: blocked here, before any
    // thread of the library or the simulated reader exists, they never interrupt a port call of the
    // session's threads, and the session is always stopped before the tool ends.
    sigset_t stop_signals;
    sigemptyset(&stop_signals);
    sigaddset(&stop_signals, SIGINT);
    sigaddset(&stop_signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

    tandro::ReaderSession session;
    if (!session.open("watch", opt))
        return 1;
    zsim *sim = session.sim();
    if (sim && opt.sim_scenario.empty())
        zsim_field_clear(sim); // the simulated field starts empty and the tool fills it in turn

    // A session runs on the global handle.
    Zel_Hnd_SetGlobal(session.hnd());
    g_watch.json = opt.json;

    const ZEL_STATUS started = StartAsyncSession(on_detected, on_removed);
    if (started != ZEL_OK) {
        std::fprintf(stderr, "tandro watch: %s: %s\n", session.where().c_str(), ZEL_Status2String(started));
        zel_handle_init(&zel_global); // the session's handle owns the port
        return 1;
    }
    if (!opt.json)
        std::fprintf(stderr, "watching %s; Ctrl-C ends\n", session.where().c_str());

    using Clock = std::chrono::steady_clock;
    auto next_change = Clock::now() + std::chrono::milliseconds(period_ms / 3);
    size_t sim_next = 0;
    bool sim_card_in = false;
    while (count == 0 || events_so_far() < count) {
        const timespec pause = {0, 20 * 1000 * 1000};
        if (sigtimedwait(&stop_signals, nullptr, &pause) > 0)
            break; // interrupted
        if (!sim || Clock::now() < next_change)
            continue;
        const zsim_card &c = kSimCards[sim_next % (sizeof kSimCards / sizeof kSimCards[0])];
        if (sim_card_in) {
            zsim_card_remove(sim, c.uid, c.uid_len);
            ++sim_next;
        } else {
            zsim_card_add(sim, &c);
        }
        sim_card_in = !sim_card_in;
        next_change = Clock::now() + std::chrono::milliseconds(period_ms);
    }
    const ZEL_STATUS stopped = StopAsyncSession();
    zel_handle_init(&zel_global); // the session's handle owns the port and closes it
    if (stopped != ZEL_OK) {
        std::fprintf(stderr, "tandro watch: ending the session: %s\n", ZEL_Status2String(stopped));
        return 1;
    }
    return 0;
}

const tandro::Registration watch_cmd(
    {"watch", "[--count N] [--every MS]",
     "card arrivals and removals, one line each (time, arrived/left, UID, type), until Ctrl-C", run_watch, false,
     &TABLE});

} // namespace
