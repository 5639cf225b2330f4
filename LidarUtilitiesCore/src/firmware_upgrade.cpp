// Firmware upgrade (firmware_upgrade.h): the package is read on the calling thread and pushed to
// the lidar by a worker through the SDK transfer that matches the connection kind.

#include "firmware_upgrade.h"

#include <QFile>
#include <chrono>
#include <climits>
#include <optional>
#include <system_error>

#include "developer_log.h"
#include "file_checks.h"
#include "lidar_utilities_manager.h"
#include "parameter_catalogue.h"
#include "sdk/authorized_vrc_client.h"
#include "sdk/serial_client.h"
#include "sdk/text_fields.h"
#include "subsystem_views.h"

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

FirmwareUpgrade::FirmwareUpgrade(DeviceLinkView& link, const BusyView& busy,
                                 UserMessageSink& messages, const VariableLookup& catalogue,
                                 DeviceRestart& restart, HeronRestart& heronRestart)
    : link_(link),
      busy_(busy),
      messages_(messages),
      catalogue_(catalogue),
      restart_(restart),
      heronRestart_(heronRestart) {}

// ---- Starting ----

int FirmwareUpgrade::upgrade(const QUrl& file, int module, int page, int var) {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!client || !client->IsOpen() || upgrading_.load() || busy_.downloadingLog() ||
        !catalogue_.catalogueLoaded())
        return -1;
    QFile package(file.toLocalFile());
    if (!package.open(QIODevice::ReadOnly)) return 0;
    // An index outside the table names no variable, as a variable without a set command does.
    const VarInfo* variable = catalogue_.variableAt(module, page, var);
    if (!variable) {
        developer_log::writeDeveloperLine("UpgradeLidar(): no variable at [" +
                                          std::to_string(module) + "][" + std::to_string(page) +
                                          "][" + std::to_string(var) + "]\n");
        return 0;
    }
    std::string command = variable->set_cmd;
    if (command.empty()) return 0;
    return startPackageTransfer(package, std::move(command)) ? 0 : -1;
}

int FirmwareUpgrade::upgradeSerialModel(const QUrl& file) {
    bool ready = link_.linkConnected() && !upgrading_.load();
    const int kind = link_.connectionKind();
    if (kind == kSerialLinesKind) ready = ready && link_.serialClient();
    if (kind == kVrcOverSerialKind) {
        const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
        ready = ready && client && client->IsOpen();
    }
    if (!ready) {
        messages_.showError("lidar is not connected, or lidar is upgrade");
        return -1;
    }
    QFile package(file.toLocalFile());
    if (!package.open(QIODevice::ReadOnly)) return 0;
    return startPackageTransfer(package, "") ? 0 : -1;
}

// Reads the package, marks the upgrade, pauses, and hands the bytes to the worker. The file's
// buffer is released before the worker starts, so the package is held twice only briefly.
bool FirmwareUpgrade::startPackageTransfer(QFile& file, std::string command) {
    std::optional<u8Array_t> package = readPackage(file);
    file.close();
    if (!package) {
        messages_.log("Upgrade package " + file.fileName().toStdString() +
                          " is larger than 2 GiB; nothing was sent",
                      LogLevel::kError);
        return false;
    }
    markUpgradeStart(package->size());
    if (!pauseUnlessStopped(kPauseBeforeTransferMs)) {
        messages_.log("Upgrade abandoned before the transfer; nothing was sent",
                      LogLevel::kWarning);
        endUpgrade();
        return false;
    }
    auto bytes = std::make_shared<u8Array_t>(std::move(*package));
    try {
        workers_.start([this, bytes, command = std::move(command)]() mutable {
            transfer(*bytes, std::move(command));
        });
    } catch (const std::system_error& e) {
        messages_.log(std::string("Upgrade worker could not start: ") + e.what(), LogLevel::kError);
        endUpgrade();
        return false;
    }
    return true;
}

void FirmwareUpgrade::markUpgradeStart(size_t packageBytes) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopsAtUpgradeStart_.store(stops_.load());
    }
    upgrading_.store(true);
    progress_.store(0);
    progressTotal_.store(static_cast<int32_t>(packageBytes >> 10));
    emit isUpgradingChanged();
}

void FirmwareUpgrade::endUpgrade() {
    upgrading_.store(false);
    emit isUpgradingChanged();
}

// ---- The worker ----

void FirmwareUpgrade::transfer(u8Array_t& package, std::string command) {
    const int kind = link_.connectionKind();
    const int mode = mode_.load();
    const bool serialOutcome = kind == kSerialLinesKind ||
                               (kind == kVrcOverSerialKind && mode != kSerialModeUsingVrcUpgrade);
    const int result = sendPackage(package, command, kind, mode);
    endUpgrade();

    if (serialOutcome) {
        tellSerialOutcome(result);
        return;
    }
    if (result != 0) {
        messages_.showError("Upgrade package transfer failed or is terminated.");
        messages_.log("Upgrade package transfer failed or is terminated.", LogLevel::kInfo);
        return;
    }
    messages_.showSuccess(kRebootWithinTenSeconds);
    restartAfterTransfer();
}

