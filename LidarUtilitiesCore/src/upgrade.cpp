// Firmware upgrade: the package is read on the calling thread and pushed to the lidar by a worker
// through the SDK transfer that matches the connection kind; the UI polls the progress counters.

#include <QFile>
#include <climits>
#include <system_error>
#include <thread>

#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "sdk/serial_client.h"

namespace {

constexpr long kPauseBeforeTransferMs = 300;
constexpr long kRestartDelayMs = 10000;
constexpr int kSerialModeUsingVrcUpgrade = 2;
const char* const kVrcUpgradeCommand = "0x83";
// clang-format off
const char* const kRebootWithinTenSeconds = "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 seconds.";
const char* const kAbandonedBeforeRestart = "Upgrade abandoned before the automatic reboot: the package was transmitted, but the lidar was not restarted. Please reboot lidar manually.";
// clang-format on

// The whole file; nullopt when it is larger than a signed 32-bit count can say.
std::optional<u8Array_t> readPackage(QFile& file) {
    if (file.size() > INT32_MAX) return std::nullopt;
    const QByteArray bytes = file.readAll();
    return u8Array_t(reinterpret_cast<const uint8_t*>(bytes.constData()),
                     reinterpret_cast<const uint8_t*>(bytes.constData()) + bytes.size());
}

}  // namespace

int LidarUtilitiesManager::UpgradeLidar(QUrl file, int i, int j, int k) {
    const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    const auto* tree = varTree.load();
    if (!client || !client->IsOpen() || isUpgrading.load() || isDownloadLog.load() || !tree)
        return -1;
    QFile package(file.toLocalFile());
    if (!package.open(QIODevice::ReadOnly)) return 0;
    // An index outside the table names no variable, as a variable without a set command does.
    const bool inTable = i >= 0 && size_t(i) < tree->size() && j >= 0 &&
                         size_t(j) < (*tree)[i].size() && k >= 0 &&
                         size_t(k) < (*tree)[i][j].size();
    if (!inTable) {
        developer_log::writeDeveloperLine("UpgradeLidar(): no variable at [" + std::to_string(i) +
                                          "][" + std::to_string(j) + "][" + std::to_string(k) +
                                          "]\n");
        return 0;
    }
    std::string command = (*tree)[i][j][k]->set_cmd;
    if (command.empty()) return 0;
    return startPackageTransfer(package, std::move(command)) ? 0 : -1;
}

int LidarUtilitiesManager::WrenUpgradeLidar(QUrl file) {
    bool ready = getIsConnected() && !isUpgrading.load();
    if (getConnectType() == 1) ready = ready && getSerialClient();
    if (getConnectType() == 2) ready = ready && clientIsOpen();
    if (!ready) {
        showErrorMessage("lidar is not connected, or lidar is upgrade");
        return -1;
    }
    QFile package(file.toLocalFile());
    if (!package.open(QIODevice::ReadOnly)) return 0;
    return startPackageTransfer(package, "") ? 0 : -1;
}

// Reads the package, marks the upgrade, pauses, and hands the bytes to the worker. The file's
// buffer is released before the worker starts, so the package is held twice only briefly.
bool LidarUtilitiesManager::startPackageTransfer(QFile& file, std::string command) {
    std::optional<u8Array_t> package = readPackage(file);
    file.close();
    if (!package) {
        writeLogMessage("Upgrade package " + file.fileName().toStdString() +
                            " is larger than 2 GiB; nothing was sent",
                        LogLevel::kError);
        return false;
    }
    markUpgradeStart();
    isUpgrading.store(true);
    upgradeProgress.store(0);
    upgradeProgressTotalLen.store(static_cast<int32_t>(package->size() >> 10));
    emit isUpgradingChanged();
    if (!pauseUnlessStopped(kPauseBeforeTransferMs)) {
        writeLogMessage("Upgrade abandoned before the transfer; nothing was sent",
                        LogLevel::kWarning);
        isUpgrading.store(false);
        emit isUpgradingChanged();
        return false;
    }
    auto bytes = std::make_shared<u8Array_t>(std::move(*package));
    try {
        startWorker([this, bytes, command = std::move(command)]() mutable {
            GetLidarUpgradeInfo(*bytes, std::move(command));
        });
    } catch (const std::system_error& e) {
        writeLogMessage(std::string("Upgrade worker could not start: ") + e.what(),
                        LogLevel::kError);
        isUpgrading.store(false);
        emit isUpgradingChanged();
        return false;
    }
    return true;
}

void LidarUtilitiesManager::GetLidarUpgradeInfo(u8Array_t& package, std::string command) {
    const int kind = getConnectType();
    const int mode = upgradeMode.load();
    const bool serialOutcome = kind == 1 || (kind == 2 && mode != kSerialModeUsingVrcUpgrade);
    int result = lidar::kVrcNotConnected;
    try {
        const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
        if (kind == 1) {
            if (const std::shared_ptr<lidar::SerialClient> serial = getSerialClient())
                result = serial->UpgradeLidar(package, mode, upgradeProgress);
        } else if (!client) {
            // Stopped between the start and this thread.
        } else if (kind == 2 && mode != kSerialModeUsingVrcUpgrade) {
            result = client->WrenUpgradeLidar(package, mode, upgradeProgress);
        } else if (kind == 2) {
            result = client->UpgradeLidar(package, kVrcUpgradeCommand, upgradeProgress);
        } else {
            result = client->UpgradeLidar(package, command, upgradeProgress);
        }
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(std::string("GetLidarUpgradeInfo(): ") + e.what() + "\n");
    }
    isUpgrading.store(false);
    emit isUpgradingChanged();

    if (serialOutcome) {
        if (result == 0) {
            showSuccessMessage(
                "Upgrade package transmitted successfully. The lidar will automatically reboot.");
            Stop();
        } else {
            const QString text = "Upgrade package transfer failed or is terminated. error:" +
                                 QString::number(result);
            showErrorMessage(text);
            writeLogMessage(text.toStdString(), LogLevel::kInfo);
        }
        return;
    }
    if (result != 0) {
        showErrorMessage("Upgrade package transfer failed or is terminated.");
        writeLogMessage("Upgrade package transfer failed or is terminated.", LogLevel::kInfo);
        return;
    }
    showSuccessMessage(kRebootWithinTenSeconds);
    if (!pauseUnlessStopped(kRestartDelayMs)) {
        // A manager being destroyed tells nobody; a Stop was the user's, who is told.
        if (!closing_.load()) {
            showErrorMessage(kAbandonedBeforeRestart);
            writeLogMessage(kAbandonedBeforeRestart, LogLevel::kInfo);
        }
        return;
    }
    if (Restart() != 0) showErrorMessage("Auto reboot failed. Please reboot lidar manually.");
}

void LidarUtilitiesManager::markUpgradeStart() {
    std::lock_guard<std::mutex> lock(closingMutex_);
    stopsAtUpgradeStart_.store(stops_.load());
}

bool LidarUtilitiesManager::upgradeStopped() const {
    return closing_.load() || stops_.load() != stopsAtUpgradeStart_.load();
}

bool LidarUtilitiesManager::pauseUnlessStopped(long ms) {
    std::unique_lock<std::mutex> lock(closingMutex_);
    return !closingWake_.wait_for(lock, std::chrono::milliseconds(ms),
                                  [this] { return upgradeStopped(); });
}
