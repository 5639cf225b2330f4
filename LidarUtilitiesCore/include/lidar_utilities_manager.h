#pragma once

// The single back-end object of the lidar utility. A graphical front end binds to its properties,
// invokable operations and signals. It is a façade: the work is done by subsystems under
// LidarUtilitiesCore/src/ (the device link, messages, console, catalogue and page reading,
// staging, field of view, the Heron and Wren operations, monitor, upgrade, log download), each
// owning its state and its lock (docs/architecture.md).
//
// Threads (docs/threads.md): the UI thread calls the operations; the connect worker, the
// page-refresh thread and later workers share the state. Flags are atomics; each subsystem's texts
// and tables are under its own lock; what the façade still owns (infoVersion) under
// fieldsMutex_, and the catalogue's current_val texts and the UI caches under the catalogue's
// variables lock.

#include <QList>
#include <QObject>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantList>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "log_level.h"
#include "records.h"
#include "sdk/authorized_vrc_client.h"
#include "sdk/config_parser.h"
#include "sdk/types.h"
#include "sdk/var_info.h"
#include "settings_profile.h"

namespace lidar {
class SerialSource;
class SerialClient;
}  // namespace lidar

class CommandConsole;
class DeviceLink;
class EditStaging;
class FieldOfView;
class FirmwareUpgrade;
class HeronOperations;
class LogDownload;
class ManagerViews;
class MonitorService;
class PageReader;
class ParameterCatalogue;
struct ShownValue;
class UserMessages;
class WrenSettings;
struct ManagerTestAccess;
class QFile;
class QTextStream;

class LidarUtilitiesManager : public QObject {
    Q_OBJECT
    Q_PROPERTY(QString ipAddress READ getIpAddress WRITE setIpAddress NOTIFY initInfoChanged)
    Q_PROPERTY(QString port READ getPort WRITE setPort NOTIFY initInfoChanged)
    Q_PROPERTY(
        QString serialPort485 READ serial_port_485 WRITE set_serial_port_485 NOTIFY initInfoChanged)
    Q_PROPERTY(
        QString serialPort232 READ serial_port_232 WRITE set_serial_port_232 NOTIFY initInfoChanged)
    Q_PROPERTY(QString baudRate READ baud_rate WRITE set_baud_rate NOTIFY initInfoChanged)
    Q_PROPERTY(QString udpPort READ getUdpPort WRITE setUdpPort NOTIFY initInfoChanged)
    Q_PROPERTY(QString vrcClientHostPort READ getVrcClientHostPort WRITE setVrcClientHostPort NOTIFY
                   initInfoChanged)
    Q_PROPERTY(bool enableVrcClientHostPortUi READ getEnableVrcClientHostPortUi NOTIFY
                   featureConfigChanged)
    Q_PROPERTY(bool isConnected READ getIsConnected NOTIFY isConnectedChanged)
    Q_PROPERTY(int connectType READ getConnectType NOTIFY connectTypeChanged)
    Q_PROPERTY(bool isUpgrading READ getIsUpgrading NOTIFY isUpgradingChanged)
    Q_PROPERTY(
        bool isDownloadLog READ getIsDownloadLog WRITE setIsDownloadLog NOTIFY isDownloadLogChanged)
    Q_PROPERTY(int upgradeProgress READ getUpgradeProgress NOTIFY isUpgradingChanged)
    Q_PROPERTY(
        int upgradeProgressTotalLen READ getUpgradeProgressTotalLen NOTIFY isUpgradingChanged)
    Q_PROPERTY(
        QString errorMessage READ getErrorMessage WRITE setErrorMsg NOTIFY errorMessageChanged)
    Q_PROPERTY(QString successMessage READ getSuccessMessage WRITE setSuccessMsg NOTIFY
                   successMessageChanged)
    Q_PROPERTY(QString sendVrcCommandReturnHeader READ getSendVrcCommandReturnHeader NOTIFY
                   successMessageChanged)
    Q_PROPERTY(QString sendVrcCommandReturnPayload READ getSendVrcCommandReturnPayload NOTIFY
                   successMessageChanged)
    Q_PROPERTY(QString lidarModelFromLidar READ getLidarModelFromLidar CONSTANT)
    Q_PROPERTY(QVariantList lidarModelList READ getLidarModelList NOTIFY lidarModelListChanged)
    Q_PROPERTY(QString zpNowName READ getZPNowName NOTIFY lidarModelListChanged)
    // The loaded model (pinned or not), for a front end that offers every model.
    Q_PROPERTY(QString selectedLidarModel READ getSelectedLidarModel NOTIFY lidarModelChanged)
    Q_PROPERTY(QVariantList myMap READ getMyMap NOTIFY myMapChanged)
    Q_PROPERTY(QVariantList level1List READ level1List NOTIFY lidarModelChanged)
    Q_PROPERTY(QVariantList level2List READ level2List NOTIFY lidarModelChanged)
    Q_PROPERTY(QVariantList logRepeaterModel READ logRepeaterModel NOTIFY lidarModelChanged)
    Q_PROPERTY(QVariantList fovList READ getFovList NOTIFY fovConfigChanged)
    Q_PROPERTY(QStringList monitorHwVersionList READ getMonitorHwVersionList NOTIFY
                   monitorHwVersionListChanged)
    Q_PROPERTY(QString currentMonitorHwVersion READ getCurrentMonitorHwVersion NOTIFY
                   currentMonitorHwVersionChanged)
    Q_PROPERTY(
        int monitorModuleIndex READ getMonitorModuleIndex NOTIFY currentMonitorHwVersionChanged)
    Q_PROPERTY(
        int monitorContentRevision READ getMonitorContentRevision NOTIFY monitorContentChanged)
    Q_PROPERTY(bool monitorAutoRefresh READ getMonitorAutoRefresh WRITE setMonitorAutoRefresh NOTIFY
                   monitorAutoRefreshChanged)
    Q_PROPERTY(int monitorRecordDurationSec READ getMonitorRecordDurationSec WRITE
                   setMonitorRecordDurationSec NOTIFY monitorRecordParamsChanged)
    Q_PROPERTY(int monitorRecordIntervalSec READ getMonitorRecordIntervalSec WRITE
                   setMonitorRecordIntervalSec NOTIFY monitorRecordParamsChanged)
    Q_PROPERTY(bool isMonitorRecording READ getIsMonitorRecording NOTIFY isMonitorRecordingChanged)

