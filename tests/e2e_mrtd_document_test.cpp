// A whole travel document: the library's BAC, secure messaging, document session, JSON document and passive
// authentication against the simulated passport chip, whose cryptography is its own. The chip is plugged in
// as the card link (APDU bytes in, bytes out); the documents are the chip's own (signed by its built-in
// document signers) or files made with the openssl command line.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <string>

#include "cards/passport.h"
#include "mrtd/mrtd_internal.h"
#include "mrtd_test_support.h"
#include "tandro.h"
#include "transport/serial.h"
#include "zelsim.h"

using namespace mrtdtest;

namespace {

const char kTd3[] = "P<UTOERIKSSON<<ANNA<MARIA<<<<<<<<<<<<<<<<<<<L898902C36UTO7408122F1204159ZE184226B<<<<<10";
const char kTd1[] = "IDUTOD231458907<<<<<<<<<<<<<<<7408122F1204159UTO<<<<<<<<<<<6ERIKSSON<<ANNA<MARIA<<<<<<<<<<";

// The chip behind the library's card link for the life of the object.
class Chip {
public:
    explicit Chip(zs::PassportDocument doc)
    {
        auto app = std::make_unique<zs::PassportApp>(std::move(doc));
        app_ = app.get();
        host_.add(std::move(app));
        zel::mrtd::set_link_hook(&Chip::transceive, this);
    }
    ~Chip() { zel::mrtd::set_link_hook(nullptr, nullptr); }
    Chip(const Chip &) = delete;
    Chip &operator=(const Chip &) = delete;

