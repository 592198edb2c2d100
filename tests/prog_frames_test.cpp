// Programming a reader against a scripted boot loader: the boot entry and its greeting, the packets and their
// acknowledgements in every form, the retries of the first packet, and the port closed after a failed
// handshake.
#include <gtest/gtest.h>

#include <cstring>

#include "script_link.h"
#include "zel_prog.h"
#include "zel_status.h"

using namespace zeltest;

namespace {

const Bytes kGreeting = {0x03, 0x55, 0x55, 0xBB};
constexpr uint8_t kF2 = 0xF2;

Bytes image_packet(uint8_t seed)
{
    Bytes p(128);
    for (size_t i = 0; i < p.size(); ++i)
        p[i] = static_cast<uint8_t>(seed + 3 * i);
    return p;
}

// Whether the record's port was closed.
bool closed(const zel_handle_record &r)
{
    return r.opened == 0;
}

// A scripted reader on a port that counts as open.
struct OpenLink : ScriptLink {
    OpenLink() { record.opened = 1; }
};

} // namespace

TEST(ProgBoot, TheGreetingMayFollowOrSitInTheHandshakeReply)
{
    {
        OpenLink link;
        link.reply(cat(rsp(0x06), kGreeting));
        EXPECT_EQ(BootReaderHnd(&link.record), ZEL_OK);
        EXPECT_EQ(link.sent, cmd(0x06, 0, 0xAA, 0xCC));
    }
    for (size_t shift = 0; shift <= 3; ++shift) {
        OpenLink link;
        Bytes reply(shift, 0x11);
        reply.insert(reply.end(), kGreeting.begin(), kGreeting.end());
        reply.resize(7, 0x22);
        link.reply(cat(reply, Bytes{9, 9, 9, 9})); // the four bytes read after it are not tested
        EXPECT_EQ(BootReaderHnd(&link.record), ZEL_OK) << shift;
        EXPECT_FALSE(closed(link.record));
    }
}

TEST(ProgBoot, NoGreetingClosesThePort)
{
    {
        OpenLink link;
        link.reply(cat(rsp(0x06), Bytes{0x03, 0x55, 0x55, 0xBC}));
        EXPECT_EQ(BootReaderHnd(&link.record), ZEL_COMMUNICATION_ERROR);
        EXPECT_TRUE(closed(link.record));
    }
    {
        OpenLink link;
        link.reply(Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77});
        EXPECT_EQ(BootReaderHnd(&link.record), ZEL_COMMUNICATION_ERROR);
        EXPECT_TRUE(closed(link.record));
    }
    {
        OpenLink link;
        link.reply(err(0x09));
        EXPECT_EQ(BootReaderHnd(&link.record), 0x09u);
        EXPECT_TRUE(closed(link.record));
    }
    OpenLink link;
    link.reply(rsp(0x06)); // the greeting never comes: three reads
    EXPECT_EQ(BootReaderHnd(&link.record), ZEL_COMMUNICATION_BREAK);
    EXPECT_FALSE(closed(link.record));
}

TEST(ProgPackets, APacketGoesAsFrameAndChecksummedExt)
{
    const Bytes data = image_packet(5);
    OpenLink link;
    link.reply(ack(kF2, 0x81));
    link.reply(rsp(kF2));
    uint8_t crc = 9;
    ASSERT_EQ(ProgReaderHnd(&link.record, data.data(), 0x0203, 0, &crc), ZEL_OK);
    EXPECT_EQ(crc, 0);
    // The packet number low byte first.
    EXPECT_EQ(link.sent, cat(cmd(kF2, 0x81, 0x03, 0x02), ext(data)));
}

TEST(ProgPackets, TheStartCallSendsTheFrameAlone)
{
    OpenLink link;
    link.reply(rsp(kF2));
    uint8_t crc = 1;
    EXPECT_EQ(ProgReaderHnd(&link.record, nullptr, 77, 1, &crc), ZEL_OK);
    EXPECT_EQ(crc, 0);
    EXPECT_EQ(link.sent, cmd(kF2));
    OpenLink refused;
    refused.reply(err(0x03));
    EXPECT_EQ(ProgReaderHnd(&refused.record, nullptr, 0, 1, &crc), 0x03u);
    EXPECT_TRUE(closed(refused.record));
}

TEST(ProgPackets, TheLastPacketTellsWhetherTheImageWasVerified)
{
    const Bytes data = image_packet(1);
    for (uint8_t first : {0xC0, 0xC1}) {
        OpenLink link;
        link.reply(ack(kF2, 0x81));
        link.reply(cat(rsp(kF2, 2), Bytes{first, 0x00}));
        uint8_t crc = 7;
        ASSERT_EQ(ProgReaderHnd(&link.record, data.data(), 9, 0, &crc), ZEL_OK);
        EXPECT_EQ(crc, first == 0xC0 ? 1 : 0);
    }
}

