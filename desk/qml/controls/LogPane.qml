import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0

// The manager's log lines, coloured by level; the byte-flow lines behind their switch.
Pane {
    id: pane
    padding: 4
    property int keptLines: 2000
    function colourOf(level) {
        if (level === "ERROR") return "firebrick"
        if (level === "WARNING") return "darkorange"
        if (level === "BYTES") return "slategray"
        return palette.text
    }
    ListModel { id: lines }
    Connections {
        target: Manager
        function onSendLogMessage(message, level) {
            lines.append({ message: message, level: level })
            if (lines.count > pane.keptLines) lines.remove(0, lines.count - pane.keptLines)
            if (follow.checked) list.positionViewAtEnd()
        }
    }
    ColumnLayout {
        anchors.fill: parent
        spacing: 2
        RowLayout {
            Label { text: "Log"; font.bold: true }
            Item { Layout.fillWidth: true }
            Switch {
                id: bytesFlow
                objectName: "bytesFlowSwitch"
                text: "Log bytes flow"
                onToggled: Manager.SetLogBytesFlowStatus(checked)
            }
            CheckBox { id: follow; text: "Follow"; checked: true }
            Button { text: "Clear"; onClicked: lines.clear() }
        }
        ListView {
            id: list
            objectName: "logLines"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            model: lines
            ScrollBar.vertical: ScrollBar {}
            // A long line wraps: its end often holds the advice ("Please reboot lidar manually.").
            delegate: Text {
                width: list.width
                text: model.level + "  " + model.message
                color: pane.colourOf(model.level)
                font.family: "monospace"
                wrapMode: Text.WrapAtWordBoundaryOrAnywhere
            }
        }
    }
}
