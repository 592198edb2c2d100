// tandro ndef: the NDEF messages of the card in the field: read every record, append a URI, text or raw
// record, erase the last record or a whole message, lay out a blank card.
#include <algorithm>
#include <cctype>
#include <sys/stat.h>
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
#include "tools/options.h"
#include "tools/session.h"

namespace {

const char *kUsage =
    "[--uid HEX] read [--show-secrets] [--out FILE] | write (--uri URI | --text TEXT [--lang LANG] | --raw TNF TYPE "
    "HEX [--id ID]) [--message N] | write (--wifi SSID [--password PW] [--auth open|wpa|wpa-enterprise|"
    "wpa2-enterprise|wpa2] [--encryption none|wep|tkip|aes|aes-tkip] | --bt AA:BB:CC:DD:EE:FF | --vcard FILE | "
    "--sms NUMBER [--body TEXT] | --tel NUMBER | --mail ADDRESS [--subject S] [--body TEXT] | --geo LAT,LON | "
    "--aar PACKAGE) [--emulate [--ram]] | write --in FILE | erase [--all] [--message N] | format";

const tandro::OptionTable TABLE = {
    {
        {"read", "every message and record of the card, typed records decoded"},
        {"write", "appends a record (--uri, --text, --raw) to a message, or a typed record to message 1 or the "
                  "emulated tag, or writes a whole message from a file (--in)"},
        {"write --raw TNF TYPE HEX", "appends a record of that TNF (1 to 6), type and payload"},
        {"erase", "erases the last record of a message, or all of them with --all"},
        {"format", "lays out an empty NDEF area on the card"},
    },
    {
        {"--uid", "HEX", "the card with this UID, when several are in the field"},
        {"--show-secrets", nullptr, "read: shows a Wi-Fi record's password and payload"},
        {"--out", "FILE", "read: writes the raw bytes of message 1 to FILE instead"},
        {"--uri", "URI", "write: a URI record (the longest known prefix becomes its code)"},
        {"--text", "TEXT", "write: a text record"},
        {"--lang", "LANG", "write: the text's language (default en)"},
        {"--raw", "TNF", "write: a record of TNF 1 to 6; its type and payload follow as words"},
        {"--id", "ID", "write: the record's id"},
        {"--message", "N", "write, erase: the message number (default 1)"},
        {"--all", nullptr, "erase: every record of the message"},
        {"--wifi", "SSID", "write: a Wi-Fi credential record"},
        {"--password", "PW", "write: the Wi-Fi network key"},
        {"--auth", "TYPE", "write: open, wpa, wpa-enterprise, wpa2-enterprise or wpa2 (default)"},
        {"--encryption", "TYPE", "write: none, wep, tkip, aes (default; none with open) or aes-tkip"},
        {"--bt", "ADDRESS", "write: a Bluetooth pairing record for AA:BB:CC:DD:EE:FF"},
        {"--vcard", "FILE", "write: a contact record from the FN, ORG, ADR, TEL, EMAIL and URL of a vCard file"},
        {"--sms", "NUMBER", "write: an SMS record"},
        {"--body", "TEXT", "write: the message of --sms or --mail"},
        {"--subject", "TEXT", "write: the subject of --mail"},
        {"--tel", "NUMBER", "write: a phone number record"},
        {"--mail", "ADDRESS", "write: an e-mail record"},
        {"--geo", "LAT,LON", "write: a geo location record"},
        {"--aar", "PACKAGE", "write: an Android application record"},
        {"--emulate", nullptr, "write: the typed record goes to the reader's emulated tag, and emulation starts"},
        {"--ram", nullptr, "write: with --emulate, the RAM form for records up to 996 payload bytes"},
        {"--in", "FILE", "write: the raw NDEF message of FILE replaces message 1, if it fits the card"},
    },
    "Typed records (--wifi, --bt, --vcard, --sms, --tel, --mail, --geo, --aar) are appended to message 1 of "
    "the card, or with --emulate written to the emulated tag. --bt takes the address as people write it and "
    "stores it least significant byte first, as phones read it.\n\n"
    "read decodes the typed records; a Wi-Fi password is shown only with --show-secrets. write --in checks the "
    "message against the card's room before anything is written, then empties message 1 and appends the "
    "records one by one.",
};

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

// The library's report of a typed record, or empty for a record it does not decode. A URI of no known
// prefix comes with one byte more than its text, which is dropped here. A Wi-Fi password is masked unless
// secrets are shown.
std::string typed_report(const ReadRecord &rec, bool show_secrets, bool &secret)
{
    secret = false;
    if (rec.type.empty() || rec.payload.empty() || rec.type.size() > 255)
        return "";
    std::vector<uint8_t> p = rec.payload;
    if (rec.tnf == 1 && rec.type == "U" && uri_text(p).size() < p.size())
        p.back() = 0;
    const char *r = ParseNdefMessage(reinterpret_cast<const uint8_t *>(rec.type.data()),
                                     static_cast<uint8_t>(rec.type.size()), p.data(), static_cast<uint32_t>(p.size()));
    std::string out = r ? r : "";
    if (out == "MESSAGE NOT COMPATIBLE" || out == "MESSAGE NOT FOUND")
        return "";
    // Plain text and URIs are shown by their own lines already.
    if (out.rfind("Text: ", 0) == 0)
        return "";
    if (rec.type == "application/vnd.wfa.wsc") {
        secret = true;
        const size_t at = out.find("\nPassword: ");
        if (!show_secrets && at != std::string::npos)
            out = out.substr(0, at) + "\nPassword: (hidden: --show-secrets shows it)";
    }
    return out;
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

void print_listing(const Listing &l, bool json, bool show_secrets)
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
        bool secret = false;
        const std::string typed = typed_report(rec, show_secrets, secret);
        const std::string hex = secret && !show_secrets ? "" : tandro::to_hex(rec.payload.data(), rec.payload.size());
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
            if (!typed.empty())
                std::printf(", \"decoded\": %s", tandro::json_string(typed).c_str());
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
        else if (!hex.empty())
            std::printf("  data  %s\n", hex.c_str());
        if (!typed.empty()) {
            std::string indented = "  " + typed;
            for (size_t at = indented.find('\n'); at != std::string::npos; at = indented.find('\n', at + 3))
                indented.replace(at, 1, "\n  ");
            std::printf("%s\n", indented.c_str());
        }
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

int tandro::print_ndef(ZEL_HANDLE h, bool json, bool show_secrets)
{
    Listing l;
    const ZEL_STATUS st = card_is_desfire(h) ? list_desfire(h, l) : list_store(h, l);
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro ndef read: %s\n", ZEL_Status2String(st));
        return 1;
    }
    print_listing(l, json, show_secrets);
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

int run_write(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Parsed &p)
{
    uint8_t tnf = 1, message = 1;
    std::string type, id = p.value("--id"), lang = p.value("--lang", "en");
    std::vector<uint8_t> payload;
    const std::string text = p.value("--text");
    const bool is_text = p.has("--text");
    const bool have = p.has("--uri") || is_text || p.has("--raw");
    if (p.has("--uri") + is_text + p.has("--raw") > 1 || p.count("--uri") > 1 || p.count("--text") > 1 ||
        p.count("--raw") > 1)
        return tandro::usage_error("ndef", "write takes one record: --uri, --text or --raw");
    // --raw TNF takes the type and the payload as the two words behind "write".
    if (p.words.size() != (p.has("--raw") ? 3u : 1u))
        return tandro::usage_error("ndef", p.has("--raw") ? "--raw TNF takes TYPE and HEX behind write"
                                                          : "write takes no words but its options");
    if (p.has("--uri")) {
        type = "U";
        payload = uri_payload(p.value("--uri"));
    } else if (is_text) {
        type = "T";
    } else if (p.has("--raw")) {
        uint32_t t = 0;
        if (!tandro::parse_u32(p.value("--raw"), &t) || t < 1 || t > 6)
            return tandro::usage_error("ndef", "--raw takes a TNF from 1 to 6");
        tnf = static_cast<uint8_t>(t);
        type = p.word(1);
        if (!tandro::parse_hex(p.word(2), payload))
            return tandro::usage_error("ndef", "--raw takes the payload in hexadecimal");
    }
    if (p.has("--message")) {
        uint32_t m = 0;
        if (!tandro::parse_u32(p.value("--message"), &m) || m < 1 || m > 255)
            return tandro::usage_error("ndef", "--message takes a number from 1 to 255");
        message = static_cast<uint8_t>(m);
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

// ---- Typed records, raw messages from and to files ----

// A file's bytes, at most 64 KiB; a folder or an unreadable file is a usage error (the message in err).
bool read_small_file(const std::string &path, std::vector<uint8_t> &out, std::string &err)
{
    struct stat st {};
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        err = path + " is a folder, not a file";
        return false;
    }
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f) {
        err = "cannot read " + path;
        return false;
    }
    out.clear();
    uint8_t buf[4096];
    size_t n = 0;
    bool ok = true;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
        out.insert(out.end(), buf, buf + n);
        if (out.size() > (64u << 10)) {
            ok = false;
            break;
        }
    }
    const bool failed = std::ferror(f) != 0;
    std::fclose(f);
    if (failed) {
        err = "cannot read " + path;
        return false;
    }
    if (!ok) {
        err = path + " is over 64 KiB";
        return false;
    }
    return true;
}

// What `ndef write` was asked for when it writes a typed record or a raw message.
struct TypedWrite {
    std::string kind; // wifi, bt, vcard, sms, tel, mail, geo, aar, or in (a raw message)
    std::string value, password, body, subject, geo_lat, geo_lon, bt_text;
    bool have_password = false;
    uint8_t auth = 4, enc = 3;
    bool enc_given = false;
    std::string contact[6]; // name, company, address, phone, e-mail, web address
    bool emulate = false, ram = false;
    std::vector<uint8_t> raw;
};

bool is_typed(const tandro::Parsed &p)
{
    for (const char *o :
         {"--wifi", "--bt", "--vcard", "--sms", "--tel", "--mail", "--geo", "--aar", "--in", "--emulate"})
        if (p.has(o))
            return true;
    return false;
}

// The vCard of a file: FN (or else nothing), ORG, ADR (its parts joined), TEL, EMAIL and URL, the first of
// each. Lines may end in CR LF or LF; property parameters (";TYPE=...") are passed over.
bool vcard_fields(const std::vector<uint8_t> &file, std::string out[6], std::string &err)
{
    const std::string text(file.begin(), file.end());
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(at, end - at);
        at = end + 1;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        const size_t colon = line.find(':');
        if (colon == std::string::npos)
            continue;
        std::string name = line.substr(0, line.find_first_of(";:"));
        for (char &c : name)
            c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
        std::string value = line.substr(colon + 1);
        int slot = -1;
        if (name == "FN")
            slot = 0;
        else if (name == "ORG")
            slot = 1;
        else if (name == "ADR")
            slot = 2;
        else if (name == "TEL")
            slot = 3;
        else if (name == "EMAIL")
            slot = 4;
        else if (name == "URL")
            slot = 5;
        if (slot < 0 || !out[slot].empty())
            continue;
        if (slot == 2 || slot == 1) {
            std::string joined;
            size_t from = 0;
            while (from <= value.size()) {
                size_t semi = value.find(';', from);
                if (semi == std::string::npos)
                    semi = value.size();
                const std::string part = value.substr(from, semi - from);
                if (!part.empty())
                    joined += (joined.empty() ? "" : ", ") + part;
                from = semi + 1;
            }
            value = joined;
        }
        out[slot] = value;
    }
    static const char *const kNames[6] = {"FN", "ORG", "ADR", "TEL", "EMAIL", "URL"};
    if (out[0].empty()) {
        err = "--vcard: the vCard has no FN (name) line";
        return false;
    }
    for (int i = 0; i < 6; ++i)
        if (out[i].size() > 50) {
            err = std::string("--vcard: the ") + kNames[i] + " field is over 50 bytes";
            return false;
        }
    return true;
}

