// upgrade, log and oplog: the manager's transfers from the command line. Each polls the
// manager's counters and flags while its worker runs and draws them with the progress line.

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QThread>
#include <QUrl>
#include <atomic>
#include <optional>
#include <iterator>

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

// Why a download cannot write into `folder` (checked before connecting: the manager would fetch
// the log and then say "successful" after failing to save it); empty when it can.
QString unwritableTarget(const QString& folder) {
    const QFileInfo info(folder);
    if (!info.exists()) return "no such folder: " + folder;
    if (!info.isDir()) return folder + " is not a folder";
    // Asked of the file system itself: permission bits say nothing of a read-only mount or /proc.
    QFile probe(folder + "/.lidarutil-write-probe-" +
                QString::number(QCoreApplication::applicationPid()));
    if (!probe.open(QIODevice::WriteOnly))
        return "cannot write into " + folder + ": " + probe.errorString();
    probe.close();
    probe.remove();
    return QString();
}

void reportJson(Session& session, const QJsonObject& object) {
    if (session.options().json) printJson(QJsonDocument(object));
}

}  // namespace

int commandUpgrade(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("upgrade takes one package file");
    const QFileInfo package(arguments.front());
    if (!package.isFile() || !package.isReadable())
        return usageError("cannot read the package " + arguments.front());
    // The manager hands an empty package to the transfer as designed, and the lidar would then be
    // restarted for nothing.
    if (package.size() == 0)
        return usageError("the package " + arguments.front() + " is empty; nothing was sent");
    const bool serialModel = session.manager().getConnectType() != 0;
    if (serialModel && !session.options().variable.isEmpty())
        return usageError("--variable applies to the network models; " + session.options().model +
                          " takes its own transfer");
    QString problem;
    const VarPosition* variable = serialModel ? nullptr : upgradeVariable(session, problem);
    if (!serialModel && variable == nullptr) return usageError(problem);
    if (int status = session.connect(); status != kExitOk) return status;

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
    // The outcome is shown by the worker while the progress line may still be drawn: it waits.
    session.holdMessages();
    const int started =
        serialModel ? manager.WrenUpgradeLidar(url)
                    : manager.UpgradeLidar(url, variable->module, variable->page, variable->row);
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
    followUpgrade(manager, upgradingChanges);
    session.releaseMessages();
    // The worker ends after its outcome: on the network models the restart 10 s later.
    manager.waitForWorkers();
    if (!transferred.seen()) explainTransferFailure(manager);
    reportJson(session, {{"package", package.absoluteFilePath()},
                         {"bytes", package.size()},
                         {"transferred", transferred.seen()}});
    return transferred.seen() ? kExitOk : kExitFailed;
}

void followUpgrade(LidarUtilitiesManager& manager, const std::atomic<int>& upgradingChanges,
                   const std::atomic<bool>* totalSet) {
    // A lidar left with part of a package may not start again: the first Ctrl-C only warns, the
    // second abandons the transfer by closing the connection.
    InterruptGuard guard;
    int interrupts = 0;
    std::optional<ProgressRenderer> progress;
    const auto drawOnceTheTotalIsSet = [&progress, totalSet] {
        if (!progress && (totalSet == nullptr || totalSet->load()))
            progress.emplace("upgrade", "KiB");
        return progress.has_value();
    };
    while (upgradingChanges.load() < 2) {
        if (interrupted.exchange(false) && ++interrupts == 1) {
            printDiagnostic(
                "the upgrade is still running: stopping now leaves the lidar with part of the "
                "package; press Ctrl-C again to abandon it");
        } else if (interrupts == 2) {
            printDiagnostic("abandoning the upgrade: closing the connection");
            manager.Stop();
            ++interrupts;
        }
        if (drawOnceTheTotalIsSet())
            progress->update(manager.getUpgradeProgress(), manager.getUpgradeProgressTotalLen());
        QThread::msleep(kPollMs);
    }
    if (drawOnceTheTotalIsSet())
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

}  // namespace

