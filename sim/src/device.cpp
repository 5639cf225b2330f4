#include "device.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <sstream>

#include "sdk/config_parser.h"
#include "sdk/serial_frame.h"

namespace sim::detail {
namespace {

namespace vrc = lidar::vrc;

constexpr uint8_t kRestart = 0x10;
constexpr uint8_t kSetDestination = 0x20;
constexpr uint8_t kSetNetwork = 0x21;
constexpr uint8_t kSetFov = 0x22;
constexpr uint8_t kReset = 0x25;
constexpr uint8_t kConfigFile = 0x74;
constexpr uint8_t kReadLog = 0x75;
constexpr uint8_t kAuthProbe = 0xA0;
constexpr uint8_t kAuthorise = 0xA1;
constexpr uint8_t kFirmwareUpgrade = 0x83;
constexpr uint8_t kGetBaudRate = 0xB0;
constexpr uint8_t kSetBaudRate = 0xB1;
constexpr uint8_t kSerialFirmwareUpgrade = 0xB7;
constexpr uint8_t kSerialPassThrough = 0xB8;
constexpr uint8_t kSerialSetStandby = 0xB2;
constexpr uint8_t kSerialSetSpinRate = 0xB3;
constexpr uint8_t kSerialSetReturnMode = 0xB4;
constexpr uint8_t kSerialFaultStateVrc = 0xB5;
constexpr uint8_t kComponentUpgrade = 0xC3;
constexpr uint8_t kEnterUpgradeMode = 0xB6;
constexpr uint8_t kSetImuRange = 0xC1;
constexpr uint8_t kComponentRestart = 0xC2;

constexpr uint32_t kDefaultBaudRate = 3000000;
constexpr uint16_t kFullCircleTenths = 3600;

bool IsRegularFile(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Monitor_<version>_<number>.csv files beside a model's catalogue, in name order.
std::vector<std::string> MonitorVariantPaths(const std::string& folder) {
    std::vector<std::string> paths;
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return paths;
    while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name.rfind("Monitor_", 0) == 0 && name.size() > 4 &&
            name.compare(name.size() - 4, 4, ".csv") == 0) {
            paths.push_back(folder + "/" + name);
        }
    }
    ::closedir(dir);
    std::sort(paths.begin(), paths.end());
    return paths;
}

const char* const kMonitor = "Monitor";

// The index of the first module with this name, or -1.
int ModuleNamed(const ConfigParser& parser, const std::string& name) {
    for (size_t i = 0; i < parser.moduleNames.size(); ++i)
        if (!parser.moduleNames[i].empty() && parser.moduleNames[i].front() == name)
            return static_cast<int>(i);
    return -1;
}

std::vector<const VarInfo*> ModuleVariables(const ConfigParser& parser, int module) {
    std::vector<const VarInfo*> vars;
    if (module < 0 || module >= static_cast<int>(parser.varTree.size())) return vars;
    for (const auto& page : parser.varTree[module])
        for (const VarInfo* var : page)
            if (var) vars.push_back(var);
    return vars;
}

std::vector<const VarInfo*> VariablesOf(const ConfigParser& parser) {
    std::vector<const VarInfo*> vars;
    for (const auto& var : parser.AllVars()) {
        if (var) vars.push_back(var.get());
    }
    return vars;
}

Bytes BigEndian32(uint32_t value) {
    return {static_cast<uint8_t>(value >> 24), static_cast<uint8_t>(value >> 16),
            static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)};
}

Reply Status(uint8_t status) {
    Reply reply;
    reply.status = status;
    return reply;
}

Reply Payload(Bytes payload) {
    Reply reply;
    reply.payload = std::move(payload);
    return reply;
}

Reply TextReply(const std::string& text) {
    return Payload(Bytes(text.begin(), text.end()));
}

Bytes Slice(const Bytes& bytes, size_t start, size_t length) {
    if (bytes.size() < start + length) return Bytes(length, 0);
    return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(start),
                 bytes.begin() + static_cast<std::ptrdiff_t>(start + length));
}

