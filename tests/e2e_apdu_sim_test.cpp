// The simulated card's side of ISO 7816-4 and ISO 14443-4 on its own: APDU cases, the application host,
// and the blocks the card answers over RF. Later card models build on these, so their behaviour is pinned.
#include <gtest/gtest.h>

#include <vector>

#include "iso7816.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes sw_of(const Bytes &r)
{
    return Bytes(r.end() - 2, r.end());
}

TEST(SimApduDecode, ShortAndExtendedCases)
{
    struct Case {
        Bytes in;
        bool ok;
        int kind;
        size_t nc, ne;
        bool extended;
    } cases[] = {
        {{0x00, 0xA4, 0x04, 0x00}, true, 1, 0, 0, false},
        {{0x00, 0xB0, 0x00, 0x00, 0x00}, true, 2, 0, 256, false},
        {{0x00, 0xB0, 0x00, 0x00, 0x10}, true, 2, 0, 16, false},
        {{0x00, 0xD6, 0x00, 0x00, 0x02, 0xAA, 0xBB}, true, 3, 2, 0, false},
        {{0x00, 0xD6, 0x00, 0x00, 0x02, 0xAA, 0xBB, 0x00}, true, 4, 2, 256, false},
        {{0x00, 0xB0, 0x00, 0x00, 0x00, 0x01, 0x00}, true, 2, 0, 256, true},
        {{0x00, 0xB0, 0x00, 0x00, 0x00, 0x00, 0x00}, true, 2, 0, 65536, true},
        {{0x80, 0x10, 0x00, 0x00, 0x00, 0x00, 0x01, 0x42}, true, 3, 1, 0, true},
        {{0x80, 0x10, 0x00, 0x00, 0x00, 0x00, 0x01, 0x42, 0x02, 0x00}, true, 4, 1, 512, true},
        {{0x00, 0xB0, 0x00}, false, 0, 0, 0, false},
        {{0x00, 0xD6, 0x00, 0x00, 0x03, 0xAA}, false, 0, 0, 0, false},             // Lc beyond the data
        {{0x00, 0xD6, 0x00, 0x00, 0x01, 0xAA, 0x00, 0x00}, false, 0, 0, 0, false}, // one byte too many
        {{0x00, 0xD6, 0x00, 0x00, 0x00, 0x00}, false, 0, 0, 0, false},             // extended, cut short
        {{0x00, 0xD6, 0x00, 0x00, 0x00, 0x00, 0x00, 0xAA}, false, 0, 0, 0, false}, // extended Lc of 0
    };
    for (const Case &c : cases) {
        zs::Apdu a;
        const bool ok = zs::apdu_decode(c.in.data(), c.in.size(), a);
        ASSERT_EQ(ok, c.ok) << "case of " << c.in.size() << " bytes";
        if (!ok)
            continue;
        EXPECT_EQ(a.kind, c.kind);
        EXPECT_EQ(a.nc, c.nc);
        EXPECT_EQ(a.ne, c.ne);
        EXPECT_EQ(a.has_le, c.ne != 0);
        EXPECT_EQ(a.extended, c.extended);
        if (a.nc) {
            EXPECT_EQ(a.data[0], c.in[c.extended ? 7 : 5]);
        }
    }
}

class RecordingApp final : public zs::Application {
public:
    explicit RecordingApp(Bytes aid, uint8_t tag) : Application(std::move(aid)), tag_(tag) {}
    zs::RApdu command(const zs::Apdu &c) override
    {
        ++commands;
        return {{tag_, c.ins}, zs::SW_OK};
    }
    void deselect() override { ++deselects; }
    int commands = 0, deselects = 0;

private:
    uint8_t tag_;
};

