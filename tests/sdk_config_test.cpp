// The configuration side of the device layer: CSV wrapper, logger, catalogue, feature and access
// configuration files, all read from real files in temporary directories.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <unordered_map>

#include "sdk/auth_config.h"
#include "sdk/config_parser.h"
#include "sdk/csv_table.h"
#include "sdk/feature_config_parser.h"
#include "sdk/logger.h"
#include "sdk/text_fields.h"
#include "test_support.h"

using testsupport::TempDir;
using testsupport::WriteFile;

namespace {

using Fields = std::map<std::string, std::string>;

// One catalogue row: the required columns, plus any optional ones in `extra`.
Fields Var(const std::string& module, const std::string& page, const std::string& id,
           const std::string& type, const std::string& getCmd, const std::string& setCmd,
           int getPos, int setPos, const std::string& offset, Fields extra = {}) {
    Fields f = {{"module", module},
                {"page", page},
                {"var_id", id},
                {"var_name", "Name " + id},
                {"var_type", type},
                {"get_cmd", getCmd},
                {"set_cmd", setCmd},
                {"get_start_pos", std::to_string(getPos)},
                {"set_start_pos", std::to_string(setPos)},
                {"offset", offset}};
    for (auto& [k, v] : extra) f[k] = v;
    return f;
}

// Writes rows under a header made of every column any row uses; row i lands on line i + 2.
void WriteCatalogue(const std::string& path, const std::vector<Fields>& rows) {
    std::vector<std::string> header;
    for (const Fields& row : rows) {
        for (const auto& [column, value] : row) {
            if (std::find(header.begin(), header.end(), column) == header.end()) {
                header.push_back(column);
            }
        }
    }
    std::ostringstream text;
    csv::DelimWriter writer(text);
    writer << header;
    for (const Fields& row : rows) {
        std::vector<std::string> line;
        for (const std::string& column : header) {
            const auto it = row.find(column);
            line.push_back(it == row.end() ? "" : it->second);
        }
        writer << line;
    }
    WriteFile(path, text.str());
}

// Silences the logger's sink and collects what one test reported.
class LoggerCapture {
  public:
    LoggerCapture() {
        Logger::GetInstance().SetOutputFile("-");
        Logger::GetInstance().ClearEntries();
    }
    ~LoggerCapture() { Logger::GetInstance().SetOutputFile(""); }

    std::vector<Logger::Entry> Entries(int level) const {
        std::vector<Logger::Entry> out;
        for (const auto& e : Logger::GetInstance().RecentEntries()) {
            if (e.level == level) out.push_back(e);
        }
        return out;
    }
};

std::vector<std::string> Names(const std::vector<VarInfo*>& vars) {
    std::vector<std::string> names;
    for (const VarInfo* v : vars) names.push_back(v->var_id);
    return names;
}

}  // namespace

TEST(SdkCsvTable, QuotedFieldsSurviveWriteAndRead) {
    const std::vector<std::string> header = {"Time", "Command Code", "Payload"};
    const std::vector<std::vector<std::string>> rows = {
        {"2024-01-01 10:00", "0x21", "01,02"},
        {"say \"hi\"", "multi\nline", "  padded  "},
        {"", "0x07", ""},
    };
    std::ostringstream out;
    csv::DelimWriter writer(out);
    writer << header;
    for (const auto& row : rows) writer << row;
    EXPECT_NE(out.str().find("\n2024-01-01 10:00,0x21,\"01,02\"\n\"say \"\"hi\"\"\""),
              std::string::npos);

    const csv::CSVReader reader = csv::CSVReader::FromText(out.str());
    EXPECT_EQ(reader.GetColNames(), header);
    ASSERT_EQ(reader.Rows().size(), rows.size());
    for (size_t i = 0; i < rows.size(); ++i) {
        EXPECT_EQ(reader.Rows()[i]["Time"], rows[i][0]);
        EXPECT_EQ(reader.Rows()[i]["Command Code"], rows[i][1]);
        EXPECT_EQ(reader.Rows()[i]["Payload"], rows[i][2]);
    }
    // The quoted newline makes the third row start one line later.
    EXPECT_EQ(reader.Rows()[1].LineNumber(), 3);
    EXPECT_EQ(reader.Rows()[2].LineNumber(), 5);

    try {
        (void)reader.Rows()[0]["Time Stamp"];
        FAIL() << "no exception for a missing column";
    } catch (const std::out_of_range& e) {
        EXPECT_STREQ(e.what(), "Can't find a column named Time Stamp");
    }
}

