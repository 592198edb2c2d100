// Asynchronous card events end to end: the global handle on a pseudo-terminal, the simulated reader in push
// mode, the session's two threads, and the application's own commands on the same handle meanwhile.
#include <gtest/gtest.h>

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "async/internal.h"
#include "core/internal.h"
#include "tandro.h"
#include "zelsim.h"

namespace {

using namespace std::chrono_literals;

// The library's waits at a tenth: the poll period becomes 15 ms.
void tenth_sleep(uint32_t ms)
{
    usleep(ms * 100);
}

// Every callback, recorded under a lock with the thread it ran on.
struct Recorder {
    struct Detected {
        std::string uid, type, maker;
        pthread_t thread;
    };
    std::mutex m;
    std::condition_variable cv;
    std::vector<Detected> detected;
    std::vector<pthread_t> removed;
    std::vector<std::string> log;

    void clear()
    {
        std::lock_guard<std::mutex> lock(m);
        detected.clear();
        removed.clear();
        log.clear();
    }
    // Waits until pred holds (evaluated under the lock), at most limit.
    bool wait(const std::function<bool()> &pred, std::chrono::milliseconds limit = 10s)
    {
        std::unique_lock<std::mutex> lock(m);
        return cv.wait_for(lock, limit, pred);
    }
    size_t detected_count()
    {
        std::lock_guard<std::mutex> lock(m);
        return detected.size();
    }
    size_t removed_count()
    {
        std::lock_guard<std::mutex> lock(m);
        return removed.size();
    }
};

Recorder &rec()
{
    static Recorder r;
    return r;
}

void on_detected(const char *uid, const char *type, const char *maker)
{
    Recorder &r = rec();
    std::lock_guard<std::mutex> lock(r.m);
    r.detected.push_back({uid, type, maker, pthread_self()});
    r.cv.notify_all();
}

void on_removed()
{
    Recorder &r = rec();
    std::lock_guard<std::mutex> lock(r.m);
    r.removed.push_back(pthread_self());
    r.cv.notify_all();
}

void on_session_error(ZEL_STATUS) {}

void log_sink(int, const char *text, void *)
{
    Recorder &r = rec();
    std::lock_guard<std::mutex> lock(r.m);
    r.log.emplace_back(text);
    r.cv.notify_all();
}

// Polls a condition that no callback announces, at most limit.
bool eventually(const std::function<bool()> &pred, std::chrono::milliseconds limit = 10s)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!pred()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

zsim_card card(std::initializer_list<uint8_t> uid, uint8_t type, uint8_t sak = 0x00)
{
    zsim_card c{};
    for (uint8_t b : uid)
        c.uid[c.uid_len++] = b;
    c.sak = sak;
    c.atqa = 0x0044;
    c.orb_type = type;
    return c;
}

std::string maker_of(uint8_t code)
{
    char name[ZEL_MANUFACTURER_NAME_MAX + 8] = {};
    getCardManufacturer(code, name);
    return name;
}

class AsyncSessionTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook(tenth_sleep);
        removeCallbackHandlers();
        rec().clear();
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        zsim_set_time_scale(sim, 10);
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        ASSERT_EQ(ReaderOpenEx(1, path, 1, "UNIT_OPEN_RESET_DISABLE"), ZEL_OK);
    }
    void TearDown() override
    {
        StopAsyncSession();
        removeCallbackHandlers();
        ZEL_DebugPrintEnable(0);
        ZEL_DebugPrintSetSink(nullptr, nullptr);
        ReaderClose();
        zsim_free(sim);
        zel::set_sleep_hook(nullptr);
    }
    uint8_t last_command()
    {
        uint8_t buf[300] = {};
        return zsim_last_request(sim, buf, sizeof buf) >= 2 ? buf[1] : 0;
    }

    zsim *sim = nullptr;
    char path[256] = {};
};

