// The VRC client against the frame decoder, the local-port text and a simulated device over
// loopback TCP: every client result code, the closing rules, concurrency, local-port binding and
// authorisation.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <zlib.h>

#include <climits>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sdk/authorized_vrc_client.h"
#include "sdk/vrc_client.h"
#include "sdk/vrc_frame.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

using lidar::VrcClient;
using lidar::vrc::Frame;
using lidar::vrc::FrameDecoder;

constexpr const char* kModel = "Egret";

// A listening socket on a system-chosen loopback port, closed at the end.
class Listener {
  public:
    Listener() {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(fd_, reinterpret_cast<sockaddr*>(&address), length);
        ::listen(fd_, 1);
        ::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
    }
    ~Listener() { ::close(fd_); }
    uint16_t port() const { return port_; }

  private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

// A port on which nothing listens (the system handed it out, then it was released).
uint16_t UnusedPort() {
    return Listener().port();
}

std::vector<uint8_t> FeedAll(FrameDecoder& decoder, const std::vector<uint8_t>& bytes) {
    decoder.Feed(bytes.data(), bytes.size());
    return bytes;
}

TEST(VrcFrameDecoder, DecodesSplitAndJoinedFramesAndRejectsBadHeadersEarly) {
    const std::vector<uint8_t> first = lidar::vrc::EncodeFrame(0x07, 0, {1, 2, 3});
    const std::vector<uint8_t> second = lidar::vrc::EncodeFrame(0x08, 5, {});

    FrameDecoder bytewise;
    Frame frame;
    for (size_t i = 0; i + 1 < first.size(); ++i) {
        bytewise.Feed(&first[i], 1);
        ASSERT_EQ(bytewise.Next(frame), FrameDecoder::Result::kNeedMore) << "after byte " << i;
    }
    bytewise.Feed(&first.back(), 1);
    ASSERT_EQ(bytewise.Next(frame), FrameDecoder::Result::kFrame);
    EXPECT_EQ(frame.command, 0x07);
    EXPECT_EQ(frame.payload, (std::vector<uint8_t>{1, 2, 3}));

    FrameDecoder joined;
    std::vector<uint8_t> both = first;
    both.insert(both.end(), second.begin(), second.end());
    FeedAll(joined, both);
    ASSERT_EQ(joined.Next(frame), FrameDecoder::Result::kFrame);
    EXPECT_EQ(frame.command, 0x07);
    ASSERT_EQ(joined.Next(frame), FrameDecoder::Result::kFrame);
    EXPECT_EQ(frame.command, 0x08);
    EXPECT_EQ(frame.status, 5);
    EXPECT_TRUE(frame.payload.empty());
    EXPECT_EQ(joined.Next(frame), FrameDecoder::Result::kNeedMore);

    FrameDecoder badMagic;
    FeedAll(badMagic, {0x56, 0x00});
    EXPECT_EQ(badMagic.Next(frame), FrameDecoder::Result::kMalformed);

    // The header alone announces 64 MiB + 1: refused with no payload byte buffered or reserved.
    FrameDecoder oversized;
    FeedAll(oversized, lidar::vrc::EncodeHeader(0x74, 0, lidar::vrc::kMaxPayload + 1));
    EXPECT_EQ(oversized.Next(frame), FrameDecoder::Result::kMalformed);
    FeedAll(oversized, first);
    EXPECT_EQ(oversized.Next(frame), FrameDecoder::Result::kMalformed);
}

TEST(VrcClientHostPortText, AcceptsAnyAndPortsAndExplainsTheRest) {
    struct Case {
        std::string text;
        bool ok;
        uint16_t port;
    };
    const std::vector<Case> cases = {
        {"ANY", true, 0},       {" any\t", true, 0}, {"Any", true, 0},       {"0", true, 0},
        {"42524", true, 42524}, {" 1 ", true, 1},    {"65535", true, 65535}, {"65536", false, 0},
        {"abc", false, 0},      {"", false, 0},      {"-1", false, 0},       {"+80", false, 0},
        {"80x", false, 0},      {"8 0", false, 0},   {"123456", false, 0},
    };
    for (const Case& c : cases) {
        uint16_t port = 777;
        std::string error;
        ASSERT_EQ(ParseVrcClientHostPortText(c.text, &port, &error), c.ok) << '"' << c.text << '"';
        if (c.ok) {
            EXPECT_EQ(port, c.port) << c.text;
            EXPECT_TRUE(error.empty());
        } else {
            EXPECT_EQ(port, 777) << c.text;
        }
    }
    std::string error;
    uint16_t port = 0;
    ParseVrcClientHostPortText("abc", &port, &error);
    EXPECT_EQ(error, "Invalid VRC client port \"abc\": use ANY or a number from 1 to 65535.");
}

TEST(VrcClientOutput, GetValFromOutputChecksBounds) {
    VrcClient client("127.0.0.1", UnusedPort(), false, lidar::VrcMode::kTcp, 1, "", "", "", 500,
                     500, 0.0f, 0);
    const u8vec output{10, 11, 12, 13};
    u8vec value{99};
    EXPECT_TRUE(client.GetValFromOutput(0x07, 0, output, 1, 3, value));
    EXPECT_EQ(value, (u8vec{11, 12, 13}));
    EXPECT_TRUE(client.GetValFromOutput(0x07, 0, output, 4, 0, value));
    EXPECT_TRUE(value.empty());
    value = {99};
    EXPECT_FALSE(client.GetValFromOutput(0x07, 0, output, 2, 3, value));
    EXPECT_FALSE(client.GetValFromOutput(0x07, 0, output, -1, 2, value));
    EXPECT_FALSE(client.GetValFromOutput(0x07, 0, output, 0, -1, value));
    EXPECT_FALSE(client.GetValFromOutput(0x07, 0, output, 2, INT_MAX, value));
    EXPECT_FALSE(client.GetValFromOutput(0x07, 0, output, INT_MAX, 1, value));
    EXPECT_EQ(value, u8vec{99});
}

class VrcClientDevice : public ::testing::Test {
  protected:
    void SetUp() override { StartSimulator(""); }

