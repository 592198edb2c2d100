// The display module and reader programming end to end: the exported operations against the simulated reader,
// with what the display shows, keeps in its gallery and flash, and what the boot loader received read back on
// the reader's side; the picture the display shows also goes through the simulator's PNG and back.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

#include "card_sim_fixture.h"
#include "core/internal.h"
#include "display/display_internal.h"
#include "frame_helpers.h"

namespace {

using zeltest::Bytes;

const std::string kDir = std::string(ZEL_FIXTURES_DIR) + "/display/";

class SimDisplay : public zeltest::CardSimTest {
protected:
    void SetUp() override
    {
        zel::set_sleep_hook([](uint32_t) {});
        serve();
    }
    void TearDown() override
    {
        stop();
        zel::set_sleep_hook(nullptr);
    }
    Bytes shown()
    {
        Bytes b(1024);
        EXPECT_EQ(zsim_display_bitmap(sim, b.data()), 1024u);
        return b;
    }
};

bool pattern(int x, int y)
{
    return (x + 2 * y) % 7 < 3;
}

bool dark(const Bytes &bitmap, int x, int y)
{
    return (bitmap[16 * y + x / 8] >> (7 - x % 8)) & 1;
}

Bytes numbered_bitmap()
{
    Bytes b(1024);
    for (size_t i = 0; i < b.size(); ++i)
        b[i] = static_cast<uint8_t>(i * 13 + 5);
    return b;
}

TEST_F(SimDisplay, APictureFileIsShownPixelForPixel)
{
    const std::string file = kDir + "full_grey.png";
    ASSERT_EQ(Display_ShowBitmapHnd(hnd, file.c_str(), 0x00010002, 0, 0), ZEL_OK);
    const Bytes b = shown();
    int wrong = 0;
    for (int y = 0; y < 64; ++y)
        for (int x = 0; x < 128; ++x)
            wrong += dark(b, x, y) != pattern(x, y);
    EXPECT_EQ(wrong, 0);

    // The simulator's PNG of the display decodes back to the same picture.
    char png[] = "/tmp/zel_display_XXXXXX.png";
    const int fd = mkstemps(png, 4);
    ASSERT_GE(fd, 0);
    close(fd);
    ASSERT_EQ(zsim_display_png(sim, png), 0);
    uint8_t strips[1024], back[1024];
    ASSERT_EQ(zel::disp::picture_from_path(png, strips), ZEL_OK);
    zel::disp::strips_to_bitmap(strips, back);
    EXPECT_EQ(Bytes(back, back + 1024), b);
    std::remove(png);

    // Clearing empties it.
    ASSERT_EQ(Display_ClearImageHnd(hnd), ZEL_OK);
    EXPECT_EQ(shown(), Bytes(1024, 0));
}

TEST_F(SimDisplay, TheGalleryKeepsSavedAndLastSentPictures)
{
    const Bytes saved = numbered_bitmap();
    ASSERT_EQ(Display_SaveBitmapToGalleryHnd(hnd, saved.data(), 3), ZEL_OK);
    EXPECT_EQ(shown(), Bytes(1024, 0)); // saving shows nothing
    EXPECT_EQ(Display_SaveBitmapToGalleryHnd(hnd, saved.data(), 11), ZEL_DISPLAY_INDEX_OVERFLOW);

    const std::string corner = kDir + "corner.bmp";
    ASSERT_EQ(Display_ShowBitmapHnd(hnd, corner.c_str(), 0, 0, 0), ZEL_OK);
    const Bytes corner_shown = shown();
    ASSERT_EQ(Display_ShowBitmapFromGalleryHnd(hnd, 3), ZEL_OK);
    EXPECT_EQ(shown(), saved);
    ASSERT_EQ(Display_ShowLastUnsavedImageHnd(hnd), ZEL_OK);
    EXPECT_EQ(shown(), corner_shown);
    EXPECT_EQ(Display_ShowBitmapFromGalleryHnd(hnd, 40), static_cast<ZEL_STATUS>(15)); // the module refuses it

    ASSERT_EQ(Display_SaveSystemBitmapHnd(hnd, saved.data(), 40), ZEL_OK);
    Bytes sys(1024);
    ASSERT_EQ(zsim_display_system(sim, 40, sys.data()), 1024u);
    EXPECT_EQ(sys, saved);
}

TEST_F(SimDisplay, TextTimeAndSignalsReachTheModule)
{
    ASSERT_EQ(Display_PrintTextHnd(hnd, "Welcome", 1, 2, 3, 4, 5), ZEL_OK);
    char text[64] = {};
    int hour = 0, minute = 0, signal = 0;
    EXPECT_EQ(zsim_display_state(sim, text, sizeof text, &hour, &minute, &signal), 7u);
    EXPECT_STREQ(text, "Welcome");
    ASSERT_EQ(Display_ShowTimeHnd(hnd, 12, 34), ZEL_OK);
    zsim_display_state(sim, text, sizeof text, &hour, &minute, &signal);
    EXPECT_EQ(hour, 12);
    EXPECT_EQ(minute, 34);
    EXPECT_STREQ(text, ""); // the time cleared the text first
    // The signal clears first too: the time is gone.
    ASSERT_EQ(Display_UserInterfaceSignalHnd(hnd, 3), ZEL_OK);
    zsim_display_state(sim, text, sizeof text, &hour, &minute, &signal);
    EXPECT_EQ(hour, -1);
    EXPECT_EQ(signal, 3);
    EXPECT_EQ(Display_EraseSectionHnd(hnd, 0, 0, 127, 63), ZEL_OK);
}

TEST_F(SimDisplay, TheModuleFlashIsWrittenInItsBootLoader)
{
    Bytes data(64);
    for (size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<uint8_t>(0xA0 ^ i);
    // Outside its boot loader the module refuses flash commands.
    EXPECT_NE(ProgDisplayHnd(hnd, data.data(), 0x0100), ZEL_OK);
    ASSERT_EQ(Display_SendBootCommandHnd(hnd), ZEL_OK);
    ASSERT_EQ(Display_CheckBootStatusHnd(hnd), ZEL_OK);
    ASSERT_EQ(Display_EraseFlashI2CHnd(hnd, 0x0100), ZEL_OK);
    ASSERT_EQ(ProgDisplayHnd(hnd, data.data(), 0x0100), ZEL_OK);
    Bytes flash(128);
    ASSERT_EQ(zsim_display_flash(sim, 0x0100, flash.data(), flash.size()), 128u);
    EXPECT_EQ(Bytes(flash.begin(), flash.begin() + 64), data);
    EXPECT_EQ(Bytes(flash.begin() + 64, flash.end()), Bytes(64, 0xFF));

    uint8_t major = 0, minor = 0, build = 0;
    ASSERT_EQ(Display_GetFirmwareVersionHnd(hnd, &major, &minor, &build), ZEL_OK);
    EXPECT_EQ(major, 1);
    EXPECT_EQ(minor, 4);
    EXPECT_EQ(build, 2);
    uint8_t first[12], second[8], b[5];
    ASSERT_EQ(Display_GetParametersHnd(hnd, first, second, &b[0], &b[1], &b[2], &b[3], &b[4]), ZEL_OK);
    EXPECT_EQ(first[0], 0x30);
    EXPECT_EQ(second[0], 0x30 + 12);
    EXPECT_EQ(b[4], 0x30 + 28);
    ASSERT_EQ(Display_RebootHnd(hnd), ZEL_OK);
    EXPECT_NE(ProgDisplayHnd(hnd, data.data(), 0x0100), ZEL_OK);
}

// ---- Programming ----

class SimProgram : public SimDisplay {
protected:
    static constexpr uint32_t kImageLen = 1000; // eight packets, the last one padded
    void SetUp() override
    {
        SimDisplay::SetUp();
        zsim_set_time_scale(sim, 10);
        zsim_boot_loader(sim, kImageLen, 5, 9, 77);
        image.resize(8 * 128);
        for (size_t i = 0; i < image.size(); ++i)
            image[i] = i < kImageLen ? static_cast<uint8_t>(i * 31 + (i >> 7)) : 0xFF;
    }
    // One run: boot entry, start call, every packet; the status of the first failure, and the last CRC flag.
    ZEL_STATUS run(uint8_t &crc)
    {
        ZEL_STATUS s = BootReaderHnd(hnd);
        if (s != ZEL_OK)
            return s;
        if ((s = ProgReaderHnd(hnd, nullptr, 0, 1, &crc)) != ZEL_OK)
            return s;
        for (uint16_t p = 0; p < 8; ++p)
            if ((s = ProgReaderHnd(hnd, image.data() + 128 * p, p, 0, &crc)) != ZEL_OK)
                return s;
        return ZEL_OK;
    }
    Bytes image;
};

TEST_F(SimProgram, AWholeImageIsVerifiedAndRunsAfterTheReset)
{
    uint8_t crc = 0;
    ASSERT_EQ(run(crc), ZEL_OK);
    EXPECT_EQ(crc, 1);
    size_t got = 0;
    EXPECT_EQ(zsim_boot_state(sim, &got, nullptr), 3);
    Bytes received(got);
    zsim_boot_image(sim, received.data(), received.size());
    EXPECT_EQ(received, Bytes(image.begin(), image.begin() + kImageLen));

    // The host restarts the reader: the boot bytes, then the new version.
    zsim_reset(sim);
    uint8_t boot[4] = {};
    ASSERT_EQ(PortRead(hnd, boot, sizeof boot), ZEL_OK);
    EXPECT_EQ(Bytes(boot, boot + 4), (Bytes{0x03, 0x55, 0x55, 0xBB}));
    uint8_t major = 0, minor = 0;
    ZEL_STATUS s = ZEL_COMMUNICATION_BREAK;
    for (int i = 0; i < 50 && s != ZEL_OK; ++i)
        s = GetReaderFirmwareVersionHnd(hnd, &major, &minor);
    ASSERT_EQ(s, ZEL_OK);
    EXPECT_EQ(major, 5);
    EXPECT_EQ(minor, 9);
    EXPECT_EQ(zsim_boot_state(sim, nullptr, nullptr), 0);
}

TEST_F(SimProgram, ALateFirstReplyIsWaitedForAndLaterFailuresNeedANewRun)
{
    PortSetTimeout(hnd, 80);
    zsim_boot_fault(sim, 0, ZSIM_PACKET_DELAY, 200); // lands in the third read of the reply
    zsim_boot_fault(sim, 5, ZSIM_PACKET_DROP, 0);
    zsim_boot_fault(sim, 2, ZSIM_PACKET_GARBLE, 0);
    uint8_t crc = 0;
    // First run: the garbled reply to packet 2.
    EXPECT_EQ(run(crc), ZEL_COMMUNICATION_ERROR);
    uint32_t packets = 0;
    zsim_boot_state(sim, nullptr, &packets);
    EXPECT_EQ(packets, 3u);
    // Second run: the reply to packet 5 never comes, and a later packet is not waited for.
    EXPECT_EQ(run(crc), ZEL_COMMUNICATION_BREAK);
    EXPECT_EQ(crc, 0);
    // Third run: every fault used up, the image goes through.
    ASSERT_EQ(run(crc), ZEL_OK);
    EXPECT_EQ(crc, 1);
    EXPECT_EQ(zsim_boot_state(sim, nullptr, nullptr), 3);
}

TEST_F(SimProgram, TheNfcProcessorTakesItsParametersInTheBootLoader)
{
    ASSERT_EQ(BootReaderHnd(hnd), ZEL_OK);
    const uint8_t first[16] = {1, 2, 3};
    const uint8_t second[8] = {9};
    const uint32_t fifth = 0x11223344;
    ASSERT_EQ(PN7462_WriteParamsHnd(hnd, first, second, 7, 8, &fifth, 0), ZEL_OK);
    ASSERT_EQ(PN7462_CodeProtectHnd(hnd), ZEL_OK);
    ASSERT_EQ(PN7462_TestHnd(hnd, 3), ZEL_OK);
    const Bytes req = last_request();
    EXPECT_EQ(Bytes(req.begin(), req.begin() + 6), (Bytes{0x55, 0x09, 0xAA, 0x00, 0x03, 0x00}));
}
} // namespace
