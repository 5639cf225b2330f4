// The manager without a device: settings, messages, model listing and loading, lookups, caches.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QStandardPaths>

#include "lidar_utilities_manager.h"
#include "manager_test_access.h"
#include "sdk/logger.h"
#include "test_support.h"

using testsupport::ScopedCwd;
using testsupport::SpyTexts;
using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

const char* kHeader =
    "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,offset,"
    "type,hidden,switch_var,name_suffix,log_list,timer_update\n";

void removeSettings() {
    QFile::remove(testsupport::SettingsFilePath());
}

// A tree of small catalogues: Alpha and Wren in folders, Beta in the root.
void writeCatalogues(const std::string& root) {
    const std::string alpha = std::string(kHeader) +
                              "Net,Main,a1,Address,IP,0x08,0x21,0,0,4,1,0,,,1,0\n"
                              "Net,Main,a2,Secret,uint8,0x08,,4,0,1,1,1,,,0,0\n"
                              "Net,Main,a3,Speed,uint16,0x30,0x31,0,0,2,2,0,,,0,0\n"
                              "Net,Main,a4,Mode,uint8,0x30,0x31,2,2,1,2,0,a3,,0,0\n"
                              "Status,Temps,a5,Temp,int16,0x40,,0,0,2,0,0,,\" (C)\",0,1\n";
    WriteFile(root + "/Config/varID/Alpha/Alpha.csv", alpha);
    WriteFile(root + "/Config/varID/Alpha.csv", alpha);  // the folder form wins
    WriteFile(root + "/Config/varID/Beta.csv",
              std::string(kHeader) + "M,P,b1,Only,uint8,0x30,,0,0,1,0,0,,,0,0\n");
    WriteFile(root + "/Config/varID/gamma.CSV", kHeader);
    WriteFile(root + "/Config/varID/x.tar.csv", kHeader);
    WriteFile(root + "/Config/varID/Wren/Wren.csv",
              std::string(kHeader) + "Info,Page,w1,Serial,SN,0x01,,0,0,8,0,0,,,0,0\n");
    WriteFile(root + "/Config/varID/Empty/readme.txt", "no catalogue here");
}

QStringList toStrings(const QVariantList& list) {
    QStringList out;
    for (const QVariant& v : list) out << v.toString();
    return out;
}

}  // namespace

TEST(ManagerSettings, DefaultsPersistenceAndSetters) {
    removeSettings();
    LidarUtilitiesManager fresh(7, "/a/b/Model_X.csv");
    EXPECT_EQ(fresh.getIpAddress(), "192.168.1.201");
    EXPECT_EQ(fresh.getPort(), "9347");
    EXPECT_EQ(fresh.serial_port_485(), "/dev/ttyUSB0");
    EXPECT_EQ(fresh.serial_port_232(), "/dev/ttyUSB1");
    EXPECT_EQ(fresh.baud_rate(), "3000000");
    EXPECT_EQ(fresh.getUdpPort(), "2368");
    EXPECT_EQ(fresh.getVrcClientHostPort(), "ANY");
    EXPECT_EQ(fresh.getLidarModelFromLidar(), "");
    EXPECT_EQ(fresh.getCreationTag(), 7);
    EXPECT_EQ(fresh.getFovList().first().toString(), "0.0");
    EXPECT_EQ(fresh.getFovList().last().toString(), "360.0");

    fresh.set_baud_rate("abc");
    EXPECT_EQ(fresh.baud_rate(), "0");
    QSignalSpy log(&fresh, &LidarUtilitiesManager::sendLogMessage);
    fresh.setUdpPort("4000");
    EXPECT_EQ(fresh.getUdpPort(), "4000");
    fresh.setUdpPort("70001 ports");  // the leading number, its low 16 bits
    EXPECT_EQ(fresh.getUdpPort(), "4465");
    EXPECT_TRUE(log.isEmpty());
    fresh.setUdpPort("4000");
    fresh.setUdpPort("abc");
    fresh.setUdpPort("99999999999");
    EXPECT_EQ(fresh.getUdpPort(), "4000") << "a text that is not a number changes nothing";
    EXPECT_EQ(SpyTexts(log), (std::vector<std::string>{
                                 "UDP port not changed: \"abc\" is not a number|ERROR",
                                 "UDP port not changed: \"99999999999\" is out of range|ERROR"}));
    fresh.setIpAddress("10.1.2.3");
    EXPECT_FALSE(QFile::exists(testsupport::SettingsFilePath()))
        << "setters never write the settings file";

    {
        QSettings settings(testsupport::SettingsFilePath(), QSettings::IniFormat);
        settings.setValue("device_ip_address", "127.0.0.9");
        settings.setValue("vrc_port", "1234");
        settings.setValue("point_cloud_baudrate", "115200");
        settings.setValue("udp_port", 65537);
    }
    LidarUtilitiesManager loaded(0, "");
    EXPECT_EQ(loaded.getIpAddress(), "127.0.0.9");
    EXPECT_EQ(loaded.getPort(), "1234");
    EXPECT_EQ(loaded.baud_rate(), "115200");
    EXPECT_EQ(loaded.getUdpPort(), "1") << "only the low 16 bits of udp_port are kept";
    EXPECT_EQ(loaded.serial_port_485(), "/dev/ttyUSB0") << "absent keys keep their defaults";
    removeSettings();
}

