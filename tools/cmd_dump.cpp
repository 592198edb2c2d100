// tandro dump and tandro restore: the whole memory of a memory card to an image file and back. Sector cards
// are read block by block with the keys of a key file; Type 2 tags and other linear memories through the
// linear calls.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/card_image.h"
#include "tools/card_pick.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/progress.h"
#include "tools/session.h"

namespace {

using Bytes = std::vector<uint8_t>;

const tandro::OptionTable DUMP_TABLE = {
    {
        {"FILE", "reads the whole card into the image FILE"},
    },
    {
        {"--keys", "KEYFILE", "the keys A and B of each sector (binary or text, below)"},
        {"--key-format", "FORMAT", "auto (the default), text or binary: how KEYFILE is read"},
        {"--key-type", "TYPE", "A, B or both (the default; A first): the keys tried"},
        {"--uid", "HEX", "the card with this UID, when several are in the field"},
        {"--show-keys", nullptr, "print the keys that opened each sector"},
    },
    "The image holds every block in order, block 0 and the sector trailers included; a trailer holds the keys "
    "that opened its sector in place of the zeros the card reads back for key A (and for key B when it is not "
    "readable). Bytes that could not be read are zeros in the image, and a summary names each sector that could "
    "not be read in full and why; the command then fails, after writing the image. A Type 2 tag (or another "
    "linear memory) is read whole through its raw space, keys not needed.\n\n"
    "Keys are not printed unless --show-keys is given.\n\n"
    "KEYFILE gives keys A and B of each sector. As binary: 12 bytes a sector, key A (6 bytes) then key B (6 "
    "bytes), sector 0 first. As text: one key of 12 hex digits a line (either case, blanks around it allowed), "
    "key A of sector 0, key B of sector 0, key A of sector 1 and so on; '#' starts a comment that runs to the "
    "end of the line and blank lines are skipped. A file is read as text when every byte in it is printable "
    "ASCII, a tab or a line end, else as binary (--key-format says which). It holds keys for 1 to 40 sectors; a "
    "sector past its end has no keys to try. Without --keys every sector is tried with FFFFFFFFFFFF as key A and "
    "key B.",
};

const tandro::OptionTable RESTORE_TABLE = {
    {
        {"FILE", "writes the image FILE back to the card"},
    },
    {
        {"--keys", "KEYFILE", "the keys A and B of each sector (as tandro dump takes them)"},
        {"--key-format", "FORMAT", "auto (the default), text or binary: how KEYFILE is read"},
        {"--key-type", "TYPE", "A, B or both (the default; A first): the keys tried"},
        {"--trailers", nullptr, "write the sector trailers too (keys and access bytes)"},
        {"--dry-run", nullptr, "say block by block what would be written, write nothing"},
        {"--uid", "HEX", "the card with this UID, when several are in the field"},
        {"--show-keys", nullptr, "show the keys of the trailers in the --dry-run list"},
    },
    "The image must be as large as the card's memory (as tandro dump writes it): any other size is refused "
    "before anything is written. Block 0, the maker's block, is never written. Sector trailers are written only "
    "with --trailers, each after the data blocks of its sector; a trailer whose access bytes are not valid would "
    "lock its sector for good, and any such trailer in the image refuses the whole restore before anything is "
    "written. Of a Type 2 tag (or another linear memory) the user memory is written, from page 4 to its end; "
    "the pages before it (UID, lock bytes, capability container) and the configuration pages after it are not.\n\n"
    "The keys come from KEYFILE as tandro dump reads it (tandro dump --help); without --keys every sector is "
    "tried with FFFFFFFFFFFF. Keys in the trailers of the --dry-run list are shown only with --show-keys.",
};

enum class Kind { NONE, SECTORS, LINEAR };

// How a card of this type is read whole: sector by sector, or through the linear calls.
Kind kind_of(uint8_t type)
{
    switch (type) {
    case ORB_MIFARE_MINI:
    case ORB_MIFARE_CLASSIC_1K:
    case ORB_MIFARE_CLASSIC_2K:
    case ORB_MIFARE_CLASSIC_4K:
    case ORB_MIFARE_PLUS_S_2K_SL1:
    case ORB_MIFARE_PLUS_X_2K_SL1:
    case ORB_MIFARE_PLUS_EV1_2K_SL1:
    case ORB_MIFARE_PLUS_S_4K_SL1:
    case ORB_MIFARE_PLUS_X_4K_SL1:
    case ORB_MIFARE_PLUS_EV1_4K_SL1:
    case ORB_MIFARE_PLUS_SE_SL1: return Kind::SECTORS;
    default: break;
    }
    // Type 2 tags and the other page memories the reader reads in the linear space.
    if ((type >= ORB_MIFARE_ULTRALIGHT && type <= ORB_NT3H_2211) || type == ORB_NTAG_210U || type == ORB_NTAG_213_TT)
        return Kind::LINEAR;
    return Kind::NONE;
}

// What both commands take: the key file, the key types, the card.
struct Common {
    std::string file;
    std::vector<tandro::SectorKeys> keys;
    bool keys_given = false;
    bool try_a = true, try_b = true;
    bool show_keys = false;
    Bytes uid;
};

// A regular file of at most max bytes. False with a message.
bool read_file(const std::string &path, size_t max, Bytes &out, std::string &err)
{
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) {
        err = path + ": " + std::strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        err = path + " is not a regular file";
        return false;
    }
    if (static_cast<uint64_t>(st.st_size) > max) {
        err = path + " holds " + std::to_string(st.st_size) + " bytes, more than " + std::to_string(max);
        return false;
    }
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        err = path + ": " + std::strerror(errno);
        return false;
    }
    out.clear();
    uint8_t buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && out.size() <= max)
        out.insert(out.end(), buf, buf + n);
    const bool bad = std::ferror(f) != 0;
    std::fclose(f);
    if (bad || out.size() > max) {
        err = "cannot read " + path;
        return false;
    }
    return true;
}