  public:
    // ---- Creation (lidar_utilities_manager.cpp) ----
    static LidarUtilitiesManager* getInstance(uint8_t tag, std::string configPath);
    LidarUtilitiesManager(uint8_t tag, std::string configPath);
    ~LidarUtilitiesManager() override;

    static const std::string Egret_Str;
    static const std::string Plover_Str;
    static const std::string Tern_Str;
    static const std::string Wren_Str;
    static const std::string Wren_VRC_Str;
    static const std::string Heron_VRC_Str;
    static const std::string READ_VAR, WRITE_VAR, READ_VAR_ARRAY, WRITE_VAR_ARRAY;
    static const std::string READ_EQUIP_ADDRESS, WRITE_EQUIP_ADDRESS, READ_EQUIP_CONTINUE_ADDRESS,
        WRITE_EQUIP_CONTINUE_ADDRESS;
    static const std::string READ_FILE, WRITE_FILE, HAS_SUB_CMD;
    static const std::string kStrVRCGetLidarModelFromLidar, kStrVRCGetLidarModelFromLidarSubCmd;

    // ---- Connection properties (device_link.cpp) ----
    Q_INVOKABLE QString getIpAddress() const;
    Q_INVOKABLE void setIpAddress(QString address);
    Q_INVOKABLE QString getPort() const;
    Q_INVOKABLE void setPort(QString port);
    Q_INVOKABLE QString serial_port_485() const;
    Q_INVOKABLE void set_serial_port_485(QString device);
    Q_INVOKABLE QString serial_port_232() const;
    Q_INVOKABLE void set_serial_port_232(QString device);
    Q_INVOKABLE QString baud_rate() const;
    Q_INVOKABLE void set_baud_rate(QString rate);
    Q_INVOKABLE QString getUdpPort() const;
    // The text's leading number, truncated to 16 bits; a text that is not a number leaves the
    // port unchanged and logs an ERROR line naming it.
    Q_INVOKABLE void setUdpPort(QString port);
    Q_INVOKABLE QString getVrcClientHostPort() const;
    Q_INVOKABLE void setVrcClientHostPort(QString text);
    Q_INVOKABLE bool getEnableVrcClientHostPortUi() const;
    std::string getSelectLidarModel() const;
    void setSelectLidarModel(std::string model);
    Q_INVOKABLE QString getSelectedLidarModel() const;
    // The settings file that a connect writes the connection settings into.
    Q_INVOKABLE QString connectionSettingsFilePath() const;
    // Ours. False: connecting no longer writes the connection settings into that file, for a
    // front end that runs many processes at once (they would race on it). True by default.
    void setRemembersConnectionSettings(bool remembers);
    Q_INVOKABLE bool getIsConnected() const;
    Q_INVOKABLE int getConnectType() const;
    Q_INVOKABLE bool getIsUpgrading() const;
    Q_INVOKABLE bool getIsDownloadLog() const;
    Q_INVOKABLE void setIsDownloadLog(bool downloading);
    Q_INVOKABLE int getUpgradeProgress() const;
    Q_INVOKABLE int getUpgradeProgressTotalLen() const;
    Q_INVOKABLE QString getSendVrcCommandReturnHeader() const;
    Q_INVOKABLE QString getSendVrcCommandReturnPayload() const;
    Q_INVOKABLE QString getLidarModelFromLidar() const { return QString(); }
    bool isConnecting() const;
    uint8_t getCreationTag() const { return creationTag; }

