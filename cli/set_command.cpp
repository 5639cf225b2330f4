#include "set_command.h"

#include <QJsonObject>
#include <QRegularExpression>
#include <algorithm>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

#include "output.h"
#include "session.h"
#include "value_parsers.h"

namespace cli {
namespace {

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

// "2 (Dual)" for a value that has an option text, as read prints it; other values as they are.
QString withOptionText(const VarInfo& var, const QString& value) {
    bool isNumber = false;
    const int raw = value.toInt(&isNumber);
    if (!isNumber) return value;
    const auto text = var.value_to_option.find(raw);
    if (text == var.value_to_option.end() || text->second.empty() || qs(text->second) == value)
        return value;
    return value + " (" + qs(text->second) + ")";
}

QString varChoices(const VarInfo& var, int count) {
    QStringList choices;
    for (int i = 0; i < count; ++i) {
        const auto text = var.value_to_option.find(var.options[i]);
        choices << QString::number(var.options[i]) +
                       (text != var.value_to_option.end() ? "=" + qs(text->second) : QString());
    }
    return choices.join(", ");
}

// A selection accepts its option text (any letter case), its raw value, or an index into its
// options written #N. A bare number is always a raw value: a number that is not one is refused
// with the choices, never taken as an index. The option's index, or -1.
int optionIndex(const VarInfo& var, const QString& requested, QString* problem) {
    const int count = std::min(static_cast<int>(var.options.size()), var.option_num);
    for (int i = 0; i < count; ++i) {
        const auto text = var.value_to_option.find(var.options[i]);
        if (text != var.value_to_option.end() &&
            qs(text->second).compare(requested, Qt::CaseInsensitive) == 0)
            return i;
    }
    bool isNumber = false;
    const int number = QString(requested).remove(QRegularExpression("^#")).toInt(&isNumber);
    if (isNumber && !requested.startsWith('#')) {
        for (int i = 0; i < count; ++i)
            if (var.options[i] == number) return i;
    }
    if (isNumber && requested.startsWith('#') && number >= 0 && number < count) return number;
    *problem = qs(var.var_name) + ": '" + requested + "' is not one of " + varChoices(var, count);
    return -1;
}

namespace {

const std::string kNetworkSetCmd = "0x21";
const std::string kFovSetCmd = "0x22";

// One NAME=VALUE of the command line, resolved against the catalogue.
struct Edit {
    QString requested;
    const VarPosition* row = nullptr;  // the variable named
    VarInfo* target = nullptr;         // whose value the set command carries
    const VarPosition* targetRow = nullptr;
    int setTextType = 1;  // 1 plain value, 2 the linked variable's value, 3 an option index
    QString stagedText;   // what SetText receives
    QString expected;     // what a read-back should show
    QString before;       // the value the lidar held
};

class SetCommand {
  public:
    explicit SetCommand(Session& session) : session_(session), manager_(session.manager()) {}

    int run() {
        if (int status = resolveEdits(); status != kExitOk) return status;
        if (int status = session_.connect(); status != kExitOk) return status;
        for (int module : modulesToRead())
            if (session_.readModule(module) == ReadOutcome::kConnectionLost) return kExitFailed;
        if (!everyCarriedValueRead()) return kExitFailed;
        if (!valuesWithinLimits()) return kExitUsage;
        const bool applied = applyAll();
        const int readBack = readBackAndPrint();
        return applied ? readBack : kExitFailed;
    }

  private:
    int resolveEdits() {
        const QStringList& arguments = session_.options().arguments;
        if (arguments.isEmpty()) return usageError("set needs NAME=VALUE arguments");
        QStringList problems;
        for (const QString& argument : arguments) {
            Edit edit;
            const QString problem = resolveEdit(argument, edit);
            if (!problem.isEmpty()) {
                problems << problem;
                continue;
            }
            const bool repeated = std::any_of(edits_.begin(), edits_.end(), [&](const Edit& e) {
                return e.target == edit.target;
            });
            if (repeated) problems << qs(edit.row->var->var_name) + " is given twice";
            edits_.push_back(edit);
        }
        for (const QString& problem : problems) printDiagnostic("lidarutil: " + problem);
        if (problems.isEmpty()) return kExitOk;
        printDiagnostic("lidarutil: nothing was sent");
        return kExitUsage;
    }

