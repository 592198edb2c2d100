// The HTTPS client against a loopback server on OpenSSL's API that asks for a client certificate: with the
// caller's PEM key and with the simulated GIDS card's key (the card signs the CertificateVerify), the wrong
// PIN and its count of tries, the response cut at 8,191 bytes, a server that never closes, and the server's
// verification. Keys and certificates are made with the openssl command line.
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "card_sim_fixture.h"
#include "tls/tls_internal.h"
#include "tls_test_server.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string g_dir;

std::string file(const std::string &name)
{
    return g_dir + "/" + name;
}

// A self-signed RSA-2048 certificate and its key, by the openssl command line.
bool make_pair(const std::string &name, const std::string &subject, const std::string &san)
{
    const std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 2 -keyout " + file(name + ".key") +
                            " -out " + file(name + ".pem") + " -subj '" + subject + "'" +
                            (san.empty() ? "" : " -addext 'subjectAltName=" + san + "'") + " >/dev/null 2>&1";
    return std::system(cmd.c_str()) == 0;
}

class Https : public zeltest::CardSimTest {
protected:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/zel_tls_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        g_dir = tmpl;
        ASSERT_TRUE(make_pair("server", "/CN=localhost", "DNS:localhost"));
        ASSERT_TRUE(make_pair("other", "/CN=localhost", "DNS:localhost"));
        ASSERT_TRUE(make_pair("client", "/CN=Tandro test client", ""));
        ASSERT_TRUE(make_pair("card", "/CN=Tandro test card", ""));
        std::ofstream(file("trust.pem")) << zeltest::tls_read_text(file("client.pem"))
                                         << zeltest::tls_read_text(file("card.pem"));
    }
    static void TearDownTestSuite()
    {
        const std::string cmd = "rm -rf " + g_dir;
        EXPECT_EQ(std::system(cmd.c_str()), 0);
    }
    void SetUp() override
    {
        std::memcpy(static_cast<void *>(&saved_), &zel_global, sizeof saved_);
        ORB_TLS_SetServerVerification(nullptr, 0);
        zel::tls::set_time_limit_ms(10000);
    }
    void TearDown() override
    {
        std::memcpy(static_cast<void *>(&zel_global), &saved_, sizeof saved_);
        server.stop();
        ORB_TLS_SetServerVerification(nullptr, 0);
        ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, nullptr, 0);
        CardSimTest::TearDown();
    }
    void serve_https(zeltest::TlsTestServer::Setup s = {})
    {
        if (s.cert.empty()) {
            s.cert = file("server.pem");
            s.key = file("server.key");
        }
        if (s.trust.empty())
            s.trust = file("trust.pem");
        ASSERT_TRUE(server.start(s));
    }
    // The simulated GIDS card with the test's key, lent to the global reader at ISO 14443-4 level.
    void card(const std::string &extra = "")
    {
        start(R"({"cards": [{"uid": "04A1B2C3D4E5F6", "sak": "20", "atqa": "0344", "type": "ORB_GENERIC_ISO14443_4",
                  "model": "gids", "setup": {"pin": "4711", "tries": 3, "key": ")" +
              file("card.key") + R"(", "certificate": ")" + file("card.pem") + "\"" + extra + "}}]}");
        std::memcpy(static_cast<void *>(&zel_global), hnd, sizeof saved_);
        ASSERT_EQ(SetISO14443_4_ModeM(hnd), ZEL_OK);
    }
    void pem_client()
    {
        const Bytes der = zeltest::tls_der_of(file("client.pem"));
        ASSERT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, der.data(), uint32_t(der.size())), ZEL_OK);
        const std::string key = zeltest::tls_read_text(file("client.key"));
        ASSERT_EQ(
            ORB_TLS_SetClientX509PrivateKey_PEM(reinterpret_cast<const uint8_t *>(key.data()), uint32_t(key.size())),
            ZEL_OK);
    }
    // One request; the response as text (empty on failure, when the buffer must be null).
    std::string get(ZEL_STATUS want, const char *host = "127.0.0.1", const char *pin = nullptr,
                    const char *path = "/hello")
    {
        uint8_t *resp = reinterpret_cast<uint8_t *>(&saved_); // must be cleared
        uint32_t len = 77;
        const ZEL_STATUS st =
            ORB_TLS_Request(&resp, &len, host, path, server.port(), reinterpret_cast<const uint8_t *>(pin),
                            pin ? uint32_t(std::strlen(pin)) : 0);
        EXPECT_EQ(st, want) << ZEL_Status2String(st);
        if (st != ZEL_OK) {
            EXPECT_EQ(resp, nullptr);
            EXPECT_EQ(len, 0u);
            return std::string();
        }
        EXPECT_NE(resp, nullptr);
        if (!resp)
            return std::string();
        EXPECT_EQ(resp[len], 0);
        std::string out(reinterpret_cast<char *>(resp), len);
        OrbFree(resp);
        return out;
    }

    zeltest::TlsTestServer server;
    zel_handle_record saved_;
};

