#include "sdk/socket_source.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>

namespace lidar {
namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point DeadlineAfter(uint32_t timeoutMs) {
    return Clock::now() + std::chrono::milliseconds(timeoutMs);
}

// Milliseconds left until deadline, rounded up so that a poll never returns before it.
int RemainingMs(Clock::time_point deadline) {
    const auto left = deadline - Clock::now();
    if (left <= Clock::duration::zero()) return 0;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(left).count();
    return static_cast<int>(std::min<long long>(ms, INT_MAX));
}

// Waits for events on fd until deadline; returns poll's revents, 0 on time-out, -1 on error.
int WaitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, RemainingMs(deadline));
        if (ready > 0) return entry.revents;
        if (ready == 0) return 0;
        if (errno != EINTR) return -1;
    }
}

std::string ErrnoText(int error) {
    switch (error) {
        case ECONNREFUSED:
            return "connection refused";
        case ETIMEDOUT:
            return "timed out";
        case EHOSTUNREACH:
            return "host unreachable";
        case ENETUNREACH:
            return "network unreachable";
        case ECONNRESET:
            return "connection reset by peer";
        case EPIPE:
            return "connection closed by peer";
        case ECANCELED:
            return "connection attempt cancelled";
        default:
            return std::strerror(error);
    }
}

std::string LocalPortInUse(uint16_t localPort) {
    return "local port " + std::to_string(localPort) + " is in use";
}

bool BindLocalPort(int fd, int family, uint16_t localPort, std::string& why) {
    const int on = 1;
    ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_storage local{};
    socklen_t length = 0;
    if (family == AF_INET6) {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&local);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_any;
        v6->sin6_port = htons(localPort);
        length = sizeof(sockaddr_in6);
    } else {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&local);
        v4->sin_family = AF_INET;
        v4->sin_addr.s_addr = htonl(INADDR_ANY);
        v4->sin_port = htons(localPort);
        length = sizeof(sockaddr_in);
    }
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), length) == 0) return true;
    why = errno == EADDRINUSE
              ? LocalPortInUse(localPort)
              : "cannot bind local port " + std::to_string(localPort) + ": " + ErrnoText(errno);
    return false;
}

// How often a connect in progress asks whether it is still wanted.
constexpr auto kCancelPollSlice = std::chrono::milliseconds(20);

// The connect's own error once the socket is writable (or the time-out as ETIMEDOUT, a
// cancellation as ECANCELED).
int FinishConnect(int fd, uint32_t timeoutMs, const std::function<bool()>& cancelled) {
    const auto deadline = DeadlineAfter(timeoutMs);
    int events = 0;
    for (;;) {
        if (cancelled && cancelled()) return ECANCELED;
        const auto slice = std::min(deadline, Clock::now() + kCancelPollSlice);
        events = WaitFor(fd, POLLOUT, cancelled ? slice : deadline);
        if (events != 0 || Clock::now() >= deadline) break;
    }
    if (events == 0) return ETIMEDOUT;
    if (events < 0) return errno;
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
    return error;
}

}  // namespace

SocketSource::~SocketSource() {
    Close();
}

int SocketSource::ConnectOne(const void* address, unsigned addressLength, int family,
                             uint32_t timeoutMs, uint16_t localPort,
                             const std::function<bool()>& cancelled, std::string& why) {
    const int fd = ::socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        why = ErrnoText(errno);
        return -1;
    }
    if (localPort != 0 && !BindLocalPort(fd, family, localPort, why)) {
        ::close(fd);
        return -1;
    }
    int error = 0;
    if (::connect(fd, static_cast<const sockaddr*>(address), addressLength) != 0) {
        error = errno == EINPROGRESS ? FinishConnect(fd, timeoutMs, cancelled) : errno;
    }
    if (error != 0) {
        // The four-tuple of a bound local port can clash with a live connection only at connect.
        const bool tupleTaken = localPort != 0 && (error == EADDRINUSE || error == EADDRNOTAVAIL);
        why = tupleTaken ? LocalPortInUse(localPort) : ErrnoText(error);
        ::close(fd);
        return -1;
    }
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return fd;
}

