// send and history: the manager's command console from the command line. The history file is
// loaded before a send and written after it, as the console of a graphical front end does.

#include <QJsonArray>
#include <QJsonObject>
#include <algorithm>

#include "commands.h"
#include "output.h"
#include "sdk/serial_client.h"
#include "session.h"

namespace cli {
namespace {

QJsonArray historyJson(const QVariantList& history) {
    QJsonArray rows;
    for (const QVariant& entry : history) {
        const QVariantMap record = entry.toMap();
        rows.append(QJsonObject{{"time", record["record_time"].toString()},
                                {"command", record["send_cmd_history"].toString()},
                                {"payload", record["send_payload_history"].toString()}});
    }
    return rows;
}

// The last result of the client the console used: the lidar's status, or the client's failure.
int lastResult(LidarUtilitiesManager& manager) {
    if (manager.getConnectType() == 1) {
        const std::shared_ptr<lidar::SerialClient> serial = manager.getSerialClient();
        return serial ? serial->GetLastReturnCode() : lidar::kVrcNotConnected;
    }
    const std::shared_ptr<AuthorizedVrcClient> client = manager.getAuthorizedClient();
    return client ? client->GetLastReturnCode() : lidar::kVrcNotConnected;
}

// One byte as the console takes it: hexadecimal digits only ("0x" optional), at most FF.
bool isHexByte(QString text) {
    if (text.startsWith("0x", Qt::CaseInsensitive)) text = text.mid(2);
    const auto hexDigit = [](QChar c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    };
    bool ok = false;
    return !text.isEmpty() && std::all_of(text.begin(), text.end(), hexDigit) &&
           text.toUInt(&ok, 16) <= 0xFF && ok;
}

// The manager's own words for a header or payload it could not parse ("VRC", or "Serial" for the
// models reached over serial lines), told before connecting: a typing error costs no connection.
QString parsingProblem(Session& session, const QString& header, const QString& payload) {
    const QString path = session.manager().getConnectType() == 0 ? "VRC" : "Serial";
    if (!isHexByte(header.trimmed()))
        return "Incorrect " + path + " header was entered. Parsing failed.";
    const QStringList bytes = payload.split(' ', Qt::SkipEmptyParts);
    if (!std::all_of(bytes.begin(), bytes.end(), isHexByte))
        return "Incorrect " + path + " payload was entered. Parsing failed.";
    return QString();
}

}  // namespace

int commandSend(Session& session) {
    const QStringList& arguments = session.options().arguments;
    if (arguments.isEmpty()) return usageError("send needs a command code (HEADER)");
    if (const QString problem =
            parsingProblem(session, arguments.front(), arguments.mid(1).join(' '));
        !problem.isEmpty()) {
        printDiagnostic("error: " + problem);
        return kExitUsage;
    }
    if (int status = session.connect(); status != kExitOk) return status;
    LidarUtilitiesManager& manager = session.manager();
    // The children of a fleet run at once and would race on the one history file: a child
    // leaves it alone. Loading it is no mere read either: the manager creates a missing file and
    // moves aside one it cannot read.
    const bool keepsHistory = !session.options().fleetChild;
    if (keepsHistory) manager.GetLocalCommandFileLog();
    const int errorsBefore = session.errorCount();
    manager.SendCommand(arguments.front(), arguments.mid(1).join(' '));
    if (keepsHistory) manager.WriteCommandLogToLocalCommandFile();

    const QString header = manager.getSendVrcCommandReturnHeader();
    if (header.isEmpty()) {
        // The manager has said why; a text it could not parse is the user's mistake.
        const bool parsing = manager.getErrorMessage().endsWith("Parsing failed.");
        if (session.errorCount() == errorsBefore)
            printDiagnostic("error: the command was not sent (the lidar is busy)");
        else if (!parsing)
            printDiagnostic("error: " + readFailureText(lastResult(manager)));
        return parsing ? kExitUsage : kExitFailed;
    }
    const QString payload = manager.getSendVrcCommandReturnPayload();
    if (session.options().json) {
        printJson(QJsonDocument(QJsonObject{{"header", header}, {"payload", payload}}));
    } else {
        printResult("header:  " + header);
        printResult("payload: " + payload);
    }
    // A serial reply carried through VRC has its own status byte (the fourth of its header).
    bool ok = false;
    const int status = header.split(' ').value(3).toInt(&ok, 16);
    if (ok && status != 0) {
        printDiagnostic("error: " + readFailureText(status));
        return kExitFailed;
    }
    return kExitOk;
}

int commandHistory(Session& session) {
    if (!session.options().arguments.isEmpty()) return usageError("history takes no arguments");
    LidarUtilitiesManager& manager = session.manager();
    manager.GetLocalCommandFileLog();
    // The manager has said why the file could not be read; the records before the fault show.
    const int status = manager.commandHistoryLoaded() ? kExitOk : kExitFailed;
    const QVariantList history = manager.getSendCommandHistory();
    if (session.options().json) {
        printJson(QJsonDocument(historyJson(history)));
        return status;
    }
    if (history.isEmpty()) {
        if (status == kExitOk) printDiagnostic("no commands sent yet");
        return status;
    }
    QVector<QStringList> rows;
    for (const QVariant& entry : history) {
        const QVariantMap record = entry.toMap();
        rows.append({record["record_time"].toString(), record["send_cmd_history"].toString(),
                     record["send_payload_history"].toString()});
    }
    printResult(formatTable({"TIME", "CODE", "PAYLOAD"}, rows));
    return status;
}

}  // namespace cli
