// The soak: a connected manager doing what a person does all day, against a simulated Egret that
// misbehaves now and then (lidar-sim --chaos, in its own process), for a long time. Between
// operations, every 10 s, it samples this process's resident memory, open descriptors and
// threads, and it prints how each grew from the end of the warm-up to the end, beside the same
// figures of a bare client (a child process) making the same kinds of requests to the same
// simulator at the same time. docs/simulator.md, "The soak".
//
// usage: soak_bench [--seconds N] [--seed N]    (defaults 600 and 1)
//
// Exit status: 0 every target met; 1 a target missed (memory grew by more than 2 MiB,
// descriptors or threads differ, a busy flag stayed set, an operation ran past its time-out,
// the background refreshes stopped); 2 a usage error or the simulator did not start.

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QDir>
#include <QUrl>
#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "lidar_utilities_manager.h"
#include "sdk/logger.h"
#include "sdk/vrc_client.h"
#include "soak_support.h"

namespace {

using soak::kWarmUpSeconds;
using soak::RepositoryRoot;
using soak::Resources;
using soak::Sample;
using soak::Simulator;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kSampleEverySeconds = 10;
constexpr long kRssNoiseKib = 2048;
constexpr int kReceiveTimeoutMs = 4000;  // the manager's, and the bare client's
constexpr int kRecordSeconds = 5;
// An operation that waits for a request that never comes back gives up after its receive
// time-out; beyond this it is hung and the soak ends at once.
constexpr int kHungSeconds = 120;

const char* const kUsage = "usage: soak_bench [--seconds N] [--seed N]\n";

struct Arguments {
    int seconds = 600;
    unsigned long seed = 1;
};

bool ParseArguments(int argc, char** argv, Arguments& args) {
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        if (i + 1 >= argc) return false;
        char* end = nullptr;
        const std::string text = argv[++i];
        const unsigned long value = std::strtoul(text.c_str(), &end, 10);
        if (text.empty() || !std::isdigit(static_cast<unsigned char>(text[0])) || *end)
            return false;
        if (name == "--seconds" && value > 0 && value <= 24 * 3600) {
            args.seconds = static_cast<int>(value);
        } else if (name == "--seed" && value <= 0xFFFFFFFFul) {
            args.seed = value;
        } else {
            return false;
        }
    }
    return true;
}

// ---- operations and their time-outs ----------------------------------------------------------

// Times every operation against its limit; a watchdog ends the whole run when one never ends.
class Operations {
  public:
    // onHung ends whatever else the run started; reportFd takes the news.
    Operations(std::function<void()> onHung, int reportFd)
        : onHung_(std::move(onHung)), reportFd_(reportFd) {
        watchdog_ = std::thread([this] { Watch(); });
    }
    ~Operations() {
        running_.store(false);
        watchdog_.join();
    }

    // Runs an operation that makes at most `requests` requests, each allowed the receive
    // time-out, plus 5 s for a loaded machine.
    void Run(const char* name, int requests, const std::function<void()>& operation) {
        const auto limit = milliseconds(requests * kReceiveTimeoutMs + 5000);
        {
            std::lock_guard<std::mutex> lock(mutex_);
            current_ = name;
        }
        const auto start = Clock::now();
        started_.store(start.time_since_epoch().count());
        operation();
        started_.store(0);
        const auto took = Clock::now() - start;
        if (took > limit) {
            late_.push_back(std::string(name) + " took " +
                            std::to_string(std::chrono::duration_cast<milliseconds>(took).count()) +
                            " ms (time-out " + std::to_string(limit.count()) + " ms)");
        }
    }
    const std::vector<std::string>& Late() const { return late_; }

  private:
    void Watch() {
        while (running_.load()) {
            std::this_thread::sleep_for(milliseconds(500));
            const int64_t started = started_.load();
            if (started == 0) continue;
            if (Clock::now() - Clock::time_point(Clock::duration(started)) < seconds(kHungSeconds))
                continue;
            std::lock_guard<std::mutex> lock(mutex_);
            ::dprintf(reportFd_, "FAIL: %s hung for %d s; the soak ends here\n", current_.c_str(),
                      kHungSeconds);
            onHung_();
            std::_Exit(1);
        }
    }

