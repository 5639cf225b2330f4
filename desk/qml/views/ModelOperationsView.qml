import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0
import "../controls"

// The operations of the models that the catalogue's tables cannot express: the Wren's standby,
// spin rate, return mode and function-safety state (over its serial lines or VRC), its baud rate,
// data destination and network settings (over VRC only), and the Heron's versions, IMU ranges
// and restart. Every one goes through the queue; the manager's messages tell the outcome.
ScrollView {
    id: view
    objectName: "modelOperationsView"
    clip: true

    readonly property string model: Manager.selectedLidarModel
    readonly property bool wren: model === "Wren" || model === "Wren-VRC"
    readonly property bool wrenOverVrc: model === "Wren-VRC"
    readonly property bool heron: model === "Heron-VRC"
    readonly property bool idle: Manager.isConnected && !Desk.queue.busy
    // The confirmation asked before an operation that ends the connection.
    readonly property alias confirmDialog: confirm

    // The IMU range codes the lidar takes, by the index the lists offer.
    readonly property var angularCodes: [0, 1, 2, 3, 4, 8]
    readonly property var accelerationCodes: [0, 1, 2, 3]
    // What the readers last returned, by the ticket the queue gave their call.
    readonly property var pending: ({})
    property var safety: []
    property bool safetyRead: false
    property string restartOutcome: ""
    // The Heron's version texts, re-read from the manager when it announces them.
    property var heronVersions: ({ model: "", bmbFpga: "", tmbFpga: "", bmbMcu: "" })

    // A device call through the queue whose result `handle` takes on the UI thread.
    function callThen(method, args, handle) {
        var ticket = Desk.queue.call(method, args)
        if (ticket >= 0) pending[ticket] = handle
        return ticket
    }
    function finished(ticket, result) {
        var handle = pending[ticket]
        if (handle === undefined) return
        delete pending[ticket]
        handle(result)
    }

    // A catalogue variable's entry in the manager's map, by name (null when the model has none).
    function catalogueVariable(name) {
        var map = Manager.catalogueVariableMap()
        for (var m = 0; m < map.length; ++m)
            for (var p = 0; p < map[m].length; ++p)
                for (var v = 0; v < map[m][p].length; ++v)
                    if (map[m][p][v].var_name === name) return map[m][p][v]
        return null
    }
    // The module that holds a catalogue variable, or -1.
    function moduleOf(name) {
        var map = Manager.catalogueVariableMap()
        for (var m = 0; m < map.length; ++m)
            for (var p = 0; p < map[m].length; ++p)
                for (var v = 0; v < map[m][p].length; ++v)
                    if (map[m][p][v].var_name === name) return m
        return -1
    }
    // The Wren's modes as the lidar last reported them, into their controls (a mode the lidar has
    // not reported leaves its control as it is).
    function showReportedModes() {
        var standby = catalogueVariable("Standby")
        if (standby && standby.current_val !== "") standbySwitch.checked = standby.current_val === "1"
        var rate = catalogueVariable("Spin Rate")
        if (rate && rate.current_val !== "") spinRate.value = Number(rate.current_val)
        var mode = catalogueVariable("Return Mode")
        if (mode && (mode.current_val === "0" || mode.current_val === "1"))
            returnMode.currentIndex = Number(mode.current_val)
    }
    // The IMU ranges the lidar last reported, as indexes of the code lists.
    function showReportedImuRanges() {
        var angular = catalogueVariable("IMU Angular Range")
        var index = angular ? angularCodes.indexOf(Number(angular.current_val)) : -1
        if (angular && angular.current_val !== "" && index >= 0) angularRange.currentIndex = index
        var acceleration = catalogueVariable("IMU Acceleration Range")
        index = acceleration ? accelerationCodes.indexOf(Number(acceleration.current_val)) : -1
        if (acceleration && acceleration.current_val !== "" && index >= 0)
            accelerationRange.currentIndex = index
    }
    function readImuRanges() {
        var module = moduleOf("IMU Angular Range")
        if (module >= 0) callThen("readModule", [module], function() { showReportedImuRanges() })
    }
    function readModes() {
        var module = moduleOf("Standby")
        if (module >= 0) callThen("readModule", [module], function() { showReportedModes() })
    }
    // The option texts a catalogue variable gives to `codes`, or `fallback`.
    function optionTexts(name, codes, fallback) {
        var variable = catalogueVariable(name)
        if (!variable) return fallback
        var texts = []
        for (var i = 0; i < codes.length; ++i) {
            var text = variable.varname_value_to_option[String(codes[i])]
            texts.push(text ? text : fallback[i])
        }
        return texts
    }

    function isIpv4(text) {
        var parts = text.split(".")
        if (parts.length !== 4) return false
        for (var i = 0; i < 4; ++i) {
            // "010" is refused as the lidar refuses it: no octal guess.
            if (!/^(0|[1-9]\d{0,2})$/.test(parts[i]) || Number(parts[i]) > 255) return false
        }
        return true
    }
    function isPort(text) { return /^\d{1,5}$/.test(text) && Number(text) <= 65535 }

    function readSafety() {
        callThen("WrenGetLidarFunctionSafety", [], function(list) {
            safety = list
            safetyRead = true
        })
    }
    function readBaudRate() {
        callThen("WrenGetBaudRate", [], function(rate) {
            if (rate !== "") baudRateField.text = rate
        })
    }
    function readDestination(quiet) {
        callThen("WrenGetDestinationConfig", [quiet], function(list) {
            if (list.length < 2) return
            destinationAddress.text = list[0]
            destinationPort.text = list[1]
        })
    }
    function readNetwork(quiet) {
        callThen("WrenGetNetConfig", [quiet], function(list) {
            if (list.length < 3) return
            netAddress.text = list[0]
            netMask.text = list[1]
            netGateway.text = list[2]
        })
    }
    function setDestination() {
        if (!isIpv4(destinationAddress.text) || !isPort(destinationPort.text)) {
            Manager.showErrorMessage("The destination is an IPv4 address and a port (0-65535).")
            return
        }
        Desk.queue.call("WrenSetDestinationIPandPort",
                        [destinationAddress.text, Number(destinationPort.text)])
    }
    function setNetwork() {
        if (!isIpv4(netAddress.text) || !isIpv4(netMask.text) || !isIpv4(netGateway.text)) {
            Manager.showErrorMessage("The address, netmask and gateway are IPv4 addresses.")
            return
        }
        confirm.ask("Network settings",
                    "Write the network settings? The connection closes afterwards; a changed TCP "
                    + "setting needs a restart of the lidar.",
                    function() {
                        var vlan = vlanEnabled.checked
                        Desk.queue.call("WrenSetNet", [netAddress.text, netMask.text,
                                                       netGateway.text, vlan ? 1 : 0,
                                                       vlan ? vlanId.value : 0])
                    })
    }
    function readHeronVersions() {
        if (Manager.isConnected) Desk.queue.call("HeronGetVersionInfo", [])
    }
    function reloadHeronVersions() {
        heronVersions = { model: Manager.getHeronModelVersionText(),
                          bmbFpga: Manager.getHeronBmbFpgaVersion(),
                          tmbFpga: Manager.getHeronTmbFpgaVersion(),
                          bmbMcu: Manager.getHeronBmbMcuVersion() }
    }
    function restartHeron() {
        callThen("HeronSendRestartCommand", [], function(ret) {
            // The manager's own log texts for the three outcomes.
            restartOutcome = ret === 0 ? "Heron restart command sent"
                           : ret === -1 ? "Heron restart: VRC not available"
                           : "Heron restart command failed, ret:" + ret
            // The lidar closes the connection as it restarts.
            if (ret === 0) Desk.disconnectLidar()
        })
    }
    // What the view reads by itself when it opens on a connected lidar: nothing that could
    // change the lidar, and nothing that shows a message when it fails.
    function readOnOpen() {
        if (!Manager.isConnected) return
        if (wren) readModes()
        if (heron) {
            readHeronVersions()
            readImuRanges()
        }
        if (wrenOverVrc) {
            readDestination(true)
            readNetwork(true)
        }
    }

    Component.onCompleted: {
        reloadHeronVersions()
        readOnOpen()
    }
    Connections {
        target: Desk.queue
        function onFinished(ticket, method, result) { view.finished(ticket, result) }
    }
    Connections {
        target: Manager
        function onWrenLidarInfoChanged() { view.reloadHeronVersions() }
        function onIsConnectedChanged() {
            if (!Manager.isConnected) return
            // What was shown belongs to the lidar before.
            view.safetyRead = false
            view.restartOutcome = ""
            standbySwitch.checked = false
            view.readOnOpen()
        }
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        Label {
            text: view.model === "" ? "Model operations" : view.model + " operations"
            font.bold: true
            font.pointSize: 13
        }
        Label {
            visible: !view.wren && !view.heron
            text: "This model has no operations of its own."
            color: "gray"
        }

        // ---- Wren: the modes, over either connection ----
        GroupBox {
            title: "Scanning"
            visible: view.wren
            Layout.fillWidth: true
            GridLayout {
                columns: 3
                enabled: view.idle
                Label { text: "Standby" }
                Switch {
                    id: standbySwitch
                    objectName: "standbySwitch"
                    checked: false
                    onToggled: Desk.queue.call("WrenSetStandby", [checked ? 1 : 0])
                }
                Item { width: 1 }

                Label { text: "Spin rate (Hz)" }
                SpinBox {
                    id: spinRate
                    objectName: "spinRate"
                    from: 0
                    to: 255
                    value: 10
                    editable: true
                }
                Button {
                    objectName: "spinRateApply"
                    text: "Set"
                    onClicked: Desk.queue.call("WrenSetSpinRate", [spinRate.value])
                }

                Label { text: "Return mode" }
                ComboBox {
                    id: returnMode
                    objectName: "returnMode"
                    Layout.preferredWidth: 200
                    model: view.wren ? view.optionTexts("Return Mode", [0, 1], ["Strongest", "Last"])
                                     : []
                }
                Button {
                    objectName: "returnModeApply"
                    text: "Set"
                    onClicked: Desk.queue.call("WrenSetReturnMode", [returnMode.currentIndex])
                }
            }
        }

        GroupBox {
            title: "Function safety"
            visible: view.wren
            Layout.fillWidth: true
            GridLayout {
                columns: 2
                Label { text: "State" }
                Label {
                    objectName: "safetyState"
                    text: !view.safetyRead ? "not read"
                                           : view.safety.length > 0 ? view.safety[0] : "not known"
                }
                Label { text: "Fault codes" }
                Label {
                    objectName: "safetyCodes"
                    text: !view.safetyRead || view.safety.length === 0
                          ? "-" : view.safety.length === 1 ? "none"
                                                           : view.safety.slice(1).join(", ")
                }
                Button {
                    objectName: "safetyRead"
                    text: "Read"
                    enabled: view.idle
                    onClicked: view.readSafety()
                }
            }
        }

        // ---- Wren over VRC: the serial rate, the data destination, the network ----
        GroupBox {
            title: "Serial baud rate"
            visible: view.wrenOverVrc
            Layout.fillWidth: true
            RowLayout {
                enabled: view.idle
                TextField {
                    id: baudRateField
                    objectName: "baudRateField"
                    Layout.preferredWidth: 160
                    placeholderText: "bit/s"
                }
                Button {
                    objectName: "baudRateRead"
                    text: "Read"
                    onClicked: view.readBaudRate()
                }
                Button {
                    objectName: "baudRateApply"
                    text: "Set"
                    onClicked: Desk.queue.call("WrenSetBaudRateFromUI", [baudRateField.text])
                }
            }
        }

        GroupBox {
            title: "Data destination"
            visible: view.wrenOverVrc
            Layout.fillWidth: true
            RowLayout {
                enabled: view.idle
                Label { text: "Address" }
                TextField {
                    id: destinationAddress
                    objectName: "destinationAddress"
                    Layout.preferredWidth: 180
                }
                Label { text: "Port" }
                TextField {
                    id: destinationPort
                    objectName: "destinationPort"
                    Layout.preferredWidth: 90
                }
                Button {
                    objectName: "destinationRead"
                    text: "Read"
                    onClicked: view.readDestination(false)
                }
                Button {
                    objectName: "destinationApply"
                    text: "Set"
                    onClicked: view.setDestination()
                }
            }
        }

        GroupBox {
            title: "Network"
            visible: view.wrenOverVrc
            Layout.fillWidth: true
            GridLayout {
                columns: 2
                enabled: view.idle
                Label { text: "Address" }
                TextField { id: netAddress; objectName: "netAddress"; Layout.preferredWidth: 180 }
                Label { text: "Netmask" }
                TextField { id: netMask; objectName: "netMask"; Layout.preferredWidth: 180 }
                Label { text: "Gateway" }
                TextField { id: netGateway; objectName: "netGateway"; Layout.preferredWidth: 180 }
                CheckBox { id: vlanEnabled; objectName: "vlanEnabled"; text: "VLAN" }
                SpinBox {
                    id: vlanId
                    objectName: "vlanId"
                    enabled: vlanEnabled.checked
                    from: 1
                    to: 4094
                    editable: true
                }
                Button {
                    objectName: "netRead"
                    text: "Read"
                    onClicked: view.readNetwork(false)
                }
                Button {
                    objectName: "netApply"
                    text: "Set"
                    onClicked: view.setNetwork()
                }
            }
        }

        // ---- Heron ----
        GroupBox {
            title: "Versions"
            visible: view.heron
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                ReadOnlyField {
                    objectName: "heronModelVersion"
                    Layout.fillWidth: true
                    label: "Model version"
                    value: view.heronVersions.model
                }
                ReadOnlyField {
                    objectName: "heronBmbFpgaVersion"
                    Layout.fillWidth: true
                    label: "Base-board FPGA"
                    value: view.heronVersions.bmbFpga
                }
                ReadOnlyField {
                    objectName: "heronTmbFpgaVersion"
                    Layout.fillWidth: true
                    label: "Top-board FPGA"
                    value: view.heronVersions.tmbFpga
                }
                ReadOnlyField {
                    objectName: "heronBmbMcuVersion"
                    Layout.fillWidth: true
                    label: "Base-board MCU"
                    value: view.heronVersions.bmbMcu
                }
                Button {
                    objectName: "heronVersionsRead"
                    text: "Read again"
                    enabled: view.idle
                    onClicked: view.readHeronVersions()
                }
            }
        }

        GroupBox {
            title: "IMU ranges"
            visible: view.heron
            Layout.fillWidth: true
            RowLayout {
                enabled: view.idle
                Label { text: "Angular" }
                ComboBox {
                    id: angularRange
                    objectName: "imuAngularRange"
                    Layout.preferredWidth: 150
                    model: view.heron ? view.optionTexts("IMU Angular Range", view.angularCodes,
                                                         ["125 dps", "250 dps", "500 dps",
                                                          "1000 dps", "2000 dps", "4000 dps"])
                                      : []
                }
                Label { text: "Acceleration" }
                ComboBox {
                    id: accelerationRange
                    objectName: "imuAccelerationRange"
                    Layout.preferredWidth: 150
                    model: view.heron ? view.optionTexts("IMU Acceleration Range",
                                                         view.accelerationCodes,
                                                         ["2 g", "4 g", "8 g", "16 g"])
                                      : []
                }
                Button {
                    objectName: "imuApply"
                    text: "Set"
                    onClicked: Desk.queue.call("HeronSetIMURange", [angularRange.currentIndex,
                                                                    accelerationRange.currentIndex])
                }
            }
        }

        GroupBox {
            title: "Restart"
            visible: view.heron
            Layout.fillWidth: true
            RowLayout {
                Button {
                    objectName: "heronRestart"
                    text: "Restart the lidar"
                    enabled: view.idle
                    onClicked: confirm.ask("Restart", "Restart the lidar? The connection ends.",
                                           view.restartHeron)
                }
                Label {
                    objectName: "restartOutcome"
                    text: view.restartOutcome
                }
            }
        }
    }

    ConfirmDialog {
        id: confirm
        objectName: "operationConfirm"
    }
}
