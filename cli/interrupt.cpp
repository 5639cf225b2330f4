#include "interrupt.h"

namespace cli {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the SIGINT flag must be lock-free");

namespace {

void onInterrupt(int) {
    interrupted.store(true);
}

}  // namespace

InterruptGuard::InterruptGuard() {
    interrupted.store(false);
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &previous_, nullptr);
}

}  // namespace cli
