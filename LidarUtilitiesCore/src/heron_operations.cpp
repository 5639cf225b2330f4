// The Heron model's own operations (heron_operations.h).

#include "heron_operations.h"

#include <algorithm>
#include <array>
#include <exception>

#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "sdk/authorized_vrc_client.h"

namespace {

constexpr uint8_t kDeviceInfoCommand = 0x07;
constexpr size_t kModelVersionTextAt = 72;
constexpr size_t kModelVersionTextLength = 16;
const char* const kUnknownVersion = LidarUtilitiesManager::kUnknownHeronComponentVersion;

using ComponentVersionGetter = int (AuthorizedVrcClient::*)(std::string&);

template <size_t N>
bool isIndexOf(const std::array<uint8_t, N>& codes, int index) {
    return index >= 0 && index < static_cast<int>(codes.size());
}

}  // namespace

HeronOperations::HeronOperations(DeviceLinkView& link, const BusyView& busy,
                                 UserMessageSink& messages)
    : link_(link),
      busy_(busy),
      messages_(messages),
      heronBmbFpgaVersion_(kUnknownVersion),
      heronTmbFpgaVersion_(kUnknownVersion),
      heronBmbMcuVersion_(kUnknownVersion),
      heronModelVersionText_(kUnknownVersion) {}

// ---- Version texts ----

void HeronOperations::store(std::string& field, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    field = text;
}

QString HeronOperations::text(const std::string& field) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(field);
}

QString HeronOperations::bmbFpgaVersion() const {
    return text(heronBmbFpgaVersion_);
}

QString HeronOperations::tmbFpgaVersion() const {
    return text(heronTmbFpgaVersion_);
}

QString HeronOperations::bmbMcuVersion() const {
    return text(heronBmbMcuVersion_);
}

QString HeronOperations::modelVersionText() const {
    return text(heronModelVersionText_);
}

void HeronOperations::readModelVersionText(AuthorizedVrcClient& client) {
    u8Array_t reply;
    const int ret = client.QueryCommand({}, reply, kDeviceInfoCommand, false);
    std::string version;
    if (ret == 0 && reply.size() >= kModelVersionTextAt + kModelVersionTextLength) {
        const auto first = reply.begin() + kModelVersionTextAt;
        const auto last = first + kModelVersionTextLength;
        version.assign(first, std::find(first, last, uint8_t{0}));
    }
    store(heronModelVersionText_, version.empty() ? kUnknownVersion : version);
}

// In the order BMB FPGA, TMB FPGA, BMB MCU.
void HeronOperations::readComponentVersions(AuthorizedVrcClient& client) {
    const std::pair<ComponentVersionGetter, std::string*> components[] = {
        {&AuthorizedVrcClient::HeronGetBmbFpgaVersion, &heronBmbFpgaVersion_},
        {&AuthorizedVrcClient::HeronGetTmbFpgaVersion, &heronTmbFpgaVersion_},
        {&AuthorizedVrcClient::HeronGetBmbMcuVersion, &heronBmbMcuVersion_}};
    for (const auto& [getter, field] : components) {
        std::string version;
        const int ret = (client.*getter)(version);
        // A version the lidar reports as nothing is as unknown as one it did not report.
        store(*field, ret == 0 && !version.empty() ? version : kUnknownVersion);
    }
}

void HeronOperations::readVersions() {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!link_.linkConnected() || !client) return;
    try {
        readModelVersionText(*client);
        if (link_.selectedModel() == LidarUtilitiesManager::Heron_VRC_Str)
            readComponentVersions(*client);
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(std::string("HeronGetVersionInfo(): Caught Exception: ") +
                                          e.what() + "\n");
    }
    emit wrenLidarInfoChanged();
}

// ---- IMU range ----

const char* HeronOperations::imuRangeRefusal(int angularIndex, int accelerationIndex,
                                             const AuthorizedVrcClient* client) const {
    // Negative indexes name no code either: refused like those past the end, so that nothing
    // outside the tables is ever read or sent.
    if (!isIndexOf(LidarUtilitiesManager::kHeronAngularRangeCodes, angularIndex))
        return "Invalid angular range index";
    if (!isIndexOf(LidarUtilitiesManager::kHeronAccelerationRangeCodes, accelerationIndex))
        return "Invalid acceleration range index";
    if (link_.connectionKind() != kVrcOverSerialKind)
        return "Heron IMU range setting is only supported in VRC_SERIAL mode";
    if (!link_.linkConnected() || client == nullptr || busy_.upgrading())
        return "lidar is not connected, or lidar is upgrade";
    return nullptr;
}

void HeronOperations::setImuRange(int angularIndex, int accelerationIndex) {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (const char* refusal = imuRangeRefusal(angularIndex, accelerationIndex, client.get())) {
        messages_.showError(refusal);
        return;
    }
    try {
        sendImuRange(*client, angularIndex, accelerationIndex);
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(std::string("HeronSetIMURange(): Caught Exception: ") +
                                          e.what() + "\n");
        messages_.showError(QString("set IMU range error: ") + e.what());
    }
}

void HeronOperations::sendImuRange(AuthorizedVrcClient& client, int angularIndex,
                                   int accelerationIndex) {
    const int ret = client.HeronSetIMURange(
        LidarUtilitiesManager::kHeronAngularRangeCodes[angularIndex],
        LidarUtilitiesManager::kHeronAccelerationRangeCodes[accelerationIndex]);
    if (ret != 0) {
        const std::string failure = "set IMU range error, ret:" + std::to_string(ret);
        messages_.showError(QString::fromStdString(failure));
        messages_.log(failure, LogLevel::kError);
        return;
    }
    messages_.showSuccess("IMU range set successfully");
}

// ---- Restart ----

int HeronOperations::restartHeron() {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!client || !client->IsOpen()) {
        messages_.log("Heron restart: VRC not available", LogLevel::kError);
        return -1;
    }
    const int ret = client->HeronRestartLidar();
    if (ret != 0) {
        messages_.log("Heron restart command failed, ret:" + std::to_string(ret), LogLevel::kError);
        return ret;
    }
    messages_.log("Heron restart command sent", LogLevel::kInfo);
    return ret;
}

// ---- The façade's Heron operations ----

void LidarUtilitiesManager::HeronGetVersionInfo() {
    heron_->readVersions();
}

void LidarUtilitiesManager::HeronSetIMURange(int angularIndex, int accelerationIndex) {
    heron_->setImuRange(angularIndex, accelerationIndex);
}

int LidarUtilitiesManager::HeronSendRestartCommand() {
    return heron_->restartHeron();
}

QString LidarUtilitiesManager::getHeronBmbFpgaVersion() const {
    return heron_->bmbFpgaVersion();
}

QString LidarUtilitiesManager::getHeronTmbFpgaVersion() const {
    return heron_->tmbFpgaVersion();
}

QString LidarUtilitiesManager::getHeronBmbMcuVersion() const {
    return heron_->bmbMcuVersion();
}

QString LidarUtilitiesManager::getHeronModelVersionText() const {
    return heron_->modelVersionText();
}
