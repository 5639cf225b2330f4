// The manager object: creation, shared fields, and the log and pop-up message channels.

#include "lidar_utilities_manager.h"

#include <system_error>

#include "command_console.h"
#include "developer_log.h"
#include "device_link.h"
#include "edit_staging.h"
#include "field_of_view.h"
#include "firmware_upgrade.h"
#include "heron_operations.h"
#include "log_download.h"
#include "manager_views.h"
#include "monitor_service.h"
#include "page_reader.h"
#include "parameter_catalogue.h"
#include "user_messages.h"
#include "wren_settings.h"

LidarUtilitiesManager* LidarUtilitiesManager::instance_ = nullptr;
std::once_flag LidarUtilitiesManager::init_instance_flag_;

const std::string LidarUtilitiesManager::Egret_Str = "Egret";
const std::string LidarUtilitiesManager::Plover_Str = "Plover";
const std::string LidarUtilitiesManager::Tern_Str = "Tern";
const std::string LidarUtilitiesManager::Wren_Str = "Wren";
const std::string LidarUtilitiesManager::Wren_VRC_Str = "Wren-VRC";
const std::string LidarUtilitiesManager::Heron_VRC_Str = "Heron-VRC";
const std::string LidarUtilitiesManager::READ_VAR = "0x01";
const std::string LidarUtilitiesManager::WRITE_VAR = "0x02";
const std::string LidarUtilitiesManager::READ_VAR_ARRAY = "0x03";
const std::string LidarUtilitiesManager::WRITE_VAR_ARRAY = "0x04";
const std::string LidarUtilitiesManager::READ_EQUIP_ADDRESS = "0x05";
const std::string LidarUtilitiesManager::WRITE_EQUIP_ADDRESS = "0x06";
const std::string LidarUtilitiesManager::READ_EQUIP_CONTINUE_ADDRESS = "0x07";
const std::string LidarUtilitiesManager::WRITE_EQUIP_CONTINUE_ADDRESS = "0x08";
const std::string LidarUtilitiesManager::READ_FILE = "0x09";
const std::string LidarUtilitiesManager::WRITE_FILE = "0x0A";
const std::string LidarUtilitiesManager::HAS_SUB_CMD = "0xff";
const std::string LidarUtilitiesManager::kStrVRCGetLidarModelFromLidar = "0x07";
const std::string LidarUtilitiesManager::kStrVRCGetLidarModelFromLidarSubCmd = "0x00010070";

// ---- Creation ----

LidarUtilitiesManager* LidarUtilitiesManager::getInstance(uint8_t tag, std::string configPath) {
    try {
        std::call_once(init_instance_flag_, initInstance, tag, std::move(configPath));
    } catch (const std::system_error&) {
        throw;
    } catch (const std::exception& e) {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again),
                                e.what());
    }
    return instance_;
}

void LidarUtilitiesManager::initInstance(uint8_t tag, std::string configPath) {
    instance_ = new LidarUtilitiesManager(tag, std::move(configPath));
}

