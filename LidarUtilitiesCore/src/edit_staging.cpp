// The edit staging (edit_staging.h): staging the user's edits and applying the staged set
// commands of one page to the lidar.

#include "edit_staging.h"

#include <QStringList>
#include <QThread>
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
#include "field_of_view.h"
#include "lidar_utilities_manager.h"
#include "parameter_catalogue.h"
#include "sdk/serial_client.h"
#include "sdk/text_fields.h"
#include "sdk/vrc_client.h"
#include "set_channel.h"
#include "value_parsers.h"

namespace {

// Texts the user sees, kept whole so they can be found as written.
// clang-format off
const char* const kSetWithoutGetMessage = "There are undefined cases in the csv config file where there is a line with 'set' and no 'get', but the var_type is not 'raw'.";
const char* const kNetworkSetNote = "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the lidar for it to work.";
// clang-format on

const std::string kNetworkSetCmd = "0x21";
const std::string kFovSetCmd = "0x22";

using BytesByName = CatalogueEditView::BytesByName;
using VarGroup = std::vector<VarInfo*>;

// The set commands of one page that have staged edits, in the order they are sent.
struct SetCommandPlan {
    std::map<std::string, VarGroup> groups;
    std::vector<std::string> sendList;
};

SetCommandPlan planStagedCommands(const CatalogueEditView::VarGroups& page,
                                  const std::map<std::string, bool>& setMap,
                                  const CatalogueEditView& catalogue) {
    SetCommandPlan plan;
    bool networkStaged = false;
    for (const auto& group : page) {
        for (const VarInfo* var : group) {
            const std::string& setCmd = var->set_cmd;
            if (setCmd.empty() || setMap.count(setCmd) == 0 || plan.groups.count(setCmd) != 0) {
                continue;
            }
            // A command carries every field of its payload, not only the edited ones.
            plan.groups[setCmd] = catalogue.variablesOfSetCommand(setCmd);
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
    struct Parts {
        DeviceLinkView& link;
        CatalogueEditView& catalogue;
        GroupReadBack& reads;
        UserMessageSink& messages;
    };

    using StagedBytes = std::map<const VarInfo*, std::vector<uint8_t>>;

    StagedCommandSender(const Parts& parts, SetChannel channel,
                        const std::set<const VarInfo*>& typed, const StagedBytes& stagedBytes,
                        EditStaging::FovBounds fovTable)
        : link_(parts.link),
          catalogue_(parts.catalogue),
          reads_(parts.reads),
          messages_(parts.messages),
          channel_(std::move(channel)),
          typed_(typed),
          stagedBytes_(stagedBytes),
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
            reads_.readBack(group, bytes_);
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
                messages_.showError(kSetWithoutGetMessage);
                return false;
            }
            EditStaging::writeSubCmdIntoInput(valueOf(var), payload);
        }
        return true;
    }

    // Only what the user typed is encoded from text, and bytes staged as bytes go as they are.
    // Every other field goes out with exactly the bytes the lidar just returned: its display text
    // is rounded and would move the value.
    void encodeValues(const VarGroup& group) {
        for (const VarInfo* var : group) {
            if (const auto staged = stagedBytes_.find(var); staged != stagedBytes_.end()) {
                bytes_[var->var_name] = staged->second;
                continue;
            }
            if (!var->get_cmd.empty() && typed_.count(var) == 0) {
                keepReadBackBytes(*var);
                continue;
            }
            const std::string value = valueOf(var);
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
            messages_.log("SET [" + command_ + "] FAILED", LogLevel::kWarning);
            throw std::runtime_error("set channel fov failed");
        }
    }

    void sendPayload(const std::string& setCmd, uint8_t command, const u8Array_t& payload,
                     const std::string& names) {
        developer_log::writeDeveloperLine("Run(): QueryCommand send cmd:    " + setCmd);
        developer_log::writeDeveloperLine("Run(): QueryCommand send payload:" + hexText(payload) +
                                          ", length =" + std::to_string(payload.size()));
        messages_.log(
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
            messages_.log("SET [" + setCmd + "] FAILED", LogLevel::kWarning);
            throw std::runtime_error(setCmd + " SET " + names +
                                     " ret_code: " + std::to_string(channel_.lastCode()));
        }
        developer_log::writeDeveloperLine("Run(): QueryCommand SUCCESS, get result =" +
                                          std::to_string(ret));
        reportSuccess(setCmd, names);
    }

    void reportSuccess(const std::string& setCmd, const std::string& names) {
        if (setCmd != kNetworkSetCmd || !channel_.networkSetClosesConnection) {
            messages_.showSuccess(QString::fromStdString(channel_.protocol + " command [" + setCmd +
                                                         "] to set " + names + " success."));
            return;
        }
        messages_.showSuccess(kNetworkSetNote);
        link_.stopLink();
    }

