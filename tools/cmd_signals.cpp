// tandro signal, led, sleep, rf, se and features: the reader's light and sound, its LEDs, sleep, the analog
// registers of its RF front end, its secure element and its feature blocks.
//
//   tandro signal LIGHT SOUND | sound UNITS | speaker HERTZ
//   tandro led red on|off | rgb RRGGBB [INTENSITY] | rgb off | green blink|still | internal on|off
//   tandro sleep enter|leave | auto [SECONDS]
//   tandro rf get SET | set SET V1 V2 V3 V4 V5 [TX0 TX1 TXH TXL] | default SET
//   tandro se status | config | otp | info | lock config|data | lock slot N
//   tandro features discovery [set HEX] | aid [set HEX] | mobile
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/command_helpers.h"
#include "tools/options.h"
#include "tools/session.h"

namespace {

using tandro::Args;
using tandro::Options;

using tandro::done;
using tandro::failed;

bool byte_arg(const std::string &text, uint8_t &out, uint32_t max = 0xFF)
{
    uint32_t v = 0;
    if (!tandro::parse_u32(text, &v) || v > max)
        return false;
    out = static_cast<uint8_t>(v);
    return true;
}

// The words of a command by its table (it takes no options of its own); false after a usage error.
bool words_of(const char *command, const tandro::OptionTable &table, const Args &all, Args &words)
{
    tandro::Parsed parsed;
    if (!tandro::parse(command, table, all, parsed))
        return false;
    words = parsed.words;
    return true;
}

// Opens the reader, runs one step, and reports a failure of either.
template <typename F> int with_reader(const char *command, const Options &opt, F step)
{
    tandro::ReaderSession session;
    if (!session.open(command, opt))
        return 1;
    return step(session.hnd());
}

// ---- signal ----

const tandro::OptionTable kSignalTable = {
    {
        {"LIGHT SOUND", "a light mode and a sound mode (0 to 255 each)"},
        {"sound UNITS", "a sound of UNITS x 10 ms (0 to 255)"},
        {"speaker HERTZ", "the speaker's tone (20 to 20000; other values: off)"},
    },
    {},
};

int run_signal(const Options &opt, const Args &all)
{
    const char *name = "signal";
    Args a;
    if (!words_of(name, kSignalTable, all, a))
        return 2;
    uint8_t x = 0, y = 0;
    uint32_t hz = 0;
    if (a.size() == 2 && a[0] == "sound" && byte_arg(a[1], x))
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = ReaderSoundM(h, x);
            return st ? failed(opt, name, "sound", st) : (done(opt, "sound played"), 0);
        });
    if (a.size() == 2 && a[0] == "speaker" && tandro::parse_u32(a[1], &hz) && hz <= 0xFFFF)
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = SetSpeakerFrequencyM(h, static_cast<uint16_t>(hz));
            return st ? failed(opt, name, "speaker", st) : (done(opt, "speaker set"), 0);
        });
    if (a.size() == 2 && byte_arg(a[0], x) && byte_arg(a[1], y))
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = ReaderUISignalM(h, x, y);
            return st ? failed(opt, name, "signal", st) : (done(opt, "signal given"), 0);
        });
    return tandro::usage_error(name, "LIGHT SOUND, sound UNITS or speaker HERTZ (tandro signal --help)");
}

// ---- led ----

const tandro::OptionTable kLedTable = {
    {
        {"red on|off", "the red light"},
        {"rgb RRGGBB [INTENSITY]", "the RGB light in a colour in hex, intensity 0 to 100 (default 100)"},
        {"rgb off", "the RGB light off"},
        {"green blink|still", "the green LED blinking or still"},
        {"internal on|off", "the reader's internal RGB light"},
    },
    {},
};

