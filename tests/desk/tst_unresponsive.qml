import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// A lidar that stops answering: the window keeps drawing while the call waits, then tells.
WindowTestCase {
    name: "Unresponsive"

    Timer {
        id: uiTick
        interval: 16
        repeat: true
        property int ticks: 0
        onTriggered: ++ticks
    }

    function test_aSilentLidarLeavesTheWindowLiveAndIsTold() {
        connectSimulated("Egret")
        for (var code = 0; code < 256; ++code) verify(Probe.setFault(code, "no-reply"))
        uiTick.ticks = 0
        uiTick.start()
        verify(Desk.queue.call("SendCommand", ["07", ""]) > 0)
        tryVerify(function() { return Desk.queue.busy })
        tryCompare(named("busyWith"), "text", "busy: sending a command")
        // While the call waits for its time-out, the UI thread goes on running its timers.
        tryVerify(function() { return uiTick.ticks >= 20 }, 10000, "the UI thread kept running")
        verify(Desk.queue.busy, "the call is still waiting for the lidar")
        idle()
        uiTick.stop()
        tryVerify(function() { return popups.errorShown }, 5000, "an error pop-up")
        verify(popups.errorText !== "")
        compare(Manager.getSendVrcCommandReturnHeader(), "")
    }

    function test_aLidarThatGoesAwayIsShownDisconnected() {
        connectSimulated("Egret")
        for (var code = 0; code < 256; ++code) verify(Probe.setFault(code, "no-reply"))
        verify(Desk.queue.call("readModule", [2]) > 0)
        tryVerify(function() { return Desk.queue.busy })
        // The status line says what waits, in words rather than the operation's name.
        tryCompare(named("busyWith"), "text", "busy: reading the lidar")
        // The person gives up on it: Disconnect does not wait for the read's time-outs.
        Desk.disconnectLidar()
        compare(named("connectionState").text, "disconnected")
        tryVerify(function() { return !Desk.queue.busy }, 3000, "the read in flight was woken")
    }
}
