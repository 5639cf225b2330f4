#pragma once

// Runs the built lidarutil as a person or a script does, from the repository root.

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QProcess>
#include <QString>
#include <QStringList>

#include "test_support.h"

namespace testsupport {

struct Outcome {
    int exitCode = -1;
    QString out;
    QString err;
};

inline Outcome lidarutil(
    const QStringList& arguments,
    const QString& workingDirectory = QString::fromStdString(testsupport::SourceDir())) {
    const QString program = LIDAR_BINARY_DIR "/cli/lidarutil";
    Outcome run;
    if (!QFileInfo(program).isExecutable()) {
        ADD_FAILURE() << "build the lidarutil target first: " << program.toStdString();
        return run;
    }
    QProcess process;
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

inline QStringList lines(const QString& text) {
    return text.split('\n', Qt::SkipEmptyParts);
}

}  // namespace testsupport
