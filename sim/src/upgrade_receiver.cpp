#include "upgrade_receiver.h"

#include <zlib.h>

#include "sdk/vrc_frame.h"

namespace sim::detail {
namespace {

constexpr uint8_t kPhaseBegin = 0;
constexpr uint8_t kPhaseData = 1;
constexpr uint8_t kPhaseEnd = 2;

uint32_t ReadU32(const std::vector<uint8_t>& bytes, size_t at) {
    return (uint32_t(bytes[at]) << 24) | (uint32_t(bytes[at + 1]) << 16) |
           (uint32_t(bytes[at + 2]) << 8) | uint32_t(bytes[at + 3]);
}

}  // namespace

UpgradeReceiver::Phase UpgradeReceiver::PhaseOf(const std::vector<uint8_t>& payload) {
    if (payload.empty()) return Phase::kUnknown;
    switch (payload[0]) {
        case kPhaseBegin:
            return Phase::kBegin;
        case kPhaseData:
            return Phase::kData;
        case kPhaseEnd:
            return Phase::kEnd;
        default:
            return Phase::kUnknown;
    }
}

uint8_t UpgradeReceiver::Handle(const std::vector<uint8_t>& payload, size_t beginExtraBytes) {
    switch (PhaseOf(payload)) {
        case Phase::kBegin:
            return Begin(payload, beginExtraBytes);
        case Phase::kData:
            return Data(payload);
        case Phase::kEnd:
            return End(payload);
        case Phase::kUnknown:
            break;
    }
    return lidar::vrc::kStatusBadPayload;
}

uint8_t UpgradeReceiver::Begin(const std::vector<uint8_t>& payload, size_t extra) {
    if (payload.size() < 1 + extra + 4) return lidar::vrc::kStatusBadPayload;
    active_ = true;
    current_ = Transfer{};
    if (extra > 0) current_.beginByte = payload[1];
    current_.announcedSize = ReadU32(payload, 1 + extra);
    current_.receivedCrc = static_cast<uint32_t>(crc32(0L, Z_NULL, 0));
    return lidar::vrc::kStatusOk;
}

// Chunks must arrive in order and stay within the announced size.
uint8_t UpgradeReceiver::Data(const std::vector<uint8_t>& payload) {
    if (!active_ || payload.size() < 5) return lidar::vrc::kStatusBadPayload;
    const uint32_t offset = ReadU32(payload, 1);
    const size_t length = payload.size() - 5;
    const uint64_t received = current_.receivedSize;
    if (offset != received || length > maxChunk_ || length > current_.announcedSize - received) {
        return lidar::vrc::kStatusBadPayload;
    }
    pending_ = payload.data() + 5;
    pendingSize_ = length;
    current_.receivedSize += length;
    ++current_.chunks;
    return lidar::vrc::kStatusOk;
}

void UpgradeReceiver::SettleChunk() {
    if (pending_ == nullptr) return;
    current_.receivedCrc = static_cast<uint32_t>(
        crc32(current_.receivedCrc, pending_, static_cast<uInt>(pendingSize_)));
    pending_ = nullptr;
    pendingSize_ = 0;
}

uint8_t UpgradeReceiver::End(const std::vector<uint8_t>& payload) {
    if (!active_ || payload.size() < 5) return lidar::vrc::kStatusBadPayload;
    active_ = false;
    current_.completed = current_.receivedSize == current_.announcedSize &&
                         ReadU32(payload, 1) == current_.receivedCrc;
    return current_.completed ? lidar::vrc::kStatusOk : lidar::vrc::kStatusBadPayload;
}

}  // namespace sim::detail