    QString resolveEdit(const QString& argument, Edit& edit) {
        const int equals = argument.indexOf('=');
        if (equals <= 0) return "'" + argument + "' is not NAME=VALUE";
        const QString name = argument.left(equals).trimmed();
        edit.requested = argument.mid(equals + 1).trimmed();
        edit.row = session_.findVariable(name);
        if (edit.row == nullptr) return hiddenVariableProblem(name);
        VarInfo* var = edit.row->var;
        if (QString problem = LidarUtilitiesManager::writeProblem(*var); !problem.isEmpty())
            return problem;
        edit.target = LidarUtilitiesManager::writtenVariable(*var);
        edit.targetRow = session_.positionOf(edit.target);
        if (isFovBound(*edit.target))
            return qs(var->var_name) + " is a field-of-view bound: use lidarutil fov";
        if (var->type == 2 || var->type == 3) {
            QString problem;
            const int index = optionIndex(*var, edit.requested, &problem);
            if (index < 0) return problem;
            edit.expected = QString::number(var->options[index]);
            edit.setTextType = var->type;
            // A selection is staged by its index; a linked switch passes the value itself.
            edit.stagedText = var->type == 3 ? QString::number(index) : edit.expected;
        } else {
            edit.expected = edit.stagedText = edit.requested;
        }
        // The catalogue's limits come later, after the module check has had its say.
        return LidarUtilitiesManager::encodingProblem(*edit.target, edit.expected);
    }

    // A name the catalogue keeps hidden: the shown variable that writes it, when there is one.
    QString hiddenVariableProblem(const QString& name) {
        const VarInfo* hidden = nullptr;
        for (const VarPosition& position : session_.variables())
            if (position.var->hidden &&
                qs(position.var->var_name).compare(name, Qt::CaseInsensitive) == 0)
                hidden = position.var;
        if (hidden == nullptr)
            return "unknown variable '" + name + "' (lidarutil show lists the variables)";
        for (const VarPosition& position : session_.variables())
            if (!position.var->hidden && position.var->switch_var == hidden)
                return qs(hidden->var_name) + " is written through " + qs(position.var->var_name) +
                       ": set '" + qs(position.var->var_name) + "=VALUE'";
        return qs(hidden->var_name) + " is kept hidden by the catalogue and cannot be set";
    }

    // The manager sends the field-of-view table, not these variables, with the 0x22 command;
    // only the command's first variable (its mode byte) travels from current_val.
    bool isFovBound(const VarInfo& var) const {
        if (var.set_cmd != kFovSetCmd) return false;
        const auto& group = manager_.getCurrentParser()->GetVarInfosBySetCmd(kFovSetCmd);
        return !group.empty() && group.front() != &var;
    }

    const std::vector<VarInfo*>& carriedWith(const Edit& edit) const {
        return manager_.getCurrentParser()->GetVarInfosBySetCmd(edit.target->set_cmd);
    }

    // A set command carries every variable of its payload, so all of them must be read first.
    std::set<int> modulesToRead() {
        std::set<int> modules;
        for (const Edit& edit : edits_) {
            modules.insert(edit.row->module);
            for (const VarInfo* var : carriedWith(edit))
                if (const VarPosition* position = session_.positionOf(var))
                    modules.insert(position->module);
        }
        return modules;
    }

    bool everyCarriedValueRead() {
        for (Edit& edit : edits_) {
            edit.before = manager_.currentValueOf(edit.target);
            for (const VarInfo* var : carriedWith(edit)) {
                if (var->get_cmd.empty() || !manager_.currentValueOf(var).isEmpty()) continue;
                printDiagnostic("error: " + qs(var->var_name) +
                                " could not be read from the lidar; nothing was sent");
                return false;
            }
        }
        return true;
    }

    void stage(const Edit& edit) {
        manager_.SetText(edit.setTextType, edit.row->module, edit.row->page, edit.row->row,
                         edit.stagedText);
    }

    // The catalogue's limits are checked on staged values, module by module, before anything is
    // sent. Run takes the whole set map at once, so the check stages everything, puts the read
    // values back and clears the map; applyAll then stages one module at a time.
    // The module check lets a typed 0 through, so each edited value is also checked on its own;
    // a value outside its limits that nobody edited is the lidar's, and is explained as such.
    bool valuesWithinLimits() {
        for (const Edit& edit : edits_) stage(edit);
        QObject receiver;
        QObject::connect(
            &manager_, &LidarUtilitiesManager::someVarOutOfRange, &receiver,
            [this](const QString& name) { explainHeldValue(name); }, Qt::DirectConnection);
        bool withinLimits = true;
        for (int module : targetModules())
            withinLimits = manager_.CheckModuleVarsWithinRange(module) && withinLimits;
        QObject::disconnect(&manager_, nullptr, &receiver, nullptr);
        for (const Edit& edit : edits_) {
            // Off, as designed, when either limit is 0; the module check covers those.
            const QString problem =
                LidarUtilitiesManager::limitsProblem(*edit.target, edit.expected);
            if (problem.isEmpty()) continue;
            withinLimits = false;
            printDiagnostic("lidarutil: " + problem);
        }
        for (const Edit& edit : edits_) {
            if (edit.targetRow == nullptr) continue;
            manager_.SetText(1, edit.targetRow->module, edit.targetRow->page, edit.targetRow->row,
                             edit.before);
        }
        manager_.ClearSetMap();
        if (!withinLimits)
            printDiagnostic("lidarutil: values outside the catalogue's limits; nothing was sent");
        return withinLimits;
    }

