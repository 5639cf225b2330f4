#pragma once

// One serial line (POSIX termios, see docs/protocol.md "Serial lines").
//
// The two rates and the mode switch: a line is either a command line (SetCommandMode(true): the
// port is opened at `lineRate`, and requests and replies go over it) or a data line
// (SetCommandMode(false), the default: the port is opened at `secondRate`, the rate the lidar
// streams its point cloud at). The Wren's RS485 line is a data line at the point-cloud rate, its
// UART line a command line at the UART rate.
//
// setNeedRecv(true), the default, drains the line on a background thread and counts the bytes, so
// a stream nobody decodes never fills the kernel's buffer; with false the bytes stay for
// Receive(). Both settings take effect at the next Open().
//
// Threads: Send, Receive and DiscardInput are called by one thread at a time (the serial client's
// query lock); Close, IsOpen, BytesReceived and LastError may be called from any thread. Close
// wakes a thread blocked in Send or Receive at once.

#include <sys/stat.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace lidar {

class SerialSource {
  public:
    enum class ReceiveStatus {
        kData,       // `received` bytes are in the buffer
        kClosed,     // the line hung up (a cable pulled, an adapter gone, the far end closed)
        kTimeout,    // nothing arrived in time
        kCancelled,  // Close() was called on this side
        kError,      // not open, drained in the background, or a read error
    };

    SerialSource(std::string device, int lineRate, int secondRate);
    ~SerialSource();
    SerialSource(const SerialSource&) = delete;
    SerialSource& operator=(const SerialSource&) = delete;

    // The mode switch: true = command line at lineRate, false = data line at secondRate.
    void SetCommandMode(bool commandMode);
    bool IsCommandMode() const { return commandMode_.load(); }
    void setNeedRecv(bool needRecv);
    bool NeedRecv() const { return needRecv_.load(); }

    // Opens the device without blocking: raw 8N1, no flow control, the rate of the mode, stale
    // input dropped, the device locked (flock) against a second open by any process, root
    // included. False with LastError() set; an open source is closed and opened again.
    bool Open();
    // Reads the rate the driver set on the opened descriptor, in baud (-1: unknown). The default
    // asks the driver; a test may stand in for a driver that cannot set the asked rate. Takes
    // effect at the next Open().
    using RateReader = std::function<int(int fd)>;
    void SetRateReader(RateReader reader);
    // Tells what the opened descriptor is (fstat: its kind, and the device that tells two names
    // of one port apart): 0, or -1 with errno set. A test may stand in for a call that fails.
    // Takes effect at the next Open().
    using StatReader = std::function<int(int fd, struct stat& info)>;
    void SetStatReader(StatReader reader);
    // Open and not hung up.
    bool IsOpen() const;
    void Close();

    // Writes every byte or fails (hang-up, error, time-out, Close).
    bool Send(const uint8_t* data, size_t size, uint32_t timeoutMs);
    // Waits at most timeoutMs for bytes.
    ReceiveStatus Receive(uint8_t* buffer, size_t capacity, size_t& received, uint32_t timeoutMs);
    // Drops bytes that arrived and were not read yet.
    void DiscardInput();

    // Bytes read from the line since the source was made, by Receive and by the drain.
    uint64_t BytesReceived() const { return bytesReceived_.load(); }
    const std::string& Device() const { return device_; }
    // The rate the line is (or will be) opened at: lineRate in command mode, else secondRate.
    int Rate() const;
    // Why the last operation failed, for people ("" while nothing failed).
    std::string LastError() const;

  private:
    int OpenDevice();
    bool Configure(int fd);
    bool RateTookEffect(int fd, int rate);
    void StartDrain();
    void CloseLocked();
    void Drain(int fd, int wakeFd);
    // Waits for `events` on the line or a wake from Close; returns the line's revents, 0 on
    // time-out, -1 when woken by Close or on error.
    int WaitFor(short events, int timeoutMs);
    void MarkHungUp();
    void SetError(const std::string& text);

    const std::string device_;
    const int lineRate_;
    const int secondRate_;
    std::atomic<bool> commandMode_{false};
    std::atomic<bool> needRecv_{true};

    std::mutex lifecycleMutex_;  // one Open or Close at a time: a drain thread is never orphaned
    std::mutex ioMutex_;  // Send, Receive, DiscardInput; Close takes it to release the descriptors
    mutable std::mutex stateMutex_;  // the descriptors' lifetime against the wake, the error text
    std::atomic<int> fd_{-1};
    int wakeFd_ = -1;  // an eventfd that Close signals
    std::atomic<bool> hungUp_{false};
    std::atomic<bool> draining_{false};
    std::thread drainThread_;
    std::atomic<uint64_t> bytesReceived_{0};
    std::string lastError_;
    RateReader rateReader_;                  // under lifecycleMutex_
    StatReader statReader_;                  // under lifecycleMutex_
    std::pair<uint64_t, uint64_t> heldKey_;  // this line's entry among the devices held
};

}  // namespace lidar
