// The machine's serial ports, as the system reports them: what a connection view offers for the
// serial models' lines. The lines themselves are opened with termios (docs/protocol.md, "Serial
// lines"); only the listing uses QtSerialPort.

#include <QSerialPortInfo>

#include "lidar_utilities_manager.h"

QVariantList LidarUtilitiesManager::availableSerialPorts() const {
    QVariantList ports;
    for (const QSerialPortInfo& port : QSerialPortInfo::availablePorts())
        ports.append(QVariantMap{{"portName", port.portName()},
                                 {"systemLocation", port.systemLocation()},
                                 {"description", port.description()},
                                 {"manufacturer", port.manufacturer()},
                                 {"serialNumber", port.serialNumber()}});
    return ports;
}
