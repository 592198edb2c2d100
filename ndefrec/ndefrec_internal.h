// The typed records' pure parts: the payload builders of the writers, the field readers of the record kinds
// and the text report. No reader traffic here, so the tests and the fuzz targets drive them directly.
#ifndef ZEL_NDEFREC_INTERNAL_H
#define ZEL_NDEFREC_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "zel_types.h"

namespace zel::ndefrec {

extern const char kWifiType[];      // "application/vnd.wfa.wsc"
extern const char kBluetoothType[]; // "application/vnd.bluetooth.ep.oob"
extern const char kAndroidType[];   // "android.com:pkg"
extern const char kVcardType[];     // "text/vcard"

// A record ready to be stored: TNF, type and payload (no id).
struct Built {
    uint8_t tnf = 0;
    std::string type;
    std::vector<uint8_t> payload;
};

// The builders. Each takes the length of every string modulo 256 (but the messages of Viber and Whatsapp and
// the text) before testing its limit, and builds from that length; ZEL_PARAMETERS_ERROR for a null string, a
// field too long or an index out of range.
ZEL_STATUS build_wifi(const char *ssid, uint8_t auth, uint8_t enc, const char *password, Built &out);
ZEL_STATUS build_bt(const char *address, Built &out);
ZEL_STATUS build_sms(const char *number, const char *message, Built &out);
ZEL_STATUS build_phone(const char *number, Built &out);
ZEL_STATUS build_contact(const char *name, const char *company, const char *address, const char *phone,
                         const char *email, const char *website, Built &out);
ZEL_STATUS build_viber(const char *message, Built &out);
ZEL_STATUS build_whatsapp(const char *message, Built &out);
ZEL_STATUS build_skype(const char *user, uint8_t action, Built &out);
ZEL_STATUS build_streetview(const char *latitude, const char *longitude, Built &out);
ZEL_STATUS build_text(const char *text, Built &out);
ZEL_STATUS build_android(const char *package, Built &out);
ZEL_STATUS build_address(const char *address, Built &out);
ZEL_STATUS build_email(const char *address, const char *subject, const char *message, Built &out);
ZEL_STATUS build_navi(const char *destination, Built &out);
ZEL_STATUS build_geo(const char *latitude, const char *longitude, Built &out);
ZEL_STATUS build_bitcoin(const char *address, const char *amount, const char *message, Built &out);

// The record kinds the readers tell apart.
enum class Kind {
    WiFi,
    BT,
    SMS,
    Phone,
    Contact,
    Viber,
    Whatsapp,
    Skype,
    StreetView,
    Text,
    AndroidApp,
    Address,
    Email,
    NaviDestination,
    GeoLocation,
    Bitcoin,
};

// A record as read_ndef_record delivers it.
struct Seen {
    uint8_t tnf = 0;
    const uint8_t *type = nullptr;
    uint8_t type_len = 0;
    const uint8_t *payload = nullptr;
    uint32_t payload_len = 0;
};

// The Wi-Fi credential's fields found by scanning the payload (the last hit of each attribute wins).
struct WifiFields {
    std::string ssid, auth, enc, password;
};
void scan_wifi(const uint8_t *p, size_t n, WifiFields &out);

// The fields of a record of the kind, in the order of the reader's outputs. ZEL_NDEF_MESSAGE_NOT_COMPATIBLE
// when the record is of another kind.
ZEL_STATUS extract(Kind kind, const Seen &rec, std::vector<std::string> &fields);

// The report of ParseNdefMessage into out (size bytes, at least 1): always zero-terminated, cut where longer.
void parse_report(const uint8_t *type, uint8_t type_len, const uint8_t *payload, uint32_t payload_len, char *out,
                  size_t size);

} // namespace zel::ndefrec

#endif
