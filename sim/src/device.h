#pragma once

// What the simulated lidar does with one request, independent of sockets and threads: the fixed
// commands, the catalogue's get and set commands, and the authorisation rule.

#include <cstdint>
#include <limits>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "block_store.h"
#include "heron_state.h"
#include "sdk/vrc_frame.h"
#include "serial_device.h"
#include "upgrade_receiver.h"

namespace sim::detail {

// Per-connection state.
struct Session {
    bool authorised = false;
    UpgradeReceiver upgrade;
    size_t transferIndex = std::numeric_limits<size_t>::max();   // its entry in the device's list
    size_t componentIndex = std::numeric_limits<size_t>::max();  // a 0xC3 transfer's component
};

struct Reply {
    enum class After {
        kNothing,
        kCloseConnection,  // the connection ends after the reply (if any)
        kReboot,           // every connection ends and the device is unreachable for a while
    };
    bool send = true;
    uint8_t status = lidar::vrc::kStatusOk;
    Bytes payload;
    After after = After::kNothing;
};

class Device {
  public:
    // Finds and parses the model's catalogue under configDir/varID; false with a reason.
    bool Load(const std::string& model, const std::string& configDir, std::string* error);
    void SetRequiredToken(std::string token) { requiredToken_ = std::move(token); }
    void SetLogBytes(size_t bytes) { logBytes_ = bytes; }
    // Chooses the curves of the live monitor readings; set before Load.
    void SetMonitorSeed(uint32_t seed) { monitorSeed_ = seed; }
    // Gives the device the serial number and MAC address of lidar `index` of several (identity.h)
    // instead of the catalogue's; -1 keeps the catalogue's. Set before Load.
    void SetIdentityIndex(int index) { identityIndex_ = index; }

    Reply Handle(const lidar::vrc::Frame& request, Session& session);
    // Work that follows a reply, while the request's bytes still exist.
    void AfterReply(Session& session);

    BlockStore& Blocks() { return blocks_; }
    const BlockStore& Blocks() const { return blocks_; }
    const std::string& CataloguePath() const { return cataloguePath_; }
    // The serial command set (the UART line of a serial model, 0xB2-0xB5 and 0xB8 of the
    // VRC-over-serial models).
    SerialDevice& Serial() { return serial_; }
    const SerialDevice& Serial() const { return serial_; }
    std::vector<Transfer> Transfers() const;
    // A component (0xC3) refused at its begin phase with `status` joins the transfers, so that
    // the report shows what was offered and refused; other requests are not recorded.
    void RecordRefusedComponent(uint8_t command, const Bytes& payload, uint8_t status);
    bool RebootPending() const;
    Bytes LogContent(const Bytes& request) const;
    HeronState& Heron() { return heron_; }
    const HeronState& Heron() const { return heron_; }

  private:
    bool IsRead(uint8_t command, const Bytes& payload) const;
    bool ReachedOverSerialLine() const;

    Reply ServeFixedBlock(uint8_t command, const Bytes& payload);
    Reply Reboot(bool restoreDefaults);
    Reply SetDestination(const Bytes& payload);
    Reply SetNetwork(const Bytes& payload);
    Reply SetFieldOfView(const Bytes& payload);
    Reply ConfigurationFile() const;
    Reply ReadLog(const Bytes& payload);
    Reply ProbeAuthorisation(const Session& session) const;
    Reply Authorise(const Bytes& payload, Session& session) const;
    Reply GetBaudRate();
    Reply SetBaudRate(const Bytes& payload);
    Reply Upgrade(uint8_t command, const Bytes& payload, size_t beginExtraBytes, Session& session);
    void RecordTransfer(uint8_t command, bool begun, Session& session);
    Reply SerialPassThrough(const Bytes& payload);
    Reply SerialCommand(uint8_t code, const Bytes& payload);
    Bytes GenerateLog(const Bytes& request) const;
    Reply CatalogueCommand(uint8_t command, const Bytes& payload);
    // Handle's commands whose answer depends on how the device is reached (VRC over a serial
    // line) or on the model (Heron), and the catalogue's own commands.
    Reply HandleByConnectionOrModel(uint8_t command, const Bytes& payload, Session& session);
    // Heron-VRC (device_heron.cpp).
    bool IsHeron() const;
    Reply EnterUpgradeMode();
    Reply SetImuRange(const Bytes& payload);
    // A component's begin phase names a type the device does not have.
    bool RefusesComponent(uint8_t command, const Bytes& payload) const;
    void RecordComponent(uint8_t command, const Bytes& payload, uint8_t status, Session& session);
    void KeepComponentChunk(const Session& session);

    std::string model_;
    std::string cataloguePath_;
    std::string requiredToken_;
    BlockStore blocks_;
    SerialDevice serial_{blocks_};
    size_t logBytes_ = 4096;
    uint32_t monitorSeed_ = 1;
    int identityIndex_ = -1;

    // Shared by the connections' threads.
    mutable std::mutex stateMutex_;
    std::vector<Transfer> transfers_;
    bool rebootPending_ = false;
    mutable std::map<Bytes, Bytes> logCache_;
    HeronState heron_;
};

}  // namespace sim::detail
