#include "ui/Leave.h"

#include "platform/Application.h"
#include "report/WebStatic.h"
#include "transfer/CurlLibrary.h"

#include <mutex>

void shutDown() {
    static std::once_flag isDone;
    std::call_once(isDone, [] {
        submitWebStatic();
        cleanUpCurlLibrary();
    });
}

void leave() {
    shutDown();
    exitProcess(0);
}
