// The reader's reset line (RTS in either polarity, or a GPIO pin) and the boot sequence after a reset:
// port calls only, no frames.
#include "transport/reset_line.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "core/internal.h"
#include "zel_ftdi.h"
#include "zel_open.h"
#include "zel_port.h"
#include "zel_status.h"

extern char **environ;

namespace {

constexpr uint32_t kResetPin = 23;
constexpr uint32_t kBootWaitMs = 200;
constexpr uint32_t kBootTimeoutMs = 250;
constexpr uint32_t kAfterBootMs = 80;

std::mutex g_gpio_mutex;
std::string g_gpio_program = "pinctrl";
zel::PinCommandHook g_pin_hook = nullptr;
constexpr uint32_t kGpioDeadlineMs = 2000;
constexpr uint32_t kGpioPollMs = 2;
std::atomic<uint32_t> g_gpio_deadline_ms{kGpioDeadlineMs};

// Runs the GPIO program with its arguments given directly, no shell in between: true when it ran and
// reported success.
bool run_gpio(uint32_t pin, const char *operation)
{
    std::string program;
    zel::PinCommandHook hook = nullptr;
    {
        std::lock_guard<std::mutex> lock(g_gpio_mutex);
        program = g_gpio_program;
        hook = g_pin_hook;
    }
    char pin_text[16];
    std::snprintf(pin_text, sizeof pin_text, "%u", pin);
    if (hook) {
        const std::string command = "pinctrl set " + std::string(pin_text) + " " + (operation ? operation : "");
        return hook(command.c_str()) == 0;
    }
    // "op dl" and the like are two words of the command line.
    std::string op = operation ? operation : "";
    std::string first = op, second;
    if (const size_t space = op.find(' '); space != std::string::npos) {
        first = op.substr(0, space);
        second = op.substr(space + 1);
    }
    char *argv[] = {
        program.data(), const_cast<char *>("set"), pin_text, first.data(), second.empty() ? nullptr : second.data(),
        nullptr};
    pid_t pid = 0;
    if (posix_spawnp(&pid, program.c_str(), nullptr, nullptr, argv, environ) != 0)
        return false;
    // The program gets a deadline of real time: one that hangs is killed and the pin counts as not set.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(g_gpio_deadline_ms.load());
    int status = 0;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR)
            return false;
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
            }
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kGpioPollMs));
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// Where the reset level sits on RTS: read from the FTDI EEPROM when the library can, else from the wiring.
void update_inversion(zel_handle_record *hnd)
{
    if (hnd->comm.use == ZEL_PORT_FTDI) {
        if (hnd->ftdi_loaded & 1) {
            uint8_t inverted = static_cast<uint8_t>(hnd->comm.RTS_inverted);
            ftdi_CheckRTS(hnd->ftHandle, &inverted);
            hnd->comm.RTS_inverted = inverted ? 1 : 0;
        }
    } else {
        hnd->comm.RTS_inverted = hnd->comm.rts == READER_ACTIVE_ON_RTS_LOW ? 1 : 0;
    }
    if (hnd->gpio_reset)
        hnd->comm.RTS_inverted = 0;
}

bool speed_of_the_open(const zel_handle_record *hnd)
{
    return (hnd->open_speed == 1 && hnd->baud_rate == 1000000) || (hnd->open_speed == 2 && hnd->baud_rate == 115200) ||
           (hnd->open_speed == 3 && hnd->baud_rate == 250000);
}

} // namespace

void zel::set_gpio_program(const char *program)
{
    std::lock_guard<std::mutex> lock(g_gpio_mutex);
    g_gpio_program = program ? program : "pinctrl";
}

void zel::set_gpio_deadline_ms(uint32_t ms)
{
    g_gpio_deadline_ms = ms ? ms : kGpioDeadlineMs;
}

void zel::set_pin_command_hook(PinCommandHook hook)
{
    std::lock_guard<std::mutex> lock(g_gpio_mutex);
    g_pin_hook = hook;
}

extern "C" ZEL_API int setGPIOPin(uint32_t pin, const char *operation)
{
    if (run_gpio(pin, operation))
        return 0;
    std::printf("Error executing pinctrl command\n");
    return -1;
}

