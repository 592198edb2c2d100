/* The reader handle record, the global handle, versions, debug print and timing helpers.
 *
 * A record holds everything the library knows of one reader (port, time-outs, session flags, the socket
 * receive buffer, the NDEF cache and the asynchronous session state) by value, so a plain struct copy
 * copies a reader completely. The plain-name operations work on zel_global, which the opening calls and
 * Zel_Hnd_SetGlobal fill by such a copy: after it the two records are separate values that share only
 * the port. A zeroed record is valid; its locks start unlocked. */
#ifndef ZEL_HANDLE_H
#define ZEL_HANDLE_H

#include <netinet/in.h>
#include <pthread.h>

#include "zel_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* comm.use: the kind of port the record drives. */
#define ZEL_PORT_FTDI 0u
#define ZEL_PORT_SERIAL 1u
#define ZEL_PORT_SOCKET 3u
#define ZEL_PORT_LOCAL 4u

/* comm.rts: how the reader's reset line is wired on RTS. */
#define READER_ACTIVE_ON_RTS_LOW 0u
#define READER_ACTIVE_ON_RTS_HIGH 1u
#define RTS_ALWAYS_HIGH 2u
#define RTS_ALWAYS_LOW 3u
#define RTS_DISCONNECTED 4u

/* reset_on_open */
#define UNIT_OPEN_RESET_DEFAULT 0u
#define UNIT_OPEN_RESET_DISABLE 1u
#define UNIT_OPEN_RESET_FORCE 2u
#define UNIT_OPEN_RESET_ONLY 3u

/* br_custom value meaning "no baud rate asked for". */
#define ZEL_BR_NONE 10u

#define ZEL_TRY_PORT_LEN 512
#define ZEL_UDP_HOST_LEN 64
#define ZEL_UDP_RX_BUF_LEN 4096
#define ZEL_COM_RX_BUF_LEN 256
#define ZEL_NDEF_IMAGE_LEN 10000
#define ZEL_ASYNC_RING_LEN 16

/* The NDEF read cache: the card image, a scratch area behind it, and the cache bookkeeping. */
typedef struct zel_ndef_cache {
    uint8_t image[ZEL_NDEF_IMAGE_LEN];
    uint8_t scratch[ZEL_NDEF_IMAGE_LEN];
    uint16_t image_len;
    uint8_t card_type;
    uint8_t valid;
    uint32_t time_ms;
} zel_ndef_cache;

/* One UID passed from the polling thread to the event thread of an asynchronous session. */
typedef struct zel_async_uid_event {
    uint8_t uid[11];
    uint8_t uid_size;
    uint8_t skip;
    uint8_t unused;
} zel_async_uid_event;

/* An auto-reset event, embedded so that the record needs no separate allocation. */
typedef struct zel_event {
    pthread_mutex_t mutex;
    pthread_cond_t cond;
    uint32_t signalled;
    uint32_t active;
} zel_event;

