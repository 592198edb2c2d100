#include "transport/serial.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "core/internal.h"
#include "zel_status.h"

namespace zel {
namespace {

int64_t now_ms()
{
    return counter_ns() / 1000000;
}

enum class Wait { ready, timeout, gone };

// Waits for the descriptor to be ready until the deadline.
Wait wait_ready(int fd, short events, int64_t deadline)
{
    for (;;) {
        const int64_t left = deadline - now_ms();
        if (left <= 0)
            return Wait::timeout;
        pollfd p{fd, events, 0};
        const int r = poll(&p, 1, static_cast<int>(left));
        if (r > 0) {
            if (p.revents & (POLLERR | POLLNVAL | POLLHUP))
                return Wait::gone; // broken or hung up: what is left was taken already
            return Wait::ready;
        }
        if (r == 0)
            return Wait::timeout;
        if (errno != EINTR)
            return Wait::gone;
    }
}

} // namespace

namespace {
// Moves up to want bytes from the front of the read-ahead buffer.
uint32_t take_ahead(ReadAhead &ahead, uint8_t *out, uint32_t want)
{
    const uint32_t have = *ahead.len <= ahead.cap ? *ahead.len : 0;
    const uint32_t n = have < want ? have : want;
    if (n) {
        std::memcpy(out, ahead.buf, n);
        std::memmove(ahead.buf, ahead.buf + n, have - n);
    }
    *ahead.len = static_cast<uint16_t>(have - n);
    return n;
}
} // namespace

IoResult serial_read(int fd, ReadAhead ahead, uint8_t *buffer, uint32_t count, uint32_t timeout_ms, uint32_t *got)
{
    *got = take_ahead(ahead, buffer, count);
    if (*got == count)
        return IoResult::ok;
    if (fd < 0)
        return IoResult::failed;
    const int64_t deadline = now_ms() + timeout_ms;
    // Read before waiting: within a streamed reply the bytes are usually there already, and a wait on a
    // terminal costs more than a read that finds nothing.
    bool wait = false;
    while (*got < count) {
        Wait w = Wait::ready;
        if (wait) {
            w = wait_ready(fd, POLLIN, deadline);
            if (w == Wait::timeout)
                return IoResult::short_count;
        }
        // A long remainder goes straight to the caller; a short one takes all the line holds into the
        // read-ahead, so that the next small read of an exchange finds its bytes without a system call.
        const uint32_t rest = count - *got;
        const bool direct = rest >= ahead.cap;
        const ssize_t n = direct ? read(fd, buffer + *got, rest) : read(fd, ahead.buf, ahead.cap);
        if (n > 0) {
            if (direct) {
                *got += static_cast<uint32_t>(n);
            } else {
                *ahead.len = static_cast<uint16_t>(n);
                *got += take_ahead(ahead, buffer + *got, rest);
            }
            wait = false;
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK)
            return IoResult::failed;
        if (w == Wait::gone)
            return IoResult::failed; // hung up, and nothing was left to take
        wait = true;                 // the line has nothing more yet
    }
    return IoResult::ok;
}

IoResult serial_read_some(int fd, ReadAhead ahead, uint8_t *buffer, uint32_t max, uint32_t timeout_ms, uint32_t *got)
{
    *got = take_ahead(ahead, buffer, max);
    if (*got || !max)
        return IoResult::ok;
    if (fd < 0)
        return IoResult::failed;
    const int64_t deadline = now_ms() + timeout_ms;
    for (bool wait = false;;) {
        Wait w = Wait::ready;
        if (wait && (w = wait_ready(fd, POLLIN, deadline)) == Wait::timeout)
            return IoResult::short_count;
        const ssize_t n = read(fd, buffer, max);
        if (n > 0) {
            *got = static_cast<uint32_t>(n);
            return IoResult::ok;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if ((n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) || w == Wait::gone)
            return IoResult::failed;
        wait = true;
    }
}

uint32_t serial_unread(ReadAhead ahead, const uint8_t *bytes, uint32_t n)
{
    const uint32_t have = *ahead.len <= ahead.cap ? *ahead.len : 0;
    const uint32_t put = n < ahead.cap - have ? n : ahead.cap - have;
    if (put) {
        std::memmove(ahead.buf + put, ahead.buf, have);
        std::memcpy(ahead.buf, bytes, put);
    }
    *ahead.len = static_cast<uint16_t>(have + put);
    return put;
}

IoResult serial_write(int fd, const uint8_t *buffer, uint32_t count, uint32_t timeout_ms, uint32_t *written, int *error)
{
    *written = 0;
    *error = 0;
    if (fd < 0) {
        *error = EBADF;
        return IoResult::failed;
    }
    const int64_t deadline = now_ms() + (timeout_ms ? timeout_ms : 1000);
    while (*written < count) {
        const ssize_t n = write(fd, buffer + *written, count - *written);
        if (n > 0) {
            *written += static_cast<uint32_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            *error = errno;
            return IoResult::failed;
        }
        const Wait w = wait_ready(fd, POLLOUT, deadline);
        if (w == Wait::timeout)
            return IoResult::short_count;
        if (w == Wait::gone) {
            *error = EIO;
            return IoResult::failed;
        }
    }
    return IoResult::ok;
}

ZEL_STATUS serial_open(zel_handle_record *hnd, const char *path, uint32_t baud, bool reset_disabled)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    if (!path)
        return ZEL_READER_OPENING_ERROR;
    const int fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return ZEL_READER_OPENING_ERROR;
    termios tio{};
    if (tcgetattr(fd, &tio) != 0) {
        close(fd);
        return ZEL_READER_OPENING_ERROR;
    }
    cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CRTSCTS);
    tio.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    if (reset_disabled)
        tio.c_cflag &= ~static_cast<tcflag_t>(HUPCL); // closing must not drop the lines either
    tio.c_cc[VMIN] = 0;
    tio.c_cc[VTIME] = 0;
    if (tcsetattr(fd, TCSANOW, &tio) != 0 || serial_set_baud(fd, baud) != 0) {
        close(fd);
        return ZEL_READER_OPENING_ERROR;
    }
    if (!reset_disabled) {
        // DTR on, as the line settings ask; a port without modem lines (a pseudo-terminal) has none.
        int bits = TIOCM_DTR;
        (void)ioctl(fd, TIOCMBIS, &bits);
    }
    tcflush(fd, TCIOFLUSH);
    set_com_fd(hnd, fd);
    hnd->com_rx_len = 0;
    hnd->comm.use = ZEL_PORT_SERIAL;
    hnd->baud_rate = baud;
    hnd->com_read_timeout_ms = 1500;
    hnd->com_write_timeout_ms = 1500;
    hnd->opened = 1;
    return ZEL_OK;
}

} // namespace zel
