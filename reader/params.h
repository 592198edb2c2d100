// Decoding the reader's parameter block (commands 0xF0 and 0xF1), and the name tables of the reports.
// Internal: used by the identity operations, their tests and the fuzz target.
#ifndef ZEL_READER_PARAMS_H
#define ZEL_READER_PARAMS_H

#include <cstddef>
#include <cstdint>

#include "zel_reader.h"

namespace zel {

struct ReaderParams {
    uint8_t mui[ZEL_MUI_MAX_LEN];
    uint8_t mui_len;
    uint8_t serial[8];
    uint8_t hw_type;
    uint8_t hw_ver;
    uint32_t device_type;
    uint8_t fw_major, fw_minor, fw_build;
};

constexpr uint8_t kHwTypeEsp = 0x2E;
// EXT lengths: from 30 on the block carries the firmware build; below 18 there is no room for the fields.
constexpr uint32_t kParamsLongFrom = 30;
constexpr uint32_t kParamsMinLen = 18;
// The fixed layout of GetReaderParameters2: MUI 16, serial 8, HW type, HW version, device type, firmware 3,
// checksum.
constexpr uint32_t kParams2Len = 34;

// The block is read from its end (older firmware sends a shorter one). ext is the whole EXT of len bytes,
// checksum last (not tested here). ZEL_OK, or ZEL_COMMUNICATION_ERROR for a block that cannot be one.
ZEL_STATUS decode_parameter_block(const uint8_t *ext, uint32_t len, ReaderParams *out);
// The fixed layout, from the start of the EXT.
ZEL_STATUS decode_parameter_block2(const uint8_t *ext, uint32_t len, ReaderParams *out);

// Names for the reports; "UNKNOWN" (or null for the model, so that each report says it its own way).
const char *reader_model_name(uint32_t reader_type);
// The rows of the model table, for listings: the type code of row index (index below reader_model_count()).
size_t reader_model_count();
uint32_t reader_model_code(size_t index);
const char *firmware_type_name(uint8_t firmware_type);
const char *esp_firmware_type_name(uint8_t esp_hw_version);

} // namespace zel

#endif
