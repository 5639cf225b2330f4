#pragma once

// The Heron model's own operations: reading its version texts (the model version text and the
// three component versions), setting the range of its inertial measurement unit, and its restart
// (0xC2), which the Heron OTA upgrade also sends when its components are through.
//
// Threads: any thread may read the version texts while another refreshes them; they are kept
// under this object's lock, and its signal is emitted outside it.

#include <QObject>
#include <QString>
#include <mutex>
#include <string>

#include "subsystem_views.h"

class AuthorizedVrcClient;

class HeronOperations : public QObject, public HeronRestart {
    Q_OBJECT

  public:
    HeronOperations(DeviceLinkView& link, const BusyView& busy, UserMessageSink& messages);

    // Reads the version texts over the VRC client (the component versions on a Heron only) and
    // announces them; nothing without a connection.
    void readVersions();
    // The version texts, "xxxxxxxx" until read.
    QString bmbFpgaVersion() const;
    QString tmbFpgaVersion() const;
    QString bmbMcuVersion() const;
    QString modelVersionText() const;

    // The indexes are those the UI offers (the façade's range code tables); the outcome is shown.
    void setImuRange(int angularIndex, int accelerationIndex);

    // ---- HeronRestart ----
    int restartHeron() override;

  signals:
    void wrenLidarInfoChanged();

  private:
    // The text that stops the IMU range request before it is sent, or null when it may go.
    const char* imuRangeRefusal(int angularIndex, int accelerationIndex,
                                const AuthorizedVrcClient* client) const;
    void sendImuRange(AuthorizedVrcClient& client, int angularIndex, int accelerationIndex);
    // Bytes 72-87 of the device information, up to the first NUL.
    void readModelVersionText(AuthorizedVrcClient& client);
    void readComponentVersions(AuthorizedVrcClient& client);
    void store(std::string& field, const std::string& text);
    QString text(const std::string& field) const;

    DeviceLinkView& link_;
    const BusyView& busy_;
    UserMessageSink& messages_;

    // The version texts, under mutex_.
    mutable std::mutex mutex_;
    std::string heronBmbFpgaVersion_;
    std::string heronTmbFpgaVersion_;
    std::string heronBmbMcuVersion_;
    std::string heronModelVersionText_;
};
