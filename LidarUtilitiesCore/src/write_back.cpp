// Settings write-back: staging the user's edits (SetText) and applying the staged set commands of
// one page to the lidar (Run).

#include <QStringList>
#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "command_text.h"
#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "sdk/text_fields.h"
#include "sdk/vrc_client.h"
#include "set_channel.h"
#include "value_parsers.h"

namespace {

using LogLevel = LidarUtilitiesManager::LogLevel;

// Texts the user sees, kept whole so they can be found as written.
// clang-format off
const char* const kSetWithoutGetMessage = "There are undefined cases in the csv config file where there is a line with 'set' and no 'get', but the var_type is not 'raw'.";
const char* const kNetworkSetNote = "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the lidar for it to work.";
// clang-format on

const std::string kNetworkSetCmd = "0x21";
const std::string kFovSetCmd = "0x22";

using BytesByName = std::unordered_map<std::string, std::vector<uint8_t>>;
using VarGroup = std::vector<VarInfo*>;

// The set commands of one page that have staged edits, in the order they are sent.
struct SetCommandPlan {
    std::map<std::string, VarGroup> groups;
    std::vector<std::string> sendList;
};

SetCommandPlan planStagedCommands(const std::vector<std::vector<VarInfo*>>& page,
                                  const std::map<std::string, bool>& setMap,
                                  const ConfigParser& parser) {
    SetCommandPlan plan;
    bool networkStaged = false;
    for (const auto& group : page) {
        for (const VarInfo* var : group) {
            const std::string& setCmd = var->set_cmd;
            if (setCmd.empty() || setMap.count(setCmd) == 0 || plan.groups.count(setCmd) != 0) {
                continue;
            }
            // A command carries every field of its payload, not only the edited ones.
            plan.groups[setCmd] = parser.GetVarInfosBySetCmd(setCmd);
            if (setCmd == kNetworkSetCmd) {
                networkStaged = true;
            } else {
                plan.sendList.push_back(setCmd);
            }
        }
    }
    // The network command makes the lidar drop the connection, so it must go last.
    if (networkStaged) plan.sendList.push_back(kNetworkSetCmd);
    return plan;
}

// The read requests that bring back what the planned commands carry, one group per request.
std::vector<VarGroup> groupByReadRequest(const SetCommandPlan& plan) {
    std::vector<std::string> order;
    std::map<std::string, VarGroup> byRequest;
    for (const std::string& setCmd : plan.sendList) {
        for (VarInfo* var : plan.groups.at(setCmd)) {
            if (var->get_cmd.empty()) continue;
            const std::string key = readRequestKey(*var);
            if (byRequest.count(key) == 0) order.push_back(key);
            byRequest[key].push_back(var);
        }
    }
    std::vector<VarGroup> result;
    for (const std::string& key : order) result.push_back(byRequest[key]);
    return result;
}

// Every name is followed by ", ", the last one too: the messages append " success." directly.
std::string namesOf(const VarGroup& group) {
    std::string names;
    for (const VarInfo* var : group) names += var->var_name + ", ";
    return names;
}

std::string hexText(const std::vector<uint8_t>& bytes) {
    std::string text;
    char pair[4];
    for (size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(pair, sizeof(pair), i == 0 ? "%02X" : " %02X", bytes[i]);
        text += pair;
    }
    return text;
}

// Sends the planned set commands one after the other; the first failure ends the run.
class StagedCommandSender {
  public:
    using ValueReader = std::function<std::string(const VarInfo*)>;

    StagedCommandSender(LidarUtilitiesManager& manager, SetChannel channel, ValueReader valueOf,
                        const std::set<const VarInfo*>& typed, std::array<float, 10> fovTable)
        : manager_(manager),
          channel_(std::move(channel)),
          valueOf_(std::move(valueOf)),
          typed_(typed),
          fovTable_(fovTable) {}

    // True when every command of the plan was handled without failure.
    bool sendAll(const SetCommandPlan& plan) {
        try {
            readBack(plan);
            for (const std::string& setCmd : plan.sendList) {
                command_ = setCmd;
                if (!sendOne(setCmd, plan.groups.at(setCmd))) return false;
            }
            return true;
        } catch (const std::exception& e) {
            reportFailure(e.what());
            return false;
        }
    }

