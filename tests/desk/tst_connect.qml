import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// Connecting to a simulated lidar from the Connect view, and disconnecting.
WindowTestCase {
    name: "Connect"

    function test_connectsToASimulatedEgretAndDisconnects() {
        verify(Desk.selectModel("Egret"))
        Desk.simulated = true
        var connectButton = named("connectButton")
        verify(connectButton.enabled)
        mouseClick(connectButton)
        tryVerify(function() { return Manager.isConnected }, 10000)
        var state = named("connectionState")
        tryCompare(state, "text", "connected")
        verify(!Desk.connecting)
        verify(Probe.requestCount(0x07) + Probe.requestCount(0x08) > 0, "the lidar was probed")

        mouseClick(named("disconnectButton"))
        tryCompare(state, "text", "disconnected")
        verify(!Manager.isConnected)
    }

    function test_theBaudRateTakesOnlyARate() {
        verify(Desk.selectModel("Wren-VRC"))
        Desk.simulated = false
        var field = named("baudRate")
        tryVerify(function() { return field.visible && field.enabled }, 5000, "the field is offered")
        var kept = Manager.baudRate
        verify(Number(kept) > 0, "a rate is held: " + kept)
        window.requestActivate()
        tryVerify(function() { return window.active }, 5000, "the window has the keyboard")

        field.forceActiveFocus()
        field.selectAll()
        Probe.pressKey(field, Qt.Key_Delete)
        Probe.typeText(field, "abc")
        Probe.pressKey(field, Qt.Key_Return)
        compare(Number(Manager.baudRate), Number(kept), "letters are not a rate")
        named("ipAddress").forceActiveFocus()
        compare(field.text, String(kept), "the field shows the rate kept")

        field.forceActiveFocus()
        field.selectAll()
        Probe.pressKey(field, Qt.Key_Delete)
        Probe.typeText(field, "115200")
        Probe.pressKey(field, Qt.Key_Return)
        compare(Number(Manager.baudRate), 115200)
        Manager.baudRate = kept
        Desk.simulated = true
    }

    function test_aModelCannotChangeWhileConnected() {
        connectSimulated("Egret")
        verify(!Desk.selectModel("Plover"))
        compare(Manager.selectedLidarModel, "Egret")
        compare(popups.errorText, "Disconnect before choosing another model.")
        Desk.disconnectLidar()
        tryVerify(function() { return !Desk.queue.busy })
        verify(Desk.selectModel("Plover"))
        compare(Manager.selectedLidarModel, "Plover")
    }
}
