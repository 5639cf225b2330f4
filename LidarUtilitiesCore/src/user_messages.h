#pragma once

// The three ways the manager tells a person something: a log line (with its level), an error
// pop-up and a success pop-up; and the byte flow, the log of every frame a VRC client exchanges,
// which a person switches on.
//
// Threads: any thread may tell; the pop-up texts are kept under this object's lock and its
// signals are emitted outside it, on the telling thread.

#include <QObject>
#include <QString>
#include <atomic>
#include <mutex>
#include <string>

#include "subsystem_views.h"

class UserMessages : public QObject, public UserMessageSink, public ByteFlowLog {
    Q_OBJECT

  public:
    UserMessages(const DeviceLinkView& link, const BusyView& busy);

    void log(const std::string& line, LogLevel level) override;
    // A line with the design's level text as it is ("INFO", "ERROR", ...).
    void logWithLevelText(const std::string& line, const std::string& level);
    void showError(const QString& text) override;
    void showSuccess(const QString& text) override;
    // As the UI sets them: an empty text clears the pop-up without a notification.
    void setError(const QString& text);
    void setSuccess(const QString& text);
    QString error() const;
    QString success() const;

    void setByteFlow(bool on) { byteFlow_.store(on); }
    // Switches the byte flow off until the returned state is given back to restoreByteFlow:
    // a liveness probe would fill the log with its own frames.
    bool suspendByteFlow() override { return byteFlow_.exchange(false); }
    void restoreByteFlow(bool wasOn) override {
        if (wasOn) byteFlow_.store(true);
    }
    // One frame line of a VRC client: a BYTES line while the byte flow is on, except during an
    // upgrade over VRC (its data frames would flood the log) and a log download.
    void deviceBytes(const std::string& line) override;

  signals:
    void logLine(QString message, QString level);
    void errorChanged();
    void successChanged();

  private:
    const DeviceLinkView& link_;
    const BusyView& busy_;
    mutable std::mutex mutex_;
    QString error_;    // under mutex_
    QString success_;  // under mutex_
    std::atomic<bool> byteFlow_{false};
};
