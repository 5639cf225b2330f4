#pragma once

// What both simulated lidars keep per command code, shared by their serving threads and the
// tests: how many requests came in, and the fault to play on each code.

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>

#include "sim/lidar_simulator.h"

namespace sim::detail {

class RequestLog {
  public:
    // Counts a request and returns the fault to play on it (kind kNone for none).
    Fault Received(uint8_t code) {
        counts_[code].fetch_add(1);
        return FaultFor(code);
    }
    uint64_t Count(uint8_t code) const { return counts_[code].load(); }
    std::map<uint8_t, uint64_t> Counts() const {
        std::map<uint8_t, uint64_t> result;
        for (size_t code = 0; code < counts_.size(); ++code)
            if (const uint64_t n = counts_[code].load()) result[static_cast<uint8_t>(code)] = n;
        return result;
    }
    void ResetCounts() {
        for (auto& count : counts_) count.store(0);
    }

    // A fault of kind kNone removes the code's fault.
    void SetFault(uint8_t code, Fault fault) {
        std::lock_guard<std::mutex> lock(faultMutex_);
        if (fault.kind == Fault::Kind::kNone)
            faults_.erase(code);
        else
            faults_[code] = fault;
    }
    void ClearFaults() {
        std::lock_guard<std::mutex> lock(faultMutex_);
        faults_.clear();
    }
    Fault FaultFor(uint8_t code) const {
        std::lock_guard<std::mutex> lock(faultMutex_);
        auto it = faults_.find(code);
        return it == faults_.end() ? Fault{} : it->second;
    }

  private:
    std::array<std::atomic<uint64_t>, 256> counts_{};
    mutable std::mutex faultMutex_;
    std::map<uint8_t, Fault> faults_;
};

}  // namespace sim::detail
