// The tandro-sim command line: one simulated reader on the links asked for, until stopped.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core.h"
#include "zelsim.h"

namespace {

volatile sig_atomic_t g_stop = 0;
int g_stop_pipe[2] = {-1, -1};

void on_signal(int)
{
    g_stop = 1;
    const char b = 1;
    if (g_stop_pipe[1] >= 0 && write(g_stop_pipe[1], &b, 1) < 0) {
        // nothing to do in a handler
    }
}

const char USAGE[] =
    "usage: %s [options]\n"
    "Serves one simulated Zel reader until interrupted (Ctrl-C) or until standard input says quit.\n"
    "\n"
    "  --pty                serve on a new pseudo-terminal and print its device path\n"
    "  --scenario FILE      load the reader, its links, cards and faults from a JSON file\n"
    "  --type HEX           the reader type (default D1180022)\n"
    "  --card UID[:SAK[:ATQA[:TYPE]]]  put a card in the field (hex values)\n"
    "  --log                log every exchange on standard error\n"
    "  --help               this text\n"
    "\n"
    "Commands on standard input, one a line:\n"
    "  add UID [SAK [ATQA [TYPE]]]   a card enters the field (hex)\n"
    "  remove UID                    the card leaves the field\n"
    "  clear                         the field empties\n"
    "  list                          print the cards in the field\n"
    "  quit                          stop\n";

bool parse_hex_bytes(const std::string &s, uint8_t *out, size_t max, size_t &len)
{
    len = 0;
    std::string h;
    for (char c : s)
        if (c != ':' && c != ' ' && c != '-')
            h += c;
    if (h.size() % 2 || h.empty() || h.size() / 2 > max)
        return false;
    for (size_t i = 0; i < h.size(); i += 2) {
        char *end = nullptr;
        const std::string b = h.substr(i, 2);
        const unsigned long v = std::strtoul(b.c_str(), &end, 16);
        if (*end)
            return false;
        out[len++] = static_cast<uint8_t>(v);
    }
    return true;
}

bool parse_hex_u32(const std::string &s, uint32_t &v)
{
    if (s.empty() || s.size() > 10)
        return false;
    char *end = nullptr;
    const unsigned long long x = std::strtoull(s.c_str(), &end, 16);
    if (*end || x > 0xFFFFFFFFull)
        return false;
    v = static_cast<uint32_t>(x);
    return true;
}

std::vector<std::string> split(const std::string &s, const char *seps)
{
    std::vector<std::string> out;
    size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && std::strchr(seps, s[i]))
            ++i;
        size_t j = i;
        while (j < s.size() && !std::strchr(seps, s[j]))
            ++j;
        if (j > i)
            out.push_back(s.substr(i, j - i));
        i = j;
    }
    return out;
}

// A card from UID, SAK, ATQA, TYPE words (hex); the type defaults to what the SAK suggests.
bool card_from_words(const std::vector<std::string> &w, size_t first, zsim_card &c)
{
    c = zsim_card{};
    size_t len = 0;
    if (first >= w.size() || !parse_hex_bytes(w[first], c.uid, 10, len) || (len != 4 && len != 7 && len != 10))
        return false;
    c.uid_len = static_cast<uint8_t>(len);
    uint32_t v = 0;
    c.sak = 0x08;
    c.atqa = 0x0004;
    c.orb_type = 0x21; // a 1K classic card
    if (w.size() > first + 1) {
        if (!parse_hex_u32(w[first + 1], v) || v > 0xFF)
            return false;
        c.sak = static_cast<uint8_t>(v);
        c.orb_type = c.sak == 0x00 ? 0x08 : c.sak == 0x18 ? 0x22 : c.sak == 0x20 ? 0x2B : 0x21;
    }
    if (w.size() > first + 2) {
        if (!parse_hex_u32(w[first + 2], v) || v > 0xFFFF)
            return false;
        c.atqa = static_cast<uint16_t>(v);
    }
    if (w.size() > first + 3) {
        if (!parse_hex_u32(w[first + 3], v) || v > 0xFF)
            return false;
        c.orb_type = static_cast<uint8_t>(v);
    }
    return true;
}

void print_card(FILE *f, const zsim_card &c)
{
    for (int i = 0; i < c.uid_len; ++i)
        std::fprintf(f, "%02X", c.uid[i]);
    std::fprintf(f, " sak %02X atqa %04X type %02X\n", c.sak, c.atqa, c.orb_type);
}

// One line of standard input. Returns false for quit.
bool run_command(zsim *sim, const std::string &line)
{
    const auto w = split(line, " \t\r\n");
    if (w.empty() || w[0][0] == '#')
        return true;
    if (w[0] == "quit" || w[0] == "exit")
        return false;
    if (w[0] == "add") {
        zsim_card c;
        if (!card_from_words(w, 1, c))
            std::fprintf(stderr, "add: usage: add UID [SAK [ATQA [TYPE]]] (hex; UID of 4, 7 or 10 bytes)\n");
        else if (zsim_card_add(sim, &c) != 0)
            std::fprintf(stderr, "add: the field is full\n");
        else
            std::fprintf(stderr, "card entered the field\n");
    } else if (w[0] == "remove") {
        uint8_t uid[10];
        size_t len = 0;
        if (w.size() < 2 || !parse_hex_bytes(w[1], uid, 10, len))
            std::fprintf(stderr, "remove: usage: remove UID\n");
        else if (zsim_card_remove(sim, uid, static_cast<uint8_t>(len)) != 0)
            std::fprintf(stderr, "remove: no such card in the field\n");
        else
            std::fprintf(stderr, "card left the field\n");
    } else if (w[0] == "clear") {
        zsim_field_clear(sim);
    } else if (w[0] == "list") {
        std::lock_guard<std::mutex> lock(sim->mu);
        if (sim->reader.cards.empty())
            std::fprintf(stderr, "the field is empty\n");
        for (const auto &c : sim->reader.cards)
            print_card(stderr, c);
    } else {
        std::fprintf(stderr, "unknown command '%s' (add, remove, clear, list, quit)\n", w[0].c_str());
    }
    return true;
}

