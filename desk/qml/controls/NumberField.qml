import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15

// A typed value, checked as it is typed by `check` (the manager's check of the text: "" or why
// not). A refused text stays in the field with the reason under it and is never committed;
// Enter (or leaving the field) commits an accepted text that differs from `value`.
ColumnLayout {
    id: field
    property string value
    property string limits
    property var check: function(text) { return "" }
    readonly property alias text: input.text
    readonly property alias problem: problemLabel.text
    signal committed(string text)
    spacing: 2

    // A value refreshed while someone types keeps their text.
    onValueChanged: if (!input.activeFocus) input.text = value
    Component.onCompleted: input.text = value

    function validate() {
        problemLabel.text = input.text === value ? "" : check(input.text)
        return problemLabel.text === ""
    }
    function commit() {
        if (validate() && input.text !== value) committed(input.text)
    }

    RowLayout {
        TextField {
            id: input
            objectName: "input"
            Layout.preferredWidth: 200
            selectByMouse: true
            color: problemLabel.text === "" ? palette.text : "firebrick"
            onTextEdited: field.validate()
            onAccepted: field.commit()
            onEditingFinished: field.commit()
        }
        Label {
            objectName: "limits"
            visible: field.limits !== ""
            text: field.limits
            color: "gray"
        }
    }
    Label {
        id: problemLabel
        objectName: "problem"
        visible: text !== ""
        Layout.maximumWidth: 420
        wrapMode: Text.Wrap
        color: "firebrick"
    }
}
