// The frame protocol against a scripted reader: checksums, the receive routines, the exchange shapes,
// the chained block exchange, the record stream and the door controller frame.
#include <gtest/gtest.h>

#include <cstring>
#include <cstdlib>

#include "core/frame.h"
#include "script_link.h"
#include "tandro.h"
#include "transport/d2xx.h"

using namespace zeltest;

namespace {

const char kCheckInput[] = "123456789";

TEST(Checksum, WorkedExampleFramesAndLengthRules)
{
    uint8_t type_frame[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0x00};
    CalcChecksum(type_frame, 7);
    EXPECT_EQ(type_frame[6], 0xF6);
    uint8_t card_frame[7] = {0x55, 0x13, 0xAA, 0x00, 0x00, 0x00, 0x00};
    CalcChecksum(card_frame, 7);
    EXPECT_EQ(card_frame[6], 0xF3);
    const uint8_t type_ext[5] = {0x04, 0x03, 0x02, 0x01, 0x0B};
    EXPECT_TRUE(TestChecksum(type_ext, 5));
    EXPECT_EQ(GetChecksum_local(type_ext, 5), 0x0B);

    // One byte is its own checksum: never right. Two bytes: byte 0 + 7.
    for (int b = 0; b < 256; ++b) {
        const uint8_t one = static_cast<uint8_t>(b);
        EXPECT_FALSE(TestChecksum(&one, 1));
    }
    const uint8_t two[2] = {0x10, 0x17};
    EXPECT_TRUE(TestChecksum(two, 2));

    // Length 256: the span is the low byte's, so only byte 0 counts; the position is the real one.
    uint8_t block[256];
    for (int i = 0; i < 256; ++i)
        block[i] = static_cast<uint8_t>(i * 7 + 3);
    CalcChecksum(block, 256);
    EXPECT_EQ(block[255], static_cast<uint8_t>(block[0] + 7));
    // TestChecksum counts all 16 bits, so that block does not pass.
    EXPECT_FALSE(TestChecksum(block, 256));
    // A long block is checksummed in pieces.
    uint8_t x = GetChecksumFragment(0, block, 100);
    x = GetChecksumFragment(x, block + 100, 155);
    block[255] = static_cast<uint8_t>(x + 7);
    EXPECT_TRUE(TestChecksum(block, 256));
    EXPECT_EQ(GetChecksumFragment(0x5A, block, 0), 0x5A);
}

TEST(Checksum, Crc16CatalogueValue)
{
    EXPECT_EQ(CRC16(reinterpret_cast<const uint8_t *>(kCheckInput), 9), 0x29B1);
    EXPECT_EQ(CRC16(reinterpret_cast<const uint8_t *>(kCheckInput), 0), 0xFFFF);
}

TEST(AuthMode, AcceptedModesAndParameterCode)
{
    for (int m = 0; m < 256; ++m) {
        const bool ok = m == 0x60 || m == 0x61 || m == 0x80 || m == 0x81 || m == 0x02;
        EXPECT_EQ(TestAuthMode(static_cast<uint8_t>(m)), ok ? ZEL_OK : ZEL_PARAMETERS_ERROR) << m;
    }
    EXPECT_EQ(zel::auth_mode_par0(0x60), 0);
    EXPECT_EQ(zel::auth_mode_par0(0x61), 1);
    EXPECT_EQ(zel::auth_mode_par0(0x80), 2);
    EXPECT_EQ(zel::auth_mode_par0(0x81), 3);
    EXPECT_EQ(zel::auth_mode_par0(0x02), 2);
}

TEST(Exchange, GetReaderTypeWorkedExampleByteForByte)
{
    ScriptLink link;
    link.reply(cat(Bytes{0xDE, 0x10, 0xED, 0x05, 0x00, 0x00, 0x2D}, Bytes{0x04, 0x03, 0x02, 0x01, 0x0B}));
    uint32_t type = 0;
    ASSERT_EQ(GetReaderTypeM(&link.record, &type), ZEL_OK);
    EXPECT_EQ(type, 0x01020304u);
    EXPECT_EQ(link.sent, (Bytes{0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6}));
    EXPECT_EQ(link.purges, 1); // stale input is dropped before the command

    // A bad EXT checksum writes nothing.
    link.reply(cat(Bytes{0xDE, 0x10, 0xED, 0x05, 0x00, 0x00, 0x2D}, Bytes{0x04, 0x03, 0x02, 0x01, 0x0C}));
    type = 7;
    EXPECT_EQ(GetReaderTypeM(&link.record, &type), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(type, 7u);
}

TEST(Exchange, GetCardIdWorkedExampleAndNoCard)
{
    ScriptLink link;
    link.reply(cat(Bytes{0xDE, 0x13, 0xED, 0x05, 0x08, 0x00, 0x34}, Bytes{0x11, 0x22, 0x33, 0x44, 0x4B}));
    uint8_t card_type = 0;
    uint32_t uid = 0;
    ASSERT_EQ(GetCardIdM(&link.record, &card_type, &uid), ZEL_OK);
    EXPECT_EQ(card_type, 8);
    EXPECT_EQ(uid, 0x44332211u);
    EXPECT_EQ(link.sent, (Bytes{0x55, 0x13, 0xAA, 0x00, 0x00, 0x00, 0xF3}));

    link.reply(Bytes{0xEC, 0x08, 0xCE, 0x00, 0x00, 0x00, 0x31});
    card_type = 0x77;
    uid = 0x12345678;
    EXPECT_EQ(GetCardIdM(&link.record, &card_type, &uid), ZEL_NO_CARD);
    EXPECT_EQ(card_type, 0x77);
    EXPECT_EQ(uid, 0x12345678u);
}

TEST(Exchange, ReplyTooShortForItsFieldsIsRejected)
{
    ScriptLink link;
    link.reply(cat(frame(0xDE, 0x13, 0xED, 2, 8, 0), ext(Bytes{0x11})));
    uint32_t uid = 5;
    EXPECT_EQ(GetCardIdM(&link.record, nullptr, &uid), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(uid, 5u);
}

TEST(Handshake, RejectsWhatIsNotAnAnswerToTheCommand)
{
    struct Case {
        const char *what;
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {"response", frame(0xDE, 0x10, 0xED, 3), ZEL_OK},
        {"acknowledge", frame(0xAC, 0x10, 0xCA, 3), ZEL_OK},
        {"echo of another command", frame(0xDE, 0x11, 0xED), ZEL_COMMUNICATION_ERROR},
        {"error frame", frame(0xEC, 0x0E, 0xCE), ZEL_AUTH_ERROR},
        {"error header without its trailer", frame(0xEC, 0x0E, 0x00), ZEL_COMMUNICATION_ERROR},
        {"response header, error trailer", frame(0xDE, 0x10, 0xCE), ZEL_COMMUNICATION_ERROR},
        {"interim frame", frame(0xA1, 0x10, 0x85), ZEL_COMMUNICATION_ERROR},
        {"bad checksum", Bytes{0xDE, 0x10, 0xED, 0x00, 0x00, 0x00, 0x00}, ZEL_COMMUNICATION_ERROR},
        {"short reply", Bytes{0xDE, 0x10, 0xED}, ZEL_COMMUNICATION_BREAK},
        {"silence", Bytes{}, ZEL_COMMUNICATION_BREAK},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(c.reply);
        uint8_t f[7];
        zel::make_command(f, 0x10);
        uint8_t ext_len = 0xEE;
        EXPECT_EQ(InitialHandshaking(&link.record, f, &ext_len), c.want) << c.what;
        if (c.want == ZEL_OK) {
            EXPECT_EQ(ext_len, 3) << c.what;
        }
    }
    uint8_t f[7];
    uint8_t ext_len;
    EXPECT_EQ(InitialHandshaking(nullptr, f, &ext_len), ZEL_DEVICE_WRONG_HANDLE);
}

TEST(ResponseIntro, TellsErrorsAcknowledgesAndInterimFrames)
{
    struct Case {
        const char *what;
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {"response", frame(0xDE, 0x17, 0xED), ZEL_OK},
        {"response to another command", frame(0xDE, 0x18, 0xED), ZEL_COMMUNICATION_ERROR},
        {"error header alone", frame(0xEC, 0x0E, 0x00), ZEL_AUTH_ERROR},
        {"error trailer alone", frame(0xDE, 0x17, 0xCE), 0x17},
        {"plain acknowledge", frame(0xAC, 0x17, 0xCA), ZEL_COMMUNICATION_ERROR},
        {"interim for the command", frame(0xA1, 0x17, 0x85), ZEL_OK},
        {"interim for another", frame(0xA1, 0x18, 0x85), ZEL_COMMUNICATION_ERROR},
        {"bad checksum", Bytes{0xDE, 0x17, 0xED, 0, 0, 0, 0}, ZEL_COMMUNICATION_ERROR},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.preload(c.reply);
        uint8_t f[7];
        EXPECT_EQ(GetAndTestResponseIntro(&link.record, f, 0x17), c.want) << c.what;
    }
    // The acknowledge of a chained piece passes only with its trailer.
    {
        ScriptLink link;
        link.preload(frame(0xAC, 0x94, 0xCA, 0, 0, 0x5A));
        uint8_t f[7];
        EXPECT_EQ(GetAndTestResponseIntro(&link.record, f, 0x94), ZEL_OK);
        link.preload(frame(0xAC, 0x94, 0xED, 0, 0, 0x5A));
        EXPECT_EQ(GetAndTestResponseIntro(&link.record, f, 0x94), ZEL_COMMUNICATION_ERROR);
    }
}

TEST(ResponseIntroSam, WaitsThroughInterimFrames)
{
    ScriptLink link;
    // Interim frames for the command are taken even with a broken checksum.
    link.preload(Bytes{0xA1, 0x40, 0x85, 0, 0, 0, 0x00});
    link.preload(frame(0xA1, 0x40, 0x85));
    link.preload(frame(0xDE, 0x40, 0xED, 0, 9, 9));
    uint8_t f[7];
    ASSERT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), ZEL_OK);
    EXPECT_EQ(f[4], 9);

    link.preload(frame(0xA1, 0x22, 0xCE)); // an interim header carrying an error
    EXPECT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), 0x22u);
    link.preload(Bytes{0xA1, 0x22, 0xCE, 0, 0, 0, 0});
    EXPECT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), ZEL_COMMUNICATION_ERROR);
    link.preload(frame(0xEC, 0x0E, 0x00));
    EXPECT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), ZEL_AUTH_ERROR);
    link.preload(frame(0xDE, 0x41, 0xED));
    EXPECT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), ZEL_COMMUNICATION_ERROR);
    EXPECT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), ZEL_COMMUNICATION_BREAK); // nothing more
}