// The words and options both commands share; a usage error (2) or 0.
int take_common(const char *cmd, const tandro::Parsed &p, Common &c)
{
    if (p.words.size() != 1)
        return tandro::usage_error(cmd, std::string(p.words.empty() ? "names no image FILE" : "takes one image FILE") +
                                            " (tandro " + cmd + " --help)");
    c.file = p.words[0];
    c.show_keys = p.has("--show-keys");
    const std::string type = p.value("--key-type", "both");
    if (type == "A" || type == "a")
        c.try_b = false;
    else if (type == "B" || type == "b")
        c.try_a = false;
    else if (type != "both")
        return tandro::usage_error(cmd, "--key-type takes A, B or both");
    if (p.has("--uid") && (!tandro::parse_hex(p.value("--uid"), c.uid) || c.uid.empty() || c.uid.size() > 10))
        return tandro::usage_error(cmd, "--uid takes a UID in hexadecimal");
    tandro::KeyFileFormat format = tandro::KeyFileFormat::AUTO;
    const std::string fmt = p.value("--key-format", "auto");
    if (fmt == "text")
        format = tandro::KeyFileFormat::TEXT;
    else if (fmt == "binary")
        format = tandro::KeyFileFormat::BINARY;
    else if (fmt != "auto")
        return tandro::usage_error(cmd, "--key-format takes auto, text or binary");
    if (p.has("--key-format") && !p.has("--keys"))
        return tandro::usage_error(cmd, "--key-format goes with --keys");
    if (p.has("--keys")) {
        const std::string path = p.value("--keys");
        Bytes bytes;
        std::string err;
        // The text of 40 sectors with comments stays far below this.
        if (!read_file(path, 1u << 20, bytes, err))
            return tandro::usage_error(cmd, "--keys " + err);
        if (!tandro::parse_key_file(bytes.data(), bytes.size(), format, c.keys, err))
            return tandro::usage_error(cmd, "key file " + path + ": " + err);
        c.keys_given = true;
    }
    return 0;
}

// The candidates for a sector: (auth mode, key), A first.
struct Candidate {
    uint8_t mode;
    uint8_t key[6];
    char name;
    enum { UNTRIED, OPENS, REFUSED } state = UNTRIED;
};

