// lidarutil --hosts: one command against many lidars, each in a lidarutil of its own, against
// lidar-sim --count over loopback: the JSON line per lidar and its serial number, a lidar that
// does not answer, the files the children must not write, the report, -j, the usage errors and
// Ctrl-C.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QFile>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSet>
#include <QString>
#include <QStringList>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cli_support.h"
#include "process_support.h"
#include "test_support.h"

namespace {

using testsupport::ProgramProcess;
using testsupport::SimProcess;

const std::string kLidarutil = LIDAR_BINARY_DIR "/cli/lidarutil";

// The serial number the Egret catalogue gives its lidar (the SN variable's default).
QString catalogueSerialNumber() {
    const QString catalogue = QString::fromStdString(
        testsupport::ReadFile(testsupport::SourceDir() + "/Config/varID/Egret/Egret.csv"));
    for (const QString& row : catalogue.split('\n'))
        if (row.section(',', 6, 6) == "SN") return row.section(',', 16, 16);
    ADD_FAILURE() << "the Egret catalogue has no SN variable";
    return QString();
}

// lidar-sim --count N: lidar I answers with the catalogue's serial number whose last three
// characters are I in three digits (docs/simulator.md, "Many lidars").
QString simulatedSerialNumber(int index) {
    const QString base = catalogueSerialNumber();
    return base.left(base.size() - 3) + QString::number(index).rightJustified(3, '0');
}

// N simulated Egret lidars on consecutive ports, with the faults given.
class Lidars {
  public:
    explicit Lidars(int count, const std::vector<std::string>& faults = {}) {
        std::vector<std::string> args = {"--model",      "Egret",
                                         "--config-dir", testsupport::SourceDir() + "/Config",
                                         "--count",      std::to_string(count),
                                         "--port",       "0"};
        for (const std::string& fault : faults) args.insert(args.end(), {"--fault", fault});
        sim_ = std::make_unique<SimProcess>(args);
        for (int i = 0; i < count; ++i) {
            const QString line = QString::fromStdString(sim_->Line());
            EXPECT_TRUE(line.startsWith("listening on 127.0.0.1:")) << line.toStdString();
            hosts_ << "127.0.0.1:" + line.section(':', -1);
        }
    }
    // "127.0.0.1:PORT" of lidar I.
    const QStringList& hosts() const { return hosts_; }

  private:
    std::unique_ptr<SimProcess> sim_;
    QStringList hosts_;
};

// A loopback port on which nothing listens: one the system gave a socket that is closed again.
QString silentHost() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    EXPECT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    ::close(fd);
    return "127.0.0.1:" + QString::number(ntohs(address.sin_port));
}

// A folder that lidarutil runs in (its ./Config shows the shipped catalogues and keeps the
// command history) with a hosts file in it.
class FleetFolder : public testsupport::ConsoleFolder {
  public:
    explicit FleetFolder(const QStringList& hosts) {
        testsupport::WriteFile(file("hosts.txt"),
                               "# the bench\n" + hosts.join("\n").toStdString() + "\n");
    }
    std::string hostsFile() const { return file("hosts.txt"); }
};

// The JSON objects of lidarutil's standard output, one a line; a line that is no compact JSON
// object fails.
std::vector<QJsonObject> jsonLines(const QString& out) {
    std::vector<QJsonObject> objects;
    for (const QString& line : testsupport::lines(out)) {
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
        EXPECT_TRUE(document.isObject()) << line.toStdString();
        EXPECT_EQ(QString::fromUtf8(document.toJson(QJsonDocument::Compact)).size(), line.size())
            << "not compact: " << line.toStdString();
        objects.push_back(document.object());
    }
    return objects;
}

QString text(const QJsonObject& object, const char* key) {
    EXPECT_TRUE(object.value(key).isString()) << key;
    return object.value(key).toString();
}

int exitStatus(const QJsonObject& object) {
    EXPECT_TRUE(object.value("exit_status").isDouble());
    return object.value("exit_status").toInt(-100);
}

