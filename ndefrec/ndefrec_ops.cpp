// The typed records' operations: each writer builds its record and stores it where the selector says (the
// emulated tag, the card, the emulated tag in RAM); each reader reads record 1 of message 1 of the card and
// hands out the fields of its kind.
#include <cstring>
#include <vector>

#include "ndefrec/ndefrec_internal.h"
#include "tandro.h"

using namespace zel::ndefrec;

namespace {

ZEL_STATUS store(ZEL_HANDLE hnd, uint8_t storage, ZEL_STATUS built, Built &b)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (built != ZEL_OK)
        return built;
    std::vector<uint8_t> type(b.type.begin(), b.type.end());
    type.push_back(0);
    const uint8_t tl = static_cast<uint8_t>(b.type.size());
    const uint32_t pl = static_cast<uint32_t>(b.payload.size());
    b.payload.push_back(0); // never empty, so data() is a pointer the store may read
    switch (storage) {
    case ZEL_NDEF_STORAGE_EMULATION:
        return WriteEmulationNdefHnd(hnd, b.tnf, type.data(), tl, nullptr, 0, b.payload.data(), pl);
    case ZEL_NDEF_STORAGE_CARD: {
        uint8_t tnf = b.tnf, type_len = tl, id = 0, id_len = 0, formatted = 0;
        uint32_t payload_len = pl;
        return write_ndef_recordHnd(hnd, 1, &tnf, type.data(), &type_len, &id, &id_len, b.payload.data(), &payload_len,
                                    &formatted);
    }
    case ZEL_NDEF_STORAGE_EMULATION_RAM:
        return WriteEmulationNdefRamHnd(hnd, b.tnf, type.data(), tl, nullptr, 0, b.payload.data(), pl);
    default: return ZEL_PARAMETERS_ERROR;
    }
}

// One output of a reader: the caller's buffer, its size, and whether a zero ends the field.
struct Out {
    char *buf;
    size_t size;
    bool terminated;
};

ZEL_STATUS read_kind(ZEL_HANDLE hnd, Kind kind, std::initializer_list<Out> outs)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    for (const Out &o : outs)
        if (!o.buf)
            return ZEL_PARAMETERS_ERROR;
    uint8_t tnf = 0, type[256] = {}, type_len = 0, id[256] = {}, id_len = 0;
    std::vector<uint8_t> payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK, 0);
    uint32_t payload_len = 0;
    ZEL_STATUS st = read_ndef_recordHnd(hnd, 1, 1, &tnf, type, &type_len, id, &id_len, payload.data(), &payload_len);
    if (st != ZEL_OK)
        return st;
    if (payload_len > payload.size())
        return ZEL_BUFFER_OVERFLOW;
    std::vector<std::string> fields;
    st = extract(kind, Seen{tnf, type, type_len, payload.data(), payload_len}, fields);
    if (st != ZEL_OK)
        return st;
    if (fields.size() != outs.size())
        return ZEL_NDEF_MESSAGE_NOT_COMPATIBLE;
    size_t i = 0;
    for (const Out &o : outs) {
        if (fields[i].size() + (o.terminated ? 1 : 0) > o.size)
            return ZEL_BUFFER_OVERFLOW;
        ++i;
    }
    i = 0;
    for (const Out &o : outs) {
        std::memcpy(o.buf, fields[i].data(), fields[i].size());
        if (o.terminated)
            o.buf[fields[i].size()] = '\0';
        ++i;
    }
    return ZEL_OK;
}

Out field(char *buf)
{
    return {buf, ZEL_NDEF_FIELD_SIZE, true};
}

Out long_field(char *buf)
{
    return {buf, ZEL_NDEF_LONG_FIELD_SIZE, true};
}

} // namespace

