// Pure pieces of the network link: host texts and discovery replies.
#ifndef ZEL_TRANSPORT_NET_H
#define ZEL_TRANSPORT_NET_H

#include <cstddef>
#include <cstdint>

namespace zel {

struct HostText {
    char host[64];
    uint32_t port;      // the reader's port
    int32_t local_port; // -1 when none was given
};
// host, host:port or host:port:localport. False when a port is not a number from 1 to 65535 (the local
// port may be 0), or the host does not fit.
bool parse_host_text(const char *text, HostText *out);

struct DiscoveryReply {
    char address[16]; // "a.b.c.d"
    uint32_t port;
    uint8_t protocol; // 'T' or 'U', as the reader sent it
    char serial[9];   // empty for the short reply
};
// A discovery reply of 19 or 28 bytes; any other length is not one.
bool parse_discovery_reply(const uint8_t *data, size_t len, DiscoveryReply *out);

} // namespace zel

#endif
