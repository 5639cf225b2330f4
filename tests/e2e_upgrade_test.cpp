// Firmware upgrade against the simulator: the bytes the device received, the progress counters,
// the restart ten seconds later, transfer failures and the start checks.

#include <zlib.h>

#include <QElapsedTimer>
#include <QUrl>
#include <algorithm>

#include "e2e_support.h"

using namespace testsupport;

namespace {

const char* const kTransferFailed = "Upgrade package transfer failed or is terminated.";

std::vector<uint8_t> WritePackage(const std::string& path, size_t size) {
    std::vector<uint8_t> bytes(size);
    uint32_t state = 12345;
    for (uint8_t& byte : bytes) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<uint8_t>(state >> 16);
    }
    WriteFile(path, std::string(bytes.begin(), bytes.end()));
    return bytes;
}

uint32_t Crc(const std::vector<uint8_t>& bytes) {
    return static_cast<uint32_t>(crc32(0, bytes.data(), static_cast<uInt>(bytes.size())));
}

class UpgradeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        simulator_ = StartSimulator("Egret");
        // No spies: a Stop here logs on this thread while a woken worker logs on its own.
        session_ = std::make_unique<ManagerSession>("Egret", SourceDir(), false);
        ASSERT_TRUE(session_->Connect(simulator_->Port()));
        ASSERT_TRUE(FindVarPosition(m(), "Firmware Upgrade", i_, j_, k_));
    }

    LidarUtilitiesManager& m() { return session_->m(); }
    int Upgrade(const std::string& path) {
        return m().UpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(path)), i_, j_, k_);
    }
    bool WaitUntilIdle() {
        return WaitFor([this] { return !m().getIsUpgrading(); }, 30000);
    }

    TempDir dir_;
    std::unique_ptr<sim::LidarSimulator> simulator_;
    std::unique_ptr<ManagerSession> session_;
    int i_ = 0, j_ = 0, k_ = 0;
};

TEST_F(UpgradeTest, TheDeviceGetsThePackageExactlyAndRestartsTenSecondsLater) {
    const std::string path = dir_.file("firmware.bin");
    const std::vector<uint8_t> package = WritePackage(path, 300 * 1024 + 123);
    ASSERT_EQ(Upgrade(path), 0);
    EXPECT_TRUE(m().getIsUpgrading());
    EXPECT_EQ(m().getUpgradeProgressTotalLen(), 300);
    ASSERT_TRUE(WaitUntilIdle());
    QElapsedTimer sinceTransfer;
    sinceTransfer.start();
    EXPECT_EQ(m().getUpgradeProgress(), 300);
    EXPECT_EQ(session_->upgradingChanges.load(), 2);
    const std::vector<sim::Transfer> transfers = simulator_->Transfers();
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_EQ(transfers[0].command, 0x83);
    EXPECT_TRUE(transfers[0].completed);
    EXPECT_EQ(transfers[0].receivedSize, package.size());
    EXPECT_EQ(transfers[0].receivedCrc, Crc(package));
    EXPECT_TRUE(WaitFor([this] { return !session_->Messages().empty(); }, 2000));
    EXPECT_EQ(session_->Messages().front(),
              "success: Upgrade package transmitted successfully. The lidar will automatically "
              "reboot within 10 seconds.");
    EXPECT_TRUE(simulator_->RebootPending());

    // The designed pause of ten seconds: no restart before it (the wait for it is no speed
    // target, only how long a test waits).
    ASSERT_TRUE(WaitFor([this] { return simulator_->RequestCount(0x10) == 1; }, 15000));
    EXPECT_GE(sinceTransfer.elapsed(), 9500);
    EXPECT_TRUE(WaitFor([this] { return !m().getIsConnected(); }, 3000));
    EXPECT_FALSE(simulator_->RebootPending());
}

