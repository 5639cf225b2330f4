// Connection control: connect workers per connection kind, the liveness probe, Stop, and the two
// device commands that end a connection (Restart, Reset), plus the configuration-file query.

#include <QString>
#include <QThread>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <stdexcept>
#include <system_error>

#include "command_text.h"
#include "developer_log.h"
#include "edit_staging.h"
#include "field_of_view.h"
#include "firmware_upgrade.h"
#include "lidar_utilities_manager.h"
#include "log_download.h"
#include "monitor_service.h"
#include "sdk/auth_config.h"
#include "sdk/serial_client.h"
#include "sdk/serial_source.h"
#include "sdk/vrc_client.h"
#include "user_messages.h"

namespace {

const char* const kAuthConfigPath = "./Config/auth_config.csv";
constexpr uint8_t kDeviceInfoCommand = 0x07;
// clang-format off
const char* const kLocalPortFailure = "Failed to bind VRC client local port or connection refused. Check the local port is free and matches lidar ACL (e.g. 42524).";
// clang-format on
constexpr uint8_t kNetworkConfigCommand = 0x08;
constexpr uint8_t kConfigFileCommand = 0x74;
// The UART source's second rate: the one it would take as a data line.
constexpr int kUartSecondRate = 3125000;

// A connect step that failed with a text meant for the log ("Connection Error: " + text).
class ConnectFailure : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

void sleepMs(long ms) {
    timespec request{ms / 1000, (ms % 1000) * 1000000L};
    timespec remaining{};
    while (nanosleep(&request, &remaining) == -1 && errno == EINTR) request = remaining;
}

// The access profile is the catalogue's base name: /a/b/Model_X.csv gives Model_X.
std::string profileFromConfigPath(const std::string& path) {
    std::string profile = path;
    const size_t slash = profile.rfind('/');
    if (slash != std::string::npos) profile = profile.substr(slash + 1);
    const size_t suffix = profile.rfind(".csv");
    if (suffix != std::string::npos) profile = profile.substr(0, suffix);
    return profile;
}

}  // namespace

// ---- Workers and threads ----

