#include "sim/serial_lidar_simulator.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "device.h"
#include "pty_line.h"
#include "request_log.h"
#include "sdk/serial_frame.h"

namespace sim {
namespace {

using Clock = std::chrono::steady_clock;
using detail::Bytes;
namespace serial = lidar::serial;

// A request whose bytes stopped coming this long ago is abandoned (a client that closed its
// side halfway), so that it does not swallow the next client's request.
constexpr auto kInterByteTimeout = std::chrono::milliseconds(500);
// How long a reply may wait for room on the line before it is given up.
constexpr auto kWriteTimeout = std::chrono::milliseconds(2000);
constexpr size_t kReadRoom = 4096;

// Noise a line may carry, with a false start marker whose length is over the limit.
const Bytes kGarbage = {0x00, 0xA5, 0x13, 0xFF, 0xA5, 0x5A, 0x7F, 0xFF, 0xFF, 0xFF, 0x42, 0x0D};

}  // namespace

class SerialLidarSimulator::Impl {
  public:
    explicit Impl(Options opts) : options(std::move(opts)) {}

    bool Start(std::string* error);
    void Stop();

    Options options;
    detail::Device device;
    detail::RequestLog requests;
    std::atomic<uint64_t> pointCloudWritten{0};
    mutable std::mutex pathMutex;
    std::string rs485Path;
    std::string uartPath;

  private:
    void Serve();
    void ReadRequests(Clock::time_point now);
    void HandleRequest(const serial::Frame& request);
    void Reply(const Bytes& frame, const Fault& fault);
    void HangUpUart();
    void WriteTrickle();
    void DiscardRs485Input();
    // Writes every byte unless the line stays full for kWriteTimeout or Stop comes.
    bool WriteAll(int fd, const uint8_t* data, size_t size);
    bool SleepUnlessStopped(int ms);

    detail::PtyLine rs485_;
    detail::PtyLine uart_;  // used by the serving thread only once it runs
    serial::FrameDecoder decoder_;
    Clock::time_point lastByte_;
    uint32_t trickleSequence_ = 0;
    int wakeFds_[2] = {-1, -1};
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopping_{false};
};

bool SerialLidarSimulator::Impl::Start(std::string* error) {
    if (running_.load()) {
        if (error) *error = "simulator already running";
        return false;
    }
    if (!device.Load(options.model, options.configDir, error)) return false;
    if (!rs485_.Open(error) || !uart_.Open(error)) {
        rs485_.Close();
        uart_.Close();
        return false;
    }
    if (::pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error) *error = std::string("pipe: ") + std::strerror(errno);
        rs485_.Close();
        uart_.Close();
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(pathMutex);
        rs485Path = rs485_.Path();
        uartPath = uart_.Path();
    }
    stopping_.store(false);
    running_.store(true);
    thread_ = std::thread([this] { Serve(); });
    return true;
}

void SerialLidarSimulator::Impl::Stop() {
    if (!running_.exchange(false)) return;
    stopping_.store(true);
    const char wake = 's';
    [[maybe_unused]] const ssize_t written = ::write(wakeFds_[1], &wake, 1);
    thread_.join();
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
    wakeFds_[0] = wakeFds_[1] = -1;
    rs485_.Close();
    uart_.Close();
}

