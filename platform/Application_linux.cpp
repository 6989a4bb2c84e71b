#include "platform/Application.h"

#include <unistd.h>

#include <cstdio>

void exitProcess(int status) {
    // Only these two: flushing every stream would wait for a stream that another thread is reading.
    fflush(stdout);
    fflush(stderr);
    // Destructors would tear down the toolkit while other threads still use it.
    _exit(status);
}
