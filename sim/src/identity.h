#pragma once

// The identity of one lidar among several served from one process: the catalogue's serial number
// and MAC address with their last characters replaced by the lidar's index, so that each lidar is
// told apart from the others and keeps the same identity from run to run.

#include <string>

namespace sim::detail {

constexpr int kMaxIdentityIndex = 255;  // the MAC address's last byte carries the index

// `serial` with its last three characters replaced by the index in three decimal digits (all of
// it, the index's last digits, when it is shorter); the length stays the same.
std::string IndexedSerialNumber(const std::string& serial, int index);
// "AA:BB:CC:DD:EE:FF" with its last two characters, its last byte, replaced by the index in
// hexadecimal ("...:EE:03").
std::string IndexedMacAddress(const std::string& mac, int index);

}  // namespace sim::detail