    std::function<void()> onHung_;
    int reportFd_;
    std::atomic<bool> running_{true};
    std::atomic<int64_t> started_{0};
    std::mutex mutex_;
    std::string current_;
    std::vector<std::string> late_;
    std::thread watchdog_;
};

// ---- the manager's soak ----------------------------------------------------------------------

constexpr int kOperationModule = 2;  // Egret's "Operation": spin rate and return mode

struct ManagerFigures {
    explicit ManagerFigures(int runSeconds) : resources(runSeconds) {}

    int Count(const std::string& prefix) const {
        return static_cast<int>(std::count_if(
            failures.begin(), failures.end(),
            [&](const std::string& failure) { return failure.rfind(prefix, 0) == 0; }));
    }

    Resources resources;
    int connects = 0;
    int failedConnects = 0;
    int moduleReads = 0;
    int applies = 0;
    int consoleSends = 0;
    int recordings = 0;
    int refreshes = 0;
    std::vector<std::string> failures;
};

// The modules a person browses: every one whose reads are plain get commands (no log download).
std::vector<int> BrowsedModules(LidarUtilitiesManager& manager, std::vector<int>& requests) {
    std::vector<int> modules;
    const auto& tree = manager.getCurrentParser()->varTree;
    for (size_t module = 0; module < tree.size(); ++module) {
        std::set<std::string> commands;
        bool plain = true;
        for (const auto& page : tree[module])
            for (const VarInfo* var : page) {
                if (var->get_cmd.empty()) continue;
                plain = plain && var->get_cmd.size() <= 4 && var->get_cmd != "0x75";
                commands.insert(var->get_cmd + var->get_payload_text);
            }
        if (plain && !commands.empty()) {
            modules.push_back(static_cast<int>(module));
            requests.push_back(static_cast<int>(commands.size()));
        }
    }
    return modules;
}

int TimerModule(LidarUtilitiesManager& manager) {
    const auto& tree = manager.getCurrentParser()->varTree;
    for (size_t module = 0; module < tree.size(); ++module)
        for (const auto& page : tree[module])
            for (const VarInfo* var : page)
                if (var->timer_update) return static_cast<int>(module);
    return 0;
}

class ManagerSoak {
  public:
    ManagerSoak(uint16_t port, int seconds, std::function<void()> onHung, int reportFd)
        : port_(port),
          seconds_(seconds),
          figures_(seconds),
          operations_(std::move(onHung), reportFd) {}

    ManagerFigures Run() {
        manager_.InitConfigFileParser("Egret");
        manager_.setIpAddress("127.0.0.1");
        manager_.setPort(QString::number(port_));
        manager_.setModuleIndexUse(TimerModule(manager_));  // the status page is on screen
        manager_.setMonitorAutoRefresh(true);
        manager_.setMonitorRecordDurationSec(kRecordSeconds);
        manager_.setMonitorRecordIntervalSec(1);
        QObject::connect(
            &manager_, &LidarUtilitiesManager::myMapChanged, &manager_,
            [this] { refreshes_.fetch_add(1); }, Qt::DirectConnection);
        std::vector<int> requests;
        const std::vector<int> modules = BrowsedModules(manager_, requests);
        const QString records = QDir::currentPath() + "/records";
        QDir().mkpath(records);

        const auto start = Clock::now();
        giveUp_ = start + seconds(seconds_ + 60);
        auto nextSample = start + seconds(kSampleEverySeconds);
        int quietWindowsWithoutRefresh = 0;
        for (int cycle = 0; Clock::now() < start + seconds(seconds_); ++cycle) {
            EnsureConnected();
            const size_t m = static_cast<size_t>(cycle) % modules.size();
            operations_.Run("module read", requests[m],
                            [&] { manager_.GetLidarModuleInfo(modules[m]); });
            ++figures_.moduleReads;
            Apply(cycle);
            operations_.Run("console send", 1, [&] { manager_.SendCommand("0x07", ""); });
            ++figures_.consoleSends;
            if (Clock::now() >= nextSample) {
                const int refreshed = refreshes_.exchange(0);
                figures_.refreshes += refreshed;
                quietWindowsWithoutRefresh = refreshed > 0 ? 0 : quietWindowsWithoutRefresh + 1;
                if (quietWindowsWithoutRefresh == 3)
                    figures_.failures.push_back("no refresh for three sampling periods");
                QuietPoint(records, std::chrono::duration<double>(Clock::now() - start).count());
                nextSample += seconds(kSampleEverySeconds);
                StartRecording(records);
            }
            std::this_thread::sleep_for(milliseconds(200));
        }
        QuietPoint(records, std::chrono::duration<double>(Clock::now() - start).count());
        figures_.refreshes += refreshes_.exchange(0);
        operations_.Run("stop", 2, [&] { manager_.Stop(); });
        CheckFlags("the end");
        for (const std::string& late : operations_.Late())
            figures_.failures.push_back("past its time-out: " + late);
        return figures_;
    }

