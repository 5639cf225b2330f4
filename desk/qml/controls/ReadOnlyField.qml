import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A value the lidar reports and nobody sets here: selectable, so that it can be copied. With a
// `label` it is a row of its own (the Device view); without, it is a parameter row's editor.
// `note` says why it cannot be set when that is not obvious.
RowLayout {
    id: field
    property string label
    property string value
    property string note
    // Shown while the lidar has not reported the value.
    property string placeholder: "-"
    readonly property string shownText: valueText.text

    spacing: 12
    Label {
        visible: field.label !== ""
        text: field.label
        Layout.preferredWidth: 220
        elide: Text.ElideRight
    }
    TextField {
        id: valueText
        objectName: field.objectName === "" ? "" : field.objectName + "Value"
        Layout.fillWidth: true
        Layout.minimumWidth: 120
        readOnly: true
        selectByMouse: true
        text: field.value === "" ? field.placeholder : field.value
    }
    Label {
        visible: field.note !== ""
        text: "(" + field.note + ")"
        color: "gray"
        elide: Text.ElideRight
    }
}
