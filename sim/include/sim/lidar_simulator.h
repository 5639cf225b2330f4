#pragma once

// A simulated lidar that speaks VRC over TCP: catalogue-driven get and set blocks plus the fixed
// commands of docs/protocol.md. Tests start it in-process on an ephemeral port; lidar-sim wraps it.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace sim {

// A named fault mode applied to one command code.
struct Fault {
    enum class Kind {
        kNone,
        kNoReply,          // read the request, never answer
        kDelay,            // answer after delayMs
        kCloseMidReply,    // send part of the reply, then close the connection
        kBadMagic,         // reply with a wrong magic
        kOversizedLength,  // reply header announcing more than the protocol's limit
        kWrongEcho,        // reply carrying another command code
        kStatus,           // reply with status `status` and no payload
        kDrop,             // close the connection; the request is neither answered nor carried out
        // Transfers (0x83, 0xB7, 0xC3):
        kDropAfterChunks,  // close the connection, unanswered, on the data chunk after `count`
        kFailChunk,        // answer data chunk number `count` (from 1) with `status`
        kCrcMismatch,      // answer the end phase with status 1 (bad payload) whatever came
        // Serial line (sim::SerialLidarSimulator); on TCP these answer normally:
        kGarbageBeforeReply,  // noise (with a false start marker) before the reply
        kBadCrc,              // the reply with its CRC damaged
        // Component upgrades (0xC3), at their begin phase:
        kRefuseComponent,      // answer the `count`th component (from 1) since upgrade mode
                               // was entered (0xB6) or the device restarted with `status`
        kRefuseComponentType,  // answer every component of type `count` with `status`
    };
    Kind kind = Kind::kNone;
    int delayMs = 0;  // kDelay's wait; with any other kind, a wait before that fault acts
    uint8_t status = 0;
    int count = 0;

    // Parses a mode of FaultModes() with its value ("no-reply", "delay=500",
    // "refuse-component=2:5"); false for anything else.
    static bool Parse(const std::string& text, Fault& out);
    // Why Parse refuses `text`, in words ("delay needs =MS (0-600000), not 'abc'", "unknown fault
    // mode 'x'"); empty when it takes it.
    static std::string Problem(const std::string& text);
};

// One fault mode as lidar-sim's --fault and Fault::Parse take it. lidar-sim's help is made from
// FaultModes(), and a test checks docs/simulator.md against it: a new mode is one row there.
struct FaultMode {
    // What follows the name's "=" (a plain mode has nothing after its name).
    enum class Value {
        kNone,
        kMilliseconds,       // "MS", 0 to 10 minutes: delayMs
        kStatus,             // "N", 0-255: status
        kCount,              // "N", 0 to 999999999 (nine digits): count
        kPositionAndStatus,  // "N:STATUS", N from 1 to 999999999: count and status
        kTypeAndStatus,      // "T:STATUS", T 0-255: count and status
    };
    // The requests a mode is meant for (it may be set on any command).
    enum class Scope { kAnyCommand, kTransfers, kComponents, kSerialLine };

    const char* name;
    Value value;
    Fault::Kind kind;
    Scope scope;

    // The mode as the help and the docs write it: "delay=MS", "no-reply".
    std::string Syntax() const;
};

// Every fault mode, in the order lidar-sim's help lists them.
const std::vector<FaultMode>& FaultModes();

// Seeded random faults at low rates, for soak runs and tests: request number n (from 0, counted
// over every connection in the order they arrive) meets Draw(n), which depends on the seed and n
// alone, so that a run repeats. docs/simulator.md, "Chaos".
class Chaos {
  public:
    // Per 100 000 requests.
    static constexpr int kSlowRate = 2000;  // the reply kMinDelayMs to kMaxDelayMs late
    static constexpr int kBusyRate = 1500;  // status 4 (busy); the command is not carried out
    static constexpr int kCutRate = 500;    // half of the reply, then the connection closes
    static constexpr int kDropRate = 500;   // the connection closes, the request unanswered
    static constexpr int kMinDelayMs = 50;
    static constexpr int kMaxDelayMs = 2000;  // well inside the clients' receive time-outs

    explicit Chaos(uint32_t seed) : seed_(seed) {}
    // kNone for most requests; kDelay, kStatus (4), kCloseMidReply or kDrop for the others.
    Fault Draw(uint64_t request) const;

  private:
    uint32_t seed_;
};

// How many faults of each kind a chaos simulator has played.
struct ChaosTally {
    uint64_t slow = 0;
    uint64_t busy = 0;
    uint64_t cut = 0;
    uint64_t drop = 0;
};

// One firmware transfer as the device saw it: what it was told to expect and what it received.
struct Transfer {
    uint8_t command = 0;
    int beginByte = -1;  // upgrade mode (0xB7) or component type (0xC3); -1 for 0x83
    uint32_t announcedSize = 0;
    uint64_t receivedSize = 0;
    uint32_t receivedCrc = 0;  // CRC-32 of the received bytes, in order
    int chunks = 0;
    bool completed = false;     // the end phase matched size and CRC
    uint8_t refusedStatus = 0;  // a component refused at its begin phase: the status it got
};

