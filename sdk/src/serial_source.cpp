#include "sdk/serial_source.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "serial_custom_rate.h"

namespace lidar {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kDrainChunk = 4096;

// The rates termios names; any other goes through termios2.
speed_t StandardSpeed(int rate) {
    static const struct {
        int rate;
        speed_t speed;
    } kSpeeds[] = {{1200, B1200},       {2400, B2400},       {4800, B4800},
                   {9600, B9600},       {19200, B19200},     {38400, B38400},
                   {57600, B57600},     {115200, B115200},   {230400, B230400},
                   {460800, B460800},   {500000, B500000},   {576000, B576000},
                   {921600, B921600},   {1000000, B1000000}, {1152000, B1152000},
                   {1500000, B1500000}, {2000000, B2000000}, {2500000, B2500000},
                   {3000000, B3000000}, {3500000, B3500000}, {4000000, B4000000}};
    for (const auto& entry : kSpeeds) {
        if (entry.rate == rate) return entry.speed;
    }
    return B0;
}

std::string OpenErrorText(const std::string& device, int error) {
    switch (error) {
        case ENOENT:
        case ENODEV:
        case ENXIO:
            return "cannot open serial port " + device + ": no such device";
        case EACCES:
        case EPERM:
            return "cannot open serial port " + device + ": permission denied";
        case EBUSY:
            return "cannot open serial port " + device + ": device busy";
        case EISDIR:
            return device + " is not a serial port (it is a folder)";
        default:
            return "cannot open serial port " + device + ": " + std::strerror(error);
    }
}

int RemainingMs(Clock::time_point deadline) {
    const auto left = deadline - Clock::now();
    if (left <= Clock::duration::zero()) return 0;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::min<long long>(ms, INT_MAX));
}

// The devices this process holds, by the device itself (a link such as /dev/serial/by-id/...
// names the same one), with the name each was opened by: a second open of one of them is told
// apart from another program's.
using DeviceKey = std::pair<uint64_t, uint64_t>;
std::mutex heldMutex;
std::map<DeviceKey, std::string> held;

DeviceKey KeyOf(const struct stat& info) {
    if (S_ISCHR(info.st_mode)) return {uint64_t{info.st_rdev}, 0};
    return {uint64_t{info.st_dev}, uint64_t{info.st_ino}};
}

std::string HeldAs(const DeviceKey& key) {
    std::lock_guard<std::mutex> lock(heldMutex);
    const auto found = held.find(key);
    return found == held.end() ? std::string() : found->second;
}

int ReadStat(int fd, struct stat& info) {
    return ::fstat(fd, &info);
}

bool HungUpEvents(int revents) {
    return (revents & (POLLHUP | POLLERR)) != 0 && (revents & POLLIN) == 0;
}

}  // namespace

SerialSource::SerialSource(std::string device, int lineRate, int secondRate)
    : device_(std::move(device)),
      lineRate_(lineRate),
      secondRate_(secondRate),
      rateReader_(detail::ReadRate),
      statReader_(ReadStat) {}

void SerialSource::SetRateReader(RateReader reader) {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    rateReader_ = reader ? std::move(reader) : RateReader(detail::ReadRate);
}

void SerialSource::SetStatReader(StatReader reader) {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    statReader_ = reader ? std::move(reader) : StatReader(ReadStat);
}

SerialSource::~SerialSource() {
    Close();
}

void SerialSource::SetCommandMode(bool commandMode) {
    commandMode_.store(commandMode);
}

void SerialSource::setNeedRecv(bool needRecv) {
    needRecv_.store(needRecv);
}

int SerialSource::Rate() const {
    return commandMode_.load() ? lineRate_ : secondRate_;
}

bool SerialSource::IsOpen() const {
    return fd_.load() >= 0 && !hungUp_.load();
}

std::string SerialSource::LastError() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return lastError_;
}

void SerialSource::SetError(const std::string& text) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    lastError_ = text;
}

bool SerialSource::Open() {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    CloseLocked();
    // The wake-up descriptor first: once OpenDevice holds the device, nothing is left to fail, so
    // no failure can leave the device among those held.
    const int wake = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake < 0) {
        SetError("cannot open serial port " + device_ + ": " + std::strerror(errno));
        return false;
    }
    const int fd = OpenDevice();
    if (fd < 0) {
        ::close(wake);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        wakeFd_ = wake;
        lastError_.clear();
    }
    hungUp_.store(false);
    fd_.store(fd);
    if (needRecv_.load()) StartDrain();
    return true;
}

