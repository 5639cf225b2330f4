#pragma once

// One run of lidarutil against one model: the manager, the embedded simulator when no --host is
// given, the connection and the wiring of the manager's messages to standard error.

#include <QObject>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "lidar_utilities_manager.h"
#include "options.h"
#include "sdk/catalogue_folders.h"
#include "sim/lidar_simulator.h"
#include "sim/serial_lidar_simulator.h"

namespace cli {

// How reading a module went: every request answered, some refused or unanswered (each one named
// on standard error), or the connection lost.
enum class ReadOutcome { kComplete, kIncomplete, kConnectionLost };

// A read request's result in words: the device's status byte, or the client's own failure.
QString readFailureText(int code);

// Where a variable sits in the catalogue tree: the indexes SetText and Run take.
struct VarPosition {
    int module = 0;
    int page = 0;
    int row = 0;
    VarInfo* var = nullptr;
};

class Session {
  public:
    // `workplace`: where the catalogues come from (ports, which needs none, leaves it empty).
    explicit Session(const Options& options, lidar::Workplace workplace = {});
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Loads the model's catalogue; kExitUsage (with a message) for a model that is not shipped.
    int loadModel();
    // Refuses (kExitUsage, with a message naming `command`) the models of the serial kinds.
    int requireNetworkModel(const QString& command) const;
    // The model is reached over its two serial lines (kind 1).
    bool serialLines() const;

    // Starts the simulator when needed (pseudo-terminals for the serial model, unless --rs485
    // and --uart name its lines) and connects; kExitOk, kExitFailed or kExitUsage (messages
    // printed).
    int connect();
    // Connects again to the same lidar (after a network-settings write closed the connection).
    bool reconnect();
    // After a restart: connects to the lidar at `host` (empty: the same address), trying again
    // quietly until it answers or `seconds` have passed; false, said, when it never did.
    bool awaitLidar(const QString& host, int seconds);
    // Reads one module with a progress line; false when the connection broke while reading.
    ReadOutcome readModule(int module);
    // After a refused command: when the lidar refused it for want of authorisation, says so in
    // plain words and returns true.
    bool explainRefusal() const;
    // The command's outcome in one line, on standard error; a fleet child also hands it to its
    // parent as the lidar's summary.
    void tellOutcome(const QString& line) const;
    void explainSerialTimeout(const std::vector<LidarUtilitiesManager::ReadFailure>& failures);
    bool connectionAlive() const;

    LidarUtilitiesManager& manager() { return *manager_; }
    const Options& options() const { return options_; }
    const lidar::Workplace& workplace() const { return workplace_; }
    // Error messages the manager has shown since the start.
    int errorCount() const { return errors_.load(); }
    // While a progress line runs, the manager's messages wait (counted at once) and are printed
    // by releaseMessages, after the progress line's last update: the outcome is the last word.
    void holdMessages();
    void releaseMessages();
    // Prints the waiting messages and goes on holding (a command with a second phase).
    void printHeldMessages();
    // Ends the hold and hands the waiting messages over unprinted, for a command that judges
    // them (an outcome the manager reports in two lines, or a success it cannot see is none).
    QStringList takeHeldMessages();

    // Module names of the loaded model, as the manager lists them.
    QStringList moduleNames();
    // The module named `name` (letter case ignored), or -1.
    int findModule(const QString& name);
    // Every variable of the catalogue tree, hidden ones included, in tree order.
    const std::vector<VarPosition>& variables();
    // The shown (not hidden) variable named `name`: the exact name first, then a unique match
    // that ignores letter case; null when there is none.
    const VarPosition* findVariable(const QString& name);
    const VarPosition* positionOf(const VarInfo* var);
    // The first module holding a variable that `has`, or -1.
    int moduleWhere(const std::function<bool(const VarInfo&)>& has);

  private:
    void isolateSettings();
    void reportCatalogueProblems() const;
    void wireMessages();
    // Prints a message of the manager now, or keeps it while messages are held.
    void tell(const QString& line);
    bool startSimulator();
    bool startSerialSimulator();
    bool chooseSerialLines();
    // Quiet: failures are not printed (a caller that tries again says what came of it).
    bool attemptConnection(bool quiet = false);
    void tellSerialNumber();
    bool baudRateAnswered();
    QString endpoint() const;

    Options options_;
    lidar::Workplace workplace_;
    // The embedded simulator's address must not end up in the user's saved connection settings
    // (a later --host run would take its port), so simulated runs keep the manager's settings
    // file in a private home that disappears with the run.
    std::unique_ptr<QTemporaryDir> privateHome_;
    std::unique_ptr<sim::LidarSimulator> simulator_;
    std::unique_ptr<sim::SerialLidarSimulator> serialSimulator_;
    std::unique_ptr<LidarUtilitiesManager> manager_;
    // Context of the connections to the manager's signals. They are direct: the manager's
    // workers print their messages themselves, at once and in order, and no signal argument
    // crosses threads through Qt's event queue (whose locking ThreadSanitizer cannot see in an
    // uninstrumented Qt). Everything the slots touch is therefore thread-safe: the output
    // functions, the manager's getters and the atomic error count. Declared after the manager so
    // that it goes first and the manager's own shutdown messages are not printed.
    std::unique_ptr<QObject> receiver_;
    std::vector<VarPosition> variables_;
    bool variablesBuilt_ = false;
    std::atomic<int> errors_{0};
    std::mutex heldMutex_;
    bool holding_ = false;      // guarded by heldMutex_
    QStringList heldMessages_;  // guarded by heldMutex_
};

}  // namespace cli
