// Starting the links of a simulated reader.
#ifndef ZELSIM_LINKS_H
#define ZELSIM_LINKS_H

#include <cstddef>
#include <memory>

#include "core.h"

namespace zs {

void add_link(zsim *sim, std::unique_ptr<Link> link);
int serve_pty(zsim *sim, char *path, size_t path_len);

} // namespace zs
#endif
