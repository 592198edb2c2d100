#include "tools/options.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <sstream>

namespace tandro {

namespace {

// The names of an entry one by one ("-o,--out" gives "-o" and "--out").
std::vector<std::string> names_of(const Opt &opt)
{
    std::vector<std::string> out;
    std::stringstream in(opt.names);
    std::string name;
    while (std::getline(in, name, ','))
        if (!name.empty())
            out.push_back(name);
    return out;
}

// The words an option takes each time: one for "HEX", two for "TYPE SLOT", none for a flag.
size_t words_of(const Opt &opt)
{
    if (!opt.value)
        return 0;
    if (opt.value[0] == '[')
        return 1;
    const std::string value = opt.value;
    return 1 + static_cast<size_t>(std::count(value.begin(), value.end(), ' '));
}

// "-o, --out FILE" for the help.
std::string option_head(const Opt &opt)
{
    std::string head;
    for (const std::string &name : names_of(opt))
        head += (head.empty() ? "" : ", ") + name;
    if (opt.value)
        head += (opt.value[0] == '[' ? "" : " ") + std::string(opt.value); // "--sim[=SCENARIO]"
    return head;
}

// Two columns: the head padded to width, then the help; a head too long for the column gets a line of its own.
void column(std::string &out, const std::string &head, const char *help, size_t width = 26)
{
    out += "  " + head;
    if (head.size() + 1 > width)
        out += "\n  " + std::string(width, ' ');
    else
        out += std::string(width - head.size(), ' ');
    out += std::string(help) + "\n";
}

} // namespace

size_t Parsed::count(const std::string &name) const
{
    const auto it = given_.find(name);
    return it == given_.end() ? 0 : it->second.size();
}

std::string Parsed::value(const std::string &name, const std::string &fallback) const
{
    const auto it = given_.find(name);
    return it == given_.end() || it->second.empty() ? fallback : it->second.back();
}

std::vector<std::string> Parsed::values(const std::string &name) const
{
    const auto it = given_.find(name);
    return it == given_.end() ? std::vector<std::string>() : it->second;
}

std::string long_name(const Opt &opt)
{
    const std::vector<std::string> names = names_of(opt);
    for (const std::string &name : names)
        if (name.rfind("--", 0) == 0)
            return name;
    return names.empty() ? std::string() : names.front();
}

bool parse(const char *command, const OptionTable &table, const Args &args, Parsed &out)
{
    out = Parsed();
    CLI::App app{"", command};
    app.set_help_flag();
    app.allow_extras(false);
    std::vector<std::vector<std::string>> values(table.options.size());
    std::vector<int64_t> flags(table.options.size(), 0);
    try {
        for (size_t i = 0; i < table.options.size(); ++i) {
            const Opt &o = table.options[i];
            if (o.value)
                app.add_option(o.names, values[i])
                    ->type_size(static_cast<int>(words_of(o)))
                    ->expected(1)
                    ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
                    ->allow_extra_args(false);
            else
                app.add_flag(o.names, flags[i])->disable_flag_override(); // a flag takes no "=value"
        }
        app.add_option("words", out.words);
        // CLI11 takes the words last first.
        std::vector<std::string> reversed(args.rbegin(), args.rend());
        app.parse(reversed);
    } catch (const CLI::ExtrasError &e) {
        // The words CLI11 could not place: the first of them is named.
        std::string why = e.what();
        const size_t colon = why.find(": ");
        const std::string word = colon == std::string::npos ? why : why.substr(colon + 2);
        usage_error(command, (word.rfind("-", 0) == 0 ? "unknown option " : "unexpected ") + word + " (tandro " +
                                 command + " --help)");
        return false;
    } catch (const CLI::ArgumentMismatch &e) {
        // The option the message begins with ("--uid: 1 required TEXT missing").
        // A flag given "=value" is named without its dashes ("pad was given a disallowed flag override").
        const std::string why = e.what();
        if (why.find("flag override") != std::string::npos)
            usage_error(command,
                        "--" + why.substr(0, why.find(' ')) + " takes no value (tandro " + command + " --help)");
        else {
            const std::string name = why.substr(0, why.find(':'));
            std::string wanted = "a value";
            for (const Opt &o : table.options)
                if (words_of(o) > 1 && long_name(o) == name)
                    wanted = o.value;
            usage_error(command, name + " needs " + wanted + " (tandro " + command + " --help)");
        }
        return false;
    } catch (const CLI::ParseError &e) {
        std::string why = e.what();
        if (why.empty())
            why = "the words cannot be read";
        usage_error(command, why + " (tandro " + command + " --help)");
        return false;
    } catch (const std::exception &e) {
        usage_error(command, e.what());
        return false;
    }
    for (size_t i = 0; i < table.options.size(); ++i) {
        const std::string name = long_name(table.options[i]);
        if (table.options[i].value) {
            if (!values[i].empty())
                out.given_[name] = values[i];
        } else if (flags[i] > 0) {
            out.given_[name] = std::vector<std::string>(static_cast<size_t>(flags[i]));
        }
    }
    return true;
}

std::string command_help_text(const Command &c)
{
    std::string out = "usage: tandro [OPTIONS] " + std::string(c.name) + (c.usage[0] ? " " : "") + c.usage + "\n\n" +
                      c.summary + "\n";
    const OptionTable *table = c.table;
    if (table && table->description[0])
        out += std::string("\n") + table->description + "\n";
    if (table && !table->forms.empty()) {
        out += "\nforms:\n";
        for (const Form &f : table->forms)
            column(out, std::string(c.name) + (f.synopsis[0] ? " " : "") + f.synopsis, f.help, 34);
    }
    if (table && !table->options.empty()) {
        out += "\noptions:\n";
        for (const Opt &o : table->options)
            column(out, option_head(o), o.help);
    }
    out += "\nOPTIONS are those every command takes (tandro --help).\n";
    return out;
}

const std::vector<Opt> &global_options()
{
    static const std::vector<Opt> table = {
        {"--json", nullptr, "structured output: exactly one JSON document, an error object on failure"},
        {"--debug", nullptr, "the library's debug lines on standard error"},
        {"-v,--verbose", nullptr, "the bytes sent to and read from the reader, on standard error"},
        {"-q,--quiet", nullptr, "no progress bars (they show only on a terminal, never with --json)"},
        {"--sim", "[=SCENARIO]", "the built-in simulated reader (default cards, or a scenario file)"},
        {"--port", "NAME", "the reader's port: device path, reader serial, or HOST[:PORT] on a network"},
        {"--type", "N", "reader type: 0 any, 1 at 1 Mbit/s, 2 at 115200, 3 at 250000, 4 network"},
        {"--interface", "I", "0 auto, 1 serial, 2 FTDI, 10 serial with GPIO reset, T TCP, U UDP"},
        {"--arg", "WORDS", "words of the open, such as \"UNIT_OPEN_RESET_DISABLE\""},
        {"--reader", "N", "the reader at index N of tandro readers"},
        {"--serial", "S", "the reader of tandro readers whose serial begins with S"},
    };
    return table;
}

namespace {

// Text for roff: backslashes and minus signs escaped, and no line that begins with a control character.
std::string roff(const std::string &text)
{
    std::string out;
    bool line_start = true;
    for (char ch : text) {
        if (line_start && (ch == '.' || ch == '\''))
            out += "\\&";
        if (ch == '\\')
            out += "\\e";
        else if (ch == '-')
            out += "\\-";
        else
            out += ch;
        line_start = ch == '\n';
    }
    return out;
}

void roff_item(std::string &out, const std::string &head, const std::string &help)
{
    out += ".TP\n\\fB" + roff(head) + "\\fR\n" + roff(help) + "\n";
}

// Paragraphs separated by a blank line become .PP paragraphs.
void roff_paragraphs(std::string &out, const std::string &text)
{
    std::string rest = text;
    while (!rest.empty()) {
        const size_t end = rest.find("\n\n");
        const std::string para = rest.substr(0, end);
        if (!para.empty())
            out += ".PP\n" + roff(para) + "\n";
        rest = end == std::string::npos ? std::string() : rest.substr(end + 2);
    }
}

} // namespace

std::string manual_page(const char *version)
{
    std::string out = ".TH TANDRO 1 \"\" \"tandro " + roff(version) + "\" \"User Commands\"\n";
    out += ".SH NAME\ntandro \\- NFC and RFID readers from a shell\n";
    out += ".SH SYNOPSIS\n.B tandro\n[\\fIOPTIONS\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR]\n.br\n"
           ".B tandro\n\\fICOMMAND\\fR \\-\\-help\n";
    out += ".SH DESCRIPTION\n";
    roff_paragraphs(out,
                    "tandro drives a reader from a shell: it opens the reader (on a serial or USB port, over FTDI, on "
                    "a network, or the built-in simulated reader with --sim), runs one command and closes it. "
                    "Every command prints readable text, or exactly one JSON document with --json (an error "
                    "object on failure).\n\nSecrets (PINs, keys, full account numbers, Wi-Fi passwords) are "
                    "shown only when a command is asked for them.");
    out += ".SH OPTIONS\nThese options may come before or after the command's name.\n";
    for (const Opt &o : global_options())
        roff_item(out, option_head(o), o.help);
    out += ".SH COMMANDS\n";
    std::vector<Command> list = commands();
    std::sort(list.begin(), list.end(),
              [](const Command &a, const Command &b) { return std::string(a.name) < b.name; });
    for (const Command &c : list) {
        out +=
            ".SS \"" + roff(std::string(c.name) + (c.usage[0] ? " " : "") + c.usage) + "\"\n" + roff(c.summary) + "\n";
        const OptionTable *table = c.table;
        if (!table)
            continue;
        if (table->description[0])
            roff_paragraphs(out, table->description);
        for (const Form &f : table->forms)
            roff_item(out, std::string(c.name) + (f.synopsis[0] ? " " : "") + f.synopsis, f.help);
        for (const Opt &o : table->options)
            roff_item(out, option_head(o), o.help);
    }
    out += ".SH ENVIRONMENT\n";
    roff_item(out, "TANDRO_PORT", "the reader's port when no --port, --sim, --reader or --serial is given");
    roff_item(out, "TANDRO_INTERFACE", "the port interface when no --interface is given (as --interface)");
    roff_item(out, "TANDRO_ARG", "the words of the open when no --arg is given (as --arg)");
    out += ".SH EXIT STATUS\n";
    roff_item(out, "0", "the command did what it was asked");
    roff_item(out, "1", "the reader, the card, a file or the network failed; the message names the status");
    roff_item(out, "2", "the command's words were wrong; nothing was sent to the reader");
    return out;
}

} // namespace tandro
