// Verifying a tag-generated URL the way a web service does on each tap: the parameters of the URL (the
// enciphered PICC data or the plain UID and counter, the enciphered file data, the MAC) are found and
// decoded into fixed buffers, and checked with the library's host functions. Nothing is allocated.
#ifndef TANDRO_TOOLS_SUN_H
#define TANDRO_TOOLS_SUN_H

#include <cstddef>
#include <cstdint>

namespace tandro {

// The parameters of a URL. Names recognised: "picc_data" or "p" (32 hex digits), "uid" (14), "ctr" (6,
// most significant first), "enc" or "e" (up to 480 hex digits, whole blocks), "cmac" or "m" (16).
struct SunUrl {
    bool has_picc = false, has_uid = false, has_ctr = false, has_enc = false;
    uint8_t picc[16] = {}, uid[7] = {}, ctr[3] = {}, mac[8] = {};
    uint8_t enc[240] = {};
    uint32_t enc_len = 0;
    // The MAC input: the URL's text from the first character of the enciphered data (when there is
    // any) up to the MAC's value; empty without enciphered data.
    const char *mac_input = nullptr;
    uint32_t mac_input_len = 0;
};

enum class SunParse { ok, no_mac, bad_hex, bad_length, duplicate, no_identity };
// Reads url (len bytes, not necessarily terminated). Never reads outside it.
SunParse sun_parse(const char *url, size_t len, SunUrl &out);
const char *sun_parse_text(SunParse p);

// What a verification found. uid and counter are filled whenever the PICC data or the plain mirrors gave
// them; mac_ok only when the MAC holds, file data only then.
struct SunResult {
    bool mac_ok = false;
    uint8_t tag = 0;
    uint8_t uid[7] = {};
    uint32_t counter = 0;
    uint8_t file_data[240] = {};
    uint32_t file_data_len = 0;
};
// meta_key deciphers the PICC data (may be null for plain mirrors); file_key derives the session keys.
// Returns the library status of the MAC check (0 when it holds).
uint32_t sun_verify(const SunUrl &url, const uint8_t *meta_key, const uint8_t *file_key, SunResult &out);

} // namespace tandro

#endif
