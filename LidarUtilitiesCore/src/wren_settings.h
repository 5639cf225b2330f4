#pragma once

// The Wren model's own settings and readers: standby, spin rate and return mode over the serial
// client (kind 1) or the VRC client carried over the serial line (kind 2); the baud rate, the
// destination and the network settings over VRC only; the network, destination and
// function-safety states as lists for the UI.
//
// Threads: it keeps no state of its own; each operation asks the link for its client and keeps
// that client alive for its exchange.

#include <QString>
#include <QVariantList>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

#include "sdk/types.h"

class AuthorizedVrcClient;
class BusyView;
class DeviceLinkView;
class PointCloudRateSetting;
class UserMessageSink;
namespace lidar {
class SerialClient;
}

class WrenSettings {
  public:
    WrenSettings(DeviceLinkView& link, const BusyView& busy, UserMessageSink& messages,
                 PointCloudRateSetting& pointCloudRate);

    void setStandby(int standby);
    // The low 8 bits, unchecked: the lidar decides what it accepts.
    void setSpinRate(int rate);
    void setReturnMode(int mode);

    // Empty when it could not be read (the reason shown).
    QString baudRate();
    void setBaudRate(const QString& rate);
    // 1 when the lidar took it, 0 otherwise (the reason shown).
    int setDestination(const QString& ip, int port);
    int setNetwork(const QString& address, const QString& netmask, const QString& gateway,
                   int vlanFlag, int vlanId);

    // Empty when they could not be read; `quiet` shows no error pop-up (the log line stays).
    QVariantList networkConfig(bool quiet);
    QVariantList destinationConfig(bool quiet);
    // The fault state's text, then each fault code as "0x" and four hexadecimal digits.
    QVariantList functionSafety();

  private:
    // The client of the mode setters and the function-safety reader.
    struct Target;
    Target modeTarget() const;
    // The VRC client of the VRC-only operations; null (with the refusal shown) when none may be
    // used.
    std::shared_ptr<AuthorizedVrcClient> vrcOnlyTarget(const char* refusal);
    // One of the three mode setters over the kind's client, and its outcome told; refused when
    // there is no client to use.
    void sendModeSetting(const std::function<int(AuthorizedVrcClient&)>& overVrc,
                         const std::function<int(lidar::SerialClient&)>& overSerial,
                         const char* success, const char* failurePrefix);
    void reportFailure(int code, const char* prefix);
    void reportOutcome(int code, const char* success, const char* failurePrefix);
    std::optional<u8Array_t> readNetworkBlock(bool quiet, size_t size, const char* failurePrefix);

    DeviceLinkView& link_;
    const BusyView& busy_;
    UserMessageSink& messages_;
    PointCloudRateSetting& pointCloudRate_;
};
