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

// Waking an idle event loop costs some 50 microseconds, a hand-over between two awake threads about one. A
// transfer hands over once per block, so a main thread that has just finished one piece of work looks out for
// the next for a moment before it goes back to its loop: only while pieces come that fast, and never long
// enough for a person to notice.
//
// Looking out takes a processor, and there may be none to spare: behind another program's turn, a main thread
// leaves the transfer standing for milliseconds. A poster that gets no answer fetches it to its own
// processor, where the two take turns by yielding, some three to five microseconds a piece.
//
// No lock: a piece of work lives on its poster's stack (the poster waits for it), pieces travel on an atomic
// list, and the loop is woken through a descriptor.

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kFastPace = 200us; // between two pieces
constexpr auto kLookOut = 200us;
constexpr auto kUnanswered = 3us;
constexpr auto kAwakeForResult = 200us;
constexpr auto kLongestWithoutEvents = 6ms;

/// Watches for `condition` until it holds or the time is over, giving way to whoever else wants the
/// processor; tells whether it held.
template <typename Condition>
bool watch(std::chrono::microseconds time, Condition condition) {
    const Clock::time_point end = Clock::now() + time;
    while (!condition()) {
        if (Clock::now() >= end) {
            return false;
        }
        sched_yield();
    }
    return true;
}

/// Moves a thread to another of the processors that it may run on; afterwards it may run on all of them
/// again.
class Mover {
  public:
    /// On the thread that is to be moved.
    Mover() : thread_(gettid()) { sched_getaffinity(thread_, sizeof allowed_, &allowed_); }

    void moveTo(int processor) const {
        cpu_set_t only;
        CPU_ZERO(&only);
        CPU_SET(processor, &only);
        if (CPU_ISSET(processor, &allowed_) && sched_setaffinity(thread_, sizeof only, &only) == 0) {
            sched_setaffinity(thread_, sizeof allowed_, &allowed_);
        }
    }

  private:
    pid_t thread_;
    cpu_set_t allowed_{};
};

struct Work {
    const std::function<void()>* function = nullptr;
    Work* next = nullptr;
    int processor = sched_getcpu(); // the poster's
    std::atomic<bool> done{false};
};

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

    /// Any thread but the main one. Returns when the main thread has done the work.
    void perform(Work& work) {
        Work* head = arrived_.load();
        do {
            work.next = head;
        } while (!arrived_.compare_exchange_weak(head, &work));
        const auto done = [&work] { return work.done.load(); };
        if (!lookingOut_) {
            wakeLoop();
        } else if (!watch(kUnanswered, done) && processor_ != work.processor) {
            mainThread_.moveTo(work.processor);
        }
        if (fastPace_) {
            watch(kAwakeForResult, done);
        }
        work.done.wait(false);
    }

  private:
    void wakeLoop() {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t put = write(wake_.get(), &one, sizeof one);
    }

    void serve() {
        const Clock::time_point start = Clock::now();
        fastPace_ = start - lastServed_ < kFastPace;
        runPending();
        // A piece that opened a dialog has kept us here for long; the loop comes first then.
        while (fastPace_ && Clock::now() - start < kLongestWithoutEvents &&
               watch(kLookOut, [this] { return arrived_.load() != nullptr; })) {
            runPending();
        }
        lastServed_ = Clock::now();
        lookingOut_ = false;
        // Looked at again after the flag fell: what was posted in between had no wake-up written for it. And
        // after a long look-out the loop is to come back here without a sleep once the events had their turn.
        if (arrived_.load() != nullptr || (fastPace_ && lastServed_ - start >= kLongestWithoutEvents)) {
            wakeLoop();
        }
    }

    void runPending() {
        lookingOut_ = false;
        takeArrived();
        while (!pending_.empty()) {
            Work* const work = pending_.front();
            pending_.pop_front();
            // The work may open a dialog, whose own loop must then be woken for the rest.
            if (!pending_.empty()) {
                wakeLoop();
            }
            (*work->function)();
            processor_ = sched_getcpu();
            lookingOut_ = fastPace_.load();
            work->done = true;
            work->done.notify_one();
            if (!pending_.empty() || arrived_.load() != nullptr) {
                lookingOut_ = false;
                takeArrived();
            }
        }
    }

    void takeArrived() {
        // The list is newest first.
        const auto end = pending_.size();
        for (Work* work = arrived_.exchange(nullptr); work != nullptr; work = work->next) {
            pending_.insert(pending_.begin() + static_cast<std::ptrdiff_t>(end), work);
        }
    }

    FileDescriptor wake_;
    std::unique_ptr<QSocketNotifier> notifier_;
    const Mover mainThread_;
    std::atomic<Work*> arrived_{nullptr};
    std::atomic<bool> fastPace_{false};
    std::atomic<bool> lookingOut_{false};
    std::atomic<int> processor_{-1}; // where the main thread was last seen
    std::deque<Work*> pending_;      // main thread only; a dialog opened by one piece serves the rest
    Clock::time_point lastServed_;
};

std::thread::id mainThreadId;
std::atomic<Mailbox*> mailbox{nullptr};

} // namespace

void MainThread::attach() {
    mainThreadId = std::this_thread::get_id();
    // Never freed: workers may post while the process is on its way out.
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
