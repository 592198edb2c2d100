// The typed record readers on hostile card bytes: Wi-Fi attributes whose lengths run off, vCards, Bluetooth
// records too short for their address, URIs of every kind. With the first byte's top bit clear the rest is a
// card image in the handle's cache (second byte the card type) read by every reader into buffers of exactly
// the documented sizes; with it set, the second byte picks a type and the rest is a payload given straight to
// the field readers and to the text report. Nothing may be touched outside the buffers.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "ndefrec/ndefrec_internal.h"
#include "tandro.h"

namespace {

uint32_t fixed_tick()
{
    return 1000;
}

using zel::ndefrec::Kind;

const Kind kKinds[] = {Kind::WiFi,       Kind::BT,       Kind::SMS,   Kind::Phone,           Kind::Contact,
                       Kind::Viber,      Kind::Whatsapp, Kind::Skype, Kind::StreetView,      Kind::Text,
                       Kind::AndroidApp, Kind::Address,  Kind::Email, Kind::NaviDestination, Kind::GeoLocation,
                       Kind::Bitcoin};

// An output buffer of exactly n bytes on the heap, so that a byte past it is caught.
struct Buf {
    explicit Buf(size_t n) : v(n) {}
    char *p() { return v.data(); }
    std::vector<char> v;
};

void check_report(const char *r)
{
    if (!r || std::strlen(r) >= ZEL_NDEF_PARSE_TEXT_SIZE)
        std::abort();
}

void every_reader(ZEL_HANDLE h)
{
    Buf f1(ZEL_NDEF_FIELD_SIZE), f2(ZEL_NDEF_FIELD_SIZE), f3(ZEL_NDEF_FIELD_SIZE);
    Buf l1(ZEL_NDEF_LONG_FIELD_SIZE), w1(ZEL_NDEF_WIFI_TYPE_SIZE), w2(ZEL_NDEF_WIFI_TYPE_SIZE);
    Buf bt(ZEL_NDEF_BT_ADDRESS_SIZE), text(ZEL_NDEF_TEXT_SIZE);
    (void)ReadNdefRecord_WiFiHnd(h, f1.p(), w1.p(), w2.p(), f2.p());
    (void)ReadNdefRecord_BTHnd(h, bt.p());
    (void)ReadNdefRecord_SMSHnd(h, f1.p(), l1.p());
    (void)ReadNdefRecord_PhoneHnd(h, f1.p());
    (void)ReadNdefRecord_ContactHnd(h, l1.p());
    (void)ReadNdefRecord_ViberHnd(h, l1.p());
    (void)ReadNdefRecord_WhatsappHnd(h, l1.p());
    (void)ReadNdefRecord_SkypeHnd(h, f1.p(), f2.p());
    (void)ReadNdefRecord_StreetViewHnd(h, f1.p(), f2.p());
    (void)ReadNdefRecord_TextHnd(h, text.p());
    (void)ReadNdefRecord_AndroidAppHnd(h, f1.p());
    (void)ReadNdefRecord_AddressHnd(h, l1.p());
    (void)ReadNdefRecord_EmailHnd(h, f1.p(), f2.p(), l1.p());
    (void)ReadNdefRecord_NaviDestinationHnd(h, l1.p());
    (void)ReadNdefRecord_GeoLocationHnd(h, f1.p(), f2.p());
    (void)ReadNdefRecord_BitcoinHnd(h, f1.p(), f3.p(), l1.p());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > ZEL_NDEF_IMAGE_LEN + 2)
        return 0;
    if (data[0] & 0x80) {
        static const char *const kTypes[] = {"application/vnd.wfa.wsc",
                                             "application/vnd.bluetooth.ep.oob",
                                             "android.com:pkg",
                                             "text/vcard",
                                             "U",
                                             "T",
                                             "a",
                                             "t"};
        const char *type = kTypes[data[1] % 8];
        const uint8_t tl = static_cast<uint8_t>(std::strlen(type));
        const std::vector<uint8_t> payload(data + 2, data + size);
        check_report(ParseNdefMessage(reinterpret_cast<const uint8_t *>(type), tl, payload.data(),
                                      static_cast<uint32_t>(payload.size())));
        const zel::ndefrec::Seen seen{static_cast<uint8_t>(tl == 1 ? 1 : 2), reinterpret_cast<const uint8_t *>(type),
                                      tl, payload.data(), static_cast<uint32_t>(payload.size())};
        std::vector<std::string> fields;
        for (Kind k : kKinds)
            if (zel::ndefrec::extract(k, seen, fields) == ZEL_OK && fields.empty())
                std::abort();
        return 0;
    }
    static zel_handle_record *rec = [] {
        zel::set_tick_hook(fixed_tick);
        return new zel_handle_record{};
    }();
    zel_ndef_cache &c = rec->ndef_cache;
    c.card_type = data[1] & 0x7F;
    std::memcpy(c.image, data + 2, size - 2);
    c.image_len = static_cast<uint16_t>(size - 2);
    c.valid = 1;
    c.time_ms = 1000;
    every_reader(rec);
    static std::vector<uint8_t> payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK);
    uint8_t type[256], id[256], tnf = 0, tl = 0, il = 0;
    uint32_t pl = 0;
    if (read_ndef_recordHnd(rec, 1, 1, &tnf, type, &tl, id, &il, payload.data(), &pl) == ZEL_OK) {
        // The report gets exactly the bytes delivered.
        const std::vector<uint8_t> exact(payload.begin(), payload.begin() + pl);
        check_report(ParseNdefMessage(type, tl, exact.data(), pl));
    }
    return 0;
}
