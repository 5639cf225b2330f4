#pragma once

// What one subsystem of the manager may ask of the others. Each subsystem owns its state and
// its lock; it reaches another only through one of these narrow views, never through the
// façade's fields. docs/architecture.md draws the whole picture.

#include <QString>
#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "log_level.h"
#include "sdk/types.h"

class AuthorizedVrcClient;
struct VarInfo;
namespace lidar {
class SerialClient;
}
struct VarInfo;

// The connection kinds, as getConnectType numbers them.
constexpr int kNetworkKind = 0;
constexpr int kSerialLinesKind = 1;
constexpr int kVrcOverSerialKind = 2;

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
    // The model selected last (its catalogue is the loaded one); empty before any.
    virtual std::string selectedModel() const = 0;
    // Connected, the VRC client open, no upgrade or log download.
    virtual bool deviceIsIdle() const = 0;
    // A request of the catalogue over the kind's client (the VRC client on kinds 0 and 2, the
    // serial client on kind 1): the reply's payload. A client result code.
    virtual int queryDevice(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) = 0;
    // The kind's client exists and is open.
    virtual bool deviceChannelOpen() const = 0;
    // Ends the connection as the design's Stop does (a restart or reset sent from the console).
    virtual void stopLink() = 0;
};

// The rate of the lidar's point-cloud line, which every VRC-over-serial connect sends first.
class PointCloudRateSetting {
  public:
    virtual ~PointCloudRateSetting() = default;
    // The rate the lidar took: kept in memory and in the settings file, so that the next session
    // does not set the lidar back to the old one.
    virtual void keepPointCloudBaudRate(uint32_t rate) = 0;
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

// The loaded catalogue as the edit staging edits and applies it. A variable pointer stays valid
// for the manager's life: parsers are never freed.
class CatalogueEditView {
  public:
    using VarGroups = std::vector<std::vector<VarInfo*>>;
    using BytesByName = std::unordered_map<std::string, std::vector<uint8_t>>;

    virtual ~CatalogueEditView() = default;
    virtual bool catalogueLoaded() const = 0;
    // The variable at a row of the tree, or null: no model, or a position outside the tree.
    virtual VarInfo* variableAt(int page, int group, int row) const = 0;
    // The variable groups of a level-1 page; nullopt without a model or outside the tree.
    virtual std::optional<VarGroups> pageGroups(int page) const = 0;
    // Every variable the set command carries, in payload order.
    virtual std::vector<VarInfo*> variablesOfSetCommand(const std::string& setCmd) const = 0;
    // Takes the text unless the variable holds it already; true when it changed.
    virtual bool replaceCurrentValue(VarInfo& var, const std::string& text) = 0;
    virtual std::string currentValue(const VarInfo& var) const = 0;
};

// The catalogue's requests over the connection kind's client, as an apply reads back what the
// lidar holds before it writes.
class GroupReadBack {
  public:
    virtual ~GroupReadBack() = default;
    // Reads what the lidar holds for the group into `bytes` (by variable name); the texts stay.
    virtual void readBack(std::vector<VarInfo*>& group, CatalogueEditView::BytesByName& bytes) = 0;
    // A request of the catalogue over the connection kind's client: the reply's payload.
    virtual int queryKindClient(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) = 0;
};

// Where an edit made outside the catalogue's rows (the field-of-view table) marks its set
// command to go out with the next apply.
class EditStagingSink {
  public:
    virtual ~EditStagingSink() = default;
    virtual void stageCommand(const std::string& setCmd) = 0;
};

// The loaded catalogue's modules as the monitor uses them: a module found by its name, a
// model's folder of variant files, and a variant's pages swapped in.
class ModuleCatalogueView {
  public:
    virtual ~ModuleCatalogueView() = default;
    // The index of the module of that name in the loaded catalogue; -1 without one.
    virtual int moduleIndexNamed(const std::string& name) const = 0;
    // The folder of a model's catalogue files (empty without one).
    virtual QString modelFolder(const QString& model) const = 0;
    // Puts the pages of the catalogue file at path in place of the module's (the module keeps
    // its name); false without a loaded catalogue, or when the file cannot be read or holds no
    // module.
    virtual bool swapInModuleVariant(int module, const std::string& path) = 0;
    // Forgets the variant swapped in last: its offsets are no longer looked up.
    virtual void forgetModuleVariant() = 0;
};

// One shown variable of a module as the latest reading left it: its name as a column is named
// (name and suffix), the read request that brings it (two variables may share a name, not a
// request) and its current text.
struct ShownValue {
    std::string name;
    std::string request;
    std::string text;
};

// Reading a module of the loaded catalogue from the lidar, and the values a reading left.
class ModuleReadingView {
  public:
    virtual ~ModuleReadingView() = default;
    // Reads the module as GetLidarModuleInfo does, stopping between requests once keepGoing
    // (when given) reads false: the read requests that failed, or nullopt when nothing could be
    // read.
    virtual std::optional<std::vector<std::string>> readModule(
        int module, const std::atomic<bool>* keepGoing) = 0;
    // The connection kind's client exists and is open (a failed request may have closed it).
    virtual bool deviceChannelOpen() const = 0;
    // The module's shown variables, page by page, read together under the catalogue's lock;
    // nullopt without a loaded catalogue or for a module below 0.
    virtual std::optional<std::vector<ShownValue>> shownValues(int module) const = 0;
    // Tells the UI that the values changed.
    virtual void announceValues() = 0;
    // Rebuilds the page lists after a variant's pages were swapped in.
    virtual void rebuildPageLists() = 0;
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

// What the page reading needs of the parts made after it: the module whose timer variables the
// page loop refreshes (the monitor's choice), and where the field of view the lidar reported
// goes.
class PageReadingContext {
  public:
    virtual ~PageReadingContext() = default;
    virtual int moduleInUse() const = 0;
    // The bounds the lidar reported for its first `count` regions: starts, then ends.
    virtual void storeReportedFov(const float* values, int count) = 0;
};

// The restart request an upgrade of a network model sends when its package is through.
class DeviceRestart {
  public:
    virtual ~DeviceRestart() = default;
    // The design's Restart on the network models: 0 when the lidar took it.
    virtual int restartLidar() = 0;
};

// The restart request a Heron OTA upgrade sends when its components are through.
class HeronRestart {
  public:
    virtual ~HeronRestart() = default;
    // The Heron's own restart (0xC2): 0 when the lidar acknowledged it.
    virtual int restartHeron() = 0;
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
