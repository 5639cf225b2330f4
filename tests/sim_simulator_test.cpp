// The simulator over loopback TCP, spoken to with raw sockets and the shared VRC framing, so that
// what it puts on the wire is seen byte for byte: the catalogues it serves and the commands it
// carries out (its fault modes and chaos: sim_faults_test.cpp).

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sdk/config_parser.h"
#include "sdk/vrc_client.h"
#include "sdk/vrc_frame.h"
#include "sim/lidar_simulator.h"
#include "sim_support.h"
#include "test_support.h"

namespace {

using namespace simtest;

// Decodes the numeric, address and text types the way the manager shows them; false for others.
bool DisplayMatchesDefault(const VarInfo& var, const Bytes& block, std::string& shown) {
    const Bytes field(block.begin() + var.get_start_pos,
                      block.begin() + var.get_start_pos + var.offset);
    const std::string& type = var.var_type;
    if (type == "IP") {
        shown.clear();
        for (uint8_t b : field) shown += (shown.empty() ? "" : ".") + std::to_string(b);
        return shown == var.default_val;
    }
    if (type == "string") {
        shown.assign(field.begin(), field.end());
        shown.erase(shown.find_last_not_of('\0') + 1);
        return shown == var.default_val;
    }
    const uint64_t raw = BigEndianValue(block, var.get_start_pos, var.offset);
    double value = 0;
    if (type.rfind("uint", 0) == 0) {
        value = static_cast<double>(raw);
    } else if (type.rfind("int", 0) == 0) {
        const int bits = 8 * var.offset;
        const int64_t signedRaw = bits < 64 && (raw >> (bits - 1))
                                      ? static_cast<int64_t>(raw) - (int64_t{1} << bits)
                                      : static_cast<int64_t>(raw);
        value = static_cast<double>(signedRaw);
    } else if (type == "float32") {
        const uint32_t bits = static_cast<uint32_t>(raw);
        float f = 0;
        std::memcpy(&f, &bits, sizeof f);
        value = f;
    } else {
        return false;
    }
    value *= var.scale;
    shown = std::to_string(value);
    return std::fabs(value - std::stod(var.default_val)) <= std::fabs(var.scale) / 2 + 1e-6;
}

TEST(SimulatorTest, ServesTheShippedEgretCatalogueDefaults) {
    auto simulator = Start(Shipped("Egret"));
    RawClient client(simulator->Port());
    ASSERT_TRUE(client.connected());

    ConfigParser catalogue(testsupport::SourceDir() + "/Config/varID/Egret/Egret.csv");
    ASSERT_TRUE(catalogue.ExtractConfigInfo());
    std::map<std::pair<uint8_t, Bytes>, Bytes> replies;
    int checked = 0;
    for (const auto& var : catalogue.AllVars()) {
        if (var->get_cmd.empty() || var->get_cmd.size() > 4 || var->timer_update) continue;
        const auto key = std::make_pair(static_cast<uint8_t>(std::stoul(var->get_cmd, nullptr, 16)),
                                        var->get_payload);
        if (!replies.count(key)) {
            const vrc::Frame reply = client.Query(key.first, key.second);
            ASSERT_EQ(reply.status, 0) << var->get_cmd;
            replies[key] = reply.payload;
        }
        const Bytes& block = replies[key];
        ASSERT_GE(block.size(), size_t(var->get_start_pos + var->offset)) << var->var_id;
        std::string shown;
        if (DisplayMatchesDefault(*var, block, shown)) {
            ++checked;
        } else if (!shown.empty()) {
            ADD_FAILURE() << var->var_id << ": shows " << shown << ", default " << var->default_val;
        }
    }
    EXPECT_GE(checked, 15);

    const vrc::Frame info = client.Query(0x07);
    ASSERT_GE(info.payload.size(), 88u);
    EXPECT_EQ(Bytes(info.payload.begin() + 72, info.payload.begin() + 88),
              Text("EGRET-64 R2.1", 16));
    // The sub-command variable answers 0xFF with its four sub-command bytes.
    EXPECT_EQ(client.Query(0xFF, Hex("00010070")).payload, Text("BL-1.4.2", 16));

    // The uptime counter moves on by one second per read.
    const uint64_t firstUptime = BigEndianValue(client.Query(0x40).payload, 10, 4);
    EXPECT_EQ(firstUptime, 26u * 3600 + 3 * 60 + 12);
    EXPECT_EQ(BigEndianValue(client.Query(0x40).payload, 10, 4), firstUptime + 1);
}

class FocusCatalogue : public ::testing::Test {
  protected:
    void SetUp() override {
        const std::string header =
            "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,"
            "offset,get_payload,scale,default_val,value_to_option,timer_update\n";
        testsupport::WriteFile(dir_.file("varID/Focus/Focus.csv"),
                               header +
                                   "M,P,hw,HW,HWVER,0x50,,0,0,16,,1,V1.2.3,,0\n"
                                   "M,P,hw4,HW4,HWVER,0x50,,16,0,16,,1,ABCDEFGHI1.2.300.7,,0\n"
                                   "M,P,sw,SW,SWVER_YMD,0x50,,32,0,16,,1,APP-FIRMWARE25.2.11,,0\n"
                                   "M,P,dt,Up,DT,0x50,,48,0,4,,1,1 h 0 min 1 s,,0\n"
                                   "M,P,temp,Temp,int16,0x50,,52,0,2,,0.01,-2.58,,0\n"
                                   "M,P,f,F,float32,0x50,,54,0,4,,1,1.50,,0\n"
                                   "M,P,mode,Mode,uint8,0x50,,58,0,1,,1,Dual,0:Strongest|1:Dual,0\n"
                                   "M,P,calib,Calib,BYTES,0x50,,59,0,4,,1,0A1B2C3D,,0\n"
                                   "M,P,sn,SN,SN,0x50,,63,0,8,,1,12345678,,0\n"
                                   "M,P,bad,Bad,uint16,0x50,,71,0,2,,1,abc,,0\n"
                                   "M,P,big,Big,uint64,0x50,,73,0,8,,1,1234567890123,,0\n"
                                   "M,P,mac,MAC,MAC,0x50,,81,0,6,,1,0a-1b-2c-3d-4e-5f,,0\n"
                                   "M,P,ip,IP,IP,0x08,0x21,0,0,4,,1,10.0.0.7,,0\n"
                                   "M,Q,bl,Boot,string,0x00010070,0x00020070,0,0,8,,1,BL-1,,0\n"
                                   "M,Q,blnum,BootNo,uint16,0x00010070,0x00020070,8,8,2,,1,7,,0\n"
                                   "M,Q,log,Log,string,0x75,,0,0,8,00,1,booted,,0\n");
        testsupport::WriteFile(dir_.file("varID/Focus/Monitor_HW1_1.csv"),
                               header + "Monitor,P,m,M,uint8,0x42,,0,0,1,,1,9,,0\n");
    }

