import QtQuick 2.15
import QtTest 1.15
import Lidar 1.0
import LidarTest 1.0

// The Device view (identity and versions as the lidar reports them) and the Field of view view
// (the channel table edited, checked, applied and read back).
WindowTestCase {
    name: "Device"

    // The queue is empty and what its operations announced has reached the views: the
    // manager's signals are queued to this thread before the queue's last operation returns.
    function idle() {
        tryVerify(function() { return !Desk.queue.busy }, 5000)
        wait(0)
    }
    function shown(objectName) {
        var field = named(objectName)
        return field ? field.shownText : "(no " + objectName + ")"
    }
    // Byte `index` of a simulator block, as two hexadecimal digits.
    function blockByte(command, index) {
        return Probe.block(command).split(" ")[index]
    }
    // A bound of the 0x23 block in tenths of a degree: after the mode and the region count come
    // each region's start and end, two bytes each, most significant first.
    function reportedBound(region, end) {
        var at = 2 + region * 4 + (end ? 2 : 0)
        return parseInt(blockByte(0x23, at) + blockByte(0x23, at + 1), 16)
    }
    function setBound(index, text) {
        var field = named("fovBound" + index)
        verify(field, "bound field " + index)
        field.text = text
    }

    function test_deviceViewShowsTheIdentityTheLidarHolds() {
        connectSimulated("Egret")
        // Values of the test's own, so that the catalogue's defaults cannot pass for them.
        verify(Probe.writeBlockText(0x07, "", 0, 16, "EGT0000042"))
        verify(Probe.writeBlockText(0x07, "", 88, 16, "PN-TEST-7"))
        openView("Device")
        // The view reads when it opens; the field is made anew when the values come.
        tryVerify(function() { return shown("device_sn") === "EGT0000042" }, 5000, "serial")
        compare(shown("device_pn"), "PN-TEST-7")
        compare(shown("device_model_version"), Probe.blockText(0x07, "", 72, 16))
        idle()

        // Read again brings what the lidar holds now.
        verify(Probe.writeBlockText(0x07, "", 0, 16, "EGT0000043"))
        var reads = Probe.requestCount(0x07)
        mouseClick(named("readDeviceButton"))
        tryVerify(function() { return shown("device_sn") === "EGT0000043" }, 5000, "read again")
        compare(Probe.requestCount(0x07), reads + 1)
    }

    // A read the lidar refuses keeps the values shown and says which request failed and why.
    function test_aReadTheLidarRefusesIsTold() {
        connectSimulated("Egret")
        openView("Device")
        tryVerify(function() { return shown("device_sn") !== "" }, 5000, "serial")
        idle()
        var serial = shown("device_sn")
        verify(!popups.errorShown, popups.errorText)
        verify(Probe.setFault(0x07, "status=4"))
        mouseClick(named("readDeviceButton"))
        tryVerify(function() { return popups.errorShown }, 5000, "an error pop-up")
        verify(/^Could not read .*Serial Number.* \(request 0x07\): the lidar answered with status 4 \(busy\)$/
               .test(popups.errorText), popups.errorText)
        idle()
        compare(shown("device_sn"), serial)
    }

    function test_deviceViewShowsTheWrenInformationPageOverItsSerialLines() {
        connectSimulated("Wren")
        openView("Device")
        var serial = Probe.blockText(0x06, "", 0, 16)
        verify(serial !== "")
        tryVerify(function() { return shown("device_sn") === serial }, 5000, "serial")
        verify(Probe.requestCount(0x06) > 0)
        compare(shown("device_pn"), Probe.blockText(0x06, "", 16, 16))
    }

    function test_fieldOfViewEditReachesTheLidar() {
        connectSimulated("Egret")
        openView("Field of view")
        idle()
        compare(named("fovBound0").text, (reportedBound(0, false) / 10).toFixed(1))

        var writes = Probe.requestCount(0x22)
        setBound(0, "15.5")
        setBound(5, "200")
        setBound(1, "250.0")
        setBound(6, "300.5")
        mouseClick(named("fovApply"))
        tryVerify(function() { return Probe.requestCount(0x22) > writes }, 5000, "0x22 sent")
        idle()
        compare(reportedBound(0, false), 155)
        compare(reportedBound(0, true), 2000)
        compare(reportedBound(1, false), 2500)
        compare(reportedBound(1, true), 3005)
        // The view shows what the lidar reports after the write.
        compare(named("fovBound5").text, "200.0")
        compare(Manager.fovList[6], "300.5")

        // The mode goes with the table.
        var mode = named("fovMode")
        var other = blockByte(0x23, 0) === "00" ? 1 : 0
        mode.currentIndex = other
        mouseClick(named("fovApply"))
        tryVerify(function() { return blockByte(0x23, 0) === "0" + other }, 5000, "mode sent")
        idle()
        compare(mode.currentIndex, other)
        compare(reportedBound(0, false), 155)
    }

    function test_fieldOfViewRefusesWhatTheLidarWouldMisread_data() {
        return [
            { tag: "above a full circle", index: 5, text: "360.1",
              error: "region 1 end '360.1': a bound is degrees from 0 to 360 with at most one "
                     + "decimal (the lidar keeps tenths of a degree); nothing was sent" },
            { tag: "negative", index: 0, text: "-1",
              error: "region 1 start '-1': a bound is degrees from 0 to 360 with at most one "
                     + "decimal (the lidar keeps tenths of a degree); nothing was sent" },
            { tag: "hundredths", index: 2, text: "10.25",
              error: "region 3 start '10.25': a bound is degrees from 0 to 360 with at most one "
                     + "decimal (the lidar keeps tenths of a degree); nothing was sent" },
            { tag: "not a number", index: 9, text: "abc",
              error: "region 5 end 'abc': a bound is degrees from 0 to 360 with at most one "
                     + "decimal (the lidar keeps tenths of a degree); nothing was sent" },
            { tag: "start after end", index: 3, text: "350", endIndex: 8, endText: "20.5",
              error: "region 4 would start at 350.0, after its end 20.5; a region runs up from "
                     + "its start, so one that crosses 0 degrees is two regions, 350.0 to 360.0 "
                     + "and 0.0 to 20.5; nothing was sent" }
        ]
    }
    function test_fieldOfViewRefusesWhatTheLidarWouldMisread(data) {
        connectSimulated("Egret")
        openView("Field of view")
        idle()
        var before = Probe.block(0x23)
        var writes = Probe.requestCount(0x22)
        setBound(data.index, data.text)
        if (data.endIndex !== undefined) setBound(data.endIndex, data.endText)
        // Told at the table as it is typed, and Apply waits for a table the lidar can take.
        var problem = data.error.replace(/; nothing was sent$/, "")
        compare(named("fovProblem").text, problem.charAt(0).toUpperCase() + problem.slice(1))
        verify(!named("fovApply").enabled, "Apply waits")
        // Applied anyway (a field changed behind the button's back), it is refused the same.
        window.currentViewItem.apply()
        compare(popups.errorText, data.error)
        // Nothing was queued: the queue is busy from the moment an operation is queued.
        verify(!Desk.queue.busy)
        compare(Probe.requestCount(0x22), writes)
        compare(Probe.block(0x23), before)
    }

    function test_fieldOfViewIsOfferedOnlyWhereTheCatalogueHasIt() {
        verify(Desk.selectModel("Egret"))
        verify(window.showView("Field of view"))
        verify(Desk.selectModel("Wren"))
        verify(!window.showView("Field of view"))
        verify(Desk.selectModel("Heron-VRC"))
        verify(window.showView("Field of view"))
    }
}
