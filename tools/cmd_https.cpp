// tandro https: one HTTPS GET with a client certificate, the key either in PEM files of the caller's or on a
// GIDS smart card on the reader (the card signs the handshake). The server is verified by default.
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

const char *USAGE = "URL [--cert FILE --key FILE | --card --pin PIN] [--ca FILE] [--insecure] [--no-host-check]";
const char *kSystemCa = "/etc/ssl/certs";

struct Args {
    std::string url, cert, key, pin, ca;
    bool card = false, insecure = false, host_check = true;
    std::string host, path = "/";
    uint32_t port = 443;
};

int fail(const tandro::Options &opt, const std::string &text)
{
    if (opt.json)
        std::printf("{\"error\": %s}\n", tandro::json_string(text).c_str());
    std::fprintf(stderr, "tandro https: %s\n", text.c_str());
    return 1;
}

int fail(const tandro::Options &, const std::string &what, ZEL_STATUS st)
{
    char code[16];
    std::snprintf(code, sizeof code, " (0x%X)", st);
    return tandro::fail_text("https", what + ": " + ZEL_Status2String(st) + code, st);
}

// https://host[:port][/path]
bool parse_url(Args &a)
{
    std::string rest = a.url;
    const std::string scheme = "https://";
    if (rest.compare(0, scheme.size(), scheme) == 0)
        rest = rest.substr(scheme.size());
    else if (rest.find("://") != std::string::npos)
        return false;
    const size_t slash = rest.find('/');
    if (slash != std::string::npos) {
        a.path = rest.substr(slash);
        rest = rest.substr(0, slash);
    }
    const size_t colon = rest.rfind(':');
    if (colon != std::string::npos) {
        if (!tandro::parse_u32(rest.substr(colon + 1), &a.port) || a.port == 0 || a.port > 65535)
            return false;
        rest = rest.substr(0, colon);
    }
    a.host = rest;
    for (char c : a.path + a.host)
        if (static_cast<unsigned char>(c) <= ' ' || c == 0x7F)
            return false;
    return !a.host.empty() && a.host.size() <= 253 && a.path.size() <= 2048;
}

bool read_file(const std::string &path, std::string &out)
{
    std::ifstream f(path, std::ios::binary);
    if (!f)
        return false;
    std::stringstream s;
    s << f.rdbuf();
    out = s.str();
    return out.size() <= 1 << 20;
}

