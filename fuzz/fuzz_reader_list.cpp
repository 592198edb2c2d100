// The broadcast reader list against arbitrary datagrams, over real sockets: a responder in a thread on the
// frame port of every local address takes the list's broadcast probe and the frames that follow it (the
// serial number of each reader found) and answers each with the input's datagrams. Every answer names a
// reader by its sender; the list must grow by exactly the count it reports. The list waits out its own
// receive time-out on each frame port (a fifth of a second), so this target runs a few inputs a second.
//
// Input: one option byte, then datagrams, each a two-byte big-endian length (at most 1500) and its bytes.
#include <arpa/inet.h>
#include <poll.h>
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

// Takes one datagram on fd and answers its sender with the datagrams.
void respond(int fd, const Datagrams &answers)
{
    uint8_t req[512];
    sockaddr_in from{};
    socklen_t from_len = sizeof from;
    if (recvfrom(fd, req, sizeof req, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &from_len) < 0)
        return;
    for (const auto &d : answers)
        sendto(fd, d.data(), d.size(), 0, reinterpret_cast<const sockaddr *>(&from), from_len);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 20000)
        return 0;
    // Sleeps skipped, and a clock that moves almost a second a look: a receive of the list's records polls
    // once and ends.
    zelfuzz::QuickTime quick(999);
    const Datagrams answers = zelfuzz::read_datagrams(data, size, 1);
    const int fd = bound_socket(ZEL_NET_FRAME_PORT, INADDR_ANY, 10);
    if (fd < 0)
        return 0;
    // Every datagram that comes (the probe, then each record's frames) gets the input's answers, until the
    // list is done.
    std::atomic<bool> done{false};
    std::thread responder([&] {
        while (!done) {
            pollfd p{fd, POLLIN, 0};
            if (poll(&p, 1, 10) > 0)
                respond(fd, answers);
        }
    });
    const uint32_t before = list_size();
    const uint32_t added = udp_reader_list();
    done = true;
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
    return 0;
}
