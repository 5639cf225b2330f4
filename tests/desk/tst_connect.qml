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
        // The manager's word on the attempt comes through the event loop, not yet run.
        verify(Desk.connecting, "connecting until the manager has told the outcome")
        compare(connectButton.text, "Connecting...")
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

    function test_theAddressTakesOnlyAnAddress() {
        verify(Desk.selectModel("Egret"))
        Desk.simulated = false
        var field = named("ipAddress")
        tryVerify(function() { return field.visible && field.enabled }, 5000, "the field is offered")
        var kept = Manager.ipAddress
        window.requestActivate()
        tryVerify(function() { return window.active }, 5000, "the window has the keyboard")
        var retype = function(text) {
            field.forceActiveFocus()
            field.selectAll()
            Probe.pressKey(field, Qt.Key_Delete)
            Probe.typeText(field, text)
            Probe.pressKey(field, Qt.Key_Return)
        }
        retype("not an address")
        compare(Manager.ipAddress, kept, "letters are not an address")
        retype("10.1.2")
        compare(Manager.ipAddress, kept, "three bytes are not an address")
        retype("10.1.2.300")
        compare(field.text, "10.1.2.30", "no address byte above 255 can be typed")
        retype("10.1")
        named("vrcPort").forceActiveFocus()
        compare(field.text, "10.1.2.30", "the field shows the address kept")
        compare(Manager.ipAddress, "10.1.2.30")
        Manager.ipAddress = kept
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

    // An arrow key on the focused chooser picks another model: the window asks before it lets
    // the lidar go, with the keyboard on Cancel (Enter presses it; Escape closes the question).
    function test_choosingAnotherModelWhileConnectedAsksFirst() {
        connectSimulated("Egret")
        var chooser = named("modelChooser", openView("Connect"))
        window.requestActivate()
        tryVerify(function() { return window.active }, 5000, "the window has the keyboard")
        var cancel = null
        var ask = function() {
            chooser.forceActiveFocus()
            keyClick(Qt.Key_Down)
            tryVerify(function() {
                cancel = named("confirmCancelButton", window.overlay)
                return cancel !== null && cancel.visible && cancel.activeFocus
            }, 3000, "the question has the keyboard")
        }
        ask()
        var question = named("confirmQuestion", window.overlay).text
        verify(/^Disconnect from the lidar and choose .+\?$/.test(question), question)
        keyClick(Qt.Key_Return)
        tryVerify(function() { return !cancel.visible }, 3000, "Enter answered Cancel")
        ask()
        keyClick(Qt.Key_Escape)
        tryVerify(function() { return !cancel.visible }, 3000, "Escape closed the question")
        compare(Manager.selectedLidarModel, "Egret")
        verify(Manager.isConnected)

        ask()
        mouseClick(named("confirmOkButton", window.overlay))
        tryVerify(function() { return !Manager.isConnected }, 5000)
        tryVerify(function() { return Manager.selectedLidarModel !== "Egret" }, 5000)
    }
}