// A certificate file in PEM or DER, as DER.
bool certificate_der(const std::string &text, std::vector<uint8_t> &der)
{
    BIO *b = BIO_new_mem_buf(text.data(), static_cast<int>(text.size()));
    X509 *x = b ? PEM_read_bio_X509(b, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(b);
    if (!x) {
        const unsigned char *p = reinterpret_cast<const unsigned char *>(text.data());
        x = d2i_X509(nullptr, &p, static_cast<long>(text.size()));
    }
    if (!x)
        return false;
    unsigned char *buf = nullptr;
    const int n = i2d_X509(x, &buf);
    if (n > 0)
        der.assign(buf, buf + n);
    OPENSSL_free(buf);
    X509_free(x);
    return n > 0;
}

struct WipeText {
    std::string &s;
    ~WipeText() { OPENSSL_cleanse(s.data(), s.size()); }
};

const tandro::OptionTable TABLE = {
    {
        {"URL", "one GET of https://HOST[:PORT][/PATH]; prints the server's answer"},
    },
    {
        {"--cert", "FILE", "the client's certificate (PEM or DER); goes with --key"},
        {"--key", "FILE", "the client's private key (PEM)"},
        {"--card", nullptr, "the certificate and key of the GIDS card on the reader; goes with --pin"},
        {"--pin", "PIN", "the card's PIN (--sim: the simulated card's is 123456); never shown"},
        {"--ca", "FILE", "the certificates the server's chain must lead to, a PEM file or a folder"},
        {"--no-host-check", nullptr, "check the chain only, not the server's name"},
        {"--insecure", nullptr, "do not verify the server at all (verification is on by default)"},
    },
    "Sends one HTTPS GET (TLS 1.2) with a client certificate and prints what the server answers (at most 8,191 "
    "bytes, headers included). The client key is either in the caller's PEM files (--cert and --key) or on a "
    "smart card on the reader (--card --pin), which signs the handshake.\n\n"
    "The server is verified by default against the certificates in /etc/ssl/certs, or those of --ca; --insecure "
    "does not go with --ca.",
};

int run_https(const tandro::Options &opt, const tandro::Args &args)
{
    Args a;
    WipeText wipe_pin{a.pin};
    tandro::Parsed parsed;
    if (!tandro::parse("https", TABLE, args, parsed))
        return 2;
    // An option given with an empty value is refused as if it had none.
    struct {
        const char *name;
        std::string *value;
    } const valued[] = {{"--cert", &a.cert}, {"--key", &a.key}, {"--pin", &a.pin}, {"--ca", &a.ca}};
    for (const auto &v : valued) {
        if (!parsed.has(v.name))
            continue;
        *v.value = parsed.value(v.name);
        if (v.value->empty())
            return tandro::usage_error("https", std::string(v.name) + " takes a value");
    }
    a.card = parsed.has("--card");
    a.insecure = parsed.has("--insecure");
    a.host_check = !parsed.has("--no-host-check");
    for (const std::string &w : parsed.words) {
        if (a.url.empty() && !w.empty() && w[0] != '-')
            a.url = w;
        else
            return tandro::usage_error("https", "unknown argument '" + w + "' (" + USAGE + ")");
    }
    if (a.url.empty())
        return tandro::usage_error("https", std::string("a URL is needed (") + USAGE + ")");
    if (!parse_url(a))
        return tandro::usage_error("https", "the URL must be https://HOST[:PORT][/PATH]");
    if (a.card && (!a.cert.empty() || !a.key.empty()))
        return tandro::usage_error("https", "--card does not go with --cert or --key");
    if (a.card == a.pin.empty())
        return tandro::usage_error("https", "--card and --pin go together");
    if (a.cert.empty() != a.key.empty())
        return tandro::usage_error("https", "--cert and --key go together");
    if (a.pin.size() > 255)
        return tandro::usage_error("https", "--pin takes at most 255 characters");
    if (a.insecure && !a.ca.empty())
        return tandro::usage_error("https", "--insecure does not go with --ca");

    ZEL_STATUS st = ORB_TLS_SetServerVerification(a.insecure ? nullptr : (a.ca.empty() ? kSystemCa : a.ca.c_str()),
                                                  a.host_check ? 1 : 0);
    if (st != ZEL_OK)
        return fail(opt, "--ca " + (a.ca.empty() ? std::string(kSystemCa) : a.ca), st);

    tandro::ReaderSession session;
    std::unique_ptr<tandro::GlobalReader> global;
    if (a.card) {
        if (!session.open("https", opt))
            return 1;
        if (session.sim() && opt.sim_scenario.empty()) {
            zsim_field_clear(session.sim());
            zsim_card card{{0x04, 0x61, 0xD5, 0x11, 0x22, 0x33, 0x80}, 7, 0x20, 0x0344, ORB_GENERIC_ISO14443_4};
            zsim_card_add_model(session.sim(), &card, "gids", nullptr);
        } else if (session.sim()) {
            tandro::bring_forward(session.sim(), "gids");
        }
        global = std::make_unique<tandro::GlobalReader>(session.hnd());
        st = SetISO14443_4_Mode();
        if (st != ZEL_OK)
            return fail(opt, "no smart card at ISO 14443-4 level", st);
        st = ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0);
        if (st != ZEL_OK)
            return fail(opt, "the card's certificate", st);
    } else if (!a.cert.empty()) {
        std::string text, key;
        std::vector<uint8_t> der;
        if (!read_file(a.cert, text) || !certificate_der(text, der))
            return fail(opt, "--cert " + a.cert + ": no certificate");
        st = ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, der.data(), static_cast<uint32_t>(der.size()));
        if (st != ZEL_OK)
            return fail(opt, "--cert " + a.cert, st);
        WipeText wipe_key{key};
        if (!read_file(a.key, key) || key.empty())
            return fail(opt, "--key " + a.key + ": cannot read it");
        st = ORB_TLS_SetClientX509PrivateKey_PEM(reinterpret_cast<const uint8_t *>(key.data()),
                                                 static_cast<uint32_t>(key.size()));
        if (st != ZEL_OK)
            return fail(opt, "--key " + a.key, st);
    }

    uint8_t *resp = nullptr;
    uint32_t len = 0;
    st = ORB_TLS_Request(&resp, &len, a.host.c_str(), a.path.c_str(), static_cast<int32_t>(a.port),
                         a.pin.empty() ? nullptr : reinterpret_cast<const uint8_t *>(a.pin.data()),
                         static_cast<uint32_t>(a.pin.size()));
    if (st != ZEL_OK) {
        OrbFree(resp);
        return fail(opt, "GET " + a.url, st);
    }
    const std::string body(reinterpret_cast<const char *>(resp), len);
    OrbFree(resp);
    const size_t eol = body.find("\r\n");
    const std::string status_line = body.substr(0, eol == std::string::npos ? body.size() : eol);
    if (opt.json) {
        std::printf("{\"url\": %s, \"verified\": %s, \"client_key\": %s, \"status_line\": %s, \"bytes\": %u, "
                    "\"truncated\": %s, \"response\": %s}\n",
                    tandro::json_string(a.url).c_str(), a.insecure ? "false" : "true",
                    a.card           ? "\"card\""
                    : a.cert.empty() ? "null"
                                     : "\"pem\"",
                    tandro::json_string(status_line).c_str(), len, len >= ZEL_TLS_RESPONSE_MAX ? "true" : "false",
                    tandro::json_string(body).c_str());
        return 0;
    }
    std::fprintf(stderr, "GET %s: %u bytes%s%s\n", a.url.c_str(), len,
                 len >= ZEL_TLS_RESPONSE_MAX ? " (cut at 8,191)" : "", a.insecure ? ", server not verified" : "");
    std::fwrite(body.data(), 1, body.size(), stdout);
    if (!body.empty() && body.back() != '\n')
        std::printf("\n");
    return 0;
}

const tandro::Registration https_cmd({"https", USAGE,
                                      "one HTTPS GET with a client certificate from PEM files or a GIDS card",
                                      run_https, false, &TABLE});

} // namespace
