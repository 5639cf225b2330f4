#pragma once

#include <fstream>
#include <mutex>
#include <string>
#include <vector>

// The device layer's diagnostic log: configuration mistakes and other developer-facing events.
// Entries are kept in memory (the most recent 1000) and written, one line each, to the sink:
// standard error by default, or a file chosen with SetOutputFile.
class Logger {
  public:
    enum Level { kDebug = 1, kInfo = 2, kWarning = 4, kConfigError = 8, kError = 16 };

    struct Entry {
        int level;
        std::string file;
        int line;
        std::string function;
        std::string message;
    };

    static Logger& GetInstance();

    void AddToQueue(int level, const std::string& file, int line, const std::string& function,
                    const std::string& message);
    std::vector<Entry> RecentEntries() const;
    void ClearEntries();
    // "" writes to standard error; "-" discards the lines (entries are still kept in memory).
    void SetOutputFile(const std::string& path);

    static constexpr size_t kKeptEntries = 1000;
    static const char* LevelName(int level);

  private:
    Logger() = default;
    void WriteLine(const Entry& entry);

    mutable std::mutex mutex_;
    // Grows to twice kKeptEntries before the oldest half is dropped, so trimming stays cheap.
    std::vector<Entry> entries_;
    std::string outputPath_;
    std::ofstream outputFile_;
};
