// JPEG pictures for the display module, decoded through libjpeg-turbo. The library reports a fatal error
// through error_exit, which by default prints and ends the process: here it jumps back to the decoding call,
// which then answers ZEL_DISPLAY_IMAGE_LOAD_ERROR. Everything between setjmp and the jump is plain C state
// (no object with a destructor lives in the decoding function), so the jump skips nothing that needs undoing
// beyond jpeg_destroy_decompress.
#include <csetjmp>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <jpeglib.h>

#include "display/display_internal.h"
#include "zel_status.h"

namespace zel::disp {

namespace {

// More scans than any encoder's progression uses: a file of many small scans would otherwise cost time for
// every one of them.
constexpr int kMaxScans = 256;
// The decoder's own bound on what it allocates; a picture of 128 by 64 needs a small part of it.
constexpr long kMaxMemory = 8L * 1024 * 1024;

struct ErrorJump {
    jpeg_error_mgr mgr; // first, so that the library's pointer to it is a pointer to the whole
    std::jmp_buf jump;
};

[[noreturn]] void jump_back(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<ErrorJump *>(info->err)->jump, 1);
}

// Warnings are what the library says when it patches over corrupt data (a truncated file, bytes where a
// marker belongs, a scan that does not fit the progression): such a file is refused like a broken PNG.
// Trace messages (levels 0 and up) are dropped.
void on_message(j_common_ptr info, int level)
{
    if (level < 0)
        jump_back(info);
}

void no_output(j_common_ptr) {}

void count_scans(j_common_ptr info)
{
    if (!info->is_decompressor)
        return;
    if (reinterpret_cast<j_decompress_ptr>(info)->input_scan_number > kMaxScans)
        jump_back(info);
}

} // namespace

bool is_jpeg(const uint8_t *data, size_t len)
{
    return data && len >= 2 && data[0] == 0xFF && data[1] == 0xD8;
}

// Only plain locals here: a longjmp out of the library lands in this function.
ZEL_STATUS jpeg_pixels(const uint8_t *data, size_t len, uint8_t pixels[kPixelsMax], int *width, int *height,
                       int *channels)
{
    if (!data || len == 0 || len > kFileMax)
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    jpeg_decompress_struct info{};
    ErrorJump err{};
    jpeg_progress_mgr progress{};
    info.err = jpeg_std_error(&err.mgr);
    err.mgr.error_exit = jump_back;
    err.mgr.emit_message = on_message;
    err.mgr.output_message = no_output;
    progress.progress_monitor = count_scans;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&info);
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    }
    jpeg_create_decompress(&info);
    info.mem->max_memory_to_use = kMaxMemory;
    info.progress = &progress;
    jpeg_mem_src(&info, data, static_cast<unsigned long>(len));
    // The header alone first: a picture the display cannot take is refused before anything is decoded.
    jpeg_read_header(&info, TRUE);
    if (info.image_width == 0 || info.image_height == 0 || info.image_width > kWidth || info.image_height > kHeight) {
        jpeg_destroy_decompress(&info);
        return ZEL_DISPLAY_IMAGE_DIMENSION_ERROR;
    }
    // Grey stays grey; YCbCr and RGB come out as RGB. CMYK and YCCK (and anything else) are refused: the
    // threshold has no meaning for ink.
    switch (info.jpeg_color_space) {
    case JCS_GRAYSCALE: info.out_color_space = JCS_GRAYSCALE; break;
    case JCS_YCbCr:
    case JCS_RGB: info.out_color_space = JCS_RGB; break;
    default: jpeg_destroy_decompress(&info); return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    }
    jpeg_start_decompress(&info);
    const int comps = info.output_components;
    if ((comps != 1 && comps != 3) || info.output_width != info.image_width ||
        info.output_height != info.image_height) {
        jpeg_destroy_decompress(&info);
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    }
    const size_t stride = static_cast<size_t>(info.output_width) * static_cast<size_t>(comps);
    while (info.output_scanline < info.output_height) {
        JSAMPROW row = pixels + static_cast<size_t>(info.output_scanline) * stride;
        // The data is all in memory, so the decoder never suspends: no line read is a failure, not a wait.
        if (jpeg_read_scanlines(&info, &row, 1) != 1) {
            jpeg_destroy_decompress(&info);
            return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
        }
    }
    jpeg_finish_decompress(&info);
    *width = static_cast<int>(info.output_width);
    *height = static_cast<int>(info.output_height);
    *channels = comps;
    jpeg_destroy_decompress(&info);
    return ZEL_OK;
}

} // namespace zel::disp
