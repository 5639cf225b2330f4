#include "serial_custom_rate.h"

#include <asm/ioctls.h>
#include <asm/termbits.h>

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept;

namespace lidar::detail {

bool SetCustomRate(int fd, int rate) {
    termios2 settings{};
    if (ioctl(fd, TCGETS2, &settings) != 0) return false;
    settings.c_cflag &= ~static_cast<tcflag_t>(CBAUD | (CBAUD << IBSHIFT));
    settings.c_cflag |= BOTHER | (BOTHER << IBSHIFT);
    settings.c_ispeed = static_cast<speed_t>(rate);
    settings.c_ospeed = static_cast<speed_t>(rate);
    return ioctl(fd, TCSETS2, &settings) == 0;
}

int ReadRate(int fd) {
    termios2 settings{};
    if (ioctl(fd, TCGETS2, &settings) != 0) return -1;
    return static_cast<int>(settings.c_ospeed);
}

}  // namespace lidar::detail
