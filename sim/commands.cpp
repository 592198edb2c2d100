// The text commands that drive a running reader: cards in and out of the field, faults, resets.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core.h"
#include "links.h"
#include "scenario.h"

namespace zs {

namespace {

std::vector<std::string> words(const std::string &s)
{
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && std::strchr(" \t\r\n", s[i]))
            ++i;
        size_t j = i;
        while (j < s.size() && !std::strchr(" \t\r\n", s[j]))
            ++j;
        if (j > i)
            out.push_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

std::string card_line(const zsim_card &c, const char *model)
{
    char buf[96];
    size_t pos = 0;
    for (int i = 0; i < c.uid_len && i < 10; ++i)
        pos += static_cast<size_t>(std::snprintf(buf + pos, sizeof buf - pos, "%02X", c.uid[i]));
    std::snprintf(buf + pos, sizeof buf - pos, " sak %02X atqa %04X type %02X %s\n", c.sak, c.atqa, c.orb_type, model);
    return buf;
}

const char HELP[] = "commands: add UID [SAK [ATQA [TYPE [MODEL]]]], remove UID, clear, list, "
                    "fault KIND [command=HEX] [code=HEX] [delay=MS] [count=N] [times=N|always] [after=N], "
                    "faults clear, reset, phone, field on|off, emulation, share read ADDR LEN|write ADDR HEX, "
                    "esp on [UNITS]|off|progress PERCENT|config, quit\n";

} // namespace

// A card from words UID [SAK [ATQA [TYPE [MODEL]]]] (hex; TYPE may be a card type name).
bool card_from_words(const std::vector<std::string> &w, size_t first, zsim_card &c, std::string &model)
{
    c = zsim_card{};
    std::vector<uint8_t> uid;
    if (first >= w.size() || !parse_hex_text(w[first], uid, 10) ||
        (uid.size() != 4 && uid.size() != 7 && uid.size() != 8 && uid.size() != 10))
        return false;
    std::memcpy(c.uid, uid.data(), uid.size());
    c.uid_len = static_cast<uint8_t>(uid.size());
    c.sak = 0x08;
    c.atqa = 0x0004;
    uint64_t v = 0;
    if (w.size() > first + 1) {
        if (!parse_hex_number(w[first + 1], 0xFF, v))
            return false;
        c.sak = static_cast<uint8_t>(v);
    }
    c.orb_type = default_orb_type(c.sak);
    if (w.size() > first + 2) {
        if (!parse_hex_number(w[first + 2], 0xFFFF, v))
            return false;
        c.atqa = static_cast<uint16_t>(v);
    }
    if (w.size() > first + 3) {
        if (orb_type_by_name(w[first + 3], c.orb_type)) {
        } else if (parse_hex_number(w[first + 3], 0xFF, v)) {
            c.orb_type = static_cast<uint8_t>(v);
        } else {
            return false;
        }
    }
    model = w.size() > first + 4 ? w[first + 4] : "plain";
    return w.size() <= first + 5;
}

int run_text_command(zsim *sim, const std::string &line, std::string &out)
{
    const auto w = words(line);
    if (w.empty() || w[0][0] == '#')
        return 0;
    const std::string &c = w[0];
    if (c == "quit" || c == "exit")
        return 1;
    if (c == "help") {
        out += HELP;
        return 0;
    }
    if (c == "add") {
        zsim_card card;
        std::string model;
        if (!card_from_words(w, 1, card, model)) {
            out += "add: usage: add UID [SAK [ATQA [TYPE [MODEL]]]] (hex; a UID of 4, 7, 8 or 10 bytes)\n";
            return -1;
        }
        if (zsim_card_add_model(sim, &card, model.c_str(), nullptr) != 0) {
            out += "add: the field is full, or no such card model (" + card_model_names() + ")\n";
            return -1;
        }
        out += "card entered the field\n";
        return 0;
    }
    if (c == "remove") {
        std::vector<uint8_t> uid;
        if (w.size() != 2 || !parse_hex_text(w[1], uid, 10) || uid.empty()) {
            out += "remove: usage: remove UID\n";
            return -1;
        }
        if (zsim_card_remove(sim, uid.data(), static_cast<uint8_t>(uid.size())) != 0) {
            out += "remove: no such card in the field\n";
            return -1;
        }
        out += "card left the field\n";
        return 0;
    }
    if (c == "clear") {
        zsim_field_clear(sim);
        out += "the field is empty\n";
        return 0;
    }
    if (c == "list") {
        std::lock_guard<std::mutex> lock(sim->mu);
        if (sim->reader.cards.empty())
            out += "the field is empty\n";
        for (const auto &card : sim->reader.cards)
            out += card_line(card->id(), card->model());
        return 0;
    }
    if (c == "reset") {
        zsim_reset(sim);
        out += "reset\n";
        return 0;
    }
    if (c == "faults" && w.size() == 2 && w[1] == "clear") {
        zsim_fault_clear(sim);
        out += "no faults\n";
        return 0;
    }
    if (c == "fault") {
        zsim_fault f{};
        f.command = -1;
        bool good = w.size() >= 2 && fault_kind_by_name(w[1], f.kind);
        for (size_t i = 2; good && i < w.size(); ++i) {
            const size_t eq = w[i].find('=');
            if (eq == std::string::npos) {
                good = false;
                break;
            }
            const std::string k = w[i].substr(0, eq), v = w[i].substr(eq + 1);
            uint64_t n = 0;
            char *end = nullptr;
            const unsigned long long dec = std::strtoull(v.c_str(), &end, 10);
            const bool is_dec = !v.empty() && end && !*end && v.size() < 10;
            if (k == "command" && parse_hex_number(v, 0xFF, n))
                f.command = static_cast<int>(n);
            else if (k == "code" && parse_hex_number(v, 0xFF, n))
                f.code = static_cast<uint32_t>(n);
            else if (k == "delay" && is_dec)
                f.delay_ms = static_cast<uint32_t>(dec);
            else if (k == "count" && is_dec && dec <= 4096)
                f.count = static_cast<uint32_t>(dec);
            else if (k == "times" && v == "always")
                f.times = -1;
            else if (k == "times" && is_dec && dec >= 1)
                f.times = static_cast<int32_t>(dec);
            else if (k == "after" && is_dec)
                f.after = static_cast<uint32_t>(dec);
            else
                good = false;
        }
        if (!good) {
            out += "fault: usage: fault KIND [command=HEX] [code=HEX] [delay=MS] [count=N] [times=N|always] "
                   "[after=N]; KIND is silence, late, bad_checksum, wrong_echo, error_frame, truncate, "
                   "extra_bytes, endless_interim or unplug\n";
            return -1;
        }
        zsim_fault_push(sim, &f);
        out += "fault queued\n";
        return 0;
    }
    int rc = 0;
    if (emulation_text_command(sim, w, out, rc))
        return rc;
    out += "unknown command '" + c + "'; " + HELP;
    return -1;
}

} // namespace zs

extern "C" int zsim_command(zsim *sim, const char *line, char *out, size_t out_len)
{
    if (!sim || !line)
        return -1;
    try {
        std::string text;
        const int rc = zs::run_text_command(sim, line, text);
        if (out && out_len)
            std::snprintf(out, out_len, "%s", text.c_str());
        return rc;
    } catch (...) {
        return -1;
    }
}
