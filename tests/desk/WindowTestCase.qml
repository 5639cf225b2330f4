import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// A test of the whole window: it opens Main.qml at 1280x800 and leaves the link disconnected
// and the queue idle after every test function.
TestCase {
    id: test
    when: windowShown
    width: 1280
    height: 800

    property var window: null
    // The pop-up messages (errorText, successText), found once the window is open.
    property var popups: null

    // The item of that objectName inside `item` (default: the window), or null.
    function named(name, item) {
        return findNamed(item === undefined ? window.contentItem : item, name)
    }
    function findNamed(item, name) {
        if (!item) return null
        if (item.objectName === name) return item
        var children = item.children
        for (var i = 0; i < children.length; ++i) {
            var found = findNamed(children[i], name)
            if (found) return found
        }
        if (item.contentItem && item.contentItem !== item) return findNamed(item.contentItem, name)
        return null
    }
    // Selects the model, turns the simulated lidar on and connects; waits until connected.
    function connectSimulated(model) {
        verify(Desk.selectModel(model), "model " + model)
        Desk.simulated = true
        Desk.connectLidar()
        tryVerify(function() { return Manager.isConnected }, 10000, "connected to " + model)
        tryVerify(function() { return !Desk.queue.busy }, 10000)
    }
    function openView(name) {
        verify(window.showView(name), "view " + name)
        waitForRendering(window.contentItem)
        return window.currentViewItem
    }

    function initTestCase() {
        var component = Qt.createComponent("qrc:/qml/Main.qml")
        compare(component.status, Component.Ready, component.errorString())
        window = component.createObject(null)
        verify(window)
        popups = named("messagePopups")
        verify(popups)
        waitForRendering(window.contentItem)
    }
    // Waits until the queue is empty and the manager's signals of its last operation, queued
    // onto this thread, have been delivered.
    function idle() {
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        wait(0)
    }
    function cleanup() {
        Probe.clearFaults()
        Desk.disconnectLidar()
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        // Every test starts with fresh views: the transfer views are kept once shown.
        window.showView("Connect")
        var loaders = named("viewLoaders")
        for (var i = 0; i < loaders.count; ++i) loaders.itemAt(i).everShown = false
    }
    function cleanupTestCase() {
        window.destroy()
    }
}
