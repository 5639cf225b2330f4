// The access profile applied to the Heron-VRC operations: a command the profile does not allow
// returns -5 and sends nothing, as every other wrapped command does.

#include "sdk/authorized_vrc_client.h"

namespace {

constexpr uint8_t kEnterUpgradeMode = 0xB6;
constexpr uint8_t kComponentVersion = 0xC0;
constexpr uint8_t kSetImuRange = 0xC1;
constexpr uint8_t kComponentRestart = 0xC2;
constexpr uint8_t kComponentUpgrade = 0xC3;

}  // namespace

int AuthorizedVrcClient::HeronGetBmbFpgaVersion(std::string& version) {
    version.clear();
    if (!Permit(kComponentVersion)) return lidar::kVrcRefused;
    return client_->HeronGetBmbFpgaVersion(version);
}

int AuthorizedVrcClient::HeronGetTmbFpgaVersion(std::string& version) {
    version.clear();
    if (!Permit(kComponentVersion)) return lidar::kVrcRefused;
    return client_->HeronGetTmbFpgaVersion(version);
}

int AuthorizedVrcClient::HeronGetBmbMcuVersion(std::string& version) {
    version.clear();
    if (!Permit(kComponentVersion)) return lidar::kVrcRefused;
    return client_->HeronGetBmbMcuVersion(version);
}

int AuthorizedVrcClient::HeronSetIMURange(uint8_t angularCode, uint8_t accelerationCode) {
    if (!Permit(kSetImuRange)) return lidar::kVrcRefused;
    return client_->HeronSetIMURange(angularCode, accelerationCode);
}

int AuthorizedVrcClient::HeronRestartLidar() {
    if (!Permit(kComponentRestart)) return lidar::kVrcRefused;
    return client_->HeronRestartLidar();
}

int AuthorizedVrcClient::WrenSerialEnterUpgradeMode(unsigned char& partition) {
    if (!Permit(kEnterUpgradeMode)) return lidar::kVrcRefused;
    return client_->WrenSerialEnterUpgradeMode(partition);
}

int AuthorizedVrcClient::HeronSendComponentData(u8Array_t& data, unsigned char type,
                                                lidar::ProgressCounter& progress) {
    if (!Permit(kComponentUpgrade)) return lidar::kVrcRefused;
    return client_->HeronSendComponentData(data, type, progress);
}
