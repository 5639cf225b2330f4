// lidarutil's ota and heron commands as a person or a script runs them: packages built and
// checked without a lidar, and the Heron upgrade and IMU range against the embedded simulator.

#include <gtest/gtest.h>
#include <signal.h>
#include <zlib.h>

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>

#include "cli_support.h"
#include "heron_ota_package.h"
#include "test_support.h"

using testsupport::lidarutil;
using testsupport::Outcome;
using testsupport::RunningLidarutil;

namespace {

std::string Bytes(size_t size, char seed) {
    std::string bytes(size, '\0');
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(seed + i * 31 + (i >> 7));
    return bytes;
}

QString Crc(const std::string& bytes) {
    const uLong crc =
        crc32(0L, reinterpret_cast<const Bytef*>(bytes.data()), static_cast<uInt>(bytes.size()));
    return "0x" +
           QString::number(static_cast<qulonglong>(crc), 16).toUpper().rightJustified(8, '0');
}

QString Path(const testsupport::TempDir& dir, const char* name) {
    return QString::fromStdString(dir.file(name));
}

TEST(LidarutilOta, PackThenInspectListsTheComponentsAndRefusesBrokenPackages) {
    testsupport::TempDir dir;
    const std::string appB = Bytes(3000, 'b'), fpga = Bytes(1500, 'f'), param = Bytes(64, 'p');
    testsupport::WriteFile(dir.file("app-b"), appB);
    testsupport::WriteFile(dir.file("fpga"), fpga);
    testsupport::WriteFile(dir.file("param"), param);
    // Anywhere: ota needs neither ./Config nor a lidar.
    const Outcome pack = lidarutil({"ota", "pack", "--bmb-app-b", "app-b", "--bmb-fpga", "fpga",
                                    "--tmb-param", "param", "-o", "heron.ota"},
                                   QString::fromStdString(dir.path()));
    ASSERT_EQ(pack.exitCode, 0) << pack.err.toStdString();
    ASSERT_EQ(QFileInfo(Path(dir, "heron.ota")).size(), 56 + 3000 + 1500 + 64);

    const Outcome inspect = lidarutil({"ota", "inspect", Path(dir, "heron.ota")});
    ASSERT_EQ(inspect.exitCode, 0) << inspect.err.toStdString();
    EXPECT_EQ(inspect.out, pack.out);
    EXPECT_FALSE(inspect.err.contains("note:")) << inspect.err.toStdString();
    EXPECT_TRUE(inspect.out.contains("flags=0x16, 3 components")) << inspect.out.toStdString();
    const QStringList rows = inspect.out.split('\n');
    ASSERT_GE(rows.size(), 5);
    // An FPGA image is sent without its first 1024 bytes: the sent CRC is of what remains.
    EXPECT_EQ(rows[2].simplified(), "BMB_APP_B 2 0 3000 " + Crc(appB) + " 3000 " + Crc(appB));
    EXPECT_EQ(rows[3].simplified(),
              "BMB_FPGA 1 3000 1500 " + Crc(fpga) + " 476 " + Crc(fpga.substr(1024)));
    EXPECT_EQ(rows[4].simplified(), "TMB_PARAM 3 4500 64 " + Crc(param) + " 64 " + Crc(param));

    const Outcome json = lidarutil({"ota", "inspect", "--json", Path(dir, "heron.ota")});
    const QJsonObject document = QJsonDocument::fromJson(json.out.toUtf8()).object();
    EXPECT_EQ(document["flags"].toInt(), 0x16);
    EXPECT_EQ(document["components"].toArray().at(1).toObject()["crc32"].toString(), Crc(fpga));
    EXPECT_EQ(document["components"].toArray().at(1).toObject()["sent_crc32"].toString(),
              Crc(fpga.substr(1024)));

    // Overlapping components, a file shorter than the header: refused with the parser's reason.
    HeronOtaPackageInfo overlap;
    overlap.flags = 0x03;
    overlap.bmb_app_a = {0, 17, true};
    overlap.bmb_app_b = {16, 8, true};
    std::vector<uint8_t> bytes = heron_ota::EncodeHeader(overlap);
    bytes.resize(bytes.size() + 32);
    testsupport::WriteFile(dir.file("overlap.ota"), std::string(bytes.begin(), bytes.end()));
    const Outcome overlapping = lidarutil({"ota", "inspect", Path(dir, "overlap.ota")});
    EXPECT_EQ(overlapping.exitCode, 1);
    EXPECT_TRUE(overlapping.err.contains("(the upgrade refuses it): Component overlap"))
        << overlapping.err.toStdString();
    // A header whose total_size is not the file's is noted, not refused (the upgrade ignores it).
    std::string resized = testsupport::ReadFile(dir.file("heron.ota"));
    resized[4] = static_cast<char>(resized[4] + 1);
    testsupport::WriteFile(dir.file("resized.ota"), resized);
    const Outcome noted = lidarutil({"ota", "inspect", Path(dir, "resized.ota")});
    EXPECT_EQ(noted.exitCode, 0);
    EXPECT_TRUE(noted.err.contains("note: the header's total_size is ")) << noted.err.toStdString();
    const Outcome missing = lidarutil({"ota", "inspect", Path(dir, "missing.ota")});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_TRUE(missing.err.contains("cannot read " + Path(dir, "missing.ota")));
    testsupport::WriteFile(dir.file("short.ota"), std::string(55, 'N'));
    const Outcome shortFile = lidarutil({"ota", "inspect", Path(dir, "short.ota")});
    EXPECT_EQ(shortFile.exitCode, 1);
    EXPECT_TRUE(shortFile.err.contains("the file holds 55 bytes, fewer than the 56 of the header"));

    const Outcome nothing = lidarutil({"ota", "pack", "-o", Path(dir, "none.ota")});
    EXPECT_EQ(nothing.exitCode, 2);
    testsupport::WriteFile(dir.file("empty"), "");
    const Outcome empty =
        lidarutil({"ota", "pack", "--tmb-fpga", Path(dir, "empty"), "-o", Path(dir, "e.ota")});
    EXPECT_EQ(empty.exitCode, 2);
    EXPECT_TRUE(empty.err.contains("TMB_FPGA's file")) << empty.err.toStdString();
    EXPECT_FALSE(QFileInfo::exists(Path(dir, "none.ota")) || QFileInfo::exists(Path(dir, "e.ota")));
    // Where the package cannot go is a usage error, in the words of every other command.
    testsupport::WriteFile(dir.file("part"), "p");
    for (const auto& [target, said] :
         {std::pair<QString, QString>{"/proc/x.ota", "cannot write into /proc: "},
          {QString::fromStdString(dir.path()), " is a folder; ota pack needs the package's"}}) {
        const Outcome refused =
            lidarutil({"ota", "pack", "--tmb-param", Path(dir, "part"), "-o", target});
        EXPECT_EQ(refused.exitCode, 2) << refused.err.toStdString();
        EXPECT_TRUE(refused.err.contains(said)) << refused.err.toStdString();
    }
}

TEST(LidarutilHeron, UpgradeAndImuRangeAgainstTheEmbeddedSimulator) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir.file("app-a"), Bytes(100, 'a'));
    testsupport::WriteFile(dir.file("app-b"), Bytes(5000, 'b'));
    testsupport::WriteFile(dir.file("tmb"), Bytes(2000, 't'));
    ASSERT_EQ(lidarutil({"ota", "pack", "--bmb-app-a", Path(dir, "app-a"), "--bmb-app-b",
                         Path(dir, "app-b"), "--tmb-fpga", Path(dir, "tmb"), "-o",
                         Path(dir, "heron.ota")})
                  .exitCode,
              0);
    const Outcome upgrade =
        lidarutil({"--model", "Heron-VRC", "heron", "upgrade", Path(dir, "heron.ota")});
    EXPECT_EQ(upgrade.exitCode, 0) << upgrade.err.toStdString();
    const QString err = upgrade.err;
    const int partition = err.indexOf("Heron upgrade: current partition=A");
    const int appB = err.indexOf("Heron upgrade: sending BMB_APP_B (type=0x02, size=5000)");
    const int skip = err.indexOf("Heron upgrade: skip BMB_FPGA, not found in package");
    const int tmb = err.indexOf("Heron upgrade: sending TMB_FPGA (type=0x00, size=976)");
    // The plan is made (and its skips said) before the first component goes.
    EXPECT_TRUE(partition >= 0 && partition < skip && skip < appB && appB < tmb)
        << err.toStdString();
    // Standard error is not a terminal here: the outcome follows the bar's last line.
    const int lastProgress = err.lastIndexOf("upgrade: 100% (6/6 KiB)");
    EXPECT_GT(lastProgress, tmb) << err.toStdString();
    EXPECT_GT(err.indexOf("Heron upgrade completed. Restart command has been sent."), lastProgress)
        << err.toStdString();

    // A package the upgrade refuses: said with the parser's reason before any connection.
    std::string broken = testsupport::ReadFile(dir.file("heron.ota"));
    broken[8] = static_cast<char>(0x20);  // an unknown component flag
    testsupport::WriteFile(dir.file("broken.ota"), broken);
    const Outcome refused =
        lidarutil({"--model", "Heron-VRC", "heron", "upgrade", Path(dir, "broken.ota")});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_TRUE(refused.err.contains("(the upgrade refuses it): Invalid OTA component flags"))
        << refused.err.toStdString();
    EXPECT_FALSE(refused.err.contains("connecting"));

    const Outcome imu = lidarutil({"--model", "Heron-VRC", "heron", "imu", "5", "3"});
    EXPECT_EQ(imu.exitCode, 0) << imu.err.toStdString();
    EXPECT_EQ(imu.out.trimmed(),
              "angular range 4000 dps (index 5, code 8), acceleration range 16 g (index 3, code "
              "3)");
    // A digit of another script would convert to 0: refused like any other bad index.
    for (const QString& digit : {QString::fromUtf8("\u0665"), QString::fromUtf8("\uFF15")}) {
        const Outcome foreign = lidarutil({"--model", "Heron-VRC", "heron", "imu", digit, "0"});
        EXPECT_EQ(foreign.exitCode, 2) << foreign.out.toStdString();
    }
    for (const QString& index : {QString(""), QString("99999999999")})
        EXPECT_EQ(lidarutil({"--model", "Heron-VRC", "heron", "imu", "0", index}).exitCode, 2);
    const Outcome badIndex = lidarutil({"--model", "Heron-VRC", "heron", "imu", "6", "0"});
    EXPECT_EQ(badIndex.exitCode, 2);
    EXPECT_TRUE(badIndex.err.contains("0 to 5 (0 = 125 dps,") &&
                badIndex.err.contains("5 = 4000 dps), not '6'"))
        << badIndex.err.toStdString();
    EXPECT_FALSE(badIndex.err.contains("connecting"));
    const Outcome versions = lidarutil({"--model", "Heron-VRC", "heron", "versions"});
    EXPECT_EQ(versions.exitCode, 0) << versions.err.toStdString();
    EXPECT_EQ(testsupport::lines(versions.out),
              QStringList({"model_version=HERON-M1 V1.3", "bmb_fpga_version=BF-2.3.1",
                           "tmb_fpga_version=TF-1.9.0", "bmb_mcu_version=BM-4.0.7"}));
    const Outcome restart = lidarutil({"--model", "Heron-VRC", "heron", "restart"});
    EXPECT_EQ(restart.exitCode, 0) << restart.err.toStdString();
    EXPECT_TRUE(restart.err.contains("Heron restart command sent; the lidar restarts"));
    const Outcome otherModel = lidarutil({"heron", "versions"});
    EXPECT_EQ(otherModel.exitCode, 2);
    EXPECT_TRUE(otherModel.err.contains("heron commands need --model Heron-VRC"));
}

