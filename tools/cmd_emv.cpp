// tandro emv: a contactless payment card's application, account number (masked to its last four digits
// unless --show-pan), expiry and last transaction; tandro emv tree: every answer of the card as a parsed
// tree with the tag descriptions.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

const char *USAGE = "[tree] [--show-pan] [--df NAME]";

struct Args {
    bool tree = false;
    bool show_pan = false;
    std::string df = "2PAY.SYS.DDF01";
};

// The card's answers in the order the dialogue asked them, each parsed.
struct Walk {
    std::vector<std::string> steps;
    std::vector<emv_tree_node_t *> parts;
    ~Walk()
    {
        for (auto *p : parts)
            emvTreeCleanup(p);
    }
    emv_tree_node_t *add(const std::string &step, const uint8_t *data, uint32_t n)
    {
        emv_tree_node_t *t = nullptr;
        if (n == 0 || newEmvTag(&t, data, static_cast<int32_t>(n), 0) != ZEL_OK)
            return nullptr;
        steps.push_back(step);
        parts.push_back(t);
        return t;
    }
    std::string value(uint32_t tag) const
    {
        for (auto *p : parts) {
            const uint8_t *v = nullptr;
            uint32_t n = 0;
            if (findEMVTagValue(p, tag, &v, &n) == ZEL_OK && v)
                return std::string(reinterpret_cast<const char *>(v), n);
        }
        return std::string();
    }
};

// One command with Le 256 on the global reader; true for a 90 00 answer.
bool send(uint8_t cla, uint8_t ins, uint8_t p1, uint8_t p2, const uint8_t *data, uint32_t nc, uint8_t *out, uint32_t &n)
{
    uint16_t sw = 0;
    n = 256;
    return APDUTransceive(cla, ins, p1, p2, data, nc, out, &n, 1, &sw) == ZEL_OK && (sw & 0xFF) == 0x90;
}

std::string hexs(const uint8_t *p, size_t n)
{
    return tandro::to_hex(p, n);
}

// The same dialogue as the library's calls, keeping every answer; the AFL in either format.
ZEL_STATUS walk_card(const std::string &df, Walk &w)
{
    uint8_t r[256];
    uint32_t n = 0;
    if (!send(0x00, 0xA4, 0x04, 0x00, reinterpret_cast<const uint8_t *>(df.data()), uint32_t(df.size()), r, n))
        return ZEL_APDU_TRANSCEIVE_ERROR;
    const emv_tree_node_t *dir = w.add("SELECT " + df, r, n);
    if (!dir)
        return EMV_ERR_WRONG_INPUT_DATA;
    uint8_t sfi = 0, sw[2];
    if (getSfi(dir, &sfi) == ZEL_OK) {
        for (uint32_t rec = 1; rec <= EMV_MAX_RECORDS; ++rec) {
            if (emvReadRecord(r, &n, sfi & 0x1F, rec, sw) != ZEL_OK ||
                !w.add("READ RECORD " + std::to_string(sfi & 0x1F) + "/" + std::to_string(rec), r, n))
                break;
        }
    }
    uint8_t aid[EMV_AID_MAX];
    uint8_t aid_len = 0;
    bool found = false;
    for (auto *p : w.parts)
        if (!found && getAid(p, aid, &aid_len) == ZEL_OK)
            found = true;
    if (!found)
        return EMV_ERR_AID_NOT_FOUND;
    if (!send(0x00, 0xA4, 0x04, 0x00, aid, aid_len, r, n))
        return ZEL_APDU_TRANSCEIVE_ERROR;
    const emv_tree_node_t *fci = w.add("SELECT " + hexs(aid, aid_len), r, n);
    if (!fci)
        return EMV_ERR_WRONG_INPUT_DATA;
    uint8_t *gpo = nullptr;
    uint16_t gpo_len = 0;
    ZEL_STATUS st = formatGetProcessingOptionsDataField(fci, &gpo, &gpo_len);
    if (st != ZEL_OK)
        return st;
    const bool gpo_ok = send(0x80, 0xA8, 0x00, 0x00, gpo, gpo_len, r, n);
    OrbFree(gpo);
    const emv_tree_node_t *opts = gpo_ok ? w.add("GET PROCESSING OPTIONS", r, n) : nullptr;
    afl_list_item_t *afl = nullptr;
    uint8_t count = 0;
    if (opts && getAflFromResponseMessageTemplateFormat1(opts, &afl, &count) != ZEL_OK)
        getAfl(opts, &afl, &count);
    for (const afl_list_item_t *e = afl; e; e = e->next)
        for (uint32_t rec = e->first_record; rec <= e->last_record; ++rec)
            if (emvReadRecord(r, &n, e->sfi, rec, sw) == ZEL_OK)
                w.add("READ RECORD " + std::to_string(e->sfi) + "/" + std::to_string(rec), r, n);
    emvAflListCleanup(afl);
    if (getLogEntry(fci, &sfi, &count) == ZEL_OK && send(0x80, 0xCA, 0x9F, 0x4F, nullptr, 0, r, n))
        w.add("GET DATA 9F4F", r, n);
    return ZEL_OK;
}

