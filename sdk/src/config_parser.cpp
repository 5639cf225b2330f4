#include "sdk/config_parser.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cmath>
#include <stdexcept>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "sdk/csv_table.h"
#include "sdk/logger.h"
#include "sdk/text_fields.h"

namespace {

const char* const kFunction = "ConfigParser::ExtractConfigInfo";

enum Column {
    // Required.
    kModule,
    kPage,
    kVarId,
    kVarName,
    kVarType,
    kGetCmd,
    kSetCmd,
    kGetStartPos,
    kSetStartPos,
    kOffset,
    // Optional.
    kIndex,
    kNameSuffix,
    kGetPayload,
    kPermission,
    kScale,
    kRangeScale,
    kDefaultVal,
    kOptions,
    kValueToOption,
    kVisible,
    kType,
    kHidden,
    kSwitchVar,
    kTimerUpdate,
    kLogList,
    kMinVal,
    kMaxVal,
    kColumnCount
};
constexpr int kRequiredColumns = kOffset + 1;

const std::array<const char*, kColumnCount> kColumnNames = {
    "module",      "page",        "var_id",        "var_name",        "var_type",
    "get_cmd",     "set_cmd",     "get_start_pos", "set_start_pos",   "offset",
    "index",       "name_suffix", "get_payload",   "permission",      "scale",
    "range_scale", "default_val", "options",       "value_to_option", "visible",
    "type",        "hidden",      "switch_var",    "timer_update",    "log_list",
    "min_val",     "max_val"};

// Thrown by the field readers; the message names the column and the offending text.
class RowError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

std::string Quoted(const std::string& text) {
    return "\"" + text + "\"";
}

using lidar::text::Split;
using lidar::text::Trim;

[[noreturn]] void Reject(Column column, const std::string& text, const std::string& problem) {
    throw RowError(std::string("column \"") + kColumnNames[column] + "\": " + Quoted(text) + " " +
                   problem);
}

// Locale-independent: the Qt application switches the C locale to the user's, which would make
// strtof stop at the decimal point in some languages.
template <typename T>
bool ParseNumber(std::string_view rawText, T& out) {
    const std::string_view text = Trim(rawText);
    const char* begin = text.data();
    const char* end = text.data() + text.size();
    if (begin != end && *begin == '+') ++begin;
    if (begin == end) return false;
    const auto result = std::from_chars(begin, end, out);
    return result.ec == std::errc() && result.ptr == end;
}

bool IsHexDigits(std::string_view digits) {
    if (digits.empty()) return false;
    for (char c : digits) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    }
    return true;
}

int VarTypeWidth(const std::string& varType) {
    static const std::unordered_map<std::string, int> kWidths = {
        {"uint8", 1}, {"int8", 1},    {"uint16", 2}, {"int16", 2}, {"uint32", 4},
        {"int32", 4}, {"float32", 4}, {"uint64", 8}, {"int64", 8}, {"double", 8}};
    const auto it = kWidths.find(varType);
    return it == kWidths.end() ? 0 : it->second;
}

// The types for which the writer of settings has an encoder.
bool IsWritableVarType(const std::string& varType) {
    return VarTypeWidth(varType) > 0 || varType == "IP" || varType == "MAC" || varType == "raw";
}

bool IsKnownVarType(const std::string& varType) {
    static const std::unordered_set<std::string> kOthers = {
        "IP", "MAC", "HWVER", "SWVER_YMD", "BYTES", "SN", "PN", "string", "raw", "DT"};
    return VarTypeWidth(varType) > 0 || kOthers.count(varType) > 0;
}

bool IsAllEmpty(const std::vector<std::string>& fields) {
    for (const std::string& f : fields) {
        if (!Trim(f).empty()) return false;
    }
    return true;
}

