// The NFC Forum Type 4 tag: an ISO 14443-4 card whose NDEF application (AID D2 76 00 00 85 01 01) holds two
// files, the capability container E103 and the NDEF file (E104 unless set up otherwise). The application
// answers SELECT of a file by its id (P1 00 or 02, P2 0C), READ BINARY and UPDATE BINARY at 15-bit offsets
// within the selected file, and keeps to the limits its container announces: a READ BINARY asking for more
// than MLe bytes, or an UPDATE BINARY bringing more than MLc, gets 6700. The container cannot be written.
//
// Model "ndef_t4". Setup (besides ats, atr, block_size, interim_frames of every ISO 14443-4 card):
//   "message": the NDEF message (without its two-byte length) the NDEF file starts with,
//   "nlen": the length field as stored, when it should not match the message (a lying tag),
//   "file_size": the NDEF file's size, its length field included (default 1024),
//   "file_id": the NDEF file's id (default E104),
//   "mle", "mlc": the limits the container announces (default 255 and 255),
//   "cc": the container's bytes as given (replaces the one made from the members above),
//   "read_only": the NDEF file refuses updates (6982) and its container says so.
#include <cstring>

#include "../iso7816.h"
#include "../json.h"
#include "../scenario.h"

namespace zs {

namespace {

const std::vector<uint8_t> NDEF_AID = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};

struct NdefSetup {
    std::vector<uint8_t> message;
    int64_t nlen = -1;
    size_t file_size = 1024;
    uint16_t file_id = 0xE104;
    uint16_t mle = 255, mlc = 255;
    std::vector<uint8_t> cc;
    bool read_only = false;
};

class NdefApplication final : public Application {
public:
    explicit NdefApplication(const NdefSetup &s) : Application(NDEF_AID), file_id_(s.file_id), mle_(s.mle), mlc_(s.mlc)
    {
        ndef_.assign(s.file_size, 0);
        const size_t n = s.nlen >= 0 ? static_cast<size_t>(s.nlen) : s.message.size();
        if (ndef_.size() >= 2) {
            ndef_[0] = static_cast<uint8_t>(n >> 8);
            ndef_[1] = static_cast<uint8_t>(n);
            if (!s.message.empty())
                std::memcpy(ndef_.data() + 2, s.message.data(), std::min(s.message.size(), ndef_.size() - 2));
        }
        read_only_ = s.read_only;
        if (!s.cc.empty()) {
            cc_ = s.cc;
        } else {
            const size_t max = s.file_size > 0xFFFE ? 0xFFFE : s.file_size;
            cc_ = {0x00,
                   0x0F,
                   0x20,
                   static_cast<uint8_t>(mle_ >> 8),
                   static_cast<uint8_t>(mle_),
                   static_cast<uint8_t>(mlc_ >> 8),
                   static_cast<uint8_t>(mlc_),
                   0x04,
                   0x06,
                   static_cast<uint8_t>(file_id_ >> 8),
                   static_cast<uint8_t>(file_id_),
                   static_cast<uint8_t>(max >> 8),
                   static_cast<uint8_t>(max),
                   0x00,
                   static_cast<uint8_t>(s.read_only ? 0xFF : 0x00)};
        }
    }

    RApdu select(const Apdu &) override
    {
        file_ = nullptr;
        return RApdu::sw_only(SW_OK);
    }
    void deselect() override { file_ = nullptr; }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x00)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        switch (c.ins) {
        case 0xA4: return select_file(c);
        case 0xB0: return read_binary(c);
        case 0xD6: return update_binary(c);
        default: return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        }
    }

