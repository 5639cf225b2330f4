// A fleet of 64 simulated lidars (one lidar-sim --count 64) brought to one profile by lidarutil's
// fleet mode, with -j 1, -j 8 and -j 64, beside the bare baseline measured in the same run: one
// lidarutil apply against one lidar, times 64.
//   - "ratio_jN": the fleet's wall time over 64 x the single apply (below 1: the children
//     overlap); "speedup_j8": -j 1's wall time over -j 8's (target at least 5 on two cores);
//   - "cpu_ms_per_lidar": the CPU time (user + system) of the fleet's processes over 64;
//   - "matching": lidars that hold exactly the profile's bytes afterwards (a fleet diff, each
//     child reading its own lidar): 64 when nothing crossed between them.
// The profile changes one field of each settings command (0x20, 0x31 and the field of view's
// 0x22); the network command is left as the lidars hold it.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>
#include <chrono>
#include <memory>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kLidars = 64;

const QString kLidarutil = LIDAR_BINARY_DIR "/cli/lidarutil";
const QString kSimulator = LIDAR_BINARY_DIR "/sim/lidar-sim";

double Seconds(Clock::time_point since) {
    return std::chrono::duration<double>(Clock::now() - since).count();
}

double ChildrenCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    const auto seconds = [](const timeval& t) { return t.tv_sec + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// lidar-sim serving `count` Egret lidars on consecutive ports from `firstPort`.
class Fleet {
  public:
    explicit Fleet(int count) {
        process_.setWorkingDirectory(LIDAR_SOURCE_DIR);
        process_.setReadChannel(QProcess::StandardOutput);
        process_.start(kSimulator,
                       {"--model", "Egret", "--count", QString::number(count), "--port", "0"});
        for (int seen = 0; seen < count && process_.waitForReadyRead(10000);) {
            while (process_.canReadLine()) {
                const QString line = QString::fromUtf8(process_.readLine()).trimmed();
                if (!line.startsWith("listening on ")) continue;
                hosts_ << line.mid(QString("listening on ").size());
                ++seen;
            }
        }
    }
    ~Fleet() {
        process_.terminate();
        if (!process_.waitForFinished(5000)) process_.kill();
        process_.waitForFinished();
    }
    const QStringList& hosts() const { return hosts_; }

  private:
    QProcess process_;
    QStringList hosts_;  // "127.0.0.1:PORT"
};

struct Run {
    int status = -1;
    QByteArray out, err;
};

Run Lidarutil(const QStringList& arguments) {
    QProcess process;
    process.setWorkingDirectory(LIDAR_SOURCE_DIR);
    process.start(kLidarutil, arguments);
    Run run;
    if (!process.waitForFinished(600000)) process.kill();
    process.waitForFinished();
    run.status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = process.readAllStandardOutput();
    run.err = process.readAllStandardError();
    return run;
}

QStringList HostArguments(const QString& host) {
    return {"--host", host.section(':', 0, 0), "--port", host.section(':', 1)};
}

void SetBytes(QJsonObject& profile, const QString& varId, const QString& hex) {
    QJsonArray settings = profile["settings"].toArray();
    for (int i = 0; i < settings.size(); ++i) {
        QJsonObject entry = settings[i].toObject();
        if (entry["var_id"].toString() != varId) continue;
        entry["bytes"] = hex;
        settings[i] = entry;
    }
    profile["settings"] = settings;
}

// The lidar's own profile with one field of each settings command changed.
bool MakeProfile(const QString& host, const QString& path, std::string* error) {
    const Run exported = Lidarutil(HostArguments(host) + QStringList{"export", "-o", path});
    QFile file(path);
    if (exported.status != 0 || !file.open(QIODevice::ReadOnly)) {
        *error = "export failed: " + exported.err.toStdString();
        return false;
    }
    QJsonObject profile = QJsonDocument::fromJson(file.readAll()).object();
    file.close();
    SetBytes(profile, "data_port", "0bb8");  // 0x20: 3000
    SetBytes(profile, "spin_rate", "04b0");  // 0x31: 1200 rpm
    QJsonObject fov = profile["field_of_view"].toObject();
    QJsonArray bounds = fov["bounds"].toArray();
    bounds[0] = "12.5";  // 0x22: region 1 starts at 12.5 degrees
    fov["bounds"] = bounds;
    profile["field_of_view"] = fov;
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) return false;
    file.write(QJsonDocument(profile).toJson());
    return true;
}

