// Typed records end to end: every writer to a simulated card and its reader back, the text report of what
// the card delivers, the emulated tag as a phone reads it, and the readers' refusals.
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "ndef_test_support.h"

using zeltest::CardSimTest;
using namespace ndeftest;

namespace {

using Bytes = std::vector<uint8_t>;

std::string ntag216()
{
    return R"({"cards": [{"uid": "04A22B1A5C6481", "sak": "00", "atqa": "0044", "type": "ORB_NTAG_216",
               "model": "ntag216", "setup": {"pages": [{"page": 4, "data": "0300FE00"}]}}]})";
}

class NdefRec : public CardSimTest {
protected:
    void TearDown() override
    {
        zel::set_tick_hook(nullptr);
        CardSimTest::TearDown();
    }
    // Empties message 1, runs the writer to the card and lets the read cache go.
    ZEL_STATUS fresh(const std::function<ZEL_STATUS(uint8_t)> &writer)
    {
        EXPECT_EQ(erase_all_ndef_recordsM(hnd, 1), ZEL_OK);
        const ZEL_STATUS st = writer(ZEL_NDEF_STORAGE_CARD);
        expire_cache();
        return st;
    }
    // The report of record 1 as read_ndef_record delivers it.
    std::string report()
    {
        Rec r;
        EXPECT_EQ(read(hnd, 1, 1, r), ZEL_OK);
        return ParseNdefMessage(reinterpret_cast<const uint8_t *>(r.type.data()), static_cast<uint8_t>(r.type.size()),
                                r.payload.data(), static_cast<uint32_t>(r.payload.size()));
    }
    // The NDEF message a phone reads from the emulated tag.
    Bytes phone()
    {
        uint8_t buf[2048];
        const long n = zsim_phone_read_ndef(sim, buf, sizeof buf);
        return n < 0 ? Bytes{} : Bytes(buf, buf + n);
    }
};

struct Fields {
    char a[ZEL_NDEF_LONG_FIELD_SIZE], b[ZEL_NDEF_LONG_FIELD_SIZE], c[ZEL_NDEF_LONG_FIELD_SIZE],
        d[ZEL_NDEF_LONG_FIELD_SIZE];
    Fields() { std::memset(this, 0, sizeof *this); }
};

