#include "tandro.h"
#include "tools/cli.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tandro {

namespace {
std::vector<Command> &registry()
{
    static std::vector<Command> list;
    return list;
}
} // namespace

Registration::Registration(const Command &command)
{
    registry().push_back(command);
}

const std::vector<Command> &commands()
{
    return registry();
}

bool parse_u32(const std::string &text, uint32_t *value)
{
    if (text.empty() || text[0] == '-')
        return false;
    errno = 0;
    char *end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 0);
    if (errno != 0 || *end != 0 || v > 0xFFFFFFFFull)
        return false;
    *value = static_cast<uint32_t>(v);
    return true;
}

namespace {
// The value of a hexadecimal digit in either case, or -1.
int hex_digit(char c)
{
    static const char kDigits[] = "0123456789abcdef";
    const char lower = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
    const char *at = lower ? std::strchr(kDigits, lower) : nullptr;
    return at ? static_cast<int>(at - kDigits) : -1;
}
bool hex_separator(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == ':' || c == '-';
}
} // namespace

bool parse_hex(const std::string &text, std::vector<uint8_t> &out)
{
    out.clear();
    int high = -1; // the first digit of a byte under way
    for (char c : text) {
        if (hex_separator(c) && high < 0)
            continue;
        const int v = hex_digit(c);
        if (v < 0) {
            out.clear();
            return false;
        }
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    if (high >= 0)
        out.clear();
    return high < 0;
}

std::string to_hex(const uint8_t *p, size_t n)
{
    static const char kHex[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(2 * n);
    for (size_t i = 0; i < n; ++i) {
        s += kHex[p[i] >> 4];
        s += kHex[p[i] & 15];
    }
    return s;
}

std::string json_string(const std::string &text)
{
    std::string out = "\"";
    for (unsigned char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (c < 0x20) {
                char esc[8];
                std::snprintf(esc, sizeof esc, "\\u%04x", c);
                out += esc;
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    return out + "\"";
}

namespace {

Failure g_failure;

} // namespace

int usage_error(const char *command, const std::string &message)
{
    std::fprintf(stderr, "tandro %s: %s\n", command, message.c_str());
    g_failure = Failure{message, false, 0};
    return 2;
}

int fail(const char *command, const std::string &what, uint32_t status)
{
    const std::string text = ZEL_Status2String(status);
    g_failure = Failure{what.empty() ? text : what + ": " + text, true, status};
    std::fprintf(stderr, "tandro %s: %s\n", command, g_failure.message.c_str());
    return 1;
}

int fail_text(const char *command, const std::string &message, uint32_t status)
{
    g_failure = Failure{message, true, status};
    std::fprintf(stderr, "tandro %s: %s\n", command, message.c_str());
    return 1;
}

const Failure &last_failure()
{
    return g_failure;
}

void set_failure_partial(const std::string &json_value)
{
    g_failure.partial = json_value;
}

std::string failure_json(const Failure &failure)
{
    std::string out = "{\"error\": " + json_string(failure.message) + ", \"status\": ";
    if (!failure.has_status)
        out += "null, \"status_text\": null";
    else
        out += std::to_string(failure.status) + ", \"status_text\": " + json_string(ZEL_Status2String(failure.status));
    return out + (failure.partial.empty() ? "" : ", \"partial\": " + failure.partial) + "}";
}

} // namespace tandro
