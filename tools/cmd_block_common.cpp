#include "tools/cmd_block_common.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <iterator>

namespace tandro {

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

std::vector<Opt> with_key_options(std::vector<Opt> own)
{
    static const Opt keys[] = {
        {"--key", "HEX", "the card's key: 6 bytes, or 16 with --aes (default FFFFFFFFFFFF)"},
        {"--key-index", "N", "the reader's stored key N"},
        {"--akm1", nullptr, "the reader's first automatic key rule"},
        {"--akm2", nullptr, "the reader's second automatic key rule"},
        {"--sam", "N", "key entry N of the reader's SAM"},
        {"--key-b", nullptr, "authenticate with key B (key A by default)"},
        {"--aes", nullptr, "AES keys (16 bytes)"},
        {"--t2t", nullptr, "auth mode 0x02 (AES key A of a Type 2 tag)"},
    };
    own.insert(own.end(), std::begin(keys), std::end(keys));
    return own;
}

bool key_options(const Parsed &p, KeyOptions &k, std::string &err)
{
    const int forms = int(p.has("--key")) + int(p.has("--key-index")) + int(p.has("--akm1")) + int(p.has("--akm2")) +
                      int(p.has("--sam"));
    if (forms > 1) {
        err = "give one of --key, --key-index, --akm1, --akm2 and --sam";
        return false;
    }
    uint32_t n = 0;
    if (p.has("--key")) {
        if (!parse_hex(p.value("--key"), k.key) || (k.key.size() != 6 && k.key.size() != 16)) {
            err = "--key takes 6 or 16 bytes in hexadecimal";
            return false;
        }
        k.form = KeyOptions::PROVIDED;
    }
    for (const char *name : {"--key-index", "--sam"})
        if (p.has(name)) {
            if (!parse_u32(p.value(name), &n) || n > 255) {
                err = std::string(name) + " takes a key index";
                return false;
            }
            k.form = name[2] == 's' ? KeyOptions::SAM : KeyOptions::READER;
            k.index = static_cast<uint8_t>(n);
        }
    if (p.has("--akm1"))
        k.form = KeyOptions::AKM1;
    if (p.has("--akm2"))
        k.form = KeyOptions::AKM2;
    const bool aes = p.has("--aes"), key_b = p.has("--key-b"), t2t = p.has("--t2t");
    k.auth_mode = t2t ? 0x02 : static_cast<uint8_t>((aes ? 0x80 : 0x60) + (key_b ? 1 : 0));
    if (k.form == KeyOptions::PROVIDED && aes && k.key.size() != 16) {
        err = "--aes takes a 16-byte --key";
        return false;
    }
    if (k.form == KeyOptions::PROVIDED && !aes && k.key.size() != 6) {
        err = "a 16-byte key goes with --aes";
        return false;
    }
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
