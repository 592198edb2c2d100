// The reply readers of tag emulation and the network module against arbitrary reader bytes: the shared RAM
// read, the field state, the RAM form's prompts, the configuration backup (its 16-bit length), the restore
// answer, progress frames and the module's EEPROM read. The first input byte picks the operation; every
// buffer is allocated at exactly the size the caller promises, so a write past it is caught.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const uint8_t op = data[0] % 10;
    const uint8_t len = static_cast<uint8_t>(data[0] / 10 * 11); // 0 to 275, wrapped to a byte
    zel::set_sleep_hook([](uint32_t) {});
    zelfuzz::FuzzLink link(data + 1, size - 1);
    ZEL_HANDLE h = &link.record;
    uint8_t v[6];
    uint16_t result = 0;
    switch (op) {
    case 0: {
        uint8_t *buf = static_cast<uint8_t *>(std::malloc(len ? len : 1));
        ReadShareRamM(h, buf, 0, len);
        std::free(buf);
        break;
    }
    case 1: GetExternalFieldStateM(h, v); break;
    case 2: GetAdHocEmulationParamsM(h, v, v + 1, v + 2, v + 3, v + 4); break;
    case 3: {
        const std::vector<uint8_t> payload(600 + len, 0x41);
        const uint8_t type = 'T';
        WriteEmulationNdefRamM(h, 1, &type, 1, nullptr, 0, payload.data(), static_cast<uint32_t>(payload.size()));
        break;
    }
    case 4: {
        uint8_t *buf = static_cast<uint8_t *>(std::malloc(ZEL_ESP_BACKUP_MAX));
        EspBackupConfigurationHnd(h, buf);
        std::free(buf);
        break;
    }
    case 5: EspRestoreConfigurationHnd(h, "wifi.ssid=fuzz\n"); break;
    case 6: EspReadProgressHnd(h, v); break;
    case 7: {
        const uint32_t n = len % 129u;
        uint8_t *buf = static_cast<uint8_t *>(std::calloc(n ? n : 1, 1));
        EspReaderEepromReadM(h, buf, 0, n);
        std::free(buf);
        break;
    }
    case 8: EspGetIOStateM(h, v); break;
    default: EspStopStreamHnd(h, ZEL_ESP_SELF, &result); break;
    }
    return 0;
}
