// The Wren model through the manager: over its two serial lines (pseudo-terminals served by the
// simulator) and as VRC over a serial line (the TCP simulator of Wren-VRC). Connecting and
// stopping, the settings and readers with their texts, the console, the upgrade and the pages.

#include <zlib.h>

#include <QSettings>
#include <QUrl>

#include "e2e_support.h"
#include "sdk/serial_client.h"
#include "sdk/serial_source.h"
#include "sim/serial_lidar_simulator.h"

using namespace testsupport;

namespace {

std::unique_ptr<sim::SerialLidarSimulator> StartSerialSimulator() {
    sim::SerialLidarSimulator::Options options;
    options.configDir = SourceDir() + "/Config";
    auto simulator = std::make_unique<sim::SerialLidarSimulator>(options);
    std::string error;
    if (!simulator->Start(&error)) ADD_FAILURE() << "serial simulator did not start: " << error;
    return simulator;
}

// A manager connected to the simulated Wren over its two lines.
struct SerialWren {
    std::unique_ptr<sim::SerialLidarSimulator> lidar = StartSerialSimulator();
    ManagerSession session{"Wren"};
    bool Connect() { return session.ConnectSerial(lidar->Rs485Path(), lidar->UartPath()); }
    LidarUtilitiesManager& m() { return session.m(); }
};

const VarInfo* Variable(LidarUtilitiesManager& m, const std::string& name) {
    return m.searchVarPtr(name, "var_name");
}

TEST(WrenSerial, ConnectsOverBothLinesAndStopReleasesThem) {
    SerialWren wren;
    LidarUtilitiesManager& m = wren.m();
    ASSERT_EQ(m.getConnectType(), 1);
    const std::string missing = "/dev/no-such-serial-line";

    // RS485 missing: its message, and both lines stay stored as they were made.
    EXPECT_FALSE(wren.session.ConnectSerial(missing, wren.lidar->UartPath()));
    EXPECT_TRUE(
        wren.session.Shown("error: Connection Failed. Please check your RS485 serial port."));
    EXPECT_TRUE(wren.session.LogHas("Connection Error: RS485 serial open fail|ERROR"));
    EXPECT_NE(m.getRs485Source(), nullptr);
    EXPECT_NE(m.getUartSource(), nullptr);
    EXPECT_EQ(m.getSerialClient(), nullptr);
    // UART missing: its message; the RS485 line is released, the UART source kept.
    EXPECT_FALSE(wren.session.ConnectSerial(wren.lidar->Rs485Path(), missing));
    EXPECT_TRUE(
        wren.session.Shown("error: Connection Failed. Please check your UART serial port."));
    EXPECT_TRUE(wren.session.LogHas("Connection Error: UART serial open fail|ERROR"));
    EXPECT_EQ(m.getRs485Source(), nullptr);
    EXPECT_NE(m.getUartSource(), nullptr);
    EXPECT_FALSE(m.getIsConnected());
    EXPECT_EQ(wren.session.connectedSignals().count(), 0);

    ASSERT_TRUE(wren.Connect());
    EXPECT_EQ(wren.session.connectedSignals().count(), 1);
    EXPECT_TRUE(wren.session.LogHas("Lidar connected|INFO"));
    // Whoever still holds the client (a query on another thread) keeps it, not the lines.
    const std::shared_ptr<lidar::SerialClient> held = m.getSerialClient();
    ASSERT_NE(held, nullptr);
    EXPECT_TRUE(held->IsOpen());
    m.Stop();
    EXPECT_FALSE(held->IsOpen());
    EXPECT_FALSE(m.getIsConnected());
    EXPECT_EQ(wren.session.connectedSignals().count(), 2);
    EXPECT_TRUE(wren.session.LogHas("Lidar disconnected|INFO"));
    EXPECT_EQ(m.getSerialClient(), nullptr);
    EXPECT_EQ(m.getRs485Source(), nullptr);
    EXPECT_EQ(m.getUartSource(), nullptr);
    // The lines are free again, although the old client is still held: a second connection
    // opens them (each line is opened exclusively).
    ASSERT_TRUE(wren.Connect());
    EXPECT_TRUE(m.getSerialClient()->IsOpen());
    // A connect over the live link drops it whole, held client or not, and opens the lines anew.
    const std::shared_ptr<lidar::SerialClient> live = m.getSerialClient();
    ASSERT_TRUE(wren.Connect());
    EXPECT_FALSE(live->IsOpen());
    EXPECT_NE(m.getSerialClient(), live);
    EXPECT_TRUE(m.getSerialClient()->IsOpen());
}

TEST(WrenSerial, SettingsReadersAndConsoleOverTheSerialLines) {
    SerialWren wren;
    LidarUtilitiesManager& m = wren.m();
    ASSERT_TRUE(wren.Connect());

    m.WrenSetStandby(1);
    m.WrenSetSpinRate(300);  // the low 8 bits, unchecked
    m.WrenSetReturnMode(7);  // non-zero: dual
    const sim::SerialState state = wren.lidar->GetState();
    EXPECT_EQ(state.standby, 1);
    EXPECT_EQ(state.spinRate, 44);
    EXPECT_EQ(state.returnMode, 1);
    for (const char* text :
         {"set lidar mode successful", "set spin rate successful", "set return mode successful"})
        EXPECT_TRUE(wren.session.Shown(std::string("success: ") + text)) << text;

    wren.lidar->SetFaultState(1, {0x00A1, 0x0102});
    EXPECT_EQ(m.WrenGetLidarFunctionSafety(), (QVariantList{"Warning", "0x00A1", "0x0102"}));

    // A refusal: the prefix and the device's status, shown and logged.
    wren.lidar->SetFault(0x01, sim::Fault{sim::Fault::Kind::kStatus, 0, 5, 0});
    m.WrenSetStandby(0);
    EXPECT_TRUE(wren.session.Shown("error: set lidar mode error, ret:5"));
    EXPECT_TRUE(wren.session.LogHas("set lidar mode error, ret:5|ERROR"));
    // Noise before a reply is skipped; a reply with a bad CRC is dropped and the wait times out.
    wren.lidar->SetFault(0x04, sim::Fault{sim::Fault::Kind::kGarbageBeforeReply, 0, 0, 0});
    EXPECT_EQ(m.WrenGetLidarFunctionSafety().value(0), "Warning");
    wren.lidar->SetFault(0x04, sim::Fault{sim::Fault::Kind::kBadCrc, 0, 0, 0});
    EXPECT_TRUE(m.WrenGetLidarFunctionSafety().isEmpty());
    EXPECT_TRUE(wren.session.Shown("error: get function safety error, ret:-3"));
    wren.lidar->ClearFaults();

    // What only VRC carries is refused on the serial lines, with nothing sent.
    EXPECT_EQ(m.WrenGetBaudRate(), "");
    m.WrenSetBaudRateFromUI("921600");
    EXPECT_EQ(m.WrenSetDestinationIPandPort("10.0.0.1", 2368), 0);
    EXPECT_EQ(m.WrenSetNet("10.0.0.2", "255.0.0.0", "10.0.0.1", 0, 0), 0);
    for (const char* operation :
         {"GetBaudRate", "SetBaudRate", "SetDestinationIPandPort", "SetNet"})
        EXPECT_TRUE(wren.session.Shown(std::string("error: ") + operation +
                                       " is only supported in VRC serial mode"))
            << operation;

    // A raw command goes over the serial client and joins the history.
    const int history = m.getCommandLogCnt();
    m.SendCommand("0x04", "");
    EXPECT_EQ(m.getCommandLogCnt(), history + 1);
    EXPECT_TRUE(m.getSendVrcCommandReturnHeader().startsWith("A5 5A 04 00"))
        << m.getSendVrcCommandReturnHeader().toStdString();
    EXPECT_EQ(m.getSendCommandHistory().first().toMap()["send_cmd_history"].toString(), "04");
    m.SendCommand("0x7E", "01");  // a code the lidar does not know: it answers status 2
    EXPECT_TRUE(
        wren.session.Shown("error: Query Serial command fail. Please input right Serial command "
                           "header and payload."));
    EXPECT_EQ(m.getSendVrcCommandReturnHeader(), "");
    EXPECT_EQ(m.getCommandLogCnt(), history + 1);
}

TEST(WrenSerial, PagesReadAndApplyOverTheSerialClient) {
    SerialWren wren;
    LidarUtilitiesManager& m = wren.m();
    ASSERT_TRUE(wren.Connect());
    // The generic map and lists serve the network kind only; the serial pages are the Wren's
    // own, and the kind-neutral operations serve those.
    EXPECT_TRUE(m.getMyMap().isEmpty());
    EXPECT_TRUE(m.level1List().isEmpty());
    EXPECT_TRUE(m.level2List().isEmpty());
    EXPECT_EQ(m.wrenLevel1List(), (QVariantList{"Lidar Info", "Settings", "Upgrade"}));
    EXPECT_EQ(m.catalogueLevel1List(), m.wrenLevel1List());
    EXPECT_EQ(m.catalogueLevel2List(), m.wrenLevel2List());
    EXPECT_EQ(m.catalogueLevel2List().size(), 3);
    m.readModule(0);
    EXPECT_EQ(m.currentValueOf(Variable(m, "Serial Number")), "WR2407300216");
    EXPECT_EQ(m.currentValueOf(Variable(m, "Hardware Version")), "WRB-CORE-1.1.27");
    EXPECT_EQ(m.getWrenMyMap().size(), 3);
    EXPECT_EQ(m.catalogueVariableMap(), m.getWrenMyMap());
    // Fault State (row 6 of Lidar Info/Info) is the one value the page loop refreshes.
    EXPECT_TRUE(m.isTimerVariable(0, 0, 6));
    EXPECT_TRUE(m.isWrenTimerUpdate(0, 0, 6));
    EXPECT_FALSE(m.isTimerUpdate(0, 0, 6));
    EXPECT_FALSE(m.isTimerVariable(0, 0, 5));

    // Spin Rate (row 1 of Settings/Operation) to the option at index 2: 20.
    m.SetText(3, 1, 0, 1, "2");
    m.applyPage(1);
    EXPECT_TRUE(wren.session.Shown("success: Serial command [0x02] to set Spin Rate,  success."));
    EXPECT_EQ(wren.lidar->GetState().spinRate, 20);
    m.WrenGetLidarModuleInfo(1);
    EXPECT_EQ(m.currentValueOf(Variable(m, "Spin Rate")), "20");

    // The page loop refreshes the timer values of the module in use over the serial lines.
    std::atomic<int> refreshes{0};
    QObject::connect(&m, &LidarUtilitiesManager::myTimerMapChanged, [&refreshes] { ++refreshes; });
    m.setModuleIndexUse(0);
    wren.lidar->SetFaultState(2, {0x0B0B, 0x0C0C});
    ASSERT_TRUE(WaitFor([&] { return refreshes.load() > 0; }, 6000));
    EXPECT_EQ(m.currentValueOf(Variable(m, "Fault State")), "2");
    EXPECT_TRUE(m.isDeviceLinkOpen());
    m.Stop();
    EXPECT_FALSE(m.isDeviceLinkOpen());
}

TEST(WrenSerial, UpgradeIsReceivedWholeAndTheConnectionClosed) {
    SerialWren wren;
    LidarUtilitiesManager& m = wren.m();
    ASSERT_TRUE(wren.Connect());
    TempDir folder;
    u8Array_t package(3000);
    for (size_t i = 0; i < package.size(); ++i) package[i] = static_cast<uint8_t>(i * 7 + 3);
    WriteFile(folder.file("wren.bin"), std::string(package.begin(), package.end()));
    m.WrenSetUpgradeMode(2);  // passed through unchanged on the serial lines
    ASSERT_EQ(
        m.WrenUpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(folder.file("wren.bin")))),
        0);
    ASSERT_TRUE(WaitFor([&] { return wren.session.upgradingChanges.load() >= 2; }, 20000));
    m.waitForWorkers();
    const std::vector<sim::Transfer> transfers = wren.lidar->Transfers();
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_TRUE(transfers[0].completed);
    EXPECT_EQ(transfers[0].beginByte, 2);
    EXPECT_EQ(transfers[0].receivedSize, package.size());
    EXPECT_EQ(transfers[0].receivedCrc,
              crc32(0, package.data(), static_cast<uInt>(package.size())));
    EXPECT_EQ(m.getUpgradeProgressTotalLen(), 2);
    EXPECT_EQ(m.getUpgradeProgress(), 2);
    EXPECT_TRUE(wren.session.Shown(
        "success: Upgrade package transmitted successfully. The lidar will automatically reboot."));
    EXPECT_FALSE(m.getIsConnected());
}

