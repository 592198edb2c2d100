// Helpers of the payment card tests.
#ifndef ZEL_TESTS_EMV_TEST_SUPPORT_H
#define ZEL_TESTS_EMV_TEST_SUPPORT_H

#include <cstdint>
#include <string>
#include <vector>

namespace emvtest {

// Bytes from hexadecimal text with spaces between groups.
inline std::vector<uint8_t> hex(const std::string &text)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i + 1 < text.size();) {
        if (text[i] == ' ') {
            ++i;
            continue;
        }
        out.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
        i += 2;
    }
    return out;
}

} // namespace emvtest

#endif
