// The default-rate opens used by the speed repair. Internal.
#ifndef ZEL_TRANSPORT_LINE_H
#define ZEL_TRANSPORT_LINE_H

#include <cstdint>

#include "zel_handle.h"

namespace zel {

// Open a serial port (port_kind 1) or FTDI device 0 (port_kind 2) at the default rate of the reader type
// (1,000,000 for type 1, otherwise 115,200) and catch the boot bytes of a reset.
ZEL_STATUS default_rate_open_serial(zel_handle_record *hnd, uint8_t reader_type, const char *port_name);
ZEL_STATUS default_rate_open_ftdi(zel_handle_record *hnd, uint8_t reader_type);

} // namespace zel

#endif
