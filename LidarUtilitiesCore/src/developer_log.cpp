#include "developer_log.h"

#include <iostream>
#include <mutex>
#include <utility>

namespace developer_log {
namespace {

// Lines come from the UI thread and every worker; the lock keeps each line whole and lets a
// front end swap the sink while workers write.
std::mutex sinkMutex;
Sink currentSink;  // under sinkMutex; empty: standard output

void writeToStandardOutput(const std::string& line) {
    std::cout << line << '\n';
    std::cout.flush();
}

}  // namespace

void setDeveloperLineSink(Sink sink) {
    std::lock_guard<std::mutex> lock(sinkMutex);
    currentSink = std::move(sink);
}

void writeDeveloperLine(const std::string& line) {
    const bool ended = !line.empty() && line.back() == '\n';
    const std::string text = ended ? line.substr(0, line.size() - 1) : line;
    std::lock_guard<std::mutex> lock(sinkMutex);
    if (currentSink)
        currentSink(text);
    else
        writeToStandardOutput(text);
}

}  // namespace developer_log