    sim::LidarSimulator::Options Options(const std::string& model = "Focus") {
        sim::LidarSimulator::Options options;
        options.model = model;
        options.configDir = dir_.path();
        options.restartDowntimeMs = 1000;
        return options;
    }

    testsupport::TempDir dir_;
};

TEST_F(FocusCatalogue, EncodesDisplayDefaultsSoThatTheManagerShowsThemBack) {
    auto simulator = Start(Options());
    Bytes expected = Text("", 8);
    expected.insert(expected.end(), {'V', 1, 2, 0, 3, 0, 0, 0});
    const Bytes hw4 = Text("ABCDEFGHI", 9);
    expected.insert(expected.end(), hw4.begin(), hw4.end());
    expected.insert(expected.end(), {1, 2, 0x01, 0x2C, 0, 7, 0});
    const Bytes sw = Text("APP-FIRMWARE", 12);
    expected.insert(expected.end(), sw.begin(), sw.end());
    expected.insert(expected.end(), {25, 2, 11, 0});
    for (const char* digits : {"00000E11", "FEFE", "3FC00000", "01", "0A1B2C3D"}) {
        const Bytes b = Hex(digits);
        expected.insert(expected.end(), b.begin(), b.end());
    }
    const Bytes sn = Text("12345678", 8);
    expected.insert(expected.end(), sn.begin(), sn.end());
    for (const char* digits : {"0000", "0000011F71FB04CB", "0A1B2C3D4E5F"}) {
        const Bytes b = Hex(digits);
        expected.insert(expected.end(), b.begin(), b.end());
    }
    EXPECT_EQ(simulator->Block(0x50), expected);

    const Bytes info = simulator->Block(0x07);
    ASSERT_EQ(info.size(), 88u);  // no 0x07 variables: the model name fills the version text
    EXPECT_EQ(Bytes(info.begin() + 72, info.end()), Text("Focus", 16));
    const Bytes network = simulator->Block(0x08);
    ASSERT_EQ(network.size(), 23u);
    EXPECT_EQ(Bytes(network.begin(), network.begin() + 4), Hex("0A000007"));
    EXPECT_EQ(simulator->Block(0x42), Bytes{9});  // from the monitor variant

    RawClient client(simulator->Port());
    // A log starts with its catalogue block, then runs on to the configured size.
    const Bytes log = client.Query(0x75, {0}).payload;
    EXPECT_EQ(log.size(), 4096u);
    EXPECT_EQ(Bytes(log.begin(), log.begin() + 8), Text("booted", 8));
    const vrc::Frame otherLog = client.Query(0x75, {1});
    EXPECT_EQ(otherLog.status, 0);
    EXPECT_FALSE(otherLog.payload.empty());
    EXPECT_NE(otherLog.payload, client.Query(0x75, {0}).payload);
}

TEST_F(FocusCatalogue, FindsTheCatalogueOrSaysWhyNot) {
    sim::LidarSimulator missing(Options("Nowhere"));
    std::string error;
    EXPECT_FALSE(missing.Start(&error));
    EXPECT_NE(error.find("Nowhere"), std::string::npos) << error;

    testsupport::WriteFile(dir_.file("varID/Flat.csv"),
                           testsupport::ReadFile(dir_.file("varID/Focus/Focus.csv")));
    auto flat = Start(Options("Flat"));
    EXPECT_EQ(flat->Block(0x50).size(), 87u);
    EXPECT_TRUE(flat->Block(0x42).empty());  // variants live only beside a folder catalogue

    sim::LidarSimulator::Options badBind = Options();
    badBind.bindAddress = "not-an-address";
    sim::LidarSimulator unbound(badBind);
    EXPECT_FALSE(unbound.Start(&error));
}

TEST_F(FocusCatalogue, SetCommandsWriteIntoTheirGetBlocks) {
    auto simulator = Start(Options());
    RawClient client(simulator->Port());
    const Bytes subGet = Hex("00010070");
    Bytes block = client.Query(0xFF, subGet).payload;
    ASSERT_EQ(block, Concat(Text("BL-1", 8), Hex("0007")));

    // The client sends the whole command: its edited field plus the unedited ones as read.
    Bytes set = Hex("00020070");
    block[9] = 0x2A;
    set.insert(set.end(), block.begin(), block.end());
    EXPECT_EQ(client.Query(0xFF, set).status, 0);
    EXPECT_EQ(client.Query(0xFF, subGet).payload, block);

    set.pop_back();
    EXPECT_EQ(client.Query(0xFF, set).status, vrc::kStatusBadPayload);
    EXPECT_EQ(client.Query(0xFF, subGet).payload, block);
    EXPECT_EQ(client.Query(0xFF, Hex("00090070")).status, vrc::kStatusUnknownCommand);
}

TEST(SimulatorTest, SetThenGetKeepsTheFieldsTheClientSent) {
    auto simulator = Start(Shipped("Egret"));
    RawClient client(simulator->Port());
    Bytes scan = client.Query(0x30).payload;
    ASSERT_EQ(scan.size(), 8u);
    EXPECT_EQ(BigEndianValue(scan, 0, 2), 600u);
    scan[0] = 0x04;  // spin rate 1200 rpm
    scan[1] = 0xB0;
    EXPECT_EQ(client.Query(0x31, scan).status, 0);
    EXPECT_EQ(client.Query(0x30).payload, scan);
    EXPECT_EQ(client.Query(0x31, Bytes(scan.begin(), scan.begin() + 7)).status,
              vrc::kStatusBadPayload);
    EXPECT_EQ(simulator->Block(0x30), scan);
}

TEST(SimulatorTest, FieldOfViewIsStoredAsSentAndCheckedForSense) {
    auto simulator = Start(Shipped("Egret"));
    RawClient client(simulator->Port());
    Bytes fov = {0, 5};
    for (int i = 0; i < 5; ++i) fov.insert(fov.end(), {0, 0, 0x0E, 0x10});
    EXPECT_EQ(client.Query(0x23).payload, fov);

    const Bytes regions = {1, 2, 0x00, 0x64, 0x03, 0xE8, 0x07, 0xD0, 0x0E, 0x10};
    EXPECT_EQ(client.Query(0x22, regions).status, 0);
    EXPECT_EQ(client.Query(0x23).payload, regions);

    const Bytes tooWide = {1, 1, 0x00, 0x00, 0x0E, 0x11};     // 360.1 degrees
    const Bytes wrongCount = {1, 3, 0x00, 0x00, 0x0E, 0x10};  // three regions announced, one sent
    for (const Bytes& bad : {tooWide, wrongCount, Bytes{1}}) {
        EXPECT_EQ(client.Query(0x22, bad).status, vrc::kStatusBadPayload);
    }
    EXPECT_EQ(client.Query(0x23).payload, regions);
}

TEST(SimulatorTest, NetworkCommandsApplyAndSetNetworkDropsTheConnection) {
    auto simulator = Start(Shipped("Egret"));
    RawClient client(simulator->Port());
    EXPECT_EQ(client.Query(0x20, Hex("C0A801630BB80BB9")).status, 0);
    ASSERT_TRUE(client.SendFrame(0x21, Hex("0A0000021FFFFF000A000001010064")));
    EXPECT_TRUE(client.ClosedByPeer());  // no reply at all

    RawClient again(simulator->Port());
    const Bytes network = again.Query(0x08).payload;
    ASSERT_GE(network.size(), 23u);
    EXPECT_EQ(Bytes(network.begin(), network.begin() + 23),
              Hex("0A0000021FFFFF000A000001C0A801630BB80BB9010064"));
    EXPECT_EQ(again.Query(0x21, Hex("0A000002")).status, vrc::kStatusBadPayload);
}

TEST(SimulatorTest, RestartAndResetMakeTheDeviceUnreachableForAWhile) {
    sim::LidarSimulator::Options options = Shipped("Egret");
    // Long enough that a loaded machine still sees the device down right after the reply.
    options.restartDowntimeMs = 3000;
    auto simulator = Start(options);
    const uint16_t port = simulator->Port();
    RawClient bystander(port);
    RawClient client(port);
    EXPECT_EQ(client.Query(0x20, Hex("C0A801630BB80BB9")).status, 0);

    const vrc::Frame restarted = client.Query(0x10);
    EXPECT_EQ(restarted.status, 0);
    EXPECT_TRUE(restarted.payload.empty());
    EXPECT_TRUE(client.ClosedByPeer());
    EXPECT_TRUE(bystander.ClosedByPeer());
    EXPECT_FALSE(Answers(port));
    ASSERT_TRUE(testsupport::WaitFor([port] { return Answers(port); }, 10000));
    EXPECT_EQ(simulator->Port(), port);

    RawClient after(port);
    const Bytes kept = after.Query(0x08).payload;
    EXPECT_EQ(Bytes(kept.begin() + 12, kept.begin() + 16), Hex("C0A80163"));  // restart keeps it
    EXPECT_EQ(after.Query(0x25).status, 0);
    EXPECT_TRUE(after.ClosedByPeer());
    EXPECT_FALSE(Answers(port));
    ASSERT_TRUE(testsupport::WaitFor([port] { return Answers(port); }, 10000));
    RawClient reset(port);
    const Bytes restored = reset.Query(0x08).payload;
    // A reset brings back the catalogue's 192.168.1.100.
    EXPECT_EQ(Bytes(restored.begin() + 12, restored.begin() + 16), Hex("C0A80164"));

    // The Heron's component restart takes the device down as 0x10 does.
    options = Shipped("Heron-VRC");
    options.restartDowntimeMs = 3000;
    auto heron = Start(options);
    const uint16_t heronPort = heron->Port();
    RawClient heronClient(heronPort);
    EXPECT_EQ(heronClient.Query(0xC2).status, 0);
    EXPECT_TRUE(heronClient.ClosedByPeer());
    EXPECT_FALSE(Answers(heronPort));
    ASSERT_TRUE(testsupport::WaitFor([heronPort] { return Answers(heronPort); }, 10000));
}

TEST(SimulatorTest, WithATokenOnlyReadsPassUntilThisConnectionAuthorises) {
    sim::LidarSimulator::Options options = Shipped("Egret");
    options.requiredToken = "open-sesame";
    auto simulator = Start(options);
    RawClient client(simulator->Port());
    EXPECT_EQ(client.Query(0xA0).payload, Bytes{1});
    for (uint8_t read : {0x07, 0x08, 0x23, 0x30, 0x74}) EXPECT_EQ(client.Query(read).status, 0);
    EXPECT_EQ(client.Query(0x75, {0}).status, 0);
    const Bytes scan = client.Query(0x30).payload;
    for (uint8_t write : {0x31, 0x22, 0x10, 0x99}) {
        EXPECT_EQ(client.Query(write, scan).status, vrc::kStatusNotPermitted) << int(write);
    }
    const std::string wrong = "sesame", right = "open-sesame";
    EXPECT_EQ(client.Query(0xA1, Bytes(wrong.begin(), wrong.end())).status,
              vrc::kStatusNotPermitted);
    EXPECT_EQ(client.Query(0xA1, Bytes(right.begin(), right.end())).status, 0);
    EXPECT_EQ(client.Query(0xA0).payload, Bytes{0});
    EXPECT_EQ(client.Query(0x31, scan).status, 0);

    RawClient other(simulator->Port());
    EXPECT_EQ(other.Query(0x31, scan).status, vrc::kStatusNotPermitted);
    EXPECT_EQ(other.Query(0xB0).status, vrc::kStatusNotPermitted);  // no read on this model

    // On the models reached over a serial line the baud rate is a read; changing it is not.
    options = Shipped("Heron-VRC");
    options.requiredToken = "open-sesame";
    auto serialModel = Start(options);
    RawClient unauthorised(serialModel->Port());
    const vrc::Frame rate = unauthorised.Query(0xB0);
    EXPECT_EQ(rate.status, 0);
    EXPECT_EQ(rate.payload.size(), 4u);
    EXPECT_EQ(unauthorised.Query(0xB1, Hex("002DC6C0")).status, vrc::kStatusNotPermitted);
}

TEST(SimulatorTest, UnknownCommandsAndTheRequestCounters) {
    auto simulator = Start(Shipped("Egret"));
    RawClient client(simulator->Port());
    EXPECT_EQ(client.Query(0x99).status, vrc::kStatusUnknownCommand);
    EXPECT_EQ(client.Query(0xFF, Hex("0000FFFF")).status, vrc::kStatusUnknownCommand);
    EXPECT_EQ(client.Query(0xB0).status, vrc::kStatusUnknownCommand);  // not a serial model
    EXPECT_EQ(client.Query(0x83, {9}).status, vrc::kStatusBadPayload);
    client.Query(0x07);
    client.Query(0x07);
    EXPECT_EQ(simulator->RequestCount(0x07), 2u);
    EXPECT_EQ(simulator->RequestCount(0x99), 1u);
    const std::map<uint8_t, uint64_t> expected = {
        {0x07, 2}, {0x83, 1}, {0x99, 1}, {0xB0, 1}, {0xFF, 1}};
    EXPECT_EQ(simulator->RequestCounts(), expected);
    simulator->ResetCounters();
    EXPECT_TRUE(simulator->RequestCounts().empty());
}

TEST(SimulatorTest, SerialModelsKeepABaudRateAndAcceptUpgrades) {
    auto simulator = Start(Shipped("Wren-VRC"));
    RawClient client(simulator->Port());
    EXPECT_EQ(client.Query(0xB0).payload, Hex("000E1000"));  // the catalogue's 921600
    EXPECT_EQ(client.Query(0xB1, Hex("002DC6C0")).status, 0);
    EXPECT_EQ(client.Query(0xB0).payload, Hex("002DC6C0"));
    EXPECT_EQ(client.Query(0xB1, Hex("00")).status, vrc::kStatusBadPayload);

    EXPECT_EQ(client.Query(0xB7, Hex("000100000001")).status, 0);  // mode byte, then the size
    EXPECT_EQ(client.Query(0xB7, Hex("010000000041")).status, 0);
    EXPECT_EQ(client.Query(0xB7, Hex("0200000000")).status, vrc::kStatusBadPayload);
    // "123456789" has the well-known CRC-32 CBF43926.
    EXPECT_EQ(client.Query(0x83, Hex("0000000009")).status, 0);
    EXPECT_EQ(client.Query(0x83, Hex("0100000000313233")).status, 0);
    EXPECT_EQ(client.Query(0x83, Hex("0100000000313233")).status, vrc::kStatusBadPayload);
    EXPECT_EQ(client.Query(0x83, Hex("0100000003343536373839")).status, 0);
    EXPECT_EQ(client.Query(0x83, Hex("02CBF43926")).status, 0);

    const std::vector<sim::Transfer> transfers = simulator->Transfers();
    ASSERT_EQ(transfers.size(), 2u);
    EXPECT_EQ(transfers[0].command, 0xB7);
    EXPECT_EQ(transfers[0].beginByte, 1);
    EXPECT_EQ(transfers[0].receivedSize, 1u);
    EXPECT_FALSE(transfers[0].completed);
    EXPECT_EQ(transfers[1].receivedCrc, 0xCBF43926u);
    EXPECT_TRUE(transfers[1].completed);
    // Completed: the device waits for its restart and takes no other transfer until then.
    EXPECT_TRUE(simulator->RebootPending());
    EXPECT_EQ(client.Query(0xB7, Hex("000100000001")).status, vrc::kStatusBusy);
}

}  // namespace
