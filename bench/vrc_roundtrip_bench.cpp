// Round trip of one VRC query (0x07, device information) against the in-process simulator over
// loopback TCP: the floor under every page read of the manager.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sdk/vrc_client.h"
#include "sim/lidar_simulator.h"

namespace {

std::string ConfigDir() {
    return std::string(LIDAR_SOURCE_DIR) + "/Config";
}

std::unique_ptr<sim::LidarSimulator> StartSimulator(benchmark::State& state) {
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = ConfigDir();
    auto simulator = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!simulator->Start(&error)) {
        state.SkipWithError(("simulator: " + error).c_str());
        return nullptr;
    }
    return simulator;
}

std::unique_ptr<lidar::VrcClient> Connect(const sim::LidarSimulator& simulator) {
    return std::make_unique<lidar::VrcClient>("127.0.0.1", simulator.Port(), false,
                                              lidar::VrcMode::kTcp, 1, "", "", "", 2000, 2000, 0.0f,
                                              0);
}

void BM_DeviceInformationRoundTrip(benchmark::State& state) {
    auto simulator = StartSimulator(state);
    if (!simulator) return;
    auto client = Connect(*simulator);
    const u8vec empty;
    u8vec reply;
    for (auto _ : state) {
        if (client->QueryCommand(empty, reply, 0x07, false) != 0) {
            state.SkipWithError(client->LastError().c_str());
            break;
        }
        benchmark::DoNotOptimize(reply.data());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DeviceInformationRoundTrip)->UseRealTime();

// Four threads sharing one client: the queries queue on the client's lock.
void BM_SharedClientRoundTrip(benchmark::State& state) {
    static std::unique_ptr<sim::LidarSimulator> simulator;
    static std::unique_ptr<lidar::VrcClient> client;
    if (state.thread_index() == 0) {
        simulator = StartSimulator(state);
        if (simulator) client = Connect(*simulator);
    }
    const u8vec empty;
    u8vec reply;
    for (auto _ : state) {
        if (!client || client->QueryCommand(empty, reply, 0x07, false) != 0) {
            state.SkipWithError("query failed");
            break;
        }
    }
    state.SetItemsProcessed(state.iterations());
    if (state.thread_index() == 0) {
        client.reset();
        simulator.reset();
    }
}
BENCHMARK(BM_SharedClientRoundTrip)->Threads(4)->UseRealTime();

}  // namespace
