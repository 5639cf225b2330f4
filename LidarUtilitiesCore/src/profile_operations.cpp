// Settings profiles on the lidar (lidar_utilities_manager.h, "Settings profiles"): capturing
// what the lidar holds, comparing it with a profile byte for byte, and writing the differences
// through the staging and write-back. The file format is settings_profile.h's.

#include <QRegularExpression>
#include <QSet>
#include <algorithm>
#include <cstring>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "command_text.h"
#include "edit_staging.h"
#include "field_of_view.h"
#include "lidar_utilities_manager.h"
#include "page_reader.h"
#include "parameter_catalogue.h"

namespace {

using Bytes = std::vector<uint8_t>;
using FieldBytes = std::map<const VarInfo*, Bytes>;

const char* const kFieldOfViewReadCommand = "0x23";

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

QByteArray toByteArray(const Bytes& bytes) {
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()));
}

Bytes toBytes(const QByteArray& array) {
    return Bytes(array.begin(), array.end());
}

// A catalogue variable with the names of the module and page it sits on.
struct PlacedVariable {
    VarInfo* var = nullptr;
    int module = 0;
    QString moduleName, pageName;
};

std::vector<PlacedVariable> placedVariables(const ParameterCatalogue& catalogue) {
    std::vector<PlacedVariable> placed;
    const auto lock = catalogue.lockVariables();
    const ParameterCatalogue::VariableTree* tree = catalogue.variableTree();
    const ParameterCatalogue::ModuleNames* names = catalogue.moduleNameTable();
    if (tree == nullptr || names == nullptr) return placed;
    for (size_t m = 0; m < tree->size(); ++m) {
        const std::vector<std::string>* moduleNames = m < names->size() ? &(*names)[m] : nullptr;
        for (size_t p = 0; p < (*tree)[m].size(); ++p) {
            PlacedVariable entry;
            entry.module = static_cast<int>(m);
            if (moduleNames != nullptr && !moduleNames->empty())
                entry.moduleName = qs(moduleNames->front());
            if (moduleNames != nullptr && p + 1 < moduleNames->size())
                entry.pageName = qs((*moduleNames)[p + 1]);
            for (VarInfo* var : (*tree)[m][p]) {
                entry.var = var;
                placed.push_back(entry);
            }
        }
    }
    return placed;
}

bool isFieldOfViewVariable(const VarInfo& var) {
    return var.set_cmd == profile::kFieldOfViewSetCommand && var.get_cmd == kFieldOfViewReadCommand;
}

// Read and written with a get and a set command, and not read-only: what a profile holds. The
// field of view has a path of its own and is kept apart.
bool isSetting(const VarInfo& var) {
    return !var.get_cmd.empty() && !var.set_cmd.empty() && var.permission != 0 &&
           var.var_type != "raw" && !isFieldOfViewVariable(var);
}

// Read-only variables, which --all records and nothing writes.
bool isRecorded(const VarInfo& var) {
    return !var.get_cmd.empty() && !isSetting(var) && !isFieldOfViewVariable(var);
}

bool namedBy(const VarInfo& var, const QString& name) {
    return qs(var.var_name).compare(name, Qt::CaseInsensitive) == 0 || qs(var.var_id) == name;
}

profile::ProfileEntry entryOf(const PlacedVariable& placed, const Bytes& bytes) {
    profile::ProfileEntry entry;
    entry.module = placed.moduleName;
    entry.page = placed.pageName;
    entry.name = qs(placed.var->var_name);
    entry.varId = qs(placed.var->var_id);
    entry.setCommand = isSetting(*placed.var) ? qs(placed.var->set_cmd) : QString();
    entry.bytes = toByteArray(bytes);
    entry.text = qs(LidarUtilitiesManager::valueText(*placed.var, bytes).value_or(std::string()));
    entry.unit = qs(placed.var->name_suffix).trimmed();
    if (entry.unit.startsWith('(') && entry.unit.endsWith(')'))
        entry.unit = entry.unit.mid(1, entry.unit.size() - 2);
    return entry;
}

