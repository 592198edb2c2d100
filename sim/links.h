// Starting the links of a simulated reader.
#ifndef ZELSIM_LINKS_H
#define ZELSIM_LINKS_H

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "core.h"

namespace zs {

void add_link(zsim *sim, std::unique_ptr<Link> link);
int serve_pty(zsim *sim, char *path, size_t path_len);
int serve_udp(zsim *sim, const char *host, uint16_t port, uint16_t *bound);
int serve_tcp(zsim *sim, const char *host, uint16_t port, uint16_t *bound);
int serve_discovery(zsim *sim, const char *host, uint16_t port, bool short_form, uint16_t *bound);
int serve_gpio(zsim *sim, const char *path, uint32_t pin);

// The field, for the API and the scenario loader: adds a card and pushes its arrival. 0, or -1 when full.
int field_add(zsim *sim, std::unique_ptr<Card> card);
// Puts what the reader sends by itself on every link. The caller holds links_mu and mu.
void push_all(zsim *sim, const std::vector<uint8_t> &bytes);

// Text commands of tandro-sim's standard input. Returns 0, 1 for quit, -1 for a bad command.
int run_text_command(zsim *sim, const std::string &line, std::string &out);

} // namespace zs
#endif
