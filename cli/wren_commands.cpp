// wren: the Wren model's own settings and readers from the command line. The mode settings and
// the function-safety state work over both of its connections (its serial lines, --model Wren,
// and VRC over a serial line, --model Wren-VRC); the baud rate, the destination and the network
// settings over VRC only. Values are checked here before anything is sent, so that a typing
// error never reaches the lidar as another value; the outcome is the manager's message.

#include <QJsonArray>
#include <QJsonObject>
#include <algorithm>
#include <functional>

#include "commands.h"
#include "output.h"
#include "session.h"

namespace cli {
namespace {

const QStringList kVrcOnly = {"baud", "destination", "net", "net-config", "destination-config"};

// A whole decimal number from 0 to max.
bool parseWhole(const QString& text, int max, int& value) {
    if (text.isEmpty() || text.size() > 10 || !std::all_of(text.begin(), text.end(), [](QChar c) {
            return c >= QLatin1Char('0') && c <= QLatin1Char('9');
        }))
        return false;
    bool ok = false;
    const qlonglong number = text.toLongLong(&ok);
    if (!ok || number > max) return false;
    value = static_cast<int>(number);
    return true;
}

bool isIpv4(const QString& text) {
    const QStringList parts = text.split('.');
    int octet = 0;
    return parts.size() == 4 && std::all_of(parts.begin(), parts.end(), [&](const QString& part) {
               // "010" is refused, as the lidar's own parser refuses it: no octal guess.
               const bool leadingZero = part.size() > 1 && part.startsWith(QLatin1Char('0'));
               return part.size() <= 3 && !leadingZero && parseWhole(part, 255, octet);
           });
}

// Runs a manager operation; kExitFailed when it showed an error.
int outcome(Session& session, const std::function<void()>& operation) {
    const int errorsBefore = session.errorCount();
    operation();
    return session.errorCount() == errorsBefore ? kExitOk : kExitFailed;
}

int connected(Session& session, const std::function<int()>& command) {
    if (int status = session.connect(); status != kExitOk) return status;
    return command();
}

void printPairs(Session& session, const QVector<QPair<QString, QString>>& pairs) {
    if (session.options().json) {
        QJsonObject json;
        for (const auto& [name, value] : pairs) json[name] = value;
        printJson(QJsonDocument(json));
        return;
    }
    for (const auto& [name, value] : pairs) printResult(name + "=" + value);
}

int standby(Session& session, const QStringList& arguments) {
    const QString value = arguments.value(0).toLower();
    if (arguments.size() != 1 || (value != "on" && value != "off"))
        return usageError("wren standby takes on or off");
    return connected(session, [&] {
        return outcome(session, [&] { session.manager().WrenSetStandby(value == "on" ? 1 : 0); });
    });
}

// The manager sends any byte as designed, but a rate that is not one of the catalogue's options
// is one that `set "Spin Rate=N"` refuses: the user hears so before it is sent.
void warnAboutUncataloguedRate(Session& session, int rate) {
    const VarPosition* position = session.findVariable("Spin Rate");
    if (position == nullptr || position->var->value_to_option.empty() ||
        position->var->value_to_option.count(rate) != 0)
        return;
    QStringList values;
    for (const auto& [value, text] : position->var->value_to_option)
        values << QString::number(value);
    printDiagnostic("warning: " + QString::number(rate) +
                    " is not one of the catalogue's spin rates (" + values.join(", ") +
                    "); sending it as given");
}

int spinRate(Session& session, const QStringList& arguments) {
    int rate = 0;
    // The lidar takes one byte; 300 would reach it as 44.
    if (arguments.size() != 1 || !parseWhole(arguments[0], 255, rate))
        return usageError("wren spin-rate takes a whole number from 0 to 255");
    warnAboutUncataloguedRate(session, rate);
    return connected(session, [&] {
        return outcome(session, [&] { session.manager().WrenSetSpinRate(rate); });
    });
}

// The catalogue's names of the two return modes (Return Mode's options, "0:Strongest|1:Last"):
// the value a name sends is the one `read` shows with that name.
bool parseReturnMode(Session& session, const QString& text, int& mode, QStringList& names) {
    const VarPosition* position = session.findVariable("Return Mode");
    if (position == nullptr) return false;
    const VarInfo* var = position->var;
    for (const auto& [value, name] : var->value_to_option) {
        if (value != 0 && value != 1) continue;
        names << QString::fromStdString(name).toLower();
        if (text.compare(QString::fromStdString(name), Qt::CaseInsensitive) == 0) mode = value;
    }
    return mode >= 0;
}

int returnMode(Session& session, const QStringList& arguments) {
    int mode = -1;
    QStringList names;
    if (arguments.size() != 1 || !parseReturnMode(session, arguments[0], mode, names))
        return usageError("wren return-mode takes " + (names.isEmpty()
                                                           ? QString("a mode the catalogue names")
                                                           : names.join(" or ")));
    return connected(session, [&] {
        return outcome(session, [&] { session.manager().WrenSetReturnMode(mode); });
    });
}

// A rate the manager sends: a whole decimal number of bit/s above 0 that 32 bits hold.
bool isBaudRate(const QString& text) {
    bool ok = false;
    const bool digitsOnly = !text.isEmpty() && std::all_of(text.begin(), text.end(), [](QChar c) {
        return c >= QLatin1Char('0') && c <= QLatin1Char('9');
    });
    return digitsOnly && text.toUInt(&ok, 10) > 0 && ok;
}

int baud(Session& session, const QStringList& arguments) {
    if (arguments.size() > 1) return usageError("wren baud takes at most one rate");
    if (arguments.size() == 1 && !isBaudRate(arguments[0]))
        return usageError("wren baud takes a rate in bit/s, a whole number greater than 0, not '" +
                          arguments[0] + "'");
    return connected(session, [&] {
        LidarUtilitiesManager& manager = session.manager();
        if (arguments.isEmpty()) {
            const int errorsBefore = session.errorCount();
            const QString rate = manager.WrenGetBaudRate();
            if (session.errorCount() != errorsBefore) return kExitFailed;
            printPairs(session, {{"baud_rate", rate}});
            return kExitOk;
        }
        return outcome(session, [&] { manager.WrenSetBaudRateFromUI(arguments[0]); });
    });
}

int destination(Session& session, const QStringList& arguments) {
    int port = 0;
    if (arguments.size() != 2 || !isIpv4(arguments[0]) || !parseWhole(arguments[1], 65535, port))
        return usageError("wren destination takes an IPv4 address and a port (0-65535)");
    return connected(session, [&] {
        const int accepted = session.manager().WrenSetDestinationIPandPort(arguments[0], port);
        return accepted == 1 ? kExitOk : kExitFailed;
    });
}

int net(Session& session, const QStringList& arguments) {
    if (arguments.size() != 3 || !std::all_of(arguments.begin(), arguments.end(), isIpv4))
        return usageError("wren net takes three IPv4 addresses: ADDRESS NETMASK GATEWAY");
    const int vlan = session.options().vlan;
    return connected(session, [&] {
        const int accepted = session.manager().WrenSetNet(arguments[0], arguments[1], arguments[2],
                                                          vlan > 0 ? 1 : 0, vlan > 0 ? vlan : 0);
        return accepted == 1 ? kExitOk : kExitFailed;
    });
}

int netConfig(Session& session) {
    return connected(session, [&] {
        const QVariantList config = session.manager().WrenGetNetConfig(false);
        if (config.size() < 3) return kExitFailed;
        printPairs(session, {{"address", config[0].toString()},
                             {"netmask", config[1].toString()},
                             {"gateway", config[2].toString()}});
        return kExitOk;
    });
}

int destinationConfig(Session& session) {
    return connected(session, [&] {
        const QVariantList config = session.manager().WrenGetDestinationConfig(false);
        if (config.size() < 2) return kExitFailed;
        printPairs(session,
                   {{"destination", config[0].toString()}, {"port", config[1].toString()}});
        return kExitOk;
    });
}

int safety(Session& session) {
    return connected(session, [&] {
        const QVariantList list = session.manager().WrenGetLidarFunctionSafety();
        if (list.isEmpty()) return kExitFailed;
        QStringList codes;
        for (int i = 1; i < list.size(); ++i) codes << list[i].toString();
        if (session.options().json) {
            printJson(
                QJsonDocument(QJsonObject{{"state", list[0].toString()},
                                          {"fault_codes", QJsonArray::fromStringList(codes)}}));
        } else {
            printResult("state=" + list[0].toString());
            printResult("fault_codes=" + codes.join(','));
        }
        return kExitOk;
    });
}

}  // namespace

int commandWren(Session& session) {
    const int kind = session.manager().getConnectType();
    const QString& action = session.options().action;
    if (kind == 0)
        return usageError(
            "wren commands need a serial-line model (--model Wren or Wren-VRC), not " +
            session.options().model);
    if (kind == 1 && kVrcOnly.contains(action))
        return usageError("wren " + action +
                          " works over VRC only (--model Wren-VRC); the serial lines carry the "
                          "mode settings and the safety state");
    const QStringList& arguments = session.options().arguments;
    if (action == "standby") return standby(session, arguments);
    if (action == "spin-rate") return spinRate(session, arguments);
    if (action == "return-mode") return returnMode(session, arguments);
    if (action == "baud") return baud(session, arguments);
    if (action == "destination") return destination(session, arguments);
    if (action == "net") return net(session, arguments);
    if (!arguments.isEmpty()) return usageError("wren " + action + " takes no arguments");
    if (action == "net-config") return netConfig(session);
    if (action == "destination-config") return destinationConfig(session);
    if (action == "safety") return safety(session);
    return usageError("unknown wren command '" + action + "'");
}

}  // namespace cli
