// Edit staging, field-of-view editing and the guards of Run, without a device.

#include <gtest/gtest.h>

#include <QSignalSpy>
#include <algorithm>
#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "lidar_utilities_manager.h"
#include "manager_test_access.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

using testsupport::ScopedCwd;
using testsupport::SpyTexts;
using testsupport::TempDir;

// Module 0 "Network" has one page whose rows are, in order: two fields of the network command,
// a switch with options 5|7|9, a row linked to that switch, a link row without its link, and a
// row of an unknown UI kind. Module 1 holds the field-of-view mode.
const char* const kCatalogue =
    "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,offset,"
    "type,options,switch_var,permission\n"
    "Network,Address,ip,Ip Address,IP,0x08,0x21,0,0,4,1,,,1\n"
    "Network,Address,port,Dest Port,uint16,0x08,0x21,16,4,2,1,,,1\n"
    "Network,Address,mode,Return Mode,uint8,0x30,0x31,0,0,1,3,5|7|9,,1\n"
    "Network,Address,modeLink,Mode Link,uint8,,,0,0,0,2,,mode,1\n"
    "Network,Address,broken,Broken Link,uint8,,,0,0,0,2,,,1\n"
    "Network,Address,odd,Odd Kind,uint8,0x30,0x32,1,0,1,4,,,1\n"
    "Fov,Regions,fovMode,Fov Mode,uint8,0x23,0x22,0,0,1,1,,,1\n";

class StagingTest : public ::testing::Test {
  protected:
    StagingTest() : cwd_(dir_.path()) {
        testsupport::WriteFile(dir_.file("Config/varID/Model/Model.csv"), kCatalogue);
        manager_.InitConfigFileParser("Model");
    }

    std::string valueOf(const std::string& name) {
        VarInfo* var = manager_.getCurrentParser()->GetVarInfoByName(name);
        return var == nullptr ? "<missing>" : var->current_val;
    }

    TempDir dir_;
    ScopedCwd cwd_;
    LidarUtilitiesManager manager_{0, ""};
};

std::vector<std::string> FovTexts(const LidarUtilitiesManager& manager) {
    std::vector<std::string> texts;
    for (const QVariant& value : manager.getFovList())
        texts.push_back(value.toString().toStdString());
    return texts;
}

TEST_F(StagingTest, PlainEditsStageOneEntryPerSetCommand) {
    ASSERT_NE(manager_.getCurrentParser(), nullptr);
    ASSERT_EQ(valueOf("Dest Port"), "");

    manager_.SetText(1, 0, 0, 1, "");  // the value it already holds
    EXPECT_EQ(manager_.getSetMapSize(), 0u);
    EXPECT_EQ(manager_.getEditedVarCount(), 0u);

    manager_.SetText(1, 0, 0, 0, "10.0.0.2");
    EXPECT_EQ(valueOf("Ip Address"), "10.0.0.2");
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    manager_.SetText(1, 0, 0, 0, "10.0.0.2");
    EXPECT_EQ(manager_.getEditedVarCount(), 1u);

    manager_.SetText(1, 0, 0, 1, "2000");  // same set command as the address
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    EXPECT_EQ(manager_.getEditedVarCount(), 2u);

    manager_.SetText(1, 1, 0, 0, "1");
    EXPECT_EQ(manager_.getSetMapSize(), 2u);
    EXPECT_EQ(manager_.getEditedVarCount(), 3u);

    manager_.ClearSetMap();
    EXPECT_EQ(manager_.getSetMapSize(), 0u);
    EXPECT_EQ(manager_.getEditedVarCount(), 0u);
    EXPECT_EQ(valueOf("Ip Address"), "10.0.0.2");  // the user's text stays until the next read
}

TEST_F(StagingTest, SwitchLinkAndMisconfiguredRows) {
    QSignalSpy logs(&manager_, &LidarUtilitiesManager::sendLogMessage);

    manager_.SetText(3, 0, 0, 2, "1");
    EXPECT_EQ(valueOf("Return Mode"), "7");  // the option at index 1, not the index
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    EXPECT_EQ(manager_.getEditedVarCount(), 1u);

    manager_.SetText(3, 0, 0, 2, "3");
    manager_.SetText(3, 0, 0, 2, "-1");
    EXPECT_EQ(valueOf("Return Mode"), "7");
    EXPECT_THROW(manager_.SetText(3, 0, 0, 2, "abc"), std::invalid_argument);

    manager_.ClearSetMap();
    manager_.SetText(2, 0, 0, 3, "9");  // writes the linked switch, records the edited row
    EXPECT_EQ(valueOf("Return Mode"), "9");
    EXPECT_EQ(valueOf("Mode Link"), "");
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    EXPECT_EQ(manager_.getEditedVarCount(), 1u);
    manager_.SetText(1, 0, 0, 2, "5");
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    EXPECT_EQ(manager_.getEditedVarCount(), 2u);

    manager_.ClearSetMap();
    manager_.SetText(2, 0, 0, 4, "1");
    manager_.SetText(0, 0, 0, 5, "1");
    manager_.SetText(4, 0, 0, 5, "1");
    EXPECT_EQ(manager_.getSetMapSize(), 0u);
    EXPECT_EQ(valueOf("Odd Kind"), "");

    const std::string type3 =
        "Invalid switch value of type 3, please check the config file! name: Return Mode|ERROR";
    const std::string other =
        "Invalid switch value of type , please check the config file! name: Odd Kind|ERROR";
    EXPECT_EQ(SpyTexts(logs),
              (std::vector<std::string>{
                  type3, type3,
                  "config file error, Please check the configuration of type 2 of Broken "
                  "Link|ERROR",
                  other, other}));
}

