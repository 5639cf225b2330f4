import QtQuick 2.15
import QtQuick.Controls 2.15
import QtQuick.Layouts 1.15
import Qt.labs.platform 1.1 as Platform
import Lidar 1.0
import "../controls"
import "../controls/editedRows.js" as EditedRows
import "../controls/values.js" as Values
import "../controls/profileText.js" as ProfileText

// The loaded model's variables: modules as tabs, pages as sections, one row per shown variable
// (name, value, unit, editor). Every read and apply goes through the device queue; edits are
// staged in the manager at once and sent by Apply. The rows show the manager's map: they are
// re-read when it announces new values, and updated in place. A settings profile is exported,
// compared with the lidar and applied from here as well (docs/profiles.md): Apply profile shows
// what it would write and asks first, then writes and reads back.
Pane {
    id: view
    objectName: "parametersView"
    padding: 8

    property var variableMap: []
    property var moduleNames: []
    property var pageLists: []
    // Bumped whenever the staging may have changed, so that what is read from it is read again.
    property int stagingRevision: 0
    readonly property int stagedCount: { stagingRevision; return Manager.getSetMapSize() }
    readonly property var stagedCommands: { stagingRevision; return Manager.stagedSetCommands() }
    // An apply that failed leaves its rows edited with nothing staged: they were not applied.
    readonly property var notAppliedRows: editedRows.filter(function(row) {
        return stagedCommands.indexOf(row.setCmd) < 0 })
    readonly property var editedRows: { stagingRevision; variableMap; return EditedRows.editedRows(Manager) }
    readonly property int editedModule: editedRows.length > 0 ? editedRows[0].module : -1
    readonly property int currentModule: tabs.currentIndex
    readonly property bool linkReady: Manager.isConnected && !Desk.queue.busy
    property int readTicket: -1
    property int applyTicket: -1
    property bool applyDropsConnection: false
    property string addressAfterApply: ""
    property var applyOutcomes: []
    // Settings profiles: the file, the operation in the queue and what the last one came to
    // (a line, and the fields or refusals behind it).
    property string profilePath: ""
    // The plan the person confirmed (compareProfileFile's planKey): only it is written.
    property string confirmedPlan: ""
    // Typing breaks the field's binding: a file chosen later is put into it here.
    onProfilePathChanged: if (profilePathField.text !== profilePath) profilePathField.text = profilePath
    property int profileTicket: -1
    property string profileAction: ""
    property string profileOutcome: ""
    property string profileDetails: ""
    property string profileDetailsTitle: ""
    // The file of an apply whose network command closed the connection: what is verified once
    // the lidar is connected again.
    property string profileToVerify: ""
    property string profileWritten: ""
    readonly property bool editsWait: stagedCount > 0 || editedRows.length > 0

    function reload() {
        variableMap = Manager.catalogueVariableMap()
        moduleNames = Manager.catalogueLevel1List()
        pageLists = Manager.catalogueLevel2List()
        stagingRevision++
    }
    function moduleName(m) { return m < moduleNames.length ? moduleNames[m] : "Module " + (m + 1) }
    function pageName(m, p) {
        var pages = pageLists[m]
        return pages && pages[p] ? pages[p][0] : ""
    }
    // The unit the catalogue appends to a name in the page lists (" (°C)" shows as "°C").
    function unitOf(m, p, name) {
        var pages = pageLists[m]
        var entries = pages && pages[p] ? pages[p] : []
        for (var i = 1; i < entries.length; ++i) {
            if (entries[i].indexOf(name) !== 0) continue
            var suffix = entries[i].substring(name.length).trim()
            return suffix.replace(/^\((.*)\)$/, "$1")
        }
        return ""
    }
    // The first variable of the field-of-view command is its mode; the bounds after it are
    // written as a table by the Field of view view.
    function isFieldOfViewBound(v) {
        if (v.set_cmd !== "0x22") return false
        for (var m = 0; m < variableMap.length; ++m)
            for (var p = 0; p < variableMap[m].length; ++p)
                for (var i = 0; i < variableMap[m][p].length; ++i)
                    if (variableMap[m][p][i].set_cmd === "0x22")
                        return variableMap[m][p][i].var_id !== v.var_id
        return false
    }

    function readCurrentModule() {
        if (!Manager.isConnected || currentModule < 0) return
        // The page timer refreshes the timer variables of the module in use: the one shown.
        Manager.setModuleIndexUse(currentModule)
        readTicket = Desk.queue.call("readModule", [currentModule])
    }
    function requestApply() {
        if (EditedRows.dropsConnection(Manager)) {
            networkDialog.open()
            return
        }
        startApply()
    }
    function startApply() {
        var module = editedModule >= 0 ? editedModule : currentModule
        applyDropsConnection = EditedRows.dropsConnection(Manager)
        addressAfterApply = applyDropsConnection ? EditedRows.newAddress(Manager) : ""
        applyOutcomes = []
        collectingOutcomes = true
        applyTicket = Desk.queue.call("applyPage", [module])
    }
    function discard() {
        var module = editedModule
        Manager.ClearSetMap()
        stagingRevision++
        // The edited texts stay in the values until the lidar's are read again.
        if (module >= 0 && Manager.isConnected) {
            Manager.setModuleIndexUse(module)
            readTicket = Desk.queue.call("readModule", [module])
        }
    }
    // The messages from an apply on, until the next edit: what each set command came to.
    property bool collectingOutcomes: false
    function noteOutcome(text) {
        if (!collectingOutcomes || text === "") return
        applyOutcomes = applyOutcomes.concat([text])
    }

    // ---- Settings profiles: each call reads the lidar, so each goes through the queue ----
    function runProfile(action, method, args) {
        profileAction = action
        profileOutcome = ""
        profileDetails = ""
        profileTicket = Desk.queue.call(method, args)
    }
    function exportProfile(path) {
        profilePath = path
        runProfile("export", "exportProfileFile",
                   [Desk.fileUrl(path), includeOwnAddress.checked, recordReadOnly.checked])
    }
    function compareProfile() {
        runProfile("compare", "compareProfileFile", [Desk.fileUrl(profilePath)])
    }
    // Compares first: the differences are the plan the person confirms.
    function requestApplyProfile() {
        runProfile("plan", "compareProfileFile", [Desk.fileUrl(profilePath)])
    }
    function startApplyProfile() {
        runProfile("apply", "applyProfileFile", [Desk.fileUrl(profilePath), confirmedPlan])
    }
    function verifyProfile() {
        runProfile("verify", "verifyProfileFile", [Desk.fileUrl(profileToVerify), true])
    }
    function showProfileDetails(title, text) {
        profileDetailsTitle = title
        profileDetails = text
        if (text !== "") profileDialog.open()
    }
    function warningsOf(result) {
        var warnings = result.warnings || []
        return warnings.length === 0 ? "" : " Warning: " + warnings.join("; ") + "."
    }
    // A call that did nothing: why, and each refusal (naming its key) in the details.
    function profileFailed(what, result) {
        profileOutcome = what + ": " + result.error + "."
        var refusals = result.refusals || []
        if (refusals.length > 0) showProfileDetails("Profile refused", refusals.join("\n"))
    }
    function profileDiffers(outcome, result) {
        profileOutcome = outcome
        showProfileDetails("Differences from the profile (lidar -> profile)",
                           ProfileText.differenceLines(result))
    }
    function exportFinished(result) {
        if (!result.ok) return profileFailed("Not exported", result)
        profilePath = result.path
        profileOutcome = "Exported " + ProfileText.count(result.settings, "setting", "settings")
                         + (result.fieldOfView ? " and the field of view" : "")
                         + (result.recorded > 0 ? ", " + result.recorded + " read-only values recorded" : "")
                         + " to " + result.path + "."
    }
    function compareFinished(result) {
        if (!result.ok) return profileFailed("Not compared", result)
        if (result.matches) {
            profileOutcome = "The lidar matches the profile." + warningsOf(result)
            return
        }
        profileDiffers(ProfileText.count(result.differenceCount, "field differs", "fields differ")
                       + " from the profile." + warningsOf(result), result)
    }
    function planFinished(result) {
        if (!result.ok) return profileFailed("Not applied; nothing was written", result)
        if (result.matches) {
            profileOutcome = "The lidar already matches the profile; nothing to write."
                             + warningsOf(result)
            return
        }
        profileOutcome = warningsOf(result).trim()
        confirmedPlan = result.planKey
        profileConfirm.ask("Apply profile", ProfileText.applyQuestion(result),
                           view.startApplyProfile, ProfileText.differenceLines(result))
    }
    function applyFinished(result) {
        var written = result.written.join(", ")
        if (result.state === "refused") {
            profileFailed("Not applied; nothing was written", result)
        } else if (result.state === "changed") {
            profileOutcome = "Not applied: the lidar or the file changed since the plan was "
                             + "shown; nothing was written. Apply again to see the new plan."
        } else if (result.state === "matched") {
            profileOutcome = "The lidar already matches the profile; nothing was written."
        } else if (result.state === "failed") {
            profileOutcome = "Not applied: " + result.failedCommand + " was not written"
                             + (written === "" ? "; nothing was written."
                                               : "; written before it: " + written + ".")
        } else if (result.state === "differs") {
            profileDiffers("Written (" + written + "), yet the lidar still differs from the "
                           + "profile.", result.after)
        } else if (result.state === "unread") {
            profileOutcome = "Written (" + written + "), not verified: reading back failed: "
                             + result.error + "."
        } else if (result.state === "verified") {
            profileOutcome = "Verified: the lidar holds the profile (" + written + " written)."
        } else if (result.state === "unverified") {
            profileToVerify = profilePath
            profileWritten = written
            profileOutcome = "Written (" + written + "), not verified: the lidar took the network "
                             + "settings and closed the connection. Connect again to verify the "
                             + "other settings."
            addressAfterApply = result.newAddress
        }
        reload()
        if (!Manager.isConnected && result.state === "unverified") reconnectDialog.open()
        else if (Manager.isConnected) readCurrentModule()
    }
    function verifyFinished(result) {
        if (!result.ok) {
            profileOutcome = "Written, not verified: " + result.error + ". Verify again once the "
                             + "lidar answers."
            return
        }
        profileToVerify = ""
        if (!result.verified) {
            profileDiffers("After writing, the lidar still differs from the profile.", result)
            return
        }
        profileOutcome = result.networkNotVerified
                ? "Written: " + profileWritten + ". Every other setting is verified; the lidar "
                  + "takes the network settings (" + ProfileText.networkCommand + ") at its next "
                  + "restart, so they are not verified."
                : "Verified: the lidar holds the profile."
    }
    function profileFinished(result) {
        var action = profileAction
        profileAction = ""
        if (action === "export") exportFinished(result)
        else if (action === "compare") compareFinished(result)
        else if (action === "plan") planFinished(result)
        else if (action === "apply") applyFinished(result)
        else if (action === "verify") verifyFinished(result)
    }

    onCurrentModuleChanged: readCurrentModule()
    Component.onCompleted: {
        reload()
        readCurrentModule()
    }
    Connections {
        target: Manager
        function onMyMapChanged() { view.reload() }
        function onWrenLidarInfoChanged() { view.reload() }
        // The timer's values are in the catalogue; the map is rebuilt from them on request.
        function onMyTimerMapChanged() { Manager.UpdateUI() }
        function onLidarModelChanged() { view.reload() }
        function onConnectTypeChanged() { view.reload() }
        function onIsConnectedChanged() {
            view.reload()
            if (!Manager.isConnected) return
            view.readCurrentModule()
            if (view.profileToVerify !== "") view.verifyProfile()
        }
        function onSuccessMessageChanged() { view.noteOutcome(Manager.successMessage) }
        function onErrorMessageChanged() { view.noteOutcome(Manager.errorMessage) }
    }
    Connections {
        target: Desk.queue
        function onFinished(ticket, method, result) {
            if (ticket === view.profileTicket) {
                view.profileTicket = -1
                view.profileFinished(result)
            }
            if (ticket === view.readTicket) {
                view.readTicket = -1
                view.reload()
            }
            if (ticket !== view.applyTicket) return
            view.applyTicket = -1
            view.reload()
            if (view.applyDropsConnection && !Manager.isConnected) {
                reconnectDialog.open()
            } else if (Manager.isConnected) {
                view.readCurrentModule()
            }
        }
    }

    ColumnLayout {
        anchors.fill: parent
        spacing: 6

        Label {
            visible: view.variableMap.length === 0
            text: Manager.selectedLidarModel === "" ? "Choose a model in Connect."
                                                    : "Connect to read the lidar's values."
            color: "gray"
        }

        TabBar {
            id: tabs
            objectName: "moduleTabs"
            Layout.fillWidth: true
            Repeater {
                model: view.variableMap.length
                TabButton {
                    objectName: "moduleTab_" + view.moduleName(index)
                    text: view.moduleName(index)
                    width: implicitWidth
                }
            }
        }

        RowLayout {
            Layout.fillWidth: true
            Label {
                objectName: "stagedCount"
                Layout.fillWidth: true
                text: view.editedRows.length === 0 && view.stagedCount === 0 ? "No edits"
                      : view.notAppliedRows.length === view.editedRows.length && view.stagedCount === 0
                        ? "Not applied: " + EditedRows.names(view.notAppliedRows)
                          + ". Edit them again to send them, or Discard to show the lidar's values."
                      : view.stagedCount + " set command" + (view.stagedCount === 1 ? "" : "s")
                        + " to send; edited: " + EditedRows.names(view.editedRows)
            }
            Button {
                objectName: "refreshButton"
                text: "Refresh"
                enabled: view.linkReady && view.editedModule !== view.currentModule
                ToolTip.visible: hovered
                ToolTip.text: view.editedModule === view.currentModule
                              ? "Apply or discard the edits first: reading replaces them"
                              : "Read this module from the lidar again"
                onClicked: view.readCurrentModule()
            }
            Button {
                objectName: "discardButton"
                text: "Discard"
                enabled: !Desk.queue.busy && (view.stagedCount > 0 || view.editedRows.length > 0)
                onClicked: view.discard()
            }
            Button {
                objectName: "applyButton"
                text: "Apply"
                highlighted: true
                enabled: view.linkReady && view.stagedCount > 0
                onClicked: view.requestApply()
            }
        }
        Label {
            objectName: "applyOutcome"
            Layout.fillWidth: true
            visible: text !== ""
            wrapMode: Text.Wrap
            text: view.applyOutcomes.join("\n")
        }
        Label {
            objectName: "otherModuleNote"
            visible: view.editedModule >= 0 && view.editedModule !== view.currentModule
            text: "Edits of " + view.moduleName(view.editedModule)
                  + " wait: apply or discard them before editing this module."
            color: "darkorange"
        }

        GroupBox {
            objectName: "profileBox"
            title: "Settings profile"
            Layout.fillWidth: true
            ColumnLayout {
                anchors.fill: parent
                RowLayout {
                    Layout.fillWidth: true
                    Label { text: "File" }
                    TextField {
                        id: profilePathField
                        objectName: "profilePath"
                        Layout.fillWidth: true
                        text: view.profilePath
                        placeholderText: "a profile file (.json) to compare the lidar with or apply"
                        selectByMouse: true
                        // Each key counts: the buttons follow the path as it is typed.
                        onTextEdited: view.profilePath = text
                        onEditingFinished: view.profilePath = text
                    }
                    Button {
                        text: "Choose..."
                        onClicked: profileChooser.open()
                    }
                }
                RowLayout {
                    Layout.fillWidth: true
                    Button {
                        objectName: "exportProfileButton"
                        text: "Export profile..."
                        enabled: view.linkReady
                        ToolTip.visible: hovered
                        ToolTip.text: "Save the lidar's settings into a profile file"
                        onClicked: exportChooser.open()
                    }
                    CheckBox {
                        id: includeOwnAddress
                        objectName: "includeOwnAddress"
                        text: "With the lidar's own address and MAC"
                    }
                    CheckBox {
                        id: recordReadOnly
                        objectName: "recordReadOnly"
                        text: "Record read-only values"
                    }
                    Item { Layout.fillWidth: true }
                    Button {
                        objectName: "compareProfileButton"
                        text: "Compare with profile"
                        enabled: view.linkReady && view.profilePath !== ""
                        onClicked: view.compareProfile()
                    }
                    Button {
                        objectName: "applyProfileButton"
                        text: "Apply profile"
                        enabled: view.linkReady && view.profilePath !== "" && !view.editsWait
                        ToolTip.visible: hovered
                        ToolTip.text: view.editsWait
                                      ? "Apply or discard the edits first"
                                      : "Show what the profile would change, then write it"
                        onClicked: view.requestApplyProfile()
                    }
                    Button {
                        objectName: "verifyProfileButton"
                        text: "Verify"
                        visible: view.profileToVerify !== ""
                        enabled: view.linkReady
                        onClicked: view.verifyProfile()
                    }
                }
                RowLayout {
                    Layout.fillWidth: true
                    visible: view.profileOutcome !== "" || view.profileTicket >= 0
                    Label {
                        objectName: "profileOutcome"
                        Layout.fillWidth: true
                        wrapMode: Text.Wrap
                        text: view.profileTicket >= 0 ? "Reading the lidar..." : view.profileOutcome
                    }
                    Button {
                        objectName: "profileDetailsButton"
                        text: "Details"
                        visible: view.profileDetails !== ""
                        onClicked: profileDialog.open()
                    }
                }
            }
        }

        ScrollView {
            id: scroller
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            ColumnLayout {
                width: scroller.availableWidth
                Repeater {
                    model: view.currentModule >= 0 && view.currentModule < view.variableMap.length
                           ? view.variableMap[view.currentModule].length : 0
                    delegate: ColumnLayout {
                        id: pageSection
                        readonly property int page: index
                        Layout.fillWidth: true
                        Label {
                            text: view.pageName(view.currentModule, pageSection.page)
                            font.bold: true
                            topPadding: 8
                        }
                        Repeater {
                            model: view.variableMap[view.currentModule]
                                   && view.variableMap[view.currentModule][pageSection.page]
                                   ? view.variableMap[view.currentModule][pageSection.page].length : 0
                            delegate: Rectangle {
                                id: rowItem
                                readonly property int module: view.currentModule
                                readonly property int treeRow: Manager.catalogueRow(module, pageSection.page, index)
                                readonly property var variable: view.variableMap[module]
                                                                && view.variableMap[module][pageSection.page]
                                                                ? view.variableMap[module][pageSection.page][index] || ({})
                                                                : ({})
                                readonly property bool edited: { view.stagingRevision
                                    return Manager.isEditedRow(module, pageSection.page, treeRow) }
                                objectName: "row_" + (variable.var_name || "")
                                Layout.fillWidth: true
                                implicitHeight: rowLayout.implicitHeight + 6
                                color: edited ? "#fff8e1" : "transparent"
                                RowLayout {
                                    id: rowLayout
                                    anchors.fill: parent
                                    anchors.leftMargin: 4
                                    Label {
                                        objectName: "name"
                                        text: rowItem.variable.var_name || ""
                                        Layout.preferredWidth: 220
                                        elide: Text.ElideRight
                                    }
                                    Label {
                                        objectName: "value"
                                        text: Values.shownValue(rowItem.variable)
                                        Layout.preferredWidth: 200
                                        elide: Text.ElideRight
                                    }
                                    Label {
                                        objectName: "unit"
                                        text: view.unitOf(rowItem.module, pageSection.page,
                                                          rowItem.variable.var_name || "")
                                        Layout.preferredWidth: 60
                                        color: "gray"
                                    }
                                    VariableEditor {
                                        objectName: "editor"
                                        module: rowItem.module
                                        page: pageSection.page
                                        row: rowItem.treeRow
                                        variable: rowItem.variable
                                        fieldOfViewBound: view.isFieldOfViewBound(rowItem.variable)
                                        enabled: view.linkReady && (view.editedModule < 0
                                                 || view.editedModule === rowItem.module)
                                        Layout.preferredWidth: 420
                                        // The map is rebuilt to show the staged text.
                                        onStaged: {
                                            view.collectingOutcomes = false
                                            Manager.UpdateUI()
                                        }
                                    }
                                    Label {
                                        objectName: "editedMark"
                                        text: !rowItem.edited ? ""
                                              : view.stagedCommands.indexOf(rowItem.variable.set_cmd) >= 0
                                                ? "edited" : "not applied"
                                        color: "darkorange"
                                    }
                                    Item { Layout.fillWidth: true }
                                }
                            }
                        }
                    }
                }
            }
        }
    }

    Platform.FileDialog {
        id: profileChooser
        title: "Choose a settings profile"
        fileMode: Platform.FileDialog.OpenFile
        nameFilters: ["Settings profiles (*.json)", "All files (*)"]
        onAccepted: view.profilePath = Desk.localPath(file)
    }
    Platform.FileDialog {
        id: exportChooser
        title: "Export the lidar's settings as"
        fileMode: Platform.FileDialog.SaveFile
        defaultSuffix: "json"
        nameFilters: ["Settings profiles (*.json)"]
        onAccepted: view.exportProfile(Desk.localPath(file))
    }
    ConfirmDialog {
        id: profileConfirm
        objectName: "profileConfirm"
        okText: "Apply"
        onRejected: view.profileOutcome = "Not applied: cancelled; nothing was written."
    }
    Dialog {
        id: profileDialog
        objectName: "profileDialog"
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        focus: true
        title: view.profileDetailsTitle
        onOpened: closeProfileDialog.forceActiveFocus()
        ColumnLayout {
            ScrollView {
                Layout.preferredWidth: 560
                Layout.preferredHeight: Math.min(profileDetailsText.implicitHeight, 400)
                clip: true
                Label {
                    id: profileDetailsText
                    objectName: "profileDetailsText"
                    width: 560
                    wrapMode: Text.Wrap
                    font.family: "monospace"
                    text: view.profileDetails
                }
            }
            DialogButton {
                id: closeProfileDialog
                objectName: "closeProfileDialog"
                Layout.alignment: Qt.AlignRight
                text: "Close"
                onClicked: profileDialog.close()
            }
        }
    }

    Dialog {
        id: networkDialog
        objectName: "networkApplyDialog"
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        focus: true
        onOpened: cancelNetworkButton.forceActiveFocus()
        title: "Network settings"
        ColumnLayout {
            Label {
                objectName: "networkApplyText"
                wrapMode: Text.Wrap
                Layout.maximumWidth: 480
                text: "These edits change the lidar's network settings. The lidar drops the "
                      + "connection when it takes them, and may need a restart before it answers "
                      + "at its new address. Apply them?"
            }
            RowLayout {
                Layout.alignment: Qt.AlignRight
                DialogButton {
                    id: applyNetworkButton
                    objectName: "applyNetworkButton"
                    text: "Apply"
                    onClicked: {
                        networkDialog.close()
                        view.startApply()
                    }
                }
                DialogButton {
                    id: cancelNetworkButton
                    objectName: "cancelNetworkButton"
                    text: "Cancel"
                    onClicked: networkDialog.close()
                }
            }
        }
    }
    Dialog {
        id: reconnectDialog
        objectName: "reconnectDialog"
        parent: Overlay.overlay
        anchors.centerIn: parent
        modal: true
        focus: true
        onOpened: reconnectButton.forceActiveFocus()
        title: "Connection closed"
        ColumnLayout {
            Label {
                objectName: "reconnectText"
                wrapMode: Text.Wrap
                Layout.maximumWidth: 480
                text: "The lidar took the network settings and closed the connection. "
                      + (view.addressAfterApply === "" ? "Connect again?"
                                                       : "Connect at " + view.addressAfterApply + "?")
            }
            RowLayout {
                Layout.alignment: Qt.AlignRight
                DialogButton {
                    id: reconnectButton
                    objectName: "reconnectButton"
                    text: "Connect"
                    onClicked: {
                        reconnectDialog.close()
                        // The simulated lidar answers on this machine whatever address it took.
                        if (view.addressAfterApply !== "" && !Desk.simulated)
                            Manager.ipAddress = view.addressAfterApply
                        Desk.connectLidar()
                    }
                }
                DialogButton {
                    id: notNowButton
                    objectName: "notNowButton"
                    text: "Not now"
                    onClicked: reconnectDialog.close()
                }
            }
        }
    }
}
