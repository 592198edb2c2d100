// The socket link's byte stream: send, the receive buffer of the record, purge and close.
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

#include "core/internal.h"
#include "zel_port.h"
#include "zel_status.h"

namespace {
constexpr uint32_t kPiece = 300; // one receive takes at most this much
constexpr uint32_t kReceiveWaitMs = 1000;
std::atomic<int> g_open_sockets{0};

bool is_stream(int fd)
{
    int type = 0;
    socklen_t len = sizeof type;
    return getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 && type == SOCK_STREAM;
}

bool has_socket(const zel_handle_record *hnd)
{
    return hnd->udp_socket > 0;
}
} // namespace

namespace zel {
// Bookkeeping of the sockets opened by the library, for the set-up code.
void socket_opened()
{
    g_open_sockets.fetch_add(1);
}
int open_socket_count()
{
    return g_open_sockets.load();
}
} // namespace zel

extern "C" ZEL_API int udp_set_timeout_ms(ZEL_HANDLE hnd, uint32_t ms)
{
    if (!hnd || !has_socket(hnd))
        return -1;
    timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
    return setsockopt(hnd->udp_socket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

extern "C" ZEL_API int udp_tx(ZEL_HANDLE hnd, const uint8_t *buffer, uint32_t count)
{
    if (!hnd || !has_socket(hnd) || (!buffer && count))
        return -1;
    ssize_t n;
    do {
        n = sendto(hnd->udp_socket, buffer, count, MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&hnd->udp_remote),
                   sizeof hnd->udp_remote);
        // A connected stream socket refuses an address; send plainly there.
        if (n < 0 && errno == EISCONN)
            n = send(hnd->udp_socket, buffer, count, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n < 0 ? -1 : static_cast<int>(n);
}

extern "C" ZEL_API int udp_rx(ZEL_HANDLE hnd, uint32_t wanted)
{
    if (!hnd || !has_socket(hnd))
        return -1;
    if (hnd->udp_rx_len < 0 || hnd->udp_rx_len > ZEL_UDP_RX_BUF_LEN)
        hnd->udp_rx_len = 0;
    if (hnd->udp_rx_len > 0)
        dp(6, "WARNING: UDP buff.size= %d | fix reading start !", hnd->udp_rx_len);
    // Bounded by a second in all, whatever the socket's own time-out, and by the buffer's end.
    const uint32_t start = zel::tick_ms();
    while (static_cast<uint32_t>(hnd->udp_rx_len) < wanted) {
        const uint32_t room = ZEL_UDP_RX_BUF_LEN - static_cast<uint32_t>(hnd->udp_rx_len);
        if (room == 0)
            break;
        const int32_t left = static_cast<int32_t>(kReceiveWaitMs) - static_cast<int32_t>(zel::tick_ms() - start);
        if (left <= 0)
            break;
        pollfd p{hnd->udp_socket, POLLIN, 0};
        const int ready = poll(&p, 1, left);
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        socklen_t from_len = sizeof hnd->udp_local;
        const ssize_t n = recvfrom(hnd->udp_socket, hnd->udp_rx_buf + hnd->udp_rx_len, room < kPiece ? room : kPiece,
                                   MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&hnd->udp_local), &from_len);
        if (n > 0)
            hnd->udp_rx_len += static_cast<int32_t>(n);
        else if (n == 0 && is_stream(hnd->udp_socket))
            break; // the stream's peer closed it
        else
            sched_yield();
    }
    return hnd->udp_rx_len;
}

extern "C" ZEL_API int udp_purge(ZEL_HANDLE hnd)
{
    if (!hnd)
        return -1;
    if (has_socket(hnd)) {
        // One receive, waiting a millisecond at most.
        pollfd p{hnd->udp_socket, POLLIN, 0};
        if (poll(&p, 1, 1) > 0) {
            uint8_t sink[kPiece];
            (void)recv(hnd->udp_socket, sink, sizeof sink, MSG_DONTWAIT);
        }
    }
    hnd->udp_rx_len = 0;
    std::memset(hnd->udp_rx_buf, 0, sizeof hnd->udp_rx_buf);
    return 0;
}

extern "C" ZEL_API int udp_close(ZEL_HANDLE hnd)
{
    if (!hnd)
        return -1;
    int result = 0;
    if (has_socket(hnd)) {
        int open = g_open_sockets.load();
        while (open > 0 && !g_open_sockets.compare_exchange_weak(open, open - 1)) {
        }
        result = close(hnd->udp_socket);
        hnd->udp_socket = 0;
    }
    hnd->udp_ready = 0;
    return result;
}
