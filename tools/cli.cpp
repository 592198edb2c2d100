#include "tools/cli.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

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

int usage_error(const char *command, const std::string &message)
{
    std::fprintf(stderr, "tandro %s: %s\n", command, message.c_str());
    return 2;
}

} // namespace tandro
