// MIFARE Plus: personalisation over I-blocks (the card's write-perso and commit-perso commands), and the
// reader commands that authenticate by a key block (0x6A), write a key or the field configuration (0x6B) and
// read the UID (0x6C). The reader runs the AES dialogue; the library only fills the frames.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "core/wipe.h"
#include "mfp/mfp_internal.h"
#include "tandro.h"

using namespace zel;
using namespace zel::mfp;

namespace {

constexpr uint32_t kKeyLen = 16;

uint8_t key_par0(KeyForm form)
{
    switch (form) {
    case KeyForm::Reader: return 0x00;
    case KeyForm::Sam: return 0x10;
    case KeyForm::Provided: return 0x80;
    }
    return 0;
}

// One personalisation command in one I-block: the reply must be two bytes, the second the card's answer.
ZEL_STATUS perso_block(ZEL_HANDLE hnd, const uint8_t *block, uint8_t len, uint8_t timeout)
{
    uint8_t reply[256] = {};
    uint8_t reply_len = 0, chained = 0;
    uint32_t reader_status = 0;
    const ZEL_STATUS status =
        i_block_trans_rcv_chainHnd(hnd, 0, timeout, len, block, &reply_len, reply, &chained, &reader_status);
    if (status != ZEL_OK)
        return status;
    if (reply_len != 2)
        return ZEL_COMMAND_FAILED;
    return error_code(reply[1]);
}

// Command 0x6A on a key block: the reader's key by index, or the caller's key in the EXT.
ZEL_STATUS auth_key_block(ZEL_HANDLE hnd, uint16_t address, KeyForm form, uint8_t key_index, const uint8_t *key)
{
    uint8_t ext[2 + kKeyLen] = {};
    const WipeOnExit wipe(ext, sizeof ext);
    put_le16(ext, address);
    uint8_t len = 2;
    if (form == KeyForm::Provided) {
        if (!key)
            return ZEL_PARAMETERS_ERROR;
        std::memcpy(ext + 2, key, kKeyLen);
        len = 2 + kKeyLen;
    }
    Reply r;
    return command_write_reply(hnd, kCmdAuthKeyBlock, key_par0(form), form == KeyForm::Provided ? 0 : key_index, ext,
                               len, r);
}

// What a key write carries besides its addresses: the new data (a key or the field configuration), the SAM
// entry of the new key, the caller's authenticating key.
struct KeyWrite {
    KeyForm form = KeyForm::Reader;
    uint8_t par0 = 0;
    uint8_t key_index = 0;             // reader or SAM entry of the authenticating key
    const uint8_t *auth_key = nullptr; // the caller's authenticating key
    const uint8_t *data = nullptr;     // 16 bytes of new data
    uint8_t new_entry = 0;             // SAM entry of the new key
};

// Command 0x6B: target address, new data, address of the authenticating key, and by the form the SAM entry
// of the new key or the authenticating key itself.
ZEL_STATUS write_key(ZEL_HANDLE hnd, uint16_t target, uint16_t authenticator, const KeyWrite &w)
{
    uint8_t ext[2 + kKeyLen + 2 + kKeyLen] = {};
    const WipeOnExit wipe(ext, sizeof ext);
    put_le16(ext, target);
    if (w.data)
        std::memcpy(ext + 2, w.data, kKeyLen);
    put_le16(ext + 18, authenticator);
    uint8_t len = 20;
    uint8_t par1 = w.key_index;
    if (w.form == KeyForm::Sam) {
        ext[20] = w.new_entry;
        len = 21;
    } else if (w.form == KeyForm::Provided) {
        if (!w.auth_key)
            return ZEL_PARAMETERS_ERROR;
        std::memcpy(ext + 20, w.auth_key, kKeyLen);
        len = 36;
        par1 = 0;
    }
    Reply r;
    return command_write_reply(hnd, kCmdWriteKey, w.par0, par1, ext, len, r);
}

// A change of a card key (master, configuration, VC polling): reader index or caller's key, new key.
ZEL_STATUS change_card_key(ZEL_HANDLE hnd, uint16_t target, uint16_t authenticator, KeyForm form, uint8_t key_index,
                           const uint8_t *auth_key, const uint8_t *new_key, uint8_t new_entry)
{
    if (form != KeyForm::Sam && !new_key)
        return ZEL_PARAMETERS_ERROR;
    KeyWrite w;
    w.form = form;
    w.par0 = key_par0(form);
    w.key_index = key_index;
    w.auth_key = auth_key;
    w.data = form == KeyForm::Sam ? nullptr : new_key;
    w.new_entry = new_entry;
    return write_key(hnd, target, authenticator, w);
}

ZEL_STATUS field_config(ZEL_HANDLE hnd, KeyForm form, uint8_t key_index, const uint8_t *auth_key, uint8_t rid_use,
                        uint8_t prox_check_use)
{
    uint8_t data[kKeyLen];
    field_configuration(rid_use, prox_check_use, data);
    KeyWrite w;
    w.form = form;
    w.par0 = key_par0(form);
    w.key_index = key_index;
    w.auth_key = auth_key;
    w.data = data;
    return write_key(hnd, MFP_FIELD_CONFIGURATION_BLOCK, MFP_CARD_CONFIGURATION_KEY, w);
}

ZEL_STATUS change_sector_key(ZEL_HANDLE hnd, KeyForm form, uint8_t sector, uint8_t auth_mode, uint8_t key_index,
                             const uint8_t *auth_key, const uint8_t *new_key, uint8_t new_entry, uint8_t selector)
{
    SectorKeyPlan plan;
    if (!sector_key_plan(form, sector, auth_mode, selector, plan))
        return ZEL_PARAMETERS_ERROR;
    if (form != KeyForm::Sam && !new_key)
        return ZEL_PARAMETERS_ERROR;
    KeyWrite w;
    w.form = form;
    w.par0 = plan.par0;
    w.key_index = key_index;
    w.auth_key = auth_key;
    w.data = form == KeyForm::Sam ? nullptr : new_key;
    w.new_entry = new_entry;
    return write_key(hnd, plan.target, plan.authenticator, w);
}

// Command 0x6C: two key indexes (the second zero in the Ev forms) or two keys; PAR1 1 for the Ev forms.
ZEL_STATUS get_uid(ZEL_HANDLE hnd, KeyForm form, bool ev, uint8_t index1, uint8_t index2, const uint8_t *key1,
                   const uint8_t *key2, uint8_t *uid, uint8_t *uid_len)
{
    if (!uid || !uid_len)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[2 * kKeyLen] = {};
    const WipeOnExit wipe(ext, sizeof ext);
    uint8_t len = 2;
    if (form == KeyForm::Provided) {
        if (!key1 || (!ev && !key2))
            return ZEL_PARAMETERS_ERROR;
        std::memcpy(ext, key1, kKeyLen);
        if (!ev)
            std::memcpy(ext + kKeyLen, key2, kKeyLen);
        len = 2 * kKeyLen;
    } else {
        ext[0] = index1;
        ext[1] = ev ? 0 : index2;
    }
    Reply r;
    const ZEL_STATUS status = command_write_reply(hnd, kCmdGetUid, key_par0(form), ev ? 1 : 0, ext, len, r);
    if (status != ZEL_OK)
        return status;
    return uid_reply(r.buf, r.ext_len, uid, uid_len);
}

} // namespace