int commandLog(Session& session) {
    if (overSerialLines(session)) return refuseOverSerialLines(session, "log");
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("log takes one log name");
    const QString& name = arguments.front();
    const QStringList logs = [&] {
        QStringList names;
        for (const QVariant& log : session.manager().logRepeaterModel()) names << log.toString();
        return names;
    }();
    if (!logs.contains(name))
        return usageError(session.options().model + " has no log '" + name +
                          "'; its logs are: " + logs.join(", "));
    const QDir folder(session.options().dir.isEmpty() ? "." : session.options().dir);
    if (QString problem = unwritableTarget(folder.absolutePath()); !problem.isEmpty())
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
    if (manager.DownloadLog(QUrl::fromLocalFile(folder.absolutePath()), name) != 0) {
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

    const QFileInfoList written = folder.entryInfoList({name + "_*.bin"}, QDir::Files, QDir::Time);
    if (!saved.seen() || session.errorCount() != errorsBefore || written.isEmpty() ||
        written.front().lastModified() < started)
        return kExitFailed;
    const QFileInfo& file = written.front();
    // Any answer but "no reply" is saved; a refusal is an empty or partial file, not a log.
    const std::shared_ptr<AuthorizedVrcClient> client = manager.getAuthorizedClient();
    if (client && client->GetLastReturnCode() > 0) {
        printDiagnostic("error: " + readFailureText(client->GetLastReturnCode()) +
                        "; the file holds the reply as it came: " + file.absoluteFilePath());
        return kExitFailed;
    }
    reportJson(session, {{"file", file.absoluteFilePath()}, {"bytes", file.size()}});
    if (!session.options().json)
        printResult(file.absoluteFilePath() + " (" + sizeText(file.size()) + ")");
    return kExitOk;
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

// After a failed operation log nothing at the user's path may pass for the whole log. The parts
// are kept: in the work folder when the manager left it, else in the archive, renamed as
// incomplete. Says where they are.
void setAsideIncompleteArchive(const QString& archive) {
    const QString workFolder = LidarUtilitiesManager::operationLogWorkFolder();
    if (QDir(workFolder).exists() && !QDir(workFolder).isEmpty()) {
        QFile::remove(archive);
        printDiagnostic("error: no archive was kept at " + archive +
                        "; the parts that came are in " + workFolder);
        return;
    }
    if (!QFileInfo(archive).isFile()) {
        printDiagnostic("error: no archive was written at " + archive);
        return;
    }
    const QString incomplete = archive.left(archive.size() - 4) + ".incomplete.tar";
    QFile::remove(incomplete);
    if (QFile::rename(archive, incomplete))
        printDiagnostic("error: the archive is incomplete; the parts that came are kept as " +
                        incomplete);
    else
        printDiagnostic("error: the archive at " + archive +
                        " is incomplete and could not be renamed");
}

}  // namespace

int commandOperationLog(Session& session) {
    if (overSerialLines(session)) return refuseOverSerialLines(session, "oplog");
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("oplog takes one archive path");
    if (arguments.front().trimmed().isEmpty())
        return usageError("oplog needs an archive path (an empty one names no file)");
    const QString archive = archivePathOf(arguments.front());
    if (QString problem = unwritableTarget(QFileInfo(archive).absolutePath()); !problem.isEmpty())
        return usageError(problem);
    if (QFileInfo(archive).isDir()) return usageError(archive + " is a folder, not an archive");
    if (int status = session.connect(); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    std::atomic<int> outcome{-1};
    QObject context;
    QObject::connect(
        &manager, &LidarUtilitiesManager::downloadOperationLogFinished, &context,
        [&outcome](bool ok) { outcome.store(ok ? 1 : 0); }, Qt::DirectConnection);
    if (manager.DownloadOperationLog(QUrl::fromLocalFile(archive)) != 0) {
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
    // The manager counts a part the lidar refused (an empty file) as fetched; here it is not.
    const QStringList missing = partsNotGiven(manager.getLastOperationLogResults());
    const QFileInfo file(archive);
    // tar's exit code is not what the manager judges: an empty or absent archive is a failure.
    const bool archived = outcome.load() == 1 && file.isFile() && file.size() > 0;
    if (!archived || !missing.isEmpty()) {
        for (const QString& part : missing) printDiagnostic("error: part not given, " + part);
        setAsideIncompleteArchive(archive);
        return kExitFailed;
    }
    reportJson(session, {{"file", file.absoluteFilePath()}, {"bytes", file.size()}});
    if (!session.options().json)
        printResult(file.absoluteFilePath() + " (" + sizeText(file.size()) + ")");
    return kExitOk;
}

}  // namespace cli
