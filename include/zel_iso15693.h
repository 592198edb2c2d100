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

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_ICODE_PWD_READ 0x01
#define ZEL_ICODE_PWD_WRITE 0x02
#define ZEL_ICODE_PWD_PRIVACY 0x04
#define ZEL_ICODE_PWD_DESTROY 0x08
#define ZEL_ICODE_PWD_EAS_AFI 0x10

/* The operations, declared in zel_iso15693_forms.h (generated from api/iso15693.forms). */
#include "zel_iso15693_forms.h"

#ifdef __cplusplus
}
#endif
#endif