// Checks the options of a typed or raw write; 0 when they are good, else the exit code
// of the usage error.
int parse_typed(const tandro::Parsed &p, TypedWrite &w)
{
    const char *name = "ndef";
    auto limit = [&](const std::string &what, const std::string &v, size_t max) {
        return v.size() <= max ? 0
                               : tandro::usage_error(name, what + " takes at most " + std::to_string(max) + " bytes");
    };
    if (p.words.size() != 1)
        return tandro::usage_error(name, "write takes no words but its options");
    w.emulate = p.has("--emulate");
    w.ram = p.has("--ram");
    w.have_password = p.has("--password");
    w.password = p.value("--password");
    w.body = p.value("--body");
    w.subject = p.value("--subject");
    static const char *const kAuth[5] = {"open", "wpa", "wpa-enterprise", "wpa2-enterprise", "wpa2"};
    static const char *const kEnc[5] = {"none", "wep", "tkip", "aes", "aes-tkip"};
    for (const char *opt : {"--auth", "--encryption"}) {
        if (!p.has(opt))
            continue;
        const bool auth = std::string(opt) == "--auth";
        int found = -1;
        for (int k = 0; k < 5; ++k)
            if (p.value(opt) == (auth ? kAuth : kEnc)[k])
                found = k;
        if (found < 0)
            return tandro::usage_error(name, auth ? "--auth takes open, wpa, wpa-enterprise, wpa2-enterprise or wpa2"
                                                  : "--encryption takes none, wep, tkip, aes or aes-tkip");
        if (auth) {
            w.auth = static_cast<uint8_t>(found);
        } else {
            w.enc = static_cast<uint8_t>(found);
            w.enc_given = true;
        }
    }
    if (p.has("--message")) {
        uint32_t m = 0;
        if (!tandro::parse_u32(p.value("--message"), &m) || m != 1)
            return tandro::usage_error(name, "typed records go to message 1");
    }
    if (p.has("--uri") || p.has("--text") || p.has("--raw"))
        return tandro::usage_error(name, "write takes one record: a typed one or --uri, --text, --raw");
    size_t kinds = 0;
    for (const char *k : {"--wifi", "--bt", "--vcard", "--sms", "--tel", "--mail", "--geo", "--aar", "--in"}) {
        kinds += p.count(k);
        if (p.has(k)) {
            w.kind = k + 2;
            w.value = p.value(k);
        }
    }
    if (kinds != 1)
        return tandro::usage_error(name, "write takes one record: --wifi, --bt, --vcard, --sms, --tel, --mail, --geo, "
                                         "--aar, or a message with --in");
    if (w.ram && !w.emulate)
        return tandro::usage_error(name, "--ram goes with --emulate");
    int rc = 0;
    std::string err;
    if (w.kind == "wifi") {
        if (!w.have_password && w.auth != 0)
            return tandro::usage_error(name, "--wifi needs --password (or --auth open)");
        if (!w.enc_given)
            w.enc = w.auth == 0 ? 0 : 3;
        if ((rc = limit("--wifi", w.value, 100)) || (rc = limit("--password", w.password, 100)))
            return rc;
    } else if (w.kind == "bt") {
        std::vector<uint8_t> addr;
        if (!tandro::parse_hex(w.value, addr) || addr.size() != 6)
            return tandro::usage_error(name, "--bt takes a Bluetooth address of six bytes, as AA:BB:CC:DD:EE:FF");
        // Phones read the out-of-band address least significant byte first: the bytes go in reversed.
        std::reverse(addr.begin(), addr.end());
        w.bt_text = tandro::to_hex(addr.data(), addr.size());
    } else if (w.kind == "vcard") {
        std::vector<uint8_t> file;
        if (!read_small_file(w.value, file, err) || !vcard_fields(file, w.contact, err))
            return tandro::usage_error(name, err);
    } else if (w.kind == "sms") {
        if ((rc = limit("--sms", w.value, 50)) || (rc = limit("--body", w.body, 200)))
            return rc;
    } else if (w.kind == "tel") {
        if ((rc = limit("--tel", w.value, 50)))
            return rc;
    } else if (w.kind == "mail") {
        if ((rc = limit("--mail", w.value, 50)) || (rc = limit("--subject", w.subject, 50)) ||
            (rc = limit("--body", w.body, 200)))
            return rc;
    } else if (w.kind == "geo") {
        const size_t comma = w.value.find(',');
        if (comma == std::string::npos || comma == 0 || comma + 1 == w.value.size())
            return tandro::usage_error(name, "--geo takes LATITUDE,LONGITUDE");
        w.geo_lat = w.value.substr(0, comma);
        w.geo_lon = w.value.substr(comma + 1);
        if ((rc = limit("--geo's latitude", w.geo_lat, 100)) || (rc = limit("--geo's longitude", w.geo_lon, 100)))
            return rc;
    } else if (w.kind == "aar") {
        if ((rc = limit("--aar", w.value, 100)))
            return rc;
    } else if (w.kind == "in") {
        if (w.emulate)
            return tandro::usage_error(name, "--in writes a message to a card, not to the emulated tag");
        if (!read_small_file(w.value, w.raw, err))
            return tandro::usage_error(name, err);
        std::vector<zel::ndef::Record> recs;
        std::vector<uint32_t> at;
        if (w.raw.empty() || !message_records(w.raw, recs, at))
            return tandro::usage_error(name, "--in: " + w.value + " holds no well-formed NDEF message");
        for (const zel::ndef::Record &r : recs)
            if (r.tnf == 0 || r.tnf == 7 || (r.flags & 0x20))
                return tandro::usage_error(name, "--in: empty, unchanged or chunked records cannot be written");
    }
    if (w.kind != "mail" && !w.subject.empty())
        return tandro::usage_error(name, "--subject goes with --mail");
    if (w.kind != "mail" && w.kind != "sms" && !w.body.empty())
        return tandro::usage_error(name, "--body goes with --sms or --mail");
    if (w.kind != "wifi" && w.have_password)
        return tandro::usage_error(name, "--password goes with --wifi");
    return 0;
}