// ---- The tables and rules ----

ZEL_STATUS zel::mfp::error_code(uint8_t answer)
{
    switch (answer) {
    case 0x90: return ZEL_OK;
    case 6: return ZEL_AUTH_ERROR;
    case 7: return ZEL_MFP_COMMAND_OVERFLOW;
    case 8: return ZEL_MFP_INVALID_MAC;
    case 9: return ZEL_MFP_INVALID_BLOCK_NR;
    case 10: return ZEL_MFP_NOT_EXIST_BLOCK_NR;
    case 11: return ZEL_MFP_COND_OF_USE_ERROR;
    case 12: return ZEL_MFP_LENGTH_ERROR;
    case 15: return ZEL_MFP_GENERAL_MANIP_ERROR;
    default: return ZEL_COMMAND_FAILED;
    }
}

bool zel::mfp::perso_card_type(uint8_t t)
{
    return (t >= 0x23 && t <= 0x26) || t == 0x3C || t == 0x43 || t == 0x44 || t == 0x48 || t == 0x4B;
}

bool zel::mfp::perso_full_key_set(uint8_t t)
{
    return t == 0x25 || t == 0x26;
}

bool zel::mfp::sector_key_plan(KeyForm form, uint8_t sector, uint8_t auth_mode, uint8_t selector, SectorKeyPlan &plan)
{
    const uint16_t a = sector_key_a(sector), b = sector_key_b(sector);
    if (form == KeyForm::Provided) {
        if (auth_mode != 0x80 && auth_mode != 0x81)
            return false;
        plan.par0 = auth_mode;
        plan.authenticator = auth_mode == 0x80 ? a : b;
        plan.target = selector == 1 ? a : selector == 2 ? b : plan.authenticator;
        return true;
    }
    if (auth_mode != 0x60 && auth_mode != 0x61)
        return false;
    // The auth mode only picks PAR0: the reader always authenticates with key B here.
    plan.par0 = static_cast<uint8_t>((form == KeyForm::Sam ? 0x10 : 0x00) | (auth_mode == 0x61 ? 1 : 0));
    plan.authenticator = b;
    plan.target = selector == 1 ? a : b;
    return true;
}

