// The in-process interface of the simulated reader.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "core.h"
#include "json.h"
#include "links.h"
#include "zelsim.h"

namespace zs {

void add_link(zsim *sim, std::unique_ptr<Link> link)
{
    std::lock_guard<std::mutex> lock(sim->links_mu);
    sim->links.push_back(std::move(link));
}

// Puts what the reader sends by itself on every link. The caller holds links_mu and mu.
void push_all(zsim *sim, const std::vector<uint8_t> &bytes)
{
    if (bytes.empty())
        return;
    if (sim->log.load())
        std::fprintf(stderr, "zelsim pushes %zu bytes\n", bytes.size());
    for (auto &l : sim->links)
        link_push(sim, l->core, bytes);
}

int field_add(zsim *sim, std::unique_ptr<Card> card)
{
    std::lock_guard<std::mutex> links(sim->links_mu);
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        if (sim->reader.cards.size() >= MAX_CARDS)
            return -1;
        const zsim_card id = card->id();
        sim->reader.cards.push_back(std::move(card));
        push_all(sim, reader_push_arrival(sim->reader, id));
    }
    for (auto &l : sim->links)
        l->poke();
    return 0;
}

} // namespace zs

extern "C" {

zsim *zsim_new(void)
{
    return new (std::nothrow) zsim();
}

void zsim_free(zsim *sim)
{
    if (!sim)
        return;
    zsim_stop(sim);
    delete sim;
}

int zsim_serve_pty(zsim *sim, char *path, size_t path_len)
{
    if (!sim)
        return -1;
    try {
        return zs::serve_pty(sim, path, path_len);
    } catch (...) {
        return -1;
    }
}

void zsim_stop(zsim *sim)
{
    if (!sim)
        return;
    std::vector<std::unique_ptr<zs::Link>> links;
    {
        std::lock_guard<std::mutex> lock(sim->links_mu);
        links.swap(sim->links);
    }
    for (auto &l : links)
        l->stop();
}

void zsim_set_reader_type(zsim *sim, uint32_t type)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.type = type;
}

int zsim_card_add(zsim *sim, const zsim_card *card)
{
    return zsim_card_add_model(sim, card, nullptr, nullptr);
}

int zsim_card_add_model(zsim *sim, const zsim_card *card, const char *model, const char *setup_json)
{
    if (!sim || !card || card->uid_len == 0 || card->uid_len > 10)
        return -1;
    try {
        zs::Json setup;
        std::string err;
        if (setup_json && !zs::json_parse(setup_json, std::strlen(setup_json), setup, err))
            return -1;
        auto c = zs::make_card(model, *card, setup_json ? &setup : nullptr, err);
        if (!c)
            return -1;
        return zs::field_add(sim, std::move(c));
    } catch (...) {
        return -1;
    }
}

int zsim_card_remove(zsim *sim, const uint8_t *uid, uint8_t uid_len)
{
    if (!sim || !uid)
        return -1;
    std::lock_guard<std::mutex> links(sim->links_mu);
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        auto &cards = sim->reader.cards;
        auto it = cards.begin();
        while (it != cards.end() &&
               !((*it)->id().uid_len == uid_len && std::memcmp((*it)->id().uid, uid, uid_len) == 0))
            ++it;
        if (it == cards.end())
            return -1;
        cards.erase(it);
        zs::push_all(sim, zs::reader_push_removal(sim->reader));
    }
    for (auto &l : sim->links)
        l->poke();
    return 0;
}

void zsim_field_clear(zsim *sim)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> links(sim->links_mu);
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        const bool had = !sim->reader.cards.empty();
        sim->reader.cards.clear();
        if (had)
            zs::push_all(sim, zs::reader_push_removal(sim->reader));
    }
    for (auto &l : sim->links)
        l->poke();
}

void zsim_fault_push(zsim *sim, const zsim_fault *fault)
{
    if (!sim || !fault)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->faults.push_back(*fault);
}

void zsim_fault_clear(zsim *sim)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->faults.clear();
}

size_t zsim_last_request(zsim *sim, uint8_t *buf, size_t buf_len)
{
    if (!sim || !buf)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const size_t n = sim->last_request.size() < buf_len ? sim->last_request.size() : buf_len;
    if (n)
        std::memcpy(buf, sim->last_request.data(), n);
    return n;
}

uint64_t zsim_exchange_count(zsim *sim)
{
    return sim ? sim->exchanges.load() : 0;
}

void zsim_set_log(zsim *sim, int on)
{
    if (sim)
        sim->log.store(on ? 1 : 0);
}