// O_NONBLOCK: a modem line without carrier would otherwise block the open.
int SerialSource::OpenDevice() {
    const int fd = ::open(device_.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        SetError(OpenErrorText(device_, errno));
        return -1;
    }
    // Without it the device could not be told apart from the others held, nor its kind checked.
    struct stat info {};
    if (statReader_(fd, info) != 0) {
        SetError("cannot open serial port " + device_ +
                 ": cannot tell which device it is: " + std::strerror(errno));
        ::close(fd);
        return -1;
    }
    if (!S_ISCHR(info.st_mode)) {
        SetError(device_ + " is not a serial port (" +
                 (S_ISREG(info.st_mode) ? "it is a regular file" : "not a character device") + ")");
        ::close(fd);
        return -1;
    }
    termios probe{};
    if (::tcgetattr(fd, &probe) != 0) {
        SetError(device_ + " is not a serial port (not a terminal)");
        ::close(fd);
        return -1;
    }
    // TIOCEXCL alone does not stop root from a second open; the advisory lock does, whoever
    // asks, as long as the other program locks too (every program built on this SDK does).
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int error = errno;
        const std::string heldAs = HeldAs(KeyOf(info));
        if (!heldAs.empty()) {
            SetError("serial port " + device_ + " is already open in this program (as " + heldAs +
                     ")");
        } else {
            SetError(error == EWOULDBLOCK
                         ? "serial port " + device_ + " is in use by another program"
                         : "cannot lock serial port " + device_ + ": " + std::strerror(error));
        }
        ::close(fd);
        return -1;
    }
    ::ioctl(fd, TIOCEXCL);
    if (!Configure(fd)) {
        ::close(fd);
        return -1;
    }
    // The last step: every failure above returns before the device is held.
    std::lock_guard<std::mutex> lock(heldMutex);
    heldKey_ = KeyOf(info);
    held[heldKey_] = device_;
    return fd;
}

bool SerialSource::Configure(int fd) {
    const int rate = Rate();
    if (rate <= 0) {
        SetError("cannot open serial port " + device_ + ": invalid rate " + std::to_string(rate));
        return false;
    }
    termios settings{};
    ::tcgetattr(fd, &settings);
    ::cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD;
    settings.c_cflag &= ~static_cast<tcflag_t>(CSTOPB | PARENB | CRTSCTS);
    settings.c_iflag &= ~static_cast<tcflag_t>(IXON | IXOFF | IXANY);
    settings.c_cc[VMIN] = 0;
    settings.c_cc[VTIME] = 0;
    const speed_t standard = StandardSpeed(rate);
    if (standard != B0) {
        ::cfsetispeed(&settings, standard);
        ::cfsetospeed(&settings, standard);
    }
    bool configured = ::tcsetattr(fd, TCSANOW, &settings) == 0;
    if (configured && standard == B0) configured = detail::SetCustomRate(fd, rate);
    if (!configured) {
        SetError("cannot set serial port " + device_ + " to " + std::to_string(rate) +
                 " baud, 8N1: " + std::strerror(errno));
        return false;
    }
    if (!RateTookEffect(fd, rate)) return false;
    ::tcflush(fd, TCIOFLUSH);
    return true;
}

// A driver may accept the settings and still run the line at another rate (one it can make
// from its clock, or its default): every byte would then be garbage on both sides. A rate within
// kRateTolerancePercent of the asked one is what a UART runs at anyway.
bool SerialSource::RateTookEffect(int fd, int rate) {
    constexpr int64_t kRateTolerancePercent = 2;
    const int actual = rateReader_(fd);
    if (actual < 0) return true;  // a driver that cannot tell: nothing to compare
    if (std::llabs(int64_t{actual} - rate) * 100 <= rate * kRateTolerancePercent) return true;
    SetError("serial port " + device_ + " runs at " + std::to_string(actual) +
             " baud: the driver could not set " + std::to_string(rate) + " baud");
    return false;
}

void SerialSource::Close() {
    std::lock_guard<std::mutex> lifecycle(lifecycleMutex_);
    CloseLocked();
}

void SerialSource::CloseLocked() {
    std::thread drain;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        if (wakeFd_ >= 0) {
            const uint64_t one = 1;
            [[maybe_unused]] const ssize_t written = ::write(wakeFd_, &one, sizeof one);
        }
        drain = std::move(drainThread_);
    }
    if (drain.joinable()) drain.join();
    std::lock_guard<std::mutex> io(ioMutex_);
    std::lock_guard<std::mutex> lock(stateMutex_);
    const int fd = fd_.exchange(-1);
    if (fd >= 0) {
        // The exclusive mode belongs to the tty, not to this descriptor: left set, it would
        // refuse the next open of anyone but root.
        ::ioctl(fd, TIOCNXCL);
        std::lock_guard<std::mutex> heldLock(heldMutex);
        held.erase(heldKey_);
        ::close(fd);  // also releases the lock
    }
    if (wakeFd_ >= 0) ::close(wakeFd_);
    wakeFd_ = -1;
    draining_.store(false);
}

