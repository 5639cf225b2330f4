// export, diff and apply: a lidar's settings captured to a profile file, compared with one, and
// brought to one (docs/profiles.md). The manager reads, compares and writes; this file reads and
// writes the files and says what happened.

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "commands.h"
#include "file_checks.h"
#include "interrupt.h"
#include "output.h"
#include "session.h"
#include "settings_profile.h"

namespace cli {
namespace {

// How long a restarted lidar may take to answer again.
constexpr int kRestartAnswerSeconds = 60;

QString utcNow() {
    return QDateTime::currentDateTimeUtc().toString(Qt::ISODate);
}

// Where export writes: the file named, or <serial number>.json in the folder named.
QString exportPath(const QString& output, const profile::SettingsProfile& captured,
                   QString* error) {
    if (output.endsWith('/') && !QFileInfo(output).isDir()) {
        *error = "no folder " + output;
        return QString();
    }
    if (!QFileInfo(output).isDir()) return output;
    if (captured.serialNumber.isEmpty()) {
        *error = "the lidar reported no serial number to name the file in " + output +
                 " after; name the file instead";
        return QString();
    }
    return QDir(output).filePath(captured.serialNumber + ".json");
}

// Writes beside the file and renames it into place once every byte is on the disk, so that a
// full disk or a device in the way never leaves a cut file in place of a good one.
// Why export cannot write where -o says, known before the lidar is asked; "" when it can.
QString outputProblem(const QString& output) {
    const QFileInfo info(output);
    if (info.isDir() || output.endsWith('/'))
        return info.isDir() && info.isWritable() ? QString()
                                                 : "no folder " + output + " to write into";
    const QFileInfo folder(info.absolutePath());
    if (!folder.isDir()) return "no folder " + folder.filePath() + " to write " + output + " into";
    if (!replaceableFile(output)) return output + " is not a regular file";
    return QString();
}

// Reads and checks a profile file; kExitOk, or kExitUsage with the reason printed.
int loadProfile(const QString& path, profile::SettingsProfile* out) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        printDiagnostic("error: cannot read " + path + ": " + file.errorString());
        return kExitUsage;
    }
    QString error;
    if (!profile::readProfile(file.readAll(), out, &error)) {
        printDiagnostic("error: " + path + ": " + error);
        return kExitUsage;
    }
    return kExitOk;
}

// The refusals of a profile the loaded model cannot take, each on its own line; kExitOk when
// there is none.
int refuseUnfitProfile(Session& session, const QString& path,
                       const profile::SettingsProfile& loaded, bool writing) {
    const QStringList refusals = session.manager().profileRefusals(loaded);
    if (refusals.isEmpty()) return kExitOk;
    for (const QString& refusal : refusals) printDiagnostic("error: " + path + ": " + refusal);
    if (writing) printDiagnostic("nothing was written");
    return kExitUsage;
}

QString withUnit(const QString& text, const QString& unit) {
    return unit.isEmpty() ? text : text + " " + unit;
}

void printFieldOfViewDifferences(const profile::ProfileComparison& comparison) {
    printResult(QString(profile::kFieldOfViewSetCommand) + " (field of view):");
    const profile::ProfileFieldOfView& wanted = *comparison.profileFieldOfView;
    const profile::ProfileFieldOfView lidar =
        comparison.lidarFieldOfView.value_or(profile::ProfileFieldOfView{});
    if (lidar.mode != wanted.mode) printResult("  mode: " + lidar.mode + " -> " + wanted.mode);
    for (int i = 0; i < wanted.bounds.size(); ++i) {
        const QString now = i < lidar.bounds.size() ? lidar.bounds[i] : QString("?");
        if (profile::boundTenths(now) != profile::boundTenths(wanted.bounds[i]))
            printResult("  " + QString(i < 5 ? "start " : "end ") + QString::number(i % 5 + 1) +
                        ": " + now + " -> " + wanted.bounds[i] + " °");
    }
}

