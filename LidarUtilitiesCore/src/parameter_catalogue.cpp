// The parameter catalogue (parameter_catalogue.h): the models on disk, loading a model's
// catalogue file, and the lookups of its variables.

#include "parameter_catalogue.h"

#include <QDir>
#include <QFileInfo>
#include <algorithm>
#include <set>

#include "developer_log.h"
#include "edit_staging.h"
#include "lidar_utilities_manager.h"

namespace {

const QString kVarIdRoot = "./Config/varID";

}  // namespace

ParameterCatalogue::ParameterCatalogue(std::string configPath)
    : currentConfigPath_(std::move(configPath)) {}

std::unique_lock<std::recursive_mutex> ParameterCatalogue::lockVariables() const {
    return std::unique_lock<std::recursive_mutex>(catalogueMutex_);
}

// ---- Models and loading ----

QVariantList ParameterCatalogue::modelList() const {
    QVariantList list;
    const std::string pinned = pinnedModel();
    if (!pinned.empty()) {
        list.append(QString::fromStdString(pinned));
        return list;
    }
    std::set<QString> names;
    QDir root(kVarIdRoot);
    for (const QFileInfo& file : root.entryInfoList(QDir::Files)) {
        if (file.suffix().compare("csv", Qt::CaseInsensitive) == 0) names.insert(file.baseName());
    }
    for (const QFileInfo& dir : root.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString modelFile = dir.absoluteFilePath() + "/" + dir.fileName() + ".csv";
        if (QFileInfo(modelFile).isFile()) names.insert(dir.fileName());
    }
    QStringList sorted(names.begin(), names.end());
    std::sort(sorted.begin(), sorted.end(), [](const QString& a, const QString& b) {
        return a.compare(b, Qt::CaseInsensitive) < 0;
    });
    for (const QString& name : sorted) list.append(name);
    return list;
}

std::string ParameterCatalogue::pinnedModel() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return zpNowName_;
}

void ParameterCatalogue::pinModel(const std::string& model) {
    std::lock_guard<std::mutex> lock(mutex_);
    zpNowName_ = model;
}

std::string ParameterCatalogue::modelConfigPath(const QString& model) const {
    const QString preferred = kVarIdRoot + "/" + model + "/" + model + ".csv";
    if (QFileInfo(preferred).isFile()) return preferred.toStdString();
    return (kVarIdRoot + "/" + model + ".csv").toStdString();
}

QString ParameterCatalogue::modelFolder(const QString& model) const {
    const QString dir = kVarIdRoot + "/" + model;
    if (QFileInfo(dir).isDir()) return dir;
    return QString();
}

bool ParameterCatalogue::takeConfigPath(const std::string& path) {
    std::lock_guard<std::recursive_mutex> catalogueLock(catalogueMutex_);
    std::lock_guard<std::mutex> lock(mutex_);
    // Selecting the model that is already loaded costs nothing and announces nothing.
    if (currentParser_ && !currentConfigPath_.empty() && path == currentConfigPath_) return false;
    currentConfigPath_ = path;
    return true;
}

void ParameterCatalogue::loadParser(const std::string& path) {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    auto cached = parserCache_.find(path);
    if (cached == parserCache_.end()) {
        cached = parserCache_.emplace(path, ConfigParser(path)).first;
        cached->second.ExtractConfigInfo();
    }
    currentParser_ = &cached->second;
    varTree_ = &currentParser_.load()->varTree;
    moduleNames_ = &currentParser_.load()->moduleNames;
    logVars_ = &currentParser_.load()->logVars;
}

std::string ParameterCatalogue::configFilePath() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return currentConfigPath_;
}

void ParameterCatalogue::buildSerialVarIndexes() {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    serialVarsByName_.clear();
    serialVarsByIndex_.clear();
    const VariableTree* tree = varTree_.load();
    if (!tree || tree->empty() || (*tree)[0].empty() || (*tree)[0][0].empty()) return;
    for (VarInfo* var : (*tree)[0][0]) {
        serialVarsByName_[var->var_name].push_back(var);
        serialVarsByIndex_[var->index] = var;
    }
}

void ParameterCatalogue::resetSerialNumberTexts() {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    if (!currentParser_) return;
    for (const auto& var : currentParser_.load()->AllVars())
        if (var->var_type == "SN") var->current_val = "xxxxxxxx";
}

// ---- The tree ----

bool ParameterCatalogue::timerUpdateAt(int module, int page, int var) const {
    if (!currentParser_) return false;
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const VariableTree* tree = varTree_.load();
    if (!tree || module < 0 || module >= static_cast<int>(tree->size())) return false;
    const auto& pages = (*tree)[module];
    if (page < 0 || page >= static_cast<int>(pages.size())) return false;
    const auto& vars = pages[page];
    if (var < 0 || var >= static_cast<int>(vars.size())) return false;
    return vars[var]->timer_update;
}

bool ParameterCatalogue::moduleVariables(int module, std::vector<VarInfo*>& out) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const VariableTree* tree = varTree_.load();
    if (!tree || module < 0 || module >= static_cast<int>(tree->size())) return false;
    for (const auto& page : (*tree)[module]) out.insert(out.end(), page.begin(), page.end());
    return true;
}

