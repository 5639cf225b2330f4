// The Heron-VRC's own commands on the simulated device: upgrade mode (0xB6, also a Wren-VRC
// command), the IMU range (0xC1, a catalogue set command the device checks first), and the
// bookkeeping of received components (0xC3). The component restart (0xC2) is a reboot.

#include "device.h"

namespace sim::detail {
namespace {

constexpr uint8_t kSetImuRange = 0xC1;
constexpr uint8_t kComponentUpgrade = 0xC3;
constexpr size_t kNoComponent = std::numeric_limits<size_t>::max();

}  // namespace

bool Device::IsHeron() const {
    return model_ == "Heron-VRC";
}

Reply Device::EnterUpgradeMode() {
    Reply reply;
    reply.payload = {heron_.EnterUpgradeMode()};
    return reply;
}

// The catalogue writes the codes into the 0x30 block; a code outside the IMU's tables is refused
// before it gets there, as the device would not take it.
Reply Device::SetImuRange(const Bytes& payload) {
    if (!IsHeronImuRange(payload)) {
        Reply refused;
        refused.status = lidar::vrc::kStatusBadPayload;
        return refused;
    }
    return CatalogueCommand(kSetImuRange, payload);
}

bool Device::RefusesComponent(uint8_t command, const Bytes& payload) const {
    return command == kComponentUpgrade &&
           UpgradeReceiver::PhaseOf(payload) == UpgradeReceiver::Phase::kBegin &&
           payload.size() >= 2 && !IsHeronComponentType(payload[1]);
}

void Device::RecordComponent(uint8_t command, const Bytes& payload, uint8_t status,
                             Session& session) {
    const UpgradeReceiver::Phase phase = UpgradeReceiver::PhaseOf(payload);
    if (phase == UpgradeReceiver::Phase::kBegin && status == lidar::vrc::kStatusOk) {
        const Transfer& begun = session.upgrade.Current();
        session.componentIndex =
            command == kComponentUpgrade
                ? heron_.Begin(static_cast<uint8_t>(begun.beginByte), begun.announcedSize)
                : kNoComponent;
        return;
    }
    if (command != kComponentUpgrade || session.componentIndex == kNoComponent) return;
    if (phase == UpgradeReceiver::Phase::kEnd) {
        heron_.End(session.componentIndex, session.upgrade.Current().completed);
        session.componentIndex = kNoComponent;
    }
}

void Device::RecordRefusedComponent(uint8_t command, const Bytes& payload, uint8_t status) {
    constexpr size_t kTypeAt = 1;
    constexpr size_t kSizeAt = 2;
    if (command != kComponentUpgrade || status == lidar::vrc::kStatusOk ||
        UpgradeReceiver::PhaseOf(payload) != UpgradeReceiver::Phase::kBegin)
        return;
    Transfer refused;
    refused.command = command;
    if (payload.size() > kTypeAt) refused.beginByte = payload[kTypeAt];
    for (size_t i = kSizeAt; i < kSizeAt + 4 && i < payload.size(); ++i)
        refused.announcedSize = (refused.announcedSize << 8) | payload[i];
    refused.refusedStatus = status;
    std::lock_guard<std::mutex> lock(stateMutex_);
    transfers_.push_back(refused);
}

// Called after the chunk's reply, while its bytes are still those of the request.
void Device::KeepComponentChunk(const Session& session) {
    if (session.componentIndex == kNoComponent || session.upgrade.PendingChunk() == nullptr) return;
    heron_.Append(session.componentIndex, session.upgrade.PendingChunk(),
                  session.upgrade.PendingChunkSize());
}

}  // namespace sim::detail
