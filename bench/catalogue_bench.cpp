// Catalogue loading and lookup cost on a large generated catalogue (20,000 variables).
// Target: ExtractConfigInfo within three times libcsv's bare tokenising of the same file.

#include <benchmark/benchmark.h>
#include <csv.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "sdk/config_parser.h"
#include "sdk/logger.h"

namespace {

constexpr int kVariables = 20000;
constexpr int kVarsPerCommand = 8;

// Writes the catalogue once, in the shipped column set, and removes it at exit.
class GeneratedCatalogue {
  public:
    GeneratedCatalogue() {
        char pattern[] = "/tmp/catalogue-bench-XXXXXX.csv";
        const int fd = mkstemps(pattern, 4);
        if (fd < 0) std::abort();
        close(fd);
        path_ = pattern;
        std::ofstream out(path_, std::ios::trunc);
        out << "module,page,index,var_id,var_name,name_suffix,var_type,get_cmd,get_payload,"
               "set_cmd,get_start_pos,set_start_pos,offset,permission,scale,range_scale,"
               "default_val,options,value_to_option,visible,type,hidden,switch_var,"
               "timer_update,log_list,min_val,max_val\n";
        for (int i = 0; i < kVariables; ++i) out << Row(i);
        if (!out) std::abort();
    }
    ~GeneratedCatalogue() { std::remove(path_.c_str()); }
    const std::string& path() const { return path_; }

  private:
    static std::string Row(int i) {
        const int command = i / kVarsPerCommand;
        const int slot = i % kVarsPerCommand;
        const std::string id = std::to_string(i);
        const std::string cmd = "0x" + std::to_string(1000 + command);
        const std::string pos = std::to_string(slot * 2);
        const bool selectable = slot == 3;
        return "Module " + std::to_string(i / 2000) + ",Page " + std::to_string(i / 100) + ",,v" +
               id + ",Variable " + id + ", (unit),uint16," + cmd + ",," + cmd + "," + pos + "," +
               pos + ",2,1,0.01,1,12.50," + (selectable ? "0|1|2,0:Off|1:On|2:Auto" : ",") + ",1," +
               (selectable ? "3" : "1") + ",0,,0," + (slot == 0 ? "1" : "0") + ",0,60000\n";
    }

    std::string path_;
};

const GeneratedCatalogue& Catalogue() {
    static const GeneratedCatalogue catalogue;
    return catalogue;
}

// The floor: reading the same file and tokenising it with libcsv alone, counting fields.
size_t BareTokenising(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    csv_parser parser;
    csv_init(&parser, 0);
    size_t fields = 0;
    csv_parse(
        &parser, text.data(), text.size(),
        [](void*, size_t, void* count) { ++*static_cast<size_t*>(count); }, nullptr, &fields);
    csv_fini(
        &parser, [](void*, size_t, void* count) { ++*static_cast<size_t*>(count); }, nullptr,
        &fields);
    csv_free(&parser);
    return fields;
}

// Loading the catalogue beside the bare tokenising of the same file, in the same run: "ratio" is
// what the parser costs on top of libcsv (target: at most 3).
void BM_ExtractConfigInfo(benchmark::State& state) {
    Logger::GetInstance().SetOutputFile("-");
    using Clock = std::chrono::steady_clock;
    double loadSeconds = 0, bareSeconds = 0;
    for (auto _ : state) {
        // Freeing the catalogue is not part of loading it: the parser outlives the measurement.
        ConfigParser parser(Catalogue().path());
        const auto start = Clock::now();
        if (!parser.ExtractConfigInfo() || parser.AllVars().size() != kVariables) {
            state.SkipWithError("catalogue did not load completely");
            break;
        }
        benchmark::DoNotOptimize(parser.varTree.data());
        const auto middle = Clock::now();
        benchmark::DoNotOptimize(BareTokenising(Catalogue().path()));
        const auto end = Clock::now();
        loadSeconds += std::chrono::duration<double>(middle - start).count();
        bareSeconds += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["vars"] = kVariables;
    state.counters["load_ms"] = 1e3 * loadSeconds / n;
    state.counters["bare_csv_ms"] = 1e3 * bareSeconds / n;
    state.counters["ratio"] = loadSeconds / bareSeconds;
}
BENCHMARK(BM_ExtractConfigInfo)->UseManualTime()->Unit(benchmark::kMillisecond);

// Keys in a shuffled order so that the lookups do not walk the table sequentially.
std::vector<std::string> ShuffledKeys(const std::string& prefix) {
    std::vector<std::string> keys;
    for (int i = 0; i < kVariables; ++i) keys.push_back(prefix + std::to_string(i));
    std::shuffle(keys.begin(), keys.end(), std::mt19937(42));
    return keys;
}

template <typename Lookup>
void RunLookups(benchmark::State& state, const std::vector<std::string>& keys, Lookup lookup) {
    ConfigParser parser(Catalogue().path());
    parser.ExtractConfigInfo();
    size_t next = 0;
    for (auto _ : state) {
        VarInfo* var = lookup(parser, keys[next]);
        if (var == nullptr) {
            state.SkipWithError("lookup missed");
            break;
        }
        benchmark::DoNotOptimize(var);
        next = next + 1 == keys.size() ? 0 : next + 1;
    }
}

void BM_LookupByName(benchmark::State& state) {
    static const std::vector<std::string> keys = ShuffledKeys("Variable ");
    RunLookups(state, keys,
               [](const ConfigParser& p, const std::string& k) { return p.GetVarInfoByName(k); });
}
BENCHMARK(BM_LookupByName);

void BM_LookupByVarID(benchmark::State& state) {
    static const std::vector<std::string> keys = ShuffledKeys("v");
    RunLookups(state, keys,
               [](const ConfigParser& p, const std::string& k) { return p.GetVarInfoByVarID(k); });
}
BENCHMARK(BM_LookupByVarID);

void BM_GetVarPosOffset(benchmark::State& state) {
    static const std::vector<std::string> keys = ShuffledKeys("v");
    ConfigParser parser(Catalogue().path());
    parser.ExtractConfigInfo();
    std::vector<std::string> commands;
    for (const std::string& k : keys) commands.push_back(parser.GetVarInfoByVarID(k)->get_cmd);
    size_t next = 0;
    std::pair<int, int> out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(parser.GetVarPosOffset(commands[next], keys[next], 64, out));
        next = next + 1 == keys.size() ? 0 : next + 1;
    }
}
BENCHMARK(BM_GetVarPosOffset);

}  // namespace
