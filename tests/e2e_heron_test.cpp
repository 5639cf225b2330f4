// The Heron model through the manager against the simulated Heron-VRC: the version texts, the
// IMU range, the restart, and the OTA component upgrade with what the lidar received, in which
// order, the log lines and messages, the failures that stop it and its start checks.

#include <QElapsedTimer>
#include <QUrl>
#include <array>
#include <optional>

#include "e2e_support.h"
#include "heron_ota_package.h"

using namespace testsupport;

namespace {

const char* const kUnknown = "xxxxxxxx";

std::unique_ptr<sim::LidarSimulator> StartHeron(char partition) {
    sim::LidarSimulator::Options options;
    options.model = "Heron-VRC";
    options.configDir = SourceDir() + "/Config";
    options.partition = partition;
    options.restartDowntimeMs = 300;
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!simulator->Start(&error)) ADD_FAILURE() << "simulator did not start: " << error;
    return simulator;
}

std::vector<uint8_t> Bytes(size_t size, uint8_t seed) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<uint8_t>(state >> 16);
    }
    return bytes;
}

// A 0x07 block of `size` bytes with `text` at the model version's place (72).
std::vector<uint8_t> DeviceInfo(size_t size, const std::string& text) {
    std::vector<uint8_t> block(size, 0);
    for (size_t i = 0; i < text.size() && 72 + i < size; ++i) block[72 + i] = uint8_t(text[i]);
    return block;
}

std::vector<uint8_t> Tail(const std::vector<uint8_t>& bytes, size_t from) {
    return std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(from), bytes.end());
}

class HeronTest : public ::testing::Test {
  protected:
    void Start(char partition) {
        simulator_ = StartHeron(partition);
        // No spies: a Stop here logs on this thread while a woken worker logs on its own.
        session_ = std::make_unique<ManagerSession>("Heron-VRC", SourceDir(), false);
        ASSERT_TRUE(session_->Connect(simulator_->Port()));
        ASSERT_EQ(m().getConnectType(), 2);
    }
    LidarUtilitiesManager& m() { return session_->m(); }

    using Parts = std::array<std::optional<std::vector<uint8_t>>, heron_ota::kComponentCount>;
    std::string Package(const std::string& name, const Parts& parts) {
        std::vector<uint8_t> package;
        std::string error;
        EXPECT_TRUE(heron_ota::BuildPackage(parts, package, error)) << error;
        WriteFile(dir_.file(name), std::string(package.begin(), package.end()));
        return dir_.file(name);
    }
    int Upgrade(const std::string& path) {
        return m().HeronUpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(path)));
    }
    // Starts the upgrade and waits for its worker to end (the restart and stop included).
    void UpgradeToTheEnd(const std::string& path) {
        ASSERT_EQ(Upgrade(path), 0);
        ASSERT_TRUE(WaitFor([this] { return !m().getIsUpgrading(); }, 60000));
        m().waitForWorkers();
    }
    // The manager's log lines of the upgrade, "TEXT|LEVEL".
    std::vector<std::string> HeronLines() const {
        std::vector<std::string> lines;
        for (const std::string& line : session_->LogLines())
            if (line.rfind("Heron", 0) == 0) lines.push_back(line);
        return lines;
    }

    TempDir dir_;
    std::unique_ptr<sim::LidarSimulator> simulator_;
    std::unique_ptr<ManagerSession> session_;
};

