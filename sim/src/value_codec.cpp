#include "value_codec.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "sdk/text_fields.h"

namespace sim::detail {
namespace {

using lidar::text::HasHexPrefix;
using lidar::text::ParseHexPairs;
using lidar::text::Split;

std::string Trimmed(const std::string& text) {
    return std::string(lidar::text::Trim(text));
}

// Whole-text conversions: trailing garbage makes them fail.
bool ParseDouble(const std::string& text, double& out) {
    std::string t = Trimmed(text);
    if (!t.empty() && t[0] == '+') t.erase(0, 1);
    if (t.empty()) return false;
    // from_chars reads the C locale's decimal point whatever the process's language is.
    const auto result = std::from_chars(t.data(), t.data() + t.size(), out);
    return result.ec == std::errc() && result.ptr == t.data() + t.size() && std::isfinite(out);
}

bool ParseUnsigned(const std::string& text, uint64_t& out) {
    const std::string t = Trimmed(text);
    if (t.empty() || t[0] == '-' || t[0] == '+') return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoull(t.c_str(), &end, HasHexPrefix(t) ? 16 : 10);
    return errno == 0 && end == t.c_str() + t.size();
}

bool ParseSigned(const std::string& text, int64_t& out) {
    const std::string t = Trimmed(text);
    if (t.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtoll(t.c_str(), &end, HasHexPrefix(t) ? 16 : 10);
    return errno == 0 && end == t.c_str() + t.size();
}

std::vector<uint8_t> BigEndian(uint64_t value, size_t width) {
    std::vector<uint8_t> bytes(width, 0);
    for (size_t i = 0; i < width && i < 8; ++i) {
        bytes[width - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    }
    return bytes;
}

double EffectiveScale(float scale) {
    return (std::isfinite(scale) && scale != 0.0f) ? static_cast<double>(scale) : 1.0;
}

// A selection variable may carry its option text as default ("Strongest" for 0).
bool OptionValue(const VarInfo& var, const std::string& text, int64_t& out) {
    for (const auto& [value, optionText] : var.value_to_option) {
        if (optionText == text) {
            out = value;
            return true;
        }
    }
    return false;
}

uint64_t ClampToUnsigned(double value, size_t width) {
    const double limit = std::ldexp(1.0, static_cast<int>(8 * width));  // 2^bits, exclusive
    if (value <= 0.0) return 0;
    if (value >= limit)
        return width >= 8 ? std::numeric_limits<uint64_t>::max() : (uint64_t{1} << (8 * width)) - 1;
    return static_cast<uint64_t>(value);
}

int64_t ClampToSigned(double value, size_t width) {
    const double half = std::ldexp(1.0, static_cast<int>(8 * width - 1));  // 2^(bits-1)
    if (value >= half) {
        return width >= 8 ? std::numeric_limits<int64_t>::max()
                          : static_cast<int64_t>((uint64_t{1} << (8 * width - 1)) - 1);
    }
    if (value <= -half) {
        return width >= 8 ? std::numeric_limits<int64_t>::min()
                          : -static_cast<int64_t>(uint64_t{1} << (8 * width - 1));
    }
    return static_cast<int64_t>(value);
}

bool EncodeInteger(const VarInfo& var, const std::string& text, size_t width, bool isSigned,
                   std::vector<uint8_t>& out) {
    int64_t option = 0;
    if (OptionValue(var, text, option)) {
        out = BigEndian(static_cast<uint64_t>(option), width);
        return true;
    }
    const double scale = EffectiveScale(var.scale);
    if (scale == 1.0) {
        uint64_t u = 0;
        int64_t s = 0;
        if (!isSigned && ParseUnsigned(text, u)) {
            out = BigEndian(
                width >= 8 ? u : std::min<uint64_t>(u, (uint64_t{1} << (8 * width)) - 1), width);
            return true;
        }
        if (isSigned && ParseSigned(text, s)) {
            if (width < 8) {
                const int64_t high = (int64_t{1} << (8 * width - 1)) - 1;
                s = std::clamp(s, -high - 1, high);
            }
            out = BigEndian(static_cast<uint64_t>(s), width);
            return true;
        }
    }
    double value = 0.0;
    if (!ParseDouble(text, value)) return false;
    const double raw = std::round(value / scale);
    out = isSigned ? BigEndian(static_cast<uint64_t>(ClampToSigned(raw, width)), width)
                   : BigEndian(ClampToUnsigned(raw, width), width);
    return true;
}

bool EncodeFloat32(const VarInfo& var, const std::string& text, std::vector<uint8_t>& out) {
    double value = 0.0;
    if (!ParseDouble(text, value)) return false;
    const float f = static_cast<float>(value / EffectiveScale(var.scale));
    uint32_t bits = 0;
    std::memcpy(&bits, &f, sizeof bits);
    out = BigEndian(bits, 4);
    return true;
}

bool EncodeDouble(const VarInfo& var, const std::string& text, std::vector<uint8_t>& out) {
    double value = 0.0;
    if (!ParseDouble(text, value)) return false;
    const double d = value / EffectiveScale(var.scale);
    uint64_t bits = 0;
    std::memcpy(&bits, &d, sizeof bits);
    out = BigEndian(bits, 8);
    return true;
}

bool ParseBoundedDecimal(const std::string& text, uint64_t max, uint64_t& out) {
    if (text.empty() || text.size() > 10) return false;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    out = std::strtoull(text.c_str(), nullptr, 10);
    return out <= max;
}

bool EncodeIp(const std::string& text, std::vector<uint8_t>& out) {
    out.clear();
    for (const std::string& part : Split(Trimmed(text), '.')) {
        uint64_t octet = 0;
        if (!ParseBoundedDecimal(part, 255, octet)) return false;
        out.push_back(static_cast<uint8_t>(octet));
    }
    return true;
}

bool EncodeMac(const std::string& text, std::vector<uint8_t>& out) {
    std::string digits;
    for (char c : Trimmed(text)) {
        if (c != ':' && c != '-') digits.push_back(c);
    }
    return digits.size() == 12 && ParseHexPairs(digits, out);
}

// "a.b.c[.d]" at the end of a version text; each number within its field's bounds.
bool ParseVersionNumbers(const std::string& text, const std::vector<uint64_t>& maxima,
                         size_t required, std::vector<uint64_t>& numbers) {
    const std::vector<std::string> parts = Split(text, '.');
    if (parts.size() < required || parts.size() > maxima.size()) return false;
    numbers.assign(maxima.size(), 0);
    for (size_t i = 0; i < parts.size(); ++i) {
        if (!ParseBoundedDecimal(parts[i], maxima[i], numbers[i])) return false;
    }
    return true;
}

// Splits a version display text into its character prefix (at most prefixLength characters) and
// its number part. A text of full prefix length is split at that length; a shorter prefix is
// taken as short as possible, so that leading digits belong to the first number.
bool SplitVersionText(const std::string& text, size_t prefixLength,
                      const std::vector<uint64_t>& maxima, size_t required, std::string& prefix,
                      std::vector<uint64_t>& numbers) {
    if (text.size() > prefixLength &&
        ParseVersionNumbers(text.substr(prefixLength), maxima, required, numbers)) {
        prefix = text.substr(0, prefixLength);
        return true;
    }
    for (size_t cut = 0; cut < prefixLength && cut < text.size(); ++cut) {
        if (ParseVersionNumbers(text.substr(cut), maxima, required, numbers)) {
            prefix = text.substr(0, cut);
            return true;
        }
    }
    return false;
}

// The decoder trims NULs at both ends of the whole text, so a short prefix is right-aligned with
// NULs before it: the bytes then decode back to exactly the catalogue's text.
void PutPrefix(const std::string& prefix, size_t prefixLength, std::vector<uint8_t>& out) {
    const size_t pad = prefixLength - prefix.size();
    for (size_t i = 0; i < prefix.size(); ++i) out[pad + i] = static_cast<uint8_t>(prefix[i]);
}

bool EncodeHwVersion(const std::string& text, std::vector<uint8_t>& out) {
    std::string prefix;
    std::vector<uint64_t> n;
    if (!SplitVersionText(text, 9, {255, 255, 65535, 65535}, 3, prefix, n)) return false;
    out.assign(16, 0);
    PutPrefix(prefix, 9, out);
    out[9] = static_cast<uint8_t>(n[0]);
    out[10] = static_cast<uint8_t>(n[1]);
    out[11] = static_cast<uint8_t>(n[2] >> 8);
    out[12] = static_cast<uint8_t>(n[2]);
    out[13] = static_cast<uint8_t>(n[3] >> 8);
    out[14] = static_cast<uint8_t>(n[3]);
    return true;
}

bool EncodeSwVersion(const std::string& text, std::vector<uint8_t>& out) {
    std::string prefix;
    std::vector<uint64_t> n;
    if (!SplitVersionText(text, 12, {255, 255, 255}, 3, prefix, n)) return false;
    out.assign(16, 0);
    PutPrefix(prefix, 12, out);
    out[12] = static_cast<uint8_t>(n[0]);
    out[13] = static_cast<uint8_t>(n[1]);
    out[14] = static_cast<uint8_t>(n[2]);
    return true;
}

// "1 h 2 min 3 s" as displayed, or a plain number of seconds.
bool EncodeDuration(const std::string& text, size_t width, std::vector<uint8_t>& out) {
    uint64_t seconds = 0;
    unsigned long long h = 0, m = 0, s = 0;
    int consumed = 0;
    const std::string t = Trimmed(text);
    if (std::sscanf(t.c_str(), "%llu h %llu min %llu s%n", &h, &m, &s, &consumed) == 3 &&
        static_cast<size_t>(consumed) == t.size()) {
        seconds = h * 3600 + m * 60 + s;
    } else if (!ParseUnsigned(t, seconds)) {
        return false;
    }
    out = BigEndian(seconds, width);
    return true;
}

std::vector<uint8_t> TextBytes(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

// Serial numbers, part numbers and byte fields are texts, unless the default is written as hex
// digit pairs that either carry a "0x" prefix or exactly fill the field ("00000000" for 4 bytes).
bool EncodeTextOrHex(const std::string& text, size_t width, std::vector<uint8_t>& out) {
    std::vector<uint8_t> bytes;
    const std::string t = Trimmed(text);
    if (ParseHexPairs(t, bytes) && (HasHexPrefix(t) || bytes.size() == width)) {
        out = std::move(bytes);
        return true;
    }
    out = TextBytes(text);
    return true;
}

int IntegerWidth(const std::string& type, bool& isSigned) {
    static const struct {
        const char* name;
        int width;
        bool isSigned;
    } kTypes[] = {{"uint8", 1, false},  {"uint16", 2, false}, {"uint32", 4, false},
                  {"uint64", 8, false}, {"int8", 1, true},    {"int16", 2, true},
                  {"int32", 4, true},   {"int64", 8, true}};
    for (const auto& t : kTypes) {
        if (type == t.name) {
            isSigned = t.isSigned;
            return t.width;
        }
    }
    return 0;
}

bool EncodeByType(const VarInfo& var, const std::string& text, std::vector<uint8_t>& out) {
    const std::string& type = var.var_type;
    bool isSigned = false;
    if (const int width = IntegerWidth(type, isSigned)) {
        return EncodeInteger(var, Trimmed(text), static_cast<size_t>(width), isSigned, out);
    }
    if (type == "float32") return EncodeFloat32(var, text, out);
    if (type == "double") return EncodeDouble(var, text, out);
    if (type == "IP") return EncodeIp(text, out);
    if (type == "MAC") return EncodeMac(text, out);
    if (type == "HWVER") return EncodeHwVersion(text, out);
    if (type == "SWVER_YMD") return EncodeSwVersion(text, out);
    if (type == "DT") return EncodeDuration(text, static_cast<size_t>(var.offset), out);
    if (type == "string") {
        out = TextBytes(text);
        return true;
    }
    if (type == "SN" || type == "PN" || type == "BYTES") {
        return EncodeTextOrHex(text, static_cast<size_t>(var.offset), out);
    }
    if (type == "raw") return ParseHexPairs(Trimmed(text), out);
    return false;
}

}  // namespace

namespace {

// -1 for a character that is not a hexadecimal digit.
int HexDigitValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const char lower = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (lower >= 'a' && lower <= 'f') return lower - 'a' + 10;
    return -1;
}

}  // namespace

// Command texts are read here on their own, so that the simulator never inherits a fault of the
// manager's conversion: hexadecimal with or without "0x"; a longer text is a sub-command, walked
// in pairs like the manager does ("0x" pairs skipped, a lone trailing digit not sent).
bool ParseCommandText(const std::string& text, WireCommand& out) {
    const std::string t = Trimmed(text);
    if (t.empty()) return false;
    if (t.size() > 4) {
        std::vector<uint8_t> prefix;
        for (size_t i = 0; i + 1 < t.size(); i += 2) {
            if (t[i] == '0' && (t[i + 1] == 'x' || t[i + 1] == 'X')) continue;
            const int high = HexDigitValue(t[i]);
            const int low = HexDigitValue(t[i + 1]);
            if (high < 0 || low < 0) return false;
            prefix.push_back(static_cast<uint8_t>(high * 16 + low));
        }
        if (prefix.empty()) return false;
        out.command = 0xFF;
        out.prefix = std::move(prefix);
        return true;
    }
    const size_t digitsAt = (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) ? 2 : 0;
    if (t.size() - digitsAt > 2) return false;
    unsigned value = 0;
    for (size_t i = digitsAt; i < t.size(); ++i) {
        const int digit = HexDigitValue(t[i]);
        if (digit < 0) return false;
        value = value * 16 + static_cast<unsigned>(digit);
    }
    out.command = static_cast<uint8_t>(value);
    out.prefix.clear();
    return true;
}

std::vector<uint8_t> EncodeDefaultValue(const VarInfo& var, bool* parsed) {
    const size_t length = var.offset > 0 ? static_cast<size_t>(var.offset) : 0;
    std::vector<uint8_t> bytes;
    const bool ok = !var.default_val.empty() && EncodeByType(var, var.default_val, bytes);
    if (parsed) *parsed = ok;
    if (!ok) return std::vector<uint8_t>(length, 0);
    bytes.resize(length, 0);
    return bytes;
}

bool EncodeDisplayValue(const VarInfo& var, const std::string& text, std::vector<uint8_t>& out) {
    if (!EncodeByType(var, text, out)) return false;
    out.resize(var.offset > 0 ? static_cast<size_t>(var.offset) : 0, 0);
    return true;
}

}  // namespace sim::detail
