// lidarutil's console and transfers as a person or a script runs them: send and history, upgrade,
// log and oplog, their refusals before connecting and their outcomes, against the embedded
// simulator or lidar-sim.

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <string>
#include <utility>

#include "../cli/progress.h"
#include "cli_support.h"
#include "test_support.h"

using testsupport::ConsoleFolder;
using testsupport::lidarutil;
using testsupport::lines;
using testsupport::Outcome;
using testsupport::RunningLidarutil;
using testsupport::SimulatorProcess;

TEST(Lidarutil, SendPrintsTheReplyAndHistoryKeepsTheCommands) {
    const ConsoleFolder folder;
    const Outcome sent = lidarutil({"send", "0x75", "0x01", "02", "0X3"}, folder.path());
    ASSERT_EQ(sent.exitCode, 0) << sent.err.toStdString();
    // The embedded lidar's logs are 4096 bytes: the payload shown is cut at 1024.
    EXPECT_TRUE(lines(sent.out).contains("header:  56 52 75 00 00 00 10 00"))
        << sent.out.toStdString();
    EXPECT_EQ(lines(sent.out).filter("payload: ").front().size(), 9 + 1024 * 3 - 1);
    EXPECT_TRUE(sent.err.contains("only the first 1024 bytes are displayed"));

    // A header or payload that is no hexadecimal byte is refused before connecting (nothing
    // answers on port 1: a connection attempt would fail with status 1).
    for (const auto& [arguments, said] :
         {std::pair{QStringList{"send", "zz"}, "error: Incorrect VRC header was entered."},
          std::pair{QStringList{"send", "+7"}, "error: Incorrect VRC header was entered."},
          std::pair{QStringList{"send", "07", "1g"},
                    "error: Incorrect VRC payload was entered."}}) {
        const Outcome bad =
            lidarutil(QStringList{"--host", "127.0.0.1", "--port", "1"} + arguments, folder.path());
        EXPECT_EQ(bad.exitCode, 2);
        EXPECT_EQ(bad.err, QString(said) + " Parsing failed.\n");
    }

    const Outcome history = lidarutil({"--json", "history"}, folder.path());
    ASSERT_EQ(history.exitCode, 0) << history.err.toStdString();
    const QJsonArray rows = QJsonDocument::fromJson(history.out.toUtf8()).array();
    ASSERT_EQ(rows.size(), 1);
    EXPECT_EQ(rows[0].toObject()["command"].toString(), "75");
    EXPECT_EQ(rows[0].toObject()["payload"].toString(), "01 02 3");
    EXPECT_TRUE(testsupport::FileExists(folder.file("Config/command_log_file.csv")));
}

TEST(Lidarutil, UpgradeLogAndOperationLogEndToEnd) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir.file("fw.bin"), std::string(150 * 1024 + 7, '\x5A'));
    const Outcome upgrade = lidarutil({"upgrade", QString::fromStdString(dir.file("fw.bin"))});
    EXPECT_EQ(upgrade.exitCode, 0) << upgrade.err.toStdString();
    EXPECT_TRUE(upgrade.err.contains("upgrade: 100% (150/150 KiB)")) << upgrade.err.toStdString();
    EXPECT_TRUE(
        upgrade.err.contains("Upgrade package transmitted successfully. The lidar will "
                             "automatically reboot within 10 seconds."));
    EXPECT_EQ(lines(upgrade.err).last(),
              "restart sent: the lidar starts again with the new firmware");

    const SimulatorProcess failing("Egret", {"0x83:fail-chunk=2:4"});
    const Outcome failed = lidarutil({"--host", "127.0.0.1", "--port", failing.port(), "upgrade",
                                      QString::fromStdString(dir.file("fw.bin"))});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_TRUE(failed.err.contains("error: Upgrade package transfer failed or is terminated."))
        << failed.err.toStdString();
    EXPECT_EQ(lines(failed.err).last(),
              "error: the transfer failed: the lidar answered with status 4 (busy)");
    const Outcome missing = lidarutil({"upgrade", QString::fromStdString(dir.file("none.bin"))});
    EXPECT_EQ(missing.exitCode, 2);
    testsupport::WriteFile(dir.file("empty.bin"), "");
    const Outcome empty = lidarutil({"upgrade", QString::fromStdString(dir.file("empty.bin"))});
    EXPECT_EQ(empty.exitCode, 2);
    EXPECT_TRUE(empty.err.contains("empty.bin is empty; nothing was sent"))
        << empty.err.toStdString();
    EXPECT_FALSE(empty.err.contains("connecting"));
    // Only a firmware upgrade variable starts a transfer: Reset's command would reset the lidar.
    const Outcome reset =
        lidarutil({"upgrade", QString::fromStdString(dir.file("fw.bin")), "--variable", "Reset"});
    EXPECT_EQ(reset.exitCode, 2);
    EXPECT_TRUE(reset.err.contains("Reset is not a firmware upgrade variable"))
        << reset.err.toStdString();
    EXPECT_FALSE(reset.err.contains("connecting"));

    const Outcome log =
        lidarutil({"log", "Device Log", "--dir", QString::fromStdString(dir.path())});
    ASSERT_EQ(log.exitCode, 0) << log.err.toStdString();
    // Again at once: the same second's file is written again, and that is still a success.
    const Outcome again =
        lidarutil({"log", "Device Log", "--dir", QString::fromStdString(dir.path())});
    EXPECT_EQ(again.exitCode, 0) << again.err.toStdString();
    EXPECT_TRUE(
        log.out.contains(QRegularExpression("/Device Log_\\d{8}-\\d{6}\\.bin \\(4096 bytes\\)")))
        << log.out.toStdString();
    const Outcome unknown = lidarutil({"log", "Crash Log"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("its logs are: Device Log, Operation Log"))
        << unknown.err.toStdString();

    const Outcome oplog = lidarutil({"oplog", QString::fromStdString(dir.file("ops"))});
    ASSERT_EQ(oplog.exitCode, 0) << oplog.err.toStdString();
    EXPECT_TRUE(oplog.out.contains("/ops.tar (")) << oplog.out.toStdString();
    EXPECT_TRUE(testsupport::FileExists(dir.file("ops.tar")));
    // Packed under a name of its own and moved into place: nothing of that name is left.
    EXPECT_TRUE(QDir(QString::fromStdString(dir.path()))
                    .entryList({".*"}, QDir::Files | QDir::Hidden)
                    .isEmpty());
}

