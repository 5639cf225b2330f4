// lidarutil monitor: the monitor module's hardware variants, its values refreshed once a second
// by the manager's auto-refresh, and recordings to CSV with an optional chart.

#include <unistd.h>

#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTimer>
#include <QUrl>
#include <atomic>
#include <set>

#include "charts/monitor_charts.h"
#include "commands.h"
#include "interrupt.h"
#include "output.h"
#include "sdk/logger.h"
#include "session.h"

namespace cli {
namespace {

constexpr int kPollMs = 100;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

// The monitor module's shown variables, in page order: the columns of the table and of a record.
std::vector<const VarPosition*> monitorVariables(Session& session, int module) {
    std::vector<const VarPosition*> variables;
    for (const VarPosition& position : session.variables())
        if (position.module == module && !position.var->hidden) variables.push_back(&position);
    return variables;
}

// How many requests one reading of the module makes (variables sharing a request count once).
size_t requestCount(const std::vector<const VarPosition*>& variables) {
    std::set<std::string> requests;
    for (const VarPosition* position : variables)
        if (!position->var->get_cmd.empty())
            requests.insert(position->var->get_cmd + " " + position->var->get_payload_text);
    return requests.size();
}

// Why the variant `label` could not be applied when the model loaded: the first problem the
// catalogue parser reported in its file (Monitor_<label>_<number>.csv), else an empty page.
QString whyVariantRefused(const QString& label) {
    const QRegularExpression variantFile(
        "(^|/)Monitor_" + QRegularExpression::escape(label) + "_[^_/]+\\.csv$",
        QRegularExpression::CaseInsensitiveOption);
    for (const Logger::Entry& entry : Logger::GetInstance().RecentEntries()) {
        if (entry.level != Logger::kConfigError || !variantFile.match(qs(entry.file)).hasMatch())
            continue;
        return qs(entry.file) + (entry.line > 0 ? ":" + QString::number(entry.line) : "") + ": " +
               qs(entry.message);
    }
    return "its file holds no variables";
}

void printVariants(LidarUtilitiesManager& manager, const QString& model, bool asDiagnostic,
                   bool json) {
    const QStringList variants = manager.getMonitorHwVersionList();
    const QString applied = manager.getCurrentMonitorHwVersion();
    if (json) {
        const QJsonObject line{{"variants", QJsonArray::fromStringList(variants)},
                               {"applied", applied}};
        printResult(QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact)));
        return;
    }
    auto print = asDiagnostic ? printDiagnostic : printResult;
    if (variants.isEmpty()) {
        print(model + " has no monitor variants: the catalogue's own monitor page is used");
        return;
    }
    print("monitor variants of " + model + " (* applied):");
    for (const QString& variant : variants)
        print(QString(variant == applied ? "  * " : "    ") + variant);
    if (applied.isEmpty()) {
        print("the first variant, " + variants.front() +
              ", could not be applied: " + whyVariantRefused(variants.front()));
        print(
            "only the first is tried when a model loads: the catalogue's own monitor page is "
            "used (--variant LABEL applies another)");
    }
}

// Why the latest reading brought no value: each request it lost, with the cause.
void reportUnreadValues(LidarUtilitiesManager& manager) {
    for (const auto& failure : manager.getLastModuleReadFailures())
        printDiagnostic("error: could not read the monitor values (request " + qs(failure.request) +
                        "): " + readFailureText(failure.code));
}

// ---- the live table ----

QString tableText(Session& session, const std::vector<const VarPosition*>& variables, int refresh) {
    QVector<QStringList> rows;
    for (const VarPosition* position : variables) {
        const VarInfo& var = *position->var;
        const monitorcharts::ColumnLabel label =
            monitorcharts::splitColumnLabel(qs(var.var_name + var.name_suffix));
        rows.push_back({qs(var.var_name), session.manager().currentValueOf(&var), label.unit});
    }
    const QString variant = session.manager().getCurrentMonitorHwVersion();
    const QString heading = "Monitor" + (variant.isEmpty() ? "" : " (" + variant + ")") + " at " +
                            QDateTime::currentDateTime().toString("HH:mm:ss") + ", refresh " +
                            QString::number(refresh);
    return heading + "\n" + formatTable({"NAME", "VALUE", "UNIT"}, rows, 2);
}

