/* Lists every card in the reader's field with the reader's anti-collision, then picks one.
 *
 *   list_cards [-a ARG] PORT [UID]
 *
 * PORT is the serial port of the reader (/dev/ttyUSB0, or the pseudo-terminal tandro-sim prints). ARG is the
 * open's argument text; give "UNIT_OPEN_RESET_DISABLE" for a port without a reset line, such as a
 * pseudo-terminal. With UID (hexadecimal) the card of that UID is selected and its card type printed.
 *
 * Normally the reader talks to one card, the first it finds. In multi-card mode (EnableAntiCollision) it
 * keeps a list of every card in its field, and card commands go to the card selected from that list. */
#define _POSIX_C_SOURCE 200809L /* getopt */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tandro.h"

/* Reads hexadecimal text into out; returns the number of bytes, or -1 for text that is not hex. */
static int parse_hex(const char *text, uint8_t *out, int max)
{
    int n = 0;
    size_t len = strlen(text);
    if (len % 2 != 0 || len / 2 > (size_t)max)
        return -1;
    for (size_t i = 0; i < len; i += 2) {
        char pair[3] = {text[i], text[i + 1], 0};
        char *end = NULL;
        unsigned long v = strtoul(pair, &end, 16);
        if (*end != 0)
            return -1;
        out[n++] = (uint8_t)v;
    }
    return n;
}

static int usage(const char *self)
{
    fprintf(stderr, "usage: %s [-a ARG] PORT [UID]\n", self);
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
    if (argc - optind < 1 || argc - optind > 2)
        return usage(argv[0]);
    const char *port = argv[optind];
    uint8_t wanted[10];
    int wanted_len = 0;
    if (argc - optind == 2 && (wanted_len = parse_hex(argv[optind + 1], wanted, 10)) < 4)
        return usage(argv[0]);

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

    /* Multi-card mode on, then the reader's enumeration of its field: the number of cards and the size of
     * the list, which holds one record per card (a UID length byte and the UID in ten bytes). */
    uint8_t count = 0, list_size = 0;
    status = EnableAntiCollisionM(reader);
    if (status == ZEL_OK)
        status = EnumCardsM(reader, &count, &list_size);
    uint8_t list[256];
    if (status == ZEL_OK)
        status = ListCardsM(reader, list, list_size);
    if (status == ZEL_NO_CARD) { /* an empty field is no failure here */
        count = 0;
        status = ZEL_OK;
    }
    if (status == ZEL_OK) {
        printf("%u card%s in the field\n", count, count == 1 ? "" : "s");
        unsigned record = count ? list_size / count : 0;
        for (unsigned i = 0; i < count && record >= 2; ++i) {
            const uint8_t *r = list + i * record;
            unsigned uid_len = r[0] < record ? r[0] : record - 1; /* never past the record */
            printf("  %u  ", i + 1);
            for (unsigned k = 0; k < uid_len; ++k)
                printf("%02X", r[1 + k]);
            printf("\n");
        }
    }

    /* Selecting one card of the list: from now on the card commands go to it, until DeslectCard. */
    if (status == ZEL_OK && wanted_len > 0) {
        uint8_t card_type = 0;
        status = SelectCardM(reader, wanted, (uint8_t)wanted_len, &card_type);
        if (status == ZEL_OK) {
            printf("selected %s: %s\n", argv[optind + 1], ZEL_OrbCardType2String(card_type));
            DeslectCardM(reader);
        }
    }
    if (status != ZEL_OK)
        fprintf(stderr, "cards: %s\n", ZEL_Status2String(status));

    /* Back to the one-card mode the reader starts in, then close. */
    DisableAntiCollisionM(reader);
    ReaderCloseM(reader);
    Zel_Hnd_Destroy(reader);
    return status == ZEL_OK ? 0 : 1;
}
