#include "base/FileDescriptor.h"
#include "base/ReadWrite.h"
#include "platform/OutputStreams.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

namespace {

void reopen(const std::string& path, FILE* stream) {
    // A failed freopen closes the stream. Its descriptor's number could then be reused for the download's
    // file, which would receive the log; /dev/null keeps the number in use.
    if (freopen(path.c_str(), "a+", stream) == nullptr) {
        [[maybe_unused]] FILE* const placeholder = freopen("/dev/null", "a+", stream);
    }
}

bool canBeWritten(const std::string& path) {
    const FileDescriptor probe(open(path.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600));
    return probe.isOpen();
}

ssize_t takeAll(void* /*cookie*/, const char* data, std::size_t size) {
    writeAll(STDOUT_FILENO, {data, size}); // output that cannot be written is dropped
    return static_cast<ssize_t>(size);
}

} // namespace

void ignoreBrokenPipes() {
    std::signal(SIGPIPE, SIG_IGN);
}

void redirectStandardStreams(const std::string& path) {
    if (canBeWritten(path)) {
        reopen(path, stdout);
        reopen(path, stderr);
    }
}

// libcurl prints the probe's headers to standard output, and the probe fails if that fails, as it does on a
// full disk.
void ignoreOutputErrors() {
    fflush(stdout);
    cookie_io_functions_t functions{};
    functions.write = takeAll;
    if (FILE* const output = fopencookie(nullptr, "w", functions); output != nullptr) {
        setvbuf(output, nullptr, _IOLBF, BUFSIZ);
        stdout = output; // in glibc, stdout is a variable
    }
}
