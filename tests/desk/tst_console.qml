import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Console view: raw commands reach the simulated lidar, the reply is shown as the lidar sent
// it, and the history keeps the commands, fills the fields again and lasts in its file.
WindowTestCase {
    name: "Console"

    function send(header, payload) {
        named("consoleHeader").text = header
        named("consolePayload").text = payload
        var button = named("consoleSend")
        tryVerify(function() { return button.enabled }, 5000, "Send enabled")
        mouseClick(button)
        tryVerify(function() { return !Desk.queue.busy }, 10000)
        // The manager's signals reach the view queued, after the queue is idle again.
        var view = window.currentViewItem
        tryVerify(function() {
            return JSON.stringify(view.history) === JSON.stringify(Manager.getSendCommandHistory())
                    && view.replyHeader === Manager.getSendVrcCommandReturnHeader()
        }, 5000, "the view shows the manager's history and reply")
    }

    function test_sendShowsTheLidarsReplyAndKeepsTheCommand() {
        connectSimulated("Egret")
        var view = openView("Console")
        var before = Probe.requestCount(0x23)
        var entries = view.history.length

        send("0x23", "")
        compare(Probe.requestCount(0x23), before + 1, "the lidar got the command once")
        // The reply's payload is the block the lidar holds for 0x23, as the manager formats it.
        tryCompare(named("replyPayload"), "text", Probe.block(0x23).toUpperCase())
        compare(named("replyHeader").text.split(" ").length, 8, named("replyHeader").text)
        compare(view.history.length, Math.min(10, entries + 1))
        compare(view.history[0].send_cmd_history, "23", "kept as the manager cleaned it")
        compare(named("historyList").count, view.history.length)
        // Written after the send: a new window finds it.
        tryVerify(function() {
            var rows = Probe.readText("Config/command_log_file.csv").split("\n")
            return rows.length > 1 && /,"?23"?,"?"?\r?$/.test(rows[1])
        }, 5000, Probe.readText("Config/command_log_file.csv"))
    }

    function test_choosingAHistoryEntryFillsTheFields() {
        connectSimulated("Egret")
        var view = openView("Console")
        send("0x07", "")
        send("0x75", " 0x01   ")  // the operation log's request
        compare(view.history[0].send_cmd_history, "75")
        compare(view.history[0].send_payload_history, "01")
        compare(view.history[1].send_cmd_history, "07")

        named("consoleHeader").text = ""
        named("consolePayload").text = "ff"
        var older = named("historyEntry1")
        verify(older, "the second entry is shown")
        mouseClick(older)
        compare(named("consoleHeader").text, "07")
        compare(named("consolePayload").text, "")
        mouseClick(named("historyEntry0"))
        compare(named("consoleHeader").text, "75")
        compare(named("consolePayload").text, "01")

        // Sent again from the fields: the lidar gets it and it heads the history once more.
        var before = Probe.requestCount(0x75)
        mouseClick(named("consoleSend"))
        tryVerify(function() { return Probe.requestCount(0x75) === before + 1 }, 5000)
        tryVerify(function() {
            return view.history.length > 2 && view.history[1].send_cmd_history === "75"
                    && view.history[2].send_cmd_history === "07"
        }, 5000, "the command sent again heads the history")
        compare(named("replyPayload").text.length > 0, true, "the log's reply is shown")
    }

    function within(item, ancestor) {
        for (var at = item; at; at = at.parent)
            if (at === ancestor) return true
        return false
    }
    // A person without a mouse: Tab reaches the history, the arrows pick an entry, Enter fills
    // the fields with it.
    function test_theHistoryIsReachedAndChosenByKeyboard() {
        connectSimulated("Egret")
        var view = openView("Console")
        send("0x07", "")
        send("0x75", "01")
        window.requestActivate()
        tryVerify(function() { return window.active }, 5000, "the window has the keyboard")
        named("consoleHeader").text = ""
        named("consolePayload").text = ""
        named("consolePayload").forceActiveFocus()

        var history = named("historyList")
        for (var tabs = 0; tabs < 15 && !within(window.activeFocusItem, history); ++tabs)
            Probe.pressKey(window, Qt.Key_Tab)
        verify(within(window.activeFocusItem, history), "Tab reaches the history")
        compare(history.currentIndex, 0, "the newest entry is picked first")
        Probe.pressKey(window, Qt.Key_Down)
        compare(history.currentIndex, 1)
        Probe.pressKey(window, Qt.Key_Return)
        compare(named("consoleHeader").text, "07")
        compare(named("consolePayload").text, "")
        Probe.pressKey(window, Qt.Key_Up)
        Probe.pressKey(window, Qt.Key_Space)
        compare(named("consoleHeader").text, "75")
        compare(named("consolePayload").text, "01")
    }

    function test_aHeaderThatIsNotHexadecimalIsRefusedByTheManager() {
        connectSimulated("Egret")
        var view = openView("Console")
        var entries = view.history.length
        Probe.resetCounters()
        send("zz", "")
        tryCompare(popups, "errorText", "Incorrect VRC header was entered. Parsing failed.")
        compare(view.history.length, entries, "nothing joined the history")
        compare(named("replyHeader").text, "")
    }

    function test_sendWaitsForAConnection() {
        var view = openView("Console")
        named("consoleHeader").text = "0x07"
        verify(!named("consoleSend").enabled)
    }
}
