#pragma once

// Threads that each run one job and end by themselves (an upgrade, a log download): a start
// joins those already finished, so the list does not grow over a long session, and joinAll
// waits for the rest, so that none outlives its owner.

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

class WorkerThreads {
  public:
    WorkerThreads() = default;
    WorkerThreads(const WorkerThreads&) = delete;
    WorkerThreads& operator=(const WorkerThreads&) = delete;
    ~WorkerThreads() { joinAll(); }

    // Throws std::system_error when the thread cannot be started.
    void start(std::function<void()> job);
    // Waits for the workers started before the call.
    void joinAll();

  private:
    struct Worker {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::mutex mutex_;
    std::vector<Worker> workers_;  // under mutex_
};