  private:
    // Leaves in bytes_ what the lidar holds now; the user's texts stay in current_val.
    void readBack(const SetCommandPlan& plan) {
        for (VarGroup& group : groupByReadRequest(plan)) {
            manager_.GetInfoFromLidarWithSameCmd(group, &bytes_, false);
        }
    }

    // False after a configuration fault that has been shown; throws on any other failure.
    bool sendOne(const std::string& setCmd, const VarGroup& group) {
        u8Array_t payload;
        uint8_t command = 0;
        if (!commandRequestOf(setCmd, command, payload))
            throw std::runtime_error("Not a command code: " + setCmd);
        if (!appendRawValues(group, payload)) return false;
        encodeValues(group);
        for (const VarInfo* var : group) {
            const auto& bytes = bytes_[var->var_name];
            payload.insert(payload.end(), bytes.begin(), bytes.end());
        }
        if (setCmd == kFovSetCmd) {
            sendFov(group);
            return true;
        }
        sendPayload(setCmd, command, payload, namesOf(group));
        return true;
    }

    // Write-only variables carry their hex digits straight into the payload.
    bool appendRawValues(const VarGroup& group, u8Array_t& payload) {
        for (const VarInfo* var : group) {
            if (!var->get_cmd.empty()) continue;
            if (var->var_type != "raw") {
                manager_.showErrorMessage(kSetWithoutGetMessage);
                return false;
            }
            LidarUtilitiesManager::writeSubCmdIntoInput(valueOf_(var), payload);
        }
        return true;
    }

    // Only what the user typed is encoded from text. Every other field goes out with exactly the
    // bytes the lidar just returned: its display text is rounded and would move the value.
    void encodeValues(const VarGroup& group) {
        for (const VarInfo* var : group) {
            if (!var->get_cmd.empty() && typed_.count(var) == 0) {
                keepReadBackBytes(*var);
                continue;
            }
            const std::string value = valueOf_(var);
            if (value.empty()) {
                throw std::runtime_error(
                    "Unknown error with this var: It has no current_val. var_name = " +
                    var->var_name);
            }
            std::unique_ptr<StrParser> parser = parserForVarType(var->var_type);
            if (!parser) {
                reportUnsupportedType(*var, value);
                throw std::runtime_error("Error with var type");
            }
            bytes_[var->var_name] = parser->parse(value, var->scale);
        }
    }

    void keepReadBackBytes(const VarInfo& var) {
        const auto found = bytes_.find(var.var_name);
        const bool usable =
            found != bytes_.end() && !found->second.empty() &&
            (var.offset <= 0 || found->second.size() == static_cast<size_t>(var.offset));
        if (!usable) {
            throw std::runtime_error(
                "Could not read back the value this command carries unchanged. var_name = " +
                var.var_name);
        }
    }

    void reportUnsupportedType(const VarInfo& var, const std::string& value) {
        developer_log::writeDeveloperLine("DEBUG(): not support the format is " + var.var_type);
        developer_log::writeDeveloperLine("Run(): This var_type\"" + var.var_type +
                                          "\"is not supported currently.");
        developer_log::writeDeveloperLine("strParser == nullptr, var_name:" + var.var_name +
                                          ", var_type:" + var.var_type + ", current_val:" + value);
    }

    void sendFov(const VarGroup& group) {
        // The mode byte is the encoded value of the command's own variable.
        uint8_t mode = 0;
        if (!group.empty()) {
            const auto& bytes = bytes_[group.front()->var_name];
            if (!bytes.empty()) mode = bytes.front();
        }
        if (!channel_.setFov) throw std::runtime_error("set channel fov failed");
        const int ret = channel_.setFov(fovTable_.data(), 5, mode);
        commandSent_ = true;
        if (ret != 0) {
            manager_.writeLogMessage("SET [" + command_ + "] FAILED", LogLevel::kWarning);
            throw std::runtime_error("set channel fov failed");
        }
    }

