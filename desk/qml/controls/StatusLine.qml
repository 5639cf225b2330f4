import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0

// The connection state, the model, the address and what is busy.
Pane {
    id: line
    padding: 6
    readonly property string address: Manager.connectType === 1
        ? "RS485 " + Manager.serial_port_485() + ", UART " + Manager.serial_port_232()
        : Manager.ipAddress + ":" + Manager.port
    readonly property var busyWith: {
        var busy = []
        if (Desk.connecting) busy.push("connecting")
        if (Manager.isUpgrading) busy.push("upgrading")
        if (Manager.isDownloadLog) busy.push("downloading")
        if (Manager.isMonitorRecording) busy.push("recording")
        if (Desk.queue.busy && Desk.queue.running && !Desk.connecting) busy.push(Desk.queue.running)
        return busy
    }
    RowLayout {
        anchors.fill: parent
        Label {
            objectName: "connectionState"
            text: Manager.isConnected ? "connected" : (Desk.connecting ? "connecting" : "disconnected")
            font.bold: true
            color: Manager.isConnected ? "darkgreen" : "firebrick"
        }
        Label { text: Manager.selectedLidarModel || "no model" }
        Label { text: line.address + (Desk.simulated ? " (simulated)" : "") }
        Item { Layout.fillWidth: true }
        BusyIndicator {
            running: line.busyWith.length > 0
            implicitHeight: 20
            implicitWidth: 20
        }
        Label {
            objectName: "busyWith"
            text: line.busyWith.join(", ")
        }
    }
}
