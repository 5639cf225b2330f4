// Log download against the simulator: a device log saved under its name pattern, the
// operation-log archive built by the real tar, and the failure paths.

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QUrl>

#include "e2e_support.h"
#include "manager_test_access.h"

using namespace testsupport;

namespace {

std::unique_ptr<sim::LidarSimulator> StartWithLogs(const std::string& configDir, size_t bytes) {
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = configDir;
    options.logBytes = bytes;
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    EXPECT_TRUE(simulator->Start());
    return simulator;
}

QUrl Url(const std::string& path) {
    return QUrl::fromLocalFile(QString::fromStdString(path));
}

QString WorkFolder() {
    return QDir::homePath() + "/Documents/operation_log";
}

std::vector<uint8_t> Bytes(const std::string& path) {
    const std::string text = ReadFile(path);
    return std::vector<uint8_t>(text.begin(), text.end());
}

TEST(DeviceLog, SavedUnderItsNamePatternWithTheDevicesBytes) {
    auto simulator = StartWithLogs(SourceDir() + "/Config", 200 * 1024);
    ManagerSession session("Egret");
    ASSERT_TRUE(session.Connect(simulator->Port()));
    LidarUtilitiesManager& m = session.m();
    const std::atomic<int>& finished = session.downloadsFinished;
    TempDir folder;

    // The link is the upgrade's or another download's while either runs: refused at once.
    ManagerTestAccess::setUpgrading(m, true);
    EXPECT_EQ(m.DownloadLog(Url(folder.path()), "Device Log"), -1);
    ManagerTestAccess::setUpgrading(m, false);
    m.setIsDownloadLog(true);
    EXPECT_EQ(m.DownloadLog(Url(folder.path()), "Device Log"), -1);
    m.setIsDownloadLog(false);
    session.downloadLogChanges.store(0);

    ASSERT_EQ(m.DownloadLog(Url(folder.path()), "Device Log"), 0);
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 1; }, 10000));
    EXPECT_FALSE(m.getIsDownloadLog());
    EXPECT_EQ(session.downloadLogChanges.load(), 2);
    const QStringList files = QDir(QString::fromStdString(folder.path())).entryList(QDir::Files);
    ASSERT_EQ(files.size(), 1);
    EXPECT_TRUE(QRegularExpression("^Device Log_\\d{8}-\\d{6}\\.bin$").match(files[0]).hasMatch())
        << files[0].toStdString();
    EXPECT_EQ(Bytes(folder.file(files[0].toStdString())), simulator->LogContent({0}));
    EXPECT_TRUE(session.Shown("success: Device Log download successful."));
    // The window shows the file written: the manager names it.
    EXPECT_EQ(m.lastDownloadedLogFile().toStdString(), folder.file(files[0].toStdString()));

    // A name the catalogue does not have: the exception path, still one finished signal.
    ASSERT_EQ(m.DownloadLog(Url(folder.path()), "Crash Log"), 0);
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 2; }, 5000));
    EXPECT_TRUE(session.Shown("error: Crash Log download error: Can not find Crash Log name"));
    EXPECT_FALSE(m.getIsDownloadLog());
    EXPECT_EQ(m.lastDownloadedLogFile(), "") << "no file this time";

    // A folder that is not there: the reply came, but no file holds it.
    ASSERT_EQ(m.DownloadLog(Url(folder.file("missing")), "Device Log"), 0);
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 3; }, 10000));
    EXPECT_TRUE(session.Shown("error: Device Log: Failed to open file."));
    EXPECT_EQ(m.lastDownloadedLogFile(), "");

    // A status answer is the device's answer: saved (empty here) and reported successful.
    simulator->SetFault(0x75, sim::Fault{sim::Fault::Kind::kStatus, 0, 1, 0});
    session.ClearSpies();
    ASSERT_EQ(m.DownloadLog(Url(folder.path()), "Device Log"), 0);
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 4; }, 10000));
    EXPECT_EQ(session.Messages(),
              std::vector<std::string>{"success: Device Log download successful."});
    QDir(QString::fromStdString(folder.path())).removeRecursively();
    QDir().mkpath(QString::fromStdString(folder.path()));

    // No complete reply: the failure names the client's code.
    simulator->SetFault(0x75, sim::Fault{sim::Fault::Kind::kCloseMidReply, 0, 0, 0});
    ASSERT_EQ(m.DownloadLog(Url(folder.path()), "Device Log"), 0);
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 5; }, 10000));
    EXPECT_TRUE(session.Shown("error: Device Log download failed. return code: -2"));
    EXPECT_FALSE(m.getIsDownloadLog());
    EXPECT_EQ(m.lastDownloadedLogFile(), "");
    // The connection is gone with the broken reply: refused, without a word or a signal.
    const size_t shown = session.Messages().size();
    EXPECT_EQ(m.DownloadLog(Url(folder.path()), "Device Log"), -1);
    EXPECT_EQ(m.DownloadOperationLog(Url(folder.file("ops"))), -1);
    EXPECT_EQ(session.Messages().size(), shown);
    EXPECT_EQ(finished.load(), 5);
}

