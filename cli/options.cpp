#include "options.h"

#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <limits>
#include <string>
#include <vector>

#include "command_table.h"
#include "fleet.h"
#include "sdk/authorized_vrc_client.h"

namespace cli {
namespace {

// Two names of one device: adapters are usually named through links (/dev/serial/by-id/...), so
// the devices themselves are compared, not the texts. Names that do not exist (yet) are compared
// as texts.
bool sameDevice(const QString& first, const QString& second) {
    struct stat a {};
    struct stat b {};
    if (::stat(first.toLocal8Bit().constData(), &a) != 0 ||
        ::stat(second.toLocal8Bit().constData(), &b) != 0)
        return first == second;
    if (S_ISCHR(a.st_mode) && S_ISCHR(b.st_mode)) return a.st_rdev == b.st_rdev;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The options of fleet mode, checked before the single-lidar ones: with --hosts the lidars are
// the file's, each with its own port.
QString fleetCombinationError(const Options& options) {
    if (options.hostsFile.isEmpty()) {
        if (options.jobsGiven) return "-j needs --hosts (it limits how many lidars run at once)";
        if (!options.reportFile.isEmpty())
            return "--report needs --hosts (it keeps the lines of a fleet's lidars)";
        return QString();
    }
    if (!options.host.isEmpty())
        return "--hosts and --host exclude each other (the hosts file names every lidar)";
    if (!options.port.isEmpty())
        return "--port goes with --host; with --hosts a lidar's port is on its line (HOST:PORT)";
    if (!options.token.isEmpty())
        return "--token applies to the embedded simulator only, not to the lidars of --hosts";
    if (!options.rs485.isEmpty())
        return "--rs485 and --uart name serial lines; --hosts names network lidars";
    if (!fleetCommands().contains(options.command))
        return "--hosts runs " + fleetCommands().join(", ") + " against every lidar, not '" +
               options.command + "'";
    return QString();
}

// Cross-checks that need the whole command line.
QString combinationError(const Options& options) {
    if (const QString fleet = fleetCombinationError(options); !fleet.isEmpty()) return fleet;
    // A real lidar's token is the access configuration's (./Config/auth_config.csv), which the
    // manager reads itself; the option only configures the simulator.
    if (!options.token.isEmpty() && !options.host.isEmpty())
        return "--token applies to the embedded simulator only (a lidar's token comes from "
               "./Config/auth_config.csv)";
    if (!options.port.isEmpty() && options.host.isEmpty())
        return "--port needs --host (the embedded simulator picks its own port)";
    if (options.rs485.isEmpty() != options.uart.isEmpty())
        return "--rs485 and --uart go together (the serial model uses both lines)";
    if (!options.rs485.isEmpty() && sameDevice(options.rs485, options.uart))
        return "--rs485 and --uart name the same device (the serial model uses two lines)";
    if (!options.rs485.isEmpty() && !options.host.isEmpty())
        return "--rs485 and --uart name serial lines; --host names a network lidar";
    return QString();
}

// An empty host (an unset variable in a script) must not fall back to the embedded simulator:
// the user meant a lidar.
const CLI::Validator kHostName(
    [](std::string& value) {
        return QString::fromStdString(value).trimmed().isEmpty()
                   ? std::string("needs a host name or address")
                   : std::string();
    },
    "");

// A TCP port: whole decimal digits from 1 to 65535. A text that is no number is said to be
// one, not "not in range".
const CLI::Validator kPortNumber(
    [](std::string& value) {
        bool ok = false;
        const uint number = QString::fromStdString(value).toUInt(&ok, 10);
        if (!ok) return "needs a port number (1-65535), and '" + value + "' is not a number";
        return number >= 1 && number <= 65535 ? std::string()
                                              : "needs a port number from 1 to 65535, not " + value;
    },
    "");

const CLI::Validator kLocalPort(
    [](std::string& value) {
        uint16_t port = 0;
        std::string error;
        return ParseVrcClientHostPortText(value, &port, &error) ? std::string() : error;
    },
    "");

// A whole number of 1 or more (counts, seconds), one that an int holds.
const CLI::Validator kPositiveWhole(
    [](std::string& value) {
        bool ok = false;
        const qlonglong number = QString::fromStdString(value).toLongLong(&ok, 10);
        if (ok && number > std::numeric_limits<int>::max())
            return "is too large (at most " + std::to_string(std::numeric_limits<int>::max()) + ")";
        return ok && number >= 1 ? std::string() : "needs a whole number of 1 or more";
    },
    "");

// The help names every value as a person reads it ("HOST", "PORT"), never by its C++ type
// ("TEXT", "INT in [1 - 65535]"): validators carry no description of their own, and a value
// without an explicit name takes its option's ("--dir" shows DIR). An argument's own name says
// what it is ("NAME=VALUE ..."), so it gets no type name beside it.
void nameValuesForPeople(CLI::App& app) {
    static const std::vector<std::string> kTypeNames = {"TEXT", "INT", "UINT", "FLOAT", "BOOLEAN"};
    for (CLI::Option* option : app.get_options()) {
        if (option->get_type_size() == 0) continue;  // a flag
        const std::string typeName = option->get_type_name();
        if (std::find(kTypeNames.begin(), kTypeNames.end(), typeName) == kTypeNames.end()) continue;
        if (option->get_positional()) {
            option->type_name("");
        } else {
            std::string name = option->get_single_name();
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::toupper(c)); });
            option->type_name(name);
        }
    }
    for (CLI::App* command : app.get_subcommands({})) nameValuesForPeople(*command);
}

