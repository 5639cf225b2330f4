// The window stays live whatever the lidar does: with the simulator delaying every reply by 3 s,
// a 16 ms timer on the window's UI thread is measured for lateness while the window connects,
// reads a module, applies an edit, sends a console command and refreshes the monitor, and for
// the idle window in the same run. Prints p99 and maximum lateness per phase and their ratio
// to the idle figures. Run it on a display, or under `xvfb-run -a` with Mesa's software OpenGL.

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QQmlApplicationEngine>
#include <QTemporaryDir>
#include <QTimer>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

#include "desk_session.h"
#include "desk_types.h"
#include "lidar_utilities_manager.h"

namespace {

constexpr int kTickMs = 16;
constexpr int kReplyDelayMs = 3000;
constexpr int kIdleMs = 4000;
// A phase ends when its operation has, or after this long (then the link is stopped, which
// wakes the call, and connected again unmeasured).
constexpr int kLongestPhaseMs = 12000;

struct Lateness {
    double p99 = 0;
    double max = 0;
    size_t ticks = 0;
};

// Measures the UI thread's timer while `start` has begun something and `done` is false.
class TickMeter {
  public:
    Lateness measure(const std::function<void()>& start, const std::function<bool()>& done,
                     int longestMs) {
        std::vector<double> late;
        QElapsedTimer clock;
        QTimer tick;
        tick.setTimerType(Qt::PreciseTimer);
        tick.setInterval(kTickMs);
        qint64 last = 0;
        QObject::connect(&tick, &QTimer::timeout, [&] {
            const qint64 now = clock.nsecsElapsed();
            late.push_back(std::max(0.0, (now - last) / 1e6 - kTickMs));
            last = now;
        });
        clock.start();
        tick.start();
        start();
        QElapsedTimer phase;
        phase.start();
        while (!done() && phase.elapsed() < longestMs)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        tick.stop();
        return summary(late);
    }

  private:
    static Lateness summary(std::vector<double> late) {
        Lateness result;
        result.ticks = late.size();
        if (late.empty()) return result;
        std::sort(late.begin(), late.end());
        result.max = late.back();
        result.p99 = late[std::min(late.size() - 1, static_cast<size_t>(late.size() * 0.99))];
        return result;
    }
};

// A folder whose ./Config shows the shipped catalogues and keeps the command history.
bool enterWorkFolder(const QTemporaryDir& work) {
    QDir(work.path()).mkpath("Config");
    QFile::link(LIDAR_SOURCE_DIR "/Config/varID", work.filePath("Config/varID"));
    for (const char* file : {"feature_config.csv", "auth_config.csv"})
        QFile::copy(QString(LIDAR_SOURCE_DIR "/Config/") + file,
                    work.filePath(QString("Config/") + file));
    return QDir::setCurrent(work.path());
}

// Module, page and row of a variable by its name, from the manager's variable map.
bool findVariable(LidarUtilitiesManager& manager, const QString& name, int& module, int& page,
                  int& row) {
    const QVariantList modules = manager.getMyMap();
    for (module = 0; module < modules.size(); ++module) {
        const QVariantList pages = modules[module].toList();
        for (page = 0; page < pages.size(); ++page) {
            const QVariantList rows = pages[page].toList();
            for (row = 0; row < rows.size(); ++row)
                if (rows[row].toMap().value("var_name").toString() == name) return true;
        }
    }
    return false;
}

void print(const char* phase, const Lateness& figure, const Lateness& idle) {
    const auto ratio = [](double value, double base) { return base > 0 ? value / base : 0.0; };
    std::printf("%-16s %6zu ticks  p99 %7.2f ms  max %7.2f ms  p99/idle %6.2f  max/idle %6.2f\n",
                phase, figure.ticks, figure.p99, figure.max, ratio(figure.p99, idle.p99),
                ratio(figure.max, idle.max));
}

}  // namespace

