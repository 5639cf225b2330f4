// The Heron-VRC operations of the VRC client against the simulated Heron over loopback TCP: the
// bytes each puts on the wire as the device keeps them, the version texts, the partition, the
// component transfer's bytes and progress, the device's refusals and the access profile.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sdk/authorized_vrc_client.h"
#include "sdk/vrc_client.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

using lidar::VrcClient;

std::unique_ptr<sim::LidarSimulator> StartHeron(char partition,
                                                const std::string& model = "Heron-VRC") {
    sim::LidarSimulator::Options options;
    options.model = model;
    options.configDir = testsupport::SourceDir() + "/Config";
    options.partition = partition;
    options.restartDowntimeMs = 100;
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!simulator->Start(&error)) ADD_FAILURE() << error;
    return simulator;
}

std::shared_ptr<VrcClient> Connect(const sim::LidarSimulator& simulator) {
    return std::make_shared<VrcClient>("127.0.0.1", simulator.Port(), false, lidar::VrcMode::kTcp,
                                       1, "", "", "", 2000, 2000, 0.0f, 0);
}

std::vector<uint8_t> Bytes(size_t size, uint8_t seed) {
    std::vector<uint8_t> bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<uint8_t>(seed ^ (i * 13 + (i >> 9)));
    return bytes;
}

TEST(HeronClient, VersionsAreTheTextBeforeTheFirstNul) {
    auto simulator = StartHeron('A');
    auto client = Connect(*simulator);
    std::string bmbFpga, tmbFpga, bmbMcu;
    ASSERT_EQ(client->HeronGetBmbFpgaVersion(bmbFpga), 0);
    ASSERT_EQ(client->HeronGetTmbFpgaVersion(tmbFpga), 0);
    ASSERT_EQ(client->HeronGetBmbMcuVersion(bmbMcu), 0);
    EXPECT_EQ(bmbFpga, "BF-2.3.1");
    EXPECT_EQ(tmbFpga, "TF-1.9.0");
    EXPECT_EQ(bmbMcu, "BM-4.0.7");

    // What follows a NUL is padding, even when it is not NUL; a NUL first is an empty text.
    simulator->WriteBlock(0xC0, {1}, 0, {'T', 'F', '-', '2', 0, 'x', 'y'});
    simulator->WriteBlock(0xC0, {2}, 0, {0, 'B', 'M'});
    ASSERT_EQ(client->HeronGetTmbFpgaVersion(tmbFpga), 0);
    ASSERT_EQ(client->HeronGetBmbMcuVersion(bmbMcu), 0);
    EXPECT_EQ(tmbFpga, "TF-2");
    EXPECT_EQ(bmbMcu, "");

    simulator->SetFault(0xC0, sim::Fault{sim::Fault::Kind::kStatus, 0, 5, 0});
    EXPECT_EQ(client->HeronGetBmbFpgaVersion(bmbFpga), 5);
    EXPECT_EQ(bmbFpga, "");
}

TEST(HeronClient, ImuRangeUpgradeModeAndRestart) {
    auto simulator = StartHeron('B');
    auto client = Connect(*simulator);
    ASSERT_EQ(client->HeronSetIMURange(8, 3), 0);
    std::vector<uint8_t> operation = simulator->Block(0x30);
    ASSERT_GE(operation.size(), 5u);
    EXPECT_EQ(operation[3], 8);
    EXPECT_EQ(operation[4], 3);
    // A code outside the IMU's tables is refused by the device and changes nothing.
    EXPECT_EQ(client->HeronSetIMURange(5, 0), 1);
    EXPECT_EQ(client->HeronSetIMURange(0, 4), 1);
    EXPECT_EQ(simulator->Block(0x30), operation);

    unsigned char partition = 0;
    ASSERT_EQ(client->WrenSerialEnterUpgradeMode(partition), 0);
    EXPECT_EQ(partition, 1);
    simulator->SetFault(0xB6, sim::Fault{sim::Fault::Kind::kStatus, 0, 3, 0});
    EXPECT_EQ(client->WrenSerialEnterUpgradeMode(partition), 3);
    simulator->ClearFaults();

    ASSERT_EQ(client->HeronRestartLidar(), 0);
    // The device restarts: the connection ends and nothing was written, so B still runs.
    EXPECT_LT(client->QueryCommand({}, operation, 0x07, false), 0);
    EXPECT_EQ(simulator->RunningPartition(), 'B');
    EXPECT_EQ(simulator->RequestCount(0xC2), 1u);

    // Network models know neither upgrade mode nor the component commands.
    auto egret = StartHeron('A', "Egret");
    auto egretClient = Connect(*egret);
    EXPECT_EQ(egretClient->WrenSerialEnterUpgradeMode(partition), 2);
}

