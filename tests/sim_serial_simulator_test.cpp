// lidar-sim --serial as a program, spoken to through the SDK's serial client: the two printed
// device paths, the catalogue and state behind the UART line, the fault state option, the
// point-cloud trickle, and the request counters printed on SIGINT.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "process_support.h"
#include "sdk/serial_client.h"
#include "sdk/serial_source.h"
#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

using testsupport::SimProcess;

// The path of a line printed as "NAME /dev/pts/N" exactly; empty (and a failure) otherwise.
std::string PtsPathAfter(const std::string& line, const std::string& name) {
    const std::string prefix = name + "/dev/pts/";
    const bool digits = line.size() > prefix.size() &&
                        line.find_first_not_of("0123456789", prefix.size()) == std::string::npos;
    EXPECT_TRUE(line.rfind(prefix, 0) == 0 && digits) << '"' << line << '"';
    return line.rfind(prefix, 0) == 0 && digits ? line.substr(name.size()) : "";
}

TEST(SerialSimulatorProgram, PrintsItsLinesServesTheCatalogueAndCountsRequests) {
    SimProcess sim({"--model", "Wren", "--config-dir", testsupport::SourceDir() + "/Config",
                    "--serial", "--fault-state", "1:00A1,0x0102", "--fault", "0x02:status=4"});
    const std::string rs485Path = PtsPathAfter(sim.Line(), "rs485 ");
    const std::string uartPath = PtsPathAfter(sim.Line(), "uart ");
    ASSERT_FALSE(rs485Path.empty());
    ASSERT_FALSE(uartPath.empty());

    lidar::SerialSource rs485Line(rs485Path, 115200, 3000000);
    lidar::SerialSource uartLine(uartPath, 9600, 3125000);
    uartLine.SetCommandMode(true);
    uartLine.setNeedRecv(false);
    ASSERT_TRUE(rs485Line.Open()) << rs485Line.LastError();
    ASSERT_TRUE(uartLine.Open()) << uartLine.LastError();
    lidar::SerialClient client;
    client.SetSerial(&uartLine, &rs485Line);

    Bytes reply;
    ASSERT_EQ(client.GetLidarFaultState(reply), 0) << client.LastError();
    EXPECT_EQ(reply, (Bytes{1, 0xA1, 0x00, 0x02, 0x01}));
    // The information block from the catalogue: the serial number's text at 0.
    ASSERT_EQ(client.QueryCommand(0x06, {}, reply, 0), 0);
    ASSERT_EQ(reply.size(), 8u + 96u);
    EXPECT_EQ(std::string(reply.begin() + 8, reply.begin() + 20), "WR2407300216");
    EXPECT_EQ(client.WrenSetSpinRate(20), 4);  // the --fault
    EXPECT_TRUE(testsupport::WaitFor([&] { return rs485Line.BytesReceived() > 0; }));

    uartLine.Close();
    EXPECT_EQ(sim.Stop(), 0);
    EXPECT_EQ(sim.Line(), "requests: 0x02=1 0x04=1 0x06=1");
}

}  // namespace
