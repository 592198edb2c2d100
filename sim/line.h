// The line model: what a real line costs. A link that has one waits, on its own thread, for the wire time of
// the bytes that pass (10 bits a byte on a serial line, 8 on a network link) and for the reader's turnaround
// after each command it takes; without one, the links run as fast as the machine.
#ifndef ZELSIM_LINE_H
#define ZELSIM_LINE_H

#include <cstddef>
#include <cstdint>

#include "core.h"

namespace zs {

constexpr uint32_t LINE_DEFAULT_TURNAROUND_US = 2000;

// The wire time of n bytes on the simulator's line, in microseconds (0 without a line model).
uint64_t line_wire_us(zsim *sim, size_t n, bool serial);
// Takes the host's bytes off the line: waits for them to arrive, feeds them to the reader, and waits the
// turnaround when they completed a command.
void line_input(zsim *sim, LinkCore &link, const uint8_t *in, size_t n, bool serial);
// Waits for the wire time of n bytes the reader is about to put on the line.
void line_output(zsim *sim, size_t n, bool serial);
// Reads "RATE[,TURNAROUND_MS]" (the turnaround may have a fraction, "0.5"). False for anything else.
bool line_parse(const char *text, uint32_t &rate, uint32_t &turnaround_us);

// An ESP front's answer to the host's address question, when the bytes are that question: true when they
// were (the answer is then queued on the link). The caller holds the simulator's lock.
bool front_question(zsim *sim, LinkCore &link, const uint8_t *in, size_t n);

} // namespace zs

#endif