TEST(ManagerSettings, SingletonIgnoresLaterArguments) {
    LidarUtilitiesManager* first = LidarUtilitiesManager::getInstance(1, "first.csv");
    LidarUtilitiesManager* second = LidarUtilitiesManager::getInstance(2, "second.csv");
    EXPECT_EQ(first, second);
    EXPECT_EQ(second->getCreationTag(), 1);
    EXPECT_EQ(second->getCurrentConfigPath(), "first.csv");
}

TEST(ManagerMessages, SettersSignalsAndByteFlowFilter) {
    LidarUtilitiesManager m(0, "");
    QSignalSpy errors(&m, &LidarUtilitiesManager::errorMessageChanged);
    QSignalSpy successes(&m, &LidarUtilitiesManager::successMessageChanged);
    QSignalSpy log(&m, &LidarUtilitiesManager::sendLogMessage);

    m.showErrorMessage("Broken");
    m.setErrorMsg("");
    EXPECT_EQ(m.getErrorMessage(), "");
    EXPECT_EQ(errors.count(), 1) << "clearing with \"\" does not notify";
    m.showErrorMessage("");
    EXPECT_EQ(errors.count(), 2) << "showErrorMessage always notifies";
    m.setSuccessMsg("Done");
    m.setSuccessMsg("");
    EXPECT_EQ(successes.count(), 1);

    m.logMessageHandler("dropped: byte flow off");
    m.SetLogBytesFlowStatus(true);
    m.logMessageHandler("SEND 0x07");
    m.setIsDownloadLog(true);
    m.logMessageHandler("dropped: log download running");
    m.setIsDownloadLog(false);
    ManagerTestAccess::setUpgrading(m, true);
    m.logMessageHandler("dropped: upgrade over VRC");
    ManagerTestAccess::setUpgrading(m, false);
    m.writeLogMessage("plain", "WARNING");
    using Level = LidarUtilitiesManager::LogLevel;
    m.writeLogMessage("i", Level::kInfo);
    m.writeLogMessage("w", Level::kWarning);
    m.writeLogMessage("e", Level::kError);
    EXPECT_EQ(SpyTexts(log), (std::vector<std::string>{"SEND 0x07|BYTES", "plain|WARNING", "i|INFO",
                                                       "w|WARNING", "e|ERROR"}));
}

