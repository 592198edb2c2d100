// tandro discover: the network readers that answer a broadcast on this network.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "zelsim.h"

namespace {

// Whether a broadcast can leave this machine at all: a datagram socket connected to the broadcast address
// asks the routing table without sending anything. Empty when it can, else the system's reason.
std::string broadcast_problem()
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return std::strerror(errno);
    const int on = 1;
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(ZEL_NET_FRAME_PORT);
    to.sin_addr.s_addr = htonl(INADDR_BROADCAST);
    std::string why;
    if (setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0 ||
        connect(fd, reinterpret_cast<const sockaddr *>(&to), sizeof to) != 0)
        why = std::strerror(errno);
    close(fd);
    return why;
}

const tandro::OptionTable TABLE = {
    {
        {"", "broadcasts on the local network and lists each reader that answers: address, port, serial, type"},
    },
    {},
    "With --sim the simulated reader answers on the network readers' own UDP port first, as one would. The "
    "exit status is 1 when a broadcast cannot be sent from this machine; no answer is not a failure.",
};

int run_discover(const tandro::Options &opt, const tandro::Args &all)
{
    tandro::Parsed parsed;
    if (!tandro::parse("discover", TABLE, all, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("discover", "takes no arguments");
    zsim *sim = nullptr;
    if (opt.sim) {
        // The simulated reader on the network reader's own port, as a network reader would be.
        sim = zsim_new();
        char err[256] = {};
        if (!sim ||
            (!opt.sim_scenario.empty() && zsim_load_scenario_file(sim, opt.sim_scenario.c_str(), err, sizeof err)) ||
            zsim_serve_udp(sim, "0.0.0.0", ZEL_NET_FRAME_PORT, nullptr) != 0) {
            zsim_free(sim);
            return tandro::usage_error("discover", "the simulated reader could not take UDP port " +
                                                       std::to_string(ZEL_NET_FRAME_PORT) + (err[0] ? ": " : "") + err);
        }
        if (opt.sim_scenario.empty())
            zsim_set_serial_description(sim, "SIM00001");
    }
    // The search answers only a count: a broadcast that cannot go out is found out here, not taken for
    // a network without readers.
    if (const std::string why = broadcast_problem(); !why.empty()) {
        zsim_free(sim);
        return tandro::fail_text("discover", "a broadcast cannot be sent: " + why, ZEL_COMMUNICATION_ERROR);
    }
    const uint32_t before = list_size();
    const uint32_t found = udp_reader_list();
    if (opt.json)
        std::printf("[");
    for (uint32_t i = 0; i < found; ++i) {
        ZEL_HANDLE h = list_get_by_idx(before + i);
        if (!h)
            continue;
        char address[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &h->udp_remote.sin_addr, address, sizeof address);
        const unsigned port = ntohs(h->udp_remote.sin_port);
        const std::string serial(h->serial, h->serial + 8);
        uint32_t type = 0;
        char type_text[16] = "?";
        if (GetReaderTypeM(h, &type) == ZEL_OK)
            std::snprintf(type_text, sizeof type_text, "%08X", type);
        if (opt.json)
            std::printf("%s{\"address\": %s, \"port\": %u, \"serial\": %s, \"reader_type\": %s}", i ? ", " : "",
                        tandro::json_string(address).c_str(), port, tandro::json_string(serial).c_str(),
                        type_text[0] == '?' ? "null" : tandro::json_string(type_text).c_str());
        else
            std::printf("%-15s port %-5u serial %-8s type %s\n", address, port, serial.c_str(), type_text);
        udp_close(h);
    }
    if (opt.json)
        std::printf("]\n");
    else if (found == 0)
        std::printf("no network reader answered\n");
    while (list_size() > before)
        removeData(list_get_by_idx(before));
    zsim_free(sim);
    return 0;
}

const tandro::Registration discover_cmd({"discover", "", "network readers that answer a broadcast", run_discover, false,
                                         &TABLE});

} // namespace