    void reportFailure(const std::string& detail) {
        developer_log::writeDeveloperLine("Run(): Caught Exception: " + detail);
        messages_.showError(QString::fromStdString("Set Failed: " + detail));
        messages_.log("Set " + command_ + " Failed. " +
                          (commandSent_ ? "Command was sent." : "No command was sent.") +
                          " Detail: " + detail,
                      LogLevel::kWarning);
    }

    std::string valueOf(const VarInfo* var) const { return catalogue_.currentValue(*var); }

    DeviceLinkView& link_;
    CatalogueEditView& catalogue_;
    GroupReadBack& reads_;
    UserMessageSink& messages_;
    SetChannel channel_;
    const std::set<const VarInfo*>& typed_;
    const StagedBytes& stagedBytes_;
    EditStaging::FovBounds fovTable_;
    BytesByName bytes_;
    std::string command_;
    bool commandSent_ = false;
};

}  // namespace

EditStaging::EditStaging(DeviceLinkView& link, const BusyView& busy, CatalogueEditView& catalogue,
                         GroupReadBack& reads, UserMessageSink& messages)
    : link_(link), busy_(busy), catalogue_(catalogue), reads_(reads), messages_(messages) {}

// ---- Staging ----

void EditStaging::setText(int type, int page, int group, int row, const QString& text) {
    // The UI only passes rows it shows; anything else is a stale index, not a reason to crash.
    VarInfo* var = catalogue_.variableAt(page, group, row);
    if (var == nullptr) return;
    const std::string value = text.toStdString();
    switch (type) {
        case 1:
            stageTyped(var, value);
            return;
        case 2:
            stageLinked(var, value);
            return;
        case 3:
            stageOption(var, value);
            return;
        default:
            messages_.log("Invalid switch value of type , please check the config file! name: " +
                              var->var_name,
                          LogLevel::kError);
            return;
    }
}

void EditStaging::stageTyped(VarInfo* var, const std::string& value) {
    if (!catalogue_.replaceCurrentValue(*var, value)) return;
    record(var, var);
}

// The command is the linked variable's, while the edited row stays the user's row.
void EditStaging::stageLinked(VarInfo* var, const std::string& value) {
    VarInfo* linked = var->switch_var;
    if (linked == nullptr) {
        messages_.log(
            "config file error, Please check the configuration of type 2 of " + var->var_name,
            LogLevel::kError);
        return;
    }
    if (!catalogue_.replaceCurrentValue(*linked, value)) return;
    record(var, linked);
}

void EditStaging::stageOption(VarInfo* var, const std::string& value) {
    // A text that is not a number raises the conversion's error to the caller.
    const int choice = std::stoi(value, nullptr, 10);
    const int count =
        std::min(static_cast<int>(var->options.size()), static_cast<int>(var->option_num));
    if (choice < 0 || choice >= count) {
        messages_.log(
            "Invalid switch value of type 3, please check the config file! name: " + var->var_name,
            LogLevel::kError);
        return;
    }
    if (!catalogue_.replaceCurrentValue(*var, std::to_string(var->options[choice]))) return;
    record(var, var);
}

void EditStaging::record(VarInfo* edited, VarInfo* written) {
    std::lock_guard<std::mutex> lock(mutex_);
    setMap_[written->set_cmd] = true;
    editedVarMap_[edited] = true;
    typedVars_.insert(written);
}

void EditStaging::stageBytes(const VarInfo* var, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    setMap_[var->set_cmd] = true;
    stagedBytes_[var] = bytes;
}

void EditStaging::stageCommand(const std::string& setCmd) {
    std::lock_guard<std::mutex> lock(mutex_);
    setMap_[setCmd] = true;
}

unsigned long EditStaging::stagedCommandCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return setMap_.size();
}

size_t EditStaging::editedVarCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return editedVarMap_.size();
}

std::vector<std::string> EditStaging::stagedCommands() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> commands;
    for (const auto& entry : setMap_) commands.push_back(entry.first);
    return commands;
}

bool EditStaging::isEdited(const VarInfo* row) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return editedVarMap_.count(const_cast<VarInfo*>(row)) > 0;
}

void EditStaging::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    setMap_.clear();
    editedVarMap_.clear();
    typedVars_.clear();
    stagedBytes_.clear();
}

// A worker that stops the connection (the upgrade's outcome, its restart request) leaves the
// clearing to the owner thread's event loop, as the design does.
void EditStaging::clearOnOwnerThread() {
    if (QThread::currentThread() == thread()) {
        clear();
        return;
    }
    QMetaObject::invokeMethod(
        this, [this] { clear(); }, Qt::QueuedConnection);
}

