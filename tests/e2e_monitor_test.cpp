// The monitor's auto-refresh and recording against the simulator: the record file's name,
// header and rows, the parameters, the refusals, stopping early, and the refresh switch.

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTextStream>
#include <QThread>
#include <QUrl>
#include <mutex>
#include <utility>
#include <vector>

#include "e2e_support.h"

using namespace testsupport;

namespace {

constexpr uint8_t kMonitorRead = 0x41;  // the shipped Egret monitor variants read 0x41
constexpr uint8_t kStatusRead = 0x40;   // Egret's status page, refreshed by the page timer

// The module whose values the page timer refreshes.
int StatusModule(LidarUtilitiesManager& m) {
    const auto& tree = m.getCurrentParser()->varTree;
    for (size_t module = 0; module < tree.size(); ++module)
        for (const auto& page : tree[module])
            for (const VarInfo* var : page)
                if (var->timer_update) return static_cast<int>(module);
    return -1;
}

QUrl Url(const std::string& path) {
    return QUrl::fromLocalFile(QString::fromStdString(path));
}

QStringList Lines(const std::string& path) {
    return QString::fromStdString(ReadFile(path)).split('\n', Qt::SkipEmptyParts);
}

// The shipped HW2.0 variant's columns, page by page: name and suffix with nothing between them.
const QStringList kHw2Columns = {"APD Bias Voltage (V)",      "Laser Temperature (°C)",
                                 "Receiver Temperature (°C)", "Window Heater Duty (%)",
                                 "IMU Temperature (°C)",      "Motor Phase Current (A)",
                                 "Input Voltage (V)",         "Input Current (A)",
                                 "Input Power (W)",           "Frame Drops"};

// The only file a recording left in the folder.
std::string RecordFile(const TempDir& folder) {
    const QStringList files = QDir(QString::fromStdString(folder.path())).entryList(QDir::Files);
    return files.size() == 1 ? folder.file(files[0].toStdString()) : std::string();
}

TEST(MonitorRecord, WritesTheHeaderAndARowPerIntervalThenSaysWhereTheFileIs) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret");
    LidarUtilitiesManager& m = session.m();
    ASSERT_GE(m.getMonitorModuleIndex(), 0);
    QSignalSpy params(&m, &LidarUtilitiesManager::monitorRecordParamsChanged);
    m.setMonitorRecordDurationSec(0);
    m.setMonitorRecordIntervalSec(-3);
    EXPECT_EQ(m.getMonitorRecordDurationSec(), 1);
    EXPECT_EQ(m.getMonitorRecordIntervalSec(), 1);
    EXPECT_EQ(params.count(), 1);  // the interval was 1 already
    m.setMonitorRecordDurationSec(2);
    m.setMonitorRecordDurationSec(2);
    EXPECT_EQ(params.count(), 2);

    TempDir folder;
    m.startMonitorRecord(Url(folder.path()));
    EXPECT_TRUE(session.Shown("error: Please connect to lidar first"));
    ASSERT_TRUE(session.Connect(simulator->Port()));
    m.startMonitorRecord(Url(folder.path() + "/missing"));
    EXPECT_TRUE(session.Shown("error: Invalid record folder"));
    m.startMonitorRecord(Url("/proc"));
    ASSERT_TRUE(WaitFor(
        [&] { return session.Shown("error: Failed to create monitor record file"); }, 5000));
    m.waitForWorkers();

