// The reader as an NFC tag for a phone, its shared RAM, and the network module that may stand in front of
// it: their state in the reader model and the hooks the reader's command path calls.
#ifndef ZELSIM_EMULATION_H
#define ZELSIM_EMULATION_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "display.h"

struct zsim;

namespace zs {

struct Reader;
struct Answer;
struct LinkCore;

// Where the reader keeps the emulation in its EEPROM: the mode byte, then the record block and its CRC.
constexpr size_t EE_EMUL_MODE = 681;
constexpr size_t EE_EMUL_BLOCK = 682;
constexpr size_t EMUL_BLOCK_LEN = 145;

struct Emulation {
    std::vector<uint8_t> tlv;  // 03 L message FE as loaded by command 0x4A
    bool from_eeprom = false;  // the last record came into the EEPROM block, not by 0x4A
    bool adhoc = false;        // ad hoc emulation runs
    uint8_t adhoc_par[2] = {}; // as set by 0x9E
    uint8_t field = 0;         // an external field is present
    bool share_mode = false;   // shared RAM mode
    uint8_t share_ram[256] = {};
    bool mirror_on = false;
    uint16_t mirror_pos = 0;
    uint32_t mirror_counter = 0;
    uint32_t phone_reads = 0;
    // A RAM form record arriving in pieces.
    bool loading = false;
    size_t load_total = 0;
    std::vector<uint8_t> load_data, load_piece;
};

// Who a module says it is when asked (parameter block, versions, serial description), and its boot loader.
// The network module's own boot loader takes its image in 4,096-byte packets; a unit's is the reader's model.
struct EspModule {
    bool given = false; // a unit without one of its own is the reader itself
    char serial_desc[8] = {'Z', 'E', '0', '0', '0', '0', '0', '1'};
    uint8_t hw_type = 46, hw_ver = 1;
    uint8_t fw[3] = {3, 1, 12};
    BootLoader boot;
};

struct EspFront {
    bool present = false;
    uint8_t units = 1;
    uint8_t target = 0; // 0 none chosen, 1 to units a reader unit, 0xFF the module itself
    uint32_t serial = 0x0E5A0001;
    EspModule self;                // the module's own identity and boot loader
    std::vector<EspModule> unit;   // by unit number - 1, as many as units
    std::vector<uint8_t> incoming; // a stream packet for the boot loader, as it comes
    uint8_t time[6] = {};
    uint8_t password[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
    uint8_t eeprom[1024] = {};
    uint8_t io[6] = {};
    bool wifi = true;
    bool off = false;
    std::vector<uint8_t> display;
    uint16_t display_value = 0;
    uint32_t payment_bits = 0; // the float as it came
    std::string config = "wifi.ssid=zelnet\nwifi.mode=station\nreader.units=1\n";
    // Raw keyword traffic, and the firmware stream.
    std::vector<uint8_t> raw;
    bool restoring = false;
    std::vector<uint8_t> restore;
    bool streaming = false;
    uint8_t stream_kind = 0;
    uint32_t stream_bytes = 0;
};

// The identity a command meets behind the network module: the module's own for the identity commands in its
// own session, a unit's own in a session with that unit (no session: the first); null where the reader's
// holds. The swap puts it in the reader's place (and back, called again).
EspModule *esp_identity_for(Reader &r, const uint8_t f[7]);
void esp_swap_identity(Reader &r, EspModule &id);
// True when the EXT of this frame comes in 64-byte reports, each acknowledged (a unit's boot loader).
bool esp_ext_in_reports(const Reader &r, const uint8_t f[7]);
// A restart of the device: a complete image in the network module's boot loader starts with its version.
void esp_restart(Reader &r);
// The network module's boot loader has left the application (1), or holds a complete image (2); 0 otherwise.
int esp_boot_phase(const Reader &r);

// The reader's emulation commands (0x48, 0x49, 0x4A, 0x4F, 0x76 to 0x7B, 0x9D to 0x9F, 0xE7 with an EXT).
bool emulation_wants_ext(const Reader &r, const uint8_t frame[7]);
bool emulation_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);
// The later pieces of a RAM form record come raw; true when the bytes were taken here.
bool emulation_link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n);
// After a write into the EEPROM: notes a record written into the emulation block.
void emulation_eeprom_written(Reader &r, size_t address, size_t count);

// The network module's commands, and the raw keywords and stream data it takes without frames.
bool esp_wants_ext(const Reader &r, const uint8_t frame[7]);
bool esp_command(Reader &r, const uint8_t frame[7], const uint8_t *ext, size_t ext_len, Answer &a);
bool esp_link_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n);

// tandro-sim's commands of this part ("phone", "field", "emulation", "share", "esp"); false for others.
bool emulation_text_command(zsim *sim, const std::vector<std::string> &w, std::string &out, int &rc);

} // namespace zs
#endif
