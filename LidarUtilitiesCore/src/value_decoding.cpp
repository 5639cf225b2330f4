// Turning reply bytes into the display texts of the catalogue (the page reader's decoding), and
// checking staged texts against the catalogue's limits before they are written (the façade's).

#include <QRegExp>
#include <QString>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>

#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "page_reader.h"
#include "parameter_catalogue.h"
#include "sdk/logger.h"
#include "value_parsers.h"

namespace {

using LogLevel = LidarUtilitiesManager::LogLevel;

// clang-format off
const char* const kIpPattern = R"(^((25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)\.){3}(25[0-5]|2[0-4][0-9]|[01]?[0-9][0-9]?)$)";
// clang-format on

const char* const kLoggerSourceFile = "LidarUtilitiesCore/src/lidar_utilities_manager";

// Same contract as VrcClient::GetValFromOutput, for when no client is connected (decoding a reply
// kept from earlier, or tests): copy `length` bytes from `start`, or false when they are not there.
bool copyValueFromOutput(const std::vector<uint8_t>& output, int start, int length,
                         std::vector<uint8_t>& value) {
    if (start < 0 || length < 0) return false;
    const int64_t end = static_cast<int64_t>(start) + length;
    if (end > static_cast<int64_t>(output.size())) return false;
    value.assign(output.begin() + start, output.begin() + end);
    return true;
}

// The first `width` bytes as one big-endian unsigned number.
uint64_t readBigEndian(const std::vector<uint8_t>& value, size_t width) {
    uint64_t number = 0;
    for (size_t i = 0; i < width; ++i) number = (number << 8) | value[i];
    return number;
}

template <typename T>
std::string printfText(const char* format, T number) {
    char text[32];
    std::snprintf(text, sizeof(text), format, number);
    return text;
}

// Scale 1.0 shows the integer as it is; any other scale (NaN included) a two-decimal number.
// The product is taken in float, the precision in which the writer divides an edited text by the
// scale again, so that a value read and written back unchanged keeps its raw number.
template <typename T>
std::string scaledIntegerText(const char* format, T number, float scale) {
    if (scale == 1.0f) return printfText(format, number);
    const float scaled = static_cast<float>(number) * scale;
    return QString::number(scaled, 'f', 2).toStdString();
}

// Serial and part numbers: the text with the NUL or blank padding around it removed.
std::string paddedText(const std::vector<uint8_t>& value) {
    std::string text(value.begin(), value.end());
    const size_t first = text.find_first_not_of(std::string("\0 ", 2));
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(std::string("\0 ", 2)) - first + 1);
}

// A block of bytes as the catalogue writes one: "0x" and two upper-case digits per byte.
std::string hexPairsText(const std::vector<uint8_t>& value) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text = "0x";
    for (uint8_t byte : value) {
        text += kDigits[byte >> 4];
        text += kDigits[byte & 0x0F];
    }
    return text;
}

std::string joinedDecimalBytes(const std::vector<uint8_t>& value) {
    std::string text;
    for (size_t i = 0; i < value.size(); ++i) {
        if (i > 0) text += '.';
        text += std::to_string(value[i]);
    }
    return text;
}

std::string macText(const std::vector<uint8_t>& value) {
    std::string text;
    for (size_t i = 0; i < 6; ++i) {
        if (i > 0) text += ':';
        text += printfText("%02X", static_cast<unsigned>(value[i]));
    }
    return text;
}

std::string hardwareVersionText(const std::vector<uint8_t>& b) {
    std::string text(b.begin(), b.begin() + 9);
    text += std::to_string(b[9]) + "." + std::to_string(b[10]) + "." +
            std::to_string(b[11] * 256 + b[12]);
    const int build = b[13] * 256 + b[14];
    if (build != 0) text += "." + std::to_string(build);
    return LidarUtilitiesManager::trim(text);
}

std::string softwareDateVersionText(const std::vector<uint8_t>& b) {
    std::string text(b.begin(), b.begin() + 12);
    text += std::to_string(b[12]) + "." + std::to_string(b[13]) + "." + std::to_string(b[14]);
    return LidarUtilitiesManager::trim(text);
}

