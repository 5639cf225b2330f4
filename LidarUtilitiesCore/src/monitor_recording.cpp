// The monitor service's recording (monitor_service.h): the monitor module read at the person's
// interval by the recording thread, which appends each reading as a row of a CSV file for the
// chosen duration.

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTextStream>
#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "lidar_utilities_manager.h"
#include "monitor_service.h"
#include "subsystem_views.h"

// ---- Settings ----

void MonitorService::setRecordDuration(int seconds) {
    if (recordDurationSec_.exchange(std::max(seconds, 1)) != std::max(seconds, 1))
        emit monitorRecordParamsChanged();
}

void MonitorService::setRecordInterval(int seconds) {
    if (recordIntervalSec_.exchange(std::max(seconds, 1)) != std::max(seconds, 1))
        emit monitorRecordParamsChanged();
}

// ---- Starting and stopping ----

// The record file in the folder a person chose (a URL or a plain path); empty, after the
// message, when there is no such folder.
QString MonitorService::recordPathIn(const QUrl& folderUrl) const {
    QString folder = folderUrl.toLocalFile();
    if (folder.isEmpty()) folder = folderUrl.toString();
    if (folder.startsWith("file://")) folder = QUrl(folder).toLocalFile();
    if (folder.isEmpty() || !QDir(folder).exists()) {
        messages_.showError("Invalid record folder");
        return QString();
    }
    const QString version = currentVariant();
    return QDir(folder).filePath(
        QString("Monitor_%1_%2.csv")
            .arg(version.isEmpty() ? "NA" : version)
            .arg(QDateTime::currentDateTime().toString("yyyyMMdd_HHmmss")));
}

void MonitorService::startRecording(const QUrl& folderUrl) {
    if (recording_.load()) return;
    if (moduleIndex_.load() < 0) {
        messages_.showError("No Monitor module for current model");
        return;
    }
    if (!link_.linkConnected()) {
        messages_.showError("Please connect to lidar first");
        return;
    }
    const QString path = recordPathIn(folderUrl);
    if (path.isEmpty()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        recordPath_ = path.toStdString();
    }
    recordRows_.store(0);
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        recording_.store(true);
    }
    emit isMonitorRecordingChanged();
    joinThread(recordThread_);
    const int interval = recordIntervalSec_.load();
    const int duration = recordDurationSec_.load();
    std::string failure;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        try {
            recordThread_ = std::make_unique<std::thread>(&MonitorService::recordLoop, this, path,
                                                          interval, duration);
        } catch (const std::system_error& e) {
            recording_.store(false);
            failure = e.what();
        }
    }
    if (failure.empty()) return;
    emit isMonitorRecordingChanged();
    messages_.showError("Failed to create monitor record file");
    messages_.log("Monitor recording could not start: " + failure, LogLevel::kError);
}

void MonitorService::stopRecording() {
    if (!recording_.load()) return;
    {
        std::lock_guard<std::mutex> lock(wakeMutex_);
        recording_.store(false);
    }
    wake_.notify_all();
    joinThread(recordThread_);
    emit isMonitorRecordingChanged();
}

// ---- The recording thread ----

// Rows fall on start + n × interval (not "interval after the last row"), so the time a reading
// takes does not accumulate; while the lidar is busy a row is skipped and the clock runs on. It
// ends at start + duration, not at the first slot after it.
void MonitorService::recordLoop(const QString& path, int interval, int duration) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        recording_.store(false);
        emit isMonitorRecordingChanged();
        messages_.showError("Failed to create monitor record file");
        return;
    }
    QTextStream stream(&file);
    stream.setCodec("UTF-8");
    writeRecordHeader(stream);
    const auto start = Clock::now();
    // The recording lasts the duration asked for, also when the interval is longer.
    const auto end = start + std::chrono::seconds(duration);
    while (recording_.load() && Clock::now() < end) {
        if (link_.linkConnected() && !busy_.upgrading() && !busy_.downloadingLog())
            recordOneRow(stream);
        const auto next = nextSlot(start, std::chrono::seconds(interval), Clock::now());
        if (!waitUntil(std::min(next, end), recording_)) break;
    }
    file.close();
    endRecording(path);
}

void MonitorService::endRecording(const QString& path) {
    recording_.store(false);
    emit isMonitorRecordingChanged();
    messages_.showSuccess("Monitor record saved:\n" + path);
}

