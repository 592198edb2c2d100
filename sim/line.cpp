// The line model and the ESP front's address question.
#include "line.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace zs {

namespace {

constexpr char ADDRESS_QUESTION[] = "!GET_DEVICE_IP_AD!";

void wait_us(zsim *sim, uint64_t us)
{
    if (!us)
        return;
    sim->line_waited_us.fetch_add(us);
    std::this_thread::sleep_until(std::chrono::steady_clock::now() + std::chrono::microseconds(us));
}

} // namespace

uint64_t line_wire_us(zsim *sim, size_t n, bool serial)
{
    const uint64_t rate = sim->line_rate.load();
    if (rate == 0)
        return 0;
    return (static_cast<uint64_t>(n) * (serial ? 10u : 8u) * 1000000u + rate - 1) / rate;
}

void line_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n, bool serial)
{
    wait_us(sim, line_wire_us(sim, n, serial));
    const uint64_t before = sim->exchanges.load();
    link_input(sim, link, in, n);
    if (sim->line_rate.load() && sim->exchanges.load() != before)
        wait_us(sim, sim->line_turnaround_us.load());
}

void line_output(zsim *sim, size_t n, bool serial)
{
    wait_us(sim, line_wire_us(sim, n, serial));
}

bool line_parse(const char *text, uint32_t &rate, uint32_t &turnaround_us)
{
    if (!text || !*text)
        return false;
    char *end = nullptr;
    const unsigned long r = std::strtoul(text, &end, 10);
    if (end == text || r == 0 || r > 100000000ul || (*end && *end != ','))
        return false;
    uint64_t us = LINE_DEFAULT_TURNAROUND_US;
    if (*end == ',') {
        const char *t = end + 1;
        uint64_t whole = 0, frac = 0, scale = 1000;
        size_t digits = 0;
        for (; *t >= '0' && *t <= '9' && digits < 7; ++t, ++digits)
            whole = whole * 10 + static_cast<uint64_t>(*t - '0');
        if (digits == 0 || digits >= 7)
            return false;
        if (*t == '.') {
            ++t;
            for (size_t f = 0; *t >= '0' && *t <= '9'; ++t, ++f)
                if (f < 3) {
                    scale /= 10;
                    frac += static_cast<uint64_t>(*t - '0') * scale;
                }
        }
        if (*t)
            return false;
        us = whole * 1000 + frac;
        if (us > 60000000u)
            return false;
    }
    rate = static_cast<uint32_t>(r);
    turnaround_us = static_cast<uint32_t>(us);
    return true;
}

bool front_question(zsim *sim, LinkCore &link, const uint8_t *in, size_t n)
{
    const size_t q = sizeof ADDRESS_QUESTION - 1;
    if (!sim->esp_front || n < q || std::memcmp(in, ADDRESS_QUESTION, q) != 0)
        return false;
    const std::string answer = (sim->esp_address.empty() ? std::string("0.0.0.0") : sim->esp_address) + "\r\n";
    Action a;
    a.due_ms = now_ms();
    a.bytes.assign(answer.begin(), answer.end());
    link.pending.push_back(std::move(a));
    return true;
}

} // namespace zs
