// Reader configuration end to end: each exported operation against the simulated reader on a pseudo-terminal,
// with the request bytes and the reader's stored state read back on its side, and its refusals reaching the
// caller.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include <unistd.h>

#include "card_sim_fixture.h"
#include "core/internal.h"
#include "frame_helpers.h"
#include "transport/line.h"
#include "transport/reset.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

using zeltest::Bytes;
using zeltest::cat;
using zeltest::checksum;
using zeltest::le32;
using zeltest::request;

const uint8_t kPassword[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
const uint8_t kWrong[8] = {'1', '1', '1', '1', '1', '1', '1', '2'};

const Bytes PW(kPassword, kPassword + 8);

zsim *g_sim = nullptr;

class SimConfig : public zeltest::CardSimTest {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t) {});
        serve(300);
        g_sim = sim;
    }
    void TearDown() override
    {
        stop();
        g_sim = nullptr;
        zel::set_sleep_hook(nullptr);
        zel::set_pin_command_hook(nullptr);
    }
    // 0x70 has no reply: the call returns once the bytes are written, so wait until the reader took them.
    void wait_for_exchange(uint64_t count)
    {
        for (int i = 0; i < 2000 && zsim_exchange_count(sim) < count; ++i)
            usleep(1000);
        ASSERT_GE(zsim_exchange_count(sim), count);
    }
    Bytes eeprom(uint32_t address, size_t n)
    {
        Bytes b(n);
        EXPECT_EQ(zsim_eeprom_read(sim, address, b.data(), n), n);
        return b;
    }
    Bytes key(uint32_t index)
    {
        uint8_t k[6] = {};
        EXPECT_EQ(zsim_get_key(sim, index, k), 0);
        return Bytes(k, k + 6);
    }
    Bytes password()
    {
        uint8_t p[8] = {};
        zsim_get_password(sim, p);
        return Bytes(p, p + 8);
    }
};

template <typename Fn> void on_global(ZEL_HANDLE hnd, Fn fn)
{
    zel_handle_record saved;
    std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
    Zel_Hnd_SetGlobal(hnd);
    fn();
    std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
}

TEST_F(SimConfig, KeysPasswordAndTheReadersRefusals)
{
    const Bytes k = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5};
    ASSERT_EQ(ReaderKeyWriteM(hnd, k.data(), 5), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x12, 5, 0, k));
    EXPECT_EQ(key(5), k);
    EXPECT_EQ(ReaderKeyWriteM(hnd, k.data(), 32), ZEL_MAX_KEY_INDEX_EXCEEDED); // the reader's refusal

    // A wrong password leaves the keys open; the right one locks them, and a locked key is not written.
    EXPECT_EQ(ReaderKeysLockM(hnd, kWrong), ZEL_WRONG_PASSWORD);
    EXPECT_EQ(zsim_keys_locked(sim), 0);
    ASSERT_EQ(ReaderKeysLockM(hnd, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x27, 0, 0, PW));
    EXPECT_EQ(zsim_keys_locked(sim), 1);
    const Bytes other = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(ReaderKeyWriteM(hnd, other.data(), 5), ZEL_KEYS_LOCKED);
    EXPECT_EQ(key(5), k);
    EXPECT_EQ(ReaderKeysUnlockM(hnd, kWrong), ZEL_WRONG_PASSWORD);
    EXPECT_EQ(zsim_keys_locked(sim), 1);
    ASSERT_EQ(ReaderKeysUnlockM(hnd, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x28, 0, 0, PW));
    EXPECT_EQ(zsim_keys_locked(sim), 0);

    const uint8_t fresh[8] = {'A', 'B', 'C', 'D', 'E', 'F', 'G', 'H'};
    EXPECT_EQ(ChangeReaderPasswordM(hnd, kWrong, fresh), ZEL_WRONG_PASSWORD);
    EXPECT_EQ(password(), PW);
    ASSERT_EQ(ChangeReaderPasswordM(hnd, kPassword, fresh), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x33, 0, 0, cat({PW, Bytes(fresh, fresh + 8)})));
    EXPECT_EQ(password(), Bytes(fresh, fresh + 8));

    on_global(hnd, [&] {
        EXPECT_EQ(ChangeReaderPassword(fresh, kPassword), ZEL_OK);
        EXPECT_EQ(ReaderKeysLock(kPassword), ZEL_OK);
        EXPECT_EQ(ReaderKeyWrite(other.data(), 1), ZEL_KEYS_LOCKED);
        EXPECT_EQ(ReaderKeysUnlock(kPassword), ZEL_OK);
        EXPECT_EQ(ReaderKeyWrite(other.data(), 1), ZEL_OK);
    });
    EXPECT_EQ(password(), PW);
    EXPECT_EQ(key(1), other);
}

