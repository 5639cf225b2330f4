import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0

// Raw commands: a header and a payload in hexadecimal go to the lidar as they are, through the
// manager's send operation for the connection kind; the reply is shown as the manager formats it
// (the payload cut at 1024 bytes, with its warning). The last ten commands are kept in the
// history file, which this view loads when it opens and rewrites after each send.
Pane {
    id: view
    readonly property bool canSend: Manager.isConnected && !Desk.queue.busy
                                    && !Manager.isUpgrading && !Manager.isDownloadLog
    property var history: []
    // The reply of the last exchange. The manager announces it with the history (a failed
    // exchange empties it and announces that too), not with a signal of its own.
    property string replyHeader: Manager.getSendVrcCommandReturnHeader()
    property string replyPayload: Manager.getSendVrcCommandReturnPayload()

    function reloadHistory() {
        history = Manager.getSendCommandHistory()
        replyHeader = Manager.getSendVrcCommandReturnHeader()
        replyPayload = Manager.getSendVrcCommandReturnPayload()
    }
    function send() {
        Desk.queue.call("SendCommand", [headerField.text.trim(), payloadField.text.trim()])
    }
    // Fills the fields with a command of the history, to send it again or change it.
    function choose(index) {
        headerField.text = history[index].send_cmd_history
        payloadField.text = history[index].send_payload_history
        historyList.currentIndex = index
    }

    Component.onCompleted: Manager.GetLocalCommandFileLog()
    Connections {
        target: Manager
        function onSendCommandHistoryChanged() { view.reloadHistory() }
    }
    Connections {
        target: Desk.queue
        function onFinished(ticket, method, result) {
            if (method === "SendCommand") Manager.WriteCommandLogToLocalCommandFile()
        }
    }

    RowLayout {
        anchors.fill: parent
        spacing: 16

        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 8

            GridLayout {
                columns: 3
                Layout.fillWidth: true
                Label { text: "Header" }
                TextField {
                    id: headerField
                    objectName: "consoleHeader"
                    Layout.preferredWidth: 120
                    font.family: "monospace"
                    placeholderText: "0x21"
                    onAccepted: if (view.canSend && text.trim() !== "") view.send()
                }
                Item { Layout.fillWidth: true }
                Label { text: "Payload" }
                TextField {
                    id: payloadField
                    objectName: "consolePayload"
                    Layout.columnSpan: 2
                    Layout.fillWidth: true
                    font.family: "monospace"
                    placeholderText: "bytes in hexadecimal, separated by blanks: 01 0x02 3"
                    onAccepted: if (view.canSend && headerField.text.trim() !== "") view.send()
                }
            }
            RowLayout {
                Button {
                    objectName: "consoleSend"
                    text: "Send"
                    enabled: view.canSend && headerField.text.trim() !== ""
                    onClicked: view.send()
                }
                Label {
                    Layout.fillWidth: true
                    color: "gray"
                    wrapMode: Text.Wrap
                    text: Manager.isConnected ? "Header 0x10 restarts the lidar and 0x25 resets it; "
                                                + "the connection then ends."
                                              : "Connect to send commands."
                }
            }

            Label { text: "Reply header" }
            TextField {
                objectName: "replyHeader"
                Layout.fillWidth: true
                readOnly: true
                selectByMouse: true
                font.family: "monospace"
                text: view.replyHeader
            }
            Label { text: "Reply payload" }
            ScrollView {
                Layout.fillWidth: true
                Layout.fillHeight: true
                clip: true
                TextArea {
                    objectName: "replyPayload"
                    readOnly: true
                    selectByMouse: true
                    wrapMode: TextEdit.Wrap
                    font.family: "monospace"
                    text: view.replyPayload
                }
            }
        }

        ColumnLayout {
            Layout.preferredWidth: 340
            Layout.fillHeight: true
            Label { text: "History (newest first)" }
            ListView {
                id: historyList
                objectName: "historyList"
                Layout.fillWidth: true
                Layout.fillHeight: true
                clip: true
                model: view.history
                currentIndex: -1
                // Reached by Tab like the fields: the arrows pick an entry, Enter or Space fills
                // the fields with it.
                activeFocusOnTab: true
                keyNavigationEnabled: true
                Keys.onReturnPressed: if (currentIndex >= 0) view.choose(currentIndex)
                Keys.onEnterPressed: if (currentIndex >= 0) view.choose(currentIndex)
                Keys.onSpacePressed: if (currentIndex >= 0) view.choose(currentIndex)
                delegate: ItemDelegate {
                    objectName: "historyEntry" + index
                    width: historyList.width
                    highlighted: ListView.isCurrentItem
                    contentItem: Column {
                        Label {
                            font.family: "monospace"
                            text: modelData.send_cmd_history + "  " + modelData.send_payload_history
                            elide: Text.ElideRight
                            width: historyList.width - 24
                        }
                        Label { text: modelData.record_time; color: "gray"; font.pointSize: 8 }
                    }
                    onClicked: view.choose(index)
                }
                ScrollBar.vertical: ScrollBar {}
            }
        }
    }
}