// A text option that must not be empty: `what` says what it names. The validator has no
// description of its own, so the help shows only the value's name.
CLI::Validator notEmpty(const std::string& what) {
    return CLI::Validator(
        [what](std::string& value) { return value.empty() ? "needs " + what : std::string(); }, "");
}

// ota pack's options: a file per component, in the package's order.
const char* const kPackComponents[5][2] = {{"BMB_APP_A", "--bmb-app-a"},
                                           {"BMB_APP_B", "--bmb-app-b"},
                                           {"BMB_FPGA", "--bmb-fpga"},
                                           {"TMB_FPGA", "--tmb-fpga"},
                                           {"TMB_PARAM", "--tmb-param"}};

// A second-level command of heron, ota or wren; the program's options may follow it too.
CLI::App* addSecondLevel(CLI::App& group, const char* name, const char* description) {
    CLI::App* command = group.add_subcommand(name, description);
    command->fallthrough();
    return command;
}

// The second-level command of heron and ota, and ota pack's files.
void readHeronAndOtaArguments(const CLI::App& command, const CommandArguments& args,
                              Options& options) {
    const auto nested = command.get_subcommands();
    if (nested.empty()) return;
    options.action = QString::fromStdString(nested.front()->get_name());
    for (size_t i = 0; i < args.componentFiles.size(); ++i)
        if (!args.componentFiles[i].empty())
            options.componentFiles[kPackComponents[i][0]] =
                QString::fromStdString(args.componentFiles[i]);
    options.output = QString::fromStdString(args.output);
}

// Every subcommand of the table, with its help and its own arguments. Options of the whole
// program may also follow the subcommand (fallthrough).
void addSubcommands(CLI::App& app, CommandArguments& args) {
    for (const CommandEntry& entry : commandTable()) {
        CLI::App* command = app.add_subcommand(entry.name, entry.help);
        command->fallthrough();
        if (entry.declareArguments != nullptr) entry.declareArguments(*command, args);
    }
}

}  // namespace

void declareReadArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("MODULE", args.module, "the module to read (default: all)");
}

void declareSetArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("NAME=VALUE", args.rest, "the edits")->required();
}

void declareFovArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("ARGS", args.rest, "bounds or INDEX=VALUE / mode=VALUE pairs");
}

void declareWatchArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("MODULE", args.module,
                       "the module to watch (default: the first with timer values)");
    command.add_option("--count", args.count, "stop after N refreshes")
        ->type_name("N")
        ->check(kPositiveWhole);
}

