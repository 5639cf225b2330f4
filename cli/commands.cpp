#include "commands.h"

#include <QDateTime>
#include <QEventLoop>
#include <QJsonArray>
#include <QJsonObject>
#include <QTimer>
#include <algorithm>
#include <atomic>
#include <csignal>

#include "interrupt.h"
#include "output.h"
#include "session.h"
#include "set_command.h"
#include "value_parsers.h"

namespace cli {
namespace {

const std::string kDeviceInfoGetCmd = "0x07";
const std::string kFovSetCmd = "0x22";
const std::string kFovGetCmd = "0x23";
constexpr int kFovRegions = 5;

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

// ---- The catalogue as the manager presents it to a UI (level-1/level-2 lists, variable map) ----

struct VarView {
    QVariantMap fields;  // one entry of the manager's variable map
    QString unit;
    QString writtenWith;  // a linked (switch) variable: the set command of the one it writes
};

struct PageView {
    QString name;
    QVector<VarView> variables;
};

struct ModuleView {
    QString name;
    QVector<PageView> pages;
};

QString field(const VarView& view, const char* key) {
    return view.fields.value(key).toString();
}

// A level-2 label is the variable's name followed directly by its suffix, e.g. " (°C)".
QString unitFromSuffix(QString suffix) {
    suffix = suffix.trimmed();
    const bool bracketed = (suffix.startsWith('(') && suffix.endsWith(')')) ||
                           (suffix.startsWith('[') && suffix.endsWith(']'));
    if (bracketed && suffix.size() >= 2) suffix = suffix.mid(1, suffix.size() - 2).trimmed();
    return suffix;
}

// Labels exist only for variables with a suffix, so each label is matched to the variable with
// the longest name it starts with ("Speed Limit (km/h)" belongs to "Speed Limit", not "Speed").
void assignUnits(QVector<VarView>& variables, const QVariantList& pageLabels) {
    for (int i = 1; i < pageLabels.size(); ++i) {
        const QString label = pageLabels[i].toString();
        VarView* owner = nullptr;
        int ownerLength = -1;
        for (VarView& view : variables) {
            const QString name = field(view, "var_name");
            if (label.size() > name.size() && label.startsWith(name) && name.size() > ownerLength) {
                owner = &view;
                ownerLength = name.size();
            }
        }
        if (owner != nullptr) owner->unit = unitFromSuffix(label.mid(ownerLength));
    }
}

QVector<ModuleView> catalogueView(Session& session) {
    const QVariantList modules = session.manager().catalogueLevel1List();
    const QVariantList pageLists = session.manager().catalogueLevel2List();
    const QVariantList map = session.manager().catalogueVariableMap();
    QVector<ModuleView> view;
    for (int m = 0; m < modules.size(); ++m) {
        ModuleView module{modules[m].toString(), {}};
        const QVariantList labels = m < pageLists.size() ? pageLists[m].toList() : QVariantList();
        const QVariantList pages = m < map.size() ? map[m].toList() : QVariantList();
        for (int p = 0; p < pages.size(); ++p) {
            const QVariantList pageLabels = p < labels.size() ? labels[p].toList() : QVariantList();
            PageView page{
                pageLabels.isEmpty() ? "page " + QString::number(p + 1) : pageLabels[0].toString(),
                {}};
            for (const QVariant& fields : pages[p].toList()) {
                VarView variable{fields.toMap(), QString(), QString()};
                const VarInfo* var = session.manager().searchVarPtr(
                    field(variable, "var_id").toStdString(), "var_id");
                if (var != nullptr && var->type == 2 && var->switch_var != nullptr &&
                    !var->switch_var->set_cmd.empty())
                    variable.writtenWith = qs(var->switch_var->set_cmd) + " (via " +
                                           qs(var->switch_var->var_name) + ")";
                page.variables.push_back(variable);
            }
            assignUnits(page.variables, pageLabels);
            module.pages.push_back(page);
        }
        view.push_back(module);
    }
    return view;
}

QString optionName(const VarView& view, const QString& raw) {
    return view.fields.value("varname_value_to_option").toMap().value(raw).toString();
}

// "0=Strongest, 1=Last, 2=Dual"; a choice without a text is its number alone.
QString choicesText(const VarView& view) {
    QStringList choices;
    for (const QVariant& option : view.fields.value("options").toList()) {
        const QString raw = option.toString();
        const QString name = optionName(view, raw);
        choices << (name.isEmpty() || name == raw ? raw : raw + "=" + name);
    }
    return choices.join(", ");
}

QString displayValue(const VarView& view) {
    const QString value = field(view, "current_val");
    const QString name = optionName(view, value);
    return name.isEmpty() || name == value ? value : value + " (" + name + ")";
}

QString orDash(const QString& text) {
    return text.isEmpty() ? "-" : text;
}

bool anyVariable(const PageView& page, bool (*has)(const VarView&)) {
    return std::any_of(page.variables.begin(), page.variables.end(), has);
}

bool hasUnit(const VarView& view) {
    return !view.unit.isEmpty();
}

bool hasChoices(const VarView& view) {
    return !view.fields.value("options").toList().isEmpty();
}

// ---- models ----

QString connectionKind(const QString& model) {
    const std::string name = model.toStdString();
    if (name == LidarUtilitiesManager::Wren_Str) return "serial";
    if (name == LidarUtilitiesManager::Wren_VRC_Str || name == LidarUtilitiesManager::Heron_VRC_Str)
        return "VRC over serial";
    return "network";
}

// ---- show ----

QJsonObject showVariableJson(const VarView& view) {
    QJsonObject object{{"name", field(view, "var_name")},
                       {"type", field(view, "var_type")},
                       {"get_cmd", field(view, "get_cmd")},
                       {"set_cmd", field(view, "set_cmd")},
                       {"default", field(view, "default_val")}};
    if (!view.unit.isEmpty()) object["unit"] = view.unit;
    QJsonArray choices;
    for (const QVariant& option : view.fields.value("options").toList())
        choices.append(
            QJsonObject{{"value", option.toInt()}, {"text", optionName(view, option.toString())}});
    if (!choices.isEmpty()) object["choices"] = choices;
    return object;
}

template <typename VariableJson>
QJsonObject modulesJson(const QString& model, const QVector<ModuleView>& modules,
                        VariableJson variableJson) {
    QJsonArray moduleArray;
    for (const ModuleView& module : modules) {
        QJsonArray pageArray;
        for (const PageView& page : module.pages) {
            QJsonArray variables;
            for (const VarView& view : page.variables) variables.append(variableJson(view));
            pageArray.append(QJsonObject{{"name", page.name}, {"variables", variables}});
        }
        moduleArray.append(QJsonObject{{"name", module.name}, {"pages", pageArray}});
    }
    return QJsonObject{{"model", model}, {"modules", moduleArray}};
}

QString showPageTable(const PageView& page) {
    const bool units = anyVariable(page, hasUnit);
    const bool choices = anyVariable(page, hasChoices);
    QStringList headers{"NAME", "TYPE", "GET", "SET", "DEFAULT"};
    if (units) headers << "UNIT";
    if (choices) headers << "CHOICES";
    QVector<QStringList> rows;
    for (const VarView& view : page.variables) {
        const QString setCmd = field(view, "set_cmd");
        QStringList row{
            field(view, "var_name"), field(view, "var_type"), orDash(field(view, "get_cmd")),
            setCmd.isEmpty() ? orDash(view.writtenWith) : setCmd, field(view, "default_val")};
        if (units) row << view.unit;
        if (choices) row << choicesText(view);
        rows.push_back(row);
    }
    return formatTable(headers, rows, 4);
}

void printModuleHeading(const ModuleView& module, bool first) {
    if (!first) printResult("");
    printResult("== " + module.name + " ==");
}

// ---- read ----

QJsonObject readVariableJson(const VarView& view) {
    const QString value = field(view, "current_val");
    QJsonObject object{{"name", field(view, "var_name")}, {"value", value}};
    if (!view.unit.isEmpty()) object["unit"] = view.unit;
    const QString option = optionName(view, value);
    if (!option.isEmpty()) object["option"] = option;
    return object;
}

QString readPageTable(const PageView& page) {
    const bool units = anyVariable(page, hasUnit);
    QStringList headers{"NAME", "VALUE"};
    if (units) headers << "UNIT";
    QVector<QStringList> rows;
    for (const VarView& view : page.variables) {
        QStringList row{field(view, "var_name"), displayValue(view)};
        if (units) row << view.unit;
        rows.push_back(row);
    }
    return formatTable(headers, rows, 4);
}

// Values the lidar did not deliver stay empty; the manager only notes that on its debug stream.
// Write-only raw variables have nothing to read.
void warnAboutUnreadValues(const QVector<ModuleView>& modules) {
    static const QStringList kNotDecoded = {"raw"};
    QStringList unread;
    for (const ModuleView& module : modules)
        for (const PageView& page : module.pages)
            for (const VarView& view : page.variables)
                if (!field(view, "get_cmd").isEmpty() && field(view, "current_val").isEmpty() &&
                    !kNotDecoded.contains(field(view, "var_type")))
                    unread << field(view, "var_name");
    if (!unread.isEmpty()) printDiagnostic("warning: no value read for " + unread.join(", "));
}

// Connects and reads the given modules; kExitOk or the failure status. A module of which some
// request failed still counts as read (its other values are printed), but `complete` is false.
int connectAndRead(Session& session, const QVector<int>& modules, bool& complete) {
    complete = true;
    if (int status = session.connect(); status != kExitOk) return status;
    for (int module : modules) {
        const ReadOutcome outcome = session.readModule(module);
        if (outcome == ReadOutcome::kConnectionLost) return kExitFailed;
        complete = complete && outcome == ReadOutcome::kComplete;
    }
    return kExitOk;
}

QVector<ModuleView> selectModules(const QVector<ModuleView>& all, const QVector<int>& wanted) {
    QVector<ModuleView> selected;
    for (int module : wanted)
        if (module < all.size()) selected.push_back(all[module]);
    return selected;
}

// ---- fov ----

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

// ---- watch ----

std::vector<const VarPosition*> timerVariables(Session& session, int module) {
    std::vector<const VarPosition*> variables;
    for (const VarPosition& position : session.variables())
        if (position.module == module && !position.var->hidden &&
            session.manager().isTimerVariable(position.module, position.page, position.row))
            variables.push_back(&position);
    return variables;
}

void printRefresh(Session& session, const std::vector<const VarPosition*>& variables, int refresh) {
    const QString time = QDateTime::currentDateTime().toString("HH:mm:ss");
    if (session.options().json) {
        QJsonObject values;
        for (const VarPosition* position : variables)
            values[qs(position->var->var_name)] = session.manager().currentValueOf(position->var);
        const QJsonObject line{{"refresh", refresh}, {"time", time}, {"values", values}};
        // One compact object per line, so that a reader can act on each refresh as it comes.
        printResult(QString::fromUtf8(QJsonDocument(line).toJson(QJsonDocument::Compact)));
        return;
    }
    printResult("-- " + time + " refresh " + QString::number(refresh));
    for (const VarPosition* position : variables)
        printResult(qs(position->var->var_name) + "=" +
                    session.manager().currentValueOf(position->var));
}

// Runs until SIGINT, `count` refreshes (0: no limit) or a lost connection.
int watchRefreshes(Session& session, const std::vector<const VarPosition*>& variables, int count) {
    InterruptGuard guard;
    std::atomic<int> refreshes{0};
    // Direct, like the session's message connections: the page-refresh thread prints each
    // refresh as it ends, and the loop below only decides when to stop.
    QObject context;
    QObject::connect(
        &session.manager(), &LidarUtilitiesManager::myTimerMapChanged, &context,
        [&] {
            const int refresh = refreshes.load() + 1;
            // After Ctrl-C nothing more is printed, even a refresh that was already under way.
            if (interrupted || (count > 0 && refresh > count)) return;
            printRefresh(session, variables, refresh);
            refreshes.store(refresh);
        },
        Qt::DirectConnection);
    QEventLoop loop;
    QTimer poll;
    QObject::connect(&poll, &QTimer::timeout, &loop, [&] {
        if (interrupted || (count > 0 && refreshes.load() >= count)) {
            loop.exit(kExitOk);
        } else if (!session.connectionAlive()) {
            printDiagnostic("error: the connection to the lidar was lost");
            loop.exit(kExitFailed);
        } else if (const auto refresh = session.manager().getLastTimerRefresh();
                   refresh.allFailed) {
            // No value came back: say which requests failed instead of waiting for ever.
            for (const auto& failure : refresh.failures)
                printDiagnostic("error: could not refresh (request " + qs(failure.request) +
                                "): " + readFailureText(failure.code));
            loop.exit(kExitFailed);
        }
    });
    poll.start(100);
    const int status = loop.exec();
    // Joins the page-refresh thread, so no refresh is inside the slot when its captures go.
    session.manager().Stop();
    return status;
}

}  // namespace

int commandModels(Session& session) {
    if (!session.options().arguments.isEmpty()) return usageError("models takes no arguments");
    QVector<QStringList> rows;
    QJsonArray models;
    for (const QVariant& name : session.manager().getLidarModelList()) {
        const QString kind = connectionKind(name.toString());
        rows.push_back({name.toString(), kind});
        models.append(QJsonObject{{"name", name.toString()}, {"connection", kind}});
    }
    if (session.options().json)
        printJson(QJsonDocument(models));
    else
        printResult(formatTable({"MODEL", "CONNECTION"}, rows));
    return kExitOk;
}

int commandShow(Session& session) {
    if (!session.options().arguments.isEmpty()) return usageError("show takes no arguments");
    const QVector<ModuleView> modules = catalogueView(session);
    if (session.options().json) {
        printJson(QJsonDocument(modulesJson(session.options().model, modules, showVariableJson)));
        return kExitOk;
    }
    printResult(session.options().model + " (" + connectionKind(session.options().model) +
                "): " + QString::number(modules.size()) + " modules");
    for (const ModuleView& module : modules) {
        printModuleHeading(module, false);
        for (const PageView& page : module.pages) {
            printResult("  -- " + page.name + " --");
            printResult(showPageTable(page));
        }
    }
    return kExitOk;
}

int commandInfo(Session& session) {
    if (!session.options().arguments.isEmpty()) return usageError("info takes no arguments");
    // The device-information module is the one read with the device information command.
    int module =
        session.moduleWhere([](const VarInfo& v) { return v.get_cmd == kDeviceInfoGetCmd; });
    if (module < 0) module = 0;
    bool complete = true;
    if (int status = connectAndRead(session, {module}, complete); status != kExitOk) return status;
    const QVector<ModuleView> modules = selectModules(catalogueView(session), {module});
    QJsonObject json;
    for (const ModuleView& m : modules)
        for (const PageView& page : m.pages)
            for (const VarView& view : page.variables) {
                if (session.options().json)
                    json[field(view, "var_name")] = field(view, "current_val");
                else
                    printResult(field(view, "var_name") + "=" + field(view, "current_val"));
            }
    if (session.options().json) printJson(QJsonDocument(json));
    warnAboutUnreadValues(modules);
    return complete ? kExitOk : kExitFailed;
}

int commandRead(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() > 1) return usageError("read takes at most one module name");
    QVector<int> wanted;
    if (arguments.isEmpty()) {
        for (int m = 0; m < session.moduleNames().size(); ++m) wanted << m;
    } else {
        const int module = session.findModule(arguments[0]);
        if (module < 0)
            return usageError("unknown module '" + arguments[0] +
                              "'; the modules are: " + session.moduleNames().join(", "));
        wanted << module;
    }
    bool complete = true;
    if (int status = connectAndRead(session, wanted, complete); status != kExitOk) return status;