int zsim_serve_links(zsim *sim, char *report, size_t report_len)
{
    if (!sim)
        return -1;
    std::vector<zs::LinkSpec> specs;
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        specs = sim->link_specs;
    }
    std::string text;
    int rc = 0;
    for (const auto &l : specs) {
        char line[400];
        uint16_t port = 0;
        int r = 0;
        if (l.kind == "pty") {
            char path[256] = {};
            r = zsim_serve_pty(sim, path, sizeof path);
            std::snprintf(line, sizeof line, "pty %s\n", path);
        } else if (l.kind == "udp" || l.kind == "tcp") {
            r = l.kind == "udp" ? zsim_serve_udp(sim, l.host.c_str(), l.port, &port)
                                : zsim_serve_tcp(sim, l.host.c_str(), l.port, &port);
            std::snprintf(line, sizeof line, "%s %s:%u\n", l.kind.c_str(), l.host.c_str(), port);
        } else if (l.kind == "discovery") {
            r = zsim_serve_discovery(sim, l.host.c_str(), l.port, l.short_form, &port);
            std::snprintf(line, sizeof line, "discovery %s:%u\n", l.host.c_str(), port);
        } else if (l.kind == "gpio") {
            r = zsim_serve_gpio(sim, l.path.c_str(), l.pin);
            std::snprintf(line, sizeof line, "gpio %s pin %u\n", l.path.c_str(), l.pin);
        } else {
            continue; // d2xx: served by the stand-in library
        }
        if (r != 0) {
            std::snprintf(line, sizeof line, "%s link failed: %s\n", l.kind.c_str(), std::strerror(errno));
            rc = -1;
        }
        text += line;
        if (rc)
            break;
    }
    if (report && report_len)
        std::snprintf(report, report_len, "%s", text.c_str());
    return rc;
}

void zsim_reset(zsim *sim)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> links(sim->links_mu);
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        sim->resets.fetch_add(1);
        for (auto &l : sim->links)
            zs::link_reset(sim, l->core);
    }
    for (auto &l : sim->links)
        l->poke();
}

uint64_t zsim_reset_count(zsim *sim)
{
    return sim ? sim->resets.load() : 0;
}

void zsim_set_time_scale(zsim *sim, uint32_t percent)
{
    if (sim)
        sim->time_scale_pct.store(percent > 10000 ? 10000 : percent);
}

void zsim_set_serial_number(zsim *sim, uint32_t serial)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.serial = serial;
}

void zsim_set_serial_description(zsim *sim, const char *text)
{
    if (!sim || !text)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.set_serial_desc(std::string(text, strnlen(text, 8)));
}

void zsim_set_firmware(zsim *sim, uint8_t major, uint8_t minor, uint8_t build)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.fw_major = major;
    sim->reader.fw_minor = minor;
    sim->reader.build = build;
}

void zsim_set_hardware(zsim *sim, uint8_t type, uint8_t version)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.hw_type = type;
    sim->reader.hw_ver = version;
}

void zsim_set_parameter_form(zsim *sim, int form)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->reader.param_form = form == 1 ? zs::ParamForm::SHORT : form == 2 ? zs::ParamForm::NONE : zs::ParamForm::LONG;
}

size_t zsim_eeprom_read(zsim *sim, uint32_t address, uint8_t *buf, size_t len)
{
    if (!sim || !buf || address >= zs::EEPROM_SIZE)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    const size_t n = len < zs::EEPROM_SIZE - address ? len : zs::EEPROM_SIZE - address;
    std::memcpy(buf, sim->reader.eeprom + address, n);
    return n;
}

int zsim_eeprom_write(zsim *sim, uint32_t address, const uint8_t *buf, size_t len)
{
    if (!sim || !buf || address > zs::EEPROM_SIZE || len > zs::EEPROM_SIZE - address)
        return -1;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(sim->reader.eeprom + address, buf, len);
    return 0;
}

int zsim_get_key(zsim *sim, uint32_t index, uint8_t key[6])
{
    if (!sim || !key || index >= zs::KEY_COUNT)
        return -1;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(key, sim->reader.keys[index], 6);
    return 0;
}

void zsim_get_password(zsim *sim, uint8_t password[8])
{
    if (!sim || !password)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(password, sim->reader.password, 8);
}

void zsim_set_password(zsim *sim, const uint8_t password[8])
{
    if (!sim || !password)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    std::memcpy(sim->reader.password, password, 8);
}

int zsim_keys_locked(zsim *sim)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    return sim->reader.keys_locked ? 1 : 0;
}

uint32_t zsim_baud(zsim *sim)
{
    if (!sim)
        return 0;
    std::lock_guard<std::mutex> lock(sim->mu);
    return sim->reader.baud;
}

} // extern "C"