TEST(WrenSerial, FailedReconnectOverALiveLinkDropsIt) {
    SerialWren wren;
    LidarUtilitiesManager& m = wren.m();
    ASSERT_TRUE(wren.Connect());
    wren.session.ClearSpies();
    EXPECT_FALSE(wren.session.ConnectSerial("/dev/no-such-serial-line", wren.lidar->UartPath()));
    // The old link is gone, and the UI was told: nothing reads over closed lines.
    EXPECT_FALSE(m.getIsConnected());
    EXPECT_EQ(wren.session.connectedSignals().count(), 1);
    EXPECT_EQ(m.getSerialClient(), nullptr);
    EXPECT_TRUE(
        wren.session.Shown("error: Connection Failed. Please check your RS485 serial port."));
    ASSERT_TRUE(wren.Connect());
    EXPECT_NE(m.getSerialClient(), nullptr);
}

TEST(WrenSerial, DestroyingTheManagerEndsAnUpgradeWaitingForTheLidar) {
    std::unique_ptr<sim::SerialLidarSimulator> lidar = StartSerialSimulator();
    auto session = std::make_unique<ManagerSession>("Wren");
    ASSERT_TRUE(session->ConnectSerial(lidar->Rs485Path(), lidar->UartPath()));
    TempDir folder;
    WriteFile(folder.file("wren.bin"), std::string(4096, '\x5a'));
    lidar->SetFault(0x05, sim::Fault{sim::Fault::Kind::kNoReply, 0, 0, 0});
    // Longer than the test's time limit: only the closing of the lines ends the wait.
    session->m().getSerialClient()->SetReceiveTimeout(3600 * 1000);
    ASSERT_EQ(session->m().WrenUpgradeLidar(
                  QUrl::fromLocalFile(QString::fromStdString(folder.file("wren.bin")))),
              0);
    ASSERT_TRUE(WaitFor([&] { return lidar->RequestCount(0x05) > 0; }, 5000));
    // The destructor closes the lines, so the worker's wait ends and it is joined.
    session.reset();
    const std::vector<sim::Transfer> transfers = lidar->Transfers();
    for (const sim::Transfer& transfer : transfers) EXPECT_FALSE(transfer.completed);
    // Both lines were released: another program opens them.
    lidar::SerialSource uart(lidar->UartPath(), 9600, 9600);
    EXPECT_TRUE(uart.Open()) << uart.LastError();
    lidar::SerialSource rs485(lidar->Rs485Path(), 115200, 115200);
    EXPECT_TRUE(rs485.Open()) << rs485.LastError();
}

