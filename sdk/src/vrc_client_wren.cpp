// The Wren's serial settings and fault state as the VRC-over-serial models (Wren-VRC, Heron-VRC)
// answer them over VRC.

#include "sdk/vrc_client.h"

namespace lidar {
namespace {

constexpr uint8_t kGetSerialBaudRate = 0xB0;
constexpr uint8_t kSerialSetStandby = 0xB2;
constexpr uint8_t kSerialSetSpinRate = 0xB3;
constexpr uint8_t kSerialSetReturnMode = 0xB4;
constexpr uint8_t kSerialFaultState = 0xB5;

}  // namespace

int VrcClient::WrenSerialSetStandby(bool standby) {
    u8vec reply;
    return QueryCommand({static_cast<uint8_t>(standby ? 1 : 0)}, reply, kSerialSetStandby, false);
}

int VrcClient::WrenSerialSetSpinRate(unsigned char rate) {
    u8vec reply;
    return QueryCommand({rate}, reply, kSerialSetSpinRate, false);
}

int VrcClient::WrenSerialSetReturnMode(bool mode) {
    u8vec reply;
    return QueryCommand({static_cast<uint8_t>(mode ? 1 : 0)}, reply, kSerialSetReturnMode, false);
}

int VrcClient::WrenGetBaudRate(unsigned int& rate) {
    u8vec reply;
    const int result = QueryCommand({}, reply, kGetSerialBaudRate, false);
    if (result != kVrcOk) return result;
    if (reply.size() < 4) {
        return RejectReply(kGetSerialBaudRate,
                           std::to_string(reply.size()) + " bytes do not hold the 4-byte rate");
    }
    rate = (unsigned(reply[0]) << 24) | (unsigned(reply[1]) << 16) | (unsigned(reply[2]) << 8) |
           unsigned(reply[3]);
    return kVrcOk;
}

int VrcClient::WrenGetLidarFaultState(u8Array_t& reply) {
    const int result = QueryCommand({}, reply, kSerialFaultState, false);
    if (result != kVrcOk) return result;
    if (reply.empty()) return RejectReply(kSerialFaultState, "no state byte");
    return kVrcOk;
}

}  // namespace lidar
