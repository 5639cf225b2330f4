import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Monitor view on a simulated Egret: the values table and the live charts follow the
// simulator's monitor block, recordings write their CSV, and the variant can be switched.
WindowTestCase {
    name: "Monitor"

    readonly property int monitorRead: 0x41
    // Input Voltage: uint16 at byte 8 of the monitor block, in mV. 0x2f1c = 12060.
    readonly property int voltageColumn: 6
    readonly property int voltageOffset: 8

    function init() {
        Manager.monitorAutoRefresh = true
        Manager.monitorRecordDurationSec = 60
        Manager.monitorRecordIntervalSec = 1
        // Disconnected here: choosing reads nothing from a lidar.
        if (Manager.currentMonitorHwVersion !== "HW2.0") Manager.selectMonitorHwVersion("HW2.0")
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
        var chart = named("monitorChart")
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
    }

    function test_refreshNowReadsOnceWithAutoRefreshOff() {
        openMonitor()
        var chart = named("monitorChart")
        mouseClick(named("autoRefreshSwitch"))
        tryVerify(function() { return !Manager.monitorAutoRefresh && !Desk.queue.busy }, 5000)
        var requests = Probe.requestCount(monitorRead)
        var rows = chart.rowCount
        mouseClick(named("refreshMonitorButton"))
        tryVerify(function() { return chart.rowCount === rows + 1 }, 5000)
        tryVerify(function() { return !Desk.queue.busy }, 5000)
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
        compare(lines[0], "timestamp," + named("monitorChart").columns.join(","))
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
        var chart = named("monitorChart")
        var hw2Columns = chart.columns.join(",")  // a list property read is a live reference
        chooser.activated(chooser.find("HW1.0"))
        tryCompare(chooser, "currentText", "HW1.0", 5000)
        tryVerify(function() { return !Desk.queue.busy }, 5000)
        verify(chart.columns.join(",") !== hw2Columns, "the charts take the variant's values")
        compare(chart.columns, Manager.getMonitorColumns())
        compare(named("monitorValues").count, chart.columns.length)
        chooser.activated(chooser.find("HW2.0"))
        tryCompare(chooser, "currentText", "HW2.0", 5000)
    }
}
