// A 4,096-byte READ BINARY through APDUTransceive against the simulated ISO 14443-4 card, against a raw loop
// that writes the same frames and reads the same reply bytes on the same link, interleaved in one run.
#include <benchmark/benchmark.h>

#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "bench_link.h"

namespace {

constexpr uint32_t kRead = 4096;

std::vector<uint8_t> with_checksum(std::vector<uint8_t> b)
{
    b.push_back(zelbench::frame_checksum(b.data(), b.size()));
    return b;
}

struct Card {
    zsim *sim = nullptr;
    char path[256] = {};
    zel_handle_record rec;
    bool ok = false;
    Card()
    {
        sim = zsim_new();
        const zsim_card id = {{0x04, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, 7, 0x20, 0x0344, 0x40};
        if (zsim_card_add_model(sim, &id, "iso14443_4", nullptr) != 0 || zsim_serve_pty(sim, path, sizeof path) != 0)
            std::abort();
        zel_handle_init(&rec);
        if (zel::serial_open(&rec, path, 1000000, true) != ZEL_OK)
            return;
        const uint8_t aid[9] = {0xA0, 0x00, 0x00, 0x07, 0x47, 0x54, 0x45, 0x53, 0x54};
        uint8_t fci[64];
        uint32_t ne = sizeof fci;
        uint16_t sw = 0;
        ok = SetISO14443_4_ModeM(&rec) == ZEL_OK &&
             APDUTransceiveM(&rec, 0x00, 0xA4, 0x04, 0x00, aid, 9, fci, &ne, 1, &sw) == ZEL_OK && sw == 0x0090;
    }
    ~Card()
    {
        PortClose(&rec);
        zsim_free(sim);
    }
};

// READ BINARY with an extended Le of 4,096: the frame, its acknowledge, the piece, and 17 reply frames
// (16 of 254 data bytes and one of 34) with their EXTs.
struct RawExchange {
    std::vector<uint8_t> frame = with_checksum({0x55, 0x94, 0xAA, 0x08, 0x00, 0x00});
    std::vector<uint8_t> piece = with_checksum({0x00, 0xB0, 0x00, 0x00, 0x00, 0x10, 0x00});
    size_t reply_bytes = 0;
    std::vector<uint8_t> reply;
    RawExchange()
    {
        const size_t data = kRead + 2;
        const size_t frames = (data + 253) / 254;
        reply_bytes = frames * 8 + data;
        reply.resize(reply_bytes);
    }
    bool run(int fd)
    {
        uint8_t ack[7];
        return write(fd, frame.data(), 7) == 7 && zelbench::read_exact(fd, ack, 7) &&
               write(fd, piece.data(), piece.size()) == static_cast<ssize_t>(piece.size()) &&
               zelbench::read_exact(fd, reply.data(), reply_bytes);
    }
};

void BM_ApduReadBinaryOverRawInterleaved(benchmark::State &state)
{
    Card card;
    if (!card.ok) {
        state.SkipWithError("the simulated card did not answer");
        return;
    }
    const int fd = zel::com_fd(&card.rec);
    RawExchange raw;
    std::vector<uint8_t> out(kRead);
    zelbench::interleave(
        state, "reads", [&] { return raw.run(fd); },
        [&] {
            uint32_t ne = kRead;
            uint16_t sw = 0;
            return APDUTransceiveM(&card.rec, 0x00, 0xB0, 0x00, 0x00, nullptr, 0, out.data(), &ne, 1, &sw) == ZEL_OK &&
                   ne == kRead && sw == 0x0090;
        },
        card.sim);
}

BENCHMARK(BM_ApduReadBinaryOverRawInterleaved)->MinTime(2.0)->UseRealTime()->Repetitions(3);

} // namespace
