// tandro records: the reader's access-system records (rights, the validate record, the card's type,
// durations, number, credit and period); tandro balance: the credit kept in the value block pair 61 and 62
// of the memory card in the field.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

const char *RECORDS_USAGE = "[show | right N [FIRST SECOND HH:MM HH:MM DAYS [MAX]] | erase N | validate [HEX] | "
                            "card-type [N] | daily [MINUTES] | total [MINUTES] | credit [VALUE BEGIN END]]";
const char *BALANCE_USAGE = "get | set VALUE  [--key HEX] [--key-b]";

const tandro::OptionTable RECORDS_TABLE = {
    {
        {"[show]", "card type, durations, card number, credit and period, validate record"},
        {"right N", "right record N (0 to 255)"},
        {"right N FIRST SECOND HH:MM HH:MM DAYS [MAX]", "writes right record N (below)"},
        {"erase N", "clears right record N"},
        {"validate [HEX]", "reads the validate record, or writes the ten bytes given"},
        {"card-type [N]", "reads the card type, or writes it (0 to 255)"},
        {"daily [MINUTES]", "reads the daily duration, or writes it (0 to 65535)"},
        {"total [MINUTES]", "reads the total duration, or writes it"},
        {"credit [VALUE BEGIN END]", "reads, or writes the credit and its period (dates below)"},
    },
    {},
    "The access-system records the reader keeps. Every write but erase reads its record back.\n\n"
    "A right record written takes two values (0 to 65535), a start and an end time, DAYS as seven 0 or 1 (the "
    "first day first) and, with MAX (0 to 255), a maximum daily counter.\n\n"
    "Dates are YYYY-MM-DDTHH:MM, years 2000 to 2255.",
};

const tandro::OptionTable BALANCE_TABLE = {
    {
        {"get", "reads the credit"},
        {"set VALUE", "writes the credit (signed, 32 bits) to both blocks and reads it back"},
    },
    {
        {"--key", "HEX", "the sector's key, 6 bytes (default FFFFFFFFFFFF)"},
        {"--key-b", nullptr, "authenticate with key B (default key A)"},
    },
    "The credit kept in the value blocks 61 and 62 of the memory card in the field, each holding the other's "
    "number as its address. A read settles an interrupted update.",
};

int fail(const tandro::Options &, const char *command, const std::string &what, ZEL_STATUS st)
{
    return tandro::fail(command, what, st);
}

// "HH:MM" with an hour below 24 and a minute below 60.
bool parse_time(const std::string &t, uint8_t *hour, uint8_t *minute)
{
    unsigned h = 0, m = 0;
    char tail = 0;
    if (t.size() != 5 || t[2] != ':' || std::sscanf(t.c_str(), "%2u:%2u%c", &h, &m, &tail) != 2 || h > 23 || m > 59)
        return false;
    *hour = static_cast<uint8_t>(h);
    *minute = static_cast<uint8_t>(m);
    return true;
}

// Seven characters 0 or 1, the first day of the week first.
bool parse_days(const std::string &t, uint8_t *days)
{
    if (t.size() != 7)
        return false;
    for (int i = 0; i < 7; ++i) {
        if (t[i] != '0' && t[i] != '1')
            return false;
        days[i] = t[i] == '1';
    }
    return true;
}

std::string days_text(const uint8_t *days)
{
    std::string s;
    for (int i = 0; i < 7; ++i)
        s += days[i] ? '1' : '0';
    return s;
}

// "YYYY-MM-DDTHH:MM" (or with a space), a year from 2000 to 2255.
bool parse_date(const std::string &t, uint32_t *d)
{
    unsigned y = 0, mo = 0, day = 0, h = 0, mi = 0;
    char sep = 0, tail = 0;
    if (t.size() != 16 || std::sscanf(t.c_str(), "%4u-%2u-%2u%c%2u:%2u%c", &y, &mo, &day, &sep, &h, &mi, &tail) != 6 ||
        (sep != 'T' && sep != ' ') || y < 2000 || y > 2255 || mo < 1 || mo > 12 || day < 1 || day > 31 || h > 23 ||
        mi > 59)
        return false;
    const unsigned v[5] = {y, mo, day, h, mi};
    for (int i = 0; i < 5; ++i)
        d[i] = v[i];
    return true;
}

std::string date_text(const uint32_t *d)
{
    char t[48];
    std::snprintf(t, sizeof t, "%04u-%02u-%02uT%02u:%02u", d[0], d[1], d[2], d[3], d[4]);
    return t;
}