// Finds, or adds, the module and page of each row while the tree is built. Rows of one page
// usually follow each other: the page of the previous row is tried before the hash maps.
class TreePlacer {
  public:
    TreePlacer(std::vector<std::vector<std::string>>& moduleNames,
               std::vector<std::vector<std::vector<VarInfo*>>>& varTree)
        : moduleNames_(moduleNames), varTree_(varTree) {}

    // The module's and the page's indexes.
    std::pair<size_t, size_t> Place(const std::string& module, const std::string& page) {
        const bool samePage = lastModule_ != kNoPosition &&
                              module == moduleNames_[lastModule_][0] &&
                              page == moduleNames_[lastModule_][lastPage_ + 1];
        if (samePage) return {lastModule_, lastPage_};
        const auto [mod, newModule] = moduleIndex_.try_emplace(module, moduleNames_.size());
        if (newModule) {
            moduleNames_.push_back({module});
            varTree_.emplace_back();
            pageIndex_.emplace_back();
        }
        lastModule_ = mod->second;
        const auto [pg, newPage] =
            pageIndex_[lastModule_].try_emplace(page, varTree_[lastModule_].size());
        if (newPage) {
            moduleNames_[lastModule_].push_back(page);
            varTree_[lastModule_].emplace_back();
        }
        lastPage_ = pg->second;
        return {lastModule_, lastPage_};
    }

  private:
    static constexpr size_t kNoPosition = static_cast<size_t>(-1);
    std::vector<std::vector<std::string>>& moduleNames_;
    std::vector<std::vector<std::vector<VarInfo*>>>& varTree_;
    std::unordered_map<std::string, size_t> moduleIndex_;
    std::vector<std::unordered_map<std::string, size_t>> pageIndex_;
    size_t lastModule_ = kNoPosition;
    size_t lastPage_ = 0;
};

}  // namespace

// The header's column positions, resolved once so that rows are read by index.
class ConfigParser::RowView {
  public:
    explicit RowView(const std::vector<std::string>& header) {
        positions_.fill(-1);
        for (int c = 0; c < kColumnCount; ++c) {
            for (size_t i = 0; i < header.size(); ++i) {
                if (Trim(header[i]) == kColumnNames[c]) {
                    positions_[c] = static_cast<int>(i);
                    break;
                }
            }
        }
    }

    const char* FirstMissingRequired() const {
        for (int c = 0; c < kRequiredColumns; ++c) {
            if (positions_[c] < 0) return kColumnNames[c];
        }
        return nullptr;
    }

    void Bind(const std::vector<std::string>* fields) { fields_ = fields; }

    const std::string& Text(Column column) const {
        static const std::string kEmpty;
        const int pos = positions_[column];
        if (pos < 0 || static_cast<size_t>(pos) >= fields_->size()) return kEmpty;
        return (*fields_)[static_cast<size_t>(pos)];
    }

    bool IsEmpty(Column column) const { return Trim(Text(column)).empty(); }

    int32_t Int(Column column, int32_t fallback) const {
        const std::string& text = Text(column);
        if (Trim(text).empty()) return fallback;
        int32_t value = 0;
        if (!ParseNumber(text, value)) Reject(column, text, "is not an integer");
        return value;
    }

    int32_t NonNegativeInt(Column column) const {
        const int32_t value = Int(column, 0);
        if (value < 0) Reject(column, Text(column), "is negative");
        return value;
    }

    float Float(Column column, float fallback) const {
        const std::string& text = Text(column);
        if (Trim(text).empty()) return fallback;
        float value = 0;
        if (!ParseNumber(text, value)) Reject(column, text, "is not a number");
        return value;
    }

    // A factor values are multiplied or divided by: zero, infinite or NaN would turn every value
    // into nonsense.
    float Factor(Column column) const {
        const float value = Float(column, 1.0f);
        if (!std::isfinite(value)) Reject(column, Text(column), "is not a finite number");
        if (value == 0.0f) Reject(column, Text(column), "is zero");
        return value;
    }