TEST(SdkCsvTable, ReadsBomCrlfBlankLinesAndShortRows) {
    TempDir dir;
    WriteFile(dir.file("t.csv"),
              "\xEF\xBB\xBF"
              " a ,b,c\r\n\r\n1, 2 ,3\r\n   \r\n4,\"x\r\ny\"\r\n5");
    const csv::CSVReader reader(dir.file("t.csv"));
    EXPECT_EQ(reader.GetColNames(), (std::vector<std::string>{"a", "b", "c"}));
    ASSERT_EQ(reader.Rows().size(), 3u);
    EXPECT_EQ(reader.Rows()[0]["c"], "3");
    EXPECT_EQ(reader.Rows()[0]["b"], " 2 ");  // blanks belong to the field
    EXPECT_EQ(reader.Rows()[0].LineNumber(), 3);
    EXPECT_EQ(reader.Rows()[1]["b"], "x\r\ny");
    EXPECT_EQ(reader.Rows()[1]["c"], "");  // short row
    EXPECT_EQ(reader.Rows()[1].LineNumber(), 5);
    EXPECT_EQ(reader.Rows()[2]["a"], "5");
    EXPECT_EQ(reader.Rows()[2].LineNumber(), 7);
    EXPECT_THROW(csv::CSVReader(dir.file("absent.csv")), std::runtime_error);
}

TEST(SdkLogger, WritesLinesToFileAndKeepsTheLastThousand) {
    TempDir dir;
    LoggerCapture capture;
    Logger& log = Logger::GetInstance();
    log.SetOutputFile(dir.file("log.txt"));
    log.AddToQueue(Logger::kConfigError, "a.csv", 7, "Fn", "bad offset");
    log.AddToQueue(Logger::kWarning, "b.csv", 9, "Fn", "gap");
    log.SetOutputFile(dir.file("log.txt"));  // reopening appends
    log.AddToQueue(Logger::kInfo, "c", 1, "G", "third");
    EXPECT_EQ(testsupport::ReadFile(dir.file("log.txt")),
              "CONFIG_ERROR a.csv:7 Fn: bad offset\nWARNING b.csv:9 Fn: gap\nINFO c:1 G: third\n");

    log.SetOutputFile("-");
    for (int i = 0; i < 2500; ++i) log.AddToQueue(Logger::kDebug, "f", i, "F", "m");
    const auto entries = log.RecentEntries();
    ASSERT_EQ(entries.size(), 1000u);
    EXPECT_EQ(entries.front().line, 1500);
    EXPECT_EQ(entries.back().line, 2499);

    // Writers on several threads while another reads: nothing lost, nothing torn.
    log.ClearEntries();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&log, t] {
            for (int i = 0; i < 200; ++i) log.AddToQueue(Logger::kInfo, "t", t, "F", "msg");
        });
    }
    threads.emplace_back([&log] {
        for (int i = 0; i < 50; ++i) (void)log.RecentEntries();
    });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(log.RecentEntries().size(), 800u);
}

