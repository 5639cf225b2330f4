// The Wren model's own settings and readers: standby, spin rate and return mode over the serial
// client (kind 1) or the VRC client carried over the serial line (kind 2); the baud rate, the
// destination and the network settings over VRC only; the network, destination and
// function-safety states as lists for the UI.

#include <QString>
#include <limits>
#include <optional>

#include "device_link.h"
#include "lidar_utilities_manager.h"
#include "sdk/serial_client.h"

namespace {

using LogLevel = LidarUtilitiesManager::LogLevel;

constexpr uint8_t kNetworkConfigCommand = 0x08;
constexpr unsigned short kAuxiliaryPort = 10110;
constexpr size_t kNetConfigSize = 12;
constexpr size_t kDestinationConfigSize = 18;

const char* const kNotConnectedOrUpgrade = "lidar is not connected, or lidar is upgrade";
const char* const kNotConnectedOrUpgrading = "lidar is not connected, or lidar is upgrading";
// clang-format off
const char* const kNetworkSetNote = "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you will need to restart the lidar for it to work.";
// clang-format on

QString dottedAddress(const u8Array_t& bytes, size_t first) {
    return QString("%1.%2.%3.%4")
        .arg(bytes[first])
        .arg(bytes[first + 1])
        .arg(bytes[first + 2])
        .arg(bytes[first + 3]);
}

QString faultStateText(uint8_t state) {
    switch (state) {
        case 0:
            return "Normal";
        case 1:
            return "Warning";
        case 2:
            return "Shutdown";
        default:
            return QString::number(state);
    }
}

}  // namespace

// ---- The client each operation uses ----

// The three mode setters and the function-safety reader: the VRC client on kind 2, the serial
// client on any other kind. Null (with the refusal shown) when neither may be used.
struct WrenTarget {
    std::shared_ptr<AuthorizedVrcClient> vrc;
    std::shared_ptr<lidar::SerialClient> serial;
    explicit operator bool() const { return vrc || serial; }
};

static WrenTarget wrenTarget(LidarUtilitiesManager& m) {
    WrenTarget target;
    if (!m.getIsConnected() || m.getIsUpgrading()) return target;
    if (m.getConnectType() == 2)
        target.vrc = m.getAuthorizedClient();
    else
        target.serial = m.getSerialClient();
    return target;
}

// The four VRC-only operations: their own refusal texts.
static std::shared_ptr<AuthorizedVrcClient> vrcSerialTarget(LidarUtilitiesManager& m,
                                                            const char* refusal) {
    if (m.getConnectType() != 2) {
        m.showErrorMessage(refusal);
        return nullptr;
    }
    std::shared_ptr<AuthorizedVrcClient> client = m.getAuthorizedClient();
    if (!m.getIsConnected() || !client || m.getIsUpgrading()) {
        m.showErrorMessage(kNotConnectedOrUpgrading);
        return nullptr;
    }
    return client;
}

// A failed SDK call: the prefix and the code as an error and as an ERROR log line.
static void reportWrenFailure(LidarUtilitiesManager& m, int code, const char* prefix) {
    const QString text = prefix + QString::number(code);
    m.showErrorMessage(text);
    m.writeLogMessage(text.toStdString(), LogLevel::kError);
}

// The outcome of one SDK call: the success message, or the failure.
static void reportWrenOutcome(LidarUtilitiesManager& m, int code, const char* success,
                              const char* failurePrefix) {
    if (code == 0)
        m.showSuccessMessage(success);
    else
        reportWrenFailure(m, code, failurePrefix);
}

// ---- Standby, spin rate, return mode ----

void LidarUtilitiesManager::WrenSetStandby(int standby) {
    const WrenTarget target = wrenTarget(*this);
    if (!target) {
        showErrorMessage(kNotConnectedOrUpgrade);
        return;
    }
    const int code = target.vrc ? target.vrc->WrenSerialSetStandby(standby != 0)
                                : target.serial->WrenSetStandby(standby != 0);
    reportWrenOutcome(*this, code, "set lidar mode successful", "set lidar mode error, ret:");
}

void LidarUtilitiesManager::WrenSetSpinRate(int rate) {
    const WrenTarget target = wrenTarget(*this);
    if (!target) {
        showErrorMessage(kNotConnectedOrUpgrade);
        return;
    }
    // The low 8 bits, unchecked: the lidar decides what it accepts.
    const auto value = static_cast<unsigned char>(rate & 0xFF);
    const int code = target.vrc ? target.vrc->WrenSerialSetSpinRate(value)
                                : target.serial->WrenSetSpinRate(value);
    reportWrenOutcome(*this, code, "set spin rate successful", "set lidar spin rate error, ret:");
}

void LidarUtilitiesManager::WrenSetReturnMode(int mode) {
    const WrenTarget target = wrenTarget(*this);
    if (!target) {
        showErrorMessage(kNotConnectedOrUpgrade);
        return;
    }
    const int code = target.vrc ? target.vrc->WrenSerialSetReturnMode(mode != 0)
                                : target.serial->WrenSetReturnMode(mode != 0);
    reportWrenOutcome(*this, code, "set return mode successful",
                      "set lidar return mode error, ret:");
}

// ---- Baud rate, destination, network (VRC over serial only) ----

QString LidarUtilitiesManager::WrenGetBaudRate() {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcSerialTarget(*this, "GetBaudRate is only supported in VRC serial mode");
    if (!client) return QString();
    unsigned int rate = 0;
    const int code = client->WrenGetBaudRate(rate);
    if (code != 0) {
        reportWrenFailure(*this, code, "get baud rate error, ret:");
        return QString();
    }
    return QString::number(rate);
}

