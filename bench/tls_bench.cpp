// A full HTTPS request against a loopback server that asks for a client certificate: once with the key in a
// PEM file, once with the simulated GIDS card's key, in the same run. The card's own exchanges (select,
// VERIFY, MANAGE SECURITY ENVIRONMENT, PERFORM SECURITY OPERATION) are timed apart as "card_ms"; the card
// request's time less the PEM request's time should stay within 10% of it ("extra_over_card" near 1).
#include <benchmark/benchmark.h>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "../tests/tls_test_server.h"
#include "tandro.h"
#include "tls/tls_internal.h"
#include "transport/serial.h"
#include "zelsim.h"

namespace {

struct World {
    std::string dir;
    zeltest::TlsTestServer server;
    zsim *sim = nullptr;
    zel_handle_record rec;
    zel_handle_record saved;
    bool ok = false;
    World()
    {
        char tmpl[] = "/tmp/zel_tls_bench_XXXXXX";
        if (!mkdtemp(tmpl))
            return;
        dir = tmpl;
        for (const char *n : {"server", "client", "card"}) {
            const std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -sha256 -days 2 -keyout " + dir + "/" +
                                    n + ".key -out " + dir + "/" + n + ".pem -subj /CN=" + n + " >/dev/null 2>&1";
            if (std::system(cmd.c_str()) != 0)
                return;
        }
        std::ofstream(dir + "/trust.pem")
            << zeltest::tls_read_text(dir + "/client.pem") << zeltest::tls_read_text(dir + "/card.pem");
        zeltest::TlsTestServer::Setup s;
        s.cert = dir + "/server.pem";
        s.key = dir + "/server.key";
        s.trust = dir + "/trust.pem";
        if (!server.start(s))
            return;
        sim = zsim_new();
        const std::string setup =
            "{\"pin\": \"4711\", \"key\": \"" + dir + "/card.key\", \"certificate\": \"" + dir + "/card.pem\"}";
        const zsim_card id = {{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, 7, 0x20, 0x0344, 0x40};
        char path[256];
        if (zsim_card_add_model(sim, &id, "gids", setup.c_str()) != 0 || zsim_serve_pty(sim, path, sizeof path) != 0)
            return;
        zel_handle_init(&rec);
        if (zel::serial_open(&rec, path, 1000000, true) != ZEL_OK || SetISO14443_4_ModeM(&rec) != ZEL_OK)
            return;
        std::memcpy(static_cast<void *>(&saved), &zel_global, sizeof saved);
        std::memcpy(static_cast<void *>(&zel_global), &rec, sizeof rec);
        ok = true;
    }
    ~World()
    {
        if (ok)
            std::memcpy(static_cast<void *>(&zel_global), &saved, sizeof saved);
        server.stop();
        PortClose(&rec);
        if (sim)
            zsim_free(sim);
        if (!dir.empty())
            std::system(("rm -rf " + dir).c_str());
    }
};

World &world()
{
    static World w;
    return w;
}

bool request(const char *pin)
{
    uint8_t *r = nullptr;
    uint32_t n = 0;
    const ZEL_STATUS st = ORB_TLS_Request(&r, &n, "127.0.0.1", "/", world().server.port(),
                                          reinterpret_cast<const uint8_t *>(pin), pin ? 4 : 0);
    OrbFree(r);
    return st == ZEL_OK;
}

double g_pem_ms = 0;

void BM_RequestPemKey(benchmark::State &state)
{
    World &w = world();
    if (!w.ok) {
        state.SkipWithError("no server or simulated card");
        return;
    }
    const auto der = zeltest::tls_der_of(w.dir + "/client.pem");
    const std::string key = zeltest::tls_read_text(w.dir + "/client.key");
    ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_X509, der.data(), uint32_t(der.size()));
    ORB_TLS_SetClientX509PrivateKey_PEM(reinterpret_cast<const uint8_t *>(key.data()), uint32_t(key.size()));
    const auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state)
        if (!request(nullptr))
            state.SkipWithError("request failed");
    g_pem_ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() /
               double(state.iterations());
    state.counters["request_ms"] = g_pem_ms;
}

void BM_RequestCardKey(benchmark::State &state)
{
    World &w = world();
    if (!w.ok || ORB_TLS_SetClientCertificate(ZEL_TLS_CERT_GIDS, nullptr, 0) != ZEL_OK) {
        state.SkipWithError("no simulated card");
        return;
    }
    zel::tls::reset_card_time();
    const auto t0 = std::chrono::steady_clock::now();
    for (auto _ : state)
        if (!request("4711"))
            state.SkipWithError("request failed");
    const double it = double(state.iterations());
    const double total = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() / it;
    const double card = double(zel::tls::card_time_us()) / 1000.0 / it;
    state.counters["request_ms"] = total;
    state.counters["card_ms"] = card;
    state.counters["pem_request_ms"] = g_pem_ms;
    // 1.0: the card adds exactly its own exchanges; the target is 0.9 to 1.1.
    state.counters["extra_over_card"] = card > 0 ? (total - g_pem_ms) / card : 0;
}

BENCHMARK(BM_RequestPemKey)->Unit(benchmark::kMillisecond)->Iterations(20);
BENCHMARK(BM_RequestCardKey)->Unit(benchmark::kMillisecond)->Iterations(20);

} // namespace
