#include "fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <map>

#include "sdk/logger.h"

namespace fuzzing {

const std::string& WriteScratchFile(const uint8_t* data, size_t size, const char* suffix) {
    static std::map<std::string, std::string> paths;
    std::string& path = paths[suffix];
    if (path.empty()) {
        const char* tmp = std::getenv("TMPDIR");
        path =
            std::string(tmp ? tmp : "/tmp") + "/lidar-fuzz-" + std::to_string(::getpid()) + suffix;
    }
    if (FILE* file = std::fopen(path.c_str(), "wb")) {
        if (size > 0) std::fwrite(data, 1, size, file);
        std::fclose(file);
    }
    return path;
}

void SilenceLogger() {
    static const bool done = [] {
        Logger::GetInstance().SetOutputFile("-");
        return true;
    }();
    (void)done;
}

}  // namespace fuzzing
