#include "value_parsers.h"

#include <QStringList>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <stdexcept>

namespace {

// The lowest `width` bytes of `value`, most significant first. Built by shifting rather than by
// copying host memory, so the result is network order on any host.
std::vector<unsigned char> bigEndianBytes(uint64_t value, unsigned long width) {
    std::vector<unsigned char> bytes(width, 0);
    for (unsigned long i = 0; i < width; ++i) {
        const unsigned long shift = 8 * (width - 1 - i);
        bytes[i] = shift < 64 ? static_cast<unsigned char>(value >> shift) : 0;
    }
    return bytes;
}

[[noreturn]] void throwIllegalNumber(const char* message, const std::string& text) {
    throw std::invalid_argument(message + text);
}

// Truncates toward zero; the range checks before it keep v within int64 except for the single
// float value 2^63 (the float image of the 8-byte upper bound), which saturates.
int64_t truncateToInt64(float v) {
    constexpr float kTwoPow63 = 9223372036854775808.0f;
    if (v >= kTwoPow63) return INT64_MAX;
    if (v < -kTwoPow63) return INT64_MIN;
    return static_cast<int64_t>(v);
}

uint64_t truncateToUint64(float v) {
    constexpr float kTwoPow63 = 9223372036854775808.0f;
    constexpr float kTwoPow64 = 18446744073709551616.0f;
    if (v >= kTwoPow64) return UINT64_MAX;
    if (v >= kTwoPow63) return static_cast<uint64_t>(v - kTwoPow63) | (uint64_t{1} << 63);
    return static_cast<uint64_t>(v);
}

}  // namespace

void reverseMemory(void* data, unsigned long size) {
    if (size < 2) return;
    auto* bytes = static_cast<unsigned char*>(data);
    for (unsigned long front = 0, back = size - 1; front < back; ++front, --back) {
        const unsigned char kept = bytes[front];
        bytes[front] = bytes[back];
        bytes[back] = kept;
    }
}

bool StrParser::isNumeric(const QString& text) {
    bool ok = false;
    text.toFloat(&ok);
    if (ok) return true;
    text.toInt(&ok, 10);
    return ok;
}

std::vector<unsigned char> IntParser::parse(const std::string& text, float scale) {
    if (!isNumeric(QString::fromStdString(text)))
        throwIllegalNumber("IntParser: contains an illegal number, error:", text);
    float v = 0.0f;
    try {
        v = std::stof(text);
    } catch (const std::exception& e) {
        throw std::invalid_argument(std::string("IntParser: stof() failed, error:") + e.what());
    }
    v = v / scale;

    // Signed exponent, so that a width of 0 cannot wrap around; absurd widths just overflow to
    // infinity and are refused below by the width test.
    const int exponent = width_ > 128 ? 1024 : static_cast<int>(8 * width_) - 1;
    const double limit = std::ldexp(1.0, exponent);
    const float upper = static_cast<float>(limit - 1);
    const float lower = static_cast<float>(-limit);
    // A NaN slips through both comparisons and has no integer value.
    if (std::isnan(v) || v > upper || v < lower)
        throwIllegalNumber("IntParser: contains an illegal number, error:", text);

    const int64_t raw = truncateToInt64(v);
    if (width_ != 1 && width_ != 2 && width_ != 4 && width_ != 8) {
        char width[32];
        std::snprintf(width, sizeof(width), "%lu", width_);
        throw std::invalid_argument(
            std::string("intParser: parser_length is not supported, error:") + width);
    }
    return bigEndianBytes(static_cast<uint64_t>(raw), width_);
}

std::vector<unsigned char> UintParser::parse(const std::string& text, float scale) {
    if (!isNumeric(QString::fromStdString(text)))
        throwIllegalNumber("UintParser: contains an illegal number, error:", text);
    float v = 0.0f;
    try {
        v = std::stof(text);
    } catch (const std::exception& e) {
        throw std::invalid_argument(std::string("UintParser: stof() failed, error:") + e.what());
    }
    v = v / scale;

    // The shift count wraps modulo 32 on purpose: widths 4 and 8 get a limit of 1, so such
    // variables accept only values that scale into [0, 1). This is the established behaviour of
    // the settings writer and is kept as it is.
    const uint32_t shift = static_cast<uint32_t>((8 * width_) % 32);
    const float limit = static_cast<float>(uint32_t{1} << shift);
    if (std::isnan(v) || v >= limit || v < 0)
        throwIllegalNumber("UintParser: contains an illegal number, error:", text);

    return bigEndianBytes(truncateToUint64(v), width_);
}

