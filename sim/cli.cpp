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
#include "json.h"
#include "line.h"
#include "links.h"
#include "zelsim.h"

namespace zs {
bool card_from_words(const std::vector<std::string> &w, size_t first, zsim_card &c, std::string &model);
}

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
    "Links (at least one, here or in the scenario):\n"
    "  --pty                 serve on a new pseudo-terminal and print its device path\n"
    "  --udp HOST:PORT       frames over UDP (PORT 0 takes a free port; the default is 8881)\n"
    "  --tcp HOST:PORT       frames over TCP, one host at a time\n"
    "  --discovery[=HOST:PORT]  answer discovery requests (default 0.0.0.0:8880) with where the first\n"
    "                        UDP or TCP link is\n"
    "  --discovery-short     answer with the 19-byte form (no serial number)\n"
    "  --gpio SOCKET         take the reset line from the stand-in pinctrl through this Unix socket\n"
    "\n"
    "The reader:\n"
    "  --scenario FILE       load the reader, its cards, faults and links from a JSON file\n"
    "  --type HEX            the reader type (default D1180022)\n"
    "  --card UID[:SAK[:ATQA[:TYPE]]]  put a card in the field (hex; TYPE may be a name like ORB_NTAG_213)\n"
    "  --time-scale PERCENT  run the reader's own times (the boot) faster or slower; 100 is real time\n"
    "  --line RATE[,MS]      model the line: RATE bit/s (10 bits a byte on serial links, 8 on network\n"
    "                        links) and a reader turnaround of MS milliseconds per command (default 2)\n"
    "  --ports DIR           with a scenario that lists \"readers\": show each pseudo-terminal as DIR/ttyUSBn\n"
    "                        with a device tree in DIR/sys, for the library's port enumeration\n"
    "  --log                 log every exchange on standard error\n"
    "  --commands            read commands from standard input even when it is not a terminal (a pipe)\n"
    "  --display-png FILE    write what the display module shows as a PNG, again at every change\n"
    "  --help                this text\n"
    "\n"
    "Each link is printed on standard output, one a line (\"pty /dev/pts/4\", \"udp 127.0.0.1:8881\").\n"
    "Commands on standard input, one a line, when it is the terminal of a foreground run (or with --commands):\n"
    "  add UID [SAK [ATQA [TYPE [MODEL]]]]  a card enters the field (hex)\n"
    "  remove UID                    the card leaves the field\n"
    "  clear                         the field empties\n"
    "  list                          print the cards in the field\n"
    "  fault KIND [command=HEX] [code=HEX] [delay=MS] [count=N] [times=N|always] [after=N]\n"
    "                                bend the next matching exchanges (KIND: silence, late, bad_checksum,\n"
    "                                wrong_echo, error_frame, truncate, extra_bytes, endless_interim, unplug)\n"
    "  faults clear                  no more faults\n"
    "  reset                         a reset edge: the reader restarts and sends its boot bytes\n"
    "  quit                          stop\n";

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

// HOST:PORT, HOST, or :PORT.
bool parse_host_port(const std::string &s, std::string &host, uint16_t &port)
{
    const size_t colon = s.rfind(':');
    if (colon == std::string::npos) {
        if (!s.empty())
            host = s;
        return !s.empty();
    }
    if (colon > 0)
        host = s.substr(0, colon);
    const std::string p = s.substr(colon + 1);
    char *end = nullptr;
    const unsigned long v = std::strtoul(p.c_str(), &end, 10);
    if (p.empty() || *end || v > 65535)
        return false;
    port = static_cast<uint16_t>(v);
    return true;
}

struct Options {
    bool log = false;
    const char *scenario = nullptr;
    std::vector<zs::LinkSpec> links;
    bool short_discovery = false;
    int time_scale = -1;
    bool commands = false;
    bool line_given = false;
    uint32_t line_rate = 0, line_turnaround_us = 0;
    const char *ports_dir = nullptr;
};

// Whether standard input brings commands: always with --commands; else only from a terminal whose
// foreground this run is, since a run in the background (`--pty &`) would be stopped by reading it.
bool read_commands(const Options &o)
{
    if (o.commands)
        return true;
    return isatty(STDIN_FILENO) == 1 && tcgetpgrp(STDIN_FILENO) == getpgrp();
}

bool run_until_stopped(zsim *sim, const Options &o);

// The command line's log, time scale and line, over what the scenario said.
void apply_options(zsim *sim, const Options &o)
{
    if (o.log)
        zsim_set_log(sim, 1);
    if (o.time_scale >= 0)
        zsim_set_time_scale(sim, static_cast<uint32_t>(o.time_scale));
    if (o.line_given)
        zsim_set_line(sim, o.line_rate, o.line_turnaround_us);
}

