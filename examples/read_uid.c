/* Opens a reader on a serial port, prints the UID of the card in the field, and closes the reader.
 *
 *   read_uid PORT [ARG]
 *
 * PORT is a device path such as /dev/ttyUSB0. ARG is the open's argument text: give
 * "UNIT_OPEN_RESET_DISABLE" for a port without a reset line, such as the pseudo-terminal of tandro-sim. */
#include <stdio.h>

#include "tandro.h"

int main(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s PORT [ARG]\n", argv[0]);
        return 2;
    }
    /* Reader type 1 (1 Mbit/s), interface 1 (a serial port). The plain forms work on the library's global
     * handle; the M forms (ReaderOpenExHnd, GetCardIdExM, ...) on a handle of the application's. */
    ZEL_STATUS status = ReaderOpenEx(1, argv[1], 1, argc == 3 ? argv[2] : NULL);
    if (status != ZEL_OK) {
        fprintf(stderr, "open %s: %s\n", argv[1], ZEL_Status2String(status));
        return 1;
    }
    /* The full UID (4, 7 or 10 bytes) and the SAK of the card in the field. */
    uint8_t sak = 0, uid[10], uid_len = 0;
    status = GetCardIdEx(&sak, uid, &uid_len);
    if (status == ZEL_OK) {
        printf("UID ");
        for (uint8_t i = 0; i < uid_len; ++i)
            printf("%02X", uid[i]);
        printf(", SAK %02X\n", sak);
    } else {
        fprintf(stderr, "no card: %s\n", ZEL_Status2String(status));
    }
    ReaderClose();
    return status == ZEL_OK ? 0 : 1;
}
