// Shared by the memory card commands (and the demo): the key options, dumps, and the card list.
#ifndef TANDRO_TOOLS_CMD_BLOCK_COMMON_H
#define TANDRO_TOOLS_CMD_BLOCK_COMMON_H

#include <cstdint>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"

namespace tandro {

// How a command reaches the card's key: --key HEX (provided, the default being FFFFFFFFFFFF), --key-index N
// (a reader key), --akm1, --akm2, --sam N; --key-b, --aes and --t2t choose the auth mode.
struct KeyOptions {
    enum Form { PROVIDED, READER, AKM1, AKM2, SAM } form = PROVIDED;
    uint8_t auth_mode = 0x60;
    uint8_t index = 0;
    std::vector<uint8_t> key{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
};

// The key options in a command's option table: the command's own options followed by them.
std::vector<Opt> with_key_options(std::vector<Opt> own);
// The key options a command's table parsed. False with a message for a bad value or two key forms at once.
bool key_options(const Parsed &p, KeyOptions &k, std::string &err);

// A hex dump with offsets from base and the printable characters.
void print_dump(const uint8_t *p, size_t n, uint32_t base);

// The memory operations under the chosen key form.
ZEL_STATUS key_block_read(ZEL_HANDLE h, const KeyOptions &k, uint8_t *data, uint8_t block);
ZEL_STATUS key_block_in_sector_read(ZEL_HANDLE h, const KeyOptions &k, uint8_t *data, uint8_t sector, uint8_t block);
ZEL_STATUS key_block_write(ZEL_HANDLE h, const KeyOptions &k, const uint8_t *data, uint8_t block);
ZEL_STATUS key_linear_read(ZEL_HANDLE h, const KeyOptions &k, uint8_t *data, uint16_t addr, uint16_t len,
                           uint16_t *got);
ZEL_STATUS key_linear_write(ZEL_HANDLE h, const KeyOptions &k, const uint8_t *data, uint16_t addr, uint16_t len,
                            uint16_t *done);

// The demo's pieces: the anti-collision list of what is in the field, and the dump of one sector (blocks
// read with BlockInSectorRead under k; a Type 2 tag's pages 4 at a time when the card has no sectors).
int print_card_list(ZEL_HANDLE h, bool json);
int print_sector_dump(ZEL_HANDLE h, const KeyOptions &k, uint8_t sector, bool json);

} // namespace tandro

#endif