void LidarUtilitiesManager::startWorker(std::function<void()> job) {
    std::lock_guard<std::mutex> lock(workersMutex_);
    // Reap the workers that have finished, so the list does not grow over a long session.
    for (auto it = workers_.begin(); it != workers_.end();) {
        if (it->done->load()) {
            it->thread.join();
            it = workers_.erase(it);
        } else {
            ++it;
        }
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([job = std::move(job), done] {
        job();
        done->store(true);
    });
    workers_.push_back({std::move(thread), done});
}

void LidarUtilitiesManager::waitForWorkers() {
    std::vector<Worker> workers;
    {
        std::lock_guard<std::mutex> lock(workersMutex_);
        workers.swap(workers_);
    }
    for (Worker& worker : workers) worker.thread.join();
    upgrade_->waitForWorkers();
    logs_->waitForWorkers();
}

void LidarUtilitiesManager::joinThread(std::unique_ptr<std::thread>& thread) {
    std::unique_ptr<std::thread> owned;
    {
        std::lock_guard<std::mutex> lock(threadsMutex_);
        owned = std::move(thread);
    }
    if (owned && owned->joinable()) owned->join();
}

void LidarUtilitiesManager::startPagesThread(void (LidarUtilitiesManager::*loop)()) {
    // A connect over a live connection replaces the page thread: the old one is stopped first.
    stopPagesLoop();
    joinThread(pagesTimerThread);
    pagesTimerRunning.store(true);
    std::lock_guard<std::mutex> lock(threadsMutex_);
    try {
        pagesTimerThread = std::make_unique<std::thread>(loop, this);
    } catch (const std::system_error&) {
        stopPagesLoop();
        throw;
    }
}

// The serial models refresh their timer variables as the network model does: the same loop,
// whose reads go over the kind's client (queryDevice).
void LidarUtilitiesManager::WrenVrcUpdatePagesTimer() {
    updatePagesTimer();
}

void LidarUtilitiesManager::WrenUpdatePagesTimer() {
    updatePagesTimer();
}

void LidarUtilitiesManager::stopPagesLoop() {
    std::lock_guard<std::mutex> lock(pagesWakeMutex_);
    pagesTimerRunning.store(false);
    pagesWake_.notify_all();
}

void LidarUtilitiesManager::pagesLoopPause(long ms) {
    std::unique_lock<std::mutex> lock(pagesWakeMutex_);
    pagesWake_.wait_for(lock, std::chrono::milliseconds(ms),
                        [this] { return !pagesTimerRunning.load(); });
}

// ---- Connecting ----

bool LidarUtilitiesManager::ConnectLidar() {
    bool (LidarUtilitiesManager::*worker)() = nullptr;
    switch (connectType.load()) {
        case 0:
            worker = &LidarUtilitiesManager::Init;
            break;
        case 1:
            worker = &LidarUtilitiesManager::InitSerial;
            break;
        case 2:
            worker = &LidarUtilitiesManager::InitVrcForSerial;
            break;
        default:
            return false;
    }
    if (connecting.exchange(true)) return false;  // an attempt is already running
    {
        std::lock_guard<std::mutex> lock(connectMutex_);
        attemptEpoch_.store(++connectEpoch_);
    }
    try {
        startWorker([this, worker] { (this->*worker)(); });
    } catch (const std::system_error& e) {
        connecting.store(false);
        showErrorMessage(QString("Connection Failed. Could not start the connect worker: ") +
                         e.what());
        return false;
    }
    saveConnectionSettings();
    return true;
}

bool LidarUtilitiesManager::ifAttemptCurrent(uint64_t attempt, const std::function<void()>& step) {
    std::lock_guard<std::mutex> lock(connectMutex_);
    if (!attemptIsCurrent(attempt)) return false;
    step();
    return true;
}

bool LidarUtilitiesManager::cancelConnectAttempt() {
    std::lock_guard<std::mutex> lock(connectMutex_);
    ++connectEpoch_;
    return connecting.exchange(false);
}

void LidarUtilitiesManager::abandonAttempt(const std::shared_ptr<AuthorizedVrcClient>& client) {
    if (client) client->GetClient().Close();
}

void LidarUtilitiesManager::reportConnectFailure(const char* operation, const std::string& logText,
                                                 uint16_t localPort, uint64_t attempt) {
    // A cancelled attempt failed because it was told to stop: nothing to report.
    ifAttemptCurrent(attempt, [&] {
        developer_log::writeDeveloperLine(operation + std::string("(): init lidar error\n"));
        if (localPort != 0)
            showErrorMessage(kLocalPortFailure);
        else
            showErrorMessage("Connection Failed. Please check your network settings.");
        writeLogMessage("Connection Error: " + logText, LogLevel::kError);
        connecting.store(false);
    });
}

std::shared_ptr<AuthorizedVrcClient> LidarUtilitiesManager::openVrcConnection(const char* operation,
                                                                              uint32_t timeoutMs,
                                                                              uint16_t& localPort,
                                                                              uint64_t attempt) {
    const bool current = ifAttemptCurrent(attempt, [this] {
        connecting.store(true);
        setAuthorizedClient(nullptr);
        isConnected.store(false);
    });
    if (!current) return nullptr;

    if (enableVrcClientHostPortUi.load()) {
        std::string error;
        if (!ParseVrcClientHostPortText(getVrcClientHostPort().toStdString(), &localPort, &error)) {
            // Shown as it is: the text says what is wrong with the port; nothing is logged.
            ifAttemptCurrent(attempt, [&] {
                showErrorMessage(QString::fromStdString(error));
                connecting.store(false);
            });
            return nullptr;
        }
    }
    developer_log::writeDeveloperLine(
        operation + std::string("(): try to connect to lidar with TCP connection.\n"));
    const int port = std::stoi(getPort().toStdString());
    auto client = std::make_shared<lidar::VrcClient>(
        getIpAddress().toStdString(), static_cast<uint16_t>(port), false, lidar::VrcMode::kTcp, 1,
        "", "", "", timeoutMs, timeoutMs, 0.0f, localPort,
        [this, attempt] { return !attemptIsCurrent(attempt); });
    sleepMs(200);
    if (!attemptIsCurrent(attempt)) {
        client->Close();
        return nullptr;
    }
    if (!client->IsOpen()) throw ConnectFailure("TCP connection failed.");

    AuthConfig config =
        AuthConfigParser::Load(kAuthConfigPath, profileFromConfigPath(getCurrentConfigPath()));
    auto authorized = std::make_shared<AuthorizedVrcClient>(client, config);
    // Stored under the connect lock, so that a Stop either sees it (and closes it) or has already
    // cancelled this attempt.
    if (!ifAttemptCurrent(attempt, [&] { setAuthorizedClient(authorized); })) {
        abandonAttempt(authorized);
        return nullptr;
    }
    authorized->SetLogCallback(
        [this](const std::string& line) { writeLogMessage(line, LogLevel::kInfo); });
    return authorized;
}

void LidarUtilitiesManager::reportPageThreadFailure(const std::string& why) {
    showErrorMessage(QString("Connection Failed. Could not start the page thread: ") +
                     QString::fromStdString(why));
    writeLogMessage("Connection Error: could not start the page thread: " + why, LogLevel::kError);
}

bool LidarUtilitiesManager::commitConnection(uint64_t attempt,
                                             void (LidarUtilitiesManager::*loop)(),
                                             bool pageThreadFirst) {
    bool committed = false;
    std::string threadFailure;
    // The page thread of an earlier connection may be waiting on its lidar: it ends outside the
    // connect lock, so that a Stop meanwhile is not held up.
    stopPagesLoop();
    joinThread(pagesTimerThread);
    ifAttemptCurrent(attempt, [&] {
        try {
            if (pageThreadFirst) {
                startPagesThread(loop);
                // The network connection also starts the monitor's auto-refresh when it is on.
                if (getMonitorAutoRefresh()) startMonitorRefreshLoop();
            }
            isConnected.store(true);
            writeLogMessage("Lidar connected", LogLevel::kInfo);
            if (!pageThreadFirst) startPagesThread(loop);
            committed = true;
        } catch (const std::system_error& e) {
            isConnected.store(false);
            setAuthorizedClient(nullptr);
            connecting.store(false);
            threadFailure = e.what();
        }
    });
    if (!threadFailure.empty()) reportPageThreadFailure(threadFailure);
    return committed;
}

bool LidarUtilitiesManager::Init() {
    const uint64_t attempt = attemptEpoch_.load();
    uint16_t localPort = 0;
    std::shared_ptr<AuthorizedVrcClient> authorized;
    try {
        authorized = openVrcConnection("Init", 4000, localPort, attempt);
        if (!authorized) return false;
        setVrcClientLogCallback();

        if (!CheckLidarConnection()) {
            developer_log::writeDeveloperLine("DEBUG: heckLidarConnection() == false\n");
            throw ConnectFailure("Lidar has No VRC reply.");
        }
        authorized->GetGate().ProbeAuthRequirement();

        if (!commitConnection(attempt, &LidarUtilitiesManager::updatePagesTimer, true)) {
            abandonAttempt(authorized);
            return false;
        }
        notifyMyMapChanged();
        emit isConnectedChanged();
        ifAttemptCurrent(attempt, [this] { connecting.store(false); });
        return true;
    } catch (const ConnectFailure& failure) {
        reportConnectFailure("Init", failure.what(), localPort, attempt);
    } catch (const std::exception&) {
        // Deliberately the same words whatever the exception says.
        reportConnectFailure("Init", "Unknown", localPort, attempt);
    }
    if (!attemptIsCurrent(attempt)) abandonAttempt(authorized);
    return false;
}

bool LidarUtilitiesManager::InitVrcForSerial() {
    const uint64_t attempt = attemptEpoch_.load();
    uint16_t localPort = 0;
    std::shared_ptr<AuthorizedVrcClient> authorized;
    try {
        authorized = openVrcConnection("InitVrcForSerial", 5000, localPort, attempt);
        if (!authorized) return false;

        uint32_t baudRate = 0;
        {
            std::lock_guard<std::mutex> lock(fieldsMutex_);
            baudRate = pointCloudBaudRate;
        }
        authorized->SetSerialBaudRate(baudRate);
        setVrcClientLogCallback();
        connectBaudRateResult_.store(authorized->WrenSetBaudRate(baudRate));

        if (!commitConnection(attempt, &LidarUtilitiesManager::WrenVrcUpdatePagesTimer, false)) {
            abandonAttempt(authorized);
            return false;
        }
        emit isConnectedChanged();
        ifAttemptCurrent(attempt, [this] { connecting.store(false); });
        return true;
    } catch (const ConnectFailure& failure) {
        reportConnectFailure("InitVrcForSerial", failure.what(), localPort, attempt);
    } catch (const std::exception&) {
        reportConnectFailure("InitVrcForSerial", "Unknown", localPort, attempt);
    }
    if (!attemptIsCurrent(attempt)) abandonAttempt(authorized);
    return false;
}

bool LidarUtilitiesManager::InitSerial() {
    const uint64_t attempt = attemptEpoch_.load();
    bool wasConnected = false;
    if (!ifAttemptCurrent(attempt, [&] {
            connecting.store(true);
            // A connect over a live link drops that link whole: no page loop or query is left
            // reading over lines that are closed here.
            wasConnected = isConnected.exchange(false);
            stopPagesLoop();
            releaseSerialLink(true, true, true);
        }))
        return false;
    if (wasConnected) {
        joinThread(pagesTimerThread);
        emit isConnectedChanged();
    }
    std::string rs485Device, uartDevice;
    uint32_t pointCloudRate = 0;
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        rs485Device = serialPort485;
        uartDevice = serialPort232;
        pointCloudRate = pointCloudBaudRate;
    }
    auto rs485 = std::make_shared<lidar::SerialSource>(rs485Device, static_cast<int>(rs485LineRate),
                                                       static_cast<int>(pointCloudRate));
    auto uart = std::make_shared<lidar::SerialSource>(uartDevice, static_cast<int>(uartLineRate),
                                                      kUartSecondRate);
    ifAttemptCurrent(attempt, [&] {
        std::lock_guard<std::mutex> lock(clientMutex_);
        rs485Source = rs485;
        uartSource = uart;
    });

    rs485->SetCommandMode(false);
    rs485->Open();
    if (!rs485->IsOpen()) {
        // Both sources stay stored, as they are.
        ifAttemptCurrent(attempt, [&] {
            showErrorMessage("Connection Failed. Please check your RS485 serial port.");
            writeLogMessage("Connection Error: RS485 serial open fail", LogLevel::kError);
            writeLogMessage(rs485->LastError(), LogLevel::kError);
            connecting.store(false);
        });
        return false;
    }
    uart->SetCommandMode(true);
    uart->setNeedRecv(false);
    uart->Open();
    if (!uart->IsOpen()) {
        ifAttemptCurrent(attempt, [&] {
            releaseSerialLink(true, false, false);  // the UART source stays stored
            showErrorMessage("Connection Failed. Please check your UART serial port.");
            writeLogMessage("Connection Error: UART serial open fail", LogLevel::kError);
            writeLogMessage(uart->LastError(), LogLevel::kError);
            connecting.store(false);
        });
        rs485->Close();
        return false;
    }
    // The client does not own its lines: it holds them here, so that they outlive every query
    // of whoever still holds the client.
    std::shared_ptr<lidar::SerialClient> client(
        new lidar::SerialClient(), [rs485, uart](lidar::SerialClient* c) { delete c; });
    client->SetSerial(uart.get(), rs485.get());

    bool committed = false;
    std::string threadFailure;
    stopPagesLoop();
    joinThread(pagesTimerThread);
    ifAttemptCurrent(attempt, [&] {
        {
            std::lock_guard<std::mutex> lock(clientMutex_);
            serialClient = client;
        }
        isConnected.store(true);
        writeLogMessage("Lidar connected", LogLevel::kInfo);
        client->SetLogCallback([this](const std::string& line) { logMessageHandler(line); });
        connecting.store(false);
        try {
            startPagesThread(&LidarUtilitiesManager::WrenUpdatePagesTimer);
            committed = true;
        } catch (const std::system_error& e) {
            isConnected.store(false);
            releaseSerialLink(true, true, true);
            threadFailure = e.what();
        }
    });
    if (!threadFailure.empty()) reportPageThreadFailure(threadFailure);
    if (!committed) {
        uart->Close();
        rs485->Close();
        return false;
    }
    emit isConnectedChanged();
    return true;
}