// Every lidar of `lidars` reported once, in any order, each with its own serial number and exit
// status 0.
void expectEverySucceeded(const std::vector<QJsonObject>& objects, const Lidars& lidars) {
    ASSERT_EQ(objects.size(), size_t(lidars.hosts().size()));
    QSet<QString> reported;
    for (const QJsonObject& object : objects) {
        const int index = lidars.hosts().indexOf(text(object, "host"));
        ASSERT_GE(index, 0) << text(object, "host").toStdString();
        reported << text(object, "host");
        EXPECT_EQ(text(object, "serial_number"), simulatedSerialNumber(index));
        EXPECT_EQ(exitStatus(object), 0) << text(object, "error").toStdString();
        EXPECT_EQ(text(object, "error"), "");
        EXPECT_FALSE(text(object, "summary").isEmpty());
    }
    EXPECT_EQ(reported.size(), lidars.hosts().size());
}

TEST(Fleet, InfoOnEveryLidarGivesALineEachWithItsSerialNumberAndTheReportHoldsTheSame) {
    Lidars lidars(4);
    FleetFolder folder(lidars.hosts());
    // The report's path is relative: it names a file of the folder lidarutil was started in.
    const testsupport::Outcome run = testsupport::lidarutil(
        {"--hosts", "hosts.txt", "--report", "fleet.jsonl", "info"}, folder.path());
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    expectEverySucceeded(jsonLines(run.out), lidars);
    EXPECT_EQ(QString::fromStdString(testsupport::ReadFile(folder.file("fleet.jsonl"))), run.out);
    // The closing table names every lidar with its serial number, then the total.
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(
            run.err.contains(QRegularExpression(QRegularExpression::escape(lidars.hosts()[i]) +
                                                " +" + simulatedSerialNumber(i) + " +exit 0")))
            << run.err.toStdString();
    }
    EXPECT_TRUE(testsupport::lines(run.err).last() == "4 lidars: 4 succeeded, 0 failed")
        << run.err.toStdString();
    // Not on a terminal: no progress drawn.
    EXPECT_FALSE(run.err.contains("\x1b[")) << run.err.toStdString();
}

TEST(Fleet, ALidarThatDoesNotAnswerIsReportedWithItsErrorAndTheOthersSucceed) {
    Lidars lidars(3);
    const QString silent = silentHost();
    FleetFolder folder({lidars.hosts()[0], silent, lidars.hosts()[1], lidars.hosts()[2]});
    const testsupport::Outcome run = testsupport::lidarutil(
        {"--hosts", QString::fromStdString(folder.hostsFile()), "read", "Device Info"});
    EXPECT_EQ(run.exitCode, 1) << run.err.toStdString();
    std::vector<QJsonObject> objects = jsonLines(run.out);
    ASSERT_EQ(objects.size(), 4u) << run.out.toStdString();
    const auto silentLine = std::find_if(objects.begin(), objects.end(), [&](const QJsonObject& o) {
        return o.value("host").toString() == silent;
    });
    ASSERT_NE(silentLine, objects.end()) << run.out.toStdString();
    EXPECT_EQ(exitStatus(*silentLine), 1);
    EXPECT_EQ(text(*silentLine, "serial_number"), "");
    EXPECT_TRUE(text(*silentLine, "error").contains("Connection", Qt::CaseInsensitive))
        << text(*silentLine, "error").toStdString();
    objects.erase(silentLine);
    expectEverySucceeded(objects, lidars);
    EXPECT_TRUE(testsupport::lines(run.err).last() == "4 lidars: 3 succeeded, 1 failed")
        << run.err.toStdString();
}

// Runs lidarutil in `folder` with a fresh home of its own (where the manager keeps its
// connection settings).
testsupport::Outcome lidarutilAtHome(const QStringList& arguments, const QString& folder,
                                     const QString& home) {
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert("HOME", home);
    environment.remove("XDG_CONFIG_HOME");
    return testsupport::lidarutil(arguments, folder, environment);
}

// The files a connection and a raw command leave: the connection settings under the home, the
// command history in the folder's ./Config.
struct LeftFiles {
    bool settings = false;
    bool history = false;
};

