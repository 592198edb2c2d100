// The storage applet: seventeen numbered files on the card, read and written whole.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "javacard/jc_internal.h"
#include "tandro.h"

using namespace zel::jc;

namespace {

constexpr uint8_t kLastFile = JC_STORAGE_FILES - 1;

// The list of files: its length is the count.
ZEL_STATUS ask_list(ZEL_HANDLE hnd, uint8_t list[JC_STORAGE_FILES], uint32_t *n)
{
    return exchange(hnd, kCla, 0x31, 0, 0, nullptr, 0, list, JC_STORAGE_FILES, n);
}

// One extended read of a whole file with Le le into out (which holds le bytes). The answer must be exactly
// want bytes: any other length, a card answering more than asked included, is ZEL_PARAMETERS_ERROR.
ZEL_STATUS read_whole(ZEL_HANDLE hnd, uint8_t file, uint8_t *out, uint32_t le, uint32_t want)
{
    uint32_t ne = le;
    uint16_t sw = 0;
    const ZEL_STATUS status = APDUTransceiveForceExtendedHnd(hnd, kCla, 0x33, 0, file, nullptr, 0, out, &ne, 1, &sw);
    const uint8_t sw1 = static_cast<uint8_t>(sw), sw2 = static_cast<uint8_t>(sw >> 8);
    if (status == ZEL_BUFFER_SIZE_EXCEEDED && sw1 == 0x90 && sw2 == 0x00)
        return ZEL_PARAMETERS_ERROR;
    if (status != ZEL_OK)
        return status;
    if (sw1 != 0x90 || sw2 != 0x00)
        return ZEL_CARD_SW_BASE | static_cast<uint32_t>(sw1) << 8 | sw2;
    return ne == want ? ZEL_OK : ZEL_PARAMETERS_ERROR;
}

} // namespace

