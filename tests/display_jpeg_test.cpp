// JPEG pictures for the display: files written here with the JPEG library's encoder (baseline, progressive,
// arithmetic-coded, grey, colour, CMYK), decoded by the display's picture path and compared with the pattern
// they were made from; damaged and unusual files are refused with the picture load error, quietly and
// without ending the process.
#include <gtest/gtest.h>

#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

#include <jpeglib.h>

#include "display/display_internal.h"
#include "zel_status.h"

namespace disp = zel::disp;

namespace {

using Bytes = std::vector<uint8_t>;

const std::string kCorpus = std::string(ZEL_FIXTURES_DIR) + "/../../fuzz/corpus/fuzz_display_picture/";
const std::string kDir = std::string(ZEL_FIXTURES_DIR) + "/display/";

bool pattern(int x, int y)
{
    return (x + 2 * y) % 7 < 3;
}

bool dark(const uint8_t *strips, int x, int y)
{
    const uint8_t byte = strips[(x / 32) * 256 + 4 * y + (x % 32) / 8];
    return (byte >> (7 - x % 8)) & 1;
}

// Colours whose brightness and channel sum disagree: green is dark by its sum (330) but bright by its luma
// (163), magenta the other way round (sum 530, luma 121). Only a decoder that hands over RGB gets both right.
constexpr uint8_t kDarkColour[3] = {40, 250, 40};
constexpr uint8_t kLightColour[3] = {250, 30, 250};

enum class Kind { Grey, Rgb, Cmyk, Ycck };

struct Options {
    Kind kind = Kind::Rgb;
    bool progressive = false;
    bool arithmetic = false;
    bool subsampled = false; // 2 by 2 chroma
    int restart_rows = 0;
};

struct EncodeJump {
    jpeg_error_mgr mgr;
    std::jmp_buf jump;
};

[[noreturn]] void encode_failed(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<EncodeJump *>(info->err)->jump, 1);
}

// The samples of the test pattern, dark where pattern() says so, in the layout of the kind.
std::vector<uint8_t> samples(int w, int h, Kind kind)
{
    const int comps = kind == Kind::Grey ? 1 : kind == Kind::Rgb ? 3 : 4;
    std::vector<uint8_t> out(static_cast<size_t>(w) * h * comps);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            uint8_t *p = out.data() + (static_cast<size_t>(y) * w + x) * comps;
            const bool d = pattern(x, y);
            if (kind == Kind::Grey)
                p[0] = d ? 0 : 255;
            else if (kind == Kind::Rgb)
                std::memcpy(p, d ? kDarkColour : kLightColour, 3);
            else
                std::memset(p, d ? 255 : 0, 4); // ink
        }
    return out;
}

// Plain C state only between setjmp and a jump, as in the decoder.
bool encode_raw(int w, int h, const Options &o, const uint8_t *pixels, unsigned char **out, unsigned long *out_len)
{
    jpeg_compress_struct info{};
    EncodeJump err{};
    info.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = encode_failed;
    if (setjmp(err.jump)) {
        jpeg_destroy_compress(&info);
        return false;
    }
    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, out, out_len);
    info.image_width = static_cast<JDIMENSION>(w);
    info.image_height = static_cast<JDIMENSION>(h);
    switch (o.kind) {
    case Kind::Grey: info.input_components = 1, info.in_color_space = JCS_GRAYSCALE; break;
    case Kind::Rgb: info.input_components = 3, info.in_color_space = JCS_RGB; break;
    case Kind::Cmyk:
    case Kind::Ycck: info.input_components = 4, info.in_color_space = JCS_CMYK; break;
    }
    jpeg_set_defaults(&info);
    if (o.kind == Kind::Ycck)
        jpeg_set_colorspace(&info, JCS_YCCK);
    jpeg_set_quality(&info, 100, TRUE);
    for (int c = 0; c < info.num_components; ++c)
        info.comp_info[c].h_samp_factor = info.comp_info[c].v_samp_factor = 1;
    if (o.subsampled && info.num_components >= 3)
        info.comp_info[0].h_samp_factor = info.comp_info[0].v_samp_factor = 2;
    info.arith_code = o.arithmetic ? TRUE : FALSE;
    info.restart_in_rows = o.restart_rows;
    if (o.progressive)
        jpeg_simple_progression(&info);
    jpeg_start_compress(&info, TRUE);
    const size_t stride = static_cast<size_t>(w) * static_cast<size_t>(info.input_components);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<uint8_t *>(pixels) + info.next_scanline * stride;
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return true;
}

Bytes encode(int w, int h, const Options &o = {})
{
    const std::vector<uint8_t> pixels = samples(w, h, o.kind);
    unsigned char *out = nullptr;
    unsigned long out_len = 0;
    Bytes file;
    if (encode_raw(w, h, o, pixels.data(), &out, &out_len))
        file.assign(out, out + out_len);
    std::free(out);
    return file;
}