// A link whose every read takes the next scripted answer (an empty one: a time-out), whatever was written.
class ReadScript {
public:
    ReadScript()
    {
        hooks_ = {&ReadScript::read_fn, &ReadScript::write_fn, &ReadScript::purge_fn, this};
        zel::set_link_hooks(&hooks_);
        zel_handle_init(&record);
        record.comm.use = zel::kPortHook;
        record.opened = 1;
    }
    ~ReadScript() { zel::set_link_hooks(nullptr); }
    void read(const Bytes &b) { reads_.push_back(b); }
    zel_handle_record record;
    Bytes sent;
    int reads_done = 0;

private:
    static uint32_t read_fn(void *ctx, uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<ReadScript *>(ctx);
        ++self->reads_done;
        if (self->reads_.empty())
            return 0;
        const Bytes r = self->reads_.front();
        self->reads_.pop_front();
        const uint32_t k = r.size() < n ? static_cast<uint32_t>(r.size()) : n;
        if (k)
            std::memcpy(buf, r.data(), k);
        return k;
    }
    static uint32_t write_fn(void *ctx, const uint8_t *buf, uint32_t n)
    {
        auto *self = static_cast<ReadScript *>(ctx);
        self->sent.insert(self->sent.end(), buf, buf + n);
        return n;
    }
    static void purge_fn(void *) {}
    zel::LinkHooks hooks_{};
    std::deque<Bytes> reads_;
};

TEST(ProgPackets, OnlyTheFirstPacketWaitsForALateReply)
{
    // Packet 0 reads its reply four times over serial and three times over 64-byte reports; any other once.
    struct Case {
        bool usb;
        uint16_t packet;
        int silent;
        ZEL_STATUS want;
    } cases[] = {
        {false, 0, 3, ZEL_OK},
        {false, 0, 4, ZEL_COMMUNICATION_BREAK},
        {true, 0, 2, ZEL_OK},
        {true, 0, 3, ZEL_COMMUNICATION_BREAK},
        {false, 1, 1, ZEL_COMMUNICATION_BREAK},
        {false, 1, 0, ZEL_OK},
        {true, 5, 1, ZEL_COMMUNICATION_BREAK},
    };
    const Bytes data = image_packet(2);
    for (const Case &c : cases) {
        ReadScript link;
        link.read(ack(kF2, 0x81));
        if (c.usb)
            for (uint8_t b : {1, 2, 3})
                link.read(Bytes{b});
        for (int i = 0; i < c.silent; ++i)
            link.read(Bytes{});
        link.read(rsp(kF2));
        uint8_t crc = 0;
        const ZEL_STATUS got = c.usb ? ProgReaderUsbHnd(&link.record, data.data(), c.packet, 0, &crc)
                                     : ProgReaderHnd(&link.record, data.data(), c.packet, 0, &crc);
        EXPECT_EQ(got, c.want) << c.usb << " " << c.packet << " " << c.silent;
        // A failed reply does not close the port: only a failed handshake does.
        EXPECT_FALSE(closed(link.record));
    }
}

TEST(ProgPackets, ReportsAreAcknowledgedOneTwoThree)
{
    const Bytes data = image_packet(9);
    {
        ReadScript link;
        link.read(ack(kF2, 0x81));
        for (uint8_t b : {1, 2, 3})
            link.read(Bytes{b});
        link.read(rsp(kF2));
        uint8_t crc = 0;
        ASSERT_EQ(ProgReaderUsbHnd(&link.record, data.data(), 4, 0, &crc), ZEL_OK);
        // One frame, then the EXT as it is: the reports only cut it.
        EXPECT_EQ(link.sent, cat(cmd(kF2, 0x81, 4, 0), ext(data)));
    }
    for (int wrong = 0; wrong < 3; ++wrong) {
        ReadScript link;
        link.read(ack(kF2, 0x81));
        for (uint8_t b = 1; b <= 3; ++b)
            link.read(Bytes{static_cast<uint8_t>(b == wrong + 1 ? 0 : b)});
        uint8_t crc = 0;
        EXPECT_EQ(ProgReaderUsbHnd(&link.record, data.data(), 4, 0, &crc), ZEL_COMMUNICATION_ERROR) << wrong;
    }
}

TEST(ProgPackets, AFailedHandshakeClosesThePort)
{
    OpenLink link;
    link.reply(err(0x02));
    const Bytes data = image_packet(0);
    uint8_t crc = 0;
    EXPECT_EQ(ProgReaderHnd(&link.record, data.data(), 3, 0, &crc), 0x02u);
    EXPECT_TRUE(closed(link.record));
}

