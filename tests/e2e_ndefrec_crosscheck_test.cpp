// Typed records the library writes to a simulated tag, read by independent parsers: the `ndef` package of
// npm (tests/ndef_check) decodes the whole message, the `vcf` package (tests/vcard_check) the contact's
// vCard, and the Wi-Fi credential is walked here by the Wi-Fi Simple Configuration attribute layout. Both
// packages come from scripts/install-deps.sh; without Node.js or them the tests skip and say why.
#include <cstdio>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

using Bytes = std::vector<uint8_t>;

std::string tests_dir()
{
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/'));
}

bool have(const std::string &path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

std::string run(const std::string &cmd)
{
    std::string out;
    if (FILE *p = ::popen(cmd.c_str(), "r")) {
        char buf[512];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, p)) > 0)
            out.append(buf, n);
        ::pclose(p);
    }
    return out;
}

// Runs a check script on bytes written to a scratch file; its output.
std::string check(const std::string &folder, const Bytes &data)
{
    char path[] = "/tmp/ndefrec-crosscheck-XXXXXX";
    const int fd = ::mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(::write(fd, data.data(), data.size()), static_cast<ssize_t>(data.size()));
    ::close(fd);
    const std::string out = run("node '" + tests_dir() + "/" + folder + "/check.js' " + path + " 2>&1");
    ::unlink(path);
    return out;
}

std::string hex(const Bytes &b)
{
    std::string h;
    char x[3];
    for (uint8_t c : b) {
        std::snprintf(x, sizeof x, "%02x", c);
        h += x;
    }
    return h;
}

Bytes unhex(const std::string &h)
{
    Bytes b;
    for (size_t i = 0; i + 1 < h.size(); i += 2)
        b.push_back(static_cast<uint8_t>(std::stoi(h.substr(i, 2), nullptr, 16)));
    return b;
}

// The value of the JSON string member key that follows position from in text ("" when there is none).
std::string member(const std::string &text, const std::string &key, size_t from = 0)
{
    const std::string k = "\"" + key + "\":\"";
    const size_t at = text.find(k, from);
    if (at == std::string::npos)
        return "";
    const size_t end = text.find('"', at + k.size());
    return text.substr(at + k.size(), end - at - k.size());
}

class NdefRecCrossCheck : public CardSimTest {
protected:
    void SetUp() override
    {
        if (run("command -v node").empty())
            GTEST_SKIP() << "Node.js is not installed: the independent parsers cannot run";
        if (!have(tests_dir() + "/ndef_check/node_modules/ndef"))
            GTEST_SKIP() << "the npm package ndef is not installed in tests/ndef_check (scripts/install-deps.sh)";
        start(R"({"cards": [{"uid": "04A22B1A5C6481", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_216",
                            "model": "ntag216", "setup": {"pages": [{"page": 4, "data": "0300FE00"}]}}]})");
    }
    // The bytes of the tag's first NDEF message.
    Bytes message()
    {
        std::vector<uint8_t> img(872);
        uint16_t got = 0;
        EXPECT_EQ(LinearReadM(hnd, img.data(), 0, static_cast<uint16_t>(img.size()), &got, 0x60, 0), ZEL_OK);
        EXPECT_EQ(img[0], 0x03);
        size_t at = 2, len = img[1];
        if (img[1] == 0xFF) {
            at = 4;
            len = static_cast<size_t>(img[2]) << 8 | img[3];
        }
        EXPECT_LE(at + len, img.size());
        return Bytes(img.begin() + static_cast<long>(at), img.begin() + static_cast<long>(at + len));
    }
};

