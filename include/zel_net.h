/* Network readers: the socket set-up and the address of the local network. */
#ifndef ZEL_NET_H
#define ZEL_NET_H

#include "zel_handle.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Discovery: the reader listens on 8880; frames go to 8881 (and 8882 for a second reader unit). */
#define ZEL_NET_DISCOVERY_PORT 8880
#define ZEL_NET_FRAME_PORT 8881
#define ZEL_NET_FRAME_PORT2 8882
#define ZEL_NET_DISCOVERY_SOURCE_PORT 55511
#define ZEL_NET_FIRST_SOURCE_PORT 55515

/* Sets up the record's socket to a reader: host, host:port or host:port:localport (port 8881 when none
 * is given). port_interface 'T' connects a TCP stream, 'U' binds a UDP socket. The reader is woken with one
 * zero byte. ZEL_OK, or ZEL_COMMAND_FAILED when the socket cannot be set up. */
ZEL_API ZEL_STATUS udp_init(ZEL_HANDLE hnd, uint32_t reader_type, const char *host, uint32_t port_interface,
                            const char *arg);
/* The local IPv4 address (first interface that is not loopback; the loopback address when there is none)
 * as text into out. 0, or 1 when no address can be had. */
ZEL_API int getlocalip(char *out, uint32_t out_len);
/* The local network's broadcast text: the local address with its last octet 255. Static buffer. */
ZEL_API const char *get_local_net_addr(void);

#ifdef __cplusplus
}
#endif
#endif