// The differences for people: grouped by the set command that writes them, in the order an
// apply sends them.
void printDifferences(const profile::ProfileComparison& comparison) {
    for (const QString& command : comparison.plannedCommands()) {
        if (command == profile::kFieldOfViewSetCommand) {
            printFieldOfViewDifferences(comparison);
            continue;
        }
        bool headed = false;
        for (const profile::FieldDifference& difference : comparison.differences) {
            if (difference.setCommand != command) continue;
            if (!headed)
                printResult(command + " (" + difference.module + " / " + difference.page + "):");
            headed = true;
            // A change finer than the text shows is told by its bytes.
            const QString bytes = difference.lidarText != difference.profileText
                                      ? QString()
                                      : " (bytes " + QString(difference.lidarBytes.toHex()) +
                                            " -> " + QString(difference.profileBytes.toHex()) + ")";
            printResult("  " + difference.name + ": " +
                        withUnit(difference.lidarText, difference.unit) + " -> " +
                        withUnit(difference.profileText, difference.unit) + bytes);
        }
    }
}

QJsonObject differencesJson(const profile::ProfileComparison& comparison) {
    QJsonArray fields;
    for (const profile::FieldDifference& difference : comparison.differences)
        fields.append(QJsonObject{{"set_command", difference.setCommand},
                                  {"module", difference.module},
                                  {"page", difference.page},
                                  {"name", difference.name},
                                  {"var_id", difference.varId},
                                  {"lidar_bytes", QString(difference.lidarBytes.toHex())},
                                  {"profile_bytes", QString(difference.profileBytes.toHex())},
                                  {"lidar_text", difference.lidarText},
                                  {"profile_text", difference.profileText},
                                  {"unit", difference.unit}});
    QJsonObject json{{"matches", comparison.matches()},
                     {"differences", fields},
                     {"warnings", QJsonArray::fromStringList(comparison.warnings)}};
    if (comparison.fieldOfViewDiffers()) {
        const auto fov = [](const profile::ProfileFieldOfView& f) {
            return QJsonObject{{"mode", f.mode}, {"bounds", QJsonArray::fromStringList(f.bounds)}};
        };
        json["field_of_view"] = QJsonObject{
            {"lidar", fov(comparison.lidarFieldOfView.value_or(profile::ProfileFieldOfView{}))},
            {"profile", fov(*comparison.profileFieldOfView)}};
    }
    return json;
}

// The fields that differ: the field of view's mode and bounds each count.
int differenceCount(const profile::ProfileComparison& comparison) {
    int count = comparison.differences.size();
    if (!comparison.fieldOfViewDiffers()) return count;
    const profile::ProfileFieldOfView& wanted = *comparison.profileFieldOfView;
    const profile::ProfileFieldOfView lidar =
        comparison.lidarFieldOfView.value_or(profile::ProfileFieldOfView{});
    if (lidar.mode != wanted.mode) ++count;
    for (int i = 0; i < wanted.bounds.size(); ++i)
        if (i >= lidar.bounds.size() ||
            profile::boundTenths(lidar.bounds[i]) != profile::boundTenths(wanted.bounds[i]))
            ++count;
    return count;
}

// Reads the lidar and compares; kExitOk with *out filled, or kExitFailed, said.
int compare(Session& session, const profile::SettingsProfile& loaded,
            profile::ProfileComparison* out) {
    QString error;
    if (!session.manager().compareWithProfile(loaded, out, &error)) {
        printDiagnostic("error: " + error);
        return kExitFailed;
    }
    for (const QString& warning : out->warnings) printDiagnostic("warning: " + warning);
    return kExitOk;
}

// The profile's address for the lidar, when it holds one that the network command writes.
// The name of the profile's entry that holds the lidar's own address or MAC, or "".
QString ownAddressEntry(Session& session, const profile::SettingsProfile& loaded) {
    for (const profile::ProfileEntry& entry : loaded.settings) {
        const VarInfo* var = session.manager().searchVarPtr(entry.varId.toStdString(), "var_id");
        if (var != nullptr && LidarUtilitiesManager::isOwnAddressVariable(*var))
            return QString::fromStdString(var->var_name);
    }
    return QString();
}