    QSignalSpy recordingChanged(&m, &LidarUtilitiesManager::isMonitorRecordingChanged);
    m.startMonitorRecord(Url(folder.path()));
    EXPECT_TRUE(m.getIsMonitorRecording());
    ASSERT_TRUE(WaitFor([&] { return !m.getIsMonitorRecording(); }, 10000));
    const QStringList files = QDir(QString::fromStdString(folder.path())).entryList(QDir::Files);
    ASSERT_EQ(files.size(), 1);
    EXPECT_TRUE(
        QRegularExpression("^Monitor_" + m.getCurrentMonitorHwVersion() + "_\\d{8}_\\d{6}\\.csv$")
            .match(files[0])
            .hasMatch())
        << files[0].toStdString();
    const std::string path = folder.file(files[0].toStdString());
    const QStringList lines = Lines(path);
    ASSERT_EQ(lines.size(), 3) << ReadFile(path);  // header, then a row at 0 s and at 1 s
    EXPECT_EQ(lines[0], "timestamp," + kHw2Columns.join(','));
    for (int row = 1; row < 3; ++row) {
        EXPECT_TRUE(QRegularExpression("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{3},")
                        .match(lines[row])
                        .hasMatch())
            << lines[row].toStdString();
        EXPECT_EQ(lines[row].count(','), lines[0].count(','));
    }
    // The simulated lidar's readings move, and each row is a fresh reading.
    EXPECT_NE(lines[1].section(',', 1), lines[2].section(',', 1));
    EXPECT_TRUE(
        WaitFor([&] { return session.Shown("success: Monitor record saved:\n" + path); }, 2000));
    EXPECT_EQ(recordingChanged.count(), 2);  // started, ended
}

TEST(MonitorRecord, HiddenVariablesStayOutAndStoppingEarlyKeepsTheFile) {
    // The variant applied at load (the highest number) with its receiver temperature hidden.
    CraftedConfig config("Egret", {{"Egret", "Egret"}});
    const std::string variant = config.configDir() + "/varID/Egret/Monitor_HW2.0_2.csv";
    const std::string shown =
        "m2_rx_temp,Receiver Temperature, (°C),int16,0x41,,,4,0,2,0,0.01,1,"
        "44.75,,,1,0,0,";
    std::string text = ReadFile(variant);
    const size_t at = text.find(shown);
    ASSERT_NE(at, std::string::npos);
    text.replace(at + shown.size() - 2, 1, "1");  // the hidden column
    WriteFile(variant, text);
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret", config.root());
    LidarUtilitiesManager& m = session.m();
    ASSERT_EQ(m.getCurrentMonitorHwVersion(), "HW2.0");
    bool hiddenInModule = false;
    for (const auto& page : m.getCurrentParser()->varTree[m.getMonitorModuleIndex()])
        for (const VarInfo* var : page)
            hiddenInModule = hiddenInModule || (var->var_id == "m2_rx_temp" && var->hidden);
    ASSERT_TRUE(hiddenInModule);
    ASSERT_TRUE(session.Connect(simulator->Port()));
    m.setMonitorRecordDurationSec(60);
    TempDir folder;
    m.startMonitorRecord(Url(folder.path()));
    ASSERT_TRUE(WaitFor(
        [&] {
            const QStringList files =
                QDir(QString::fromStdString(folder.path())).entryList(QDir::Files);
            return !files.isEmpty() && Lines(folder.file(files[0].toStdString())).size() >= 2;
        },
        5000));
    m.stopMonitorRecord();
    EXPECT_FALSE(m.getIsMonitorRecording());
    const QStringList files = QDir(QString::fromStdString(folder.path())).entryList(QDir::Files);
    const std::string path = folder.file(files[0].toStdString());
    const std::string written = ReadFile(path);
    QStringList shownColumns = kHw2Columns;
    shownColumns.removeAll("Receiver Temperature (°C)");
    EXPECT_EQ(Lines(path)[0], "timestamp," + shownColumns.join(','));
    // The rows leave it out too: a time and one value per shown column.
    for (const QString& row : Lines(path).mid(1)) EXPECT_EQ(row.count(','), shownColumns.size());
    EXPECT_TRUE(session.Shown("success: Monitor record saved:\n" + path));
    // Nothing is written after stopMonitorRecord returns.
    QThread::msleep(1500);
    EXPECT_EQ(ReadFile(path), written);
}