TEST_F(HeronTest, VersionTextsAndTheirPlaceholders) {
    Start('A');
    EXPECT_EQ(m().getHeronModelVersionText(), kUnknown);
    QSignalSpy infoChanged(&m(), &LidarUtilitiesManager::wrenLidarInfoChanged);
    m().HeronGetVersionInfo();
    EXPECT_EQ(infoChanged.count(), 1);
    EXPECT_EQ(m().getHeronModelVersionText(), "HERON-M1 V1.3");
    EXPECT_EQ(m().getHeronBmbFpgaVersion(), "BF-2.3.1");
    EXPECT_EQ(m().getHeronTmbFpgaVersion(), "TF-1.9.0");
    EXPECT_EQ(m().getHeronBmbMcuVersion(), "BM-4.0.7");

    // 88 bytes hold the text, 87 do not; a text that starts with NUL is none.
    simulator_->ReplaceBlock(0x07, {}, DeviceInfo(88, "EDGE-88"));
    m().HeronGetVersionInfo();
    EXPECT_EQ(m().getHeronModelVersionText(), "EDGE-88");
    simulator_->ReplaceBlock(0x07, {}, DeviceInfo(87, "EDGE-87"));
    m().HeronGetVersionInfo();
    EXPECT_EQ(m().getHeronModelVersionText(), kUnknown);
    simulator_->ReplaceBlock(0x07, {}, DeviceInfo(88, std::string("\0LATE", 5)));
    m().HeronGetVersionInfo();
    EXPECT_EQ(m().getHeronModelVersionText(), kUnknown);

    // A component the lidar reports as nothing, or does not report, is unknown.
    simulator_->WriteBlock(0xC0, {1}, 0, std::vector<uint8_t>(16, 0));
    m().HeronGetVersionInfo();
    EXPECT_EQ(m().getHeronBmbFpgaVersion(), "BF-2.3.1");
    EXPECT_EQ(m().getHeronTmbFpgaVersion(), kUnknown);
    simulator_->SetFault(0xC0, sim::Fault{sim::Fault::Kind::kStatus, 0, 5, 0});
    m().HeronGetVersionInfo();
    EXPECT_EQ(m().getHeronBmbFpgaVersion(), kUnknown);
    EXPECT_EQ(m().getHeronBmbMcuVersion(), kUnknown);
    EXPECT_EQ(simulator_->RequestCount(0xC0), 3u * 6u);  // three components per read
    EXPECT_TRUE(session_->Messages().empty());           // version reads never show a message

    // Not connected: nothing is read or announced.
    simulator_->ClearFaults();
    m().Stop();
    infoChanged.clear();
    m().HeronGetVersionInfo();
    EXPECT_EQ(infoChanged.count(), 0);
    EXPECT_EQ(simulator_->RequestCount(0xC0), 18u);
}

TEST_F(HeronTest, OtherModelsRefreshOnlyTheModelVersionTextAndRefuseTheHeronOperations) {
    Start('A');
    m().HeronGetVersionInfo();
    ASSERT_EQ(m().getHeronTmbFpgaVersion(), "TF-1.9.0");
    m().Stop();
    auto egret = StartSimulator("Egret");
    egret->ReplaceBlock(0x07, {}, DeviceInfo(96, "EGRET-MV"));
    m().InitConfigFileParser("Egret");
    ASSERT_TRUE(session_->Connect(egret->Port()));
    m().HeronGetVersionInfo();
    EXPECT_EQ(m().getHeronModelVersionText(), "EGRET-MV");
    EXPECT_EQ(m().getHeronBmbFpgaVersion(), "BF-2.3.1");
    EXPECT_EQ(m().getHeronTmbFpgaVersion(), "TF-1.9.0");
    EXPECT_EQ(m().getHeronBmbMcuVersion(), "BM-4.0.7");
    EXPECT_EQ(egret->RequestCount(0xC0), 0u);
    // The IMU range is a Heron-VRC setting: refused on a network connection.
    m().HeronSetIMURange(0, 0);
    EXPECT_TRUE(
        session_->Shown("error: Heron IMU range setting is only supported in VRC_SERIAL mode"));
    // So is the component upgrade, before the lidar is asked anything.
    Parts parts;
    parts[4] = Bytes(100, 16);
    EXPECT_EQ(Upgrade(Package("param.ota", parts)), -1);
    EXPECT_TRUE(session_->Shown("error: lidar is not connected, or lidar is upgrading"));
    EXPECT_EQ(egret->RequestCount(0xB1) + egret->RequestCount(0xB6), 0u);
    EXPECT_FALSE(m().getIsUpgrading());
}