    // ---- Logging and user messages (lidar_utilities_manager.cpp) ----
    // The developer lines that the design prints on standard output go to `sink` instead (one
    // line each, without its line end); an empty sink restores standard output. Process-wide,
    // for a front end that owns standard output; any thread may call it.
    static void setDeveloperLineSink(std::function<void(const std::string& line)> sink);
    void writeLogMessage(const std::string& message, const std::string& level);
    using LogLevel = ::LogLevel;
    void writeLogMessage(const std::string& message, LogLevel level);
    Q_INVOKABLE void showErrorMessage(const QString& text);
    Q_INVOKABLE void showSuccessMessage(const QString& text);
    Q_INVOKABLE void setErrorMsg(QString text);
    Q_INVOKABLE void setSuccessMsg(QString text);
    Q_INVOKABLE QString getErrorMessage() const;
    Q_INVOKABLE QString getSuccessMessage() const;
    Q_INVOKABLE void SetLogBytesFlowStatus(bool on);
    void logMessageHandler(const std::string& line);
    void setVrcClientLogCallback();

    // ---- Connection control (device_link_connect.cpp, connection.cpp) ----
    Q_INVOKABLE bool ConnectLidar();
    bool Init();
    bool InitVrcForSerial();
    bool InitSerial();
    bool CheckLidarConnection();
    Q_INVOKABLE void Stop();
    Q_INVOKABLE int Restart();
    Q_INVOKABLE int Reset();
    bool get_config_file();
    Q_INVOKABLE void StartGetConfigFile();
    // Waits for the connect worker (and other short workers) to finish; for scripts and tests.
    void waitForWorkers();

    // ---- Model catalogue (parameter_catalogue.cpp; loading in model_loading.cpp) ----
    Q_INVOKABLE QVariantList getLidarModelList();
    Q_INVOKABLE void InitZPModule(QString model);
    Q_INVOKABLE QString getZPNowName() const;
    // The connection kind (getConnectType's numbers) that loading `model` gives, without loading
    // it: 0 network, 1 serial lines, 2 VRC over a serial line.
    Q_INVOKABLE int connectTypeOfModel(QString model) const;
    Q_INVOKABLE void InitConfigFileParser(QString model);
    std::string resolveModelConfigPath(const QString& model) const;
    QString resolveModelDirPath(const QString& model) const;
    VarInfo* searchVarPtr(const std::string& value, const std::string& searchType) const;
    bool resolveVarPosOffset(const VarInfo& var, int index, std::pair<int, int>& out) const;
    Q_INVOKABLE bool CheckVarExistsInConfigFileByName(QString name) const;
    void changeModelEmit();
    static std::string trim(const std::string& text);
    static bool isNum(const QString& text);
    ConfigParser* getCurrentParser() const;
    std::string getCurrentConfigPath() const;

    // ---- Range checks (value_decoding.cpp) and reply decoding (the page reader's) ----
    Q_INVOKABLE bool CheckVarIsWithinRange(QString key, QString searchType);
    Q_INVOKABLE bool CheckModuleVarsWithinRange(int module);
    // Ours: whether a text would be written as typed, checked without staging it. `row` is the
    // variable's place in the page tree (hidden rows count); the text is the value the written
    // variable takes (for a linked switch, its linked variable's). "" when the text would be
    // written as typed; otherwise why not: not writable, read-only, a device operation, a text
    // the variable's parser refuses, a fraction the writer would cut, outside the catalogue's
    // limits ("NAME must be MIN to MAX").
    Q_INVOKABLE QString checkVariableText(int module, int page, int row, QString text);
    // The limits that check holds that row's text to ("-5 to 5"); "" when it holds it to none.
    Q_INVOKABLE QString variableLimits(int module, int page, int row) const;
    // The parts of that check, for a front end that reports them at different moments.
    static QString writeProblem(const VarInfo& row);
    // The variable whose value a row's set command carries: a linked switch row's linked one.
    static const VarInfo* writtenVariable(const VarInfo& row);
    static VarInfo* writtenVariable(VarInfo& row);
    static QString encodingProblem(const VarInfo& var, const QString& value);
    static QString limitsProblem(const VarInfo& var, const QString& value);
    // "1 to 4094": the catalogue's limits of a variable.
    static QString limitsText(const VarInfo& var);
    // Whether the catalogue's limits are checked for this variable at all.
    static bool limitsApply(const VarInfo& var);
    // A field's bytes as the pages show them; nullopt when its type has no display text or the
    // bytes are too few for it.
    static std::optional<std::string> valueText(const VarInfo& var,
                                                const std::vector<uint8_t>& bytes);
    // CheckVarIsWithinRange's verdict on a text instead of the staged value.
    static bool textWithinLimits(const VarInfo& var, const std::string& text);
    void updateSingleVarFromOutput(VarInfo& var, uint8_t cmd, const std::vector<uint8_t>& output,
                                   std::vector<uint8_t>& value, bool update);

