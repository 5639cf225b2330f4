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

namespace cli {
namespace {

const std::string kDeviceInfoGetCmd = "0x07";

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

const lidar::ModelSource* sourceOf(const lidar::Workplace& workplace, const QString& model) {
    for (const lidar::ModelSource& source : workplace.models)
        if (QString::fromStdString(source.name) == model) return &source;
    return nullptr;
}

// A model of the user's own with the name of an installed one hides it: say so, in case the
// user's copy is an old one.
void warnOfShadowing(const lidar::ModelSource& source) {
    for (const std::string& hidden : source.shadowed)
        printDiagnostic("lidarutil: warning: the model " + QString::fromStdString(source.name) +
                        " of " + QString::fromStdString(source.path) + " hides the one of " +
                        QString::fromStdString(hidden));
}

QString connectionKind(const LidarUtilitiesManager& manager, const QString& model) {
    switch (manager.connectTypeOfModel(model)) {
        case 1:
            return "serial";
        case 2:
            return "VRC over serial";
        default:
            return "network";
    }
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

}  // namespace

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

namespace {

QVector<ModuleView> selectModules(const QVector<ModuleView>& all, const QVector<int>& wanted) {
    QVector<ModuleView> selected;
    for (int module : wanted)
        if (module < all.size()) selected.push_back(all[module]);
    return selected;
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
        const QString kind = connectionKind(session.manager(), name.toString());
        const lidar::ModelSource* source = sourceOf(session.workplace(), name.toString());
        const QString origin = source ? lidar::CatalogueOriginName(source->origin) : QString();
        const QString path = source ? QString::fromStdString(source->path) : QString();
        rows.push_back({name.toString(), kind, origin, path});
        models.append(QJsonObject{
            {"name", name.toString()}, {"connection", kind}, {"source", origin}, {"path", path}});
        if (source) warnOfShadowing(*source);
    }
    for (const std::string& unusable : session.workplace().unusable)
        printDiagnostic("lidarutil: warning: no model in " + QString::fromStdString(unusable));
    if (rows.isEmpty() && !session.workplace().moved)
        printDiagnostic(
            "lidarutil: warning: ./Config/varID has no model; a folder with its own Config/varID "
            "uses its catalogues alone: run lidarutil from another folder for yours and the "
            "installed ones");
    if (session.options().json)
        printJson(QJsonDocument(models));
    else
        printResult(formatTable({"MODEL", "CONNECTION", "SOURCE", "FOLDER"}, rows));
    return kExitOk;
}

int commandShow(Session& session) {
    if (!session.options().arguments.isEmpty()) return usageError("show takes no arguments");
    const QVector<ModuleView> modules = catalogueView(session);
    if (session.options().json) {
        printJson(QJsonDocument(modulesJson(session.options().model, modules, showVariableJson)));
        return kExitOk;
    }
    printResult(session.options().model + " (" +
                connectionKind(session.manager(), session.options().model) +
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
