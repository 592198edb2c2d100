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

#include "zel_forms.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The auth modes. */
#define ZEL_AUTH_KEY_A 0x60
#define ZEL_AUTH_KEY_B 0x61
#define ZEL_AUTH_AES_KEY_A 0x80
#define ZEL_AUTH_AES_KEY_B 0x81
#define ZEL_AUTH_T2T 0x02

#define ZEL_FAMILY_BLOCK(OP, OP0) \
    OP(ZEL_STATUS, BlockRead, (uint8_t *data, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (data, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockRead_AKM1, (uint8_t *data, uint8_t block_address, uint8_t auth_mode), (data, block_address, auth_mode)) \
    OP(ZEL_STATUS, BlockRead_AKM2, (uint8_t *data, uint8_t block_address, uint8_t auth_mode), (data, block_address, auth_mode)) \
    OP(ZEL_STATUS, BlockRead_PK, (uint8_t *data, uint8_t block_address, uint8_t auth_mode, const uint8_t *key), (data, block_address, auth_mode, key)) \
    OP(ZEL_STATUS, BlockReadSamKey, (uint8_t *data, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (data, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockInSectorRead, (uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (data, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockInSectorRead_AKM1, (uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (data, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, BlockInSectorRead_AKM2, (uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (data, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, BlockInSectorRead_PK, (uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, const uint8_t *key), (data, sector_address, block_in_sector_address, auth_mode, key)) \
    OP(ZEL_STATUS, BlockInSectorReadSamKey, (uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (data, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockWrite, (const uint8_t *data, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (data, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockWrite_AKM1, (const uint8_t *data, uint8_t block_address, uint8_t auth_mode), (data, block_address, auth_mode)) \
    OP(ZEL_STATUS, BlockWrite_AKM2, (const uint8_t *data, uint8_t block_address, uint8_t auth_mode), (data, block_address, auth_mode)) \
    OP(ZEL_STATUS, BlockWrite_PK, (const uint8_t *data, uint8_t block_address, uint8_t auth_mode, const uint8_t *key), (data, block_address, auth_mode, key)) \
    OP(ZEL_STATUS, BlockWriteSamKey, (const uint8_t *data, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (data, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockInSectorWrite, (const uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (data, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, BlockInSectorWrite_AKM1, (const uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (data, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, BlockInSectorWrite_AKM2, (const uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (data, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, BlockInSectorWrite_PK, (const uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, const uint8_t *key), (data, sector_address, block_in_sector_address, auth_mode, key)) \
    OP(ZEL_STATUS, BlockInSectorWriteSamKey, (const uint8_t *data, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (data, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinearRead, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode, uint8_t key_index), (data, linear_address, length, bytes_returned, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinearRead_AKM1, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode), (data, linear_address, length, bytes_returned, auth_mode)) \
    OP(ZEL_STATUS, LinearRead_AKM2, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode), (data, linear_address, length, bytes_returned, auth_mode)) \
    OP(ZEL_STATUS, LinearRead_PK, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode, const uint8_t *key), (data, linear_address, length, bytes_returned, auth_mode, key)) \
    OP(ZEL_STATUS, LinearReadSamKey, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode, uint8_t key_index), (data, linear_address, length, bytes_returned, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinRowRead, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode, uint8_t key_index), (data, linear_address, length, bytes_returned, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinRowRead_AKM1, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode), (data, linear_address, length, bytes_returned, auth_mode)) \
    OP(ZEL_STATUS, LinRowRead_AKM2, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode), (data, linear_address, length, bytes_returned, auth_mode)) \
    OP(ZEL_STATUS, LinRowRead_PK, (uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_returned, uint8_t auth_mode, const uint8_t *key), (data, linear_address, length, bytes_returned, auth_mode, key)) \
    OP(ZEL_STATUS, LinearWrite, (const uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_written, uint8_t auth_mode, uint8_t key_index), (data, linear_address, length, bytes_written, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinearWrite_AKM1, (const uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_written, uint8_t auth_mode), (data, linear_address, length, bytes_written, auth_mode)) \
    OP(ZEL_STATUS, LinearWrite_AKM2, (const uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_written, uint8_t auth_mode), (data, linear_address, length, bytes_written, auth_mode)) \
    OP(ZEL_STATUS, LinearWrite_PK, (const uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_written, uint8_t auth_mode, const uint8_t *key), (data, linear_address, length, bytes_written, auth_mode, key)) \
    OP(ZEL_STATUS, LinearWriteSamKey, (const uint8_t *data, uint16_t linear_address, uint16_t length, uint16_t *bytes_written, uint8_t auth_mode, uint8_t key_index), (data, linear_address, length, bytes_written, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinearFormatCard, (const uint8_t *new_key_A, uint8_t blocks_access_bits, uint8_t sector_trailers_access_bits, uint8_t sector_trailers_byte9, const uint8_t *new_key_B, uint8_t *sectors_formatted, uint8_t auth_mode, uint8_t key_index), (new_key_A, blocks_access_bits, sector_trailers_access_bits, sector_trailers_byte9, new_key_B, sectors_formatted, auth_mode, key_index)) \
    OP(ZEL_STATUS, LinearFormatCard_AKM1, (const uint8_t *new_key_A, uint8_t blocks_access_bits, uint8_t sector_trailers_access_bits, uint8_t sector_trailers_byte9, const uint8_t *new_key_B, uint8_t *sectors_formatted, uint8_t auth_mode), (new_key_A, blocks_access_bits, sector_trailers_access_bits, sector_trailers_byte9, new_key_B, sectors_formatted, auth_mode)) \
    OP(ZEL_STATUS, LinearFormatCard_AKM2, (const uint8_t *new_key_A, uint8_t blocks_access_bits, uint8_t sector_trailers_access_bits, uint8_t sector_trailers_byte9, const uint8_t *new_key_B, uint8_t *sectors_formatted, uint8_t auth_mode), (new_key_A, blocks_access_bits, sector_trailers_access_bits, sector_trailers_byte9, new_key_B, sectors_formatted, auth_mode)) \
    OP(ZEL_STATUS, LinearFormatCard_PK, (const uint8_t *new_key_A, uint8_t blocks_access_bits, uint8_t sector_trailers_access_bits, uint8_t sector_trailers_byte9, const uint8_t *new_key_B, uint8_t *sectors_formatted, uint8_t auth_mode, const uint8_t *key), (new_key_A, blocks_access_bits, sector_trailers_access_bits, sector_trailers_byte9, new_key_B, sectors_formatted, auth_mode, key)) \
    OP(ZEL_STATUS, SectorTrailerWrite, (uint8_t addressing_mode, uint8_t address, const uint8_t *new_key_A, uint8_t block0_access_bits, uint8_t block1_access_bits, uint8_t block2_access_bits, uint8_t sector_trailer_access_bits, uint8_t sector_trailer_byte9, const uint8_t *new_key_B, uint8_t auth_mode, uint8_t key_index), (addressing_mode, address, new_key_A, block0_access_bits, block1_access_bits, block2_access_bits, sector_trailer_access_bits, sector_trailer_byte9, new_key_B, auth_mode, key_index)) \
    OP(ZEL_STATUS, SectorTrailerWrite_AKM1, (uint8_t addressing_mode, uint8_t address, const uint8_t *new_key_A, uint8_t block0_access_bits, uint8_t block1_access_bits, uint8_t block2_access_bits, uint8_t sector_trailer_access_bits, uint8_t sector_trailer_byte9, const uint8_t *new_key_B, uint8_t auth_mode), (addressing_mode, address, new_key_A, block0_access_bits, block1_access_bits, block2_access_bits, sector_trailer_access_bits, sector_trailer_byte9, new_key_B, auth_mode)) \
    OP(ZEL_STATUS, SectorTrailerWrite_AKM2, (uint8_t addressing_mode, uint8_t address, const uint8_t *new_key_A, uint8_t block0_access_bits, uint8_t block1_access_bits, uint8_t block2_access_bits, uint8_t sector_trailer_access_bits, uint8_t sector_trailer_byte9, const uint8_t *new_key_B, uint8_t auth_mode), (addressing_mode, address, new_key_A, block0_access_bits, block1_access_bits, block2_access_bits, sector_trailer_access_bits, sector_trailer_byte9, new_key_B, auth_mode)) \
    OP(ZEL_STATUS, SectorTrailerWrite_PK, (uint8_t addressing_mode, uint8_t address, const uint8_t *new_key_A, uint8_t block0_access_bits, uint8_t block1_access_bits, uint8_t block2_access_bits, uint8_t sector_trailer_access_bits, uint8_t sector_trailer_byte9, const uint8_t *new_key_B, uint8_t auth_mode, const uint8_t *key), (addressing_mode, address, new_key_A, block0_access_bits, block1_access_bits, block2_access_bits, sector_trailer_access_bits, sector_trailer_byte9, new_key_B, auth_mode, key)) \
    OP(ZEL_STATUS, SectorTrailerWriteSamKey, (uint8_t addressing_mode, uint8_t address, const uint8_t *new_key_A, uint8_t block0_access_bits, uint8_t block1_access_bits, uint8_t block2_access_bits, uint8_t sector_trailer_access_bits, uint8_t sector_trailer_byte9, const uint8_t *new_key_B, uint8_t auth_mode, uint8_t key_index), (addressing_mode, address, new_key_A, block0_access_bits, block1_access_bits, block2_access_bits, sector_trailer_access_bits, sector_trailer_byte9, new_key_B, auth_mode, key_index)) \
    OP(ZEL_STATUS, SectorTrailerWriteUnsafe, (uint8_t addressing_mode, uint8_t address, const uint8_t *sector_trailer, uint8_t auth_mode, uint8_t key_index), (addressing_mode, address, sector_trailer, auth_mode, key_index)) \
    OP(ZEL_STATUS, SectorTrailerWriteUnsafe_AKM1, (uint8_t addressing_mode, uint8_t address, const uint8_t *sector_trailer, uint8_t auth_mode), (addressing_mode, address, sector_trailer, auth_mode)) \
    OP(ZEL_STATUS, SectorTrailerWriteUnsafe_AKM2, (uint8_t addressing_mode, uint8_t address, const uint8_t *sector_trailer, uint8_t auth_mode), (addressing_mode, address, sector_trailer, auth_mode)) \
    OP(ZEL_STATUS, SectorTrailerWriteUnsafe_PK, (uint8_t addressing_mode, uint8_t address, const uint8_t *sector_trailer, uint8_t auth_mode, const uint8_t *key), (addressing_mode, address, sector_trailer, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockRead, (int32_t *value, uint8_t *value_addr, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockRead_AKM1, (int32_t *value, uint8_t *value_addr, uint8_t block_address, uint8_t auth_mode), (value, value_addr, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockRead_AKM2, (int32_t *value, uint8_t *value_addr, uint8_t block_address, uint8_t auth_mode), (value, value_addr, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockRead_PK, (int32_t *value, uint8_t *value_addr, uint8_t block_address, uint8_t auth_mode, const uint8_t *key), (value, value_addr, block_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockReadSamKey, (int32_t *value, uint8_t *value_addr, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorRead, (int32_t *value, uint8_t *value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorRead_AKM1, (int32_t *value, uint8_t *value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (value, value_addr, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorRead_AKM2, (int32_t *value, uint8_t *value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (value, value_addr, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorRead_PK, (int32_t *value, uint8_t *value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, const uint8_t *key), (value, value_addr, sector_address, block_in_sector_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockInSectorReadSamKey, (int32_t *value, uint8_t *value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockWrite, (int32_t value, uint8_t value_addr, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockWrite_AKM1, (int32_t value, uint8_t value_addr, uint8_t block_address, uint8_t auth_mode), (value, value_addr, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockWrite_AKM2, (int32_t value, uint8_t value_addr, uint8_t block_address, uint8_t auth_mode), (value, value_addr, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockWrite_PK, (int32_t value, uint8_t value_addr, uint8_t block_address, uint8_t auth_mode, const uint8_t *key), (value, value_addr, block_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockWriteSamKey, (int32_t value, uint8_t value_addr, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorWrite, (int32_t value, uint8_t value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorWrite_AKM1, (int32_t value, uint8_t value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (value, value_addr, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorWrite_AKM2, (int32_t value, uint8_t value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (value, value_addr, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorWrite_PK, (int32_t value, uint8_t value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, const uint8_t *key), (value, value_addr, sector_address, block_in_sector_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockInSectorWriteSamKey, (int32_t value, uint8_t value_addr, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (value, value_addr, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockIncrement, (int32_t increment_value, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (increment_value, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockIncrement_AKM1, (int32_t increment_value, uint8_t block_address, uint8_t auth_mode), (increment_value, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockIncrement_AKM2, (int32_t increment_value, uint8_t block_address, uint8_t auth_mode), (increment_value, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockIncrement_PK, (int32_t increment_value, uint8_t block_address, uint8_t auth_mode, const uint8_t *key), (increment_value, block_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockIncrementSamKey, (int32_t increment_value, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (increment_value, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorIncrement, (int32_t increment_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (increment_value, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorIncrement_AKM1, (int32_t increment_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (increment_value, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorIncrement_AKM2, (int32_t increment_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (increment_value, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorIncrement_PK, (int32_t increment_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, const uint8_t *key), (increment_value, sector_address, block_in_sector_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockInSectorIncrementSamKey, (int32_t increment_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (increment_value, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockDecrement, (int32_t decrement_value, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (decrement_value, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockDecrement_AKM1, (int32_t decrement_value, uint8_t block_address, uint8_t auth_mode), (decrement_value, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockDecrement_AKM2, (int32_t decrement_value, uint8_t block_address, uint8_t auth_mode), (decrement_value, block_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockDecrement_PK, (int32_t decrement_value, uint8_t block_address, uint8_t auth_mode, const uint8_t *key), (decrement_value, block_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockDecrementSamKey, (int32_t decrement_value, uint8_t block_address, uint8_t auth_mode, uint8_t key_index), (decrement_value, block_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorDecrement, (int32_t decrement_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (decrement_value, sector_address, block_in_sector_address, auth_mode, key_index)) \
    OP(ZEL_STATUS, ValueBlockInSectorDecrement_AKM1, (int32_t decrement_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (decrement_value, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorDecrement_AKM2, (int32_t decrement_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode), (decrement_value, sector_address, block_in_sector_address, auth_mode)) \
    OP(ZEL_STATUS, ValueBlockInSectorDecrement_PK, (int32_t decrement_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, const uint8_t *key), (decrement_value, sector_address, block_in_sector_address, auth_mode, key)) \
    OP(ZEL_STATUS, ValueBlockInSectorDecrementSamKey, (int32_t decrement_value, uint8_t sector_address, uint8_t block_in_sector_address, uint8_t auth_mode, uint8_t key_index), (decrement_value, sector_address, block_in_sector_address, auth_mode, key_index))

ZEL_DECLARE_FAMILY(ZEL_FAMILY_BLOCK)

#ifdef __cplusplus
}
#endif
#endif