TEST_F(Https, PemKeyRequestReachesTheServerWithTheCallersCertificateOverTls12)
{
    serve_https();
    pem_client();
    const std::string r = get(ZEL_OK);
    EXPECT_EQ(r.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << r;
    EXPECT_NE(r.find("\r\n\r\nhello from the test server"), std::string::npos);
    const auto seen = server.seen();
    EXPECT_TRUE(seen.handshake);
    EXPECT_EQ(seen.client_cert, zeltest::tls_der_of(file("client.pem")));
    EXPECT_EQ(seen.request, "GET /hello HTTP/1.1\r\nHost: 127.0.0.1\r\nAccept: */*\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(seen.version, "TLSv1.2");
    EXPECT_TRUE(seen.offered_http11);
    // The fixed name of the build, whatever host was asked for, while the server is not verified.
    EXPECT_EQ(seen.server_name, zel::tls::fixed_server_name());
    EXPECT_EQ(seen.server_name.size(), 27u);
    // RSA PKCS#1 with SHA-256, not PSS, although the server offers it.
    EXPECT_EQ(seen.client_sig_nid, EVP_PKEY_RSA);
    EXPECT_EQ(seen.client_hash_nid, NID_sha256);
}

TEST_F(Https, CardKeySignsTheHandshakeAndTheServerSeesTheCardsCertificate)
{
    serve_https();
    card();
    ASSERT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), ZEL_OK);
    uint32_t n = 0;
    const uint8_t *held = zel::tls::held_certificate(&n);
    EXPECT_EQ(Bytes(held, held + n),
              zeltest::tls_der_of(file("card.pem"))); // inflated from the card's compressed object
    const std::string r = get(ZEL_OK, "127.0.0.1", "4711");
    EXPECT_NE(r.find("hello from the test server"), std::string::npos);
    const auto seen = server.seen();
    EXPECT_EQ(seen.client_cert, zeltest::tls_der_of(file("card.pem")));
    EXPECT_EQ(seen.client_sig_nid, EVP_PKEY_RSA);
    EXPECT_EQ(seen.client_hash_nid, NID_sha256);
    // A key of the caller's does not go with the card's certificate.
    const std::string key = zeltest::tls_read_text(file("client.key"));
    EXPECT_EQ(ORB_TLS_SetClientX509PrivateKey_PEM(reinterpret_cast<const uint8_t *>(key.data()), uint32_t(key.size())),
              TLS_ERR_PRIVATE_KEY_CONTEXT_WRONG);
}