    void StartSimulator(const std::string& requiredToken) {
        sim::LidarSimulator::Options options;
        options.model = kModel;
        options.requiredToken = requiredToken;
        sim_ = std::make_unique<sim::LidarSimulator>(options);
        std::string error;
        ASSERT_TRUE(sim_->Start(&error)) << error;
    }

    std::shared_ptr<VrcClient> Connect(uint32_t receiveTimeoutMs = 3000, uint16_t localPort = 0) {
        return std::make_shared<VrcClient>("127.0.0.1", sim_->Port(), false, lidar::VrcMode::kTcp,
                                           1, "", "", "", 2000, receiveTimeoutMs, 0.0f, localPort);
    }

    std::unique_ptr<sim::LidarSimulator> sim_;
};

TEST_F(VrcClientDevice, AnswersWithOrWithoutHeaderAndLogsEveryFrame) {
    auto client = Connect();
    ASSERT_TRUE(client->IsOpen()) << client->LastError();
    std::vector<std::string> lines;
    std::mutex linesMutex;
    client->SetLogCallback([&](const std::string& line) {
        std::lock_guard<std::mutex> lock(linesMutex);
        lines.push_back(line);
    });

    u8vec withHeader;
    ASSERT_EQ(client->QueryCommand({}, withHeader, 0x07, true), 0) << client->LastError();
    ASSERT_GE(withHeader.size(), 8u + 88u);
    EXPECT_EQ(withHeader[0], 0x56);
    EXPECT_EQ(withHeader[2], 0x07);
    const uint32_t announced = (uint32_t(withHeader[4]) << 24) | (uint32_t(withHeader[5]) << 16) |
                               (uint32_t(withHeader[6]) << 8) | withHeader[7];
    EXPECT_EQ(announced, withHeader.size() - 8);

    u8vec payloadOnly;
    ASSERT_EQ(client->QueryCommand({}, payloadOnly, 0x07, false), 0);
    EXPECT_EQ(payloadOnly, u8vec(withHeader.begin() + 8, withHeader.end()));

    std::lock_guard<std::mutex> lock(linesMutex);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "SEND 0x07 [8] 56 52 07 00 00 00 00 00");
    EXPECT_EQ(
        lines[1].rfind("RECV 0x07 [" + std::to_string(withHeader.size()) + "] 56 52 07 00", 0), 0u)
        << lines[1];
    // Long frames are cut after 64 bytes.
    EXPECT_NE(lines[1].find(" ... (" + std::to_string(withHeader.size()) + " bytes)"),
              std::string::npos)
        << lines[1];
}

