/* What the reader tells of itself, and what it keeps: keys, password, EEPROM, clock, job id, user data,
 * serial speed and the setup of the unsolicited card id stream. */
#ifndef ZEL_READER_H
#define ZEL_READER_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The reader's unique identifier as GetReaderParameters delivers it fills at most this many bytes. */
#define ZEL_MUI_MAX_LEN 24
/* GetReaderStatusEx copies at most this many bytes. */
#define ZEL_READER_STATUS_EX_MAX_LEN 253

/* Identity. Serial description: 8 bytes, not terminated. GetReaderParameters: mui takes up to 24 bytes
 * (16 from GetReaderParameters2), serial gets the 8 serial bytes in their order. GetReaderInfoStr hands out
 * a static text that the next call overwrites; GetReaderDescription likewise. */

/* Configuration. Passwords are 8 bytes, reader keys 6, the time 6 bytes as the reader keeps them. The
 * asynchronous card id setup: each flag is one bit of the flags byte (any non-zero value sets it). */

#include "zel_reader_forms.h"

#ifdef __cplusplus
}
#endif
#endif
