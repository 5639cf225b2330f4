#pragma once

// Ctrl-C for the commands that run until the user stops them (watch, monitor): the handler only
// sets a flag, and the command's event loop ends the work cleanly, so the manager still stops
// its threads and a recording keeps its file.

#include <atomic>
#include <csignal>

namespace cli {

// Set by the signal handler, read by event loops and by the manager's threads that print: a
// lock-free atomic is safe for both.
extern std::atomic<bool> interrupted;

// Installs the handler (and clears the flag) for its lifetime. Guards nest: an inner one changes
// nothing, so a command can hold one from before its worker starts until the end.
class InterruptGuard {
  public:
    InterruptGuard();
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

  private:
    struct sigaction previous_ {};
};

}  // namespace cli