// The bytes message 1 may take on a card of the NDEF store: the data area less what stands before the
// message, its header and the terminator (Type 4: the NDEF file less its length).
ZEL_STATUS store_capacity(ZEL_HANDLE h, uint8_t type, uint32_t msg_len, uint32_t &cap)
{
    cap = 0;
    uint32_t size = 0;
    ZEL_STATUS st = zel::ndef::check_capability_container(h, type, size);
    if (st != ZEL_OK)
        return st;
    if (zel::ndef::is_t4(type)) {
        zel::ndef::t4_done(h);
        cap = size >= 2 ? size - 2 : 0;
        return ZEL_OK;
    }
    std::vector<uint8_t> img(ZEL_NDEF_IMAGE_LEN);
    uint32_t len = 0;
    if ((st = zel::ndef::read_card_data(h, type, img.data(), ZEL_NDEF_IMAGE_LEN, len, size)) != ZEL_OK)
        return st;
    zel::ndef::Tlv tlv;
    zel::ndef::Gap gap;
    if ((st = zel::ndef::find_message(img.data(), len, 1, type, tlv, gap)) != ZEL_OK)
        return st;
    const uint32_t used = tlv.offset + (msg_len < 0xFF ? 2 : 4) + 1 + (gap.present ? gap.len : 0);
    cap = len > used ? len - used : 0;
    return ZEL_OK;
}