    // ---- Reading from the lidar (page_reader.cpp, page_loop.cpp) ----
    void GetInfoFromLidar(VarInfo* var, std::vector<uint8_t>& value);
    Q_INVOKABLE int UpdateSingleVarInfo(QString key, QString searchType);
    void GetInfoFromLidarWithSameCmd(std::vector<VarInfo*>& group,
                                     std::unordered_map<std::string, std::vector<uint8_t>>* replies,
                                     bool update);
    Q_INVOKABLE void GetLidarModuleInfo(int module);
    void updatePagesTimer();
    Q_INVOKABLE bool isTimerUpdate(int module, int page, int var) const;
    Q_INVOKABLE void UpdateUI();
    // A variable's display text, read under the catalogue lock.
    QString currentValueOf(const VarInfo* var) const;

    // One request of the latest GetLidarModuleInfo that brought no value back: the request as
    // the catalogue writes it (get_cmd, then the payload's hex digits after a blank when there is
    // one), the variables it carries and the client's result (1..255 the device's status, a
    // negative code a transport failure or a refusal by the access profile).
    struct ReadFailure {
        std::string request;
        std::vector<std::string> names;
        int code = 0;
    };
    std::vector<ReadFailure> getLastModuleReadFailures() const;
    // The client's result of the baud-rate command a VRC-over-serial connect sends (0 before
    // any). The connect goes on whatever it is, as designed; a front end may still tell the user
    // that the lidar did not answer it.
    int getConnectBaudRateResult() const;
    // The page timer's latest refresh of the timer variables: its number (from 1), whether every
    // request failed (then no myTimerMapChanged follows), and the requests that failed.
    struct TimerRefresh {
        uint64_t number = 0;
        bool allFailed = false;
        std::vector<ReadFailure> failures;
    };
    TimerRefresh getLastTimerRefresh() const;

    // ---- UI caches (page_loop.cpp) ----
    Q_INVOKABLE QVariantList getMyMap();
    void rebuildMyMapCache();
    Q_INVOKABLE void notifyMyMapChanged();
    Q_INVOKABLE QVariantList level1List();
    Q_INVOKABLE QVariantList level2List();
    Q_INVOKABLE QVariantList logRepeaterModel();
    void rebuildUiListCache();
    void invalidateUiListCache();

    // ---- Monitor variants (monitor_service.cpp) ----
    int findMonitorModuleIndex() const;
    void scanMonitorHwVersions();
    bool applyMonitorHwVersion(const QString& version, bool withSignals);
    Q_INVOKABLE void selectMonitorHwVersion(QString version);
    Q_INVOKABLE QStringList getMonitorHwVersionList() const;
    Q_INVOKABLE QString getCurrentMonitorHwVersion() const;
    Q_INVOKABLE int getMonitorModuleIndex() const;
    Q_INVOKABLE int getMonitorContentRevision() const;
    Q_INVOKABLE void setModuleIndexUse(int module);

    // ---- Monitor refresh (monitor_service.cpp) and recording (monitor_recording.cpp) ----
    Q_INVOKABLE void refreshMonitor();
    Q_INVOKABLE void setMonitorAutoRefresh(bool on);
    Q_INVOKABLE bool getMonitorAutoRefresh() const;
    Q_INVOKABLE void setMonitorRecordDurationSec(int seconds);
    Q_INVOKABLE void setMonitorRecordIntervalSec(int seconds);
    Q_INVOKABLE int getMonitorRecordDurationSec() const;
    Q_INVOKABLE int getMonitorRecordIntervalSec() const;
    Q_INVOKABLE bool getIsMonitorRecording() const;
    Q_INVOKABLE void startMonitorRecord(QUrl folder);
    Q_INVOKABLE void stopMonitorRecord();
    void writeMonitorRecordHeader(QTextStream& stream);
    void writeMonitorRecordRow(QTextStream& stream);
    void monitorAutoRefreshLoop();
    void monitorRecordLoop(QString path, int interval, int duration);
    // The file of the running (or the last) recording, and the rows written to it so far: what
    // a front end shows while it records.
    Q_INVOKABLE QString getMonitorRecordFilePath() const;
    Q_INVOKABLE int getMonitorRecordRowCount() const;
    // The monitor values as a record has them, for a live chart: the header's column labels
    // (without "timestamp"), and the values now held, those whose request failed in the latest
    // module read left empty, as a row leaves them.
    Q_INVOKABLE QStringList getMonitorColumns() const;
    Q_INVOKABLE QStringList getMonitorReading() const;
    Q_INVOKABLE int getModuleIndexUse() const;