std::string read_file(const char *path, bool &ok)
{
    ok = false;
    FILE *f = std::fopen(path, "rb");
    if (!f)
        return {};
    std::string s;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && s.size() < (16u << 20))
        s.append(buf, n);
    ok = !std::ferror(f);
    std::fclose(f);
    return s;
}

struct Options {
    bool pty = false;
    bool log = false;
    const char *scenario = nullptr;
};

int serve(zsim *sim, const Options &o, const char *prog)
{
    if (o.scenario) {
        bool ok = false;
        const std::string text = read_file(o.scenario, ok);
        char err[256] = {};
        if (!ok) {
            std::fprintf(stderr, "%s: cannot read %s: %s\n", prog, o.scenario, std::strerror(errno));
            return 2;
        }
        if (zsim_load_scenario(sim, text.c_str(), err, sizeof err) != 0) {
            std::fprintf(stderr, "%s: %s: %s\n", prog, o.scenario, err);
            return 2;
        }
    }
    zsim_set_log(sim, o.log);
    bool any = false;
    if (o.pty) {
        char path[256] = {};
        if (zsim_serve_pty(sim, path, sizeof path) != 0) {
            std::fprintf(stderr, "%s: no pseudo-terminal: %s\n", prog, std::strerror(errno));
            return 1;
        }
        std::printf("%s\n", path);
        any = true;
    }
    std::fflush(stdout);
    if (!any) {
        std::fprintf(stderr, "%s: no link to serve (try --pty)\n", prog);
        return 2;
    }

    if (pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return 1;
    g_stop = 0;
    struct sigaction sa{}, old_int{}, old_term{};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &old_int);
    sigaction(SIGTERM, &sa, &old_term);

    std::string pending;
    bool stdin_open = true;
    while (!g_stop) {
        pollfd p[2] = {{g_stop_pipe[0], POLLIN, 0}, {stdin_open ? 0 : -1, POLLIN, 0}};
        if (poll(p, 2, -1) < 0 && errno != EINTR)
            break;
        if (p[1].revents & (POLLIN | POLLHUP | POLLERR)) {
            char buf[1024];
            const ssize_t n = read(0, buf, sizeof buf);
            if (n <= 0) {
                stdin_open = false; // keep serving until a signal
                continue;
            }
            pending.append(buf, static_cast<size_t>(n));
            size_t nl;
            bool quit = false;
            while (!quit && (nl = pending.find('\n')) != std::string::npos) {
                quit = !run_command(sim, pending.substr(0, nl));
                pending.erase(0, nl + 1);
            }
            if (pending.size() > 4096)
                pending.clear();
            if (quit)
                break;
        }
    }
    sigaction(SIGINT, &old_int, nullptr);
    sigaction(SIGTERM, &old_term, nullptr);
    close(g_stop_pipe[0]);
    close(g_stop_pipe[1]);
    g_stop_pipe[0] = g_stop_pipe[1] = -1;
    zsim_stop(sim);
    return 0;
}

} // namespace

extern "C" int zsim_main(int argc, char **argv)
{
    const char *prog = argc > 0 && argv[0] ? argv[0] : "tandro-sim";
    Options o;
    zsim *sim = zsim_new();
    if (!sim)
        return 1;
    int rc = -1;
    for (int i = 1; i < argc && rc < 0; ++i) {
        const std::string a = argv[i] ? argv[i] : "";
        const bool has_value = i + 1 < argc && argv[i + 1];
        if (a == "--help" || a == "-h") {
            std::printf(USAGE, prog);
            rc = 0;
        } else if (a == "--pty") {
            o.pty = true;
        } else if (a == "--log") {
            o.log = true;
        } else if (a == "--scenario" && has_value) {
            o.scenario = argv[++i];
        } else if (a == "--type" && has_value) {
            uint32_t t = 0;
            if (!parse_hex_u32(argv[++i], t)) {
                std::fprintf(stderr, "%s: bad reader type '%s'\n", prog, argv[i]);
                rc = 2;
            } else {
                zsim_set_reader_type(sim, t);
            }
        } else if (a == "--card" && has_value) {
            zsim_card c;
            if (!card_from_words(split(argv[++i], ":,"), 0, c) || zsim_card_add(sim, &c) != 0) {
                std::fprintf(stderr, "%s: bad card '%s'\n", prog, argv[i]);
                rc = 2;
            }
        } else {
            std::fprintf(stderr, "%s: unknown or incomplete option '%s' (see --help)\n", prog, a.c_str());
            rc = 2;
        }
    }
    if (rc < 0)
        rc = serve(sim, o, prog);
    zsim_free(sim);
    return rc;
}
