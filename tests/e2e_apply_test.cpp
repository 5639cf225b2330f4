// Applying staged edits to a simulated lidar: read-modify-write payloads, one request per set
// command, "0x21" last with its restart note, first failure wins, field of view.

#include <gtest/gtest.h>

#include "e2e_support.h"

using testsupport::ManagerSession;
using testsupport::SpyTexts;
using testsupport::StartSimulator;

namespace {

// Egret's modules, in catalogue order.
constexpr int kNetwork = 1;
constexpr int kOperation = 2;
constexpr int kFieldOfView = 3;

const char* kScanNames =
    "Spin Rate, Return Mode, Standby, Phase Lock Angle, Sync Source, Noise Filter Level, ";
const char* kDestinationNames = "Destination IP, Data Port, Auxiliary Port, ";

int indexOfLine(const std::vector<std::string>& lines, const std::string& prefix) {
    for (size_t i = 0; i < lines.size(); ++i)
        if (lines[i].rfind(prefix, 0) == 0) return static_cast<int>(i);
    return -1;
}

}  // namespace

TEST(Apply, TwoFieldsOfOneCommandMakeOneRequestAndKeepTheDevicesOtherFields) {
    auto lidar = StartSimulator("Egret");
    lidar->WriteBlock(0x30, {}, 7, {0xFD});  // the device's noise filter is -3, not the default
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().GetLidarModuleInfo(kOperation);

    s.m().SetText(3, kOperation, 0, 0, "2");  // Spin Rate: third option, 1200 rpm
    s.m().SetText(3, kOperation, 0, 1, "2");  // Return Mode: Dual
    EXPECT_EQ(s.m().getSetMapSize(), 1u);
    EXPECT_EQ(s.m().getEditedVarCount(), 2u);
    lidar->ResetCounters();
    s.m().Run(kOperation);

    EXPECT_EQ(lidar->RequestCount(0x31), 1u);
    EXPECT_EQ(s.m().getSuccessMessage().toStdString(),
              std::string("VRC command [0x31] to set ") + kScanNames + " success.");
    EXPECT_EQ(lidar->Block(0x30), (std::vector<uint8_t>{0x04, 0xB0, 2, 0, 0, 0, 0, 0xFD}));
    EXPECT_EQ(s.m().getSetMapSize(), 0u);
    EXPECT_EQ(s.m().getEditedVarCount(), 0u);

    s.m().GetLidarModuleInfo(kOperation);
    EXPECT_EQ(s.m().currentValueOf(s.m().searchVarPtr("Spin Rate", "var_name")), "1200");
    EXPECT_EQ(s.m().currentValueOf(s.m().searchVarPtr("Noise Filter Level", "var_name")), "-3");

    // A discarded edit stays discarded: the command carries what the lidar holds for it.
    s.m().SetText(3, kOperation, 0, 0, "0");
    s.m().ClearSetMap();
    s.m().SetText(3, kOperation, 0, 1, "0");
    s.m().Run(kOperation);
    EXPECT_EQ(lidar->Block(0x30), (std::vector<uint8_t>{0x04, 0xB0, 0, 0, 0, 0, 0, 0xFD}));

    // An applied edit is not applied again: the lidar's return mode changes behind the manager's
    // back, and the next apply of the same command, for the spin rate alone, keeps it.
    lidar->WriteBlock(0x30, {}, 2, {1});
    s.m().SetText(3, kOperation, 0, 0, "1");
    s.m().Run(kOperation);
    EXPECT_EQ(lidar->Block(0x30).at(2), 1) << "the return mode nobody edited this time";
}

TEST(Apply, NetworkCommandGoesLastWithRestartNoteThenStops) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().GetLidarModuleInfo(kNetwork);

    s.m().SetText(1, kNetwork, 0, 0, "10.0.0.7");  // IP Address, 0x21
    s.m().SetText(1, kNetwork, 1, 1, "2400");      // Data Port, 0x20
    s.log().clear();
    s.m().Run(kNetwork);

    const std::vector<std::string> log = SpyTexts(s.log());
    const int destination = indexOfLine(log, "Send VRC command [0x20] to set ");
    const int network = indexOfLine(log, "Send VRC command [0x21] to set ");
    ASSERT_GE(destination, 0);
    ASSERT_GE(network, 0);
    EXPECT_LT(destination, network) << "0x21 is sent after every other command";
    EXPECT_EQ(s.m().getSuccessMessage(),
              "Set Lidar Successfully\nNote that if you have changed the TCP-related settings, you "
              "will need to restart the lidar for it to work.");
    EXPECT_FALSE(s.m().getIsConnected()) << "the device closed the connection; Stop followed";
    EXPECT_TRUE(s.LogHas("Lidar disconnected|INFO"));

    const std::vector<uint8_t> network08 = lidar->Block(0x08);
    ASSERT_GE(network08.size(), 18u);
    EXPECT_EQ(std::vector<uint8_t>(network08.begin(), network08.begin() + 4),
              (std::vector<uint8_t>{10, 0, 0, 7}));
    EXPECT_EQ(network08[16] * 256 + network08[17], 2400);
}

