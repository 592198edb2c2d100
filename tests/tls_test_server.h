// A small HTTPS server on OpenSSL's API for the client's tests: on 127.0.0.1 at a free port, one connection
// at a time, asking for a client certificate and checking it against its trust file. It keeps what it saw of
// the last connection: the client's certificate, the request, the server name, the offered ALPN protocols,
// the version and the client's signature algorithm.
#ifndef ZEL_TESTS_TLS_TEST_SERVER_H
#define ZEL_TESTS_TLS_TEST_SERVER_H

#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/pem.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zeltest {

inline std::string tls_read_text(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream s;
    s << f.rdbuf();
    return s.str();
}

// The certificate of a PEM file in DER (empty when there is none).
inline std::vector<uint8_t> tls_der_of(const std::string &pem_path)
{
    std::vector<uint8_t> out;
    FILE *f = std::fopen(pem_path.c_str(), "r");
    X509 *x = f ? PEM_read_X509(f, nullptr, nullptr, nullptr) : nullptr;
    if (f)
        std::fclose(f);
    unsigned char *der = nullptr;
    const int n = x ? i2d_X509(x, &der) : 0;
    if (n > 0)
        out.assign(der, der + n);
    OPENSSL_free(der);
    X509_free(x);
    return out;
}

class TlsTestServer {
public:
    struct Setup {
        std::string cert, key; // PEM files of the server
        std::string trust;     // PEM file of the client certificates it accepts; empty: asks for none
        std::string body = "hello from the test server";
        bool never_close = false; // answers and then keeps the connection open until stopped
    };
    struct Seen {
        bool handshake = false;
        std::vector<uint8_t> client_cert; // DER
        std::string request, server_name, version;
        bool offered_http11 = false;
        int client_sig_nid = 0; // EVP_PKEY_RSA for PKCS#1, EVP_PKEY_RSA_PSS for PSS
        int client_hash_nid = 0;
        unsigned connections = 0;
    };

    ~TlsTestServer() { stop(); }

    // False when the context or the socket cannot be made.
    bool start(const Setup &s)
    {
        setup_ = s;
        ctx_ = SSL_CTX_new(TLS_server_method());
        if (!ctx_ || SSL_CTX_use_certificate_chain_file(ctx_, s.cert.c_str()) != 1 ||
            SSL_CTX_use_PrivateKey_file(ctx_, s.key.c_str(), SSL_FILETYPE_PEM) != 1)
            return false;
        if (!s.trust.empty()) {
            if (SSL_CTX_load_verify_locations(ctx_, s.trust.c_str(), nullptr) != 1)
                return false;
            SSL_CTX_set_verify(ctx_, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
        SSL_CTX_set_alpn_select_cb(ctx_, alpn_cb, this);
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(fd_, 4) != 0 ||
            getsockname(fd_, reinterpret_cast<sockaddr *>(&a), &len) != 0)
            return false;
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] { serve(); });
        return true;
    }
    void stop()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        if (fd_ >= 0)
            close(fd_);
        fd_ = -1;
        SSL_CTX_free(ctx_);
        ctx_ = nullptr;
    }
    int port() const { return port_; }
    Seen seen()
    {
        std::lock_guard<std::mutex> l(m_);
        return seen_;
    }

private:
    static int alpn_cb(SSL *, const unsigned char **out, unsigned char *outlen, const unsigned char *in,
                       unsigned int inlen, void *arg)
    {
        auto *self = static_cast<TlsTestServer *>(arg);
        for (unsigned i = 0; i < inlen; i += 1u + in[i]) {
            if (in[i] == 8 && i + 9 <= inlen &&
                std::string(reinterpret_cast<const char *>(in + i + 1), 8) == "http/1.1") {
                self->offered_http11_ = true;
                *out = in + i + 1;
                *outlen = 8;
                return SSL_TLSEXT_ERR_OK;
            }
        }
        return SSL_TLSEXT_ERR_NOACK;
    }

    void serve()
    {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 20) <= 0)
                continue;
            const int c = accept(fd_, nullptr, nullptr);
            if (c < 0)
                continue;
            timeval tv{5, 0};
            setsockopt(c, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
            one(c);
            close(c);
        }
    }

    void one(int c)
    {
        Seen s;
        offered_http11_ = false;
        SSL *ssl = SSL_new(ctx_);
        SSL_set_fd(ssl, c);
        if (SSL_accept(ssl) == 1) {
            s.handshake = true;
            if (X509 *x = SSL_get0_peer_certificate(ssl)) {
                unsigned char *der = nullptr;
                const int n = i2d_X509(x, &der);
                if (n > 0)
                    s.client_cert.assign(der, der + n);
                OPENSSL_free(der);
            }
            const char *sni = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
            s.server_name = sni ? sni : "";
            s.version = SSL_get_version(ssl);
            SSL_get_peer_signature_type_nid(ssl, &s.client_sig_nid);
            SSL_get_peer_signature_nid(ssl, &s.client_hash_nid);
            char buf[4096];
            while (s.request.find("\r\n\r\n") == std::string::npos) {
                const int n = SSL_read(ssl, buf, sizeof buf);
                if (n <= 0)
                    break;
                s.request.append(buf, static_cast<size_t>(n));
            }
            const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(setup_.body.size()) +
                                       "\r\nConnection: close\r\n\r\n" + setup_.body;
            SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
            while (setup_.never_close && !stop_)
                usleep(10000);
            SSL_shutdown(ssl);
        }
        s.offered_http11 = offered_http11_;
        SSL_free(ssl);
        ERR_clear_error();
        std::lock_guard<std::mutex> l(m_);
        s.connections = seen_.connections + 1;
        seen_ = s;
    }

    Setup setup_;
    SSL_CTX *ctx_ = nullptr;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    std::mutex m_;
    Seen seen_;
    bool offered_http11_ = false;
};

} // namespace zeltest

#endif
