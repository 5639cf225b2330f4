// lidarutil with the serial models: the Wren over its own lines (the embedded simulator's
// pseudo-terminals, or the lines named with --rs485 and --uart) and the VRC-over-serial models
// over their VRC client, as a person or a script runs it.

#include <gtest/gtest.h>

#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include "cli_support.h"
#include "sim/lidar_simulator.h"
#include "sim/serial_lidar_simulator.h"
#include "test_support.h"

using testsupport::lidarutil;
using testsupport::lines;
using testsupport::Outcome;

namespace {

TEST(LidarutilWren, ReadsAndWritesItsPagesOverTheSerialLines) {
    const Outcome info = lidarutil({"--model", "Wren", "info"});
    ASSERT_EQ(info.exitCode, 0) << info.err.toStdString();
    for (const char* line : {"Serial Number=WR2407300216", "Hardware Version=WRB-CORE-1.1.27",
                             "Firmware Version=WREN_APP_V1_24.7.30", "Model Name=Wren"})
        EXPECT_TRUE(lines(info.out).contains(line)) << line << "\n" << info.out.toStdString();
    EXPECT_TRUE(info.err.contains("connecting to RS485 /dev/pts/")) << info.err.toStdString();
    // A healthy lidar (Normal, no fault codes) reads without an error or a warning, on each
    // serial model.
    for (const char* model : {"Wren", "Wren-VRC", "Heron-VRC"}) {
        const Outcome healthy = lidarutil({"--model", model, "--verbose", "info"});
        EXPECT_EQ(healthy.exitCode, 0) << model;
        EXPECT_TRUE(lines(healthy.out).contains("Fault State=0")) << model;
        EXPECT_FALSE(healthy.err.contains("ERROR") || healthy.err.contains("WARNING") ||
                     healthy.err.contains("warning"))
            << model << "\n"
            << healthy.err.toStdString();
    }

    const Outcome set = lidarutil({"--model", "Wren", "set", "Spin Rate=20 Hz", "Standby=On"});
    ASSERT_EQ(set.exitCode, 0) << set.err.toStdString();
    EXPECT_EQ(lines(set.out), QStringList({"Spin Rate=20 (20 Hz)", "Standby=1 (On)"}));
    EXPECT_TRUE(set.err.contains("Serial command [0x02] to set Spin Rate,  success."));

    const Outcome read = lidarutil({"--model", "Wren", "read", "Settings"});
    ASSERT_EQ(read.exitCode, 0) << read.err.toStdString();
    EXPECT_TRUE(read.out.contains(QRegularExpression("Spin Rate +10 \\(10 Hz\\)")))
        << read.out.toStdString();

    const Outcome send = lidarutil({"--model", "Wren", "send", "0x04"});
    ASSERT_EQ(send.exitCode, 0) << send.err.toStdString();
    EXPECT_TRUE(send.out.startsWith("header:  A5 5A 04 00")) << send.out.toStdString();

    // Lines that do not exist: the manager's message, status 1.
    const Outcome missing =
        lidarutil({"--model", "Wren", "--rs485", "/dev/no-such-line", "--uart", "/dev/no", "info"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_TRUE(missing.err.contains("Connection Failed. Please check your RS485 serial port."));
    EXPECT_TRUE(missing.err.contains("no such device")) << missing.err.toStdString();
    for (const QStringList& bad :
         {QStringList{"--model", "Wren", "--rs485", "/dev/x", "info"},
          QStringList{"--model", "Wren", "--host", "10.0.0.1", "info"},
          QStringList{"--model", "Egret", "--rs485", "/dev/x", "--uart", "/dev/y", "info"}}) {
        const Outcome refused = lidarutil(bad);
        EXPECT_EQ(refused.exitCode, 2) << bad.join(' ').toStdString();
        EXPECT_FALSE(refused.err.contains("connecting")) << refused.err.toStdString();
    }
}

TEST(LidarutilWren, TheWrenCommandsCheckTheirValuesFirst) {
    const Outcome safety = lidarutil({"--model", "Wren", "wren", "safety"});
    ASSERT_EQ(safety.exitCode, 0) << safety.err.toStdString();
    EXPECT_EQ(lines(safety.out), QStringList({"state=Normal", "fault_codes="}));
    const Outcome standby = lidarutil({"--model", "Wren", "wren", "standby", "on"});
    EXPECT_EQ(standby.exitCode, 0);
    EXPECT_TRUE(standby.err.contains("set lidar mode successful"));
    // A rate the catalogue does not offer is sent as designed, after a warning naming its rates.
    const Outcome oddRate = lidarutil({"--model", "Wren", "wren", "spin-rate", "7"});
    EXPECT_EQ(oddRate.exitCode, 0);
    EXPECT_TRUE(lines(oddRate.err)
                    .value(0)
                    .startsWith("warning: 7 is not one of the catalogue's spin rates (5, 10, 20)"))
        << oddRate.err.toStdString();
    const Outcome rate = lidarutil({"--model", "Wren", "wren", "spin-rate", "10"});
    EXPECT_EQ(rate.exitCode, 0);
    EXPECT_FALSE(rate.err.contains("warning")) << rate.err.toStdString();
    // The return modes carry the catalogue's names: what is set is read back under that name.
    for (const char* mode : {"Last", "strongest"}) {
        const Outcome set = lidarutil({"--model", "Wren-VRC", "wren", "return-mode", mode});
        EXPECT_EQ(set.exitCode, 0) << set.err.toStdString();
    }
    const Outcome dual = lidarutil({"--model", "Wren", "wren", "return-mode", "dual"});
    EXPECT_EQ(dual.exitCode, 2);
    EXPECT_TRUE(dual.err.contains("wren return-mode takes strongest or last"))
        << dual.err.toStdString();

    // 300 would reach the lidar as 44; an unknown mode or a VRC-only setting on the serial lines
    // is refused before anything connects.
    for (const QStringList& bad :
         {QStringList{"--model", "Wren", "wren", "spin-rate", "300"},
          QStringList{"--model", "Wren", "wren", "return-mode", "triple"},
          QStringList{"--model", "Wren", "wren", "baud"},
          QStringList{"--model", "Egret", "wren", "safety"},
          QStringList{"--model", "Wren-VRC", "wren", "destination", "10.0.0.300", "2368"},
          QStringList{"--model", "Wren-VRC", "wren", "destination", "010.1.2.3", "2368"},
          QStringList{"--model", "Wren-VRC", "wren", "baud", "abc"},
          QStringList{"--model", "Wren", "log", "Device Log"},
          QStringList{"--model", "Wren", "oplog", "/tmp/ops"},
          QStringList{"--model", "Wren", "--rs485", "/dev/x", "--uart", "/dev/x", "info"}}) {
        const Outcome refused = lidarutil(bad);
        EXPECT_EQ(refused.exitCode, 2) << bad.join(' ').toStdString();
        EXPECT_FALSE(refused.err.contains("connecting")) << refused.err.toStdString();
    }

    const Outcome unknown = lidarutil({"--model", "Wren", "wren", "foo"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(unknown.err.contains("wren needs one of its commands: standby, spin-rate,"))
        << unknown.err.toStdString();

    const Outcome baud = lidarutil({"--model", "Wren-VRC", "wren", "baud"});
    ASSERT_EQ(baud.exitCode, 0) << baud.err.toStdString();
    EXPECT_EQ(lines(baud.out), QStringList({"baud_rate=3000000"}));
    const Outcome destination =
        lidarutil({"--model", "Wren-VRC", "--json", "wren", "destination-config"});
    ASSERT_EQ(destination.exitCode, 0) << destination.err.toStdString();
    EXPECT_TRUE(destination.out.contains("\"destination\": \"192.168.1.100\""))
        << destination.out.toStdString();
    const Outcome net = lidarutil({"--model", "Wren-VRC", "wren", "net", "192.168.1.50",
                                   "255.255.255.0", "192.168.1.1", "--vlan", "12"});
    EXPECT_EQ(net.exitCode, 0) << net.err.toStdString();
    EXPECT_TRUE(net.err.contains("Set Lidar Successfully")) << net.err.toStdString();
}

TEST(LidarutilWren, SwappedOrDoubleNamedLinesAreNamedAsSuch) {
    sim::SerialLidarSimulator::Options options;
    options.configDir = testsupport::SourceDir() + "/Config";
    sim::SerialLidarSimulator wren(options);
    std::string error;
    ASSERT_TRUE(wren.Start(&error)) << error;
    const QString rs485 = QString::fromStdString(wren.Rs485Path());
    const QString uart = QString::fromStdString(wren.UartPath());

    // The point-cloud stream comes in where replies are awaited.
    const Outcome swapped =
        lidarutil({"--model", "Wren", "--rs485", uart, "--uart", rs485, "read", "Settings"});
    EXPECT_EQ(swapped.exitCode, 1);
    EXPECT_TRUE(swapped.err.contains("bytes that were not a reply arrived on " + rs485 +
                                     ", the UART line: are the two lines swapped?"))
        << swapped.err.toStdString();

    // One device under two names, one of them a link as /dev/serial/by-id gives.
    QTemporaryDir dir;
    const QString link = dir.filePath("usb-adapter-port0");
    ASSERT_TRUE(QFile::link(rs485, link));
    const Outcome same =
        lidarutil({"--model", "Wren", "--rs485", rs485, "--uart", link, "read", "Settings"});
    EXPECT_EQ(same.exitCode, 2);
    EXPECT_TRUE(same.err.contains("--rs485 and --uart name the same device"))
        << same.err.toStdString();
}

TEST(LidarutilWren, AVrcOverSerialLidarThatDoesNotAnswerAtConnectIsNotConnected) {
    sim::LidarSimulator::Options options;
    options.model = "Wren-VRC";
    options.configDir = testsupport::SourceDir() + "/Config";
    sim::LidarSimulator lidar(options);
    std::string error;
    ASSERT_TRUE(lidar.Start(&error)) << error;
    const QString port = QString::number(lidar.Port());
    lidar.SetFault(0xB1, sim::Fault{sim::Fault::Kind::kCloseMidReply, 0, 0, 0});
    const Outcome silent = lidarutil(
        {"--model", "Wren-VRC", "--host", "127.0.0.1", "--port", port, "wren", "standby", "on"});
    EXPECT_EQ(silent.exitCode, 1);
    EXPECT_TRUE(
        silent.err.contains("error: the lidar did not answer at connect (the serial "
                            "baud-rate command: the lidar closed the connection"))
        << silent.err.toStdString();
    EXPECT_FALSE(silent.err.contains("ret:")) << silent.err.toStdString();

    // A lidar that answers with a refusal is reachable: a warning, and the command runs.
    lidar.SetFault(0xB1, sim::Fault{sim::Fault::Kind::kStatus, 0, 1, 0});
    const Outcome refusing = lidarutil(
        {"--model", "Wren-VRC", "--host", "127.0.0.1", "--port", port, "wren", "standby", "on"});
    EXPECT_EQ(refusing.exitCode, 0) << refusing.err.toStdString();
    EXPECT_TRUE(refusing.err.contains("warning: the lidar refused the serial baud rate"))
        << refusing.err.toStdString();
}

TEST(LidarutilWren, TheVrcOverSerialModelsReadSetAndWatchAsTheNetworkOnesDo) {
    const Outcome read = lidarutil({"--model", "Wren-VRC", "read", "Operation"});
    ASSERT_EQ(read.exitCode, 0) << read.err.toStdString();
    EXPECT_TRUE(read.out.contains(QRegularExpression("Spin Rate +10 \\(10 Hz\\)")))
        << read.out.toStdString();
    const Outcome set = lidarutil({"--model", "Wren-VRC", "set", "Return Mode=Last"});
    ASSERT_EQ(set.exitCode, 0) << set.err.toStdString();
    EXPECT_EQ(lines(set.out), QStringList({"Return Mode=1 (Last)"}));
    const Outcome watch = lidarutil({"--model", "Wren-VRC", "watch", "--count", "1"});
    ASSERT_EQ(watch.exitCode, 0) << watch.err.toStdString();
    EXPECT_TRUE(watch.out.contains("Board Temperature=35.40")) << watch.out.toStdString();

    const Outcome heron = lidarutil({"--model", "Heron-VRC", "info"});
    EXPECT_TRUE(lines(heron.out).contains("Base-Board FPGA Version=BF-2.3.1"))
        << heron.out.toStdString();
    const Outcome heronSet =
        lidarutil({"--model", "Heron-VRC", "set", "IMU Angular Range=4000 dps"});
    ASSERT_EQ(heronSet.exitCode, 0) << heronSet.err.toStdString();
    EXPECT_EQ(lines(heronSet.out), QStringList({"IMU Angular Range=8 (4000 dps)"}));
}

}  // namespace