// The field-of-view variable whose encoded value is the mode byte that path sends: the first
// field of the set command.
const VarInfo* fieldOfViewModeVariable(const std::vector<PlacedVariable>& placed) {
    const VarInfo* mode = nullptr;
    for (const PlacedVariable& entry : placed)
        if (isFieldOfViewVariable(*entry.var) &&
            (mode == nullptr || entry.var->set_start_pos < mode->set_start_pos))
            mode = entry.var;
    return mode;
}

const PlacedVariable* findByVarId(const std::vector<PlacedVariable>& placed, const QString& id) {
    for (const PlacedVariable& entry : placed)
        if (qs(entry.var->var_id) == id) return &entry;
    return nullptr;
}

QString hexOf(const QByteArray& bytes) {
    return QString::fromLatin1(bytes.toHex());
}

// The serial baud-rate command: on a VRC-over-serial connection, every connect writes the rate
// the user connects with (as designed), so the lidar's rate is the connection's, not a setting a
// profile could carry.
const char* const kSerialBaudRateSetCommand = "0xB1";

bool isConnectionBaudRate(const VarInfo& var) {
    return QString::fromStdString(var.set_cmd)
               .compare(kSerialBaudRateSetCommand, Qt::CaseInsensitive) == 0;
}

// Why --exclude NAME makes no sense for this catalogue; "" when it leaves something out.
QString exclusionProblem(const std::vector<PlacedVariable>& placed, const QString& name,
                         bool withRecord, const QString& model) {
    bool known = false;
    for (const PlacedVariable& p : placed) {
        if (!namedBy(*p.var, name)) continue;
        known = true;
        if (isFieldOfViewVariable(*p.var))
            return "the field of view is taken whole; leave out its module instead (export "
                   "MODULE...)";
        if (isSetting(*p.var) || (withRecord && isRecorded(*p.var))) return QString();
    }
    if (!known) return "the " + model + " catalogue has no variable of that name";
    return "it is not a setting, so a profile holds it only with --all";
}

uint64_t bigEndianNumber(const Bytes& bytes) {
    uint64_t number = 0;
    for (uint8_t byte : bytes) number = (number << 8) | byte;
    return number;
}

// The value as the limits are checked: floating-point fields in full, not rounded as the pages
// show them, so that a value a hair outside the limits is not taken for one inside.
std::optional<std::string> limitText(const VarInfo& var, const Bytes& bytes) {
    if (var.var_type == "float32" && bytes.size() == 4) {
        const auto raw = static_cast<uint32_t>(bigEndianNumber(bytes));
        float value = 0;
        std::memcpy(&value, &raw, sizeof value);
        return QString::number(static_cast<double>(value) * var.scale, 'g', 17).toStdString();
    }
    if (var.var_type == "double" && bytes.size() == 8) {
        const uint64_t raw = bigEndianNumber(bytes);
        double value = 0;
        std::memcpy(&value, &raw, sizeof value);
        return QString::number(value * var.scale, 'g', 17).toStdString();
    }
    return LidarUtilitiesManager::valueText(var, bytes);
}

// The value as people read it on the pages: a selection with its option's name.
QString displayText(const VarInfo& var, const Bytes& bytes) {
    const QString text = qs(LidarUtilitiesManager::valueText(var, bytes).value_or(std::string()));
    bool isNumber = false;
    const auto option = var.value_to_option.find(text.toInt(&isNumber));
    if (!isNumber || option == var.value_to_option.end()) return text;
    return text + " (" + qs(option->second) + ")";
}

}  // namespace

bool LidarUtilitiesManager::connectionSetsBaudRateOf(const QString& model) const {
    return connectTypeOfModel(model) == kVrcOverSerialKind;
}

bool LidarUtilitiesManager::isOwnAddressVariable(const VarInfo& var) {
    // The protocol puts the lidar's own address first in the network command.
    return (var.set_cmd == profile::kNetworkSetCommand && var.set_start_pos == 0 &&
            var.var_type == "IP") ||
           var.var_type == "MAC";
}

