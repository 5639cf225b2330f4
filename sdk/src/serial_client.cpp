#include "sdk/serial_client.h"

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "client_common.h"
#include "sdk/serial_source.h"

namespace lidar {
namespace {

using Clock = std::chrono::steady_clock;
using detail::CommandText;

constexpr uint32_t kDefaultTimeoutMs = 3000;
constexpr uint8_t kSetStandby = 0x01;
constexpr uint8_t kSetSpinRate = 0x02;
constexpr uint8_t kSetReturnMode = 0x03;
constexpr uint8_t kFaultState = 0x04;
constexpr uint8_t kFirmwareUpgrade = 0x05;
// Serial data chunks are at most 1 KiB: at a UART's rate a chunk is on the line for about a
// second, and a lost chunk costs no more than that.
constexpr size_t kTransferChunk = 1024;
constexpr size_t kReceiveRoom = 4096;
// After a query that may have left bytes coming (a time-out, a dropped or foreign reply), the
// next query first waits until the line has been quiet this long, at most kSettleMaxMs.
constexpr int kSettleQuietMs = 100;
constexpr int kSettleMaxMs = 1000;
// A frame begun and then left incomplete for this long while waiting for a reply was a false
// start marker in noise: the device writes a reply in one go.
constexpr uint32_t kResyncQuietMs = 200;
// This many bytes outside every frame while waiting for a reply suggest the point-cloud line; the
// bytes of a damaged, late or cut-off frame do not count, whatever its length.
constexpr uint64_t kSwapHintBytes = 64;

// The largest payload a reply to `code` may carry: the settings and the transfer's phases are
// answered with an empty payload; the fault state and catalogue reads up to the frame limit.
uint32_t MaxReplyPayload(uint8_t code) {
    switch (code) {
        case kSetStandby:
        case kSetSpinRate:
        case kSetReturnMode:
        case kFirmwareUpgrade:
            return 0;
        default:
            return serial::kMaxPayload;
    }
}

uint32_t OrDefault(uint32_t timeoutMs) {
    return timeoutMs == 0 ? kDefaultTimeoutMs : timeoutMs;
}

// Time the request needs on the wire at the line's rate (10 bits per byte, 8N1), rounded up: the
// write returns when the bytes are in the driver, not when they are sent.
uint32_t TransmitMs(size_t bytes, int rate) {
    if (rate <= 0) return 0;
    const uint64_t ms = (uint64_t{bytes} * 10 * 1000 + static_cast<uint64_t>(rate) - 1) /
                        static_cast<uint64_t>(rate);
    return static_cast<uint32_t>(std::min<uint64_t>(ms, UINT32_MAX));
}

uint32_t SaturatingSum(uint32_t a, uint32_t b) {
    return static_cast<uint32_t>(std::min<uint64_t>(uint64_t{a} + b, UINT32_MAX));
}

}  // namespace

SerialClient::SerialClient() = default;
SerialClient::~SerialClient() = default;

void SerialClient::SetSerial(SerialSource* first, SerialSource* second) {
    std::lock_guard<std::mutex> query(queryMutex_);
    first_.store(first);
    second_.store(second);
    unsettled_ = false;
}

bool SerialClient::IsOpen() const {
    const SerialSource* line = first_.load();
    return line != nullptr && line->IsOpen();
}

void SerialClient::SetReceiveTimeout(uint32_t timeoutMs) {
    receiveTimeoutMs_.store(OrDefault(timeoutMs));
}

std::string SerialClient::LastError() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return lastError_;
}

uint64_t SerialClient::PointCloudBytes() const {
    const SerialSource* line = second_.load();
    return line ? line->BytesReceived() : 0;
}

void SerialClient::SetLogCallback(LogCallback callback) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    logCallback_ = std::move(callback);
}

bool SerialClient::HasLogCallback() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return static_cast<bool>(logCallback_);
}

void SerialClient::Log(const std::string& line) {
    LogCallback callback;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        callback = logCallback_;
    }
    if (callback) callback(line);  // outside the lock: the callback may ask for the client's state
}

int SerialClient::Refuse(int code, const std::string& why) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    lastError_ = why;
    return code;
}

int SerialClient::Remember(int code) {
    lastReturnCode_.store(code);
    return code;
}

int SerialClient::QueryCommand(uint8_t code, const u8Array_t& payload, u8Array_t& reply,
                               uint32_t timeoutMs) {
    Request request;
    request.code = code;
    request.body = payload.data();
    request.bodySize = payload.size();
    std::lock_guard<std::mutex> query(queryMutex_);
    return Remember(QueryLocked(request, reply, OrDefault(timeoutMs), nullptr));
}