TEST_F(SimConfig, EepromReadAndWrite)
{
    const Bytes data = {0xCA, 0xFE, 0xBA, 0xBE};
    ASSERT_EQ(ReaderEepromWriteM(hnd, data.data(), 700, 4, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x35, 0, 0, cat({le32(700), le32(4), PW, data})));
    EXPECT_EQ(eeprom(700, 4), data);

    // The read request carries as many bytes as it asks for: what the buffer held.
    uint8_t buf[4] = {9, 8, 7, 6};
    ASSERT_EQ(ReaderEepromReadM(hnd, buf, 700, 4), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x34, 0, 0, cat({le32(700), le32(4), {9, 8, 7, 6}})));
    EXPECT_EQ(Bytes(buf, buf + 4), data);

    EXPECT_EQ(ReaderEepromWriteM(hnd, data.data(), 704, 4, kWrong), ZEL_WRONG_PASSWORD);
    EXPECT_EQ(eeprom(704, 4), Bytes(4, 0));
    EXPECT_EQ(ReaderEepromReadM(hnd, buf, 1022, 4), ZEL_MAX_ADDRESS_EXCEEDED);

    // Over 128 bytes is refused before any frame.
    uint8_t big[129] = {};
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(ReaderEepromReadM(hnd, big, 0, 129), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(ReaderEepromWriteM(hnd, big, 0, 129, kPassword), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(zsim_exchange_count(sim), before);

    // 128 bytes, the most one exchange takes, both ways.
    uint8_t full[128];
    for (int i = 0; i < 128; ++i)
        full[i] = static_cast<uint8_t>(i * 3 + 1);
    ASSERT_EQ(ReaderEepromWriteM(hnd, full, 800, 128, kPassword), ZEL_OK);
    uint8_t back[128] = {};
    ASSERT_EQ(ReaderEepromReadM(hnd, back, 800, 128), ZEL_OK);
    EXPECT_EQ(std::memcmp(back, full, 128), 0);

    // The EEPROM route marks the address with its top bit; the reader reads the same bytes.
    hnd->ee_route = 1;
    std::memset(buf, 0, 4);
    ASSERT_EQ(ReaderEepromReadM(hnd, buf, 700, 4), ZEL_OK);
    const Bytes routed = last_request();
    ASSERT_GE(routed.size(), 11u);
    EXPECT_EQ(Bytes(routed.begin() + 7, routed.begin() + 11), le32(0x80000000u | 700));
    EXPECT_EQ(Bytes(buf, buf + 4), data);
    hnd->ee_route = 0;

    on_global(hnd, [&] {
        const uint8_t two[2] = {0x5A, 0xA5};
        uint8_t got[2] = {};
        EXPECT_EQ(ReaderEepromWrite(two, 1000, 2, kPassword), ZEL_OK);
        EXPECT_EQ(ReaderEepromRead(got, 1000, 2), ZEL_OK);
        EXPECT_EQ(Bytes(got, got + 2), Bytes(two, two + 2));
    });
}

TEST_F(SimConfig, UserDataTimeAndJobId)
{
    Bytes user(32);
    for (int i = 0; i < 32; ++i)
        user[i] = static_cast<uint8_t>(0xC0 + i);
    ASSERT_EQ(WriteUserDataM(hnd, user.data(), 0), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x1C, 0, 0, Bytes(user.begin(), user.begin() + 16)));
    EXPECT_EQ(eeprom(644, 16), Bytes(user.begin(), user.begin() + 16));
    ASSERT_EQ(WriteUserDataM(hnd, user.data(), 1), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x1C, 2, 0, user)); // EXT length 0x21
    uint8_t got[32] = {};
    ASSERT_EQ(ReadUserDataM(hnd, got, 1), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x1B, 2, 0));
    EXPECT_EQ(Bytes(got, got + 32), user);
    std::memset(got, 0, sizeof got);
    ASSERT_EQ(ReadUserDataM(hnd, got, 0), ZEL_OK);
    EXPECT_EQ(Bytes(got, got + 16), Bytes(user.begin(), user.begin() + 16));
    EXPECT_EQ(got[16], 0); // the short form fills 16 bytes only

    const Bytes t = {0x1A, 0x0B, 0x16, 0x12, 0x1E, 0x05};
    ASSERT_EQ(SetReaderTimeM(hnd, kPassword, t.data()), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x32, 0, 0, cat({PW, t}))); // EXT length 15
    uint8_t now[6] = {};
    ASSERT_EQ(GetReaderTimeM(hnd, now), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x31, 0, 0));
    EXPECT_EQ(Bytes(now, now + 6), t);
    const Bytes later = {0x1B, 0, 0, 0, 0, 0};
    EXPECT_EQ(SetReaderTimeM(hnd, kWrong, later.data()), ZEL_WRONG_PASSWORD);
    ASSERT_EQ(GetReaderTimeM(hnd, now), ZEL_OK);
    EXPECT_EQ(Bytes(now, now + 6), t);

    ASSERT_EQ(ChangeReaderJobIdM(hnd, 0x1234, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x36, 0, 0, cat({{0x34, 0x12}, PW}))); // EXT length 11
    EXPECT_EQ(eeprom(677, 2), (Bytes{0x34, 0x12}));
    EXPECT_EQ(ChangeReaderJobIdM(hnd, 0x9999, kWrong), ZEL_WRONG_PASSWORD);
    EXPECT_EQ(eeprom(677, 2), (Bytes{0x34, 0x12}));

    on_global(hnd, [&] {
        uint8_t g[16] = {};
        EXPECT_EQ(WriteUserData(user.data() + 16, 0), ZEL_OK);
        EXPECT_EQ(ReadUserData(g, 0), ZEL_OK);
        EXPECT_EQ(Bytes(g, g + 16), Bytes(user.begin() + 16, user.end()));
        EXPECT_EQ(SetReaderTime(kPassword, later.data()), ZEL_OK);
        EXPECT_EQ(GetReaderTime(now), ZEL_OK);
        EXPECT_EQ(Bytes(now, now + 6), later);
        EXPECT_EQ(ChangeReaderJobId(7, kPassword), ZEL_OK);
    });
    EXPECT_EQ(eeprom(677, 2), (Bytes{7, 0}));
}

