#include "sdk/logger.h"

#include <iostream>
#include <string>

Logger& Logger::GetInstance() {
    static Logger instance;
    return instance;
}

const char* Logger::LevelName(int level) {
    switch (level) {
        case kDebug:
            return "DEBUG";
        case kInfo:
            return "INFO";
        case kWarning:
            return "WARNING";
        case kConfigError:
            return "CONFIG_ERROR";
        case kError:
            return "ERROR";
        default:
            return "LOG";
    }
}

void Logger::AddToQueue(int level, const std::string& file, int line, const std::string& function,
                        const std::string& message) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(Entry{level, file, line, function, message});
    if (entries_.size() >= 2 * kKeptEntries) {
        entries_.erase(entries_.begin(),
                       entries_.end() - static_cast<std::ptrdiff_t>(kKeptEntries));
    }
    WriteLine(entries_.back());
}

void Logger::WriteLine(const Entry& entry) {
    if (outputPath_ == "-") return;
    std::string text = LevelName(entry.level);
    text += ' ';
    text += entry.file;
    text += ':';
    text += std::to_string(entry.line);
    text += ' ';
    text += entry.function;
    text += ": ";
    text += entry.message;
    text += '\n';
    if (outputFile_.is_open()) {
        outputFile_ << text;
        outputFile_.flush();
    } else {
        std::cerr << text;
    }
}

std::vector<Logger::Entry> Logger::RecentEntries() const {
    std::lock_guard<std::mutex> lock(mutex_);
    const size_t first = entries_.size() > kKeptEntries ? entries_.size() - kKeptEntries : 0;
    return std::vector<Entry>(entries_.begin() + static_cast<std::ptrdiff_t>(first),
                              entries_.end());
}

void Logger::ClearEntries() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

void Logger::SetOutputFile(const std::string& path) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (outputFile_.is_open()) outputFile_.close();
    outputPath_ = path;
    if (path.empty() || path == "-") return;
    outputFile_.open(path, std::ios::app);
    if (!outputFile_.is_open()) {
        // Fall back to standard error rather than losing the lines.
        std::cerr << "Logger: cannot open " << path << " for appending; writing to stderr\n";
        outputPath_.clear();
    }
}