namespace {

void declareExclusion(CLI::App& command, CommandArguments& args) {
    command
        .add_option("--exclude", args.excluded,
                    "leave this variable out (its name or var_id); may be repeated")
        ->type_name("NAME")
        ->allow_extra_args(false);
}

}  // namespace

void declareExportArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("MODULE", args.rest, "the modules to take (default: all)");
    command
        .add_option("-o,--output", args.output,
                    "write the profile to FILE, or to DIR/<serial number>.json for a folder "
                    "(default: standard output)")
        ->type_name("FILE|DIR")
        ->check(notEmpty("a file or folder (an empty name names none)"));
    command.add_flag("--include-network", args.includeNetwork,
                     "take the lidar's own address and MAC too (left out by default)");
    declareExclusion(command, args);
    command.add_flag("--all", args.all, "record the read-only variables too (never written)");
}

void declareDiffArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("PROFILE", args.rest, "the profile file")->required()->expected(1);
    command.footer(
        "Exit status: 0 the lidar matches, 1 the lidar did not answer, 2 the profile cannot be "
        "used with this model (each reason named), 3 some field differs.");
}

void declareApplyArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("PROFILE", args.rest, "the profile file")->required()->expected(1);
    command.footer(
        "Exit status: 0 everything written was read back and verified (or nothing differed), "
        "1 a write failed or the lidar still differs, 2 the profile was refused and nothing was "
        "written (each reason named), 4 written but not verified (--no-verify, or network "
        "settings without --restart).");
    command.add_flag("--dry-run", args.dryRun, "print what would be written, write nothing");
    command.add_flag("--no-verify", args.noVerify,
                     "do not read back and compare after writing (exit status 4)");
    command.add_flag("--restart", args.restart,
                     "after network settings, restart the lidar and verify it at its new "
                     "address");
}

void declareSendArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("HEADER PAYLOAD", args.rest, "the command code, then the payload bytes")
        ->required();
}

void declareUpgradeArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("FILE", args.rest, "the firmware package")
        ->required()
        ->check(notEmpty("a package file (an empty name names none)"));
    command
        .add_option("--variable", args.variable,
                    "the catalogue variable whose set command starts the upgrade (default: the "
                    "one whose set command is 0x83)")
        ->type_name("NAME");
}

void declareLogArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("NAME", args.rest, "the log's name, e.g. \"Device Log\"")->required();
    command.add_option("--dir", args.dir, "the folder to save it in (default: the current one)");
}

void declareOperationLogArguments(CLI::App& command, CommandArguments& args) {
    command.add_option("ARCHIVE", args.rest, "the archive's path (.tar is added when missing)")
        ->required();
}

void declareMonitorArguments(CLI::App& monitor, CommandArguments& args) {
    monitor.add_option("--variant", args.variant, "apply this hardware variant first")
        ->type_name("LABEL")
        ->check(notEmpty("a variant's label"));
    CLI::Option* count = monitor.add_option("--count", args.count, "stop after N refreshes")
                             ->type_name("N")
                             ->check(kPositiveWhole);
    CLI::Option* record = monitor
                              .add_option("--record", args.recordDir,
                                          "record to Monitor_<variant>_<time>.csv in this folder")
                              ->check(notEmpty("a folder"))
                              ->type_name("DIR");
    record->excludes(count);
    monitor.add_option("--duration", args.duration, "length of the recording (default 60)")
        ->type_name("SECONDS")
        ->check(kPositiveWhole)
        ->needs(record);
    monitor.add_option("--interval", args.interval, "seconds between two rows (default 1)")
        ->type_name("SECONDS")
        ->check(kPositiveWhole)
        ->needs(record);
    monitor.add_flag("--plot", args.plot, "after recording, write a PNG chart beside the file")
        ->needs(record);
}

