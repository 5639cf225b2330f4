#pragma once

// A manager talking to an in-process simulated lidar over loopback, for end-to-end tests.

#include <gtest/gtest.h>

#include <QFile>
#include <QSignalSpy>
#include <QStandardPaths>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lidar_utilities_manager.h"
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

// The manager, its signals recorded, with the shipped catalogues as ./Config.
class ManagerSession {
  public:
    // `root` holds the ./Config the manager reads: the shipped one unless a test crafts its own.
    explicit ManagerSession(const std::string& model, const std::string& root = SourceDir())
        : cwd_(root),
          settingsRemoved_(RemoveSettingsFile()),
          manager_(std::make_unique<LidarUtilitiesManager>(0, "")),
          log_(manager_.get(), &LidarUtilitiesManager::sendLogMessage),
          errors_(manager_.get(), &LidarUtilitiesManager::errorMessageChanged),
          connected_(manager_.get(), &LidarUtilitiesManager::isConnectedChanged) {
        manager_->InitConfigFileParser(QString::fromStdString(model));
        manager_->setIpAddress("127.0.0.1");
    }

    LidarUtilitiesManager& m() { return *manager_; }
    QSignalSpy& log() { return log_; }
    QSignalSpy& errors() { return errors_; }
    QSignalSpy& connectedSignals() { return connected_; }

    // Starts a connect and waits for the worker to end; true when the lidar is connected.
    bool Connect(uint16_t port) {
        manager_->setPort(QString::number(port));
        if (!manager_->ConnectLidar()) return false;
        WaitFor([this] { return !manager_->isConnecting(); }, 20000);
        manager_->waitForWorkers();
        return manager_->getIsConnected();
    }

    bool LogHas(const std::string& line) const {
        for (const std::string& text : SpyTexts(log_))
            if (text == line) return true;
        return false;
    }

    void ClearSpies() {
        log_.clear();
        errors_.clear();
        connected_.clear();
    }

  private:
    // Each session starts from the defaults: an earlier one may have saved a local port.
    static bool RemoveSettingsFile() { return QFile::remove(SettingsFilePath()); }

    ScopedCwd cwd_;
    bool settingsRemoved_;
    std::unique_ptr<LidarUtilitiesManager> manager_;
    QSignalSpy log_;
    QSignalSpy errors_;
    QSignalSpy connected_;
};

}  // namespace testsupport