TEST_F(NdefRecCrossCheck, UriKindsAndTextDecodeInTheOtherParser)
{
    const uint8_t c = ZEL_NDEF_STORAGE_CARD;
    ASSERT_EQ(WriteNdefRecord_SMSM(hnd, c, "+385991", "see you"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_PhoneM(hnd, c, "+385992"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_EmailM(hnd, c, "ana@tandro.example", "Hi", "Body"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_AddressM(hnd, c, "Ilica 1, Zagreb"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_GeoLocationM(hnd, c, "45.8", "15.9"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_BitcoinM(hnd, c, "1Boat", "0.5", "tip"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_SkypeM(hnd, c, "bob", 1), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_TextM(hnd, c, "Zdravo, svijete"), ZEL_OK);
    ASSERT_EQ(WriteNdefRecord_AndroidAppM(hnd, c, "org.example.app"), ZEL_OK);
    const std::string out = check("ndef_check", message());
    const char *uris[] = {"sms:+385991?body=see you",
                          "tel:+385992",
                          "mailto:ana@tandro.example?subject=Hi&body=Body",
                          "geo:0,0?q=Ilica+1%2C+Zagreb",
                          "geo:45.8,15.9",
                          "bitcoin:1Boat?amount=0.5&message=tip",
                          "skype:bob?chat"};
    size_t at = 0;
    for (const char *u : uris) {
        const size_t hit = out.find("\"uri\":\"" + std::string(u) + "\"", at);
        EXPECT_NE(hit, std::string::npos) << u << "\n" << out;
        if (hit != std::string::npos)
            at = hit;
    }
    EXPECT_NE(out.find("\"text\":\"Zdravo, svijete\""), std::string::npos) << out;
    EXPECT_NE(out.find("{\"tnf\":4,\"type\":\"android.com:pkg\",\"id\":\"\",\"payload\":\"" +
                       hex(bytes("org.example.app")) + "\"}]"),
              std::string::npos)
        << out;
}

TEST_F(NdefRecCrossCheck, WifiCredentialFollowsTheAttributeLayout)
{
    ASSERT_EQ(WriteNdefRecord_WiFiM(hnd, ZEL_NDEF_STORAGE_CARD, "Lab 5", 3, 4, "s3cret!"), ZEL_OK);
    const std::string out = check("ndef_check", message());
    ASSERT_NE(out.find("\"tnf\":2,\"type\":\"application/vnd.wfa.wsc\""), std::string::npos) << out;
    const Bytes p = unhex(member(out, "payload"));
    // Credential attribute 0x100E around all others; each attribute 16-bit id, 16-bit length, big-endian.
    ASSERT_GE(p.size(), 4u);
    EXPECT_EQ(p[0] << 8 | p[1], 0x100E);
    ASSERT_EQ(static_cast<size_t>(p[2] << 8 | p[3]) + 4, p.size());
    std::map<int, Bytes> attrs;
    for (size_t i = 4; i + 4 <= p.size();) {
        const size_t len = static_cast<size_t>(p[i + 2] << 8 | p[i + 3]);
        ASSERT_LE(i + 4 + len, p.size());
        attrs[p[i] << 8 | p[i + 1]] =
            Bytes(p.begin() + static_cast<long>(i + 4), p.begin() + static_cast<long>(i + 4 + len));
        i += 4 + len;
    }
    EXPECT_EQ(attrs[0x1045], bytes("Lab 5"));
    EXPECT_EQ(attrs[0x1027], bytes("s3cret!"));
    EXPECT_EQ(attrs[0x1003], (Bytes{0x00, 0x10})); // WPA2-Enterprise
    EXPECT_EQ(attrs[0x100F], (Bytes{0x00, 0x0C})); // AES/TKIP
    EXPECT_EQ(attrs.size(), 6u);
}

TEST_F(NdefRecCrossCheck, ContactIsAVcardOfTheOtherParser)
{
    if (!have(tests_dir() + "/vcard_check/node_modules/vcf"))
        GTEST_SKIP() << "the npm package vcf is not installed in tests/vcard_check (scripts/install-deps.sh)";
    ASSERT_EQ(WriteNdefRecord_ContactM(hnd, ZEL_NDEF_STORAGE_CARD, "Ana Lee", "Tandro d.o.o.", "Ilica 1", "+385991",
                                       "ana@tandro.example", "tandro.example"),
              ZEL_OK);
    const std::string out = check("ndef_check", message());
    ASSERT_NE(out.find("\"tnf\":2,\"type\":\"text/vcard\""), std::string::npos) << out;
    const std::string card = check("vcard_check", unhex(member(out, "payload")));
    EXPECT_EQ(member(card, "fn"), "Ana Lee") << card;
    EXPECT_EQ(member(card, "org"), "Tandro d.o.o.") << card;
    EXPECT_EQ(member(card, "tel"), "+385991") << card;
    EXPECT_EQ(member(card, "email"), "ana@tandro.example") << card;
    EXPECT_EQ(member(card, "url"), "tandro.example") << card;
    EXPECT_NE(card.find("\"adr\":[\"\",\"\",\"Ilica 1\""), std::string::npos) << card;
    EXPECT_NE(card.find("\"cards\":1"), std::string::npos) << card;
}

} // namespace
