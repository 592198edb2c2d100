#include "cards/memory_setup.h"

#include "scenario.h"

namespace zs {

bool setup_members(const Json *o, const std::string &where, std::initializer_list<const char *> names, std::string &err)
{
    if (!o || o->kind == Json::NUL)
        return true;
    if (o->kind != Json::OBJECT) {
        err = where + ": an object is expected";
        return false;
    }
    for (const auto &f : o->fields) {
        bool known = false;
        for (const char *n : names)
            known = known || f.first == n;
        if (!known) {
            err = where + ": unknown member '" + f.first + "'";
            return false;
        }
    }
    return true;
}

bool setup_hex(const Json &o, const char *name, const std::string &where, size_t len, bool up_to,
               std::vector<uint8_t> &out, bool &given, std::string &err)
{
    given = false;
    const Json *j = o.get(name);
    if (!j)
        return true;
    if (j->kind != Json::STRING || !parse_hex_text(j->str, out, len) || (!up_to && out.size() != len)) {
        err = where + "." + name + ": " + (up_to ? "at most " : "") + std::to_string(len) +
              " bytes in hexadecimal are expected";
        return false;
    }
    given = true;
    return true;
}

bool setup_int(const Json &o, const char *name, const std::string &where, int64_t lo, int64_t hi, int64_t &out,
               bool &given, std::string &err)
{
    given = false;
    const Json *j = o.get(name);
    if (!j)
        return true;
    uint64_t u = 0;
    if (j->kind == Json::NUMBER && j->num == static_cast<double>(static_cast<int64_t>(j->num)) &&
        j->num >= static_cast<double>(lo) && j->num <= static_cast<double>(hi)) {
        out = static_cast<int64_t>(j->num);
    } else if (j->kind == Json::STRING && lo >= 0 && parse_hex_number(j->str, static_cast<uint64_t>(hi), u)) {
        out = static_cast<int64_t>(u);
    } else {
        err = where + "." + name + ": a whole number from " + std::to_string(lo) + " to " + std::to_string(hi) +
              " is expected";
        return false;
    }
    given = true;
    return true;
}

bool setup_bool(const Json &o, const char *name, const std::string &where, bool &out, std::string &err)
{
    const Json *j = o.get(name);
    if (!j)
        return true;
    if (j->kind != Json::BOOL) {
        err = where + "." + name + ": true or false is expected";
        return false;
    }
    out = j->b;
    return true;
}

bool setup_memory(const Json &o, const std::string &where, std::vector<uint8_t> &mem, std::string &err)
{
    bool given = false;
    std::vector<uint8_t> bytes;
    if (!setup_hex(o, "memory", where, mem.size(), true, bytes, given, err))
        return false;
    if (given)
        std::copy(bytes.begin(), bytes.end(), mem.begin());
    return true;
}

} // namespace zs