// lidar-sim as a separate lidar with faults, writing its report of what it received at exit.
class ReportingSimulator {
  public:
    ReportingSimulator(const QStringList& faults, const QString& report) {
        QStringList arguments{"--model", "Heron-VRC", "--port", "0", "--report", report};
        for (const QString& fault : faults) arguments << "--fault" << fault;
        process_.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
        process_.start(LIDAR_BINARY_DIR "/sim/lidar-sim", arguments);
        process_.waitForReadyRead(10000);
        port_ = QString::fromUtf8(process_.readLine()).trimmed().section(':', -1);
    }
    ~ReportingSimulator() {
        process_.kill();
        process_.waitForFinished();
    }
    const QString& port() const { return port_; }
    // Interrupts it as a person does; its exit status and what it printed.
    std::pair<int, QString> Interrupt() {
        ::kill(static_cast<pid_t>(process_.processId()), SIGINT);
        process_.waitForFinished(10000);
        return {process_.exitCode(), QString::fromUtf8(process_.readAllStandardOutput())};
    }

  private:
    QProcess process_;
    QString port_;
};

TEST(LidarutilHeron, AgainstLidarSimAFailedComponentIsToldOnceAndTheSimulatorShowsWhatItGot) {
    testsupport::TempDir dir;
    const std::string appB = Bytes(5000, 'b');
    testsupport::WriteFile(dir.file("app-b"), appB);
    testsupport::WriteFile(dir.file("fpga"), Bytes(3000, 'f'));
    testsupport::WriteFile(dir.file("param"), Bytes(100, 'p'));
    ASSERT_EQ(lidarutil({"ota", "pack", "--bmb-app-b", Path(dir, "app-b"), "--bmb-fpga",
                         Path(dir, "fpga"), "--tmb-param", Path(dir, "param"), "-o",
                         Path(dir, "heron.ota")})
                  .exitCode,
              0);
    ReportingSimulator lidar({"0xC3:refuse-component=2:5", "0xC0:status=2"},
                             Path(dir, "report.json"));
    ASSERT_FALSE(lidar.port().isEmpty());
    const QStringList heron{"--model", "Heron-VRC", "--host", "127.0.0.1", "--port", lidar.port()};
    // The IMU ranges reach the lidar; the component versions it does not report are named.
    ASSERT_EQ(lidarutil(heron + QStringList{"heron", "imu", "5", "3"}).exitCode, 0);
    const Outcome read = lidarutil(heron + QStringList{"read", "Operation"});
    EXPECT_TRUE(read.out.contains(QRegularExpression("IMU Angular Range +8 \\(4000 dps\\)")) &&
                read.out.contains(QRegularExpression("IMU Acceleration Range +3 \\(16 g\\)")))
        << read.out.toStdString();
    const Outcome versions = lidarutil(heron + QStringList{"heron", "versions", "--json"});
    EXPECT_EQ(versions.exitCode, 1);
    EXPECT_EQ(
        QJsonDocument::fromJson(versions.out.toUtf8()).object()["tmb_fpga_version"].toString(),
        "xxxxxxxx");
    EXPECT_TRUE(versions.err.contains("error: the lidar did not report bmb_mcu_version"))
        << versions.err.toStdString();

    const Outcome upgrade =
        lidarutil(heron + QStringList{"heron", "upgrade", Path(dir, "heron.ota")});
    EXPECT_EQ(upgrade.exitCode, 1);
    const QString& err = upgrade.err;
    EXPECT_EQ(err.count("error: "), 1) << err.toStdString();
    EXPECT_TRUE(err.contains("error: Heron upgrade: BMB_FPGA failed, error=5"));
    EXPECT_TRUE(err.contains(
        "Heron upgrade: the lidar is left in upgrade mode with BMB_APP_B "
        "written; BMB_FPGA and TMB_PARAM were not written; run the same upgrade again"))
        << err.toStdString();
    EXPECT_TRUE(err.contains("  the lidar's last answer: the lidar answered with status 5"));
    EXPECT_FALSE(err.contains("Heron OTA package parsed"));  // the course only, without --verbose
    // The bar's total is the plan's from its first line: 5 + 2 + 1 KiB, not the file's 7.
    const QRegularExpression progressLine("upgrade: \\d+% \\(\\d+/(\\d+) KiB\\)");
    int progressLines = 0;
    int lastProgress = -1;
    for (auto match = progressLine.globalMatch(err); match.hasNext(); ++progressLines) {
        const QRegularExpressionMatch line = match.next();
        EXPECT_EQ(line.captured(1), "8") << err.toStdString();
        lastProgress = line.capturedStart();
    }
    EXPECT_GT(progressLines, 0) << err.toStdString();
    // The last line is where it stopped (BMB_APP_B's 5 KiB), at the exact percentage.
    EXPECT_EQ(err.mid(lastProgress, err.indexOf('\n', lastProgress) - lastProgress),
              "upgrade: 62% (5/8 KiB)");
    EXPECT_GT(err.indexOf("error: Heron upgrade: BMB_FPGA failed"), lastProgress)
        << err.toStdString();

    const auto [status, printed] = lidar.Interrupt();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(
        printed.contains("received 0xC3 BMB application: 5000 of 5000 bytes, CRC-32 of the "
                         "bytes received " +
                         Crc(appB) + ", 1 chunk, completed\n"))
        << printed.toStdString();
    // The component the lidar refused is listed with its status: 3000 - 1024 bytes offered.
    EXPECT_TRUE(printed.contains(
        "received 0xC3 BMB FPGA: refused with status 5 (1976 bytes announced, none taken)\n"))
        << printed.toStdString();
    EXPECT_TRUE(printed.contains("running partition: A\n"));
    EXPECT_TRUE(printed.contains(QRegularExpression("^requests: .*0xB6=1 .*0xC3=\\d+",
                                                    QRegularExpression::MultilineOption)));
    const QJsonObject report =
        QJsonDocument::fromJson(
            QByteArray::fromStdString(testsupport::ReadFile(dir.file("report.json"))))
            .object();
    const QJsonArray received = report["received"].toArray();
    ASSERT_EQ(received.size(), 2) << testsupport::ReadFile(dir.file("report.json"));
    EXPECT_EQ(received[0].toObject()["crc32"].toString(), Crc(appB));
    EXPECT_EQ(received[0].toObject()["size"].toInt(), 5000);
    EXPECT_EQ(received[0].toObject()["refused_status"].toInt(), 0);
    EXPECT_EQ(received[1].toObject()["component"].toString(), "BMB FPGA");
    EXPECT_EQ(received[1].toObject()["refused_status"].toInt(), 5);
    EXPECT_EQ(report["running_partition"].toString(), "A");
    EXPECT_EQ(report["requests"].toObject()["0xB6"].toInt(), 1);
}

