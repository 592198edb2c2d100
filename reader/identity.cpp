// The reader's identity: type, serial numbers, versions, the parameter block and the two text reports.
#include <cctype>
#include <cstdio>
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "reader/params.h"
#include "zel_esp.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel;

namespace {
constexpr uint8_t kCmdGetReaderType = 0x10;
constexpr uint8_t kCmdGetSerialNumber = 0x11;
constexpr uint8_t kCmdFirmwareVersion = 0x29;
constexpr uint8_t kCmdHardwareVersion = 0x2A;
constexpr uint8_t kCmdBuildNumber = 0x2B;
constexpr uint8_t kCmdSerialDescription = 0x40;
constexpr uint8_t kCmdGetProMode = 0x42;
constexpr uint8_t kCmdSetProMode = 0x43;
constexpr uint8_t kCmdParameters = 0xF0;
constexpr uint8_t kCmdParametersDefault = 0xF1;

constexpr uint32_t kEeSerialDescription = 0;
constexpr uint32_t kEeProMode = 660;

// Shape 2 with a u32 in front of the EXT's checksum.
ZEL_STATUS read_u32(ZEL_HANDLE hnd, uint8_t cmd, uint32_t *value)
{
    Reply r;
    // A reply with no room for the value in front of its checksum is malformed.
    const ZEL_STATUS status = command_reply(hnd, cmd, 0, 0, r, 5);
    if (status != ZEL_OK)
        return status;
    if (value)
        *value = get_le32(r.buf);
    return ZEL_OK;
}

// Shape 1: the reply's PAR0 and PAR1 are the result.
ZEL_STATUS read_pars(ZEL_HANDLE hnd, uint8_t cmd, uint8_t par0, uint8_t par1, uint8_t *out0, uint8_t *out1)
{
    uint8_t par[2];
    const ZEL_STATUS status = handshake(hnd, cmd, par0, par1, par);
    if (status != ZEL_OK)
        return status;
    if (out0)
        *out0 = par[0];
    if (out1)
        *out1 = par[1];
    return ZEL_OK;
}

void deliver(const ReaderParams &p, uint8_t *mui, uint64_t *serial, uint8_t *hw_type, uint8_t *hw_version,
             uint32_t *device_type, uint8_t *fw_major, uint8_t *fw_minor, uint8_t *fw_build)
{
    if (mui)
        std::memcpy(mui, p.mui, p.mui_len);
    if (serial)
        std::memcpy(serial, p.serial, 8);
    if (hw_type)
        *hw_type = p.hw_type;
    if (hw_version)
        *hw_version = p.hw_ver;
    if (device_type)
        *device_type = p.device_type;
    if (fw_major)
        *fw_major = p.fw_major;
    if (fw_minor)
        *fw_minor = p.fw_minor;
    if (fw_build)
        *fw_build = p.fw_build;
}

// The parameter block through cmd: first with PAR0 1, then (older firmware) with PAR0 0, unless one_try.
// The reply frame stays in front of the EXT so that its kind can be tested after the read.
ZEL_STATUS read_parameter_block(ZEL_HANDLE hnd, uint8_t cmd, bool one_try, uint8_t *buf, uint8_t *ext_len)
{
    make_command(buf, cmd, 0, 1, 0);
    uint8_t len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, buf, &len);
    if (status != ZEL_OK) {
        if (one_try)
            return status;
        make_command(buf, cmd, 0, 0, 0);
        if ((status = InitialHandshaking(hnd, buf, &len)) != ZEL_OK)
            return status;
    }
    if ((status = GetAndTestResponseData(hnd, len, buf + kFrameLen)) != ZEL_OK)
        return status;
    if (buf[kHeader] == kErrHeader || buf[kTrailer] == kErrTrailer)
        return buf[kCmd];
    if (buf[kHeader] != kRspHeader || buf[kTrailer] != kRspTrailer || buf[kCmd] != cmd)
        return ZEL_COMMUNICATION_ERROR;
    *ext_len = len;
    return ZEL_OK;
}

ZEL_STATUS parameters(ZEL_HANDLE hnd, uint8_t cmd, bool fixed_layout, ReaderParams *p)
{
    uint8_t buf[kFrameLen + 256] = {};
    uint8_t len = 0;
    const ZEL_STATUS status = read_parameter_block(hnd, cmd, fixed_layout, buf, &len);
    if (status != ZEL_OK)
        return status;
    return fixed_layout ? decode_parameter_block2(buf + kFrameLen, len, p)
                        : decode_parameter_block(buf + kFrameLen, len, p);
}

// Points what the host sends at reader n behind a network module (-1: the module itself).
ZEL_STATUS esp_session_set(ZEL_HANDLE hnd, int32_t n)
{
    return EspSetTransparentReaderSessionHnd(hnd, static_cast<uint8_t>(n));
}