// The window stages and applies from a worker thread while the UI thread reads and clears: the
// staging and the field-of-view table hold under that (and under ThreadSanitizer).
TEST_F(StagingTest, StagingIsSafeAcrossThreads) {
    std::atomic<bool> staging{true};
    std::thread worker([this, &staging] {
        for (int i = 0; i < 50000; ++i) {
            manager_.SetText(1, 0, 0, 0, i % 2 ? "10.0.0.1" : "10.0.0.2");  // 0x21
            manager_.SetText(1, 1, 0, 0, i % 2 ? "1" : "2");                // 0x22
            manager_.SetMultiFovConfig(0, i % 2 ? "10" : "20");             // 0x22
        }
        staging.store(false);
    });
    unsigned long mostCommands = 0;
    size_t mostEdited = 0;
    while (staging.load()) {
        mostCommands = std::max(mostCommands, manager_.getSetMapSize());
        mostEdited = std::max(mostEdited, manager_.getEditedVarCount());
        EXPECT_EQ(manager_.getFovList().size(), 10);
        manager_.ClearSetMap();
    }
    worker.join();
    EXPECT_LE(mostCommands, 2u);
    EXPECT_LE(mostEdited, 2u);

    manager_.ClearSetMap();
    manager_.SetText(1, 0, 0, 0, "10.0.0.3");
    manager_.SetText(1, 1, 0, 0, "3");
    EXPECT_EQ(manager_.getSetMapSize(), 2u);
    EXPECT_EQ(manager_.getEditedVarCount(), 2u);
    EXPECT_EQ(valueOf("Ip Address"), "10.0.0.3");
    EXPECT_EQ(FovTexts(manager_)[0], "10.0");  // the worker's last bound
}

TEST(CoreWriteBackText, SubCommandBytesAndNameCases) {
    u8Array_t out;
    LidarUtilitiesManager::writeSubCmdIntoInput("0x1A2B", out);
    EXPECT_EQ(out, (u8Array_t{0x1A, 0x2B}));

    out = {0xFF};
    LidarUtilitiesManager::writeSubCmdIntoInput("0x00010070", out);
    EXPECT_EQ(out, (u8Array_t{0xFF, 0x00, 0x01, 0x00, 0x70}));

    out.clear();
    LidarUtilitiesManager::writeSubCmdIntoInput("0A", out);
    LidarUtilitiesManager::writeSubCmdIntoInput("", out);
    LidarUtilitiesManager::writeSubCmdIntoInput("0x01020", out);  // the odd last digit is dropped
    EXPECT_EQ(out, (u8Array_t{0x0A, 0x01, 0x02}));

    const auto cases = LidarUtilitiesManager::getTwoCases("  return  MODE value ");
    EXPECT_EQ(cases.first, "Return Mode Value");
    EXPECT_EQ(cases.second, "return mode value");
    EXPECT_EQ(LidarUtilitiesManager::getTwoCases(""), (std::pair<std::string, std::string>{}));
}

TEST_F(StagingTest, FovEditsAreCheckedAndStagedOnce) {
    QSignalSpy errors(&manager_, &LidarUtilitiesManager::errorMessageChanged);
    QSignalSpy fovChanges(&manager_, &LidarUtilitiesManager::fovConfigChanged);
    const std::vector<std::string> defaults = {"0.0",   "0.0",   "0.0",   "0.0",   "0.0",
                                               "360.0", "360.0", "360.0", "360.0", "360.0"};
    EXPECT_EQ(FovTexts(manager_), defaults);

    manager_.SetMultiFovConfig(10, "5");
    manager_.SetMultiFovConfig(-1, "5");
    EXPECT_EQ(FovTexts(manager_), defaults);
    EXPECT_EQ(manager_.getSetMapSize(), 0u);

    manager_.SetMultiFovConfig(0, "360");
    manager_.SetMultiFovConfig(9, "0");
    manager_.SetMultiFovConfig(4, "12.5");
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    EXPECT_EQ(errors.count(), 0);
    EXPECT_EQ(fovChanges.count(), 0);

    for (const char* refused : {"360.01", "-1", "abc", "nan"}) {
        manager_.SetMultiFovConfig(1, refused);
    }
    EXPECT_EQ(errors.count(), 4);
    EXPECT_EQ(fovChanges.count(), 4);
    EXPECT_EQ(manager_.getErrorMessage(), "Input value of fov is invalid");

    const std::vector<std::string> edited = {"360.0", "0.0",   "0.0",   "0.0",   "12.5",
                                             "360.0", "360.0", "360.0", "360.0", "0.0"};
    EXPECT_EQ(FovTexts(manager_), edited);
}