// The raw bytes of message 1 of the card in the field.
ZEL_STATUS raw_message(ZEL_HANDLE h, std::vector<uint8_t> &msg)
{
    if (card_is_desfire(h))
        return desfire_message(h, msg);
    uint8_t type = 0;
    ZEL_STATUS st = GetOrbCardTypeM(h, &type);
    uint32_t size = 0, len = 0;
    if (st == ZEL_OK)
        st = zel::ndef::check_capability_container(h, type, size);
    std::vector<uint8_t> img(ZEL_NDEF_IMAGE_LEN);
    if (st == ZEL_OK)
        st = zel::ndef::read_card_data(h, type, img.data(), ZEL_NDEF_IMAGE_LEN, len, size);
    if (zel::ndef::is_t4(type))
        zel::ndef::t4_done(h);
    if (st != ZEL_OK)
        return st;
    zel::ndef::Tlv tlv;
    zel::ndef::Gap gap;
    if ((st = zel::ndef::find_message(img.data(), len, 1, type, tlv, gap)) != ZEL_OK)
        return st;
    msg = zel::ndef::data_view(img.data(), len, tlv.value(), gap);
    if (msg.size() < tlv.length)
        return ZEL_WRONG_NDEF_CARD_FORMAT;
    msg.resize(tlv.length);
    return ZEL_OK;
}

