// A contactless payment card: the proximity payment directory (2PAY.SYS.DDF01) naming its applications, the
// payment system directory (1PAY.SYS.DDF01) with its directory file, and one or more payment applications,
// each with its FCI (label, PDOL, log entry), GET PROCESSING OPTIONS (format 1 or 2), the records its AFL
// names, GET DATA of the Log Format and the ATC, and a transaction log.
//
// Model "emv". Setup (besides ats, atr, block_size, interim_frames of every ISO 14443-4 card):
//   "applications": an array of objects, one per application (default: one with the defaults below):
//       "aid" (hex, default A0000000031010), "label" (text), "pan" (decimal digits, at most 19), "expiry"
//       (YYMMDD), "name" (cardholder name), "pdol" (hex: the data object list, "" for none), "gpo_format"
//       (1 or 2), "log_format" (hex: the data object list of one log entry, "" for no log), "log" (array of
//       hex entries, the most recent first), "gpo_refused" (true: GET PROCESSING OPTIONS answers 6985);
//   "ppse_all": the proximity directory lists every application (one template each), not only the first;
//   "record_sw": how READ RECORD answers: "9000" (default), "6282" (the data with the warning 62 82), or
//       "6c" (a READ RECORD whose Le is not the record's length gets 6C and the length, and the data only
//       with the right Le).
// The payment system directory's file is SFI 1, one record per application. Each application keeps its
// records in SFI 2 (records 1 and 2) and SFI 3 (record 1); its log is SFI 11, record 1 the most recent entry.
#include <cstring>

#include "../iso7816.h"
#include "../json.h"
#include "../scenario.h"

