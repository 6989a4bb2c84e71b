#include "installer/Output.h"

#include "package/Text.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace installer {

using namespace package;

void print(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return;
        }
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

void printFailure(std::string_view cause) {
    print("installer: Error - " + oneLine(cause) + "\n");
}

} // namespace installer
