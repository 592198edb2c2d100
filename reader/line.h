// The reset line and the default-rate opens used by the speed repair. Internal.
#ifndef ZEL_READER_LINE_H
#define ZEL_READER_LINE_H

#include <cstdint>

#include "zel_handle.h"

namespace zel {

// Level 1 lets the reader run, level 0 holds it in reset; the inversion is learned first (from the FTDI
// EEPROM, or from comm.rts), and a GPIO reset line goes through the pin command.
ZEL_STATUS reset_line_set(zel_handle_record *hnd, uint32_t level);
// A reset pulse with no boot wait: purge, level 0, level 1, 5 ms.
ZEL_STATUS reset_pulse_no_wait(zel_handle_record *hnd);
// Open a serial port (port_kind 1) or FTDI device 0 (port_kind 2) at the default rate of the reader type
// (1,000,000 for type 1, otherwise 115,200) and catch the boot bytes of a reset.
ZEL_STATUS default_rate_open_serial(zel_handle_record *hnd, uint8_t reader_type, const char *port_name);
ZEL_STATUS default_rate_open_ftdi(zel_handle_record *hnd, uint8_t reader_type);

// Test seam: replaces the pin command runner (null restores it); it returns 0 when the command ran.
using PinCommandHook = int (*)(const char *command);
void set_pin_command_hook(PinCommandHook hook);

} // namespace zel

#endif
