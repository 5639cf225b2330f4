// lidarutil monitor against its embedded simulator: the variants, the refreshed table, and
// recordings with their chart.

#include <gtest/gtest.h>

#include <QDir>
#include <QImage>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <csignal>

#include "cli_support.h"
#include "test_support.h"

using testsupport::lidarutil;
using testsupport::lines;
using testsupport::Outcome;

namespace {

QStringList fileLines(const QString& path) {
    return lines(QString::fromStdString(testsupport::ReadFile(path.toStdString())));
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
    EXPECT_EQ(refresh["values"].toObject()["Board Temperature"].toString(), "41.50");

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
}

TEST(LidarutilMonitor, RecordsRowsAndDrawsAChartOfEveryColumn) {
    testsupport::TempDir folder;
    const QString dir = QString::fromStdString(folder.path());
    const Outcome recorded =
        lidarutil({"monitor", "--record", dir, "--duration", "3", "--interval", "1", "--plot"});
    ASSERT_EQ(recorded.exitCode, 0) << recorded.err.toStdString();
    const QStringList paths = lines(recorded.out).filter(QRegularExpression("\\.(csv|png)$"));
    ASSERT_EQ(paths.size(), 2) << recorded.out.toStdString();
    EXPECT_TRUE(QRegularExpression("^" + QRegularExpression::escape(dir) +
                                   "/Monitor_HW2\\.0_\\d{8}_\\d{6}\\.csv$")
                    .match(paths[0])
                    .hasMatch())
        << paths[0].toStdString();
    EXPECT_TRUE(recorded.err.contains("Monitor record saved:\n" + paths[0]));

    const QStringList rows = fileLines(paths[0]);
    ASSERT_EQ(rows.size(), 4) << rows.join('\n').toStdString();  // header and three rows
    const int columns = rows[0].count(',');
    EXPECT_EQ(columns, 10);
    // The simulated readings move: the rows differ beyond their time.
    EXPECT_NE(rows[1].section(',', 1), rows[3].section(',', 1));

    // A title band, then one chart per recorded value, two in a row, each 480 x 300.
    const QImage chart(paths[1]);
    ASSERT_FALSE(chart.isNull()) << paths[1].toStdString();
    EXPECT_EQ(chart.size(), QSize(2 * 480, 40 + (columns + 1) / 2 * 300));
}

TEST(LidarutilMonitor, CtrlCStopsARecordingAndKeepsItsFile) {
    testsupport::TempDir folder;
    const QString dir = QString::fromStdString(folder.path());
    QProcess recording;
    recording.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
    recording.start(LIDAR_BINARY_DIR "/cli/lidarutil",
                    {"monitor", "--record", dir, "--duration", "60"});
    // Wait for the first rows on disk.
    ASSERT_TRUE(testsupport::WaitFor(
        [&] {
            const QStringList files = QDir(dir).entryList({"*.csv"}, QDir::Files);
            return !files.isEmpty() && fileLines(dir + "/" + files[0]).size() >= 3;
        },
        10000));
    ::kill(static_cast<pid_t>(recording.processId()), SIGINT);
    ASSERT_TRUE(recording.waitForFinished(5000));
    EXPECT_EQ(recording.exitCode(), 0);
    const QString path = QString::fromUtf8(recording.readAllStandardOutput()).trimmed();
    const QString err = QString::fromUtf8(recording.readAllStandardError());
    EXPECT_TRUE(err.contains("Monitor record saved:\n" + path)) << err.toStdString();
    EXPECT_GE(fileLines(path).size(), 3);

    const Outcome missing = lidarutil({"monitor", "--record", dir + "/missing"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_TRUE(missing.err.contains("is not a folder"));
    const Outcome unwritable = lidarutil({"monitor", "--record", "/proc", "--duration", "2"});
    EXPECT_EQ(unwritable.exitCode, 1);
    EXPECT_TRUE(unwritable.err.contains("error: Failed to create monitor record file"))
        << unwritable.err.toStdString();
}

}  // namespace
