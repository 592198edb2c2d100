// The reader on a pseudo-terminal, driven by a bare host: replies byte by byte, the field, faults.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "host.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

class PtyReader : public ::testing::Test {
protected:
    void SetUp() override
    {
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        zsim_set_reader_type(sim, 0x01020304);
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        host = std::make_unique<RawHost>(path);
        ASSERT_GE(host->fd, 0);
    }
    void TearDown() override
    {
        host.reset();
        zsim_free(sim);
    }
    zsim *sim = nullptr;
    char path[256] = {};
    std::unique_ptr<RawHost> host;
};

const zsim_card kCard7 = {{0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, 0x09};
const zsim_card kCard4 = {{0x11, 0x22, 0x33, 0x44}, 4, 0x08, 0x0004, 0x21};

TEST_F(PtyReader, WorkedExchanges)
{
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12),
              (Bytes{0xDE, 0x10, 0xED, 0x05, 0x00, 0x00, 0x2D, 0x04, 0x03, 0x02, 0x01, 0x0B}));
    Bytes req(32);
    ASSERT_EQ(zsim_last_request(sim, req.data(), req.size()), 7u);
    req.resize(7);
    EXPECT_EQ(req, cmd_frame(0x10));

    EXPECT_EQ(host->exchange(cmd_frame(0x13), 7), (Bytes{0xEC, 0x08, 0xCE, 0x00, 0x00, 0x00, 0x31}));
    ASSERT_EQ(zsim_card_add(sim, &kCard4), 0);
    EXPECT_EQ(host->exchange(cmd_frame(0x13), 12),
              (Bytes{0xDE, 0x13, 0xED, 0x05, 0x21, 0x00, 0x0B, 0x11, 0x22, 0x33, 0x44, 0x4B}));
    EXPECT_EQ(zsim_exchange_count(sim), 3u);
}

TEST_F(PtyReader, CardIdentityForms)
{
    ASSERT_EQ(zsim_card_add(sim, &kCard7), 0);
    // ATQA and SAK: SAK in PAR0, ATQA little-endian at the head of the EXT.
    Bytes r = host->exchange(cmd_frame(0x13, 0, 1), 12);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(r[4], 0x00);
    EXPECT_EQ(r[7], 0x44);
    EXPECT_EQ(r[8], 0x00);
    // The long form: SAK, UID length, the whole UID.
    r = host->exchange(cmd_frame(0x2C), 18);
    ASSERT_EQ(r.size(), 18u);
    EXPECT_EQ(r[1], 0x2C);
    EXPECT_EQ(r[3], 11);
    EXPECT_EQ(r[5], 7);
    EXPECT_EQ(Bytes(r.begin() + 7, r.begin() + 14), Bytes(kCard7.uid, kCard7.uid + 7));
    // The card type alone; the last card read stays known after the card leaves.
    r = host->exchange(cmd_frame(0x3C), 7);
    ASSERT_EQ(r.size(), 7u);
    EXPECT_EQ(r[4], 0x09);
    ASSERT_EQ(zsim_card_remove(sim, kCard7.uid, 7), 0);
    EXPECT_EQ(zsim_card_remove(sim, kCard7.uid, 7), -1);
    EXPECT_EQ(host->exchange(cmd_frame(0x2C), 7)[0], 0xEC);
    r = host->exchange(cmd_frame(0x7C), 18);
    ASSERT_EQ(r.size(), 18u);
    EXPECT_EQ(r[0], 0xDE);
    EXPECT_EQ(r[7], 0x04);
}

TEST_F(PtyReader, BadInputGetsErrorsOrSilence)
{
    Bytes bad = cmd_frame(0x10);
    bad[6] ^= 0x10;
    EXPECT_EQ(host->exchange(bad, 7), (Bytes{0xEC, 0x02, 0xCE, 0x00, 0x00, 0x00, 0x27}));
    // An unknown command.
    Bytes r = host->exchange(cmd_frame(0x01), 7);
    ASSERT_EQ(r.size(), 7u);
    EXPECT_EQ(r[0], 0xEC);
    EXPECT_EQ(r[1], 9);
    // Noise alone gets no answer.
    EXPECT_TRUE(host->exchange(Bytes{0x00, 0x13, 0x77, 0xAA}, 1, 50).empty());
    // And the reader still answers after all of it.
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12).size(), 12u);
}

