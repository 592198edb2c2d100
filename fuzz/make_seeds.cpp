// Writes the seeds of the fuzz targets that play a reader from their input: each seed is the option bytes
// of the target followed by what the simulated reader said in the same operation, so that the fuzzer starts
// from complete, genuine dialogues. Run from the source tree: make_seeds fuzz/corpus
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/internal.h"
#include "sim_recorder.h"
#include "tandro.h"
#include "zelsim.h"

namespace {

std::string g_root;
int g_written = 0;

void write_seed(const std::string &target, const std::string &name, const std::vector<uint8_t> &prefix,
                const std::vector<uint8_t> &bytes)
{
    const std::string dir = g_root + "/" + target;
    const std::string path = dir + "/" + name;
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) {
        std::fprintf(stderr, "cannot write %s\n", path.c_str());
        return;
    }
    std::fwrite(prefix.data(), 1, prefix.size(), f);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
    ++g_written;
    std::printf("%s: %zu bytes\n", path.c_str(), prefix.size() + bytes.size());
}

void no_sleep(uint32_t) {}

// Runs setup unrecorded, then op recorded, on a reader loaded with the scenario.
void record(const std::string &target, const std::string &name, const std::vector<uint8_t> &prefix,
            const char *scenario, const std::function<void(ZEL_HANDLE)> &setup,
            const std::function<void(ZEL_HANDLE)> &op)
{
    zsim *sim = zsim_new();
    zsim_set_time_scale(sim, 0);
    char err[256] = {};
    if (scenario && zsim_load_scenario(sim, scenario, err, sizeof err) != 0) {
        std::fprintf(stderr, "%s/%s: %s\n", target.c_str(), name.c_str(), err);
        zsim_free(sim);
        return;
    }
    {
        zelfuzz::SimRecorder rec(sim);
        if (setup)
            setup(&rec.record);
        rec.recorded.clear();
        op(&rec.record);
        write_seed(target, name, prefix, rec.recorded);
    }
    zsim_free(sim);
}

std::string card(const char *uid, const char *type, const char *model, const char *setup)
{
    std::string s =
        std::string(R"({"cards": [{"uid": ")") + uid + R"(", "type": ")" + type + R"(", "model": ")" + model + "\"";
    if (setup)
        s += std::string(", \"setup\": ") + setup;
    return s + "}]}";
}

// One URI record appended to the card's first message (formatting a blank card first).
void write_uri(ZEL_HANDLE h)
{
    uint8_t tnf = 1, type[1] = {'U'}, type_len = 1, id[1] = {0}, id_len = 0, formatted = 0;
    uint8_t payload[64] = {0x04, 't', 'a', 'n', 'd', 'r', 'o', '.', 'e', 'x', 'a', 'm', 'p', 'l', 'e'};
    uint32_t payload_len = 15;
    write_ndef_recordHnd(h, 1, &tnf, type, &type_len, id, &id_len, payload, &payload_len, &formatted);
}