TEST_F(SimConfig, SubscriptionsAndBusAdminCard)
{
    ASSERT_EQ(SubscribeSectorM(hnd, 9, 0xA1B2C3D4), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xFE, 2, 9, le32(0xA1B2C3D4)));
    ASSERT_EQ(SubscribeBlockM(hnd, 33, 0x01020304), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xFE, 1, 33, le32(0x01020304)));

    // The password and the value's low three bytes, 12 EXT bytes with the checksum.
    ASSERT_EQ(BusAdminCardMakeM(hnd, 0xFF332211, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xFD, 0, 0, cat({PW, {0x11, 0x22, 0x33}})));
    EXPECT_EQ(BusAdminCardMakeM(hnd, 1, kWrong), ZEL_WRONG_PASSWORD);

    on_global(hnd, [&] {
        EXPECT_EQ(SubscribeSector(1, 2), ZEL_OK);
        EXPECT_EQ(SubscribeBlock(3, 4), ZEL_OK);
        EXPECT_EQ(BusAdminCardMake(5, kPassword), ZEL_OK);
    });
}

TEST_F(SimConfig, AsyncCardIdSetupAndItsReadBack)
{
    ASSERT_EQ(SetAsyncCardIdSendConfigM(hnd, 1, 1, '[', ']', 1, 115200), ZEL_OK);
    // Flags in PAR0, then prefix, suffix, baud and the record's own checksum over the flags as well.
    const Bytes rec = {0x07, '[', ']', 0x00, 0xC2, 0x01, 0x00};
    const Bytes tail = {'[', ']', 0x00, 0xC2, 0x01, 0x00, checksum(rec)};
    EXPECT_EQ(last_request(), request(0x3D, 0x07, 0, tail));
    EXPECT_EQ(eeprom(669, 8), cat({rec, {checksum(rec)}}));

    uint32_t send = 9, prefix_on = 9, removed = 9, baud = 0, reverse = 9, decimal = 9;
    uint8_t prefix = 0, suffix = 0;
    ASSERT_EQ(GetAsyncCardIdSendConfigM(hnd, &send, &prefix_on, &prefix, &suffix, &removed, &baud), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x3E, 0, 0));
    EXPECT_EQ((std::vector<uint32_t>{send, prefix_on, removed, baud}), (std::vector<uint32_t>{1, 1, 1, 115200}));
    EXPECT_EQ(prefix, '[');
    EXPECT_EQ(suffix, ']');

    // The extended form adds byte order and decimal, bits 3 and 4.
    ASSERT_EQ(SetAsyncCardIdSendConfigExM(hnd, 1, 0, 'x', 'y', 0, 1, 1, 9600), ZEL_OK);
    EXPECT_EQ(last_request()[4], 0x19);
    EXPECT_EQ(eeprom(669, 1)[0], 0x19);
    ASSERT_EQ(
        GetAsyncCardIdSendConfigExM(hnd, &send, &prefix_on, &prefix, &suffix, &removed, &reverse, &decimal, &baud),
        ZEL_OK);
    EXPECT_EQ((std::vector<uint32_t>{send, prefix_on, removed, reverse, decimal, baud}),
              (std::vector<uint32_t>{1, 0, 0, 1, 1, 9600}));
    EXPECT_EQ(prefix, 'x');
    EXPECT_EQ(suffix, 'y');

    // The JSON form: PAR1 1, no prefix or suffix, and its second flag sets bits 1 and 2 together.
    ASSERT_EQ(SetAsyncCardJsonSendConfigM(hnd, 1, 1, 57600), ZEL_OK);
    const Bytes jrec = {0x07, 0, 0, 0x00, 0xE1, 0x00, 0x00};
    EXPECT_EQ(last_request(), request(0x3D, 0x07, 1, {0, 0, 0x00, 0xE1, 0x00, 0x00, checksum(jrec)}));
    uint32_t jsend = 0, jremoved = 0, jbaud = 0;
    ASSERT_EQ(GetAsyncCardJsonSendConfigM(hnd, &jsend, &jremoved, &jbaud), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x3E, 0, 1));
    EXPECT_EQ((std::vector<uint32_t>{jsend, jremoved, jbaud}), (std::vector<uint32_t>{1, 1, 57600}));

    // A record whose own checksum does not hold is no setup.
    const uint8_t spoilt = 0x00;
    ASSERT_EQ(zsim_eeprom_write(sim, 676, &spoilt, 1), 0);
    EXPECT_EQ(GetAsyncCardIdSendConfigM(hnd, &send, &prefix_on, &prefix, &suffix, &removed, &baud),
              ZEL_COMMUNICATION_ERROR);

    on_global(hnd, [&] {
        EXPECT_EQ(SetAsyncCardIdSendConfig(0, 0, '!', '!', 0, 1000000), ZEL_OK);
        EXPECT_EQ(GetAsyncCardIdSendConfig(&send, &prefix_on, &prefix, &suffix, &removed, &baud), ZEL_OK);
        EXPECT_EQ(baud, 1000000u);
        EXPECT_EQ(SetAsyncCardIdSendConfigEx(0, 0, '!', '!', 0, 0, 1, 1000000), ZEL_OK);
        EXPECT_EQ(GetAsyncCardIdSendConfigEx(&send, &prefix_on, &prefix, &suffix, &removed, &reverse, &decimal, &baud),
                  ZEL_OK);
        EXPECT_EQ(decimal, 1u);
        EXPECT_EQ(SetAsyncCardJsonSendConfig(1, 0, 1000000), ZEL_OK);
        EXPECT_EQ(GetAsyncCardJsonSendConfig(&jsend, &jremoved, &jbaud), ZEL_OK);
        EXPECT_EQ(jremoved, 0u);
    });
}

