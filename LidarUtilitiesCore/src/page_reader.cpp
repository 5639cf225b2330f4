// The page reader (page_reader.h): reading one variable, a request group, a module and the page
// loop's timer variables from the lidar.

#include "page_reader.h"

#include <QString>
#include <algorithm>

#include "command_text.h"
#include "developer_log.h"
#include "parameter_catalogue.h"

namespace {

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

// The channel field of view comes through the client's FOV operation; its numbers are laid out
// again as the device's 0x23 block so that every catalogue variable of that block decodes as usual.
u8Array_t fovBlock(const float* values, int count, int mode) {
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

bool isSerialKind(int kind) {
    return kind == kSerialLinesKind || kind == kVrcOverSerialKind;
}

}  // namespace

PageReader::PageReader(ParameterCatalogue& catalogue, DeviceLinkView& link, const BusyView& busy,
                       UserMessageSink& messages, PageReadingContext& context)
    : catalogue_(catalogue), link_(link), busy_(busy), messages_(messages), context_(context) {}

// ---- Requests ----

bool PageReader::buildReadRequest(const VarInfo& var, uint8_t& cmd, u8Array_t& payload) const {
    payload.clear();
    if (!commandRequestOf(var.get_cmd, cmd, payload)) return false;
    payload.insert(payload.end(), var.get_payload.begin(), var.get_payload.end());
    return true;
}

PageReader::ReadGroups PageReader::groupByReadRequest(const std::vector<VarInfo*>& vars) const {
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

std::optional<PageReader::ReadGroups> PageReader::moduleGroups(int module) const {
    const auto lock = catalogue_.lockVariables();
    std::vector<VarInfo*> vars;
    if (!catalogue_.moduleVariables(module, vars)) return std::nullopt;
    return groupByReadRequest(vars);
}

// ---- One variable ----

void PageReader::readVariable(VarInfo* var, std::vector<uint8_t>& value) {
    std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!var || !client || !client->IsOpen() || !catalogue_.parser()) return;
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

int PageReader::updateSingleVariable(const QString& key, const QString& searchType) {
    if (!link_.deviceIsIdle()) return 0;
    VarInfo* var = catalogue_.searchVarPtr(key.toStdString(), searchType.toStdString());
    if (!var) return 0;
    std::vector<uint8_t> value;
    readVariable(var, value);
    return 1;
}

// ---- A group of one request ----

int PageReader::readFieldOfView(AuthorizedVrcClient& client, const std::string& firstName,
                                bool update, u8Array_t& reply) {
    float values[2 * kFovRegions] = {};
    int count = kFovRegions;
    int mode = 0;
    const int ret = client.GetAllChannelFov(values, count, mode);
    if (ret != 0) {
        developer_log::writeDeveloperLine(
            "GetInfoFromLidarWithSameCmd(): try get " + firstName +
            " FAILED, cmd sent = 0x23 -- QueryCommand()'s ret = " + std::to_string(ret));
        return ret;
    }
    count = std::clamp(count, 0, kFovRegions);
    reply = fovBlock(values, count, mode);
    if (update) {
        context_.storeReportedFov(values, count);
        emit fovConfigChanged();
    }
    return 0;
}

int PageReader::readGroupFromLidar(std::vector<VarInfo*>& group, BytesByName* replies,
                                   bool update) {
    if (group.empty() || !link_.deviceChannelOpen() || !catalogue_.parser()) return -1;
    uint8_t cmd = 0;
    u8Array_t payload;
    if (!buildReadRequest(*group.front(), cmd, payload)) return -1;
    const std::string firstName = group.front()->var_name;

    u8Array_t reply;
    // The field of view comes through the VRC client's own operation; the serial line has none.
    std::shared_ptr<AuthorizedVrcClient> client =
        link_.connectionKind() == kSerialLinesKind ? nullptr : link_.vrcClient();
    if (cmd == kFovReadCommand && client) {
        const int ret = readFieldOfView(*client, firstName, update, reply);
        if (ret != 0) return ret;
    } else {
        const int ret = link_.queryDevice(cmd, payload, reply);
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
            messages_.log("Could not decode " + member->var_name + ": " + e.what(),
                          LogLevel::kWarning);
            continue;
        }
        if (replies) (*replies)[member->var_name] = bytes;
    }
    return 0;
}

std::vector<PageReader::ReadFailure> PageReader::readGroups(ReadGroups& groups,
                                                            const char* operation,
                                                            const std::atomic<bool>* runFlag) {
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

// ---- Modules ----

std::optional<std::vector<PageReader::ReadFailure>> PageReader::readModuleAndAnnounce(
    int module, const std::atomic<bool>* runFlag) {
    forgetModuleReadFailures();
    if (link_.connectionKind() != kNetworkKind || !link_.deviceIsIdle() || !catalogue_.parser())
        return std::nullopt;
    std::optional<ReadGroups> groups = moduleGroups(module);
    if (!groups) return std::nullopt;
    std::vector<ReadFailure> failures = readGroups(*groups, "GetLidarModuleInfo", runFlag);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lastModuleReadFailures_ = failures;
    }
    notifyMyMapChanged();
    return failures;
}

bool PageReader::serialKindIdle() const {
    return isSerialKind(link_.connectionKind()) && link_.deviceChannelOpen() &&
           link_.linkConnected() && !busy_.upgrading() && !busy_.downloadingLog();
}

void PageReader::readSerialModule(int module) {
    forgetModuleReadFailures();
    if (!serialKindIdle() || !catalogue_.parser()) return;
    std::optional<ReadGroups> groups = moduleGroups(module);
    if (!groups) return;
    std::vector<ReadFailure> failures = readGroups(*groups, "WrenGetLidarModuleInfo");
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lastModuleReadFailures_ = std::move(failures);
    }
    emit wrenLidarInfoChanged();
}

