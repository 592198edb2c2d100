// Programming a 256 KiB image over the simulated link (the boot loader on a pseudo-terminal): the library's
// ProgReader run against a raw loop that writes the same frames and packets and reads the same acknowledgements
// on the same link, interleaved in one run. The counter library_over_raw is the raw loop's time over the
// library's (the target: at least 0.9).
#include <cstring>
#include <vector>

#include "bench_link.h"

namespace {

constexpr uint32_t kImageLen = 256 * 1024;
constexpr uint32_t kPackets = kImageLen / 128;

std::vector<uint8_t> test_image()
{
    std::vector<uint8_t> img(kImageLen);
    for (size_t i = 0; i < img.size(); ++i)
        img[i] = static_cast<uint8_t>(i * 7 + (i >> 9));
    return img;
}

void frame(uint8_t *f, uint8_t ext_len, uint8_t p0, uint8_t p1)
{
    const uint8_t b[6] = {0x55, 0xF2, 0xAA, ext_len, p0, p1};
    std::memcpy(f, b, 6);
    f[6] = zelbench::frame_checksum(f, 6);
}

// The raw loop: the start call, then every packet with its acknowledge and reply.
bool raw_run(int fd, const std::vector<uint8_t> &img)
{
    uint8_t f[7], r[9], ext[129];
    frame(f, 0, 0, 0);
    if (write(fd, f, 7) != 7 || !zelbench::read_exact(fd, r, 7))
        return false;
    for (uint32_t p = 0; p < kPackets; ++p) {
        frame(f, 0x81, static_cast<uint8_t>(p), static_cast<uint8_t>(p >> 8));
        std::memcpy(ext, img.data() + 128 * p, 128);
        ext[128] = zelbench::frame_checksum(ext, 128);
        if (write(fd, f, 7) != 7 || !zelbench::read_exact(fd, r, 7) || write(fd, ext, 129) != 129 ||
            !zelbench::read_exact(fd, r, 7))
            return false;
        if (r[3] == 2 && !zelbench::read_exact(fd, r + 7, 2))
            return false;
    }
    return r[7] == 0xC0;
}

bool library_run(ZEL_HANDLE h, const std::vector<uint8_t> &img)
{
    uint8_t crc = 0;
    if (ProgReaderHnd(h, nullptr, 0, 1, &crc) != ZEL_OK)
        return false;
    for (uint32_t p = 0; p < kPackets; ++p)
        if (ProgReaderHnd(h, img.data() + 128 * p, static_cast<uint16_t>(p), 0, &crc) != ZEL_OK)
            return false;
    return crc == 1;
}

void BM_ProgramImageOverRawInterleaved(benchmark::State &state)
{
    zelbench::SimLink link;
    if (!link.open) {
        state.SkipWithError("no link");
        return;
    }
    zsim_boot_loader(link.sim, kImageLen, 1, 0, 0);
    if (BootReaderHnd(&link.rec) != ZEL_OK) {
        state.SkipWithError("no boot loader");
        return;
    }
    const std::vector<uint8_t> img = test_image();
    zelbench::interleave(
        state, "images", [&] { return raw_run(link.fd(), img); }, [&] { return library_run(&link.rec, img); },
        link.sim);
}

} // namespace

BENCHMARK(BM_ProgramImageOverRawInterleaved)->Iterations(3)->UseRealTime()->Unit(benchmark::kMillisecond);