void zel::mfp::field_configuration(uint8_t rid_use, uint8_t prox_check_use, uint8_t out[16])
{
    std::memset(out, 0, 16);
    out[1] = rid_use ? 0xAA : 0x55;
    out[2] = prox_check_use ? 0xAA : 0x55;
}

ZEL_STATUS zel::mfp::uid_reply(const uint8_t *ext, uint8_t ext_len, uint8_t *uid, uint8_t *uid_len)
{
    if (!ext || ext_len < 2)
        return ZEL_COMMUNICATION_ERROR; // no length byte before the checksum
    const uint8_t n = ext[0];
    if (n > 10)
        return ZEL_BUFFER_OVERFLOW;
    // The UID bytes the reply holds, between the length byte and the checksum.
    const uint32_t present = ext_len - 2u;
    const uint32_t copy = n < present ? n : present;
    std::memset(uid, 0, n);
    std::memcpy(uid, ext + 1, copy);
    *uid_len = n;
    return static_cast<uint8_t>(n + 1) != static_cast<uint8_t>(ext_len - 1) ? ZEL_PARAMETERS_ERROR : ZEL_OK;
}

// ---- Personalisation ----

extern "C" ZEL_API ZEL_STATUS MFP_WritePersoHnd(ZEL_HANDLE hnd, uint16_t address, const uint8_t *data)
{
    if (!data)
        return ZEL_PARAMETERS_ERROR;
    uint8_t block[3 + kKeyLen];
    const WipeOnExit wipe(block, sizeof block);
    block[0] = kWritePerso;
    put_le16(block + 1, address);
    std::memcpy(block + 3, data, kKeyLen);
    return perso_block(hnd, block, sizeof block, kWritePersoTimeout);
}

extern "C" ZEL_API ZEL_STATUS MFP_CommitPersoHnd(ZEL_HANDLE hnd)
{
    const uint8_t block[1] = {kCommitPerso};
    return perso_block(hnd, block, 1, kCommitPersoTimeout);
}