    void sendPayload(const std::string& setCmd, uint8_t command, const u8Array_t& payload,
                     const std::string& names) {
        developer_log::writeDeveloperLine("Run(): QueryCommand send cmd:    " + setCmd);
        developer_log::writeDeveloperLine("Run(): QueryCommand send payload:" + hexText(payload) +
                                          ", length =" + std::to_string(payload.size()));
        manager_.writeLogMessage(
            "Send " + channel_.protocol + " command [" + setCmd + "] to set " + names + " success.",
            LogLevel::kInfo);
        u8Array_t reply;
        const int ret = channel_.query(command, payload, reply);
        commandSent_ = true;
        // The lidar applies the network settings and closes the connection instead of replying.
        const bool applied =
            ret == 0 || (setCmd == kNetworkSetCmd && channel_.networkSetClosesConnection &&
                         channel_.lastCode() == lidar::kVrcClosedByPeer);
        if (!applied) {
            developer_log::writeDeveloperLine("Run(): QueryCommand FAILED, get result =" +
                                              std::to_string(ret));
            manager_.writeLogMessage("SET [" + setCmd + "] FAILED", LogLevel::kWarning);
            throw std::runtime_error(setCmd + " SET " + names +
                                     " ret_code: " + std::to_string(channel_.lastCode()));
        }
        developer_log::writeDeveloperLine("Run(): QueryCommand SUCCESS, get result =" +
                                          std::to_string(ret));
        reportSuccess(setCmd, names);
    }

    void reportSuccess(const std::string& setCmd, const std::string& names) {
        if (setCmd != kNetworkSetCmd || !channel_.networkSetClosesConnection) {
            manager_.showSuccessMessage(QString::fromStdString(
                channel_.protocol + " command [" + setCmd + "] to set " + names + " success."));
            return;
        }
        manager_.showSuccessMessage(kNetworkSetNote);
        manager_.Stop();
    }

    void reportFailure(const std::string& detail) {
        developer_log::writeDeveloperLine("Run(): Caught Exception: " + detail);
        manager_.showErrorMessage(QString::fromStdString("Set Failed: " + detail));
        manager_.writeLogMessage("Set " + command_ + " Failed. " +
                                     (commandSent_ ? "Command was sent." : "No command was sent.") +
                                     " Detail: " + detail,
                                 LogLevel::kWarning);
    }

    LidarUtilitiesManager& manager_;
    SetChannel channel_;
    ValueReader valueOf_;
    const std::set<const VarInfo*>& typed_;
    std::array<float, 10> fovTable_;
    BytesByName bytes_;
    std::string command_;
    bool commandSent_ = false;
};

}  // namespace

void LidarUtilitiesManager::SetText(int type, int page, int group, int row, QString text) {
    if (varTree == nullptr) return;
    // The UI only passes rows it shows; anything else is a stale index, not a reason to crash.
    if (page < 0 || static_cast<size_t>(page) >= varTree.load()->size()) return;
    const auto& groups = (*varTree)[page];
    if (group < 0 || static_cast<size_t>(group) >= groups.size()) return;
    const auto& rows = groups[group];
    if (row < 0 || static_cast<size_t>(row) >= rows.size()) return;

    const std::string value = text.toStdString();
    VarInfo* var = rows[row];
    // Takes the new text unless it is already there; true when it changed.
    auto replaceValue = [this, &value](VarInfo* target) {
        std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
        if (target->current_val == value) return false;
        target->current_val = value;
        return true;
    };

    switch (type) {
        case 1:
            if (!replaceValue(var)) return;
            setMap[var->set_cmd] = true;
            editedVarMap[var] = true;
            typedVars_.insert(var);
            return;
        case 2: {
            VarInfo* linked = var->switch_var;
            if (linked == nullptr) {
                writeLogMessage("config file error, Please check the configuration of type 2 of " +
                                    var->var_name,
                                LogLevel::kError);
                return;
            }
            if (!replaceValue(linked)) return;
            // The command is the linked variable's, while the edited row stays the user's row.
            setMap[linked->set_cmd] = true;
            editedVarMap[var] = true;
            typedVars_.insert(linked);
            return;
        }
        case 3: {
            // A text that is not a number raises the conversion's error to the caller.
            const int choice = std::stoi(value, nullptr, 10);
            const int count =
                std::min(static_cast<int>(var->options.size()), static_cast<int>(var->option_num));
            if (choice < 0 || choice >= count) {
                writeLogMessage(
                    "Invalid switch value of type 3, please check the config file! name: " +
                        var->var_name,
                    LogLevel::kError);
                return;
            }
            const std::string optionText = std::to_string(var->options[choice]);
            {
                std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
                if (var->current_val == optionText) return;
                var->current_val = optionText;
            }
            setMap[var->set_cmd] = true;
            editedVarMap[var] = true;
            typedVars_.insert(var);
            return;
        }
        default:
            writeLogMessage("Invalid switch value of type , please check the config file! name: " +
                                var->var_name,
                            LogLevel::kError);
            return;
    }
}

