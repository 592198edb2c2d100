// Printing the NDEF messages of the card in front of a reader, as `tandro ndef read` shows them.
#ifndef TANDRO_TOOLS_NDEF_PRINT_H
#define TANDRO_TOOLS_NDEF_PRINT_H

#include "tandro.h"

namespace tandro {

// Reads every message and record of the card in the field and prints them on standard output: TNF, type,
// id and payload of each record, decoded as a URI or a text when the type says so; one JSON object when
// json is set. On failure prints "tandro ndef read: STATUS" on standard error. Returns 0 on success.
int print_ndef(ZEL_HANDLE h, bool json);

} // namespace tandro

#endif
