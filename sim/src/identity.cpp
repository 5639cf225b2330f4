#include "identity.h"

#include <algorithm>
#include <cstdio>

namespace sim::detail {
namespace {

constexpr size_t kSerialIndexDigits = 3;

// The text without the blanks around it, as the catalogue's default values are read.
std::string Trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

std::string IndexedSerialNumber(const std::string& serial, int index) {
    std::string text = Trimmed(serial);
    char digits[16];
    std::snprintf(digits, sizeof digits, "%03d", index);
    const std::string suffix(digits);
    const size_t replaced = std::min(text.size(), kSerialIndexDigits);
    text.replace(text.size() - replaced, replaced, suffix.substr(suffix.size() - replaced));
    return text;
}

std::string IndexedMacAddress(const std::string& mac, int index) {
    std::string text = Trimmed(mac);
    if (text.size() < 2) return text;
    char digits[8];
    std::snprintf(digits, sizeof digits, "%02X", index & 0xFF);
    text.replace(text.size() - 2, 2, digits);
    return text;
}

}  // namespace sim::detail
