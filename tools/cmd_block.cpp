// tandro read, tandro write and tandro value: blocks, sectors and the linear space of memory cards.
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/options.h"
#include "tools/progress.h"
#include "tools/session.h"

namespace {

using tandro::Args;
using tandro::KeyOptions;

const tandro::OptionTable READ_TABLE = {
    {
        {"BLOCK [COUNT]", "COUNT blocks (default 1) from BLOCK; on a Type 2 tag pages of 4 bytes"},
        {"--sector N", "the blocks of sector N (0 to 39); on a Type 2 tag pages 4N to 4N+3"},
        {"--linear ADDR LEN", "LEN bytes of the linear space (user data, trailers left out) from ADDR"},
        {"--rows ADDR LEN", "LEN bytes of the raw space (every block) from ADDR"},
    },
    tandro::with_key_options({
        {"--sector", "N", "read sector N"},
        {"--linear", "ADDR", "read the linear space from ADDR (LEN follows as a word)"},
        {"--rows", "ADDR", "read the raw space from ADDR (LEN follows as a word)"},
        {"--raw", nullptr, "the bytes themselves on standard output, not a hex dump"},
    }),
    "The hex dump numbers its lines by byte address. --rows takes the reader key (--key-index) or a given key "
    "only. Linear reads show a progress bar on a terminal.",
};

const tandro::OptionTable WRITE_TABLE = {
    {
        {"BLOCK DATA", "writes DATA (16 bytes, 4 on a page of a Type 2 tag) to BLOCK"},
        {"--linear ADDR DATA", "writes DATA to the linear space from ADDR"},
        {"--linear ADDR --in FILE", "writes the bytes of FILE to the linear space from ADDR"},
    },
    tandro::with_key_options({
        {"--linear", "ADDR", "write to the linear space from ADDR"},
        {"--in", "FILE", "the data from FILE (a regular file of at most 65535 bytes)"},
        {"--pad", nullptr, "fill a short block (or page) with zeros"},
    }),
    "DATA is hexadecimal. A linear write must fit the card's linear space, else nothing is written. A block "
    "write never reaches a sector trailer (tandro restore --trailers writes trailers). Linear writes show a "
    "progress bar on a terminal.",
};

const tandro::OptionTable VALUE_TABLE = {
    {
        {"read BLOCK", "the value of a value block and its address byte"},
        {"write BLOCK VALUE", "makes BLOCK a value block holding VALUE (signed 32 bits)"},
        {"inc BLOCK N", "adds N to the value"},
        {"dec BLOCK N", "takes N from the value"},
    },
    tandro::with_key_options({
        {"--address", "A", "the address byte of a value write (default the block number)"},
    }),
    "",
};

bool number(const std::string &s, uint32_t max, uint32_t &v)
{
    return tandro::parse_u32(s, &v) && v <= max;
}

// Bytes read, from byte address base; under --json with what and json_index naming where they start.
void print_bytes(const tandro::Options &opt, bool raw, const char *what, uint32_t json_index, uint32_t base,
                 const uint8_t *d, size_t n)
{
    if (raw) {
        std::fwrite(d, 1, n, stdout);
        return;
    }
    if (opt.json) {
        std::printf("{\"%s\": %u, \"length\": %zu, \"data\": \"%s\"}\n", what, json_index, n,
                    tandro::to_hex(d, n).c_str());
        return;
    }
    // Lines are numbered by byte address, blocks and pages included.
    tandro::print_dump(d, n, base);
}

int fail(const char *cmd, ZEL_STATUS st)
{
    return tandro::fail(cmd, "", st);
}

// Whether the card in the field is a Type 2 tag, whose blocks are pages of 4 bytes.
ZEL_STATUS page_card(ZEL_HANDLE h, bool &pages)
{
    uint8_t type = 0;
    const ZEL_STATUS st = GetOrbCardTypeM(h, &type);
    pages = st == ZEL_OK && type >= 0x01 && type <= 0x15;
    return st;
}

int run_read(const tandro::Options &opt, const tandro::Args &in)
{
    tandro::Parsed p;
    if (!tandro::parse("read", READ_TABLE, in, p))
        return 2;
    const Args &args = p.words;
    KeyOptions k;
    std::string err;
    if (!tandro::key_options(p, k, err))
        return tandro::usage_error("read", err);
    const bool raw = p.has("--raw");
    const bool has_sector = p.has("--sector"), has_linear = p.has("--linear"), has_rows = p.has("--rows");
    const std::string sector_text = p.value("--sector"), linear_text = p.value("--linear"),
                      rows_text = p.value("--rows");
    tandro::ReaderSession session;
    if (has_sector) {
        uint32_t s = 0;
        if (!args.empty() || !number(sector_text, 39, s))
            return tandro::usage_error("read", "--sector takes a sector number (0 to 39)");
        if (!session.open("read", opt))
            return 1;
        return tandro::print_sector_dump(session.hnd(), k, static_cast<uint8_t>(s), opt.json);
    }
    if (has_linear || has_rows) {
        uint32_t addr = 0, len = 0;
        if (args.size() != 1 || !number(has_linear ? linear_text : rows_text, 0xFFFF, addr) ||
            !number(args[0], 0xFFFF, len))
            return tandro::usage_error("read", "--linear ADDRESS LENGTH (or --rows ADDRESS LENGTH)");
        if (!session.open("read", opt))
            return 1;
        std::vector<uint8_t> d(len ? len : 1);
        uint16_t got = 0;
        ZEL_STATUS st;
        tandro::LinkProgress bar(opt, session.hnd(), "read", len);
        if (has_rows) {
            // The raw space: only the reader key and provided key forms exist for it here.
            st = k.form == KeyOptions::READER
                     ? LinRowReadM(session.hnd(), d.data(), static_cast<uint16_t>(addr), static_cast<uint16_t>(len),
                                   &got, k.auth_mode, k.index)
                     : LinRowRead_PKM(session.hnd(), d.data(), static_cast<uint16_t>(addr), static_cast<uint16_t>(len),
                                      &got, k.auth_mode, k.key.data());
        } else {
            st = tandro::key_linear_read(session.hnd(), k, d.data(), static_cast<uint16_t>(addr),
                                         static_cast<uint16_t>(len), &got);
        }
        bar.done(st == ZEL_OK);
        if (st != ZEL_OK)
            return fail("read", st);
        print_bytes(opt, raw, "address", addr, addr, d.data(), got);
        return 0;
    }
    uint32_t block = 0, count = 1;
    if (args.empty() || args.size() > 2 || !number(args[0], 255, block) ||
        (args.size() == 2 && !number(args[1], 256, count)))
        return tandro::usage_error("read", "BLOCK [COUNT], --sector N or --linear ADDRESS LENGTH");
    if (!session.open("read", opt))
        return 1;
    bool pages = false;
    if (const ZEL_STATUS st = page_card(session.hnd(), pages); st != ZEL_OK)
        return fail("read", st);
    // A read of a Type 2 tag gives four pages from the one asked: one read serves four pages.
    const uint32_t unit = pages ? 4 : 16, step = pages ? 4 : 1;
    std::vector<uint8_t> d;
    const uint32_t end = std::min(block + count, 256u);
    for (uint32_t b = block; b < end; b += step) {
        uint8_t one[16];
        const ZEL_STATUS st = tandro::key_block_read(session.hnd(), k, one, static_cast<uint8_t>(b));
        if (st != ZEL_OK)
            return fail("read", st);
        const uint32_t take = std::min(step, end - b);
        d.insert(d.end(), one, one + take * unit);
    }
    print_bytes(opt, raw, pages ? "page" : "block", block, block * unit, d.data(), d.size());
    return 0;
}

// The data of a write: hex text, or --in FILE.
bool write_data(const tandro::Parsed &p, Args &args, std::vector<uint8_t> &data, std::string &err)
{
    if (p.has("--in")) {
        const std::string file = p.value("--in");
        // A regular file of at most the largest linear space (64 KiB): anything else is refused whole.
        struct stat st {};
        if (stat(file.c_str(), &st) != 0) {
            err = file + ": " + std::strerror(errno);
            return false;
        }
        if (!S_ISREG(st.st_mode)) {
            err = file + " is not a regular file";
            return false;
        }
        if (st.st_size > 0xFFFF) {
            err = file + " holds " + std::to_string(st.st_size) + " bytes, more than a card's linear space can";
            return false;
        }
        FILE *f = std::fopen(file.c_str(), "rb");
        if (!f) {
            err = file + ": " + std::strerror(errno);
            return false;
        }
        uint8_t buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && data.size() <= 0xFFFF)
            data.insert(data.end(), buf, buf + n);
        const bool failed = std::ferror(f) != 0;
        std::fclose(f);
        if (failed || data.size() > 0xFFFF) {
            err = "cannot read " + file;
            return false;
        }
        return true;
    }
    if (args.empty() || !tandro::parse_hex(args.back(), data)) {
        err = "the data in hexadecimal, or --in FILE";
        return false;
    }
    args.pop_back();
    return true;
}

