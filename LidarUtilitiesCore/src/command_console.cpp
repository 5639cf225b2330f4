// The command console (command_console.h).

#include "command_console.h"

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
#include "sdk/authorized_vrc_client.h"
#include "sdk/csv_table.h"
#include "sdk/serial_client.h"
#include "subsystem_views.h"

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

CommandConsole::CommandConsole(DeviceLinkView& link, const BusyView& busy,
                               UserMessageSink& messages)
    : link_(link), busy_(busy), messages_(messages) {}

// ---- Sending ----

void CommandConsole::send(const QString& header, const QString& payload) {
    switch (link_.connectionKind()) {
        case 1:
            sendOverSerialLines(header, payload);
            return;
        case 2:
            sendOverVrcSerial(header, payload);
            return;
        default:
            break;
    }
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!client || !client->IsOpen() || busy_.upgrading() || !link_.linkConnected() ||
        busy_.downloadingLog())
        return;
    const std::optional<uint8_t> code =
        exchange(header, payload, kVrcTexts,
                 [&client](uint8_t command, const u8Array_t& bytes, u8Array_t& reply) {
                     return client->QueryCommand(bytes, reply, command, true);
                 });
    if (code == kRestartCommand || code == kResetCommand) {
        link_.stopLink();
        messages_.showSuccess(code == kRestartCommand ? "Lidar restart." : "Lidar reset.");
    }
}

void CommandConsole::sendOverSerialLines(const QString& header, const QString& payload) {
    const std::shared_ptr<lidar::SerialClient> client = link_.serialClient();
    if (!link_.linkConnected() || !client || busy_.upgrading()) {
        messages_.showError("lidar is not connected, or lidar is upgrade");
        return;
    }
    exchange(header, payload, kSerialTexts,
             [&client](uint8_t code, const u8Array_t& bytes, u8Array_t& reply) {
                 return client->QueryCommand(code, bytes, reply, kSerialConsoleTimeoutMs);
             });
}

void CommandConsole::sendOverVrcSerial(const QString& header, const QString& payload) {
    const std::shared_ptr<AuthorizedVrcClient> client = link_.vrcClient();
    if (!link_.linkConnected() || !client || !client->IsOpen() || busy_.upgrading()) {
        messages_.showError("lidar is not connected, or lidar is upgrade");
        return;
    }
    exchange(header, payload, kVrcSerialTexts,
             [&client](uint8_t code, const u8Array_t& bytes, u8Array_t& reply) {
                 return client->QuerySerialCommand(bytes, reply, code);
             });
}

std::optional<uint8_t> CommandConsole::refuse(const char* popup) {
    setReply("", "");
    messages_.showError(popup);
    emit historyChanged();
    return std::nullopt;
}

std::optional<uint8_t> CommandConsole::exchange(const QString& header, const QString& payload,
                                                const ConsoleTexts& texts, const Exchange& query) {
    const std::string headerText = withoutHexPrefix(header.trimmed().toStdString());
    const std::optional<int> command = reportedHexNumber(headerText);
    if (!command) return refuse(texts.headerError);

    std::vector<std::string> parts;
    u8Array_t bytes;
    for (const QString& part : payload.split(' ', Qt::SkipEmptyParts)) {
        parts.push_back(withoutHexPrefix(part.toStdString()));
        const std::optional<int> byte = reportedHexNumber(parts.back());
        if (!byte) return refuse(texts.payloadError);
        bytes.push_back(static_cast<uint8_t>(*byte));
    }
    std::string cleanPayload;
    for (const std::string& part : parts) cleanPayload += (cleanPayload.empty() ? "" : " ") + part;

    SendCmdRecord entry;
    entry.time = QString::fromStdString(localTimeText());
    entry.cmd = QString::fromStdString(headerText);
    entry.payload = QString::fromStdString(cleanPayload);
    const uint8_t code = static_cast<uint8_t>(*command);

    u8Array_t reply;
    if (query(code, bytes, reply) != 0) {
        developer_log::writeDeveloperLine("query command failed!");
        return refuse(texts.queryFailed);
    }
    const size_t headerBytes = std::min(reply.size(), kReplyHeaderBytes);
    const size_t payloadBytes = reply.size() - headerBytes;
    const size_t shown = std::min(payloadBytes, kShownPayloadBytes);
    setReply(hexBytes(reply, 0, headerBytes), hexBytes(reply, headerBytes, shown));
    if (payloadBytes > kShownPayloadBytes) messages_.showError(kLongPayloadWarning);

    record(entry);
    emit historyChanged();
    return code;
}

void CommandConsole::setReply(const std::string& header, const std::string& payload) {
    std::lock_guard<std::mutex> lock(mutex_);
    replyHeader_ = header;
    replyPayload_ = payload;
}

void CommandConsole::record(const SendCmdRecord& entry) {
    std::lock_guard<std::mutex> lock(mutex_);
    history_.prepend(entry);
    while (history_.size() > kHistoryLimit) history_.removeLast();
}

QString CommandConsole::replyHeader() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(replyHeader_);
}

QString CommandConsole::replyPayload() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString::fromStdString(replyPayload_);
}

// ---- History ----

