// lidar-sim: runs the simulated lidar (over TCP, or with --serial on two pseudo-terminals) until
// SIGINT or SIGTERM, then prints what it received (every transfer with its size and CRC-32, the
// running partition) and its request counters, and with --report writes the same as JSON.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sdk/catalogue_folders.h"
#include "sim/lidar_fleet.h"
#include "sim/lidar_simulator.h"
#include "sim/serial_lidar_simulator.h"

namespace {

constexpr int kUsageError = 2;

// The fault modes by the requests they are meant for, as one line of text for the help.
std::string FaultModesText() {
    static const std::pair<sim::FaultMode::Scope, const char*> kScopes[] = {
        {sim::FaultMode::Scope::kAnyCommand, "MODE one of"},
        {sim::FaultMode::Scope::kTransfers, "; for transfers"},
        {sim::FaultMode::Scope::kComponents, "; for components (0xC3)"},
        {sim::FaultMode::Scope::kSerialLine, "; on the serial lines"}};
    std::string text = "CMD in hex (0x07); ";
    for (const auto& [scope, label] : kScopes) {
        text += std::string(label) + " ";
        std::string modes;
        for (const sim::FaultMode& mode : sim::FaultModes()) {
            if (mode.scope != scope) continue;
            modes += (modes.empty() ? "" : ", ") + mode.Syntax();
        }
        text += modes;
    }
    return text;
}

// `text` broken at spaces into lines of at most `width` columns, every line after the first
// indented to `indent`.
std::string Wrapped(const std::string& text, size_t indent, size_t width) {
    std::string lines;
    size_t column = indent;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(' ', start);
        if (end == std::string::npos) end = text.size();
        const std::string word = text.substr(start, end - start);
        if (column > indent && column + 1 + word.size() > width) {
            lines += "\n" + std::string(indent, ' ');
            column = indent;
        } else if (column > indent) {
            lines += ' ';
            ++column;
        }
        lines += word;
        column += word.size();
        start = end + 1;
    }
    return lines;
}

std::string Usage() {
    return "Usage: lidar-sim --model NAME [OPTION]...\n"
           "  or:  lidar-sim --help | --version\n"
           "A simulated lidar: serves the model's catalogue over TCP (or its serial lines) until "
           "Ctrl-C.\n\n"
           "  --model NAME           catalogue DIR/varID/NAME/NAME.csv (or DIR/varID/NAME.csv)\n"
           "  --config-dir DIR       folder holding varID/ (default: the first of ./Config, the\n"
           "                         user's ~/.local/share/lidar-utilities and the installed\n"
           "                         catalogues that has the model)\n"
           "  --port N               TCP port, 0 picks a free one (default 0)\n"
           "  --count N              serve N lidars (1-256) on consecutive ports from --port "
           "(with\n"
           "                         0, a free block), each with its own serial number, MAC\n"
           "                         address and settings; a \"listening on\" line each (TCP "
           "only)\n"
           "  --bind ADDR            IPv4 address to listen on (default 127.0.0.1)\n"
           "  --token T              require authorisation (0xA1) with this token for writes\n"
           "  --fault CMD:MODE       " +
           Wrapped(FaultModesText(), 25, 94) +
           "\n"
           "  --restart-downtime MS  unreachable time after restart or reset (default 1500)\n"
           "  --log-size BYTES       size of every log that 0x75 serves (default 4096, at most 64 "
           "MiB)\n"
           "  --serial               serve the serial lines on two pseudo-terminals instead of "
           "TCP\n"
           "                         (prints \"rs485 PATH\" and \"uart PATH\", and \"uart PATH\" "
           "again\n"
           "                         when a hang-up fault replaces that line)\n"
           "  --fault-state S[:C,..] the fault state the serial side reports: state 0-255, then\n"
           "                         hexadecimal fault codes (\"1:00A1,0102\")\n"
           "  --partition A|B        Heron-VRC: the application partition running at start "
           "(default A)\n"
           "  --seed N               the curves the monitor readings follow (default 1)\n"
           "  --chaos SEED           random faults at low rates on every command without its own\n"
           "                         --fault: slow replies, busy statuses, cut replies, dropped\n"
           "                         connections; the same SEED repeats them (TCP only)\n"
           "  --report FILE          at exit, also write what was received and the counters as "
           "JSON\n";
}

