#include "fleet.h"

#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QProcess>
#include <QTimer>
#include <memory>
#include <vector>

#include "fleet_board.h"
#include "fleet_outcome.h"
#include "interrupt.h"
#include "output.h"
#include "sdk/catalogue_folders.h"
#include "workplace.h"

namespace cli {

const QStringList& fleetCommands() {
    static const QStringList kCommands = {"info",  "read", "export", "diff",
                                          "apply", "send", "upgrade"};
    return kCommands;
}

namespace {

constexpr int kPollMs = 100;

// The options that are the fleet's own and that its children do not get.
bool isFleetOption(const QString& argument, bool* takesNext) {
    static const QStringList kValued = {"--hosts", "-j", "--jobs", "--report"};
    *takesNext = kValued.contains(argument);
    if (*takesNext) return true;
    for (const QString& option : kValued)
        if (argument.startsWith(option + "=")) return true;
    // "-j4", as CLI11 takes a short option's value.
    return argument.startsWith("-j") && argument.size() > 2 && argument[2].isDigit();
}

QStringList withoutFleetOptions(const QStringList& arguments) {
    QStringList kept;
    for (int i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--") return kept + arguments.mid(i);
        bool takesNext = false;
        if (!isFleetOption(arguments[i], &takesNext)) {
            kept << arguments[i];
        } else if (takesNext) {
            ++i;
        }
    }
    return kept;
}

// The paths of the command line made absolute, as a single run anchors them
// (anchorUserPaths): the value of an option that names a path ("-o FILE", "--dir=DIR"), and the
// positional arguments of a command whose arguments are files. A module name that happens to
// name a folder too stays a name.
QStringList withAbsolutePaths(const QStringList& arguments, const Options& options,
                              const QDir& userFolder) {
    static const QStringList kPathOptions = {"-o", "--output", "--dir", "--record"};
    const auto absolute = [&userFolder](const QString& path) {
        return path.isEmpty() ? path : userFolder.absoluteFilePath(path);
    };
    QStringList result = arguments;
    const int command = result.indexOf(options.command);
    const bool positionalFiles = argumentsAreFiles(options);
    for (int i = command + 1; command >= 0 && i < result.size(); ++i) {
        QString& argument = result[i];
        const QString previous = result[i - 1];
        const int equals = argument.indexOf('=');
        if (kPathOptions.contains(previous)) {
            argument = absolute(argument);
        } else if (argument.startsWith("--") && equals > 2 &&
                   kPathOptions.contains(argument.left(equals))) {
            argument = argument.left(equals + 1) + absolute(argument.mid(equals + 1));
        } else if (positionalFiles && !argument.startsWith('-') &&
                   options.arguments.contains(argument)) {
            argument = absolute(argument);
        }
    }
    return result;
}

// A child lidarutil in a process group of its own, so that a terminal's Ctrl-C reaches only the
// fleet, and ended (SIGTERM) when the fleet dies without ending it.
class ChildProcess : public QProcess {
  protected:
    // Runs in the child, between fork and exec.
    void setupChildProcess() override {
        ::setpgid(0, 0);
        ::prctl(PR_SET_PDEATHSIG, SIGTERM);
        // The fleet may have died before the request was made: nobody would then end this one.
        if (::getppid() != fleet_) ::_exit(kExitFailed);
    }

  private:
    const pid_t fleet_ = ::getpid();
};

bool readHosts(const QString& path, QVector<FleetHost>* hosts) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        usageError("cannot read the hosts file " + path + ": " + file.errorString());
        return false;
    }
    QString error;
    if (!readHostsFile(file.readAll(), hosts, &error)) {
        usageError(path + ": " + error);
        return false;
    }
    return true;
}

// The fleet's event loop: starts the children, at most options.jobs at a time, tells each lidar's
// end as it comes and follows Ctrl-C; the closing table and the exit status at the end.
class FleetRun {
  public:
    FleetRun(const Options& options, const QVector<FleetHost>& hosts, QFile* report)
        : options_(options), report_(report), board_(hosts.size()) {
        for (const FleetHost& host : hosts) {
            LidarRun run;
            run.host = host;
            runs_.append(run);
        }
        processes_.resize(static_cast<size_t>(hosts.size()));
    }