    // ---- Edit staging and applying (edit_staging.cpp) ----
    Q_INVOKABLE void SetText(int type, int page, int group, int row, QString text);
    Q_INVOKABLE unsigned long getSetMapSize() const;
    Q_INVOKABLE void ClearSetMap();
    static void writeSubCmdIntoInput(std::string text, u8Array_t& out);
    static std::pair<std::string, std::string> getTwoCases(QString name);
    size_t getEditedVarCount() const;
    // Ours: the set commands that hold staged edits ("0x21" makes the lidar drop the link).
    Q_INVOKABLE QStringList stagedSetCommands() const;
    // Ours: whether the row at that place of the page tree holds an edit not applied yet.
    Q_INVOKABLE bool isEditedRow(int module, int page, int row) const;
    Q_INVOKABLE void Run(int page);

    // ---- Channel field of view (field_of_view.cpp) ----
    Q_INVOKABLE QVariantList getFovList() const;
    Q_INVOKABLE void SetMultiFovConfig(int index, QString value);

    // ---- Command console (command_console.cpp) ----
    Q_INVOKABLE void SendCommand(QString header, QString payload);
    Q_INVOKABLE void SendSerialCommand(QString header, QString payload);
    Q_INVOKABLE void SendVrcSerialCommand(QString header, QString payload);
    Q_INVOKABLE void WriteCommandLogToLocalCommandFile();
    Q_INVOKABLE void GetLocalCommandFileLog();
    // False when the last GetLocalCommandFileLog could not read the history file whole.
    bool commandHistoryLoaded() const;
    // Renames an unreadable history file to a name not in use; false when it could not.
    bool moveHistoryFileAside();
    Q_INVOKABLE QVariantList getSendCommandHistory() const;
    Q_INVOKABLE int getCommandLogCnt() const;

    // ---- Firmware upgrade (firmware_upgrade.cpp) ----
    Q_INVOKABLE int UpgradeLidar(QUrl file, int i, int j, int k);
    Q_INVOKABLE int WrenUpgradeLidar(QUrl file);
    Q_INVOKABLE void WrenSetUpgradeMode(int mode);
    void GetLidarUpgradeInfo(u8Array_t& package, std::string command);
    // Where UpgradeLidar finds its command: [module, page, variable] of the first catalogue
    // variable whose set command is the firmware upgrade command (0x83); empty when the loaded
    // model has none.
    Q_INVOKABLE QVariantList firmwareUpgradeVariable() const;
    // Why a package file cannot be sent as it is ("" when it can): it cannot be opened, is a
    // folder or not a regular file, or is empty. The upgrades themselves hand an empty package
    // to the transfer, and the lidar would then be restarted for nothing. Names the path as given.
    Q_INVOKABLE QString firmwarePackageProblem(const QString& path) const;

    // ---- Heron model: device operations (heron_operations.cpp), OTA upgrade (heron_upgrade.cpp)
    // The program-wide text of a component version that is not known.
    static constexpr const char* kUnknownHeronComponentVersion = "xxxxxxxx";
    // The IMU range codes the lidar takes, by the index the UI offers.
    static constexpr std::array<uint8_t, 6> kHeronAngularRangeCodes = {0, 1, 2, 3, 4, 8};
    static constexpr std::array<uint8_t, 4> kHeronAccelerationRangeCodes = {0, 1, 2, 3};
    Q_INVOKABLE void HeronGetVersionInfo();
    Q_INVOKABLE void HeronSetIMURange(int angularIndex, int accelerationIndex);
    Q_INVOKABLE int HeronSendRestartCommand();
    // The version texts, announced by wrenLidarInfoChanged().
    Q_INVOKABLE QString getHeronBmbFpgaVersion() const;
    Q_INVOKABLE QString getHeronTmbFpgaVersion() const;
    Q_INVOKABLE QString getHeronBmbMcuVersion() const;
    Q_INVOKABLE QString getHeronModelVersionText() const;
    Q_INVOKABLE int HeronUpgradeLidar(QUrl file);
    void GetLidarUpgradeInfoHeron(u8Array_t& package);
    bool HeronParseOtaPackageHeader(const u8Array_t& package, HeronOtaPackageInfo& info);
    u8Array_t HeronExtractComponentData(const u8Array_t& package,
                                        const HeronOtaComponentInfo& component,
                                        const std::string& name);
    // A package file as the Heron upgrade would take it, without a lidar: "valid", "reason" (why
    // the upgrade refuses it), "bytes", "totalSize", "flags" and "components", one map per
    // present component in flag-bit order ("name", "type", "offset", "size", "crc32", "sent" and
    // "sentCrc32": the bytes the lidar is sent, an FPGA image without its leading block). Logs
    // nothing.
    Q_INVOKABLE QVariantMap HeronInspectOtaPackage(QUrl file) const;

