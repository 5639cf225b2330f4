#include <charconv>
#include <exception>
#include <fstream>
#include <vector>

#include "sdk/auth_config.h"
#include "sdk/csv_table.h"
#include "sdk/logger.h"

namespace {

const char* const kFunction = "AuthConfigParser::Load";

void ReportProblem(const std::string& path, int line, const std::string& message) {
    Logger::GetInstance().AddToQueue(Logger::kConfigError, path, line, kFunction, message);
}

std::string Trim(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// "0x07" or "7"; false for anything that is not a byte value.
bool ParseCommandCode(const std::string& text, uint8_t& code) {
    std::string digits = text;
    int base = 10;
    if (digits.size() > 2 && digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) {
        digits = digits.substr(2);
        base = 16;
    }
    unsigned value = 0;
    const char* end = digits.data() + digits.size();
    const auto result = std::from_chars(digits.data(), end, value, base);
    if (digits.empty() || result.ec != std::errc() || result.ptr != end || value > 0xFF) {
        return false;
    }
    code = static_cast<uint8_t>(value);
    return true;
}

void ReadCommandList(const std::string& path, int line, const std::string& list,
                     AuthConfig& config) {
    config.allowAll = false;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find('|', start);
        if (end == std::string::npos) end = list.size();
        const std::string item = Trim(list.substr(start, end - start));
        uint8_t code = 0;
        if (ParseCommandCode(item, code)) {
            config.commands.insert(code);
        } else {
            ReportProblem(path, line,
                          "column \"commands\": \"" + item + "\" is not a command code; ignored");
        }
        start = end + 1;
    }
}

}  // namespace

AuthConfig AuthConfigParser::Load(const std::string& csvPath, const std::string& profile) {
    AuthConfig config;
    config.profile = profile;
    if (!std::ifstream(csvPath)) return config;
    try {
        const csv::CSVReader reader(csvPath);
        for (const csv::CSVRow& row : reader) {
            if (row["profile"] != profile) continue;
            const std::string commands = Trim(row["commands"]);
            if (row.HasColumn("token")) config.token = row["token"];
            if (commands != "*") ReadCommandList(csvPath, row.LineNumber(), commands, config);
            return config;
        }
    } catch (const std::exception& e) {
        // A file without the profile or commands column cannot restrict anything.
        ReportProblem(csvPath, 0, e.what());
        return AuthConfig{profile, true, {}, ""};
    }
    return config;
}
