/* ISO 15693 vicinity tags: the ICODE password, page protection and block lock functions, the EM4237
 * protection and random id functions, block security status and the system information. Blocks themselves
 * are read and written by the block and linear operations of zel_block.h.
 *
 * Passwords are 4 bytes and travel in the order given. The forms without _PK name them by index in the
 * reader's key table (the reader uses a key's first four bytes). ICODE password identifiers: 0x01 read,
 * 0x02 write, 0x04 privacy, 0x08 destroy, 0x10 EAS/AFI.
 *
 * icode_protect_page takes four truth values (any non-zero is true): low page read, low page write, high
 * page read, high page write; they travel as the bits 0x01, 0x02, 0x10 and 0x20 of the protection status.
 * The EM4237 status byte is passed as given.
 *
 * The block security status operations ask for the blocks from first_block; number_of_blocks is passed to
 * the tag as it is (in the tag's own count form, where 0 asks for one block). block_data receives one byte a
 * block, as many as the reader sent (at most 254).
 *
 * System information outputs: the information flags, the UID (8 bytes, most significant first, as the card
 * id operations give it), DSFID, AFI, memory size in bytes (blocks times block size) and IC reference. An
 * output whose flag bit (0x01 DSFID, 0x02 AFI, 0x04 memory size, 0x08 IC reference) is clear is left as it
 * was. */
#ifndef ZEL_ISO15693_H
#define ZEL_ISO15693_H

#include "zel_forms.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_ICODE_PWD_READ 0x01
#define ZEL_ICODE_PWD_WRITE 0x02
#define ZEL_ICODE_PWD_PRIVACY 0x04
#define ZEL_ICODE_PWD_DESTROY 0x08
#define ZEL_ICODE_PWD_EAS_AFI 0x10

/* Operations whose handle form is XM. */
#define ZEL_FAMILY_ISO15693(OP, OP0)                                                                           \
    OP(ZEL_STATUS, icode_write_password, (uint8_t pwd_ident, uint8_t current_pwd_key_index, uint8_t new_pwd_key_index), \
       (pwd_ident, current_pwd_key_index, new_pwd_key_index))                                                  \
    OP(ZEL_STATUS, icode_protect_page,                                                                         \
       (uint8_t read_pwd_key_index, uint8_t write_pwd_key_index, uint8_t page, uint8_t low_read,               \
        uint8_t low_write, uint8_t high_read, uint8_t high_write),                                             \
       (read_pwd_key_index, write_pwd_key_index, page, low_read, low_write, high_read, high_write))            \
    OP(ZEL_STATUS, icode_lock_block, (uint8_t read_pwd_key_index, uint8_t write_pwd_key_index, uint8_t block), \
       (read_pwd_key_index, write_pwd_key_index, block))                                                       \
    OP(ZEL_STATUS, iso15693_lock_block_no_auth, (uint8_t block), (block))                                      \
    OP(ZEL_STATUS, iso15693_get_multiply_block_security_status,                                                \
       (uint8_t first_block, uint8_t number_of_blocks, uint8_t *block_data),                                   \
       (first_block, number_of_blocks, block_data))                                                            \
    OP(ZEL_STATUS, iso15693_get_system_information,                                                            \
       (uint8_t key_index, uint8_t *info_flags, uint8_t *uid, uint8_t *dsfid, uint8_t *afi,                    \
        uint16_t *memory_size, uint8_t *ic_reference),                                                         \
       (key_index, info_flags, uid, dsfid, afi, memory_size, ic_reference))                                    \
    OP(ZEL_STATUS, iso15693_get_system_information_no_auth,                                                    \
       (uint8_t *info_flags, uint8_t *uid, uint8_t *dsfid, uint8_t *afi, uint16_t *memory_size,                \
        uint8_t *ic_reference),                                                                                \
       (info_flags, uid, dsfid, afi, memory_size, ic_reference))                                               \
    OP(ZEL_STATUS, em4237_protect_page, (uint8_t key_index, uint8_t page, uint8_t status),                     \
       (key_index, page, status))                                                                              \
    OP(ZEL_STATUS, em4237_get_multiply_block_security_status,                                                  \
       (uint8_t first_block, uint8_t number_of_blocks, uint8_t *block_data),                                   \
       (first_block, number_of_blocks, block_data))

/* Operations whose handle form is X_M: the _PK forms and em4237_enable_RID. */
#define ZEL_FAMILY_ISO15693_UNDERSCORE_M(OP, OP0)                                                              \
    OP(ZEL_STATUS, icode_write_password_PK,                                                                    \
       (uint8_t pwd_ident, const uint8_t *current_pwd, const uint8_t *new_pwd), (pwd_ident, current_pwd, new_pwd)) \
    OP(ZEL_STATUS, icode_protect_page_PK,                                                                      \
       (const uint8_t *read_pwd, const uint8_t *write_pwd, uint8_t page, uint8_t low_read, uint8_t low_write,  \
        uint8_t high_read, uint8_t high_write),                                                                \
       (read_pwd, write_pwd, page, low_read, low_write, high_read, high_write))                                \
    OP(ZEL_STATUS, icode_lock_block_PK, (const uint8_t *read_pwd, const uint8_t *write_pwd, uint8_t block),    \
       (read_pwd, write_pwd, block))                                                                           \
    OP(ZEL_STATUS, iso15693_get_system_information_PK,                                                         \
       (const uint8_t *pwd, uint8_t *info_flags, uint8_t *uid, uint8_t *dsfid, uint8_t *afi,                   \
        uint16_t *memory_size, uint8_t *ic_reference),                                                         \
       (pwd, info_flags, uid, dsfid, afi, memory_size, ic_reference))                                          \
    OP(ZEL_STATUS, em4237_protect_page_PK, (const uint8_t *pwd, uint8_t page, uint8_t status), (pwd, page, status)) \
    OP(ZEL_STATUS, em4237_enable_RID, (uint8_t key_index), (key_index))                                        \
    OP(ZEL_STATUS, em4237_enable_RID_PK, (const uint8_t *pwd), (pwd))

#define ZEL_DECLARE_FORMS_UNDERSCORE_M(Ret, Name, Params, Args) \
    ZEL_API Ret Name Params;                                    \
    ZEL_API Ret Name##_M ZEL_FORMS_HND_PARAMS Params;           \
    ZEL_API Ret Name##Hnd ZEL_FORMS_HND_PARAMS Params;

ZEL_DECLARE_FAMILY(ZEL_FAMILY_ISO15693)
ZEL_FAMILY_ISO15693_UNDERSCORE_M(ZEL_DECLARE_FORMS_UNDERSCORE_M, ZEL_DECLARE_FORMS0)

#ifdef __cplusplus
}
#endif
#endif