// A clock that leaps ten seconds at each look, so that waits with a limit run out at once.
uint32_t g_leaping_tick = 0;
uint32_t leaping_tick()
{
    return g_leaping_tick += 10000;
}

TEST(ResponseIntroSam, EndlessInterimFramesEndTheWait)
{
    ScriptLink link;
    for (int i = 0; i < 50; ++i)
        link.preload(frame(0xA1, 0x40, 0x85));
    zel::set_tick_hook(leaping_tick);
    uint8_t f[7];
    EXPECT_EQ(GetAndTestResponseIntroSam(&link.record, f, 0x40), ZEL_COMMUNICATION_ERROR);

    // The chained exchange waits through interim frames with the same limit.
    ScriptLink chain;
    const Bytes apdu{0x00, 0xB0, 0x00, 0x00};
    Bytes interims;
    for (int i = 0; i < 50; ++i)
        interims = cat(interims, frame(0xA1, 0x94, 0x85));
    chain.reply(frame(0xAC, 0x94, 0xCA, 0, 0, 0x5A));
    chain.reply(interims);
    uint8_t *reply = nullptr;
    uint32_t reply_len = 0;
    EXPECT_EQ(zel::chain_transceive(&chain.record, apdu.data(), 4, &reply, &reply_len, false, false),
              ZEL_COMMUNICATION_ERROR);
    zel::set_tick_hook(nullptr);
    EXPECT_EQ(reply, nullptr);
}

