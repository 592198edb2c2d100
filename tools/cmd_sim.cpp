// tandro demo, tandro sim.
#include <cstdio>
#include <vector>

#include <string>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/cmd_block_common.h"
#include "tools/options.h"
#include "tools/ndef_print.h"
#include "tools/passport_read.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

// The demo: the built-in simulated reader with its default cards, reached through the library as an
// application reaches a reader on a serial port. The cards are then taken from the field one by one, so that
// each comes to the front as a person would hold it to the reader: a sector of the MIFARE Classic card, the
// NDEF message of the NTAG, the passport read over BAC and validated.
const tandro::OptionTable DEMO_TABLE = {
    {
        {"", "the reader, the cards in its field, a MIFARE Classic sector, an NTAG's NDEF message and a passport"},
    },
    {},
    "The built-in simulated reader with its default cards, reached through the library as an application reaches "
    "a reader on a serial port; no real reader is looked for. The cards are then taken from the field one by "
    "one, so that each comes to the front in turn. The passport is read over Basic Access Control with its MRZ "
    "and validated against the simulated CSCA; a step that fails makes the exit status 1.\n\n"
    "Under --json the steps form one array: the reader, the cards, the sector, the NDEF message and the passport.",
};

// sim passes every word to the simulated reader's own command line: the table only describes it.
const tandro::OptionTable SIM_TABLE = {
    {},
    {},
    "Serves one simulated reader on the links its words name (--pty, --udp HOST:PORT, --tcp HOST:PORT, "
    "--discovery and others, or a --scenario FILE), prints each link, one a line, and runs until interrupted "
    "(Ctrl-C) or until standard input says quit. Every word after sim goes to the simulated reader untouched, "
    "the options every command takes included: \"tandro sim --help\" lists its own options and the commands it "
    "reads on standard input.",
};

