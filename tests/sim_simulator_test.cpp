// The simulator over loopback TCP, spoken to with raw sockets and the shared VRC framing, so that
// what it puts on the wire (including its fault modes) is seen byte for byte.

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
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
namespace vrc = lidar::vrc;

Bytes Hex(const std::string& digits) {
    Bytes out;
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

Bytes Concat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes Text(const std::string& text, size_t width) {
    Bytes out(text.begin(), text.end());
    out.resize(width, 0);
    return out;
}

// A client socket that reads frames with the SDK decoder, or raw bytes when a test needs them.
class RawClient {
  public:
    enum class Outcome { kFrame, kClosed, kTimeout, kMalformed };

    explicit RawClient(uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            ::close(fd_);
            fd_ = -1;
        }
    }
    ~RawClient() {
        if (fd_ >= 0) ::close(fd_);
    }

    bool connected() const { return fd_ >= 0; }

    uint16_t LocalPort() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }

    bool Send(const Bytes& bytes) {
        return ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }
    bool SendFrame(uint8_t command, const Bytes& payload = {}) {
        return Send(vrc::EncodeFrame(command, 0, payload));
    }

    Outcome Read(vrc::Frame& frame, int timeoutMs = 5000) {
        while (true) {
            const vrc::FrameDecoder::Result result = decoder_.Next(frame);
            if (result == vrc::FrameDecoder::Result::kFrame) return Outcome::kFrame;
            if (result == vrc::FrameDecoder::Result::kMalformed) return Outcome::kMalformed;
            uint8_t buffer[4096];
            const ssize_t n = Receive(buffer, sizeof buffer, timeoutMs);
            if (n == 0) return Outcome::kClosed;
            if (n < 0) return Outcome::kTimeout;
            decoder_.Feed(buffer, static_cast<size_t>(n));
        }
    }

    // Sends a request and expects a well-formed reply.
    vrc::Frame Query(uint8_t command, const Bytes& payload = {}) {
        vrc::Frame reply;
        EXPECT_TRUE(SendFrame(command, payload));
        EXPECT_EQ(Read(reply), Outcome::kFrame) << "command " << int(command);
        return reply;
    }

    // Every byte until the peer closes (or nothing more comes within timeoutMs).
    Bytes ReadAll(bool* closed, int timeoutMs = 5000) {
        Bytes all;
        uint8_t buffer[4096];
        while (true) {
            const ssize_t n = Receive(buffer, sizeof buffer, timeoutMs);
            *closed = n == 0;
            if (n <= 0) return all;
            all.insert(all.end(), buffer, buffer + n);
        }
    }

    bool ClosedByPeer(int timeoutMs = 5000) {
        bool closed = false;
        const Bytes rest = ReadAll(&closed, timeoutMs);
        return closed && rest.empty();
    }

  private:
    // >0 bytes read, 0 closed by the peer, -1 nothing within the time-out.
    ssize_t Receive(uint8_t* buffer, size_t size, int timeoutMs) {
        pollfd p{fd_, POLLIN, 0};
        if (::poll(&p, 1, timeoutMs) <= 0) return -1;
        const ssize_t n = ::recv(fd_, buffer, size, 0);
        return n < 0 ? 0 : n;  // a reset counts as closed
    }

    int fd_ = -1;
    vrc::FrameDecoder decoder_;
};

std::unique_ptr<sim::LidarSimulator> Start(sim::LidarSimulator::Options options) {
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    EXPECT_TRUE(simulator->Start(&error)) << error;
    return simulator;
}

sim::LidarSimulator::Options Shipped(const std::string& model) {
    sim::LidarSimulator::Options options;
    options.model = model;
    options.configDir = testsupport::SourceDir() + "/Config";
    return options;
}

// A device answers a request on a fresh connection.
bool Answers(uint16_t port) {
    RawClient client(port);
    vrc::Frame reply;
    return client.connected() && client.SendFrame(0x07) &&
           client.Read(reply, 1000) == RawClient::Outcome::kFrame;
}

uint64_t BigEndianValue(const Bytes& block, int start, int length) {
    uint64_t value = 0;
    for (int i = 0; i < length; ++i) value = (value << 8) | block.at(start + i);
    return value;
}

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