    const QVector<ModuleView> modules = selectModules(catalogueView(session), wanted);
    if (session.options().json) {
        printJson(QJsonDocument(modulesJson(session.options().model, modules, readVariableJson)));
    } else {
        for (int i = 0; i < modules.size(); ++i) {
            printModuleHeading(modules[i], i == 0);
            for (const PageView& page : modules[i].pages) {
                printResult("  -- " + page.name + " --");
                printResult(readPageTable(page));
            }
        }
    }
    warnAboutUnreadValues(modules);
    return complete ? kExitOk : kExitFailed;
}

int commandSet(Session& session) {
    return applyEdits(session);
}

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

int commandWatch(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.size() > 1) return usageError("watch takes at most one module name");
    int module = -1;
    if (arguments.isEmpty()) {
        module = session.moduleWhere([](const VarInfo& v) { return v.timer_update && !v.hidden; });
    } else if ((module = session.findModule(arguments[0])) < 0) {
        return usageError("unknown module '" + arguments[0] +
                          "'; the modules are: " + session.moduleNames().join(", "));
    }
    const std::vector<const VarPosition*> variables =
        module < 0 ? std::vector<const VarPosition*>() : timerVariables(session, module);
    if (variables.empty())
        return usageError(arguments.isEmpty()
                              ? session.options().model + " has no values refreshed by the timer"
                              : arguments[0] + " has no values refreshed by the timer");

    if (int status = session.connect(); status != kExitOk) return status;
    session.manager().setModuleIndexUse(module);
    printDiagnostic("watching " + session.moduleNames().value(module) +
                    ", refreshed about every 3 s (Ctrl-C stops) ...");
    return watchRefreshes(session, variables, session.options().count);
}

}  // namespace cli
