// tandro config: what the reader keeps. Its clock, its keys and their lock, EEPROM bytes, and the setup of the
// card ids it sends by itself.
#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

using tandro::parse_hex;
using tandro::to_hex;

const char kName[] = "config";

// A password: 8 characters, or 16 hexadecimal digits.
bool parse_password(const std::string &text, uint8_t pw[8])
{
    std::vector<uint8_t> bytes;
    if (text.size() == 16 && parse_hex(text, bytes)) {
        std::memcpy(pw, bytes.data(), 8);
        return true;
    }
    if (text.size() != 8)
        return false;
    std::memcpy(pw, text.data(), 8);
    return true;
}

int failed(const char *what, ZEL_STATUS st)
{
    return tandro::fail("config", what, st);
}

int need_password(const std::string &text, uint8_t pw[8])
{
    if (text.empty())
        return tandro::usage_error(kName, "this change needs --password PW (8 characters or 16 hex digits)");
    if (!parse_password(text, pw))
        return tandro::usage_error(kName, "a password is 8 characters or 16 hex digits");
    return 0;
}

void done(const tandro::Options &opt, const char *what)
{
    if (opt.json)
        std::printf("{\"done\": %s}\n", tandro::json_string(what).c_str());
    else
        std::printf("%s\n", what);
}

int run_time(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Args &a, const std::string &password)
{
    if (a.size() == 1) {
        uint8_t t[6] = {};
        const ZEL_STATUS st = GetReaderTimeM(h, t);
        if (st != ZEL_OK)
            return failed("time", st);
        if (opt.json)
            std::printf("{\"time\": \"%s\"}\n", to_hex(t, 6).c_str());
        else
            std::printf("time %s\n", to_hex(t, 6).c_str());
        return 0;
    }
    std::vector<uint8_t> t;
    if (a.size() != 3 || a[1] != "set" || !parse_hex(a[2], t) || t.size() != 6)
        return tandro::usage_error(kName, "time set HEX12 --password PW (the 6 time bytes as the reader keeps them)");
    uint8_t pw[8];
    if (const int e = need_password(password, pw))
        return e;
    const ZEL_STATUS st = SetReaderTimeM(h, pw, t.data());
    if (st != ZEL_OK)
        return failed("time set", st);
    done(opt, "time set");
    return 0;
}

int run_key(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Args &a)
{
    uint32_t index = 0;
    std::vector<uint8_t> key;
    if (a.size() != 3 || !tandro::parse_u32(a[1], &index) || index > 31 || !parse_hex(a[2], key) || key.size() != 6)
        return tandro::usage_error(kName, "key INDEX HEX12 (index 0 to 31, a 6-byte key)");
    const ZEL_STATUS st = ReaderKeyWriteM(h, key.data(), static_cast<uint8_t>(index));
    if (st != ZEL_OK)
        return failed("key", st);
    done(opt, "key written");
    return 0;
}

int run_keys(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Args &a, const std::string &password)
{
    if (a.size() != 2 || (a[1] != "lock" && a[1] != "unlock"))
        return tandro::usage_error(kName, "keys lock|unlock --password PW");
    uint8_t pw[8];
    if (const int e = need_password(password, pw))
        return e;
    const bool lock = a[1] == "lock";
    const ZEL_STATUS st = lock ? ReaderKeysLockM(h, pw) : ReaderKeysUnlockM(h, pw);
    if (st != ZEL_OK)
        return failed(lock ? "keys lock" : "keys unlock", st);
    done(opt, lock ? "keys locked" : "keys unlocked");
    return 0;
}

// A hex dump of 16 bytes a line, with the printable bytes beside.
void dump(uint32_t address, const std::vector<uint8_t> &data)
{
    for (size_t i = 0; i < data.size(); i += 16) {
        std::printf("%04X ", static_cast<unsigned>(address + i));
        std::string text;
        for (size_t k = 0; k < 16; ++k) {
            if (i + k < data.size()) {
                std::printf(" %02X", data[i + k]);
                const uint8_t c = data[i + k];
                text += c >= 0x20 && c < 0x7F ? static_cast<char>(c) : '.';
            } else {
                std::printf("   ");
            }
        }
        std::printf("  %s\n", text.c_str());
    }
}

