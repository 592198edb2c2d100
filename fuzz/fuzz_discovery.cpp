// The discovery receive loop against arbitrary datagrams, over real sockets on the loopback: a responder in
// a thread takes the library's discovery request and answers with the input's datagrams, then with one
// valid discovery reply so that the loop ends at once. The open that follows the discovery is asked for a
// local link, which ends without any further traffic.
//
// Input: one option byte, then datagrams, each a two-byte big-endian length (at most 1500) and its bytes.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "core/internal.h"
#include "fuzz_link.h"
#include "fuzz_net.h"
#include "tandro.h"
#include "zel_net.h"

namespace {

using zelfuzz::bound_socket;
using zelfuzz::Datagrams;

// Waits for one datagram on fd and answers its sender with the datagrams; true when a request came.
bool respond(int fd, const Datagrams &answers, const std::vector<uint8_t> *last)
{
    uint8_t req[512];
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    if (recvfrom(fd, req, sizeof req, 0, reinterpret_cast<sockaddr *>(&from), &from_len) < 0)
        return false;
    for (const auto &d : answers)
        sendto(fd, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&from), from_len);
    if (last)
        sendto(fd, last->data(), last->size(), 0, reinterpret_cast<const sockaddr *>(&from), from_len);
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int discovery_fd = bound_socket(ZEL_NET_DISCOVERY_PORT, INADDR_LOOPBACK, 500);
    if (size < 1 || size > 20000)
        return 0;
    zelfuzz::QuickTime quick(0);
    const Datagrams answers = zelfuzz::read_datagrams(data, size, 1);
    if (discovery_fd < 0)
        return 0;
    // 127.0.0.1, port 1, by UDP: the reply that ends the round when none before it did.
    static const std::vector<uint8_t> kLast = {127, 0, 0, 1, 1, 0, 'U', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    std::atomic<bool> answered{false};
    std::thread responder([&] { answered = respond(discovery_fd, answers, &kLast); });
    zel_handle_record rec;
    zel_handle_init(&rec);
    // A local link: the open after the discovery ends at once.
    const ZEL_STATUS st = OpenZelNetReader_auto(&rec, "127.0.0.1", 'L', nullptr);
    responder.join();
    if (answered && st != ZEL_NOT_IMPLEMENTED)
        std::abort();
    ReaderCloseHnd(&rec);
    return 0;
}