TEST(SdkConfigParser, BuildsTreeLookupsAndSwitchLinks) {
    TempDir dir;
    LoggerCapture capture;
    const std::string path = dir.file("Egret.csv");
    WriteCatalogue(path,
                   {Var("Net", "Addr", "ip", "IP", "0x08", "0x21", 0, 0, "4", {{"log_list", "1"}}),
                    Var("Net", "Addr", "mask", "IP", "0x08", "0x21", 4, 4, "4"),
                    Var("Monitor", "Temps", "t1", "uint16", "0x00010070", "", 0, 0, "2",
                        {{"get_payload", "0x0102"},
                         {"scale", "0.01"},
                         {"timer_update", "1"},
                         {"log_list", "true"}}),
                    Var("Net", "Mode", "mode_sel", "uint8", "0x30", "", 0, 0, "1",
                        {{"type", "2"}, {"switch_var", "mode"}, {"var_name", "Return Mode"}}),
                    Var("Net", "Addr", "gw", "IP", "0x08", "0x21", 8, 8, "4",
                        {{"hidden", "1"}, {"default_val", "line1\nline2"}}),
                    Var("Net", "Mode", "mode", "uint8", "0x30", "0x31", 0, 0, "1",
                        {{"index", "7"},
                         {"options", "0|1|2"},
                         {"type", "3"},
                         {"log_list", "1"},
                         {"value_to_option", "0:Strongest|1:Last|2:Dual"},
                         {"var_name", "Return Mode"}})});
    ConfigParser parser(path);
    ASSERT_TRUE(parser.ExtractConfigInfo());
    EXPECT_EQ(parser.RejectedRowCount(), 0);
    EXPECT_TRUE(capture.Entries(Logger::kConfigError).empty());
    EXPECT_TRUE(capture.Entries(Logger::kWarning).empty());

    ASSERT_EQ(parser.moduleNames.size(), 2u);
    EXPECT_EQ(parser.moduleNames[0], (std::vector<std::string>{"Net", "Addr", "Mode"}));
    EXPECT_EQ(parser.moduleNames[1], (std::vector<std::string>{"Monitor", "Temps"}));
    EXPECT_EQ(Names(parser.varTree[0][0]), (std::vector<std::string>{"ip", "mask", "gw"}));
    EXPECT_EQ(Names(parser.varTree[0][1]), (std::vector<std::string>{"mode_sel", "mode"}));
    EXPECT_EQ(Names(parser.varTree[1][0]), (std::vector<std::string>{"t1"}));
    EXPECT_EQ(Names(parser.logVars), (std::vector<std::string>{"ip", "t1", "mode"}));
    EXPECT_EQ(Names(parser.GetVarInfosBySetCmd("0x21")),
              (std::vector<std::string>{"ip", "mask", "gw"}));
    EXPECT_TRUE(parser.GetVarInfosBySetCmd("0x99").empty());

    // Running index inside the module unless the column gives one.
    EXPECT_EQ(parser.GetVarInfoByVarID("gw")->index, 3);
    EXPECT_EQ(parser.GetVarInfoByVarID("mode")->index, 7);
    EXPECT_EQ(parser.GetVarInfoByVarID("t1")->index, 0);

    const VarInfo* t1 = parser.GetVarInfoByVarID("t1");
    EXPECT_EQ(t1->get_payload, (std::vector<uint8_t>{0x01, 0x02}));
    EXPECT_EQ(t1->get_payload_text, "0x0102");
    EXPECT_FLOAT_EQ(t1->scale, 0.01f);
    EXPECT_TRUE(t1->timer_update);
    const VarInfo* ip = parser.GetVarInfoByVarID("ip");
    EXPECT_FLOAT_EQ(ip->scale, 1.0f);
    EXPECT_EQ(ip->visible, 1);
    EXPECT_FALSE(ip->hidden);
    EXPECT_TRUE(parser.GetVarInfoByVarID("gw")->hidden);
    EXPECT_EQ(parser.GetVarInfoByVarID("gw")->default_val, "line1\nline2");

    const VarInfo* mode = parser.GetVarInfoByVarID("mode");
    EXPECT_EQ(mode->options, (std::vector<int32_t>{0, 1, 2}));
    EXPECT_EQ(mode->option_num, 3);
    EXPECT_EQ(mode->value_to_option.at(2), "Dual");
    // A type 2 row may name a variable defined further down.
    EXPECT_EQ(parser.GetVarInfoByVarID("mode_sel")->switch_var, mode);
    EXPECT_EQ(mode->switch_var, nullptr);
    // Duplicate names are allowed; the first wins.
    EXPECT_EQ(parser.GetVarInfoByName("Return Mode")->var_id, "mode_sel");
    EXPECT_EQ(parser.GetVarInfoByName("Nope"), nullptr);

    std::pair<int, int> pos{-1, -1};
    EXPECT_TRUE(parser.GetVarPosOffset("0x08", "gw", -1, pos));
    EXPECT_EQ(pos, std::make_pair(8, 4));
    EXPECT_TRUE(parser.GetVarPosOffset("0x08", "gw", 12, pos));
    EXPECT_FALSE(parser.GetVarPosOffset("0x08", "gw", 11, pos));  // reply too short
    EXPECT_FALSE(parser.GetVarPosOffset("0x07", "gw", -1, pos));  // other command
    EXPECT_FALSE(parser.GetVarPosOffset("0x08", "nope", -1, pos));
}