    bool Bool(Column column) const {
        const std::string_view text = Trim(Text(column));
        if (text.empty() || text == "0" || text == "false" || text == "FALSE" || text == "False") {
            return false;
        }
        if (text == "1" || text == "true" || text == "TRUE" || text == "True") return true;
        Reject(column, Text(column), "is not 0, 1, true or false");
    }

    // Up to 4 characters: a command code. Longer: command 0xFF with sub-command digit pairs.
    std::string Command(Column column) const {
        const std::string_view text = Trim(Text(column));
        if (text.empty()) return std::string();
        uint8_t code = 0;
        if (text.size() <= 4 && !lidar::text::ParseCommandCode(text, code)) {
            Reject(column, Text(column),
                   "is not a command code (one or two hexadecimal digits, optionally after 0x)");
        }
        if (text.size() > 4 && !IsHexDigits(text.substr(lidar::text::HasHexPrefix(text) ? 2 : 0))) {
            Reject(column, Text(column), "is not a hexadecimal command");
        }
        return std::string(text);
    }

    std::vector<uint8_t> HexBytes(Column column) const {
        std::vector<uint8_t> bytes;
        if (!lidar::text::ParseHexPairs(Text(column), bytes)) {
            Reject(column, Text(column), "is not pairs of hexadecimal digits");
        }
        return bytes;
    }

    std::vector<int32_t> IntList(Column column) const {
        std::vector<int32_t> values;
        if (IsEmpty(column)) return values;
        for (const std::string& part : Split(Text(column), '|')) {
            int32_t value = 0;
            if (!ParseNumber(part, value)) {
                Reject(column, Text(column), "is not a \"|\"-separated list of integers");
            }
            values.push_back(value);
        }
        return values;
    }

    std::map<int32_t, std::string> ValueTexts(Column column) const {
        std::map<int32_t, std::string> map;
        if (IsEmpty(column)) return map;
        for (const std::string& pair : Split(Text(column), '|')) {
            const size_t colon = pair.find(':');
            int32_t value = 0;
            if (colon == std::string::npos || !ParseNumber(pair.substr(0, colon), value)) {
                Reject(column, Text(column), "is not a \"|\"-separated list of value:text pairs");
            }
            map[value] = std::string(Trim(std::string_view(pair).substr(colon + 1)));
        }
        return map;
    }

  private:
    std::array<int, kColumnCount> positions_{};
    const std::vector<std::string>* fields_ = nullptr;
};

// A row that passed the per-row checks, waiting for the checks that need the whole file.
struct ConfigParser::Candidate {
    std::unique_ptr<VarInfo> var;
    int line = 0;
    std::string module;
    std::string page;
    std::string switchVarId;
    bool hasIndex = false;
    bool rejected = false;
};

ConfigParser::ConfigParser(std::string path) : configPath_(std::move(path)) {}
ConfigParser::ConfigParser(ConfigParser&&) noexcept = default;
ConfigParser& ConfigParser::operator=(ConfigParser&&) noexcept = default;
ConfigParser::~ConfigParser() = default;

void ConfigParser::Clear() {
    moduleNames.clear();
    varTree.clear();
    logVars.clear();
    vars_.clear();
    byName_.clear();
    byId_.clear();
    bySetCmd_.clear();
    rejectedRows_ = 0;
}

void ConfigParser::Report(int level, int line, const std::string& message) {
    Logger::GetInstance().AddToQueue(level, configPath_, line, kFunction, message);
}

void ConfigParser::RejectRow(int line, const std::string& reason) {
    ++rejectedRows_;
    Report(Logger::kConfigError, line, reason + "; the row is skipped");
}

