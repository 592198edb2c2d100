// The firmware service seam and what the manager does with the service's answers: the five http_ functions
// (null while no service is registered), the package manifest reader, and the checks of images, lists and
// manifests. Everything a service sends is untrusted: every scan is bounded by the bytes received.
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "core/bytes.h"
#include "firmware/manager_internal.h"
#include "zel_handle.h"

namespace {

std::mutex g_service_mu;
zel::fw::Service g_service{};
bool g_service_set = false;

zel::fw::Service current_service()
{
    std::lock_guard<std::mutex> lock(g_service_mu);
    return g_service_set ? g_service : zel::fw::Service{};
}

// A bounded search: the first place of needle within the first n bytes of hay.
const uint8_t *find_bytes(const uint8_t *hay, size_t n, const char *needle)
{
    const size_t k = std::strlen(needle);
    if (!hay || k == 0 || k > n)
        return nullptr;
    return static_cast<const uint8_t *>(memmem(hay, n, needle, k));
}

int clamp_int(size_t n)
{
    return n > 200000 ? 200000 : static_cast<int>(n);
}

// The image checks of one text of the service, in the manager's order.
constexpr size_t kSmallImage = 10240;
constexpr size_t kExamined = 1024;
constexpr const char *kHtmlMarks[] = {"<!DOCTYPE", "<!doctype", "<html>", "<HTML>",
                                      "<head>",    "<HEAD>",    "<body>", "<BODY>"};
constexpr const char *kHttpErrors[] = {"500 Internal Server Error", "502 Bad Gateway", "503 Service Unavailable",
                                       "504 Gateway Timeout", "Gateway Timeout"};
constexpr const char *kErrorMarks[] = {"Error:", "ERROR:", "error:", "Error "};
constexpr const char *kTokenTexts[] = {"Token required for upgrade\n",
                                       "Error: Not allowed, you need token to upgrade."};

// Texts longer than this from a list, a manifest or a package name are refused.
constexpr size_t kTextMax = 65536;

bool token_demanded(const uint8_t *data, size_t size)
{
    for (const char *t : kTokenTexts)
        if (find_bytes(data, size, t))
            return true;
    return false;
}

// An error answer: its text logged (bounded), and whether it demands a token.
int error_answer(const zel_http_response *r)
{
    const size_t n = r->data ? r->size : 0;
    dp(6, "Error: Server returned error: %.*s\n", clamp_int(n < 1024 ? n : 1024),
       r->data ? reinterpret_cast<const char *>(r->data) : "");
    return token_demanded(r->data, n) ? 2 : 1;
}

// One field of the manifest table: its key and where its value goes.
struct Key {
    const char *name;
    size_t len;
    size_t value_offset, len_offset;
};

#define ZEL_MANIFEST_KEY(text, field)                                      \
    Key                                                                    \
    {                                                                      \
        text, sizeof(text) - 1, offsetof(zel::fw::PackageVersions, field), \
            offsetof(zel::fw::PackageVersions, field##_len)                \
    }

const Key kKeys[] = {
    ZEL_MANIFEST_KEY("esp_version", esp),           ZEL_MANIFEST_KEY("nfc1_version", nfc1),
    ZEL_MANIFEST_KEY("nfc2_version", nfc2),         ZEL_MANIFEST_KEY("display1_version", display1),
    ZEL_MANIFEST_KEY("display2_version", display2),
};

// The JSON tokenizer of the manifest: at most 64 tokens, each typed, with its start, end and child count.
enum class Tok : uint8_t { OBJECT, ARRAY, STRING, PRIMITIVE };
struct Token {
    Tok type;
    int start, end, size;
    int parent;
};
constexpr int kMaxTokens = 64;

struct Tokenizer {
    const char *js;
    size_t len;
    size_t pos = 0;
    int next = 0;
    int super = -1;
    Token *tokens;

    Token *alloc(Tok type, int start, int end)
    {
        if (next >= kMaxTokens)
            return nullptr;
        Token *t = &tokens[next++];
        *t = Token{type, start, end, 0, -1};
        return t;
    }

    bool primitive()
    {
        const size_t start = pos;
        for (; pos < len && js[pos] != '\0'; ++pos) {
            const char c = js[pos];
            if (c == ':' || c == '\t' || c == '\r' || c == '\n' || c == ' ' || c == ',' || c == ']' || c == '}')
                break;
            if (static_cast<unsigned char>(c) < 32 || c == 127)
                return false;
        }
        Token *t = alloc(Tok::PRIMITIVE, static_cast<int>(start), static_cast<int>(pos));
        if (!t)
            return false;
        t->parent = super;
        --pos;
        return true;
    }

    bool string()
    {
        const size_t start = pos;
        ++pos;
        for (; pos < len && js[pos] != '\0'; ++pos) {
            const char c = js[pos];
            if (c == '"') {
                Token *t = alloc(Tok::STRING, static_cast<int>(start + 1), static_cast<int>(pos));
                if (!t)
                    return false;
                t->parent = super;
                return true;
            }
            if (c == '\\') {
                if (pos + 1 >= len)
                    return false;
                ++pos;
                switch (js[pos]) {
                case '"':
                case '/':
                case '\\':
                case 'b':
                case 'f':
                case 'r':
                case 'n':
                case 't': break;
                case 'u':
                    for (int i = 0; i < 4; ++i) {
                        ++pos;
                        if (pos >= len || !zel::is_hex_digit(static_cast<unsigned char>(js[pos])))
                            return false;
                    }
                    break;
                default: return false;
                }
            }
        }
        return false; // no closing quote
    }

    bool run()
    {
        for (; pos < len && js[pos] != '\0'; ++pos) {
            const char c = js[pos];
            switch (c) {
            case '{':
            case '[': {
                Token *t = alloc(c == '{' ? Tok::OBJECT : Tok::ARRAY, static_cast<int>(pos), -1);
                if (!t)
                    return false;
                if (super != -1)
                    ++tokens[super].size;
                t->parent = super;
                super = next - 1;
                break;
            }
            case '}':
            case ']': {
                const Tok type = c == '}' ? Tok::OBJECT : Tok::ARRAY;
                if (next < 1)
                    return false;
                int i = next - 1;
                for (; i >= 0; --i) {
                    Token &t = tokens[i];
                    if (t.start != -1 && t.end == -1) {
                        if (t.type != type)
                            return false;
                        t.end = static_cast<int>(pos + 1);
                        super = t.parent;
                        break;
                    }
                }
                if (i == -1)
                    return false;
                break;
            }
            case '"':
                if (!string())
                    return false;
                if (super != -1)
                    ++tokens[super].size;
                break;
            case '\t':
            case '\r':
            case '\n':
            case ' ': break;
            case ':': super = next - 1; break;
            case ',':
                if (super != -1 && tokens[super].type != Tok::ARRAY && tokens[super].type != Tok::OBJECT)
                    super = tokens[super].parent;
                break;
            default:
                if (static_cast<unsigned char>(c) < 32)
                    return false;
                if (!primitive())
                    return false;
                if (super != -1)
                    ++tokens[super].size;
                break;
            }
        }
        for (int i = next - 1; i >= 0; --i)
            if (tokens[i].start != -1 && tokens[i].end == -1)
                return false; // unmatched bracket
        return next > 0;
    }
};

} // namespace

namespace zel::fw {

void set_service(const Service *service)
{
    std::lock_guard<std::mutex> lock(g_service_mu);
    g_service_set = service != nullptr;
    g_service = service ? *service : Service{};
}

zel_http_response *make_response(int32_t type, const void *data, size_t size)
{
    auto *r = static_cast<zel_http_response *>(std::calloc(1, sizeof(zel_http_response)));
    if (!r)
        return nullptr;
    r->type = type;
    if (data && size) {
        r->data = static_cast<uint8_t *>(std::malloc(size + 1));
        if (!r->data) {
            std::free(r);
            return nullptr;
        }
        std::memcpy(r->data, data, size);
        r->data[size] = 0;
        r->size = size;
    }
    return r;
}

int parse_firmware_manifest(const char *text, size_t len, PackageVersions *out)
{
    if (!out)
        return -1;
    *out = PackageVersions{};
    if (!text || len == 0 || text[0] == '\0')
        return -1;
    Token tokens[kMaxTokens];
    Tokenizer t{text, len, 0, 0, -1, tokens};
    if (!t.run() || tokens[0].type != Tok::OBJECT)
        return -1;
    for (int i = 1; i + 1 < t.next; ++i) {
        const Token &k = tokens[i];
        if (k.type != Tok::STRING || k.size != 1)
            continue;
        const size_t klen = static_cast<size_t>(k.end - k.start);
        for (const Key &key : kKeys) {
            if (klen != key.len || std::memcmp(text + k.start, key.name, klen) != 0)
                continue;
            const Token &v = tokens[i + 1];
            size_t vlen = static_cast<size_t>(v.end > v.start ? v.end - v.start : 0);
            if (vlen > ZEL_FW_VERSION_MAX)
                vlen = ZEL_FW_VERSION_MAX;
            char *value = reinterpret_cast<char *>(out) + key.value_offset;
            std::memcpy(value, text + v.start, vlen);
            value[vlen] = '\0';
            *(reinterpret_cast<uint8_t *>(out) + key.len_offset) = static_cast<uint8_t>(vlen);
        }
    }
    return 0;
}

void free_record(FirmwareRecord *record)
{
    if (!record)
        return;
    std::free(record->data);
    record->data = nullptr;
    record->size = 0;
}

int check_firmware_response(const zel_http_response *response, FirmwareRecord *record, const char *version)
{
    if (!record) {
        dp(6, "Error: Invalid parameters\n");
        return 1;
    }
    if (!response) {
        dp(6, "Error: Failed to get firmware response (NULL returned)\n");
        return 1;
    }
    if (response->type == ZEL_HTTP_ERROR)
        return error_answer(response);
    if (response->type != ZEL_HTTP_FIRMWARE_BINARY) {
        dp(6, "Error: Unexpected response type: %d (expected FIRMWARE_BINARY=%d)\n", response->type,
           ZEL_HTTP_FIRMWARE_BINARY);
        return 1;
    }
    if (!response->data || response->size == 0) {
        dp(6, "Error: No firmware data received (data=%p, size=%zu)\n", static_cast<const void *>(response->data),
           response->size);
        return 1;
    }
    const uint8_t *data = response->data;
    const size_t size = response->size;
    if (size < kSmallImage) {
        dp(6, "Warning: Firmware size (%zu bytes) is suspiciously small (minimum expected: %d bytes)\n", size,
           static_cast<int>(kSmallImage));
        const size_t n = size < kExamined ? size : kExamined;
        for (const char *mark : kHtmlMarks) {
            if (find_bytes(data, n, mark)) {
                dp(6, "Error: Server returned HTML page instead of firmware!\n");
                dp(6, "Response preview: %.*s...\n", clamp_int(n < 200 ? n : 200),
                   reinterpret_cast<const char *>(data));
                return 1;
            }
        }
        for (const char *mark : kHttpErrors) {
            if (find_bytes(data, n, mark)) {
                dp(6, "Error: Server returned HTTP error page!\n");
                return 1;
            }
        }
        for (const char *mark : kErrorMarks) {
            if (const uint8_t *at = find_bytes(data, n, mark)) {
                const size_t rest = n - static_cast<size_t>(at - data);
                dp(6, "Server Error found in response: %.*s...\n", clamp_int(rest < 100 ? rest : 100),
                   reinterpret_cast<const char *>(at));
                return token_demanded(data, n) ? 2 : 1;
            }
        }
    }
    if (size > ZEL_FW_IMAGE_MAX) {
        dp(6, "Error: Firmware size (%zu) exceeds maximum allowed size (%d)\n", size,
           static_cast<int>(ZEL_FW_IMAGE_MAX));
        return 1;
    }
    auto *copy = static_cast<uint8_t *>(std::malloc(size));
    if (!copy)
        return 1;
    std::memcpy(copy, data, size);
    free_record(record);
    record->data = copy;
    record->size = size;
    std::snprintf(record->version, sizeof record->version, "%s", version ? version : "");
    return 0;
}

int check_text_response(const zel_http_response *response, char *out, size_t out_len)
{
    if (!out || out_len == 0) {
        dp(6, "Error: Invalid parameters\n");
        return 1;
    }
    out[0] = '\0';
    if (!response) {
        dp(6, "Error: Failed to get firmware response (NULL returned)\n");
        return 1;
    }
    if (response->type == ZEL_HTTP_ERROR)
        return error_answer(response);
    if (response->type != ZEL_HTTP_TEXT) {
        dp(6, "Error: Unexpected response type: %d (expected %d)\n", response->type, ZEL_HTTP_TEXT);
        return 1;
    }
    if (!response->data || response->size == 0 || response->size > kTextMax) {
        dp(6, "Error: No usable text received (size=%zu)\n", response->data ? response->size : 0);
        return 1;
    }
    // The text ends at its first zero byte, if any.
    const auto *zero = static_cast<const uint8_t *>(std::memchr(response->data, 0, response->size));
    size_t n = zero ? static_cast<size_t>(zero - response->data) : response->size;
    if (n > out_len - 1)
        n = out_len - 1;
    std::memcpy(out, response->data, n);
    out[n] = '\0';
    return 0;
}

int parse_version_list(const char *text, size_t len, char *out, size_t out_len)
{
    if (!out || out_len == 0)
        return 0;
    out[0] = '\0';
    if (!text)
        return 0;
    size_t used = 0;
    int count = 0;
    size_t at = 0;
    while (at < len && text[at] != '\0') {
        size_t end = at;
        while (end < len && text[end] != '\0' && text[end] != '\n')
            ++end;
        size_t line_end = end;
        if (line_end > at && text[line_end - 1] == '\r')
            --line_end;
        const char *comma = static_cast<const char *>(std::memchr(text + at, ',', line_end - at));
        if (comma) {
            const size_t vlen = static_cast<size_t>(comma - (text + at));
            const size_t clen = line_end - static_cast<size_t>(comma - text) - 1;
            if (vlen > ZEL_FW_VERSION_MAX) {
                dp(6, "Error: Version too long\n");
                break;
            }
            if (clen > 127) {
                dp(6, "Error: Comment too long\n");
                break;
            }
            const int w = std::snprintf(out + used, out_len - used, "%.*s,%.*s\n", static_cast<int>(vlen), text + at,
                                        static_cast<int>(clen), comma + 1);
            if (w < 0 || static_cast<size_t>(w) >= out_len - used) {
                out[used] = '\0';
                break;
            }
            used += static_cast<size_t>(w);
            ++count;
        }
        at = end < len && text[end] == '\n' ? end + 1 : end;
    }
    return count;
}

bool get_last_line(const char *list, char *version, size_t version_len)
{
    if (!list || !version || version_len == 0)
        return false;
    version[0] = '\0';
    size_t n = std::strlen(list);
    while (n > 0 && (list[n - 1] == '\n' || list[n - 1] == '\r'))
        --n;
    if (n == 0)
        return false;
    size_t start = n;
    while (start > 0 && list[start - 1] != '\n')
        --start;
    size_t end = start;
    while (end < n && list[end] != ',')
        ++end;
    const size_t vlen = end - start;
    if (vlen == 0 || vlen >= version_len)
        return false;
    std::memcpy(version, list + start, vlen);
    version[vlen] = '\0';
    return true;
}

bool is_valid_hex_string(const char *text, size_t len)
{
    if (!text || len == 0 || len % 2 != 0)
        return false;
    for (size_t i = 0; i < len; ++i)
        if (!zel::is_hex_digit(static_cast<unsigned char>(text[i])))
            return false;
    return true;
}

void hex_str_to_bin(const char *text, size_t len, uint8_t *out)
{
    for (size_t i = 0; i + 1 < len; i += 2)
        out[i / 2] = static_cast<uint8_t>(zel::hex_value(static_cast<unsigned char>(text[i])) << 4 |
                                          zel::hex_value(static_cast<unsigned char>(text[i + 1])));
}

bool parse_version(const char *text, int *major, int *minor, int *build)
{
    int a = 0, b = 0, c = 0;
    if (!text || std::sscanf(text, "%d.%d.%d", &a, &b, &c) != 3)
        return false;
    if (major)
        *major = a;
    if (minor)
        *minor = b;
    if (build)
        *build = c;
    return true;
}

} // namespace zel::fw

extern "C" ZEL_API zel_http_response *http_get_firmware(const zel_fw_identity *identity, const char *version,
                                                        const char *token)
{
    const zel::fw::Service s = current_service();
    return s.get_firmware ? s.get_firmware(s.ctx, identity, version, token) : nullptr;
}

extern "C" ZEL_API zel_http_response *http_get_display_firmware(const zel_fw_identity *identity, const char *version,
                                                                const char *token)
{
    const zel::fw::Service s = current_service();
    return s.get_display_firmware ? s.get_display_firmware(s.ctx, identity, version, token) : nullptr;
}

extern "C" ZEL_API zel_http_response *http_get_configuration(const char *name)
{
    const zel::fw::Service s = current_service();
    return s.get_configuration ? s.get_configuration(s.ctx, name) : nullptr;
}

extern "C" ZEL_API zel_http_response *http_get_package_name_by_firmware_version(uint8_t hw_type, const char *version)
{
    const zel::fw::Service s = current_service();
    return s.get_package_name ? s.get_package_name(s.ctx, hw_type, version) : nullptr;
}

extern "C" ZEL_API void http_response_free(zel_http_response *response)
{
    if (!response)
        return;
    // The data of every type is the service's malloc'd memory: freed whatever the type, so that an odd type
    // leaks nothing.
    std::free(response->data);
    std::free(response);
}
