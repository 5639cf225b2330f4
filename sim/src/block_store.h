#pragma once

// The simulated device's memory: one byte block per get request (command byte and request
// payload), filled from the catalogue's defaults, changed by set commands. Thread-safe: every
// connection thread reads and writes it.

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "block_key.h"
#include "monitor_signals.h"
#include "sdk/var_info.h"

namespace sim::detail {

constexpr uint8_t kDeviceInfoCommand = 0x07;
constexpr uint8_t kNetworkCommand = 0x08;
constexpr uint8_t kGetFovCommand = 0x23;
constexpr size_t kDeviceInfoMinSize = 88;
constexpr size_t kModelTextStart = 72;
constexpr size_t kModelTextLength = 16;
// 0-19 as the protocol fixes them, then the VLAN flag (20) and VLAN id (21-22) that 0x21 sets.
constexpr size_t kNetworkMinSize = 23;

class BlockStore {
  public:
    enum class SetResult { kNotASetCommand, kApplied, kPayloadTooShort };

    // Builds the blocks and set commands from the catalogue's variables; the model name becomes
    // the 0x07 model text when the catalogue leaves bytes 72-87 empty. `readOnlyExtras` (the
    // monitor variants) add blocks only for requests the catalogue itself does not answer.
    // `liveVars` (the monitor readings) change from read to read, as `seed` decides, also where
    // another page of the catalogue shows the same field (one sensor, two pages).
    // Never fails: variables whose command texts or positions are unusable are left out.
    void Build(const std::vector<const VarInfo*>& vars,
               const std::vector<const VarInfo*>& readOnlyExtras, const std::string& model,
               const std::vector<const VarInfo*>& liveVars = {}, uint32_t seed = 1);
    // Adds a block (also to the defaults) unless the catalogue already defines it.
    void EnsureBlock(uint8_t command, const Bytes& payload, const Bytes& block);
    void RestoreDefaults();
    // Gives the serial number (SN) and MAC address variables the identity of lidar `index`
    // (identity.h), in the blocks and in their defaults, which a reset returns to.
    void StampIdentity(const std::vector<const VarInfo*>& vars, int index);

    // True when (command, payload) names a catalogue block.
    bool HasBlock(uint8_t command, const Bytes& payload) const;
    // Serves a block: brings its live monitor fields to this reading, copies it into `out` and
    // then advances its timer fields; false when unknown.
    bool Serve(uint8_t command, const Bytes& payload, Bytes& out);
    // The block as it stands (empty when unknown); nothing advances.
    Bytes Peek(uint8_t command, const Bytes& payload) const;
    // Writes bytes at offset, growing (or creating) the block as needed; live monitor fields
    // written over keep the written value from then on.
    void Write(uint8_t command, const Bytes& payload, size_t offset, const Bytes& bytes);
    void Replace(uint8_t command, const Bytes& payload, const Bytes& block);

    // Applies a catalogue set command: each variable's bytes go into its get block.
    SetResult ApplySet(uint8_t command, const Bytes& payload);
    // The payload of a set command (without sub-command bytes) that would write what its get
    // blocks hold now: the reverse of ApplySet. False when the catalogue has no such command.
    bool ReadBack(uint8_t command, Bytes& payload) const;

  private:
    struct Field {
        BlockKey getKey;
        bool readable = false;
        size_t getStart = 0;
        size_t setStart = 0;
        size_t length = 0;
    };
    struct SetCommand {
        uint8_t command = 0;
        Bytes prefix;  // sub-command bytes of a 0xFF set command
        std::vector<Field> fields;
        size_t requiredLength = 0;  // prefix + the furthest variable end
    };
    struct TimerField {
        BlockKey key;
        size_t start = 0;
        size_t length = 0;
    };

    void AddGetVariable(const VarInfo& var, std::map<BlockKey, Bytes>& blocks);
    void AddSetVariable(const VarInfo& var);
    void FinishFixedBlocks(std::map<BlockKey, Bytes>& blocks, const std::string& model) const;
    void AdvanceTimers(const BlockKey& key, Bytes& block) const;
    void AddLiveVariables(const std::vector<const VarInfo*>& vars, uint32_t seed);
    const SetCommand* FindSetCommand(uint8_t command, const Bytes& payload) const;

    mutable std::mutex mutex_;
    std::map<BlockKey, Bytes> blocks_;
    std::map<BlockKey, Bytes> defaults_;
    std::vector<SetCommand> setCommands_;
    std::vector<TimerField> timerFields_;
    MonitorSignals live_;
    std::map<BlockKey, uint64_t> readings_;  // reads served per live block
};

// The field of view a device reports before anyone set it: mode 0, five full-circle regions.
Bytes DefaultFovBlock();

}  // namespace sim::detail