int run_led(const Options &opt, const Args &all)
{
    const char *name = "led";
    Args a;
    if (!words_of(name, kLedTable, all, a))
        return 2;
    const auto onoff = [](const std::string &w, const char *on, const char *off, bool &v) {
        v = w == on;
        return w == on || w == off;
    };
    bool on = false;
    using Step = ZEL_STATUS (*)(ZEL_HANDLE, bool);
    Step step = nullptr;
    const char *what = nullptr;
    if (a.size() == 2 && a[0] == "red" && onoff(a[1], "on", "off", on)) {
        step = [](ZEL_HANDLE h, bool v) { return ZelRedLightControlM(h, v ? 1 : 0); };
        what = on ? "red light on" : "red light off";
    } else if (a.size() == 2 && a[0] == "green" && onoff(a[1], "blink", "still", on)) {
        step = [](ZEL_HANDLE h, bool v) { return v ? GreenLedBlinkingTurnOnM(h) : GreenLedBlinkingTurnOffM(h); };
        what = on ? "green led blinking" : "green led still";
    } else if (a.size() == 2 && a[0] == "internal" && onoff(a[1], "on", "off", on)) {
        step = [](ZEL_HANDLE h, bool v) { return v ? RgbInternalOnM(h) : RgbInternalOffM(h); };
        what = on ? "internal rgb on" : "internal rgb off";
    }
    if (step)
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = step(h, on);
            return st ? failed(opt, name, what, st) : (done(opt, what), 0);
        });
    if (a.size() >= 2 && a.size() <= 3 && a[0] == "rgb") {
        std::vector<uint8_t> rgb;
        uint8_t intensity = 100;
        const bool off = a.size() == 2 && a[1] == "off";
        if (off ||
            (tandro::parse_hex(a[1], rgb) && rgb.size() == 3 && (a.size() == 2 || byte_arg(a[2], intensity, 100)))) {
            if (off)
                rgb.assign(3, 0);
            return with_reader(name, opt, [&](ZEL_HANDLE h) {
                const ZEL_STATUS st = ZelRgbLightControlM(h, rgb[0], rgb[1], rgb[2], intensity, off ? 0 : 1);
                return st ? failed(opt, name, "rgb", st) : (done(opt, off ? "rgb off" : "rgb on"), 0);
            });
        }
    }
    return tandro::usage_error(name, "red on|off, rgb RRGGBB [INTENSITY], rgb off, green blink|still or internal "
                                     "on|off (tandro led --help)");
}

// ---- sleep ----

const tandro::OptionTable kSleepTable = {
    {
        {"enter|leave", "puts the reader to sleep, or wakes it"},
        {"auto", "the auto-sleep time in seconds"},
        {"auto SECONDS", "sets it (0 to 255, 0: never)"},
    },
    {},
};

int run_sleep(const Options &opt, const Args &all)
{
    const char *name = "sleep";
    Args a;
    if (!words_of(name, kSleepTable, all, a))
        return 2;
    if (a.size() == 1 && (a[0] == "enter" || a[0] == "leave")) {
        const bool enter = a[0] == "enter";
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = enter ? ZelEnterSleepModeM(h) : ZelLeaveSleepModeM(h);
            return st ? failed(opt, name, a[0].c_str(), st) : (done(opt, enter ? "asleep" : "awake"), 0);
        });
    }
    uint8_t secs = 0;
    if (a.size() == 2 && a[0] == "auto" && byte_arg(a[1], secs))
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = AutoSleepSetM(h, secs);
            return st ? failed(opt, name, "auto sleep", st) : (done(opt, "auto sleep set"), 0);
        });
    if (a.size() == 1 && a[0] == "auto")
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = AutoSleepGetM(h, &secs);
            if (st)
                return failed(opt, name, "auto sleep", st);
            if (opt.json)
                std::printf("{\"auto_sleep_seconds\": %u}\n", secs);
            else
                std::printf("auto sleep %u s\n", secs);
            return 0;
        });
    return tandro::usage_error(name, "enter, leave, auto or auto SECONDS (tandro sleep --help)");
}

// ---- rf ----

const tandro::OptionTable kRfTable = {
    {
        {"get SET", "the registers of a set"},
        {"set SET V1 V2 V3 V4 V5 [TX0 TX1 TXH TXL]", "writes them (the transmit values for a-trans and b-trans)"},
        {"default SET", "the set's default values (not a-trans or b-trans)"},
    },
    {},
    "SET: a, b, 212, 424, a-trans, b-trans, pn7462. The registers go by position: V1 to V5 are the five values "
    "of the set (V1 and V5 0 to 15, V2 and V4 0 to 7, V3 0 or 1; pn7462: V1, V2, V4 0 to 15, V3, V5 0 to 3); "
    "the transmit sets add two bytes and two 4-bit values.",
};

