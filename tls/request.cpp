// ORB_TLS_Request: one HTTPS GET over TLS 1.2 on OpenSSL, with the client's key either the caller's PEM key
// or the GIDS card's key. The card's key is an OpenSSL key whose signing goes to the card: OpenSSL hashes the
// handshake, hands the SHA-256 value to the key, and the card signs the DigestInfo built from it. The bytes
// move through memory BIOs: what arrives on the socket is fed to OpenSSL, what OpenSSL has pending is sent.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/internal.h"
#include "tandro.h"
#include "tls/tls_internal.h"

#ifndef ZEL_TLS_SERVER_NAME
#define ZEL_TLS_SERVER_NAME "client-auth.test-gw.invalid"
#endif

namespace zel::tls {
namespace {

static_assert(sizeof(ZEL_TLS_SERVER_NAME) - 1 == kFixedServerNameLen, "the fixed server name has 27 characters");

using Clock = std::chrono::steady_clock;

uint32_t g_time_limit_ms = 30000;
constexpr size_t kPiece = 16384;
// The DER prefix of a SHA-256 DigestInfo.
constexpr uint8_t kSha256Prefix[] = {0x30, 0x31, 0x30, 0x0D, 0x06, 0x09, 0x60, 0x86, 0x48, 0x01,
                                     0x65, 0x03, 0x04, 0x02, 0x01, 0x05, 0x00, 0x04, 0x20};
static_assert(sizeof kSha256Prefix + 32 == ZEL_TLS_DIGEST_INFO_LEN);

// Failures of the connection, told apart for the caller's status.
enum class End { OK, CLOSED, TIMEOUT };

struct Conn {
    SSL *ssl = nullptr;
    BIO *in = nullptr;  // owned by ssl
    BIO *out = nullptr; // owned by ssl
    int fd = -1;
    Clock::time_point deadline;
    bool eof = false;
};

int remaining_ms(const Conn &c)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(c.deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

// Waits until the socket is ready for events, within the time limit.
End wait(const Conn &c, short events)
{
    for (;;) {
        pollfd p{c.fd, events, 0};
        const int pr = poll(&p, 1, remaining_ms(c));
        if (pr > 0)
            return End::OK;
        if (pr == 0)
            return End::TIMEOUT;
        if (errno != EINTR)
            return End::CLOSED;
    }
}

bool again()
{
    return errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK;
}

// Sends everything OpenSSL has queued.
End flush(Conn &c)
{
    uint8_t buf[kPiece];
    int n = 0;
    while ((n = BIO_read(c.out, buf, sizeof buf)) > 0) {
        size_t done = 0;
        while (done < static_cast<size_t>(n)) {
            const End w = wait(c, POLLOUT);
            if (w != End::OK)
                return w;
            const ssize_t s = send(c.fd, buf + done, static_cast<size_t>(n) - done, MSG_NOSIGNAL);
            if (s < 0 && again())
                continue;
            if (s <= 0)
                return End::CLOSED;
            done += static_cast<size_t>(s);
        }
    }
    return End::OK;
}

// Waits for bytes from the server and gives them to OpenSSL; the end of the stream is told to it too.
End feed(Conn &c)
{
    for (;;) {
        const End w = wait(c, POLLIN);
        if (w != End::OK)
            return w;
        uint8_t buf[kPiece];
        const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
        if (n < 0 && again())
            continue;
        if (n <= 0) {
            c.eof = true;
            BIO_set_mem_eof_return(c.in, 0);
            return End::OK;
        }
        BIO_write(c.in, buf, static_cast<int>(n));
        return End::OK;
    }
}

// Runs an SSL call until it gets somewhere: *result is its value (> 0), or 0 at a clean end of the stream.
template <typename Op> End run(Conn &c, Op op, int *result)
{
    for (;;) {
        ERR_clear_error();
        const int r = op();
        const End f = flush(c);
        if (r > 0) {
            *result = r;
            return f;
        }
        const int e = SSL_get_error(c.ssl, r);
        if (e == SSL_ERROR_ZERO_RETURN) {
            *result = 0;
            return End::OK;
        }
        if (f != End::OK)
            return f;
        if (e != SSL_ERROR_WANT_READ || c.eof)
            return End::CLOSED;
        const End g = feed(c);
        if (g != End::OK)
            return g;
    }
}

// The card's key: signing goes to the card, every other private operation is refused.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

int card_sign(int type, const unsigned char *m, unsigned int m_len, unsigned char *sig, unsigned int *sig_len,
              const RSA *rsa)
{
    Client &c = client();
    if (type != NID_sha256 || m_len != 32) {
        c.last_sign = CRYPTO_SUBSYS_HASHING_ERROR;
        return 0;
    }
    uint8_t info[ZEL_TLS_DIGEST_INFO_LEN];
    std::memcpy(info, kSha256Prefix, sizeof kSha256Prefix);
    std::memcpy(info + sizeof kSha256Prefix, m, 32);
    uint8_t card_sig[ZEL_TLS_SIGNATURE_MAX];
    uint32_t n = 0;
    const ZEL_STATUS st = TLS_Sign_NFC_GIDSHnd(c.reader, info, sizeof info, card_sig, &n);
    const unsigned size = static_cast<unsigned>(RSA_size(rsa));
    if (st == ZEL_OK && (n == 0 || n > size))
        c.last_sign = ZEL_BUFFER_OVERFLOW;
    else
        c.last_sign = st;
    if (c.last_sign != ZEL_OK)
        return 0;
    // A signature with leading zero bytes left off is the same number.
    std::memset(sig, 0, size - n);
    std::memcpy(sig + size - n, card_sig, n);
    *sig_len = size;
    return 1;
}

int refuse(int, const unsigned char *, unsigned char *, RSA *, int)
{
    return -1;
}

struct CardKey {
    RSA_METHOD *meth = nullptr;
    EVP_PKEY *key = nullptr;
    ~CardKey()
    {
        EVP_PKEY_free(key);
        RSA_meth_free(meth);
    }
    // The public half comes from the card's certificate.
    bool make(X509 *cert)
    {
        EVP_PKEY *pub = X509_get0_pubkey(cert);
        if (!pub || !EVP_PKEY_is_a(pub, "RSA"))
            return false;
        BIGNUM *n = nullptr, *e = nullptr;
        if (!EVP_PKEY_get_bn_param(pub, OSSL_PKEY_PARAM_RSA_N, &n) ||
            !EVP_PKEY_get_bn_param(pub, OSSL_PKEY_PARAM_RSA_E, &e)) {
            BN_free(n);
            BN_free(e);
            return false;
        }
        meth = RSA_meth_dup(RSA_PKCS1_OpenSSL());
        RSA *rsa = RSA_new();
        key = EVP_PKEY_new();
        if (!meth || !rsa || !key || !RSA_meth_set1_name(meth, "card") || !RSA_meth_set_sign(meth, card_sign) ||
            !RSA_meth_set_priv_enc(meth, refuse) || !RSA_meth_set_priv_dec(meth, refuse) ||
            !RSA_set_method(rsa, meth) || !RSA_set0_key(rsa, n, e, nullptr)) {
            BN_free(n);
            BN_free(e);
            RSA_free(rsa);
            return false;
        }
        if (!EVP_PKEY_assign_RSA(key, rsa)) {
            RSA_free(rsa);
            return false;
        }
        return true;
    }
};

#pragma GCC diagnostic pop

// Everything a request holds, released on every road.
struct Request {
    SSL_CTX *ctx = nullptr;
    Conn conn;
    X509 *cert = nullptr;
    EVP_PKEY *key = nullptr;
    CardKey card;
    uint8_t *buf = nullptr;
    ~Request()
    {
        SSL_free(conn.ssl);
        SSL_CTX_free(ctx);
        X509_free(cert);
        EVP_PKEY_free(key);
        if (conn.fd >= 0)
            close(conn.fd);
        std::free(buf);
        Client &c = client();
        set_pin(nullptr, 0);
        c.reader = nullptr;
    }
};

bool is_ip_literal(const char *host)
{
    in_addr a4;
    in6_addr a6;
    return inet_pton(AF_INET, host, &a4) == 1 || inet_pton(AF_INET6, host, &a6) == 1;
}

// The client's certificate and key into the context. TLS_ERR_UNSUPPORTED_CERTIFICATE_TYPE for a held
// certificate that is no X.509 in DER, TLS_ERR_PRIVATE_KEY_CONTEXT_WRONG for a key that does not load or does
// not belong to it.
ZEL_STATUS load_client(Request &q)
{
    Client &c = client();
    if (!c.cert)
        return ZEL_OK; // no certificate: the server decides whether it talks to an anonymous client
    const unsigned char *p = c.cert;
    q.cert = d2i_X509(nullptr, &p, c.cert_len);
    if (!q.cert || SSL_CTX_use_certificate(q.ctx, q.cert) != 1)
        return TLS_ERR_UNSUPPORTED_CERTIFICATE_TYPE;
    if (c.type == ZEL_TLS_CERT_GIDS) {
        if (!q.card.make(q.cert) || SSL_CTX_use_PrivateKey(q.ctx, q.card.key) != 1)
            return TLS_ERR_PRIVATE_KEY_CONTEXT_WRONG;
        return ZEL_OK;
    }
    if (!c.key_pem)
        return ZEL_OK;
    BIO *b = BIO_new_mem_buf(c.key_pem, static_cast<int>(c.key_len));
    q.key = b ? PEM_read_bio_PrivateKey(b, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(b);
    if (!q.key || SSL_CTX_use_PrivateKey(q.ctx, q.key) != 1 || SSL_CTX_check_private_key(q.ctx) != 1)
        return TLS_ERR_PRIVATE_KEY_CONTEXT_WRONG;
    return ZEL_OK;
}

// TLS 1.2 at most, RSA PKCS#1 with SHA-256 for the client's signature, "http/1.1" by ALPN, the server's
// verification as set.
ZEL_STATUS make_context(Request &q, const char *host)
{
    Client &c = client();
    q.ctx = SSL_CTX_new(TLS_client_method());
    if (!q.ctx)
        return ZEL_NO_MEMORY_ERROR;
    static const unsigned char alpn[] = "\x08http/1.1";
    if (SSL_CTX_set_max_proto_version(q.ctx, TLS1_2_VERSION) != 1 ||
        SSL_CTX_set1_client_sigalgs_list(q.ctx, "RSA+SHA256") != 1 ||
        SSL_CTX_set_alpn_protos(q.ctx, alpn, sizeof alpn - 1) != 0)
        return ZEL_NO_MEMORY_ERROR;
    // The end of the TCP stream ends the response, as Connection: close asks of the server.
    SSL_CTX_set_options(q.ctx, SSL_OP_IGNORE_UNEXPECTED_EOF);
    if (c.ca_path) {
        struct stat sb {};
        const bool dir = stat(c.ca_path, &sb) == 0 && S_ISDIR(sb.st_mode);
        if (SSL_CTX_load_verify_locations(q.ctx, dir ? nullptr : c.ca_path, dir ? c.ca_path : nullptr) != 1)
            return TLS_ERR_SERVER_NOT_VERIFIED;
        SSL_CTX_set_verify(q.ctx, SSL_VERIFY_PEER, nullptr);
    } else {
        SSL_CTX_set_verify(q.ctx, SSL_VERIFY_NONE, nullptr);
    }
    ZEL_STATUS st = load_client(q);
    if (st != ZEL_OK)
        return st;
    q.conn.ssl = SSL_new(q.ctx);
    q.conn.in = BIO_new(BIO_s_mem());
    q.conn.out = BIO_new(BIO_s_mem());
    if (!q.conn.ssl || !q.conn.in || !q.conn.out) {
        BIO_free(q.conn.in);
        BIO_free(q.conn.out);
        q.conn.in = q.conn.out = nullptr;
        return ZEL_NO_MEMORY_ERROR;
    }
    BIO_set_mem_eof_return(q.conn.in, -1);
    SSL_set_bio(q.conn.ssl, q.conn.in, q.conn.out);
    const bool verify = c.ca_path != nullptr;
    const char *name = verify && !is_ip_literal(host) ? host : fixed_server_name();
    if (SSL_set_tlsext_host_name(q.conn.ssl, name) != 1)
        return ZEL_PARAMETERS_ERROR;
    if (verify && c.check_host) {
        X509_VERIFY_PARAM *vp = SSL_get0_param(q.conn.ssl);
        const int ok = is_ip_literal(host) ? X509_VERIFY_PARAM_set1_ip_asc(vp, host) : SSL_set1_host(q.conn.ssl, host);
        if (ok != 1)
            return TLS_ERR_SERVER_NOT_VERIFIED;
    }
    SSL_set_connect_state(q.conn.ssl);
    return ZEL_OK;
}

// Socket, name and connection, within the time limit.
ZEL_STATUS connect_to(Request &q, const char *host, int32_t port)
{
    char service[16];
    std::snprintf(service, sizeof service, "%d", static_cast<int>(port));
    q.conn.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (q.conn.fd < 0)
        return TLS_ERR_OPENING_SOCKET;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    if (port < 0 || port > 65535 || getaddrinfo(host, service, &hints, &found) != 0 || !found)
        return TLS_ERR_NO_SUCH_HOST;
    const int r = connect(q.conn.fd, found->ai_addr, found->ai_addrlen);
    freeaddrinfo(found);
    if (r == 0)
        return ZEL_OK;
    if (errno != EINPROGRESS)
        return TLS_CONNECTING_ERROR;
    pollfd p{q.conn.fd, POLLOUT, 0};
    int pr;
    do
        pr = poll(&p, 1, remaining_ms(q.conn));
    while (pr < 0 && errno == EINTR);
    if (pr == 0)
        return ZEL_TIMEOUT_ERR;
    int err = 0;
    socklen_t len = sizeof err;
    if (pr < 0 || getsockopt(q.conn.fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0)
        return TLS_CONNECTING_ERROR;
    return ZEL_OK;
}

// The status of a connection that ended before the response was whole.
ZEL_STATUS failure(const Request &q, End how)
{
    const Client &c = client();
    if (c.last_sign != ZEL_OK)
        return c.last_sign;
    if (c.ca_path && q.conn.ssl && SSL_get_verify_result(q.conn.ssl) != X509_V_OK)
        return TLS_ERR_SERVER_NOT_VERIFIED;
    return how == End::TIMEOUT ? ZEL_TIMEOUT_ERR : TLS_ERR_SERVER_UNEXPECTEDLY_CLOSED_CONNECTION;
}

} // namespace

const char *fixed_server_name()
{
    return ZEL_TLS_SERVER_NAME;
}

void set_time_limit_ms(uint32_t ms)
{
    g_time_limit_ms = ms;
}

uint32_t time_limit_ms()
{
    return g_time_limit_ms;
}

} // namespace zel::tls

extern "C" ZEL_API ZEL_STATUS ORB_TLS_SetServerVerificationHnd(ZEL_HANDLE, const char *ca_path, int32_t check_host)
{
    auto &c = zel::tls::client();
    std::free(c.ca_path);
    c.ca_path = nullptr;
    c.check_host = false;
    if (!ca_path)
        return ZEL_OK;
    struct stat sb {};
    if (!*ca_path || stat(ca_path, &sb) != 0)
        return ZEL_FILE_NOT_EXISTS;
    c.ca_path = strdup(ca_path);
    if (!c.ca_path)
        return ZEL_NO_MEMORY_ERROR;
    c.check_host = check_host != 0;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS ORB_TLS_RequestHnd(ZEL_HANDLE hnd, uint8_t **response, uint32_t *response_len,
                                                 const char *host, const char *path, int32_t port, const uint8_t *pin,
                                                 uint32_t pin_len)
{
    using namespace zel::tls;
    Client &c = client();
    c.last_sign = ZEL_OK;
    if (response)
        *response = nullptr;
    if (response_len)
        *response_len = 0;
    if (!response || !response_len || !host || !path || (pin_len && !pin))
        return ZEL_PARAMETERS_ERROR;
    Request q;
    if (pin_len) {
        if (c.type != ZEL_TLS_CERT_GIDS)
            return TLS_ERR_SET_PIN_FOR_GIDS_CERT_ONLY;
        set_pin(pin, pin_len);
    }
    c.reader = hnd;
    q.conn.deadline = Clock::now() + std::chrono::milliseconds(time_limit_ms());
    ZEL_STATUS st = connect_to(q, host, port);
    if (st != ZEL_OK)
        return st;
    st = make_context(q, host);
    if (st != ZEL_OK)
        return st;
    q.buf = static_cast<uint8_t *>(std::malloc(ZEL_TLS_RESPONSE_MAX + 1));
    if (!q.buf)
        return ZEL_NO_MEMORY_ERROR;

    int r = 0;
    End how = run(
        q.conn, [&] { return SSL_do_handshake(q.conn.ssl); }, &r);
    if (how != End::OK || r <= 0)
        return failure(q, how);
    // The PIN has done its work once the handshake is over.
    set_pin(nullptr, 0);

    const std::string get =
        std::string("GET ") + path + " HTTP/1.1\r\nHost: " + host + "\r\nAccept: */*\r\nConnection: close\r\n\r\n";
    size_t sent = 0;
    while (sent < get.size()) {
        how = run(
            q.conn, [&] { return SSL_write(q.conn.ssl, get.data() + sent, static_cast<int>(get.size() - sent)); }, &r);
        if (how != End::OK || r <= 0)
            return failure(q, how);
        sent += static_cast<size_t>(r);
    }

    // Application data up to the end of the stream: the first ZEL_TLS_RESPONSE_MAX bytes kept, the rest dropped.
    uint32_t kept = 0;
    for (;;) {
        uint8_t piece[kPiece];
        how = run(
            q.conn, [&] { return SSL_read(q.conn.ssl, piece, sizeof piece); }, &r);
        if (how != End::OK)
            return failure(q, how);
        if (r == 0)
            break;
        const uint32_t take = std::min<uint32_t>(static_cast<uint32_t>(r), ZEL_TLS_RESPONSE_MAX - kept);
        std::memcpy(q.buf + kept, piece, take);
        kept += take;
    }
    q.buf[kept] = 0;
    *response = q.buf;
    *response_len = kept;
    q.buf = nullptr;
    return c.last_sign;
}