const char *model_or(uint32_t type, const char *fallback)
{
    const char *name = reader_model_name(type);
    return name ? name : fallback;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS GetReaderTypeHnd(ZEL_HANDLE hnd, uint32_t *reader_type)
{
    return read_u32(hnd, kCmdGetReaderType, reader_type);
}

extern "C" ZEL_API ZEL_STATUS GetReaderSerialNumberHnd(ZEL_HANDLE hnd, uint32_t *serial_number)
{
    return read_u32(hnd, kCmdGetSerialNumber, serial_number);
}

extern "C" ZEL_API ZEL_STATUS GetReaderSerialDescriptionHnd(ZEL_HANDLE hnd, uint8_t *serial_description)
{
    if (hnd && hnd->ee_route)
        return EE_ReadHnd(hnd, kEeSerialDescription, 8, serial_description);
    Reply r;
    const ZEL_STATUS status = command_reply(hnd, kCmdSerialDescription, 0, 0, r, 9);
    if (status != ZEL_OK)
        return status;
    if (serial_description)
        std::memcpy(serial_description, r.buf, 8);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SetReaderSerialDescriptionHnd(ZEL_HANDLE, const char *)
{
    return ZEL_OK; // the description is set at the factory
}

extern "C" ZEL_API ZEL_STATUS GetReaderFirmwareVersionHnd(ZEL_HANDLE hnd, uint8_t *major, uint8_t *minor)
{
    return read_pars(hnd, kCmdFirmwareVersion, 0, 0, major, minor);
}

extern "C" ZEL_API ZEL_STATUS GetBuildNumberHnd(ZEL_HANDLE hnd, uint8_t *build)
{
    return read_pars(hnd, kCmdBuildNumber, 0, 0, build, nullptr);
}

extern "C" ZEL_API ZEL_STATUS GetReaderHardwareVersionHnd(ZEL_HANDLE hnd, uint8_t *hw_type, uint8_t *hw_version)
{
    return read_pars(hnd, kCmdHardwareVersion, 0x11, 0x22, hw_type, hw_version);
}

extern "C" ZEL_API ZEL_STATUS GetReaderParametersHnd(ZEL_HANDLE hnd, uint8_t *mui, uint64_t *serial, uint8_t *hw_type,
                                                     uint8_t *hw_version, uint32_t *device_type, uint8_t *fw_major,
                                                     uint8_t *fw_minor, uint8_t *fw_build)
{
    ReaderParams p{};
    const ZEL_STATUS status = parameters(hnd, kCmdParameters, false, &p);
    if (status == ZEL_OK)
        deliver(p, mui, serial, hw_type, hw_version, device_type, fw_major, fw_minor, fw_build);
    return status;
}

extern "C" ZEL_API ZEL_STATUS GetReaderParameters2Hnd(ZEL_HANDLE hnd, uint8_t *mui, uint64_t *serial, uint8_t *hw_type,
                                                      uint8_t *hw_version, uint32_t *device_type, uint8_t *fw_major,
                                                      uint8_t *fw_minor, uint8_t *fw_build)
{
    ReaderParams p{};
    const ZEL_STATUS status = parameters(hnd, kCmdParameters, true, &p);
    if (status == ZEL_OK)
        deliver(p, mui, serial, hw_type, hw_version, device_type, fw_major, fw_minor, fw_build);
    return status;
}

extern "C" ZEL_API ZEL_STATUS GetReaderParametersDefaultBaudrateHnd(ZEL_HANDLE hnd, uint8_t *mui, uint64_t *serial,
                                                                    uint8_t *hw_type, uint8_t *hw_version,
                                                                    uint32_t *device_type, uint8_t *fw_major,
                                                                    uint8_t *fw_minor, uint8_t *fw_build)
{
    ReaderParams p{};
    const ZEL_STATUS status = parameters(hnd, kCmdParametersDefault, false, &p);
    if (status == ZEL_OK)
        deliver(p, mui, serial, hw_type, hw_version, device_type, fw_major, fw_minor, fw_build);
    return status;
}

extern "C" ZEL_API ZEL_STATUS GetReaderProModeHnd(ZEL_HANDLE hnd, uint32_t *mode, uint16_t *raw)
{
    if (mode)
        *mode = 0;
    Reply r;
    ZEL_STATUS status;
    if (hnd && hnd->ee_route)
        status = EE_ReadHnd(hnd, kEeProMode, 2, r.buf);
    else
        status = command_reply(hnd, kCmdGetProMode, 0, 0, r, 3);
    if (status != ZEL_OK)
        return status;
    if (mode)
        *mode = r.buf[0] & 0x07u;
    if (raw)
        *raw = static_cast<uint16_t>(get_le16(r.buf));
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SetReaderProModeHnd(ZEL_HANDLE hnd, uint32_t mode)
{
    uint8_t frame[kFrameBufLen] = {};
    // The mode as a u32 and four reserved zero bytes.
    uint8_t ext[8] = {};
    put_le32(ext, mode);
    make_command(frame, kCmdSetProMode);
    return exchange_write_ext(hnd, frame, ext, sizeof ext, nullptr, nullptr);
}

extern "C" ZEL_API ZEL_STATUS GetReaderInfoStrHnd(ZEL_HANDLE hnd, const char **text)
{
    static char info[512];
    if (!text)
        return ZEL_PARAMETERS_ERROR;
    const bool esp = hnd && (hnd->comm.use == ZEL_PORT_LOCAL || hnd->esp_session);
    ReaderParams module{};
    ZEL_STATUS status;
    if (esp) {
        if ((status = esp_session_set(hnd, -1)) != ZEL_OK)
            return status;
        if ((status = parameters(hnd, kCmdParameters, true, &module)) != ZEL_OK)
            return status;
        if ((status = esp_session_set(hnd, 1)) != ZEL_OK)
            return status;
    }
    ReaderParams p{};
    if ((status = parameters(hnd, kCmdParameters, true, &p)) != ZEL_OK)
        return status;
    uint32_t type = 0;
    status = GetReaderTypeHnd(hnd, &type);
    const char *model = model_or(type, "UNKNOWN");
    const char *fw_type = firmware_type_name(static_cast<uint8_t>(p.device_type >> 24));
    if (!esp) {
        std::snprintf(info, sizeof info, "%s (Firmware Type: %s, Firmware Version: %d.%d.%d, Hardware Version: %d.%d)",
                      model, fw_type, p.fw_major, p.fw_minor, p.fw_build, p.hw_type, p.hw_ver);
    } else {
        const char *esp_name;
        if (module.hw_type == 42)
            esp_name = module.hw_ver == 1 ? "ZelNet WiFi" : module.hw_ver == 2 ? "ZelNet Ethernet" : "ZelNet";
        else
            esp_name = esp_firmware_type_name(module.hw_ver);
        std::snprintf(info, sizeof info,
                      "%s (ESP Firmware Type: %s, ESP Firmware Version: %d.%d.%d, ESP Hardware Version: %d.%d) "
                      "(NFC Model: %s, NFC Firmware Type: %s, NFC Firmware Version: %d.%d.%d, NFC Hardware "
                      "Version: %d.%d)",
                      esp_name, firmware_type_name(static_cast<uint8_t>(module.device_type >> 24)), module.fw_major,
                      module.fw_minor, module.fw_build, module.hw_type, module.hw_ver, model, fw_type, p.fw_major,
                      p.fw_minor, p.fw_build, p.hw_type, p.hw_ver);
        esp_session_set(hnd, -1);
    }
    *text = info;
    return status;
}

extern "C" ZEL_API const char *GetReaderDescriptionHnd(ZEL_HANDLE hnd)
{
    static char text[1024];
    static const char kRule[] = "======================================\n";
    size_t used = 0;
    auto add = [&](const char *format, auto... values) {
        if (used >= sizeof text - 1)
            return;
        const int n = std::snprintf(text + used, sizeof text - used, format, values...);
        if (n > 0)
            used += static_cast<size_t>(n) < sizeof text - used ? static_cast<size_t>(n) : sizeof text - 1 - used;
    };
    auto failed = [&](const char *function, ZEL_STATUS status) {
        add("%s() failed: %s\n", function, ZEL_Status2String(status));
    };
    text[0] = '\0';
    add("%s", kRule);
    add("%s", "   Info about ZelReader:\n");
    add("%s", "\n");
    add("%s", kRule);

    uint8_t serial[8] = {};
    ZEL_STATUS status = GetReaderSerialDescriptionHnd(hnd, serial);
    if (status != ZEL_OK) {
        add("%s", "Serial number: ");
        failed("GetReaderSerialDescription", status);
    } else if (std::isalnum(serial[0])) {
        // Text up to its terminator; a byte that does not print shows as a dot.
        char s[9] = {};
        for (int i = 0; i < 8 && serial[i]; ++i)
            s[i] = std::isprint(serial[i]) ? static_cast<char>(serial[i]) : '.';
        add("Serial number: %s\n", s);
    } else {
        add("%s", "Serial number: ");
        for (uint8_t b : serial)
            add("%02X:", b);
        add("%s", "\n");
    }
    add("%s", kRule);

    uint8_t hw_type = 0, hw_ver = 0;
    if ((status = GetReaderHardwareVersionHnd(hnd, &hw_type, &hw_ver)) == ZEL_OK)
        add("HW type= %d | HW ver= %d\n", hw_type, hw_ver);
    else
        failed("GetReaderHardwareVersion", status);

    uint8_t major = 0, minor = 0, build = 0;
    if ((status = GetReaderFirmwareVersionHnd(hnd, &major, &minor)) != ZEL_OK) {
        failed("GetReaderFirmwareVersion", status);
    } else {
        const ZEL_STATUS build_status = GetBuildNumberHnd(hnd, &build);
        if (build_status == ZEL_OK) {
            add("FW version: %d.%d.%d\n", major, minor, build);
        } else {
            add("FW version: %d.%d.???\n", major, minor);
            failed("GetBuildNumber", build_status);
        }
    }
    add("%s", kRule);

    uint32_t type = 0;
    if ((status = GetReaderTypeHnd(hnd, &type)) != ZEL_OK)
        return text;
    add("ReaderType: %X : %s\n", type, model_or(type, "UNDEFINED TYPE"));
    add("%s", kRule);
    return text;
}