unsigned long LidarUtilitiesManager::getSetMapSize() const {
    return setMap.size();
}

size_t LidarUtilitiesManager::getEditedVarCount() const {
    return editedVarMap.size();
}

void LidarUtilitiesManager::ClearSetMap() {
    setMap.clear();
    editedVarMap.clear();
    typedVars_.clear();
}

void LidarUtilitiesManager::writeSubCmdIntoInput(std::string text, u8Array_t& out) {
    // Hexadecimal pairs; a "0x" or "0X" pair is a prefix, not a byte (ParseCommandCode refuses it,
    // as it refuses any pair that is not two hexadecimal digits).
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        const std::string pair = text.substr(i, 2);
        uint8_t byte = 0;
        if (lidar::text::ParseCommandCode(pair, byte)) out.push_back(byte);
    }
}

std::pair<std::string, std::string> LidarUtilitiesManager::getTwoCases(QString name) {
    QString capitalised;
    QString lowered;
    const QStringList words = name.split(' ', Qt::SkipEmptyParts);
    for (const QString& word : words) {
        const QString rest = word.mid(1).toLower();
        capitalised += word.left(1).toUpper() + rest + ' ';
        lowered += word.left(1).toLower() + rest + ' ';
    }
    return {capitalised.trimmed().toStdString(), lowered.trimmed().toStdString()};
}

void LidarUtilitiesManager::Run(int page) {
    if (currentParser == nullptr || varTree == nullptr) return;
    std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!client || !client->IsOpen() || !getIsConnected()) {
        showErrorMessage("Please connect to lidar first");
        return;
    }
    SetChannel channel;
    channel.protocol = "VRC";
    channel.query = [client](uint8_t command, const u8Array_t& payload, u8Array_t& reply) {
        return client->QueryCommand(payload, reply, command, false);
    };
    channel.lastCode = [client] { return client->GetLastReturnCode(); };
    channel.setFov = [client](const float* values, int count, uint8_t mode) {
        return client->SetAllChannelFov(values, count, mode);
    };
    channel.networkSetClosesConnection = true;
    applyStagedEdits(page, channel);
}

void LidarUtilitiesManager::applyStagedEdits(int page, const SetChannel& channel) {
    if (isUpgrading.load()) {
        showErrorMessage("Please wait for the lidar to upgrade completely");
        return;
    }
    if (isDownloadLog.load()) {
        showErrorMessage("Please wait for the operation log to download completely");
        return;
    }
    if (page < 0 || static_cast<size_t>(page) >= varTree.load()->size()) return;

    SetCommandPlan plan = planStagedCommands((*varTree)[page], setMap, *currentParser);
    // The staged commands are consumed whatever happens next.
    setMap.clear();

    std::array<float, 10> fov;
    {
        std::lock_guard<std::mutex> lock(fieldsMutex_);
        fov = fovTable;
    }
    auto valueOf = [this](const VarInfo* var) {
        std::lock_guard<std::recursive_mutex> lock(catalogueMutex_);
        return var->current_val;
    };
    StagedCommandSender sender(*this, channel, valueOf, typedVars_, fov);
    const bool allSent = sender.sendAll(plan);
    // The typed values went with the staged commands, which are consumed either way.
    typedVars_.clear();
    if (allSent) editedVarMap.clear();
}
