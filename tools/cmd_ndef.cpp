// tandro ndef: the NDEF messages of the card in the field: read every record, append a URI, text or raw
// record, erase the last record or a whole message, lay out a blank card.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ndef/ndef_internal.h"
#include "tandro.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/ndef_print.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

const char *kUsage = "read | write (--uri URI | --text TEXT [--lang LANG] | --raw TNF TYPE HEX [--id ID]) "
                     "[--message N] | erase [--all] [--message N] | format";

// With the built-in default field, the NTAG that carries the NDEF message comes first for this session.
void bring_ndef_tag_forward(zsim *sim)
{
    char list[4096] = {};
    if (!sim || zsim_command(sim, "list", list, sizeof list) != 0)
        return;
    std::vector<std::string> ahead;
    for (const char *line = list; *line;) {
        const char *end = std::strchr(line, '\n');
        const std::string l(line, end ? static_cast<size_t>(end - line) : std::strlen(line));
        if (l.find(" ntag21") != std::string::npos) {
            for (const auto &uid : ahead) {
                char out[128];
                zsim_command(sim, ("remove " + uid).c_str(), out, sizeof out);
            }
            return;
        }
        ahead.push_back(l.substr(0, l.find(' ')));
        if (!end)
            break;
        line = end + 1;
    }
}

struct ReadRecord {
    ZEL_STATUS st = ZEL_OK;
    uint8_t tnf = 0;
    std::string type, id;
    std::vector<uint8_t> payload;
};

ReadRecord read_one(ZEL_HANDLE h, uint8_t m, uint8_t r)
{
    ReadRecord out;
    uint8_t type[256] = {}, id[256] = {}, tl = 0, il = 0;
    std::vector<uint8_t> payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK, 0);
    uint32_t pl = 0;
    out.st = read_ndef_recordM(h, m, r, &out.tnf, type, &tl, id, &il, payload.data(), &pl);
    if (out.st != ZEL_OK)
        return out;
    out.type.assign(reinterpret_cast<char *>(type), tl);
    out.id.assign(reinterpret_cast<char *>(id), il);
    payload.resize(pl < payload.size() ? pl : payload.size());
    out.payload = std::move(payload);
    return out;
}

// The records readable from message m on: record numbers run on into the messages behind it.
unsigned records_from(ZEL_HANDLE h, uint8_t m, unsigned limit)
{
    unsigned n = 0;
    while (n < limit && read_one(h, m, static_cast<uint8_t>(n + 1)).st == ZEL_OK)
        ++n;
    return n;
}

// A URI record comes back with its prefix written out; with an unknown prefix code the length still counts
// the code byte, so the last byte is not part of the text.
std::string uri_text(const std::vector<uint8_t> &p)
{
    std::string s(p.begin(), p.end());
    for (uint8_t code = 1; code <= 35; ++code) {
        const char *pre = zel::ndef::uri_prefix(code);
        if (pre && s.compare(0, std::strlen(pre), pre) == 0)
            return s;
    }
    return s.empty() ? s : s.substr(0, s.size() - 1);
}

bool text_record(const std::vector<uint8_t> &p, std::string &lang, std::string &text)
{
    if (p.empty())
        return false;
    const size_t ll = p[0] & 0x3F;
    if (1 + ll > p.size())
        return false;
    lang.assign(p.begin() + 1, p.begin() + 1 + static_cast<long>(ll));
    text.assign(p.begin() + 1 + static_cast<long>(ll), p.end());
    return true;
}

} // namespace

