import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Firmware and Logs views against the simulated lidar: an upgrade reaches the lidar whole
// with its progress shown, a Heron OTA package is listed and sent component by component, Cancel
// warns before it abandons, and logs land in the chosen folder.
WindowTestCase {
    name: "Transfers"

    function choosePackage(path) {
        var field = named("packagePath")
        field.text = path
        field.editingFinished()
    }
    function startUpgrade() { startUpgradeOf(function() {}) }
    // Presses Upgrade once it is enabled, after `beforePress` has run.
    function startUpgradeOf(beforePress) {
        var button = named("upgradeButton")
        tryVerify(function() { return button.enabled }, 5000, "Upgrade enabled")
        beforePress()
        // Not a mouse click: an error pop-up of the test before may lie over the button.
        button.clicked()
    }
    // The log pane's shown line that holds `text`, or null.
    function logLineContaining(text) {
        var shown = named("logLines").contentItem.children
        for (var i = 0; i < shown.length; ++i)
            if (shown[i].text !== undefined && shown[i].text.indexOf(text) >= 0) return shown[i]
        return null
    }
    function lastTransfer() {
        var transfers = Probe.transfers()
        return transfers.length > 0 ? transfers[transfers.length - 1] : null
    }

    function test_anUpgradeReachesTheLidarWholeAndCancelWarnsBeforeAbandoningTheRestart() {
        var size = 300 * 1024 + 77
        var path = Probe.writeFile("egret-firmware.bin", size)
        connectSimulated("Egret")
        openView("Firmware")
        choosePackage(path)
        startUpgrade()
        tryVerify(function() { return Manager.isUpgrading }, 5000, "the upgrade runs")
        tryVerify(function() { return !named("upgradeButton").enabled }, 5000,
                  "no second upgrade meanwhile")
        tryCompare(named("upgradeOutcome"), "text",
                   "Upgrade package transmitted successfully. The lidar will automatically reboot within 10 seconds.",
                   20000)
        compare(named("upgradeProgressBar").value, 100)
        // The person looks elsewhere and comes back: the outcome and Cancel are still there.
        var firmwareView = window.currentViewItem
        openView("Connect")
        compare(openView("Firmware"), firmwareView)
        verify(named("upgradeOutcome").text.indexOf("transmitted successfully") >= 0)
        verify(named("cancelUpgrade").enabled, "the restart can still be abandoned")
        var percent = named("upgradePercent").text
        verify(percent.indexOf("100 %  ") === 0, percent)
        verify(percent.indexOf(" of 300 KiB") > 0, percent)

        var transfer = lastTransfer()
        verify(transfer, "the lidar saw a transfer")
        compare(transfer.command, 0x83)
        compare(transfer.receivedSize, size)
        compare(transfer.receivedCrc, Probe.crc32Of(path))
        verify(transfer.completed)

        // The network models restart the lidar 10 s after the transfer: the first Cancel only
        // warns, the second abandons the restart by closing the connection.
        var cancel = named("cancelUpgrade")
        verify(cancel.enabled, "the restart can be abandoned")
        cancel.clicked()
        var warning = named("cancelWarning")
        verify(warning.text.indexOf("Press Cancel again to abandon the restart") > 0, warning.text)
        verify(Manager.isConnected, "a first Cancel changes nothing")

        cancel.clicked()
        tryVerify(function() { return !Manager.isConnected }, 5000, "the second one disconnects")
        compare(warning.text, "Abandoning the automatic restart.")
        tryVerify(function() {
            return named("upgradeOutcome").text.indexOf("the lidar was not restarted") > 0
        }, 5000, "the manager's word on the abandoned restart is shown")
        compare(Probe.requestCount(0x10), 0, "no restart was sent")
        // The log line is longer than the pane is wide: its advice at the end is shown too.
        var line = null
        tryVerify(function() {
            line = logLineContaining("the lidar was not restarted")
            return line !== null
        }, 5000, "the log pane shows the abandoned restart")
        verify(!line.truncated, line.text)
        verify(line.lineCount > 1, "wrapped over " + line.lineCount + " line(s)")
    }

    // The manager refuses a restart or a reset silently while a transfer runs: the buttons say so.
    function test_restartAndResetWaitForAnUpgrade() {
        var path = Probe.writeFile("slow-firmware.bin", 200 * 1024)
        connectSimulated("Egret")
        openView("Firmware")
        verify(Probe.setFault(0x83, "delay=1000"))
        choosePackage(path)
        startUpgrade()
        tryVerify(function() { return Manager.isUpgrading }, 5000, "the upgrade runs")
        // The queue is free again once the manager's worker has taken the transfer over.
        idle()
        openView("Connect")
        verify(Manager.isUpgrading, "still sending")
        verify(!named("restartButton").enabled, "no restart meanwhile")
        verify(!named("resetButton").enabled, "no reset meanwhile")
        Desk.disconnectLidar()
        tryVerify(function() { return !Manager.isUpgrading }, 10000)
    }

    // An empty, missing or folder "package" is named at the field, before anything is sent; the
    // lidar would otherwise be restarted for nothing.
    function test_aFileThatCannotBeSentIsRefusedAtTheField() {
        connectSimulated("Egret")
        openView("Firmware")
        var transfersBefore = Probe.transfers().length
        var problem = named("packageProblem")
        var empty = Probe.writeFile("empty.bin", 0)
        choosePackage(empty)
        compare(problem.text, "The package " + empty + " is empty; nothing was sent")
        verify(problem.visible)
        verify(!named("upgradeButton").enabled, "no upgrade of an empty file")

        choosePackage(Probe.folder() + "/missing.bin")
        verify(problem.text.indexOf("Cannot read the package " + Probe.folder()
                                    + "/missing.bin: ") === 0, problem.text)
        choosePackage(Probe.folder())
        compare(problem.text, "Cannot read the package " + Probe.folder() + ": it is a folder")
        verify(!named("upgradeButton").enabled)

        // A file that becomes empty after it was chosen is checked again at Upgrade.
        var firmware = Probe.writeFile("later-empty.bin", 4096)
        choosePackage(firmware)
        verify(!problem.visible, problem.text)
        startUpgradeOf(function() { Probe.writeFile("later-empty.bin", 0) })
        compare(problem.text, "The package " + firmware + " is empty; nothing was sent")
        verify(!Manager.isUpgrading)
        idle()
        compare(Probe.transfers().length, transfersBefore)
    }

    function test_aHeronPackageIsListedThenSentComponentByComponent() {
        var path = Probe.writeOtaPackage("heron.ota", {"BMB_APP_A": 3000, "BMB_APP_B": 5000,
                                                       "TMB_FPGA": 2048, "TMB_PARAM": 700})
        verify(path !== "")
        connectSimulated("Heron-VRC")
        var view = openView("Firmware")
        choosePackage(path)
        verify(named("componentTable").visible)
        compare(view.inspection.components.length, 4)
        // An FPGA image goes without its leading 1024-byte block.
        compare(view.inspection.components[2].name, "TMB_FPGA")
        compare(view.inspection.components[2].sent, 1024)
        var paramCrc = named("componentCrc_TMB_PARAM").text
        verify(/^0x[0-9A-F]{8}$/.test(paramCrc), paramCrc)

        startUpgrade()
        tryCompare(named("upgradeOutcome"), "text",
                   "Heron upgrade completed. Restart command has been sent.", 30000)
        compare(named("upgradePercent").text.indexOf("100 %"), 0)
        // The lidar ran partition A: B, the FPGA image and the parameters went, in that order,
        // each as the view listed it.
        var received = Probe.components()
        compare(received.length, 3)
        compare(received[0].type, 2)
        compare(received[0].crc, named("componentCrc_BMB_APP_B").text)
        compare(received[1].type, 0)
        compare(received[1].crc, named("componentCrc_TMB_FPGA").text)
        compare(received[2].type, 3)
        compare(received[2].crc, paramCrc)
        compare(named("componentProgress_BMB_APP_B").text, "sent")
        compare(named("componentProgress_TMB_PARAM").text, "sent")
        compare(named("componentProgress_BMB_APP_A").text, "", "the running partition is kept")
    }

    function test_aPackageTheHeronUpgradeRefusesIsNotStarted() {
        var path = Probe.writeFile("short.ota", 40)
        verify(Desk.selectModel("Heron-VRC"))
        openView("Firmware")
        choosePackage(path)
        var refusal = named("packageRefusal")
        verify(refusal.visible)
        compare(refusal.text, "The upgrade refuses this package: the file holds 40 bytes, "
                              + "fewer than the 56 of the header")
        verify(!named("upgradeButton").enabled)
        choosePackage(Probe.writeOtaPackage("good.ota", {"TMB_PARAM": 64}))
        verify(!refusal.visible, "a package the upgrade takes is not refused")
        verify(named("componentTable").visible)
    }

    function test_aDeviceLogLandsInTheChosenFolder() {
        connectSimulated("Egret")
        openView("Logs")
        var folder = Probe.folder()
        var field = named("logFolder")
        field.text = folder
        field.editingFinished()
        var button = named("downloadLog_Device Log")
        verify(button, "the catalogue's Device Log is offered")
        tryVerify(function() { return button.enabled }, 5000)
        mouseClick(button)
        var written = named("writtenFile")
        tryVerify(function() { return written.text !== "" }, 10000, "the file is shown")
        var name = written.text.slice(written.text.lastIndexOf("/") + 1)
        verify(/^Device Log_\d{8}-\d{6}\.bin$/.test(name), name)
        compare(written.text, folder + "/" + name)
        verify(Probe.filesIn(folder).indexOf(name) >= 0, "written into the folder")
        verify(Probe.readText(written.text).indexOf("egret: boot ok") >= 0, Probe.readText(written.text))
        compare(named("logOutcome").text, "Device Log saved.")
    }

    // A folder that takes no file is named before the lidar is asked for a log.
    function test_aFolderThatTakesNoFileIsNamedBeforeTheLidarIsAsked() {
        connectSimulated("Egret")
        openView("Logs")
        var field = named("logFolder")
        field.text = "/proc"
        field.editingFinished()
        var button = named("downloadLog_Device Log")
        tryVerify(function() { return button.enabled }, 5000)
        var reads = Probe.requestCount(0x75)
        mouseClick(button)
        compare(named("logOutcome").text, "Device Log was not downloaded: cannot write into "
                + "/proc: the folder takes no new files.")
        idle()
        verify(!Manager.isDownloadLog)
        compare(named("writtenFile").text, "")
        field.text = Probe.folder() + "/missing"
        field.editingFinished()
        mouseClick(button)
        compare(named("logOutcome").text, "Device Log was not downloaded: no such folder: "
                + Probe.folder() + "/missing.")
        compare(Probe.requestCount(0x75), reads, "the lidar was not asked")
    }

    function test_theOperationLogIsPackedIntoTheArchive() {
        connectSimulated("Egret")
        openView("Logs")
        var field = named("operationLogArchive")
        field.text = Probe.folder() + "/operation"
        field.editingFinished()
        mouseClick(named("downloadOperationLog"))
        var written = named("writtenFile")
        tryCompare(written, "text", Probe.folder() + "/operation.tar", 40000)
        verify(Probe.fileSize(written.text) > 0)
        compare(named("logOutcome").text, "Operation log saved.")
    }

    // Closing the connection is the only way to end a log request in flight: the first Cancel
    // says so, the second does it, and nothing is saved.
    function test_aSlowLogDownloadIsCancelledInTwoSteps() {
        connectSimulated("Egret")
        openView("Logs")
        var field = named("logFolder")
        field.text = Probe.folder()
        field.editingFinished()
        var before = Probe.filesIn(Probe.folder()).length
        verify(Probe.setFault(0x75, "delay=4000"))
        var button = named("downloadLog_Device Log")
        tryVerify(function() { return button.enabled }, 5000)
        button.clicked()
        var cancel = named("cancelDownload")
        tryVerify(function() { return cancel.visible }, 5000, "Cancel offered while it runs")
        cancel.clicked()
        verify(named("logCancelWarning").text.indexOf("Press Cancel again") > 0)
        verify(Manager.isConnected)
        cancel.clicked()
        // Had the request waited for the lidar's late answer, the log would have been saved.
        tryVerify(function() { return !Manager.isDownloadLog }, 10000, "the request ended")
        verify(!Manager.isConnected)
        tryCompare(named("logOutcome"), "text", "Device Log was not saved.")
        compare(Probe.filesIn(Probe.folder()).length, before, "no file written")
        Probe.clearFaults()
    }
}