// Pixels of the picture that disagree with the pattern (inside w by h) or are dark (outside it).
int wrong_pixels(const uint8_t *strips, int w, int h)
{
    int wrong = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 128; ++x)
            wrong += dark(strips, x, y) != (x < w && y < h && pattern(x, y));
    return wrong;
}

ZEL_STATUS decode(const Bytes &file, uint8_t strips[1024])
{
    return disp::picture_from_memory(file.data(), file.size(), strips);
}

Bytes read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// The offset of the first marker 0xFF code at or after from, or the file's size.
size_t find_marker(const Bytes &file, uint8_t code, size_t from = 0)
{
    for (size_t i = from; i + 1 < file.size(); ++i)
        if (file[i] == 0xFF && file[i + 1] == code)
            return i;
    return file.size();
}

} // namespace

TEST(DisplayJpeg, EveryCodingOfGreyAndColourFollowsTheThresholds)
{
    struct Case {
        const char *what;
        int w, h;
        Options o;
    } cases[] = {
        {"grey baseline", 128, 64, {Kind::Grey}},
        {"colour baseline", 128, 64, {Kind::Rgb}},
        {"grey progressive", 128, 64, {Kind::Grey, true}},
        {"colour progressive", 128, 64, {Kind::Rgb, true}},
        {"colour arithmetic", 128, 64, {Kind::Rgb, false, true}},
        {"grey progressive arithmetic", 128, 64, {Kind::Grey, true, true}},
        {"restart markers", 128, 64, {Kind::Rgb, false, false, false, 1}},
        {"odd size in the corner", 37, 21, {Kind::Rgb}},
        {"one pixel", 1, 1, {Kind::Grey}},
    };
    for (const Case &c : cases) {
        const Bytes file = encode(c.w, c.h, c.o);
        ASSERT_FALSE(file.empty()) << c.what;
        uint8_t strips[1024];
        std::memset(strips, 0xAA, sizeof strips);
        ASSERT_EQ(decode(file, strips), ZEL_OK) << c.what;
        EXPECT_EQ(wrong_pixels(strips, c.w, c.h), 0) << c.what;
    }
}

TEST(DisplayJpeg, ColourComesOutAsRgbOfTheFileNotItsBrightness)
{
    // Squares of 16 by 16 pixels, one colour each, with the chroma halved: away from the squares' edges
    // (where the decoder's upsampling blends neighbours) the decoded samples are close to the colours
    // themselves, and the threshold follows the channel sum.
    constexpr int kW = 64, kH = 32;
    auto colour = [](int x, int y) { return ((x / 16 + y / 16) % 2) ? kDarkColour : kLightColour; };
    auto inside = [](int x, int y) { return x % 16 >= 2 && x % 16 < 14 && y % 16 >= 2 && y % 16 < 14; };
    std::vector<uint8_t> pixels(kW * kH * 3);
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x)
            std::memcpy(&pixels[(y * kW + x) * 3], colour(x, y), 3);
    Options o;
    o.subsampled = true;
    unsigned char *out = nullptr;
    unsigned long out_len = 0;
    ASSERT_TRUE(encode_raw(kW, kH, o, pixels.data(), &out, &out_len));
    const Bytes file(out, out + out_len);
    std::free(out);
    std::vector<uint8_t> decoded(disp::kPixelsMax);
    int w = 0, h = 0, channels = 0;
    ASSERT_EQ(disp::jpeg_pixels(file.data(), file.size(), decoded.data(), &w, &h, &channels), ZEL_OK);
    ASSERT_EQ(w, kW);
    ASSERT_EQ(h, kH);
    ASSERT_EQ(channels, 3);
    uint8_t strips[1024];
    ASSERT_EQ(decode(file, strips), ZEL_OK);
    int far = 0, wrong = 0;
    for (int y = 0; y < kH; ++y)
        for (int x = 0; x < kW; ++x) {
            if (!inside(x, y))
                continue;
            for (int c = 0; c < 3; ++c)
                far += std::abs(decoded[(y * kW + x) * 3 + c] - colour(x, y)[c]) > 12;
            wrong += dark(strips, x, y) != (colour(x, y) == kDarkColour);
        }
    EXPECT_EQ(far, 0);
    EXPECT_EQ(wrong, 0);
}