// ---- Reading fields with their bytes ----

namespace {

// Reads the variables' fields, one request per read group; the first request not answered ends
// it with a message naming the request and its variables.
class FieldReader {
  public:
    explicit FieldReader(PageReader& reader) : reader_(reader) {}

    bool read(const std::vector<VarInfo*>& vars, FieldBytes& out, QString* error) {
        std::vector<std::string> order;
        std::map<std::string, std::vector<VarInfo*>> groups;
        for (VarInfo* var : vars) {
            const std::string key = readRequestKey(*var);
            if (groups.count(key) == 0) order.push_back(key);
            std::vector<VarInfo*>& group = groups[key];
            if (std::find(group.begin(), group.end(), var) == group.end()) group.push_back(var);
        }
        for (const std::string& key : order) {
            if (!readGroup(key, groups[key], out, error)) return false;
        }
        return true;
    }

  private:
    bool readGroup(const std::string& key, std::vector<VarInfo*>& group, FieldBytes& out,
                   QString* error) {
        PageReader::BytesByName replies;
        const int ret = reader_.readGroupFromLidar(group, &replies, true);
        QStringList names;
        for (const VarInfo* var : group) names << qs(var->var_name);
        if (ret > 0) {
            *error = "the lidar refused " + qs(key) + " (" + names.join(", ") + "): status " +
                     QString::number(ret);
            return false;
        }
        if (ret != 0) {
            *error = "the lidar did not answer " + qs(key) + " (" + names.join(", ") +
                     "): result " + QString::number(ret);
            return false;
        }
        for (const VarInfo* var : group) {
            const auto found = replies.find(var->var_name);
            if (found == replies.end() || found->second.empty()) {
                *error = "the lidar's answer to " + qs(key) + " does not hold " + qs(var->var_name);
                return false;
            }
            out[var] = found->second;
        }
        return true;
    }

    PageReader& reader_;
};

}  // namespace

// ---- Capturing ----

QString LidarUtilitiesManager::profileScopeProblem(const ProfileScope& scope) const {
    const std::vector<PlacedVariable> placed = placedVariables(*catalogue_);
    for (const QString& name : scope.excluded) {
        const QString problem =
            exclusionProblem(placed, name, scope.withRecord, getSelectedLidarModel());
        if (!problem.isEmpty()) return "--exclude " + name + ": " + problem;
    }
    return QString();
}

