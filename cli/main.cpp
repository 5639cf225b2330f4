// lidarutil: a command-line front end over the lidar utilities manager, for people and scripts.

#include <QCoreApplication>
#include <QStringList>

#include "commands.h"
#include "options.h"
#include "output.h"
#include "session.h"

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const cli::ParsedCommandLine parsed = cli::parseCommandLine(app.arguments().mid(1));
    cli::routeOutput(parsed.options.verbose);

    int status = cli::kExitOk;
    if (parsed.helpRequested) {
        cli::printResult(parsed.helpText.trimmed());
    } else if (!parsed.ok) {
        cli::printDiagnostic("lidarutil: " + parsed.error + " (lidarutil --help lists the usage)");
        status = cli::kExitUsage;
    } else if (parsed.options.command != "ota" && !cli::Session::configFolderPresent()) {
        cli::printDiagnostic(
            "lidarutil: ./Config/varID not found: run lidarutil from the repository root, the "
            "folder that holds Config/");
        status = cli::kExitUsage;
    } else {
        status = cli::runCommand(parsed.options);
    }
    cli::flushOutput();
    return status;
}