TEST(MonitorAutoRefresh, ReadsOnceASecondOnlyWhileOnConnectedAndIdle) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret");
    LidarUtilitiesManager& m = session.m();
    EXPECT_TRUE(LidarUtilitiesManager(0, "").getMonitorAutoRefresh());  // on by default
    m.setMonitorAutoRefresh(true);  // not connected: no thread starts yet
    EXPECT_FALSE(ManagerTestAccess::monitorRefreshThreadExists(m));
    // The status page is on screen: the page thread refreshes its timer values meanwhile.
    m.setModuleIndexUse(StatusModule(m));
    ASSERT_TRUE(session.Connect(simulator->Port()));
    // The first reading at once, then one a second.
    ASSERT_TRUE(WaitFor([&] { return simulator->RequestCount(kMonitorRead) >= 1; }, 2000));
    const uint64_t first = simulator->RequestCount(kMonitorRead);
    QThread::msleep(3300);
    const uint64_t inThreeSeconds = simulator->RequestCount(kMonitorRead) - first;
    EXPECT_GE(inThreeSeconds, 2u);
    EXPECT_LE(inThreeSeconds, 4u);

    // Not while a log download or an upgrade owns the connection.
    for (const bool upgrading : {false, true}) {
        if (upgrading)
            ManagerTestAccess::setUpgrading(m, true);
        else
            m.setIsDownloadLog(true);
        QThread::msleep(300);  // a reading under way ends
        const uint64_t busy = simulator->RequestCount(kMonitorRead);
        QThread::msleep(2200);
        EXPECT_EQ(simulator->RequestCount(kMonitorRead), busy) << "upgrading " << upgrading;
        ManagerTestAccess::setUpgrading(m, false);
        m.setIsDownloadLog(false);
        EXPECT_TRUE(WaitFor([&] { return simulator->RequestCount(kMonitorRead) > busy; }, 2000));
    }

    // A recording reads by itself: the auto-refresh skips its readings meanwhile, while the page
    // thread and the UI thread read the same client too.
    {
        TempDir folder;
        m.setMonitorRecordDurationSec(3);
        const uint64_t before = simulator->RequestCount(kMonitorRead);
        m.startMonitorRecord(Url(folder.path()));
        for (int read = 0; read < 5; ++read) {
            m.GetLidarModuleInfo(m.getMonitorModuleIndex());
            QThread::msleep(200);
        }
        ASSERT_TRUE(WaitFor([&] { return !m.getIsMonitorRecording(); }, 5000));
        const uint64_t reads = simulator->RequestCount(kMonitorRead) - before;
        EXPECT_GE(reads, 3u + 5u);
        EXPECT_LE(reads, 3u + 5u + 1u);  // an automatic reading may just precede the start
        EXPECT_GT(simulator->RequestCount(kStatusRead), 0u);  // the page thread read too
    }

    // Switching off joins the thread (how soon: bench/monitor_bench, BM_MonitorStopLatency).
    QSignalSpy switched(&m, &LidarUtilitiesManager::monitorAutoRefreshChanged);
    m.setMonitorAutoRefresh(false);
    EXPECT_FALSE(ManagerTestAccess::monitorRefreshThreadExists(m));
    m.setMonitorAutoRefresh(false);
    EXPECT_EQ(switched.count(), 1);
    const uint64_t reads = simulator->RequestCount(kMonitorRead);
    QThread::msleep(2500);
    EXPECT_EQ(simulator->RequestCount(kMonitorRead), reads);

    // On again while connected starts it at once; Stop ends it.
    m.setMonitorAutoRefresh(true);
    EXPECT_TRUE(WaitFor([&] { return simulator->RequestCount(kMonitorRead) > reads; }, 3000));
    m.Stop();
    const uint64_t afterStop = simulator->RequestCount(kMonitorRead);
    QThread::msleep(1500);
    EXPECT_EQ(simulator->RequestCount(kMonitorRead), afterStop);
}

