#include <cstdint>

#include "sdk/vrc_frame.h"
#include "sim/lidar_simulator.h"

namespace sim {
namespace {

// A well-mixed 64-bit value from any input (the finaliser of splitmix64): neighbouring request
// numbers give unrelated draws.
uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

constexpr uint64_t kRateScale = 100000;

}  // namespace

Fault Chaos::Draw(uint64_t request) const {
    const uint64_t draw = Mix(Mix(seed_) ^ request);
    uint64_t roll = draw % kRateScale;
    Fault fault;
    if (roll < kSlowRate) {
        // The upper bits are independent of the roll: they choose how late.
        const uint64_t span = kMaxDelayMs - kMinDelayMs + 1;
        fault.kind = Fault::Kind::kDelay;
        fault.delayMs = kMinDelayMs + static_cast<int>((draw >> 32) % span);
        return fault;
    }
    roll -= kSlowRate;
    if (roll < kBusyRate) {
        fault.kind = Fault::Kind::kStatus;
        fault.status = lidar::vrc::kStatusBusy;
        return fault;
    }
    roll -= kBusyRate;
    if (roll < kCutRate) {
        fault.kind = Fault::Kind::kCloseMidReply;
        return fault;
    }
    roll -= kCutRate;
    if (roll < kDropRate) fault.kind = Fault::Kind::kDrop;
    return fault;
}

}  // namespace sim
