// The simulator's fault modes as texts: what --fault and Fault::Parse take and refuse, and that
// lidar-sim's help and docs/simulator.md name exactly the modes of the table. How each mode shows
// on the wire is tested with the simulators themselves.

#include <gtest/gtest.h>

#include <QProcess>
#include <QString>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "sim/lidar_simulator.h"
#include "test_support.h"

namespace {

// The modes of docs/simulator.md's "Fault modes" table, as written in its first column.
std::set<std::string> DocumentedModes() {
    std::istringstream doc(testsupport::ReadFile(testsupport::SourceDir() + "/docs/simulator.md"));
    const std::regex row("^\\| `([^`]+)` \\|");
    std::set<std::string> modes;
    bool inSection = false;
    for (std::string line; std::getline(doc, line);) {
        if (line.rfind("## ", 0) == 0) inSection = line == "## Fault modes";
        std::smatch match;
        if (inSection && std::regex_search(line, match, row)) modes.insert(match[1]);
    }
    return modes;
}

std::string LidarSimHelp() {
    QProcess process;
    process.start(LIDAR_BINARY_DIR "/sim/lidar-sim", {"--help"});
    EXPECT_TRUE(process.waitForFinished(10000));
    EXPECT_EQ(process.exitCode(), 0);
    return process.readAllStandardOutput().toStdString();
}

}  // namespace

TEST(SimFaultModes, EveryModeParsesWithItsValueAndBadTextsAreRefused) {
    // A value of each form (by FaultMode::Value) and the fields it sets.
    const struct {
        const char* text;
        int delayMs;
        int status;
        int count;
    } kSamples[] = {{"", 0, 0, 0},   {"=250", 250, 0, 0}, {"=7", 0, 7, 0},
                    {"=3", 0, 0, 3}, {"=2:5", 0, 5, 2},   {"=0:4", 0, 4, 0}};
    sim::Fault fault;
    for (const sim::FaultMode& mode : sim::FaultModes()) {
        const auto& sample = kSamples[static_cast<int>(mode.value)];
        const std::string text = mode.name + std::string(sample.text);
        ASSERT_TRUE(sim::Fault::Parse(text, fault)) << text;
        EXPECT_EQ(fault.kind, mode.kind) << text;
        EXPECT_EQ(fault.delayMs, sample.delayMs) << text;
        EXPECT_EQ(fault.status, sample.status) << text;
        EXPECT_EQ(fault.count, sample.count) << text;
    }
    for (const char* limit : {"delay=600000", "status=255", "drop-after-chunks=999999999",
                              "fail-chunk=999999999:255", "refuse-component-type=255:0"})
        EXPECT_TRUE(sim::Fault::Parse(limit, fault)) << limit;

    for (const char* bad : {"delay=",
                            "delay=-5",
                            "delay=600001",
                            "status=256",
                            "status=+1",
                            "no_reply",
                            "",
                            "wrong-echo=1",
                            "drop=",
                            "delay",
                            "drop-after-chunks=1000000000",
                            "fail-chunk=0:1",
                            "fail-chunk=1",
                            "refuse-component=0:5",
                            "refuse-component=2",
                            "refuse-component=2:256",
                            "refuse-component=2:",
                            "refuse-component-type=256:1",
                            "refuse-component-type=-1:1",
                            "status=1234567890"}) {
        fault.kind = sim::Fault::Kind::kDrop;
        EXPECT_FALSE(sim::Fault::Parse(bad, fault)) << bad;
        EXPECT_EQ(fault.kind, sim::Fault::Kind::kDrop) << bad << ": a refused text changes nothing";
        EXPECT_FALSE(sim::Fault::Problem(bad).empty()) << bad;
    }

    // Why a text is refused: the mode's value and the range it takes (the count's nine digits).
    const std::pair<const char*, const char*> kProblems[] = {
        {"delay=250", ""},
        {"delay=abc", "delay needs =MS (0-600000), not 'abc'"},
        {"delay", "delay needs =MS (0-600000)"},
        {"drop=1", "drop takes no value, not 'drop=1'"},
        {"status=256", "status needs =N (0-255), not '256'"},
        {"drop-after-chunks=1000000000",
         "drop-after-chunks needs =N (0-999999999), not '1000000000'"},
        {"fail-chunk=0:1", "fail-chunk needs =N:STATUS (N 1-999999999, STATUS 0-255), not '0:1'"},
        {"refuse-component-type=256:1",
         "refuse-component-type needs =T:STATUS (T 0-255, STATUS 0-255), not '256:1'"},
        {"sometimes=1", "unknown fault mode 'sometimes'"}};
    for (const auto& [text, problem] : kProblems) EXPECT_EQ(sim::Fault::Problem(text), problem);
}

TEST(SimFaultModes, LidarSimNamesTheWrongValueAndItsRangeInOneLine) {
    const std::pair<QStringList, std::string> kRefusals[] = {
        {{"--fault", "0x07:delay=abc"},
         "lidar-sim: --fault: delay needs =MS (0-600000), not 'abc'"},
        {{"--port", "70000"},
         "lidar-sim: --port needs a whole number from 0 to 65535, not '70000'"},
        {{"--fault", "0x7g:drop"},
         "lidar-sim: --fault: the command code needs a hexadecimal byte (0x00-0xFF), not '0x7g'"}};
    for (const auto& [arguments, said] : kRefusals) {
        QProcess process;
        process.start(LIDAR_BINARY_DIR "/sim/lidar-sim",
                      QStringList{"--model", "Egret"} + arguments);
        ASSERT_TRUE(process.waitForFinished(10000));
        EXPECT_EQ(process.exitCode(), 2);
        EXPECT_EQ(process.readAllStandardError().toStdString(),
                  said + "\nlidar-sim --help lists the usage\n");
    }
}

TEST(SimFaultModes, TheHelpAndTheDocsNameExactlyTheModesOfTheTable) {
    std::set<std::string> table;
    for (const sim::FaultMode& mode : sim::FaultModes()) table.insert(mode.Syntax());
    EXPECT_EQ(DocumentedModes(), table);
    const std::string help = LidarSimHelp();
    for (const std::string& mode : table)
        EXPECT_NE(help.find(" " + mode), std::string::npos) << mode << " missing from:\n" << help;
}

TEST(SimFaultModes, FaultStateTextsAreCheckedAsLidarSimTakesThem) {
    sim::SerialState state;
    ASSERT_TRUE(sim::SerialState::ParseFaultState("2", state));
    EXPECT_EQ(state.faultState, 2);
    EXPECT_TRUE(state.faultCodes.empty());
    ASSERT_TRUE(sim::SerialState::ParseFaultState("0:ffff,0X1", state));
    EXPECT_EQ(state.faultCodes, (std::vector<uint16_t>{0xFFFF, 0x0001}));
    for (const char* bad : {"", "256", "-1", "1:", "1:10000", "1:a,,b", "x", "1:0xg"}) {
        EXPECT_FALSE(sim::SerialState::ParseFaultState(bad, state)) << bad;
    }
}