std::string hm(uint8_t h, uint8_t m)
{
    char t[16];
    std::snprintf(t, sizeof t, "%02u:%02u", h, m);
    return t;
}

std::string field(ZEL_STATUS st, const std::string &value, bool json)
{
    if (st == ZEL_OK)
        return value;
    return json ? "null" : std::string(ZEL_Status2String(st));
}

int show(const tandro::Options &opt, ZEL_HANDLE h)
{
    uint8_t type = 0, validate[ZEL_AIS_VALIDATE_FIELDS] = {};
    uint16_t daily = 0;
    uint32_t total = 0, number = 0, c[11] = {};
    const ZEL_STATUS st_type = ais_get_card_typeM(h, &type);
    const ZEL_STATUS st_daily = ais_get_card_daily_durationM(h, &daily);
    const ZEL_STATUS st_total = ais_get_card_total_durationM(h, &total);
    const ZEL_STATUS st_number = ais_get_card_numberM(h, &number);
    const ZEL_STATUS st_credit = ais_get_credit_and_period_validityM(h, c, c + 1, c + 2, c + 3, c + 4, c + 5, c + 6,
                                                                     c + 7, c + 8, c + 9, c + 10);
    const ZEL_STATUS st_validate = ais_get_validate_recordM(h, validate);
    if (st_type != ZEL_OK && st_daily != ZEL_OK && st_total != ZEL_OK && st_number != ZEL_OK && st_credit != ZEL_OK &&
        st_validate != ZEL_OK)
        return fail(opt, "records", "no record could be read", st_type);
    const bool j = opt.json;
    const std::string credit = st_credit != ZEL_OK ? field(st_credit, "", j)
                               : j ? "{\"value\": " + std::to_string(c[0]) + ", \"begin\": \"" + date_text(c + 1) +
                                         "\", \"end\": \"" + date_text(c + 6) + "\"}"
                                   : std::to_string(c[0]) + ", valid " + date_text(c + 1) + " to " + date_text(c + 6);
    const std::string vhex = tandro::to_hex(validate, sizeof validate);
    if (j) {
        std::printf("{\"card_type\": %s, \"daily_duration\": %s, \"total_duration\": %s, \"card_number\": %s, "
                    "\"credit\": %s, \"validate\": %s}\n",
                    field(st_type, std::to_string(type), j).c_str(), field(st_daily, std::to_string(daily), j).c_str(),
                    field(st_total, std::to_string(total), j).c_str(),
                    field(st_number, std::to_string(number), j).c_str(), credit.c_str(),
                    field(st_validate, "\"" + vhex + "\"", j).c_str());
        return 0;
    }
    auto line = [](const char *name, const std::string &value) { std::printf("%-16s%s\n", name, value.c_str()); };
    line("card type", field(st_type, std::to_string(type), j));
    line("daily duration", field(st_daily, std::to_string(daily) + " min", j));
    line("total duration", field(st_total, std::to_string(total) + " min", j));
    line("card number", field(st_number, std::to_string(number), j));
    line("credit", credit);
    line("validate", field(st_validate, vhex, j));
    return 0;
}

int right(const tandro::Options &opt, ZEL_HANDLE h, uint8_t rec)
{
    uint16_t a = 0, b = 0;
    uint8_t sh = 0, sm = 0, eh = 0, em = 0, days[7] = {}, type = 0, data[ZEL_AIS_RIGHT_TYPE_DATA] = {}, max = 0;
    ZEL_STATUS st = ais_get_right_type_recordM(h, rec, &type, data);
    if (st != ZEL_OK)
        return fail(opt, "records", "right record " + std::to_string(rec), st);
    const bool counter = type == 1;
    st = counter ? ais_get_right_record_type_max_daily_counterM(h, rec, &a, &b, &sh, &sm, &eh, &em, days, &max)
                 : ais_get_right_recordM(h, rec, &a, &b, &sh, &sm, &eh, &em, days);
    if (st != ZEL_OK)
        return fail(opt, "records", "right record " + std::to_string(rec), st);
    const std::string max_text = counter ? std::to_string(max) : (opt.json ? "null" : "-");
    if (opt.json)
        std::printf("{\"record\": %u, \"type\": %u, \"first\": %u, \"second\": %u, \"start\": \"%s\", \"end\": \"%s\", "
                    "\"days\": \"%s\", \"max_daily_counter\": %s}\n",
                    rec, type, a, b, hm(sh, sm).c_str(), hm(eh, em).c_str(), days_text(days).c_str(), max_text.c_str());
    else
        std::printf("right record %u: type %u, values %u and %u, %s to %s, days %s, daily maximum %s\n", rec, type, a,
                    b, hm(sh, sm).c_str(), hm(eh, em).c_str(), days_text(days).c_str(), max_text.c_str());
    return 0;
}

