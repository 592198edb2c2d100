// Internal pieces of resetting a reader, shared by the open sequence.
#ifndef ZEL_TRANSPORT_RESET_H
#define ZEL_TRANSPORT_RESET_H

#include "transport/reset_line.h"
#include "zel_handle.h"

namespace zel {

// The reset pulse: purge, line to reset, line to run, 5 ms, then the boot wait; a network module in front
// of the reader resets it on command instead.
ZEL_STATUS reset_pulse(zel_handle_record *hnd);

} // namespace zel

#endif