QString refreshJson(Session& session, const std::vector<const VarPosition*>& variables,
                    int refresh) {
    // One entry per variable, in table order: two variables may share a name.
    QJsonArray values;
    for (const VarPosition* position : variables) {
        const VarInfo& var = *position->var;
        values.append(QJsonObject{
            {"id", qs(var.var_id)},
            {"name", qs(var.var_name)},
            {"value", session.manager().currentValueOf(&var)},
            {"unit", monitorcharts::splitColumnLabel(qs(var.var_name + var.name_suffix)).unit}});
    }
    const QJsonObject line{{"refresh", refresh},
                           {"time", QDateTime::currentDateTime().toString(Qt::ISODateWithMs)},
                           {"variant", session.manager().getCurrentMonitorHwVersion()},
                           {"values", values}};
    return QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact));
}

// The screen rows that `lines` take on a terminal `columns` wide: a longer line wraps.
int screenRows(const QStringList& lines, int columns) {
    int rows = 0;
    for (const QString& line : lines)
        rows +=
            columns > 0 ? std::max(1, (static_cast<int>(line.size()) + columns - 1) / columns) : 1;
    return rows;
}

// The table cut to what the terminal shows above the cursor's line. A taller table would scroll,
// and the next redraw, which cannot move above the top of the screen, would repeat its first
// lines below the ones scrolled away.
QStringList fitToScreen(const QStringList& lines, TerminalSize terminal) {
    const int available = terminal.rows - 1;
    if (terminal.rows <= 0 || screenRows(lines, terminal.columns) <= available) return lines;
    QStringList shown;
    for (const QString& line : lines) {
        if (screenRows(shown + QStringList{line}, terminal.columns) > available - 1) break;
        shown << line;
    }
    shown << "(" + QString::number(lines.size() - shown.size()) +
                 " more lines: the terminal is too short for the whole table)";
    return shown;
}

// Prints one refresh: on a terminal the table replaces the previous one in place; otherwise
// (a file, a pipe) every refresh is a new block of plain lines, or one JSON line with --json.
class RefreshPrinter {
  public:
    RefreshPrinter(Session& session, std::vector<const VarPosition*> variables)
        : session_(session),
          variables_(std::move(variables)),
          inPlace_(resultsAreTerminal() && !session.options().json) {}

    void print(int refresh) {
        if (session_.options().json) {
            printResult(refreshJson(session_, variables_, refresh));
            return;
        }
        const QString table = tableText(session_, variables_, refresh);
        if (!inPlace_) {
            printResult(table);
            return;
        }
        const TerminalSize terminal = resultsTerminalSize();
        const QStringList shown = fitToScreen(table.split('\n'), terminal);
        // Cursor up over the previous table, then clear to the end of the screen.
        const QString redraw =
            linesShown_ > 0 ? "\x1b[" + QString::number(linesShown_) + "F\x1b[J" : "";
        printResult(redraw + shown.join('\n'));
        linesShown_ = screenRows(shown, terminal.columns);
    }

  private:
    Session& session_;
    std::vector<const VarPosition*> variables_;
    bool inPlace_;
    int linesShown_ = 0;
};

// Until Ctrl-C, `count` refreshes, a lost lidar or a reading that brought no value.
int watchMonitor(Session& session, const std::vector<const VarPosition*>& variables, int count) {
    LidarUtilitiesManager& manager = session.manager();
    InterruptGuard guard;
    RefreshPrinter printer(session, variables);
    const size_t requests = requestCount(variables);
    std::atomic<int> refreshes{0};
    std::atomic<bool> nothingRead{false};
    QObject context;
    // Direct: the auto-refresh thread prints each reading as it ends; the loop below decides
    // when to stop.
    QObject::connect(
        &manager, &LidarUtilitiesManager::myMapChanged, &context,
        [&] {
            const int refresh = refreshes.load() + 1;
            if (interrupted || (count > 0 && refresh > count) || nothingRead) return;
            if (requests > 0 && manager.getLastModuleReadFailures().size() >= requests) {
                nothingRead = true;
                return;
            }
            printer.print(refresh);
            refreshes.store(refresh);
        },
        Qt::DirectConnection);
    manager.setMonitorAutoRefresh(true);

    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (interrupted || (count > 0 && refreshes.load() >= count)) {
            loop.exit(kExitOk);
        } else if (!session.connectionAlive()) {
            printDiagnostic("error: the connection to the lidar was lost");
            loop.exit(kExitFailed);
        } else if (nothingRead) {
            reportUnreadValues(manager);
            loop.exit(kExitFailed);
        }
    });
    poll.start(kPollMs);
    const int status = loop.exec();
    // Joins the auto-refresh thread, so no reading is inside the slot when its captures go.
    manager.Stop();
    return status;
}

