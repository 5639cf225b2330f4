// The manager object: creation, shared fields, connection properties, the settings file, and the
// log and pop-up message channels.

#include "lidar_utilities_manager.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <stdexcept>
#include <system_error>

#include "command_console.h"
#include "developer_log.h"
#include "edit_staging.h"
#include "field_of_view.h"
#include "firmware_upgrade.h"
#include "log_download.h"
#include "manager_views.h"
#include "monitor_service.h"
#include "user_messages.h"

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
      currentConfigPath(std::move(configPath)),
      views_(std::make_unique<ManagerViews>(*this)),
      messages_(std::make_unique<UserMessages>(*views_, *views_)),
      console_(std::make_unique<CommandConsole>(*views_, *views_, *messages_)),
      staging_(std::make_unique<EditStaging>(*views_, *views_, *views_, *messages_)),
      fov_(std::make_unique<FieldOfView>(*staging_, *messages_)),
      monitor_(std::make_unique<MonitorService>(*views_, *views_, *views_, *views_, *messages_)),
      upgrade_(std::make_unique<FirmwareUpgrade>(*views_, *views_, *messages_, *views_, *views_)),
      logs_(std::make_unique<LogDownload>(*views_, *views_, *messages_, *views_)) {
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
    connect(upgrade_.get(), &FirmwareUpgrade::isUpgradingChanged, this,
            &LidarUtilitiesManager::isUpgradingChanged, Qt::DirectConnection);
    connect(logs_.get(), &LogDownload::isDownloadLogChanged, this,
            &LidarUtilitiesManager::isDownloadLogChanged, Qt::DirectConnection);
    connect(logs_.get(), &LogDownload::downloadFinished, this,
            &LidarUtilitiesManager::downloadFinished, Qt::DirectConnection);
    connect(logs_.get(), &LogDownload::downloadOperationLogFinished, this,
            &LidarUtilitiesManager::downloadOperationLogFinished, Qt::DirectConnection);
    readSettings();
    emit initInfoChanged();
}

LidarUtilitiesManager::~LidarUtilitiesManager() {
    // Workers end at once: their waits are woken, a transfer or log request in progress fails
    // when the client closes, and a connect worker still running is cancelled. Then they are
    // waited for, so that none starts a page thread after Stop or touches a destroyed manager.
    upgrade_->managerClosing();
    if (std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient())
        client->GetClient().Close();
    closeSerialLines();
    cancelConnectAttempt();
    waitForWorkers();
    Stop();
    // Stop joins the monitor threads on a network connection only; none may outlive the manager.
    monitor_->stopThreads();
}

// ---- Settings file ----

QString LidarUtilitiesManager::settingsFilePath() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
           "/ZephyrDataFiles/RecvSettings.ini";
}

void LidarUtilitiesManager::readSettings() {
    QSettings settings(settingsFilePath(), QSettings::IniFormat);
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    if (settings.contains("device_ip_address"))
        ipAddress = settings.value("device_ip_address", QVariant()).toString().toStdString();
    if (settings.contains("vrc_port"))
        vrcPort = settings.value("vrc_port", QVariant()).toString().toStdString();
    if (settings.contains("rs485_com"))
        serialPort485 = settings.value("rs485_com", QVariant()).toString().toStdString();
    if (settings.contains("rs232_com"))
        serialPort232 = settings.value("rs232_com", QVariant()).toString().toStdString();
    if (settings.contains("point_cloud_baudrate"))
        pointCloudBaudRate =
            static_cast<uint32_t>(settings.value("point_cloud_baudrate", QVariant()).toInt());
    if (settings.contains("udp_port"))
        udpPort = static_cast<uint16_t>(settings.value("udp_port", QVariant()).toInt());
}

// QSettings does not create missing folders on every platform: make sure Documents exists.
QString LidarUtilitiesManager::writableSettingsFilePath() {
    const QString path = settingsFilePath();
    QDir().mkpath(QFileInfo(path).absolutePath());
    return path;
}

