// The façade's model loading: selecting and pinning a model takes steps of several parts (the
// link's kind and settings, the monitor's variants, the catalogue, the page lists), in the
// design's order; and two text helpers the design keeps on the manager.

#include "device_link.h"
#include "lidar_utilities_manager.h"
#include "monitor_service.h"
#include "page_reader.h"
#include "parameter_catalogue.h"
#include "sdk/feature_config_parser.h"

namespace {

const char* const kFeatureConfigPath = "./Config/feature_config.csv";

}  // namespace

// ---- Model pinning and loading: the steps of several parts ----

void LidarUtilitiesManager::InitZPModule(QString model) {
    if (model.isEmpty()) return;
    if (!getLidarModelList().contains(model)) return;
    InitConfigFileParser(model);
    catalogue_->pinModel(model.toStdString());
    emit lidarModelListChanged();
}

int LidarUtilitiesManager::connectTypeOfModel(QString model) const {
    const std::string modelName = model.toStdString();
    if (modelName == Wren_Str) return kSerialLinesKind;
    if (modelName == Wren_VRC_Str || modelName == Heron_VRC_Str) return kVrcOverSerialKind;
    return kNetworkKind;
}

void LidarUtilitiesManager::InitConfigFileParser(QString model) {
    const std::string modelName = model.toStdString();
    link_->setConnectionKind(connectTypeOfModel(model));

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

    if (getConnectType() != kNetworkKind) {
        catalogue_->buildSerialVarIndexes();
        emit wrenLidarInfoChanged();
    }

    emit connectTypeChanged();
    reader_->rebuildUiListCache();
    reader_->rebuildMyMapCache();
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
