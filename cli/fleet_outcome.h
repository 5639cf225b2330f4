#pragma once

// What became of each lidar of a fleet (fleet.h), and the ways the fleet tells it: the JSON line
// per lidar, the closing table and total, the exit status and the first Ctrl-C's warning.

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

#include "hosts_file.h"

namespace cli {

struct LidarRun {
    enum class State {
        kWaiting,        // not started yet
        kRunning,        // its child runs
        kExited,         // its child ended with exitCode
        kCrashed,        // its child ended by a signal
        kFailedToStart,  // its child could not be started
        kAbandoned,      // its child was killed by the second Ctrl-C
        kNotStarted,     // the second Ctrl-C came before its turn
    };
    FleetHost host;
    State state = State::kWaiting;
    int exitCode = 0;
    QString serialNumber;  // as the child reported it; empty when it could not
    QString summary;       // one line for people
    QString error;         // what went wrong, in the child's words; empty when nothing did
};

// The host as its line gave it, with the port when it gave one ("10.0.0.7:2368",
// "[fe80::1]:2368").
QString shownHost(const FleetHost& host);

// Takes what the child wrote: the serial-number line out of standard error (fleet.h), the
// summary (the last line of standard output that holds a letter or a digit, else the last line
// of standard error) and the error (the lines of standard error in which the child says what
// failed, joined with "; "; else, after any end but exit 0, its last line of standard error).
void takeChildOutput(LidarRun& run, const QByteArray& out, const QByteArray& err);

// The exit status a JSON line gives: the child's own, or -1 when it has none (crashed, could not
// start, abandoned, not started).
int reportedExitStatus(const LidarRun& run);

// One compact JSON object: host, serial_number, exit_status, summary, error, in that order.
QString jsonLine(const LidarRun& run);

// A lidar's state in a few words: "waiting", "running", "exit 0", "crashed", ...
QString stateText(const LidarRun& run);

// The table of every lidar (HOST, SERIAL, STATUS, SUMMARY OR ERROR) and the total line under it
// ("8 lidars: 7 succeeded, 1 failed").
QString closingTable(const QVector<LidarRun>& runs);
QString totalLine(const QVector<LidarRun>& runs);

// One warning for each serial number that more than one host answered with (the same lidar under
// two names, or two lidars that share a number): empty when none did.
QStringList sameLidarWarnings(const QVector<LidarRun>& runs);

// 0 when every child exited 0; kExitDiffers when none failed and some exited with it; 1
// otherwise.
int fleetExitStatus(const QVector<LidarRun>& runs);

// What stopping now would leave, said at the first Ctrl-C: for upgrade the lidars upgraded,
// half-sent and not started; for the other commands those done, running and not started.
QString interruptWarning(const QString& command, const QVector<LidarRun>& runs);

}  // namespace cli
