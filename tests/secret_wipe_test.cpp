// Keys and passwords that reader commands copy onto the stack are wiped before the command returns: after each
// command, whatever its outcome, no copy of the secret is left in the stack below its caller.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "core/internal.h"
#include "script_link.h"
#include "tandro.h"

using namespace zeltest;

namespace {

constexpr size_t kDepth = 48 * 1024;

// Secrets nobody else puts on the stack: a reader password, a memory card key, a 16-byte key, a tag password.
const uint8_t kPassword[8] = {0xA7, 0x3C, 0x91, 0x5E, 0xD2, 0x48, 0x6B, 0xF0};
const uint8_t kKey6[6] = {0x5D, 0xE1, 0x07, 0xB9, 0x62, 0xC4};
const uint8_t kKey16[24] = {0x1F, 0x8A, 0xC3, 0x74, 0xE5, 0x26, 0x97, 0x38, 0xD9, 0x4A, 0xBB, 0x0C,
                            0x6D, 0xFE, 0x2F, 0x90, 0x31, 0xA2, 0x53, 0xC4, 0x75, 0xE6, 0x17, 0x88};
const uint8_t kNewKey16[16] = {0xC9, 0x12, 0x5B, 0xA4, 0xED, 0x36, 0x7F, 0xC8,
                               0x01, 0x4A, 0x93, 0xDC, 0x25, 0x6E, 0xB7, 0x00};
const uint8_t kPwd4[4] = {0xE3, 0x5A, 0x9C, 0x27};

struct Secret {
    const uint8_t *bytes;
    size_t len;
};
const Secret kSecrets[] = {{kPassword, 8}, {kKey6, 6}, {kKey16, 8}, {kKey16 + 16, 8}, {kNewKey16, 8}, {kPwd4, 4}};

// Zeroes the stack the command will use, so that nothing of an earlier test is found.
__attribute__((noinline)) void clear_stack()
{
    volatile uint8_t pad[kDepth + 4096];
    for (size_t i = 0; i < sizeof pad; ++i)
        pad[i] = 0;
}

// Runs the command a kilobyte below this frame, out of reach of the search's own frame.
__attribute__((noinline)) void run_below(const std::function<void()> &command)
{
    volatile uint8_t gap[1024];
    gap[0] = 1;
    command();
    gap[sizeof gap - 1] = gap[0];
}

// The first secret found in the stack below this frame, or -1.
__attribute__((noinline, no_sanitize("address"))) int secret_left()
{
    const volatile uint8_t *top = static_cast<const volatile uint8_t *>(__builtin_frame_address(0));
    const volatile uint8_t *bottom = top - kDepth;
    for (int s = 0; s < static_cast<int>(sizeof kSecrets / sizeof kSecrets[0]); ++s) {
        const Secret &secret = kSecrets[s];
        for (const volatile uint8_t *p = bottom; p + secret.len <= top; ++p) {
            size_t i = 0;
            while (i < secret.len && p[i] == secret.bytes[i])
                ++i;
            if (i == secret.len)
                return s;
        }
    }
    return -1;
}

struct Case {
    const char *name;
    uint8_t code; // the command the scripted reader answers
    std::function<void(ZEL_HANDLE)> run;
};

class SecretWipe : public ::testing::Test {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t) {});
    }
    void TearDown() override { zel::set_sleep_hook(nullptr); }

    // Runs each case against a reader that acknowledges and answers, and one that acknowledges and then
    // falls silent, and looks for the secrets after each.
    void check(const std::vector<Case> &cases)
    {
        for (const Case &c : cases) {
            for (const bool answers : {true, false}) {
                ScriptLink link;
                link.reply(ack(c.code, 32));
                if (answers)
                    link.reply(rsp(c.code));
                clear_stack();
                run_below([&] { c.run(&link.record); });
                const int left = secret_left();
                EXPECT_EQ(left, -1) << c.name << (answers ? "" : " (silent reader)") << ": secret " << left;
                // The secret did go out to the reader, so the search had something to find.
                EXPECT_FALSE(link.sent.empty()) << c.name;
            }
        }
    }
};

