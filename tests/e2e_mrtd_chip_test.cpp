// The simulated passport chip on its own, with no library code: its BAC and secure messaging replay the ICAO
// Doc 9303 Part 11 Appendix D worked example byte for byte (shared/vectors), and it refuses what a chip
// refuses.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "cards/passport.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes hex(const std::string &s)
{
    Bytes out;
    for (size_t i = 0; i + 1 < s.size(); i += 2)
        out.push_back(static_cast<uint8_t>(std::stoul(s.substr(i, 2), nullptr, 16)));
    return out;
}

// The worked example's document: document number L898902C<, born 690806, expiring 940623, and the EF.COM whose
// first 22 bytes the example reads.
zs::PassportDocument example_document()
{
    zs::PassportDocument doc;
    doc.mrz =
        std::string("P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<") + "L898902C<3UTO6908061F9406236ZE184226B<<<<<14";
    doc.files[0x011E] = hex("60145F0104303130365F36063034303030305C026175");
    doc.files[0x0103] = hex("630400000000");
    return doc;
}

// RND.IC, then K.IC of the example, in the order the chip asks for them.
void example_randoms(uint8_t *out, size_t n, void *context)
{
    auto *calls = static_cast<int *>(context);
    const Bytes v = *calls == 0 ? hex("4608F91988702212") : hex("0B4F80323EB3191CB04970CB4052790B");
    ++*calls;
    std::memcpy(out, v.data(), n < v.size() ? n : v.size());
}

struct ExampleChip {
    zs::AppHost host;
    zs::PassportApp *app = nullptr;
    int random_calls = 0;
    ExampleChip()
    {
        auto a = std::make_unique<zs::PassportApp>(example_document());
        app = a.get();
        app->set_random_source(example_randoms, &random_calls);
        host.add(std::move(a));
    }
    Bytes send(const Bytes &cmd) { return host.transceive(cmd.data(), cmd.size()); }
    Bytes send(const std::string &cmd) { return send(hex(cmd)); }
};

const char kSelectApp[] = "00A4040C07A0000002471001";

TEST(PassportChip, WorkedExampleByteForByte)
{
    ExampleChip chip;
    EXPECT_EQ(chip.send(kSelectApp), hex("9000"));
    EXPECT_EQ(chip.send("0084000008"), hex("4608F919887022129000"));
    // EXTERNAL AUTHENTICATE with E.IFD and M.IFD of the example: the card's answer of the example.
    EXPECT_EQ(chip.send("0082000028"
                        "72C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F2"
                        "5F1448EEA8AD90A7"
                        "28"),
              hex("46B9342A41396CD7386BF5803104D7CEDC122B9132139BAF2EEDC94EE178534F2F2D235D074D7449"
                  "9000"));
    ASSERT_TRUE(chip.app->authenticated());
    EXPECT_EQ(chip.app->ssc(), 0x887022120C06C226u);
    EXPECT_EQ(chip.send("0CA4020C158709016375432908C044F68E08BF8B92D635FF24F800"),
              hex("990290008E08FA855A5D4C50A8ED9000"));
    EXPECT_EQ(chip.send("0CB000000D9701048E08ED6705417E96BA5500"),
              hex("8709019FF0EC34F9922651990290008E08AD55CC17140B2DED9000"));
    EXPECT_EQ(chip.send("0CB000040D9701128E082EA28A70F3C7B53500"),
              hex("871901FB9235F4E4037F2327DCC8964F1F9B8C30F42C8E2FFF224A990290008E08C8B2787EAEA07D749000"));
}

TEST(PassportChip, RefusalsAndTheEndOfTheSession)
{
    ExampleChip chip;
    chip.send(kSelectApp);
    // No file before BAC; no EXTERNAL AUTHENTICATE without a challenge.
    EXPECT_EQ(chip.send("00A4020C02011E"), hex("6982"));
    EXPECT_EQ(chip.send("0082000028" + std::string(80, '0') + "28"), hex("6985"));
    // A wrong cryptogram (another MRZ's M.IFD) is refused with 63 00.
    chip.send("0084000008");
    EXPECT_EQ(chip.send("0082000028"
                        "72C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F2"
                        "5F1448EEA8AD90A8"
                        "28"),
              hex("6300"));
    EXPECT_FALSE(chip.app->authenticated());

    // A good session, then a command with a broken MAC: a plain 69 88 and the session is over.
    chip.random_calls = 0;
    chip.send("0084000008");
    chip.send("0082000028"
              "72C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F2"
              "5F1448EEA8AD90A7"
              "28");
    ASSERT_TRUE(chip.app->authenticated());
    EXPECT_EQ(chip.send("0CA4020C158709016375432908C044F68E08BF8B92D635FF24F900"), hex("6988"));
    EXPECT_FALSE(chip.app->authenticated());
    // A plain command inside a session ends it as well.
    chip.random_calls = 0;
    chip.send("0084000008");
    chip.send("0082000028"
              "72C29C2371CC9BDB65B779B8E8D37B29ECC154AA56A8799FAE2F498F76ED92F2"
              "5F1448EEA8AD90A7"
              "28");
    ASSERT_TRUE(chip.app->authenticated());
    EXPECT_EQ(chip.send("00B0000004"), hex("6987"));
    EXPECT_FALSE(chip.app->authenticated());
}

TEST(PassportChip, BuiltDocumentsAndTheirSetup)
{
    zs::PassportDocument doc;
    std::string err;
    ASSERT_TRUE(zs::passport_build({}, doc, err)) << err;
    // EF.COM lists every data group the chip holds, and the face is the built-in JPEG.
    const Bytes &com = doc.files.at(0x011E);
    // The tag list is the last object: 5C, its length, the tags.
    size_t n = 1;
    while (n <= 16 && !(com[com.size() - n - 1] == n && com[com.size() - n - 2] == 0x5C))
        ++n;
    ASSERT_LE(n, 16u);
    const Bytes tags(com.end() - long(n), com.end());
    size_t groups = 0;
    for (const auto &f : doc.files) {
        if (f.first == 0x011E || f.first == 0x011D)
            continue;
        ++groups;
        EXPECT_NE(std::find(tags.begin(), tags.end(), f.second[0]), tags.end()) << std::hex << f.first;
    }
    EXPECT_EQ(groups, tags.size());
    const Bytes &face = zs::passport_face_jpeg();
    const Bytes &dg2 = doc.files.at(0x0102);
    EXPECT_TRUE(std::search(dg2.begin(), dg2.end(), face.begin(), face.end()) != dg2.end());
    EXPECT_EQ(doc.eac_protected.count(0x0103), 1u);
    // A padded face keeps the size asked for.
    zs::PassportSetup setup;
    setup.face_size = 20000;
    ASSERT_TRUE(zs::passport_build(setup, doc, err));
    EXPECT_GT(doc.files.at(0x0102).size(), 20000u);
    EXPECT_LT(doc.files.at(0x0102).size(), 20100u);
    // Bad setups.
    setup = {};
    setup.mrz = "P<UTO";
    EXPECT_FALSE(zs::passport_build(setup, doc, err));
    setup = {};
    setup.signer = "dsa";
    EXPECT_FALSE(zs::passport_build(setup, doc, err));
    setup = {};
    setup.tamper = "DG9";
    EXPECT_FALSE(zs::passport_build(setup, doc, err));
}

} // namespace
