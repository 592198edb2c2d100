/* Memory cards: blocks, blocks in sectors, the linear space, sector trailers and value blocks.
 *
 * Every operation names a way to the key:
 *   X(..., auth_mode, key_index)        a key stored in the reader, by index;
 *   X_AKM1(..., auth_mode)              the reader picks the key by its first automatic rule;
 *   X_AKM2(..., auth_mode)              the same by its second rule;
 *   X_PK(..., auth_mode, key)           the caller's key: 6 bytes, or 16 for auth modes 0x80 and 0x81
 *                                       (LinRowRead_PK always takes 6);
 *   XSamKey(..., auth_mode, key_index)  entry key_index of the reader's SAM.
 * auth_mode is 0x60 (key A), 0x61 (key B), 0x80 (AES key A), 0x81 (AES key B) or 0x02; any other value is
 * refused with ZEL_PARAMETERS_ERROR before anything is sent.
 *
 * Blocks are 16 bytes. Linear addresses count the card's user bytes with sector trailers left out
 * (GetCardSize gives that space's size); LinRowRead reads the reader's raw address space. Values are signed
 * 32-bit numbers; the reader lays them out on the card as value blocks with their address byte.
 * SectorTrailerWrite takes the access condition code (C1C2C3, 0 to 7) of each block and of the trailer, and
 * the reader composes the trailer; SectorTrailerWriteUnsafe writes 16 trailer bytes as given.
 * With addressing_mode 1 the trailer address is a sector number, with 0 a block address. */
#ifndef ZEL_BLOCK_H
#define ZEL_BLOCK_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The auth modes. */
#define ZEL_AUTH_KEY_A 0x60
#define ZEL_AUTH_KEY_B 0x61
#define ZEL_AUTH_AES_KEY_A 0x80
#define ZEL_AUTH_AES_KEY_B 0x81
#define ZEL_AUTH_T2T 0x02

#include "zel_block_forms.h"

#ifdef __cplusplus
}
#endif
#endif
