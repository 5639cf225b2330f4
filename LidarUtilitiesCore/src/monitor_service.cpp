// The monitor service (monitor_service.h): the hardware-version variants
// Monitor_<version>_<number>.csv of a model, swapped into the loaded catalogue's "Monitor"
// module, and the module's auto-refresh. The recording is in monitor_recording.cpp.

#include "monitor_service.h"

#include <QDir>
#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "lidar_utilities_manager.h"
#include "subsystem_views.h"

namespace {

constexpr long kRefreshPeriodMs = 1000;
const char* const kMonitorModuleName = "Monitor";

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

MonitorService::MonitorService(const DeviceLinkView& link, const BusyView& busy,
                               ModuleCatalogueView& catalogue, ModuleReadingView& reading,
                               UserMessageSink& messages)
    : link_(link), busy_(busy), catalogue_(catalogue), reading_(reading), messages_(messages) {}

// ---- Variants ----

int MonitorService::findModuleIndex() const {
    return catalogue_.moduleIndexNamed(kMonitorModuleName);
}

void MonitorService::scanVariants() {
    const int moduleIndex = findModuleIndex();
    catalogue_.forgetModuleVariant();
    moduleIndex_.store(moduleIndex);
    QList<MonitorHwVersionInfo> found;
    const QString model = QString::fromStdString(link_.selectedModel());
    const QString dir = catalogue_.modelFolder(model);
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
        std::lock_guard<std::mutex> lock(mutex_);
        variants_ = found;
        currentVariant_.clear();
    }
    emit monitorHwVersionListChanged();
    emit currentMonitorHwVersionChanged();
}

bool MonitorService::applyVariant(const QString& version, bool withSignals) {
    const int moduleIndex = moduleIndex_.load();
    if (moduleIndex < 0) return false;
    QString path;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const MonitorHwVersionInfo& info : variants_) {
            if (info.version == version) {
                path = info.path;
                break;
            }
        }
    }
    if (path.isEmpty() || !catalogue_.swapInModuleVariant(moduleIndex, path.toStdString()))
        return false;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        currentVariant_ = version;
    }
    reading_.rebuildPageLists();
    emit currentMonitorHwVersionChanged();
    if (withSignals) {
        contentRevision_.fetch_add(1);
        emit monitorContentChanged();
        reading_.announceValues();
    }
    return true;
}

void MonitorService::selectVariant(const QString& version) {
    // The recording's header names the variables of the variant it started with.
    if (recording_.load()) {
        messages_.showError("Stop recording before switching hardware version");
        return;
    }
    if (!applyVariant(version, true)) {
        messages_.showError("Failed to load monitor config for version " + version);
        return;
    }
    if (link_.linkConnected()) refresh();
}

void MonitorService::useLoadedModel() {
    scanVariants();
    const QStringList versions = variantLabels();
    if (!versions.isEmpty()) {
        applyVariant(versions.first(), false);
        return;
    }
    moduleIndex_.store(findModuleIndex());
    {
        std::lock_guard<std::mutex> lock(mutex_);
        currentVariant_.clear();
    }
    emit currentMonitorHwVersionChanged();
    emit monitorHwVersionListChanged();
}

QStringList MonitorService::variantLabels() const {
    std::lock_guard<std::mutex> lock(mutex_);
    QStringList labels;
    for (const MonitorHwVersionInfo& info : variants_) labels.append(info.version);
    return labels;
}

QString MonitorService::currentVariant() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return currentVariant_;
}

// ---- Auto-refresh ----

void MonitorService::refresh() {
    readAndAnnounce(nullptr);
}

std::optional<std::set<std::string>> MonitorService::readAndAnnounce(
    const std::atomic<bool>* keepGoing) {
    const int module = moduleIndex_.load();
    if (module < 0) return std::nullopt;
    const std::optional<std::vector<std::string>> failures = reading_.readModule(module, keepGoing);
    // A reading cut short by its switch is no reading: its values are partly the previous ones.
    if (!failures || (keepGoing != nullptr && !keepGoing->load())) return std::nullopt;
    // Keyed by request, not by name: two variables may share a name, not a request.
    std::set<std::string> failed(failures->begin(), failures->end());
    announceReading(module, failed);
    return failed;
}

// Labels and values from one look under the catalogue's lock: a variant swapped in meanwhile
// gives all of the one or all of the other.
void MonitorService::announceReading(int module, const std::set<std::string>& failedRequests) {
    const std::optional<std::vector<ShownValue>> shown = reading_.shownValues(module);
    if (!shown) return;
    QStringList columns;
    QStringList values;
    for (const ShownValue& value : *shown) {
        columns << QString::fromStdString(value.name);
        values << (failedRequests.count(value.request) == 0 ? QString::fromStdString(value.text)
                                                            : QString());
    }
    emit monitorReadingTaken(columns, values);
}