TEST(ResponseData, ChecksumAndShortRead)
{
    ScriptLink link;
    uint8_t buf[16];
    link.preload(ext(Bytes{1, 2, 3}));
    EXPECT_EQ(GetAndTestResponseData(&link.record, 4, buf), ZEL_OK);
    link.preload(Bytes{1, 2, 3, 4});
    EXPECT_EQ(GetAndTestResponseData(&link.record, 4, buf), ZEL_COMMUNICATION_ERROR);
    link.preload(Bytes{1, 2});
    EXPECT_EQ(GetAndTestResponseData(&link.record, 4, buf), ZEL_COMMUNICATION_BREAK);
}

TEST(Shapes, WriteExtWaitsForTheAcknowledgeThenSendsTheBlock)
{
    ScriptLink link;
    link.reply(frame(0xAC, 0x27, 0xCA));
    link.reply(cat(frame(0xDE, 0x27, 0xED, 3, 1, 2), ext(Bytes{0xAB, 0xCD})));
    uint8_t f[zel::kFrameBufLen] = {};
    zel::make_command(f, 0x27);
    const Bytes password{1, 2, 3, 4, 5, 6, 7, 8};
    uint8_t par[2] = {};
    uint8_t reply_len = 0;
    ASSERT_EQ(zel::exchange_write_ext(&link.record, f, password.data(), 8, par, &reply_len), ZEL_OK);
    ASSERT_EQ(link.writes.size(), 2u);
    EXPECT_EQ(link.writes[0],
              (Bytes{0x55, 0x27, 0xAA, 0x09, 0x00, 0x00, static_cast<uint8_t>((0x55 ^ 0x27 ^ 0xAA ^ 0x09) + 7)}));
    EXPECT_EQ(link.writes[1], ext(password));
    EXPECT_EQ(par[0], 1);
    EXPECT_EQ(reply_len, 3);
    EXPECT_EQ(f[0], 0xAB);
    EXPECT_EQ(f[1], 0xCD);
}