TEST_F(SimConfig, UserInterfaceAndSpeedSettings)
{
    const Bytes ui = {1, 2, 3, 4, 5, 6, 7};
    ASSERT_EQ(SetCustomUiConfigM(hnd, ui.data()), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x65, 0, 0, ui)); // EXT length 8
    uint8_t got[7] = {};
    ASSERT_EQ(GetCustomUiConfigM(hnd, got), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x66, 0, 0));
    EXPECT_EQ(Bytes(got, got + 7), ui);

    ASSERT_EQ(SetSpeedPermanentlyM(hnd, 2, 1), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x4B, 2, 1));
    // Kept as one marked byte (second value in bits 3 and 2, first in 1 and 0) and its complement.
    EXPECT_EQ(eeprom(662, 2), (Bytes{0x56, 0xA9}));
    uint8_t tx = 9, rx = 9;
    ASSERT_EQ(GetSpeedParametersM(hnd, &tx, &rx), ZEL_OK);
    EXPECT_EQ(last_request(), request(0x4C, 0, 0));
    EXPECT_EQ((Bytes{tx, rx}), (Bytes{2, 1}));

    // Through the EEPROM route the library writes and checks that record itself.
    hnd->ee_route = 1;
    ASSERT_EQ(SetSpeedPermanentlyM(hnd, 1, 3), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE3, 0, 0, cat({le32(662), le32(2), {0x5D, 0xA2}})));
    ASSERT_EQ(GetSpeedParametersM(hnd, &tx, &rx), ZEL_OK);
    EXPECT_EQ((Bytes{tx, rx}), (Bytes{1, 3}));
    const uint8_t bad[2] = {0x5D, 0x00};
    ASSERT_EQ(zsim_eeprom_write(sim, 662, bad, 2), 0);
    EXPECT_EQ(GetSpeedParametersM(hnd, &tx, &rx), ZEL_CHKSUM_ERROR);
    hnd->ee_route = 0;

    on_global(hnd, [&] {
        EXPECT_EQ(SetCustomUiConfig(ui.data()), ZEL_OK);
        EXPECT_EQ(GetCustomUiConfig(got), ZEL_OK);
        EXPECT_EQ(SetSpeedPermanently(0, 3), ZEL_OK);
        EXPECT_EQ(GetSpeedParameters(&tx, &rx), ZEL_OK);
        EXPECT_EQ((Bytes{tx, rx}), (Bytes{0, 3}));
    });
}