int run_demo(const tandro::Options &opt, const tandro::Args &args)
{
    // Words after the command are not looked at; options are refused.
    tandro::Parsed parsed;
    if (!tandro::parse("demo", DEMO_TABLE, args, parsed))
        return 2;
    zsim *sim = zsim_new();
    if (!sim) {
        std::fprintf(stderr, "tandro demo: the simulated reader did not start\n");
        return 1;
    }
    char err[256] = {};
    char path[256] = {};
    if (zsim_load_scenario(sim, tandro::default_sim_scenario(), err, sizeof err) != 0 ||
        zsim_serve_pty(sim, path, sizeof path) != 0) {
        std::fprintf(stderr, "tandro demo: the simulated reader did not start: %s\n",
                     err[0] ? err : "no pseudo-terminal");
        zsim_free(sim);
        return 1;
    }
    const bool json = opt.json;
    int rc = 0;
    auto step_failed = [&](const char *what, ZEL_STATUS st) { rc = tandro::fail("demo", what, st); };

    // As an application opens a reader on a serial port; a pseudo-terminal has no reset line.
    ZEL_STATUS st = ReaderOpenEx(1, path, 1, "UNIT_OPEN_RESET_DISABLE");
    uint32_t type = 0, serial = 0;
    uint8_t fw_major = 0, fw_minor = 0;
    if (st == ZEL_OK)
        st = GetReaderType(&type);
    if (st == ZEL_OK)
        st = GetReaderSerialNumber(&serial);
    if (st == ZEL_OK)
        st = GetReaderFirmwareVersion(&fw_major, &fw_minor);
    if (st != ZEL_OK) {
        step_failed(path, st);
        ReaderClose();
        zsim_free(sim);
        return 1;
    }
    // Under --json the steps' objects form one array: the reader, the cards, the sector, the NDEF message
    // and the passport.
    auto next_section = [&] {
        if (json)
            std::printf(",\n");
    };
    if (json)
        std::printf(
            "[{\"reader\": {\"port\": %s, \"type\": \"%08X\", \"serial_number\": %u, \"firmware\": \"%u.%u\"}}\n",
            tandro::json_string(path).c_str(), type, serial, fw_major, fw_minor);
    else
        std::printf("Simulated reader on %s\n  type %08X, serial number %u, firmware %u.%u\n\nCards in the field\n",
                    path, type, serial, fw_major, fw_minor);

    auto front_card_name = [] {
        uint8_t card_type = 0;
        return GetOrbCardType(&card_type) == ZEL_OK ? ZEL_OrbCardType2String(card_type) : "card";
    };

    // Every card in the field, by the reader's anti-collision.
    ZEL_HANDLE hnd = &zel_global;
    next_section();
    rc |= tandro::print_card_list(hnd, json);
    DisableAntiCollision();

    // The card at the front: a MIFARE Classic 1K; its sector 1 under the transport key.
    uint8_t sak = 0, uid[10] = {}, uid_len = 0;
    st = GetCardIdEx(&sak, uid, &uid_len);
    if (st == ZEL_OK) {
        if (!json)
            std::printf("\nSector 1 of %s %s\n", front_card_name(), tandro::to_hex(uid, uid_len).c_str());
        next_section();
        rc |= tandro::print_sector_dump(hnd, tandro::KeyOptions{}, 1, json);
        zsim_card_remove(sim, uid, uid_len);
    } else {
        step_failed("the card at the front", st);
    }

    // Next at the front: the NTAG with its NDEF message, a URI record.
    tandro::bring_forward(sim, "ntag21");
    st = GetCardIdEx(&sak, uid, &uid_len);
    if (st == ZEL_OK) {
        if (!json)
            std::printf("\nNDEF message of %s %s\n", front_card_name(), tandro::to_hex(uid, uid_len).c_str());
        next_section();
        rc |= tandro::print_ndef(hnd, json);
        zsim_card_remove(sim, uid, uid_len);
    } else {
        step_failed("the NTAG", st);
    }

    // Last: the passport, read over BAC with its MRZ and validated against the simulated CSCA.
    tandro::bring_passport_forward(sim);
    tandro::SimCscaFolder csca;
    const std::string mrz = tandro::kSimulatedMrz;
    tandro::PassportRead doc;
    const char *failed_step = nullptr;
    // The document number, birth and expiry of the specimen's lower line.
    std::string number = mrz.substr(44, 9);
    while (!number.empty() && number.back() == '<')
        number.pop_back();
    st = tandro::read_passport(number, mrz.substr(44 + 13, 6), mrz.substr(44 + 21, 6), csca.dir, "", 1, doc,
                               &failed_step);
    if (st != ZEL_OK) {
        step_failed(failed_step, st);
    } else if (json) {
        next_section();
        std::printf("{\"passport\": {\"holder\": %s, \"document_integrity\": %s, \"csca_root_validity\": %s, "
                    "\"validation\": %s}}\n",
                    tandro::json_string(doc.holder).c_str(), doc.integrity ? "true" : "false",
                    doc.validity ? "true" : "false", tandro::json_string(ZEL_Status2String(doc.validation)).c_str());
        std::printf("]\n");
    } else {
        std::printf("\nPassport over Basic Access Control\n");
        for (size_t at = 0; at < doc.holder.size();) {
            const size_t end = doc.holder.find('\n', at);
            std::printf("  %s\n", doc.holder.substr(at, end == std::string::npos ? end : end - at).c_str());
            at = end == std::string::npos ? doc.holder.size() : end + 1;
        }
        std::printf("  document integrity %s, CSCA root validity %s: %s\n", doc.integrity ? "yes" : "no",
                    doc.validity ? "yes" : "no", ZEL_Status2String(doc.validation));
    }
    if (st == ZEL_OK && doc.validation != ZEL_OK)
        rc = 1;
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

const tandro::Registration demo_cmd({"demo", "", "the library against the built-in simulated reader", run_demo, false,
                                     &DEMO_TABLE});
const tandro::Registration sim_cmd({"sim", "[ARGS]", "run the simulated reader (tandro sim --help)", run_sim, false,
                                    &SIM_TABLE});

} // namespace
