#pragma once

// The command console: raw commands typed as hexadecimal text, their formatted replies, and the
// history of the last ten commands kept in ./Config/command_log_file.csv.
//
// Threads: any one thread may send while others read the reply texts and the history; both are
// kept under the console's own lock, and its signal is emitted outside it.

#include <QList>
#include <QObject>
#include <QString>
#include <QVariantList>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "records.h"
#include "sdk/types.h"

class DeviceLinkView;
class BusyView;
class UserMessageSink;
struct ConsoleTexts;

class CommandConsole : public QObject {
    Q_OBJECT

  public:
    CommandConsole(DeviceLinkView& link, const BusyView& busy, UserMessageSink& messages);

    // Over the connection kind's path: the VRC client on kind 0, the serial client on kind 1,
    // the VRC client's serial pass-through on kind 2.
    void send(const QString& header, const QString& payload);
    void sendOverSerialLines(const QString& header, const QString& payload);
    void sendOverVrcSerial(const QString& header, const QString& payload);

    // The latest reply, as upper-case hexadecimal pairs.
    QString replyHeader() const;
    QString replyPayload() const;

    void saveHistory();
    void loadHistory();
    // False when the last load could not read the history file whole.
    bool historyLoaded() const;
    // Renames an unreadable history file to a name not in use; false when it could not.
    bool moveHistoryFileAside();
    QVariantList history() const;
    int historyCount() const;

  signals:
    void historyChanged();

  private:
    using Exchange = std::function<int(uint8_t, const u8Array_t&, u8Array_t&)>;
    // Parses, sends, formats the reply and records the command; the command code when the
    // exchange succeeded.
    std::optional<uint8_t> exchange(const QString& header, const QString& payload,
                                    const ConsoleTexts& texts, const Exchange& query);
    std::optional<uint8_t> refuse(const char* popup);
    void setReply(const std::string& header, const std::string& payload);
    void record(const SendCmdRecord& entry);
    void reportNotLoaded(const std::string& why, bool moveAside);
    bool readHistoryFile();

    DeviceLinkView& link_;
    const BusyView& busy_;
    UserMessageSink& messages_;

    mutable std::mutex mutex_;
    std::string replyHeader_;   // under mutex_
    std::string replyPayload_;  // under mutex_
    // Newest first, at most ten; under mutex_.
    QList<SendCmdRecord> history_;
    // The history file's last load could not read it whole: the next save moves it aside first,
    // so that records it may still hold are never overwritten. Under mutex_.
    bool historyFileUnreadable_ = false;
    bool historyLoaded_ = true;  // under mutex_
};