void declareHeronCommands(CLI::App& heron, CommandArguments& args) {
    heron.require_subcommand(1);
    addSecondLevel(heron, "versions",
                   "read the model version text and the three component versions");
    addSecondLevel(heron, "imu",
                   "set the IMU ranges by index: ANGULAR 0-5 (125, 250, 500, 1000, 2000, 4000 "
                   "dps), ACCELERATION 0-3 (2, 4, 8, 16 g)")
        ->add_option("ANGULAR ACCELERATION", args.rest, "the two range indexes")
        ->required();
    addSecondLevel(heron, "restart", "restart the lidar (its component restart)");
    addSecondLevel(heron, "upgrade",
                   "upgrade the lidar's components from an OTA package, with a progress bar and a "
                   "line per component; the lidar restarts at the end")
        ->add_option("PACKAGE", args.rest, "the OTA package")
        ->required();
}

void declareOtaCommands(CLI::App& ota, CommandArguments& args) {
    ota.require_subcommand(1);
    CLI::App* pack = addSecondLevel(ota, "pack", "build an OTA package from component files");
    for (size_t i = 0; i < args.componentFiles.size(); ++i)
        pack->add_option(kPackComponents[i][1], args.componentFiles[i],
                         std::string("the ") + kPackComponents[i][0] + " component's file")
            ->type_name("FILE");
    pack->add_option("-o,--output", args.output, "the package to write")
        ->type_name("PACKAGE")
        ->required();
    addSecondLevel(ota, "inspect", "check a package as the upgrade does and list its components")
        ->add_option("PACKAGE", args.rest, "the OTA package")
        ->required();
}

// The Wren model's own settings and readers, each a command of its own.
void declareWrenCommands(CLI::App& wren, CommandArguments& args) {
    wren.require_subcommand(1);
    addSecondLevel(wren, "standby", "put the lidar in standby (on) or let it scan (off)")
        ->add_option("on|off", args.rest, "on or off")
        ->required();
    addSecondLevel(wren, "spin-rate", "set the spin rate, in the lidar's own unit (0-255)")
        ->add_option("N", args.rest, "the spin rate")
        ->required();
    addSecondLevel(wren, "return-mode",
                   "set the return mode by its catalogue name: strongest or last")
        ->add_option("strongest|last", args.rest, "the return mode")
        ->required();
    addSecondLevel(wren, "baud", "read the serial point-cloud baud rate, or set it (Wren-VRC)")
        ->add_option("RATE", args.rest, "the new rate in bit/s");
    addSecondLevel(wren, "destination", "set where the lidar sends its data (Wren-VRC)")
        ->add_option("IP PORT", args.rest, "the destination address and port")
        ->required();
    CLI::App* net = addSecondLevel(wren, "net",
                                   "set the lidar's address, netmask and gateway (Wren-VRC); the "
                                   "lidar applies them and drops the connection");
    net->add_option("ADDRESS NETMASK GATEWAY", args.rest, "the three addresses")->required();
    net->add_option("--vlan", args.vlan, "tag the lidar's traffic with this VLAN (1-4094)")
        ->type_name("ID")
        ->check(CLI::Range(1, 4094).description(""));
    addSecondLevel(wren, "net-config", "read the lidar's address, netmask and gateway (Wren-VRC)");
    addSecondLevel(wren, "destination-config", "read where the lidar sends its data (Wren-VRC)");
    addSecondLevel(wren, "safety", "read the function-safety state and its fault codes");
}

namespace {

// The first argument that is neither an option nor an option's value: what the user took for
// a command when no subcommand matched.
QString firstPositional(const QStringList& arguments) {
    static const QStringList kValued = {
        "--model", "--host",    "--port",   "--local-port", "--token",    "--variable",
        "--dir",   "--variant", "--record", "--duration",   "--interval", "--rs485",
        "--uart",  "--vlan",    "--hosts",  "-j",           "--jobs",     "--report"};
    for (int i = 0; i < arguments.size(); ++i) {
        if (kValued.contains(arguments[i])) {
            ++i;
            continue;
        }
        if (!arguments[i].startsWith('-')) return arguments[i];
    }
    return QString();
}

// CLI11's one-line message, with the option's name where CLI11 leaves it out.
QString oneLine(const CLI::ParseError& error) {
    QString text = QString::fromStdString(error.what()).simplified();
    if (text.isEmpty()) text = QString::fromStdString(error.get_name());
    return text;
}

// A command group (heron, ota, wren) named without one of its commands, or with one it does not
// have: the group's commands, so that the user sees what to type.
QString missingGroupCommand(const CLI::App& app, const QStringList& arguments) {
    const std::vector<CLI::App*> chosen = app.get_subcommands();
    if (chosen.empty()) return QString();
    const CLI::App* group = chosen.front();
    if (!group->get_subcommands().empty() || group->get_require_subcommand_min() == 0)
        return QString();
    QStringList names;
    for (const CLI::App* command : group->get_subcommands({}))
        names << QString::fromStdString(command->get_name());
    const QString name = QString::fromStdString(group->get_name());
    const QString given = firstPositional(arguments.mid(arguments.indexOf(name) + 1));
    return name + " needs one of its commands: " + names.join(", ") +
           (given.isEmpty() ? QString() : " ('" + given + "' is not one)");
}

}  // namespace

