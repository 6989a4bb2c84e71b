#include "platform/MainThread.h"

#include "platform/FileManager.h"
#include "platform/WorkerThread.h"
#include "support/WaitUntil.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <random>

namespace {

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

TEST(HandOver, RunsInADialogWhatWasQueuedBehindIt) {
    static std::atomic<pid_t> poster;
    static std::atomic<int> finished;
    static bool isServed = false;
    for (const bool opensDialog : {true, false}) {
        poster = 0;
        WorkerThread::start([opensDialog] {
            poster = gettid();
            MainThread::performAndWait([opensDialog] {
                isServed = !opensDialog;
                EXPECT_TRUE(serveUntil([] { return isServed; })) << "not run in the dialog's loop";
            });
            ++finished;
        });
        ASSERT_TRUE(waitUntil([] { return poster != 0 && sleeps(poster); }));
    }
    EXPECT_TRUE(serveUntil([] { return finished == 2; }));
}

/// Checks, on the main thread, which CPUs it may run on: a thread started there would inherit them.
void expectAllowed(const cpu_set_t& expected) {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    EXPECT_TRUE(CPU_EQUAL(&allowed, &expected));
}

TEST(HandOver, RunsEachPieceOnceAndInOrder) {
    static cpu_set_t allowed;
    static std::array<int, 3> last;
    static std::atomic<int> unfinished(last.size());
    sched_getaffinity(0, sizeof allowed, &allowed);
    for (int& mine : last) {
        WorkerThread::start([&mine] {
            for (int i = 1; i <= 1000; ++i) {
                MainThread::performAndWait([&] {
                    EXPECT_EQ(std::exchange(mine, i), i - 1);
                    expectAllowed(allowed);
                });
                EXPECT_EQ(mine, i) << "it returns when the work is done";
            }
            --unfinished;
        });
    }
    EXPECT_TRUE(serveUntil([] { return unfinished == 0; }));
}

TEST(HandOver, RunsAPiecePostedWhenTheMainThreadStopsSpinning) {
    static cpu_set_t first, second;
    static std::atomic<bool> isOver;
    CPU_SET(0, &first);
    CPU_SET(1, &second);
    WorkerThread::start([] {
        sched_setaffinity(0, sizeof second, &second);
        std::mt19937 random;
        std::uniform_real_distribution<double> microseconds(195, 210); // for which it spins
        const QDeadlineTimer end(std::chrono::seconds(10));            // on a busy machine
        for (int turn = 0; turn < 7500 && !end.hasExpired(); ++turn) {
            // Two in a row make the main thread spin for a third. A mask set by others stays.
            MainThread::performAndWait([] { sched_setaffinity(0, sizeof first, &first); });
            MainThread::performAndWait([] { expectAllowed(first); });
            const std::chrono::duration<double, std::micro> pause(microseconds(random));
            for (const auto start = std::chrono::steady_clock::now();
                 std::chrono::steady_clock::now() - start < pause;) {
            }
        }
        isOver = true;
    });
    EXPECT_TRUE(serveUntil([] { return isOver.load(); })) << "a piece was not run";
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    MainThread::attach();
    return RUN_ALL_TESTS();
}