private:
    RApdu select_file(const Apdu &c)
    {
        if ((c.p1 != 0x00 && c.p1 != 0x02) || c.nc != 2)
            return RApdu::sw_only(SW_WRONG_P1P2);
        const uint16_t id = static_cast<uint16_t>(c.data[0] << 8 | c.data[1]);
        if (id == 0xE103)
            file_ = &cc_;
        else if (id == file_id_)
            file_ = &ndef_;
        else
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        return RApdu::sw_only(SW_OK);
    }

    RApdu read_binary(const Apdu &c)
    {
        if (!file_)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        if (c.p1 & 0x80)
            return RApdu::sw_only(SW_WRONG_P1P2);
        const size_t off = static_cast<size_t>(c.p1) << 8 | c.p2;
        if (!c.has_le || c.ne > mle_)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        if (off > file_->size())
            return RApdu::sw_only(SW_WRONG_P1P2);
        const size_t n = std::min(c.ne, file_->size() - off);
        RApdu r{
            std::vector<uint8_t>(file_->begin() + static_cast<long>(off), file_->begin() + static_cast<long>(off + n)),
            SW_OK};
        if (n < c.ne)
            r.sw = SW_END_OF_FILE;
        return r;
    }

    RApdu update_binary(const Apdu &c)
    {
        if (!file_)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        if (file_ == &cc_ || read_only_)
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        if (c.p1 & 0x80)
            return RApdu::sw_only(SW_WRONG_P1P2);
        const size_t off = static_cast<size_t>(c.p1) << 8 | c.p2;
        if (c.nc == 0 || c.nc > mlc_)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        if (off > file_->size() || c.nc > file_->size() - off)
            return RApdu::sw_only(SW_WRONG_P1P2);
        std::memcpy(file_->data() + off, c.data, c.nc);
        return RApdu::sw_only(SW_OK);
    }

    uint16_t file_id_, mle_, mlc_;
    bool read_only_ = false;
    std::vector<uint8_t> cc_, ndef_;
    std::vector<uint8_t> *file_ = nullptr;
};

class NdefT4Card final : public Iso14443Card {
public:
    using Iso14443Card::Iso14443Card;
    const char *model() const override { return "ndef_t4"; }
};

bool read_number(const Json &v, const std::string &name, uint64_t lo, uint64_t hi, uint64_t &out, std::string &err)
{
    bool ok = false;
    if (v.kind == Json::NUMBER && v.num >= static_cast<double>(lo) && v.num <= static_cast<double>(hi)) {
        out = static_cast<uint64_t>(v.num);
        ok = true;
    } else if (v.kind == Json::STRING && parse_hex_number(v.str, hi, out) && out >= lo) {
        ok = true;
    }
    if (!ok)
        err = "setup: " + name + " takes a number from " + std::to_string(lo) + " to " + std::to_string(hi);
    return ok;
}

bool read_ndef_setup(const Json *setup, NdefSetup &s, std::string &err)
{
    if (!setup || setup->kind != Json::OBJECT)
        return true;
    for (const auto &m : setup->fields) {
        const std::string &k = m.first;
        const Json &v = m.second;
        uint64_t n = 0;
        if (k == "message" || k == "cc") {
            if (v.kind != Json::STRING || !parse_hex_text(v.str, k == "cc" ? s.cc : s.message, 65536)) {
                err = "setup: " + k + " takes hex bytes";
                return false;
            }
        } else if (k == "nlen") {
            if (!read_number(v, k, 0, 0xFFFF, n, err))
                return false;
            s.nlen = static_cast<int64_t>(n);
        } else if (k == "file_size") {
            if (!read_number(v, k, 2, 0x8000, n, err))
                return false;
            s.file_size = n;
        } else if (k == "file_id") {
            if (!read_number(v, k, 0, 0xFFFF, n, err))
                return false;
            s.file_id = static_cast<uint16_t>(n);
        } else if (k == "mle" || k == "mlc") {
            if (!read_number(v, k, 1, 0xFFFF, n, err))
                return false;
            (k == "mle" ? s.mle : s.mlc) = static_cast<uint16_t>(n);
        } else if (k == "read_only") {
            if (v.kind != Json::BOOL) {
                err = "setup: read_only takes true or false";
                return false;
            }
            s.read_only = v.b;
        }
    }
    if (s.message.size() + 2 > s.file_size) {
        err = "setup: the message does not fit the NDEF file";
        return false;
    }
    return true;
}

} // namespace

std::unique_ptr<Card> make_ndef_t4_card(const zsim_card &id, const Json *setup, std::string &err)
{
    Iso14443Setup s;
    if (!iso14443_setup_read(setup, s, err,
                             {"message", "nlen", "file_size", "file_id", "mle", "mlc", "cc", "read_only"}))
        return nullptr;
    NdefSetup n;
    if (!read_ndef_setup(setup, n, err))
        return nullptr;
    auto card = std::make_unique<NdefT4Card>(id, s);
    card->host().add(std::make_unique<NdefApplication>(n));
    return card;
}

} // namespace zs