TEST_F(AsyncSessionTest, ArrivalsAndRemovalsReachTheCallbacksWithUidTypeAndMaker)
{
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    EXPECT_EQ(zel_global.port_lock_on, 1);

    struct Case {
        zsim_card card;
        const char *uid;
        const char *type;
    } cases[] = {
        {card({0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, ORB_NTAG_215), "04A22B1A5C6480", "ORB_NTAG_215"},
        {card({0xC1, 0xC2, 0xC3, 0x0D}, ORB_MIFARE_CLASSIC_1K, 0x08), "C1C2C30D", "ORB_MIFARE_CLASSIC_1K"},
        {card({0x08, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0xFE}, ORB_NTAG_213), "080102030405060708FE",
         "ORB_NTAG_213"},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Case &c = cases[i];
        ASSERT_EQ(zsim_card_add(sim, &c.card), 0);
        ASSERT_TRUE(rec().wait([&] { return rec().detected.size() == i + 1; })) << c.uid;
        ASSERT_EQ(zsim_card_remove(sim, c.card.uid, c.card.uid_len), 0);
        ASSERT_TRUE(rec().wait([&] { return rec().removed.size() == i + 1; })) << c.uid;
    }
    std::lock_guard<std::mutex> lock(rec().m);
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Recorder::Detected &d = rec().detected[i];
        EXPECT_EQ(d.uid, cases[i].uid);
        EXPECT_EQ(d.type, cases[i].type);
        EXPECT_EQ(d.maker, maker_of(cases[i].card.uid[0]));
        // Arrivals come from the event thread, removals from the polling thread: never the caller's.
        EXPECT_FALSE(pthread_equal(d.thread, pthread_self()));
        EXPECT_FALSE(pthread_equal(rec().removed[i], pthread_self()));
        EXPECT_FALSE(pthread_equal(rec().removed[i], d.thread));
    }
}

