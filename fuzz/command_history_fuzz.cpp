// The command history file as the manager loads it: arbitrary bytes in
// ./Config/command_log_file.csv. Loading never keeps more than ten records, and what was loaded
// survives being written and loaded again unchanged (quoting on write, column names on read).

#include <unistd.h>

#include <QVariantList>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "lidar_utilities_manager.h"

namespace {

// A scratch folder with Config/ made the working directory, and a private HOME for the
// manager's settings file; once per process.
LidarUtilitiesManager& Manager() {
    static std::unique_ptr<LidarUtilitiesManager> manager = [] {
        char pattern[] = "/tmp/lidar-fuzz-history-XXXXXX";
        const std::string root = mkdtemp(pattern);
        setenv("HOME", root.c_str(), 1);
        if (std::system(("mkdir -p '" + root + "/Config'").c_str()) != 0 ||
            chdir(root.c_str()) != 0)
            std::abort();
        return std::make_unique<LidarUtilitiesManager>(0, "");
    }();
    return *manager;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzzing::SilenceLogger();
    LidarUtilitiesManager& manager = Manager();
    std::ofstream("./Config/command_log_file.csv", std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    manager.GetLocalCommandFileLog();
    if (manager.getCommandLogCnt() > 10) std::abort();
    const QVariantList loaded = manager.getSendCommandHistory();
    manager.WriteCommandLogToLocalCommandFile();
    manager.GetLocalCommandFileLog();
    if (manager.getSendCommandHistory() != loaded) std::abort();
    return 0;
}
