#pragma once

// The Heron-VRC's component side: two application partitions with one of them running, upgrade
// mode, and every component it received (0xC3) with its bytes. Thread-safe: every connection
// thread may touch it.

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <vector>

#include "sim/lidar_simulator.h"

namespace sim::detail {

class HeronState {
  public:
    // 0 runs partition A, any other byte partition B; upgrade mode reports the byte as it is.
    void SetRunningPartition(uint8_t partition);
    uint8_t RunningPartition() const;

    // Enters upgrade mode and returns the running partition; the component positions count
    // from here.
    uint8_t EnterUpgradeMode();
    // Components begun since upgrade mode was entered (or since the last restart).
    int ComponentsSinceUpgradeMode() const;

    // A component transfer began; returns its index in the list of components.
    size_t Begin(uint8_t type, uint32_t announcedSize);
    void Append(size_t index, const uint8_t* data, size_t size);
    void End(size_t index, bool completed);

    // A restart boots the partition that a completed application component was written to, and
    // leaves upgrade mode.
    void Restart();

    std::vector<Component> Components() const;

  private:
    mutable std::mutex mutex_;
    uint8_t running_ = 0;
    bool otherPartitionWritten_ = false;
    int sinceUpgradeMode_ = 0;
    std::vector<Component> components_;
};

// Component types a Heron takes: TMB FPGA, BMB FPGA, BMB application, TMB parameters.
bool IsHeronComponentType(uint8_t type);
// 0xC1's payload: an angular code of 0-4 or 8 and an acceleration code of 0-3.
bool IsHeronImuRange(const std::vector<uint8_t>& payload);

}  // namespace sim::detail
