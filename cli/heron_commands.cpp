// heron: the Heron-VRC model's own operations from the command line: its version texts, the IMU
// ranges, a restart, and the OTA component upgrade. Each connects like the other commands and
// reports the manager's messages; the upgrade draws the firmware upgrade's progress bar and
// prints a line for each component as the manager logs it.

#include <QFileInfo>
#include <QJsonObject>
#include <QThread>
#include <QUrl>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>

#include "commands.h"
#include "interrupt.h"
#include "output.h"
#include "progress.h"
#include "session.h"

namespace cli {
namespace {

const char* const kAngularVariable = "IMU Angular Range";
const char* const kAccelerationVariable = "IMU Acceleration Range";
const char* const kUpgradeCompleted = "Heron upgrade completed.";
const char* const kUpgradeCompletedAndRestarted =
    "Heron upgrade completed. Restart command has been sent.";
const char* const kRestartRefused = "Heron restart command failed, ret:";

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

// What the catalogue calls a range code ("4000 dps"), or "code N" when it does not say.
QString codeMeaning(Session& session, const char* variable, uint8_t code) {
    const VarInfo* var = session.manager().searchVarPtr(variable, "var_name");
    if (var != nullptr) {
        const auto text = var->value_to_option.find(code);
        if (text != var->value_to_option.end()) return qs(text->second);
    }
    return "code " + QString::number(code);
}

// "0 = 125 dps, 1 = 250 dps, ...": each index with what its code means.
template <size_t N>
QString indexMeanings(Session& session, const char* variable, const std::array<uint8_t, N>& codes) {
    QStringList meanings;
    for (size_t i = 0; i < N; ++i)
        meanings << QString::number(i) + " = " + codeMeaning(session, variable, codes[i]);
    return meanings.join(", ");
}

// A whole number from 0 to count - 1, in ASCII decimal digits only: another script's digits
// would convert to 0 and set a range nobody asked for. An empty text or one too long for an int
// does not convert.
bool parseIndex(const QString& text, int count, int& index) {
    if (!std::all_of(text.begin(), text.end(), [](QChar c) { return c >= '0' && c <= '9'; }))
        return false;
    bool ok = false;
    index = text.toInt(&ok, 10);
    return ok && index < count;
}

int heronVersions(Session& session) {
    if (!session.options().arguments.isEmpty())
        return usageError("heron versions takes no arguments");
    if (int status = session.connect(); status != kExitOk) return status;
    LidarUtilitiesManager& manager = session.manager();
    manager.HeronGetVersionInfo();
    const std::pair<QString, QString> versions[] = {
        {"model_version", manager.getHeronModelVersionText()},
        {"bmb_fpga_version", manager.getHeronBmbFpgaVersion()},
        {"tmb_fpga_version", manager.getHeronTmbFpgaVersion()},
        {"bmb_mcu_version", manager.getHeronBmbMcuVersion()}};
    QJsonObject json;
    bool complete = true;
    for (const auto& [name, value] : versions) {
        if (session.options().json)
            json[name] = value;
        else
            printResult(name + "=" + value);
        // The manager shows the placeholder for a version it could not read.
        if (value == LidarUtilitiesManager::kUnknownHeronComponentVersion) {
            printDiagnostic("error: the lidar did not report " + name);
            complete = false;
        }
    }
    if (session.options().json) printJson(QJsonDocument(json));
    return complete ? kExitOk : kExitFailed;
}

int heronImu(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 2)
        return usageError("heron imu takes two indexes: ANGULAR (0-5) and ACCELERATION (0-3)");
    const auto& angularCodes = LidarUtilitiesManager::kHeronAngularRangeCodes;
    const auto& accelerationCodes = LidarUtilitiesManager::kHeronAccelerationRangeCodes;
    int angular = 0;
    int acceleration = 0;
    if (!parseIndex(arguments[0], static_cast<int>(angularCodes.size()), angular))
        return usageError("ANGULAR is the angular range's index, 0 to 5 (" +
                          indexMeanings(session, kAngularVariable, angularCodes) + "), not '" +
                          arguments[0] + "'");
    if (!parseIndex(arguments[1], static_cast<int>(accelerationCodes.size()), acceleration))
        return usageError("ACCELERATION is the acceleration range's index, 0 to 3 (" +
                          indexMeanings(session, kAccelerationVariable, accelerationCodes) +
                          "), not '" + arguments[1] + "'");
    if (int status = session.connect(); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    const int errorsBefore = session.errorCount();
    manager.HeronSetIMURange(angular, acceleration);
    if (session.errorCount() != errorsBefore) {
        if (const auto client = manager.getAuthorizedClient())
            printDiagnostic("error: " + readFailureText(client->GetLastReturnCode()));
        return kExitFailed;
    }
    const auto describe = [&session](const char* variable, int index, uint8_t code) {
        return codeMeaning(session, variable, code) + " (index " + QString::number(index) +
               ", code " + QString::number(code) + ")";
    };
    printResult("angular range " + describe(kAngularVariable, angular, angularCodes[angular]) +
                ", acceleration range " +
                describe(kAccelerationVariable, acceleration, accelerationCodes[acceleration]));
    return kExitOk;
}

int heronRestart(Session& session) {
    if (!session.options().arguments.isEmpty())
        return usageError("heron restart takes no arguments");
    if (int status = session.connect(); status != kExitOk) return status;
    LidarUtilitiesManager& manager = session.manager();
    const int ret = manager.HeronSendRestartCommand();
    if (ret != 0) {
        printDiagnostic("error: the lidar did not acknowledge the restart: " +
                        readFailureText(ret));
        return kExitFailed;
    }
    printDiagnostic("Heron restart command sent; the lidar restarts");
    // The lidar closes the connection as it restarts.
    manager.Stop();
    return kExitOk;
}

// The manager's log lines that follow the upgrade's course: one line per component, and the
// parser's reason when it refuses the package.
bool isUpgradeStep(const QString& line) {
    return line.startsWith("Heron upgrade: current partition=") ||
           line.startsWith("Heron upgrade: skip ") || line.startsWith("Heron upgrade: sending ") ||
           line.startsWith("Invalid OTA ") || line.startsWith("Component ") ||
           line == "No component found in package";
}

// How far the upgrade has gone, as the manager's log lines tell it.
enum class HeronStage { kPreparing, kInUpgradeMode, kSending };

// What the worker tells of the upgrade, on its own thread.
struct HeronUpgradeWatch {
    std::atomic<int> upgradingChanges{0};
    std::atomic<HeronStage> stage{HeronStage::kPreparing};
    std::atomic<bool> completed{false};  // every component sent
    std::atomic<bool> restarted{false};  // the lidar acknowledged the restart
    std::atomic<int> restartCode{0};     // the lidar's answer to a restart it refused
};

void watchHeronUpgrade(LidarUtilitiesManager& manager, QObject& context, HeronUpgradeWatch& watch,
                       bool verbose) {
    QObject::connect(
        &manager, &LidarUtilitiesManager::isUpgradingChanged, &context,
        [&watch] { ++watch.upgradingChanges; }, Qt::DirectConnection);
    QObject::connect(
        &manager, &LidarUtilitiesManager::successMessageChanged, &context,
        [&manager, &watch] {
            const QString text = manager.getSuccessMessage();
            if (text.startsWith(kUpgradeCompleted)) watch.completed.store(true);
            if (text == kUpgradeCompletedAndRestarted) watch.restarted.store(true);
        },
        Qt::DirectConnection);
    QObject::connect(
        &manager, &LidarUtilitiesManager::sendLogMessage, &context,
        [verbose, &watch](const QString& line, const QString& level) {
            if (line.startsWith("Heron upgrade: current partition="))
                watch.stage.store(HeronStage::kInUpgradeMode);
            // The worker sets the plan's total before it logs the first component it sends.
            if (line.startsWith("Heron upgrade: sending ")) watch.stage.store(HeronStage::kSending);
            if (line.startsWith(kRestartRefused))
                watch.restartCode.store(line.mid(int(strlen(kRestartRefused))).toInt());
            // --verbose prints every log line already.
            if (!verbose && level == "INFO" && isUpgradeStep(line)) printDiagnostic(line);
        },
        Qt::DirectConnection);
}

// The first Ctrl-C's warning, true to what the lidar holds at that moment.
QString interruptWarning(HeronStage stage) {
    const QString again = "; press Ctrl-C again to abandon it";
    switch (stage) {
        case HeronStage::kPreparing:
            return "the upgrade is still running: the lidar is being put into upgrade mode and no "
                   "component has been sent yet" +
                   again;
        case HeronStage::kInUpgradeMode:
            return "the upgrade is still running: no component has been sent yet, but the lidar "
                   "is in upgrade mode and stays in it if you stop now" +
                   again;
        case HeronStage::kSending:
            break;
    }
    return "the upgrade is still running: stopping now leaves the lidar in upgrade mode with "
           "part of the package" +
           again;
}

// Draws the progress until the worker ends the upgrade (the second change of isUpgrading): the
// first Ctrl-C warns, the second abandons it by closing the connection. The bar starts with the
// first component: its total is the plan's, not the file's.
// The manager's error said what failed (printed once); the lidar's own answer, when the client
// has one, follows as a detail.
void explainUpgradeFailure(LidarUtilitiesManager& manager, bool managerSaidWhy) {
    if (!managerSaidWhy) printDiagnostic("error: the upgrade did not complete");
    const auto client = manager.getAuthorizedClient();
    if (!client || client->GetLastReturnCode() == 0) return;
    const std::string why = client->GetClient().LastError();
    const int code = client->GetLastReturnCode();
    printDiagnostic("  the lidar's last answer: " + readFailureText(code) +
                    (why.empty() || code > 0 ? QString() : ": " + qs(why)));
}

int heronUpgrade(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() != 1) return usageError("heron upgrade takes one package file");
    const QFileInfo package(arguments.front());
    if (const QString problem = session.manager().firmwarePackageProblem(arguments.front());
        !problem.isEmpty())
        return usageError(problem);
    // Judged before the lidar is touched: a package the upgrade refuses never costs a connection.
    if (const QString refusal = otaPackageRefusal(package.absoluteFilePath()); !refusal.isEmpty()) {
        printDiagnostic("error: " + arguments.front() +
                        " is not a valid Heron OTA package (the upgrade refuses it): " + refusal);
        return kExitFailed;
    }
    if (int status = session.connect(); status != kExitOk) return status;