std::string durationText(const std::vector<uint8_t>& value) {
    uint64_t total = 0;
    for (uint8_t byte : value) total = total * 256 + byte;
    const uint64_t hours = total / 3600;
    const uint32_t minutes = static_cast<uint32_t>(total - 3600 * hours) / 60;
    const uint32_t seconds = static_cast<uint32_t>(total - 3600 * hours) - 60 * minutes;
    return QString("%1 h %2 min %3 s").arg(hours).arg(minutes).arg(seconds).toStdString();
}

// Bytes a fixed-width numeric type needs; 0 for the other types.
size_t numericWidth(const std::string& type) {
    if (type == "uint8" || type == "int8") return 1;
    if (type == "uint16" || type == "int16") return 2;
    if (type == "uint32" || type == "int32" || type == "float32") return 4;
    if (type == "uint64" || type == "int64" || type == "double") return 8;
    return 0;
}

// The display text of a fixed-width numeric type; value holds at least its width.
std::string numericText(const std::string& type, const std::vector<uint8_t>& value, float scale) {
    const uint64_t raw = readBigEndian(value, numericWidth(type));
    if (type == "uint8") return scaledIntegerText("%d", static_cast<int>(raw), scale);
    if (type == "uint16") return scaledIntegerText("%d", static_cast<int>(raw), scale);
    if (type == "uint32") return scaledIntegerText("%u", static_cast<uint32_t>(raw), scale);
    if (type == "uint64") return scaledIntegerText("%lu", static_cast<unsigned long>(raw), scale);
    if (type == "int8") return scaledIntegerText("%d", static_cast<int>(int8_t(raw)), scale);
    if (type == "int16") return scaledIntegerText("%d", static_cast<int>(int16_t(raw)), scale);
    if (type == "int32") return scaledIntegerText("%d", static_cast<int32_t>(raw), scale);
    if (type == "int64") return scaledIntegerText("%ld", static_cast<long>(raw), scale);
    if (type == "float32") {
        const uint32_t bits = static_cast<uint32_t>(raw);
        float number = 0;
        std::memcpy(&number, &bits, sizeof(number));
        return QString::number(number * scale, 'f', 2).toStdString();
    }
    double number = 0;
    std::memcpy(&number, &raw, sizeof(number));
    return QString::number(number * static_cast<double>(scale), 'f', 2).toStdString();
}

enum class StagedVerdict { kPass, kTooLong, kBadIp, kBadMac, kOutOfRange, kNotANumber };

// A field's display text, or why there is none: a problem for the SDK's logger (the catalogue
// promises a length the bytes do not have) or for the developer lines (a type nobody decodes).
struct DecodedText {
    std::optional<std::string> text;
    std::string loggerProblem;
    std::string developerProblem;
};

DecodedText decodeText(const VarInfo& var, const std::vector<uint8_t>& value) {
    const std::string& type = var.var_type;
    DecodedText out;
    if (type == "IP") {
        out.text = joinedDecimalBytes(value);
    } else if (type == "MAC") {
        // A short one is said and shown empty, as designed.
        out.text = value.size() >= 6 ? macText(value) : std::string();
        if (value.size() < 6)
            out.loggerProblem = "MAC address size is less than 6, please check your config file";
    } else if (type == "HWVER" || type == "SWVER_YMD") {
        if (value.size() != 16) {
            // The same message for both types, spelling included: log readers search for it.
            out.loggerProblem = "HWVER size is not qual to 16, please check your config file";
        } else {
            out.text =
                type == "HWVER" ? hardwareVersionText(value) : softwareDateVersionText(value);
        }
    } else if (type == "string") {
        out.text = LidarUtilitiesManager::trim(std::string(value.begin(), value.end()));
    } else if (type == "DT") {
        out.text = durationText(value);
    } else if (const size_t width = numericWidth(type); width > 0) {
        // The catalogue promises offset == width; a shorter one must not read past the bytes.
        if (value.size() < width)
            out.loggerProblem = type + " size is less than " + std::to_string(width) +
                                ", please check your config file";
        else
            out.text = numericText(type, value, var.scale);
    } else if (type == "SN" || type == "PN") {
        out.text = paddedText(value);
    } else if (type == "BYTES") {
        out.text = hexPairsText(value);
    } else {
        out.developerProblem = "var_type not support: " + type;
    }
    return out;
}

