// The network links of a simulated reader: frames over UDP and TCP, the discovery responder, and the reset
// line on a GPIO pin driven by the stand-in pinctrl program.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "core.h"
#include "line.h"
#include "links.h"

namespace zs {

namespace {

constexpr size_t MAX_DATAGRAM = 300;

// A link served by one thread that polls its descriptors and a wake pipe.
struct ThreadLink : Link {
    zsim *sim = nullptr;
    int wake[2] = {-1, -1};
    std::atomic<bool> quit{false};
    std::thread thread;

    ~ThreadLink() override
    {
        if (wake[0] >= 0)
            close(wake[0]);
        if (wake[1] >= 0)
            close(wake[1]);
    }
    bool make_wake() { return pipe2(wake, O_NONBLOCK | O_CLOEXEC) == 0; }
    void stop() override
    {
        if (thread.joinable()) {
            quit.store(true);
            poke();
            thread.join();
        }
        close_all();
    }
    void poke() override
    {
        const uint8_t b = 1;
        if (wake[1] >= 0 && write(wake[1], &b, 1) < 0) {
            // the pipe is full: the thread is awake anyway
        }
    }
    void drain_wake()
    {
        uint8_t buf[64];
        while (read(wake[0], buf, sizeof buf) > 0) {
        }
    }
    // Waits for the descriptor's events or a poke, up to timeout_ms (-1: no limit), and drains the poke.
    // Gives what happened on the descriptor, or -1 when the wait broke and the thread has to end.
    int wait_for(int fd, short events, int timeout_ms)
    {
        pollfd p[2] = {{wake[0], POLLIN, 0}, {fd, events, 0}};
        if (poll(p, 2, timeout_ms) < 0)
            return errno == EINTR ? 0 : -1;
        if (p[0].revents & POLLIN)
            drain_wake();
        return p[1].revents;
    }
    virtual void close_all() = 0;
};

bool make_address(const char *host, uint16_t port, sockaddr_in &a)
{
    std::memset(&a, 0, sizeof a);
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    return inet_pton(AF_INET, host && *host ? host : "127.0.0.1", &a.sin_addr) == 1;
}

uint16_t bound_port_of(int fd)
{
    sockaddr_in a{};
    socklen_t len = sizeof a;
    if (getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) != 0)
        return 0;
    return ntohs(a.sin_port);
}

int bound_socket(const char *host, uint16_t port, int type)
{
    sockaddr_in a;
    if (!make_address(host, port, a))
        return -1;
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (type == SOCK_DGRAM)
        setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &one, sizeof one);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Frames over UDP. The reader answers whoever sent it the last datagram.
struct UdpLink : ThreadLink {
    int fd = -1;
    sockaddr_in peer{};
    bool have_peer = false;

    void close_all() override
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    void run()
    {
        std::vector<uint8_t> out;
        uint8_t buf[2048];
        while (!quit.load()) {
            const int ev = wait_for(fd, POLLIN, link_wait_ms(sim, core));
            if (ev < 0)
                break;
            if (ev & POLLIN) {
                sockaddr_in from{};
                socklen_t len = sizeof from;
                const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
                if (n >= 0) {
                    peer = from;
                    have_peer = true;
                    line_input(sim, core, buf, static_cast<size_t>(n), false);
                }
            }
            out.clear();
            if (link_due(sim, core, out)) {
                close_all(); // the socket is gone: nothing more is heard or answered
                return;
            }
            line_output(sim, out.size(), false);
            for (size_t pos = 0; have_peer && pos < out.size(); pos += MAX_DATAGRAM) {
                const size_t n = out.size() - pos < MAX_DATAGRAM ? out.size() - pos : MAX_DATAGRAM;
                sendto(fd, out.data() + pos, n, 0, reinterpret_cast<sockaddr *>(&peer), sizeof peer);
            }
        }
    }
};

// Frames over TCP: one host at a time. Each connection starts a fresh receiver, which waits for the host's
// wake byte.
struct TcpLink : ThreadLink {
    int listener = -1;
    int conn = -1;

    void close_all() override
    {
        if (conn >= 0)
            close(conn);
        if (listener >= 0)
            close(listener);
        conn = listener = -1;
    }

    void drop_connection()
    {
        if (conn >= 0)
            close(conn);
        conn = -1;
    }

