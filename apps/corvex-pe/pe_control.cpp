// The forwarding loop's pause handshake: a mutex and a condition variable
// order the loop's batches before what the pausing thread does, and that
// thread's changes before the loop's next batch.
#include "pe_control.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

struct pe_control_t {
    int fd = -1;
    std::atomic<bool> wanted{false};  // a pause or the end is asked for
    std::mutex lock;
    std::condition_variable changed;
    // Under lock:
    unsigned depth = 0;      // pause calls not yet resumed
    bool pausing = false;    // the outer pause waits or holds
    bool resting = false;    // the loop rests
    bool ending = false;     // the traffic is to end
    bool finished = false;   // the loop has ended
};

namespace {

// Called under the lock.
void wake(pe_control_t* control) {
    const uint64_t one = 1;
    control->wanted = true;
    (void)!write(control->fd, &one, sizeof one);
}

}  // namespace

pe_control_t* pe_control_create() {
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) return nullptr;
    auto* control = new pe_control_t;
    control->fd = fd;
    return control;
}

void pe_control_destroy(pe_control_t* control) {
    if (control == nullptr) return;
    close(control->fd);
    delete control;
}

int pe_control_fd(const pe_control_t* control) { return control->fd; }

void pe_control_pause(pe_control_t* control) {
    std::unique_lock hold(control->lock);
    if (control->depth++ > 0) return;
    control->pausing = true;
    wake(control);
    control->changed.wait(hold, [control] { return control->resting || control->finished; });
}

void pe_control_resume(pe_control_t* control) {
    std::lock_guard hold(control->lock);
    if (control->depth == 0 || --control->depth > 0) return;
    control->pausing = false;
    control->changed.notify_all();
}

void pe_control_end_traffic(pe_control_t* control) {
    std::lock_guard hold(control->lock);
    control->ending = true;
    wake(control);
}

bool pe_control_asked(const pe_control_t* control) { return control->wanted.load(std::memory_order_acquire); }

bool pe_control_serve(pe_control_t* control) {
    if (!pe_control_asked(control)) return false;
    // Requests are made under the lock too: the descriptor is read empty
    // with the flag cleared, never left readable with no request waiting.
    std::unique_lock hold(control->lock);
    uint64_t count;
    (void)!read(control->fd, &count, sizeof count);
    control->wanted = false;
    if (control->pausing) {
        control->resting = true;
        control->changed.notify_all();
        control->changed.wait(hold, [control] { return !control->pausing; });
        control->resting = false;
    }
    return control->ending;
}

void pe_control_finish(pe_control_t* control) {
    std::lock_guard hold(control->lock);
    control->finished = true;
    control->changed.notify_all();
}
