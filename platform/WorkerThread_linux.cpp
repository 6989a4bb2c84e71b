#include "platform/WorkerThread.h"

#include <utility>

WorkerThread WorkerThread::start(std::function<void()> work) {
    std::thread thread(std::move(work));
    const WorkerThread started(thread.get_id());
    thread.detach();
    return started;
}