std::vector<uint32_t> g_sleeps;
void record_sleep(uint32_t ms)
{
    g_sleeps.push_back(ms);
}

TEST(Shapes, WakeByteComesFirstAndThePauseGoesThroughTheSleepSeam)
{
    ScriptLink link;
    link.reply({}); // the wake byte gets no answer
    link.reply(cat(frame(0xDE, 0xE6, 0xED, 5, 0, 0), ext(Bytes{1, 2, 3, 4})));
    zel::set_sleep_hook(record_sleep);
    g_sleeps.clear();
    uint8_t buf[zel::kFrameBufLen] = {};
    zel::make_command(buf, 0xE6);
    uint8_t par[2], len = 0;
    ASSERT_EQ(zel::exchange_wake_read_ext(&link.record, buf, par, &len), ZEL_OK);
    zel::set_sleep_hook(nullptr);
    ASSERT_EQ(link.writes.size(), 2u);
    EXPECT_EQ(link.writes[0], Bytes{0x00});
    EXPECT_EQ(link.writes[1][1], 0xE6);
    EXPECT_EQ(g_sleeps, std::vector<uint32_t>{10});
    EXPECT_EQ(len, 5);
    EXPECT_EQ(buf[3], 4);
}

TEST(Shapes, ReplyTakesParsAndExtByItsReadingRule)
{
    using zel::ExtRead;
    const ZEL_STATUS comm = ZEL_COMMUNICATION_ERROR;
    struct Case {
        const char *what;
        Bytes reply;
        ZEL_STATUS tested, optional, bare; // the status under each rule
    } cases[] = {
        {"data and checksum", cat(rsp(0x41, 4, 0x12, 0x34), ext({9, 8, 7})), ZEL_OK, ZEL_OK, ZEL_OK},
        {"a wrong checksum", cat(rsp(0x41, 4, 0x12, 0x34), Bytes{9, 8, 7, 0}), comm, comm, comm},
        {"the checksum alone", cat(rsp(0x41, 1, 0x12, 0x34), ext({})), comm, comm, ZEL_OK},
        {"a wrong lone checksum", cat(rsp(0x41, 1, 0x12, 0x34), Bytes{0x08}), comm, comm, comm},
        {"no EXT", rsp(0x41, 0, 0x12, 0x34), comm, ZEL_OK, ZEL_OK},
        {"an error frame: its code", err(0x05), 0x05, 0x05, 0x05},
    };
    for (const Case &c : cases) {
        const ExtRead rules[] = {ExtRead::tested, ExtRead::optional, ExtRead::optional_bare};
        const ZEL_STATUS want[] = {c.tested, c.optional, c.bare};
        for (int i = 0; i < 3; ++i) {
            ScriptLink link;
            link.reply(c.reply);
            zel::Reply r;
            EXPECT_EQ(zel::command_reply(&link.record, 0x41, 0xA0, 0x0B, r, 0, rules[i]), want[i])
                << c.what << ", rule " << i;
            ASSERT_EQ(link.writes.size(), 1u);
            EXPECT_EQ(link.writes[0], cmd(0x41, 0, 0xA0, 0x0B)) << c.what;
            if (want[i] != ZEL_OK) {
                EXPECT_EQ(r.ext_len, 0) << c.what << ", rule " << i; // no length of a reply that failed
                continue;
            }
            EXPECT_EQ(r.par[0], 0x12);
            EXPECT_EQ(r.par[1], 0x34);
            const Bytes data(c.reply.begin() + 7, c.reply.end() - (c.reply.size() > 7 ? 1 : 0));
            EXPECT_EQ(r.data_len(), data.size()) << c.what;
            EXPECT_EQ(Bytes(r.buf, r.buf + r.data_len()), data) << c.what;
        }
    }
    // A reply shorter than the caller needs is a communication error; one just long enough holds.
    for (const uint8_t min_ext : {4, 5}) {
        ScriptLink link;
        link.reply(cat(rsp(0x41, 4), ext({1, 2, 3})));
        zel::Reply r;
        EXPECT_EQ(zel::command_reply(&link.record, 0x41, 0, 0, r, min_ext), min_ext == 4 ? ZEL_OK : comm);
    }
}

