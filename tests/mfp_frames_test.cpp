// MIFARE Plus operations on a scripted link: the frames of each key form byte for byte, the sector key
// rules, the UID reply and its bounds, the personalisation blocks and answer bytes, and the whole
// personalisation's order, card type gate, wait and deselect.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "mfp/mfp_internal.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

Bytes seq(uint8_t from, size_t n)
{
    Bytes b(n);
    for (size_t i = 0; i < n; ++i)
        b[i] = static_cast<uint8_t>(from + i);
    return b;
}

const Bytes OLD = seq(0x10, 16);
const Bytes NEW = seq(0x40, 16);

// A 0x6B exchange answered with success: the command frame and the EXT the host sent.
struct Sent {
    ZEL_STATUS status;
    Bytes frame, ext;
};

template <typename F> Sent exchange(uint8_t code, uint8_t ext_len, F call)
{
    ScriptLink link;
    link.reply(ack(code, ext_len));
    link.reply(rsp(code));
    Sent s{call(&link.record), {}, {}};
    if (link.writes.size() == 2) {
        s.frame = link.writes[0];
        s.ext = link.writes[1];
    }
    return s;
}

// The EXT of a key write: target, data, authenticator, then the tail of the key form.
Bytes key_ext(uint16_t target, const Bytes &data, uint16_t authenticator, const Bytes &tail)
{
    return ext(cat({le16(target), data, le16(authenticator), tail}));
}

TEST(MfpKeyWrites, CardKeysInEachForm)
{
    struct Case {
        const char *what;
        Sent sent;
        uint8_t ext_len, p0, p1;
        Bytes ext;
    } cases[] = {
        {"master key, reader key 5",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeMasterKeyM(h, 5, NEW.data()); }), 0x15, 0x00, 5,
         key_ext(0x9000, NEW, 0x9000, {})},
        {"master key, SAM entries 3 and 9",
         exchange(0x6B, 0x16, [](ZEL_HANDLE h) { return MFP_ChangeMasterKeySamKeyM(h, 3, 9); }), 0x16, 0x10, 3,
         key_ext(0x9000, Bytes(16, 0), 0x9000, {9})},
        {"master key, provided",
         exchange(0x6B, 0x25, [](ZEL_HANDLE h) { return MFP_ChangeMasterKey_PKM(h, OLD.data(), NEW.data()); }), 0x25,
         0x80, 0, key_ext(0x9000, NEW, 0x9000, OLD)},
        {"configuration key, reader key",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeConfigurationKeyM(h, 1, NEW.data()); }), 0x15, 0, 1,
         key_ext(0x9001, NEW, 0x9001, {})},
        {"configuration key, SAM",
         exchange(0x6B, 0x16, [](ZEL_HANDLE h) { return MFP_ChangeConfigurationKeySamKeyM(h, 2, 4); }), 0x16, 0x10, 2,
         key_ext(0x9001, Bytes(16, 0), 0x9001, {4})},
        {"VC polling encryption key through the configuration key",
         exchange(0x6B, 0x25, [](ZEL_HANDLE h) { return MFP_ChangeVcPollingEncKey_PKM(h, OLD.data(), NEW.data()); }),
         0x25, 0x80, 0, key_ext(0xA080, NEW, 0x9001, OLD)},
        {"VC polling MAC key, reader key",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeVcPollingMacKeyM(h, 7, NEW.data()); }), 0x15, 0, 7,
         key_ext(0xA081, NEW, 0x9001, {})},
        {"VC polling encryption key, SAM",
         exchange(0x6B, 0x16, [](ZEL_HANDLE h) { return MFP_ChangeVcPollingEncKeySamKeyM(h, 6, 8); }), 0x16, 0x10, 6,
         key_ext(0xA080, Bytes(16, 0), 0x9001, {8})},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.sent.status, ZEL_OK) << c.what;
        EXPECT_EQ(c.sent.frame, cmd(0x6B, c.ext_len, c.p0, c.p1)) << c.what;
        EXPECT_EQ(c.sent.ext, c.ext) << c.what;
    }
}