// Tags whose values carry the account number: shown only with --show-pan.
bool secret_tag(uint32_t tag)
{
    return tag == 0x5A || tag == 0x57 || tag == 0x56 || tag == 0x9F6B || tag == 0x9F1F;
}

std::string tag_text(const emv_tree_node_t *n)
{
    char t[8];
    std::snprintf(t, sizeof t, n->tag_bytes == 3 ? "%06X" : n->tag_bytes == 2 ? "%04X" : "%02X", n->tag);
    return t;
}

void print_tree(const emv_tree_node_t *n, int depth, bool show, std::string &out)
{
    for (; n; n = n->next) {
        out += std::string(2 * size_t(depth), ' ') + tag_text(n) + " " + n->description;
        if (n->constructed) {
            out += "\n";
            print_tree(n->sub, depth + 1, show, out);
            continue;
        }
        if (secret_tag(n->tag) && !show) {
            out += ": (" + std::to_string(n->value_len) + " bytes, hidden; --show-pan shows them)\n";
            continue;
        }
        out += ": " + (n->value ? hexs(n->value, n->value_len) : std::string());
        if (n->value && n->value_len && isByteArrayPrintable(n->value, n->value_len))
            out += " \"" + std::string(reinterpret_cast<const char *>(n->value), n->value_len) + "\"";
        out += "\n";
        for (const emv_tree_node_t *e = n->list; e; e = e->next)
            out += std::string(2 * size_t(depth + 1), ' ') + tag_text(e) + " " + e->description + ", " +
                   std::to_string(e->value_len) + " bytes\n";
    }
}

void json_tree(const emv_tree_node_t *n, bool show, std::string &out)
{
    out += "[";
    for (bool first = true; n; n = n->next, first = false) {
        out += std::string(first ? "" : ", ") + "{\"tag\": \"" + tag_text(n) +
               "\", \"description\": " + tandro::json_string(n->description);
        if (n->constructed) {
            out += ", \"children\": ";
            json_tree(n->sub, show, out);
        } else if (secret_tag(n->tag) && !show) {
            out += ", \"value\": null, \"hidden\": true";
        } else {
            out += ", \"value\": \"" + (n->value ? hexs(n->value, n->value_len) : std::string()) + "\"";
            if (n->list) {
                out += ", \"list\": [";
                for (const emv_tree_node_t *e = n->list; e; e = e->next)
                    out += std::string(e == n->list ? "" : ", ") + "{\"tag\": \"" + tag_text(e) +
                           "\", \"length\": " + std::to_string(e->value_len) + "}";
                out += "]";
            }
        }
        out += "}";
    }
    out += "]";
}

// The digits of the account number: the card's F padding taken off.
std::string digits_of(std::string pan)
{
    while (!pan.empty() && (pan.back() == 'f' || pan.back() == 'F'))
        pan.pop_back();
    return pan;
}

std::string masked(const std::string &digits)
{
    if (digits.size() <= 4)
        return std::string(digits.size(), '*');
    return std::string(digits.size() - 4, '*') + digits.substr(digits.size() - 4);
}

// "Key: value" lines of the last transaction as JSON members.
std::string transaction_json(const std::string &text)
{
    static const struct {
        const char *label, *key;
    } fields[] = {{"ATCounter", "atc"}, {"Date", "date"},         {"Time", "time"},
                  {"Amount", "amount"}, {"Currency", "currency"}, {"Terminal country", "terminal_country"}};
    std::string out = "{";
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        const size_t colon = line.find(": ");
        if (colon == std::string::npos)
            continue;
        std::string value = line.substr(colon + 2);
        while (!value.empty() && value.front() == ' ')
            value.erase(value.begin());
        for (const auto &f : fields)
            if (line.compare(0, colon, f.label) == 0)
                out += std::string(out.size() > 1 ? ", " : "") + "\"" + f.key + "\": " + tandro::json_string(value);
    }
    return out + "}";
}

int fail(const tandro::Options &, const std::string &what, ZEL_STATUS st)
{
    return tandro::fail("emv", what, st);
}

std::string expiry_text(const std::string &raw)
{
    if (raw.size() != 3)
        return std::string();
    const auto *b = reinterpret_cast<const uint8_t *>(raw.data());
    char t[16];
    std::snprintf(t, sizeof t, "20%02X-%02X-%02X", b[0], b[1], b[2]);
    return t;
}

const tandro::OptionTable TABLE = {
    {
        {"", "the application, the account number, the expiry and the last transaction of the card's log"},
        {"tree", "every answer of the card as a parsed tree with the tag descriptions"},
    },
    {
        {"--show-pan", nullptr, "shows the account number whole (else masked to its last four digits)"},
        {"--df", "NAME", "the directory to select first (default 2PAY.SYS.DDF01)"},
    },
    "Reads a contactless payment card. The account number is a secret: without --show-pan it is masked in the "
    "summary, and the tags that carry it are hidden in the tree.",
};

