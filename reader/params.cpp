// The parameter block decoders and the name tables of the identity reports.
#include "reader/params.h"

#include <cstring>

#include "core/bytes.h"
#include "zel_status.h"

namespace {

struct TypeName {
    uint32_t code;
    const char *name;
};

// Reader models by the type code of command 0x10.
constexpr TypeName kModels[] = {
    {0xD1180022, "Zel Base HD"},      {0xD1180021, "Zel Base HD XL"},  {0xD1180023, "Zel Base HD NFC"},
    {0xD1150021, "Zel Classic"},      {0xD1150022, "Zel Classic Pro"}, {0xD1170023, "Zel Nano"},
    {0xD1170024, "Zel Nano USB"},     {0xD1170025, "Zel Nano RS232"},  {0xD1190024, "Zel Advance"},
    {0xD1190025, "Zel Advance Plus"}, {0xD11A0026, "Zel Online"},      {0xD11A0027, "Zel Online Ethernet"},
    {0xD11B0028, "Zel Desk"},         {0xD11C0029, "Zel Display"},     {0x01020304, "Zel Test Reader"},
};

// Firmware types by the top byte of the device type.
constexpr TypeName kFirmwareTypes[] = {
    {0xD1, "Standard"},    {0xD2, "Access Control"}, {0xD3, "Payment"},   {0xD4, "Travel Document"},
    {0xD5, "Loyalty"},     {0xD6, "Display"},        {0xD7, "Emulation"}, {0xD8, "Secure Element"},
    {0xD9, "Boot Loader"}, {0x01, "Test"},
};

// Network module firmware types by the module's hardware version.
constexpr TypeName kEspFirmwareTypes[] = {
    {1, "ZelNet WiFi Module"},      {2, "ZelNet Ethernet Module"}, {3, "ZelNet PoE Module"},
    {4, "ZelNet Bluetooth Module"}, {5, "ZelNet Controller"},
};

template <size_t N> const char *find_name(const TypeName (&table)[N], uint32_t code)
{
    for (const TypeName &row : table)
        if (row.code == code)
            return row.name;
    return nullptr;
}

} // namespace

ZEL_STATUS zel::decode_parameter_block(const uint8_t *ext, uint32_t len, ReaderParams *out)
{
    if (!ext || !out || len < kParamsMinLen || len > 255)
        return ZEL_COMMUNICATION_ERROR;
    // Offsets counted from the end; the short block lacks the build, so everything shifts by one.
    const bool long_form = len >= kParamsLongFrom;
    const uint32_t shift = long_form ? 0 : 1;
    ReaderParams p{};
    p.fw_build = long_form ? ext[len - 2] : 0;
    p.fw_minor = ext[len - 3 + shift];
    p.fw_major = ext[len - 4 + shift];
    p.device_type = zel::get_le32(ext + len - 8 + shift);
    p.hw_ver = ext[len - 9 + shift];
    p.hw_type = ext[len - 10 + shift];
    std::memcpy(p.serial, ext + len - 18 + shift, 8);
    const uint32_t n = long_form ? len - 18 : len - 17;
    if (p.hw_type == kHwTypeEsp) {
        std::memcpy(p.mui, ext, 6);
        p.mui_len = 6;
    } else {
        if (n > ZEL_MUI_MAX_LEN)
            return ZEL_COMMUNICATION_ERROR; // no reader has an identifier that long
        // A long identifier starts behind a 4-byte head; the copy may reach into the serial, as the reader
        // lays it out.
        std::memcpy(p.mui, ext + (n > 12 ? 4 : 0), n);
        p.mui_len = static_cast<uint8_t>(n);
    }
    *out = p;
    return ZEL_OK;
}

ZEL_STATUS zel::decode_parameter_block2(const uint8_t *ext, uint32_t len, ReaderParams *out)
{
    if (!ext || !out || len < kParams2Len)
        return ZEL_COMMUNICATION_ERROR;
    ReaderParams p{};
    std::memcpy(p.mui, ext, 16);
    p.mui_len = 16;
    std::memcpy(p.serial, ext + 16, 8);
    p.hw_type = ext[24];
    p.hw_ver = ext[25];
    p.device_type = zel::get_le32(ext + 26);
    p.fw_major = ext[30];
    p.fw_minor = ext[31];
    p.fw_build = ext[32];
    *out = p;
    return ZEL_OK;
}

const char *zel::reader_model_name(uint32_t reader_type)
{
    return find_name(kModels, reader_type);
}

size_t zel::reader_model_count()
{
    return sizeof kModels / sizeof kModels[0];
}

uint32_t zel::reader_model_code(size_t index)
{
    return index < reader_model_count() ? kModels[index].code : 0;
}

const char *zel::firmware_type_name(uint8_t firmware_type)
{
    const char *name = find_name(kFirmwareTypes, firmware_type);
    return name ? name : "UNKNOWN";
}

const char *zel::esp_firmware_type_name(uint8_t esp_hw_version)
{
    const char *name = find_name(kEspFirmwareTypes, esp_hw_version);
    return name ? name : "UNKNOWN";
}
