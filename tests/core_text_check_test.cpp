// Checking a variable's text before it is staged (what a front end refuses at the field), the
// rows of the page tree behind the shown rows, and the rows that hold an edit.

#include <gtest/gtest.h>

#include <QString>
#include <QStringList>
#include <string>

#include "lidar_utilities_manager.h"
#include "test_support.h"

namespace {

using testsupport::ScopedCwd;
using testsupport::TempDir;

// One page. Tree rows: 0 a hidden selection, 1 a number with limits -5..5, 2 a port 1..65535,
// 3 a scaled int32 without limits, 4 a device operation, 5 a read-only value, 6 a row linked
// to row 0, 7 a value the lidar only reports, 8 a writable row linked to the read-only row 5.
// Module 1 holds a float with limits and a number whose lower limit is 0.
const char* const kCatalogue =
    "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,offset,"
    "type,options,switch_var,permission,hidden,scale,min_val,max_val\n"
    "Setup,Scan,flag,Hidden Flag,uint8,0x30,0x31,0,0,1,3,0|1,,1,1,1,0,0\n"
    "Setup,Scan,noise,Noise,int8,0x30,0x31,1,1,1,0,,,1,0,1,-5,5\n"
    "Setup,Scan,port,Port,uint16,0x08,0x20,0,0,2,0,,,1,0,1,1,65535\n"
    "Setup,Scan,offset,Offset,int32,0x08,0x20,2,2,4,0,,,1,0,0.001,0,0\n"
    "Setup,Scan,restart,Restart,raw,,0x10,0,0,0,0,,,1,0,1,0,0\n"
    "Setup,Scan,count,Count,uint8,0x23,0x22,0,0,1,0,,,0,0,1,0,0\n"
    "Setup,Scan,link,Link,uint8,,,0,0,0,2,,flag,1,0,1,0,0\n"
    "Setup,Scan,status,Status,uint8,0x40,,0,0,1,0,,,0,0,1,0,0\n"
    "Setup,Scan,lockedLink,Locked Link,uint8,,,0,0,0,2,0|1,count,1,0,1,0,0\n"
    "Tuning,Gains,gain,Gain,float32,0x50,0x51,0,0,4,0,,,1,0,1,1,10\n"
    "Tuning,Gains,level,Level,uint8,0x50,0x51,4,4,1,0,,,1,0,1,0,100\n";

class TextCheckTest : public ::testing::Test {
  protected:
    TextCheckTest() : cwd_(dir_.path()) {
        testsupport::WriteFile(dir_.file("Config/varID/Model/Model.csv"), kCatalogue);
        manager_.InitConfigFileParser("Model");
    }

    std::string check(int row, const char* text) {
        return manager_.checkVariableText(0, 0, row, text).toStdString();
    }