    zs::PassportApp &app() { return *app_; }
    uint32_t exchanges() const { return exchanges_; }

private:
    static ZEL_STATUS transceive(void *context, const uint8_t *cmd, uint32_t cmd_len, uint8_t *resp, uint32_t *resp_len)
    {
        auto *self = static_cast<Chip *>(context);
        ++self->exchanges_;
        const std::vector<uint8_t> r = self->host_.transceive(cmd, cmd_len);
        if (r.size() > *resp_len)
            return ZEL_APDU_TRANSCEIVE_ERROR;
        std::memcpy(resp, r.data(), r.size());
        *resp_len = static_cast<uint32_t>(r.size());
        return ZEL_OK;
    }
    zs::AppHost host_;
    zs::PassportApp *app_ = nullptr;
    uint32_t exchanges_ = 0;
};

zs::PassportDocument build(zs::PassportSetup setup = {})
{
    zs::PassportDocument doc;
    std::string err;
    EXPECT_TRUE(zs::passport_build(setup, doc, err)) << err;
    return doc;
}

// The document of the fixtures: the specimen MRZ, DG1, DG2, DG11, DG14 and a security object.
zs::PassportDocument fixture_document(const std::string &sod)
{
    zs::PassportDocument doc;
    doc.mrz = kTd3;
    doc.files[0x011E] = fixture("mrtd/com.bin");
    doc.files[0x0101] = fixture("mrtd/dg1.bin");
    doc.files[0x0102] = fixture("mrtd/dg2.bin");
    doc.files[0x010B] = fixture("mrtd/dg11.bin");
    doc.files[0x010E] = fixture("mrtd/dg14.bin");
    doc.files[0x011D] = fixture("mrtd/" + sod);
    return doc;
}

struct Keys {
    uint8_t ks_enc[16] = {}, ks_mac[16] = {};
    uint64_t ssc = 0;
};

// BAC with the MRZ of the specimen (or another proto key).
ZEL_STATUS authenticate(Keys &k, const char *doc = "L898902C3", const char *birth = "740812",
                        const char *expiry = "120415")
{
    char key[MRTD_PROTO_KEY_SIZE];
    const ZEL_STATUS st = MRTD_MRZDataToMRZProtoKey(doc, birth, expiry, key);
    if (st != ZEL_OK)
        return st;
    return MRTDAppSelectAndAuthenticateBac(key, k.ks_enc, k.ks_mac, &k.ssc);
}

struct Validation {
    ZEL_STATUS status = 0;
    std::string text;
    uint8_t integrity = 0xFF, csca = 0xFF;
};

// BAC, optionally a read of DG2 (which the library keeps the digest of), then the validation.
Validation validate(const std::string &folder, uint32_t verbosity, bool read_face_first = false)
{
    Keys k;
    Validation v;
    EXPECT_EQ(authenticate(k), ZEL_OK);
    if (read_face_first) {
        const uint8_t dg2[2] = {0x01, 0x02};
        uint8_t *data = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(MRTDFileReadBacToHeap(dg2, &data, &len, k.ks_enc, k.ks_mac, &k.ssc), ZEL_OK);
        OrbFree(data);
    }
    char *text = nullptr;
    v.status = MRTDValidateHnd(&zel_global, folder.c_str(), &text, "\n", verbosity, k.ks_enc, k.ks_mac, &k.ssc,
                               &v.integrity, &v.csca);
    if (text)
        v.text = text;
    if (verbosity == 0) {
        EXPECT_EQ(text, nullptr);
    }
    OrbFree(text);
    return v;
}

bool has(const std::string &text, const std::string &what)
{
    return text.find(what) != std::string::npos;
}

std::string read_document(ZEL_STATUS *st, uint32_t flat, uint32_t validate, const char *filter, uint32_t cap = 65536)
{
    std::string out(cap, '\0');
    uint32_t len = cap;
    *st = MRTD_ReadDocumentDataEx(out.data(), &len, flat, validate, filter);
    out.resize(len);
    return out;
}

class MrtdDocument : public ::testing::Test {
protected:
    void SetUp() override { initCryptoSubsys(); }
    void TearDown() override { MRTD_SessionClose(); }
};

// ---- BAC and file reads ----

TEST_F(MrtdDocument, BacReadsEveryFileAsTheChipHoldsIt)
{
    const zs::PassportDocument doc = build();
    Chip chip(doc);
    Keys k;
    ASSERT_EQ(authenticate(k), ZEL_OK);
    EXPECT_TRUE(chip.app().authenticated());
    EXPECT_EQ(k.ssc, chip.app().ssc());
    for (uint16_t id : {0x011E, 0x0101, 0x0102, 0x0107, 0x010B, 0x010C, 0x010E, 0x011D}) {
        const uint8_t fid[2] = {uint8_t(id >> 8), uint8_t(id)};
        uint8_t *data = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(MRTDFileReadBacToHeap(fid, &data, &len, k.ks_enc, k.ks_mac, &k.ssc), ZEL_OK) << std::hex << id;
        EXPECT_EQ(Bytes(data, data + len), doc.files.at(id)) << std::hex << id;
        OrbFree(data);
        // Both sides counted every command and every answer.
        EXPECT_EQ(k.ssc, chip.app().ssc());
    }
    // DG3 needs Extended Access Control: the wrapped 69 82 of the chip.
    const uint8_t dg3[2] = {0x01, 0x03};
    uint8_t *data = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(MRTDFileReadBacToHeap(dg3, &data, &len, k.ks_enc, k.ks_mac, &k.ssc), 0xA6982u);
    OrbFree(data);
    // The DS certificate of the security object.
    uint8_t *cert = nullptr;
    uint32_t cert_len = 0;
    ASSERT_EQ(MRTD_SOD_CertToHeap(&cert, &cert_len, k.ks_enc, k.ks_mac, &k.ssc), ZEL_OK);
    const uint8_t *subject = nullptr;
    uint32_t subject_len = 0;
    EXPECT_EQ(X509GetSubjectSeq(cert, cert_len, &subject, &subject_len), ZEL_OK);
    EXPECT_NE(std::string(reinterpret_cast<const char *>(subject), subject_len).find("Document Signer ec"),
              std::string::npos);
    OrbFree(cert);
}

TEST_F(MrtdDocument, WrongMrzIsRefusedByTheChip)
{
    Chip chip(build());
    Keys k;
    // The card's refusal of EXTERNAL AUTHENTICATE comes back as its status word.
    EXPECT_EQ(authenticate(k, "L898902C4"), 0xA6300u);
    EXPECT_FALSE(chip.app().authenticated());
    EXPECT_EQ(MRTD_SessionInit("L898902C3", "740813", "120415"), 0xA6300u);
    ZEL_STATUS st = 0;
    read_document(&st, 1, 0, nullptr);
    EXPECT_EQ(st, MRTD_SESSION_NOT_INITIALIZED);
}

TEST_F(MrtdDocument, AnswersNotMadeByTheChipBreakTheSession)
{
    for (const char *fault : {"mac", "cipher", "no_do99", "sw_mismatch"}) {
        zs::PassportSetup setup;
        setup.fault = fault;
        Chip chip(build(setup));
        Keys k;
        ASSERT_EQ(authenticate(k), ZEL_OK) << fault;
        for (uint16_t id : {0x011E, 0x0101}) {
            const uint8_t fid[2] = {uint8_t(id >> 8), uint8_t(id)};
            uint8_t *data = nullptr;
            uint32_t len = 0;
            EXPECT_EQ(MRTDFileReadBacToHeap(fid, &data, &len, k.ks_enc, k.ks_mac, &k.ssc),
                      MRTD_SECURE_CHANNEL_SESSION_FAILED)
                << fault << ' ' << std::hex << id;
            EXPECT_EQ(data, nullptr) << fault;
            EXPECT_EQ(len, 0u) << fault;
            OrbFree(data);
        }
    }
    // The chip's MAC over its part of the authentication.
    zs::PassportSetup setup;
    setup.fault = "auth_mac";
    Chip chip(build(setup));
    Keys k;
    EXPECT_EQ(authenticate(k), MRTD_SECURE_CHANNEL_SESSION_FAILED);
    EXPECT_EQ(k.ssc, 0u);
    EXPECT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), MRTD_SECURE_CHANNEL_SESSION_FAILED);
    ZEL_STATUS st = 0;
    read_document(&st, 1, 0, nullptr);
    EXPECT_EQ(st, MRTD_SESSION_NOT_INITIALIZED);
}

