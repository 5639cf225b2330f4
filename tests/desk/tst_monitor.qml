import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Monitor view on a simulated Egret: the values table and the live charts follow the
// simulator's monitor block, the charts keep their points while another view is shown and draw
// them, the view fits the window, recordings write their CSV, and the variant can be switched.
WindowTestCase {
    name: "Monitor"

    readonly property int monitorRead: 0x41
    // Input Voltage: uint16 at byte 8 of the monitor block, in mV. 0x2f1c = 12060.
    readonly property int voltageColumn: 6
    readonly property int voltageOffset: 8

    // The line of a chart in the grab: its own colour, give or take the antialiasing.
    readonly property int lineTolerance: 24

    function init() {
        Manager.monitorAutoRefresh = true
        Manager.monitorRecordDurationSec = 60
        Manager.monitorRecordIntervalSec = 1
        // Disconnected here: choosing reads nothing from a lidar.
        if (Manager.currentMonitorHwVersion !== "HW2.0") Manager.selectMonitorHwVersion("HW2.0")
        // The charts belong to the session: each test starts them afresh.
        MonitorCharts.windowSeconds = 300
        MonitorCharts.shownColumns = [0, 1]
        MonitorCharts.clear()
    }
    // Disconnecting ends a recording that runs and leaves the queue idle.
    function cleanup() {
        Probe.clearFaults()
        Desk.disconnectLidar()
        tryVerify(function() { return !Desk.queue.busy && !Manager.isMonitorRecording }, 10000)
    }

    function openMonitor() {
        connectSimulated("Egret")
        var view = openView("Monitor")
        verify(view)
        return view
    }
    function waitIdle() {
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        wait(0)  // the manager's queued signals of the last operation
    }
    // The pixels of the chart's line colour in a grab of the chart item as shown now.
    function linePixels(name, colour) {
        var chart = named("monitorChart")
        waitForRendering(chart)
        var path = Probe.grabItem(chart, name + ".png")
        verify(path !== "", "grabbed " + name)
        return Probe.pixelsOfColour(path, colour, lineTolerance)
    }
    // `item` lies wholly inside the window and inside the view's own visible area.
    function verifyOnScreen(item, what) {
        verify(item && item.visible, what + " is shown")
        var view = window.currentViewItem
        var box = item.mapToItem(window.contentItem, 0, 0, item.width, item.height)
        var area = view.mapToItem(window.contentItem, 0, 0, view.width, view.height)
        var place = what + " at " + box.x + "," + box.y + " " + box.width + "x" + box.height
                  + " in " + area.x + "," + area.y + " " + area.width + "x" + area.height
        verify(box.width > 0 && box.height > 0, place)
        verify(box.x >= 0 && box.y >= 0, place)
        verify(box.x + box.width <= window.contentItem.width, place)
        verify(box.y + box.height <= window.contentItem.height, place)
        verify(box.x >= area.x && box.y >= area.y, place)
        verify(box.x + box.width <= area.x + area.width, place)
        verify(box.y + box.height <= area.y + area.height, place)
    }
    function fieldsOf(line) { return line.split(",") }

    function test_valuesTableShowsTheSimulatorsValues() {
        openMonitor()
        verify(Probe.writeBlock(monitorRead, voltageOffset, "2f 1c"))
        var table = named("monitorValues")
        tryCompare(table, "count", 10, 5000)
        tryVerify(function() {
            var cell = named("monitorValue_" + voltageColumn)
            return cell && Math.abs(parseFloat(cell.text) - 12.06) < 1e-9
        }, 5000, "Input Voltage shows the simulator's 12.060 V")
        // A new value in the lidar reaches the table with the next refresh.
        verify(Probe.writeBlock(monitorRead, voltageOffset, "30 d4"))  // 12500 mV
        tryVerify(function() {
            return Math.abs(parseFloat(named("monitorValue_" + voltageColumn).text) - 12.5) < 1e-9
        }, 5000)
    }

    function test_theChartGetsAPointPerRefreshAndAGapPerFailedReading() {
        openMonitor()
        compare(named("monitorChart").model, MonitorCharts)
        var chart = MonitorCharts
        compare(chart.columns.length, 10)
        compare(chart.columns[voltageColumn], "Input Voltage (V)")
        compare(chart.chartTitle(voltageColumn), "Input Voltage")
        compare(chart.valueAxisTitle(voltageColumn), "V")
        compare(chart.valueAxisTitle(9), "value")  // Frame Drops has no unit
        compare(chart.windowSeconds, 300)

        var rows = chart.rowCount
        tryVerify(function() { return chart.rowCount >= rows + 2 }, 5000, "refreshes reach the chart")
        verify(chart.pointCount(voltageColumn) >= 2)
        verify(chart.timeAxisTitle(voltageColumn).indexOf("s from ") === 0)

        // The lidar refuses the monitor read: rows go on, points do not.
        verify(Probe.setFault(monitorRead, "status=4"))
        var failedFrom = Probe.requestCount(monitorRead)
        tryVerify(function() { return Probe.requestCount(monitorRead) >= failedFrom + 2 }, 5000)
        var points = chart.pointCount(voltageColumn)
        rows = chart.rowCount
        tryVerify(function() { return chart.rowCount >= rows + 1 }, 5000)
        compare(chart.pointCount(voltageColumn), points)
        Probe.clearFaults()
        tryVerify(function() { return chart.pointCount(voltageColumn) > points }, 5000)

        // The chooser picks the charts drawn; the window, how far back they reach.
        compare(chart.shownColumns, [0, 1])
        mouseClick(named("chartChoice_" + voltageColumn))
        compare(chart.shownColumns, [0, 1, voltageColumn])
        mouseClick(named("chartChoice_0"))
        compare(chart.shownColumns, [1, voltageColumn])

        var windowChooser = named("chartWindow")
        windowChooser.activated(0)
        compare(chart.windowSeconds, 60)
        // Both are the session's: the view opened again shows them as they were left.
        openView("Parameters")
        openView("Monitor")
        compare(named("chartWindow").currentText, "1")
        verify(named("chartChoice_" + voltageColumn).checked)
        verify(!named("chartChoice_0").checked)
        compare(MonitorCharts.shownColumns, [1, voltageColumn])
    }

    function test_theChartsKeepTakingReadingsWhileAnotherViewIsShown() {
        openMonitor()
        MonitorCharts.shownColumns = [voltageColumn]
        tryVerify(function() { return MonitorCharts.pointCount(voltageColumn) >= 2 }, 5000)
        var points = MonitorCharts.pointCount(voltageColumn)

        openView("Parameters")
        verify(!named("monitorChart"), "the Monitor view is gone")
        tryVerify(function() { return MonitorCharts.pointCount(voltageColumn) >= points + 2 },
                  5000, "the auto-refresh's readings still reach the charts")
        // No more readings: what the view shows on its return is what was kept.
        Desk.queue.call("setMonitorAutoRefresh", [false])
        waitIdle()
        var rows = MonitorCharts.rowCount
        points = MonitorCharts.pointCount(voltageColumn)

        openView("Monitor")
        compare(MonitorCharts.rowCount, rows)
        compare(MonitorCharts.pointCount(voltageColumn), points)
        var colour = MonitorCharts.seriesColor(voltageColumn)
        verify(colour.a > 0, "the line has a colour")
        verify(linePixels("returned", colour) > 40, "the kept points are drawn at once")
    }

    function test_aModuleReadElsewhereAddsNoChartRow() {
        Manager.monitorAutoRefresh = false  // before connecting: no refresh thread
        openMonitor()
        MonitorCharts.clear()
        var other = Manager.monitorModuleIndex === 0 ? 1 : 0
        var rows = MonitorCharts.rowCount
        var points = MonitorCharts.pointCount(voltageColumn)
        var announced = mapChanges.count
        rowsChanges.clear()
        // As the Parameters view reads a page.
        Desk.queue.call("readModule", [other])
        waitIdle()
        verify(mapChanges.count > announced, "the module was read and announced")
        compare(MonitorCharts.rowCount, rows)
        compare(MonitorCharts.pointCount(voltageColumn), points)
        compare(rowsChanges.count, 0)
        // The monitor's own reading does add one, and says so.
        Desk.queue.call("refreshMonitor", [])
        waitIdle()
        tryCompare(rowsChanges, "count", 1, 5000)
        compare(MonitorCharts.rowCount, rows + 1)
        compare(MonitorCharts.pointCount(voltageColumn), points + 1)
    }
    SignalSpy {
        id: mapChanges
        target: Manager
        signalName: "myMapChanged"
    }

    function test_clearEmptiesTheChartsAndSaysSo() {
        openMonitor()
        MonitorCharts.windowSeconds = 60
        MonitorCharts.shownColumns = [voltageColumn]
        tryVerify(function() { return MonitorCharts.pointCount(voltageColumn) >= 1 }, 5000)
        Desk.queue.call("setMonitorAutoRefresh", [false])
        waitIdle()
        var columns = MonitorCharts.columns.join(",")
        rowsChanges.clear()
        mouseClick(named("clearChartsButton"))
        compare(rowsChanges.count, 1)
        compare(MonitorCharts.rowCount, 0)
        for (var c = 0; c < MonitorCharts.columns.length; ++c) compare(MonitorCharts.pointCount(c), 0)
        compare(MonitorCharts.columns.join(","), columns)
        compare(MonitorCharts.shownColumns, [voltageColumn])
        compare(MonitorCharts.windowSeconds, 60, "the new charts keep the window")
        compare(MonitorCharts.timeAxisTitle(voltageColumn), "s")  // no first reading yet
        // No line yet, so no colour; nor for a chart that does not exist.
        compare(MonitorCharts.seriesColor(voltageColumn).a, 0)
        compare(MonitorCharts.seriesColor(MonitorCharts.columns.length).a, 0)
        // Nothing to clear: nothing to tell.
        mouseClick(named("clearChartsButton"))
        compare(rowsChanges.count, 1)
    }
    SignalSpy {
        id: rowsChanges
        target: MonitorCharts
        signalName: "rowsChanged"
    }

    // The grab shows the line in its colour once readings came, and not before, nor when no
    // chart is chosen (the axes, frame and titles are drawn in other colours).
    function test_theChartDrawsTheLineOfTheReadings() {
        Manager.monitorAutoRefresh = false
        openMonitor()
        MonitorCharts.clear()
        MonitorCharts.shownColumns = [voltageColumn]
        var before = Probe.grabItem(named("monitorChart"), "before.png")
        verify(before !== "")

        Desk.queue.call("refreshMonitor", [])
        waitIdle()
        verify(Probe.writeBlock(monitorRead, voltageOffset, "30 d4"))  // a slope, not a point
        Desk.queue.call("refreshMonitor", [])
        waitIdle()
        tryCompare(MonitorCharts, "rowCount", 2, 5000)
        compare(MonitorCharts.pointCount(voltageColumn), 2)
        var colour = MonitorCharts.seriesColor(voltageColumn)
        verify(colour.a > 0)

        compare(Probe.pixelsOfColour(before, colour, lineTolerance), 0)
        var drawn = linePixels("drawn", colour)
        verify(drawn > 40, drawn + " pixels of the line")
        // No chart chosen: no line.
        MonitorCharts.shownColumns = []
        compare(linePixels("none", colour), 0)
        // Only indexes that name a chart are drawn, each once.
        MonitorCharts.shownColumns = [voltageColumn, 99, -1, voltageColumn, "x"]
        compare(MonitorCharts.drawnColumns(), [voltageColumn])
        verify(linePixels("again", colour) > 40)
    }

    Component {
        id: chartOnItsOwn
        MonitorChart {}
    }
    // An item draws its model as soon as it is given one, and again at every new size.
    function test_aChartItemDrawsItsModelAtEveryNewSize() {
        Manager.monitorAutoRefresh = false
        connectSimulated("Egret")
        MonitorCharts.shownColumns = [voltageColumn]
        Desk.queue.call("refreshMonitor", [])
        waitIdle()
        verify(Probe.writeBlock(monitorRead, voltageOffset, "30 d4"))
        Desk.queue.call("refreshMonitor", [])
        waitIdle()
        tryCompare(MonitorCharts, "rowCount", 2, 5000)
        var colour = MonitorCharts.seriesColor(voltageColumn)

        var chart = createTemporaryObject(chartOnItsOwn, window.contentItem,
                                          { x: 200, y: 300, width: 300, height: 200 })
        verify(chart)
        waitForRendering(chart)
        var blank = Probe.grabItem(chart, "own-blank.png")
        compare(Probe.pixelsOfColour(blank, colour, lineTolerance), 0)
        chart.model = MonitorCharts
        waitForRendering(chart)
        verify(Probe.pixelsOfColour(Probe.grabItem(chart, "own-300.png"), colour, lineTolerance) > 20)
        // Twice as wide: the chart is drawn again across the new width (its axis, grid and
        // labels reach into the new half, which a frame of the old size would leave white).
        chart.width = 600
        waitForRendering(chart)
        var wide = Probe.grabItem(chart, "own-600.png")
        var newHalf = (600 - 320) * 200
        var whiteInNewHalf = Probe.pixelsOfColour(wide, "white", 0, 320)
        verify(whiteInNewHalf >= 0 && whiteInNewHalf < newHalf - 200,
               whiteInNewHalf + " of " + newHalf + " pixels white")
        verify(Probe.pixelsOfColour(wide, colour, lineTolerance) > 20)
        // Without a model: nothing.
        chart.model = null
        waitForRendering(chart)
        compare(Probe.pixelsOfColour(Probe.grabItem(chart, "own-none.png"), colour, lineTolerance), 0)
    }

    // Another model's monitor gives the charts its columns, and the charts start again.
    function test_theChartsTakeTheColumnsOfTheModelLoaded() {
        verify(Desk.selectModel("Egret"))
        var egret = MonitorCharts.columns.join(",")
        compare(MonitorCharts.columns, Manager.getMonitorColumns())
        verify(Desk.selectModel("Tern"))
        compare(MonitorCharts.columns, Manager.getMonitorColumns())
        verify(MonitorCharts.columns.join(",") !== egret, "Tern's monitor is not Egret's")
        compare(MonitorCharts.rowCount, 0)
        verify(Desk.selectModel("Egret"))
        compare(MonitorCharts.columns.join(","), egret)
    }

    function test_theRecordingControlsFitTheWindowAndTakeTheKeyboard() {
        openMonitor()
        compare(window.width, 1280)
        compare(window.height, 800)
        var names = ["hwVersionChooser", "refreshMonitorButton", "monitorValues", "monitorChart",
                     "recordFolder", "recordDuration", "recordInterval", "startRecordButton",
                     "stopRecordButton", "recordStatus", "recordPath", "openRecordFolderButton"]
        for (var i = 0; i < names.length; ++i) verifyOnScreen(named(names[i]), names[i])
        verify(named("monitorChart").height >= 160, "the chart keeps a readable height")

        // Tab from the variant chooser reaches the folder and the record button.
        var start = named("startRecordButton")
        tryVerify(function() { return start.enabled }, 5000)
        var folder = named("recordFolder")
        // The keyboard goes to the active window: the window under test, not this test's own.
        window.requestActivate()
        tryVerify(function() { return window.active }, 5000)
        named("hwVersionChooser").forceActiveFocus()
        verify(named("hwVersionChooser").activeFocus)
        var reachedFolder = false
        for (var press = 0; press < 40 && !start.activeFocus; ++press) {
            Probe.pressKeyInWindow(start, Qt.Key_Tab)
            reachedFolder = reachedFolder || folder.activeFocus
        }
        verify(reachedFolder, "Tab reaches the record folder")
        verify(start.activeFocus, "Tab reaches the record button")
        verifyOnScreen(start, "the focused record button")
    }

    function test_refreshNowReadsOnceWithAutoRefreshOff() {
        openMonitor()
        var chart = MonitorCharts
        mouseClick(named("autoRefreshSwitch"))
        tryVerify(function() { return !Manager.monitorAutoRefresh && !Desk.queue.busy }, 10000)
        var requests = Probe.requestCount(monitorRead)
        var rows = chart.rowCount
        mouseClick(named("refreshMonitorButton"))
        tryVerify(function() { return chart.rowCount === rows + 1 }, 10000,
                  "rows " + chart.rowCount + ", wanted " + (rows + 1))
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        compare(Probe.requestCount(monitorRead), requests + 1)
    }

    function test_aRecordingWritesItsCsvAndTellsWhere() {
        openMonitor()
        verify(Probe.writeBlock(monitorRead, voltageOffset, "2f 1c"))
        named("recordFolder").text = Probe.folder()
        var duration = named("recordDuration")
        duration.value = 2
        duration.valueModified()
        compare(Manager.monitorRecordDurationSec, 2)

        mouseClick(named("startRecordButton"))
        // The view learns it from the manager's signal, after the flag is set.
        tryVerify(function() { return named("recordStatus").text.indexOf("Recording: 0:0") === 0 },
                  5000, "the status tells the time left")
        verify(!named("hwVersionChooser").enabled, "no variant switch while recording")
        tryCompare(named("recordStatus"), "text", "Not recording", 10000)

        var path = named("recordPath").text
        verify(path.indexOf(Probe.folder() + "/Monitor_HW2.0_") === 0, path)
        tryCompare(named("messagePopups"), "successText", "Monitor record saved:\n" + path, 5000)
        verify(Probe.filesIn(Probe.folder()).indexOf(path.slice(Probe.folder().length + 1)) >= 0)
        var lines = Probe.readText(path).split("\n").filter(function(l) { return l !== "" })
        compare(lines[0], "timestamp," + MonitorCharts.columns.join(","))
        verify(lines.length >= 2, "at least one row")
        var row = fieldsOf(lines[1])
        compare(row.length, 11)
        compare(parseFloat(row[1 + voltageColumn]), 12.06)
    }

    function test_stoppingEarlyKeepsTheFileAndVariantsSwitchTheColumns() {
        openMonitor()
        named("recordFolder").text = Probe.folder()
        mouseClick(named("startRecordButton"))
        var stop = named("stopRecordButton")
        tryVerify(function() { return stop.enabled }, 5000)
        mouseClick(stop)
        tryVerify(function() { return !stop.enabled }, 10000)
        var path = named("recordPath").text
        tryCompare(named("messagePopups"), "successText", "Monitor record saved:\n" + path, 5000)
        verify(Probe.readText(path).indexOf("timestamp,") === 0)

        var chooser = named("hwVersionChooser")
        compare(chooser.currentText, "HW2.0")
        var chart = MonitorCharts
        var hw2Columns = chart.columns.join(",")  // a list property read is a live reference
        chooser.activated(chooser.find("HW1.0"))
        tryCompare(chooser, "currentText", "HW1.0", 5000)
        tryVerify(function() { return !Desk.queue.busy }, 5000)
        verify(chart.columns.join(",") !== hw2Columns, "the charts take the variant's values")
        compare(chart.columns, Manager.getMonitorColumns())
        // The chooser offers the variant's values.
        for (var c = 0; c < chart.columns.length; ++c)
            compare(named("chartChoice_" + c).text, chart.columns[c])
        verify(!named("chartChoice_" + chart.columns.length))
        compare(named("monitorValues").count, chart.columns.length)
        chooser.activated(chooser.find("HW2.0"))
        tryCompare(chooser, "currentText", "HW2.0", 5000)
    }
}
