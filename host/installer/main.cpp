// Installs a flat package. The program that runs this one judges it by the words on standard output alone:
// one line "installer: Error - <cause>" is a failure, so a success must not spell "error" or "invalid", and
// therefore prints no names.
#include "installer/Failure.h"
#include "installer/Package.h"
#include "installer/Text.h"
#include "installer/Unpacker.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <new>
#include <string>
#include <string_view>
#include <system_error>

namespace {

using installer::Failure;

constexpr char kUsage[] =
    "Usage: installer -pkg FILE -target DIR\n"
    "\n"
    "Checks the flat package FILE from end to end, then unpacks its payload into the folder DIR.\n"
    "Progress and the outcome go to standard output; the exit status is 0 only for a complete install.\n"
    "\n"
    "  -pkg FILE     the package: a xar archive that holds PackageInfo and Payload\n"
    "  -target DIR   the folder to install into, / for this machine\n"
    "  --help        show this text\n";

constexpr std::array kEndingSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU};

// Unbuffered, so that nothing printed is lost however the process ends.
void print(std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return;
        text.remove_prefix(static_cast<std::size_t>(written));
    }
}

int fail(std::string_view cause) {
    print("installer: Error - " + installer::oneLine(cause) + "\n");
    return EXIT_FAILURE;
}

// Silence would pass for success, so being stopped is said as well.
extern "C" void onEndingSignal(int) {
    print("installer: Error - stopped by a signal\n");
    _exit(EXIT_FAILURE);
}

void handleSignals(void (*ending)(int)) {
    struct sigaction action {};
    action.sa_handler = ending;
    for (const int number : kEndingSignals)
        sigaddset(&action.sa_mask, number);
    for (const int number : kEndingSignals)
        sigaction(number, &action, nullptr);
}

void prepareProcess() {
    // A package file must not come to be where standard output is looked for.
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        if (fcntl(stream, F_GETFD) < 0)
            (void)!open("/dev/null", O_RDWR);
    (void)std::setlocale(LC_CTYPE, "C.UTF-8"); // names in the archive's table are UTF-8
    umask(S_IWGRP | S_IWOTH);
    std::signal(SIGPIPE, SIG_IGN); // a caller that stopped reading still wants a whole install
    std::signal(SIGXFSZ, SIG_IGN); // so that the write fails and is reported
    handleSignals(onEndingSignal);
}

std::uint64_t freeBytes(const std::string& target) {
    struct statvfs fileSystem {};
    if (statvfs(target.c_str(), &fileSystem) != 0)
        throw Failure("the target cannot be examined: " + std::generic_category().message(errno));
    if (fileSystem.f_blocks == 0) // keeps no count
        return std::numeric_limits<std::uint64_t>::max();
    const auto blocks = geteuid() == 0 ? fileSystem.f_bfree : fileSystem.f_bavail;
    return static_cast<std::uint64_t>(blocks) * fileSystem.f_frsize;
}

void requireFolder(const std::string& target) {
    struct stat status {};
    if (stat(target.c_str(), &status) != 0)
        throw Failure("the target cannot be examined: " + std::generic_category().message(errno));
    if (!S_ISDIR(status.st_mode))
        throw Failure("the target is not a folder");
}

void install(const std::string& packagePath, const std::string& target) {
    requireFolder(target);
    const installer::Package package(packagePath);

    print("installer: Checking the package\n");
    installer::PayloadTally tally(freeBytes(target));
    const installer::PackageInfo info = package.read(tally);
    if (tally.entries() == 0)
        throw Failure("the package's payload holds nothing");

    print("installer: Installing " + std::to_string(tally.entries()) + " items, " +
          std::to_string(tally.bytes() / 1024) + " KiB\n");
    std::uint64_t done = 0;
    int quarters = 0;
    installer::Unpacker unpacker(target, info.location, [&](std::uint64_t bytes) {
        done += bytes;
        while (quarters < 4 && done * 4 >= tally.bytes() * static_cast<unsigned>(quarters + 1))
            print("installer: " + std::to_string(25 * ++quarters) + "%\n");
    });
    package.read(unpacker);
    unpacker.finish();
}

int run(int argc, char** argv) {
    std::string package;
    std::string target;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "--help") {
            print(kUsage);
            return EXIT_SUCCESS;
        }
        const bool isPackage = argument == "-pkg";
        if (!isPackage && argument != "-target")
            throw Failure("unknown argument; see installer --help");
        if (i + 1 == argc)
            throw Failure("an argument lacks its value; see installer --help");
        (isPackage ? package : target) = argv[++i];
    }
    if (package.empty() || target.empty())
        throw Failure("-pkg FILE and -target DIR are needed; see installer --help");
    install(package, target);
    handleSignals(SIG_IGN); // the outcome stands
    print("installer: The install was successful.\n");
    return EXIT_SUCCESS;
}

} // namespace

int main(int argc, char** argv) {
    prepareProcess();
    try {
        return run(argc, argv);
    } catch (const std::bad_alloc&) {
        return fail("out of memory");
    } catch (const std::exception& problem) {
        return fail(problem.what());
    }
}
