// Pieces of the network link: host texts, discovery replies and the socket set-up.
#ifndef ZEL_TRANSPORT_NET_H
#define ZEL_TRANSPORT_NET_H

#include <cstddef>
#include <cstdint>

#include "zel_types.h"

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

// The socket set-up of udp_init. With one_peer a datagram socket is connected to the reader's address, so
// that only its datagrams are taken; without it the socket hears any sender (a broadcast probe learns the
// readers from their replies).
ZEL_STATUS udp_setup(zel_handle_record *hnd, const char *host, uint32_t port_interface, bool one_peer);

} // namespace zel

#endif