int run_read_out(ZEL_HANDLE h, const tandro::Options &opt, const std::string &path)
{
    std::vector<uint8_t> msg;
    const ZEL_STATUS st = raw_message(h, msg);
    if (st != ZEL_OK)
        return tandro::fail("ndef", "read", st);
    FILE *f = std::fopen(path.c_str(), "wb");
    const bool ok = f && std::fwrite(msg.data(), 1, msg.size(), f) == msg.size();
    if (f && std::fclose(f) != 0)
        return tandro::fail_text("ndef", "cannot write " + path, ZEL_WRITING_ERROR);
    if (!ok)
        return tandro::fail_text("ndef", "cannot write " + path, ZEL_WRITING_ERROR);
    if (opt.json)
        std::printf("{\"out\": %s, \"bytes\": %zu}\n", tandro::json_string(path).c_str(), msg.size());
    else
        std::printf("%zu message bytes written to %s\n", msg.size(), path.c_str());
    return 0;
}

// Writes the message of --in: its size is checked against the card first, then message 1 is emptied and the
// records are appended one by one.
ZEL_STATUS write_raw(ZEL_HANDLE h, const std::vector<uint8_t> &msg, uint32_t &cap)
{
    uint8_t type = 0;
    ZEL_STATUS st = GetOrbCardTypeM(h, &type);
    if (st != ZEL_OK)
        return st;
    if (card_is_desfire(h))
        return ZEL_NDEF_UNSUPPORTED_CARD_TYPE;
    if ((st = store_capacity(h, type, static_cast<uint32_t>(msg.size()), cap)) != ZEL_OK)
        return st;
    if (msg.size() > cap)
        return ZEL_MAX_SIZE_EXCEEDED;
    std::vector<zel::ndef::Record> recs;
    std::vector<uint32_t> at;
    message_records(msg, recs, at);
    if ((st = erase_all_ndef_recordsM(h, 1)) != ZEL_OK)
        return st;
    for (size_t i = 0; i < recs.size(); ++i) {
        const zel::ndef::Record &r = recs[i];
        std::vector<uint8_t> rec(msg.begin() + at[i], msg.begin() + at[i] + r.size);
        rec.push_back(0);
        uint8_t *p = rec.data() + r.header_len;
        uint8_t tnf = r.tnf, tl = r.type_len, il = r.id_len, formatted = 0;
        uint32_t pl = r.payload_len;
        if ((st = write_ndef_recordM(h, 1, &tnf, p, &tl, p + r.type_len, &il, p + r.type_len + r.id_len, &pl,
                                     &formatted)) != ZEL_OK)
            return st;
    }
    return ZEL_OK;
}