TEST_F(AsyncSessionTest, CardAlreadyOnTheReaderIsReportedOnceBeforeStartReturns)
{
    const zsim_card c = card({0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, ORB_NTAG_213);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    {
        std::lock_guard<std::mutex> lock(rec().m);
        ASSERT_EQ(rec().detected.size(), 1u);
        EXPECT_EQ(rec().detected[0].uid, "04112233445566");
        EXPECT_EQ(rec().detected[0].type, "ORB_NTAG_213");
        EXPECT_TRUE(pthread_equal(rec().detected[0].thread, pthread_self()));
    }
    // By the time its removal is seen the threads have polled: the card was not reported a second time.
    ASSERT_EQ(zsim_card_remove(sim, c.uid, c.uid_len), 0);
    ASSERT_TRUE(rec().wait([] { return rec().removed.size() == 1; }));
    EXPECT_EQ(rec().detected_count(), 1u);
}

TEST_F(AsyncSessionTest, StopEndsTheThreadsSwitchesAnnouncementsOffAndLeavesTheHandleUsable)
{
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(StopAsyncSession(), ZEL_OK);
    EXPECT_EQ(zsim_exchange_count(sim), before) << "no session: nothing goes to the reader";

    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    uint32_t send = 0, prefix_on = 0, removal = 0, reverse = 0, decimal = 0, baud = 0;
    uint8_t prefix = 0, suffix = 0;
    // An ordinary command during the session.
    ASSERT_EQ(GetAsyncCardIdSendConfigEx(&send, &prefix_on, &prefix, &suffix, &removal, &reverse, &decimal, &baud),
              ZEL_OK);
    EXPECT_EQ(send, 1u);
    EXPECT_EQ(prefix_on, 1u);
    EXPECT_EQ(prefix, '!');
    EXPECT_EQ(suffix, '!');
    EXPECT_EQ(removal, 1u);
    EXPECT_EQ(baud, 1000000u);

    EXPECT_EQ(StopAsyncSession(), ZEL_OK);
    EXPECT_EQ(zel_global.port_lock_on, 0);
    EXPECT_EQ(zel_global.async_reader_thread, pthread_t{});
    EXPECT_EQ(zel_global.async_processor_thread, pthread_t{});
    ASSERT_EQ(GetAsyncCardIdSendConfigEx(&send, &prefix_on, &prefix, &suffix, &removal, &reverse, &decimal, &baud),
              ZEL_OK);
    EXPECT_EQ(send, 0u);
    EXPECT_EQ(removal, 0u);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    // A second session starts as the first did.
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    const zsim_card c = card({0x11, 0x22, 0x33, 0x44}, ORB_MIFARE_CLASSIC_1K, 0x08);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_TRUE(rec().wait([] { return rec().detected.size() == 1; }));
}

TEST_F(AsyncSessionTest, CommandsOnTheSameHandleStayIntactWhileCardsComeAndGo)
{
    // The card the reader talks to stays; a second one comes and goes.
    zsim_card first = card({0xC1, 0xC2, 0xC3, 0xC4}, ORB_MIFARE_CLASSIC_1K, 0x08);
    ASSERT_EQ(zsim_card_add_model(sim, &first, "classic_1k", nullptr), 0);
    const uint8_t key[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    uint8_t pattern[16];
    for (int i = 0; i < 16; ++i)
        pattern[i] = static_cast<uint8_t>(0x30 + 7 * i);
    ASSERT_EQ(BlockWrite_PK(pattern, 1, 0x60, key), ZEL_OK);

    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    ASSERT_EQ(rec().detected_count(), 1u); // the first card, reported by the start

    std::atomic<bool> done{false};
    std::atomic<int> commands{0};
    std::mutex fail_m;
    std::vector<std::string> failures;
    std::thread app([&] {
        while (!done.load()) {
            uint8_t sak = 0, uid[ZEL_UID_MAX_LEN] = {}, size = 0;
            const ZEL_STATUS s1 = GetCardIdEx(&sak, uid, &size);
            uint8_t data[16] = {};
            const ZEL_STATUS s2 = BlockRead_PK(data, 1, 0x60, key);
            std::lock_guard<std::mutex> lock(fail_m);
            if (s1 != ZEL_OK || size != 4 || std::memcmp(uid, first.uid, 4) != 0 || sak != 0x08)
                failures.push_back("card id: " + std::to_string(s1));
            if (s2 != ZEL_OK || std::memcmp(data, pattern, 16) != 0)
                failures.push_back("block read: " + std::to_string(s2));
            commands.fetch_add(1);
        }
    });

    // However a wait below ends, the application thread is stopped and joined first.
    struct StopApp {
        std::atomic<bool> &done;
        std::thread &app;
        ~StopApp()
        {
            done.store(true);
            if (app.joinable())
                app.join();
        }
    } stop_app{done, app};
    auto first_failure = [&] {
        std::lock_guard<std::mutex> lock(fail_m);
        return failures.empty() ? std::string("none") : std::to_string(failures.size()) + ", first " + failures.front();
    };

    const int kCycles = 8;
    for (int i = 0; i < kCycles; ++i) {
        const zsim_card second = card({0xB0, 0xB1, 0xB2, static_cast<uint8_t>(i)}, ORB_MIFARE_CLASSIC_1K, 0x08);
        ASSERT_EQ(zsim_card_add(sim, &second), 0);
        ASSERT_TRUE(rec().wait([&] { return rec().detected.size() == static_cast<size_t>(i) + 2; }))
            << "cycle " << i << "; corrupted exchanges: " << first_failure();
        ASSERT_EQ(zsim_card_remove(sim, second.uid, second.uid_len), 0);
        ASSERT_TRUE(rec().wait([&] { return rec().removed.size() == static_cast<size_t>(i) + 1; }))
            << "cycle " << i << "; corrupted exchanges: " << first_failure();
    }
    done.store(true);
    app.join();

    EXPECT_GT(commands.load(), kCycles);
    EXPECT_TRUE(failures.empty()) << failures.size() << " corrupted exchanges, first: " << failures.front();
    std::lock_guard<std::mutex> lock(rec().m);
    ASSERT_EQ(rec().detected.size(), static_cast<size_t>(kCycles) + 1);
    for (int i = 0; i < kCycles; ++i) {
        char want[9];
        std::snprintf(want, sizeof want, "B0B1B2%02X", i);
        EXPECT_EQ(rec().detected[i + 1].uid, want);
        EXPECT_EQ(rec().detected[i + 1].type, "ORB_MIFARE_CLASSIC_1K");
    }
}

TEST_F(AsyncSessionTest, AnnouncementInFrontOfAReplyIsKeptForTheSession)
{
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    // The reader holds its reply back; a card arrives meanwhile, so its announcement precedes the reply.
    const zsim_fault late = {ZSIM_FAULT_LATE, 0, 300, 0, 0x10, 1, 0};
    zsim_fault_push(sim, &late);
    const uint64_t before = zsim_exchange_count(sim);
    auto reply = std::async(std::launch::async, [] {
        uint32_t type = 0;
        const ZEL_STATUS s = GetReaderType(&type);
        return std::make_pair(s, type);
    });
    ASSERT_TRUE(eventually([&] { return zsim_exchange_count(sim) > before; }));
    const zsim_card c = card({0x04, 0x5A, 0x6B, 0x7C, 0x8D, 0x9E, 0xAF}, ORB_NTAG_216);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_EQ(reply.wait_for(10s), std::future_status::ready);
    const auto [status, type] = reply.get();
    EXPECT_EQ(status, ZEL_OK);
    EXPECT_EQ(type, 0xD1180022u);
    ASSERT_TRUE(rec().wait([] { return rec().detected.size() == 1; }));
    std::lock_guard<std::mutex> lock(rec().m);
    EXPECT_EQ(rec().detected[0].uid, "045A6B7C8D9EAF");
    EXPECT_EQ(rec().detected[0].type, "ORB_NTAG_216");
}

TEST_F(AsyncSessionTest, ReaderRestartIsLoggedAndTheSessionGoesOn)
{
    ZEL_DebugPrintSetSink(log_sink, nullptr);
    ZEL_DebugPrintEnable(1);
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    zsim_reset(sim);
    ASSERT_TRUE(rec().wait([] {
        for (const std::string &line : rec().log)
            if (line.find("[READ_ASYNC_UID] Device reset detected") != std::string::npos)
                return true;
        return false;
    }));
    EXPECT_EQ(rec().detected_count(), 0u) << "the boot bytes are no card";
    const zsim_card c = card({0x04, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06}, ORB_NTAG_215);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_TRUE(rec().wait([] { return rec().detected.size() == 1; }));
    std::lock_guard<std::mutex> lock(rec().m);
    EXPECT_EQ(rec().detected[0].uid, "04010203040506");
}

TEST_F(AsyncSessionTest, UnpluggedReaderGoesQuietAndStopStillReturns)
{
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    const zsim_fault unplug = {ZSIM_FAULT_UNPLUG, 0, 0, 0, -1, 1, 0};
    zsim_fault_push(sim, &unplug);
    uint32_t type = 0;
    EXPECT_NE(GetReaderType(&type), ZEL_OK);
    auto stopped = std::async(std::launch::async, [] { return StopAsyncSession(); });
    ASSERT_EQ(stopped.wait_for(10s), std::future_status::ready) << "the bounded join did not hold";
    EXPECT_NE(stopped.get(), ZEL_OK) << "the closing configuration cannot reach an unplugged reader";
    EXPECT_EQ(zel_global.port_lock_on, 0);
    EXPECT_EQ(rec().detected_count() + rec().removed_count(), 0u);
}

TEST_F(AsyncSessionTest, EventsAreConsumedSilentlyWithoutCallbacksAndDeliveredAgainOnceSet)
{
    ASSERT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    removeCallbackHandlers();
    const zsim_card c = card({0x04, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F}, ORB_NTAG_215);
    const uint64_t before = zsim_exchange_count(sim);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    // The event thread still asks the reader for the card's type.
    ASSERT_TRUE(eventually([&] { return zsim_exchange_count(sim) > before && last_command() == 0x3C; }));
    // The removal callback set again sees the card go, so the next arrival comes in a read of its own.
    setCardRemovedCallback(on_removed);
    ASSERT_EQ(zsim_card_remove(sim, c.uid, c.uid_len), 0);
    ASSERT_TRUE(rec().wait([] { return rec().removed.size() == 1; }));

    setCardDetectedCallback(on_detected);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_TRUE(rec().wait([] { return rec().detected.size() == 1; }));
    ASSERT_EQ(zsim_card_remove(sim, c.uid, c.uid_len), 0);
    ASSERT_TRUE(rec().wait([] { return rec().removed.size() == 2; }));
    std::lock_guard<std::mutex> lock(rec().m);
    EXPECT_EQ(rec().detected.size(), 1u) << "nothing of the silent period was delivered late";
    EXPECT_EQ(rec().detected[0].uid, "040A0B0C0D0E0F");
}

TEST_F(AsyncSessionTest, CallbackSlotsAcrossStartAndStop)
{
    // Callbacks set beforehand survive a start with null pointers.
    setCardDetectedCallback(on_detected);
    setCardRemovedCallback(on_removed);
    setSessionErrorCallback(on_session_error);
    ASSERT_EQ(StartAsyncSession(nullptr, nullptr), ZEL_OK);
    const zsim_card c = card({0x04, 0x21, 0x21, 0x21, 0x21, 0x21, 0x21}, ORB_NTAG_215);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_TRUE(rec().wait([] { return rec().detected.size() == 1; }));
    {
        std::lock_guard<std::mutex> lock(rec().m);
        EXPECT_EQ(rec().detected[0].uid, "04212121212121") << "UID bytes equal to the mark are no marks";
    }
    ASSERT_EQ(zsim_card_remove(sim, c.uid, c.uid_len), 0);
    ASSERT_TRUE(rec().wait([] { return rec().removed.size() == 1; }));

    // Stop clears the card callbacks and keeps the session-error one.
    ASSERT_EQ(StopAsyncSession(), ZEL_OK);
    EXPECT_EQ(zel::async::session_error_callback(), &on_session_error);
    ASSERT_EQ(StartAsyncSession(nullptr, nullptr), ZEL_OK);
    const uint64_t before = zsim_exchange_count(sim);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_TRUE(eventually([&] { return zsim_exchange_count(sim) > before && last_command() == 0x3C; }));
    ASSERT_EQ(StopAsyncSession(), ZEL_OK);
    EXPECT_EQ(rec().detected_count(), 1u);
    EXPECT_EQ(rec().removed_count(), 1u);
    removeCallbackHandlers();
    EXPECT_EQ(zel::async::session_error_callback(), nullptr);
}

TEST_F(AsyncSessionTest, StartThatCannotRunLeavesNoSession)
{
    const uint64_t before = zsim_exchange_count(sim);
    zel_global.idx_speed = 2; // 250,000 bit/s has no session
    EXPECT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_NOT_IMPLEMENTED);
    EXPECT_EQ(zsim_exchange_count(sim), before);
    zel_global.idx_speed = 0;

    const zsim_fault refuse = {ZSIM_FAULT_ERROR_FRAME, ZEL_KEYS_LOCKED, 0, 0, 0x3D, 1, 0};
    zsim_fault_push(sim, &refuse);
    EXPECT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_KEYS_LOCKED);
    EXPECT_EQ(zel_global.port_lock_on, 0);
    EXPECT_EQ(zel_global.async_reader_thread, pthread_t{});
    // Nothing was stored: a later start without callbacks has none.
    ASSERT_EQ(StartAsyncSession(nullptr, nullptr), ZEL_OK);
    const zsim_card c = card({0x55, 0x66, 0x77, 0x88}, ORB_MIFARE_CLASSIC_1K, 0x08);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    ASSERT_TRUE(eventually([&] { return last_command() == 0x3C; }));
    ASSERT_EQ(StopAsyncSession(), ZEL_OK);
    EXPECT_EQ(rec().detected_count(), 0u);
}

