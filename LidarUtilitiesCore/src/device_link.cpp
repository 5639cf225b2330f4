// The device link (device_link.h): settings, link state, clients and short workers. The connect
// workers are in device_link_connect.cpp.

#include "device_link.h"

#include <QDir>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>
#include <stdexcept>

#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "sdk/authorized_vrc_client.h"
#include "sdk/serial_client.h"
#include "sdk/serial_source.h"
#include "subsystem_views.h"

namespace {

// The serial client's reply starts with its frame header; a catalogue block is the payload.
constexpr size_t kSerialHeaderSize = 8;

}  // namespace

DeviceLink::DeviceLink(ConnectionSteps& steps, const BusyView& busy, UserMessageSink& messages,
                       ByteFlowLog& byteFlow)
    : steps_(steps), busy_(busy), messages_(messages), byteFlow_(byteFlow) {}

void DeviceLink::stopLink() {
    steps_.stopConnection();
}

// ---- Settings file ----

QString DeviceLink::settingsFilePath() {
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation) +
           "/ZephyrDataFiles/RecvSettings.ini";
}

void DeviceLink::readSettings() {
    QSettings settings(settingsFilePath(), QSettings::IniFormat);
    std::lock_guard<std::mutex> lock(mutex_);
    if (settings.contains("device_ip_address"))
        ipAddress_ = settings.value("device_ip_address", QVariant()).toString().toStdString();
    if (settings.contains("vrc_port"))
        vrcPort_ = settings.value("vrc_port", QVariant()).toString().toStdString();
    if (settings.contains("rs485_com"))
        serialPort485_ = settings.value("rs485_com", QVariant()).toString().toStdString();
    if (settings.contains("rs232_com"))
        serialPort232_ = settings.value("rs232_com", QVariant()).toString().toStdString();
    if (settings.contains("point_cloud_baudrate"))
        pointCloudBaudRate_ =
            static_cast<uint32_t>(settings.value("point_cloud_baudrate", QVariant()).toInt());
    if (settings.contains("udp_port"))
        udpPort_ = static_cast<uint16_t>(settings.value("udp_port", QVariant()).toInt());
}

// QSettings does not create missing folders on every platform: make sure Documents exists.
QString DeviceLink::writableSettingsFilePath() {
    const QString path = settingsFilePath();
    QDir().mkpath(QFileInfo(path).absolutePath());
    return path;
}

void DeviceLink::saveConnectionSettings() {
    if (!remembersSettings_) return;
    QSettings settings(writableSettingsFilePath(), QSettings::IniFormat);
    std::lock_guard<std::mutex> lock(mutex_);
    settings.setValue("device_ip_address", QString::fromStdString(ipAddress_));
    settings.setValue("vrc_port", QString::fromStdString(vrcPort_));
    settings.setValue("rs485_com", QString::fromStdString(serialPort485_));
    settings.setValue("rs232_com", QString::fromStdString(serialPort232_));
    settings.setValue("point_cloud_baudrate", QString::number(pointCloudBaudRate_));
    settings.setValue(
        QString("vrc_client_host_port/%1").arg(QString::fromStdString(selectLidarModel_)),
        QString::fromStdString(vrcClientHostPort_));
    settings.sync();
}

void DeviceLink::savePointCloudBaudRate() {
    if (!remembersSettings_) return;
    QSettings settings(writableSettingsFilePath(), QSettings::IniFormat);
    std::lock_guard<std::mutex> lock(mutex_);
    settings.setValue("point_cloud_baudrate", QString::number(pointCloudBaudRate_));
    settings.sync();
}

QString DeviceLink::savedVrcClientHostPort(const QString& model) {
    QSettings settings(settingsFilePath(), QSettings::IniFormat);
    return settings.value("vrc_client_host_port/" + model, QString("ANY")).toString();
}

// ---- Settings ----

QString DeviceLink::ipAddress() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(ipAddress_);
}

void DeviceLink::setIpAddress(const QString& address) {
    std::lock_guard<std::mutex> lock(mutex_);
    ipAddress_ = address.toStdString();
}

QString DeviceLink::vrcPort() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(vrcPort_);
}

void DeviceLink::setVrcPort(const QString& port) {
    std::lock_guard<std::mutex> lock(mutex_);
    vrcPort_ = port.toStdString();
}

QString DeviceLink::rs485Device() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(serialPort485_);
}

void DeviceLink::setRs485Device(const QString& device) {
    std::lock_guard<std::mutex> lock(mutex_);
    serialPort485_ = device.toStdString();
}

QString DeviceLink::uartDevice() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(serialPort232_);
}