TEST(SdkConfigParser, ReportsAndSkipsEachKindOfMalformedRow) {
    TempDir dir;
    LoggerCapture capture;
    const std::string path = dir.file("Bad.csv");
    const auto u8 = [](const std::string& id, Fields extra = {}) {
        return Var("M", "P", id, "uint8", "0x30", "", 0, 0, "1", std::move(extra));
    };
    const std::vector<Fields> rows = {
        Var("M", "P", "good1", "uint8", "0x30", "0x31", 0, 0, "1"),  // line 2
        u8("b_off", {{"offset", "abc"}}),
        u8("b_pay", {{"get_payload", "0x123"}}),
        u8("b_opt", {{"options", "1|x"}}),
        u8("b_vto", {{"value_to_option", "0=On"}}),
        u8("", {}),
        u8("b_name", {{"var_name", ""}}),
        u8("good1", {}),
        u8("b_sw", {{"switch_var", "ghost"}}),  // line 10
        Var("M", "P", "b_wid", "uint32", "0x30", "", 0, 0, "2"),
        u8("b_bool", {{"hidden", "yes"}}),
        u8("b_scale", {{"scale", "1,5"}}),
        u8("b_cmd", {{"get_cmd", "0xZ1"}}),
        Var("M", "P", "good2", "uint8", "0x30", "0x31", 1, 2, "1"),  // line 15
        Fields{{"module", ""}},
        u8("b_chain", {{"switch_var", "b_sw"}}),
        Var("M", "P", "good3", "uint8", "0x30", "0x32", 3, 0, "1"),
        Var("M", "P", "good4", "uint8", "0x30", "0x32", 4, 1, "1", {{"var_name", "Name good3"}}),
        Var("M", "P", "good5", "string", "0x30", "0x33", 5, 0, "8"),
    };
    WriteCatalogue(path, rows);
    ConfigParser parser(path);
    ASSERT_TRUE(parser.ExtractConfigInfo());

    const std::vector<std::pair<int, std::string>> expected = {
        {3, "\"offset\": \"abc\""},          {4, "\"get_payload\": \"0x123\""},
        {5, "\"options\": \"1|x\""},         {6, "\"value_to_option\": \"0=On\""},
        {7, "\"var_id\" is empty"},          {8, "\"var_name\" is empty"},
        {9, "repeats the var_id of line 2"}, {10, "\"switch_var\": \"ghost\""},
        {11, "\"offset\": \"2\""},           {12, "\"hidden\": \"yes\""},
        {13, "\"scale\": \"1,5\""},          {14, "\"get_cmd\": \"0xZ1\""},
        {17, "\"switch_var\": \"b_sw\""}};
    const auto errors = capture.Entries(Logger::kConfigError);
    ASSERT_EQ(errors.size(), expected.size());
    for (const auto& [line, text] : expected) {
        const auto it = std::find_if(errors.begin(), errors.end(),
                                     [line = line](const auto& e) { return e.line == line; });
        ASSERT_NE(it, errors.end()) << "no report for line " << line;
        EXPECT_EQ(it->file, path);
        EXPECT_EQ(it->function, "ConfigParser::ExtractConfigInfo");
        EXPECT_NE(it->message.find(text), std::string::npos) << it->message;
    }
    EXPECT_EQ(parser.RejectedRowCount(), static_cast<int>(expected.size()));
    ASSERT_EQ(parser.AllVars().size(), 5u);
    EXPECT_EQ(Names(parser.varTree.at(0).at(0)),
              (std::vector<std::string>{"good1", "good2", "good3", "good4", "good5"}));
    EXPECT_EQ(parser.GetVarInfoByName("Name good1"), parser.GetVarInfoByVarID("good1"));

    // Kept but warned about: good2 sits at set position 2 after a 1-byte good1 (a gap), and
    // good4 repeats the name of good3 within one set command, good5 is a string with a set_cmd.
    const auto warnings = capture.Entries(Logger::kWarning);
    ASSERT_EQ(warnings.size(), 3u);
    EXPECT_EQ(warnings[0].line, 15);
    EXPECT_NE(warnings[0].message.find("\"0x31\""), std::string::npos);
    EXPECT_EQ(warnings[1].line, 19);
    EXPECT_NE(warnings[1].message.find("share the var_name \"Name good3\""), std::string::npos);
    EXPECT_EQ(warnings[2].line, 20);
    EXPECT_NE(warnings[2].message.find("cannot be written"), std::string::npos);
}

