#include "manager_views.h"

#include "lidar_utilities_manager.h"

int ManagerViews::connectionKind() const {
    return manager_.getConnectType();
}

bool ManagerViews::linkConnected() const {
    return manager_.getIsConnected();
}

std::shared_ptr<AuthorizedVrcClient> ManagerViews::vrcClient() const {
    return manager_.getAuthorizedClient();
}

std::shared_ptr<lidar::SerialClient> ManagerViews::serialClient() const {
    return manager_.getSerialClient();
}

void ManagerViews::stopLink() {
    manager_.Stop();
}

bool ManagerViews::upgrading() const {
    return manager_.getIsUpgrading();
}

bool ManagerViews::downloadingLog() const {
    return manager_.getIsDownloadLog();
}
