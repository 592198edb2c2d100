// The reader's NTAG 424 DNA and DESFire Light commands: one command (0xB3) with the operation in PAR0, the
// key head (source, number, 16 key bytes) in front of the operation's fields, and the outcome in the reply
// frame, with the data behind it where an operation reads something.
#include "ntag424/ntag424_internal.h"

#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "core/wipe.h"
#include "tandro.h"

namespace zel::ntag424 {

namespace {

constexpr uint32_t kHead = 18; // key source, key number, key (16)

// The head of every authenticated operation. A provided key without its bytes is refused.
bool head(uint8_t *ext, const KeyRef &k)
{
    if (k.source == NT4H_KEY_PROVIDED && !k.bytes)
        return false;
    ext[0] = k.source;
    ext[1] = k.source == NT4H_KEY_READER ? k.number : 0;
    std::memset(ext + 2, 0, 16);
    if (k.source == NT4H_KEY_PROVIDED)
        std::memcpy(ext + 2, k.bytes, 16);
    return true;
}

// Sends the operation's extended data and reads the reply; data_len of the reply's data goes to want
// unless want is null. A reply that carries another amount of data than asked for is a malformed frame.
ZEL_STATUS run(ZEL_HANDLE hnd, uint8_t op, const uint8_t *ext, uint32_t n, Reply &r, uint32_t want)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const ZEL_STATUS st = command_write_reply(hnd, kCmd, op, 0, ext, static_cast<uint8_t>(n), r);
    if (st != ZEL_OK)
        return st;
    return r.data_len() == want ? ZEL_OK : ZEL_COMMUNICATION_ERROR;
}

// An operation whose reply is the frame alone.
ZEL_STATUS run_plain(ZEL_HANDLE hnd, uint8_t op, const uint8_t *ext, uint32_t n)
{
    Reply r;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    return command_write_reply(hnd, kCmd, op, 0, ext, static_cast<uint8_t>(n), r);
}

ZEL_STATUS change_file_settings(ZEL_HANDLE hnd, const KeyRef &k, uint8_t file_no, uint8_t key_no, uint8_t curr_comm,
                                const uint8_t *settings, uint8_t len)
{
    uint8_t ext[23 + NT4H_MAX_FILE_SETTINGS];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!head(ext, k) || len > NT4H_MAX_FILE_SETTINGS)
        return ZEL_PARAMETERS_ERROR;
    ext[18] = k.selector;
    ext[19] = file_no;
    ext[20] = key_no;
    ext[21] = curr_comm;
    ext[22] = len;
    std::memcpy(ext + 23, settings, len);
    return run_plain(hnd, kChangeFileSettings, ext, 23u + len);
}

ZEL_STATUS set_configuration(ZEL_HANDLE hnd, const KeyRef &k, uint8_t option, const uint8_t *data, uint8_t len)
{
    uint8_t ext[21 + 8];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!head(ext, k) || len > 8)
        return ZEL_PARAMETERS_ERROR;
    ext[18] = k.selector;
    ext[19] = option;
    ext[20] = len;
    std::memcpy(ext + 21, data, len);
    return run_plain(hnd, kSetConfiguration, ext, 21u + len);
}

uint8_t access_hi(uint8_t r, uint8_t w)
{
    return static_cast<uint8_t>((r & 0x0F) << 4 | (w & 0x0F));
}

uint8_t access_lo(uint8_t rw, uint8_t c)
{
    return static_cast<uint8_t>((rw & 0x0F) << 4 | (c & 0x0F));
}

void put_offset(uint8_t *out, uint8_t &at, uint32_t v)
{
    put_le24(out + at, v);
    at = static_cast<uint8_t>(at + 3);
}

} // namespace