TEST(SimulatorTest, EachFaultModeShowsOnTheWire) {
    auto simulator = Start(Shipped("Egret"));
    RawClient client(simulator->Port());
    sim::Fault fault;
    auto set = [&](const std::string& text) {
        ASSERT_TRUE(sim::Fault::Parse(text, fault)) << text;
        simulator->SetFault(0x08, fault);
    };

    set("status=4");
    vrc::Frame reply = client.Query(0x08);
    EXPECT_EQ(reply.status, 4);
    EXPECT_TRUE(reply.payload.empty());
    set("delay=50");
    EXPECT_EQ(client.Query(0x08).payload.size(), 23u);
    set("no-reply");
    ASSERT_TRUE(client.SendFrame(0x08));
    EXPECT_EQ(client.Read(reply, 300), RawClient::Outcome::kTimeout);
    simulator->ClearFaults();
    EXPECT_EQ(client.Query(0x07).command, 0x07);  // still open and serving

    set("wrong-echo");
    EXPECT_NE(client.Query(0x08).command, 0x08);

    bool closed = false;
    const std::vector<std::pair<std::string, std::function<void(const Bytes&)>>> rawChecks = {
        {"bad-magic",
         [](const Bytes& b) { EXPECT_NE(Bytes(b.begin(), b.begin() + 2), Hex("5652")); }},
        {"oversized-length",
         [](const Bytes& b) { EXPECT_GT(BigEndianValue(b, 4, 4), vrc::kMaxPayload); }},
    };
    for (const auto& [mode, check] : rawChecks) {
        RawClient fresh(simulator->Port());
        set(mode);
        ASSERT_TRUE(fresh.SendFrame(0x08));
        const Bytes bytes = fresh.ReadAll(&closed, 300);
        ASSERT_GE(bytes.size(), 8u) << mode;
        check(bytes);
    }

    RawClient cut(simulator->Port());
    set("close-mid-reply");
    ASSERT_TRUE(cut.SendFrame(0x08));
    const Bytes partial = cut.ReadAll(&closed);
    EXPECT_TRUE(closed);
    EXPECT_GT(partial.size(), 0u);
    EXPECT_LT(partial.size(), 8u + 23u);

    RawClient dropped(simulator->Port());
    set("drop");
    ASSERT_TRUE(dropped.SendFrame(0x08));
    EXPECT_TRUE(dropped.ClosedByPeer());

    // A request held in a long delay does not keep Stop from ending.
    RawClient held(simulator->Port());
    set("delay=600000");
    ASSERT_TRUE(held.SendFrame(0x08));
    ASSERT_TRUE(testsupport::WaitFor([&] { return simulator->RequestCount(0x08) >= 8; }));
    simulator->Stop();
    EXPECT_TRUE(held.ClosedByPeer());
}

TEST(SimulatorTest, BadInputClosesOnlyThatClientAndTwoClientsAreServedAtOnce) {
    auto simulator = Start(Shipped("Egret"));
    RawClient steady(simulator->Port());
    EXPECT_EQ(steady.Query(0x07).status, 0);

    RawClient garbage(simulator->Port());
    ASSERT_TRUE(garbage.Send({'h', 'e', 'l', 'l', 'o', '\n', 0, 0}));
    EXPECT_TRUE(garbage.ClosedByPeer());
    RawClient huge(simulator->Port());
    ASSERT_TRUE(huge.Send(vrc::EncodeHeader(0x07, 0, 0xFFFFFFFFu)));
    EXPECT_TRUE(huge.ClosedByPeer());
    EXPECT_EQ(simulator->RequestCount(0x07), 1u);  // malformed frames are not requests

    // One client waits for an answer that never comes while another is served.
    sim::Fault silent;
    silent.kind = sim::Fault::Kind::kNoReply;
    simulator->SetFault(0x40, silent);
    ASSERT_TRUE(steady.SendFrame(0x40));
    RawClient second(simulator->Port());
    EXPECT_EQ(second.Query(0x08).status, 0);
    EXPECT_EQ(simulator->LastClientPort(), second.LocalPort());
    EXPECT_EQ(simulator->ConnectionCount(), 4);
    EXPECT_EQ(steady.Query(0x07).status, 0);
}

}  // namespace