TEST_F(SimConfig, UartSpeedMovesTheReaderAndTheHost)
{
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(SetUartSpeedM(hnd, 123456), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(zsim_exchange_count(sim), before);

    ASSERT_EQ(SetUartSpeedM(hnd, 115200), ZEL_OK);
    wait_for_exchange(before + 1);
    EXPECT_EQ(last_request(), request(0x70, 0, 0, le32(115200)));
    EXPECT_EQ(zsim_baud(sim), 115200u);
    EXPECT_EQ(hnd->baud_rate, 115200u);
    // The reader runs on: the next command is answered.
    uint32_t type = 0;
    EXPECT_EQ(GetReaderTypeM(hnd, &type), ZEL_OK);

    on_global(hnd, [&] { EXPECT_EQ(SetUartSpeed(1000000), ZEL_OK); });
    wait_for_exchange(before + 3);
    EXPECT_EQ(zsim_baud(sim), 1000000u);
}

TEST_F(SimConfig, DefaultSpeedRepairCatchesTheBootLoader)
{
    // The reset line is a GPIO pin here, whose running edge restarts the simulated reader at once.
    zsim_set_time_scale(sim, 0);
    hnd->gpio_reset = 1;
    // The repair closes the port right after the new rate goes out; a tenth of each pause lets the reader
    // take those bytes before the line goes away.
    zel::set_sleep_hook([](uint32_t ms) { usleep(ms * 100); });
    zel::set_pin_command_hook([](const char *command) {
        if (std::strstr(command, "op dl"))
            zsim_reset(g_sim);
        return 0;
    });
    EXPECT_EQ(SetUartDefaultSpeedM(hnd, 0, 3, path), ZEL_PARAMETERS_ERROR);
    const uint64_t resets = zsim_reset_count(sim);
    const uint64_t before = zsim_exchange_count(sim);
    ASSERT_EQ(SetUartDefaultSpeedM(hnd, 0, 1, path), ZEL_OK);
    wait_for_exchange(before + 2);                // the rate check and the new rate
    EXPECT_GE(zsim_reset_count(sim), resets + 2); // the open's reset and the repair's own
    EXPECT_EQ(last_request(), request(0x70, 0, 0, le32(115200)));
    EXPECT_EQ(zsim_baud(sim), 115200u);
    // The port is closed at the end, as the repair is done with the reader.
    uint32_t type = 0;
    EXPECT_NE(GetReaderTypeM(hnd, &type), ZEL_OK);

    // A type 1 reader is moved to 1,000,000.
    ASSERT_EQ(SetUartDefaultSpeedM(hnd, 1, 1, path), ZEL_OK);
    wait_for_exchange(before + 4);
    EXPECT_EQ(zsim_baud(sim), 1000000u);
}

TEST_F(SimConfig, RecordsWrittenThroughTheEeprom)
{
    const Bytes sam_key = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
    ASSERT_EQ(WriteSamUnlockKeyM(hnd, 2, 7, sam_key.data()), ZEL_OK);
    const Bytes rec = cat({{2, 7}, sam_key});
    EXPECT_EQ(eeprom(602, 19), cat({rec, {checksum(rec)}}));
    EXPECT_EQ(last_request(), request(0xE3, 0, 0, cat({le32(602), le32(19), rec, {checksum(rec)}})));

    Bytes id(16);
    for (int i = 0; i < 16; ++i)
        id[i] = static_cast<uint8_t>(0xF0 - i);
    ASSERT_EQ(WriteReaderIdM(hnd, id.data()), ZEL_OK);
    EXPECT_EQ(eeprom(621, 16), id);

    on_global(hnd, [&] {
        EXPECT_EQ(WriteSamUnlockKey(3, 1, sam_key.data()), ZEL_OK);
        EXPECT_EQ(WriteReaderId(sam_key.data()), ZEL_OK);
    });
    EXPECT_EQ(eeprom(602, 2), (Bytes{3, 1}));
    EXPECT_EQ(eeprom(621, 16), sam_key);
}

TEST_F(SimConfig, StoredDataThroughTheEepromRoute)
{
    hnd->ee_route = 1;
    const Bytes k = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66};
    ASSERT_EQ(ReaderKeyWriteM(hnd, k.data(), 3), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE3, 0, 0, cat({le32(154 + 18), le32(6), k})));
    EXPECT_EQ(key(3), k);
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(ReaderKeyWriteM(hnd, k.data(), 32), ZEL_MAX_KEY_INDEX_EXCEEDED);
    EXPECT_EQ(zsim_exchange_count(sim), before);

    EXPECT_EQ(ReaderKeysLockM(hnd, kWrong), ZEL_WRONG_PASSWORD);
    ASSERT_EQ(ReaderKeysLockM(hnd, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE1, 0, 0, cat({{1}, PW}))); // EXT length 10
    EXPECT_EQ(zsim_keys_locked(sim), 1);
    EXPECT_EQ(ReaderKeyWriteM(hnd, k.data(), 4), ZEL_KEYS_LOCKED);
    ASSERT_EQ(ReaderKeysUnlockM(hnd, kPassword), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE1, 0, 0, cat({{0}, PW})));
    EXPECT_EQ(zsim_keys_locked(sim), 0);

    const uint8_t fresh[8] = {'Z', 'Z', 'Z', 'Z', '0', '0', '0', '0'};
    EXPECT_EQ(ChangeReaderPasswordM(hnd, kWrong, fresh), ZEL_WRONG_PASSWORD);
    ASSERT_EQ(ChangeReaderPasswordM(hnd, kPassword, fresh), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE0, 0, 0, cat({PW, Bytes(fresh, fresh + 8)}))); // EXT length 17
    EXPECT_EQ(password(), Bytes(fresh, fresh + 8));

    ASSERT_EQ(ChangeReaderJobIdM(hnd, 0xBEEF, nullptr), ZEL_OK);
    EXPECT_EQ(eeprom(677, 2), (Bytes{0xEF, 0xBE}));

    Bytes user(16, 0x5C);
    ASSERT_EQ(WriteUserDataM(hnd, user.data(), 0), ZEL_OK);
    EXPECT_EQ(eeprom(644, 16), user);
    uint8_t got[32] = {};
    ASSERT_EQ(ReadUserDataM(hnd, got, 0), ZEL_OK);
    EXPECT_EQ(Bytes(got, got + 16), user);
    // The map has no room for the extended half: nothing is sent, and the settings behind stay.
    const Bytes settings = eeprom(660, 17);
    const uint64_t sent = zsim_exchange_count(sim);
    Bytes wide(32, 0x77);
    EXPECT_EQ(WriteUserDataM(hnd, wide.data(), 1), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(ReadUserDataM(hnd, got, 1), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(zsim_exchange_count(sim), sent);
    EXPECT_EQ(eeprom(660, 17), settings);

    ASSERT_EQ(SetAsyncCardIdSendConfigM(hnd, 1, 0, '<', '>', 1, 19200), ZEL_OK);
    EXPECT_EQ(last_request()[1], 0xE3);
    uint32_t send = 0, prefix_on = 9, removed = 0, baud = 0;
    uint8_t prefix = 0, suffix = 0;
    ASSERT_EQ(GetAsyncCardIdSendConfigM(hnd, &send, &prefix_on, &prefix, &suffix, &removed, &baud), ZEL_OK);
    EXPECT_EQ(last_request()[1], 0xE2);
    EXPECT_EQ((std::vector<uint32_t>{send, prefix_on, removed, baud}), (std::vector<uint32_t>{1, 0, 1, 19200}));
    EXPECT_EQ(prefix, '<');
    // The reader's own read-back sees the record the route wrote.
    hnd->ee_route = 0;
    ASSERT_EQ(GetAsyncCardIdSendConfigM(hnd, &send, &prefix_on, &prefix, &suffix, &removed, &baud), ZEL_OK);
    EXPECT_EQ(suffix, '>');
    EXPECT_EQ(baud, 19200u);
}

TEST_F(SimConfig, PlainEepromCommands)
{
    const Bytes data = {0x10, 0x20, 0x30};
    ASSERT_EQ(EE_WriteM(hnd, 900, 3, data.data()), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE3, 0, 0, cat({le32(900), le32(3), data})));
    EXPECT_EQ(eeprom(900, 3), data);
    uint8_t got[3] = {};
    ASSERT_EQ(EE_ReadM(hnd, 900, 3, got), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE2, 0, 0, cat({le32(900), le32(3)}))); // EXT length 9
    EXPECT_EQ(Bytes(got, got + 3), data);

    EXPECT_EQ(EE_ReadM(hnd, 0, 1, nullptr), ZEL_NO_MEMORY_ERROR);
    Bytes big(185, 0);
    const uint64_t before = zsim_exchange_count(sim);
    EXPECT_EQ(EE_WriteM(hnd, 0, 185, big.data()), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(zsim_exchange_count(sim), before);
    ASSERT_EQ(EE_WriteM(hnd, 800, 184, big.data()), ZEL_OK); // the largest write
    EXPECT_EQ(EE_WriteM(hnd, 1000, 30, big.data()), ZEL_MAX_ADDRESS_EXCEEDED);

    EXPECT_EQ(EE_LockM(hnd, kWrong, 1), ZEL_WRONG_PASSWORD);
    ASSERT_EQ(EE_LockM(hnd, kPassword, 1), ZEL_OK);
    EXPECT_EQ(zsim_keys_locked(sim), 1);
    ASSERT_EQ(EE_LockM(hnd, kPassword, 0), ZEL_OK);
    EXPECT_EQ(zsim_keys_locked(sim), 0);

    const uint8_t fresh[8] = {'n', 'e', 'w', 'p', 'a', 's', 's', '!'};
    EXPECT_EQ(EE_Password_ChangeM(hnd, kWrong, fresh), ZEL_WRONG_PASSWORD);
    ASSERT_EQ(EE_Password_ChangeM(hnd, kPassword, fresh), ZEL_OK);
    EXPECT_EQ(password(), Bytes(fresh, fresh + 8));

    on_global(hnd, [&] {
        uint8_t one = 0;
        EXPECT_EQ(EE_Write(5, 1, data.data()), ZEL_OK);
        EXPECT_EQ(EE_Read(5, 1, &one), ZEL_OK);
        EXPECT_EQ(one, 0x10);
        EXPECT_EQ(EE_Lock(fresh, 1), ZEL_OK);
        EXPECT_EQ(EE_Password_Change(fresh, kPassword), ZEL_OK);
    });
    EXPECT_EQ(zsim_keys_locked(sim), 1);
    EXPECT_EQ(password(), PW);
}

