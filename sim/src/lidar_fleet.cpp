#include "sim/lidar_fleet.h"

#include <utility>

namespace sim {

LidarFleet::LidarFleet(LidarSimulator::Options options, int count)
    : options_(std::move(options)), count_(count) {}

// Each simulator stops as it is destroyed.
LidarFleet::~LidarFleet() = default;

bool LidarFleet::Start(const std::function<void(LidarSimulator&)>& prepare, std::string* error) {
    if (count_ < 1 || count_ > kMaxCount) {
        if (error) *error = "the number of lidars must be from 1 to " + std::to_string(kMaxCount);
        return false;
    }
    if (!lidars_.empty()) {
        if (error) *error = "the lidars are already running";
        return false;
    }
    if (options_.port == 0) return StartAnywhere(prepare, error);
    if (options_.port + count_ - 1 > 65535) {
        if (error) {
            *error = std::to_string(count_) + " lidars from port " + std::to_string(options_.port) +
                     " would go past port 65535";
        }
        return false;
    }
    return StartBlock(options_.port, prepare, error);
}

void LidarFleet::Stop() {
    for (auto& lidar : lidars_) lidar->Stop();
    lidars_.clear();
}

// The first lidar takes whatever port the system gives; the others want the ports after it. One
// of those taken, the whole block is given up and another tried.
bool LidarFleet::StartAnywhere(const std::function<void(LidarSimulator&)>& prepare,
                               std::string* error) {
    for (int attempt = 0; attempt < kPortBlockTries; ++attempt) {
        if (!StartOn(0, 0, prepare, error)) return false;  // not a port problem: no retry helps
        const int base = lidars_.front()->Port();
        bool started = base + count_ - 1 <= 65535;
        for (int index = 1; started && index < count_; ++index) {
            started = StartOn(static_cast<uint16_t>(base + index), index, prepare, nullptr);
        }
        if (started) return true;
        Stop();
    }
    if (error) {
        *error = "found no " + std::to_string(count_) + " consecutive free ports in " +
                 std::to_string(kPortBlockTries) + " tries";
    }
    return false;
}

bool LidarFleet::StartBlock(uint16_t base, const std::function<void(LidarSimulator&)>& prepare,
                            std::string* error) {
    for (int index = 0; index < count_; ++index) {
        if (!StartOn(static_cast<uint16_t>(base + index), index, prepare, error)) {
            Stop();
            return false;
        }
    }
    return true;
}

bool LidarFleet::StartOn(uint16_t port, int index,
                         const std::function<void(LidarSimulator&)>& prepare, std::string* error) {
    LidarSimulator::Options options = options_;
    options.port = port;
    // Alone, the lidar keeps the catalogue's identity, as a simulator started by itself does.
    options.identityIndex = count_ > 1 ? index : options_.identityIndex;
    auto lidar = std::make_unique<LidarSimulator>(options);
    if (prepare) prepare(*lidar);
    if (!lidar->Start(error)) return false;
    lidars_.push_back(std::move(lidar));
    return true;
}

}  // namespace sim