namespace {

std::vector<Bytes> Readings(uint32_t seed, uint8_t command, int count) {
    sim::LidarSimulator::Options options = Shipped("Egret");
    options.monitorSeed = seed;
    auto simulator = Start(options);
    RawClient client(simulator->Port());
    std::vector<Bytes> readings;
    for (int i = 0; i < count; ++i) readings.push_back(client.Query(command).payload);
    return readings;
}

int16_t Signed16(const Bytes& block, int start) {
    return static_cast<int16_t>(BigEndianValue(block, start, 2));
}

TEST(SimulatorTest, MonitorReadingsMoveSmoothlyAndRepeatably) {
    constexpr uint8_t kMonitorBlock = 0x41, kStatusBlock = 0x40;
    const std::vector<Bytes> readings = Readings(1, kMonitorBlock, 40);
    // The first reading is the catalogue's; after that every reading differs from the last.
    EXPECT_EQ(Signed16(readings[0], 2), 4810);          // Laser Temperature 48.10
    EXPECT_EQ(BigEndianValue(readings[0], 20, 4), 3u);  // Frame Drops
    int largestStep = 0;
    for (size_t i = 1; i < readings.size(); ++i) {
        EXPECT_NE(readings[i], readings[i - 1]) << "reading " << i;
        // Temperatures wander by a few hundredths a reading, within a few degrees.
        const int temperature = Signed16(readings[i], 2);
        EXPECT_NEAR(temperature, 4810, 350) << "reading " << i;
        largestStep = std::max(largestStep, std::abs(temperature - Signed16(readings[i - 1], 2)));
        // Counters never go back.
        EXPECT_GE(BigEndianValue(readings[i], 20, 4), BigEndianValue(readings[i - 1], 20, 4));
    }
    EXPECT_LE(largestStep, 60);
    EXPECT_GT(BigEndianValue(readings.back(), 20, 4), 3u);

    EXPECT_EQ(Readings(1, kMonitorBlock, 40), readings);  // the same seed, the same curves
    EXPECT_NE(Readings(2, kMonitorBlock, 40), readings);

    // A monitor variant reads the status block's board temperature: one sensor, so it moves on
    // the status page too, from the catalogue's default on.
    const std::vector<Bytes> status = Readings(1, kStatusBlock, 5);
    EXPECT_EQ(Signed16(status[0], 0), 4150);
    EXPECT_NE(Signed16(status[4], 0), 4150);
}

}  // namespace

namespace {

using ChaosKind = sim::Fault::Kind;
constexpr int kChaosRequests = 400;

// A seed whose first kChaosRequests draws hold every kind of chaos fault, with at most 3 s of
// delay in all, so that a test sees each kind quickly.
uint32_t SeedWithEveryKindEarly() {
    for (uint32_t seed = 1;; ++seed) {
        const sim::Chaos chaos(seed);
        std::map<ChaosKind, int> kinds;
        int delayMs = 0;
        for (int n = 0; n < kChaosRequests; ++n) {
            const sim::Fault fault = chaos.Draw(n);
            ++kinds[fault.kind];
            delayMs += fault.delayMs;
        }
        if (kinds.size() == 5 && delayMs <= 3000) return seed;
    }
}

sim::LidarSimulator::Options ChaosEgret(uint32_t seed) {
    sim::LidarSimulator::Options options = Shipped("Egret");
    options.chaosSeed = seed;
    return options;
}

}  // namespace

TEST(SimulatorTest, ChaosDrawsEachFaultKindAtItsLowRate) {
    const sim::Chaos chaos(7);
    constexpr int kDraws = 200000;
    std::map<ChaosKind, int> kinds;
    for (int n = 0; n < kDraws; ++n) {
        const sim::Fault fault = chaos.Draw(n);
        ++kinds[fault.kind];
        if (fault.kind == ChaosKind::kDelay) {
            ASSERT_GE(fault.delayMs, sim::Chaos::kMinDelayMs);
            ASSERT_LE(fault.delayMs, sim::Chaos::kMaxDelayMs);
        } else {
            ASSERT_EQ(fault.delayMs, 0);
        }
        ASSERT_EQ(fault.status, fault.kind == ChaosKind::kStatus ? vrc::kStatusBusy : 0);
    }
    const std::pair<ChaosKind, int> rates[] = {{ChaosKind::kDelay, sim::Chaos::kSlowRate},
                                               {ChaosKind::kStatus, sim::Chaos::kBusyRate},
                                               {ChaosKind::kCloseMidReply, sim::Chaos::kCutRate},
                                               {ChaosKind::kDrop, sim::Chaos::kDropRate}};
    for (const auto& [kind, rate] : rates) {
        const double expected = kDraws * rate / 100000.0;
        EXPECT_NEAR(kinds[kind], expected, expected * 0.15) << static_cast<int>(kind);
    }
    EXPECT_EQ(kinds.size(), 5u);  // and nothing else
    // Another seed, another sequence.
    const sim::Chaos other(8);
    int differing = 0;
    for (int n = 0; n < 2000; ++n) differing += other.Draw(n).kind != chaos.Draw(n).kind;
    EXPECT_GT(differing, 20);
}