TEST_F(VrcClientDevice, NotConnectedGivesMinusOne) {
    VrcClient refused("127.0.0.1", UnusedPort(), false, lidar::VrcMode::kTcp, 1, "", "", "", 2000,
                      2000, 0.0f, 0);
    EXPECT_FALSE(refused.IsOpen());
    EXPECT_NE(refused.LastError().find("connection refused"), std::string::npos)
        << refused.LastError();
    u8vec reply;
    EXPECT_EQ(refused.QueryCommand({}, reply, 0x07, false), lidar::kVrcNotConnected);
    EXPECT_EQ(refused.GetLastReturnCode(), lidar::kVrcNotConnected);

    auto closed = Connect();
    ASSERT_TRUE(closed->IsOpen());
    closed->Close();
    EXPECT_EQ(closed->QueryCommand({}, reply, 0x07, false), lidar::kVrcNotConnected);
    EXPECT_EQ(sim_->RequestCount(0x07), 0u);
}

TEST_F(VrcClientDevice, EachFaultGivesItsCodeAndTransportFaultsCloseTheConnection) {
    struct Case {
        const char* fault;
        int expected;
        bool staysOpen;
    };
    const std::vector<Case> cases = {
        {"close-mid-reply", lidar::kVrcClosedByPeer, false},
        {"no-reply", lidar::kVrcTimeout, false},
        {"bad-magic", lidar::kVrcMalformed, false},
        {"oversized-length", lidar::kVrcMalformed, false},
        {"wrong-echo", lidar::kVrcMalformed, false},
        {"status=4", 4, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault);
        sim::Fault fault;
        ASSERT_TRUE(sim::Fault::Parse(c.fault, fault));
        sim_->ClearFaults();
        sim_->SetFault(0x08, fault);
        auto client = Connect(300);
        ASSERT_TRUE(client->IsOpen()) << client->LastError();
        u8vec reply{1, 2, 3};
        EXPECT_EQ(client->QueryCommand({}, reply, 0x08, false), c.expected);
        EXPECT_EQ(client->GetLastReturnCode(), c.expected);
        EXPECT_TRUE(reply.empty());
        EXPECT_EQ(client->IsOpen(), c.staysOpen) << client->LastError();
        // A closed client never reads a late reply: the next query fails before sending.
        const int next = client->QueryCommand({}, reply, 0x07, false);
        EXPECT_EQ(next, c.staysOpen ? lidar::kVrcOk : lidar::kVrcNotConnected);
    }
}

TEST_F(VrcClientDevice, SetNetworkEndsTheConnectionWithMinusTwo) {
    auto client = Connect();
    const u8vec network{192, 168, 1, 201, 255, 255, 255, 0, 192, 168, 1, 1, 0, 0, 0};
    u8vec reply;
    EXPECT_EQ(client->QueryCommand(network, reply, 0x21, false), lidar::kVrcClosedByPeer);
    EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcClosedByPeer);
    EXPECT_FALSE(client->IsOpen());
}

TEST_F(VrcClientDevice, CloseWakesAQueryWaitingForItsReply) {
    sim::Fault fault;
    ASSERT_TRUE(sim::Fault::Parse("no-reply", fault));
    sim_->SetFault(0x08, fault);
    auto client = Connect(60000);
    int result = 0;
    std::thread waiter([&] {
        u8vec reply;
        result = client->QueryCommand({}, reply, 0x08, false);
    });
    ASSERT_TRUE(testsupport::WaitFor([&] { return sim_->RequestCount(0x08) > 0; }));
    client->Close();
    waiter.join();
    EXPECT_EQ(result, lidar::kVrcNotConnected);
    EXPECT_FALSE(client->IsOpen());
}