    // ---- Wren serial settings (wren_settings.cpp) ----
    Q_INVOKABLE void WrenSetStandby(int standby);
    Q_INVOKABLE void WrenSetSpinRate(int rate);
    Q_INVOKABLE void WrenSetReturnMode(int mode);
    Q_INVOKABLE QString WrenGetBaudRate();
    Q_INVOKABLE void WrenSetBaudRateFromUI(QString rate);
    Q_INVOKABLE int WrenSetDestinationIPandPort(QString ip, int port);
    Q_INVOKABLE int WrenSetNet(QString address, QString netmask, QString gateway, int flag, int id);
    Q_INVOKABLE QVariantList WrenGetNetConfig(bool quiet);
    Q_INVOKABLE QVariantList WrenGetDestinationConfig(bool quiet);
    Q_INVOKABLE QVariantList WrenGetLidarFunctionSafety();

    // ---- Pages of the serial models, kinds 1 and 2 (page_reader.cpp, page_loop.cpp) ----
    // The generic reads, map and lists serve the network kind only; these serve the catalogue
    // pages of the serial kinds over their own client (the serial client on kind 1, the VRC
    // client on kind 2) with the same grouping, decoding and encoding. docs/catalogue-format.md,
    // "Pages of the serial models".
    Q_INVOKABLE void WrenGetLidarModuleInfo(int module);
    Q_INVOKABLE QVariantList getWrenMyMap();
    Q_INVOKABLE QVariantList wrenLevel1List();
    Q_INVOKABLE QVariantList wrenLevel2List();
    Q_INVOKABLE bool isWrenTimerUpdate(int module, int page, int var) const;
    // Applies through the edit staging (edit_staging.cpp).
    Q_INVOKABLE void WrenRun(int page);
    // The serial client of kind 1 and its two lines, or null.
    std::shared_ptr<lidar::SerialClient> getSerialClient() const;
    std::shared_ptr<lidar::SerialSource> getRs485Source() const;
    std::shared_ptr<lidar::SerialSource> getUartSource() const;

    // ---- The pages on every connection kind (device_pages.cpp) ----
    // Ours, beside the design's operations above (which keep serving one kind each): a front end
    // reads and writes the loaded model's pages through these whatever the connection kind, and
    // the manager chooses the kind's operation.
    Q_INVOKABLE QVariantList catalogueLevel1List();
    Q_INVOKABLE QVariantList catalogueLevel2List();
    Q_INVOKABLE QVariantList catalogueVariableMap();
    Q_INVOKABLE bool isTimerVariable(int module, int page, int var) const;
    // The place in the page tree (what SetText and checkVariableText take) of a page's
    // `shownRow`-th variable of catalogueVariableMap(), which leaves the hidden ones out; -1
    // when the page shows fewer.
    Q_INVOKABLE int catalogueRow(int module, int page, int shownRow) const;
    // Reads one module over the kind's client; getLastModuleReadFailures() tells what failed.
    Q_INVOKABLE void readModule(int module);
    // Applies the staged edits of one level-1 page over the kind's client.
    Q_INVOKABLE void applyPage(int page);
    // Connected, and the kind's client is open.
    Q_INVOKABLE bool isDeviceLinkOpen() const;

