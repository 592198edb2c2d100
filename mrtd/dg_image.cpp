// The face image of EF.DG2 and the signature image of EF.DG7: where they lie in the file, their file and
// base-64 forms, and their JSON members.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "mrtd/mrtd_internal.h"
#include "zel_crypto.h"
#include "zel_mrtd_doc.h"
#include "zel_status.h"

namespace zel::mrtd {

namespace {

constexpr uint32_t kUnknownFormat = 0xFFFFFFFFu;

// A cursor over [p, end): every step checks what it takes against the end.
struct Cursor {
    const uint8_t *p;
    const uint8_t *end;

    uint32_t left() const { return static_cast<uint32_t>(end - p); }
    // A tag of n bytes, compared leniently: the step fails only when every byte differs.
    bool lenient_tag(const uint8_t *want, uint32_t n)
    {
        if (left() < n)
            return false;
        bool any = false;
        for (uint32_t i = 0; i < n; ++i)
            any = any || p[i] == want[i];
        p += n;
        return any;
    }
    // A length field: the value's length, which must lie inside what is left.
    bool length(uint32_t *value_len)
    {
        uint32_t ll = 0;
        if (!read_tlv_len(p, left(), &ll, value_len) || uint64_t(ll) + *value_len > left())
            return false;
        p += ll;
        return true;
    }
    // A whole object of a one-byte tag: skipped.
    bool skip_object()
    {
        if (left() < 1)
            return false;
        ++p;
        uint32_t vl = 0;
        if (!length(&vl))
            return false;
        p += vl;
        return true;
    }
};

// The file's outer tag with a length that accounts for exactly len bytes.
bool open_file(const uint8_t *file, uint32_t len, uint8_t tag, Cursor *c)
{
    if (file == nullptr || len < 2 || file[0] != tag)
        return false;
    uint32_t ll = 0, vl = 0;
    if (!read_tlv_len(file + 1, len - 1, &ll, &vl) || uint64_t(1) + ll + vl != len)
        return false;
    c->p = file + 1 + ll;
    c->end = file + len;
    return true;
}

uint32_t format_of_bytes(const uint8_t *image, uint32_t len)
{
    static const uint8_t kJpeg[3] = {0xFF, 0xD8, 0xFF};
    static const uint8_t kJp2[8] = {0x00, 0x00, 0x00, 0x0C, 0x6A, 0x50, 0x20, 0x20};
    if (len >= sizeof kJpeg && std::memcmp(image, kJpeg, sizeof kJpeg) == 0)
        return MRTD_IMAGE_JPEG;
    if (len >= sizeof kJp2 && std::memcmp(image, kJp2, sizeof kJp2) == 0)
        return MRTD_IMAGE_JPEG2000;
    return kUnknownFormat;
}

ZEL_STATUS write_image(const uint8_t *image, uint32_t image_len, uint32_t format, const char *path)
{
    const char *ext = format == MRTD_IMAGE_JPEG ? ".jpeg" : format == MRTD_IMAGE_JPEG2000 ? ".jp2" : "";
    char name[4096 + 8];
    std::snprintf(name, sizeof name, "%s%s", path, ext);
    FILE *f = std::fopen(name, "wb");
    if (f == nullptr)
        return ZEL_FILE_SYSTEM_ERROR;
    const size_t put = image_len ? std::fwrite(image, 1, image_len, f) : 0;
    const bool closed = std::fclose(f) == 0;
    return put == image_len && closed ? ZEL_OK : ZEL_FILE_SYSTEM_ERROR;
}

// Clears the outputs, checks them, and opens the data group with its tag. False when any is wrong.
bool open_image_file(const uint8_t *dg, int32_t len, uint8_t tag, const uint8_t **image, uint32_t *image_len,
                     uint32_t *format, Cursor *c)
{
    if (image)
        *image = nullptr;
    if (image_len)
        *image_len = 0;
    if (format)
        *format = kUnknownFormat;
    if (image == nullptr || image_len == nullptr || format == nullptr || len <= 0)
        return false;
    return open_file(dg, static_cast<uint32_t>(len), tag, c);
}

} // namespace

} // namespace zel::mrtd