int run_write(const tandro::Options &opt, const tandro::Args &in)
{
    tandro::Parsed p;
    if (!tandro::parse("write", WRITE_TABLE, in, p))
        return 2;
    Args args = p.words;
    KeyOptions k;
    std::string err;
    if (!tandro::key_options(p, k, err))
        return tandro::usage_error("write", err);
    const bool has_linear = p.has("--linear");
    const std::string linear_text = p.value("--linear");
    const bool pad = p.has("--pad");
    std::vector<uint8_t> data;
    if (!write_data(p, args, data, err))
        return tandro::usage_error("write", err);
    tandro::ReaderSession session;
    if (has_linear) {
        uint32_t addr = 0;
        if (!args.empty() || !number(linear_text, 0xFFFF, addr) || data.size() > 0xFFFF)
            return tandro::usage_error("write", "--linear ADDRESS DATA");
        if (!session.open("write", opt))
            return 1;
        // The whole run must fit the card's linear space before anything is written.
        uint32_t linear = 0, raw = 0;
        if (const ZEL_STATUS st = GetCardSizeM(session.hnd(), &linear, &raw); st != ZEL_OK)
            return fail("write", st);
        if (addr + data.size() > linear)
            return tandro::fail_text("write",
                                     std::to_string(data.size()) + " bytes at " + std::to_string(addr) +
                                         " do not fit the card's linear space of " + std::to_string(linear) +
                                         " bytes; nothing was written",
                                     ZEL_MAX_SIZE_EXCEEDED);
        if (data.empty())
            return tandro::usage_error("write", "no data to write");
        uint16_t done = 0;
        tandro::LinkProgress bar(opt, session.hnd(), "write", data.size());
        const ZEL_STATUS st = tandro::key_linear_write(session.hnd(), k, data.data(), static_cast<uint16_t>(addr),
                                                       static_cast<uint16_t>(data.size()), &done);
        bar.done(st == ZEL_OK);
        if (st != ZEL_OK)
            return tandro::fail("write", "after " + std::to_string(done) + " bytes", st);
        if (opt.json)
            std::printf("{\"address\": %u, \"written\": %u}\n", addr, done);
        else
            std::printf("%u bytes written at linear address %u\n", done, addr);
        return 0;
    }
    uint32_t block = 0;
    if (args.size() != 1 || !number(args[0], 255, block) || data.size() > 16 || data.empty())
        return tandro::usage_error("write", "BLOCK DATA (16 bytes, a page of a Type 2 tag 4; fewer with --pad, "
                                            "filled with zeros) or --linear ADDRESS DATA");
    if (!session.open("write", opt))
        return 1;
    // A block of a memory card holds 16 bytes, a page of a Type 2 tag 4: other sizes only with --pad.
    bool pages = false;
    if (const ZEL_STATUS st = page_card(session.hnd(), pages); st != ZEL_OK)
        return fail("write", st);
    const size_t unit = pages ? 4 : 16;
    if (data.size() > unit || (data.size() < unit && !pad))
        return tandro::usage_error("write", std::string("a ") + (pages ? "page of this tag" : "block") + " takes " +
                                                std::to_string(unit) + " bytes, not " + std::to_string(data.size()) +
                                                (data.size() < unit ? " (--pad fills the rest with zeros)" : ""));
    data.resize(16, 0);
    const ZEL_STATUS st = tandro::key_block_write(session.hnd(), k, data.data(), static_cast<uint8_t>(block));
    if (st != ZEL_OK)
        return fail("write", st);
    if (opt.json)
        std::printf("{\"%s\": %u, \"written\": %zu}\n", pages ? "page" : "block", block, unit);
    else
        std::printf("%s %u written\n", pages ? "page" : "block", block);
    return 0;
}

