#include "json.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace zs {

const Json *Json::get(const char *name) const
{
    if (kind != OBJECT)
        return nullptr;
    const Json *found = nullptr;
    for (const auto &f : fields)
        if (f.first == name)
            found = &f.second;
    return found;
}

namespace {

struct Parser {
    const char *p;
    const char *end;
    const char *start;
    std::string err;

    bool fail(const char *what)
    {
        if (err.empty()) {
            int line = 1, col = 1;
            for (const char *q = start; q < p && q < end; ++q) {
                if (*q == '\n') {
                    ++line;
                    col = 1;
                } else {
                    ++col;
                }
            }
            char buf[160];
            std::snprintf(buf, sizeof buf, "line %d, column %d: %s", line, col, what);
            err = buf;
        }
        return false;
    }

    void skip_space()
    {
        while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r'))
            ++p;
    }

    bool literal(const char *word)
    {
        const char *q = p;
        for (; *word; ++word, ++q)
            if (q >= end || *q != *word)
                return fail("unknown word");
        p = q;
        return true;
    }

    static void put_utf8(std::string &s, uint32_t c)
    {
        if (c < 0x80) {
            s += static_cast<char>(c);
        } else if (c < 0x800) {
            s += static_cast<char>(0xC0 | (c >> 6));
            s += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            s += static_cast<char>(0xE0 | (c >> 12));
            s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            s += static_cast<char>(0xF0 | (c >> 18));
            s += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            s += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            s += static_cast<char>(0x80 | (c & 0x3F));
        }
    }

    bool hex4(uint32_t &v)
    {
        v = 0;
        for (int i = 0; i < 4; ++i, ++p) {
            if (p >= end)
                return fail("unfinished \\u escape");
            const char c = *p;
            v <<= 4;
            if (c >= '0' && c <= '9')
                v |= static_cast<uint32_t>(c - '0');
            else if (c >= 'a' && c <= 'f')
                v |= static_cast<uint32_t>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                v |= static_cast<uint32_t>(c - 'A' + 10);
            else
                return fail("bad \\u escape");
        }
        return true;
    }

    bool string(std::string &s)
    {
        ++p; // the opening quote
        while (true) {
            if (p >= end)
                return fail("unfinished string");
            const unsigned char c = static_cast<unsigned char>(*p);
            if (c == '"') {
                ++p;
                return true;
            }
            if (c < 0x20)
                return fail("control character in a string");
            if (c != '\\') {
                s += static_cast<char>(c);
                ++p;
                continue;
            }
            if (++p >= end)
                return fail("unfinished escape");
            const char e = *p++;
            switch (e) {
            case '"': s += '"'; break;
            case '\\': s += '\\'; break;
            case '/': s += '/'; break;
            case 'b': s += '\b'; break;
            case 'f': s += '\f'; break;
            case 'n': s += '\n'; break;
            case 'r': s += '\r'; break;
            case 't': s += '\t'; break;
            case 'u': {
                uint32_t c1 = 0;
                if (!hex4(c1))
                    return false;
                if (c1 >= 0xD800 && c1 < 0xDC00 && end - p >= 6 && p[0] == '\\' && p[1] == 'u') {
                    p += 2;
                    uint32_t c2 = 0;
                    if (!hex4(c2))
                        return false;
                    if (c2 < 0xDC00 || c2 > 0xDFFF)
                        return fail("bad surrogate pair");
                    c1 = 0x10000 + ((c1 - 0xD800) << 10) + (c2 - 0xDC00);
                } else if (c1 >= 0xD800 && c1 <= 0xDFFF) {
                    return fail("lone surrogate");
                }
                put_utf8(s, c1);
                break;
            }
            default: return fail("unknown escape");
            }
        }
    }

    bool number(Json &v)
    {
        const char *q = p;
        if (q < end && *q == '-')
            ++q;
        if (q >= end || *q < '0' || *q > '9')
            return fail("bad number");
        if (*q == '0' && q + 1 < end && q[1] >= '0' && q[1] <= '9')
            return fail("leading zero in a number");
        while (q < end && ((*q >= '0' && *q <= '9') || *q == '.' || *q == 'e' || *q == 'E' || *q == '+' || *q == '-'))
            ++q;
        if (q - p > 64)
            return fail("number too long");
        const std::string text(p, q);
        char *stop = nullptr;
        v.num = std::strtod(text.c_str(), &stop);
        if (!stop || *stop || !std::isfinite(v.num))
            return fail("bad number");
        v.kind = Json::NUMBER;
        p = q;
        return true;
    }

    bool value(Json &v, int depth)
    {
        if (depth > JSON_MAX_DEPTH)
            return fail("nested too deeply");
        skip_space();
        if (p >= end)
            return fail("value expected");
        switch (*p) {
        case '{': {
            v.kind = Json::OBJECT;
            ++p;
            skip_space();
            if (p < end && *p == '}') {
                ++p;
                return true;
            }
            while (true) {
                skip_space();
                if (p >= end || *p != '"')
                    return fail("member name expected");
                std::string name;
                if (!string(name))
                    return false;
                skip_space();
                if (p >= end || *p != ':')
                    return fail("':' expected");
                ++p;
                v.fields.push_back(JsonMember{std::move(name), Json{}});
                if (!value(v.fields.back().second, depth + 1))
                    return false;
                skip_space();
                if (p < end && *p == ',') {
                    ++p;
                    continue;
                }
                if (p < end && *p == '}') {
                    ++p;
                    return true;
                }
                return fail("',' or '}' expected");
            }
        }
        case '[': {
            v.kind = Json::ARRAY;
            ++p;
            skip_space();
            if (p < end && *p == ']') {
                ++p;
                return true;
            }
            while (true) {
                v.items.emplace_back();
                if (!value(v.items.back(), depth + 1))
                    return false;
                skip_space();
                if (p < end && *p == ',') {
                    ++p;
                    continue;
                }
                if (p < end && *p == ']') {
                    ++p;
                    return true;
                }
                return fail("',' or ']' expected");
            }
        }
        case '"': v.kind = Json::STRING; return string(v.str);
        case 't':
            v.kind = Json::BOOL;
            v.b = true;
            return literal("true");
        case 'f': v.kind = Json::BOOL; return literal("false");
        case 'n': v.kind = Json::NUL; return literal("null");
        default: return number(v);
        }
    }
};

} // namespace

bool json_parse(const char *text, size_t len, Json &out, std::string &err)
{
    out = Json{};
    err.clear();
    if (!text) {
        err = "no text";
        return false;
    }
    if (len > JSON_MAX_TEXT) {
        err = "text too long";
        return false;
    }
    Parser ps{text, text + len, text, {}};
    if (!ps.value(out, 0)) {
        err = ps.err;
        out = Json{};
        return false;
    }
    ps.skip_space();
    if (ps.p != ps.end) {
        ps.fail("text after the value");
        err = ps.err;
        out = Json{};
        return false;
    }
    return true;
}

} // namespace zs
