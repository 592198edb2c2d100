// The card's side of ISO 7816-4: APDU cases, the application host and the generic test application.
#include <algorithm>
#include <cstring>

#include "iso7816.h"

namespace zs {

bool apdu_decode(const uint8_t *p, size_t n, Apdu &a)
{
    a = Apdu{};
    if (!p || n < 4)
        return false;
    a.cla = p[0];
    a.ins = p[1];
    a.p1 = p[2];
    a.p2 = p[3];
    const uint8_t *b = p + 4;
    const size_t body = n - 4;
    if (body == 0) {
        a.kind = 1;
        return true;
    }
    if (body == 1) { // short Le
        a.kind = 2;
        a.has_le = true;
        a.ne = b[0] ? b[0] : 256;
        return true;
    }
    if (b[0] != 0) { // short Lc
        const size_t lc = b[0];
        if (body == 1 + lc) {
            a.kind = 3;
        } else if (body == 2 + lc) {
            a.kind = 4;
            a.has_le = true;
            a.ne = b[1 + lc] ? b[1 + lc] : 256;
        } else {
            return false;
        }
        a.data = b + 1;
        a.nc = lc;
        return true;
    }
    // Extended forms start with 00.
    if (body == 3) { // extended Le alone
        const size_t le = static_cast<size_t>(b[1]) << 8 | b[2];
        a.kind = 2;
        a.extended = true;
        a.has_le = true;
        a.ne = le ? le : 65536;
        return true;
    }
    if (body < 3)
        return false;
    const size_t lc = static_cast<size_t>(b[1]) << 8 | b[2];
    if (lc == 0)
        return false;
    a.extended = true;
    a.data = b + 3;
    a.nc = lc;
    if (body == 3 + lc) {
        a.kind = 3;
    } else if (body == 5 + lc) {
        const size_t le = static_cast<size_t>(b[3 + lc]) << 8 | b[4 + lc];
        a.kind = 4;
        a.has_le = true;
        a.ne = le ? le : 65536;
    } else {
        return false;
    }
    return true;
}

void AppHost::add(std::unique_ptr<Application> app)
{
    if (app)
        apps_.push_back(std::move(app));
}

void AppHost::add_default(std::unique_ptr<Application> app)
{
    if (!app)
        return;
    default_ = app.get();
    apps_.push_back(std::move(app));
}

void AppHost::reset()
{
    if (selected_)
        selected_->deselect();
    if (default_ && default_ != selected_)
        default_->deselect();
    selected_ = nullptr;
    rest_.clear();
}

namespace {

std::vector<uint8_t> with_sw(std::vector<uint8_t> data, uint16_t sw)
{
    data.push_back(static_cast<uint8_t>(sw >> 8));
    data.push_back(static_cast<uint8_t>(sw));
    return data;
}

} // namespace

RApdu AppHost::route(const Apdu &c)
{
    if (c.ins == 0xA4 && c.p1 == 0x04 && (c.cla & 0x80) == 0) {
        Application *found = nullptr;
        for (auto &app : apps_) {
            const auto &aid = app->aid();
            if (c.nc >= 1 && c.nc <= aid.size() && std::memcmp(aid.data(), c.data, c.nc) == 0) {
                found = app.get();
                break;
            }
        }
        if (!found)
            return RApdu::sw_only(SW_FILE_NOT_FOUND);
        if (selected_ && selected_ != found)
            selected_->deselect();
        selected_ = found;
        return found->select(c);
    }
    if (!selected_ && default_)
        return default_->command(c);
    if (!selected_)
        return RApdu::sw_only(SW_CONDITIONS_NOT_SATISFIED);
    return selected_->command(c);
}

std::vector<uint8_t> AppHost::transceive(const uint8_t *bytes, size_t len)
{
    Apdu c;
    if (!apdu_decode(bytes, len, c))
        return with_sw({}, SW_WRONG_LENGTH);
    RApdu r;
    if (c.ins == 0xC0 && (c.cla & 0x80) == 0 && !rest_.empty()) {
        r.data.swap(rest_);
    } else {
        rest_.clear();
        r = route(c);
    }
    // Data beyond what the command asked for waits for GET RESPONSE.
    const size_t ne = c.ne;
    if (c.has_le && r.data.size() > ne && (r.sw == SW_OK || (r.sw & 0xFF00) == SW_MORE_DATA)) {
        rest_.assign(r.data.begin() + static_cast<std::ptrdiff_t>(ne), r.data.end());
        r.data.resize(ne);
        const size_t left = rest_.size();
        r.sw = static_cast<uint16_t>(SW_MORE_DATA | (left > 255 ? 0 : left));
    }
    return with_sw(std::move(r.data), r.sw);
}

const std::vector<uint8_t> TEST_APP_AID{0xA0, 0x00, 0x00, 0x07, 0x47, 0x54, 0x45, 0x53, 0x54};

namespace {

class TestApplication final : public Application {
public:
    TestApplication(std::vector<uint8_t> aid, size_t size, const std::vector<uint8_t> &head)
        : Application(std::move(aid)), file_(size)
    {
        for (size_t i = 0; i < size; ++i)
            file_[i] = static_cast<uint8_t>((i & 0xFF) ^ (i >> 8));
        std::copy_n(head.begin(), head.size() < size ? head.size() : size, file_.begin());
    }

