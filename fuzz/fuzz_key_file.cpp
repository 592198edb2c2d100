// The key file reader of tandro dump and restore: any bytes, in each of its three ways of reading, give keys
// for 1 to 40 sectors or a message, never both; keys read as text come back the same from their binary form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/card_image.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using tandro::KeyFileFormat;
    for (KeyFileFormat format : {KeyFileFormat::AUTO, KeyFileFormat::TEXT, KeyFileFormat::BINARY}) {
        std::vector<tandro::SectorKeys> keys;
        std::string err;
        const bool ok = tandro::parse_key_file(data, size, format, keys, err);
        if (ok != err.empty() || ok == keys.empty() || keys.size() > tandro::kMaxKeySectors)
            std::abort();
        if (!ok)
            continue;
        std::vector<uint8_t> binary;
        for (const tandro::SectorKeys &k : keys) {
            binary.insert(binary.end(), k.a, k.a + 6);
            binary.insert(binary.end(), k.b, k.b + 6);
        }
        std::vector<tandro::SectorKeys> again;
        if (!tandro::parse_key_file(binary.data(), binary.size(), KeyFileFormat::BINARY, again, err) ||
            again.size() != keys.size() || std::memcmp(again.data(), keys.data(), keys.size() * sizeof keys[0]) != 0)
            std::abort();
    }
    return 0;
}
