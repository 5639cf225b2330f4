#pragma once

// What the simulated lidar does with one request, independent of sockets and threads: the fixed
// commands, the catalogue's get and set commands, and the authorisation rule.

#include <cstdint>
#include <string>

#include "block_store.h"
#include "sdk/vrc_frame.h"
#include "upgrade_receiver.h"

namespace sim::detail {

// Per-connection state.
struct Session {
    bool authorised = false;
    UpgradeReceiver upgrade;
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

    Reply Handle(const lidar::vrc::Frame& request, Session& session);

    BlockStore& Blocks() { return blocks_; }
    const BlockStore& Blocks() const { return blocks_; }
    const std::string& CataloguePath() const { return cataloguePath_; }

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
    Reply Upgrade(const Bytes& payload, size_t beginExtraBytes, Session& session);
    Reply CatalogueCommand(uint8_t command, const Bytes& payload);

    std::string model_;
    std::string cataloguePath_;
    std::string requiredToken_;
    BlockStore blocks_;
};

}  // namespace sim::detail