TEST_F(SecretWipe, ReaderConfiguration)
{
    check({
        {"ReaderKeyWrite", 0x12, [](ZEL_HANDLE h) { ReaderKeyWriteHnd(h, kKey6, 3); }},
        {"ReaderKeysLock", 0x27, [](ZEL_HANDLE h) { ReaderKeysLockHnd(h, kPassword); }},
        {"ChangeReaderPassword", 0x33, [](ZEL_HANDLE h) { ChangeReaderPasswordHnd(h, kPassword, kKey16); }},
        {"ReaderEepromWrite", 0x35,
         [](ZEL_HANDLE h) {
             const uint8_t data[2] = {1, 2};
             ReaderEepromWriteHnd(h, data, 0x10, 2, kPassword);
         }},
        {"SetReaderTime", 0x32,
         [](ZEL_HANDLE h) {
             const uint8_t time[6] = {24, 1, 2, 3, 4, 5};
             SetReaderTimeHnd(h, kPassword, time);
         }},
        {"ChangeReaderJobId", 0x36, [](ZEL_HANDLE h) { ChangeReaderJobIdHnd(h, 7, kPassword); }},
        {"BusAdminCardMake", 0xFD, [](ZEL_HANDLE h) { BusAdminCardMakeHnd(h, 0x123456, kPassword); }},
        {"EE_Lock", 0xE1, [](ZEL_HANDLE h) { EE_LockHnd(h, kPassword, 1); }},
        {"EE_Password_Change", 0xE0, [](ZEL_HANDLE h) { EE_Password_ChangeHnd(h, kPassword, kKey16); }},
        {"WriteSamUnlockKey", 0xE3, [](ZEL_HANDLE h) { WriteSamUnlockKeyHnd(h, 1, 2, kNewKey16); }},
        {"ReaderKeyWrite routed", 0xE3,
         [](ZEL_HANDLE h) {
             h->ee_route = 1;
             ReaderKeyWriteHnd(h, kKey6, 3);
         }},
    });
}