TEST(ProgStream, StreamPacketsGoRawAndTheReplyEchoesTheNumber)
{
    Bytes data(4096);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i ^ (i >> 8));
    for (auto fn : {ProgReaderStreamUsbHnd, ProgEspHnd}) {
        ReadScript link;
        link.read(rsp(kF2, 0, 0x34, 0x12));
        EXPECT_EQ(fn(&link.record, data.data(), 0x1234), ZEL_OK);
        EXPECT_EQ(link.sent, data);
        ReadScript other;
        other.read(rsp(kF2, 0, 0x33, 0x12));
        EXPECT_EQ(fn(&other.record, data.data(), 0x1234), ZEL_COMMUNICATION_ERROR);
        ReadScript refused;
        refused.read(err(0x0A));
        EXPECT_EQ(fn(&refused.record, data.data(), 1), 0x0Au);
    }
}

TEST(ProgPn7462, ParametersAreLaidOutOrReplacedByTheProductMode)
{
    const Bytes first = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const Bytes second = {0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8};
    const uint32_t fifth = 0x0A0B0C0D;
    {
        OpenLink link;
        link.reply(ack(0x08, 0x81));
        link.reply(rsp(0x08));
        ASSERT_EQ(PN7462_WriteParamsHnd(&link.record, first.data(), second.data(), 0x31, 0x32, &fifth, 0), ZEL_OK);
        Bytes body = cat({first, second, Bytes{0x31, 0x32}, le32(fifth), Bytes(94, 0), Bytes{'L', 'O', 'C', 'K'}});
        EXPECT_EQ(link.sent, cat(cmd(0x08, 0x81), ext(body)));
    }
    {
        OpenLink link;
        link.reply(ack(0x08, 0x81));
        link.reply(rsp(0x08));
        ASSERT_EQ(PN7462_WriteParamsHnd(&link.record, first.data(), second.data(), 0x31, 0x32, &fifth, 1), ZEL_OK);
        Bytes body = cat(Bytes(124, 0), Bytes{'P', 'R', 'O', 'D'});
        EXPECT_EQ(link.sent, cat(cmd(0x08, 0x81), ext(body))); // no key goes out
    }
    struct Case {
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {rsp(0x09), ZEL_COMMUNICATION_ERROR},
        {err(0x11), 0x11},
        {Bytes{0xDE, 0x08, 0xED, 0, 0, 0, 0}, ZEL_COMMUNICATION_ERROR},
        {ack(0x08), ZEL_COMMUNICATION_ERROR},
    };
    for (const Case &c : cases) {
        OpenLink link;
        link.reply(ack(0x08, 0x81));
        link.reply(c.reply);
        EXPECT_EQ(PN7462_WriteParamsHnd(&link.record, first.data(), second.data(), 0, 0, &fifth, 0), c.want);
    }
    ReadScript usb;
    usb.read(ack(0x08, 0x81));
    for (uint8_t b : {1, 2, 3})
        usb.read(Bytes{b});
    usb.read(rsp(0x08));
    EXPECT_EQ(PN7462_WriteParamsUsbHnd(&usb.record, nullptr, nullptr, 0, 0, nullptr, 1), ZEL_OK);
}

TEST(ProgPn7462, ProtectionTestAndTheKeptStubs)
{
    {
        OpenLink link;
        link.reply(rsp(0x07));
        EXPECT_EQ(PN7462_CodeProtectHnd(&link.record), ZEL_OK);
        EXPECT_EQ(link.sent, cmd(0x07));
    }
    {
        OpenLink link;
        link.reply(rsp(0x09));
        EXPECT_EQ(PN7462_TestHnd(&link.record, 0x5A), ZEL_OK);
        EXPECT_EQ(link.sent, cmd(0x09, 0, 0x5A));
    }
    OpenLink link;
    link.reply(Bytes{});
    EXPECT_EQ(PN7462_TestHnd(&link.record, 1), ZEL_COMMUNICATION_BREAK);
    EXPECT_TRUE(closed(link.record));
    OpenLink quiet;
    for (auto fn : {PN7462_LpcdCalibrationHnd, PN7462_LpcdPerformHnd, PN7462_RfOffHnd, PN7462_RfOnHnd,
                    PN7462_ExtFieldHnd, PN7462_ESP32_boot_initHnd})
        EXPECT_EQ(fn(&quiet.record), ZEL_NOT_IMPLEMENTED);
    EXPECT_EQ(PN7462_RfOnOffHnd(&quiet.record, 1), ZEL_NOT_IMPLEMENTED);
    EXPECT_TRUE(quiet.sent.empty());
}