TEST_F(NdefRec, EveryWriterReadsBackFromTheCard)
{
    start(ntag216());
    Fields f;
    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_WiFiM(hnd, s, "home-net", 4, 3, "correct horse"); }),
              ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_WiFiM(hnd, f.a, f.b, f.c, f.d), ZEL_OK);
    EXPECT_STREQ(f.a, "home-net");
    EXPECT_STREQ(f.b, "WPA2-Personal");
    EXPECT_STREQ(f.c, "AES");
    EXPECT_STREQ(f.d, "correct horse");
    EXPECT_EQ(report(), "SSID: home-net\nAuthentication type: WPA2-Personal\nEncryption type: AES\nPassword: correct "
                        "horse");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_BTM(hnd, s, "A1B2C3D4E5F6"); }), ZEL_OK);
    f = Fields();
    ASSERT_EQ(ReadNdefRecord_BTM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "A1B2C3D4E5F6");
    EXPECT_EQ(report(), "BT MAC address: A1B2C3D4E5F6");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_SMSM(hnd, s, "+385991234567", "Meet at 5"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_SMSM(hnd, f.a, f.b), ZEL_OK);
    EXPECT_STREQ(f.a, "+385991234567");
    EXPECT_STREQ(f.b, "Meet at 5");
    EXPECT_EQ(report().rfind("Phone number: +385991234567\nMessage: Meet at 5", 0), 0u);

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_PhoneM(hnd, s, "+385 1 234"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_PhoneM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "+385 1 234");
    EXPECT_EQ(report(), "Phone number: +385 1 234");

    ASSERT_EQ(fresh([&](uint8_t s) {
                  return WriteNdefRecord_ContactM(hnd, s, "Ana Lee", "Tandro", "", "+123", nullptr, "tandro.example");
              }),
              ZEL_OK);
    f = Fields();
    ASSERT_EQ(ReadNdefRecord_ContactM(hnd, f.a), ZEL_OK);
    const char *vcard = "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ana Lee\nORG:Tandro\nTEL:+123\nURL:tandro.example\nEND:VCARD";
    EXPECT_STREQ(f.a, vcard);
    EXPECT_EQ(report(), vcard);

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_ViberM(hnd, s, "hello viber"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_ViberM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "hello viber");
    EXPECT_EQ(report(), "Viber message: hello viber");
    EXPECT_EQ(ReadNdefRecord_WhatsappM(hnd, f.a), ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_WhatsappM(hnd, s, "hello whatsapp"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_WhatsappM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "hello whatsapp");
    EXPECT_EQ(report(), "Whatsapp message: hello whatsapp");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_SkypeM(hnd, s, "bob.smith", 0); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_SkypeM(hnd, f.a, f.b), ZEL_OK);
    EXPECT_STREQ(f.a, "bob.smith");
    EXPECT_STREQ(f.b, "call");
    EXPECT_EQ(report(), "Username: bob.smith\nAction: call");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_StreetViewM(hnd, s, "45.815", "15.982"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_StreetViewM(hnd, f.a, f.b), ZEL_OK);
    EXPECT_STREQ(f.a, "45.815");
    EXPECT_STREQ(f.b, "15.982");
    EXPECT_EQ(report(), "StreetView latitude: 45.815\nStreetView longitude: 15.982");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_TextM(hnd, s, "Plain words"); }), ZEL_OK);
    f = Fields();
    ASSERT_EQ(ReadNdefRecord_TextM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "Plain words");
    EXPECT_EQ(report(), "Text: Plain words");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_AndroidAppM(hnd, s, "org.example.app"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_AndroidAppM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "org.example.app");
    EXPECT_EQ(report(), "Package name: org.example.app");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_AddressM(hnd, s, "ab c!"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_AddressM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "ab+c%21");
    EXPECT_EQ(report(), "Address: ab+c%21");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_EmailM(hnd, s, "ana@tandro.example", "Hi", "Body"); }),
              ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_EmailM(hnd, f.a, f.b, f.c), ZEL_OK);
    EXPECT_STREQ(f.a, "ana@tandro.example");
    EXPECT_STREQ(f.b, "Hi");
    EXPECT_STREQ(f.c, "Body");
    // The report ends one byte early, which a written-out prefix does not make up for.
    EXPECT_EQ(report(), "Email address: ana@tandro.example\nSubject: Hi\nMessage: Bod");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_NaviDestinationM(hnd, s, "Zagreb Main Square"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_NaviDestinationM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "Zagreb Main Square");
    EXPECT_EQ(report(), "Destination: Zagreb Main Square");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_GeoLocationM(hnd, s, "45.8", "-15.9"); }), ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_GeoLocationM(hnd, f.a, f.b), ZEL_OK);
    EXPECT_STREQ(f.a, "45.8");
    EXPECT_STREQ(f.b, "-15.9");
    EXPECT_EQ(report(), "Location latitude: 45.8\nLocation longitude: -15.9");

    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_BitcoinM(hnd, s, "1BoatSLRHt", "0.25", "thanks"); }),
              ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_BitcoinM(hnd, f.a, f.b, f.c), ZEL_OK);
    EXPECT_STREQ(f.a, "1BoatSLRHt");
    EXPECT_STREQ(f.b, "0.25");
    EXPECT_STREQ(f.c, "thanks");
    EXPECT_EQ(report(), "Bitcoin address: 1BoatSLRHt\nAmount: 0.25\nMessage: thanks");
}