void ndef_card_seeds()
{
    const std::string t = "fuzz_ndef_card";
    struct Card {
        const char *name;
        std::string scenario;
    };
    const Card cards[] = {
        {"classic", card("C1C2C3C4", "ORB_MIFARE_CLASSIC_1K", "classic_1k", nullptr)},
        {"classic4k", card("C1C2C3C4", "ORB_MIFARE_CLASSIC_4K", "classic_4k", nullptr)},
        {"ntag215",
         card("04A22B1A5C6480", "ORB_NTAG_215", "ntag215", R"({"pages": [{"page": 4, "data": "0300FE00"}]})")},
        {"vicinity", card("E004010203040506", "50", "iso15693", R"({"blocks": 28})")},
        {"t4", card("04518A2B3C4D80", "ORB_GENERIC_ISO14443_4", "ndef_t4",
                    R"({"mle": 255, "message": "D1010F550474616E64726F2E6578616D706C65", "file_size": 512})")},
    };
    for (const Card &c : cards) {
        const bool t4 = std::strcmp(c.name, "t4") == 0;
        const auto setup = t4 ? std::function<void(ZEL_HANDLE)>() : std::function<void(ZEL_HANDLE)>(write_uri);
        record(t, std::string("count_") + c.name, {0}, c.scenario.c_str(), setup, [](ZEL_HANDLE h) {
            uint8_t m = 0, r = 0, e = 0, array[ZEL_NDEF_RECORD_ARRAY_LEN];
            get_ndef_record_countHnd(h, &m, &r, array, &e);
        });
        record(t, std::string("read_") + c.name, {1 | 1 << 2 | 1 << 4}, c.scenario.c_str(), setup, [](ZEL_HANDLE h) {
            static uint8_t type[255], id[255], payload[ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK];
            uint8_t tnf = 0, tl = 0, il = 0;
            uint32_t pl = 0;
            read_ndef_recordHnd(h, 1, 1, &tnf, type, &tl, id, &il, payload, &pl);
        });
    }
    const std::string desfire = card("04D35F1E6A2B80", "ORB_MIFARE_DESFIRE_EV1_4K", "desfire", R"({"size": 4096})");
    const auto df_setup = [](ZEL_HANDLE h) {
        Zel_int_DesfireNDEFFormatHnd(h, 512, 0);
        Zel_int_DesfireWriteNDEFPayloadHnd(h, "tandro.example/df");
    };
    record(t, "desfire_message", {2}, desfire.c_str(), df_setup, [](ZEL_HANDLE h) {
        static uint8_t msg[ZEL_DESFIRE_NDEF_MAX_MESSAGE];
        uint32_t len = 0;
        Zel_int_DesfireReadNDEFMessageHnd(h, msg, &len);
    });
    record(t, "desfire_payload", {3 | 3 << 2}, desfire.c_str(), df_setup, [](ZEL_HANDLE h) {
        char text[1 + 3 * 40];
        uint32_t n = sizeof text;
        Zel_int_DesfireReadNDEFPayloadExHnd(h, text, &n);
        static char whole[ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1];
        Zel_int_DesfireReadNDEFPayloadHnd(h, whole);
    });
}

