import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Qt.labs.platform 1.1 as Platform
import Lidar 1.0

// The lidar's logs: each log variable of the model downloaded into a chosen folder as one file,
// and the operation log's four parts packed into one archive. The manager's worker writes them;
// the view shows the file written and opens its folder.
ScrollView {
    id: view
    clip: true

    readonly property bool canDownload: Manager.isConnected && Manager.connectType !== 1
                                        && !Desk.queue.busy && !Manager.isUpgrading
                                        && !Manager.isDownloadLog
    property string folder: ""
    property string archive: ""
    // What the latest download was, and the file it wrote ("" when it wrote none).
    property string downloading: ""
    property string writtenFile: ""
    property string outcome: ""
    property int cancelRequests: 0
    property string cancelNote: ""

    function begin(what) {
        downloading = what
        writtenFile = ""
        outcome = ""
        cancelRequests = 0
        cancelNote = ""
    }
    // A folder that takes no file is named before the lidar is asked for anything.
    function refusedFolder(what, path) {
        var problem = Desk.folderProblem(path)
        if (problem === "") return false
        begin("")
        outcome = what + " was not downloaded: " + problem + "."
        return true
    }
    function downloadLog(name) {
        if (refusedFolder(name, folder)) return
        begin(name)
        Desk.queue.call("DownloadLog", [Desk.fileUrl(folder), name])
    }
    // The archive as the manager writes it: ".tar" is added when the name lacks it.
    function archivePath() {
        var path = Desk.localPath(Desk.fileUrl(archive))
        return path.slice(-4) === ".tar" ? path : path + ".tar"
    }
    function downloadOperationLog() {
        var path = archivePath()
        if (refusedFolder("Operation log", path.substring(0, path.lastIndexOf("/")))) return
        begin("Operation log")
        Desk.queue.call("DownloadOperationLog", [Desk.fileUrl(archive)])
    }
    // Closing the connection ends the request in flight; nothing of that log is kept.
    function cancel() {
        if (++cancelRequests === 1) {
            cancelNote = "Cancelling closes the connection to the lidar; the log being downloaded "
                         + "is not saved. Press Cancel again to do so."
            return
        }
        cancelNote = "Download abandoned: closing the connection."
        Desk.disconnectLidar()
    }

    Connections {
        target: Desk.queue
        function onFinished(ticket, method, result) {
            if ((method === "DownloadLog" || method === "DownloadOperationLog") && result !== 0) {
                view.outcome = "The download did not start: the lidar is busy or not connected."
                view.downloading = ""
            }
        }
    }
    Connections {
        target: Manager
        function onDownloadFinished() {
            view.writtenFile = Manager.lastDownloadedLogFile()
            view.outcome = view.writtenFile !== "" ? view.downloading + " saved."
                                                  : view.downloading + " was not saved."
            view.downloading = ""
        }
        function onDownloadOperationLogFinished(ok) {
            view.writtenFile = ok ? view.archivePath() : ""
            view.outcome = ok ? "Operation log saved."
                              : "The operation log was not saved; the parts that came stay in "
                                + "the operation_log folder of the documents folder."
            view.downloading = ""
        }
    }

    Platform.FolderDialog {
        id: folderChooser
        title: "Choose the folder for the logs"
        onAccepted: view.folder = Desk.localPath(folder)
    }
    Platform.FileDialog {
        id: archiveChooser
        title: "Save the operation log as"
        fileMode: Platform.FileDialog.SaveFile
        nameFilters: ["tar archives (*.tar)"]
        onAccepted: view.archive = Desk.localPath(file)
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        Label {
            visible: Manager.connectType === 1
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: "gray"
            text: Manager.selectedLidarModel + " is reached over its serial lines, which carry no logs."
        }

        GroupBox {
            title: "Device logs"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                RowLayout {
                    Layout.fillWidth: true
                    Label { text: "Folder" }
                    TextField {
                        objectName: "logFolder"
                        Layout.fillWidth: true
                        text: view.folder
                        placeholderText: "where the log files go"
                        onEditingFinished: view.folder = text
                    }
                    Button {
                        text: "Choose..."
                        onClicked: folderChooser.open()
                    }
                }
                Repeater {
                    model: Manager.logRepeaterModel
                    RowLayout {
                        Label {
                            text: modelData
                            Layout.preferredWidth: 220
                        }
                        Button {
                            objectName: "downloadLog_" + modelData
                            text: "Download"
                            enabled: view.canDownload && view.folder !== ""
                            onClicked: view.downloadLog(modelData)
                        }
                    }
                }
                Label {
                    visible: Manager.logRepeaterModel.length === 0
                    color: "gray"
                    text: "The model's catalogue names no log."
                }
            }
        }

        GroupBox {
            title: "Operation log"
            Layout.fillWidth: true
            RowLayout {
                anchors.fill: parent
                Label { text: "Archive" }
                TextField {
                    objectName: "operationLogArchive"
                    Layout.fillWidth: true
                    text: view.archive
                    placeholderText: "the .tar file to write"
                    onEditingFinished: view.archive = text
                }
                Button {
                    text: "Choose..."
                    onClicked: archiveChooser.open()
                }
                Button {
                    objectName: "downloadOperationLog"
                    text: "Download"
                    enabled: view.canDownload && view.archive !== ""
                    onClicked: view.downloadOperationLog()
                }
            }
        }

        RowLayout {
            Layout.fillWidth: true
            BusyIndicator {
                running: Manager.isDownloadLog
                visible: running
                implicitWidth: 32
                implicitHeight: 32
            }
            Label {
                objectName: "logOutcome"
                Layout.fillWidth: true
                wrapMode: Text.Wrap
                text: Manager.isDownloadLog ? "Downloading " + view.downloading + "..." : view.outcome
            }
            Button {
                objectName: "cancelDownload"
                text: "Cancel"
                visible: Manager.isDownloadLog
                onClicked: view.cancel()
            }
        }
        Label {
            objectName: "logCancelWarning"
            visible: text !== ""
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: "darkorange"
            text: view.cancelNote
        }
        RowLayout {
            visible: view.writtenFile !== ""
            Layout.fillWidth: true
            Label { text: "Written:" }
            TextField {
                objectName: "writtenFile"
                Layout.fillWidth: true
                readOnly: true
                selectByMouse: true
                text: view.writtenFile
            }
            Button {
                objectName: "openFolder"
                text: "Open folder"
                onClicked: Desk.openFolderOf(view.writtenFile)
            }
        }
    }
}