bool LidarUtilitiesManager::captureProfile(const ProfileScope& scope, profile::SettingsProfile* out,
                                           QString* error) {
    const std::vector<PlacedVariable> placed = placedVariables(*catalogue_);
    if (placed.empty()) {
        *error = "no model is loaded";
        return false;
    }
    const bool connectionSetsBaudRate = connectionSetsBaudRateOf(getSelectedLidarModel());
    if (QString problem = profileScopeProblem(scope); !problem.isEmpty()) {
        *error = problem;
        return false;
    }
    const auto inScope = [&](const PlacedVariable& p) {
        return scope.modules.isEmpty() || scope.modules.contains(p.module);
    };
    const auto excludedByName = [&](const VarInfo& var) {
        return std::any_of(scope.excluded.begin(), scope.excluded.end(),
                           [&](const QString& name) { return namedBy(var, name); });
    };

    profile::SettingsProfile captured;
    captured.model = getSelectedLidarModel();
    std::vector<const PlacedVariable*> settings, record, fieldOfView;
    std::vector<VarInfo*> toRead;
    QSet<QString> excludedNames;
    for (const PlacedVariable& p : placed) {
        if (!inScope(p) || p.var->get_cmd.empty()) continue;
        if (connectionSetsBaudRate && isConnectionBaudRate(*p.var)) continue;
        const bool ownAddress = !scope.includeOwnAddress && isOwnAddressVariable(*p.var);
        if (ownAddress || excludedByName(*p.var)) {
            if (isSetting(*p.var) || (scope.withRecord && isRecorded(*p.var)))
                excludedNames.insert(qs(p.var->var_name));
            continue;
        }
        if (isSetting(*p.var)) {
            settings.push_back(&p);
        } else if (isFieldOfViewVariable(*p.var)) {
            fieldOfView.push_back(&p);
        } else if (scope.withRecord && isRecorded(*p.var)) {
            record.push_back(&p);
        } else {
            continue;
        }
        toRead.push_back(p.var);
    }
    // The identity comes from the catalogue's serial number, part number and firmware version
    // variables, wherever they sit.
    VarInfo* serial = nullptr;
    VarInfo* part = nullptr;
    VarInfo* firmware = nullptr;
    for (const PlacedVariable& p : placed) {
        if (p.var->get_cmd.empty()) continue;
        if (!serial && p.var->var_type == "SN") serial = p.var;
        if (!part && p.var->var_type == "PN") part = p.var;
        if (!firmware && (p.var->var_type == "SWVER_YMD" || p.var->var_name == "Firmware Version"))
            firmware = p.var;
    }
    for (VarInfo* var : {serial, part, firmware})
        if (var != nullptr) toRead.push_back(var);
    // The field of view's mode is its first field, read with the others.
    const VarInfo* mode = fieldOfViewModeVariable(placed);
    if (!fieldOfView.empty() && mode != nullptr) toRead.push_back(const_cast<VarInfo*>(mode));

    FieldBytes bytes;
    if (!FieldReader(*reader_).read(toRead, bytes, error)) return false;

    const auto textOf = [&](const VarInfo* var) {
        if (var == nullptr) return QString();
        return qs(valueText(*var, bytes[var]).value_or(std::string()));
    };
    captured.serialNumber = textOf(serial);
    captured.partNumber = textOf(part);
    captured.firmwareVersion = textOf(firmware);
    for (const PlacedVariable* p : settings) captured.settings << entryOf(*p, bytes[p->var]);
    for (const PlacedVariable* p : record) captured.record << entryOf(*p, bytes[p->var]);
    if (!fieldOfView.empty() && mode != nullptr) {
        profile::ProfileFieldOfView fov;
        fov.mode = QString::number(bytes[mode].empty() ? 0 : bytes[mode].front());
        for (float bound : fov_->bounds()) fov.bounds << QString::number(bound, 'f', 1);
        captured.fieldOfView = fov;
    }
    for (const PlacedVariable& p : placed)
        if (excludedNames.contains(qs(p.var->var_name)) &&
            !captured.excluded.contains(qs(p.var->var_name)))
            captured.excluded << qs(p.var->var_name);
    *out = captured;
    return true;
}

// ---- Checking a profile against the catalogue ----

