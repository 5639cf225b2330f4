// The façade's connection orchestration: Stop (the link, the loops and what
// they fed, in the design's order), the two device commands that end a connection (Restart,
// Reset), and the configuration-file query. The link itself is the DeviceLink (device_link.h).

#include <QString>
#include <QThread>
#include <chrono>
#include <system_error>

#include "command_text.h"
#include "developer_log.h"
#include "device_link.h"
#include "edit_staging.h"
#include "field_of_view.h"
#include "firmware_upgrade.h"
#include "lidar_utilities_manager.h"
#include "log_download.h"
#include "monitor_service.h"
#include "page_reader.h"
#include "parameter_catalogue.h"
#include "sdk/serial_client.h"

namespace {

constexpr uint8_t kConfigFileCommand = 0x74;

}  // namespace

// ---- Disconnecting ----

void LidarUtilitiesManager::Stop() {
    // An upgrade pausing (in upgrade mode, or before the restart) is abandoned now, not after.
    upgrade_->stopHappened();
    try {
        // An attempt in flight leaves nothing connected behind, and a query waiting for a lidar
        // that stopped answering is woken now rather than at its time-out.
        link_->cancelConnectAttempt();
        if (std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient())
            client->GetClient().Close();
        switch (link_->connectionKind()) {
            case 0:
                link_->markDisconnected();
                reader_->askPageLoopToStop();
                monitor_->stopThreads();
                reader_->joinPageLoop();
                catalogue_->resetSerialNumberTexts();
                link_->setAuthorizedClient(nullptr);
                staging_->clearOnOwnerThread();
                emit isConnectedChanged();
                notifyMyMapChanged();
                fov_->reset();
                writeLogMessage("Lidar disconnected", LogLevel::kInfo);
                break;
            case 1:
                link_->markDisconnected();
                reader_->askPageLoopToStop();
                // Closing the lines wakes the page loop's query, so the join does not wait for
                // its time-out.
                link_->closeSerialLines();
                reader_->joinPageLoop();
                link_->releaseSerialLink(true, true, true);
                emit isConnectedChanged();
                emit wrenLidarInfoChanged();
                writeLogMessage("Lidar disconnected", LogLevel::kInfo);
                break;
            case 2:
                link_->markDisconnected();
                reader_->askPageLoopToStop();
                reader_->joinPageLoop();
                catalogue_->resetSerialNumberTexts();
                link_->setAuthorizedClient(nullptr);
                emit isConnectedChanged();
                emit wrenLidarInfoChanged();
                writeLogMessage("Lidar disconnected", LogLevel::kInfo);
                break;
            default:
                writeLogMessage("connect type is not support", LogLevel::kInfo);
                break;
        }
    } catch (const std::exception&) {
        developer_log::writeDeveloperLine("stop error");
    }
}

// ---- Device commands that end the connection ----

int LidarUtilitiesManager::sendDeviceCommand(const char* variableName, const char* fallbackName,
                                             const QString& notFoundName,
                                             const QString& notFoundCommand) {
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!client || !client->IsOpen() || getIsUpgrading() || !getIsConnected() || getIsDownloadLog())
        return -1;
    VarInfo* var = searchVarPtr(variableName, "var_name");
    if (!var) var = searchVarPtr(fallbackName, "var_name");
    if (!var) {
        showErrorMessage(notFoundName);
        return -1;
    }
    const std::string command = !var->set_cmd.empty() ? var->set_cmd : var->get_cmd;
    if (command.empty()) {
        showErrorMessage(notFoundCommand);
        return -1;
    }
    u8Array_t payload;
    uint8_t code = 0xff;
    if (!commandRequestOf(command, code, payload)) {
        showErrorMessage(notFoundCommand);
        return -1;
    }
    payload.insert(payload.end(), var->get_payload.begin(), var->get_payload.end());

    u8Array_t reply;
    const int ret = client->QueryCommand(payload, reply, code, true);
    if (ret == 0) {
        Stop();
        return 0;
    }
    showErrorMessage(
        "Auto reboot failed, ret_code: " + QString::number(client->GetLastReturnCode()) +
        ". Please reboot lidar manually.");
    return ret;
}

int LidarUtilitiesManager::Restart() {
    try {
        return sendDeviceCommand("Restart", "restart", "Can not find restart name",
                                 "Can not find restart command");
    } catch (const std::exception& e) {
        showErrorMessage(QString("Restart error: ") + e.what());
        return -1;
    }
}

int LidarUtilitiesManager::Reset() {
    try {
        return sendDeviceCommand("Reset", "reset", "Can not find reset name",
                                 "Can not find reset command");
    } catch (const std::exception& e) {
        showErrorMessage(QString("retset error: ") + e.what());
        return -1;
    }
}

// ---- Workers ----

// The short workers of the link, then the upgrade and log workers.
void LidarUtilitiesManager::waitForWorkers() {
    link_->waitForWorkers();
    upgrade_->waitForWorkers();
    logs_->waitForWorkers();
}

// ---- Configuration file ----

bool LidarUtilitiesManager::get_config_file() {
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    u8Array_t reply;
    const int ret = client ? client->QueryCommand({}, reply, kConfigFileCommand, false) : 0;
    // The device's answer is not kept; the outcome test is the reverse of every other query's,
    // as the host viewer expects.
    if (ret != 0) {
        developer_log::writeDeveloperLine("[SUCCESS]: Get config file from lidar success! \n");
        return true;
    }
    developer_log::writeDeveloperLine("[FAILED]: Get config file from lidar failed! \n");
    return false;
}

void LidarUtilitiesManager::StartGetConfigFile() {
    try {
        startWorker([this] { get_config_file(); });
    } catch (const std::system_error& e) {
        // An invokable operation reports, it does not throw into the UI.
        showErrorMessage(QString("Could not start the configuration-file query: ") + e.what());
    }
}
