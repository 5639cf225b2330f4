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
