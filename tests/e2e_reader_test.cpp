// The first operations end to end: exported call, frames on a pseudo-terminal, the simulated reader.
#include <gtest/gtest.h>

#include <cstring>
#include <unistd.h>

#include "card_sim_fixture.h"
#include "core/frame.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

// Opening comes with its own sequence; here the port is set on the record directly.
class SimReaderTest : public zeltest::CardSimTest {
protected:
    void SetUp() override
    {
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        zsim_set_reader_type(sim, 0x01020304);
        serve(300);
    }
    size_t last_request(uint8_t *buf, size_t len) { return zsim_last_request(sim, buf, len); }
};

TEST_F(SimReaderTest, ReaderTypeThroughEveryForm)
{
    uint32_t type = 0;
    ASSERT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    EXPECT_EQ(type, 0x01020304u);
    uint8_t req[32];
    ASSERT_EQ(last_request(req, sizeof req), 7u);
    const uint8_t want[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    EXPECT_EQ(std::memcmp(req, want, 7), 0);

    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
    Zel_Hnd_SetGlobal(hnd);
    type = 0;
    EXPECT_EQ(GetReaderType(&type), ZEL_OK);
    EXPECT_EQ(type, 0x01020304u);
    EXPECT_EQ(GetReaderTypeHnd(hnd, &type), ZEL_OK);
    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

TEST_F(SimReaderTest, CardInTheFieldAndNoCard)
{
    uint8_t card_type = 0x55;
    uint32_t uid = 0xDEADBEEF;
    EXPECT_EQ(GetCardIdM(hnd, &card_type, &uid), ZEL_NO_CARD);
    EXPECT_EQ(card_type, 0x55);
    EXPECT_EQ(uid, 0xDEADBEEFu);

    const zsim_card card = {{0x11, 0x22, 0x33, 0x44}, 4, 0x08, 0x0004, ORB_NTAG_213};
    ASSERT_EQ(zsim_card_add(sim, &card), 0);
    ASSERT_EQ(GetCardIdM(hnd, &card_type, &uid), ZEL_OK);
    EXPECT_EQ(card_type, ORB_NTAG_213);
    EXPECT_EQ(uid, 0x44332211u);

    ASSERT_EQ(zsim_card_remove(sim, card.uid, 4), 0);
    EXPECT_EQ(GetCardIdM(hnd, &card_type, &uid), ZEL_NO_CARD);
}

TEST_F(SimReaderTest, FaultsReachTheCallerAsStatuses)
{
    struct Case {
        zsim_fault fault;
        ZEL_STATUS want;
    } cases[] = {
        {{ZSIM_FAULT_SILENCE, 0, 0, 0, -1}, ZEL_COMMUNICATION_BREAK},
        {{ZSIM_FAULT_BAD_CHECKSUM, 0, 0, 0, -1}, ZEL_COMMUNICATION_ERROR},
        {{ZSIM_FAULT_WRONG_ECHO, 0, 0, 0, -1}, ZEL_COMMUNICATION_ERROR},
        {{ZSIM_FAULT_ERROR_FRAME, ZEL_KEYS_LOCKED, 0, 0, -1}, ZEL_KEYS_LOCKED},
        {{ZSIM_FAULT_TRUNCATE, 0, 0, 9, -1}, ZEL_COMMUNICATION_BREAK},
        {{ZSIM_FAULT_LATE, 0, 600, 0, -1}, ZEL_COMMUNICATION_BREAK},
    };
    for (const Case &c : cases) {
        zsim_fault_push(sim, &c.fault);
        uint32_t type = 0;
        EXPECT_EQ(GetReaderTypeM(hnd, &type), c.want) << "fault " << c.fault.kind;
        // The next command's purge recovers the link.
        zsim_fault_clear(sim);
        usleep(c.fault.kind == ZSIM_FAULT_LATE ? 400000 : 0);
        ASSERT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK) << "after fault " << c.fault.kind;
        EXPECT_EQ(type, 0x01020304u);
    }
}

TEST_F(SimReaderTest, ExtraBytesAfterAReplyAreDroppedByTheNextPurge)
{
    const zsim_fault extra = {ZSIM_FAULT_EXTRA_BYTES, 0, 0, 5, -1};
    zsim_fault_push(sim, &extra);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    usleep(20000);
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);
    EXPECT_EQ(type, 0x01020304u);
}

TEST_F(SimReaderTest, TwoHandlesTwoReaders)
{
    zsim *other = zsim_new();
    zsim_set_reader_type(other, 0xD1180022);
    char other_path[256] = {};
    ASSERT_EQ(zsim_serve_pty(other, other_path, sizeof other_path), 0);
    ZEL_HANDLE second = Zel_Hnd_Create();
    ASSERT_EQ(zel::serial_open(second, other_path, 1000000, true), ZEL_OK);
    uint32_t a = 0, b = 0;
    EXPECT_EQ(GetReaderTypeM(hnd, &a), ZEL_OK);
    EXPECT_EQ(GetReaderTypeM(second, &b), ZEL_OK);
    EXPECT_EQ(a, 0x01020304u);
    EXPECT_EQ(b, 0xD1180022u);
    Zel_Hnd_Destroy(second);
    zsim_free(other);
}

TEST_F(SimReaderTest, UnpluggedReaderFailsCleanly)
{
    const zsim_fault unplug = {ZSIM_FAULT_UNPLUG, 0, 0, 0, -1};
    zsim_fault_push(sim, &unplug);
    uint32_t type = 0;
    const ZEL_STATUS s = GetReaderTypeM(hnd, &type);
    EXPECT_TRUE(s == ZEL_COMMUNICATION_ERROR || s == ZEL_COMMUNICATION_BREAK) << s;
    EXPECT_NE(GetReaderTypeM(hnd, &type), ZEL_OK);
}

} // namespace