// One thread serves both lines: requests on the UART line as they come, the point-cloud trickle
// on the RS485 line between them.
void SerialLidarSimulator::Impl::Serve() {
    const auto interval = std::chrono::milliseconds(std::max(1, options.pointCloudIntervalMs));
    auto nextTrickle = Clock::now();
    while (!stopping_.load()) {
        const auto now = Clock::now();
        if (now >= nextTrickle) {
            WriteTrickle();
            nextTrickle = now + interval;
        }
        if (decoder_.Buffered() > 0 && now - lastByte_ > kInterByteTimeout) decoder_.Reset();
        const auto wait = std::chrono::ceil<std::chrono::milliseconds>(nextTrickle - now);
        pollfd fds[3] = {
            {uart_.Master(), POLLIN, 0}, {rs485_.Master(), POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
        if (::poll(fds, 3, static_cast<int>(std::max<int64_t>(wait.count(), 0))) <= 0) continue;
        if (fds[2].revents != 0) break;
        if (fds[1].revents & POLLIN) DiscardRs485Input();
        if (fds[0].revents & POLLIN) ReadRequests(Clock::now());
        // Hang-ups of the master side last only while the line is being replaced.
        if ((fds[0].revents | fds[1].revents) & (POLLHUP | POLLERR)) SleepUnlessStopped(20);
    }
}

void SerialLidarSimulator::Impl::ReadRequests(Clock::time_point now) {
    uint8_t buffer[kReadRoom];
    const ssize_t got = ::read(uart_.Master(), buffer, sizeof buffer);
    if (got <= 0) return;
    lastByte_ = now;
    decoder_.Feed(buffer, static_cast<size_t>(got));
    serial::Frame request;
    while (!stopping_.load() && decoder_.Next(request)) HandleRequest(request);
}

void SerialLidarSimulator::Impl::HandleRequest(const serial::Frame& request) {
    const Fault fault = requests.Received(request.code);
    if (fault.kind == Fault::Kind::kStatus) {
        Reply(serial::EncodeFrame(request.code, fault.status, {}), Fault{});
        return;
    }
    if (fault.kind == Fault::Kind::kDelay && !SleepUnlessStopped(fault.delayMs)) return;
    const detail::SerialReply answer = device.Serial().Handle(request.code, request.payload);
    Reply(serial::EncodeFrame(request.code, answer.status, answer.payload), fault);
}

void SerialLidarSimulator::Impl::Reply(const Bytes& frame, const Fault& fault) {
    const int fd = uart_.Master();
    switch (fault.kind) {
        case Fault::Kind::kNoReply:
            return;
        case Fault::Kind::kGarbageBeforeReply:
            if (WriteAll(fd, kGarbage.data(), kGarbage.size()))
                WriteAll(fd, frame.data(), frame.size());
            return;
        case Fault::Kind::kBadCrc: {
            Bytes damaged = frame;
            damaged.back() ^= 0x5A;
            WriteAll(fd, damaged.data(), damaged.size());
            return;
        }
        case Fault::Kind::kCloseMidReply:
            WriteAll(fd, frame.data(), frame.size() / 2);
            // Let the half reply reach the client before the line drops.
            SleepUnlessStopped(50);
            HangUpUart();
            return;
        default:
            WriteAll(fd, frame.data(), frame.size());
            return;
    }
}

void SerialLidarSimulator::Impl::HangUpUart() {
    decoder_.Reset();
    std::string error;
    if (!uart_.HangUp(&error)) {
        stopping_.store(true);  // no line left to serve
        return;
    }
    std::lock_guard<std::mutex> lock(pathMutex);
    uartPath = uart_.Path();
}

// A point-cloud packet: a marker, a sequence number and filler. Nobody decodes it; a full line
// (nobody reading) drops what does not fit, as a device streaming into a closed port would.
void SerialLidarSimulator::Impl::WriteTrickle() {
    Bytes packet(options.pointCloudBytes);
    for (size_t i = 0; i < packet.size(); ++i) {
        packet[i] = static_cast<uint8_t>(i * 13 + trickleSequence_);
    }
    if (packet.size() >= 6) {
        packet[0] = 0xEE;
        packet[1] = 0xFF;
        for (int b = 0; b < 4; ++b)
            packet[2 + b] = static_cast<uint8_t>(trickleSequence_ >> (8 * b));
    }
    ++trickleSequence_;
    const ssize_t written = ::write(rs485_.Master(), packet.data(), packet.size());
    if (written > 0) pointCloudWritten.fetch_add(static_cast<uint64_t>(written));
}

void SerialLidarSimulator::Impl::DiscardRs485Input() {
    uint8_t buffer[kReadRoom];
    while (::read(rs485_.Master(), buffer, sizeof buffer) > 0) {
    }
}

bool SerialLidarSimulator::Impl::WriteAll(int fd, const uint8_t* data, size_t size) {
    const auto deadline = Clock::now() + kWriteTimeout;
    while (size > 0 && !stopping_.load()) {
        const ssize_t written = ::write(fd, data, size);
        if (written > 0) {
            data += written;
            size -= static_cast<size_t>(written);
            continue;
        }
        if (written < 0 && errno != EAGAIN && errno != EINTR) return false;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return false;
        pollfd fds[2] = {{fd, POLLOUT, 0}, {wakeFds_[0], POLLIN, 0}};
        ::poll(fds, 2, static_cast<int>(left.count()));
        if (fds[1].revents != 0) return false;
    }
    return size == 0;
}

bool SerialLidarSimulator::Impl::SleepUnlessStopped(int ms) {
    pollfd wake{wakeFds_[0], POLLIN, 0};
    return ::poll(&wake, 1, ms) == 0 && !stopping_.load();
}

// ---- public interface ------------------------------------------------------------------------

SerialLidarSimulator::SerialLidarSimulator(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

SerialLidarSimulator::~SerialLidarSimulator() {
    Stop();
}

bool SerialLidarSimulator::Start(std::string* error) {
    return impl_->Start(error);
}

void SerialLidarSimulator::Stop() {
    impl_->Stop();
}

std::string SerialLidarSimulator::Rs485Path() const {
    std::lock_guard<std::mutex> lock(impl_->pathMutex);
    return impl_->rs485Path;
}

std::string SerialLidarSimulator::UartPath() const {
    std::lock_guard<std::mutex> lock(impl_->pathMutex);
    return impl_->uartPath;
}

uint64_t SerialLidarSimulator::RequestCount(uint8_t code) const {
    return impl_->requests.Count(code);
}

std::map<uint8_t, uint64_t> SerialLidarSimulator::RequestCounts() const {
    return impl_->requests.Counts();
}

void SerialLidarSimulator::ResetCounters() {
    impl_->requests.ResetCounts();
}

void SerialLidarSimulator::SetFault(uint8_t code, Fault fault) {
    impl_->requests.SetFault(code, fault);
}

void SerialLidarSimulator::ClearFaults() {
    impl_->requests.ClearFaults();
}

SerialState SerialLidarSimulator::GetState() const {
    return impl_->device.Serial().State();
}

void SerialLidarSimulator::SetFaultState(uint8_t state, const std::vector<uint16_t>& codes) {
    impl_->device.Serial().SetFaultState(state, codes);
}

std::vector<Transfer> SerialLidarSimulator::Transfers() const {
    return impl_->device.Serial().Transfers();
}

std::vector<uint8_t> SerialLidarSimulator::Block(uint8_t code,
                                                 const std::vector<uint8_t>& payload) const {
    return impl_->device.Blocks().Peek(code, payload);
}

uint64_t SerialLidarSimulator::PointCloudBytesWritten() const {
    return impl_->pointCloudWritten.load();
}

}  // namespace sim
