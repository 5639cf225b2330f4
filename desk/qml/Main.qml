import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import QtQuick.Window 2.15
import Lidar 1.0
import "controls"
import "views"

ApplicationWindow {
    id: window
    width: 1280
    height: 800
    minimumWidth: 1024
    minimumHeight: 640
    visible: true
    title: "lidar-desk" + (Manager.selectedLidarModel ? " - " + Manager.selectedLidarModel : "")

    // The views in the side navigation; `shown` hides those the model does not have.
    readonly property bool serialModel: Manager.connectType !== 0
    // The manager's table always holds ten bounds: a model has the view when its catalogue
    // reads the table (0x23). The argument makes the binding follow a change of model.
    readonly property bool hasFieldOfView: catalogueReads("0x23", Manager.selectedLidarModel)
    function catalogueReads(command, model) {
        if (model === "") return false
        var map = Manager.catalogueVariableMap()
        for (var m = 0; m < map.length; ++m)
            for (var p = 0; p < map[m].length; ++p)
                for (var v = 0; v < map[m][p].length; ++v)
                    if (map[m][p][v].get_cmd === command) return true
        return false
    }
    readonly property bool hasModelOperations: Manager.selectedLidarModel === "Wren"
                                               || Manager.selectedLidarModel === "Wren-VRC"
                                               || Manager.selectedLidarModel === "Heron-VRC"
    readonly property var views: [
        { name: "Connect", source: "views/ConnectView.qml", shown: true },
        { name: "Device", source: "views/DeviceView.qml", shown: true },
        { name: "Parameters", source: "views/ParametersView.qml", shown: true },
        { name: "Field of view", source: "views/FieldOfViewView.qml", shown: hasFieldOfView },
        { name: "Console", source: "views/ConsoleView.qml", shown: true },
        { name: "Firmware", source: "views/FirmwareView.qml", shown: true, kept: true },
        { name: "Logs", source: "views/LogsView.qml", shown: true, kept: true },
        { name: "Monitor", source: "views/MonitorView.qml", shown: true },
        { name: "Model operations", source: "views/ModelOperationsView.qml",
          shown: hasModelOperations }
    ]
    property int currentView: 0

    // Opens the view of that name (tests and the keyboard use it).
    function showView(name) {
        for (var i = 0; i < views.length; ++i) {
            if (views[i].name === name && views[i].shown) {
                currentView = i
                return true
            }
        }
        return false
    }
    // The item of the view shown (set by its loader).
    property Item currentViewItem: null

    RowLayout {
        anchors.fill: parent
        spacing: 0

        Pane {
            Layout.fillHeight: true
            Layout.preferredWidth: 190
            padding: 0
            ListView {
                id: navigation
                anchors.fill: parent
                model: window.views
                currentIndex: window.currentView
                keyNavigationEnabled: true
                activeFocusOnTab: true
                delegate: ItemDelegate {
                    width: navigation.width
                    height: modelData.shown ? implicitHeight : 0
                    visible: modelData.shown
                    text: modelData.name
                    highlighted: index === window.currentView
                    onClicked: window.currentView = index
                }
                Keys.onReturnPressed: window.currentView = currentIndex
            }
        }

        ColumnLayout {
            Layout.fillWidth: true
            Layout.fillHeight: true
            spacing: 0

            // A view is made when it is shown and let go when another is. The transfer views
            // (`kept`) stay once shown: an upgrade or a download goes on while the person looks
            // elsewhere, and its progress, outcome and Cancel must be there on the way back.
            Item {
                Layout.fillWidth: true
                Layout.fillHeight: true
                Repeater {
                    objectName: "viewLoaders"
                    model: window.views
                    delegate: Loader {
                        readonly property bool current: index === window.currentView
                        property bool everShown: false
                        anchors.fill: parent
                        active: current || (modelData.kept === true && everShown)
                        visible: current
                        source: modelData.source
                        function showIfCurrent() {
                            if (!current) return
                            everShown = true
                            window.currentViewItem = item
                        }
                        onCurrentChanged: showIfCurrent()
                        onLoaded: showIfCurrent()
                    }
                }
            }
            LogPane {
                Layout.fillWidth: true
                Layout.preferredHeight: 160
            }
            StatusLine {
                Layout.fillWidth: true
            }
        }
    }

    // Closing with edits not applied asks first.
    property bool closeSettled: false
    onClosing: function(close) {
        if (closeSettled) return
        close.accepted = false
        closeGuard.whenSettled("close the window", function() {
            closeSettled = true
            Qt.callLater(window.close)
        })
    }
    UnappliedEditsDialog {
        id: closeGuard
        objectName: "closeGuard"
    }

    MessagePopups {
        objectName: "messagePopups"
        anchors.fill: parent
    }
}
