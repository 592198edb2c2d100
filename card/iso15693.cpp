// ISO 15693 tags: the reader command 0xB5 and its subcommands. The reader runs the tag dialogue; the
// library packs the passwords or key indexes, the page, block and status bytes into the EXT, and for the
// system information unpacks the tag's answer.
#include <cstring>

#include "card/iso15693_parse.h"
#include "core/frame.h"
#include "core/wipe.h"
#include "core/internal.h"
#include "tandro.h"

using namespace zel;

namespace {

constexpr uint8_t kCmdIso15693 = 0xB5;

// Subcommands (PAR0).
constexpr uint8_t kSubWritePassword = 1, kSubProtectPage = 2, kSubLockBlock = 3, kSubSecurityStatus = 4,
                  kSubSystemInfo = 5, kSubEmProtectPage = 6, kSubEmEnableRid = 7, kSubEmSecurityStatus = 8;

// Key form byte (PAR1).
constexpr uint8_t kFormIndex = 1, kFormProvided = 0x61, kFormNone = 0, kFormNoneInfo = 0x60;

// A password piece: 4 password bytes and a key index. A form with indexes sends zero password bytes, a
// form with passwords a zero index.
void put_piece(uint8_t *at, const uint8_t *pwd, uint8_t index)
{
    if (pwd)
        std::memcpy(at, pwd, 4);
    else
        std::memset(at, 0, 4);
    at[4] = pwd ? 0 : index;
}

// Sends the command with its EXT and tests the response frame, which is left in frame. The EXT checksum is
// placed by the length that the acknowledge gives.
ZEL_STATUS send(ZEL_HANDLE hnd, uint8_t *frame, uint8_t sub, uint8_t form, const uint8_t *data, uint8_t data_len)
{
    make_command(frame, kCmdIso15693, static_cast<uint8_t>(data_len + 1), sub, form);
    uint8_t ack_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ack_len);
    if (status != ZEL_OK)
        return status;
    if (ack_len == 0)
        return ZEL_COMMUNICATION_ERROR; // no room for the EXT's checksum
    uint8_t ext[256] = {};
    const WipeOnExit wipe_ext(ext, sizeof ext);
    std::memcpy(ext, data, data_len);
    CalcChecksum(ext, ack_len);
    if ((status = PortWrite(hnd, ext, ack_len)) != ZEL_OK)
        return status;
    return GetAndTestResponseIntro(hnd, frame, kCmdIso15693);
}

ZEL_STATUS run(ZEL_HANDLE hnd, uint8_t sub, uint8_t form, const uint8_t *data, uint8_t data_len)
{
    uint8_t frame[kFrameBufLen] = {};
    return send(hnd, frame, sub, form, data, data_len);
}

// A command whose response may carry an EXT: its data go to buf (256 bytes), their count to n.
ZEL_STATUS run_read(ZEL_HANDLE hnd, uint8_t sub, uint8_t form, const uint8_t *data, uint8_t data_len, uint8_t *buf,
                    size_t &n)
{
    uint8_t frame[kFrameBufLen] = {};
    n = 0;
    const ZEL_STATUS status = send(hnd, frame, sub, form, data, data_len);
    if (status != ZEL_OK)
        return status;
    const uint8_t len = frame[kExtLen];
    if (len == 0)
        return ZEL_OK;
    const ZEL_STATUS data_status = GetAndTestResponseData(hnd, len, buf);
    if (data_status != ZEL_OK)
        return data_status;
    n = len - 1u;
    return ZEL_OK;
}

ZEL_STATUS write_password(ZEL_HANDLE hnd, uint8_t form, uint8_t ident, const uint8_t *cur, uint8_t cur_index,
                          const uint8_t *next, uint8_t next_index)
{
    uint8_t d[11];
    const WipeOnExit wipe_d(d, sizeof d);
    d[0] = ident;
    put_piece(d + 1, cur, cur_index);
    put_piece(d + 6, next, next_index);
    return run(hnd, kSubWritePassword, form, d, sizeof d);
}

uint8_t protection_status(uint8_t low_read, uint8_t low_write, uint8_t high_read, uint8_t high_write)
{
    return static_cast<uint8_t>((low_read ? 0x01 : 0) | (low_write ? 0x02 : 0) | (high_read ? 0x10 : 0) |
                                (high_write ? 0x20 : 0));
}

ZEL_STATUS protect_page(ZEL_HANDLE hnd, uint8_t form, const uint8_t *read_pwd, uint8_t read_index,
                        const uint8_t *write_pwd, uint8_t write_index, uint8_t page, uint8_t status)
{
    uint8_t d[12];
    const WipeOnExit wipe_d(d, sizeof d);
    put_piece(d, read_pwd, read_index);
    put_piece(d + 5, write_pwd, write_index);
    d[10] = page;
    d[11] = status;
    return run(hnd, kSubProtectPage, form, d, sizeof d);
}

