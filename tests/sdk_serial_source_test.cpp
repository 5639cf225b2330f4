// The serial source on real pseudo-terminals and on things that are not serial ports.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include "sdk/serial_source.h"
#include "serial_custom_rate.h"
#include "test_support.h"

namespace {

using lidar::SerialSource;
using Status = SerialSource::ReceiveStatus;

// A pseudo-terminal pair: the test plays the device on the master side.
class Pty {
  public:
    Pty() {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY);
        ::grantpt(master_);
        ::unlockpt(master_);
        path_ = ::ptsname(master_);
    }
    ~Pty() { ::close(master_); }
    const std::string& path() const { return path_; }
    int master() const { return master_; }
    void Write(const std::string& bytes) {
        ASSERT_EQ(::write(master_, bytes.data(), bytes.size()), ssize_t(bytes.size()));
    }

  private:
    int master_ = -1;
    std::string path_;
};

// Another process that holds the port's lock until it is killed.
class HeldElsewhere {
  public:
    explicit HeldElsewhere(const std::string& path) {
        int ready[2];
        if (::pipe(ready) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
            ::flock(fd, LOCK_EX | LOCK_NB);
            const char done = 'x';
            [[maybe_unused]] ssize_t ignored = ::write(ready[1], &done, 1);
            ::pause();
            ::_exit(0);
        }
        char done = 0;
        [[maybe_unused]] ssize_t ignored = ::read(ready[0], &done, 1);
        ::close(ready[0]);
        ::close(ready[1]);
    }
    ~HeldElsewhere() {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
    }

  private:
    pid_t pid_ = -1;
};

TEST(SerialSource, RefusesWhatIsNotAFreeSerialPortWithAClearReason) {
    SerialSource missing("/dev/no-such-serial-port", 9600, 3125000);
    EXPECT_FALSE(missing.Open());
    EXPECT_FALSE(missing.IsOpen());
    EXPECT_EQ(missing.LastError(),
              "cannot open serial port /dev/no-such-serial-port: no such device");

    testsupport::TempDir dir;
    testsupport::WriteFile(dir.file("port"), "not a port");
    SerialSource file(dir.file("port"), 9600, 9600);
    EXPECT_FALSE(file.Open());
    EXPECT_EQ(file.LastError(), dir.file("port") + " is not a serial port (it is a regular file)");

    Pty pty;
    SerialSource noRate(pty.path(), 0, 0);
    EXPECT_FALSE(noRate.Open());
    EXPECT_EQ(noRate.LastError(), "cannot open serial port " + pty.path() + ": invalid rate 0");

    SerialSource null("/dev/null", 9600, 9600);
    EXPECT_FALSE(null.Open());
    EXPECT_EQ(null.LastError(), "/dev/null is not a serial port (not a terminal)");

    // Another process holds the port: root passes TIOCEXCL, the advisory lock still stops it.
    SerialSource held(pty.path(), 9600, 9600);
    {
        HeldElsewhere holder(pty.path());
        EXPECT_FALSE(held.Open());
        EXPECT_EQ(held.LastError(), "serial port " + pty.path() + " is in use by another program");
    }
    EXPECT_TRUE(held.Open()) << held.LastError();

    // And within one process: a second source on an open port, named through a link as
    // /dev/serial/by-id names adapters, is the same device, not another program's.
    const std::string link = dir.file("by-id-adapter");
    ASSERT_EQ(::symlink(pty.path().c_str(), link.c_str()), 0);
    SerialSource second(link, 9600, 9600);
    EXPECT_FALSE(second.Open());
    EXPECT_EQ(second.LastError(),
              "serial port " + link + " is already open in this program (as " + pty.path() + ")");
    held.Close();
    EXPECT_TRUE(second.Open()) << second.LastError();
}

