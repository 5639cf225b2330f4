#include "manager_views.h"

#include "lidar_utilities_manager.h"
#include "parameter_catalogue.h"
#include "user_messages.h"

bool ManagerViews::upgrading() const {
    return manager_.getIsUpgrading();
}

bool ManagerViews::downloadingLog() const {
    return manager_.getIsDownloadLog();
}

void ManagerViews::readBack(std::vector<VarInfo*>& group, CatalogueEditView::BytesByName& bytes) {
    manager_.GetInfoFromLidarWithSameCmd(group, &bytes, false);
}

int ManagerViews::queryKindClient(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) {
    return manager_.queryDevice(cmd, payload, reply);
}

void ManagerViews::rebuildPageLists() {
    manager_.rebuildUiListCache();
}

std::optional<std::vector<std::string>> ManagerViews::readModule(
    int module, const std::atomic<bool>* keepGoing) {
    const auto failures = manager_.readModuleAndAnnounce(module, keepGoing);
    if (!failures) return std::nullopt;
    std::vector<std::string> requests;
    for (const LidarUtilitiesManager::ReadFailure& failure : *failures)
        requests.push_back(failure.request);
    return requests;
}

bool ManagerViews::deviceChannelOpen() const {
    return manager_.deviceChannelOpen();
}

std::optional<std::vector<ShownValue>> ManagerViews::shownValues(int module) const {
    std::vector<ShownValue> values;
    if (!manager_.catalogue_->shownModuleValues(module, values)) return std::nullopt;
    return values;
}

void ManagerViews::announceValues() {
    manager_.notifyMyMapChanged();
}

int ManagerViews::restartLidar() {
    return manager_.Restart();
}

int ManagerViews::restartHeron() {
    return manager_.HeronSendRestartCommand();
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