TEST(ManagerMessages, DeveloperLinesGoToTheFrontEndsSinkElseToStandardOutput) {
    struct SinkReset {  // the sink is process-wide: the next test gets standard output back
        ~SinkReset() { LidarUtilitiesManager::setDeveloperLineSink(nullptr); }
    } reset;
    LidarUtilitiesManager m(0, "");
    std::vector<std::string> sunk;
    LidarUtilitiesManager::setDeveloperLineSink(
        [&sunk](const std::string& line) { sunk.push_back(line); });
    testing::internal::CaptureStdout();
    m.setVrcClientLogCallback();  // no client yet: says so
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(sunk, (std::vector<std::string>{"VrcClient haven't initialized"}));

    LidarUtilitiesManager::setDeveloperLineSink(nullptr);
    testing::internal::CaptureStdout();
    m.setVrcClientLogCallback();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "VrcClient haven't initialized\n");
    EXPECT_EQ(sunk.size(), 1u);
}

TEST(ManagerCatalogue, ListingPinningAndLoading) {
    TempDir dir;
    writeCatalogues(dir.path());
    ScopedCwd cwd(dir.path());
    LidarUtilitiesManager m(0, "");

    EXPECT_EQ(toStrings(m.getLidarModelList()),
              (QStringList{"Alpha", "Beta", "gamma", "Wren", "x"}));

    QSignalSpy changed(&m, &LidarUtilitiesManager::lidarModelChanged);
    QSignalSpy kind(&m, &LidarUtilitiesManager::connectTypeChanged);
    m.InitConfigFileParser("Alpha");
    EXPECT_EQ(m.getConnectType(), 0);
    EXPECT_EQ(m.getCurrentConfigPath(), "./Config/varID/Alpha/Alpha.csv");
    EXPECT_EQ(m.getSelectLidarModel(), "Alpha");
    EXPECT_EQ(changed.count(), 1);
    m.InitConfigFileParser("Alpha");
    EXPECT_EQ(changed.count(), 1) << "reloading the loaded model announces nothing";
    EXPECT_EQ(kind.count(), 1);

    VarInfo* speed = m.searchVarPtr("Speed", "var_name");
    ASSERT_NE(speed, nullptr);
    EXPECT_EQ(m.searchVarPtr("a3", "id"), speed);
    EXPECT_EQ(m.searchVarPtr("Speed", "colour"), nullptr);
    EXPECT_TRUE(m.CheckVarExistsInConfigFileByName("speed"));
    EXPECT_FALSE(m.CheckVarExistsInConfigFileByName(""));

    VarInfo stray;
    stray.var_id = "unknown";
    std::pair<int, int> pos;
    EXPECT_FALSE(m.resolveVarPosOffset(stray, 10, pos));
    stray.offset = 2;
    stray.get_start_pos = 5;
    ASSERT_TRUE(m.resolveVarPosOffset(stray, 10, pos));
    EXPECT_EQ(pos, std::make_pair(5, 2));

    m.InitConfigFileParser("Wren");
    EXPECT_EQ(m.getConnectType(), 1);
    EXPECT_TRUE(m.getMyMap().isEmpty()) << "serial models have no variable map";
    EXPECT_EQ(m.searchVarPtr("Speed", "var_name"), nullptr);
    VarInfo* address = nullptr;
    m.InitConfigFileParser("Alpha");
    address = m.searchVarPtr("Address", "var_name");
    EXPECT_NE(address, nullptr) << "a cached catalogue comes back after switching models";

    QSignalSpy pinned(&m, &LidarUtilitiesManager::lidarModelListChanged);
    m.InitZPModule("");
    m.InitZPModule("Nope");
    EXPECT_EQ(pinned.count(), 0);
    m.InitZPModule("Beta");
    EXPECT_EQ(pinned.count(), 1);
    EXPECT_EQ(toStrings(m.getLidarModelList()), QStringList{"Beta"});
    EXPECT_EQ(m.getZPNowName(), "Beta");
}