// ---- Writers ----

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_WiFiHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *ssid,
                                                      uint8_t auth_type, uint8_t encryption_type, const char *password)
{
    Built b;
    return store(hnd, ndef_storage, build_wifi(ssid, auth_type, encryption_type, password, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_BTHnd(ZEL_HANDLE hnd, uint8_t ndef_storage,
                                                    const char *bt_mac_address_str)
{
    Built b;
    return store(hnd, ndef_storage, build_bt(bt_mac_address_str, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_SMSHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *phone_number,
                                                     const char *message)
{
    Built b;
    return store(hnd, ndef_storage, build_sms(phone_number, message, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_PhoneHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *phone_number)
{
    Built b;
    return store(hnd, ndef_storage, build_phone(phone_number, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_ContactHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *name,
                                                         const char *company, const char *address, const char *phone,
                                                         const char *email, const char *website)
{
    Built b;
    return store(hnd, ndef_storage, build_contact(name, company, address, phone, email, website, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_ViberHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *message)
{
    Built b;
    return store(hnd, ndef_storage, build_viber(message, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_WhatsappHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *message)
{
    Built b;
    return store(hnd, ndef_storage, build_whatsapp(message, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_SkypeHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *user_name,
                                                       uint8_t action)
{
    Built b;
    return store(hnd, ndef_storage, build_skype(user_name, action, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_StreetViewHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *latitude,
                                                            const char *longitude)
{
    Built b;
    return store(hnd, ndef_storage, build_streetview(latitude, longitude, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_TextHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *text)
{
    Built b;
    return store(hnd, ndef_storage, build_text(text, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_AndroidAppHnd(ZEL_HANDLE hnd, uint8_t ndef_storage,
                                                            const char *package_name)
{
    Built b;
    return store(hnd, ndef_storage, build_android(package_name, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_AddressHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *address)
{
    Built b;
    return store(hnd, ndef_storage, build_address(address, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_EmailHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *email_address,
                                                       const char *subject, const char *message)
{
    Built b;
    return store(hnd, ndef_storage, build_email(email_address, subject, message, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_NaviDestinationHnd(ZEL_HANDLE hnd, uint8_t ndef_storage,
                                                                 const char *destination)
{
    Built b;
    return store(hnd, ndef_storage, build_navi(destination, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_GeoLocationHnd(ZEL_HANDLE hnd, uint8_t ndef_storage, const char *latitude,
                                                             const char *longitude)
{
    Built b;
    return store(hnd, ndef_storage, build_geo(latitude, longitude, b), b);
}

extern "C" ZEL_API ZEL_STATUS WriteNdefRecord_BitcoinHnd(ZEL_HANDLE hnd, uint8_t ndef_storage,
                                                         const char *bitcoin_address, const char *amount,
                                                         const char *message)
{
    Built b;
    return store(hnd, ndef_storage, build_bitcoin(bitcoin_address, amount, message, b), b);
}

// ---- Readers ----

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_WiFiHnd(ZEL_HANDLE hnd, char *ssid, char *auth_type, char *encryption_type,
                                                     char *password)
{
    return read_kind(hnd, Kind::WiFi,
                     {field(ssid),
                      {auth_type, ZEL_NDEF_WIFI_TYPE_SIZE, true},
                      {encryption_type, ZEL_NDEF_WIFI_TYPE_SIZE, true},
                      field(password)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_BTHnd(ZEL_HANDLE hnd, char *bt_mac_address_str)
{
    return read_kind(hnd, Kind::BT, {{bt_mac_address_str, ZEL_NDEF_BT_ADDRESS_SIZE, false}});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_SMSHnd(ZEL_HANDLE hnd, char *phone_number, char *message)
{
    return read_kind(hnd, Kind::SMS, {field(phone_number), long_field(message)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_PhoneHnd(ZEL_HANDLE hnd, char *phone_number)
{
    return read_kind(hnd, Kind::Phone, {field(phone_number)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_ContactHnd(ZEL_HANDLE hnd, char *vcard)
{
    return read_kind(hnd, Kind::Contact, {{vcard, ZEL_NDEF_LONG_FIELD_SIZE, false}});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_ViberHnd(ZEL_HANDLE hnd, char *message)
{
    return read_kind(hnd, Kind::Viber, {long_field(message)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_WhatsappHnd(ZEL_HANDLE hnd, char *message)
{
    return read_kind(hnd, Kind::Whatsapp, {long_field(message)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_SkypeHnd(ZEL_HANDLE hnd, char *user_name, char *action)
{
    return read_kind(hnd, Kind::Skype, {field(user_name), field(action)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_StreetViewHnd(ZEL_HANDLE hnd, char *latitude, char *longitude)
{
    return read_kind(hnd, Kind::StreetView, {field(latitude), field(longitude)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_TextHnd(ZEL_HANDLE hnd, char *text)
{
    return read_kind(hnd, Kind::Text, {{text, ZEL_NDEF_TEXT_SIZE, false}});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_AndroidAppHnd(ZEL_HANDLE hnd, char *package_name)
{
    return read_kind(hnd, Kind::AndroidApp, {field(package_name)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_AddressHnd(ZEL_HANDLE hnd, char *address)
{
    return read_kind(hnd, Kind::Address, {long_field(address)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_EmailHnd(ZEL_HANDLE hnd, char *email_address, char *subject, char *message)
{
    return read_kind(hnd, Kind::Email, {field(email_address), field(subject), long_field(message)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_NaviDestinationHnd(ZEL_HANDLE hnd, char *destination)
{
    return read_kind(hnd, Kind::NaviDestination, {long_field(destination)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_GeoLocationHnd(ZEL_HANDLE hnd, char *latitude, char *longitude)
{
    return read_kind(hnd, Kind::GeoLocation, {field(latitude), field(longitude)});
}

extern "C" ZEL_API ZEL_STATUS ReadNdefRecord_BitcoinHnd(ZEL_HANDLE hnd, char *bitcoin_address, char *amount,
                                                        char *message)
{
    return read_kind(hnd, Kind::Bitcoin, {field(bitcoin_address), field(amount), long_field(message)});
}
