#pragma once

// The receiving end of a firmware transfer (0x83, and 0xB7 / 0xC3 of the serial-line models):
// begin with the total size, data chunks at increasing offsets, end with the CRC-32 of it all.
// The receiver keeps the size and CRC-32 of what it received, not the bytes (the Heron's
// components keep theirs in HeronState).

#include <cstddef>
#include <cstdint>
#include <vector>

#include "sim/lidar_simulator.h"

namespace sim::detail {

class UpgradeReceiver {
  public:
    enum class Phase { kBegin, kData, kEnd, kUnknown };
    // maxChunk: the largest data chunk the protocol allows (64 KiB over VRC, 1 KiB on the UART).
    explicit UpgradeReceiver(size_t maxChunk = 64 * 1024) : maxChunk_(maxChunk) {}
    static Phase PhaseOf(const std::vector<uint8_t>& payload);

    // beginExtraBytes: bytes between the phase and the size in the begin phase (upgrade mode or
    // component type). Returns the device status for the request.
    uint8_t Handle(const std::vector<uint8_t>& payload, size_t beginExtraBytes);
    // Folds the last accepted chunk into the CRC. Called after the chunk's reply is on its way
    // (the bytes are still those of the request), so the device checks a chunk while the next
    // one travels, as a device that acknowledges on receipt does.
    void SettleChunk();
    // The accepted chunk not yet settled (null when there is none): its bytes are the request's.
    const uint8_t* PendingChunk() const { return pending_; }
    size_t PendingChunkSize() const { return pendingSize_; }
    // The transfer begun last on this connection (command is left to the caller).
    const Transfer& Current() const { return current_; }
    bool Active() const { return active_; }

  private:
    uint8_t Begin(const std::vector<uint8_t>& payload, size_t extra);
    uint8_t Data(const std::vector<uint8_t>& payload);
    uint8_t End(const std::vector<uint8_t>& payload);

    size_t maxChunk_;
    bool active_ = false;
    Transfer current_;
    const uint8_t* pending_ = nullptr;  // the accepted chunk not yet in the CRC
    size_t pendingSize_ = 0;
};

}  // namespace sim::detail
