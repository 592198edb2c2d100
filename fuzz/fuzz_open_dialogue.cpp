// The dialogue of an open against arbitrary reader bytes, on a link that is already there: the network
// module's session switch, the reset (the line pulse and the wait for the boot bytes, or the module's own
// reset), the firmware and serial number tests that accept a reader, the module's reader list, and the
// presence test. The open's argument text is parsed from the input as well. Waits are skipped and the clock
// runs fast, so that every wait ends after a few rounds.
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/internal.h"
#include "fuzz_link.h"
#include "tandro.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 20000)
        return 0;
    zelfuzz::QuickTime quick(7);
    {
        const uint8_t pick = data[0];
        // The open's argument: a text of up to 48 bytes from the input when asked for.
        const size_t arg_len = pick & 0x80 ? data[1] % 49 : 0;
        if (arg_len > size - 2)
            return 0;
        const std::string arg(reinterpret_cast<const char *>(data + 2), arg_len);
        zelfuzz::FuzzLink link(data + 2 + arg_len, size - 2 - arg_len, true);
        ZEL_HANDLE h = &link.record;
        if (arg_len)
            parse_open_arg(h, arg.c_str());
        h->reset_on_open = pick >> 4 & 3;
        h->esp_session = pick >> 6 & 1;
        switch (pick % 8) {
        case 0:
            if (test_reader_fw_version(h) == ZEL_OK && h->serial[8] != 0)
                std::abort();
            break;
        case 1: test_reader_sn(h); break;
        case 2: test_esp_sn(h); break;
        case 3:
            ReaderResetHnd(h);
            test_reader_fw_version(h);
            break;
        case 4: ReaderWaitForBootSeqHnd(h, pick & 8 ? 1 : 0); break;
        case 5: {
            uint32_t connected = 7;
            const ZEL_STATUS st = ReaderStillConnectedHnd(h, &connected);
            if (connected != (st == ZEL_OK ? 1u : 0u))
                std::abort();
            break;
        }
        case 6:
            ReaderSoftRestartHnd(h);
            ReaderResetNoWaitFWHnd(h);
            break;
        default:
            EspSetTransparentReaderSessionHnd(h, pick >> 3 & 1);
            test_reader_fw_version(h);
            test_reader_sn(h);
            break;
        }
    }
    return 0;
}
