// The command console against the simulator: raw commands, their formatted replies, the history
// and its file.

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QUrl>
#include <tuple>

#include "e2e_support.h"
#include "sdk/vrc_frame.h"

using namespace testsupport;

namespace {

std::string Hex(const std::vector<uint8_t>& bytes, size_t first, size_t count) {
    std::string text;
    char pair[4];
    for (size_t i = first; i < first + count; ++i) {
        std::snprintf(pair, sizeof pair, i == first ? "%02X" : " %02X", bytes[i]);
        text += pair;
    }
    return text;
}

std::unique_ptr<sim::LidarSimulator> StartWithLogSize(size_t bytes) {
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = SourceDir() + "/Config";
    options.logBytes = bytes;
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    EXPECT_TRUE(simulator->Start());
    return simulator;
}

class ConsoleTest : public ::testing::Test {
  protected:
    PrivateConfigRoot root_;
};

TEST_F(ConsoleTest, RawCommandShowsTheFormattedReplyAndIsRecorded) {
    auto simulator = StartWithLogSize(1500);
    ManagerSession session("Egret", root_.root());
    ASSERT_TRUE(session.Connect(simulator->Port()));
    LidarUtilitiesManager& m = session.m();
    QSignalSpy history(&m, &LidarUtilitiesManager::sendCommandHistoryChanged);

    m.SendCommand("0x07", "");
    const std::vector<uint8_t> info = simulator->Block(0x07);
    const std::vector<uint8_t> header =
        lidar::vrc::EncodeHeader(0x07, 0, static_cast<uint32_t>(info.size()));
    EXPECT_EQ(m.getSendVrcCommandReturnHeader().toStdString(), Hex(header, 0, 8));
    EXPECT_EQ(m.getSendVrcCommandReturnPayload().toStdString(), Hex(info, 0, info.size()));
    ASSERT_EQ(m.getCommandLogCnt(), 1);
    const QVariantMap first = m.getSendCommandHistory().front().toMap();
    EXPECT_EQ(first["send_cmd_history"].toString(), "07");
    EXPECT_EQ(first["send_payload_history"].toString(), "");
    EXPECT_TRUE(QRegularExpression("^\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d$")
                    .match(first["record_time"].toString())
                    .hasMatch())
        << first["record_time"].toString().toStdString();
    EXPECT_EQ(history.count(), 1);

    // Prefixes in any case and runs of blanks: the bytes 01 02 03 go out, the record keeps the
    // parts without prefixes. The 1500-byte log comes back cut at 1024 bytes, with the warning.
    m.SetLogBytesFlowStatus(true);
    m.SendCommand("75", "0x01   02  0X3");
    bool sentBytes = false;
    for (const std::string& line : session.LogLines())
        sentBytes = sentBytes || line.find("SEND 0x75 [11] 56 52 75 00 00 00 00 03 01 02 03") == 0;
    EXPECT_TRUE(sentBytes);
    const std::vector<uint8_t> log = simulator->LogContent({1, 2, 3});
    ASSERT_EQ(log.size(), 1500u);
    EXPECT_EQ(m.getSendVrcCommandReturnPayload().toStdString(), Hex(log, 0, 1024));
    EXPECT_TRUE(session.Shown(
        "error: WARNING: This return payload is too long, only the first 1024 bytes are "
        "displayed. For a complete payload please use the log bytes flow function."));
    EXPECT_EQ(m.getSendCommandHistory().front().toMap()["send_payload_history"].toString(),
              "01 02 3");
    EXPECT_EQ(m.getCommandLogCnt(), 2);
}

TEST_F(ConsoleTest, BadTextAndRefusedCommandsAddNoRecordAndSendNothing) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret", root_.root());
    ASSERT_TRUE(session.Connect(simulator->Port()));
    LidarUtilitiesManager& m = session.m();
    m.SendCommand("0x07", "");
    ASSERT_FALSE(m.getSendVrcCommandReturnHeader().isEmpty());
    QSignalSpy history(&m, &LidarUtilitiesManager::sendCommandHistoryChanged);
    simulator->ResetCounters();

    m.SendCommand("zz", "");
    EXPECT_TRUE(session.Shown("error: Incorrect VRC header was entered. Parsing failed."));
    EXPECT_EQ(m.getSendVrcCommandReturnHeader(), "");
    EXPECT_EQ(m.getSendVrcCommandReturnPayload(), "");
    // A number followed by a stray letter is not taken as the number.
    m.SendCommand("0x1g", "");
    m.SendCommand("FFFFFFFFFF", "");
    // Above a byte: refused rather than cut to its low 8 bits (125 would be 0x25, a reset).
    m.SendCommand("125", "");
    m.SendCommand("0x07", "01 0xzz");
    EXPECT_TRUE(session.Shown("error: Incorrect VRC payload was entered. Parsing failed."));
    m.SendCommand("0x31", "0x1234");
    EXPECT_TRUE(simulator->RequestCounts().empty());
    EXPECT_EQ(history.count(), 6);