TEST_F(HeronTest, ImuRangeSendsTheTablesCodesAndRefusesInOrder) {
    Start('A');
    const uint8_t angular[] = {0, 1, 2, 3, 4, 8};
    for (int a = 0; a < 6; ++a)
        for (int g = 0; g < 4; ++g) {
            m().HeronSetIMURange(a, g);
            const std::vector<uint8_t> block = simulator_->Block(0x30);
            ASSERT_GE(block.size(), 5u);
            EXPECT_EQ(block[3], angular[a]) << a;
            EXPECT_EQ(block[4], g);
        }
    EXPECT_TRUE(session_->Shown("success: IMU range set successfully"));
    EXPECT_EQ(simulator_->RequestCount(0xC1), 24u);

    session_->ClearSpies();
    const std::pair<int, int> refused[] = {{6, 0}, {-1, 0}, {6, 4}, {0, 4}, {5, -1}};
    for (const auto& [a, g] : refused) m().HeronSetIMURange(a, g);
    EXPECT_EQ(session_->Messages(),
              (std::vector<std::string>{
                  "error: Invalid angular range index", "error: Invalid angular range index",
                  "error: Invalid angular range index", "error: Invalid acceleration range index",
                  "error: Invalid acceleration range index"}));
    EXPECT_EQ(simulator_->RequestCount(0xC1), 24u);

    simulator_->SetFault(0xC1, sim::Fault{sim::Fault::Kind::kStatus, 0, 5, 0});
    m().HeronSetIMURange(5, 3);
    EXPECT_TRUE(session_->Shown("error: set IMU range error, ret:5"));
    EXPECT_TRUE(session_->LogHas("set IMU range error, ret:5|ERROR"));
    // Not while an upgrade runs, nor without a connection.
    session_->ClearSpies();
    ManagerTestAccess::setUpgrading(m(), true);
    m().HeronSetIMURange(5, 3);
    ManagerTestAccess::setUpgrading(m(), false);
    m().Stop();
    m().HeronSetIMURange(5, 3);
    EXPECT_EQ(session_->Messages(),
              (std::vector<std::string>{"error: lidar is not connected, or lidar is upgrade",
                                        "error: lidar is not connected, or lidar is upgrade"}));
}

TEST_F(HeronTest, RestartReportsWhatTheLidarDid) {
    Start('A');
    simulator_->SetFault(0xC2, sim::Fault{sim::Fault::Kind::kStatus, 0, 4, 0});
    EXPECT_EQ(m().HeronSendRestartCommand(), 4);
    EXPECT_TRUE(session_->LogHas("Heron restart command failed, ret:4|ERROR"));
    simulator_->ClearFaults();
    EXPECT_EQ(m().HeronSendRestartCommand(), 0);
    EXPECT_TRUE(session_->LogHas("Heron restart command sent|INFO"));
    m().Stop();
    EXPECT_EQ(m().HeronSendRestartCommand(), -1);
    EXPECT_TRUE(session_->LogHas("Heron restart: VRC not available|ERROR"));
    EXPECT_EQ(simulator_->RequestCount(0xC2), 2u);
}