TEST_F(NdefRec, ReadersRefuseOtherKindsAndFieldsThatDoNotFit)
{
    start(ntag216());
    Fields f;
    // Nothing on the card: the store's failure is passed on.
    EXPECT_EQ(ReadNdefRecord_PhoneM(hnd, f.a), ZEL_NDEF_MESSAGE_NOT_FOUND);
    ASSERT_EQ(fresh([&](uint8_t s) { return WriteNdefRecord_GeoLocationM(hnd, s, "0.5", "16"); }), ZEL_OK);
    EXPECT_EQ(ReadNdefRecord_GeoLocationM(hnd, f.a, f.b), ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    EXPECT_EQ(ReadNdefRecord_AddressM(hnd, f.a), ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    EXPECT_EQ(report(), "Location latitude: 0.5\nLocation longitude: 16");
    EXPECT_EQ(ReadNdefRecord_WiFiM(hnd, f.a, f.b, f.c, f.d), ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    EXPECT_EQ(ReadNdefRecord_GeoLocationM(hnd, nullptr, f.b), ZEL_PARAMETERS_ERROR);

    // A text record in another language.
    ASSERT_EQ(fresh([&](uint8_t) {
                  return write(hnd, 1, 1, "T", "",
                               bytes("\x02"
                                     "deHallo"));
              }),
              ZEL_OK);
    EXPECT_EQ(ReadNdefRecord_TextM(hnd, f.a), ZEL_NDEF_MESSAGE_NOT_COMPATIBLE);
    EXPECT_EQ(report(), "MESSAGE NOT COMPATIBLE");

    // An SMS number longer than its output: nothing is copied to either output.
    const std::string number(300, '5');
    ASSERT_EQ(fresh([&](uint8_t) { return write(hnd, 1, 1, "U", "", uri_payload(0, "sms:" + number + "?body=hi")); }),
              ZEL_OK);
    std::memset(f.a, 'X', sizeof f.a);
    std::memset(f.b, 'X', sizeof f.b);
    EXPECT_EQ(ReadNdefRecord_SMSM(hnd, f.a, f.b), ZEL_BUFFER_OVERFLOW);
    EXPECT_EQ(f.a[0], 'X');
    EXPECT_EQ(f.b[0], 'X');
    // 255 bytes and the zero fit exactly.
    const std::string fits(255, '5');
    ASSERT_EQ(fresh([&](uint8_t) { return write(hnd, 1, 1, "U", "", uri_payload(0, "sms:" + fits + "?body=hi")); }),
              ZEL_OK);
    ASSERT_EQ(ReadNdefRecord_SMSM(hnd, f.a, f.b), ZEL_OK);
    EXPECT_EQ(std::string(f.a), fits);
    EXPECT_STREQ(f.b, "hi");

    // A selector of no storage writes nothing, after the arguments were checked.
    ASSERT_EQ(erase_all_ndef_recordsM(hnd, 1), ZEL_OK);
    EXPECT_EQ(WriteNdefRecord_PhoneM(hnd, 3, "123"), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(WriteNdefRecord_SkypeM(hnd, 3, "bob", 2), ZEL_PARAMETERS_ERROR);
    expire_cache();
    Count c;
    ASSERT_EQ(count(hnd, c), ZEL_OK);
    EXPECT_EQ(c.records, 0);
}

TEST_F(NdefRec, OtherCardFamiliesHoldTypedRecords)
{
    // A blank MIFARE Classic 1K is laid out by the first write.
    start(R"({"cards": [{"uid": "C1C2C3C4", "sak": "08", "atqa": "0004", "type": "ORB_MIFARE_CLASSIC_1K",
               "model": "classic_1k"}]})");
    Fields f;
    ASSERT_EQ(
        WriteNdefRecord_ContactM(hnd, ZEL_NDEF_STORAGE_CARD, "Ivo", nullptr, "Ilica 1", nullptr, "ivo@x.hr", nullptr),
        ZEL_OK);
    expire_cache();
    ASSERT_EQ(ReadNdefRecord_ContactM(hnd, f.a), ZEL_OK);
    EXPECT_STREQ(f.a, "BEGIN:VCARD\r\nVERSION:3.0\r\nFN:Ivo\nADR:;;Ilica 1;;;;;\nEMAIL:ivo@x.hr\nEND:VCARD");

    // A Type 4 tag holds a text longer than one short record.
    start(R"({"cards": [{"uid": "04518A2B3C4D80", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",
               "model": "ndef_t4", "setup": {"file_size": 4096}}]})");
    std::string long_text(1500, ' ');
    for (size_t i = 0; i < long_text.size(); ++i)
        long_text[i] = static_cast<char>('a' + i % 26);
    ASSERT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_CARD, long_text.c_str()), ZEL_OK);
    std::vector<char> text(ZEL_NDEF_TEXT_SIZE, 0);
    ASSERT_EQ(ReadNdefRecord_TextM(hnd, text.data()), ZEL_OK);
    EXPECT_EQ(std::string(text.data()), long_text);
}

