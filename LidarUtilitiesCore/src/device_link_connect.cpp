// The device link's connect workers (device_link.h): one per connection kind, their shared steps,
// the liveness probe and the cancellation of an attempt.

#include <QString>
#include <cerrno>
#include <ctime>
#include <stdexcept>
#include <system_error>

#include "command_text.h"
#include "developer_log.h"
#include "device_link.h"
#include "lidar_utilities_manager.h"
#include "sdk/auth_config.h"
#include "sdk/authorized_vrc_client.h"
#include "sdk/serial_client.h"
#include "sdk/serial_source.h"
#include "sdk/vrc_client.h"
#include "subsystem_views.h"

namespace {

const char* const kAuthConfigPath = "./Config/auth_config.csv";
constexpr uint8_t kDeviceInfoCommand = 0x07;
// clang-format off
const char* const kLocalPortFailure = "Failed to bind VRC client local port or connection refused. Check the local port is free and matches lidar ACL (e.g. 42524).";
// clang-format on
constexpr uint8_t kNetworkConfigCommand = 0x08;
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

// ---- Attempts ----

bool DeviceLink::connectLidar() {
    bool (DeviceLink::*worker)() = nullptr;
    switch (connectType_.load()) {
        case kNetworkKind:
            worker = &DeviceLink::connectOverNetwork;
            break;
        case kSerialLinesKind:
            worker = &DeviceLink::connectSerialLines;
            break;
        case kVrcOverSerialKind:
            worker = &DeviceLink::connectVrcOverSerial;
            break;
        default:
            return false;
    }
    if (connecting_.exchange(true)) return false;  // an attempt is already running
    {
        std::lock_guard<std::mutex> lock(connectMutex_);
        attemptEpoch_.store(++connectEpoch_);
    }
    try {
        startWorker([this, worker] { (this->*worker)(); });
    } catch (const std::system_error& e) {
        connecting_.store(false);
        messages_.showError(QString("Connection Failed. Could not start the connect worker: ") +
                            e.what());
        return false;
    }
    saveConnectionSettings();
    return true;
}

bool DeviceLink::ifAttemptCurrent(uint64_t attempt, const std::function<void()>& step) {
    std::lock_guard<std::mutex> lock(connectMutex_);
    if (!attemptIsCurrent(attempt)) return false;
    step();
    return true;
}

bool DeviceLink::cancelConnectAttempt() {
    std::lock_guard<std::mutex> lock(connectMutex_);
    ++connectEpoch_;
    return connecting_.exchange(false);
}

void DeviceLink::abandonAttempt(const std::shared_ptr<AuthorizedVrcClient>& client) {
    if (client) client->GetClient().Close();
}

void DeviceLink::reportConnectFailure(const char* operation, const std::string& logText,
                                      uint16_t localPort, uint64_t attempt) {
    // A cancelled attempt failed because it was told to stop: nothing to report.
    ifAttemptCurrent(attempt, [&] {
        developer_log::writeDeveloperLine(operation + std::string("(): init lidar error\n"));
        if (localPort != 0)
            messages_.showError(kLocalPortFailure);
        else
            messages_.showError("Connection Failed. Please check your network settings.");
        messages_.log("Connection Error: " + logText, LogLevel::kError);
        connecting_.store(false);
    });
}

void DeviceLink::reportPageThreadFailure(const std::string& why) {
    messages_.showError(QString("Connection Failed. Could not start the page thread: ") +
                        QString::fromStdString(why));
    messages_.log("Connection Error: could not start the page thread: " + why, LogLevel::kError);
}

// ---- The VRC kinds ----

std::shared_ptr<AuthorizedVrcClient> DeviceLink::openVrcConnection(const char* operation,
                                                                   uint32_t timeoutMs,
                                                                   uint16_t& localPort,
                                                                   uint64_t attempt) {
    const bool current = ifAttemptCurrent(attempt, [this] {
        connecting_.store(true);
        setAuthorizedClient(nullptr);
        isConnected_.store(false);
    });
    if (!current) return nullptr;

    if (enableVrcClientHostPortUi_.load()) {
        std::string error;
        if (!ParseVrcClientHostPortText(vrcClientHostPort().toStdString(), &localPort, &error)) {
            // Shown as it is: the text says what is wrong with the port; nothing is logged.
            ifAttemptCurrent(attempt, [&] {
                messages_.showError(QString::fromStdString(error));
                connecting_.store(false);
            });
            return nullptr;
        }
    }
    developer_log::writeDeveloperLine(
        operation + std::string("(): try to connect to lidar with TCP connection.\n"));
    const int port = std::stoi(vrcPort().toStdString());
    auto client = std::make_shared<lidar::VrcClient>(
        ipAddress().toStdString(), static_cast<uint16_t>(port), false, lidar::VrcMode::kTcp, 1, "",
        "", "", timeoutMs, timeoutMs, 0.0f, localPort,
        [this, attempt] { return !attemptIsCurrent(attempt); });
    sleepMs(200);
    if (!attemptIsCurrent(attempt)) {
        client->Close();
        return nullptr;
    }
    if (!client->IsOpen()) throw ConnectFailure("TCP connection failed.");

    AuthConfig config =
        AuthConfigParser::Load(kAuthConfigPath, profileFromConfigPath(steps_.catalogueFilePath()));
    auto authorized = std::make_shared<AuthorizedVrcClient>(client, config);
    // Stored under the connect lock, so that a Stop either sees it (and closes it) or has already
    // cancelled this attempt.
    if (!ifAttemptCurrent(attempt, [&] { setAuthorizedClient(authorized); })) {
        abandonAttempt(authorized);
        return nullptr;
    }
    authorized->SetLogCallback(
        [this](const std::string& line) { messages_.log(line, LogLevel::kInfo); });
    return authorized;
}

bool DeviceLink::commitConnection(uint64_t attempt, int kind,
                                  const std::shared_ptr<lidar::SerialClient>& serialClient) {
    bool committed = false;
    std::string threadFailure;
    // The page thread of an earlier connection may be waiting on its lidar: it ends outside the
    // connect lock, so that a Stop meanwhile is not held up.
    steps_.endPageLoop();
    ifAttemptCurrent(attempt, [&] {
        try {
            runCommitSteps(kind, serialClient);
            committed = true;
        } catch (const std::system_error& e) {
            isConnected_.store(false);
            undoCommit(kind);
            threadFailure = e.what();
        }
    });
    if (!threadFailure.empty()) reportPageThreadFailure(threadFailure);
    return committed;
}

// The kinds keep the designed order of their last steps: the network kind starts its threads
// before it is connected, the other two after.
void DeviceLink::runCommitSteps(int kind,
                                const std::shared_ptr<lidar::SerialClient>& serialClient) {
    if (kind == kNetworkKind) {
        steps_.startPageLoop(kind);
        steps_.startMonitorAutoRefreshIfOn();
    }
    if (kind == kSerialLinesKind) {
        std::lock_guard<std::mutex> lock(clientMutex_);
        serialClient_ = serialClient;
    }
    isConnected_.store(true);
    messages_.log("Lidar connected", LogLevel::kInfo);
    if (kind == kSerialLinesKind) {
        serialClient->SetLogCallback(
            [this](const std::string& line) { byteFlow_.deviceBytes(line); });
        connecting_.store(false);
    }
    if (kind != kNetworkKind) steps_.startPageLoop(kind);
}

void DeviceLink::undoCommit(int kind) {
    if (kind == kSerialLinesKind) {
        releaseSerialLink(true, true, true);
        return;
    }
    setAuthorizedClient(nullptr);
    connecting_.store(false);
}

bool DeviceLink::connectOverNetwork() {
    const uint64_t attempt = attemptEpoch_.load();
    uint16_t localPort = 0;
    std::shared_ptr<AuthorizedVrcClient> authorized;
    try {
        authorized = openVrcConnection("Init", 4000, localPort, attempt);
        if (!authorized) return false;
        setVrcClientLogCallback();

        if (!checkLidarConnection()) {
            developer_log::writeDeveloperLine("DEBUG: heckLidarConnection() == false\n");
            throw ConnectFailure("Lidar has No VRC reply.");
        }
        authorized->GetGate().ProbeAuthRequirement();

        if (!commitConnection(attempt, kNetworkKind)) {
            abandonAttempt(authorized);
            return false;
        }
        steps_.announceVariableMap();
        emit isConnectedChanged();
        ifAttemptCurrent(attempt, [this] { connecting_.store(false); });
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

bool DeviceLink::connectVrcOverSerial() {
    const uint64_t attempt = attemptEpoch_.load();
    uint16_t localPort = 0;
    std::shared_ptr<AuthorizedVrcClient> authorized;
    try {
        authorized = openVrcConnection("InitVrcForSerial", 5000, localPort, attempt);
        if (!authorized) return false;

        const uint32_t baudRate = pointCloudBaudRate();
        authorized->SetSerialBaudRate(baudRate);
        setVrcClientLogCallback();
        connectBaudRateResult_.store(authorized->WrenSetBaudRate(baudRate));

        if (!commitConnection(attempt, kVrcOverSerialKind)) {
            abandonAttempt(authorized);
            return false;
        }
        emit isConnectedChanged();
        ifAttemptCurrent(attempt, [this] { connecting_.store(false); });
        return true;
    } catch (const ConnectFailure& failure) {
        reportConnectFailure("InitVrcForSerial", failure.what(), localPort, attempt);
    } catch (const std::exception&) {
        reportConnectFailure("InitVrcForSerial", "Unknown", localPort, attempt);
    }
    if (!attemptIsCurrent(attempt)) abandonAttempt(authorized);
    return false;
}

bool DeviceLink::checkLidarConnection() {
    std::shared_ptr<AuthorizedVrcClient> client = vrcClient();
    if (!client || !client->IsOpen()) return false;
    // The probe would fill the log with its bytes.
    const bool bytesFlowWasOn = byteFlow_.suspendByteFlow();
    u8Array_t reply;
    bool alive = client->QueryCommand({}, reply, kDeviceInfoCommand, false) == 0;
    if (!alive) alive = client->QueryCommand({}, reply, kNetworkConfigCommand, false) == 0;
    byteFlow_.restoreByteFlow(bytesFlowWasOn);
    return alive;
}

// ---- The serial lines ----

bool DeviceLink::beginSerialAttempt(uint64_t attempt) {
    bool wasConnected = false;
    if (!ifAttemptCurrent(attempt, [&] {
            connecting_.store(true);
            // A connect over a live link drops that link whole: no page loop or query is left
            // reading over lines that are closed here.
            wasConnected = isConnected_.exchange(false);
            steps_.askPageLoopToStop();
            releaseSerialLink(true, true, true);
        }))
        return false;
    if (wasConnected) {
        steps_.endPageLoop();
        emit isConnectedChanged();
    }
    return true;
}

bool DeviceLink::openSerialLines(uint64_t attempt,
                                 const std::shared_ptr<lidar::SerialSource>& rs485,
                                 const std::shared_ptr<lidar::SerialSource>& uart) {
    ifAttemptCurrent(attempt, [&] {
        std::lock_guard<std::mutex> lock(clientMutex_);
        rs485Source_ = rs485;
        uartSource_ = uart;
    });
    rs485->SetCommandMode(false);
    rs485->Open();
    if (!rs485->IsOpen()) {
        // Both sources stay stored, as they are.
        ifAttemptCurrent(attempt, [&] {
            messages_.showError("Connection Failed. Please check your RS485 serial port.");
            messages_.log("Connection Error: RS485 serial open fail", LogLevel::kError);
            messages_.log(rs485->LastError(), LogLevel::kError);
            connecting_.store(false);
        });
        return false;
    }
    uart->SetCommandMode(true);
    uart->setNeedRecv(false);
    uart->Open();
    if (!uart->IsOpen()) {
        ifAttemptCurrent(attempt, [&] {
            releaseSerialLink(true, false, false);  // the UART source stays stored
            messages_.showError("Connection Failed. Please check your UART serial port.");
            messages_.log("Connection Error: UART serial open fail", LogLevel::kError);
            messages_.log(uart->LastError(), LogLevel::kError);
            connecting_.store(false);
        });
        rs485->Close();
        return false;
    }
    return true;
}

bool DeviceLink::connectSerialLines() {
    const uint64_t attempt = attemptEpoch_.load();
    if (!beginSerialAttempt(attempt)) return false;
    std::string rs485Device, uartDevice;
    uint32_t pointCloudRate = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        rs485Device = serialPort485_;
        uartDevice = serialPort232_;
        pointCloudRate = pointCloudBaudRate_;
    }
    auto rs485 = std::make_shared<lidar::SerialSource>(
        rs485Device, static_cast<int>(rs485LineRate_), static_cast<int>(pointCloudRate));
    auto uart = std::make_shared<lidar::SerialSource>(uartDevice, static_cast<int>(uartLineRate_),
                                                      kUartSecondRate);
    if (!openSerialLines(attempt, rs485, uart)) return false;
    // The client does not own its lines: it holds them here, so that they outlive every query
    // of whoever still holds the client.
    std::shared_ptr<lidar::SerialClient> client(
        new lidar::SerialClient(), [rs485, uart](lidar::SerialClient* c) { delete c; });
    client->SetSerial(uart.get(), rs485.get());
    // Not committed: the link has let go of the lines, and they close with the last holder, here.
    if (!commitConnection(attempt, kSerialLinesKind, client)) return false;
    emit isConnectedChanged();
    return true;
}

// ---- The façade's link operations: connecting ----

bool LidarUtilitiesManager::ConnectLidar() {
    return link_->connectLidar();
}

bool LidarUtilitiesManager::Init() {
    return link_->connectOverNetwork();
}

bool LidarUtilitiesManager::InitVrcForSerial() {
    return link_->connectVrcOverSerial();
}

bool LidarUtilitiesManager::InitSerial() {
    return link_->connectSerialLines();
}

bool LidarUtilitiesManager::CheckLidarConnection() {
    return link_->checkLidarConnection();
}
