// The asynchronous session: its start and stop, the callbacks, the polling thread and the event thread.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <pthread.h>

#include <atomic>

#include "async/internal.h"
#include "core/internal.h"
#include "tandro.h"

namespace {

// The card type query of the global record, logged as the application's call of it is.
ZEL_STATUS card_type_of_global(uint8_t *type)
{
    dp(0, "API begin: %s()", "GetOrbCardType");
    return GetOrbCardTypeHnd(&zel_global, type);
}

using namespace zel::async;

// Process-wide callback slots, read by the session's threads while the application may set them.
std::atomic<zel_card_detected_callback> g_detected{nullptr};
std::atomic<zel_card_removed_callback> g_removed{nullptr};
std::atomic<zel_session_error_callback> g_error{nullptr};

constexpr uint32_t kPollMs = 150;
constexpr uint32_t kBusySpinMs = 5;
constexpr uint32_t kSettleMs = 25;
constexpr uint32_t kEventWaitMs = 500;
constexpr uint32_t kJoinMs = 2000;
constexpr uint32_t kRestartJoinMs = 1000;
constexpr uint32_t kFirstByteCount = 10; // fewer than this may be a frame still arriving
constexpr int kLog = 6;

bool stop_asked(const zel_handle_record *hnd)
{
    return __atomic_load_n(&hnd->async_stop, __ATOMIC_ACQUIRE) != 0;
}

void set_stop(zel_handle_record *hnd, uint32_t value)
{
    __atomic_store_n(&hnd->async_stop, value, __ATOMIC_RELEASE);
}

// port_busy read as the polling thread does: a compare-and-swap of 0 with 0.
bool port_busy(zel_handle_record *hnd)
{
    uint32_t expected = 0;
    return !__atomic_compare_exchange_n(&hnd->port_busy, &expected, 0u, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// The auto-reset event embedded in the record.
bool event_active(const zel_event *e)
{
    return __atomic_load_n(&e->active, __ATOMIC_ACQUIRE) != 0;
}

bool event_create(zel_event *e)
{
    pthread_condattr_t attr;
    if (pthread_condattr_init(&attr) != 0)
        return false;
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    const bool cond_ok = pthread_cond_init(&e->cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    if (!cond_ok)
        return false;
    if (pthread_mutex_init(&e->mutex, nullptr) != 0) {
        pthread_cond_destroy(&e->cond);
        return false;
    }
    e->signalled = 0;
    __atomic_store_n(&e->active, 1u, __ATOMIC_RELEASE);
    return true;
}

void event_signal(zel_event *e)
{
    if (!event_active(e))
        return;
    pthread_mutex_lock(&e->mutex);
    e->signalled = 1;
    pthread_cond_signal(&e->cond);
    pthread_mutex_unlock(&e->mutex);
}

// Waits up to ms for the event; true when it was signalled (which resets it).
bool event_wait(zel_event *e, uint32_t ms)
{
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    pthread_mutex_lock(&e->mutex);
    while (!e->signalled)
        if (pthread_cond_timedwait(&e->cond, &e->mutex, &deadline) == ETIMEDOUT)
            break;
    const bool was = e->signalled != 0;
    e->signalled = 0;
    pthread_mutex_unlock(&e->mutex);
    return was;
}

void event_close(zel_event *e)
{
    if (!event_active(e))
        return;
    __atomic_store_n(&e->active, 0u, __ATOMIC_RELEASE);
    pthread_cond_destroy(&e->cond);
    pthread_mutex_destroy(&e->mutex);
}

// Waits up to ms for a thread; a thread that does not end is let go.
bool join_within(pthread_t thread, uint32_t ms)
{
    timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += ms / 1000;
    deadline.tv_nsec += static_cast<long>(ms % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    if (pthread_timedjoin_np(thread, nullptr, &deadline) == 0)
        return true;
    pthread_detach(thread);
    return false;
}

void *reader_main(void *arg)
{
    asyncUIDThread(static_cast<ZEL_HANDLE>(arg));
    return nullptr;
}

void *processor_main(void *arg)
{
    asyncEventProcessorThread(static_cast<ZEL_HANDLE>(arg));
    return nullptr;
}

// Calls the card-detected callback with the UID text, the type's text and the maker of the first UID byte.
void deliver_detected(const char *uid_text, uint8_t type)
{
    char type_text[256] = {};
    std::snprintf(type_text, sizeof type_text, "%s", ZEL_OrbCardType2String(type));
    unsigned char first = 0;
    if (std::sscanf(uid_text, "%2hhx", &first) != 1)
        first = 0;
    char maker[256] = {};
    getCardManufacturer(first, maker);
    if (zel_card_detected_callback cb = g_detected.load())
        cb(uid_text, type_text, maker);
}

void deliver_removed()
{
    if (zel_card_removed_callback cb = g_removed.load())
        cb();
    zel::os_sleep(kSettleMs);
}

void queue_uid(zel_handle_record *hnd, const uint8_t *uid, uint8_t size)
{
    pthread_mutex_lock(&hnd->async_ring_lock);
    ring_put(hnd, uid, size);
    event_signal(&hnd->async_ring_event);
    pthread_mutex_unlock(&hnd->async_ring_lock);
}

// Delivers what was kept for the session while commands ran. True when an event came of it.
bool deliver_stored(zel_handle_record *hnd)
{
    uint8_t bytes[kReadBufLen];
    const uint32_t n = take_stored(bytes, sizeof bytes);
    if (n == 0)
        return false;
    Parsed events[kReadBufLen / 2];
    const uint32_t count = split_stored(bytes, n, events, sizeof events / sizeof events[0]);
    bool any = false;
    for (uint32_t i = 0; i < count; ++i) {
        switch (events[i].kind) {
        case ReadKind::reset: dp(kLog, "[READ_ASYNC_UID] Device reset detected"); break;
        case ReadKind::removal:
            deliver_removed();
            any = true;
            break;
        case ReadKind::uid:
            queue_uid(hnd, events[i].uid, events[i].uid_size);
            any = true;
            break;
        case ReadKind::nothing: break;
        }
    }
    return any;
}

// How many bytes wait on the port, taken while no manual operation is under way. 0 ok, 1 the query
// failed, 2 the port was not free.
int look(zel_handle_record *hnd, uint32_t *count)
{
    if (!poller_enter(hnd))
        return 2;
    uint32_t n = 0;
    ZEL_STATUS status = ZEL_OK;
    switch (hnd->comm.use) {
    case ZEL_PORT_FTDI:
    case ZEL_PORT_SERIAL:
    case zel::kPortHook: // a played serial link
        status = zel::port_available_raw(hnd, &n);
        break;
    default: n = 0; break; // sockets bring no announcements
    }
    poller_leave();
    if (status != ZEL_OK)
        return 1;
    *count = n;
    return 0;
}

bool ftdi_missing(const zel_handle_record *hnd)
{
    return hnd->comm.use == ZEL_PORT_FTDI && !(hnd->ftdi_loaded & 1);
}

} // namespace

extern "C" {

ZEL_API void internal_setCardDetectedCallback(zel_card_detected_callback callback)
{
    g_detected.store(callback);
}

ZEL_API void internal_setCardRemovedCallback(zel_card_removed_callback callback)
{
    g_removed.store(callback);
}

ZEL_API void internal_setSessionErrorCallback(zel_session_error_callback callback)
{
    g_error.store(callback);
}

ZEL_API void setCardDetectedCallback(zel_card_detected_callback callback)
{
    internal_setCardDetectedCallback(callback);
}

ZEL_API void setCardRemovedCallback(zel_card_removed_callback callback)
{
    internal_setCardRemovedCallback(callback);
}

ZEL_API void setSessionErrorCallback(zel_session_error_callback callback)
{
    internal_setSessionErrorCallback(callback);
}

ZEL_API void removeCallbackHandlers(void)
{
    g_detected.store(nullptr);
    g_removed.store(nullptr);
    g_error.store(nullptr);
}

ZEL_API uint32_t readAsyncUID(ZEL_HANDLE hnd)
{
    if (!hnd)
        return 1;
    if (port_busy(hnd)) {
        dp(kLog, "[readAsyncUID] Manual command active, aborting async read");
        return 1;
    }
    // Announcements the application's commands took off the port come first, in the order they came.
    if (deliver_stored(hnd))
        return 0;
    uint32_t count = 0;
    if (look(hnd, &count) == 2)
        return 1;
    if (count == 0)
        return 1;
    if (count < kFirstByteCount) {
        // A frame may still be on its way.
        zel::os_sleep(kSettleMs);
        uint32_t again = 0;
        if (look(hnd, &again) == 2 || again == 0)
            return 1;
    }
    count = 0;
    const int last = look(hnd, &count);
    if (last == 2)
        return 1;
    if (last != 0 || count == 0 || ftdi_missing(hnd))
        return 2;
    if (port_busy(hnd)) {
        dp(kLog, "[readAsyncUID] Manual command wants port, aborting before read");
        return 1;
    }
    // More than the buffer holds is cut: the rest is read at the next poll.
    uint8_t buf[kReadBufLen] = {};
    const uint32_t want = count < sizeof buf ? count : static_cast<uint32_t>(sizeof buf);
    if (!poller_enter(hnd))
        return 1;
    uint32_t got = 0;
    const ZEL_STATUS status = zel::port_read_raw(hnd, buf, want, &got);
    poller_leave();
    if (status == ZEL_FTD2XX_DLL_NOT_FOUND)
        return ZEL_FTD2XX_DLL_NOT_FOUND;
    if (status != ZEL_OK)
        return 3;

    const Parsed p = parse_read(buf, got);
    switch (p.kind) {
    case ReadKind::reset: dp(kLog, "[READ_ASYNC_UID] Device reset detected"); return 1;
    case ReadKind::removal: deliver_removed(); return 0;
    case ReadKind::nothing: return 1;
    case ReadKind::uid: break;
    }
    queue_uid(hnd, p.uid, p.uid_size);
    return 0;
}

ZEL_API uint32_t readPartialAsyncUID(ZEL_HANDLE hnd, const uint8_t *bytes, uint8_t count)
{
    zel::os_sleep(kSettleMs);
    // What was given, then what waits on the port; the length is kept in eight bits.
    uint8_t joined[2 * kReadBufLen] = {};
    uint32_t given = bytes ? count : 0u;
    if (given)
        std::memcpy(joined, bytes, given);
    uint32_t waiting = 0;
    if (hnd && PortGetAvailable(hnd, &waiting) == ZEL_OK && waiting > 0) {
        waiting = 0;
        if (PortGetAvailable(hnd, &waiting) != ZEL_OK || waiting == 0)
            return 2;
        if (ftdi_missing(hnd))
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        const uint32_t want = waiting < kReadBufLen ? waiting : kReadBufLen;
        const ZEL_STATUS status = PortRead(hnd, joined + given, want);
        if (status == ZEL_FTD2XX_DLL_NOT_FOUND)
            return ZEL_FTD2XX_DLL_NOT_FOUND;
        if (status != ZEL_OK)
            return 3;
        given += want;
    }
    const uint32_t len = given & 0xFF;

    if (len >= 2 && joined[0] == kMark && joined[1] == kMark) {
        if (zel_card_removed_callback cb = g_removed.load()) {
            cb();
            zel::os_sleep(kSettleMs);
        }
        return 0;
    }
    char text[kUidTextMax + 1];
    uint32_t text_len = 0;
    if (!walk_frame(joined, len, text, sizeof text, &text_len, nullptr))
        return 0;
    // The text goes to the callback as the reader sent it.
    uint8_t type = 0;
    const ZEL_STATUS status = card_type_of_global(&type);
    if (status != ZEL_OK) {
        dp(kLog, "[READ_ASYNC_UID] Failed to get card type, status: %02X", status);
        return 0;
    }
    if (g_detected.load()) {
        deliver_detected(text, type);
        zel::os_sleep(kSettleMs);
    }
    return 0;
}

ZEL_API uint32_t asyncUIDThread(ZEL_HANDLE hnd)
{
    if (!hnd)
        return 0;
    while (!stop_asked(hnd)) {
        // Announcements the application's commands took off the port need no port to be delivered.
        (void)deliver_stored(hnd);
        // While a manual operation has the port (or has just had it) the thread keeps away.
        if (port_busy(hnd) || poller_must_wait(hnd)) {
            zel::os_sleep(kBusySpinMs);
            continue;
        }
        (void)readAsyncUID(hnd);
        zel::os_sleep(kPollMs);
    }
    return 0;
}

ZEL_API uint32_t asyncEventProcessorThread(ZEL_HANDLE hnd)
{
    if (!hnd)
        return 0;
    dp(kLog, "[ASYNC_PROCESSOR_THREAD] Started");
    while (!stop_asked(hnd)) {
        if (!event_wait(&hnd->async_ring_event, kEventWaitMs))
            continue;
        // The whole ring is drained before the thread waits again.
        while (!stop_asked(hnd)) {
            zel_async_uid_event e;
            pthread_mutex_lock(&hnd->async_ring_lock);
            const bool got = ring_take(hnd, &e);
            pthread_mutex_unlock(&hnd->async_ring_lock);
            if (!got)
                break;
            if (e.skip)
                continue;
            char text[2 * sizeof e.uid + 1];
            uid_to_text(e.uid, e.uid_size, text);
            // The type query is an ordinary command; it waits for the application's command to end.
            uint8_t type = 0;
            if (command_begin(hnd)) {
                if (card_type_of_global(&type) != ZEL_OK)
                    type = 0;
                command_end(hnd);
            }
            deliver_detected(text, type);
            zel::os_sleep(kSettleMs);
        }
    }
    dp(kLog, "[ASYNC_PROCESSOR_THREAD] Stopped");
    return 0;
}

ZEL_API ZEL_STATUS StartAsyncSession(zel_card_detected_callback on_detected, zel_card_removed_callback on_removed)
{
    dp(0, "API begin: %s()", __func__);
    zel_handle_record *hnd = &zel_global;
    if (hnd->async_reader_thread) {
        // A session left running: both its threads end first (each within a bounded wait), so that the
        // locks and the event are not set up again under a thread that still uses them.
        set_stop(hnd, 1);
        event_signal(&hnd->async_ring_event);
        bool ended = join_within(hnd->async_reader_thread, kRestartJoinMs);
        hnd->async_reader_thread = 0;
        if (hnd->async_processor_thread) {
            ended = join_within(hnd->async_processor_thread, kRestartJoinMs) && ended;
            hnd->async_processor_thread = 0;
        }
        if (!ended)
            return ZEL_COMMAND_FAILED;
        __atomic_store_n(&hnd->port_lock_on, static_cast<uint8_t>(0), __ATOMIC_RELEASE);
        gate_close(hnd);
        pthread_mutex_destroy(&hnd->port_lock);
        pthread_mutex_destroy(&hnd->async_ring_lock);
        event_close(&hnd->async_ring_event);
    }
    uint32_t baud;
    switch (hnd->idx_speed) {
    case 0: baud = 1000000; break;
    case 1: baud = 115200; break;
    default: return ZEL_NOT_IMPLEMENTED;
    }
    ZEL_STATUS status = SetAsyncCardIdSendConfigExHnd(hnd, 1, 1, kMark, kMark, 1, 0, 0, baud);
    if (status != ZEL_OK)
        return status;
    if (on_detected)
        g_detected.store(on_detected);
    if (on_removed)
        g_removed.store(on_removed);

    // A card already on the reader is reported now, from this thread.
    for (int attempt = 0; attempt < 3; ++attempt) {
        uint8_t sak = 0, uid[ZEL_UID_MAX_LEN] = {}, size = 0;
        status = GetCardIdExHnd(hnd, &sak, uid, &size);
        if (status == ZEL_NO_CARD)
            break;
        if (status == ZEL_OK) {
            char text[2 * ZEL_UID_MAX_LEN + 1];
            uid_to_text(uid, size > ZEL_UID_MAX_LEN ? ZEL_UID_MAX_LEN : size, text);
            uint8_t type = 0;
            if (GetOrbCardTypeHnd(hnd, &type) != ZEL_OK)
                type = 0;
            deliver_detected(text, type);
            break;
        }
        zel::os_sleep(100);
    }

    std::memset(hnd->async_ring, 0, sizeof hnd->async_ring);
    hnd->async_ring_head = 0;
    hnd->async_ring_tail = 0;
    set_stop(hnd, 0);
    pthread_mutex_init(&hnd->port_lock, nullptr);
    pthread_mutex_init(&hnd->async_ring_lock, nullptr);
    if (!event_create(&hnd->async_ring_event)) {
        pthread_mutex_destroy(&hnd->port_lock);
        pthread_mutex_destroy(&hnd->async_ring_lock);
        return ZEL_COMMAND_FAILED;
    }
    gate_open(hnd);
    pthread_t reader;
    if (pthread_create(&reader, nullptr, reader_main, hnd) != 0) {
        gate_close(hnd);
        pthread_mutex_destroy(&hnd->port_lock);
        pthread_mutex_destroy(&hnd->async_ring_lock);
        event_close(&hnd->async_ring_event);
        return ZEL_COMMAND_FAILED;
    }
    hnd->async_reader_thread = reader;
    hnd->async_reader_thread_id = static_cast<uint32_t>(reader);
    pthread_t processor;
    if (pthread_create(&processor, nullptr, processor_main, hnd) != 0) {
        set_stop(hnd, 1);
        const bool ended = join_within(reader, kRestartJoinMs);
        hnd->async_reader_thread = 0;
        gate_close(hnd);
        if (ended) {
            pthread_mutex_destroy(&hnd->port_lock);
            pthread_mutex_destroy(&hnd->async_ring_lock);
            event_close(&hnd->async_ring_event);
        }
        return ZEL_COMMAND_FAILED;
    }
    hnd->async_processor_thread = processor;
    hnd->async_processor_thread_id = static_cast<uint32_t>(processor);
    __atomic_store_n(&hnd->port_lock_on, static_cast<uint8_t>(1), __ATOMIC_RELEASE);
    return ZEL_OK;
}

ZEL_API ZEL_STATUS StopAsyncSession(void)
{
    dp(0, "API begin: %s()", __func__);
    zel_handle_record *hnd = &zel_global;
    if (__atomic_load_n(&hnd->port_lock_on, __ATOMIC_ACQUIRE) == 0)
        return ZEL_OK;
    __atomic_store_n(&hnd->port_lock_on, static_cast<uint8_t>(0), __ATOMIC_RELEASE);
    set_stop(hnd, 1);
    event_signal(&hnd->async_ring_event);

    bool ended = true;
    if (hnd->async_reader_thread) {
        ended = join_within(hnd->async_reader_thread, kJoinMs) && ended;
        hnd->async_reader_thread = 0;
        dp(kLog, "[StopAsyncSession] Reader thread stopped");
    }
    if (hnd->async_processor_thread) {
        ended = join_within(hnd->async_processor_thread, kJoinMs) && ended;
        hnd->async_processor_thread = 0;
        dp(kLog, "[StopAsyncSession] Processor thread stopped");
    }
    gate_close(hnd);
    // A thread that did not end may still hold a lock: then the locks and the event are left as they are.
    if (ended) {
        pthread_mutex_destroy(&hnd->port_lock);
        pthread_mutex_destroy(&hnd->async_ring_lock);
        event_close(&hnd->async_ring_event);
    }
    // The session-error callback stays.
    g_detected.store(nullptr);
    g_removed.store(nullptr);
    return SetAsyncCardIdSendConfigExHnd(hnd, 0, 0, kMark, kMark, 0, 0, 0, hnd->baud_rate);
}

} // extern "C"

zel_session_error_callback zel::async::session_error_callback()
{
    return g_error.load();
}
