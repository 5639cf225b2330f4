#include "block_store.h"

#include <algorithm>

#include "identity.h"
#include "value_codec.h"

namespace sim::detail {
namespace {

// A catalogue that places a variable further out than this is broken; the variable is left out
// rather than making every read of its block allocate a huge reply.
constexpr size_t kMaxBlockSize = 1u << 20;

bool PositionUsable(int32_t start, int32_t length) {
    return start >= 0 && length > 0 &&
           static_cast<size_t>(start) + static_cast<size_t>(length) <= kMaxBlockSize;
}

void PutBytes(Bytes& block, size_t offset, const Bytes& bytes) {
    if (block.size() < offset + bytes.size()) block.resize(offset + bytes.size(), 0);
    std::copy(bytes.begin(), bytes.end(), block.begin() + static_cast<std::ptrdiff_t>(offset));
}

bool AllZero(const Bytes& block, size_t start, size_t length) {
    return std::all_of(block.begin() + static_cast<std::ptrdiff_t>(start),
                       block.begin() + static_cast<std::ptrdiff_t>(start + length),
                       [](uint8_t b) { return b == 0; });
}

bool GetKeyOf(const VarInfo& var, BlockKey& key) {
    WireCommand wire;
    if (!ParseCommandText(var.get_cmd, wire)) return false;
    key.first = wire.command;
    key.second = wire.prefix;
    key.second.insert(key.second.end(), var.get_payload.begin(), var.get_payload.end());
    return true;
}

}  // namespace

Bytes DefaultFovBlock() {
    constexpr uint8_t kRegions = 5;
    constexpr uint16_t kFullCircleTenths = 3600;
    Bytes block = {0, kRegions};
    for (int i = 0; i < kRegions; ++i) {
        block.insert(block.end(), {0, 0, kFullCircleTenths >> 8, kFullCircleTenths & 0xFF});
    }
    return block;
}

void BlockStore::Build(const std::vector<const VarInfo*>& vars,
                       const std::vector<const VarInfo*>& readOnlyExtras, const std::string& model,
                       const std::vector<const VarInfo*>& liveVars, uint32_t seed) {
    std::map<BlockKey, Bytes> blocks;
    std::lock_guard<std::mutex> lock(mutex_);
    setCommands_.clear();
    timerFields_.clear();
    readings_.clear();
    AddLiveVariables(liveVars, seed);
    for (const VarInfo* var : vars) {
        if (!var->get_cmd.empty()) AddGetVariable(*var, blocks);
        if (!var->set_cmd.empty()) AddSetVariable(*var);
    }
    const std::map<BlockKey, Bytes> catalogueBlocks = blocks;
    for (const VarInfo* var : readOnlyExtras) {
        BlockKey key;
        if (GetKeyOf(*var, key) && catalogueBlocks.count(key) == 0) AddGetVariable(*var, blocks);
    }
    FinishFixedBlocks(blocks, model);
    defaults_ = blocks;
    blocks_ = std::move(blocks);
}

void BlockStore::AddLiveVariables(const std::vector<const VarInfo*>& vars, uint32_t seed) {
    live_.Clear();
    for (const VarInfo* var : vars) {
        BlockKey key;
        if (GetKeyOf(*var, key) && PositionUsable(var->get_start_pos, var->offset))
            live_.Add(key, *var, seed);
    }
}

void BlockStore::EnsureBlock(uint8_t command, const Bytes& payload, const Bytes& block) {
    std::lock_guard<std::mutex> lock(mutex_);
    const BlockKey key{command, payload};
    if (defaults_.count(key) == 0) defaults_[key] = block;
    if (blocks_.count(key) == 0) blocks_[key] = block;
}

void BlockStore::AddGetVariable(const VarInfo& var, std::map<BlockKey, Bytes>& blocks) {
    BlockKey key;
    if (!GetKeyOf(var, key) || !PositionUsable(var.get_start_pos, var.offset)) return;
    // The FOV block starts from the device's own default, so that the catalogue need not list
    // every region.
    auto inserted = blocks.emplace(
        key, key.first == kGetFovCommand && key.second.empty() ? DefaultFovBlock() : Bytes{});
    Bytes& block = inserted.first->second;
    const size_t start = static_cast<size_t>(var.get_start_pos);
    const size_t length = static_cast<size_t>(var.offset);
    if (block.size() < start + length) block.resize(start + length, 0);
    bool parsed = false;
    const Bytes value = EncodeDefaultValue(var, &parsed);
    // An empty default leaves what is there: zeros, or the fixed defaults of the FOV block.
    if (parsed) PutBytes(block, start, value);
    if (var.var_type == "DT" && var.timer_update) timerFields_.push_back({key, start, length});
}

void BlockStore::AddSetVariable(const VarInfo& var) {
    WireCommand wire;
    if (!ParseCommandText(var.set_cmd, wire)) return;
    auto it = std::find_if(setCommands_.begin(), setCommands_.end(), [&](const SetCommand& c) {
        return c.command == wire.command && c.prefix == wire.prefix;
    });
    if (it == setCommands_.end()) {
        setCommands_.push_back({wire.command, wire.prefix, {}, wire.prefix.size()});
        it = std::prev(setCommands_.end());
    }
    // A variable without length ("raw" actions such as a component restart) makes the command
    // known without carrying any field.
    if (var.offset == 0) return;
    if (!PositionUsable(var.set_start_pos, var.offset)) return;
    Field field;
    field.setStart = static_cast<size_t>(var.set_start_pos);
    field.length = static_cast<size_t>(var.offset);
    field.readable = GetKeyOf(var, field.getKey) && PositionUsable(var.get_start_pos, var.offset);
    field.getStart = field.readable ? static_cast<size_t>(var.get_start_pos) : 0;
    it->requiredLength =
        std::max(it->requiredLength, it->prefix.size() + field.setStart + field.length);
    it->fields.push_back(std::move(field));
}

void BlockStore::FinishFixedBlocks(std::map<BlockKey, Bytes>& blocks,
                                   const std::string& model) const {
    Bytes& info = blocks[{kDeviceInfoCommand, {}}];
    if (info.size() < kDeviceInfoMinSize) info.resize(kDeviceInfoMinSize, 0);
    if (AllZero(info, kModelTextStart, kModelTextLength)) {
        const std::string text = model.substr(0, kModelTextLength);
        PutBytes(info, kModelTextStart, Bytes(text.begin(), text.end()));
    }
    Bytes& network = blocks[{kNetworkCommand, {}}];
    if (network.size() < kNetworkMinSize) network.resize(kNetworkMinSize, 0);
    blocks.emplace(BlockKey{kGetFovCommand, {}}, DefaultFovBlock());
}

void BlockStore::StampIdentity(const std::vector<const VarInfo*>& vars, int index) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const VarInfo* var : vars) {
        VarInfo stamped = *var;
        if (var->var_type == "SN") {
            stamped.default_val = IndexedSerialNumber(var->default_val, index);
        } else if (var->var_type == "MAC") {
            stamped.default_val = IndexedMacAddress(var->default_val, index);
        } else {
            continue;
        }
        BlockKey key;
        bool parsed = false;
        const Bytes value = EncodeDefaultValue(stamped, &parsed);
        if (!parsed || !GetKeyOf(*var, key) || !PositionUsable(var->get_start_pos, var->offset)) {
            continue;
        }
        const size_t start = static_cast<size_t>(var->get_start_pos);
        PutBytes(blocks_[key], start, value);
        PutBytes(defaults_[key], start, value);
    }
}

