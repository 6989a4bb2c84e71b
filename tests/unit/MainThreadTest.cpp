#include "platform/MainThread.h"

#include "platform/FileManager.h"
#include "platform/WorkerThread.h"
#include "support/WaitUntil.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEventLoop>
#include <QTimer>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>
#include <memory>
#include <random>

namespace {

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

/// Starts a thread that shares `state` with the test, since it outlives a test that fails.
template <typename State>
void startPoster(const std::shared_ptr<State>& state, const std::function<void(State&)>& work) {
    WorkerThread::start([state, work] { work(*state); });
}

TEST(HandOver, RunsInADialogWhatWasQueuedBehindIt) {
    struct State {
        std::atomic<pid_t> poster{0};
        std::atomic<int> finished{0};
        bool isServed = false;
    };
    const auto state = std::make_shared<State>();
    for (const bool opensDialog : {true, false}) {
        state->poster = 0;
        startPoster<State>(state, [opensDialog](State& shared) {
            shared.poster = gettid();
            MainThread::performAndWait([&] {
                EXPECT_TRUE(MainThread::isCurrent());
                shared.isServed = !opensDialog;
                EXPECT_TRUE(serveUntil([&] { return shared.isServed; })) << "not run in the dialog's loop";
            });
            ++shared.finished;
        });
        ASSERT_TRUE(waitUntil([&] { return state->poster != 0 && sleeps(state->poster); }));
    }
    EXPECT_TRUE(serveUntil([&] { return state->finished == 2; }));
}

cpu_set_t allowedCpus() {
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    return allowed;
}

TEST(HandOver, RunsEachPieceOnceAndInOrder) {
    struct State {
        cpu_set_t allowed = allowedCpus();
        std::array<int, 3> last{};
        std::atomic<int> unfinished{3};
    };
    const auto state = std::make_shared<State>();
    for (int& last : state->last) {
        startPoster<State>(state, [&last](State& shared) {
            for (int i = 1; i <= 1000; ++i) {
                MainThread::performAndWait([&] {
                    EXPECT_EQ(std::exchange(last, i), i - 1);
                    const cpu_set_t now = allowedCpus(); // a thread started here would inherit them
                    EXPECT_TRUE(CPU_EQUAL(&now, &shared.allowed));
                });
                EXPECT_EQ(last, i) << "it returns when the work is done";
            }
            --shared.unfinished;
        });
    }
    EXPECT_TRUE(serveUntil([&] { return state->unfinished == 0; }));
}

/// Has a thread run on one CPU, before other programs where root runs the test.
void pin(pid_t thread, int cpu) {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    sched_setaffinity(thread, sizeof one, &one);
    setpriority(PRIO_PROCESS, static_cast<id_t>(thread), -20);
}

TEST(HandOver, RunsAPiecePostedWhenTheMainThreadStopsSpinning) {
    const cpu_set_t allowed = allowedCpus();
    const auto isOver = std::make_shared<std::atomic<bool>>(false);
    startPoster<std::atomic<bool>>(isOver, [](std::atomic<bool>& over) {
        using namespace std::chrono;
        pin(0, 1);
        std::mt19937 random;
        std::uniform_real_distribution<double> spread(-2, 2);
        const auto post = [] {
            const auto start = steady_clock::now();
            MainThread::performAndWait([] {});
            return steady_clock::now() - start;
        };
        // The main thread answers fast while it spins. The pause is adjusted by that to end when it stops
        // spinning.
        double pause = 0;
        const auto end = steady_clock::now() + 10s; // on a busy machine
        for (int turn = 0; turn < 7500 && steady_clock::now() < end; ++turn) {
            post(); // two in a row make the main thread spin for a third
            pin(getpid(), 0);
            const duration<double, std::micro> thisPause(pause + spread(random));
            for (const auto start = steady_clock::now(); steady_clock::now() - start < thisPause;) {
            }
            const auto answered = post();
            pause += answered < 10us    ? 0.5
                     : answered < 200us ? -0.5
                                        : 0; // longer: one of them was not running
        }
        over = true;
    });
    EXPECT_TRUE(serveUntil([&] { return isOver->load(); })) << "a piece was not run";
    sched_setaffinity(0, sizeof allowed, &allowed);
    setpriority(PRIO_PROCESS, 0, 0);
}

} // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    const QCoreApplication application(argc, argv);
    MainThread::attach();
    return RUN_ALL_TESTS();
}
