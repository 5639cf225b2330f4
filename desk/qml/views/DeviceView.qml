import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Lidar 1.0
import "../controls"
import "../controls/values.js" as Values

// The lidar's identity and versions: the catalogue module read with the device-information
// command (the first module on the serial models, whose information pages come first), read
// through the queue when the view opens and whenever the lidar connects.
ScrollView {
    id: view
    objectName: "deviceView"
    clip: true

    // The device-information command of the network and VRC models.
    readonly property string deviceInfoCommand: "0x07"
    property int infoModule: -1
    property string moduleName: ""
    // The module's pages as the manager presents them: [{ name, variables: [map entry...] }].
    property var pages: []

    function moduleWithDeviceInfo(map) {
        for (var m = 0; m < map.length; ++m)
            for (var p = 0; p < map[m].length; ++p)
                for (var v = 0; v < map[m][p].length; ++v)
                    if (map[m][p][v].get_cmd === deviceInfoCommand) return m
        return map.length > 0 ? 0 : -1
    }
    // The page's name is the first text of its level-2 entry.
    function pageName(labels, module, page) {
        var moduleLabels = module < labels.length ? labels[module] : []
        var pageLabels = page < moduleLabels.length ? moduleLabels[page] : []
        return pageLabels.length > 0 ? pageLabels[0] : "Page " + (page + 1)
    }
    function reload() {
        var map = Manager.catalogueVariableMap()
        infoModule = moduleWithDeviceInfo(map)
        var names = Manager.catalogueLevel1List()
        moduleName = infoModule >= 0 && infoModule < names.length ? names[infoModule] : ""
        var labels = Manager.catalogueLevel2List()
        var shown = []
        if (infoModule >= 0) {
            for (var p = 0; p < map[infoModule].length; ++p)
                shown.push({ name: pageName(labels, infoModule, p),
                             variables: map[infoModule][p] })
        }
        pages = shown
    }
    function readDevice() {
        if (Manager.isConnected && infoModule >= 0) Desk.queue.call("readModule", [infoModule])
    }

    Component.onCompleted: {
        reload()
        readDevice()
    }
    Connections {
        target: Manager
        // The network kind announces a read with myMapChanged, the serial kinds with
        // wrenLidarInfoChanged.
        function onMyMapChanged() { view.reload() }
        function onWrenLidarInfoChanged() { view.reload() }
        function onLidarModelChanged() { view.reload() }
        function onIsConnectedChanged() {
            view.reload()
            view.readDevice()
        }
    }

    ColumnLayout {
        width: view.availableWidth
        spacing: 12

        RowLayout {
            Label {
                text: view.moduleName === "" ? "Device" : view.moduleName
                font.bold: true
                font.pointSize: 13
                Layout.fillWidth: true
            }
            Button {
                objectName: "readDeviceButton"
                text: "Read again"
                enabled: Manager.isConnected && !Desk.queue.busy && view.infoModule >= 0
                onClicked: view.readDevice()
            }
        }
        Label {
            visible: !Manager.isConnected
            text: "Connect a lidar to read its identity and versions; until then the catalogue's "
                  + "defaults are shown."
            color: "gray"
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        Label {
            visible: view.infoModule < 0
            text: "Choose a model on the Connect view."
            color: "gray"
        }

        Repeater {
            model: view.pages
            delegate: GroupBox {
                title: modelData.name
                Layout.fillWidth: true
                ColumnLayout {
                    anchors.fill: parent
                    Repeater {
                        model: modelData.variables
                        delegate: ReadOnlyField {
                            objectName: "device_" + modelData.var_id
                            Layout.fillWidth: true
                            label: modelData.var_name
                            value: Values.shownValue(modelData)
                        }
                    }
                }
            }
        }
    }
}