void LidarUtilitiesManager::WrenSetBaudRateFromUI(QString rate) {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcSerialTarget(*this, "SetBaudRate is only supported in VRC serial mode");
    if (!client) return;
    // Whole text, base 10: "abc", "12abc" and a rate beyond 32 bits all read as 0.
    const unsigned int value = rate.toUInt(nullptr, 10);
    if (value == 0) {
        showErrorMessage("invalid baud rate value");
        return;
    }
    const int code = client->WrenSetBaudRate(value);
    if (code == 0) {
        link_->setPointCloudBaudRate(value);
        // Every VRC-over-serial connect sends the stored rate: kept only in memory, the next
        // session would set the lidar back to the old one.
        link_->savePointCloudBaudRate();
    }
    reportWrenOutcome(*this, code, "set baud rate successful", "set baud rate error, ret:");
}

int LidarUtilitiesManager::WrenSetDestinationIPandPort(QString ip, int port) {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcSerialTarget(*this, "SetDestinationIPandPort is only supported in VRC serial mode");
    if (!client) return 0;
    // A port the 16-bit field cannot hold would reach the lidar as another port.
    if (port < 0 || port > std::numeric_limits<unsigned short>::max()) {
        showErrorMessage("invalid destination port value");
        return 0;
    }
    if (client->SetDesIpandPort(ip.toStdString(), static_cast<unsigned short>(port),
                                kAuxiliaryPort)) {
        showSuccessMessage("set destination IP and port successful");
        return 1;
    }
    reportWrenFailure(*this, client->GetLastReturnCode(),
                      "set destination IP and port error, ret:");
    return 0;
}

int LidarUtilitiesManager::WrenSetNet(QString address, QString netmask, QString gateway, int flag,
                                      int id) {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcSerialTarget(*this, "SetNet is only supported in VRC serial mode");
    if (!client) return 0;
    // Values their fields cannot hold would reach the lidar as other values.
    if (flag < 0 || flag > 0xFF || (flag != 0 && (id < 0 || id > 0xFFFF))) {
        showErrorMessage("invalid VLAN value");
        return 0;
    }
    const auto vlanFlag = static_cast<unsigned char>(flag);
    const auto vlanId = static_cast<unsigned short>(flag != 0 ? id : 0);
    const bool accepted = client->SetNet(address.toStdString(), netmask.toStdString(),
                                         gateway.toStdString(), vlanFlag, vlanId);
    // The lidar applies the settings and closes the connection without a reply (-2).
    if (!accepted && client->GetLastReturnCode() != lidar::kVrcClosedByPeer) {
        reportWrenFailure(*this, client->GetLastReturnCode(), "set net error, ret:");
        return 0;
    }
    showSuccessMessage(kNetworkSetNote);
    Stop();
    return 1;
}

// ---- Readers ----

// The 0x08 reply when it holds at least `size` bytes; otherwise the failure is reported (the
// code is 0 for a short reply) and nullopt returned.
static std::optional<u8Array_t> readNetworkBlock(LidarUtilitiesManager& m, bool quiet, size_t size,
                                                 const char* failurePrefix) {
    if (m.getConnectType() != 2) return std::nullopt;
    std::shared_ptr<AuthorizedVrcClient> client = m.getAuthorizedClient();
    if (!m.getIsConnected() || !client || m.getIsUpgrading()) {
        if (!quiet) m.showErrorMessage(kNotConnectedOrUpgrading);
        return std::nullopt;
    }
    u8Array_t reply;
    const int code = client->QueryCommand({}, reply, kNetworkConfigCommand, false);
    if (code == 0 && reply.size() >= size) return reply;
    const QString text = failurePrefix + QString::number(code);
    if (!quiet) m.showErrorMessage(text);
    m.writeLogMessage(text.toStdString(), LogLevel::kError);
    return std::nullopt;
}

QVariantList LidarUtilitiesManager::WrenGetNetConfig(bool quiet) {
    const std::optional<u8Array_t> reply =
        readNetworkBlock(*this, quiet, kNetConfigSize, "get net config error, ret:");
    if (!reply) return QVariantList();
    return {dottedAddress(*reply, 0), dottedAddress(*reply, 4), dottedAddress(*reply, 8),
            QString("0"), QString("0")};
}

QVariantList LidarUtilitiesManager::WrenGetDestinationConfig(bool quiet) {
    const std::optional<u8Array_t> reply = readNetworkBlock(*this, quiet, kDestinationConfigSize,
                                                            "get destination config error, ret:");
    if (!reply) return QVariantList();
    const unsigned port = (static_cast<unsigned>((*reply)[16]) << 8) | (*reply)[17];
    return {dottedAddress(*reply, 12), QString::number(port)};
}

QVariantList LidarUtilitiesManager::WrenGetLidarFunctionSafety() {
    const WrenTarget target = wrenTarget(*this);
    if (!target) {
        showErrorMessage(kNotConnectedOrUpgrade);
        return QVariantList();
    }
    u8Array_t reply;
    int code = target.vrc ? target.vrc->WrenGetLidarFaultState(reply)
                          : target.serial->GetLidarFaultState(reply);
    if (code == 0 && reply.empty()) code = lidar::kVrcMalformed;  // no state byte
    if (code != 0) {
        reportWrenFailure(*this, code, "get function safety error, ret:");
        return QVariantList();
    }
    QVariantList list{faultStateText(reply[0])};
    // Little-endian pairs from byte 1; a last unpaired byte is ignored.
    for (size_t i = 2; reply.size() > 2 && i < reply.size(); i += 2) {
        const unsigned faultCode = (static_cast<unsigned>(reply[i]) << 8) | reply[i - 1];
        list.append("0x" + QString("%1").arg(faultCode, 4, 16, QChar('0')).toUpper());
    }
    return list;
}