TEST(LidarutilHeron, AgainstLidarSimARefusedRestartFailsAndTheReportCrcIsTheSentOne) {
    testsupport::TempDir dir;
    // A report that cannot be written is refused before the lidar starts, not lost at its end.
    QProcess unwritable;
    const QString missing = Path(dir, "missing") + "/report.json";
    unwritable.start(LIDAR_BINARY_DIR "/sim/lidar-sim",
                     {"--model", "Heron-VRC", "--port", "0", "--report", missing});
    ASSERT_TRUE(unwritable.waitForFinished(10000));
    EXPECT_EQ(unwritable.exitCode(), 2);
    EXPECT_TRUE(unwritable.readAllStandardError().contains(
        "lidar-sim: cannot write the report " + missing.toUtf8() + ": No such file or directory"));
    EXPECT_TRUE(unwritable.readAllStandardOutput().isEmpty());

    testsupport::WriteFile(dir.file("fpga"), Bytes(3000, 'f'));
    ASSERT_EQ(
        lidarutil({"ota", "pack", "--bmb-fpga", Path(dir, "fpga"), "-o", Path(dir, "heron.ota")})
            .exitCode,
        0);
    const Outcome inspect = lidarutil({"ota", "inspect", "--json", Path(dir, "heron.ota")});
    const QString sentCrc = QJsonDocument::fromJson(inspect.out.toUtf8())
                                .object()["components"]
                                .toArray()
                                .at(0)
                                .toObject()["sent_crc32"]
                                .toString();
    ReportingSimulator lidar({"0xC2:status=5"}, Path(dir, "report.json"));
    ASSERT_FALSE(lidar.port().isEmpty());
    const Outcome upgrade = lidarutil({"--model", "Heron-VRC", "--host", "127.0.0.1", "--port",
                                       lidar.port(), "heron", "upgrade", Path(dir, "heron.ota")});
    EXPECT_EQ(upgrade.exitCode, 1);
    EXPECT_TRUE(upgrade.err.contains(
        "error: the components are written but the lidar was not restarted: the lidar answered "
        "with status 5 (device failure); power-cycle the lidar to run them"))
        << upgrade.err.toStdString();
    const auto [status, printed] = lidar.Interrupt();
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(
        printed.contains("received 0xC3 BMB FPGA: 1976 of 1976 bytes, CRC-32 of the bytes "
                         "received " +
                         sentCrc + ", 1 chunk, completed\n"))
        << printed.toStdString() << inspect.out.toStdString();
}

