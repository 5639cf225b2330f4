#pragma once

// Small text helpers shared by the catalogue parser and the simulator's value codec.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace lidar::text {

// The text without leading and trailing white space. Inline: the catalogue parser calls it for
// every field of every row.
inline std::string_view Trim(std::string_view text) {
    const auto isSpace = [](char c) {
        return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
    };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}
// The parts between separators, empty parts kept ("a||b" gives "a", "", "b").
std::vector<std::string> Split(const std::string& text, char separator);
bool HasHexPrefix(std::string_view text);
// A command code as catalogues and users write it: one or two hexadecimal digits, optionally
// after "0x" or "0X", blanks around allowed ("0x21", "21" and "0X21" are 0x21; "7" is 0x07). False
// for an empty text, a character that is not a hexadecimal digit, or more than two digits.
bool ParseCommandCode(std::string_view text, uint8_t& code);
// Pairs of hexadecimal digits, blanks around and an optional "0x" allowed: "0x0102" gives 01 02.
// An empty text gives no bytes; an odd count or a non-hex digit gives false and leaves out alone.
bool ParseHexPairs(std::string_view text, std::vector<uint8_t>& out);

}  // namespace lidar::text
