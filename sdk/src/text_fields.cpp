#include "sdk/text_fields.h"

namespace lidar::text {
namespace {

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

}  // namespace

std::vector<std::string> Split(const std::string& text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    while (true) {
        const size_t end = text.find(separator, start);
        parts.push_back(
            text.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos) return parts;
        start = end + 1;
    }
}

bool HasHexPrefix(std::string_view text) {
    return text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

bool ParseCommandCode(std::string_view text, uint8_t& code) {
    std::string_view digits = Trim(text);
    if (HasHexPrefix(digits)) digits.remove_prefix(2);
    if (digits.empty() || digits.size() > 2) return false;
    int value = 0;
    for (char c : digits) {
        const int digit = HexDigit(c);
        if (digit < 0) return false;
        value = value * 16 + digit;
    }
    code = static_cast<uint8_t>(value);
    return true;
}

bool ParseHexPairs(std::string_view text, std::vector<uint8_t>& out) {
    std::string_view digits = Trim(text);
    if (HasHexPrefix(digits)) digits.remove_prefix(2);
    if (digits.size() % 2 != 0) return false;
    std::vector<uint8_t> bytes;
    bytes.reserve(digits.size() / 2);
    for (size_t i = 0; i < digits.size(); i += 2) {
        const int high = HexDigit(digits[i]);
        const int low = HexDigit(digits[i + 1]);
        if (high < 0 || low < 0) return false;
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
    }
    out = std::move(bytes);
    return true;
}

}  // namespace lidar::text