    simulator->SetFault(0x07, sim::Fault{sim::Fault::Kind::kStatus, 0, 5});
    m.SendCommand("07", "");
    EXPECT_TRUE(session.Shown(
        "error: Query vrc command fail. Please input right vrc command header and payload."));
    EXPECT_EQ(m.getCommandLogCnt(), 1);
    EXPECT_EQ(history.count(), 7);
}

TEST_F(ConsoleTest, RestartAndResetCommandsStopTheConnection) {
    for (const auto& [header, code, message] : {std::tuple{"0x10", 0x10, "success: Lidar restart."},
                                                std::tuple{"25", 0x25, "success: Lidar reset."}}) {
        auto simulator = StartSimulator("Egret");
        ManagerSession session("Egret", root_.root());
        ASSERT_TRUE(session.Connect(simulator->Port()));
        session.m().SendCommand(header, "");
        EXPECT_FALSE(session.m().getIsConnected()) << header;
        EXPECT_TRUE(session.Shown(message)) << header;
        EXPECT_EQ(simulator->RequestCount(code), 1u);
        // Not connected any more: the console says nothing and sends nothing.
        const size_t shown = session.Messages().size();
        session.m().SendCommand("0x07", "");
        EXPECT_EQ(session.Messages().size(), shown);
    }
}

TEST_F(ConsoleTest, APayloadOfExactly1024BytesIsShownWholeWithoutAWarning) {
    auto simulator = StartSimulator("Egret");
    ManagerSession session("Egret", root_.root());
    ASSERT_TRUE(session.Connect(simulator->Port()));
    for (const size_t size : {size_t{1024}, size_t{1025}}) {
        std::vector<uint8_t> block(size);
        for (size_t n = 0; n < size; ++n) block[n] = static_cast<uint8_t>(n * 13);
        simulator->ReplaceBlock(0x07, {}, block);
        session.ClearSpies();
        session.m().SendCommand("07", "");
        EXPECT_EQ(session.m().getSendVrcCommandReturnPayload().toStdString(), Hex(block, 0, 1024))
            << size;
        EXPECT_EQ(session.Messages().size(), size > 1024 ? 1u : 0u) << size;
    }
}

TEST_F(ConsoleTest, HistoryKeepsTenAndSurvivesItsFile) {
    auto simulator = StartSimulator("Egret");
    {
        ManagerSession session("Egret", root_.root());
        ASSERT_TRUE(session.Connect(simulator->Port()));
        for (int n = 0; n < 11; ++n)
            session.m().SendCommand("0x75", QString("00 %1").arg(n, 2, 16, QChar('0')));
        const QVariantList history = session.m().getSendCommandHistory();
        ASSERT_EQ(history.size(), 10);
        EXPECT_EQ(history.front().toMap()["send_payload_history"].toString(), "00 0a");
        EXPECT_EQ(history.back().toMap()["send_payload_history"].toString(), "00 01");
        session.m().WriteCommandLogToLocalCommandFile();
    }
    const std::string file = root_.file("Config/command_log_file.csv");
    EXPECT_EQ(ReadFile(file).substr(0, 26), "Time,Command Code,Payload\n");

    ManagerSession later("Egret", root_.root());
    later.m().GetLocalCommandFileLog();
    const QVariantList loaded = later.m().getSendCommandHistory();
    ASSERT_EQ(loaded.size(), 10);
    EXPECT_EQ(loaded.front().toMap()["send_payload_history"].toString(), "00 0a");
    EXPECT_EQ(loaded.back().toMap()["send_payload_history"].toString(), "00 01");
    EXPECT_EQ(loaded.front().toMap()["send_cmd_history"].toString(), "75");
}

TEST_F(ConsoleTest, HistoryFileQuotingLimitAndMissingColumn) {
    const std::string file = root_.file("Config/command_log_file.csv");
    std::string text =
        "Time,Command Code,Payload\n\"2026-01-02 03:04:05, local\",07,\"01 \"\"02\"\"\"\n";
    for (int n = 0; n < 13; ++n) text += "2026-01-02 03:04:05,0" + std::to_string(n % 10) + ",\n";
    WriteFile(file, text);
    ManagerSession session("Egret", root_.root());
    LidarUtilitiesManager& m = session.m();
    m.GetLocalCommandFileLog();
    ASSERT_EQ(m.getCommandLogCnt(), 10);  // fourteen rows, the ten from the top
    QVariantMap first = m.getSendCommandHistory().front().toMap();
    EXPECT_EQ(first["record_time"].toString(), "2026-01-02 03:04:05, local");
    EXPECT_EQ(first["send_payload_history"].toString(), "01 \"02\"");
    m.WriteCommandLogToLocalCommandFile();
    m.GetLocalCommandFileLog();
    ASSERT_EQ(m.getCommandLogCnt(), 10);
    first = m.getSendCommandHistory().front().toMap();
    EXPECT_EQ(first["record_time"].toString(), "2026-01-02 03:04:05, local");
    EXPECT_EQ(first["send_payload_history"].toString(), "01 \"02\"");

    WriteFile(file, "Time,Command Code\n2026-01-02 03:04:05,07\n");
    m.GetLocalCommandFileLog();
    EXPECT_EQ(m.getCommandLogCnt(), 0);
    EXPECT_FALSE(m.commandHistoryLoaded());
    EXPECT_TRUE(
        session.LogHas("Command history not loaded: Can't find a column named Payload (line 1 of "
                       "./Config/command_log_file.csv)|ERROR"));

    // A missing file is created empty and adds nothing.
    QFile::remove(QString::fromStdString(file));
    m.GetLocalCommandFileLog();
    EXPECT_EQ(m.getCommandLogCnt(), 0);
    EXPECT_TRUE(m.commandHistoryLoaded());
    EXPECT_TRUE(FileExists(file));
}