// ---- The JSON document ----

TEST_F(MrtdDocument, WholeDocumentIsValidJsonWithEveryReadableGroup)
{
    Chip chip(build());
    ASSERT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), ZEL_OK);
    ZEL_STATUS st = 0;
    const std::string text = read_document(&st, 0, 0, "");
    ASSERT_EQ(st, ZEL_OK);
    JValue doc;
    ASSERT_TRUE(parse_json(text, doc)) << text;
    ASSERT_EQ(doc.kind, JValue::OBJECT);
    std::vector<std::string> keys;
    for (const auto &m : doc.members)
        keys.push_back(m.first);
    // EF.COM order; DG3 (EAC) is absent, DG14 has no JSON form.
    EXPECT_EQ(keys, (std::vector<std::string>{"DG1", "DG2", "DG7", "DG11", "DG12"}));

    const JValue *dg1 = doc.get("DG1");
    ASSERT_NE(dg1, nullptr);
    EXPECT_EQ(dg1->get("document_number")->str, "L898902C3");
    EXPECT_EQ(dg1->get("holder_name")->str, "ERIKSSON  ANNA MARIA");
    EXPECT_EQ(dg1->get("date_of_birth")->str, "12.08.1974.");
    EXPECT_EQ(dg1->get("document_type")->str, "ePassport");

    const JValue *dg2 = doc.get("DG2");
    ASSERT_NE(dg2, nullptr);
    EXPECT_EQ(dg2->get("image_type")->str, "image/jpeg");
    const std::string url = dg2->get("image")->str;
    const std::string prefix = "data:image/jpeg;base64,";
    ASSERT_EQ(url.compare(0, prefix.size(), prefix), 0);
    Bytes face;
    ASSERT_TRUE(base64_decode(url.substr(prefix.size()), face));
    EXPECT_EQ(face, zs::passport_face_jpeg());

    const JValue *dg7 = doc.get("DG7");
    ASSERT_NE(dg7, nullptr);
    EXPECT_EQ(dg7->get("image_type")->str, "image/jpeg");
    EXPECT_EQ(dg7->get("displayed_signature")->str.compare(0, prefix.size(), prefix), 0);

    // Text of the chip arrives escaped: the quotes and the UTF-8 of the place of birth survive the trip.
    const JValue *dg11 = doc.get("DG11");
    ASSERT_NE(dg11, nullptr);
    EXPECT_EQ(dg11->get("full_name")->str, "ERIKSSON  ANNA MARIA");
    EXPECT_EQ(dg11->get("place_of_birth")->str, "ZENITH \"OLD TOWN\" K\xC3\x96LN");
    EXPECT_EQ(dg11->get("permanent_address")->str, "1 MAIN STREET ZENITH UTOPIA");
    EXPECT_EQ(dg11->get("other_name"), nullptr); // inside the skipped template
    EXPECT_EQ(doc.get("DG12")->get("date_of_issue")->str, "20120416");
}

