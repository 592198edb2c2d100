// The socket link's receive buffer against arbitrary datagrams: datagrams of the input's sizes, sent from a
// loopback socket that stands in for the reader, wait on the record's socket, and are taken by udp_rx with an
// arbitrary wanted count (the buffer's end and beyond included), by the port's counted reads, and by the
// frame protocol of a few reader commands. The buffer must hold the datagrams' bytes in order and never grow
// past its end. The clock runs fast once nothing waits on the socket, so that a receive never waits.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "tandro.h"

namespace {

int g_socket = -1;
uint32_t g_now = 0;
constexpr size_t kMaxDatagrams = 48;
// One millisecond while a datagram waits, a second once the socket is empty: every wait ends at once.
uint32_t fast_tick()
{
    pollfd p{g_socket, POLLIN, 0};
    return g_now += poll(&p, 1, 0) > 0 ? 1u : 1000u;
}
void no_sleep(uint32_t) {}

// A datagram socket on a free loopback port; its address goes to addr.
int loopback_socket(sockaddr_in &addr)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    addr = sockaddr_in{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len) != 0) {
        if (fd >= 0)
            close(fd);
        return -1;
    }
    return fd;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 20000)
        return 0;
    // The record's socket and the reader's, on the loopback, each sending to the other.
    int sp[2];
    sockaddr_in addr[2];
    for (int i = 0; i < 2; ++i) {
        sp[i] = loopback_socket(addr[i]);
        if (sp[i] < 0)
            std::abort();
    }
    if (connect(sp[1], reinterpret_cast<const sockaddr *>(&addr[0]), sizeof addr[0]) != 0)
        std::abort();
    g_socket = sp[0];
    zel::set_tick_hook(fast_tick);
    zel::set_sleep_hook(no_sleep);
    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.comm.use = ZEL_PORT_SOCKET;
    rec.udp_socket = sp[0];
    rec.udp_ready = 1;
    rec.udp_remote = addr[1];
    rec.opened = 1;

    std::vector<uint8_t> sent; // every datagram byte sent, in order
    size_t taken = 0;          // of them, how many left the record's buffer
    // While the buffer always has room for a whole datagram, none is cut, and the buffer must hold exactly
    // the bytes sent and not yet taken.
    bool exact = true;
    size_t datagrams = 0;
    const uint8_t mode = data[0];
    size_t at = 1;
    while (at + 1 < size) {
        const uint8_t op = data[at++];
        const uint8_t arg = data[at++];
        const uint32_t n = arg * 17u;
        if (op % 3 == 0) {
            // A datagram of up to 300 bytes, as a reader sends them; an empty one too.
            size_t k = (op & 0x80 ? 256u : 0u) + arg;
            if (k > 300)
                k = 300;
            if (k > size - at)
                k = size - at;
            // The kernel drops datagrams, silently, once the socket's queue is full; a bounded number of
            // them keeps every one sent on its way to the record.
            if (++datagrams > kMaxDatagrams) {
                at += k;
                continue;
            }
            if (send(sp[1], data + at, k, MSG_DONTWAIT) == static_cast<ssize_t>(k))
                sent.insert(sent.end(), data + at, data + at + k);
            if (sent.size() - taken + 300 > ZEL_UDP_RX_BUF_LEN)
                exact = false;
            at += k;
        } else if (op % 3 == 1) {
            const int held = udp_rx(&rec, n);
            if (held < 0 || held > ZEL_UDP_RX_BUF_LEN || held != rec.udp_rx_len)
                std::abort();
            if (exact && (taken + static_cast<size_t>(held) > sent.size() ||
                          (held && std::memcmp(rec.udp_rx_buf, sent.data() + taken, held) != 0)))
                std::abort();
        } else if (mode & 1) {
            uint32_t type = 0;
            uint8_t serial[8];
            GetReaderTypeHnd(&rec, &type);
            GetReaderSerialDescriptionHnd(&rec, serial);
            break; // the frames' own reads leave no model of what was taken
        } else {
            std::vector<uint8_t> out(n % 600 + 1);
            uint32_t got = 0;
            PortRead1(&rec, out.data(), static_cast<uint32_t>(out.size()), &got);
            if (got > out.size() || rec.udp_rx_len < 0 || rec.udp_rx_len > ZEL_UDP_RX_BUF_LEN)
                std::abort();
            if (exact && (taken + got > sent.size() || (got && std::memcmp(out.data(), sent.data() + taken, got) != 0)))
                std::abort();
            taken += got;
        }
    }
    // Whatever the library sent lands on the other end; it is not looked at.
    rec.udp_socket = 0;
    close(sp[0]);
    close(sp[1]);
    zel::set_sleep_hook(nullptr);
    zel::set_tick_hook(nullptr);
    return 0;
}
