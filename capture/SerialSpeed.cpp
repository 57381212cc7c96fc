#include "capture/SerialSpeed.h"

#include <asm/termbits.h>
#include <sys/ioctl.h>

bool SetArbitraryBaud(int fd, int baud)
{
    if (fd < 0 || baud <= 0)
        return false;
    struct termios2 tio {};
    if (ioctl(fd, TCGETS2, &tio) != 0)
        return false;
    tio.c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT));
    tio.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    tio.c_ispeed = static_cast<speed_t>(baud);
    tio.c_ospeed = static_cast<speed_t>(baud);
    return ioctl(fd, TCSETS2, &tio) == 0;
}