int SerialClient::QueryLocked(const Request& request, u8Array_t& reply, uint32_t timeoutMs,
                              const std::function<void()>& whileWaiting) {
    reply.clear();
    const std::string name = CommandText(request.code);
    SerialSource* line = first_.load();
    if (line == nullptr) return Refuse(kVrcNotConnected, "no serial command line");
    if (!line->IsOpen()) {
        const std::string why = line->LastError();
        return Refuse(kVrcNotConnected,
                      why.empty() ? "serial port " + line->Device() + " is not open" : why);
    }
    const size_t size = request.headSize + request.bodySize;
    if (size > serial::kMaxPayload) {
        return Refuse(kVrcNotConnected, "request " + name + " of " + std::to_string(size) +
                                            " bytes exceeds the 1 MiB limit");
    }
    if (unsettled_) SettleLine(*line);
    // The device sends nothing unasked: whatever waits on the line now belongs to no request.
    line->DiscardInput();
    decoder_.Reset();

    const std::vector<uint8_t> frame = EncodeRequest(request);
    if (HasLogCallback())
        Log(detail::FrameLine("SEND", request.code, frame, nullptr, 0, nullptr, 0));
    const uint32_t onTheWire = TransmitMs(frame.size(), line->Rate());
    if (!line->Send(frame.data(), frame.size(), SaturatingSum(timeoutMs, onTheWire))) {
        unsettled_ = true;
        return Refuse(kVrcNotConnected, "cannot send " + name + ": " + line->LastError());
    }
    if (whileWaiting) whileWaiting();

    serial::Frame answer;
    const int received = AwaitReply(*line, request.code, timeoutMs, onTheWire, answer);
    if (received != kVrcOk) return received;
    if (HasLogCallback()) LogReceived(answer);
    reply = serial::EncodeHeader(answer.code, answer.status,
                                 static_cast<uint32_t>(answer.payload.size()));
    reply.insert(reply.end(), answer.payload.begin(), answer.payload.end());
    return answer.status;
}

std::vector<uint8_t> SerialClient::EncodeRequest(const Request& request) {
    const size_t size = request.headSize + request.bodySize;
    std::vector<uint8_t> frame = serial::EncodeHeader(request.code, 0, static_cast<uint32_t>(size));
    frame.reserve(serial::kHeaderSize + size + serial::kCrcSize);
    frame.insert(frame.end(), request.head, request.head + request.headSize);
    frame.insert(frame.end(), request.body, request.body + request.bodySize);
    const uint16_t crc = serial::Crc16(frame.data() + 2, frame.size() - 2);
    frame.push_back(static_cast<uint8_t>(crc >> 8));
    frame.push_back(static_cast<uint8_t>(crc));
    return frame;
}

// The frame as it came: it passed its CRC check, so the CRC computed again is the one received.
void SerialClient::LogReceived(const serial::Frame& answer) {
    const std::vector<uint8_t> frame =
        serial::EncodeFrame(answer.code, answer.status, answer.payload);
    Log(detail::FrameLine("RECV", answer.code, frame, nullptr, 0, nullptr, 0));
}

// Reads until the reply to `code` is decoded or the deadline passes. Noise is skipped and a frame
// with a bad CRC dropped by the decoder; a valid frame carrying another code is a late reply to an
// earlier request (the device sends nothing unasked) and is dropped too. None of them ends the
// wait. The deadline counts the request's time on the wire and, once its header is in, the
// reply's; a frame begun and then left incomplete while the line stays quiet was a false start.
// Only a header of the awaited code is held to that code's bound: a late reply of another code may
// be long (a catalogue block), and searched for frames inside it could yield a false reply.
int SerialClient::AwaitReply(SerialSource& line, uint8_t code, uint32_t timeoutMs,
                             uint32_t onTheWireMs, serial::Frame& frame) {
    decoder_.LimitPayloadOf(code, MaxReplyPayload(code));
    const auto started = Clock::now();
    const uint32_t waitMs = SaturatingSum(timeoutMs, onTheWireMs);
    uint64_t stale = 0;
    uint8_t buffer[kReceiveRoom];
    for (;;) {
        while (decoder_.Next(frame)) {
            if (frame.code == code) return kVrcOk;
            ++stale;
            staleReplies_.fetch_add(1);
            if (HasLogCallback()) LogReceived(frame);
        }
        const uint32_t replyMs = ReplyOnTheWireMs(code, line.Rate());
        const auto deadline = started + std::chrono::milliseconds(SaturatingSum(waitMs, replyMs));
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return TimedOut(line, code, timeoutMs, stale);
        const bool watchQuiet = decoder_.Buffered() > 0 && left.count() > kResyncQuietMs;
        const uint32_t wait = watchQuiet ? kResyncQuietMs : static_cast<uint32_t>(left.count());
        size_t got = 0;
        switch (line.Receive(buffer, sizeof buffer, got, wait)) {
            case SerialSource::ReceiveStatus::kData:
                decoder_.Feed(buffer, got);
                continue;
            case SerialSource::ReceiveStatus::kTimeout:
                if (watchQuiet) decoder_.DropPending();
                continue;
            case SerialSource::ReceiveStatus::kClosed:
                return Refuse(kVrcClosedByPeer, "serial line " + line.Device() +
                                                    " hung up before the reply of " +
                                                    CommandText(code) + " was complete");
            case SerialSource::ReceiveStatus::kCancelled:
                return Refuse(kVrcNotConnected, "serial port " + line.Device() +
                                                    " was closed while waiting for " +
                                                    CommandText(code));
            case SerialSource::ReceiveStatus::kError:
                return Refuse(kVrcNotConnected, "cannot receive the reply of " + CommandText(code) +
                                                    ": " + line.LastError());
        }
    }
}

