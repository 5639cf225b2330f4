#include "command_table.h"

#include "commands.h"
#include "fleet.h"
#include "output.h"
#include "session.h"
#include "workplace.h"

namespace cli {

const std::vector<CommandEntry>& commandTable() {
    static const std::vector<CommandEntry> kCommands = {
        {"models", "list the models and how each is connected", &commandModels, false, nullptr},
        {"ports", "list the machine's serial ports, for --rs485 and --uart", &commandPorts, false,
         nullptr},
        {"show", "the model's modules, pages and variables (no lidar needed)", &commandShow, true,
         nullptr},
        {"info", "read the device information: name=value lines", &commandInfo, true, nullptr},
        {"read", "read one module (or all) and print name, value and unit", &commandRead, true,
         &declareReadArguments},
        {"set",
         "write values, then print them as read back; a selection takes its option text, its "
         "value or #INDEX",
         &commandSet, true, &declareSetArguments},
        {"fov",
         "show the mode and the channel field of view, or write it: ten bounds in degrees, "
         "INDEX=VALUE (0-4 starts, 5-9 ends) or mode=VALUE",
         &commandFov, true, &declareFovArguments},
        {"export",
         "capture the lidar's settings (of the modules named, or all) to a profile file; the "
         "lidar's own address and MAC are left out unless --include-network",
         &commandExport, true, &declareExportArguments},
        {"diff",
         "compare the lidar with a profile: what differs, per set command (status 3 when "
         "something does)",
         &commandDiff, true, &declareDiffArguments},
        {"apply",
         "bring the lidar to a profile: write what differs, network settings last, then read "
         "back and verify (status 4 when written but not verified)",
         &commandApply, true, &declareApplyArguments},
        {"watch",
         "print the module's timer-refreshed values at each refresh (about every 3 s) until "
         "Ctrl-C or N refreshes",
         &commandWatch, true, &declareWatchArguments},
        {"send",
         "send a raw command: HEADER and PAYLOAD bytes in hex; prints the reply's header and "
         "payload (the payload cut at 1024 bytes) and records the command",
         &commandSend, true, &declareSendArguments},
        {"history",
         "the last ten raw commands sent, newest first (Config/command_log_file.csv of the "
         "folder lidarutil works in)",
         &commandHistory, true, nullptr},
        {"upgrade",
         "push a firmware package to the lidar with a progress bar (the serial-line models take "
         "their own transfer)",
         &commandUpgrade, true, &declareUpgradeArguments},
        {"log", "download a device log (a log variable of the catalogue)", &commandLog, true,
         &declareLogArguments},
        {"oplog", "download the operation log: four logs packed into one tar archive",
         &commandOperationLog, true, &declareOperationLogArguments},
        {"monitor",
         "the monitor values: the model's hardware variants, then a table refreshed every second "
         "until Ctrl-C or N refreshes; or, with --record, a recording to a CSV file",
         &commandMonitor, true, &declareMonitorArguments},
        {"heron", "the Heron-VRC model's own operations (with --model Heron-VRC)", &commandHeron,
         true, &declareHeronCommands},
        {"ota", "build or check a Heron OTA package (no lidar needed)", &commandOta, false,
         &declareOtaCommands},
        {"wren",
         "the Wren model's own settings (with --model Wren, over its serial lines, or --model "
         "Wren-VRC)",
         &commandWren, true, &declareWrenCommands},
    };
    return kCommands;
}

const CommandEntry* findCommand(const QString& name) {
    for (const CommandEntry& entry : commandTable())
        if (name == entry.name) return &entry;
    return nullptr;
}

namespace {

int runInSession(const CommandEntry& entry, SessionHandler handler, Options options) {
    std::optional<lidar::Workplace> workplace = settleWorkplace(options);
    if (!workplace) return kExitUsage;
    Session session(options, std::move(*workplace));
    if (entry.loadsModel) {
        if (int status = session.loadModel(); status != kExitOk) return status;
    }
    return handler(session);
}

}  // namespace

int runCommand(const Options& options) {
    if (!options.hostsFile.isEmpty()) return runFleet(options);
    const CommandEntry* entry = findCommand(options.command);
    if (entry == nullptr) return usageError("unknown command '" + options.command + "'");
    if (const auto* standalone = std::get_if<StandaloneHandler>(&entry->handler))
        return (*standalone)(options);
    return runInSession(*entry, std::get<SessionHandler>(entry->handler), options);
}

}  // namespace cli
