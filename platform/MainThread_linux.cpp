#include "platform/FileDescriptor.h"
#include "platform/MainThread.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <sys/eventfd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <thread>

// Waking an idle event loop costs some 50 microseconds, a hand-over between two awake threads about two.
// A transfer hands over once per block, so a main thread that has just finished one piece of work looks out
// for the next for a moment before it goes back to its loop: only while pieces come that fast, and never
// long enough for a person to notice.
//
// No lock: a piece of work lives on its poster's stack (the poster waits for it), pieces travel on an atomic
// list, and the loop is woken through a descriptor.

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto kLookOut = 50us;
constexpr auto kAwakeForResult = 20us;
constexpr auto kLongestWithoutEvents = 4ms;

/// Watches for `condition` without sleeping, until it holds or the time is over.
template <typename Condition>
void watch(std::chrono::microseconds time, Condition condition) {
    const Clock::time_point end = Clock::now() + time;
    while (!condition() && Clock::now() < end) {
#if defined(__x86_64__)
        __builtin_ia32_pause();
#endif
    }
}

struct Work {
    const std::function<void()>* function = nullptr;
    Work* next = nullptr;
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

    void post(Work& work) {
        Work* head = arrived_.load();
        do {
            work.next = head;
        } while (!arrived_.compare_exchange_weak(head, &work));
        if (!lookingOut_) {
            const std::uint64_t one = 1;
            [[maybe_unused]] const ssize_t put = write(wake_.get(), &one, sizeof one);
        }
    }

  private:
    void serve() {
        const Clock::time_point start = Clock::now();
        const bool fast = start - lastServed_ < kLookOut * 4;
        runPending();
        // A piece that opened a dialog has kept us here for long; the loop comes first then.
        while (fast && Clock::now() - start < kLongestWithoutEvents && nextArrivesSoon()) {
            runPending();
        }
        lastServed_ = Clock::now();
    }

    bool nextArrivesSoon() {
        lookingOut_ = true;
        watch(kLookOut, [this] { return arrived_.load() != nullptr; });
        lookingOut_ = false;
        // Looked at again after the flag fell: what was posted in between had no wake-up written for it.
        return arrived_.load() != nullptr;
    }

    void runPending() {
        takeArrived();
        while (!pending_.empty()) {
            Work* const work = pending_.front();
            pending_.pop_front();
            (*work->function)();
            work->done = true;
            work->done.notify_one();
            takeArrived();
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
    std::atomic<Work*> arrived_{nullptr};
    std::atomic<bool> lookingOut_{false};
    std::deque<Work*> pending_; // main thread only; a dialog opened by one piece serves the rest
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
    mailbox.load()->post(piece);
    // Most pieces take a microsecond or two on a main thread that looks out.
    watch(kAwakeForResult, [&piece] { return piece.done.load(); });
    piece.done.wait(false);
}
