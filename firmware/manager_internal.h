// The firmware manager's insides, shared with the tests, the fuzz targets and the tool: the service seam, the
// manifest reader, the checks of what the service answers, and the image text helpers. Never exported.
#ifndef ZEL_FIRMWARE_MANAGER_INTERNAL_H
#define ZEL_FIRMWARE_MANAGER_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "zel_firmware.h"

namespace zel::fw {

// A firmware service: what stands behind the five http_ functions. Every answer is a record of malloc'd
// memory (record and data), freed by http_response_free.
struct Service {
    zel_http_response *(*get_firmware)(void *ctx, const zel_fw_identity *identity, const char *version,
                                       const char *token);
    zel_http_response *(*get_display_firmware)(void *ctx, const zel_fw_identity *identity, const char *version,
                                               const char *token);
    zel_http_response *(*get_configuration)(void *ctx, const char *name);
    zel_http_response *(*get_package_name)(void *ctx, uint8_t hw_type, const char *version);
    void *ctx;
};

// Puts a service behind the http_ functions (null takes it away: every function answers null again).
void set_service(const Service *service);
// A response record of malloc'd memory holding a copy of the bytes (null when memory fails).
zel_http_response *make_response(int32_t type, const void *data, size_t size);

// The package versions of a manifest: text of at most 31 characters each, with its length.
struct PackageVersions {
    char esp[32], nfc1[32], nfc2[32], display1[32], display2[32];
    uint8_t esp_len, nfc1_len, nfc2_len, display1_len, display2_len;
};

// The manifest reader: 0, or -1 for empty text, more than 64 tokens, a bad escape, an unmatched bracket, a
// control character outside a string, or a first token that is not an object. Reads at most len bytes.
int parse_firmware_manifest(const char *text, size_t len, PackageVersions *out);

// One downloaded image.
struct FirmwareRecord {
    uint8_t *data = nullptr; // malloc'd, at most ZEL_FW_IMAGE_MAX bytes
    size_t size = 0;
    char version[32] = {};
};
void free_record(FirmwareRecord *record);

// The checks of a service's answer for an image, in their order, with their log lines: 0 good (the bytes are
// copied to the record with the version), 2 the service demands a token, 1 any other failure. Every scan
// stays within the bytes received.
int check_firmware_response(const zel_http_response *response, FirmwareRecord *record, const char *version);

// The checks of a text answer (a list, a manifest, a package name): 0 and the text (cut to out_len - 1 and
// terminated), 2 a token is demanded, 1 otherwise.
int check_text_response(const zel_http_response *response, char *out, size_t out_len);

// A version list, "version,comment" a line: rewritten as "%s,%s\n" lines into out. An over-long version (31)
// or comment (127) ends the list with "Error: Version too long\n" or "Error: Comment too long\n". Lines
// without a comma are skipped. Returns the count of entries.
int parse_version_list(const char *text, size_t len, char *out, size_t out_len);
// The last line of a list in the form above: its first field into version (32 bytes). False for none.
bool get_last_line(const char *list, char *version, size_t version_len);

// Hexadecimal image text: non-empty, even length, digits in either case.
bool is_valid_hex_string(const char *text, size_t len);
// Turns valid hex text into len / 2 bytes of out.
void hex_str_to_bin(const char *text, size_t len, uint8_t *out);

// The firmware of a module's text, "%d.%d.%d" of the three numbers.
bool parse_version(const char *text, int *major, int *minor, int *build);

} // namespace zel::fw

#endif
