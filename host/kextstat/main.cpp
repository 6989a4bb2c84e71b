// Shows which of the kernel's drivers are loaded. Callers search the output for a driver's identifier, so it
// is printed in the row of a loaded driver only.
#include "host/kextstat/ModuleTable.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <optional>
#include <string>

namespace {

constexpr char kUsage[] =
    "Usage: kextstat [-b IDENTIFIER]\n"
    "\n"
    "Lists the kernel drivers that are loaded, or with -b only the one that the identifier's last\n"
    "component names, in any letter case.\n"
    "\n"
    "  -b IDENTIFIER  a driver's identifier, components separated by dots\n"
    "  --help         show this text\n";

constexpr int kWrongUse = 2;

int wrongUse(const char* cause) {
    std::fprintf(stderr, "kextstat: %s; see kextstat --help\n", cause);
    return kWrongUse;
}

} // namespace

int main(int argc, char** argv) try {
    std::optional<std::string> identifier;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--help") {
            std::fputs(kUsage, stdout);
            return EXIT_SUCCESS;
        }
        if (argument != "-b") {
            return wrongUse("unknown argument");
        }
        if (++i == argc) {
            return wrongUse("-b lacks its identifier");
        }
        identifier = argv[i];
    }
    if (identifier && kextstat::moduleName(*identifier).empty()) {
        return wrongUse("the identifier names no driver");
    }
    const std::string text = kextstat::table(kextstat::loadedModules({}), identifier);
    if (std::fputs(text.c_str(), stdout) < 0 || std::fflush(stdout) != 0) {
        std::perror("kextstat: cannot write");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "kextstat: %s\n", problem.what());
    return EXIT_FAILURE;
}
