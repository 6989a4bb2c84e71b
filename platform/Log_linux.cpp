#include "base/ReadWrite.h"
#include "platform/Bundle.h"
#include "platform/Log.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>

namespace {

// The executable's own name, even if it was started through a symbolic link.
const char* programName() {
    static const std::string name = std::filesystem::path(executablePath()).filename().string();
    return name.c_str();
}

std::string lineHead() {
    timeval now{};
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char stamp[32];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char head[128];
    snprintf(head, sizeof head, "%s.%03d %s[%d:%d] ", stamp, static_cast<int>(now.tv_usec / 1000),
             programName(), getpid(), gettid());
    return head;
}

std::string formatted(const char* format, va_list arguments) {
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        vsnprintf(text.data(), text.size(), format, again);
        text.pop_back();
    }
    va_end(again);
    return text;
}

} // namespace

void NSLog(const char* format, ...) {
    const int savedErrno = errno;
    va_list arguments;
    va_start(arguments, format);
    std::string line = lineHead() + formatted(format, arguments);
    va_end(arguments);
    line += '\n';
    writeAll(STDERR_FILENO, line); // failing to log is ignored
    errno = savedErrno;
}

const char* systemErrorText(int number) {
    const char* const text = strerrordesc_np(number);
    return text == nullptr ? "unknown error" : text;
}
