// The Heron-VRC model's own commands: component versions, the IMU range, the component restart,
// upgrade mode and the component transfer of its OTA upgrade.

#include <algorithm>

#include "sdk/vrc_client.h"

namespace lidar {
namespace {

constexpr uint8_t kEnterUpgradeMode = 0xB6;
constexpr uint8_t kComponentVersion = 0xC0;
constexpr uint8_t kSetImuRange = 0xC1;
constexpr uint8_t kComponentRestart = 0xC2;
constexpr uint8_t kComponentUpgrade = 0xC3;

constexpr uint8_t kBmbFpgaSelector = 0;
constexpr uint8_t kTmbFpgaSelector = 1;
constexpr uint8_t kBmbMcuSelector = 2;

}  // namespace

int VrcClient::HeronGetComponentVersion(uint8_t selector, std::string& version) {
    version.clear();
    u8vec reply;
    const int result = QueryCommand({selector}, reply, kComponentVersion, false);
    if (result != kVrcOk) return result;
    // The device pads the text to its field with NULs; what follows the first one is padding.
    const auto end = std::find(reply.begin(), reply.end(), uint8_t{0});
    version.assign(reply.begin(), end);
    return kVrcOk;
}

int VrcClient::HeronGetBmbFpgaVersion(std::string& version) {
    return HeronGetComponentVersion(kBmbFpgaSelector, version);
}

int VrcClient::HeronGetTmbFpgaVersion(std::string& version) {
    return HeronGetComponentVersion(kTmbFpgaSelector, version);
}

int VrcClient::HeronGetBmbMcuVersion(std::string& version) {
    return HeronGetComponentVersion(kBmbMcuSelector, version);
}

int VrcClient::HeronSetIMURange(uint8_t angularCode, uint8_t accelerationCode) {
    u8vec reply;
    return QueryCommand({angularCode, accelerationCode}, reply, kSetImuRange, false);
}

int VrcClient::HeronRestartLidar() {
    u8vec reply;
    return QueryCommand({}, reply, kComponentRestart, false);
}

int VrcClient::WrenSerialEnterUpgradeMode(unsigned char& partition) {
    u8vec reply;
    const int result = QueryCommand({}, reply, kEnterUpgradeMode, false);
    if (result != kVrcOk) return result;
    if (reply.empty()) return RejectReply(kEnterUpgradeMode, "no partition byte");
    partition = reply[0];
    return kVrcOk;
}

int VrcClient::HeronSendComponentData(u8Array_t& data, unsigned char type,
                                      ProgressCounter& progress) {
    return Transfer(kComponentUpgrade, type, data, progress, ProgressMode::kAdvanceByUnits);
}

}  // namespace lidar
