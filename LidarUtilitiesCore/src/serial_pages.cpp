// The catalogue pages of the serial models (connection kinds 1 and 2). The generic operations
// serve the network kind; these read, list and apply the same catalogue over the kind's own
// client, with the generic grouping, decoding and encoding: on kind 2 the VRC client carried
// over the serial line, on kind 1 the serial client, whose command codes are the catalogue's
// get and set commands.

#include "lidar_utilities_manager.h"
#include "sdk/serial_client.h"

namespace {

constexpr size_t kSerialHeaderSize = 8;

bool isSerialKind(int kind) {
    return kind == 1 || kind == 2;
}

}  // namespace

// ---- The kind's client ----

int LidarUtilitiesManager::queryDevice(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) {
    reply.clear();
    if (connectType.load() != 1) {
        std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
        return client ? client->QueryCommand(payload, reply, cmd, false) : lidar::kVrcNotConnected;
    }
    std::shared_ptr<lidar::SerialClient> client = getSerialClient();
    if (!client) return lidar::kVrcNotConnected;
    u8Array_t frame;
    const int ret = client->QueryCommand(cmd, payload, frame, 0);
    // The serial client answers with the reply's header; a catalogue block is its payload.
    if (ret == 0 && frame.size() >= kSerialHeaderSize)
        reply.assign(frame.begin() + kSerialHeaderSize, frame.end());
    return ret;
}

bool LidarUtilitiesManager::deviceChannelOpen() const {
    if (connectType.load() != 1) return clientIsOpen();
    std::shared_ptr<lidar::SerialClient> client = getSerialClient();
    return client && client->IsOpen();
}

bool LidarUtilitiesManager::serialKindIdle() const {
    return isSerialKind(connectType.load()) && deviceChannelOpen() && isConnected.load() &&
           !getIsUpgrading() && !getIsDownloadLog();
}

// ---- Reading and showing ----

void LidarUtilitiesManager::WrenGetLidarModuleInfo(int module) {
    if (!serialKindIdle() || !currentParser) return;
    ReadGroups groups;
    {
        std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
        if (!varTree || module < 0 || module >= static_cast<int>(varTree.load()->size())) return;
        std::vector<VarInfo*> vars;
        for (const auto& page : (*varTree)[module])
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
    if (!isSerialKind(connectType.load())) return QVariantList();
    return buildVariableMap();
}

QVariantList LidarUtilitiesManager::wrenLevel1List() {
    QVariantList level1, level2;
    if (isSerialKind(connectType.load())) buildPageLists(level1, level2);
    return level1;
}

QVariantList LidarUtilitiesManager::wrenLevel2List() {
    QVariantList level1, level2;
    if (isSerialKind(connectType.load())) buildPageLists(level1, level2);
    return level2;
}

bool LidarUtilitiesManager::isWrenTimerUpdate(int module, int page, int var) const {
    return isSerialKind(connectType.load()) && timerUpdateAt(module, page, var);
}
