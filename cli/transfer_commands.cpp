// upgrade, log and oplog: the manager's transfers from the command line. Each polls the
// manager's counters and flags while its worker runs and draws them with the progress line.

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QThread>
#include <QUrl>
#include <atomic>

#include "commands.h"
#include "output.h"
#include "progress.h"
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
        if (named == nullptr)
            problem = session.options().model + " has no variable '" + name + "'";
        else if (named->var->set_cmd.empty())
            problem = name + " has no set command, so it cannot start an upgrade";
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
    const bool serialModel = session.manager().getConnectType() != 0;
    if (serialModel && !session.options().variable.isEmpty())
        return usageError("--variable applies to the network models; " + session.options().model +
                          " takes its own transfer");
    QString problem;
    const VarPosition* variable = serialModel ? nullptr : upgradeVariable(session, problem);
    if (!serialModel && variable == nullptr) return usageError(problem);
    if (int status = session.connect(false); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    SuccessWatch transferred(manager, "Upgrade package transmitted successfully.");
    const QUrl url = QUrl::fromLocalFile(package.absoluteFilePath());
    const int started =
        serialModel ? manager.WrenUpgradeLidar(url)
                    : manager.UpgradeLidar(url, variable->module, variable->page, variable->row);
    if (started != 0 || !manager.getIsUpgrading()) {
        if (session.errorCount() == 0)
            printDiagnostic("error: the lidar is busy (an upgrade or a log download runs)");
        return kExitFailed;
    }
    printDiagnostic("upgrading with " + package.fileName() + " (" + sizeText(package.size()) +
                    ") ...");
    ProgressRenderer progress("upgrade", "KiB");
    while (manager.getIsUpgrading()) {
        progress.update(manager.getUpgradeProgress(), manager.getUpgradeProgressTotalLen());
        QThread::msleep(kPollMs);
    }
    progress.finish(manager.getUpgradeProgress(), manager.getUpgradeProgressTotalLen());
    // The worker ends after its outcome: on the network models the restart 10 s later.
    manager.waitForWorkers();
    reportJson(session, {{"package", package.absoluteFilePath()},
                         {"bytes", package.size()},
                         {"transferred", transferred.seen()}});
    return transferred.seen() ? kExitOk : kExitFailed;
}

int commandLog(Session& session) {
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
    if (!folder.exists()) return usageError("no such folder: " + folder.path());
    if (int status = session.connect(false); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    SuccessWatch saved(manager, name + " download successful.");
    const QStringList before = folder.entryList({name + "_*.bin"}, QDir::Files);
    const int errorsBefore = session.errorCount();
    if (manager.DownloadLog(QUrl::fromLocalFile(folder.absolutePath()), name) != 0) {
        printDiagnostic("error: the lidar is busy (an upgrade or a log download runs)");
        return kExitFailed;
    }
    ProgressRenderer progress("log " + name, "");
    std::atomic<bool> finished{false};
    QObject context;
    QObject::connect(
        &manager, &LidarUtilitiesManager::downloadFinished, &context,
        [&finished] { finished.store(true); }, Qt::DirectConnection);
    while (!finished.load()) {
        progress.update(0, 0);
        QThread::msleep(kPollMs);
    }
    progress.finish(0, 0);
    manager.waitForWorkers();

    QStringList written = folder.entryList({name + "_*.bin"}, QDir::Files, QDir::Time);
    for (const QString& old : before) written.removeAll(old);
    if (!saved.seen() || session.errorCount() != errorsBefore || written.isEmpty())
        return kExitFailed;
    const QFileInfo file(folder.absoluteFilePath(written.front()));
    reportJson(session, {{"file", file.absoluteFilePath()}, {"bytes", file.size()}});
    if (!session.options().json)
        printResult(file.absoluteFilePath() + " (" + sizeText(file.size()) + ")");
    return kExitOk;
}

int commandOperationLog(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("oplog takes one archive path");
    QString archive = QFileInfo(arguments.front()).absoluteFilePath();
    if (!QFileInfo(archive).absoluteDir().exists())
        return usageError("no such folder: " + QFileInfo(archive).absolutePath());
    if (archive.right(4) != ".tar") archive += ".tar";
    if (int status = session.connect(false); status != kExitOk) return status;

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
    if (outcome.load() != 1) return kExitFailed;
    const QFileInfo file(archive);
    reportJson(session, {{"file", file.absoluteFilePath()}, {"bytes", file.size()}});
    if (!session.options().json)
        printResult(file.absoluteFilePath() + " (" + sizeText(file.size()) + ")");
    return kExitOk;
}

}  // namespace cli
