// tandro: the library from a shell. Each command lives in a cmd_*.cpp file of its own and registers itself.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstdio>
#include <string>
#include <vector>

#include "tandro.h"
#include "tools/cli.h"
#include "tools/options.h"

namespace {

// Applies one global option, by its long name, with its value (empty for a flag). False on a bad value.
bool apply_global(tandro::Options &opt, const std::string &name, const std::string &text)
{
    auto bad = [](const char *why) {
        std::fprintf(stderr, "tandro: %s\n", why);
        return false;
    };
    if (name == "--json")
        opt.json = true;
    else if (name == "--debug")
        opt.debug = true;
    else if (name == "--verbose")
        opt.verbose = true;
    else if (name == "--quiet")
        opt.quiet = true;
    else if (name == "--sim") {
        opt.sim = true;
        opt.sim_scenario = text;
    } else if (name == "--port")
        opt.port = text;
    else if (name == "--type") {
        opt.open_given = true;
        if (!tandro::parse_u32(text, &opt.reader_type))
            return bad("--type takes a number (0 any, 1, 2, 3, 4 network)");
    } else if (name == "--interface") {
        opt.open_given = true;
        if (text.size() == 1 && (text[0] == 'T' || text[0] == 'U' || text[0] == 'L'))
            opt.port_interface = static_cast<uint8_t>(text[0]);
        else if (!tandro::parse_u32(text, &opt.port_interface))
            return bad("--interface takes 0, 1, 2, 10, T, U or L");
    } else if (name == "--arg") {
        opt.open_given = true;
        opt.arg = text;
    } else if (name == "--reader") {
        uint32_t index = 0;
        opt.list_given = true;
        if (!tandro::parse_u32(text, &index) || index > 0x7FFFFFFFu)
            return bad("--reader takes an index of tandro readers");
        opt.list_index = static_cast<int32_t>(index);
    } else if (name == "--serial") {
        opt.list_given = true;
        opt.list_serial = text;
        if (text.empty() || text.size() > 20)
            return bad("--serial takes a serial number of 1 to 20 characters");
    }
    return true;
}

// Options that every command takes, before or after its name, as the global table lists them. Returns false
// when the word is no such option; sets bad when it is one with a missing or wrong value.
bool global_option(tandro::Options &opt, int argc, char **argv, int &i, bool &bad)
{
    const std::string a = argv[i];
    for (const tandro::Opt &o : tandro::global_options()) {
        const bool attached_only = o.value && o.value[0] == '['; // "--sim[=SCENARIO]"
        std::string names = o.names;
        for (size_t at = 0; at <= names.size();) {
            const size_t comma = std::min(names.find(',', at), names.size());
            const std::string name = names.substr(at, comma - at);
            at = comma + 1;
            std::string text;
            if (a == name) {
                if (o.value && !attached_only) {
                    if (i + 1 >= argc) {
                        std::fprintf(stderr, "tandro: %s needs a value\n", name.c_str());
                        bad = true;
                        return true;
                    }
                    text = argv[++i];
                }
            } else if (o.value && name.rfind("--", 0) == 0 && a.rfind(name + "=", 0) == 0) {
                text = a.substr(name.size() + 1);
            } else {
                continue;
            }
            bad = !apply_global(opt, tandro::long_name(o), text);
            return true;
        }
    }
    return false;
}

// The reader remembered in the environment, for a command whose words name none.
bool environment_reader(tandro::Options &opt)
{
    if (opt.sim || opt.list_given)
        return true;
    const char *port = std::getenv("TANDRO_PORT");
    if (port && *port && opt.port.empty())
        opt.port = port;
    struct {
        const char *variable, *option;
    } const open_words[] = {{"TANDRO_INTERFACE", "--interface"}, {"TANDRO_ARG", "--arg"}};
    for (const auto &w : open_words) {
        const char *text = std::getenv(w.variable);
        if (!text || !*text)
            continue;
        const bool given = std::string(w.option) == "--interface" ? opt.port_interface != 0 : !opt.arg.empty();
        if (given)
            continue;
        if (!apply_global(opt, w.option, text)) {
            std::fprintf(stderr, "tandro: in the environment, %s=%s\n", w.variable, text);
            return false;
        }
    }
    return true;
}

// The library's link transfer lines (the bytes each read and write moved) on standard error; its other
// debug lines only with --debug.
void verbose_sink(int level, const char *text, void *context)
{
    const bool everything = *static_cast<const bool *>(context);
    if (everything || level == 6)
        std::fprintf(stderr, "%s", text);
}

// The help of one command: its usage line and summary, and where the options every command takes are.
int command_help(const tandro::Command &c, const tandro::Options &opt)
{
    if (c.own_help)
        return c.run(opt, {"--help"});
    std::fputs(tandro::command_help_text(c).c_str(), stdout);
    return 0;
}

const tandro::Command *find_command(const std::string &name)
{
    for (const auto &c : tandro::commands())
        if (name == c.name)
            return &c;
    return nullptr;
}

int usage(FILE *out)
{
    std::fprintf(out, "usage: tandro [OPTIONS] COMMAND [ARGS]\n       tandro help COMMAND | COMMAND --help\n       "
                      "tandro --version\n\ncommands:\n");
    std::vector<tandro::Command> list = tandro::commands();
    std::sort(list.begin(), list.end(), [](const auto &a, const auto &b) { return std::string(a.name) < b.name; });
    for (const auto &c : list) {
        const std::string head = std::string(c.name) + (c.usage[0] ? " " : "") + c.usage;
        std::fprintf(out, "  %-22s %s\n", head.c_str(), c.summary);
    }
    std::fprintf(out, "\noptions:\n");
    for (const tandro::Opt &o : tandro::global_options()) {
        std::string head;
        for (const char *p = o.names; *p; ++p)
            head += *p == ',' ? std::string(", ") : std::string(1, *p);
        if (o.value)
            head += (o.value[0] == '[' ? "" : " ") + std::string(o.value);
        std::fprintf(out, "  %-22s %s\n", head.c_str(), o.help);
    }
    std::fprintf(out,
                 "  (no --port and no --sim: TANDRO_PORT, else the reader is searched for on USB and serial ports;\n"
                 "   the manual page tandro(1) has the whole of it)\n");
    return out == stdout ? 0 : 2;
}

// The whole of what a stream wrote since it was made, and the stream closed.
std::string drain(std::FILE *f)
{
    std::string out;
    if (!f)
        return out;
    std::fflush(f);
    std::rewind(f);
    char buf[4096];
    size_t n = 0;
    while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
        out.append(buf, n);
    std::fclose(f);
    return out;
}

// A command's own error object, given the members every error object has when it lacks them: "status" (the
// status of the failure, else null) and "status_text" (the status's name, else null).
std::string complete_error_object(std::string object, const tandro::Failure &failure)
{
    while (!object.empty() && (object.back() == '\n' || object.back() == ' ' || object.back() == '\r'))
        object.pop_back();
    if (object.empty() || object.back() != '}')
        return object;
    const size_t at = object.find("\"status\": ");
    bool known = false;
    uint32_t status = 0;
    if (at != std::string::npos) {
        char *end = nullptr;
        const unsigned long v = std::strtoul(object.c_str() + at + 10, &end, 10);
        known = end != object.c_str() + at + 10 && v <= 0xFFFFFFFFul;
        status = static_cast<uint32_t>(v);
    } else if (failure.has_status) {
        known = true;
        status = failure.status;
    }
    std::string members;
    if (at == std::string::npos)
        members += ", \"status\": " + (known ? std::to_string(status) : std::string("null"));
    if (object.find("\"status_text\": ") == std::string::npos)
        members +=
            ", \"status_text\": " + (known ? tandro::json_string(ZEL_Status2String(status)) : std::string("null"));
    object.insert(object.size() - 1, members);
    return object;
}

// Under --json a command's standard output is exactly one JSON document: what it printed when it succeeds,
// else the error object of its failure in place of anything partial. What it writes to standard error is
// passed on after it ends. Commands that stream one object per event (watch, sim) are run as they are.
int run_json(const tandro::Command &c, const tandro::Options &opt, const tandro::Args &args)
{
    std::fflush(stdout);
    std::fflush(stderr);
    std::FILE *out = std::tmpfile(), *err = std::tmpfile();
    const int saved_out = dup(STDOUT_FILENO), saved_err = dup(STDERR_FILENO);
    if (!out || !err || saved_out < 0 || saved_err < 0 || dup2(fileno(out), STDOUT_FILENO) < 0 ||
        dup2(fileno(err), STDERR_FILENO) < 0) {
        for (std::FILE *f : {out, err})
            if (f)
                std::fclose(f);
        for (int fd : {saved_out, saved_err})
            if (fd >= 0) {
                dup2(fd, fd == saved_out ? STDOUT_FILENO : STDERR_FILENO);
                close(fd);
            }
        return c.run(opt, args);
    }
    const int rc = c.run(opt, args);
    std::fflush(stdout);
    std::fflush(stderr);
    dup2(saved_out, STDOUT_FILENO);
    dup2(saved_err, STDERR_FILENO);
    close(saved_out);
    close(saved_err);
    const std::string printed = drain(out), complaints = drain(err);
    std::fwrite(complaints.data(), 1, complaints.size(), stderr);
    if (rc == 0) {
        std::fwrite(printed.data(), 1, printed.size(), stdout);
        if (!printed.empty() && printed.back() != '\n')
            std::fputc('\n', stdout);
        return 0;
    }
    // A command that prints an error object of its own (with more members, such as the card's status word)
    // keeps it, as long as it is all it printed.
    const size_t first = printed.find_first_not_of(" \t\r\n");
    if (first != std::string::npos && printed.compare(first, 9, "{\"error\":") == 0 &&
        printed.find("\n{", first) == std::string::npos) {
        const std::string object = complete_error_object(printed.substr(first), tandro::last_failure());
        std::printf("%s\n", object.c_str());
        return rc;
    }
    tandro::Failure failure = tandro::last_failure();
    if (failure.message.empty()) {
        // A failure the command did not report through the shared calls: its last line on standard error.
        std::string last = complaints;
        while (!last.empty() && last.back() == '\n')
            last.pop_back();
        last = last.substr(last.rfind('\n') == std::string::npos ? 0 : last.rfind('\n') + 1);
        const std::string head = std::string("tandro ") + c.name + ": ";
        if (last.rfind(head, 0) == 0)
            last = last.substr(head.size());
        failure.message = last.empty() ? std::string(c.name) + " failed" : last;
    }
    std::printf("%s\n", tandro::failure_json(failure).c_str());
    return rc;
}

} // namespace

