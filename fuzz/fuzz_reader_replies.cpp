// The replies of the reader identity and configuration commands against arbitrary reader bytes. Every
// output buffer is allocated to exactly its documented size, so that a byte written past it is caught; the
// texts handed out must end within their buffers.
#include <cstdlib>
#include <cstring>

#include "fuzz_link.h"
#include "tandro.h"

namespace {

// A heap buffer of exactly n bytes.
struct Exact {
    explicit Exact(size_t n) : p(static_cast<uint8_t *>(std::malloc(n ? n : 1))) {}
    ~Exact() { std::free(p); }
    Exact(const Exact &) = delete;
    Exact &operator=(const Exact &) = delete;
    uint8_t *p;
};

void identity(ZEL_HANDLE h, unsigned op)
{
    switch (op) {
    case 0: {
        uint32_t type = 0, serial = 0;
        GetReaderTypeHnd(h, &type);
        GetReaderSerialNumberHnd(h, &serial);
        break;
    }
    case 1: {
        Exact d(8);
        GetReaderSerialDescriptionHnd(h, d.p);
        break;
    }
    case 2: {
        uint8_t major = 0, minor = 0, build = 0, hw_type = 0, hw_version = 0;
        GetReaderFirmwareVersionHnd(h, &major, &minor);
        GetBuildNumberHnd(h, &build);
        GetReaderHardwareVersionHnd(h, &hw_type, &hw_version);
        break;
    }
    case 3:
    case 4:
    case 5: {
        Exact mui(op == 4 ? 16 : 24);
        uint64_t serial = 0;
        uint8_t hw_type = 0, hw_version = 0, major = 0, minor = 0, build = 0;
        uint32_t device_type = 0;
        if (op == 3)
            GetReaderParametersHnd(h, mui.p, &serial, &hw_type, &hw_version, &device_type, &major, &minor, &build);
        else if (op == 4)
            GetReaderParameters2Hnd(h, mui.p, &serial, &hw_type, &hw_version, &device_type, &major, &minor, &build);
        else
            GetReaderParametersDefaultBaudrateHnd(h, mui.p, &serial, &hw_type, &hw_version, &device_type, &major,
                                                  &minor, &build);
        break;
    }
    case 6: {
        uint32_t mode = 0;
        uint16_t raw = 0;
        GetReaderProModeHnd(h, &mode, &raw);
        break;
    }
    case 7: {
        const char *text = nullptr;
        if (GetReaderInfoStrHnd(h, &text) == ZEL_OK && (text == nullptr || std::strlen(text) > 4096))
            std::abort();
        break;
    }
    }
}

void configuration(ZEL_HANDLE h, unsigned op, uint8_t arg)
{
    switch (op) {
    case 0: {
        const uint32_t n = 1u + arg % 128u;
        Exact d(n);
        ReaderEepromReadHnd(h, d.p, arg, n);
        break;
    }
    case 1: {
        Exact d(arg & 1 ? 32 : 16);
        ReadUserDataHnd(h, d.p, arg & 1);
        break;
    }
    case 2: {
        Exact t(6);
        GetReaderTimeHnd(h, t.p);
        break;
    }
    case 3: {
        uint32_t send = 0, prefix_on = 0, removed = 0, baud = 0, reverse = 0, decimal = 0;
        uint8_t prefix = 0, suffix = 0;
        GetAsyncCardIdSendConfigHnd(h, &send, &prefix_on, &prefix, &suffix, &removed, &baud);
        GetAsyncCardIdSendConfigExHnd(h, &send, &prefix_on, &prefix, &suffix, &removed, &reverse, &decimal, &baud);
        GetAsyncCardJsonSendConfigHnd(h, &send, &removed, &baud);
        break;
    }
    case 4: {
        Exact c(7);
        GetCustomUiConfigHnd(h, c.p);
        uint8_t tx = 0, rx = 0;
        GetSpeedParametersHnd(h, &tx, &rx);
        break;
    }
    case 5: {
        uint32_t reader = 0, card = 0, emulation = 0;
        uint8_t sleep = 0;
        GetReaderStatusHnd(h, &reader, &card, &emulation, &sleep);
        Exact s(ZEL_READER_STATUS_EX_MAX_LEN);
        uint8_t len = 0;
        if (GetReaderStatusExHnd(h, s.p, &len) == ZEL_OK && len > ZEL_READER_STATUS_EX_MAX_LEN)
            std::abort();
        break;
    }
    case 6: {
        const uint32_t n = 1u + arg;
        Exact d(n);
        EE_ReadHnd(h, arg * 4u, n, d.p);
        break;
    }
    case 7: {
        CheckUidChangeableHnd(h);
        ReaderRfResetHnd(h, arg & 3);
        const uint8_t password[8] = {'1', '1', '1', '1', '1', '1', '1', '1'};
        ReaderKeysUnlockHnd(h, password);
        break;
    }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 2 || size > 20000)
        return 0;
    zelfuzz::QuickTime quick(0);
    zelfuzz::FuzzLink link(data + 2, size - 2);
    ZEL_HANDLE h = &link.record;
    const unsigned op = data[0] % 16;
    if (op < 8)
        identity(h, op);
    else
        configuration(h, op - 8, data[1]);
    return 0;
}