ZEL_STATUS lock_block(ZEL_HANDLE hnd, uint8_t form, const uint8_t *read_pwd, uint8_t read_index,
                      const uint8_t *write_pwd, uint8_t write_index, uint8_t block)
{
    uint8_t d[11];
    const WipeOnExit wipe_d(d, sizeof d);
    put_piece(d, read_pwd, read_index);
    put_piece(d + 5, write_pwd, write_index);
    d[10] = block;
    return run(hnd, kSubLockBlock, form, d, sizeof d);
}

ZEL_STATUS security_status(ZEL_HANDLE hnd, uint8_t sub, uint8_t first, uint8_t count, uint8_t *out)
{
    if (!out)
        return ZEL_PARAMETERS_ERROR;
    const uint8_t d[2] = {first, count};
    uint8_t buf[256];
    size_t n = 0;
    const ZEL_STATUS status = run_read(hnd, sub, kFormNone, d, sizeof d, buf, n);
    if (status != ZEL_OK)
        return status;
    std::memcpy(out, buf, n); // only what the reader sent
    return ZEL_OK;
}

ZEL_STATUS system_information(ZEL_HANDLE hnd, uint8_t form, const uint8_t *pwd, uint8_t index, uint8_t *info_flags,
                              uint8_t *uid, uint8_t *dsfid, uint8_t *afi, uint16_t *memory_size, uint8_t *ic_reference)
{
    if (!info_flags || !uid || !dsfid || !afi || !memory_size || !ic_reference)
        return ZEL_PARAMETERS_ERROR;
    uint8_t d[5];
    const WipeOnExit wipe_d(d, sizeof d);
    put_piece(d, pwd, index);
    uint8_t buf[256];
    size_t n = 0;
    const ZEL_STATUS status = run_read(hnd, kSubSystemInfo, form, d, sizeof d, buf, n);
    if (status != ZEL_OK)
        return status;
    SystemInfo info;
    if (!parse_system_information(buf, n, info))
        return ZEL_COMMUNICATION_ERROR;
    *info_flags = info.flags;
    std::memcpy(uid, info.uid, 8);
    if (info.flags & 0x01)
        *dsfid = info.dsfid;
    if (info.flags & 0x02)
        *afi = info.afi;
    if (info.flags & 0x04)
        *memory_size = info.memory_size;
    if (info.flags & 0x08)
        *ic_reference = info.ic_reference;
    return ZEL_OK;
}

ZEL_STATUS em_protect_page(ZEL_HANDLE hnd, uint8_t form, const uint8_t *pwd, uint8_t index, uint8_t page,
                           uint8_t status)
{
    uint8_t d[7];
    const WipeOnExit wipe_d(d, sizeof d);
    put_piece(d, pwd, index);
    d[5] = page;
    d[6] = status;
    return run(hnd, kSubEmProtectPage, form, d, sizeof d);
}

ZEL_STATUS em_enable_rid(ZEL_HANDLE hnd, uint8_t form, const uint8_t *pwd, uint8_t index)
{
    uint8_t d[5];
    const WipeOnExit wipe_d(d, sizeof d);
    put_piece(d, pwd, index);
    return run(hnd, kSubEmEnableRid, form, d, sizeof d);
}

} // namespace

bool zel::parse_system_information(const uint8_t *data, size_t n, SystemInfo &out)
{
    if (!data || n < 9)
        return false;
    const uint8_t flags = data[0];
    size_t need = 9;
    need += (flags & 0x01) ? 1 : 0;
    need += (flags & 0x02) ? 1 : 0;
    need += (flags & 0x04) ? 2 : 0;
    need += (flags & 0x08) ? 1 : 0;
    if (n < need)
        return false;
    out.flags = flags;
    for (int i = 0; i < 8; ++i)
        out.uid[i] = data[8 - i];
    size_t pos = 9;
    if (flags & 0x01)
        out.dsfid = data[pos++];
    if (flags & 0x02)
        out.afi = data[pos++];
    if (flags & 0x04) {
        const unsigned blocks = data[pos] + 1u, block_size = (data[pos + 1] & 0x1F) + 1u;
        out.memory_size = static_cast<uint16_t>(blocks * block_size);
        pos += 2;
    }
    if (flags & 0x08)
        out.ic_reference = data[pos];
    return true;
}

#define NEED(p)                          \
    do {                                 \
        if (!(p))                        \
            return ZEL_PARAMETERS_ERROR; \
    } while (0)

