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
