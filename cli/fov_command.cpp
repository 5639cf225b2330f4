// fov: the channel field of view from the command line. Shows the mode and the five regions'
// bounds, or writes bounds and the mode through the manager's staging, then reads them back and
// says what the lidar confirms.

#include <QJsonArray>
#include <QJsonObject>
#include <algorithm>

#include "commands.h"
#include "output.h"
#include "session.h"
#include "set_command.h"
#include "value_parsers.h"

namespace cli {
namespace {

const std::string kFovSetCmd = "0x22";
const std::string kFovGetCmd = "0x23";
constexpr int kFovRegions = 5;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

// What the user asked of the field of view: bounds by index, and perhaps the mode.
struct FovEdits {
    QVector<QPair<int, QString>> bounds;  // index 0-4 starts, 5-9 ends, in degrees
    QString mode;                         // empty: the mode stays as the lidar holds it
    bool empty() const { return bounds.isEmpty() && mode.isEmpty(); }
};

const char* const kFovChannels =
    "the channels are regions 1-5: INDEX 0-4 are their starts, 5-9 their ends";

constexpr int64_t kFullCircleTenths = 3600;

// A bound in tenths of a degree as the lidar keeps it, written "15.0".
QString tenthsText(int64_t tenths) {
    return QString::number(static_cast<double>(tenths) / 10.0, 'f', 1);
}

// The lidar keeps tenths of a degree: a bound with more decimals is refused, never rounded. The
// number forms are set's ("1.5e2", "+90", "90.50"); the bound is stored as "150.0".
QString fovBoundProblem(const QString& argument, QString& value) {
    int64_t tenths = -1;
    if (!StrParser::isNumeric(value) || !decimalInTenths(value.toStdString(), tenths) ||
        tenths < 0 || tenths > kFullCircleTenths)
        return "fov: '" + argument +
               "': a bound is degrees from 0 to 360 with at most one decimal (the lidar keeps "
               "tenths of a degree)";
    value = tenthsText(tenths);
    return QString();
}

// No arguments (show), ten bounds in index order, or INDEX=VALUE and mode=VALUE pairs.
QString parseFovEdits(const QStringList& arguments, FovEdits& edits) {
    if (arguments.isEmpty()) return QString();
    const int withEquals = static_cast<int>(std::count_if(
        arguments.begin(), arguments.end(), [](const QString& a) { return a.contains('='); }));
    if (withEquals == 0 && arguments.size() == 2 * kFovRegions) {
        for (int i = 0; i < arguments.size(); ++i) {
            QString value = arguments[i];
            if (QString problem = fovBoundProblem(arguments[i], value); !problem.isEmpty())
                return problem;
            edits.bounds.append({i, value});
        }
        return QString();
    }
    if (withEquals == 0 || withEquals != arguments.size())
        return "fov takes no arguments, ten bounds (starts 1-5, then ends 1-5), INDEX=VALUE or "
               "mode=VALUE";
    for (const QString& argument : arguments) {
        const QString key = argument.section('=', 0, 0).trimmed();
        QString value = argument.section('=', 1).trimmed();
        if (key.compare("mode", Qt::CaseInsensitive) == 0) {
            if (value.isEmpty()) return "fov: '" + argument + "': mode needs a value";
            if (!edits.mode.isEmpty()) return "fov: mode is given twice; nothing was sent";
            edits.mode = value;
            continue;
        }
        bool ok = false;
        const int index = key.toInt(&ok);
        if (!ok || index < 0 || index >= 2 * kFovRegions)
            return "fov: '" + argument + "': there is no bound '" + key + "'; " + kFovChannels;
        if (QString problem = fovBoundProblem(argument, value); !problem.isEmpty()) return problem;
        const bool repeated =
            std::any_of(edits.bounds.begin(), edits.bounds.end(),
                        [index](const auto& bound) { return bound.first == index; });
        if (repeated) return "fov: bound " + key + " is given twice; nothing was sent";
        edits.bounds.append({index, value});
    }
    return QString();
}

const VarInfo* fovModeVariable(LidarUtilitiesManager& manager) {
    const auto& group = manager.getCurrentParser()->GetVarInfosBySetCmd(kFovSetCmd);
    return group.empty() ? nullptr : group.front();
}

QString fovModeText(LidarUtilitiesManager& manager) {
    const VarInfo* mode = fovModeVariable(manager);
    if (mode == nullptr) return QString();
    const QString value = manager.currentValueOf(mode);
    bool isNumber = false;
    const auto text = mode->value_to_option.find(value.toInt(&isNumber));
    if (!isNumber || text == mode->value_to_option.end()) return value;
    return value + " (" + qs(text->second) + ")";
}

void printFovTable(LidarUtilitiesManager& manager, bool json) {
    const QVariantList bounds = manager.getFovList();
    QVector<QStringList> rows;
    QJsonArray regions;
    for (int r = 0; r < kFovRegions && kFovRegions + r < bounds.size(); ++r) {
        const QString start = bounds[r].toString();
        const QString end = bounds[kFovRegions + r].toString();
        rows.push_back({QString::number(r + 1), start, end});
        regions.append(
            QJsonObject{{"region", r + 1}, {"start", start.toDouble()}, {"end", end.toDouble()}});
    }
    const QString mode = fovModeText(manager);
    if (json) {
        QJsonObject object{{"regions", regions}};
        if (const VarInfo* variable = fovModeVariable(manager))
            object["mode"] = manager.currentValueOf(variable).toInt();
        printJson(QJsonDocument(object));
        return;
    }
    if (!mode.isEmpty()) printResult("mode=" + mode);
    printResult(formatTable({"REGION", "START", "END"}, rows));
}

// The ten bounds in tenths of a degree once the edits are applied to what the lidar holds.
QVector<int64_t> boundsAfterEdits(LidarUtilitiesManager& manager, const FovEdits& edits) {
    const QVariantList held = manager.getFovList();
    QVector<int64_t> tenths(2 * kFovRegions, 0);
    for (int i = 0; i < tenths.size() && i < held.size(); ++i)
        decimalInTenths(held[i].toString().toStdString(), tenths[i]);
    for (const auto& [index, value] : edits.bounds)
        decimalInTenths(value.toStdString(), tenths[index]);
    return tenths;
}

// A region must not start after its end: the first region that would, in words, with how to
// write it. The wire format has no wrap-around, so a region across 0° is two regions.
QString invertedRegion(const QVector<int64_t>& tenths) {
    for (int r = 0; r < kFovRegions; ++r) {
        if (tenths[r] <= tenths[kFovRegions + r]) continue;
        const int other = (r + 1) % kFovRegions;
        const QString start = tenthsText(tenths[r]);
        const QString end = tenthsText(tenths[kFovRegions + r]);
        return "fov: region " + QString::number(r + 1) + " would start at " + start +
               ", after its end " + end +
               "; a region runs up from its start, so one that crosses 0 degrees is two "
               "regions, " +
               start + " to 360.0 and 0.0 to " + end + " (for instance fov " + QString::number(r) +
               "=" + start + " " + QString::number(kFovRegions + r) + "=360.0 " +
               QString::number(other) + "=0.0 " + QString::number(kFovRegions + other) + "=" + end +
               "); nothing was sent";
    }
    return QString();
}

// The edits in words ("region 1 start 15.0", "mode 1"), split by whether the lidar held them.
struct FovChanges {
    QStringList changed;
    QStringList alreadyHeld;
};

QString fovBoundText(int index, const QString& value) {
    return "region " + QString::number(index % kFovRegions + 1) +
           (index < kFovRegions ? " start " : " end ") + value;
}

FovChanges fovChanges(LidarUtilitiesManager& manager, const FovEdits& edits, int expectedMode) {
    const QVariantList held = manager.getFovList();
    FovChanges changes;
    for (const auto& [index, value] : edits.bounds)
        (held.value(index).toString() == value ? changes.alreadyHeld : changes.changed)
            << fovBoundText(index, value);
    if (expectedMode >= 0) {
        const VarInfo* mode = fovModeVariable(manager);
        const bool held =
            mode != nullptr && manager.currentValueOf(mode) == QString::number(expectedMode);
        (held ? changes.alreadyHeld : changes.changed) << "mode " + QString::number(expectedMode);
    }
    return changes;
}

// What the write changed and what the lidar held already, checked against what the lidar
// reports after it.
QString fovWriteReport(LidarUtilitiesManager& manager, const FovEdits& edits, int expectedMode,
                       const FovChanges& changes) {
    const QVariantList bounds = manager.getFovList();
    QStringList differing;
    for (const auto& [index, value] : edits.bounds)
        if (bounds.value(index).toString() != value)
            differing << fovBoundText(index, value) + " (the lidar reports " +
                             bounds.value(index).toString() + ")";
    if (expectedMode >= 0) {
        const VarInfo* mode = fovModeVariable(manager);
        if (mode == nullptr || manager.currentValueOf(mode) != QString::number(expectedMode))
            differing << "mode " + QString::number(expectedMode) + " (the lidar reports " +
                             fovModeText(manager) + ")";
    }
    QString report = "field of view written: " + changes.changed.join(", ");
    if (!changes.alreadyHeld.isEmpty())
        report += "; already so, unchanged: " + changes.alreadyHeld.join(", ");
    return report + (differing.isEmpty() ? "; the lidar confirms it"
                                         : "; the lidar does not confirm " + differing.join(", "));
}

}  // namespace

int commandFov(Session& session) {
    FovEdits edits;
    if (QString problem = parseFovEdits(session.options().arguments, edits); !problem.isEmpty())
        return usageError(problem);
    const int readModule =
        session.moduleWhere([](const VarInfo& v) { return v.get_cmd == kFovGetCmd; });
    const int writeModule =
        session.moduleWhere([](const VarInfo& v) { return v.set_cmd == kFovSetCmd; });
    if (readModule < 0 || (!edits.empty() && writeModule < 0))
        return usageError(session.options().model + " has no channel field of view");
    LidarUtilitiesManager& manager = session.manager();
    const VarInfo* modeVariable = fovModeVariable(manager);
    const VarPosition* modeRow = modeVariable ? session.positionOf(modeVariable) : nullptr;
    int modeIndex = -1;
    if (!edits.mode.isEmpty()) {
        QString problem;
        modeIndex = modeRow ? optionIndex(*modeVariable, edits.mode, &problem) : -1;
        if (modeIndex < 0)
            return usageError(modeRow ? "fov: " + problem
                                      : session.options().model + " has no field-of-view mode");
    }

    bool complete = true;
    if (int status = connectAndRead(session, {readModule}, complete); status != kExitOk)
        return status;
    if (!complete) return kExitFailed;
    const int expectedMode = modeIndex >= 0 ? modeVariable->options[modeIndex] : -1;
    if (!edits.empty()) {
        if (QString problem = invertedRegion(boundsAfterEdits(manager, edits)); !problem.isEmpty())
            return usageError(problem);
    }
    const FovChanges changes = fovChanges(manager, edits, expectedMode);
    if (!edits.empty() && changes.changed.isEmpty()) {
        printDiagnostic("the lidar holds these values already; nothing was sent");
    } else if (!edits.empty()) {
        const int errorsBefore = session.errorCount();
        for (const auto& [index, value] : edits.bounds) manager.SetMultiFovConfig(index, value);
        if (session.errorCount() > errorsBefore) {
            manager.ClearSetMap();
            printDiagnostic("lidarutil: bounds are degrees from 0 to 360; nothing was sent");
            return kExitUsage;
        }
        if (modeIndex >= 0)
            manager.SetText(3, modeRow->module, modeRow->page, modeRow->row,
                            QString::number(modeIndex));
        manager.applyPage(writeModule);
        if (session.errorCount() > errorsBefore) {
            session.explainRefusal();
            return kExitFailed;
        }
        if (session.readModule(readModule) != ReadOutcome::kComplete) return kExitFailed;
        printDiagnostic(fovWriteReport(manager, edits, expectedMode, changes));
    }
    printFovTable(manager, session.options().json);
    return kExitOk;
}

}  // namespace cli