// Each draw as it shows on the wire, request by request, over a fresh connection whenever the
// simulator closed one.
TEST(SimulatorTest, ChaosPlaysItsDrawsOnTheWire) {
    const uint32_t seed = SeedWithEveryKindEarly();
    const sim::Chaos chaos(seed);
    auto simulator = Start(ChaosEgret(seed));
    simulator->SetFault(0x07, sim::Fault{});  // removing a fault that is not there changes nothing
    auto client = std::make_unique<RawClient>(simulator->Port());
    for (int n = 0; n < kChaosRequests; ++n) {
        const sim::Fault expected = chaos.Draw(n);
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(client->SendFrame(0x08)) << n;
        bool closed = false;
        vrc::Frame reply;
        switch (expected.kind) {
            case ChaosKind::kCloseMidReply: {
                const Bytes partial = client->ReadAll(&closed);
                ASSERT_TRUE(closed && !partial.empty() && partial.size() < 8u + 23u) << n;
                break;
            }
            case ChaosKind::kDrop:
                ASSERT_TRUE(client->ClosedByPeer()) << n;
                closed = true;
                break;
            default:
                ASSERT_EQ(client->Read(reply), RawClient::Outcome::kFrame) << n;
                const bool busy = expected.kind == ChaosKind::kStatus;
                ASSERT_EQ(reply.status, busy ? vrc::kStatusBusy : 0) << n;
                ASSERT_EQ(reply.payload.size(), busy ? 0u : 23u) << n;
                ASSERT_GE(std::chrono::steady_clock::now() - start,
                          std::chrono::milliseconds(expected.delayMs))
                    << n;
        }
        if (closed) client = std::make_unique<RawClient>(simulator->Port());
    }
}

// The same seed through the SDK client on another simulator: the same outcomes in the same order,
// and the simulator's own tally of what it played. A fault set on a command wins over chaos.
TEST(SimulatorTest, ChaosRepeatsItsSequenceForTheSameSeedThroughTheClient) {
    const uint32_t seed = SeedWithEveryKindEarly();
    const sim::Chaos chaos(seed);
    auto simulator = Start(ChaosEgret(seed));
    sim::Fault status5;
    ASSERT_TRUE(sim::Fault::Parse("status=5", status5));
    simulator->SetFault(0x07, status5);
    auto connect = [&] {
        return std::make_unique<lidar::VrcClient>("127.0.0.1", simulator->Port(), false,
                                                  lidar::VrcMode::kTcp, 1, "", "", "", 4000, 4000,
                                                  0.0f, 0);
    };
    auto client = connect();
    sim::ChaosTally drawn;
    u8vec reply;
    for (int n = 0; n < kChaosRequests; ++n) {
        // Every tenth request asks for 0x07, whose own fault always plays; it still takes its
        // number in the sequence.
        if (n % 10 == 9) {
            ASSERT_EQ(client->QueryCommand({}, reply, 0x07, false), 5) << n;
            continue;
        }
        int wanted = 0;
        switch (chaos.Draw(n).kind) {
            case ChaosKind::kDelay:
                ++drawn.slow;
                break;
            case ChaosKind::kStatus:
                ++drawn.busy;
                wanted = vrc::kStatusBusy;
                break;
            case ChaosKind::kCloseMidReply:
                ++drawn.cut;
                wanted = -2;
                break;
            case ChaosKind::kDrop:
                ++drawn.drop;
                wanted = -2;
                break;
            default:
                break;
        }
        ASSERT_EQ(client->QueryCommand({}, reply, 0x08, false), wanted) << n;
        if (!client->IsOpen()) client = connect();
    }
    const sim::ChaosTally played = simulator->ChaosPlayed();
    EXPECT_EQ(played.slow, drawn.slow);
    EXPECT_EQ(played.busy, drawn.busy);
    EXPECT_EQ(played.cut, drawn.cut);
    EXPECT_EQ(played.drop, drawn.drop);
    EXPECT_GT(drawn.cut + drawn.drop, 0u);
}
