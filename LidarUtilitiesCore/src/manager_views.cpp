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

bool ManagerViews::catalogueLoaded() const {
    return manager_.getCurrentParser() != nullptr;
}

const VarInfo* ManagerViews::variableAt(int module, int page, int var) const {
    const ConfigParser* parser = manager_.getCurrentParser();
    if (!parser) return nullptr;
    const auto& tree = parser->varTree;
    const bool inTree = module >= 0 && size_t(module) < tree.size() && page >= 0 &&
                        size_t(page) < tree[module].size() && var >= 0 &&
                        size_t(var) < tree[module][page].size();
    return inTree ? tree[module][page][var] : nullptr;
}

const VarInfo* ManagerViews::variableNamed(const std::string& name) const {
    return manager_.searchVarPtr(name, "var_name");
}

int ManagerViews::restartLidar() {
    return manager_.Restart();
}

int ManagerViews::restartHeron() {
    return manager_.HeronSendRestartCommand();
}