void DeviceLink::setUartDevice(const QString& device) {
    std::lock_guard<std::mutex> lock(mutex_);
    serialPort232_ = device.toStdString();
}

uint32_t DeviceLink::pointCloudBaudRate() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return pointCloudBaudRate_;
}

void DeviceLink::setPointCloudBaudRate(uint32_t rate) {
    std::lock_guard<std::mutex> lock(mutex_);
    pointCloudBaudRate_ = rate;
}

void DeviceLink::keepPointCloudBaudRate(uint32_t rate) {
    setPointCloudBaudRate(rate);
    savePointCloudBaudRate();
}

uint16_t DeviceLink::udpPort() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return udpPort_;
}

void DeviceLink::setUdpPort(const QString& text) {
    // The text's leading decimal number, its low 16 bits kept, as designed. A text without one
    // (or one past the int range) leaves the port as it was: a property setter has no caller to
    // throw to, so the log says it.
    int value = 0;
    const std::string digits = text.toStdString();
    try {
        value = std::stoi(digits);
    } catch (const std::invalid_argument&) {
        messages_.log("UDP port not changed: \"" + digits + "\" is not a number", LogLevel::kError);
        return;
    } catch (const std::out_of_range&) {
        messages_.log("UDP port not changed: \"" + digits + "\" is out of range", LogLevel::kError);
        return;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    udpPort_ = static_cast<uint16_t>(value);
}

QString DeviceLink::vrcClientHostPort() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(vrcClientHostPort_);
}

void DeviceLink::setVrcClientHostPort(const QString& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    vrcClientHostPort_ = text.toStdString();
}

std::string DeviceLink::selectedModel() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return selectLidarModel_;
}

void DeviceLink::setSelectedModel(std::string model) {
    std::lock_guard<std::mutex> lock(mutex_);
    selectLidarModel_ = std::move(model);
}

// ---- Clients ----

std::shared_ptr<AuthorizedVrcClient> DeviceLink::vrcClient() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return authorizedClient_;
}

void DeviceLink::setAuthorizedClient(std::shared_ptr<AuthorizedVrcClient> client) {
    std::shared_ptr<AuthorizedVrcClient> previous;
    {
        std::lock_guard<std::mutex> lock(clientMutex_);
        previous = std::move(authorizedClient_);
        authorizedClient_ = std::move(client);
    }
    // The old client (and its socket) is released outside the lock: a worker may still hold it.
}

std::shared_ptr<lidar::SerialClient> DeviceLink::serialClient() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return serialClient_;
}

std::shared_ptr<lidar::SerialSource> DeviceLink::rs485Source() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return rs485Source_;
}

std::shared_ptr<lidar::SerialSource> DeviceLink::uartSource() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return uartSource_;
}

bool DeviceLink::clientIsOpen() const {
    std::shared_ptr<AuthorizedVrcClient> client = vrcClient();
    return client && client->IsOpen();
}

bool DeviceLink::deviceIsIdle() const {
    return clientIsOpen() && isConnected_.load() && !busy_.upgrading() && !busy_.downloadingLog();
}

int DeviceLink::queryDevice(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) {
    reply.clear();
    if (connectType_.load() != kSerialLinesKind) {
        std::shared_ptr<AuthorizedVrcClient> client = vrcClient();
        return client ? client->QueryCommand(payload, reply, cmd, false) : lidar::kVrcNotConnected;
    }
    std::shared_ptr<lidar::SerialClient> client = serialClient();
    if (!client) return lidar::kVrcNotConnected;
    u8Array_t frame;
    const int ret = client->QueryCommand(cmd, payload, frame, 0);
    // The serial client answers with the reply's header; a catalogue block is its payload.
    if (ret == 0 && frame.size() >= kSerialHeaderSize)
        reply.assign(frame.begin() + kSerialHeaderSize, frame.end());
    return ret;
}

bool DeviceLink::deviceChannelOpen() const {
    if (connectType_.load() != kSerialLinesKind) return clientIsOpen();
    std::shared_ptr<lidar::SerialClient> client = serialClient();
    return client && client->IsOpen();
}

void DeviceLink::releaseSerialLink(bool rs485, bool uart, bool client) {
    std::shared_ptr<lidar::SerialSource> oldRs485, oldUart;
    std::shared_ptr<lidar::SerialClient> oldClient;
    {
        std::lock_guard<std::mutex> lock(clientMutex_);
        if (rs485) oldRs485 = std::move(rs485Source_);
        if (uart) oldUart = std::move(uartSource_);
        if (client) oldClient = std::move(serialClient_);
    }
    // Closed outside the lock: a query waiting on a line wakes up and ends.
    if (oldRs485) oldRs485->Close();
    if (oldUart) oldUart->Close();
}