int done(const tandro::Options &opt, const std::string &what)
{
    if (opt.json)
        std::printf("{\"result\": %s}\n", tandro::json_string(what).c_str());
    else
        std::printf("%s\n", what.c_str());
    return 0;
}

int run_records(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("records", RECORDS_TABLE, all, parsed))
        return 2;
    const tandro::Args &args = parsed.words;
    const std::string what = args.empty() ? "show" : args[0];
    const size_t n = args.size();
    uint32_t num = 0, v1 = 0, v2 = 0, max = 0, begin[5] = {}, end[5] = {};
    uint8_t sh = 0, sm = 0, eh = 0, em = 0, days[7] = {};
    std::vector<uint8_t> hex;
    const bool ok =
        (what == "show" && n <= 1) ||
        (what == "right" && (n == 2 || n == 7 || n == 8) && tandro::parse_u32(args[1], &num) && num < 256 &&
         (n == 2 || (tandro::parse_u32(args[2], &v1) && v1 <= 0xFFFF && tandro::parse_u32(args[3], &v2) &&
                     v2 <= 0xFFFF && parse_time(args[4], &sh, &sm) && parse_time(args[5], &eh, &em) &&
                     parse_days(args[6], days) && (n == 7 || (tandro::parse_u32(args[7], &max) && max < 256))))) ||
        (what == "erase" && n == 2 && tandro::parse_u32(args[1], &num) && num < 256) ||
        (what == "validate" &&
         (n == 1 || (n == 2 && tandro::parse_hex(args[1], hex) && hex.size() == ZEL_AIS_VALIDATE_FIELDS))) ||
        (what == "card-type" && (n == 1 || (n == 2 && tandro::parse_u32(args[1], &num) && num < 256))) ||
        (what == "daily" && (n == 1 || (n == 2 && tandro::parse_u32(args[1], &num) && num <= 0xFFFF))) ||
        (what == "total" && (n == 1 || (n == 2 && tandro::parse_u32(args[1], &num)))) ||
        (what == "credit" && (n == 1 || (n == 4 && tandro::parse_u32(args[1], &num) && parse_date(args[2], begin) &&
                                         parse_date(args[3], end))));
    if (!ok)
        return tandro::usage_error("records", std::string("usage: tandro records ") + RECORDS_USAGE);
    tandro::ReaderSession session;
    if (!session.open("records", opt))
        return 1;
    ZEL_HANDLE h = session.hnd();
    const uint8_t rec = static_cast<uint8_t>(num);
    ZEL_STATUS st = ZEL_OK;
    if (what == "show")
        return show(opt, h);
    if (what == "right") {
        if (n == 2)
            return right(opt, h, rec);
        st = n == 8 ? ais_set_right_record_type_max_daily_counterM(h, rec, static_cast<uint16_t>(v1),
                                                                   static_cast<uint16_t>(v2), sh, sm, eh, em, days,
                                                                   static_cast<uint8_t>(max))
                    : ais_set_right_recordM(h, rec, static_cast<uint16_t>(v1), static_cast<uint16_t>(v2), sh, sm, eh,
                                            em, days);
        if (st != ZEL_OK)
            return fail(opt, "records", "right record " + std::to_string(rec), st);
        return right(opt, h, rec);
    }
    if (what == "erase") {
        if ((st = ais_erase_right_recordM(h, rec)) != ZEL_OK)
            return fail(opt, "records", "right record " + std::to_string(rec), st);
        return done(opt, "right record " + std::to_string(rec) + " erased");
    }
    if (what == "validate") {
        uint8_t fields[ZEL_AIS_VALIDATE_FIELDS] = {};
        if (n == 2 && (st = ais_set_validate_recordM(h, hex.data())) != ZEL_OK)
            return fail(opt, "records", "validate record", st);
        if ((st = ais_get_validate_recordM(h, fields)) != ZEL_OK)
            return fail(opt, "records", "validate record", st);
        const std::string t = tandro::to_hex(fields, sizeof fields);
        if (opt.json)
            std::printf("{\"validate\": \"%s\"}\n", t.c_str());
        else
            std::printf("validate record: %s\n", t.c_str());
        return 0;
    }
    if (what == "card-type" || what == "daily" || what == "total") {
        uint8_t type = 0;
        uint16_t daily = 0;
        uint32_t total = 0;
        if (n == 2) {
            st = what == "card-type" ? ais_set_card_typeM(h, rec)
                 : what == "daily"   ? ais_set_card_daily_durationM(h, static_cast<uint16_t>(num))
                                     : ais_set_card_total_durationM(h, num);
            if (st != ZEL_OK)
                return fail(opt, "records", what, st);
        }
        st = what == "card-type" ? ais_get_card_typeM(h, &type)
             : what == "daily"   ? ais_get_card_daily_durationM(h, &daily)
                                 : ais_get_card_total_durationM(h, &total);
        if (st != ZEL_OK)
            return fail(opt, "records", what, st);
        const uint32_t value = what == "card-type" ? type : what == "daily" ? daily : total;
        const char *key = what == "card-type" ? "card_type" : what == "daily" ? "daily_duration" : "total_duration";
        if (opt.json)
            std::printf("{\"%s\": %u}\n", key, value);
        else
            std::printf("%s: %u%s\n", what.c_str(), value, what == "card-type" ? "" : " min");
        return 0;
    }
    // credit
    if (n == 4 && (st = ais_set_credit_and_period_validityM(h, num, begin[0], begin[1], begin[2], begin[3], begin[4],
                                                            end[0], end[1], end[2], end[3], end[4])) != ZEL_OK)
        return fail(opt, "records", "credit", st);
    uint32_t c[11] = {};
    if ((st = ais_get_credit_and_period_validityM(h, c, c + 1, c + 2, c + 3, c + 4, c + 5, c + 6, c + 7, c + 8, c + 9,
                                                  c + 10)) != ZEL_OK)
        return fail(opt, "records", "credit", st);
    if (opt.json)
        std::printf("{\"credit\": %u, \"begin\": \"%s\", \"end\": \"%s\"}\n", c[0], date_text(c + 1).c_str(),
                    date_text(c + 6).c_str());
    else
        std::printf("credit %u, valid %s to %s\n", c[0], date_text(c + 1).c_str(), date_text(c + 6).c_str());
    return 0;
}