TEST(Shapes, WriteReplySendsTheDataAndKeepsTheLengthOfAFailedReply)
{
    const uint8_t data[3] = {1, 2, 3};
    for (const bool good : {true, false}) {
        ScriptLink link;
        link.reply(ack(0x41, 4));
        link.reply(cat(rsp(0x41, 3, 0x07, 0x08), good ? ext({0xAB, 0xCD}) : Bytes{0xAB, 0xCD, 0x00}));
        zel::Reply r;
        EXPECT_EQ(zel::command_write_reply(&link.record, 0x41, 0x21, 0x22, data, 3, r),
                  good ? ZEL_OK : ZEL_COMMUNICATION_ERROR);
        ASSERT_EQ(link.writes.size(), 2u);
        EXPECT_EQ(link.writes[0], cmd(0x41, 4, 0x21, 0x22));
        EXPECT_EQ(link.writes[1], ext({1, 2, 3}));
        EXPECT_EQ(r.ext_len, 3); // told even when the EXT did not hold
        EXPECT_EQ(r.par[0], 0x07);
        EXPECT_EQ(r.par[1], 0x08);
        if (good) {
            EXPECT_EQ(Bytes(r.buf, r.buf + r.data_len()), (Bytes{0xAB, 0xCD}));
        }
    }
}

TEST(BlockData, ChecksumReadApartAndSizeChecked)
{
    ScriptLink link;
    uint8_t data[16];
    Bytes block(16, 0x5C);
    link.preload(ext(block));
    EXPECT_EQ(zel::read_block_data(&link.record, 17, 17, data), ZEL_OK);
    EXPECT_EQ(data[15], 0x5C);
    EXPECT_EQ(zel::read_block_data(&link.record, 16, 17, data), ZEL_COMMUNICATION_ERROR);
    block[3] ^= 1;
    Bytes bad = ext(Bytes(16, 0x5C));
    bad[3] ^= 1;
    link.preload(bad);
    EXPECT_EQ(zel::read_block_data(&link.record, 17, 17, data), ZEL_COMMUNICATION_ERROR);
}

