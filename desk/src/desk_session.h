#pragma once

// What the window needs beyond the manager: the queue that keeps device calls off the UI thread,
// the embedded simulator, and file paths. It keeps none of the manager's state: the views bind to
// the manager for that.

#include <QObject>
#include <QString>
#include <QUrl>
#include <memory>

#include "device_queue.h"
#include "embedded_simulator.h"

class LidarUtilitiesManager;

class DeskSession : public QObject {
    Q_OBJECT
    Q_PROPERTY(DeviceQueue* queue READ queue CONSTANT)
    // The window connects to its embedded simulator instead of the settings' address.
    Q_PROPERTY(bool simulated READ simulated WRITE setSimulated NOTIFY simulatedChanged)
    // Where the simulator listens while it runs ("" otherwise).
    Q_PROPERTY(QString simulatorEndpoint READ simulatorEndpoint NOTIFY simulatedChanged)
    // A connect attempt runs (from the request until the manager says connected or failed).
    Q_PROPERTY(bool connecting READ connecting NOTIFY connectingChanged)

  public:
    DeskSession(LidarUtilitiesManager& manager, QString configDir, QObject* parent = nullptr);
    ~DeskSession() override;

    DeviceQueue* queue() { return &queue_; }
    bool simulated() const { return simulated_; }
    void setSimulated(bool on);
    QString simulatorEndpoint() const { return simulator_.endpoint(); }
    bool connecting() const { return connecting_; }
    EmbeddedSimulator& simulator() { return simulator_; }
    LidarUtilitiesManager& manager() { return manager_; }

    // Loads a model's catalogue (refused while connected: the manager reads it meanwhile).
    Q_INVOKABLE bool selectModel(const QString& model);
    // Queues the connect: ConnectLidar, then the wait until the attempt has ended. With the
    // simulated lidar on, starts the simulator of the selected model first.
    Q_INVOKABLE void connectLidar();
    // Does not wait in the queue: drops what is queued and stops at once, which wakes the call
    // in flight.
    Q_INVOKABLE void disconnectLidar();

    // A file URL as a local path, and back; the folder of a file, opened in the desktop's file
    // manager.
    Q_INVOKABLE QString localPath(const QUrl& url) const;
    Q_INVOKABLE QUrl fileUrl(const QString& path) const;
    Q_INVOKABLE bool openFolderOf(const QString& path) const;
    // Why nothing can be written into the folder ("" when it can), asked before a download.
    Q_INVOKABLE QString folderProblem(const QString& folder) const;

  signals:
    void simulatedChanged();
    void connectingChanged();

  private:
    // The user's own connection settings, kept while the simulator's replace them.
    struct LinkSettings {
        QString address, port, rs485, uart;
    };
    LinkSettings currentLinkSettings() const;
    void restoreLinkSettings(const LinkSettings& settings);
    bool serialModel(const QString& model) const;
    bool startSimulator();
    void setConnecting(bool on);
    void tellReadFailures(const QString& method);

    LidarUtilitiesManager& manager_;
    QString configDir_;
    DeviceQueue queue_;
    EmbeddedSimulator simulator_;
    bool simulated_ = false;
    bool connecting_ = false;
    LinkSettings userSettings_;
};