TEST(DeviceLog, CommandFromSetCommandAndLowerCaseOperationLog) {
    // The device log has only a set command; the operation log goes by its lower-case name.
    CraftedConfig config("Egret", {{"device_log,Device Log,,string,0x75,00,,",
                                    "device_log,Device Log,,string,,00,0x75,"},
                                   {"Operation Log", "operation log"}});
    auto simulator = StartWithLogs(config.configDir(), 3000);
    ManagerSession session("Egret", config.root());
    ASSERT_TRUE(session.Connect(simulator->Port()));
    const std::atomic<int>& finished = session.downloadsFinished;
    const std::atomic<int>& archived = session.operationLogsFinished;
    TempDir folder;
    ASSERT_EQ(session.m().DownloadLog(Url(folder.path()), "Device Log"), 0);
    ASSERT_TRUE(WaitFor([&] { return finished.load() == 1; }, 10000));
    EXPECT_TRUE(session.Shown("success: Device Log download successful."));
    ASSERT_EQ(session.m().DownloadOperationLog(Url(folder.file("ops.tar"))), 0);
    ASSERT_TRUE(WaitFor([&] { return archived.load() == 1; }, 20000));
    EXPECT_TRUE(session.lastOperationLogOk.load());
    EXPECT_TRUE(FileExists(folder.file("ops.tar")));
}

