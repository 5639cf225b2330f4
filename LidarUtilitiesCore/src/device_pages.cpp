// The loaded model's pages on every connection kind. The design serves the network kind with
// the generic operations and the serial kinds with their own (the Wren* ones); a front end
// that should not care which kind it is connected over calls these, and the choice is made here.

#include "lidar_utilities_manager.h"
#include "parameter_catalogue.h"
#include "subsystem_views.h"

QVariantList LidarUtilitiesManager::catalogueLevel1List() {
    return getConnectType() == kNetworkKind ? level1List() : wrenLevel1List();
}

QVariantList LidarUtilitiesManager::catalogueLevel2List() {
    return getConnectType() == kNetworkKind ? level2List() : wrenLevel2List();
}

QVariantList LidarUtilitiesManager::catalogueVariableMap() {
    return getConnectType() == kNetworkKind ? getMyMap() : getWrenMyMap();
}

bool LidarUtilitiesManager::isTimerVariable(int module, int page, int var) const {
    // The page loop refreshes the timer variables on every kind.
    return catalogue_->timerUpdateAt(module, page, var);
}

int LidarUtilitiesManager::catalogueRow(int module, int page, int shownRow) const {
    if (shownRow < 0) return -1;
    int shown = -1;
    for (int row = 0;; ++row) {
        const VarInfo* var = catalogue_->variableAt(module, page, row);
        if (var == nullptr) return -1;
        if (!var->hidden && ++shown == shownRow) return row;
    }
}

void LidarUtilitiesManager::readModule(int module) {
    if (getConnectType() == kNetworkKind)
        GetLidarModuleInfo(module);
    else
        WrenGetLidarModuleInfo(module);
}

void LidarUtilitiesManager::applyPage(int page) {
    // VRC over a serial line applies as the network kind does, over its VRC client.
    if (getConnectType() == kSerialLinesKind)
        WrenRun(page);
    else
        Run(page);
}

bool LidarUtilitiesManager::isDeviceLinkOpen() const {
    return getIsConnected() && deviceChannelOpen();
}
