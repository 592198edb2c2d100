// The Java card applets on a scripted reader: the APDUs on the wire (chunks and their P1 marks, the
// announcing write, extended reads), the checks made before anything is sent, the held signature, the
// bounded object loop, hostile answers, and the rules by card type.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>
#include <unistd.h>

#include "javacard/jc_internal.h"
#include "script_link.h"
#include "tandro.h"

namespace {

using zeltest::Bytes;
using zeltest::frame;
using zeltest::response;
using zeltest::ScriptLink;

constexpr uint8_t ACK = 0xAC, ACT = 0xCA;

// Scripts one APDU exchange of a command of cmd_len bytes (at most 512), answered by reply (data, then
// SW1 SW2). A command longer than 256 bytes goes in two pieces: the first through the handshake, the second
// written without one.
void script(ScriptLink &link, size_t cmd_len, const Bytes &reply)
{
    if (cmd_len <= 256) {
        link.reply(
            frame(ACK, 0x94, ACT, static_cast<uint8_t>(cmd_len + 1), static_cast<uint8_t>((cmd_len + 1) >> 8), 0));
    } else {
        link.reply(frame(ACK, 0x94, ACT, 0x01, 0x01, 0x5A));
        link.reply(frame(ACK, 0x94, ACT, 0x00, 0x00, 0x5A));
        link.reply({});
    }
    link.reply(response(0x94, reply));
}

// The command APDUs the host sent, put together from their pieces (frame, then EXT with its checksum; a
// frame marked 5A has more pieces after it).
std::vector<Bytes> sent(const ScriptLink &link)
{
    std::vector<Bytes> out;
    Bytes cur;
    for (size_t i = 0; i + 1 < link.writes.size(); i += 2) {
        const Bytes &f = link.writes[i], &piece = link.writes[i + 1];
        cur.insert(cur.end(), piece.begin(), piece.end() - 1);
        if (f.size() < 7 || f[5] != 0x5A) {
            out.push_back(cur);
            cur.clear();
        }
    }
    return out;
}

// The i-th command APDU the host sent.
Bytes apdu(const ScriptLink &link, size_t i)
{
    return sent(link).at(i);
}

size_t apdus(const ScriptLink &link)
{
    return sent(link).size();
}

const Bytes AID = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x53, 0x49, 0x47, 0x4E};

// Selects the applet with a card of the given type.
void select(ScriptLink &link, uint8_t card_type)
{
    Bytes answer(16, 0);
    answer[0] = card_type;
    answer.push_back(0x90);
    answer.push_back(0x00);
    script(link, 5 + AID.size() + 1, answer);
    uint8_t resp[16] = {};
    ASSERT_EQ(JCAppSelectByAidM(&link.record, AID.data(), static_cast<uint8_t>(AID.size()), resp), ZEL_OK);
    ASSERT_EQ(resp[0], card_type);
}

TEST(JcSelect, AnswerShapeAndStatusWord)
{
    {
        ScriptLink link;
        select(link, 0xA1);
        Bytes want = {0x00, 0xA4, 0x04, 0x00, static_cast<uint8_t>(AID.size())};
        want.insert(want.end(), AID.begin(), AID.end());
        want.push_back(16);
        EXPECT_EQ(apdu(link, 0), want);
    }
    {
        ScriptLink link;
        script(link, 15, {0xAA, 0x01, 0x90, 0x00});
        uint8_t resp[16] = {};
        EXPECT_EQ(JCAppSelectByAidM(&link.record, AID.data(), 9, resp), ZEL_APDU_WRONG_SELECT_RESPONSE);
    }
    {
        ScriptLink link;
        script(link, 15, {0x6A, 0x82});
        uint8_t resp[16] = {};
        EXPECT_EQ(JCAppSelectByAidM(&link.record, AID.data(), 9, resp), 0xA6A82u);
        EXPECT_STREQ(JCAppGetErrorDescription(0xA6A82), "file not found");
    }
}