bool exactlyMatches(const char* pattern, const std::string& text) {
    // QRegExp is not safe to share between threads (it caches match state), so one per call.
    QRegExp expression(pattern);
    return expression.exactMatch(QString::fromStdString(text));
}

// How the staged text of one writable variable fares against the catalogue's limits.
StagedVerdict checkStagedText(const VarInfo& var, const std::string& staged) {
    const std::string& type = var.var_type;
    if (type == "string") {
        return staged.size() > static_cast<size_t>(std::max(var.offset, 0))
                   ? StagedVerdict::kTooLong
                   : StagedVerdict::kPass;
    }
    if (type == "raw") return StagedVerdict::kPass;
    if (type == "IP") {
        return exactlyMatches(kIpPattern, staged) ? StagedVerdict::kPass : StagedVerdict::kBadIp;
    }
    if (type == "MAC") {
        return exactlyMatches("^([0-9A-Fa-f]{2}[:]){5}([0-9A-Fa-f]{2})$", staged)
                   ? StagedVerdict::kPass
                   : StagedVerdict::kBadMac;
    }
    if (var.min_val == 0 && var.max_val == 0) return StagedVerdict::kPass;
    if (staged == "0") return StagedVerdict::kPass;
    // The exact number the writer encodes is what is compared (truncated, as it is written), so
    // that "5e3" counts as 5000, not 5.
    switch (checkDecimalWithinLimits(staged, 1.0f, var.min_val, var.max_val,
                                     std::numeric_limits<int32_t>::max(),
                                     encodesInteger(var.var_type))) {
        case LimitCheck::kWithin:
            return StagedVerdict::kPass;
        case LimitCheck::kOutside:
            return StagedVerdict::kOutOfRange;
        case LimitCheck::kNotANumber:
            developer_log::writeDeveloperLine("CheckModuleVarsWithinRange Invalid argument: stoi");
            break;
        case LimitCheck::kBeyondConversion:
            developer_log::writeDeveloperLine("CheckModuleVarsWithinRange Out of range: stoi");
            break;
    }
    return StagedVerdict::kNotANumber;
}

// The developer line of one rejected text: "CheckModuleVarsWithinRange: detected that " + what.
void reportRangeCheck(const std::string& what) {
    developer_log::writeDeveloperLine("CheckModuleVarsWithinRange: detected that " + what);
}

// Tells the log, the developer output and the UI (someVarOutOfRange) about one rejected text.
void reportStagedValueRejected(LidarUtilitiesManager& manager, const VarInfo& var,
                               const std::string& staged, StagedVerdict verdict) {
    const QString name = QString::fromStdString(var.var_name);
    switch (verdict) {
        case StagedVerdict::kBadIp:
            manager.writeLogMessage(
                "Detected that the user set " + var.var_name + " has invalid IP format",
                LogLevel::kWarning);
            reportRangeCheck(var.var_name + " has invalid IP format: " + staged);
            break;
        case StagedVerdict::kBadMac:
            manager.writeLogMessage(
                "Detected that the user set " + var.var_name + " has invalid MAC format",
                LogLevel::kWarning);
            reportRangeCheck(var.var_name + " has invalid MAC format: " + staged);
            break;
        case StagedVerdict::kOutOfRange:
            manager.writeLogMessage(
                "Detected that the user set " + var.var_name + " is out of range",
                LogLevel::kWarning);
            reportRangeCheck(var.var_name + " is out of range");
            break;
        case StagedVerdict::kTooLong:
            reportRangeCheck(var.var_name + " is longer than " + std::to_string(var.offset) +
                             " bytes: " + staged);
            break;
        case StagedVerdict::kNotANumber:  // the debug line was written by the check
        case StagedVerdict::kPass:
            break;
    }
    emit manager.someVarOutOfRange(name);
}

}  // namespace

