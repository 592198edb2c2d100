// The tandro tool: options, the command registry and small helpers shared by the commands.
#ifndef TANDRO_TOOLS_CLI_H
#define TANDRO_TOOLS_CLI_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tandro {

struct Options {
    bool json = false;
    bool debug = false;
    bool verbose = false; // the link's bytes on standard error
    bool quiet = false;   // no progress bars
    // Where the reader is: the built-in simulated reader (with a scenario file, or the default one), or a
    // port name (a device path, or a host text for network readers).
    bool sim = false;
    std::string sim_scenario;
    std::string port;
    // How to open: reader type, port interface (a number, or T, U, L) and the argument words of the open.
    uint32_t reader_type = 0;
    uint32_t port_interface = 0;
    std::string arg;
    bool open_given = false; // any of the three was given
    // A reader of the reader list: by its index (--reader N) or serial description (--serial S).
    int32_t list_index = -1;
    std::string list_serial;
    bool list_given = false;
};

using Args = std::vector<std::string>;
struct OptionTable;

// One command of the tool. Each command file registers its own with a static Registration.
struct Command {
    const char *name;
    const char *usage;   // arguments, for the help text
    const char *summary; // one line
    int (*run)(const Options &opt, const Args &args);
    // True when the command prints its own --help; else the tool prints its usage and summary, or the help
    // its option table makes.
    bool own_help = false;
    // The command's forms and options (tools/options.h): they give its --help and its part of the manual.
    const OptionTable *table = nullptr;
};
struct Registration {
    explicit Registration(const Command &command);
};
const std::vector<Command> &commands();

// Decimal or 0x-prefixed hexadecimal.
bool parse_u32(const std::string &text, uint32_t *value);
// Bytes in hexadecimal, the one rule of every command: digits in upper or lower case, two a byte, with
// blanks (space, tab, carriage return), ':' or '-' allowed before, between and after bytes but not inside
// one. False, with out empty, for an odd number of digits or any other character.
bool parse_hex(const std::string &text, std::vector<uint8_t> &out);
// Bytes as upper case hexadecimal, two digits a byte, nothing between.
std::string to_hex(const uint8_t *p, size_t n);
// A JSON string literal, quotes included.
std::string json_string(const std::string &text);
// Prints "tandro NAME: message" on standard error and returns the exit code for a usage error (2).
int usage_error(const char *command, const std::string &message);
// Prints "tandro NAME: what: STATUS TEXT" on standard error and returns 1 (with what empty: no "what: ").
// The status goes into the error object the tool prints under --json.
int fail(const char *command, const std::string &what, uint32_t status);
// The same with a message of the command's own in place of "what: STATUS TEXT".
int fail_text(const char *command, const std::string &message, uint32_t status);

// The last failure a command reported through usage_error or fail.
struct Failure {
    std::string message; // the line printed, without "tandro NAME: "
    bool has_status = false;
    uint32_t status = 0;
    std::string partial; // a JSON value of what was found before the failure, or empty
};
const Failure &last_failure();
// Keeps what a command found before it failed, for the error object ("partial": value).
void set_failure_partial(const std::string &json_value);
// The error object of a failure: {"error": ..., "status": n or null, "status_text": ...[, "partial": ...]}.
std::string failure_json(const Failure &failure);

} // namespace tandro

#endif