#define TANDRO_VALUE_CALL(Name, ...)                                                  \
    switch (k.form) {                                                                 \
    case KeyOptions::READER: return Name##M(h, __VA_ARGS__, k.auth_mode, k.index);    \
    case KeyOptions::AKM1: return Name##_AKM1M(h, __VA_ARGS__, k.auth_mode);          \
    case KeyOptions::AKM2: return Name##_AKM2M(h, __VA_ARGS__, k.auth_mode);          \
    case KeyOptions::SAM: return Name##SamKeyM(h, __VA_ARGS__, k.auth_mode, k.index); \
    case KeyOptions::PROVIDED: break;                                                 \
    }                                                                                 \
    return Name##_PKM(h, __VA_ARGS__, k.auth_mode, k.key.data())

ZEL_STATUS value_read(ZEL_HANDLE h, const KeyOptions &k, int32_t *v, uint8_t *a, uint8_t b)
{
    TANDRO_VALUE_CALL(ValueBlockRead, v, a, b);
}
ZEL_STATUS value_write(ZEL_HANDLE h, const KeyOptions &k, int32_t v, uint8_t a, uint8_t b)
{
    TANDRO_VALUE_CALL(ValueBlockWrite, v, a, b);
}
ZEL_STATUS value_inc(ZEL_HANDLE h, const KeyOptions &k, int32_t v, uint8_t b)
{
    TANDRO_VALUE_CALL(ValueBlockIncrement, v, b);
}
ZEL_STATUS value_dec(ZEL_HANDLE h, const KeyOptions &k, int32_t v, uint8_t b)
{
    TANDRO_VALUE_CALL(ValueBlockDecrement, v, b);
}