void CommandConsole::saveHistory() {
    bool unreadable = false;
    QList<SendCmdRecord> rows;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        unreadable = historyFileUnreadable_;
        rows = history_;
    }
    if (unreadable && !moveHistoryFileAside()) return;
    std::ofstream file(kHistoryFile, std::ios::out | std::ios::trunc | std::ios::binary);
    if (!file.is_open()) {
        messages_.log(std::string("Command history not saved: cannot write ") + kHistoryFile +
                          ": " + std::strerror(errno),
                      LogLevel::kError);
        return;
    }
    csv::DelimWriter writer(file);
    writer.WriteRow({kTimeColumn, kCodeColumn, kPayloadColumn});
    file.flush();
    for (const SendCmdRecord& row : rows) {
        writer.WriteRow({row.time.toStdString(), row.cmd.toStdString(), row.payload.toStdString()});
        file.flush();
    }
}

bool CommandConsole::moveHistoryFileAside() {
    QString aside = QString(kHistoryFile) + ".unreadable";
    for (int n = 2; QFileInfo::exists(aside); ++n)
        aside = QString(kHistoryFile) + ".unreadable-" + QString::number(n);
    if (!QFile::rename(kHistoryFile, aside)) {
        messages_.log(std::string("Command history not saved: ") + kHistoryFile +
                          " could not be read whole and could not be moved aside",
                      LogLevel::kError);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        historyFileUnreadable_ = false;
    }
    messages_.log(std::string("Command history file ") + kHistoryFile +
                      " could not be read whole; it was moved aside to " + aside.toStdString(),
                  LogLevel::kWarning);
    return true;
}

namespace {

// The records of the history file, at most kHistoryLimit, into rows; why the file could not be
// read whole, or nullopt. The rows before a fault stay in rows.
std::optional<std::string> readHistoryRows(QList<SendCmdRecord>& rows) {
    if (!std::ifstream(kHistoryFile).is_open()) std::ofstream(kHistoryFile).close();
    int line = 0;
    try {
        const csv::CSVReader reader(kHistoryFile);
        line = 1;  // the header: where a missing column is found
        for (const csv::CSVRow& row : reader) {
            if (rows.size() >= kHistoryLimit) break;
            SendCmdRecord entry;
            entry.time = QString::fromStdString(row[kTimeColumn]);
            entry.cmd = QString::fromStdString(row[kCodeColumn]);
            entry.payload = QString::fromStdString(row[kPayloadColumn]);
            rows.append(entry);
        }
        // The rows after a quote that is never closed are lost in its field.
        if (reader.UnclosedQuoteLine() != 0 && rows.size() < kHistoryLimit)
            return "a quote opened on line " + std::to_string(reader.UnclosedQuoteLine()) + " of " +
                   kHistoryFile + " is never closed";
    } catch (const std::exception& e) {
        // The reader's own text ("Can't find a column named Payload").
        developer_log::writeDeveloperLine(e.what());
        return std::string(e.what()) +
               (line > 0 ? " (line " + std::to_string(line) + " of " + kHistoryFile + ")"
                         : std::string(" (") + kHistoryFile + ")");
    }
    return std::nullopt;
}

}  // namespace

void CommandConsole::loadHistory() {
    QList<SendCmdRecord> rows;
    std::optional<std::string> fault;
    bool moveAside = true;
    // A folder holds no records to keep; it is named rather than read.
    if (QFileInfo(kHistoryFile).isDir()) {
        fault = std::string(kHistoryFile) + " is a folder, not a file";
        moveAside = false;
    } else {
        fault = readHistoryRows(rows);
    }
    {
        std::lock_guard<std::mutex> lock(mutex_);
        history_ = rows;
        historyLoaded_ = !fault;
        historyFileUnreadable_ = fault && moveAside;
    }
    if (fault) {
        // The rows before the fault stay in the list: say so, or the list shown contradicts it.
        const int kept = rows.size();
        messages_.log(kept == 0 ? "Command history not loaded: " + *fault
                                : "Command history read only in part: " + *fault + "; the " +
                                      std::to_string(kept) + " record(s) before it were kept",
                      LogLevel::kError);
    }
    emit historyChanged();
}

QVariantList CommandConsole::history() const {
    std::lock_guard<std::mutex> lock(mutex_);
    QVariantList list;
    for (const SendCmdRecord& entry : history_) {
        QVariantMap map;
        map["send_cmd_history"] = entry.cmd;
        map["send_payload_history"] = entry.payload;
        map["record_time"] = entry.time;
        list.append(map);
    }
    return list;
}

bool CommandConsole::historyLoaded() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return historyLoaded_;
}

int CommandConsole::historyCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return history_.size();
}

// ---- The façade's console operations ----

void LidarUtilitiesManager::SendCommand(QString header, QString payload) {
    console_->send(header, payload);
}

void LidarUtilitiesManager::SendSerialCommand(QString header, QString payload) {
    console_->sendOverSerialLines(header, payload);
}

void LidarUtilitiesManager::SendVrcSerialCommand(QString header, QString payload) {
    console_->sendOverVrcSerial(header, payload);
}

QString LidarUtilitiesManager::getSendVrcCommandReturnHeader() const {
    return console_->replyHeader();
}

QString LidarUtilitiesManager::getSendVrcCommandReturnPayload() const {
    return console_->replyPayload();
}

void LidarUtilitiesManager::WriteCommandLogToLocalCommandFile() {
    console_->saveHistory();
}

void LidarUtilitiesManager::GetLocalCommandFileLog() {
    console_->loadHistory();
}

bool LidarUtilitiesManager::commandHistoryLoaded() const {
    return console_->historyLoaded();
}

bool LidarUtilitiesManager::moveHistoryFileAside() {
    return console_->moveHistoryFileAside();
}

QVariantList LidarUtilitiesManager::getSendCommandHistory() const {
    return console_->history();
}

int LidarUtilitiesManager::getCommandLogCnt() const {
    return console_->historyCount();
}
