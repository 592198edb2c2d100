// Pictures for the display module: files decoded to 8 bits per channel (JPEG through libjpeg-turbo, PNG and
// BMP through stb_image) and thresholded, raw bitmaps dealt into the module's four strips of 32 columns.
#include <cstring>
#include <vector>

#include <stb/stb_image.h>

#include "display/display_internal.h"
#include "zel_status.h"

namespace zel::disp {

namespace {

// The dark pixel at (x, y) of the strip layout.
void set_pixel(uint8_t strips[kStripsLen], uint32_t x, uint32_t y)
{
    uint8_t &b = strips[(x / 32) * kStripLen + 4 * y + (x % 32) / 8];
    set_bit(b, x % 8, 1);
}

// The size and channel count are known and accepted: decoded pixels into strips.
ZEL_STATUS threshold(const uint8_t *pixels, int w, int h, int channels, uint8_t strips[kStripsLen])
{
    std::memset(strips, 0, kStripsLen);
    if (channels == 2 && w >= 1)
        return ZEL_DISPLAY_IMAGE_UNSUPPORTED_CHANNELS;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            const uint8_t *p = pixels + (static_cast<size_t>(y) * w + x) * channels;
            const bool dark = channels == 1 ? p[0] < 128 : p[0] + p[1] + p[2] < 384;
            if (dark)
                set_pixel(strips, static_cast<uint32_t>(x), static_cast<uint32_t>(y));
        }
    }
    return ZEL_OK;
}

// A PNG whose chunks claim more bytes than the file holds is refused before the decoder grows a buffer to
// the claimed length.
bool png_chunks_fit(const uint8_t *data, size_t len)
{
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (len < 8 || std::memcmp(data, kSignature, 8) != 0)
        return true; // not a PNG
    // Every chunk up to IEND whole in the data: length, type, body and CRC. A chunk cut short (its header
    // included) would have the decoder size its buffer from bytes that are not there.
    size_t at = 8;
    while (at < len) {
        if (len - at < 12)
            return false;
        const uint32_t n =
            static_cast<uint32_t>(data[at]) << 24 | data[at + 1] << 16 | data[at + 2] << 8 | data[at + 3];
        if (n > len - at - 12)
            return false;
        if (std::memcmp(data + at + 4, "IEND", 4) == 0)
            return true;
        at += 12 + static_cast<size_t>(n);
    }
    return false; // no IEND
}

bool size_fits(int w, int h)
{
    return w > 0 && h > 0 && w <= static_cast<int>(kWidth) && h <= static_cast<int>(kHeight);
}

} // namespace

uint8_t crc8(const uint8_t *data, size_t len)
{
    uint8_t crc = 0;
    for (size_t i = 0; i < len; ++i) {
        crc ^= data[i];
        for (int b = 0; b < 8; ++b)
            crc = static_cast<uint8_t>(crc & 0x80 ? (crc << 1) ^ 0x07 : crc << 1);
    }
    return crc;
}

void set_bit(uint8_t &byte, unsigned index, unsigned value)
{
    const uint8_t mask = static_cast<uint8_t>(0x80u >> (index & 7u));
    byte = static_cast<uint8_t>(value ? byte | mask : byte & ~mask);
}

void unpack_bytes(uint32_t value, uint8_t *b0, uint8_t *b1, uint8_t *b2, uint8_t *b3)
{
    *b0 = static_cast<uint8_t>(value >> 24);
    *b1 = static_cast<uint8_t>(value >> 16);
    *b2 = static_cast<uint8_t>(value >> 8);
    *b3 = static_cast<uint8_t>(value);
}

bool is_file_path(const void *image)
{
    if (!image)
        return false;
    const char *text = static_cast<const char *>(image);
    const void *end = std::memchr(text, 0, kNameScan);
    if (!end)
        return false;
    const size_t n = static_cast<size_t>(static_cast<const char *>(end) - text);
    if (n < 4)
        return false;
    const char *ext = text + n - 4;
    return std::strcmp(ext, ".png") == 0 || std::strcmp(ext, ".jpg") == 0 || std::strcmp(ext, ".bmp") == 0;
}

void bitmap_to_strips(const uint8_t *bitmap, uint8_t strips[kStripsLen])
{
    for (uint32_t r = 0; r < kHeight; ++r)
        for (uint32_t s = 0; s < kStrips; ++s)
            std::memcpy(strips + s * kStripLen + 4 * r, bitmap + 16 * r + 4 * s, 4);
}

void strips_to_bitmap(const uint8_t strips[kStripsLen], uint8_t bitmap[kStripsLen])
{
    for (uint32_t r = 0; r < kHeight; ++r)
        for (uint32_t s = 0; s < kStrips; ++s)
            std::memcpy(bitmap + 16 * r + 4 * s, strips + s * kStripLen + 4 * r, 4);
}

ZEL_STATUS picture_from_memory(const uint8_t *data, size_t len, uint8_t strips[kStripsLen])
{
    if (!data || len == 0 || len > 0x7FFFFFFF)
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    const int n = static_cast<int>(len);
    int w = 0, h = 0, channels = 0;
    if (is_jpeg(data, len)) {
        std::vector<uint8_t> pixels(kPixelsMax);
        const ZEL_STATUS status = jpeg_pixels(data, len, pixels.data(), &w, &h, &channels);
        return status ? status : threshold(pixels.data(), w, h, channels, strips);
    }
    // stb_image is built without its JPEG decoder (display/stb_image.cpp).
    if (!stbi_info_from_memory(data, n, &w, &h, &channels))
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    if (!size_fits(w, h))
        return ZEL_DISPLAY_IMAGE_DIMENSION_ERROR;
    if (!png_chunks_fit(data, len))
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    uint8_t *pixels = stbi_load_from_memory(data, n, &w, &h, &channels, 0);
    if (!pixels)
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    ZEL_STATUS status = ZEL_DISPLAY_IMAGE_DIMENSION_ERROR;
    if (size_fits(w, h))
        status = threshold(pixels, w, h, channels, strips);
    stbi_image_free(pixels);
    return status;
}

ZEL_STATUS picture_from_file(std::FILE *file, uint8_t strips[kStripsLen])
{
    if (!file)
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    // The whole file, up to a size no picture of 128 by 64 needs.
    std::vector<uint8_t> bytes;
    uint8_t buf[4096];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, file)) > 0) {
        if (bytes.size() + n > kFileMax)
            return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
        bytes.insert(bytes.end(), buf, buf + n);
    }
    if (std::ferror(file))
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    return picture_from_memory(bytes.data(), bytes.size(), strips);
}

ZEL_STATUS picture_from_path(const char *path, uint8_t strips[kStripsLen])
{
    std::FILE *f = path ? std::fopen(path, "rb") : nullptr;
    if (!f)
        return ZEL_DISPLAY_IMAGE_LOAD_ERROR;
    const ZEL_STATUS status = picture_from_file(f, strips);
    std::fclose(f);
    return status;
}

ZEL_STATUS image_strips(const void *image, uint8_t strips[kStripsLen])
{
    if (!image)
        return ZEL_PARAMETERS_ERROR;
    if (is_file_path(image))
        return picture_from_path(static_cast<const char *>(image), strips);
    bitmap_to_strips(static_cast<const uint8_t *>(image), strips);
    return ZEL_OK;
}

} // namespace zel::disp