LeftFiles filesLeftBy(const QStringList& arguments, const QStringList& hosts) {
    FleetFolder folder(hosts);
    testsupport::TempDir home;
    const testsupport::Outcome run =
        lidarutilAtHome(arguments, folder.path(), QString::fromStdString(home.path()));
    EXPECT_EQ(run.exitCode, 0) << run.err.toStdString();
    LeftFiles left;
    left.settings =
        testsupport::FileExists(home.path() + "/Documents/ZephyrDataFiles/RecvSettings.ini");
    left.history = testsupport::FileExists(folder.file("Config/command_log_file.csv"));
    return left;
}

TEST(Fleet, SendInAFleetWritesNoHistoryAndNoChildSavesTheConnectionSettings) {
    Lidars lidars(3);
    const LeftFiles fleet = filesLeftBy({"--hosts", "hosts.txt", "send", "07"}, lidars.hosts());
    EXPECT_FALSE(fleet.settings);
    EXPECT_FALSE(fleet.history);
    // The same command against one lidar writes both: the checks above can see them.
    const QString one = lidars.hosts()[0];
    const LeftFiles single = filesLeftBy(
        {"--host", one.section(':', 0, 0), "--port", one.section(':', 1), "send", "07"}, {one});
    EXPECT_TRUE(single.settings);
    EXPECT_TRUE(single.history);
}

TEST(Fleet, OneLidarAtATimeGoesInTheFileOrderAndFourAtATimeReachEveryLidarToo) {
    Lidars lidars(4);
    FleetFolder folder(lidars.hosts());
    const testsupport::Outcome serial =
        testsupport::lidarutil({"--hosts", "hosts.txt", "-j", "1", "info"}, folder.path());
    EXPECT_EQ(serial.exitCode, 0) << serial.err.toStdString();
    const std::vector<QJsonObject> inOrder = jsonLines(serial.out);
    expectEverySucceeded(inOrder, lidars);
    for (size_t i = 0; i < inOrder.size(); ++i)
        EXPECT_EQ(text(inOrder[i], "host"), lidars.hosts()[int(i)]);

    const testsupport::Outcome parallel =
        testsupport::lidarutil({"--hosts", "hosts.txt", "-j4", "info"}, folder.path());
    EXPECT_EQ(parallel.exitCode, 0) << parallel.err.toStdString();
    expectEverySucceeded(jsonLines(parallel.out), lidars);
}

TEST(Fleet, ARelativePathReachesEveryChildAsThePathOfTheUsersFolder) {
    const QStringList hosts = {"127.0.0.1:2368", "127.0.0.1:2369"};
    FleetFolder folder(hosts);
    // Each child refuses the missing package before connecting, naming the path it was given.
    const testsupport::Outcome run =
        testsupport::lidarutil({"--hosts", "hosts.txt", "upgrade", "missing.bin"}, folder.path());
    EXPECT_EQ(run.exitCode, 1) << run.err.toStdString();
    const std::vector<QJsonObject> objects = jsonLines(run.out);
    ASSERT_EQ(objects.size(), 2u) << run.out.toStdString();
    const QString userFolder = QFileInfo(folder.path()).canonicalFilePath();
    for (const QJsonObject& object : objects) {
        EXPECT_EQ(exitStatus(object), 2);
        EXPECT_TRUE(text(object, "error").contains(" " + userFolder + "/missing.bin:"))
            << text(object, "error").toStdString();
    }
}

TEST(Fleet, UsageErrorsAreRefusedBeforeAnyLidarIsReached) {
    FleetFolder folder({"127.0.0.1:2368", "10.0.0.2"});
    testsupport::WriteFile(folder.file("bad-hosts.txt"), "10.0.0.1\n\n10.0.0.2:99999\n");
    struct Case {
        QStringList arguments;
        QString says;
    };
    const std::vector<Case> cases = {
        {{"--hosts", "hosts.txt", "--host", "10.0.0.3", "info"}, "--host"},
        {{"--hosts", "bad-hosts.txt", "info"}, "line 3"},
        {{"--hosts", "missing.txt", "info"}, "missing.txt"},
        {{"--hosts", "hosts.txt", "-j", "0", "info"}, "-j"},
        {{"--hosts", "hosts.txt", "set", "Return Mode=1"}, "info, read"},
        {{"--hosts", "hosts.txt", "--model", "Osprey", "info"}, "unknown model 'Osprey'"},
        {{"-j", "2", "info"}, "--hosts"},
        {{"--report", "r.jsonl", "info"}, "--hosts"},
        {{"--hosts", "hosts.txt", "--report", "no-such-folder/r.jsonl", "info"}, "r.jsonl"},
        {{"--hosts", "hosts.txt", "--report", "hosts.txt", "info"}, "over the hosts file"},
        {{"--hosts", "hosts.txt", "export"}, "export needs -o FOLDER"},
        {{"--hosts", "hosts.txt", "export", "-o", "hosts.txt"}, "hosts.txt is none"},
    };
    for (const Case& c : cases) {
        const testsupport::Outcome run = testsupport::lidarutil(c.arguments, folder.path());
        const std::string what = c.arguments.join(' ').toStdString();
        EXPECT_EQ(run.exitCode, 2) << what << ": " << run.err.toStdString();
        EXPECT_TRUE(run.err.contains(c.says)) << what << ": " << run.err.toStdString();
        EXPECT_TRUE(run.out.isEmpty()) << what << ": " << run.out.toStdString();
    }
}