TEST(MultiBlockStream, RecordsEndMarkersAndBounds)
{
    uint8_t out[8];
    uint32_t len = 0;
    {
        ScriptLink link;
        link.preload(Bytes{0x00, 3, 'a', 'b', 'c', 0x00, 2, 'd', 'e', 0xDD});
        ASSERT_EQ(zel::read_multiblock_stream(&link.record, out, sizeof out, &len), ZEL_OK);
        EXPECT_EQ(len, 5u);
        EXPECT_EQ(std::memcmp(out, "abcde", 5), 0);
    }
    const struct {
        Bytes stream;
        ZEL_STATUS want;
    } cases[] = {
        {{0x00, 1, 'a', 0xCC}, ZEL_READING_ERROR},
        {{0x00, 1, 'a', 0x0E}, ZEL_AUTH_ERROR},
        {{0x00, 9, 1, 2, 3, 4, 5, 6, 7, 8, 9}, ZEL_BUFFER_OVERFLOW},
        {{0x00, 4, 1, 2}, ZEL_READING_ERROR},
        {{}, ZEL_READING_ERROR},
    };
    for (const auto &c : cases) {
        ScriptLink link;
        link.preload(c.stream);
        EXPECT_EQ(zel::read_multiblock_stream(&link.record, out, sizeof out, &len), c.want);
    }
    // Empty records without end cannot run for ever.
    ScriptLink link;
    Bytes endless;
    for (int i = 0; i < 100; ++i) {
        endless.push_back(0);
        endless.push_back(0);
    }
    link.preload(endless);
    EXPECT_NE(zel::read_multiblock_stream(&link.record, out, sizeof out, &len), ZEL_OK);
}

// The chained exchange: a command of 300 bytes goes out in pieces of 256 and 44; the reply comes in two.
TEST(ChainedBlocks, PiecesOutAndReplyAssembled)
{
    ScriptLink link;
    Bytes command(300);
    for (size_t i = 0; i < command.size(); ++i)
        command[i] = static_cast<uint8_t>(i);
    link.reply(frame(0xAC, 0x94, 0xCA, 0, 0, 0x5A));                               // to the first frame
    link.reply(cat(frame(0xA1, 0x94, 0x85), frame(0xAC, 0x94, 0xCA, 0, 0, 0x5A))); // to the first piece
    link.reply({});                                                                // to the second frame: nothing
    Bytes first(200, 0x11), second{0x90, 0x00};
    link.reply(cat(cat(frame(0xDE, 0x94, 0xED, 201, 0, 0x5A), ext(first)),
                   cat(frame(0xDE, 0x94, 0xED, 3, 0, 0), ext(second))));
    uint8_t *reply = nullptr;
    uint32_t reply_len = 0;
    ASSERT_EQ(zel::chain_transceive(&link.record, command.data(), 300, &reply, &reply_len, false, false), ZEL_OK);
    ASSERT_EQ(link.writes.size(), 4u);
    EXPECT_EQ(link.writes[0], frame(0x55, 0x94, 0xAA, 0x01, 0x01, 0x5A)); // 257 in two bytes, more to come
    EXPECT_EQ(link.writes[1], ext(Bytes(command.begin(), command.begin() + 256)));
    EXPECT_EQ(link.writes[2], frame(0x55, 0x94, 0xAA, 45, 0, 0));
    EXPECT_EQ(link.writes[3], ext(Bytes(command.begin() + 256, command.end())));
    ASSERT_EQ(reply_len, 202u);
    EXPECT_EQ(reply[0], 0x11);
    EXPECT_EQ(reply[199], 0x11);
    EXPECT_EQ(reply[200], 0x90);
    EXPECT_EQ(reply[201], 0x00);
    std::free(reply);
}

