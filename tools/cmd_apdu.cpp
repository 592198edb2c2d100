// tandro apdu [--7816] [--script FILE|-] HEX...: command APDUs to the card, responses and status words back.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "apdu/apdu_internal.h"
#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"
#include "tools/session.h"
#include "zelsim.h"

namespace {

using tandro::parse_hex;
using tandro::to_hex;

using Bytes = std::vector<uint8_t>;

struct Run {
    const tandro::Options &opt;
    ZEL_HANDLE hnd;
    bool first = true;
    int failures = 0;

    void exchange(const std::string &text, const std::string &where)
    {
        Bytes cmd;
        zel::ApduCase c;
        if (!parse_hex(text, cmd) || !zel::apdu_case_decode(cmd.data(), static_cast<uint32_t>(cmd.size()), c)) {
            ++failures;
            if (opt.json)
                std::printf("%s{\"command\": %s, \"error\": \"not a command APDU\"}", first ? "" : ",\n  ",
                            tandro::json_string(text).c_str());
            else
                std::fprintf(stderr, "tandro apdu: %s: \"%s\" is not a command APDU in hex\n", where.c_str(),
                             text.c_str());
            first = false;
            return;
        }
        uint8_t *reply = nullptr;
        uint32_t n = 0;
        const ZEL_STATUS st =
            APDUPlainTransceiveToHeapM(hnd, cmd.data(), static_cast<uint32_t>(cmd.size()), &reply, &n);
        const std::string shown = to_hex(cmd.data(), cmd.size());
        if (opt.json) {
            std::printf("%s{\"command\": \"%s\", \"case\": %d, \"extended\": %s", first ? "" : ",\n  ", shown.c_str(),
                        c.kind, c.extended ? "true" : "false");
            if (st != ZEL_OK)
                std::printf(", \"error\": %s}", tandro::json_string(ZEL_Status2String(st)).c_str());
            else if (n < 2)
                std::printf(", \"response\": \"%s\", \"sw\": null}", to_hex(reply, n).c_str());
            else
                std::printf(", \"response\": \"%s\", \"sw\": \"%s\"}", to_hex(reply, n - 2).c_str(),
                            to_hex(reply + n - 2, 2).c_str());
        } else {
            std::printf("> %s\n", shown.c_str());
            if (st != ZEL_OK)
                std::printf("< error: %s\n", ZEL_Status2String(st));
            else if (n < 2)
                std::printf("< %s (no status word)\n", to_hex(reply, n).c_str());
            else
                std::printf("< %s%sSW %s\n", to_hex(reply, n - 2).c_str(), n > 2 ? " " : "",
                            to_hex(reply + n - 2, 2).c_str());
        }
        first = false;
        if (st != ZEL_OK)
            ++failures;
        OrbFree(reply);
    }
};

const char USAGE[] = "[--7816] [--script FILE|-] HEX...";

const tandro::OptionTable TABLE = {
    {
        {"HEX...", "sends each command APDU in turn and prints its response and status word"},
        {"--script FILE|- [HEX...]", "the same with the APDUs of FILE, or of standard input, after those given"},
    },
    {
        {"--7816", nullptr, "the contact card (ISO 7816) instead of the contactless one"},
        {"--script", "FILE", "command APDUs one a line (- for standard input); '#' starts a comment"},
    },
    "Without --7816 the contactless card is activated at ISO 14443-4 level first and its ATS, UID and SAK are "
    "printed; with --7816 the contact interface is opened and its ATR printed. Each APDU is hexadecimal, with "
    "blanks, ':' or '-' allowed between bytes.\n\n"
    "A text that is not a command APDU, or an exchange the reader fails, is reported in its place and the others "
    "still go; the exit status is then 1. Under --json, one document: the activation and the list of exchanges.",
};

int run_apdu(const tandro::Options &opt, const tandro::Args &args)
{
    tandro::Parsed parsed;
    if (!tandro::parse("apdu", TABLE, args, parsed))
        return 2;
    const bool contact = parsed.has("--7816");
    const std::string script = parsed.value("--script");
    const std::vector<std::string> &apdus = parsed.words;
    if (apdus.empty() && script.empty())
        return tandro::usage_error("apdu", "give command APDUs in hex, or --script FILE (- for standard input)");
    std::ifstream file;
    if (!script.empty() && script != "-") {
        file.open(script);
        if (!file)
            return tandro::usage_error("apdu", "cannot read " + script);
    }

    tandro::ReaderSession session;
    if (!session.open("apdu", opt))
        return 1;
    if (session.sim())
        // The reader talks to the first card in the field: the ISO 14443-4 card (which also stands for the
        // contact card) comes first for this session.
        tandro::bring_forward(session.sim(), "iso14443_4");
    ZEL_HANDLE hnd = session.hnd();

    // The interface: the contactless card at level 4, or the contact card.
    ZEL_STATUS st;
    std::string head;
    if (contact) {
        uint8_t atr[64];
        uint32_t atr_len = sizeof atr;
        st = open_ISO7816_interfaceM(hnd, atr, &atr_len);
        if (st == ZEL_OK)
            st = APDU_switch_to_ISO7816_interfaceM(hnd);
        head =
            opt.json ? "\"atr\": \"" + to_hex(atr, st == ZEL_OK ? atr_len : 0) + "\"" : "ATR " + to_hex(atr, atr_len);
    } else {
        uint8_t ats[32], uid[10], ats_len = 0, uid_len = 0, sak = 0;
        st = SetISO14443_4_Mode_GetATSM(hnd, ats, &ats_len, uid, &uid_len, &sak);
        char sak_text[8];
        std::snprintf(sak_text, sizeof sak_text, "%02X", sak);
        head = opt.json ? "\"ats\": \"" + to_hex(ats, ats_len) + "\", \"uid\": \"" + to_hex(uid, uid_len) +
                              "\", \"sak\": \"" + sak_text + "\""
                        : "ATS " + to_hex(ats, ats_len) + "  UID " + to_hex(uid, uid_len) + "  SAK " + sak_text;
    }
    if (st != ZEL_OK) {
        std::fprintf(stderr, "tandro apdu: %s: %s\n", contact ? "contact interface" : "ISO 14443-4 activation",
                     ZEL_Status2String(st));
        return 1;
    }
    if (opt.json)
        std::printf("{%s, \"exchanges\": [\n  ", head.c_str());
    else
        std::printf("%s\n", head.c_str());

    Run run{opt, hnd};
    for (size_t i = 0; i < apdus.size(); ++i)
        run.exchange(apdus[i], "argument " + std::to_string(i + 1));
    if (!script.empty()) {
        std::istream &in = script == "-" ? std::cin : file;
        std::string line;
        for (size_t no = 1; std::getline(in, line); ++no) {
            const size_t hash = line.find('#');
            if (hash != std::string::npos)
                line.erase(hash);
            if (line.find_first_not_of(" \t\r") == std::string::npos)
                continue;
            run.exchange(line,
                         (script == "-" ? std::string("standard input") : script) + " line " + std::to_string(no));
        }
    }
    if (opt.json)
        std::printf("\n]}\n");

    if (contact)
        close_ISO7816_interface_no_APDUM(hnd);
    else
        s_block_deselectM(hnd, 100);
    return run.failures ? 1 : 0;
}

const tandro::Registration apdu_cmd({"apdu", USAGE,
                                     "command APDUs to the card (contact card with --7816); responses and status words",
                                     run_apdu, false, &TABLE});

} // namespace
