// The Wren operations of the VRC-over-serial models against the simulated Wren-VRC over loopback
// TCP: 0xB0-0xB5, 0x20, 0x21, and serial frames passed through 0xB8 reaching the same state.

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "sdk/authorized_vrc_client.h"
#include "sdk/vrc_client.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

class WrenVrc : public ::testing::Test {
  protected:
    void SetUp() override {
        sim::LidarSimulator::Options options;
        options.model = "Wren-VRC";
        options.configDir = testsupport::SourceDir() + "/Config";
        sim_ = std::make_unique<sim::LidarSimulator>(options);
        std::string error;
        ASSERT_TRUE(sim_->Start(&error)) << error;
    }

    std::unique_ptr<AuthorizedVrcClient> Connect(AuthConfig config = {}) {
        auto client = std::make_shared<lidar::VrcClient>("127.0.0.1", sim_->Port(), false,
                                                         lidar::VrcMode::kTcp, 1, "", "", "", 2000,
                                                         2000, 0.0f, 0);
        auto authorised = std::make_unique<AuthorizedVrcClient>(client, config);
        authorised->SetLogCallback([this](const std::string& line) { lines_.push_back(line); });
        return authorised;
    }

    std::unique_ptr<sim::LidarSimulator> sim_;
    std::vector<std::string> lines_;
};

TEST_F(WrenVrc, SettingsFaultStateAndBaudRateMeetTheSerialSideAndTheCatalogue) {
    auto client = Connect();
    ASSERT_EQ(client->WrenSerialSetStandby(true), 0);
    ASSERT_EQ(client->WrenSerialSetSpinRate(5), 0);
    ASSERT_EQ(client->WrenSerialSetReturnMode(true), 0);
    const Bytes scan = sim_->Block(0x30);
    ASSERT_GE(scan.size(), 3u);
    EXPECT_EQ(Bytes(scan.begin(), scan.begin() + 3), (Bytes{1, 5, 1}));
    const sim::SerialState state = sim_->GetSerialState();
    EXPECT_EQ(state.standby, 1);
    EXPECT_EQ(state.spinRate, 5);
    EXPECT_EQ(state.returnMode, 1);

    // A serial frame through 0xB8 changes the same standby value; 0x30 shows it.
    Bytes reply;
    ASSERT_EQ(client->QuerySerialCommand({0}, reply, 0x01), 0);
    EXPECT_EQ(reply, (Bytes{0xA5, 0x5A, 0x01, 0, 0, 0, 0, 0}));
    ASSERT_EQ(client->QueryCommand({}, reply, 0x30, false), 0);
    EXPECT_EQ(reply[0], 0);
    EXPECT_EQ(client->WrenSerialSetStandby(true), 0);
    ASSERT_EQ(client->QuerySerialCommand({3}, reply, 0x03), 0);
    EXPECT_EQ(reply[3], 1);  // the serial status: a flag is 0 or 1

    // 0xB5 and 0x04 through 0xB8 report one fault state.
    sim_->SetSerialFaultState(2, {0x00A1, 0xBEEF});
    ASSERT_EQ(client->WrenGetLidarFaultState(reply), 0);
    EXPECT_EQ(reply, (Bytes{2, 0xA1, 0x00, 0xEF, 0xBE}));
    ASSERT_EQ(client->QuerySerialCommand({}, reply, 0x04), 0);
    EXPECT_EQ(reply, (Bytes{0xA5, 0x5A, 0x04, 0, 0, 0, 0, 5, 2, 0xA1, 0x00, 0xEF, 0xBE}));

    unsigned int rate = 0;
    ASSERT_EQ(client->WrenGetBaudRate(rate), 0);
    EXPECT_EQ(rate, 921600u);
    ASSERT_EQ(client->WrenSetBaudRate(3000000), 0);
    ASSERT_EQ(client->WrenGetBaudRate(rate), 0);
    EXPECT_EQ(rate, 3000000u);
}

TEST_F(WrenVrc, DestinationAndNetworkAreWrittenAndBadAddressesRefusedUnsent) {
    auto client = Connect();
    ASSERT_TRUE(client->SetDesIpandPort("192.168.1.77", 2370, 10110));
    EXPECT_EQ(client->GetLastReturnCode(), 0);
    const Bytes network = sim_->Block(0x08);
    EXPECT_EQ(Bytes(network.begin() + 12, network.begin() + 20),
              (Bytes{192, 168, 1, 77, 0x09, 0x42, 0x27, 0x7E}));

    for (const std::string bad : {"192.168.1", "192.168.1.256", "host.local", "", "1.2.3.4.5"}) {
        SCOPED_TRACE(bad);
        const auto before = sim_->RequestCounts();
        EXPECT_FALSE(client->SetDesIpandPort(bad, 1, 2));
        EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcNotConnected);
        EXPECT_FALSE(client->SetNet("10.0.0.2", bad, "10.0.0.1", 0, 0));
        EXPECT_EQ(sim_->RequestCounts(), before);
        EXPECT_TRUE(client->IsOpen());
    }
    EXPECT_EQ(lines_.back(),
              "Netmask \"1.2.3.4.5\" is not a dotted IPv4 address; nothing was sent");

    // The device applies the network and drops the connection: false, with -2 kept.
    EXPECT_FALSE(client->SetNet(" 10.0.0.2 ", "255.255.0.0", "10.0.0.1", 1, 300));
    EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcClosedByPeer);
    EXPECT_FALSE(client->IsOpen());
    const Bytes applied = sim_->Block(0x08);
    EXPECT_EQ(Bytes(applied.begin(), applied.begin() + 12),
              (Bytes{10, 0, 0, 2, 255, 255, 0, 0, 10, 0, 0, 1}));
    EXPECT_EQ(Bytes(applied.begin() + 20, applied.begin() + 23), (Bytes{1, 0x01, 0x2C}));
}

TEST_F(WrenVrc, ProfileRefusesEachOperationWithNothingSent) {
    AuthConfig config;
    config.profile = "Wren-VRC";
    config.allowAll = false;
    config.commands = {0x07, 0xB5};
    auto client = Connect(config);
    const auto before = sim_->RequestCounts();
    unsigned int rate = 0;
    Bytes reply;
    EXPECT_EQ(client->WrenSerialSetStandby(true), lidar::kVrcRefused);
    EXPECT_EQ(client->WrenSerialSetSpinRate(5), lidar::kVrcRefused);
    EXPECT_EQ(client->WrenSerialSetReturnMode(false), lidar::kVrcRefused);
    EXPECT_EQ(client->WrenGetBaudRate(rate), lidar::kVrcRefused);
    EXPECT_FALSE(client->SetDesIpandPort("10.0.0.9", 1, 2));
    EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcRefused);
    EXPECT_FALSE(client->SetNet("10.0.0.2", "255.0.0.0", "10.0.0.1", 0, 0));
    EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcRefused);
    EXPECT_EQ(sim_->RequestCounts(), before);
    EXPECT_EQ(lines_.front(), "Command 0xB2 refused by access profile Wren-VRC");
    EXPECT_EQ(lines_.back(), "Command 0x21 refused by access profile Wren-VRC");
    EXPECT_EQ(client->WrenGetLidarFaultState(reply), 0);  // allowed
    EXPECT_EQ(sim_->RequestCount(0xB5), 1u);
}

}  // namespace