  private:
    bool Open() const {
        const auto client = manager_.getAuthorizedClient();
        return manager_.getIsConnected() && client && client->IsOpen();
    }

    // A dropped connection is noticed as a person notices it, and connected again; a simulator
    // that never answers again ends the run a minute after its time.
    void EnsureConnected() {
        while (!Open()) {
            if (Clock::now() > giveUp_) {
                figures_.failures.push_back("could not connect again");
                break;
            }
            operations_.Run("reconnect", 5, [&] {
                manager_.Stop();
                manager_.ConnectLidar();
                manager_.waitForWorkers();
            });
            ++figures_.connects;
            if (Open()) break;
            ++figures_.failedConnects;
            std::this_thread::sleep_for(milliseconds(200));
        }
    }

    // Return Mode between Last and Dual: a read-modify-write of one set command.
    void Apply(int cycle) {
        manager_.SetText(3, kOperationModule, 0, 1, cycle % 2 ? "1" : "2");
        operations_.Run("apply", 2, [&] { manager_.Run(kOperationModule); });
        ++figures_.applies;
    }

    void StartRecording(const QString& folder) {
        if (!Open()) return;
        operations_.Run("start recording", 1,
                        [&] { manager_.startMonitorRecord(QUrl::fromLocalFile(folder)); });
        ++figures_.recordings;
    }

    // Every thread in its steady state: connected, no recording; then the sample.
    void QuietPoint(const QString& records, double elapsedSeconds) {
        // A recording ends by itself after its duration (a reconnect ends it sooner).
        const auto recordingLimit =
            Clock::now() + seconds(kRecordSeconds) + milliseconds(kReceiveTimeoutMs + 5000);
        while (manager_.getIsMonitorRecording() && Clock::now() < recordingLimit)
            std::this_thread::sleep_for(milliseconds(100));
        if (manager_.getIsMonitorRecording()) {
            figures_.failures.push_back("a recording outlived its duration");
            operations_.Run("stop recording", 1, [&] { manager_.stopMonitorRecord(); });
        }
        QDir(records).removeRecursively();
        QDir().mkpath(records);
        do {
            EnsureConnected();
            manager_.waitForWorkers();
            CheckFlags("a quiet point");
            figures_.resources.Take(elapsedSeconds);
        } while (!Open() &&
                 Clock::now() <
                     giveUp_);  // the sample is taken again when the connection dropped meanwhile
    }

    void CheckFlags(const std::string& when) {
        const std::pair<const char*, bool> flags[] = {
            {"connecting", manager_.isConnecting()},
            {"upgrading", manager_.getIsUpgrading()},
            {"downloading a log", manager_.getIsDownloadLog()},
            {"recording", manager_.getIsMonitorRecording()}};
        for (const auto& [name, set] : flags) {
            if (set)
                figures_.failures.push_back(std::string("busy flag '") + name + "' set at " + when);
        }
    }

    uint16_t port_;
    int seconds_;
    Clock::time_point giveUp_;
    ManagerFigures figures_;
    Operations operations_;
    LidarUtilitiesManager manager_{0, ""};
    std::atomic<int> refreshes_{0};
};

// ---- the bare baseline -----------------------------------------------------------------------