uint8_t compose_sdm_settings(uint8_t comm, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, const nt4h_sdm_settings &s,
                             bool with_tt_status, uint8_t *out)
{
    out[0] = static_cast<uint8_t>((comm & 0x03) | 0x40);
    // The access word goes out least significant byte first: read-write and change, then read and write.
    out[1] = access_lo(rw, c);
    out[2] = access_hi(r, w);
    uint8_t options = 0x01;
    if (s.uid_enable)
        options |= NT4H_SDM_UID_MIRROR;
    if (s.sdm_read_ctr_enable)
        options |= NT4H_SDM_READ_CTR_MIRROR;
    if (s.sdm_read_ctr_limit_enable)
        options |= NT4H_SDM_READ_CTR_LIMIT;
    if (s.sdm_enc_file_data_enable)
        options |= NT4H_SDM_ENC_FILE_DATA;
    if (with_tt_status && s.tt_status_enable)
        options |= NT4H_SDM_TT_STATUS;
    out[3] = options;
    const uint8_t meta = s.meta_data_key_no & 0x0F, file = s.file_data_read_key_no & 0x0F;
    const uint16_t sdm_access = static_cast<uint16_t>(meta << 12 | file << 8 | 0xF0 | (s.read_ctr_key_no & 0x0F));
    put_le16(out + 4, sdm_access);
    uint8_t at = 6;
    if (meta == 0x0E) {
        if (options & NT4H_SDM_UID_MIRROR)
            put_offset(out, at, s.uid_offset);
        if (options & NT4H_SDM_READ_CTR_MIRROR)
            put_offset(out, at, s.sdm_read_ctr_offset);
    } else if (meta != 0x0F) {
        put_offset(out, at, s.picc_data_offset);
    }
    if (file != 0x0F) {
        put_offset(out, at, s.mac_input_offset);
        if (options & NT4H_SDM_ENC_FILE_DATA) {
            put_offset(out, at, s.enc_offset);
            put_offset(out, at, s.enc_length);
        }
        put_offset(out, at, s.mac_offset);
    }
    if (options & NT4H_SDM_READ_CTR_LIMIT)
        put_offset(out, at, s.read_ctr_limit);
    return at;
}

ZEL_STATUS nt_change_standard_file_settings(ZEL_HANDLE hnd, KeyRef key, uint8_t file_no, uint8_t key_no,
                                            uint8_t curr_communication_mode, uint8_t new_communication_mode,
                                            uint8_t read_key_no, uint8_t write_key_no, uint8_t read_write_key_no,
                                            uint8_t change_key_no)
{
    const uint8_t settings[3] = {static_cast<uint8_t>(new_communication_mode & 0x03),
                                 access_lo(read_write_key_no, change_key_no), access_hi(read_key_no, write_key_no)};
    return change_file_settings(hnd, key, file_no, key_no, curr_communication_mode, settings, 3);
}

namespace {

ZEL_STATUS sdm_settings(ZEL_HANDLE hnd, const KeyRef &key, uint8_t file_no, uint8_t key_no, uint8_t curr_comm,
                        uint8_t new_comm, uint8_t r, uint8_t w, uint8_t rw, uint8_t c, const nt4h_sdm_settings *sdm,
                        bool tt)
{
    if (!sdm)
        return ZEL_PARAMETERS_ERROR;
    uint8_t settings[NT4H_MAX_FILE_SETTINGS];
    const uint8_t len = compose_sdm_settings(new_comm, r, w, rw, c, *sdm, tt, settings);
    return change_file_settings(hnd, key, file_no, key_no, curr_comm, settings, len);
}

} // namespace

ZEL_STATUS nt_change_sdm_file_settings(ZEL_HANDLE hnd, KeyRef key, uint8_t file_no, uint8_t key_no,
                                       uint8_t curr_communication_mode, uint8_t new_communication_mode,
                                       uint8_t read_key_no, uint8_t write_key_no, uint8_t read_write_key_no,
                                       uint8_t change_key_no, const nt4h_sdm_settings *sdm)
{
    return sdm_settings(hnd, key, file_no, key_no, curr_communication_mode, new_communication_mode, read_key_no,
                        write_key_no, read_write_key_no, change_key_no, sdm, false);
}

ZEL_STATUS nt_tt_change_sdm_file_settings(ZEL_HANDLE hnd, KeyRef key, uint8_t file_no, uint8_t key_no,
                                          uint8_t curr_communication_mode, uint8_t new_communication_mode,
                                          uint8_t read_key_no, uint8_t write_key_no, uint8_t read_write_key_no,
                                          uint8_t change_key_no, const nt4h_sdm_settings *sdm)
{
    return sdm_settings(hnd, key, file_no, key_no, curr_communication_mode, new_communication_mode, read_key_no,
                        write_key_no, read_write_key_no, change_key_no, sdm, true);
}

ZEL_STATUS nt_set_rid(ZEL_HANDLE hnd, KeyRef key)
{
    const uint8_t data[1] = {0x02}; // the random ID bit of the card's configuration byte
    return set_configuration(hnd, key, 0, data, 1);
}

