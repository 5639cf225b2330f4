// upgrade, log and oplog: the manager's transfers from the command line. Each polls the
// manager's counters and flags while its worker runs and draws them with the progress line.

#include <fcntl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>
#include <QThread>
#include <QUrl>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <optional>
#include <thread>

#include "commands.h"
#include "interrupt.h"
#include "output.h"
#include "progress.h"
#include "sdk/serial_client.h"
#include "sdk/text_fields.h"
#include "session.h"

namespace cli {
namespace {

constexpr unsigned long kPollMs = 100;
constexpr uint8_t kFirmwareUpgradeCommand = 0x83;

// The catalogue variable that starts the generic upgrade: the one named, or the first whose
// set command is the firmware upgrade command.
const VarPosition* upgradeVariable(Session& session, QString& problem) {
    const QString& name = session.options().variable;
    if (!name.isEmpty()) {
        const VarPosition* named = session.findVariable(name);
        uint8_t code = 0;
        if (named == nullptr)
            problem = session.options().model + " has no variable '" + name + "'";
        else if (!lidar::text::ParseCommandCode(named->var->set_cmd, code) ||
                 code != kFirmwareUpgradeCommand)
            // Any other command would reach the lidar with the transfer's begin phase as its
            // payload: a reset or a restart, or a setting written with the package's size.
            problem = name + " is not a firmware upgrade variable (its set command is '" +
                      QString::fromStdString(named->var->set_cmd) +
                      "'; an upgrade variable's is 0x83)";
        return problem.isEmpty() ? named : nullptr;
    }
    for (const VarPosition& position : session.variables()) {
        uint8_t code = 0;
        if (lidar::text::ParseCommandCode(position.var->set_cmd, code) &&
            code == kFirmwareUpgradeCommand)
            return &position;
    }
    problem = session.options().model +
              " has no firmware upgrade variable (set command 0x83); name one with --variable";
    return nullptr;
}

QString sizeText(qint64 bytes) {
    return QString::number(bytes) + " bytes";
}

// Records whether a message starting with `prefix` was shown, from whichever thread shows it.
class SuccessWatch {
  public:
    SuccessWatch(LidarUtilitiesManager& manager, QString prefix) {
        QObject::connect(
            &manager, &LidarUtilitiesManager::successMessageChanged, &context_,
            [this, &manager, prefix] {
                if (manager.getSuccessMessage().startsWith(prefix)) seen_.store(true);
            },
            Qt::DirectConnection);
    }
    bool seen() const { return seen_.load(); }