TEST_F(MrtdDocument, FilterFlatFormAndSmallBuffers)
{
    Chip chip(build());
    ASSERT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), ZEL_OK);
    ZEL_STATUS st = 0;
    JValue doc;
    // Only DG2.
    ASSERT_TRUE(parse_json(read_document(&st, 0, 0, "DG2"), doc));
    EXPECT_EQ(st, ZEL_OK);
    ASSERT_EQ(doc.members.size(), 1u);
    EXPECT_EQ(doc.members[0].first, "DG2");

    // Flat: the members of every group in the outer object, the two image types repeated.
    doc = JValue{};
    ASSERT_TRUE(parse_json(read_document(&st, 1, 0, "dg1 dg2, DG7"), doc));
    EXPECT_EQ(st, ZEL_OK);
    EXPECT_EQ(doc.get("document_number")->str, "L898902C3");
    EXPECT_EQ(doc.count("image_type"), 2u);
    EXPECT_NE(doc.get("displayed_signature"), nullptr);
    EXPECT_EQ(doc.get("DG1"), nullptr);

    // A filter of only unknown names allows nothing: the empty object.
    std::string text = read_document(&st, 0, 0, "DG0 DG17 passport");
    EXPECT_EQ(st, ZEL_OK);
    EXPECT_EQ(text, "{}");
    EXPECT_EQ(read_document(&st, 0, 0, std::string(256, 'D').c_str()), "");
    EXPECT_EQ(st, ZEL_PARAMETERS_ERROR);

    // Capacity 1: refused after the reads. A capacity too small for the image keeps a closed object.
    read_document(&st, 0, 0, nullptr, 1);
    EXPECT_EQ(st, ZEL_BUFFER_SIZE_EXCEEDED);
    text = read_document(&st, 0, 0, nullptr, 600);
    EXPECT_EQ(st, ZEL_BUFFER_SIZE_EXCEEDED);
    doc = JValue{};
    ASSERT_TRUE(parse_json(text, doc)) << text;
    ASSERT_EQ(doc.members.size(), 1u);
    EXPECT_EQ(doc.members[0].first, "DG1");
    EXPECT_EQ(text.size(), std::strlen(text.c_str()));
}

TEST_F(MrtdDocument, Td1IdentityCardDocument)
{
    zs::PassportSetup setup;
    setup.mrz = kTd1;
    Chip chip(build(setup));
    ASSERT_EQ(MRTD_SessionInit("D23145890", "740812", "120415"), ZEL_OK);
    ZEL_STATUS st = 0;
    JValue doc;
    ASSERT_TRUE(parse_json(read_document(&st, 0, 0, "DG1,DG11"), doc));
    EXPECT_EQ(st, ZEL_OK);
    const JValue *dg1 = doc.get("DG1");
    ASSERT_NE(dg1, nullptr);
    EXPECT_EQ(dg1->get("document_type")->str, "IdentityCard");
    EXPECT_EQ(dg1->get("document_number")->str, "D23145890");
    EXPECT_NE(dg1->get("optional_data2"), nullptr);
    EXPECT_EQ(doc.get("DG11")->get("full_name")->str, "ERIKSSON  ANNA MARIA");
}

TEST_F(MrtdDocument, SessionLifecycle)
{
    Chip chip(build());
    EXPECT_EQ(MRTD_SessionInit("L898902C3", "19740812", "120415"), ZEL_PARAMETERS_ERROR);
    ZEL_STATUS st = 0;
    read_document(&st, 0, 0, nullptr);
    EXPECT_EQ(st, MRTD_SESSION_NOT_INITIALIZED);
    ASSERT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), ZEL_OK);
    // Any number of reads in one session.
    for (int i = 0; i < 3; ++i) {
        JValue doc;
        ASSERT_TRUE(parse_json(read_document(&st, 0, 0, "DG1"), doc));
        EXPECT_EQ(st, ZEL_OK);
        EXPECT_TRUE(chip.app().authenticated());
    }
    EXPECT_EQ(MRTD_SessionClose(), ZEL_OK);
    read_document(&st, 0, 0, nullptr);
    EXPECT_EQ(st, MRTD_SESSION_NOT_INITIALIZED);
}

// ---- Passive authentication ----

class MrtdValidation : public MrtdDocument {
protected:
    TempDir dir;
    void csca_folder() { write_text(dir.file("utopia.pem"), zs::passport_csca_pem()); }
};