TEST(MonitorRecord, AModelWithoutMonitorModuleRefuses) {
    CraftedConfig config("Heron-VRC", {});
    WriteFile(config.configDir() + "/varID/Heron-VRC/Monitor_HW2.0_2.csv",
              ReadFile(SourceDir() + "/Config/varID/Egret/Monitor_HW2.0_2.csv"));
    ManagerSession session("Heron-VRC", config.root());
    ASSERT_LT(session.m().getMonitorModuleIndex(), 0);
    session.m().startMonitorRecord(QUrl::fromLocalFile("/tmp"));
    EXPECT_TRUE(session.Shown("error: No Monitor module for current model"));
    EXPECT_TRUE(session.m().getMonitorHwVersionList().isEmpty());
    EXPECT_FALSE(session.m().applyMonitorHwVersion("HW2.0", true));
    session.m().selectMonitorHwVersion("HW2.0");
    EXPECT_TRUE(session.Shown("error: Failed to load monitor config for version HW2.0"));
}

// What a live chart is fed: the record's columns and the values a row would hold now.
TEST(MonitorLiveReading, ColumnsAreTheHeadersAndAFailedReadingLeavesItsValuesEmpty) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret");
    LidarUtilitiesManager& m = session.m();
    EXPECT_EQ(m.getMonitorColumns(), kHw2Columns);
    m.setMonitorAutoRefresh(false);
    ASSERT_TRUE(session.Connect(simulator->Port()));
    m.refreshMonitor();
    QStringList reading = m.getMonitorReading();
    ASSERT_EQ(reading.size(), kHw2Columns.size());
    for (const QString& value : reading)
        EXPECT_FALSE(value.isEmpty()) << reading.join(',').toStdString();
    // The same values a record row writes after the same reading.
    QString row;
    QTextStream stream(&row);
    m.writeMonitorRecordRow(stream);
    stream.flush();
    EXPECT_EQ(row.trimmed().section(',', 1), reading.join(','));

    simulator->SetFault(kMonitorRead, sim::Fault{sim::Fault::Kind::kStatus, 0, 4, 0});
    m.refreshMonitor();
    EXPECT_EQ(m.getMonitorReading().join('|'), QString(kHw2Columns.size() - 1, '|'));
    simulator->ClearFaults();
    m.refreshMonitor();
    reading = m.getMonitorReading();
    EXPECT_EQ(reading.size(), kHw2Columns.size());
    EXPECT_FALSE(reading.contains(QString()));

    // A model without a monitor module has no columns.
    CraftedConfig config("Heron-VRC", {});
    ManagerSession heron("Heron-VRC", config.root());
    EXPECT_TRUE(heron.m().getMonitorColumns().isEmpty());
    EXPECT_TRUE(heron.m().getMonitorReading().isEmpty());
}

// The readings monitorReadingTaken announced, as they came (on whatever thread read).
class ReadingLog {
  public:
    explicit ReadingLog(LidarUtilitiesManager& m) {
        QObject::connect(
            &m, &LidarUtilitiesManager::monitorReadingTaken, &context_,
            [this](const QStringList& columns, const QStringList& values) {
                std::lock_guard<std::mutex> lock(mutex_);
                readings_.push_back({columns, values});
            },
            Qt::DirectConnection);
    }
    int count() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(readings_.size());
    }
    std::pair<QStringList, QStringList> last() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return readings_.empty() ? std::pair<QStringList, QStringList>() : readings_.back();
    }

  private:
    QObject context_;
    mutable std::mutex mutex_;
    std::vector<std::pair<QStringList, QStringList>> readings_;
};