TEST(JcKeys, PrivateKeyChunksMarkTheLastPiece)
{
    ScriptLink link;
    select(link, 0xA0);
    Bytes key(512);
    for (size_t i = 0; i < key.size(); ++i)
        key[i] = static_cast<uint8_t>(i);
    script(link, 5 + 255, {0x90, 0x00});
    script(link, 5 + 255, {0x90, 0x00});
    script(link, 5 + 2, {0x90, 0x00});
    ASSERT_EQ(JCAppPutPrivateKeyM(&link.record, JC_KEY_RSA, 2, key.data(), 2048, nullptr, 0), ZEL_OK);
    ASSERT_EQ(apdus(link), 4u);
    const uint8_t p1s[3] = {0x02, 0x02, 0x82};
    const size_t lens[3] = {255, 255, 2};
    size_t at = 0;
    for (size_t i = 0; i < 3; ++i) {
        const Bytes a = apdu(link, i + 1);
        ASSERT_EQ(a.size(), 5 + lens[i]);
        EXPECT_EQ(a[1], 0x51);
        EXPECT_EQ(a[2], p1s[i]) << i;
        EXPECT_EQ(a[3], 8); // the code of 2048 bits
        EXPECT_EQ(a[4], lens[i]);
        EXPECT_EQ(Bytes(a.begin() + 5, a.end()), Bytes(key.begin() + at, key.begin() + at + lens[i]));
        at += lens[i];
    }

    // A CRT key of 1024 bits: 320 bytes, its code with 16.
    ScriptLink crt;
    select(crt, 0xA0);
    script(crt, 5 + 255, {0x90, 0x00});
    script(crt, 5 + 65, {0x90, 0x00});
    Bytes crt_key(320, 0x11);
    ASSERT_EQ(JCAppPutPrivateKeyM(&crt.record, JC_KEY_RSA_CRT, 0, crt_key.data(), 1024, nullptr, 0), ZEL_OK);
    EXPECT_EQ(apdu(crt, 1)[2], 0x00);
    EXPECT_EQ(apdu(crt, 2)[2], 0x80);
    EXPECT_EQ(apdu(crt, 2)[3], 4 + 16);

    // An EC Fp key of 256 bits with the flag: 7n + 4 = 228 bytes in one piece, P2 code 5 with 16.
    ScriptLink ec;
    select(ec, 0xAA);
    script(ec, 5 + 228, {0x90, 0x00});
    Bytes ec_key(228, 0x22);
    const uint8_t flag = 1;
    ASSERT_EQ(JCAppPutPrivateKeyM(&ec.record, JC_KEY_EC_FP, 1, ec_key.data(), 256, &flag, 1), ZEL_OK);
    EXPECT_EQ(apdu(ec, 1)[1], 0x61);
    EXPECT_EQ(apdu(ec, 1)[2], 0x81);
    EXPECT_EQ(apdu(ec, 1)[3], 5 + 16);
}