int tandro::print_ndef(ZEL_HANDLE h, bool json)
{
    uint8_t messages = 0, records = 0, empty = 0, array[ZEL_NDEF_RECORD_ARRAY_LEN] = {};
    const ZEL_STATUS st = get_ndef_record_countM(h, &messages, &records, array, &empty);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro ndef read: %s\n", ZEL_Status2String(st));
        return 1;
    }
    std::vector<unsigned> from(messages + 2u, 0);
    for (unsigned m = messages; m >= 1; --m)
        from[m] = records_from(h, static_cast<uint8_t>(m), 255);
    if (json)
        std::printf("{\"messages\": %u, \"empty_messages\": %u, \"records\": [", messages, empty);
    else
        std::printf("%u message(s), %u record(s), %u empty message(s)\n", messages, records, empty);
    bool first = true;
    for (unsigned m = 1; m <= messages; ++m) {
        const unsigned own = from[m] - from[m + 1];
        for (unsigned r = 1; r <= own; ++r) {
            const ReadRecord rec = read_one(h, static_cast<uint8_t>(m), static_cast<uint8_t>(r));
            if (rec.st != ZEL_OK)
                continue;
            const bool uri = rec.tnf == 1 && rec.type == "U";
            std::string lang, text;
            const bool is_text = rec.tnf == 1 && rec.type == "T" && text_record(rec.payload, lang, text);
            const std::string hex = tandro::to_hex(rec.payload.data(), rec.payload.size());
            if (json) {
                std::printf("%s{\"message\": %u, \"record\": %u, \"tnf\": %u, \"type\": %s, \"id\": %s, \"payload\": \"%s\"",
                            first ? "" : ", ", m, r, rec.tnf, tandro::json_string(rec.type).c_str(),
                            tandro::json_string(rec.id).c_str(), hex.c_str());
                if (uri)
                    std::printf(", \"uri\": %s", tandro::json_string(uri_text(rec.payload)).c_str());
                if (is_text)
                    std::printf(", \"lang\": %s, \"text\": %s", tandro::json_string(lang).c_str(),
                                tandro::json_string(text).c_str());
                std::printf("}");
                first = false;
                continue;
            }
            std::printf("message %u record %u: TNF %u, type \"%s\"", m, r, rec.tnf, rec.type.c_str());
            if (!rec.id.empty())
                std::printf(", id \"%s\"", rec.id.c_str());
            std::printf(", %zu payload bytes\n", rec.payload.size());
            if (uri)
                std::printf("  uri   %s\n", uri_text(rec.payload).c_str());
            else if (is_text)
                std::printf("  text  [%s] %s\n", lang.c_str(), text.c_str());
            else
                std::printf("  data  %s\n", hex.c_str());
        }
    }
    if (json)
        std::printf("]}\n");
    return 0;
}

