import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// Asks before an operation the person may regret: `ask(title, question, then)` runs `then` on OK.
// The keyboard starts on Cancel, so a stray Enter changes nothing; Escape closes.
Dialog {
    id: dialog
    property var action: null
    property string okText: "OK"
    function ask(name, question, then) {
        title = name
        questionLabel.text = question
        action = then
        open()
    }
    anchors.centerIn: Overlay.overlay
    modal: true
    focus: true
    onOpened: cancelButton.forceActiveFocus()
    onAccepted: if (action) action()

    ColumnLayout {
        Label {
            id: questionLabel
            objectName: "confirmQuestion"
            Layout.maximumWidth: 480
            wrapMode: Text.Wrap
        }
        RowLayout {
            Layout.alignment: Qt.AlignRight
            DialogButton {
                objectName: "confirmOkButton"
                text: dialog.okText
                onClicked: dialog.accept()
            }
            DialogButton {
                id: cancelButton
                objectName: "confirmCancelButton"
                text: "Cancel"
                onClicked: dialog.reject()
            }
        }
    }
}
