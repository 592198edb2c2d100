// Internals of the travel document module: bounded readers, the JSON writer of the document texts, and the
// BAC dialogue written against a transceive function. Never exported.
#ifndef ZEL_MRTD_INTERNAL_H
#define ZEL_MRTD_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "zel_handle.h"
#include "zel_mrtd.h"

namespace zel::mrtd {

// A BER length field at p with avail bytes in hand, read the way getTlvLen reads it (a first byte up to 0x80
// is the length, 0x81 to 0x84 announce 1 to 4 bytes). False when the field is malformed or not all in hand.
bool read_tlv_len(const uint8_t *p, uint32_t avail, uint32_t *len_of_len, uint32_t *value_len);

// ---- JSON writer: out holds cap bytes, *pos is the end of the text, which stays NUL-terminated ----

// The size of n bytes written as the inside of a JSON string. Printable ASCII stays, except " and \;
// control bytes become escapes; well-formed UTF-8 sequences stay; any other byte is taken as Latin-1 and
// written as \u00XX, so the result is always valid JSON.
size_t json_escaped_size(const char *s, size_t n);
// Appends raw text (no escaping) when it fits with its NUL; false otherwise, leaving the text as it was.
bool json_put_raw(char *out, uint32_t cap, uint32_t *pos, const char *text);
// Appends text escaped as the inside of a JSON string; false when it does not fit.
bool json_put_escaped(char *out, uint32_t cap, uint32_t *pos, const char *text);
// Appends ,"key":"value" (no comma when first) with the value escaped; false when it does not fit.
bool json_put_member(char *out, uint32_t cap, uint32_t *pos, const char *key, const char *value, bool first);

// The JSON members that DG1 and the MRZ share: "document_code", "document_type", "issuing_state" (lack of
// room answers head_no_room), then the members of ParseTD1Format (mrz_len 90) or ParseTD3Format (88).
ZEL_STATUS mrz_json_members(char *out, uint32_t cap, uint32_t *pos, const char *mrz, uint32_t mrz_len,
                            ZEL_STATUS head_no_room);

// ---- BAC over a card link ----

// Sends one command APDU and takes the answer with its status word. *resp_len is the capacity on entry and
// the length on return; any status other than ZEL_OK is handed on to the caller as it stands.
using Transceive = ZEL_STATUS (*)(void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp,
                                  uint32_t *resp_len);

// The card's status word in the form the caller sees: 0xA0000 ORed with SW1 SW2.
constexpr ZEL_STATUS card_status(uint8_t sw1, uint8_t sw2)
{
    return 0xA0000u | (uint32_t(sw1) << 8) | sw2;
}

// Test seam: the host randoms of BAC (RND.IFD then K.IFD, 24 bytes) from the caller instead of OpenSSL's
// generator; null restores the generator.
using HostRandomHook = void (*)(uint8_t out24[24]);
void set_host_random_hook(HostRandomHook hook);
// Fills mrtd_bac_rnd_ifd and mrtd_bac_kifd; false when the generator fails.
bool fill_host_randoms();

// SELECT of the LDS application, GET CHALLENGE, EXTERNAL AUTHENTICATE: the session keys and the SSC.
ZEL_STATUS bac_authenticate(Transceive transceive, void *context, const char *mrz_proto_key, uint8_t *ks_enc,
                            uint8_t *ks_mac, uint64_t *ssc);
// Reads a whole file under secure messaging; *out is allocated (OrbFree), also the partial buffer of a
// failed read. The SSC moves by two for each exchange.
ZEL_STATUS bac_read_file(Transceive transceive, void *context, uint16_t file_id, uint8_t **out, uint32_t *out_len,
                         const uint8_t *ks_enc, const uint8_t *ks_mac, uint64_t *ssc);

// The SHA-256 of the last EF.DG1 (group 1) or EF.DG2 (group 2) read; null before the first.
const uint8_t *last_dg_digest(int group);

// ---- The card behind a reader handle ----

struct Link {
    Transceive transceive;
    void *context;
};
// The APDU exchange with the card on the reader of hnd.
Link card_link(ZEL_HANDLE hnd);
// Test seam: every document operation talks to this function instead of a reader (null restores the
// readers).
void set_link_hook(Transceive transceive, void *context);

// The JSON key of a tag of the textual data groups ("instances" for a tag the table does not know).
const char *dg_tag_key(uint32_t tag);

} // namespace zel::mrtd

#endif
