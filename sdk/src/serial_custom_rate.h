#pragma once

namespace lidar::detail {

// Sets a rate that has no B-constant (3125000) through termios2 (BOTHER), the kernel's way to
// ask a driver for any rate. Kept in its own file: the kernel's termios2 headers clash with
// <termios.h>. False with errno set when the driver refuses.
bool SetCustomRate(int fd, int rate);
// The output rate the driver runs the line at, in baud (-1 when it cannot be read).
int ReadRate(int fd);

}  // namespace lidar::detail