// ---- Lookups ----

VarInfo* ParameterCatalogue::searchVarPtr(const std::string& value,
                                          const std::string& searchType) const {
    if (!currentParser_) return nullptr;
    if (searchType == "var_name" || searchType == "name")
        return currentParser_.load()->GetVarInfoByName(value);
    if (searchType == "id" || searchType == "var_id")
        return currentParser_.load()->GetVarInfoByVarID(value);
    developer_log::writeDeveloperLine("searchVarPtr(): unknown search type");
    return nullptr;
}

bool ParameterCatalogue::resolveVarPosOffset(const VarInfo& var, int index,
                                             std::pair<int, int>& out) const {
    if (currentParser_ && currentParser_.load()->GetVarInfoByVarID(var.var_id) &&
        currentParser_.load()->GetVarPosOffset(var.get_cmd, var.var_id, index, out))
        return true;
    if (monitorParser_ &&
        monitorParser_.load()->GetVarPosOffset(var.get_cmd, var.var_id, index, out))
        return true;
    if (var.offset >= 1) {
        out = {var.get_start_pos, var.offset};
        return true;
    }
    return false;
}

bool ParameterCatalogue::hasVariableNamed(const QString& name) const {
    if (name.isEmpty()) return false;
    const std::pair<std::string, std::string> forms = EditStaging::twoCases(name);
    return searchVarPtr(forms.first, "name") != nullptr ||
           searchVarPtr(forms.second, "var_name") != nullptr;
}

QString ParameterCatalogue::currentValueOf(const VarInfo* var) const {
    if (!var) return QString();
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    return QString::fromStdString(var->current_val);
}

void ParameterCatalogue::storeCurrentValue(VarInfo& var, const std::string& text) {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    var.current_val = text;
}

// ---- CatalogueEditView, VariableLookup ----

bool ParameterCatalogue::catalogueLoaded() const {
    return currentParser_ != nullptr && varTree_ != nullptr;
}

VarInfo* ParameterCatalogue::variableAt(int page, int group, int row) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const VariableTree* tree = varTree_.load();
    if (tree == nullptr || page < 0 || static_cast<size_t>(page) >= tree->size()) return nullptr;
    const auto& groups = (*tree)[page];
    if (group < 0 || static_cast<size_t>(group) >= groups.size()) return nullptr;
    const auto& rows = groups[group];
    if (row < 0 || static_cast<size_t>(row) >= rows.size()) return nullptr;
    return rows[row];
}

std::optional<CatalogueEditView::VarGroups> ParameterCatalogue::pageGroups(int page) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const VariableTree* tree = varTree_.load();
    if (tree == nullptr || page < 0 || static_cast<size_t>(page) >= tree->size())
        return std::nullopt;
    return (*tree)[page];
}

std::vector<VarInfo*> ParameterCatalogue::variablesOfSetCommand(const std::string& setCmd) const {
    const ConfigParser* parser = currentParser_.load();
    return parser == nullptr ? std::vector<VarInfo*>() : parser->GetVarInfosBySetCmd(setCmd);
}

bool ParameterCatalogue::replaceCurrentValue(VarInfo& var, const std::string& text) {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    if (var.current_val == text) return false;
    var.current_val = text;
    return true;
}

std::string ParameterCatalogue::currentValue(const VarInfo& var) const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    return var.current_val;
}

const VarInfo* ParameterCatalogue::variableNamed(const std::string& name) const {
    return searchVarPtr(name, "var_name");
}

// ---- The façade's catalogue operations ----

QVariantList LidarUtilitiesManager::getLidarModelList() {
    return catalogue_->modelList();
}

QString LidarUtilitiesManager::getZPNowName() const {
    return QString::fromStdString(catalogue_->pinnedModel());
}

std::string LidarUtilitiesManager::resolveModelConfigPath(const QString& model) const {
    return catalogue_->modelConfigPath(model);
}

QString LidarUtilitiesManager::resolveModelDirPath(const QString& model) const {
    return catalogue_->modelFolder(model);
}

VarInfo* LidarUtilitiesManager::searchVarPtr(const std::string& value,
                                             const std::string& searchType) const {
    return catalogue_->searchVarPtr(value, searchType);
}

bool LidarUtilitiesManager::resolveVarPosOffset(const VarInfo& var, int index,
                                                std::pair<int, int>& out) const {
    return catalogue_->resolveVarPosOffset(var, index, out);
}

bool LidarUtilitiesManager::CheckVarExistsInConfigFileByName(QString name) const {
    return catalogue_->hasVariableNamed(name);
}

QString LidarUtilitiesManager::currentValueOf(const VarInfo* var) const {
    return catalogue_->currentValueOf(var);
}

ConfigParser* LidarUtilitiesManager::getCurrentParser() const {
    return catalogue_->parser();
}

std::string LidarUtilitiesManager::getCurrentConfigPath() const {
    return catalogue_->configFilePath();
}