struct RfSet {
    const char *name;
    bool trans, has_default;
    ZEL_STATUS (*get)(ZEL_HANDLE, uint8_t *v);
    ZEL_STATUS (*set)(ZEL_HANDLE, const uint8_t *v);
    ZEL_STATUS (*reset)(ZEL_HANDLE);
};

const RfSet kRfSets[] = {
    {"a", false, true,
     [](ZEL_HANDLE h, uint8_t *v) { return GetRfAnalogRegistersTypeAM(h, v, v + 1, v + 2, v + 3, v + 4); },
     [](ZEL_HANDLE h, const uint8_t *v) { return SetRfAnalogRegistersTypeAM(h, v[0], v[1], v[2], v[3], v[4]); },
     SetRfAnalogRegistersTypeADefaultM},
    {"b", false, true,
     [](ZEL_HANDLE h, uint8_t *v) { return GetRfAnalogRegistersTypeBM(h, v, v + 1, v + 2, v + 3, v + 4); },
     [](ZEL_HANDLE h, const uint8_t *v) { return SetRfAnalogRegistersTypeBM(h, v[0], v[1], v[2], v[3], v[4]); },
     SetRfAnalogRegistersTypeBDefaultM},
    {"212", false, true,
     [](ZEL_HANDLE h, uint8_t *v) { return GetRfAnalogRegistersISO14443_212M(h, v, v + 1, v + 2, v + 3, v + 4); },
     [](ZEL_HANDLE h, const uint8_t *v) { return SetRfAnalogRegistersISO14443_212M(h, v[0], v[1], v[2], v[3], v[4]); },
     SetRfAnalogRegistersISO14443_212DefaultM},
    {"424", false, true,
     [](ZEL_HANDLE h, uint8_t *v) { return GetRfAnalogRegistersISO14443_424M(h, v, v + 1, v + 2, v + 3, v + 4); },
     [](ZEL_HANDLE h, const uint8_t *v) { return SetRfAnalogRegistersISO14443_424M(h, v[0], v[1], v[2], v[3], v[4]); },
     SetRfAnalogRegistersISO14443_424DefaultM},
    {"a-trans", true, false,
     [](ZEL_HANDLE h, uint8_t *v) {
         return GetRfAnalogRegistersTypeATransM(h, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8);
     },
     [](ZEL_HANDLE h, const uint8_t *v) {
         return SetRfAnalogRegistersTypeATransM(h, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]);
     },
     nullptr},
    {"b-trans", true, false,
     [](ZEL_HANDLE h, uint8_t *v) {
         return GetRfAnalogRegistersTypeBTransM(h, v, v + 1, v + 2, v + 3, v + 4, v + 5, v + 6, v + 7, v + 8);
     },
     [](ZEL_HANDLE h, const uint8_t *v) {
         return SetRfAnalogRegistersTypeBTransM(h, v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7], v[8]);
     },
     nullptr},
    {"pn7462", false, true,
     [](ZEL_HANDLE h, uint8_t *v) { return GetRfAnalogRegistersPN7462M(h, v, v + 1, v + 2, v + 3, v + 4); },
     [](ZEL_HANDLE h, const uint8_t *v) { return SetRfAnalogRegistersPN7462M(h, v[0], v[1], v[2], v[3], v[4]); },
     SetRfAnalogRegistersPN7462DefaultM},
};

// The largest value of each position: five values of the set, then the transmit values.
bool rf_values_fit(const RfSet &s, const uint8_t *v, size_t n)
{
    static const uint8_t plain[9] = {15, 7, 1, 7, 15, 255, 255, 15, 15};
    static const uint8_t pn[5] = {15, 15, 3, 15, 3};
    const bool pn7462 = std::string(s.name) == "pn7462";
    for (size_t i = 0; i < n; ++i)
        if (v[i] > (pn7462 ? pn[i] : plain[i]))
            return false;
    return true;
}

