#include "options.h"

#include <functional>
#include <map>

#include "sdk/authorized_vrc_client.h"

namespace cli {
namespace {

const QStringList kCommands = {"models", "show", "info", "read", "set", "fov", "watch"};

// "-1" or "-1=5" is a (bad) field-of-view argument for the command to judge, not an option.
bool isNumber(const QString& text) {
    return text.size() >= 2 && text[0] == '-' && (text[1].isDigit() || text[1] == '.');
}

bool isPortNumber(const QString& text) {
    bool ok = false;
    const int port = text.toInt(&ok, 10);
    return ok && port >= 1 && port <= 65535;
}

bool isPositiveCount(const QString& text) {
    bool ok = false;
    return text.toInt(&ok, 10) >= 1 && ok;
}

// Cross-checks that need the whole command line.
QString combinationError(const Options& options) {
    if (options.command.isEmpty()) return "no command given";
    if (!kCommands.contains(options.command)) return "unknown command '" + options.command + "'";
    if (options.count != 0 && options.command != "watch") return "--count belongs to watch";
    // A real lidar's token is the access configuration's (./Config/auth_config.csv), which the
    // manager reads itself; the option only configures the simulator.
    if (!options.token.isEmpty() && !options.host.isEmpty())
        return "--token applies to the embedded simulator only (a lidar's token comes from "
               "./Config/auth_config.csv)";
    if (!options.port.isEmpty() && options.host.isEmpty())
        return "--port needs --host (the embedded simulator picks its own port)";
    return QString();
}

}  // namespace

ParsedCommandLine parseCommandLine(const QStringList& arguments) {
    ParsedCommandLine result;
    Options& options = result.options;

    // Each option that takes a value stores it after checking it; an empty text means "fine".
    using Setter = std::function<QString(const QString&)>;
    const std::map<QString, Setter> valued = {
        {"--model", [&](const QString& v) { return options.model = v, QString(); }},
        {"--host",
         [&](const QString& v) {
             options.host = v.trimmed();
             // An empty host (an unset variable in a script) must not fall back to the embedded
             // simulator: the user meant a lidar.
             return options.host.isEmpty() ? "--host needs a host name or address" : QString();
         }},
        {"--token", [&](const QString& v) { return options.token = v, QString(); }},
        {"--port",
         [&](const QString& v) {
             options.port = v;
             return isPortNumber(v) ? QString() : "--port needs a number from 1 to 65535";
         }},
        {"--local-port",
         [&](const QString& v) {
             options.localPort = v;
             uint16_t port = 0;
             std::string error;
             return ParseVrcClientHostPortText(v.toStdString(), &port, &error)
                        ? QString()
                        : "--local-port: " + QString::fromStdString(error);
         }},
        {"--count",
         [&](const QString& v) {
             options.count = v.toInt();
             return isPositiveCount(v) ? QString() : "--count needs a whole number of 1 or more";
         }},
    };

    bool optionsEnded = false;
    for (int i = 0; i < arguments.size(); ++i) {
        QString argument = arguments[i];
        if (optionsEnded || !argument.startsWith("-") || argument == "-" || isNumber(argument)) {
            if (options.command.isEmpty())
                options.command = argument;
            else
                options.arguments << argument;
            continue;
        }
        if (argument == "--") {
            optionsEnded = true;
            continue;
        }
        if (argument == "-h" || argument == "--help") {
            result.helpRequested = true;
            result.ok = true;
            return result;
        }
        if (argument == "--verbose" || argument == "-v") {
            options.verbose = true;
            continue;
        }
        if (argument == "--json") {
            options.json = true;
            continue;
        }
        QString value;
        bool hasValue = false;
        const int equals = argument.indexOf('=');
        if (argument.startsWith("--") && equals > 0) {
            value = argument.mid(equals + 1);
            argument = argument.left(equals);
            hasValue = true;
        }
        const auto setter = valued.find(argument);
        if (setter == valued.end()) {
            result.error = "unknown option " + argument;
            return result;
        }
        if (!hasValue) {
            if (i + 1 >= arguments.size()) {
                result.error = argument + " needs a value";
                return result;
            }
            value = arguments[++i];
        }
        result.error = setter->second(value);
        if (!result.error.isEmpty()) return result;
    }
    result.error = combinationError(options);
    result.ok = result.error.isEmpty();
    return result;
}

QString usageText() {
    return QStringLiteral(
        "usage: lidarutil [OPTIONS] COMMAND [ARGS]\n"
        "\n"
        "Without --host an embedded simulator of the model answers on 127.0.0.1; run from the\n"
        "repository root (the catalogues are read from ./Config).\n"
        "\n"
        "Commands:\n"
        "  models                      list the models and how each is connected\n"
        "  show                        the model's modules, pages and variables (no lidar)\n"
        "  info                        read the device information: name=value lines\n"
        "  read [MODULE]               read one module (or all) and print name, value, unit\n"
        "  set NAME=VALUE...           write values, then print them as read back; a selection\n"
        "                              takes its option text, its raw value or #INDEX\n"
        "  fov [S1..S5 E1..E5 | I=V...] show the channel field of view, or write it: ten bounds\n"
        "                              in degrees, or INDEX=VALUE (0-4 starts, 5-9 ends)\n"
        "  watch [MODULE] [--count N]  print the module's timer-refreshed values at each refresh\n"
        "                              (about every 3 s) until Ctrl-C or N refreshes\n"
        "\n"
        "Options:\n"
        "  --model NAME        model catalogue to use (default Egret)\n"
        "  --host H            talk to the lidar at H instead of the embedded simulator\n"
        "  --port N            the lidar's VRC port (with --host; default: the saved port)\n"
        "  --local-port P|ANY  local port of the VRC client, for models that fix it\n"
        "  --token T           the embedded simulator requires authorisation with token T\n"
        "  --json              machine-readable output on standard output\n"
        "  --verbose           the manager's log and developer lines on standard error\n"
        "  -h, --help          this text\n"
        "\n"
        "Exit status: 0 success, 1 an operation failed, 2 a usage error.\n");
}

}  // namespace cli
