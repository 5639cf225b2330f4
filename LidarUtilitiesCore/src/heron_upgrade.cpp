// Heron OTA upgrade (firmware_upgrade.h): the package header and the components it holds, and the
// worker that puts the lidar into upgrade mode, writes the partition that is not running, the FPGA
// images and the parameters one component after another, and restarts the lidar.
//
// The package is bytes from a file nobody vouches for: every offset and size is checked in 64-bit
// arithmetic before it is used.

#include <QFile>
#include <QFileInfo>
#include <QVariantMap>
#include <algorithm>
#include <climits>
#include <system_error>
#include <thread>

#include "developer_log.h"
#include "firmware_upgrade.h"
#include "heron_ota_package.h"
#include "lidar_utilities_manager.h"
#include "sdk/authorized_vrc_client.h"
#include "subsystem_views.h"

namespace {

// clang-format off
const char* const kRestartNotAcknowledged = "Heron upgrade completed. The restart command was not acknowledged; please power-cycle or reconnect the lidar if it does not respond.";
const char* const kAbandonedInUpgradeMode = "Heron upgrade abandoned: no component was sent, and the lidar is still in upgrade mode. Connect and run the same upgrade again.";
// clang-format on

constexpr long kPauseBeforeTransferMs = 300;
// The lidar needs this long in upgrade mode before it takes the first component.
constexpr long kPauseAfterUpgradeModeMs = 3000;
constexpr size_t kBmbAppA = 0;
constexpr size_t kBmbAppB = 1;
constexpr size_t kBmbFpga = 2;
constexpr size_t kTmbFpga = 3;
constexpr size_t kTmbParam = 4;

std::string partitionName(uint8_t partition) {
    return partition == 0 ? "A" : "B";
}

// 1024-byte units, the last partial one counted.
uint64_t unitsOf(size_t bytes) {
    return (uint64_t(bytes) + 1023) >> 10;
}

}  // namespace

// ---- The package ----

bool FirmwareUpgrade::parseHeronPackageHeader(const u8Array_t& package, HeronOtaPackageInfo& info) {
    std::string reason;
    const bool valid = heron_ota::CheckHeader(package, info, reason);
    if (!reason.empty()) messages_.log(reason, LogLevel::kInfo);
    return valid;
}

u8Array_t FirmwareUpgrade::extractHeronComponent(const u8Array_t& package,
                                                 const HeronOtaComponentInfo& component,
                                                 const std::string& name) {
    std::string reason;
    u8Array_t bytes = heron_ota::ExtractComponent(package, component, name, reason);
    if (!reason.empty()) messages_.log(reason, LogLevel::kInfo);
    return bytes;
}

// ---- Starting ----

int FirmwareUpgrade::upgradeHeron(const QUrl& file) {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!link_.linkConnected() || upgrading_.load() ||
        link_.connectionKind() != kVrcOverSerialKind || !client || !client->IsOpen()) {
        messages_.showError("lidar is not connected, or lidar is upgrading");
        return -1;
    }
    QFile package(file.toLocalFile());
    if (!package.open(QIODevice::ReadOnly)) {
        messages_.showError("Failed to open upgrade file");
        return -1;
    }
    return startHeronPackageTransfer(package) ? 0 : -1;
}

// Reads the package, marks the upgrade, pauses, and hands the bytes to the worker (joined by the
// destructor, as every worker is).
bool FirmwareUpgrade::startHeronPackageTransfer(QFile& file) {
    if (file.size() > INT32_MAX) {
        const std::string text =
            "Upgrade package " + file.fileName().toStdString() + " is larger than 2 GiB";
        messages_.showError(QString::fromStdString(text));
        messages_.log(text + "; nothing was sent", LogLevel::kError);
        return false;
    }
    const QByteArray read = file.readAll();
    file.close();
    if (static_cast<size_t>(read.size()) < heron_ota::kHeaderSize) {
        messages_.showError("Upgrade package too small");
        return false;
    }
    auto bytes = std::make_shared<u8Array_t>(
        reinterpret_cast<const uint8_t*>(read.constData()),
        reinterpret_cast<const uint8_t*>(read.constData()) + read.size());
    markUpgradeStart(bytes->size());
    if (!pauseUnlessStopped(kPauseBeforeTransferMs)) {
        messages_.log("Heron upgrade abandoned before it began; nothing was sent",
                      LogLevel::kWarning);
        endHeronUpgrade();
        return false;
    }
    try {
        workers_.start([this, bytes] { transferHeron(*bytes); });
    } catch (const std::system_error& e) {
        messages_.log(std::string("Upgrade worker could not start: ") + e.what(), LogLevel::kError);
        endHeronUpgrade();
        return false;
    }
    return true;
}

void FirmwareUpgrade::endHeronUpgrade() {
    if (upgrading_.exchange(false)) emit isUpgradingChanged();
}

// ---- The worker ----

