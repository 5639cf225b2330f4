#pragma once

// The firmware upgrades: a package pushed to the lidar through the SDK transfer that matches the
// connection kind (firmware_upgrade.cpp), and the Heron OTA upgrade, which writes the package's
// components one after another (heron_upgrade.cpp). The package is read on the calling thread
// and sent by a worker; the UI polls the progress counters.
//
// Threads: the UI thread starts an upgrade, a worker runs it. The flag and the counters are
// atomics (the SDK writes the progress on the worker). A Stop and the manager's closing wake the
// worker's pauses under mutex_; the signal is emitted outside it.

#include <QObject>
#include <QUrl>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "records.h"
#include "sdk/types.h"
#include "worker_threads.h"

class AuthorizedVrcClient;
class BusyView;
class DeviceLinkView;
class DeviceRestart;
class HeronRestart;
class UserMessageSink;
class VariableLookup;
class QFile;
struct ManagerTestAccess;

class FirmwareUpgrade : public QObject {
    Q_OBJECT

  public:
    FirmwareUpgrade(DeviceLinkView& link, const BusyView& busy, UserMessageSink& messages,
                    const VariableLookup& catalogue, DeviceRestart& restart,
                    HeronRestart& heronRestart);

    // The network models: the package goes with the set command of the variable at
    // [module][page][var] (0x83 in the shipped catalogues).
    int upgrade(const QUrl& file, int module, int page, int var);
    // The serial models, over the kind's own transfer.
    int upgradeSerialModel(const QUrl& file);
    void setSerialMode(int mode) { mode_.store(mode); }
    // The worker's body: sends the package and tells the outcome.
    void transfer(u8Array_t& package, std::string command);

    int upgradeHeron(const QUrl& file);
    void transferHeron(u8Array_t& package);
    bool parseHeronPackageHeader(const u8Array_t& package, HeronOtaPackageInfo& info);
    u8Array_t extractHeronComponent(const u8Array_t& package,
                                    const HeronOtaComponentInfo& component,
                                    const std::string& name);

    bool upgrading() const { return upgrading_.load(); }
    int progress() const { return progress_.load(); }
    int progressTotal() const { return progressTotal_.load(); }

    // A Stop happened: an upgrade pausing (before the transfer, in upgrade mode, before the
    // restart) is abandoned at once.
    void stopHappened();
    // The manager is closing: every pause ends at once and nothing more is told.
    void managerClosing();
    // Waits for the upgrade workers started so far.
    void waitForWorkers() { workers_.joinAll(); }

  signals:
    void isUpgradingChanged();

  private:
    friend struct ManagerTestAccess;

    bool startPackageTransfer(QFile& file, std::string command);
    // Marks the upgrade as running from here, with its counters; a Stop from here on abandons it.
    void markUpgradeStart(size_t packageBytes);
    // isUpgrading false, and its signal.
    void endUpgrade();
    // The upgrade marked last was stopped (Stop since its start), or the manager is closing.
    bool upgradeStopped() const;
    // Sleeps ms unless the upgrade is stopped meanwhile; false when it is (at once).
    bool pauseUnlessStopped(long ms);
    int sendPackage(u8Array_t& package, const std::string& command, int kind, int mode);
    void tellSerialOutcome(int result);
    void restartAfterTransfer();

    bool startHeronPackageTransfer(QFile& file);
    // isUpgrading false, and its signal when it was true.
    void endHeronUpgrade();
    // The worker's steps after the header is parsed; false when the upgrade ended early.
    bool prepareHeronUpgrade(AuthorizedVrcClient* client, uint8_t& partition);
    std::vector<HeronUpgradePlanEntry> buildHeronPlan(const HeronOtaPackageInfo& info,
                                                      uint8_t partition);
    bool sendHeronPlan(AuthorizedVrcClient& client, const u8Array_t& package,
                       const std::vector<HeronUpgradePlanEntry>& plan);
    // Tells a Heron upgrade ended before its plan was through: what the lidar holds and what to do.
    void reportHeronUpgradeCut(const std::vector<HeronUpgradePlanEntry>& plan, size_t completed);

    DeviceLinkView& link_;
    const BusyView& busy_;
    UserMessageSink& messages_;
    const VariableLookup& catalogue_;
    DeviceRestart& restart_;
    HeronRestart& heronRestart_;

    std::atomic<bool> upgrading_{false};
    std::atomic<int32_t> progress_{0};       // KiB sent, written by the SDK on the worker
    std::atomic<int32_t> progressTotal_{1};  // KiB to send
    std::atomic<int32_t> mode_{0};           // the serial models' upgrade mode
    // Set when the manager closes: the worker's waits end at once and it tells nobody.
    std::atomic<bool> closing_{false};
    // Counts the Stops; the upgrade running keeps the count at its start. Changed under mutex_,
    // which wakes the pauses.
    std::atomic<uint64_t> stops_{0};
    std::atomic<uint64_t> stopsAtUpgradeStart_{0};
    std::mutex mutex_;
    std::condition_variable wake_;
    // Last: joined before the state the workers use is destroyed.
    WorkerThreads workers_;
};
