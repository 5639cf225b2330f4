import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Parameters view against a simulated Egret: edits through the option list and a typed
// field reach the lidar as exactly the bytes edited; refused text never leaves the field;
// Discard, the network settings and a model change with edits waiting.
WindowTestCase {
    name: "Parameters"

    readonly property int operationGet: 0x30
    readonly property int operationSet: 0x31
    readonly property int networkSet: 0x21

    // Connects, opens Parameters at the module and waits for the row's value. The simulated
    // lidar keeps what earlier tests wrote, so the tests start from whatever it holds.
    function openModule(moduleName, rowName) {
        connectSimulated("Egret")
        var view = openView("Parameters")
        var tab = named("moduleTab_" + moduleName, view)
        verify(tab, "tab " + moduleName)
        mouseClick(tab)
        tryVerify(function() {
            var shown = named("row_" + rowName, view)
            return shown !== null && named("value", shown).text !== ""
        }, 10000, "the module was read")
        // The view's read has come back and its values are shown.
        tryVerify(function() { return view.readTicket < 0 && !Desk.queue.busy }, 10000)
        return view
    }
    // Another option than the one held: the next one, or the one before at the end of the list.
    function chooseAnotherOption(combo) {
        Probe.pressKey(combo, combo.currentIndex < combo.count - 1 ? Qt.Key_Down : Qt.Key_Up)
    }
    function hexBytes(number, width) {
        var hex = (number < 0 ? Math.pow(256, width) + number : number).toString(16)
        while (hex.length < 2 * width) hex = "0" + hex
        return hex.match(/../g)
    }
    function row(view, name) { return named("row_" + name, view) }
    // Replaces the field's text by typing, as a person does after selecting it all.
    function typeInto(field, text) {
        var input = named("input", field)
        input.selectAll()
        Probe.pressKey(input, Qt.Key_Delete)
        Probe.typeText(input, text)
    }
    function pressEnter(field) {
        var input = named("input", field)
        input.forceActiveFocus()
        Probe.pressKey(input, Qt.Key_Return)
    }
    function chooseNextOption(combo) { Probe.pressKey(combo, Qt.Key_Down) }
    function bytesOf(hex) { return hex.trim().split(/\s+/) }
    function overlay() { return window.overlay }

    function test_editsReachTheLidarAsExactlyTheBytesEdited() {
        var view = openModule("Operation", "Spin Rate")
        var before = bytesOf(Probe.block(operationGet))
        compare(before.length, 8, Probe.block(operationGet))
        var setsBefore = Probe.requestCount(operationSet)

        // Another spin rate through the option list.
        var spin = named("optionField", row(view, "Spin Rate"))
        verify(spin, "Spin Rate is an option list")
        chooseAnotherOption(spin)
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "edited")
        var rate = Number(spin.held)
        verify(hexBytes(rate, 2).join(" ") !== before.slice(0, 2).join(" "), spin.held)
        // Another noise filter level by typing, committed with Enter.
        var noise = named("numberField", row(view, "Noise Filter Level"))
        verify(noise, "Noise Filter Level is a typed field")
        compare(named("limits", noise).text, "-5 to 5")
        var level = before[7] === "fd" ? 4 : -3
        typeInto(noise, String(level))
        compare(noise.problem, "")
        pressEnter(noise)
        tryCompare(named("editedMark", row(view, "Noise Filter Level")), "text", "edited")
        compare(Number(Manager.getSetMapSize()), 1)
        verify(named("stagedCount", view).text.indexOf("Spin Rate, Noise Filter Level") >= 0,
               named("stagedCount", view).text)
        compare(Probe.requestCount(operationSet), setsBefore, "staging sends nothing")

        mouseClick(named("applyButton", view))
        tryVerify(function() { return Probe.requestCount(operationSet) === setsBefore + 1 },
                  10000, "one set command")
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        compare(Probe.requestCount(operationSet), setsBefore + 1)

        var expected = before.slice()
        expected.splice(0, 2, hexBytes(rate, 2)[0], hexBytes(rate, 2)[1])
        expected[7] = hexBytes(level, 1)[0]
        compare(bytesOf(Probe.block(operationGet)), expected)
        tryVerify(function() {
            return named("applyOutcome", view).text.indexOf(
                        "VRC command [0x31] to set Spin Rate, Return Mode") >= 0
        }, 5000, named("applyOutcome", view).text)
        compare(Number(Manager.getSetMapSize()), 0)
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "")
        tryVerify(function() {
            return named("value", row(view, "Spin Rate")).text.indexOf(rate + " (") === 0
        }, 10000)
        tryCompare(named("value", row(view, "Noise Filter Level")), "text", String(level), 10000)
        compare(named("stagedCount", view).text, "No edits")
    }

    function test_refusedTextStaysAtTheFieldAndNothingIsSent() {
        var view = openModule("Operation", "Noise Filter Level")
        var before = Probe.block(operationGet)
        var setsBefore = Probe.requestCount(operationSet)
        var noise = named("numberField", row(view, "Noise Filter Level"))

        typeInto(noise, "9")
        compare(noise.problem, "Noise Filter Level must be -5 to 5")
        pressEnter(noise)
        typeInto(noise, "1.5")
        compare(noise.problem, "Noise Filter Level: '1.5' has a fraction; a int8 holds whole "
                               + "numbers and would be written cut toward zero")
        pressEnter(noise)
        typeInto(noise, "abc")
        verify(noise.problem.indexOf("Noise Filter Level: 'abc' is not accepted (") === 0,
               noise.problem)
        pressEnter(noise)
        verify(named("problem", noise).visible)
        compare(noise.text, "abc", "the refused text stays for the person to correct")

        compare(Number(Manager.getSetMapSize()), 0)
        compare(named("editedMark", row(view, "Noise Filter Level")).text, "")
        verify(!named("applyButton", view).enabled)
        compare(Probe.requestCount(operationSet), setsBefore)
        compare(Probe.block(operationGet), before)

        // Corrected, it is accepted and staged.
        typeInto(noise, noise.value === "4" ? "-4" : "4")
        compare(noise.problem, "")
        pressEnter(noise)
        compare(Number(Manager.getSetMapSize()), 1)
        verify(named("applyButton", view).enabled)
    }

    function test_discardEmptiesTheStagingAndShowsTheLidarsValues() {
        var view = openModule("Operation", "Spin Rate")
        var setsBefore = Probe.requestCount(operationSet)
        var held = named("value", row(view, "Spin Rate")).text
        var spin = named("optionField", row(view, "Spin Rate"))
        var heldChoice = spin.currentText
        chooseAnotherOption(spin)
        tryVerify(function() { return named("value", row(view, "Spin Rate")).text !== held })
        compare(Number(Manager.getSetMapSize()), 1)
        verify(named("discardButton", view).enabled)

        mouseClick(named("discardButton", view))
        compare(Number(Manager.getSetMapSize()), 0)
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "")
        tryCompare(named("value", row(view, "Spin Rate")), "text", held, 10000)
        compare(named("optionField", row(view, "Spin Rate")).currentText, heldChoice)
        verify(!named("applyButton", view).enabled)
        compare(Probe.requestCount(operationSet), setsBefore)
    }

    // The lidar refuses the set command: the edit is named as not applied (nothing is staged
    // any more), the lidar keeps its bytes, and Discard clears the mark.
    function test_aRefusedApplyLeavesItsEditMarkedNotApplied() {
        var view = openModule("Operation", "Spin Rate")
        var before = Probe.block(operationGet)
        var spin = named("optionField", row(view, "Spin Rate"))
        chooseAnotherOption(spin)
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "edited")
        verify(Probe.setFault(operationSet, "status=3"))
        mouseClick(named("applyButton", view))
        tryVerify(function() { return view.applyTicket < 0 && !Desk.queue.busy }, 10000)
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "not applied")
        compare(named("stagedCount", view).text, "Not applied: Spin Rate. Edit them again to "
                + "send them, or Discard to show the lidar's values.")
        var outcome = named("applyOutcome", view).text
        verify(outcome !== "" && outcome.indexOf("success") < 0, outcome)
        verify(!named("applyButton", view).enabled, "nothing is staged to apply")
        compare(Probe.block(operationGet), before)

        Probe.clearFaults()
        mouseClick(named("discardButton", view))
        tryCompare(named("editedMark", row(view, "Spin Rate")), "text", "")
        tryCompare(named("stagedCount", view), "text", "No edits")
    }

    function test_networkSettingsSayTheConnectionDropsAndOfferToConnectAgain() {
        connectSimulated("Egret")
        var view = openView("Parameters")
        mouseClick(named("moduleTab_Network", view))
        tryVerify(function() {
            var address = row(view, "IP Address")
            return address !== null && named("value", address).text !== ""
        }, 10000)
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        var setsBefore = Probe.requestCount(networkSet)

        var address = named("numberField", row(view, "IP Address"))
        typeInto(address, "10.9.8.7")
        pressEnter(address)
        compare(Manager.stagedSetCommands(), ["0x21"])
        mouseClick(named("applyButton", view))
        tryVerify(function() {
            var text = named("networkApplyText", overlay())
            return text !== null && text.visible
        })
        verify(named("networkApplyText", overlay()).text.indexOf("drops the connection") >= 0)
        mouseClick(named("cancelNetworkButton", overlay()))
        compare(Probe.requestCount(networkSet), setsBefore, "cancelled: nothing sent")
        verify(Manager.isConnected)
        compare(Number(Manager.getSetMapSize()), 1)

        mouseClick(named("applyButton", view))
        tryVerify(function() {
            var button = named("applyNetworkButton", overlay())
            return button !== null && button.visible
        })
        mouseClick(named("applyNetworkButton", overlay()))
        tryVerify(function() { return !Manager.isConnected }, 10000)
        compare(Probe.requestCount(networkSet), setsBefore + 1)
        verify(Probe.block(0x08).indexOf("0a 09 08 07") === 0, Probe.block(0x08))
        tryVerify(function() {
            var text = named("reconnectText", overlay())
            return text !== null && text.visible
        }, 10000)
        verify(named("reconnectText", overlay()).text.indexOf("Connect at 10.9.8.7?") >= 0,
               named("reconnectText", overlay()).text)
        mouseClick(named("reconnectButton", overlay()))
        tryVerify(function() { return Manager.isConnected }, 10000)
        tryVerify(function() { return !Desk.queue.busy }, 10000)
    }

    // The serial models read their pages through the same view (VRC over a serial line here).
    function test_aSerialModelShowsItsValues() {
        connectSimulated("Wren-VRC")
        var view = openView("Parameters")
        tryVerify(function() {
            var shown = row(view, "Serial Number")
            return shown !== null && named("value", shown).text !== ""
        }, 10000, "the serial lidar's first module was read")
        verify(named("readOnlyField", row(view, "Serial Number")), "a value the lidar reports")
    }

    function test_aModelChangeWithEditsWaitingAsksFirst() {
        var view = openModule("Operation", "Spin Rate")
        chooseAnotherOption(named("optionField", row(view, "Spin Rate")))
        compare(Number(Manager.getSetMapSize()), 1)

        var connect = openView("Connect")
        var chooser = named("modelChooser", connect)
        chooseNextOption(chooser)
        tryVerify(function() { return named("unappliedEditsText", overlay()) !== null })
        var question = named("unappliedEditsText", overlay())
        verify(question.text.indexOf("Spin Rate") >= 0, question.text)
        mouseClick(named("stayButton", overlay()))
        compare(Manager.selectedLidarModel, "Egret")
        verify(Manager.isConnected)
        compare(Number(Manager.getSetMapSize()), 1)

        chooseNextOption(chooser)
        tryVerify(function() {
            var text = named("unappliedEditsText", overlay())
            return text !== null && text.visible
        })
        mouseClick(named("discardEditsButton", overlay()))
        tryVerify(function() { return !Manager.isConnected })
        tryVerify(function() { return Manager.selectedLidarModel !== "Egret" }, 5000)
        compare(Number(Manager.getSetMapSize()), 0)
    }
}
