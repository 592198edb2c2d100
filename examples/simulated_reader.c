/* Runs a simulated reader inside the program and talks to it through the library, as an application's tests
 * can do without hardware and without a second process.
 *
 *   simulated_reader [SCENARIO]
 *
 * SCENARIO is a scenario file of the simulated reader (its reader, cards and faults; see the simulator's
 * documentation); without one the reader gets a single NTAG 215 in its field. Build it against both the
 * library and the simulated reader's library: "pkg-config --cflags --libs tandro tandro-zelsim", or in CMake
 * target_link_libraries(... Tandro::tandro Tandro::zelsim) after find_package(Tandro COMPONENTS zelsim).
 *
 * The simulated reader serves a pseudo-terminal, and the library opens it as it opens a reader on a serial
 * port: the application's code under test stays the same. */
#include <stdio.h>

#include "tandro.h"
#include "zelsim.h"

int main(int argc, char **argv)
{
    if (argc > 2) {
        fprintf(stderr, "usage: %s [SCENARIO]\n", argv[0]);
        return 2;
    }
    /* The reader's side: a reader with the default identity and an empty field. */
    zsim *sim = zsim_new();
    if (!sim)
        return 1;
    char err[256] = "";
    if (argc == 2) {
        if (zsim_load_scenario_file(sim, argv[1], err, sizeof err) != 0) {
            fprintf(stderr, "%s: %s\n", argv[1], err);
            zsim_free(sim);
            return 2;
        }
    } else {
        /* One card: UID, its length, SAK, ATQA and the reader's card type code. */
        const zsim_card ntag = {{0x04, 0xA2, 0x2B, 0x1A, 0x5C, 0x64, 0x80}, 7, 0x00, 0x0044, ORB_NTAG_215};
        zsim_card_add(sim, &ntag);
    }
    char path[256] = "";
    if (zsim_serve_pty(sim, path, sizeof path) != 0) {
        fprintf(stderr, "no pseudo-terminal for the simulated reader\n");
        zsim_free(sim);
        return 1;
    }

    /* The application's side, as with a reader on a serial port. A pseudo-terminal has no reset line. */
    ZEL_HANDLE reader = Zel_Hnd_Create();
    ZEL_STATUS status = reader ? ReaderOpenExHnd(reader, 1, path, 1, "UNIT_OPEN_RESET_DISABLE") : ZEL_NO_MEMORY_ERROR;
    if (status == ZEL_OK) {
        uint32_t type = 0;
        uint8_t sak = 0, uid[10], uid_len = 0;
        status = GetReaderTypeM(reader, &type);
        if (status == ZEL_OK)
            status = GetCardIdExM(reader, &sak, uid, &uid_len);
        if (status == ZEL_OK) {
            printf("simulated reader %08X on %s: UID ", type, path);
            for (uint8_t i = 0; i < uid_len; ++i)
                printf("%02X", uid[i]);
            printf(", SAK %02X\n", sak);
        }
        ReaderCloseM(reader);
    }
    if (status != ZEL_OK)
        fprintf(stderr, "%s: %s\n", path, ZEL_Status2String(status));

    /* A test sees what the reader was asked: here the number of exchanges it served. */
    printf("%llu exchanges\n", (unsigned long long)zsim_exchange_count(sim));
    if (reader)
        Zel_Hnd_Destroy(reader);
    zsim_free(sim); /* stops its links first */
    return status == ZEL_OK ? 0 : 1;
}
