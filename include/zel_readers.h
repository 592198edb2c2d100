/* The list of many readers: one scan opens every reader on FTDI and serial links and keeps them in one
 * process-wide list, next to the network readers that udp_reader_list adds; the entries are read and opened by
 * index or serial number.
 *
 * Handles given out by the list point into it: a rescan (ReaderList_UpdateAndGetCount) closes and frees every
 * entry, so every handle given out before it is invalid after it, and so is a handle after ReaderList_Destroy.
 * The list is not guarded: no scan, add or removal may run beside any use of list handles. Each handle may
 * then be used on a thread of its own.
 *
 * Text outputs (serial, firmware, FTDI serial and description) take buffers of at least
 * ZEL_READER_LIST_TEXT_LEN bytes and come back terminated. */
#ifndef ZEL_READERS_H
#define ZEL_READERS_H

#include "zel_handle.h"
#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define ZEL_READER_LIST_TEXT_LEN 64
/* The scan opens at most this many readers; ReaderList_Add appends beyond it. */
#define ZEL_READER_LIST_SCAN_MAX 64

#include "zel_readers_forms.h"

/* Applies f to every entry (a null entry is skipped) and answers the OR of the results; f may remove the entry
 * it is given. 15 for a null f. */
ZEL_API ZEL_STATUS do_f_to_all_devices(ZEL_STATUS (*f)(ZEL_HANDLE));
/* Asks the reader whether it is still there; one that is not is removed, closed and freed: 260. Null: 15. */
ZEL_API ZEL_STATUS unit_check_available(ZEL_HANDLE hnd);
/* An entry that is not opened is removed, closed and freed: 260; an opened one gives 0. Null: 15. */
ZEL_API ZEL_STATUS unit_delete_if_not_opened(ZEL_HANDLE hnd);
/* The check of every entry before a scan, and the scan's working records cleared. */
ZEL_API void pre_multi_open(void);
/* Removes an entry, closes its reader and frees it; 256 ("ERROR: remove_from_list - not in list !") when it is
 * not in the list. The second form also clears the caller's pointer (15 for a null pointer). */
ZEL_API ZEL_STATUS list_remove(ZEL_HANDLE hnd);
ZEL_API ZEL_STATUS list_multi_remove(ZEL_HANDLE *hnd);
/* Marks an opened record and reads its identity: FTDI serial and description, firmware "major.minor.build",
 * serial description and reader type. The reader stays open. 15 for a null record, else 0. */
ZEL_API ZEL_STATUS GetReaderInfo(ZEL_HANDLE hnd);

#ifdef __cplusplus
}
#endif
#endif
