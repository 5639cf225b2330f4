// The monitor's two costs a person notices, against a simulated Egret running as its own process
// (lidar-sim), so that this process's CPU time is the manager's alone.
//
// BM_IdleConnectedManager: CPU time of a connected, idle manager whose page timer and monitor
// auto-refresh run, over LIDAR_BENCH_SECONDS (default 60), as a share of one core (target at
// most 1 %) and as a ratio against a bare client that sends the same requests on the same
// schedule in the same run.
//
// BM_RecordingRowTiming: a recording at interval 1; how far each row's time lies from its
// nominal second (the first row plus n seconds), on average, against a bare loop that sleeps to
// the same nominal seconds and makes one query each time (target at most 50 ms; no drift).
//
// BM_MonitorStopLatency: switching the auto-refresh off and stopping a recording, each until its
// thread is joined, against a bare thread woken and joined (target: within 100 ms).

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTextStream>
#include <QUrl>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "lidar_utilities_manager.h"
#include "sdk/vrc_client.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr uint8_t kMonitorRead = 0x41;
constexpr uint8_t kStatusRead = 0x40;

std::string RepositoryRoot() {
    return LIDAR_SOURCE_DIR;
}

int BenchSeconds() {
    const char* text = std::getenv("LIDAR_BENCH_SECONDS");
    const int seconds = text ? std::atoi(text) : 0;
    return seconds > 0 ? seconds : 60;
}

double CpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// lidar-sim beside this program's build folder, serving Egret; its port, or 0.
class SimulatorProcess {
  public:
    SimulatorProcess() {
        const QString build = QFileInfo(QFileInfo("/proc/self/exe").symLinkTarget()).dir().path();
        process_.start(build + "/../sim/lidar-sim",
                       {"--model", "Egret", "--config-dir",
                        QString::fromStdString(RepositoryRoot() + "/Config")});
        if (!process_.waitForReadyRead(5000)) return;
        const QString banner = QString::fromUtf8(process_.readLine()).trimmed();
        port_ = banner.section(':', -1).toUShort();
    }
    ~SimulatorProcess() {
        process_.terminate();
        process_.waitForFinished(3000);
    }
    uint16_t port() const { return port_; }

  private:
    QProcess process_;
    uint16_t port_ = 0;
};

// The module whose values the page timer refreshes (Egret's status page).
int TimerModule(LidarUtilitiesManager& manager) {
    const auto& tree = manager.getCurrentParser()->varTree;
    for (size_t module = 0; module < tree.size(); ++module)
        for (const auto& page : tree[module])
            for (const VarInfo* var : page)
                if (var->timer_update) return static_cast<int>(module);
    return 0;
}

std::unique_ptr<LidarUtilitiesManager> ConnectedManager(uint16_t port) {
    auto manager = std::make_unique<LidarUtilitiesManager>(0, "");
    manager->InitConfigFileParser("Egret");
    manager->setIpAddress("127.0.0.1");
    manager->setPort(QString::number(port));
    manager->ConnectLidar();
    manager->waitForWorkers();
    return manager->getIsConnected() ? std::move(manager) : nullptr;
}

// What a connected manager asks for on its own: the monitor once a second, and the status page's
// timer values every 3 s.
double BareScheduleCpuSeconds(uint16_t port, int seconds) {
    lidar::VrcClient client("127.0.0.1", port, false, lidar::VrcMode::kTcp, 1, "", "", "", 4000,
                            4000, 0.0f, 0);
    const double before = CpuSeconds();
    const auto start = Clock::now();
    u8vec reply;
    for (int second = 0; second < seconds; ++second) {
        client.QueryCommand({}, reply, kMonitorRead, false);
        if (second % 3 == 2) client.QueryCommand({}, reply, kStatusRead, false);
        std::this_thread::sleep_until(start + std::chrono::seconds(second + 1));
    }
    return CpuSeconds() - before;
}