TEST_F(SimConfig, SmallCommandsAndReaderStatus)
{
    EXPECT_EQ(CheckUidChangeableM(hnd), ZEL_NO_CARD);
    EXPECT_EQ(last_request(), request(0xE4, 0, 0));
    const zsim_card card = {{0x04, 0x11, 0x22, 0x33}, 4, 0x08, 0x0004, 0};
    ASSERT_EQ(zsim_card_add(sim, &card), 0);
    EXPECT_EQ(CheckUidChangeableM(hnd), ZEL_COMMAND_NOT_SUPPORTED); // a plain card keeps its UID

    ASSERT_EQ(ReaderRfResetM(hnd, 3), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE5, 3, 0));

    uint32_t reader = 9, card_state = 9, emulation = 9;
    uint8_t sleep = 9;
    ASSERT_EQ(GetReaderStatusM(hnd, &reader, &card_state, &emulation, &sleep), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE6, 0, 0));
    EXPECT_EQ((std::vector<uint32_t>{reader, card_state, emulation, sleep}), (std::vector<uint32_t>{0, 1, 0, 0}));
    zsim_field_clear(sim);
    ASSERT_EQ(GetReaderStatusM(hnd, &reader, &card_state, &emulation, &sleep), ZEL_OK);
    EXPECT_EQ(card_state, 0u);

    uint8_t status[ZEL_READER_STATUS_EX_MAX_LEN] = {};
    uint8_t len = 0;
    ASSERT_EQ(GetReaderStatusExM(hnd, status, &len), ZEL_OK);
    EXPECT_EQ(last_request(), request(0xE6, 1, 0));
    EXPECT_EQ(len, 4);
    EXPECT_EQ(Bytes(status, status + 4), (Bytes{0, 0, 0, 0}));

    on_global(hnd, [&] {
        EXPECT_EQ(CheckUidChangeable(), ZEL_NO_CARD);
        EXPECT_EQ(ReaderRfReset(1), ZEL_OK);
        EXPECT_EQ(GetReaderStatus(&reader, &card_state, &emulation, &sleep), ZEL_OK);
        EXPECT_EQ(GetReaderStatusEx(status, &len), ZEL_OK);
    });
}

} // namespace

