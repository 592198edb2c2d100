/* NDEF messages on Type 2 tags, MIFARE Classic and Plus (security level 1, through the application
 * directory) and Type 4 tags (NDEF application, capability container file, NDEF file).
 *
 *   ndef_card_initialization   lays out a blank NDEF area on the card in the field;
 *   read_ndef_record           record record_nr (from 1) of message message_nr (from 1; 0 acts as 1). Record
 *                              numbers run on into the next message when the message has fewer records. The
 *                              payload buffer must hold ZEL_NDEF_PAYLOAD_SLACK bytes more than the payload; a
 *                              URI record ("U") with a known prefix code comes back with the prefix written
 *                              out. The type buffer holds 255 bytes, the id buffer 255 bytes;
 *   write_ndef_record          appends a record to message message_nr, formatting a blank card first
 *                              (card_formated is then 1);
 *   write_ndef_record_mirroring(_tt)  the same on NTAG21x tags, with the UID, counter or TT mirror set up
 *                              in the configuration page;
 *   get_ndef_record_count      messages, records, empty messages, and the per-message record array, which
 *                              holds ZEL_NDEF_RECORD_ARRAY_LEN bytes;
 *   erase_last_ndef_record, erase_all_ndef_records  on message message_nr.
 * A read within 2 seconds of the last one uses the image read then (not on generic ISO 14443-4 cards).
 * NDEF_ParseCC reads a four-byte capability container. */
#ifndef ZEL_NDEF_H
#define ZEL_NDEF_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_NDEF_PAYLOAD_SLACK 30
#define ZEL_NDEF_RECORD_ARRAY_LEN 256

/* A Type 2 or ISO 15693 capability container (4 bytes): mapping version, data area size (byte 2 times 8),
 * read allowed (byte 3 below 16) and write allowed (low nibble of byte 3 is 0). Without the magic byte E1
 * every output is zeroed and ZEL_WRONG_NDEF_CARD_FORMAT is returned. */
ZEL_API ZEL_STATUS NDEF_ParseCC(const uint8_t *cc, uint8_t *version_major, uint8_t *version_minor,
                                uint32_t *data_area_size, uint8_t *read_access, uint8_t *write_access);

/* An NDEF message in a DESFire application, in the global and implementation forms only.
 *   Zel_int_DesfireNDEFFormat        turns the card's all-zero DES master key into the all-zero AES key, formats
 *                                    the card (with that AES key) and lays out application 000001 (AES, one key,
 *                                    ISO id E110, name D2 76 00 00 85 01 01) with the capability container as
 *                                    file 1 (ISO id E103) and the NDEF file as file 2 (ISO id E104) of
 *                                    ndef_file_size bytes (0: the card's free memory less 32). Files are read
 *                                    and written freely; with ndef_free_write set the read-and-write right is
 *                                    key 0. A failed step gives ZEL_NDEF_CARD_FORMAT_ERROR;
 *   Zel_int_DesfireWriteNDEFMessage  writes length bytes (the message behind its two-byte length) to the NDEF
 *                                    file at 0; ZEL_NO_CARD without a card, ZEL_WRITING_ERROR when refused;
 *   Zel_int_DesfireReadNDEFMessage   reads the NDEF file by ISO commands: the message without its length into
 *                                    buffer, which must hold ZEL_DESFIRE_NDEF_MAX_MESSAGE bytes;
 *   Zel_int_DesfireWriteNDEFPayload  writes a one-record message: a URI record with prefix code 0 and the text
 *                                    (a C string) as it stands;
 *   Zel_int_DesfireReadNDEFPayload   reads that record's text back, with a terminating 0, into a buffer of
 *                                    ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1 bytes;
 *   Zel_int_DesfireReadNDEFPayloadEx the same into a buffer of *payload_size bytes; *payload_size becomes the
 *                                    record's payload length (the text and its terminating 0).
 * The writers and readers try up to three times, 50 ms apart. */
#define ZEL_DESFIRE_NDEF_MAX_MESSAGE 65535u
#define ZEL_DESFIRE_NDEF_MAX_PAYLOAD 8192u

#include "zel_ndef_forms.h"

#ifdef __cplusplus
}
#endif
#endif