TEST_F(Https, WrongPinEndsTheHandshakeWithTheStatusWordOfVerifyAndCountsTriesDown)
{
    serve_https();
    card();
    ASSERT_EQ(ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0), ZEL_OK);
    get(0xA63C2, "127.0.0.1", "0000");
    EXPECT_TRUE(server.seen().request.empty());
    get(0xA63C1, "127.0.0.1", "1234");
    // The right PIN gives the tries back, and the request goes through.
    EXPECT_NE(get(ZEL_OK, "127.0.0.1", "4711").find("hello"), std::string::npos);
    get(0xA63C2, "127.0.0.1", "9999");
    get(0xA63C1, "127.0.0.1", "9999");
    get(0xA6983, "127.0.0.1", "9999");
    get(0xA6983, "127.0.0.1", "4711"); // blocked
    // A PIN needs the card's certificate type.
    ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, reinterpret_cast<const uint8_t *>("x"), 1);
    get(TLS_ERR_SET_PIN_FOR_GIDS_CERT_ONLY, "127.0.0.1", "4711");
}

TEST_F(Https, LongResponseIsCutAt8191BytesAndTheRestIsReadAndDropped)
{
    zeltest::TlsTestServer::Setup s;
    s.body.clear();
    for (int i = 0; i < 10000; ++i)
        s.body.push_back(static_cast<char>('a' + i % 26));
    serve_https(s);
    pem_client();
    const std::string r = get(ZEL_OK);
    ASSERT_EQ(r.size(), 8191u);
    const std::string head = "HTTP/1.1 200 OK\r\nContent-Length: 10000\r\nConnection: close\r\n\r\n";
    EXPECT_EQ(r, (head + s.body).substr(0, 8191));
}

TEST_F(Https, ServerThatNeverClosesEndsWithTheTimeLimit)
{
    zeltest::TlsTestServer::Setup s;
    s.never_close = true;
    serve_https(s);
    pem_client();
    zel::tls::set_time_limit_ms(400);
    get(ZEL_TIMEOUT_ERR);
}

TEST_F(Https, ConnectionFailuresHaveTheirOwnStatuses)
{
    serve_https();
    // Without a certificate the server refuses the handshake.
    get(TLS_ERR_SERVER_UNEXPECTEDLY_CLOSED_CONNECTION);
    pem_client();
    const int port = server.port();
    server.stop();
    uint8_t *resp = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(ORB_TLS_Request(&resp, &len, "127.0.0.1", "/", port, nullptr, 0), TLS_CONNECTING_ERROR);
    EXPECT_EQ(ORB_TLS_Request(&resp, &len, "", "/", port, nullptr, 0), TLS_ERR_NO_SUCH_HOST);
    EXPECT_EQ(ORB_TLS_Request(&resp, &len, nullptr, "/", port, nullptr, 0), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(ORB_TLS_Request(&resp, &len, "127.0.0.1", "/", port, nullptr, 4), ZEL_PARAMETERS_ERROR);
    EXPECT_EQ(resp, nullptr);
}

TEST_F(Https, VerificationRefusesAnUntrustedServerAndAcceptsATrustedOneByName)
{
    serve_https();
    pem_client();
    ASSERT_EQ(ORB_TLS_SetServerVerification(file("other.pem").c_str(), 1), ZEL_OK);
    get(TLS_ERR_SERVER_NOT_VERIFIED, "localhost");
    EXPECT_NE(std::string(ZEL_Status2String(TLS_ERR_SERVER_NOT_VERIFIED)).find("TLS_ERR_SERVER_NOT_VERIFIED"),
              std::string::npos);

    ASSERT_EQ(ORB_TLS_SetServerVerification(file("server.pem").c_str(), 1), ZEL_OK);
    EXPECT_NE(get(ZEL_OK, "localhost").find("hello"), std::string::npos);
    EXPECT_EQ(server.seen().server_name, "localhost"); // the asked host, by which servers choose a certificate
    // The certificate names localhost, not the address.
    get(TLS_ERR_SERVER_NOT_VERIFIED, "127.0.0.1");
    // Chain only: the address is fine.
    ASSERT_EQ(ORB_TLS_SetServerVerification(file("server.pem").c_str(), 0), ZEL_OK);
    get(ZEL_OK, "127.0.0.1");
    EXPECT_EQ(ORB_TLS_SetServerVerification((g_dir + "/none.pem").c_str(), 1), ZEL_FILE_NOT_EXISTS);
}

} // namespace
