import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A value the lidar reports and the user cannot change: its name and its text, selectable so
// that it can be copied.
RowLayout {
    id: field
    property string label
    property string value
    // Shown while the lidar has not reported the value.
    property string placeholder: "-"
    readonly property string shownText: valueText.text

    spacing: 12
    Label {
        text: field.label
        Layout.preferredWidth: 220
        elide: Text.ElideRight
    }
    TextField {
        id: valueText
        objectName: field.objectName === "" ? "" : field.objectName + "Value"
        Layout.fillWidth: true
        Layout.minimumWidth: 240
        readOnly: true
        selectByMouse: true
        text: field.value === "" ? field.placeholder : field.value
    }
}