bool signed_number(const std::string &s, int32_t &v)
{
    uint32_t u = 0;
    if (!s.empty() && s[0] == '-') {
        if (!tandro::parse_u32(s.substr(1), &u) || u > 0x80000000u)
            return false;
        v = static_cast<int32_t>(0u - u);
        return true;
    }
    if (!tandro::parse_u32(s, &u) || u > 0x7FFFFFFFu)
        return false;
    v = static_cast<int32_t>(u);
    return true;
}

int run_value(const tandro::Options &opt, const tandro::Args &in)
{
    tandro::Parsed p;
    if (!tandro::parse("value", VALUE_TABLE, in, p))
        return 2;
    const Args &args = p.words;
    KeyOptions k;
    std::string err;
    if (!tandro::key_options(p, k, err))
        return tandro::usage_error("value", err);
    const bool has_addr = p.has("--address");
    const std::string addr_text = p.value("--address");
    uint32_t block = 0, vaddr = 0;
    int32_t v = 0;
    if (args.size() < 2 || !number(args[1], 255, block))
        return tandro::usage_error("value", "read BLOCK | write BLOCK VALUE [--address A] | inc BLOCK N | dec BLOCK N");
    const std::string op = args[0];
    const bool needs_value = op == "write" || op == "inc" || op == "dec";
    if ((op != "read" && !needs_value) || args.size() != (needs_value ? 3u : 2u) ||
        (needs_value && !signed_number(args[2], v)) || (has_addr && !number(addr_text, 255, vaddr)))
        return tandro::usage_error("value", "read BLOCK | write BLOCK VALUE [--address A] | inc BLOCK N | dec BLOCK N");
    if (!has_addr)
        vaddr = block;
    tandro::ReaderSession session;
    if (!session.open("value", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    const uint8_t b = static_cast<uint8_t>(block);
    ZEL_STATUS st = ZEL_OK;
    if (op == "write")
        st = value_write(h, k, v, static_cast<uint8_t>(vaddr), b);
    else if (op == "inc")
        st = value_inc(h, k, v, b);
    else if (op == "dec")
        st = value_dec(h, k, v, b);
    if (st != ZEL_OK)
        return fail("value", st);
    int32_t now = 0;
    uint8_t a = 0;
    st = value_read(h, k, &now, &a, b);
    if (st != ZEL_OK && st != ZEL_VALUE_BLOCK_ADDR_INVALID)
        return fail("value", st);
    const bool addr_ok = st == ZEL_OK;
    if (opt.json) {
        std::printf("{\"block\": %u, \"value\": %d, \"address\": ", block, now);
        if (addr_ok)
            std::printf("%u}\n", a);
        else
            std::printf("null}\n");
    } else if (addr_ok) {
        std::printf("block %u: value %d, address %u\n", block, now, a);
    } else {
        std::printf("block %u: value %d, address bytes inconsistent\n", block, now);
    }
    return 0;
}

const tandro::Registration read_cmd({"read",
                                     "BLOCK [COUNT] | --sector N | --linear ADDR LEN | --rows ADDR LEN [KEY] [--raw]",
                                     "card memory as a hex dump (--raw: the bytes)", run_read, false, &READ_TABLE});
const tandro::Registration write_cmd({"write", "BLOCK DATA [--pad] | --linear ADDR DATA|--in FILE [KEY]",
                                      "a block (16 bytes) or a run of the linear space", run_write, false,
                                      &WRITE_TABLE});
const tandro::Registration value_cmd({"value", "read|write|inc|dec BLOCK [N] [--address A] [KEY]",
                                      "value blocks: read, set, increment, decrement", run_value, false, &VALUE_TABLE});

} // namespace
