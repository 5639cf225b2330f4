#pragma once

// What both simulated lidars keep per command code, shared by their serving threads and the
// tests: how many requests came in, and the fault to play on each code.

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>

#include "sim/lidar_simulator.h"

namespace sim::detail {

class RequestLog {
  public:
    // Counts a request and returns the fault to play on it (kind kNone for none).
    // A command's own fault wins over chaos; chaos still counts the request.
    Fault Received(uint8_t code) {
        counts_[code].fetch_add(1);
        const uint64_t number = sequence_.fetch_add(1);
        Fault fault = FaultFor(code);
        if (fault.kind == Fault::Kind::kNone && chaos_) {
            fault = chaos_->Draw(number);
            Tally(fault.kind);
        }
        return fault;
    }
    // Set before the simulator starts serving.
    void SetChaos(std::optional<Chaos> chaos) { chaos_ = chaos; }
    ChaosTally ChaosPlayed() const {
        return {played_[0].load(), played_[1].load(), played_[2].load(), played_[3].load()};
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
    void Tally(Fault::Kind kind) {
        switch (kind) {
            case Fault::Kind::kDelay:
                played_[0].fetch_add(1);
                break;
            case Fault::Kind::kStatus:
                played_[1].fetch_add(1);
                break;
            case Fault::Kind::kCloseMidReply:
                played_[2].fetch_add(1);
                break;
            case Fault::Kind::kDrop:
                played_[3].fetch_add(1);
                break;
            default:
                break;
        }
    }

    std::array<std::atomic<uint64_t>, 256> counts_{};
    std::atomic<uint64_t> sequence_{0};
    std::optional<Chaos> chaos_;
    std::array<std::atomic<uint64_t>, 4> played_{};  // slow, busy, cut, drop
    mutable std::mutex faultMutex_;
    std::map<uint8_t, Fault> faults_;
};

}  // namespace sim::detail
