#include "upgrade_receiver.h"

#include <array>

#include "sdk/vrc_frame.h"

namespace sim::detail {
namespace {

constexpr uint8_t kPhaseBegin = 0;
constexpr uint8_t kPhaseData = 1;
constexpr uint8_t kPhaseEnd = 2;
constexpr size_t kMaxChunk = 64 * 1024;

uint32_t ReadU32(const std::vector<uint8_t>& bytes, size_t at) {
    return (uint32_t(bytes[at]) << 24) | (uint32_t(bytes[at + 1]) << 16) |
           (uint32_t(bytes[at + 2]) << 8) | uint32_t(bytes[at + 3]);
}

std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int bit = 0; bit < 8; ++bit) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
        table[i] = c;
    }
    return table;
}

}  // namespace

uint32_t Crc32(uint32_t crc, const uint8_t* data, size_t size) {
    static const std::array<uint32_t, 256> kTable = MakeCrcTable();
    crc = ~crc;
    for (size_t i = 0; i < size; ++i) crc = kTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

uint8_t UpgradeReceiver::Handle(const std::vector<uint8_t>& payload, size_t beginExtraBytes) {
    if (payload.empty()) return lidar::vrc::kStatusBadPayload;
    switch (payload[0]) {
        case kPhaseBegin:
            return Begin(payload, beginExtraBytes);
        case kPhaseData:
            return Data(payload);
        case kPhaseEnd:
            return End(payload);
        default:
            return lidar::vrc::kStatusBadPayload;
    }
}

uint8_t UpgradeReceiver::Begin(const std::vector<uint8_t>& payload, size_t extra) {
    if (payload.size() < 1 + extra + 4) return lidar::vrc::kStatusBadPayload;
    active_ = true;
    total_ = ReadU32(payload, 1 + extra);
    received_ = 0;
    crc_ = 0;
    return lidar::vrc::kStatusOk;
}

// Chunks must arrive in order and stay within the announced size.
uint8_t UpgradeReceiver::Data(const std::vector<uint8_t>& payload) {
    if (!active_ || payload.size() < 5) return lidar::vrc::kStatusBadPayload;
    const uint32_t offset = ReadU32(payload, 1);
    const size_t length = payload.size() - 5;
    if (offset != received_ || length > kMaxChunk || length > total_ - received_) {
        return lidar::vrc::kStatusBadPayload;
    }
    crc_ = Crc32(crc_, payload.data() + 5, length);
    received_ += static_cast<uint32_t>(length);
    return lidar::vrc::kStatusOk;
}

uint8_t UpgradeReceiver::End(const std::vector<uint8_t>& payload) {
    if (!active_ || payload.size() < 5) return lidar::vrc::kStatusBadPayload;
    active_ = false;
    const bool complete = received_ == total_ && ReadU32(payload, 1) == crc_;
    return complete ? lidar::vrc::kStatusOk : lidar::vrc::kStatusBadPayload;
}

}  // namespace sim::detail