int run_emv(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("emv", TABLE, args, parsed))
        return 2;
    Args a;
    const tandro::Args &words = parsed.words;
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i] == "tree" && i == 0)
            a.tree = true;
        else
            return tandro::usage_error("emv", "unknown argument '" + words[i] + "' (" + USAGE + ")");
    }
    a.show_pan = parsed.has("--show-pan");
    if (parsed.has("--df")) {
        a.df = parsed.value("--df");
        if (a.df.empty() || a.df.size() > 255)
            return tandro::usage_error("emv", "--df takes a name of 1 to 255 characters");
    }

    tandro::ReaderSession session;
    if (!session.open("emv", opt))
        return 1;
    if (session.sim() && opt.sim_scenario.empty()) {
        // The built-in field holds one card of each other family: a payment card takes its place.
        zsim_field_clear(session.sim());
        zsim_card card{{0x04, 0xE3, 0xA1, 0xB2, 0xC3, 0xD4, 0x80}, 7, 0x20, 0x0344, ORB_GENERIC_ISO14443_4};
        zsim_card_add_model(session.sim(), &card, "emv", nullptr);
    } else if (session.sim()) {
        tandro::bring_forward(session.sim(), "emv");
    }
    tandro::GlobalReader global(session.hnd());
    ZEL_STATUS st = SetISO14443_4_Mode();
    if (st != ZEL_OK)
        return fail(opt, "no payment card at ISO 14443-4 level", st);

    Walk w;
    const ZEL_STATUS walked = walk_card(a.df, w);
    if (a.tree) {
        if (w.parts.empty())
            return fail(opt, "SELECT " + a.df, walked);
        std::string out;
        if (opt.json) {
            out = "{\"answers\": [";
            for (size_t i = 0; i < w.parts.size(); ++i) {
                out += std::string(i ? ", " : "") + "{\"command\": " + tandro::json_string(w.steps[i]) + ", \"tree\": ";
                json_tree(w.parts[i], a.show_pan, out);
                out += "}";
            }
            out += "]}\n";
        } else {
            for (size_t i = 0; i < w.parts.size(); ++i) {
                out += w.steps[i] + "\n";
                print_tree(w.parts[i], 1, a.show_pan, out);
            }
        }
        std::fputs(out.c_str(), stdout);
        return 0;
    }

    char pan[EMV_PAN_TEXT_SIZE] = {};
    st = EMV_GetPAN(a.df.c_str(), pan);
    std::string digits;
    if (st == ZEL_OK) {
        digits = digits_of(pan);
    } else if (st == EMV_ERR_AFL_NOT_FOUND) {
        // A card answering GET PROCESSING OPTIONS in format 1: the tool's own walk reads its records.
        const std::string raw = w.value(0x5A);
        if (!raw.empty() && raw.size() <= EMV_PAN_MAX_BYTES) {
            std::string h = tandro::to_hex(reinterpret_cast<const uint8_t *>(raw.data()), raw.size());
            digits = digits_of(h);
        }
    }
    if (digits.empty())
        return fail(opt, "account number", st);
    const std::string shown = a.show_pan ? digits : masked(digits);
    char text[EMV_LOG_TEXT_SIZE] = {};
    const ZEL_STATUS lst = EMV_GetLastTransaction(a.df.c_str(), text);
    const std::string label = w.value(0x50);
    const std::string aid_raw = w.value(0x4F);
    const std::string aid = tandro::to_hex(reinterpret_cast<const uint8_t *>(aid_raw.data()), aid_raw.size());
    const std::string expiry = expiry_text(w.value(0x5F24));

    if (opt.json) {
        std::printf("{\"application\": {\"aid\": %s, \"label\": %s}, \"pan\": %s, \"pan_masked\": %s, \"expiry\": %s, "
                    "\"last_transaction\": %s, \"last_transaction_status\": %s}\n",
                    tandro::json_string(aid).c_str(), tandro::json_string(label).c_str(),
                    tandro::json_string(shown).c_str(), a.show_pan ? "false" : "true",
                    expiry.empty() ? "null" : tandro::json_string(expiry).c_str(),
                    lst == ZEL_OK ? transaction_json(text).c_str() : "null",
                    tandro::json_string(ZEL_Status2String(lst)).c_str());
        return 0;
    }
    std::printf("Application: %s (%s)\n", label.empty() ? "-" : label.c_str(), aid.empty() ? "-" : aid.c_str());
    std::printf("Account number: %s\n", shown.c_str());
    std::printf("Expiry: %s\n", expiry.empty() ? "-" : expiry.c_str());
    if (lst == ZEL_OK) {
        std::printf("Last transaction:\n");
        std::string t = text;
        size_t at = 0;
        while (at < t.size()) {
            size_t end = t.find('\n', at);
            if (end == std::string::npos)
                end = t.size();
            std::printf("  %s\n", t.substr(at, end - at).c_str());
            at = end + 1;
        }
    } else {
        std::printf("Last transaction: %s\n", ZEL_Status2String(lst));
    }
    return 0;
}

const tandro::Registration emv_cmd({"emv", "[tree] [--show-pan] [--df NAME]",
                                    "a payment card's application, masked account number, expiry and last "
                                    "transaction; tree: its answers parsed",
                                    run_emv, false, &TABLE});

} // namespace
