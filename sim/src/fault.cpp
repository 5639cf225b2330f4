#include <cctype>
#include <string>

#include "sim/lidar_simulator.h"

namespace sim {
namespace {

using Value = FaultMode::Value;
using Scope = FaultMode::Scope;

constexpr long kMaxDelayMs = 10 * 60 * 1000;
constexpr long kMaxCount = 1L << 30;
constexpr size_t kMaxDigits = 9;

// Digits only, no sign, at most `max` (and at most kMaxDigits digits).
bool ParseCount(const std::string& text, long max, long& out) {
    if (text.empty() || text.size() > kMaxDigits) return false;
    for (char c : text) {
        if (!std::isdigit(static_cast<unsigned char>(c))) return false;
    }
    out = std::stol(text);
    return out <= max;
}

// "N:STATUS" with min <= N <= max and a status byte.
bool ParseCountAndStatus(const std::string& text, long min, long max, Fault& out) {
    const size_t colon = text.find(':');
    long number = 0;
    long status = 0;
    if (colon == std::string::npos || !ParseCount(text.substr(0, colon), max, number) ||
        number < min || !ParseCount(text.substr(colon + 1), 255, status))
        return false;
    out.count = static_cast<int>(number);
    out.status = static_cast<uint8_t>(status);
    return true;
}

// The text after a mode's "=", into the field the mode's value sets.
bool ParseValue(Value value, const std::string& text, Fault& out) {
    long number = 0;
    switch (value) {
        case Value::kNone:
            return false;
        case Value::kMilliseconds:
            if (!ParseCount(text, kMaxDelayMs, number)) return false;
            out.delayMs = static_cast<int>(number);
            return true;
        case Value::kStatus:
            if (!ParseCount(text, 255, number)) return false;
            out.status = static_cast<uint8_t>(number);
            return true;
        case Value::kCount:
            if (!ParseCount(text, kMaxCount, number)) return false;
            out.count = static_cast<int>(number);
            return true;
        case Value::kPositionAndStatus:
            return ParseCountAndStatus(text, 1, kMaxCount, out);
        case Value::kTypeAndStatus:
            return ParseCountAndStatus(text, 0, 255, out);
    }
    return false;
}

const char* ValueSyntax(Value value) {
    switch (value) {
        case Value::kNone:
            return "";
        case Value::kMilliseconds:
            return "=MS";
        case Value::kStatus:
        case Value::kCount:
            return "=N";
        case Value::kPositionAndStatus:
            return "=N:STATUS";
        case Value::kTypeAndStatus:
            return "=T:STATUS";
    }
    return "";
}

// "0-255": the numbers ParseCount takes up to `max`, digit limit included.
std::string RangeText(long min, long max) {
    const long mostDigits = 999999999;  // kMaxDigits nines
    return std::to_string(min) + "-" + std::to_string(max < mostDigits ? max : mostDigits);
}

// What a mode's value takes, as the message about a wrong one says it: "=MS (0-600000)".
std::string ValueTaken(Value value) {
    switch (value) {
        case Value::kNone:
            return "no value";
        case Value::kMilliseconds:
            return "=MS (" + RangeText(0, kMaxDelayMs) + ")";
        case Value::kStatus:
            return "=N (" + RangeText(0, 255) + ")";
        case Value::kCount:
            return "=N (" + RangeText(0, kMaxCount) + ")";
        case Value::kPositionAndStatus:
            return "=N:STATUS (N " + RangeText(1, kMaxCount) + ", STATUS " + RangeText(0, 255) +
                   ")";
        case Value::kTypeAndStatus:
            return "=T:STATUS (T " + RangeText(0, 255) + ", STATUS " + RangeText(0, 255) + ")";
    }
    return "";
}

}  // namespace

std::string Fault::Problem(const std::string& text) {
    Fault parsed;
    if (Parse(text, parsed)) return "";
    const size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    for (const FaultMode& mode : FaultModes()) {
        if (name != mode.name) continue;
        const std::string taken = ValueTaken(mode.value);
        if (mode.value == Value::kNone) return name + " takes " + taken + ", not '" + text + "'";
        if (equals == std::string::npos) return name + " needs " + taken;
        return name + " needs " + taken + ", not '" + text.substr(equals + 1) + "'";
    }
    return "unknown fault mode '" + name + "'";
}

std::string FaultMode::Syntax() const {
    return std::string(name) + ValueSyntax(value);
}

const std::vector<FaultMode>& FaultModes() {
    using Kind = Fault::Kind;
    static const std::vector<FaultMode> kModes = {
        {"no-reply", Value::kNone, Kind::kNoReply, Scope::kAnyCommand},
        {"delay", Value::kMilliseconds, Kind::kDelay, Scope::kAnyCommand},
        {"close-mid-reply", Value::kNone, Kind::kCloseMidReply, Scope::kAnyCommand},
        {"bad-magic", Value::kNone, Kind::kBadMagic, Scope::kAnyCommand},
        {"oversized-length", Value::kNone, Kind::kOversizedLength, Scope::kAnyCommand},
        {"wrong-echo", Value::kNone, Kind::kWrongEcho, Scope::kAnyCommand},
        {"status", Value::kStatus, Kind::kStatus, Scope::kAnyCommand},
        {"drop", Value::kNone, Kind::kDrop, Scope::kAnyCommand},
        {"drop-after-chunks", Value::kCount, Kind::kDropAfterChunks, Scope::kTransfers},
        {"fail-chunk", Value::kPositionAndStatus, Kind::kFailChunk, Scope::kTransfers},
        {"crc-mismatch", Value::kNone, Kind::kCrcMismatch, Scope::kTransfers},
        {"refuse-component", Value::kPositionAndStatus, Kind::kRefuseComponent, Scope::kComponents},
        {"refuse-component-type", Value::kTypeAndStatus, Kind::kRefuseComponentType,
         Scope::kComponents},
        {"garbage-before-reply", Value::kNone, Kind::kGarbageBeforeReply, Scope::kSerialLine},
        {"bad-crc", Value::kNone, Kind::kBadCrc, Scope::kSerialLine},
    };
    return kModes;
}

bool Fault::Parse(const std::string& text, Fault& out) {
    for (const FaultMode& mode : FaultModes()) {
        const std::string name = mode.name;
        Fault parsed;
        parsed.kind = mode.kind;
        if (mode.value == Value::kNone) {
            if (text != name) continue;
        } else if (text.compare(0, name.size() + 1, name + "=") != 0 ||
                   !ParseValue(mode.value, text.substr(name.size() + 1), parsed)) {
            continue;
        }
        out = parsed;
        return true;
    }
    return false;
}

}  // namespace sim
