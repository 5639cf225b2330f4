#include <exception>
#include <fstream>
#include <vector>

#include "sdk/auth_config.h"
#include "sdk/csv_table.h"
#include "sdk/logger.h"
#include "sdk/text_fields.h"

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

void ReadCommandList(const std::string& path, int line, const std::string& list,
                     AuthConfig& config) {
    config.allowAll = false;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find('|', start);
        if (end == std::string::npos) end = list.size();
        const std::string item = Trim(list.substr(start, end - start));
        uint8_t code = 0;
        // Hexadecimal, "0x" optional, as in the catalogues: "21" is 0x21.
        if (lidar::text::ParseCommandCode(item, code)) {
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
