// The ISO view of a DESFire card: the card also speaks ISO 14443-4, and an application created with a DF name
// and files created with ISO file ids are reached by ISO 7816 commands. Only the NDEF application's name is
// answered here (D2 76 00 00 85 01 01, the Type 4 tag's): SELECT of the application by that name, SELECT of a
// file by its ISO id (P1 00 or 02), READ BINARY and UPDATE BINARY of standard files at 15-bit offsets. A file
// is read when its read or read-and-write right is free (E), and updated when its write or read-and-write right
// is; else 6982.
#include <cstring>

#include "../desfire.h"
#include "../iso7816.h"

namespace zs {

namespace {

const std::vector<uint8_t> NDEF_NAME = {0xD2, 0x76, 0x00, 0x00, 0x85, 0x01, 0x01};

bool free_right(uint16_t access, int shift)
{
    return ((access >> shift) & 0xF) == 0xE;
}

class DesfireIsoApp final : public Application {
public:
    explicit DesfireIsoApp(DesfireCard &card) : Application(NDEF_NAME), card_(card) {}

    RApdu select(const Apdu &) override
    {
        file_ = 0;
        aid_ = 0;
        for (const DfApp &a : card_.apps())
            if (a.df_name == NDEF_NAME) {
                aid_ = a.aid;
                return RApdu::sw_only(SW_OK);
            }
        return RApdu::sw_only(SW_FILE_NOT_FOUND);
    }
    void deselect() override { aid_ = 0; }

    RApdu command(const Apdu &c) override
    {
        if (c.cla != 0x00)
            return RApdu::sw_only(SW_CLA_NOT_SUPPORTED);
        DfApp *app = this->app();
        if (!app)
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        if (c.ins == 0xA4) {
            if ((c.p1 != 0x00 && c.p1 != 0x02) || c.nc != 2)
                return RApdu::sw_only(SW_WRONG_P1P2);
            const uint16_t id = static_cast<uint16_t>(c.data[0] << 8 | c.data[1]);
            for (auto &f : app->files)
                if (f.second.iso_id == id && f.second.type == 0) {
                    file_ = f.first + 1;
                    return RApdu::sw_only(SW_OK);
                }
            file_ = 0;
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        }
        if (c.ins != 0xB0 && c.ins != 0xD6)
            return RApdu::sw_only(SW_INS_NOT_SUPPORTED);
        auto it = file_ ? app->files.find(static_cast<uint8_t>(file_ - 1)) : app->files.end();
        if (it == app->files.end())
            return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
        DfFile &f = it->second;
        if (c.p1 & 0x80)
            return RApdu::sw_only(SW_WRONG_P1P2);
        const size_t off = static_cast<size_t>(c.p1) << 8 | c.p2;
        if (off > f.data.size())
            return RApdu::sw_only(SW_WRONG_P1P2);
        // Access rights: read 12..15, write 8..11, read and write 4..7.
        if (c.ins == 0xB0) {
            if (!free_right(f.access, 12) && !free_right(f.access, 4))
                return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
            if (!c.has_le)
                return RApdu::sw_only(SW_WRONG_LENGTH);
            const size_t n = std::min(c.ne, f.data.size() - off);
            RApdu r{std::vector<uint8_t>(f.data.begin() + static_cast<long>(off),
                                         f.data.begin() + static_cast<long>(off + n)),
                    SW_OK};
            if (n < c.ne)
                r.sw = SW_END_OF_FILE;
            return r;
        }
        if (!free_right(f.access, 8) && !free_right(f.access, 4))
            return RApdu::sw_only(SW_SECURITY_NOT_SATISFIED);
        if (c.nc == 0 || c.nc > f.data.size() - off)
            return RApdu::sw_only(c.nc == 0 ? SW_WRONG_LENGTH : SW_WRONG_P1P2);
        std::memcpy(f.data.data() + off, c.data, c.nc);
        return RApdu::sw_only(SW_OK);
    }

private:
    DfApp *app()
    {
        for (DfApp &a : card_.apps())
            if (aid_ && a.aid == aid_)
                return &a;
        return nullptr;
    }

    DesfireCard &card_;
    uint32_t aid_ = 0;
    unsigned file_ = 0; // the selected file's number plus 1
};

} // namespace

std::unique_ptr<Iso14443Card> make_desfire_iso_view(DesfireCard &card)
{
    auto view = std::make_unique<Iso14443Card>(card.id(), Iso14443Setup{});
    view->host().add(std::make_unique<DesfireIsoApp>(card));
    return view;
}

} // namespace zs