TEST(LidarutilHeron, CtrlCTwiceInThePauseBeforeTheFirstComponentAbandonsTheUpgrade) {
    testsupport::TempDir dir;
    testsupport::WriteFile(dir.file("param"), Bytes(100, 'p'));
    ASSERT_EQ(
        lidarutil({"ota", "pack", "--tmb-param", Path(dir, "param"), "-o", Path(dir, "heron.ota")})
            .exitCode,
        0);
    RunningLidarutil upgrade({"--model", "Heron-VRC", "heron", "upgrade", Path(dir, "heron.ota")});
    ASSERT_TRUE(upgrade.waitForError("Heron upgrade: current partition=A"))
        << upgrade.err().toStdString();
    upgrade.interrupt();
    // Nothing was sent yet, and the warning says so.
    ASSERT_TRUE(upgrade.waitForError(
        "the upgrade is still running: no component has been sent yet, but the "
        "lidar is in upgrade mode and stays in it if you stop now; press Ctrl-C "
        "again to abandon it"))
        << upgrade.err().toStdString();
    upgrade.interrupt();
    EXPECT_EQ(upgrade.finish(), 1);
    EXPECT_TRUE(
        upgrade.err().contains("error: Heron upgrade abandoned: no component was sent, and the "
                               "lidar is still in upgrade mode."))
        << upgrade.err().toStdString();
    EXPECT_FALSE(upgrade.err().contains("sending")) << upgrade.err().toStdString();
}

}  // namespace