struct UsageError {
    std::string message;
};

struct Arguments {
    sim::LidarSimulator::Options options;
    std::vector<std::pair<uint8_t, sim::Fault>> faults;
    bool serial = false;
    std::optional<sim::SerialState> faultState;
    std::string reportFile;
    bool configDirGiven = false;
    int count = 1;
    bool countGiven = false;
};

bool ParseNumber(const std::string& text, unsigned long max, int base, unsigned long& out) {
    if (text.empty() || text[0] == '-' || text[0] == '+') return false;
    char* end = nullptr;
    out = std::strtoul(text.c_str(), &end, base);
    return end == text.c_str() + text.size() && out <= max;
}

// The value of the option `name`: a whole decimal number from 0 to max, or a usage error that
// gives the range.
unsigned long NumberOption(const std::string& name, const std::string& text, unsigned long max) {
    unsigned long number = 0;
    if (!ParseNumber(text, max, 10, number))
        throw UsageError{name + " needs a whole number from 0 to " + std::to_string(max) +
                         ", not '" + text + "'"};
    return number;
}

// "0x22:delay=500" or "22:status=4": the command is always hexadecimal, as everywhere else.
std::pair<uint8_t, sim::Fault> ParseFaultArgument(const std::string& text) {
    const size_t colon = text.find(':');
    if (colon == std::string::npos) throw UsageError{"--fault needs CMD:MODE, got " + text};
    std::string command = text.substr(0, colon);
    if (command.size() > 2 && command[0] == '0' && (command[1] == 'x' || command[1] == 'X')) {
        command.erase(0, 2);
    }
    unsigned long code = 0;
    if (command.empty() || command.size() > 2 || !ParseNumber(command, 0xFF, 16, code)) {
        throw UsageError{"--fault: the command code needs a hexadecimal byte (0x00-0xFF), not '" +
                         text.substr(0, colon) + "'"};
    }
    sim::Fault fault;
    if (!sim::Fault::Parse(text.substr(colon + 1), fault)) {
        throw UsageError{"--fault: " + sim::Fault::Problem(text.substr(colon + 1))};
    }
    return {static_cast<uint8_t>(code), fault};
}

// One option, its value taken by `value`, into args; false for a name lidar-sim does not have.
bool ReadOption(const std::string& name, const std::function<std::string()>& value,
                Arguments& args) {
    if (name == "--model") {
        args.options.model = value();
    } else if (name == "--config-dir") {
        args.options.configDir = value();
        args.configDirGiven = true;
    } else if (name == "--bind") {
        args.options.bindAddress = value();
    } else if (name == "--token") {
        args.options.requiredToken = value();
    } else if (name == "--port") {
        args.options.port = static_cast<uint16_t>(NumberOption(name, value(), 65535));
    } else if (name == "--restart-downtime") {
        args.options.restartDowntimeMs = static_cast<int>(NumberOption(name, value(), 3600000));
    } else if (name == "--log-size") {
        args.options.logBytes = static_cast<size_t>(NumberOption(name, value(), 64L * 1024 * 1024));
    } else if (name == "--seed") {
        args.options.monitorSeed = static_cast<uint32_t>(NumberOption(name, value(), 0xFFFFFFFFul));
    } else if (name == "--chaos") {
        args.options.chaosSeed = static_cast<uint32_t>(NumberOption(name, value(), 0xFFFFFFFFul));
    } else if (name == "--partition") {
        const std::string text = value();
        if (text != "A" && text != "B")
            throw UsageError{"--partition takes A or B, not '" + text + "'"};
        args.options.partition = text[0];
    } else if (name == "--count") {
        const std::string text = value();
        unsigned long count = 0;
        if (!ParseNumber(text, sim::LidarFleet::kMaxCount, 10, count) || count == 0) {
            throw UsageError{"--count needs a whole number from 1 to " +
                             std::to_string(sim::LidarFleet::kMaxCount) + ", not '" + text + "'"};
        }
        args.count = static_cast<int>(count);
        args.countGiven = true;
    } else if (name == "--report") {
        args.reportFile = value();
        if (args.reportFile.empty()) throw UsageError{"--report needs a file name"};
    } else if (name == "--fault") {
        args.faults.push_back(ParseFaultArgument(value()));
    } else if (name == "--fault-state") {
        const std::string text = value();
        sim::SerialState state;
        if (!sim::SerialState::ParseFaultState(text, state)) {
            throw UsageError{
                "--fault-state needs STATE[:CODE,CODE...] (a state 0-255, "
                "hexadecimal codes 0-FFFF), not '" +
                text + "'"};
        }
        args.faultState = state;
    } else {
        return false;
    }
    return true;
}