int run_eeprom(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Args &a, const std::string &password)
{
    uint32_t address = 0, count = 16;
    if (a.size() < 2 || !tandro::parse_u32(a[1], &address))
        return tandro::usage_error(kName, "eeprom ADDRESS [COUNT], or eeprom ADDRESS write HEX --password PW");
    if (a.size() == 4 && a[2] == "write") {
        std::vector<uint8_t> data;
        if (!parse_hex(a[3], data) || data.empty())
            return tandro::usage_error(kName, "eeprom ADDRESS write HEX: the bytes in hexadecimal");
        uint8_t pw[8];
        if (const int e = need_password(password, pw))
            return e;
        // At most 128 bytes go in one exchange.
        for (size_t done_bytes = 0; done_bytes < data.size();) {
            const uint32_t n = static_cast<uint32_t>(std::min<size_t>(128, data.size() - done_bytes));
            const ZEL_STATUS st =
                ReaderEepromWriteM(h, data.data() + done_bytes, address + static_cast<uint32_t>(done_bytes), n, pw);
            if (st != ZEL_OK)
                return failed("eeprom write", st);
            done_bytes += n;
        }
        done(opt, "eeprom written");
        return 0;
    }
    if (a.size() > 3 || (a.size() == 3 && (!tandro::parse_u32(a[2], &count) || count == 0 || count > 4096)))
        return tandro::usage_error(kName, "eeprom ADDRESS [COUNT] (COUNT 1 to 4096)");
    std::vector<uint8_t> data(count);
    for (uint32_t at = 0; at < count;) {
        const uint32_t n = std::min<uint32_t>(128, count - at);
        std::memset(data.data() + at, 0, n);
        const ZEL_STATUS st = ReaderEepromReadM(h, data.data() + at, address + at, n);
        if (st != ZEL_OK)
            return failed("eeprom read", st);
        at += n;
    }
    if (opt.json)
        std::printf("{\"address\": %u, \"count\": %u, \"data\": \"%s\"}\n", address, count,
                    to_hex(data.data(), data.size()).c_str());
    else
        dump(address, data);
    return 0;
}

std::string char_text(uint8_t c)
{
    char buf[16];
    if (c >= 0x20 && c < 0x7F)
        std::snprintf(buf, sizeof buf, "'%c'", c);
    else
        std::snprintf(buf, sizeof buf, "0x%02X", c);
    return buf;
}

int run_async(ZEL_HANDLE h, const tandro::Options &opt, const tandro::Args &a)
{
    if (a.size() == 1) {
        uint32_t send = 0, surround = 0, removed = 0, reverse = 0, decimal = 0, baud = 0;
        uint8_t prefix = 0, suffix = 0;
        const ZEL_STATUS st =
            GetAsyncCardIdSendConfigExM(h, &send, &surround, &prefix, &suffix, &removed, &reverse, &decimal, &baud);
        if (st != ZEL_OK)
            return failed("async", st);
        if (opt.json) {
            std::printf("{\"send\": %s, \"surround\": %s, \"removed\": %s, \"reverse\": %s, \"decimal\": %s, "
                        "\"prefix\": %u, \"suffix\": %u, \"baud\": %u}\n",
                        send ? "true" : "false", surround ? "true" : "false", removed ? "true" : "false",
                        reverse ? "true" : "false", decimal ? "true" : "false", prefix, suffix, baud);
        } else {
            std::printf("send card ids     %s\n", send ? "on" : "off");
            std::printf("prefix and suffix %s (%s, %s)\n", surround ? "on" : "off", char_text(prefix).c_str(),
                        char_text(suffix).c_str());
            std::printf("announce removal  %s\n", removed ? "on" : "off");
            std::printf("reversed bytes    %s\n", reverse ? "on" : "off");
            std::printf("decimal           %s\n", decimal ? "on" : "off");
            std::printf("baud              %u\n", baud);
        }
        return 0;
    }
    if (a[1] != "set")
        return tandro::usage_error(kName, "async, or async set [send] [surround] [removed] [reverse] [decimal] "
                                          "[json] [prefix=C] [suffix=C] [baud=N]");
    bool send = false, surround = false, removed = false, reverse = false, decimal = false, json = false;
    uint8_t prefix = '!', suffix = '!';
    uint32_t baud = 1000000;
    auto one_char = [](const std::string &v, uint8_t &out) {
        if (v.size() == 1) {
            out = static_cast<uint8_t>(v[0]);
            return true;
        }
        uint32_t n = 0;
        if (tandro::parse_u32(v, &n) && n <= 0xFF) {
            out = static_cast<uint8_t>(n);
            return true;
        }
        return false;
    };
    for (size_t i = 2; i < a.size(); ++i) {
        const std::string &w = a[i];
        bool good = true;
        if (w == "send")
            send = true;
        else if (w == "surround")
            surround = true;
        else if (w == "removed")
            removed = true;
        else if (w == "reverse")
            reverse = true;
        else if (w == "decimal")
            decimal = true;
        else if (w == "json")
            json = true;
        else if (w.rfind("prefix=", 0) == 0)
            good = one_char(w.substr(7), prefix);
        else if (w.rfind("suffix=", 0) == 0)
            good = one_char(w.substr(7), suffix);
        else if (w.rfind("baud=", 0) == 0)
            good = tandro::parse_u32(w.substr(5), &baud);
        else
            good = false;
        if (!good)
            return tandro::usage_error(kName, "async set: unknown or bad word \"" + w + "\"");
    }
    if (json && (surround || reverse || decimal))
        return tandro::usage_error(kName, "async set json takes only send, removed and baud=N");
    const ZEL_STATUS st =
        json ? SetAsyncCardJsonSendConfigM(h, send, removed, baud)
             : SetAsyncCardIdSendConfigExM(h, send, surround, prefix, suffix, removed, reverse, decimal, baud);
    if (st != ZEL_OK)
        return failed("async set", st);
    done(opt, "async setup written");
    return 0;
}

