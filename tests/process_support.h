#pragma once

// A built program (lidar-sim, lidarutil) run by fork and exec, with its standard output and
// standard error each on a pipe read line by line: for the tests that follow a program as it
// runs (its "listening on" lines, a line it prints before a Ctrl-C) and signal it.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "test_support.h"

namespace testsupport {

// How a ProgramProcess is started.
struct ProcessSetup {
    std::string workingDirectory;  // empty: the test's own
    // A process group of its own, as a shell gives a foreground job: SignalGroup then
    // signals it and whatever it started in its group, as a terminal's Ctrl-C does.
    bool ownGroup = false;
    // What ends it when the test is done with it (Stop, the destructor): lidar-sim ends on
    // SIGINT; a program that only warns at a first one needs another.
    int stopSignal = SIGINT;
};

class ProgramProcess {
  public:
    ProgramProcess(const std::string& program, const std::vector<std::string>& args,
                   const ProcessSetup& setup = {})
        : stopSignal_(setup.stopSignal) {
        int out[2], err[2];
        if (::pipe(out) != 0 || ::pipe(err) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            if (setup.ownGroup) ::setpgid(0, 0);
            if (!setup.workingDirectory.empty() && ::chdir(setup.workingDirectory.c_str()) != 0)
                ::_exit(126);
            ::dup2(out[1], STDOUT_FILENO);
            ::dup2(err[1], STDERR_FILENO);
            ::close(out[0]);
            ::close(err[0]);
            std::vector<char*> argv;
            argv.push_back(const_cast<char*>(program.c_str()));
            for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
            argv.push_back(nullptr);
            ::execv(program.c_str(), argv.data());
            ::_exit(127);
        }
        // Set on both sides, so that the group exists whichever of the two runs first.
        if (setup.ownGroup && pid_ > 0) ::setpgid(pid_, pid_);
        ::close(out[1]);
        ::close(err[1]);
        out_ = ::fdopen(out[0], "r");
        err_ = ::fdopen(err[0], "r");
    }
    ~ProgramProcess() {
        if (pid_ > 0) Stop();
        if (out_) std::fclose(out_);
        if (err_) std::fclose(err_);
    }
    ProgramProcess(const ProgramProcess&) = delete;
    ProgramProcess& operator=(const ProgramProcess&) = delete;

    // The next line of standard output (of standard error), without its end; "" at the end.
    std::string Line() { return LineOf(out_); }
    std::string ErrorLine() { return LineOf(err_); }
    // Reads standard error up to a line that contains `text`; false at its end without one.
    // Every line read is added to `seen` when given.
    bool WaitForErrorLine(const std::string& text, std::string* seen = nullptr) {
        std::string line;
        while (ReadLine(err_, &line)) {
            if (seen != nullptr) *seen += line + "\n";
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }
    void Signal(int signal) { ::kill(pid_, signal); }
    void SignalGroup(int signal) { ::kill(-pid_, signal); }
    // Stops it with its stop signal (unless it has ended by itself) and gives its exit status.
    int Stop() { return Wait(true); }
    int WaitForExit() { return Wait(false); }
    // The rest of standard output (of standard error), once the program has ended.
    std::string RestOfOutput() { return RestOf(out_); }
    std::string RestOfErrors() { return RestOf(err_); }

  private:
    // False at the end of the stream, with nothing read.
    static bool ReadLine(FILE* stream, std::string* line) {
        line->clear();
        char buffer[512];
        bool read = false;
        while (stream && std::fgets(buffer, sizeof buffer, stream)) {
            read = true;
            *line += buffer;
            if (line->back() == '\n') {
                line->pop_back();
                break;
            }
        }
        return read;
    }
    static std::string LineOf(FILE* stream) {
        std::string line;
        ReadLine(stream, &line);
        return line;
    }
    static std::string RestOf(FILE* stream) {
        std::string rest;
        char buffer[4096];
        size_t n = 0;
        while (stream && (n = std::fread(buffer, 1, sizeof buffer, stream)) > 0)
            rest.append(buffer, n);
        return rest;
    }
    int Wait(bool interrupt) {
        if (interrupt) ::kill(pid_, stopSignal_);
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    int stopSignal_ = SIGINT;
    pid_t pid_ = -1;
    FILE* out_ = nullptr;
    FILE* err_ = nullptr;
};

// lidar-sim, with the arguments given.
class SimProcess : public ProgramProcess {
  public:
    explicit SimProcess(const std::vector<std::string>& args)
        : ProgramProcess(std::string(LIDAR_BINARY_DIR) + "/sim/lidar-sim", args) {}
};

}  // namespace testsupport
