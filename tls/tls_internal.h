// Internals of the HTTPS client shared by its files, the tests, the fuzz targets and the benchmark.
#ifndef ZEL_TLS_INTERNAL_H
#define ZEL_TLS_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "zel_tls.h"

namespace zel::tls {

// The server name every ClientHello carries while the server is not verified: a setting of the build, of
// exactly this many characters.
constexpr size_t kFixedServerNameLen = 27;
const char *fixed_server_name();

// Test seam: every command to the card goes to hook instead of the reader while one is set (null puts the
// reader back). cmd holds the whole command APDU; the reply (data, SW1, SW2) goes to reply, which holds cap
// bytes; *reply_len gets its length. A status other than ZEL_OK is a failed exchange.
using ApduHook = ZEL_STATUS (*)(void *ctx, const uint8_t *cmd, size_t cmd_len, uint8_t *reply, size_t cap,
                                size_t *reply_len);
void set_apdu_hook(ApduHook hook, void *ctx);

// The PIN the signing step sends (a copy; null or 0 clears and wipes it). ORB_TLS_Request sets it for its
// run and wipes it at the end.
void set_pin(const uint8_t *pin, uint32_t len);

// The certificate held (DER), null when none.
const uint8_t *held_certificate(uint32_t *len);

// Time limit of one request, in milliseconds, from the connection to the end of the stream (default 30 s).
void set_time_limit_ms(uint32_t ms);
uint32_t time_limit_ms();

// Time spent in card exchanges by the signing step since the last reset, in microseconds (for the benchmark).
uint64_t card_time_us();
void reset_card_time();

// The process-wide client state, for the request.
struct Client {
    int32_t type = ZEL_TLS_CERT_X509;
    uint8_t *cert = nullptr; // DER
    uint32_t cert_len = 0;
    char *key_pem = nullptr; // type 0; NUL-terminated copy
    uint32_t key_len = 0;
    uint8_t *pin = nullptr; // type 2, held while a request runs
    uint32_t pin_len = 0;
    ZEL_STATUS last_sign = ZEL_OK; // written by the signing step
    ZEL_HANDLE reader = nullptr;   // the reader the signing step talks to while a request runs
    char *ca_path = nullptr;       // server verification on when not null
    bool check_host = false;
};
Client &client();

// Reads the certificate of the GIDS card (select, GET DATA with GET RESPONSE chaining, inflate) into a
// block allocated with malloc (*der, *der_len); the statuses of ORB_TLS_SetClientCertificate.
ZEL_STATUS read_gids_certificate(ZEL_HANDLE hnd, uint8_t **der, uint32_t *der_len);

} // namespace zel::tls

#endif
