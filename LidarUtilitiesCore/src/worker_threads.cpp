#include "worker_threads.h"

void WorkerThreads::start(std::function<void()> job) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto it = workers_.begin(); it != workers_.end();) {
        if (it->done->load()) {
            it->thread.join();
            it = workers_.erase(it);
        } else {
            ++it;
        }
    }
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([job = std::move(job), done] {
        job();
        done->store(true);
    });
    workers_.push_back({std::move(thread), done});
}

void WorkerThreads::joinAll() {
    std::vector<Worker> workers;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        workers.swap(workers_);
    }
    for (Worker& worker : workers) worker.thread.join();
}
