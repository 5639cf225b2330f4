// Decoding replies into the catalogue's display texts, and the range checks of staged edits, on
// a manager that has loaded a small catalogue from a temporary Config folder.

#include <gtest/gtest.h>

#include <QSignalSpy>
#include <stdexcept>
#include <string>
#include <vector>

#include "lidar_utilities_manager.h"
#include "sdk/logger.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char* const kCatalogue =
    "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,offset,"
    "permission,scale,range_scale,min_val,max_val\n"
    // One 0x21 reply carries all of these.
    "Main,Status,u16,Plain,uint16,0x21,,0,0,2,0,1,1,0,0\n"
    "Main,Status,temp,Temperature,uint16,0x21,,2,0,2,0,0.01,1,0,0\n"
    "Main,Status,i16,Offset,int16,0x21,,4,0,2,0,1,1,0,0\n"
    "Main,Status,i8,Half steps,int8,0x21,,6,0,1,0,0.5,1,0,0\n"
    "Main,Status,u32,Counter,uint32,0x21,,7,0,4,0,1,1,0,0\n"
    "Main,Status,f32,Angle,float32,0x21,,11,0,4,0,1,1,0,0\n"
    "Main,Status,dt,Uptime,DT,0x21,,15,0,4,0,1,1,0,0\n"
    // And these one 0x28 reply.
    "Main,Wide,u8,Mode,uint8,0x28,,0,0,1,0,1,1,0,0\n"
    "Main,Wide,u64,Total,uint64,0x28,,1,0,8,0,1,1,0,0\n"
    "Main,Wide,i32,Delta,int32,0x28,,9,0,4,0,0.1,1,0,0\n"
    "Main,Wide,i64,Big delta,int64,0x28,,13,0,8,0,1,1,0,0\n"
    "Main,Wide,dbl,Precise,double,0x28,,21,0,8,0,2,1,0,0\n"
    "Main,Wide,blob,Blob,BYTES,0x28,,29,0,2,0,1,1,0,0\n"
    "Main,Ids,ip,Lidar IP,IP,0x24,,0,0,4,0,1,1,0,0\n"
    "Main,Ids,mac,Lidar MAC,MAC,0x24,,4,0,6,0,1,1,0,0\n"
    "Main,Ids,name,Device name,string,0x24,,10,0,4,0,1,1,0,0\n"
    "Main,Ids,hw,Hardware version,HWVER,0x26,,0,0,16,0,1,1,0,0\n"
    "Main,Ids,sw,Software version,SWVER_YMD,0x27,,0,0,16,0,1,1,0,0\n"
    // Staged edits for the range checks.
    "Limits,Edit,speed,Speed,uint16,0x30,0x31,0,0,2,1,1,1,10,100\n"
    "Limits,Edit,open,Unbounded,uint16,0x30,0x31,2,2,2,1,1,1,0,100\n"
    "Limits,Edit,ro,Read only,uint16,0x30,0x31,4,4,2,0,1,1,10,20\n"
    "Limits,Edit,gain,Gain,float32,0x30,0x31,6,6,4,1,1,10,5,50\n"
    "Limits,Edit,zero,Zeroable,uint16,0x30,0x31,10,10,2,1,1,1,10,20\n"
    "Limits,Edit,word,Level,uint16,0x30,0x31,12,12,2,1,1,1,1,5\n"
    "Limits,Net,addr,Address,IP,0x32,0x33,0,0,4,1,1,1,0,0\n"
    "Limits,Net,hwaddr,Hardware address,MAC,0x32,0x33,4,4,6,1,1,1,0,0\n"
    "Limits,Net,label,Label,string,0x32,0x33,10,10,4,1,1,1,0,0\n"
    "Limits,Net,blobw,Blob write,raw,,0x34,0,0,2,1,1,1,0,0\n";

class DecodingTest : public ::testing::Test {
  protected:
    DecodingTest() {
        testsupport::WriteFile(dir.file("Config/varID/Model/Model.csv"), kCatalogue);
        manager.InitConfigFileParser("Model");
        Logger::GetInstance().ClearEntries();
    }