uint32_t ReadBigEndian(const Bytes& bytes, size_t start, size_t length) {
    uint32_t value = 0;
    for (size_t i = 0; i < length && start + i < bytes.size(); ++i) {
        value = (value << 8) | bytes[start + i];
    }
    return value;
}

std::string DottedAddress(const Bytes& block, size_t start) {
    const Bytes b = Slice(block, start, 4);
    return std::to_string(b[0]) + "." + std::to_string(b[1]) + "." + std::to_string(b[2]) + "." +
           std::to_string(b[3]);
}

std::string HexText(const Bytes& bytes) {
    std::string text;
    char pair[3];
    for (uint8_t b : bytes) {
        std::snprintf(pair, sizeof pair, "%02x", b);
        text += pair;
    }
    return text;
}

// 0x22's request: mode, region count n, then exactly n pairs of angles in tenths of a degree.
bool FovRequestValid(const Bytes& payload) {
    if (payload.size() < 2) return false;
    const size_t regions = payload[1];
    if (payload.size() != 2 + 4 * regions) return false;
    for (size_t i = 2; i < payload.size(); i += 2) {
        if (ReadBigEndian(payload, i, 2) > kFullCircleTenths) return false;
    }
    return true;
}

}  // namespace

bool Device::Load(const std::string& model, const std::string& configDir, std::string* error) {
    auto fail = [error](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (model.empty()) return fail("no model given");
    const std::string inFolder = configDir + "/varID/" + model + "/" + model + ".csv";
    const std::string inRoot = configDir + "/varID/" + model + ".csv";
    const std::string path =
        IsRegularFile(inFolder) ? inFolder : (IsRegularFile(inRoot) ? inRoot : "");
    if (path.empty()) {
        return fail("no catalogue for model " + model + " (looked for " + inFolder + " and " +
                    inRoot + ")");
    }
    ConfigParser parser(path);
    if (!parser.ExtractConfigInfo()) return fail("cannot read catalogue " + path);
    model_ = model;
    cataloguePath_ = path;
    // Monitor variants may read blocks the catalogue does not mention; they are served too.
    std::vector<ConfigParser> variants;
    std::vector<const VarInfo*> variantVars;
    std::vector<const VarInfo*> monitorVars =
        ModuleVariables(parser, ModuleNamed(parser, kMonitor));
    if (path == inFolder) {
        for (const std::string& variantPath : MonitorVariantPaths(configDir + "/varID/" + model)) {
            variants.emplace_back(variantPath);
            if (!variants.back().ExtractConfigInfo()) continue;
            const std::vector<const VarInfo*> vars = VariablesOf(variants.back());
            variantVars.insert(variantVars.end(), vars.begin(), vars.end());
            // A variant's first module is what the manager shows as the monitor module.
            const std::vector<const VarInfo*> shown = ModuleVariables(variants.back(), 0);
            monitorVars.insert(monitorVars.end(), shown.begin(), shown.end());
        }
    }
    blocks_.Build(VariablesOf(parser), variantVars, model, monitorVars, monitorSeed_);
    if (identityIndex_ >= 0) blocks_.StampIdentity(VariablesOf(parser), identityIndex_);
    if (ReachedOverSerialLine()) {
        blocks_.EnsureBlock(kGetBaudRate, {}, BigEndian32(kDefaultBaudRate));
    }
    serial_.SetSerialCatalogue(!ReachedOverSerialLine());
    return true;
}

bool Device::ReachedOverSerialLine() const {
    return model_ == "Wren-VRC" || model_ == "Heron-VRC";
}

bool Device::IsRead(uint8_t command, const Bytes& payload) const {
    switch (command) {
        case kDeviceInfoCommand:
        case kNetworkCommand:
        case kGetFovCommand:
        case kConfigFile:
        case kReadLog:
        case kAuthProbe:
        case kAuthorise:
            return true;
        default:
            return blocks_.HasBlock(command, payload);
    }
}

Reply Device::Handle(const vrc::Frame& request, Session& session) {
    const uint8_t command = request.command;
    const Bytes& payload = request.payload;
    if (!requiredToken_.empty() && !session.authorised && !IsRead(command, payload)) {
        return Status(vrc::kStatusNotPermitted);
    }
    switch (command) {
        case kDeviceInfoCommand:
        case kNetworkCommand:
        case kGetFovCommand:
            return ServeFixedBlock(command, payload);
        case kRestart:
            return Reboot(false);
        case kReset:
            return Reboot(true);
        case kSetDestination:
            return SetDestination(payload);
        case kSetNetwork:
            return SetNetwork(payload);
        case kSetFov:
            return SetFieldOfView(payload);
        case kConfigFile:
            return ConfigurationFile();
        case kReadLog:
            return ReadLog(payload);
        case kAuthProbe:
            return ProbeAuthorisation(session);
        case kAuthorise:
            return Authorise(payload, session);
        case kFirmwareUpgrade:
            return Upgrade(command, payload, 0, session);
        default:
            return HandleByConnectionOrModel(command, payload, session);
    }
}

Reply Device::HandleByConnectionOrModel(uint8_t command, const Bytes& payload, Session& session) {
    switch (command) {
        case kGetBaudRate:
            return ReachedOverSerialLine() ? GetBaudRate() : Status(vrc::kStatusUnknownCommand);
        case kSetBaudRate:
            return ReachedOverSerialLine() ? SetBaudRate(payload)
                                           : Status(vrc::kStatusUnknownCommand);
        case kSerialFirmwareUpgrade:
        case kComponentUpgrade:
            // The begin phase carries the upgrade mode or the component type after the phase.
            return ReachedOverSerialLine() ? Upgrade(command, payload, 1, session)
                                           : Status(vrc::kStatusUnknownCommand);
        case kSerialPassThrough:
            return ReachedOverSerialLine() ? SerialPassThrough(payload)
                                           : Status(vrc::kStatusUnknownCommand);
        case kSerialSetStandby:
        case kSerialSetSpinRate:
        case kSerialSetReturnMode:
        case kSerialFaultStateVrc:
            return ReachedOverSerialLine() ? SerialCommand(command, payload)
                                           : CatalogueCommand(command, payload);
        case kEnterUpgradeMode:
            return ReachedOverSerialLine() ? EnterUpgradeMode()
                                           : Status(vrc::kStatusUnknownCommand);
        case kSetImuRange:
            return IsHeron() ? SetImuRange(payload) : CatalogueCommand(command, payload);
        case kComponentRestart:
            return IsHeron() ? Reboot(false) : CatalogueCommand(command, payload);
        default:
            return CatalogueCommand(command, payload);
    }
}

// These blocks always exist; a request payload the catalogue does not key falls back to the
// plain block, as the protocol defines these commands with an empty request.
Reply Device::ServeFixedBlock(uint8_t command, const Bytes& payload) {
    Reply reply;
    if (!blocks_.Serve(command, payload, reply.payload)) {
        blocks_.Serve(command, {}, reply.payload);
    }
    return reply;
}

Reply Device::Reboot(bool restoreDefaults) {
    if (restoreDefaults) blocks_.RestoreDefaults();
    heron_.Restart();
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        rebootPending_ = false;
    }
    Reply reply;
    reply.after = Reply::After::kReboot;
    return reply;
}