TEST(ManagerCatalogue, UiCachesLeaveHiddenOutAndReportBrokenSwitches) {
    TempDir dir;
    writeCatalogues(dir.path());
    ScopedCwd cwd(dir.path());
    LidarUtilitiesManager m(0, "");
    QSignalSpy log(&m, &LidarUtilitiesManager::sendLogMessage);
    m.InitConfigFileParser("Alpha");

    EXPECT_EQ(toStrings(m.level1List()), (QStringList{"Net", "Status"}));
    const QVariantList level2 = m.level2List();
    ASSERT_EQ(level2.size(), 2);
    EXPECT_EQ(toStrings(level2[1].toList()[0].toList()), (QStringList{"Temps", "Temp (C)"}));
    EXPECT_EQ(toStrings(m.logRepeaterModel()), QStringList{"Address"});

    const QVariantList map = m.getMyMap();
    ASSERT_EQ(map.size(), 2);
    const QVariantList page = map[0].toList()[0].toList();
    QStringList names;
    for (const QVariant& var : page) names << var.toMap()["var_name"].toString();
    EXPECT_EQ(names, (QStringList{"Address", "Speed", "Mode"})) << "hidden variables are left out";
    EXPECT_EQ(page[0].toMap().keys().size(), 17);
    EXPECT_EQ(page[2].toMap()["switch_index"].toString(), "");
    EXPECT_FALSE(page[1].toMap().contains("switch_index"));
    EXPECT_EQ(SpyTexts(log),
              std::vector<std::string>{
                  "config file error, Please check the configuration of type 2 of Speed|ERROR"});

    // Positions stay those of the catalogue tree, hidden rows included.
    EXPECT_EQ(m.getCurrentParser()->varTree[0][0][1]->var_name, "Secret");
    EXPECT_TRUE(m.isTimerUpdate(1, 0, 0));
    EXPECT_FALSE(m.isTimerUpdate(0, 0, 0));
    EXPECT_FALSE(m.isTimerUpdate(1, 0, 1));
    EXPECT_FALSE(m.isTimerUpdate(2, 0, 0));

    QSignalSpy mapChanged(&m, &LidarUtilitiesManager::myMapChanged);
    m.notifyMyMapChanged();
    m.notifyMyMapChanged();
    EXPECT_EQ(mapChanged.count(), 2);
    m.getMyMap();
    m.getMyMap();
    EXPECT_EQ(log.count(), 2) << "the map is rebuilt once after notifications, and reports again";
}

TEST(ManagerCatalogue, TrimRemovesOnlyNulBytes) {
    EXPECT_EQ(LidarUtilitiesManager::trim(std::string("AB\0\0", 4)), "AB");
    EXPECT_EQ(LidarUtilitiesManager::trim(std::string("\0\0", 2)), "");
    EXPECT_EQ(LidarUtilitiesManager::trim(std::string("\0 A \0", 5)), " A ");
    EXPECT_EQ(LidarUtilitiesManager::trim(""), "");
    EXPECT_TRUE(LidarUtilitiesManager::isNum("42"));
    EXPECT_FALSE(LidarUtilitiesManager::isNum("4.2"));
}

TEST(ManagerCatalogue, ShippedModelsLoadWithoutRejectedRows) {
    ScopedCwd cwd(testsupport::SourceDir());
    LidarUtilitiesManager m(0, "");
    const QStringList models = toStrings(m.getLidarModelList());
    EXPECT_EQ(models, (QStringList{"Egret", "Heron-VRC", "Plover", "Tern", "Wren", "Wren-VRC"}));
    const std::map<QString, int> kinds = {{"Egret", 0}, {"Heron-VRC", 2}, {"Plover", 0},
                                          {"Tern", 0},  {"Wren", 1},      {"Wren-VRC", 2}};
    for (const QString& model : models) {
        m.InitConfigFileParser(model);
        ASSERT_NE(m.getCurrentParser(), nullptr);
        EXPECT_GT(m.getCurrentParser()->AllVars().size(), 5u) << model.toStdString();
        EXPECT_EQ(m.getCurrentParser()->RejectedRowCount(), 0) << model.toStdString();
        EXPECT_EQ(m.getConnectType(), kinds.at(model)) << model.toStdString();
    }
    m.InitConfigFileParser("Egret");
    EXPECT_GE(m.getMonitorHwVersionList().size(), 2);
    EXPECT_GE(m.getMonitorModuleIndex(), 0);
    EXPECT_EQ(m.getCurrentMonitorHwVersion(), m.getMonitorHwVersionList().first());
}