// ---- recording ----

QString recordProgress(int rows, qint64 secondsLeft) {
    return "recording: " + QString::number(rows) + (rows == 1 ? " row" : " rows") + " written, " +
           QString::number(std::max<qint64>(secondsLeft, 0)) + " s left";
}

// How a recording's following ended.
enum class RecordingEnd { kRanItsCourse, kInterrupted, kLidarLost };

// Shows rows written and time left until the recording ends, the user stops it or the lidar is
// lost (then the recording is stopped; its file keeps what it has).
RecordingEnd followRecording(Session& session) {
    LidarUtilitiesManager& manager = session.manager();
    const int duration = manager.getMonitorRecordDurationSec();
    const bool terminal = ::isatty(STDERR_FILENO) == 1;
    QElapsedTimer clock;
    clock.start();
    int printedRows = -1;
    RecordingEnd end = RecordingEnd::kRanItsCourse;
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (interrupted) {
            manager.stopMonitorRecord();
            end = RecordingEnd::kInterrupted;
            loop.quit();
            return;
        }
        if (!manager.getIsMonitorRecording()) {
            loop.quit();
            return;
        }
        if (!session.connectionAlive()) {
            manager.stopMonitorRecord();
            end = RecordingEnd::kLidarLost;
            loop.quit();
            return;
        }
        const int rows = manager.getMonitorRecordRowCount();
        const qint64 left = duration - clock.elapsed() / 1000;
        if (terminal) {
            writeProgress("\r" + recordProgress(rows, left) + "\x1b[K", true);
        } else if (rows != printedRows && rows % 10 == 0) {
            printDiagnostic(recordProgress(rows, left));
        }
        printedRows = rows;
    });
    poll.start(kPollMs);
    loop.exec();
    if (terminal) writeProgress("\r\x1b[K", false);
    return end;
}

// What the client saw when the connection ended: the request that met a time-out, a closed
// connection or a broken reply (the monitor reading's, else the page timer's), else the
// client's own last error.
QString connectionLossCause(LidarUtilitiesManager& manager) {
    std::vector<LidarUtilitiesManager::ReadFailure> failures = manager.getLastModuleReadFailures();
    const std::vector<LidarUtilitiesManager::ReadFailure> timer =
        manager.getLastTimerRefresh().failures;
    failures.insert(failures.end(), timer.begin(), timer.end());
    for (const auto& failure : failures)
        if (failure.code <= lidar::kVrcClosedByPeer && failure.code >= lidar::kVrcMalformed)
            return "request " + qs(failure.request) + ": " + readFailureText(failure.code);
    const std::shared_ptr<AuthorizedVrcClient> client = manager.getAuthorizedClient();
    if (client && !client->GetClient().LastError().empty())
        return qs(client->GetClient().LastError());
    return "the client gave no reason";
}

// Why a recording wrote no row.
QString whyNoRow(Session& session, RecordingEnd end) {
    LidarUtilitiesManager& manager = session.manager();
    if (end == RecordingEnd::kLidarLost || !session.connectionAlive())
        return "the connection to the lidar was lost (" + connectionLossCause(manager) + ")";
    if (end == RecordingEnd::kInterrupted) return "stopped before the first reading ended";
    QStringList failed;
    for (const auto& failure : manager.getLastModuleReadFailures())
        failed << "request " + qs(failure.request) + ": " + readFailureText(failure.code);
    if (!failed.isEmpty()) return failed.join("; ");
    return "the recording ended before its first reading did";
}

int plotRecording(const QString& model, const QString& csvPath) {
    QString error;
    const auto charts = monitorcharts::MonitorChartSet::fromRecordFile(csvPath, &error);
    const QFileInfo csv(csvPath);
    const QString pngPath = csv.path() + "/" + csv.completeBaseName() + ".png";
    if (!charts || !charts->savePng(pngPath, model + " - " + csv.fileName(), &error)) {
        printDiagnostic("error: no chart: " + error);
        return kExitFailed;
    }
    printResult(pngPath);
    return kExitOk;
}