// A file that cannot be read whole is named with its line and moved aside before the next write,
// under a name no earlier file has: the records it may hold are never overwritten.
TEST_F(ConsoleTest, AnUnreadableHistoryFileIsMovedAsideNotOverwritten) {
    const std::string file = root_.file("Config/command_log_file.csv");
    const std::string unclosed =
        "Time,Command Code,Payload\n2026-01-02 03:04:05,07,01\n2026-01-02 03:04:06,\"08,02\n"
        "2026-01-02 03:04:07,09,\n";
    ManagerSession session("Egret", root_.root());
    LidarUtilitiesManager& m = session.m();
    for (const char* aside :
         {"Config/command_log_file.csv.unreadable", "Config/command_log_file.csv.unreadable-2"}) {
        WriteFile(file, unclosed);
        m.GetLocalCommandFileLog();
        EXPECT_EQ(m.getCommandLogCnt(), 1);
        EXPECT_FALSE(m.commandHistoryLoaded());
        EXPECT_TRUE(
            session.LogHas("Command history read only in part: a quote opened on line 3 of "
                           "./Config/command_log_file.csv is never closed; the 1 record(s) before "
                           "it were kept|ERROR"));
        m.WriteCommandLogToLocalCommandFile();
        EXPECT_EQ(ReadFile(root_.file(aside)), unclosed) << aside;
        EXPECT_TRUE(session.LogHas(
            "Command history file ./Config/command_log_file.csv could not be read whole; it was "
            "moved aside to ./Config/" +
            std::string(aside).substr(7) + "|WARNING"));
        m.GetLocalCommandFileLog();
        EXPECT_TRUE(m.commandHistoryLoaded());
        EXPECT_EQ(m.getCommandLogCnt(), 1);
    }

    // A folder in the file's place: named as such, left alone, and nothing written.
    QFile::remove(QString::fromStdString(file));
    ASSERT_TRUE(QDir().mkpath(QString::fromStdString(file)));
    m.GetLocalCommandFileLog();
    EXPECT_FALSE(m.commandHistoryLoaded());
    EXPECT_TRUE(session.LogHas(
        "Command history not loaded: ./Config/command_log_file.csv is a folder, not a file|ERROR"));
    m.WriteCommandLogToLocalCommandFile();
    EXPECT_TRUE(session.LogHas(
        "Command history not saved: cannot write ./Config/command_log_file.csv: Is a "
        "directory|ERROR"));
    EXPECT_TRUE(QFileInfo(QString::fromStdString(file)).isDir());
}

// The serial consoles refuse, with the design's words, while an upgrade runs over the same client.
TEST_F(ConsoleTest, TheVrcSerialConsoleRefusesWhileAnUpgradeRuns) {
    auto simulator = StartSimulator("Wren-VRC");
    ManagerSession session("Wren-VRC", root_.root());
    ASSERT_TRUE(session.Connect(simulator->Port()));
    LidarUtilitiesManager& m = session.m();
    // The transfer waits before it fails at its end: the upgrade still runs when the command comes.
    simulator->SetFault(0xB7, sim::Fault{sim::Fault::Kind::kCrcMismatch, 1500, 0, 0});
    TempDir dir;
    WriteFile(dir.file("wren.bin"), std::string(4096, 'W'));
    m.WrenSetUpgradeMode(1);
    ASSERT_EQ(m.WrenUpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(dir.file("wren.bin")))),
              0);
    ASSERT_TRUE(m.getIsUpgrading());
    m.SendCommand("0x07", "");
    EXPECT_TRUE(session.Shown("error: lidar is not connected, or lidar is upgrade"));
    EXPECT_EQ(m.getCommandLogCnt(), 0);
    EXPECT_EQ(simulator->RequestCount(0xB8), 0u);
    ASSERT_TRUE(WaitFor([&] { return !m.getIsUpgrading(); }, 10000));
    m.waitForWorkers();
}

}  // namespace