using zel::mrtd::Cursor;

extern "C" {

ZEL_API ZEL_STATUS MRTDGetImageFromDG2(const uint8_t *dg2, int32_t len, const uint8_t **image, uint32_t *image_len,
                                       uint32_t *format)
{
    Cursor c{};
    if (!zel::mrtd::open_image_file(dg2, len, 0x75, image, image_len, format, &c))
        return MRTD_EF_DG_WRONG_DATA;
    static const uint8_t kGroupTemplate[2] = {0x7F, 0x61};
    static const uint8_t kTemplate[2] = {0x7F, 0x60};
    uint32_t vl = 0;
    // Biometric information group template, the instance count, the template, its header.
    if (!c.lenient_tag(kGroupTemplate, 2) || !c.length(&vl) || !c.skip_object() || !c.lenient_tag(kTemplate, 2) ||
        !c.length(&vl) || !c.skip_object())
        return MRTD_EF_DG_WRONG_DATA;
    // The biometric data block, 5F 2E or 7F 2E, compared as leniently as the tags before it: it fails only
    // when both bytes differ.
    if (c.left() < 2 || ((c.p[0] & 0xDF) != 0x5F && c.p[1] != 0x2E))
        return MRTD_EF_DG_WRONG_DATA;
    c.p += 2;
    uint32_t block_len = 0;
    if (!c.length(&block_len))
        return MRTD_EF_DG_WRONG_DATA;
    const uint8_t *b = c.p;
    // An ISO/IEC 19794-5 face record: header (14), facial information (20) with the count of feature points
    // at 18, the feature points (8 bytes each), image information (12) with the image data type at 1.
    if (block_len < 46)
        return MRTD_EF_DG_WRONG_DATA;
    const uint32_t points = (uint32_t(b[18]) << 8) | b[19];
    const uint32_t p = 8 * points;
    if (uint64_t(46) + p > block_len)
        return MRTD_EF_DG_WRONG_DATA;
    const uint8_t type = b[p + 35];
    if (type > 1)
        return MRTD_EF_DG_WRONG_DATA;
    *image = b + p + 46;
    *image_len = block_len - 46 - p;
    *format = type;
    return ZEL_OK;
}

ZEL_API ZEL_STATUS MRTDGetImageFromDG7(const uint8_t *dg7, int32_t len, const uint8_t **image, uint32_t *image_len,
                                       uint32_t *format)
{
    Cursor c{};
    if (!zel::mrtd::open_image_file(dg7, len, 0x67, image, image_len, format, &c))
        return MRTD_EF_DG_WRONG_DATA;
    static const uint8_t kSignature[2] = {0x5F, 0x43};
    uint32_t vl = 0;
    if (!c.skip_object() || !c.lenient_tag(kSignature, 2) || !c.length(&vl))
        return MRTD_EF_DG_WRONG_DATA;
    *image = c.p;
    *image_len = vl;
    *format = zel::mrtd::format_of_bytes(c.p, vl);
    return ZEL_OK;
}

namespace {

using ImageFinder = ZEL_STATUS (*)(const uint8_t *, int32_t, const uint8_t **, uint32_t *, uint32_t *);

// The image of a data group, found by find, into path with the extension of its format.
ZEL_STATUS image_to_file(ImageFinder find, const uint8_t *dg, uint32_t len, const char *path)
{
    if (path == nullptr)
        return ZEL_PARAMETERS_ERROR;
    if (std::strlen(path) + 5 > 4096)
        return ZEL_MAX_SIZE_EXCEEDED;
    if (len > INT32_MAX)
        return MRTD_EF_DG_WRONG_DATA;
    const uint8_t *image = nullptr;
    uint32_t image_len = 0, format = 0;
    const ZEL_STATUS st = find(dg, static_cast<int32_t>(len), &image, &image_len, &format);
    if (st != ZEL_OK)
        return st;
    return zel::mrtd::write_image(image, image_len, format, path);
}

} // namespace

ZEL_API ZEL_STATUS MRTDGetImageFromDG2ToFile(const uint8_t *dg2, uint32_t len, const char *path)
{
    return image_to_file(MRTDGetImageFromDG2, dg2, len, path);
}

ZEL_API ZEL_STATUS MRTDGetImageFromDG7ToFile(const uint8_t *dg7, uint32_t len, const char *path)
{
    return image_to_file(MRTDGetImageFromDG7, dg7, len, path);
}

ZEL_API uint32_t image_base64_encode(const uint8_t *in, uint64_t in_len, char *out, uint64_t out_cap, uint64_t *out_len)
{
    if ((in == nullptr && in_len != 0) || out == nullptr || out_len == nullptr)
        return 0xFFFFFFFFu;
    if (in_len > (UINT64_MAX - 3) / 4 * 3 - 3 || out_cap < (in_len + 2) / 3 * 4 + 1)
        return 0xFFFFFFFFu;
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    uint64_t o = 0, i = 0;
    for (; i + 3 <= in_len; i += 3) {
        const uint32_t v = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8) | in[i + 2];
        out[o++] = kAlphabet[v >> 18];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = kAlphabet[(v >> 6) & 63];
        out[o++] = kAlphabet[v & 63];
    }
    if (in_len - i == 1) {
        const uint32_t v = uint32_t(in[i]) << 16;
        out[o++] = kAlphabet[v >> 18];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = '=';
        out[o++] = '=';
    } else if (in_len - i == 2) {
        const uint32_t v = (uint32_t(in[i]) << 16) | (uint32_t(in[i + 1]) << 8);
        out[o++] = kAlphabet[v >> 18];
        out[o++] = kAlphabet[(v >> 12) & 63];
        out[o++] = kAlphabet[(v >> 6) & 63];
        out[o++] = '=';
    }
    out[o] = '\0';
    *out_len = o;
    return 0;
}

