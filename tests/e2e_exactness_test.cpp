// What a write puts on the device is exactly what the user typed, and nothing else: every other
// field of the command goes back with the bytes the device holds, whatever the desktop language.

#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <map>
#include <random>
#include <set>

#include "e2e_support.h"

using testsupport::ManagerSession;
using testsupport::StartSimulator;

namespace {

using Bytes = std::vector<uint8_t>;

struct Position {
    int module = 0, group = 0, row = 0;
};

size_t widthOf(const std::string& type) {
    if (type == "uint8" || type == "int8") return 1;
    if (type == "uint16" || type == "int16") return 2;
    if (type == "uint32" || type == "int32" || type == "float32") return 4;
    if (type == "uint64" || type == "int64" || type == "double") return 8;
    return 0;
}

Bytes bigEndian(uint64_t value, size_t width) {
    Bytes bytes(width);
    for (size_t i = 0; i < width; ++i)
        bytes[width - 1 - i] = static_cast<uint8_t>(value >> (8 * i));
    return bytes;
}

// A value the user might type for `var`, with the bytes the device must receive for it. Integers
// are written as (raw x M)e(E), with scale = M x 10^E as the catalogue writes it ("0.001"), so the
// text names the raw value exactly at any scale.
struct Edit {
    std::string text;
    Bytes bytes;
};

Edit editFor(const VarInfo& var, std::mt19937_64& random) {
    const std::string& type = var.var_type;
    if (type == "IP") {
        const Bytes bytes{10, static_cast<uint8_t>(random() % 256),
                          static_cast<uint8_t>(random() % 256), 7};
        return {std::to_string(bytes[0]) + "." + std::to_string(bytes[1]) + "." +
                    std::to_string(bytes[2]) + "." + std::to_string(bytes[3]),
                bytes};
    }
    if (type == "float32") {
        const float value = -12.375f + static_cast<float>(random() % 1000) / 8.0f;
        uint32_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        char text[32];
        const auto end = std::to_chars(text, text + sizeof text, value).ptr;
        return {std::string(text, end), bigEndian(bits, 4)};
    }
    if (type == "double") {
        const double value = 0.1 + static_cast<double>(random() % 1000) / 1024.0;
        uint64_t bits = 0;
        std::memcpy(&bits, &value, sizeof bits);
        char text[40];
        const auto end = std::to_chars(text, text + sizeof text, value).ptr;
        return {std::string(text, end), bigEndian(bits, 8)};
    }
    const size_t width = widthOf(type);
    const bool isSigned = type[0] == 'i';
    int64_t raw = 0;
    if (!var.options.empty()) {
        raw = var.options[random() % var.options.size()];
    } else if (width <= 2) {
        const int64_t span = int64_t{1} << (8 * width);
        raw = static_cast<int64_t>(random() % static_cast<uint64_t>(span));
        if (isSigned) raw -= span / 2;
    } else if (isSigned) {
        raw = static_cast<int64_t>(random()) >> (64 - 8 * width);  // the full signed range
    }  // four- and eight-byte unsigned variables take only 0

    char scaleText[32];
    const auto scaleEnd = std::to_chars(scaleText, scaleText + sizeof scaleText, var.scale).ptr;
    std::string digits(scaleText, scaleEnd);
    int exponent = 0;
    const size_t point = digits.find('.');
    if (point != std::string::npos) {
        exponent = -static_cast<int>(digits.size() - point - 1);
        digits.erase(point, 1);
    }
    const int64_t multiplier = std::stoll(digits);
    return {std::to_string(raw * multiplier) + "e" + std::to_string(exponent),
            bigEndian(static_cast<uint64_t>(raw), width)};
}

class Exactness : public testing::TestWithParam<std::tuple<std::string, bool>> {};

// The device blocks that set commands write into, as the simulator holds them.
std::map<uint8_t, Bytes> configurationBlocks(const sim::LidarSimulator& lidar,
                                             const std::set<uint8_t>& commands) {
    std::map<uint8_t, Bytes> blocks;
    for (uint8_t command : commands) blocks[command] = lidar.Block(command);
    return blocks;
}

uint8_t codeOf(const std::string& text) {
    return static_cast<uint8_t>(std::stoul(text, nullptr, 16));
}

}  // namespace

