// Tag emulation: the record the reader shows a phone (one frame, the EEPROM block, or the RAM form in pieces
// the reader asks for one by one), the emulation modes, the external field, the shared RAM and the counter
// mirror of the emulated tag.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "emul/emul_internal.h"
#include "ndef/ndef_internal.h"
#include "tandro.h"

namespace zel::emul {

namespace {

constexpr uint8_t kCmdStart = 0x48, kCmdStop = 0x49, kCmdLoad = 0x4A, kCmdCombined = 0x4F;
constexpr uint8_t kCmdAdHocStart = 0x76, kCmdAdHocStop = 0x77, kCmdAdHocGet = 0x9D, kCmdAdHocSet = 0x9E;
constexpr uint8_t kCmdField = 0x9F, kCmdShareEnter = 0x78, kCmdShareExit = 0x79, kCmdShareRead = 0x7A,
                  kCmdShareWrite = 0x7B, kCmdMirror = 0xE7;
constexpr uint8_t kModeOn = 0xEA, kModeCombined = 0xCE, kModeOff = 0xFF;
constexpr uint8_t kTlvNdef = 0x03, kTlvEnd = 0xFE;
constexpr uint8_t kMorePrompt = 0xAD;
// The RAM form: the first piece (block bytes and checksum) and each later one.
constexpr uint32_t kFirstPiece = 243, kLaterPiece = 240;
constexpr uint32_t kFrameExtMax = 255;
constexpr char kAarType[] = "android.com:pkg";

ZEL_STATUS build(uint8_t mb_me, const RecordArgs &rec, std::vector<uint8_t> &out)
{
    if ((!rec.type && rec.type_len) || (!rec.id && rec.id_len) || (!rec.payload && rec.payload_len))
        return ZEL_PARAMETERS_ERROR;
    std::vector<uint8_t> one;
    if (!ndef::build_record(mb_me, rec.tnf, rec.type, rec.type_len, rec.id, rec.id_len, rec.payload, rec.payload_len,
                            one))
        return ZEL_PARAMETERS_ERROR;
    out.insert(out.end(), one.begin(), one.end());
    return ZEL_OK;
}

bool ee_route(const zel_handle_record *hnd)
{
    return hnd->ee_route != 0;
}

ZEL_STATUS set_mode(ZEL_HANDLE hnd, uint8_t mode, uint8_t cmd, uint8_t par0)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (ee_route(hnd))
        return EE_WriteHnd(hnd, ZEL_EMUL_EE_MODE, 1, &mode);
    return handshake(hnd, cmd, par0, 0);
}

// The firmware version and build are asked for first, as the reader's own tools do; the answers are not used.
void touch_version(ZEL_HANDLE hnd)
{
    uint8_t major = 0, minor = 0, build_nr = 0;
    (void)GetReaderFirmwareVersionHnd(hnd, &major, &minor);
    (void)GetBuildNumberHnd(hnd, &build_nr);
}

// Writes a message in the form the handle asks for: the EEPROM block, or the one-frame EXT of command 0x4A.
ZEL_STATUS write_message(ZEL_HANDLE hnd, const std::vector<uint8_t> &message)
{
    std::vector<uint8_t> out;
    ZEL_STATUS st = ee_route(hnd) ? eeprom_block(message, out) : frame_ext(message, out);
    if (st != ZEL_OK)
        return st;
    touch_version(hnd);
    if (ee_route(hnd))
        return EE_WriteHnd(hnd, ZEL_EMUL_EE_BLOCK, ZEL_EMUL_EE_BLOCK_LEN, out.data());
    Reply r;
    return command_write_reply(hnd, kCmdLoad, 0, 0, out.data(), static_cast<uint8_t>(out.size()), r);
}

} // namespace

ZEL_STATUS plain_message(const RecordArgs &rec, std::vector<uint8_t> &message)
{
    message.clear();
    if (rec.payload_len > ZEL_EMUL_MAX_PAYLOAD)
        return ZEL_MAX_SIZE_EXCEEDED;
    return build(0xC0, rec, message);
}

ZEL_STATUS ram_message(const RecordArgs &rec, std::vector<uint8_t> &message)
{
    message.clear();
    if (rec.payload_len > ZEL_EMUL_RAM_MAX_PAYLOAD)
        return ZEL_MAX_SIZE_EXCEEDED;
    return build(0xC0, rec, message);
}

