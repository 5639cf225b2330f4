// lidarutil and lidar-sim as installed: copied with the shipped catalogues into a prefix of
// their own (bin/, share/lidar-utilities/Config), run from an empty folder by users with homes of
// their own.

#include <gtest/gtest.h>

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <cstdlib>
#include <string>

#include "cli_support.h"
#include "test_support.h"

using testsupport::lines;
using testsupport::Outcome;

namespace {

bool run(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

// A prefix holding the two programs and the shipped catalogues (no command history), as the
// install lays them out.
class InstalledPrefix {
  public:
    InstalledPrefix() {
        const std::string bin = dir_.file("bin");
        const std::string config = dir_.file("share/lidar-utilities/Config");
        const std::string source = testsupport::SourceDir() + "/Config";
        EXPECT_TRUE(run(
            "mkdir -p '" + bin + "' '" + config +
            "' && cp '" LIDAR_BINARY_DIR "/cli/lidarutil' '" LIDAR_BINARY_DIR "/sim/lidar-sim' '" +
            bin + "' && cp -r '" + source + "/varID' '" + source + "/feature_config.csv' '" +
            source + "/auth_config.csv' '" + config + "' && chmod -R a-w '" + dir_.path() + "'"));
    }
    ~InstalledPrefix() { run("chmod -R u+w '" + dir_.path() + "'"); }
    QString program(const QString& name) const {
        return QString::fromStdString(dir_.file("bin/")) + name;
    }
    QString config() const {
        return QString::fromStdString(dir_.file("share/lidar-utilities/Config"));
    }

    // Every file's path and content, to show that running the programs wrote nothing here.
    QByteArray fingerprint() const {
        QCryptographicHash hash(QCryptographicHash::Sha256);
        QDirIterator it(QString::fromStdString(dir_.path()),
                        QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        QStringList paths;
        while (it.hasNext()) paths << it.next();
        paths.sort();
        for (const QString& path : paths) {
            hash.addData(path.toUtf8());
            QFile file(path);
            if (file.open(QIODevice::ReadOnly)) hash.addData(file.readAll());
        }
        return hash.result();
    }

  private:
    testsupport::TempDir dir_;
};

// A user: a home of their own, and the folder they type commands in.
class User {
  public:
    explicit User(const InstalledPrefix& prefix) : prefix_(prefix) {
        testsupport::WriteFile(home_.file(".keep"), "");
        testsupport::WriteFile(here_.file(".keep"), "");
        environment_.insert("HOME", QString::fromStdString(home_.path()));
        for (const char* name : {"XDG_DATA_HOME", "XDG_STATE_HOME", "XDG_CONFIG_HOME"})
            environment_.remove(name);
    }
    Outcome lidarutil(const QStringList& arguments) const {
        return execute(prefix_.program("lidarutil"), arguments);
    }
    // Runs `program` in `folder`, by default the user's folder.
    Outcome execute(const QString& program, const QStringList& arguments,
                    const QString& folder = QString()) const {
        QProcess process;
        process.setProcessEnvironment(environment_);
        process.setWorkingDirectory(folder.isEmpty() ? here() : folder);
        process.start(program, arguments);
        Outcome outcome;
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished();
            ADD_FAILURE() << arguments.join(' ').toStdString() << " did not finish";
        }
        outcome.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        outcome.out = QString::fromUtf8(process.readAllStandardOutput());
        outcome.err = QString::fromUtf8(process.readAllStandardError());
        return outcome;
    }
    QString here() const { return QString::fromStdString(here_.path()); }
    std::string home(const std::string& name) const { return home_.file(name); }
    std::string own(const std::string& model) const {
        return home_.file(".local/share/lidar-utilities/varID/" + model);
    }
    QStringList hereEntries() const {
        return QDir(here()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    }

  private:
    const InstalledPrefix& prefix_;
    testsupport::TempDir home_;
    testsupport::TempDir here_;
    QProcessEnvironment environment_ = QProcessEnvironment::systemEnvironment();
};

QString historyOf(const User& user) {
    const Outcome history = user.lidarutil({"--json", "history"});
    EXPECT_EQ(history.exitCode, 0) << history.err.toStdString();
    QStringList commands;
    for (const QJsonValue& row : QJsonDocument::fromJson(history.out.toUtf8()).array())
        commands << row.toObject()["command"].toString();
    return commands.join(',');
}

}  // namespace

TEST(Installed, RunsFromAnyFolderAndWritesOnlyIntoTheUsersFolders) {
    const InstalledPrefix prefix;
    const QByteArray before = prefix.fingerprint();
    const User first(prefix);
    const User second(prefix);

    const Outcome models = first.lidarutil({"--json", "models"});
    ASSERT_EQ(models.exitCode, 0) << models.err.toStdString();
    const QJsonArray list = QJsonDocument::fromJson(models.out.toUtf8()).array();
    ASSERT_EQ(list.size(), 6) << models.out.toStdString();
    for (const QJsonValue& model : list) {
        EXPECT_EQ(model["source"].toString(), "installed");
        EXPECT_EQ(model["path"].toString(), prefix.config() + "/varID/" + model["name"].toString());
    }
    const Outcome info = first.lidarutil({"info"});
    ASSERT_EQ(info.exitCode, 0) << info.err.toStdString();
    EXPECT_TRUE(lines(info.out).contains("Model Name=Egret")) << info.out.toStdString();
    const Outcome wren = first.lidarutil({"--model", "Wren", "info"});
    ASSERT_EQ(wren.exitCode, 0) << wren.err.toStdString();

    // Two users, two histories, each in the user's own state folder.
    ASSERT_EQ(first.lidarutil({"send", "0x07"}).exitCode, 0);
    ASSERT_EQ(second.lidarutil({"send", "0x75", "01", "00", "00"}).exitCode, 0);
    ASSERT_EQ(first.lidarutil({"send", "0x08"}).exitCode, 0);
    EXPECT_EQ(historyOf(first), "08,07");
    EXPECT_EQ(historyOf(second), "75");
    EXPECT_TRUE(testsupport::FileExists(
        first.home(".local/state/lidar-utilities/Config/command_log_file.csv")));

    // Started in the installed share folder, whose Config is the install's own: the catalogues
    // are still the installed ones and the history still goes to the user's state folder.
    const QString share = prefix.config() + "/..";
    const Outcome inShare = second.execute(prefix.program("lidarutil"), {"models"}, share);
    EXPECT_EQ(lines(inShare.out).filter(QRegExp("^Egret +network +installed +")).size(), 1)
        << inShare.out.toStdString();
    ASSERT_EQ(second.execute(prefix.program("lidarutil"), {"send", "0x08"}, share).exitCode, 0);
    EXPECT_EQ(historyOf(second), "08,75");

    EXPECT_EQ(prefix.fingerprint(), before);
    EXPECT_TRUE(first.hereEntries().isEmpty()) << first.hereEntries().join(' ').toStdString();
}

TEST(Installed, TheFilesAUserNamesAreTakenFromTheFolderTheUserIsIn) {
    const InstalledPrefix prefix;
    const User user(prefix);
    QDir(user.here()).mkdir("logs");
    const Outcome log = user.lidarutil({"log", "Device Log", "--dir", "logs"});
    ASSERT_EQ(log.exitCode, 0) << log.err.toStdString();
    EXPECT_EQ(QDir(user.here() + "/logs").entryList(QDir::Files).size(), 1);

    const Outcome oplog = user.lidarutil({"oplog", "ops"});
    ASSERT_EQ(oplog.exitCode, 0) << oplog.err.toStdString();
    EXPECT_TRUE(QFileInfo(user.here() + "/ops.tar").size() > 0);

    QDir(user.here()).mkdir("rec");
    const Outcome record = user.lidarutil({"monitor", "--record", "rec", "--duration", "1"});
    ASSERT_EQ(record.exitCode, 0) << record.err.toStdString();
    EXPECT_EQ(QDir(user.here() + "/rec").entryList({"Monitor_*.csv"}, QDir::Files).size(), 1);

    // The log's default folder is the user's too, and a folder given with a slash stays one.
    const Outcome here = user.lidarutil({"log", "Device Log"});
    ASSERT_EQ(here.exitCode, 0) << here.err.toStdString();
    EXPECT_EQ(QDir(user.here()).entryList({"Device Log_*"}, QDir::Files).size(), 1);
    const Outcome slash = user.lidarutil({"oplog", "logs/"});
    EXPECT_EQ(slash.exitCode, 2);
    EXPECT_TRUE(slash.err.contains(user.here() + "/logs/ is a folder")) << slash.err.toStdString();

    // A package that is not there is named where the user looked for it.
    const Outcome upgrade = user.lidarutil({"upgrade", "missing.bin"});
    EXPECT_EQ(upgrade.exitCode, 2);
    EXPECT_TRUE(upgrade.err.contains(user.here() + "/missing.bin")) << upgrade.err.toStdString();
    const Outcome heron = user.lidarutil({"--model", "Heron-VRC", "heron", "upgrade", "new.ota"});
    EXPECT_EQ(heron.exitCode, 2);
    EXPECT_TRUE(heron.err.contains(user.here() + "/new.ota")) << heron.err.toStdString();
    // Other commands' arguments are no files: a module name stays a name.
    const Outcome read = user.lidarutil({"read", "Network"});
    EXPECT_EQ(read.exitCode, 0) << read.err.toStdString();
    const Outcome exported = user.lidarutil({"export", "Operation", "-o", "mine.json"});
    ASSERT_EQ(exported.exitCode, 0) << exported.err.toStdString();
    EXPECT_TRUE(QFileInfo(user.here() + "/mine.json").isFile());
    const Outcome compared = user.lidarutil({"diff", "mine.json"});
    EXPECT_EQ(compared.exitCode, 0) << compared.err.toStdString();
    const Outcome applied = user.lidarutil({"apply", "mine.json"});
    EXPECT_EQ(applied.exitCode, 0) << applied.err.toStdString();

    // Serial lines named by links in the user's folder are opened from that folder.
    QProcess simulator;
    simulator.setWorkingDirectory(user.here());
    simulator.start(prefix.program("lidar-sim"), {"--model", "Wren", "--serial"});
    QStringList announced;
    while (announced.size() < 2 && (simulator.canReadLine() || simulator.waitForReadyRead(10000)))
        announced << QString::fromUtf8(simulator.readLine()).trimmed();
    ASSERT_EQ(announced.size(), 2) << announced.join('|').toStdString();
    ASSERT_TRUE(announced[0].startsWith("rs485 /") && announced[1].startsWith("uart /"))
        << announced.join('|').toStdString();
    ASSERT_TRUE(QFile::link(announced[0].section(' ', 1), user.here() + "/rs485"));
    ASSERT_TRUE(QFile::link(announced[1].section(' ', 1), user.here() + "/uart"));
    const Outcome serial =
        user.lidarutil({"--model", "Wren", "--rs485", "rs485", "--uart", "uart", "info"});
    simulator.kill();
    simulator.waitForFinished();
    EXPECT_EQ(serial.exitCode, 0) << serial.err.toStdString();
    EXPECT_TRUE(serial.out.contains("Model Name=Wren")) << serial.out.toStdString();
}

TEST(Installed, AUsersOwnModelWinsAndSaysWhatItHides) {
    const InstalledPrefix prefix;
    const User user(prefix);
    const std::string source = testsupport::SourceDir() + "/Config/varID/";
    ASSERT_TRUE(run("mkdir -p '" + user.own("Kite") + "' && cp -r '" + source + "Tern' '" +
                    user.own("Tern") + "' && cp '" + source + "Tern/Tern.csv' '" +
                    user.own("Kite") + "/Kite.csv'"));
    const Outcome models = user.lidarutil({"models"});
    ASSERT_EQ(models.exitCode, 0) << models.err.toStdString();
    const QStringList rows = lines(models.out);
    EXPECT_EQ(rows.size(), 8) << models.out.toStdString();  // the header and seven models
    EXPECT_EQ(rows.filter(QRegExp("^Kite +network +user +")).size(), 1) << models.out.toStdString();
    EXPECT_EQ(rows.filter(QRegExp("^Tern +network +user +")).size(), 1) << models.out.toStdString();
    EXPECT_EQ(models.err, "lidarutil: warning: the model Tern of " +
                              QString::fromStdString(user.own("Tern")) + " hides the one of " +
                              prefix.config() + "/varID/Tern\n");
    const Outcome kite = user.lidarutil({"--model", "Kite", "read", "Network"});
    EXPECT_EQ(kite.exitCode, 0) << kite.err.toStdString();

    // A model the user meant to add but that cannot be used is named, not silently left out.
    ASSERT_TRUE(
        run("mkdir '" + user.own("Heron") + "' && ln -s /nonexistent '" + user.own("Moved") + "'"));
    const Outcome broken = user.lidarutil({"models"});
    EXPECT_EQ(broken.exitCode, 0) << broken.err.toStdString();
    EXPECT_EQ(lines(broken.out).size(), 8) << broken.out.toStdString();
    EXPECT_TRUE(broken.err.endsWith(
        "lidarutil: warning: no model in " + QString::fromStdString(user.own("Heron")) +
        ": a folder without Heron.csv\nlidarutil: warning: no model in " +
        QString::fromStdString(user.own("Moved")) + ": a link to nothing\n"))
        << broken.err.toStdString();
    ASSERT_TRUE(run("rm -r '" + user.own("Heron") + "' '" + user.own("Moved") + "'"));

    // Removed again, the installed Tern is back and nothing is hidden.
    ASSERT_TRUE(run("rm -r '" + user.own("Tern") + "'"));
    const Outcome after = user.lidarutil({"models"});
    EXPECT_EQ(lines(after.out).filter(QRegExp("^Tern +network +installed +")).size(), 1);
    EXPECT_TRUE(after.err.isEmpty()) << after.err.toStdString();
}

TEST(Installed, TheSimulatorFindsTheCataloguesAndNothingFoundIsNamed) {
    const InstalledPrefix prefix;
    const User user(prefix);
    QProcess simulator;
    simulator.setWorkingDirectory(user.here());
    simulator.start(prefix.program("lidar-sim"), {"--model", "Plover", "--port", "0"});
    ASSERT_TRUE(simulator.waitForReadyRead(10000));
    EXPECT_TRUE(simulator.readLine().startsWith("listening on 127.0.0.1:"));
    simulator.kill();
    simulator.waitForFinished();

    const Outcome unknown = user.execute(prefix.program("lidar-sim"), {"--model", "Nope"});
    EXPECT_EQ(unknown.exitCode, 1);
    EXPECT_EQ(unknown.err, "lidar-sim: no catalogue of the model Nope in " +
                               QString::fromStdString(user.home(".local/share/lidar-utilities")) +
                               "/varID, " + prefix.config() + "/varID\n");

    // A folder with catalogues of its own uses them alone, in the simulator as in lidarutil.
    QDir(user.here()).mkpath("bench/Config/varID");
    const QString bench = user.here() + "/bench";
    QProcess local;
    local.setWorkingDirectory(bench);
    local.start(prefix.program("lidar-sim"), {"--model", "Egret"});
    ASSERT_TRUE(local.waitForFinished(10000));
    EXPECT_EQ(local.exitCode(), 1);
    EXPECT_EQ(QString::fromUtf8(local.readAllStandardError()),
              "lidar-sim: no catalogue of the model Egret in ./Config/varID (the current "
              "folder's catalogues are used alone: --config-dir names another folder)\n");
    QProcess models;
    models.setWorkingDirectory(bench);
    models.start(prefix.program("lidarutil"), {"models"});
    ASSERT_TRUE(models.waitForFinished(30000));
    EXPECT_EQ(models.exitCode(), 0);
    EXPECT_TRUE(QString::fromUtf8(models.readAllStandardError())
                    .startsWith("lidarutil: warning: ./Config/varID has no model; "));

    // lidarutil built in the tree has no installed catalogues beside it: from an empty folder of
    // a user without catalogues it names the three places it looked in.
    const Outcome none = testsupport::lidarutil({"show"}, user.here());
    EXPECT_EQ(none.exitCode, 2);
    EXPECT_TRUE(none.err.startsWith("lidarutil: no model catalogues: looked in ./Config/varID, "))
        << none.err.toStdString();
}
