#pragma once

// lidarutil's subcommands in one table: each one's name, help, own arguments and handler. The
// parser declares the command line from it (options.cpp) and runCommand runs the entry named.
// A new subcommand is one row here, its handler, and (when it takes any) its arguments.

#include <array>
#include <string>
#include <variant>
#include <vector>

#include "options.h"

namespace CLI {
class App;
}

namespace cli {

class Session;

// The values that the subcommands' own arguments fill while CLI11 parses; parseCommandLine
// copies them into the Options.
struct CommandArguments {
    std::string module;             // read, watch
    std::vector<std::string> rest;  // set, fov, send, upgrade, log, oplog, heron, ota, wren
    int count = 0;                  // watch, monitor
    std::string variable;           // upgrade
    std::string dir;                // log
    std::string variant;            // monitor
    std::string recordDir;          // monitor
    int duration = 60;              // monitor
    int interval = 1;               // monitor
    bool plot = false;              // monitor
    // ota pack: a file per component (in the package's order), the package written.
    std::array<std::string, 5> componentFiles;
    std::string output;
    int vlan = -1;  // wren net
    // export, diff, apply
    std::vector<std::string> excluded;
    bool includeNetwork = false;
    bool all = false;
    bool dryRun = false;
    bool noVerify = false;
    bool restart = false;
};

// A subcommand that talks to a lidar (or reads the catalogues) through a session, and one that
// needs neither (ota: no lidar, no ./Config).
using SessionHandler = int (*)(Session& session);
using StandaloneHandler = int (*)(const Options& options);

struct CommandEntry {
    const char* name;
    const char* help;
    std::variant<SessionHandler, StandaloneHandler> handler;
    bool loadsModel;  // a session's model catalogue is loaded before the handler runs
    // Declares the subcommand's own arguments, options and second-level commands; nullptr when
    // it has none.
    void (*declareArguments)(CLI::App& command, CommandArguments& values);
};

// Every subcommand, in the order lidarutil --help lists them.
const std::vector<CommandEntry>& commandTable();

// The entry named `name`, or nullptr.
const CommandEntry* findCommand(const QString& name);

// Builds what the named subcommand needs (./Config, a session, the model) and runs it; returns
// the process exit status.
int runCommand(const Options& options);

// options.cpp: each subcommand's own arguments.
void declareReadArguments(CLI::App& command, CommandArguments& values);
void declareSetArguments(CLI::App& command, CommandArguments& values);
void declareFovArguments(CLI::App& command, CommandArguments& values);
void declareWatchArguments(CLI::App& command, CommandArguments& values);
void declareSendArguments(CLI::App& command, CommandArguments& values);
void declareUpgradeArguments(CLI::App& command, CommandArguments& values);
void declareLogArguments(CLI::App& command, CommandArguments& values);
void declareOperationLogArguments(CLI::App& command, CommandArguments& values);
void declareMonitorArguments(CLI::App& command, CommandArguments& values);
void declareHeronCommands(CLI::App& command, CommandArguments& values);
void declareOtaCommands(CLI::App& command, CommandArguments& values);
void declareWrenCommands(CLI::App& command, CommandArguments& values);
void declareExportArguments(CLI::App& command, CommandArguments& values);
void declareDiffArguments(CLI::App& command, CommandArguments& values);
void declareApplyArguments(CLI::App& command, CommandArguments& values);

}  // namespace cli
