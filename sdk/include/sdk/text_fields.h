#pragma once

// Small text helpers shared by the catalogue parser and the simulator's value codec.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lidar::text {

// The text without leading and trailing white space.
std::string_view Trim(std::string_view text);
// The parts between separators, empty parts kept ("a||b" gives "a", "", "b").
std::vector<std::string> Split(const std::string& text, char separator);
bool HasHexPrefix(std::string_view text);
// Pairs of hexadecimal digits, blanks around and an optional "0x" allowed: "0x0102" gives 01 02.
// An empty text gives no bytes; an odd count or a non-hex digit gives false and leaves out alone.
bool ParseHexPairs(std::string_view text, std::vector<uint8_t>& out);

}  // namespace lidar::text
