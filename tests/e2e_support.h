#pragma once

// A manager talking to an in-process simulated lidar over loopback, for end-to-end tests.

#include <gtest/gtest.h>

#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "lidar_utilities_manager.h"
#include "manager_test_access.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace testsupport {

// A TCP port on 127.0.0.1 that nothing listens on (taken from a simulator that is then stopped).
inline uint16_t UnusedPort() {
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = SourceDir() + "/Config";
    sim::LidarSimulator probe(options);
    if (!probe.Start()) return 0;
    const uint16_t port = probe.Port();
    probe.Stop();
    return port;
}

inline std::unique_ptr<sim::LidarSimulator> StartSimulator(const std::string& model,
                                                           const std::string& token = "") {
    sim::LidarSimulator::Options options;
    options.model = model;
    options.configDir = SourceDir() + "/Config";
    options.requiredToken = token;
    options.restartDowntimeMs = 300;
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!simulator->Start(&error)) ADD_FAILURE() << "simulator did not start: " << error;
    return simulator;
}

// A copy of the shipped Config/ in a temporary directory, with text replaced in one model's
// catalogue: for catalogues that differ from the shipped ones in one detail.
class CraftedConfig {
  public:
    CraftedConfig(const std::string& model,
                  const std::vector<std::pair<std::string, std::string>>& replacements) {
        const std::string copy = "cp -r '" + SourceDir() + "/Config' '" + root_.path() + "/'";
        if (std::system(copy.c_str()) != 0) ADD_FAILURE() << "could not copy Config/";
        const std::string catalogue = root_.file("Config/varID/" + model + "/" + model + ".csv");
        std::string text = ReadFile(catalogue);
        for (const auto& [from, to] : replacements) {
            size_t count = 0;
            for (size_t at = text.find(from); at != std::string::npos;
                 at = text.find(from, at + to.size()), ++count)
                text.replace(at, from.size(), to);
            if (count == 0) ADD_FAILURE() << "not in the catalogue: " << from;
        }
        WriteFile(catalogue, text);
    }
    const std::string& root() const { return root_.path(); }
    std::string configDir() const { return root_.file("Config"); }

  private:
    TempDir root_;
};

// A working directory whose ./Config shows the shipped catalogues and access files (linked) but
// keeps to itself what the manager writes there, such as the command history.
class PrivateConfigRoot {
  public:
    PrivateConfigRoot() {
        const std::string config = root_.file("Config");
        const std::string link = "mkdir -p '" + config +
                                 "' && for f in varID auth_config.csv "
                                 "feature_config.csv; do ln -s '" +
                                 SourceDir() + "/Config/'$f '" + config + "/'$f; done";
        if (std::system(link.c_str()) != 0) ADD_FAILURE() << "could not link Config/";
    }
    const std::string& root() const { return root_.path(); }
    std::string file(const std::string& name) const { return root_.file(name); }

  private:
    TempDir root_;
};

// A root whose ./Config holds the shipped access and feature files and the shipped catalogue of
// `model` passed through `filter` (a shell command that reads it on standard input, e.g. a sed
// that takes a command away): the catalogue a test needs to reach a path no shipped one does.
class EditedCatalogueRoot {
  public:
    EditedCatalogueRoot(const std::string& model, const std::string& filter) {
        const std::string source = SourceDir() + "/Config";
        const std::string config = root_.file("Config");
        const std::string folder = config + "/varID/" + model;
        const std::string make = "mkdir -p '" + folder + "' && ln -s '" + source +
                                 "/auth_config.csv' '" + source + "/feature_config.csv' '" +
                                 config + "/' && " + filter + " < '" + source + "/varID/" + model +
                                 "/" + model + ".csv' > '" + folder + "/" + model + ".csv'";
        if (std::system(make.c_str()) != 0) ADD_FAILURE() << "could not make " << folder;
    }
    const std::string& root() const { return root_.path(); }

