// Several simulated readers at once: one simulator per reader of a scenario's "readers" list, each with its own
// identity, field, links and lock, and the pseudo-terminals shown as USB serial ports in a folder of their own.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "core.h"
#include "json.h"
#include "line.h"
#include "scenario.h"
#include "zelsim.h"

struct zsim_set {
    std::vector<zsim *> readers;
    std::string ports_dir;
    std::vector<std::string> made; // files and folders to take away, deepest first
    ~zsim_set()
    {
        for (zsim *s : readers)
            zsim_free(s);
        for (auto it = made.rbegin(); it != made.rend(); ++it)
            if (unlink(it->c_str()) != 0)
                rmdir(it->c_str());
    }
};

namespace {

void set_err(char *err, size_t len, const std::string &msg)
{
    if (err && len)
        std::snprintf(err, len, "%s", msg.c_str());
}

bool make_dir(zsim_set &set, const std::string &path)
{
    if (mkdir(path.c_str(), 0755) == 0) {
        set.made.push_back(path);
        return true;
    }
    return errno == EEXIST;
}

// ports_dir/ttyUSB<n> links to the pseudo-terminal, and ports_dir/sys/class/tty/ttyUSB<n> lists it.
bool show_port(zsim_set &set, const std::string &pty, int number)
{
    const std::string name = "ttyUSB" + std::to_string(number);
    const std::string link = set.ports_dir + "/" + name;
    const std::string tty = set.ports_dir + "/sys/class/tty/" + name;
    if (symlink(pty.c_str(), link.c_str()) != 0 || !make_dir(set, tty))
        return false;
    set.made.insert(set.made.end() - 1, link);
    return true;
}

} // namespace

extern "C" {

zsim_set *zsim_set_start(const char *json, const char *ports_dir, char *report, size_t report_len, char *err,
                         size_t err_len)
{
    if (report && report_len)
        report[0] = '\0';
    if (!json) {
        set_err(err, err_len, "no scenario");
        return nullptr;
    }
    try {
        zs::Json root;
        std::string msg;
        if (!zs::json_parse(json, std::strlen(json), root, msg)) {
            set_err(err, err_len, msg);
            return nullptr;
        }
        std::vector<const zs::Json *> list;
        if (const zs::Json *rs = root.get("readers")) {
            if (rs->kind != zs::Json::ARRAY || rs->items.empty() || rs->items.size() > 128 || root.fields.size() != 1) {
                set_err(err, err_len, "readers: a list of 1 to 128 scenarios, alone in the object, is expected");
                return nullptr;
            }
            for (const auto &r : rs->items)
                list.push_back(&r);
        } else {
            list.push_back(&root);
        }
        auto set = std::make_unique<zsim_set>();
        if (ports_dir) {
            set->ports_dir = ports_dir;
            if (!make_dir(*set, set->ports_dir) || !make_dir(*set, set->ports_dir + "/sys") ||
                !make_dir(*set, set->ports_dir + "/sys/class") || !make_dir(*set, set->ports_dir + "/sys/class/tty")) {
                set_err(err, err_len, "cannot make the port folder " + set->ports_dir);
                return nullptr;
            }
        }
        std::string text;
        int port_number = 0;
        for (size_t i = 0; i < list.size(); ++i) {
            zsim *sim = zsim_new();
            if (!sim) {
                set_err(err, err_len, "out of memory");
                return nullptr;
            }
            set->readers.push_back(sim);
            zs::Scenario s;
            bool ok;
            {
                std::lock_guard<std::mutex> lock(sim->mu);
                ok = zs::parse_scenario(*list[i], s, sim->reader, msg);
            }
            if (!ok) {
                set_err(err, err_len, "readers[" + std::to_string(i) + "]: " + msg);
                return nullptr;
            }
            zs::apply_scenario(sim, s);
            char lines[2048] = {};
            if (zsim_serve_links(sim, lines, sizeof lines) != 0) {
                set_err(err, err_len, "readers[" + std::to_string(i) + "]: " + lines);
                return nullptr;
            }
            // Each line of the reader's report, with its number in front; pseudo-terminals become ports.
            for (char *line = std::strtok(lines, "\n"); line; line = std::strtok(nullptr, "\n")) {
                text += "reader " + std::to_string(i) + " " + line + "\n";
                if (!set->ports_dir.empty() && std::strncmp(line, "pty ", 4) == 0) {
                    if (!show_port(*set, line + 4, port_number)) {
                        set_err(err, err_len, "cannot show " + std::string(line + 4) + " in " + set->ports_dir);
                        return nullptr;
                    }
                    text += "reader " + std::to_string(i) + " port " + set->ports_dir + "/ttyUSB" +
                            std::to_string(port_number) + "\n";
                    ++port_number;
                }
            }
        }
        if (report && report_len)
            std::snprintf(report, report_len, "%s", text.c_str());
        return set.release();
    } catch (const std::exception &e) {
        set_err(err, err_len, e.what());
        return nullptr;
    }
}

size_t zsim_set_count(const zsim_set *set)
{
    return set ? set->readers.size() : 0;
}

zsim *zsim_set_reader(zsim_set *set, size_t index)
{
    return set && index < set->readers.size() ? set->readers[index] : nullptr;
}

void zsim_set_free(zsim_set *set)
{
    delete set;
}

void zsim_set_line(zsim *sim, uint32_t bit_rate, uint32_t turnaround_us)
{
    if (!sim)
        return;
    sim->line_rate.store(bit_rate);
    sim->line_turnaround_us.store(turnaround_us);
}

uint64_t zsim_line_waited_us(zsim *sim)
{
    return sim ? sim->line_waited_us.load() : 0;
}

void zsim_set_esp_front(zsim *sim, const char *address)
{
    if (!sim)
        return;
    std::lock_guard<std::mutex> lock(sim->mu);
    sim->esp_front = address != nullptr;
    sim->esp_address = address ? std::string(address).substr(0, 31) : std::string();
}

} // extern "C"
