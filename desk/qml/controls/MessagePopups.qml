import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0

// The manager's pop-up messages: an error stays until dismissed, a success fades.
Item {
    id: popups
    property alias errorText: errorLabel.text
    property alias successText: successLabel.text
    readonly property bool errorShown: errorPopup.opened

    Connections {
        target: Manager
        function onErrorMessageChanged() {
            if (Manager.errorMessage === "") return
            errorLabel.text = Manager.errorMessage
            errorPopup.open()
        }
        function onSuccessMessageChanged() {
            if (Manager.successMessage === "") return
            successLabel.text = Manager.successMessage
            successPopup.open()
            fade.restart()
        }
    }
    Popup {
        id: errorPopup
        objectName: "errorPopup"
        x: (popups.width - width) / 2
        y: 24
        width: Math.min(popups.width - 80, 720)
        modal: false
        closePolicy: Popup.CloseOnEscape
        background: Rectangle { color: "#fdecea"; border.color: "firebrick"; radius: 4 }
        contentItem: RowLayout {
            Label {
                id: errorLabel
                objectName: "errorText"
                Layout.fillWidth: true
                wrapMode: Text.Wrap
                color: "firebrick"
            }
            Button {
                text: "Dismiss"
                onClicked: errorPopup.close()
            }
        }
    }
    Popup {
        id: successPopup
        objectName: "successPopup"
        x: (popups.width - width) / 2
        y: popups.height - height - 220
        width: Math.min(popups.width - 80, 600)
        closePolicy: Popup.CloseOnEscape | Popup.CloseOnPressOutside
        background: Rectangle { color: "#e8f5e9"; border.color: "darkgreen"; radius: 4 }
        contentItem: Label {
            id: successLabel
            objectName: "successText"
            wrapMode: Text.Wrap
            color: "darkgreen"
        }
        Timer {
            id: fade
            interval: 3000
            onTriggered: successPopup.close()
        }
    }
}