ZEL_STATUS aar_message(const RecordArgs &rec, const uint8_t *package, uint32_t package_len,
                       std::vector<uint8_t> &message)
{
    message.clear();
    if (static_cast<uint64_t>(rec.payload_len) + package_len > ZEL_EMUL_AAR_MAX)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (!package && package_len)
        return ZEL_PARAMETERS_ERROR;
    ZEL_STATUS st = build(0x80, rec, message);
    if (st != ZEL_OK)
        return st;
    const RecordArgs aar{
        4, reinterpret_cast<const uint8_t *>(kAarType), sizeof kAarType - 1, nullptr, 0, package, package_len};
    return build(0x40, aar, message);
}

ZEL_STATUS eeprom_block(const std::vector<uint8_t> &message, std::vector<uint8_t> &block)
{
    block.assign(ZEL_EMUL_EE_BLOCK_LEN, 0);
    // 03, the length, the message and FE must leave the CRC's byte free.
    if (message.size() + 3 > ZEL_EMUL_EE_BLOCK_LEN - 1)
        return ZEL_MAX_SIZE_EXCEEDED;
    block[0] = kTlvNdef;
    block[1] = static_cast<uint8_t>(message.size());
    std::memcpy(block.data() + 2, message.data(), message.size());
    block[2 + message.size()] = kTlvEnd;
    block[ZEL_EMUL_EE_BLOCK_LEN - 1] = CRC8(block.data(), ZEL_EMUL_EE_BLOCK_LEN - 1);
    return ZEL_OK;
}

ZEL_STATUS frame_ext(const std::vector<uint8_t> &message, std::vector<uint8_t> &ext)
{
    ext.clear();
    // The EXT with its checksum is the message and six bytes, and that count goes into EXT_LEN.
    if (message.size() + 6 > kFrameExtMax)
        return ZEL_MAX_SIZE_EXCEEDED;
    ext.resize(2);
    put_le16(ext.data(), static_cast<uint32_t>(message.size() + 3));
    ext.push_back(kTlvNdef);
    ext.push_back(static_cast<uint8_t>(message.size()));
    ext.insert(ext.end(), message.begin(), message.end());
    ext.push_back(kTlvEnd);
    return ZEL_OK;
}

void ram_block(const std::vector<uint8_t> &message, std::vector<uint8_t> &block)
{
    const size_t n = message.size();
    block.assign(2, 0);
    block.push_back(kTlvNdef);
    // One length byte below 255: FF opens the three-byte form, so a message of 255 bytes takes that form.
    if (n < 0xFF) {
        block.push_back(static_cast<uint8_t>(n));
    } else {
        block.push_back(0xFF);
        block.push_back(static_cast<uint8_t>(n >> 8));
        block.push_back(static_cast<uint8_t>(n));
    }
    block.insert(block.end(), message.begin(), message.end());
    block.push_back(kTlvEnd);
    put_le16(block.data(), static_cast<uint32_t>(block.size() - 2));
}

void pack_adhoc(const uint8_t v[5], uint8_t &par0, uint8_t &par1)
{
    par0 = static_cast<uint8_t>((v[0] & 0x0F) << 4 | (v[1] & 0x07));
    par1 = static_cast<uint8_t>((v[2] & 0x01) << 7 | (v[3] & 0x07) << 4 | (v[4] & 0x0F));
}

void unpack_adhoc(uint8_t par0, uint8_t par1, uint8_t v[5])
{
    v[0] = par0 >> 4;
    v[1] = par0 & 0x07;
    v[2] = par1 >> 7;
    v[3] = (par1 >> 4) & 0x07;
    v[4] = par1 & 0x0F;
}

ZEL_STATUS mirror(ZEL_HANDLE hnd, bool enable, uint16_t position, uint32_t counter)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    uint8_t ext[8] = {};
    ext[0] = enable ? kModeOn : 0;
    put_le16(ext + 1, position);
    put_le32(ext + 3, counter);
    Reply r;
    return command_write_reply(hnd, kCmdMirror, 1, 0, ext, sizeof ext, r);
}

} // namespace zel::emul

using namespace zel::emul;

