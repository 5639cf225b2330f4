#include "fleet_outcome.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>
#include <QRegularExpression>
#include <QStringList>
#include <algorithm>
#include <functional>

#include "fleet.h"
#include "output.h"

namespace cli {
namespace {

using State = LidarRun::State;

QStringList linesOf(const QByteArray& text) {
    return QString::fromUtf8(text).split('\n', Qt::SkipEmptyParts);
}

// A line that says something: a JSON document's closing bracket alone does not.
bool saysSomething(const QString& line) {
    static const QRegularExpression kWord("[\\p{L}\\p{N}]");
    return line.contains(kWord);
}

// The error a line of lidarutil's standard error tells, or an empty text: its own errors and
// usage errors and the manager's ERROR lines, their label taken off (the JSON line's key already
// says that it is an error), and a refused authorisation, whose start is part of the sentence.
QString errorIn(const QString& line) {
    static const QStringList kLabels = {"error: ", "ERROR: ", "lidarutil: "};
    for (const QString& label : kLabels)
        if (line.startsWith(label)) return line.mid(label.size());
    return line.startsWith("not authorised: ") ? line : QString();
}

// "N lidar" or "N lidars".
QString lidars(int count) {
    return QString::number(count) + (count == 1 ? " lidar" : " lidars");
}

int countOf(const QVector<LidarRun>& runs, const std::function<bool(const LidarRun&)>& which) {
    return static_cast<int>(std::count_if(runs.begin(), runs.end(), which));
}

bool exitedWith(const LidarRun& run, int status) {
    return run.state == State::kExited && run.exitCode == status;
}

// A lidar whose command went wrong: every end but exit 0, 3 or 4 (written, not verified), an
// abandoned or unstarted one counted apart.
bool failed(const LidarRun& run) {
    switch (run.state) {
        case State::kExited:
            return run.exitCode != kExitOk && run.exitCode != kExitDiffers &&
                   run.exitCode != kExitUnverified;
        case State::kCrashed:
        case State::kFailedToStart:
            return true;
        default:
            return false;
    }
}

bool ended(const LidarRun& run) {
    return run.state == State::kExited || run.state == State::kCrashed ||
           run.state == State::kFailedToStart;
}

// A JSON string, quoted and escaped.
QString jsonString(const QString& text) {
    const QByteArray array = QJsonDocument(QJsonArray{text}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

}  // namespace

QString shownHost(const FleetHost& host) {
    const QString name = host.host.contains(':') ? "[" + host.host + "]" : host.host;
    return host.port == 0 ? name : name + ":" + QString::number(host.port);
}

void takeChildOutput(LidarRun& run, const QByteArray& out, const QByteArray& err) {
    QStringList diagnostics;
    QString outcome;
    for (const QString& line : linesOf(err)) {
        if (line.startsWith(kFleetSerialNumberPrefix))
            run.serialNumber = line.mid(int(qstrlen(kFleetSerialNumberPrefix))).trimmed();
        else if (line.startsWith(kFleetSummaryPrefix))
            outcome = line.mid(int(qstrlen(kFleetSummaryPrefix))).trimmed();
        else
            diagnostics << line;
    }
    const QStringList results = linesOf(out);
    const auto said = std::find_if(results.rbegin(), results.rend(), saysSomething);
    if (!outcome.isEmpty())
        run.summary = outcome;
    else if (said != results.rend())
        run.summary = said->trimmed();
    else if (!diagnostics.isEmpty())
        run.summary = diagnostics.last().trimmed();

    QStringList errors;
    for (const QString& line : diagnostics)
        if (const QString error = errorIn(line).trimmed(); !error.isEmpty()) errors << error;
    // Differences found, or settings written and not verified, are outcomes the child said in its
    // outcome line, not errors.
    const bool told =
        !outcome.isEmpty() && (run.exitCode == kExitDiffers || run.exitCode == kExitUnverified);
    const bool clean = run.state == State::kExited && (run.exitCode == kExitOk || told);
    if (errors.isEmpty() && !clean && !diagnostics.isEmpty())
        errors << diagnostics.last().trimmed();
    if (!errors.isEmpty()) run.error = errors.join("; ");
}

int reportedExitStatus(const LidarRun& run) {
    return run.state == State::kExited ? run.exitCode : -1;
}

QString jsonLine(const LidarRun& run) {
    return "{\"host\":" + jsonString(shownHost(run.host)) +
           ",\"serial_number\":" + jsonString(run.serialNumber) +
           ",\"exit_status\":" + QString::number(reportedExitStatus(run)) +
           ",\"summary\":" + jsonString(run.summary) + ",\"error\":" + jsonString(run.error) + "}";
}

QString stateText(const LidarRun& run) {
    switch (run.state) {
        case State::kWaiting:
            return "waiting";
        case State::kRunning:
            return "running";
        case State::kExited:
            return "exit " + QString::number(run.exitCode);
        case State::kCrashed:
            return "crashed";
        case State::kFailedToStart:
            return "did not start";
        case State::kAbandoned:
            return "abandoned";
        case State::kNotStarted:
            return "not started";
    }
    return QString();
}

QString closingTable(const QVector<LidarRun>& runs) {
    QVector<QStringList> rows;
    for (const LidarRun& run : runs)
        rows.append({shownHost(run.host), run.serialNumber.isEmpty() ? "-" : run.serialNumber,
                     stateText(run), run.error.isEmpty() ? run.summary : run.error});
    return formatTable({"HOST", "SERIAL", "STATUS", "SUMMARY OR ERROR"}, rows);
}

QString totalLine(const QVector<LidarRun>& runs) {
    QStringList parts{
        QString::number(countOf(runs, [](const LidarRun& r) { return exitedWith(r, kExitOk); })) +
            " succeeded",
        QString::number(countOf(runs, failed)) + " failed"};
    const int differ = countOf(runs, [](const LidarRun& r) { return exitedWith(r, kExitDiffers); });
    if (differ > 0) parts.insert(1, QString::number(differ) + " with differences (status 3)");
    const int unverified =
        countOf(runs, [](const LidarRun& r) { return exitedWith(r, kExitUnverified); });
    if (unverified > 0)
        parts.insert(parts.size() - 1,
                     QString::number(unverified) + " written, not verified (status 4)");
    const int abandoned =
        countOf(runs, [](const LidarRun& r) { return r.state == State::kAbandoned; });
    if (abandoned > 0) parts << QString::number(abandoned) + " abandoned";
    const int unstarted =
        countOf(runs, [](const LidarRun& r) { return r.state == State::kNotStarted; });
    if (unstarted > 0) parts << QString::number(unstarted) + " not started";
    return lidars(runs.size()) + ": " + parts.join(", ");
}

QStringList sameLidarWarnings(const QVector<LidarRun>& runs) {
    QStringList warnings;
    for (int i = 0; i < runs.size(); ++i) {
        if (runs[i].serialNumber.isEmpty()) continue;
        QStringList hosts{shownHost(runs[i].host)};
        bool seenBefore = false;
        for (int j = 0; j < runs.size(); ++j) {
            if (j == i || runs[j].serialNumber != runs[i].serialNumber) continue;
            if (j < i) seenBefore = true;
            hosts << shownHost(runs[j].host);
        }
        if (hosts.size() > 1 && !seenBefore)
            warnings << "warning: " + hosts.join(", ") + " answered with one serial number, " +
                            runs[i].serialNumber + ": one lidar listed more than once?";
    }
    return warnings;
}

int fleetExitStatus(const QVector<LidarRun>& runs) {
    if (std::all_of(runs.begin(), runs.end(),
                    [](const LidarRun& r) { return exitedWith(r, kExitOk); }))
        return kExitOk;
    if (std::all_of(runs.begin(), runs.end(), [](const LidarRun& r) {
            return exitedWith(r, kExitOk) || exitedWith(r, kExitDiffers);
        }))
        return kExitDiffers;
    return kExitFailed;
}

QString interruptWarning(const QString& command, const QVector<LidarRun>& runs) {
    const int running = countOf(runs, [](const LidarRun& r) { return r.state == State::kRunning; });
    const int waiting = countOf(runs, [](const LidarRun& r) { return r.state == State::kWaiting; });
    QStringList parts;
    if (command == "upgrade") {
        parts << lidars(countOf(runs, [](const LidarRun& r) { return exitedWith(r, kExitOk); })) +
                     " upgraded";
        const int failures = countOf(runs, failed);
        if (failures > 0) parts << QString::number(failures) + " failed";
        parts << QString::number(running) +
                     " half-sent (a lidar left with part of a package may not start again)";
    } else {
        parts << lidars(countOf(runs, ended)) + " done"
              << QString::number(running) + " running (their command cut short)";
    }
    parts << QString::number(waiting) + " not started";
    return "stopping now leaves " + parts.join(", ") +
           "; the fleet goes on: press Ctrl-C again to abandon it";
}

}  // namespace cli
