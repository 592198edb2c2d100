// The display module against a scripted reader: the frames and EXT blocks on the wire, the byte orders, the
// tests of the module's answers, and the pictures decoded from files made by an encoder of the tests' own.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "display/display_internal.h"
#include "script_link.h"
#include "zel_display.h"
#include "zel_status.h"

using namespace zeltest;
namespace disp = zel::disp;

namespace {

const std::string kDir = std::string(ZEL_FIXTURES_DIR) + "/display/";

constexpr uint8_t kA5 = 0xA5, kA6 = 0xA6;

Bytes display_cmd(uint8_t ext_len, uint8_t sub, uint8_t par)
{
    return cmd(kA5, ext_len, sub, par);
}
const Bytes kClear = display_cmd(0, 0xA8, 0);
const Bytes kDone = rsp(kA5);
const Bytes kFailure = {0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0xFE, 0x07};

// The test pattern of the generated pictures.
bool pattern(int x, int y)
{
    return (x + 2 * y) % 7 < 3;
}

// Whether the pixel (x, y) is dark in the strip layout, read independently of the library's helpers.
bool dark(const uint8_t *strips, int x, int y)
{
    const uint8_t byte = strips[(x / 32) * 256 + 4 * y + (x % 32) / 8];
    return (byte >> (7 - x % 8)) & 1;
}

std::vector<uint8_t> read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
}

// A raw bitmap whose row r holds byte values r * 16 + column byte: every byte is told apart.
Bytes numbered_bitmap()
{
    Bytes b(1024);
    for (size_t i = 0; i < b.size(); ++i)
        b[i] = static_cast<uint8_t>(i * 7 + (i >> 8));
    return b;
}

// The replies of one strip that goes through: its acknowledge and its done.
void strip_ok(ScriptLink &link)
{
    link.reply(ack(kA6));
    link.reply(rsp(kA6));
}

} // namespace

// ---- Pictures ----

TEST(DisplayPicture, Crc8OfTheModuleMatchesTheCheckValue)
{
    const uint8_t check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(disp::crc8(check, sizeof check), 0xF4);
    const uint8_t one = 0x01;
    EXPECT_EQ(disp::crc8(&one, 1), 0x07); // the polynomial itself
    EXPECT_EQ(disp::crc8(nullptr, 0), 0x00);
}

TEST(DisplayPicture, SmallHelpersWorkMostSignificantFirst)
{
    uint8_t b = 0;
    disp::set_bit(b, 0, 1);
    disp::set_bit(b, 7, 1);
    EXPECT_EQ(b, 0x81);
    disp::set_bit(b, 0, 0);
    EXPECT_EQ(b, 0x01);
    uint8_t v[4];
    disp::unpack_bytes(0x11223344, &v[0], &v[1], &v[2], &v[3]);
    EXPECT_EQ(Bytes(v, v + 4), (Bytes{0x11, 0x22, 0x33, 0x44}));
}

TEST(DisplayPicture, FileNamesAreToldFromBitmapsByTheirEnding)
{
    EXPECT_TRUE(disp::is_file_path("logo.png"));
    EXPECT_TRUE(disp::is_file_path("/tmp/a.b/logo.jpg"));
    EXPECT_TRUE(disp::is_file_path("x.bmp"));
    EXPECT_FALSE(disp::is_file_path("logo"));
    EXPECT_FALSE(disp::is_file_path("logo.gif"));
    EXPECT_FALSE(disp::is_file_path("logo.png.txt"));
    EXPECT_FALSE(disp::is_file_path(".pn"));
    // No zero within the first 1,024 bytes: a bitmap, even if a name follows.
    std::string long_name(1024, 'a');
    long_name += ".png";
    EXPECT_FALSE(disp::is_file_path(long_name.c_str()));
    std::string just_fits(1019, 'a');
    just_fits += ".png"; // the zero at index 1,023
    EXPECT_TRUE(disp::is_file_path(just_fits.c_str()));
}

