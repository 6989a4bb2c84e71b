#include "base/FileDescriptor.h"
#include "platform/MainThread.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <linux/futex.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>

// A transfer hands over one piece of work for each block, and waking an idle event loop takes some 50
// microseconds. So after a piece the main thread waits for the next one before it returns to its loop, and it
// is in one of three states: in its loop, which an eventfd wakes; parked, which a futex wakes; or awake, when
// it looks for pieces by itself. A piece is run in the first state, since it may open a dialog with a loop of
// its own.
//
// Both sides spin while pieces are posted in quick succession and the other side runs on another CPU;
// otherwise they sleep at once, the poster on a futex too. Neither yields: if other processes want the CPU,
// that gives them milliseconds. There is no lock: a poster blocks until its piece is done, so the piece lies
// on its stack and is pushed onto an atomic list. Each side publishes what it did before it looks at what the
// other published, in sequentially consistent order, and only then sleeps; so one of them always sees the
// other.

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

/// The longest wait without sleeping: less than a block takes at a gigabit a second.
constexpr auto kSpin = 100us;
constexpr auto kLongestWithoutEvents = 3ms; ///< how long the main thread may keep events waiting

/// Polls `condition` until it holds or kSpin has passed. Returns whether it held.
template <typename Condition>
bool spinUntil(Condition condition) {
    for (const Clock::time_point end = Clock::now() + kSpin; !condition();) {
        if (Clock::now() >= end) {
            return false;
        }
#if defined(__x86_64__)
        __builtin_ia32_pause();
#elif defined(__aarch64__)
        asm volatile("yield");
#endif
    }
    return true;
}

void futex(std::atomic<std::uint32_t>& word, int operation, std::uint32_t value,
           const timespec* timeout = nullptr) {
    syscall(SYS_futex, &word, operation | FUTEX_PRIVATE_FLAG, value, timeout, nullptr, 0);
}

struct Work {
    const std::function<void()>& function;
    const int cpu = sched_getcpu(); ///< the poster's
    const Clock::time_point posted = Clock::now();
    bool isQuick = false; ///< posted within kSpin of the piece before
    Work* next = nullptr;
    std::atomic<bool> done{false}; ///< written last by the main thread; the poster may return after it
};

/// The work that other threads have posted, and the main thread's side of the hand-over.
class Mailbox {
  public:
    Mailbox() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        notifier_ = std::make_unique<QSocketNotifier>(wake_.get(), QSocketNotifier::Read);
        QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] {
            eventfd_t count = 0;
            eventfd_read(wake_.get(), &count);
            serve();
        });
    }

    /// Any thread but the main one. Returns when the main thread has run `function`.
    void perform(const std::function<void()>& function) {
        Work work{function};
        // The time of posting counts: counted from when the piece runs, one slow wake-up would end the
        // spinning for good.
        work.isQuick = work.posted - lastPosted_.exchange(work.posted) < kSpin;
        work.next = arrived_.load();
        while (!arrived_.compare_exchange_weak(work.next, &work)) {
        }
        if (std::uint32_t state = kParked; state_.compare_exchange_strong(state, kAwake)) {
            futex(state_, FUTEX_WAKE, 1);
        } else if (state == kInLoop) {
            wakeLoop();
        }
        const auto done = [&work] { return work.done.load(); };
        if (work.isQuick && work.cpu != cpu_ && spinUntil(done)) {
            return;
        }
        ++sleepers_;
        for (std::uint32_t seen = finished_; !done(); seen = finished_) {
            futex(finished_, FUTEX_WAIT, seen);
        }
        --sleepers_;
    }

  private:
    static constexpr std::uint32_t kInLoop = 0; ///< must be woken through the eventfd
    static constexpr std::uint32_t kAwake = 1;  ///< looks at the list before it sleeps
    static constexpr std::uint32_t kParked = 2; ///< must be woken through the futex

    void wakeLoop() { eventfd_write(wake_.get(), 1); }

    void serve() {
        const Clock::time_point end = Clock::now() + kLongestWithoutEvents;
        while (runNext() && waitForNext(end)) {
        }
        state_ = kInLoop;
        if (!pending_.empty() || hasArrived()) {
            wakeLoop();
        }
    }

    bool runNext() {
        takeArrived();
        if (pending_.empty()) {
            return false;
        }
        Work* const work = pending_.front();
        pending_.pop_front();
        state_ = kInLoop;
        if (!pending_.empty()) {
            wakeLoop(); // for a dialog's loop
        }
        work->function();
        cpu_ = sched_getcpu();
        canSpin_ = work->isQuick && work->cpu != cpu_;
        state_ = kAwake;
        work->done = true;
        ++finished_;
        if (sleepers_ != 0) {
            futex(finished_, FUTEX_WAKE, INT_MAX);
        }
        return true;
    }

    /// Returns whether there is another piece to run before events have to be handled.
    bool waitForNext(Clock::time_point end) {
        const auto isThere = [this] { return !pending_.empty() || hasArrived(); };
        if (!isThere() && !(canSpin_ && spinUntil(isThere))) {
            park(end);
        }
        return Clock::now() < end && isThere();
    }

    void park(Clock::time_point end) {
        static_assert(kLongestWithoutEvents < 1s);
        const timespec time{0, std::chrono::nanoseconds(end - Clock::now()).count()};
        if (time.tv_nsec > 0) {
            state_ = kParked;
            if (!hasArrived()) {
                futex(state_, FUTEX_WAIT, kParked, &time);
            }
            state_ = kAwake;
        }
    }

    bool hasArrived() const { return arrived_.load() != nullptr; }

    void takeArrived() {
        const auto end = pending_.size();
        for (Work* work = arrived_.exchange(nullptr); work != nullptr; work = work->next) {
            pending_.insert(pending_.begin() + static_cast<std::ptrdiff_t>(end), work);
        }
    }

    FileDescriptor wake_;
    std::unique_ptr<QSocketNotifier> notifier_;
    std::atomic<Work*> arrived_{nullptr};       ///< newest first
    std::atomic<std::uint32_t> state_{kInLoop}; ///< of the main thread; what it parks on
    std::atomic<std::uint32_t> finished_{0};    ///< pieces; what posters sleep on
    std::atomic<unsigned> sleepers_{0};         ///< posters that sleep or are about to
    std::atomic<Clock::time_point> lastPosted_;
    std::atomic<int> cpu_{-1};  ///< on which the main thread last ran
    bool canSpin_ = false;      ///< main thread only, as is what follows
    std::deque<Work*> pending_; ///< a nested event loop runs the rest
};

std::thread::id mainThreadId;
std::atomic<Mailbox*> mailbox{nullptr};

} // namespace

void MainThread::attach() {
    mainThreadId = std::this_thread::get_id();
    // Never freed: workers may post while the process ends.
    static Mailbox* const box = new Mailbox;
    mailbox = box;
}

bool MainThread::isCurrent() {
    return std::this_thread::get_id() == mainThreadId;
}

void MainThread::performAndWait(const std::function<void()>& work) {
    if (isCurrent()) {
        work();
    } else {
        mailbox.load()->perform(work);
    }
}
