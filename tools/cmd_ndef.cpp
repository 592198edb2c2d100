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
#include "tools/card_pick.h"
#include "tools/cmd_block_common.h"
#include "tools/ndef_print.h"
#include "tools/session.h"

namespace {

const char *kUsage = "[--uid HEX] read | write (--uri URI | --text TEXT [--lang LANG] | --raw TNF TYPE HEX [--id ID]) "
                     "[--message N] | erase [--all] [--message N] | format";

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

namespace {

// One record as shown: where it is, and what it holds.
struct Shown {
    unsigned message = 0, record = 0;
    ReadRecord rec;
};

struct Listing {
    unsigned messages = 0, records = 0, empty = 0;
    std::vector<Shown> shown;
};

void print_listing(const Listing &l, bool json)
{
    if (json)
        std::printf("{\"messages\": %u, \"empty_messages\": %u, \"records\": [", l.messages, l.empty);
    else
        std::printf("%u message(s), %u record(s), %u empty message(s)\n", l.messages, l.records, l.empty);
    bool first = true;
    for (const Shown &s : l.shown) {
        const ReadRecord &rec = s.rec;
        const bool uri = rec.tnf == 1 && rec.type == "U";
        std::string lang, text;
        const bool is_text = rec.tnf == 1 && rec.type == "T" && text_record(rec.payload, lang, text);
        const std::string hex = tandro::to_hex(rec.payload.data(), rec.payload.size());
        if (json) {
            std::printf(
                "%s{\"message\": %u, \"record\": %u, \"tnf\": %u, \"type\": %s, \"id\": %s, \"payload\": \"%s\"",
                first ? "" : ", ", s.message, s.record, rec.tnf, tandro::json_string(rec.type).c_str(),
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
        std::printf("message %u record %u: TNF %u, type \"%s\"", s.message, s.record, rec.tnf, rec.type.c_str());
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
    if (json)
        std::printf("]}\n");
}

// The messages of a card of the NDEF store's families.
ZEL_STATUS list_store(ZEL_HANDLE h, Listing &l)
{
    uint8_t messages = 0, records = 0, empty = 0, array[ZEL_NDEF_RECORD_ARRAY_LEN] = {};
    const ZEL_STATUS st = get_ndef_record_countM(h, &messages, &records, array, &empty);
    if (st != ZEL_OK)
        return st;
    l.messages = messages;
    l.records = records;
    l.empty = empty;
    std::vector<unsigned> from(messages + 2u, 0);
    for (unsigned m = messages; m >= 1; --m)
        from[m] = records_from(h, static_cast<uint8_t>(m), 255);
    for (unsigned m = 1; m <= messages; ++m) {
        const unsigned own = from[m] - from[m + 1];
        for (unsigned r = 1; r <= own; ++r) {
            Shown s{m, r, read_one(h, static_cast<uint8_t>(m), static_cast<uint8_t>(r))};
            if (s.rec.st == ZEL_OK)
                l.shown.push_back(std::move(s));
        }
    }
    return ZEL_OK;
}

bool is_desfire(uint8_t t)
{
    return (t >= 0x27 && t <= 0x2D) || (t >= 0x45 && t <= 0x47);
}

bool card_is_desfire(ZEL_HANDLE h)
{
    uint8_t t = 0;
    return GetOrbCardTypeM(h, &t) == ZEL_OK && is_desfire(t);
}

// The message of a DESFire card's NDEF application (without its length). A file whose length is 0 is read as
// an empty message: the ISO read refuses it, the card's own read tells it apart from a missing application.
ZEL_STATUS desfire_message(ZEL_HANDLE h, std::vector<uint8_t> &msg)
{
    msg.assign(ZEL_DESFIRE_NDEF_MAX_MESSAGE, 0);
    uint32_t len = 0;
    const ZEL_STATUS st = Zel_int_DesfireReadNDEFMessageHnd(h, msg.data(), &len);
    if (st == ZEL_OK) {
        msg.resize(len);
        return ZEL_OK;
    }
    uint8_t nlen[2] = {0xFF, 0xFF};
    uint16_t cs = 0, et = 0;
    const ZEL_STATUS rd = Zel_int_DesfireReadStdDataFile_no_authM(h, 1, 0, 2, 0, 2, 0, nlen, &cs, &et);
    msg.clear();
    return rd == ZEL_OK && cs == CARD_OPERATION_OK && nlen[0] == 0 && nlen[1] == 0 ? ZEL_OK : st;
}

// The records of a message held as bytes. False for a record chain that does not add up.
bool message_records(const std::vector<uint8_t> &msg, std::vector<zel::ndef::Record> &recs, std::vector<uint32_t> &at)
{
    return zel::ndef::walk_records(msg.data(), msg.size(), static_cast<uint32_t>(msg.size()), at, &recs);
}

ZEL_STATUS list_desfire(ZEL_HANDLE h, Listing &l)
{
    std::vector<uint8_t> msg;
    const ZEL_STATUS st = desfire_message(h, msg);
    if (st != ZEL_OK)
        return st;
    std::vector<zel::ndef::Record> recs;
    std::vector<uint32_t> at;
    if (!message_records(msg, recs, at))
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    l.messages = 1;
    l.empty = msg.empty() ? 1 : 0;
    l.records = static_cast<unsigned>(recs.size());
    for (size_t i = 0; i < recs.size(); ++i) {
        const zel::ndef::Record &r = recs[i];
        const uint8_t *p = msg.data() + at[i] + r.header_len;
        Shown s;
        s.message = 1;
        s.record = static_cast<unsigned>(i + 1);
        s.rec.tnf = r.tnf;
        s.rec.type.assign(reinterpret_cast<const char *>(p), r.type_len);
        s.rec.id.assign(reinterpret_cast<const char *>(p + r.type_len), r.id_len);
        const uint8_t *pl = p + r.type_len + r.id_len;
        // A URI comes as the store's reads give it: a known prefix written out; with another code the text
        // without the code, and the length still counting it.
        if (r.tnf == 1 && s.rec.type == "U" && r.payload_len) {
            const char *pre = zel::ndef::uri_prefix(pl[0]);
            if (pre)
                s.rec.payload.assign(pre, pre + std::strlen(pre));
            s.rec.payload.insert(s.rec.payload.end(), pl + 1, pl + r.payload_len);
            if (!pre)
                s.rec.payload.push_back(0);
        } else {
            s.rec.payload.assign(pl, pl + r.payload_len);
        }
        l.shown.push_back(std::move(s));
    }
    return ZEL_OK;
}

} // namespace

int tandro::print_ndef(ZEL_HANDLE h, bool json)
{
    Listing l;
    const ZEL_STATUS st = card_is_desfire(h) ? list_desfire(h, l) : list_store(h, l);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro ndef read: %s\n", ZEL_Status2String(st));
        return 1;
    }
    print_listing(l, json);
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

// The one message of a DESFire card's NDEF application, its records and where each header byte is.
ZEL_STATUS desfire_records(ZEL_HANDLE h, uint8_t message, std::vector<uint8_t> &msg,
                           std::vector<zel::ndef::Record> &recs, std::vector<uint32_t> &at)
{
    if (message != 1)
        return ZEL_NDEF_MESSAGE_NOT_FOUND;
    const ZEL_STATUS st = desfire_message(h, msg);
    if (st != ZEL_OK)
        return st;
    return message_records(msg, recs, at) ? ZEL_OK : ZEL_WRONG_NDEF_CARD_FORMAT;
}

// Appends a record to the message of a DESFire card's NDEF application, which holds one message: the
// records before it lose ME (the first keeps MB), the new one has ME (and MB in an empty message).
ZEL_STATUS desfire_append(ZEL_HANDLE h, uint8_t message, uint8_t tnf, const std::string &type, const std::string &id,
                          const std::vector<uint8_t> &payload)
{
    std::vector<uint8_t> msg;
    std::vector<zel::ndef::Record> recs;
    std::vector<uint32_t> at;
    if (ZEL_STATUS st = desfire_records(h, message, msg, recs, at); st != ZEL_OK)
        return st;
    for (size_t i = 0; i < at.size(); ++i)
        msg[at[i]] = static_cast<uint8_t>((msg[at[i]] & 0x3F) | (i == 0 ? 0x80 : 0));
    std::vector<uint8_t> rec;
    if (!zel::ndef::build_record(recs.empty() ? 0xC0 : 0x40, tnf, reinterpret_cast<const uint8_t *>(type.data()),
                                 static_cast<uint8_t>(type.size()), reinterpret_cast<const uint8_t *>(id.data()),
                                 static_cast<uint8_t>(id.size()), payload.data(), static_cast<uint32_t>(payload.size()),
                                 rec))
        return ZEL_PARAMETERS_ERROR;
    const size_t n = msg.size() + rec.size();
    if (n > 0xFFFF - 2)
        return ZEL_BUFFER_OVERFLOW;
    std::vector<uint8_t> out(2 + n);
    out[0] = static_cast<uint8_t>(n >> 8);
    out[1] = static_cast<uint8_t>(n);
    std::copy(msg.begin(), msg.end(), out.begin() + 2);
    std::copy(rec.begin(), rec.end(), out.begin() + 2 + static_cast<long>(msg.size()));
    return Zel_int_DesfireWriteNDEFMessageHnd(h, out.data(), static_cast<uint32_t>(out.size()));
}

// Erases the last record, or every record, of a DESFire card's NDEF message.
ZEL_STATUS desfire_erase(ZEL_HANDLE h, uint8_t message, bool all)
{
    std::vector<uint8_t> msg;
    std::vector<zel::ndef::Record> recs;
    std::vector<uint32_t> at;
    if (ZEL_STATUS st = desfire_records(h, message, msg, recs, at); st != ZEL_OK)
        return st;
    if (recs.empty())
        return all ? ZEL_OK : ZEL_NDEF_MESSAGE_NOT_FOUND;
    std::vector<uint8_t> out(2, 0);
    if (!all && recs.size() > 1) {
        out.insert(out.end(), msg.begin(), msg.begin() + at.back());
        out[2 + at[at.size() - 2]] |= 0x40;
        out[0] = static_cast<uint8_t>(at.back() >> 8);
        out[1] = static_cast<uint8_t>(at.back());
    }
    return Zel_int_DesfireWriteNDEFMessageHnd(h, out.data(), static_cast<uint32_t>(out.size()));
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
    if (card_is_desfire(h)) {
        const ZEL_STATUS st = desfire_append(h, message, tnf, type, id, payload);
        if (st != ZEL_OK) {
            std::fprintf(stderr, "tandro ndef write: %s\n", ZEL_Status2String(st));
            return 1;
        }
        if (opt.json)
            std::printf("{\"written\": true, \"formatted\": false, \"payload_bytes\": %zu}\n", payload.size());
        else
            std::printf("record written to message %u (%zu payload bytes)\n", message, payload.size());
        return 0;
    }
    std::vector<uint8_t> tb(type.begin(), type.end()), ib(id.begin(), id.end());
    tb.push_back(0);
    ib.push_back(0);
    payload.push_back(0);
    uint8_t tl = static_cast<uint8_t>(type.size()), il = static_cast<uint8_t>(id.size()), formatted = 0;
    uint32_t pl = static_cast<uint32_t>(payload.size() - 1);
    const ZEL_STATUS st =
        write_ndef_recordM(h, message, &tnf, tb.data(), &tl, ib.data(), &il, payload.data(), &pl, &formatted);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro ndef write: %s\n", ZEL_Status2String(st));
        return 1;
    }
    if (opt.json)
        std::printf("{\"written\": true, \"formatted\": %s, \"payload_bytes\": %u}\n", formatted ? "true" : "false",
                    pl);
    else
        std::printf("record written to message %u (%u payload bytes)%s\n", message, pl,
                    formatted ? "; the card was formatted first" : "");
    return 0;
}

int run_ndef(const tandro::Options &opt, const tandro::Args &all_args)
{
    // --uid HEX may stand anywhere: the card of that UID is selected among those in the field.
    tandro::Args args;
    std::vector<uint8_t> want_uid;
    for (size_t i = 0; i < all_args.size(); ++i) {
        if (all_args[i] == "--uid" && i + 1 < all_args.size()) {
            if (!tandro::parse_hex(all_args[++i], want_uid) || want_uid.empty())
                return tandro::usage_error("ndef", "--uid takes a UID in hexadecimal");
        } else {
            args.push_back(all_args[i]);
        }
    }
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
            else if (args[i] == "--message" && i + 1 < args.size() && tandro::parse_u32(args[++i], &m) && m >= 1 &&
                     m <= 255)
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
    ZEL_HANDLE h = session.hnd();
    tandro::CardPick pick(h);
    if (!want_uid.empty()) {
        const ZEL_STATUS st = pick.pick(want_uid, [](const uint8_t *, uint8_t, uint8_t) { return true; });
        if (st != ZEL_OK) {
            std::fprintf(stderr, "tandro ndef: no card with that UID: %s\n", ZEL_Status2String(st));
            return 1;
        }
    } else if (opt.sim && opt.sim_scenario.empty()) {
        // In the built-in default field the NTAG with the NDEF message answers.
        tandro::bring_forward(session.sim(), "ntag21");
    }
    if (sub == "read")
        return tandro::print_ndef(h, opt.json);
    if (sub == "write")
        return run_write(h, opt, args);
    const bool desfire = card_is_desfire(h);
    ZEL_STATUS st = ZEL_OK;
    if (sub == "format")
        st = desfire ? Zel_int_DesfireNDEFFormatHnd(h, 0, 0) : ndef_card_initializationM(h);
    else if (desfire)
        st = desfire_erase(h, message, all);
    else
        st = all ? erase_all_ndef_recordsM(h, message) : erase_last_ndef_recordM(h, message);
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