Arguments ParseArguments(int argc, char** argv) {
    Arguments args;
    args.options.restartDowntimeMs = 1500;
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        std::string value;
        bool inlineValue = false;
        const size_t equals = name.find('=');
        if (name.rfind("--", 0) == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.erase(equals);
            inlineValue = true;
        }
        auto next = [&]() -> std::string {
            if (inlineValue) return value;
            if (i + 1 >= argc) throw UsageError{name + " needs a value"};
            return argv[++i];
        };
        if (name == "--serial" && !inlineValue) {
            args.serial = true;
        } else if (!ReadOption(name, next, args)) {
            throw UsageError{"unknown argument " + name};
        }
    }
    if (args.options.model.empty()) throw UsageError{"--model is required"};
    if (args.serial && args.options.chaosSeed) throw UsageError{"--chaos is for TCP only"};
    if (args.serial && args.countGiven) throw UsageError{"--count is for TCP only"};
    if (args.options.port != 0 && args.options.port + args.count - 1 > 65535) {
        throw UsageError{"--count " + std::to_string(args.count) + " from --port " +
                         std::to_string(args.options.port) + " would go past port 65535"};
    }
    return args;
}

// What the simulated lidar received, for whoever tests a package or an upgrade against it.
struct Received {
    std::vector<sim::Transfer> transfers;
    std::optional<char> partition;  // Heron-VRC only
    std::map<uint8_t, uint64_t> requests;
};

std::string Hex(uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, value);
    return text;
}

// The component a 0xC3 transfer carried ("" for the other transfers).
std::string ComponentName(const sim::Transfer& transfer) {
    static const char* const kNames[] = {"TMB FPGA", "BMB FPGA", "BMB application",
                                         "TMB parameters"};
    if (transfer.command != 0xC3) return "";
    if (transfer.beginByte >= 0 && transfer.beginByte < 4) return kNames[transfer.beginByte];
    return "type " + std::to_string(transfer.beginByte);
}

std::string JsonText(const std::string& text) {
    std::string quoted = "\"";
    for (char c : text) {
        if (c == '"' || c == '\\') quoted += '\\';
        if (static_cast<unsigned char>(c) >= 0x20) quoted += c;
    }
    return quoted + "\"";
}

std::string TransferJson(const sim::Transfer& t) {
    return "{\"command\":\"" + Hex(t.command, 2) +
           "\",\"begin_byte\":" + std::to_string(t.beginByte) +
           ",\"component\":" + JsonText(ComponentName(t)) +
           ",\"announced_size\":" + std::to_string(t.announcedSize) +
           ",\"size\":" + std::to_string(t.receivedSize) + ",\"crc32\":\"" + Hex(t.receivedCrc, 8) +
           "\",\"chunks\":" + std::to_string(t.chunks) +
           ",\"completed\":" + (t.completed ? "true" : "false") +
           ",\"refused_status\":" + std::to_string(t.refusedStatus) + "}";
}

// One transfer's line. The CRC-32 is of the bytes received: for an FPGA image that is the image
// without the leading block the upgrade does not send, what `ota inspect` lists as SENT-CRC32.
std::string TransferLine(const sim::Transfer& t) {
    const std::string component = ComponentName(t);
    const std::string line =
        "received " + Hex(t.command, 2) + " " + (component.empty() ? "package" : component) + ": ";
    if (t.refusedStatus != 0)
        return line + "refused with status " + std::to_string(t.refusedStatus) + " (" +
               std::to_string(t.announcedSize) + " bytes announced, none taken)";
    return line + std::to_string(t.receivedSize) + " of " + std::to_string(t.announcedSize) +
           " bytes, CRC-32 of the bytes received " + Hex(t.receivedCrc, 8) + ", " +
           std::to_string(t.chunks) + (t.chunks == 1 ? " chunk, " : " chunks, ") +
           (t.completed ? "completed" : "incomplete");
}

