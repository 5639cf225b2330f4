// Connecting the manager to a simulated lidar over loopback: success, the failure messages,
// local-port binding, access configuration, authorisation, Restart and Reset.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QFile>
#include <QSettings>
#include <QStandardPaths>

#include "e2e_support.h"

using testsupport::EditedCatalogueRoot;
using testsupport::ManagerSession;
using testsupport::SpyTexts;
using testsupport::StartSimulator;
using testsupport::UnusedPort;

namespace {

const char* kNetworkFailure = "Connection Failed. Please check your network settings.";
const char* kLocalPortFailure =
    "Failed to bind VRC client local port or connection refused. Check the local port is free and "
    "matches lidar ACL (e.g. 42524).";

sim::Fault Silent() {
    sim::Fault fault;
    fault.kind = sim::Fault::Kind::kNoReply;
    return fault;
}

sim::Fault Refusing(uint8_t status) {
    sim::Fault fault;
    fault.kind = sim::Fault::Kind::kStatus;
    fault.status = status;
    return fault;
}

// Holds a listening socket on a loopback port, so that nobody else can bind it.
class PortHolder {
  public:
    PortHolder() {
        fd_ = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        listen(fd_, 1);
        socklen_t size = sizeof addr;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &size);
        port_ = ntohs(addr.sin_port);
    }
    ~PortHolder() { close(fd_); }
    uint16_t port() const { return port_; }

  private:
    int fd_ = -1;
    uint16_t port_ = 0;
};

}  // namespace

TEST(Connection, ConnectsSavesSettingsAndDisconnects) {
    QFile::remove(testsupport::SettingsFilePath());
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");

    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_EQ(s.connectedSignals().count(), 1);
    EXPECT_TRUE(s.LogHas("Lidar connected|INFO"));
    EXPECT_EQ(lidar->RequestCount(0x07), 1u) << "one liveness probe";
    EXPECT_EQ(lidar->RequestCount(0xA0), 1u) << "one authorisation probe";

    QSettings settings(testsupport::SettingsFilePath(), QSettings::IniFormat);
    EXPECT_EQ(settings.value("device_ip_address").toString(), "127.0.0.1");
    EXPECT_EQ(settings.value("vrc_port").toString(), QString::number(lidar->Port()));
    EXPECT_EQ(settings.value("rs485_com").toString(), "/dev/ttyUSB0");
    EXPECT_EQ(settings.value("rs232_com").toString(), "/dev/ttyUSB1");
    EXPECT_EQ(settings.value("point_cloud_baudrate").toString(), "3000000");
    EXPECT_EQ(settings.value("vrc_client_host_port/Egret").toString(), "ANY");

    s.m().Stop();
    EXPECT_FALSE(s.m().getIsConnected());
    EXPECT_EQ(s.connectedSignals().count(), 2);
    EXPECT_TRUE(s.LogHas("Lidar disconnected|INFO"));
    EXPECT_EQ(s.m().getAuthorizedClient(), nullptr);
}

TEST(Connection, RefusedPortAndBadPortTextAreReported) {
    ManagerSession s("Egret");
    EXPECT_FALSE(s.Connect(UnusedPort()));
    EXPECT_EQ(s.m().getErrorMessage(), kNetworkFailure);
    EXPECT_EQ(SpyTexts(s.log()),
              std::vector<std::string>{"Connection Error: TCP connection failed.|ERROR"});
    EXPECT_EQ(s.connectedSignals().count(), 0);

    s.ClearSpies();
    s.m().setPort("abc");
    ASSERT_TRUE(s.m().ConnectLidar());
    testsupport::WaitFor([&] { return !s.m().isConnecting(); });
    s.m().waitForWorkers();
    EXPECT_EQ(s.m().getErrorMessage(), kNetworkFailure);
    EXPECT_EQ(SpyTexts(s.log()), std::vector<std::string>{"Connection Error: Unknown|ERROR"});
    EXPECT_FALSE(s.m().getIsConnected());
}