    TempDir dir_;
    ScopedCwd cwd_;
    LidarUtilitiesManager manager_{0, ""};
};

TEST_F(TextCheckTest, AcceptsWhatTheWriterWritesAsTyped) {
    ASSERT_NE(manager_.getCurrentParser(), nullptr);
    EXPECT_EQ(check(1, "3"), "");
    EXPECT_EQ(check(1, "-5"), "");
    EXPECT_EQ(check(1, "5"), "");
    EXPECT_EQ(check(2, "2400"), "");
    EXPECT_EQ(check(3, "1.001"), "");  // a whole number of its steps
    EXPECT_EQ(check(3, "-2147483.648"), "");
    EXPECT_EQ(manager_.checkVariableText(1, 0, 0, "9.5").toStdString(), "");
}

TEST_F(TextCheckTest, RefusesTextTheParserDoesNotTake) {
    const std::string malformed = check(2, "abc");
    EXPECT_EQ(malformed.rfind("Port: 'abc' is not accepted (", 0), 0u) << malformed;
    EXPECT_EQ(malformed.find("beyond"), std::string::npos) << malformed;

    const std::string tooLarge = check(2, "70000");
    EXPECT_EQ(tooLarge.rfind("Port: '70000' is not accepted (", 0), 0u) << tooLarge;
    EXPECT_NE(tooLarge.find("); it is beyond what a uint16 holds: 0 to 65535"), std::string::npos)
        << tooLarge;
    const std::string scaled = check(3, "-2147483.649");
    EXPECT_NE(scaled.find("beyond what a int32 holds: -2147483.648 to 2147483.647"),
              std::string::npos)
        << scaled;
    // A linked row is checked as the variable it writes.
    const std::string linked = check(6, "300");
    EXPECT_EQ(linked.rfind("Hidden Flag: '300' is not accepted (", 0), 0u) << linked;
    EXPECT_EQ(check(6, "1"), "");
}

TEST_F(TextCheckTest, RefusesAFractionTheWriterWouldCut) {
    EXPECT_EQ(check(2, "1.5"),
              "Port: '1.5' has a fraction; a uint16 holds whole numbers and would be written cut "
              "toward zero");
    EXPECT_EQ(check(3, "1.0005"),
              "Offset: '1.0005' has a fraction; a int32 holds whole steps of 0.001 (its scale) "
              "and would be written cut toward zero");
}

TEST_F(TextCheckTest, RefusesValuesOutsideTheCatalogueLimits) {
    EXPECT_EQ(check(1, "9"), "Noise must be -5 to 5");
    EXPECT_EQ(check(1, "-6"), "Noise must be -5 to 5");
    // The module check lets a typed 0 through by design; this check does not.
    EXPECT_EQ(check(2, "0"), "Port must be 1 to 65535");
    // A float keeps its fraction, so 10.01 is beyond a limit of 10.
    EXPECT_EQ(manager_.checkVariableText(1, 0, 0, "10.01").toStdString(), "Gain must be 1 to 10");
    EXPECT_EQ(manager_.checkVariableText(1, 0, 0, "10").toStdString(), "");
    // A limit of 0 turns the check off, as designed: only the type's range holds.
    EXPECT_EQ(manager_.checkVariableText(1, 0, 1, "150").toStdString(), "");
}

TEST_F(TextCheckTest, TellsTheLimitsItHoldsARowTo) {
    EXPECT_EQ(manager_.variableLimits(0, 0, 1).toStdString(), "-5 to 5");
    EXPECT_EQ(manager_.variableLimits(0, 0, 2).toStdString(), "1 to 65535");
    EXPECT_EQ(manager_.variableLimits(1, 0, 0).toStdString(), "1 to 10");
    EXPECT_EQ(manager_.variableLimits(0, 0, 3).toStdString(), "");  // no limits
    EXPECT_EQ(manager_.variableLimits(1, 0, 1).toStdString(), "");  // a limit of 0
    EXPECT_EQ(manager_.variableLimits(0, 0, 6).toStdString(), "");  // its target has none
    EXPECT_EQ(manager_.variableLimits(0, 0, 10).toStdString(), "");
}

TEST_F(TextCheckTest, RefusesRowsThatAreNoSetting) {
    EXPECT_EQ(check(4, "01"), "Restart is a device operation, not a setting");
    EXPECT_EQ(check(5, "1"), "Count is read-only: the lidar reports it, it is not a setting");
    EXPECT_EQ(check(7, "1"), "Status cannot be written");
    // Either side read-only is enough.
    EXPECT_EQ(check(8, "1"), "Locked Link is read-only: the lidar reports it, it is not a setting");
    EXPECT_EQ(check(9, "1"), "no variable at module 0, page 0, row 9");
    EXPECT_EQ(manager_.checkVariableText(2, 0, 0, "1").toStdString(),
              "no variable at module 2, page 0, row 0");
}

TEST_F(TextCheckTest, CheckingStagesNothing) {
    for (const char* text : {"3", "9", "abc"}) check(1, text);
    check(2, "2400");
    EXPECT_EQ(manager_.getSetMapSize(), 0u);
    EXPECT_EQ(manager_.getEditedVarCount(), 0u);
    EXPECT_EQ(manager_.getCurrentParser()->GetVarInfoByName("Noise")->current_val, "");
}

TEST_F(TextCheckTest, ShownRowsMapToTheirPlaceInTheTree) {
    EXPECT_EQ(manager_.catalogueRow(0, 0, 0), 1);  // the hidden row 0 is not shown
    EXPECT_EQ(manager_.catalogueRow(0, 0, 5), 6);
    EXPECT_EQ(manager_.catalogueRow(0, 0, 6), 7);
    EXPECT_EQ(manager_.catalogueRow(0, 0, 7), 8);
    EXPECT_EQ(manager_.catalogueRow(0, 0, 8), -1);
    EXPECT_EQ(manager_.catalogueRow(0, 0, -1), -1);
    EXPECT_EQ(manager_.catalogueRow(1, 0, 0), 0);
    EXPECT_EQ(manager_.catalogueRow(0, 1, 0), -1);
}

TEST_F(TextCheckTest, TellsWhichRowsHoldAnEdit) {
    EXPECT_FALSE(manager_.isEditedRow(0, 0, 1));
    manager_.SetText(1, 0, 0, 1, "3");
    manager_.SetText(2, 0, 0, 6, "1");  // the linked row is the edited one, not its target
    EXPECT_TRUE(manager_.isEditedRow(0, 0, 1));
    EXPECT_TRUE(manager_.isEditedRow(0, 0, 6));
    EXPECT_EQ(manager_.stagedSetCommands(), QStringList({"0x31"}));
    EXPECT_FALSE(manager_.isEditedRow(0, 0, 0));
    EXPECT_FALSE(manager_.isEditedRow(0, 0, 2));
    EXPECT_FALSE(manager_.isEditedRow(0, 0, 99));
    manager_.SetText(1, 0, 0, 2, "2400");
    EXPECT_TRUE(manager_.isEditedRow(0, 0, 2));
    EXPECT_EQ(manager_.stagedSetCommands(), QStringList({"0x20", "0x31"}));
    manager_.ClearSetMap();
    EXPECT_FALSE(manager_.isEditedRow(0, 0, 1));
    EXPECT_FALSE(manager_.isEditedRow(0, 0, 6));
    EXPECT_TRUE(manager_.stagedSetCommands().isEmpty());
}

}  // namespace
