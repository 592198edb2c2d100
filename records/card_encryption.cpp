// Encrypted card images for a job: the reader keeps the job and makes each image; the library sends the
// time window and reads the image back.
#include <cstring>

#include "core/bytes.h"
#include "core/frame.h"
#include "core/internal.h"
#include "records/records_internal.h"
#include "tandro.h"

using namespace zel;
using namespace zel::records;

namespace {

// Sends cmd with the EXT data (len bytes, checksum added), waits 5 ms for the reader to make the image and
// reads the reply's EXT into ext (256 bytes); its length (checksum included) goes to ext_len.
ZEL_STATUS image_exchange(ZEL_HANDLE hnd, uint8_t cmd, const uint8_t *data, uint8_t len, uint8_t *ext, uint8_t *ext_len)
{
    uint8_t frame[kFrameLen];
    ZEL_STATUS status = send_with_ext(hnd, frame, cmd, 0, data, len);
    if (status != ZEL_OK)
        return status;
    os_sleep(5);
    if ((status = GetAndTestResponseIntro(hnd, frame, cmd)) != ZEL_OK)
        return status;
    // The image is the EXT: a reply without one carries nothing to read.
    if (frame[kExtLen] == 0)
        return ZEL_COMMUNICATION_ERROR;
    if ((status = GetAndTestResponseData(hnd, frame[kExtLen], ext)) != ZEL_OK)
        return status;
    *ext_len = frame[kExtLen];
    return ZEL_OK;
}

// The serial number exchange of 0xA2 and 0xA3: a reply EXT of exactly want bytes, else 15.
ZEL_STATUS serial_exchange(ZEL_HANDLE hnd, uint8_t cmd, uint8_t want, uint8_t *ext)
{
    uint8_t frame[kFrameLen];
    make_command(frame, cmd);
    uint8_t ext_len = 0;
    ZEL_STATUS status = InitialHandshaking(hnd, frame, &ext_len);
    if (status != ZEL_OK)
        return status;
    if (ext_len != want)
        return ZEL_PARAMETERS_ERROR;
    return GetAndTestResponseData(hnd, ext_len, ext);
}

} // namespace

extern "C" ZEL_API ZEL_STATUS CardEncryption_InitializeHnd(ZEL_HANDLE, const uint8_t *, uint32_t)
{
    return ZEL_NOT_IMPLEMENTED;
}

extern "C" ZEL_API ZEL_STATUS CardEncryption_GetJobSNHnd(ZEL_HANDLE hnd, uint32_t *job_sn)
{
    if (!job_sn)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = serial_exchange(hnd, kJobSN, kJobExt, ext);
    if (status == ZEL_OK)
        *job_sn = get_le16(ext);
    return status;
}

// The same record as the job number: its small value and the salter's number follow the job.
extern "C" ZEL_API ZEL_STATUS CardEncryption_GetSalterSNHnd(ZEL_HANDLE hnd, uint8_t *salter_sn, uint8_t *small_value)
{
    if (!salter_sn || !small_value)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = serial_exchange(hnd, kJobSN, kJobExt, ext);
    if (status == ZEL_OK) {
        *small_value = ext[2];
        std::memcpy(salter_sn, ext + 3, 8);
    }
    return status;
}

extern "C" ZEL_API ZEL_STATUS CardEncryption_GetActualCardSNHnd(ZEL_HANDLE hnd, uint32_t *card_sn, uint32_t *card_sn_15)
{
    if (!card_sn || !card_sn_15)
        return ZEL_PARAMETERS_ERROR;
    uint8_t ext[256];
    const ZEL_STATUS status = serial_exchange(hnd, kActualCardSN, kCardSNExt, ext);
    if (status != ZEL_OK)
        return status;
    *card_sn = get_le32(ext);
    *card_sn_15 = *card_sn & 0x7FFF;
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS CardEncryption_GetNextEncryptedCardHnd(ZEL_HANDLE hnd, uint32_t from_time,
                                                                     uint32_t to_time, char *card_text)
{
    if (!card_text)
        return ZEL_PARAMETERS_ERROR;
    uint32_t start = 0, duration = 0;
    ZEL_STATUS status = encryption_window(from_time, to_time, &start, &duration);
    if (status != ZEL_OK)
        return status;
    uint8_t window[6];
    put_le24(window, start);
    put_le24(window + 3, duration);
    uint8_t ext[256], ext_len = 0;
    if ((status = image_exchange(hnd, kNextEncrypted, window, sizeof window, ext, &ext_len)) != ZEL_OK)
        return status;
    std::memcpy(card_text, ext, ext_len - 1u);
    card_text[ext_len - 1] = '\0';
    return ZEL_OK;
}

extern "C" ZEL_API ZEL_STATUS CardEncryption_GetNextHnd(ZEL_HANDLE hnd, uint32_t parameter, uint32_t from_time,
                                                        uint32_t to_time, uint32_t size, const uint8_t *data,
                                                        uint32_t *card_len, char *card_text)
{
    if (size > 4)
        return ZEL_PARAMETERS_ERROR;
    if (!card_len || !card_text || (size && !data))
        return ZEL_PARAMETERS_ERROR;
    uint32_t start = 0, duration = 0;
    ZEL_STATUS status = encryption_window(from_time, to_time, &start, &duration);
    if (status != ZEL_OK)
        return status;
    uint8_t req[14 + 4];
    put_le24(req, start);
    put_le24(req + 3, duration);
    put_le32(req + 6, parameter);
    put_le32(req + 10, size);
    if (size)
        std::memcpy(req + 14, data, size);
    uint8_t ext[256], ext_len = 0;
    if ((status = image_exchange(hnd, kGetNext, req, static_cast<uint8_t>(14 + size), ext, &ext_len)) != ZEL_OK)
        return status;
    return read_card_image(ext, ext_len, card_text, card_len);
}
