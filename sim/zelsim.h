/* The simulated Zel reader: the reader's side of the frame protocol, for use in-process (tests, the tandro
 * tool, benchmarks) and behind the tandro-sim program. It shares no protocol code with the library. */
#ifndef ZELSIM_H
#define ZELSIM_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct zsim zsim;

/* One card in the field. */
typedef struct zsim_card {
    uint8_t uid[10];
    uint8_t uid_len;  /* 4, 7 or 10 */
    uint8_t sak;
    uint16_t atqa;
    uint8_t orb_type; /* the reader's card type code */
} zsim_card;

/* What the reader does wrong on an exchange (see zsim_fault_push). */
typedef enum zsim_fault_kind {
    ZSIM_FAULT_NONE = 0,
    ZSIM_FAULT_SILENCE,        /* answer nothing */
    ZSIM_FAULT_LATE,           /* answer after delay_ms */
    ZSIM_FAULT_BAD_CHECKSUM,   /* corrupt the checksum of the first reply frame */
    ZSIM_FAULT_WRONG_ECHO,     /* echo another command code */
    ZSIM_FAULT_ERROR_FRAME,    /* answer an error frame with code */
    ZSIM_FAULT_TRUNCATE,       /* send only `count` bytes of the reply */
    ZSIM_FAULT_EXTRA_BYTES,    /* append `count` garbage bytes to the reply */
    ZSIM_FAULT_ENDLESS_INTERIM,/* answer interim frames until the host sends a new command */
    ZSIM_FAULT_UNPLUG          /* the link goes away (pty closed, socket gone) */
} zsim_fault_kind;

typedef struct zsim_fault {
    zsim_fault_kind kind;
    uint32_t code;      /* error code for ZSIM_FAULT_ERROR_FRAME */
    uint32_t delay_ms;  /* for ZSIM_FAULT_LATE */
    uint32_t count;     /* bytes for TRUNCATE / EXTRA_BYTES */
    int command;        /* apply only to this command code; -1 for any */
} zsim_fault;

/* A reader with the default identity and an empty field. */
zsim *zsim_new(void);
/* Loads a scenario (JSON text) over the reader's state. Returns 0, or -1 with a message in err. */
int zsim_load_scenario(zsim *sim, const char *json, char *err, size_t err_len);
void zsim_free(zsim *sim); /* stops every link first */

/* Serves the reader on a new pseudo-terminal; the device path for the host goes to path. 0 on success. */
int zsim_serve_pty(zsim *sim, char *path, size_t path_len);
/* Stops every link. */
void zsim_stop(zsim *sim);

/* Identity. */
void zsim_set_reader_type(zsim *sim, uint32_t type);

/* The field. */
int zsim_card_add(zsim *sim, const zsim_card *card);           /* 0, or -1 when the field is full */
int zsim_card_remove(zsim *sim, const uint8_t *uid, uint8_t uid_len); /* 0, or -1 when not there */
void zsim_field_clear(zsim *sim);

/* Faults: queued, each used up by one exchange that matches its command. */
void zsim_fault_push(zsim *sim, const zsim_fault *fault);
void zsim_fault_clear(zsim *sim);

/* The last complete command the reader took: 7-byte frame and the EXT after it, if any.
 * Returns the number of bytes copied (frame then EXT). */
size_t zsim_last_request(zsim *sim, uint8_t *buf, size_t buf_len);
/* Number of exchanges served since creation. */
uint64_t zsim_exchange_count(zsim *sim);

/* Log each exchange to stderr (or not). */
void zsim_set_log(zsim *sim, int on);

/* Added for the program and the tools. */

/* The whole tandro-sim command line (tandro-sim --help tells it). Returns the exit status. */
int zsim_main(int argc, char **argv);

#ifdef __cplusplus
}
#endif
#endif