void FirmwareUpgrade::transferHeron(u8Array_t& package) {
    try {
        HeronOtaPackageInfo info;
        if (!parseHeronPackageHeader(package, info)) {
            messages_.showError("Invalid Heron OTA upgrade package");
            endHeronUpgrade();
            return;
        }
        // The flags in decimal after "0x", as the upgrade log has always written them.
        messages_.log("Heron OTA package parsed: flags=0x" + std::to_string(info.flags) +
                          ", total_size=" + std::to_string(info.total_size),
                      LogLevel::kInfo);
        const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
        uint8_t partition = 0;
        if (!prepareHeronUpgrade(client.get(), partition)) return;
        const std::vector<HeronUpgradePlanEntry> plan = buildHeronPlan(info, partition);
        if (plan.empty()) {
            const std::string text =
                "Heron upgrade: no component matches current upgrade plan, partition=" +
                partitionName(partition) + ", flags=0x" + std::to_string(info.flags);
            messages_.showError(QString::fromStdString(text));
            messages_.log(text, LogLevel::kError);
            endHeronUpgrade();
            return;
        }
        if (!sendHeronPlan(*client, package, plan)) return;
        endHeronUpgrade();
        if (heronRestart_.restartHeron() != 0) {
            messages_.showSuccess(kRestartNotAcknowledged);
        } else {
            messages_.showSuccess("Heron upgrade completed. Restart command has been sent.");
        }
        link_.stopLink();
    } catch (const std::exception& e) {
        developer_log::writeDeveloperLine(
            std::string("GetLidarUpgradeInfoHeron(): Caught Exception: ") + e.what() + "\n");
        messages_.log(std::string("Heron upgrade: ") + e.what(), LogLevel::kError);
        endHeronUpgrade();
    }
}

// The link rate, upgrade mode and the pause the lidar needs after it; false when the upgrade
// ended here (reported, or the manager is closing).
bool FirmwareUpgrade::prepareHeronUpgrade(AuthorizedVrcClient* client, uint8_t& partition) {
    // No client: stopped between the start and this thread; the rate cannot be set.
    if (client == nullptr || client->WrenSetBaudRate(client->GetSerialBaudRate()) != 0) {
        messages_.showError("Heron upgrade: set baudrate failed");
        endHeronUpgrade();
        return false;
    }
    partition = 0;
    if (client->WrenSerialEnterUpgradeMode(partition) != 0) {
        messages_.showError("Heron upgrade: change mode failed");
        endHeronUpgrade();
        return false;
    }
    messages_.log("Heron upgrade: current partition=" + partitionName(partition), LogLevel::kInfo);
    if (!pauseUnlessStopped(kPauseAfterUpgradeModeMs)) {
        // A manager being destroyed tells nobody; a Stop was the user's, who is told.
        if (!closing_.load()) {
            messages_.showError(kAbandonedInUpgradeMode);
            messages_.log(kAbandonedInUpgradeMode, LogLevel::kInfo);
        }
        endHeronUpgrade();
        return false;
    }
    return true;
}

// The application for the partition that is not running, then the FPGA images and the
// parameters: those the package holds.
std::vector<HeronUpgradePlanEntry> FirmwareUpgrade::buildHeronPlan(const HeronOtaPackageInfo& info,
                                                                   uint8_t partition) {
    const size_t order[] = {partition == 0 ? kBmbAppB : kBmbAppA, kBmbFpga, kTmbFpga, kTmbParam};
    std::vector<HeronUpgradePlanEntry> plan;
    for (size_t index : order) {
        const heron_ota::ComponentKind& kind = heron_ota::kComponents[index];
        const HeronOtaComponentInfo& component = info.*(kind.info);
        if (!component.present) {
            messages_.log(
                std::string("Heron upgrade: skip ") + kind.name + ", not found in package",
                LogLevel::kInfo);
            continue;
        }
        plan.push_back({kind.name, kind.type, component});
    }
    return plan;
}