LidarUtilitiesManager::LidarUtilitiesManager(uint8_t tag, std::string configPath)
    : QObject(nullptr),
      creationTag(tag),
      views_(std::make_unique<ManagerViews>(*this)),
      link_(std::make_unique<DeviceLink>(*views_, *views_, *views_, *views_)),
      messages_(std::make_unique<UserMessages>(*link_, *views_)),
      console_(std::make_unique<CommandConsole>(*link_, *views_, *messages_)),
      catalogue_(std::make_unique<ParameterCatalogue>(std::move(configPath))),
      reader_(std::make_unique<PageReader>(*catalogue_, *link_, *views_, *messages_, *views_)),
      staging_(std::make_unique<EditStaging>(*link_, *views_, *catalogue_, *reader_, *messages_)),
      fov_(std::make_unique<FieldOfView>(*staging_, *messages_)),
      heron_(std::make_unique<HeronOperations>(*link_, *views_, *messages_)),
      wren_(std::make_unique<WrenSettings>(*link_, *views_, *messages_, *link_)),
      monitor_(
          std::make_unique<MonitorService>(*link_, *views_, *catalogue_, *reader_, *messages_)),
      upgrade_(std::make_unique<FirmwareUpgrade>(*link_, *views_, *messages_, *catalogue_, *views_,
                                                 *heron_)),
      logs_(std::make_unique<LogDownload>(*link_, *views_, *messages_, *catalogue_)) {
    // Direct: the façade's signal goes out on the thread the subsystem emits on, as it did
    // before the subsystem was split out.
    connect(messages_.get(), &UserMessages::logLine, this, &LidarUtilitiesManager::sendLogMessage,
            Qt::DirectConnection);
    connect(messages_.get(), &UserMessages::errorChanged, this,
            &LidarUtilitiesManager::errorMessageChanged, Qt::DirectConnection);
    connect(messages_.get(), &UserMessages::successChanged, this,
            &LidarUtilitiesManager::successMessageChanged, Qt::DirectConnection);
    connect(console_.get(), &CommandConsole::historyChanged, this,
            &LidarUtilitiesManager::sendCommandHistoryChanged, Qt::DirectConnection);
    connect(fov_.get(), &FieldOfView::fovConfigChanged, this,
            &LidarUtilitiesManager::fovConfigChanged, Qt::DirectConnection);
    connect(heron_.get(), &HeronOperations::wrenLidarInfoChanged, this,
            &LidarUtilitiesManager::wrenLidarInfoChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::monitorHwVersionListChanged, this,
            &LidarUtilitiesManager::monitorHwVersionListChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::currentMonitorHwVersionChanged, this,
            &LidarUtilitiesManager::currentMonitorHwVersionChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::monitorContentChanged, this,
            &LidarUtilitiesManager::monitorContentChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::monitorAutoRefreshChanged, this,
            &LidarUtilitiesManager::monitorAutoRefreshChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::monitorRecordParamsChanged, this,
            &LidarUtilitiesManager::monitorRecordParamsChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::isMonitorRecordingChanged, this,
            &LidarUtilitiesManager::isMonitorRecordingChanged, Qt::DirectConnection);
    connect(monitor_.get(), &MonitorService::monitorReadingTaken, this,
            &LidarUtilitiesManager::monitorReadingTaken, Qt::DirectConnection);
    connect(upgrade_.get(), &FirmwareUpgrade::isUpgradingChanged, this,
            &LidarUtilitiesManager::isUpgradingChanged, Qt::DirectConnection);
    connect(logs_.get(), &LogDownload::isDownloadLogChanged, this,
            &LidarUtilitiesManager::isDownloadLogChanged, Qt::DirectConnection);
    connect(logs_.get(), &LogDownload::downloadFinished, this,
            &LidarUtilitiesManager::downloadFinished, Qt::DirectConnection);
    connect(logs_.get(), &LogDownload::downloadOperationLogFinished, this,
            &LidarUtilitiesManager::downloadOperationLogFinished, Qt::DirectConnection);
    connect(link_.get(), &DeviceLink::isConnectedChanged, this,
            &LidarUtilitiesManager::isConnectedChanged, Qt::DirectConnection);
    connect(reader_.get(), &PageReader::myMapChanged, this, &LidarUtilitiesManager::myMapChanged,
            Qt::DirectConnection);
    connect(reader_.get(), &PageReader::myTimerMapChanged, this,
            &LidarUtilitiesManager::myTimerMapChanged, Qt::DirectConnection);
    connect(reader_.get(), &PageReader::fovConfigChanged, this,
            &LidarUtilitiesManager::fovConfigChanged, Qt::DirectConnection);
    connect(reader_.get(), &PageReader::wrenLidarInfoChanged, this,
            &LidarUtilitiesManager::wrenLidarInfoChanged, Qt::DirectConnection);
    link_->readSettings();
    emit initInfoChanged();
}

LidarUtilitiesManager::~LidarUtilitiesManager() {
    // Workers end at once: their waits are woken, a transfer or log request in progress fails
    // when the client closes, and a connect worker still running is cancelled. Then they are
    // waited for, so that none starts a page thread after Stop or touches a destroyed manager.
    upgrade_->managerClosing();
    if (std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient())
        client->GetClient().Close();
    link_->closeSerialLines();
    link_->cancelConnectAttempt();
    waitForWorkers();
    Stop();
    // Stop joins the monitor threads on a network connection only; none may outlive the manager.
    monitor_->stopThreads();
}

// ---- Log and pop-up messages ----

void LidarUtilitiesManager::setDeveloperLineSink(
    std::function<void(const std::string& line)> sink) {
    developer_log::setDeveloperLineSink(std::move(sink));
}

void LidarUtilitiesManager::writeLogMessage(const std::string& message, const std::string& level) {
    messages_->logWithLevelText(message, level);
}

void LidarUtilitiesManager::writeLogMessage(const std::string& message, LogLevel level) {
    messages_->log(message, level);
}

void LidarUtilitiesManager::showErrorMessage(const QString& text) {
    messages_->showError(text);
}

void LidarUtilitiesManager::showSuccessMessage(const QString& text) {
    messages_->showSuccess(text);
}

void LidarUtilitiesManager::setErrorMsg(QString text) {
    messages_->setError(text);
}

void LidarUtilitiesManager::setSuccessMsg(QString text) {
    messages_->setSuccess(text);
}

QString LidarUtilitiesManager::getErrorMessage() const {
    return messages_->error();
}

QString LidarUtilitiesManager::getSuccessMessage() const {
    return messages_->success();
}

void LidarUtilitiesManager::SetLogBytesFlowStatus(bool on) {
    messages_->setByteFlow(on);
}

void LidarUtilitiesManager::logMessageHandler(const std::string& line) {
    messages_->deviceBytes(line);
}