int run_balance(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("balance", BALANCE_TABLE, args, parsed))
        return 2;
    const tandro::Args &a = parsed.words;
    std::vector<uint8_t> key(6, 0xFF);
    for (const std::string &given : parsed.values("--key")) // the last one given counts; each must be one
        if (!tandro::parse_hex(given, key) || key.size() != 6)
            return tandro::usage_error("balance", "--key takes 6 bytes in hexadecimal");
    const uint8_t auth = parsed.has("--key-b") ? 0x61 : 0x60;
    int64_t value = 0;
    bool set = false;
    if (a.size() == 1 && a[0] == "get") {
    } else if (a.size() == 2 && a[0] == "set") {
        // A signed decimal value of 32 bits.
        const std::string &t = a[1];
        const bool neg = !t.empty() && t[0] == '-';
        uint32_t mag = 0;
        if (!tandro::parse_u32(neg ? t.substr(1) : t, &mag) || (neg ? mag > 0x80000000u : mag > 0x7FFFFFFFu))
            return tandro::usage_error("balance", "set takes a value from -2147483648 to 2147483647");
        value = neg ? -static_cast<int64_t>(mag) : mag;
        set = true;
    } else {
        return tandro::usage_error("balance", std::string("usage: tandro balance ") + BALANCE_USAGE);
    }
    tandro::ReaderSession session;
    if (!session.open("balance", opt))
        return 1;
    if (session.sim())
        tandro::bring_forward(session.sim(), "classic");
    ZEL_STATUS st = ZEL_OK;
    if (set && (st = BalanceSetM(session.hnd(), auth, key.data(), static_cast<int32_t>(value))) != ZEL_OK)
        return fail(opt, "balance", "write", st);
    // The pair is read through the global reader.
    tandro::GlobalReader global(session.hnd());
    int32_t credit = 0;
    if ((st = BalanceGet(auth, key.data(), &credit)) != ZEL_OK)
        return fail(opt, "balance", "read", st);
    if (opt.json)
        std::printf("{\"balance\": %d}\n", credit);
    else
        std::printf("balance: %d\n", credit);
    return 0;
}

const tandro::Registration records_cmd({"records", RECORDS_USAGE,
                                        "the access-system records: rights, validate, card type, durations, credit",
                                        run_records, false, &RECORDS_TABLE});
const tandro::Registration balance_cmd({"balance", BALANCE_USAGE,
                                        "the credit balance in a mirrored pair of value blocks", run_balance, false,
                                        &BALANCE_TABLE});

} // namespace