// A read that does not happen (not connected, the device busy) leaves no failures of an earlier
// read behind to be taken for its own.
void PageReader::forgetModuleReadFailures() {
    std::lock_guard<std::mutex> lock(mutex_);
    lastModuleReadFailures_.clear();
}

std::vector<PageReader::ReadFailure> PageReader::lastModuleReadFailures() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastModuleReadFailures_;
}

// ---- The timer variables ----

void PageReader::refreshTimerVariables() {
    ReadGroups groups;
    {
        const auto lock = catalogue_.lockVariables();
        std::vector<VarInfo*> vars;
        if (!catalogue_.moduleVariables(context_.moduleInUse(), vars)) return;
        vars.erase(std::remove_if(vars.begin(), vars.end(),
                                  [](const VarInfo* var) { return !var->timer_update; }),
                   vars.end());
        groups = groupByReadRequest(vars);
    }
    const std::vector<ReadFailure> failures =
        readGroups(groups, "updatePagesTimer", &pagesTimerRunning_);
    if (!pagesTimerRunning_.load() || groups.empty()) return;
    const bool allFailed = failures.size() == groups.size();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        lastTimerRefresh_ = {++timerRefreshCount_, allFailed, failures};
    }
    // Fresh values only: nothing is announced when every read failed.
    if (!allFailed) emit myTimerMapChanged();
}

PageReader::TimerRefresh PageReader::lastTimerRefresh() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastTimerRefresh_;
}

bool PageReader::isTimerUpdate(int module, int page, int var) const {
    return link_.connectionKind() == kNetworkKind && catalogue_.timerUpdateAt(module, page, var);
}

bool PageReader::isWrenTimerUpdate(int module, int page, int var) const {
    return isSerialKind(link_.connectionKind()) && catalogue_.timerUpdateAt(module, page, var);
}

// ---- ModuleReadingView, GroupReadBack ----

std::optional<std::vector<std::string>> PageReader::readModule(int module,
                                                               const std::atomic<bool>* keepGoing) {
    const auto failures = readModuleAndAnnounce(module, keepGoing);
    if (!failures) return std::nullopt;
    std::vector<std::string> requests;
    for (const ReadFailure& failure : *failures) requests.push_back(failure.request);
    return requests;
}

bool PageReader::deviceChannelOpen() const {
    return link_.deviceChannelOpen();
}

std::optional<std::vector<ShownValue>> PageReader::shownValues(int module) const {
    std::vector<ShownValue> values;
    if (!catalogue_.shownModuleValues(module, values)) return std::nullopt;
    return values;
}

void PageReader::announceValues() {
    notifyMyMapChanged();
}

void PageReader::rebuildPageLists() {
    rebuildUiListCache();
}

void PageReader::readBack(std::vector<VarInfo*>& group, BytesByName& bytes) {
    readGroupFromLidar(group, &bytes, false);
}

int PageReader::queryKindClient(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) {
    return link_.queryDevice(cmd, payload, reply);
}

// ---- The façade's reading operations ----

void LidarUtilitiesManager::GetInfoFromLidar(VarInfo* var, std::vector<uint8_t>& value) {
    reader_->readVariable(var, value);
}

int LidarUtilitiesManager::UpdateSingleVarInfo(QString key, QString searchType) {
    return reader_->updateSingleVariable(key, searchType);
}

void LidarUtilitiesManager::GetInfoFromLidarWithSameCmd(
    std::vector<VarInfo*>& group, std::unordered_map<std::string, std::vector<uint8_t>>* replies,
    bool update) {
    reader_->readGroupFromLidar(group, replies, update);
}

void LidarUtilitiesManager::GetLidarModuleInfo(int module) {
    reader_->readModuleAndAnnounce(module, nullptr);
}

void LidarUtilitiesManager::WrenGetLidarModuleInfo(int module) {
    reader_->readSerialModule(module);
}

std::vector<LidarUtilitiesManager::ReadFailure> LidarUtilitiesManager::getLastModuleReadFailures()
    const {
    return reader_->lastModuleReadFailures();
}

LidarUtilitiesManager::TimerRefresh LidarUtilitiesManager::getLastTimerRefresh() const {
    return reader_->lastTimerRefresh();
}

bool LidarUtilitiesManager::isTimerUpdate(int module, int page, int var) const {
    return reader_->isTimerUpdate(module, page, var);
}

bool LidarUtilitiesManager::isWrenTimerUpdate(int module, int page, int var) const {
    return reader_->isWrenTimerUpdate(module, page, var);
}

void LidarUtilitiesManager::updateSingleVarFromOutput(VarInfo& var, uint8_t cmd,
                                                      const std::vector<uint8_t>& output,
                                                      std::vector<uint8_t>& value, bool update) {
    reader_->updateSingleVarFromOutput(var, cmd, output, value, update);
}
