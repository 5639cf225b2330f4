#include "desk_probe.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include "desk_session.h"

DeskProbe::DeskProbe(DeskSession& session, QString folder, QObject* parent)
    : QObject(parent), session_(session), folder_(std::move(folder)) {}

QString DeskProbe::block(int command) const {
    const sim::LidarSimulator* lidar = session_.simulator().network();
    if (lidar == nullptr) return QString();
    const std::vector<uint8_t> bytes = lidar->Block(static_cast<uint8_t>(command));
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()))
        .toHex(' ');
}

bool DeskProbe::writeBlock(int command, int offset, const QString& hex) {
    sim::LidarSimulator* lidar = session_.simulator().network();
    const QByteArray text = hex.toLatin1().replace(' ', "");
    if (lidar == nullptr || offset < 0 || text.isEmpty() || text.size() % 2 != 0) return false;
    const QByteArray bytes = QByteArray::fromHex(text);
    if (bytes.toHex() != text.toLower()) return false;  // fromHex skips what is not a digit
    lidar->WriteBlock(static_cast<uint8_t>(command), {}, static_cast<size_t>(offset),
                      std::vector<uint8_t>(bytes.begin(), bytes.end()));
    return true;
}

int DeskProbe::requestCount(int command) const {
    const auto code = static_cast<uint8_t>(command);
    if (const sim::LidarSimulator* lidar = session_.simulator().network())
        return static_cast<int>(lidar->RequestCount(code));
    if (const sim::SerialLidarSimulator* lidar = session_.simulator().serial())
        return static_cast<int>(lidar->RequestCount(code));
    return 0;
}

void DeskProbe::resetCounters() {
    if (sim::LidarSimulator* lidar = session_.simulator().network()) lidar->ResetCounters();
    if (sim::SerialLidarSimulator* lidar = session_.simulator().serial()) lidar->ResetCounters();
}

bool DeskProbe::setFault(int command, const QString& fault) {
    sim::Fault parsed;
    if (!sim::Fault::Parse(fault.toStdString(), parsed)) return false;
    const auto code = static_cast<uint8_t>(command);
    if (sim::LidarSimulator* lidar = session_.simulator().network()) {
        lidar->SetFault(code, parsed);
        return true;
    }
    if (sim::SerialLidarSimulator* lidar = session_.simulator().serial()) {
        lidar->SetFault(code, parsed);
        return true;
    }
    return false;
}

void DeskProbe::clearFaults() {
    if (sim::LidarSimulator* lidar = session_.simulator().network()) lidar->ClearFaults();
    if (sim::SerialLidarSimulator* lidar = session_.simulator().serial()) lidar->ClearFaults();
}

QVariantMap DeskProbe::serialState() const {
    const sim::SerialLidarSimulator* lidar = session_.simulator().serial();
    if (lidar == nullptr) return {};
    const sim::SerialState state = lidar->GetState();
    return {{"standby", state.standby},
            {"spinRate", state.spinRate},
            {"returnMode", state.returnMode},
            {"faultState", state.faultState}};
}

QString DeskProbe::writeFile(const QString& name, int size) const {
    const QString path = QDir(folder_).filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) return QString();
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xFF);
    file.write(bytes);
    return path;
}

qint64 DeskProbe::fileSize(const QString& path) const {
    const QFileInfo info(path);
    return info.exists() ? info.size() : -1;
}

QStringList DeskProbe::filesIn(const QString& folder) const {
    return QDir(folder).entryList(QDir::Files, QDir::Name);
}

QString DeskProbe::readText(const QString& path) const {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return QString();
    return QString::fromUtf8(file.readAll());
}
