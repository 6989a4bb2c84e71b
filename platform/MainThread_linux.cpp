#include "base/FileDescriptor.h"
#include "platform/MainThread.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>

// Waking an idle event loop costs some 50 microseconds, a hand-over between two running threads about one. A
// transfer hands over once per block, so after each piece of work the main thread spins briefly for the next
// before it returns to its loop: only while pieces come that fast, and never long enough for a user to
// notice.
//
// Spinning takes a CPU, and there may be none free: while the main thread waits to be scheduled, the transfer
// stalls for milliseconds. A poster that gets no answer therefore migrates the main thread to its own CPU,
// where the two alternate by sched_yield, three to five microseconds a piece.
//
// There is no lock: a piece of work lives on its poster's stack (the poster blocks until it is done), pieces
// are pushed onto an atomic list, and the loop is woken through an eventfd.

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kFastPace = 200us;           ///< the longest pause between two pieces that justifies spinning
constexpr auto kSpinForWork = 200us;        ///< how long the main thread spins
constexpr auto kUnanswered = 3us;           ///< how long a poster waits before it migrates the main thread
constexpr auto kSpinForResult = 200us;      ///< how long a poster spins before it sleeps
constexpr auto kLongestWithoutEvents = 6ms; ///< how long the main thread may keep events waiting

/// Polls `condition`, yielding the CPU in between, until it holds or `time` has passed. Returns whether it
/// held.
template <typename Condition>
bool spinUntil(std::chrono::microseconds time, Condition condition) {
    const Clock::time_point end = Clock::now() + time;
    while (!condition()) {
        if (Clock::now() >= end) {
            return false;
        }
        sched_yield();
    }
    return true;
}

/// Migrates a thread to another of the CPUs that it may run on, without pinning it there.
void migrate(pid_t thread, int cpu) {
    cpu_set_t allowed;
    cpu_set_t only;
    cpu_set_t now;
    CPU_ZERO(&only);
    CPU_SET(cpu, &only);
    if (sched_getaffinity(thread, sizeof allowed, &allowed) == 0 && CPU_ISSET(cpu, &allowed) &&
        sched_setaffinity(thread, sizeof only, &only) == 0 &&
        // A mask that was changed in the meantime stays.
        sched_getaffinity(thread, sizeof now, &now) == 0 && CPU_EQUAL(&now, &only)) {
        sched_setaffinity(thread, sizeof allowed, &allowed);
    }
}

struct Work {
    const std::function<void()>* function = nullptr;
    Work* next = nullptr;
    int cpu = sched_getcpu();       ///< the poster's
    std::atomic<bool> taken{false}; ///< by the main thread
    std::atomic<bool> done{false};  ///< the last that the main thread writes: the poster may return then
};

/// The work that other threads have posted, and the main thread's side of the hand-over.
class Mailbox {
  public:
    Mailbox() : wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
        notifier_ = std::make_unique<QSocketNotifier>(wake_.get(), QSocketNotifier::Read);
        QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] {
            std::uint64_t count = 0;
            [[maybe_unused]] const ssize_t got = read(wake_.get(), &count, sizeof count);
            serve();
        });
    }

    /// Any thread but the main one. Returns when the main thread has run `work`.
    void perform(Work& work) {
        Work* head = arrived_.load();
        do {
            work.next = head;
        } while (!arrived_.compare_exchange_weak(head, &work));
        const auto done = [&work] { return work.done.load(); };
        if (!isSpinning_) {
            wakeLoop();
        } else if (!spinUntil(kUnanswered, done) && cpu_ != work.cpu && !isMigrating_.exchange(true)) {
            // Set before the flags are read, so that stopSpinning() waits for a poster that saw them
            // unchanged.
            if (isSpinning_ && !work.taken) {
                migrate(mainThread_, work.cpu);
            }
            isMigrating_ = false;
        }
        if (fastPace_) {
            spinUntil(kSpinForResult, done);
        }
        // Not a wait for `done` itself: the main thread must not touch the piece once that is set.
        for (unsigned seen = finished_; !done(); seen = finished_) {
            finished_.wait(seen);
        }
    }

  private:
    void wakeLoop() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t put = write(wake_.get(), &one, sizeof one);
    }

    void serve() {
        const Clock::time_point start = Clock::now();
        fastPace_ = start - lastServed_ < kFastPace;
        bool inTime = true;
        do {
            runNext();
            // After a piece that took long (it may have opened a dialog), pending events come first.
            inTime = Clock::now() - start < kLongestWithoutEvents;
        } while (inTime && (!pending_.empty() || spinUntil(fastPace_ ? kSpinForWork : 0us,
                                                           [this] { return arrived_.load() != nullptr; })));
        lastServed_ = Clock::now();
        stopSpinning();
        // A piece posted just before the flag was cleared came without a wake-up. And after a long spin the
        // loop must come back here without sleeping, once pending events have been handled.
        if (!pending_.empty() || arrived_.load() != nullptr || (fastPace_ && !inTime)) {
            wakeLoop();
        }
    }

    /// Waits for a migration under way: what the main thread starts would inherit its narrowed CPU mask for
    /// life.
    void stopSpinning() {
        isSpinning_ = false;
        while (isMigrating_) {
            sched_yield();
        }
    }

    void runNext() {
        stopSpinning();
        takeArrived();
        if (pending_.empty()) {
            return;
        }
        Work* const work = pending_.front();
        pending_.pop_front();
        // The work may open a dialog; its nested event loop must be woken for the rest.
        if (!pending_.empty()) {
            wakeLoop();
        }
        (*work->function)();
        cpu_ = sched_getcpu();
        isSpinning_ = fastPace_.load();
        work->done = true;
        ++finished_;
        finished_.notify_all();
    }

    void takeArrived() {
        // The list is newest first.
        const auto end = pending_.size();
        for (Work* work = arrived_.exchange(nullptr); work != nullptr; work = work->next) {
            work->taken = true;
            pending_.insert(pending_.begin() + static_cast<std::ptrdiff_t>(end), work);
        }
    }

    FileDescriptor wake_;
    std::unique_ptr<QSocketNotifier> notifier_;
    const pid_t mainThread_ = gettid();
    std::atomic<Work*> arrived_{nullptr};
    std::atomic<bool> fastPace_{false};
    std::atomic<bool> isSpinning_{false};
    std::atomic<bool> isMigrating_{false}; ///< a poster is moving the main thread
    std::atomic<int> cpu_{-1};             ///< on which the main thread last ran
    std::atomic<unsigned> finished_{0};    ///< pieces; what posters sleep on
    std::deque<Work*> pending_;            ///< main thread only; a nested event loop runs the rest
    Clock::time_point lastServed_;
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
        return;
    }
    Work piece;
    piece.function = &work;
    mailbox.load()->perform(piece);
}