TEST_F(MrtdValidation, GoodDocumentAtEveryVerbosity)
{
    Chip chip(build());
    csca_folder();
    const Validation v0 = validate(dir.path(), 0);
    EXPECT_EQ(v0.status, ZEL_OK);
    EXPECT_EQ(v0.integrity, 0); // nothing compared at verbosity 0
    EXPECT_EQ(v0.csca, 1);

    const Validation v1 = validate(dir.path(), 1);
    EXPECT_EQ(v1.status, ZEL_OK);
    EXPECT_EQ(v1.integrity, 1);
    EXPECT_EQ(v1.csca, 1);
    EXPECT_TRUE(has(v1.text, "Hash algorithm for data groups used: SHA-256"));
    EXPECT_TRUE(has(v1.text, "Data group 14: \nHASH IS MATCHED"));
    EXPECT_TRUE(has(v1.text, "DIGEST IS MATCHED"));
    EXPECT_TRUE(has(v1.text, "Elliptic curve name: "));
    EXPECT_TRUE(has(v1.text, "Signed Attributes signature is OK."));
    EXPECT_TRUE(has(v1.text, "\nDocument validity CONFIRMED\n"));
    EXPECT_FALSE(has(v1.text, "Stored    : "));
    EXPECT_FALSE(has(v1.text, "NOT CALCULATED"));

    const Validation v2 = validate(dir.path(), 2);
    EXPECT_EQ(v2.status, ZEL_OK);
    EXPECT_EQ(v2.integrity, 1);
    // DG3 answers 69 82 and is no failure.
    EXPECT_TRUE(has(v2.text, "Data group 3: NOT CALCULATED\n(Unreadable data without using EAC"));
    EXPECT_TRUE(has(v2.text, "Calculated: "));
    EXPECT_TRUE(has(v2.text, "Root CSCA certificate has been found\nCSCA certificate SKI: "));
    EXPECT_TRUE(has(v2.text, "Document Signing (DS) certificate AKI: "));
    EXPECT_EQ(v2.text.find("HASH IS NOT"), std::string::npos);
}

TEST_F(MrtdValidation, RsaSignerAndTamperedGroup)
{
    zs::PassportSetup setup;
    setup.signer = "rsa";
    setup.tamper = "DG11";
    Chip chip(build(setup));
    csca_folder();
    const Validation v = validate(dir.path(), 3);
    // Any data group that differs from its stored hash leaves the document without integrity and
    // unconfirmed; the status is that of the chain, which is good.
    EXPECT_EQ(v.status, ZEL_OK);
    EXPECT_EQ(v.integrity, 0);
    EXPECT_EQ(v.csca, 1);
    EXPECT_FALSE(has(v.text, "Document validity CONFIRMED"));
    // The one mismatch stands between the lines of DG11 and DG12.
    const size_t bad = v.text.find("ERROR, HASH IS NOT MATCHING! DATA IS TAMPERED!");
    EXPECT_GT(bad, v.text.find("Data group 11: \n"));
    EXPECT_LT(bad, v.text.find("Data group 12: \n"));
    EXPECT_EQ(v.text.find("HASH IS NOT MATCHING", bad + 10), std::string::npos);
    EXPECT_TRUE(has(v.text, "RSA public key size in bits is 2048"));
    EXPECT_TRUE(has(v.text, "Signed Attributes signature is OK."));
}

TEST_F(MrtdValidation, TamperedFaceOrMissingDg14KeepIntegrityFalse)
{
    csca_folder();
    {
        zs::PassportSetup setup;
        setup.tamper = "DG2";
        Chip chip(build(setup));
        // The changed DG2 read first: its digest is what the library keeps.
        const Validation v = validate(dir.path(), 1, true);
        EXPECT_EQ(v.status, ZEL_OK);
        EXPECT_EQ(v.integrity, 0);
        EXPECT_TRUE(has(v.text, "Data group 2: \nERROR, HASH IS NOT MATCHING!"));
        EXPECT_FALSE(has(v.text, "Document validity CONFIRMED"));
    }
    {
        zs::PassportSetup setup;
        setup.with_dg14 = false;
        Chip chip(build(setup));
        const Validation v = validate(dir.path(), 1);
        EXPECT_EQ(v.status, ZEL_OK);
        EXPECT_EQ(v.integrity, 0);
        EXPECT_EQ(v.csca, 1);
        EXPECT_TRUE(has(v.text, "Document validity CONFIRMED"));
    }
}

