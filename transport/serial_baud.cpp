// Baud rates through termios2, so that rates without a B constant (250,000 and friends) can be set.
// Kept apart: the kernel's termios2 header cannot share a unit with <termios.h>.
#include <asm/termbits.h>
#include <sys/ioctl.h>

#include <cstdint>

namespace zel {

int serial_set_baud(int fd, uint32_t baud)
{
    struct termios2 tio {};
    if (ioctl(fd, TCGETS2, &tio) != 0)
        return -1;
    tio.c_cflag &= ~static_cast<tcflag_t>(CBAUD);
    tio.c_cflag |= BOTHER;
    tio.c_ispeed = baud;
    tio.c_ospeed = baud;
    return ioctl(fd, TCSETS2, &tio);
}

} // namespace zel
