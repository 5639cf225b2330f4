import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Qt.labs.platform 1.1 as Platform
import Lidar 1.0

// The monitor module: its hardware variant, its values refreshed once a second by the manager's
// auto-refresh, live charts of the values chosen, and recordings of them to CSV. The charts'
// points are the session's (MonitorCharts): they keep coming while another view is shown. The
// values and the charts take the height the window leaves; below the least they need, it scrolls.
ScrollView {
    id: view
    clip: true
    contentWidth: availableWidth
    contentHeight: page.height

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

    Connections {
        target: Manager
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
        id: page
        width: view.availableWidth
        height: Math.max(view.availableHeight, implicitHeight)
        spacing: 8

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
            Layout.fillHeight: true
            spacing: 8
            visible: view.hasMonitor

            GroupBox {
                title: "Values"
                Layout.preferredWidth: 340
                Layout.fillHeight: true
                ListView {
                    id: valuesTable
                    objectName: "monitorValues"
                    anchors.fill: parent
                    implicitWidth: 316
                    implicitHeight: 120
                    clip: true
                    boundsBehavior: Flickable.StopAtBounds
                    ScrollBar.vertical: ScrollBar {}
                    model: view.monitorRows(Manager.myMap, Manager.monitorModuleIndex,
                                            MonitorCharts.columns)
                    delegate: RowLayout {
                        width: valuesTable.width
                        Label { text: modelData.name; Layout.fillWidth: true; elide: Text.ElideRight }
                        Label {
                            objectName: "monitorValue_" + index
                            text: modelData.value
                            horizontalAlignment: Text.AlignRight
                            Layout.preferredWidth: 80
                        }
                        Label { text: modelData.unit; color: "gray"; Layout.preferredWidth: 36 }
                    }
                }
            }

            GroupBox {
                title: "Charts"
                Layout.fillWidth: true
                Layout.fillHeight: true
                ColumnLayout {
                    anchors.fill: parent
                    spacing: 4
                    Flow {
                        Layout.fillWidth: true
                        spacing: 2
                        Repeater {
                            model: MonitorCharts.columns
                            CheckBox {
                                objectName: "chartChoice_" + index
                                text: modelData
                                topPadding: 2
                                bottomPadding: 2
                                checked: MonitorCharts.shownColumns.indexOf(index) >= 0
                                onToggled: {
                                    var shown = MonitorCharts.shownColumns.filter(function(c) {
                                        return c !== index
                                    })
                                    if (checked) shown.push(index)
                                    MonitorCharts.shownColumns = shown.sort(function(a, b) { return a - b })
                                }
                            }
                        }
                    }
                    RowLayout {
                        Label { text: "Show the last" }
                        ComboBox {
                            objectName: "chartWindow"
                            model: [1, 5, 10, 30]
                            currentIndex: Math.max(model.indexOf(MonitorCharts.windowSeconds / 60), 0)
                            displayText: currentText + " min"
                            onActivated: MonitorCharts.windowSeconds = 60 * model[index]
                        }
                        Button {
                            objectName: "clearChartsButton"
                            text: "Clear"
                            onClicked: MonitorCharts.clear()
                        }
                    }
                    MonitorChart {
                        id: monitorChart
                        objectName: "monitorChart"
                        model: MonitorCharts
                        Layout.fillWidth: true
                        Layout.fillHeight: true
                        Layout.minimumHeight: 160
                        Layout.preferredHeight: 160
                    }
                }
            }
        }

        GroupBox {
            title: "Recording"
            Layout.fillWidth: true
            visible: view.hasMonitor
            GridLayout {
                anchors.fill: parent
                columns: 7
                rowSpacing: 4

                Label { text: "Folder" }
                TextField {
                    id: recordFolder
                    objectName: "recordFolder"
                    Layout.fillWidth: true
                    Layout.columnSpan: 2
                    enabled: !Manager.isMonitorRecording
                    text: Desk.localPath(Platform.StandardPaths.writableLocation(
                                             Platform.StandardPaths.DocumentsLocation))
                }
                Button {
                    text: "Browse..."
                    enabled: !Manager.isMonitorRecording
                    onClicked: folderDialog.open()
                }
                RowLayout {
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
                }
                RowLayout {
                    Layout.columnSpan: 2
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
                    Layout.preferredWidth: 260
                    text: Manager.isMonitorRecording
                          ? "Recording: " + view.clockText(view.secondsLeft()) + " left, "
                            + view.rowsWritten() + " rows written"
                          : "Not recording"
                }
                Label { text: "File"; Layout.alignment: Qt.AlignRight }
                Label {
                    id: recordPath
                    objectName: "recordPath"
                    Layout.columnSpan: 2
                    Layout.fillWidth: true
                    elide: Text.ElideMiddle
                    text: Manager.getMonitorRecordFilePath()
                }
                Button {
                    objectName: "openRecordFolderButton"
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
