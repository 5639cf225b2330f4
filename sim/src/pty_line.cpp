#include "pty_line.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace sim::detail {
namespace {

std::string SystemError(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

}  // namespace

PtyLine::~PtyLine() {
    Close();
}

bool PtyLine::Open(std::string* error) {
    Close();
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (master_ < 0) {
        if (error) *error = SystemError("posix_openpt");
        return false;
    }
    char name[128];
    if (::grantpt(master_) != 0 || ::unlockpt(master_) != 0 ||
        ::ptsname_r(master_, name, sizeof name) != 0) {
        if (error) *error = SystemError("pseudo-terminal");
        Close();
        return false;
    }
    path_ = name;
    if (!OpenHolder(error)) {
        Close();
        return false;
    }
    return true;
}

// Raw from the start: a pseudo-terminal echoes and translates line ends until told otherwise, and
// bytes written before a client configures its side would come back to the master.
bool PtyLine::OpenHolder(std::string* error) {
    holder_ = ::open(path_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    termios settings{};
    if (holder_ < 0 || ::tcgetattr(holder_, &settings) != 0) {
        if (error) *error = SystemError("open " + path_);
        return false;
    }
    ::cfmakeraw(&settings);
    ::tcsetattr(holder_, TCSANOW, &settings);
    return true;
}

void PtyLine::Close() {
    if (holder_ >= 0) ::close(holder_);
    if (master_ >= 0) ::close(master_);
    holder_ = master_ = -1;
}

// What the client sent before is dropped first: once the line is down a client may open it again
// at once, and its first request must not be flushed with the old bytes.
bool PtyLine::HangUp(std::string* error) {
    ::tcflush(master_, TCIFLUSH);
    if (holder_ >= 0 && ::ioctl(holder_, TIOCVHANGUP) == 0) {
        // The holder was hung up with everybody else.
        ::close(holder_);
        holder_ = -1;
        if (OpenHolder(error)) return true;
    }
    return Open(error);
}

}  // namespace sim::detail
