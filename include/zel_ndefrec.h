/* Typed NDEF records: a Wi-Fi credential, a Bluetooth address, a contact, an SMS, a phone number, an e-mail,
 * messenger and map links, a geo location, an application record, a payment link and plain text, written to
 * the card or to the reader's emulated tag, and read back from the card.
 *
 * Writers take the storage selector first: ZEL_NDEF_STORAGE_EMULATION (the emulated tag, one frame, at most
 * ZEL_EMUL_MAX_PAYLOAD payload bytes), ZEL_NDEF_STORAGE_CARD (appended to message 1 of the card in the field,
 * which is formatted first when blank) or ZEL_NDEF_STORAGE_EMULATION_RAM (the emulated tag in the reader's
 * RAM, at most ZEL_EMUL_RAM_MAX_PAYLOAD bytes). Any other selector gives ZEL_PARAMETERS_ERROR.
 * Strings are zero-terminated. The length of each string is taken modulo 256 before its limit is tested, and
 * the record is built from that length (a 300-byte SSID counts as 44 and its first 44 bytes are written),
 * except for the messages of WriteNdefRecord_Viber and WriteNdefRecord_Whatsapp and the text of
 * WriteNdefRecord_Text. Limits in bytes, ZEL_PARAMETERS_ERROR above them:
 *   WiFi          ssid 100, password 100, auth_type and encryption_type indexes 0 to 4 (see below);
 *   BT            exactly 12 characters: hexadecimal pairs are collected in the order of the text, anything
 *                 else is skipped and a lone digit ends the collecting (the other bytes stay 0). Phones read
 *                 the Bluetooth out-of-band address least significant byte first: to have a phone pair with
 *                 AA:BB:CC:DD:EE:FF pass "FFEEDDCCBBAA";
 *   SMS           number 50, message 200;            Phone        50;
 *   Contact       name 1 to 50, every other field 0 to 50 (a null pointer is an empty field);
 *   Viber, Whatsapp  150;                            Skype        user 100, action 0 ("call") or 1 ("chat");
 *   StreetView, GeoLocation  100 each;               Text         10,000 (English, language "en");
 *   AndroidApp    100;                               Address      200 before escaping;
 *   Email         address 50, subject 50, message 200;   NaviDestination  150;
 *   Bitcoin       address 100, amount 50, message 150.
 * Wi-Fi indexes: authentication 0 OPEN, 1 WPA-Personal, 2 WPA-Enterprise, 3 WPA2-Enterprise, 4 WPA2-Personal;
 * encryption 0 NONE, 1 WEP, 2 TKIP, 3 AES, 4 AES/TKIP.
 * The contact is a vCard 3.0 whose first two lines end in CR LF and the others in LF, with END:VCARD last and
 * no line end behind it. The address of WriteNdefRecord_Address is escaped: letters and digits stay, a blank
 * becomes '+', every other byte '%' and two upper-case hexadecimal digits.
 *
 * Readers read record 1 of message 1 of the card (a read within 2 seconds of the last one uses the image read
 * then), pass on a failure of that read, and give ZEL_NDEF_MESSAGE_NOT_COMPATIBLE for a record of another
 * kind. Every output is a buffer of the caller of the size named below; a field of the card that does not
 * fit (with its terminating zero where there is one) gives ZEL_BUFFER_OVERFLOW and nothing is copied to any
 * output. Outputs are zero-terminated except the Bluetooth address (12 characters), the vCard and the text:
 * zero those buffers first to read them as strings.
 *   WiFi        ssid, password ZEL_NDEF_FIELD_SIZE; auth_type, encryption_type ZEL_NDEF_WIFI_TYPE_SIZE (the
 *               texts above, empty for a value not in the table); an empty payload gives empty texts;
 *   BT          ZEL_NDEF_BT_ADDRESS_SIZE: 12 upper-case hexadecimal digits of the six address bytes as stored;
 *   SMS         number ZEL_NDEF_FIELD_SIZE, message ZEL_NDEF_LONG_FIELD_SIZE;
 *   Phone, AndroidApp, StreetView, GeoLocation, Skype (user and action text)  ZEL_NDEF_FIELD_SIZE each;
 *   Contact     ZEL_NDEF_LONG_FIELD_SIZE: the vCard as stored;
 *   Viber, Whatsapp, Address (still escaped), NaviDestination  ZEL_NDEF_LONG_FIELD_SIZE;
 *   Text        ZEL_NDEF_TEXT_SIZE: the text of an English ("en") text record;
 *   Email       address and subject ZEL_NDEF_FIELD_SIZE, message ZEL_NDEF_LONG_FIELD_SIZE;
 *   Bitcoin     address and amount ZEL_NDEF_FIELD_SIZE, message ZEL_NDEF_LONG_FIELD_SIZE.
 * ReadNdefRecord_GeoLocation refuses a latitude that begins with '0': such a record reads as an address. */
#ifndef ZEL_NDEFREC_H
#define ZEL_NDEFREC_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_NDEF_STORAGE_EMULATION 0u
#define ZEL_NDEF_STORAGE_CARD 1u
#define ZEL_NDEF_STORAGE_EMULATION_RAM 2u

#define ZEL_NDEF_FIELD_SIZE 256u
#define ZEL_NDEF_LONG_FIELD_SIZE 1024u
#define ZEL_NDEF_TEXT_SIZE 10000u
#define ZEL_NDEF_BT_ADDRESS_SIZE 12u
#define ZEL_NDEF_WIFI_TYPE_SIZE 16u

/* The size of the text that ParseNdefMessage returns, its terminating zero included. */
#define ZEL_NDEF_PARSE_TEXT_SIZE 1000u

/* A text for display of one record as read_ndef_record delivers it (a URI's prefix code written out): the
 * Wi-Fi credential (password included), the Bluetooth address, the package name, the vCard, the URI kinds of
 * the writers above and English text. "MESSAGE NOT FOUND" for an empty type or payload, "MESSAGE NOT
 * COMPATIBLE" for another kind; a URI of no known kind gives an empty text. The text lives in one static
 * buffer of ZEL_NDEF_PARSE_TEXT_SIZE bytes that the next call overwrites (one caller at a time); a longer
 * report is cut. Global form only: no reader is involved. */
ZEL_API const char *ParseNdefMessage(const uint8_t *type_record, uint8_t type_length, const uint8_t *payload,
                                     uint32_t payload_length);

#include "zel_ndefrec_forms.h"

#ifdef __cplusplus
}
#endif
#endif