void DeviceLink::closeSerialLines() {
    std::shared_ptr<lidar::SerialSource> rs485, uart;
    {
        std::lock_guard<std::mutex> lock(clientMutex_);
        rs485 = rs485Source_;
        uart = uartSource_;
    }
    if (rs485) rs485->Close();
    if (uart) uart->Close();
}

void DeviceLink::setVrcClientLogCallback() {
    std::shared_ptr<AuthorizedVrcClient> client = vrcClient();
    if (!client) {
        developer_log::writeDeveloperLine("VrcClient haven't initialized\n");
        return;
    }
    client->GetClient().SetLogCallback(
        [this](const std::string& line) { byteFlow_.deviceBytes(line); });
}

// ---- Short workers ----

void DeviceLink::startWorker(std::function<void()> job) {
    workers_.start(std::move(job));
}

void DeviceLink::waitForWorkers() {
    workers_.joinAll();
}

// ---- The façade's link operations ----

QString LidarUtilitiesManager::getIpAddress() const {
    return link_->ipAddress();
}

void LidarUtilitiesManager::setIpAddress(QString address) {
    link_->setIpAddress(address);
}

QString LidarUtilitiesManager::getPort() const {
    return link_->vrcPort();
}

void LidarUtilitiesManager::setPort(QString port) {
    link_->setVrcPort(port);
}

QString LidarUtilitiesManager::serial_port_485() const {
    return link_->rs485Device();
}

void LidarUtilitiesManager::set_serial_port_485(QString device) {
    link_->setRs485Device(device);
}

QString LidarUtilitiesManager::serial_port_232() const {
    return link_->uartDevice();
}

void LidarUtilitiesManager::set_serial_port_232(QString device) {
    link_->setUartDevice(device);
}

QString LidarUtilitiesManager::baud_rate() const {
    return QString::number(link_->pointCloudBaudRate());
}

void LidarUtilitiesManager::set_baud_rate(QString rate) {
    link_->setPointCloudBaudRate(rate.toUInt(nullptr, 10));  // 0 when not a number
}

QString LidarUtilitiesManager::getUdpPort() const {
    return QString::number(link_->udpPort());
}

void LidarUtilitiesManager::setUdpPort(QString port) {
    link_->setUdpPort(port);
}

QString LidarUtilitiesManager::getVrcClientHostPort() const {
    return link_->vrcClientHostPort();
}

void LidarUtilitiesManager::setVrcClientHostPort(QString text) {
    link_->setVrcClientHostPort(text);
}

bool LidarUtilitiesManager::getEnableVrcClientHostPortUi() const {
    return link_->hostPortUiEnabled();
}

std::string LidarUtilitiesManager::getSelectLidarModel() const {
    return link_->selectedModel();
}

QString LidarUtilitiesManager::getSelectedLidarModel() const {
    return QString::fromStdString(link_->selectedModel());
}

void LidarUtilitiesManager::setRemembersConnectionSettings(bool remembers) {
    link_->setRemembersSettings(remembers);
}

QString LidarUtilitiesManager::connectionSettingsFilePath() const {
    return DeviceLink::settingsFilePath();
}

void LidarUtilitiesManager::setSelectLidarModel(std::string model) {
    link_->setSelectedModel(std::move(model));
}

bool LidarUtilitiesManager::getIsConnected() const {
    return link_->linkConnected();
}

int LidarUtilitiesManager::getConnectType() const {
    return link_->connectionKind();
}

bool LidarUtilitiesManager::isConnecting() const {
    return link_->connecting();
}

int LidarUtilitiesManager::getConnectBaudRateResult() const {
    return link_->connectBaudRateResult();
}

std::shared_ptr<AuthorizedVrcClient> LidarUtilitiesManager::getAuthorizedClient() const {
    return link_->vrcClient();
}

std::shared_ptr<lidar::SerialClient> LidarUtilitiesManager::getSerialClient() const {
    return link_->serialClient();
}

std::shared_ptr<lidar::SerialSource> LidarUtilitiesManager::getRs485Source() const {
    return link_->rs485Source();
}

std::shared_ptr<lidar::SerialSource> LidarUtilitiesManager::getUartSource() const {
    return link_->uartSource();
}

void LidarUtilitiesManager::setVrcClientLogCallback() {
    link_->setVrcClientLogCallback();
}

bool LidarUtilitiesManager::deviceChannelOpen() const {
    return link_->deviceChannelOpen();
}

void LidarUtilitiesManager::startWorker(std::function<void()> job) {
    link_->startWorker(std::move(job));
}
