// The socket set-up of network readers and the address of the local network.
#include "transport/net.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>

#include "core/bytes.h"
#include "core/internal.h"
#include "zel_net.h"
#include "zel_port.h"
#include "zel_status.h"

namespace zel {
void socket_opened();
}

namespace {

std::atomic<bool> g_first_setup_done{false};
constexpr int kConnectWaitMs = 3000;

bool parse_port(const char *text, size_t len, uint32_t *out, bool zero_ok)
{
    if (len == 0 || len > 5)
        return false;
    uint32_t v = 0;
    for (size_t i = 0; i < len; ++i) {
        if (text[i] < '0' || text[i] > '9')
            return false;
        v = v * 10 + static_cast<uint32_t>(text[i] - '0');
    }
    if (v > 65535 || (v == 0 && !zero_ok))
        return false;
    *out = v;
    return true;
}

bool resolve_ipv4(const char *host, in_addr *out)
{
    if (inet_pton(AF_INET, host, out) == 1)
        return true;
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo *found = nullptr;
    if (getaddrinfo(host, nullptr, &hints, &found) != 0 || !found) {
        dp(6, "Yow! Bad host lookup.");
        return false;
    }
    *out = reinterpret_cast<sockaddr_in *>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

// A connect that gives up after a few seconds instead of the system's minutes.
bool connect_bounded(int fd, const sockaddr_in &to)
{
    const int flags = fcntl(fd, F_GETFL);
    fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    int rc = connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    if (rc != 0 && errno == EINPROGRESS) {
        pollfd p{fd, POLLOUT, 0};
        if (poll(&p, 1, kConnectWaitMs) == 1) {
            int err = 0;
            socklen_t len = sizeof err;
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
            rc = err == 0 ? 0 : -1;
        }
    }
    fcntl(fd, F_SETFL, flags);
    return rc == 0;
}

void wake_reader(zel_handle_record *hnd)
{
    const uint8_t zero = 0;
    udp_tx(hnd, &zero, 1);
}

} // namespace

bool zel::parse_host_text(const char *text, HostText *out)
{
    if (!text || !out)
        return false;
    *out = HostText{};
    out->port = ZEL_NET_FRAME_PORT;
    out->local_port = -1;
    const char *colon1 = std::strchr(text, ':');
    const size_t host_len = colon1 ? static_cast<size_t>(colon1 - text) : std::strlen(text);
    if (host_len == 0 || host_len >= sizeof out->host)
        return false;
    std::memcpy(out->host, text, host_len);
    out->host[host_len] = 0;
    if (!colon1)
        return true;
    const char *port_text = colon1 + 1;
    const char *colon2 = std::strchr(port_text, ':');
    const size_t port_len = colon2 ? static_cast<size_t>(colon2 - port_text) : std::strlen(port_text);
    if (!parse_port(port_text, port_len, &out->port, false))
        return false;
    if (!colon2)
        return true;
    uint32_t local = 0;
    if (!parse_port(colon2 + 1, std::strlen(colon2 + 1), &local, true))
        return false;
    out->local_port = static_cast<int32_t>(local);
    return true;
}

bool zel::parse_discovery_reply(const uint8_t *data, size_t len, DiscoveryReply *out)
{
    if (!data || !out || (len != 19 && len != 28))
        return false;
    *out = DiscoveryReply{};
    std::snprintf(out->address, sizeof out->address, "%d.%d.%d.%d", data[0], data[1], data[2], data[3]);
    out->port = get_le16(data + 4);
    out->protocol = data[6];
    if (len == 28) {
        std::memcpy(out->serial, data + 19, 8); // a zero among them ends the text early, as printing it would
        out->serial[8] = 0;
    }
    return true;
}

extern "C" ZEL_API ZEL_STATUS udp_init(ZEL_HANDLE hnd, uint32_t reader_type, const char *host, uint32_t port_interface,
                                       const char *arg)
{
    (void)reader_type;
    (void)arg;
    return zel::udp_setup(hnd, host, port_interface, true);
}

ZEL_STATUS zel::udp_setup(zel_handle_record *hnd, const char *host, uint32_t port_interface, bool one_peer)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (hnd->udp_socket > 0)
        udp_close(hnd);
    hnd->udp_ready = 0;