int main(int argc, char* argv[]) {
    QTemporaryDir home, work;
    setenv("HOME", home.path().toLocal8Bit().constData(), 1);
    unsetenv("XDG_CONFIG_HOME");
    QApplication app(argc, argv);
    useDeskLook();
    if (!enterWorkFolder(work)) return 1;

    LidarUtilitiesManager& manager = *LidarUtilitiesManager::getInstance(0, "");
    DeskSession session(manager, "./Config");
    registerDeskTypes(manager, session);
    QQmlApplicationEngine engine;
    engine.load(QUrl("qrc:/qml/Main.qml"));
    if (engine.rootObjects().isEmpty()) return 1;
    if (!session.selectModel("Egret")) return 1;
    QString error;
    if (!session.simulator().start("Egret", false, manager, error)) {
        std::fprintf(stderr, "%s\n", qPrintable(error));
        return 1;
    }
    session.setSimulated(true);
    sim::LidarSimulator& lidar = *session.simulator().network();
    sim::Fault delay;
    delay.kind = sim::Fault::Kind::kDelay;
    delay.delayMs = kReplyDelayMs;
    for (int code = 0; code < 256; ++code) lidar.SetFault(static_cast<uint8_t>(code), delay);

    TickMeter meter;
    DeviceQueue& queue = *session.queue();
    const auto queueIdle = [&queue] { return !queue.busy(); };
    const auto reconnectIfStopped = [&] {
        if (!queue.busy() && manager.getIsConnected()) return;
        session.disconnectLidar();
        lidar.ClearFaults();
        session.connectLidar();
        while (!manager.getIsConnected() || queue.busy())
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
        for (int code = 0; code < 256; ++code) lidar.SetFault(static_cast<uint8_t>(code), delay);
    };

    // The window's first frames are drawn before anything is measured.
    meter.measure([] {}, [] { return false; }, 1000);
    const Lateness idle = meter.measure([] {}, [] { return false; }, kIdleMs);
    const Lateness connecting =
        meter.measure([&] { session.connectLidar(); }, [&] { return manager.getIsConnected(); },
                      kLongestPhaseMs + 6000);
    reconnectIfStopped();
    int module = 0, page = 0, row = 0;
    const bool found = findVariable(manager, "Spin Rate", module, page, row);
    if (!found) std::fprintf(stderr, "Spin Rate is not in the variable map: apply not measured\n");
    const Lateness reading =
        meter.measure([&] { queue.call("readModule", {module}); }, queueIdle, kLongestPhaseMs);
    reconnectIfStopped();
    const Lateness applying = meter.measure(
        [&] {
            if (!found) return;
            // Another value than the simulator's 600 rpm: an unchanged value stages nothing.
            manager.SetText(1, module, page, row, "1200");
            if (manager.getSetMapSize() == 0) std::fprintf(stderr, "nothing staged to apply\n");
            queue.call("applyPage", {module});
        },
        queueIdle, kLongestPhaseMs);
    reconnectIfStopped();
    const Lateness console = meter.measure(
        [&] {
            queue.call("SendCommand", {"07", ""});
        },
        queueIdle, kLongestPhaseMs);
    reconnectIfStopped();
    const Lateness monitor =
        meter.measure([&] { queue.call("refreshMonitor", {}); }, queueIdle, kLongestPhaseMs);
    session.disconnectLidar();

    std::printf("UI-thread lateness of a %d ms timer, every reply delayed %d ms\n", kTickMs,
                kReplyDelayMs);
    print("idle", idle, idle);
    print("connect", connecting, idle);
    print("read module", reading, idle);
    print("apply", applying, idle);
    print("console send", console, idle);
    print("monitor refresh", monitor, idle);
    const double worst =
        std::max({connecting.max, reading.max, applying.max, console.max, monitor.max});
    std::printf("worst maximum %.2f ms (target: at most 50 ms)\n", worst);
    return 0;
}