void BM_IdleConnectedManager(benchmark::State& state) {
    const int seconds = BenchSeconds();
    SimulatorProcess lidar;
    if (lidar.port() == 0) return state.SkipWithError("lidar-sim did not start");
    double managerCpu = 0, bareCpu = 0;
    for (auto _ : state) {
        bareCpu = BareScheduleCpuSeconds(lidar.port(), seconds);
        auto manager = ConnectedManager(lidar.port());
        if (!manager) return state.SkipWithError("the manager did not connect");
        // The status page is the one on screen: its timer values refresh every 3 s.
        manager->setModuleIndexUse(TimerModule(*manager));
        const double before = CpuSeconds();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        managerCpu = CpuSeconds() - before;
        manager->Stop();
    }
    state.counters["cpu_percent_of_a_core"] = 100.0 * managerCpu / seconds;
    state.counters["bare_cpu_percent"] = 100.0 * bareCpu / seconds;
    state.counters["ratio"] = bareCpu > 0 ? managerCpu / bareCpu : 0;
}
BENCHMARK(BM_IdleConnectedManager)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// Mean distance in ms of each time from first + n seconds.
double MeanLatenessMs(const std::vector<QDateTime>& times) {
    if (times.size() < 2) return 0;
    double sum = 0;
    for (size_t n = 1; n < times.size(); ++n)
        sum += std::fabs(times[0].msecsTo(times[n]) - 1000.0 * static_cast<double>(n));
    return sum / static_cast<double>(times.size() - 1);
}

double MeanLatenessMs(const std::vector<Clock::time_point>& times) {
    if (times.size() < 2) return 0;
    double sum = 0;
    for (size_t n = 1; n < times.size(); ++n) {
        const std::chrono::duration<double, std::milli> offset = times[n] - times[0];
        sum += std::fabs(offset.count() - 1000.0 * static_cast<double>(n));
    }
    return sum / static_cast<double>(times.size() - 1);
}

std::vector<QDateTime> RowTimes(const QString& path) {
    std::vector<QDateTime> times;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) return times;
    QTextStream stream(&file);
    stream.readLine();  // header
    while (!stream.atEnd())
        times.push_back(
            QDateTime::fromString(stream.readLine().section(',', 0, 0), "yyyy-MM-dd HH:mm:ss.zzz"));
    return times;
}

std::vector<Clock::time_point> BareLoopTimes(uint16_t port, int seconds) {
    lidar::VrcClient client("127.0.0.1", port, false, lidar::VrcMode::kTcp, 1, "", "", "", 4000,
                            4000, 0.0f, 0);
    std::vector<Clock::time_point> times;
    u8vec reply;
    // The first query of a connection costs more (the device's connection thread starts); the
    // manager's connect has paid it too.
    client.QueryCommand({}, reply, kMonitorRead, false);
    const auto start = Clock::now();
    for (int second = 0; second < seconds; ++second) {
        std::this_thread::sleep_until(start + std::chrono::seconds(second));
        client.QueryCommand({}, reply, kMonitorRead, false);
        times.push_back(Clock::now());
    }
    return times;
}

