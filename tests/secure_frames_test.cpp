// The secure element and the feature blocks on a scripted link: the CRC-8 against its published check
// values, the key frame byte for byte, and every bound on what the reader sends back.
#include <gtest/gtest.h>

#include <cstring>

#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

constexpr uint8_t ACK = 0xAC, ACK_T = 0xCA;

uint8_t crc8(const Bytes &b)
{
    return CRC8(b.data(), static_cast<uint8_t>(b.size()));
}

// A feature block as the reader sends it: data, CRC-8, checksum.
Bytes feature_reply(const Bytes &data, int crc_delta = 0)
{
    Bytes block = data;
    block.push_back(static_cast<uint8_t>(crc8(data) + crc_delta));
    return cat(rsp(0xC3, static_cast<uint8_t>(block.size() + 1)), ext(block));
}

TEST(SecureCrc8, CatalogueCheckValues)
{
    const char *digits = "123456789";
    EXPECT_EQ(CRC8(reinterpret_cast<const uint8_t *>(digits), 9), 0xF7);
    EXPECT_EQ(crc8({0xBE, 0xEF}), 0x92);
    EXPECT_EQ(CRC8(nullptr, 0), 0xFF);
    EXPECT_EQ(crc8({}), 0xFF);
}

TEST(SecureElement, GenericCommandRefusalsAndForms)
{
    ScriptLink link;
    uint8_t data[255] = {};
    EXPECT_EQ(SetATECC608Hnd(&link.record, 0x80, 16, data, 255), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetATECC608Hnd(&link.record, 0x80, 16, nullptr, 4), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetATECC608Hnd(&link.record, 0x80, 16, data, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.writes.empty());

    // No data: a plain handshake.
    ScriptLink plain;
    plain.reply(rsp(0xC7, 0, 0x82));
    EXPECT_EQ(SetATECC608Hnd(&plain.record, 0x82, 0, nullptr, 0), ZEL_OK);
    EXPECT_EQ(plain.writes, (std::vector<Bytes>{cmd(0xC7, 0, 0x82, 0)}));

    ScriptLink with;
    with.reply(frame(ACK, 0xC7, ACK_T));
    with.reply(rsp(0xC7));
    data[0] = 0xAB;
    data[1] = 0xCD;
    EXPECT_EQ(SetATECC608Hnd(&with.record, 0x81, 8, data, 2), ZEL_OK);
    EXPECT_EQ(with.writes, (std::vector<Bytes>{cmd(0xC7, 3, 0x81, 8), ext({0xAB, 0xCD})}));

    // The named handshakes carry their subcommands.
    using Fn = ZEL_STATUS (*)(ZEL_HANDLE);
    const struct {
        Fn fn;
        uint8_t p0;
    } named[] = {{ATECC608LockConfigHnd, 0x82},
                 {ATECC608LockDataAndOtpHnd, 0x83},
                 {SetATECC608IOSecretKeyHnd, 0x86},
                 {SetATECC608DefaultSlotsConfigurationHnd, 0x88},
                 {SetATECC608DefaultKeysConfigurationHnd, 0x89}};
    for (const auto &n : named) {
        ScriptLink l;
        l.reply(rsp(0xC7));
        EXPECT_EQ(n.fn(&l.record), ZEL_OK);
        EXPECT_EQ(l.writes, (std::vector<Bytes>{cmd(0xC7, 0, n.p0, 0)}));
    }
    ScriptLink slot;
    slot.reply(rsp(0xC7));
    EXPECT_EQ(ATECC608LockKeySlotHnd(&slot.record, 5), ZEL_OK);
    EXPECT_EQ(slot.writes[0], cmd(0xC7, 0, 0x83, 5));
}

TEST(SecureElement, KeyFrameLayout)
{
    uint8_t field[4] = {1, 2, 3, 4}, first[32], second[32];
    for (int i = 0; i < 32; ++i) {
        first[i] = static_cast<uint8_t>(0x10 + i);
        second[i] = static_cast<uint8_t>(0x80 + i);
    }
    for (int wrapped = 0; wrapped < 2; ++wrapped) {
        ScriptLink l;
        l.reply(frame(ACK, 0xC7, ACK_T));
        l.reply(rsp(0xC7));
        const ZEL_STATUS st = wrapped
                                  ? SetATECC608ECCPrivateKeyHnd(&l.record, 3, 0x55, field, first, second)
                                  : SetATECC608ECCPrivateKeyUnencryptedHnd(&l.record, 3, 0x55, field, first, second);
        EXPECT_EQ(st, ZEL_OK);
        ASSERT_EQ(l.writes.size(), 2u);
        EXPECT_EQ(l.writes[0],
                  (Bytes{0x55, 0xC7, 0xAA, 0x46, static_cast<uint8_t>(wrapped ? 0x87 : 0x85), 3,
                         checksum({0x55, 0xC7, 0xAA, 0x46, static_cast<uint8_t>(wrapped ? 0x87 : 0x85), 3})}));
        const Bytes want =
            ext(cat({{0x55}, Bytes(field, field + 4), Bytes(first, first + 32), Bytes(second, second + 32)}));
        EXPECT_EQ(want.size(), 70u);
        EXPECT_EQ(l.writes[1], want);
    }
    ScriptLink none;
    EXPECT_EQ(SetATECC608ECCPrivateKeyHnd(&none.record, 3, 0, nullptr, first, second), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(none.writes.empty());
    // An error frame after the EXT passes its code.
    ScriptLink refused;
    refused.reply(frame(ACK, 0xC7, ACK_T));
    refused.reply(frame(0xEC, 0x0F, 0xCE));
    EXPECT_EQ(SetATECC608ECCPrivateKeyUnencryptedHnd(&refused.record, 9, 0, field, first, second), 0x0Fu);
}

TEST(SecureElement, SettingsReadIsBounded)
{
    // Outs from the reply frame, data behind them.
    ScriptLink l;
    l.reply(cat(rsp(0xC8, 5, 0x8A, 0x01), ext({0x00, 0x00, 0x60, 0x02})));
    uint8_t o0 = 0, o1 = 0, buf[4] = {};
    uint32_t len = sizeof buf;
    EXPECT_EQ(GetATECC608SettingsHnd(&l.record, 0x8A, 0, &o0, &o1, buf, &len), ZEL_OK);
    EXPECT_EQ(l.writes[0], cmd(0xC8, 0, 0x8A, 0));
    EXPECT_EQ(o0, 0x8A);
    EXPECT_EQ(o1, 0x01);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x00, 0x00, 0x60, 0x02}));

    // More than the buffer: 5 and the length cleared, nothing written past it.
    ScriptLink big;
    big.reply(cat(rsp(0xC8, 6), ext({1, 2, 3, 4, 5})));
    uint8_t small[5] = {0, 0, 0, 0, 0xEE};
    len = 4;
    EXPECT_EQ(GetATECC608SettingsHnd(&big.record, 0x80, 0, nullptr, nullptr, small, &len), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(small[4], 0xEE);

    // Without a buffer the outs come from the frame; the lock status form.
    ScriptLink lock;
    lock.reply(rsp(0xC8, 0, 1, 0));
    uint8_t cfg = 9, dat = 9;
    EXPECT_EQ(GetATECC608ZonesLockStatusHnd(&lock.record, &cfg, &dat), ZEL_OK);
    EXPECT_EQ(lock.writes[0], cmd(0xC8, 0, 0x82, 0));
    EXPECT_EQ(cfg, 1);
    EXPECT_EQ(dat, 0);

    // A zone read must bring the whole zone.
    ScriptLink zone;
    zone.reply(cat(rsp(0xC8, 5), ext({1, 2, 3, 4})));
    uint8_t otp[64] = {};
    EXPECT_EQ(GetATECC608OtpZoneHnd(&zone.record, otp), ZEL_COMMUNICATION_ERROR);
}

