/* Watches cards arrive at the reader and leave it, one line per event, until Ctrl-C (or COUNT events).
 *
 *   card_events [-a ARG] [-n COUNT] PORT
 *
 * PORT is the serial port of the reader; ARG the open's argument text ("UNIT_OPEN_RESET_DISABLE" for a port
 * without a reset line, such as the pseudo-terminal of tandro-sim).
 *
 * An asynchronous session makes the reader announce every card on its own. Two threads of the library watch
 * the port and call the application's functions: on_arrived with the card's UID, type and maker, on_left when
 * it is gone. The session runs on the global handle (ReaderOpenEx, not a handle of the application's), and
 * the application may keep sending commands to the reader meanwhile. */
#define _POSIX_C_SOURCE 200809L /* getopt, sigtimedwait */
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include "tandro.h"

/* The callbacks run on the library's threads: what they share with main is guarded. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static unsigned events;

static void on_arrived(const char *uid, const char *card_type, const char *manufacturer)
{
    /* The three texts are valid during the call only: an application that keeps one copies it. */
    pthread_mutex_lock(&lock);
    printf("arrived %s %s (%s)\n", uid, card_type, manufacturer);
    fflush(stdout);
    ++events;
    pthread_mutex_unlock(&lock);
}

static void on_left(void)
{
    pthread_mutex_lock(&lock);
    printf("left\n");
    fflush(stdout);
    ++events;
    pthread_mutex_unlock(&lock);
}

static unsigned events_so_far(void)
{
    pthread_mutex_lock(&lock);
    unsigned n = events;
    pthread_mutex_unlock(&lock);
    return n;
}

static int usage(const char *self)
{
    fprintf(stderr, "usage: %s [-a ARG] [-n COUNT] PORT\n", self);
    return 2;
}

int main(int argc, char **argv)
{
    const char *arg = NULL;
    unsigned long count = 0; /* 0: until interrupted */
    int opt;
    while ((opt = getopt(argc, argv, "a:n:")) != -1) {
        char *end = NULL;
        if (opt == 'a') {
            arg = optarg;
        } else if (opt == 'n') {
            count = strtoul(optarg, &end, 10);
            if (*end != 0)
                return usage(argv[0]);
        } else {
            return usage(argv[0]);
        }
    }
    if (argc - optind != 1)
        return usage(argv[0]);
    const char *port = argv[optind];

    /* Ctrl-C and SIGTERM are taken by waiting for them in main. Blocked before the library starts its
     * threads (which inherit the mask), they never interrupt the threads' port calls. */
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, NULL);

    /* Reader type 1 (1 Mbit/s), interface 1 (a serial port), on the global handle. */
    ZEL_STATUS status = ReaderOpenEx(1, port, 1, arg);
    if (status != ZEL_OK) {
        fprintf(stderr, "open %s: %s\n", port, ZEL_Status2String(status));
        return 1;
    }
    /* A card already on the reader is reported before StartAsyncSession returns. */
    status = StartAsyncSession(on_arrived, on_left);
    if (status != ZEL_OK) {
        fprintf(stderr, "session: %s\n", ZEL_Status2String(status));
        ReaderClose();
        return 1;
    }
    printf("watching %s; Ctrl-C ends\n", port);
    fflush(stdout);

    while (count == 0 || events_so_far() < count) {
        const struct timespec pause = {0, 50 * 1000 * 1000};
        if (sigtimedwait(&stop, NULL, &pause) > 0)
            break; /* interrupted */
    }

    /* The threads end within a bounded wait and the reader stops announcing cards. */
    status = StopAsyncSession();
    if (status != ZEL_OK)
        fprintf(stderr, "stopping the session: %s\n", ZEL_Status2String(status));
    ReaderClose();
    return status == ZEL_OK ? 0 : 1;
}
