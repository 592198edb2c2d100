// A small JSON reader for scenario files: a tree of values, bounded in depth and size, with the place of
// the first error. Nothing here trusts its input.
#ifndef ZELSIM_JSON_H
#define ZELSIM_JSON_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace zs {

struct JsonMember;

struct Json {
    enum Kind { NUL, BOOL, NUMBER, STRING, ARRAY, OBJECT } kind = NUL;
    bool b = false;
    double num = 0;
    std::string str;
    std::vector<Json> items;        // ARRAY
    std::vector<JsonMember> fields; // OBJECT, in file order

    // The member of an object by name (the last one when a name repeats), or null.
    const Json *get(const char *name) const;
};

struct JsonMember {
    std::string first; // the name
    Json second;       // the value
};

constexpr int JSON_MAX_DEPTH = 32;
constexpr size_t JSON_MAX_TEXT = 4u << 20;

// Parses a whole text. On failure returns false and describes the first error with its line and column.
bool json_parse(const char *text, size_t len, Json &out, std::string &err);

} // namespace zs
#endif