// lidarutil --hosts -j 2 in a process group of its own, as a shell runs a foreground job: a
// Ctrl-C at the terminal signals the whole group. The first lidar answers at once, the three
// others are slow to give their device information: when the first lidar's line is out, the
// second lidar has been running since the start, the third has just started and the fourth
// waits.
class InterruptedFleet {
  public:
    InterruptedFleet() : fast_(1), slow_(3, {"0x07:delay=400"}) {
        hosts_ = fast_.hosts() + slow_.hosts();
        folder_ = std::make_unique<FleetFolder>(hosts_);
        testsupport::ProcessSetup setup;
        setup.workingDirectory = folder_->path().toStdString();
        setup.ownGroup = true;
        setup.stopSignal = SIGKILL;
        fleet_ = std::make_unique<ProgramProcess>(
            kLidarutil, std::vector<std::string>{"--hosts", "hosts.txt", "-j", "2", "info"}, setup);
    }
    // The first lidar's line, then Ctrl-C at the terminal: the fleet warns.
    void interruptAfterTheFirstLidar() {
        const std::vector<QJsonObject> first = jsonLines(QString::fromStdString(fleet_->Line()));
        ASSERT_EQ(first.size(), 1u);
        EXPECT_EQ(text(first[0], "host"), hosts_[0]);
        fleet_->SignalGroup(SIGINT);
        EXPECT_TRUE(fleet_->WaitForErrorLine("stopping now leaves", &warning_));
    }
    ProgramProcess& fleet() { return *fleet_; }
    QString warning() const { return QString::fromStdString(warning_); }
    // The lines printed after the first, by host.
    std::map<QString, QJsonObject> laterLines() {
        const QString rest = QString::fromStdString(fleet_->RestOfOutput());
        std::map<QString, QJsonObject> byHost;
        for (const QJsonObject& line : jsonLines(rest)) byHost[text(line, "host")] = line;
        EXPECT_EQ(byHost.size(), 3u) << rest.toStdString();
        return byHost;
    }
    // "127.0.0.1:PORT" of the slow lidar I, and its serial number.
    const QString& slowHost(int index) const { return slow_.hosts()[index]; }

  private:
    Lidars fast_;
    Lidars slow_;
    QStringList hosts_;
    std::unique_ptr<FleetFolder> folder_;
    std::unique_ptr<ProgramProcess> fleet_;
    std::string warning_;
};

TEST(Fleet, TheFirstCtrlCOnlyWarnsWhatStoppingWouldLeaveAndEveryLidarStillSucceeds) {
    InterruptedFleet run;
    run.interruptAfterTheFirstLidar();
    EXPECT_TRUE(
        run.warning().contains("1 lidar done, 2 running (their command cut short), 1 not started"))
        << run.warning().toStdString();
    EXPECT_EQ(run.fleet().WaitForExit(), 0);
    std::map<QString, QJsonObject> later = run.laterLines();
    for (int i = 0; i < 3; ++i) {
        const QJsonObject& line = later[run.slowHost(i)];
        EXPECT_EQ(exitStatus(line), 0) << text(line, "error").toStdString();
        EXPECT_EQ(text(line, "serial_number"), simulatedSerialNumber(i));
    }
    const QString errors = QString::fromStdString(run.fleet().RestOfErrors());
    EXPECT_TRUE(errors.contains("4 lidars: 4 succeeded, 0 failed")) << errors.toStdString();
}