TEST_F(VrcClientDevice, ConcurrentQueriesAreSerialised) {
    auto client = Connect();
    constexpr int kThreads = 4;
    constexpr int kQueries = 50;
    std::vector<int> failures(kThreads, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kQueries; ++i) {
                u8vec reply;
                const uint8_t command = (i % 2 == 0) ? 0x07 : 0x08;
                if (client->QueryCommand({}, reply, command, false) != 0 || reply.empty()) {
                    ++failures[t];
                }
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, std::vector<int>(kThreads, 0));
    EXPECT_EQ(sim_->RequestCount(0x07) + sim_->RequestCount(0x08), uint64_t{kThreads * kQueries});
    EXPECT_TRUE(client->IsOpen());
}

TEST_F(VrcClientDevice, BindsTheLocalPortAndExplainsAPortInUse) {
    const uint16_t localPort = UnusedPort();
    auto bound = Connect(3000, localPort);
    ASSERT_TRUE(bound->IsOpen()) << bound->LastError();
    u8vec reply;
    ASSERT_EQ(bound->QueryCommand({}, reply, 0x07, false), 0);
    EXPECT_EQ(sim_->LastClientPort(), localPort);
    EXPECT_EQ(bound->LocalPort(), localPort);

    Listener holder;
    auto clash = Connect(3000, holder.port());
    EXPECT_FALSE(clash->IsOpen());
    EXPECT_NE(clash->LastError().find("local port " + std::to_string(holder.port()) + " is in use"),
              std::string::npos)
        << clash->LastError();
}

TEST_F(VrcClientDevice, FieldOfViewRoundTripsInTheManagersLayout) {
    auto client = Connect();
    // Starts at 0..4, ends at 5..9: the manager's table.
    const float table[10] = {0.0f,  12.3f, 45.06f, 90.0f,  180.0f,
                             10.0f, 20.0f, 60.0f,  120.5f, 360.0f};
    ASSERT_EQ(client->SetAllChannelFov(table, 5, 1), 0) << client->LastError();

    float read[10] = {};
    int count = 5;
    int mode = -1;
    ASSERT_EQ(client->GetAllChannelFov(read, count, mode), 0) << client->LastError();
    EXPECT_EQ(count, 5);
    EXPECT_EQ(mode, 1);
    const float expected[10] = {0.0f,  12.3f, 45.1f, 90.0f,  180.0f,
                                10.0f, 20.0f, 60.0f, 120.5f, 360.0f};
    for (int i = 0; i < 10; ++i) EXPECT_FLOAT_EQ(read[i], expected[i]) << "index " << i;

    // A smaller capacity reads the first regions; their ends follow them.
    float small[4] = {-1.0f, -1.0f, -1.0f, -1.0f};
    count = 2;
    ASSERT_EQ(client->GetAllChannelFov(small, count, mode), 0);
    EXPECT_EQ(count, 2);
    EXPECT_FLOAT_EQ(small[1], 12.3f);
    EXPECT_FLOAT_EQ(small[2], 10.0f);
    EXPECT_FLOAT_EQ(small[3], 20.0f);

    // A device holding fewer regions than the capacity: ends right after the regions read.
    const float three[6] = {5.0f, 15.0f, 25.0f, 10.0f, 20.0f, 30.0f};
    ASSERT_EQ(client->SetAllChannelFov(three, 3, 2), 0);
    float wide[10] = {};
    count = 5;
    ASSERT_EQ(client->GetAllChannelFov(wide, count, mode), 0);
    EXPECT_EQ(count, 3);
    EXPECT_EQ(mode, 2);
    for (int i = 0; i < 6; ++i) EXPECT_FLOAT_EQ(wide[i], three[i]) << "index " << i;

    // A reply announcing more regions than it carries is malformed, and ends the connection.
    sim_->WriteBlock(0x23, {}, 1, {9});
    count = 5;
    EXPECT_EQ(client->GetAllChannelFov(wide, count, mode), lidar::kVrcMalformed);
    EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcMalformed);
    EXPECT_FALSE(client->IsOpen());
}

