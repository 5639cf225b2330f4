// Model catalogues: listing, pinning and loading models, variable lookups; reading variables from
// the lidar (one variable, a module, the page timer); the UI's cached lists and variable map.

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <algorithm>
#include <cerrno>
#include <ctime>
#include <set>

#include "command_text.h"
#include "developer_log.h"
#include "device_link.h"
#include "field_of_view.h"
#include "lidar_utilities_manager.h"
#include "monitor_service.h"
#include "parameter_catalogue.h"
#include "sdk/feature_config_parser.h"

namespace {

const char* const kFeatureConfigPath = "./Config/feature_config.csv";
constexpr uint8_t kFovReadCommand = 0x23;
constexpr int kFovRegions = 5;

std::string hexByte(uint8_t value) {
    return QString("%1").arg(value, 2, 16, QChar('0')).toStdString();
}

// The developer lines of a read request that failed or brought an empty reply.
void reportReadFailed(const char* operation, const std::string& name, uint8_t cmd, int ret) {
    developer_log::writeDeveloperLine(std::string(operation) + "(): try get " + name +
                                      " FAILED, cmd sent = " + hexByte(cmd) +
                                      " -- QueryCommand()'s ret = " + std::to_string(ret));
}

void reportEmptyReply(const char* operation, const std::string& name, uint8_t cmd) {
    developer_log::writeDeveloperLine(
        std::string(operation) + "(): try get " + name +
        ", but get no return msg from lidar. cmd sent = " + hexByte(cmd));
}

}  // namespace

// ---- Model pinning and loading: the steps of several parts ----

void LidarUtilitiesManager::InitZPModule(QString model) {
    if (model.isEmpty()) return;
    if (!getLidarModelList().contains(model)) return;
    InitConfigFileParser(model);
    catalogue_->pinModel(model.toStdString());
    emit lidarModelListChanged();
}

void LidarUtilitiesManager::InitConfigFileParser(QString model) {
    const std::string modelName = model.toStdString();
    if (modelName == Wren_Str)
        link_->setConnectionKind(1);
    else if (modelName == Wren_VRC_Str || modelName == Heron_VRC_Str)
        link_->setConnectionKind(2);
    else
        link_->setConnectionKind(0);

    const std::string path = catalogue_->modelConfigPath(model);
    if (!catalogue_->takeConfigPath(path)) return;
    // A recording's header names the loaded model's monitor variables: another model ends it
    // (with its file kept and said) rather than writing rows of other columns under it.
    stopMonitorRecord();
    catalogue_->loadParser(path);
    setSelectLidarModel(modelName);

    link_->setHostPortUiEnabled(FeatureConfigParser::Load(kFeatureConfigPath, modelName));
    setVrcClientHostPort(DeviceLink::savedVrcClientHostPort(model));
    emit featureConfigChanged();
    emit initInfoChanged();

    monitor_->useLoadedModel();

    if (getConnectType() != 0) {
        catalogue_->buildSerialVarIndexes();
        emit wrenLidarInfoChanged();
    }

    emit connectTypeChanged();
    rebuildUiListCache();
    rebuildMyMapCache();
    changeModelEmit();
}

void LidarUtilitiesManager::changeModelEmit() {
    setModuleIndexUse(0);
    emit lidarClearModel();
    emit lidarModelChanged();
    emit lidarShowModel();
}

// ---- Text helpers ----

std::string LidarUtilitiesManager::trim(const std::string& text) {
    const size_t first = text.find_first_not_of('\0');
    if (first == std::string::npos) return text.empty() ? text : std::string();
    const size_t last = text.find_last_not_of('\0');
    return text.substr(first, last - first + 1);
}

bool LidarUtilitiesManager::isNum(const QString& text) {
    bool ok = false;
    text.toInt(&ok, 10);
    return ok;
}

// ---- Reading from the lidar ----

