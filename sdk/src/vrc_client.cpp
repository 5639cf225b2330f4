#include "sdk/vrc_client.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "client_common.h"
#include "sdk/socket_source.h"

namespace lidar {
namespace {

constexpr uint32_t kDefaultTimeoutMs = 3000;
constexpr size_t kReceiveChunk = 64 * 1024;
constexpr uint8_t kGetFov = 0x23;
constexpr uint8_t kSetFov = 0x22;
constexpr uint8_t kSetSerialBaudRate = 0xB1;
constexpr uint8_t kSerialFirmwareUpgrade = 0xB7;
constexpr uint8_t kSerialPassThrough = 0xB8;
// Transfers: the protocol's largest data chunk. One chunk is on the wire at a time (one request
// outstanding per connection); see docs/protocol.md for the figures behind the choice.
constexpr size_t kTransferChunk = 64 * 1024;
// A body at most this long is copied into the frame and sent with the header in one write.
constexpr size_t kCopiedBody = 4096;

uint32_t OrDefault(uint32_t timeoutMs) {
    return timeoutMs == 0 ? kDefaultTimeoutMs : timeoutMs;
}

using detail::CommandText;
using detail::FrameLine;

void AppendUint16(u8vec& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

uint16_t ReadUint16(const u8vec& in, size_t at) {
    return static_cast<uint16_t>((in[at] << 8) | in[at + 1]);
}

// Degrees to the wire's tenths of a degree: nearest, halves away from zero, within 0..65535.
uint16_t DegreesToTenths(float degrees) {
    if (std::isnan(degrees)) return 0;
    const double tenths = std::round(static_cast<double>(degrees) * 10.0);
    return static_cast<uint16_t>(std::clamp(tenths, 0.0, 65535.0));
}

}  // namespace

std::string DescribeVrcResult(int code) {
    static const char* const kStatus[] = {
        "", "bad payload", "unknown command", "not permitted", "busy", "device failure"};
    if (code > 0) {
        const std::string status = "the lidar answered with status " + std::to_string(code);
        return code <= 5 ? status + " (" + kStatus[code] + ")" : status;
    }
    switch (code) {
        case kVrcNotConnected:
            return "not connected (result -1)";
        case kVrcClosedByPeer:
            return "the lidar closed the connection (result -2)";
        case kVrcTimeout:
            return "no answer in time (result -3)";
        case kVrcMalformed:
            return "a malformed reply (result -4)";
        case kVrcRefused:
            return "refused by the access profile (result -5)";
        default:
            return "result " + std::to_string(code);
    }
}

VrcClient::VrcClient(std::string host, uint16_t port, bool /*autoReconnect*/, VrcMode /*mode*/,
                     uint8_t /*retries*/, std::string /*user*/, std::string /*password*/,
                     std::string /*deviceName*/, uint32_t connectTimeoutMs,
                     uint32_t receiveTimeoutMs, float /*heartbeatSeconds*/, uint16_t localPort,
                     const std::function<bool()>& cancelled)
    : host_(std::move(host)),
      port_(port),
      receiveTimeoutMs_(OrDefault(receiveTimeoutMs)),
      socket_(std::make_unique<SocketSource>()) {
    if (!socket_->Connect(host_, port_, OrDefault(connectTimeoutMs), localPort, cancelled)) {
        std::lock_guard<std::mutex> lock(stateMutex_);
        lastError_ = socket_->LastError();
        lastReturnCode_.store(kVrcNotConnected);
    }
}

VrcClient::~VrcClient() {
    Close();
}

bool VrcClient::IsOpen() const {
    return socket_->IsOpen();
}

void VrcClient::Close() {
    closedLocally_.store(true);
    {
        // Wakes a query waiting for its reply, so the query lock below is not held for long.
        std::lock_guard<std::mutex> state(stateMutex_);
        if (socket_->IsOpen()) lastError_ = "connection closed by the client";
        socket_->Shutdown();
    }
    std::lock_guard<std::mutex> query(queryMutex_);
    CloseSocket();
}

std::string VrcClient::LastError() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return lastError_;
}

uint16_t VrcClient::LocalPort() const {
    return socket_->LocalPort();
}

void VrcClient::SetLogCallback(LogCallback callback) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    logCallback_ = std::move(callback);
}