    LidarUtilitiesManager& manager = session.manager();
    // Connected before the worker starts; the worker ends the upgrade with isUpgrading false,
    // then restarts the lidar and stops, so completion is told by its success message.
    HeronUpgradeWatch watch;
    QObject context;
    watchHeronUpgrade(manager, context, watch, session.options().verbose);
    const int errorsBefore = session.errorCount();
    // From before the worker starts: a Ctrl-C as soon as it prints must reach the upgrade.
    InterruptGuard guard;
    // The outcome is shown by the worker while the bar may still be drawn: it waits for the bar.
    session.holdMessages();
    if (manager.HeronUpgradeLidar(QUrl::fromLocalFile(package.absoluteFilePath())) != 0) {
        session.releaseMessages();
        return kExitFailed;  // the manager has said why
    }
    printDiagnostic("upgrading with " + package.fileName() + " (" +
                    QString::number(package.size()) + " bytes) ...");
    followUpgrade(
        manager, watch.upgradingChanges,
        [&watch] { return watch.stage.load() == HeronStage::kSending; },
        [&watch] { return interruptWarning(watch.stage.load()); });
    session.releaseMessages();
    // The worker ends after the restart request and the stop.
    manager.waitForWorkers();
    const bool restarted = watch.restarted.load();
    if (!watch.completed.load())
        explainUpgradeFailure(manager, session.errorCount() != errorsBefore);
    else if (!restarted)
        printDiagnostic("error: the components are written but the lidar was not restarted" +
                        (watch.restartCode.load() != 0
                             ? ": " + readFailureText(watch.restartCode.load())
                             : QString()) +
                        "; power-cycle the lidar to run them");
    if (session.options().json)
        printJson(QJsonDocument(QJsonObject{{"package", package.absoluteFilePath()},
                                            {"upgraded", watch.completed.load()},
                                            {"restarted", restarted}}));
    return restarted ? kExitOk : kExitFailed;
}

}  // namespace

int commandHeron(Session& session) {
    if (session.options().model != kHeronModel)
        return usageError("heron commands need --model " + QString(kHeronModel) + " (not " +
                          session.options().model + ")");
    const QString& action = session.options().action;
    if (action == "versions") return heronVersions(session);
    if (action == "imu") return heronImu(session);
    if (action == "restart") return heronRestart(session);
    if (action == "upgrade") return heronUpgrade(session);
    return usageError("unknown heron command '" + action + "'");
}

}  // namespace cli