    int run() {
        InterruptGuard guard;
        QTimer poll;
        QObject::connect(&poll, &QTimer::timeout, &loop_, [this] { checkInterrupts(); });
        poll.start(kPollMs);
        QTimer::singleShot(0, &loop_, [this] { startWaiting(); });
        loop_.exec();
        board_.erase();
        printDiagnostic(closingTable(runs_));
        printDiagnostic(totalLine(runs_));
        for (const QString& warning : sameLidarWarnings(runs_)) printDiagnostic(warning);
        if (reportFailed_) return kExitFailed;
        return fleetExitStatus(runs_);
    }

  private:
    int running() const {
        int count = 0;
        for (const LidarRun& run : runs_) count += run.state == LidarRun::State::kRunning;
        return count;
    }

    void startWaiting() {
        while (!abandoned_ && next_ < runs_.size() && running() < options_.jobs) start(next_++);
        board_.draw(runs_);
        if (next_ >= runs_.size() && running() == 0) loop_.quit();
    }

    void start(int index) {
        auto process = std::make_unique<ChildProcess>();
        ChildProcess* child = process.get();
        processes_[static_cast<size_t>(index)] = std::move(process);
        child->setWorkingDirectory(QDir::currentPath());
        child->setStandardInputFile(QProcess::nullDevice());
        QObject::connect(child, qOverload<int, QProcess::ExitStatus>(&QProcess::finished), &loop_,
                         [this, index](int exitCode, QProcess::ExitStatus status) {
                             LidarRun& run = runs_[index];
                             run.state = status == QProcess::NormalExit ? LidarRun::State::kExited
                                                                        : LidarRun::State::kCrashed;
                             run.exitCode = exitCode;
                             end(index);
                         });
        QObject::connect(child, &QProcess::errorOccurred, &loop_,
                         [this, index](QProcess::ProcessError error) {
                             if (error != QProcess::FailedToStart) return;
                             runs_[index].state = LidarRun::State::kFailedToStart;
                             end(index);
                         });
        runs_[index].state = LidarRun::State::kRunning;
        child->start(QCoreApplication::applicationFilePath(),
                     fleetChildArguments(options_, runs_[index].host, QDir::current()));
    }

    // The lidar's child has ended (or was abandoned): the next one starts, then its line.
    void end(int index) {
        LidarRun& run = runs_[index];
        ChildProcess& child = *processes_[static_cast<size_t>(index)];
        const QByteArray err = child.readAllStandardError();
        takeChildOutput(run, child.readAllStandardOutput(), err);
        if (run.state == LidarRun::State::kFailedToStart)
            run.error = "could not start lidarutil: " + child.errorString();
        if (run.state == LidarRun::State::kCrashed && run.error.isEmpty())
            run.error = "lidarutil crashed";
        // A child that ended on its own after the Ctrl-C says what stopping left; one the signal
        // ended said nothing more.
        if (run.state == LidarRun::State::kAbandoned)
            run.error = run.exitCode < 0 || run.error.isEmpty()
                            ? QString("abandoned by Ctrl-C")
                            : "abandoned by Ctrl-C: " + run.error;
        child.disconnect();
        if (!abandoned_) startWaiting();
        tell(run, err);
    }

    void tell(const LidarRun& run, const QByteArray& err) {
        const QString line = jsonLine(run);
        board_.erase();
        printResult(line);
        if (report_ != nullptr && !reportFailed_) {
            const QByteArray bytes = (line + "\n").toUtf8();
            if (report_->write(bytes) != bytes.size() || !report_->flush()) {
                reportFailed_ = true;
                printDiagnostic("error: cannot write the report " + report_->fileName() + ": " +
                                report_->errorString());
            }
        }
        // --verbose: what the child said, after its line, each line under the lidar's name.
        if (options_.verbose && !err.isEmpty()) {
            for (const QByteArray& said : err.split('\n'))
                if (!said.isEmpty())
                    printDiagnostic(shownHost(run.host) + ": " + QString::fromUtf8(said));
        }
        board_.draw(runs_);
    }