// The Wren's serial-side state, one per simulated device, whichever way it is reached (the UART
// line, VRC 0xB2-0xB5, or serial frames passed through 0xB8).
struct SerialState {
    uint8_t standby = 0;
    uint8_t spinRate = 0;
    uint8_t returnMode = 0;
    uint8_t faultState = 0;            // 0 normal, 1 warning, 2 shutdown
    std::vector<uint16_t> faultCodes;  // sent little-endian after the state byte

    // "STATE" or "STATE:CODE,CODE..." (decimal state, hexadecimal codes, "0x" optional), as
    // lidar-sim's --fault-state takes it; false for anything else.
    static bool ParseFaultState(const std::string& text, SerialState& out);
};

// One component as a Heron-VRC received it (0xC3): its type, what the begin phase announced, its
// bytes in the order they arrived, and whether the end phase matched their size and CRC-32.
struct Component {
    uint8_t type = 0;
    uint32_t announcedSize = 0;
    std::vector<uint8_t> bytes;
    bool completed = false;
};

class LidarSimulator {
  public:
    struct Options {
        std::string model;                   // catalogue Config/varID/<model>/<model>.csv
        std::string configDir = "./Config";  // folder that holds varID/
        std::string bindAddress = "127.0.0.1";
        uint16_t port = 0;             // 0 picks a free port
        std::string requiredToken;     // non-empty: writes need 0xA1 with this token
        int restartDowntimeMs = 1500;  // unreachable time after 0x10 / 0x25
        size_t logBytes = 4096;        // size of every log that 0x75 serves
        uint32_t monitorSeed = 1;      // the curves the monitor readings follow
        char partition = 'A';          // application partition running at start: 'A' or 'B'
        // Set: random faults (Chaos) on every command that has no fault of its own.
        std::optional<uint32_t> chaosSeed;
        // 0-255: lidar number `identityIndex` of several served together, its serial number
        // ending in the index (three digits) and its MAC address's last byte the index, so that
        // each is told apart and keeps its identity from run to run; -1 the catalogue's identity.
        int identityIndex = -1;
    };

    explicit LidarSimulator(Options options);
    ~LidarSimulator();
    LidarSimulator(const LidarSimulator&) = delete;
    LidarSimulator& operator=(const LidarSimulator&) = delete;

    // Loads the catalogue and starts listening; false with a reason on failure.
    bool Start(std::string* error = nullptr);
    void Stop();
    uint16_t Port() const;
    const Options& GetOptions() const;

    // Requests received per command code since start (or the last ResetCounters).
    uint64_t RequestCount(uint8_t command) const;
    std::map<uint8_t, uint64_t> RequestCounts() const;
    void ResetCounters();

    void SetFault(uint8_t command, Fault fault);
    void ClearFaults();
    // The faults chaos has played since start (all zero without Options::chaosSeed).
    ChaosTally ChaosPlayed() const;

    // The block a get command (with its request payload) answers with; empty when unknown.
    std::vector<uint8_t> Block(uint8_t command, const std::vector<uint8_t>& payload = {}) const;
    // Overwrites bytes of a get block, for tests that need particular device values.
    void WriteBlock(uint8_t command, const std::vector<uint8_t>& payload, size_t offset,
                    const std::vector<uint8_t>& bytes);

    // Transfers begun since start, oldest first (every connection's).
    std::vector<Transfer> Transfers() const;
    // A transfer was completed and no restart (0x10) has come since.
    bool RebootPending() const;
    // What 0x75 answers for this request payload (log number, then the part's bytes).
    std::vector<uint8_t> LogContent(const std::vector<uint8_t>& request) const;

    // The serial-side state of the VRC-over-serial models (0xB0-0xB5, 0xB8), and the fault state
    // they report.
    SerialState GetSerialState() const;
    void SetSerialFaultState(uint8_t state, const std::vector<uint16_t>& codes);
    // Replaces a get block whole, for tests that need a reply of a particular length.
    void ReplaceBlock(uint8_t command, const std::vector<uint8_t>& payload,
                      const std::vector<uint8_t>& block);
    // Components received since start (0xC3), oldest first, with their bytes.
    std::vector<Component> Components() const;
    // The application partition running now, 'A' or 'B': a completed application component
    // (type 2) followed by a restart switches it.
    char RunningPartition() const;
    // Runs partition A (0) or B (any other byte) from now on; upgrade mode (0xB6) reports the byte
    // as it is, for a device that reports B as 2.
    void SetRunningPartitionByte(uint8_t partition);

    // Local port of the most recent client connection (to check local-port binding).
    uint16_t LastClientPort() const;
    // Connections accepted since start.
    int ConnectionCount() const;

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace sim