  private:
    TempDir root_;
};

// Where the catalogue variable `name` sits: the indexes UpgradeLidar and SetText take.
inline bool FindVarPosition(LidarUtilitiesManager& manager, const std::string& name, int& module,
                            int& page, int& row) {
    const ConfigParser* parser = manager.getCurrentParser();
    if (!parser) return false;
    const auto& tree = parser->varTree;
    for (size_t m = 0; m < tree.size(); ++m)
        for (size_t p = 0; p < tree[m].size(); ++p)
            for (size_t r = 0; r < tree[m][p].size(); ++r)
                if (tree[m][p][r]->var_name == name) {
                    module = static_cast<int>(m);
                    page = static_cast<int>(p);
                    row = static_cast<int>(r);
                    return true;
                }
    return false;
}

// The manager, its signals recorded, with the shipped catalogues as ./Config.
class ManagerSession {
  public:
    // `root` holds the ./Config the manager reads: the shipped one unless a test crafts its own.
    // `withSpies` false leaves out the QSignalSpy recorders (log(), errors(), successes(),
    // connectedSignals()) for a test in which two threads show messages at once: a spy is not
    // safe to append to from two threads. Messages() and LogLines() record in either case.
    explicit ManagerSession(const std::string& model, const std::string& root = SourceDir(),
                            bool withSpies = true)
        : cwd_(root),
          settingsRemoved_(RemoveSettingsFile()),
          manager_(std::make_unique<LidarUtilitiesManager>(0, "")) {
        if (withSpies) {
            log_ = std::make_unique<QSignalSpy>(manager_.get(),
                                                &LidarUtilitiesManager::sendLogMessage);
            errors_ = std::make_unique<QSignalSpy>(manager_.get(),
                                                   &LidarUtilitiesManager::errorMessageChanged);
            successes_ = std::make_unique<QSignalSpy>(
                manager_.get(), &LidarUtilitiesManager::successMessageChanged);
            connected_ = std::make_unique<QSignalSpy>(manager_.get(),
                                                      &LidarUtilitiesManager::isConnectedChanged);
        }
        // Workers show messages from their own threads: record each text as it is shown.
        // The raw pointer, not manager_: the destructor resets manager_ while a worker may still
        // be showing a message.
        LidarUtilitiesManager* const manager = manager_.get();
        QObject::connect(
            manager, &LidarUtilitiesManager::errorMessageChanged, &receiver_,
            [this, manager] { Record("error: ", manager->getErrorMessage()); },
            Qt::DirectConnection);
        QObject::connect(
            manager, &LidarUtilitiesManager::successMessageChanged, &receiver_,
            [this, manager] { Record("success: ", manager->getSuccessMessage()); },
            Qt::DirectConnection);
        QObject::connect(
            manager_.get(), &LidarUtilitiesManager::sendLogMessage, &receiver_,
            [this](const QString& text, const QString& level) {
                std::lock_guard<std::mutex> lock(messagesMutex_);
                logLines_.push_back(text.toStdString() + "|" + level.toStdString());
            },
            Qt::DirectConnection);
        // The workers' signals, counted as they are emitted (a QSignalSpy is not safe to read
        // while another thread appends to it).
        const auto count = [this](auto signal, std::atomic<int>& counter) {
            QObject::connect(
                manager_.get(), signal, &receiver_, [&counter] { ++counter; },
                Qt::DirectConnection);
        };
        count(&LidarUtilitiesManager::downloadFinished, downloadsFinished);
        count(&LidarUtilitiesManager::isDownloadLogChanged, downloadLogChanges);
        count(&LidarUtilitiesManager::isUpgradingChanged, upgradingChanges);
        QObject::connect(
            manager_.get(), &LidarUtilitiesManager::downloadOperationLogFinished, &receiver_,
            [this](bool ok) {
                lastOperationLogOk = ok;
                ++operationLogsFinished;
            },
            Qt::DirectConnection);
        manager_->InitConfigFileParser(QString::fromStdString(model));
        manager_->setIpAddress("127.0.0.1");
        // Tests count the requests the lidar receives: the monitor's once-a-second reading
        // runs only in the tests that switch it on.
        manager_->setMonitorAutoRefresh(false);
    }

