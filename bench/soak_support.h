#pragma once

// The soak's parts that are not the manager (soak_bench.cpp): the misbehaving lidar it runs
// against (lidar-sim --chaos in its own process) and the samples of a process's resources.

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace soak {

constexpr int kWarmUpSeconds = 60;

// The folder of this executable, and the repository's root (which holds Config/).
std::string ExecutableFolder();
std::string RepositoryRoot();

// ---- resources -------------------------------------------------------------------------------

struct Sample {
    long rssKib = 0;
    long descriptors = 0;
    long threads = 0;
};

// This process's resident memory (KiB), open descriptors and threads, now.
Sample TakeSample();

// The sample at the end of the warm-up (the first minute, or the first half of a shorter run)
// and the latest one.
class Resources {
  public:
    explicit Resources(int runSeconds) : warmUpSeconds_(std::min(kWarmUpSeconds, runSeconds / 2)) {}

    void Take(double elapsedSeconds) {
        const Sample sample = TakeSample();
        if (!warmedUp_ && elapsedSeconds >= warmUpSeconds_) {
            warm_ = sample;
            warmedUp_ = true;
        }
        end_ = sample;
        ++samples_;
    }
    const Sample& Warm() const { return warm_; }
    const Sample& End() const { return end_; }
    int Samples() const { return samples_; }

  private:
    int warmUpSeconds_;
    bool warmedUp_ = false;
    Sample warm_;
    Sample end_;
    int samples_ = 0;
};

// ---- the simulator ---------------------------------------------------------------------------

class Simulator {
  public:
    bool Start(unsigned long seed) {
        const std::string program = ExecutableFolder() + "/../sim/lidar-sim";
        const std::string config = RepositoryRoot() + "/Config";
        const std::string seedText = std::to_string(seed);
        std::vector<std::string> words = {program, "--model", "Egret", "--config-dir",
                                          config,  "--chaos", seedText};
        std::vector<char*> argv;
        for (auto& word : words) argv.push_back(word.data());
        argv.push_back(nullptr);
        int out[2];
        if (::pipe2(out, O_CLOEXEC) != 0) return false;
        pid_ = ::fork();
        if (pid_ == 0) {
            // It goes when this program goes, whatever ends it.
            ::prctl(PR_SET_PDEATHSIG, SIGTERM);
            ::dup2(out[1], STDOUT_FILENO);
            ::execv(program.c_str(), argv.data());
            std::_Exit(127);
        }
        ::close(out[1]);
        if (pid_ < 0) {
            ::close(out[0]);
            return false;
        }
        output_ = ::fdopen(out[0], "r");
        const std::string banner = ReadLine();
        const size_t colon = banner.rfind(':');
        if (banner.rfind("listening on ", 0) != 0 || colon == std::string::npos) return false;
        port_ = static_cast<uint16_t>(std::atoi(banner.c_str() + colon + 1));
        return port_ != 0;
    }
    // Stops it; its closing lines (the request counters and the chaos it played).
    std::string Stop() {
        if (pid_ <= 0) return "";
        ::kill(pid_, SIGTERM);
        std::string lines;
        for (std::string line = ReadLine(); !line.empty(); line = ReadLine()) lines += line + "\n";
        ::waitpid(pid_, nullptr, 0);
        pid_ = -1;
        return lines;
    }
    void Kill() const {
        if (pid_ > 0) ::kill(pid_, SIGKILL);
    }
    ~Simulator() {
        Stop();
        if (output_) std::fclose(output_);
    }
    uint16_t Port() const { return port_; }

  private:
    std::string ReadLine() {
        char line[4096];
        if (!output_ || !std::fgets(line, sizeof line, output_)) return "";
        std::string text = line;
        while (!text.empty() && text.back() == '\n') text.pop_back();
        return text;
    }

    pid_t pid_ = -1;
    FILE* output_ = nullptr;
    uint16_t port_ = 0;
};

}  // namespace soak