// Whether any row of the record file holds a value: a recording in which every reading failed
// has rows of empty cells only.
bool recordHoldsValues(const QString& path) {
    QFile file(path);
    monitorcharts::Recording recording;
    if (!file.open(QIODevice::ReadOnly) ||
        !monitorcharts::parseRecording(file.readAll(), recording, nullptr))
        return false;
    for (const QStringList& row : recording.rows)
        for (const QString& cell : row)
            if (!cell.trimmed().isEmpty()) return true;
    return false;
}

int record(Session& session) {
    const Options& options = session.options();
    LidarUtilitiesManager& manager = session.manager();
    manager.setMonitorRecordDurationSec(options.duration);
    manager.setMonitorRecordIntervalSec(options.interval);
    InterruptGuard guard;
    const int errorsBefore = session.errorCount();
    manager.startMonitorRecord(
        QUrl::fromLocalFile(QFileInfo(options.recordDir).absoluteFilePath()));
    if (session.errorCount() > errorsBefore) return kExitFailed;
    printDiagnostic("recording " + QString::number(options.duration) + " s, a row every " +
                    QString::number(options.interval) + " s (Ctrl-C stops early) ...");
    const RecordingEnd end = followRecording(session);
    const QString path = manager.getMonitorRecordFilePath();
    int status = kExitOk;
    if (session.errorCount() > errorsBefore && !QFileInfo::exists(path)) {
        // The file could not be created: the manager said so and wrote nothing.
        status = kExitFailed;
    } else if (manager.getMonitorRecordRowCount() == 0) {
        // A file of the header alone is no recording: a script reading the path would take it
        // for one.
        const bool removed = QFile::remove(path);
        printDiagnostic("error: no reading could be made: " + whyNoRow(session, end) +
                        (removed ? "; the record, its header alone, was removed" : QString()));
        status = kExitFailed;
    } else if (end == RecordingEnd::kLidarLost) {
        printDiagnostic("error: the connection to the lidar was lost (" +
                        connectionLossCause(manager) + "); the recording stops");
        status = kExitFailed;
    } else if (!recordHoldsValues(path)) {
        // Rows were written, but not one reading brought a value: told as the live table tells it.
        reportUnreadValues(manager);
        status = kExitFailed;
    }
    manager.Stop();
    if (!QFileInfo::exists(path)) return kExitFailed;
    printResult(path);
    if (options.plot && manager.getMonitorRecordRowCount() > 0 &&
        plotRecording(options.model, path) != kExitOk)
        status = kExitFailed;
    return status;
}

}  // namespace

int commandMonitor(Session& session) {
    const Options& options = session.options();
    if (!options.arguments.isEmpty()) return usageError("monitor takes no positional arguments");
    if (int status = session.requireNetworkModel("monitor"); status != kExitOk) return status;
    LidarUtilitiesManager& manager = session.manager();
    const int module = manager.getMonitorModuleIndex();
    if (module < 0) return usageError(options.model + " has no Monitor module");
    const bool recording = !options.recordDir.isEmpty();
    if (const QString problem = recording ? folderWriteProblem(options.recordDir) : QString();
        !problem.isEmpty())
        return usageError(problem);
    if (recording && options.json)
        return usageError("--json applies to the live table; a recording is its CSV file");
    if (!options.variant.isEmpty()) {
        const QStringList variants = manager.getMonitorHwVersionList();
        if (!variants.contains(options.variant))
            return usageError("unknown monitor variant '" + options.variant + "'" +
                              (variants.isEmpty() ? "; " + options.model + " has none"
                                                  : "; the variants are: " + variants.join(", ")));
        const int errorsBefore = session.errorCount();
        manager.selectMonitorHwVersion(options.variant);
        // The manager said why (its file could not be read); another variant is not what was
        // asked for.
        if (session.errorCount() > errorsBefore) return kExitFailed;
    }
    printVariants(manager, options.model, recording, options.json);
    const std::vector<const VarPosition*> variables = monitorVariables(session, module);
    if (variables.empty()) return usageError("the monitor page of " + options.model + " is empty");

    if (int status = session.connect(); status != kExitOk) return status;
    manager.setModuleIndexUse(module);
    if (recording) return record(session);
    printDiagnostic("monitoring, refreshed every second (Ctrl-C stops) ...");
    return watchMonitor(session, variables, options.count);
}

}  // namespace cli
