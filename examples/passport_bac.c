/* Reads the holder's data of a passport (or any ICAO travel document) over Basic Access Control.
 *
 *   passport_bac [-a ARG] PORT DOCUMENT_NUMBER DATE_OF_BIRTH DATE_OF_EXPIRY
 *
 * PORT is the serial port of the reader; ARG the open's argument text ("UNIT_OPEN_RESET_DISABLE" for a port
 * without a reset line, such as the pseudo-terminal of tandro-sim). The document number and the two dates
 * (YYMMDD) are printed in the machine readable zone of the document: they make the BAC key, so the chip
 * answers only to someone who has seen the document. For the specimen whose lower MRZ line is
 * "L898902C36UTO7408122F1204159ZE184226B<<<<<10" they are L898902C3, 740812 and 120415.
 *
 * After BAC every command goes under secure messaging with the session keys (ks_enc, ks_mac) and the send
 * sequence counter (ssc) that the library hands back; each read moves the counter on. */
#define _POSIX_C_SOURCE 200809L /* getopt */
#include <stdio.h>
#include <unistd.h>

#include "tandro.h"

static int usage(const char *self)
{
    fprintf(stderr, "usage: %s [-a ARG] PORT DOCUMENT_NUMBER DATE_OF_BIRTH DATE_OF_EXPIRY\n", self);
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
    if (argc - optind != 4)
        return usage(argv[0]);
    const char *port = argv[optind];

    /* The BAC key comes from the three fields and their check digits, which the library computes. */
    char proto_key[MRTD_PROTO_KEY_SIZE];
    ZEL_STATUS status = MRTD_MRZDataToMRZProtoKey(argv[optind + 1], argv[optind + 2], argv[optind + 3], proto_key);
    if (status != ZEL_OK) {
        fprintf(stderr, "document number or dates: %s\n", ZEL_Status2String(status));
        return 2;
    }
    /* The cryptography behind secure messaging. */
    initCryptoSubsys();

    ZEL_HANDLE reader = Zel_Hnd_Create();
    if (!reader)
        return 1;
    /* Reader type 1 (1 Mbit/s), interface 1 (a serial port). */
    status = ReaderOpenExHnd(reader, 1, port, 1, arg);
    if (status != ZEL_OK) {
        fprintf(stderr, "open %s: %s\n", port, ZEL_Status2String(status));
        Zel_Hnd_Destroy(reader);
        return 1;
    }

    const char *step = "ISO 14443-4 activation";
    uint8_t ks_enc[16], ks_mac[16];
    uint64_t ssc = 0;
    uint8_t *dg1 = NULL;
    uint32_t dg1_len = 0;
    char *holder = NULL;
    /* The chip speaks APDUs: bring it to ISO 14443-4 level first. */
    status = SetISO14443_4_ModeM(reader);
    if (status == ZEL_OK) {
        /* SELECT of the document application, GET CHALLENGE and the mutual authentication. */
        step = "Basic Access Control";
        status = MRTDAppSelectAndAuthenticateBacM(reader, proto_key, ks_enc, ks_mac, &ssc);
    }
    if (status == ZEL_OK) {
        /* Data group 1 (file 01 01): the MRZ. The library allocates the buffer; OrbFree releases it. */
        step = "reading DG1";
        const uint8_t dg1_file[2] = {0x01, 0x01};
        status = MRTDFileReadBacToHeapM(reader, dg1_file, &dg1, &dg1_len, ks_enc, ks_mac, &ssc);
    }
    if (status == ZEL_OK) {
        /* The MRZ as "label: value" lines. */
        step = "DG1";
        status = dg1_len <= 255 ? MRTDParseDG1ToHeap(&holder, "\n", dg1, (uint8_t)dg1_len) : MRTD_EF_DG_WRONG_DATA;
    }
    if (status == ZEL_OK)
        printf("%s\n", holder);
    else
        fprintf(stderr, "%s: %s\n", step, ZEL_Status2String(status));
    OrbFree(holder);
    OrbFree(dg1);

    /* Ends the chip's ISO 14443-4 session (S(DESELECT); the reader waits up to 100 ms), then closes. */
    s_block_deselectM(reader, 100);
    ReaderCloseM(reader);
    Zel_Hnd_Destroy(reader);
    return status == ZEL_OK ? 0 : 1;
}