TEST(SecureFeatures, BlocksCarryTheirCrc)
{
    ScriptLink good;
    good.reply(feature_reply({0xBE, 0xEF}));
    uint8_t buf[8] = {};
    uint32_t len = sizeof buf;
    EXPECT_EQ(GetDiscoveryLoopSetupHnd(&good.record, buf, &len), ZEL_OK);
    EXPECT_EQ(good.writes[0], cmd(0xC3, 0, 129, 0));
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(Bytes(buf, buf + 2), (Bytes{0xBE, 0xEF}));

    ScriptLink bad;
    bad.reply(feature_reply({0xBE, 0xEF}, 1));
    len = sizeof buf;
    EXPECT_EQ(GetFeaturesSetupHnd(&bad.record, 129, buf, &len), ZEL_CHKSUM_ERROR);

    // EXT_LEN above length + 2 does not fit.
    ScriptLink big;
    big.reply(feature_reply({1, 2, 3}));
    len = 2;
    EXPECT_EQ(GetFeaturesSetupHnd(&big.record, 129, buf, &len), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(len, 0u);

    // Set: data, CRC-8, checksum.
    ScriptLink set;
    set.reply(frame(ACK, 0xC4, ACK_T));
    set.reply(rsp(0xC4));
    const uint8_t loop[2] = {0xBE, 0xEF};
    EXPECT_EQ(SetDiscoveryLoopHnd(&set.record, loop, 2), ZEL_OK);
    EXPECT_EQ(set.writes, (std::vector<Bytes>{cmd(0xC4, 4, 129, 0), ext({0xBE, 0xEF, 0x92})}));
    ScriptLink refused;
    uint8_t huge[254] = {};
    EXPECT_EQ(SetFeaturesHnd(&refused.record, 129, huge, 254), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetFeaturesHnd(&refused.record, 129, nullptr, 2), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(refused.writes.empty());
}

TEST(SecureFeatures, MobileUniqueIdAid)
{
    const uint8_t aid[7] = {0xF0, 1, 2, 3, 4, 5, 6};
    ScriptLink set;
    set.reply(frame(ACK, 0xC4, ACK_T));
    set.reply(rsp(0xC4));
    EXPECT_EQ(SetMobileUniqueIdAidHnd(&set.record, aid, 7), ZEL_OK);
    Bytes block(17, 0);
    block[0] = 7;
    std::memcpy(block.data() + 1, aid, 7);
    EXPECT_EQ(set.writes, (std::vector<Bytes>{cmd(0xC4, 19, 130, 0), ext(cat(block, {crc8(block)}))}));

    ScriptLink refused;
    uint8_t long_aid[17] = {};
    EXPECT_EQ(SetMobileUniqueIdAidHnd(&refused.record, long_aid, 17), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetMobileUniqueIdAidHnd(&refused.record, long_aid, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(SetMobileUniqueIdAidHnd(&refused.record, nullptr, 4), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(refused.writes.empty());

    ScriptLink get;
    get.reply(feature_reply(block));
    uint8_t out[16] = {};
    uint32_t len = sizeof out;
    EXPECT_EQ(GetMobileUniqueIdAidHnd(&get.record, out, &len), ZEL_OK);
    EXPECT_EQ(get.writes[0], cmd(0xC3, 0, 130, 0));
    EXPECT_EQ(Bytes(out, out + len), Bytes(aid, aid + 7));

    // The caller's buffer too small: 5. A count above 16, or above what came: malformed.
    ScriptLink small;
    small.reply(feature_reply(block));
    len = 6;
    EXPECT_EQ(GetMobileUniqueIdAidHnd(&small.record, out, &len), ZEL_BUFFER_OVERFLOW);
    Bytes bad = block;
    bad[0] = 17;
    ScriptLink count;
    count.reply(feature_reply(bad));
    len = sizeof out;
    EXPECT_EQ(GetMobileUniqueIdAidHnd(&count.record, out, &len), ZEL_COMMUNICATION_ERROR);
    ScriptLink short_block;
    short_block.reply(feature_reply({9, 1, 2}));
    len = sizeof out;
    EXPECT_EQ(GetMobileUniqueIdAidHnd(&short_block.record, out, &len), ZEL_COMMUNICATION_ERROR);
}

TEST(SecureFeatures, MobileAdditionalData)
{
    ScriptLink link;
    uint8_t buf[40] = {};
    uint32_t len = 31;
    EXPECT_EQ(GetMobileAdditionalDataHnd(&link.record, buf, &len), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.writes.empty());

    ScriptLink get;
    get.reply(cat(rsp(0xC5, 4), ext({7, 8, 9})));
    len = 32;
    EXPECT_EQ(GetMobileAdditionalDataHnd(&get.record, buf, &len), ZEL_OK);
    EXPECT_EQ(get.writes[0], cmd(0xC5));
    EXPECT_EQ(Bytes(buf, buf + len), (Bytes{7, 8, 9}));

    ScriptLink big;
    big.reply(cat(rsp(0xC5, 34), ext(Bytes(33, 1))));
    len = 32;
    EXPECT_EQ(GetMobileAdditionalDataHnd(&big.record, buf, &len), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(len, 0u);
}

} // namespace