namespace {

// Opening the simulated reader's port through the serial routines of the device layer.
TEST_F(SimConfig, SerialPortOpensAtATableRate)
{
    ZEL_HANDLE h = Zel_Hnd_Create();
    h->br_custom = ZEL_BR_NONE;
    ASSERT_EQ(rs232_serial_port_init_Hnd(h, path, 3), 0);
    EXPECT_EQ(h->idx_speed, 3u);
    EXPECT_EQ(h->baud_rate, zel_baud_table[3]);
    EXPECT_EQ(h->comm.use, ZEL_PORT_SERIAL);
    EXPECT_EQ(h->opened, 1u);
    EXPECT_STREQ(h->try_port, path);
    uint32_t type = 0;
    EXPECT_EQ(GetReaderTypeM(h, &type), ZEL_OK); // the reader answers on the port opened
    EXPECT_EQ(type, 0xD1180022u);
    PortClose(h);

    // A rate asked for by index goes before the one given, unless it is "none".
    h->br_custom = 7;
    ASSERT_EQ(rs232_serial_port_init_Hnd(h, path, 1), 0);
    EXPECT_EQ(h->idx_speed, 7u);
    EXPECT_EQ(h->baud_rate, zel_baud_table[7]);
    PortClose(h);

    // The device-type form keeps the port text and the custom rate out of it.
    std::snprintf(h->try_port, sizeof h->try_port, "%s", "untouched");
    ASSERT_EQ(rs232_serial_port_init_Hnd_device_type(h, path, 2, 5), 0);
    EXPECT_EQ(h->idx_speed, 2u);
    EXPECT_EQ(h->device_index, 5);
    EXPECT_STREQ(h->try_port, "untouched");
    PortClose(h);

    // A port that is not there.
    EXPECT_EQ(rs232_serial_port_init_Hnd(h, "/dev/zel-no-such-port", 1), -2);
    EXPECT_EQ(h->opened, 0u);
    EXPECT_EQ(rs232_serial_port_init_Hnd_device_type(h, path, ZEL_BAUD_TABLE_LEN, 0), -2);
    EXPECT_EQ(rs232_serial_port_init(h, nullptr, 115200), 0);
    Zel_Hnd_Destroy(h);
}

} // namespace
