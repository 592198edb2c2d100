/* Reads a block of a MIFARE Classic card with a key given by the application, and writes it.
 *
 *   classic_block [-a ARG] PORT BLOCK KEY_A [DATA]
 *
 * PORT is the serial port of the reader; ARG the open's argument text ("UNIT_OPEN_RESET_DISABLE" for a port
 * without a reset line, such as the pseudo-terminal of tandro-sim). BLOCK is the block address (0 to 255;
 * sector trailers are refused by the reader), KEY_A the sector's key A in 12 hex digits. With DATA (up to 32
 * hex digits, filled up with zeros to 16 bytes) the block is written and read back.
 *
 * The reader authenticates to the sector itself for every block command: the _PK forms take the key from the
 * call ("provided key"), the plain forms a key stored in the reader by index. */
#define _POSIX_C_SOURCE 200809L /* getopt */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "tandro.h"

static int usage(const char *self)
{
    fprintf(stderr, "usage: %s [-a ARG] PORT BLOCK KEY_A [DATA]\n", self);
    return 2;
}

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

static void print_block(const char *what, unsigned block, const uint8_t data[16])
{
    printf("%s %u: ", what, block);
    for (int i = 0; i < 16; ++i)
        printf("%02X", data[i]);
    printf("\n");
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
    if (argc - optind < 3 || argc - optind > 4)
        return usage(argv[0]);
    const char *port = argv[optind];
    char *end = NULL;
    unsigned long block = strtoul(argv[optind + 1], &end, 10);
    uint8_t key[6];
    uint8_t data[16] = {0};
    int data_len = 0;
    if (*end != 0 || block > 255 || parse_hex(argv[optind + 2], key, 6) != 6)
        return usage(argv[0]);
    if (argc - optind == 4 && (data_len = parse_hex(argv[optind + 3], data, 16)) < 1)
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

    /* The block as it is, read with key A (ZEL_AUTH_KEY_A; ZEL_AUTH_KEY_B for key B). A wrong key answers
     * ZEL_AUTH_ERROR, a block the key may not read ZEL_READING_ERROR. */
    uint8_t block_data[16];
    status = BlockRead_PKM(reader, block_data, (uint8_t)block, ZEL_AUTH_KEY_A, key);
    if (status == ZEL_OK)
        print_block("block", (unsigned)block, block_data);

    /* The new contents, all 16 bytes at once, then read back to see them on the card. */
    if (status == ZEL_OK && data_len > 0) {
        status = BlockWrite_PKM(reader, data, (uint8_t)block, ZEL_AUTH_KEY_A, key);
        if (status == ZEL_OK)
            status = BlockRead_PKM(reader, block_data, (uint8_t)block, ZEL_AUTH_KEY_A, key);
        if (status == ZEL_OK) {
            print_block("written", (unsigned)block, block_data);
            if (memcmp(block_data, data, sizeof data) != 0) {
                fprintf(stderr, "the block reads back other data than was written\n");
                status = ZEL_WRITE_VERIFICATION_ERROR;
            }
        }
    }
    if (status != ZEL_OK)
        fprintf(stderr, "block %lu: %s\n", block, ZEL_Status2String(status));

    ReaderCloseM(reader);
    Zel_Hnd_Destroy(reader);
    return status == ZEL_OK ? 0 : 1;
}
