/* Tag emulation: the NDEF record the reader shows a phone, the emulation modes, the external field, the shared
 * RAM between the host and an NFC device in the field, and the counter mirror of the emulated tag. */
#ifndef ZEL_EMUL_H
#define ZEL_EMUL_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Largest payloads: one frame (WriteEmulationNdef), the RAM form in pieces (WriteEmulationNdefRam), and the
 * payload and package together behind an application record (WriteEmulationNdefWithAAR). Longer ones, and
 * records whose type and id would not fit the frame or the stored block, give ZEL_MAX_SIZE_EXCEEDED before
 * any traffic. */
#define ZEL_EMUL_MAX_PAYLOAD 137u
#define ZEL_EMUL_RAM_MAX_PAYLOAD 996u
#define ZEL_EMUL_AAR_MAX 119u

/* With the handle's ee_route set, the record and the mode go to the reader's EEPROM: the mode byte at
 * ZEL_EMUL_EE_MODE (0xEA on, 0xCE combined, 0xFF off) and the 145-byte block at ZEL_EMUL_EE_BLOCK, whose last
 * byte is CRC8 of the 144 before it. */
#define ZEL_EMUL_EE_MODE 681u
#define ZEL_EMUL_EE_BLOCK 682u
#define ZEL_EMUL_EE_BLOCK_LEN 145u

/* ReadShareRam copies at most what the reader sent, and never more than data_length bytes. WriteShareRam with
 * data_length 255 gives ZEL_MAX_SIZE_EXCEEDED. */

#include "zel_emul_forms.h"

#ifdef __cplusplus
}
#endif
#endif
