#pragma once

// Several simulated lidars from one process, on consecutive TCP ports, for testing what drives
// many lidars at once without hardware. With more than one, each has its own identity
// (LidarSimulator::Options::identityIndex) and its own stored settings; with one, it is the
// simulator exactly as it stands alone.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/lidar_simulator.h"

namespace sim {

class LidarFleet {
  public:
    static constexpr int kMaxCount = 256;
    // Free blocks of ports tried (with port 0) before giving up.
    static constexpr int kPortBlockTries = 32;

    // `options` for every lidar; `count` from 1 to kMaxCount.
    LidarFleet(LidarSimulator::Options options, int count);
    ~LidarFleet();
    LidarFleet(const LidarFleet&) = delete;
    LidarFleet& operator=(const LidarFleet&) = delete;

    // Starts every lidar, `prepare` (faults and the like) applied to each before it starts. With
    // a port, on it and the count - 1 ports after it; with port 0, on a free block of consecutive
    // ports. False with the reason (naming the port that could not be had), none left running.
    bool Start(const std::function<void(LidarSimulator&)>& prepare, std::string* error = nullptr);
    void Stop();

    int Count() const { return count_; }
    // Lidar `index` (from 0, in port order) of a started fleet.
    LidarSimulator& At(int index) { return *lidars_.at(static_cast<size_t>(index)); }

  private:
    bool StartBlock(uint16_t base, const std::function<void(LidarSimulator&)>& prepare,
                    std::string* error);
    bool StartOn(uint16_t port, int index, const std::function<void(LidarSimulator&)>& prepare,
                 std::string* error);
    bool StartAnywhere(const std::function<void(LidarSimulator&)>& prepare, std::string* error);

    LidarSimulator::Options options_;
    int count_;
    std::vector<std::unique_ptr<LidarSimulator>> lidars_;
};

}  // namespace sim