TEST_F(UpgradeTest, TransferFailuresLeaveTheManagerReadyToRetry) {
    const std::string path = dir_.file("firmware.bin");
    const std::vector<uint8_t> package = WritePackage(path, 200 * 1024);
    const sim::Fault faults[] = {{sim::Fault::Kind::kFailChunk, 0, 4, 2},
                                 {sim::Fault::Kind::kCrcMismatch, 0, 0, 0},
                                 {sim::Fault::Kind::kDropAfterChunks, 0, 0, 1}};
    const auto failures = [this] {
        const std::vector<std::string> shown = session_->Messages();
        return std::count(shown.begin(), shown.end(), std::string("error: ") + kTransferFailed);
    };
    for (const sim::Fault& fault : faults) {
        simulator_->SetFault(0x83, fault);
        const auto before = failures();
        ASSERT_EQ(Upgrade(path), 0);
        ASSERT_TRUE(WaitUntilIdle());
        m().waitForWorkers();  // the worker has shown its outcome and ended
        EXPECT_EQ(failures(), before + 1) << static_cast<int>(fault.kind);
        EXPECT_TRUE(session_->LogHas(std::string(kTransferFailed) + "|INFO"));
        EXPECT_FALSE(m().getIsUpgrading());
    }
    // The dropped connection is closed: a new start is refused until the lidar is connected
    // again, and then the same package goes through.
    EXPECT_EQ(Upgrade(path), -1);
    simulator_->ClearFaults();
    ASSERT_TRUE(session_->Connect(simulator_->Port()));
    ASSERT_EQ(Upgrade(path), 0);
    ASSERT_TRUE(WaitUntilIdle());
    const std::vector<sim::Transfer> transfers = simulator_->Transfers();
    ASSERT_EQ(transfers.size(), 4u);
    EXPECT_TRUE(transfers.back().completed);
    EXPECT_EQ(transfers.back().receivedCrc, Crc(package));
    for (size_t n = 0; n < 3; ++n) EXPECT_FALSE(transfers[n].completed);
    // Destroying the manager now does not wait out the ten seconds before the restart.
    QElapsedTimer teardown;
    teardown.start();
    session_.reset();
    EXPECT_LT(teardown.elapsed(), 8000);  // not the ten seconds of the wait
    EXPECT_EQ(simulator_->RequestCount(0x10), 0u);
}

TEST_F(UpgradeTest, AStopDuringThePauseBeforeTheRestartAbandonsIt) {
    const std::string path = dir_.file("firmware.bin");
    WritePackage(path, 4 * 1024);
    ASSERT_EQ(Upgrade(path), 0);
    ASSERT_TRUE(WaitUntilIdle());
    ASSERT_TRUE(WaitFor([this] { return !session_->Messages().empty(); }, 2000));
    m().Stop();
    m().waitForWorkers();
    EXPECT_EQ(session_->Messages().back(),
              "error: Upgrade abandoned before the automatic reboot: the package was transmitted, "
              "but the lidar was not restarted. Please reboot lidar manually.");
    EXPECT_TRUE(session_->LogHas(
        "Upgrade abandoned before the automatic reboot: the package was transmitted, but the lidar "
        "was not restarted. Please reboot lidar manually.|INFO"));
    EXPECT_EQ(simulator_->RequestCount(0x10), 0u);
    EXPECT_TRUE(simulator_->RebootPending());
}