void MonitorService::setAutoRefresh(bool on) {
    if (autoRefresh_.exchange(on) == on) return;
    emit monitorAutoRefreshChanged();
    if (!on) {
        stopRefreshLoop();
        return;
    }
    if (link_.linkConnected()) startRefreshLoop();
}

void MonitorService::startRefreshLoop() {
    if (moduleIndex_.load() < 0) return;
    std::string failure;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (refreshThread_) return;
        refreshRunning_.store(true);
        try {
            refreshThread_ = std::make_unique<std::thread>(&MonitorService::refreshLoop, this);
        } catch (const std::system_error& e) {
            refreshRunning_.store(false);
            failure = e.what();
        }
    }
    if (!failure.empty())
        messages_.log("Monitor auto-refresh could not start: " + failure, LogLevel::kError);
}

void MonitorService::stopRefreshLoop() {
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        refreshRunning_.store(false);
    }
    wake_.notify_all();
    joinThread(refreshThread_);
}

void MonitorService::refreshLoop() {
    const auto start = Clock::now();
    const auto period = std::chrono::milliseconds(kRefreshPeriodMs);
    while (refreshRunning_.load()) {
        // The reading checks the flag between its requests, so switching off does not wait for
        // a whole module from a slow lidar.
        if (link_.linkConnected() && !busy_.upgrading() && !busy_.downloadingLog() &&
            !recording_.load())
            readAndAnnounce(&refreshRunning_);
        if (!waitUntil(nextSlot(start, period, Clock::now()), refreshRunning_)) return;
    }
}

bool MonitorService::refreshThreadExists() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refreshThread_ != nullptr;
}

// ---- Both threads ----

// Readings keep to whole periods from the start, so the time a reading takes does not
// accumulate; slots missed behind a slow reading are skipped, not made up in a burst.
MonitorService::Clock::time_point MonitorService::nextSlot(Clock::time_point start,
                                                           Clock::duration period,
                                                           Clock::time_point now) {
    const auto passed = (now - start) / period;
    return start + period * (passed + 1);
}

bool MonitorService::waitUntil(Clock::time_point until, const std::atomic<bool>& running) {
    std::unique_lock<std::mutex> lock(wakeMutex_);
    wake_.wait_until(lock, until, [&running] { return !running.load(); });
    return running.load();
}

// Clears both flags and wakes the threads' waits, so that they end within moments.
void MonitorService::clearFlags() {
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        refreshRunning_.store(false);
        recording_.store(false);
    }
    wake_.notify_all();
}

void MonitorService::joinThread(std::unique_ptr<std::thread>& thread) {
    std::unique_ptr<std::thread> owned;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        owned = std::move(thread);
    }
    if (owned && owned->joinable()) owned->join();
}

void MonitorService::stopThreads() {
    clearFlags();
    joinThread(refreshThread_);
    joinThread(recordThread_);
}

// ---- The façade's monitor variant and auto-refresh operations ----

int LidarUtilitiesManager::findMonitorModuleIndex() const {
    return monitor_->findModuleIndex();
}

void LidarUtilitiesManager::scanMonitorHwVersions() {
    monitor_->scanVariants();
}

bool LidarUtilitiesManager::applyMonitorHwVersion(const QString& version, bool withSignals) {
    return monitor_->applyVariant(version, withSignals);
}

void LidarUtilitiesManager::selectMonitorHwVersion(QString version) {
    monitor_->selectVariant(version);
}

QStringList LidarUtilitiesManager::getMonitorHwVersionList() const {
    return monitor_->variantLabels();
}

QString LidarUtilitiesManager::getCurrentMonitorHwVersion() const {
    return monitor_->currentVariant();
}

int LidarUtilitiesManager::getMonitorModuleIndex() const {
    return monitor_->moduleIndex();
}

int LidarUtilitiesManager::getMonitorContentRevision() const {
    return monitor_->contentRevision();
}

void LidarUtilitiesManager::setModuleIndexUse(int module) {
    monitor_->setModuleInUse(module);
}

int LidarUtilitiesManager::getModuleIndexUse() const {
    return monitor_->moduleInUse();
}

void LidarUtilitiesManager::refreshMonitor() {
    monitor_->refresh();
}

bool LidarUtilitiesManager::getMonitorAutoRefresh() const {
    return monitor_->autoRefresh();
}

void LidarUtilitiesManager::setMonitorAutoRefresh(bool on) {
    monitor_->setAutoRefresh(on);
}

void LidarUtilitiesManager::monitorAutoRefreshLoop() {
    monitor_->refreshLoop();
}

void LidarUtilitiesManager::startMonitorRefreshLoop() {
    monitor_->startRefreshLoop();
}
