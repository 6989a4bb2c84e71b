#include "base/FileDescriptor.h"
#include "base/ReadWrite.h"
#include "platform/StandardStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

namespace {

void reopen(const std::string& path, FILE* stream) {
    // A failed reopening closes the stream, and the download's file could then get its descriptor's number
    // and receive the log. The null device keeps the number taken.
    if (freopen(path.c_str(), "a+", stream) == nullptr) {
        [[maybe_unused]] FILE* const placeholder = freopen("/dev/null", "a+", stream);
    }
}

bool canBeWritten(const std::string& path) {
    const FileDescriptor probe(open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    return probe.isOpen();
}

ssize_t takeAll(void* /*cookie*/, const char* data, std::size_t size) {
    writeAll(STDOUT_FILENO, {data, size}); // what does not fit is lost
    return static_cast<ssize_t>(size);
}

// The transfer library prints a probe's headers and gives the probe up when that fails, for one on a full
// disk.
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

void redirectStandardStreams(const std::string& path) {
    if (!path.empty() && canBeWritten(path)) {
        reopen(path, stdout);
        reopen(path, stderr);
    }
    letNoOutputFail();
}

void flushStandardStreams() {
    fflush(stdout);
    fflush(stderr);
}