TEST(ChainedBlocks, EmptyReplyAndLimits)
{
    ScriptLink link;
    const Bytes command{0x00, 0xA4, 0x04, 0x00};
    link.reply(frame(0xAC, 0x94, 0xCA, 0, 0, 0x5A));
    link.reply(frame(0xDE, 0x94, 0xED, 0, 0, 0));
    uint8_t *reply = nullptr;
    uint32_t reply_len = 0;
    EXPECT_EQ(zel::chain_transceive(&link.record, command.data(), 4, &reply, &reply_len, false, false),
              ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(reply, nullptr);
    EXPECT_EQ(zel::chain_transceive(&link.record, command.data(), zel::kChainMaxCommand + 1, &reply, &reply_len, false,
                                    false),
              ZEL_MAX_SIZE_EXCEEDED);
    // A further piece announced with length 0.
    link.reply(frame(0xAC, 0x94, 0xCA, 0, 0, 0x5A));
    link.reply(cat(cat(frame(0xDE, 0x94, 0xED, 3, 0, 0x5A), ext(Bytes{1, 2})), frame(0xDE, 0x94, 0xED, 0, 0, 0)));
    EXPECT_EQ(zel::chain_transceive(&link.record, command.data(), 4, &reply, &reply_len, false, false),
              ZEL_APDU_TRANSCEIVE_ERROR);
    EXPECT_EQ(reply, nullptr);
}

TEST(RawExchange, ComTransceivePassesBytesUntested)
{
    ScriptLink link;
    const Bytes f{0x55, 0x99, 0xAA, 0x03, 0, 0, 0x12}; // checksum deliberately wrong: nothing is tested
    const Bytes e{0x01, 0x02, 0x03};
    link.reply(frame(0xAC, 0x99, 0xCA));
    link.reply(cat(Bytes{0xDE, 0x99, 0xED, 0x02, 0, 0, 0x00}, Bytes{0x77, 0x66}));
    uint8_t reply[7], reply_ext[256];
    uint32_t reply_len = 0, reply_ext_len = 0;
    ASSERT_EQ(COMTransceiveM(&link.record, f.data(), 7, e.data(), 3, reply, &reply_len, reply_ext, &reply_ext_len),
              ZEL_OK);
    EXPECT_EQ(reply_len, 7u);
    EXPECT_EQ(reply_ext_len, 2u);
    EXPECT_EQ(reply_ext[0], 0x77);
    EXPECT_EQ(link.sent, cat(f, e));
    EXPECT_EQ(link.purges, 0);
}

// The door controller on D2XX device 0.
struct DoorDevice {
    static inline Bytes written;
    static inline bool corrupt = false;
    static zel::FT_STATUS purge(zel::FT_HANDLE, uint32_t) { return 0; }
    static zel::FT_STATUS write(zel::FT_HANDLE h, void *b, uint32_t n, uint32_t *done)
    {
        EXPECT_EQ(h, nullptr);
        written.assign(static_cast<uint8_t *>(b), static_cast<uint8_t *>(b) + n);
        *done = n;
        return 0;
    }
    static zel::FT_STATUS read(zel::FT_HANDLE, void *b, uint32_t n, uint32_t *got)
    {
        Bytes echo = written;
        echo[1] = 0x00; // the frame kind is not compared
        if (corrupt)
            echo[5] ^= 0xFF;
        std::memcpy(b, echo.data(), n < echo.size() ? n : echo.size());
        *got = n;
        return 0;
    }
};

TEST(DoorController, CodedFrameAndEcho)
{
    const uint8_t payload[8] = {0x01, 0x02, 0, 0, 0, 0, 0, 0};
    uint8_t f[22];
    CodeFrame(f, payload, 1);
    const Bytes want{0x81, 0x7E, 0x00, 0x87, 0x00, 0x99, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0xD2, 0xBD, 0xDB};
    EXPECT_EQ(Bytes(f, f + 22), want);
    CodeFrame(f, payload, 0);
    EXPECT_EQ(f[1], 0x77);

    zel::D2xxTable table{};
    table.FT_Purge = DoorDevice::purge;
    table.FT_Write = DoorDevice::write;
    table.FT_Read = DoorDevice::read;
    zel::d2xx_install(table);
    DoorDevice::corrupt = false;
    EXPECT_EQ(VRT_SendCommand(0x01, 1, 0x02), 1);
    EXPECT_EQ(DoorDevice::written, want);
    DoorDevice::corrupt = true;
    EXPECT_EQ(VRT_SendCommand(0x01, 1, 0x02), 0);
    zel::d2xx_install(zel::D2xxTable{});
    EXPECT_EQ(VRT_SendCommand(0x01, 1, 0x02), 0);
    EXPECT_EQ(VRT_ReceiveAnswerBoot(), 0);
}

} // namespace
