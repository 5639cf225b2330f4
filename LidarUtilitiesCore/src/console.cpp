// Command console: raw commands typed as hexadecimal text, their formatted replies, and the
// history of the last ten commands kept in ./Config/command_log_file.csv.

#include <QFile>
#include <QFileInfo>
#include <QVariantMap>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <locale>
#include <sstream>
#include <stdexcept>

#include "developer_log.h"
#include "lidar_utilities_manager.h"
#include "sdk/csv_table.h"
#include "sdk/serial_client.h"

namespace {

constexpr size_t kReplyHeaderBytes = 8;
constexpr size_t kShownPayloadBytes = 1024;
constexpr int kHistoryLimit = 10;
constexpr uint8_t kRestartCommand = 0x10;
constexpr uint8_t kResetCommand = 0x25;
const char* const kHistoryFile = "./Config/command_log_file.csv";
const char* const kTimeColumn = "Time";
const char* const kCodeColumn = "Command Code";
const char* const kPayloadColumn = "Payload";

}  // namespace

// The texts of one console path.
struct ConsoleTexts {
    const char* headerError;
    const char* payloadError;
    const char* queryFailed;
};

namespace {

const ConsoleTexts kVrcTexts{
    "Incorrect VRC header was entered. Parsing failed.",
    "Incorrect VRC payload was entered. Parsing failed.",
    "Query vrc command fail. Please input right vrc command header and payload."};
constexpr uint32_t kSerialConsoleTimeoutMs = 5000;
// clang-format off
const char* const kLongPayloadWarning = "WARNING: This return payload is too long, only the first 1024 bytes are displayed. For a complete payload please use the log bytes flow function.";
// clang-format on
const ConsoleTexts kSerialTexts{
    "Incorrect Serial header was entered. Parsing failed.",
    "Incorrect Serial payload was entered. Parsing failed.",
    "Query Serial command fail. Please input right Serial command header and payload."};
const ConsoleTexts kVrcSerialTexts{"Incorrect Serial header was entered. Parsing failed.",
                                   "Incorrect Serial payload was entered. Parsing failed.",
                                   // clang-format off
    "Query Serial command fail. Please check BytesFlow in Log Window. Please input right Serial command header and payload."};
// clang-format on

std::string withoutHexPrefix(const std::string& text) {
    if (text.size() >= 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        return text.substr(2);
    return text;
}

// The whole text as one byte in base 16. Only hexadecimal digits are taken: a sign, a blank or a
// trailing letter ("1g") is an invalid argument rather than a partial number, and a value above
// 0xFF is out of range rather than cut to its low 8 bits ("125" would send 0x25, a factory
// reset), so a typing error never sends a code the user did not write.
int hexByte(const std::string& text) {
    if (text.empty()) throw std::invalid_argument("no hexadecimal digits");
    long long value = 0;
    for (char c : text) {
        if (!std::isxdigit(static_cast<unsigned char>(c)))
            throw std::invalid_argument("not a hexadecimal digit");
        const int digit = std::isdigit(static_cast<unsigned char>(c))
                              ? c - '0'
                              : std::tolower(static_cast<unsigned char>(c)) - 'a' + 10;
        value = std::min<long long>(value * 16 + digit, 0x100);
    }
    if (value > 0xFF) throw std::out_of_range("larger than a byte");
    return static_cast<int>(value);
}

// hexByte, with the conversion's failure written to standard output as the console reports it
// ("Invalid_argument", "Out_of_range"); nullopt then.
std::optional<int> reportedHexNumber(const std::string& text) {
    try {
        return hexByte(text);
    } catch (const std::invalid_argument&) {
        developer_log::writeDeveloperLine("Invalid_argument");
    } catch (const std::out_of_range&) {
        developer_log::writeDeveloperLine("Out_of_range");
    }
    return std::nullopt;
}

// "%F %X" in the classic locale: "2026-11-25 14:03:05" whatever the user's locale makes of %X.
std::string localTimeText() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << std::put_time(&local, "%F %X");
    return text.str();
}

// Upper-case pairs separated by single blanks.
std::string hexBytes(const u8Array_t& bytes, size_t first, size_t count) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(count * 3);
    for (size_t i = first; i < first + count; ++i) {
        if (!text.empty()) text += ' ';
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace

// ---- Sending ----

void LidarUtilitiesManager::SendCommand(QString header, QString payload) {
    switch (connectType.load()) {
        case 1:
            SendSerialCommand(header, payload);
            return;
        case 2:
            SendVrcSerialCommand(header, payload);
            return;
        default:
            break;
    }
    const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!client || !client->IsOpen() || isUpgrading.load() || !isConnected.load() ||
        isDownloadLog.load())
        return;
    const std::optional<uint8_t> code = exchangeConsoleCommand(
        header, payload, kVrcTexts,
        [&client](uint8_t command, const u8Array_t& bytes, u8Array_t& reply) {
            return client->QueryCommand(bytes, reply, command, true);
        });
    if (code == kRestartCommand || code == kResetCommand) {
        Stop();
        showSuccessMessage(code == kRestartCommand ? "Lidar restart." : "Lidar reset.");
    }
}

void LidarUtilitiesManager::SendSerialCommand(QString header, QString payload) {
    const std::shared_ptr<lidar::SerialClient> client = getSerialClient();
    if (!isConnected.load() || !client || isUpgrading.load()) {
        showErrorMessage("lidar is not connected, or lidar is upgrade");
        return;
    }
    exchangeConsoleCommand(header, payload, kSerialTexts,
                           [&client](uint8_t code, const u8Array_t& bytes, u8Array_t& reply) {
                               return client->QueryCommand(code, bytes, reply,
                                                           kSerialConsoleTimeoutMs);
                           });
}

void LidarUtilitiesManager::SendVrcSerialCommand(QString header, QString payload) {
    const std::shared_ptr<AuthorizedVrcClient> client = getAuthorizedClient();
    if (!isConnected.load() || !client || !client->IsOpen() || isUpgrading.load()) {
        showErrorMessage("lidar is not connected, or lidar is upgrade");
        return;
    }
    exchangeConsoleCommand(header, payload, kVrcSerialTexts,
                           [&client](uint8_t code, const u8Array_t& bytes, u8Array_t& reply) {
                               return client->QuerySerialCommand(bytes, reply, code);
                           });
}

// Parses, sends, formats the reply and records the command; the command code when the
// exchange succeeded.
std::optional<uint8_t> LidarUtilitiesManager::exchangeConsoleCommand(
    const QString& header, const QString& payload, const ConsoleTexts& texts,
    const ConsoleExchange& exchange) {
    const auto fail = [this](const char* popup) {
        setConsoleReply("", "");
        showErrorMessage(popup);
        emit sendCommandHistoryChanged();
        return std::nullopt;
    };
    const std::string headerText = withoutHexPrefix(header.trimmed().toStdString());
    const std::optional<int> command = reportedHexNumber(headerText);
    if (!command) return fail(texts.headerError);

    std::vector<std::string> parts;
    u8Array_t bytes;
    for (const QString& part : payload.split(' ', Qt::SkipEmptyParts)) {
        parts.push_back(withoutHexPrefix(part.toStdString()));
        const std::optional<int> byte = reportedHexNumber(parts.back());
        if (!byte) return fail(texts.payloadError);
        bytes.push_back(static_cast<uint8_t>(*byte));
    }
    std::string cleanPayload;
    for (const std::string& part : parts) cleanPayload += (cleanPayload.empty() ? "" : " ") + part;

    SendCmdRecord record;
    record.time = QString::fromStdString(localTimeText());
    record.cmd = QString::fromStdString(headerText);
    record.payload = QString::fromStdString(cleanPayload);
    const uint8_t code = static_cast<uint8_t>(*command);

    u8Array_t reply;
    if (exchange(code, bytes, reply) != 0) {
        developer_log::writeDeveloperLine("query command failed!");
        return fail(texts.queryFailed);
    }
    const size_t headerBytes = std::min(reply.size(), kReplyHeaderBytes);
    const size_t payloadBytes = reply.size() - headerBytes;
    const size_t shown = std::min(payloadBytes, kShownPayloadBytes);
    setConsoleReply(hexBytes(reply, 0, headerBytes), hexBytes(reply, headerBytes, shown));
    if (payloadBytes > kShownPayloadBytes) showErrorMessage(kLongPayloadWarning);

    sendCmdHistory.prepend(record);
    while (sendCmdHistory.size() > kHistoryLimit) sendCmdHistory.removeLast();
    emit sendCommandHistoryChanged();
    return code;
}

void LidarUtilitiesManager::setConsoleReply(const std::string& header, const std::string& payload) {
    std::lock_guard<std::mutex> lock(fieldsMutex_);
    sendVrcCommandReturnHeader = header;
    sendVrcCommandReturnPayload = payload;
}

// ---- History ----

void LidarUtilitiesManager::WriteCommandLogToLocalCommandFile() {
    if (historyFileUnreadable && !moveHistoryFileAside()) return;
    std::ofstream file(kHistoryFile, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file.is_open()) {
        writeLogMessage(std::string("Command history not saved: cannot write ") + kHistoryFile +
                            ": " + std::strerror(errno),
                        LogLevel::kError);
        return;
    }
    csv::DelimWriter writer(file);
    writer.WriteRow({kTimeColumn, kCodeColumn, kPayloadColumn});
    file.flush();
    for (const SendCmdRecord& record : sendCmdHistory) {
        writer.WriteRow(
            {record.time.toStdString(), record.cmd.toStdString(), record.payload.toStdString()});
        file.flush();
    }
}

bool LidarUtilitiesManager::moveHistoryFileAside() {
    QString aside = QString(kHistoryFile) + ".unreadable";
    for (int n = 2; QFileInfo::exists(aside); ++n)
        aside = QString(kHistoryFile) + ".unreadable-" + QString::number(n);
    if (!QFile::rename(kHistoryFile, aside)) {
        writeLogMessage(std::string("Command history not saved: ") + kHistoryFile +
                            " could not be read whole and could not be moved aside",
                        LogLevel::kError);
        return false;
    }
    historyFileUnreadable = false;
    writeLogMessage(std::string("Command history file ") + kHistoryFile +
                        " could not be read whole; it was moved aside to " + aside.toStdString(),
                    LogLevel::kWarning);
    return true;
}

void LidarUtilitiesManager::GetLocalCommandFileLog() {
    sendCmdHistory.clear();
    historyFileUnreadable = false;
    historyLoaded = true;
    const auto notLoaded = [this](const std::string& why, bool moveAside = true) {
        historyLoaded = false;
        historyFileUnreadable = moveAside;
        // The rows before the fault stay in the list: say so, or the list shown contradicts it.
        const int kept = sendCmdHistory.size();
        writeLogMessage(kept == 0 ? "Command history not loaded: " + why
                                  : "Command history read only in part: " + why + "; the " +
                                        std::to_string(kept) + " record(s) before it were kept",
                        LogLevel::kError);
        emit sendCommandHistoryChanged();
    };
    // A folder holds no records to keep; it is named rather than read.
    if (QFileInfo(kHistoryFile).isDir())
        return notLoaded(std::string(kHistoryFile) + " is a folder, not a file", false);
    if (!std::ifstream(kHistoryFile).is_open()) std::ofstream(kHistoryFile).close();
    int line = 0;
    try {
        const csv::CSVReader reader(kHistoryFile);
        line = 1;  // the header: where a missing column is found
        for (const csv::CSVRow& row : reader) {
            if (sendCmdHistory.size() >= kHistoryLimit) break;
            SendCmdRecord record;
            record.time = QString::fromStdString(row[kTimeColumn]);
            record.cmd = QString::fromStdString(row[kCodeColumn]);
            record.payload = QString::fromStdString(row[kPayloadColumn]);
            sendCmdHistory.append(record);
        }
        // The rows after a quote that is never closed are lost in its field.
        if (reader.UnclosedQuoteLine() != 0 && sendCmdHistory.size() < kHistoryLimit)
            return notLoaded("a quote opened on line " +
                             std::to_string(reader.UnclosedQuoteLine()) + " of " + kHistoryFile +
                             " is never closed");
    } catch (const std::exception& e) {
        // The reader's own text ("Can't find a column named Payload"); the rows taken so far
        // stay in the list.
        developer_log::writeDeveloperLine(e.what());
        return notLoaded(std::string(e.what()) +
                         (line > 0 ? " (line " + std::to_string(line) + " of " + kHistoryFile + ")"
                                   : std::string(" (") + kHistoryFile + ")"));
    }
    emit sendCommandHistoryChanged();
}

QVariantList LidarUtilitiesManager::getSendCommandHistory() const {
    QVariantList list;
    for (const SendCmdRecord& record : sendCmdHistory) {
        QVariantMap entry;
        entry["send_cmd_history"] = record.cmd;
        entry["send_payload_history"] = record.payload;
        entry["record_time"] = record.time;
        list.append(entry);
    }
    return list;
}

bool LidarUtilitiesManager::commandHistoryLoaded() const {
    return historyLoaded;
}

int LidarUtilitiesManager::getCommandLogCnt() const {
    return sendCmdHistory.size();
}
