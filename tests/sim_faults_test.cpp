// The simulator's misbehaviour over loopback TCP: each fault mode on the wire, bad input, the
// monitor readings' curves and the seeded chaos of soak runs.

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "sdk/vrc_client.h"
#include "sim/lidar_simulator.h"
#include "sim_support.h"
#include "test_support.h"

namespace {

using namespace simtest;

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