    // After the module check's warning on a value that no edit gave: the lidar holds it.
    void explainHeldValue(const QString& name) {
        const bool edited = std::any_of(edits_.begin(), edits_.end(), [&name](const Edit& edit) {
            return qs(edit.target->var_name) == name;
        });
        const VarInfo* var = manager_.searchVarPtr(name.toStdString(), "var_name");
        if (edited || var == nullptr) return;
        const bool bounded = var->min_val != 0 || var->max_val != 0;
        printDiagnostic("lidarutil: the lidar holds " + name + "=" + manager_.currentValueOf(var) +
                        (bounded ? ", outside its limits " + LidarUtilitiesManager::limitsText(*var)
                                 : QString()) +
                        ", and the check refuses the module's edits while it does: correct it "
                        "in the same command ('" +
                        name + "=VALUE')");
    }

    std::set<int> targetModules() const {
        std::set<int> modules;
        for (const Edit& edit : edits_)
            if (edit.targetRow != nullptr) modules.insert(edit.targetRow->module);
        return modules;
    }

    // The network command makes the lidar drop the connection, so its module goes last.
    std::vector<int> moduleOrder() const {
        std::vector<int> order;
        for (const Edit& edit : edits_)
            if (std::find(order.begin(), order.end(), edit.row->module) == order.end())
                order.push_back(edit.row->module);
        std::stable_partition(order.begin(), order.end(), [this](int module) {
            return std::none_of(edits_.begin(), edits_.end(), [module](const Edit& edit) {
                return edit.row->module == module && edit.target->set_cmd == kNetworkSetCmd;
            });
        });
        return order;
    }

    bool applyAll() {
        bool anyStaged = false;
        for (int module : moduleOrder()) {
            if (!session_.connectionAlive() && !reconnectAndReread()) return false;
            for (const Edit& edit : edits_)
                if (edit.row->module == module) stage(edit);
            if (manager_.getSetMapSize() == 0) continue;  // the lidar holds these values already
            anyStaged = true;
            const int errorsBefore = session_.errorCount();
            session_.manager().applyPage(module);
            if (session_.errorCount() > errorsBefore) {
                session_.explainRefusal();
                return false;
            }
            // After the network command the manager has stopped the connection on purpose.
            droppedByNetworkCommand_ = droppedByNetworkCommand_ || !session_.connectionAlive();
        }
        if (!anyStaged) printDiagnostic("the lidar holds these values already; nothing was sent");
        return true;
    }

    bool reconnectAndReread() {
        if (!session_.reconnect()) return false;
        for (int module : modulesToRead())
            if (session_.readModule(module) == ReadOutcome::kConnectionLost) return false;
        return true;
    }

    int readBackAndPrint() {
        if (!session_.connectionAlive() && !session_.reconnect()) {
            if (!droppedByNetworkCommand_) return kExitFailed;
            // A lidar that takes a new address at once, or restarts, cannot be reached now.
            printDiagnostic(
                "note: the lidar is not reachable after the write that closed the "
                "connection; values not read back");
            return kExitOk;
        }
        std::set<int> modules = targetModules();
        for (const Edit& edit : edits_) modules.insert(edit.row->module);
        for (int module : modules)
            if (session_.readModule(module) == ReadOutcome::kConnectionLost) return kExitFailed;
        printValues();
        return kExitOk;
    }

    void printValues() {
        QJsonObject json;
        for (const Edit& edit : edits_) {
            const QString name = qs(edit.row->var->var_name);
            const QString value = manager_.currentValueOf(edit.row->var);
            if (!readsBackAsWritten(edit))
                printDiagnostic("warning: " + name + " reads back as '" + value + "', not '" +
                                edit.expected + "'");
            if (session_.options().json)
                json[name] = value;
            else
                printResult(name + "=" + withOptionText(*edit.row->var, value));
        }
        if (session_.options().json) printJson(QJsonDocument(json));
    }

    // Compared by the bytes the lidar stores, not by display texts: a display rounds ("12.5"
    // shows as "12.50"; a large scaled int32 shows through single precision) and would both hide
    // and invent differences.
    bool readsBackAsWritten(const Edit& edit) {
        std::unique_ptr<StrParser> parser = parserForVarType(edit.target->var_type);
        std::vector<unsigned char> written;
        try {
            written = parser->parse(edit.expected.toStdString(), edit.target->scale);
        } catch (const std::exception&) {
            return false;  // refused before sending, so not reached
        }
        std::vector<VarInfo*> group{edit.target};
        std::unordered_map<std::string, std::vector<uint8_t>> held;
        manager_.GetInfoFromLidarWithSameCmd(group, &held, false);
        return held[edit.target->var_name] == written;
    }

    Session& session_;
    LidarUtilitiesManager& manager_;
    std::vector<Edit> edits_;
    bool droppedByNetworkCommand_ = false;
};

}  // namespace

int applyEdits(Session& session) {
    return SetCommand(session).run();
}

}  // namespace cli
