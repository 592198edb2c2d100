/* Opens a reader on the network (UDP or TCP), prints who it is and the card in its field, and closes it.
 *
 *   network_reader [-t] HOST:PORT
 *
 * HOST:PORT is the reader's address and frame port (8881 on a reader as delivered; tandro-sim prints the one
 * it serves: "tandro-sim --udp 127.0.0.1:0 --tcp 127.0.0.1:0"). Frames go in UDP datagrams unless -t asks for
 * a TCP connection. A third number, HOST:PORT:LOCALPORT, fixes the local port of the socket. */
#define _POSIX_C_SOURCE 200809L /* getopt */
#include <stdio.h>
#include <unistd.h>

#include "tandro.h"

static int usage(const char *self)
{
    fprintf(stderr, "usage: %s [-t] HOST:PORT\n", self);
    return 2;
}

int main(int argc, char **argv)
{
    uint32_t link = 'U';
    int opt;
    while ((opt = getopt(argc, argv, "t")) != -1) {
        if (opt != 't')
            return usage(argv[0]);
        link = 'T';
    }
    if (argc - optind != 1)
        return usage(argv[0]);
    const char *address = argv[optind];

    ZEL_HANDLE reader = Zel_Hnd_Create();
    if (!reader)
        return 1;
    /* Reader type 0 (any), interface 'U' (UDP) or 'T' (TCP). A network reader has no reset line to pulse. */
    ZEL_STATUS status = ReaderOpenExHnd(reader, 0, address, link, NULL);
    if (status != ZEL_OK) {
        fprintf(stderr, "open %s: %s\n", address, ZEL_Status2String(status));
        Zel_Hnd_Destroy(reader);
        return 1;
    }

    /* Who answers: the reader's type, serial number and firmware version. */
    uint32_t type = 0, serial = 0;
    uint8_t major = 0, minor = 0;
    status = GetReaderTypeM(reader, &type);
    if (status == ZEL_OK)
        status = GetReaderSerialNumberM(reader, &serial);
    if (status == ZEL_OK)
        status = GetReaderFirmwareVersionM(reader, &major, &minor);
    if (status == ZEL_OK)
        printf("reader %08X, serial number %u, firmware %u.%u, over %s\n", type, serial, major, minor,
               link == 'T' ? "TCP" : "UDP");

    /* The card in the field, if any: its full UID (up to 10 bytes). */
    if (status == ZEL_OK) {
        uint8_t sak = 0, uid[10], uid_len = 0;
        ZEL_STATUS card = GetCardIdExM(reader, &sak, uid, &uid_len);
        if (card == ZEL_OK) {
            printf("card ");
            for (uint8_t i = 0; i < uid_len; ++i)
                printf("%02X", uid[i]);
            printf(", SAK %02X\n", sak);
        } else if (card == ZEL_NO_CARD) {
            printf("no card\n");
        } else {
            status = card;
        }
    }
    if (status != ZEL_OK)
        fprintf(stderr, "%s: %s\n", address, ZEL_Status2String(status));

    ReaderCloseM(reader);
    Zel_Hnd_Destroy(reader);
    return status == ZEL_OK ? 0 : 1;
}