TEST(DisplayPicture, RawBitmapRowsAreDealtToTheFourStrips)
{
    const Bytes bitmap = numbered_bitmap();
    uint8_t strips[1024];
    disp::bitmap_to_strips(bitmap.data(), strips);
    for (int r = 0; r < 64; ++r)
        for (int s = 0; s < 4; ++s)
            for (int k = 0; k < 4; ++k)
                ASSERT_EQ(strips[s * 256 + 4 * r + k], bitmap[16 * r + 4 * s + k]) << r << " " << s;
    uint8_t back[1024];
    disp::strips_to_bitmap(strips, back);
    EXPECT_EQ(Bytes(back, back + 1024), bitmap);
}

TEST(DisplayPicture, GreyAndRgbFilesFollowTheThresholds)
{
    for (const char *name : {"full_grey.png", "full_rgb.png"}) {
        uint8_t strips[1024];
        ASSERT_EQ(disp::picture_from_path((kDir + name).c_str(), strips), ZEL_OK) << name;
        int wrong = 0;
        for (int y = 0; y < 64; ++y)
            for (int x = 0; x < 128; ++x)
                wrong += dark(strips, x, y) != pattern(x, y);
        EXPECT_EQ(wrong, 0) << name;
    }
}

TEST(DisplayPicture, ASmallerPictureStaysInTheTopLeftCorner)
{
    uint8_t strips[1024];
    std::memset(strips, 0xAA, sizeof strips);
    ASSERT_EQ(disp::picture_from_path((kDir + "corner.bmp").c_str(), strips), ZEL_OK);
    int wrong = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 128; ++x)
            wrong += dark(strips, x, y) != (x < 40 && y < 20 && pattern(x, y));
    EXPECT_EQ(wrong, 0);
}

TEST(DisplayPicture, TheSamePictureInThreeFormatsMatchesItsUncompressedPixels)
{
    // The PPM is the reference: 16 by 16 RGB, thresholded by the sum of the channels.
    const std::vector<uint8_t> ppm = read_file(kDir + "python.ppm");
    const std::string head = "P6\n16 16\n255\n";
    ASSERT_EQ(ppm.size(), head.size() + 16 * 16 * 3);
    auto ref_dark = [&](int x, int y) {
        const uint8_t *p = ppm.data() + head.size() + (y * 16 + x) * 3;
        return p[0] + p[1] + p[2] < 384;
    };
    for (const char *name : {"python.png", "python.bmp", "python.jpg"}) {
        uint8_t strips[1024];
        ASSERT_EQ(disp::picture_from_path((kDir + name).c_str(), strips), ZEL_OK) << name;
        int wrong = 0, outside = 0;
        for (int y = 0; y < 64; ++y)
            for (int x = 0; x < 128; ++x) {
                if (x < 16 && y < 16)
                    wrong += dark(strips, x, y) != ref_dark(x, y);
                else
                    outside += dark(strips, x, y);
            }
        // The JPEG is lossy (and its colour halved): a few pixels near the threshold may fall the other way.
        EXPECT_LE(wrong, std::string(name).ends_with(".jpg") ? 12 : 0) << name;
        EXPECT_EQ(outside, 0) << name;
    }
}

