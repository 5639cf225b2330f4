#pragma once

// lidarutil's subcommands, one function each; every one returns the process exit status. The
// table in command_table.cpp names them and says what each needs before it runs.

#include <atomic>
#include <functional>

#include "file_checks.h"
#include "lidar_utilities_manager.h"
#include "options.h"

namespace cli {

class Session;

int commandModels(Session& session);
int commandShow(Session& session);
int commandInfo(Session& session);
int commandRead(Session& session);
int commandSet(Session& session);
int commandWatch(Session& session);
// Connects and reads the given modules; kExitOk or the failure status. A module of which some
// request failed still counts as read (its other values are printed), but `complete` is false.
// Shared by read and fov.
int connectAndRead(Session& session, const QVector<int>& modules, bool& complete);
// profile_commands.cpp
int commandExport(Session& session);
int commandDiff(Session& session);
int commandApply(Session& session);
// fov_command.cpp
int commandFov(Session& session);
// console_commands.cpp
int commandSend(Session& session);
int commandHistory(Session& session);
// transfer_commands.cpp
int commandUpgrade(Session& session);
int commandLog(Session& session);
int commandOperationLog(Session& session);
// Polls until `ended` is true, calling `eachPoll` each time; the first Ctrl-C prints
// firstInterruptWarning(), the second prints `abandoning` and stops the manager's worker.
// Needs an InterruptGuard in scope.
void followUntil(LidarUtilitiesManager& manager, const std::function<bool()>& ended,
                 const std::function<QString()>& firstInterruptWarning, const QString& abandoning,
                 const std::function<void()>& eachPoll = {});
// Draws an upgrade's progress until its worker reports the end (the second change of
// isUpgrading); the bar starts once `sending` is true, so its total and rate start when the
// transfer itself does. The first Ctrl-C warns, the second abandons the transfer.
void followUpgrade(LidarUtilitiesManager& manager, const std::atomic<int>& upgradingChanges,
                   const std::function<bool()>& sending,
                   const std::function<QString()>& firstInterruptWarning);
// port_commands.cpp: needs neither a lidar nor a model (nor ./Config)
int commandPorts(const Options& options);
// monitor_commands.cpp
int commandMonitor(Session& session);
// heron_commands.cpp
// The model whose firmware is upgraded component by component, by `heron upgrade`.
inline constexpr char kHeronModel[] = "Heron-VRC";
int commandHeron(Session& session);
// wren_commands.cpp
int commandWren(Session& session);
// ota_commands.cpp: needs neither a lidar nor a model
int commandOta(const Options& options);
// Why the Heron upgrade would refuse the package at path (empty when it takes it), as
// `ota inspect` says it.
QString otaPackageRefusal(const QString& path);

}  // namespace cli
