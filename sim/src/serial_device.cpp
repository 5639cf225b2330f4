#include "serial_device.h"

#include <cctype>
#include <string>

namespace sim::detail {
namespace {

constexpr uint8_t kStatusOk = 0;
constexpr uint8_t kStatusBadPayload = 1;
constexpr uint8_t kStatusUnknownCommand = 2;
// The VRC commands that carry the serial settings on the VRC-over-serial models.
constexpr uint8_t kVrcSetStandby = 0xB2;
// Serial data chunks are at most 1 KiB.
constexpr size_t kSerialMaxChunk = 1024;

SerialReply Status(uint8_t status) {
    SerialReply reply;
    reply.status = status;
    return reply;
}

}  // namespace

SerialDevice::SerialDevice(BlockStore& blocks) : blocks_(blocks), upgrade_(kSerialMaxChunk) {}

SerialReply SerialDevice::Handle(uint8_t code, const Bytes& payload) {
    switch (code) {
        case kSetStandby:
        case kSetSpinRate:
        case kSetReturnMode:
            return Setting(code - kSetStandby, payload);
        case kFaultState:
            return FaultStateReply();
        case kFirmwareUpgrade:
            return Upgrade(payload);
        default:
            return serialCatalogue_.load() ? Catalogue(code, payload)
                                           : Status(kStatusUnknownCommand);
    }
}

uint8_t SerialDevice::CatalogueSetCommand(size_t index) const {
    return static_cast<uint8_t>((serialCatalogue_.load() ? kSetStandby : kVrcSetStandby) + index);
}

// One byte; standby and return mode are flags (0 or 1), the spin rate any byte. The value goes
// where the catalogue keeps it, so a catalogue read shows it.
SerialReply SerialDevice::Setting(size_t index, const Bytes& payload) {
    const bool flag = index != 1;
    if (payload.size() != 1 || (flag && payload[0] > 1)) return Status(kStatusBadPayload);
    if (blocks_.ApplySet(CatalogueSetCommand(index), payload) ==
        BlockStore::SetResult::kNotASetCommand) {
        std::lock_guard<std::mutex> lock(mutex_);
        ownSettings_[index] = payload[0];
    }
    return Status(kStatusOk);
}

uint8_t SerialDevice::SettingValue(size_t index) const {
    Bytes payload;
    if (blocks_.ReadBack(CatalogueSetCommand(index), payload) && !payload.empty()) {
        return payload[0];
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return ownSettings_[index];
}

SerialReply SerialDevice::FaultStateReply() const {
    std::lock_guard<std::mutex> lock(mutex_);
    SerialReply reply;
    reply.payload.push_back(faultState_);
    for (uint16_t code : faultCodes_) {
        reply.payload.push_back(static_cast<uint8_t>(code));
        reply.payload.push_back(static_cast<uint8_t>(code >> 8));
    }
    return reply;
}

// The transfer is kept like the VRC transfers: what was announced, what arrived, its CRC-32.
SerialReply SerialDevice::Upgrade(const Bytes& payload) {
    std::lock_guard<std::mutex> lock(mutex_);
    const uint8_t status = upgrade_.Handle(payload, 1);
    upgrade_.SettleChunk();
    const bool begun = UpgradeReceiver::PhaseOf(payload) == UpgradeReceiver::Phase::kBegin;
    if (begun && status == kStatusOk) transfers_.push_back(upgrade_.Current());
    if (!begun && !transfers_.empty()) transfers_.back() = upgrade_.Current();
    if (!transfers_.empty()) transfers_.back().command = kFirmwareUpgrade;
    return Status(status);
}

SerialReply SerialDevice::Catalogue(uint8_t code, const Bytes& payload) {
    SerialReply reply;
    if (blocks_.Serve(code, payload, reply.payload)) return reply;
    switch (blocks_.ApplySet(code, payload)) {
        case BlockStore::SetResult::kApplied:
            return Status(kStatusOk);
        case BlockStore::SetResult::kPayloadTooShort:
            return Status(kStatusBadPayload);
        case BlockStore::SetResult::kNotASetCommand:
            break;
    }
    return Status(kStatusUnknownCommand);
}

SerialState SerialDevice::State() const {
    SerialState state;
    state.standby = SettingValue(0);
    state.spinRate = SettingValue(1);
    state.returnMode = SettingValue(2);
    std::lock_guard<std::mutex> lock(mutex_);
    state.faultState = faultState_;
    state.faultCodes = faultCodes_;
    return state;
}

void SerialDevice::SetFaultState(uint8_t state, const std::vector<uint16_t>& codes) {
    std::lock_guard<std::mutex> lock(mutex_);
    faultState_ = state;
    faultCodes_ = codes;
}

std::vector<Transfer> SerialDevice::Transfers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return transfers_;
}

}  // namespace sim::detail

namespace sim {
namespace {

bool ParseUnsigned(const std::string& text, int base, unsigned long max, unsigned long& out) {
    if (text.empty() || text.size() > 8) return false;
    for (char c : text) {
        const bool digit = base == 16 ? std::isxdigit(static_cast<unsigned char>(c)) != 0
                                      : std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!digit) return false;
    }
    out = std::stoul(text, nullptr, base);
    return out <= max;
}

}  // namespace

bool SerialState::ParseFaultState(const std::string& text, SerialState& out) {
    const size_t colon = text.find(':');
    unsigned long value = 0;
    if (!ParseUnsigned(text.substr(0, colon), 10, 255, value)) return false;
    SerialState parsed;
    parsed.faultState = static_cast<uint8_t>(value);
    if (colon != std::string::npos) {
        const std::string list = text.substr(colon + 1);
        size_t start = 0;
        for (;;) {
            const size_t comma = list.find(',', start);
            std::string code = list.substr(start, comma - start);
            if (code.size() > 2 && code[0] == '0' && (code[1] == 'x' || code[1] == 'X')) {
                code.erase(0, 2);
            }
            if (!ParseUnsigned(code, 16, 0xFFFF, value)) return false;
            parsed.faultCodes.push_back(static_cast<uint16_t>(value));
            if (comma == std::string::npos) break;
            start = comma + 1;
        }
    }
    out.faultState = parsed.faultState;
    out.faultCodes = parsed.faultCodes;
    return true;
}

}  // namespace sim
