// How a fleet tells what became of its lidars: what is taken from a child's output, the JSON line,
// the total and the exit status over every mix of ends (exit 3 among them, which no command of a
// single lidar run against the simulator gives alone).

#include <gtest/gtest.h>

#include <QJsonDocument>
#include <QJsonObject>

#include "fleet.h"
#include "fleet_outcome.h"

// Messages are shown as text when a check fails.
inline void PrintTo(const QString& text, std::ostream* out) {
    *out << '"' << text.toStdString() << '"';
}

namespace {

using cli::LidarRun;
using State = LidarRun::State;

LidarRun ended(State state, int exitCode = 0, const QString& host = "10.0.0.1") {
    LidarRun run;
    run.host = cli::FleetHost{host, 0, 1};
    run.state = state;
    run.exitCode = exitCode;
    return run;
}

LidarRun exited(int exitCode) {
    return ended(State::kExited, exitCode);
}

TEST(FleetOutcome, TheSerialNumberLineIsTakenOutAndTheSummaryAndErrorAreTheChildsWords) {
    LidarRun run = exited(1);
    cli::takeChildOutput(run, "header:  A5 5A 07 00\n{\n  \"a\": 1\n}\n",
                         "connecting to 10.0.0.1:2368 ...\n" +
                             QByteArray(cli::kFleetSerialNumberPrefix) +
                             "EG2411050007\nerror: could not read Serial Number\n"
                             "ERROR: Connection Error: the lidar closed it\n");
    EXPECT_EQ(run.serialNumber, "EG2411050007");
    // The closing bracket of a JSON document says nothing: the line before it is the summary.
    EXPECT_EQ(run.summary, "\"a\": 1");
    EXPECT_EQ(run.error, "could not read Serial Number; Connection Error: the lidar closed it");

    // Without output and without error lines, a failure is told by the last thing said.
    LidarRun quiet = exited(1);
    cli::takeChildOutput(quiet, "", "connecting to 10.0.0.1:2368 ...\nno answer at all\n");
    EXPECT_EQ(quiet.serialNumber, "");
    EXPECT_EQ(quiet.summary, "no answer at all");
    EXPECT_EQ(quiet.error, "no answer at all");

    // A success with warnings has no error.
    LidarRun fine = exited(0);
    cli::takeChildOutput(fine, "Return Mode=2 (Dual)\n", "WARNING: slow reply\n");
    EXPECT_EQ(fine.summary, "Return Mode=2 (Dual)");
    EXPECT_EQ(fine.error, "");
}

TEST(FleetOutcome, TheJsonLineIsOneCompactObjectWithItsKeysInOrderAndItsTextsEscaped) {
    LidarRun run = ended(State::kAbandoned, 0, "fe80::1");
    run.host.port = 2368;
    run.summary = "a \"quoted\" word\tand a tab";
    run.error = "abandoned by Ctrl-C";
    const QString line = cli::jsonLine(run);
    EXPECT_TRUE(line.startsWith(
        "{\"host\":\"[fe80::1]:2368\",\"serial_number\":\"\",\"exit_status\":-1,\"summary\":"))
        << line.toStdString();
    EXPECT_FALSE(line.contains('\n'));
    const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
    EXPECT_EQ(object.value("summary").toString(), run.summary);
    EXPECT_EQ(object.value("error").toString(), run.error);
    EXPECT_EQ(object.size(), 5);
}

TEST(FleetOutcome, ExitStatusIsZeroOnlyWhenAllSucceededThreeWhenSomeDifferedOneOtherwise) {
    EXPECT_EQ(cli::fleetExitStatus({exited(0), exited(0)}), 0);
    EXPECT_EQ(cli::fleetExitStatus({exited(0), exited(3)}), 3);
    EXPECT_EQ(cli::fleetExitStatus({exited(3), exited(3)}), 3);
    EXPECT_EQ(cli::fleetExitStatus({exited(3), exited(4)}), 1);
    EXPECT_EQ(cli::fleetExitStatus({exited(0), exited(2)}), 1);
    EXPECT_EQ(cli::fleetExitStatus({exited(0), ended(State::kCrashed)}), 1);
    EXPECT_EQ(cli::fleetExitStatus({exited(3), ended(State::kFailedToStart)}), 1);
    EXPECT_EQ(cli::fleetExitStatus({exited(0), ended(State::kAbandoned)}), 1);
    EXPECT_EQ(cli::fleetExitStatus({exited(0), ended(State::kNotStarted)}), 1);
}

TEST(FleetOutcome, TheTotalCountsEachKindOfEnd) {
    EXPECT_EQ(cli::totalLine({exited(0)}), "1 lidar: 1 succeeded, 0 failed");
    EXPECT_EQ(cli::totalLine({exited(0), exited(3), exited(4), ended(State::kCrashed),
                              ended(State::kAbandoned), ended(State::kNotStarted)}),
              "6 lidars: 1 succeeded, 1 with differences (status 3), 1 written, not verified "
              "(status 4), 1 failed, 1 abandoned, 1 not started");
}

TEST(FleetOutcome, AnOutcomeLineOfStatusThreeOrFourIsNoErrorButAnErrorLineStillIs) {
    const QByteArray said =
        QByteArray(cli::kFleetSummaryPrefix) + "2 field(s) differ from p.json\n";
    LidarRun differs = exited(3);
    cli::takeChildOutput(differs, "0x31 (Operation / Scan):\n", "connecting ...\n" + said);
    EXPECT_EQ(differs.summary, "2 field(s) differ from p.json");
    EXPECT_EQ(differs.error, "");
    LidarRun refused = exited(3);
    cli::takeChildOutput(refused, "", "error: the lidar refused 0x30\n" + said);
    EXPECT_EQ(refused.error, "the lidar refused 0x30");
    LidarRun silent = exited(4);
    cli::takeChildOutput(silent, "", "connecting ...\n");
    EXPECT_EQ(silent.error, "connecting ...")
        << "a status 4 with no outcome line says its last line";
}

TEST(FleetOutcome, OneSerialNumberFromTwoHostsIsWarnedOnce) {
    QVector<LidarRun> runs = {ended(State::kExited, 0, "10.0.0.1"),
                              ended(State::kExited, 0, "lidar-a"),
                              ended(State::kExited, 0, "10.0.0.3"), ended(State::kExited, 1, "x")};
    runs[0].serialNumber = runs[1].serialNumber = "EG2411050001";
    runs[2].serialNumber = "EG2411050003";
    EXPECT_EQ(cli::sameLidarWarnings(runs),
              QStringList{"warning: 10.0.0.1, lidar-a answered with one serial number, "
                          "EG2411050001: one lidar listed more than once?"});
    runs[1].serialNumber = "EG2411050002";
    EXPECT_TRUE(cli::sameLidarWarnings(runs).isEmpty());
}

TEST(FleetOutcome, TheFirstCtrlCSaysWhatStoppingWouldLeave) {
    const QVector<LidarRun> runs = {exited(0), exited(1), ended(State::kRunning),
                                    ended(State::kRunning), ended(State::kWaiting)};
    EXPECT_TRUE(cli::interruptWarning("upgrade", runs)
                    .startsWith("stopping now leaves 1 lidar upgraded, 1 failed, 2 half-sent"));
    EXPECT_TRUE(cli::interruptWarning("upgrade", runs).contains(", 1 not started;"));
    EXPECT_TRUE(cli::interruptWarning("info", runs)
                    .startsWith("stopping now leaves 2 lidars done, 2 running (their command cut "
                                "short), 1 not started;"));
}

}  // namespace
