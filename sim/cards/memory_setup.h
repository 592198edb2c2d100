// Reading the "setup" of a memory card model: small checked readers of members, as the scenario does.
#ifndef ZELSIM_CARDS_MEMORY_SETUP_H
#define ZELSIM_CARDS_MEMORY_SETUP_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "json.h"

namespace zs {

// An object whose members are all among names (null counts as an empty object).
bool setup_members(const Json *o, const std::string &where, std::initializer_list<const char *> names,
                   std::string &err);
// Hex bytes, exactly len of them (or at most len when up_to is set). given tells whether the member is there.
bool setup_hex(const Json &o, const char *name, const std::string &where, size_t len, bool up_to,
               std::vector<uint8_t> &out, bool &given, std::string &err);
// A whole number from lo to hi (JSON number, or hex digits in a string for values from 0).
bool setup_int(const Json &o, const char *name, const std::string &where, int64_t lo, int64_t hi, int64_t &out,
               bool &given, std::string &err);
// The "memory" member: hex bytes laid over the start of mem, at most all of it.
bool setup_memory(const Json &o, const std::string &where, std::vector<uint8_t> &mem, std::string &err);
bool setup_bool(const Json &o, const char *name, const std::string &where, bool &out, std::string &err);

} // namespace zs
#endif
