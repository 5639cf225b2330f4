// Many simulated lidars from one process: lidar-sim --count as a program (its "listening on"
// lines, the ports, the identities and settings of each lidar, usage and port errors, the
// report) and sim::LidarFleet in-process.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "process_support.h"
#include "sdk/vrc_client.h"
#include "sim/lidar_fleet.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint8_t kDeviceInfo = 0x07;
constexpr uint8_t kGetScan = 0x30;  // spin rate, return mode, standby... (8 bytes)
constexpr uint8_t kSetScan = 0x31;
constexpr size_t kScanLength = 8;
// Where the Egret catalogue places its identity in the 0x07 block.
constexpr size_t kSerialStart = 0, kSerialLength = 16, kMacStart = 16, kMacLength = 6;

using testsupport::SimProcess;

std::vector<std::string> EgretArgs(std::vector<std::string> more) {
    std::vector<std::string> args = {"--model", "Egret", "--config-dir",
                                     testsupport::SourceDir() + "/Config"};
    args.insert(args.end(), more.begin(), more.end());
    return args;
}

// The port of a line "listening on 127.0.0.1:PORT" exactly; 0 (and a failure) otherwise.
uint16_t PortOf(const std::string& line) {
    std::smatch match;
    static const std::regex kListening("listening on 127\\.0\\.0\\.1:([0-9]{1,5})");
    EXPECT_TRUE(std::regex_match(line, match, kListening)) << '"' << line << '"';
    return std::regex_match(line, match, kListening)
               ? static_cast<uint16_t>(std::stoul(match[1].str()))
               : 0;
}

std::vector<uint16_t> ListeningPorts(SimProcess& sim, int count) {
    std::vector<uint16_t> ports;
    for (int i = 0; i < count; ++i) ports.push_back(PortOf(sim.Line()));
    return ports;
}

// A listening socket holding a port, so that the simulator cannot have it.
class PortHolder {
  public:
    explicit PortHolder(uint16_t port) {
        fd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
            ::listen(fd_, 1) != 0 ||
            ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
            ::close(fd_);
            fd_ = -1;
            return;
        }
        port_ = ntohs(address.sin_port);
    }
    ~PortHolder() { Release(); }
    void Release() {
        if (fd_ >= 0) ::close(fd_);
        fd_ = -1;
    }
    uint16_t Port() const { return port_; }

  private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

bool Accepts(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected =
        ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return connected;
}

std::unique_ptr<lidar::VrcClient> Connect(uint16_t port) {
    return std::make_unique<lidar::VrcClient>("127.0.0.1", port, false, lidar::VrcMode::kTcp, 1, "",
                                              "", "", 4000, 4000, 0.0f, 0);
}

// The reply payload of a get command, or empty (and a failure) when it is refused.
Bytes Read(uint16_t port, uint8_t command) {
    auto client = Connect(port);
    u8vec reply;
    const int code = client->QueryCommand({}, reply, command, false);
    EXPECT_EQ(code, 0) << "port " << port << " command " << int(command);
    return code == 0 ? Bytes(reply.begin(), reply.end()) : Bytes{};
}

Bytes Slice(const Bytes& block, size_t start, size_t length) {
    if (block.size() < start + length) return {};
    return Bytes(block.begin() + static_cast<std::ptrdiff_t>(start),
                 block.begin() + static_cast<std::ptrdiff_t>(start + length));
}

std::string SerialText(const Bytes& info) {
    const Bytes bytes = Slice(info, kSerialStart, kSerialLength);
    return std::string(bytes.begin(), std::find(bytes.begin(), bytes.end(), 0));
}

