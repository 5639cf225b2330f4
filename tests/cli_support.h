#pragma once

// Runs the built lidarutil as a person or a script does, from the repository root.

#include <gtest/gtest.h>
#include <signal.h>

#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <cstdlib>
#include <string>

#include "test_support.h"

namespace testsupport {

struct Outcome {
    int exitCode = -1;
    QString out;
    QString err;
};

inline Outcome lidarutil(
    const QStringList& arguments,
    const QString& workingDirectory = QString::fromStdString(testsupport::SourceDir()),
    const QProcessEnvironment& environment = QProcessEnvironment::systemEnvironment()) {
    const QString program = LIDAR_BINARY_DIR "/cli/lidarutil";
    Outcome run;
    if (!QFileInfo(program).isExecutable()) {
        ADD_FAILURE() << "build the lidarutil target first: " << program.toStdString();
        return run;
    }
    QProcess process;
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(workingDirectory);
    process.start(program, arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << "lidarutil " << arguments.join(' ').toStdString() << " did not finish";
    }
    run.exitCode = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    run.out = QString::fromUtf8(process.readAllStandardOutput());
    run.err = QString::fromUtf8(process.readAllStandardError());
    return run;
}

// A lidar-sim process with faults, on a free port: lidarutil --host reaches it like a lidar. It
// reads the catalogues of `workingDirectory`/Config.
class SimulatorProcess {
  public:
    SimulatorProcess(
        const QString& model, const QStringList& faults,
        const QString& workingDirectory = QString::fromStdString(testsupport::SourceDir())) {
        QStringList arguments{"--model", model, "--port", "0"};
        for (const QString& fault : faults) arguments << "--fault" << fault;
        process_.setWorkingDirectory(workingDirectory);
        process_.start(LIDAR_BINARY_DIR "/sim/lidar-sim", arguments);
        process_.waitForReadyRead(10000);
        const QString banner = QString::fromUtf8(process_.readLine()).trimmed();
        port_ = banner.section(':', -1);  // "listening on 127.0.0.1:PORT"
    }
    ~SimulatorProcess() {
        process_.kill();
        process_.waitForFinished();
    }
    const QString& port() const { return port_; }
    // Ends the simulator at once: the system closes its connections.
    void kill() {
        process_.kill();
        process_.waitForFinished();
    }

  private:
    QProcess process_;
    QString port_;
};

// lidarutil left running, for what a person does while it works: wait for a line, press Ctrl-C.
class RunningLidarutil {
  public:
    explicit RunningLidarutil(const QStringList& arguments) {
        process_.setWorkingDirectory(QString::fromStdString(testsupport::SourceDir()));
        process_.start(LIDAR_BINARY_DIR "/cli/lidarutil", arguments);
    }
    ~RunningLidarutil() {
        process_.kill();
        process_.waitForFinished();
    }
    // Reads standard error until it holds `text` (at most 10 s).
    bool waitForError(const QString& text) {
        for (int waited = 0; !err_.contains(text) && waited < 100; ++waited) {
            process_.waitForReadyRead(100);
            err_ += QString::fromUtf8(process_.readAllStandardError());
        }
        return err_.contains(text);
    }
    void interrupt() { ::kill(static_cast<pid_t>(process_.processId()), SIGINT); }
    // Waits for the end: the exit status (-1 after a crash or a time-out); err() then holds all.
    int finish(int timeoutMs = 10000) {
        const bool ended = process_.waitForFinished(timeoutMs);
        err_ += QString::fromUtf8(process_.readAllStandardError());
        return ended && process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
    }
    const QString& err() const { return err_; }

  private:
    QProcess process_;
    QString err_;
};

// A folder to run lidarutil in whose ./Config shows the shipped catalogues but keeps the command
// history to itself.
class ConsoleFolder {
  public:
    ConsoleFolder() {
        const std::string link = "mkdir -p '" + dir_.file("Config") + "' && ln -s '" +
                                 testsupport::SourceDir() + "/Config/varID' '" +
                                 dir_.file("Config/varID") + "'";
        EXPECT_EQ(std::system(link.c_str()), 0);
    }
    QString path() const { return QString::fromStdString(dir_.path()); }
    std::string file(const std::string& name) const { return dir_.file(name); }

  private:
    testsupport::TempDir dir_;
};

inline QStringList lines(const QString& text) {
    return text.split('\n', Qt::SkipEmptyParts);
}

}  // namespace testsupport
