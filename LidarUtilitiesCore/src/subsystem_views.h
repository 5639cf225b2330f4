#pragma once

// What one subsystem of the manager may ask of the others. Each subsystem owns its state and
// its lock; it reaches another only through one of these narrow views, never through the
// façade's fields. docs/architecture.md draws the whole picture.

#include <QString>
#include <memory>
#include <string>

#include "log_level.h"

class AuthorizedVrcClient;
namespace lidar {
class SerialClient;
}

// The current device link: its kind, whether it is up, and its clients. Clients are shared
// pointers: a caller keeps its copy alive for the length of its exchange, whatever Stop does
// meanwhile.
class DeviceLinkView {
  public:
    virtual ~DeviceLinkView() = default;
    // 0 VRC over TCP, 1 the Wren's two serial lines, 2 VRC over a serial line.
    virtual int connectionKind() const = 0;
    virtual bool linkConnected() const = 0;
    // The VRC client of kinds 0 and 2, or null.
    virtual std::shared_ptr<AuthorizedVrcClient> vrcClient() const = 0;
    // The serial client of kind 1, or null.
    virtual std::shared_ptr<lidar::SerialClient> serialClient() const = 0;
    // Ends the connection as the design's Stop does (a restart or reset sent from the console).
    virtual void stopLink() = 0;
};

// Long device operations that leave the link to themselves while they run.
class BusyView {
  public:
    virtual ~BusyView() = default;
    virtual bool upgrading() const = 0;
    virtual bool downloadingLog() const = 0;
};

// The three ways the manager tells: a log line, an error pop-up, a success pop-up.
class UserMessageSink {
  public:
    virtual ~UserMessageSink() = default;
    virtual void log(const std::string& line, LogLevel level) = 0;
    virtual void showError(const QString& text) = 0;
    virtual void showSuccess(const QString& text) = 0;
};

// The byte flow: the log of every frame a client exchanges, which a person switches on.
class ByteFlowLog {
  public:
    virtual ~ByteFlowLog() = default;
    virtual void deviceBytes(const std::string& line) = 0;
    // Off until restoreByteFlow is given the returned state: a liveness probe would fill the log
    // with its own frames.
    virtual bool suspendByteFlow() = 0;
    virtual void restoreByteFlow(bool wasOn) = 0;
};

// What a connect and a disconnect ask of the parts that run over a live link: the page loop of
// the connection kind, the monitor's auto-refresh, the loaded catalogue, and the whole Stop.
class ConnectionSteps {
  public:
    virtual ~ConnectionSteps() = default;
    // Tells the page loop to stop, without waiting for it.
    virtual void askPageLoopToStop() = 0;
    // Tells the page loop to stop and waits until it has ended.
    virtual void endPageLoop() = 0;
    // Starts the page loop of a connection of that kind; throws std::system_error when no
    // thread can be started.
    virtual void startPageLoop(int kind) = 0;
    // A network connection also starts the monitor's auto-refresh when it is switched on.
    virtual void startMonitorAutoRefreshIfOn() = 0;
    // The loaded catalogue's file: its base name is the access profile.
    virtual std::string catalogueFilePath() const = 0;
    // A new network connection announces the variable map afresh.
    virtual void announceVariableMap() = 0;
    // Ends the connection as the design's Stop does: the link, the loops and what they fed.
    virtual void stopConnection() = 0;
};