bool ConfigParser::ExtractConfigInfo() {
    Clear();
    // Rows are turned into candidates as the CSV reader produces them; the table itself is never
    // held in memory.
    std::unique_ptr<RowView> view;
    const char* missing = nullptr;
    // The var_id lookup built while reading is the catalogue's own once the rejected rows are out
    // of it: one hash map, not two.
    std::unordered_map<std::string_view, VarInfo*> byId;
    std::vector<Candidate> candidates;
    const auto onHeader = [&](std::vector<std::string>&& header, size_t lines) {
        view = std::make_unique<RowView>(header);
        missing = view->FirstMissingRequired();
        candidates.reserve(lines);
        byId.reserve(lines);
    };
    const auto onRow = [&](const std::vector<std::string>& fields, int line) {
        if (IsAllEmpty(fields)) return;  // spreadsheet filler such as ",,,,"
        if (missing != nullptr) {
            RejectRow(line, std::string("the header has no required column \"") + missing + "\"");
            return;
        }
        view->Bind(&fields);
        ReadCandidate(*view, line, candidates, byId);
    };
    csv::StreamOutcome outcome;
    try {
        outcome = csv::StreamFile(configPath_, onHeader, onRow);
    } catch (const std::exception& e) {
        Report(Logger::kConfigError, 0, std::string("cannot read the catalogue: ") + e.what());
        return false;
    }
    if (view == nullptr) missing = kColumnNames[0];  // not even a header
    if (const int open = outcome.unclosedQuoteLine) {
        ++rejectedRows_;
        Report(Logger::kConfigError, open,
               "a quoted field opens on this line and is never closed; lines " +
                   std::to_string(open) + " to " + std::to_string(outcome.lastLine) +
                   " are skipped");
    }
    if (missing != nullptr) return true;

    ResolveSwitchVars(candidates, byId);
    byId_ = std::move(byId);
    BuildCatalogue(candidates);
    return true;
}

void ConfigParser::ReadCandidate(const RowView& view, int line, std::vector<Candidate>& candidates,
                                 std::unordered_map<std::string_view, VarInfo*>& byId) {
    try {
        Candidate candidate = ReadRow(view);
        candidate.line = line;
        const auto [it, inserted] = byId.try_emplace(candidate.var->var_id, candidate.var.get());
        if (!inserted) {
            const VarInfo* first = it->second;
            const auto earlier =
                std::find_if(candidates.begin(), candidates.end(),
                             [first](const Candidate& c) { return c.var.get() == first; });
            Reject(kVarId, candidate.var->var_id,
                   "repeats the var_id of line " + std::to_string(earlier->line));
        }
        candidates.push_back(std::move(candidate));
    } catch (const RowError& e) {
        RejectRow(line, e.what());
    }
}

ConfigParser::Candidate ConfigParser::ReadRow(const RowView& view) {
    Candidate c;
    c.var = std::make_unique<VarInfo>();
    VarInfo& v = *c.var;
    for (Column required : {kModule, kPage, kVarId, kVarName}) {
        if (view.IsEmpty(required)) {
            throw RowError(std::string("column \"") + kColumnNames[required] + "\" is empty");
        }
    }
    c.module = view.Text(kModule);
    c.page = view.Text(kPage);
    v.var_id = std::string(Trim(view.Text(kVarId)));
    v.var_name = view.Text(kVarName);
    v.var_type = std::string(Trim(view.Text(kVarType)));
    v.get_cmd = view.Command(kGetCmd);
    v.set_cmd = view.Command(kSetCmd);
    v.get_start_pos = view.NonNegativeInt(kGetStartPos);
    v.set_start_pos = view.NonNegativeInt(kSetStartPos);
    v.offset = view.NonNegativeInt(kOffset);
    c.hasIndex = !view.IsEmpty(kIndex);
    v.index = view.Int(kIndex, 0);
    v.name_suffix = view.Text(kNameSuffix);
    v.get_payload = view.HexBytes(kGetPayload);
    v.get_payload_text = std::string(Trim(view.Text(kGetPayload)));
    v.permission = view.Int(kPermission, 0);
    v.scale = view.Factor(kScale);
    v.range_scale = view.Factor(kRangeScale);
    v.default_val = view.Text(kDefaultVal);
    v.options = view.IntList(kOptions);
    v.option_num = static_cast<int32_t>(v.options.size());
    v.value_to_option = view.ValueTexts(kValueToOption);
    v.visible = view.Int(kVisible, 1);
    v.type = view.Int(kType, 0);
    v.hidden = view.Bool(kHidden);
    c.switchVarId = std::string(Trim(view.Text(kSwitchVar)));
    v.timer_update = view.Bool(kTimerUpdate);
    v.log_list = view.Bool(kLogList);
    v.min_val = view.Int(kMinVal, 0);
    v.max_val = view.Int(kMaxVal, 0);

    // The reply decoder reads a fixed-width number's bytes without a length check.
    const int width = VarTypeWidth(v.var_type);
    if (width > 0 && v.offset != 0 && v.offset != width) {
        Reject(
            kOffset, view.Text(kOffset),
            "does not match var_type \"" + v.var_type + "\" (" + std::to_string(width) + " bytes)");
    }
    return c;
}

