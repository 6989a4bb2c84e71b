#include "platform/WorkerThread.h"

#include <thread>
#include <utility>

namespace {
std::atomic<int> runningCount{0};
} // namespace

WorkerThread WorkerThread::start(std::function<void()> work) {
    WorkerThread thread;
    thread.finished_ = std::make_shared<std::atomic<bool>>(false);
    ++runningCount;
    std::thread([work = std::move(work), finished = thread.finished_]() mutable {
        work();
        work = nullptr;
        *finished = true;
        finished.reset();
        --runningCount;
    }).detach();
    return thread;
}

int WorkerThread::running() {
    return runningCount;
}