TEST(SerialSource, AnOpenThatFailsPartWayLeavesTheDeviceUnheld) {
    Pty pty;
    SerialSource source(pty.path(), 9600, 9600);
    // One descriptor left for the process: the device or the wake-up descriptor, not both.
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    const int lowestFree = ::dup(0);
    ::close(lowestFree);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree) + 1;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    const bool opened = source.Open();
    ::setrlimit(RLIMIT_NOFILE, &saved);
    EXPECT_FALSE(opened);
    EXPECT_EQ(source.LastError(),
              "cannot open serial port " + pty.path() + ": " + std::strerror(EMFILE));
    // Nothing of the failed open is left held: another program's lock reads as such.
    {
        HeldElsewhere holder(pty.path());
        EXPECT_FALSE(source.Open());
        EXPECT_EQ(source.LastError(),
                  "serial port " + pty.path() + " is in use by another program");
    }

    // A device that cannot be identified is refused: it could not be told apart from the others
    // held, nor its kind checked.
    source.SetStatReader([](int, struct stat&) {
        errno = EIO;
        return -1;
    });
    EXPECT_FALSE(source.Open());
    EXPECT_EQ(source.LastError(), "cannot open serial port " + pty.path() +
                                      ": cannot tell which device it is: " + std::strerror(EIO));
    source.SetStatReader(nullptr);
    EXPECT_TRUE(source.Open()) << source.LastError();
    EXPECT_EQ(source.LastError(), "");  // an open that succeeds forgets the failures before it
}

// The line as the device sees it, read through the far side of the pseudo-terminal: raw 8N1
// without flow control, at the rate of the source's mode.
TEST(SerialSource, OpensRawWithoutFlowControlAtTheRateOfItsMode) {
    struct Case {
        bool commandMode;
        int rate;
    };
    for (const Case& c : {Case{true, 9600}, Case{false, 3125000}, Case{false, 921600}}) {
        SCOPED_TRACE(c.rate);
        Pty pty;
        // A line left by another program with flow control, parity, two stop bits and VMIN 1.
        termios line{};
        ASSERT_EQ(::tcgetattr(pty.master(), &line), 0);
        line.c_cflag |= CRTSCTS | PARENB | CSTOPB;
        line.c_iflag |= IXON | IXOFF | IXANY;
        line.c_cc[VMIN] = 1;
        ASSERT_EQ(::tcsetattr(pty.master(), TCSANOW, &line), 0);
        SerialSource source(pty.path(), 9600, c.commandMode ? 115200 : c.rate);
        source.SetCommandMode(c.commandMode);
        ASSERT_TRUE(source.Open()) << source.LastError();
        ASSERT_EQ(::tcgetattr(pty.master(), &line), 0);
        EXPECT_EQ(line.c_cflag & CRTSCTS, 0u);
        EXPECT_EQ(line.c_cflag & (CSIZE | PARENB | CSTOPB), tcflag_t{CS8});
        EXPECT_EQ(line.c_cflag & (CLOCAL | CREAD), tcflag_t{CLOCAL | CREAD});
        EXPECT_EQ(line.c_iflag & (IXON | IXOFF | IXANY | ICRNL | ISTRIP), 0u);
        EXPECT_EQ(line.c_cc[VMIN], 0);  // reads are driven by poll
        EXPECT_EQ(line.c_lflag & (ICANON | ECHO | ISIG | IEXTEN), 0u);
        EXPECT_EQ(line.c_oflag & OPOST, 0u);
        EXPECT_EQ(lidar::detail::ReadRate(pty.master()), c.rate);
    }
}

TEST(SerialSource, ALineTheDriverRunsAtAnotherRateIsNotOpened) {
    Pty pty;
    SerialSource source(pty.path(), 9600, 3125000);
    source.SetCommandMode(true);
    source.SetRateReader([](int) { return 115200; });
    EXPECT_FALSE(source.Open());
    EXPECT_FALSE(source.IsOpen());
    EXPECT_EQ(source.LastError(), "serial port " + pty.path() +
                                      " runs at 115200 baud: the driver could not set 9600 baud");
    // Nothing is left held, and a rate within a UART's tolerance is the asked one.
    source.SetRateReader([](int) { return 9700; });
    EXPECT_TRUE(source.Open()) << source.LastError();
}

