// Small helpers of the tandro tool.
#ifndef TANDRO_TOOLS_CLI_H
#define TANDRO_TOOLS_CLI_H

#include <cstdint>
#include <string>

namespace tandro {

struct Options {
    bool json = false;
    bool debug = false;
};

// Decimal or 0x-prefixed hexadecimal.
bool parse_u32(const std::string &text, uint32_t *value);
// A JSON string literal, quotes included.
std::string json_string(const std::string &text);

} // namespace tandro

#endif
