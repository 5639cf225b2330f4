#pragma once

// What the window's tests look at beside the window: the embedded simulator's state (the bytes
// it holds, the requests it saw, faults to play) and files in the test's own folder. Reachable
// from QML as the singleton `Probe` (import LidarTest 1.0).

#include <QObject>
#include <QString>
#include <QVariantMap>

class DeskSession;

class DeskProbe : public QObject {
    Q_OBJECT
  public:
    DeskProbe(DeskSession& session, QString folder, QObject* parent = nullptr);

    // The simulator's stored block of a get command, in hexadecimal ("01 2c"); "" when no
    // network simulator runs.
    Q_INVOKABLE QString block(int command) const;
    // Overwrites bytes of the network simulator's stored block of a get command from `offset`
    // with `hex` ("2f 1c"), so that a test knows the value the lidar gives; false when no network
    // simulator runs or the text is not hexadecimal.
    Q_INVOKABLE bool writeBlock(int command, int offset, const QString& hex);
    Q_INVOKABLE int requestCount(int command) const;
    Q_INVOKABLE void resetCounters();
    // A fault in lidar-sim's words ("no-reply", "delay=3000", "status=5"); false when the text
    // is not one.
    Q_INVOKABLE bool setFault(int command, const QString& fault);
    Q_INVOKABLE void clearFaults();
    // The serial simulator's settings (standby, spinRate, returnMode, ...).
    Q_INVOKABLE QVariantMap serialState() const;

    // The test's own folder, and files in it.
    Q_INVOKABLE QString folder() const { return folder_; }
    Q_INVOKABLE QString writeFile(const QString& name, int size) const;
    Q_INVOKABLE qint64 fileSize(const QString& path) const;
    Q_INVOKABLE QStringList filesIn(const QString& folder) const;
    Q_INVOKABLE QString readText(const QString& path) const;

  private:
    DeskSession& session_;
    QString folder_;
};
