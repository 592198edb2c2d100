// tandro demo, tandro sim.
#include <cstdio>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "zelsim.h"

namespace {

// The demo: a simulated reader with a card, reached through the library as an application would.
int run_demo(const tandro::Options &opt, const tandro::Args &)
{
    zsim *sim = zsim_new();
    if (!sim) {
        std::fprintf(stderr, "tandro demo: the simulated reader did not start\n");
        return 1;
    }
    const zsim_card card = {{0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, ORB_NTAG_215};
    zsim_card_add(sim, &card);
    char path[256] = {};
    if (zsim_serve_pty(sim, path, sizeof path) != 0) {
        std::fprintf(stderr, "tandro demo: no pseudo-terminal for the simulated reader\n");
        zsim_free(sim);
        return 1;
    }
    int rc = 0;
    // As an application opens a reader on a serial port; a pseudo-terminal has no reset line.
    ZEL_STATUS status = ReaderOpenEx(1, path, 1, "UNIT_OPEN_RESET_DISABLE");
    uint32_t type = 0;
    uint8_t card_type = 0;
    uint32_t uid = 0;
    if (status == ZEL_OK)
        status = GetReaderType(&type);
    const ZEL_STATUS card_status = status == ZEL_OK ? GetCardId(&card_type, &uid) : status;
    if (status != ZEL_OK) {
        std::fprintf(stderr, "tandro demo: reader on %s: %s\n", path, ZEL_Status2String(status));
        rc = 1;
    } else if (opt.json) {
        std::printf("{\"port\": %s, \"reader_type\": \"%08X\", ", tandro::json_string(path).c_str(), type);
        if (card_status == ZEL_OK)
            std::printf("\"card\": {\"type\": %s, \"type_code\": %u, \"uid32\": \"%08X\"}}\n",
                        tandro::json_string(ZEL_OrbCardType2String(card_type)).c_str(), card_type, uid);
        else
            std::printf("\"card\": null, \"card_status\": %s}\n", tandro::json_string(ZEL_Status2String(card_status)).c_str());
    } else {
        std::printf("Simulated reader on %s\n", path);
        std::printf("  reader type  %08X\n", type);
        if (card_status == ZEL_OK)
            std::printf("  card         %s (0x%02X), UID %08X\n", ZEL_OrbCardType2String(card_type), card_type, uid);
        else
            std::printf("  card         none: %s\n", ZEL_Status2String(card_status));
    }
    ReaderClose();
    zsim_free(sim);
    return rc;
}

// The simulated reader's own command line.
int run_sim(const tandro::Options &, const tandro::Args &args)
{
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>("tandro sim"));
    for (const auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    return zsim_main(static_cast<int>(argv.size() - 1), argv.data());
}

const tandro::Registration demo_cmd({"demo", "", "the library against the built-in simulated reader", run_demo});
const tandro::Registration sim_cmd({"sim", "[ARGS]", "run the simulated reader (tandro sim --help)", run_sim});

} // namespace