TEST_F(MrtdValidation, ForgedSecurityObjectOrForeignSignerIsNeverConfirmed)
{
    csca_folder();
    {
        // DG1 changed, its hash and the LDS digest changed to fit, the signature left as it was: every
        // comparison matches and only the signature tells.
        zs::PassportSetup setup;
        setup.forge = "DG1";
        Chip chip(build(setup));
        for (uint32_t verbosity : {0u, 1u, 3u}) {
            const Validation v = validate(dir.path(), verbosity);
            EXPECT_EQ(v.status, PKCS7_WRONG_SIGNATURE) << verbosity;
            EXPECT_EQ(v.integrity, 0) << verbosity;
            // The chain itself is sound.
            EXPECT_EQ(v.csca, 1) << verbosity;
            EXPECT_FALSE(has(v.text, "Document validity CONFIRMED")) << verbosity;
        }
        const Validation v = validate(dir.path(), 1);
        EXPECT_TRUE(has(v.text, "Data group 1: \nHASH IS MATCHED"));
        EXPECT_TRUE(has(v.text, "DIGEST IS MATCHED"));
        EXPECT_TRUE(has(v.text, "WRONG Signed Attributes signature. DATA IS TAMPERED!"));
    }
    {
        // A document signer that names the right CSCA but was signed by another key.
        zs::PassportSetup setup;
        setup.foreign_ds = true;
        Chip chip(build(setup));
        const Validation v = validate(dir.path(), 1);
        EXPECT_EQ(v.status, MRTD_VERIFY_WRONG_DS_SIGNATURE);
        EXPECT_EQ(v.csca, 0);
        EXPECT_EQ(v.integrity, 1); // the signed attributes do verify with the signer's key
        EXPECT_TRUE(has(v.text, "Document Signing (DS) certificate signature verification failed. Wrong signature!"));
        EXPECT_FALSE(has(v.text, "Document validity CONFIRMED"));
    }
    {
        // Both: the signature is found first and is the status.
        zs::PassportSetup setup;
        setup.forge = "DG1";
        setup.foreign_ds = true;
        Chip chip(build(setup));
        const Validation v = validate(dir.path(), 1);
        EXPECT_EQ(v.status, PKCS7_WRONG_SIGNATURE);
        EXPECT_EQ(v.integrity, 0);
        EXPECT_EQ(v.csca, 0);
        EXPECT_FALSE(has(v.text, "Document validity CONFIRMED"));
    }
}

TEST_F(MrtdValidation, TrustAnchorMissingOrBroken)
{
    Chip chip(build());
    // A folder with other certificates only.
    write_file(dir.file("other.der"), fixture("crypto/csca_rsa.der"));
    write_text(dir.file("junk.pem"), "not a certificate");
    Validation v = validate(dir.path(), 3);
    EXPECT_EQ(v.status, MRTD_VERIFY_CSCA_NOT_EXIST);
    EXPECT_EQ(v.integrity, 1);
    EXPECT_EQ(v.csca, 0);
    EXPECT_TRUE(has(v.text, "Error while processing certificate file junk.pem\n processing, status is: "));
    EXPECT_TRUE(has(v.text, "\nCan not find CSCA (i.e. trust anchor) certificate\n"));

    // No folder: the two lines, and the status of the AKI read.
    v = validate(dir.file("missing"), 3);
    EXPECT_EQ(v.status, ZEL_OK);
    EXPECT_EQ(v.csca, 0);
    EXPECT_TRUE(has(v.text, "Error, can not find and/or open csca directory\nCan not find CSCA"));

    // The right CSCA with a broken self-signature (the last byte of the signature changed).
    Bytes csca;
    {
        TempDir pem_dir;
        write_text(pem_dir.file("c.pem"), zs::passport_csca_pem());
        uint8_t *der = nullptr;
        uint32_t len = 0;
        ASSERT_EQ(X509GetCertFromFile(pem_dir.file("c.pem").c_str(), &der, &len), ZEL_OK);
        csca.assign(der, der + len);
        OrbFree(der);
    }
    csca.back() ^= 0x01;
    write_file(dir.file("utopia.der"), csca);
    v = validate(dir.path(), 1);
    EXPECT_EQ(v.status, MRTD_VERIFY_WRONG_CSCA_SIGNATURE);
    EXPECT_EQ(v.csca, 0);
    EXPECT_TRUE(has(v.text, "Root CSCA self signed certificate signature verification failed!\n"
                            "Root CSCA have wrong signature! Compromised trust anchor!"));
}

