// Helpers of the travel document tests: a strict JSON reader (RFC 8259) that builds a small tree, a base-64
// decoder, fixture loading, a temporary folder, and the simulated passport chip plugged in as the card link.
#ifndef ZEL_TESTS_MRTD_TEST_SUPPORT_H
#define ZEL_TESTS_MRTD_TEST_SUPPORT_H

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mrtdtest {

using Bytes = std::vector<uint8_t>;

// ---- Strict JSON ----

struct JValue {
    enum Kind { NUL, BOOL, NUMBER, STRING, ARRAY, OBJECT } kind = NUL;
    bool b = false;
    std::string str; // STRING (decoded), NUMBER (as written)
    std::vector<JValue> items;
    std::vector<std::pair<std::string, JValue>> members; // in order, repeats kept

    // The first member of that name, or null.
    const JValue *get(const std::string &name) const
    {
        for (const auto &m : members)
            if (m.first == name)
                return &m.second;
        return nullptr;
    }
    size_t count(const std::string &name) const
    {
        size_t n = 0;
        for (const auto &m : members)
            n += m.first == name;
        return n;
    }
};

class JsonReader {
public:
    explicit JsonReader(const std::string &s) : s_(s) {}

    // The whole text must be one value with nothing but white space around it.
    bool parse(JValue &out)
    {
        ws();
        if (!value(out, 0))
            return false;
        ws();
        return i_ == s_.size();
    }

private:
    const std::string &s_;
    size_t i_ = 0;

    void ws()
    {
        while (i_ < s_.size() && (s_[i_] == ' ' || s_[i_] == '\t' || s_[i_] == '\n' || s_[i_] == '\r'))
            ++i_;
    }
    bool lit(const char *w)
    {
        const size_t n = std::strlen(w);
        if (s_.compare(i_, n, w) != 0)
            return false;
        i_ += n;
        return true;
    }
    static void utf8(uint32_t cp, std::string &out)
    {
        if (cp < 0x80) {
            out += char(cp);
        } else if (cp < 0x800) {
            out += char(0xC0 | (cp >> 6));
            out += char(0x80 | (cp & 63));
        } else if (cp < 0x10000) {
            out += char(0xE0 | (cp >> 12));
            out += char(0x80 | ((cp >> 6) & 63));
            out += char(0x80 | (cp & 63));
        } else {
            out += char(0xF0 | (cp >> 18));
            out += char(0x80 | ((cp >> 12) & 63));
            out += char(0x80 | ((cp >> 6) & 63));
            out += char(0x80 | (cp & 63));
        }
    }
    bool hex4(uint32_t &v)
    {
        if (i_ + 4 > s_.size())
            return false;
        v = 0;
        for (int k = 0; k < 4; ++k) {
            const char c = s_[i_++];
            v <<= 4;
            if (c >= '0' && c <= '9')
                v |= uint32_t(c - '0');
            else if (c >= 'a' && c <= 'f')
                v |= uint32_t(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                v |= uint32_t(c - 'A' + 10);
            else
                return false;
        }
        return true;
    }
    // Well-formed UTF-8 sequence at i_ (its first byte is >= 0x80).
    bool utf8_seq(std::string &out)
    {
        const auto u = [&](size_t k) { return static_cast<unsigned char>(s_[k]); };
        const unsigned char c = u(i_);
        size_t len = 0;
        unsigned char lo = 0x80, hi = 0xBF;
        if (c >= 0xC2 && c <= 0xDF)
            len = 2;
        else if (c >= 0xE0 && c <= 0xEF)
            len = 3, lo = c == 0xE0 ? 0xA0 : 0x80, hi = c == 0xED ? 0x9F : 0xBF;
        else if (c >= 0xF0 && c <= 0xF4)
            len = 4, lo = c == 0xF0 ? 0x90 : 0x80, hi = c == 0xF4 ? 0x8F : 0xBF;
        else
            return false;
        if (i_ + len > s_.size() || u(i_ + 1) < lo || u(i_ + 1) > hi)
            return false;
        for (size_t k = 2; k < len; ++k)
            if (u(i_ + k) < 0x80 || u(i_ + k) > 0xBF)
                return false;
        out.append(s_, i_, len);
        i_ += len;
        return true;
    }
    bool string(std::string &out)
    {
        if (i_ >= s_.size() || s_[i_] != '"')
            return false;
        ++i_;
        while (i_ < s_.size()) {
            const unsigned char c = static_cast<unsigned char>(s_[i_]);
            if (c == '"') {
                ++i_;
                return true;
            }
            if (c < 0x20)
                return false;
            if (c >= 0x80) {
                if (!utf8_seq(out))
                    return false;
                continue;
            }
            if (c != '\\') {
                out += char(c);
                ++i_;
                continue;
            }
            if (++i_ >= s_.size())
                return false;
            const char e = s_[i_++];
            switch (e) {
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            case '/': out += '/'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'n': out += '\n'; break;
            case 'r': out += '\r'; break;
            case 't': out += '\t'; break;
            case 'u': {
                uint32_t cp = 0;
                if (!hex4(cp))
                    return false;
                if (cp >= 0xD800 && cp <= 0xDBFF) {
                    uint32_t lo = 0;
                    if (!lit("\\u") || !hex4(lo) || lo < 0xDC00 || lo > 0xDFFF)
                        return false;
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (lo - 0xDC00);
                } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
                    return false;
                }
                utf8(cp, out);
                break;
            }
            default: return false;
            }
        }
        return false;
    }
    bool number(std::string &out)
    {
        const size_t start = i_;
        if (i_ < s_.size() && s_[i_] == '-')
            ++i_;
        if (i_ >= s_.size())
            return false;
        if (s_[i_] == '0') {
            ++i_;
        } else if (s_[i_] >= '1' && s_[i_] <= '9') {
            while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_])))
                ++i_;
        } else {
            return false;
        }
        if (i_ < s_.size() && s_[i_] == '.') {
            ++i_;
            const size_t d = i_;
            while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_])))
                ++i_;
            if (i_ == d)
                return false;
        }
        if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) {
            ++i_;
            if (i_ < s_.size() && (s_[i_] == '+' || s_[i_] == '-'))
                ++i_;
            const size_t d = i_;
            while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_])))
                ++i_;
            if (i_ == d)
                return false;
        }
        out = s_.substr(start, i_ - start);
        return true;
    }
    bool value(JValue &v, int depth)
    {
        if (depth > 64 || i_ >= s_.size())
            return false;
        const char c = s_[i_];
        if (c == '{') {
            v.kind = JValue::OBJECT;
            ++i_;
            ws();
            if (i_ < s_.size() && s_[i_] == '}')
                return ++i_, true;
            for (;;) {
                std::string key;
                ws();
                if (!string(key))
                    return false;
                ws();
                if (!lit(":"))
                    return false;
                ws();
                JValue member;
                if (!value(member, depth + 1))
                    return false;
                v.members.emplace_back(std::move(key), std::move(member));
                ws();
                if (lit(","))
                    continue;
                return lit("}");
            }
        }
        if (c == '[') {
            v.kind = JValue::ARRAY;
            ++i_;
            ws();
            if (i_ < s_.size() && s_[i_] == ']')
                return ++i_, true;
            for (;;) {
                ws();
                JValue item;
                if (!value(item, depth + 1))
                    return false;
                v.items.push_back(std::move(item));
                ws();
                if (lit(","))
                    continue;
                return lit("]");
            }
        }
        if (c == '"') {
            v.kind = JValue::STRING;
            return string(v.str);
        }
        if (lit("true")) {
            v.kind = JValue::BOOL;
            v.b = true;
            return true;
        }
        if (lit("false")) {
            v.kind = JValue::BOOL;
            return true;
        }
        if (lit("null"))
            return true;
        v.kind = JValue::NUMBER;
        return number(v.str);
    }
};

