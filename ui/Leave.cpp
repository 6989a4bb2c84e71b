#include "ui/Leave.h"

#include "platform/Application.h"
#include "report/WebStatic.h"
#include "transfer/CurlLibrary.h"

#include <mutex>

void sayLastWords() {
    static std::once_flag said;
    std::call_once(said, [] {
        submitWebStatic();
        cleanUpCurlLibrary();
    });
}

void leave() {
    sayLastWords();
    exitProcess(0);
}
