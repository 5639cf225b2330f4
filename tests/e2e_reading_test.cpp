// Reading a simulated lidar: one request per group, every type decoded as the catalogue says,
// and the page timer refreshing only timer variables of the module in use while idle.

#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "e2e_support.h"

using testsupport::ManagerSession;
using testsupport::StartSimulator;
using testsupport::WaitFor;

namespace {

uint64_t totalRequests(const sim::LidarSimulator& lidar) {
    uint64_t total = 0;
    for (const auto& [command, count] : lidar.RequestCounts()) total += count;
    return total;
}

int moduleIndex(LidarUtilitiesManager& m, const QString& name) {
    return m.level1List().indexOf(QVariant(name));
}

// Types the generic reader leaves alone (write-only bytes) and the device logs,
// whose content the simulator makes up.
bool decodedFromCatalogueDefault(const VarInfo& var) {
    static const std::set<std::string> undecoded = {"raw"};
    return !var.get_cmd.empty() && !undecoded.count(var.var_type) && var.get_cmd != "0x75";
}

}  // namespace

TEST(Reading, ModuleReadIsOneRequestPerGroupAndDecodesEveryType) {
    std::set<std::string> typesSeen;
    for (const std::string model : {"Egret", "Plover", "Tern"}) {
        SCOPED_TRACE(model);
        auto lidar = StartSimulator(model);
        ManagerSession s(model);
        ASSERT_TRUE(s.Connect(lidar->Port()));
        ConfigParser* parser = s.m().getCurrentParser();
        const int monitor = s.m().getMonitorModuleIndex();
        // On the network kind the kind-neutral lists are the generic ones.
        EXPECT_EQ(s.m().catalogueLevel1List(), s.m().level1List());
        EXPECT_EQ(s.m().catalogueLevel2List(), s.m().level2List());
        EXPECT_EQ(s.m().catalogueVariableMap(), s.m().getMyMap());
        EXPECT_TRUE(s.m().wrenLevel1List().isEmpty());

        for (int module = 0; module < static_cast<int>(parser->varTree.size()); ++module) {
            std::set<std::string> groups;
            for (const auto& page : parser->varTree[module])
                for (const VarInfo* var : page)
                    if (!var->get_cmd.empty()) groups.insert(var->get_cmd + var->get_payload_text);
            const uint64_t before = totalRequests(*lidar);
            s.m().readModule(module);
            EXPECT_EQ(totalRequests(*lidar) - before, groups.size()) << "module " << module;

            if (module == monitor) continue;  // a monitor variant lays the block out its own way
            for (const auto& page : parser->varTree[module]) {
                for (const VarInfo* var : page) {
                    if (!decodedFromCatalogueDefault(*var)) continue;
                    EXPECT_EQ(s.m().currentValueOf(var).toStdString(), var->default_val)
                        << var->var_name << " (" << var->var_type << ")";
                    typesSeen.insert(var->var_type);
                }
            }
        }
    }
    for (const char* type :
         {"uint8", "uint16", "uint32", "uint64", "int8", "int16", "int32", "int64", "float32",
          "double", "IP", "MAC", "HWVER", "SWVER_YMD", "string", "DT"})
        EXPECT_TRUE(typesSeen.count(type)) << type << " is not exercised by a shipped catalogue";
}

TEST(Reading, SingleVariableAndUnknownNames) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    EXPECT_EQ(s.m().UpdateSingleVarInfo("IP Address", "var_name"), 0) << "not connected";
    ASSERT_TRUE(s.Connect(lidar->Port()));
    lidar->ResetCounters();
    EXPECT_EQ(s.m().UpdateSingleVarInfo("No Such Variable", "var_name"), 0);
    EXPECT_EQ(totalRequests(*lidar), 0u);
    EXPECT_NE(s.m().UpdateSingleVarInfo("IP Address", "var_name"), 0);
    EXPECT_EQ(lidar->RequestCount(0x08), 1u);
    EXPECT_EQ(s.m().currentValueOf(s.m().searchVarPtr("IP Address", "var_name")), "192.168.1.201");
}

TEST(Reading, PageTimerRefreshesTimerVariablesOnlyWhileIdle) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    // Emitted on the page thread: counted with an atomic (a QSignalSpy would race).
    std::atomic<int> refreshes{0};
    QObject::connect(&s.m(), &LidarUtilitiesManager::myTimerMapChanged,
                     [&refreshes] { ++refreshes; });
    ASSERT_TRUE(s.Connect(lidar->Port()));
    const int status = moduleIndex(s.m(), "Status");
    ASSERT_GE(status, 0);
    s.m().setModuleIndexUse(status);

    // Busy with a log download: the timer keeps counting but sends nothing.
    s.m().setIsDownloadLog(true);
    lidar->ResetCounters();
    WaitFor([] { return false; }, 3500);
    EXPECT_EQ(totalRequests(*lidar), 0u);
    EXPECT_EQ(refreshes.load(), 0);
    s.m().setIsDownloadLog(false);

    // The device's board temperature changes; the next refresh shows it.
    const VarInfo* temperature = s.m().getCurrentParser()->varTree[status][0][0];
    ASSERT_TRUE(temperature->timer_update);
    EXPECT_TRUE(s.m().isTimerVariable(status, 0, 0));
    ASSERT_EQ(temperature->var_type, "int16");
    lidar->WriteBlock(0x40, {}, temperature->get_start_pos, {0x0F, 0xA0});
    ASSERT_TRUE(WaitFor([&] { return refreshes.load() > 0; }, 6000));
    EXPECT_EQ(s.m().currentValueOf(temperature).toStdString(),
              QString::number(4000 * temperature->scale, 'f', 2).toStdString());
    for (const auto& [command, count] : lidar->RequestCounts())
        EXPECT_EQ(command, 0x40) << "only the timer block is refreshed";

    EXPECT_TRUE(s.m().isDeviceLinkOpen());
    s.m().Stop();
    EXPECT_FALSE(s.m().isDeviceLinkOpen());
    lidar->ResetCounters();
    WaitFor([] { return false; }, 3500);
    EXPECT_EQ(totalRequests(*lidar), 0u) << "no refresh after disconnecting";
}

// A member without a length is reported; the rest of its group is still decoded.
TEST(Reading, OneUndecodableMemberDoesNotBlankItsGroup) {
    const testsupport::CraftedConfig crafted("Egret",
                                             {{"spin_rate,Spin Rate,,uint16,0x30,,0x31,0,0,2,",
                                               "spin_rate,Spin Rate,,uint16,0x30,,0x31,0,0,0,"}});
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = crafted.configDir();
    sim::LidarSimulator lidar(options);
    ASSERT_TRUE(lidar.Start());
    lidar.WriteBlock(0x30, {}, 7, {0xFD});  // Noise Filter Level -3, last of the group
    ManagerSession s("Egret", crafted.root());
    ASSERT_TRUE(s.Connect(lidar.Port()));
    s.m().GetLidarModuleInfo(moduleIndex(s.m(), "Operation"));
    EXPECT_EQ(s.m().currentValueOf(s.m().searchVarPtr("Noise Filter Level", "var_name")), "-3");
    EXPECT_TRUE(
        s.LogHas("Could not decode Spin Rate: updateSingleVarFromOutput(): Error with the "
                 "input var_info|WARNING"));
}