// A target that cannot be written, or a path that names no file, is refused before connecting:
// status 2, the cause in words, the same for every command that writes.
TEST(Lidarutil, TransferTargetsAndArgumentsAreCheckedBeforeConnecting) {
    testsupport::TempDir dir;
    const QString folder = QString::fromStdString(dir.path());
    testsupport::WriteFile(dir.file("fw.bin"), "firmware");
    const QString file = QString::fromStdString(dir.file("fw.bin"));
    const std::pair<QStringList, QString> refusals[] = {
        {{"log", "Device Log", "--dir", "/proc"},
         "lidarutil: cannot write into /proc: the folder takes no new files"},
        {{"oplog", "/proc/ops"},
         "lidarutil: cannot write into /proc: the folder takes no new files"},
        {{"monitor", "--record", "/sys"}, "lidarutil: cannot write into /sys: permission denied"},
        {{"log", "Device Log", "--dir", file}, "lidarutil: " + file + " is not a folder"},
        {{"monitor", "--record", folder + "/missing"},
         "lidarutil: no such folder: " + folder + "/missing"},
        {{"oplog", "/no/such/folder/ops"}, "lidarutil: no such folder: /no/such/folder"},
        {{"oplog", ""}, "lidarutil: oplog needs an archive path"},
        {{"oplog", folder}, "lidarutil: " + folder + " is a folder; oplog needs the archive's"},
        {{"oplog", folder + "/"}, "lidarutil: " + folder + "/ is a folder; oplog needs the"},
        {{"upgrade", ""}, "needs a package file (an empty name names none)"},
        {{"upgrade", folder}, "lidarutil: cannot read the package " + folder + ": it is a folder"},
        {{"upgrade", folder + "/none.bin"},
         "lidarutil: cannot read the package " + folder + "/none.bin: No such file or directory"},
        {{"--model", "Heron-VRC", "upgrade", file},
         "lidarutil: Heron-VRC is upgraded with 'heron upgrade PACKAGE'"},
        {{"--host", "127.0.0.1", "--port", "abc", "info"},
         "--port: needs a port number (1-65535), and 'abc' is not a number"},
        {{"--host", "127.0.0.1", "--port", "70000", "info"},
         "--port: needs a port number from 1 to 65535, not 70000"},
    };
    for (const auto& [arguments, said] : refusals) {
        const Outcome refused = lidarutil(arguments);
        EXPECT_EQ(refused.exitCode, 2) << arguments.join(' ').toStdString();
        EXPECT_TRUE(refused.err.contains(said)) << refused.err.toStdString();
        EXPECT_FALSE(refused.err.contains("connecting")) << refused.err.toStdString();
    }
    EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{"fw.bin"});
}