TEST(MfpKeyWrites, FieldConfigurationBytes)
{
    // False then true: 0x55 and 0xAA in data bytes 1 and 2, that is EXT bytes 3 and 4.
    Bytes data(16, 0);
    data[1] = 0x55;
    data[2] = 0xAA;
    const Sent r = exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_FieldConfigurationSetM(h, 2, 0, 1); });
    EXPECT_EQ(r.frame, cmd(0x6B, 0x15, 0, 2));
    EXPECT_EQ(r.ext, key_ext(0xB003, data, 0x9001, {}));
    EXPECT_EQ(r.ext[3], 0x55);
    EXPECT_EQ(r.ext[4], 0xAA);

    data[1] = 0xAA;
    data[2] = 0x55;
    const Sent p =
        exchange(0x6B, 0x25, [](ZEL_HANDLE h) { return MFP_FieldConfigurationSet_PKM(h, OLD.data(), 7, 0); });
    EXPECT_EQ(p.frame, cmd(0x6B, 0x25, 0x80, 0));
    EXPECT_EQ(p.ext, key_ext(0xB003, data, 0x9001, OLD));

    // Through the SAM the configuration data still travel; no new key entry.
    const Sent s = exchange(0x6B, 0x16, [](ZEL_HANDLE h) { return MFP_FieldConfigurationSetSamKeyM(h, 4, 1, 0); });
    EXPECT_EQ(s.frame, cmd(0x6B, 0x16, 0x10, 4));
    EXPECT_EQ(s.ext, key_ext(0xB003, data, 0x9001, {0}));
}

TEST(MfpSectorKeys, TargetsAndAuthenticatorsByForm)
{
    // Sector 0 key A 0x4000, key B 0x4001; sector 39 key A 0x404E.
    EXPECT_EQ(zel::mfp::sector_key_a(0), 0x4000);
    EXPECT_EQ(zel::mfp::sector_key_b(0), 0x4001);
    EXPECT_EQ(zel::mfp::sector_key_a(39), 0x404E);
    EXPECT_EQ(MFP_SECTOR_KEY_B(39), 0x404F);

    struct Case {
        const char *what;
        Sent sent;
        uint8_t ext_len, p0, p1;
        Bytes ext;
    } cases[] = {
        {"0x60 sends PAR0 0, authenticates with key B and writes key B",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeSectorKeyM(h, 0, 0x60, 4, NEW.data()); }), 0x15, 0, 4,
         key_ext(0x4001, NEW, 0x4001, {})},
        {"0x61 sends PAR0 1",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeSectorKeyM(h, 2, 0x61, 4, NEW.data()); }), 0x15, 1, 4,
         key_ext(0x4005, NEW, 0x4005, {})},
        {"selector 1 writes key A, still through key B",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeSectorExtKeyM(h, 39, 0x60, 0, NEW.data(), 1); }),
         0x15, 0, 0, key_ext(0x404E, NEW, 0x404F, {})},
        {"selector 2 of the reader form is key B",
         exchange(0x6B, 0x15, [](ZEL_HANDLE h) { return MFP_ChangeSectorExtKeyM(h, 1, 0x60, 0, NEW.data(), 2); }), 0x15,
         0, 0, key_ext(0x4003, NEW, 0x4003, {})},
        {"SAM 0x61: PAR0 0x11, the new key's entry at the end",
         exchange(0x6B, 0x16, [](ZEL_HANDLE h) { return MFP_ChangeSectorKeySamKeyM(h, 3, 0x61, 2, 12); }), 0x16, 0x11,
         2, key_ext(0x4007, Bytes(16, 0), 0x4007, {12})},
        {"SAM selector 1",
         exchange(0x6B, 0x16, [](ZEL_HANDLE h) { return MFP_ChangeSectorKeySamExtKeyM(h, 3, 0x60, 2, 12, 1); }), 0x16,
         0x10, 2, key_ext(0x4006, Bytes(16, 0), 0x4007, {12})},
        {"provided 0x80, selector 0: key A through key A",
         exchange(0x6B, 0x25, [](ZEL_HANDLE h) { return MFP_ChangeSectorKey_PKM(h, 5, 0x80, OLD.data(), NEW.data()); }),
         0x25, 0x80, 0, key_ext(0x400A, NEW, 0x400A, OLD)},
        {"provided 0x81, selector 0: key B through key B, PAR0 0x81",
         exchange(0x6B, 0x25, [](ZEL_HANDLE h) { return MFP_ChangeSectorKey_PKM(h, 5, 0x81, OLD.data(), NEW.data()); }),
         0x25, 0x81, 0, key_ext(0x400B, NEW, 0x400B, OLD)},
        {"provided 0x80, selector 2: key B through key A",
         exchange(0x6B, 0x25,
                  [](ZEL_HANDLE h) { return MFP_ChangeSectorKeyExt_PKM(h, 5, 0x80, OLD.data(), NEW.data(), 2); }),
         0x25, 0x80, 0, key_ext(0x400B, NEW, 0x400A, OLD)},
        {"provided 0x81, selector 1: key A through key B",
         exchange(0x6B, 0x25,
                  [](ZEL_HANDLE h) { return MFP_ChangeSectorKeyExt_PKM(h, 5, 0x81, OLD.data(), NEW.data(), 1); }),
         0x25, 0x81, 0, key_ext(0x400A, NEW, 0x400B, OLD)},
        {"provided 0x81, selector 7: the authenticating key",
         exchange(0x6B, 0x25,
                  [](ZEL_HANDLE h) { return MFP_ChangeSectorKeyExt_PKM(h, 5, 0x81, OLD.data(), NEW.data(), 7); }),
         0x25, 0x81, 0, key_ext(0x400B, NEW, 0x400B, OLD)},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.sent.status, ZEL_OK) << c.what;
        EXPECT_EQ(c.sent.frame, cmd(0x6B, c.ext_len, c.p0, c.p1)) << c.what;
        EXPECT_EQ(c.sent.ext, c.ext) << c.what;
    }
}

