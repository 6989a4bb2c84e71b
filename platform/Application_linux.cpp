#include "platform/Application.h"
#include "platform/StandardStreams.h"

#include <unistd.h>

void exitProcess(int status) {
    // Destructors would take the toolkit apart under the feet of threads that still use it.
    flushStandardStreams();
    _exit(status);
}