// The counters line first (as it always came), then a line per transfer and the partition.
void PrintReceived(const Received& received) {
    std::string line = "requests:";
    for (const auto& [command, count] : received.requests)
        line += " " + Hex(command, 2) + "=" + std::to_string(count);
    if (received.requests.empty()) line += " none";
    std::cout << line << "\n";
    for (const sim::Transfer& transfer : received.transfers)
        std::cout << TransferLine(transfer) << "\n";
    if (received.transfers.empty()) std::cout << "received: no transfer\n";
    if (received.partition) std::cout << "running partition: " << *received.partition << "\n";
    std::cout << std::flush;
}

// The same as one JSON object; one of several lidars also names its port.
std::string ReceivedJson(const Received& received, const std::string& model,
                         std::optional<uint16_t> port) {
    std::string json = "{";
    if (port) json += "\"port\":" + std::to_string(*port) + ",";
    json += "\"model\":" + JsonText(model) + ",\"requests\":{";
    for (const auto& [command, count] : received.requests) {
        if (json.back() != '{') json += ",";
        json += "\"" + Hex(command, 2) + "\":" + std::to_string(count);
    }
    json += "},\"received\":[";
    for (size_t i = 0; i < received.transfers.size(); ++i)
        json += (i == 0 ? "" : ",") + TransferJson(received.transfers[i]);
    json += "]";
    if (received.partition)
        json += ",\"running_partition\":\"" + std::string(1, *received.partition) + "\"";
    return json + "}";
}

// False, with the reason printed, when the file cannot be written; nothing to do without one.
bool WriteReport(const std::string& reportFile, const std::string& json) {
    if (reportFile.empty()) return true;
    std::ofstream out(reportFile, std::ios::trunc);
    if (!(out << json << "\n") || !out.flush()) {
        std::cerr << "lidar-sim: cannot write the report " << reportFile << "\n";
        return false;
    }
    return true;
}

// Why the report cannot be written, tried at start-up so that a run is not wasted on a report
// lost at its end; empty when it can. A file that did not exist is removed again.
std::string ReportFileProblem(const std::string& path) {
    const bool existed = ::access(path.c_str(), F_OK) == 0;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (fd < 0) return std::strerror(errno);
    ::close(fd);
    if (!existed) ::unlink(path.c_str());
    return "";
}

std::string ChaosLine(const sim::ChaosTally& played) {
    return "chaos: slow=" + std::to_string(played.slow) + " busy=" + std::to_string(played.busy) +
           " cut=" + std::to_string(played.cut) + " drop=" + std::to_string(played.drop);
}

template <typename Simulator>
void ApplyFaults(const Arguments& args, Simulator& simulator) {
    for (const auto& [command, fault] : args.faults) simulator.SetFault(command, fault);
}

Received ReceivedBy(sim::LidarSimulator& simulator, const std::string& model) {
    std::optional<char> partition;
    if (model == "Heron-VRC") partition = simulator.RunningPartition();
    return {simulator.Transfers(), partition, simulator.RequestCounts()};
}

// What every lidar received, in port order; with several, each under a line naming it and the
// report a JSON array of them.
bool ReportFleet(sim::LidarFleet& fleet, const Arguments& args) {
    const bool several = fleet.Count() > 1;
    std::string json;
    for (int index = 0; index < fleet.Count(); ++index) {
        sim::LidarSimulator& lidar = fleet.At(index);
        if (several)
            std::cout << "lidar " << args.options.bindAddress << ":" << lidar.Port() << "\n";
        const Received received = ReceivedBy(lidar, args.options.model);
        PrintReceived(received);
        if (args.options.chaosSeed) std::cout << ChaosLine(lidar.ChaosPlayed()) << std::endl;
        std::optional<uint16_t> port;
        if (several) port = lidar.Port();
        json += (index == 0 ? "" : ",") + ReceivedJson(received, args.options.model, port);
    }
    return WriteReport(args.reportFile, several ? "[" + json + "]" : json);
}