    void run()
    {
        std::vector<uint8_t> out;
        uint8_t buf[4096];
        while (!quit.load()) {
            const short events = static_cast<short>(POLLIN | (conn >= 0 && !out.empty() ? POLLOUT : 0));
            const int ev = wait_for(conn >= 0 ? conn : listener, events, conn >= 0 ? link_wait_ms(sim, core) : -1);
            if (ev < 0)
                break;
            if (conn < 0) {
                if (ev & POLLIN) {
                    conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
                    if (conn >= 0) {
                        const int one = 1;
                        setsockopt(conn, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                        std::lock_guard<std::mutex> lock(sim->mu);
                        engine_reset(core.engine);
                        core.pending.clear();
                        core.interim = false;
                        core.unplugged = false;
                        core.stream_started = false;
                        out.clear();
                    }
                }
                continue;
            }
            if (ev & (POLLIN | POLLHUP | POLLERR)) {
                const ssize_t n = read(conn, buf, sizeof buf);
                if (n > 0) {
                    line_input(sim, core, buf, static_cast<size_t>(n), false);
                } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                    drop_connection(); // the host went away; wait for the next one
                    continue;
                }
            }
            if (link_due(sim, core, out)) {
                drop_connection(); // unplugged: the host sees the connection end
                std::lock_guard<std::mutex> lock(sim->mu);
                core.unplugged = false;
                continue;
            }
            line_output(sim, out.size(), false);
            while (!out.empty()) {
                const ssize_t n = send(conn, out.data(), out.size(), MSG_NOSIGNAL);
                if (n <= 0)
                    break;
                out.erase(out.begin(), out.begin() + n);
            }
        }
    }
};

// The discovery responder. It answers only the 2-byte request 41 00, as the reader's own does.
struct DiscoveryLink : ThreadLink {
    int fd = -1;
    bool short_form = false;

    void close_all() override
    {
        if (fd >= 0)
            close(fd);
        fd = -1;
    }

    void run()
    {
        uint8_t buf[1024];
        while (!quit.load()) {
            const int ev = wait_for(fd, POLLIN, -1);
            if (ev < 0)
                break;
            if (!(ev & POLLIN))
                continue;
            sockaddr_in from{};
            socklen_t len = sizeof from;
            const ssize_t n = recvfrom(fd, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &len);
            if (n != 2 || buf[0] != 0x41 || buf[1] != 0x00)
                continue;
            uint8_t reply[28] = {};
            {
                std::lock_guard<std::mutex> lock(sim->mu);
                const DiscoveryTarget t = sim->discovery_target;
                std::memcpy(reply, t.address, 4);
                reply[4] = static_cast<uint8_t>(t.port);
                reply[5] = static_cast<uint8_t>(t.port >> 8);
                reply[6] = t.protocol ? t.protocol : 'U';
                const std::string sd = sim->reader.serial_desc();
                std::memcpy(reply + 19, sd.data(), 8);
            }
            if (sim->log.load())
                std::fprintf(stderr, "zelsim discovery request answered\n");
            sendto(fd, reply, short_form ? 19 : 28, 0, reinterpret_cast<sockaddr *>(&from), sizeof from);
        }
    }
};

// The reset line on a GPIO pin: the stand-in pinctrl sends "set PIN op dl" or "set PIN op dh". Level dl lets
// the reader run, dh holds it; only the edge into the running level restarts it.
struct GpioLink : ThreadLink {
    int fd = -1;
    std::string path;
    uint32_t pin = 23;
    bool running = true;

    void close_all() override
    {
        if (fd >= 0) {
            close(fd);
            unlink(path.c_str());
        }
        fd = -1;
    }