// The totals, then every component in order; false when one could not be sent (reported).
bool FirmwareUpgrade::sendHeronPlan(AuthorizedVrcClient& client, const u8Array_t& package,
                                    const std::vector<HeronUpgradePlanEntry>& plan) {
    uint64_t total = 0;
    for (const HeronUpgradePlanEntry& entry : plan)
        total += unitsOf(extractHeronComponent(package, entry.info, entry.name).size());
    progressTotal_.store(static_cast<int32_t>(std::min<uint64_t>(total, INT32_MAX)));
    progress_.store(0);

    for (size_t sent = 0; sent < plan.size(); ++sent) {
        const HeronUpgradePlanEntry& entry = plan[sent];
        if (upgradeStopped()) {
            if (!closing_.load()) {
                messages_.showError("Heron upgrade abandoned before " +
                                    QString::fromStdString(entry.name));
                reportHeronUpgradeCut(plan, sent);
            }
            endHeronUpgrade();
            return false;
        }
        u8Array_t bytes = extractHeronComponent(package, entry.info, entry.name);
        if (bytes.empty()) {
            messages_.showError(
                QString::fromStdString("Heron upgrade: failed to extract " + entry.name));
            endHeronUpgrade();
            return false;
        }
        messages_.log("Heron upgrade: sending " + entry.name + " (type=0x0" +
                          std::to_string(entry.type) + ", size=" + std::to_string(bytes.size()) +
                          ")",
                      LogLevel::kInfo);
        const int ret = client.HeronSendComponentData(bytes, entry.type, progress_);
        if (ret != 0) {
            std::string text =
                "Heron upgrade: " + entry.name + " failed, error=" + std::to_string(ret);
            // Stopped meanwhile: the transfer failed because the connection was closed.
            if (upgradeStopped()) text = "Heron upgrade abandoned during " + entry.name;
            if (!closing_.load()) {
                messages_.showError(QString::fromStdString(text));
                messages_.log(text, LogLevel::kInfo);
                reportHeronUpgradeCut(plan, sent);
            }
            endHeronUpgrade();
            return false;
        }
        messages_.log("Heron upgrade: " + entry.name + " completed", LogLevel::kInfo);
    }
    return true;
}

// What a lidar whose plan was cut holds: it stays in upgrade mode with the components before the
// cut written; the same package sends them all again.
void FirmwareUpgrade::reportHeronUpgradeCut(const std::vector<HeronUpgradePlanEntry>& plan,
                                            size_t completed) {
    const auto names = [&plan](size_t from, size_t to) {
        std::string list;
        for (size_t i = from; i < to; ++i)
            list += (i == from ? "" : i + 1 == to ? " and " : ", ") + plan[i].name;
        return list;
    };
    const size_t left = plan.size() - completed;
    const std::string notWritten =
        names(completed, plan.size()) + (left == 1 ? " was not written" : " were not written");
    const std::string held = completed == 0 ? "no new component: " + notWritten
                                            : names(0, completed) + " written; " + notWritten;
    messages_.log("Heron upgrade: the lidar is left in upgrade mode with " + held +
                      "; run the same upgrade again to finish it",
                  LogLevel::kWarning);
}

// ---- The façade's Heron upgrade operations ----

int LidarUtilitiesManager::HeronUpgradeLidar(QUrl file) {
    return upgrade_->upgradeHeron(file);
}

void LidarUtilitiesManager::GetLidarUpgradeInfoHeron(u8Array_t& package) {
    upgrade_->transferHeron(package);
}

bool LidarUtilitiesManager::HeronParseOtaPackageHeader(const u8Array_t& package,
                                                       HeronOtaPackageInfo& info) {
    return upgrade_->parseHeronPackageHeader(package, info);
}

u8Array_t LidarUtilitiesManager::HeronExtractComponentData(const u8Array_t& package,
                                                           const HeronOtaComponentInfo& component,
                                                           const std::string& name) {
    return upgrade_->extractHeronComponent(package, component, name);
}

namespace {

// A package, as the upgrade takes it, is at most 2 GiB.
constexpr qint64 kLargestPackage = INT32_MAX;

QString crcText(uint32_t crc) {
    return "0x" + QString::number(crc, 16).toUpper().rightJustified(8, '0');
}

QVariantMap componentMap(const heron_ota::ComponentReport& component) {
    return {{"name", QString::fromStdString(component.name)},
            {"type", int(component.type)},
            {"offset", qint64(component.offset)},
            {"size", qint64(component.size)},
            {"crc32", crcText(component.crc32)},
            {"sent", qint64(component.sentSize)},
            {"sentCrc32", crcText(component.sentCrc32)}};
}

}  // namespace

QVariantMap LidarUtilitiesManager::HeronInspectOtaPackage(QUrl file) const {
    const QString path = file.isLocalFile() ? file.toLocalFile() : file.toString();
    QFile package(path);
    if (!QFileInfo(path).isFile() || !package.open(QIODevice::ReadOnly))
        return {{"valid", false}, {"reason", "cannot read " + path}};
    if (package.size() > kLargestPackage)
        return {{"valid", false},
                {"reason", path + " holds " + QString::number(package.size()) +
                               " bytes; a package is at most 2 GiB"}};
    const QByteArray bytes = package.readAll();
    const auto* first = reinterpret_cast<const uint8_t*>(bytes.constData());
    const heron_ota::Inspection inspection =
        heron_ota::Inspect(u8Array_t(first, first + bytes.size()));
    QVariantList components;
    for (const heron_ota::ComponentReport& component : inspection.components)
        components.append(componentMap(component));
    return {{"valid", inspection.valid},
            {"reason", QString::fromStdString(inspection.reason)},
            {"bytes", qint64(bytes.size())},
            {"totalSize", qint64(inspection.info.total_size)},
            {"flags", int(inspection.info.flags)},
            {"components", components}};
}
