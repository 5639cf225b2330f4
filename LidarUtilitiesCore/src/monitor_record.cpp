// The monitor module read again and again: once a second by the auto-refresh thread while the
// user watches the page, and at the user's interval by the recording thread, which appends each
// reading as a row of a CSV file for the chosen duration.

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTextStream>
#include <chrono>
#include <optional>
#include <set>

#include "command_text.h"
#include "lidar_utilities_manager.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr long kRefreshPeriodMs = 1000;

// The first of start + n x period after now. Readings keep to whole periods from the start, so
// the time a reading takes does not accumulate; slots missed behind a slow reading are skipped,
// not made up in a burst.
Clock::time_point nextSlot(Clock::time_point start, Clock::duration period, Clock::time_point now) {
    const auto passed = (now - start) / period;
    return start + period * (passed + 1);
}

// The variables a record holds: every shown variable of the monitor module, page by page.
std::vector<const VarInfo*> recordedVariables(
    const std::vector<std::vector<std::vector<VarInfo*>>>& tree, int module) {
    std::vector<const VarInfo*> vars;
    if (module < 0 || module >= static_cast<int>(tree.size())) return vars;
    for (const std::vector<VarInfo*>& page : tree[module])
        for (const VarInfo* var : page)
            if (var != nullptr && !var->hidden) vars.push_back(var);
    return vars;
}

}  // namespace

// ---- Settings ----

void LidarUtilitiesManager::refreshMonitor() {
    const int module = monitorModuleIndex.load();
    if (module >= 0) GetLidarModuleInfo(module);
}

bool LidarUtilitiesManager::getMonitorAutoRefresh() const {
    return monitorAutoRefresh.load();
}

void LidarUtilitiesManager::setMonitorAutoRefresh(bool on) {
    if (monitorAutoRefresh.exchange(on) == on) return;
    emit monitorAutoRefreshChanged();
    if (!on) {
        stopMonitorRefreshLoop();
        return;
    }
    if (getIsConnected()) startMonitorRefreshLoop();
}

void LidarUtilitiesManager::setMonitorRecordDurationSec(int seconds) {
    if (monitorRecordDurationSec.exchange(std::max(seconds, 1)) != std::max(seconds, 1))
        emit monitorRecordParamsChanged();
}

void LidarUtilitiesManager::setMonitorRecordIntervalSec(int seconds) {
    if (monitorRecordIntervalSec.exchange(std::max(seconds, 1)) != std::max(seconds, 1))
        emit monitorRecordParamsChanged();
}

// ---- Auto-refresh ----

// Starts the loop when the monitor module exists and no loop runs.
void LidarUtilitiesManager::startMonitorRefreshLoop() {
    if (monitorModuleIndex.load() < 0) return;
    std::lock_guard<std::mutex> lock(threadsMutex_);
    if (monitorRefreshThread) return;
    monitorRefreshRunning.store(true);
    try {
        monitorRefreshThread =
            std::make_unique<std::thread>(&LidarUtilitiesManager::monitorAutoRefreshLoop, this);
    } catch (const std::system_error& e) {
        monitorRefreshRunning.store(false);
        writeLogMessage(std::string("Monitor auto-refresh could not start: ") + e.what(),
                        LogLevel::kError);
    }
}

void LidarUtilitiesManager::stopMonitorRefreshLoop() {
    {
        std::lock_guard<std::mutex> lock(monitorWakeMutex_);
        monitorRefreshRunning.store(false);
    }
    monitorWake_.notify_all();
    joinThread(monitorRefreshThread);
}

void LidarUtilitiesManager::monitorAutoRefreshLoop() {
    const auto start = Clock::now();
    const auto period = std::chrono::milliseconds(kRefreshPeriodMs);
    while (monitorRefreshRunning.load()) {
        // The reading checks the flag between its requests, so switching off does not wait for
        // a whole module from a slow lidar.
        if (getIsConnected() && !isUpgrading.load() && !isDownloadLog.load() &&
            !monitorRecording.load() && monitorModuleIndex.load() >= 0)
            readModuleAndAnnounce(monitorModuleIndex.load(), &monitorRefreshRunning);
        if (!monitorWaitUntil(nextSlot(start, period, Clock::now()), monitorRefreshRunning)) return;
    }
}

// Waits until the time point; false (at once) when the flag is cleared meanwhile.
bool LidarUtilitiesManager::monitorWaitUntil(std::chrono::steady_clock::time_point until,
                                             const std::atomic<bool>& running) {
    std::unique_lock<std::mutex> lock(monitorWakeMutex_);
    monitorWake_.wait_until(lock, until, [&running] { return !running.load(); });
    return running.load();
}

// ---- Recording ----

bool LidarUtilitiesManager::getIsMonitorRecording() const {
    return monitorRecording.load();
}

