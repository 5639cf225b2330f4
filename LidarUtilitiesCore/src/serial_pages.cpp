// The catalogue pages of the serial models (connection kinds 1 and 2). The generic operations
// serve the network kind; these read, list and apply the same catalogue over the kind's own
// client, with the generic grouping, decoding and encoding: on kind 2 the VRC client carried
// over the serial line, on kind 1 the serial client, whose command codes are the catalogue's
// get and set commands.

#include "lidar_utilities_manager.h"
#include "parameter_catalogue.h"
#include "sdk/serial_client.h"

namespace {

bool isSerialKind(int kind) {
    return kind == 1 || kind == 2;
}

}  // namespace

bool LidarUtilitiesManager::serialKindIdle() const {
    return isSerialKind(getConnectType()) && deviceChannelOpen() && getIsConnected() &&
           !getIsUpgrading() && !getIsDownloadLog();
}

// ---- Reading and showing ----

void LidarUtilitiesManager::WrenGetLidarModuleInfo(int module) {
    if (!serialKindIdle() || !catalogue_->parser()) return;
    ReadGroups groups;
    {
        const auto lock = catalogue_->lockVariables();
        if (!catalogue_->variableTree() || module < 0 ||
            module >= static_cast<int>(catalogue_->variableTree()->size()))
            return;
        std::vector<VarInfo*> vars;
        for (const auto& page : (*catalogue_->variableTree())[module])
            vars.insert(vars.end(), page.begin(), page.end());
        groups = groupByReadRequest(vars);
    }
    std::vector<ReadFailure> failures = readGroups(groups, "WrenGetLidarModuleInfo");
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        lastModuleReadFailures = std::move(failures);
    }
    emit wrenLidarInfoChanged();
}

QVariantList LidarUtilitiesManager::getWrenMyMap() {
    if (!isSerialKind(getConnectType())) return QVariantList();
    return buildVariableMap();
}

QVariantList LidarUtilitiesManager::wrenLevel1List() {
    QVariantList level1, level2;
    if (isSerialKind(getConnectType())) buildPageLists(level1, level2);
    return level1;
}

QVariantList LidarUtilitiesManager::wrenLevel2List() {
    QVariantList level1, level2;
    if (isSerialKind(getConnectType())) buildPageLists(level1, level2);
    return level2;
}

bool LidarUtilitiesManager::isWrenTimerUpdate(int module, int page, int var) const {
    return isSerialKind(getConnectType()) && catalogue_->timerUpdateAt(module, page, var);
}