TEST_F(VrcClientDevice, ProfileRefusalSendsNothing) {
    AuthConfig config;
    config.profile = "Tern";
    config.allowAll = false;
    config.commands = {0x07};
    AuthorizedVrcClient authorised(Connect(), config);
    std::vector<std::string> lines;
    authorised.SetLogCallback([&](const std::string& line) { lines.push_back(line); });

    u8vec reply;
    ASSERT_EQ(authorised.QueryCommand({}, reply, 0x07, false), 0);
    const auto before = sim_->RequestCounts();
    EXPECT_EQ(authorised.QueryCommand({}, reply, 0x25, false), lidar::kVrcRefused);
    EXPECT_EQ(authorised.GetLastReturnCode(), lidar::kVrcRefused);
    const float table[10] = {};
    EXPECT_EQ(authorised.SetAllChannelFov(table, 5, 0), lidar::kVrcRefused);
    int count = 5;
    int mode = 0;
    float read[10] = {};
    EXPECT_EQ(authorised.GetAllChannelFov(read, count, mode), lidar::kVrcRefused);
    EXPECT_EQ(authorised.WrenSetBaudRate(460800), lidar::kVrcRefused);
    lidar::ProgressCounter progress{7};
    EXPECT_EQ(authorised.UpgradeLidar(u8vec(3000, 1), "0x83", progress), lidar::kVrcRefused);
    EXPECT_EQ(authorised.WrenUpgradeLidar(u8vec(3000, 1), 1, progress), lidar::kVrcRefused);
    // A refused log request is "no reply" to the manager; the last code says why.
    EXPECT_EQ(authorised.DownloadLog({0}, reply, 0x75), -1);
    EXPECT_EQ(authorised.GetLastReturnCode(), lidar::kVrcRefused);
    EXPECT_EQ(authorised.QuerySerialCommand({}, reply, 0x04), lidar::kVrcRefused);
    EXPECT_EQ(sim_->RequestCounts(), before);
    EXPECT_TRUE(authorised.IsOpen());
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[0], "Command 0x25 refused by access profile Tern");
    EXPECT_EQ(lines[3], "Command 0xB1 refused by access profile Tern");
    EXPECT_EQ(lines[4], "Command 0x83 refused by access profile Tern");
    EXPECT_EQ(lines[6], "Command 0x75 refused by access profile Tern");
}

TEST_F(VrcClientDevice, TransferSendsEveryByteAndCountsAcknowledgedKibibytes) {
    u8vec package(3 * 65536 + 1500);
    for (size_t i = 0; i < package.size(); ++i) package[i] = static_cast<uint8_t>(i * 7 + i / 251);
    lidar::ProgressCounter progress{99};

    // A refused chunk stops the transfer with the device's status; the connection stays.
    auto failing = Connect();
    sim_->SetFault(0x83, sim::Fault{sim::Fault::Kind::kFailChunk, 0, 4, 2});
    EXPECT_EQ(failing->UpgradeLidar(package, 0x83, progress), 4);
    EXPECT_EQ(progress.load(), 64);
    EXPECT_TRUE(failing->IsOpen());
    sim_->SetFault(0x83, sim::Fault{sim::Fault::Kind::kCrcMismatch, 0, 0, 0});
    EXPECT_EQ(failing->UpgradeLidar(package, 0x83, progress), 1);
    sim_->SetFault(0x83, sim::Fault{sim::Fault::Kind::kDropAfterChunks, 0, 0, 1});
    EXPECT_EQ(failing->UpgradeLidar(package, 0x83, progress), lidar::kVrcClosedByPeer);
    EXPECT_FALSE(failing->IsOpen());
    sim_->ClearFaults();

    auto client = Connect();
    std::vector<std::string> lines;
    std::mutex linesMutex;
    client->SetLogCallback([&](const std::string& line) {
        std::lock_guard<std::mutex> lock(linesMutex);
        lines.push_back(line);
    });
    ASSERT_EQ(client->UpgradeLidar(package, 0x83, progress), 0) << client->LastError();
    EXPECT_EQ(progress.load(), static_cast<int>(package.size() >> 10));
    const std::vector<sim::Transfer> transfers = sim_->Transfers();
    ASSERT_EQ(transfers.size(), 4u);
    EXPECT_TRUE(transfers[3].completed);
    EXPECT_EQ(transfers[3].chunks, 4);
    EXPECT_EQ(transfers[3].receivedSize, package.size());
    EXPECT_EQ(transfers[3].receivedCrc,
              crc32(0, package.data(), static_cast<uInt>(package.size())));
    EXPECT_EQ(transfers[3].beginByte, -1);
    // Begin, four chunks and end, each a frame of its own; a chunk's line shows its first bytes.
    std::lock_guard<std::mutex> lock(linesMutex);
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines[0], "SEND 0x83 [13] 56 52 83 00 00 00 00 05 00 00 03 05 DC");
    EXPECT_EQ(lines[2].substr(0, 53), "SEND 0x83 [65549] 56 52 83 00 00 01 00 05 01 00 00 00");
}