// Mistakes that used to pass silently: unusable factors are refused, a readable variable without
// a length and inverted limits are warned about, an unclosed quote names its line.
TEST(SdkConfigParser, ReportsFactorsLengthsLimitsAndAnUnclosedQuote) {
    TempDir dir;
    LoggerCapture capture;
    const std::string path = dir.file("Odd.csv");
    const auto u8 = [](const std::string& id, Fields extra = {}) {
        return Var("M", "P", id, "uint8", "0x30", "", 0, 0, "1", std::move(extra));
    };
    WriteCatalogue(path, {
                             u8("zero_scale", {{"scale", "0"}}),         // line 2
                             u8("inf_scale", {{"scale", "inf"}}),        // line 3
                             u8("nan_range", {{"range_scale", "nan"}}),  // line 4
                             u8("no_length", {{"offset", ""}}),          // line 5
                             u8("inverted", {{"min_val", "10"}, {"max_val", "-10"}}),
                             u8("fine"),  // line 7
                         });
    // An open quote on line 9 would otherwise swallow lines 9 to 11 as one field.
    const std::string header =
        testsupport::ReadFile(path).substr(0, testsupport::ReadFile(path).find('\n'));
    const auto row = [&header](const std::string& id, const std::string& name) {
        Fields fields = Var("M", "P", id, "uint8", "0x30", "", 0, 0, "1");
        fields["var_name"] = name;
        std::string line;
        for (const std::string& column : lidar::text::Split(header, ','))
            line += (line.empty() ? "" : ",") + fields[column];
        return line + "\n";
    };
    WriteFile(path, testsupport::ReadFile(path) + row("ok", "Name ok") +
                        row("open", "\"Name open") + row("b", "a") + row("d", "c"));
    ConfigParser parser(path);
    ASSERT_TRUE(parser.ExtractConfigInfo());

    const auto errors = capture.Entries(Logger::kConfigError);
    // In line order: the unclosed quote is known once the whole file has been read.
    const std::vector<std::pair<int, std::string>> expectedErrors = {
        {2, "\"scale\": \"0\" is zero"},
        {3, "\"scale\": \"inf\" is not a finite number"},
        {4, "\"range_scale\": \"nan\" is not a finite number"},
        {9, "never closed; lines 9 to 11 are skipped"}};
    ASSERT_EQ(errors.size(), expectedErrors.size());
    for (size_t i = 0; i < errors.size(); ++i) {
        EXPECT_EQ(errors[i].line, expectedErrors[i].first);
        EXPECT_NE(errors[i].message.find(expectedErrors[i].second), std::string::npos)
            << errors[i].message;
    }
    const auto warnings = capture.Entries(Logger::kWarning);
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[0].line, 5);
    EXPECT_NE(warnings[0].message.find("has no length"), std::string::npos);
    EXPECT_EQ(warnings[1].line, 6);
    EXPECT_NE(warnings[1].message.find("min_val 10 above max_val -10"), std::string::npos);
    EXPECT_NE(parser.GetVarInfoByVarID("fine"), nullptr);
    EXPECT_NE(parser.GetVarInfoByVarID("ok"), nullptr);
    EXPECT_EQ(parser.GetVarInfoByVarID("open"), nullptr);
}