    // The first Ctrl-C warns what stopping now leaves; the second abandons the fleet.
    void checkInterrupts() {
        if (!interrupted.exchange(false) || abandoned_) return;
        board_.erase();
        if (++interrupts_ == 1) {
            printDiagnostic(interruptWarning(options_.command, runs_));
            board_.draw(runs_);
            return;
        }
        printDiagnostic("abandoning the fleet: stopping the running lidars, starting no other");
        abandon();
    }

    // Each running child is stopped as a person stops a single run: Ctrl-C until it ends (an
    // upgrade abandons its transfer and says what that leaves, an apply finishes the command it
    // is writing), and killed only when it does not end in kStopSeconds.
    void abandon() {
        abandoned_ = true;
        for (int i = 0; i < runs_.size(); ++i) {
            if (runs_[i].state != LidarRun::State::kRunning) continue;
            ChildProcess& child = *processes_[static_cast<size_t>(i)];
            child.disconnect();
            interruptUntilEnded(child);
            runs_[i].state = LidarRun::State::kAbandoned;
            runs_[i].exitCode = child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1;
            end(i);
        }
        for (LidarRun& run : runs_) {
            if (run.state != LidarRun::State::kWaiting) continue;
            run.state = LidarRun::State::kNotStarted;
            run.error = "not started: the fleet was abandoned";
            tell(run, QByteArray());
        }
        loop_.quit();
    }

    static void interruptUntilEnded(ChildProcess& child) {
        constexpr int kStopSeconds = 15;
        constexpr int kBetweenInterruptsMs = 500;
        const auto group = static_cast<pid_t>(child.processId());
        for (int waited = 0; waited < kStopSeconds * 1000; waited += kBetweenInterruptsMs) {
            if (group > 0) ::kill(-group, SIGINT);
            if (child.waitForFinished(kBetweenInterruptsMs)) return;
        }
        child.kill();
        child.waitForFinished();
    }

    const Options& options_;
    QFile* report_;
    FleetBoard board_;
    QVector<LidarRun> runs_;
    std::vector<std::unique_ptr<ChildProcess>> processes_;
    QEventLoop loop_;
    int next_ = 0;
    int interrupts_ = 0;
    bool abandoned_ = false;
    bool reportFailed_ = false;
};

// What every child would refuse alike, refused once: no catalogues (their working folder is made
// here, before the children start together) or a model they do not have.
bool catalogueHasModel(const QString& model) {
    lidar::Workplace workplace;
    std::string error;
    if (!lidar::ChooseWorkplace(&workplace, &error)) {
        usageError(QString::fromStdString(error));
        return false;
    }
    QStringList names;
    for (const lidar::ModelSource& source : workplace.models)
        names << QString::fromStdString(source.name);
    if (names.contains(model)) return true;
    usageError("unknown model '" + model + "'; the models are: " + names.join(", "));
    return false;
}

}  // namespace

QStringList fleetChildArguments(const Options& options, const FleetHost& host,
                                const QDir& userFolder) {
    QStringList arguments{kFleetChildOption, "--host", host.host};
    if (host.port != 0) arguments << "--port" << QString::number(host.port);
    return arguments +
           withAbsolutePaths(withoutFleetOptions(options.commandLine), options, userFolder);
}

int runFleet(const Options& options) {
    QVector<FleetHost> hosts;
    if (!readHosts(options.hostsFile, &hosts) || !catalogueHasModel(options.model))
        return kExitUsage;
    if (!options.reportFile.isEmpty() && QFileInfo(options.reportFile).absoluteFilePath() ==
                                             QFileInfo(options.hostsFile).absoluteFilePath())
        return usageError("--report " + options.reportFile + " would write over the hosts file");
    // Every child would write the one file, or each its profile where nobody keeps it.
    if (options.command == "export" && !QFileInfo(options.output).isDir())
        return usageError(
            "with --hosts, export needs -o FOLDER, a folder that exists: each "
            "lidar's profile goes to FOLDER/<serial number>.json" +
            (options.output.isEmpty() ? QString() : ", and " + options.output + " is none"));
    QFile report(options.reportFile);
    if (!options.reportFile.isEmpty() &&
        !report.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text))
        return usageError("cannot write the report " + options.reportFile + ": " +
                          report.errorString());
    FleetRun fleet(options, hosts, options.reportFile.isEmpty() ? nullptr : &report);
    return fleet.run();
}

}  // namespace cli