TEST(DisplayJpeg, SizesAreCheckedFromTheHeaderBeforeDecoding)
{
    uint8_t strips[1024];
    EXPECT_EQ(decode(encode(128, 64), strips), ZEL_OK);
    EXPECT_EQ(decode(encode(129, 64), strips), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
    EXPECT_EQ(decode(encode(128, 65), strips), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
    // A header that claims 16,383 by 16,383 in front of the data of 16 by 16: refused from the header, so
    // the missing data is never looked for.
    Bytes liar = encode(16, 16);
    const size_t sof = find_marker(liar, 0xC0);
    ASSERT_LT(sof + 9, liar.size());
    liar[sof + 5] = liar[sof + 7] = 0x3F;
    liar[sof + 6] = liar[sof + 8] = 0xFF;
    EXPECT_EQ(decode(liar, strips), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
    // And a width of zero is no picture at all.
    Bytes empty = encode(16, 16);
    empty[sof + 7] = empty[sof + 8] = 0;
    EXPECT_EQ(decode(empty, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
}

TEST(DisplayJpeg, DamagedAndUnusualFilesAreRefusedAsLoadErrors)
{
    uint8_t strips[1024];
    // Cut anywhere, the end-of-image marker included: the decoder would fill in the rest, the display
    // refuses the picture instead.
    for (const Options &o : {Options{Kind::Rgb}, Options{Kind::Grey, true}, Options{Kind::Rgb, false, true}}) {
        const Bytes file = encode(40, 24, o);
        ASSERT_GT(file.size(), 100u);
        for (size_t cut = 2; cut < file.size(); cut += (cut < 20 || file.size() - cut < 20) ? 1 : 7) {
            const Bytes part(file.begin(), file.begin() + static_cast<long>(cut));
            ASSERT_EQ(decode(part, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR) << "cut at " << cut;
        }
    }
    // Ink is not light: CMYK and YCCK pictures are refused.
    EXPECT_EQ(decode(encode(16, 16, {Kind::Cmyk}), strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    EXPECT_EQ(decode(encode(16, 16, {Kind::Ycck}), strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    // Twelve bits per sample, which this decoder does not take.
    Bytes twelve = encode(16, 16);
    twelve[find_marker(twelve, 0xC0) + 4] = 12;
    EXPECT_EQ(decode(twelve, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    // A scan that uses a Huffman table the file never defines.
    Bytes undefined = encode(16, 16);
    const size_t sos = find_marker(undefined, 0xDA);
    ASSERT_LT(sos + 7, undefined.size());
    undefined[sos + 6] = 0x33;
    EXPECT_EQ(decode(undefined, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    // The inputs that made the system's other decoder read out of bounds.
    for (const char *seed : {"jpeg_bad_huffman", "jpeg_undefined_table"}) {
        const Bytes file = read_file(kCorpus + seed);
        ASSERT_FALSE(file.empty()) << seed;
        EXPECT_EQ(decode(file, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR) << seed;
    }
    const Bytes soi_only = {0xFF, 0xD8};
    EXPECT_EQ(decode(soi_only, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
}

TEST(DisplayJpeg, ScrambledEntropyDataNeverEndsTheProcessNorPrints)
{
    const Bytes file = encode(64, 32, {Kind::Rgb, true});
    const size_t data = find_marker(file, 0xDA);
    ASSERT_LT(data + 40, file.size());
    // Whatever the decoder says, it says nothing on the standard error and returns one of the two answers.
    std::fflush(stderr);
    char path[] = "/tmp/display_jpeg_stderr_XXXXXX";
    const int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    const int saved = dup(2);
    ASSERT_GE(saved, 0);
    dup2(fd, 2);
    int refused = 0;
    for (size_t i = data + 14; i < file.size() - 2; i += 3) {
        Bytes bad = file;
        bad[i] ^= 0x5A;
        uint8_t strips[1024];
        const ZEL_STATUS st = decode(bad, strips);
        EXPECT_TRUE(st == ZEL_OK || st == ZEL_DISPLAY_IMAGE_LOAD_ERROR) << i;
        refused += st == ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    }
    std::fflush(stderr);
    dup2(saved, 2);
    close(saved);
    const Bytes said = read_file(path);
    close(fd);
    unlink(path);
    EXPECT_EQ(std::string(said.begin(), said.end()), "");
    EXPECT_GT(refused, 0);
}

TEST(DisplayJpeg, FilesByNameAndTheOtherFormatsBeside)
{
    // The same picture as JPEG and PNG, by name: both in the corner with the same pixels.
    const Bytes file = encode(128, 64, {Kind::Grey});
    const std::string path = testing::TempDir() + "display_jpeg_pattern.jpg";
    {
        std::ofstream f(path, std::ios::binary);
        f.write(reinterpret_cast<const char *>(file.data()), static_cast<std::streamsize>(file.size()));
    }
    uint8_t from_jpeg[1024], from_png[1024];
    ASSERT_EQ(disp::image_strips(path.c_str(), from_jpeg), ZEL_OK);
    ASSERT_EQ(disp::image_strips((kDir + "full_grey.png").c_str(), from_png), ZEL_OK);
    EXPECT_EQ(std::memcmp(from_jpeg, from_png, sizeof from_jpeg), 0);
    std::remove(path.c_str());
    // A PNG renamed .jpg is still a PNG: the format comes from the bytes, not the name.
    const Bytes png = read_file(kDir + "full_grey.png");
    EXPECT_FALSE(disp::is_jpeg(png.data(), png.size()));
    EXPECT_TRUE(disp::is_jpeg(file.data(), file.size()));
}