TEST(Apply, FirstFailureStopsTheRestAndSaysWhetherACommandWasSent) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().GetLidarModuleInfo(kNetwork);
    lidar->ResetCounters();

    // An encoding failure: nothing reaches the device.
    s.m().SetText(1, kNetwork, 0, 0, "10.0.0.7");
    s.m().SetText(1, kNetwork, 1, 1, "99999");
    s.m().Run(kNetwork);
    const std::string illegal = "UintParser: contains an illegal number, error:99999";
    EXPECT_EQ(s.m().getErrorMessage().toStdString(), "Set Failed: " + illegal);
    EXPECT_TRUE(s.LogHas("Set 0x20 Failed. No command was sent. Detail: " + illegal + "|WARNING"));
    EXPECT_EQ(lidar->RequestCount(0x20), 0u);
    EXPECT_EQ(lidar->RequestCount(0x21), 0u);

    // The device refuses the first command: the network command after it is never sent.
    sim::Fault busy;
    busy.kind = sim::Fault::Kind::kStatus;
    busy.status = 4;
    lidar->SetFault(0x20, busy);
    s.m().SetText(1, kNetwork, 0, 0, "10.0.0.8");
    s.m().SetText(1, kNetwork, 1, 1, "2400");
    s.m().Run(kNetwork);
    const std::string refused = std::string("0x20 SET ") + kDestinationNames + " ret_code: 4";
    EXPECT_EQ(s.m().getErrorMessage().toStdString(), "Set Failed: " + refused);
    EXPECT_TRUE(s.LogHas("SET [0x20] FAILED|WARNING"));
    EXPECT_TRUE(s.LogHas("Set 0x20 Failed. Command was sent. Detail: " + refused + "|WARNING"));
    EXPECT_EQ(lidar->RequestCount(0x20), 1u);
    EXPECT_EQ(lidar->RequestCount(0x21), 0u);
    EXPECT_TRUE(s.m().getIsConnected());
    EXPECT_EQ(s.m().getEditedVarCount(), 2u) << "a failed run keeps the edited variables";

    // The read-back brings nothing: the fields the user did not edit have no bytes to go out
    // with, so nothing is sent rather than a command with a hole in it.
    lidar->ClearFaults();
    lidar->SetFault(0x08, busy);
    s.m().ClearSetMap();
    s.m().SetText(1, kNetwork, 1, 1, "2401");
    s.m().Run(kNetwork);
    EXPECT_EQ(s.m().getErrorMessage().toStdString(),
              "Set Failed: Could not read back the value this command carries unchanged. "
              "var_name = Destination IP");
    EXPECT_EQ(lidar->RequestCount(0x20), 1u);
}

TEST(Apply, FieldOfViewEditsSurviveApplyAndReadBack) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().GetLidarModuleInfo(kFieldOfView);

    s.m().SetMultiFovConfig(0, "10");
    s.m().SetMultiFovConfig(5, "350");
    EXPECT_EQ(s.m().getSetMapSize(), 1u);
    s.m().Run(kFieldOfView);
    EXPECT_EQ(lidar->RequestCount(0x22), 1u);
    const std::vector<uint8_t> fov = lidar->Block(0x23);
    ASSERT_GE(fov.size(), 6u);
    EXPECT_EQ(fov[2] * 256 + fov[3], 100);
    EXPECT_EQ(fov[4] * 256 + fov[5], 3500);

    s.m().Stop();
    EXPECT_EQ(s.m().getFovList()[0].toString(), "0.0") << "Stop restores the defaults";
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().GetLidarModuleInfo(kFieldOfView);
    EXPECT_EQ(s.m().getFovList()[0].toString(), "10.0");
    EXPECT_EQ(s.m().getFovList()[5].toString(), "350.0");
    EXPECT_EQ(s.m().currentValueOf(s.m().searchVarPtr("Region 1 Start", "var_name")), "10.00");
}

// A payload field that is neither read from the lidar nor raw is a catalogue fault: it is shown,
// and neither its command nor the network command after it is sent.
TEST(Apply, AFieldWithoutAReadCommandStopsTheRunBeforeSending) {
    const testsupport::CraftedConfig crafted(
        "Egret", {{",Auxiliary Port,,uint16,0x08,", ",Auxiliary Port,,uint16,,"}});
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret", crafted.root());
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().GetLidarModuleInfo(kNetwork);
    lidar->ResetCounters();

    s.m().SetText(1, kNetwork, 0, 0, "10.0.0.7");  // IP Address, 0x21
    s.m().SetText(1, kNetwork, 1, 1, "2400");      // Data Port, 0x20
    s.m().Run(kNetwork);
    EXPECT_EQ(s.m().getErrorMessage().toStdString(),
              "There are undefined cases in the csv config file where there is a line with 'set' "
              "and no 'get', but the var_type is not 'raw'.");
    EXPECT_EQ(lidar->RequestCount(0x20), 0u);
    EXPECT_EQ(lidar->RequestCount(0x21), 0u);
    EXPECT_TRUE(s.m().getIsConnected());
}
