#include "user_messages.h"

namespace {

// The design's level texts, as the UI receives them with each log line.
const char* levelText(LogLevel level) {
    switch (level) {
        case LogLevel::kInfo:
            return "INFO";
        case LogLevel::kWarning:
            return "WARNING";
        case LogLevel::kError:
            return "ERROR";
        case LogLevel::kBytes:
            return "BYTES";
    }
    return "INFO";
}

}  // namespace

UserMessages::UserMessages(const DeviceLinkView& link, const BusyView& busy)
    : link_(link), busy_(busy) {}

void UserMessages::log(const std::string& line, LogLevel level) {
    logWithLevelText(line, levelText(level));
}

void UserMessages::logWithLevelText(const std::string& line, const std::string& level) {
    emit logLine(QString::fromStdString(line), QString::fromStdString(level));
}

void UserMessages::showError(const QString& text) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        error_ = text;
    }
    emit errorChanged();
}

void UserMessages::showSuccess(const QString& text) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        success_ = text;
    }
    emit successChanged();
}

void UserMessages::setError(const QString& text) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        error_ = text;
    }
    // The UI clears a shown message with "" and needs no notification for that.
    if (!text.isEmpty()) emit errorChanged();
}

void UserMessages::setSuccess(const QString& text) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        success_ = text;
    }
    if (!text.isEmpty()) emit successChanged();
}

QString UserMessages::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return error_;
}

QString UserMessages::success() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return success_;
}

void UserMessages::deviceBytes(const std::string& line) {
    const int kind = link_.connectionKind();
    if (busy_.upgrading() && (kind == kNetworkKind || kind == kVrcOverSerialKind)) return;
    if (busy_.downloadingLog()) return;
    if (!byteFlow_.load()) return;
    log(line, LogLevel::kBytes);
}
