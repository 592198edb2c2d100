// The NDEF card-image readers against arbitrary reader bytes: the card type the reader names, then the
// application directory and sector reads of MIFARE Classic, the capability container and data area of Type 2
// and vicinity tags, the Type 4 container and NDEF files, and the DESFire NDEF file. Output buffers have
// exactly their documented sizes, so that a byte past them is caught; waits between retries are skipped.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1 || size > 200000)
        return 0;
    zelfuzz::QuickTime quick(0);
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    const uint8_t op = data[0];
    switch (op % 4) {
    case 0: {
        uint8_t messages = 0, records = 0, empty = 0;
        std::vector<uint8_t> array(ZEL_NDEF_RECORD_ARRAY_LEN);
        if (get_ndef_record_countHnd(h, &messages, &records, array.data(), &empty) == ZEL_OK && empty > messages)
            std::abort();
        break;
    }
    case 1: {
        std::vector<uint8_t> type(255), id(255), payload(ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK);
        uint8_t tnf = 0, type_len = 0, id_len = 0;
        uint32_t payload_len = 0;
        const uint8_t message_nr = op >> 2 & 3, record_nr = op >> 4 & 7;
        if (read_ndef_recordHnd(h, message_nr, record_nr, &tnf, type.data(), &type_len, id.data(), &id_len,
                                payload.data(), &payload_len) == ZEL_OK &&
            (tnf > 7 || payload_len > ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK))
            std::abort();
        break;
    }
    case 2: {
        std::vector<uint8_t> message(ZEL_DESFIRE_NDEF_MAX_MESSAGE);
        uint32_t len = 0;
        if (Zel_int_DesfireReadNDEFMessageHnd(h, message.data(), &len) == ZEL_OK && len > message.size())
            std::abort();
        break;
    }
    case 3: {
        const uint32_t cap = 1u + (op >> 2) * 40u;
        std::vector<char> payload(cap);
        uint32_t n = cap;
        const ZEL_STATUS st = Zel_int_DesfireReadNDEFPayloadExHnd(h, payload.data(), &n);
        if (st == ZEL_OK && (n > cap || std::strlen(payload.data()) >= cap))
            std::abort();
        std::vector<char> whole(ZEL_DESFIRE_NDEF_MAX_PAYLOAD + 1);
        (void)Zel_int_DesfireReadNDEFPayloadHnd(h, whole.data());
        break;
    }
    }
    return 0;
}
