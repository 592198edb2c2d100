// The display module's picture conversion and checks, apart so that tests and fuzz targets reach them.
#ifndef ZEL_DISPLAY_INTERNAL_H
#define ZEL_DISPLAY_INTERNAL_H

#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "zel_types.h"

namespace zel::disp {

constexpr uint32_t kWidth = 128, kHeight = 64;
constexpr uint32_t kStrips = 4, kStripLen = 256;
// The picture as the module takes it: four strips of 32 columns, each 64 rows of 4 bytes.
constexpr uint32_t kStripsLen = kStrips * kStripLen;
// How far the terminating zero of a file name is looked for.
constexpr uint32_t kNameScan = 1024;
// The largest picture file read: far more than any encoding of 128 by 64 pixels takes.
constexpr size_t kFileMax = 4u * 1024 * 1024;

// CRC-8, polynomial 0x07, initial 0, no reflection, no final XOR.
uint8_t crc8(const uint8_t *data, size_t len);

// Sets bit 7 - index of byte to value (0 or 1).
void set_bit(uint8_t &byte, unsigned index, unsigned value);

// The four bytes of value, most significant first.
void unpack_bytes(uint32_t value, uint8_t *b0, uint8_t *b1, uint8_t *b2, uint8_t *b3);

// True when image is a zero-terminated name (found within kNameScan bytes) ending in ".png", ".jpg" or ".bmp".
bool is_file_path(const void *image);

// A raw bitmap of 64 rows of 16 bytes dealt into the strips.
void bitmap_to_strips(const uint8_t *bitmap, uint8_t strips[kStripsLen]);
// The inverse, for the tests: the strips as 64 rows of 16 bytes.
void strips_to_bitmap(const uint8_t strips[kStripsLen], uint8_t bitmap[kStripsLen]);

// The decoded pixels of a picture the display takes: at most 128 by 64, at most three channels of 8 bits.
constexpr size_t kPixelsMax = static_cast<size_t>(kWidth) * kHeight * 3;

// True when the data starts with a JPEG start-of-image marker.
bool is_jpeg(const uint8_t *data, size_t len);
// A JPEG picture decoded through libjpeg-turbo into pixels, rows one after the other with no padding: grey
// (one channel) or RGB (three). The header is read first and a picture larger than the display gives
// ZEL_DISPLAY_IMAGE_DIMENSION_ERROR before anything is decoded; data the decoder finds corrupt or cut short,
// CMYK and YCCK pictures, and anything it cannot decode give ZEL_DISPLAY_IMAGE_LOAD_ERROR. Never ends the
// process and never prints.
ZEL_STATUS jpeg_pixels(const uint8_t *data, size_t len, uint8_t pixels[kPixelsMax], int *width, int *height,
                       int *channels);

// Decodes a picture (PNG, JPEG or BMP) held in memory or in an open file (read whole, up to kFileMax bytes)
// into the strips. JPEG goes through jpeg_pixels, PNG and BMP through stb_image. Its size is read before
// anything is decoded: a picture wider than 128 or higher than 64 is refused without decoding it, and so is a
// PNG whose chunks claim more than the file holds.
ZEL_STATUS picture_from_memory(const uint8_t *data, size_t len, uint8_t strips[kStripsLen]);
ZEL_STATUS picture_from_file(std::FILE *file, uint8_t strips[kStripsLen]);
// Opens and decodes the named file.
ZEL_STATUS picture_from_path(const char *path, uint8_t strips[kStripsLen]);

// The strips of an image argument: a file name or a raw bitmap.
ZEL_STATUS image_strips(const void *image, uint8_t strips[kStripsLen]);

} // namespace zel::disp

#endif
