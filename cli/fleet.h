#pragma once

// Fleet mode: `lidarutil --hosts FILE COMMAND ...` runs one command against every lidar of a hosts
// file (hosts_file.h), at most `-j N` at a time. Each lidar gets a lidarutil of its own, a child
// process: the manager is one per process by design, and a lidar that hangs or crashes its run
// then takes no other lidar with it.
//
// A child is started with the program's own path, the user's command line without --hosts, -j and
// --report, the paths in it made absolute (the user's folder is the one they are relative to),
// --host HOST (and --port PORT when the line gives one) and the hidden option kFleetChildOption,
// in the user's folder. A fleet child
//   - writes no command history and does not save the connection settings, so the children of
//     one fleet never race on those shared files;
//   - reads the lidar's serial number (the catalogue's variable of type SN) right after
//     connecting, and tells it on standard error as one line kFleetSerialNumberPrefix + NUMBER
//     (the number empty when the model has no such variable or the lidar did not give it); the
//     parent takes that line out of what it shows;
//   - is in a process group of its own: a terminal's Ctrl-C, which signals the whole foreground
//     group, reaches only the parent, which decides what the children do.
//
// The parent prints one JSON line per lidar as each ends (fleet_outcome.h), a progress line per
// lidar on a terminal (fleet_board.h), then a table and a total on standard error.

#include <QDir>
#include <QStringList>

#include "hosts_file.h"
#include "options.h"

namespace cli {

// A fleet in which no lidar failed but some exited with kExitDiffers (options.h: a diff that
// found differences) ends with that status too.

inline constexpr char kFleetChildOption[] = "--fleet-child";
inline constexpr char kFleetSerialNumberPrefix[] = "lidarutil-fleet-serial-number:";
// A child's one-line outcome, when its command says one (Session::tellOutcome): the summary.
inline constexpr char kFleetSummaryPrefix[] = "lidarutil-fleet-summary:";

// The commands that run with --hosts.
const QStringList& fleetCommands();

// The command line of the child for `host`: the user's own (options.commandLine) without the
// fleet's options, its paths made absolute from `userFolder`, and the lidar's address.
QStringList fleetChildArguments(const Options& options, const FleetHost& host,
                                const QDir& userFolder);

// Runs options.command against every lidar of options.hostsFile; the fleet's exit status.
int runFleet(const Options& options);

}  // namespace cli
