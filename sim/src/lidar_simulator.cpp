#include "sim/lidar_simulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <list>
#include <mutex>
#include <optional>
#include <thread>

#include "device.h"
#include "identity.h"
#include "request_log.h"
#include "sdk/vrc_frame.h"

namespace sim {
namespace {

namespace vrc = lidar::vrc;
using detail::Bytes;
using Clock = std::chrono::steady_clock;

bool SendAll(int fd, const uint8_t* data, size_t size) {
    while (size > 0) {
        const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        data += sent;
        size -= static_cast<size_t>(sent);
    }
    return true;
}

bool SendAll(int fd, const Bytes& bytes) {
    return SendAll(fd, bytes.data(), bytes.size());
}

std::string SystemError(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

}  // namespace

namespace detail {

struct Connection {
    int fd = -1;  // written under the simulator's connection lock; only the owner closes it
    std::thread thread;
    std::atomic<bool> finished{false};
    Session session;  // touched only by the connection's own thread
};

}  // namespace detail

using detail::Connection;

class LidarSimulator::Impl {
  public:
    explicit Impl(Options opts) : options(std::move(opts)) {}

    bool Start(std::string* error);
    void Stop();

    Options options;
    detail::Device device;
    std::atomic<uint16_t> port{0};
    detail::RequestLog requests;
    std::atomic<uint16_t> lastClientPort{0};
    std::atomic<int> connectionCount{0};

  private:
    bool OpenListener(std::string* error);
    void CloseListener();
    void AcceptLoop();
    bool WaitForWake(int timeoutMs);
    void SitOutDowntime();
    void Launch(int fd);
    void ReapFinished();
    void ShutdownAllConnections();
    void CloseConnection(Connection& conn);

    void Serve(Connection& conn);
    bool HandleRequest(Connection& conn, const vrc::Frame& request);
    bool SendReply(int fd, uint8_t command, const detail::Reply& reply, const Fault& fault);
    std::optional<bool> ApplyTransferFault(Connection& conn, const vrc::Frame& request,
                                           const Fault& fault);
    bool Refuse(Connection& conn, const vrc::Frame& request, uint8_t status);
    bool SleepUnlessStopped(int ms);
    void BeginDowntime();
    bool InDowntime() const;

    int listenFd_ = -1;
    int wakeFds_[2] = {-1, -1};
    std::thread acceptThread_;
    std::atomic<bool> running_{false};
    std::atomic<bool> stopping_{false};
    std::atomic<int64_t> downUntil_{0};  // steady-clock ticks
    std::mutex stopMutex_;
    std::condition_variable stopCv_;
    std::mutex connMutex_;
    std::list<std::unique_ptr<Connection>> connections_;
};

// ---- lifecycle -------------------------------------------------------------------------------

bool LidarSimulator::Impl::Start(std::string* error) {
    if (running_.load()) {
        if (error) *error = "simulator already running";
        return false;
    }
    device.SetMonitorSeed(options.monitorSeed);
    if (options.identityIndex < -1 || options.identityIndex > detail::kMaxIdentityIndex) {
        if (error) *error = "the identity index must be from 0 to 255 (or -1, the catalogue's)";
        return false;
    }
    device.SetIdentityIndex(options.identityIndex);
    if (options.partition != 'A' && options.partition != 'B') {
        if (error) *error = "the running partition must be A or B";
        return false;
    }
    if (!device.Load(options.model, options.configDir, error)) return false;
    device.Heron().SetRunningPartition(options.partition == 'A' ? 0 : 1);
    device.SetRequiredToken(options.requiredToken);
    device.SetLogBytes(options.logBytes);
    if (options.chaosSeed) requests.SetChaos(Chaos(*options.chaosSeed));
    if (::pipe2(wakeFds_, O_CLOEXEC | O_NONBLOCK) != 0) {
        if (error) *error = SystemError("pipe");
        return false;
    }
    port.store(options.port);
    if (!OpenListener(error)) {
        ::close(wakeFds_[0]);
        ::close(wakeFds_[1]);
        wakeFds_[0] = wakeFds_[1] = -1;
        return false;
    }
    downUntil_.store(0);
    {
        std::lock_guard<std::mutex> lock(stopMutex_);
        stopping_.store(false);
    }
    running_.store(true);
    acceptThread_ = std::thread([this] { AcceptLoop(); });
    return true;
}

void LidarSimulator::Impl::Stop() {
    if (!running_.exchange(false)) return;
    {
        std::lock_guard<std::mutex> lock(stopMutex_);
        stopping_.store(true);
    }
    stopCv_.notify_all();
    const char wake = 's';
    [[maybe_unused]] ssize_t ignored = ::write(wakeFds_[1], &wake, 1);
    acceptThread_.join();
    CloseListener();

    ShutdownAllConnections();
    std::list<std::unique_ptr<Connection>> remaining;
    {
        std::lock_guard<std::mutex> lock(connMutex_);
        remaining.swap(connections_);
    }
    for (auto& conn : remaining) conn->thread.join();
    // Last: a connection thread handling a restart writes to the pipe until it ends.
    ::close(wakeFds_[0]);
    ::close(wakeFds_[1]);
    wakeFds_[0] = wakeFds_[1] = -1;
}

bool LidarSimulator::Impl::OpenListener(std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        if (listenFd_ >= 0) ::close(listenFd_);
        listenFd_ = -1;
        return false;
    };
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port.load());
    if (::inet_pton(AF_INET, options.bindAddress.c_str(), &address.sin_addr) != 1) {
        return fail("bind address is not an IPv4 address: " + options.bindAddress);
    }
    listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listenFd_ < 0) return fail(SystemError("socket"));
    const int on = 1;
    ::setsockopt(listenFd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        return fail(SystemError("bind " + options.bindAddress + ":" + std::to_string(port.load())));
    }
    if (::listen(listenFd_, 16) != 0) return fail(SystemError("listen"));
    socklen_t length = sizeof address;
    if (::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return fail(SystemError("getsockname"));
    }
    port.store(ntohs(address.sin_port));
    return true;
}