int run_typed_write(ZEL_HANDLE h, const tandro::Options &opt, const TypedWrite &w)
{
    const char *name = "ndef";
    if (w.kind == "in") {
        uint32_t cap = 0;
        const ZEL_STATUS st = write_raw(h, w.raw, cap);
        if (st == ZEL_MAX_SIZE_EXCEEDED)
            return tandro::fail_text(name,
                                     "the message (" + std::to_string(w.raw.size()) +
                                         " bytes) does not fit the card's " + std::to_string(cap) +
                                         " bytes; nothing was written",
                                     st);
        if (st != ZEL_OK)
            return tandro::fail(name, "write", st);
        if (opt.json)
            std::printf("{\"written\": true, \"message_bytes\": %zu, \"capacity\": %u}\n", w.raw.size(), cap);
        else
            std::printf("message of %zu bytes written to message 1 (the card takes %u)\n", w.raw.size(), cap);
        return 0;
    }
    const uint8_t storage = !w.emulate ? ZEL_NDEF_STORAGE_CARD
                            : w.ram    ? ZEL_NDEF_STORAGE_EMULATION_RAM
                                       : ZEL_NDEF_STORAGE_EMULATION;
    ZEL_STATUS st = ZEL_OK;
    const char *v = w.value.c_str();
    if (w.kind == "wifi")
        st = WriteNdefRecord_WiFiM(h, storage, v, w.auth, w.enc, w.password.c_str());
    else if (w.kind == "bt")
        st = WriteNdefRecord_BTM(h, storage, w.bt_text.c_str());
    else if (w.kind == "vcard")
        st = WriteNdefRecord_ContactM(h, storage, w.contact[0].c_str(), w.contact[1].c_str(), w.contact[2].c_str(),
                                      w.contact[3].c_str(), w.contact[4].c_str(), w.contact[5].c_str());
    else if (w.kind == "sms")
        st = WriteNdefRecord_SMSM(h, storage, v, w.body.c_str());
    else if (w.kind == "tel")
        st = WriteNdefRecord_PhoneM(h, storage, v);
    else if (w.kind == "mail")
        st = WriteNdefRecord_EmailM(h, storage, v, w.subject.c_str(), w.body.c_str());
    else if (w.kind == "geo")
        st = WriteNdefRecord_GeoLocationM(h, storage, w.geo_lat.c_str(), w.geo_lon.c_str());
    else if (w.kind == "aar")
        st = WriteNdefRecord_AndroidAppM(h, storage, v);
    if (st != ZEL_OK)
        return tandro::fail(name, "write", st);
    if (w.emulate) {
        st = w.ram ? TagEmulationStartRamHnd(h) : TagEmulationStartM(h);
        if (st != ZEL_OK)
            return tandro::fail(name, "emulation start", st);
    }
    const char *where = !w.emulate ? "card" : w.ram ? "emulation-ram" : "emulation";
    // The Bluetooth address as stored: least significant byte first.
    const std::string stored = w.kind == "bt" ? w.bt_text : "";
    if (opt.json) {
        std::printf("{\"written\": true, \"record\": \"%s\", \"storage\": \"%s\"", w.kind.c_str(), where);
        if (!stored.empty())
            std::printf(", \"stored_address\": \"%s\"", stored.c_str());
        std::printf("}\n");
    } else if (w.emulate) {
        std::printf("%s record written to the emulated tag%s; emulation started\n", w.kind.c_str(),
                    w.ram ? " (RAM form)" : "");
    } else {
        std::printf("%s record written to message 1\n", w.kind.c_str());
    }
    if (!stored.empty() && !opt.json)
        std::printf("address stored as %s (least significant byte first, as phones read it)\n", stored.c_str());
    return 0;
}

