// Network readers: discovery on the local network, the open of a network reader by address or serial
// number, and the broadcast search that fills the reader list.
#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <initializer_list>
#include <cstdlib>
#include <cstring>

#include "core/internal.h"
#include "transport/net.h"
#include "zel_net.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_reader.h"
#include "zel_status.h"

using namespace zel;

namespace {

constexpr uint32_t kDiscoveryWaitMs = 1000;
constexpr uint32_t kDiscoveryRecvMs = 80;
constexpr uint32_t kListSourcePortFirst = ZEL_NET_FIRST_SOURCE_PORT;
constexpr int kListRecords = 64;

enum class Discovery { found, none, socket_failed };

// One discovery round: the request to target (a broadcast or a reader's address) and the replies for up to
// a second. With wanted empty the first reply is taken, otherwise the one with that serial number. The socket
// stays unconnected: the sender of each reply is what is learnt.
Discovery discover(const char *target, const char *wanted, DiscoveryReply *found)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return Discovery::socket_failed;
    const int on = 1;
    setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    timeval tv{0, static_cast<suseconds_t>(kDiscoveryRecvMs * 1000)};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr.s_addr = htonl(INADDR_ANY);
    local.sin_port = htons(ZEL_NET_DISCOVERY_SOURCE_PORT);
    sockaddr_in remote{};
    remote.sin_family = AF_INET;
    remote.sin_port = htons(ZEL_NET_DISCOVERY_PORT);
    if (bind(fd, reinterpret_cast<const sockaddr *>(&local), sizeof local) != 0 ||
        inet_pton(AF_INET, target, &remote.sin_addr) != 1) {
        close(fd);
        return Discovery::socket_failed;
    }
    static const uint8_t kRequest[2] = {0x41, 0x00};
    (void)sendto(fd, kRequest, sizeof kRequest, 0, reinterpret_cast<const sockaddr *>(&remote), sizeof remote);
    const uint32_t start = tick_ms();
    bool ok = false;
    // Every round waits up to its receive time-out, so the count of rounds bounds the loop on a stopped clock.
    for (uint32_t round = 0; !ok && tick_ms() - start < kDiscoveryWaitMs && round < 4 * kDiscoveryWaitMs; ++round) {
        uint8_t reply[1024];
        const ssize_t n = recv(fd, reply, sizeof reply, 0);
        if (n <= 0)
            continue;
        DiscoveryReply r{};
        if (!parse_discovery_reply(reply, static_cast<size_t>(n), &r))
            continue;
        dp(6, "%s:%u", r.address, r.port);
        if (!wanted || !*wanted || std::strncmp(wanted, r.serial, 8) == 0) {
            *found = r;
            ok = true;
        }
    }
    close(fd);
    return ok ? Discovery::found : Discovery::none;
}

bool serial_is(zel_handle_record *hnd, const char *wanted)
{
    uint8_t serial[8] = {};
    return GetReaderSerialDescriptionHnd(hnd, serial) == ZEL_OK &&
           std::strncmp(reinterpret_cast<const char *>(serial), wanted, 8) == 0;
}

// The reader list: heap copies of opened records, in the order they were added.
struct ListNode {
    zel_handle_record record;
    ListNode *next;
};
ListNode *g_list = nullptr;

} // namespace

extern "C" ZEL_API uint32_t list_size(void)
{
    uint32_t n = 0;
    for (const ListNode *p = g_list; p; p = p->next)
        ++n;
    return n;
}

extern "C" ZEL_API ZEL_HANDLE list_get_by_idx(uint32_t index)
{
    ListNode *p = g_list;
    while (p && index--)
        p = p->next;
    return p ? &p->record : nullptr;
}

extern "C" ZEL_API ZEL_HANDLE appendToEnd(const zel_handle_record *record)
{
    if (!record)
        return nullptr;
    auto *node = static_cast<ListNode *>(std::calloc(1, sizeof(ListNode)));
    if (!node)
        return nullptr;
    node->record = *record;
    ListNode **tail = &g_list;
    while (*tail)
        tail = &(*tail)->next;
    *tail = node;
    return &node->record;
}

extern "C" ZEL_API int removeData(ZEL_HANDLE hnd)
{
    for (ListNode **p = &g_list; *p; p = &(*p)->next) {
        if (&(*p)->record == hnd) {
            ListNode *gone = *p;
            *p = gone->next;
            std::free(gone);
            return 1;
        }
    }
    return 0;
}