TEST_F(StagingTest, RunRefusesWithoutConnectionAndKeepsTheEdits) {
    QSignalSpy errors(&manager_, &LidarUtilitiesManager::errorMessageChanged);
    QSignalSpy logs(&manager_, &LidarUtilitiesManager::sendLogMessage);
    manager_.SetText(1, 0, 0, 1, "2000");

    manager_.Run(0);
    EXPECT_EQ(errors.count(), 1);
    EXPECT_EQ(manager_.getErrorMessage(), "Please connect to lidar first");
    EXPECT_EQ(logs.count(), 0);
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    EXPECT_EQ(manager_.getEditedVarCount(), 1u);
}

TEST_F(StagingTest, RunGuardsOnAConnectedLidarSendNothing) {
    sim::LidarSimulator::Options options;
    options.model = "Model";
    sim::LidarSimulator device(options);
    std::string why;
    ASSERT_TRUE(device.Start(&why)) << why;
    manager_.setIpAddress("127.0.0.1");
    manager_.setPort(QString::number(device.Port()));
    ASSERT_TRUE(manager_.ConnectLidar());
    manager_.waitForWorkers();
    ASSERT_TRUE(manager_.getIsConnected());

    manager_.SetText(1, 0, 0, 1, "2000");
    device.ResetCounters();
    QSignalSpy errors(&manager_, &LidarUtilitiesManager::errorMessageChanged);
    QSignalSpy successes(&manager_, &LidarUtilitiesManager::successMessageChanged);

    manager_.Run(2);  // the catalogue has two pages
    EXPECT_EQ(errors.count(), 0);
    EXPECT_EQ(manager_.getSetMapSize(), 1u);

    ManagerTestAccess::setUpgrading(manager_, true);
    manager_.Run(0);
    ManagerTestAccess::setUpgrading(manager_, false);
    EXPECT_EQ(manager_.getErrorMessage(), "Please wait for the lidar to upgrade completely");
    manager_.setIsDownloadLog(true);
    manager_.Run(0);
    manager_.setIsDownloadLog(false);
    EXPECT_EQ(manager_.getErrorMessage(),
              "Please wait for the operation log to download completely");

    EXPECT_EQ(errors.count(), 2);
    EXPECT_EQ(successes.count(), 0);
    EXPECT_EQ(manager_.getSetMapSize(), 1u);
    uint64_t requests = 0;
    for (const auto& entry : device.RequestCounts()) requests += entry.second;
    EXPECT_EQ(requests, 0u);
    manager_.Stop();
    EXPECT_EQ(manager_.getSetMapSize(), 0u) << "Stop on the owner thread drops the staged edits";
    EXPECT_EQ(manager_.getEditedVarCount(), 0u);
}

TEST(CoreWriteBackRun, WithoutModelReturnsSilently) {
    LidarUtilitiesManager manager(0, "");
    QSignalSpy errors(&manager, &LidarUtilitiesManager::errorMessageChanged);
    manager.Run(0);
    manager.SetText(1, 0, 0, 0, "1");
    EXPECT_EQ(errors.count(), 0);
    EXPECT_EQ(manager.getSetMapSize(), 0u);
}

// A write-only "raw" field goes out with the hex digits the user typed, ahead of the fields read
// back from the lidar: the lidar takes the command only when both are there, and finds the
// readable field at its own position.
TEST(CoreWriteBackRun, RawWriteOnlyFieldsPrecedeTheReadBackFields) {
    TempDir dir;
    ScopedCwd cwd(dir.path());
    testsupport::WriteFile(
        dir.file("Config/varID/Model/Model.csv"),
        "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,offset,"
        "type,options,switch_var,permission\n"
        "Motor,Drive,action,Drive Action,raw,,0x33,0,0,2,1,,,1\n"
        "Motor,Drive,level,Drive Level,uint16,0x34,0x33,0,2,2,1,,,1\n");
    sim::LidarSimulator::Options options;
    options.model = "Model";
    sim::LidarSimulator device(options);
    std::string why;
    ASSERT_TRUE(device.Start(&why)) << why;
    LidarUtilitiesManager manager(0, "");
    manager.InitConfigFileParser("Model");
    manager.setIpAddress("127.0.0.1");
    manager.setPort(QString::number(device.Port()));
    ASSERT_TRUE(manager.ConnectLidar());
    manager.waitForWorkers();
    ASSERT_TRUE(manager.getIsConnected());

    manager.SetText(1, 0, 0, 0, "0x0102");
    manager.SetText(1, 0, 0, 1, "7");
    manager.Run(0);
    EXPECT_EQ(manager.getErrorMessage().toStdString(), "");
    EXPECT_EQ(device.RequestCount(0x33), 1u);
    EXPECT_EQ(device.Block(0x34), (std::vector<uint8_t>{0x00, 0x07}));
    manager.Stop();
}

}  // namespace
