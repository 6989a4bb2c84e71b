#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace {

void reopen(const std::string& path, FILE* stream) {
    // A reopening that fails closes the stream, and its descriptor's number could then become that of a
    // file of ours: an unwritable log would end up inside the download. The null device holds the place.
    if (freopen(path.c_str(), "a+", stream) == nullptr) {
        [[maybe_unused]] FILE* const placeholder = freopen("/dev/null", "a+", stream);
    }
}

} // namespace

void occupyStandardStreams() {
    int lowest = 0;
    do {
        lowest = open("/dev/null", O_RDWR);
    } while (lowest >= 0 && lowest <= STDERR_FILENO);
    if (lowest > STDERR_FILENO) {
        close(lowest);
    }
}

void redirectStandardStreams(const std::string& path) {
    if (path.empty()) {
        return;
    }
    const int probe = open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (probe < 0) {
        return;
    }
    close(probe);
    reopen(path, stdout);
    reopen(path, stderr);
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
}

void flushStandardStreams() {
    fflush(stdout);
    fflush(stderr);
}
