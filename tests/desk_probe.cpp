#include "desk_probe.h"

#include <zlib.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QImage>
#include <QKeyEvent>
#include <QQuickItem>
#include <QQuickWindow>
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "desk_session.h"
#include "heron_ota_package.h"

DeskProbe::DeskProbe(DeskSession& session, QString folder, QObject* parent)
    : QObject(parent), session_(session), folder_(std::move(folder)) {}

QString DeskProbe::block(int command) const {
    const sim::LidarSimulator* lidar = session_.simulator().network();
    if (lidar == nullptr) return QString();
    const std::vector<uint8_t> bytes = lidar->Block(static_cast<uint8_t>(command));
    return QByteArray(reinterpret_cast<const char*>(bytes.data()), static_cast<int>(bytes.size()))
        .toHex(' ');
}

namespace {

void sendKey(QObject* item, int key, const QString& text) {
    QKeyEvent press(QEvent::KeyPress, key, Qt::NoModifier, text);
    QGuiApplication::sendEvent(item, &press);
    QKeyEvent release(QEvent::KeyRelease, key, Qt::NoModifier, text);
    QGuiApplication::sendEvent(item, &release);
}

}  // namespace

void DeskProbe::typeText(QObject* item, const QString& text) const {
    if (item == nullptr) return;
    for (const QChar character : text) sendKey(item, character.toUpper().unicode(), character);
}

void DeskProbe::pressKey(QObject* item, int key) const {
    if (item != nullptr) sendKey(item, key, QString());
}

void DeskProbe::pressKeyInWindow(QObject* item, int key) const {
    const auto* quickItem = qobject_cast<QQuickItem*>(item);
    if (quickItem != nullptr && quickItem->window() != nullptr)
        sendKey(quickItem->window(), key, QString());
}

QString DeskProbe::grabItem(QObject* item, const QString& name) const {
    const auto* quickItem = qobject_cast<QQuickItem*>(item);
    if (quickItem == nullptr || quickItem->window() == nullptr) return QString();
    const QImage window = quickItem->window()->grabWindow();
    const qreal scale = window.width() / static_cast<qreal>(quickItem->window()->width());
    const QRectF scene = quickItem->mapRectToScene(quickItem->boundingRect());
    const QRect pixels(qRound(scene.x() * scale), qRound(scene.y() * scale),
                       qRound(scene.width() * scale), qRound(scene.height() * scale));
    const QString path = QDir(folder_).filePath(name);
    return window.copy(pixels).save(path, "PNG") ? path : QString();
}

int DeskProbe::pixelsOfColour(const QString& path, const QColor& colour, int tolerance,
                              int fromX) const {
    QImage image;
    if (!image.load(path)) return -1;
    image = image.convertToFormat(QImage::Format_RGB32);
    int count = 0;
    for (int y = 0; y < image.height(); ++y) {
        const auto* line = reinterpret_cast<const QRgb*>(image.constScanLine(y));
        for (int x = std::max(fromX, 0); x < image.width(); ++x)
            if (std::abs(qRed(line[x]) - colour.red()) <= tolerance &&
                std::abs(qGreen(line[x]) - colour.green()) <= tolerance &&
                std::abs(qBlue(line[x]) - colour.blue()) <= tolerance)
                ++count;
    }
    return count;
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
    sim::SerialState state;
    if (const sim::SerialLidarSimulator* lidar = session_.simulator().serial())
        state = lidar->GetState();
    else if (const sim::LidarSimulator* network = session_.simulator().network())
        state = network->GetSerialState();
    else
        return {};
    return {{"standby", state.standby},
            {"spinRate", state.spinRate},
            {"returnMode", state.returnMode},
            {"faultState", state.faultState}};
}

bool DeskProbe::setFaultState(int state, const QVariantList& codes) {
    std::vector<uint16_t> faultCodes;
    for (const QVariant& code : codes) faultCodes.push_back(static_cast<uint16_t>(code.toUInt()));
    const auto stateByte = static_cast<uint8_t>(state);
    if (sim::SerialLidarSimulator* lidar = session_.simulator().serial()) {
        lidar->SetFaultState(stateByte, faultCodes);
        return true;
    }
    if (sim::LidarSimulator* lidar = session_.simulator().network()) {
        lidar->SetSerialFaultState(stateByte, faultCodes);
        return true;
    }
    return false;
}