ZEL_STATUS nt_enable_tt(ZEL_HANDLE hnd, KeyRef key, uint8_t tt_status_key_no)
{
    const uint8_t data[2] = {0x01, static_cast<uint8_t>(tt_status_key_no & 0x0F)}; // enabled, status read key
    return set_configuration(hnd, key, 7, data, 2);
}

ZEL_STATUS nt_change_key(ZEL_HANDLE hnd, KeyRef key, uint8_t key_no, const uint8_t *new_key, const uint8_t *old_key)
{
    uint8_t ext[51];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!new_key || !head(ext, key))
        return ZEL_PARAMETERS_ERROR;
    ext[18] = key_no;
    std::memcpy(ext + 19, new_key, 16);
    std::memset(ext + 35, 0, 16);
    if (old_key)
        std::memcpy(ext + 35, old_key, 16);
    return run_plain(hnd, kChangeKey, ext, sizeof ext);
}

ZEL_STATUS nt_get_uid(ZEL_HANDLE hnd, KeyRef key, uint8_t key_no, uint8_t *uid)
{
    uint8_t ext[19];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!uid || !head(ext, key))
        return ZEL_PARAMETERS_ERROR;
    ext[18] = key_no;
    Reply r;
    const ZEL_STATUS st = run(hnd, kGetUid, ext, sizeof ext, r, 7);
    if (st == ZEL_OK)
        std::memcpy(uid, r.buf, 7);
    return st;
}

ZEL_STATUS nt_get_file_settings(ZEL_HANDLE hnd, KeyRef key, uint8_t file_no, uint8_t *file_settings,
                                uint8_t *settings_len)
{
    if (!file_settings || !settings_len)
        return ZEL_PARAMETERS_ERROR;
    *settings_len = 0;
    const uint8_t ext[4] = {key.source, 0, key.selector, file_no};
    Reply r;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const ZEL_STATUS st = command_write_reply(hnd, kCmd, kGetFileSettings, 0, ext, sizeof ext, r);
    if (st != ZEL_OK)
        return st;
    if (r.data_len() > NT4H_MAX_FILE_SETTINGS)
        return ZEL_BUFFER_OVERFLOW;
    std::memcpy(file_settings, r.buf, r.data_len());
    *settings_len = static_cast<uint8_t>(r.data_len());
    return ZEL_OK;
}

ZEL_STATUS nt_get_sdm_read_ctr(ZEL_HANDLE hnd, KeyRef key, uint8_t file_no, uint8_t key_no, uint32_t *sdm_read_ctr)
{
    uint8_t ext[20];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!sdm_read_ctr || !head(ext, key))
        return ZEL_PARAMETERS_ERROR;
    ext[18] = key_no;
    ext[19] = file_no;
    Reply r;
    const ZEL_STATUS st = run(hnd, kGetSdmReadCtr, ext, sizeof ext, r, 3);
    if (st == ZEL_OK)
        *sdm_read_ctr = get_le24(r.buf);
    return st;
}

ZEL_STATUS nt_get_tt_status(ZEL_HANDLE hnd, KeyRef key, uint8_t key_no, uint8_t *tt_perm_status,
                            uint8_t *tt_curr_status)
{
    uint8_t ext[19];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!tt_perm_status || !tt_curr_status || !head(ext, key))
        return ZEL_PARAMETERS_ERROR;
    ext[18] = key_no;
    Reply r;
    const ZEL_STATUS st = run(hnd, kGetTtStatus, ext, sizeof ext, r, 2);
    if (st == ZEL_OK) {
        *tt_perm_status = r.buf[0];
        *tt_curr_status = r.buf[1];
    }
    return st;
}

ZEL_STATUS nt_delete_tmc_file(ZEL_HANDLE hnd, KeyRef key, uint8_t file_no)
{
    uint8_t ext[19];
    const WipeOnExit wipe(ext, sizeof ext);
    if (!head(ext, key))
        return ZEL_PARAMETERS_ERROR;
    ext[18] = file_no;
    return run_plain(hnd, kDeleteTmcFile, ext, sizeof ext);
}

} // namespace zel::ntag424

extern "C" ZEL_API ZEL_STATUS nt4h_set_global_parametersHnd(ZEL_HANDLE hnd, uint8_t file_no, uint8_t key_no,
                                                            uint8_t communication_mode)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    const uint8_t ext[3] = {file_no, key_no, communication_mode};
    zel::Reply r;
    return zel::command_write_reply(hnd, zel::ntag424::kCmd, zel::ntag424::kGlobalParameters, 0, ext, sizeof ext, r);
}
