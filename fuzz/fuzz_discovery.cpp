// The discovery receive loop and the broadcast reader list against arbitrary datagrams, over real sockets on
// the loopback: a responder in a thread takes the library's request (the discovery request on the discovery
// port, or the list's probe on the frame port) and answers with the input's datagrams, then with one valid
// discovery reply (or nothing, for the list) so that the loop ends at once. The open that follows a
// discovery is asked for a local link, which ends without any further traffic.
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

#include "tandro.h"
#include "zel_net.h"

namespace {

using Datagrams = std::vector<std::vector<uint8_t>>;

// A loopback socket on port, with a receive time-out.
int bound_socket(uint16_t port, uint32_t addr)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    timeval tv{0, 500 * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(addr);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

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
    static const int discovery_fd = bound_socket(ZEL_NET_DISCOVERY_PORT, INADDR_LOOPBACK);
    if (size < 1 || size > 20000)
        return 0;
    Datagrams answers;
    for (size_t at = 1; at + 2 <= size && answers.size() < 32;) {
        size_t n = static_cast<size_t>(data[at]) << 8 | data[at + 1];
        at += 2;
        if (n > 1500)
            n = 1500;
        if (n > size - at)
            n = size - at;
        answers.emplace_back(data + at, data + at + n);
        at += n;
    }
    if (data[0] % 8 != 7) {
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
    } else {
        // The broadcast list: the probe reaches a responder on the frame port of every local address.
        const int fd = bound_socket(ZEL_NET_FRAME_PORT, INADDR_ANY);
        if (fd < 0)
            return 0;
        std::thread responder([&] {
            if (respond(fd, answers, nullptr))
                for (int i = 0; i < 4 && respond(fd, answers, nullptr); ++i) {
                }
        });
        const uint32_t before = list_size();
        const uint32_t added = udp_reader_list();
        responder.join();
        close(fd);
        if (list_size() != before + added)
            std::abort();
        // The list is the process's: what this run added leaves it again.
        while (list_size() > before) {
            ZEL_HANDLE h = list_get_by_idx(before);
            ReaderCloseHnd(h);
            removeData(h);
        }
    }
    return 0;
}
