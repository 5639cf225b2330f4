#pragma once

// The page reader: reading the loaded catalogue's variables from the lidar (one variable, a
// module, the timer variables of the page loop), the page-refresh thread, and the UI's cached
// page lists and variable map. With the parameter catalogue (parameter_catalogue.h) it is one
// subsystem: it holds the catalogue by a plain reference and writes the texts it reads into it.
//
// Threads: the page thread, the monitor threads and the UI thread read at once; each request
// goes over the kind's client, and the decoded texts are stored under the catalogue's variables
// lock. The UI caches are built from the variables and so are guarded by that same lock. The
// latest failures and timer refresh are under mutex_; the page thread's handle under
// threadsMutex_, and its flag is an atomic cleared under pagesWakeMutex_ before the wake.

#include <QObject>
#include <QVariantList>
#include <QVariantMap>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lidar_utilities_manager.h"
#include "subsystem_views.h"

class ParameterCatalogue;

class PageReader : public QObject, public ModuleReadingView, public GroupReadBack {
    Q_OBJECT

  public:
    using ReadFailure = LidarUtilitiesManager::ReadFailure;
    using TimerRefresh = LidarUtilitiesManager::TimerRefresh;
    using BytesByName = CatalogueEditView::BytesByName;

    PageReader(ParameterCatalogue& catalogue, DeviceLinkView& link, const BusyView& busy,
               UserMessageSink& messages, PageReadingContext& context);

    // ---- Reading (page_reader.cpp) ----
    // GetInfoFromLidar: one variable over the VRC client, its text stored.
    void readVariable(VarInfo* var, std::vector<uint8_t>& value);
    // UpdateSingleVarInfo: 1 when the variable was found and asked for, else 0.
    int updateSingleVariable(const QString& key, const QString& searchType);
    // GetInfoFromLidarWithSameCmd with its outcome: the client's result, or -1 when nothing
    // could be sent (no open client, no catalogue, a command text that is not a command).
    int readGroupFromLidar(std::vector<VarInfo*>& group, BytesByName* replies, bool update);
    // GetLidarModuleInfo: the requests that failed, or nullopt when nothing could be read. With
    // runFlag, stops between groups once it reads false.
    std::optional<std::vector<ReadFailure>> readModuleAndAnnounce(int module,
                                                                  const std::atomic<bool>* runFlag);
    // WrenGetLidarModuleInfo: the same over a serial kind's client.
    void readSerialModule(int module);
    std::vector<ReadFailure> lastModuleReadFailures() const;
    TimerRefresh lastTimerRefresh() const;
    bool isTimerUpdate(int module, int page, int var) const;
    bool isWrenTimerUpdate(int module, int page, int var) const;
    // Reply bytes into the variable's display text (value_decoding.cpp).
    void updateSingleVarFromOutput(VarInfo& var, uint8_t cmd, const std::vector<uint8_t>& output,
                                   std::vector<uint8_t>& value, bool update);

    // ---- The page loop (page_loop.cpp) ----
    // Starts the loop of a connection of that kind, replacing a running one; throws
    // std::system_error when no thread can be started.
    void startPageLoop(int kind);
    // Tells the loop to stop, without waiting for it.
    void askPageLoopToStop();
    // Waits until the loop has ended.
    void joinPageLoop();
    // updatePagesTimer: the loop itself, on the calling thread, until it is told to stop.
    void runPageLoop();

    // ---- UI caches (page_loop.cpp) ----
    QVariantList myMap();
    void rebuildMyMapCache();
    void notifyMyMapChanged();
    QVariantList level1List();
    QVariantList level2List();
    QVariantList logRepeaterModel();
    void rebuildUiListCache();
    void invalidateUiListCache();
    // The serial kinds' map and lists, built afresh (empty on the network kind).
    QVariantList wrenMyMap();
    QVariantList wrenLevel1List();
    QVariantList wrenLevel2List();

    // ---- ModuleReadingView, GroupReadBack ----
    std::optional<std::vector<std::string>> readModule(int module,
                                                       const std::atomic<bool>* keepGoing) override;
    bool deviceChannelOpen() const override;
    std::optional<std::vector<ShownValue>> shownValues(int module) const override;
    void announceValues() override;
    void rebuildPageLists() override;
    void readBack(std::vector<VarInfo*>& group, BytesByName& bytes) override;
    int queryKindClient(uint8_t cmd, const u8Array_t& payload, u8Array_t& reply) override;

  signals:
    void myMapChanged();
    void myTimerMapChanged();
    void fovConfigChanged();
    void wrenLidarInfoChanged();

  private:
    void forgetModuleReadFailures();
    // Variables that are read with one request, under their grouping key, in first-seen order.
    using ReadGroups = std::vector<std::pair<std::string, std::vector<VarInfo*>>>;

    ReadGroups groupByReadRequest(const std::vector<VarInfo*>& vars) const;
    bool buildReadRequest(const VarInfo& var, uint8_t& cmd, u8Array_t& payload) const;
    // The module's groups, or nullopt without a catalogue or outside the tree.
    std::optional<ReadGroups> moduleGroups(int module) const;
    // Reads every group; the requests that failed, in group order.
    std::vector<ReadFailure> readGroups(ReadGroups& groups, const char* operation,
                                        const std::atomic<bool>* runFlag = nullptr);
    // The field of view through the VRC client's own operation, laid out as the 0x23 block.
    int readFieldOfView(AuthorizedVrcClient& client, const std::string& firstName, bool update,
                        u8Array_t& reply);
    void refreshTimerVariables();
    bool serialKindIdle() const;
    void logToSdkLogger(int line, const char* function, const std::string& message);
    // The variable's bytes out of a reply (value_decoding.cpp); false, and logged, when the
    // catalogue places them nowhere or the reply does not hold them.
    bool extractValue(const VarInfo& var, uint8_t cmd, const std::vector<uint8_t>& output,
                      std::vector<uint8_t>& value);

    void startPagesThread(void (PageReader::*loop)());
    void WrenUpdatePagesTimer();
    void WrenVrcUpdatePagesTimer();
    void pagesLoopPause(long ms);

    QVariantMap varToMap(const VarInfo& var);
    QVariantList buildVariableMap();
    void buildPageLists(QVariantList& level1, QVariantList& level2) const;

    ParameterCatalogue& catalogue_;
    DeviceLinkView& link_;
    const BusyView& busy_;
    UserMessageSink& messages_;
    PageReadingContext& context_;

    mutable std::mutex mutex_;
    std::vector<ReadFailure> lastModuleReadFailures_;  // under mutex_
    TimerRefresh lastTimerRefresh_;                    // under mutex_
    uint64_t timerRefreshCount_ = 0;                   // under mutex_

    std::atomic<bool> pagesTimerRunning_{false};
    // The page thread's owning pointer: set by the connect worker, joined by Stop on the UI
    // thread.
    std::mutex threadsMutex_;
    std::unique_ptr<std::thread> pagesTimerThread_;  // under threadsMutex_
    // Wakes the loop from its pause when it is told to stop.
    std::mutex pagesWakeMutex_;
    std::condition_variable pagesWake_;

    // The UI caches, under the catalogue's variables lock.
    QVariantList level1ListCache_;
    QVariantList level2ListCache_;
    QVariantList logListCache_;
    QVariantList myMapCache_;
    bool uiListsValid_ = false;
    bool myMapValid_ = false;
};
