#pragma once

// States of the manager that a test sets up without reaching them through an operation: the
// refusals while an upgrade runs are checked without running a real one (which would hold the
// connection for the upgrade and the restart after it), and whether the monitor's auto-refresh
// thread exists is checked at the moment its switch returns.

#include "firmware_upgrade.h"
#include "lidar_utilities_manager.h"
#include "monitor_service.h"

struct ManagerTestAccess {
    // What an upgrade worker sets while it owns the connection.
    static void setUpgrading(LidarUtilitiesManager& manager, bool upgrading) {
        manager.upgrade_->upgrading_.store(upgrading);
    }
    static bool monitorRefreshThreadExists(LidarUtilitiesManager& manager) {
        return manager.monitor_->refreshThreadExists();
    }
};
