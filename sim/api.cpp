// The in-process interface of the simulated reader.
#include <cstdio>
#include <cstring>
#include <new>

#include "core.h"
#include "links.h"
#include "zelsim.h"

namespace zs {

void add_link(zsim *sim, std::unique_ptr<Link> link)
{
    std::lock_guard<std::mutex> lock(sim->links_mu);
    sim->links.push_back(std::move(link));
}

// Wakes every link: something may be due without input from the host.
void poke_links(zsim *sim)
{
    std::lock_guard<std::mutex> lock(sim->links_mu);
    for (auto &l : sim->links)
        l->poke();
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
    if (!sim || !card || card->uid_len == 0 || card->uid_len > 10)
        return -1;
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        if (sim->reader.cards.size() >= zs::MAX_CARDS)
            return -1;
        sim->reader.cards.push_back(*card);
    }
    zs::poke_links(sim);
    return 0;
}

int zsim_card_remove(zsim *sim, const uint8_t *uid, uint8_t uid_len)
{
    if (!sim || !uid)
        return -1;
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        auto &cards = sim->reader.cards;
        auto it = cards.begin();
        while (it != cards.end() && !(it->uid_len == uid_len && std::memcmp(it->uid, uid, uid_len) == 0))
            ++it;
        if (it == cards.end())
            return -1;
        cards.erase(it);
    }
    zs::poke_links(sim);
    return 0;
}

void zsim_field_clear(zsim *sim)
{
    if (!sim)
        return;
    {
        std::lock_guard<std::mutex> lock(sim->mu);
        sim->reader.cards.clear();
    }
    zs::poke_links(sim);
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

} // extern "C"
