/* Smart cards through the reader: switching the card interface (ISO 14443-4, the ISO 7816 contact
 * interface), APDUs that the reader carries with its own block protocol, blocks that the host runs itself,
 * and the raw paths to the reader's contactless front end and serial link.
 *
 * Card status words: APDUTransceive gives the two status bytes as they came, SW1 in the low byte of its
 * 16-bit value and SW2 in the high byte; Zel_APDU_Transceive gives them as two bytes, SW1 first. A card's
 * refusal (69 82, 6A 82, ...) is a successful exchange: the status word tells, not the result. */
#ifndef ZEL_APDU_H
#define ZEL_APDU_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Limits, in bytes. */
#define ZEL_APDU_MAX_COMMAND 0x10008u /* longest plain APDU command, and longest reply */
#define ZEL_APDU_MIN_COMMAND 4u
#define ZEL_APDU_MAX_NC 255u    /* APDUTransceive */
#define ZEL_APDU_MAX_NE 32767u  /* APDUTransceive with Nc 0; 256 otherwise */
#define ZEL_APDU_ATS_BUFFER 32u /* cleared by SetISO14443_4_Mode_GetATS; an ATS holds up to 25 */
#define ZEL_APDU_UID_BUFFER 10u
#define ZEL_APDU_HEX_MAX_INPUT 1024u /* characters of the APDUHexStrTransceive command */
#define ZEL_APDU_HEX_MAX_REPLY 8192u /* characters of its reply text */

/* Switching the card interface. None of these keeps state in the library: they are the reader's switches.
 *   SetISO14443_4_Mode         activates the card at ISO 14443-4 level;
 *   SetISO14443_4_Mode_GetATS  the same, and gives the ATS (buffer of 32), the UID (buffer of 10) and SAK;
 *   SetISO14443_4_OrbStorage   the same for the maker's storage cards;
 *   s_block_deselect           S(DESELECT): ends the level-4 session (time-out byte for the reader);
 *   card_halt_enable           lets the reader halt the card;
 *   Zel_APDU_Start/Stop, Zel_DESFIRE_Start/Stop  open and close the reader's interface session;
 *   Zel_DESFIRE_SendICFG       sends a three-byte interface configuration record (what the four above use);
 *   open_ISO7816_interface, Open_ISO7816_Generic  contact interface on; the ATR goes to atr, whose capacity
 *                              is *atr_len on entry and the ATR's length on return (ZEL_NO_MEMORY_ERROR when it
 *                              does not fit);
 *   APDU_switch_to_ISO7816_interface           APDUs go to the contact card;
 *   close_ISO7816_interface_APDU_ISO14443_4    contact interface off, APDUs go to ISO 14443-4;
 *   close_ISO7816_interface_no_APDU            contact interface off;
 *   APDU_switch_to_ISO14443_4_interface        APDUs go to ISO 14443-4;
 *   APDU_switch_off_from_ISO7816_interface     APDU traffic leaves the contact interface. */

/* APDUs carried by the reader.
 *   APDUPlainTransceive        command bytes (4 to 0x10008) in, the card's whole reply (data, SW1, SW2) out.
 *                              The reply buffer must hold the longest reply, 0x10008 bytes, as the call has no
 *                              capacity argument;
 *   APDUPlainTransceiveToHeap  the same with the reply in a block the library allocates (free it with OrbFree);
 *   APDUTransceive             builds the APDU from header, Nc bytes of data and Ne (short, or extended Le
 *                              with Nc 0), answers the data in data_out (capacity *ne on entry, its length on
 *                              return, ZEL_BUFFER_SIZE_EXCEEDED and no copy when the card sent more) and the
 *                              status word;
 *   APDUTransceiveForceExtended  the same with an extended Le always (Nc must be 0, data_in null);
 *   APDUHexStrTransceive       the command as hexadecimal text; *r_apdu points at the reply as text, valid until
 *                              the next such call on any reader (not to be freed);
 *   Zel_APDU_Transceive        a short APDU over host-run I- and R-blocks; data_out (capacity max_out) gets the
 *                              data and the two status bytes, which *ne counts, and sw gets a copy of those. */

/* Blocks run by the host. The received block (its PCB first) goes to rcv_data, which holds 255 bytes;
 * status is the exchange's status as the reader reports it; chained tells that the card has more blocks.
 *   i_block_trans_rcv_chain  an I-block (command 0x90), chaining when the flag is set;
 *   Zel_i_block_transceive   the same over command 0x7F, whose reply has no chained flag;
 *   r_block_transceive       an R-block: ACK when ack is not 0, NAK otherwise.
 * A reader that answers status 115 has its data read, and 115 is returned with the outputs untouched. */

/* The implementations under the block operations, by the names of the reader's commands: command 0x90 and
 * command 0x7F. */
ZEL_API ZEL_STATUS i_block_transceiveHnd(ZEL_HANDLE hnd, uint8_t chaining, uint8_t timeout, uint8_t block_length,
                                         const uint8_t *snd_data, uint8_t *rcv_length, uint8_t *rcv_data,
                                         uint8_t *chained, uint32_t *status);
ZEL_API ZEL_STATUS i_block_transmitHnd(ZEL_HANDLE hnd, uint8_t chaining, uint8_t timeout, uint8_t block_length,
                                       const uint8_t *snd_data, uint64_t *rcv_length, uint8_t *rcv_data,
                                       uint32_t *status);

/* Raw paths.
 *   card_transceive (pn512_transceive)  bytes to the card through the reader's front end: the five flags go
 *                   to PAR0 bits 0 to 4, the parameter and the bytes (at most 248) in the EXT; the received
 *                   bytes (at most 254) go to recv;
 *   card_transceive_mode_start (pn512_transceive_mode_start)  leaves the reader in raw mode, in which
 *                   uart_transceive talks to the card and no framed command works; sets the port time-out;
 *   card_transceive_mode_stop (pn512_transceive_mode_stop)  the way back: the reader answers "OK";
 *   uart_transceive  writes the bytes and reads what comes back within the port time-out, up to capacity. */

#include "zel_apdu_forms.h"

#ifdef __cplusplus
}
#endif
#endif
