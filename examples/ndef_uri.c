/* Reads the NDEF message of the card in the field and prints its URI records.
 *
 *   ndef_uri [-a ARG] PORT
 *
 * PORT is the serial port of the reader; ARG the open's argument text ("UNIT_OPEN_RESET_DISABLE" for a port
 * without a reset line, such as the pseudo-terminal of tandro-sim). The card may be an NFC Type 2 tag (NTAG,
 * Ultralight), a MIFARE Classic card with an NDEF area, a Type 4 tag or a vicinity tag: the library finds the
 * NDEF area of each kind itself. */
#define _POSIX_C_SOURCE 200809L /* getopt */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "tandro.h"

static int usage(const char *self)
{
    fprintf(stderr, "usage: %s [-a ARG] PORT\n", self);
    return 2;
}

int main(int argc, char **argv)
{
    const char *arg = NULL;
    int opt;
    while ((opt = getopt(argc, argv, "a:")) != -1) {
        if (opt != 'a')
            return usage(argv[0]);
        arg = optarg;
    }
    if (argc - optind != 1)
        return usage(argv[0]);
    const char *port = argv[optind];

    ZEL_HANDLE reader = Zel_Hnd_Create();
    if (!reader)
        return 1;
    /* Reader type 1 (1 Mbit/s), interface 1 (a serial port). */
    ZEL_STATUS status = ReaderOpenExHnd(reader, 1, port, 1, arg);
    if (status != ZEL_OK) {
        fprintf(stderr, "open %s: %s\n", port, ZEL_Status2String(status));
        Zel_Hnd_Destroy(reader);
        return 1;
    }

    /* How many messages and records the card holds. The array gets the record count of each message. */
    uint8_t messages = 0, records = 0, empty = 0;
    uint8_t per_message[ZEL_NDEF_RECORD_ARRAY_LEN];
    status = get_ndef_record_countM(reader, &messages, &records, per_message, &empty);
    if (status == ZEL_OK)
        printf("%u message%s, %u record%s\n", messages, messages == 1 ? "" : "s", records, records == 1 ? "" : "s");

    /* The payload buffer holds the largest NDEF area and the room the library needs to write a URI's prefix
     * out in place (ZEL_NDEF_PAYLOAD_SLACK); the type and id buffers hold 255 bytes each. */
    static uint8_t payload[ZEL_NDEF_IMAGE_LEN + ZEL_NDEF_PAYLOAD_SLACK];
    uint8_t type[255], id[255];
    unsigned uris = 0;
    /* Record numbers count from 1 and run on through the messages, so message 1 with record 1..N reaches all
     * of them. A read soon after another uses the image read then, so the card is read once. */
    for (unsigned r = 1; status == ZEL_OK && r <= records; ++r) {
        uint8_t tnf = 0, type_len = 0, id_len = 0;
        uint32_t payload_len = 0;
        status = read_ndef_recordM(reader, 1, (uint8_t)r, &tnf, type, &type_len, id, &id_len, payload, &payload_len);
        if (status != ZEL_OK)
            break;
        /* A URI record: TNF 1 (well-known type) and type "U". Its prefix code (1 "http://www.", 4 "https://",
         * ...) comes back written out in front of the rest of the URI. A code the library does not know is left
         * out, and the length then still counts the code byte: the text is one byte shorter. */
        if (tnf == 1 && type_len == 1 && type[0] == 'U') {
            printf("URI %.*s\n", (int)payload_len, (const char *)payload);
            ++uris;
        }
    }
    if (status == ZEL_OK && uris == 0)
        printf("no URI record\n");
    if (status != ZEL_OK)
        fprintf(stderr, "NDEF: %s\n", ZEL_Status2String(status));

    ReaderCloseM(reader);
    Zel_Hnd_Destroy(reader);
    return status == ZEL_OK ? 0 : 1;
}