  private:
    QObject context_;
    std::atomic<bool> seen_{false};
};

// The transfer's own failure in words: the last result of the client that carried it (the
// serial client on the Wren's lines, the VRC client otherwise) and its reason.
void explainTransferFailure(LidarUtilitiesManager& manager) {
    int code = 0;
    std::string why;
    if (manager.getConnectType() == 1) {
        const std::shared_ptr<lidar::SerialClient> serial = manager.getSerialClient();
        if (!serial) return;
        code = serial->GetLastReturnCode();
        why = serial->LastError();
    } else {
        const std::shared_ptr<AuthorizedVrcClient> client = manager.getAuthorizedClient();
        if (!client) return;
        code = client->GetLastReturnCode();
        why = client->GetClient().LastError();
    }
    printDiagnostic(
        "error: the transfer failed: " + readFailureText(code) +
        (why.empty() || code > 0 ? QString() : " (" + QString::fromStdString(why) + ")"));
}

// The worker ends after its outcome: on the network models with the restart 10 s after the
// transfer. A Ctrl-C in that pause warns; a second one calls the manager's Stop, which abandons
// the restart and says so.
void followRestart(LidarUtilitiesManager& manager) {
    std::atomic<bool> ended{false};
    std::thread waiter([&manager, &ended] {
        manager.waitForWorkers();
        ended.store(true);
    });
    followUntil(
        manager, [&ended] { return ended.load(); },
        [] {
            return QString(
                "the lidar is restarted in a few seconds to finish the upgrade; press Ctrl-C "
                "again to abandon the restart (the lidar must then be restarted by hand)");
        },
        "abandoning the automatic restart");
    waiter.join();
}

// A refused automatic restart is told twice by the manager (the restart's own failure, then the
// upgrade's "Auto reboot failed. Please reboot lidar manually."): one line here, with the
// lidar's reason. Every other message of the restart is printed as it came.
void reportRestartOutcome(const QStringList& messages) {
    const QString designed = "error: Auto reboot failed. Please reboot lidar manually.";
    if (!messages.contains(designed)) {
        for (const QString& line : messages) printDiagnostic(line);
        return;
    }
    static const QRegularExpression kReturnCode("ret_code: (-?\\d+)");
    QString reason;
    for (const QString& line : messages) {
        if (!line.startsWith("error: ")) {
            printDiagnostic(line);
        } else if (line != designed && reason.isEmpty()) {
            const QRegularExpressionMatch code = kReturnCode.match(line);
            reason = code.hasMatch() ? readFailureText(code.captured(1).toInt()) : line.mid(7);
        }
    }
    printDiagnostic(
        "error: Auto reboot failed: the package was transmitted, but the lidar was not "
        "restarted" +
        (reason.isEmpty() ? QString() : ": " + reason) + ". Please reboot lidar manually.");
}

void reportJson(Session& session, const QJsonObject& object) {
    if (session.options().json) printJson(QJsonDocument(object));
}

}  // namespace

namespace {

// What the upgrade checks before connecting: a usage error's text, or empty with `variable` set
// to the catalogue variable that starts it (null for the serial-line models, which take their
// own transfer).
QString upgradeRequestProblem(Session& session, const VarPosition*& variable) {
    const QString& path = session.options().arguments.front();
    if (QString problem = session.manager().firmwarePackageProblem(path); !problem.isEmpty())
        return problem;
    // The Heron's firmware comes in components, each with its own transfer: a whole package
    // sent through the generic one would be taken for a firmware it is not.
    if (session.options().model == kHeronModel)
        return QString(kHeronModel) +
               " is upgraded with 'heron upgrade PACKAGE' (an "
               "OTA package of components); nothing was sent";
    const bool serialModel = session.manager().getConnectType() != 0;
    if (serialModel && !session.options().variable.isEmpty())
        return "--variable applies to the network models; " + session.options().model +
               " takes its own transfer";
    QString problem;
    variable = serialModel ? nullptr : upgradeVariable(session, problem);
    return problem;
}

// Connected: the transfer with its progress bar, then the restart and the outcome.
int runUpgrade(Session& session, const QFileInfo& package, const VarPosition* variable) {
    LidarUtilitiesManager& manager = session.manager();
    // Connected before the worker starts: no connection changes while it emits. The upgrade
    // started when isUpgrading went true and is over when it went false again.
    SuccessWatch transferred(manager, "Upgrade package transmitted successfully.");
    std::atomic<int> upgradingChanges{0};
    QObject context;
    QObject::connect(
        &manager, &LidarUtilitiesManager::isUpgradingChanged, &context,
        [&upgradingChanges] { ++upgradingChanges; }, Qt::DirectConnection);
    const QUrl url = QUrl::fromLocalFile(package.absoluteFilePath());
    // From before the worker starts, and over the restart's pause too: a Ctrl-C at any point
    // must reach the manager, not end lidarutil.
    InterruptGuard guard;
    // The outcome is shown by the worker while the progress line may still be drawn: it waits.
    session.holdMessages();
    const int started = variable == nullptr ? manager.WrenUpgradeLidar(url)
                                            : manager.UpgradeLidar(url, variable->module,
                                                                   variable->page, variable->row);
    if (started != 0 || upgradingChanges.load() == 0) {
        session.releaseMessages();
        if (session.errorCount() == 0)
            printDiagnostic(started != 0
                                ? "error: the upgrade did not start (the lidar is busy with an "
                                  "upgrade or a log download, or the package is too large)"
                                : "error: nothing was sent: the package could not be read");
        return kExitFailed;
    }
    printDiagnostic("upgrading with " + package.fileName() + " (" + sizeText(package.size()) +
                    ") ...");
    followUpgrade(
        manager, upgradingChanges, [] { return true; },
        [] {
            return QString(
                "the upgrade is still running: stopping now leaves the lidar with part of the "
                "package; press Ctrl-C again to abandon it");
        });
    session.printHeldMessages();
    const int errorsAfterTransfer = session.errorCount();
    followRestart(manager);
    reportRestartOutcome(session.takeHeldMessages());
    if (!transferred.seen()) explainTransferFailure(manager);
    const bool restarted = transferred.seen() && session.errorCount() == errorsAfterTransfer;
    if (restarted) printDiagnostic("restart sent: the lidar starts again with the new firmware");
    reportJson(session, {{"package", package.absoluteFilePath()},
                         {"bytes", package.size()},
                         {"transferred", transferred.seen()},
                         {"restarted", restarted}});
    return restarted ? kExitOk : kExitFailed;
}

}  // namespace

int commandUpgrade(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("upgrade takes one package file");
    const QFileInfo package(arguments.front());
    const VarPosition* variable = nullptr;
    if (QString problem = upgradeRequestProblem(session, variable); !problem.isEmpty())
        return usageError(problem);
    if (int status = session.connect(); status != kExitOk) return status;
    return runUpgrade(session, package, variable);
}

void followUntil(LidarUtilitiesManager& manager, const std::function<bool()>& ended,
                 const std::function<QString()>& firstInterruptWarning, const QString& abandoning,
                 const std::function<void()>& eachPoll) {
    int interrupts = 0;
    while (!ended()) {
        if (interrupted.exchange(false) && ++interrupts == 1) {
            printDiagnostic(firstInterruptWarning());
        } else if (interrupts == 2) {
            printDiagnostic(abandoning);
            manager.Stop();
            ++interrupts;
        }
        if (eachPoll) eachPoll();
        QThread::msleep(kPollMs);
    }
}

void followUpgrade(LidarUtilitiesManager& manager, const std::atomic<int>& upgradingChanges,
                   const std::function<bool()>& sending,
                   const std::function<QString()>& firstInterruptWarning) {
    // A lidar left with part of a package may not start again: the first Ctrl-C only warns, the
    // second abandons the transfer by closing the connection.
    InterruptGuard guard;
    std::optional<ProgressRenderer> progress;
    const auto drawOnceSending = [&progress, &sending] {
        if (!progress && sending()) progress.emplace("upgrade", "KiB");
        return progress.has_value();
    };
    followUntil(
        manager, [&upgradingChanges] { return upgradingChanges.load() >= 2; },
        firstInterruptWarning, "abandoning the upgrade: closing the connection",
        [&] {
            if (drawOnceSending())
                progress->update(manager.getUpgradeProgress(),
                                 manager.getUpgradeProgressTotalLen());
        });
    if (drawOnceSending())
        progress->finish(manager.getUpgradeProgress(), manager.getUpgradeProgressTotalLen());
}

namespace {

// Logs travel over VRC only: on the serial lines the manager would refuse them as if busy.
bool overSerialLines(Session& session) {
    return session.manager().getConnectType() == 1;
}

int refuseOverSerialLines(Session& session, const QString& command) {
    return usageError(command + " needs a VRC connection; " + session.options().model +
                      " is reached over its serial lines, which carry no logs");
}

QStringList logNames(Session& session) {
    QStringList names;
    for (const QVariant& log : session.manager().logRepeaterModel()) names << log.toString();
    return names;
}

// After the download's worker: the file it wrote in `folder` since `started`, judged by the
// lidar's answer; prints the outcome.
int reportLogDownload(Session& session, const QDir& folder, const QString& name,
                      const QDateTime& started, bool saved, int errorsBefore) {
    LidarUtilitiesManager& manager = session.manager();
    const QString successLine = name + " download successful.";
    const QFileInfoList written = folder.entryInfoList({name + "_*.bin"}, QDir::Files, QDir::Time);
    const bool fresh = !written.isEmpty() && written.front().lastModified() >= started;
    // Any answer but "no reply" is saved; a refusal is a status, not a log.
    const std::shared_ptr<AuthorizedVrcClient> client = manager.getAuthorizedClient();
    const int refusal = client ? client->GetLastReturnCode() : 0;
    QStringList messages = session.takeHeldMessages();
    if (refusal > 0) messages.removeAll(successLine);
    for (const QString& line : messages) printDiagnostic(line);
    if (!saved || session.errorCount() != errorsBefore || !fresh) {
        // The manager's line gives the client's code alone.
        if (refusal < 0)
            printDiagnostic("error: " + name + " not downloaded: " + readFailureText(refusal));
        return kExitFailed;
    }
    const QFileInfo& file = written.front();
    if (refusal > 0) {
        const bool empty = file.size() == 0 && QFile::remove(file.absoluteFilePath());
        printDiagnostic(
            "error: " + name + " not downloaded: " + readFailureText(refusal) +
            (empty ? QString("; no file was kept")
                   : "; the file holds the reply as it came: " + file.absoluteFilePath()));
        return kExitFailed;
    }
    reportJson(session, {{"file", file.absoluteFilePath()}, {"bytes", file.size()}});
    if (!session.options().json)
        printResult(file.absoluteFilePath() + " (" + sizeText(file.size()) + ")");
    return kExitOk;
}

}  // namespace

int commandLog(Session& session) {
    if (overSerialLines(session)) return refuseOverSerialLines(session, "log");
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("log takes one log name");
    const QString& name = arguments.front();
    const QStringList logs = logNames(session);
    if (!logs.contains(name))
        return usageError(session.options().model + " has no log '" + name +
                          "'; its logs are: " + logs.join(", "));
    const QDir folder(session.options().dir.isEmpty() ? "." : session.options().dir);
    if (QString problem = folderWriteProblem(folder.absolutePath()); !problem.isEmpty())
        return usageError(problem);
    if (int status = session.connect(); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    SuccessWatch saved(manager, name + " download successful.");
    // The file's name has a resolution of one second: a download in the same second as an
    // earlier one writes the same file again, so the file is found by its time, not its name.
    const QDateTime started = QDateTime::currentDateTime().addSecs(-1);
    const int errorsBefore = session.errorCount();
    // Connected before the worker starts: no connection changes while it emits.
    std::atomic<bool> finished{false};
    QObject context;
    QObject::connect(
        &manager, &LidarUtilitiesManager::downloadFinished, &context,
        [&finished] { finished.store(true); }, Qt::DirectConnection);
    // The manager calls any answer a success: its messages wait until the answer is judged.
    session.holdMessages();
    if (manager.DownloadLog(QUrl::fromLocalFile(folder.absolutePath()), name) != 0) {
        session.releaseMessages();
        printDiagnostic("error: the lidar is busy (an upgrade or a log download runs)");
        return kExitFailed;
    }
    ProgressRenderer progress("log " + name, "");
    while (!finished.load()) {
        progress.update(0, 0);
        QThread::msleep(kPollMs);
    }
    progress.finish(0, 0);
    manager.waitForWorkers();
    return reportLogDownload(session, folder, name, started, saved.seen(), errorsBefore);
}

namespace {

// The operation log's parts, in the order the manager fetches them.
const char* const kOperationLogParts[] = {"bsw_warning", "asw_warning", "bsw_error", "asw_error"};

// The archive path as the manager will write it: absolute, ".tar" added when missing.
QString archivePathOf(const QString& argument) {
    QString archive = QFileInfo(argument).absoluteFilePath();
    if (archive.right(4) != ".tar") archive += ".tar";
    return archive;
}

// A part the lidar did not give: its name and the lidar's answer in words.
QStringList partsNotGiven(const std::vector<int>& results) {
    QStringList missing;
    if (results.empty()) return missing;  // no part was asked for: the manager has said why
    for (size_t n = 0; n < std::size(kOperationLogParts); ++n) {
        const int result = n < results.size() ? results[n] : -1;
        if (result == 0) continue;
        missing << QString(kOperationLogParts[n]) + ": " +
                       (result < 0 ? QString("no complete reply") : readFailureText(result));
    }
    return missing;
}

// Where the manager packs: beside the archive, under a hidden name of this run (".tar" at the
// end, so that the manager adds nothing). The archive itself is replaced only by a whole log.
QString packingPathOf(const QString& archive) {
    const QFileInfo target(archive);
    return target.absolutePath() + "/." + target.fileName() + ".lidarutil-" +
           QString::number(QCoreApplication::applicationPid()) + ".tar";
}

// Moves `from` to `to` in one step, replacing a file there; a reason when it could not.
QString moveIntoPlace(const QString& from, const QString& to) {
    if (::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return QString();
    return QString::fromLocal8Bit(std::strerror(errno));
}

// After a failed operation log nothing at the user's path may pass for the whole log, and an
// archive already there stays as it was. The parts that came are kept in NAME.incomplete.tar
// (which holds only this run's parts); says where they are, or that none is kept.
void keepPartsThatCame(const QString& packing, const QString& archive,
                       const std::vector<int>& results) {
    QStringList came;
    for (size_t n = 0; n < results.size() && n < std::size(kOperationLogParts); ++n)
        if (results[n] == 0) came << kOperationLogParts[n];
    const QFileInfo packed(packing);
    if (!came.isEmpty() && packed.isFile() && packed.size() > 0) {
        const QString incomplete = archive.left(archive.size() - 4) + ".incomplete.tar";
        const QString problem = moveIntoPlace(packing, incomplete);
        if (problem.isEmpty()) {
            printDiagnostic("error: the operation log is incomplete; the parts that came (" +
                            came.join(", ") + ") are kept in " + incomplete);
            return;
        }
        printDiagnostic("error: the operation log is incomplete; the parts that came (" +
                        came.join(", ") + ") are kept in " + packing + " (not moved to " +
                        incomplete + ": " + problem + ")");
        return;
    }
    QFile::remove(packing);
    // An archive of an earlier run at that path is kept as it was.
    const QString notWritten = QFileInfo::exists(archive)
                                   ? "no new archive was written; " + archive + " is left as it was"
                                   : "no archive was written at " + archive;
    if (results.empty())
        printDiagnostic("error: " + notWritten);
    else if (came.isEmpty())
        printDiagnostic("error: no part of the operation log came; " + notWritten);
    else
        printDiagnostic("error: the parts were not packed (tar failed or could not be started); " +
                        notWritten);
}

// What oplog checks of its archive path before connecting: a usage error's text, or empty.
QString archiveProblem(const QString& argument) {
    if (argument.trimmed().isEmpty())
        return "oplog needs an archive path (an empty one names no file)";
    // "DIR/" and "DIR" would become DIR/.tar and DIR.tar: a folder is not an archive's name.
    const QString archive = archivePathOf(argument);
    if (argument.endsWith('/') || QFileInfo(argument).isDir() || QFileInfo(archive).isDir())
        return argument + " is a folder; oplog needs the archive's file name (" +
               QDir(argument).filePath("operation-log.tar") + ", for example)";
    return folderWriteProblem(QFileInfo(archive).absolutePath());
}

// After the worker: the archive moved into place when the log came whole, or what is kept of
// it; prints the outcome.
int reportOperationLog(Session& session, const QString& archive, const QString& packing,
                       bool managerSucceeded) {
    const std::vector<int> results = session.manager().getLastOperationLogResults();
    const QStringList missing = partsNotGiven(results);
    const QFileInfo packed(packing);
    // tar's exit code is not what the manager judges: an empty or absent archive is a failure.
    const bool whole =
        managerSucceeded && missing.isEmpty() && packed.isFile() && packed.size() > 0;
    const QString moveProblem = whole ? moveIntoPlace(packing, archive) : QString();
    QStringList messages = session.takeHeldMessages();
    if (!whole || !moveProblem.isEmpty()) messages.removeAll("Operation log download successful.");
    for (const QString& line : messages) printDiagnostic(line);
    if (whole && moveProblem.isEmpty()) {
        const QFileInfo file(archive);
        reportJson(session, {{"file", file.absoluteFilePath()}, {"bytes", file.size()}});
        if (!session.options().json)
            printResult(file.absoluteFilePath() + " (" + sizeText(file.size()) + ")");
        return kExitOk;
    }
    if (whole) {
        printDiagnostic("error: the operation log could not be moved to " + archive + ": " +
                        moveProblem + "; it is kept as " + packing);
        return kExitFailed;
    }
    for (const QString& part : missing) printDiagnostic("error: part not given, " + part);
    keepPartsThatCame(packing, archive, results);
    return kExitFailed;
}

}  // namespace

int commandOperationLog(Session& session) {
    if (overSerialLines(session)) return refuseOverSerialLines(session, "oplog");
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("oplog takes one archive path");
    if (QString problem = archiveProblem(arguments.front()); !problem.isEmpty())
        return usageError(problem);
    const QString archive = archivePathOf(arguments.front());
    if (int status = session.connect(); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    std::atomic<int> outcome{-1};
    QObject context;
    QObject::connect(
        &manager, &LidarUtilitiesManager::downloadOperationLogFinished, &context,
        [&outcome](bool ok) { outcome.store(ok ? 1 : 0); }, Qt::DirectConnection);
    const QString packing = packingPathOf(archive);
    // The manager counts a part the lidar refused as fetched: its outcome waits for the parts
    // to be judged.
    session.holdMessages();
    if (manager.DownloadOperationLog(QUrl::fromLocalFile(packing)) != 0) {
        session.releaseMessages();
        printDiagnostic("error: the lidar is busy (an upgrade or a log download runs)");
        return kExitFailed;
    }
    ProgressRenderer progress("operation log", "");
    while (outcome.load() < 0) {
        progress.update(0, 0);
        QThread::msleep(kPollMs);
    }
    progress.finish(0, 0);
    manager.waitForWorkers();
    return reportOperationLog(session, archive, packing, outcome.load() == 1);
}

}  // namespace cli