TEST_F(MrtdValidation, OpensslMadeDocumentsWithSingleCertificateAndMasterList)
{
    {
        Chip chip(fixture_document("sod_rsa.bin"));
        write_file(dir.file("csca_rsa.der"), fixture("crypto/csca_rsa.der"));
        const Validation v = validate(dir.path(), 2);
        EXPECT_EQ(v.status, ZEL_OK) << v.text;
        EXPECT_EQ(v.integrity, 1);
        EXPECT_EQ(v.csca, 1);
        EXPECT_TRUE(has(v.text, "Document validity CONFIRMED"));
    }
    {
        // The brainpool signer's CSCA is in the master list only; the RSA CSCA next to it does not fit.
        Chip chip(fixture_document("sod_bp256.bin"));
        write_file(dir.file("short.ml"), fixture("mrtd/short.ml"));
        Validation v = validate(dir.path(), 3);
        EXPECT_EQ(v.status, MRTD_VERIFY_CSCA_NOT_EXIST);
        EXPECT_TRUE(has(v.text, "Error during Master List file 'short.ml\n' processing, status is: ")) << v.text;
        write_file(dir.file("list.ml"), fixture("mrtd/csca_list.ml"));
        v = validate(dir.path(), 3);
        EXPECT_EQ(v.status, ZEL_OK) << v.text;
        EXPECT_EQ(v.integrity, 1);
        EXPECT_EQ(v.csca, 1);
        EXPECT_TRUE(has(v.text, "Document validity CONFIRMED"));
    }
}

TEST_F(MrtdValidation, ReadWithValidationAddsTheVerdict)
{
    Chip chip(build());
    char cwd[PATH_MAX];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    ASSERT_EQ(mkdir(dir.file("csca").c_str(), 0700), 0);
    write_text(dir.file("csca") + "/utopia.pem", zs::passport_csca_pem());
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    ASSERT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), ZEL_OK);
    std::string out(65536, '\0');
    uint32_t len = static_cast<uint32_t>(out.size());
    const ZEL_STATUS st = MRTD_ReadDocumentData(out.data(), &len);
    out.resize(len);
    std::string nested_text(65536, '\0');
    uint32_t nested_len = static_cast<uint32_t>(nested_text.size());
    const ZEL_STATUS nested_st = MRTD_ReadDocumentDataEx(nested_text.data(), &nested_len, 0, 1, "DG1");
    nested_text.resize(nested_len);
    unlink(dir.file("csca/utopia.pem").c_str());
    rmdir(dir.file("csca").c_str());
    ASSERT_EQ(chdir(cwd), 0);

    EXPECT_EQ(st, ZEL_OK);
    JValue doc;
    ASSERT_TRUE(parse_json(out, doc)) << out;
    // Flat: the members of the groups and the two truth values at the end.
    ASSERT_GE(doc.members.size(), 2u);
    EXPECT_EQ(doc.members[doc.members.size() - 2].first, "document_integrity");
    EXPECT_TRUE(doc.get("document_integrity")->b);
    EXPECT_TRUE(doc.get("csca_root_validity")->b);
    EXPECT_EQ(doc.get("document_number")->str, "L898902C3");

    EXPECT_EQ(nested_st, ZEL_OK);
    JValue nested;
    ASSERT_TRUE(parse_json(nested_text, nested)) << nested_text;
    ASSERT_EQ(nested.members.size(), 2u);
    EXPECT_EQ(nested.members[1].first, "Validation");
    EXPECT_TRUE(nested.get("Validation")->get("csca_root_validity")->b);
}

} // namespace

// ---- Over the simulated reader ----

namespace {

const zsim_card kPassportCard = {{0x08, 0x11, 0x22, 0x33}, 4, 0x20, 0x0004, 0x40};

// The passport in the field of a simulated reader on a pseudo-terminal, opened as the global reader.
class MrtdOverReader : public ::testing::Test {
protected:
    zsim *sim = nullptr;
    TempDir dir;

