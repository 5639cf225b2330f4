// The monitor module: hardware-version variants Monitor_<version>_<number>.csv of a model, and
// swapping the chosen variant's pages into the loaded catalogue's "Monitor" module.

#include <QDir>
#include <QFileInfo>
#include <algorithm>

#include "lidar_utilities_manager.h"

namespace {

// Parses "Monitor_<label>_<number>.csv" into a variant; false for names that do not follow it.
bool parseVariantFileName(const QString& fileName, MonitorHwVersionInfo& out) {
    QString name = fileName;
    if (name.endsWith(".csv", Qt::CaseInsensitive)) name.chop(4);
    const QString prefix = "Monitor_";
    if (!name.startsWith(prefix)) return false;
    const QString rest = name.mid(prefix.size());
    const int underscore = rest.lastIndexOf('_');
    if (underscore < 1 || underscore >= rest.size() - 1) return false;
    bool ok = false;
    const int number = rest.mid(underscore + 1).toInt(&ok, 10);
    const QString label = rest.left(underscore);
    if (!ok || label.isEmpty()) return false;
    out.version = label;
    out.number = number;
    return true;
}

}  // namespace

int LidarUtilitiesManager::findMonitorModuleIndex() const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    if (!currentParser || !moduleNames) return -1;
    for (size_t i = 0; i < moduleNames.load()->size(); ++i) {
        const auto& names = (*moduleNames)[i];
        if (!names.empty() && names.front() == "Monitor") return static_cast<int>(i);
    }
    return -1;
}

void LidarUtilitiesManager::scanMonitorHwVersions() {
    const int moduleIndex = findMonitorModuleIndex();
    {
        std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
        monitorParser = nullptr;
    }
    monitorModuleIndex.store(moduleIndex);
    QList<MonitorHwVersionInfo> found;
    const QString model = QString::fromStdString(getSelectLidarModel());
    const QString dir = resolveModelDirPath(model);
    if (!dir.isEmpty() && moduleIndex >= 0) {
        const QStringList files =
            QDir(dir).entryList(QStringList{"Monitor_*.csv"}, QDir::Files, QDir::NoSort);
        for (const QString& file : files) {
            MonitorHwVersionInfo info;
            if (!parseVariantFileName(file, info)) continue;
            info.path = "./Config/varID/" + model + "/" + file;
            found.append(info);
        }
        std::stable_sort(found.begin(), found.end(),
                         [](const MonitorHwVersionInfo& a, const MonitorHwVersionInfo& b) {
                             return a.number > b.number;
                         });
    }
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        monitorHwVersions = found;
        currentMonitorHwVersion.clear();
    }
    emit monitorHwVersionListChanged();
    emit currentMonitorHwVersionChanged();
}

bool LidarUtilitiesManager::applyMonitorHwVersion(const QString& version, bool withSignals) {
    const int moduleIndex = monitorModuleIndex.load();
    if (moduleIndex < 0 || !currentParser) return false;
    QString path;
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        for (const MonitorHwVersionInfo& info : monitorHwVersions) {
            if (info.version == version) {
                path = info.path;
                break;
            }
        }
    }
    if (path.isEmpty()) return false;
    {
        std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
        const std::string key = path.toStdString();
        auto cached = parserCache.find(key);
        if (cached == parserCache.end()) {
            cached = parserCache.emplace(key, ConfigParser(key)).first;
            if (!cached->second.ExtractConfigInfo()) {
                parserCache.erase(cached);
                monitorParser = nullptr;
                return false;
            }
        }
        ConfigParser& variant = cached->second;
        if (variant.varTree.empty()) return false;
        if (!varTree || moduleIndex >= static_cast<int>(varTree.load()->size())) return false;
        (*varTree)[moduleIndex] = variant.varTree.front();
        // The page names go with the pages: the module keeps its own name, the pages are the
        // variant's.
        if (moduleNames && moduleIndex < static_cast<int>(moduleNames.load()->size()) &&
            !variant.moduleNames.empty()) {
            std::vector<std::string>& names = (*moduleNames)[moduleIndex];
            const std::string module = names.empty() ? std::string("Monitor") : names.front();
            names = variant.moduleNames.front();
            names.front() = module;
        }
        monitorParser = &variant;
    }
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        currentMonitorHwVersion = version;
    }
    rebuildUiListCache();
    emit currentMonitorHwVersionChanged();
    if (withSignals) {
        monitorContentRevision.fetch_add(1);
        emit monitorContentChanged();
        notifyMyMapChanged();
    }
    return true;
}

void LidarUtilitiesManager::selectMonitorHwVersion(QString version) {
    // The recording's header names the variables of the variant it started with.
    if (monitorRecording.load()) {
        showErrorMessage("Stop recording before switching hardware version");
        return;
    }
    if (!applyMonitorHwVersion(version, true)) {
        showErrorMessage("Failed to load monitor config for version " + version);
        return;
    }
    if (getIsConnected()) refreshMonitor();
}

QStringList LidarUtilitiesManager::getMonitorHwVersionList() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    QStringList labels;
    for (const MonitorHwVersionInfo& info : monitorHwVersions) labels.append(info.version);
    return labels;
}

QString LidarUtilitiesManager::getCurrentMonitorHwVersion() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return currentMonitorHwVersion;
}