ZEL_API ZEL_STATUS parse_dg_image_to_JSON(uint8_t tag, const uint8_t *dg, uint32_t len, char **json, uint8_t flat)
{
    if (json)
        *json = nullptr;
    if (dg == nullptr || json == nullptr || len == 0)
        return ZEL_PARAMETERS_ERROR;
    if (len > INT32_MAX)
        return MRTD_EF_DG_WRONG_DATA;
    const uint8_t *image = nullptr;
    uint32_t image_len = 0, format = 0;
    const bool face = tag == 0x75;
    const ZEL_STATUS st = face ? MRTDGetImageFromDG2(dg, static_cast<int32_t>(len), &image, &image_len, &format)
                               : MRTDGetImageFromDG7(dg, static_cast<int32_t>(len), &image, &image_len, &format);
    if (st != ZEL_OK)
        return st;
    if (image == nullptr || image_len == 0)
        return MRTD_EF_DG_WRONG_DATA;
    const uint64_t b64_cap = (uint64_t(image_len) + 2) / 3 * 4 + 1;
    char *b64 = static_cast<char *>(std::malloc(b64_cap));
    if (b64 == nullptr)
        return ZEL_NO_MEMORY_ERROR;
    uint64_t b64_len = 0;
    image_base64_encode(image, image_len, b64, b64_cap, &b64_len);
    const char *key = face ? "image" : "displayed_signature";
    const char *mime = GetMimeType(format);
    const int index = MRTDGetDgIndex(tag);
    // The fragment's size: base-64, key, twice the MIME text and the fixed characters.
    const uint64_t cap = b64_len + std::strlen(key) + 2 * std::strlen(mime) + 64;
    char *out = static_cast<char *>(std::malloc(cap));
    if (out == nullptr) {
        std::free(b64);
        return ZEL_NO_MEMORY_ERROR;
    }
    const int n =
        flat ? std::snprintf(out, cap, "\"image_type\":\"%s\",\"%s\":\"data:%s;base64,%s\"", mime, key, mime, b64)
             : std::snprintf(out, cap, "\"DG%d\":{\"image_type\":\"%s\",\"%s\":\"data:%s;base64,%s\"}", index, mime,
                             key, mime, b64);
    std::free(b64);
    if (n < 0 || uint64_t(n) >= cap) {
        std::free(out);
        return ZEL_BUFFER_SIZE_EXCEEDED;
    }
    *json = out;
    return ZEL_OK;
}

} // extern "C"
