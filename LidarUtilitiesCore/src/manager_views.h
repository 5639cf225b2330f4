#pragma once

// The views that the subsystems split out of the manager so far reach the rest through: each
// answers from the façade's interface, until the subsystem that owns that state implements the
// view itself.

#include "subsystem_views.h"

class LidarUtilitiesManager;

class ManagerViews : public BusyView,
                     public ConnectionSteps,
                     public UserMessageSink,
                     public ByteFlowLog,
                     public PageReadingContext,
                     public DeviceRestart {
  public:
    explicit ManagerViews(LidarUtilitiesManager& manager) : manager_(manager) {}

    bool upgrading() const override;
    bool downloadingLog() const override;

    void askPageLoopToStop() override;
    void endPageLoop() override;
    void startPageLoop(int kind) override;
    void startMonitorAutoRefreshIfOn() override;
    std::string catalogueFilePath() const override;
    void announceVariableMap() override;
    void stopConnection() override;

    // The device link is made before the messages (which ask it for the connection kind), so it
    // tells through these, which pass every call on to the messages.
    void log(const std::string& line, LogLevel level) override;
    void showError(const QString& text) override;
    void showSuccess(const QString& text) override;
    void deviceBytes(const std::string& line) override;
    bool suspendByteFlow() override;
    void restoreByteFlow(bool wasOn) override;

    // The page reader is made before the monitor and the field of view: it reaches them
    // through these.
    int moduleInUse() const override;
    void storeReportedFov(const float* values, int count) override;

    int restartLidar() override;

  private:
    LidarUtilitiesManager& manager_;
};