// A scenario file that lists "readers": several simulated readers, each serving its links (standard input's
// commands go to the first). Returns -1 when the file is not such a list.
int serve_readers(const Options &o, const char *prog)
{
    FILE *f = o.scenario ? std::fopen(o.scenario, "rb") : nullptr;
    if (!f)
        return -1;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0 && text.size() <= (1u << 22))
        text.append(buf, n);
    std::fclose(f);
    zs::Json root;
    std::string msg;
    if (text.size() > (1u << 22) || !zs::json_parse(text.c_str(), text.size(), root, msg) || !root.get("readers"))
        return -1;
    char report[8192] = {}, err[512] = {};
    zsim_set *set = zsim_set_start(text.c_str(), o.ports_dir, report, sizeof report, err, sizeof err);
    if (!set) {
        std::fprintf(stderr, "%s: %s\n", prog, err);
        return 2;
    }
    for (size_t i = 0; i < zsim_set_count(set); ++i) {
        zsim *sim = zsim_set_reader(set, i);
        apply_options(sim, o);
    }
    std::fputs(report, stdout);
    std::fflush(stdout);
    const bool ok = run_until_stopped(zsim_set_reader(set, 0), o);
    zsim_set_free(set);
    return ok ? 0 : 1;
}

// Takes standard input's commands for sim until quit, a signal or the end of input. False when the stop pipe
// cannot be made.
bool run_until_stopped(zsim *sim, const Options &o)
{
    if (pipe2(g_stop_pipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    g_stop = 0;
    struct sigaction sa {
    }, old_int{}, old_term{};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, &old_int);
    sigaction(SIGTERM, &sa, &old_term);

    std::string pending;
    bool stdin_open = read_commands(o);
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
                std::string out;
                quit = zs::run_text_command(sim, pending.substr(0, nl), out) == 1;
                std::fputs(out.c_str(), stderr);
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
    return true;
}

int serve(zsim *sim, const Options &o, const char *prog)
{
    char err[512] = {};
    if (o.scenario && zsim_load_scenario_file(sim, o.scenario, err, sizeof err) != 0) {
        std::fprintf(stderr, "%s: %s\n", prog, err);
        return 2;
    }
    apply_options(sim, o);
    {
        // Links of the command line come after the scenario's.
        std::lock_guard<std::mutex> lock(sim->mu);
        for (auto l : o.links) {
            if (l.kind == "discovery")
                l.short_form = o.short_discovery;
            sim->link_specs.push_back(l);
        }
        if (o.short_discovery)
            for (auto &l : sim->link_specs)
                if (l.kind == "discovery")
                    l.short_form = true;
    }
    char report[2048] = {};
    const int rc = zsim_serve_links(sim, report, sizeof report);
    std::fputs(report, stdout);
    std::fflush(stdout);
    if (rc != 0) {
        std::fprintf(stderr, "%s: a link did not start\n", prog);
        zsim_stop(sim);
        return 1;
    }
    if (!report[0]) {
        std::fprintf(stderr, "%s: no link to serve (try --pty)\n", prog);
        return 2;
    }

    if (!run_until_stopped(sim, o))
        return 1;
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
            zs::LinkSpec l;
            l.kind = "pty";
            o.links.push_back(l);
        } else if ((a == "--udp" || a == "--tcp") && has_value) {
            zs::LinkSpec l;
            l.kind = a.substr(2);
            l.port = 8881;
            if (!parse_host_port(argv[++i], l.host, l.port)) {
                std::fprintf(stderr, "%s: bad address '%s' (HOST:PORT)\n", prog, argv[i]);
                rc = 2;
            }
            o.links.push_back(l);
        } else if (a == "--discovery" || a.rfind("--discovery=", 0) == 0) {
            zs::LinkSpec l;
            l.kind = "discovery";
            l.host = "0.0.0.0";
            l.port = 8880;
            if (a.size() > 12 && !parse_host_port(a.substr(12), l.host, l.port)) {
                std::fprintf(stderr, "%s: bad address in '%s'\n", prog, a.c_str());
                rc = 2;
            }
            o.links.push_back(l);
        } else if (a == "--discovery-short") {
            o.short_discovery = true;
        } else if (a == "--gpio" && has_value) {
            zs::LinkSpec l;
            l.kind = "gpio";
            l.path = argv[++i];
            o.links.push_back(l);
        } else if (a == "--time-scale" && has_value) {
            char *end = nullptr;
            const long v = std::strtol(argv[++i], &end, 10);
            if (*end || v < 1 || v > 10000) {
                std::fprintf(stderr, "%s: bad time scale '%s' (1 to 10000 percent)\n", prog, argv[i]);
                rc = 2;
            }
            o.time_scale = static_cast<int>(v);
        } else if (a == "--commands") {
            o.commands = true;
        } else if (a == "--line" && has_value) {
            o.line_given = zs::line_parse(argv[++i], o.line_rate, o.line_turnaround_us);
            if (!o.line_given) {
                std::fprintf(stderr, "%s: bad line '%s' (RATE[,TURNAROUND_MS])\n", prog, argv[i]);
                rc = 2;
            }
        } else if (a == "--ports" && has_value) {
            o.ports_dir = argv[++i];
        } else if (a == "--display-png" && has_value) {
            zsim_display_png_on_change(sim, argv[++i]);
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
            std::string model;
            if (!zs::card_from_words(split(argv[++i], ":,"), 0, c, model) ||
                zsim_card_add_model(sim, &c, model.c_str(), nullptr) != 0) {
                std::fprintf(stderr, "%s: bad card '%s'\n", prog, argv[i]);
                rc = 2;
            }
        } else {
            std::fprintf(stderr, "%s: unknown or incomplete option '%s' (see --help)\n", prog, a.c_str());
            rc = 2;
        }
    }
    if (rc < 0)
        rc = serve_readers(o, prog);
    if (rc < 0)
        rc = serve(sim, o, prog);
    zsim_free(sim);
    return rc;
}