void LidarUtilitiesManager::releaseSerialLink(bool rs485, bool uart, bool client) {
    std::shared_ptr<lidar::SerialSource> oldRs485, oldUart;
    std::shared_ptr<lidar::SerialClient> oldClient;
    {
        std::lock_guard<std::mutex> lock(clientMutex_);
        if (rs485) oldRs485 = std::move(rs485Source);
        if (uart) oldUart = std::move(uartSource);
        if (client) oldClient = std::move(serialClient);
    }
    // Closed outside the lock: a query waiting on a line wakes up and ends.
    if (oldRs485) oldRs485->Close();
    if (oldUart) oldUart->Close();
}

void LidarUtilitiesManager::closeSerialLines() {
    std::shared_ptr<lidar::SerialSource> rs485, uart;
    {
        std::lock_guard<std::mutex> lock(clientMutex_);
        rs485 = rs485Source;
        uart = uartSource;
    }
    if (rs485) rs485->Close();
    if (uart) uart->Close();
}

std::shared_ptr<lidar::SerialClient> LidarUtilitiesManager::getSerialClient() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return serialClient;
}

std::shared_ptr<lidar::SerialSource> LidarUtilitiesManager::getRs485Source() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return rs485Source;
}

std::shared_ptr<lidar::SerialSource> LidarUtilitiesManager::getUartSource() const {
    std::lock_guard<std::mutex> lock(clientMutex_);
    return uartSource;
}

