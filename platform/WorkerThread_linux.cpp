#include "platform/WorkerThread.h"

#include <utility>

std::thread::id startWorkerThread(std::function<void()> work) {
    std::thread thread(std::move(work));
    const std::thread::id started = thread.get_id();
    thread.detach();
    return started;
}
