// The reader's outputs and tuning as the reader keeps them: lights, sound, display, speaker, sleep, the door
// controller's outputs, the RF analog register sets, the secure element on its I2C bus and the feature
// blocks. Each change is also written to a log of text lines.
#ifndef ZELSIM_SIGNALS_H
#define ZELSIM_SIGNALS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zs {

struct Reader;
struct Answer;

// Where the reader keeps three of these settings in its EEPROM.
constexpr size_t EE_DISPLAY_INTENSITY = 829; // value, value XOR 163
constexpr size_t EE_AUTO_SLEEP = 831;        // seconds
constexpr size_t EE_GREEN_LED = 832;         // state, state XOR 163, 0

// The secure element's zones, of the chip's sizes.
constexpr size_t SE_CONFIG_LEN = 128, SE_OTP_LEN = 64, SE_SLOTS = 16;
// Data slot sizes: 0 to 7 hold 36 bytes, 8 holds 416, 9 to 15 hold 72.
size_t se_slot_len(size_t slot);

// One RF analog register set: its bytes as the set command sends them, and the reader's default.
struct RfSet {
    uint8_t bytes[5] = {};
    uint8_t defaults[5] = {};
    uint8_t len = 5; // 5 for the type A, type B and PN7462 sets, 2 for the 212 and 424 sets
};

struct Outputs {
    // Sound and light.
    uint8_t ui_light = 0, ui_sound = 0;
    uint16_t sound_ms = 0; // the last sound's length as the host sent it
    uint8_t red_light = 0, ext_light = 0;
    // The RGB light: the last form (0 plain, 1 sleep, 2 RF), colour, intensity, and the timed forms' values.
    uint8_t rgb_form = 0, rgb[3] = {}, rgb_intensity = 0, rgb_enable = 0, rgb_mode = 0;
    uint16_t rgb_time = 0, rgb_rf = 0;
    bool rgb_internal = true;
    // Display and speaker.
    std::vector<uint8_t> display;
    uint8_t display_option = 0;
    uint16_t speaker_divider = 0xFFFF;
    // Power.
    bool sleeping = false;
    uint8_t bad_select = 3;
    // The door controller.
    uint16_t lock_on = 0;
    uint8_t relay = 0;
    uint8_t outs[4] = {}, out_option = 0;
    uint8_t io_state[2] = {0x01, 0x00};
    uint8_t inputs[4] = {1, 0, 1, 0};
    // Service data, the I2C bus and the lock status.
    uint8_t service[4] = {};
    std::vector<uint8_t> i2c{0x60};
    uint8_t lock_status = 0;
    // RF sets by their number: 1 type A, 2 type B, 3 ISO 14443 212, 4 ISO 14443 424, 6 PN7462.
    RfSet rf[7];
    // The secure element.
    uint8_t se_config[SE_CONFIG_LEN] = {};
    uint8_t se_otp[SE_OTP_LEN] = {};
    std::vector<uint8_t> se_slot[SE_SLOTS];
    uint8_t se_info[4] = {0x00, 0x00, 0x60, 0x02};
    bool se_io_key = false;
    // Feature blocks: the discovery loop (129) and the mobile unique id AID block (130); the mobile data.
    std::vector<uint8_t> discovery;
    uint8_t mobile_aid[17] = {};
    std::vector<uint8_t> mobile_data;
    // What changed, one line each, oldest first.
    std::vector<std::string> log;

    Outputs();
};

// CRC-8 of the feature blocks: polynomial 0x31, initial 0xFF.
uint8_t feature_crc(const uint8_t *p, size_t n);

// Whether the reader takes an EXT for this frame, and its answer; false when the command is not one of these.
bool outputs_wants_ext(const Reader &r, const uint8_t f[7]);
bool outputs_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a);

} // namespace zs
#endif