TEST_F(AsyncSessionTest, PartialReadJoinsHeldBytesWithThePortAndKeepsTheText)
{
    setCardDetectedCallback(on_detected);
    setCardRemovedCallback(on_removed);
    ASSERT_EQ(SetAsyncCardIdSendConfigEx(1, 1, '!', '!', 1, 0, 0, 1000000), ZEL_OK);
    const zsim_card c = card({0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, ORB_NTAG_215);
    ASSERT_EQ(zsim_card_add(sim, &c), 0);
    uint32_t waiting = 0;
    ASSERT_TRUE(eventually([&] { return PortGetAvailable(&zel_global, &waiting) == ZEL_OK && waiting >= 16; }));
    uint8_t head[5];
    ASSERT_EQ(PortRead(&zel_global, head, sizeof head), ZEL_OK);
    EXPECT_EQ(readPartialAsyncUID(&zel_global, head, sizeof head), 0u);
    {
        std::lock_guard<std::mutex> lock(rec().m);
        ASSERT_EQ(rec().detected.size(), 1u);
        EXPECT_EQ(rec().detected[0].uid, "04A22B1A5C6480");
        EXPECT_EQ(rec().detected[0].type, "ORB_NTAG_215");
    }
    // Without a handle only the given bytes count, and the text goes out as it came.
    const uint8_t lower[] = {'!', '0', '4', 'a', '2', '!'};
    EXPECT_EQ(readPartialAsyncUID(nullptr, lower, sizeof lower), 0u);
    {
        std::lock_guard<std::mutex> lock(rec().m);
        ASSERT_EQ(rec().detected.size(), 2u);
        EXPECT_EQ(rec().detected[1].uid, "04a2");
    }
    ASSERT_EQ(zsim_card_remove(sim, c.uid, c.uid_len), 0);
    ASSERT_TRUE(eventually([&] { return PortGetAvailable(&zel_global, &waiting) == ZEL_OK && waiting >= 2; }));
    EXPECT_EQ(readPartialAsyncUID(&zel_global, nullptr, 0), 0u);
    EXPECT_EQ(rec().removed_count(), 1u);
    ASSERT_EQ(SetAsyncCardIdSendConfigEx(0, 0, '!', '!', 0, 0, 0, 1000000), ZEL_OK);
}

TEST(AsyncNetworkSession, StartsAndStopsOnANetworkReader)
{
    zel::set_sleep_hook(tenth_sleep);
    zsim *s = zsim_new();
    ASSERT_NE(s, nullptr);
    uint16_t port = 0;
    ASSERT_EQ(zsim_serve_udp(s, "127.0.0.1", 0, &port), 0);
    const std::string where = "127.0.0.1:" + std::to_string(port);
    ASSERT_EQ(ReaderOpenEx(0, where.c_str(), 'U', nullptr), ZEL_OK);
    EXPECT_EQ(StartAsyncSession(on_detected, on_removed), ZEL_OK);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK) << "commands go on over the socket";
    EXPECT_EQ(StopAsyncSession(), ZEL_OK);
    ReaderClose();
    zsim_free(s);
    zel::set_sleep_hook(nullptr);
}

} // namespace