inline bool parse_json(const std::string &text, JValue &out)
{
    return JsonReader(text).parse(out);
}

// ---- Base-64 (RFC 4648), strict: padding required, no other characters ----

inline bool base64_decode(const std::string &in, Bytes &out)
{
    out.clear();
    if (in.size() % 4)
        return false;
    auto val = [](char c) -> int {
        if (c >= 'A' && c <= 'Z')
            return c - 'A';
        if (c >= 'a' && c <= 'z')
            return c - 'a' + 26;
        if (c >= '0' && c <= '9')
            return c - '0' + 52;
        return c == '+' ? 62 : c == '/' ? 63 : -1;
    };
    for (size_t i = 0; i < in.size(); i += 4) {
        const bool last = i + 4 == in.size();
        int v[4];
        int pads = 0;
        for (int k = 0; k < 4; ++k) {
            if (in[i + k] == '=' && last && k >= 2) {
                v[k] = 0;
                ++pads;
                continue;
            }
            if (pads)
                return false;
            if ((v[k] = val(in[i + k])) < 0)
                return false;
        }
        const uint32_t n = (uint32_t(v[0]) << 18) | (uint32_t(v[1]) << 12) | (uint32_t(v[2]) << 6) | uint32_t(v[3]);
        out.push_back(uint8_t(n >> 16));
        if (pads < 2)
            out.push_back(uint8_t(n >> 8));
        if (pads < 1)
            out.push_back(uint8_t(n));
    }
    return true;
}

// ---- Files ----

inline std::string fixtures_dir()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/fixtures";
}

inline Bytes read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline Bytes fixture(const std::string &rel)
{
    return read_file(fixtures_dir() + "/" + rel);
}

inline void write_file(const std::string &path, const Bytes &data)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char *>(data.data()), std::streamsize(data.size()));
}

inline void write_text(const std::string &path, const std::string &text)
{
    std::ofstream out(path, std::ios::binary);
    out << text;
}

// A fresh directory, removed with its files at the end.
class TempDir {
public:
    TempDir()
    {
        char tmpl[] = "/tmp/zel-mrtd-XXXXXX";
        const char *p = mkdtemp(tmpl);
        path_ = p ? p : "";
    }
    ~TempDir()
    {
        if (DIR *d = opendir(path_.c_str())) {
            while (const dirent *e = readdir(d))
                if (std::strcmp(e->d_name, ".") && std::strcmp(e->d_name, ".."))
                    unlink((path_ + "/" + e->d_name).c_str());
            closedir(d);
        }
        rmdir(path_.c_str());
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return path_; }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

} // namespace mrtdtest

#endif
