// The window runs the device operations on one queue thread while its UI thread reads the
// manager's properties and takes its signals. Under ThreadSanitizer any state shared between the
// two without its lock shows up here; in every build the lidar ends with what the queue wrote.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QObject>
#include <atomic>
#include <thread>

#include "e2e_support.h"

using testsupport::ManagerSession;
using testsupport::PrivateConfigRoot;
using testsupport::StartSimulator;

namespace {

constexpr int kOperation = 2;  // Egret's Operation module
constexpr int kRounds = 3;

// What a view bound to the manager reads when a signal tells it to.
size_t readEverythingAViewShows(LidarUtilitiesManager& m) {
    size_t items = m.getMyMap().size() + m.level1List().size() + m.level2List().size() +
                   m.logRepeaterModel().size() + m.catalogueVariableMap().size() +
                   m.getSendCommandHistory().size() + m.getFovList().size() +
                   m.getLidarModelList().size();
    items += m.getSendVrcCommandReturnHeader().size() + m.getErrorMessage().size() +
             m.getSuccessMessage().size() + m.getZPNowName().size();
    items += m.getSetMapSize() + m.getMonitorContentRevision() + (m.getIsConnected() ? 1 : 0) +
             (m.isConnecting() ? 1 : 0);
    return items;
}

}  // namespace

TEST(OperationQueue, DeviceOperationsOnAQueueThreadWhileTheUiThreadReads) {
    PrivateConfigRoot root;
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret", root.root(), false);
    LidarUtilitiesManager& m = s.m();
    m.setPort(QString::number(lidar->Port()));

    // Signals from the queue thread reach a receiver of the UI thread as queued calls, as they
    // reach QML; the receiver reads what the signal announces.
    QObject view;
    std::atomic<int> signalsSeen{0};
    auto onSignal = [&] {
        readEverythingAViewShows(m);
        ++signalsSeen;
    };
    QObject::connect(&m, &LidarUtilitiesManager::myMapChanged, &view, onSignal);
    QObject::connect(&m, &LidarUtilitiesManager::sendCommandHistoryChanged, &view, onSignal);
    QObject::connect(&m, &LidarUtilitiesManager::isConnectedChanged, &view, onSignal);
    QObject::connect(&m, &LidarUtilitiesManager::monitorContentChanged, &view, onSignal);

    std::atomic<bool> queueBusy{true};
    std::atomic<int> connects{0};
    std::thread queue([&] {
        for (int round = 0; round < kRounds; ++round) {
            if (!s.ConnectAndWait()) continue;
            ++connects;
            m.readModule(kOperation);
            m.SetText(3, kOperation, 0, 0, round % 2 ? "1" : "2");  // Spin Rate
            m.Run(kOperation);
            m.refreshMonitor();
            m.SendCommand("0x07", "");
            m.Stop();
        }
        queueBusy.store(false);
    });
    size_t reads = 0;
    while (queueBusy.load()) {
        reads += readEverythingAViewShows(m) > 0 ? 1 : 0;
        QCoreApplication::processEvents();
    }
    queue.join();
    QCoreApplication::processEvents();

    EXPECT_EQ(connects.load(), kRounds);
    EXPECT_GT(reads, 0u);
    EXPECT_GT(signalsSeen.load(), 0);
    EXPECT_EQ(lidar->RequestCount(0x31), static_cast<uint64_t>(kRounds)) << "one write a round";
    const std::vector<uint8_t> scan = lidar->Block(0x30);
    ASSERT_GE(scan.size(), 2u);
    EXPECT_EQ((scan[0] << 8) | scan[1], 1200) << "the last round's spin rate";
    EXPECT_EQ(m.getSendCommandHistory().size(), kRounds) << "one raw command a round";
    EXPECT_GE(lidar->RequestCount(0x41), static_cast<uint64_t>(kRounds)) << "monitor refreshes";
    EXPECT_FALSE(m.getIsConnected());
}