TEST(OperationLog, ArchiveHoldsTheFourPartsInOrder) {
    auto simulator = StartWithLogs(SourceDir() + "/Config", 5000);
    ManagerSession session("Egret");
    ASSERT_TRUE(session.Connect(simulator->Port()));
    const std::atomic<int>& archived = session.operationLogsFinished;
    TempDir folder;

    // The extension test is case-sensitive: "ops.TAR" becomes "ops.TAR.tar".
    ASSERT_EQ(session.m().DownloadOperationLog(Url(folder.file("ops.TAR"))), 0);
    ASSERT_TRUE(WaitFor([&] { return archived.load() == 1; }, 20000));
    ASSERT_TRUE(session.lastOperationLogOk.load());
    EXPECT_TRUE(session.Shown("success: Operation log download successful."));
    EXPECT_FALSE(session.m().getIsDownloadLog());
    EXPECT_FALSE(QDir(WorkFolder()).exists());
    const std::string archive = folder.file("ops.TAR.tar");
    ASSERT_TRUE(FileExists(archive));

    QProcess list;
    list.start("tar", {"-tf", QString::fromStdString(archive)});
    ASSERT_TRUE(list.waitForFinished(10000));
    const QStringList names =
        QString::fromUtf8(list.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(names.size(), 4);
    const char* prefixes[] = {"bsw_warning_", "asw_warning_", "bsw_error_", "asw_error_"};
    const std::vector<uint8_t> parts[] = {{1, 0, 0}, {1, 0, 1}, {1, 1, 0}, {1, 1, 1}};
    QProcess extract;
    extract.setWorkingDirectory(QString::fromStdString(folder.path()));
    extract.start("tar", {"-xf", QString::fromStdString(archive)});
    ASSERT_TRUE(extract.waitForFinished(10000));
    for (int n = 0; n < 4; ++n) {
        EXPECT_TRUE(QRegularExpression(QString("^") + prefixes[n] +
                                       "\\d{4}_\\d\\d_\\d\\d_\\d\\d_\\d\\d_\\d\\d\\.bin$")
                        .match(names[n])
                        .hasMatch())
            << names[n].toStdString();
        EXPECT_EQ(Bytes(folder.file(names[n].toStdString())), simulator->LogContent(parts[n]))
            << names[n].toStdString();
    }
    EXPECT_NE(simulator->LogContent(parts[0]), simulator->LogContent(parts[1]));
}

TEST(OperationLog, AFailingPartOrAMissingTarLeavesTheWorkFolder) {
    auto simulator = StartWithLogs(SourceDir() + "/Config", 5000);
    ManagerSession session("Egret");
    ASSERT_TRUE(session.Connect(simulator->Port()));
    const std::atomic<int>& archived = session.operationLogsFinished;
    TempDir folder;

    // tar cannot be found: the parts are fetched, the archive is not built.
    const QByteArray path = qgetenv("PATH");
    TempDir emptyBin;
    qputenv("PATH", QByteArray::fromStdString(emptyBin.path()));
    ASSERT_EQ(session.m().DownloadOperationLog(Url(folder.file("ops"))), 0);
    const bool ended = WaitFor([&] { return archived.load() == 1; }, 20000);
    qputenv("PATH", path);
    ASSERT_TRUE(ended);
    EXPECT_FALSE(session.lastOperationLogOk.load());
    EXPECT_TRUE(session.Shown("error: Operation log download failed."));
    EXPECT_FALSE(FileExists(folder.file("ops.tar")));
    EXPECT_EQ(QDir(WorkFolder()).entryList(QDir::Files).size(), 4);
    QDir(WorkFolder()).removeRecursively();

    // A request without a complete reply fails the whole operation after the archive is built.
    simulator->SetFault(0x75, sim::Fault{sim::Fault::Kind::kCloseMidReply, 0, 0, 0});
    ASSERT_EQ(session.m().DownloadOperationLog(Url(folder.file("ops"))), 0);
    ASSERT_TRUE(WaitFor([&] { return archived.load() == 2; }, 20000));
    EXPECT_FALSE(session.lastOperationLogOk.load());
    EXPECT_TRUE(FileExists(folder.file("ops.tar")));
    EXPECT_EQ(QDir(WorkFolder()).entryList(QDir::Files).size(), 4);
    EXPECT_EQ(QDir(WorkFolder()).path(), LidarUtilitiesManager::operationLogWorkFolder());
    EXPECT_FALSE(session.m().getIsDownloadLog());
    // Each part's result is kept: the first met the broken reply, the others a closed connection.
    EXPECT_EQ(session.m().getLastOperationLogResults(), std::vector<int>(4, -1));
    QDir(WorkFolder()).removeRecursively();

    // Refused parts: a success as designed, but each part's status is kept.
    ASSERT_TRUE(session.Connect(simulator->Port()));
    simulator->SetFault(0x75, sim::Fault{sim::Fault::Kind::kStatus, 0, 3, 0});
    ASSERT_EQ(session.m().DownloadOperationLog(Url(folder.file("refused"))), 0);
    ASSERT_TRUE(WaitFor([&] { return archived.load() == 3; }, 20000));
    EXPECT_TRUE(session.lastOperationLogOk.load());
    EXPECT_EQ(session.m().getLastOperationLogResults(), std::vector<int>(4, 3));
}

}  // namespace

// A catalogue without the operation log: the download says what is missing and asks nothing.
TEST(OperationLog, ACatalogueWithoutItIsToldAndNothingIsAsked) {
    const EditedCatalogueRoot root("Egret", "grep -v ',Operation Log,'");
    auto simulator = StartWithLogs(SourceDir() + "/Config", 5000);
    ManagerSession session("Egret", root.root());
    ASSERT_TRUE(session.Connect(simulator->Port()));
    TempDir folder;

    ASSERT_EQ(session.m().DownloadOperationLog(Url(folder.file("ops"))), 0);
    ASSERT_TRUE(WaitFor([&] { return session.operationLogsFinished.load() == 1; }, 20000));
    EXPECT_FALSE(session.lastOperationLogOk.load());
    EXPECT_TRUE(
        session.Shown("error: Operation Log download error: Can not find Operation Log name"));
    EXPECT_TRUE(session.Shown("error: Operation log download failed."));
    EXPECT_EQ(simulator->RequestCount(0x75), 0u);
    EXPECT_FALSE(session.m().getIsDownloadLog());
    EXPECT_FALSE(FileExists(folder.file("ops.tar")));
    QDir(WorkFolder()).removeRecursively();
}