int run_rf(const Options &opt, const Args &all)
{
    const char *name = "rf";
    Args a;
    if (!words_of(name, kRfTable, all, a))
        return 2;
    const RfSet *set = nullptr;
    if (a.size() >= 2)
        for (const RfSet &s : kRfSets)
            if (a[1] == s.name)
                set = &s;
    const size_t count = set && set->trans ? 9 : 5;
    if (!set || (a[0] != "get" && a[0] != "set" && a[0] != "default"))
        return tandro::usage_error(name, "get SET, set SET V1..V5 or default SET (tandro rf --help)");
    if (a[0] == "get" && a.size() == 2)
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            uint8_t v[9] = {};
            const ZEL_STATUS st = set->get(h, v);
            if (st)
                return failed(opt, name, "get", st);
            std::string list;
            for (size_t i = 0; i < count; ++i)
                list += (i ? (opt.json ? ", " : " ") : "") + std::to_string(v[i]);
            if (opt.json)
                std::printf("{\"set\": \"%s\", \"registers\": [%s]}\n", set->name, list.c_str());
            else
                std::printf("%s %s\n", set->name, list.c_str());
            return 0;
        });
    if (a[0] == "default" && a.size() == 2) {
        if (!set->has_default)
            return tandro::usage_error(name, std::string("the ") + set->name + " set has no default of its own");
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = set->reset(h);
            return st ? failed(opt, name, "default", st) : (done(opt, std::string(set->name) + " set to default"), 0);
        });
    }
    uint8_t v[9] = {};
    bool good = a[0] == "set" && a.size() == 2 + count;
    for (size_t i = 0; good && i < count; ++i)
        good = byte_arg(a[2 + i], v[i]);
    if (!good || !rf_values_fit(*set, v, count))
        return tandro::usage_error(name, std::string("set ") + set->name + " takes " + std::to_string(count) +
                                             " values in their ranges (tandro rf --help)");
    return with_reader(name, opt, [&](ZEL_HANDLE h) {
        const ZEL_STATUS st = set->set(h, v);
        return st ? failed(opt, name, "set", st) : (done(opt, std::string(set->name) + " set"), 0);
    });
}

// ---- se ----

const tandro::OptionTable kSeTable = {
    {
        {"status", "the lock state of the configuration and data zones"},
        {"config", "the 128-byte configuration zone"},
        {"otp", "the 64-byte OTP zone"},
        {"info", "the revision"},
        {"lock config|data", "locks a zone for good"},
        {"lock slot N", "locks key slot N (0 to 15) for good"},
    },
    {},
};

int se_read(const Options &opt, ZEL_HANDLE h, const std::string &what)
{
    const char *name = "se";
    if (what == "status") {
        uint8_t cfg = 0, dat = 0;
        const ZEL_STATUS st = GetATECC608ZonesLockStatusM(h, &cfg, &dat);
        if (st)
            return failed(opt, name, "status", st);
        if (opt.json)
            std::printf("{\"config_locked\": %s, \"data_locked\": %s}\n", cfg ? "true" : "false",
                        dat ? "true" : "false");
        else
            std::printf("configuration zone %s, data zone %s\n", cfg ? "locked" : "open", dat ? "locked" : "open");
        return 0;
    }
    uint8_t buf[128] = {};
    size_t n = 0;
    ZEL_STATUS st = 0;
    if (what == "config") {
        st = GetATECC608ConfigZoneM(h, buf);
        n = 128;
    } else if (what == "otp") {
        st = GetATECC608OtpZoneM(h, buf);
        n = 64;
    } else {
        st = GetATECC608InfoRevisionM(h, buf);
        n = 4;
    }
    if (st)
        return failed(opt, name, what.c_str(), st);
    if (opt.json) {
        std::printf("{\"%s\": \"%s\"}\n", what.c_str(), tandro::to_hex(buf, n).c_str());
        return 0;
    }
    for (size_t i = 0; i < n; i += 16)
        std::printf("%3zu  %s\n", i, tandro::to_hex(buf + i, n - i < 16 ? n - i : 16).c_str());
    return 0;
}