    std::atomic<int> downloadsFinished{0};
    std::atomic<int> downloadLogChanges{0};
    std::atomic<int> upgradingChanges{0};
    std::atomic<int> operationLogsFinished{0};
    std::atomic<bool> lastOperationLogOk{false};

    // The manager goes first: its destructor joins the workers, so nothing appends to the
    // spies while they are destroyed.
    ~ManagerSession() { manager_.reset(); }
    ManagerSession(const ManagerSession&) = delete;
    ManagerSession& operator=(const ManagerSession&) = delete;

    // Every error and success message shown so far, in order: "error: TEXT", "success: TEXT".
    std::vector<std::string> Messages() const {
        std::lock_guard<std::mutex> lock(messagesMutex_);
        return messages_;
    }
    bool Shown(const std::string& message) const {
        for (const std::string& text : Messages())
            if (text == message) return true;
        return false;
    }

    LidarUtilitiesManager& m() { return *manager_; }
    QSignalSpy& log() { return *log_; }
    QSignalSpy& errors() { return *errors_; }
    QSignalSpy& successes() { return *successes_; }
    QSignalSpy& connectedSignals() { return *connected_; }

    // Starts a connect and waits for the worker to end; true when the lidar is connected.
    bool Connect(uint16_t port) {
        manager_->setPort(QString::number(port));
        return ConnectAndWait();
    }
    // The same over the serial model's two lines.
    bool ConnectSerial(const std::string& rs485, const std::string& uart) {
        manager_->set_serial_port_485(QString::fromStdString(rs485));
        manager_->set_serial_port_232(QString::fromStdString(uart));
        return ConnectAndWait();
    }
    bool ConnectAndWait() {
        if (!manager_->ConnectLidar()) return false;
        WaitFor([this] { return !manager_->isConnecting(); }, 20000);
        manager_->waitForWorkers();
        return manager_->getIsConnected();
    }

    // What the manager logged so far, "TEXT|LEVEL", from any thread.
    std::vector<std::string> LogLines() const {
        std::lock_guard<std::mutex> lock(messagesMutex_);
        return logLines_;
    }
    // Whether the manager logged `line` ("TEXT|LEVEL"), from any thread.
    bool LogHas(const std::string& line) const {
        std::lock_guard<std::mutex> lock(messagesMutex_);
        for (const std::string& text : logLines_)
            if (text == line) return true;
        return false;
    }

    void ClearSpies() {
        {
            std::lock_guard<std::mutex> lock(messagesMutex_);
            logLines_.clear();
            messages_.clear();
        }
        for (QSignalSpy* spy : {log_.get(), errors_.get(), successes_.get(), connected_.get()})
            if (spy) spy->clear();
    }

  private:
    // Each session starts from the defaults: an earlier one may have saved a local port.
    static bool RemoveSettingsFile() { return QFile::remove(SettingsFilePath()); }

    void Record(const char* kind, const QString& text) {
        std::lock_guard<std::mutex> lock(messagesMutex_);
        messages_.push_back(kind + text.toStdString());
    }

    ScopedCwd cwd_;
    bool settingsRemoved_;
    QObject receiver_;  // destroyed after the manager: its connections end with it
    mutable std::mutex messagesMutex_;
    std::vector<std::string> messages_;
    std::vector<std::string> logLines_;
    std::unique_ptr<LidarUtilitiesManager> manager_;
    std::unique_ptr<QSignalSpy> log_;
    std::unique_ptr<QSignalSpy> errors_;
    std::unique_ptr<QSignalSpy> successes_;
    std::unique_ptr<QSignalSpy> connected_;
};

}  // namespace testsupport
