#include "sdk/authorized_vrc_client.h"

#include <cctype>
#include <cstdio>

#include "sdk/text_fields.h"

namespace {

constexpr uint8_t kAuthProbe = 0xA0;
constexpr uint8_t kAuthorise = 0xA1;
constexpr uint8_t kGetFov = 0x23;
constexpr uint8_t kSetFov = 0x22;
constexpr uint8_t kSetSerialBaudRate = 0xB1;
constexpr uint8_t kFirmwareUpgrade = 0x83;
constexpr uint8_t kSerialFirmwareUpgrade = 0xB7;
constexpr uint8_t kSerialPassThrough = 0xB8;

std::string CommandText(uint8_t command) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02X", command);
    return text;
}

std::string Trimmed(const std::string& text) {
    const auto blank = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
    size_t first = 0;
    size_t last = text.size();
    while (first < last && blank(text[first])) ++first;
    while (last > first && blank(text[last - 1])) --last;
    return text.substr(first, last - first);
}

bool IsAnyPort(const std::string& text) {
    if (text == "0") return true;
    if (text.size() != 3) return false;
    const auto upper = [](char c) {
        return static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    };
    return upper(text[0]) == 'A' && upper(text[1]) == 'N' && upper(text[2]) == 'Y';
}

// Decimal digits only, 1 to 65535; no sign, no blanks inside.
bool ParsePortNumber(const std::string& text, uint16_t& port) {
    if (text.empty() || text.size() > 5) return false;
    unsigned long value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned long>(c - '0');
    }
    if (value < 1 || value > 65535) return false;
    port = static_cast<uint16_t>(value);
    return true;
}

}  // namespace

// ---- AuthorizedVrcClient -----------------------------------------------------------------------

AuthorizedVrcClient::AuthorizedVrcClient(std::shared_ptr<lidar::VrcClient> client,
                                         AuthConfig config)
    : client_(std::move(client)), config_(std::move(config)), gate_(*this) {}

void AuthorizedVrcClient::SetLogCallback(lidar::LogCallback callback) {
    std::lock_guard<std::mutex> lock(logMutex_);
    logCallback_ = std::move(callback);
}

void AuthorizedVrcClient::Log(const std::string& line) {
    lidar::LogCallback callback;
    {
        std::lock_guard<std::mutex> lock(logMutex_);
        callback = logCallback_;
    }
    if (callback) callback(line);
}

bool AuthorizedVrcClient::Permit(uint8_t command) {
    if (config_.Allows(command)) return true;
    client_->RecordReturnCode(lidar::kVrcRefused);
    Log("Command " + CommandText(command) + " refused by access profile " + config_.profile);
    return false;
}

int AuthorizedVrcClient::QueryCommand(const u8vec& payload, u8vec& reply, uint8_t command,
                                      bool withHeader) {
    if (!Permit(command)) return lidar::kVrcRefused;
    return client_->QueryCommand(payload, reply, command, withHeader);
}

int AuthorizedVrcClient::GetAllChannelFov(float* values, int& count, int& mode) {
    if (!Permit(kGetFov)) return lidar::kVrcRefused;
    return client_->GetAllChannelFov(values, count, mode);
}

int AuthorizedVrcClient::SetAllChannelFov(const float* values, int count, uint8_t mode) {
    if (!Permit(kSetFov)) return lidar::kVrcRefused;
    return client_->SetAllChannelFov(values, count, mode);
}

int AuthorizedVrcClient::WrenSetBaudRate(uint32_t rate) {
    if (!Permit(kSetSerialBaudRate)) return lidar::kVrcRefused;
    return client_->WrenSetBaudRate(rate);
}

int AuthorizedVrcClient::UpgradeLidar(const u8Array_t& package, const std::string& command,
                                      lidar::ProgressCounter& progress) {
    // No command text (the serial models' path on a network connection): the protocol's own
    // firmware upgrade command.
    uint8_t code = kFirmwareUpgrade;
    if (!command.empty() && !lidar::text::ParseCommandCode(command, code)) {
        progress.store(0);
        client_->RecordReturnCode(lidar::kVrcNotConnected);
        Log("Upgrade command \"" + command + "\" is not a command code; nothing was sent");
        return lidar::kVrcNotConnected;
    }
    if (!Permit(code)) return lidar::kVrcRefused;
    return client_->UpgradeLidar(package, code, progress);
}

int AuthorizedVrcClient::WrenUpgradeLidar(const u8Array_t& package, int mode,
                                          lidar::ProgressCounter& progress) {
    if (!Permit(kSerialFirmwareUpgrade)) return lidar::kVrcRefused;
    return client_->WrenUpgradeLidar(package, mode, progress);
}

int AuthorizedVrcClient::DownloadLog(const u8Array_t& payload, u8Array_t& reply,
                                     unsigned char command) {
    reply.clear();
    if (!Permit(command)) return lidar::kVrcNotConnected;
    return client_->DownloadLog(payload, reply, command);
}

int AuthorizedVrcClient::QuerySerialCommand(const u8Array_t& payload, u8Array_t& reply,
                                            uint8_t code) {
    reply.clear();
    if (!Permit(kSerialPassThrough)) return lidar::kVrcRefused;
    return client_->QuerySerialCommand(payload, reply, code);
}

// ---- AuthGate ----------------------------------------------------------------------------------

int AuthGate::ProbeAuthRequirement() {
    lidar::VrcClient& client = *owner_.client_;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        authorised_ = false;
    }
    u8vec reply;
    const int probed = client.QueryCommand({}, reply, kAuthProbe, false);
    if (probed != lidar::kVrcOk) {
        owner_.Log("Authorisation probe failed (result " + std::to_string(probed) + ")");
        return probed;
    }
    if (reply.empty()) {
        const int rejected = client.RejectReply(kAuthProbe, "no requirement byte");
        owner_.Log("Authorisation probe failed (result " + std::to_string(rejected) + ")");
        return rejected;
    }
    int result = lidar::kVrcOk;
    if (reply[0] == 0) {
        owner_.Log("Device does not require authorisation");
    } else if (owner_.config_.token.empty()) {
        result = lidar::vrc::kStatusNotPermitted;
        client.RecordReturnCode(result);
        owner_.Log("Device requires authorisation but access profile " + owner_.config_.profile +
                   " has no token");
    } else {
        const std::string& token = owner_.config_.token;
        result = client.QueryCommand(u8vec(token.begin(), token.end()), reply, kAuthorise, false);
        owner_.Log(result == lidar::kVrcOk ? "Authorisation accepted by the device"
                                           : "Authorisation refused by the device (result " +
                                                 std::to_string(result) + ")");
    }
    std::lock_guard<std::mutex> lock(mutex_);
    authorised_ = result == lidar::kVrcOk;
    return result;
}

bool AuthGate::IsAuthorised() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return authorised_;
}

// ---- Local port text ---------------------------------------------------------------------------

bool ParseVrcClientHostPortText(const std::string& text, uint16_t* port, std::string* error) {
    const std::string trimmed = Trimmed(text);
    uint16_t parsed = 0;
    if (port != nullptr && (IsAnyPort(trimmed) || ParsePortNumber(trimmed, parsed))) {
        *port = parsed;
        return true;
    }
    if (error != nullptr) {
        *error = "Invalid VRC client port \"" + text + "\": use ANY or a number from 1 to 65535.";
    }
    return false;
}