extern "C" ZEL_API ZEL_STATUS WriteEmulationNdefHnd(ZEL_HANDLE hnd, uint8_t tnf, const uint8_t *type_record,
                                                    uint8_t type_length, const uint8_t *id, uint8_t id_length,
                                                    const uint8_t *payload, uint32_t payload_length)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    std::vector<uint8_t> message;
    const ZEL_STATUS st =
        plain_message({tnf, type_record, type_length, id, id_length, payload, payload_length}, message);
    return st != ZEL_OK ? st : write_message(hnd, message);
}

extern "C" ZEL_API ZEL_STATUS WriteEmulationNdefWithAARHnd(ZEL_HANDLE hnd, uint8_t tnf, const uint8_t *type_record,
                                                           uint8_t type_length, const uint8_t *id, uint8_t id_length,
                                                           const uint8_t *payload, uint32_t payload_length,
                                                           const uint8_t *aar, uint32_t aar_length)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    std::vector<uint8_t> message;
    const ZEL_STATUS st =
        aar_message({tnf, type_record, type_length, id, id_length, payload, payload_length}, aar, aar_length, message);
    return st != ZEL_OK ? st : write_message(hnd, message);
}

extern "C" ZEL_API ZEL_STATUS WriteEmulationNdefRamHnd(ZEL_HANDLE hnd, uint8_t tnf, const uint8_t *type_record,
                                                       uint8_t type_length, const uint8_t *id, uint8_t id_length,
                                                       const uint8_t *payload, uint32_t payload_length)
{
    using namespace zel;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    std::vector<uint8_t> message, block;
    ZEL_STATUS st = ram_message({tnf, type_record, type_length, id, id_length, payload, payload_length}, message);
    if (st != ZEL_OK)
        return st;
    ram_block(message, block);
    // The first piece: as many block bytes as fit in front of the checksum.
    const uint32_t first = block.size() < kFirstPiece - 1 ? static_cast<uint32_t>(block.size()) : kFirstPiece - 1;
    uint8_t frame[kFrameBufLen];
    make_command(frame, kCmdLoad, static_cast<uint8_t>(first + 1), 1, 0);
    uint8_t ext_len = 0;
    if ((st = InitialHandshaking(hnd, frame, &ext_len)) != ZEL_OK)
        return st;
    uint8_t piece[kFirstPiece];
    std::memcpy(piece, block.data(), first);
    piece[first] = static_cast<uint8_t>(GetChecksumFragment(0, piece, static_cast<uint16_t>(first)) + 7);
    if ((st = PortWrite(hnd, piece, first + 1)) != ZEL_OK)
        return st;
    // The reader asks for each further piece with one byte; anything else ends the pieces.
    uint32_t at = first;
    while (at < block.size()) {
        uint8_t prompt = 0;
        if ((st = PortRead(hnd, &prompt, 1)) != ZEL_OK)
            return st;
        if (prompt != kMorePrompt)
            break;
        const uint32_t left = static_cast<uint32_t>(block.size()) - at;
        const uint32_t n = left < kLaterPiece ? left : kLaterPiece;
        piece[0] = static_cast<uint8_t>(n);
        std::memcpy(piece + 1, block.data() + at, n);
        if ((st = PortWrite(hnd, piece, n + 1)) != ZEL_OK)
            return st;
        at += n;
    }
    uint8_t last = 0;
    if ((st = PortRead(hnd, &last, 1)) != ZEL_OK)
        return st;
    return GetAndTestResponseIntro(hnd, frame, kCmdLoad);
}

extern "C" ZEL_API ZEL_STATUS TagEmulationStartHnd(ZEL_HANDLE hnd)
{
    return set_mode(hnd, kModeOn, kCmdStart, 0);
}

extern "C" ZEL_API ZEL_STATUS TagEmulationStopHnd(ZEL_HANDLE hnd)
{
    return set_mode(hnd, kModeOff, kCmdStop, 0);
}

extern "C" ZEL_API ZEL_STATUS TagEmulationStartRamHnd(ZEL_HANDLE hnd)
{
    return set_mode(hnd, kModeOn, kCmdStart, 1);
}

extern "C" ZEL_API ZEL_STATUS TagEmulationStopRamHnd(ZEL_HANDLE hnd)
{
    return set_mode(hnd, kModeOff, kCmdStop, 1);
}