    // ---- Settings profiles (profile_operations.cpp) ----
    // Ours (docs/profiles.md): a lidar's settings captured, compared with a profile and brought to
    // it, with the bytes as read; the front ends read and write the files. Each call reads the
    // lidar, so none is for the UI thread.
    struct ProfileScope {
        QVector<int> modules;            // module indexes; empty: every module
        QStringList excluded;            // variables left out, by name or var_id
        bool includeOwnAddress = false;  // keep the lidar's own address and MAC
        bool withRecord = false;         // record the read-only variables too
    };
    // Reads what the scope takes and captures it (without a time: the caller stamps it). False,
    // with *error, for an excluded name the catalogue does not have or a request not answered.
    bool captureProfile(const ProfileScope& scope, profile::SettingsProfile* out, QString* error);
    // Why the scope cannot be taken from the loaded model (an --exclude name it does not have, or
    // one that is not in a profile anyway); "" when it can. Needs no lidar.
    QString profileScopeProblem(const ProfileScope& scope) const;
    // Every reason the loaded model cannot take the profile, each naming the key ("model",
    // "settings[3].bytes", "field_of_view.bounds[2]"); empty when it can be applied.
    QStringList profileRefusals(const profile::SettingsProfile& profile) const;
    // Reads the profile's fields from the lidar and compares them byte for byte. False, with
    // *error, when the lidar did not answer.
    bool compareWithProfile(const profile::SettingsProfile& profile,
                            profile::ProfileComparison* out, QString* error);
    // Writes a comparison's differences: each planned set command on its own, with exactly the
    // profile's bytes for the differing fields and the lidar's own bytes for the rest, through
    // the staging and write-back (the field of view through its own path); the network command
    // last. Stops at the first command that fails; the user has been told why.
    struct ProfileWrite {
        QStringList written;          // the commands sent and accepted, in order
        QString failed;               // the command that failed, or ""
        bool networkWritten = false;  // the network command went: the link is closed now
    };
    ProfileWrite writeProfileDifferences(const profile::ProfileComparison& comparison);
    // The lidar's own settings, left out of a profile unless asked for: its address (the first
    // field of the network command) and its MAC address.
    static bool isOwnAddressVariable(const VarInfo& var);
    // Whether connecting to a lidar of that model writes its serial baud rate (VRC over a serial
    // line), which a profile then leaves to the connection.
    bool connectionSetsBaudRateOf(const QString& model) const;

    // ---- Settings profile files, for the window (profile_files.cpp) ----
    // The operations above with the file read or written, each outcome as a map a view shows:
    // "ok" and "error" always; the rest per call, below. Each reads the lidar: a front end calls
    // them through its queue, never on the UI thread.
    // The connected lidar's settings into a file (its own address and MAC left out unless
    // `includeOwnAddress`; the read-only values recorded with `withRecord`): "path",
    // "settings" (how many), "fieldOfView" (whether it holds one), "recorded" (how many).
    Q_INVOKABLE QVariantMap exportProfileFile(QUrl file, bool includeOwnAddress, bool withRecord);
    // The lidar against a profile file: "refusals" (why the lidar cannot take it, each naming
    // the key; nothing is compared then), "warnings", "matches", "differences" (one map per
    // field: "setCommand", "module", "page", "name", "varId", "lidarText", "profileText",
    // "unit", "lidarBytes", "profileBytes"), "fieldOfView" (the differing mode and bounds:
    // "name", "lidarText", "profileText", "unit"), "plan" (the set commands an apply sends) and
    // "differenceCount".
    Q_INVOKABLE QVariantMap compareProfileFile(QUrl file);
    // Brings the lidar to a profile file: compares (the keys above), refuses with nothing written
    // when there are refusals or edits wait in the staging, writes the differences, then
    // compares again. "state": "refused", "matched" (nothing to write), "failed" (a command
    // failed: "failedCommand"; "written" the ones before it), "differs" (written, yet the lidar
    // still differs: "after" holds the comparison), "unread" (written; reading back failed:
    // "error"), "verified", or "unverified" (the network
    // command went and the lidar closed the connection: verify once connected again, with
    // verifyProfileFile). "written": the commands sent; "newAddress": the profile's address for
    // the lidar when it is another than the one connected to.
    // With `confirmedPlan` (compareProfileFile's "planKey"), writes only when the lidar and the
    // file still give that plan; otherwise "changed", and nothing is written.
    Q_INVOKABLE QVariantMap applyProfileFile(QUrl file, QString confirmedPlan = QString());
    // Compares again after an apply and says whether the lidar holds the profile: "verified",
    // "differences" as above. With `networkPending` the network settings' differences are set
    // aside ("networkNotVerified"): the lidar takes them at its next restart and may report the
    // ones it runs with until then.
    Q_INVOKABLE QVariantMap verifyProfileFile(QUrl file, bool networkPending);

    // ---- The machine's serial ports (serial_port_list.cpp) ----
    // One map per serial port the system reports, for a connection view to offer: "portName",
    // "systemLocation", "description", "manufacturer", "serialNumber" (empty when not known).
    // Pseudo-terminals are not serial ports to the system and are not listed.
    Q_INVOKABLE QVariantList availableSerialPorts() const;

