// The reader model: identity, stored state, the field of cards, and the answer to each command.
#ifndef ZELSIM_READER_H
#define ZELSIM_READER_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "card.h"
#include "display.h"
#include "records.h"
#include "emulation.h"
#include "signals.h"
#include "zelsim.h"

namespace zs {

constexpr size_t MAX_CARDS = 16;
constexpr size_t EEPROM_SIZE = 1024;
constexpr size_t KEY_COUNT = 32;

// Where the reader keeps its settings in its EEPROM (the same addresses the EEPROM commands reach).
constexpr size_t EE_SERIAL_DESC = 0; // 8 characters
constexpr size_t EE_KEYS = 154;      // 32 reader keys of 6 bytes
constexpr size_t EE_READER_ID = 621; // 16
constexpr size_t EE_USER_DATA = 644; // 16
constexpr size_t EE_PRO_MODE = 660;  // 2
constexpr size_t EE_SPEED = 662;     // mark byte and its complement
constexpr size_t EE_ASYNC = 669;     // flags, prefix, suffix, baud (4), inner checksum
constexpr size_t EE_JOB_ID = 677;    // 2, little-endian

// Bits of the asynchronous card id setup (the flags byte).
constexpr uint8_t ASYNC_SEND = 0x01, ASYNC_PREFIX = 0x02, ASYNC_REMOVAL = 0x04, ASYNC_REVERSE = 0x08,
                  ASYNC_DECIMAL = 0x10;

// What the reader answers 0xF0 with: a current firmware's long block, an older firmware's short block
// (it also refuses PAR0 1), or no parameter block at all.
enum class ParamForm { LONG, SHORT, NONE };

struct Reader {
    // Identity.
    uint32_t type = 0xD1180022;
    uint32_t serial = 0x12345678;
    uint8_t fw_major = 5, fw_minor = 0;
    uint8_t build = 60;
    uint8_t hw_type = 1, hw_ver = 2;
    uint32_t device_type = 0; // in the parameter block; 0 means the reader type
    uint8_t mui[16] = {0x5A, 0x53, 0x49, 0x4D, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B};
    uint8_t mui_len = 16; // bytes of it the long block carries; the short block carries at most 12
    ParamForm param_form = ParamForm::LONG;
    // Stored state.
    uint8_t eeprom[EEPROM_SIZE] = {};
    uint8_t keys[KEY_COUNT][6] = {};
    uint8_t password[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
    bool keys_locked = false;
    uint8_t time[6] = {};
    uint8_t user_data_ext[16] = {}; // the second half of the extended user data
    uint8_t speed_par[2] = {0, 0};  // as 0x4B set them
    uint8_t custom_ui[7] = {};      // the user interface setup of 0x65 and 0x66
    bool async_json = false;
    uint32_t baud = 1000000; // the rate the reader talks at
    // The field; the first card is the one the reader talks to.
    std::vector<std::unique_ptr<Card>> cards;
    zsim_card last_card{};
    bool have_last_card = false;
    // The multi-card mode (memory.cpp): on or off, the cards of the last enumeration, and the card selected,
    // which is then the first of the field.
    bool anticollision = false;
    bool enumerated = false;
    std::vector<zsim_card> enum_list;
    bool card_selected = false;
    zsim_card selected{};
    // Lights, sound, sleep, RF tuning, the secure element and the feature blocks (signals.cpp).
    Outputs outputs;
    // The display module behind the reader and the boot loader (display.cpp).
    Lcd lcd;
    BootLoader boot;
    // The access system's records and the card encryption job (records.cpp).
    AccessRecords access;
    // Tag emulation and shared RAM, and the network module in front (emulation.cpp, esp.cpp).
    Emulation emul;
    EspFront esp;

    Reader();
    std::string serial_desc() const;
    void set_serial_desc(const std::string &s);
    uint8_t async_flags() const { return eeprom[EE_ASYNC]; }
    void set_async(uint8_t flags, uint8_t prefix, uint8_t suffix, uint32_t baud);
};

// What the reader does with one complete command.
struct Answer {
    std::vector<uint8_t> bytes;
    bool restart = false;  // the reader restarts after sending the bytes
    uint32_t new_baud = 0; // the reader moves to this rate (no reply)
    uint32_t delay_ms = 0; // the reply to an EXT goes out this much later
};

// True when the reader takes an EXT for this command frame (it then acknowledges).
bool reader_wants_ext(const Reader &r, const uint8_t frame[7]);
// The reply to a command frame and its EXT (ext may be null).
void reader_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);

// The memory card commands and the multi-card mode (memory.cpp): whether a command takes an EXT, and its
// answer; false when the command is not one of them (or, in multi-card mode, a card command that may pass).
bool memory_wants_ext(const Reader &r, const uint8_t frame[7]);
bool memory_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);

// What the reader sends by itself in push mode when a card arrives or leaves; empty when the setup says
// nothing is sent.
std::vector<uint8_t> reader_push_arrival(const Reader &r, const zsim_card &c);
std::vector<uint8_t> reader_push_removal(const Reader &r);

// One of the ten rates the reader can be set to.
bool reader_rate_known(uint32_t baud);

} // namespace zs
#endif