TEST(MfpSectorKeys, AuthModesOfTheOtherFormAreRefusedBeforeSending)
{
    ScriptLink link;
    EXPECT_EQ(MFP_ChangeSectorKeyM(&link.record, 1, 0x80, 0, NEW.data()), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_ChangeSectorExtKeyM(&link.record, 1, 0x02, 0, NEW.data(), 1), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_ChangeSectorKeySamKeyM(&link.record, 1, 0x81, 0, 1), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_ChangeSectorKey_PKM(&link.record, 1, 0x60, OLD.data(), NEW.data()), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_ChangeSectorKeyExt_PKM(&link.record, 1, 0x61, OLD.data(), NEW.data(), 0), ZEL_PARAMETERS_ERROR);
    // Missing keys are refused as well.
    EXPECT_EQ(MFP_ChangeSectorKey_PKM(&link.record, 1, 0x80, nullptr, NEW.data()), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_ChangeMasterKeyM(&link.record, 1, nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_SwitchToSecurityLevel3_PKM(&link.record, nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.sent.empty());
}

TEST(MfpKeyBlockAuth, ReaderAndProvidedForms)
{
    const Sent l3 = exchange(0x6A, 3, [](ZEL_HANDLE h) { return MFP_SwitchToSecurityLevel3M(h, 9); });
    EXPECT_EQ(l3.frame, cmd(0x6A, 3, 0, 9));
    EXPECT_EQ(l3.ext, ext({0x03, 0x90}));
    const Sent l3pk = exchange(0x6A, 0x13, [](ZEL_HANDLE h) { return MFP_SwitchToSecurityLevel3_PKM(h, OLD.data()); });
    EXPECT_EQ(l3pk.frame, cmd(0x6A, 0x13, 0x80, 0));
    EXPECT_EQ(l3pk.ext, ext(cat({0x03, 0x90}, OLD)));
    const Sent l1 = exchange(0x6A, 3, [](ZEL_HANDLE h) { return MFP_AesAuthSecurityLevel1M(h, 2); });
    EXPECT_EQ(l1.ext, ext({0x04, 0x90}));
    const Sent l1pk = exchange(0x6A, 0x13, [](ZEL_HANDLE h) { return MFP_AesAuthSecurityLevel1_PKM(h, NEW.data()); });
    EXPECT_EQ(l1pk.ext, ext(cat({0x04, 0x90}, NEW)));
    // The reader's refusal comes back as it is.
    ScriptLink link;
    link.reply(ack(0x6A, 3));
    link.reply(err(14));
    EXPECT_EQ(MFP_SwitchToSecurityLevel3M(&link.record, 0), ZEL_AUTH_ERROR);
}

// The UID exchange with the reply EXT given: status, UID and its length.
struct UidResult {
    ZEL_STATUS status;
    Bytes frame, ext, uid;
    uint8_t len;
};

template <typename F> UidResult uid_exchange(uint8_t ext_len, const Bytes &reply_ext, F call)
{
    ScriptLink link;
    link.reply(ack(0x6C, ext_len));
    link.reply(cat(rsp(0x6C, static_cast<uint8_t>(reply_ext.size() + 1)), ext(reply_ext)));
    uint8_t uid[10];
    std::memset(uid, 0xEE, sizeof uid);
    uint8_t len = 0xEE;
    UidResult r{call(&link.record, uid, &len), {}, {}, Bytes(uid, uid + 10), len};
    if (link.writes.size() == 2) {
        r.frame = link.writes[0];
        r.ext = link.writes[1];
    }
    return r;
}

TEST(MfpUid, FramesOfEachForm)
{
    const Bytes seven = {7, 0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    const Bytes uid7 = {0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    struct Case {
        const char *what;
        UidResult r;
        uint8_t ext_len, p0, p1;
        Bytes sent;
    } cases[] = {
        {"two reader keys",
         uid_exchange(3, seven, [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_GetUidM(h, 4, 5, u, l); }),
         3,
         0,
         0,
         {4, 5}},
        {"Ev: one key, the second sent as zero",
         uid_exchange(3, seven, [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_EvGetUidM(h, 4, u, l); }),
         3,
         0,
         1,
         {4, 0}},
        {"SAM",
         uid_exchange(3, seven, [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_GetUidSamKeyM(h, 1, 2, u, l); }),
         3,
         0x10,
         0,
         {1, 2}},
        {"SAM under its other name",
         uid_exchange(3, seven, [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_GetUidSamM(h, 1, 2, u, l); }),
         3,
         0x10,
         0,
         {1, 2}},
        {"Ev SAM under its other name",
         uid_exchange(3, seven, [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_EvGetUidSamM(h, 6, u, l); }),
         3,
         0x10,
         1,
         {6, 0}},
        {"two provided keys",
         uid_exchange(
             0x21, seven,
             [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_GetUid_PKM(h, OLD.data(), NEW.data(), u, l); }),
         0x21, 0x80, 0, cat(OLD, NEW)},
        {"Ev provided key",
         uid_exchange(0x21, seven,
                      [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_EvGetUid_PKM(h, OLD.data(), u, l); }),
         0x21, 0x80, 1, cat(OLD, Bytes(16, 0))},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(c.r.status, ZEL_OK) << c.what;
        EXPECT_EQ(c.r.frame, cmd(0x6C, c.ext_len, c.p0, c.p1)) << c.what;
        EXPECT_EQ(c.r.ext, ext(c.sent)) << c.what;
        EXPECT_EQ(c.r.len, 7) << c.what;
        EXPECT_EQ(Bytes(c.r.uid.begin(), c.r.uid.begin() + 7), uid7) << c.what;
        EXPECT_EQ(c.r.uid[7], 0xEE) << c.what << ": nothing beyond the UID is touched";
    }
}

TEST(MfpUid, LengthRulesAndBounds)
{
    auto get = [](const Bytes &reply) {
        return uid_exchange(3, reply, [](ZEL_HANDLE h, uint8_t *u, uint8_t *l) { return MFP_GetUidM(h, 0, 0, u, l); });
    };
    // A length that disagrees with the EXT: the UID is delivered, the status is 15.
    const UidResult shorter = get({4, 1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(shorter.status, ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(shorter.len, 4);
    EXPECT_EQ(Bytes(shorter.uid.begin(), shorter.uid.begin() + 5), (Bytes{1, 2, 3, 4, 0xEE}));
    // A length beyond what came: the missing bytes are zero, never read past the reply.
    const UidResult longer = get({7, 0xA1, 0xA2});
    EXPECT_EQ(longer.status, ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(longer.len, 7);
    EXPECT_EQ(Bytes(longer.uid.begin(), longer.uid.begin() + 8), (Bytes{0xA1, 0xA2, 0, 0, 0, 0, 0, 0xEE}));
    // Above ten bytes nothing fits the caller's buffer.
    const UidResult huge = get(cat({11}, seq(1, 11)));
    EXPECT_EQ(huge.status, ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(huge.uid, Bytes(10, 0xEE));
    EXPECT_EQ(huge.len, 0xEE);
    // Ten bytes are the most, and fit.
    const UidResult ten = get(cat({10}, seq(0x30, 10)));
    EXPECT_EQ(ten.status, ZEL_OK);
    EXPECT_EQ(ten.uid, seq(0x30, 10));

    // A reply without a length byte is malformed.
    uint8_t uid[10], len = 0;
    const uint8_t only_checksum[1] = {7};
    EXPECT_EQ(zel::mfp::uid_reply(only_checksum, 1, uid, &len), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(zel::mfp::uid_reply(only_checksum, 0, uid, &len), ZEL_COMMUNICATION_ERROR);
    // Length 0 with nothing behind it is a well-formed empty UID.
    const uint8_t empty[2] = {0, 7};
    EXPECT_EQ(zel::mfp::uid_reply(empty, 2, uid, &len), ZEL_OK);
    EXPECT_EQ(len, 0);

    ScriptLink link;
    EXPECT_EQ(MFP_GetUidM(&link.record, 0, 0, nullptr, &len), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(MFP_EvGetUid_PKM(&link.record, OLD.data(), uid, nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.sent.empty());
}

// The reply to an I-block: status, chained flag, the card's block.
Bytes block_reply(const Bytes &blk)
{
    return cat(rsp(0x90, static_cast<uint8_t>(6 + blk.size() + 1)),
               ext(cat({le32(0), {0, static_cast<uint8_t>(blk.size())}, blk})));
}

TEST(MfpPerso, WriteAndCommitBlocks)
{
    {
        ScriptLink link;
        link.reply(ack(0x90, 20));
        link.reply(block_reply({0x02, 0x90}));
        ASSERT_EQ(MFP_WritePersoM(&link.record, 0xA081, NEW.data()), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0x90, 20, 0x04, 100));
        EXPECT_EQ(link.writes[1], ext(cat({0xA8, 0x81, 0xA0}, NEW)));
    }
    {
        ScriptLink link;
        link.reply(ack(0x90, 2));
        link.reply(block_reply({0x03, 0x90}));
        ASSERT_EQ(MFP_CommitPersoM(&link.record), ZEL_OK);
        EXPECT_EQ(link.writes[0], cmd(0x90, 2, 0x04, 250));
        EXPECT_EQ(link.writes[1], ext({0xAA}));
    }
    // A reply of another length than two fails, whatever it says.
    for (const Bytes &blk : {Bytes{0x02}, Bytes{0x02, 0x90, 0x00}, Bytes{}}) {
        ScriptLink link;
        link.reply(ack(0x90, 2));
        link.reply(block_reply(blk));
        EXPECT_EQ(MFP_CommitPersoM(&link.record), ZEL_COMMAND_FAILED) << blk.size();
    }
    ScriptLink link;
    EXPECT_EQ(MFP_WritePersoM(&link.record, 0x9000, nullptr), ZEL_PARAMETERS_ERROR);
    EXPECT_TRUE(link.sent.empty());
}

TEST(MfpPerso, AnswerBytesMapToStatuses)
{
    const struct {
        uint8_t answer;
        ZEL_STATUS status;
    } table[] = {
        {0x90, ZEL_OK},
        {6, ZEL_AUTH_ERROR},
        {7, ZEL_MFP_COMMAND_OVERFLOW},
        {8, ZEL_MFP_INVALID_MAC},
        {9, ZEL_MFP_INVALID_BLOCK_NR},
        {10, ZEL_MFP_NOT_EXIST_BLOCK_NR},
        {11, ZEL_MFP_COND_OF_USE_ERROR},
        {12, ZEL_MFP_LENGTH_ERROR},
        {15, ZEL_MFP_GENERAL_MANIP_ERROR},
        {0, ZEL_COMMAND_FAILED},
        {13, ZEL_COMMAND_FAILED},
        {0x91, ZEL_COMMAND_FAILED},
    };
    for (const auto &t : table) {
        EXPECT_EQ(zel::mfp::error_code(t.answer), t.status) << int(t.answer);
        // And through a write, where the card's answer is the block's second byte.
        ScriptLink link;
        link.reply(ack(0x90, 20));
        link.reply(block_reply({0x02, t.answer}));
        EXPECT_EQ(MFP_WritePersoM(&link.record, 0x9000, NEW.data()), t.status) << int(t.answer);
    }
}

std::vector<uint32_t> g_sleeps;
void record_sleep(uint32_t ms)
{
    g_sleeps.push_back(ms);
}

class MfpPersonalization : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_sleeps.clear();
        zel::set_sleep_hook(record_sleep);
        std::memcpy(static_cast<void *>(&saved_), &zel_global, sizeof saved_);
        for (int i = 0; i < 9; ++i)
            keys_[i] = seq(static_cast<uint8_t>(0x10 * (i + 1)), 16);
    }
    void TearDown() override
    {
        zel::set_sleep_hook(nullptr);
        std::memcpy(static_cast<void *>(&zel_global), &saved_, sizeof saved_);
    }
    ZEL_STATUS run(ZEL_HANDLE h)
    {
        return MFP_PersonalizationMinimalM(h, keys_[0].data(), keys_[1].data(), keys_[2].data(), keys_[3].data(),
                                           keys_[4].data(), keys_[5].data(), keys_[6].data(), keys_[7].data(),
                                           keys_[8].data());
    }
    // Scripts the card type, the level 4 start and n perso writes and the commit answered with answer.
    static void script(ScriptLink &link, uint8_t type, int writes, uint8_t last_answer = 0x90)
    {
        link.reply(rsp(0x3C, 0, type));
        link.reply(rsp(0x93));
        for (int i = 0; i < writes; ++i) {
            link.reply(ack(0x90, 20));
            link.reply(block_reply({0x02, i + 1 == writes ? last_answer : uint8_t{0x90}}));
        }
    }
    // The perso write addresses among what was sent.
    static std::vector<uint16_t> written(const ScriptLink &link)
    {
        std::vector<uint16_t> out;
        for (const Bytes &w : link.writes)
            if (w.size() == 20 && w[0] == 0xA8)
                out.push_back(static_cast<uint16_t>(w[1] | w[2] << 8));
        return out;
    }
    Bytes keys_[9];
    zel_handle_record saved_;
};

TEST_F(MfpPersonalization, SmallCardsSkipTheLevel2AndVcSelectKeys)
{
    ScriptLink link;
    std::memcpy(static_cast<void *>(&zel_global), &link.record,
                sizeof link.record); // the global handle is this reader too
    script(link, 0x23, 6);
    link.reply(ack(0x90, 2));
    link.reply(block_reply({0x02, 0x90}));
    link.reply(rsp(0x92));
    ASSERT_EQ(run(&link.record), ZEL_OK);
    EXPECT_EQ(written(link), (std::vector<uint16_t>{0x9000, 0x9001, 0x9003, 0x9004, 0xA080, 0xA081}));
    // Each key goes to its own block.
    EXPECT_EQ(link.writes[3], ext(cat({0xA8, 0x00, 0x90}, keys_[0])));
    EXPECT_EQ(link.writes[7], ext(cat({0xA8, 0x03, 0x90}, keys_[3])));
    EXPECT_EQ(link.writes[9], ext(cat({0xA8, 0x04, 0x90}, keys_[4])));
    EXPECT_EQ(link.writes[2], cmd(0x90, 20, 0x04, 100));
    EXPECT_EQ(link.writes[0], cmd(0x3C));
    EXPECT_EQ(link.writes[1], cmd(0x93));
    EXPECT_EQ(link.writes[link.writes.size() - 2], ext({0xAA}));
    EXPECT_EQ(link.writes.back(), cmd(0x92, 0, 0, 100));
    EXPECT_EQ(g_sleeps, (std::vector<uint32_t>{2000}));
}

TEST_F(MfpPersonalization, FullKeySetOnXCards)
{
    ScriptLink link;
    std::memcpy(static_cast<void *>(&zel_global), &link.record, sizeof link.record);
    script(link, 0x26, 9);
    link.reply(ack(0x90, 2));
    link.reply(block_reply({0x02, 0x90}));
    link.reply(rsp(0x92));
    ASSERT_EQ(run(&link.record), ZEL_OK);
    EXPECT_EQ(written(link),
              (std::vector<uint16_t>{0x9000, 0x9001, 0x9002, 0x9003, 0x9004, 0xA000, 0xA001, 0xA080, 0xA081}));
    EXPECT_EQ(link.writes[2 + 2 * 6 + 1], ext(cat({0xA8, 0x01, 0xA0}, keys_[6])));
}

TEST_F(MfpPersonalization, CardTypeGate)
{
    for (uint8_t type : {0x23, 0x24, 0x25, 0x26, 0x3C, 0x43, 0x44, 0x48, 0x4B})
        EXPECT_TRUE(zel::mfp::perso_card_type(type)) << int(type);
    for (uint8_t type : {0x00, 0x21, 0x22, 0x27, 0x2E, 0x36, 0x3D, 0x45, 0x49})
        EXPECT_FALSE(zel::mfp::perso_card_type(type)) << int(type);

    ScriptLink link;
    link.reply(rsp(0x3C, 0, 0x36)); // the same card at level 1
    EXPECT_EQ(run(&link.record), ZEL_UNSUPPORTED_CARD_TYPE);
    EXPECT_EQ(link.writes.size(), 1u);
    EXPECT_TRUE(g_sleeps.empty());
    // A failed type query is returned as it is; a failed level 4 start too.
    ScriptLink none;
    none.reply(err(8));
    EXPECT_EQ(run(&none.record), ZEL_NO_CARD);
    ScriptLink l4;
    l4.reply(rsp(0x3C, 0, 0x25));
    l4.reply(err(8));
    EXPECT_EQ(run(&l4.record), ZEL_NO_CARD);
    EXPECT_EQ(l4.writes.size(), 2u);
    // Missing keys are refused before the card is touched.
    EXPECT_EQ(MFP_PersonalizationMinimalM(&link.record, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                          nullptr, nullptr),
              ZEL_PARAMETERS_ERROR);
}

TEST_F(MfpPersonalization, FailedWriteDeselectsAtOnceOnTheGlobalHandle)
{
    ScriptLink link;
    std::memcpy(static_cast<void *>(&zel_global), &link.record, sizeof link.record);
    script(link, 0x26, 3, 0x09); // the third write is refused
    link.reply(rsp(0x92));
    EXPECT_EQ(run(&link.record), ZEL_MFP_INVALID_BLOCK_NR);
    EXPECT_EQ(written(link), (std::vector<uint16_t>{0x9000, 0x9001, 0x9002}));
    EXPECT_EQ(link.writes.back(), cmd(0x92, 0, 0, 100)) << "no commit, the deselect at once";
    EXPECT_TRUE(g_sleeps.empty());
}

TEST_F(MfpPersonalization, DeselectGoesToTheGlobalHandleNotTheCallers)
{
    // The global handle is not open: the caller's reader sees no deselect, and the commit's status stands.
    zel_handle_record closed;
    zel_handle_init(&closed);
    std::memcpy(static_cast<void *>(&zel_global), &closed, sizeof closed);
    ScriptLink link;
    script(link, 0x23, 6);
    link.reply(ack(0x90, 2));
    link.reply(block_reply({0x02, 0x0C})); // the commit is refused
    EXPECT_EQ(run(&link.record), ZEL_MFP_LENGTH_ERROR);
    EXPECT_EQ(link.writes.back(), ext({0xAA}));
    EXPECT_EQ(g_sleeps, (std::vector<uint32_t>{2000})) << "the wait follows the commit whatever it answered";
}

} // namespace
