#pragma once

// The device link: the connection settings and their file, the SDK clients of the three
// connection kinds, whether the link is up, the connect attempts and their cancellation, and the
// short workers (the connect attempt, the configuration-file query) that none may outlive; the
// upgrade and the log download keep workers of their own.
//
// Threads: the UI thread sets and connects; the connect worker changes the link state only under
// connectMutex_ and while its attempt is current. Texts are kept under mutex_, the clients are
// shared pointers swapped under clientMutex_, flags are atomics; signals go out outside every
// lock. docs/threads.md.

#include <QObject>
#include <QString>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sdk/types.h"
#include "subsystem_views.h"
#include "worker_threads.h"

namespace lidar {
class SerialSource;
}

class DeviceLink : public QObject, public DeviceLinkView, public PointCloudRateSetting {
    Q_OBJECT

  public:
    // The settings file of the connection settings (under the user's documents).
    static QString settingsFilePath();
    DeviceLink(ConnectionSteps& steps, const BusyView& busy, UserMessageSink& messages,
               ByteFlowLog& byteFlow);

    // ---- DeviceLinkView ----
    int connectionKind() const override { return connectType_.load(); }
    bool linkConnected() const override { return isConnected_.load(); }
    std::shared_ptr<AuthorizedVrcClient> vrcClient() const override;
    std::shared_ptr<lidar::SerialClient> serialClient() const override;
    void stopLink() override;

    // ---- Settings (device_link.cpp) ----
    QString ipAddress() const;
    void setIpAddress(const QString& address);
    QString vrcPort() const;
    void setVrcPort(const QString& port);
    QString rs485Device() const;
    void setRs485Device(const QString& device);
    QString uartDevice() const;
    void setUartDevice(const QString& device);
    uint32_t pointCloudBaudRate() const;
    void setPointCloudBaudRate(uint32_t rate);
    uint16_t udpPort() const;
    // The text's leading number, truncated to 16 bits; a text that is not one leaves the port
    // unchanged and logs an ERROR line naming it.
    void setUdpPort(const QString& text);
    QString vrcClientHostPort() const;
    void setVrcClientHostPort(const QString& text);
    bool hostPortUiEnabled() const { return enableVrcClientHostPortUi_.load(); }
    void setHostPortUiEnabled(bool enabled) { enableVrcClientHostPortUi_.store(enabled); }
    // The local port text stored for the model, "ANY" when none is.
    static QString savedVrcClientHostPort(const QString& model);
    std::string selectedModel() const override;
    void setSelectedModel(std::string model);
    void readSettings();
    void saveConnectionSettings();
    void savePointCloudBaudRate();
    // False: the two saves above write nothing (a process of many run at once, which would race
    // on the one settings file).
    void setRemembersSettings(bool remembers) { remembersSettings_ = remembers; }
    // ---- PointCloudRateSetting ----
    void keepPointCloudBaudRate(uint32_t rate) override;

    // ---- Link state and clients (device_link.cpp) ----
    void setConnectionKind(int kind) { connectType_.store(kind); }
    bool connecting() const { return connecting_.load(); }
    // The link is down from now on (a disconnection).
    void markDisconnected() { isConnected_.store(false); }
    int connectBaudRateResult() const { return connectBaudRateResult_.load(); }
    void setAuthorizedClient(std::shared_ptr<AuthorizedVrcClient> client);
    std::shared_ptr<lidar::SerialSource> rs485Source() const;
    std::shared_ptr<lidar::SerialSource> uartSource() const;
    bool clientIsOpen() const;
    // Connected, the VRC client open, no upgrade or log download.
    bool deviceIsIdle() const override;
    // A request of the catalogue over the kind's client: the reply's payload. A client result.
    int queryDevice(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) override;
    // The kind's client exists and is open.
    bool deviceChannelOpen() const override;
    // Closes both serial lines, keeping them stored: a query waiting on one wakes up.
    void closeSerialLines();
    // Releases what is named of the serial link, closing the lines outside the lock.
    void releaseSerialLink(bool rs485, bool uart, bool client);
    void setVrcClientLogCallback();