void PageReader::logToSdkLogger(int line, const char* function, const std::string& message) {
    Logger::GetInstance().AddToQueue(Logger::kConfigError, kLoggerSourceFile, line, function,
                                     message);
}

bool PageReader::extractValue(const VarInfo& var, uint8_t cmd, const std::vector<uint8_t>& output,
                              std::vector<uint8_t>& value) {
    std::pair<int, int> pos;
    if (!catalogue_.resolveVarPosOffset(var, static_cast<int>(output.size()), pos)) {
        messages_.log("get <start_pos, offset> failed!", LogLevel::kError);
        return false;
    }
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    const bool extracted =
        client ? client->GetClient().GetValFromOutput(cmd, 0, output, pos.first, pos.second, value)
               : copyValueFromOutput(output, pos.first, pos.second, value);
    if (!extracted) messages_.log("get var pos offset failed!", LogLevel::kError);
    return extracted;
}

void PageReader::updateSingleVarFromOutput(VarInfo& var, uint8_t cmd,
                                           const std::vector<uint8_t>& output,
                                           std::vector<uint8_t>& value, bool update) {
    if (catalogue_.parser() == nullptr) return;
    if (output.empty()) {
        throw std::runtime_error(std::string("updateSingleVarFromOutput") +
                                 "(): Error with the input 'output'");
    }
    if (var.offset == 0) {
        throw std::runtime_error(std::string("updateSingleVarFromOutput") +
                                 "(): Error with the input var_info");
    }

    if (!extractValue(var, cmd, output, value) || !update) return;

    // The text is computed first and stored under the lock, so readers never see half a text.
    const DecodedText decoded = decodeText(var, value);
    if (!decoded.loggerProblem.empty())
        logToSdkLogger(__LINE__, Q_FUNC_INFO, decoded.loggerProblem);
    if (!decoded.developerProblem.empty())
        developer_log::writeDeveloperLine(decoded.developerProblem);
    if (!decoded.text) return;
    const std::string& text = *decoded.text;
    catalogue_.storeCurrentValue(var, text);
}

bool LidarUtilitiesManager::CheckVarIsWithinRange(QString key, QString searchType) {
    const VarInfo* var = searchVarPtr(key.toStdString(), searchType.toStdString());
    if (var == nullptr) {
        // An unknown variable must not block a write on its own.
        developer_log::writeDeveloperLine(
            "CheckVarIsWithinRange Can't find this var info for range check. var_info = " +
            key.toStdString());
        return true;
    }
    std::string staged;
    {
        const auto lock = catalogue_->lockVariables();
        staged = var->current_val;
    }
    return textWithinLimits(*var, staged);
}

namespace {

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

}  // namespace

std::optional<std::string> LidarUtilitiesManager::valueText(const VarInfo& var,
                                                            const std::vector<uint8_t>& bytes) {
    return decodeText(var, bytes).text;
}

bool LidarUtilitiesManager::textWithinLimits(const VarInfo& var, const std::string& text) {
    if (!limitsApply(var)) return true;
    // The text is read exactly, as the writer reads it, and compared exactly after the range
    // scale: a check and an encoding that disagree would let a value past the limits.
    const LimitCheck verdict =
        checkDecimalWithinLimits(text, var.range_scale, var.min_val, var.max_val,
                                 std::numeric_limits<float>::max(), encodesInteger(var.var_type));
    if (verdict == LimitCheck::kNotANumber || verdict == LimitCheck::kBeyondConversion) {
        developer_log::writeDeveloperLine(
            std::string("CheckVarIsWithinRange") +
            (verdict == LimitCheck::kNotANumber ? " Invalid argument: " : " Out of range: ") +
            "stof");
        return false;
    }
    return verdict == LimitCheck::kWithin;
}

QString LidarUtilitiesManager::writeProblem(const VarInfo& row) {
    const QString name = qs(row.var_name);
    const VarInfo* target = writtenVariable(row);
    if (target == nullptr || target->set_cmd.empty()) return name + " cannot be written";
    if (row.permission == 0 || target->permission == 0)
        return name + " is read-only: the lidar reports it, it is not a setting";
    return QString();
}