// Lidars whose fleet line reports `status`.
int CountStatus(const QByteArray& jsonLines, int status) {
    int count = 0;
    for (const QByteArray& line : jsonLines.split('\n')) {
        const QJsonObject object = QJsonDocument::fromJson(line).object();
        if (!object.isEmpty() && object["exit_status"].toInt(-1) == status) ++count;
    }
    return count;
}

struct FleetFigures {
    double seconds = 0;
    double cpuSeconds = 0;
    int applied = 0;
    int matching = 0;
};

FleetFigures ApplyToFreshFleet(int jobs, const QTemporaryDir& folder, std::string* error) {
    FleetFigures figures;
    Fleet fleet(kLidars);
    if (fleet.hosts().size() != kLidars) {
        *error = "lidar-sim did not start 64 lidars";
        return figures;
    }
    const QString hosts = folder.filePath("hosts.txt");
    QFile file(hosts);
    file.open(QIODevice::WriteOnly | QIODevice::Truncate);
    file.write(fleet.hosts().join('\n').toUtf8() + '\n');
    file.close();
    const QString profile = folder.filePath("profile.json");
    const QStringList fleetArguments{"--hosts", hosts, "-j", QString::number(jobs)};

    const double cpuBefore = ChildrenCpuSeconds();
    const Clock::time_point start = Clock::now();
    const Run applied = Lidarutil(fleetArguments + QStringList{"apply", profile});
    figures.seconds = Seconds(start);
    figures.cpuSeconds = ChildrenCpuSeconds() - cpuBefore;
    figures.applied = CountStatus(applied.out, 0);
    if (applied.status != 0) *error = "the fleet apply failed: " + applied.err.toStdString();
    const Run compared = Lidarutil(fleetArguments + QStringList{"diff", profile});
    figures.matching = CountStatus(compared.out, 0);
    return figures;
}

void BM_FleetApply(benchmark::State& state) {
    QTemporaryDir folder;
    std::string error;
    for (auto _ : state) {
        double single = 0;
        {
            Fleet one(1);
            if (one.hosts().size() != 1 ||
                !MakeProfile(one.hosts().front(), folder.filePath("profile.json"), &error)) {
                state.SkipWithError(error.empty() ? "no lidar" : error.c_str());
                return;
            }
            const Clock::time_point start = Clock::now();
            const Run run = Lidarutil(HostArguments(one.hosts().front()) +
                                      QStringList{"apply", folder.filePath("profile.json")});
            single = Seconds(start);
            if (run.status != 0) {
                error = "the single apply failed: " + run.err.toStdString();
                state.SkipWithError(error.c_str());
                return;
            }
        }
        state.counters["single_s"] = single;
        for (int jobs : {1, 8, 64}) {
            const FleetFigures figures = ApplyToFreshFleet(jobs, folder, &error);
            const std::string j = "j" + std::to_string(jobs);
            state.counters[j + "_s"] = figures.seconds;
            state.counters["ratio_" + j] = figures.seconds / (kLidars * single);
            state.counters["cpu_ms_per_lidar_" + j] = 1000 * figures.cpuSeconds / kLidars;
            state.counters["applied_" + j] = figures.applied;
            state.counters["matching_" + j] = figures.matching;
            if (!error.empty()) {
                state.SkipWithError(error.c_str());
                return;
            }
        }
        state.counters["speedup_j8"] = state.counters["j1_s"] / state.counters["j8_s"];
    }
}

BENCHMARK(BM_FleetApply)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