Reply Device::SetDestination(const Bytes& payload) {
    if (payload.size() < 8) return Status(vrc::kStatusBadPayload);
    // address, destination port, auxiliary port: the same order as bytes 12-19 of 0x08.
    blocks_.Write(kNetworkCommand, {}, 12, Slice(payload, 0, 8));
    return Reply{};
}

Reply Device::SetNetwork(const Bytes& payload) {
    if (payload.size() < 15) return Status(vrc::kStatusBadPayload);
    blocks_.Write(kNetworkCommand, {}, 0, Slice(payload, 0, 12));   // address, netmask, gateway
    blocks_.Write(kNetworkCommand, {}, 20, Slice(payload, 12, 3));  // VLAN flag and id
    Reply reply;
    reply.send = false;  // the device applies the new address and drops the connection
    reply.after = Reply::After::kCloseConnection;
    return reply;
}

Reply Device::SetFieldOfView(const Bytes& payload) {
    if (!FovRequestValid(payload)) return Status(vrc::kStatusBadPayload);
    blocks_.Replace(kGetFovCommand, {}, payload);
    return Reply{};
}

Reply Device::ConfigurationFile() const {
    const Bytes network = blocks_.Peek(kNetworkCommand, {});
    std::ostringstream text;
    text << "# simulated " << model_ << " configuration\n"
         << "model=" << model_ << "\n"
         << "catalogue=" << cataloguePath_ << "\n"
         << "address=" << DottedAddress(network, 0) << "\n"
         << "netmask=" << DottedAddress(network, 4) << "\n"
         << "gateway=" << DottedAddress(network, 8) << "\n"
         << "destination=" << DottedAddress(network, 12) << ":" << ReadBigEndian(network, 16, 2)
         << "\n";
    return TextReply(text.str());
}