    VarInfo& var(const std::string& id) {
        VarInfo* found = manager.searchVarPtr(id, "var_id");
        if (found == nullptr) throw std::runtime_error("catalogue lacks " + id);
        return *found;
    }

    // Decodes a reply of cmd into the variable and returns its new display text.
    std::string decode(VarInfo& target, uint8_t cmd, const Bytes& reply) {
        Bytes value;
        manager.updateSingleVarFromOutput(target, cmd, reply, value, true);
        return target.current_val;
    }

    std::string lastLoggerMessage() {
        const std::vector<Logger::Entry> entries = Logger::GetInstance().RecentEntries();
        if (entries.empty()) return "";
        EXPECT_EQ(entries.back().level, 8);
        EXPECT_EQ(entries.back().file, "LidarUtilitiesCore/src/lidar_utilities_manager");
        EXPECT_NE(entries.back().function.find("updateSingleVarFromOutput"), std::string::npos);
        return entries.back().message;
    }

    testsupport::TempDir dir{"lidar-decoding"};
    testsupport::ScopedCwd cwd{dir.path()};
    LidarUtilitiesManager manager{0, ""};
};

TEST_F(DecodingTest, NumbersOfOneReplyWithTheirScales) {
    const Bytes status = {0x01, 0x02, 0x01, 0x02, 0xFF, 0xFE, 0xFF, 0x00, 0x00, 0x01,
                          0x00, 0x3F, 0xC0, 0x00, 0x00, 0x00, 0x00, 0x0E, 0x11};
    EXPECT_EQ(decode(var("u16"), 0x21, status), "258");
    EXPECT_EQ(decode(var("temp"), 0x21, status), "2.58");
    EXPECT_EQ(decode(var("i16"), 0x21, status), "-2");
    EXPECT_EQ(decode(var("i8"), 0x21, status), "-0.50");
    EXPECT_EQ(decode(var("u32"), 0x21, status), "256");
    EXPECT_EQ(decode(var("f32"), 0x21, status), "1.50");
    EXPECT_EQ(decode(var("dt"), 0x21, status), "1 h 0 min 1 s");

    const Bytes wide = {0x05,                                            // u8
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE,  // u64
                        0xFF, 0xFF, 0xFF, 0x9C,                          // i32 = -100
                        0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE,  // i64
                        0x3F, 0xF8, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // 1.5
                        0xAB, 0xCD};
    EXPECT_EQ(decode(var("u8"), 0x28, wide), "5");
    EXPECT_EQ(decode(var("u64"), 0x28, wide), "18446744073709551614");
    EXPECT_EQ(decode(var("i32"), 0x28, wide), "-10.00");
    EXPECT_EQ(decode(var("i64"), 0x28, wide), "-2");
    EXPECT_EQ(decode(var("dbl"), 0x28, wide), "3.00");

    // Off-catalogue variants: float32 keeps two decimals at scale 1, a huge uint64 stays
    // positive through float, and DT hours are not folded into days.
    VarInfo total = var("u64");
    total.scale = 0.5f;
    total.var_id = "unlisted";
    EXPECT_EQ(decode(total, 0x28, {0x05, 0x80, 0, 0, 0, 0, 0, 0, 0}), "4611686018427387904.00");
    VarInfo uptime = var("dt");
    uptime.var_id = "unlisted";
    uptime.get_start_pos = 0;
    uptime.offset = 3;
    EXPECT_EQ(decode(uptime, 0x21, {0x01, 0x51, 0x8B}), "24 h 0 min 11 s");  // 86411 s
}

