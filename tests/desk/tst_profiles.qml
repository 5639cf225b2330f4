import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Parameters view's settings profiles against a simulated Egret: Export writes a profile the
// lidar matches, Compare lists what was changed at the lidar since, Apply profile shows that plan,
// writes it once confirmed and verifies it; the network command is verified once connected
// again; a profile that does not fit is refused, naming the key, with nothing written.
WindowTestCase {
    name: "Profiles"

    readonly property int networkGet: 0x08
    readonly property int fieldOfViewGet: 0x23
    readonly property int dataPortOffset: 16
    readonly property int gatewayOffset: 8

    function overlay() { return window.overlay }
    function row(view, name) { return named("row_" + name, view) }
    function outcome(view) { return named("profileOutcome", view).text }
    // The item of that name in an open pop-up, once it is shown.
    function shown(name) {
        tryVerify(function() {
            var item = named(name, overlay())
            return item !== null && item.visible
        }, 10000, name + " shown")
        return named(name, overlay())
    }
    function openParameters() {
        connectSimulated("Egret")
        var view = openView("Parameters")
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        return view
    }
    // Exports the lidar's settings into the test's folder, as the save dialog's choice does.
    function exportTo(view, name) {
        var path = Probe.folder() + "/" + name
        view.exportProfile(path)
        tryVerify(function() { return outcome(view).indexOf("Exported ") === 0 }, 10000,
                  outcome(view))
        return path
    }
    // Presses a button of the view once it is enabled. Not a mouse click: an error pop-up of an
    // earlier test may lie over the view's top.
    function press(view, name) {
        var button = named(name, view)
        tryVerify(function() { return button.enabled }, 10000, name + " enabled")
        button.clicked()
    }
    function choose(view, path) {
        var field = named("profilePath", view)
        field.text = path
        field.editingFinished()
    }
    function bytesAt(command, offset, count) {
        return Probe.block(command).split(" ").slice(offset, offset + count).join(" ")
    }
    // A two-byte field as a number, and a number as its two bytes.
    function wordAt(command, offset) {
        return parseInt(bytesAt(command, offset, 2).replace(" ", ""), 16)
    }
    function wordBytes(value) {
        var hex = ("000" + value.toString(16)).slice(-4)
        return hex.substring(0, 2) + " " + hex.substring(2)
    }
    // Presses Apply profile and waits for the plan to be asked about.
    function askToApply(view) {
        press(view, "applyProfileButton")
        return shown("confirmQuestion")
    }

    function test_exportCompareAndApplyBringTheLidarBackAndShowTheValuesReadBack() {
        var view = openParameters()
        var network = Probe.block(networkGet)
        var fieldOfView = Probe.block(fieldOfViewGet)
        var path = exportTo(view, "egret.json")
        verify(outcome(view).indexOf(" and the field of view to " + path + ".") > 0, outcome(view))
        compare(named("profilePath", view).text, path)
        var written = JSON.parse(Probe.readText(path))
        compare(written.format, "lidar-utilities-profile")
        compare(written.model, "Egret")
        verify(written.excluded.indexOf("IP Address") >= 0, written.excluded)

        // The lidar changes after the export: another data port, and region 1 ends elsewhere
        // (the lidar keeps what earlier tests wrote: the values are chosen from what it holds).
        var port = wordAt(networkGet, dataPortOffset)
        var otherPort = port === 3000 ? 3001 : 3000
        var end1 = wordAt(fieldOfViewGet, 4)
        var otherEnd1 = end1 === 300 ? 301 : 300
        verify(Probe.writeBlock(networkGet, dataPortOffset, wordBytes(otherPort)))
        verify(Probe.writeBlock(fieldOfViewGet, 4, wordBytes(otherEnd1)))
        Probe.resetCounters()
        press(view, "compareProfileButton")
        var details = shown("profileDetailsText").text
        verify(details.indexOf("0x20 (Network / Data Destination):\n  Data Port: " + otherPort
                               + " -> " + port + "\n") >= 0, details)
        verify(details.indexOf("0x22 (field of view):\n  End 1: " + (otherEnd1 / 10).toFixed(1)
                               + " ° -> " + (end1 / 10).toFixed(1) + " °") >= 0, details)
        compare(outcome(view), "2 fields differ from the profile.")
        mouseClick(named("closeProfileDialog", overlay()))
        compare(Probe.requestCount(0x20) + Probe.requestCount(0x22), 0, "comparing writes nothing")

        // The plan is the same list; Cancel writes nothing.
        compare(askToApply(view).text, "Write 2 differences to the lidar (0x20, 0x22)?")
        compare(named("confirmDetails", overlay()).text, details)
        mouseClick(named("confirmCancelButton", overlay()))
        compare(outcome(view), "Not applied: cancelled; nothing was written.")
        compare(Probe.requestCount(0x20) + Probe.requestCount(0x22), 0)

        askToApply(view)
        mouseClick(named("confirmOkButton", overlay()))
        tryCompare(named("profileOutcome", view), "text",
                   "Verified: the lidar holds the profile (0x20, 0x22 written).", 10000)
        compare(Probe.block(networkGet), network)
        compare(Probe.block(fieldOfViewGet), fieldOfView)
        compare(Probe.requestCount(0x21), 0)

        // The pages show what the lidar holds now.
        mouseClick(named("moduleTab_Network", view))
        tryCompare(named("value", row(view, "Data Port")), "text", String(port), 10000)
    }

    function test_theNetworkCommandIsVerifiedOnceConnectedAgain() {
        var view = openParameters()
        var path = exportTo(view, "network.json")
        var gateway = bytesAt(networkGet, gatewayOffset, 4)
        verify(Probe.writeBlock(networkGet, gatewayOffset, "0a 01 02 03"))

        var question = askToApply(view).text
        verify(question.indexOf("Write 1 difference to the lidar (0x21)?") === 0, question)
        verify(question.indexOf("the lidar drops the connection") > 0, question)
        verify(named("confirmDetails", overlay()).text.indexOf("  Gateway: 10.1.2.3 -> ") >= 0)
        mouseClick(named("confirmOkButton", overlay()))
        tryVerify(function() { return !Manager.isConnected }, 10000)
        tryVerify(function() { return outcome(view).indexOf("Written (0x21), not verified") === 0 },
                  10000, outcome(view))
        compare(bytesAt(networkGet, gatewayOffset, 4), gateway)
        verify(named("verifyProfileButton", view).visible, "verifying is offered")

        var text = shown("reconnectText").text
        verify(text.indexOf("Connect again?") > 0, text)
        mouseClick(named("reconnectButton", overlay()))
        tryVerify(function() { return Manager.isConnected }, 10000)
        tryCompare(named("profileOutcome", view), "text",
                   "Written: 0x21. Every other setting is verified; the lidar takes the network "
                   + "settings (0x21) at its next restart, so they are not verified.", 10000)
        verify(!named("verifyProfileButton", view).visible)
    }

    function test_aCommandTheLidarRefusesIsNamedWithWhatWasWrittenBeforeIt() {
        var view = openParameters()
        exportTo(view, "refused.json")
        var port = wordAt(networkGet, dataPortOffset)
        var end1 = wordAt(fieldOfViewGet, 4)
        verify(Probe.writeBlock(networkGet, dataPortOffset, wordBytes(port === 3000 ? 3001 : 3000)))
        verify(Probe.writeBlock(fieldOfViewGet, 4, wordBytes(end1 === 300 ? 301 : 300)))
        var changedFieldOfView = Probe.block(fieldOfViewGet)
        verify(Probe.setFault(0x22, "status=3"))

        askToApply(view)
        mouseClick(named("confirmOkButton", overlay()))
        tryCompare(named("profileOutcome", view), "text",
                   "Not applied: 0x22 was not written; written before it: 0x20.", 10000)
        tryVerify(function() { return popups.errorShown }, 5000, "the lidar's refusal is shown")
        compare(wordAt(networkGet, dataPortOffset), port)
        compare(Probe.block(fieldOfViewGet), changedFieldOfView)
    }

    // The serial lines carry the same profiles.
    function test_aSerialLidarMatchesItsOwnExport() {
        connectSimulated("Wren")
        var view = openView("Parameters")
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        var path = exportTo(view, "wren.json")
        var written = JSON.parse(Probe.readText(path))
        compare(written.model, "Wren")
        verify(written.settings.length > 0, "the serial lidar's settings")
        press(view, "compareProfileButton")
        tryCompare(named("profileOutcome", view), "text", "The lidar matches the profile.", 10000)
    }

    function test_aProfileThatDoesNotFitIsRefusedNamingTheKey() {
        var view = openParameters()
        var path = exportTo(view, "fits.json")
        var json = Probe.readText(path)
        var other = Probe.writeText("plover.json", json.replace('"model": "Egret"', '"model": "Plover"'))
        verify(other !== "")
        verify(Probe.writeBlock(networkGet, dataPortOffset, "0b b8"))
        Probe.resetCounters()

        choose(view, other)
        press(view, "applyProfileButton")
        compare(shown("profileDetailsText").text, "model: the profile is for Plover, the lidar is Egret")
        compare(outcome(view), "Not applied; nothing was written: the profile does not fit this lidar.")
        mouseClick(named("closeProfileDialog", overlay()))

        var broken = Probe.writeText("broken.json", json.replace('"bytes": "', '"bytes": "x'))
        choose(view, broken)
        press(view, "compareProfileButton")
        tryVerify(function() { return outcome(view).indexOf("Not compared: ") === 0 }, 10000,
                  outcome(view))
        verify(outcome(view).indexOf(broken + " is not a profile this program reads: settings[0].bytes")
               > 0, outcome(view))
        compare(Probe.requestCount(0x20) + Probe.requestCount(0x21) + Probe.requestCount(0x22), 0)
        compare(bytesAt(networkGet, dataPortOffset, 2), "0b b8")

        // Edits waiting in the pages would go with the profile's: Apply profile waits for them.
        choose(view, path)
        mouseClick(named("moduleTab_Operation", view))
        tryVerify(function() {
            var spin = row(view, "Spin Rate")
            return spin !== null && named("value", spin).text !== ""
        }, 10000)
        // The view's read has come back and its values are shown.
        tryVerify(function() { return view.readTicket < 0 && !Desk.queue.busy }, 10000)
        var spin = named("optionField", row(view, "Spin Rate"))
        Probe.pressKey(spin, spin.currentIndex < spin.count - 1 ? Qt.Key_Down : Qt.Key_Up)
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "edited")
        verify(!named("applyProfileButton", view).enabled)
        press(view, "discardButton")
        tryVerify(function() { return named("applyProfileButton", view).enabled }, 10000,
                  "edits wait: " + view.editsWait + " (" + view.stagedCount + " staged, "
                  + editedNames(view) + "), link ready: " + view.linkReady)
    }
    function editedNames(view) {
        var names = []
        for (var i = 0; i < view.editedRows.length; ++i) names.push(view.editedRows[i].name)
        return names.join(", ")
    }
}
