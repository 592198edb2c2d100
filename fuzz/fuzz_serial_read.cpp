// The serial line's read-ahead against arbitrary line bytes and an arbitrary order of reads: bytes come
// in pieces of the input's sizes into a pipe that stands in for the terminal, and are taken by counted
// reads, reads of what the line holds, and bytes put back in front, both on the bare functions (with a
// read-ahead buffer of the input's size, allocated to exactly that) and through a serial record's stream
// calls. Every read must give the line's bytes in order, never more than asked, and never write past the
// caller's buffer or the read-ahead. Time-outs are zero, so that nothing waits.
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <vector>

#include "core/internal.h"
#include "transport/port.h"
#include "transport/serial.h"
#include "zel_handle.h"

using namespace zel;

namespace {

struct Pipe {
    int fds[2] = {-1, -1};
    Pipe()
    {
        if (pipe2(fds, O_NONBLOCK | O_CLOEXEC) != 0)
            std::abort();
    }
    ~Pipe()
    {
        close(fds[0]);
        close(fds[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;
};

// A read gave got bytes of out (n asked): never more than asked or than waited, and the next ones in order.
void take(std::deque<uint8_t> &expected, const std::vector<uint8_t> &out, uint32_t n, uint32_t got)
{
    if (got > n || got > expected.size())
        std::abort();
    for (uint32_t i = 0; i < got; ++i, expected.pop_front())
        if (out[i] != expected.front())
            std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 20000)
        return 0;
    Pipe line;
    // The model: what the line and the read-ahead hold together, in order.
    std::deque<uint8_t> expected;
    const bool through_record = data[0] & 1;
    const uint32_t cap = 1 + data[1] % 64;
    std::vector<uint8_t> ahead_storage(cap);
    uint16_t ahead_len = 0;
    const ReadAhead ahead{ahead_storage.data(), cap, &ahead_len};
    zel_handle_record rec;
    zel_handle_init(&rec);
    rec.comm.use = ZEL_PORT_SERIAL;
    set_com_fd(&rec, line.fds[0]);
    rec.com_read_timeout_ms = 0;

    size_t at = 2;
    while (at + 1 < size) {
        const uint8_t op = data[at++];
        const uint32_t n = 1 + data[at++] % 200;
        switch (op % 4) {
        case 0: {
            // Bytes arrive on the line.
            const size_t k = n < size - at ? n : size - at;
            const ssize_t w = k ? write(line.fds[1], data + at, k) : 0;
            if (w > 0)
                expected.insert(expected.end(), data + at, data + at + w);
            at += k;
            break;
        }
        case 1: {
            std::vector<uint8_t> out(n);
            uint32_t got = 0;
            if (through_record)
                port_read_raw(&rec, out.data(), n, &got);
            else
                serial_read(line.fds[0], ahead, out.data(), n, 0, &got);
            take(expected, out, n, got);
            break;
        }
        case 2: {
            std::vector<uint8_t> out(n);
            uint32_t got = 0;
            if (through_record)
                got = port_read_some(&rec, out.data(), n);
            else
                serial_read_some(line.fds[0], ahead, out.data(), n, 0, &got);
            take(expected, out, n, got);
            break;
        }
        default: {
            // Bytes put back in front of what is waiting.
            const size_t k = n < size - at ? n : size - at;
            const uint32_t put = through_record ? port_unread(&rec, data + at, static_cast<uint32_t>(k))
                                                : serial_unread(ahead, data + at, static_cast<uint32_t>(k));
            if (put > k)
                std::abort();
            expected.insert(expected.begin(), data + at, data + at + put);
            at += k;
            break;
        }
        }
        if (ahead_len > cap || rec.com_rx_len > sizeof rec.com_rx_buf)
            std::abort();
    }
    return 0;
}