// ---- Texts ----

void EditStaging::writeSubCmdIntoInput(const std::string& text, u8Array_t& out) {
    // Hexadecimal pairs; a "0x" or "0X" pair is a prefix, not a byte (ParseCommandCode refuses it,
    // as it refuses any pair that is not two hexadecimal digits).
    for (size_t i = 0; i + 1 < text.size(); i += 2) {
        const std::string pair = text.substr(i, 2);
        uint8_t byte = 0;
        if (lidar::text::ParseCommandCode(pair, byte)) out.push_back(byte);
    }
}

std::pair<std::string, std::string> EditStaging::twoCases(const QString& name) {
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

// ---- Applying ----

bool EditStaging::runOverVrc(int page, const FovBounds& fov) {
    if (!catalogue_.catalogueLoaded()) return false;
    std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!client || !client->IsOpen() || !link_.linkConnected()) {
        messages_.showError("Please connect to lidar first");
        return false;
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
    return apply(page, channel, fov);
}

bool EditStaging::runOverSerialLines(int page, const FovBounds& fov) {
    // The VRC-over-serial kind applies as the network kind does, over its VRC client.
    if (link_.connectionKind() != kSerialLinesKind) return runOverVrc(page, fov);
    if (!catalogue_.catalogueLoaded()) return false;
    std::shared_ptr<lidar::SerialClient> client = link_.serialClient();
    if (!client || !client->IsOpen() || !link_.linkConnected()) {
        messages_.showError("Please connect to lidar first");
        return false;
    }
    SetChannel channel;
    channel.protocol = "Serial";
    channel.query = [this](uint8_t command, const u8Array_t& payload, u8Array_t& reply) {
        return reads_.queryKindClient(command, payload, reply);
    };
    channel.lastCode = [client] { return client->GetLastReturnCode(); };
    return apply(page, channel, fov);
}

// Run's steps from the busy checks on, over the given client.
bool EditStaging::apply(int page, const SetChannel& channel, const FovBounds& fov) {
    if (busy_.upgrading()) {
        messages_.showError("Please wait for the lidar to upgrade completely");
        return false;
    }
    if (busy_.downloadingLog()) {
        messages_.showError("Please wait for the operation log to download completely");
        return false;
    }
    const std::optional<CatalogueEditView::VarGroups> groups = catalogue_.pageGroups(page);
    if (!groups) return false;

    std::map<std::string, bool> staged;
    std::set<const VarInfo*> typed;
    std::map<const VarInfo*, std::vector<uint8_t>> bytes;
    {
        // The staged commands are consumed whatever happens next.
        std::lock_guard<std::mutex> lock(mutex_);
        staged.swap(setMap_);
        typed = typedVars_;
        bytes.swap(stagedBytes_);
    }
    const SetCommandPlan plan = planStagedCommands(*groups, staged, catalogue_);
    StagedCommandSender sender({link_, catalogue_, reads_, messages_}, channel, typed, bytes, fov);
    const bool allSent = sender.sendAll(plan);
    // The typed values went with the staged commands, which are consumed either way.
    std::lock_guard<std::mutex> lock(mutex_);
    typedVars_.clear();
    if (allSent) editedVarMap_.clear();
    return allSent;
}

// ---- The façade's staging operations ----

void LidarUtilitiesManager::SetText(int type, int page, int group, int row, QString text) {
    staging_->setText(type, page, group, row, text);
}

unsigned long LidarUtilitiesManager::getSetMapSize() const {
    return staging_->stagedCommandCount();
}

size_t LidarUtilitiesManager::getEditedVarCount() const {
    return staging_->editedVarCount();
}

QStringList LidarUtilitiesManager::stagedSetCommands() const {
    QStringList commands;
    for (const std::string& command : staging_->stagedCommands())
        commands << QString::fromStdString(command);
    return commands;
}

bool LidarUtilitiesManager::isEditedRow(int module, int page, int row) const {
    const VarInfo* var = catalogue_->variableAt(module, page, row);
    return var != nullptr && staging_->isEdited(var);
}

void LidarUtilitiesManager::ClearSetMap() {
    staging_->clear();
}

void LidarUtilitiesManager::writeSubCmdIntoInput(std::string text, u8Array_t& out) {
    EditStaging::writeSubCmdIntoInput(text, out);
}

std::pair<std::string, std::string> LidarUtilitiesManager::getTwoCases(QString name) {
    return EditStaging::twoCases(name);
}

void LidarUtilitiesManager::Run(int page) {
    staging_->runOverVrc(page, fov_->bounds());
}

void LidarUtilitiesManager::WrenRun(int page) {
    staging_->runOverSerialLines(page, fov_->bounds());
}