// A live chart takes monitorReadingTaken: every monitor reading, whoever made it, and nothing
// else that reads the lidar.
TEST(MonitorLiveReading, EveryMonitorReadingIsAnnouncedWithItsColumnsAndNothingElse) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret");
    LidarUtilitiesManager& m = session.m();
    m.setMonitorAutoRefresh(false);
    ASSERT_TRUE(session.Connect(simulator->Port()));
    ReadingLog readings(m);

    // The other modules, read as a parameters page reads them, announce no monitor reading.
    {
        QSignalSpy mapChanged(&m, &LidarUtilitiesManager::myMapChanged);
        const int monitor = m.getMonitorModuleIndex();
        ASSERT_GE(monitor, 0);
        for (int module = 0; module < m.level1List().size(); ++module)
            if (module != monitor) m.GetLidarModuleInfo(module);
        EXPECT_GE(mapChanged.count(), m.level1List().size() - 1);
        EXPECT_EQ(readings.count(), 0);
    }

    // A single refresh: the record's columns and the values a row would hold.
    m.refreshMonitor();
    ASSERT_EQ(readings.count(), 1);
    EXPECT_EQ(readings.last().first, kHw2Columns);
    EXPECT_EQ(readings.last().second, m.getMonitorReading());
    EXPECT_FALSE(readings.last().second.contains(QString()));
    // A refused reading is announced too, every value empty.
    simulator->SetFault(kMonitorRead, sim::Fault{sim::Fault::Kind::kStatus, 0, 4, 0});
    m.refreshMonitor();
    ASSERT_EQ(readings.count(), 2);
    EXPECT_EQ(readings.last().first, kHw2Columns);
    EXPECT_EQ(readings.last().second.join('|'), QString(kHw2Columns.size() - 1, '|'));
    simulator->ClearFaults();

    // The auto-refresh's readings.
    m.setMonitorAutoRefresh(true);
    EXPECT_TRUE(WaitFor([&] { return readings.count() >= 4; }, 5000));
    // Switched off while its reading waits on a slow lidar: that reading is not announced.
    simulator->SetFault(kMonitorRead, sim::Fault{sim::Fault::Kind::kDelay, 1500, 0, 0});
    const uint64_t requests = simulator->RequestCount(kMonitorRead);
    ASSERT_TRUE(WaitFor([&] { return simulator->RequestCount(kMonitorRead) > requests; }, 3000));
    const int beforeSlowReading = readings.count();
    m.setMonitorAutoRefresh(false);
    EXPECT_EQ(readings.count(), beforeSlowReading);
    simulator->ClearFaults();

    // A recording's: one a row.
    TempDir folder;
    m.setMonitorRecordDurationSec(2);
    const int beforeRecording = readings.count();
    m.startMonitorRecord(Url(folder.path()));
    ASSERT_TRUE(WaitFor([&] { return !m.getIsMonitorRecording(); }, 6000));
    EXPECT_GE(m.getMonitorRecordRowCount(), 1);
    EXPECT_EQ(readings.count() - beforeRecording, m.getMonitorRecordRowCount());
    const QStringList rows = Lines(RecordFile(folder));
    ASSERT_GE(rows.size(), 2);
    EXPECT_EQ(rows.back().section(',', 1).split(','), readings.last().second);
}

TEST(MonitorRecord, AMonitorModuleFirstInItsCatalogueIsRefreshedAndRecorded) {
    // A catalogue that is its monitor module alone: the module's index is 0.
    CraftedConfig config("Egret", {{"Egret", "Egret"}});
    const std::string folder = config.configDir() + "/varID/Egret/";
    WriteFile(folder + "Egret.csv", ReadFile(folder + "Monitor_HW1.0_1.csv"));
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret", config.root());
    LidarUtilitiesManager& m = session.m();
    ASSERT_EQ(m.getMonitorModuleIndex(), 0);
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), "HW2.0");
    ASSERT_TRUE(session.Connect(simulator->Port()));
    m.setMonitorAutoRefresh(true);
    EXPECT_TRUE(WaitFor([&] { return simulator->RequestCount(kMonitorRead) >= 1; }, 3000));
    m.setMonitorAutoRefresh(false);
    m.setMonitorRecordDurationSec(1);
    TempDir records;
    m.startMonitorRecord(Url(records.path()));
    ASSERT_TRUE(WaitFor([&] { return !m.getIsMonitorRecording(); }, 5000));
    EXPECT_GE(Lines(RecordFile(records)).size(), 2);  // the header and a row
}

