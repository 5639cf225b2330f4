#include "desk_session.h"

#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QThread>

#include "lidar_utilities_manager.h"

namespace {

// How often the queue's connect job looks whether the attempt has ended.
constexpr int kConnectPollMs = 10;

// Puts a file back as it was (or removes it, when it did not exist) at the end of a scope; an
// empty path keeps nothing.
class FileSnapshot {
  public:
    explicit FileSnapshot(QString path) : path_(std::move(path)) {
        if (path_.isEmpty()) return;
        QFile file(path_);
        existed_ = file.open(QIODevice::ReadOnly);
        if (existed_) bytes_ = file.readAll();
    }
    ~FileSnapshot() {
        if (path_.isEmpty()) return;
        if (!existed_) {
            QFile::remove(path_);
            return;
        }
        QSaveFile file(path_);
        if (file.open(QIODevice::WriteOnly) && file.write(bytes_) == bytes_.size()) file.commit();
    }
    FileSnapshot(const FileSnapshot&) = delete;
    FileSnapshot& operator=(const FileSnapshot&) = delete;

  private:
    QString path_;
    bool existed_ = false;
    QByteArray bytes_;
};

}  // namespace

DeskSession::DeskSession(LidarUtilitiesManager& manager, QString configDir, QObject* parent)
    : QObject(parent),
      manager_(manager),
      configDir_(std::move(configDir)),
      queue_(manager),
      simulator_(configDir_) {
    connect(&manager_, &LidarUtilitiesManager::isConnectedChanged, this,
            [this] { setConnecting(false); });
}

DeskSession::~DeskSession() {
    queue_.dropQueued();
    manager_.Stop();
    queue_.waitUntilIdle();
}

void DeskSession::setSimulated(bool on) {
    if (on == simulated_) return;
    simulated_ = on;
    if (on) {
        userSettings_ = currentLinkSettings();
    } else {
        simulator_.stop();
        restoreLinkSettings(userSettings_);
    }
    emit simulatedChanged();
}

DeskSession::LinkSettings DeskSession::currentLinkSettings() const {
    return {manager_.getIpAddress(), manager_.getPort(), manager_.serial_port_485(),
            manager_.serial_port_232()};
}

void DeskSession::restoreLinkSettings(const LinkSettings& settings) {
    manager_.setIpAddress(settings.address);
    manager_.setPort(settings.port);
    manager_.set_serial_port_485(settings.rs485);
    manager_.set_serial_port_232(settings.uart);
}

bool DeskSession::serialModel(const QString& model) const {
    return manager_.connectTypeOfModel(model) == 1;
}

bool DeskSession::selectModel(const QString& model) {
    if (manager_.getIsConnected() || connecting_) {
        manager_.showErrorMessage("Disconnect before choosing another model.");
        return false;
    }
    if (queue_.busy()) {
        manager_.showErrorMessage("Wait for " + queue_.running() +
                                  " to end before choosing another model.");
        return false;
    }
    if (!manager_.getLidarModelList().contains(model)) return false;
    // Loaded, not pinned: a pinned model would be the only one the list offers afterwards.
    manager_.InitConfigFileParser(model);
    // A simulator of the model before is of no use to this one.
    if (simulator_.running() && simulator_.model() != model) {
        simulator_.stop();
        emit simulatedChanged();
    }
    return manager_.getSelectedLidarModel() == model;
}

bool DeskSession::startSimulator() {
    const QString model = manager_.getSelectedLidarModel();
    if (simulator_.running() && simulator_.model() == model) return true;
    QString error;
    const bool started = simulator_.start(model, serialModel(model), manager_, error);
    if (!started) manager_.showErrorMessage(error);
    emit simulatedChanged();
    return started;
}

void DeskSession::connectLidar() {
    if (connecting_ || manager_.getIsConnected()) return;
    if (simulated_ && !startSimulator()) return;
    setConnecting(true);
    LidarUtilitiesManager* manager = &manager_;
    const QString keptFile = simulated_ ? manager_.connectionSettingsFilePath() : QString();
    queue_.post("connecting", [this, manager, keptFile] {
        // A connect saves the connection settings: the simulator's loopback address must not
        // replace the user's saved ones.
        const FileSnapshot kept(keptFile);
        const bool started = manager->ConnectLidar();
        // The attempt ends connected, failed (its message is shown) or stopped.
        while (started && manager->isConnecting()) QThread::msleep(kConnectPollMs);
        QMetaObject::invokeMethod(
            this, [this] { setConnecting(false); }, Qt::QueuedConnection);
        return QVariant(manager->getIsConnected());
    });
}

void DeskSession::disconnectLidar() {
    queue_.dropQueued();
    manager_.Stop();
    setConnecting(false);
}

void DeskSession::setConnecting(bool on) {
    if (on == connecting_) return;
    connecting_ = on;
    emit connectingChanged();
}

QString DeskSession::localPath(const QUrl& url) const {
    return url.isLocalFile() ? url.toLocalFile() : url.toString();
}

QUrl DeskSession::fileUrl(const QString& path) const {
    return QUrl::fromLocalFile(QFileInfo(path).absoluteFilePath());
}

bool DeskSession::openFolderOf(const QString& path) const {
    const QFileInfo info(path);
    const QString folder = info.isDir() ? info.absoluteFilePath() : info.absolutePath();
    return QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
}

qint64 DeskSession::fileSize(const QString& path) const {
    const QFileInfo info(path);
    return info.isFile() ? info.size() : -1;
}
