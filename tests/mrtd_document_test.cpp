// The parts of the document that need no card: face and signature images, their base-64 and file forms, the
// JSON of the textual data groups and of DG1, the data group filter, and the master list reader, on files
// made with the openssl command line (fixtures/make_mrtd_fixtures.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <tuple>

#include "mrtd_test_support.h"
#include "tandro.h"

using namespace mrtdtest;

namespace {

// A BER object around a value (one- or two-byte tag).
Bytes tlv(uint16_t tag, const Bytes &value)
{
    Bytes out;
    if (tag > 0xFF)
        out.push_back(uint8_t(tag >> 8));
    out.push_back(uint8_t(tag));
    if (value.size() < 0x80) {
        out.push_back(uint8_t(value.size()));
    } else if (value.size() < 0x100) {
        out.push_back(0x81);
        out.push_back(uint8_t(value.size()));
    } else {
        out.push_back(0x82);
        out.push_back(uint8_t(value.size() >> 8));
        out.push_back(uint8_t(value.size()));
    }
    out.insert(out.end(), value.begin(), value.end());
    return out;
}

Bytes text(const std::string &s)
{
    return Bytes(s.begin(), s.end());
}

Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes &p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Offset of the image inside the fixture DG2: the face record's start plus 46.
size_t image_offset(const Bytes &dg2)
{
    const std::string s(dg2.begin(), dg2.end());
    return s.find(std::string("FAC\0", 4)) + 46;
}

TEST(MrtdImages, FaceOfAnOpensslMadeDg2)
{
    const Bytes dg2 = fixture("mrtd/dg2.bin");
    const Bytes jpeg = fixture("mrtd/face.jpg");
    ASSERT_FALSE(dg2.empty());
    const uint8_t *image = nullptr;
    uint32_t len = 0, format = 7;
    ASSERT_EQ(MRTDGetImageFromDG2(dg2.data(), int32_t(dg2.size()), &image, &len, &format), ZEL_OK);
    EXPECT_EQ(format, MRTD_IMAGE_JPEG);
    EXPECT_EQ(Bytes(image, image + len), jpeg);
    EXPECT_EQ(image, dg2.data() + image_offset(dg2)); // no copy

    // To a file: the extension is added.
    TempDir dir;
    ASSERT_EQ(MRTDGetImageFromDG2ToFile(dg2.data(), uint32_t(dg2.size()), dir.file("face").c_str()), ZEL_OK);
    EXPECT_EQ(read_file(dir.file("face.jpeg")), jpeg);
    EXPECT_EQ(MRTDGetImageFromDG2ToFile(dg2.data(), uint32_t(dg2.size()), dir.file("none/face").c_str()),
              ZEL_FILE_SYSTEM_ERROR);
    EXPECT_EQ(MRTDGetImageFromDG2ToFile(dg2.data(), uint32_t(dg2.size()), std::string(4092, 'a').c_str()),
              ZEL_MAX_SIZE_EXCEEDED);

    // JSON member: a data URL of the same bytes.
    char *json = nullptr;
    ASSERT_EQ(parse_dg_image_to_JSON(0x75, dg2.data(), uint32_t(dg2.size()), &json, 0), ZEL_OK);
    JValue v;
    ASSERT_TRUE(parse_json(std::string("{") + json + "}", v));
    OrbFree(json);
    const std::string url = v.get("DG2")->get("image")->str;
    Bytes decoded;
    ASSERT_TRUE(base64_decode(url.substr(std::strlen("data:image/jpeg;base64,")), decoded));
    EXPECT_EQ(decoded, jpeg);
}

TEST(MrtdImages, Dg2LayoutChecks)
{
    const Bytes good = fixture("mrtd/dg2.bin");
    const size_t fac = image_offset(good) - 46;
    const uint8_t *image = nullptr;
    uint32_t len = 0, format = 0;
    auto status = [&](const Bytes &dg) {
        return MRTDGetImageFromDG2(dg.data(), int32_t(dg.size()), &image, &len, &format);
    };
    // The template tags pass with one byte of two right; both wrong fail.
    Bytes d = good;
    const size_t group = d[1] == 0x82 ? 4 : d[1] == 0x81 ? 3 : 2;
    d[group] = 0x7E;
    EXPECT_EQ(status(d), ZEL_OK);
    d[group + 1] = 0x62;
    EXPECT_EQ(status(d), MRTD_EF_DG_WRONG_DATA);
    EXPECT_EQ(image, nullptr);
    EXPECT_EQ(format, 0xFFFFFFFFu);
    // The data block's tag likewise: 5F 2E or 7F 2E (bit 5 of the first byte aside), one byte of two
    // wrong passes, both wrong fail.
    const std::string text(good.begin(), good.end());
    const size_t block = text.rfind(std::string("\x5F\x2E", 2), fac);
    ASSERT_NE(block, std::string::npos);
    for (const auto &[first, second, ok] : {std::tuple{0x7F, 0x2E, true}, std::tuple{0x4F, 0x2E, true},
                                            std::tuple{0x5F, 0x2F, true}, std::tuple{0x4F, 0x2F, false}}) {
        d = good;
        d[block] = uint8_t(first);
        d[block + 1] = uint8_t(second);
        EXPECT_EQ(status(d), ok ? ZEL_OK : MRTD_EF_DG_WRONG_DATA) << std::hex << first << ' ' << second;
        if (ok) {
            EXPECT_EQ(image, d.data() + fac + 46);
        }
    }
    // A JPEG 2000 code is taken, any higher code refused.
    d = good;
    d[fac + 35] = 1;
    ASSERT_EQ(status(d), ZEL_OK);
    EXPECT_EQ(format, MRTD_IMAGE_JPEG2000);
    d[fac + 35] = 2;
    EXPECT_EQ(status(d), MRTD_EF_DG_WRONG_DATA);
    // Feature points move the image; more points than the block holds are refused.
    d = good;
    d[fac + 19] = 3;
    ASSERT_EQ(status(d), ZEL_OK);
    EXPECT_EQ(image, d.data() + fac + 46 + 24);
    d[fac + 18] = 0xFF;
    EXPECT_EQ(status(d), MRTD_EF_DG_WRONG_DATA);
    // The outer length must account for the whole file.
    d = good;
    d.push_back(0);
    EXPECT_EQ(status(d), MRTD_EF_DG_WRONG_DATA);
    d = good;
    d.resize(d.size() - 1);
    EXPECT_EQ(status(d), MRTD_EF_DG_WRONG_DATA);
    EXPECT_EQ(MRTDGetImageFromDG2(good.data(), 0, &image, &len, &format), MRTD_EF_DG_WRONG_DATA);
}

TEST(MrtdImages, SignatureFormatsOfDg7)
{
    const Bytes jpeg = fixture("mrtd/signature.jpg");
    const Bytes jp2 = {0x00, 0x00, 0x00, 0x0C, 0x6A, 0x50, 0x20, 0x20, 0x0D, 0x0A, 0x87, 0x0A};
    const Bytes odd = {0xFF, 0xD8, 0x00, 0x11};
    const uint8_t *image = nullptr;
    uint32_t len = 0, format = 0;
    struct Case {
        Bytes image;
        uint32_t format;
        const char *mime;
        const char *ext;
    } cases[] = {{jpeg, MRTD_IMAGE_JPEG, "image/jpeg", ".jpeg"},
                 {jp2, MRTD_IMAGE_JPEG2000, "image/jp2", ".jp2"},
                 {odd, 0xFFFFFFFFu, "application/octet-stream", ""}};
    TempDir dir;
    for (const Case &c : cases) {
        const Bytes dg7 = tlv(0x67, cat({tlv(0x02, {0x01}), tlv(0x5F43, c.image)}));
        ASSERT_EQ(MRTDGetImageFromDG7(dg7.data(), int32_t(dg7.size()), &image, &len, &format), ZEL_OK);
        EXPECT_EQ(Bytes(image, image + len), c.image);
        EXPECT_EQ(format, c.format);
        EXPECT_STREQ(GetMimeType(format), c.mime);
        ASSERT_EQ(MRTDGetImageFromDG7ToFile(dg7.data(), uint32_t(dg7.size()), dir.file("sig").c_str()), ZEL_OK);
        EXPECT_EQ(read_file(dir.file(std::string("sig") + c.ext)), c.image);
        char *json = nullptr;
        ASSERT_EQ(parse_dg_image_to_JSON(0x67, dg7.data(), uint32_t(dg7.size()), &json, 1), ZEL_OK);
        JValue v;
        ASSERT_TRUE(parse_json(std::string("{") + json + "}", v)) << json;
        EXPECT_EQ(v.get("image_type")->str, c.mime);
        EXPECT_EQ(v.get("displayed_signature")->str.rfind(std::string("data:") + c.mime + ";base64,", 0), 0u);
        OrbFree(json);
    }
    // An empty image has no JSON form; a lying length no image at all.
    const Bytes empty = tlv(0x67, cat({tlv(0x02, {0x01}), tlv(0x5F43, {})}));
    char *json = nullptr;
    EXPECT_EQ(parse_dg_image_to_JSON(0x67, empty.data(), uint32_t(empty.size()), &json, 0), MRTD_EF_DG_WRONG_DATA);
    EXPECT_EQ(json, nullptr);
    Bytes lying = tlv(0x67, cat({tlv(0x02, {0x01}), tlv(0x5F43, jpeg)}));
    lying[lying.size() - jpeg.size() - 1] ^= 0x40;
    EXPECT_EQ(MRTDGetImageFromDG7(lying.data(), int32_t(lying.size()), &image, &len, &format), MRTD_EF_DG_WRONG_DATA);
}

TEST(MrtdImages, Base64ByTheRfcVectors)
{
    // RFC 4648, section 10.
    const std::pair<const char *, const char *> vectors[] = {{"", ""},
                                                             {"f", "Zg=="},
                                                             {"fo", "Zm8="},
                                                             {"foo", "Zm9v"},
                                                             {"foob", "Zm9vYg=="},
                                                             {"fooba", "Zm9vYmE="},
                                                             {"foobar", "Zm9vYmFy"}};
    for (const auto &v : vectors) {
        const size_t n = std::strlen(v.first);
        char out[16];
        uint64_t out_len = 99;
        ASSERT_EQ(
            image_base64_encode(reinterpret_cast<const uint8_t *>(v.first), n, out, (n + 2) / 3 * 4 + 1, &out_len), 0u);
        EXPECT_STREQ(out, v.second);
        EXPECT_EQ(out_len, std::strlen(v.second));
        if (n) {
            EXPECT_EQ(
                image_base64_encode(reinterpret_cast<const uint8_t *>(v.first), n, out, (n + 2) / 3 * 4, &out_len),
                0xFFFFFFFFu);
        }
    }
    uint64_t out_len = 0;
    EXPECT_EQ(image_base64_encode(nullptr, 3, nullptr, 8, &out_len), 0xFFFFFFFFu);
}

TEST(MrtdTextGroups, Dg11MembersEscapingAndSkippedObjects)
{
    const Bytes dg11 = fixture("mrtd/dg11.bin");
    char *json = nullptr;
    ASSERT_EQ(MRTD_DG_To_JSON_Heap(dg11.data(), uint32_t(dg11.size()), &json, 0), ZEL_OK);
    JValue v;
    ASSERT_TRUE(parse_json(std::string("{") + json + "}", v)) << json;
    OrbFree(json);
    const JValue *g = v.get("DG11");
    ASSERT_NE(g, nullptr);
    ASSERT_EQ(g->members.size(), 3u); // the tag list is no member
    EXPECT_EQ(g->get("full_name")->str, "ERIKSSON  ANNA MARIA");
    EXPECT_EQ(g->get("place_of_birth")->str, "ZENITH \"OLD TOWN\", K\xC3\x96LN");
    EXPECT_EQ(g->get("personal_number")->str, "ZE184226B");

    // Unknown tags stand under "instances"; the value stops at a NUL; a template A0 is skipped; flat form.
    const Bytes made = tlv(0x6C, cat({tlv(0x5F77, text("x")), tlv(0x5F19, text(std::string("OFFICE<<<\0tail", 14))),
                                      tlv(0xA0, tlv(0x5F0F, text("HIDDEN"))), tlv(0x80, text("\x01\x7f"))}));
    ASSERT_EQ(MRTD_DG_To_JSON_Heap(made.data(), uint32_t(made.size()), &json, 1), ZEL_OK);
    v = JValue{};
    ASSERT_TRUE(parse_json(std::string("{") + json + "}", v)) << json;
    OrbFree(json);
    ASSERT_EQ(v.members.size(), 3u);
    EXPECT_EQ(v.members[0].first, "instances");
    EXPECT_EQ(v.members[0].second.str, "x");
    EXPECT_EQ(v.get("issuing_authority")->str, "OFFICE");
    EXPECT_EQ(v.members[2].first, "instances");
    EXPECT_EQ(v.members[2].second.str, "\x01\x7f");

    // Broken walks: a zero tag, a two-byte tag cut short, a length past the end, another outer tag.
    const Bytes bad[] = {tlv(0x6B, {0x00, 0x01, 0x41}),       tlv(0x6B, {0x5F}),
                         tlv(0x6B, {0x5F, 0x8E, 0x01, 0x41}), tlv(0x6B, {0x5F, 0x0E, 0x05, 0x41}),
                         tlv(0x6D, {0xA0, 0x03, 0x00}),       tlv(0x61, {0x5F, 0x0E, 0x00})};
    for (const Bytes &b : bad) {
        json = reinterpret_cast<char *>(1);
        EXPECT_EQ(MRTD_DG_To_JSON_Heap(b.data(), uint32_t(b.size()), &json, 0), MRTD_EF_DG_WRONG_DATA);
        EXPECT_EQ(json, nullptr);
    }
}

TEST(MrtdTextGroups, Dg1Fragment)
{
    const Bytes dg1 = fixture("mrtd/dg1.bin");
    char *json = nullptr;
    ASSERT_EQ(parse_dg1_to_JSON(dg1.data(), int32_t(dg1.size()), &json, 0), ZEL_OK);
    JValue v;
    ASSERT_TRUE(parse_json(std::string("{") + json + "}", v)) << json;
    OrbFree(json);
    const JValue *g = v.get("DG1");
    ASSERT_NE(g, nullptr);
    EXPECT_EQ(g->members[0].first, "document_code");
    EXPECT_EQ(g->get("issuing_state")->str, "UTO");
    EXPECT_EQ(g->get("date_of_expiry")->str, "15.04.2012.");
    // A TD2 has no JSON form; a file that is not DG1 is refused.
    const Bytes td2 = tlv(0x61, tlv(0x5F1F, Bytes(72, '<')));
    EXPECT_EQ(parse_dg1_to_JSON(td2.data(), int32_t(td2.size()), &json, 1), MRTD_EF_DG1_WRONG_LDS_VERSION_LENGTH);
    Bytes other = dg1;
    other[0] = 0x62;
    EXPECT_EQ(parse_dg1_to_JSON(other.data(), int32_t(other.size()), &json, 1), MRTD_EF_DG_WRONG_DATA);
    EXPECT_EQ(parse_dg1_to_JSON(dg1.data(), 0, &json, 1), ZEL_PARAMETERS_ERROR);
}

TEST(MrtdFilter, TokensCaseAndLimits)
{
    uint8_t a[16], b[16];
    ASSERT_EQ(parse_dg_filter_string("DG1,DG2", a), ZEL_OK);
    ASSERT_EQ(parse_dg_filter_string(" dg1\tdg2\r\n", b), ZEL_OK);
    EXPECT_EQ(0, std::memcmp(a, b, 16));
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(a[i], i < 2 ? 1 : 0);
    ASSERT_EQ(parse_dg_filter_string("DG16 DG0 DG17 DGx DG14extra", a), ZEL_OK);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(a[i], i == 15 || i == 13 ? 1 : 0) << i;                   // "%d" reads the number at the front
    ASSERT_EQ(parse_dg_filter_string("DG0000000000000011 DG3", a), ZEL_OK); // a 16-character token is ignored
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(a[i], i == 2 ? 1 : 0) << i;
    EXPECT_EQ(parse_dg_filter_string(std::string(255, ' ').c_str(), a), ZEL_OK);
    EXPECT_EQ(parse_dg_filter_string(std::string(256, ' ').c_str(), a), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(parse_dg_filter_string("", a), ZEL_PARAMETERS_ERROR);
    // The filter by tag: DG11 is 0x6B, DG2 0x75; EF.SOD is never a data group.
    ASSERT_EQ(parse_dg_filter_string("DG11", a), ZEL_OK);
    EXPECT_TRUE(is_dg_allowed(0x6B, a, 1));
    EXPECT_FALSE(is_dg_allowed(0x75, a, 1));
    EXPECT_FALSE(is_dg_allowed(0x77, a, 1));
    EXPECT_TRUE(is_dg_allowed(0x77, a, 0));
}

class MrtdMasterList : public ::testing::Test {
protected:
    void SetUp() override { initCryptoSubsys(); }
};

TEST_F(MrtdMasterList, WalksTheCertificatesOfAnOpensslMadeList)
{
    FILE *ml = nullptr;
    ASSERT_EQ(icaoMlOpen((fixtures_dir() + "/mrtd/csca_list.ml").c_str(), &ml), ZEL_OK);
    uint32_t start = 0, length = 0;
    ASSERT_EQ(icaoMlMoveToFirstCert(ml, &start, &length), ZEL_OK);
    const char *names[] = {"rsa1024", "rsa3072", "csca_bp256", "rsa2560"};
    for (const char *name : names) {
        uint8_t *cert = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(icaoMlGetCurrentCertAndMoveToNext(ml, &cert, &len, start, length), ZEL_OK) << name;
        EXPECT_EQ(Bytes(cert, cert + len), fixture(std::string("crypto/") + name + ".der")) << name;
        OrbFree(cert);
    }
    uint8_t *cert = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(icaoMlGetCurrentCertAndMoveToNext(ml, &cert, &len, start, length), ICAO_ML_CERTIFICATE_NOT_FOUND);

    // Search by subject and key identifier of the brainpool CSCA, from the first certificate each time.
    const Bytes bp = fixture("crypto/csca_bp256.der");
    const uint8_t *subject = nullptr, *ski = nullptr, *issuer = nullptr;
    uint32_t subject_len = 0, ski_len = 0, issuer_len = 0;
    ASSERT_EQ(X509GetSubjectSeq(bp.data(), uint32_t(bp.size()), &subject, &subject_len), ZEL_OK);
    ASSERT_EQ(X509GetSKIFromCert(bp.data(), uint32_t(bp.size()), &ski, &ski_len), ZEL_OK);
    ASSERT_EQ(X509GetIssuerSeq(bp.data(), uint32_t(bp.size()), &issuer, &issuer_len), ZEL_OK);
    icao_ml_search_criteria c;
    icaoMlClearSearchCriteria(&c);
    c.subject = subject, c.subject_len = subject_len, c.ski = ski, c.ski_len = ski_len;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(icaoMlFindCert(ml, &c, &cert, &len), ZEL_OK);
        EXPECT_EQ(Bytes(cert, cert + len), bp);
        OrbFree(cert);
    }
    // The issuer criterion alone never matches (its length is also held against the subject criterion's).
    icaoMlClearSearchCriteria(&c);
    c.issuer = issuer, c.issuer_len = issuer_len;
    EXPECT_EQ(icaoMlFindCert(ml, &c, &cert, &len), ICAO_ML_CERTIFICATE_NOT_FOUND);
    c.subject = subject, c.subject_len = subject_len;
    ASSERT_EQ(icaoMlFindCert(ml, &c, &cert, &len), ZEL_OK);
    EXPECT_EQ(Bytes(cert, cert + len), bp);
    OrbFree(cert);
    // A serial that no certificate has.
    const uint8_t serial[] = {0x01, 0x77};
    icaoMlClearSearchCriteria(&c);
    c.serial = serial, c.serial_len = sizeof serial;
    EXPECT_EQ(icaoMlFindCert(ml, &c, &cert, &len), ICAO_ML_CERTIFICATE_NOT_FOUND);
    EXPECT_EQ(cert, nullptr);
    EXPECT_EQ(icaoMlClose(ml), ZEL_OK);
}

TEST_F(MrtdMasterList, RefusedFiles)
{
    FILE *ml = reinterpret_cast<FILE *>(1);
    EXPECT_EQ(icaoMlOpen((fixtures_dir() + "/mrtd/short.ml").c_str(), &ml), ICAO_ML_CAN_NOT_READ_FILE);
    EXPECT_EQ(ml, nullptr);
    EXPECT_EQ(icaoMlOpen((fixtures_dir() + "/mrtd/none.ml").c_str(), &ml), ICAO_ML_CAN_NOT_OPEN_FILE);
    // A security object: a SignedData of version 3 too, but its content is no master list.
    TempDir dir;
    Bytes sod = fixture("mrtd/sod_bp256.bin");
    sod.erase(sod.begin(), sod.begin() + 4); // drop the 77 wrapper: plain CMS DER
    sod.resize(std::max<size_t>(sod.size(), 1024), 0);
    write_file(dir.file("sod.ml"), sod);
    EXPECT_EQ(icaoMlOpen(dir.file("sod.ml").c_str(), &ml), ICAO_ML_WRONG_FORMAT);
    // A list whose version is not 3.
    Bytes list = fixture("mrtd/csca_list.ml");
    const std::string s(list.begin(), list.end());
    const size_t v3 = s.find(std::string("\x02\x01\x03", 3));
    ASSERT_NE(v3, std::string::npos);
    list[v3 + 2] = 0x01;
    write_file(dir.file("v1.ml"), list);
    EXPECT_EQ(icaoMlOpen(dir.file("v1.ml").c_str(), &ml), ICAO_ML_WRONG_FORMAT);
    // A certificate whose length runs past the SET: the walk stops with a format error.
    list = fixture("mrtd/csca_list.ml");
    FILE *good = nullptr;
    ASSERT_EQ(icaoMlOpen((fixtures_dir() + "/mrtd/csca_list.ml").c_str(), &good), ZEL_OK);
    uint32_t start = 0, length = 0;
    ASSERT_EQ(icaoMlMoveToFirstCert(good, &start, &length), ZEL_OK);
    icaoMlClose(good);
    list[start + 2] = 0x7F; // the first certificate's length, high byte
    write_file(dir.file("long.ml"), list);
    ASSERT_EQ(icaoMlOpen(dir.file("long.ml").c_str(), &ml), ZEL_OK);
    uint8_t *cert = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(icaoMlGetCurrentCertAndMoveToNext(ml, &cert, &len, start, length), ICAO_ML_WRONG_FORMAT);
    icaoMlClose(ml);
}

} // namespace
