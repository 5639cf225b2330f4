// lidarutil: a command-line front end over the lidar utilities manager, for people and scripts.

#include <QApplication>
#include <QCoreApplication>
#include <QStringList>
#include <memory>

#include "command_table.h"
#include "options.h"
#include "output.h"

namespace {

QStringList commandLineArguments(int argc, char** argv) {
    QStringList arguments;
    for (int i = 1; i < argc; ++i) arguments << QString::fromLocal8Bit(argv[i]);
    return arguments;
}

// Charts are drawn by Qt's widget module, which needs a QApplication; lidarutil never opens a
// window, so it draws on the offscreen platform and works without a display.
std::unique_ptr<QCoreApplication> makeApplication(int& argc, char** argv, bool drawsCharts) {
    if (!drawsCharts) return std::make_unique<QCoreApplication>(argc, argv);
    qputenv("QT_QPA_PLATFORM", "offscreen");
    return std::make_unique<QApplication>(argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
    const cli::ParsedCommandLine parsed = cli::parseCommandLine(commandLineArguments(argc, argv));
    cli::routeOutput(parsed.options.verbose);
    const auto app = makeApplication(argc, argv, parsed.ok && parsed.options.plot);

    int status = cli::kExitOk;
    if (parsed.helpRequested) {
        cli::printResult(parsed.helpText.trimmed());
    } else if (!parsed.ok) {
        cli::printDiagnostic("lidarutil: " + parsed.error + " (lidarutil --help lists the usage)");
        status = cli::kExitUsage;
    } else {
        status = cli::runCommand(parsed.options);
    }
    cli::flushOutput();
    return status;
}
