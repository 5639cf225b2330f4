.pragma library

// A settings profile's comparison as the Parameters view shows it (the maps of the manager's
// compareProfileFile and applyProfileFile): the differing fields grouped by the set command that
// writes them, in the order an apply sends them, "name: lidar value -> profile value".

var networkCommand = "0x21"
var fieldOfViewCommand = "0x22"

function withUnit(text, unit) {
    return unit === undefined || unit === "" ? text : text + " " + unit
}

function fieldLine(row) {
    return "  " + row.name + ": " + withUnit(row.lidarText, row.unit) + " -> "
           + withUnit(row.profileText, row.unit)
}

function differenceLines(result) {
    var lines = []
    var plan = result.plan || []
    var differences = result.differences || []
    for (var c = 0; c < plan.length; ++c) {
        if (plan[c] === fieldOfViewCommand) {
            lines.push(fieldOfViewCommand + " (field of view):")
            var bounds = result.fieldOfView || []
            for (var b = 0; b < bounds.length; ++b) lines.push(fieldLine(bounds[b]))
            continue
        }
        var headed = false
        for (var i = 0; i < differences.length; ++i) {
            var d = differences[i]
            if (d.setCommand !== plan[c]) continue
            if (!headed) lines.push(d.setCommand + " (" + d.module + " / " + d.page + "):")
            headed = true
            lines.push(fieldLine(d))
        }
    }
    return lines.join("\n")
}

function count(n, one, many) {
    return n + " " + (n === 1 ? one : many)
}

function writesNetwork(result) {
    return (result.plan || []).indexOf(networkCommand) >= 0
}

// What the Apply profile question asks.
function applyQuestion(result) {
    var question = "Write " + count(result.differenceCount, "difference", "differences")
                   + " to the lidar (" + result.plan.join(", ") + ")?"
    if (writesNetwork(result))
        question += " The network settings (" + networkCommand + ") go last: the lidar drops the "
                    + "connection when it takes them, and takes them at its next restart. The "
                    + "other settings are verified once connected again."
    return question
}
