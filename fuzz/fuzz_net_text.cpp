// Host texts and discovery replies: whatever the bytes, no overrun and a consistent result.
#include <cstring>
#include <string>

#include "transport/net.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    zel::DiscoveryReply reply{};
    if (zel::parse_discovery_reply(data, size, &reply)) {
        if (std::strlen(reply.address) > 15 || std::strlen(reply.serial) > 8)
            __builtin_trap();
    }
    const std::string text(reinterpret_cast<const char *>(data), size);
    zel::HostText host{};
    if (zel::parse_host_text(text.c_str(), &host)) {
        if (std::strlen(host.host) >= sizeof host.host || host.port == 0 || host.port > 65535)
            __builtin_trap();
    }
    return 0;
}