extern "C" ZEL_API ZEL_STATUS OpenZelNetReader_auto(ZEL_HANDLE hnd, const char *port_name, uint32_t port_interface,
                                                    const char *arg)
{
    (void)arg;
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    udp_close(hnd);
    (void)ReaderCloseHnd(hnd);
    char target[64];
    std::snprintf(target, sizeof target, "%s", get_local_net_addr());
    const char *wanted = nullptr;
    if (port_name && *port_name) {
        if (std::strncmp(port_name, "ON", 2) == 0)
            wanted = port_name;
        else
            std::snprintf(target, sizeof target, "%s", port_name);
    }
    DiscoveryReply r{};
    if (discover(target, wanted, &r) != Discovery::found)
        return ZEL_READER_OPENING_ERROR;
    const uint32_t iface = port_interface ? port_interface : r.protocol;
    char address[32];
    std::snprintf(address, sizeof address, "%s", r.address);
    ZEL_STATUS status = ReaderOpenExHnd(hnd, 0, address, iface, nullptr);
    if (status != ZEL_OK || !wanted)
        return status;
    if (serial_is(hnd, wanted))
        return ZEL_OK;
    // The second reader unit of the device listens on the second frame port.
    std::snprintf(address, sizeof address, "%s:%d", r.address, ZEL_NET_FRAME_PORT2);
    (void)ReaderCloseHnd(hnd);
    if ((status = ReaderOpenExHnd(hnd, 0, address, iface, nullptr)) != ZEL_OK)
        return status;
    return serial_is(hnd, wanted) ? ZEL_OK : ZEL_READER_OPENING_ERROR;
}

extern "C" ZEL_API ZEL_STATUS ReaderOpen_ZelNetHnd(ZEL_HANDLE hnd, uint32_t flag, const char *serial)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    DiscoveryReply r{};
    const Discovery d = discover(get_local_net_addr(), serial, &r);
    // A socket that cannot be set up is a failure of its own, not a reader that is elsewhere.
    if (d == Discovery::socket_failed)
        return ZEL_READER_OPENING_ERROR;
    if (d == Discovery::found) {
        char address[32];
        std::snprintf(address, sizeof address, "%s", r.address);
        const ZEL_STATUS status = ReaderOpenExHnd(hnd, 0, address, r.protocol, nullptr);
        if (status == ZEL_OK || flag)
            return status;
    } else if (flag) {
        return ZEL_READER_OPENING_ERROR;
    }
    // Not on the network: a reader on USB may do.
    return ReaderOpenExHnd(hnd, 1, nullptr, 0, nullptr);
}

extern "C" ZEL_API ZEL_STATUS ReaderOpen_ZelNet(const char *serial)
{
    dp(0, "API begin: %s()", __func__);
    zel_handle_record record;
    zel_handle_init(&record);
    udp_close(&record);
    (void)ReaderCloseHnd(&zel_global);
    const ZEL_STATUS status = ReaderOpen_ZelNetHnd(&record, 0, serial);
    if (status == ZEL_OK)
        zel_global = record;
    return status;
}

extern "C" ZEL_API uint32_t udp_reader_list(void)
{
    // The reader-type command, ready with its checksum, as the probe.
    static const uint8_t kProbe[7] = {0x55, 0x10, 0xAA, 0x00, 0x00, 0x00, 0xF6};
    static zel_handle_record records[kListRecords];
    static int next_record = 0;
    uint32_t source_port = kListSourcePortFirst;
    uint32_t added = 0;
    for (const uint32_t port :
         {static_cast<uint32_t>(ZEL_NET_FRAME_PORT), static_cast<uint32_t>(ZEL_NET_FRAME_PORT2)}) {
        zel_handle_record probe;
        zel_handle_init(&probe);
        char text[64];
        std::snprintf(text, sizeof text, "%s:%u:%u", "255.255.255.255", port, source_port);
        // The probe hears every reader that answers, so its socket is not tied to one peer.
        const ZEL_STATUS st = udp_setup(&probe, text, 'U', false);
        dp(6, "BROADCAST::udp_init(%s):= %s", text, ZEL_Status2String(st));
        ++source_port;
        if (st != ZEL_OK) {
            udp_close(&probe);
            continue;
        }
        udp_set_timeout_ms(&probe, 200);
        if (udp_tx(&probe, kProbe, sizeof kProbe) < 0) {
            udp_close(&probe);
            continue;
        }
        // Each answer names a reader by its sender address; the answers themselves are not needed.
        for (int answers = 0; answers < kListRecords; ++answers) {
            sockaddr_in from{};
            socklen_t from_len = sizeof from;
            uint8_t buf[64];
            const ssize_t n =
                recvfrom(probe.udp_socket, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &from_len);
            if (n < 0)
                break;
            if (n == 0 || from.sin_family != AF_INET)
                continue;
            char address[INET_ADDRSTRLEN] = {};
            inet_ntop(AF_INET, &from.sin_addr, address, sizeof address);
            std::snprintf(text, sizeof text, "%s:%u:%u", address, port, source_port);
            zel_handle_record &rec = records[next_record % kListRecords];
            zel_handle_init(&rec);
            if (udp_init(&rec, 0, text, 'U', nullptr) != ZEL_OK) {
                udp_close(&rec);
                continue;
            }
            udp_set_timeout_ms(&rec, 250);
            (void)GetReaderSerialDescriptionHnd(&rec, reinterpret_cast<uint8_t *>(rec.serial));
            if (appendToEnd(&rec))
                ++added;
            ++next_record;
            ++source_port;
        }
        udp_close(&probe);
    }
    return added;
}