int run_se(const Options &opt, const Args &all)
{
    const char *name = "se";
    Args a;
    if (!words_of(name, kSeTable, all, a))
        return 2;
    if (a.size() == 1 && (a[0] == "status" || a[0] == "config" || a[0] == "otp" || a[0] == "info"))
        return with_reader(name, opt, [&](ZEL_HANDLE h) { return se_read(opt, h, a[0]); });
    uint8_t slot = 0;
    if (a.size() == 2 && a[0] == "lock" && (a[1] == "config" || a[1] == "data")) {
        const bool config = a[1] == "config";
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = config ? ATECC608LockConfigM(h) : ATECC608LockDataAndOtpM(h);
            return st ? failed(opt, name, "lock", st) : (done(opt, config ? "configuration locked" : "data locked"), 0);
        });
    }
    if (a.size() == 3 && a[0] == "lock" && a[1] == "slot" && byte_arg(a[2], slot, 15))
        return with_reader(name, opt, [&](ZEL_HANDLE h) {
            const ZEL_STATUS st = ATECC608LockKeySlotM(h, slot);
            return st ? failed(opt, name, "lock slot", st) : (done(opt, "slot " + std::to_string(slot) + " locked"), 0);
        });
    return tandro::usage_error(name, "status, config, otp, info, lock config|data or lock slot N (tandro se --help)");
}

// ---- features ----

const tandro::OptionTable kFeaturesTable = {
    {
        {"discovery", "the discovery loop block"},
        {"discovery set HEX", "writes it (up to 253 bytes)"},
        {"aid", "the mobile unique id AID"},
        {"aid set HEX", "writes it (1 to 16 bytes)"},
        {"mobile", "what the last phone handed over"},
    },
    {},
};

int run_features(const Options &opt, const Args &all)
{
    const char *name = "features";
    Args a;
    if (!words_of(name, kFeaturesTable, all, a))
        return 2;
    const bool read = a.size() == 1 && (a[0] == "discovery" || a[0] == "aid" || a[0] == "mobile");
    std::vector<uint8_t> data;
    const bool write = a.size() == 3 && (a[0] == "discovery" || a[0] == "aid") && a[1] == "set" &&
                       tandro::parse_hex(a[2], data) &&
                       (a[0] == "discovery" ? data.size() <= 253 : !data.empty() && data.size() <= 16);
    if (!read && !write)
        return tandro::usage_error(name, "discovery, aid, mobile, or discovery|aid set HEX in its size "
                                         "(tandro features --help)");
    return with_reader(name, opt, [&](ZEL_HANDLE h) {
        const uint32_t n = static_cast<uint32_t>(data.size());
        if (write) {
            const ZEL_STATUS st =
                a[0] == "aid" ? SetMobileUniqueIdAidM(h, data.data(), n) : SetDiscoveryLoopM(h, data.data(), n);
            return st ? failed(opt, name, a[0].c_str(), st) : (done(opt, a[0] + " written"), 0);
        }
        uint8_t buf[256] = {};
        uint32_t len = sizeof buf;
        const ZEL_STATUS st = a[0] == "aid"         ? GetMobileUniqueIdAidM(h, buf, &len)
                              : a[0] == "discovery" ? GetDiscoveryLoopSetupM(h, buf, &len)
                                                    : GetMobileAdditionalDataM(h, buf, &len);
        if (st)
            return failed(opt, name, a[0].c_str(), st);
        if (opt.json)
            std::printf("{\"%s\": \"%s\"}\n", a[0].c_str(), tandro::to_hex(buf, len).c_str());
        else
            std::printf("%s %s\n", a[0].c_str(), len ? tandro::to_hex(buf, len).c_str() : "(empty)");
        return 0;
    });
}

const tandro::Registration signal_cmd({"signal", "LIGHT SOUND | sound UNITS | speaker HERTZ",
                                       "gives a light and sound signal, a sound, or sets the speaker", run_signal,
                                       false, &kSignalTable});
const tandro::Registration led_cmd({"led", "red|rgb|green|internal ...", "drives the reader's LEDs", run_led, false,
                                    &kLedTable});
const tandro::Registration sleep_cmd({"sleep", "enter|leave|auto [SECONDS]", "puts the reader to sleep and back",
                                      run_sleep, false, &kSleepTable});
const tandro::Registration rf_cmd({"rf", "get|set|default SET ...", "reads and sets the RF analog registers", run_rf,
                                   false, &kRfTable});
const tandro::Registration se_cmd({"se", "status|config|otp|info|lock ...", "the reader's secure element", run_se,
                                   false, &kSeTable});
const tandro::Registration features_cmd({"features", "discovery|aid|mobile [set HEX]",
                                         "the discovery loop, mobile id AID and mobile data", run_features, false,
                                         &kFeaturesTable});

} // namespace