void LidarUtilitiesManager::startMonitorRecord(QUrl folderUrl) {
    if (monitorRecording.load()) return;
    if (monitorModuleIndex.load() < 0) {
        showErrorMessage("No Monitor module for current model");
        return;
    }
    if (!getIsConnected()) {
        showErrorMessage("Please connect to lidar first");
        return;
    }
    QString folder = folderUrl.toLocalFile();
    if (folder.isEmpty()) folder = folderUrl.toString();
    if (folder.startsWith("file://")) folder = QUrl(folder).toLocalFile();
    if (folder.isEmpty() || !QDir(folder).exists()) {
        showErrorMessage("Invalid record folder");
        return;
    }
    const QString version = getCurrentMonitorHwVersion();
    const QString path =
        QDir(folder).filePath(QString("Monitor_%1_%2.csv")
                                  .arg(version.isEmpty() ? "NA" : version)
                                  .arg(QDateTime::currentDateTime().toString("yyyyMMdd_HHmmss")));
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        monitorRecordPath = path.toStdString();
    }
    monitorRecordRows.store(0);
    {
        std::lock_guard<std::mutex> lock(monitorWakeMutex_);
        monitorRecording.store(true);
    }
    emit isMonitorRecordingChanged();
    joinThread(monitorRecordThread);
    const int interval = monitorRecordIntervalSec.load();
    const int duration = monitorRecordDurationSec.load();
    std::lock_guard<std::mutex> lock(threadsMutex_);
    try {
        monitorRecordThread = std::make_unique<std::thread>(
            &LidarUtilitiesManager::monitorRecordLoop, this, path, interval, duration);
    } catch (const std::system_error& e) {
        monitorRecording.store(false);
        emit isMonitorRecordingChanged();
        showErrorMessage("Failed to create monitor record file");
        writeLogMessage(std::string("Monitor recording could not start: ") + e.what(),
                        LogLevel::kError);
    }
}

void LidarUtilitiesManager::stopMonitorRecord() {
    if (!monitorRecording.load()) return;
    {
        std::lock_guard<std::mutex> lock(monitorWakeMutex_);
        monitorRecording.store(false);
    }
    monitorWake_.notify_all();
    joinThread(monitorRecordThread);
    emit isMonitorRecordingChanged();
}

// Rows fall on start + n × interval (not "interval after the last row"), so the time a reading
// takes does not accumulate; while the lidar is busy a row is skipped and the clock runs on. It
// ends at start + duration, not at the first slot after it.
void LidarUtilitiesManager::monitorRecordLoop(QString path, int interval, int duration) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        monitorRecording.store(false);
        emit isMonitorRecordingChanged();
        showErrorMessage("Failed to create monitor record file");
        return;
    }
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    writeMonitorRecordHeader(stream);
    const auto start = Clock::now();
    // The recording lasts the duration asked for, also when the interval is longer.
    const auto end = start + std::chrono::seconds(duration);
    while (monitorRecording.load() && Clock::now() < end) {
        if (getIsConnected() && !isUpgrading.load() && !isDownloadLog.load()) recordOneRow(stream);
        const auto next = nextSlot(start, std::chrono::seconds(interval), Clock::now());
        if (!monitorWaitUntil(std::min(next, end), monitorRecording)) break;
    }
    file.close();
    monitorRecording.store(false);
    emit isMonitorRecordingChanged();
    showSuccessMessage("Monitor record saved:\n" + path);
}

// One reading, then its row. A reading that could not be made at all (the connection closed
// after a failure) writes no row; a value whose request failed is left empty in its row rather
// than repeating an older reading as this one.
void LidarUtilitiesManager::recordOneRow(QTextStream& stream) {
    const std::optional<std::vector<ReadFailure>> failures =
        readModuleAndAnnounce(monitorModuleIndex.load(), &monitorRecording);
    // Stopped in the middle of a reading: nothing more is written.
    if (!failures || !monitorRecording.load()) return;
    // A failure that closed the connection (the lidar was lost): the reading was not made.
    if (!failures->empty() && !deviceChannelOpen()) return;
    // Keyed by request, not by name: two variables may share a name, not a request.
    std::set<std::string> failedRequests;
    for (const ReadFailure& failure : *failures) failedRequests.insert(failure.request);
    writeMonitorRecordRow(stream, failedRequests);
    stream.flush();
    monitorRecordRows.fetch_add(1);
}

QString LidarUtilitiesManager::getMonitorRecordFilePath() const {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    return QString::fromStdString(monitorRecordPath);
}

std::vector<const VarInfo*> LidarUtilitiesManager::monitorRecordVariables() const {
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    const auto* tree = varTree.load();
    const int module = monitorModuleIndex.load();
    if (!currentParser || !tree || module < 0) return {};
    return recordedVariables(*tree, module);
}

void LidarUtilitiesManager::writeMonitorRecordHeader(QTextStream& stream) {
    if (!currentParser || monitorModuleIndex.load() < 0) return;
    stream << "timestamp";
    for (const VarInfo* var : monitorRecordVariables())
        stream << "," << QString::fromStdString(var->var_name + var->name_suffix);
    stream << "\n";
}

void LidarUtilitiesManager::writeMonitorRecordRow(QTextStream& stream) {
    writeMonitorRecordRow(stream, {});
}

void LidarUtilitiesManager::writeMonitorRecordRow(QTextStream& stream,
                                                  const std::set<std::string>& failedRequests) {
    if (!currentParser || monitorModuleIndex.load() < 0) return;
    stream << QDateTime::currentDateTime().toString("yyyy-MM-dd HH:mm:ss.zzz");
    // One reading's values together: a read on another thread does not slip in between them.
    std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
    for (const VarInfo* var : monitorRecordVariables()) {
        stream << ",";
        if (failedRequests.count(readRequestKey(*var)) == 0)
            stream << QString::fromStdString(var->current_val);
    }
    stream << "\n";
}
