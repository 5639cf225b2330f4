// The page reader's page-refresh thread and the UI's cached page lists and variable map
// (page_reader.h).

#include <chrono>
#include <system_error>

#include "page_reader.h"
#include "parameter_catalogue.h"

namespace {

bool isSerialKind(int kind) {
    return kind == kSerialLinesKind || kind == kVrcOverSerialKind;
}

}  // namespace

// ---- The page thread ----

void PageReader::startPageLoop(int kind) {
    // The same loop on every kind, under the design's name for each.
    switch (kind) {
        case kSerialLinesKind:
            startPagesThread(&PageReader::WrenUpdatePagesTimer);
            break;
        case kVrcOverSerialKind:
            startPagesThread(&PageReader::WrenVrcUpdatePagesTimer);
            break;
        default:
            startPagesThread(&PageReader::runPageLoop);
            break;
    }
}

void PageReader::startPagesThread(void (PageReader::*loop)()) {
    // A connect over a live connection replaces the page thread: the old one is stopped first.
    askPageLoopToStop();
    joinPageLoop();
    pagesTimerRunning_.store(true);
    std::lock_guard<std::mutex> lock(threadsMutex_);
    try {
        pagesTimerThread_ = std::make_unique<std::thread>(loop, this);
    } catch (const std::system_error&) {
        askPageLoopToStop();
        throw;
    }
}

void PageReader::joinPageLoop() {
    std::unique_ptr<std::thread> owned;
    {
        std::lock_guard<std::mutex> lock(threadsMutex_);
        owned = std::move(pagesTimerThread_);
    }
    if (owned && owned->joinable()) owned->join();
}

// The serial models refresh their timer variables as the network model does: the same loop,
// whose reads go over the kind's client (DeviceLinkView::queryDevice).
void PageReader::WrenVrcUpdatePagesTimer() {
    runPageLoop();
}

void PageReader::WrenUpdatePagesTimer() {
    runPageLoop();
}

void PageReader::askPageLoopToStop() {
    std::lock_guard<std::mutex> lock(pagesWakeMutex_);
    pagesTimerRunning_.store(false);
    pagesWake_.notify_all();
}

void PageReader::pagesLoopPause(long ms) {
    std::unique_lock<std::mutex> lock(pagesWakeMutex_);
    pagesWake_.wait_for(lock, std::chrono::milliseconds(ms),
                        [this] { return !pagesTimerRunning_.load(); });
}