namespace {

// The URI payload: the longest known prefix as its code, then the rest.
std::vector<uint8_t> uri_payload(const std::string &uri)
{
    uint8_t best = 0;
    size_t best_len = 0;
    for (uint8_t code = 1; code <= 35; ++code) {
        const char *pre = zel::ndef::uri_prefix(code);
        const size_t n = pre ? std::strlen(pre) : 0;
        if (n > best_len && uri.compare(0, n, pre) == 0) {
            best = code;
            best_len = n;
        }
    }
    std::vector<uint8_t> p(1 + uri.size() - best_len);
    p[0] = best;
    std::copy(uri.begin() + static_cast<long>(best_len), uri.end(), p.begin() + 1);
    return p;
}

int run_write(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Args &args)
{
    uint8_t tnf = 1, message = 1;
    std::string type, id, lang = "en";
    std::vector<uint8_t> payload;
    bool have = false;
    std::string text;
    bool is_text = false;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--uri" && i + 1 < args.size()) {
            type = "U";
            payload = uri_payload(args[++i]);
            have = true;
        } else if (a == "--text" && i + 1 < args.size()) {
            type = "T";
            text = args[++i];
            is_text = have = true;
        } else if (a == "--lang" && i + 1 < args.size()) {
            lang = args[++i];
        } else if (a == "--raw" && i + 3 < args.size()) {
            uint32_t t = 0;
            if (!tandro::parse_u32(args[i + 1], &t) || t < 1 || t > 6)
                return tandro::usage_error("ndef", "--raw takes a TNF from 1 to 6");
            tnf = static_cast<uint8_t>(t);
            type = args[i + 2];
            if (!tandro::parse_hex(args[i + 3], payload))
                return tandro::usage_error("ndef", "--raw takes the payload in hexadecimal");
            i += 3;
            have = true;
        } else if (a == "--id" && i + 1 < args.size()) {
            id = args[++i];
        } else if (a == "--message" && i + 1 < args.size()) {
            uint32_t m = 0;
            if (!tandro::parse_u32(args[++i], &m) || m < 1 || m > 255)
                return tandro::usage_error("ndef", "--message takes a number from 1 to 255");
            message = static_cast<uint8_t>(m);
        } else {
            return tandro::usage_error("ndef", "unknown write argument \"" + a + "\"");
        }
    }
    if (!have)
        return tandro::usage_error("ndef", "write needs --uri, --text or --raw");
    if (is_text) {
        if (lang.size() > 63)
            return tandro::usage_error("ndef", "--lang takes at most 63 characters");
        payload.assign(1, static_cast<uint8_t>(lang.size()));
        payload.insert(payload.end(), lang.begin(), lang.end());
        payload.insert(payload.end(), text.begin(), text.end());
    }
    if (type.size() > 255 || id.size() > 255)
        return tandro::usage_error("ndef", "type and id take at most 255 bytes");
    std::vector<uint8_t> tb(type.begin(), type.end()), ib(id.begin(), id.end());
    tb.push_back(0);
    ib.push_back(0);
    payload.push_back(0);
    uint8_t tl = static_cast<uint8_t>(type.size()), il = static_cast<uint8_t>(id.size()), formatted = 0;
    uint32_t pl = static_cast<uint32_t>(payload.size() - 1);
    const ZEL_STATUS st = write_ndef_recordM(h, message, &tnf, tb.data(), &tl, ib.data(), &il, payload.data(), &pl,
                                             &formatted);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro ndef write: %s\n", ZEL_Status2String(st));
        return 1;
    }
    if (opt.json)
        std::printf("{\"written\": true, \"formatted\": %s, \"payload_bytes\": %u}\n", formatted ? "true" : "false", pl);
    else
        std::printf("record written to message %u (%u payload bytes)%s\n", message, pl,
                    formatted ? "; the card was formatted first" : "");
    return 0;
}

int run_ndef(const tandro::Options &opt, const tandro::Args &args)
{
    if (args.empty())
        return tandro::usage_error("ndef", std::string("usage: tandro ndef ") + kUsage);
    const std::string &sub = args[0];
    if (sub != "read" && sub != "write" && sub != "erase" && sub != "format")
        return tandro::usage_error("ndef", "unknown subcommand \"" + sub + "\"");
    bool all = false;
    uint8_t message = 1;
    if (sub == "erase") {
        for (size_t i = 1; i < args.size(); ++i) {
            uint32_t m = 0;
            if (args[i] == "--all")
                all = true;
            else if (args[i] == "--message" && i + 1 < args.size() && tandro::parse_u32(args[++i], &m) && m >= 1 && m <= 255)
                message = static_cast<uint8_t>(m);
            else
                return tandro::usage_error("ndef", "erase takes [--all] [--message N]");
        }
    } else if ((sub == "read" || sub == "format") && args.size() > 1) {
        return tandro::usage_error("ndef", sub + " takes no arguments");
    }
    tandro::ReaderSession session;
    if (!session.open("ndef", opt))
        return 1;
    if (opt.sim && opt.sim_scenario.empty())
        bring_ndef_tag_forward(session.sim());
    ZEL_HANDLE h = session.hnd();
    if (sub == "read")
        return tandro::print_ndef(h, opt.json);
    if (sub == "write")
        return run_write(h, opt, args);
    const ZEL_STATUS st = sub == "format" ? ndef_card_initializationM(h)
                                          : (all ? erase_all_ndef_recordsM(h, message) : erase_last_ndef_recordM(h, message));
    if (opt.json)
        std::printf("{\"%s\": %s, \"status\": %s}\n", sub.c_str(), st == ZEL_OK ? "true" : "false",
                    tandro::json_string(ZEL_Status2String(st)).c_str());
    else
        std::printf("%s: %s\n", sub.c_str(), ZEL_Status2String(st));
    return st == ZEL_OK ? 0 : 1;
}

const tandro::Registration ndef_cmd({"ndef", kUsage, "NDEF messages: read every record, append, erase, format",
                                     run_ndef});

} // namespace