TEST_F(HeronTest, OnPartitionAUpgradeSendsApplicationBThenTheImagesThenRestarts) {
    Start('A');
    Parts parts;
    parts[0] = Bytes(5000, 1);   // BMB_APP_A: not for a lidar running A
    parts[1] = Bytes(70000, 2);  // BMB_APP_B: two chunks
    parts[2] = Bytes(3000, 3);   // BMB_FPGA
    parts[3] = Bytes(1500, 4);   // TMB_FPGA
    parts[4] = Bytes(2048, 5);   // TMB_PARAM
    const std::string path = Package("full.ota", parts);
    // The lidar's serial rate changed since the connection: the upgrade sets the connection's
    // rate again before it asks for upgrade mode.
    const std::vector<uint8_t> connectionRate = simulator_->Block(0xB0);
    simulator_->WriteBlock(0xB0, {}, 0, {0x00, 0x07, 0x08, 0x00});  // 460800
    QElapsedTimer clock;
    clock.start();
    UpgradeToTheEnd(path);
    EXPECT_EQ(simulator_->Block(0xB0), connectionRate);
    // The lidar is given its three seconds in upgrade mode before the first component.
    EXPECT_GE(clock.elapsed(), 3000);

    const std::vector<sim::Component> received = simulator_->Components();
    ASSERT_EQ(received.size(), 4u);
    const std::pair<uint8_t, std::vector<uint8_t>> expected[] = {
        {2, *parts[1]}, {1, Tail(*parts[2], 1024)}, {0, Tail(*parts[3], 1024)}, {3, *parts[4]}};
    for (size_t i = 0; i < received.size(); ++i) {
        EXPECT_EQ(received[i].type, expected[i].first) << i;
        EXPECT_TRUE(received[i].bytes == expected[i].second) << i;
        EXPECT_TRUE(received[i].completed) << i;
    }
    EXPECT_EQ(HeronLines(),
              (std::vector<std::string>{
                  "Heron OTA package parsed: flags=0x31, total_size=81604|INFO",
                  "Heron upgrade: current partition=A|INFO",
                  "Heron upgrade: sending BMB_APP_B (type=0x02, size=70000)|INFO",
                  "Heron upgrade: BMB_APP_B completed|INFO",
                  "Heron upgrade: sending BMB_FPGA (type=0x01, size=1976)|INFO",
                  "Heron upgrade: BMB_FPGA completed|INFO",
                  "Heron upgrade: sending TMB_FPGA (type=0x00, size=476)|INFO",
                  "Heron upgrade: TMB_FPGA completed|INFO",
                  "Heron upgrade: sending TMB_PARAM (type=0x03, size=2048)|INFO",
                  "Heron upgrade: TMB_PARAM completed|INFO", "Heron restart command sent|INFO"}));
    EXPECT_EQ(session_->Messages(),
              std::vector<std::string>{
                  "success: Heron upgrade completed. Restart command has been sent."});
    EXPECT_EQ(m().getUpgradeProgressTotalLen(), 69 + 2 + 1 + 2);
    EXPECT_EQ(m().getUpgradeProgress(), 74);
    EXPECT_EQ(session_->upgradingChanges.load(), 2);
    EXPECT_EQ(simulator_->RequestCount(0xB6), 1u);
    EXPECT_EQ(simulator_->RequestCount(0xC2), 1u);
    EXPECT_FALSE(m().getIsConnected());
    EXPECT_EQ(simulator_->RunningPartition(), 'B');
}

TEST_F(HeronTest, OnPartitionBUpgradeSendsApplicationAAndTotalsRoundUpPerComponent) {
    Start('A');
    simulator_->SetRunningPartitionByte(2);  // B, as a device may report it
    simulator_->SetFault(0xC2, sim::Fault{sim::Fault::Kind::kStatus, 0, 4, 0});
    Parts parts;
    parts[0] = Bytes(1, 6);     // BMB_APP_A
    parts[1] = Bytes(100, 7);   // BMB_APP_B
    parts[4] = Bytes(1025, 8);  // TMB_PARAM
    UpgradeToTheEnd(Package("apps.ota", parts));
    const std::vector<sim::Component> received = simulator_->Components();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].type, 2);
    EXPECT_EQ(received[0].bytes, *parts[0]);
    EXPECT_EQ(received[1].type, 3);
    EXPECT_EQ(received[1].bytes, *parts[4]);
    // flags 0x13 is written as "0x19", as the upgrade log has it.
    const std::vector<std::string> lines = HeronLines();
    ASSERT_GE(lines.size(), 4u);
    EXPECT_EQ(lines[0], "Heron OTA package parsed: flags=0x19, total_size=1182|INFO");
    EXPECT_EQ(lines[1], "Heron upgrade: current partition=B|INFO");
    EXPECT_EQ(lines[2], "Heron upgrade: skip BMB_FPGA, not found in package|INFO");
    EXPECT_EQ(lines[3], "Heron upgrade: skip TMB_FPGA, not found in package|INFO");
    EXPECT_EQ(m().getUpgradeProgressTotalLen(), 1 + 2);
    EXPECT_EQ(m().getUpgradeProgress(), 3);
    // The restart refused: the upgrade is done, and the message says the restart was not.
    EXPECT_EQ(session_->Messages(),
              std::vector<std::string>{
                  "success: Heron upgrade completed. The restart command was not acknowledged; "
                  "please power-cycle or reconnect the lidar if it does not respond."});
    EXPECT_FALSE(m().getIsConnected());
    EXPECT_EQ(simulator_->RunningPartition(), 'B');
}