bool VrcClient::HasLogCallback() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return static_cast<bool>(logCallback_);
}

void VrcClient::Log(const std::string& line) {
    LogCallback callback;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        callback = logCallback_;
    }
    // Called outside the lock: the callback may well ask the client for its state.
    if (callback) callback(line);
}

void VrcClient::LogFrame(const char* direction, uint8_t command, const std::vector<uint8_t>& header,
                         const uint8_t* head, size_t headSize, const uint8_t* body,
                         size_t bodySize) {
    if (HasLogCallback())
        Log(FrameLine(direction, command, header, head, headSize, body, bodySize));
}

void VrcClient::CloseSocket() {
    std::lock_guard<std::mutex> lock(stateMutex_);
    socket_->Close();
}

int VrcClient::Fail(int code, const std::string& why) {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        lastError_ = why;
    }
    CloseSocket();
    return code;
}

int VrcClient::Refuse(int code, const std::string& why) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    lastError_ = why;
    return code;
}

int VrcClient::Remember(int code) {
    lastReturnCode_.store(code);
    return code;
}

int VrcClient::RejectReply(uint8_t command, const std::string& why) {
    std::lock_guard<std::mutex> query(queryMutex_);
    return Remember(Fail(kVrcMalformed, "malformed reply to " + CommandText(command) + ": " + why));
}

int VrcClient::QueryCommand(const u8vec& payload, u8vec& reply, uint8_t command, bool withHeader) {
    std::lock_guard<std::mutex> query(queryMutex_);
    return Remember(QueryLocked(payload, reply, command, withHeader));
}

int VrcClient::QueryLocked(const u8vec& payload, u8vec& reply, uint8_t command, bool withHeader) {
    Request request;
    request.command = command;
    request.body = payload.data();
    request.bodySize = payload.size();
    return QueryLocked(request, reply, withHeader);
}

int VrcClient::QueryLocked(const Request& request, u8vec& reply, bool withHeader) {
    reply.clear();
    const uint8_t command = request.command;
    const std::string name = CommandText(command);
    if (!socket_->IsOpen()) {
        const std::string why = LastError();
        return Refuse(kVrcNotConnected, why.empty() ? "not connected" : why);
    }
    if (request.Size() > vrc::kMaxPayload) {
        return Refuse(kVrcNotConnected, "request " + name + " of " +
                                            std::to_string(request.Size()) +
                                            " bytes exceeds the 64 MiB limit");
    }
    const std::vector<uint8_t> header =
        vrc::EncodeHeader(command, vrc::kStatusOk, static_cast<uint32_t>(request.Size()));
    LogFrame("SEND", command, header, request.head, request.headSize, request.body,
             request.bodySize);
    std::vector<uint8_t> frame = header;
    frame.insert(frame.end(), request.head, request.head + request.headSize);
    const bool bodyApart = request.bodySize > kCopiedBody;
    if (!bodyApart) frame.insert(frame.end(), request.body, request.body + request.bodySize);
    const bool sent =
        socket_->Send(frame.data(), frame.size(), receiveTimeoutMs_) &&
        (!bodyApart || socket_->Send(request.body, request.bodySize, receiveTimeoutMs_));
    if (!sent) return Fail(kVrcNotConnected, "cannot send " + name + ": " + socket_->LastError());
    if (request.whileWaiting) request.whileWaiting();
    vrc::Frame answer;
    const int received = AwaitReply(command, answer);
    if (received != kVrcOk) return received;

    const std::vector<uint8_t> replyHeader = vrc::EncodeHeader(
        answer.command, answer.status, static_cast<uint32_t>(answer.payload.size()));
    LogFrame("RECV", answer.command, replyHeader, nullptr, 0, answer.payload.data(),
             answer.payload.size());
    if (answer.command != command) {
        return Fail(kVrcMalformed,
                    "malformed reply to " + name + ": it carries " + CommandText(answer.command));
    }
    if (withHeader) {
        reply = replyHeader;
        reply.insert(reply.end(), answer.payload.begin(), answer.payload.end());
    } else {
        reply = std::move(answer.payload);
    }
    return answer.status;
}