extern "C" ZEL_API ZEL_STATUS ReaderResetSetHnd(ZEL_HANDLE hnd, uint32_t level)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    update_inversion(hnd);
    if (hnd->gpio_reset) {
        // The pin drives the reset input directly: low lets the reader run.
        if (run_gpio(kResetPin, level ? "op dl" : "op dh"))
            return ZEL_OK;
        std::printf("Error executing pinctrl command\n");
        return level ? ZEL_GPIO_RUN_FAILED : ZEL_GPIO_RESET_FAILED;
    }
    return PortSetRTS(hnd, (level ? 1u : 0u) ^ hnd->comm.RTS_inverted);
}

extern "C" ZEL_API ZEL_STATUS ReaderResetOnHnd(ZEL_HANDLE hnd)
{
    return ReaderResetSetHnd(hnd, 1);
}

extern "C" ZEL_API ZEL_STATUS ReaderResetOffHnd(ZEL_HANDLE hnd)
{
    return ReaderResetSetHnd(hnd, 0);
}

extern "C" ZEL_API ZEL_STATUS ReaderWaitForBootSeqHnd(ZEL_HANDLE hnd, uint8_t wait_finish)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    static const uint8_t kBoot[4] = ZEL_BOOT_SEQUENCE;
    static const uint8_t kBootShifted[4] = ZEL_BOOT_SEQUENCE_SHIFTED;
    PortSetTimeout(hnd, kBootTimeoutMs);
    const uint32_t start = zel::tick_ms();
    hnd->boot_seen = 1;
    uint8_t last[4] = {};
    ZEL_STATUS status = ZEL_TIMEOUT_ERR;
    // The deadline is a time, and every round also sleeps, so the loop ends even on a stopped clock.
    for (uint32_t round = 0; zel::tick_ms() - start <= kBootWaitMs && round <= kBootWaitMs; ++round) {
        uint32_t waiting = 0;
        PortGetAvailable(hnd, &waiting);
        zel::os_sleep(5);
        if (waiting > 3) {
            if (PortRead(hnd, last, 4) != ZEL_OK)
                continue;
            if (std::memcmp(last, kBoot, 4) == 0 || std::memcmp(last, kBootShifted, 4) == 0) {
                status = ZEL_OK;
                break;
            }
        } else if (waiting > 0) {
            // Only the bytes of the last 4-byte read are looked at: the tail of a boot sequence split
            // across reads.
            const bool found = wait_finish ? last[0] == 0xBB : last[0] == 0x55 || last[0] == 0x03;
            if (found) {
                status = ZEL_OK;
                break;
            }
        }
    }
    PortSetTimeout(hnd, kBootTimeoutMs);
    return status;
}

ZEL_STATUS zel::reset_boot_wait(zel_handle_record *hnd)
{
    if (hnd->br_custom != ZEL_BR_NONE && !speed_of_the_open(hnd)) {
        // A custom speed hides the boot bytes, which come at the speed of the open.
        PortPurge(hnd);
        os_sleep(kAfterBootMs);
        return ZEL_OK;
    }
    const ZEL_STATUS status = ReaderWaitForBootSeqHnd(hnd, 1);
    if (status != ZEL_OK)
        return status;
    os_sleep(kAfterBootMs);
    return ZEL_OK;
}

ZEL_STATUS zel::reset_pulse_no_wait(zel_handle_record *hnd)
{
    if (!hnd)
        return ZEL_DEVICE_WRONG_HANDLE;
    (void)PortPurge(hnd);
    (void)ReaderResetSetHnd(hnd, 0);
    const ZEL_STATUS status = ReaderResetSetHnd(hnd, 1);
    os_sleep(5);
    return status;
}

extern "C" ZEL_API ZEL_STATUS ReaderResetNoWaitFWHnd(ZEL_HANDLE hnd)
{
    return zel::reset_pulse_no_wait(hnd);
}

extern "C" ZEL_API ZEL_STATUS ReaderHwRestartHnd(ZEL_HANDLE hnd)
{
    return ReaderResetNoWaitFWHnd(hnd);
}

extern "C" ZEL_API ZEL_STATUS ReaderHwResetHnd(ZEL_HANDLE hnd)
{
    return ReaderHwRestartHnd(hnd);
}