void PageReader::runPageLoop() {
    if (!catalogue_.parser() || !pagesTimerRunning_.load()) return;
    int counter = 0;
    while (pagesTimerRunning_.load()) {
        if (link_.linkConnected() && !busy_.upgrading() && !busy_.downloadingLog()) {
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

// ---- The variable map ----

QVariantMap PageReader::varToMap(const VarInfo& var) {
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
            messages_.log(
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

QVariantList PageReader::myMap() {
    const auto lock = catalogue_.lockVariables();
    if (!myMapValid_) rebuildMyMapCache();
    return myMapCache_;
}

void PageReader::rebuildMyMapCache() {
    const auto lock = catalogue_.lockVariables();
    myMapCache_.clear();
    if (link_.connectionKind() == kNetworkKind) myMapCache_ = buildVariableMap();
    myMapValid_ = true;
}

QVariantList PageReader::buildVariableMap() {
    const auto lock = catalogue_.lockVariables();
    QVariantList map;
    const ParameterCatalogue::VariableTree* tree = catalogue_.variableTree();
    if (!catalogue_.parser() || !tree || tree->empty()) return map;
    for (const auto& module : *tree) {
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

void PageReader::notifyMyMapChanged() {
    // The map is rebuilt by the first myMap() after this: on the UI thread that reads it, and
    // once however many notifications come before it (a module read of a large catalogue would
    // otherwise spend most of its time building maps nobody has asked for yet).
    {
        const auto lock = catalogue_.lockVariables();
        myMapValid_ = false;
    }
    emit myMapChanged();
}

QVariantList PageReader::wrenMyMap() {
    if (!isSerialKind(link_.connectionKind())) return QVariantList();
    return buildVariableMap();
}

// ---- The page lists ----

QVariantList PageReader::level1List() {
    const auto lock = catalogue_.lockVariables();
    if (!uiListsValid_) rebuildUiListCache();
    return level1ListCache_;
}

QVariantList PageReader::level2List() {
    const auto lock = catalogue_.lockVariables();
    if (!uiListsValid_) rebuildUiListCache();
    return level2ListCache_;
}

QVariantList PageReader::logRepeaterModel() {
    const auto lock = catalogue_.lockVariables();
    if (!uiListsValid_) rebuildUiListCache();
    return logListCache_;
}

void PageReader::rebuildUiListCache() {
    const auto lock = catalogue_.lockVariables();
    level1ListCache_.clear();
    level2ListCache_.clear();
    logListCache_.clear();
    if (link_.connectionKind() == kNetworkKind) buildPageLists(level1ListCache_, level2ListCache_);
    const std::vector<VarInfo*>* logVars = catalogue_.logVariables();
    if (catalogue_.parser() && logVars) {
        for (const VarInfo* var : *logVars)
            if (!var->get_cmd.empty() || !var->set_cmd.empty())
                logListCache_.append(QString::fromStdString(var->var_name));
    }
    uiListsValid_ = true;
}

void PageReader::buildPageLists(QVariantList& level1, QVariantList& level2) const {
    const auto lock = catalogue_.lockVariables();
    const ParameterCatalogue::ModuleNames* moduleNames = catalogue_.moduleNameTable();
    const ParameterCatalogue::VariableTree* tree = catalogue_.variableTree();
    if (!catalogue_.parser() || !moduleNames || !tree) return;
    for (size_t m = 0; m < moduleNames->size(); ++m) {
        const std::vector<std::string>& names = (*moduleNames)[m];
        if (names.empty()) continue;
        level1.append(QString::fromStdString(names.front()));
        if (names.size() < 2) continue;
        QVariantList pages;
        for (size_t p = 1; p < names.size(); ++p) {
            QVariantList pageEntry{QString::fromStdString(names[p])};
            if (m < tree->size() && p - 1 < (*tree)[m].size()) {
                for (const VarInfo* var : (*tree)[m][p - 1])
                    if (!var->hidden && !var->name_suffix.empty())
                        pageEntry.append(QString::fromStdString(var->var_name + var->name_suffix));
            }
            pages.append(QVariant(pageEntry));
        }
        level2.append(QVariant(pages));
    }
}

void PageReader::invalidateUiListCache() {
    const auto lock = catalogue_.lockVariables();
    level1ListCache_.clear();
    level2ListCache_.clear();
    logListCache_.clear();
    uiListsValid_ = false;
}

QVariantList PageReader::wrenLevel1List() {
    QVariantList level1, level2;
    if (isSerialKind(link_.connectionKind())) buildPageLists(level1, level2);
    return level1;
}

QVariantList PageReader::wrenLevel2List() {
    QVariantList level1, level2;
    if (isSerialKind(link_.connectionKind())) buildPageLists(level1, level2);
    return level2;
}

// ---- The façade's page operations ----

void LidarUtilitiesManager::updatePagesTimer() {
    reader_->runPageLoop();
}

void LidarUtilitiesManager::UpdateUI() {
    reader_->notifyMyMapChanged();
}

QVariantList LidarUtilitiesManager::getMyMap() {
    return reader_->myMap();
}

void LidarUtilitiesManager::rebuildMyMapCache() {
    reader_->rebuildMyMapCache();
}

void LidarUtilitiesManager::notifyMyMapChanged() {
    reader_->notifyMyMapChanged();
}

QVariantList LidarUtilitiesManager::level1List() {
    return reader_->level1List();
}

QVariantList LidarUtilitiesManager::level2List() {
    return reader_->level2List();
}

QVariantList LidarUtilitiesManager::logRepeaterModel() {
    return reader_->logRepeaterModel();
}

void LidarUtilitiesManager::rebuildUiListCache() {
    reader_->rebuildUiListCache();
}

void LidarUtilitiesManager::invalidateUiListCache() {
    reader_->invalidateUiListCache();
}

QVariantList LidarUtilitiesManager::getWrenMyMap() {
    return reader_->wrenMyMap();
}

QVariantList LidarUtilitiesManager::wrenLevel1List() {
    return reader_->wrenLevel1List();
}

QVariantList LidarUtilitiesManager::wrenLevel2List() {
    return reader_->wrenLevel2List();
}