TEST(SerialSource, CommandLineReadsDataLineDrainsAndCloseWakesAReader) {
    Pty uart;
    SerialSource command(uart.path(), 9600, 3125000);
    command.SetCommandMode(true);
    command.setNeedRecv(false);
    ASSERT_TRUE(command.Open()) << command.LastError();
    EXPECT_EQ(command.Rate(), 9600);
    uart.Write("hello");
    uint8_t buffer[16];
    size_t got = 0;
    ASSERT_EQ(command.Receive(buffer, sizeof buffer, got, 2000), Status::kData);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), got), "hello");
    EXPECT_EQ(command.Receive(buffer, sizeof buffer, got, 50), Status::kTimeout);

    Status woken = Status::kData;
    std::thread reader([&] { woken = command.Receive(buffer, sizeof buffer, got, 60000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    command.Close();
    reader.join();
    EXPECT_EQ(woken, Status::kCancelled);
    EXPECT_FALSE(command.IsOpen());

    // A data line at a rate without a termios constant, drained in the background.
    Pty rs485;
    SerialSource data(rs485.path(), 115200, 3125000);
    ASSERT_TRUE(data.Open()) << data.LastError();
    EXPECT_EQ(data.Rate(), 3125000);
    rs485.Write(std::string(3000, 'p'));
    EXPECT_TRUE(testsupport::WaitFor([&] { return data.BytesReceived() == 3000; }));
    EXPECT_EQ(data.Receive(buffer, sizeof buffer, got, 10), Status::kError);

    // Opens and closes from two threads at once: each drain thread is joined, none orphaned.
    std::thread reopener([&] {
        for (int i = 0; i < 50; ++i) data.Open();
    });
    for (int i = 0; i < 50; ++i) data.Close();
    reopener.join();
    data.Close();
    EXPECT_FALSE(data.IsOpen());
}

TEST(SerialSource, CloseLeavesThePortOpenableByAnyone) {
    Pty pty;
    SerialSource source(pty.path(), 9600, 9600);
    ASSERT_TRUE(source.Open()) << source.LastError();
    source.Close();
    // Exclusive mode belongs to the terminal: left set, only root could open it again.
    const int fd = ::open(pty.path().c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    int exclusive = -1;
    ASSERT_EQ(::ioctl(fd, TIOCGEXCL, &exclusive), 0);
    EXPECT_EQ(exclusive, 0);
    ::close(fd);
}

TEST(SerialSource, ALineWhoseFarSideIsGoneIsMarkedHungUp) {
    auto pty = std::make_unique<Pty>();
    const std::string path = pty->path();
    SerialSource source(path, 9600, 9600);
    source.SetCommandMode(true);
    source.setNeedRecv(false);
    ASSERT_TRUE(source.Open()) << source.LastError();
    pty.reset();  // the adapter is gone
    const uint8_t byte = 0x55;
    EXPECT_FALSE(source.Send(&byte, 1, 200));
    EXPECT_FALSE(source.IsOpen());
    EXPECT_EQ(source.LastError(), "serial line " + path + " hung up");

    // A data line is read by its drain thread alone, which must see the hang-up too.
    auto dataPty = std::make_unique<Pty>();
    const std::string dataPath = dataPty->path();
    SerialSource data(dataPath, 115200, 115200);
    ASSERT_TRUE(data.Open()) << data.LastError();
    dataPty.reset();
    EXPECT_TRUE(testsupport::WaitFor([&] { return !data.IsOpen(); }));
    EXPECT_EQ(data.LastError(), "serial line " + dataPath + " hung up");
}

}  // namespace
