#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "sdk/auth_config.h"
#include "sdk/types.h"
#include "sdk/vrc_client.h"

class AuthorizedVrcClient;

// Authorisation handshake: 0xA0 asks whether the device requires it, 0xA1 sends the token.
class AuthGate {
  public:
    explicit AuthGate(AuthorizedVrcClient& owner) : owner_(owner) {}
    // 0 when no authorisation is needed or the token was accepted; otherwise the failing result.
    int ProbeAuthRequirement();
    bool IsAuthorised() const;

  private:
    AuthorizedVrcClient& owner_;
    mutable std::mutex mutex_;
    bool authorised_ = false;
};

// A VRC client that applies one access-configuration profile: a command the profile does not
// allow returns -5, reaches no wire, and is reported through the log slot.
class AuthorizedVrcClient {
  public:
    AuthorizedVrcClient(std::shared_ptr<lidar::VrcClient> client, AuthConfig config);

    int QueryCommand(const u8vec& payload, u8vec& reply, uint8_t command, bool withHeader);
    int GetAllChannelFov(float* values, int& count, int& mode);
    int SetAllChannelFov(const float* values, int count, uint8_t mode);
    int WrenSetBaudRate(uint32_t rate);
    // Firmware transfer with the command a catalogue names ("0x83"; an empty text is 0x83); a
    // text that is not a command code is refused with -1 and nothing is sent.
    int UpgradeLidar(const u8Array_t& package, const std::string& command,
                     lidar::ProgressCounter& progress);
    int WrenUpgradeLidar(const u8Array_t& package, int mode, lidar::ProgressCounter& progress);
    // -1 also when the profile refuses the command (the last return code is then -5).
    int DownloadLog(const u8Array_t& payload, u8Array_t& reply, unsigned char command);
    int QuerySerialCommand(const u8Array_t& payload, u8Array_t& reply, uint8_t code);

    // The Wren's serial settings over VRC, under the profile
    // (sdk/src/authorized_vrc_client_wren.cpp).
    int WrenSerialSetStandby(bool standby);         // 0xB2
    int WrenSerialSetSpinRate(unsigned char rate);  // 0xB3
    int WrenSerialSetReturnMode(bool mode);         // 0xB4
    int WrenGetBaudRate(unsigned int& rate);        // 0xB0
    int WrenGetLidarFaultState(u8Array_t& reply);   // 0xB5
    // 0x20: destination address, destination port, auxiliary port. True when the device accepted
    // it; otherwise GetLastReturnCode() says why. An address that is not a dotted IPv4 address
    // is refused with -1 before anything is sent.
    bool SetDesIpandPort(std::string ip, unsigned short port, unsigned short auxPort);
    // 0x21: address, netmask, gateway, VLAN flag, VLAN id. The device applies it and closes the
    // connection without a reply, so the result is false with last return code -2. Texts that
    // are not dotted IPv4 addresses are refused as for SetDesIpandPort.
    bool SetNet(std::string address, std::string netmask, std::string gateway,
                unsigned char vlanFlag, unsigned short vlanId);
    // ---- Heron-VRC operations: the VrcClient's, each checked against the profile first ----
    int HeronGetBmbFpgaVersion(std::string& version);                     // 0xC0
    int HeronGetTmbFpgaVersion(std::string& version);                     // 0xC0
    int HeronGetBmbMcuVersion(std::string& version);                      // 0xC0
    int HeronSetIMURange(uint8_t angularCode, uint8_t accelerationCode);  // 0xC1
    int HeronRestartLidar();                                              // 0xC2
    int WrenSerialEnterUpgradeMode(unsigned char& partition);             // 0xB6
    int HeronSendComponentData(u8Array_t& data, unsigned char type,
                               lidar::ProgressCounter& progress);  // 0xC3

    lidar::VrcClient& GetClient() { return *client_; }
    std::shared_ptr<lidar::VrcClient> GetClientPtr() const { return client_; }
    bool IsOpen() const { return client_->IsOpen(); }
    int GetLastReturnCode() const { return client_->GetLastReturnCode(); }
    void SetSerialBaudRate(uint32_t rate) { client_->SetSerialBaudRate(rate); }
    uint32_t GetSerialBaudRate() const { return client_->GetSerialBaudRate(); }
    AuthGate& GetGate() { return gate_; }
    const AuthConfig& GetConfig() const { return config_; }

    // The log slot: receives refusals and authorisation events.
    void SetLogCallback(lidar::LogCallback callback);

  private:
    friend class AuthGate;
    bool Permit(uint8_t command);
    // Appends the four bytes of a dotted IPv4 address; false (logged, -1 recorded) otherwise.
    bool AppendAddress(const char* what, const std::string& text, u8vec& payload);
    void Log(const std::string& line);

    std::shared_ptr<lidar::VrcClient> client_;
    AuthConfig config_;
    AuthGate gate_;
    std::mutex logMutex_;
    lidar::LogCallback logCallback_;
};

// Turns the local host/port text of the VRC client into a port (0 = any): "ANY" and "0" mean any
// port, a decimal 1-65535 that port. Anything else is false with an error a person understands.
bool ParseVrcClientHostPortText(const std::string& text, uint16_t* port, std::string* error);
