// The stand-in pinctrl: "pinctrl set PIN op dl|dh" drives a simulated reader's reset line. The line is the
// Unix datagram socket named by ZSIM_PINCTRL_SOCKET (tandro-sim --gpio serves it); each command is also
// appended to the file named by ZSIM_PINCTRL_LOG when that is set.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

int main(int argc, char **argv)
{
    if (argc != 5 || std::strcmp(argv[1], "set") != 0 || std::strcmp(argv[3], "op") != 0 ||
        (std::strcmp(argv[4], "dl") != 0 && std::strcmp(argv[4], "dh") != 0)) {
        std::fprintf(stderr, "usage: pinctrl set PIN op dl|dh\n");
        return 2;
    }
    char *end = nullptr;
    const long pin = std::strtol(argv[2], &end, 10);
    if (*end || pin < 0 || pin > 63) {
        std::fprintf(stderr, "pinctrl: bad pin '%s'\n", argv[2]);
        return 2;
    }
    const std::string line = "set " + std::to_string(pin) + " op " + argv[4];
    if (const char *log = std::getenv("ZSIM_PINCTRL_LOG")) {
        if (FILE *f = std::fopen(log, "a")) {
            std::fprintf(f, "%s\n", line.c_str());
            std::fclose(f);
        }
    }
    const char *path = std::getenv("ZSIM_PINCTRL_SOCKET");
    if (!path) {
        if (std::getenv("ZSIM_PINCTRL_LOG"))
            return 0;
        std::fprintf(stderr, "pinctrl: ZSIM_PINCTRL_SOCKET names no reset line\n");
        return 1;
    }
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof a.sun_path) {
        std::fprintf(stderr, "pinctrl: socket path too long\n");
        return 1;
    }
    std::strcpy(a.sun_path, path);
    const int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    if (fd < 0 || sendto(fd, line.data(), line.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) {
        std::perror("pinctrl");
        if (fd >= 0)
            close(fd);
        return 1;
    }
    close(fd);
    return 0;
}
