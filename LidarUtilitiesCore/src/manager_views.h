#pragma once

// The views that the subsystems split out of the manager so far reach the rest through: each
// answers from the façade's interface, until the subsystem that owns that state implements the
// view itself.

#include "subsystem_views.h"

class LidarUtilitiesManager;

class ManagerViews : public DeviceLinkView,
                     public BusyView,
                     public VariableLookup,
                     public DeviceRestart {
  public:
    explicit ManagerViews(LidarUtilitiesManager& manager) : manager_(manager) {}

    int connectionKind() const override;
    bool linkConnected() const override;
    std::shared_ptr<AuthorizedVrcClient> vrcClient() const override;
    std::shared_ptr<lidar::SerialClient> serialClient() const override;
    void stopLink() override;

    bool upgrading() const override;
    bool downloadingLog() const override;

    bool catalogueLoaded() const override;
    const VarInfo* variableAt(int module, int page, int var) const override;
    const VarInfo* variableNamed(const std::string& name) const override;

    int restartLidar() override;
    int restartHeron() override;

  private:
    LidarUtilitiesManager& manager_;
};
