// Printing the NDEF messages of the card in front of a reader, as `tandro ndef read` shows them.
#ifndef TANDRO_TOOLS_NDEF_PRINT_H
#define TANDRO_TOOLS_NDEF_PRINT_H

#include "tandro.h"

namespace tandro {

// Reads every message and record of the card in the field and prints them on standard output: TNF, type,
// id and payload of each record, decoded as a URI or a text when the type says so, and every typed record the
// library knows (Wi-Fi, Bluetooth, contact, the URI kinds, application record) as its report; one JSON
// object when json is set. A Wi-Fi record's password and payload are shown only with show_secrets. On
// failure prints "tandro ndef read: STATUS" on standard error. Returns 0 on success.
int print_ndef(ZEL_HANDLE h, bool json, bool show_secrets = false);

} // namespace tandro

#endif