TEST_F(UpgradeTest, StartChecksAndTotals) {
    // Whole units of 1024 bytes: 1023 bytes make a total of 0, 1024 one. The transfers fail at
    // their end, so that no restart follows them, and slowly, so that the first one still runs
    // when the second start comes.
    simulator_->SetFault(0x83, sim::Fault{sim::Fault::Kind::kCrcMismatch, 400, 0, 0});
    const std::string small = dir_.file("small.bin");
    WritePackage(small, 1023);
    ASSERT_EQ(Upgrade(small), 0);
    EXPECT_EQ(m().getUpgradeProgressTotalLen(), 0);
    EXPECT_EQ(Upgrade(small), -1);  // a second start while the first runs
    ASSERT_TRUE(WaitUntilIdle());
    const std::string one = dir_.file("one.bin");
    WritePackage(one, 1024);
    ASSERT_EQ(Upgrade(one), 0);
    EXPECT_EQ(m().getUpgradeProgressTotalLen(), 1);
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(simulator_->Transfers().size(), 2u);

    // A missing file is a silent success that changes nothing; so is a variable without a set
    // command, or an index outside the table.
    ASSERT_TRUE(WaitFor([this] { return session_->Messages().size() == 2; }, 2000));
    session_ = std::make_unique<ManagerSession>("Egret");
    ASSERT_TRUE(session_->Connect(simulator_->Port()));
    EXPECT_EQ(Upgrade(dir_.file("missing.bin")), 0);
    EXPECT_FALSE(m().getIsUpgrading());
    int i = 0, j = 0, k = 0;
    ASSERT_TRUE(FindVarPosition(m(), "Device Log", i, j, k));
    EXPECT_EQ(m().UpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(one)), i, j, k), 0);
    EXPECT_EQ(m().UpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(one)), 99, 0, 0), 0);
    EXPECT_FALSE(m().getIsUpgrading());
    EXPECT_TRUE(session_->Messages().empty());
    EXPECT_EQ(simulator_->Transfers().size(), 2u);

    // Refused without a word while a log download runs.
    simulator_->SetFault(0x75, sim::Fault{sim::Fault::Kind::kDelay, 1500, 0, 0});
    ASSERT_EQ(
        m().DownloadLog(QUrl::fromLocalFile(QString::fromStdString(dir_.path())), "Device Log"), 0);
    ASSERT_TRUE(WaitFor([this] { return m().getIsDownloadLog(); }, 2000));
    EXPECT_EQ(Upgrade(one), -1);
    EXPECT_TRUE(session_->Messages().empty());
    EXPECT_FALSE(m().getIsUpgrading());
    ASSERT_TRUE(WaitFor([this] { return !m().getIsDownloadLog(); }, 5000));

    // Not connected: refused.
    m().Stop();
    EXPECT_EQ(Upgrade(one), -1);
    EXPECT_EQ(m().WrenUpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(one))), -1);
    EXPECT_TRUE(session_->Shown("error: lidar is not connected, or lidar is upgrade"));
}

TEST(WrenUpgrade, VrcOverSerialSendsTheModeAndStopsAfterSuccess) {
    auto simulator = StartSimulator("Wren-VRC");
    ManagerSession session("Wren-VRC");
    ASSERT_TRUE(session.Connect(simulator->Port()));
    ASSERT_EQ(session.m().getConnectType(), 2);
    TempDir dir;
    const std::vector<uint8_t> package = WritePackage(dir.file("wren.bin"), 70000);
    session.m().WrenSetUpgradeMode(1);
    ASSERT_EQ(session.m().WrenUpgradeLidar(
                  QUrl::fromLocalFile(QString::fromStdString(dir.file("wren.bin")))),
              0);
    ASSERT_TRUE(WaitFor([&] { return !session.m().getIsConnected(); }, 20000));
    EXPECT_TRUE(session.Shown(
        "success: Upgrade package transmitted successfully. The lidar will automatically reboot."));
    const std::vector<sim::Transfer> transfers = simulator->Transfers();
    ASSERT_EQ(transfers.size(), 1u);
    EXPECT_EQ(transfers[0].command, 0xB7);
    EXPECT_EQ(transfers[0].beginByte, 1);
    EXPECT_EQ(transfers[0].receivedCrc, Crc(package));
    EXPECT_EQ(session.m().getUpgradeProgress(), 68);

    // Mode 2 takes the firmware command 0x83 through the VRC transfer, and the VRC outcome: a
    // restart ten seconds later (not waited for: the manager's end cancels it). The lidar is
    // rebooting after the first package for a while.
    ASSERT_TRUE(WaitFor([&] { return session.Connect(simulator->Port()); }, 10000));
    session.m().WrenSetUpgradeMode(2);
    ASSERT_EQ(session.m().WrenUpgradeLidar(
                  QUrl::fromLocalFile(QString::fromStdString(dir.file("wren.bin")))),
              0);
    ASSERT_TRUE(WaitFor([&] { return session.upgradingChanges.load() >= 4; }, 20000));
    ASSERT_TRUE(WaitFor([&] { return session.Messages().size() >= 2; }, 2000));
    EXPECT_EQ(session.Messages().back(),
              "success: Upgrade package transmitted successfully. The lidar will automatically "
              "reboot within 10 seconds.");
    ASSERT_EQ(simulator->Transfers().size(), 2u);
    EXPECT_EQ(simulator->Transfers()[1].command, 0x83);
    EXPECT_EQ(simulator->Transfers()[1].receivedCrc, Crc(package));
    EXPECT_TRUE(session.m().getIsConnected());
}

}  // namespace