const tandro::OptionTable TABLE = {
    {
        {"time", "the reader's clock: its 6 time bytes"},
        {"time set HEX12", "sets the clock to 6 time bytes as the reader keeps them (needs --password)"},
        {"key INDEX HEX12", "writes reader key INDEX (0 to 31), a 6-byte key"},
        {"keys lock|unlock", "locks or unlocks the reader's keys (needs --password)"},
        {"eeprom ADDRESS [COUNT]", "a hex dump of COUNT EEPROM bytes from ADDRESS (16 by default, at most 4096)"},
        {"eeprom ADDRESS write HEX", "writes bytes to the EEPROM from ADDRESS (needs --password)"},
        {"async", "the setup of the card ids the reader sends by itself"},
        {"async set [WORD...]", "writes that setup: the words below, each it names turned on"},
    },
    {
        {"--password", "PW", "the reader's password for the changes that need it: 8 characters or 16 hex digits"},
    },
    "The words of async set: send (send card ids), surround (with a prefix and suffix), removed (announce a "
    "removal), reverse (the id's bytes reversed), decimal (the id in decimal), json (ids as JSON, which takes only "
    "send, removed and baud=N), prefix=C and suffix=C (one character or a number to 255; '!' by default) and baud=N "
    "(1000000 by default). Words not given are off.\n\n"
    "A change that needs --password writes nothing without it.",
};

int run_config(const tandro::Options &opt, const tandro::Args &given)
{
    tandro::Parsed parsed;
    if (!tandro::parse(kName, TABLE, given, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    const std::string password = parsed.value("--password");
    if (args.empty())
        return tandro::usage_error(kName, "say what: time, key, keys, eeprom or async (tandro --help)");
    const std::string &what = args[0];
    if (what != "time" && what != "key" && what != "keys" && what != "eeprom" && what != "async")
        return tandro::usage_error(kName, "unknown subject \"" + what + "\": time, key, keys, eeprom or async");
    tandro::ReaderSession session;
    if (!session.open(kName, opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    if (what == "time")
        return run_time(h, opt, args, password);
    if (what == "key")
        return run_key(h, opt, args);
    if (what == "keys")
        return run_keys(h, opt, args, password);
    if (what == "eeprom")
        return run_eeprom(h, opt, args, password);
    return run_async(h, opt, args);
}

const tandro::Registration config_cmd(
    {"config", "time|key|keys|eeprom|async ...",
     "reads and sets the reader's time, keys, EEPROM bytes and card id setup (--password PW for changes)", run_config,
     false, &TABLE});

} // namespace