    void run()
    {
        char buf[256];
        while (!quit.load()) {
            const int ev = wait_for(fd, POLLIN, -1);
            if (ev < 0)
                break;
            if (!(ev & POLLIN))
                continue;
            const ssize_t n = recv(fd, buf, sizeof buf - 1, 0);
            if (n <= 0)
                continue;
            buf[n] = 0;
            unsigned got_pin = 0;
            char level[8] = {};
            if (std::sscanf(buf, "set %u op %7s", &got_pin, level) != 2 || got_pin != pin)
                continue;
            const bool run_level = std::strcmp(level, "dl") == 0;
            if (!run_level && std::strcmp(level, "dh") != 0)
                continue;
            if (run_level && !running)
                zsim_reset(sim);
            running = run_level;
        }
    }
};

template <typename L> int start(zsim *sim, std::unique_ptr<L> link)
{
    if (!link->make_wake())
        return -1;
    link->sim = sim;
    L *raw = link.get();
    raw->thread = std::thread([raw] { raw->run(); });
    add_link(sim, std::move(link));
    return 0;
}

// Starts the link on its bound socket fd (closed when the start fails); the port it serves, or -1.
template <typename L> int launch(zsim *sim, std::unique_ptr<L> link, int fd, uint16_t *bound)
{
    const uint16_t p = bound_port_of(fd);
    if (start(sim, std::move(link)) != 0) {
        close(fd);
        return -1;
    }
    if (bound)
        *bound = p;
    return p;
}

void note_frame_link(zsim *sim, const char *host, uint16_t port, uint8_t protocol)
{
    std::lock_guard<std::mutex> lock(sim->mu);
    if (sim->discovery_target.protocol)
        return; // the first frame link is the one announced
    sockaddr_in a;
    make_address(host, port, a);
    if (a.sin_addr.s_addr == htonl(INADDR_ANY))
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::memcpy(sim->discovery_target.address, &a.sin_addr.s_addr, 4);
    sim->discovery_target.port = port;
    sim->discovery_target.protocol = protocol;
}

} // namespace

int serve_udp(zsim *sim, const char *host, uint16_t port, uint16_t *bound)
{
    const int fd = bound_socket(host, port, SOCK_DGRAM);
    if (fd < 0)
        return -1;
    auto link = std::make_unique<UdpLink>();
    link->fd = fd;
    link->core.datagram = true;
    const int p = launch(sim, std::move(link), fd, bound);
    if (p < 0)
        return -1;
    note_frame_link(sim, host, static_cast<uint16_t>(p), 'U');
    return 0;
}

int serve_tcp(zsim *sim, const char *host, uint16_t port, uint16_t *bound)
{
    const int fd = bound_socket(host, port, SOCK_STREAM);
    if (fd < 0)
        return -1;
    if (listen(fd, 4) != 0) {
        close(fd);
        return -1;
    }
    auto link = std::make_unique<TcpLink>();
    link->listener = fd;
    link->core.stream_started = false;
    const int p = launch(sim, std::move(link), fd, bound);
    if (p < 0)
        return -1;
    note_frame_link(sim, host, static_cast<uint16_t>(p), 'T');
    return 0;
}

int serve_discovery(zsim *sim, const char *host, uint16_t port, bool short_form, uint16_t *bound)
{
    const int fd = bound_socket(host, port, SOCK_DGRAM);
    if (fd < 0)
        return -1;
    auto link = std::make_unique<DiscoveryLink>();
    link->fd = fd;
    link->short_form = short_form;
    return launch(sim, std::move(link), fd, bound) < 0 ? -1 : 0;
}

int serve_gpio(zsim *sim, const char *path, uint32_t pin)
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (!path || std::strlen(path) >= sizeof a.sun_path)
        return -1;
    std::strcpy(a.sun_path, path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    unlink(path);
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    auto link = std::make_unique<GpioLink>();
    link->fd = fd;
    link->path = path;
    link->pin = pin;
    link->core.unplugged = true; // it carries no frames
    if (start(sim, std::move(link)) != 0) {
        close(fd);
        unlink(path);
        return -1;
    }
    return 0;
}

} // namespace zs

extern "C" {

int zsim_serve_udp(zsim *sim, const char *host, uint16_t port, uint16_t *bound_port)
{
    if (!sim)
        return -1;
    try {
        return zs::serve_udp(sim, host, port, bound_port);
    } catch (...) {
        return -1;
    }
}

int zsim_serve_tcp(zsim *sim, const char *host, uint16_t port, uint16_t *bound_port)
{
    if (!sim)
        return -1;
    try {
        return zs::serve_tcp(sim, host, port, bound_port);
    } catch (...) {
        return -1;
    }
}

int zsim_serve_discovery(zsim *sim, const char *host, uint16_t port, int short_form, uint16_t *bound_port)
{
    if (!sim)
        return -1;
    try {
        return zs::serve_discovery(sim, host, port, short_form != 0, bound_port);
    } catch (...) {
        return -1;
    }
}

int zsim_serve_gpio(zsim *sim, const char *socket_path, uint32_t pin)
{
    if (!sim)
        return -1;
    try {
        return zs::serve_gpio(sim, socket_path, pin);
    } catch (...) {
        return -1;
    }
}

} // extern "C"