TEST_F(DecodingTest, AddressesTextsAndVersions) {
    const Bytes ids = {0xC0, 0xA8, 0x01, 0xC9, 0x00, 0x1a, 0x2b,
                       0x3c, 0x4d, 0x5e, 0x41, 0x42, 0x00, 0x00};
    EXPECT_EQ(decode(var("ip"), 0x24, ids), "192.168.1.201");
    EXPECT_EQ(decode(var("mac"), 0x24, ids), "00:1A:2B:3C:4D:5E");
    EXPECT_EQ(decode(var("name"), 0x24, ids), "AB");

    Bytes hw = {0, 0, 'B', 'O', 'A', 'R', 'D', '-', 'A', 1, 2, 0x01, 0x02, 0x00, 0x07, 0xAA};
    EXPECT_EQ(decode(var("hw"), 0x26, hw), "BOARD-A1.2.258.7");
    hw[14] = 0;
    EXPECT_EQ(decode(var("hw"), 0x26, hw), "BOARD-A1.2.258");

    Bytes sw = {0, 0, 0, 0, 'F', 'W', '-', 'M', 'A', 'I', 'N', '-', 24, 5, 17, 0xEE};
    EXPECT_EQ(decode(var("sw"), 0x27, sw), "FW-MAIN-24.5.17");
}

TEST_F(DecodingTest, SizeMismatchesAreLoggedNotThrown) {
    VarInfo shortMac = var("mac");
    shortMac.var_id = "unlisted";
    shortMac.current_val = "old";
    shortMac.offset = 5;
    EXPECT_EQ(decode(shortMac, 0x24, {0xC0, 0xA8, 0x01, 0xC9, 1, 2, 3, 4, 5}), "");
    EXPECT_EQ(lastLoggerMessage(),
              "MAC address size is less than 6, please check your config file");

    for (const char* type : {"HWVER", "SWVER_YMD"}) {
        Logger::GetInstance().ClearEntries();
        VarInfo version = var("hw");
        version.var_id = "unlisted";
        version.var_type = type;
        version.offset = 15;
        version.current_val = "kept";
        EXPECT_EQ(decode(version, 0x26, Bytes(16, 'x')), "kept") << type;
        EXPECT_EQ(lastLoggerMessage(),
                  "HWVER size is not qual to 16, please check your config file");
    }

    VarInfo odd = var("blob");
    odd.var_id = "unlisted";
    odd.var_type = "bogus";
    odd.current_val = "unchanged";
    testing::internal::CaptureStdout();
    const std::string text = decode(odd, 0x28, Bytes(31, 0x11));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "var_type not support: bogus\n");
    EXPECT_EQ(text, "unchanged");
}

// Identity fields: serial and part numbers lose their NUL or blank padding, byte blocks show as
// the hexadecimal pairs a catalogue writes.
TEST_F(DecodingTest, SerialPartNumbersAndByteBlocks) {
    VarInfo serial = var("blob");
    serial.var_id = "unlisted";
    serial.var_type = "SN";
    serial.get_start_pos = 0;
    serial.offset = 8;
    EXPECT_EQ(decode(serial, 0x28, {' ', 'E', 'G', '1', '2', 0, 0, ' '}), "EG12");
    serial.var_type = "PN";
    EXPECT_EQ(decode(serial, 0x28, {0, 0, 0, 0, 0, 0, 0, 0}), "");
    serial.var_type = "BYTES";
    serial.offset = 3;
    EXPECT_EQ(decode(serial, 0x28, {0x0A, 0xB0, 0x00}), "0x0AB000");
}

