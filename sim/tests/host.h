// A bare host for the tests: opens the simulator's pseudo-terminal and moves raw bytes.
#ifndef ZELSIM_TEST_HOST_H
#define ZELSIM_TEST_HOST_H

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <vector>

#include "../../tests/frame_helpers.h"

struct RawHost {
    int fd = -1;
    explicit RawHost(const char *path)
    {
        fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        if (fd >= 0) {
            termios t;
            tcgetattr(fd, &t);
            cfmakeraw(&t);
            tcsetattr(fd, TCSANOW, &t);
        }
    }
    ~RawHost()
    {
        if (fd >= 0)
            close(fd);
    }
    bool send(const std::vector<uint8_t> &b) { return write(fd, b.data(), b.size()) == static_cast<ssize_t>(b.size()); }
    // Reads until n bytes came or timeout_ms passed without them.
    std::vector<uint8_t> recv(size_t n, int timeout_ms = 300)
    {
        std::vector<uint8_t> out;
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
        while (out.size() < n) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
            if (left <= 0)
                break;
            pollfd p{fd, POLLIN, 0};
            const int r = poll(&p, 1, static_cast<int>(left));
            if (r <= 0)
                break;
            if (p.revents & (POLLHUP | POLLERR) && !(p.revents & POLLIN)) {
                hung_up = true;
                break;
            }
            uint8_t buf[512];
            const ssize_t got = read(fd, buf, n - out.size() < sizeof buf ? n - out.size() : sizeof buf);
            if (got <= 0) {
                hung_up = got == 0 || errno == EIO;
                break;
            }
            out.insert(out.end(), buf, buf + got);
        }
        return out;
    }
    std::vector<uint8_t> exchange(const std::vector<uint8_t> &req, size_t n, int timeout_ms = 300)
    {
        tcflush(fd, TCIOFLUSH);
        send(req);
        return recv(n, timeout_ms);
    }
    bool hung_up = false;
};

// A command frame with its checksum.
inline std::vector<uint8_t> cmd_frame(uint8_t cmd, uint8_t ext_len = 0, uint8_t p0 = 0, uint8_t p1 = 0)
{
    return zeltest::cmd(cmd, ext_len, p0, p1);
}

// Data followed by its checksum, as an EXT block.
inline std::vector<uint8_t> ext_block(const std::vector<uint8_t> &d)
{
    return zeltest::ext(d);
}

#endif