// What the manager asks for, from one bare client: a module's get command, a read-modify-write
// of 0x30/0x31, a console 0x07, the monitor (0x41) every second and the status (0x40) every 3 s;
// a new client whenever the connection drops.
Resources BareSoak(uint16_t port, int runSeconds) {
    Resources resources(runSeconds);
    const uint8_t reads[] = {0x07, 0x08, 0x30, 0x23, 0x40, 0x41};
    auto connect = [port] {
        return std::make_unique<lidar::VrcClient>("127.0.0.1", port, false, lidar::VrcMode::kTcp, 1,
                                                  "", "", "", kReceiveTimeoutMs, kReceiveTimeoutMs,
                                                  0.0f, 0);
    };
    std::unique_ptr<lidar::VrcClient> client;
    const auto start = Clock::now();
    auto nextSample = start + seconds(kSampleEverySeconds);
    auto nextMonitor = start;
    int monitorReads = 0;
    u8vec reply, settings;
    for (int cycle = 0; Clock::now() < start + seconds(runSeconds); ++cycle) {
        if (!client || !client->IsOpen()) {
            client.reset();
            client = connect();
        }
        client->QueryCommand({}, reply, reads[cycle % 6], false);
        if (client->QueryCommand({}, settings, 0x30, false) == 0) {
            settings.resize(std::max<size_t>(settings.size(), 3));
            settings[2] = cycle % 2 ? 1 : 2;  // the return mode
            client->QueryCommand(settings, reply, 0x31, false);
        }
        client->QueryCommand({}, reply, 0x07, true);
        for (; Clock::now() >= nextMonitor; nextMonitor += seconds(1)) {
            client->QueryCommand({}, reply, 0x41, false);
            if (++monitorReads % 3 == 0) client->QueryCommand({}, reply, 0x40, false);
        }
        if (Clock::now() >= nextSample) {
            if (!client->IsOpen()) client = connect();
            resources.Take(std::chrono::duration<double>(Clock::now() - start).count());
            nextSample += seconds(kSampleEverySeconds);
        }
        std::this_thread::sleep_for(milliseconds(200));
    }
    return resources;
}

// The baseline runs in a child process, started before this process has threads, so that the
// two are measured apart; it sends its two samples back through a pipe.
class BareChild {
  public:
    bool Start(uint16_t port, int runSeconds) {
        int pipeFds[2];
        if (::pipe(pipeFds) != 0) return false;
        pid_ = ::fork();
        if (pid_ < 0) return false;
        if (pid_ == 0) {
            ::prctl(PR_SET_PDEATHSIG, SIGKILL);
            ::close(pipeFds[0]);
            const Resources resources = BareSoak(port, runSeconds);
            const Sample samples[2] = {resources.Warm(), resources.End()};
            [[maybe_unused]] ssize_t ignored = ::write(pipeFds[1], samples, sizeof samples);
            std::_Exit(0);
        }
        ::close(pipeFds[1]);
        fd_ = pipeFds[0];
        return true;
    }
    bool Finish(Sample& warm, Sample& end) {
        Sample samples[2];
        const bool complete = ::read(fd_, samples, sizeof samples) == sizeof samples;
        ::close(fd_);
        ::waitpid(pid_, nullptr, 0);
        warm = samples[0];
        end = samples[1];
        return complete;
    }

  private:
  public:
    void Kill() const {
        if (pid_ > 0) ::kill(pid_, SIGKILL);
    }

  private:
    pid_t pid_ = -1;
    int fd_ = -1;
};

// ---- report ----------------------------------------------------------------------------------

// Connecting saves the settings file under Documents and the console writes the history into
// ./Config: both go to a folder of the run's own, which reads the repository's catalogues.
bool MakeWorkFolder() {
    char folder[] = "/tmp/lidar-soak-XXXXXX";
    if (!::mkdtemp(folder)) return false;
    setenv("HOME", folder, 1);
    const std::string config = std::string(folder) + "/Config";
    const std::string source = RepositoryRoot() + "/Config/";
    if (::mkdir(config.c_str(), 0700) != 0) return false;
    for (const char* name : {"varID", "feature_config.csv", "auth_config.csv"})
        if (::symlink((source + name).c_str(), (config + "/" + name).c_str()) != 0) return false;
    return ::chdir(folder) == 0;
}

void PrintRow(const char* name, long warm, long end, long bareWarm, long bareEnd) {
    std::printf("%-12s %10ld %10ld %+10ld   %10ld %10ld %+10ld\n", name, warm, end, end - warm,
                bareWarm, bareEnd, bareEnd - bareWarm);
}

