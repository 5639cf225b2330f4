// lidarutil monitor against its embedded simulator: the variants, the refreshed table, and
// recordings with their chart.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <csignal>
#include <cstdlib>

#include "cli_support.h"
#include "test_support.h"

using testsupport::lidarutil;
using testsupport::lines;
using testsupport::Outcome;
using testsupport::RunningLidarutil;
using testsupport::SimulatorProcess;

namespace {

QStringList fileLines(const QString& path) {
    return lines(QString::fromStdString(testsupport::ReadFile(path.toStdString())));
}

// The values of a --json refresh line that carry `name`, as "id=value unit".
QStringList valuesNamed(const QJsonObject& refresh, const QString& name) {
    QStringList found;
    for (const QJsonValue& value : refresh["values"].toArray()) {
        const QJsonObject entry = value.toObject();
        if (entry["name"].toString() == name)
            found << entry["id"].toString() + "=" + entry["value"].toString() + " " +
                         entry["unit"].toString();
    }
    return found;
}

TEST(LidarutilMonitor, ListsTheVariantsThenRefreshesTheTable) {
    const Outcome two = lidarutil({"monitor", "--count", "2"});
    ASSERT_EQ(two.exitCode, 0) << two.err.toStdString();
    const QStringList out = lines(two.out);
    EXPECT_EQ(out.mid(0, 3),
              QStringList({"monitor variants of Egret (* applied):", "  * HW2.0", "    HW1.0"}));
    EXPECT_EQ(out.filter(QRegularExpression("^Monitor \\(HW2.0\\) at .*, refresh [12]$")).size(), 2)
        << two.out.toStdString();
    EXPECT_EQ(out.filter(QRegularExpression("^  Laser Temperature +\\d+\\.\\d\\d +°C$")).size(), 2);

    // With --json every line is a JSON object: the variants, then one per refresh.
    const Outcome chosen = lidarutil({"monitor", "--variant", "HW1.0", "--count", "1", "--json"});
    ASSERT_EQ(chosen.exitCode, 0) << chosen.err.toStdString();
    ASSERT_EQ(lines(chosen.out).size(), 2) << chosen.out.toStdString();
    const QJsonObject variants = QJsonDocument::fromJson(lines(chosen.out)[0].toUtf8()).object();
    EXPECT_EQ(variants["applied"].toString(), "HW1.0");
    EXPECT_EQ(variants["variants"].toArray().size(), 2);
    const QJsonObject refresh = QJsonDocument::fromJson(lines(chosen.out).last().toUtf8()).object();
    EXPECT_EQ(refresh["variant"].toString(), "HW1.0");
    EXPECT_EQ(valuesNamed(refresh, "Board Temperature"), QStringList({"m1_board_temp=41.50 °C"}));

    const Outcome unknown = lidarutil({"monitor", "--variant", "HW9"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(
        unknown.err.contains("unknown monitor variant 'HW9'; the variants are: HW2.0, "
                             "HW1.0"))
        << unknown.err.toStdString();
    EXPECT_FALSE(unknown.err.contains("connecting"));

    const Outcome noMonitor = lidarutil({"--model", "Heron-VRC", "monitor"});
    EXPECT_EQ(noMonitor.exitCode, 2);
    const Outcome emptyFolder = lidarutil({"monitor", "--record", ""});
    EXPECT_EQ(emptyFolder.exitCode, 2);
    const Outcome needsRecord = lidarutil({"monitor", "--duration", "5"});
    EXPECT_EQ(needsRecord.exitCode, 2);
    EXPECT_TRUE(needsRecord.err.contains("--record")) << needsRecord.err.toStdString();
    const Outcome noVariant = lidarutil({"monitor", "--variant", ""});
    EXPECT_EQ(noVariant.exitCode, 2);
    EXPECT_TRUE(noVariant.err.contains("needs a variant's label")) << noVariant.err.toStdString();
    for (const char* option : {"--duration", "--interval"}) {
        const Outcome huge = lidarutil({"monitor", "--record", "/tmp", option, "99999999999"});
        EXPECT_EQ(huge.exitCode, 2);
        EXPECT_TRUE(huge.err.contains("is too large (at most 2147483647)"))
            << huge.err.toStdString();
        const Outcome zero = lidarutil({"monitor", "--record", "/tmp", option, "0"});
        EXPECT_TRUE(zero.err.contains("needs a whole number of 1 or more"))
            << zero.err.toStdString();
    }
}

// A copy of ./Config in a temporary folder, for catalogues a test changes.
class ConfigCopy {
  public:
    ConfigCopy() {
        const std::string copy =
            "cp -r '" + testsupport::SourceDir() + "/Config' '" + root_.path() + "/'";
        if (std::system(copy.c_str()) != 0) ADD_FAILURE() << "could not copy Config/";
    }
    QString root() const { return QString::fromStdString(root_.path()); }
    // Replaces `from` by `to` in a file of the Egret's folder.
    void edit(const std::string& file, const std::string& from, const std::string& to) {
        const std::string path = root_.file("Config/varID/Egret/" + file);
        std::string text = testsupport::ReadFile(path);
        const size_t at = text.find(from);
        if (at == std::string::npos)
            ADD_FAILURE() << "not in " << file << ": " << from;
        else
            text.replace(at, from.size(), to);
        testsupport::WriteFile(path, text);
    }

  private:
    testsupport::TempDir root_;
};

TEST(LidarutilMonitor, SaysWhenNoVariantCouldBeApplied) {
    ConfigCopy config;
    config.edit("Monitor_HW2.0_2.csv", "var_id", "identifier");  // not a catalogue's header
    const Outcome shown = lidarutil({"monitor", "--count", "1"}, config.root());
    EXPECT_EQ(shown.exitCode, 0) << shown.err.toStdString();
    // Only the first variant is tried: the list says which, why, and what is used instead.
    EXPECT_EQ(lines(shown.out).mid(0, 5).join('\n').toStdString(),
              "monitor variants of Egret (* applied):\n    HW2.0\n    HW1.0\n"
              "the first variant, HW2.0, could not be applied: "
              "./Config/varID/Egret/Monitor_HW2.0_2.csv:2: the header has no required column "
              "\"var_id\"; the row is skipped\n"
              "only the first is tried when a model loads: the catalogue's own monitor page is "
              "used (--variant LABEL applies another)");

    // A variant file with its header alone: nothing to report but that.
    ConfigCopy headerOnly;
    const std::string variant =
        headerOnly.root().toStdString() + "/Config/varID/Egret/Monitor_HW2.0_2.csv";
    const std::string text = testsupport::ReadFile(variant);
    testsupport::WriteFile(variant, text.substr(0, text.find('\n') + 1));
    const Outcome empty = lidarutil({"monitor", "--count", "1"}, headerOnly.root());
    EXPECT_TRUE(lines(empty.out).contains(
        "the first variant, HW2.0, could not be applied: its file holds no variables"))
        << empty.out.toStdString();
}

TEST(LidarutilMonitor, ACatalogueThatIsItsMonitorModuleAloneIsMonitored) {
    ConfigCopy config;  // the monitor module is then the catalogue's first, index 0
    const std::string folder = config.root().toStdString() + "/Config/varID/Egret/";
    testsupport::WriteFile(folder + "Egret.csv",
                           testsupport::ReadFile(folder + "Monitor_HW1.0_1.csv"));
    const Outcome shown = lidarutil({"monitor", "--count", "1"}, config.root());
    EXPECT_EQ(shown.exitCode, 0) << shown.err.toStdString();
    EXPECT_EQ(lines(shown.out).filter(QRegularExpression("^  Laser Temperature ")).size(), 1)
        << shown.out.toStdString();

    // Every monitor variable hidden, and no variant to replace them: nothing to monitor.
    std::string hidden = testsupport::ReadFile(folder + "Egret.csv");
    for (size_t at = 0; (at = hidden.find(",1,0,0,,", at)) != std::string::npos;)
        hidden.replace(at, 8, ",1,0,1,,");
    testsupport::WriteFile(folder + "Egret.csv", hidden);
    QDir(QString::fromStdString(folder)).remove("Monitor_HW1.0_1.csv");
    QDir(QString::fromStdString(folder)).remove("Monitor_HW2.0_2.csv");
    const Outcome empty = lidarutil({"monitor", "--count", "1"}, config.root());
    EXPECT_EQ(empty.exitCode, 2);
    EXPECT_TRUE(empty.err.contains("the monitor page of Egret is empty"))
        << empty.err.toStdString();
}

TEST(LidarutilMonitor, TwoValuesOfOneNameKeepTheirOwnValues) {
    // The board temperature (read with 0x40) renamed after the laser's (0x41).
    ConfigCopy config;
    config.edit("Monitor_HW1.0_1.csv", "Board Temperature", "Laser Temperature");
    const Outcome json =
        lidarutil({"monitor", "--variant", "HW1.0", "--count", "1", "--json"}, config.root());
    ASSERT_EQ(json.exitCode, 0) << json.err.toStdString();
    const QJsonObject refresh = QJsonDocument::fromJson(lines(json.out).last().toUtf8()).object();
    const QStringList laser = valuesNamed(refresh, "Laser Temperature");
    ASSERT_EQ(laser.size(), 2) << json.out.toStdString();
    EXPECT_TRUE(laser[0].startsWith("m1_laser_temp=4")) << laser[0].toStdString();
    EXPECT_EQ(laser[1], "m1_board_temp=41.50 °C");

    // The lidar refuses 0x41: in the record only the values read with it are empty.
    const SimulatorProcess refusing("Egret", {"0x41:status=4"}, config.root());
    testsupport::TempDir folder;
    const Outcome recorded =
        lidarutil({"--host", "127.0.0.1", "--port", refusing.port(), "monitor", "--variant",
                   "HW1.0", "--record", QString::fromStdString(folder.path()), "--duration", "1"},
                  config.root());
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err.toStdString();
    const QStringList rows = fileLines(lines(recorded.out).last());
    ASSERT_EQ(rows.size(), 2) << rows.join('\n').toStdString();
    EXPECT_EQ(rows[0].section(',', 1),
              "Laser Temperature (°C),Receiver Temperature (°C),Input Voltage (V),"
              "Laser Temperature (°C),Motor Speed (rpm)");
    EXPECT_TRUE(
        QRegularExpression("^,,,\\d+\\.\\d\\d,\\d+$").match(rows[1].section(',', 1)).hasMatch())
        << rows[1].toStdString();
}

TEST(LidarutilMonitor, RecordsRowsAndDrawsAChartOfEveryColumn) {
    testsupport::TempDir folder;
    const QString dir = QString::fromStdString(folder.path());
    const Outcome recorded =
        lidarutil({"monitor", "--record", dir, "--duration", "5", "--interval", "2", "--plot"});
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err.toStdString();
    const QStringList paths = lines(recorded.out).filter(QRegularExpression("\\.(csv|png)$"));
    ASSERT_EQ(paths.size(), 2) << recorded.out.toStdString();
    EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(dir) +
                                   "/Monitor_HW2\\.0_\\d{8}_\\d{6}\\.csv$")
                    .match(paths[0])
                    .hasMatch())
        << paths[0].toStdString();
    EXPECT_TRUE(recorded.err.contains("Monitor record saved:\n" + paths[0]));
    // Standard error is a pipe here: plain lines, no terminal redraws.
    EXPECT_FALSE(recorded.err.contains('\r')) << recorded.err.toStdString();

    const QStringList rows = fileLines(paths[0]);
    ASSERT_EQ(rows.size(), 4) << rows.join('\n').toStdString();  // header, rows at 0, 2 and 4 s
    for (int row = 2; row < rows.size(); ++row) {
        const auto timeOf = [&](int r) {
            return QDateTime::fromString(rows[r].section(',', 0, 0), "yyyy-MM-dd HH:mm:ss.zzz");
        };
        const qint64 apart = timeOf(row - 1).msecsTo(timeOf(row));
        EXPECT_GT(apart, 1500);
        EXPECT_LT(apart, 2500);
    }
    const int columns = rows[0].count(',');
    EXPECT_EQ(columns, 10);
    // The simulated readings move: the rows differ beyond their time.
    EXPECT_NE(rows[1].section(',', 1), rows[3].section(',', 1));

    // A title band, then one chart per recorded value, two in a row, each 480 x 300.
    const QImage chart(paths[1]);
    ASSERT_FALSE(chart.isNull()) << paths[1].toStdString();
    EXPECT_EQ(chart.size(), QSize(2 * 480, 40 + (columns + 1) / 2 * 300));
}

TEST(LidarutilMonitor, ARecordingEndsAfterItsDurationWhateverTheInterval) {
    testsupport::TempDir folder;
    QElapsedTimer clock;
    clock.start();
    const Outcome recorded =
        lidarutil({"monitor", "--record", QString::fromStdString(folder.path()), "--duration", "2",
                   "--interval", "60"});
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err.toStdString();
    EXPECT_LT(clock.elapsed(), 30000);                           // not the 60 s of the interval
    EXPECT_EQ(fileLines(lines(recorded.out).last()).size(), 2);  // the header and the first row
}

TEST(LidarutilMonitor, EveryReadingRefusedOrTheLidarLostFails) {
    // Every reading refused: the rows keep their times with empty cells, told as an error.
    {
        const SimulatorProcess refusing("Egret", {"0x41:status=4"});
        testsupport::TempDir folder;
        const Outcome recorded =
            lidarutil({"--host", "127.0.0.1", "--port", refusing.port(), "monitor", "--record",
                       QString::fromStdString(folder.path()), "--duration", "2"});
        EXPECT_EQ(recorded.exitCode, 1);
        EXPECT_TRUE(
            recorded.err.contains("error: could not read the monitor values (request 0x41)"))
            << recorded.err.toStdString();
        const QStringList rows = fileLines(lines(recorded.out).last());
        ASSERT_EQ(rows.size(), 3) << rows.join('\n').toStdString();
        EXPECT_EQ(rows[2].section(',', 1), QString(9, ','));
    }
    // The lidar lost in the first reading, with a broken reply or none at all: no row, and the
    // line says why, whatever the duration.
    const struct {
        const char* fault;
        const char* duration;
        const char* seen;
    } lost[] = {{"0x41:close-mid-reply", "5", "the lidar closed the connection (result -2)"},
                {"0x41:no-reply", "1", "no answer in time (result -3)"}};
    for (const auto& c : lost) {
        SCOPED_TRACE(c.fault);
        const SimulatorProcess lidar("Egret", {c.fault});
        testsupport::TempDir folder;
        const Outcome recorded =
            lidarutil({"--host", "127.0.0.1", "--port", lidar.port(), "monitor", "--record",
                       QString::fromStdString(folder.path()), "--duration", c.duration, "--plot"});
        EXPECT_EQ(recorded.exitCode, 1);
        EXPECT_TRUE(recorded.err.contains(
            QString("error: no reading could be made: the connection to the lidar was lost "
                    "(request 0x41: ") +
            c.seen + ")"))
            << recorded.err.toStdString();
        EXPECT_TRUE(recorded.err.contains("; the record, its header alone, was removed"));
        EXPECT_EQ(recorded.out, "");  // no record, no chart
        EXPECT_TRUE(QDir(QString::fromStdString(folder.path())).isEmpty());
    }
    const SimulatorProcess closing("Egret", {"0x41:close-mid-reply"});
    const Outcome watched =
        lidarutil({"--host", "127.0.0.1", "--port", closing.port(), "monitor", "--count", "3"});
    EXPECT_EQ(watched.exitCode, 1);
    EXPECT_TRUE(watched.err.contains("error: the connection to the lidar was lost"))
        << watched.err.toStdString();

    // The lidar gone after some rows: they are kept, and the line names what the client saw.
    SimulatorProcess lidar("Egret", {});
    testsupport::TempDir folder;
    const QString dir = QString::fromStdString(folder.path());
    QProcess recording;
    recording.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
    recording.start(LIDAR_BINARY_DIR "/cli/lidarutil",
                    {"--host", "127.0.0.1", "--port", lidar.port(), "monitor", "--record", dir,
                     "--duration", "30"});
    ASSERT_TRUE(testsupport::WaitFor(
        [&] {
            const QStringList files = QDir(dir).entryList({"*.csv"}, QDir::Files);
            return !files.isEmpty() && fileLines(dir + "/" + files[0]).size() >= 3;
        },
        10000));
    lidar.kill();
    ASSERT_TRUE(recording.waitForFinished(10000));
    EXPECT_EQ(recording.exitCode(), 1);
    const QString err = QString::fromUtf8(recording.readAllStandardError());
    EXPECT_TRUE(
        err.contains("error: the connection to the lidar was lost (request 0x41: the "
                     "lidar closed the connection (result -2)); the recording stops"))
        << err.toStdString();
    EXPECT_GE(fileLines(QString::fromUtf8(recording.readAllStandardOutput()).trimmed()).size(), 3);
}

// lidarutil with its results on a pseudo-terminal `rows` high and `columns` wide: its status and
// what the terminal received.
Outcome onTerminal(const QStringList& arguments, unsigned short rows, unsigned short columns) {
    Outcome run;
    const int master = ::posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0) {
        ADD_FAILURE() << "no pseudo-terminal";
        return run;
    }
    const QString slavePath = QString::fromLocal8Bit(::ptsname(master));
    // Held open here too, so that what the program wrote stays readable after it ends.
    const int slave = ::open(slavePath.toLocal8Bit().constData(), O_RDWR | O_NOCTTY);
    struct winsize size = {rows, columns, 0, 0};
    ::ioctl(master, TIOCSWINSZ, &size);
    ::fcntl(master, F_SETFL, O_NONBLOCK);
    QByteArray received;
    const auto drain = [&] {
        char buffer[4096];
        ssize_t n = 0;
        while ((n = ::read(master, buffer, sizeof buffer)) > 0) received.append(buffer, n);
    };
    QProcess process;
    process.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
    process.setStandardOutputFile(slavePath);
    process.start(LIDAR_BINARY_DIR "/cli/lidarutil", arguments);
    QElapsedTimer clock;
    clock.start();
    while (process.state() != QProcess::NotRunning && clock.elapsed() < 60000) {
        process.waitForFinished(50);
        drain();
    }
    drain();
    ::close(slave);
    ::close(master);
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(received).remove('\r');
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

TEST(LidarutilMonitor, OnATerminalTheTableIsRedrawnWithinTheScreen) {
    // Each redraw moves up over the lines of the previous one and clears below.
    const QRegularExpression redraw("\x1b\\[(\\d+)F\x1b\\[J");
    const auto tables = [&](const QString& out, QVector<int>* movedUp) {
        QStringList blocks;
        int from = 0;
        for (auto match = redraw.globalMatch(out); match.hasNext();) {
            const QRegularExpressionMatch next = match.next();
            blocks << out.mid(from, next.capturedStart() - from);
            movedUp->push_back(next.captured(1).toInt());
            from = next.capturedEnd();
        }
        blocks << out.mid(from);
        return blocks;
    };
    // Just tall enough: the whole table (a heading, the column titles, ten values) and the
    // cursor's line, redrawn in place.
    const Outcome tall = onTerminal({"monitor", "--count", "2"}, 13, 100);
    ASSERT_EQ(tall.exitCode, 0) << tall.err.toStdString();
    QVector<int> movedUp;
    QStringList blocks = tables(tall.out, &movedUp);
    ASSERT_EQ(blocks.size(), 2) << tall.out.toStdString();
    EXPECT_EQ(movedUp, QVector<int>({12}));
    EXPECT_EQ(lines(blocks[1]).size(), 12);
    EXPECT_TRUE(blocks[1].contains("Frame Drops"));

    // Eight rows: seven lines at most, the last one saying what is left out; each redraw moves
    // up over exactly what the previous one showed.
    const Outcome shortOne = onTerminal({"monitor", "--count", "3"}, 8, 100);
    ASSERT_EQ(shortOne.exitCode, 0) << shortOne.err.toStdString();
    movedUp.clear();
    blocks = tables(shortOne.out, &movedUp);
    ASSERT_EQ(blocks.size(), 3) << shortOne.out.toStdString();
    EXPECT_EQ(movedUp, QVector<int>({7, 7}));
    for (const QString& block : blocks.mid(1)) {
        EXPECT_EQ(lines(block).size(), 7) << block.toStdString();
        EXPECT_EQ(lines(block).last(),
                  "(6 more lines: the terminal is too short for the whole table)");
    }
}

TEST(LidarutilMonitor, CtrlCStopsARecordingAndKeepsItsFile) {
    testsupport::TempDir folder;
    const QString dir = QString::fromStdString(folder.path());
    QProcess recording;
    recording.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
    recording.start(LIDAR_BINARY_DIR "/cli/lidarutil",
                    {"monitor", "--record", dir, "--duration", "60"});
    // Wait for eleven rows on disk: standard error, a pipe, has a progress line every tenth.
    ASSERT_TRUE(testsupport::WaitFor(
        [&] {
            const QStringList files = QDir(dir).entryList({"*.csv"}, QDir::Files);
            return !files.isEmpty() && fileLines(dir + "/" + files[0]).size() >= 12;
        },
        20000));
    ::kill(static_cast<pid_t>(recording.processId()), SIGINT);
    ASSERT_TRUE(recording.waitForFinished(5000));
    EXPECT_EQ(recording.exitCode(), 0);
    const QString path = QString::fromUtf8(recording.readAllStandardOutput()).trimmed();
    const QString err = QString::fromUtf8(recording.readAllStandardError());
    EXPECT_TRUE(err.contains("Monitor record saved:\n" + path)) << err.toStdString();
    EXPECT_TRUE(err.contains(QRegularExpression("\nrecording: 10 rows written, \\d+ s left\n")))
        << err.toStdString();
    EXPECT_GE(fileLines(path).size(), 12);

    // Stopped while the first reading waits for a slow lidar: no row, so not a recording.
    const SimulatorProcess slow("Egret", {"0x41:delay=3000"});
    RunningLidarutil early({"--host", "127.0.0.1", "--port", slow.port(), "monitor", "--record",
                            dir, "--duration", "60"});
    ASSERT_TRUE(early.waitForError("recording 60 s")) << early.err().toStdString();
    early.interrupt();
    EXPECT_EQ(early.finish(), 1);
    EXPECT_TRUE(early.err().contains(
        "error: no reading could be made: stopped before the first reading ended"))
        << early.err().toStdString();
}

}  // namespace