extern "C" {

ZEL_API ZEL_STATUS icode_write_passwordHnd(ZEL_HANDLE hnd, uint8_t pwd_ident, uint8_t current_pwd_key_index,
                                           uint8_t new_pwd_key_index)
{
    return write_password(hnd, kFormIndex, pwd_ident, nullptr, current_pwd_key_index, nullptr, new_pwd_key_index);
}

ZEL_API ZEL_STATUS icode_write_password_PKHnd(ZEL_HANDLE hnd, uint8_t pwd_ident, const uint8_t *current_pwd,
                                              const uint8_t *new_pwd)
{
    NEED(current_pwd && new_pwd);
    return write_password(hnd, kFormProvided, pwd_ident, current_pwd, 0, new_pwd, 0);
}

ZEL_API ZEL_STATUS icode_protect_pageHnd(ZEL_HANDLE hnd, uint8_t read_pwd_key_index, uint8_t write_pwd_key_index,
                                         uint8_t page, uint8_t low_read, uint8_t low_write, uint8_t high_read,
                                         uint8_t high_write)
{
    return protect_page(hnd, kFormIndex, nullptr, read_pwd_key_index, nullptr, write_pwd_key_index, page,
                        protection_status(low_read, low_write, high_read, high_write));
}

ZEL_API ZEL_STATUS icode_protect_page_PKHnd(ZEL_HANDLE hnd, const uint8_t *read_pwd, const uint8_t *write_pwd,
                                            uint8_t page, uint8_t low_read, uint8_t low_write, uint8_t high_read,
                                            uint8_t high_write)
{
    NEED(read_pwd && write_pwd);
    return protect_page(hnd, kFormProvided, read_pwd, 0, write_pwd, 0, page,
                        protection_status(low_read, low_write, high_read, high_write));
}

ZEL_API ZEL_STATUS icode_lock_blockHnd(ZEL_HANDLE hnd, uint8_t read_pwd_key_index, uint8_t write_pwd_key_index,
                                       uint8_t block)
{
    return lock_block(hnd, kFormIndex, nullptr, read_pwd_key_index, nullptr, write_pwd_key_index, block);
}

ZEL_API ZEL_STATUS icode_lock_block_PKHnd(ZEL_HANDLE hnd, const uint8_t *read_pwd, const uint8_t *write_pwd,
                                          uint8_t block)
{
    NEED(read_pwd && write_pwd);
    return lock_block(hnd, kFormProvided, read_pwd, 0, write_pwd, 0, block);
}

ZEL_API ZEL_STATUS iso15693_lock_block_no_authHnd(ZEL_HANDLE hnd, uint8_t block)
{
    return lock_block(hnd, kFormNone, nullptr, 0, nullptr, 0, block);
}

ZEL_API ZEL_STATUS iso15693_get_multiply_block_security_statusHnd(ZEL_HANDLE hnd, uint8_t first_block,
                                                                  uint8_t number_of_blocks, uint8_t *block_data)
{
    return security_status(hnd, kSubSecurityStatus, first_block, number_of_blocks, block_data);
}

ZEL_API ZEL_STATUS em4237_get_multiply_block_security_statusHnd(ZEL_HANDLE hnd, uint8_t first_block,
                                                                uint8_t number_of_blocks, uint8_t *block_data)
{
    return security_status(hnd, kSubEmSecurityStatus, first_block, number_of_blocks, block_data);
}

ZEL_API ZEL_STATUS iso15693_get_system_informationHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t *info_flags,
                                                      uint8_t *uid, uint8_t *dsfid, uint8_t *afi, uint16_t *memory_size,
                                                      uint8_t *ic_reference)
{
    return system_information(hnd, kFormIndex, nullptr, key_index, info_flags, uid, dsfid, afi, memory_size,
                              ic_reference);
}

ZEL_API ZEL_STATUS iso15693_get_system_information_PKHnd(ZEL_HANDLE hnd, const uint8_t *pwd, uint8_t *info_flags,
                                                         uint8_t *uid, uint8_t *dsfid, uint8_t *afi,
                                                         uint16_t *memory_size, uint8_t *ic_reference)
{
    NEED(pwd);
    return system_information(hnd, kFormProvided, pwd, 0, info_flags, uid, dsfid, afi, memory_size, ic_reference);
}

ZEL_API ZEL_STATUS iso15693_get_system_information_no_authHnd(ZEL_HANDLE hnd, uint8_t *info_flags, uint8_t *uid,
                                                              uint8_t *dsfid, uint8_t *afi, uint16_t *memory_size,
                                                              uint8_t *ic_reference)
{
    return system_information(hnd, kFormNoneInfo, nullptr, 0, info_flags, uid, dsfid, afi, memory_size, ic_reference);
}

ZEL_API ZEL_STATUS em4237_protect_pageHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t page, uint8_t status)
{
    return em_protect_page(hnd, kFormIndex, nullptr, key_index, page, status);
}

ZEL_API ZEL_STATUS em4237_protect_page_PKHnd(ZEL_HANDLE hnd, const uint8_t *pwd, uint8_t page, uint8_t status)
{
    NEED(pwd);
    return em_protect_page(hnd, kFormProvided, pwd, 0, page, status);
}

ZEL_API ZEL_STATUS em4237_enable_RIDHnd(ZEL_HANDLE hnd, uint8_t key_index)
{
    return em_enable_rid(hnd, kFormIndex, nullptr, key_index);
}

ZEL_API ZEL_STATUS em4237_enable_RID_PKHnd(ZEL_HANDLE hnd, const uint8_t *pwd)
{
    NEED(pwd);
    return em_enable_rid(hnd, kFormProvided, pwd, 0);
}

} // extern "C"