TEST(Connection, SilentLidarGivesNoVrcReplyWithLocalPortMessage) {
    auto lidar = StartSimulator("Tern");
    lidar->SetFault(0x07, Silent());
    lidar->SetFault(0x08, Silent());
    ManagerSession s("Tern");
    ASSERT_TRUE(s.m().getEnableVrcClientHostPortUi());
    s.m().setVrcClientHostPort(QString::number(UnusedPort()));

    EXPECT_FALSE(s.Connect(lidar->Port()));
    EXPECT_TRUE(s.LogHas("Connection Error: Lidar has No VRC reply.|ERROR"));
    EXPECT_EQ(s.m().getErrorMessage(), kLocalPortFailure);
    EXPECT_EQ(s.connectedSignals().count(), 0);
}

// The probe asks 0x08 after a refused 0x07; a silent 0x07 closes the connection, so 0x08 is not
// sent and the connect fails at once.
TEST(Connection, ProbeFallsBackToTheSecondCommandOnlyAfterARefusal) {
    auto lidar = StartSimulator("Tern");
    lidar->SetFault(0x07, Refusing(5));
    ManagerSession s("Tern");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_EQ(lidar->RequestCount(0x08), 1u);
    s.m().Stop();

    lidar->SetFault(0x07, Silent());
    lidar->ResetCounters();
    EXPECT_FALSE(s.Connect(lidar->Port()));
    EXPECT_TRUE(s.LogHas("Connection Error: Lidar has No VRC reply.|ERROR"));
    EXPECT_EQ(lidar->RequestCount(0x07), 1u);
    EXPECT_EQ(lidar->RequestCount(0x08), 0u);
}

TEST(Connection, LocalPortIsBoundOrReportedInUse) {
    auto lidar = StartSimulator("Tern");
    ManagerSession s("Tern");
    const uint16_t local = UnusedPort();
    s.m().setVrcClientHostPort(QString::number(local));
    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_EQ(lidar->LastClientPort(), local);
    s.m().Stop();

    PortHolder busy;
    s.ClearSpies();
    s.m().setVrcClientHostPort(QString::number(busy.port()));
    EXPECT_FALSE(s.Connect(lidar->Port()));
    EXPECT_EQ(s.m().getErrorMessage(), kLocalPortFailure);
    EXPECT_TRUE(s.LogHas("Connection Error: TCP connection failed.|ERROR"));

    s.ClearSpies();
    s.m().setVrcClientHostPort("abc");
    EXPECT_FALSE(s.Connect(lidar->Port()));
    EXPECT_EQ(s.m().getErrorMessage(),
              "Invalid VRC client port \"abc\": use ANY or a number from 1 to 65535.");
    EXPECT_EQ(s.log().count(), 0) << "a rejected host/port text is shown, not logged";
}

TEST(Connection, RestartAndResetSucceedThenStop) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    EXPECT_EQ(s.m().Restart(), -1) << "not connected";
    EXPECT_EQ(s.errors().count(), 0);

    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_EQ(s.m().Restart(), 0);
    EXPECT_FALSE(s.m().getIsConnected());
    EXPECT_EQ(lidar->RequestCount(0x10), 1u);

    testsupport::WaitFor([&] { return false; }, 400);  // the simulated reboot
    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_EQ(s.m().Reset(), 0);
    EXPECT_FALSE(s.m().getIsConnected());
    EXPECT_EQ(lidar->RequestCount(0x25), 1u);
}

// A catalogue whose Restart and Reset name no command:
// each is refused with its message, and nothing goes to the lidar.
TEST(Connection, RestartAndResetWithoutACommandSendNothing) {
    const EditedCatalogueRoot root(
        "Egret",
        "sed -e 's/,restart,Restart,,raw,,,0x10,/,restart,Restart,,raw,,,,/' "
        "-e 's/,reset,Reset,,raw,,,0x25,/,reset,Reset,,raw,,,,/'");
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret", root.root());
    ASSERT_TRUE(s.Connect(lidar->Port()));

    EXPECT_EQ(s.m().Restart(), -1);
    EXPECT_EQ(s.m().getErrorMessage(), "Can not find restart command");
    EXPECT_EQ(s.m().Reset(), -1);
    EXPECT_EQ(s.m().getErrorMessage(), "Can not find reset command");
    EXPECT_EQ(lidar->RequestCount(0x10) + lidar->RequestCount(0x25), 0u);
    EXPECT_TRUE(s.m().getIsConnected());
}

