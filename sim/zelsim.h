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
    uint8_t uid_len; /* 4, 7, 8 (a vicinity tag) or 10 */
    uint8_t sak;
    uint16_t atqa;
    uint8_t orb_type; /* the reader's card type code */
} zsim_card;

/* What the reader does wrong on an exchange (see zsim_fault_push). */
typedef enum zsim_fault_kind {
    ZSIM_FAULT_NONE = 0,
    ZSIM_FAULT_SILENCE,         /* answer nothing */
    ZSIM_FAULT_LATE,            /* answer after delay_ms */
    ZSIM_FAULT_BAD_CHECKSUM,    /* corrupt the checksum of the first reply frame */
    ZSIM_FAULT_WRONG_ECHO,      /* echo another command code */
    ZSIM_FAULT_ERROR_FRAME,     /* answer an error frame with code */
    ZSIM_FAULT_TRUNCATE,        /* send only `count` bytes of the reply */
    ZSIM_FAULT_EXTRA_BYTES,     /* append `count` garbage bytes to the reply */
    ZSIM_FAULT_ENDLESS_INTERIM, /* answer interim frames until the host sends a new command */
    ZSIM_FAULT_UNPLUG           /* the link goes away (pty closed, socket gone) */
} zsim_fault_kind;

typedef struct zsim_fault {
    zsim_fault_kind kind;
    uint32_t code;     /* error code for ZSIM_FAULT_ERROR_FRAME */
    uint32_t delay_ms; /* for ZSIM_FAULT_LATE */
    uint32_t count;    /* bytes for TRUNCATE / EXTRA_BYTES */
    int command;       /* apply only to this command code; -1 for any */
    int32_t times;     /* exchanges it bends: 0 or 1 once, N that many, -1 a rule that stays until cleared */
    uint32_t after;    /* matching exchanges to let pass untouched first */
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
int zsim_card_add(zsim *sim, const zsim_card *card);                  /* 0, or -1 when the field is full */
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

/* Scenarios (the format is told in docs/sim.md). */

/* Reads a scenario file and loads it as zsim_load_scenario does. */
int zsim_load_scenario_file(zsim *sim, const char *path, char *err, size_t err_len);
/* Starts the links the loaded scenario lists (all but "d2xx", which the stand-in D2XX library serves).
 * One line per link goes to report ("pty /dev/pts/4", "udp 127.0.0.1:8881", ...). 0, or -1 when one failed
 * (the report then ends with the reason). */
int zsim_serve_links(zsim *sim, char *report, size_t report_len);

/* Network links. host is a local IPv4 address (null for 127.0.0.1); port 0 takes a free port. The port
 * bound goes to bound_port when it is not null. 0 on success, -1 on failure. */
/* Frames over UDP: replies go to the sender of the last datagram, in datagrams of at most 300 bytes. */
int zsim_serve_udp(zsim *sim, const char *host, uint16_t port, uint16_t *bound_port);
/* Frames over TCP, one host at a time; each connection starts with the host's wake byte 0x00. */
int zsim_serve_tcp(zsim *sim, const char *host, uint16_t port, uint16_t *bound_port);
/* The discovery responder (the reader listens on 8880): answers the request 41 00 with the address, port
 * and protocol of the reader's first UDP or TCP link, in the 28-byte form with the serial description, or
 * the 19-byte form when short_form is set. */
int zsim_serve_discovery(zsim *sim, const char *host, uint16_t port, int short_form, uint16_t *bound_port);
/* The reset line on a GPIO pin, driven by the stand-in pinctrl program through a Unix datagram socket at
 * socket_path ("set PIN op dl" lets the reader run, "dh" holds it; the edge to dl restarts it). */
int zsim_serve_gpio(zsim *sim, const char *socket_path, uint32_t pin);

/* A reset edge into the running level: the boot bytes 03 55 55 BB follow on every link, and frames are
 * heard from 80 ms after them. */
void zsim_reset(zsim *sim);
/* Number of restarts (reset edges and soft restarts) since creation. */
uint64_t zsim_reset_count(zsim *sim);
/* Scales the reader's own times (the boot) in percent: 100 is real time, 10 ten times faster. */
void zsim_set_time_scale(zsim *sim, uint32_t percent);

/* Identity and stored state. */
void zsim_set_serial_number(zsim *sim, uint32_t serial);
void zsim_set_serial_description(zsim *sim, const char *text); /* up to 8 characters */
void zsim_set_firmware(zsim *sim, uint8_t major, uint8_t minor, uint8_t build);
void zsim_set_hardware(zsim *sim, uint8_t type, uint8_t version);
/* The 0xF0 parameter block: 0 long (current firmware), 1 short (older firmware, which also refuses PAR0 1),
 * 2 none (the command is not supported). */
void zsim_set_parameter_form(zsim *sim, int form);
/* The reader's EEPROM as the EEPROM commands see it. Returns bytes copied; write returns 0 or -1. */
size_t zsim_eeprom_read(zsim *sim, uint32_t address, uint8_t *buf, size_t len);
int zsim_eeprom_write(zsim *sim, uint32_t address, const uint8_t *buf, size_t len);
/* One of the 32 reader keys (0, or -1 for a bad index); the password; whether keys are locked. */
int zsim_get_key(zsim *sim, uint32_t index, uint8_t key[6]);
void zsim_get_password(zsim *sim, uint8_t password[8]);
void zsim_set_password(zsim *sim, const uint8_t password[8]);
int zsim_keys_locked(zsim *sim);
/* The rate the reader talks at (changed by command 0x70). */
uint32_t zsim_baud(zsim *sim);

/* A card of a given model ("plain", or null) with its model's setup as JSON text (null for defaults). */
int zsim_card_add_model(zsim *sim, const zsim_card *card, const char *model, const char *setup_json);

/* One command of tandro-sim's standard input ("add 04A1B2C3", "fault silence command=13", "reset", ...).
 * What it prints goes to out. Returns 0, 1 for quit, -1 for a bad command. */
int zsim_command(zsim *sim, const char *line, char *out, size_t out_len);

/* The reader's outputs and tuning. */

/* What changed in the lights, sound, display, sleep, door outputs, RF sets, secure element and feature blocks:
 * one line per change ("rgb FF0000 intensity 50 on form 0 time 0", "se config locked", ...), oldest first, each
 * ending in a newline. Copies at most len - 1 bytes and a terminating zero; returns the whole log's length. */
size_t zsim_signal_log(zsim *sim, char *buf, size_t len);
/* 1 while the reader sleeps (from command 0x46 to 0x47). */
int zsim_sleeping(zsim *sim);
/* An RF analog register set by its number (1 type A, 2 type B, 3 and 4 the higher ISO 14443 rates, 6 PN7462):
 * its bytes as the set command sends them. Returns their count (5 or 2), 0 for no such set. */
size_t zsim_rf_registers(zsim *sim, uint8_t set, uint8_t bytes[5]);
/* A data slot of the secure element (0 to 15): copies up to len bytes; returns the slot's size, 0 for none. */
size_t zsim_se_slot(zsim *sim, uint8_t slot, uint8_t *buf, size_t len);
/* What the last phone handed over, answered to command 0xC5 (nothing: no card). */
void zsim_set_mobile_data(zsim *sim, const uint8_t *data, size_t len);

/* Several readers. A scenario {"readers": [scenario, ...]} (or one scenario) starts one simulated reader per
 * entry, each with its own identity, field and lock, and serves its links (all but "d2xx"). With ports_dir,
 * the folder is made and each pseudo-terminal also appears in it as ttyUSB<n> (a symbolic link), listed in
 * ports_dir/sys/class/tty, for the library's port enumeration; zsim_set_free takes them away. One line per
 * link goes to report ("reader 0 pty /dev/pts/4", "reader 0 port DIR/ttyUSB0", ...). Null with a message in
 * err on failure. */
typedef struct zsim_set zsim_set;
zsim_set *zsim_set_start(const char *json, const char *ports_dir, char *report, size_t report_len, char *err,
                         size_t err_len);
size_t zsim_set_count(const zsim_set *set);
zsim *zsim_set_reader(zsim_set *set, size_t index);
void zsim_set_free(zsim_set *set);

/* The line model: bit_rate (0: none, the links run as fast as the machine) with 10 bits a byte on serial
 * links and 8 on network links, and the reader's turnaround after each command, in microseconds. */
void zsim_set_line(zsim *sim, uint32_t bit_rate, uint32_t turnaround_us);
/* What the line model has waited since the simulator was made, wire time and turnarounds, in microseconds:
 * the floor under any host's time for the same exchanges. */
uint64_t zsim_line_waited_us(zsim *sim);
/* The reader stands behind an ESP front that answers "!GET_DEVICE_IP_AD!" with address and CR LF ("0.0.0.0"
 * for an empty text); null: no front. */
void zsim_set_esp_front(zsim *sim, const char *address);

/* The display module behind the reader (128 by 64 pixels) and the boot loader. Bitmaps are 1,024 bytes: 64 rows
 * of 16 bytes, most significant bit the leftmost pixel, a set bit a dark pixel. Each returns 1024, or 0. */
size_t zsim_display_bitmap(zsim *sim, uint8_t bitmap[1024]);                 /* what the display shows */
size_t zsim_display_gallery(zsim *sim, uint8_t index, uint8_t bitmap[1024]); /* 0 to 16; 16 the last sent */
size_t zsim_display_system(zsim *sim, uint8_t slot, uint8_t bitmap[1024]);   /* 0 when the slot is empty */
/* Writes what the display shows as an 8-bit grey PNG (dark pixels black): 0, or -1. */
int zsim_display_png(zsim *sim, const char *path);
/* Writes that PNG again whenever what is shown changes (null stops it). */
void zsim_display_png_on_change(zsim *sim, const char *path);
/* The last text (copied into text, len bytes with the zero; returns its length), time and signal (-1: none). */
size_t zsim_display_state(zsim *sim, char *text, size_t len, int *hour, int *minute, int *signal);
/* The module's flash (64 KiB, erased 0xFF): copies up to len bytes from address; returns the count. */
size_t zsim_display_flash(zsim *sim, uint32_t address, uint8_t *buf, size_t len);
/* The boot loader expects an image of image_len bytes (the last packet is padded to 128) and, once it has the
 * whole image, restarts with that version at the next reset. */
void zsim_boot_loader(zsim *sim, uint32_t image_len, uint8_t major, uint8_t minor, uint8_t build);
/* Bends the reply to programming packet number `packet`, once. */
typedef enum zsim_packet_fault { ZSIM_PACKET_DROP = 0, ZSIM_PACKET_DELAY, ZSIM_PACKET_GARBLE } zsim_packet_fault;
void zsim_boot_fault(zsim *sim, uint32_t packet, zsim_packet_fault kind, uint32_t delay_ms);
/* 0 application, 1 boot loader waiting, 2 receiving, 3 image complete and verified; the bytes and packets so far. */
int zsim_boot_state(zsim *sim, size_t *image_got, uint32_t *packets);
/* Copies up to len bytes of the image received; returns its whole size. */
size_t zsim_boot_image(zsim *sim, uint8_t *buf, size_t len);
/* The display module's identity in its parameter record (bytes 20 and 21: hardware type and version) and the
 * image its boot loader expects: once the first image_len / 64 blocks of 64 bytes were written after the boot
 * command, the reboot starts that version (also bytes 26 to 28 of the record). */
void zsim_display_identity(zsim *sim, uint8_t hw_type, uint8_t hw_ver);
void zsim_display_firmware(zsim *sim, uint32_t image_len, uint8_t major, uint8_t minor, uint8_t build);
/* The reader as a USB serial device: served on a pseudo-terminal, shown as DIR/ttyUSB<number> with the
 * device tree DIR/sys (a USB device 0403:6001 with the serial number), which the library's port enumeration
 * reads when pointed at DIR and DIR/sys. The device leaves when the reader switches into its boot loader and
 * when a verified image restarts it, for away_ms of the reader's time (1,000 by default), and comes back as
 * ttyUSB<next_number> (-1: the same number). The reader's time goes on by zsim_usb_advance. */
typedef struct zsim_usb zsim_usb;
zsim_usb *zsim_usb_start(zsim *sim, const char *dir, const char *serial, int number, char *err, size_t err_len);
void zsim_usb_set_away(zsim_usb *usb, uint32_t away_ms, int next_number);
void zsim_usb_advance(zsim_usb *usb, uint32_t ms);
/* The port's path (as it is or will be named); 1 while present, 0 while away. */
int zsim_usb_port(zsim_usb *usb, char *path, size_t len);
/* How often the device left the bus. */
uint32_t zsim_usb_departures(zsim_usb *usb);
void zsim_usb_free(zsim_usb *usb);
/* The reader as an NFC tag for a phone (commands 0x48 to 0x4F, 0x76 to 0x7B, 0x9D to 0x9F, 0xE7 with an EXT). */
typedef struct zsim_emulation {
    uint8_t mode; /* the EEPROM mode byte (address 681): 0xEA tag emulation, 0xCE combined, anything else off */
    int adhoc;    /* ad hoc emulation runs */
    uint8_t adhoc_par[2];
    uint8_t field; /* what 0x9F reports */
    int share_ram; /* shared RAM mode */
    int mirror_enabled;
    uint16_t mirror_position;
    uint32_t mirror_counter;
    uint32_t phone_reads; /* messages a phone read */
} zsim_emulation;
void zsim_emulation_get(zsim *sim, zsim_emulation *out);
/* A phone taps the reader: while tag or combined emulation runs, it reads the emulated Type 4 tag (select
 * the NDEF application, the container, NLEN, the message) and copies the NDEF message to buf. Returns the
 * message's length, -1 when no tag answers (no emulation, no record, a bad EEPROM block), -2 when buf is
 * too small. */
long zsim_phone_read_ndef(zsim *sim, uint8_t *buf, size_t len);
/* Whether a field of an outside device is present (reported by 0x9F). */
void zsim_set_external_field(zsim *sim, int present);
/* The shared RAM (256 bytes) as the NFC device in the field reads and writes it; bytes copied. */
size_t zsim_share_ram_read(zsim *sim, uint8_t address, uint8_t *buf, size_t len);
size_t zsim_share_ram_write(zsim *sim, uint8_t address, const uint8_t *buf, size_t len);

/* A network module in front of the reader with units reader units (0 takes it away). Without a session
 * the module answers its own commands and passes the rest to the reader; in a session with a unit every
 * command but 0xF9 reaches the reader; in a session with the module (0xFF) the module answers all. */
void zsim_esp_enable(zsim *sim, uint8_t units);
typedef struct zsim_esp {
    uint8_t target; /* 0 no session, a unit, or 0xFF */
    int wifi, off;
    uint8_t io[6], time[6], password[8];
    uint32_t payment_bits; /* the payment amount's float as it came */
    uint16_t display_value;
    size_t display_len;
    int streaming;
    uint32_t stream_bytes;
} zsim_esp;
void zsim_esp_get(zsim *sim, zsim_esp *out);
/* The configuration a backup sends and a restore replaces: copies up to len - 1 bytes and a zero; returns its
 * length. */
size_t zsim_esp_config(zsim *sim, char *buf, size_t len);
void zsim_esp_set_config(zsim *sim, const char *text);
/* The module reports the progress of an installation by itself: one 7-byte frame (DE F2 ED 00 percent 00 cs)
 * on every link. */
void zsim_esp_progress(zsim *sim, uint8_t percent);
/* The module's own EEPROM (1,024 bytes); bytes copied. */
size_t zsim_esp_eeprom_read(zsim *sim, uint32_t address, uint8_t *buf, size_t len);
/* The identity the network module (unit 0) or a unit behind it (1 to units) answers the identity commands with
 * (parameter block, versions, serial description): the module in its own session, a unit in a session with
 * it. A unit given no identity is the reader itself. A unit's boot loader is the reader's model, taking the
 * packets' EXT in 64-byte reports; the module's takes its image raw in 4,096-byte packets. */
void zsim_esp_identity(zsim *sim, uint8_t unit, const char *serial_desc, uint8_t hw_type, uint8_t hw_ver, uint8_t major,
                       uint8_t minor, uint8_t build);
/* The image the module's (0) or a unit's boot loader expects and the version it brings at the restart: the
 * module's at the device's restart, a unit's when the module restarts its link to the units (0xF9 00 00). */
void zsim_esp_boot_loader(zsim *sim, uint8_t unit, uint32_t image_len, uint8_t major, uint8_t minor, uint8_t build);
/* A fault on the reply to packet K of a unit's boot loader, once (as zsim_boot_fault). */
void zsim_esp_boot_fault(zsim *sim, uint8_t unit, uint32_t packet, zsim_packet_fault kind, uint32_t delay_ms);
/* As zsim_boot_state and zsim_boot_image, for the module (0) or a unit; -1 for no such module. */
int zsim_esp_boot_state(zsim *sim, uint8_t unit, size_t *image_got, uint32_t *packets);
size_t zsim_esp_boot_image(zsim *sim, uint8_t unit, uint8_t *buf, size_t len);

/* Added for the program and the tools. */

/* The whole tandro-sim command line (tandro-sim --help tells it). Returns the exit status. */
int zsim_main(int argc, char **argv);

#ifdef __cplusplus
}
#endif
#endif