void BlockStore::RestoreDefaults() {
    std::lock_guard<std::mutex> lock(mutex_);
    blocks_ = defaults_;
    readings_.clear();
}

bool BlockStore::HasBlock(uint8_t command, const Bytes& payload) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return blocks_.count({command, payload}) > 0;
}

bool BlockStore::Serve(uint8_t command, const Bytes& payload, Bytes& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    const BlockKey key{command, payload};
    auto it = blocks_.find(key);
    if (it == blocks_.end()) return false;
    if (live_.Drives(key)) live_.Apply(key, readings_[key]++, it->second);
    out = it->second;
    AdvanceTimers(key, it->second);
    return true;
}

// Uptime-like counters: each read sees one second more than the previous read did.
void BlockStore::AdvanceTimers(const BlockKey& key, Bytes& block) const {
    for (const TimerField& timer : timerFields_) {
        if (timer.key != key || block.size() < timer.start + timer.length) continue;
        for (size_t i = timer.start + timer.length; i-- > timer.start;) {
            if (++block[i] != 0) break;  // carry into the next more significant byte
        }
    }
}

Bytes BlockStore::Peek(uint8_t command, const Bytes& payload) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = blocks_.find({command, payload});
    return it == blocks_.end() ? Bytes{} : it->second;
}

void BlockStore::Write(uint8_t command, const Bytes& payload, size_t offset, const Bytes& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    live_.Release({command, payload}, offset, bytes.size());
    PutBytes(blocks_[{command, payload}], offset, bytes);
}

void BlockStore::Replace(uint8_t command, const Bytes& payload, const Bytes& block) {
    std::lock_guard<std::mutex> lock(mutex_);
    blocks_[{command, payload}] = block;
}

const BlockStore::SetCommand* BlockStore::FindSetCommand(uint8_t command,
                                                         const Bytes& payload) const {
    const SetCommand* best = nullptr;
    for (const SetCommand& candidate : setCommands_) {
        if (candidate.command != command || candidate.prefix.size() > payload.size()) continue;
        if (!std::equal(candidate.prefix.begin(), candidate.prefix.end(), payload.begin())) {
            continue;
        }
        if (!best || candidate.prefix.size() > best->prefix.size()) best = &candidate;
    }
    return best;
}

BlockStore::SetResult BlockStore::ApplySet(uint8_t command, const Bytes& payload) {
    std::lock_guard<std::mutex> lock(mutex_);
    const SetCommand* set = FindSetCommand(command, payload);
    if (!set) return SetResult::kNotASetCommand;
    if (payload.size() < set->requiredLength) return SetResult::kPayloadTooShort;
    const size_t base = set->prefix.size();
    for (const Field& field : set->fields) {
        if (!field.readable) continue;  // write-only ("raw") fields have nowhere to go
        const auto from = payload.begin() + static_cast<std::ptrdiff_t>(base + field.setStart);
        PutBytes(blocks_[field.getKey], field.getStart,
                 Bytes(from, from + static_cast<std::ptrdiff_t>(field.length)));
    }
    return SetResult::kApplied;
}

bool BlockStore::ReadBack(uint8_t command, Bytes& payload) const {
    std::lock_guard<std::mutex> lock(mutex_);
    const SetCommand* set = FindSetCommand(command, {});
    if (!set) return false;
    payload.assign(set->requiredLength, 0);
    for (const Field& field : set->fields) {
        auto block = blocks_.find(field.getKey);
        if (!field.readable || block == blocks_.end()) continue;
        for (size_t i = 0; i < field.length && field.getStart + i < block->second.size(); ++i) {
            payload[field.setStart + i] = block->second[field.getStart + i];
        }
    }
    return true;
}

}  // namespace sim::detail
