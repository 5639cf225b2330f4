// Model-specific device functions: the Heron model's component versions, IMU range and restart.

#include <algorithm>

#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "subsystem_views.h"

namespace {

constexpr uint8_t kDeviceInfoCommand = 0x07;
constexpr size_t kModelVersionTextAt = 72;
constexpr size_t kModelVersionTextLength = 16;

using ComponentVersionGetter = int (AuthorizedVrcClient::*)(std::string&);

}  // namespace

// ---- Heron device operations ----

void LidarUtilitiesManager::setHeronText(std::string& field, const std::string& text) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    field = text;
}

QString LidarUtilitiesManager::heronText(const std::string& field) const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(field);
}

QString LidarUtilitiesManager::getHeronBmbFpgaVersion() const {
    return heronText(modelInfoTexts.heronBmbFpgaVersion);
}

QString LidarUtilitiesManager::getHeronTmbFpgaVersion() const {
    return heronText(modelInfoTexts.heronTmbFpgaVersion);
}

QString LidarUtilitiesManager::getHeronBmbMcuVersion() const {
    return heronText(modelInfoTexts.heronBmbMcuVersion);
}

QString LidarUtilitiesManager::getHeronModelVersionText() const {
    return heronText(modelInfoTexts.heronModelVersionText);
}

// Bytes 72-87 of the device information, up to the first NUL.
void LidarUtilitiesManager::readHeronModelVersionText(AuthorizedVrcClient& client) {
    u8Array_t reply;
    const int ret = client.QueryCommand({}, reply, kDeviceInfoCommand, false);
    std::string text;
    if (ret == 0 && reply.size() >= kModelVersionTextAt + kModelVersionTextLength) {
        const auto first = reply.begin() + kModelVersionTextAt;
        const auto last = first + kModelVersionTextLength;
        text.assign(first, std::find(first, last, uint8_t{0}));
    }
    setHeronText(modelInfoTexts.heronModelVersionText,
                 text.empty() ? kUnknownHeronComponentVersion : text);
}

void LidarUtilitiesManager::HeronGetVersionInfo() {
    const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!getIsConnected() || !client) return;
    try {
        readHeronModelVersionText(*client);
        if (getSelectLidarModel() == Heron_VRC_Str) {
            const std::pair<ComponentVersionGetter, std::string*> components[] = {
                {&AuthorizedVrcClient::HeronGetBmbFpgaVersion, &modelInfoTexts.heronBmbFpgaVersion},
                {&AuthorizedVrcClient::HeronGetTmbFpgaVersion, &modelInfoTexts.heronTmbFpgaVersion},
                {&AuthorizedVrcClient::HeronGetBmbMcuVersion, &modelInfoTexts.heronBmbMcuVersion}};
            for (const auto& [getter, field] : components) {
                std::string version;
                const int ret = ((*client).*getter)(version);
                // A version the lidar reports as nothing is as unknown as one it did not report.
                setHeronText(
                    *field, ret == 0 && !version.empty() ? version : kUnknownHeronComponentVersion);
            }
        }
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(std::string("HeronGetVersionInfo(): Caught Exception: ") +
                                          e.what() + "\n");
    }
    emit wrenLidarInfoChanged();
}

void LidarUtilitiesManager::HeronSetIMURange(int angularIndex, int accelerationIndex) {
    // Negative indexes name no code either: refused like those past the end, so that nothing
    // outside the tables is ever read or sent.
    if (angularIndex < 0 || angularIndex >= static_cast<int>(kHeronAngularRangeCodes.size())) {
        showErrorMessage("Invalid angular range index");
        return;
    }
    if (accelerationIndex < 0 ||
        accelerationIndex >= static_cast<int>(kHeronAccelerationRangeCodes.size())) {
        showErrorMessage("Invalid acceleration range index");
        return;
    }
    if (getConnectType() != kVrcOverSerialKind) {
        showErrorMessage("Heron IMU range setting is only supported in VRC_SERIAL mode");
        return;
    }
    const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!getIsConnected() || !client || getIsUpgrading()) {
        showErrorMessage("lidar is not connected, or lidar is upgrade");
        return;
    }
    try {
        const int ret = client->HeronSetIMURange(kHeronAngularRangeCodes[angularIndex],
                                                 kHeronAccelerationRangeCodes[accelerationIndex]);
        if (ret != 0) {
            const std::string text = "set IMU range error, ret:" + std::to_string(ret);
            showErrorMessage(QString::fromStdString(text));
            writeLogMessage(text, LogLevel::kError);
            return;
        }
        showSuccessMessage("IMU range set successfully");
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(std::string("HeronSetIMURange(): Caught Exception: ") +
                                          e.what() + "\n");
        showErrorMessage(QString("set IMU range error: ") + e.what());
    }
}

int LidarUtilitiesManager::HeronSendRestartCommand() {
    const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!client || !client->IsOpen()) {
        writeLogMessage("Heron restart: VRC not available", LogLevel::kError);
        return -1;
    }
    const int ret = client->HeronRestartLidar();
    if (ret != 0) {
        writeLogMessage("Heron restart command failed, ret:" + std::to_string(ret),
                        LogLevel::kError);
        return ret;
    }
    writeLogMessage("Heron restart command sent", LogLevel::kInfo);
    return ret;
}
