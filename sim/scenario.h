// Reading scenarios: the parts shared by the loader, the program and the D2XX stand-in.
#ifndef ZELSIM_SCENARIO_H
#define ZELSIM_SCENARIO_H

#include <memory>
#include <string>
#include <vector>

#include "core.h"
#include "json.h"

namespace zs {

struct ParsedCard {
    zsim_card card{};
    std::string model;
    const Json *setup = nullptr; // points into the parsed text's tree
};

struct Scenario {
    std::unique_ptr<Reader> reader;
    bool cards_given = false;
    std::vector<ParsedCard> cards;
    std::vector<zsim_fault> faults;
    bool links_given = false;
    std::vector<LinkSpec> links;
    int time_scale = -1;
    int log = -1;
    // "line": the line model (rate 0: none); "esp_front": the address an ESP front answers.
    bool line_given = false;
    uint32_t line_rate = 0, line_turnaround_us = 0;
    bool esp_given = false;
    std::string esp_address;
    bool boot_given = false;    // the boot loader's image and faults (in reader->boot)
    bool network_given = false; // a network module in front, its units and boot loaders (in reader->esp)
};

// Checks a whole scenario, starting from the reader base (its field apart). False with a message.
bool parse_scenario(const Json &root, Scenario &s, const Reader &base, std::string &err);
// Puts a checked scenario in force.
void apply_scenario(zsim *sim, Scenario &s);

bool parse_card(const Json &o, const char *where, ParsedCard &pc, std::string &err);
bool parse_fault(const Json &o, const char *where, zsim_fault &f, std::string &err);
uint8_t default_orb_type(uint8_t sak);
bool orb_type_by_name(const std::string &name, uint8_t &code);
bool fault_kind_by_name(const std::string &name, zsim_fault_kind &kind);
bool parse_hex_text(const std::string &s, std::vector<uint8_t> &out, size_t max);
bool parse_hex_number(const std::string &text, uint64_t max, uint64_t &v);

} // namespace zs
#endif