TEST(JcKeys, ChecksBeforeAnyApdu)
{
    ScriptLink link;
    select(link, 0xA1);
    const uint8_t key[640] = {}, params[1] = {0};
    EXPECT_EQ(JCAppPutPrivateKeyM(&link.record, 0, 3, key, 1024, nullptr, 0), ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(JCAppPutPrivateKeyM(&link.record, 4, 0, key, 1024, nullptr, 0), ZEL_APDU_WRONG_KEY_TYPE);
    EXPECT_EQ(JCAppPutPrivateKeyM(&link.record, JC_KEY_EC_FP, 0, key, 256, params, 0), ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(JCAppPutPrivateKeyM(&link.record, 0, 0, key, 1000, nullptr, 0), ZEL_APDU_WRONG_KEY_SIZE);
    EXPECT_EQ(JCAppPutPrivateKeyM(&link.record, 0, 0, key, 736, nullptr, 0), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCAppPutPrivateKeyM(&link.record, JC_KEY_EC_F2M, 0, key, 571, params, 1), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCAppGenerateKeyPairM(&link.record, 0, 0, 0, 736, nullptr, 0), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    // EC generation: the parameters after the flag byte must be 6n + 3 for Fp (n = 32 at 256 bits).
    Bytes gen(1 + 6 * 32 + 3, 0);
    EXPECT_EQ(JCAppGenerateKeyPairM(&link.record, JC_KEY_EC_FP, 0, 0, 256, gen.data(), 6 * 32 + 3),
              ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(JCAppDeleteRsaKeyPairM(&link.record, 3), ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(JCAppDeleteEcKeyPairM(&link.record, 3), ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(apdus(link), 1u); // the select only

    // The right length goes out with the designator in the top bits of P2 and the flag byte left out.
    script(link, 5 + 195, {0x90, 0x00});
    ASSERT_EQ(
        JCAppGenerateKeyPairM(&link.record, JC_KEY_EC_FP, 2, 3, 256, gen.data(), static_cast<uint16_t>(gen.size())),
        ZEL_OK);
    const Bytes a = apdu(link, 1);
    EXPECT_EQ(a[1], 0x62);
    EXPECT_EQ(a[2], 0x82);
    EXPECT_EQ(a[3], 3 * 64 + 5);
    EXPECT_EQ(a[4], 195);
    // RSA generation: one APDU without data, P1 with 0x80, CRT adds 16 to the code.
    script(link, 4, {0x90, 0x00});
    ASSERT_EQ(JCAppGenerateKeyPairM(&link.record, JC_KEY_RSA_CRT, 1, 0, 2048, nullptr, 0), ZEL_OK);
    EXPECT_EQ(apdu(link, 2), (Bytes{0x80, 0x52, 0x81, 8 + 16}));
}

TEST(JcSignature, HeldSignatureAndItsChecks)
{
    ScriptLink link;
    EXPECT_EQ(JCAppGetSignatureM(&link.record, nullptr, 0), ZEL_APDU_JC_APP_BUFF_EMPTY);
    select(link, 0xA3);
    const Bytes chunk(256, 0x5A);
    EXPECT_EQ(JCAppSignatureBeginM(&link.record, 1, 0, 0, 0, chunk.data(), 10, nullptr),
              ZEL_APDU_UNSUPPORTED_ALGORITHMS);
    EXPECT_EQ(JCAppSignatureBeginM(&link.record, 0, 0, 1, 0, chunk.data(), 10, nullptr),
              ZEL_APDU_WRONG_SIGNING_ALGORITHM);
    EXPECT_EQ(JCAppSignatureBeginM(&link.record, 0, 8, 0, 0, chunk.data(), 10, nullptr),
              ZEL_APDU_WRONG_SIGNING_ALGORITHM);
    EXPECT_EQ(JCAppSignatureBeginM(&link.record, 0, 0, 0, 3, chunk.data(), 10, nullptr), ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(JCAppSignatureBeginM(&link.record, 0, 0, 0, 0, chunk.data(), 256, nullptr),
              ZEL_APDU_PLAIN_TEXT_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(JCAppSignatureUpdateM(&link.record, chunk.data(), 256), ZEL_APDU_PLAIN_TEXT_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(apdus(link), 1u);

    script(link, 5 + 255, {0x90, 0x00});
    ASSERT_EQ(JCAppSignatureBeginM(&link.record, 0, 0, 0, 2, chunk.data(), 255, nullptr), ZEL_OK);
    EXPECT_EQ(apdu(link, 1)[2], 0x02);
    script(link, 5 + 255, {0x90, 0x00});
    ASSERT_EQ(JCAppSignatureUpdateM(&link.record, chunk.data(), 255), ZEL_OK);
    const Bytes update = apdu(link, 2);
    EXPECT_EQ(Bytes(update.begin(), update.begin() + 4), (Bytes{0x80, 0x71, 0x00, 0x00}));
    Bytes sig = {1, 2, 3, 4, 5, 6, 7, 8, 0x90, 0x00};
    script(link, 5, sig);
    uint16_t len = 0;
    ASSERT_EQ(JCAppSignatureEndM(&link.record, &len), ZEL_OK);
    EXPECT_EQ(apdu(link, 3), (Bytes{0x80, 0x71, 0x80, 0x00, 0x00}));
    EXPECT_EQ(len, 8);
    uint8_t out[8] = {};
    EXPECT_EQ(JCAppGetSignatureM(&link.record, out, 7), ZEL_BUFFER_OVERFLOW);
    for (int round = 0; round < 2; ++round) { // held, so it reads twice
        ASSERT_EQ(JCAppGetSignatureM(&link.record, out, 8), ZEL_OK);
        EXPECT_EQ(Bytes(out, out + 8), Bytes(sig.begin(), sig.begin() + 8));
    }
    // A failed end leaves nothing held.
    script(link, 5, {0x69, 0x82});
    EXPECT_EQ(JCAppSignatureEndM(&link.record, &len), 0xA6982u);
    EXPECT_EQ(len, 0);
    EXPECT_EQ(JCAppGetSignatureM(&link.record, out, 8), ZEL_APDU_JC_APP_BUFF_EMPTY);

    // One-shot: P1 with 0x80, P2 0x10 for RSA.
    script(link, 5 + 3 + 1, {9, 9, 0x90, 0x00});
    ASSERT_EQ(JCAppGenerateSignatureM(&link.record, 0, 0, 0, 1, chunk.data(), 3, &len), ZEL_OK);
    const Bytes one_shot = apdu(link, 5);
    EXPECT_EQ(Bytes(one_shot.begin(), one_shot.begin() + 4), (Bytes{0x80, 0x71, 0x81, 0x10}));
    EXPECT_EQ(len, 2);
}

TEST(JcObjects, IdTwoStepsAndBoundedReads)
{
    ScriptLink link;
    select(link, 0xAA);
    EXPECT_EQ(JCAppPutObjM(&link.record, 3, 0, nullptr, 0, nullptr, 0), ZEL_APDU_WRONG_KEY_TYPE);
    EXPECT_EQ(JCAppPutObjM(&link.record, 1, 3, nullptr, 0, nullptr, 0), ZEL_APDU_WRONG_KEY_PARAMS);
    const Bytes id(254, 1);
    EXPECT_EQ(JCAppPutObjM(&link.record, 2, 11, nullptr, 0, id.data(), 254), ZEL_APDU_WRONG_KEY_PARAMS);
    EXPECT_EQ(apdus(link), 1u);
    // Type 2 slot 11 passes: the announcing APDU carries the length and the id.
    const Bytes obj(300, 0x33);
    script(link, 5 + 5, {0x90, 0x00});
    script(link, 5 + 255, {0x90, 0x00});
    script(link, 5 + 45, {0x90, 0x00});
    ASSERT_EQ(JCAppPutObjM(&link.record, 2, 11, obj.data(), 300, id.data(), 3), ZEL_OK);
    EXPECT_EQ(apdu(link, 1), (Bytes{0x80, 0x31, 0x82, 11, 5, 0x01, 0x2C, 1, 1, 1}));
    EXPECT_EQ(apdu(link, 2)[2], 0x02);
    EXPECT_EQ(apdu(link, 3)[4], 45);

    // The id in two steps; a length that differs from the kept one finds nothing.
    script(link, 5, {0x01, 0x2C, 0xDE, 0xAD, 0x90, 0x00});
    uint16_t len = 0;
    ASSERT_EQ(JCAppGetObjIdM(&link.record, 0, 2, nullptr, &len), ZEL_OK);
    EXPECT_EQ(len, 2);
    uint8_t got_id[4] = {};
    uint16_t wrong = 3;
    EXPECT_EQ(JCAppGetObjIdM(&link.record, 0, 2, got_id, &wrong), ZEL_APDU_PKI_OBJECT_NOT_FOUND);
    ASSERT_EQ(JCAppGetObjSubjectM(&link.record, 0, 2, got_id, &len), ZEL_OK);
    EXPECT_EQ(len, 300);
    EXPECT_EQ(got_id[0], 0xDE);
    // An answer of one byte has no length in it.
    script(link, 5, {0x01, 0x90, 0x00});
    EXPECT_EQ(JCAppGetObjIdM(&link.record, 0, 2, nullptr, &len), ZEL_APDU_PKI_OBJECT_NOT_FOUND);

    // The object: pieces until the length; 0x80 on the first only.
    const size_t before = apdus(link);
    uint8_t buf[8] = {};
    script(link, 5, {1, 2, 3, 0x90, 0x00});
    script(link, 5, {4, 5, 0x90, 0x00});
    ASSERT_EQ(JCAppGetObjM(&link.record, 1, 0, buf, 5), ZEL_OK);
    EXPECT_EQ(Bytes(buf, buf + 5), (Bytes{1, 2, 3, 4, 5}));
    EXPECT_EQ(apdu(link, before)[2], 0x81);
    EXPECT_EQ(apdu(link, before + 1)[2], 0x01);
    EXPECT_EQ(JCAppGetObjM(&link.record, 1, 0, nullptr, 5), ZEL_APDU_JC_APP_BUFF_EMPTY);
    EXPECT_EQ(JCAppGetObjM(&link.record, 1, 0, buf, 0), ZEL_OK);
    EXPECT_EQ(apdus(link), before + 2);
    // More than what remains, and a card that answers 90 00 with nothing for ever.
    script(link, 5, {1, 2, 3, 4, 5, 6, 0x90, 0x00});
    EXPECT_EQ(JCAppGetObjM(&link.record, 1, 0, buf, 5), ZEL_BUFFER_OVERFLOW);
    for (int i = 0; i < 10; ++i)
        script(link, 5, {0x90, 0x00});
    const size_t start = apdus(link);
    EXPECT_EQ(JCAppGetObjM(&link.record, 1, 0, buf, 5), ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(apdus(link) - start, zel::jc::kMaxEmptyAnswers);
}

TEST(JcPublicKeys, TwoStepsAndShortAnswers)
{
    ScriptLink link;
    uint16_t ml = 0, el = 0;
    EXPECT_EQ(JCAppGetRsaPublicKeyM(&link.record, 3, nullptr, &ml, nullptr, &el), ZEL_APDU_WRONG_KEY_PARAMS);
    script(link, 5, {0xC1, 0xC2, 0xC3, 0x90, 0x00});
    script(link, 5, {0x01, 0x00, 0x01, 0x90, 0x00});
    ASSERT_EQ(JCAppGetRsaPublicKeyM(&link.record, 1, nullptr, &ml, nullptr, &el), ZEL_OK);
    EXPECT_EQ(ml, 3);
    EXPECT_EQ(el, 3);
    EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0x53, 0x01, 0x00, 0x00}));
    EXPECT_EQ(apdu(link, 1), (Bytes{0x80, 0x54, 0x01, 0x00, 0x00}));
    uint8_t m[3], e[3];
    uint16_t bad = 2;
    EXPECT_EQ(JCAppGetRsaPublicKeyM(&link.record, 1, m, &ml, e, &bad), ZEL_APDU_WRONG_KEY_PARAMS);
    ASSERT_EQ(JCAppGetRsaPublicKeyM(&link.record, 1, m, &ml, e, &el), ZEL_OK);
    EXPECT_EQ(Bytes(m, m + 3), (Bytes{0xC1, 0xC2, 0xC3}));
    EXPECT_EQ(apdus(link), 2u);

    // EC: the last part carries k, the size and the designator; a last part under six bytes is refused.
    uint8_t parts[5][8];
    uint16_t lens[5] = {}, k = 0, bits = 0, des = 0;
    for (int i = 0; i < 4; ++i)
        script(link, 5, {static_cast<uint8_t>(i), 0x90, 0x00});
    script(link, 5, {0xEE, 0x00, 0x01, 0x01, 0x00, 0x00, 0x02, 0x90, 0x00});
    ASSERT_EQ(JCAppGetEcPublicKeyM(&link.record, 0, nullptr, &lens[0], nullptr, &lens[1], nullptr, &lens[2], nullptr,
                                   &lens[3], nullptr, &lens[4], &k, &bits, &des),
              ZEL_OK);
    EXPECT_EQ(lens[4], 1);
    EXPECT_EQ(k, 1);
    EXPECT_EQ(bits, 256);
    EXPECT_EQ(des, 2);
    ASSERT_EQ(JCAppGetEcPublicKeyM(&link.record, 0, parts[0], &lens[0], parts[1], &lens[1], parts[2], &lens[2],
                                   parts[3], &lens[3], parts[4], &lens[4], &k, &bits, &des),
              ZEL_OK);
    EXPECT_EQ(parts[3][0], 3);
    EXPECT_EQ(parts[4][0], 0xEE);
    script(link, 5, {0x01, 0x00, 0x90, 0x00});
    EXPECT_EQ(JCAppGetEcKeySizeBitsM(&link.record, 0, &bits, &des), ZEL_APDU_TRANSCEIVE_ERROR);
    script(link, 5, {0x09, 0x01, 0x81, 0x00, 0x01, 0x90, 0x00});
    ASSERT_EQ(JCAppGetEcKeySizeBitsM(&link.record, 0, &bits, &des), ZEL_OK);
    EXPECT_EQ(bits, 0x181);
    EXPECT_EQ(des, 1);
}

TEST(JcPins, SecretsGoOutAsGivenAndTriesAreBigEndian)
{
    ScriptLink link;
    const uint8_t pin[4] = {'1', '2', '3', '4'};
    script(link, 9, {0x63, 0xC2});
    EXPECT_EQ(JCAppLoginM(&link.record, 1, pin, 4), 0xA63C2u);
    EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0x20, 0x01, 0x00, 0x04, '1', '2', '3', '4'}));
    script(link, 9, {0x90, 0x00});
    EXPECT_EQ(JCAppPinUnblockM(&link.record, 1, pin, 4), ZEL_OK);
    EXPECT_EQ(apdu(link, 1)[2], 3);
    script(link, 5, {0x01, 0x02, 0xFF, 0x90, 0x00});
    uint16_t tries = 0;
    ASSERT_EQ(JCAppGetPinTriesRemainingM(&link.record, 2, &tries), ZEL_OK);
    EXPECT_EQ(tries, 0x0102);
    script(link, 5, {0x01, 0x90, 0x00});
    EXPECT_EQ(JCAppGetPinTriesRemainingM(&link.record, 2, &tries), ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(JCAppLoginM(&link.record, 0, pin, 0), ZEL_PARAMETERS_ERROR);
}

TEST(JcStorage, WireShapesAndLimits)
{
    ScriptLink link;
    uint32_t size = 7;
    EXPECT_EQ(JCStorageGetFileSizeM(&link.record, 17, &size), ZEL_PARAMETERS_ERROR);
    const Bytes big(32767, 0);
    EXPECT_EQ(JCStorageWriteFileM(&link.record, 0, big.data(), 32767), ZEL_MAX_SIZE_EXCEEDED);
    // A read of the largest file asks Le 32768, which the transport refuses.
    Bytes out(32766);
    EXPECT_EQ(JCStorageReadFileM(&link.record, 0, out.data(), 32766), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(apdus(link), 0u);

    script(link, 7, {0x90, 0x00});
    ASSERT_EQ(JCStorageWriteFileM(&link.record, 4, nullptr, 0), ZEL_OK);
    EXPECT_EQ(apdu(link, 0), (Bytes{0x80, 0x34, 0x80, 0x04, 0x02, 0x00, 0x02}));
    EXPECT_EQ(apdus(link), 1u);

    // Sizes: two bytes big-endian; another length reads 0.
    script(link, 5, {0x01, 0x10, 0x90, 0x00});
    ASSERT_EQ(JCStorageGetFileSizeM(&link.record, 3, &size), ZEL_OK);
    EXPECT_EQ(size, 0x110u);
    EXPECT_EQ(apdu(link, 1), (Bytes{0x80, 0x32, 0x00, 0x03, 0x02}));
    script(link, 5, {0x01, 0x90, 0x00});
    ASSERT_EQ(JCStorageGetFileSizeM(&link.record, 3, &size), ZEL_OK);
    EXPECT_EQ(size, 0u);

    // A read asks size + 2 in the extended form; the answer must be exactly the size.
    script(link, 7, {1, 2, 3, 4, 0x90, 0x00});
    uint8_t four[4] = {};
    ASSERT_EQ(JCStorageReadFileM(&link.record, 9, four, 4), ZEL_OK);
    EXPECT_EQ(apdu(link, 3), (Bytes{0x80, 0x33, 0x00, 0x09, 0x00, 0x00, 0x06}));
    EXPECT_EQ(Bytes(four, four + 4), (Bytes{1, 2, 3, 4}));
    script(link, 7, {1, 2, 3, 4, 5, 6, 0x90, 0x00}); // two more than the caller's buffer
    EXPECT_EQ(JCStorageReadFileM(&link.record, 9, four, 4), ZEL_PARAMETERS_ERROR);

    // The list: its length is the count; a list_size that differs is refused.
    Bytes list(17, 0);
    list[3] = 1;
    list.push_back(0x90);
    list.push_back(0x00);
    script(link, 5, list);
    uint32_t count = 0;
    ASSERT_EQ(JCStorageGetFilesListSizeM(&link.record, &count), ZEL_OK);
    EXPECT_EQ(count, 17u);
    script(link, 5, list);
    uint8_t got[17] = {};
    EXPECT_EQ(JCStorageListFilesM(&link.record, got, 16), ZEL_PARAMETERS_ERROR);
    script(link, 5, list);
    ASSERT_EQ(JCStorageListFilesM(&link.record, got, 17), ZEL_OK);
    EXPECT_EQ(got[3], 1);
}

TEST(JcStorage, ReadToFileKeepsItsTwoBehaviours)
{
    char path[] = "/tmp/jc_read_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "old", 3), 3);
    close(fd);
    {
        // A small file: read whole, the file on disk left empty.
        ScriptLink link;
        script(link, 5, {0x00, 0x05, 0x90, 0x00});
        script(link, 7, {1, 2, 3, 4, 5, 0x90, 0x00});
        ASSERT_EQ(JCStorageReadFileToFileSystemM(&link.record, 1, path), ZEL_OK);
        EXPECT_EQ(apdu(link, 1), (Bytes{0x80, 0x33, 0x00, 0x01, 0x00, 0x00, 0x05}));
        std::FILE *f = std::fopen(path, "rb");
        ASSERT_NE(f, nullptr);
        EXPECT_EQ(std::fgetc(f), EOF);
        std::fclose(f);
    }
    {
        // 0x110 bytes: Le 0x10; a card that sends the whole file differs from it.
        ScriptLink link;
        script(link, 5, {0x01, 0x10, 0x90, 0x00});
        Bytes whole(18, 0x44);
        whole.push_back(0x90);
        whole.push_back(0x00);
        script(link, 7, whole);
        EXPECT_EQ(JCStorageReadFileToFileSystemM(&link.record, 1, path), ZEL_PARAMETERS_ERROR);
        EXPECT_EQ(apdu(link, 1), (Bytes{0x80, 0x33, 0x00, 0x01, 0x00, 0x00, 0x10}));
    }
    {
        ScriptLink link;
        script(link, 5, {0x00, 0x01, 0x90, 0x00});
        script(link, 7, {7, 0x90, 0x00});
        EXPECT_EQ(JCStorageReadFileToFileSystemM(&link.record, 1, "/nonexistent-dir/x"),
                  ZEL_FILE_SYSTEM_PATH_NOT_EXISTS);
    }
    ScriptLink link;
    EXPECT_EQ(JCStorageWriteFileFromFileSystemM(&link.record, 1, "/nonexistent-dir/x"), ZEL_FILE_NOT_EXISTS);
    std::remove(path);
}

TEST(JcRules, CardTypes)
{
    // Signing: 0xA3 takes RSA only; the other known types RSA and ECDSA; digest 0 always; others nothing.
    EXPECT_EQ(JCCheckSignerAlgorithms(0xA3, 0, 0, 0), ZEL_OK);
    EXPECT_EQ(JCCheckSignerAlgorithms(0xA3, 1, 0, 0), ZEL_APDU_UNSUPPORTED_ALGORITHMS);
    for (uint8_t t : {0xA0, 0xA1, 0xA2, 0xAA}) {
        EXPECT_EQ(JCCheckSignerAlgorithms(t, 1, 0, 0), ZEL_OK) << int(t);
        EXPECT_EQ(JCCheckSignerAlgorithms(t, 0, 1, 0), ZEL_APDU_UNSUPPORTED_ALGORITHMS) << int(t);
        EXPECT_EQ(JCCheckSignerAlgorithms(t, 2, 0, 0), ZEL_APDU_UNSUPPORTED_ALGORITHMS) << int(t);
    }
    for (uint8_t t : {0x00, 0xA4, 0xAB})
        EXPECT_EQ(JCCheckSignerAlgorithms(t, 0, 0, 0), ZEL_APDU_UNSUPPORTED_ALGORITHMS) << int(t);
    // RSA: 736 bits on 0xA0 and 0xAA only.
    EXPECT_EQ(JCCheckRsaKeySize(0xA0, 736), ZEL_OK);
    EXPECT_EQ(JCCheckRsaKeySize(0xA1, 736), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCCheckRsaKeySize(0xA3, 2048), ZEL_OK);
    EXPECT_EQ(JCCheckRsaKeySize(0xB0, 2048), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCCheckRsaOnCardKeyGen(0xAA, 736), ZEL_OK);
    // EC: binary fields on 0xA1 only, never 571 bits; generation narrower than storing.
    EXPECT_EQ(JCCheckEcdsaKeySize(0xA1, JC_KEY_EC_F2M, 409), ZEL_OK);
    EXPECT_EQ(JCCheckEcdsaKeySize(0xA1, JC_KEY_EC_F2M, 571), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCCheckEcdsaOnCardKeyGen(0xA1, JC_KEY_EC_F2M, 233), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCCheckEcdsaOnCardKeyGen(0xA1, JC_KEY_EC_F2M, 193), ZEL_OK);
    EXPECT_EQ(JCCheckEcdsaKeySize(0xA0, JC_KEY_EC_FP, 256), ZEL_OK);
    EXPECT_EQ(JCCheckEcdsaOnCardKeyGen(0xA0, JC_KEY_EC_FP, 256), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCCheckEcdsaKeySize(0xA2, JC_KEY_EC_FP, 224), ZEL_APDU_UNSUPPORTED_KEY_SIZE);
    EXPECT_EQ(JCCheckEcdsaKeySize(0xAA, JC_KEY_EC_FP, 521), ZEL_OK);
    EXPECT_EQ(JCCheckEcdsaKeySize(0xAA, JC_KEY_EC_F2M, 163), ZEL_APDU_UNSUPPORTED_KEY_SIZE);

    EXPECT_STREQ(JCAppGetErrorDescription(ZEL_APDU_PKI_OBJECT_NOT_FOUND), "PKI object not found");
    EXPECT_STREQ(JCAppGetErrorDescription(0xA6983), "authentication method blocked");
    EXPECT_STREQ(JCAppGetErrorDescription(0xA6984),
                 "data invalid (probably message limit exceeded for RSA using PKCS#1 padding)");
    EXPECT_STREQ(JCAppGetErrorDescription(ZEL_APDU_MAX_PIN_LENGTH_EXCEEDED), "");
    EXPECT_STREQ(JCAppGetErrorDescription(0xA9000), "");
}

} // namespace
