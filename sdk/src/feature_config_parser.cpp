#include "sdk/feature_config_parser.h"

#include <exception>
#include <fstream>

#include "sdk/csv_table.h"
#include "sdk/logger.h"

namespace {

const char* const kFunction = "FeatureConfigParser::Load";

void ReportProblem(const std::string& path, int line, const std::string& message) {
    Logger::GetInstance().AddToQueue(Logger::kConfigError, path, line, kFunction, message);
}

}  // namespace

bool FeatureConfigParser::Load(const std::string& csvPath, const std::string& model) {
    // An absent file is normal (no model has special features): nothing to report.
    if (!std::ifstream(csvPath)) return false;
    try {
        const csv::CSVReader reader(csvPath);
        for (const csv::CSVRow& row : reader) {
            if (row["model"] != model) continue;
            const std::string& flag = row["vrc_client_host_port"];
            if (flag == "1" || flag == "true") return true;
            if (flag.empty() || flag == "0" || flag == "false") return false;
            ReportProblem(csvPath, row.LineNumber(),
                          "column \"vrc_client_host_port\": \"" + flag + "\" is not 0 or 1");
            return false;
        }
    } catch (const std::exception& e) {
        ReportProblem(csvPath, 0, e.what());
    }
    return false;
}
