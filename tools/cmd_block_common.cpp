#include "tools/cmd_block_common.h"

#include <cctype>
#include <cstdio>
#include <cstring>

namespace tandro {

const char *const KEY_OPTIONS_HELP =
    "key: --key HEX (6 or 16 bytes, default FFFFFFFFFFFF), --key-index N, --akm1, --akm2, --sam N;\n"
    "mode: key A by default, --key-b, --aes (AES keys), --t2t (mode 0x02)";

void print_dump(const uint8_t *p, size_t n, uint32_t base)
{
    for (size_t at = 0; at < n; at += 16) {
        std::printf("%04X ", static_cast<unsigned>(base + at));
        std::string text;
        for (size_t i = 0; i < 16; ++i) {
            if (at + i < n) {
                std::printf(" %02X", p[at + i]);
                text += p[at + i] >= 0x20 && p[at + i] < 0x7F ? static_cast<char>(p[at + i]) : '.';
            } else {
                std::printf("   ");
            }
        }
        std::printf("  |%s|\n", text.c_str());
    }
}

bool take_key_options(Args &args, KeyOptions &k, std::string &err)
{
    Args rest;
    bool aes = false, key_b = false, t2t = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        auto value = [&](std::string &out) {
            if (i + 1 >= args.size()) {
                err = a + " needs a value";
                return false;
            }
            out = args[++i];
            return true;
        };
        std::string v;
        uint32_t n = 0;
        if (a == "--key") {
            if (!value(v) || !parse_hex(v, k.key) || (k.key.size() != 6 && k.key.size() != 16)) {
                err = err.empty() ? "--key takes 6 or 16 bytes in hexadecimal" : err;
                return false;
            }
            k.form = KeyOptions::PROVIDED;
        } else if (a == "--key-index" || a == "--sam") {
            if (!value(v) || !parse_u32(v, &n) || n > 255) {
                err = err.empty() ? a + " takes a key index" : err;
                return false;
            }
            k.form = a == "--sam" ? KeyOptions::SAM : KeyOptions::READER;
            k.index = static_cast<uint8_t>(n);
        } else if (a == "--akm1") {
            k.form = KeyOptions::AKM1;
        } else if (a == "--akm2") {
            k.form = KeyOptions::AKM2;
        } else if (a == "--key-b") {
            key_b = true;
        } else if (a == "--aes") {
            aes = true;
        } else if (a == "--t2t") {
            t2t = true;
        } else {
            rest.push_back(a);
        }
    }
    k.auth_mode = t2t ? 0x02 : static_cast<uint8_t>((aes ? 0x80 : 0x60) + (key_b ? 1 : 0));
    if (k.form == KeyOptions::PROVIDED && aes && k.key.size() != 16) {
        err = "--aes takes a 16-byte --key";
        return false;
    }
    if (k.form == KeyOptions::PROVIDED && !aes && k.key.size() != 6) {
        err = "a 16-byte key goes with --aes";
        return false;
    }
    args = rest;
    return true;
}

#define TANDRO_KEY_CALL(Name, ...)                                                    \
    switch (k.form) {                                                                 \
    case KeyOptions::READER: return Name##M(h, __VA_ARGS__, k.auth_mode, k.index);    \
    case KeyOptions::AKM1: return Name##_AKM1M(h, __VA_ARGS__, k.auth_mode);          \
    case KeyOptions::AKM2: return Name##_AKM2M(h, __VA_ARGS__, k.auth_mode);          \
    case KeyOptions::SAM: return Name##SamKeyM(h, __VA_ARGS__, k.auth_mode, k.index); \
    case KeyOptions::PROVIDED: break;                                                 \
    }                                                                                 \
    return Name##_PKM(h, __VA_ARGS__, k.auth_mode, k.key.data())

