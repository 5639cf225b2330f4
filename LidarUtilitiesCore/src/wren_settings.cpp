// The Wren model's own settings and readers (wren_settings.h).

#include "wren_settings.h"

#include <functional>
#include <limits>

#include "lidar_utilities_manager.h"
#include "sdk/authorized_vrc_client.h"
#include "sdk/serial_client.h"
#include "subsystem_views.h"

namespace {

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

// The state's text, then the fault codes: little-endian pairs from byte 1 (a last unpaired
// byte is ignored).
QVariantList faultStateList(const u8Array_t& reply) {
    QVariantList list{faultStateText(reply[0])};
    for (size_t i = 2; reply.size() > 2 && i < reply.size(); i += 2) {
        const unsigned faultCode = (static_cast<unsigned>(reply[i]) << 8) | reply[i - 1];
        list.append("0x" + QString("%1").arg(faultCode, 4, 16, QChar('0')).toUpper());
    }
    return list;
}

}  // namespace

WrenSettings::WrenSettings(DeviceLinkView& link, const BusyView& busy, UserMessageSink& messages,
                           PointCloudRateSetting& pointCloudRate)
    : link_(link), busy_(busy), messages_(messages), pointCloudRate_(pointCloudRate) {}

// ---- The client each operation uses ----

// The VRC client on kind 2, the serial client on any other kind; neither while the link is down
// or an upgrade runs.
struct WrenSettings::Target {
    std::shared_ptr<AuthorizedVrcClient> vrc;
    std::shared_ptr<lidar::SerialClient> serial;
    explicit operator bool() const { return vrc || serial; }
};

WrenSettings::Target WrenSettings::modeTarget() const {
    Target target;
    if (!link_.linkConnected() || busy_.upgrading()) return target;
    if (link_.connectionKind() == kVrcOverSerialKind)
        target.vrc = link_.vrcClient();
    else
        target.serial = link_.serialClient();
    return target;
}

// The four VRC-only operations: their own refusal texts.
std::shared_ptr<AuthorizedVrcClient> WrenSettings::vrcOnlyTarget(const char* refusal) {
    if (link_.connectionKind() != kVrcOverSerialKind) {
        messages_.showError(refusal);
        return nullptr;
    }
    std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!link_.linkConnected() || !client || busy_.upgrading()) {
        messages_.showError(kNotConnectedOrUpgrading);
        return nullptr;
    }
    return client;
}

// A failed SDK call: the prefix and the code as an error and as an ERROR log line.
void WrenSettings::reportFailure(int code, const char* prefix) {
    const QString text = prefix + QString::number(code);
    messages_.showError(text);
    messages_.log(text.toStdString(), LogLevel::kError);
}

// The outcome of one SDK call: the success message, or the failure.
void WrenSettings::reportOutcome(int code, const char* success, const char* failurePrefix) {
    if (code == 0)
        messages_.showSuccess(success);
    else
        reportFailure(code, failurePrefix);
}

// ---- Standby, spin rate, return mode ----

void WrenSettings::sendModeSetting(const std::function<int(AuthorizedVrcClient&)>& overVrc,
                                   const std::function<int(lidar::SerialClient&)>& overSerial,
                                   const char* success, const char* failurePrefix) {
    const Target target = modeTarget();
    if (!target) {
        messages_.showError(kNotConnectedOrUpgrade);
        return;
    }
    const int code = target.vrc ? overVrc(*target.vrc) : overSerial(*target.serial);
    reportOutcome(code, success, failurePrefix);
}

void WrenSettings::setStandby(int standby) {
    const bool on = standby != 0;
    sendModeSetting([on](AuthorizedVrcClient& vrc) { return vrc.WrenSerialSetStandby(on); },
                    [on](lidar::SerialClient& serial) { return serial.WrenSetStandby(on); },
                    "set lidar mode successful", "set lidar mode error, ret:");
}

void WrenSettings::setSpinRate(int rate) {
    const auto value = static_cast<unsigned char>(rate & 0xFF);
    sendModeSetting([value](AuthorizedVrcClient& vrc) { return vrc.WrenSerialSetSpinRate(value); },
                    [value](lidar::SerialClient& serial) { return serial.WrenSetSpinRate(value); },
                    "set spin rate successful", "set lidar spin rate error, ret:");
}

void WrenSettings::setReturnMode(int mode) {
    const bool returnMode = mode != 0;
    sendModeSetting(
        [returnMode](AuthorizedVrcClient& vrc) { return vrc.WrenSerialSetReturnMode(returnMode); },
        [returnMode](lidar::SerialClient& serial) { return serial.WrenSetReturnMode(returnMode); },
        "set return mode successful", "set lidar return mode error, ret:");
}

// ---- Baud rate, destination, network (VRC over serial only) ----

QString WrenSettings::baudRate() {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcOnlyTarget("GetBaudRate is only supported in VRC serial mode");
    if (!client) return QString();
    unsigned int rate = 0;
    const int code = client->WrenGetBaudRate(rate);
    if (code != 0) {
        reportFailure(code, "get baud rate error, ret:");
        return QString();
    }
    return QString::number(rate);
}

void WrenSettings::setBaudRate(const QString& rate) {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcOnlyTarget("SetBaudRate is only supported in VRC serial mode");
    if (!client) return;
    // Whole text, base 10: "abc", "12abc" and a rate beyond 32 bits all read as 0.
    const unsigned int value = rate.toUInt(nullptr, 10);
    if (value == 0) {
        messages_.showError("invalid baud rate value");
        return;
    }
    const int code = client->WrenSetBaudRate(value);
    if (code == 0) pointCloudRate_.keepPointCloudBaudRate(value);
    reportOutcome(code, "set baud rate successful", "set baud rate error, ret:");
}

