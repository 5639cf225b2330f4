.pragma library

// The rows of the loaded model that hold an edit not applied yet, read from the manager (its
// map, the tree rows behind the shown rows and its edited rows): {module, page, row, name,
// setCmd, varType, value}.
function editedRows(manager) {
    var rows = []
    var map = manager.catalogueVariableMap()
    for (var m = 0; m < map.length; ++m) {
        for (var p = 0; p < map[m].length; ++p) {
            for (var i = 0; i < map[m][p].length; ++i) {
                var row = manager.catalogueRow(m, p, i)
                if (!manager.isEditedRow(m, p, row)) continue
                var v = map[m][p][i]
                rows.push({ module: m, page: p, row: row, name: v.var_name, setCmd: v.set_cmd,
                            varType: v.var_type, value: v.current_val })
            }
        }
    }
    return rows
}

// The module whose edits wait, or -1. Run empties the whole staging when it applies one module,
// so the window lets edits wait in one module at a time.
function moduleWithEdits(manager) {
    var rows = editedRows(manager)
    return rows.length > 0 ? rows[0].module : -1
}

function names(rows) {
    var list = []
    for (var i = 0; i < rows.length; ++i) list.push(rows[i].name)
    return list.join(", ")
}

// The network command: the lidar drops the connection once it takes it.
var networkCommand = "0x21"

function dropsConnection(manager) {
    return manager.stagedSetCommands().indexOf(networkCommand) >= 0
}

// The lidar address an apply of the network command gives the lidar ("" when it keeps its own).
function newAddress(manager) {
    var map = manager.catalogueVariableMap()
    for (var m = 0; m < map.length; ++m)
        for (var p = 0; p < map[m].length; ++p)
            for (var i = 0; i < map[m][p].length; ++i) {
                var v = map[m][p][i]
                if (v.set_cmd === networkCommand && v.var_type === "IP")
                    return v.current_val === manager.ipAddress ? "" : v.current_val
            }
    return ""
}
