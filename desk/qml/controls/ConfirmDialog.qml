import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// Asks before an operation the person may regret: `ask(title, question, then)` runs `then` on OK.
// `details`, when given, are lines shown under the question, scrolled when they are many (what an
// operation would write, say). The keyboard starts on Cancel, so a stray Enter changes nothing;
// Escape closes.
Dialog {
    id: dialog
    property var action: null
    property string okText: "OK"
    function ask(name, question, then, details) {
        title = name
        questionLabel.text = question
        detailsLabel.text = details === undefined ? "" : details
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
        ScrollView {
            visible: detailsLabel.text !== ""
            Layout.preferredWidth: 480
            Layout.preferredHeight: Math.min(detailsLabel.implicitHeight, 320)
            clip: true
            Label {
                id: detailsLabel
                objectName: "confirmDetails"
                width: 480
                wrapMode: Text.Wrap
                font.family: "monospace"
            }
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
