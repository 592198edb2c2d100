// Typed records without a reader: the payloads the writers build, checked against the public layouts (Wi-Fi
// Simple Configuration attributes, Bluetooth out-of-band record, vCard), their limits, the fields the readers
// take out of hand-made payloads, and the text report.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ndefrec/ndefrec_internal.h"
#include "tandro.h"

using namespace zel::ndefrec;

namespace {

using Bytes = std::vector<uint8_t>;

std::string text(const Bytes &b)
{
    return std::string(b.begin(), b.end());
}

// Wi-Fi Simple Configuration attributes: 16-bit id and 16-bit length, both big-endian, then the value.
std::map<uint16_t, Bytes> wsc_attributes(const Bytes &p, size_t from, size_t to)
{
    std::map<uint16_t, Bytes> out;
    size_t i = from;
    while (i + 4 <= to) {
        const uint16_t id = static_cast<uint16_t>(p[i] << 8 | p[i + 1]);
        const size_t len = static_cast<size_t>(p[i + 2] << 8 | p[i + 3]);
        EXPECT_LE(i + 4 + len, to) << "attribute " << id << " runs past its container";
        if (i + 4 + len > to)
            break;
        out[id] = Bytes(p.begin() + static_cast<long>(i + 4), p.begin() + static_cast<long>(i + 4 + len));
        i += 4 + len;
    }
    EXPECT_EQ(i, to) << "attributes do not fill their container";
    return out;
}

TEST(NdefRecWifi, CredentialFollowsTheAttributeLayout)
{
    Built b;
    ASSERT_EQ(build_wifi("home-net", 4, 3, "correct horse", b), ZEL_OK);
    EXPECT_EQ(b.tnf, 2);
    EXPECT_EQ(b.type, "application/vnd.wfa.wsc");
    EXPECT_EQ(b.payload.size(), 8u + 13u + 39u);
    const auto outer = wsc_attributes(b.payload, 0, b.payload.size());
    ASSERT_EQ(outer.count(0x100E), 1u);
    const Bytes &cred = outer.at(0x100E);
    const auto a = wsc_attributes(cred, 0, cred.size());
    EXPECT_EQ(a.at(0x1026), Bytes{1});
    EXPECT_EQ(text(a.at(0x1045)), "home-net");
    EXPECT_EQ(text(a.at(0x1027)), "correct horse");
    EXPECT_EQ(a.at(0x1003), (Bytes{0x00, 0x20})); // WPA2-Personal
    EXPECT_EQ(a.at(0x100F), (Bytes{0x00, 0x08})); // AES
    EXPECT_EQ(a.at(0x1020), Bytes(6, 0xFF));

    WifiFields w;
    scan_wifi(b.payload.data(), b.payload.size(), w);
    EXPECT_EQ(w.ssid, "home-net");
    EXPECT_EQ(w.password, "correct horse");
    EXPECT_EQ(w.auth, "WPA2-Personal");
    EXPECT_EQ(w.enc, "AES");
}

TEST(NdefRecWifi, EveryTypeIndexMapsToItsValueAndTextBack)
{
    const char *auth[] = {"OPEN", "WPA-Personal", "WPA-Enterprise", "WPA2-Enterprise", "WPA2-Personal"};
    const char *enc[] = {"NONE", "WEP", "TKIP", "AES", "AES/TKIP"};
    const uint8_t auth_v[] = {0x01, 0x02, 0x08, 0x10, 0x20}, enc_v[] = {0x01, 0x02, 0x04, 0x08, 0x0C};
    for (uint8_t i = 0; i < 5; ++i) {
        Built b;
        ASSERT_EQ(build_wifi("s", i, static_cast<uint8_t>(4 - i), "", b), ZEL_OK);
        const auto cred = wsc_attributes(b.payload, 0, b.payload.size()).at(0x100E);
        const auto a = wsc_attributes(cred, 0, cred.size());
        EXPECT_EQ(a.at(0x1003), (Bytes{0, auth_v[i]}));
        EXPECT_EQ(a.at(0x100F), (Bytes{0, enc_v[4 - i]}));
        WifiFields w;
        scan_wifi(b.payload.data(), b.payload.size(), w);
        EXPECT_EQ(w.auth, auth[i]);
        EXPECT_EQ(w.enc, enc[4 - i]);
    }
    Built b;
    EXPECT_EQ(build_wifi("s", 5, 0, "", b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_wifi("s", 0, 5, "", b), ZEL_PARAMETERS_ERROR);
}

TEST(NdefRecWifi, LengthsCountModulo256AndTheRecordUsesThatLength)
{
    const std::string ssid300(300, 'S'), ssid101(101, 'S'), ssid100(100, 'S');
    Built b;
    ASSERT_EQ(build_wifi(ssid300.c_str(), 0, 0, "pw", b), ZEL_OK);
    EXPECT_EQ(b.payload.size(), 44u + 2u + 39u);
    EXPECT_EQ(b.payload[3], 44 + 2 + 35);
    WifiFields w;
    scan_wifi(b.payload.data(), b.payload.size(), w);
    EXPECT_EQ(w.ssid, std::string(44, 'S'));
    EXPECT_EQ(w.password, "pw");
    EXPECT_EQ(build_wifi(ssid101.c_str(), 0, 0, "", b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_wifi("", 0, 0, ssid101.c_str(), b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_wifi(ssid100.c_str(), 0, 0, ssid100.c_str(), b), ZEL_OK);
    EXPECT_EQ(b.payload[3], 235);
}

TEST(NdefRecWifi, ScanTakesTheLastHitAndIgnoresValuesRunningOff)
{
    // Two SSID attributes (the last wins), an auth attribute of length 0 and an unknown encryption value.
    Bytes p = {0x10, 0x45, 0x00, 0x01, 'a',  0x10, 0x45, 0x00, 0x02, 'b',  'c',  0x10, 0x03,
               0x00, 0x00, 0x10, 0x0F, 0x00, 0x02, 0x00, 0x03, 0x10, 0x27, 0x00, 0x09, 'x'};
    WifiFields w;
    scan_wifi(p.data(), p.size(), w);
    EXPECT_EQ(w.ssid, "bc");
    EXPECT_EQ(w.auth, "");
    EXPECT_EQ(w.enc, "");
    EXPECT_EQ(w.password, ""); // announces 9 bytes, has 1: no attribute
    scan_wifi(p.data(), 0, w);
    EXPECT_EQ(w.ssid, "");
}

TEST(NdefRecBluetooth, AddressPairsInTextOrder)
{
    Built b;
    ASSERT_EQ(build_bt("AABBCCDDEEFF", b), ZEL_OK);
    EXPECT_EQ(b.type, "application/vnd.bluetooth.ep.oob");
    EXPECT_EQ(b.payload, (Bytes{0x08, 0x00, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE, 0xFF}));
    // Separators are skipped; 12 characters hold only four pairs then.
    ASSERT_EQ(build_bt("01:23:45:6a:", b), ZEL_OK);
    EXPECT_EQ(b.payload, (Bytes{0x08, 0x00, 0x01, 0x23, 0x45, 0x6A, 0x00, 0x00}));
    // A lone digit ends the collecting.
    ASSERT_EQ(build_bt("12 3 45678901", b), ZEL_PARAMETERS_ERROR); // 13 characters
    ASSERT_EQ(build_bt("12-3-4567890", b), ZEL_OK);
    EXPECT_EQ(b.payload, (Bytes{0x08, 0x00, 0x12, 0x00, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(build_bt("AABBCCDDEEF", b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_bt("AA:BB:CC:DD:EE:FF", b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_bt(nullptr, b), ZEL_PARAMETERS_ERROR);
}

TEST(NdefRecContact, VcardLineEndsAndOptionalFields)
{
    Built b;
    ASSERT_EQ(build_contact("Ana Lee", nullptr, "", nullptr, "", nullptr, b), ZEL_OK);
    EXPECT_EQ(b.type, "text/vcard");
    EXPECT_EQ(text(b.payload), "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ana Lee\nEND:VCARD");
    ASSERT_EQ(build_contact("Ana Lee", "Tandro", "1 Main St", "+123", "ana@example.org", "example.org", b), ZEL_OK);
    EXPECT_EQ(text(b.payload), "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ana Lee\nORG:Tandro\nADR:;;1 Main St;;;;;\n"
                               "TEL:+123\nEMAIL:ana@example.org\nURL:example.org\nEND:VCARD");
    EXPECT_EQ(build_contact("", nullptr, nullptr, nullptr, nullptr, nullptr, b), ZEL_PARAMETERS_ERROR);
    const std::string s51(51, 'x'), s50(50, 'x');
    EXPECT_EQ(build_contact(s51.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_contact("n", nullptr, nullptr, nullptr, nullptr, s51.c_str(), b), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(build_contact(s50.c_str(), s50.c_str(), s50.c_str(), s50.c_str(), s50.c_str(), s50.c_str(), b), ZEL_OK);
    // A 257-byte name counts as 1 byte: its first byte is the name.
    const std::string s257 = "Z" + std::string(256, 'q');
    ASSERT_EQ(build_contact(s257.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr, b), ZEL_OK);
    EXPECT_EQ(text(b.payload), "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Z\nEND:VCARD");
}

TEST(NdefRecUri, PayloadsOfTheUriKinds)
{
    Built b;
    ASSERT_EQ(build_sms("+38599", "hi there", b), ZEL_OK);
    EXPECT_EQ(b.type, "U");
    EXPECT_EQ(text(b.payload), std::string("\0sms:+38599?body=hi there", 25));
    ASSERT_EQ(build_phone("+38599", b), ZEL_OK);
    EXPECT_EQ(text(b.payload), "\x05+38599");
    ASSERT_EQ(build_email("a@b.c", "S", "M", b), ZEL_OK);
    EXPECT_EQ(text(b.payload), "\x06"
                               "a@b.c?subject=S&body=M");
    ASSERT_EQ(build_skype("bob", 1, b), ZEL_OK);
    EXPECT_EQ(text(b.payload), std::string("\0skype:bob?chat", 15));
    EXPECT_EQ(build_skype("bob", 2, b), ZEL_PARAMETERS_ERROR);
    ASSERT_EQ(build_bitcoin("1A2b", "0.5", "thx", b), ZEL_OK);
    EXPECT_EQ(text(b.payload), std::string("\0bitcoin:1A2b?amount=0.5&message=thx", 36));
    ASSERT_EQ(build_address("ab c!", b), ZEL_OK);
    EXPECT_EQ(text(b.payload), std::string("\0geo:0,0?q=ab+c%21", 18));
    ASSERT_EQ(build_android("org.example.app", b), ZEL_OK);
    EXPECT_EQ(b.tnf, 4);
    EXPECT_EQ(b.type, "android.com:pkg");
    ASSERT_EQ(build_text("Hello", b), ZEL_OK);
    EXPECT_EQ(text(b.payload), "\x02"
                               "enHello");
}

TEST(NdefRecLimits, EachWriterRefusesOneByteOverItsLimit)
{
    // Writer, the limit of its field, and whether the length counts modulo 256.
    struct Case {
        const char *name;
        size_t limit;
        bool mod256;
        std::function<ZEL_STATUS(const char *, Built &)> build;
    };
    const std::vector<Case> cases = {
        {"sms number", 50, true, [](const char *s, Built &b) { return build_sms(s, "", b); }},
        {"sms message", 200, true, [](const char *s, Built &b) { return build_sms("", s, b); }},
        {"phone", 50, true, [](const char *s, Built &b) { return build_phone(s, b); }},
        {"viber", 150, false, [](const char *s, Built &b) { return build_viber(s, b); }},
        {"whatsapp", 150, false, [](const char *s, Built &b) { return build_whatsapp(s, b); }},
        {"skype", 100, true, [](const char *s, Built &b) { return build_skype(s, 0, b); }},
        {"streetview", 100, true, [](const char *s, Built &b) { return build_streetview(s, "1", b); }},
        {"geo", 100, true, [](const char *s, Built &b) { return build_geo("1", s, b); }},
        {"text", 10000, false, [](const char *s, Built &b) { return build_text(s, b); }},
        {"android", 100, true, [](const char *s, Built &b) { return build_android(s, b); }},
        {"address", 200, true, [](const char *s, Built &b) { return build_address(s, b); }},
        {"email address", 50, true, [](const char *s, Built &b) { return build_email(s, "", "", b); }},
        {"email subject", 50, true, [](const char *s, Built &b) { return build_email("", s, "", b); }},
        {"email message", 200, true, [](const char *s, Built &b) { return build_email("", "", s, b); }},
        {"navigation", 150, true, [](const char *s, Built &b) { return build_navi(s, b); }},
        {"bitcoin address", 100, true, [](const char *s, Built &b) { return build_bitcoin(s, "", "", b); }},
        {"bitcoin amount", 50, true, [](const char *s, Built &b) { return build_bitcoin("", s, "", b); }},
        {"bitcoin message", 150, true, [](const char *s, Built &b) { return build_bitcoin("", "", s, b); }},
    };
    for (const Case &c : cases) {
        Built b;
        const std::string at(c.limit, '7'), over(c.limit + 1, '7'), wrapped(c.limit + 256, '7');
        EXPECT_EQ(c.build(at.c_str(), b), ZEL_OK) << c.name;
        EXPECT_EQ(c.build(over.c_str(), b), ZEL_PARAMETERS_ERROR) << c.name;
        EXPECT_EQ(c.build(nullptr, b), ZEL_PARAMETERS_ERROR) << c.name;
        // limit + 256 counts as the limit where lengths are taken modulo 256, and the payload keeps that many.
        if (c.mod256) {
            EXPECT_EQ(c.build(wrapped.c_str(), b), ZEL_OK) << c.name;
            Built ref;
            ASSERT_EQ(c.build(at.c_str(), ref), ZEL_OK);
            EXPECT_EQ(b.payload, ref.payload) << c.name;
        } else {
            EXPECT_EQ(c.build(wrapped.c_str(), b), ZEL_PARAMETERS_ERROR) << c.name;
        }
    }
}

// A record as read_ndef_record hands it on: a URI whose code is not in the prefix table comes with its text
// and one byte more (here a stray 'Z'); codes 5 and 6 come written out.
Seen uri_seen(const std::string &text_plus, std::string &store)
{
    static const uint8_t kU = 'U';
    store = text_plus;
    return Seen{1, &kU, 1, reinterpret_cast<const uint8_t *>(store.data()), static_cast<uint32_t>(store.size())};
}

std::vector<std::string> fields_of(Kind k, const std::string &delivered, ZEL_STATUS want = ZEL_OK)
{
    std::string store;
    std::vector<std::string> f;
    EXPECT_EQ(extract(k, uri_seen(delivered, store), f), want) << delivered;
    return f;
}

using V = std::vector<std::string>;

TEST(NdefRecRead, UriFieldsOfEachKind)
{
    EXPECT_EQ(fields_of(Kind::SMS, "sms:+385?body=see you?Z"), (V{"+385", "see you?"}));
    // Without "?body=" the number is the rest and the message the whole text.
    EXPECT_EQ(fields_of(Kind::SMS, "sms:+385?bod=xZ"), (V{"+385?bod=x", "sms:+385?bod=x"}));
    EXPECT_EQ(fields_of(Kind::Phone, "tel:+385 1"), (V{"+385 1"}));
    EXPECT_EQ(fields_of(Kind::Email, "mailto:a@b.c?subject=Hi&body=Text"), (V{"a@b.c", "Hi", "Text"}));
    EXPECT_EQ(fields_of(Kind::Skype, "skype:bob?callZ"), (V{"bob", "call"}));
    EXPECT_EQ(fields_of(Kind::Skype, "skype:bobZ"), (V{"bob", ""}));
    EXPECT_EQ(fields_of(Kind::StreetView, "google.streetview:cbll=45.8,15.9Z"), (V{"45.8", "15.9"}));
    EXPECT_EQ(fields_of(Kind::GeoLocation, "geo:-45.8,15,9Z"), (V{"-45.8,15", "9"}));
    EXPECT_EQ(fields_of(Kind::Address, "geo:0,0?q=ab+c%21Z"), (V{"ab+c%21"}));
    EXPECT_EQ(fields_of(Kind::NaviDestination, "google.navigation:q=ZagrebZ"), (V{"Zagreb"}));
    EXPECT_EQ(fields_of(Kind::Viber, "viber://forward?text=yoZ"), (V{"yo"}));
    EXPECT_EQ(fields_of(Kind::Whatsapp, "whatsapp://send?text=yoZ"), (V{"yo"}));
    EXPECT_EQ(fields_of(Kind::Bitcoin, "bitcoin:1A?amount=2&message=m&mZ"), (V{"1A", "2&message=m", ""}));
    EXPECT_EQ(fields_of(Kind::Bitcoin, "bitcoin:1AZ"), (V{"1A", "", ""}));
}

TEST(NdefRecRead, KindTestsRefuseOtherRecords)
{
    // A latitude that begins with 0 is the start of an address.
    fields_of(Kind::GeoLocation, "geo:0.5,1Z", ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    fields_of(Kind::GeoLocation, "geo:", ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    fields_of(Kind::Phone, "sms:1Z", ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    fields_of(Kind::SMS, "sms", ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    fields_of(Kind::WiFi, "tel:1", ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    const uint8_t t = 'T';
    const std::string de = "\x02"
                           "deHallo",
                      en = "\x02"
                           "enHello";
    std::vector<std::string> f;
    EXPECT_EQ(extract(Kind::Text,
                      Seen{1, &t, 1, reinterpret_cast<const uint8_t *>(de.data()), static_cast<uint32_t>(de.size())},
                      f),
              ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    ASSERT_EQ(extract(Kind::Text,
                      Seen{1, &t, 1, reinterpret_cast<const uint8_t *>(en.data()), static_cast<uint32_t>(en.size())},
                      f),
              ZEL_OK);
    EXPECT_EQ(f, (V{"Hello"}));
    // The Bluetooth record must hold the six address bytes.
    const std::string bt = kBluetoothType;
    const Bytes short_oob = {0x08, 0x00, 1, 2, 3, 4, 5};
    EXPECT_EQ(extract(Kind::BT,
                      Seen{2, reinterpret_cast<const uint8_t *>(bt.data()), static_cast<uint8_t>(bt.size()),
                           short_oob.data(), 7},
                      f),
              ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
}

std::string report(const std::string &type, const std::string &payload)
{
    char out[ZEL_NDEF_PARSE_TEXT_SIZE];
    parse_report(reinterpret_cast<const uint8_t *>(type.data()), static_cast<uint8_t>(type.size()),
                 reinterpret_cast<const uint8_t *>(payload.data()), static_cast<uint32_t>(payload.size()), out,
                 sizeof out);
    return out;
}

TEST(NdefRecReport, UriCasesEndOneByteEarlyButSmsAndPhone)
{
    EXPECT_EQ(report("U", "bitcoin:1A?amount=2&message=thxZ"), "Bitcoin address: 1A\nAmount: 2\nMessage: thx");
    EXPECT_EQ(report("U", "bitcoin:"), "Bitcoin address: \nAmount: \nMessage: ");
    EXPECT_EQ(report("U", "geo:0,0?q=ab+cZ"), "Address: ab+c");
    EXPECT_EQ(report("U", "geo:0,0?q=Z"), "Address: ");
    // The location test is only that the address prefix did not match first.
    EXPECT_EQ(report("U", "geo:0.5,16Z"), "Location latitude: 0.5\nLocation longitude: 16");
    EXPECT_EQ(report("U", "google.navigation:q=ZgbZ"), "Destination: Zgb");
    // Written out from code 6 the e-mail has its exact length, and loses its last character here.
    EXPECT_EQ(report("U", "mailto:a@b.c?subject=S&body=Msg"), "Email address: a@b.c\nSubject: S\nMessage: Ms");
    EXPECT_EQ(report("U", "google.streetview:cbll=1.5,2.5Z"), "StreetView latitude: 1.5\nStreetView longitude: 2.5");
    EXPECT_EQ(report("U", "skype:bob?chatZ"), "Username: bob\nAction: chat");
    EXPECT_EQ(report("U", "whatsapp://send?text=hiZ"), "Whatsapp message: hi");
    EXPECT_EQ(report("U", "viber://forward?text=hiZ"), "Viber message: hi");
    EXPECT_EQ(report("U", "sms:123?body=yo"), "Phone number: 123\nMessage: yo");
    EXPECT_EQ(report("U", "sms:123"), "Phone number: 123\nMessage: ");
    EXPECT_EQ(report("U", "tel:123"), "Phone number: 123");
    // A prefix of the table written out is no case: an empty text.
    EXPECT_EQ(report("U", "http://www.example.org"), "");
}

TEST(NdefRecReport, TypesAreMatchedByTheirFirstBytes)
{
    Built w;
    ASSERT_EQ(build_wifi("net", 1, 2, "pw", w), ZEL_OK);
    const std::string wp(w.payload.begin(), w.payload.end());
    const std::string expect = "SSID: net\nAuthentication type: WPA-Personal\nEncryption type: TKIP\nPassword: pw";
    EXPECT_EQ(report("application/vnd.wfa.wsc", wp), expect);
    EXPECT_EQ(report("a", wp), expect); // a one-byte "a" is read as Wi-Fi
    EXPECT_EQ(report("t", "BEGIN:VCARD"), "BEGIN:VCARD");
    EXPECT_EQ(report("text/vcard", std::string("N:x\0junk", 8)), "N:x");
    EXPECT_EQ(report("application/vnd.bluetooth.ep.oob", std::string("\x08\x00\x01\x02\xAB\xCD\xEF\x10", 8)),
              "BT MAC address: 0102ABCDEF10");
    EXPECT_EQ(report("application/vnd.bluetooth.ep.oob", std::string("\x08\x00\x01", 3)), "MESSAGE NOT COMPATIBLE");
    EXPECT_EQ(report("android.com:pkg", "org.example"), "Package name: org.example");
    EXPECT_EQ(report("T", "\x02"
                          "enHi"),
              "Text: Hi");
    EXPECT_EQ(report("T", "\x02"
                          "deHi"),
              "MESSAGE NOT COMPATIBLE");
    EXPECT_EQ(report("text/plain", "x"), "MESSAGE NOT COMPATIBLE");
    EXPECT_EQ(report("", "x"), "MESSAGE NOT FOUND");
    EXPECT_EQ(report("U", ""), "MESSAGE NOT FOUND");
    // Longer than the candidate: not that type.
    EXPECT_EQ(report("android.com:pkgX", "org.example"), "MESSAGE NOT COMPATIBLE");
}

TEST(NdefRecReport, LongReportIsCutAtTheBufferAndLongUrisWrapOnEightBits)
{
    const std::string big = "\x02"
                            "en" +
                            std::string(10000, 'x');
    const char *r = ParseNdefMessage(reinterpret_cast<const uint8_t *>("T"), 1,
                                     reinterpret_cast<const uint8_t *>(big.data()), static_cast<uint32_t>(big.size()));
    EXPECT_EQ(std::strlen(r), ZEL_NDEF_PARSE_TEXT_SIZE - 1);
    EXPECT_EQ(std::string(r, 6), "Text: ");
    // A 262-byte SMS counts as 6 bytes on 8 bits: the number is what stands at index 4 and 5.
    const std::string sms = "sms:12345" + std::string(253, '9');
    EXPECT_EQ(report("U", sms), "Phone number: 12\nMessage: ");
    EXPECT_STREQ(ParseNdefMessage(nullptr, 1, reinterpret_cast<const uint8_t *>("x"), 1), "MESSAGE NOT FOUND");
}

} // namespace