TEST(MonitorRecord, WritesNoRowsWhileTheLidarIsBusyButKeepsTime) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret");
    LidarUtilitiesManager& m = session.m();
    m.setMonitorAutoRefresh(false);
    ASSERT_TRUE(session.Connect(simulator->Port()));
    m.setMonitorRecordDurationSec(2);
    for (const char* busy : {"log download", "upgrade"}) {
        SCOPED_TRACE(busy);
        // What an upgrade or a log download sets while it owns the connection.
        if (std::string(busy) == "upgrade")
            ManagerTestAccess::setUpgrading(m, true);
        else
            m.setIsDownloadLog(true);
        TempDir folder;
        const uint64_t reads = simulator->RequestCount(kMonitorRead);
        QElapsedTimer clock;
        clock.start();
        m.startMonitorRecord(Url(folder.path()));
        ASSERT_TRUE(WaitFor([&] { return !m.getIsMonitorRecording(); }, 6000));
        EXPECT_GE(clock.elapsed(), 1900);  // the duration ran its course
        const QStringList files =
            QDir(QString::fromStdString(folder.path())).entryList(QDir::Files);
        ASSERT_EQ(files.size(), 1);
        EXPECT_EQ(Lines(folder.file(files[0].toStdString())).size(), 1);  // the header alone
        EXPECT_EQ(simulator->RequestCount(kMonitorRead), reads);
        EXPECT_EQ(m.getMonitorRecordRowCount(), 0);
        ManagerTestAccess::setUpgrading(m, false);
        m.setIsDownloadLog(false);
    }
}

}  // namespace

namespace {

TEST(MonitorVariants, OrderSkipsAndSelection) {
    // Variant files beside a copy of the Egret catalogue: labels from the names, highest
    // number first, malformed names skipped.
    CraftedConfig config("Egret", {{"Egret", "Egret"}});
    const std::string folder = config.configDir() + "/varID/Egret/";
    const std::string header =
        ReadFile(folder + "Monitor_HW1.0_1.csv")
            .substr(0, ReadFile(folder + "Monitor_HW1.0_1.csv").find('\n') + 1);
    std::system(("rm -f '" + folder + "'Monitor_*.csv").c_str());
    // Each file names its one variable after itself, so the applied variant shows which it is.
    for (const char* name :
         {"Monitor_A_2.csv", "Monitor_B_10.csv", "Monitor_A_1.csv", "Monitor__3.csv",
          "Monitor_A_.csv", "Monitor_A_x.csv", "Monitor_A_B_4.csv"})
        WriteFile(folder + name, header + "Monitor,Monitor,,v," + name +
                                     ",,uint16,0x41,,,0,0,2,0,1,1,7,,,1,0,0,,0,0,0,0\n");
    const auto appliedFile = [](LidarUtilitiesManager& manager) {
        return manager.getCurrentParser()->varTree[manager.getMonitorModuleIndex()][0][0]->var_name;
    };
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret", config.root());
    LidarUtilitiesManager& m = session.m();
    EXPECT_EQ(m.getMonitorHwVersionList(), (QStringList{"B", "A_B", "A", "A"}));
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), "B");
    EXPECT_EQ(appliedFile(m), "Monitor_B_10.csv");

    ASSERT_TRUE(session.Connect(simulator->Port()));
    const int revision = m.getMonitorContentRevision();
    const uint64_t reads = simulator->RequestCount(kMonitorRead);
    QSignalSpy contentChanged(&m, &LidarUtilitiesManager::monitorContentChanged);
    m.selectMonitorHwVersion("A");
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), "A");
    EXPECT_EQ(appliedFile(m), "Monitor_A_2.csv");  // the first "A": the higher number
    EXPECT_EQ(m.getMonitorContentRevision(), revision + 1);
    EXPECT_EQ(contentChanged.count(), 1);
    EXPECT_GT(simulator->RequestCount(kMonitorRead), reads);  // read once at once
    m.selectMonitorHwVersion("C");
    EXPECT_TRUE(session.Shown("error: Failed to load monitor config for version C"));
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), "A");
    // A variant whose file went away is refused, and applies once the file is back.
    const std::string aB = folder + "Monitor_A_B_4.csv";
    const std::string aBText = ReadFile(aB);
    std::remove(aB.c_str());
    m.selectMonitorHwVersion("A_B");
    EXPECT_TRUE(session.Shown("error: Failed to load monitor config for version A_B"));
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), "A");
    WriteFile(aB, aBText);
    m.selectMonitorHwVersion("A_B");
    EXPECT_EQ(appliedFile(m), "Monitor_A_B_4.csv");
    m.selectMonitorHwVersion("A");

    TempDir records;
    m.setMonitorRecordDurationSec(30);
    m.startMonitorRecord(Url(records.path()));
    m.selectMonitorHwVersion("B");
    EXPECT_TRUE(session.Shown("error: Stop recording before switching hardware version"));
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), "A");
    m.stopMonitorRecord();
}

}  // namespace