std::vector<Candidate> candidates(const Common &c, unsigned sector)
{
    std::vector<Candidate> out;
    static const uint8_t kDefault[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const uint8_t *a = kDefault, *b = kDefault;
    if (c.keys_given) {
        if (sector >= c.keys.size())
            return out;
        a = c.keys[sector].a;
        b = c.keys[sector].b;
    }
    if (c.try_a) {
        Candidate k{ZEL_AUTH_KEY_A, {}, 'A'};
        std::memcpy(k.key, a, 6);
        out.push_back(k);
    }
    if (c.try_b) {
        Candidate k{ZEL_AUTH_KEY_B, {}, 'B'};
        std::memcpy(k.key, b, 6);
        out.push_back(k);
    }
    return out;
}

// A status that says the key or the access conditions refused, not that the card or the link failed.
bool refusal(ZEL_STATUS st)
{
    return st == ZEL_AUTH_ERROR || st == ZEL_READING_ERROR || st == ZEL_WRITING_ERROR;
}

// The card to work on: picked (by --uid or as the first memory card), typed and sized.
struct Card {
    uint8_t type = 0;
    Kind kind = Kind::NONE;
    uint32_t linear = 0, raw = 0;
    unsigned sectors = 0;
    std::string uid;
};

int find_card(const char *cmd, ZEL_HANDLE h, tandro::CardPick &pick, const Common &c, Card &card)
{
    ZEL_STATUS st =
        pick.pick(c.uid, [](const uint8_t *, uint8_t, uint8_t type) { return kind_of(type) != Kind::NONE; });
    if (st != ZEL_OK)
        return tandro::fail(cmd, c.uid.empty() ? "no memory card in the field" : "the card of --uid", st);
    card.uid = tandro::to_hex(pick.uid().data(), pick.uid().size());
    if ((st = GetOrbCardTypeM(h, &card.type)) != ZEL_OK)
        return tandro::fail(cmd, "card type", st);
    card.kind = kind_of(card.type);
    if (card.kind == Kind::NONE)
        return tandro::fail_text(cmd,
                                 std::string("the card is ") + ZEL_OrbCardType2String(card.type) +
                                     ", no memory card this command reads whole",
                                 ZEL_UNSUPPORTED_CARD_TYPE);
    if ((st = GetCardSizeM(h, &card.linear, &card.raw)) != ZEL_OK)
        return tandro::fail(cmd, "card size", st);
    if (card.raw == 0 || card.raw > 0xFFFF ||
        (card.kind == Kind::SECTORS && !tandro::sector_count(card.raw, card.sectors)))
        return tandro::fail_text(
            cmd, "the card reports " + std::to_string(card.raw) + " bytes of memory, no layout " + "this command knows",
            ZEL_UNSUPPORTED_CARD_TYPE);
    return 0;
}

bool write_image(const std::string &path, const Bytes &image, std::string &err)
{
    FILE *f = std::fopen(path.c_str(), "wb");
    if (!f) {
        err = path + ": " + std::strerror(errno);
        return false;
    }
    const bool ok = std::fwrite(image.data(), 1, image.size(), f) == image.size();
    if (std::fclose(f) != 0 || !ok) {
        err = "cannot write " + path;
        return false;
    }
    return true;
}

std::string block_list(const std::vector<unsigned> &blocks)
{
    std::string out;
    for (unsigned b : blocks)
        out += (out.empty() ? "" : ", ") + std::to_string(b);
    return out;
}

// ---- dump ----

struct SectorResult {
    unsigned sector = 0;
    std::vector<unsigned> unread; // blocks not read
    std::string why;
    std::string key_a, key_b; // the keys that opened the sector (hex), empty when none
};

// Reads one sector into the image; the keys that opened it go into its trailer.
ZEL_STATUS dump_sector(ZEL_HANDLE h, const Common &c, unsigned s, Bytes &image, SectorResult &r, tandro::Progress &bar,
                       uint64_t &done)
{
    r.sector = s;
    const unsigned first = tandro::sector_first_block(s), n = tandro::sector_blocks(s);
    std::vector<Candidate> keys = candidates(c, s);
    if (keys.empty()) {
        for (unsigned b = 0; b < n; ++b)
            r.unread.push_back(first + b);
        r.why = "the key file has no keys for this sector";
        done += n;
        bar.update(done);
        return ZEL_OK;
    }
    // Each key is tried on the trailer first: it opens the sector (even where the conditions refuse the read)
    // or the card refuses it.
    uint8_t trailer[16] = {};
    bool trailer_read = false;
    for (Candidate &k : keys) {
        uint8_t d[16];
        const ZEL_STATUS st =
            BlockInSectorRead_PKM(h, d, static_cast<uint8_t>(s), static_cast<uint8_t>(n - 1), k.mode, k.key);
        if (st == ZEL_AUTH_ERROR) {
            k.state = Candidate::REFUSED;
            continue;
        }
        if (!refusal(st) && st != ZEL_OK)
            return st;
        k.state = Candidate::OPENS;
        if (st == ZEL_OK && !trailer_read) {
            std::memcpy(trailer, d, 16);
            trailer_read = true;
        }
    }
    for (unsigned b = 0; b + 1 < n; ++b) {
        bool got = false;
        ZEL_STATUS last = ZEL_AUTH_ERROR;
        for (const Candidate &k : keys) {
            if (k.state != Candidate::OPENS)
                continue;
            uint8_t d[16];
            const ZEL_STATUS st =
                BlockInSectorRead_PKM(h, d, static_cast<uint8_t>(s), static_cast<uint8_t>(b), k.mode, k.key);
            if (st == ZEL_OK) {
                std::memcpy(&image[(first + b) * 16], d, 16);
                got = true;
                break;
            }
            if (!refusal(st))
                return st;
            last = st;
        }
        if (!got) {
            r.unread.push_back(first + b);
            if (r.why.empty())
                r.why = last == ZEL_AUTH_ERROR ? "" : "the access conditions let no key of the key file read";
        }
        bar.update(++done);
    }
    bool any = false;
    for (const Candidate &k : keys) {
        if (k.state != Candidate::OPENS)
            continue;
        any = true;
        // The keys that opened the sector stand in the trailer where the card reads back zeros.
        std::memcpy(trailer + (k.name == 'A' ? 0 : 10), k.key, 6);
        (k.name == 'A' ? r.key_a : r.key_b) = tandro::to_hex(k.key, 6);
    }
    if (trailer_read || any)
        std::memcpy(&image[(first + n - 1) * 16], trailer, 16);
    if (!trailer_read)
        r.unread.push_back(first + n - 1);
    if (!any) {
        const std::string from = c.keys_given ? "the key file" : "the default key FFFFFFFFFFFF";
        r.why = keys.size() == 1 ? std::string("key ") + keys[0].name + " of " + from + " does not open it"
                                 : "neither key A nor key B of " + from + " opens it";
    } else if (r.why.empty() && !r.unread.empty()) {
        r.why = "the access conditions let no key of the key file read";
    }
    bar.update(++done);
    return ZEL_OK;
}

std::string sector_json(const SectorResult &r)
{
    std::string out = "{\"sector\": " + std::to_string(r.sector) + ", \"blocks\": [";
    for (size_t i = 0; i < r.unread.size(); ++i)
        out += (i ? ", " : "") + std::to_string(r.unread[i]);
    return out + "], \"reason\": " + tandro::json_string(r.why) + "}";
}

int run_dump(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed p;
    if (!tandro::parse("dump", DUMP_TABLE, args, p))
        return 2;
    Common c;
    if (int e = take_common("dump", p, c))
        return e;
    tandro::ReaderSession session;
    if (!session.open("dump", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    Card card;
    if (int e = find_card("dump", h, pick, c, card))
        return e;
    Bytes image(card.raw, 0);
    std::vector<SectorResult> results;
    if (card.kind == Kind::LINEAR) {
        uint16_t got = 0;
        static const uint8_t kDefault[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
        tandro::LinkProgress bar(opt, h, "dump", card.raw);
        const ZEL_STATUS st =
            LinRowRead_PKM(h, image.data(), 0, static_cast<uint16_t>(card.raw), &got, ZEL_AUTH_KEY_A, kDefault);
        bar.done(st == ZEL_OK && got == card.raw);
        if (st != ZEL_OK)
            return tandro::fail("dump", "after " + std::to_string(got) + " bytes", st);
        if (got != card.raw)
            return tandro::fail_text("dump",
                                     "the card gave " + std::to_string(got) + " of its " + std::to_string(card.raw) +
                                         " bytes; no image written",
                                     ZEL_READING_ERROR);
    } else {
        tandro::Progress bar(opt, "dump", card.raw / 16, "blocks");
        uint64_t done = 0;
        for (unsigned s = 0; s < card.sectors; ++s) {
            SectorResult r;
            const ZEL_STATUS st = dump_sector(h, c, s, image, r, bar, done);
            if (st != ZEL_OK)
                return tandro::fail("dump", "sector " + std::to_string(s) + "; no image written", st);
            results.push_back(r);
        }
        bar.done(true);
    }
    std::string err;
    if (!write_image(c.file, image, err))
        return tandro::fail_text("dump", err, ZEL_FILE_SYSTEM_ERROR);

    std::vector<const SectorResult *> bad;
    for (const SectorResult &r : results)
        if (!r.unread.empty())
            bad.push_back(&r);
    const char *type_name = ZEL_OrbCardType2String(card.type);
    std::string json = "{\"file\": " + tandro::json_string(c.file) + ", \"uid\": \"" + card.uid +
                       "\", \"card\": " + tandro::json_string(type_name) + ", \"size\": " + std::to_string(card.raw);
    if (card.kind == Kind::SECTORS) {
        json += ", \"sectors\": " + std::to_string(card.sectors) +
                ", \"sectors_read\": " + std::to_string(card.sectors - bad.size()) + ", \"unreadable\": [";
        for (size_t i = 0; i < bad.size(); ++i)
            json += (i ? ", " : "") + sector_json(*bad[i]);
        json += "]";
        if (c.show_keys) {
            json += ", \"keys\": [";
            for (size_t i = 0; i < results.size(); ++i)
                json += (i ? ", " : "") + std::string("{\"sector\": ") + std::to_string(results[i].sector) +
                        ", \"key_a\": " + (results[i].key_a.empty() ? "null" : "\"" + results[i].key_a + "\"") +
                        ", \"key_b\": " + (results[i].key_b.empty() ? "null" : "\"" + results[i].key_b + "\"") + "}";
            json += "]";
        }
    }
    json += "}";
    if (opt.json) {
        if (bad.empty())
            std::printf("%s\n", json.c_str());
    } else {
        std::printf("%s %s: %u bytes written to %s\n", type_name, card.uid.c_str(), card.raw, c.file.c_str());
        if (card.kind == Kind::SECTORS)
            std::printf("%u of %u sectors read in full\n", card.sectors - static_cast<unsigned>(bad.size()),
                        card.sectors);
        for (const SectorResult *r : bad)
            std::printf("  sector %2u: %s (blocks %s; zeros in the image)\n", r->sector, r->why.c_str(),
                        block_list(r->unread).c_str());
        if (c.show_keys)
            for (const SectorResult &r : results)
                std::printf("  sector %2u: key A %s, key B %s\n", r.sector, r.key_a.empty() ? "-" : r.key_a.c_str(),
                            r.key_b.empty() ? "-" : r.key_b.c_str());
    }
    if (bad.empty())
        return 0;
    const int rc = tandro::fail_text("dump",
                                     std::to_string(bad.size()) + " sector" + (bad.size() == 1 ? "" : "s") +
                                         " could not be read in full; the image holds zeros there",
                                     ZEL_READING_ERROR);
    tandro::set_failure_partial(json);
    return rc;
}

// ---- restore ----

struct WriteResult {
    unsigned block;
    std::string why;
};

int run_restore(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed p;
    if (!tandro::parse("restore", RESTORE_TABLE, args, p))
        return 2;
    Common c;
    if (int e = take_common("restore", p, c))
        return e;
    const bool dry = p.has("--dry-run"), trailers = p.has("--trailers");
    Bytes image;
    std::string err;
    if (!read_file(c.file, 0xFFFF, image, err))
        return tandro::usage_error("restore", err);
    tandro::ReaderSession session;
    if (!session.open("restore", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    Card card;
    if (int e = find_card("restore", h, pick, c, card))
        return e;
    const char *type_name = ZEL_OrbCardType2String(card.type);
    if (image.size() != card.raw)
        return tandro::fail_text("restore",
                                 c.file + " holds " + std::to_string(image.size()) + " bytes, the card (" + type_name +
                                     ") " + std::to_string(card.raw) + "; nothing was written",
                                 ZEL_MAX_SIZE_EXCEEDED);
    std::vector<std::string> notes;
    std::vector<WriteResult> failed;
    std::string planned; // --dry-run under --json: the blocks that would be written
    unsigned written = 0;
    auto plan = [&](const char *unit, unsigned n, const uint8_t *d, size_t len, bool secret) {
        std::string hex = tandro::to_hex(d, len);
        if (secret && !c.show_keys) // key A and key B of a trailer
            hex = std::string(12, '*') + hex.substr(12, 8) + std::string(12, '*');
        if (opt.json)
            planned += std::string(planned.empty() ? "" : ", ") + "{\"" + unit + "\": " + std::to_string(n) +
                       ", \"data\": \"" + hex + "\"}";
        else
            std::printf("%s %u: would write %s%s\n", unit, n, hex.c_str(), secret ? " (trailer)" : "");
    };
    if (card.kind == Kind::LINEAR) {
        // The user memory: from page 4 for as many bytes as the linear space holds.
        const uint32_t from = 16, len = card.linear;
        if (from + len > card.raw)
            return tandro::fail_text("restore", "the card's user memory does not fit its memory", ZEL_PARAMETERS_ERROR);
        notes.push_back("pages 0 to 3 (UID, lock bytes, capability container) are not written");
        if (from + len < card.raw)
            notes.push_back("pages " + std::to_string((from + len) / 4) + " to " + std::to_string(card.raw / 4 - 1) +
                            " (configuration) are not written");
        if (!opt.json)
            for (const std::string &n : notes)
                std::printf("%s\n", n.c_str());
        if (dry) {
            for (uint32_t at = from; at < from + len; at += 4)
                plan("page", at / 4, &image[at], 4, false);
        } else {
            static const uint8_t kDefault[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
            uint16_t done = 0;
            tandro::LinkProgress bar(opt, h, "restore", len);
            const ZEL_STATUS st =
                LinearWrite_PKM(h, &image[from], 0, static_cast<uint16_t>(len), &done, ZEL_AUTH_KEY_A, kDefault);
            bar.done(st == ZEL_OK);
            if (st != ZEL_OK)
                return tandro::fail("restore", "after " + std::to_string(done) + " bytes", st);
            written = done / 4;
        }
    } else {
        // Every trailer to be written is checked before the first write.
        if (trailers) {
            std::string faults;
            for (unsigned s = 0; s < card.sectors; ++s) {
                const unsigned t = tandro::sector_first_block(s) + tandro::sector_blocks(s) - 1;
                const std::string why = tandro::trailer_fault(&image[t * 16]);
                if (!why.empty())
                    faults += (faults.empty() ? "" : "; ") + std::string("sector ") + std::to_string(s) + ": " + why;
            }
            if (!faults.empty())
                return tandro::fail_text("restore", "refused, nothing was written: " + faults,
                                         ZEL_WRONG_ACCESS_BITS_VALUES);
        }
        notes.push_back("block 0 (the maker's block) is never written");
        if (!trailers)
            notes.push_back("sector trailers are not written (--trailers writes them)");
        if (!opt.json)
            for (const std::string &n : notes)
                std::printf("%s\n", n.c_str());
        tandro::Progress bar(opt, "restore", dry ? 0 : card.raw / 16, "blocks");
        uint64_t done = 0;
        for (unsigned s = 0; s < card.sectors; ++s) {
            const unsigned first = tandro::sector_first_block(s), n = tandro::sector_blocks(s);
            std::vector<Candidate> keys = candidates(c, s);
            for (unsigned b = 0; b < n; ++b) {
                const unsigned block = first + b;
                const bool is_trailer = b + 1 == n;
                const uint8_t *d = &image[block * 16];
                bar.update(++done);
                if (block == 0 || (is_trailer && !trailers))
                    continue;
                if (dry) {
                    plan("block", block, d, 16, is_trailer);
                    continue;
                }
                if (keys.empty()) {
                    failed.push_back({block, "the key file has no keys for this sector"});
                    continue;
                }
                ZEL_STATUS last = ZEL_AUTH_ERROR;
                bool ok = false;
                for (Candidate &k : keys) {
                    if (k.state == Candidate::REFUSED)
                        continue;
                    const ZEL_STATUS st =
                        is_trailer ? SectorTrailerWriteUnsafe_PKM(h, 0, static_cast<uint8_t>(block), d, k.mode, k.key)
                                   : BlockInSectorWrite_PKM(h, d, static_cast<uint8_t>(s), static_cast<uint8_t>(b),
                                                            k.mode, k.key);
                    if (st == ZEL_OK) {
                        ok = true;
                        break;
                    }
                    if (!refusal(st))
                        return tandro::fail("restore",
                                            "block " + std::to_string(block) + ", after " + std::to_string(written) +
                                                " blocks written",
                                            st);
                    if (st == ZEL_AUTH_ERROR)
                        k.state = Candidate::REFUSED;
                    last = st;
                }
                if (ok)
                    ++written;
                else
                    failed.push_back({block, last == ZEL_AUTH_ERROR ? "no key of the key file opens the sector"
                                                                    : "the access conditions let no key write it"});
            }
        }
        bar.done(true);
    }
    std::string json = "{\"file\": " + tandro::json_string(c.file) + ", \"uid\": \"" + card.uid +
                       "\", \"card\": " + tandro::json_string(type_name) +
                       ", \"dry_run\": " + (dry ? "true" : "false") + ", \"written\": " + std::to_string(written) +
                       ", \"notes\": [";
    for (size_t i = 0; i < notes.size(); ++i)
        json += (i ? ", " : "") + tandro::json_string(notes[i]);
    json += "], \"failed\": [";
    for (size_t i = 0; i < failed.size(); ++i)
        json += (i ? ", " : "") + std::string("{\"block\": ") + std::to_string(failed[i].block) +
                ", \"reason\": " + tandro::json_string(failed[i].why) + "}";
    json += "]";
    if (dry)
        json += ", \"would_write\": [" + planned + "]";
    json += "}";
    if (opt.json) {
        if (failed.empty())
            std::printf("%s\n", json.c_str());
    } else if (dry) {
        std::printf("dry run: nothing was written\n");
    } else {
        std::printf("%s %s: %u %s written from %s\n", type_name, card.uid.c_str(), written,
                    card.kind == Kind::LINEAR ? "pages" : "blocks", c.file.c_str());
        for (const WriteResult &f : failed)
            std::printf("  block %3u: not written: %s\n", f.block, f.why.c_str());
    }
    if (failed.empty())
        return 0;
    const int rc = tandro::fail_text(
        "restore", std::to_string(failed.size()) + " block" + (failed.size() == 1 ? "" : "s") + " could not be written",
        ZEL_WRITING_ERROR);
    tandro::set_failure_partial(json);
    return rc;
}

const tandro::Registration dump_cmd({"dump", "FILE [--keys KEYFILE] [--key-type A|B|both] [--show-keys]",
                                     "reads a whole memory card into an image file, with a key file", run_dump, false,
                                     &DUMP_TABLE});
const tandro::Registration restore_cmd({"restore", "FILE [--keys KEYFILE] [--dry-run] [--trailers]",
                                        "writes a card image back: data blocks, trailers with --trailers", run_restore,
                                        false, &RESTORE_TABLE});

} // namespace
