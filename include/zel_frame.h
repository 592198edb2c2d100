/* The command frame protocol: 7-byte frames (HEADER, CMD, TRAILER, EXT_LEN, PAR0, PAR1, CHECKSUM) with an
 * optional EXT block, whose last byte is its checksum. A checksum is (XOR of the bytes before it) + 7. */
#ifndef ZEL_FRAME_H
#define ZEL_FRAME_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Writes the checksum of the bytes before it into buffer[length - 1]. The XOR spans the low 8 bits of
 * the length only, while the position uses all 16: blocks longer than 255 bytes take GetChecksumFragment. */
ZEL_API void CalcChecksum(uint8_t *buffer, uint16_t length);
/* True when buffer[length - 1] is the checksum of the bytes before it. */
ZEL_API int TestChecksum(const uint8_t *buffer, uint16_t length);
/* The checksum of the bytes before position length - 1, not stored. */
ZEL_API uint8_t GetChecksum_local(const uint8_t *buffer, uint8_t length);
/* seed XOR every data byte, without the + 7: chain pieces from seed 0 and add 7 once at the end. */
ZEL_API uint8_t GetChecksumFragment(uint8_t seed, const uint8_t *data, uint16_t length);

/* Sends a command frame (its checksum is filled in) and takes the reader's first reply into the same
 * buffer: ZEL_OK for an acknowledge or a response, with the reply's EXT_LEN through ext_len. */
ZEL_API ZEL_STATUS InitialHandshaking(ZEL_HANDLE hnd, uint8_t *frame, uint8_t *ext_len);
/* Takes the response that follows an EXT sent to the reader. */
ZEL_API ZEL_STATUS GetAndTestResponseIntro(ZEL_HANDLE hnd, uint8_t *frame, uint8_t command);
/* As GetAndTestResponseIntro, letting the reader send interim frames while it works. */
ZEL_API ZEL_STATUS GetAndTestResponseIntroSam(ZEL_HANDLE hnd, uint8_t *frame, uint8_t command);
/* Reads an EXT block of length bytes and tests its checksum. */
ZEL_API ZEL_STATUS GetAndTestResponseData(ZEL_HANDLE hnd, uint16_t length, uint8_t *buffer);

/* Accepts the authentication modes 0x60, 0x61 (key A, B), 0x80, 0x81 (AES key A, B) and 0x02. */
ZEL_API ZEL_STATUS TestAuthMode(uint8_t auth_mode);

/* CRC-16, polynomial 0x1021, initial 0xFFFF, no reflection, no final XOR. */
ZEL_API uint16_t CRC16(const uint8_t *data, uint16_t length);
/* CRC-8 of the feature blocks and the emulation NDEF block: polynomial 0x31, initial 0xFF, most significant
 * bit first, no reflection, no final XOR; length 0 gives 0xFF. */
ZEL_API uint8_t CRC8(const uint8_t *buffer, uint8_t length);

/* The door controller: a 22-byte coded frame on D2XX device 0; 1 when the controller echoed it. */
ZEL_API void CodeFrame(uint8_t *frame22, const uint8_t *payload8, uint32_t frame_kind);
ZEL_API int VRT_SendCommand(uint8_t command, uint32_t frame_kind, uint8_t parameter);
ZEL_API int VRT_ReceiveAnswerBoot(void);

/* Raw exchange of a frame the caller built: writes the frame; with an EXT reads the 7-byte acknowledge
 * and writes the EXT; reads the 7-byte reply and, when its EXT_LEN is not 0, that many bytes into
 * reply_ext (which holds 255 bytes at least). Nothing is tested. */

#include "zel_frame_forms.h"

#ifdef __cplusplus
}
#endif
#endif
