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

// The texts are handed out as copies of their own, sharing no data with the stored ones: a
// shared QString would be freed by whichever thread lets go of it last, and the writer's
// assignment happens inside Qt, out of sight of ThreadSanitizer's view of that order.
QString UserMessages::error() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString(error_.constData(), error_.size());
}

QString UserMessages::success() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return QString(success_.constData(), success_.size());
}

void UserMessages::deviceBytes(const std::string& line) {
    const int kind = link_.connectionKind();
    if (busy_.upgrading() && (kind == kNetworkKind || kind == kVrcOverSerialKind)) return;
    if (busy_.downloadingLog()) return;
    if (!byteFlow_.load()) return;
    log(line, LogLevel::kBytes);
}
