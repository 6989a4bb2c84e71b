#include "report/Leave.h"

#include "platform/Application.h"
#include "report/WebStatic.h"
#include "transfer/CurlLibrary.h"

#include <mutex>

void submitAndCleanUp() {
    static std::once_flag isDone;
    std::call_once(isDone, [] {
        submitWebStatic();
        cleanUpCurlLibrary();
    });
}

void leave() {
    submitAndCleanUp();
    exitProcess(0);
}