void ConfigParser::ResolveSwitchVars(std::vector<Candidate>& candidates,
                                     std::unordered_map<std::string_view, VarInfo*>& byId) {
    // Rejecting a row can orphan a row that names it, so repeat until nothing changes.
    bool changed = true;
    while (changed) {
        changed = false;
        for (Candidate& c : candidates) {
            if (c.rejected || c.switchVarId.empty()) continue;
            const auto it = byId.find(c.switchVarId);
            if (it != byId.end()) {
                c.var->switch_var = it->second;
                continue;
            }
            // Out of the lookup at once: rows naming it are rejected in the next round.
            c.rejected = true;
            byId.erase(c.var->var_id);
            changed = true;
            RejectRow(c.line, std::string("column \"switch_var\": ") + Quoted(c.switchVarId) +
                                  " names no variable of this file");
        }
    }
}

void ConfigParser::BuildCatalogue(std::vector<Candidate>& candidates) {
    TreePlacer tree(moduleNames, varTree);
    std::vector<int32_t> varsInModule;
    std::unordered_map<std::string, int32_t> setPayloadEnd;
    std::unordered_set<std::string> nonContiguousSetCmds;
    std::vector<VarInfo*>* lastSetGroup = nullptr;
    int32_t* lastPayloadEnd = nullptr;
    const std::string* lastSetCmd = nullptr;
    vars_.reserve(candidates.size());
    byName_.reserve(candidates.size());

    for (Candidate& c : candidates) {
        if (c.rejected) continue;
        VarInfo* var = c.var.get();
        WarnAboutVarType(*var, c.line);
        WarnAboutLengthAndLimits(*var, c.line);

        const auto [m, page] = tree.Place(c.module, c.page);
        varsInModule.resize(moduleNames.size(), 0);
        varTree[m][page].push_back(var);
        if (!c.hasIndex) var->index = varsInModule[m];
        ++varsInModule[m];

        byName_.try_emplace(var->var_name, var);
        if (var->log_list) logVars.push_back(var);
        if (!var->set_cmd.empty()) {
            // The variables of a set command usually follow each other: the previous command's
            // entries are reused (references into unordered maps survive rehashing).
            if (lastSetGroup == nullptr || var->set_cmd != *lastSetCmd) {
                lastSetGroup = &bySetCmd_[var->set_cmd];
                lastPayloadEnd = &setPayloadEnd[var->set_cmd];
                lastSetCmd = &var->set_cmd;
            }
            WarnAboutSetGroup(*lastSetGroup, *var, *lastPayloadEnd, c.line, nonContiguousSetCmds);
            lastSetGroup->push_back(var);
            *lastPayloadEnd += var->offset;
        }
        vars_.push_back(std::move(c.var));
    }
}