namespace {

// The program's own options, as CLI11 fills them; readBack copies them into the Options.
struct ProgramValues {
    std::string model = "Egret";
    std::string host;
    std::string port;
    std::string localPort;
    std::string token;
    std::string rs485;
    std::string uart;
    std::string hostsFile;
    std::string reportFile;
};

// Fleet mode: one command against every lidar of a hosts file (fleet.h).
void declareFleetOptions(CLI::App& app, ProgramValues& values, Options& options) {
    const std::string commands = fleetCommands().join(", ").toStdString();
    app.add_option("--hosts", values.hostsFile,
                   "run the command (" + commands +
                       ") against every lidar of FILE (one HOST[:PORT] a line, # comments), "
                       "each in a lidarutil of its own; one JSON line per lidar on standard "
                       "output, a table on standard error")
        ->type_name("FILE")
        ->check(notEmpty("a hosts file"));
    app.add_option("-j,--jobs", options.jobs,
                   "with --hosts: at most N lidars at a time (default 8)")
        ->type_name("N")
        ->check(kPositiveWhole);
    app.add_option("--report", values.reportFile, "with --hosts: also write the JSON lines to FILE")
        ->type_name("FILE")
        ->check(notEmpty("a report file"));
    // Hidden: set by the fleet on the lidarutil it starts for each lidar (fleet.h says what such
    // a run does differently).
    app.add_flag(kFleetChildOption, options.fleetChild)->group("");
}

// The options of the whole program (--model, --host, ...), its description and its footer.
void declareProgramOptions(CLI::App& app, ProgramValues& values, Options& options) {
    app.require_subcommand(1);
    app.add_option("--model", values.model, "model catalogue to use (default Egret)")
        ->type_name("NAME");
    app.add_option("--host", values.host,
                   "talk to the lidar at HOST instead of the embedded simulator")
        ->type_name("HOST")
        ->check(kHostName);
    app.add_option("--port", values.port,
                   "the lidar's VRC port (with --host; default: the saved port)")
        ->type_name("PORT")
        ->check(kPortNumber);
    app.add_option("--local-port", values.localPort,
                   "local port of the VRC client, for models that fix it")
        ->type_name("PORT|ANY")
        ->check(kLocalPort);
    // An empty token would silently mean "no authorisation": refused like an empty host.
    app.add_option("--token", values.token, "the embedded simulator requires authorisation with it")
        ->check(CLI::Validator(
            [](std::string& value) {
                return value.empty() ? std::string("needs a token (an empty one means none)")
                                     : std::string();
            },
            ""))
        ->type_name("TOKEN");
    app.add_option("--rs485", values.rs485,
                   "the serial model's RS485 line (with --uart; default: the embedded "
                   "simulator's pseudo-terminals)")
        ->type_name("DEV");
    app.add_option("--uart", values.uart, "the serial model's UART line (with --rs485)")
        ->type_name("DEV");
    app.add_flag("--json", options.json, "machine-readable output on standard output");
    app.add_flag("-v,--verbose", options.verbose,
                 "the manager's log and developer lines on standard error");
    declareFleetOptions(app, values, options);
    app.footer(
        "Exit status: 0 success, 1 an operation failed, 2 a usage error. With --hosts: 0 when "
        "the command succeeded on every lidar, 3 when it failed on none and exited 3 on some, "
        "1 otherwise.");
}

// After a successful parse: the values CLI11 filled, into the Options.
void readBack(const CLI::App& app, const ProgramValues& values, const CommandArguments& args,
              Options& options) {
    options.model = QString::fromStdString(values.model);
    options.host = QString::fromStdString(values.host).trimmed();
    options.port = QString::fromStdString(values.port);
    options.localPort = QString::fromStdString(values.localPort);
    options.token = QString::fromStdString(values.token);
    options.rs485 = QString::fromStdString(values.rs485);
    options.uart = QString::fromStdString(values.uart);
    options.hostsFile = QString::fromStdString(values.hostsFile);
    options.reportFile = QString::fromStdString(values.reportFile);
    options.jobsGiven = app.count("-j") > 0;
    options.vlan = args.vlan;
    options.command = QString::fromStdString(app.get_subcommands().front()->get_name());
    options.count = args.count;
    options.variable = QString::fromStdString(args.variable);
    options.dir = QString::fromStdString(args.dir);
    options.variant = QString::fromStdString(args.variant);
    options.recordDir = QString::fromStdString(args.recordDir);
    options.duration = args.duration;
    options.interval = args.interval;
    options.plot = args.plot;
    if (!args.module.empty()) options.arguments << QString::fromStdString(args.module);
    for (const std::string& argument : args.rest)
        options.arguments << QString::fromStdString(argument);
    readHeronAndOtaArguments(*app.get_subcommands().front(), args, options);
    if (options.command == "export") options.output = QString::fromStdString(args.output);
    for (const std::string& name : args.excluded) options.excluded << QString::fromStdString(name);
    options.includeNetwork = args.includeNetwork;
    options.all = args.all;
    options.dryRun = args.dryRun;
    options.noVerify = args.noVerify;
    options.restart = args.restart;
}

}  // namespace