// The SDK transfer of the kind: the serial client's on kind 1, the VRC client's serial one on
// kind 2 (or its VRC one in the mode that uses it), the VRC one with the command on kind 0.
int FirmwareUpgrade::sendPackage(u8Array_t& package, const std::string& command, int kind,
                                 int mode) {
    int result = lidar::kVrcNotConnected;
    try {
        const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
        if (kind == kSerialLinesKind) {
            if (const std::shared_ptr<lidar::SerialClient> serial = link_.serialClient())
                result = serial->UpgradeLidar(package, mode, progress_);
        } else if (!client) {
            // Stopped between the start and this thread.
        } else if (kind == kVrcOverSerialKind && mode != kSerialModeUsingVrcUpgrade) {
            result = client->WrenUpgradeLidar(package, mode, progress_);
        } else if (kind == kVrcOverSerialKind) {
            result = client->UpgradeLidar(package, kVrcUpgradeCommand, progress_);
        } else {
            result = client->UpgradeLidar(package, command, progress_);
        }
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(std::string("GetLidarUpgradeInfo(): ") + e.what() + "\n");
    }
    return result;
}

// The serial models restart by themselves after a whole package; the connection ends here.
void FirmwareUpgrade::tellSerialOutcome(int result) {
    if (result == 0) {
        messages_.showSuccess(
            "Upgrade package transmitted successfully. The lidar will automatically reboot.");
        link_.stopLink();
        return;
    }
    const QString text =
        "Upgrade package transfer failed or is terminated. error:" + QString::number(result);
    messages_.showError(text);
    messages_.log(text.toStdString(), LogLevel::kInfo);
}

// The network models are restarted 10 s after a whole package, unless a Stop comes first.
void FirmwareUpgrade::restartAfterTransfer() {
    if (!pauseUnlessStopped(kRestartDelayMs)) {
        // A manager being destroyed tells nobody; a Stop was the user's, who is told.
        if (!closing_.load()) {
            messages_.showError(kAbandonedBeforeRestart);
            messages_.log(kAbandonedBeforeRestart, LogLevel::kInfo);
        }
        return;
    }
    if (restart_.restartLidar() != 0)
        messages_.showError("Auto reboot failed. Please reboot lidar manually.");
}

// ---- Stops and closing ----

void FirmwareUpgrade::stopHappened() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stops_.fetch_add(1);
    }
    wake_.notify_all();
}

void FirmwareUpgrade::managerClosing() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_.store(true);
    }
    wake_.notify_all();
}

bool FirmwareUpgrade::upgradeStopped() const {
    return closing_.load() || stops_.load() != stopsAtUpgradeStart_.load();
}

bool FirmwareUpgrade::pauseUnlessStopped(long ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !wake_.wait_for(lock, std::chrono::milliseconds(ms),
                           [this] { return upgradeStopped(); });
}

// ---- The façade's upgrade operations ----

int LidarUtilitiesManager::UpgradeLidar(QUrl file, int i, int j, int k) {
    return upgrade_->upgrade(file, i, j, k);
}

int LidarUtilitiesManager::WrenUpgradeLidar(QUrl file) {
    return upgrade_->upgradeSerialModel(file);
}

void LidarUtilitiesManager::WrenSetUpgradeMode(int mode) {
    upgrade_->setSerialMode(mode);
}

void LidarUtilitiesManager::GetLidarUpgradeInfo(u8Array_t& package, std::string command) {
    upgrade_->transfer(package, std::move(command));
}

QVariantList LidarUtilitiesManager::firmwareUpgradeVariable() const {
    constexpr uint8_t kFirmwareUpgradeCommand = 0x83;
    // A monitor variant may swap pages of the tree meanwhile: it is walked under the lock.
    const auto lock = catalogue_->lockVariables();
    const ParameterCatalogue::VariableTree* tree = catalogue_->variableTree();
    if (tree == nullptr) return {};
    for (size_t m = 0; m < tree->size(); ++m)
        for (size_t p = 0; p < (*tree)[m].size(); ++p)
            for (size_t v = 0; v < (*tree)[m][p].size(); ++v) {
                uint8_t code = 0;
                if (lidar::text::ParseCommandCode((*tree)[m][p][v]->set_cmd, code) &&
                    code == kFirmwareUpgradeCommand)
                    return {int(m), int(p), int(v)};
            }
    return {};
}

QString LidarUtilitiesManager::firmwarePackageProblem(const QString& path) const {
    return packageProblem(path);
}

bool LidarUtilitiesManager::getIsUpgrading() const {
    return upgrade_->upgrading();
}

int LidarUtilitiesManager::getUpgradeProgress() const {
    return upgrade_->progress();
}

int LidarUtilitiesManager::getUpgradeProgressTotalLen() const {
    return upgrade_->progressTotal();
}