namespace zs {

namespace {

using Bytes = std::vector<uint8_t>;

// A data object: the tag in its 1 to 3 bytes, the length in BER form, the value.
Bytes tlv(uint32_t tag, const Bytes &value)
{
    Bytes out;
    if (tag > 0xFFFF)
        out.push_back(static_cast<uint8_t>(tag >> 16));
    if (tag > 0xFF)
        out.push_back(static_cast<uint8_t>(tag >> 8));
    out.push_back(static_cast<uint8_t>(tag));
    const size_t n = value.size();
    if (n > 0xFF) {
        out.push_back(0x82);
        out.push_back(static_cast<uint8_t>(n >> 8));
    } else if (n > 0x7F) {
        out.push_back(0x81);
    }
    out.push_back(static_cast<uint8_t>(n));
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

Bytes text(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

// Decimal digits packed two a byte, an odd count padded with F.
Bytes packed_digits(const std::string &digits)
{
    Bytes out;
    for (size_t i = 0; i < digits.size(); i += 2) {
        const uint8_t hi = static_cast<uint8_t>(digits[i] - '0');
        const uint8_t lo = i + 1 < digits.size() ? static_cast<uint8_t>(digits[i + 1] - '0') : 0x0F;
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return out;
}

// The total of the lengths of a data object list (tags and lengths, no values).
bool dol_total(const Bytes &dol, size_t &total)
{
    total = 0;
    size_t i = 0;
    while (i < dol.size()) {
        if ((dol[i++] & 0x1F) == 0x1F) {
            while (i < dol.size() && (dol[i] & 0x80))
                ++i;
            ++i;
        }
        if (i >= dol.size() || dol[i] & 0x80)
            return false;
        total += dol[i++];
    }
    return true;
}

struct AppSetup {
    Bytes aid{0xA0, 0x00, 0x00, 0x00, 0x03, 0x10, 0x10};
    std::string label = "SIM DEBIT";
    std::string pan = "4000123456789010";
    std::string expiry = "281231";
    std::string name = "CARDHOLDER/SIM";
    Bytes pdol{0x9F, 0x66, 0x04, 0x9F, 0x02, 0x06, 0x9F, 0x37, 0x04, 0x5F, 0x2A, 0x02, 0x9A, 0x03};
    int gpo_format = 2;
    Bytes log_format{0x9A, 0x03, 0x9F, 0x21, 0x03, 0x9F, 0x02, 0x06, 0x5F,
                     0x2A, 0x02, 0x9F, 0x1A, 0x02, 0x9F, 0x36, 0x02};
    std::vector<Bytes> log{
        {0x26, 0x11, 0x20, 0x14, 0x30, 0x05, 0x00, 0x00, 0x00, 0x01, 0x23, 0x45, 0x09, 0x78, 0x02, 0x76, 0x00, 0x42},
        {0x26, 0x11, 0x18, 0x09, 0x15, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x09, 0x78, 0x02, 0x50, 0x00, 0x41},
        {0x26, 0x10, 0x02, 0x18, 0x45, 0x59, 0x00, 0x00, 0x00, 0x10, 0x00, 0x00, 0x08, 0x40, 0x08, 0x40, 0x00, 0x40}};
    bool gpo_refused = false;
};

enum class RecordSw { OK, WARNING, WRONG_LE };

constexpr uint8_t kLogSfi = 11;

// Answers a READ RECORD with the record, under the card's rule for status words.
RApdu record_answer(const Bytes &record, const Apdu &c, RecordSw rule)
{
    if (rule == RecordSw::WRONG_LE && c.ne != record.size())
        return RApdu::sw_only(static_cast<uint16_t>(0x6C00 | (record.size() & 0xFF)));
    return RApdu{record, rule == RecordSw::WARNING ? SW_END_OF_FILE : SW_OK};
}

// READ RECORD P1 = record, P2 = SFI << 3 | 4: the SFI, or 0 for another P2.
uint8_t record_sfi(const Apdu &c)
{
    return (c.p2 & 0x07) == 0x04 ? static_cast<uint8_t>(c.p2 >> 3) : 0;
}

class PaymentApp final : public Application {
public:
    PaymentApp(const AppSetup &s, RecordSw rule) : Application(s.aid), s_(s), rule_(rule)
    {
        const std::string track2 = s.pan + "D" + s.expiry.substr(0, 4) + "2010000000000";
        Bytes t2;
        for (size_t i = 0; i < track2.size(); i += 2) {
            auto nib = [](char ch) { return static_cast<uint8_t>(ch == 'D' ? 0x0D : ch - '0'); };
            t2.push_back(
                static_cast<uint8_t>(nib(track2[i]) << 4 | (i + 1 < track2.size() ? nib(track2[i + 1]) : 0x0F)));
        }
        const Bytes expiry = packed_digits(s.expiry);
        records_[0] = tlv(0x70, cat({tlv(0x57, t2), tlv(0x5F20, text(s.name))}));
        records_[1] = tlv(0x70, cat({tlv(0x5A, packed_digits(s.pan)), tlv(0x5F24, expiry),
                                     tlv(0x5F25, {0x24, 0x01, 0x01}), tlv(0x5F28, {0x02, 0x76}), tlv(0x5F34, {0x01})}));
        records_[2] = tlv(0x70, cat({tlv(0x9F42, {0x09, 0x78}), tlv(0x9F44, {0x02})}));
    }

    RApdu select(const Apdu &) override
    {
        Bytes prop = cat({tlv(0x50, text(s_.label)), tlv(0x87, {0x01})});
        if (!s_.pdol.empty())
            prop = cat({prop, tlv(0x9F38, s_.pdol)});
        if (!s_.log_format.empty())
            prop = cat({prop, tlv(0xBF0C, tlv(0x9F4D, {kLogSfi, static_cast<uint8_t>(s_.log.size())}))});
        return RApdu{tlv(0x6F, cat({tlv(0x84, aid()), tlv(0xA5, prop)})), SW_OK};
    }

    RApdu command(const Apdu &c) override
    {
        if (c.cla == 0x80 && c.ins == 0xA8)
            return processing_options(c);
        if (c.cla == 0x80 && c.ins == 0xCA)
            return get_data(c);
        if (c.cla == 0x00 && c.ins == 0xB2)
            return read_record(c);
        return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
    }

private:
    RApdu processing_options(const Apdu &c)
    {
        if (s_.gpo_refused)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        size_t total = 0;
        dol_total(s_.pdol, total);
        // The data is the Command Template 83 with the PDOL's fields, or 83 00 without a PDOL.
        if (c.nc != total + 2 || c.data[0] != 0x83 || c.data[1] != total)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        ++atc_;
        const Bytes aip{0x19, 0x80};
        const Bytes afl{0x10, 0x01, 0x02, 0x00, 0x18, 0x01, 0x01, 0x00};
        if (s_.gpo_format == 1)
            return RApdu{tlv(0x80, cat({aip, afl})), SW_OK};
        return RApdu{tlv(0x77, cat({tlv(0x82, aip), tlv(0x94, afl)})), SW_OK};
    }

    RApdu get_data(const Apdu &c)
    {
        if (c.p1 == 0x9F && c.p2 == 0x4F && !s_.log_format.empty())
            return RApdu{tlv(0x9F4F, s_.log_format), SW_OK};
        if (c.p1 == 0x9F && c.p2 == 0x36)
            return RApdu{tlv(0x9F36, {static_cast<uint8_t>(atc_ >> 8), static_cast<uint8_t>(atc_)}), SW_OK};
        return RApdu::sw_only(SW_FILE_NOT_FOUND);
    }

    RApdu read_record(const Apdu &c)
    {
        const uint8_t sfi = record_sfi(c);
        const Bytes *r = nullptr;
        if (sfi == 2 && (c.p1 == 1 || c.p1 == 2))
            r = &records_[c.p1 - 1];
        else if (sfi == 3 && c.p1 == 1)
            r = &records_[2];
        else if (sfi == kLogSfi && c.p1 >= 1 && c.p1 <= s_.log.size())
            r = &s_.log[c.p1 - 1];
        if (!r)
            return RApdu::sw_only(0x6A83); // record not found
        return record_answer(*r, c, rule_);
    }

    AppSetup s_;
    RecordSw rule_;
    Bytes records_[3];
    uint16_t atc_ = 0x42;
};

// The two directories: the proximity one answers its FCI only; the payment system one has a directory file.
class Directory final : public Application {
public:
    Directory(const char *name, bool proximity, const std::vector<AppSetup> &apps, bool list_all, RecordSw rule)
        : Application(text(name)), proximity_(proximity), rule_(rule)
    {
        for (size_t i = 0; i < apps.size(); ++i) {
            entries_.push_back(tlv(0x61, cat({tlv(0x4F, apps[i].aid), tlv(0x50, text(apps[i].label)),
                                              tlv(0x87, {static_cast<uint8_t>(i + 1)})})));
            if (proximity && !list_all)
                break;
        }
    }

    RApdu select(const Apdu &) override
    {
        Bytes prop;
        if (proximity_) {
            Bytes all;
            for (const auto &e : entries_)
                all = cat({all, e});
            prop = tlv(0xBF0C, all);
        } else {
            prop = cat({tlv(0x88, {0x01}), tlv(0x5F2D, text("en"))});
        }
        return RApdu{tlv(0x6F, cat({tlv(0x84, aid()), tlv(0xA5, prop)})), SW_OK};
    }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x00 || c.ins != 0xB2)
            return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        if (proximity_ || record_sfi(c) != 1 || c.p1 < 1 || c.p1 > entries_.size())
            return RApdu::sw_only(0x6A83);
        return record_answer(tlv(0x70, entries_[c.p1 - 1]), c, rule_);
    }

private:
    bool proximity_;
    RecordSw rule_;
    std::vector<Bytes> entries_;
};

class EmvCard final : public Iso14443Card {
public:
    using Iso14443Card::Iso14443Card;
    const char *model() const override { return "emv"; }
};

bool hex_member(const Json &v, const std::string &k, Bytes &out, size_t max, std::string &err)
{
    if (v.kind != Json::STRING || !parse_hex_text(v.str, out, max)) {
        err = "setup: " + k + " takes hex bytes (at most " + std::to_string(max) + ")";
        return false;
    }
    return true;
}

bool text_member(const Json &v, const std::string &k, std::string &out, size_t max, const char *allowed,
                 std::string &err)
{
    bool ok = v.kind == Json::STRING && v.str.size() <= max;
    for (char ch : ok ? v.str : std::string())
        if (allowed && !std::strchr(allowed, ch))
            ok = false;
    if (!ok) {
        err = "setup: " + k + " takes a text of at most " + std::to_string(max) + " characters" +
              (allowed ? " of " + std::string(allowed) : std::string());
        return false;
    }
    out = v.str;
    return true;
}

bool read_app(const Json &o, AppSetup &a, std::string &err)
{
    if (o.kind != Json::OBJECT) {
        err = "setup: applications[] takes objects";
        return false;
    }
    static const char digits[] = "0123456789";
    for (const auto &m : o.fields) {
        const std::string &k = m.first;
        const Json &v = m.second;
        bool ok = true;
        if (k == "aid") {
            ok = hex_member(v, k, a.aid, 16, err) && a.aid.size() >= 5;
            if (!ok && err.empty())
                err = "setup: aid takes 5 to 16 bytes";
        } else if (k == "label" || k == "name") {
            ok = text_member(v, k, k == "label" ? a.label : a.name, 26, nullptr, err);
        } else if (k == "pan") {
            ok = text_member(v, k, a.pan, 19, digits, err) && !a.pan.empty();
        } else if (k == "expiry") {
            ok = text_member(v, k, a.expiry, 6, digits, err) && a.expiry.size() == 6;
        } else if (k == "pdol" || k == "log_format") {
            size_t total = 0;
            Bytes &dol = k == "pdol" ? a.pdol : a.log_format;
            ok = hex_member(v, k, dol, 64, err) && dol_total(dol, total) && total <= 200;
        } else if (k == "gpo_format") {
            ok = v.kind == Json::NUMBER && (v.num == 1 || v.num == 2);
            if (ok)
                a.gpo_format = static_cast<int>(v.num);
        } else if (k == "gpo_refused") {
            ok = v.kind == Json::BOOL;
            a.gpo_refused = v.b;
        } else if (k == "log") {
            ok = v.kind == Json::ARRAY && v.items.size() <= 30;
            a.log.clear();
            for (size_t i = 0; ok && i < v.items.size(); ++i) {
                a.log.emplace_back();
                ok = hex_member(v.items[i], "log[]", a.log.back(), 250, err);
            }
        } else {
            err = "setup: applications[] has no member '" + k + "'";
            return false;
        }
        if (!ok) {
            if (err.empty())
                err = "setup: applications[]." + k + " has a bad value";
            return false;
        }
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_emv_card(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(setup, s, err, {"applications", "ppse_all", "record_sw"}))
        return nullptr;
    std::vector<AppSetup> apps;
    bool list_all = false;
    RecordSw rule = RecordSw::OK;
    if (setup && setup->kind == Json::OBJECT) {
        if (const Json *a = setup->get("applications")) {
            if (a->kind != Json::ARRAY || a->items.empty() || a->items.size() > 8) {
                err = "setup: applications takes an array of 1 to 8 objects";
                return nullptr;
            }
            for (const auto &o : a->items) {
                apps.emplace_back();
                if (!read_app(o, apps.back(), err))
                    return nullptr;
            }
        }
        if (const Json *p = setup->get("ppse_all")) {
            if (p->kind != Json::BOOL) {
                err = "setup: ppse_all takes true or false";
                return nullptr;
            }
            list_all = p->b;
        }
        if (const Json *r = setup->get("record_sw")) {
            if (r->kind == Json::STRING && r->str == "6282")
                rule = RecordSw::WARNING;
            else if (r->kind == Json::STRING && (r->str == "6c" || r->str == "6C"))
                rule = RecordSw::WRONG_LE;
            else if (!(r->kind == Json::STRING && r->str == "9000")) {
                err = "setup: record_sw takes \"9000\", \"6282\" or \"6c\"";
                return nullptr;
            }
        }
    }
    if (apps.empty())
        apps.emplace_back();
    auto card = std::make_unique<EmvCard>(id, s);
    card->host().add(std::make_unique<Directory>("2PAY.SYS.DDF01", true, apps, list_all, rule));
    card->host().add(std::make_unique<Directory>("1PAY.SYS.DDF01", false, apps, list_all, rule));
    for (const auto &a : apps)
        card->host().add(std::make_unique<PaymentApp>(a, rule));
    return card;
}

} // namespace zs