bool LidarUtilitiesManager::buildReadRequest(const VarInfo& var, uint8_t& cmd,
                                             u8Array_t& payload) const {
    payload.clear();
    if (!commandRequestOf(var.get_cmd, cmd, payload)) return false;
    payload.insert(payload.end(), var.get_payload.begin(), var.get_payload.end());
    return true;
}

LidarUtilitiesManager::ReadGroups LidarUtilitiesManager::groupByReadRequest(
    const std::vector<VarInfo*>& vars) const {
    ReadGroups groups;
    std::unordered_map<std::string, size_t> position;
    for (VarInfo* var : vars) {
        if (var->get_cmd.empty()) continue;
        const std::string key = readRequestKey(*var);
        auto found = position.find(key);
        if (found == position.end()) {
            position.emplace(key, groups.size());
            groups.push_back({key, {var}});
        } else {
            groups[found->second].second.push_back(var);
        }
    }
    return groups;
}

void LidarUtilitiesManager::GetInfoFromLidar(VarInfo* var, std::vector<uint8_t>& value) {
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!var || !client || !client->IsOpen() || !catalogue_->parser()) return;
    uint8_t cmd = 0;
    u8Array_t payload;
    if (!buildReadRequest(*var, cmd, payload)) return;
    u8Array_t reply;
    const int ret = client->QueryCommand(payload, reply, cmd, false);
    if (ret != 0) {
        reportReadFailed("GetInfoFromLidar", var->var_name, cmd, ret);
        return;
    }
    if (reply.empty()) {
        reportEmptyReply("GetInfoFromLidar", var->var_name, cmd);
        return;
    }
    updateSingleVarFromOutput(*var, cmd, reply, value, true);
}

int LidarUtilitiesManager::UpdateSingleVarInfo(QString key, QString searchType) {
    if (!deviceIsIdle()) return 0;
    VarInfo* var = searchVarPtr(key.toStdString(), searchType.toStdString());
    if (!var) return 0;
    std::vector<uint8_t> value;
    GetInfoFromLidar(var, value);
    return 1;
}

// The channel field of view comes through the client's FOV operation; its numbers are laid out
// again as the device's 0x23 block so that every catalogue variable of that block decodes as usual.
static u8Array_t fovBlock(const float* values, int count, int mode) {
    u8Array_t block{static_cast<uint8_t>(mode), static_cast<uint8_t>(count)};
    for (int i = 0; i < count; ++i) {
        for (float degrees : {values[i], values[count + i]}) {
            const auto tenths = static_cast<uint16_t>(degrees * 10.0f + 0.5f);
            block.push_back(static_cast<uint8_t>(tenths >> 8));
            block.push_back(static_cast<uint8_t>(tenths & 0xFF));
        }
    }
    return block;
}

void LidarUtilitiesManager::GetInfoFromLidarWithSameCmd(
    std::vector<VarInfo*>& group, std::unordered_map<std::string, std::vector<uint8_t>>* replies,
    bool update) {
    readGroupFromLidar(group, replies, update);
}

