#pragma once

// The simulator over loopback TCP for the sim tests: raw sockets and the shared VRC framing, so
// that what it puts on the wire is seen byte for byte.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "sdk/vrc_frame.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace simtest {

using Bytes = std::vector<uint8_t>;
namespace vrc = lidar::vrc;

inline Bytes Hex(const std::string& digits) {
    Bytes out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

inline Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

inline Bytes Text(const std::string& text, size_t width) {
    Bytes out(text.begin(), text.end());
    out.resize(width, 0);
    return out;
}

// A client socket that reads frames with the SDK decoder, or raw bytes when a test needs them.
class RawClient {
  public:
    enum class Outcome { kFrame, kClosed, kTimeout, kMalformed };

    explicit RawClient(uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~RawClient() {
        if (fd_ >= 0) ::close(fd_);
    }

    bool connected() const { return fd_ >= 0; }

    uint16_t LocalPort() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    bool Send(const Bytes& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool SendFrame(uint8_t command, const Bytes& payload = {}) {
        return Send(vrc::EncodeFrame(command, 0, payload));
    }

    Outcome Read(vrc::Frame& frame, int timeoutMs = 5000) {
        while (true) {
            const vrc::FrameDecoder::Result result = decoder_.Next(frame);
            if (result == vrc::FrameDecoder::Result::kFrame) return Outcome::kFrame;
            if (result == vrc::FrameDecoder::Result::kMalformed) return Outcome::kMalformed;
            uint8_t buffer[4096];
            const ssize_t n = Receive(buffer, sizeof buffer, timeoutMs);
            if (n == 0) return Outcome::kClosed;
            if (n < 0) return Outcome::kTimeout;
            decoder_.Feed(buffer, static_cast<size_t>(n));
        }
    }

    // Sends a request and expects a well-formed reply.
    vrc::Frame Query(uint8_t command, const Bytes& payload = {}) {
        vrc::Frame reply;
        EXPECT_TRUE(SendFrame(command, payload));
        EXPECT_EQ(Read(reply), Outcome::kFrame) << "command " << int(command);
        return reply;
    }

    // Every byte until the peer closes (or nothing more comes within timeoutMs).
    Bytes ReadAll(bool* closed, int timeoutMs = 5000) {
        Bytes all;
        uint8_t buffer[4096];
        while (true) {
            const ssize_t n = Receive(buffer, sizeof buffer, timeoutMs);
            *closed = n == 0;
            if (n <= 0) return all;
            all.insert(all.end(), buffer, buffer + n);
        }
    }

    bool ClosedByPeer(int timeoutMs = 5000) {
        bool closed = false;
        const Bytes rest = ReadAll(&closed, timeoutMs);
        return closed && rest.empty();
    }

  private:
    // >0 bytes read, 0 closed by the peer, -1 nothing within the time-out.
    ssize_t Receive(uint8_t* buffer, size_t size, int timeoutMs) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0) return -1;
        const ssize_t n = ::recv(fd_, buffer, size, 0);
        return n < 0 ? 0 : n;  // a reset counts as closed
    }

    int fd_ = -1;
    vrc::FrameDecoder decoder_;
};

inline std::unique_ptr<sim::LidarSimulator> Start(sim::LidarSimulator::Options options) {
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    EXPECT_TRUE(simulator->Start(&error)) << error;
    return simulator;
}

inline sim::LidarSimulator::Options Shipped(const std::string& model) {
    sim::LidarSimulator::Options options;
    options.model = model;
    options.configDir = testsupport::SourceDir() + "/Config";
    return options;
}

// A device answers a request on a fresh connection.
inline bool Answers(uint16_t port) {
    RawClient client(port);
    vrc::Frame reply;
    return client.connected() && client.SendFrame(0x07) &&
           client.Read(reply, 1000) == RawClient::Outcome::kFrame;
}

inline uint64_t BigEndianValue(const Bytes& block, int start, int length) {
    uint64_t value = 0;
    for (int i = 0; i < length; ++i) value = (value << 8) | block.at(start + i);
    return value;
}

}  // namespace simtest
