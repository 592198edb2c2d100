// Pieces shared by the targets that answer the library over real sockets: a bound datagram socket and the
// input read as datagrams.
#ifndef ZEL_FUZZ_NET_H
#define ZEL_FUZZ_NET_H

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zelfuzz {

using Datagrams = std::vector<std::vector<uint8_t>>;

// A socket on port of addr, with a receive time-out.
inline int bound_socket(uint16_t port, uint32_t addr, long wait_ms)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    timeval tv{0, wait_ms * 1000};
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

// The input from at: datagrams, each a two-byte big-endian length (at most 1500) and its bytes, at most 32.
inline Datagrams read_datagrams(const uint8_t *data, size_t size, size_t at)
{
    Datagrams out;
    while (at + 2 <= size && out.size() < 32) {
        size_t n = static_cast<size_t>(data[at]) << 8 | data[at + 1];
        at += 2;
        if (n > 1500)
            n = 1500;
        if (n > size - at)
            n = size - at;
        out.emplace_back(data + at, data + at + n);
        at += n;
    }
    return out;
}

} // namespace zelfuzz

#endif
