#include "value_parsers.h"

#include <gmpxx.h>

#include <QStringList>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "developer_log.h"

namespace {

enum class DecimalStatus { kOk, kNotDecimal, kTooLarge, kTooSmall };

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

bool isAsciiSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

// Beyond this many decades a typed number is far outside every type the device holds, and
// building it exactly would only cost memory.
constexpr long kLargestDecade = 10000;

mpz_class powerOfTen(unsigned long exponent) {
    mpz_class result;
    mpz_ui_pow_ui(result.get_mpz_t(), 10, exponent);
    return result;
}

// Reads [sign] digits [. digits] [e|E [sign] digits], surrounded by optional blanks, as the exact
// rational it denotes. The grammar is the C locale's whatever the desktop language is, so that a
// comma-decimal language can never change the value a user typed.
DecimalStatus readDecimal(std::string_view text, mpq_class& out) {
    size_t begin = 0, end = text.size();
    while (begin < end && isAsciiSpace(text[begin])) ++begin;
    while (end > begin && isAsciiSpace(text[end - 1])) --end;
    size_t i = begin;
    bool negative = false;
    if (i < end && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';

    std::string digits;
    long fractionDigits = 0;
    for (; i < end && isDigit(text[i]); ++i) digits += text[i];
    if (i < end && text[i] == '.') {
        for (++i; i < end && isDigit(text[i]); ++i, ++fractionDigits) digits += text[i];
    }
    if (digits.empty()) return DecimalStatus::kNotDecimal;

    long exponent = 0;
    if (i < end && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        bool negativeExponent = false;
        if (i < end && (text[i] == '+' || text[i] == '-')) negativeExponent = text[i++] == '-';
        if (i == end || !isDigit(text[i])) return DecimalStatus::kNotDecimal;
        for (; i < end && isDigit(text[i]); ++i) {
            if (exponent < 10 * kLargestDecade) exponent = exponent * 10 + (text[i] - '0');
        }
        if (negativeExponent) exponent = -exponent;
    }
    if (i != end) return DecimalStatus::kNotDecimal;

    const size_t firstNonZero = digits.find_first_not_of('0');
    if (firstNonZero == std::string::npos) {
        out = 0;
        return DecimalStatus::kOk;
    }
    digits.erase(0, firstNonZero);
    const long decade = exponent - fractionDigits;
    const long magnitude = decade + static_cast<long>(digits.size());
    if (magnitude > kLargestDecade) return DecimalStatus::kTooLarge;
    if (magnitude < -kLargestDecade) return DecimalStatus::kTooSmall;

    mpz_class mantissa(digits, 10);
    if (negative) mantissa = -mantissa;
    if (decade >= 0) {
        out = mpq_class(mantissa * powerOfTen(static_cast<unsigned long>(decade)));
    } else {
        out = mpq_class(mantissa, powerOfTen(static_cast<unsigned long>(-decade)));
        out.canonicalize();
    }
    return DecimalStatus::kOk;
}

// The catalogue stores scales as floats; the value meant is the shortest decimal that reads back
// as that float ("0.01" rather than 0.00999999977648258). False for 0, infinities and NaN, which
// no value can be divided by.
bool exactScale(float scale, mpq_class& out) {
    if (!std::isfinite(scale) || scale == 0.0f) return false;
    char text[64];
    const auto result = std::to_chars(text, text + sizeof(text), scale);
    return readDecimal(std::string_view(text, static_cast<size_t>(result.ptr - text)), out) ==
           DecimalStatus::kOk;
}

mpq_class powerOfTwo(int exponent) {
    mpz_class power = 1;
    power <<= static_cast<mp_bitcnt_t>(exponent < 0 ? -exponent : exponent);
    return exponent < 0 ? mpq_class(1, power) : mpq_class(power);
}

// The binary floating-point number of type T nearest to `value` (ties to even), computed from the
// exact rational so that it is rounded once. False when it overflows T or underflows to zero.
template <typename T>
bool nearestBinary(const mpq_class& value, T& out) {
    if (value == 0) {
        out = 0;
        return true;
    }
    const mpq_class magnitude = abs(value);
    // 2^e <= magnitude < 2^(e+1)
    int e = static_cast<int>(mpz_sizeinbase(magnitude.get_num_mpz_t(), 2)) -
            static_cast<int>(mpz_sizeinbase(magnitude.get_den_mpz_t(), 2));
    if (magnitude < powerOfTwo(e)) --e;
    constexpr int kDigits = std::numeric_limits<T>::digits;
    constexpr int kMinNormal = std::numeric_limits<T>::min_exponent - 1;
    if (e > std::numeric_limits<T>::max_exponent) return false;
    const int unit = std::max(e, kMinNormal) - (kDigits - 1);
    const mpq_class scaled = magnitude / powerOfTwo(unit);
    mpz_class mantissa = scaled.get_num() / scaled.get_den();
    const mpq_class remainder = scaled - mpq_class(mantissa);
    const mpq_class half(1, 2);
    if (remainder > half || (remainder == half && mpz_odd_p(mantissa.get_mpz_t()))) ++mantissa;
    if (mantissa == 0) return false;
    const T result = std::ldexp(static_cast<T>(mantissa.get_d()), unit);
    if (!std::isfinite(result)) return false;
    out = value < 0 ? -result : result;
    return true;
}

// True for a non-zero value closer to zero than the smallest normal T: the standard conversions
// (stof, stod) report those as out of range, and the parsers keep that answer.
template <typename T>
bool belowSmallestNormal(const mpq_class& value) {
    return value != 0 && abs(value) < mpq_class(static_cast<double>(std::numeric_limits<T>::min()));
}

// value / scale for a parser whose text passed isNumeric; throws with that parser's illegal-number
// message for texts such as "inf" and "nan", which name no value.
template <typename T>
mpq_class exactQuotient(const std::string& text, float scale, const char* illegalMessage,
                        DecimalStatus& status) {
    mpq_class value;
    status = readDecimal(text, value);
    if (status == DecimalStatus::kNotDecimal) throwIllegalNumber(illegalMessage, text);
    if (status == DecimalStatus::kOk && belowSmallestNormal<T>(value))
        status = DecimalStatus::kTooSmall;
    mpq_class divisor;
    // Dividing by a zero (or non-finite) scale gives no finite value: refused as out of range.
    if (!exactScale(scale, divisor)) status = DecimalStatus::kTooLarge;
    if (status != DecimalStatus::kOk) return 0;
    return value / divisor;
}

// Two's complement bytes of a value already known to fit in `width` bytes.
std::vector<unsigned char> integerBytes(const mpz_class& value, unsigned long width) {
    mpz_class wrapped = value;
    if (wrapped < 0) wrapped += mpz_class(1) << static_cast<mp_bitcnt_t>(8 * width);
    std::vector<unsigned char> bytes(width, 0);
    for (unsigned long i = 0; i < width; ++i) {
        const mpz_class byte = (wrapped >> static_cast<mp_bitcnt_t>(8 * (width - 1 - i))) & 0xFF;
        bytes[i] = static_cast<unsigned char>(byte.get_ui());
    }
    return bytes;
}

mpz_class truncatedTowardZero(const mpq_class& value) {
    mpz_class result;
    mpz_tdiv_q(result.get_mpz_t(), value.get_num_mpz_t(), value.get_den_mpz_t());
    return result;
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
    static const char* const kIllegal = "IntParser: contains an illegal number, error:";
    static const char* const kStofFailed = "IntParser: stof() failed, error:stof";
    if (!isNumeric(QString::fromStdString(text))) throwIllegalNumber(kIllegal, text);
    DecimalStatus status = DecimalStatus::kOk;
    const mpq_class raw = exactQuotient<float>(text, scale, kIllegal, status);
    if (status == DecimalStatus::kTooLarge) throwIllegalNumber(kIllegal, text);
    if (status == DecimalStatus::kTooSmall) throw std::invalid_argument(kStofFailed);

    // The check is on the exact quotient and the full width of the type; the raw value is then
    // truncated toward zero, as the device has always been sent.
    if (width_ >= 1 && width_ <= 8) {
        const mpz_class limit = mpz_class(1) << static_cast<mp_bitcnt_t>(8 * width_ - 1);
        if (raw > mpq_class(limit - 1) || raw < mpq_class(-limit))
            throwIllegalNumber(kIllegal, text);
    }
    if (width_ != 1 && width_ != 2 && width_ != 4 && width_ != 8) {
        char width[32];
        std::snprintf(width, sizeof(width), "%lu", width_);
        throw std::invalid_argument(
            std::string("intParser: parser_length is not supported, error:") + width);
    }
    return integerBytes(truncatedTowardZero(raw), width_);
}

std::vector<unsigned char> UintParser::parse(const std::string& text, float scale) {
    static const char* const kIllegal = "UintParser: contains an illegal number, error:";
    static const char* const kStofFailed = "UintParser: stof() failed, error:stof";
    if (!isNumeric(QString::fromStdString(text))) throwIllegalNumber(kIllegal, text);
    DecimalStatus status = DecimalStatus::kOk;
    const mpq_class raw = exactQuotient<float>(text, scale, kIllegal, status);
    if (status == DecimalStatus::kTooLarge) throwIllegalNumber(kIllegal, text);
    if (status == DecimalStatus::kTooSmall) throw std::invalid_argument(kStofFailed);

    // The shift count wraps modulo 32 on purpose: widths 4 and 8 get a limit of 1, so such
    // variables accept only values that scale into [0, 1). This is the established behaviour of
    // the settings writer and is kept as it is.
    const uint32_t shift = static_cast<uint32_t>((8 * width_) % 32);
    const mpq_class limit(mpz_class(uint32_t{1} << shift));
    if (raw >= limit || raw < 0) throwIllegalNumber(kIllegal, text);
    return integerBytes(truncatedTowardZero(raw), width_);
}

std::vector<unsigned char> FloatParser::parse(const std::string& text, float scale) {
    static const char* const kIllegal = "FloatParser: contains an illegal number, error:";
    if (!isNumeric(QString::fromStdString(text))) throwIllegalNumber(kIllegal, text);
    DecimalStatus status = DecimalStatus::kOk;
    const mpq_class exact = exactQuotient<float>(text, scale, kIllegal, status);
    float v = 0.0f;
    if (status != DecimalStatus::kOk || !nearestBinary(exact, v))
        throw std::invalid_argument("FloatParser: stof() out of range, error:stof");

    uint32_t bits = 0;
    std::memcpy(&bits, &v, sizeof(bits));
    return bigEndianBytes(bits, sizeof(bits));
}

std::vector<unsigned char> DoubleParser::parse(const std::string& text, float scale) {
    static const char* const kIllegal = "DoubleParser: contains an illegal number, error:";
    if (!isNumeric(QString::fromStdString(text))) throwIllegalNumber(kIllegal, text);
    DecimalStatus status = DecimalStatus::kOk;
    const mpq_class exact = exactQuotient<double>(text, scale, kIllegal, status);
    double v = 0.0;
    if (status != DecimalStatus::kOk || !nearestBinary(exact, v))
        throw std::invalid_argument("DoubleParser: stod() out of range, error:stod");

    uint64_t bits = 0;
    std::memcpy(&bits, &v, sizeof(bits));
    return bigEndianBytes(bits, sizeof(bits));
}

bool encodesInteger(const std::string& varType) {
    return varType != "float32" && varType != "double";
}

LimitCheck checkDecimalWithinLimits(const std::string& text, float factor, int32_t minVal,
                                    int32_t maxVal, double conversionLimit, bool integerEncoding) {
    mpq_class value;
    const DecimalStatus status = readDecimal(text, value);
    if (status == DecimalStatus::kNotDecimal) return LimitCheck::kNotANumber;
    if (status == DecimalStatus::kTooLarge ||
        abs(truncatedTowardZero(value)) > mpz_class(mpq_class(conversionLimit)))
        return LimitCheck::kBeyondConversion;
    mpq_class exactFactor;
    if (!exactScale(factor, exactFactor)) return LimitCheck::kOutside;
    // Truncated toward zero where the writer truncates the raw value it sends.
    const mpq_class raw =
        status == DecimalStatus::kOk ? mpq_class(value * exactFactor) : mpq_class(0);
    const mpq_class scaled = integerEncoding ? mpq_class(truncatedTowardZero(raw)) : raw;
    return scaled < minVal || scaled > maxVal ? LimitCheck::kOutside : LimitCheck::kWithin;
}

namespace {

// An exact decimal text of a rational that has a finite decimal expansion (a whole number times
// a decimal scale); up to 20 decimals are tried.
std::string decimalText(const mpq_class& value) {
    mpq_class scaled = value;
    int decimals = 0;
    while (scaled.get_den() != 1 && decimals < 20) {
        scaled *= 10;  // the product is kept in lowest terms
        ++decimals;
    }
    const mpz_class whole = truncatedTowardZero(scaled);
    std::string digits = mpz_class(abs(whole)).get_str();
    if (decimals > 0) {
        if (digits.size() <= static_cast<size_t>(decimals))
            digits.insert(0, static_cast<size_t>(decimals) + 1 - digits.size(), '0');
        digits.insert(digits.size() - static_cast<size_t>(decimals), ".");
    }
    return (whole < 0 ? "-" : "") + digits;
}

// The raw range [low, high] of an integer var_type; false for any other type.
bool integerTypeRange(const std::string& varType, mpz_class& low, mpz_class& high) {
    const bool isSigned = varType.rfind("int", 0) == 0;
    const bool isUnsigned = varType.rfind("uint", 0) == 0;
    if (!isSigned && !isUnsigned) return false;
    const std::string bits = varType.substr(isSigned ? 3 : 4);
    if (bits != "8" && bits != "16" && bits != "32" && bits != "64") return false;
    const auto width = static_cast<mp_bitcnt_t>(std::stoi(bits));
    low = isSigned ? mpz_class(-(mpz_class(1) << (width - 1))) : mpz_class(0);
    high = (mpz_class(1) << (isSigned ? width - 1 : width)) - 1;
    return true;
}

}  // namespace

std::string typeRangeIfOutside(const std::string& varType, const std::string& text, float scale) {
    mpz_class low;
    mpz_class high;
    mpq_class value;
    mpq_class divisor;
    if (!integerTypeRange(varType, low, high) || !exactScale(scale, divisor)) return std::string();
    const DecimalStatus status = readDecimal(text, value);
    if (status == DecimalStatus::kNotDecimal || status == DecimalStatus::kTooSmall)
        return std::string();
    if (status == DecimalStatus::kOk) {
        const mpq_class raw = value / divisor;
        if (raw >= mpq_class(low) && raw <= mpq_class(high)) return std::string();
    }
    mpq_class lowShown = mpq_class(low) * divisor;
    mpq_class highShown = mpq_class(high) * divisor;
    if (lowShown > highShown) std::swap(lowShown, highShown);  // a negative scale
    return decimalText(lowShown) + " to " + decimalText(highShown);
}

std::string stepIfFractionCut(const std::string& varType, const std::string& text, float scale) {
    mpz_class low;
    mpz_class high;
    mpq_class value;
    mpq_class divisor;
    if (!integerTypeRange(varType, low, high) || !exactScale(scale, divisor)) return std::string();
    if (readDecimal(text, value) != DecimalStatus::kOk) return std::string();
    const mpq_class raw = value / divisor;
    if (raw.get_den() == 1) return std::string();
    return decimalText(abs(divisor));
}

bool decimalInTenths(const std::string& text, int64_t& tenths) {
    mpq_class value;
    if (readDecimal(text, value) != DecimalStatus::kOk) return false;
    const mpq_class scaled = value * 10;
    if (scaled.get_den() != 1 || !scaled.get_num().fits_slong_p()) return false;
    tenths = scaled.get_num().get_si();
    return true;
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
    developer_log::writeDeveloperLine("not developed");
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
