/* Asynchronous card events on the global handle.
 *
 * A session tells the reader to announce every card entering its field ("!UID!") and leaving it ("!!") on
 * its own, and watches the port from two threads of the library: the polling thread reads what the reader
 * sends and calls the card-removed callback; the event thread asks the reader for the card's type and calls
 * the card-detected callback. The application keeps using the reader meanwhile: its commands take the port
 * from the polling thread. The three texts of the card-detected callback are valid during the call only. */
#ifndef ZEL_ASYNC_H
#define ZEL_ASYNC_H

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*zel_card_detected_callback)(const char *uid, const char *card_type, const char *manufacturer);
typedef void (*zel_card_removed_callback)(void);
/* Kept for the application; the library stores it and never calls it. */
typedef void (*zel_session_error_callback)(ZEL_STATUS status);

/* Starts a session on the global handle: configures the reader's announcements, reports a card already on
 * the reader (before returning, from the caller's thread), then starts both threads. A null callback leaves
 * the one set before. ZEL_NOT_IMPLEMENTED for a speed other than 1,000,000 or 115,200 bit/s. */
ZEL_API ZEL_STATUS StartAsyncSession(zel_card_detected_callback on_detected, zel_card_removed_callback on_removed);
/* Ends the session: both threads within a bounded wait, the card callbacks cleared, the reader's
 * announcements switched off (that command's status is returned). ZEL_OK at once without a session. */
ZEL_API ZEL_STATUS StopAsyncSession(void);

ZEL_API void setCardDetectedCallback(zel_card_detected_callback callback);
ZEL_API void setCardRemovedCallback(zel_card_removed_callback callback);
ZEL_API void setSessionErrorCallback(zel_session_error_callback callback);
ZEL_API void internal_setCardDetectedCallback(zel_card_detected_callback callback);
ZEL_API void internal_setCardRemovedCallback(zel_card_removed_callback callback);
ZEL_API void internal_setSessionErrorCallback(zel_session_error_callback callback);
/* Clears all three callbacks; a running session goes on and consumes its events silently. */
ZEL_API void removeCallbackHandlers(void);

/* The bodies of the two threads; each runs until the session is asked to stop and returns 0. */
ZEL_API uint32_t asyncUIDThread(ZEL_HANDLE hnd);
ZEL_API uint32_t asyncEventProcessorThread(ZEL_HANDLE hnd);

/* One polling step: 0 an arrival was queued or a removal delivered; 1 nothing usable; 2 the port emptied
 * between two looks; 3 the read failed; ZEL_FTD2XX_DLL_NOT_FOUND without the FTDI library. */
ZEL_API uint32_t readAsyncUID(ZEL_HANDLE hnd);
/* The synchronous form for a caller that holds the first bytes of an announcement: joins them with what
 * waits on the port and delivers the event on the caller's thread, the UID text as the reader sent it. */
ZEL_API uint32_t readPartialAsyncUID(ZEL_HANDLE hnd, const uint8_t *bytes, uint8_t count);

#ifdef __cplusplus
}
#endif
#endif
