#include "platform/Application.h"
#include "platform/StandardStreams.h"

#include <unistd.h>

void exitProcess(int status) {
    // Destructors would tear down the toolkit while other threads still use it.
    flushStandardStreams();
    _exit(status);
}