    // ---- Connecting (device_link_connect.cpp) ----
    // Starts the connect worker of the connection kind; false when none could start.
    bool connectLidar();
    // The connect workers of kinds 0, 2 and 1.
    bool connectOverNetwork();
    bool connectVrcOverSerial();
    bool connectSerialLines();
    // The liveness probe over the VRC client.
    bool checkLidarConnection();
    // Ends any attempt in flight; true when one was running.
    bool cancelConnectAttempt();

    // ---- Short workers (device_link.cpp) ----
    void startWorker(std::function<void()> job);
    void waitForWorkers();

  signals:
    void isConnectedChanged();

  private:
    // Every attempt carries the epoch it started in; Stop, the destructor and the next connect
    // move the epoch on, and an attempt whose epoch is gone touches no shared state again.
    bool attemptIsCurrent(uint64_t attempt) const { return connectEpoch_.load() == attempt; }
    // Runs step under the connect lock when the attempt is still current; false otherwise.
    bool ifAttemptCurrent(uint64_t attempt, const std::function<void()>& step);
    void abandonAttempt(const std::shared_ptr<AuthorizedVrcClient>& client);
    // Steps shared by the VRC connect workers: the local port, the TCP client, the access
    // profile. Null when the host/port text was refused (already reported).
    std::shared_ptr<AuthorizedVrcClient> openVrcConnection(const char* operation,
                                                           uint32_t timeoutMs, uint16_t& localPort,
                                                           uint64_t attempt);
    void reportConnectFailure(const char* operation, const std::string& logText, uint16_t localPort,
                              uint64_t attempt);
    void reportPageThreadFailure(const std::string& why);
    // The last steps of a successful connect, one for the three kinds: page thread, connected,
    // "Lidar connected"; the serial kind's client comes with them. False, and undone, when the
    // page thread could not start or a Stop came first.
    bool commitConnection(uint64_t attempt, int kind,
                          const std::shared_ptr<lidar::SerialClient>& serialClient = nullptr);
    void runCommitSteps(int kind, const std::shared_ptr<lidar::SerialClient>& serialClient);
    void undoCommit(int kind);
    // The serial kind's own steps: its first (the old link dropped) and the two lines.
    bool beginSerialAttempt(uint64_t attempt);
    bool openSerialLines(uint64_t attempt, const std::shared_ptr<lidar::SerialSource>& rs485,
                         const std::shared_ptr<lidar::SerialSource>& uart);
    static QString writableSettingsFilePath();

    ConnectionSteps& steps_;
    const BusyView& busy_;
    UserMessageSink& messages_;
    ByteFlowLog& byteFlow_;

    // Connection settings, under mutex_.
    mutable std::mutex mutex_;
    std::string ipAddress_ = "192.168.1.201";
    std::string vrcPort_ = "9347";
    std::string serialPort485_ = "/dev/ttyUSB0";
    std::string serialPort232_ = "/dev/ttyUSB1";
    uint32_t pointCloudBaudRate_ = 3000000;
    const uint32_t rs485LineRate_ = 115200;
    const uint32_t uartLineRate_ = 9600;
    uint16_t udpPort_ = 2368;
    std::string selectLidarModel_;
    std::string vrcClientHostPort_ = "ANY";
    std::atomic<bool> enableVrcClientHostPortUi_{false};
    std::atomic<bool> remembersSettings_{true};

    // The clients, under clientMutex_.
    mutable std::mutex clientMutex_;
    std::shared_ptr<AuthorizedVrcClient> authorizedClient_;
    std::shared_ptr<lidar::SerialSource> rs485Source_;
    std::shared_ptr<lidar::SerialSource> uartSource_;
    std::shared_ptr<lidar::SerialClient> serialClient_;

    std::atomic<bool> isConnected_{false};
    std::atomic<bool> connecting_{false};
    std::atomic<int32_t> connectType_{0};
    std::atomic<int> connectBaudRateResult_{0};

    // Connect attempts: the epoch moves under connectMutex_.
    std::mutex connectMutex_;
    std::atomic<uint64_t> connectEpoch_{0};
    std::atomic<uint64_t> attemptEpoch_{0};  // the epoch the newest attempt was started in

    // Short workers: the finished ones are joined when a new one starts, the rest by the
    // destructor, so none outlives the manager.
    WorkerThreads workers_;
};
