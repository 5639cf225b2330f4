#pragma once

// The receiving end of a firmware transfer (0x83, and 0xB7 / 0xC3 of the serial-line models):
// begin with the total size, data chunks at increasing offsets, end with the CRC-32 of it all.
// The simulated device checks the transfer but keeps none of the bytes.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sim::detail {

class UpgradeReceiver {
  public:
    // beginExtraBytes: bytes between the phase and the size in the begin phase (upgrade mode or
    // component type). Returns the device status for the request.
    uint8_t Handle(const std::vector<uint8_t>& payload, size_t beginExtraBytes);

  private:
    uint8_t Begin(const std::vector<uint8_t>& payload, size_t extra);
    uint8_t Data(const std::vector<uint8_t>& payload);
    uint8_t End(const std::vector<uint8_t>& payload);

    bool active_ = false;
    uint32_t total_ = 0;
    uint32_t received_ = 0;
    uint32_t crc_ = 0;
};

// CRC-32 (IEEE 802.3, reflected, as zlib computes it), continued from `crc` (0 to start).
uint32_t Crc32(uint32_t crc, const uint8_t* data, size_t size);

}  // namespace sim::detail
