#include "heron_state.h"

namespace sim::detail {
namespace {

constexpr uint8_t kApplicationComponent = 2;
constexpr uint8_t kLastComponentType = 3;
constexpr uint8_t kAngularCodes[] = {0, 1, 2, 3, 4, 8};
constexpr uint8_t kLastAccelerationCode = 3;

}  // namespace

void HeronState::SetRunningPartition(uint8_t partition) {
    std::lock_guard<std::mutex> lock(mutex_);
    running_ = partition;
}

uint8_t HeronState::RunningPartition() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return running_;
}

uint8_t HeronState::EnterUpgradeMode() {
    std::lock_guard<std::mutex> lock(mutex_);
    sinceUpgradeMode_ = 0;
    return running_;
}

int HeronState::ComponentsSinceUpgradeMode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sinceUpgradeMode_;
}

size_t HeronState::Begin(uint8_t type, uint32_t announcedSize) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++sinceUpgradeMode_;
    Component component;
    component.type = type;
    component.announcedSize = announcedSize;
    components_.push_back(std::move(component));
    return components_.size() - 1;
}

void HeronState::Append(size_t index, const uint8_t* data, size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= components_.size()) return;
    std::vector<uint8_t>& bytes = components_[index].bytes;
    bytes.insert(bytes.end(), data, data + size);
}

void HeronState::End(size_t index, bool completed) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= components_.size()) return;
    components_[index].completed = completed;
    // The application always goes to the partition that is not running.
    if (completed && components_[index].type == kApplicationComponent)
        otherPartitionWritten_ = true;
}

void HeronState::Restart() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (otherPartitionWritten_) running_ = running_ == 0 ? 1 : 0;
    otherPartitionWritten_ = false;
    sinceUpgradeMode_ = 0;
}

std::vector<Component> HeronState::Components() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return components_;
}

bool IsHeronComponentType(uint8_t type) {
    return type <= kLastComponentType;
}

bool IsHeronImuRange(const std::vector<uint8_t>& payload) {
    if (payload.size() != 2) return false;
    bool angularKnown = false;
    for (uint8_t code : kAngularCodes) angularKnown = angularKnown || payload[0] == code;
    return angularKnown && payload[1] <= kLastAccelerationCode;
}

}  // namespace sim::detail
