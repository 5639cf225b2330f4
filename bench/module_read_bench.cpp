// Reading a module of 500 variables in 25 groups through the manager, beside 25 bare QueryCommand
// round trips on the same connection to the same simulated lidar. The "ratio" counter is what the
// manager adds on top of the wire: grouping, decoding 500 values and rebuilding the UI map (target
// at most 1.2).

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

#include "lidar_utilities_manager.h"
#include "sdk/vrc_client.h"
#include "sim/lidar_simulator.h"

namespace {

constexpr int kGroups = 25;
constexpr int kVarsPerGroup = 20;

std::string writeBenchCatalogue(const std::string& root) {
    QDir().mkpath(QString::fromStdString(root + "/Config/varID/Bench"));
    std::ostringstream csv;
    csv << "module,page,var_id,var_name,var_type,get_cmd,set_cmd,get_start_pos,set_start_pos,"
           "offset,scale,default_val\n";
    for (int g = 0; g < kGroups; ++g) {
        char command[8];
        snprintf(command, sizeof command, "0x%02X", 0x30 + g);
        for (int v = 0; v < kVarsPerGroup; ++v) {
            csv << "Bench,Page " << g / 5 << ",v" << g << "_" << v << ",Value " << g << "." << v
                << ",uint16," << command << ",," << 2 * v << ",0,2,0.01," << (g * 100 + v) / 100.0
                << "\n";
        }
    }
    std::ofstream(root + "/Config/varID/Bench/Bench.csv") << csv.str();
    return root + "/Config";
}

// A temporary folder holding the bench catalogue, made the working directory (the manager reads
// ./Config); "" after reporting the failure to the benchmark.
std::string enterBenchFolder(benchmark::State& state) {
    char pattern[] = "/tmp/lidar-bench-XXXXXX";
    const std::string root = mkdtemp(pattern);
    writeBenchCatalogue(root);
    if (chdir(root.c_str()) != 0) {
        state.SkipWithError("chdir failed");
        return std::string();
    }
    return root;
}

// A simulated lidar serving the bench catalogue; null after reporting the failure.
std::unique_ptr<sim::LidarSimulator> startBenchSimulator(benchmark::State& state,
                                                         const std::string& root) {
    sim::LidarSimulator::Options options;
    options.model = "Bench";
    options.configDir = root + "/Config";
    auto lidar = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!lidar->Start(&error)) {
        state.SkipWithError(error.c_str());
        return nullptr;
    }
    return lidar;
}