std::vector<unsigned char> FloatParser::parse(const std::string& text, float scale) {
    if (!isNumeric(QString::fromStdString(text)))
        throwIllegalNumber("FloatParser: contains an illegal number, error:", text);
    float v = 0.0f;
    try {
        v = std::stof(text);
    } catch (const std::out_of_range& e) {
        throw std::invalid_argument(std::string("FloatParser: stof() out of range, error:") +
                                    e.what());
    } catch (const std::exception& e) {
        throw std::invalid_argument(std::string("FloatParser: stof() failed, error:") + e.what());
    }
    v = v / scale;

    uint32_t bits = 0;
    std::memcpy(&bits, &v, sizeof(bits));
    return bigEndianBytes(bits, sizeof(bits));
}

std::vector<unsigned char> DoubleParser::parse(const std::string& text, float scale) {
    if (!isNumeric(QString::fromStdString(text)))
        throwIllegalNumber("DoubleParser: contains an illegal number, error:", text);
    double v = 0.0;
    try {
        v = std::stod(text);
    } catch (const std::out_of_range& e) {
        throw std::invalid_argument(std::string("DoubleParser: stod() out of range, error:") +
                                    e.what());
    } catch (const std::exception& e) {
        throw std::invalid_argument(std::string("DoubleParser: stod() failed, error:") + e.what());
    }
    v = v / static_cast<double>(scale);

    uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof(bits));
    return bigEndianBytes(bits, sizeof(bits));
}

std::vector<unsigned char> IPv4Parser::parse(const std::string& text, float /*scale*/) {
    const QStringList parts = QString::fromStdString(text).split('.');
    if (parts.size() != 4) throw std::invalid_argument("IPv4Parser: ip address, wrong format.");
    std::vector<unsigned char> bytes;
    bytes.reserve(4);
    for (const QString& part : parts) {
        bool ok = false;
        const uint value = part.toUInt(&ok, 10);
        if (!ok || value >= 256)
            throw std::invalid_argument("IPv4Parser: contains an illegal number");
        bytes.push_back(static_cast<unsigned char>(value));
    }
    return bytes;
}

std::vector<unsigned char> MacParser::parse(const std::string& text, float /*scale*/) {
    const QStringList parts = QString::fromStdString(text).split(':');
    // "ip address" in this message is how the UI has always shown it.
    if (parts.size() != 6) throw std::invalid_argument("MacParser: ip address, wrong format.");
    std::vector<unsigned char> bytes;
    bytes.reserve(6);
    for (const QString& part : parts) {
        bool ok = false;
        const uint value = part.toUInt(&ok, 16);
        if (!ok || value > 255)
            throw std::invalid_argument("MacParser: contains an illegal number");
        bytes.push_back(static_cast<unsigned char>(value));
    }
    return bytes;
}

std::vector<unsigned char> RawParser::parse(const std::string& /*text*/, float /*scale*/) {
    std::cout << "not developed" << std::endl;
    return {};
}

std::unique_ptr<StrParser> parserForVarType(const std::string& varType) {
    if (varType == "int8") return std::make_unique<IntParser>(1);
    if (varType == "int16") return std::make_unique<IntParser>(2);
    if (varType == "int32") return std::make_unique<IntParser>(4);
    if (varType == "int64") return std::make_unique<IntParser>(8);
    if (varType == "uint8") return std::make_unique<UintParser>(1);
    if (varType == "uint16") return std::make_unique<UintParser>(2);
    if (varType == "uint32") return std::make_unique<UintParser>(4);
    if (varType == "uint64") return std::make_unique<UintParser>(8);
    if (varType == "float32") return std::make_unique<FloatParser>();
    if (varType == "double") return std::make_unique<DoubleParser>();
    if (varType == "IP") return std::make_unique<IPv4Parser>();
    if (varType == "MAC") return std::make_unique<MacParser>();
    if (varType == "raw") return std::make_unique<RawParser>();
    return nullptr;
}
