#pragma once

// The log downloads: a device log saved as one binary file, and the operation log, four logs
// packed into one tar archive by the system's tar. Each runs on a worker that marks the manager
// busy (isDownloadLog) from its first step to its finished signal.
//
// Threads: the UI thread starts a download, a worker runs it. The flag is an atomic; the
// operation log's part results are kept under mutex_; the signals are emitted outside it.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <atomic>
#include <mutex>
#include <vector>

#include "sdk/types.h"
#include "worker_threads.h"

class BusyView;
class DeviceLinkView;
class UserMessageSink;
class VariableLookup;

class LogDownload : public QObject {
    Q_OBJECT

  public:
    LogDownload(const DeviceLinkView& link, const BusyView& busy, UserMessageSink& messages,
                const VariableLookup& catalogue);

    // Start the worker when the lidar is connected and idle; -1 otherwise.
    int startDeviceLog(const QUrl& folder, const QString& name);
    int startOperationLog(const QUrl& archive);
    // The workers' bodies.
    void downloadDeviceLog(const QUrl& folder, const QString& name);
    void downloadOperationLog(const QUrl& archive);

    bool downloading() const { return downloading_.load(); }
    // Sets the flag; its signal when it changed.
    void setDownloading(bool downloading);
    std::vector<int> lastOperationLogResults() const;
    // The file the latest device-log download wrote whole; "" while one runs, or when it wrote
    // none.
    QString lastDeviceLogFile() const;
    // Where the operation log's parts wait for tar, and stay when the download fails.
    static QString workFolder();
    // Waits for the log workers started so far.
    void waitForWorkers() { workers_.joinAll(); }

  signals:
    void isDownloadLogChanged();
    void downloadFinished();
    void downloadOperationLogFinished(bool ok);

  private:
    bool deviceIsIdle() const;
    int startWorker(std::function<void()> job);
    void deviceLogOutcome(const QString& name, int result, int lastCode, const QString& path,
                          const u8Array_t& reply);
    void setLastOperationLogResults(std::vector<int> results);
    void setLastDeviceLogFile(const QString& path);
    static bool runTar(const QString& workFolder, const QString& archivePath,
                       const QStringList& names);

    const DeviceLinkView& link_;
    const BusyView& busy_;
    UserMessageSink& messages_;
    const VariableLookup& catalogue_;

    std::atomic<bool> downloading_{false};
    mutable std::mutex mutex_;
    // The four results of the latest operation-log download, in part order; under mutex_.
    std::vector<int> lastOperationLogResults_;
    // The latest device log's file; under mutex_.
    QString lastDeviceLogFile_;
    // Last: joined before the state the workers use is destroyed.
    WorkerThreads workers_;
};