extern "C" ZEL_API ZEL_STATUS MFP_PersonalizationMinimalHnd(
    ZEL_HANDLE hnd, const uint8_t *card_master_key, const uint8_t *card_config_key, const uint8_t *level_2_switch_key,
    const uint8_t *level_3_switch_key, const uint8_t *level_1_auth_key, const uint8_t *select_vc_key,
    const uint8_t *prox_chk_key, const uint8_t *vc_poll_enc_key, const uint8_t *vc_poll_mac_key)
{
    struct Write {
        uint16_t address;
        const uint8_t *key;
        bool full_set_only;
    };
    const Write writes[] = {
        {MFP_CARD_MASTER_KEY, card_master_key, false},      {MFP_CARD_CONFIGURATION_KEY, card_config_key, false},
        {MFP_LEVEL_2_SWITCH_KEY, level_2_switch_key, true}, {MFP_LEVEL_3_SWITCH_KEY, level_3_switch_key, false},
        {MFP_LEVEL_1_AUTH_KEY, level_1_auth_key, false},    {MFP_SELECT_VC_KEY, select_vc_key, true},
        {MFP_PROXIMITY_CHECK_KEY, prox_chk_key, true},      {MFP_VC_POLLING_ENC_KEY, vc_poll_enc_key, false},
        {MFP_VC_POLLING_MAC_KEY, vc_poll_mac_key, false},
    };
    for (const Write &w : writes)
        if (!w.key)
            return ZEL_PARAMETERS_ERROR;
    uint8_t card_type = 0;
    ZEL_STATUS status = GetOrbCardTypeHnd(hnd, &card_type);
    if (status != ZEL_OK)
        return status;
    if (!perso_card_type(card_type))
        return ZEL_UNSUPPORTED_CARD_TYPE;
    if ((status = SetISO14443_4_ModeHnd(hnd)) != ZEL_OK)
        return status;
    const bool full = perso_full_key_set(card_type);
    for (const Write &w : writes) {
        if (w.full_set_only && !full)
            continue;
        if ((status = MFP_WritePersoHnd(hnd, w.address, w.key)) != ZEL_OK) {
            // Nothing is committed: the card stays at level 0 with the blocks written so far.
            (void)s_block_deselectHnd(&zel_global, kDeselectTimeout);
            return status;
        }
    }
    status = MFP_CommitPersoHnd(hnd);
    os_sleep(kCommitSettleMs);
    // The deselect goes to the global handle whichever handle the call came with.
    (void)s_block_deselectHnd(&zel_global, kDeselectTimeout);
    return status;
}

// ---- Authentication by a key block ----

extern "C" ZEL_API ZEL_STATUS MFP_SwitchToSecurityLevel3Hnd(ZEL_HANDLE hnd, uint8_t key_index)
{
    return auth_key_block(hnd, MFP_LEVEL_3_SWITCH_KEY, KeyForm::Reader, key_index, nullptr);
}

extern "C" ZEL_API ZEL_STATUS MFP_SwitchToSecurityLevel3_PKHnd(ZEL_HANDLE hnd, const uint8_t *aes_key)
{
    return auth_key_block(hnd, MFP_LEVEL_3_SWITCH_KEY, KeyForm::Provided, 0, aes_key);
}

extern "C" ZEL_API ZEL_STATUS MFP_AesAuthSecurityLevel1Hnd(ZEL_HANDLE hnd, uint8_t key_index)
{
    return auth_key_block(hnd, MFP_LEVEL_1_AUTH_KEY, KeyForm::Reader, key_index, nullptr);
}

extern "C" ZEL_API ZEL_STATUS MFP_AesAuthSecurityLevel1_PKHnd(ZEL_HANDLE hnd, const uint8_t *aes_key)
{
    return auth_key_block(hnd, MFP_LEVEL_1_AUTH_KEY, KeyForm::Provided, 0, aes_key);
}

// ---- Card keys and the field configuration ----