int LidarUtilitiesManager::readGroupFromLidar(
    std::vector<VarInfo*>& group, std::unordered_map<std::string, std::vector<uint8_t>>* replies,
    bool update) {
    if (group.empty() || !deviceChannelOpen() || !catalogue_->parser()) return -1;
    uint8_t cmd = 0;
    u8Array_t payload;
    if (!buildReadRequest(*group.front(), cmd, payload)) return -1;
    const std::string firstName = group.front()->var_name;

    u8Array_t reply;
    // The field of view comes through the VRC client's own operation; the serial line has none.
    std::shared_ptr<AuthorizedVrcClient> client =
        getConnectType() == 1 ? nullptr : getAuthorizedClient();
    if (cmd == kFovReadCommand && client) {
        float values[2 * kFovRegions] = {};
        int count = kFovRegions;
        int mode = 0;
        const int ret = client->GetAllChannelFov(values, count, mode);
        if (ret != 0) {
            developer_log::writeDeveloperLine(
                "GetInfoFromLidarWithSameCmd(): try get " + firstName +
                " FAILED, cmd sent = 0x23 -- QueryCommand()'s ret = " + std::to_string(ret));
            return ret;
        }
        count = std::clamp(count, 0, kFovRegions);
        reply = fovBlock(values, count, mode);
        if (update) {
            fov_->storeReported(values, count);
            emit fovConfigChanged();
        }
    } else {
        const int ret = queryDevice(cmd, payload, reply);
        if (ret != 0) {
            reportReadFailed("GetInfoFromLidarWithSameCmd", firstName, cmd, ret);
            return ret;
        }
        if (reply.empty()) {
            reportEmptyReply("GetInfoFromLidarWithSameCmd", firstName, cmd);
            return 0;
        }
    }
    // Every member is decoded: one that cannot be (no length, a reply cut short) is reported and
    // the others of its group still get their values.
    for (VarInfo* member : group) {
        std::vector<uint8_t> bytes;
        try {
            updateSingleVarFromOutput(*member, cmd, reply, bytes, update);
        } catch (const std::exception& e) {
            writeLogMessage("Could not decode " + member->var_name + ": " + e.what(),
                            LogLevel::kWarning);
            continue;
        }
        if (replies) (*replies)[member->var_name] = bytes;
    }
    return 0;
}

std::vector<LidarUtilitiesManager::ReadFailure> LidarUtilitiesManager::readGroups(
    ReadGroups& groups, const char* operation, const std::atomic<bool>* runFlag) {
    std::vector<ReadFailure> failures;
    for (auto& [key, group] : groups) {
        if (runFlag != nullptr && !runFlag->load()) break;
        // One bad group must not keep the others from being read.
        try {
            const int ret = readGroupFromLidar(group, nullptr, true);
            if (ret != 0) {
                ReadFailure failure{key, {}, ret};
                for (const VarInfo* var : group) failure.names.push_back(var->var_name);
                failures.push_back(std::move(failure));
            }
        } catch (const std::exception& e) {
            developer_log::writeDeveloperLine(operation + std::string("(): ERROR ") + e.what() +
                                              ". get_cmd and payload = " + key);
        }
    }
    return failures;
}

void LidarUtilitiesManager::GetLidarModuleInfo(int module) {
    readModuleAndAnnounce(module, nullptr);
}

std::optional<std::vector<LidarUtilitiesManager::ReadFailure>>
LidarUtilitiesManager::readModuleAndAnnounce(int module, const std::atomic<bool>* runFlag) {
    if (getConnectType() != 0 || !deviceIsIdle() || !catalogue_->parser()) return std::nullopt;
    ReadGroups groups;
    {
        const auto lock = catalogue_->lockVariables();
        if (!catalogue_->variableTree() || module < 0 ||
            module >= static_cast<int>(catalogue_->variableTree()->size()))
            return std::nullopt;
        std::vector<VarInfo*> vars;
        for (const auto& page : (*catalogue_->variableTree())[module])
            vars.insert(vars.end(), page.begin(), page.end());
        groups = groupByReadRequest(vars);
    }
    std::vector<ReadFailure> failures = readGroups(groups, "GetLidarModuleInfo", runFlag);
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        lastModuleReadFailures = failures;
    }
    notifyMyMapChanged();
    return failures;
}

std::vector<LidarUtilitiesManager::ReadFailure> LidarUtilitiesManager::getLastModuleReadFailures()
    const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return lastModuleReadFailures;
}