// The address the lidar answers at after a restart: the profile's own address when the network
// command changed it, otherwise the one it was reached at (empty).
QString addressAfterRestart(Session& session, const profile::ProfileComparison& comparison) {
    for (const profile::FieldDifference& difference : comparison.differences) {
        const VarInfo* var =
            session.manager().searchVarPtr(difference.varId.toStdString(), "var_id");
        if (var != nullptr && LidarUtilitiesManager::isOwnAddressVariable(*var))
            return difference.profileText;
    }
    return QString();
}

}  // namespace

// ---- export ----

int commandExport(Session& session) {
    LidarUtilitiesManager::ProfileScope scope;
    for (const QString& name : session.options().arguments) {
        const int module = session.findModule(name);
        if (module < 0)
            return usageError("unknown module '" + name +
                              "'; the modules are: " + session.moduleNames().join(", "));
        scope.modules << module;
    }
    scope.excluded = session.options().excluded;
    scope.includeOwnAddress = session.options().includeNetwork;
    scope.withRecord = session.options().all;
    if (QString problem = session.manager().profileScopeProblem(scope); !problem.isEmpty())
        return usageError(problem);
    if (!session.options().output.isEmpty()) {
        if (QString problem = outputProblem(session.options().output); !problem.isEmpty())
            return usageError(problem);
    }
    if (int status = session.connect(); status != kExitOk) return status;

    profile::SettingsProfile captured;
    QString error;
    if (!session.manager().captureProfile(scope, &captured, &error)) {
        printDiagnostic("error: " + error);
        return kExitFailed;
    }
    if (captured.settings.isEmpty() && !captured.fieldOfView)
        printDiagnostic("warning: the profile holds no setting (the modules taken have none)");
    captured.time = utcNow();
    const QByteArray json = profile::writeProfile(captured);
    const QString output = session.options().output;
    if (output.isEmpty()) {
        printResult(QString::fromUtf8(json).trimmed());
        return kExitOk;
    }
    const QString path = exportPath(output, captured, &error);
    if (path.isEmpty() || !writeFileWhole(path, json, &error)) {
        printDiagnostic("error: " + error);
        return kExitFailed;
    }
    session.tellOutcome(
        "wrote " + path + ": " + QString::number(captured.settings.size()) + " settings" +
        (captured.fieldOfView ? ", the field of view" : "") +
        (captured.record.isEmpty()
             ? QString()
             : ", " + QString::number(captured.record.size()) + " recorded values"));
    printResult(path);
    return kExitOk;
}

// ---- diff ----

int commandDiff(Session& session) {
    if (session.options().arguments.size() != 1) return usageError("diff takes one profile file");
    const QString path = session.options().arguments.front();
    profile::SettingsProfile loaded;
    if (int status = loadProfile(path, &loaded); status != kExitOk) return status;
    if (int status = refuseUnfitProfile(session, path, loaded, false); status != kExitOk)
        return status;
    if (int status = session.connect(); status != kExitOk) return status;
    profile::ProfileComparison comparison;
    if (int status = compare(session, loaded, &comparison); status != kExitOk) return status;
    if (session.options().json)
        printJson(QJsonDocument(differencesJson(comparison)));
    else
        printDifferences(comparison);
    if (comparison.matches()) {
        session.tellOutcome("the lidar matches " + path);
        return kExitOk;
    }
    session.tellOutcome(QString::number(differenceCount(comparison)) + " field(s) differ from " +
                        path);
    return kExitDiffers;
}

// ---- apply ----