TEST(ManagerCatalogue, FirmwareUpgradeVariableIsTheCataloguesUpgradeCommand) {
    ScopedCwd cwd(testsupport::SourceDir());
    LidarUtilitiesManager m(0, "");
    EXPECT_TRUE(m.firmwareUpgradeVariable().isEmpty()) << "no model loaded";
    for (const QString& model : {QString("Egret"), QString("Tern"), QString("Heron-VRC")}) {
        m.InitConfigFileParser(model);
        const QVariantList at = m.firmwareUpgradeVariable();
        ASSERT_EQ(at.size(), 3) << model.toStdString();
        const VarInfo* var =
            m.getCurrentParser()->varTree.at(at[0].toInt()).at(at[1].toInt()).at(at[2].toInt());
        EXPECT_EQ(var->set_cmd, "0x83") << model.toStdString();
    }
    m.InitConfigFileParser("Wren");  // upgraded by its own transfer: no such variable
    EXPECT_TRUE(m.firmwareUpgradeVariable().isEmpty());
}

// Every upgrade checks its package with this before anything is sent.
TEST(ManagerFirmware, APackageThatCannotBeSentIsNamedWithTheReason) {
    TempDir dir;
    LidarUtilitiesManager m(0, "");
    const QString folder = QString::fromStdString(dir.path());
    WriteFile(dir.path() + "/firmware.bin", "\x01");
    EXPECT_EQ(m.firmwarePackageProblem(folder + "/firmware.bin"), "");
    WriteFile(dir.path() + "/empty.bin", "");
    EXPECT_EQ(m.firmwarePackageProblem(folder + "/empty.bin"),
              "the package " + folder + "/empty.bin is empty; nothing was sent");
    EXPECT_EQ(m.firmwarePackageProblem(folder),
              "cannot read the package " + folder + ": it is a folder");
    EXPECT_EQ(m.firmwarePackageProblem(folder + "/missing.bin"),
              "cannot read the package " + folder + "/missing.bin: No such file or directory");
    ASSERT_EQ(::mkfifo((dir.path() + "/pipe").c_str(), 0600), 0);
    EXPECT_EQ(m.firmwarePackageProblem(folder + "/pipe"),
              "cannot read the package " + folder + "/pipe: it is not a regular file");
}

TEST(ManagerCatalogue, FirmwareUpgradeVariableIsTheFirstOfSeveral) {
    TempDir dir;
    WriteFile(dir.path() + "/Config/varID/Delta/Delta.csv",
              std::string(kHeader) + "Net,Main,d1,Address,IP,0x08,0x21,0,0,4,1,0,,,1,0\n" +
                  "Sys,Tools,d2,Reset,uint8,,0x25,0,0,1,1,0,,,1,0\n" +
                  "Sys,Tools,d3,Firmware,uint8,,0X83,0,0,1,1,0,,,1,0\n" +
                  "Sys,Tools,d4,Loader,uint8,,0x83,0,0,1,1,0,,,1,0\n");
    ScopedCwd cwd(dir.path());
    LidarUtilitiesManager m(0, "");
    m.InitConfigFileParser("Delta");
    EXPECT_EQ(m.firmwareUpgradeVariable(), (QVariantList{1, 0, 1}));
}