TEST(Fleet, TheSecondCtrlCAbandonsTheRunningLidarsAndStartsNoOther) {
    InterruptedFleet run;
    run.interruptAfterTheFirstLidar();
    run.fleet().SignalGroup(SIGINT);
    EXPECT_EQ(run.fleet().WaitForExit(), 1);
    std::map<QString, QJsonObject> later = run.laterLines();
    for (int i = 0; i < 2; ++i) {
        const QJsonObject& line = later[run.slowHost(i)];
        EXPECT_EQ(exitStatus(line), -1);
        EXPECT_EQ(text(line, "error"), "abandoned by Ctrl-C");
    }
    EXPECT_EQ(exitStatus(later[run.slowHost(2)]), -1);
    EXPECT_TRUE(text(later[run.slowHost(2)], "error").startsWith("not started"));
    const QString errors = QString::fromStdString(run.fleet().RestOfErrors());
    EXPECT_TRUE(errors.contains("4 lidars: 1 succeeded, 0 failed, 2 abandoned, 1 not started"))
        << errors.toStdString();
}

}  // namespace

// Profiles across a fleet: one file per lidar named by its serial number, a module name that is
// also a folder's name stays a module, diff's status 3 is the fleet's, and a profile that holds
// a lidar's own address is refused by every lidar before anything is written.
TEST(Fleet, ProfilesGoToOneFilePerLidarAndOneAddressIsNeverGivenToAll) {
    const Lidars lidars(3);
    FleetFolder folder(lidars.hosts());
    ASSERT_TRUE(QDir(folder.path()).mkdir("Operation"));
    const testsupport::Outcome exported = testsupport::lidarutil(
        {"--hosts", "hosts.txt", "export", "Operation", "-o", "Operation"}, folder.path());
    EXPECT_EQ(exported.exitCode, 0) << exported.err.toStdString();
    for (int i = 0; i < 3; ++i)
        EXPECT_TRUE(
            QFileInfo(folder.path() + "/Operation/" + simulatedSerialNumber(i) + ".json").isFile())
            << i;

    // Lidar 0's profile with another spin rate: every lidar differs from it in that field.
    const QString source = folder.path() + "/Operation/" + simulatedSerialNumber(0) + ".json";
    QString profile = QString::fromStdString(testsupport::ReadFile(source.toStdString()));
    const int spin = profile.indexOf("\"bytes\": \"0258\"");  // 600 rpm, the first setting
    ASSERT_GT(spin, 0);
    profile.replace(spin, 15, "\"bytes\": \"04b0\"");
    testsupport::WriteFile(folder.file("faster.json"), profile.toStdString());
    const testsupport::Outcome differs =
        testsupport::lidarutil({"--hosts", "hosts.txt", "diff", "faster.json"}, folder.path());
    EXPECT_EQ(differs.exitCode, 3) << differs.err.toStdString();
    for (const QJsonObject& object : jsonLines(differs.out)) {
        EXPECT_EQ(exitStatus(object), 3);
        EXPECT_EQ(text(object, "summary"), "1 field(s) differ from " +
                                               QFileInfo(folder.path()).canonicalFilePath() +
                                               "/faster.json");
    }

    const testsupport::Outcome own =
        testsupport::lidarutil({"--host", lidars.hosts()[0].section(':', 0, 0), "--port",
                                lidars.hosts()[0].section(':', 1), "export", "Network",
                                "--include-network", "-o", "own.json"},
                               folder.path());
    ASSERT_EQ(own.exitCode, 0) << own.err.toStdString();
    const testsupport::Outcome refused =
        testsupport::lidarutil({"--hosts", "hosts.txt", "apply", "own.json"}, folder.path());
    EXPECT_EQ(refused.exitCode, 1);
    for (const QJsonObject& object : jsonLines(refused.out)) {
        EXPECT_EQ(exitStatus(object), 2);
        EXPECT_TRUE(text(object, "error").contains("holds the lidar's own IP Address"))
            << text(object, "error").toStdString();
    }
}
