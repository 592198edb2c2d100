// Internal pieces of the reader's reset line, shared by the speed repair and the open sequence: port calls
// only, no frames.
#ifndef ZEL_TRANSPORT_RESET_LINE_H
#define ZEL_TRANSPORT_RESET_LINE_H

#include "zel_handle.h"

namespace zel {

// The wait after a pulse: the boot sequence at the speed of the open, or a plain pause at any other.
ZEL_STATUS reset_boot_wait(zel_handle_record *hnd);
// A reset pulse with no boot wait: purge, line to reset, line to run, 5 ms.
ZEL_STATUS reset_pulse_no_wait(zel_handle_record *hnd);
// Test seam: the program that drives a GPIO pin (null: "pinctrl" from the search path).
void set_gpio_program(const char *program);
// Test seam: how long the GPIO program may run before it is killed and the call fails (0: the usual 2 s).
void set_gpio_deadline_ms(uint32_t ms);
// Test seam: replaces running the GPIO program; the hook gets the whole command line ("pinctrl set 23 op dl")
// and returns 0 when it ran. Null restores the program.
using PinCommandHook = int (*)(const char *command);
void set_pin_command_hook(PinCommandHook hook);

} // namespace zel

#endif
