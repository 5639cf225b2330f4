#include "manager_views.h"

#include "lidar_utilities_manager.h"
#include "user_messages.h"

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

const VarInfo* ManagerViews::variableNamed(const std::string& name) const {
    return manager_.searchVarPtr(name, "var_name");
}

int ManagerViews::restartLidar() {
    return manager_.Restart();
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