void LidarSimulator::Impl::CloseListener() {
    if (listenFd_ >= 0) ::close(listenFd_);
    listenFd_ = -1;
}

// ---- accepting -------------------------------------------------------------------------------

// Waits for the wake pipe (stop or reboot) for at most timeoutMs (-1: no limit); true when woken.
bool LidarSimulator::Impl::WaitForWake(int timeoutMs) {
    pollfd wake{wakeFds_[0], POLLIN, 0};
    if (::poll(&wake, 1, timeoutMs) <= 0) return false;
    char drain[16];
    while (::read(wakeFds_[0], drain, sizeof drain) > 0) {
    }
    return true;
}

void LidarSimulator::Impl::AcceptLoop() {
    while (!stopping_.load()) {
        if (InDowntime()) {
            SitOutDowntime();
            continue;
        }
        pollfd fds[2] = {{listenFd_, POLLIN, 0}, {wakeFds_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) continue;
        if (fds[1].revents) WaitForWake(0);
        if (!(fds[0].revents & POLLIN)) continue;
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        const int fd =
            ::accept4(listenFd_, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ReapFinished();
        if (InDowntime() || stopping_.load()) {  // came in just before the reboot took effect
            ::close(fd);
            continue;
        }
        lastClientPort.store(ntohs(peer.sin_port));
        connectionCount.fetch_add(1);
        Launch(fd);
    }
}

// A rebooting device is unreachable: the listener goes away (connection attempts are refused)
// and comes back on the same port when the downtime is over.
void LidarSimulator::Impl::SitOutDowntime() {
    CloseListener();
    while (!stopping_.load()) {
        const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
            Clock::duration(downUntil_.load()) - Clock::now().time_since_epoch());
        if (remaining.count() > 0) {
            WaitForWake(static_cast<int>(remaining.count()) + 1);
            continue;
        }
        if (OpenListener(nullptr)) return;
        WaitForWake(100);  // the port is briefly taken: try again
    }
}

void LidarSimulator::Impl::Launch(int fd) {
    const int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    auto conn = std::make_unique<Connection>();
    conn->fd = fd;
    Connection* raw = conn.get();
    std::lock_guard<std::mutex> lock(connMutex_);
    connections_.push_back(std::move(conn));
    raw->thread = std::thread([this, raw] {
        Serve(*raw);
        raw->finished.store(true);
    });
}

void LidarSimulator::Impl::ReapFinished() {
    std::list<std::unique_ptr<Connection>> done;
    {
        std::lock_guard<std::mutex> lock(connMutex_);
        for (auto it = connections_.begin(); it != connections_.end();) {
            auto next = std::next(it);
            if ((*it)->finished.load()) done.splice(done.end(), connections_, it);
            it = next;
        }
    }
    for (auto& conn : done) conn->thread.join();
}

// Wakes every connection thread out of its receive; each closes its own socket.
void LidarSimulator::Impl::ShutdownAllConnections() {
    std::lock_guard<std::mutex> lock(connMutex_);
    for (auto& conn : connections_) {
        if (conn->fd >= 0) ::shutdown(conn->fd, SHUT_RDWR);
    }
}

void LidarSimulator::Impl::CloseConnection(Connection& conn) {
    std::lock_guard<std::mutex> lock(connMutex_);
    ::close(conn.fd);
    conn.fd = -1;
}

void LidarSimulator::Impl::BeginDowntime() {
    const auto until = Clock::now() + std::chrono::milliseconds(options.restartDowntimeMs);
    downUntil_.store(until.time_since_epoch().count());
    const char wake = 'r';
    [[maybe_unused]] ssize_t ignored = ::write(wakeFds_[1], &wake, 1);
}

bool LidarSimulator::Impl::InDowntime() const {
    return Clock::now().time_since_epoch().count() < downUntil_.load();
}

// ---- serving one client ----------------------------------------------------------------------

void LidarSimulator::Impl::Serve(Connection& conn) {
    vrc::FrameDecoder decoder;
    constexpr size_t kReceiveRoom = 64 * 1024 + 64;  // a whole firmware chunk with its header
    bool open = true;
    while (open && !stopping_.load()) {
        // Straight into the decoder's buffer: a 64 KiB chunk is not copied on its way in.
        const ssize_t received = ::recv(conn.fd, decoder.Space(kReceiveRoom), kReceiveRoom, 0);
        decoder.Commit(received > 0 ? static_cast<size_t>(received) : 0);
        if (received < 0 && errno == EINTR) continue;
        if (received <= 0) break;
        vrc::Frame request;
        while (open) {
            const vrc::FrameDecoder::Result result = decoder.Next(request);
            if (result == vrc::FrameDecoder::Result::kNeedMore) break;
            // A malformed request ends this client's connection, nobody else's.
            open = result == vrc::FrameDecoder::Result::kFrame && HandleRequest(conn, request);
        }
    }
    CloseConnection(conn);
}

// Returns whether the connection stays open.
bool LidarSimulator::Impl::HandleRequest(Connection& conn, const vrc::Frame& request) {
    const Fault fault = requests.Received(request.command);
    if (fault.kind == Fault::Kind::kStatus) return Refuse(conn, request, fault.status);
    if (fault.kind == Fault::Kind::kDrop) return false;
    // Any fault may also be slow: its reply waits delayMs first.
    if (fault.delayMs > 0 && !SleepUnlessStopped(fault.delayMs)) return false;
    if (const std::optional<bool> faulted = ApplyTransferFault(conn, request, fault))
        return *faulted;
    const detail::Reply reply = device.Handle(request, conn.session);
    const bool open = !reply.send || SendReply(conn.fd, request.command, reply, fault);
    device.AfterReply(conn.session);
    switch (reply.after) {
        case detail::Reply::After::kNothing:
            return open;
        case detail::Reply::After::kCloseConnection:
            return false;
        case detail::Reply::After::kReboot:
            BeginDowntime();
            ShutdownAllConnections();
            return false;
    }
    return false;
}

bool LidarSimulator::Impl::SendReply(int fd, uint8_t command, const detail::Reply& reply,
                                     const Fault& fault) {
    Bytes frame = vrc::EncodeFrame(command, reply.status, reply.payload);
    switch (fault.kind) {
        case Fault::Kind::kNoReply:
            return true;
        case Fault::Kind::kCloseMidReply:
            SendAll(fd, frame.data(), frame.size() / 2);
            return false;
        case Fault::Kind::kBadMagic:
            frame[0] = 'X';
            frame[1] = 'X';
            return SendAll(fd, frame);
        case Fault::Kind::kOversizedLength:
            return SendAll(fd, vrc::EncodeHeader(command, reply.status, vrc::kMaxPayload + 1));
        case Fault::Kind::kWrongEcho:
            frame[2] = static_cast<uint8_t>(command + 1);
            return SendAll(fd, frame);
        default:
            return SendAll(fd, frame);
    }
}

// The transfer faults act on one phase of a transfer; nullopt lets the device answer.
std::optional<bool> LidarSimulator::Impl::ApplyTransferFault(Connection& conn,
                                                             const vrc::Frame& request,
                                                             const Fault& fault) {
    using Phase = detail::UpgradeReceiver::Phase;
    const Phase phase = detail::UpgradeReceiver::PhaseOf(request.payload);
    const int chunk = conn.session.upgrade.Current().chunks + 1;
    switch (fault.kind) {
        case Fault::Kind::kDropAfterChunks:
            if (phase == Phase::kData && chunk > fault.count) return false;
            break;
        case Fault::Kind::kFailChunk:
            if (phase == Phase::kData && chunk == fault.count)
                return SendAll(conn.fd, vrc::EncodeFrame(request.command, fault.status, {}));
            break;
        case Fault::Kind::kCrcMismatch:
            if (phase == Phase::kEnd)
                return SendAll(conn.fd,
                               vrc::EncodeFrame(request.command, vrc::kStatusBadPayload, {}));
            break;
        case Fault::Kind::kRefuseComponent:
            if (phase == Phase::kBegin &&
                device.Heron().ComponentsSinceUpgradeMode() + 1 == fault.count)
                return Refuse(conn, request, fault.status);
            break;
        case Fault::Kind::kRefuseComponentType:
            if (phase == Phase::kBegin && request.payload.size() >= 2 &&
                request.payload[1] == fault.count)
                return Refuse(conn, request, fault.status);
            break;
        default:
            break;
    }
    return std::nullopt;
}

// The request is answered with `status` alone and not carried out; a refused component is kept
// for the report.
bool LidarSimulator::Impl::Refuse(Connection& conn, const vrc::Frame& request, uint8_t status) {
    device.RecordRefusedComponent(request.command, request.payload, status);
    return SendAll(conn.fd, vrc::EncodeFrame(request.command, status, {}));
}

bool LidarSimulator::Impl::SleepUnlessStopped(int ms) {
    std::unique_lock<std::mutex> lock(stopMutex_);
    return !stopCv_.wait_for(lock, std::chrono::milliseconds(ms),
                             [this] { return stopping_.load(); });
}

// ---- public interface ------------------------------------------------------------------------

LidarSimulator::LidarSimulator(Options options)
    : impl_(std::make_unique<Impl>(std::move(options))) {}

LidarSimulator::~LidarSimulator() {
    Stop();
}

bool LidarSimulator::Start(std::string* error) {
    return impl_->Start(error);
}

void LidarSimulator::Stop() {
    impl_->Stop();
}

uint16_t LidarSimulator::Port() const {
    return impl_->port.load();
}

const LidarSimulator::Options& LidarSimulator::GetOptions() const {
    return impl_->options;
}

uint64_t LidarSimulator::RequestCount(uint8_t command) const {
    return impl_->requests.Count(command);
}

std::map<uint8_t, uint64_t> LidarSimulator::RequestCounts() const {
    return impl_->requests.Counts();
}

void LidarSimulator::ResetCounters() {
    impl_->requests.ResetCounts();
}

void LidarSimulator::SetFault(uint8_t command, Fault fault) {
    impl_->requests.SetFault(command, fault);
}

void LidarSimulator::ClearFaults() {
    impl_->requests.ClearFaults();
}

ChaosTally LidarSimulator::ChaosPlayed() const {
    return impl_->requests.ChaosPlayed();
}

std::vector<uint8_t> LidarSimulator::Block(uint8_t command,
                                           const std::vector<uint8_t>& payload) const {
    return impl_->device.Blocks().Peek(command, payload);
}

void LidarSimulator::WriteBlock(uint8_t command, const std::vector<uint8_t>& payload, size_t offset,
                                const std::vector<uint8_t>& bytes) {
    impl_->device.Blocks().Write(command, payload, offset, bytes);
}

std::vector<Transfer> LidarSimulator::Transfers() const {
    return impl_->device.Transfers();
}

bool LidarSimulator::RebootPending() const {
    return impl_->device.RebootPending();
}

std::vector<uint8_t> LidarSimulator::LogContent(const std::vector<uint8_t>& request) const {
    return impl_->device.LogContent(request);
}

SerialState LidarSimulator::GetSerialState() const {
    return impl_->device.Serial().State();
}

void LidarSimulator::SetSerialFaultState(uint8_t state, const std::vector<uint16_t>& codes) {
    impl_->device.Serial().SetFaultState(state, codes);
}

void LidarSimulator::ReplaceBlock(uint8_t command, const std::vector<uint8_t>& payload,
                                  const std::vector<uint8_t>& block) {
    impl_->device.Blocks().Replace(command, payload, block);
}

std::vector<Component> LidarSimulator::Components() const {
    return impl_->device.Heron().Components();
}

char LidarSimulator::RunningPartition() const {
    return impl_->device.Heron().RunningPartition() == 0 ? 'A' : 'B';
}

void LidarSimulator::SetRunningPartitionByte(uint8_t partition) {
    impl_->device.Heron().SetRunningPartition(partition);
}

uint16_t LidarSimulator::LastClientPort() const {
    return impl_->lastClientPort.load();
}

int LidarSimulator::ConnectionCount() const {
    return impl_->connectionCount.load();
}

}  // namespace sim