TEST_F(DecodingTest, BadInputsPositionsAndExtraction) {
    Bytes value;
    try {
        manager.updateSingleVarFromOutput(var("u16"), 0x21, {}, value, true);
        ADD_FAILURE() << "empty output accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "updateSingleVarFromOutput(): Error with the input 'output'");
    }
    VarInfo noLength = var("u16");
    noLength.offset = 0;
    try {
        manager.updateSingleVarFromOutput(noLength, 0x21, {1, 2}, value, true);
        ADD_FAILURE() << "offset 0 accepted";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "updateSingleVarFromOutput(): Error with the input var_info");
    }

    QSignalSpy log(&manager, &LidarUtilitiesManager::sendLogMessage);
    VarInfo nowhere = var("u16");
    nowhere.var_id = "unlisted";
    nowhere.offset = -1;
    nowhere.current_val = "before";
    EXPECT_EQ(decode(nowhere, 0x21, {1, 2}), "before");

    // Counter sits at bytes 7..10: a 9-byte reply does not hold it.
    var("u32").current_val = "before";
    EXPECT_EQ(decode(var("u32"), 0x21, Bytes(9, 0x01)), "before");
    EXPECT_EQ(testsupport::SpyTexts(log),
              (std::vector<std::string>{"get <start_pos, offset> failed!|ERROR",
                                        "get var pos offset failed!|ERROR"}));

    // Without update only the bytes are produced.
    value.clear();
    manager.updateSingleVarFromOutput(var("u32"), 0x21, Bytes{0, 0, 0, 0, 0, 0, 0, 1, 2, 3, 4},
                                      value, false);
    EXPECT_EQ(value, (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(var("u32").current_val, "before");
}

TEST(DecodingWithoutCatalogue, DoesNothing) {
    testsupport::TempDir dir("lidar-decoding-empty");
    testsupport::ScopedCwd cwd(dir.path());
    LidarUtilitiesManager manager(0, "");
    VarInfo var;
    var.var_type = "uint8";
    var.offset = 1;
    var.current_val = "same";
    Bytes value;
    manager.updateSingleVarFromOutput(var, 0x21, {}, value, true);  // no throw without a catalogue
    manager.updateSingleVarFromOutput(var, 0x21, {7}, value, true);
    EXPECT_EQ(var.current_val, "same");
    EXPECT_TRUE(value.empty());
}

TEST_F(DecodingTest, SingleVariableRangeCheck) {
    EXPECT_TRUE(manager.CheckVarIsWithinRange("No such variable", "var_name"));
    var("label").current_val = "far too long for four bytes";
    EXPECT_TRUE(manager.CheckVarIsWithinRange("label", "var_id"));
    var("open").current_val = "500";  // a bound of 0 switches the check off
    EXPECT_TRUE(manager.CheckVarIsWithinRange("Unbounded", "var_name"));

    // Gain: float32, range_scale 10, limits 5..50. A float is written with its fraction, so the
    // fraction counts: 5.09 is 50.9 after scaling, beyond 50.
    const std::pair<const char*, bool> cases[] = {{"0.5", true},  {"5.09", false}, {"5", true},
                                                  {"5.1", false}, {"0.49", false}, {"abc", false},
                                                  {"1e39", false}};
    for (const auto& [text, expected] : cases) {
        var("gain").current_val = text;
        EXPECT_EQ(manager.CheckVarIsWithinRange("Gain", "var_name"), expected) << text;
    }
}

TEST_F(DecodingTest, ModuleRangeCheckReportsEveryFailure) {
    QSignalSpy outOfRange(&manager, &LidarUtilitiesManager::someVarOutOfRange);
    QSignalSpy log(&manager, &LidarUtilitiesManager::sendLogMessage);
    var("speed").current_val = "150";
    var("open").current_val = "500";  // unlike the single check, one bound of 0 still counts
    var("ro").current_val = "999";
    var("gain").current_val = "5";
    var("zero").current_val = "0";
    var("word").current_val = "abc";
    var("addr").current_val = "192.168.1.300";
    var("hwaddr").current_val = "00:11:22:33:44";
    var("label").current_val = "12345";
    var("blobw").current_val = "zz";

    EXPECT_FALSE(manager.CheckModuleVarsWithinRange(1));
    EXPECT_EQ(testsupport::SpyTexts(outOfRange),
              (std::vector<std::string>{"Speed", "Unbounded", "Level", "Address",
                                        "Hardware address", "Label"}));
    EXPECT_EQ(testsupport::SpyTexts(log),
              (std::vector<std::string>{
                  "Detected that the user set Speed is out of range|WARNING",
                  "Detected that the user set Unbounded is out of range|WARNING",
                  "Detected that the user set Address has invalid IP format|WARNING",
                  "Detected that the user set Hardware address has invalid MAC format|WARNING"}));

    outOfRange.clear();
    var("speed").current_val = "100";
    var("open").current_val = "100";
    var("word").current_val = "5";
    var("addr").current_val = "10.0.0.255";
    var("hwaddr").current_val = "00:1a:2B:33:44:ff";
    var("label").current_val = "1234";
    EXPECT_TRUE(manager.CheckModuleVarsWithinRange(1));
    EXPECT_TRUE(manager.CheckModuleVarsWithinRange(7));
    EXPECT_EQ(outOfRange.count(), 0);
}

}  // namespace