ParsedCommandLine parseCommandLine(const QStringList& arguments) {
    ParsedCommandLine result;
    Options& options = result.options;

    CLI::App app(
        "lidarutil: a command-line front end over the lidar utilities manager.\n"
        "Without --host an embedded simulator of the model answers on 127.0.0.1.\n"
        "The model catalogues are those of ./Config/varID when the current folder has one, "
        "otherwise the user's own (~/.local/share/lidar-utilities/varID) over the installed "
        "ones; lidarutil models says where each comes from.",
        "lidarutil");
    app.set_version_flag("--version", "lidarutil " LIDAR_VERSION, "Print the version and exit");
    ProgramValues values;
    declareProgramOptions(app, values, options);
    CommandArguments args;
    addSubcommands(app, args);
    nameValuesForPeople(app);

    std::vector<std::string> argv{"lidarutil"};
    for (const QString& argument : arguments) argv.push_back(argument.toStdString());
    std::vector<const char*> pointers;
    for (const std::string& argument : argv) pointers.push_back(argument.c_str());
    try {
        app.parse(static_cast<int>(pointers.size()), pointers.data());
    } catch (const CLI::CallForVersion& version) {
        result.helpRequested = true;
        result.ok = true;
        result.helpText = QString::fromStdString(version.what());
        return result;
    } catch (const CLI::CallForHelp&) {
        result.helpRequested = true;
        result.ok = true;
        // The help of the innermost command named (heron upgrade --help: upgrade's), its usage
        // line naming the whole command ("lidarutil heron upgrade [OPTIONS] PACKAGE...").
        result.helpText = QString::fromStdString(app.help());
        return result;
    } catch (const CLI::ParseError& error) {
        const QString unknown = app.get_subcommands().empty() ? firstPositional(arguments) : "";
        const QString group = missingGroupCommand(app, arguments);
        result.error = !unknown.isEmpty() ? "unknown command '" + unknown + "'"
                       : !group.isEmpty() ? group
                                          : oneLine(error);
        return result;
    }

    readBack(app, values, args, options);
    options.commandLine = arguments;
    result.error = combinationError(options);
    result.ok = result.error.isEmpty();
    return result;
}

}  // namespace cli
