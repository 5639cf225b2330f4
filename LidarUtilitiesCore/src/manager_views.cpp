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

// The catalogue's part of the façade is not split yet: these reach its fields (ManagerViews is
// the façade's friend) under its catalogue lock.

bool ManagerViews::catalogueLoaded() const {
    return manager_.currentParser != nullptr && manager_.varTree != nullptr;
}

VarInfo* ManagerViews::variableAt(int page, int group, int row) const {
    std::lock_guard<std::recursive_mutex> lock(manager_.catalogueMutex_);
    const auto* tree = manager_.varTree.load();
    if (tree == nullptr || page < 0 || static_cast<size_t>(page) >= tree->size()) return nullptr;
    const auto& groups = (*tree)[page];
    if (group < 0 || static_cast<size_t>(group) >= groups.size()) return nullptr;
    const auto& rows = groups[group];
    if (row < 0 || static_cast<size_t>(row) >= rows.size()) return nullptr;
    return rows[row];
}

std::optional<CatalogueEditView::VarGroups> ManagerViews::pageGroups(int page) const {
    std::lock_guard<std::recursive_mutex> lock(manager_.catalogueMutex_);
    const auto* tree = manager_.varTree.load();
    if (tree == nullptr || page < 0 || static_cast<size_t>(page) >= tree->size())
        return std::nullopt;
    return (*tree)[page];
}

std::vector<VarInfo*> ManagerViews::variablesOfSetCommand(const std::string& setCmd) const {
    const ConfigParser* parser = manager_.currentParser.load();
    return parser == nullptr ? std::vector<VarInfo*>() : parser->GetVarInfosBySetCmd(setCmd);
}

bool ManagerViews::replaceCurrentValue(VarInfo& var, const std::string& text) {
    std::lock_guard<std::recursive_mutex> lock(manager_.catalogueMutex_);
    if (var.current_val == text) return false;
    var.current_val = text;
    return true;
}

std::string ManagerViews::currentValue(const VarInfo& var) const {
    std::lock_guard<std::recursive_mutex> lock(manager_.catalogueMutex_);
    return var.current_val;
}

void ManagerViews::readBack(std::vector<VarInfo*>& group, BytesByName& bytes) {
    manager_.GetInfoFromLidarWithSameCmd(group, &bytes, false);
}

int ManagerViews::queryKindClient(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) {
    return manager_.queryDevice(cmd, payload, reply);
}
