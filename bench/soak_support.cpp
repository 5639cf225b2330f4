// The soak's lidar-sim process and resource samples (soak_support.h).

#include "soak_support.h"

#include <dirent.h>
#include <fcntl.h>
#include <stdlib.h>

#include <fstream>

namespace soak {
namespace {

long StatusField(const std::string& name) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(name + ":", 0) == 0) return std::atol(line.c_str() + name.size() + 1);
    }
    return -1;
}

long OpenDescriptors() {
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir) return -1;
    long count = 0;
    while (const dirent* entry = ::readdir(dir)) count += entry->d_name[0] != '.';
    ::closedir(dir);
    return count - 1;  // the listing's own
}

}  // namespace

Sample TakeSample() {
    return {StatusField("VmRSS"), OpenDescriptors(), StatusField("Threads")};
}

std::string ExecutableFolder() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return ".";
    path[n] = '\0';
    const std::string exe = path;
    return exe.substr(0, exe.find_last_of('/'));
}

std::string RepositoryRoot() {
    return LIDAR_SOURCE_DIR;
}

}  // namespace soak
