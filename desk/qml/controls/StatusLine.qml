import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0

// The connection state, the model, the address and what is busy.
Pane {
    id: line
    padding: 6
    // The manager announces its address settings only when a model loads: read again whenever
    // the link may have changed.
    property string address: ""
    function readAddress() {
        address = Manager.connectType === 1
            ? "RS485 " + Manager.serial_port_485() + ", UART " + Manager.serial_port_232()
            : Manager.getIpAddress() + ":" + Manager.getPort()
    }
    Component.onCompleted: readAddress()
    Connections {
        target: Manager
        function onIsConnectedChanged() { line.readAddress() }
        function onInitInfoChanged() { line.readAddress() }
        function onConnectTypeChanged() { line.readAddress() }
    }
    Connections {
        target: Desk
        function onConnectingChanged() { line.readAddress() }
        function onSimulatedChanged() { line.readAddress() }
    }
    readonly property var busyWith: {
        var busy = []
        if (Desk.connecting) busy.push("connecting")
        if (Manager.isUpgrading) busy.push("upgrading")
        if (Manager.isDownloadLog) busy.push("downloading")
        if (Manager.isMonitorRecording) busy.push("recording")
        if (Desk.queue.busy && Desk.queue.running && !Desk.connecting)
            busy.push(describe(Desk.queue.running))
        return busy
    }
    // The queue names the manager operation it runs; a person is told what it does.
    function describe(operation) {
        if (/^(Restart|HeronSendRestartCommand)$/.test(operation)) return "restarting the lidar"
        if (operation === "Reset") return "resetting the lidar"
        if (/^Send/.test(operation)) return "sending a command"
        if (/UpgradeLidar$/.test(operation)) return "starting the upgrade"
        if (/^Download/.test(operation)) return "starting the download"
        if (/^(applyPage|Run|WrenRun|SetMultiFovConfig)$|^(Wren|Heron)Set/.test(operation))
            return "writing to the lidar"
        return "reading the lidar"
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
        Label {
            objectName: "linkAddress"
            text: line.address + (Desk.simulated ? " (simulated)" : "")
        }
        Item { Layout.fillWidth: true }
        Label {
            objectName: "busyWith"
            text: line.busyWith.length > 0 ? "busy: " + line.busyWith.join(", ") : ""
            font.italic: true
        }
    }
}