extern "C" ZEL_API ZEL_STATUS MFP_ChangeMasterKeyHnd(ZEL_HANDLE hnd, uint8_t key_index, const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_CARD_MASTER_KEY, MFP_CARD_MASTER_KEY, KeyForm::Reader, key_index, nullptr, new_key,
                           0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeMasterKey_PKHnd(ZEL_HANDLE hnd, const uint8_t *old_key, const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_CARD_MASTER_KEY, MFP_CARD_MASTER_KEY, KeyForm::Provided, 0, old_key, new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeMasterKeySamHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t new_key_index)
{
    return change_card_key(hnd, MFP_CARD_MASTER_KEY, MFP_CARD_MASTER_KEY, KeyForm::Sam, key_index, nullptr, nullptr,
                           new_key_index);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeConfigurationKeyHnd(ZEL_HANDLE hnd, uint8_t key_index, const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_CARD_CONFIGURATION_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Reader, key_index,
                           nullptr, new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeConfigurationKey_PKHnd(ZEL_HANDLE hnd, const uint8_t *old_key,
                                                               const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_CARD_CONFIGURATION_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Provided, 0, old_key,
                           new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeConfigurationKeySamHnd(ZEL_HANDLE hnd, uint8_t key_index, uint8_t new_key_index)
{
    return change_card_key(hnd, MFP_CARD_CONFIGURATION_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Sam, key_index,
                           nullptr, nullptr, new_key_index);
}

extern "C" ZEL_API ZEL_STATUS MFP_FieldConfigurationSetHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                           uint8_t rid_use, uint8_t prox_check_use)
{
    return field_config(hnd, KeyForm::Reader, configuration_key_index, nullptr, rid_use, prox_check_use);
}

extern "C" ZEL_API ZEL_STATUS MFP_FieldConfigurationSet_PKHnd(ZEL_HANDLE hnd, const uint8_t *configuration_key,
                                                              uint8_t rid_use, uint8_t prox_check_use)
{
    return field_config(hnd, KeyForm::Provided, 0, configuration_key, rid_use, prox_check_use);
}

extern "C" ZEL_API ZEL_STATUS MFP_FieldConfigurationSetSamHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                              uint8_t rid_use, uint8_t prox_check_use)
{
    return field_config(hnd, KeyForm::Sam, configuration_key_index, nullptr, rid_use, prox_check_use);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeVcPollingEncKeyHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                           const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_VC_POLLING_ENC_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Reader,
                           configuration_key_index, nullptr, new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeVcPollingEncKey_PKHnd(ZEL_HANDLE hnd, const uint8_t *configuration_key,
                                                              const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_VC_POLLING_ENC_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Provided, 0,
                           configuration_key, new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeVcPollingEncKeySamHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                              uint8_t new_key_index)
{
    return change_card_key(hnd, MFP_VC_POLLING_ENC_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Sam,
                           configuration_key_index, nullptr, nullptr, new_key_index);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeVcPollingMacKeyHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                           const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_VC_POLLING_MAC_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Reader,
                           configuration_key_index, nullptr, new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeVcPollingMacKey_PKHnd(ZEL_HANDLE hnd, const uint8_t *configuration_key,
                                                              const uint8_t *new_key)
{
    return change_card_key(hnd, MFP_VC_POLLING_MAC_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Provided, 0,
                           configuration_key, new_key, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeVcPollingMacKeySamHnd(ZEL_HANDLE hnd, uint8_t configuration_key_index,
                                                              uint8_t new_key_index)
{
    return change_card_key(hnd, MFP_VC_POLLING_MAC_KEY, MFP_CARD_CONFIGURATION_KEY, KeyForm::Sam,
                           configuration_key_index, nullptr, nullptr, new_key_index);
}

// ---- Sector keys ----

extern "C" ZEL_API ZEL_STATUS MFP_ChangeSectorKeyHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode,
                                                     uint8_t key_index, const uint8_t *new_key)
{
    return change_sector_key(hnd, KeyForm::Reader, sector_nr, auth_mode, key_index, nullptr, new_key, 0, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeSectorExtKeyHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode,
                                                        uint8_t key_index, const uint8_t *new_key,
                                                        uint8_t new_key_selector)
{
    return change_sector_key(hnd, KeyForm::Reader, sector_nr, auth_mode, key_index, nullptr, new_key, 0,
                             new_key_selector);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeSectorKey_PKHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode,
                                                        const uint8_t *old_key, const uint8_t *new_key)
{
    return change_sector_key(hnd, KeyForm::Provided, sector_nr, auth_mode, 0, old_key, new_key, 0, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeSectorKeyExt_PKHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode,
                                                           const uint8_t *old_key, const uint8_t *new_key,
                                                           uint8_t new_key_selector)
{
    return change_sector_key(hnd, KeyForm::Provided, sector_nr, auth_mode, 0, old_key, new_key, 0, new_key_selector);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeSectorKeySamHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode,
                                                        uint8_t key_index, uint8_t new_key_index)
{
    return change_sector_key(hnd, KeyForm::Sam, sector_nr, auth_mode, key_index, nullptr, nullptr, new_key_index, 0);
}

extern "C" ZEL_API ZEL_STATUS MFP_ChangeSectorKeySamExtHnd(ZEL_HANDLE hnd, uint8_t sector_nr, uint8_t auth_mode,
                                                           uint8_t key_index, uint8_t new_key_index,
                                                           uint8_t new_key_selector)
{
    return change_sector_key(hnd, KeyForm::Sam, sector_nr, auth_mode, key_index, nullptr, nullptr, new_key_index,
                             new_key_selector);
}

// ---- The UID ----

extern "C" ZEL_API ZEL_STATUS MFP_GetUidHnd(ZEL_HANDLE hnd, uint8_t key_index_vc_poll_enc_key,
                                            uint8_t key_index_vc_poll_mac_key, uint8_t *uid, uint8_t *uid_len)
{
    return get_uid(hnd, KeyForm::Reader, false, key_index_vc_poll_enc_key, key_index_vc_poll_mac_key, nullptr, nullptr,
                   uid, uid_len);
}

extern "C" ZEL_API ZEL_STATUS MFP_GetUid_PKHnd(ZEL_HANDLE hnd, const uint8_t *vc_poll_enc_key,
                                               const uint8_t *vc_poll_mac_key, uint8_t *uid, uint8_t *uid_len)
{
    return get_uid(hnd, KeyForm::Provided, false, 0, 0, vc_poll_enc_key, vc_poll_mac_key, uid, uid_len);
}

extern "C" ZEL_API ZEL_STATUS MFP_GetUidSamHnd(ZEL_HANDLE hnd, uint8_t key_index_vc_poll_enc_key,
                                               uint8_t key_index_vc_poll_mac_key, uint8_t *uid, uint8_t *uid_len)
{
    return get_uid(hnd, KeyForm::Sam, false, key_index_vc_poll_enc_key, key_index_vc_poll_mac_key, nullptr, nullptr,
                   uid, uid_len);
}

extern "C" ZEL_API ZEL_STATUS MFP_EvGetUidHnd(ZEL_HANDLE hnd, uint8_t key_index_vc_poll_enc_key, uint8_t *uid,
                                              uint8_t *uid_len)
{
    return get_uid(hnd, KeyForm::Reader, true, key_index_vc_poll_enc_key, 0, nullptr, nullptr, uid, uid_len);
}

extern "C" ZEL_API ZEL_STATUS MFP_EvGetUid_PKHnd(ZEL_HANDLE hnd, const uint8_t *vc_poll_enc_key, uint8_t *uid,
                                                 uint8_t *uid_len)
{
    return get_uid(hnd, KeyForm::Provided, true, 0, 0, vc_poll_enc_key, nullptr, uid, uid_len);
}

extern "C" ZEL_API ZEL_STATUS MFP_EvGetUidSamHnd(ZEL_HANDLE hnd, uint8_t key_index_vc_poll_enc_key, uint8_t *uid,
                                                 uint8_t *uid_len)
{
    return get_uid(hnd, KeyForm::Sam, true, key_index_vc_poll_enc_key, 0, nullptr, nullptr, uid, uid_len);
}