// Every log is logBytes_ long (at least its catalogue block): the catalogue's block for the
// request when there is one (so a page that shows the log's first bytes reads them unchanged),
// then generated lines that name the log and its part, so every log and part differs.
Reply Device::ReadLog(const Bytes& payload) {
    return Payload(LogContent(payload));
}

Bytes Device::LogContent(const Bytes& request) const {
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        auto cached = logCache_.find(request);
        if (cached != logCache_.end()) return cached->second;
    }
    Bytes content = GenerateLog(request);
    std::lock_guard<std::mutex> lock(stateMutex_);
    return logCache_.emplace(request, std::move(content)).first->second;
}

Bytes Device::GenerateLog(const Bytes& request) const {
    static const char* const kEvents[] = {
        "scan: motor at speed", "net: link up",       "temp: board 41.5 C",
        "op: settings loaded",  "ptp: offset 120 ns", "scan: frame rate 10 Hz",
        "power: supply 24.1 V", "op: idle",           "warn: window contamination low",
    };
    Bytes log = blocks_.Peek(kReadLog, request);
    const std::string heading = model_ + " log " + HexText(request) + "\n";
    log.insert(log.end(), heading.begin(), heading.end());
    // The part selects where the cycle starts and the time step, so parts differ line by line.
    unsigned seed = 0;
    for (uint8_t b : request) seed = seed * 31 + b;
    char line[96];
    for (unsigned n = 0; log.size() < logBytes_; ++n) {
        const double seconds = n * (0.125 + 0.001 * (seed % 7));
        const int length = std::snprintf(line, sizeof line, "[%010.3f] %s #%u\n", seconds,
                                         kEvents[(n + seed) % 9], n);
        log.insert(log.end(), line, line + length);
    }
    if (log.size() > logBytes_ && logBytes_ >= heading.size()) log.resize(logBytes_);
    return log;
}

Reply Device::ProbeAuthorisation(const Session& session) const {
    const bool required = !requiredToken_.empty() && !session.authorised;
    return Payload({static_cast<uint8_t>(required ? 1 : 0)});
}

Reply Device::Authorise(const Bytes& payload, Session& session) const {
    std::string token(payload.begin(), payload.end());
    while (!token.empty() && token.back() == '\0') token.pop_back();
    if (!requiredToken_.empty() && token != requiredToken_) {
        return Status(vrc::kStatusNotPermitted);
    }
    session.authorised = true;
    return Reply{};
}

Reply Device::GetBaudRate() {
    Reply reply;
    blocks_.Serve(kGetBaudRate, {}, reply.payload);
    return reply;
}

// The rate lives in the 0xB0 block, where the catalogue's baud-rate variable reads it.
Reply Device::SetBaudRate(const Bytes& payload) {
    if (payload.size() != 4 || ReadBigEndian(payload, 0, 4) == 0) {
        return Status(vrc::kStatusBadPayload);
    }
    blocks_.Write(kGetBaudRate, {}, 0, payload);
    return Reply{};
}