TEST_F(SecretWipe, MemoryCardsAndTags)
{
    check({
        {"BlockRead_PK", 0x16,
         [](ZEL_HANDLE h) {
             uint8_t data[16];
             BlockRead_PKHnd(h, data, 4, 0x60, kKey6);
         }},
        {"BlockWrite_PK", 0x17,
         [](ZEL_HANDLE h) {
             const uint8_t data[16] = {};
             BlockWrite_PKHnd(h, data, 4, 0x60, kKey6);
         }},
        {"LinearRead_PK", 0x14,
         [](ZEL_HANDLE h) {
             uint8_t data[32];
             uint16_t got = 0;
             LinearRead_PKHnd(h, data, 0, 32, &got, 0x60, kKey6);
         }},
        {"LinearWrite_PK", 0x15,
         [](ZEL_HANDLE h) {
             const uint8_t data[32] = {};
             uint16_t put = 0;
             LinearWrite_PKHnd(h, data, 0, 32, &put, 0x60, kKey6);
         }},
        {"ValueBlockRead_PK", 0x1D,
         [](ZEL_HANDLE h) {
             int32_t value = 0;
             uint8_t addr = 0;
             ValueBlockRead_PKHnd(h, &value, &addr, 5, 0x60, kKey6);
         }},
        {"SectorTrailerWrite_PK", 0x1A,
         [](ZEL_HANDLE h) { SectorTrailerWrite_PKHnd(h, 0, 7, kNewKey16, 0, 0, 0, 1, 0x69, kNewKey16, 0x80, kKey16); }},
        {"LinearFormatCard_PK", 0x25,
         [](ZEL_HANDLE h) {
             uint8_t formatted = 0;
             LinearFormatCard_PKHnd(h, kNewKey16, 0, 1, 0x69, kNewKey16, &formatted, 0x80, kKey16);
         }},
        {"T2T_PwdAuth_PK", 0xB7,
         [](ZEL_HANDLE h) {
             uint8_t pack[2];
             T2T_PwdAuth_PKHnd(h, kPwd4, pack);
         }},
        {"MifareAuthKeyA_PK", 0xB7, [](ZEL_HANDLE h) { MifareAuthKeyA_PKHnd(h, 4, kKey6); }},
        {"UlcAuth_PK", 0xB7, [](ZEL_HANDLE h) { UlcAuth_PKHnd(h, kKey16); }},
        {"ReadNFCCounterPwdAuth_PK", 0xB1,
         [](ZEL_HANDLE h) {
             uint32_t value = 0;
             ReadNFCCounterPwdAuth_PKHnd(h, &value, kKey6);
         }},
        {"ReadECCSignatureNtagDna", 0xBF,
         [](ZEL_HANDLE h) {
             uint8_t sig[64], len = 0;
             ReadECCSignatureNtagDnaHnd(h, 0, 0, kKey16, 0, sig, &len);
         }},
        {"RidUid", 0xB6,
         [](ZEL_HANDLE h) {
             uint8_t reply[16];
             RidUidHnd(h, kKey16, 0, 0, 0, reply);
         }},
        {"icode_write_password_PK", 0xB5, [](ZEL_HANDLE h) { icode_write_password_PKHnd(h, 1, kPwd4, kKey6); }},
        {"icode_protect_page_PK", 0xB5, [](ZEL_HANDLE h) { icode_protect_page_PKHnd(h, kPwd4, kKey6, 3, 1, 1, 0, 0); }},
    });
}

TEST_F(SecretWipe, Desfire)
{
    check({
        {"FormatCard_PK", 0x8C,
         [](ZEL_HANDLE h) {
             uint16_t cs = 0, et = 0;
             Zel_int_DesfireFormatCard_aes_PKHnd(h, kKey16, &cs, &et);
         }},
        {"FormatCard_3k3des_PK", 0x8C,
         [](ZEL_HANDLE h) {
             uint16_t cs = 0, et = 0;
             Zel_int_DesfireFormatCard_3k3des_PKHnd(h, kKey16, &cs, &et);
         }},
        {"CreateTransMacFile_PK", 0xC2,
         [](ZEL_HANDLE h) {
             uint16_t cs = 0, et = 0;
             Zel_int_DesfireCreateTransMacFile_aes_PKHnd(h, kKey16, 0x112233, 1, 1, 2, 0, 3, kNewKey16, &cs, &et);
         }},
        {"ChangeAesKey_PK", 0x86,
         [](ZEL_HANDLE h) {
             uint16_t cs = 0, et = 0;
             Zel_int_DesfireChangeAesKey_PKHnd(h, kKey16, 0x112233, 0, kNewKey16, 1, kKey16 + 8, &cs, &et);
         }},
        {"ChangeMasterKey_PK", 0x86,
         [](ZEL_HANDLE h) {
             uint16_t cs = 0, et = 0;
             Zel_int_DesfireChangeMasterKey_PKHnd(h, kKey16, 0, kNewKey16, 2, &cs, &et);
         }},
        {"WriteAesKey", 0x8E, [](ZEL_HANDLE h) { Zel_int_DesfireWriteAesKeyHnd(h, 3, kNewKey16); }},
        {"GetDesfireUid_PK", 0x80,
         [](ZEL_HANDLE h) {
             uint8_t uid[10], len = 0;
             uint16_t cs = 0, et = 0;
             Zel_int_GetDesfireUid_aes_PKHnd(h, kKey16, 0x112233, 0, uid, &len, &cs, &et);
         }},
    });
}

} // namespace
