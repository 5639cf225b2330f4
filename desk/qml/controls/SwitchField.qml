import QtQuick 2.15
import QtQuick.Controls 2.15

// A row that writes its linked switch: off is the first option, on the second; the text shows
// the option the lidar holds.
Switch {
    id: field
    property var options: []
    property var optionTexts: ({})
    // The linked variable's value.
    property string held
    signal chosen(int index, string value)

    function textOf(value) {
        var text = optionTexts[String(value)]
        return text === undefined || text === "" ? String(value) : text
    }
    readonly property bool holdsSecond: options.length > 1
                                        && Number(held) === Number(options[1])
    checked: holdsSecond
    text: held === "" ? "" : textOf(held)
    onToggled: {
        var index = checked ? 1 : 0
        chosen(index, String(options[index]))
        checked = Qt.binding(function() { return holdsSecond })
    }
}
