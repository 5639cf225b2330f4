import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Qt.labs.platform 1.1 as Platform
import Lidar 1.0

// The monitor module: its hardware variant, its values refreshed once a second by the manager's
// auto-refresh, live charts of the values chosen, and recordings of them to CSV.
ScrollView {
    id: view
    clip: true

    readonly property bool hasMonitor: Manager.monitorModuleIndex >= 0
    readonly property bool canRead: Manager.isConnected && hasMonitor
    // When the running recording began (ms since the epoch), for its time left.
    property double recordStartedAt: 0
    property double now: Date.now()

    // The monitor module's shown variables, page by page, from the manager's variable map: name,
    // value, and the unit the catalogue appends to the name.
    function monitorRows(map, module, labels) {
        var rows = []
        if (module < 0 || module >= map.length) return rows
        var pages = map[module]
        for (var p = 0; p < pages.length; ++p) {
            for (var v = 0; v < pages[p].length; ++v) {
                var variable = pages[p][v]
                var label = rows.length < labels.length ? labels[rows.length] : ""
                var suffix = label.indexOf(variable.var_name) === 0
                        ? label.slice(variable.var_name.length).trim() : ""
                rows.push({ name: variable.var_name, value: variable.current_val,
                            unit: suffix.replace(/^[\(\[]/, "").replace(/[\)\]]$/, "") })
            }
        }
        return rows
    }
    function secondsLeft() {
        var elapsed = Math.floor((view.now - view.recordStartedAt) / 1000)
        return Math.max(Manager.monitorRecordDurationSec - elapsed, 0)
    }
    // Re-read at every tick of the recording's clock.
    function rowsWritten() {
        view.now
        return Manager.getMonitorRecordRowCount()
    }
    function clockText(seconds) {
        var minutes = Math.floor(seconds / 60)
        var rest = seconds % 60
        return minutes + ":" + (rest < 10 ? "0" : "") + rest
    }

    // Every reading the manager announces is a new point of the charts, whether the auto-refresh,
    // a recording or the refresh button made it.
    Connections {
        target: Manager
        function onMyMapChanged() {
            if (Manager.isConnected && view.hasMonitor)
                monitorChart.appendReading(Manager.getMonitorReading())
        }
        function onIsMonitorRecordingChanged() {
            if (Manager.isMonitorRecording) view.recordStartedAt = Date.now()
            recordPath.text = Manager.getMonitorRecordFilePath()
        }
    }
    Timer {
        interval: 500
        repeat: true
        running: Manager.isMonitorRecording
        onTriggered: view.now = Date.now()
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        RowLayout {
            Layout.fillWidth: true
            Label { text: "Hardware variant" }
            ComboBox {
                objectName: "hwVersionChooser"
                Layout.preferredWidth: 200
                model: Manager.monitorHwVersionList
                enabled: count > 0 && !Manager.isMonitorRecording && !Desk.queue.busy
                currentIndex: Manager.monitorHwVersionList.indexOf(Manager.currentMonitorHwVersion)
                displayText: count === 0 ? "the catalogue's own" : currentText
                // Choosing reads the new variant's values at once when connected: a device call.
                onActivated: Desk.queue.call("selectMonitorHwVersion", [textAt(index)])
            }
            Switch {
                objectName: "autoRefreshSwitch"
                text: "Refresh every second"
                checked: Manager.monitorAutoRefresh
                // Switching off joins the refresh thread, which may be waiting on the lidar.
                onToggled: Desk.queue.call("setMonitorAutoRefresh", [checked])
            }
            Button {
                objectName: "refreshMonitorButton"
                text: "Refresh now"
                enabled: view.canRead && !Desk.queue.busy
                onClicked: Desk.queue.call("refreshMonitor", [])
            }
            Item { Layout.fillWidth: true }
        }

        Label {
            visible: !view.hasMonitor
            text: Manager.selectedLidarModel === "" ? "Choose a model first."
                                                    : Manager.selectedLidarModel + " has no monitor page."
            color: "gray"
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 12
            visible: view.hasMonitor

            GroupBox {
                title: "Values"
                Layout.preferredWidth: 420
                Layout.alignment: Qt.AlignTop
                ListView {
                    id: valuesTable
                    objectName: "monitorValues"
                    implicitWidth: 396
                    implicitHeight: contentHeight
                    interactive: false
                    model: view.monitorRows(Manager.myMap, Manager.monitorModuleIndex,
                                            monitorChart.columns)
                    delegate: RowLayout {
                        width: valuesTable.width
                        Label { text: modelData.name; Layout.fillWidth: true; elide: Text.ElideRight }
                        Label {
                            objectName: "monitorValue_" + index
                            text: modelData.value
                            horizontalAlignment: Text.AlignRight
                            Layout.preferredWidth: 90
                        }
                        Label { text: modelData.unit; color: "gray"; Layout.preferredWidth: 40 }
                    }
                }
            }

            GroupBox {
                title: "Charts"
                Layout.fillWidth: true
                Layout.alignment: Qt.AlignTop
                ColumnLayout {
                    anchors.fill: parent
                    Flow {
                        Layout.fillWidth: true
                        spacing: 4
                        Repeater {
                            model: monitorChart.columns
                            CheckBox {
                                objectName: "chartChoice_" + index
                                text: modelData
                                checked: monitorChart.shownColumns.indexOf(index) >= 0
                                onToggled: {
                                    var shown = monitorChart.shownColumns.filter(function(c) {
                                        return c !== index
                                    })
                                    if (checked) shown.push(index)
                                    monitorChart.shownColumns = shown.sort(function(a, b) { return a - b })
                                }
                            }
                        }
                    }
                    RowLayout {
                        Label { text: "Show the last" }
                        ComboBox {
                            objectName: "chartWindow"
                            model: [1, 5, 10, 30]
                            currentIndex: 1
                            displayText: currentText + " min"
                            onActivated: monitorChart.windowSeconds = 60 * model[index]
                        }
                        Button {
                            text: "Clear"
                            onClicked: monitorChart.clear()
                        }
                    }
                    MonitorChart {
                        id: monitorChart
                        objectName: "monitorChart"
                        Layout.fillWidth: true
                        Layout.preferredHeight: 260 * Math.max(1, Math.ceil(shownColumns.length / 2))
                        windowSeconds: 300
                        // The record's columns: new ones when another variant is applied.
                        columns: {
                            Manager.currentMonitorHwVersion
                            Manager.monitorContentRevision
                            return Manager.getMonitorColumns()
                        }
                        onColumnsChanged: shownColumns = columns.length > 1 ? [0, 1]
                                                                            : columns.length > 0 ? [0] : []
                    }
                }
            }
        }

        GroupBox {
            title: "Recording"
            Layout.fillWidth: true
            visible: view.hasMonitor
            GridLayout {
                columns: 4
                Label { text: "Folder" }
                TextField {
                    id: recordFolder
                    objectName: "recordFolder"
                    Layout.preferredWidth: 420
                    enabled: !Manager.isMonitorRecording
                    text: Desk.localPath(Platform.StandardPaths.writableLocation(
                                             Platform.StandardPaths.DocumentsLocation))
                }
                Button {
                    text: "Browse..."
                    enabled: !Manager.isMonitorRecording
                    onClicked: folderDialog.open()
                }
                Item { Layout.fillWidth: true }

                Label { text: "Duration (s)" }
                SpinBox {
                    objectName: "recordDuration"
                    from: 1
                    to: 86400
                    editable: true
                    enabled: !Manager.isMonitorRecording
                    value: Manager.monitorRecordDurationSec
                    onValueModified: Manager.monitorRecordDurationSec = value
                }
                Label { text: "Interval (s)" }
                SpinBox {
                    objectName: "recordInterval"
                    from: 1
                    to: 3600
                    editable: true
                    enabled: !Manager.isMonitorRecording
                    value: Manager.monitorRecordIntervalSec
                    onValueModified: Manager.monitorRecordIntervalSec = value
                }

                Button {
                    objectName: "startRecordButton"
                    text: "Record"
                    enabled: view.canRead && !Manager.isMonitorRecording && !Desk.queue.busy
                    // An empty folder is the manager's to refuse, not the working folder.
                    onClicked: Desk.queue.call("startMonitorRecord", [recordFolder.text === ""
                                                ? "" : Desk.fileUrl(recordFolder.text)])
                }
                Button {
                    objectName: "stopRecordButton"
                    text: "Stop"
                    enabled: Manager.isMonitorRecording
                    // Stopping waits for the reading in progress to end.
                    onClicked: Desk.queue.call("stopMonitorRecord", [])
                }
                Label {
                    objectName: "recordStatus"
                    Layout.columnSpan: 2
                    text: Manager.isMonitorRecording
                          ? "Recording: " + view.clockText(view.secondsLeft()) + " left, "
                            + view.rowsWritten() + " rows written"
                          : "Not recording"
                }

                Label { text: "File" }
                Label {
                    id: recordPath
                    objectName: "recordPath"
                    Layout.columnSpan: 2
                    Layout.fillWidth: true
                    elide: Text.ElideMiddle
                    text: Manager.getMonitorRecordFilePath()
                }
                Button {
                    text: "Open folder"
                    enabled: recordPath.text !== ""
                    onClicked: Desk.openFolderOf(recordPath.text)
                }
            }
        }
    }

    Platform.FolderDialog {
        id: folderDialog
        folder: Desk.fileUrl(recordFolder.text)
        onAccepted: recordFolder.text = Desk.localPath(folder)
    }
}
