// Transfers through the manager against the in-process simulated lidar, each beside a bare TCP
// send of the same number of bytes over loopback measured in the same run:
//   - a 64 MiB firmware upgrade: "ratio" is its throughput over the bare send's (target at least
//     0.5); "peak_MiB" the process's peak resident memory during the upgrade, "limit_MiB" twice
//     the package plus 32 MiB (the target);
//   - a 16 MiB device-log download: "ratio" likewise (no target; a figure for the notes).

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <QUrl>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lidar_utilities_manager.h"
#include "sim/lidar_simulator.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr size_t kMiB = 1024 * 1024;

std::string RepositoryRoot() {
    return LIDAR_SOURCE_DIR;
}

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

// Seconds to push `bytes` through a loopback TCP connection to a reader that discards them.
double BareTcpSeconds(const std::vector<char>& bytes) {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ::bind(listener, reinterpret_cast<sockaddr*>(&address), length);
    ::listen(listener, 1);
    ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
    std::thread reader([listener, total = bytes.size()] {
        const int fd = ::accept(listener, nullptr, nullptr);
        std::vector<char> buffer(64 * 1024);
        size_t received = 0;
        while (received < total) {
            const ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
            if (n <= 0) break;
            received += static_cast<size_t>(n);
        }
        ::close(fd);
    });
    const int sender = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(sender, reinterpret_cast<sockaddr*>(&address), sizeof address);
    const auto start = Clock::now();
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(sender, bytes.data() + sent, bytes.size() - sent, 0);
        if (n <= 0) break;
        sent += static_cast<size_t>(n);
    }
    reader.join();
    const double seconds = Seconds(start);
    ::close(sender);
    ::close(listener);
    return seconds;
}

// The process's peak resident set since the last reset, in MiB (VmHWM).
double PeakResidentMiB() {
    std::ifstream status("/proc/self/status");
    std::string key;
    while (status >> key) {
        if (key == "VmHWM:") {
            double kib = 0;
            status >> kib;
            return kib / 1024.0;
        }
        status.ignore(1 << 10, '\n');
    }
    return 0;
}

void ResetPeakResident() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

// A private HOME (the manager keeps its settings file there) and the repository as the working
// directory (it reads ./Config).
struct BenchFolder {
    BenchFolder() {
        char pattern[] = "/tmp/lidar-bench-XXXXXX";
        path = mkdtemp(pattern);
        setenv("HOME", path.c_str(), 1);
        ok = chdir(RepositoryRoot().c_str()) == 0;
    }
    ~BenchFolder() { std::system(("rm -rf '" + path + "'").c_str()); }
    std::string path;
    bool ok = false;
};

struct ConnectedManager {
    std::unique_ptr<sim::LidarSimulator> lidar;
    std::unique_ptr<LidarUtilitiesManager> manager;
};

ConnectedManager Connect(benchmark::State& state, size_t logBytes) {
    ConnectedManager connected;
    sim::LidarSimulator::Options options;
    options.model = "Egret";
    options.configDir = RepositoryRoot() + "/Config";
    options.logBytes = logBytes;
    connected.lidar = std::make_unique<sim::LidarSimulator>(options);
    std::string error;
    if (!connected.lidar->Start(&error)) {
        state.SkipWithError(error.c_str());
        return connected;
    }
    connected.manager = std::make_unique<LidarUtilitiesManager>(0, "");
    LidarUtilitiesManager& m = *connected.manager;
    m.InitConfigFileParser("Egret");
    m.setIpAddress("127.0.0.1");
    m.setPort(QString::number(connected.lidar->Port()));
    m.ConnectLidar();
    while (m.isConnecting()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    m.waitForWorkers();
    if (!m.getIsConnected()) state.SkipWithError("the manager did not connect");
    return connected;
}

void BM_UpgradeVersusBareTcp(benchmark::State& state) {
    BenchFolder folder;
    if (!folder.ok) return state.SkipWithError("chdir failed");
    const size_t size = 64 * kMiB;
    const std::string package = folder.path + "/firmware.bin";
    double bareSeconds = 0;
    {
        std::vector<char> bytes(size);
        for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 131 + (i >> 12));
        std::ofstream(package, std::ios::binary).write(bytes.data(), static_cast<long>(size));
        bareSeconds = BareTcpSeconds(bytes);
    }
    ConnectedManager connected = Connect(state, 4096);
    if (!connected.manager) return;
    LidarUtilitiesManager& m = *connected.manager;
    int module = -1, page = -1, row = -1;
    const auto& tree = m.getCurrentParser()->varTree;
    for (size_t a = 0; a < tree.size(); ++a)
        for (size_t b = 0; b < tree[a].size(); ++b)
            for (size_t c = 0; c < tree[a][b].size(); ++c)
                if (tree[a][b][c]->set_cmd == "0x83") module = a, page = b, row = c;

    double transferSeconds = 0;
    double peak = 0;
    for (auto _ : state) {
        ResetPeakResident();
        if (m.UpgradeLidar(QUrl::fromLocalFile(QString::fromStdString(package)), module, page,
                           row) != 0)
            return state.SkipWithError("the upgrade did not start");
        // The 300 ms pause before the worker is the design's; the transfer starts after it.
        const auto start = Clock::now();
        while (m.getIsUpgrading()) std::this_thread::sleep_for(std::chrono::microseconds(200));
        transferSeconds = Seconds(start);
        peak = PeakResidentMiB();
        state.SetIterationTime(transferSeconds);
        if (m.getUpgradeProgress() != m.getUpgradeProgressTotalLen())
            return state.SkipWithError("the transfer did not complete");
    }
    state.counters["upgrade_MiB_s"] = 64 / transferSeconds;
    state.counters["bare_MiB_s"] = 64 / bareSeconds;
    state.counters["ratio"] = bareSeconds / transferSeconds;
    state.counters["peak_MiB"] = peak;
    state.counters["limit_MiB"] = 2 * 64 + 32;
}
BENCHMARK(BM_UpgradeVersusBareTcp)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_LogDownloadVersusBareTcp(benchmark::State& state) {
    BenchFolder folder;
    if (!folder.ok) return state.SkipWithError("chdir failed");
    const size_t size = 16 * kMiB;
    const double bareSeconds = BareTcpSeconds(std::vector<char>(size, 'x'));
    ConnectedManager connected = Connect(state, size);
    if (!connected.manager) return;
    LidarUtilitiesManager& m = *connected.manager;
    connected.lidar->LogContent({0});  // generated once, before the clock runs
    double seconds = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        if (m.DownloadLog(QUrl::fromLocalFile(QString::fromStdString(folder.path)), "Device Log") !=
            0)
            return state.SkipWithError("the download did not start");
        m.waitForWorkers();
        seconds = Seconds(start);
        state.SetIterationTime(seconds);
    }
    state.counters["log_MiB_s"] = 16 / seconds;
    state.counters["bare_MiB_s"] = 16 / bareSeconds;
    state.counters["ratio"] = bareSeconds / seconds;
}
BENCHMARK(BM_LogDownloadVersusBareTcp)
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