// ---- VRC over a serial line (kind 2) ----

TEST(WrenVrc, SettingsAndReadersWithTheirChecks) {
    auto lidar = StartSimulator("Wren-VRC");
    ManagerSession session("Wren-VRC");
    LidarUtilitiesManager& m = session.m();
    ASSERT_TRUE(session.Connect(lidar->Port()));

    m.WrenSetStandby(1);
    m.WrenSetSpinRate(300);
    m.WrenSetReturnMode(1);
    EXPECT_EQ(lidar->GetSerialState().standby, 1);
    EXPECT_EQ(lidar->GetSerialState().spinRate, 44);
    EXPECT_EQ(lidar->GetSerialState().returnMode, 1);
    lidar->SetSerialFaultState(2, {0x1234});
    EXPECT_EQ(m.WrenGetLidarFunctionSafety(), (QVariantList{"Shutdown", "0x1234"}));

    // The connection set the lidar's rate to the stored one.
    EXPECT_EQ(m.WrenGetBaudRate(), m.baud_rate());
    const QString stored = m.baud_rate();
    const uint64_t sets = lidar->RequestCount(0xB1);
    for (const char* bad : {"abc", "0", "12abc"}) {
        m.WrenSetBaudRateFromUI(bad);
        EXPECT_TRUE(session.Shown("error: invalid baud rate value")) << bad;
    }
    EXPECT_EQ(lidar->RequestCount(0xB1), sets);  // nothing sent
    lidar->SetFault(0xB1, sim::Fault{sim::Fault::Kind::kStatus, 0, 1, 0});
    m.WrenSetBaudRateFromUI("921600");
    EXPECT_TRUE(session.Shown("error: set baud rate error, ret:1"));
    EXPECT_EQ(m.baud_rate(), stored);
    lidar->ClearFaults();
    m.WrenSetBaudRateFromUI("460800");
    EXPECT_TRUE(session.Shown("success: set baud rate successful"));
    EXPECT_EQ(m.baud_rate(), "460800");
    EXPECT_EQ(m.WrenGetBaudRate(), "460800");
    // Kept for the next session, whose connect sends it to the lidar.
    EXPECT_EQ(QSettings(SettingsFilePath(), QSettings::IniFormat).value("point_cloud_baudrate"),
              "460800");

    EXPECT_EQ(m.WrenGetNetConfig(false),
              (QVariantList{"192.168.1.204", "255.255.255.0", "192.168.1.1", "0", "0"}));
    EXPECT_EQ(m.WrenSetDestinationIPandPort("10.1.2.3", 65535), 1) << "the field's largest port";
    EXPECT_EQ(m.WrenGetDestinationConfig(false), (QVariantList{"10.1.2.3", "65535"}));
    EXPECT_EQ(m.WrenSetDestinationIPandPort("10.1.2.3", 4000), 1);
    EXPECT_TRUE(session.Shown("success: set destination IP and port successful"));
    EXPECT_EQ(m.WrenGetDestinationConfig(false), (QVariantList{"10.1.2.3", "4000"}));
    // Values their fields cannot hold are refused rather than sent as other values.
    const uint64_t destinationSets = lidar->RequestCount(0x20);
    const uint64_t netSets = lidar->RequestCount(0x21);
    EXPECT_EQ(m.WrenSetDestinationIPandPort("10.1.2.3", 70000), 0);
    EXPECT_EQ(m.WrenSetDestinationIPandPort("10.1.2.3", -1), 0);
    EXPECT_EQ(m.WrenSetNet("10.9.8.7", "255.255.0.0", "10.9.0.1", 256, 1), 0);
    EXPECT_EQ(m.WrenSetNet("10.9.8.7", "255.255.0.0", "10.9.0.1", 1, 65536), 0);
    EXPECT_EQ(m.WrenSetNet("10.9.8.7", "255.255.0.0", "10.9.0.1", -1, 1), 0);
    const std::vector<std::string> refusals = session.Messages();
    EXPECT_EQ(std::count(refusals.begin(), refusals.end(), "error: invalid destination port value"),
              2);
    EXPECT_EQ(std::count(refusals.begin(), refusals.end(), "error: invalid VLAN value"), 3);
    EXPECT_EQ(lidar->RequestCount(0x20), destinationSets);
    EXPECT_EQ(lidar->RequestCount(0x21), netSets);
    EXPECT_TRUE(m.getIsConnected());
    EXPECT_EQ(m.WrenGetDestinationConfig(true).value(1), "4000");

    // A short 0x08 reply: the reader's failure, quietly or not.
    lidar->ReplaceBlock(0x08, {}, std::vector<uint8_t>(11, 1));
    EXPECT_TRUE(m.WrenGetNetConfig(true).isEmpty());
    EXPECT_TRUE(session.LogHas("get net config error, ret:0|ERROR"));
    EXPECT_FALSE(session.Shown("error: get net config error, ret:0"));
    EXPECT_TRUE(m.WrenGetNetConfig(false).isEmpty());
    EXPECT_TRUE(session.Shown("error: get net config error, ret:0"));
    lidar->ReplaceBlock(0x08, {}, std::vector<uint8_t>(23, 0));

    // Flag 0 sends VLAN id 0 whatever id holds; the lidar closes without a reply (-2), which
    // counts as success and ends the connection.
    EXPECT_EQ(m.WrenSetNet("10.9.8.7", "255.255.0.0", "10.9.0.1", 0, 77), 1);
    EXPECT_TRUE(session.Shown(
        "success: Set Lidar Successfully\nNote that if you have changed the TCP-related settings, "
        "you will need to restart the lidar for it to work."));
    EXPECT_FALSE(m.getIsConnected());
    const std::vector<uint8_t> network = lidar->Block(0x08);
    EXPECT_EQ(std::vector<uint8_t>(network.begin(), network.begin() + 4),
              (std::vector<uint8_t>{10, 9, 8, 7}));
    EXPECT_EQ(std::vector<uint8_t>(network.begin() + 20, network.begin() + 23),
              (std::vector<uint8_t>{0, 0, 0}));
    // VLAN id 0 with the flag on is a value its field holds: sent.
    ASSERT_TRUE(session.Connect(lidar->Port()));
    EXPECT_EQ(m.WrenSetNet("10.9.8.7", "255.255.0.0", "10.9.0.1", 1, 0), 1);
    EXPECT_EQ(lidar->Block(0x08)[20], 1);
}

