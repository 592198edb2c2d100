// The emulation family's insides: the layouts of the emulated NDEF record, shared by the operations, their
// tests and the fuzz targets, and the counter mirror's implementations behind the global forms.
#ifndef ZEL_EMUL_INTERNAL_H
#define ZEL_EMUL_INTERNAL_H

#include <cstdint>
#include <vector>

#include "zel_handle.h"
#include "zel_types.h"

namespace zel::emul {

// One record as the caller gives it.
struct RecordArgs {
    uint8_t tnf;
    const uint8_t *type;
    uint8_t type_len;
    const uint8_t *id;
    uint8_t id_len;
    const uint8_t *payload;
    uint32_t payload_len;
};

// The 145-byte block of the EEPROM form: 03, the message length, the message, FE, zero fill, and CRC8 of the
// first 144 bytes last. ZEL_MAX_SIZE_EXCEEDED when the message does not fit, ZEL_PARAMETERS_ERROR for a TNF
// that no record takes.
ZEL_STATUS eeprom_block(const std::vector<uint8_t> &message, std::vector<uint8_t> &block);
// The EXT of the one-frame form without its checksum: LE16 of message + 3, 03, length, message, FE.
ZEL_STATUS frame_ext(const std::vector<uint8_t> &message, std::vector<uint8_t> &ext);
// The block of the RAM form: LE16 of what follows, 03, the length (one byte below 255, else FF and two bytes
// big-endian), the message, FE.
void ram_block(const std::vector<uint8_t> &message, std::vector<uint8_t> &block);

// The one record of a plain emulated message (MB, ME, SR with an id flag as needed).
ZEL_STATUS plain_message(const RecordArgs &rec, std::vector<uint8_t> &message);
// The RAM form's record: SR only below 256 bytes of payload.
ZEL_STATUS ram_message(const RecordArgs &rec, std::vector<uint8_t> &message);
// The record followed by an application record naming the package.
ZEL_STATUS aar_message(const RecordArgs &rec, const uint8_t *package, uint32_t package_len,
                       std::vector<uint8_t> &message);

// The ad hoc parameters packed into PAR0 and PAR1, and back.
void pack_adhoc(const uint8_t v[5], uint8_t &par0, uint8_t &par1);
void unpack_adhoc(uint8_t par0, uint8_t par1, uint8_t v[5]);

// The counter mirror setup (9-byte EXT of 0xE7).
ZEL_STATUS mirror(ZEL_HANDLE hnd, bool enable, uint16_t position, uint32_t counter);

} // namespace zel::emul

extern "C" {
ZEL_STATUS TagEmulationMirrorCounterResetEnabledHnd(ZEL_HANDLE hnd, uint16_t mirror_position);
ZEL_STATUS TagEmulationMirrorCounterNonResetEnabledHnd(ZEL_HANDLE hnd, uint16_t mirror_position);
ZEL_STATUS TagEmulationMirrorCounterDisabledHnd(ZEL_HANDLE hnd);
}

#endif