TEST(DisplayPicture, PicturesTheModuleCannotTakeAreRefused)
{
    uint8_t strips[1024];
    EXPECT_EQ(disp::picture_from_path((kDir + "wide.png").c_str(), strips), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
    EXPECT_EQ(disp::picture_from_path((kDir + "grey_alpha.png").c_str(), strips),
              ZEL_DISPLAY_IMAGE_UNSUPPORTED_CHANNELS);
    // The header claims 20,000 by 20,000: refused from the header alone.
    EXPECT_EQ(disp::picture_from_path((kDir + "bomb.png").c_str(), strips), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
    EXPECT_EQ(disp::picture_from_path((kDir + "missing.png").c_str(), strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    EXPECT_EQ(disp::picture_from_path((kDir + "make_display_fixtures.py").c_str(), strips),
              ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    const std::vector<uint8_t> png = read_file(kDir + "full_grey.png");
    EXPECT_EQ(disp::picture_from_memory(png.data(), png.size() / 2, strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    EXPECT_EQ(disp::picture_from_memory(png.data(), png.size(), strips), ZEL_OK);
    // A chunk that claims 2 GB behind a small file: refused before the decoder grows a buffer for it.
    std::vector<uint8_t> liar = png;
    const auto idat = std::search(liar.begin(), liar.end(), std::begin("IDAT"), std::begin("IDAT") + 4);
    ASSERT_NE(idat, liar.end());
    const size_t at = static_cast<size_t>(idat - liar.begin()) - 4;
    liar[at] = 0x7F;
    liar[at + 1] = 0xFF;
    EXPECT_EQ(disp::picture_from_memory(liar.data(), liar.size(), strips), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    // A top-down BMP carries a negative height in its header (here -16,777,214 rows of 16 pixels): its size
    // is that height's magnitude, refused before the decoder allocates 800 MB for it.
    std::vector<uint8_t> bmp(0x8A + 64, 0);
    const uint8_t head[] = {'B', 'M', 0xCA, 0,  0, 0, 0, 0,    0, 0, 0x8A, 0, 0, 0,  0x7C,
                            0,   0,   0,    16, 0, 0, 0, 0x02, 0, 0, 0xFF, 1, 0, 24, 0};
    std::copy(std::begin(head), std::end(head), bmp.begin());
    EXPECT_EQ(disp::picture_from_memory(bmp.data(), bmp.size(), strips), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
}

// ---- Frames ----

TEST(DisplayFrames, ClearTestsTheReplyAgainstTheDisplayCommand)
{
    struct Case {
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {kDone, ZEL_OK},
        {err(0x0B), 0x0B},
        {frame(0xEC, 0x0C, 0x00), 0x0C},     // either marker of an error frame
        {rsp(kA6), ZEL_COMMUNICATION_ERROR}, // another command
        {ack(kA5), ZEL_COMMUNICATION_ERROR},
        {Bytes{0xDE, 0xA5, 0xED, 0, 0, 0, 0}, ZEL_COMMUNICATION_ERROR}, // bad checksum
        {Bytes{}, ZEL_COMMUNICATION_BREAK},                             // nothing came
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(c.reply);
        EXPECT_EQ(Display_ClearImageHnd(&link.record), c.want);
        EXPECT_EQ(link.sent, kClear);
    }
}

TEST(DisplayFrames, ShowBitmapSendsParametersThenFourStripChunks)
{
    ScriptLink link;
    link.reply(kDone);       // clear
    link.reply(ack(kA5, 5)); // parameter frame
    link.reply(err(0x01));   // the parameters' reply is not looked at
    for (int s = 0; s < 4; ++s)
        strip_ok(link);
    const Bytes bitmap = numbered_bitmap();
    ASSERT_EQ(Display_ShowBitmapHnd(&link.record, bitmap.data(), 0x01020304, 0x1122, 0x3344), ZEL_OK);
    ASSERT_EQ(link.writes.size(), 3u + 8u);
    EXPECT_EQ(link.writes[0], kClear);
    EXPECT_EQ(link.writes[1], display_cmd(5, 0xA3, 0));
    EXPECT_EQ(link.writes[2], ext({0x01, 0x02, 0x03, 0x04})); // big-endian
    for (int s = 0; s < 4; ++s) {
        // 0x0106 = 262 in bytes 3 and 4, low byte first; 0x10 shows.
        EXPECT_EQ(link.writes[3 + 2 * s], cmd(kA6, 0x06, 0x01, 0x10));
        Bytes chunk = {static_cast<uint8_t>(s), 0x11, 0x22, 0x33, 0x44};
        for (int r = 0; r < 64; ++r)
            for (int k = 0; k < 4; ++k)
                chunk.push_back(bitmap[16 * r + 4 * s + k]);
        EXPECT_EQ(link.writes[4 + 2 * s], ext(chunk)) << "strip " << s;
    }
}

TEST(DisplayFrames, AFailedStripStopsTheTransfer)
{
    struct Case {
        Bytes reply;
        ZEL_STATUS want;
    } cases[] = {
        {err(0x21), 0x21},
        {kFailure, ZEL_DISPLAY_COMMAND_FAILED},
        {rsp(kA5), ZEL_COMMUNICATION_ERROR},
        {Bytes{0xDE, 0xA6, 0xED, 0, 0, 0, 0}, ZEL_COMMUNICATION_ERROR},
    };
    const Bytes bitmap(1024, 0xF0);
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(kDone);
        strip_ok(link);
        link.reply(ack(kA6));
        link.reply(c.reply); // the second strip
        EXPECT_EQ(Display_SaveBitmapToGalleryHnd(&link.record, bitmap.data(), 3), c.want);
        EXPECT_EQ(link.writes.size(), 1u + 4u);
    }
}

TEST(DisplayFrames, GallerySavesCheckTheIndexAndSendNoPositions)
{
    const Bytes bitmap(1024, 0x0F);
    {
        ScriptLink link;
        EXPECT_EQ(Display_SaveBitmapToGalleryHnd(&link.record, bitmap.data(), 11), ZEL_DISPLAY_INDEX_OVERFLOW);
        EXPECT_TRUE(link.sent.empty());
    }
    ScriptLink link;
    link.reply(kDone);
    for (int s = 0; s < 4; ++s)
        strip_ok(link);
    ASSERT_EQ(Display_SaveBitmapToGalleryHnd(&link.record, bitmap.data(), 10), ZEL_OK);
    EXPECT_EQ(link.writes[1], cmd(kA6, 0x06, 0x01, 10));
    EXPECT_EQ(Bytes(link.writes[2].begin(), link.writes[2].begin() + 5), (Bytes{0, 0, 0, 0, 0}));
    EXPECT_EQ(Bytes(link.writes[8].begin(), link.writes[8].begin() + 5), (Bytes{3, 0, 0, 0, 0}));
}

TEST(DisplayFrames, SystemPicturesReportTheirOwnFailures)
{
    const Bytes bitmap(1024, 0);
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(err(0x05)); // an error frame in place of the acknowledge
        EXPECT_EQ(Display_SaveSystemBitmapHnd(&link.record, bitmap.data(), 200), ZEL_DISPLAY_READ_ACK_ERROR);
    }
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(Bytes{}); // no acknowledge at all
        EXPECT_EQ(Display_SaveSystemBitmapHnd(&link.record, bitmap.data(), 200), ZEL_DISPLAY_READ_ACK_ERROR);
    }
    ScriptLink link;
    link.reply(kDone);
    for (int s = 0; s < 4; ++s) {
        link.reply(ack(kA6));
        link.reply(err(0x33)); // the reply to a chunk is not examined
    }
    EXPECT_EQ(Display_SaveSystemBitmapHnd(&link.record, bitmap.data(), 200), ZEL_OK);
    EXPECT_EQ(link.writes[1], cmd(kA6, 0x06, 0x01, 200));
}

TEST(DisplayFrames, PictureFilesFailBeforeAnythingIsSent)
{
    ScriptLink link;
    const std::string wide = kDir + "wide.png";
    EXPECT_EQ(Display_ShowBitmapHnd(&link.record, wide.c_str(), 0, 0, 0), ZEL_DISPLAY_IMAGE_DIMENSION_ERROR);
    const std::string missing = kDir + "none.bmp";
    EXPECT_EQ(Display_SaveBitmapToGalleryHnd(&link.record, missing.c_str(), 1), ZEL_DISPLAY_IMAGE_LOAD_ERROR);
    EXPECT_TRUE(link.sent.empty());
}

TEST(DisplayFrames, GalleryShowsAndTheLastUnsavedPicture)
{
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(kDone);
        EXPECT_EQ(Display_ShowBitmapFromGalleryHnd(&link.record, 42), ZEL_OK); // the index is not tested
        EXPECT_EQ(link.sent, cat(kClear, display_cmd(0, 0xA5, 42)));
    }
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(kFailure);
        EXPECT_EQ(Display_ShowBitmapFromGalleryHnd(&link.record, 1), ZEL_DISPLAY_COMMAND_FAILED);
    }
    ScriptLink link;
    for (int i = 0; i < 3; ++i)
        link.reply(kDone);
    EXPECT_EQ(Display_ShowLastUnsavedImageHnd(&link.record), ZEL_OK);
    EXPECT_EQ(link.sent, cat({kClear, kClear, display_cmd(0, 0xA5, 16)}));
}

TEST(DisplayFrames, TextSignalTimeAndErasingCarryTheirValuesInPlace)
{
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(ack(kA5));
        link.reply(kDone);
        EXPECT_EQ(Display_PrintTextHnd(&link.record, "Hi", 1, 2, 3, 4, 5), ZEL_OK);
        EXPECT_EQ(link.sent, cat({kClear, display_cmd(8, 0xA4, 0), ext({4, 5, 1, 2, 3, 'H', 'i'})}));
    }
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(kDone);
        EXPECT_EQ(Display_UserInterfaceSignalHnd(&link.record, 7), ZEL_OK);
        EXPECT_EQ(link.sent, cat(kClear, display_cmd(0, 0x26, 7)));
    }
    {
        ScriptLink link;
        link.reply(kDone);
        link.reply(ack(kA5));
        link.reply(kDone);
        EXPECT_EQ(Display_ShowTimeHnd(&link.record, 23, 59), ZEL_OK);
        EXPECT_EQ(link.sent, cat({kClear, display_cmd(3, 0x32, 0), ext({23, 59})}));
    }
    ScriptLink link;
    link.reply(kDone);
    link.reply(ack(kA5));
    link.reply(kDone);
    EXPECT_EQ(Display_EraseSectionHnd(&link.record, 9, 8, 7, 6), ZEL_OK);
    EXPECT_EQ(link.sent, cat({kClear, display_cmd(5, 0xA7, 0), ext({9, 8, 7, 6})}));
}

TEST(DisplayFrames, TextOf250CharactersWrapsTheLengthByte)
{
    ScriptLink link;
    link.reply(kDone);
    link.reply(kDone);
    const std::string text(250, 'x');
    EXPECT_EQ(Display_PrintTextHnd(&link.record, text.c_str(), 0, 0, 0, 0, 0), ZEL_OK);
    // 256 wraps to 0: the frame goes as a command without EXT.
    EXPECT_EQ(link.sent, cat(kClear, display_cmd(0, 0xA4, 0)));
}

TEST(DisplayFrames, TransmitTestsTheAcknowledgeAndTheAnswer)
{
    uint8_t reply[7];
    {
        ScriptLink link;
        link.reply(frame(0xAC, kA5, 0xCE)); // an error marker in the acknowledge
        uint8_t f[7] = {0x55, kA5, 0xAA, 3, 0x32, 0, 0};
        uint8_t e[3] = {1, 2, 0};
        EXPECT_EQ(Display_TransmitHnd(&link.record, f, e, reply), ZEL_DISPLAY_READ_ACK_ERROR);
        EXPECT_EQ(link.writes.size(), 1u); // the EXT does not follow
    }
    {
        ScriptLink link;
        link.reply(ack(kA5));
        link.reply(kFailure);
        uint8_t f[7] = {0x55, kA5, 0xAA, 3, 0x32, 0, 0};
        uint8_t e[3] = {1, 2, 0};
        EXPECT_EQ(Display_TransmitHnd(&link.record, f, e, reply), ZEL_DISPLAY_COMMAND_FAILED);
        EXPECT_EQ(link.writes[1], ext({1, 2}));
    }
    ScriptLink link;
    link.reply(err(0x44));
    uint8_t f[7] = {0x55, kA5, 0xAA, 0, 0x26, 1, 0};
    EXPECT_EQ(Display_TransmitHnd(&link.record, f, nullptr, reply), 0x44u);
    EXPECT_EQ(Bytes(reply, reply + 7), err(0x44));
}

// ---- The module's boot loader and flash ----

TEST(DisplayBoot, FlashWritesCarryTheCrcAndABigEndianAddress)
{
    ScriptLink link;
    link.reply(ack(kA5, 0x44));
    link.reply(kDone);
    Bytes data(64);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(i);
    ASSERT_EQ(ProgDisplayHnd(&link.record, data.data(), 0x1234), ZEL_OK);
    Bytes body = {disp::crc8(data.data(), 64), 0x12, 0x34};
    body.insert(body.end(), data.begin(), data.end());
    EXPECT_EQ(link.sent, cat(display_cmd(0x44, 0xB8, 0x02), ext(body)));
}

TEST(DisplayBoot, FlashErasingSendsTheAddressFourWays)
{
    ScriptLink link;
    link.reply(ack(kA5, 6));
    link.reply(kDone);
    ASSERT_EQ(Display_EraseFlashI2CHnd(&link.record, 0xC340), ZEL_OK);
    EXPECT_EQ(link.sent, cat(display_cmd(6, 0xB8, 0x03), ext({0, 0xC3, 0x40, 0x03, 0x0D})));
}

TEST(DisplayBoot, BootCommandsShareOneFlow)
{
    struct Case {
        ZEL_STATUS (*fn)(ZEL_HANDLE);
        uint8_t sub, par;
    } cases[] = {
        {Display_SendBootCommandHnd, 0xB9, 0x00},
        {Display_CheckBootStatusHnd, 0xB8, 0x0D},
        {Display_RebootHnd, 0xB8, 0x04},
    };
    for (const Case &c : cases) {
        ScriptLink link;
        link.reply(ack(kA5, 4));
        link.reply(kDone);
        EXPECT_EQ(c.fn(&link.record), ZEL_OK);
        EXPECT_EQ(link.sent, cat(display_cmd(4, c.sub, c.par), ext({0, 0, 0})));
        ScriptLink refused;
        refused.reply(ack(kA5, 4));
        refused.reply(err(0x0E));
        EXPECT_EQ(c.fn(&refused.record), 0x0Eu);
    }
}

TEST(DisplayBoot, ParametersAndVersionComeFromTheBytesAfterTheIntro)
{
    Bytes params(30);
    for (size_t i = 0; i < params.size(); ++i)
        params[i] = static_cast<uint8_t>(0x40 + i);
    ScriptLink link;
    link.reply(ack(kA5, 4));
    link.reply(cat(rsp(kA5, 30), params));
    uint8_t first[12], second[8], b[5];
    ASSERT_EQ(Display_GetParametersHnd(&link.record, first, second, &b[0], &b[1], &b[2], &b[3], &b[4]), ZEL_OK);
    EXPECT_EQ(Bytes(first, first + 12), Bytes(params.begin(), params.begin() + 12));
    EXPECT_EQ(Bytes(second, second + 8), Bytes(params.begin() + 12, params.begin() + 20));
    EXPECT_EQ(Bytes(b, b + 5), (Bytes{0x54, 0x55, 0x5A, 0x5B, 0x5C}));
    EXPECT_EQ(link.writes[0], display_cmd(4, 0xB8, 0x01));

    // A short answer leaves the later outputs at zero.
    ScriptLink short_link;
    short_link.reply(ack(kA5, 4));
    short_link.reply(cat(rsp(kA5, 3), Bytes{1, 2, 3}));
    ASSERT_EQ(Display_GetParametersHnd(&short_link.record, first, second, &b[0], &b[1], &b[2], &b[3], &b[4]), ZEL_OK);
    EXPECT_EQ(first[2], 3);
    EXPECT_EQ(first[3], 0);
    EXPECT_EQ(b[4], 0);

    ScriptLink version;
    version.reply(ack(kA5, 4));
    version.reply(cat(frame(0x00, 0, 0), Bytes{2, 7, 19})); // the intro is not tested
    uint8_t major = 0, minor = 0, build = 0;
    ASSERT_EQ(Display_GetFirmwareVersionHnd(&version.record, &major, &minor, &build), ZEL_OK);
    EXPECT_EQ(major, 2);
    EXPECT_EQ(minor, 7);
    EXPECT_EQ(build, 19);
    EXPECT_EQ(version.writes[0], display_cmd(4, 0xA9, 0));
}