TEST(SimAppHost, SelectsByNameAndRoutesToTheSelectedApplication)
{
    zs::AppHost host;
    auto a = std::make_unique<RecordingApp>(Bytes{0xA0, 0x00, 0x00, 0x00, 0x01, 0x11}, 0xA1);
    auto b = std::make_unique<RecordingApp>(Bytes{0xA0, 0x00, 0x00, 0x00, 0x02}, 0xB2);
    RecordingApp *pa = a.get(), *pb = b.get();
    host.add(std::move(a));
    host.add(std::move(b));

    const Bytes cmd{0x00, 0xCA, 0x00, 0x00, 0x00};
    EXPECT_EQ(host.transceive(cmd.data(), cmd.size()), (Bytes{0x69, 0x85})) << "nothing selected yet";

    const Bytes sel_missing{0x00, 0xA4, 0x04, 0x00, 0x05, 0xA0, 0x00, 0x00, 0x00, 0x03};
    EXPECT_EQ(host.transceive(sel_missing.data(), sel_missing.size()), (Bytes{0x6A, 0x82}));

    // The first part of an AID is enough.
    const Bytes sel_a{0x00, 0xA4, 0x04, 0x00, 0x05, 0xA0, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(host.transceive(sel_a.data(), sel_a.size()), (Bytes{0x90, 0x00}));
    EXPECT_EQ(host.selected(), pa);
    EXPECT_EQ(host.transceive(cmd.data(), cmd.size()), (Bytes{0xA1, 0xCA, 0x90, 0x00}));

    const Bytes sel_b{0x00, 0xA4, 0x04, 0x00, 0x05, 0xA0, 0x00, 0x00, 0x00, 0x02, 0x00};
    EXPECT_EQ(host.transceive(sel_b.data(), sel_b.size()), (Bytes{0x90, 0x00}));
    EXPECT_EQ(pa->deselects, 1);
    EXPECT_EQ(host.transceive(cmd.data(), cmd.size()), (Bytes{0xB2, 0xCA, 0x90, 0x00}));
    EXPECT_EQ(pa->commands, 1);
    EXPECT_EQ(pb->commands, 1);

    // A SELECT of another kind belongs to the application (a file inside it).
    const Bytes sel_file{0x00, 0xA4, 0x02, 0x0C, 0x02, 0x01, 0x1E};
    EXPECT_EQ(host.transceive(sel_file.data(), sel_file.size()), (Bytes{0xB2, 0xA4, 0x90, 0x00}));
    EXPECT_EQ(pb->commands, 2);

    const Bytes bad{0x00, 0xCA, 0x00, 0x00, 0x04, 0x01};
    EXPECT_EQ(host.transceive(bad.data(), bad.size()), (Bytes{0x67, 0x00}));
    host.reset();
    EXPECT_EQ(host.selected(), nullptr);
    EXPECT_EQ(pb->deselects, 1);
}

TEST(SimAppHost, LongAnswersWaitForGetResponse)
{
    zs::AppHost host;
    host.add(zs::make_test_application({}, 1024));
    Bytes sel{0x00, 0xA4, 0x04, 0x00, static_cast<uint8_t>(zs::TEST_APP_AID.size())};
    sel.insert(sel.end(), zs::TEST_APP_AID.begin(), zs::TEST_APP_AID.end());
    const Bytes fci = host.transceive(sel.data(), sel.size());
    ASSERT_EQ(sw_of(fci), (Bytes{0x90, 0x00}));

    // Echo of 300 bytes asked for with Le 16: 16 bytes now, then 61 xx and GET RESPONSE.
    Bytes echo{0x80, 0x10, 0x00, 0x00, 0x00, 0x01, 0x2C};
    for (int i = 0; i < 300; ++i)
        echo.push_back(static_cast<uint8_t>(i * 7));
    echo.push_back(0x00);
    echo.push_back(0x10);
    Bytes r = host.transceive(echo.data(), echo.size());
    ASSERT_EQ(r.size(), 18u);
    EXPECT_EQ(sw_of(r), (Bytes{0x61, 0x00})) << "284 bytes left: more than 255";
    Bytes all(r.begin(), r.end() - 2);
    const Bytes get{0x00, 0xC0, 0x00, 0x00, 0x00};
    r = host.transceive(get.data(), get.size());
    ASSERT_EQ(r.size(), 258u);
    EXPECT_EQ(sw_of(r), (Bytes{0x61, 28}));
    all.insert(all.end(), r.begin(), r.end() - 2);
    r = host.transceive(get.data(), get.size());
    EXPECT_EQ(sw_of(r), (Bytes{0x90, 0x00}));
    all.insert(all.end(), r.begin(), r.end() - 2);
    EXPECT_EQ(all, Bytes(echo.begin() + 7, echo.end() - 2));
}

TEST(SimTestApplication, ReadBinaryOffsetsAndFileEnd)
{
    zs::AppHost host;
    host.add(zs::make_test_application({}, 600, {0xDE, 0xAD}));
    Bytes sel{0x00, 0xA4, 0x04, 0x00, 0x05};
    sel.insert(sel.end(), zs::TEST_APP_AID.begin(), zs::TEST_APP_AID.begin() + 5);
    ASSERT_EQ(sw_of(host.transceive(sel.data(), sel.size())), (Bytes{0x90, 0x00}));

    const Bytes head{0x00, 0xB0, 0x00, 0x00, 0x04};
    EXPECT_EQ(host.transceive(head.data(), head.size()), (Bytes{0xDE, 0xAD, 0x02, 0x03, 0x90, 0x00}));
    // Offset 0x0102: byte i is (i & FF) ^ (i >> 8).
    const Bytes mid{0x00, 0xB0, 0x01, 0x02, 0x02};
    EXPECT_EQ(host.transceive(mid.data(), mid.size()), (Bytes{0x02 ^ 0x01, 0x03 ^ 0x01, 0x90, 0x00}));
    // Near the end, fewer bytes than asked for.
    const Bytes tail{0x00, 0xB0, 0x02, 0x56, 0x08};
    EXPECT_EQ(host.transceive(tail.data(), tail.size()), (Bytes{0x56 ^ 0x02, 0x57 ^ 0x02, 0x62, 0x82}));
    const Bytes past{0x00, 0xB0, 0x02, 0x59, 0x01};
    EXPECT_EQ(sw_of(host.transceive(past.data(), past.size())), (Bytes{0x6B, 0x00}));
    const Bytes odd{0x00, 0xB1, 0x00, 0x00, 0x04, 0x54, 0x02, 0x02, 0x57, 0x00};
    EXPECT_EQ(host.transceive(odd.data(), odd.size()), (Bytes{0x57 ^ 0x02, 0x62, 0x82}));
    const Bytes update{0x00, 0xD6, 0x00, 0x01, 0x01, 0x77};
    EXPECT_EQ(host.transceive(update.data(), update.size()), (Bytes{0x90, 0x00}));
    EXPECT_EQ(host.transceive(head.data(), head.size()), (Bytes{0xDE, 0x77, 0x02, 0x03, 0x90, 0x00}));
    const Bytes refuse{0x80, 0x14, 0x69, 0x82};
    EXPECT_EQ(host.transceive(refuse.data(), refuse.size()), (Bytes{0x69, 0x82}));
}

TEST(SimIso14443Card, BlocksToggleAndChainBothWays)
{
    const zsim_card id = {{1, 2, 3, 4}, 4, 0x20, 0x0344, 0x40};
    zs::Iso14443Setup setup;
    setup.block_size = 8;
    zs::Iso14443Card card(id, setup);
    card.host().add(zs::make_test_application({}, 64));

    const Bytes idle{0x02, 0x00, 0xB0, 0x00, 0x00, 0x01};
    EXPECT_TRUE(card.rf_block(idle.data(), idle.size()).empty()) << "no I-block before RATS";
    const Bytes rats{0xE0, 0x50};
    EXPECT_EQ(card.rf_block(rats.data(), rats.size()), setup.ats);

    // SELECT in two chained blocks: the first is acknowledged with its block number.
    Bytes part1{0x12, 0x00, 0xA4, 0x04, 0x00, 0x09};
    part1.insert(part1.end(), zs::TEST_APP_AID.begin(), zs::TEST_APP_AID.begin() + 3);
    EXPECT_EQ(card.rf_block(part1.data(), part1.size()), (Bytes{0xA2}));
    Bytes part2{0x03};
    part2.insert(part2.end(), zs::TEST_APP_AID.begin() + 3, zs::TEST_APP_AID.end());
    const Bytes fci = card.rf_block(part2.data(), part2.size());
    // FCI of 13 bytes and the status word: 15 bytes in blocks of 8, the first chained, numbered as asked.
    ASSERT_EQ(fci.size(), 9u);
    EXPECT_EQ(fci[0], 0x13);
    EXPECT_EQ(fci[1], 0x6F);
    const Bytes ack0{0xA2};
    const Bytes rest = card.rf_block(ack0.data(), ack0.size());
    ASSERT_EQ(rest.size(), 8u);
    EXPECT_EQ(rest[0], 0x02) << "last block, block number of the ACK";
    EXPECT_EQ(Bytes(rest.end() - 2, rest.end()), (Bytes{0x90, 0x00}));
    // A NAK brings the same block back.
    const Bytes nak{0xB2};
    EXPECT_EQ(card.rf_block(nak.data(), nak.size()), rest);

    const Bytes desel{0xC2};
    EXPECT_EQ(card.rf_block(desel.data(), desel.size()), (Bytes{0xC2}));
    EXPECT_TRUE(card.rf_block(idle.data(), idle.size()).empty());
}

} // namespace