TEST_F(VrcClientDevice, LogDownloadGivesMinusOneOnlyWithoutAReply) {
    auto client = Connect(500);
    u8vec reply;
    EXPECT_EQ(client->DownloadLog({0}, reply, 0x75), 0);
    EXPECT_EQ(reply, sim_->LogContent({0}));
    EXPECT_EQ(client->DownloadLog({0}, reply, 0x5E), 2);  // unknown to the device: its status
    sim_->SetFault(0x75, sim::Fault{sim::Fault::Kind::kNoReply, 0, 0, 0});
    EXPECT_EQ(client->DownloadLog({0}, reply, 0x75), -1);
    EXPECT_EQ(client->GetLastReturnCode(), lidar::kVrcTimeout);
}

TEST_F(VrcClientDevice, AuthorisationWithRightWrongAndMissingToken) {
    StartSimulator("s3cret");
    const float table[10] = {0, 0, 0, 0, 0, 360, 360, 360, 360, 360};
    const auto probeWith = [&](const std::string& token, std::vector<std::string>& lines) {
        AuthConfig config;
        config.profile = "Plover";
        config.token = token;
        auto authorised = std::make_unique<AuthorizedVrcClient>(Connect(), config);
        authorised->SetLogCallback([&](const std::string& line) { lines.push_back(line); });
        return authorised;
    };

    std::vector<std::string> lines;
    auto right = probeWith("s3cret", lines);
    EXPECT_EQ(right->SetAllChannelFov(table, 5, 0), lidar::vrc::kStatusNotPermitted);
    EXPECT_EQ(right->GetGate().ProbeAuthRequirement(), 0);
    EXPECT_TRUE(right->GetGate().IsAuthorised());
    EXPECT_EQ(right->SetAllChannelFov(table, 5, 0), 0);
    EXPECT_EQ(lines.back(), "Authorisation accepted by the device");

    auto wrong = probeWith("guess", lines);
    EXPECT_EQ(wrong->GetGate().ProbeAuthRequirement(), lidar::vrc::kStatusNotPermitted);
    EXPECT_FALSE(wrong->GetGate().IsAuthorised());
    EXPECT_EQ(wrong->SetAllChannelFov(table, 5, 0), lidar::vrc::kStatusNotPermitted);
    u8vec reply;
    EXPECT_EQ(wrong->QueryCommand({}, reply, 0x07, false), 0);  // reads stay open

    const uint64_t authorisations = sim_->RequestCount(0xA1);
    auto missing = probeWith("", lines);
    EXPECT_EQ(missing->GetGate().ProbeAuthRequirement(), lidar::vrc::kStatusNotPermitted);
    EXPECT_EQ(sim_->RequestCount(0xA1), authorisations);
    EXPECT_EQ(lines.back(), "Device requires authorisation but access profile Plover has no token");
}

}  // namespace
