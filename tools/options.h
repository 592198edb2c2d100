// The tandro tool's declarative option tables. Each command describes its forms (the positional arguments
// of each thing it does) and its options once, in an OptionTable, which parses the command's words, prints its
// --help and writes its part of the manual page tandro(1).
#ifndef TANDRO_TOOLS_OPTIONS_H
#define TANDRO_TOOLS_OPTIONS_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tools/cli.h"

namespace tandro {

// One option: its names ("--uid", or "-o,--out" with a short name first), the name of its value for the
// help ("HEX"; null for a flag, which takes no value), and one line of help. A value name of several words
// ("TYPE SLOT") makes the option take that many words each time it is given.
struct Opt {
    const char *names;
    const char *value;
    const char *help;
};

// One form of a command: its positional arguments ("counter N") and what that does.
struct Form {
    const char *synopsis;
    const char *help;
};

// Everything a command takes. Options may be given anywhere among the positional words, as "--name VALUE"
// or "--name=VALUE"; words after "--" are positional whatever they look like.
struct OptionTable {
    std::vector<Form> forms;
    std::vector<Opt> options;
    // More about the command for its help and the manual page: paragraphs separated by a blank line.
    const char *description = "";
};

// What the words of a command held, by the table.
class Parsed {
public:
    // The positional words, in order.
    Args words;
    // Whether an option was given (by its long name, "--uid"), and how many times.
    bool has(const std::string &name) const { return count(name) > 0; }
    size_t count(const std::string &name) const;
    // The value given last (fallback when the option was not given), and every value in order (for an option
    // of several words, each word: "--key ec 2 --key rsa 1" gives ec, 2, rsa, 1).
    std::string value(const std::string &name, const std::string &fallback = "") const;
    std::vector<std::string> values(const std::string &name) const;
    // The positional word at index i, or empty.
    std::string word(size_t i) const { return i < words.size() ? words[i] : std::string(); }

private:
    friend bool parse(const char *, const OptionTable &, const Args &, Parsed &);
    std::map<std::string, std::vector<std::string>> given_; // long name -> values (flags: empty strings)
};

// Parses a command's words by its table. An unknown option, an option without its value or a value given to
// a flag is a usage error: reported through usage_error (so that --json prints the error object) and false.
bool parse(const char *command, const OptionTable &table, const Args &args, Parsed &out);

// The long name of an option entry ("--out" of "-o,--out").
std::string long_name(const Opt &opt);

// The help of a command as --help prints it.
std::string command_help_text(const Command &command);

// The options every command takes, for the tool's help and the manual page.
const std::vector<Opt> &global_options();

// The manual page tandro(1) in roff, from the tables of every command and the global options.
std::string manual_page(const char *version);

} // namespace tandro

#endif