namespace {

// Why these bytes cannot be written to the variable: their length, or a value outside what the
// catalogue allows. "" when they can.
QString bytesProblem(const VarInfo& var, const QByteArray& bytes) {
    const QString name = qs(var.var_name);
    if (var.offset > 0 && bytes.size() != var.offset)
        return QString::number(bytes.size()) + (bytes.size() == 1 ? " byte" : " bytes") +
               " where " + name + " holds " + QString::number(var.offset);
    const std::optional<std::string> text = LidarUtilitiesManager::valueText(var, toBytes(bytes));
    if (!text) return name + ": the bytes " + hexOf(bytes) + " do not make a value";
    if (!var.options.empty()) {
        bool ok = false;
        const int value = qs(*text).toInt(&ok);
        const bool offered =
            ok && std::find(var.options.begin(), var.options.end(), value) != var.options.end();
        if (!offered) {
            QStringList choices;
            for (int32_t option : var.options) choices << QString::number(option);
            return name + " takes " + choices.join(", ") + "; the bytes hold " + qs(*text);
        }
    }
    const std::string exact = limitText(var, toBytes(bytes)).value_or(*text);
    if (!LidarUtilitiesManager::textWithinLimits(var, exact))
        return name + " must be " + LidarUtilitiesManager::limitsText(var) + "; the bytes hold " +
               qs(exact);
    return QString();
}

QStringList fieldOfViewRefusals(const profile::ProfileFieldOfView& fov, const VarInfo* modeVar) {
    QStringList refusals;
    if (modeVar == nullptr) return {"field_of_view: this model has no channel field of view"};
    static const QRegularExpression kModeNumber("^(0|[1-9][0-9]{0,2})$");
    bool ok = kModeNumber.match(fov.mode).hasMatch();
    const int mode = fov.mode.toInt();
    if (!ok || mode > 255) {
        refusals << "field_of_view.mode: '" + fov.mode + "' is not a mode number (0 to 255)";
    } else if (const QString problem =
                   bytesProblem(*modeVar, QByteArray(1, static_cast<char>(mode)));
               !problem.isEmpty()) {
        refusals << "field_of_view.mode: " + problem;
    }
    for (int i = 0; i < fov.bounds.size(); ++i) {
        if (!profile::boundTenths(fov.bounds[i]))
            refusals << "field_of_view.bounds[" + QString::number(i) + "]: '" + fov.bounds[i] +
                            "' is not 0 to 360 degrees in tenths";
    }
    return refusals;
}

}  // namespace

QStringList LidarUtilitiesManager::profileRefusals(const profile::SettingsProfile& p) const {
    const QString model = getSelectedLidarModel();
    if (p.model != model)
        return {"model: the profile is for " + p.model + ", the lidar is " + model};
    const std::vector<PlacedVariable> placed = placedVariables(*catalogue_);
    QStringList refusals;
    for (int i = 0; i < p.settings.size(); ++i) {
        const profile::ProfileEntry& entry = p.settings[i];
        const QString key = "settings[" + QString::number(i) + "]";
        const PlacedVariable* found = findByVarId(placed, entry.varId);
        if (found == nullptr) {
            refusals << key + ".var_id: the " + model + " catalogue has no variable '" +
                            entry.varId + "'";
            continue;
        }
        const VarInfo& var = *found->var;
        if (!isSetting(var)) {
            refusals << key + ".var_id: " + qs(var.var_name) + " is not a setting a profile writes";
            continue;
        }
        if (connectionSetsBaudRateOf(model) && isConnectionBaudRate(var)) {
            refusals << key + ".var_id: " + qs(var.var_name) +
                            " is written by every connection (the baud rate connected with), "
                            "not by a profile";
            continue;
        }
        if (entry.setCommand.compare(qs(var.set_cmd), Qt::CaseInsensitive) != 0) {
            refusals << key + ".set_command: " + entry.setCommand + " where the catalogue writes " +
                            qs(var.var_name) + " with " + qs(var.set_cmd);
            continue;
        }
        if (const QString problem = bytesProblem(var, entry.bytes); !problem.isEmpty())
            refusals << key + ".bytes: " + problem;
    }
    if (p.fieldOfView)
        refusals << fieldOfViewRefusals(*p.fieldOfView, fieldOfViewModeVariable(placed));
    return refusals;
}

// ---- Comparing ----

