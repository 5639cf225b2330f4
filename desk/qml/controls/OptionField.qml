import QtQuick 2.15
import QtQuick.Controls 2.15

// A choice from a variable's option list: each raw value shown by its option text. `chosen`
// tells the index and the raw value picked; the shown choice follows `held` otherwise.
ComboBox {
    id: field
    property var options: []
    property var optionTexts: ({})
    property string held
    signal chosen(int index, string value)

    function textOf(value) {
        var text = optionTexts[String(value)]
        return text === undefined || text === "" ? String(value) : text
    }
    function indexOfValue(value) {
        for (var i = 0; i < options.length; ++i)
            if (Number(options[i]) === Number(value)) return i
        return -1
    }
    // The value the lidar holds may be one the list does not offer: it is shown as it is.
    displayText: currentIndex < 0 ? held : currentText
    model: options.map(textOf)
    delegate: ItemDelegate {
        objectName: "option_" + modelData
        width: field.width
        text: modelData
        highlighted: field.highlightedIndex === index
    }
    currentIndex: indexOfValue(held)
    onActivated: {
        chosen(index, String(options[index]))
        currentIndex = Qt.binding(function() { return indexOfValue(held) })
    }
}
