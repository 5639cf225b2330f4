import QtQuick 2.15
import QtQuick.Controls 2.15

// A value the lidar reports and nobody sets here; `note` says why when it is not obvious.
Label {
    property string value
    property string note
    text: note === "" ? value : value + "  (" + note + ")"
    elide: Text.ElideRight
    color: note === "" ? palette.text : "gray"
}
