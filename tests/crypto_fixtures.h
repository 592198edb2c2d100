// Loading the crypto test fixtures (made by fixtures/make_crypto_fixtures.sh with the openssl command line).
#ifndef ZEL_TESTS_CRYPTO_FIXTURES_H
#define ZEL_TESTS_CRYPTO_FIXTURES_H

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace zeltest {

using Bytes = std::vector<uint8_t>;

inline std::string fixture_path(const std::string &name)
{
    return std::string(ZEL_FIXTURES_DIR) + "/crypto/" + name;
}

inline Bytes fixture(const std::string &name)
{
    std::ifstream in(fixture_path(name), std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline Bytes from_hex(const std::string &hex)
{
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return out;
}

inline std::string to_hex(const uint8_t *p, size_t n)
{
    static const char kHex[] = "0123456789ABCDEF";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        s += kHex[p[i] >> 4];
        s += kHex[p[i] & 15];
    }
    return s;
}

} // namespace zeltest

#endif
