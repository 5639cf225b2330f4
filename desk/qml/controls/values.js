.pragma library

// A variable's value as the views show it (an entry of the manager's map): a selection with its
// option's text beside the value ("0 (Normal)"), a linked row with its linked variable's value.
function shownValue(v) {
    var value = v.type === 2 ? v.switch_index : v.current_val
    if (value === undefined) return ""
    var option = (v.varname_value_to_option || {})[value]
    return option === undefined || option === "" || option === value ? value
                                                                     : value + " (" + option + ")"
}
