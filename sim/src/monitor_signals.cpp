#include "monitor_signals.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>

#include "value_codec.h"

namespace sim::detail {
namespace {

constexpr double kTwoPi = 6.283185307179586;

struct NumericType {
    const char* name;
    int width;
    bool integer;
};

const NumericType* NumericTypeOf(const std::string& type) {
    static const NumericType kTypes[] = {
        {"uint8", 1, true},    {"uint16", 2, true}, {"uint32", 4, true}, {"uint64", 8, true},
        {"int8", 1, true},     {"int16", 2, true},  {"int32", 4, true},  {"int64", 8, true},
        {"float32", 4, false}, {"double", 8, false}};
    for (const NumericType& t : kTypes)
        if (type == t.name) return &t;
    return nullptr;
}

double ParseBase(const std::string& text) {
    double value = 0;
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    while (begin < end && (*begin == ' ' || *begin == '+')) ++begin;
    const auto result = std::from_chars(begin, end, value);
    return result.ec == std::errc() && std::isfinite(value) ? value : 0.0;
}

// Splitmix64: a well-mixed number from the seed and the field, so that every field gets its own
// curve and another seed gives other curves.
uint64_t Mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ull;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
    return x ^ (x >> 31);
}

uint64_t FieldHash(const VarInfo& var, uint32_t seed) {
    uint64_t h = Mix(seed);
    for (unsigned char c : var.var_id) h = Mix(h ^ c);
    return h;
}

// A number in [0, 1) taken from bits of the hash.
double Fraction(uint64_t hash, int shift) {
    return static_cast<double>((hash >> shift) & 0xFFFF) / 65536.0;
}

// The display precision the scale gives: 0.01 shows two decimals, 1 none.
int DecimalsOf(const VarInfo& var, bool integer) {
    if (!integer) return 2;
    const double scale = std::fabs(static_cast<double>(var.scale));
    if (!std::isfinite(scale) || scale == 0.0 || scale >= 1.0) return 0;
    return std::clamp(static_cast<int>(std::ceil(-std::log10(scale) - 1e-9)), 0, 6);
}

// Fixed-point text in the C locale whatever the process's language is.
std::string FixedText(double value, int decimals) {
    char buffer[64];
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, decimals);
    return result.ec == std::errc() ? std::string(buffer, result.ptr) : std::string("0");
}

}  // namespace

bool MonitorSignals::Add(const BlockKey& key, const VarInfo& var, uint32_t seed) {
    const NumericType* type = NumericTypeOf(var.var_type);
    if (type == nullptr || var.offset != type->width || var.get_start_pos < 0) return false;
    const size_t start = static_cast<size_t>(var.get_start_pos);
    const bool taken = std::any_of(signals_.begin(), signals_.end(), [&](const Signal& s) {
        return s.key == key && s.start == start;
    });
    if (taken) return false;

    Signal signal;
    signal.key = key;
    signal.start = start;
    signal.var = var;
    signal.base = ParseBase(var.default_val);
    signal.decimals = DecimalsOf(var, type->integer);
    const uint64_t hash = FieldHash(var, seed);
    // Wide unscaled integers count events (frame drops, errors); everything else is a
    // measurement that wanders around its default.
    signal.counter = type->integer && type->width >= 4 && signal.decimals == 0;
    if (signal.counter) {
        signal.rate = 0.2 + 0.4 * Fraction(hash, 0);
    } else {
        const double step = std::pow(10.0, -signal.decimals);
        signal.amplitude = 0.03 * std::fabs(signal.base) + 5 * step;
        signal.period = 40 + 50 * Fraction(hash, 16);
        signal.phase = kTwoPi * Fraction(hash, 32);
    }
    signals_.push_back(std::move(signal));
    return true;
}

// Reading 0 is the default itself; later readings follow a slow wave with a faster ripple.
double MonitorSignals::ValueAt(const Signal& s, uint64_t n) const {
    const double t = static_cast<double>(n);
    if (s.counter) return s.base + std::floor(t * s.rate);
    const double slow = std::sin(kTwoPi * t / s.period + s.phase) - std::sin(s.phase);
    const double ripple =
        std::sin(kTwoPi * t / (s.period * 0.29) + 2 * s.phase) - std::sin(2 * s.phase);
    return s.base + s.amplitude * (slow + 0.3 * ripple);
}

void MonitorSignals::Apply(const BlockKey& key, uint64_t n, Bytes& block) const {
    for (const Signal& signal : signals_) {
        if (signal.key != key) continue;
        const size_t length = static_cast<size_t>(signal.var.offset);
        if (block.size() < signal.start + length) continue;
        Bytes bytes;
        if (!EncodeDisplayValue(signal.var, FixedText(ValueAt(signal, n), signal.decimals), bytes))
            continue;
        std::copy(bytes.begin(), bytes.end(),
                  block.begin() + static_cast<std::ptrdiff_t>(signal.start));
    }
}

void MonitorSignals::Release(const BlockKey& key, size_t offset, size_t length) {
    signals_.erase(
        std::remove_if(signals_.begin(), signals_.end(),
                       [&](const Signal& s) {
                           const size_t end = s.start + static_cast<size_t>(s.var.offset);
                           return s.key == key && s.start < offset + length && offset < end;
                       }),
        signals_.end());
}

bool MonitorSignals::Drives(const BlockKey& key) const {
    return std::any_of(signals_.begin(), signals_.end(),
                       [&](const Signal& s) { return s.key == key; });
}

}  // namespace sim::detail