TEST_F(HeronTest, AFailedComponentStopsThePlanAndKeepsTheConnection) {
    Start('A');
    Parts parts;
    parts[1] = Bytes(70000, 9);
    parts[2] = Bytes(2000, 10);
    parts[3] = Bytes(2000, 11);
    const std::string path = Package("three.ota", parts);
    simulator_->SetFault(0xC3, sim::Fault{sim::Fault::Kind::kRefuseComponent, 0, 5, 2});
    UpgradeToTheEnd(path);
    EXPECT_TRUE(session_->Shown("error: Heron upgrade: BMB_FPGA failed, error=5"));
    EXPECT_TRUE(session_->LogHas("Heron upgrade: BMB_FPGA failed, error=5|INFO"));
    EXPECT_TRUE(session_->LogHas(
        "Heron upgrade: the lidar is left in upgrade mode with BMB_APP_B written; BMB_FPGA and "
        "TMB_FPGA were not written; run the same upgrade again to finish it|WARNING"));
    EXPECT_FALSE(session_->LogHas("Heron upgrade: sending TMB_FPGA (type=0x00, size=976)|INFO"));
    ASSERT_EQ(simulator_->Components().size(), 1u);  // BMB_FPGA refused, TMB_FPGA never begun
    EXPECT_EQ(simulator_->RequestCount(0xC2), 0u);
    EXPECT_TRUE(m().getIsConnected());
    EXPECT_FALSE(m().getIsUpgrading());
    EXPECT_EQ(simulator_->RunningPartition(), 'A');

    // The connection dropped in the middle of the first component.
    session_->ClearSpies();
    simulator_->SetFault(0xC3, sim::Fault{sim::Fault::Kind::kDropAfterChunks, 0, 0, 1});
    UpgradeToTheEnd(path);
    EXPECT_EQ(session_->Messages(),
              std::vector<std::string>{"error: Heron upgrade: BMB_APP_B failed, error=-2"});
    const std::vector<sim::Component> received = simulator_->Components();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_FALSE(received[1].completed);
    EXPECT_EQ(received[1].bytes.size(), 65536u);
    EXPECT_EQ(Upgrade(path), -1);  // the client is closed now
    EXPECT_TRUE(session_->Shown("error: lidar is not connected, or lidar is upgrading"));
}

TEST_F(HeronTest, AStopAbandonsTheUpgradeInThePauseOrBetweenComponents) {
    Start('A');
    Parts parts;
    parts[1] = Bytes(3000, 14);
    parts[4] = Bytes(500, 15);
    const std::string path = Package("stop.ota", parts);
    // In the pause the lidar is given in upgrade mode: nothing is sent after it.
    ASSERT_EQ(Upgrade(path), 0);
    ASSERT_TRUE(
        WaitFor([this] { return session_->LogHas("Heron upgrade: current partition=A|INFO"); }));
    m().Stop();
    m().waitForWorkers();
    EXPECT_EQ(session_->Messages(),
              std::vector<std::string>{"error: Heron upgrade abandoned: no component was sent, "
                                       "and the lidar is still in upgrade mode. Connect and run "
                                       "the same upgrade again."});
    EXPECT_EQ(simulator_->RequestCount(0xC3), 0u);
    EXPECT_FALSE(m().getIsUpgrading());

    // During the first component (its chunks answered slowly): the rest is not sent.
    session_->ClearSpies();
    ASSERT_TRUE(session_->Connect(simulator_->Port()));
    simulator_->SetFault(0xC3, sim::Fault{sim::Fault::Kind::kDelay, 1000, 0, 0});
    ASSERT_EQ(Upgrade(path), 0);
    ASSERT_TRUE(WaitFor([this] { return simulator_->RequestCount(0xC3) > 0; }, 10000));
    m().Stop();
    m().waitForWorkers();
    EXPECT_EQ(session_->Messages(),
              std::vector<std::string>{"error: Heron upgrade abandoned during BMB_APP_B"});
    EXPECT_TRUE(session_->LogHas(
        "Heron upgrade: the lidar is left in upgrade mode with no new component: BMB_APP_B and "
        "TMB_PARAM were not written; run the same upgrade again to finish it|WARNING"));
    EXPECT_EQ(simulator_->RequestCount(0xC3), 1u);  // the first component's begin, no more
    EXPECT_EQ(simulator_->RequestCount(0xC2), 0u);
}