TEST(SdkConfigParser, MissingFileOrRequiredColumnLeavesCatalogueEmpty) {
    TempDir dir;
    LoggerCapture capture;
    ConfigParser missing(dir.file("Nope.csv"));
    EXPECT_FALSE(missing.ExtractConfigInfo());
    EXPECT_TRUE(missing.AllVars().empty());
    EXPECT_TRUE(missing.varTree.empty());
    EXPECT_EQ(missing.GetVarInfoByVarID("x"), nullptr);
    auto errors = capture.Entries(Logger::kConfigError);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].file, dir.file("Nope.csv"));

    Logger::GetInstance().ClearEntries();
    Fields a = Var("M", "P", "a", "uint8", "0x30", "", 0, 0, "1");
    Fields b = Var("M", "P", "b", "uint8", "0x30", "", 1, 0, "1");
    a.erase("offset");
    b.erase("offset");
    WriteCatalogue(dir.file("NoOffset.csv"), {a, b});
    ConfigParser noOffset(dir.file("NoOffset.csv"));
    EXPECT_TRUE(noOffset.ExtractConfigInfo());
    EXPECT_TRUE(noOffset.AllVars().empty());
    errors = capture.Entries(Logger::kConfigError);
    ASSERT_EQ(errors.size(), 2u);
    EXPECT_EQ(errors[1].line, 3);
    EXPECT_NE(errors[1].message.find("\"offset\""), std::string::npos);
}

TEST(SdkConfigParser, MovedParserKeepsRecordAddresses) {
    TempDir dir;
    LoggerCapture capture;
    const std::string path = dir.file("Tern.csv");
    std::vector<Fields> rows;
    for (int i = 0; i < 50; ++i) {
        rows.push_back(Var("M", "P", "v" + std::to_string(i), "uint8", "0x30", "", i, 0, "1",
                           {{"type", "2"}, {"switch_var", "v0"}}));
    }
    WriteCatalogue(path, rows);
    std::unordered_map<std::string, ConfigParser> cache;
    cache.emplace(path, ConfigParser(path));
    ASSERT_TRUE(cache.at(path).ExtractConfigInfo());
    VarInfo* before = cache.at(path).GetVarInfoByVarID("v42");
    ASSERT_NE(before, nullptr);

    // Rehashing moves the parsers around inside the map.
    for (int i = 0; i < 64; ++i) cache.emplace("other" + std::to_string(i), ConfigParser("x"));
    EXPECT_EQ(cache.at(path).GetVarInfoByVarID("v42"), before);
    ConfigParser moved = std::move(cache.at(path));
    EXPECT_EQ(moved.GetVarInfoByVarID("v42"), before);
    EXPECT_EQ(moved.GetVarInfoByName("Name v42"), before);
    EXPECT_EQ(moved.varTree[0][0][42], before);
    EXPECT_EQ(before->switch_var, moved.GetVarInfoByVarID("v0"));
    EXPECT_EQ(moved.GetConfigPath(), path);
}