// A device that completed a transfer waits for its restart and takes no other transfer. The
// serial-line models' transfer (0xB7) ends with the device rebooting by itself.
Reply Device::Upgrade(uint8_t command, const Bytes& payload, size_t beginExtraBytes,
                      Session& session) {
    if (RebootPending()) return Status(vrc::kStatusBusy);
    if (RefusesComponent(command, payload)) {
        RecordRefusedComponent(command, payload, vrc::kStatusBadPayload);
        return Status(vrc::kStatusBadPayload);
    }
    const uint8_t status = session.upgrade.Handle(payload, beginExtraBytes);
    const UpgradeReceiver::Phase phase = UpgradeReceiver::PhaseOf(payload);
    RecordTransfer(command, phase == UpgradeReceiver::Phase::kBegin && status == 0, session);
    RecordComponent(command, payload, status, session);
    Reply reply = Status(status);
    const bool ended = phase == UpgradeReceiver::Phase::kEnd && status == 0;
    if (ended && command == kSerialFirmwareUpgrade) reply.after = Reply::After::kReboot;
    return reply;
}

void Device::RecordTransfer(uint8_t command, bool begun, Session& session) {
    std::lock_guard<std::mutex> lock(stateMutex_);
    if (begun) {
        session.transferIndex = transfers_.size();
        transfers_.push_back(session.upgrade.Current());
        transfers_.back().command = command;
        return;
    }
    if (session.transferIndex >= transfers_.size()) return;
    Transfer& record = transfers_[session.transferIndex];
    record = session.upgrade.Current();
    record.command = command;
    // Components are sent one after another and take effect with one restart at the end.
    if (record.completed && command == kFirmwareUpgrade) rebootPending_ = true;
}

void Device::AfterReply(Session& session) {
    if (session.transferIndex == std::numeric_limits<size_t>::max()) return;
    KeepComponentChunk(session);
    session.upgrade.SettleChunk();
    std::lock_guard<std::mutex> lock(stateMutex_);
    if (session.transferIndex < transfers_.size())
        transfers_[session.transferIndex].receivedCrc = session.upgrade.Current().receivedCrc;
}

// Serial transfers passed through 0xB8 follow the VRC ones.
std::vector<Transfer> Device::Transfers() const {
    std::vector<Transfer> all;
    {
        std::lock_guard<std::mutex> lock(stateMutex_);
        all = transfers_;
    }
    const std::vector<Transfer> serial = serial_.Transfers();
    all.insert(all.end(), serial.begin(), serial.end());
    return all;
}

bool Device::RebootPending() const {
    std::lock_guard<std::mutex> lock(stateMutex_);
    return rebootPending_;
}

// 0xB8 carries a serial command: its code, then its payload. The answer is the serial reply's
// 8-byte header (start marker, code, status, length) and payload, from the same handler as the
// UART line.
Reply Device::SerialPassThrough(const Bytes& payload) {
    if (payload.empty()) return Status(vrc::kStatusBadPayload);
    const uint8_t code = payload[0];
    const SerialReply answer = serial_.Handle(code, Bytes(payload.begin() + 1, payload.end()));
    Bytes reply = lidar::serial::EncodeHeader(code, answer.status,
                                              static_cast<uint32_t>(answer.payload.size()));
    reply.insert(reply.end(), answer.payload.begin(), answer.payload.end());
    return Payload(std::move(reply));
}

// 0xB2-0xB4 are the serial settings 0x01-0x03, 0xB5 the serial fault state 0x04.
Reply Device::SerialCommand(uint8_t command, const Bytes& payload) {
    const uint8_t code =
        static_cast<uint8_t>(command - kSerialSetStandby + SerialDevice::kSetStandby);
    SerialReply answer = serial_.Handle(code, payload);
    Reply reply = Status(answer.status);
    reply.payload = std::move(answer.payload);
    return reply;
}

Reply Device::CatalogueCommand(uint8_t command, const Bytes& payload) {
    Reply reply;
    if (blocks_.Serve(command, payload, reply.payload)) return reply;
    switch (blocks_.ApplySet(command, payload)) {
        case BlockStore::SetResult::kApplied:
            return Reply{};
        case BlockStore::SetResult::kPayloadTooShort:
            return Status(vrc::kStatusBadPayload);
        case BlockStore::SetResult::kNotASetCommand:
            break;
    }
    return Status(vrc::kStatusUnknownCommand);
}

}  // namespace sim::detail
