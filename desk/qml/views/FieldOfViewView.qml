import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0

// The channel field of view: five regions, each a start and an end in degrees, and the mode.
// The bounds are the manager's table (fovList, refreshed by fovConfigChanged); an edit is
// checked here first, as lidarutil fov checks it, so that nothing the lidar would misread is
// staged, then staged and applied with the page's other variables through the queue, and read
// back.
ScrollView {
    id: view
    objectName: "fieldOfViewView"
    clip: true

    readonly property string readCommand: "0x23"
    readonly property string writeCommand: "0x22"
    readonly property int regions: 5
    readonly property int fullCircleTenths: 3600

    // Where the table lives in the catalogue; -1 when the model has none.
    property int readModule: -1
    property int writeModule: -1
    // The mode: the first variable written with the table's command (its position for SetText,
    // its entry of the variable map).
    property var modePosition: null
    property var modeVariable: null
    property var modeOptions: []

    function findPositions() {
        var map = Manager.catalogueVariableMap()
        readModule = -1
        writeModule = -1
        modePosition = null
        modeVariable = null
        for (var m = 0; m < map.length; ++m)
            for (var p = 0; p < map[m].length; ++p)
                for (var v = 0; v < map[m][p].length; ++v) {
                    var variable = map[m][p][v]
                    if (readModule < 0 && variable.get_cmd === readCommand) readModule = m
                    if (variable.set_cmd !== writeCommand) continue
                    if (writeModule < 0) writeModule = m
                    // The map leaves hidden rows out; the field-of-view pages have none before
                    // the mode, so its place in the map is its row.
                    if (!modePosition && variable.type === 3) {
                        modePosition = { module: m, page: p, row: v }
                        modeVariable = variable
                    }
                }
        var options = []
        if (modeVariable) {
            for (var i = 0; i < modeVariable.options.length; ++i) {
                var raw = String(modeVariable.options[i])
                var name = modeVariable.varname_value_to_option[raw]
                options.push(name && name !== raw ? raw + " (" + name + ")" : raw)
            }
        }
        modeOptions = options
    }
    function modeIndexHeld() {
        if (!modeVariable) return -1
        for (var i = 0; i < modeVariable.options.length; ++i)
            if (String(modeVariable.options[i]) === modeVariable.current_val) return i
        return -1
    }
    // The field of bound `index` (0-4 the starts, 5-9 the ends).
    function boundField(index) {
        var row = regionRows.itemAt(index % regions)
        if (!row) return null
        return index < regions ? row.startField : row.endField
    }
    // Puts the manager's bounds and mode back into the fields.
    function reload() {
        findPositions()
        var bounds = Manager.fovList
        for (var i = 0; i < 2 * regions; ++i) {
            var field = boundField(i)
            if (field) field.text = i < bounds.length ? bounds[i] : ""
        }
        modeChooser.currentIndex = modeIndexHeld()
    }
    function readTable() {
        if (Manager.isConnected && readModule >= 0) Desk.queue.call("readModule", [readModule])
    }

    // A bound in tenths of a degree, or -1: degrees from 0 to 360 with at most one decimal,
    // since the lidar keeps tenths and a finer bound would be another value once sent.
    function boundInTenths(text) {
        var trimmed = text.trim()
        if (!/^\+?(\d+\.?\d*|\.\d+)([eE][+-]?\d+)?$/.test(trimmed)) return -1
        var tenths = Number(trimmed) * 10
        var whole = Math.round(tenths)
        if (Math.abs(tenths - whole) > 1e-6 || whole < 0 || whole > fullCircleTenths) return -1
        return whole
    }
    // The first problem with the fields as they are typed, shown under the table ("" when none).
    property string fieldProblem: ""
    function recheck() {
        for (var i = 0; i < 2 * regions; ++i)
            if (!boundField(i)) return
        fieldProblem = tableProblem().replace(/; nothing was sent$/, "")
    }
    function tenthsText(tenths) { return (tenths / 10).toFixed(1) }
    function boundName(index) {
        return "region " + (index % regions + 1) + (index < regions ? " start" : " end")
    }
    // The first problem with the fields, in words, or "".
    function tableProblem() {
        var tenths = []
        for (var i = 0; i < 2 * regions; ++i) {
            var field = boundField(i)
            var value = boundInTenths(field.text)
            if (value < 0)
                return boundName(i) + " '" + field.text + "': a bound is degrees from 0 to 360 "
                        + "with at most one decimal (the lidar keeps tenths of a degree); "
                        + "nothing was sent"
            tenths.push(value)
        }
        for (var r = 0; r < regions; ++r) {
            if (tenths[r] <= tenths[regions + r]) continue
            var start = tenthsText(tenths[r])
            var end = tenthsText(tenths[regions + r])
            return "region " + (r + 1) + " would start at " + start + ", after its end " + end
                    + "; a region runs up from its start, so one that crosses 0 degrees is two "
                    + "regions, " + start + " to 360.0 and 0.0 to " + end + "; nothing was sent"
        }
        return ""
    }
    // The bounds that differ from the manager's table, as [index, text] pairs.
    function changedBounds() {
        var held = Manager.fovList
        var changed = []
        for (var i = 0; i < 2 * regions; ++i) {
            var text = tenthsText(boundInTenths(boundField(i).text))
            if (i >= held.length || held[i] !== text) changed.push([i, text])
        }
        return changed
    }
    function apply() {
        var problem = tableProblem()
        if (problem !== "") {
            Manager.showErrorMessage(problem)
            return false
        }
        var changed = changedBounds()
        var modeIndex = modeChooser.currentIndex
        var modeChanged = modeVariable && modeIndex >= 0 && modeIndex !== modeIndexHeld()
        if (changed.length === 0 && !modeChanged) {
            Manager.showErrorMessage("the lidar holds these values already; nothing was sent")
            return false
        }
        // One ordered run on the queue: stage every bound and the mode, apply the page, read
        // the table back.
        for (var i = 0; i < changed.length; ++i)
            Desk.queue.call("SetMultiFovConfig", [changed[i][0], changed[i][1]])
        if (modeChanged)
            Desk.queue.call("SetText", [3, modePosition.module, modePosition.page,
                                        modePosition.row, String(modeIndex)])
        Desk.queue.call("applyPage", [writeModule])
        Desk.queue.call("readModule", [readModule])
        return true
    }

    Component.onCompleted: {
        reload()
        readTable()
    }
    Connections {
        target: Manager
        function onFovConfigChanged() { view.reload() }
        function onMyMapChanged() { view.reload() }
        function onWrenLidarInfoChanged() { view.reload() }
        function onLidarModelChanged() { view.reload() }
        function onIsConnectedChanged() {
            view.reload()
            view.readTable()
        }
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        Label {
            text: "Field of view"
            font.bold: true
            font.pointSize: 13
        }
        Label {
            visible: view.readModule < 0
            text: (Manager.selectedLidarModel === "" ? "This model" : Manager.selectedLidarModel)
                  + " has no channel field of view."
            color: "gray"
        }
        Label {
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: "gray"
            text: "Bounds are degrees from 0 to 360 in tenths of a degree. A region runs up from "
                  + "its start to its end, so one that crosses 0 degrees is written as two regions."
        }

        RowLayout {
            spacing: 16
            Label { text: "Region"; font.bold: true; Layout.preferredWidth: 60 }
            Label { text: "Start (°)"; font.bold: true; Layout.preferredWidth: 140 }
            Label { text: "End (°)"; font.bold: true; Layout.preferredWidth: 140 }
        }
        Repeater {
            id: regionRows
            model: view.regions
            delegate: RowLayout {
                readonly property alias startField: startField
                readonly property alias endField: endField
                enabled: view.readModule >= 0
                spacing: 16
                Label {
                    text: String(index + 1)
                    Layout.preferredWidth: 60
                }
                TextField {
                    id: startField
                    objectName: "fovBound" + index
                    Layout.preferredWidth: 140
                    selectByMouse: true
                    onTextChanged: view.recheck()
                }
                TextField {
                    id: endField
                    objectName: "fovBound" + (index + view.regions)
                    Layout.preferredWidth: 140
                    selectByMouse: true
                    onTextChanged: view.recheck()
                }
            }
        }

        Label {
            objectName: "fovProblem"
            visible: view.fieldProblem !== ""
            Layout.fillWidth: true
            wrapMode: Text.Wrap
            color: "firebrick"
            text: view.fieldProblem.charAt(0).toUpperCase() + view.fieldProblem.slice(1)
        }

        RowLayout {
            visible: view.modeVariable !== null
            Label { text: view.modeVariable ? view.modeVariable.var_name : "Mode" }
            ComboBox {
                id: modeChooser
                objectName: "fovMode"
                Layout.preferredWidth: 240
                model: view.modeOptions
                enabled: Manager.isConnected && !Desk.queue.busy
            }
        }

        RowLayout {
            Button {
                objectName: "fovApply"
                text: "Apply"
                enabled: Manager.isConnected && !Desk.queue.busy && view.writeModule >= 0
                         && view.fieldProblem === ""
                onClicked: view.apply()
            }
            Button {
                objectName: "fovRevert"
                text: "Revert"
                enabled: !Desk.queue.busy
                onClicked: view.reload()
            }
            Button {
                objectName: "fovRead"
                text: "Read again"
                enabled: Manager.isConnected && !Desk.queue.busy && view.readModule >= 0
                onClicked: view.readTable()
            }
        }
    }
}