// The reply's own time on the wire, once its header is in and it looks like the reply awaited:
// a false start in noise rarely carries the awaited code, and its length is bounded by the reply
// the code may have.
uint32_t SerialClient::ReplyOnTheWireMs(uint8_t code, int rate) const {
    const size_t pending = decoder_.PendingFrameSize();
    if (pending == 0 || decoder_.PendingCode() != code) return 0;
    return TransmitMs(pending, rate);
}

int SerialClient::TimedOut(const SerialSource& line, uint8_t code, uint32_t timeoutMs,
                           uint64_t stale) {
    unsettled_ = true;
    std::string why = "no complete valid reply to " + CommandText(code) + " within " +
                      std::to_string(timeoutMs) + " ms";
    if (decoder_.DroppedFrames() > 0)
        why += " (" + std::to_string(decoder_.DroppedFrames()) + " damaged frame(s) dropped)";
    if (stale > 0)
        why += " (" + std::to_string(stale) + " late reply(ies) to earlier requests dropped)";
    // A line full of bytes that never form a frame is usually the point-cloud line.
    const uint64_t notReplies = decoder_.NoiseBytes();
    if (notReplies >= kSwapHintBytes) {
        why += ": " + std::to_string(notReplies) + " bytes that were not a reply arrived on " +
               line.Device() + ", the UART line: are the two lines swapped?";
    }
    return Refuse(kVrcTimeout, why);
}

// A serial line cannot be reconnected to shed a late reply; instead the client lets it run out:
// everything that arrives until the line is quiet is dropped.
void SerialClient::SettleLine(SerialSource& line) {
    const auto giveUp = Clock::now() + std::chrono::milliseconds(kSettleMaxMs);
    uint8_t buffer[kReceiveRoom];
    while (Clock::now() < giveUp) {
        size_t got = 0;
        if (line.Receive(buffer, sizeof buffer, got, kSettleQuietMs) !=
            SerialSource::ReceiveStatus::kData) {
            break;
        }
    }
    unsettled_ = false;
}

int SerialClient::Setting(uint8_t code, uint8_t value) {
    u8Array_t reply;
    return QueryCommand(code, {value}, reply, receiveTimeoutMs_.load());
}

int SerialClient::WrenSetStandby(bool standby) {
    return Setting(kSetStandby, standby ? 1 : 0);
}

int SerialClient::WrenSetSpinRate(unsigned char rate) {
    return Setting(kSetSpinRate, rate);
}

int SerialClient::WrenSetReturnMode(bool mode) {
    return Setting(kSetReturnMode, mode ? 1 : 0);
}

int SerialClient::GetLidarFaultState(u8Array_t& reply) {
    u8Array_t whole;
    std::lock_guard<std::mutex> query(queryMutex_);
    Request request;
    request.code = kFaultState;
    const int result = QueryLocked(request, whole, receiveTimeoutMs_.load(), nullptr);
    reply.clear();
    if (result != kVrcOk) return Remember(result);
    if (whole.size() <= serial::kHeaderSize) {
        return Remember(Refuse(
            kVrcMalformed, "malformed reply to " + CommandText(kFaultState) + ": no state byte"));
    }
    reply.assign(whole.begin() + serial::kHeaderSize, whole.end());
    return Remember(kVrcOk);
}

int SerialClient::UpgradeLidar(u8Array_t package, int mode, ProgressCounter& progress) {
    progress.store(0);
    std::string refusal;
    if (mode < 0 || mode > 255) {
        refusal = "UpgradeLidar: upgrade mode " + std::to_string(mode) +
                  " does not fit its byte (0 to 255)";
    } else if (package.size() > UINT32_MAX) {
        refusal = "firmware package of " + std::to_string(package.size()) +
                  " bytes does not fit the 4-byte size";
    }
    if (!refusal.empty()) return Remember(Refuse(kVrcNotConnected, refusal));
    const uint32_t timeoutMs = receiveTimeoutMs_.load();
    // Each phase is one request: other threads' requests may come between two chunks.
    progress.store(0);
    return detail::RunTransfer(
        package, kTransferChunk, static_cast<uint8_t>(mode),
        [&progress](size_t acknowledged) { progress.store(static_cast<int>(acknowledged >> 10)); },
        [&](const detail::TransferPhase& phase, const std::function<void()>& whileWaiting) {
            Request request;
            request.code = kFirmwareUpgrade;
            request.head = phase.head.data();
            request.headSize = phase.head.size();
            request.body = phase.body;
            request.bodySize = phase.bodySize;
            u8Array_t reply;
            std::lock_guard<std::mutex> query(queryMutex_);
            return Remember(QueryLocked(request, reply, timeoutMs, whileWaiting));
        });
}

}  // namespace lidar