TEST_P(Exactness, EditingOneFieldChangesOnlyThatFieldsBytes) {
    const auto& [model, commaLocale] = GetParam();
    std::unique_ptr<testsupport::ScopedCommaDecimalLocale> locale;
    if (commaLocale) {
        locale = std::make_unique<testsupport::ScopedCommaDecimalLocale>();
        if (!locale->active()) GTEST_SKIP() << "cannot build a comma-decimal locale here";
    }
    std::mt19937_64 random(std::hash<std::string>()(model) + commaLocale);
    auto lidar = StartSimulator(model);
    ManagerSession s(model);
    ASSERT_TRUE(s.Connect(lidar->Port()));
    const ConfigParser& parser = *s.m().getCurrentParser();

    // Where every variable sits in the tree, and which commands edit which blocks.
    std::map<const VarInfo*, Position> positions;
    const auto& tree = parser.varTree;
    for (size_t m = 0; m < tree.size(); ++m)
        for (size_t g = 0; g < tree[m].size(); ++g)
            for (size_t r = 0; r < tree[m][g].size(); ++r)
                positions[tree[m][g][r]] = {int(m), int(g), int(r)};
    std::vector<std::string> setCommands;
    std::set<uint8_t> blocks;
    for (const auto& var : parser.AllVars()) {
        if (var->set_cmd.empty() || var->get_cmd.empty() || var->set_cmd == "0x22") continue;
        if (std::find(setCommands.begin(), setCommands.end(), var->set_cmd) == setCommands.end())
            setCommands.push_back(var->set_cmd);
        blocks.insert(codeOf(var->get_cmd));
    }
    // The network command restarts the lidar's link, so it comes last.
    std::stable_partition(setCommands.begin(), setCommands.end(),
                          [](const std::string& c) { return c != "0x21"; });
    ASSERT_GE(setCommands.size(), 3u);

    // Values that display texts round (fine scales, negatives, floats) before anything is read.
    for (const auto& var : parser.AllVars()) {
        if (var->set_cmd.empty() || var->get_cmd.empty() || var->set_cmd == "0x22") continue;
        if (var->var_type == "IP" || var->var_type == "MAC" || !var->options.empty()) continue;
        Bytes noise(static_cast<size_t>(var->offset));
        for (uint8_t& byte : noise) byte = static_cast<uint8_t>(random());
        lidar->WriteBlock(codeOf(var->get_cmd), {}, static_cast<size_t>(var->get_start_pos), noise);
    }
    for (int module = 0; module < static_cast<int>(tree.size()); ++module)
        s.m().GetLidarModuleInfo(module);

    // Every field of every command in turn; the network command, which ends the session, once.
    for (const std::string& setCommand : setCommands) {
        std::vector<VarInfo*> fields = parser.GetVarInfosBySetCmd(setCommand);
        if (setCommand == "0x21") fields = {fields[random() % fields.size()]};
        for (const VarInfo* edited : fields) {
            const Edit edit = editFor(*edited, random);
            SCOPED_TRACE(model + " " + setCommand + " " + edited->var_name + "=" + edit.text);

            std::map<uint8_t, Bytes> expected = configurationBlocks(*lidar, blocks);
            Bytes& block = expected[codeOf(edited->get_cmd)];
            std::copy(edit.bytes.begin(), edit.bytes.end(), block.begin() + edited->get_start_pos);

            const Position at = positions.at(edited);
            s.m().SetText(1, at.module, at.group, at.row, QString::fromStdString(edit.text));
            s.m().Run(at.module);
            EXPECT_EQ(s.m().getErrorMessage().toStdString(), "");
            EXPECT_EQ(configurationBlocks(*lidar, blocks), expected);
            if (setCommand != "0x21") s.m().GetLidarModuleInfo(at.module);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(NetworkModels, Exactness,
                         testing::Combine(testing::Values("Egret", "Plover", "Tern"),
                                          testing::Bool()),
                         [](const auto& info) {
                             return std::get<0>(info.param) +
                                    (std::get<1>(info.param) ? "_CommaLocale" : "_CLocale");
                         });

// Command texts are hexadecimal with or without "0x"/"0X": "30" is 0x30, never 30 or 0x1E.
TEST(Exactness, CommandTextsAreHexadecimalWithOrWithoutPrefix) {
    const testsupport::CraftedConfig crafted("Egret", {{",0x30,", ",30,"}, {",0x31,", ",0X31,"}});
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = crafted.configDir();
    sim::LidarSimulator lidar(options);
    ASSERT_TRUE(lidar.Start());
    ManagerSession s("Egret", crafted.root());
    ASSERT_TRUE(s.Connect(lidar.Port()));
    constexpr int kOperation = 2;
    s.m().GetLidarModuleInfo(kOperation);
    EXPECT_GE(lidar.RequestCount(0x30), 1u);
    EXPECT_EQ(s.m().getLastModuleReadFailures().size(), 0u);

    const VarInfo* noise = s.m().searchVarPtr("Noise Filter Level", "var_name");
    ASSERT_NE(noise, nullptr);
    const auto& group = s.m().getCurrentParser()->varTree[kOperation][0];
    const int row = static_cast<int>(std::find(group.begin(), group.end(), noise) - group.begin());
    s.m().SetText(1, kOperation, 0, row, "-4");
    s.m().Run(kOperation);
    EXPECT_EQ(lidar.RequestCount(0x31), 1u);
    EXPECT_EQ(lidar.Block(0x30).at(static_cast<size_t>(noise->get_start_pos)), 0xFC);
}