// Wi-Fi Simple Configuration attributes, 16-bit id and length big-endian: the value of id inside data.
Bytes wsc(const Bytes &data, uint16_t id)
{
    for (size_t i = 0; i + 4 <= data.size();) {
        const uint16_t at = static_cast<uint16_t>(data[i] << 8 | data[i + 1]);
        const size_t len = static_cast<size_t>(data[i + 2] << 8 | data[i + 3]);
        if (i + 4 + len > data.size())
            break;
        if (at == id)
            return Bytes(data.begin() + static_cast<long>(i + 4), data.begin() + static_cast<long>(i + 4 + len));
        i += 4 + len;
    }
    return {};
}

TEST_F(NdefRec, EmulatedTagShowsTheTypedRecordToAPhone)
{
    serve();
    for (uint8_t storage : {ZEL_NDEF_STORAGE_EMULATION, ZEL_NDEF_STORAGE_EMULATION_RAM}) {
        SCOPED_TRACE(storage);
        const bool ram = storage == ZEL_NDEF_STORAGE_EMULATION_RAM;
        ASSERT_EQ(WriteNdefRecord_WiFiM(hnd, storage, "cafe", 0, 0, ""), ZEL_OK);
        ASSERT_EQ(ram ? TagEmulationStartRamHnd(hnd) : TagEmulationStartM(hnd), ZEL_OK);
        Bytes msg = phone();
        // One short media record: D2, the type's length, the payload's length, type, payload.
        ASSERT_GE(msg.size(), 3u + 23u);
        EXPECT_EQ(msg[0], 0xD2);
        EXPECT_EQ(std::string(msg.begin() + 3, msg.begin() + 3 + msg[1]), "application/vnd.wfa.wsc");
        const Bytes payload(msg.begin() + 3 + msg[1], msg.end());
        EXPECT_EQ(payload.size(), msg[2]);
        const Bytes cred = wsc(payload, 0x100E);
        EXPECT_EQ(wsc(cred, 0x1045), bytes("cafe"));
        EXPECT_EQ(wsc(cred, 0x1003), (Bytes{0, 1}));
        EXPECT_EQ(wsc(cred, 0x100F), (Bytes{0, 1}));
        EXPECT_EQ(wsc(cred, 0x1027), Bytes{});

        ASSERT_EQ(ram ? TagEmulationStopRamHnd(hnd) : TagEmulationStopM(hnd), ZEL_OK);
        ASSERT_EQ(WriteNdefRecord_SMSM(hnd, storage, "+1555", "call me"), ZEL_OK);
        ASSERT_EQ(ram ? TagEmulationStartRamHnd(hnd) : TagEmulationStartM(hnd), ZEL_OK);
        msg = phone();
        const Bytes want = {0xD1, 0x01, 23, 'U'};
        ASSERT_GE(msg.size(), 4u);
        EXPECT_EQ(Bytes(msg.begin(), msg.begin() + 4), want);
        EXPECT_EQ(std::string(msg.begin() + 4, msg.end()), std::string("\0sms:+1555?body=call me", 23));
        ASSERT_EQ(ram ? TagEmulationStopRamHnd(hnd) : TagEmulationStopM(hnd), ZEL_OK);
    }
}

TEST_F(NdefRec, TextMeetsTheEmulationLimits)
{
    serve();
    // The frame form carries 137 payload bytes (the text and its three leading bytes), the RAM form 996.
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION, std::string(134, 't').c_str()), ZEL_OK);
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION, std::string(135, 't').c_str()),
              ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION_RAM, std::string(993, 't').c_str()), ZEL_OK);
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION_RAM, std::string(994, 't').c_str()),
              ZEL_MAX_SIZE_EXCEEDED);
    const std::string max(10000, 't'), over(10001, 't');
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION, max.c_str()), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION_RAM, max.c_str()), ZEL_MAX_SIZE_EXCEEDED);
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, ZEL_NDEF_STORAGE_EMULATION_RAM, over.c_str()), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(WriteNdefRecord_TextM(hnd, 7, max.c_str()), ZEL_PARAMETERS_ERROR);
}

} // namespace