void LidarUtilitiesManager::refreshTimerVariables() {
    ReadGroups groups;
    {
        const auto lock = catalogue_->lockVariables();
        const int module = getModuleIndexUse();
        if (!catalogue_->variableTree() || module < 0 ||
            module >= static_cast<int>(catalogue_->variableTree()->size()))
            return;
        std::vector<VarInfo*> vars;
        for (const auto& page : (*catalogue_->variableTree())[module])
            for (VarInfo* var : page)
                if (var->timer_update) vars.push_back(var);
        groups = groupByReadRequest(vars);
    }
    const std::vector<ReadFailure> failures =
        readGroups(groups, "updatePagesTimer", &pagesTimerRunning);
    if (!pagesTimerRunning.load() || groups.empty()) return;
    const bool allFailed = failures.size() == groups.size();
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        lastTimerRefresh = {++timerRefreshCount, allFailed, failures};
    }
    // Fresh values only: nothing is announced when every read failed.
    if (!allFailed) emit myTimerMapChanged();
}

LidarUtilitiesManager::TimerRefresh LidarUtilitiesManager::getLastTimerRefresh() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return lastTimerRefresh;
}

void LidarUtilitiesManager::updatePagesTimer() {
    if (!catalogue_->parser() || !pagesTimerRunning.load()) return;
    int counter = 0;
    while (pagesTimerRunning.load()) {
        if (getIsConnected() && !getIsUpgrading() && !getIsDownloadLog()) {
            if (counter <= 29) {
                ++counter;
            } else {
                refreshTimerVariables();
                counter = 1;
            }
        } else {
            ++counter;
            if (counter >= 30) counter = 0;
        }
        pagesLoopPause(100);
    }
}

bool LidarUtilitiesManager::isTimerUpdate(int module, int page, int var) const {
    return getConnectType() == 0 && catalogue_->timerUpdateAt(module, page, var);
}

void LidarUtilitiesManager::UpdateUI() {
    notifyMyMapChanged();
}

// ---- UI caches ----

QVariantMap LidarUtilitiesManager::varToMap(const VarInfo& var) {
    QVariantMap map;
    map.insert(QStringLiteral("var_id"), QString::fromStdString(var.var_id));
    map.insert(QStringLiteral("get_cmd"), QString::fromStdString(var.get_cmd));
    map.insert(QStringLiteral("set_cmd"), QString::fromStdString(var.set_cmd));
    map.insert(QStringLiteral("var_type"), QString::fromStdString(var.var_type));
    map.insert(QStringLiteral("var_name"), QString::fromStdString(var.var_name));
    map.insert(QStringLiteral("index"), var.index);
    map.insert(QStringLiteral("get_start_pos"), var.get_start_pos);
    map.insert(QStringLiteral("set_start_pos"), var.set_start_pos);
    map.insert(QStringLiteral("offset"), var.offset);
    map.insert(QStringLiteral("permission"), var.permission);
    map.insert(QStringLiteral("default_val"), QString::fromStdString(var.default_val));
    map.insert(QStringLiteral("current_val"), QString::fromStdString(var.current_val));
    if (var.type == 2) {
        if (var.switch_var) {
            map.insert(QStringLiteral("switch_index"),
                       QString::fromStdString(var.switch_var->current_val));
        } else {
            writeLogMessage(
                "config file error, Please check the configuration of type 2 of " + var.var_name,
                LogLevel::kError);
        }
    }
    map.insert(QStringLiteral("visible"), var.visible);
    map.insert(QStringLiteral("option_num"), var.option_num);
    map.insert(QStringLiteral("type"), var.type);
    QVariantMap valueToOption;
    for (const auto& [value, text] : var.value_to_option)
        valueToOption.insert(QString::number(value), QString::fromStdString(text));
    map.insert(QStringLiteral("varname_value_to_option"), valueToOption);
    QVariantList options;
    for (int32_t option : var.options) options.append(option);
    map.insert(QStringLiteral("options"), options);
    return map;
}

QVariantList LidarUtilitiesManager::getMyMap() {
    const auto lock = catalogue_->lockVariables();
    if (!myMapValid) rebuildMyMapCache();
    return myMapCache;
}

