#pragma once

// What one subsystem of the manager may ask of the others. Each subsystem owns its state and
// its lock; it reaches another only through one of these narrow views, never through the
// façade's fields. docs/architecture.md draws the whole picture.

#include <QString>
#include <memory>
#include <string>

#include "log_level.h"

class AuthorizedVrcClient;
struct VarInfo;
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

// The loaded catalogue's variables, as the transfers find the variable whose command they send.
// The variables a catalogue holds are never freed, so a pointer stays valid.
class VariableLookup {
  public:
    virtual ~VariableLookup() = default;
    virtual bool catalogueLoaded() const = 0;
    // The variable at a position of the module, page and variable tree; null outside it.
    virtual const VarInfo* variableAt(int module, int page, int var) const = 0;
    // The variable of that var_name; null when the catalogue has none.
    virtual const VarInfo* variableNamed(const std::string& name) const = 0;
};

// The restart requests an upgrade sends when its package is through.
class DeviceRestart {
  public:
    virtual ~DeviceRestart() = default;
    // The design's Restart on the network models: 0 when the lidar took it.
    virtual int restartLidar() = 0;
    // The Heron's own restart (0xC2): 0 when the lidar acknowledged it.
    virtual int restartHeron() = 0;
};