const VarInfo* LidarUtilitiesManager::writtenVariable(const VarInfo& row) {
    return row.type == 2 ? row.switch_var : &row;
}

VarInfo* LidarUtilitiesManager::writtenVariable(VarInfo& row) {
    return row.type == 2 ? row.switch_var : &row;
}

QString LidarUtilitiesManager::encodingProblem(const VarInfo& var, const QString& value) {
    const QString name = qs(var.var_name);
    // Write-only raw commands (restart, reset, upgrade) are device operations, not settings.
    if (var.var_type == "raw") return name + " is a device operation, not a setting";
    std::unique_ptr<StrParser> parser = parserForVarType(var.var_type);
    if (!parser) return name + ": values of type " + qs(var.var_type) + " cannot be written";
    try {
        parser->parse(value.toStdString(), var.scale);
    } catch (const std::exception& e) {
        const QString refusal = name + ": '" + value + "' is not accepted (" + e.what() + ")";
        const std::string range = typeRangeIfOutside(var.var_type, value.toStdString(), var.scale);
        if (range.empty()) return refusal;
        return refusal + "; it is beyond what a " + qs(var.var_type) + " holds: " + qs(range);
    }
    // The writer truncates a fraction toward zero, as designed; a person who types 1.5 for a
    // port made a mistake, so the text is refused rather than written as 1.
    const std::string step = stepIfFractionCut(var.var_type, value.toStdString(), var.scale);
    if (step.empty()) return QString();
    const QString kept =
        step == "1" ? QString("whole numbers") : "whole steps of " + qs(step) + " (its scale)";
    return name + ": '" + value + "' has a fraction; a " + qs(var.var_type) + " holds " + kept +
           " and would be written cut toward zero";
}

QString LidarUtilitiesManager::limitsProblem(const VarInfo& var, const QString& value) {
    if (textWithinLimits(var, value.toStdString())) return QString();
    return qs(var.var_name) + " must be " + limitsText(var);
}

bool LidarUtilitiesManager::limitsApply(const VarInfo& var) {
    // Texts and variables without both limits are not range-checked, as designed.
    return var.var_type != "string" && var.min_val != 0 && var.max_val != 0;
}

QString LidarUtilitiesManager::variableLimits(int module, int page, int row) const {
    const VarInfo* var = catalogue_->variableAt(module, page, row);
    const VarInfo* target = var == nullptr ? nullptr : writtenVariable(*var);
    if (target == nullptr || !limitsApply(*target)) return QString();
    return limitsText(*target);
}

QString LidarUtilitiesManager::limitsText(const VarInfo& var) {
    return QString::number(var.min_val) + " to " + QString::number(var.max_val);
}

QString LidarUtilitiesManager::checkVariableText(int module, int page, int row, QString text) {
    const VarInfo* var = catalogue_->variableAt(module, page, row);
    if (var == nullptr)
        return "no variable at module " + QString::number(module) + ", page " +
               QString::number(page) + ", row " + QString::number(row);
    if (QString problem = writeProblem(*var); !problem.isEmpty()) return problem;
    const VarInfo& target = *writtenVariable(*var);
    if (QString problem = encodingProblem(target, text); !problem.isEmpty()) return problem;
    return limitsProblem(target, text);
}

bool LidarUtilitiesManager::CheckModuleVarsWithinRange(int module) {
    if (catalogue_->variableTree() == nullptr || module < 0 ||
        module >= static_cast<int>(catalogue_->variableTree()->size())) {
        return true;
    }
    // Every variable is checked, so that the user sees all failures at once.
    bool allWithinRange = true;
    for (const std::vector<VarInfo*>& page : (*catalogue_->variableTree())[module]) {
        for (const VarInfo* var : page) {
            if (var->permission == 0) continue;
            std::string staged;
            {
                const auto lock = catalogue_->lockVariables();
                staged = var->current_val;
            }
            const StagedVerdict verdict = checkStagedText(*var, staged);
            if (verdict == StagedVerdict::kPass) continue;
            allWithinRange = false;
            reportStagedValueRejected(*this, *var, staged, verdict);
        }
    }
    return allWithinRange;
}
