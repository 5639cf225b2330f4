import QtQuick 2.15
import QtQuick.Controls 2.15
import Lidar 1.0
import "values.js" as Values

// The editor of one variable, chosen from the manager's own row data (catalogueVariableMap):
// read-only for what the lidar only reports, a linked switch for a row that writes its linked
// variable, an option list for a selection, a checked field for a typed value. An accepted
// edit is staged at once with SetText; nothing is sent until Apply.
Loader {
    id: editor
    // The row's place in the page tree (hidden rows count), and its entry of the map.
    property int module
    property int page
    property int row
    property var variable: ({})
    // A field-of-view bound: written with the table of the Field of view view, not from here.
    property bool fieldOfViewBound: false
    // The manager's reason when it refused the latest edit ("" otherwise).
    property string problem: ""
    signal staged()

    readonly property string kind: kindOf(variable)
    function kindOf(v) {
        if (v.var_name === undefined || v.permission === 0) return "readOnly"
        if (v.type === 2) return (v.options || []).length === 2 ? "switch" : "option"
        if (v.set_cmd === "" || v.var_type === "raw" || fieldOfViewBound) return "readOnly"
        if (v.type === 3) return "option"
        return "number"
    }
    function readOnlyNote(v) {
        if (v.var_type === "raw" && v.permission !== 0) return "a device operation"
        if (fieldOfViewBound) return "set in Field of view"
        return ""
    }
    // What the row holds: a linked row shows its linked variable's value.
    function heldValue(v) {
        var value = v.type === 2 ? v.switch_index : v.current_val
        return value === undefined ? "" : value
    }
    function stage(setTextType, text, valueText) {
        problem = Manager.checkVariableText(module, page, row, valueText)
        if (problem !== "") return
        Manager.SetText(setTextType, module, page, row, text)
        staged()
    }

    sourceComponent: kind === "readOnly" ? readOnlyComponent
                   : kind === "switch" ? switchComponent
                   : kind === "option" ? optionComponent : numberComponent

    Component {
        id: readOnlyComponent
        ReadOnlyField {
            objectName: "readOnlyField"
            // As the value column shows it, so that it can be selected and copied.
            value: Values.shownValue(editor.variable)
            note: editor.readOnlyNote(editor.variable)
        }
    }
    Component {
        id: switchComponent
        SwitchField {
            objectName: "switchField"
            options: editor.variable.options || []
            optionTexts: editor.variable.varname_value_to_option || {}
            held: editor.heldValue(editor.variable)
            // A linked row is staged with the raw value of the option.
            onChosen: editor.stage(2, value, value)
        }
    }
    Component {
        id: optionComponent
        OptionField {
            objectName: "optionField"
            implicitWidth: 200
            options: editor.variable.options || []
            optionTexts: editor.variable.varname_value_to_option || {}
            held: editor.heldValue(editor.variable)
            // A selection is staged by its index, a linked row by the raw value.
            onChosen: editor.variable.type === 2 ? editor.stage(2, value, value)
                                                 : editor.stage(3, String(index), value)
        }
    }
    Component {
        id: numberComponent
        NumberField {
            objectName: "numberField"
            value: editor.heldValue(editor.variable)
            limits: Manager.variableLimits(editor.module, editor.page, editor.row)
            check: function(text) {
                return Manager.checkVariableText(editor.module, editor.page, editor.row, text)
            }
            onCommitted: editor.stage(1, text, text)
        }
    }
}
