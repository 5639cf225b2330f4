// lidarutil ports: the machine's serial ports, for --rs485 and --uart. Listing them needs no
// catalogue and no lidar, so it runs from any folder, as ota does.

#include <QJsonArray>
#include <QJsonObject>

#include "commands.h"
#include "output.h"
#include "session.h"

namespace cli {
namespace {

// "/dev/ttyUSB0: USB serial adapter, made by Maker, serial number 1234"; the fields the system
// does not know are left out.
QString portLine(const QVariantMap& port) {
    QStringList known;
    if (const QString text = port.value("description").toString(); !text.isEmpty()) known << text;
    if (const QString text = port.value("manufacturer").toString(); !text.isEmpty())
        known << "made by " + text;
    if (const QString text = port.value("serialNumber").toString(); !text.isEmpty())
        known << "serial number " + text;
    const QString location = port.value("systemLocation").toString();
    return known.isEmpty() ? location : location + ": " + known.join(", ");
}

}  // namespace

int commandPorts(const Options& options) {
    Session session(options);
    const QVariantList ports = session.manager().availableSerialPorts();
    if (options.json) {
        printJson(QJsonDocument(QJsonArray::fromVariantList(ports)));
        return kExitOk;
    }
    if (ports.isEmpty()) printResult("no serial ports found (pseudo-terminals are not listed)");
    for (const QVariant& port : ports) printResult(portLine(port.toMap()));
    return kExitOk;
}

}  // namespace cli
