import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0
import "editedRows.js" as EditedRows

// Asks before something that would lose edits not applied yet (a disconnect, another model,
// closing the window): apply them first, discard them, or stay.
Dialog {
    id: dialog
    objectName: "unappliedEditsDialog"
    parent: Overlay.overlay
    anchors.centerIn: parent
    modal: true
    title: "Edits not applied"
    closePolicy: Popup.CloseOnEscape
    focus: true
    // The keyboard starts on Stay, so a stray Enter loses nothing.
    onOpened: stayButton.forceActiveFocus()

    property string actionText
    property var pending: null
    property int applyTicket: -1
    property var rows: []

    function hasEdits() {
        return Number(Manager.getSetMapSize()) > 0 || EditedRows.editedRows(Manager).length > 0
    }
    // Runs `action` at once when nothing waits to be applied; asks first otherwise. True when it
    // ran.
    function whenSettled(what, action) {
        rows = EditedRows.editedRows(Manager)
        if (!hasEdits()) {
            action()
            return true
        }
        actionText = what
        pending = action
        open()
        return false
    }
    function proceed() {
        var action = pending
        pending = null
        close()
        if (action) action()
    }

    ColumnLayout {
        Label {
            objectName: "unappliedEditsText"
            Layout.maximumWidth: 520
            wrapMode: Text.Wrap
            text: (dialog.rows.length > 0 ? "Edits not applied yet: " + EditedRows.names(dialog.rows)
                                          : "Edits are staged and not applied yet")
                  + ". Apply them before you " + dialog.actionText + "?"
        }
        RowLayout {
            Layout.alignment: Qt.AlignRight
            DialogButton {
                objectName: "applyEditsButton"
                text: "Apply"
                enabled: Manager.isConnected && !Desk.queue.busy && dialog.rows.length > 0
                onClicked: dialog.applyTicket =
                           Desk.queue.call("applyPage", [dialog.rows[0].module])
            }
            DialogButton {
                objectName: "discardEditsButton"
                text: "Discard"
                enabled: dialog.applyTicket < 0
                onClicked: {
                    Manager.ClearSetMap()
                    dialog.proceed()
                }
            }
            DialogButton {
                id: stayButton
                objectName: "stayButton"
                text: "Stay"
                enabled: dialog.applyTicket < 0
                onClicked: {
                    dialog.pending = null
                    dialog.close()
                }
            }
        }
    }
    Connections {
        target: Desk.queue
        function onFinished(ticket) {
            if (ticket !== dialog.applyTicket) return
            dialog.applyTicket = -1
            // A refused apply keeps its edits: the person decides again.
            if (Number(Manager.getSetMapSize()) === 0 && EditedRows.editedRows(Manager).length === 0)
                dialog.proceed()
            else
                dialog.rows = EditedRows.editedRows(Manager)
        }
    }
}