extern "C" ZEL_API ZEL_STATUS JCStorageGetFilesListSizeHnd(ZEL_HANDLE hnd, uint32_t *list_size)
{
    if (!list_size)
        return ZEL_PARAMETERS_ERROR;
    uint8_t list[JC_STORAGE_FILES];
    uint32_t n = 0;
    const ZEL_STATUS status = ask_list(hnd, list, &n);
    if (status != ZEL_OK)
        return status;
    *list_size = n;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCStorageListFilesHnd(ZEL_HANDLE hnd, uint8_t *list, int32_t list_size)
{
    if (!list)
        return ZEL_PARAMETERS_ERROR;
    uint8_t got[JC_STORAGE_FILES];
    uint32_t n = 0;
    const ZEL_STATUS status = ask_list(hnd, got, &n);
    if (status != ZEL_OK)
        return status;
    if (list_size < 0 || n != static_cast<uint32_t>(list_size))
        return ZEL_PARAMETERS_ERROR;
    std::memcpy(list, got, n);
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCStorageGetFileSizeHnd(ZEL_HANDLE hnd, uint8_t file, uint32_t *size)
{
    if (file > kLastFile || !size)
        return ZEL_PARAMETERS_ERROR;
    *size = 0;
    uint8_t reply[2];
    uint32_t n = 0;
    const ZEL_STATUS status = exchange(hnd, kCla, 0x32, 0, file, nullptr, 0, reply, sizeof reply, &n);
    if (status != ZEL_OK)
        return status;
    parse_file_size(reply, n, size); // another length leaves 0
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS JCStorageReadFileHnd(ZEL_HANDLE hnd, uint8_t file, uint8_t *data, uint32_t size)
{
    if (file > kLastFile || (!data && size))
        return ZEL_PARAMETERS_ERROR;
    // The limit asked is size + 2; the answer goes through a buffer of that size, so that a card sending
    // two bytes more than the caller's buffer holds never writes past it.
    const uint32_t le = size + 2;
    if (le > ZEL_APDU_MAX_NE)
        return ZEL_PARAMETERS_ERROR;
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(le));
    if (!buf)
        return ZEL_NO_MEMORY_ERROR;
    const ZEL_STATUS status = read_whole(hnd, file, buf, le, size);
    if (status == ZEL_OK && size)
        std::memcpy(data, buf, size);
    std::free(buf);
    return status;
}

extern "C" ZEL_API ZEL_STATUS JCStorageReadFileToFileSystemHnd(ZEL_HANDLE hnd, uint8_t file, const char *path)
{
    if (file > kLastFile || !path)
        return ZEL_PARAMETERS_ERROR;
    uint32_t size = 0;
    ZEL_STATUS status = JCStorageGetFileSizeHnd(hnd, file, &size);
    if (status != ZEL_OK)
        return status;
    // Kept as this operation has always done it: only the low byte of the size is taken, and the file
    // written is left empty. JCStorageReadFile with the real size reads a file whole.
    size &= 0xFF;
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(size ? size : 1));
    if (!buf)
        return ZEL_NO_MEMORY_ERROR;
    status = read_whole(hnd, file, size ? buf : nullptr, size, size);
    if (status == ZEL_OK) {
        errno = 0;
        std::FILE *f = std::fopen(path, "wb");
        if (!f) {
            status = errno == ENOENT ? ZEL_FILE_SYSTEM_PATH_NOT_EXISTS : ZEL_FILE_SYSTEM_ERROR;
        } else {
            std::fwrite(buf, 1, 0, f);
            std::fclose(f);
        }
    }
    std::free(buf);
    return status;
}

extern "C" ZEL_API ZEL_STATUS JCStorageWriteFileHnd(ZEL_HANDLE hnd, uint8_t file, const uint8_t *data, uint32_t size)
{
    if (file > kLastFile || (!data && size))
        return ZEL_PARAMETERS_ERROR;
    if (size > JC_STORAGE_MAX_FILE)
        return ZEL_MAX_SIZE_EXCEEDED;
    const uint8_t head[2] = {static_cast<uint8_t>((size + 2) >> 8), static_cast<uint8_t>(size + 2)};
    ZEL_STATUS status = exchange(hnd, kCla, 0x34, 0x80, file, head, 2, nullptr, 0, nullptr);
    for (uint32_t at = 0; status == ZEL_OK && at < size; at += kChunk) {
        const uint32_t rest = size - at;
        status = exchange(hnd, kCla, 0x34, 0, file, data + at, rest < kChunk ? rest : kChunk, nullptr, 0, nullptr);
    }
    return status;
}

extern "C" ZEL_API ZEL_STATUS JCStorageWriteFileFromFileSystemHnd(ZEL_HANDLE hnd, uint8_t file, const char *path)
{
    if (file > kLastFile || !path)
        return ZEL_PARAMETERS_ERROR;
    errno = 0;
    std::FILE *f = std::fopen(path, "rb");
    if (!f)
        return errno == ENOENT ? ZEL_FILE_NOT_EXISTS : ZEL_FILE_SYSTEM_ERROR;
    long len = -1;
    if (std::fseek(f, 0, SEEK_END) == 0)
        len = std::ftell(f);
    if (len < 0 || std::fseek(f, 0, SEEK_SET) != 0) {
        std::fclose(f);
        return ZEL_FILE_SYSTEM_ERROR;
    }
    if (len > JC_STORAGE_MAX_FILE) {
        std::fclose(f);
        return ZEL_MAX_SIZE_EXCEEDED;
    }
    const uint32_t size = static_cast<uint32_t>(len);
    uint8_t *buf = static_cast<uint8_t *>(std::malloc(size ? size : 1));
    if (!buf) {
        std::fclose(f);
        return ZEL_NO_MEMORY_ERROR;
    }
    const size_t got = size ? std::fread(buf, 1, size, f) : 0;
    std::fclose(f);
    ZEL_STATUS status = got == size ? ZEL_OK : ZEL_FILE_SYSTEM_ERROR;
    if (status == ZEL_OK)
        status = JCStorageWriteFileHnd(hnd, file, buf, size);
    std::free(buf);
    return status;
}

extern "C" ZEL_API ZEL_STATUS JCStorageDeleteFileHnd(ZEL_HANDLE hnd, uint8_t file)
{
    if (file > kLastFile)
        return ZEL_PARAMETERS_ERROR;
    return exchange(hnd, kCla, 0x3F, 0, file, nullptr, 0, nullptr, 0, nullptr);
}