// One reading, then its row. A reading that could not be made at all (the connection closed
// after a failure) writes no row; a value whose request failed is left empty in its row rather
// than repeating an older reading as this one.
void MonitorService::recordOneRow(QTextStream& stream) {
    const std::optional<std::set<std::string>> failures = readAndAnnounce(&recording_);
    // Stopped in the middle of a reading: nothing more is written.
    if (!failures) return;
    // A failure that closed the connection (the lidar was lost): the reading was not made.
    if (!failures->empty() && !reading_.deviceChannelOpen()) return;
    writeRecordRow(stream, *failures);
    stream.flush();
    recordRows_.fetch_add(1);
}

QString MonitorService::recordFilePath() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(recordPath_);
}

// ---- The record file ----

// The labels of the header, under one lock: a variant swapped in meanwhile gives all or none.
std::optional<QStringList> MonitorService::shownLabels() const {
    const std::optional<std::vector<ShownValue>> values = reading_.shownValues(moduleIndex_.load());
    if (!values) return std::nullopt;
    QStringList labels;
    for (const ShownValue& value : *values) labels << QString::fromStdString(value.name);
    return labels;
}

// One reading's values together: a read on another thread does not slip in between them.
std::optional<QStringList> MonitorService::shownTexts(
    const std::set<std::string>& failedRequests) const {
    const std::optional<std::vector<ShownValue>> values = reading_.shownValues(moduleIndex_.load());
    if (!values) return std::nullopt;
    QStringList texts;
    for (const ShownValue& value : *values)
        texts << (failedRequests.count(value.request) == 0 ? QString::fromStdString(value.text)
                                                           : QString());
    return texts;
}

void MonitorService::writeRecordHeader(QTextStream& stream) {
    const std::optional<QStringList> labels = shownLabels();
    if (!labels) return;
    stream << "timestamp";
    for (const QString& label : *labels) stream << "," << label;
    stream << "\n";
}

void MonitorService::writeRecordRow(QTextStream& stream,
                                    const std::set<std::string>& failedRequests) {
    const QString time = QDateTime::currentDateTime().toString("yyyy-MM-dd HH:mm:ss.zzz");
    const std::optional<QStringList> texts = shownTexts(failedRequests);
    if (!texts) return;
    stream << time;
    for (const QString& text : *texts) stream << "," << text;
    stream << "\n";
}

QStringList MonitorService::recordLabels() const {
    return shownLabels().value_or(QStringList());
}

QStringList MonitorService::recordValues(const std::set<std::string>& failedRequests) const {
    return shownTexts(failedRequests).value_or(QStringList());
}

// ---- The façade's monitor recording operations ----

void LidarUtilitiesManager::setMonitorRecordDurationSec(int seconds) {
    monitor_->setRecordDuration(seconds);
}

void LidarUtilitiesManager::setMonitorRecordIntervalSec(int seconds) {
    monitor_->setRecordInterval(seconds);
}

int LidarUtilitiesManager::getMonitorRecordDurationSec() const {
    return monitor_->recordDuration();
}

int LidarUtilitiesManager::getMonitorRecordIntervalSec() const {
    return monitor_->recordInterval();
}

bool LidarUtilitiesManager::getIsMonitorRecording() const {
    return monitor_->recording();
}

void LidarUtilitiesManager::startMonitorRecord(QUrl folder) {
    monitor_->startRecording(folder);
}

void LidarUtilitiesManager::stopMonitorRecord() {
    monitor_->stopRecording();
}

void LidarUtilitiesManager::monitorRecordLoop(QString path, int interval, int duration) {
    monitor_->recordLoop(path, interval, duration);
}

void LidarUtilitiesManager::writeMonitorRecordHeader(QTextStream& stream) {
    monitor_->writeRecordHeader(stream);
}

void LidarUtilitiesManager::writeMonitorRecordRow(QTextStream& stream) {
    monitor_->writeRecordRow(stream, {});
}

QString LidarUtilitiesManager::getMonitorRecordFilePath() const {
    return monitor_->recordFilePath();
}

int LidarUtilitiesManager::getMonitorRecordRowCount() const {
    return monitor_->recordRowCount();
}

QStringList LidarUtilitiesManager::getMonitorColumns() const {
    return monitor_->recordLabels();
}

QStringList LidarUtilitiesManager::getMonitorReading() const {
    std::set<std::string> failed;
    for (const ReadFailure& failure : getLastModuleReadFailures()) failed.insert(failure.request);
    return monitor_->recordValues(failed);
}
