#pragma once

#include <cstdint>
#include <vector>

// A growable byte array: every command payload and every reply.
using u8Array_t = std::vector<uint8_t>;
using u8vec = std::vector<uint8_t>;
