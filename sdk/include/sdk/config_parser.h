#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "sdk/var_info.h"

namespace csv {
class CSVReader;
}

// Reads a lidar model's catalogue (see docs/catalogue-format.md) into a module/page/variable tree.
class ConfigParser {
  public:
    explicit ConfigParser(std::string path);  // remembers the path; parses nothing yet
    ConfigParser(ConfigParser&&) noexcept;
    ConfigParser& operator=(ConfigParser&&) noexcept;
    ConfigParser(const ConfigParser&) = delete;
    ConfigParser& operator=(const ConfigParser&) = delete;
    ~ConfigParser();

    // Parses the file. Malformed rows are reported through Logger (file and line) and skipped.
    // False when the file cannot be read; the catalogue is then empty.
    bool ExtractConfigInfo();

    const std::string& GetConfigPath() const { return configPath_; }
    VarInfo* GetVarInfoByName(const std::string& name) const;
    VarInfo* GetVarInfoByVarID(const std::string& varId) const;
    // Where the variable lies in a reply of get_cmd: true with (start, length) when the variable
    // exists, is read by get_cmd, has a length, and (for replySize >= 0) fits in replySize bytes.
    bool GetVarPosOffset(const std::string& get_cmd, const std::string& var_id, int replySize,
                         std::pair<int, int>& out) const;
    // Every variable written by set_cmd, in catalogue order (empty when none).
    const std::vector<VarInfo*>& GetVarInfosBySetCmd(const std::string& set_cmd) const;
    // Every variable in catalogue order.
    const std::vector<std::unique_ptr<VarInfo>>& AllVars() const { return vars_; }
    // Rows rejected by the last ExtractConfigInfo.
    int RejectedRowCount() const { return rejectedRows_; }

    // Per module: its name, then its page names in page order (parallel to varTree).
    std::vector<std::vector<std::string>> moduleNames;
    // Module -> page -> variables, in catalogue order.
    std::vector<std::vector<std::vector<VarInfo*>>> varTree;
    // Variables offered in the command/log list.
    std::vector<VarInfo*> logVars;

  private:
    struct Candidate;
    class RowView;

    void Clear();
    void Report(int level, int line, const std::string& message);
    void RejectRow(int line, const std::string& reason);
    void ReadCandidate(const RowView& view, int line, std::vector<Candidate>& candidates,
                       std::unordered_map<std::string_view, VarInfo*>& byId);
    static Candidate ReadRow(const RowView& view);
    void ResolveSwitchVars(std::vector<Candidate>& candidates,
                           std::unordered_map<std::string_view, VarInfo*>& byId);
    void BuildCatalogue(std::vector<Candidate>& candidates);
    void WarnAboutLengthAndLimits(const VarInfo& var, int line);
    void WarnAboutVarType(const VarInfo& var, int line);
    void WarnAboutSetGroup(const std::vector<VarInfo*>& group, const VarInfo& var,
                           int32_t payloadEnd, int line,
                           std::unordered_set<std::string>& gapReported);

    std::string configPath_;
    std::vector<std::unique_ptr<VarInfo>> vars_;
    // Keyed by views of the variables' own texts, which never change once a catalogue is loaded
    // (the records live in vars_ and do not move).
    std::unordered_map<std::string_view, VarInfo*> byName_;
    std::unordered_map<std::string_view, VarInfo*> byId_;
    std::unordered_map<std::string, std::vector<VarInfo*>> bySetCmd_;
    int rejectedRows_ = 0;
};
