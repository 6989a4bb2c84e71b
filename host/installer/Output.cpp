#include "host/installer/Output.h"

#include "host/package/Text.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace installer {

using namespace package;

namespace {

// False when the time is up.
bool printWithin(std::string_view text, int milliseconds) {
    while (!text.empty()) {
        pollfd output{STDOUT_FILENO, POLLOUT, 0};
        if (poll(&output, 1, milliseconds) == 0) {
            return false;
        }
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            break;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
    return true;
}

} // namespace

void print(std::string_view text) {
    constexpr int kPatience = 10'000;
    static bool isRead = true;
    isRead = isRead && printWithin(text, kPatience);
}

void printOutcome(std::string_view text) {
    printWithin(text, -1);
}

void printFailure(std::string_view cause) {
    printOutcome("installer: Error - " + oneLine(cause) + "\n");
}

} // namespace installer
