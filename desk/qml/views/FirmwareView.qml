import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Qt.labs.platform 1.1 as Platform
import Lidar 1.0

// Firmware upgrade: a package file, pushed by the transfer the model takes (the network models
// with the catalogue's upgrade variable, the serial models with their own transfer, the Heron's
// OTA package component by component), with its progress and the manager's outcome. The upgrade
// runs on the manager's worker once the queue has started it; the counters are polled meanwhile.
ScrollView {
    id: view
    clip: true

    readonly property bool heron: Manager.selectedLidarModel === "Heron-VRC"
    readonly property bool canStart: Manager.isConnected && !Desk.queue.busy
                                     && !Manager.isUpgrading && !Manager.isDownloadLog
                                     && !restartPending && packagePath !== ""
                                     && (!heron || inspection.valid === true)
    property string packagePath: ""
    property var inspection: ({})

    // What the progress shows: KiB sent and to send, and when the transfer began.
    property int progressKiB: 0
    property int totalKiB: 0
    property double startedAt: 0
    property double lastSampleAt: 0
    property bool watching: false
    // From the start until the manager has told the outcome (after the restart, when one follows).
    property bool awaitingOutcome: false
    property int upgradingChanges: 0
    property string outcome: ""
    property bool outcomeIsError: false
    // The network models restart the lidar 10 s after a transfer; Cancel then abandons that.
    property bool restartPending: false
    property int cancelRequests: 0
    property string cancelNote: ""
    // The Heron's components as the upgrade goes through them: name -> "sending" or "sent".
    property var componentStates: ({})
    property string componentSending: ""
    property int kibBeforeComponent: 0

    readonly property int percent: totalKiB > 0 ? Math.min(100, Math.floor(progressKiB * 100 / totalKiB))
                                                : (!watching && outcome !== "" && !outcomeIsError ? 100 : 0)

    function setPackage(path) {
        packagePath = path
        inspection = heron && path !== "" ? Manager.HeronInspectOtaPackage(Desk.fileUrl(path)) : ({})
        componentStates = ({})
        componentSending = ""
    }
    function kibOf(bytes) { return Math.floor((bytes + 1023) / 1024) }
    function sentKiBOf(name) {
        var components = inspection.components || []
        for (var i = 0; i < components.length; ++i)
            if (components[i].name === name) return kibOf(components[i].sent)
        return 0
    }

    function startUpgrade() {
        // The manager would hand an empty package to the transfer, report it sent and restart
        // the lidar for nothing.
        if (Desk.fileSize(packagePath) === 0) {
            outcome = "The package " + packagePath + " is empty; nothing was sent."
            outcomeIsError = true
            return
        }
        var url = Desk.fileUrl(packagePath)
        if (Manager.connectType === 0) {
            var at = Manager.firmwareUpgradeVariable()
            if (at.length !== 3) {
                outcome = Manager.selectedLidarModel + " has no firmware upgrade variable (set command 0x83)."
                outcomeIsError = true
                return
            }
            begin()
            Desk.queue.call("UpgradeLidar", [url, at[0], at[1], at[2]])
        } else {
            begin()
            Desk.queue.call(heron ? "HeronUpgradeLidar" : "WrenUpgradeLidar", [url])
        }
    }
    function begin() {
        restartWait.stop()
        restartPending = false
        outcome = ""
        outcomeIsError = false
        cancelRequests = 0
        cancelNote = ""
        progressKiB = 0
        totalKiB = 0
        startedAt = Date.now()
        componentStates = ({})
        componentSending = ""
        kibBeforeComponent = 0
        upgradingChanges = 0
        watching = true
        awaitingOutcome = true
    }
    // The start returned: refused (the manager told why, or nothing for the network models), or
    // it read no package, in which case the upgrade never began.
    function started(result) {
        if (result !== 0) {
            watching = false
            awaitingOutcome = false
            if (outcome === "") {
                outcome = "The upgrade did not start: the lidar is busy with an upgrade or a log download."
                outcomeIsError = true
            }
        } else if (upgradingChanges === 0) {
            watching = false
            awaitingOutcome = false
            outcome = "Nothing was sent: the package could not be read."
            outcomeIsError = true
        }
    }
    function tellOutcome(text, isError) {
        outcome = text
        outcomeIsError = isError
        restartPending = !isError && text.indexOf("reboot within 10 seconds") >= 0
        awaitingOutcome = restartPending
        if (restartPending) {
            cancelRequests = 0
            cancelNote = ""
            restartWait.restart()
        }
    }
    function sample() {
        progressKiB = Manager.getUpgradeProgress()
        totalKiB = Manager.getUpgradeProgressTotalLen()
        lastSampleAt = Date.now()
    }
    // A half-done upgrade may leave a lidar that does not start: the first request only warns.
    function cancel() {
        if (++cancelRequests === 1) {
            cancelNote = restartPending
                    ? "The lidar is restarted in a few seconds to finish the upgrade. Press Cancel again "
                      + "to abandon the restart (the lidar must then be restarted by hand)."
                    : "The upgrade is still running: stopping now leaves the lidar with part of the "
                      + "package. Press Cancel again to abandon it."
            return
        }
        cancelNote = restartPending ? "Abandoning the automatic restart."
                                    : "Abandoning the upgrade: closing the connection."
        restartPending = false
        Desk.disconnectLidar()
    }

    function rateText() {
        var seconds = (lastSampleAt - startedAt) / 1000
        if (seconds <= 0 || progressKiB <= 0) return ""
        var rate = progressKiB / seconds
        var text = rate.toFixed(1) + " KiB/s"
        if (watching && totalKiB > progressKiB)
            text += ", " + Math.ceil((totalKiB - progressKiB) / rate) + " s left"
        return text
    }
    function componentText(name) {
        var state = componentStates[name]
        if (state === "sent") return "sent"
        if (state !== "sending") return ""
        var own = sentKiBOf(name)
        var done = Math.max(0, progressKiB - kibBeforeComponent)
        return "sending " + (own > 0 ? Math.min(100, Math.floor(done * 100 / own)) : 0) + " %"
    }

    Timer {
        interval: 200
        repeat: true
        running: view.watching
        onTriggered: view.sample()
    }
    Timer {
        id: restartWait
        interval: 15000
        onTriggered: {
            view.restartPending = false
            view.awaitingOutcome = false
        }
    }
    Connections {
        target: Desk.queue
        function onFinished(ticket, method, result) {
            if (view.watching && /UpgradeLidar$/.test(method)) view.started(result)
        }
    }
    Connections {
        target: Manager
        function onIsUpgradingChanged() {
            if (!view.watching) return
            ++view.upgradingChanges
            if (Manager.isUpgrading) return
            view.sample()
            view.watching = false
        }
        function onSuccessMessageChanged() {
            if (view.awaitingOutcome && Manager.successMessage !== "")
                view.tellOutcome(Manager.successMessage, false)
        }
        function onErrorMessageChanged() {
            if (view.awaitingOutcome && Manager.errorMessage !== "")
                view.tellOutcome(Manager.errorMessage, true)
        }
        function onIsConnectedChanged() {
            if (Manager.isConnected || !view.restartPending) return
            restartWait.stop()
            view.restartPending = false
            view.awaitingOutcome = false
        }
        function onSendLogMessage(message, level) {
            if (!view.watching || !view.heron) return
            var states = view.componentStates
            var sending = /^Heron upgrade: sending (\w+) /.exec(message)
            var completed = /^Heron upgrade: (\w+) completed$/.exec(message)
            if (sending) {
                states[sending[1]] = "sending"
                view.componentSending = sending[1]
            } else if (completed) {
                states[completed[1]] = "sent"
                view.kibBeforeComponent += view.sentKiBOf(completed[1])
                view.componentSending = ""
            } else {
                return
            }
            view.componentStates = states
            view.componentStatesChanged()
        }
    }

    Platform.FileDialog {
        id: chooser
        title: view.heron ? "Choose an OTA package" : "Choose a firmware package"
        fileMode: Platform.FileDialog.OpenFile
        nameFilters: view.heron ? ["OTA packages (*.bin *.ota *.pkg)", "All files (*)"]
                                : ["All files (*)"]
        onAccepted: view.setPackage(Desk.localPath(file))
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        GroupBox {
            title: view.heron ? "OTA package" : "Firmware package"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                RowLayout {
                    Layout.fillWidth: true
                    TextField {
                        objectName: "packagePath"
                        Layout.fillWidth: true
                        text: view.packagePath
                        placeholderText: "the package file"
                        enabled: !Manager.isUpgrading
                        onEditingFinished: view.setPackage(text)
                    }
                    Button {
                        text: "Choose..."
                        enabled: !Manager.isUpgrading
                        onClicked: chooser.open()
                    }
                }
                Label {
                    objectName: "packageRefusal"
                    visible: view.heron && view.packagePath !== "" && view.inspection.valid === false
                    Layout.fillWidth: true
                    wrapMode: Text.Wrap
                    color: "firebrick"
                    text: "The upgrade refuses this package: " + (view.inspection.reason || "")
                }
                // The components the Heron upgrade takes from the package (the running
                // application partition is kept: only the other one is written).
                GridLayout {
                    objectName: "componentTable"
                    visible: view.heron && view.inspection.valid === true
                    columns: 6
                    columnSpacing: 16
                    Repeater {
                        model: ["Component", "Type", "Size", "Sent", "CRC-32 sent", "Progress"]
                        Label { text: modelData; font.bold: true }
                    }
                    Repeater {
                        objectName: "componentRows"
                        model: view.heron && view.inspection.components ? view.inspection.components : []
                        delegate: Repeater {
                            id: row
                            readonly property var entry: modelData
                            model: [row.entry.name, String(row.entry.type), row.entry.size + " bytes",
                                    row.entry.sent + " bytes", row.entry.sentCrc32,
                                    view.componentText(row.entry.name)]
                            Label {
                                objectName: index === 4 ? "componentCrc_" + row.entry.name
                                                        : index === 5 ? "componentProgress_" + row.entry.name : ""
                                text: modelData
                                font.family: index === 4 ? "monospace" : Qt.application.font.family
                            }
                        }
                    }
                }
            }
        }

        GroupBox {
            title: "Upgrade"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                RowLayout {
                    Button {
                        objectName: "upgradeButton"
                        text: "Upgrade"
                        enabled: view.canStart
                        onClicked: view.startUpgrade()
                    }
                    Button {
                        objectName: "cancelUpgrade"
                        text: "Cancel"
                        enabled: Manager.isUpgrading || view.restartPending
                        onClicked: view.cancel()
                    }
                    Label {
                        Layout.fillWidth: true
                        wrapMode: Text.Wrap
                        color: "gray"
                        text: Manager.connectType === 0
                              ? "The lidar is restarted 10 s after the package is sent."
                              : view.heron ? "The lidar restarts after its last component; the connection ends."
                                           : "The lidar restarts by itself after the package; the connection ends."
                    }
                }
                ProgressBar {
                    objectName: "upgradeProgressBar"
                    Layout.fillWidth: true
                    from: 0
                    to: 100
                    value: view.percent
                }
                Label {
                    objectName: "upgradePercent"
                    text: view.percent + " %"
                          + (view.totalKiB > 0 ? "  " + view.progressKiB + " of " + view.totalKiB + " KiB" : "")
                          + (view.rateText() !== "" ? "  " + view.rateText() : "")
                }
                Label {
                    objectName: "cancelWarning"
                    visible: text !== ""
                    Layout.fillWidth: true
                    wrapMode: Text.Wrap
                    color: "darkorange"
                    text: view.cancelNote
                }
                Label {
                    objectName: "upgradeOutcome"
                    visible: text !== ""
                    Layout.fillWidth: true
                    wrapMode: Text.Wrap
                    color: view.outcomeIsError ? "firebrick" : "darkgreen"
                    text: view.outcome
                }
            }
        }
    }
}
