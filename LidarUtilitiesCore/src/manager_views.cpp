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

int ManagerViews::moduleIndexNamed(const std::string& name) const {
    return manager_.moduleIndexNamed(name);
}

QString ManagerViews::loadedModel() const {
    return QString::fromStdString(manager_.getSelectLidarModel());
}

QString ManagerViews::modelFolder(const QString& model) const {
    return manager_.resolveModelDirPath(model);
}

bool ManagerViews::swapInModuleVariant(int module, const std::string& path) {
    return manager_.swapInModuleVariant(module, path);
}

void ManagerViews::forgetModuleVariant() {
    manager_.forgetModuleVariant();
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
    if (!manager_.shownModuleValues(module, values)) return std::nullopt;
    return values;
}

void ManagerViews::announceValues() {
    manager_.notifyMyMapChanged();
}
