#include <cctype>
#include <string>

#include "sim/lidar_simulator.h"

namespace sim {
namespace {

// Digits only, no sign, at most `max`.
bool ParseCount(const std::string& text, long max, long& out) {
    if (text.empty() || text.size() > 9) return false;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    out = std::stol(text);
    return out <= max;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// "N:STATUS" with min <= N <= max and a status byte.
bool ParseCountAndStatus(const std::string& text, Fault::Kind kind, long min, long max,
                         Fault& out) {
    const size_t colon = text.find(':');
    long number = 0;
    long status = 0;
    if (colon == std::string::npos || !ParseCount(text.substr(0, colon), max, number) ||
        number < min || !ParseCount(text.substr(colon + 1), 255, status))
        return false;
    out = Fault{};
    out.kind = kind;
    out.count = static_cast<int>(number);
    out.status = static_cast<uint8_t>(status);
    return true;
}

}  // namespace

bool Fault::Parse(const std::string& text, Fault& out) {
    static const struct {
        const char* name;
        Kind kind;
    } kPlain[] = {{"no-reply", Kind::kNoReply},
                  {"close-mid-reply", Kind::kCloseMidReply},
                  {"bad-magic", Kind::kBadMagic},
                  {"oversized-length", Kind::kOversizedLength},
                  {"wrong-echo", Kind::kWrongEcho},
                  {"drop", Kind::kDrop},
                  {"crc-mismatch", Kind::kCrcMismatch},
                  {"garbage-before-reply", Kind::kGarbageBeforeReply},
                  {"bad-crc", Kind::kBadCrc}};
    for (const auto& plain : kPlain) {
        if (text == plain.name) {
            out = Fault{};
            out.kind = plain.kind;
            return true;
        }
    }
    long number = 0;
    constexpr long kMaxDelayMs = 10 * 60 * 1000;
    if (StartsWith(text, "delay=") && ParseCount(text.substr(6), kMaxDelayMs, number)) {
        out = Fault{};
        out.kind = Kind::kDelay;
        out.delayMs = static_cast<int>(number);
        return true;
    }
    if (StartsWith(text, "status=") && ParseCount(text.substr(7), 255, number)) {
        out = Fault{};
        out.kind = Kind::kStatus;
        out.status = static_cast<uint8_t>(number);
        return true;
    }
    if (StartsWith(text, "drop-after-chunks=") && ParseCount(text.substr(18), 1L << 30, number)) {
        out = Fault{};
        out.kind = Kind::kDropAfterChunks;
        out.count = static_cast<int>(number);
        return true;
    }
    if (StartsWith(text, "fail-chunk=")) {
        return ParseCountAndStatus(text.substr(11), Kind::kFailChunk, 1, 1L << 30, out);
    }
    if (StartsWith(text, "refuse-component=")) {
        return ParseCountAndStatus(text.substr(17), Kind::kRefuseComponent, 1, 1L << 30, out);
    }
    if (StartsWith(text, "refuse-component-type=")) {
        return ParseCountAndStatus(text.substr(22), Kind::kRefuseComponentType, 0, 255, out);
    }
    return false;
}

}  // namespace sim