TEST_F(PtyReader, FaultsBendOneMatchingExchange)
{
    zsim_fault f{ZSIM_FAULT_SILENCE, 0, 0, 0, 0x13};
    zsim_fault_push(sim, &f);
    // The fault waits for its command.
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12).size(), 12u);
    EXPECT_TRUE(host->exchange(cmd_frame(0x13), 7, 80).empty());
    EXPECT_EQ(host->exchange(cmd_frame(0x13), 7).size(), 7u);

    f = {ZSIM_FAULT_BAD_CHECKSUM, 0, 0, 0, -1};
    zsim_fault_push(sim, &f);
    Bytes r = host->exchange(cmd_frame(0x10), 12);
    ASSERT_EQ(r.size(), 12u);
    EXPECT_EQ(r[6], 0x2E);

    f = {ZSIM_FAULT_WRONG_ECHO, 0, 0, 0, -1};
    zsim_fault_push(sim, &f);
    r = host->exchange(cmd_frame(0x10), 7);
    ASSERT_EQ(r.size(), 7u);
    EXPECT_EQ(r[1], 0x11);
    EXPECT_EQ(r[6], static_cast<uint8_t>((0xDE ^ 0x11 ^ 0xED ^ 0x05) + 7));

    f = {ZSIM_FAULT_ERROR_FRAME, 0x0B, 0, 0, -1};
    zsim_fault_push(sim, &f);
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 7), (Bytes{0xEC, 0x0B, 0xCE, 0x00, 0x00, 0x00, 0x30}));

    f = {ZSIM_FAULT_TRUNCATE, 0, 0, 9, -1};
    zsim_fault_push(sim, &f);
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12, 80).size(), 9u);

    f = {ZSIM_FAULT_EXTRA_BYTES, 0, 0, 5, -1};
    zsim_fault_push(sim, &f);
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 17, 200).size(), 17u);

    f = {ZSIM_FAULT_LATE, 0, 120, 0, -1};
    zsim_fault_push(sim, &f);
    EXPECT_TRUE(host->exchange(cmd_frame(0x10), 12, 60).empty());
    EXPECT_EQ(host->recv(12, 300).size(), 12u);
}

TEST_F(PtyReader, EndlessInterimUntilTheHostSpeaks)
{
    const zsim_fault f{ZSIM_FAULT_ENDLESS_INTERIM, 0, 0, 0, -1};
    zsim_fault_push(sim, &f);
    Bytes r = host->exchange(cmd_frame(0x10), 28, 500);
    ASSERT_EQ(r.size(), 28u);
    for (size_t i = 0; i < r.size(); i += 7)
        EXPECT_EQ(Bytes(r.begin() + i, r.begin() + i + 7), (Bytes{0xA1, 0x10, 0x85, 0x00, 0x00, 0x00, 0x3B}));
    // A new command ends the run: its reply comes, then nothing more.
    r = host->exchange(cmd_frame(0x13), 7);
    EXPECT_EQ(r[0], 0xEC);
    EXPECT_TRUE(host->recv(1, 80).empty());
}

TEST_F(PtyReader, HostClosingDoesNotHangUpButUnplugDoes)
{
    host.reset();
    host = std::make_unique<RawHost>(path);
    ASSERT_GE(host->fd, 0);
    EXPECT_EQ(host->exchange(cmd_frame(0x10), 12).size(), 12u);

    const zsim_fault f{ZSIM_FAULT_UNPLUG, 0, 0, 0, -1};
    zsim_fault_push(sim, &f);
    EXPECT_TRUE(host->exchange(cmd_frame(0x10), 7, 300).empty());
    EXPECT_TRUE(host->hung_up);
}

TEST(Sim, TwoReadersAnswerApartAndManyThreadsDriveOne)
{
    zsim *a = zsim_new(), *b = zsim_new();
    zsim_set_reader_type(a, 0xAAAA0001);
    zsim_set_reader_type(b, 0xBBBB0002);
    char pa[256], pb[256];
    ASSERT_EQ(zsim_serve_pty(a, pa, sizeof pa), 0);
    ASSERT_EQ(zsim_serve_pty(b, pb, sizeof pb), 0);
    RawHost ha(pa), hb(pb);
    std::thread churn([a] {
        for (int i = 0; i < 200; ++i) {
            zsim_card c = kCard4;
            c.uid[0] = static_cast<uint8_t>(i);
            zsim_card_add(a, &c);
            zsim_card_remove(a, c.uid, 4);
        }
    });
    for (int i = 0; i < 20; ++i) {
        EXPECT_EQ(ha.exchange(cmd_frame(0x10), 12)[7], 0x01);
        EXPECT_EQ(hb.exchange(cmd_frame(0x10), 12)[7], 0x02);
    }
    churn.join();
    zsim_free(a);
    zsim_free(b);
}

TEST(Sim, FieldCapacityAndArguments)
{
    zsim *s = zsim_new();
    zsim_card c = kCard4;
    int added = 0;
    while (zsim_card_add(s, &c) == 0 && added < 100) {
        ++added;
        c.uid[3]++;
    }
    EXPECT_EQ(added, 16);
    zsim_field_clear(s);
    EXPECT_EQ(zsim_card_add(s, &c), 0);
    c.uid_len = 11;
    EXPECT_EQ(zsim_card_add(s, &c), -1);
    EXPECT_EQ(zsim_card_add(s, nullptr), -1);
    EXPECT_EQ(zsim_last_request(s, nullptr, 0), 0u);
    zsim_free(s);
}

} // namespace