extern "C" ZEL_API ZEL_STATUS CombinedModeEmulationStartHnd(ZEL_HANDLE hnd)
{
    return set_mode(hnd, kModeCombined, kCmdCombined, 0);
}

extern "C" ZEL_API ZEL_STATUS AdHocEmulationStartHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdAdHocStart) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS AdHocEmulationStopHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdAdHocStop) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS GetAdHocEmulationParamsHnd(ZEL_HANDLE hnd, uint8_t *threshold_min_level,
                                                         uint8_t *threshold_collision_level, uint8_t *rf_level_divider,
                                                         uint8_t *rf_gain, uint8_t *rx_threshold)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!threshold_min_level || !threshold_collision_level || !rf_level_divider || !rf_gain || !rx_threshold)
        return ZEL_PARAMETERS_ERROR;
    uint8_t par[2] = {};
    const ZEL_STATUS st = zel::handshake(hnd, kCmdAdHocGet, 0, 0, par);
    if (st != ZEL_OK)
        return st;
    uint8_t v[5];
    unpack_adhoc(par[0], par[1], v);
    *threshold_min_level = v[0];
    *threshold_collision_level = v[1];
    *rf_level_divider = v[2];
    *rf_gain = v[3];
    *rx_threshold = v[4];
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS SetAdHocEmulationParamsHnd(ZEL_HANDLE hnd, uint8_t threshold_min_level,
                                                         uint8_t threshold_collision_level, uint8_t rf_level_divider,
                                                         uint8_t rf_gain, uint8_t rx_threshold)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const uint8_t v[5] = {threshold_min_level, threshold_collision_level, rf_level_divider, rf_gain, rx_threshold};
    uint8_t par0 = 0, par1 = 0;
    pack_adhoc(v, par0, par1);
    return zel::handshake(hnd, kCmdAdHocSet, par0, par1);
}

extern "C" ZEL_API ZEL_STATUS GetExternalFieldStateHnd(ZEL_HANDLE hnd, uint8_t *field_present)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!field_present)
        return ZEL_PARAMETERS_ERROR;
    uint8_t par[2] = {};
    const ZEL_STATUS st = zel::handshake(hnd, kCmdField, 0, 0, par);
    if (st == ZEL_OK)
        *field_present = par[0];
    return st;
}

extern "C" ZEL_API ZEL_STATUS EnterShareRamCommModeHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdShareEnter, 0xAA, 0xBB) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS ExitShareRamCommModeHnd(ZEL_HANDLE hnd)
{
    return hnd ? zel::handshake(hnd, kCmdShareExit) : ZEL_DEVICE_WRONG_HANDLE;
}

extern "C" ZEL_API ZEL_STATUS WriteShareRamHnd(ZEL_HANDLE hnd, const uint8_t *ram_data, uint8_t address,
                                               uint8_t data_length)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (data_length == 0xFF)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (!ram_data && data_length)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    return zel::command_write_reply(hnd, kCmdShareWrite, address, data_length, ram_data, data_length, r);
}

extern "C" ZEL_API ZEL_STATUS ReadShareRamHnd(ZEL_HANDLE hnd, uint8_t *ram_data, uint8_t address, uint8_t data_length)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!ram_data && data_length)
        return ZEL_PARAMETERS_ERROR;
    zel::Reply r;
    const ZEL_STATUS st = zel::command_reply(hnd, kCmdShareRead, address, data_length, r, 0, zel::ExtRead::optional);
    if (st != ZEL_OK)
        return st;
    // The reply's length is the reader's word: never more than arrived, never more than asked for.
    const uint32_t n = r.data_len() < data_length ? r.data_len() : data_length;
    if (n)
        std::memcpy(ram_data, r.buf, n);
    return ZEL_OK;
}

extern "C" ZEL_STATUS TagEmulationMirrorCounterResetEnabledHnd(ZEL_HANDLE hnd, uint16_t mirror_position)
{
    return mirror(hnd, true, mirror_position, 0);
}

extern "C" ZEL_STATUS TagEmulationMirrorCounterNonResetEnabledHnd(ZEL_HANDLE hnd, uint16_t mirror_position)
{
    return mirror(hnd, true, mirror_position, 0xFFFFFF);
}

extern "C" ZEL_STATUS TagEmulationMirrorCounterDisabledHnd(ZEL_HANDLE hnd)
{
    return mirror(hnd, false, 0, 0);
}