bool LidarUtilitiesManager::CheckLidarConnection() {
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!client || !client->IsOpen()) return false;
    // The probe would fill the log with its bytes.
    const bool bytesFlowWasOn = messages_->suspendByteFlow();
    u8Array_t reply;
    bool alive = client->QueryCommand({}, reply, kDeviceInfoCommand, false) == 0;
    if (!alive) alive = client->QueryCommand({}, reply, kNetworkConfigCommand, false) == 0;
    messages_->restoreByteFlow(bytesFlowWasOn);
    return alive;
}

// ---- Disconnecting ----

void LidarUtilitiesManager::resetSerialNumberTexts() {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    if (!currentParser) return;
    for (const auto& var : currentParser.load()->AllVars())
        if (var->var_type == "SN") var->current_val = "xxxxxxxx";
}

void LidarUtilitiesManager::Stop() {
    // An upgrade pausing (in upgrade mode, or before the restart) is abandoned now, not after.
    upgrade_->stopHappened();
    try {
        // An attempt in flight leaves nothing connected behind, and a query waiting for a lidar
        // that stopped answering is woken now rather than at its time-out.
        cancelConnectAttempt();
        if (std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient())
            client->GetClient().Close();
        switch (connectType.load()) {
            case 0:
                isConnected.store(false);
                stopPagesLoop();
                monitor_->stopThreads();
                joinThread(pagesTimerThread);
                resetSerialNumberTexts();
                setAuthorizedClient(nullptr);
                staging_->clearOnOwnerThread();
                emit isConnectedChanged();
                notifyMyMapChanged();
                fov_->reset();
                writeLogMessage("Lidar disconnected", LogLevel::kInfo);
                break;
            case 1:
                isConnected.store(false);
                stopPagesLoop();
                // Closing the lines wakes the page loop's query, so the join does not wait for
                // its time-out.
                closeSerialLines();
                joinThread(pagesTimerThread);
                releaseSerialLink(true, true, true);
                emit isConnectedChanged();
                emit wrenLidarInfoChanged();
                writeLogMessage("Lidar disconnected", LogLevel::kInfo);
                break;
            case 2:
                isConnected.store(false);
                stopPagesLoop();
                joinThread(pagesTimerThread);
                resetSerialNumberTexts();
                setAuthorizedClient(nullptr);
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
    if (!client || !client->IsOpen() || getIsUpgrading() || !isConnected.load() ||
        getIsDownloadLog())
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