void LidarUtilitiesManager::rebuildMyMapCache() {
    const auto lock = catalogue_->lockVariables();
    myMapCache.clear();
    if (getConnectType() == 0) myMapCache = buildVariableMap();
    myMapValid = true;
}

QVariantList LidarUtilitiesManager::buildVariableMap() {
    const auto lock = catalogue_->lockVariables();
    QVariantList map;
    if (!catalogue_->parser() || !catalogue_->variableTree() || catalogue_->variableTree()->empty())
        return map;
    for (const auto& module : *catalogue_->variableTree()) {
        QVariantList moduleEntry;
        for (const auto& page : module) {
            QVariantList pageEntry;
            for (const VarInfo* var : page)
                if (!var->hidden) pageEntry.append(varToMap(*var));
            moduleEntry.append(QVariant(pageEntry));
        }
        map.append(QVariant(moduleEntry));
    }
    return map;
}

void LidarUtilitiesManager::notifyMyMapChanged() {
    // The map is rebuilt by the first getMyMap() after this: on the UI thread that reads it, and
    // once however many notifications come before it (a module read of a large catalogue would
    // otherwise spend most of its time building maps nobody has asked for yet).
    {
        const auto lock = catalogue_->lockVariables();
        myMapValid = false;
    }
    emit myMapChanged();
}

QVariantList LidarUtilitiesManager::level1List() {
    const auto lock = catalogue_->lockVariables();
    if (!uiListsValid) rebuildUiListCache();
    return level1ListCache;
}

QVariantList LidarUtilitiesManager::level2List() {
    const auto lock = catalogue_->lockVariables();
    if (!uiListsValid) rebuildUiListCache();
    return level2ListCache;
}

QVariantList LidarUtilitiesManager::logRepeaterModel() {
    const auto lock = catalogue_->lockVariables();
    if (!uiListsValid) rebuildUiListCache();
    return logListCache;
}

void LidarUtilitiesManager::rebuildUiListCache() {
    const auto lock = catalogue_->lockVariables();
    level1ListCache.clear();
    level2ListCache.clear();
    logListCache.clear();
    if (getConnectType() == 0) buildPageLists(level1ListCache, level2ListCache);
    if (catalogue_->parser() && catalogue_->logVariables()) {
        for (const VarInfo* var : *catalogue_->logVariables())
            if (!var->get_cmd.empty() || !var->set_cmd.empty())
                logListCache.append(QString::fromStdString(var->var_name));
    }
    uiListsValid = true;
}

void LidarUtilitiesManager::buildPageLists(QVariantList& level1, QVariantList& level2) const {
    const auto lock = catalogue_->lockVariables();
    if (!catalogue_->parser() || !catalogue_->moduleNameTable() || !catalogue_->variableTree())
        return;
    for (size_t m = 0; m < catalogue_->moduleNameTable()->size(); ++m) {
        const std::vector<std::string>& names = (*catalogue_->moduleNameTable())[m];
        if (names.empty()) continue;
        level1.append(QString::fromStdString(names.front()));
        if (names.size() < 2) continue;
        QVariantList pages;
        for (size_t p = 1; p < names.size(); ++p) {
            QVariantList pageEntry{QString::fromStdString(names[p])};
            if (m < catalogue_->variableTree()->size() &&
                p - 1 < (*catalogue_->variableTree())[m].size()) {
                for (const VarInfo* var : (*catalogue_->variableTree())[m][p - 1])
                    if (!var->hidden && !var->name_suffix.empty())
                        pageEntry.append(QString::fromStdString(var->var_name + var->name_suffix));
            }
            pages.append(QVariant(pageEntry));
        }
        level2.append(QVariant(pages));
    }
}

void LidarUtilitiesManager::invalidateUiListCache() {
    const auto lock = catalogue_->lockVariables();
    level1ListCache.clear();
    level2ListCache.clear();
    logListCache.clear();
    uiListsValid = false;
}