void ConfigParser::WarnAboutSetGroup(const std::vector<VarInfo*>& group, const VarInfo& var,
                                     int32_t payloadEnd, int line,
                                     std::unordered_set<std::string>& gapReported) {
    // The manager concatenates a set command's variables in catalogue order.
    if (var.set_start_pos != payloadEnd && gapReported.insert(var.set_cmd).second) {
        Report(Logger::kWarning, line,
               "variables of set_cmd " + Quoted(var.set_cmd) +
                   " are not contiguous in catalogue order: set_start_pos of " +
                   Quoted(var.var_id) + " is " + std::to_string(var.set_start_pos) +
                   ", the offsets before it add up to " + std::to_string(payloadEnd));
    }
    // The read-back before a write keeps each variable's bytes under its var_name.
    for (const VarInfo* other : group) {
        if (other->var_name == var.var_name) {
            Report(Logger::kWarning, line,
                   "variables " + Quoted(other->var_id) + " and " + Quoted(var.var_id) +
                       " of set_cmd " + Quoted(var.set_cmd) + " share the var_name " +
                       Quoted(var.var_name));
            break;
        }
    }
}

void ConfigParser::WarnAboutLengthAndLimits(const VarInfo& var, int line) {
    if (!var.get_cmd.empty() && var.offset == 0) {
        Report(Logger::kWarning, line,
               "column \"offset\": " + Quoted(var.var_id) + " is read by get_cmd " +
                   Quoted(var.get_cmd) + " but has no length; it will not be decoded");
    }
    // A bound of 0 switches the check off, so only two non-zero bounds can refuse everything.
    if (var.min_val > var.max_val && var.min_val != 0 && var.max_val != 0) {
        Report(Logger::kWarning, line,
               "columns \"min_val\" and \"max_val\": " + Quoted(var.var_id) + " has min_val " +
                   std::to_string(var.min_val) + " above max_val " + std::to_string(var.max_val) +
                   "; every value will be refused");
    }
}

void ConfigParser::WarnAboutVarType(const VarInfo& var, int line) {
    if (!IsKnownVarType(var.var_type)) {
        Report(Logger::kWarning, line,
               "column \"var_type\": " + Quoted(var.var_type) + " is not a known type; " +
                   Quoted(var.var_id) + " will not be decoded");
    } else if ((var.var_type == "HWVER" || var.var_type == "SWVER_YMD") && var.offset != 16) {
        Report(Logger::kWarning, line,
               "column \"offset\": " + var.var_type + " values are 16 bytes, " +
                   Quoted(var.var_id) + " has " + std::to_string(var.offset));
    }
    if (!var.set_cmd.empty() && IsKnownVarType(var.var_type) && !IsWritableVarType(var.var_type)) {
        Report(Logger::kWarning, line,
               "column \"set_cmd\": " + Quoted(var.var_id) + " has set_cmd " + Quoted(var.set_cmd) +
                   " but values of var_type " + Quoted(var.var_type) +
                   " cannot be written; applying that command will fail");
    }
}

VarInfo* ConfigParser::GetVarInfoByName(const std::string& name) const {
    const auto it = byName_.find(name);
    return it == byName_.end() ? nullptr : it->second;
}

VarInfo* ConfigParser::GetVarInfoByVarID(const std::string& varId) const {
    const auto it = byId_.find(varId);
    return it == byId_.end() ? nullptr : it->second;
}

bool ConfigParser::GetVarPosOffset(const std::string& get_cmd, const std::string& var_id,
                                   int replySize, std::pair<int, int>& out) const {
    const VarInfo* var = GetVarInfoByVarID(var_id);
    if (var == nullptr || var->get_cmd != get_cmd || var->offset < 1) return false;
    if (replySize >= 0 &&
        static_cast<int64_t>(var->get_start_pos) + var->offset > static_cast<int64_t>(replySize)) {
        return false;
    }
    out = {var->get_start_pos, var->offset};
    return true;
}

const std::vector<VarInfo*>& ConfigParser::GetVarInfosBySetCmd(const std::string& set_cmd) const {
    static const std::vector<VarInfo*> kNone;
    const auto it = bySetCmd_.find(set_cmd);
    return it == bySetCmd_.end() ? kNone : it->second;
}
