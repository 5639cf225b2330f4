// Stop ends a connection or a connect attempt at once, whatever the lidar does, and leaves
// nothing connected behind; a refresh in which every read failed announces nothing.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "e2e_support.h"

using testsupport::ManagerSession;
using testsupport::SpyTexts;
using testsupport::StartSimulator;
using testsupport::WaitFor;

namespace {

using Clock = std::chrono::steady_clock;

// A generous bound: the design target is 100 ms (see bench/), sanitizer builds included here.
constexpr auto kPrompt = std::chrono::milliseconds(1000);

sim::Fault silent() {
    sim::Fault fault;
    fault.kind = sim::Fault::Kind::kNoReply;
    return fault;
}

Clock::duration timeStop(LidarUtilitiesManager& manager) {
    const auto start = Clock::now();
    manager.Stop();
    return Clock::now() - start;
}

void sleepFor(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

}  // namespace

// 50 ms: the TCP connect or the settling pause; 400 ms: the liveness probe, waiting on a lidar
// that reads requests and never answers.
TEST(Stop, DuringAConnectAttemptLeavesNothingConnected) {
    for (int delayMs : {50, 400}) {
        SCOPED_TRACE(delayMs);
        auto lidar = StartSimulator("Egret");
        lidar->SetFault(0x07, silent());
        lidar->SetFault(0x08, silent());
        ManagerSession s("Egret");
        s.m().setPort(QString::number(lidar->Port()));
        ASSERT_TRUE(s.m().ConnectLidar());
        sleepFor(delayMs);
        EXPECT_FALSE(s.m().ConnectLidar()) << "one attempt at a time";

        EXPECT_LT(timeStop(s.m()), kPrompt);
        EXPECT_FALSE(s.m().isConnecting());
        const auto start = Clock::now();
        s.m().waitForWorkers();
        EXPECT_LT(Clock::now() - start, kPrompt) << "the attempt saw the stop at once";

        EXPECT_FALSE(s.m().getIsConnected());
        EXPECT_EQ(s.m().getAuthorizedClient(), nullptr);
        const auto log = SpyTexts(s.log());
        EXPECT_EQ(std::count(log.begin(), log.end(), "Lidar connected|INFO"), 0);
        EXPECT_EQ(std::count_if(log.begin(), log.end(),
                                [](const std::string& line) {
                                    return line.rfind("Connection Error", 0) == 0;
                                }),
                  0)
            << "a cancelled attempt is not a failure";
        // A new attempt right after the stop is not refused as "already connecting".
        lidar->ClearFaults();
        EXPECT_TRUE(s.Connect(lidar->Port()));
        s.m().Stop();
    }
}

TEST(Stop, IsPromptWhileARefreshWaitsOnASilentLidar) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    std::atomic<int> refreshes{0};
    QObject::connect(&s.m(), &LidarUtilitiesManager::myTimerMapChanged,
                     [&refreshes] { ++refreshes; });
    ASSERT_TRUE(s.Connect(lidar->Port()));
    s.m().setModuleIndexUse(s.m().level1List().indexOf(QVariant("Status")));

    // Every timer read is refused: no refresh is announced although requests were made.
    sim::Fault refused;
    refused.kind = sim::Fault::Kind::kStatus;
    refused.status = 1;
    lidar->SetFault(0x40, refused);
    lidar->ResetCounters();
    ASSERT_TRUE(WaitFor([&] { return lidar->RequestCount(0x40) >= 1; }, 6000));
    sleepFor(200);
    EXPECT_EQ(refreshes.load(), 0);

    // The lidar stops answering while the page thread waits for a reply.
    lidar->SetFault(0x40, silent());
    lidar->ResetCounters();
    ASSERT_TRUE(WaitFor([&] { return lidar->RequestCount(0x40) >= 1; }, 6000));
    sleepFor(100);
    EXPECT_LT(timeStop(s.m()), kPrompt);
    EXPECT_FALSE(s.m().getIsConnected());
    EXPECT_EQ(refreshes.load(), 0);
}

// The window's connection view reads the link while its queue of device operations connects and
// stops on another thread: under ThreadSanitizer a link field read outside its lock or atomic
// shows up here; in every build the link ends connected, with the settings it was given.
TEST(Stop, ConnectAndStopCyclesWhileAnotherThreadReadsTheLink) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret", testsupport::SourceDir(), false);
    const QString port = QString::number(lidar->Port());
    s.m().setPort(port);
    std::atomic<bool> reading{true};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (reading.load()) {
            EXPECT_EQ(s.m().getIpAddress(), "127.0.0.1");
            EXPECT_EQ(s.m().getPort(), port);
            EXPECT_EQ(s.m().getConnectType(), 0);
            const bool connected = s.m().getIsConnected();
            const bool connecting = s.m().isConnecting();
            const auto client = s.m().getAuthorizedClient();
            if (connected || connecting || client) ++reads;
        }
    });
    for (int cycle = 0; cycle < 3; ++cycle) {
        EXPECT_TRUE(s.Connect(lidar->Port())) << cycle;
        s.m().Stop();
        EXPECT_FALSE(s.m().getIsConnected());
        EXPECT_EQ(s.m().getAuthorizedClient(), nullptr);
    }
    const bool connected = s.Connect(lidar->Port());
    reading.store(false);
    reader.join();

    EXPECT_TRUE(connected);
    EXPECT_GT(reads.load(), 0) << "the reader saw the link up or coming up";
    EXPECT_TRUE(s.m().getIsConnected());
    EXPECT_FALSE(s.m().isConnecting());
    ASSERT_NE(s.m().getAuthorizedClient(), nullptr);
    EXPECT_TRUE(s.m().getAuthorizedClient()->IsOpen());
    EXPECT_EQ(s.m().getPort(), port);
    EXPECT_EQ(lidar->RequestCount(0x07), 4u) << "one liveness probe per connect";
}