TEST_F(HeronTest, RefusalsBeforeAnyComponentAndTheStartChecks) {
    Start('A');
    Parts parts;
    parts[0] = Bytes(300, 12);  // only the application of the running partition
    const std::string appA = Package("app-a.ota", parts);
    parts[4] = Bytes(300, 13);
    const std::string valid = Package("valid.ota", parts);

    simulator_->SetFault(0xB1, sim::Fault{sim::Fault::Kind::kStatus, 0, 5, 0});
    UpgradeToTheEnd(valid);
    simulator_->SetFault(0xB1, sim::Fault{});
    simulator_->SetFault(0xB6, sim::Fault{sim::Fault::Kind::kStatus, 0, 3, 0});
    UpgradeToTheEnd(valid);
    EXPECT_EQ(simulator_->RequestCount(0xB6), 1u);  // not after the refused rate
    simulator_->ClearFaults();
    UpgradeToTheEnd(appA);
    EXPECT_EQ(
        session_->Messages(),
        (std::vector<std::string>{
            "error: Heron upgrade: set baudrate failed", "error: Heron upgrade: change mode failed",
            "error: Heron upgrade: no component matches current upgrade plan, partition=A, "
            "flags=0x1"}));
    EXPECT_TRUE(session_->LogHas("Heron upgrade: skip BMB_APP_B, not found in package|INFO"));
    EXPECT_TRUE(session_->LogHas(
        "Heron upgrade: no component matches current upgrade plan, partition=A, flags=0x1|ERROR"));
    EXPECT_EQ(simulator_->RequestCount(0xC3), 0u);

    session_->ClearSpies();
    std::string bad = ReadFile(valid);
    bad[0] = 'X';
    WriteFile(dir_.file("bad.ota"), bad);
    const uint64_t rateSets = simulator_->RequestCount(0xB1);
    const uint64_t modeRequests = simulator_->RequestCount(0xB6);
    UpgradeToTheEnd(dir_.file("bad.ota"));
    // The package is judged before the lidar is touched.
    EXPECT_EQ(simulator_->RequestCount(0xB1), rateSets);
    EXPECT_EQ(simulator_->RequestCount(0xB6), modeRequests);
    WriteFile(dir_.file("short.ota"), std::string(55, 'N'));
    EXPECT_EQ(Upgrade(dir_.file("short.ota")), -1);
    EXPECT_EQ(Upgrade(dir_.file("missing.ota")), -1);
    EXPECT_EQ(session_->Messages(),
              (std::vector<std::string>{"error: Invalid Heron OTA upgrade package",
                                        "error: Upgrade package too small",
                                        "error: Failed to open upgrade file"}));
    EXPECT_TRUE(session_->LogHas("Invalid OTA package magic|INFO"));
    EXPECT_EQ(session_->upgradingChanges.load(), 8);  // four upgrades started, four ended

    // One at a time; and a manager destroyed during the pause sends nothing and waits not.
    ASSERT_EQ(Upgrade(valid), 0);
    EXPECT_EQ(Upgrade(valid), -1);
    EXPECT_TRUE(session_->Shown("error: lidar is not connected, or lidar is upgrading"));
    session_.reset();
    EXPECT_EQ(simulator_->RequestCount(0xC3), 0u);
    EXPECT_EQ(simulator_->RequestCount(0xC2), 0u);
}

}  // namespace