    RApdu select(const Apdu &) override
    {
        RApdu r;
        const auto &id = aid();
        r.data.assign(4 + id.size(), 0);
        r.data[0] = 0x6F;
        r.data[1] = static_cast<uint8_t>(id.size() + 2);
        r.data[2] = 0x84;
        r.data[3] = static_cast<uint8_t>(id.size());
        std::copy(id.begin(), id.end(), r.data.begin() + 4);
        return r;
    }

    RApdu command(const Apdu &c) override
    {
        switch (c.ins) {
        case 0x10: // echo
            if (c.cla != 0x80)
                break;
            return RApdu{std::vector<uint8_t>(c.data, c.data + c.nc), SW_OK};
        case 0x12: { // counting pattern of Ne bytes
            if (c.cla != 0x80)
                break;
            RApdu r;
            r.data.resize(c.ne);
            for (size_t i = 0; i < c.ne; ++i)
                r.data[i] = static_cast<uint8_t>(i);
            return r;
        }
        case 0x14: // the status word asked for
            if (c.cla != 0x80)
                break;
            return RApdu::sw_only(static_cast<uint16_t>(c.p1 << 8 | c.p2));
        case 0xB0:
            if (c.p1 & 0x80)
                return RApdu::sw_only(SW_WRONG_P1P2); // short file identifiers are not kept
            return read(static_cast<size_t>(c.p1) << 8 | c.p2, c);
        case 0xB1: {
            // Offset in a data object 54 L off (1 to 3 bytes).
            if (c.nc < 3 || c.data[0] != 0x54 || c.data[1] < 1 || c.data[1] > 3 || c.nc != 2u + c.data[1])
                return RApdu::sw_only(SW_WRONG_DATA);
            size_t off = 0;
            for (size_t i = 0; i < c.data[1]; ++i)
                off = off << 8 | c.data[2 + i];
            return read(off, c);
        }
        case 0xD6: {
            const size_t off = static_cast<size_t>(c.p1 & 0x7F) << 8 | c.p2;
            if (c.nc == 0)
                return RApdu::sw_only(SW_WRONG_LENGTH);
            if (off > file_.size() || c.nc > file_.size() - off)
                return RApdu::sw_only(SW_WRONG_P1P2);
            std::memcpy(file_.data() + off, c.data, c.nc);
            return RApdu::sw_only(SW_OK);
        }
        default: break;
        }
        return RApdu::sw_only(c.cla == 0x00 || c.cla == 0x80 ? SW_INS_NOT_SUPPORTED : SW_CLA_NOT_SUPPORTED);
    }

private:
    RApdu read(size_t off, const Apdu &c)
    {
        if (off > file_.size())
            return RApdu::sw_only(SW_WRONG_P1P2);
        if (!c.has_le)
            return RApdu::sw_only(SW_WRONG_LENGTH);
        const size_t left = file_.size() - off;
        const size_t n = c.ne < left ? c.ne : left;
        RApdu r{std::vector<uint8_t>(file_.begin() + static_cast<std::ptrdiff_t>(off),
                                     file_.begin() + static_cast<std::ptrdiff_t>(off + n)),
                SW_OK};
        if (n < c.ne)
            r.sw = SW_END_OF_FILE;
        return r;
    }

    std::vector<uint8_t> file_;
};

} // namespace

std::unique_ptr<Application> make_test_application(std::vector<uint8_t> aid, size_t file_size,
                                                   const std::vector<uint8_t> &file_head)
{
    if (aid.empty())
        aid = TEST_APP_AID;
    return std::make_unique<TestApplication>(std::move(aid), file_size, file_head);
}

} // namespace zs