TEST(WrenVrc, EveryOperationRefusesWhileNotConnected) {
    ManagerSession session("Wren-VRC");
    LidarUtilitiesManager& m = session.m();
    m.WrenSetStandby(1);
    m.WrenSetSpinRate(10);
    m.WrenSetReturnMode(1);
    EXPECT_TRUE(m.WrenGetLidarFunctionSafety().isEmpty());
    EXPECT_EQ(m.WrenGetBaudRate(), "");
    m.WrenSetBaudRateFromUI("921600");
    EXPECT_EQ(m.WrenSetDestinationIPandPort("10.1.2.3", 4000), 0);
    EXPECT_EQ(m.WrenSetNet("10.9.8.7", "255.255.0.0", "10.9.0.1", 0, 0), 0);
    // The readers refuse quietly when asked to.
    const size_t shown = session.Messages().size();
    EXPECT_TRUE(m.WrenGetNetConfig(true).isEmpty());
    EXPECT_EQ(session.Messages().size(), shown);
    EXPECT_TRUE(m.WrenGetDestinationConfig(false).isEmpty());
    const std::vector<std::string> messages = session.Messages();
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "error: lidar is not connected, or lidar is upgrade"),
              4);
    EXPECT_EQ(std::count(messages.begin(), messages.end(),
                         "error: lidar is not connected, or lidar is upgrading"),
              5);
    EXPECT_EQ(messages.size(), 9u);
}

TEST(WrenVrc, ModeSettersNeedASerialClientOnTheNetworkKind) {
    auto lidar = StartSimulator("Egret");
    ManagerSession session("Egret");
    ASSERT_TRUE(session.Connect(lidar->Port()));
    session.m().WrenSetStandby(1);
    session.m().WrenSetSpinRate(10);
    session.m().WrenSetReturnMode(0);
    EXPECT_TRUE(session.m().WrenGetLidarFunctionSafety().isEmpty());
    int refusals = 0;
    for (const std::string& text : session.Messages())
        refusals += text == "error: lidar is not connected, or lidar is upgrade";
    EXPECT_EQ(refusals, 4);
    EXPECT_EQ(session.m().WrenGetBaudRate(), "");
    EXPECT_TRUE(session.Shown("error: GetBaudRate is only supported in VRC serial mode"));
}

}  // namespace