bool LidarUtilitiesManager::compareWithProfile(const profile::SettingsProfile& p,
                                               profile::ProfileComparison* out, QString* error) {
    const std::vector<PlacedVariable> placed = placedVariables(*catalogue_);
    std::vector<VarInfo*> toRead;
    std::vector<std::pair<const profile::ProfileEntry*, const PlacedVariable*>> fields;
    for (const profile::ProfileEntry& entry : p.settings) {
        const PlacedVariable* found = findByVarId(placed, entry.varId);
        if (found == nullptr) {
            *error = "the catalogue has no variable '" + entry.varId + "'";
            return false;
        }
        fields.emplace_back(&entry, found);
        toRead.push_back(found->var);
    }
    const VarInfo* modeVar = fieldOfViewModeVariable(placed);
    if (p.fieldOfView && modeVar != nullptr) toRead.push_back(const_cast<VarInfo*>(modeVar));
    VarInfo* firmware = nullptr;
    for (const PlacedVariable& entry : placed)
        if (!firmware && !entry.var->get_cmd.empty() &&
            (entry.var->var_type == "SWVER_YMD" || entry.var->var_name == "Firmware Version"))
            firmware = entry.var;
    if (firmware != nullptr && !p.firmwareVersion.isEmpty()) toRead.push_back(firmware);

    FieldBytes bytes;
    if (!FieldReader(*reader_).read(toRead, bytes, error)) return false;

    profile::ProfileComparison comparison;
    for (const auto& [entry, found] : fields) {
        const QByteArray lidarBytes = toByteArray(bytes[found->var]);
        if (lidarBytes == entry->bytes) continue;
        profile::FieldDifference difference;
        difference.module = found->moduleName;
        difference.page = found->pageName;
        difference.name = qs(found->var->var_name);
        difference.varId = entry->varId;
        difference.setCommand = qs(found->var->set_cmd);
        difference.lidarBytes = lidarBytes;
        difference.profileBytes = entry->bytes;
        difference.lidarText = displayText(*found->var, bytes[found->var]);
        difference.profileText = displayText(*found->var, toBytes(entry->bytes));
        difference.unit = entryOf(*found, {}).unit;
        comparison.differences << difference;
    }
    if (p.fieldOfView) {
        comparison.profileFieldOfView = p.fieldOfView;
        if (modeVar != nullptr) {
            profile::ProfileFieldOfView lidar;
            const Bytes& mode = bytes[modeVar];
            lidar.mode = QString::number(mode.empty() ? 0 : mode.front());
            for (float bound : fov_->bounds()) lidar.bounds << QString::number(bound, 'f', 1);
            comparison.lidarFieldOfView = lidar;
        }
    }
    if (firmware != nullptr && !p.firmwareVersion.isEmpty()) {
        const QString version = qs(valueText(*firmware, bytes[firmware]).value_or(std::string()));
        if (version != p.firmwareVersion)
            comparison.warnings << "the lidar's firmware is " + version +
                                       "; the profile was taken from " + p.firmwareVersion;
    }
    *out = comparison;
    return true;
}

// ---- Writing the differences ----

LidarUtilitiesManager::ProfileWrite LidarUtilitiesManager::writeProfileDifferences(
    const profile::ProfileComparison& comparison) {
    const std::vector<PlacedVariable> placed = placedVariables(*catalogue_);
    ProfileWrite result;
    for (const QString& command : comparison.plannedCommands()) {
        // One command at a time: an apply consumes every staged command, and the order matters.
        staging_->clear();
        int module = -1;
        if (command == profile::kFieldOfViewSetCommand) {
            const VarInfo* modeVar = fieldOfViewModeVariable(placed);
            if (modeVar == nullptr || !comparison.profileFieldOfView) {
                result.failed = command;
                return result;
            }
            const profile::ProfileFieldOfView& wanted = *comparison.profileFieldOfView;
            for (int i = 0; i < wanted.bounds.size(); ++i) fov_->setBound(i, wanted.bounds[i]);
            staging_->stageBytes(modeVar, {static_cast<uint8_t>(wanted.mode.toInt())});
            for (const PlacedVariable& p : placed)
                if (p.var == modeVar) module = p.module;
        } else {
            for (const profile::FieldDifference& difference : comparison.differences) {
                if (difference.setCommand != command) continue;
                const PlacedVariable* found = findByVarId(placed, difference.varId);
                if (found == nullptr) continue;  // a comparison made with another catalogue
                staging_->stageBytes(found->var, toBytes(difference.profileBytes));
                module = found->module;
            }
        }
        if (module < 0 || !staging_->runOverSerialLines(module, fov_->bounds())) {
            result.failed = command;
            return result;
        }
        result.written << command;
        if (command == profile::kNetworkSetCommand && getConnectType() != kSerialLinesKind)
            result.networkWritten = true;
    }
    return result;
}
