#pragma once

// The monitor module (the catalogue module named "Monitor"): its hardware variants, its
// auto-refresh (the module read once a second while a person watches it) and its recording (a
// reading at every interval, appended as a row of a CSV file).
//
// Threads: the UI thread (or one other thread) calls the operations; the auto-refresh and the
// recording run on threads of their own, which this object starts and joins. The variant list,
// the applied variant, the recording's path and the thread handles are kept under the service's
// lock; the switches, indexes and counters are atomics. Signals are emitted outside the lock, on
// the thread that changed the state.

#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "records.h"

class DeviceLinkView;
class BusyView;
class UserMessageSink;
class ModuleCatalogueView;
class ModuleReadingView;
class QTextStream;

class MonitorService : public QObject {
    Q_OBJECT

  public:
    MonitorService(const DeviceLinkView& link, const BusyView& busy, ModuleCatalogueView& catalogue,
                   ModuleReadingView& reading, UserMessageSink& messages);

    // ---- Variants (monitor_service.cpp) ----
    // The index of the loaded catalogue's monitor module; -1 without one.
    int findModuleIndex() const;
    // Lists the loaded model's variant files, highest number first; none is applied.
    void scanVariants();
    // Swaps the variant's pages into the monitor module; false when it cannot be.
    bool applyVariant(const QString& version, bool withSignals);
    // As a person chooses one: refused while recording; read at once when connected.
    void selectVariant(const QString& version);
    // After a model load: the variants listed and the first applied silently, or without one
    // the catalogue's own monitor page.
    void useLoadedModel();
    QStringList variantLabels() const;
    QString currentVariant() const;
    int moduleIndex() const { return moduleIndex_.load(); }
    int contentRevision() const { return contentRevision_.load(); }
    // The module the UI shows, whose timer variables the page loop refreshes.
    void setModuleInUse(int module) { moduleInUse_.store(module); }
    int moduleInUse() const { return moduleInUse_.load(); }

    // ---- Auto-refresh (monitor_service.cpp) ----
    // One reading of the monitor module, announced with monitorReadingTaken.
    void refresh();
    bool autoRefresh() const { return autoRefresh_.load(); }
    void setAutoRefresh(bool on);
    // Starts the loop when the monitor module exists and no loop runs.
    void startRefreshLoop();
    void stopRefreshLoop();
    void refreshLoop();
    bool refreshThreadExists() const;

    // ---- Recording (monitor_recording.cpp) ----
    void setRecordDuration(int seconds);
    void setRecordInterval(int seconds);
    int recordDuration() const { return recordDurationSec_.load(); }
    int recordInterval() const { return recordIntervalSec_.load(); }
    bool recording() const { return recording_.load(); }
    void startRecording(const QUrl& folder);
    void stopRecording();
    void recordLoop(const QString& path, int interval, int duration);
    void writeRecordHeader(QTextStream& stream);
    // A row after a reading: the variables read by one of `failedRequests` (read request keys)
    // are left empty rather than repeating an older value as this reading's.
    void writeRecordRow(QTextStream& stream, const std::set<std::string>& failedRequests);
    QString recordFilePath() const;
    int recordRowCount() const { return recordRows_.load(); }
    // A record's columns without its timestamp, for a live view that shows what a recording
    // would write: the header's labels, and a row's values (empty for `failedRequests`). Empty
    // without a monitor module.
    QStringList recordLabels() const;
    QStringList recordValues(const std::set<std::string>& failedRequests) const;

    // Clears both threads' flags, wakes their waits and joins them: what Stop and the
    // destructor do, so that no reading runs after they return.
    void stopThreads();

  signals:
    void monitorHwVersionListChanged();
    void currentMonitorHwVersionChanged();
    void monitorContentChanged();
    void monitorAutoRefreshChanged();
    void monitorRecordParamsChanged();
    void isMonitorRecordingChanged();
    // One reading of the monitor module (the auto-refresh's, a recording's or a single refresh):
    // the record's column labels and the values it brought, those whose request failed left
    // empty. A read of the same variables by anything else is not announced here.
    void monitorReadingTaken(QStringList columns, QStringList values);

  private:
    using Clock = std::chrono::steady_clock;
    // The first of start + n x period after now.
    static Clock::time_point nextSlot(Clock::time_point start, Clock::duration period,
                                      Clock::time_point now);
    // Waits until the time point; false (at once) when the flag is cleared meanwhile.
    bool waitUntil(Clock::time_point until, const std::atomic<bool>& running);
    void clearFlags();
    void joinThread(std::unique_ptr<std::thread>& thread);
    QString recordPathIn(const QUrl& folderUrl) const;
    void recordOneRow(QTextStream& stream);
    std::optional<QStringList> shownLabels() const;
    std::optional<QStringList> shownTexts(const std::set<std::string>& failedRequests) const;
    void endRecording(const QString& path);
    // Reads the module; nullopt when no reading could be made or `keepGoing` was cleared during
    // it. Otherwise the requests that failed, after the reading was announced.
    std::optional<std::set<std::string>> readAndAnnounce(const std::atomic<bool>* keepGoing);
    void announceReading(int module, const std::set<std::string>& failedRequests);

    const DeviceLinkView& link_;
    const BusyView& busy_;
    ModuleCatalogueView& catalogue_;
    ModuleReadingView& reading_;
    UserMessageSink& messages_;

    mutable std::mutex mutex_;
    QList<MonitorHwVersionInfo> variants_;  // under mutex_
    QString currentVariant_;                // under mutex_
    // Under mutex_; a std::string, so that no text data is shared with the recording thread's
    // copy of the path (Qt's shared texts are freed inside the uninstrumented library).
    std::string recordPath_;
    std::unique_ptr<std::thread> refreshThread_;  // under mutex_, joined outside it
    std::unique_ptr<std::thread> recordThread_;   // under mutex_, joined outside it

    std::atomic<int32_t> moduleIndex_{-1};
    std::atomic<int32_t> contentRevision_{0};
    std::atomic<int32_t> moduleInUse_{0};
    std::atomic<bool> autoRefresh_{true};
    std::atomic<int32_t> recordDurationSec_{60};
    std::atomic<int32_t> recordIntervalSec_{1};
    std::atomic<int32_t> recordRows_{0};
    std::atomic<bool> refreshRunning_{false};
    std::atomic<bool> recording_{false};

    // Wakes the threads' waits when their flag is cleared; the flags are cleared under it, so
    // that a thread between its check and its wait cannot miss the notification.
    std::mutex wakeMutex_;
    std::condition_variable wake_;
};