TEST(SdkConfigParser, ShippedCataloguesParseWithoutRejectedRows) {
    LoggerCapture capture;
    const std::string root = testsupport::SourceDir() + "/Config/varID/";
    for (const std::string model : {"Egret", "Plover", "Tern", "Wren", "Wren-VRC", "Heron-VRC"}) {
        ConfigParser parser(root + model + "/" + model + ".csv");
        ASSERT_TRUE(parser.ExtractConfigInfo()) << model;
        EXPECT_EQ(parser.RejectedRowCount(), 0) << model;
        EXPECT_FALSE(parser.AllVars().empty()) << model;
    }
    for (const auto& e : capture.Entries(Logger::kWarning)) {
        ADD_FAILURE() << e.file << ":" << e.line << " " << e.message;
    }
}

TEST(SdkFeatureAndAuthConfig, LoadsPerModelAndPerProfile) {
    TempDir dir;
    LoggerCapture capture;
    WriteFile(dir.file("feature_config.csv"),
              "model,vrc_client_host_port\nEgret,0\nWren-VRC,1\nHeron-VRC,true\nTern,maybe\n");
    EXPECT_FALSE(FeatureConfigParser::Load(dir.file("feature_config.csv"), "Egret"));
    EXPECT_TRUE(FeatureConfigParser::Load(dir.file("feature_config.csv"), "Wren-VRC"));
    EXPECT_TRUE(FeatureConfigParser::Load(dir.file("feature_config.csv"), "Heron-VRC"));
    EXPECT_FALSE(FeatureConfigParser::Load(dir.file("feature_config.csv"), "Plover"));
    EXPECT_FALSE(FeatureConfigParser::Load(dir.file("feature_config.csv"), "Tern"));
    EXPECT_FALSE(FeatureConfigParser::Load(dir.file("absent.csv"), "Wren-VRC"));
    EXPECT_EQ(capture.Entries(Logger::kConfigError).size(), 1u);  // "maybe"

    Logger::GetInstance().ClearEntries();
    const std::string auth = dir.file("auth_config.csv");
    WriteFile(auth,
              "profile,commands,token\n"
              "Egret,*,\n"
              "Plover,0x07|08| 21 ,secret\n"
              "Tern,0x07|0xZZ|0x100|0x23,\"t,k\"\n");
    const AuthConfig egret = AuthConfigParser::Load(auth, "Egret");
    EXPECT_TRUE(egret.allowAll);
    EXPECT_TRUE(egret.token.empty());

    const AuthConfig plover = AuthConfigParser::Load(auth, "Plover");
    EXPECT_FALSE(plover.allowAll);
    // Codes are hexadecimal with or without "0x", as in the catalogues.
    EXPECT_EQ(plover.commands, (std::set<uint8_t>{0x07, 0x08, 0x21}));
    EXPECT_TRUE(plover.Allows(0x21));
    EXPECT_FALSE(plover.Allows(0x10));
    EXPECT_EQ(plover.token, "secret");

    const AuthConfig tern = AuthConfigParser::Load(auth, "Tern");
    EXPECT_EQ(tern.commands, (std::set<uint8_t>{0x07, 0x23}));
    EXPECT_EQ(tern.token, "t,k");
    const auto errors = capture.Entries(Logger::kConfigError);
    ASSERT_EQ(errors.size(), 2u);  // 0xZZ and 0x100
    EXPECT_EQ(errors[0].line, 4);
    EXPECT_EQ(errors[0].file, auth);

    for (const AuthConfig& open : {AuthConfigParser::Load(auth, "Wren"),
                                   AuthConfigParser::Load(dir.file("absent.csv"), "Plover")}) {
        EXPECT_TRUE(open.allowAll);
        EXPECT_TRUE(open.Allows(0x10));
        EXPECT_TRUE(open.token.empty());
    }
}