namespace {

// After the network command: connects again (restarting the lidar first with --restart) and
// verifies. The status apply ends with.
int verifyAfterNetworkWrite(Session& session, const profile::SettingsProfile& loaded,
                            const profile::ProfileComparison& written) {
    const bool restart = session.options().restart;
    const QString sent =
        QString("the network settings (") + profile::kNetworkSetCommand + ") were sent";
    if (!session.reconnect()) {
        printDiagnostic("error: " + sent +
                        "; the lidar did not answer at its address "
                        "afterwards, so nothing could be verified");
        return kExitFailed;
    }
    if (restart) {
        printDiagnostic("restarting the lidar so that it takes the network settings ...");
        if (session.manager().Restart() != 0) {
            printDiagnostic("error: " + sent +
                            "; the lidar did not take the restart command: "
                            "nothing verified");
            return kExitFailed;
        }
        session.manager().Stop();
        if (!session.awaitLidar(addressAfterRestart(session, written), kRestartAnswerSeconds)) {
            printDiagnostic("error: " + sent +
                            " and the lidar was restarted; it did not answer "
                            "again, so nothing could be verified");
            return kExitFailed;
        }
    }
    profile::ProfileComparison after;
    if (int status = compare(session, loaded, &after); status != kExitOk) return status;
    // Before a restart the lidar may still report the network settings it runs with.
    if (!restart) {
        QVector<profile::FieldDifference> others;
        for (const profile::FieldDifference& difference : after.differences)
            if (difference.setCommand != profile::kNetworkSetCommand) others << difference;
        after.differences = others;
    }
    if (!after.matches()) {
        printDiagnostic("error: after writing, the lidar still differs from the profile");
        printResult("still differs:");
        printDifferences(after);
        return kExitFailed;
    }
    if (restart) {
        session.tellOutcome(
            "verified: the lidar holds the profile's bytes, the network "
            "settings too, after its restart");
        return kExitOk;
    }
    const bool othersWritten = written.plannedCommands().size() > 1;
    session.tellOutcome((othersWritten ? "verified: every other setting; " : QString()) + sent +
                        ", and the lidar takes them at its next restart: not verified "
                        "(--restart restarts it and verifies them)");
    return kExitUnverified;
}

}  // namespace

int commandApply(Session& session) {
    if (session.options().arguments.size() != 1) return usageError("apply takes one profile file");
    const QString path = session.options().arguments.front();
    profile::SettingsProfile loaded;
    if (int status = loadProfile(path, &loaded); status != kExitOk) return status;
    if (int status = refuseUnfitProfile(session, path, loaded, true); status != kExitOk)
        return status;
    if (session.options().fleetChild) {
        if (const QString own = ownAddressEntry(session, loaded); !own.isEmpty()) {
            printDiagnostic("error: " + path + " holds the lidar's own " + own +
                            ": applied to many lidars it would give them all one; export the "
                            "profile without --include-network. Nothing was written");
            return kExitUsage;
        }
    }
    if (int status = session.connect(); status != kExitOk) return status;

    profile::ProfileComparison comparison;
    if (int status = compare(session, loaded, &comparison); status != kExitOk) return status;
    if (comparison.matches()) {
        session.tellOutcome("the lidar already matches " + path + "; nothing to write");
        return kExitOk;
    }
    printResult(QString(session.options().dryRun ? "would write" : "writing") + ":");
    printDifferences(comparison);
    if (session.options().dryRun) return kExitOk;

    // Ctrl-C waits until the commands are written: a lidar left with half a command set is
    // worse than a second's wait.
    const InterruptGuard guard;
    const LidarUtilitiesManager::ProfileWrite written =
        session.manager().writeProfileDifferences(comparison);
    if (!written.failed.isEmpty()) {
        printDiagnostic("error: writing " + written.failed + " failed (the lines above say why); " +
                        (written.written.isEmpty()
                             ? QString("nothing was written before it")
                             : "written before it: " + written.written.join(", ")));
        return kExitFailed;
    }
    if (session.options().noVerify || interrupted) {
        session.tellOutcome("written: " + written.written.join(", ") + "; not verified (" +
                            (interrupted ? "Ctrl-C" : "--no-verify") + ")");
        return kExitUnverified;
    }
    if (written.networkWritten) return verifyAfterNetworkWrite(session, loaded, comparison);
    profile::ProfileComparison after;
    if (int status = compare(session, loaded, &after); status != kExitOk) return status;
    if (!after.matches()) {
        printDiagnostic("error: after writing, the lidar still differs from the profile");
        printResult("still differs:");
        printDifferences(after);
        return kExitFailed;
    }
    session.tellOutcome("verified: the lidar holds the profile's bytes (" +
                        written.written.join(", ") + " written)");
    return kExitOk;
}

}  // namespace cli
