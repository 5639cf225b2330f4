#include "desk_session.h"

#include <QDesktopServices>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStringList>
#include <QThread>

#include "file_checks.h"
#include "lidar_utilities_manager.h"
#include "sdk/vrc_client.h"

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

// At most this many failed requests are named in one message; the rest are counted.
constexpr size_t kFailuresNamed = 4;

QString readFailuresText(const std::vector<LidarUtilitiesManager::ReadFailure>& failures) {
    QStringList lines;
    for (size_t i = 0; i < failures.size() && i < kFailuresNamed; ++i) {
        QStringList names;
        for (const std::string& name : failures[i].names) names << QString::fromStdString(name);
        lines << "Could not read " + names.join(", ") + " (request " +
                     QString::fromStdString(failures[i].request) +
                     "): " + QString::fromStdString(lidar::DescribeVrcResult(failures[i].code));
    }
    if (failures.size() > kFailuresNamed)
        lines << QString("and %1 more requests").arg(failures.size() - kFailuresNamed);
    return lines.join("\n");
}

}  // namespace

DeskSession::DeskSession(LidarUtilitiesManager& manager, QString configDir, QObject* parent)
    : QObject(parent),
      manager_(manager),
      configDir_(std::move(configDir)),
      queue_(manager),
      simulator_(configDir_) {
    connect(&manager_, &LidarUtilitiesManager::isConnectedChanged, this,
            [this] { setConnecting(false); });
    connect(&queue_, &DeviceQueue::finished, this,
            [this](int, const QString& method, const QVariant&) { tellReadFailures(method); });
}

// The manager keeps a read's failed requests to itself (the values stay as they were): the
// window tells them as it tells a failed operation. A read cut short by a disconnect is not
// told; the disconnect says enough.
void DeskSession::tellReadFailures(const QString& method) {
    if (method != "readModule" || !manager_.getIsConnected()) return;
    const std::vector<LidarUtilitiesManager::ReadFailure> failures =
        manager_.getLastModuleReadFailures();
    if (!failures.empty()) manager_.showErrorMessage(readFailuresText(failures));
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

QString DeskSession::folderProblem(const QString& folder) const {
    return folderWriteProblem(folder);
}

bool DeskSession::openFolderOf(const QString& path) const {
    const QFileInfo info(path);
    const QString folder = info.isDir() ? info.absoluteFilePath() : info.absolutePath();
    return QDesktopServices::openUrl(QUrl::fromLocalFile(folder));
}