void BM_RecordingRowTiming(benchmark::State& state) {
    const int seconds = BenchSeconds();
    SimulatorProcess lidar;
    if (lidar.port() == 0) return state.SkipWithError("lidar-sim did not start");
    double managerMs = 0, fileMs = 0, bareMs = 0;
    size_t rows = 0;
    for (auto _ : state) {
        bareMs = MeanLatenessMs(BareLoopTimes(lidar.port(), seconds));
        auto manager = ConnectedManager(lidar.port());
        if (!manager) return state.SkipWithError("the manager did not connect");
        manager->setMonitorAutoRefresh(false);
        // The end of every reading, in microseconds: the file's times have milliseconds only.
        std::mutex readingsMutex;
        std::vector<Clock::time_point> readings;
        QObject context;
        QObject::connect(
            manager.get(), &LidarUtilitiesManager::myMapChanged, &context,
            [&] {
                std::lock_guard<std::mutex> lock(readingsMutex);
                readings.push_back(Clock::now());
            },
            Qt::DirectConnection);
        const QString folder = QDir::tempPath() + "/lidar-bench-record-" +
                               QString::number(QCoreApplication::applicationPid());
        QDir().mkpath(folder);
        manager->setMonitorRecordDurationSec(seconds);
        manager->setMonitorRecordIntervalSec(1);
        manager->startMonitorRecord(QUrl::fromLocalFile(folder));
        while (manager->getIsMonitorRecording())
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const std::vector<QDateTime> times = RowTimes(manager->getMonitorRecordFilePath());
        rows = times.size();
        fileMs = MeanLatenessMs(times);
        // Stop announces a changed map too; it is not a reading.
        QObject::disconnect(manager.get(), nullptr, &context, nullptr);
        {
            std::lock_guard<std::mutex> lock(readingsMutex);
            managerMs = MeanLatenessMs(readings);
        }
        manager->Stop();
        QDir(folder).removeRecursively();
    }
    state.counters["rows"] = static_cast<double>(rows);
    state.counters["mean_lateness_ms"] = managerMs;
    state.counters["file_lateness_ms"] = fileMs;
    state.counters["bare_lateness_ms"] = bareMs;
    state.counters["ratio"] = bareMs > 0 ? managerMs / bareMs : 0;
}
BENCHMARK(BM_RecordingRowTiming)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// Milliseconds from clearing a monitor thread's flag to its join, as switching the auto-refresh
// off and stopping a recording do, against a bare thread woken from a condition-variable wait
// and joined (target: within 100 ms).
double BareWakeAndJoinMs() {
    std::mutex mutex;
    std::condition_variable wake;
    bool running = true;
    std::thread waiter([&] {
        std::unique_lock<std::mutex> lock(mutex);
        wake.wait_for(lock, std::chrono::seconds(10), [&] { return !running; });
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const auto start = Clock::now();
    {
        std::lock_guard<std::mutex> lock(mutex);
        running = false;
    }
    wake.notify_all();
    waiter.join();
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

void BM_MonitorStopLatency(benchmark::State& state) {
    SimulatorProcess lidar;
    if (lidar.port() == 0) return state.SkipWithError("lidar-sim did not start");
    auto manager = ConnectedManager(lidar.port());
    if (!manager) return state.SkipWithError("the manager did not connect");
    const QString folder = QDir::tempPath() + "/lidar-bench-stop-" +
                           QString::number(QCoreApplication::applicationPid());
    QDir().mkpath(folder);
    manager->setMonitorRecordDurationSec(60);
    double refreshMs = 0, recordMs = 0, bareMs = 0;
    int rounds = 0;
    for (auto _ : state) {
        manager->setMonitorAutoRefresh(true);
        // Anywhere in the second: sometimes waiting, sometimes reading.
        std::this_thread::sleep_for(std::chrono::milliseconds(300 + 97 * (rounds % 7)));
        auto start = Clock::now();
        manager->setMonitorAutoRefresh(false);
        refreshMs += std::chrono::duration<double, std::milli>(Clock::now() - start).count();

        manager->startMonitorRecord(QUrl::fromLocalFile(folder));
        std::this_thread::sleep_for(std::chrono::milliseconds(300 + 97 * (rounds % 7)));
        start = Clock::now();
        manager->stopMonitorRecord();
        recordMs += std::chrono::duration<double, std::milli>(Clock::now() - start).count();
        bareMs += BareWakeAndJoinMs();
        ++rounds;
    }
    manager->Stop();
    QDir(folder).removeRecursively();
    state.counters["auto_refresh_off_ms"] = refreshMs / rounds;
    state.counters["stop_record_ms"] = recordMs / rounds;
    state.counters["bare_wake_join_ms"] = bareMs / rounds;
    state.counters["ratio"] = bareMs > 0 ? std::max(refreshMs, recordMs) / bareMs : 0;
}
BENCHMARK(BM_MonitorStopLatency)->Iterations(10)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    // Connecting saves the settings file under Documents: keep it out of the real home; the
    // manager reads ./Config.
    char home[] = "/tmp/lidar-bench-home-XXXXXX";
    setenv("HOME", mkdtemp(home), 1);
    if (chdir(RepositoryRoot().c_str()) != 0) return 1;
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
