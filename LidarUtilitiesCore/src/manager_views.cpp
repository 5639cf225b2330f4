#include "manager_views.h"

#include "lidar_utilities_manager.h"
#include "user_messages.h"

bool ManagerViews::upgrading() const {
    return manager_.getIsUpgrading();
}

bool ManagerViews::downloadingLog() const {
    return manager_.getIsDownloadLog();
}

void ManagerViews::askPageLoopToStop() {
    manager_.stopPagesLoop();
}

void ManagerViews::endPageLoop() {
    manager_.stopPagesLoop();
    manager_.joinThread(manager_.pagesTimerThread);
}

void ManagerViews::startPageLoop(int kind) {
    // The same loop on every kind, under the design's name for each.
    switch (kind) {
        case 1:
            manager_.startPagesThread(&LidarUtilitiesManager::WrenUpdatePagesTimer);
            break;
        case 2:
            manager_.startPagesThread(&LidarUtilitiesManager::WrenVrcUpdatePagesTimer);
            break;
        default:
            manager_.startPagesThread(&LidarUtilitiesManager::updatePagesTimer);
            break;
    }
}

void ManagerViews::startMonitorAutoRefreshIfOn() {
    if (manager_.getMonitorAutoRefresh()) manager_.startMonitorRefreshLoop();
}

std::string ManagerViews::catalogueFilePath() const {
    return manager_.getCurrentConfigPath();
}

void ManagerViews::announceVariableMap() {
    manager_.notifyMyMapChanged();
}

void ManagerViews::stopConnection() {
    manager_.Stop();
}

void ManagerViews::log(const std::string& line, LogLevel level) {
    manager_.messages_->log(line, level);
}

void ManagerViews::showError(const QString& text) {
    manager_.messages_->showError(text);
}

void ManagerViews::showSuccess(const QString& text) {
    manager_.messages_->showSuccess(text);
}

void ManagerViews::deviceBytes(const std::string& line) {
    manager_.messages_->deviceBytes(line);
}

bool ManagerViews::suspendByteFlow() {
    return manager_.messages_->suspendByteFlow();
}

void ManagerViews::restoreByteFlow(bool wasOn) {
    manager_.messages_->restoreByteFlow(wasOn);
}