void BM_ModuleReadVersusBareQueries(benchmark::State& state) {
    const std::string root = enterBenchFolder(state);
    if (root.empty()) return;
    const std::unique_ptr<sim::LidarSimulator> simulator = startBenchSimulator(state, root);
    if (!simulator) return;
    sim::LidarSimulator& lidar = *simulator;

    LidarUtilitiesManager manager(0, "");
    manager.InitConfigFileParser("Bench");
    manager.setIpAddress("127.0.0.1");
    manager.setPort(QString::number(lidar.Port()));
    manager.ConnectLidar();
    manager.waitForWorkers();
    if (!manager.getIsConnected()) {
        state.SkipWithError("manager did not connect");
        return;
    }
    // The bare round trips use the manager's own connection, so both sides of the ratio share
    // one socket and one simulator thread: on two cores the wake-up latency of a loopback round
    // trip depends on where the two threads run, and separate connections would compare that.
    std::shared_ptr<lidar::VrcClient> bare = manager.getAuthorizedClient()->GetClientPtr();

    using Clock = std::chrono::steady_clock;
    double moduleSeconds = 0, bareSeconds = 0;
    u8vec reply;
    for (auto _ : state) {
        const auto start = Clock::now();
        manager.GetLidarModuleInfo(0);
        const auto middle = Clock::now();
        for (int g = 0; g < kGroups; ++g) bare->QueryCommand({}, reply, uint8_t(0x30 + g), false);
        const auto end = Clock::now();
        moduleSeconds += std::chrono::duration<double>(middle - start).count();
        bareSeconds += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(std::chrono::duration<double>(middle - start).count());
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["module_us"] = 1e6 * moduleSeconds / n;
    state.counters["bare_25_us"] = 1e6 * bareSeconds / n;
    state.counters["ratio"] = moduleSeconds / bareSeconds;
    manager.Stop();
    QDir(QString::fromStdString(root)).removeRecursively();
}
BENCHMARK(BM_ModuleReadVersusBareQueries)->UseManualTime()->Unit(benchmark::kMicrosecond);

// What the module read leaves for the UI: the first getMyMap() after the notification rebuilds
// the map of all 500 variables.
void BM_VariableMapRebuild(benchmark::State& state) {
    const std::string root = enterBenchFolder(state);
    if (root.empty()) return;
    LidarUtilitiesManager manager(0, "");
    manager.InitConfigFileParser("Bench");
    for (auto _ : state) {
        manager.notifyMyMapChanged();
        benchmark::DoNotOptimize(manager.getMyMap());
    }
    QDir(QString::fromStdString(root)).removeRecursively();
}
BENCHMARK(BM_VariableMapRebuild)->Unit(benchmark::kMicrosecond);

// Stop while a read waits on a lidar that reads requests and never answers, beside closing a bare
// client that waits the same way: "stop_ms" is the latency the UI thread sees (target under
// 100 ms), "ratio" what Stop adds to waking the wait itself.
void BM_StopWhileTheLidarIsSilent(benchmark::State& state) {
    const std::string root = enterBenchFolder(state);
    if (root.empty()) return;
    const std::unique_ptr<sim::LidarSimulator> simulator = startBenchSimulator(state, root);
    if (!simulator) return;
    sim::LidarSimulator& lidar = *simulator;
    sim::Fault silent;
    silent.kind = sim::Fault::Kind::kNoReply;

    using Clock = std::chrono::steady_clock;
    const auto waitingQuery = std::chrono::milliseconds(50);
    double stopSeconds = 0, bareSeconds = 0;
    u8vec reply;
    for (auto _ : state) {
        lidar.ClearFaults();
        LidarUtilitiesManager manager(0, "");
        manager.InitConfigFileParser("Bench");
        manager.setIpAddress("127.0.0.1");
        manager.setPort(QString::number(lidar.Port()));
        manager.ConnectLidar();
        manager.waitForWorkers();
        lidar.SetFault(0x30, silent);
        std::thread reader([&manager] { manager.GetLidarModuleInfo(0); });
        std::this_thread::sleep_for(waitingQuery);
        auto start = Clock::now();
        manager.Stop();
        const double stopped = std::chrono::duration<double>(Clock::now() - start).count();
        stopSeconds += stopped;
        reader.join();

        lidar::VrcClient bare("127.0.0.1", lidar.Port(), false, lidar::VrcMode::kTcp, 1, "", "", "",
                              4000, 4000, 0.0f, 0);
        std::thread waiter([&bare, &reply] { bare.QueryCommand({}, reply, 0x30, false); });
        std::this_thread::sleep_for(waitingQuery);
        start = Clock::now();
        bare.Close();
        bareSeconds += std::chrono::duration<double>(Clock::now() - start).count();
        waiter.join();
        state.SetIterationTime(stopped);
    }
    const double n = static_cast<double>(state.iterations());
    state.counters["stop_ms"] = 1e3 * stopSeconds / n;
    state.counters["bare_close_ms"] = 1e3 * bareSeconds / n;
    state.counters["ratio"] = stopSeconds / bareSeconds;
    QDir(QString::fromStdString(root)).removeRecursively();
}
BENCHMARK(BM_StopWhileTheLidarIsSilent)
    ->UseManualTime()
    ->Iterations(20)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Connecting saves the settings file under Documents: keep it out of the real home.
    char home[] = "/tmp/lidar-bench-home-XXXXXX";
    setenv("HOME", mkdtemp(home), 1);
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
