#pragma once

// Command-line arguments of lidarutil: global options, the subcommand and its arguments.

#include <QMap>
#include <QString>
#include <QStringList>

namespace cli {

// Exit statuses shared by every subcommand.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;      // the lidar or the manager reported a failure
constexpr int kExitUsage = 2;       // the request itself is wrong (arguments, names, values)
constexpr int kExitDiffers = 3;     // diff: the lidar differs from the profile
constexpr int kExitUnverified = 4;  // apply: written, but not all of it verified

struct Options {
    QString model = "Egret";
    QString host;       // empty: an embedded simulator serves the model
    QString port;       // empty: the manager's saved (or default) port
    QString localPort;  // empty: the manager's saved local host/port text
    QString token;      // the embedded simulator requires this token for writes
    QString rs485;      // the serial model's lines; empty: the embedded simulator's
    QString uart;
    int vlan = -1;  // wren net: the VLAN id (-1: none)
    bool verbose = false;
    bool json = false;
    // Fleet mode (fleet.h): the hosts file, at most `jobs` lidars at a time, the JSON lines also
    // written to `reportFile`. `fleetChild`: this process is one lidar's run of a fleet.
    QString hostsFile;
    int jobs = 8;
    bool jobsGiven = false;
    QString reportFile;
    bool fleetChild = false;
    QStringList commandLine;  // the arguments as given, for the fleet's children
    int count = 0;            // watch: stop after this many refreshes (0: until SIGINT)
    QString variable;         // upgrade: the catalogue variable that names the upgrade command
    QString dir;              // log: the folder the log is saved in
    // monitor: the hardware variant to apply, and a recording's folder, length, interval and
    // chart
    QString variant;
    QString recordDir;
    int duration = 60;
    int interval = 1;
    bool plot = false;
    QString command;
    QStringList arguments;  // what follows the subcommand, options removed
    // heron and ota: the second-level command (versions, imu, restart, upgrade; pack, inspect),
    // ota pack's component files by component name (BMB_APP_A ... TMB_PARAM) and its output.
    QString action;
    QMap<QString, QString> componentFiles;
    QString output;
    // export, diff, apply: variables left out, the lidar's own address kept, the read-only
    // variables recorded; apply's plan only, no read-back, a restart after network settings.
    QStringList excluded;
    bool includeNetwork = false;
    bool all = false;
    bool dryRun = false;
    bool noVerify = false;
    bool restart = false;
};

struct ParsedCommandLine {
    bool ok = false;
    bool helpRequested = false;
    QString helpText;  // the help of the program or of the subcommand asked about
    QString error;     // set when !ok
    Options options;
};

// One subcommand with its own arguments; the program's options may stand before or after it;
// "--" ends the options.
ParsedCommandLine parseCommandLine(const QStringList& arguments);

}  // namespace cli