int RunTcp(const Arguments& args, sigset_t& stopSignals) {
    sim::LidarFleet fleet(args.options, args.count);
    std::string error;
    const bool started = fleet.Start(
        [&](sim::LidarSimulator& simulator) {
            ApplyFaults(args, simulator);
            if (args.faultState) {
                simulator.SetSerialFaultState(args.faultState->faultState,
                                              args.faultState->faultCodes);
            }
        },
        &error);
    if (!started) {
        std::cerr << "lidar-sim: " << error << "\n";
        return 1;
    }
    for (int index = 0; index < fleet.Count(); ++index) {
        std::cout << "listening on " << args.options.bindAddress << ":" << fleet.At(index).Port()
                  << "\n";
    }
    std::cout << std::flush;
    int received = 0;
    sigwait(&stopSignals, &received);
    // Every lidar stops before any is reported, so that none still counts while others print.
    for (int index = 0; index < fleet.Count(); ++index) fleet.At(index).Stop();
    const bool reported = ReportFleet(fleet, args);
    fleet.Stop();
    return reported ? 0 : 1;
}

// Without --config-dir the model's catalogue is looked for where the other programs look: a
// current folder with ./Config/varID is taken alone, as lidarutil takes it.
bool FindCatalogue(sim::LidarSimulator::Options& options) {
    const std::vector<lidar::CatalogueFolder> folders = lidar::CataloguesInUse();
    options.configDir = lidar::CatalogueFolderWithModel(options.model, folders);
    if (!options.configDir.empty()) return true;
    std::cerr << "lidar-sim: no catalogue of the model " << options.model << " in";
    for (const lidar::CatalogueFolder& folder : folders)
        std::cerr << (&folder == &folders.front() ? " " : ", ") << folder.path << "/varID";
    if (folders.front().origin == lidar::CatalogueOrigin::CurrentFolder)
        std::cerr << " (the current folder's catalogues are used alone: --config-dir names "
                     "another folder)";
    std::cerr << "\n";
    return false;
}

int RunSerial(const Arguments& args, sigset_t& stopSignals) {
    sim::SerialLidarSimulator::Options options;
    options.model = args.options.model;
    options.configDir = args.options.configDir;
    sim::SerialLidarSimulator simulator(options);
    ApplyFaults(args, simulator);
    if (args.faultState) {
        simulator.SetFaultState(args.faultState->faultState, args.faultState->faultCodes);
    }
    std::string error;
    if (!simulator.Start(&error)) {
        std::cerr << "lidar-sim: " << error << "\n";
        return 1;
    }
    std::string uartPath = simulator.UartPath();
    std::cout << "rs485 " << simulator.Rs485Path() << "\n"
              << "uart " << uartPath << std::endl;
    // A hang-up fault replaces the UART pair when the process may not hang a terminal up: the
    // new path is printed as the first was, for whoever drives the simulator.
    const timespec poll{0, 200 * 1000 * 1000};
    while (sigtimedwait(&stopSignals, nullptr, &poll) < 0) {
        const std::string now = simulator.UartPath();
        if (now == uartPath) continue;
        uartPath = now;
        std::cout << "uart " << uartPath << std::endl;
    }
    simulator.Stop();
    const Received received{simulator.Transfers(), std::nullopt, simulator.RequestCounts()};
    PrintReceived(received);
    return WriteReport(args.reportFile, ReceivedJson(received, args.options.model, std::nullopt))
               ? 0
               : 1;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--help" || std::string(argv[i]) == "-h") {
            std::cout << Usage();
            return 0;
        }
        if (std::string(argv[i]) == "--version") {
            std::cout << "lidar-sim " LIDAR_VERSION "\n";
            return 0;
        }
    }
    Arguments args;
    try {
        args = ParseArguments(argc, argv);
    } catch (const UsageError& e) {
        // One line of cause, then where the usage is: the whole usage would bury the cause.
        std::cerr << "lidar-sim: " << e.message << "\nlidar-sim --help lists the usage\n";
        return kUsageError;
    }
    if (!args.configDirGiven && !FindCatalogue(args.options)) return 1;
    if (!args.reportFile.empty()) {
        if (const std::string problem = ReportFileProblem(args.reportFile); !problem.empty()) {
            std::cerr << "lidar-sim: cannot write the report " << args.reportFile << ": " << problem
                      << "\n";
            return kUsageError;
        }
    }

    // Block the stop signals before any thread exists, so that only sigwait below sees them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    return args.serial ? RunSerial(args, stopSignals) : RunTcp(args, stopSignals);
}