// A download that cannot be kept whole says so last, never "successful", and leaves nothing that
// passes for the log; an archive already at the path stays as it was.
TEST(Lidarutil, LogsThatCannotBeKeptWholeAreFailures) {
    testsupport::TempDir dir;
    const QString folder = QString::fromStdString(dir.path());
    const QString archive = folder + "/ops.tar";
    testsupport::WriteFile(dir.file("ops.tar"), "an earlier log");

    // The lidar refuses every request of a log: the manager saves or packs the empty answers and
    // calls them a success.
    const SimulatorProcess refusing("Egret", {"0x75:status=2"});
    const Outcome refused =
        lidarutil({"--host", "127.0.0.1", "--port", refusing.port(), "oplog", folder + "/ops"});
    EXPECT_EQ(refused.exitCode, 1);
    for (const char* part : {"bsw_warning", "asw_warning", "bsw_error", "asw_error"})
        EXPECT_TRUE(refused.err.contains(QString("error: part not given, ") + part +
                                         ": the lidar answered with status 2 (unknown command)"))
            << part << "\n"
            << refused.err.toStdString();
    EXPECT_EQ(lines(refused.err).last(),
              "error: no part of the operation log came; no new archive was written; " + archive +
                  " is left as it was");
    const Outcome log = lidarutil(
        {"--host", "127.0.0.1", "--port", refusing.port(), "log", "Device Log", "--dir", folder});
    EXPECT_EQ(log.exitCode, 1);
    EXPECT_EQ(lines(log.err).last(),
              "error: Device Log not downloaded: the lidar answered with status 2 (unknown "
              "command); no file was kept");
    for (const Outcome& failed : {refused, log}) {
        EXPECT_FALSE(failed.err.contains("successful")) << failed.err.toStdString();
        EXPECT_TRUE(failed.out.isEmpty());
    }

    // No complete reply: the manager fails and keeps its work folder, which is not named (the
    // next successful run deletes it).
    const SimulatorProcess silent("Egret", {"0x75:close-mid-reply"});
    const Outcome lost =
        lidarutil({"--host", "127.0.0.1", "--port", silent.port(), "oplog", folder + "/ops"});
    EXPECT_EQ(lost.exitCode, 1);
    EXPECT_TRUE(lost.err.contains("error: Operation log download failed.\n"));
    EXPECT_EQ(lines(lost.err).last(),
              "error: no part of the operation log came; no new archive was written; " + archive +
                  " is left as it was");
    QDir(QDir::homePath() + "/Documents/operation_log").removeRecursively();
    const Outcome cut = lidarutil(
        {"--host", "127.0.0.1", "--port", silent.port(), "log", "Device Log", "--dir", folder});
    EXPECT_EQ(cut.exitCode, 1);
    EXPECT_EQ(lines(cut.err).last(),
              "error: Device Log not downloaded: the lidar closed the connection (result -2)");

    EXPECT_EQ(testsupport::ReadFile(dir.file("ops.tar")), "an earlier log");
    EXPECT_EQ(QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{"ops.tar"});
}

namespace {

// lidar-sim --serial with faults: the Wren's two lines on pseudo-terminals.
class SerialSimulatorProcess {
  public:
    explicit SerialSimulatorProcess(const QStringList& faults) {
        QStringList arguments{"--model", "Wren", "--serial"};
        for (const QString& fault : faults) arguments << "--fault" << fault;
        process_.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
        process_.start(LIDAR_BINARY_DIR "/sim/lidar-sim", arguments);
        for (int waited = 0; uart_.isEmpty() && waited < 100; ++waited) {
            process_.waitForReadyRead(100);
            while (process_.canReadLine()) {
                const QString line = QString::fromUtf8(process_.readLine()).trimmed();
                if (line.startsWith("rs485 ")) rs485_ = line.mid(6);
                if (line.startsWith("uart ")) uart_ = line.mid(5);
            }
        }
    }
    ~SerialSimulatorProcess() {
        process_.kill();
        process_.waitForFinished();
    }
    QStringList lines() const { return {"--model", "Wren", "--rs485", rs485_, "--uart", uart_}; }

  private:
    QProcess process_;
    QString rs485_;
    QString uart_;
};

}  // namespace