    // ---- Log download (log_download.cpp) ----
    Q_INVOKABLE int DownloadLog(QUrl folder, QString name);
    Q_INVOKABLE int DownloadOperationLog(QUrl archive);
    void DownloadLogThread(QUrl folder, QString name);
    void DownloadOperationLogThread(QUrl archive);
    // The four results of the latest operation-log download, in part order: 0 the part came,
    // 1..255 the lidar answered with that status (and no log), -1 no complete reply. The design
    // judges only -1 a failure; a front end that reports the parts needs the statuses too.
    std::vector<int> getLastOperationLogResults() const;
    // The file the latest DownloadLog wrote whole (absolute path); "" while one runs, or when it
    // wrote none (the lidar did not answer, the file could not be written).
    Q_INVOKABLE QString lastDownloadedLogFile() const;
    // Where the operation log's parts wait for tar, and stay when the download fails.
    static QString operationLogWorkFolder();

    // The SDK client of kinds 0 and 2, or null.
    std::shared_ptr<AuthorizedVrcClient> getAuthorizedClient() const;

  signals:
    void initInfoChanged();
    void isConnectedChanged();
    void connectTypeChanged();
    void featureConfigChanged();
    void errorMessageChanged();
    void successMessageChanged();
    void sendLogMessage(QString message, QString level);
    void myMapChanged();
    void myTimerMapChanged();
    void lidarClearModel();
    void lidarModelChanged();
    void lidarShowModel();
    void lidarModelListChanged();
    void wrenLidarInfoChanged();
    void isGetPBLVersionChanged();
    void fovConfigChanged();
    void someVarOutOfRange(QString var_name);
    void isUpgradingChanged();
    void isDownloadLogChanged();
    void downloadFinished();
    void downloadOperationLogFinished(bool ok);
    void sendCommandHistoryChanged();
    void monitorHwVersionListChanged();
    void currentMonitorHwVersionChanged();
    void monitorContentChanged();
    void monitorAutoRefreshChanged();
    void monitorRecordParamsChanged();
    void isMonitorRecordingChanged();
    // Each reading of the monitor module by the auto-refresh, a recording or refreshMonitor:
    // the record's column labels and the values read, those whose request failed left empty.
    // Emitted on the thread that read; reads of other modules do not emit it.
    void monitorReadingTaken(QStringList columns, QStringList values);

  private:
    static void initInstance(uint8_t tag, std::string configPath);
    // The kind's client exists and is open.
    bool deviceChannelOpen() const;

    int sendDeviceCommand(const char* variableName, const char* fallbackName,
                          const QString& notFoundName, const QString& notFoundCommand);
    void startMonitorRefreshLoop();

    // A test hook (tests/manager_test_access.h): states a test cannot reach cheaply otherwise.
    friend struct ManagerTestAccess;
    // Answers the subsystems' views of the parts not split yet from their state.
    friend class ManagerViews;

    // ---- Fields shared by several subsystems, in declaration order ----
    static LidarUtilitiesManager* instance_;
    static std::once_flag init_instance_flag_;

    std::atomic<bool> isGetPBLVersion{false};

    const uint8_t creationTag;

    // The first of the model information texts, the serial models' information pages' own (a
    // dotted version, a placeholder: nothing fills it, the design leaves the pages open). The
    // other four, the Heron's version texts, are HeronOperations'. Guarded by fieldsMutex_.
    std::string infoVersion = "xx.xx.xx.xx";

    // The connection's short workers (the connect attempt, the configuration-file query): the
    // link's.
    void startWorker(std::function<void()> job);
    mutable std::mutex fieldsMutex_;

    // The subsystems, and the views through which they reach what they do not own. Declared
    // last: they are destroyed first, after the destructor has stopped every worker.
    std::unique_ptr<ManagerViews> views_;
    // Before the messages, which ask it for the connection kind.
    std::unique_ptr<DeviceLink> link_;
    std::unique_ptr<UserMessages> messages_;
    std::unique_ptr<CommandConsole> console_;
    std::unique_ptr<ParameterCatalogue> catalogue_;
    std::unique_ptr<PageReader> reader_;
    std::unique_ptr<EditStaging> staging_;
    std::unique_ptr<FieldOfView> fov_;
    std::unique_ptr<HeronOperations> heron_;
    std::unique_ptr<WrenSettings> wren_;
    std::unique_ptr<MonitorService> monitor_;
    std::unique_ptr<FirmwareUpgrade> upgrade_;
    std::unique_ptr<LogDownload> logs_;
};