int run_ndef(const tandro::Options &opt, const tandro::Args &all_args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("ndef", TABLE, all_args, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    // --uid HEX: the card of that UID is selected among those in the field.
    std::vector<uint8_t> want_uid;
    if (parsed.has("--uid") && (!tandro::parse_hex(parsed.value("--uid"), want_uid) || want_uid.empty()))
        return tandro::usage_error("ndef", "--uid takes a UID in hexadecimal");
    if (args.empty())
        return tandro::usage_error("ndef", std::string("usage: tandro ndef ") + kUsage);
    const std::string &sub = args[0];
    if (sub != "read" && sub != "write" && sub != "erase" && sub != "format")
        return tandro::usage_error("ndef", "unknown subcommand \"" + sub + "\"");
    if (sub != "write" && args.size() > 1)
        return tandro::usage_error("ndef", sub + " takes no words but its options");
    bool all = parsed.has("--all");
    uint8_t message = 1;
    if (sub == "erase" && parsed.has("--message")) {
        uint32_t m = 0;
        if (!tandro::parse_u32(parsed.value("--message"), &m) || m < 1 || m > 255)
            return tandro::usage_error("ndef", "--message takes a number from 1 to 255");
        message = static_cast<uint8_t>(m);
    }
    const bool show_secrets = parsed.has("--show-secrets");
    const std::string out_file = sub == "read" ? parsed.value("--out") : "";
    if (struct stat st{}; !out_file.empty() && ::stat(out_file.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
        return tandro::usage_error("ndef", "--out: " + out_file + " is a folder, not a file");
    TypedWrite typed;
    const bool typed_write = sub == "write" && is_typed(parsed);
    if (typed_write)
        if (const int rc = parse_typed(parsed, typed))
            return rc;
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
        return out_file.empty() ? tandro::print_ndef(h, opt.json, show_secrets) : run_read_out(h, opt, out_file);
    if (typed_write)
        return run_typed_write(h, opt, typed);
    if (sub == "write")
        return run_write(h, opt, parsed);
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

const tandro::Registration ndef_cmd({"ndef", kUsage,
                                     "NDEF messages: read and decode every record, append plain or typed records "
                                     "(to a card or the emulated tag), raw messages from and to files, erase, format",
                                     run_ndef, false, &TABLE});

} // namespace