    void start(const char *setup)
    {
        initCryptoSubsys();
        sim = zsim_new();
        ASSERT_NE(sim, nullptr);
        ASSERT_EQ(zsim_card_add_model(sim, &kPassportCard, "passport", setup), 0);
        char path[256] = {};
        ASSERT_EQ(zsim_serve_pty(sim, path, sizeof path), 0);
        ASSERT_EQ(zel::serial_open(&zel_global, path, 1000000, true), ZEL_OK);
        PortSetTimeout(&zel_global, 1000);
        ASSERT_EQ(SetISO14443_4_Mode(), ZEL_OK);
    }
    void TearDown() override
    {
        MRTD_SessionClose();
        ReaderClose();
        if (sim)
            zsim_free(sim);
    }
};

TEST_F(MrtdOverReader, DocumentReadAndValidatedOverBac)
{
    start(R"({"face_size": 20000, "block_size": 64})");
    ASSERT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), ZEL_OK);
    ZEL_STATUS st = 0;
    const std::string text = read_document(&st, 0, 0, nullptr, 1 << 17);
    ASSERT_EQ(st, ZEL_OK);
    JValue doc;
    ASSERT_TRUE(parse_json(text, doc));
    EXPECT_EQ(doc.get("DG1")->get("document_number")->str, "L898902C3");
    Bytes face;
    ASSERT_TRUE(base64_decode(doc.get("DG2")->get("image")->str.substr(23), face));
    EXPECT_EQ(face.size(), 20000u);
    // The padded face is still the built-in JPEG: same start of image and the same end.
    const Bytes &jpeg = zs::passport_face_jpeg();
    EXPECT_TRUE(std::equal(jpeg.end() - 100, jpeg.end(), face.end() - 100));

    write_text(dir.file("utopia.pem"), zs::passport_csca_pem());
    Keys k;
    ASSERT_EQ(authenticate(k), ZEL_OK);
    char *report = nullptr;
    uint8_t integrity = 0, validity = 0;
    EXPECT_EQ(MRTDValidateHnd(&zel_global, dir.path().c_str(), &report, nullptr, 1, k.ks_enc, k.ks_mac, &k.ssc,
                              &integrity, &validity),
              ZEL_OK);
    EXPECT_TRUE(has(report ? report : "", "Document validity CONFIRMED"));
    EXPECT_EQ(integrity, 1);
    EXPECT_EQ(validity, 1);
    OrbFree(report);
}

TEST_F(MrtdOverReader, HostileChipsOfTheScenario)
{
    // A forged document and a spoilt MAC, set up the way a scenario sets them up.
    start(R"({"forge": "DG1", "block_size": 64})");
    write_text(dir.file("utopia.pem"), zs::passport_csca_pem());
    Keys k;
    ASSERT_EQ(authenticate(k), ZEL_OK);
    uint8_t integrity = 0xFF, validity = 0xFF;
    EXPECT_EQ(MRTDValidateHnd(&zel_global, dir.path().c_str(), nullptr, nullptr, 0, k.ks_enc, k.ks_mac, &k.ssc,
                              &integrity, &validity),
              PKCS7_WRONG_SIGNATURE);
    EXPECT_EQ(integrity, 0);
    ReaderClose();
    zsim_free(sim);
    sim = nullptr;

    start(R"({"fault": "mac"})");
    ASSERT_EQ(MRTD_SessionInit("L898902C3", "740812", "120415"), ZEL_OK);
    ZEL_STATUS st = 0;
    EXPECT_EQ(read_document(&st, 0, 0, nullptr), "");
    EXPECT_EQ(st, MRTD_SECURE_CHANNEL_SESSION_FAILED);
}

TEST_F(MrtdOverReader, RsaSignedTd1Card)
{
    start(
        R"({"signer": "rsa", "mrz": "IDUTOD231458907<<<<<<<<<<<<<<<7408122F1204159UTO<<<<<<<<<<<6ERIKSSON<<ANNA<MARIA<<<<<<<<<<"})");
    ASSERT_EQ(MRTD_SessionInit("D23145890", "740812", "120415"), ZEL_OK);
    ZEL_STATUS st = 0;
    JValue doc;
    ASSERT_TRUE(parse_json(read_document(&st, 1, 0, "DG1 DG12"), doc));
    EXPECT_EQ(st, ZEL_OK);
    EXPECT_EQ(doc.get("document_type")->str, "IdentityCard");
    EXPECT_EQ(doc.get("issuing_authority")->str, "PASSPORT OFFICE ZENITH");
    // Closing deselects the card: a new session needs a new authentication, which works.
    EXPECT_EQ(MRTD_SessionClose(), ZEL_OK);
    ASSERT_EQ(SetISO14443_4_Mode(), ZEL_OK);
    EXPECT_EQ(MRTD_SessionInit("D23145890", "740812", "120415"), ZEL_OK);
}

} // namespace