    // The first set-up of the process takes a fixed source port, later ones a system-assigned one.
    uint32_t source_port = g_first_setup_done.exchange(true) ? 0u : ZEL_NET_FIRST_SOURCE_PORT;
    zel::HostText parsed{};
    if (!zel::parse_host_text(host, &parsed))
        return ZEL_COMMAND_FAILED;
    std::memcpy(hnd->udp_host, parsed.host, sizeof hnd->udp_host);
    hnd->udp_tx_port = parsed.port;
    if (parsed.local_port >= 0)
        source_port = static_cast<uint32_t>(parsed.local_port);
    hnd->comm.use = ZEL_PORT_SOCKET;

    const bool tcp = port_interface == 'T';
    const int fd = socket(AF_INET, (tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return ZEL_COMMAND_FAILED;
    if (fd == 0) { // never keep descriptor 0: 0 means "no socket" in the record
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, 1);
        close(fd);
        if (moved < 0)
            return ZEL_COMMAND_FAILED;
        hnd->udp_socket = moved;
    } else {
        hnd->udp_socket = fd;
    }
    hnd->udp_rx_len = 0;
    udp_set_timeout_ms(hnd, 1000);
    const int on = 1;
    if (!tcp)
        setsockopt(hnd->udp_socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(hnd->udp_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

    std::memset(&hnd->udp_local, 0, sizeof hnd->udp_local);
    hnd->udp_local.sin_family = AF_INET;
    hnd->udp_local.sin_addr.s_addr = htonl(INADDR_ANY);
    hnd->udp_local.sin_port = htons(static_cast<uint16_t>(source_port));
    std::memset(&hnd->udp_remote, 0, sizeof hnd->udp_remote);
    hnd->udp_remote.sin_family = AF_INET;
    hnd->udp_remote.sin_port = htons(static_cast<uint16_t>(parsed.port));
    bool ok = resolve_ipv4(hnd->udp_host, &hnd->udp_remote.sin_addr);

    if (ok && port_interface == 'U') {
        ok = bind(hnd->udp_socket, reinterpret_cast<const sockaddr *>(&hnd->udp_local), sizeof hnd->udp_local) == 0;
        // Connected to the reader: the system drops datagrams from any other address or port.
        if (ok && one_peer)
            ok = connect(hnd->udp_socket, reinterpret_cast<const sockaddr *>(&hnd->udp_remote),
                         sizeof hnd->udp_remote) == 0;
    } else if (ok && tcp)
        ok = connect_bounded(hnd->udp_socket, hnd->udp_remote);
    if (!ok) {
        wake_reader(hnd);
        return ZEL_COMMAND_FAILED;
    }
    hnd->udp_ready = 1;
    std::memset(hnd->try_port, 0, sizeof hnd->try_port);
    std::snprintf(hnd->try_port, sizeof hnd->try_port, "%s", host);
    zel::socket_opened();
    wake_reader(hnd);
    return ZEL_OK;
}

extern "C" ZEL_API int getlocalip(char *out, uint32_t out_len)
{
    if (!out || out_len < INET_ADDRSTRLEN)
        return 1;
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0) {
        dp(6, "Yow! Bad host lookup.");
        return 1;
    }
    in_addr found{};
    bool have = false;
    for (ifaddrs *i = list; i; i = i->ifa_next) {
        if (!i->ifa_addr || i->ifa_addr->sa_family != AF_INET)
            continue;
        const in_addr a = reinterpret_cast<sockaddr_in *>(i->ifa_addr)->sin_addr;
        if ((ntohl(a.s_addr) >> 24) == 127)
            continue;
        found = a;
        have = true;
        break;
    }
    freeifaddrs(list);
    if (!have)
        found.s_addr = htonl(INADDR_LOOPBACK); // a reader on this machine can still be found
    return inet_ntop(AF_INET, &found, out, out_len) ? 0 : 1;
}

extern "C" ZEL_API const char *get_local_net_addr(void)
{
    static char text[INET_ADDRSTRLEN + 4];
    char local[INET_ADDRSTRLEN] = {};
    if (getlocalip(local, sizeof local) != 0)
        std::snprintf(local, sizeof local, "127.0.0.1");
    char *last = std::strrchr(local, '.');
    if (last)
        *last = 0;
    std::snprintf(text, sizeof text, "%s.255", local);
    return text;
}
