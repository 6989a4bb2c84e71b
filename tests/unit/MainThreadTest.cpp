#include "platform/MainThread.h"

#include "platform/FileManager.h"
#include "platform/WorkerThread.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

using namespace std::chrono_literals;

// What the posting threads use is static, since they outlive a test that fails.

/// Runs the main thread's event loop until the condition holds.
bool serveUntil(const std::function<bool()>& condition) {
    QTimer tick; // ends the sleep, so that the condition is checked
    tick.start(10);
    const QDeadlineTimer deadline(std::chrono::seconds(30));
    while (!condition() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return condition();
}

bool sleeps(pid_t thread) {
    const std::string stat = readFile("/proc/self/task/" + std::to_string(thread) + "/stat").value_or(")  ");
    return stat[stat.rfind(')') + 2] == 'S';
}

std::atomic<int> posters; ///< threads that have not posted all of their pieces

/// Starts a thread that posts pieces of work, one after the other. Returns its number.
pid_t post(std::vector<std::function<void()>> pieces) {
    static std::atomic<pid_t> id;
    ++posters;
    startWorkerThread([pieces = std::move(pieces)] {
        id = gettid();
        std::ranges::for_each(pieces, MainThread::performAndWait);
        --posters;
    });
    while (id == 0) {
        std::this_thread::yield();
    }
    return id.exchange(0);
}

bool areDone() {
    return serveUntil([] { return posters == 0; });
}

/// Does not serve the main thread's events meanwhile.
void waitUntilItSleeps(pid_t thread) {
    while (!sleeps(thread)) {
        std::this_thread::sleep_for(2ms);
    }
}

TEST(HandOver, RunsInADialogWhatWasPostedBefore) {
    static bool isRun;
    waitUntilItSleeps(
        post({[] { EXPECT_TRUE(serveUntil([] { return isRun; })) << "not in the dialog's loop"; }}));
    waitUntilItSleeps(post({[] { isRun = true; }}));
    EXPECT_TRUE(areDone());
}

TEST(HandOver, RunsInADialogWhatIsPostedWhileItIsOpen) {
    static bool isRun;
    const auto nothing = [] {}; // after it, the main thread is awake for the next
    post({nothing, [] {
              post({[] { isRun = true; }});
              EXPECT_TRUE(serveUntil([] { return isRun; })) << "not in the dialog's loop";
          }});
    EXPECT_TRUE(areDone());
}

void spend(std::chrono::duration<double, std::micro> time) {
    for (const auto start = std::chrono::steady_clock::now();
         std::chrono::steady_clock::now() - start < time;) {
    }
}

TEST(HandOver, RunsEachPieceOnceAndInOrder) {
    static std::array<int, 3> last;
    for (int& mine : last) {
        std::vector<std::function<void()>> pieces;
        for (int i = 1; i <= 1000; ++i) {
            pieces.emplace_back([&mine, i] {
                EXPECT_EQ(mine, i - 1);
                spend(i % 4 * 100us); // meanwhile the other threads go to sleep, in any order
                mine = i;
            });
        }
        post(std::move(pieces));
    }
    EXPECT_TRUE(areDone());
}

TEST(HandOver, HandlesEventsWhilePiecesCome) {
    constexpr int kMost = 3000; // pieces of 10 microseconds; more than that, and a user sees the window stop
    static bool isHandled;
    static std::atomic<int> pieces;
    static std::atomic<bool> isOver;
    startWorkerThread([] {
        while (!isOver && pieces <= 20 * kMost) {
            MainThread::performAndWait([] {
                spend(10us);
                if (++pieces == 10) {
                    QTimer::singleShot(0, [] { isHandled = true; });
                }
                isOver = isHandled;
            });
        }
        isOver = true;
    });
    EXPECT_TRUE(serveUntil([] { return isOver.load(); }));
    EXPECT_LE(pieces, kMost) << "run before an event was handled";
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    MainThread::attach();
    return RUN_ALL_TESTS();
}
