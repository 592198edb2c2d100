/* HTTPS with a client certificate: one GET over TLS 1.2, the client's key either a PEM key of the caller's or
 * the RSA-2048 key of a GIDS smart card on the global reader, which makes the CertificateVerify signature.
 *
 * The client state (certificate type, certificate, key, PIN, verification setting) is process-wide: one
 * request at a time.
 *   ORB_TLS_SetClientCertificate     cert_type 0: the caller's X.509 certificate in DER (cert, cert_len);
 *                                    cert_type 2: the certificate is read from the GIDS card (cert unused).
 *                                    The type is stored whatever the result.
 *   ORB_TLS_SetClientX509PrivateKey_PEM  the caller's private key as PEM text (type 0 only).
 *   ORB_TLS_SetServerVerification    ca_path (a PEM file or a folder of hashed certificates) turns checking
 *                                    of the server's chain on for the following requests, and check_host not
 *                                    0 also the server's name against host; a null ca_path turns it off (the
 *                                    default: the server is not verified). While it is on, host is sent as the
 *                                    server name instead of the build's fixed name.
 *   ORB_TLS_Request                  GET path from host:port; *response (allocated, free with OrbFree) gets at
 *                                    most ZEL_TLS_RESPONSE_MAX bytes of what the server sent, headers
 *                                    included, and a NUL behind them; the rest is read and dropped. pin is the
 *                                    card's PIN for type 2 (wiped when the request ends).
 *   TLS_Sign_NFC_GIDS                has the card sign a DigestInfo with the PIN of the running request;
 *                                    signature holds ZEL_TLS_SIGNATURE_MAX bytes. */
#ifndef ZEL_TLS_H
#define ZEL_TLS_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_TLS_CERT_X509 0
#define ZEL_TLS_CERT_GIDS 2
#define ZEL_TLS_RESPONSE_MAX 8191u  /* bytes of a response kept; the buffer holds one more for the NUL */
#define ZEL_TLS_SIGNATURE_MAX 256u  /* the card's RSA-2048 signature */
#define ZEL_TLS_DIGEST_INFO_LEN 51u /* SHA-256 DigestInfo: 19 bytes of prefix and the hash */

ZEL_API ZEL_STATUS ORB_TLS_SetClientCertificateHnd(ZEL_HANDLE hnd, int32_t cert_type, const uint8_t *cert,
                                                   uint32_t cert_len);
ZEL_API ZEL_STATUS ORB_TLS_SetClientX509PrivateKey_PEMHnd(ZEL_HANDLE hnd, const uint8_t *pem, uint32_t pem_len);
ZEL_API ZEL_STATUS ORB_TLS_SetServerVerificationHnd(ZEL_HANDLE hnd, const char *ca_path, int32_t check_host);
ZEL_API ZEL_STATUS ORB_TLS_RequestHnd(ZEL_HANDLE hnd, uint8_t **response, uint32_t *response_len, const char *host,
                                      const char *path, int32_t port, const uint8_t *pin, uint32_t pin_len);
ZEL_API ZEL_STATUS TLS_Sign_NFC_GIDSHnd(ZEL_HANDLE hnd, const uint8_t *digest_info, uint32_t len, uint8_t *signature,
                                        uint32_t *signature_len);

#include "zel_tls_forms.h"

#ifdef __cplusplus
}
#endif

#endif