namespace {

std::vector<uint8_t> bytesOfHex(const QString& hex) {
    const QByteArray bytes = QByteArray::fromHex(hex.toLatin1());
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

}  // namespace

QString DeskProbe::blockText(int command, const QString& payloadHex, int offset, int length) const {
    const auto code = static_cast<uint8_t>(command);
    std::vector<uint8_t> block;
    if (const sim::LidarSimulator* lidar = session_.simulator().network())
        block = lidar->Block(code, bytesOfHex(payloadHex));
    else if (const sim::SerialLidarSimulator* lidar = session_.simulator().serial())
        block = lidar->Block(code, bytesOfHex(payloadHex));
    QByteArray text;
    for (int i = offset; i < offset + length && i < static_cast<int>(block.size()); ++i) {
        if (block[i] == 0) break;
        text.append(static_cast<char>(block[i]));
    }
    return QString::fromLatin1(text);
}

bool DeskProbe::writeBlockText(int command, const QString& payloadHex, int offset, int length,
                               const QString& text) {
    sim::LidarSimulator* lidar = session_.simulator().network();
    const QByteArray bytes = text.toLatin1();
    if (lidar == nullptr || bytes.size() > length) return false;
    std::vector<uint8_t> padded(static_cast<size_t>(length), 0);
    std::copy(bytes.begin(), bytes.end(), padded.begin());
    lidar->WriteBlock(static_cast<uint8_t>(command), bytesOfHex(payloadHex),
                      static_cast<size_t>(offset), padded);
    return true;
}

namespace {

QString crcText(uint32_t crc) {
    return "0x" + QString::number(crc, 16).toUpper().rightJustified(8, '0');
}

QVariantMap transferMap(const sim::Transfer& transfer) {
    return {{"command", int(transfer.command)},
            {"announcedSize", qint64(transfer.announcedSize)},
            {"receivedSize", qint64(transfer.receivedSize)},
            {"receivedCrc", crcText(transfer.receivedCrc)},
            {"completed", transfer.completed}};
}

}  // namespace

QVariantList DeskProbe::transfers() const {
    std::vector<sim::Transfer> received;
    if (const sim::LidarSimulator* lidar = session_.simulator().network())
        received = lidar->Transfers();
    else if (const sim::SerialLidarSimulator* lidar = session_.simulator().serial())
        received = lidar->Transfers();
    QVariantList list;
    for (const sim::Transfer& transfer : received) list.append(transferMap(transfer));
    return list;
}

QVariantList DeskProbe::components() const {
    QVariantList list;
    const sim::LidarSimulator* lidar = session_.simulator().network();
    if (lidar == nullptr) return list;
    for (const sim::Component& component : lidar->Components()) {
        const uint32_t crc = static_cast<uint32_t>(
            crc32(0L, component.bytes.data(), static_cast<uInt>(component.bytes.size())));
        list.append(QVariantMap{{"type", int(component.type)},
                                {"size", qint64(component.bytes.size())},
                                {"crc", crcText(crc)},
                                {"completed", component.completed}});
    }
    return list;
}

QString DeskProbe::crc32Of(const QString& path) const {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) return QString();
    const QByteArray bytes = file.readAll();
    return crcText(static_cast<uint32_t>(crc32(
        0L, reinterpret_cast<const Bytef*>(bytes.constData()), static_cast<uInt>(bytes.size()))));
}

QString DeskProbe::writeOtaPackage(const QString& name, const QVariantMap& sizes) const {
    std::array<std::optional<u8Array_t>, heron_ota::kComponentCount> parts;
    for (auto size = sizes.begin(); size != sizes.end(); ++size) {
        const std::optional<size_t> index = heron_ota::ComponentIndex(size.key().toStdString());
        if (!index) return QString();
        u8Array_t bytes(static_cast<size_t>(size.value().toInt()));
        for (size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = static_cast<uint8_t>(i * 13 + *index * 41 + (i >> 9));
        parts[*index] = std::move(bytes);
    }
    u8Array_t package;
    std::string error;
    if (!heron_ota::BuildPackage(parts, package, error)) return QString();
    const QString path = QDir(folder_).filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) ||
        file.write(reinterpret_cast<const char*>(package.data()), qint64(package.size())) !=
            qint64(package.size()))
        return QString();
    return path;
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

QString DeskProbe::writeText(const QString& name, const QString& text) const {
    const QString path = QDir(folder_).filePath(name);
    QFile file(path);
    const QByteArray bytes = text.toUtf8();
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) return QString();
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