// A transfer's outcome is its last word, with the reason of a failure in a sentence.
TEST(Lidarutil, TransferOutcomesComeLastAndSayWhy) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir.file("fw.bin"), std::string(20 * 1024, '\x5A'));
    const QString package = QString::fromStdString(dir.file("fw.bin"));

    // The restart after the transfer is refused: one error line says so, and the upgrade is not
    // the success it would be with a restarted lidar.
    const SimulatorProcess noRestart("Egret", {"0x10:status=5"});
    const QStringList upgrade{"--host",         "127.0.0.1", "--port",
                              noRestart.port(), "upgrade",   package};
    const Outcome upgraded = lidarutil(upgrade);
    EXPECT_EQ(upgraded.exitCode, 1) << upgraded.err.toStdString();
    const QStringList said = lines(upgraded.err);
    const int finalProgress = said.indexOf("upgrade: 100% (20/20 KiB)");
    const int outcome = said.indexOf(
        "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 "
        "seconds.");
    EXPECT_TRUE(finalProgress >= 0 && finalProgress < outcome) << upgraded.err.toStdString();
    EXPECT_EQ(said.filter(QRegularExpression("^error: ")),
              QStringList{"error: Auto reboot failed: the package was transmitted, but the lidar "
                          "was not restarted: the lidar answered with status 5 (device "
                          "failure). Please reboot lidar manually."});
    EXPECT_EQ(said.last(), said.filter(QRegularExpression("^error: ")).value(0));

    // Ctrl-C in the pause before the restart warns; a second one stops the manager, which says
    // that it sent no restart (the refusing lidar's answer would have said otherwise). A lidar
    // holding a package that waits for its restart takes no other: a fresh one.
    const SimulatorProcess fresh("Egret", {"0x10:status=5"});
    RunningLidarutil interrupted(
        {"--host", "127.0.0.1", "--port", fresh.port(), "upgrade", package});
    ASSERT_TRUE(interrupted.waitForError("within 10 seconds.")) << interrupted.err().toStdString();
    interrupted.interrupt();
    ASSERT_TRUE(interrupted.waitForError("press Ctrl-C again to abandon the restart"))
        << interrupted.err().toStdString();
    interrupted.interrupt();
    EXPECT_EQ(interrupted.finish(5000), 1);
    const QString& err = interrupted.err();
    EXPECT_EQ(lines(err).last(),
              "error: Upgrade abandoned before the automatic reboot: the package was transmitted, "
              "but the lidar was not restarted. Please reboot lidar manually.")
        << err.toStdString();
    EXPECT_FALSE(err.contains("Auto reboot failed")) << err.toStdString();

    // The Wren's serial transfer refused: the design's code, then what it means.
    const SerialSimulatorProcess wren({"0x05:status=4"});
    const Outcome serial = lidarutil(wren.lines() + QStringList{"upgrade", package});
    EXPECT_EQ(serial.exitCode, 1);
    EXPECT_TRUE(
        serial.err.contains("error: Upgrade package transfer failed or is terminated. error:4"))
        << serial.err.toStdString();
    EXPECT_EQ(lines(serial.err).last(),
              "error: the transfer failed: the lidar answered with status 4 (busy)");
}

TEST(Lidarutil, SendNamesARefusalAndTheHistoryFileIsNeverLost) {
    // A network lidar refuses the command (hexadecimal letters of either case pass): its status
    // in words.
    const ConsoleFolder folder;
    const SimulatorProcess refusing("Egret", {"0x07:status=2"});
    const Outcome refused =
        lidarutil({"--host", "127.0.0.1", "--port", refusing.port(), "send", "07", "af", "AF"},
                  folder.path());
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(lines(refused.err).last(),
              "error: the lidar answered with status 2 (unknown command)")
        << refused.err.toStdString();

    // A history file with a quote never closed: named with its line, kept aside, not rewritten.
    const std::string file = folder.file("Config/command_log_file.csv");
    const std::string unclosed =
        "Time,Command Code,Payload\n2026-01-02 03:04:05,07,01\n2026-01-02 03:04:06,\"08,02\n";
    testsupport::WriteFile(file, unclosed);
    const Outcome sent = lidarutil({"send", "0x07"}, folder.path());
    EXPECT_EQ(sent.exitCode, 0) << sent.err.toStdString();
    EXPECT_TRUE(sent.err.contains("a quote opened on line 3 of ./Config/command_log_file.csv"))
        << sent.err.toStdString();
    EXPECT_TRUE(sent.err.contains("moved aside to ./Config/command_log_file.csv.unreadable"));
    EXPECT_EQ(testsupport::ReadFile(file + ".unreadable"), unclosed);
    const Outcome history = lidarutil({"history"}, folder.path());
    EXPECT_EQ(history.exitCode, 0) << history.err.toStdString();
    EXPECT_EQ(lines(history.out).size(), 3);  // the heading, the new command, the one kept

    // A folder where the file should be: said about the path, status 1.
    const ConsoleFolder other;
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(other.file("Config/command_log_file.csv"))));
    const Outcome folderHistory = lidarutil({"history"}, other.path());
    EXPECT_EQ(folderHistory.exitCode, 1);
    EXPECT_TRUE(folderHistory.err.contains("./Config/command_log_file.csv is a folder, not a file"))
        << folderHistory.err.toStdString();
}

TEST(Lidarutil, ProgressRatesAboveTenMiBPerSecondAreInMiB) {
    EXPECT_EQ(cli::rateText(10 * 1024, "KiB"), "10240 KiB/s");
    EXPECT_EQ(cli::rateText(10 * 1024 + 1, "KiB"), "10.0 MiB/s");
    EXPECT_EQ(cli::rateText(30 * 1024 + 512, "KiB"), "30.5 MiB/s");
    EXPECT_EQ(cli::rateText(20000.4, "rows"), "20000 rows/s");
}
