// The display module behind the reader (128 by 64 pixels, its gallery and flash) and the reader's boot loader,
// which takes a firmware image packet by packet.
#ifndef ZELSIM_DISPLAY_H
#define ZELSIM_DISPLAY_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zs {

constexpr size_t LCD_BYTES = 1024; // 64 rows of 16 bytes, most significant bit the leftmost pixel
constexpr size_t LCD_GALLERY = 17; // indexes 0 to 16; 16 keeps the last picture sent
constexpr size_t LCD_FLASH = 0x10000;

struct Lcd {
    uint8_t shown[LCD_BYTES] = {};
    uint8_t gallery[LCD_GALLERY][LCD_BYTES] = {};
    std::vector<std::vector<uint8_t>> system; // system pictures by slot, kept as sent
    uint8_t incoming[LCD_BYTES] = {};         // the strips of the picture being received
    uint8_t strips_got = 0;                   // bit s: strip s came
    uint8_t picture_par = 0;                  // byte 5 of the strip frames
    uint32_t parameter = 0;                   // the 32-bit value of the last picture parameters
    std::string text;
    uint8_t text_values[5] = {};
    int hour = -1, minute = -1;
    int signal = -1;
    uint8_t erased[4] = {};
    uint8_t flash[LCD_FLASH];
    bool in_boot = false;
    uint8_t version[3] = {1, 4, 2};
    uint8_t params[29] = {};
    // The image the module's boot loader expects, and the blocks written since the boot command.
    uint32_t next_len = 0;
    uint8_t next_version[3] = {};
    bool next_set = false;
    std::vector<bool> written;
    std::string png_path; // written again whenever what is shown changes
    Lcd();
};

// What the boot loader does wrong with the reply to one packet.
enum class PacketFault { DROP, DELAY, GARBLE };
struct BootFault {
    uint32_t packet = 0;
    PacketFault kind = PacketFault::DROP;
    uint32_t delay_ms = 0;
    bool used = false;
};

struct BootLoader {
    bool active = false;     // the reader waits in its boot loader
    bool receiving = false;  // the start call came
    uint32_t image_len = 0;  // what the loader expects; 0: any length, the image ends with a short packet
    uint8_t next_fw[3] = {}; // the version the new image brings
    bool next_fw_set = false;
    std::vector<uint8_t> image; // what came so far
    uint32_t next_packet = 0;
    bool last_whole = false; // the last packet taken did not complete the image (a repeat may replace it)
    bool complete = false;   // the whole image came and was verified
    uint32_t packets = 0;    // packets taken since creation
    std::vector<BootFault> faults;
    std::vector<uint8_t> params; // the last parameter block of the NFC processor
    bool protected_code = false;
};

struct Reader;
struct Answer;

// The display module's and the boot loader's commands in the reader's engine table.
bool module_wants_ext(const Reader &r, const uint8_t f[7]);
bool module_command(Reader &r, const uint8_t f[7], const uint8_t *ext, size_t ext_len, Answer &a);
// The EXT length of a frame whose byte 3 does not tell it (the picture strips: 262 bytes).
void module_frame_shape(const uint8_t f[7], size_t &need);
// A restart: a verified image becomes the running firmware, the boot loader is left.
void module_restart(Reader &r);

// The shown picture as an 8-bit grey PNG (dark pixels black): true when written.
bool lcd_write_png(const uint8_t bitmap[LCD_BYTES], const std::string &path);

} // namespace zs

#endif
