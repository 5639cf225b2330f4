import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0
import "../controls"

// The model, the settings of its connection kind, Connect / Disconnect, Restart and Reset.
ScrollView {
    id: view
    clip: true
    readonly property bool linkIdle: !Manager.isConnected && !Desk.connecting
    readonly property bool canRestart: Manager.isConnected && !Desk.queue.busy
                                        && !Manager.isUpgrading && !Manager.isDownloadLog
    readonly property var kindNames: ["network", "serial lines", "VRC over a serial line"]

    // The model chosen while connected, loaded once the disconnect has let the queue empty.
    property string modelAfterDisconnect: ""
    function switchModel(model) {
        Desk.disconnectLidar()
        if (Desk.queue.busy) modelAfterDisconnect = model
        else Desk.selectModel(model)
    }
    Connections {
        target: Desk.queue
        function onBusyChanged() {
            if (Desk.queue.busy || view.modelAfterDisconnect === "") return
            Desk.selectModel(view.modelAfterDisconnect)
            view.modelAfterDisconnect = ""
        }
    }

    function kindOf(model) { return kindNames[Manager.connectTypeOfModel(model)] }
    function serialPortNames() {
        var names = []
        var ports = Manager.availableSerialPorts()
        for (var i = 0; i < ports.length; ++i) names.push(ports[i].systemLocation)
        return names
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        GroupBox {
            title: "Model"
            Layout.fillWidth: true
            RowLayout {
                anchors.fill: parent
                ComboBox {
                    id: modelChooser
                    objectName: "modelChooser"
                    Layout.preferredWidth: 320
                    // While connected, choosing another model disconnects first (asking about
                    // edits not applied yet).
                    enabled: !Desk.connecting && !Desk.queue.busy
                    model: Manager.lidarModelList
                    displayText: currentIndex < 0 ? "choose a model"
                                                  : currentText + " (" + view.kindOf(currentText) + ")"
                    delegate: ItemDelegate {
                        width: modelChooser.width
                        text: modelData + " (" + view.kindOf(modelData) + ")"
                        highlighted: modelChooser.highlightedIndex === index
                    }
                    currentIndex: Manager.lidarModelList.indexOf(Manager.selectedLidarModel)
                    onActivated: {
                        var model = textAt(index)
                        currentIndex = Qt.binding(function() {
                            return Manager.lidarModelList.indexOf(Manager.selectedLidarModel)
                        })
                        if (model === Manager.selectedLidarModel) return
                        if (!Manager.isConnected) {
                            Desk.selectModel(model)
                            return
                        }
                        var choose = function() { view.switchModel(model) }
                        if (unappliedEdits.hasEdits()) {
                            unappliedEdits.whenSettled("disconnect and choose " + model, choose)
                            return
                        }
                        // An arrow key on the chooser is enough to pick a model: the lidar is not
                        // let go without asking.
                        confirm.ask("Choose " + model,
                                    "Disconnect from the lidar and choose " + model + "?",
                                    choose)
                    }
                }
                CheckBox {
                    objectName: "simulatedLidar"
                    text: "Simulated lidar"
                    enabled: view.linkIdle
                    checked: Desk.simulated
                    onToggled: Desk.simulated = checked
                    ToolTip.visible: hovered
                    ToolTip.text: "Connect to a simulator of the selected model instead of a lidar"
                }
            }
        }

        GroupBox {
            title: "Network"
            visible: Manager.connectType !== 1
            Layout.fillWidth: true
            enabled: view.linkIdle && !Desk.simulated
            GridLayout {
                columns: 2
                Label { text: "Address" }
                // An IPv4 address, as the lidar is reached; text left unfinished shows the address
                // kept again. The ports likewise.
                TextField {
                    objectName: "ipAddress"
                    text: Manager.ipAddress
                    Layout.preferredWidth: 240
                    validator: RegularExpressionValidator {
                        regularExpression: /((25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])[.]){3}(25[0-5]|2[0-4][0-9]|1[0-9][0-9]|[1-9]?[0-9])/
                    }
                    onEditingFinished: Manager.ipAddress = text
                    onActiveFocusChanged: {
                        if (!activeFocus && !acceptableInput)
                            text = Qt.binding(function() { return Manager.ipAddress })
                    }
                }
                Label { text: "VRC port" }
                TextField {
                    objectName: "vrcPort"
                    text: Manager.port
                    Layout.preferredWidth: 120
                    validator: IntValidator { bottom: 1; top: 65535 }
                    onEditingFinished: Manager.port = text
                    onActiveFocusChanged: {
                        if (!activeFocus && !acceptableInput)
                            text = Qt.binding(function() { return Manager.port })
                    }
                }
                Label { text: "Local port"; visible: Manager.enableVrcClientHostPortUi }
                TextField {
                    objectName: "localPort"
                    visible: Manager.enableVrcClientHostPortUi
                    text: Manager.vrcClientHostPort
                    Layout.preferredWidth: 120
                    validator: IntValidator { bottom: 1; top: 65535 }
                    onEditingFinished: Manager.vrcClientHostPort = text
                    onActiveFocusChanged: {
                        if (!activeFocus && !acceptableInput)
                            text = Qt.binding(function() { return Manager.vrcClientHostPort })
                    }
                }
            }
        }

        GroupBox {
            title: "Serial lines"
            visible: Manager.connectType !== 0
            Layout.fillWidth: true
            enabled: view.linkIdle && !Desk.simulated
            GridLayout {
                columns: 2
                Label { text: "RS485"; visible: Manager.connectType === 1 }
                ComboBox {
                    objectName: "rs485Device"
                    visible: Manager.connectType === 1
                    editable: true
                    Layout.preferredWidth: 320
                    model: view.serialPortNames()
                    editText: Manager.serial_port_485()
                    onAccepted: Manager.set_serial_port_485(editText)
                    onActivated: Manager.set_serial_port_485(textAt(index))
                }
                Label { text: "UART"; visible: Manager.connectType === 1 }
                ComboBox {
                    objectName: "uartDevice"
                    visible: Manager.connectType === 1
                    editable: true
                    Layout.preferredWidth: 320
                    model: view.serialPortNames()
                    editText: Manager.serial_port_232()
                    onAccepted: Manager.set_serial_port_232(editText)
                    onActivated: Manager.set_serial_port_232(textAt(index))
                }
                Label { text: "Baud rate" }
                // Only a rate is taken: anything else would be stored as a rate of 0. Text left
                // unfinished shows the rate kept again.
                TextField {
                    objectName: "baudRate"
                    text: Manager.baudRate
                    Layout.preferredWidth: 120
                    validator: IntValidator { bottom: 1 }
                    onEditingFinished: Manager.baudRate = text
                    onActiveFocusChanged: {
                        if (!activeFocus && !acceptableInput)
                            text = Qt.binding(function() { return Manager.baudRate })
                    }
                }
            }
        }

        Label {
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            text: "A lidar that asks for authorisation is given the token of the access "
                  + "configuration (Config/auth_config.csv)."
            color: "gray"
        }

        RowLayout {
            Button {
                objectName: "connectButton"
                text: Desk.connecting ? "Connecting..." : "Connect"
                enabled: view.linkIdle && Manager.selectedLidarModel !== ""
                onClicked: Desk.connectLidar()
            }
            Button {
                objectName: "disconnectButton"
                text: "Disconnect"
                enabled: Manager.isConnected || Desk.connecting
                onClicked: unappliedEdits.whenSettled("disconnect", Desk.disconnectLidar)
            }
            Item { width: 24 }
            // The manager refuses both without a word while a transfer runs.
            Button {
                objectName: "restartButton"
                text: "Restart"
                enabled: view.canRestart
                onClicked: confirm.ask("Restart", "Restart the lidar? The connection ends.",
                                       function() { Desk.queue.call("Restart", []) })
            }
            Button {
                objectName: "resetButton"
                text: "Reset"
                enabled: view.canRestart
                onClicked: confirm.ask("Reset",
                                       "Reset the lidar to its factory settings? The connection ends.",
                                       function() { Desk.queue.call("Reset", []) })
            }
        }
    }

    UnappliedEditsDialog { id: unappliedEdits }

    ConfirmDialog {
        id: confirm
        objectName: "confirmDialog"
    }
}