namespace {

// The rows of a recording, once at least `rows` of them are on disk.
QStringList WaitForRows(const TempDir& folder, int rows) {
    QStringList lines;
    WaitFor(
        [&] {
            const std::string path = RecordFile(folder);
            lines = path.empty() ? QStringList() : Lines(path).mid(1);
            return lines.size() >= rows;
        },
        8000);
    return lines;
}

// A connected Egret whose recording (60 s) has written its first row.
class RecordingEgret : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(session.Connect(simulator->Port()));
        m.setMonitorRecordDurationSec(60);
        m.startMonitorRecord(Url(folder.path()));
        ASSERT_EQ(WaitForRows(folder, 1).size(), 1);
    }
    std::unique_ptr<sim::LidarSimulator> simulator = StartSimulator("Egret");
    ManagerSession session{"Egret"};
    LidarUtilitiesManager& m = session.m();
    TempDir folder;
};

TEST_F(RecordingEgret, AFailedReadingLeavesItsValuesEmptyAndMissedSlotsAreSkipped) {
    // The lidar refuses the next reading: its row says so with empty values, not the last ones.
    simulator->SetFault(kMonitorRead, sim::Fault{sim::Fault::Kind::kStatus, 0, 4, 0});
    QStringList rows = WaitForRows(folder, 2);
    ASSERT_GE(rows.size(), 2);
    EXPECT_EQ(rows[1].section(',', 1), QString(kHw2Columns.size() - 1, ','));
    // A reading that takes 2.5 s: the slots it covered are skipped, not written in a burst.
    simulator->SetFault(kMonitorRead, sim::Fault{sim::Fault::Kind::kDelay, 2500, 0, 0});
    QThread::msleep(1200);
    simulator->ClearFaults();
    rows = WaitForRows(folder, 5);
    m.stopMonitorRecord();
    ASSERT_GE(rows.size(), 5);
    for (int row = 2; row < rows.size(); ++row) {
        const QDateTime previous =
            QDateTime::fromString(rows[row - 1].section(',', 0, 0), "yyyy-MM-dd HH:mm:ss.zzz");
        const QDateTime current =
            QDateTime::fromString(rows[row].section(',', 0, 0), "yyyy-MM-dd HH:mm:ss.zzz");
        EXPECT_GT(previous.msecsTo(current), 200) << rows.join('\n').toStdString();
        EXPECT_FALSE(rows[row].section(',', 1).startsWith(','));  // fresh values again
    }
}

TEST_F(RecordingEgret, LoadingAnotherModelEndsTheRecording) {
    m.InitConfigFileParser("Tern");
    EXPECT_FALSE(m.getIsMonitorRecording());
    const std::string path = RecordFile(folder);
    EXPECT_TRUE(session.Shown("success: Monitor record saved:\n" + path));
    // Every row has the columns its header names.
    const QStringList lines = Lines(path);
    for (const QString& row : lines.mid(1)) EXPECT_EQ(row.count(','), lines[0].count(','));
}

}  // namespace