ZEL_STATUS key_block_read(ZEL_HANDLE h, const KeyOptions &k, uint8_t *data, uint8_t block)
{
    TANDRO_KEY_CALL(BlockRead, data, block);
}
ZEL_STATUS key_block_in_sector_read(ZEL_HANDLE h, const KeyOptions &k, uint8_t *data, uint8_t sector, uint8_t block)
{
    TANDRO_KEY_CALL(BlockInSectorRead, data, sector, block);
}
ZEL_STATUS key_block_write(ZEL_HANDLE h, const KeyOptions &k, const uint8_t *data, uint8_t block)
{
    TANDRO_KEY_CALL(BlockWrite, data, block);
}
ZEL_STATUS key_linear_read(ZEL_HANDLE h, const KeyOptions &k, uint8_t *data, uint16_t addr, uint16_t len, uint16_t *got)
{
    TANDRO_KEY_CALL(LinearRead, data, addr, len, got);
}
ZEL_STATUS key_linear_write(ZEL_HANDLE h, const KeyOptions &k, const uint8_t *data, uint16_t addr, uint16_t len,
                            uint16_t *done)
{
    TANDRO_KEY_CALL(LinearWrite, data, addr, len, done);
}

int print_card_list(ZEL_HANDLE h, bool json)
{
    ZEL_STATUS st = EnableAntiCollisionM(h);
    uint8_t count = 0, size = 0;
    if (st == ZEL_OK)
        st = EnumCardsM(h, &count, &size);
    uint8_t list[256] = {};
    if (st == ZEL_OK)
        st = ListCardsM(h, list, size);
    if (st != ZEL_OK && st != ZEL_NO_CARD) {
        std::fprintf(stderr, "tandro cards: %s\n", ZEL_Status2String(st));
        return 1;
    }
    if (st == ZEL_NO_CARD)
        count = size = 0;
    // The reader's records: a length byte and the UID in ten bytes.
    const size_t rec = count ? size / count : 0;
    if (json)
        std::printf("{\"count\": %u, \"cards\": [", count);
    else
        std::printf("%u card%s in the field\n", count, count == 1 ? "" : "s");
    for (unsigned i = 0; i < count && rec >= 2; ++i) {
        const uint8_t *r = list + i * rec;
        const uint8_t n = r[0] < rec ? r[0] : static_cast<uint8_t>(rec - 1);
        const std::string uid = to_hex(r + 1, n);
        if (json)
            std::printf("%s{\"uid\": \"%s\"}", i ? ", " : "", uid.c_str());
        else
            std::printf("  %u  %s\n", i + 1, uid.c_str());
    }
    if (json)
        std::printf("]}\n");
    return 0;
}

int print_sector_dump(ZEL_HANDLE h, const KeyOptions &k, uint8_t sector, bool json)
{
    uint8_t type = 0;
    GetOrbCardTypeM(h, &type);
    const bool pages = type >= ORB_MIFARE_ULTRALIGHT && type <= ORB_NTAG_213_TT;
    const unsigned blocks = pages ? 1 : (sector < 32 ? 4 : 16);
    if (json)
        std::printf("{\"sector\": %u, \"blocks\": [", sector);
    ZEL_STATUS last = ZEL_OK;
    for (unsigned b = 0; b < blocks; ++b) {
        uint8_t d[16] = {};
        // A page card has no sectors: "sector" N is then the 16 bytes of pages 4N to 4N+3.
        const ZEL_STATUS st = pages ? key_block_read(h, k, d, static_cast<uint8_t>(sector * 4))
                                    : key_block_in_sector_read(h, k, d, sector, static_cast<uint8_t>(b));
        last = st != ZEL_OK ? st : last;
        if (json) {
            std::printf("%s{\"block\": %u, ", b ? ", " : "", b);
            if (st == ZEL_OK)
                std::printf("\"data\": \"%s\"}", to_hex(d, 16).c_str());
            else
                std::printf("\"error\": %s}", json_string(ZEL_Status2String(st)).c_str());
        } else if (st == ZEL_OK) {
            std::printf("%s %2u ", pages ? "page " : "block", pages ? sector * 4 : b);
            for (int i = 0; i < 16; ++i)
                std::printf(" %02X", d[i]);
            std::printf("\n");
        } else {
            std::printf("%s %2u  (%s)\n", pages ? "page " : "block", pages ? sector * 4 : b, ZEL_Status2String(st));
        }
    }
    if (json)
        std::printf("]}\n");
    return last == ZEL_OK ? 0 : 1;
}

} // namespace tandro