Bytes Mac(const std::string& text) {
    Bytes bytes;
    for (size_t i = 0; i + 1 < text.size(); i += 3)
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

// ---- the program ---------------------------------------------------------------------------

TEST(FleetProgram, ServesEachLidarWithItsOwnIdentityAndSettings) {
    constexpr int kCount = 4;
    SimProcess sim(EgretArgs({"--count", std::to_string(kCount)}));
    const std::vector<uint16_t> ports = ListeningPorts(sim, kCount);
    ASSERT_NE(ports.front(), 0);
    for (int i = 1; i < kCount; ++i) EXPECT_EQ(ports[i], ports[0] + i) << i;

    std::set<std::string> serials;
    std::set<Bytes> macs;
    std::vector<Bytes> scanBefore;
    for (int i = 0; i < kCount; ++i) {
        const Bytes info = Read(ports[i], kDeviceInfo);
        // The catalogue's serial number and MAC address, their ends replaced by the index.
        EXPECT_EQ(SerialText(info), "EG241105000" + std::to_string(i));
        EXPECT_EQ(Slice(info, kMacStart, kMacLength), Mac("00:1A:2B:3C:4D:0" + std::to_string(i)));
        serials.insert(SerialText(info));
        macs.insert(Slice(info, kMacStart, kMacLength));
        scanBefore.push_back(Slice(Read(ports[i], kGetScan), 0, kScanLength));
        ASSERT_EQ(scanBefore.back().size(), kScanLength);
    }
    EXPECT_EQ(serials.size(), size_t(kCount));
    EXPECT_EQ(macs.size(), size_t(kCount));

    // A spin rate of 1200 and standby on lidar 2 only.
    constexpr int kWritten = 2;
    Bytes setting = scanBefore[kWritten];
    setting[0] = 0x04;
    setting[1] = 0xB0;
    setting[3] = 1;
    ASSERT_NE(setting, scanBefore[kWritten]);
    {
        auto client = Connect(ports[kWritten]);
        u8vec reply;
        ASSERT_EQ(
            client->QueryCommand(u8vec(setting.begin(), setting.end()), reply, kSetScan, false), 0);
    }
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(Slice(Read(ports[i], kGetScan), 0, kScanLength),
                  i == kWritten ? setting : scanBefore[i])
            << "lidar " << i;
    }

    EXPECT_EQ(sim.Stop(), 0);
    // What each received, in port order, under a line naming it.
    for (int i = 0; i < kCount; ++i) {
        EXPECT_EQ(sim.Line(), "lidar 127.0.0.1:" + std::to_string(ports[i]));
        const std::string counts =
            i == kWritten ? "requests: 0x07=1 0x30=2 0x31=1" : "requests: 0x07=1 0x30=2";
        EXPECT_EQ(sim.Line(), counts);
        EXPECT_EQ(sim.Line(), "received: no transfer");
    }
}

TEST(FleetProgram, WritesOneReportObjectPerLidarWithItsPort) {
    testsupport::TempDir dir;
    const std::string report = dir.path() + "/report.json";
    SimProcess sim(EgretArgs({"--count", "2", "--report", report}));
    const std::vector<uint16_t> ports = ListeningPorts(sim, 2);
    ASSERT_NE(ports[0], 0);
    Read(ports[1], kDeviceInfo);
    ASSERT_EQ(sim.Stop(), 0);
    std::ifstream in(report);
    std::stringstream text;
    text << in.rdbuf();
    const std::string common = R"(,"model":"Egret","requests":{)";
    EXPECT_EQ(text.str(), "[{\"port\":" + std::to_string(ports[0]) + common +
                              R"(},"received":[]},{"port":)" + std::to_string(ports[1]) + common +
                              R"("0x07":1},"received":[]}])" + "\n");
}

TEST(FleetProgram, AGivenPortStartsTheBlockAndATakenOneIsNamed) {
    // A free block: a port the system gives, released for the simulator.
    PortHolder probe(0);
    ASSERT_NE(probe.Port(), 0);
    const uint16_t base = probe.Port();
    probe.Release();
    {
        SimProcess sim(EgretArgs({"--port", std::to_string(base), "--count", "3"}));
        const std::vector<uint16_t> ports = ListeningPorts(sim, 3);
        EXPECT_EQ(ports, (std::vector<uint16_t>{base, uint16_t(base + 1), uint16_t(base + 2)}));
        EXPECT_EQ(SerialText(Read(ports[2], kDeviceInfo)), "EG2411050002");
        EXPECT_EQ(sim.Stop(), 0);
    }
    PortHolder taken(static_cast<uint16_t>(base + 2));
    ASSERT_EQ(taken.Port(), base + 2);
    SimProcess sim(EgretArgs({"--port", std::to_string(base), "--count", "3"}));
    EXPECT_EQ(sim.WaitForExit(), 1);
    EXPECT_EQ(sim.Line(), "");  // no lidar announced
    const std::string error = sim.ErrorLine();
    EXPECT_NE(error.find("127.0.0.1:" + std::to_string(base + 2) + ":"), std::string::npos)
        << error;
}

TEST(FleetProgram, OneLidarKeepsTheCatalogueIdentityAndTheSingleReport) {
    testsupport::TempDir dir;
    const std::string report = dir.path() + "/report.json";
    SimProcess sim(EgretArgs({"--count", "1", "--report", report}));
    const uint16_t port = PortOf(sim.Line());
    ASSERT_NE(port, 0);
    EXPECT_EQ(SerialText(Read(port, kDeviceInfo)), "EG2411050123");
    ASSERT_EQ(sim.Stop(), 0);
    EXPECT_EQ(sim.Line(), "requests: 0x07=1");
    std::ifstream in(report);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), R"({"model":"Egret","requests":{"0x07":1},"received":[]})"
                          "\n");
}

// ---- in-process ----------------------------------------------------------------------------

