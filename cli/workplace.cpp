#include "workplace.h"

#include <QStringList>

#include "output.h"

namespace cli {

// The commands whose arguments are files: the firmware or OTA package, the archive to write.
// (ota needs no catalogue and runs where it is started.)
bool argumentsAreFiles(const Options& options) {
    if (options.command == "upgrade" || options.command == "oplog") return true;
    if (options.command == "diff" || options.command == "apply") return true;
    return options.command == "heron" && options.action == "upgrade";
}

namespace {

void anchor(QString& path, const QDir& userFolder) {
    if (!path.isEmpty()) path = userFolder.absoluteFilePath(path);
}

}  // namespace

void anchorUserPaths(Options& options, const QDir& userFolder) {
    if (options.dir.isEmpty()) options.dir = userFolder.absolutePath();
    anchor(options.dir, userFolder);
    anchor(options.recordDir, userFolder);
    if (options.command == "export") anchor(options.output, userFolder);
    // Serial lines are opened by path: a relative one (a link the user made to a pseudo-terminal
    // pair) names a file of the user's folder.
    anchor(options.rs485, userFolder);
    anchor(options.uart, userFolder);
    if (argumentsAreFiles(options))
        for (QString& argument : options.arguments) anchor(argument, userFolder);
}

std::optional<lidar::Workplace> settleWorkplace(Options& options) {
    lidar::Workplace workplace;
    std::string error;
    if (!lidar::ChooseWorkplace(&workplace, &error)) {
        printDiagnostic("lidarutil: " + QString::fromStdString(error));
        return std::nullopt;
    }
    if (!workplace.moved) return workplace;
    anchorUserPaths(options, QDir::current());
    if (!QDir::setCurrent(QString::fromStdString(workplace.folder))) {
        printDiagnostic("lidarutil: cannot work in " + QString::fromStdString(workplace.folder));
        return std::nullopt;
    }
    return workplace;
}

}  // namespace cli
