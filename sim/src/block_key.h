#pragma once

// How the simulated device names a block of its memory.

#include <cstdint>
#include <utility>
#include <vector>

namespace sim::detail {

using Bytes = std::vector<uint8_t>;
using BlockKey = std::pair<uint8_t, Bytes>;  // command byte, full request payload

}  // namespace sim::detail