TEST(Connection, RestartFailureNamesTheReturnCode) {
    auto lidar = StartSimulator("Egret");
    lidar->SetFault(0x10, Refusing(5));
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));

    EXPECT_EQ(s.m().Restart(), 5);
    EXPECT_EQ(s.m().getErrorMessage(),
              "Auto reboot failed, ret_code: 5. Please reboot lidar manually.");
    EXPECT_TRUE(s.m().getIsConnected());

    ManagerTestAccess::setUpgrading(s.m(), true);
    s.errors().clear();
    EXPECT_EQ(s.m().Reset(), -1) << "refused while an upgrade runs";
    EXPECT_EQ(s.errors().count(), 0);
    ManagerTestAccess::setUpgrading(s.m(), false);
}

TEST(Connection, AccessProfileRefusesWithoutTouchingTheWire) {
    auto lidar = StartSimulator("Tern");
    ManagerSession s("Tern");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    u8Array_t reply;
    // The Tern profile does not allow firmware upgrades (0x83).
    EXPECT_EQ(s.m().getAuthorizedClient()->QueryCommand({0}, reply, 0x83, false), -5);
    EXPECT_EQ(lidar->RequestCount(0x83), 0u);
    EXPECT_EQ(s.m().getAuthorizedClient()->QueryCommand({}, reply, 0x07, false), 0);
}

TEST(Connection, AuthorisationWithRightAndWrongToken) {
    {
        auto lidar = StartSimulator("Tern", "tern-7f3a9c21");
        ManagerSession s("Tern");
        ASSERT_TRUE(s.Connect(lidar->Port()));
        EXPECT_EQ(lidar->RequestCount(0xA1), 1u);
        EXPECT_EQ(s.m().Restart(), 0) << "writes pass once the token was accepted";
    }
    {
        auto lidar = StartSimulator("Tern", "another-token");
        ManagerSession s("Tern");
        ASSERT_TRUE(s.Connect(lidar->Port())) << "reads work without authorisation";
        EXPECT_EQ(s.m().Restart(), 3);
        EXPECT_EQ(s.m().getErrorMessage(),
                  "Auto reboot failed, ret_code: 3. Please reboot lidar manually.");
        EXPECT_EQ(lidar->RequestCount(0x10), 1u);
    }
}

TEST(Connection, VrcOverSerialSetsTheBaudRateWithoutProbing) {
    auto lidar = StartSimulator("Wren-VRC");
    ManagerSession s("Wren-VRC");
    ASSERT_EQ(s.m().getConnectType(), 2);
    s.m().set_baud_rate("921600");
    s.m().SetLogBytesFlowStatus(true);
    QSignalSpy wrenInfo(&s.m(), &LidarUtilitiesManager::wrenLidarInfoChanged);

    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_TRUE(s.LogHas("Lidar connected|INFO"));
    const auto sent = [&s](const std::string& start) {
        for (const std::string& line : s.LogLines())
            if (line.rfind(start, 0) == 0) return true;
        return false;
    };
    EXPECT_TRUE(sent("SEND 0xB1")) << "the connect's own bytes flow into the log";
    EXPECT_EQ(lidar->RequestCount(0xB1), 1u);
    EXPECT_EQ(lidar->Block(0xB0), (std::vector<uint8_t>{0x00, 0x0E, 0x10, 0x00}));
    EXPECT_EQ(lidar->RequestCount(0x07), 0u) << "no liveness probe over the serial bridge";
    EXPECT_EQ(lidar->RequestCount(0xA0), 0u);
    EXPECT_EQ(s.m().getAuthorizedClient()->GetSerialBaudRate(), 921600u);

    s.m().Stop();
    EXPECT_FALSE(s.m().getIsConnected());
    EXPECT_EQ(wrenInfo.count(), 1);
    EXPECT_TRUE(s.LogHas("Lidar disconnected|INFO"));

    // A lidar that refuses the rate is still connected, and the client keeps the rate asked for.
    s.m().set_baud_rate("460800");
    lidar->SetFault(0xB1, Refusing(5));
    ASSERT_TRUE(s.Connect(lidar->Port()));
    EXPECT_EQ(s.m().getAuthorizedClient()->GetSerialBaudRate(), 460800u);
    s.m().Stop();
}
