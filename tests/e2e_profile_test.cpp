// Settings profiles end to end: a lidar's settings, randomised at the simulator, captured and
// applied to a second simulated lidar of every network model; the two lidars' stored blocks then
// agree byte for byte but for the fields a profile leaves alone.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "e2e_support.h"
#include "settings_profile.h"

using testsupport::ManagerSession;
using testsupport::StartSimulator;

namespace {

using Bytes = std::vector<uint8_t>;

uint8_t commandByte(const std::string& text) {
    return static_cast<uint8_t>(std::stoi(text, nullptr, 16));
}

bool isSetting(const VarInfo& var) {
    return !var.get_cmd.empty() && !var.set_cmd.empty() && var.permission != 0 &&
           var.var_type != "raw";
}

bool isFieldOfView(const VarInfo& var) {
    return var.set_cmd == "0x22";
}

std::vector<const VarInfo*> catalogueVariables(LidarUtilitiesManager& manager) {
    std::vector<const VarInfo*> vars;
    for (const auto& module : manager.getCurrentParser()->varTree)
        for (const auto& page : module)
            for (const VarInfo* var : page) vars.push_back(var);
    return vars;
}

Bytes bigEndian(uint64_t value, size_t width) {
    Bytes bytes(width);
    for (size_t i = 0; i < width; ++i)
        bytes[width - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    return bytes;
}

// A value the catalogue allows for the variable, as the device stores it.
Bytes randomValue(const VarInfo& var, std::mt19937& random) {
    const size_t width = static_cast<size_t>(var.offset);
    if (!var.options.empty())
        return bigEndian(static_cast<uint64_t>(var.options[random() % var.options.size()]), width);
    const bool limited = var.min_val != 0 && var.max_val != 0;
    const double low = limited ? var.min_val : -1000.0, high = limited ? var.max_val : 1000.0;
    const double fraction = static_cast<double>(random() % 100000) / 100000.0;
    if (var.var_type == "float32") {
        const float value = static_cast<float>(low + fraction * (high - low));
        uint32_t raw = 0;
        std::memcpy(&raw, &value, sizeof raw);
        return bigEndian(raw, width);
    }
    if (var.var_type == "double") {
        const double value = low + fraction * (high - low);
        uint64_t raw = 0;
        std::memcpy(&raw, &value, sizeof raw);
        return bigEndian(raw, width);
    }
    if (limited) {
        std::uniform_int_distribution<int> within(var.min_val, var.max_val);
        return bigEndian(static_cast<uint64_t>(within(random)), width);
    }
    if (isFieldOfView(var))  // tenths of a degree, 0 to 360
        return bigEndian(random() % 3601, width);
    Bytes bytes(width);
    for (uint8_t& byte : bytes) byte = static_cast<uint8_t>(random());
    return bytes;
}

// Every setting of the lidar, and its field of view, given a random value the catalogue allows.
void randomiseSettings(sim::LidarSimulator& lidar, const std::vector<const VarInfo*>& vars,
                       uint32_t seed) {
    std::mt19937 random(seed);
    for (const VarInfo* var : vars) {
        if (!isSetting(*var) || var->offset <= 0) continue;
        lidar.WriteBlock(commandByte(var->get_cmd), var->get_payload,
                         static_cast<size_t>(var->get_start_pos), randomValue(*var, random));
    }
}

// The blocks read by the settings' get commands, with the fields a profile leaves alone (the
// lidar's own address, read-only fields) taken from `other`: what must then be equal.
std::map<std::pair<uint8_t, Bytes>, Bytes> settingBlocks(sim::LidarSimulator& lidar,
                                                         sim::LidarSimulator& other,
                                                         const std::vector<const VarInfo*>& vars) {
    std::map<std::pair<uint8_t, Bytes>, Bytes> blocks;
    for (const VarInfo* var : vars)
        if (isSetting(*var)) {
            const uint8_t command = commandByte(var->get_cmd);
            blocks[{command, var->get_payload}] = lidar.Block(command, var->get_payload);
        }
    for (const VarInfo* var : vars) {
        if (var->get_cmd.size() != 4) continue;  // no get command, or not one of one byte
        auto block = blocks.find({commandByte(var->get_cmd), var->get_payload});
        if (block == blocks.end()) continue;
        const bool profiled = isSetting(*var) && !LidarUtilitiesManager::isOwnAddressVariable(*var);
        if (profiled) continue;
        const Bytes theirs = other.Block(block->first.first, block->first.second);
        for (int i = var->get_start_pos; i < var->get_start_pos + var->offset; ++i)
            if (static_cast<size_t>(i) < block->second.size() &&
                static_cast<size_t>(i) < theirs.size())
                block->second[i] = theirs[i];
    }
    return blocks;
}

profile::SettingsProfile capture(sim::LidarSimulator& lidar, const std::string& model) {
    ManagerSession s(model);
    profile::SettingsProfile captured;
    EXPECT_TRUE(s.Connect(lidar.Port())) << model;
    QString error;
    EXPECT_TRUE(s.m().captureProfile({}, &captured, &error)) << error.toStdString();
    // What a file keeps is what is applied.
    profile::SettingsProfile read;
    EXPECT_TRUE(profile::readProfile(profile::writeProfile(captured), &read, &error))
        << error.toStdString();
    return read;
}

}  // namespace

TEST(Profile, RoundTripOnEveryNetworkModelLeavesOnlyTheLidarsOwnFieldsApart) {
    for (const std::string model : {"Egret", "Plover", "Tern"}) {
        SCOPED_TRACE(model);
        auto source = StartSimulator(model);
        auto target = StartSimulator(model);
        // The catalogue the lidars are randomised and compared by; it stays loaded to the end.
        ManagerSession probe(model);
        ASSERT_EQ(probe.m().connectTypeOfModel(QString::fromStdString(model)), 0);
        const std::vector<const VarInfo*> vars = catalogueVariables(probe.m());
        randomiseSettings(*source, vars, 7);
        randomiseSettings(*target, vars, 8);
        const std::vector<uint8_t> ownAddress = target->Block(0x08);
        const profile::SettingsProfile taken = capture(*source, model);
        ASSERT_FALSE(taken.settings.isEmpty());
        EXPECT_TRUE(taken.excluded.contains("IP Address"));

        ManagerSession s(model);
        ASSERT_TRUE(s.Connect(target->Port()));
        EXPECT_EQ(s.m().profileRefusals(taken).join("; ").toStdString(), "");
        profile::ProfileComparison before;
        QString error;
        ASSERT_TRUE(s.m().compareWithProfile(taken, &before, &error)) << error.toStdString();
        EXPECT_FALSE(before.matches());
        // Egret and Tern have the channel field of view; it goes through its own command.
        EXPECT_EQ(before.fieldOfViewDiffers(), model != "Plover");
        EXPECT_EQ(before.plannedCommands().contains("0x22"), model != "Plover");

        const LidarUtilitiesManager::ProfileWrite written = s.m().writeProfileDifferences(before);
        EXPECT_TRUE(written.failed.isEmpty()) << written.failed.toStdString();
        EXPECT_EQ(written.written, before.plannedCommands());
        if (written.networkWritten) {
            EXPECT_EQ(written.written.back(), "0x21") << "the network command goes last";
            ASSERT_TRUE(s.ConnectAndWait());
        }
        profile::ProfileComparison after;
        ASSERT_TRUE(s.m().compareWithProfile(taken, &after, &error)) << error.toStdString();
        EXPECT_TRUE(after.matches()) << after.differences.size() << " fields still differ";

        EXPECT_EQ(settingBlocks(*target, *target, vars), settingBlocks(*source, *target, vars));
        // The lidar's own address stayed its own.
        const std::vector<uint8_t> network = target->Block(0x08);
        EXPECT_TRUE(std::equal(ownAddress.begin(), ownAddress.begin() + 4, network.begin()));
    }
}

TEST(Profile, ALidarMatchesItsOwnCaptureAndEachChangeShowsAsOneDifference) {
    auto lidar = StartSimulator("Egret");
    const profile::SettingsProfile taken = capture(*lidar, "Egret");
    ASSERT_TRUE(taken.fieldOfView.has_value());
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    profile::ProfileComparison same;
    QString error;
    ASSERT_TRUE(s.m().compareWithProfile(taken, &same, &error));
    EXPECT_TRUE(same.matches());
    EXPECT_TRUE(same.warnings.isEmpty());

    lidar->WriteBlock(0x08, {}, 16, {0x0B, 0xB8});  // the data port, 3000
    lidar->WriteBlock(0x23, {}, 4, {0x01, 0x2C});   // region 1 ends at 30.0 degrees
    profile::ProfileComparison changed;
    ASSERT_TRUE(s.m().compareWithProfile(taken, &changed, &error));
    ASSERT_EQ(changed.differences.size(), 1);
    EXPECT_EQ(changed.differences[0].name, "Data Port");
    EXPECT_EQ(changed.differences[0].lidarText, "3000");
    EXPECT_EQ(changed.differences[0].profileBytes, QByteArray::fromHex("0940"));
    EXPECT_TRUE(changed.fieldOfViewDiffers());
    EXPECT_EQ(changed.lidarFieldOfView->bounds[5], "30.0");
    EXPECT_EQ(changed.plannedCommands(), (QStringList{"0x20", "0x22"}));

    // Another firmware is a warning, not a difference.
    profile::SettingsProfile older = taken;
    older.firmwareVersion = "EGRET-FW-V1-23.01.1";
    profile::ProfileComparison warned;
    ASSERT_TRUE(s.m().compareWithProfile(older, &warned, &error));
    ASSERT_EQ(warned.warnings.size(), 1);
    EXPECT_TRUE(warned.warnings[0].contains("EGRET-FW-V1-23.01.1"));
}

TEST(Profile, CaptureScopeTakesModulesExclusionsAndTheRecord) {
    auto lidar = StartSimulator("Egret");
    ManagerSession s("Egret");
    ASSERT_TRUE(s.Connect(lidar->Port()));
    QString error;

    LidarUtilitiesManager::ProfileScope scope;
    scope.modules = {2};  // Operation
    scope.excluded = QStringList{"standby"};
    profile::SettingsProfile operation;
    ASSERT_TRUE(s.m().captureProfile(scope, &operation, &error)) << error.toStdString();
    QStringList names;
    for (const auto& entry : operation.settings) names << entry.name;
    EXPECT_EQ(names, (QStringList{"Spin Rate", "Return Mode", "Phase Lock Angle", "Sync Source",
                                  "Noise Filter Level"}));
    EXPECT_EQ(operation.excluded, QStringList{"Standby"});
    EXPECT_FALSE(operation.fieldOfView.has_value());
    EXPECT_EQ(operation.serialNumber, "EG2411050123");
    EXPECT_EQ(operation.partNumber, "EGR-064-0001-02");
    EXPECT_EQ(operation.firmwareVersion, "EGRET-FW-V2-24.11.5");
    EXPECT_EQ(operation.settings[0].setCommand, "0x31");
    EXPECT_EQ(operation.settings[0].bytes, QByteArray::fromHex("0258"));
    EXPECT_EQ(operation.settings[3].unit, QString());

    LidarUtilitiesManager::ProfileScope everything;
    everything.includeOwnAddress = true;
    everything.withRecord = true;
    profile::SettingsProfile all;
    ASSERT_TRUE(s.m().captureProfile(everything, &all, &error)) << error.toStdString();
    EXPECT_TRUE(all.excluded.isEmpty());
    EXPECT_EQ(all.settings.front().name, "IP Address");
    bool recordsMac = false;
    for (const auto& entry : all.record) {
        EXPECT_TRUE(entry.setCommand.isEmpty()) << entry.name.toStdString();
        recordsMac = recordsMac || entry.name == "MAC Address";
    }
    EXPECT_TRUE(recordsMac);

    scope.excluded = QStringList{"Warp Drive"};
    EXPECT_FALSE(s.m().captureProfile(scope, &operation, &error));
    EXPECT_TRUE(error.contains("Warp Drive"));
}

TEST(Profile, EveryRefusalNamesItsKey) {
    auto lidar = StartSimulator("Egret");
    profile::SettingsProfile taken = capture(*lidar, "Egret");
    ManagerSession s("Egret");
    const auto refusalsOf = [&](const profile::SettingsProfile& p) {
        return s.m().profileRefusals(p).join("\n").toStdString();
    };
    const auto indexOf = [&](const char* id) {
        for (int i = 0; i < taken.settings.size(); ++i)
            if (taken.settings[i].varId == id) return i;
        ADD_FAILURE() << id;
        return 0;
    };
    EXPECT_EQ(refusalsOf(taken), "");

    profile::SettingsProfile other = taken;
    other.model = "Plover";
    EXPECT_EQ(refusalsOf(other), "model: the profile is for Plover, the lidar is Egret");

    profile::SettingsProfile bad = taken;
    bad.settings[indexOf("spin_rate")].bytes = QByteArray::fromHex("0384");  // 900: no option
    bad.settings[indexOf("data_port")].bytes = QByteArray::fromHex("0940ff");
    bad.settings[indexOf("vlan_id")].bytes = QByteArray::fromHex("0000");  // below 1
    bad.settings[indexOf("return_mode")].setCommand = "0x30";
    bad.settings << profile::ProfileEntry{"", "", "", "warp", "0x31", QByteArray(1, 0), "", ""};
    bad.fieldOfView->bounds[2] = "12.25";
    bad.fieldOfView->mode = "7";
    const std::string refusals = refusalsOf(bad);
    for (const std::string expected :
         {"].bytes: Spin Rate takes 300, 600, 1200; the bytes hold 900",
          "].bytes: 3 bytes where Data Port holds 2", "].bytes: VLAN ID must be 1 to 4094",
          "].set_command: 0x30 where the catalogue writes Return Mode with 0x31",
          "].var_id: the Egret catalogue has no variable 'warp'",
          "field_of_view.bounds[2]: '12.25' is not 0 to 360 degrees in tenths",
          "field_of_view.mode: FOV Mode takes 0, 1"})
        EXPECT_NE(refusals.find(expected), std::string::npos) << expected << "\n" << refusals;
    EXPECT_NE(refusals.find("settings[" + std::to_string(indexOf("spin_rate")) + "].bytes"),
              std::string::npos);
}