sim::LidarSimulator::Options EgretOptions() {
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = testsupport::SourceDir() + "/Config";
    return options;
}

TEST(LidarFleetTest, IdentityIndexStampsSerialAndMacAndSurvivesAReset) {
    sim::LidarSimulator::Options options = EgretOptions();
    options.identityIndex = 255;
    options.restartDowntimeMs = 0;
    sim::LidarSimulator simulator(options);
    ASSERT_TRUE(simulator.Start());
    EXPECT_EQ(SerialText(simulator.Block(kDeviceInfo)), "EG2411050255");
    EXPECT_EQ(Slice(simulator.Block(kDeviceInfo), kMacStart, kMacLength), Mac("00:1A:2B:3C:4D:FF"));
    // A factory reset returns the settings, not the identity, to the catalogue's.
    auto client = Connect(simulator.Port());
    u8vec reply;
    ASSERT_EQ(client->QueryCommand({}, reply, 0x25, false), 0);
    EXPECT_EQ(SerialText(simulator.Block(kDeviceInfo)), "EG2411050255");
    EXPECT_EQ(Slice(simulator.Block(kDeviceInfo), kMacStart, kMacLength), Mac("00:1A:2B:3C:4D:FF"));
    simulator.Stop();

    for (int bad : {-2, 256}) {
        options.identityIndex = bad;
        sim::LidarSimulator refused(options);
        std::string error;
        EXPECT_FALSE(refused.Start(&error)) << bad;
        EXPECT_NE(error.find("identity"), std::string::npos) << error;
    }
}

// A serial number shorter than the index's three digits keeps its length; a MAC address written
// in lower case gets the same last byte.
TEST(LidarFleetTest, IdentityOfAShortSerialNumberAndALowerCaseMac) {
    testsupport::TempDir dir;
    ASSERT_EQ(::mkdir((dir.path() + "/varID").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir((dir.path() + "/varID/Tiny").c_str(), 0755), 0);
    std::ofstream(dir.path() + "/varID/Tiny/Tiny.csv")
        << "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,"
           "offset,default_val\n"
           "M,P,sn,SN,SN,0x07,,0,0,16, AB\n"
           "M,P,mac,MAC,MAC,0x07,,16,0,6,0a:1b:2c:3d:4e:5f\n";
    sim::LidarSimulator::Options options;
    options.model = "Tiny";
    options.configDir = dir.path();
    options.identityIndex = 0x2C;
    sim::LidarSimulator simulator(options);
    std::string error;
    ASSERT_TRUE(simulator.Start(&error)) << error;
    const Bytes info = simulator.Block(kDeviceInfo);
    EXPECT_EQ(SerialText(info), "44");
    EXPECT_EQ(Slice(info, kMacStart, kMacLength), (Bytes{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x2C}));
}

TEST(LidarFleetTest, StartsTheCountAppliesPrepareToEachAndRefusesBadCounts) {
    sim::LidarFleet fleet(EgretOptions(), 3);
    int prepared = 0;
    sim::Fault busy;
    ASSERT_TRUE(sim::Fault::Parse("status=4", busy));
    std::string error;
    ASSERT_TRUE(fleet.Start(
        [&](sim::LidarSimulator& lidar) {
            ++prepared;
            lidar.SetFault(kGetScan, busy);
        },
        &error))
        << error;
    EXPECT_EQ(prepared, 3);
    ASSERT_EQ(fleet.Count(), 3);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(fleet.At(i).Port(), fleet.At(0).Port() + i);
        EXPECT_EQ(fleet.At(i).GetOptions().identityIndex, i);
        auto client = Connect(fleet.At(i).Port());
        u8vec reply;
        EXPECT_EQ(client->QueryCommand({}, reply, kGetScan, false), 4) << i;
    }
    EXPECT_FALSE(fleet.Start({}, &error));  // already running
    std::vector<uint16_t> ports;
    for (int i = 0; i < 3; ++i) ports.push_back(fleet.At(i).Port());
    fleet.Stop();
    for (uint16_t port : ports) EXPECT_FALSE(Accepts(port)) << port;

    for (int bad : {0, sim::LidarFleet::kMaxCount + 1}) {
        sim::LidarFleet refused(EgretOptions(), bad);
        EXPECT_FALSE(refused.Start({}, &error)) << bad;
        EXPECT_NE(error.find("from 1 to 256"), std::string::npos) << error;
    }
    sim::LidarSimulator::Options high = EgretOptions();
    high.port = 65534;
    sim::LidarFleet pastTheEnd(high, 3);
    EXPECT_FALSE(pastTheEnd.Start({}, &error));
    EXPECT_NE(error.find("past port 65535"), std::string::npos) << error;
}

}  // namespace
