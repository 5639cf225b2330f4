#include "interrupt.h"

namespace cli {

std::atomic<bool> interrupted{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the SIGINT flag must be lock-free");

namespace {

void onInterrupt(int) {
    interrupted.store(true);
}

// Guards are made and ended on the main thread only.
int guardDepth = 0;

}  // namespace

InterruptGuard::InterruptGuard() {
    // An inner guard keeps a Ctrl-C that the outer one already caught.
    if (guardDepth++ > 0) return;
    interrupted.store(false);
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &previous_);
}

InterruptGuard::~InterruptGuard() {
    if (--guardDepth == 0) sigaction(SIGINT, &previous_, nullptr);
}

}  // namespace cli