// Reads until one complete frame is decoded or the overall deadline passes.
int VrcClient::AwaitReply(uint8_t command, vrc::Frame& frame) {
    using Clock = std::chrono::steady_clock;
    const std::string name = CommandText(command);
    const auto deadline = Clock::now() + std::chrono::milliseconds(receiveTimeoutMs_);
    const std::string timedOut =
        "no complete reply to " + name + " within " + std::to_string(receiveTimeoutMs_) + " ms";
    vrc::FrameDecoder& decoder = decoder_;
    decoder.Reset();
    for (;;) {
        const vrc::FrameDecoder::Result decoded = decoder.Next(frame);
        if (decoded == vrc::FrameDecoder::Result::kFrame) return kVrcOk;
        if (decoded == vrc::FrameDecoder::Result::kMalformed) {
            return Fail(kVrcMalformed,
                        "malformed reply to " + name + ": bad magic or length over the limit");
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return Fail(kVrcTimeout, timedOut);
        size_t got = 0;
        // Straight into the decoder's buffer: a large reply (a log) is not copied on its way in.
        const SocketSource::ReceiveStatus status = socket_->Receive(
            decoder.Space(kReceiveChunk), kReceiveChunk, got, static_cast<uint32_t>(left.count()));
        decoder.Commit(status == SocketSource::ReceiveStatus::kData ? got : 0);
        switch (status) {
            case SocketSource::ReceiveStatus::kData:
                break;
            case SocketSource::ReceiveStatus::kClosed:
                if (closedLocally_.load()) {
                    return Fail(kVrcNotConnected, "connection closed by the client");
                }
                return Fail(kVrcClosedByPeer, "device closed the connection before the reply of " +
                                                  name + " was complete");
            case SocketSource::ReceiveStatus::kTimeout:
                return Fail(kVrcTimeout, timedOut);
            case SocketSource::ReceiveStatus::kError:
                return Fail(kVrcNotConnected,
                            "cannot receive the reply of " + name + ": " + socket_->LastError());
        }
    }
}

bool VrcClient::GetValFromOutput(uint8_t /*command*/, uint8_t /*subCommand*/, const u8vec& output,
                                 int start, int length, u8vec& value) const {
    if (start < 0 || length < 0) return false;
    const size_t first = static_cast<size_t>(start);
    const size_t count = static_cast<size_t>(length);
    if (first > output.size() || count > output.size() - first) return false;
    value.assign(output.begin() + static_cast<std::ptrdiff_t>(first),
                 output.begin() + static_cast<std::ptrdiff_t>(first + count));
    return true;
}

int VrcClient::GetAllChannelFov(float* values, int& count, int& mode) {
    std::lock_guard<std::mutex> query(queryMutex_);
    if (values == nullptr || count < 0) {
        return Remember(Refuse(kVrcNotConnected, "GetAllChannelFov: no room for the regions"));
    }
    u8vec reply;
    const int result = QueryLocked({}, reply, kGetFov, false);
    if (result != kVrcOk) return Remember(result);
    if (reply.size() < 2 || reply.size() < 2 + size_t{4} * reply[1]) {
        return Remember(Fail(kVrcMalformed, "malformed reply to " + CommandText(kGetFov) + ": " +
                                                std::to_string(reply.size()) +
                                                " bytes do not hold the regions it announces"));
    }
    // Ends follow the regions read, the layout SetAllChannelFov takes back.
    const int regions = std::min<int>(reply[1], count);
    for (int i = 0; i < regions; ++i) {
        const size_t at = 2 + size_t{4} * static_cast<size_t>(i);
        values[i] = static_cast<float>(ReadUint16(reply, at)) / 10.0f;
        values[regions + i] = static_cast<float>(ReadUint16(reply, at + 2)) / 10.0f;
    }
    count = regions;
    mode = reply[0];
    return Remember(kVrcOk);
}

int VrcClient::SetAllChannelFov(const float* values, int count, uint8_t mode) {
    if (count < 0 || count > 255 || (values == nullptr && count > 0)) {
        std::lock_guard<std::mutex> query(queryMutex_);
        return Remember(Refuse(kVrcNotConnected,
                               "SetAllChannelFov: invalid region count " + std::to_string(count)));
    }
    u8vec payload{mode, static_cast<uint8_t>(count)};
    payload.reserve(2 + size_t{4} * static_cast<size_t>(count));
    for (int i = 0; i < count; ++i) {
        AppendUint16(payload, DegreesToTenths(values[i]));
        AppendUint16(payload, DegreesToTenths(values[count + i]));
    }
    u8vec reply;
    return QueryCommand(payload, reply, kSetFov, false);
}

int VrcClient::WrenSetBaudRate(uint32_t rate) {
    const u8vec payload{static_cast<uint8_t>(rate >> 24), static_cast<uint8_t>(rate >> 16),
                        static_cast<uint8_t>(rate >> 8), static_cast<uint8_t>(rate)};
    u8vec reply;
    const int result = QueryCommand(payload, reply, kSetSerialBaudRate, false);
    if (result == kVrcOk) serialBaudRate_.store(rate);
    return result;
}

int VrcClient::UpgradeLidar(const u8Array_t& package, uint8_t command, ProgressCounter& progress) {
    return Transfer(command, std::nullopt, package, progress);
}

int VrcClient::WrenUpgradeLidar(const u8Array_t& package, int mode, ProgressCounter& progress) {
    if (mode < 0 || mode > 255) {
        progress.store(0);
        std::lock_guard<std::mutex> query(queryMutex_);
        return Remember(Refuse(kVrcNotConnected, "WrenUpgradeLidar: upgrade mode " +
                                                     std::to_string(mode) +
                                                     " does not fit its byte (0 to 255)"));
    }
    return Transfer(kSerialFirmwareUpgrade, static_cast<uint8_t>(mode), package, progress);
}

// Each phase is one request; other threads' requests may come between chunks. The CRC is
// computed chunk by chunk while the device handles the chunk, so it costs no time of its own
// and the package is read once.
int VrcClient::Transfer(uint8_t command, std::optional<uint8_t> beginExtra,
                        const u8Array_t& package, ProgressCounter& progress, ProgressMode mode) {
    const bool advancing = mode == ProgressMode::kAdvanceByUnits;
    const int progressBase = advancing ? progress.load() : 0;
    progress.store(progressBase);
    if (package.size() > UINT32_MAX) {
        std::lock_guard<std::mutex> query(queryMutex_);
        return Remember(Refuse(kVrcNotConnected, "firmware package of " +
                                                     std::to_string(package.size()) +
                                                     " bytes does not fit the 4-byte size"));
    }
    u8vec reply;
    // Advancing (components of one upgrade): a component's last partial unit counts, as the
    // caller's total rounds every component up.
    const auto acknowledged = [&](size_t bytes) {
        const size_t units = advancing ? (bytes + 1023) >> 10 : bytes >> 10;
        progress.store(progressBase + static_cast<int>(units));
    };
    return detail::RunTransfer(
        package, kTransferChunk, beginExtra, acknowledged,
        [&](const detail::TransferPhase& phase, const std::function<void()>& whileWaiting) {
            Request request;
            request.command = command;
            request.head = phase.head.data();
            request.headSize = phase.head.size();
            request.body = phase.body;
            request.bodySize = phase.bodySize;
            request.whileWaiting = whileWaiting;
            return QueryOne(request, reply);
        });
}

int VrcClient::QueryOne(const Request& request, u8vec& reply) {
    std::lock_guard<std::mutex> query(queryMutex_);
    return Remember(QueryLocked(request, reply, false));
}

int VrcClient::DownloadLog(const u8Array_t& payload, u8Array_t& reply, unsigned char command) {
    const int result = QueryCommand(payload, reply, command, false);
    return result < 0 ? kVrcNotConnected : result;
}

int VrcClient::QuerySerialCommand(const u8Array_t& payload, u8Array_t& reply, uint8_t code) {
    u8vec request{code};
    request.insert(request.end(), payload.begin(), payload.end());
    return QueryCommand(request, reply, kSerialPassThrough, false);
}

}  // namespace lidar
