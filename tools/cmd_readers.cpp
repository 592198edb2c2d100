// tandro readers: every reader found, FTDI and serial readers from the scan and network readers from the
// broadcast, with the index that --reader takes.
#include <arpa/inet.h>

#include <cstdio>
#include <string>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/reader_list.h"

namespace {

const char *link_name(ZEL_HANDLE h)
{
    switch (h->comm.use) {
    case ZEL_PORT_FTDI: return "ftdi";
    case ZEL_PORT_SERIAL: return "serial";
    case ZEL_PORT_SOCKET: return h->udp_ready ? "udp" : "tcp";
    default: return "other";
    }
}

std::string port_of(ZEL_HANDLE h)
{
    if (h->comm.use == ZEL_PORT_SOCKET) {
        char address[INET_ADDRSTRLEN] = {};
        inet_ntop(AF_INET, &h->udp_remote.sin_addr, address, sizeof address);
        return std::string(address) + ":" + std::to_string(ntohs(h->udp_remote.sin_port));
    }
    return h->try_port;
}

const tandro::OptionTable TABLE = {
    {
        {"", "every reader found, one a line, with the index that --reader takes"},
    },
    {},
    "Scans FTDI devices and serial ports, opens every reader found, adds the network readers that answer a "
    "broadcast, and lists them: index (for --reader N), link, port, reader type, serial number, serial "
    "description, FTDI description and firmware.\n\n"
    "With --sim the scenario's \"readers\" (or its one reader) are served on pseudo-terminals shown to the scan as "
    "serial ports.",
};

int run_readers(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("readers", TABLE, args, parsed))
        return 2;
    if (!parsed.words.empty())
        return tandro::usage_error("readers", "takes no arguments (see tandro readers --help)");
    tandro::SimReaders sim;
    std::string err, note;
    if (opt.sim && !sim.start(opt, err)) {
        if (opt.json)
            std::printf("{\"error\": %s}\n", tandro::json_string(err).c_str());
        std::fprintf(stderr, "tandro readers: %s\n", err.c_str());
        return 1;
    }
    const ZEL_STATUS st = tandro::fill_reader_list(note);
    if (st != ZEL_OK) {
        if (opt.json)
            std::printf("{\"error\": %s, \"status\": %u}\n", tandro::json_string(ZEL_Status2String(st)).c_str(), st);
        std::fprintf(stderr, "tandro readers: scan: %s\n", ZEL_Status2String(st));
        return 1;
    }
    const uint32_t n = list_size();
    if (opt.json)
        std::printf("{\"readers\": [");
    for (uint32_t i = 0; i < n; ++i) {
        ZEL_HANDLE h = nullptr;
        char serial[ZEL_READER_LIST_TEXT_LEN], fw[ZEL_READER_LIST_TEXT_LEN], ftdi_serial[ZEL_READER_LIST_TEXT_LEN],
            desc[ZEL_READER_LIST_TEXT_LEN];
        uint32_t type = 0, spare = 0, baud = 0, opened = 0, esp = 0, number = 0;
        if (ReaderList_GetInformation(static_cast<int32_t>(i), &h, serial, &type, fw, &spare, &baud, ftdi_serial, desc,
                                      &opened, &esp) != ZEL_OK ||
            !h)
            continue;
        (void)ReaderList_GetSerialByIndex(static_cast<int32_t>(i), &number);
        char type_text[16], number_text[16];
        std::snprintf(type_text, sizeof type_text, "%08X", type);
        std::snprintf(number_text, sizeof number_text, "%08X", number);
        const std::string port = port_of(h);
        if (opt.json)
            std::printf(
                "%s{\"index\": %u, \"link\": \"%s\", \"port\": %s, \"type\": \"%s\", \"serial_number\": \"%s\", "
                "\"serial\": %s, \"description\": %s, \"firmware\": %s, \"esp\": %s}",
                i ? ", " : "", i, link_name(h), tandro::json_string(port).c_str(), type_text, number_text,
                tandro::json_string(serial).c_str(), tandro::json_string(desc).c_str(), tandro::json_string(fw).c_str(),
                esp ? "true" : "false");
        else
            std::printf("%2u  %-6s %-28s type %s  serial number %s  %-8s  %s%s%s\n", i, link_name(h), port.c_str(),
                        type_text, number_text, serial, desc[0] ? desc : "-", esp ? "  (ESP front)" : "",
                        fw[0] ? (std::string("  firmware ") + fw).c_str() : "");
    }
    if (opt.json) {
        std::printf("], \"count\": %u", n);
        if (!note.empty())
            std::printf(", \"note\": %s", tandro::json_string(note).c_str());
        std::printf("}\n");
    } else {
        if (n == 0)
            std::printf("no reader found\n");
        if (!note.empty())
            std::printf("%s\n", note.c_str());
    }
    return 0;
}

const tandro::Registration readers_cmd({"readers", "", "every reader found on FTDI, serial and network links",
                                        run_readers, false, &TABLE});

} // namespace