TEST(HeronClient, ComponentsArriveWhole_ProgressAdvancesAndAnApplicationSwitchesThePartition) {
    auto simulator = StartHeron('A');
    auto client = Connect(*simulator);
    unsigned char partition = 9;
    ASSERT_EQ(client->WrenSerialEnterUpgradeMode(partition), 0);
    EXPECT_EQ(partition, 0);

    lidar::ProgressCounter progress{10};
    std::vector<uint8_t> fpga = Bytes(70000, 1);  // two chunks
    std::vector<uint8_t> application = Bytes(2049, 2);
    ASSERT_EQ(client->HeronSendComponentData(fpga, 1, progress), 0);
    EXPECT_EQ(progress.load(), 10 + 69);  // 68.4 units, the last partial one counted
    ASSERT_EQ(client->HeronSendComponentData(application, 2, progress), 0);
    EXPECT_EQ(progress.load(), 10 + 69 + 3);
    std::vector<uint8_t> unknownType = Bytes(10, 3);
    EXPECT_EQ(client->HeronSendComponentData(unknownType, 4, progress), 1);

    const std::vector<sim::Component> components = simulator->Components();
    ASSERT_EQ(components.size(), 2u);
    EXPECT_EQ(components[0].type, 1);
    EXPECT_EQ(components[0].bytes, fpga);
    EXPECT_TRUE(components[0].completed);
    EXPECT_EQ(components[1].type, 2);
    EXPECT_EQ(components[1].bytes, application);
    EXPECT_TRUE(components[1].completed);
    // Components are not firmware: the device takes the next one without a restart between.
    EXPECT_FALSE(simulator->RebootPending());

    ASSERT_EQ(client->HeronRestartLidar(), 0);
    EXPECT_EQ(simulator->RunningPartition(), 'B');
}

TEST(HeronClient, ComponentFaultsByPositionAndType) {
    sim::Fault fault;
    auto simulator = StartHeron('A');
    auto client = Connect(*simulator);
    lidar::ProgressCounter progress{0};
    std::vector<uint8_t> part = Bytes(100, 4);
    unsigned char partition = 0;
    ASSERT_TRUE(sim::Fault::Parse("refuse-component=2:5", fault));
    simulator->SetFault(0xC3, fault);
    ASSERT_EQ(client->WrenSerialEnterUpgradeMode(partition), 0);
    EXPECT_EQ(client->HeronSendComponentData(part, 3, progress), 0);
    EXPECT_EQ(client->HeronSendComponentData(part, 3, progress), 5);
    // The position counts from upgrade mode: entered again, the first passes again.
    ASSERT_EQ(client->WrenSerialEnterUpgradeMode(partition), 0);
    EXPECT_EQ(client->HeronSendComponentData(part, 3, progress), 0);

    ASSERT_TRUE(sim::Fault::Parse("refuse-component-type=0:4", fault));
    simulator->SetFault(0xC3, fault);
    EXPECT_EQ(client->HeronSendComponentData(part, 1, progress), 0);
    EXPECT_EQ(client->HeronSendComponentData(part, 0, progress), 4);
    EXPECT_EQ(client->HeronSendComponentData(part, 9, progress), 1);  // no such component
    EXPECT_EQ(simulator->Components().size(), 3u);
    // The transfers keep the refused ones with their status and announced size, for the report.
    std::vector<std::pair<int, int>> refused;  // type, status
    for (const sim::Transfer& transfer : simulator->Transfers()) {
        if (transfer.refusedStatus == 0) continue;
        refused.emplace_back(transfer.beginByte, transfer.refusedStatus);
        EXPECT_EQ(transfer.announcedSize, 100u);
        EXPECT_EQ(transfer.receivedSize, 0u);
    }
    EXPECT_EQ(refused, (std::vector<std::pair<int, int>>{{3, 5}, {0, 4}, {9, 1}}));
}

TEST(HeronClient, TheAccessProfileRefusesEachOperationBeforeTheWire) {
    auto simulator = StartHeron('A');
    AuthConfig config;
    config.profile = "ReadOnly";
    config.allowAll = false;
    config.commands = {0x07};
    AuthorizedVrcClient client(Connect(*simulator), config);
    std::vector<std::string> lines;
    client.SetLogCallback([&lines](const std::string& line) { lines.push_back(line); });

    std::string version = "stale";
    unsigned char partition = 0;
    std::vector<uint8_t> part = Bytes(10, 5);
    lidar::ProgressCounter progress{0};
    EXPECT_EQ(client.HeronGetBmbFpgaVersion(version), -5);
    EXPECT_EQ(version, "");
    EXPECT_EQ(client.HeronGetTmbFpgaVersion(version), -5);
    EXPECT_EQ(client.HeronGetBmbMcuVersion(version), -5);
    EXPECT_EQ(client.HeronSetIMURange(0, 0), -5);
    EXPECT_EQ(client.HeronRestartLidar(), -5);
    EXPECT_EQ(client.WrenSerialEnterUpgradeMode(partition), -5);
    EXPECT_EQ(client.HeronSendComponentData(part, 3, progress), -5);
    EXPECT_EQ(client.GetLastReturnCode(), -5);
    for (uint8_t code : {0xB6, 0xC0, 0xC1, 0xC2, 0xC3})
        EXPECT_EQ(simulator->RequestCount(code), 0u);
    ASSERT_EQ(lines.size(), 7u);
    EXPECT_EQ(lines.front(), "Command 0xC0 refused by access profile ReadOnly");
    EXPECT_EQ(lines.back(), "Command 0xC3 refused by access profile ReadOnly");
}

}  // namespace
