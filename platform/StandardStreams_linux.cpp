#include "platform/FileDescriptor.h"
#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

namespace {

void reopen(const std::string& path, FILE* stream) {
    // A reopening that fails closes the stream, and its descriptor's number could then become that of a
    // file of ours: an unwritable log would end up inside the download. The null device holds the place.
    if (freopen(path.c_str(), "a+", stream) == nullptr) {
        [[maybe_unused]] FILE* const placeholder = freopen("/dev/null", "a+", stream);
    }
}

bool canBeWritten(const std::string& path) {
    const FileDescriptor probe(open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    return probe.isOpen();
}

ssize_t takeAll(void* /*cookie*/, const char* data, std::size_t size) {
    writeWhatFits(STDOUT_FILENO, data, size);
    return static_cast<ssize_t>(size);
}

// Who prints is not to give up its work because the log's disk is full, as the transfer library would when it
// prints a probe's headers.
void letNoOutputFail() {
    fflush(stdout);
    cookie_io_functions_t functions{};
    functions.write = takeAll;
    if (FILE* const output = fopencookie(nullptr, "w", functions)) {
        setvbuf(output, nullptr, _IOLBF, BUFSIZ);
        stdout = output; // a variable like any other here
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
    if (!path.empty() && canBeWritten(path)) {
        reopen(path, stdout);
        reopen(path, stderr);
    }
    letNoOutputFail();
}

void writeWhatFits(int descriptor, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t count = write(descriptor, data, size);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        data += count;
        size -= static_cast<std::size_t>(count);
    }
}

void flushStandardStreams() {
    fflush(stdout);
    fflush(stderr);
}
