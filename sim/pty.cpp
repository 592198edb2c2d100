// The serial link: a pseudo-terminal in raw mode, served by a poll-driven thread.
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "core.h"
#include "line.h"
#include "links.h"

namespace zs {

namespace {

struct PtyLink : Link {
    zsim *sim = nullptr;
    int master = -1;
    int slave = -1; // kept open so that the host closing its side does not hang the line up
    int wake[2] = {-1, -1};
    std::atomic<bool> quit{false};
    std::thread thread;

    ~PtyLink() override
    {
        stop();
        if (wake[0] >= 0)
            close(wake[0]);
        if (wake[1] >= 0)
            close(wake[1]);
    }

    void stop() override
    {
        if (thread.joinable()) {
            quit.store(true);
            poke();
            thread.join();
        }
        close_line();
    }

    void poke() override
    {
        const uint8_t b = 1;
        if (wake[1] >= 0 && write(wake[1], &b, 1) < 0) {
            // the pipe is full: the thread is awake anyway
        }
    }

    void close_line()
    {
        if (master >= 0)
            close(master);
        if (slave >= 0)
            close(slave);
        master = slave = -1;
    }

    void run()
    {
        std::vector<uint8_t> out;
        uint8_t buf[4096];
        while (!quit.load()) {
            pollfd p[2] = {{wake[0], POLLIN, 0}, {master, static_cast<short>(POLLIN | (out.empty() ? 0 : POLLOUT)), 0}};
            const int timeout = link_wait_ms(sim, core);
            const int r = poll(p, 2, timeout);
            if (r < 0 && errno != EINTR)
                break;
            if (p[0].revents & POLLIN) {
                while (read(wake[0], buf, sizeof buf) > 0) {
                }
            }
            if (p[1].revents & POLLIN) {
                const ssize_t n = read(master, buf, sizeof buf);
                if (n > 0)
                    line_input(sim, core, buf, static_cast<size_t>(n), true);
            }
            if (link_due(sim, core, out)) {
                close_line(); // unplugged: the host sees the line hang up
                return;
            }
            line_output(sim, out.size(), true);
            while (!out.empty()) {
                const ssize_t n = write(master, out.data(), out.size());
                if (n <= 0)
                    break;
                out.erase(out.begin(), out.begin() + n);
            }
        }
    }
};

} // namespace

int serve_pty(zsim *sim, char *path, size_t path_len)
{
    auto link = std::make_unique<PtyLink>();
    link->sim = sim;
    link->master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (link->master < 0 || grantpt(link->master) != 0 || unlockpt(link->master) != 0)
        return -1;
    char name[128];
    if (ptsname_r(link->master, name, sizeof name) != 0)
        return -1;
    link->slave = open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (link->slave < 0)
        return -1;
    termios t;
    if (tcgetattr(link->slave, &t) != 0)
        return -1;
    cfmakeraw(&t);
    cfsetispeed(&t, B115200);
    cfsetospeed(&t, B115200);
    if (tcsetattr(link->slave, TCSANOW, &t) != 0)
        return -1;
    if (pipe2(link->wake, O_NONBLOCK | O_CLOEXEC) != 0)
        return -1;
    if (path && path_len) {
        if (std::strlen(name) >= path_len)
            return -1;
        std::strcpy(path, name);
    }
    PtyLink *raw = link.get();
    raw->thread = std::thread([raw] { raw->run(); });
    add_link(sim, std::move(link));
    return 0;
}

} // namespace zs