void LidarUtilitiesManager::saveConnectionSettings() {
    QSettings settings(writableSettingsFilePath(), QSettings::IniFormat);
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    settings.setValue("device_ip_address", QString::fromStdString(ipAddress));
    settings.setValue("vrc_port", QString::fromStdString(vrcPort));
    settings.setValue("rs485_com", QString::fromStdString(serialPort485));
    settings.setValue("rs232_com", QString::fromStdString(serialPort232));
    settings.setValue("point_cloud_baudrate", QString::number(pointCloudBaudRate));
    settings.setValue(
        QString("vrc_client_host_port/%1").arg(QString::fromStdString(selectLidarModel)),
        QString::fromStdString(vrcClientHostPort));
    settings.sync();
}

void LidarUtilitiesManager::savePointCloudBaudRate() {
    QSettings settings(writableSettingsFilePath(), QSettings::IniFormat);
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    settings.setValue("point_cloud_baudrate", QString::number(pointCloudBaudRate));
    settings.sync();
}

// ---- Connection properties ----

QString LidarUtilitiesManager::getIpAddress() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(ipAddress);
}

void LidarUtilitiesManager::setIpAddress(QString address) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    ipAddress = address.toStdString();
}

QString LidarUtilitiesManager::getPort() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(vrcPort);
}

void LidarUtilitiesManager::setPort(QString port) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    vrcPort = port.toStdString();
}

QString LidarUtilitiesManager::serial_port_485() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(serialPort485);
}

void LidarUtilitiesManager::set_serial_port_485(QString device) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    serialPort485 = device.toStdString();
}

QString LidarUtilitiesManager::serial_port_232() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(serialPort232);
}

void LidarUtilitiesManager::set_serial_port_232(QString device) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    serialPort232 = device.toStdString();
}

QString LidarUtilitiesManager::baud_rate() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::number(pointCloudBaudRate);
}

void LidarUtilitiesManager::set_baud_rate(QString rate) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    pointCloudBaudRate = rate.toUInt(nullptr, 10);  // 0 when not a number
}

QString LidarUtilitiesManager::getUdpPort() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::number(udpPort);
}

void LidarUtilitiesManager::setUdpPort(QString port) {
    // The text's leading decimal number, its low 16 bits kept, as designed. A text without one
    // (or one past the int range) leaves the port as it was: a property setter has no caller to
    // throw to, so the log says it.
    int value = 0;
    const std::string text = port.toStdString();
    try {
        value = std::stoi(text);
    } catch (const std::invalid_argument&) {
        writeLogMessage("UDP port not changed: \"" + text + "\" is not a number", LogLevel::kError);
        return;
    } catch (const std::out_of_range&) {
        writeLogMessage("UDP port not changed: \"" + text + "\" is out of range", LogLevel::kError);
        return;
    }
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    udpPort = static_cast<uint16_t>(value);
}

QString LidarUtilitiesManager::getVrcClientHostPort() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(vrcClientHostPort);
}

void LidarUtilitiesManager::setVrcClientHostPort(QString text) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    vrcClientHostPort = text.toStdString();
}

bool LidarUtilitiesManager::getEnableVrcClientHostPortUi() const {
    return enableVrcClientHostPortUi.load();
}

std::string LidarUtilitiesManager::getSelectLidarModel() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return selectLidarModel;
}

void LidarUtilitiesManager::setSelectLidarModel(std::string model) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    selectLidarModel = std::move(model);
}

std::string LidarUtilitiesManager::getCurrentConfigPath() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return currentConfigPath;
}

std::shared_ptr<AuthorizedVrcClient> LidarUtilitiesManager::getAuthorizedClient() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return authorizedClient;
}

void LidarUtilitiesManager::setAuthorizedClient(std::shared_ptr<AuthorizedVrcClient> client) {
    std::shared_ptr<AuthorizedVrcClient> previous;
    {
        std::lock_guard<std::mutex> lock(clientMutex_);
        previous = std::move(authorizedClient);
        authorizedClient = std::move(client);
    }
    // The old client (and its socket) is released outside the lock: a worker may still hold it.
}

bool LidarUtilitiesManager::clientIsOpen() const {
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    return client && client->IsOpen();
}

bool LidarUtilitiesManager::deviceIsIdle() const {
    return clientIsOpen() && isConnected.load() && !getIsUpgrading() && !getIsDownloadLog();
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

void LidarUtilitiesManager::setVrcClientLogCallback() {
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!client) {
        developer_log::writeDeveloperLine("VrcClient haven't initialized\n");
        return;
    }
    client->GetClient().SetLogCallback(
        [this](const std::string& line) { logMessageHandler(line); });
}