int WrenSettings::setDestination(const QString& ip, int port) {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcOnlyTarget("SetDestinationIPandPort is only supported in VRC serial mode");
    if (!client) return 0;
    // A port the 16-bit field cannot hold would reach the lidar as another port.
    if (port < 0 || port > std::numeric_limits<unsigned short>::max()) {
        messages_.showError("invalid destination port value");
        return 0;
    }
    if (client->SetDesIpandPort(ip.toStdString(), static_cast<unsigned short>(port),
                                kAuxiliaryPort)) {
        messages_.showSuccess("set destination IP and port successful");
        return 1;
    }
    reportFailure(client->GetLastReturnCode(), "set destination IP and port error, ret:");
    return 0;
}

int WrenSettings::setNetwork(const QString& address, const QString& netmask, const QString& gateway,
                             int vlanFlag, int vlanId) {
    std::shared_ptr<AuthorizedVrcClient> client =
        vrcOnlyTarget("SetNet is only supported in VRC serial mode");
    if (!client) return 0;
    // Values their fields cannot hold would reach the lidar as other values.
    if (vlanFlag < 0 || vlanFlag > 0xFF || (vlanFlag != 0 && (vlanId < 0 || vlanId > 0xFFFF))) {
        messages_.showError("invalid VLAN value");
        return 0;
    }
    const bool accepted =
        client->SetNet(address.toStdString(), netmask.toStdString(), gateway.toStdString(),
                       static_cast<unsigned char>(vlanFlag),
                       static_cast<unsigned short>(vlanFlag != 0 ? vlanId : 0));
    // The lidar applies the settings and closes the connection without a reply (-2).
    if (!accepted && client->GetLastReturnCode() != lidar::kVrcClosedByPeer) {
        reportFailure(client->GetLastReturnCode(), "set net error, ret:");
        return 0;
    }
    messages_.showSuccess(kNetworkSetNote);
    link_.stopLink();
    return 1;
}

// ---- Readers ----

// The 0x08 reply when it holds at least `size` bytes; otherwise the failure is reported (the
// code is 0 for a short reply) and nullopt returned.
std::optional<u8Array_t> WrenSettings::readNetworkBlock(bool quiet, size_t size,
                                                        const char* failurePrefix) {
    if (link_.connectionKind() != kVrcOverSerialKind) return std::nullopt;
    std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!link_.linkConnected() || !client || busy_.upgrading()) {
        if (!quiet) messages_.showError(kNotConnectedOrUpgrading);
        return std::nullopt;
    }
    u8Array_t reply;
    const int code = client->QueryCommand({}, reply, kNetworkConfigCommand, false);
    if (code == 0 && reply.size() >= size) return reply;
    const QString text = failurePrefix + QString::number(code);
    if (!quiet) messages_.showError(text);
    messages_.log(text.toStdString(), LogLevel::kError);
    return std::nullopt;
}

QVariantList WrenSettings::networkConfig(bool quiet) {
    const std::optional<u8Array_t> reply =
        readNetworkBlock(quiet, kNetConfigSize, "get net config error, ret:");
    if (!reply) return QVariantList();
    return {dottedAddress(*reply, 0), dottedAddress(*reply, 4), dottedAddress(*reply, 8),
            QString("0"), QString("0")};
}

QVariantList WrenSettings::destinationConfig(bool quiet) {
    const std::optional<u8Array_t> reply =
        readNetworkBlock(quiet, kDestinationConfigSize, "get destination config error, ret:");
    if (!reply) return QVariantList();
    const unsigned port = (static_cast<unsigned>((*reply)[16]) << 8) | (*reply)[17];
    return {dottedAddress(*reply, 12), QString::number(port)};
}

QVariantList WrenSettings::functionSafety() {
    const Target target = modeTarget();
    if (!target) {
        messages_.showError(kNotConnectedOrUpgrade);
        return QVariantList();
    }
    u8Array_t reply;
    int code = target.vrc ? target.vrc->WrenGetLidarFaultState(reply)
                          : target.serial->GetLidarFaultState(reply);
    if (code == 0 && reply.empty()) code = lidar::kVrcMalformed;  // no state byte
    if (code != 0) {
        reportFailure(code, "get function safety error, ret:");
        return QVariantList();
    }
    return faultStateList(reply);
}

// ---- The façade's Wren operations ----

void LidarUtilitiesManager::WrenSetStandby(int standby) {
    wren_->setStandby(standby);
}

void LidarUtilitiesManager::WrenSetSpinRate(int rate) {
    wren_->setSpinRate(rate);
}

void LidarUtilitiesManager::WrenSetReturnMode(int mode) {
    wren_->setReturnMode(mode);
}

QString LidarUtilitiesManager::WrenGetBaudRate() {
    return wren_->baudRate();
}

void LidarUtilitiesManager::WrenSetBaudRateFromUI(QString rate) {
    wren_->setBaudRate(rate);
}

int LidarUtilitiesManager::WrenSetDestinationIPandPort(QString ip, int port) {
    return wren_->setDestination(ip, port);
}

int LidarUtilitiesManager::WrenSetNet(QString address, QString netmask, QString gateway, int flag,
                                      int id) {
    return wren_->setNetwork(address, netmask, gateway, flag, id);
}

QVariantList LidarUtilitiesManager::WrenGetNetConfig(bool quiet) {
    return wren_->networkConfig(quiet);
}

QVariantList LidarUtilitiesManager::WrenGetDestinationConfig(bool quiet) {
    return wren_->destinationConfig(quiet);
}

QVariantList LidarUtilitiesManager::WrenGetLidarFunctionSafety() {
    return wren_->functionSafety();
}