int main(int argc, char **argv)
{
    tandro::Options opt;
    int i = 1;
    bool bad = false;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "help" && i + 1 < argc) {
            const tandro::Command *c = find_command(argv[i + 1]);
            if (!c) {
                std::fprintf(stderr, "tandro: unknown command \"%s\"\n", argv[i + 1]);
                return 2;
            }
            return command_help(*c, opt);
        }
        if (a == "--help" || a == "-h" || a == "help")
            return usage(stdout);
        if (a == "--man") { // the manual page, as the build installs it
            std::fputs(tandro::manual_page(GetDllVersionStr()).c_str(), stdout);
            return 0;
        }
        if (a == "--version") {
            std::printf("tandro %s\n", GetDllVersionStr());
            return 0;
        }
        if (!global_option(opt, argc, argv, i, bad))
            break;
        if (bad)
            return 2;
    }
    if (i >= argc)
        return usage(stderr);
    const std::string name = argv[i];
    tandro::Args args;
    for (int k = i + 1; k < argc; ++k) {
        if (name == "sim") { // the simulated reader's own options pass through untouched
            args.push_back(argv[k]);
            continue;
        }
        if (!global_option(opt, argc, argv, k, bad))
            args.push_back(argv[k]);
        if (bad)
            return 2;
    }
    if (name != "sim" && !environment_reader(opt))
        return 2;
    if (opt.verbose) {
        ZEL_DebugPrintSetSink(verbose_sink, &opt.debug);
        ZEL_DebugPrintEnable(1);
    } else if (opt.debug) {
        ZEL_DebugPrintEnable(1);
    }
    const tandro::Command *c = find_command(name);
    if (!c) {
        if (opt.json) {
            tandro::usage_error("tandro", "unknown command \"" + name + "\"");
            std::printf("%s\n", tandro::failure_json(tandro::last_failure()).c_str());
            return 2;
        }
        std::fprintf(stderr, "tandro: unknown command \"%s\"\n\n", name.c_str());
        return usage(stderr);
    }
    if (name != "sim" && std::find_if(args.begin(), args.end(),
                                      [](const std::string &a) { return a == "--help" || a == "-h"; }) != args.end())
        return command_help(*c, opt);
    return opt.json && name != "watch" && name != "sim" ? run_json(*c, opt, args) : c->run(opt, args);
}
