// The port layer's choice of back end by kind of link, the guard a session installs on it and the stream
// reading the DESFire transfers use.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "async/internal.h"
#include "core/internal.h"
#include "tandro.h"
#include "transport/port.h"

namespace {

// Collects the debug print while alive.
struct DebugLog {
    std::string text;
    DebugLog()
    {
        ZEL_DebugPrintSetSink([](int, const char *t, void *ctx) { static_cast<DebugLog *>(ctx)->text += t; }, this);
        ZEL_DebugPrintEnable(1);
    }
    ~DebugLog()
    {
        ZEL_DebugPrintEnable(0);
        ZEL_DebugPrintSetSink(nullptr, nullptr);
    }
};

TEST(PortBackEnd, KindsWithoutABackEndAnswerEveryCall)
{
    for (const uint32_t kind : {ZEL_PORT_LOCAL, 2u, 0x55u}) {
        SCOPED_TRACE(kind);
        zel_handle_record rec;
        zel_handle_init(&rec);
        rec.comm.use = kind;
        uint8_t b[4] = {1, 2, 3, 4};
        uint32_t n = 7;
        EXPECT_EQ(PortRead1(&rec, b, 4, &n), ZEL_COMMUNICATION_ERROR);
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(b[0] | b[1] | b[2] | b[3], 0); // cleared before the read was refused
        n = 7;
        EXPECT_EQ(PortGetAvailable(&rec, &n), ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(PortSetTimeout(&rec, 10), ZEL_NOT_IMPLEMENTED);
        EXPECT_EQ(PortSetRTS(&rec, 1), ZEL_PARAMETERS_ERROR);
        // The speed is a descriptor's for every kind but the D2XX device; this record has none.
        EXPECT_EQ(PortSetBaudRate(&rec, 115200), ZEL_COMMUNICATION_ERROR);
        EXPECT_FALSE(zel::port_can_stream(&rec));
        EXPECT_EQ(zel::port_read_some(&rec, b, 4), 0u);
        EXPECT_EQ(zel::port_unread(&rec, b, 4), 0u);
    }
}

TEST(PortBackEnd, DeviceWithoutItsLibraryMovesNothingAndStaysOpen)
{
    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.comm.use = ZEL_PORT_FTDI;
    rec.ftdi_loaded = 0;
    rec.opened = 1;
    uint8_t b[2] = {};
    uint32_t n = 0;
    DebugLog log;
    EXPECT_EQ(PortWrite(&rec, b, 2), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(log.text.find("PortWrite"), std::string::npos); // nothing was moved, nothing is logged
    EXPECT_EQ(PortRead(&rec, b, 2), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_NE(log.text.find("PortRead"), std::string::npos); // a failed read is logged
    EXPECT_EQ(PortRead1(&rec, b, 2, &n), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(PortPurge(&rec), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(PortGetAvailable(&rec, &n), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(PortSetTimeout(&rec, 10), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(PortSetRTS(&rec, 0), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(PortSetBaudRate(&rec, 9600), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(PortClose(&rec), ZEL_FTD2XX_DLL_NOT_FOUND);
    EXPECT_EQ(rec.opened, 1);
}

// A test link that returns scripted bytes and counts what was asked of it.
struct Script {
    std::vector<uint8_t> in;
    size_t at = 0;
    int purges = 0;
    zel::LinkHooks hooks{};
    Script()
    {
        hooks.read = [](void *ctx, uint8_t *buf, uint32_t count) {
            auto *s = static_cast<Script *>(ctx);
            uint32_t n = 0;
            while (n < count && s->at < s->in.size())
                buf[n++] = s->in[s->at++];
            return n;
        };
        hooks.write = [](void *, const uint8_t *, uint32_t count) { return count; };
        hooks.purge = [](void *ctx) { ++static_cast<Script *>(ctx)->purges; };
        hooks.context = this;
        zel::set_link_hooks(&hooks);
    }
    ~Script() { zel::set_link_hooks(nullptr); }
};

// A guard that records the calls the port layer makes on it.
struct Calls {
    std::vector<std::string> seen;
    bool session = true;
    bool input_read = false;
};
Calls *g_calls = nullptr;

const zel::PortGuardHooks kRecordingGuard = {
    [](zel_handle_record *, zel::PortCall call) {
        g_calls->seen.push_back("enter" + std::to_string(static_cast<int>(call)));
        return 40 + static_cast<int>(call);
    },
    [](zel_handle_record *, int token) { g_calls->seen.push_back("leave" + std::to_string(token)); },
    [](const zel_handle_record *) { return g_calls->session; },
    [](zel_handle_record *) { g_calls->seen.push_back("expect_reply"); },
    [](zel_handle_record *) {
        g_calls->seen.push_back("rescue");
        return g_calls->input_read;
    },
    [](zel_handle_record *, uint8_t *buffer, uint32_t, uint32_t *got, ZEL_STATUS status) {
        g_calls->seen.push_back("filter" + std::to_string(*got));
        buffer[0] = 0xEE; // the session's filter decides what the caller sees
        return status == ZEL_OK ? ZEL_OK : ZEL_TIMEOUT_ERR;
    },
};

struct GuardFixture : ::testing::Test {
    Calls calls;
    Script link;
    zel_handle_record rec;
    void SetUp() override
    {
        g_calls = &calls;
        zel::set_port_guard(&kRecordingGuard);
        zel_handle_init(&rec);
        rec.comm.use = zel::kPortHook;
    }
    void TearDown() override
    {
        zel::async::install_port_guard(); // the session's own guard again
        g_calls = nullptr;
    }
};

TEST_F(GuardFixture, NoSessionNoGuard)
{
    link.in = {1, 2};
    uint8_t b[2];
    EXPECT_EQ(PortWrite(&rec, b, 2), ZEL_OK);
    EXPECT_EQ(PortRead(&rec, b, 2), ZEL_OK);
    EXPECT_EQ(PortPurge(&rec), ZEL_OK);
    EXPECT_TRUE(calls.seen.empty());
    EXPECT_EQ(b[0], 1);
}

TEST_F(GuardFixture, EveryCallOfASessionGoesThroughTheGuard)
{
    rec.port_lock_on = 1;
    link.in = {7, 8, 9};
    uint8_t b[3] = {};
    EXPECT_EQ(PortWrite(&rec, b, 3), ZEL_OK);
    EXPECT_EQ(PortRead(&rec, b, 3), ZEL_OK);
    EXPECT_EQ(b[0], 0xEE);
    EXPECT_EQ(b[1], 8);
    // A short read reaches the filter with what came, and the filter's status is the caller's.
    EXPECT_EQ(PortRead(&rec, b, 2), ZEL_TIMEOUT_ERR);
    EXPECT_EQ(PortPurge(&rec), ZEL_OK);
    uint32_t n = 0;
    EXPECT_EQ(PortGetAvailable(&rec, &n), ZEL_OK);
    const std::vector<std::string> want = {"enter2",  "expect_reply", "leave42", "enter3",  "filter3",
                                           "leave43", "enter3",       "filter0", "leave43", "enter1",
                                           "rescue",  "leave41",      "enter0",  "leave40"};
    EXPECT_EQ(calls.seen, want);
    EXPECT_EQ(link.purges, 1);
}

TEST_F(GuardFixture, OtherRecordsAreOnlyLockedNotFiltered)
{
    rec.port_lock_on = 1;
    calls.session = false;
    link.in = {5};
    uint8_t b[1];
    EXPECT_EQ(PortWrite(&rec, b, 1), ZEL_OK);
    EXPECT_EQ(PortRead(&rec, b, 1), ZEL_OK);
    EXPECT_EQ(b[0], 5);
    const std::vector<std::string> want = {"enter2", "leave42", "enter3", "leave43"};
    EXPECT_EQ(calls.seen, want);
}

TEST_F(GuardFixture, AFailedWriteExpectsNoReply)
{
    rec.port_lock_on = 1;
    link.hooks.write = [](void *, const uint8_t *, uint32_t count) { return count - 1; };
    uint8_t b[2] = {};
    EXPECT_EQ(PortWrite(&rec, b, 2), ZEL_COMMUNICATION_BREAK);
    const std::vector<std::string> want = {"enter2", "leave42"};
    EXPECT_EQ(calls.seen, want);
}

// A serial record whose descriptor is the read end of a pipe.
struct PipeSerial {
    int fds[2] = {-1, -1};
    zel_handle_record rec;
    PipeSerial()
    {
        EXPECT_EQ(pipe2(fds, O_NONBLOCK), 0); // as a serial port is opened
        zel_handle_init(&rec);
        rec.comm.use = ZEL_PORT_SERIAL;
        rec.com_read_timeout_ms = 50;
        zel::set_com_fd(&rec, fds[0]);
    }
    ~PipeSerial()
    {
        close(fds[0]);
        close(fds[1]);
    }
    void feed(const std::vector<uint8_t> &b) { ASSERT_EQ(write(fds[1], b.data(), b.size()), ssize_t(b.size())); }
};

TEST(PortStream, PiecesAsTheyComeAndBytesPutBack)
{
    PipeSerial s;
    ASSERT_TRUE(zel::port_can_stream(&s.rec));
    s.feed({1, 2, 3, 4, 5, 6});
    uint8_t buf[16] = {};
    const uint32_t got = zel::port_read_some(&s.rec, buf, 4);
    ASSERT_GE(got, 1u);
    ASSERT_LE(got, 4u);
    EXPECT_EQ(buf[0], 1);
    // The tail of what was taken goes back in front of the next ordinary read.
    EXPECT_EQ(zel::port_unread(&s.rec, buf + 1, got - 1), got - 1);
    uint8_t rest[5] = {};
    ASSERT_EQ(PortRead(&s.rec, rest, 5), ZEL_OK);
    const uint8_t want[5] = {2, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(rest, want, 5), 0);
    // Nothing more comes: no bytes, within the time-out.
    EXPECT_EQ(zel::port_read_some(&s.rec, buf, 4), 0u);
}

TEST(PortStream, RefusedDuringASessionOrWithTheTransferLog)
{
    PipeSerial s;
    s.rec.port_lock_on = 1;
    EXPECT_FALSE(zel::port_can_stream(&s.rec));
    s.rec.port_lock_on = 0;
    {
        DebugLog log;
        EXPECT_FALSE(zel::port_can_stream(&s.rec));
    }
    EXPECT_TRUE(zel::port_can_stream(&s.rec));
    s.rec.comm.use = zel::kPortHook;
    EXPECT_FALSE(zel::port_can_stream(&s.rec));
}

} // namespace