void reader_seeds()
{
    const std::string t = "fuzz_reader_replies";
    // The target's own operation table, run against the simulated reader.
    for (unsigned op = 0; op < 16; ++op) {
        const uint8_t arg = op == 8 ? 15 : op == 14 ? 7 : 1;
        record(t, "op" + std::to_string(op), {static_cast<uint8_t>(op), arg}, nullptr, nullptr,
               [op, arg](ZEL_HANDLE h) {
                   uint8_t buf[300] = {};
                   uint32_t a = 0, b = 0, c = 0, d = 0, e = 0, f = 0;
                   uint8_t x = 0, y = 0, z = 0, w = 0, v = 0;
                   uint64_t serial = 0;
                   uint16_t raw = 0;
                   const char *text = nullptr;
                   switch (op) {
                   case 0:
                       GetReaderTypeHnd(h, &a);
                       GetReaderSerialNumberHnd(h, &b);
                       break;
                   case 1: GetReaderSerialDescriptionHnd(h, buf); break;
                   case 2:
                       GetReaderFirmwareVersionHnd(h, &x, &y);
                       GetBuildNumberHnd(h, &z);
                       GetReaderHardwareVersionHnd(h, &w, &v);
                       break;
                   case 3: GetReaderParametersHnd(h, buf, &serial, &x, &y, &a, &z, &w, &v); break;
                   case 4: GetReaderParameters2Hnd(h, buf, &serial, &x, &y, &a, &z, &w, &v); break;
                   case 5: GetReaderParametersDefaultBaudrateHnd(h, buf, &serial, &x, &y, &a, &z, &w, &v); break;
                   case 6: GetReaderProModeHnd(h, &a, &raw); break;
                   case 7: GetReaderInfoStrHnd(h, &text); break;
                   case 8: ReaderEepromReadHnd(h, buf, arg, 1u + arg % 128u); break;
                   case 9: ReadUserDataHnd(h, buf, arg & 1); break;
                   case 10: GetReaderTimeHnd(h, buf); break;
                   case 11:
                       GetAsyncCardIdSendConfigHnd(h, &a, &b, &x, &y, &c, &d);
                       GetAsyncCardIdSendConfigExHnd(h, &a, &b, &x, &y, &c, &e, &f, &d);
                       GetAsyncCardJsonSendConfigHnd(h, &a, &b, &c);
                       break;
                   case 12:
                       GetCustomUiConfigHnd(h, buf);
                       GetSpeedParametersHnd(h, &x, &y);
                       break;
                   case 13:
                       GetReaderStatusHnd(h, &a, &b, &c, &x);
                       GetReaderStatusExHnd(h, buf, &y);
                       break;
                   case 14: EE_ReadHnd(h, arg * 4u, 1u + arg, buf); break;
                   default: {
                       CheckUidChangeableHnd(h);
                       ReaderRfResetHnd(h, arg & 3);
                       const uint8_t password[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
                       ReaderKeysUnlockHnd(h, password);
                       break;
                   }
                   }
               });
    }
}

void raw_and_open_seeds()
{
    const std::string ntag = card("04A22B1A5C6480", "ORB_NTAG_215", "ntag215", nullptr);
    const std::string iso4 =
        card("04518A2B3C4D80", "ORB_GENERIC_ISO14443_4", "ndef_t4", R"({"message": "D10101540061"})");
    static const uint8_t kSend[8] = {0x26, 0x93, 0x20, 0x30, 0x04, 0xA2, 0x05, 0x00};
    record("fuzz_raw_atr", "front_end", {0, 2}, ntag.c_str(), nullptr, [](ZEL_HANDLE h) {
        uint8_t recv[254];
        uint32_t n = 0;
        card_transceiveHnd(h, 0, 1, 0, 1, 0, 2, kSend, 2, recv, &n);
    });
    record("fuzz_raw_atr", "raw_mode", {1, 16}, ntag.c_str(), nullptr, [](ZEL_HANDLE h) {
        uint8_t recv[16];
        uint32_t n = 0;
        card_transceive_mode_startHnd(h, 0, 0, 16, 50);
        uart_transceiveHnd(h, kSend, 1, recv, 16, &n);
        card_transceive_mode_stopHnd(h);
    });
    for (int generic = 0; generic < 2; ++generic)
        record("fuzz_raw_atr", generic ? "atr_generic" : "atr", {static_cast<uint8_t>(2 + generic), 39}, iso4.c_str(),
               nullptr, [generic](ZEL_HANDLE h) {
                   uint8_t atr[39];
                   uint32_t n = sizeof atr;
                   if (generic)
                       Open_ISO7816_GenericHnd(h, atr, &n);
                   else
                       open_ISO7816_interfaceHnd(h, atr, &n);
                   APDU_switch_off_from_ISO7816_interfaceHnd(h);
                   close_ISO7816_interface_no_APDUHnd(h);
               });
    const std::string o = "fuzz_open_dialogue";
    // Reset disabled (1 << 4): the firmware test alone; the serial number; the presence test.
    record(o, "fw_test", {0 | 1 << 4, 0}, nullptr, nullptr, [](ZEL_HANDLE h) {
        h->reset_on_open = UNIT_OPEN_RESET_DISABLE;
        test_reader_fw_version(h);
    });
    record(o, "serial", {1, 0}, nullptr, nullptr, [](ZEL_HANDLE h) { test_reader_sn(h); });
    record(o, "esp", {2, 0}, nullptr, nullptr, [](ZEL_HANDLE h) { test_esp_sn(h); });
    record(o, "still_connected", {5, 0}, nullptr, nullptr, [](ZEL_HANDLE h) {
        uint32_t c = 0;
        ReaderStillConnectedHnd(h, &c);
    });
    record(o, "restart", {6, 0}, nullptr, nullptr, [](ZEL_HANDLE h) {
        ReaderSoftRestartHnd(h);
        ReaderResetNoWaitFWHnd(h);
    });
    record(o, "session", {7 | 1 << 4, 0}, nullptr, nullptr, [](ZEL_HANDLE h) {
        h->reset_on_open = UNIT_OPEN_RESET_DISABLE;
        EspSetTransparentReaderSessionHnd(h, 0);
        test_reader_fw_version(h);
        test_reader_sn(h);
    });
}

} // namespace

int main(int argc, char **argv)
{
    g_root = argc > 1 ? argv[1] : "fuzz/corpus";
    zel::set_sleep_hook(no_sleep);
    ndef_card_seeds();
    reader_seeds();
    raw_and_open_seeds();
    zel::set_sleep_hook(nullptr);
    std::printf("%d seeds\n", g_written);
    return g_written > 0 ? 0 : 1;
}
