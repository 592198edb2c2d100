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
#include "tools/session.h"
#include "zelsim.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Hex digits, with blanks, ':' and '-' allowed between bytes.
bool parse_hex(const std::string &text, Bytes &out)
{
    out.clear();
    int high = -1;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == ':' || c == '-' || c == '\r') {
            if (high >= 0)
                return false;
            continue;
        }
        int v = -1;
        if (c >= '0' && c <= '9')
            v = c - '0';
        else if (c >= 'a' && c <= 'f')
            v = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            v = c - 'A' + 10;
        if (v < 0)
            return false;
        if (high < 0) {
            high = v;
        } else {
            out.push_back(static_cast<uint8_t>(high << 4 | v));
            high = -1;
        }
    }
    return high < 0;
}

std::string hex(const uint8_t *p, size_t n)
{
    static const char digits[] = "0123456789ABCDEF";
    std::string s;
    s.reserve(2 * n);
    for (size_t i = 0; i < n; ++i) {
        s.push_back(digits[p[i] >> 4]);
        s.push_back(digits[p[i] & 0x0F]);
    }
    return s;
}

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
        const std::string shown = hex(cmd.data(), cmd.size());
        if (opt.json) {
            std::printf("%s{\"command\": \"%s\", \"case\": %d, \"extended\": %s", first ? "" : ",\n  ", shown.c_str(),
                        c.kind, c.extended ? "true" : "false");
            if (st != ZEL_OK)
                std::printf(", \"error\": %s}", tandro::json_string(ZEL_Status2String(st)).c_str());
            else if (n < 2)
                std::printf(", \"response\": \"%s\", \"sw\": null}", hex(reply, n).c_str());
            else
                std::printf(", \"response\": \"%s\", \"sw\": \"%s\"}", hex(reply, n - 2).c_str(),
                            hex(reply + n - 2, 2).c_str());
        } else {
            std::printf("> %s\n", shown.c_str());
            if (st != ZEL_OK)
                std::printf("< error: %s\n", ZEL_Status2String(st));
            else if (n < 2)
                std::printf("< %s (no status word)\n", hex(reply, n).c_str());
            else
                std::printf("< %s%sSW %s\n", hex(reply, n - 2).c_str(), n > 2 ? " " : "", hex(reply + n - 2, 2).c_str());
        }
        first = false;
        if (st != ZEL_OK)
            ++failures;
        OrbFree(reply);
    }
};

int run_apdu(const tandro::Options &opt, const tandro::Args &args)
{
    bool contact = false;
    std::string script;
    std::vector<std::string> apdus;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--7816") {
            contact = true;
        } else if (args[i] == "--script") {
            if (i + 1 >= args.size())
                return tandro::usage_error("apdu", "--script needs a file name, or - for standard input");
            script = args[++i];
        } else if (args[i].rfind("--script=", 0) == 0) {
            script = args[i].substr(9);
        } else if (args[i].rfind("--", 0) == 0) {
            return tandro::usage_error("apdu", "unknown option " + args[i]);
        } else {
            apdus.push_back(args[i]);
        }
    }
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
        head = opt.json ? "\"atr\": \"" + hex(atr, st == ZEL_OK ? atr_len : 0) + "\"" : "ATR " + hex(atr, atr_len);
    } else {
        uint8_t ats[32], uid[10], ats_len = 0, uid_len = 0, sak = 0;
        st = SetISO14443_4_Mode_GetATSM(hnd, ats, &ats_len, uid, &uid_len, &sak);
        char sak_text[8];
        std::snprintf(sak_text, sizeof sak_text, "%02X", sak);
        head = opt.json ? "\"ats\": \"" + hex(ats, ats_len) + "\", \"uid\": \"" + hex(uid, uid_len) + "\", \"sak\": \"" +
                              sak_text + "\""
                        : "ATS " + hex(ats, ats_len) + "  UID " + hex(uid, uid_len) + "  SAK " + sak_text;
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
            run.exchange(line, (script == "-" ? std::string("standard input") : script) + " line " + std::to_string(no));
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

const tandro::Registration apdu_cmd({"apdu", "[--7816] [--script FILE|-] HEX...",
                                     "command APDUs to the card (contact card with --7816); responses and status words",
                                     run_apdu});

} // namespace