void SerialSource::StartDrain() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    draining_.store(true);
    drainThread_ = std::thread([this, fd = fd_.load(), wake = wakeFd_] { Drain(fd, wake); });
}

// The descriptors stay valid until Close has joined this thread.
void SerialSource::Drain(int fd, int wakeFd) {
    uint8_t buffer[kDrainChunk];
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR) continue;
            SetError("cannot read serial port " + device_ + ": " + std::strerror(errno));
            return;
        }
        if (fds[1].revents != 0) return;
        const ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got > 0) {
            bytesReceived_.fetch_add(static_cast<uint64_t>(got));
            continue;
        }
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        MarkHungUp();
        return;
    }
}

void SerialSource::MarkHungUp() {
    // The reason first: whoever sees the line closed must find why.
    SetError("serial line " + device_ + " hung up");
    hungUp_.store(true);
}

int SerialSource::WaitFor(short events, int timeoutMs) {
    int wakeFd = -1;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        wakeFd = wakeFd_;
    }
    for (;;) {
        pollfd fds[2] = {{fd_.load(), events, 0}, {wakeFd, POLLIN, 0}};
        const int ready = ::poll(fds, 2, timeoutMs);
        if (ready < 0 && errno == EINTR) continue;
        if (ready < 0 || fds[1].revents != 0) return -1;
        return ready == 0 ? 0 : fds[0].revents;
    }
}

bool SerialSource::Send(const uint8_t* data, size_t size, uint32_t timeoutMs) {
    std::lock_guard<std::mutex> io(ioMutex_);
    const int fd = fd_.load();
    if (fd < 0 || hungUp_.load()) {
        if (fd < 0) SetError("serial port " + device_ + " is not open");
        return false;
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    size_t sent = 0;
    while (sent < size) {
        const ssize_t written = ::write(fd, data + sent, size - sent);
        if (written > 0) {
            sent += static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno == EIO) {
            MarkHungUp();
            return false;
        }
        if (written < 0 && errno != EAGAIN) {
            SetError("cannot write to serial port " + device_ + ": " + std::strerror(errno));
            return false;
        }
        const int events = WaitFor(POLLOUT, RemainingMs(deadline));
        if (events == 0) {
            SetError("writing to serial port " + device_ + " timed out");
            return false;
        }
        if (events < 0) {
            SetError("serial port " + device_ + " was closed");
            return false;
        }
        if (HungUpEvents(events) && (events & POLLOUT) == 0) {
            MarkHungUp();
            return false;
        }
    }
    return true;
}

SerialSource::ReceiveStatus SerialSource::Receive(uint8_t* buffer, size_t capacity,
                                                  size_t& received, uint32_t timeoutMs) {
    received = 0;
    std::lock_guard<std::mutex> io(ioMutex_);
    const int fd = fd_.load();
    if (fd < 0) {
        SetError("serial port " + device_ + " is not open");
        return ReceiveStatus::kError;
    }
    if (hungUp_.load()) return ReceiveStatus::kClosed;
    if (draining_.load()) {
        SetError("serial port " + device_ + " is drained in the background (setNeedRecv(true))");
        return ReceiveStatus::kError;
    }
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const ssize_t got = ::read(fd, buffer, capacity);
        if (got > 0) {
            received = static_cast<size_t>(got);
            bytesReceived_.fetch_add(received);
            return ReceiveStatus::kData;
        }
        if (got < 0 && errno == EINTR) continue;
        // A tty reads 0 bytes after a hang-up (with VMIN 0 also when nothing is there, which
        // poll tells apart), and EIO when the device is gone.
        if (got < 0 && errno != EAGAIN && errno != EIO) {
            SetError("cannot read serial port " + device_ + ": " + std::strerror(errno));
            return ReceiveStatus::kError;
        }
        if (got < 0 && errno == EIO) {
            MarkHungUp();
            return ReceiveStatus::kClosed;
        }
        const int events = WaitFor(POLLIN, RemainingMs(deadline));
        if (events < 0) {
            SetError("serial port " + device_ + " was closed");
            return ReceiveStatus::kCancelled;
        }
        if (events == 0) return ReceiveStatus::kTimeout;
        if (HungUpEvents(events) || (got == 0 && (events & POLLHUP) != 0)) {
            MarkHungUp();
            return ReceiveStatus::kClosed;
        }
    }
}

void SerialSource::DiscardInput() {
    std::lock_guard<std::mutex> io(ioMutex_);
    const int fd = fd_.load();
    if (fd >= 0) ::tcflush(fd, TCIFLUSH);
}

}  // namespace lidar
