#pragma once

// A TCP byte stream with time-outs on every operation (POSIX sockets, non-blocking underneath).
// Send, Receive and Close are called by one thread at a time (VrcClient's query lock);
// Shutdown, IsOpen and LastError may be called from any thread.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>

namespace lidar {

class SocketSource {
  public:
    enum class ReceiveStatus { kData, kClosed, kTimeout, kError };

    SocketSource() = default;
    ~SocketSource();
    SocketSource(const SocketSource&) = delete;
    SocketSource& operator=(const SocketSource&) = delete;

    // Connects within timeoutMs. A non-zero localPort is bound first. False with LastError set.
    // `cancelled`, when given, is asked every few tens of milliseconds while the connection is
    // being set up; true abandons the attempt ("connection attempt cancelled").
    bool Connect(const std::string& host, uint16_t port, uint32_t timeoutMs, uint16_t localPort = 0,
                 const std::function<bool()>& cancelled = {});
    // Sends every byte or fails; false on error or when timeoutMs passes first.
    bool Send(const uint8_t* data, size_t size, uint32_t timeoutMs);
    // Waits at most timeoutMs for bytes; kData sets received (> 0).
    ReceiveStatus Receive(uint8_t* buffer, size_t capacity, size_t& received, uint32_t timeoutMs);
    // Stops both directions without releasing the descriptor: wakes a thread waiting in Receive.
    void Shutdown();
    void Close();
    bool IsOpen() const { return fd_.load() >= 0; }
    // The local port of the open connection, 0 when closed.
    uint16_t LocalPort() const;
    // The last failure, for people ("" while nothing failed).
    std::string LastError() const;

  private:
    int ConnectOne(const void* address, unsigned addressLength, int family, uint32_t timeoutMs,
                   uint16_t localPort, const std::function<bool()>& cancelled, std::string& why);
    void SetError(const std::string& text);

    std::atomic<int> fd_{-1};
    mutable std::mutex errorMutex_;
    std::string lastError_;
};

}  // namespace lidar