bool SocketSource::Connect(const std::string& host, uint16_t port, uint32_t timeoutMs,
                           uint16_t localPort, const std::function<bool()>& cancelled) {
    Close();
    const std::string target = host + ":" + std::to_string(port);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int resolved = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (resolved != 0) {
        SetError("cannot resolve host " + host + ": " + ::gai_strerror(resolved));
        return false;
    }
    std::string why = "no address";
    int fd = -1;
    for (addrinfo* entry = found; entry != nullptr && fd < 0; entry = entry->ai_next) {
        fd = ConnectOne(entry->ai_addr, entry->ai_addrlen, entry->ai_family, timeoutMs, localPort,
                        cancelled, why);
    }
    ::freeaddrinfo(found);
    if (fd < 0) {
        SetError("cannot connect to " + target + ": " + why);
        return false;
    }
    SetError("");
    fd_.store(fd);
    return true;
}

bool SocketSource::Send(const uint8_t* data, size_t size, uint32_t timeoutMs) {
    const int fd = fd_.load();
    if (fd < 0) {
        SetError("not connected");
        return false;
    }
    const auto deadline = DeadlineAfter(timeoutMs);
    size_t sent = 0;
    while (sent < size) {
        const ssize_t written = ::send(fd, data + sent, size - sent, MSG_NOSIGNAL);
        if (written > 0) {
            sent += static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno == EINTR) continue;
        if (written < 0 && errno != EAGAIN && errno != EWOULDBLOCK) {
            SetError("send failed: " + ErrnoText(errno));
            return false;
        }
        const int events = WaitFor(fd, POLLOUT, deadline);
        if (events == 0) {
            SetError("send timed out");
            return false;
        }
        if (events < 0) {
            SetError("send failed: " + ErrnoText(errno));
            return false;
        }
    }
    return true;
}

SocketSource::ReceiveStatus SocketSource::Receive(uint8_t* buffer, size_t capacity,
                                                  size_t& received, uint32_t timeoutMs) {
    received = 0;
    const int fd = fd_.load();
    if (fd < 0) {
        SetError("not connected");
        return ReceiveStatus::kError;
    }
    const auto deadline = DeadlineAfter(timeoutMs);
    for (;;) {
        const ssize_t got = ::recv(fd, buffer, capacity, 0);
        if (got > 0) {
            received = static_cast<size_t>(got);
            return ReceiveStatus::kData;
        }
        if (got == 0) {
            SetError("connection closed by peer");
            return ReceiveStatus::kClosed;
        }
        if (errno == EINTR) continue;
        if (errno == ECONNRESET) {
            SetError(ErrnoText(errno));
            return ReceiveStatus::kClosed;
        }
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            SetError("receive failed: " + ErrnoText(errno));
            return ReceiveStatus::kError;
        }
        const int events = WaitFor(fd, POLLIN, deadline);
        if (events == 0) {
            SetError("timed out");
            return ReceiveStatus::kTimeout;
        }
        if (events < 0) {
            SetError("receive failed: " + ErrnoText(errno));
            return ReceiveStatus::kError;
        }
    }
}

void SocketSource::Shutdown() {
    const int fd = fd_.load();
    if (fd >= 0) ::shutdown(fd, SHUT_RDWR);
}

void SocketSource::Close() {
    const int fd = fd_.exchange(-1);
    if (fd >= 0) ::close(fd);
}

uint16_t SocketSource::LocalPort() const {
    const int fd = fd_.load();
    if (fd < 0) return 0;
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &length) != 0) return 0;
    if (local.ss_family == AF_INET6) {
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&local)->sin6_port);
    }
    return ntohs(reinterpret_cast<const sockaddr_in*>(&local)->sin_port);
}

std::string SocketSource::LastError() const {
    std::lock_guard<std::mutex> lock(errorMutex_);
    return lastError_;
}

void SocketSource::SetError(const std::string& text) {
    std::lock_guard<std::mutex> lock(errorMutex_);
    lastError_ = text;
}

}  // namespace lidar