struct zel_handle_record {
    uint8_t opened;
    struct {
        uint32_t use;          /* ZEL_PORT_* */
        uint32_t rts;          /* READER_ACTIVE_ON_RTS_LOW ... RTS_DISCONNECTED */
        uint32_t RTS_inverted; /* 1 when the reset level is inverted on RTS */
    } comm;
    uint32_t reset_on_open;
    uint32_t br_custom; /* index into the baud table; ZEL_BR_NONE for none */
    uint32_t idx_speed;
    uint32_t baud_rate;
    void *ftHandle;  /* D2XX device; all ones after a close */
    void *comHandle; /* serial port: its descriptor + 1, so that null is "none" */
    int32_t comFd;
    uint32_t com_read_timeout_ms; /* serial port time-outs, kept by the library with poll() */
    uint32_t com_write_timeout_ms;
    uint16_t com_rx_len; /* bytes read ahead from the serial port, not yet taken */
    uint8_t com_rx_buf[ZEL_COM_RX_BUF_LEN];
    uint32_t gpio_reset;
    uint8_t try_port_set;
    char try_port[ZEL_TRY_PORT_LEN];
    uint8_t udp_ready;
    int32_t udp_socket;
    char udp_host[ZEL_UDP_HOST_LEN];
    uint32_t udp_tx_port;
    struct sockaddr_in udp_local;
    struct sockaddr_in udp_remote;
    int32_t udp_rx_len;
    uint8_t udp_rx_buf[ZEL_UDP_RX_BUF_LEN];
    uint8_t found;
    uint8_t ftdi_loaded;
    uint32_t reader_type;
    char serial[21];
    uint8_t ee_route;
    uint8_t device_class;
    const void *device_entry;
    int32_t device_index;
    uint8_t boot_seen;
    uint8_t esp_session;
    zel_ndef_cache ndef_cache;
    uint8_t open_speed;
    /* Bytes moved over the link in both directions since the record was made. Another thread may follow
     * a long operation's progress by it, reading with an atomic load (__atomic_load_n). */
    uint64_t link_bytes;
    /* Asynchronous session. port_busy and async_stop are shared between threads and only ever touched
     * with atomic operations; the record stays a plain, copyable value. */
    uint32_t port_busy;
    uint8_t port_lock_on;
    zel_async_uid_event async_ring[ZEL_ASYNC_RING_LEN];
    int32_t async_ring_head;
    int32_t async_ring_tail;
    pthread_t async_reader_thread;
    pthread_t async_processor_thread;
    uint32_t async_stop;
    uint32_t async_reader_thread_id;
    uint32_t async_processor_thread_id;
    pthread_mutex_t port_lock;
    pthread_mutex_t async_ring_lock;
    zel_event async_ring_event;
};

/* The record behind the plain-name operations, and the one the automatic open fills. */
ZEL_API extern zel_handle_record zel_global;
ZEL_API extern zel_handle_record zel_open_record;

/* Handle life. */
ZEL_API ZEL_HANDLE Zel_Hnd_Create(void);
ZEL_API void zel_handle_init(zel_handle_record *record);
ZEL_API void Zel_Hnd_assign_try_port(ZEL_HANDLE hnd, const char *port_name);
ZEL_API void Zel_Hnd_Destroy(ZEL_HANDLE hnd);
ZEL_API void Zel_Hnd_SetGlobal(ZEL_HANDLE hnd);

/* Versions: 0x350006 (major 6 in the low byte, minor 0, build 53 in the high half) and "6.0.53". */
ZEL_API uint32_t GetDllVersion(void);
ZEL_API const char *GetDllVersionStr(void);

/* Debug print. Off by default; every exported operation logs "API begin: %s()" at level 0, port and
 * transport detail goes at level 6, FTDI configuration errors at 7, open and reset progress at 12. */
typedef void (*zel_debug_sink)(int level, const char *text, void *context);
/* Switches printing on (non-zero) or off. With no sink set, lines go to standard error. */
ZEL_API void ZEL_DebugPrintEnable(uint32_t on);
/* Sends the printed lines to a function of the caller's (null: back to standard error). */
ZEL_API void ZEL_DebugPrintSetSink(zel_debug_sink sink, void *context);
ZEL_API void dp(int level, const char *format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 2, 3)))
#endif
    ;
ZEL_API void dp_hex(int level, const uint8_t *bytes, uint32_t length);
ZEL_API void dp_hex_eol(int level, const uint8_t *bytes, uint32_t length);
ZEL_API void prn_modem_status(ZEL_HANDLE hnd);
ZEL_API void timespan_start(void);
ZEL_API void timespan_prn(const char *text);

/* Timing. */
typedef struct zel_timer {
    int64_t start;
    int64_t stop;
    int64_t frequency;
} zel_timer;
ZEL_API void TimerStart(zel_timer *timer);
/* Milliseconds between start and stop; 0 for a timer without a frequency. */
ZEL_API int64_t TimerStop(zel_timer *timer);
/* The counter in nanoseconds; valid after a first zel_sleep. */
ZEL_API uint64_t get_ns(void);
/* Spins for ms milliseconds. The span is computed as ms * 1,000,000 in 32 bits, so a wait of 2,148 ms
 * or more wraps and ends at once or early. */
ZEL_API void zel_sleep(uint32_t ms);

#ifdef __cplusplus
}
#endif
#endif
