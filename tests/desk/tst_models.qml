import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Model operations view: the Wren's own settings and its function-safety state over its
// serial lines (pseudo-terminals) and over VRC, the Heron's versions, IMU ranges and restart.
WindowTestCase {
    name: "Models"

    function serial(name) { return Probe.serialState()[name] }
    function blockBytes(command) { return Probe.block(command).split(" ") }
    // The queue is empty and what its operations announced has reached the view.
    function idle() {
        tryVerify(function() { return !Desk.queue.busy }, 5000)
        wait(0)
    }

    function test_wrenStandbyReachesTheLidarOverItsSerialLines() {
        connectSimulated("Wren")
        openView("Model operations")
        idle()
        var standby = named("standbySwitch")
        verify(standby.visible)
        compare(serial("standby"), 0)
        // The switch shows what the lidar reported when the view opened.
        verify(!standby.checked)
        mouseClick(standby)
        tryVerify(function() { return serial("standby") === 1 }, 5000, "standby on")
        tryCompare(popups, "successText", "set lidar mode successful", 5000)
        idle()
        mouseClick(standby)
        tryVerify(function() { return serial("standby") === 0 }, 5000, "standby off")
    }

    function test_wrenSpinRateAndReturnModeReachTheLidar() {
        connectSimulated("Wren")
        openView("Model operations")
        named("spinRate").value = 20
        mouseClick(named("spinRateApply"))
        tryVerify(function() { return serial("spinRate") === 20 }, 5000, "spin rate")
        tryCompare(popups, "successText", "set spin rate successful", 5000)
        idle()
        var mode = named("returnMode")
        compare(mode.textAt(1), "Last")
        mode.currentIndex = 1
        mouseClick(named("returnModeApply"))
        tryVerify(function() { return serial("returnMode") === 1 }, 5000, "return mode")
        tryCompare(popups, "successText", "set return mode successful", 5000)
    }

    function test_wrenFunctionSafetyShowsTheFaultCodes_data() {
        return [
            { tag: "serial lines", model: "Wren" },
            { tag: "VRC", model: "Wren-VRC" }
        ]
    }
    function test_wrenFunctionSafetyShowsTheFaultCodes(data) {
        connectSimulated(data.model)
        openView("Model operations")
        idle()
        verify(Probe.setFaultState(1, [0x00A1, 0x1B2C]))
        compare(named("safetyState").text, "not read")
        mouseClick(named("safetyRead"))
        tryCompare(named("safetyState"), "text", "Warning", 5000)
        compare(named("safetyCodes").text, "0x00A1, 0x1B2C")

        verify(Probe.setFaultState(2, []))
        idle()
        mouseClick(named("safetyRead"))
        tryCompare(named("safetyState"), "text", "Shutdown", 5000)
        compare(named("safetyCodes").text, "none")
    }

    function test_wrenOverVrcSettings() {
        connectSimulated("Wren-VRC")
        openView("Model operations")
        idle()
        // The standby switch travels over VRC too.
        mouseClick(named("standbySwitch"))
        tryVerify(function() { return serial("standby") === 1 }, 5000, "standby over VRC")
        idle()
        // What the view read on opening is the lidar's destination; a new one is written and
        // read back.
        verify(named("destinationAddress").text !== "")
        named("destinationAddress").text = "10.1.2.3"
        named("destinationPort").text = "4321"
        mouseClick(named("destinationApply"))
        tryCompare(popups, "successText", "set destination IP and port successful", 5000)
        idle()
        named("destinationAddress").text = ""
        named("destinationPort").text = ""
        mouseClick(named("destinationRead"))
        tryCompare(named("destinationAddress"), "text", "10.1.2.3", 5000)
        compare(named("destinationPort").text, "4321")

        // A malformed address is refused before anything is sent.
        named("destinationAddress").text = "10.1.2.300"
        mouseClick(named("destinationApply"))
        compare(popups.errorText, "The destination is an IPv4 address and a port (0-65535).")
        verify(!Desk.queue.busy)

        // The baud rate: the manager refuses what is not a rate.
        named("baudRateField").text = "abc"
        mouseClick(named("baudRateApply"))
        tryCompare(popups, "errorText", "invalid baud rate value", 5000)
        idle()
        named("baudRateField").text = ""
        mouseClick(named("baudRateRead"))
        tryVerify(function() { return named("baudRateField").text !== "" }, 5000, "rate read")
        verify(Number(named("baudRateField").text) > 0)
    }

    function test_heronVersionsAsTheLidarReportsThem() {
        connectSimulated("Heron-VRC")
        // Texts of the test's own, so that the placeholders or defaults cannot pass for them.
        verify(Probe.writeBlockText(0x07, "", 72, 16, "HERON-T V9.9"))
        verify(Probe.writeBlockText(0xC0, "00", 0, 16, "BF-TEST-1"))
        openView("Model operations")
        idle()
        var reads = Probe.requestCount(0xC0)
        mouseClick(named("heronVersionsRead"))
        tryCompare(named("heronModelVersionValue"), "text", "HERON-T V9.9", 5000)
        idle()
        compare(Probe.requestCount(0xC0), reads + 3)
        compare(named("heronBmbFpgaVersionValue").text, "BF-TEST-1")
        compare(named("heronTmbFpgaVersionValue").text, Probe.blockText(0xC0, "01", 0, 16))
        compare(named("heronBmbMcuVersionValue").text, Probe.blockText(0xC0, "02", 0, 16))
        verify(named("heronTmbFpgaVersionValue").text !== "xxxxxxxx")

        // A component the lidar does not report keeps the placeholder.
        verify(Probe.setFault(0xC0, "status=5"))
        mouseClick(named("heronVersionsRead"))
        tryCompare(named("heronBmbMcuVersionValue"), "text", "xxxxxxxx", 5000)
        compare(named("heronModelVersionValue").text, "HERON-T V9.9")
        Probe.clearFaults()
    }

    function test_heronImuRangesReachTheLidar() {
        connectSimulated("Heron-VRC")
        openView("Model operations")
        idle()
        var angular = named("imuAngularRange")
        // The lists show the ranges the lidar reports (its codes at bytes 3 and 4 of 0x30).
        compare(angular.currentIndex, [0, 1, 2, 3, 4, 8].indexOf(parseInt(blockBytes(0x30)[3], 16)))
        verify(angular.currentIndex > 0)
        compare(named("imuAccelerationRange").currentIndex, parseInt(blockBytes(0x30)[4], 16))
        compare(angular.count, 6)
        compare(angular.textAt(5), "4000 dps")
        angular.currentIndex = 5
        named("imuAccelerationRange").currentIndex = 3
        mouseClick(named("imuApply"))
        tryCompare(popups, "successText", "IMU range set successfully", 5000)
        // The IMU bytes of the operation block: the angular code (index 5 is code 8), then the
        // acceleration code.
        compare(blockBytes(0x30)[3], "08")
        compare(blockBytes(0x30)[4], "03")
    }

    function test_heronRestartAsksFirst() {
        connectSimulated("Heron-VRC")
        openView("Model operations")
        idle()
        var restarts = Probe.requestCount(0xC2)
        mouseClick(named("heronRestart"))
        var confirm = window.currentViewItem.confirmDialog
        tryCompare(confirm, "opened", true, 3000)
        confirm.reject()
        idle()
        compare(Probe.requestCount(0xC2), restarts)
        verify(Manager.isConnected)

        mouseClick(named("heronRestart"))
        tryCompare(confirm, "opened", true, 3000)
        confirm.accept()
        tryVerify(function() { return Probe.requestCount(0xC2) === restarts + 1 }, 5000)
        tryCompare(named("restartOutcome"), "text", "Heron restart command sent", 5000)
        tryVerify(function() { return !Manager.isConnected }, 5000)
        // The simulator restarts as the lidar would; the next test starts one of its own.
        Desk.simulated = false
    }
}
