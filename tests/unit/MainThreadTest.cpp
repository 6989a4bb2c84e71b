#include "platform/MainThread.h"

#include "platform/FileManager.h"
#include "platform/WorkerThread.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QTimer>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <random>
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

/// Waits without serving the main thread's events. False if the condition does not hold in time.
bool waitUntil(const std::function<bool()>& condition) {
    const QDeadlineTimer deadline(std::chrono::seconds(30));
    while (!condition() && !deadline.hasExpired()) {
        std::this_thread::sleep_for(2ms);
    }
    return condition();
}

bool sleeps(pid_t thread) {
    const std::string stat = readFile("/proc/self/task/" + std::to_string(thread) + "/stat").value_or(")  ");
    return stat[stat.rfind(')') + 2] == 'S';
}

/// A thread that posts pieces of work, one after the other.
struct Poster {
    std::atomic<pid_t> id{0};
    std::atomic<bool> isBack{false};

    void start(std::vector<std::function<void()>> pieces) {
        startWorkerThread([this, pieces = std::move(pieces)] {
            id = gettid();
            for (const auto& piece : pieces) {
                MainThread::performAndWait(piece);
            }
            isBack = true;
        });
    }

    void expectSleep() const {
        EXPECT_TRUE(waitUntil([this] { return id != 0 && sleeps(id); }));
    }
};

bool areBack(const std::array<Poster, 2>& posters) {
    return serveUntil([&posters] { return posters[0].isBack && posters[1].isBack; });
}

TEST(HandOver, RunsInADialogWhatWasPostedBefore) {
    static std::array<Poster, 2> posters;
    static bool isRun;
    posters[0].start(
        {[] { EXPECT_TRUE(serveUntil([] { return isRun; })) << "not run in the dialog's loop"; }});
    posters[0].expectSleep();
    posters[1].start({[] { isRun = true; }});
    posters[1].expectSleep();
    EXPECT_TRUE(areBack(posters));
}

TEST(HandOver, RunsInADialogWhatIsPostedWhileItIsOpen) {
    static std::array<Poster, 2> posters;
    static bool isRun;
    const auto nothing = [] {}; // after it, the main thread is awake for the next
    posters[0].start({nothing, [] {
                          posters[1].start({[] { isRun = true; }});
                          EXPECT_TRUE(serveUntil([] { return isRun; })) << "not run in the dialog's loop";
                      }});
    EXPECT_TRUE(areBack(posters));
}

// A signal interrupts the sleep of the first poster, which is then the last in the queue of the sleeping
// ones.
TEST(HandOver, WakesEachPosterWhateverTheOrderInWhichTheySleep) {
    static std::array<Poster, 2> posters;
    static std::atomic<bool> isInterrupted;
    struct sigaction action{};
    action.sa_handler = [](int) { isInterrupted = true; };
    sigaction(SIGUSR1, &action, nullptr);
    for (Poster& poster : posters) {
        poster.start({[] {}});
        poster.expectSleep();
    }
    syscall(SYS_tgkill, getpid(), posters[0].id.load(), SIGUSR1);
    EXPECT_TRUE(waitUntil([] { return isInterrupted.load(); }));
    posters[0].expectSleep();
    EXPECT_TRUE(areBack(posters));
}

TEST(HandOver, RunsEachPieceOnceAndInOrder) {
    static std::array<int, 3> last;
    static std::atomic<int> unfinished(last.size());
    for (int& mine : last) {
        startWorkerThread([&mine] {
            for (int i = 1; i <= 1000; ++i) {
                MainThread::performAndWait([&] { EXPECT_EQ(std::exchange(mine, i), i - 1); });
                EXPECT_EQ(mine, i) << "it returns when the work is done";
            }
            --unfinished;
        });
    }
    EXPECT_TRUE(serveUntil([] { return unfinished == 0; }));
}

void spend(std::chrono::duration<double, std::micro> time) {
    for (const auto start = std::chrono::steady_clock::now();
         std::chrono::steady_clock::now() - start < time;) {
    }
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

TEST(HandOver, RunsAPiecePostedWhenTheMainThreadGoesToSleep) {
    static std::atomic<bool> isOver;
    startWorkerThread([] {
        cpu_set_t cpus; // threads on the same one do not spin
        CPU_ZERO(&cpus);
        CPU_SET(1, &cpus);
        sched_setaffinity(0, sizeof cpus, &cpus);
        std::mt19937 random;
        const auto postAfter = [&random](double least, double most, int times) {
            std::uniform_real_distribution<double> microseconds(least, most);
            const QDeadlineTimer end(std::chrono::seconds(10)); // on a busy machine
            for (int turn = 0; turn < times && !end.hasExpired(); ++turn) {
                // Two in a row make the main thread spin for a third.
                MainThread::performAndWait([] {});
                MainThread::performAndWait([] {});
                spend(std::chrono::duration<double, std::micro>(microseconds(random)));
            }
        };
        postAfter(95, 115, 7500);   // it stops spinning and parks
        postAfter(5900, 6100, 200); // it stops parking and returns to its loop
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