int Report(const Arguments& args, ManagerFigures& figures, bool bareComplete,
           const Sample& bareWarm, const Sample& bareEnd, const std::string& simulatorLines) {
    const Sample& warm = figures.resources.Warm();
    const Sample& end = figures.resources.End();
    std::printf("soak: %d s against lidar-sim --chaos %lu (Egret), %d samples, warm-up %d s\n",
                args.seconds, args.seed, figures.resources.Samples(),
                std::min(kWarmUpSeconds, args.seconds / 2));
    std::printf(
        "operations: %d connects (%d failed), %d module reads, %d applies, %d console "
        "sends, %d recordings, %d refreshes announced\n",
        figures.connects, figures.failedConnects, figures.moduleReads, figures.applies,
        figures.consoleSends, figures.recordings, figures.refreshes);
    std::printf("simulator: %s", simulatorLines.c_str());
    std::printf("%-12s %10s %10s %10s   %10s %10s %10s\n", "resource", "warm-up", "end", "growth",
                "bare w-up", "bare end", "bare grw");
    PrintRow("rss_kib", warm.rssKib, end.rssKib, bareWarm.rssKib, bareEnd.rssKib);
    PrintRow("descriptors", warm.descriptors, end.descriptors, bareWarm.descriptors,
             bareEnd.descriptors);
    PrintRow("threads", warm.threads, end.threads, bareWarm.threads, bareEnd.threads);
    // Two flat lines give 1: each growth counts at least one page.
    const double ratio = std::max(4L, end.rssKib - warm.rssKib) /
                         static_cast<double>(std::max(4L, bareEnd.rssKib - bareWarm.rssKib));
    std::printf("rss_growth_ratio %.2f (against the bare client%s)\n", ratio,
                bareComplete ? "" : ", which did not report");

    std::printf("busy flags left set: %d; operations past their time-out: %d\n",
                figures.Count("busy flag"), figures.Count("past its time-out"));
    if (figures.resources.Samples() < 2) figures.failures.push_back("fewer than two samples");
    if (end.rssKib - warm.rssKib > kRssNoiseKib)
        figures.failures.push_back("resident memory grew by more than 2 MiB");
    if (end.descriptors != warm.descriptors) figures.failures.push_back("open descriptors changed");
    if (end.threads != warm.threads) figures.failures.push_back("threads changed");
    for (const std::string& failure : figures.failures) std::printf("FAIL: %s\n", failure.c_str());
    std::printf("%s\n",
                figures.failures.empty() ? "soak passed: no growth, nothing stuck" : "soak failed");
    return figures.failures.empty() ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Arguments args;
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (!ParseArguments(argc, argv, args)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    if (!MakeWorkFolder()) {
        std::perror("soak_bench: work folder");
        return 2;
    }
    Simulator simulator;
    if (!simulator.Start(args.seed)) {
        std::fputs("soak_bench: lidar-sim did not start\n", stderr);
        return 2;
    }
    BareChild bare;
    if (!bare.Start(simulator.Port(), args.seconds)) {
        std::perror("soak_bench: fork");
        return 2;
    }
    // The developer lines of the manager, the SDK's log and Qt's warnings would bury the report:
    // they go nowhere while it runs.
    LidarUtilitiesManager::setDeveloperLineSink([](const std::string&) {});
    Logger::GetInstance().SetOutputFile("-");
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    ManagerFigures figures(args.seconds);
    {
        QCoreApplication app(argc, argv);
        ManagerSoak soak(
            simulator.Port(), args.seconds,
            [&] {
                bare.Kill();
                simulator.Kill();
            },
            STDOUT_FILENO);
        figures = soak.Run();
    }
    qInstallMessageHandler(nullptr);
    Logger::GetInstance().SetOutputFile("");
    LidarUtilitiesManager::setDeveloperLineSink({});
    Sample bareWarm, bareEnd;
    const bool bareComplete = bare.Finish(bareWarm, bareEnd);
    const std::string simulatorLines = simulator.Stop();
    const QString folder = QDir::currentPath();
    const int status = Report(args, figures, bareComplete, bareWarm, bareEnd, simulatorLines);
    QDir(folder).removeRecursively();
    return status;
}
