// The access profile over the Wren operations of the VRC-over-serial models, and the two network
// settings the Wren pages write with dedicated calls (0x20, 0x21).

#include <arpa/inet.h>

#include "sdk/authorized_vrc_client.h"
#include "sdk/text_fields.h"

namespace {

constexpr uint8_t kGetSerialBaudRate = 0xB0;
constexpr uint8_t kSerialSetStandby = 0xB2;
constexpr uint8_t kSerialSetSpinRate = 0xB3;
constexpr uint8_t kSerialSetReturnMode = 0xB4;
constexpr uint8_t kSerialFaultState = 0xB5;
constexpr uint8_t kSetDestination = 0x20;
constexpr uint8_t kSetNetwork = 0x21;

void AppendUint16(u8vec& out, uint16_t value) {
    out.push_back(static_cast<uint8_t>(value >> 8));
    out.push_back(static_cast<uint8_t>(value));
}

}  // namespace

int AuthorizedVrcClient::WrenSerialSetStandby(bool standby) {
    if (!Permit(kSerialSetStandby)) return lidar::kVrcRefused;
    return client_->WrenSerialSetStandby(standby);
}

int AuthorizedVrcClient::WrenSerialSetSpinRate(unsigned char rate) {
    if (!Permit(kSerialSetSpinRate)) return lidar::kVrcRefused;
    return client_->WrenSerialSetSpinRate(rate);
}

int AuthorizedVrcClient::WrenSerialSetReturnMode(bool mode) {
    if (!Permit(kSerialSetReturnMode)) return lidar::kVrcRefused;
    return client_->WrenSerialSetReturnMode(mode);
}

int AuthorizedVrcClient::WrenGetBaudRate(unsigned int& rate) {
    if (!Permit(kGetSerialBaudRate)) return lidar::kVrcRefused;
    return client_->WrenGetBaudRate(rate);
}

int AuthorizedVrcClient::WrenGetLidarFaultState(u8Array_t& reply) {
    reply.clear();
    if (!Permit(kSerialFaultState)) return lidar::kVrcRefused;
    return client_->WrenGetLidarFaultState(reply);
}

// Dotted decimal only ("192.168.1.20", blanks around ignored): inet_pton refuses host names,
// short forms such as "10.1" and parts over 255, which inet_aton would take.
bool AuthorizedVrcClient::AppendAddress(const char* what, const std::string& text, u8vec& payload) {
    const std::string trimmed(lidar::text::Trim(text));
    uint8_t bytes[4];
    if (::inet_pton(AF_INET, trimmed.c_str(), bytes) == 1) {
        payload.insert(payload.end(), bytes, bytes + 4);
        return true;
    }
    client_->RecordReturnCode(lidar::kVrcNotConnected);
    Log(std::string(what) + " \"" + text + "\" is not a dotted IPv4 address; nothing was sent");
    return false;
}

bool AuthorizedVrcClient::SetDesIpandPort(std::string ip, unsigned short port,
                                          unsigned short auxPort) {
    if (!Permit(kSetDestination)) return false;
    u8vec payload;
    if (!AppendAddress("Destination address", ip, payload)) return false;
    AppendUint16(payload, port);
    AppendUint16(payload, auxPort);
    u8vec reply;
    return client_->QueryCommand(payload, reply, kSetDestination, false) == lidar::kVrcOk;
}

bool AuthorizedVrcClient::SetNet(std::string address, std::string netmask, std::string gateway,
                                 unsigned char vlanFlag, unsigned short vlanId) {
    if (!Permit(kSetNetwork)) return false;
    u8vec payload;
    if (!AppendAddress("Address", address, payload) ||
        !AppendAddress("Netmask", netmask, payload) ||
        !AppendAddress("Gateway", gateway, payload)) {
        return false;
    }
    payload.push_back(vlanFlag);
    AppendUint16(payload, vlanId);
    u8vec reply;
    return client_->QueryCommand(payload, reply, kSetNetwork, false) == lidar::kVrcOk;
}
