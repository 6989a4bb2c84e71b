// Keeps the installed application until another version has replaced it. Before the application is removed,
// the process that runs the commands of an installation as root starts this program with `hold`, and it
// closes the program's standard input when the attempt is over. At boot, a systemd unit runs `end` if
// /.pellomar-installer exists.
//
// `end` undoes an install that was interrupted before it was committed, or completes one that was interrupted
// after that. Then, if an application is set aside, it removes whatever is at the application's place and
// moves the application back. Last it removes /.pellomar-installer if nothing is left in it.
//
// `hold` does what `end` does, then moves /Applications/Pellomar.app, if it exists, into the folder
// /.pellomar-installer/aside. If that fails, the application is in its place again. It writes one of the
// bytes of base/TransactionAnswer.h to standard output, waits for the end of standard input and does what
// `end` does.
//
// The installer itself removes the copy set aside when it commits an install. Each verb waits for every
// earlier `hold` to end, and at most half an hour for a running installer to end. Each can be killed at any
// moment and run again. They print nothing else on success. Exit status: 0 on success, even if there was
// nothing to do; 1 on failure, with the cause on standard error; what could not be moved is kept for the next
// run; 2 for wrong use.
#include "base/ReadWrite.h"
#include "base/StandardDescriptors.h"
#include "base/TransactionAnswer.h"
#include "host/installer/SetAside.h"
#include "host/installer/Staging.h"
#include "host/installer/StagingLayout.h"
#include "host/package/Failure.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

namespace {

using installer::Staging;

constexpr char kTarget[] = "/";
constexpr char kUsage[] =
    "Usage: pellomar-installer-transaction hold|end\n"
    "\n"
    "  hold    set /Applications/Pellomar.app aside before it is replaced; at the end of standard input, "
    "end\n"
    "  end     put it back unless another version is installed; finish or undo an interrupted install\n"
    "  --help  show this text\n";

// Longer than an installer with two scripts at their time limits takes.
constexpr std::chrono::minutes kPatience{30};

void complain(const char* text) {
    std::fprintf(stderr, "pellomar-installer-transaction: %s\n", text);
}

// A commit removes the copy set aside. As long as there is one, what is at its place is no installed version.
void settleAside(Staging& staging) {
    if (installer::isSetAside(staging.folder())) {
        staging.discardApplication();
        installer::putBack(staging.target(), staging.folder());
    }
}

void end() {
    struct stat status{};
    if (lstat((std::string(kTarget) + installer::kStagingName).c_str(), &status) != 0 && errno == ENOENT) {
        return;
    }
    Staging staging(kTarget, kPatience);
    settleAside(staging);
    staging.close();
}

void setAside() {
    Staging staging(kTarget, kPatience);
    settleAside(staging);
    if (installer::isApplicationPresent(staging.target())) {
        installer::setAside(staging.target(), staging.folder());
    } else {
        staging.close();
    }
}

// Keeps its turn even if setting aside fails: the installer that runs next may replace the application.
void hold() {
    char answer = kSetAside;
    try {
        setAside();
    } catch (const std::exception& problem) {
        complain(problem.what());
        answer = kNotSetAside;
    }
    if (!writeAll(STDOUT_FILENO, {&answer, 1}) || !readAll(STDIN_FILENO)) {
        complain("the caller cannot be reached");
    }
    end();
}

// One attempt is over before the next one begins. The lock is released with the process.
void takeTurn() {
    const int lock = open("/run/pellomar-installer.lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    while (flock(lock, LOCK_EX) != 0) {
        if (errno != EINTR) {
            throw package::systemFailure("cannot take turns with other installs");
        }
    }
}

} // namespace

int main(int argc, char** argv) try {
    constexpr int kWrongUse = 2;
    const std::string_view verb = argc == 2 ? argv[1] : "";
    occupyStandardDescriptors();
    std::signal(SIGXFSZ, SIG_IGN); // a write that fails is reported instead
    umask(S_IWGRP | S_IWOTH);
    std::signal(SIGPIPE, SIG_IGN);
    void (*const work)() = verb == "hold" ? hold : verb == "end" ? end : nullptr;
    if (work == nullptr) {
        std::fputs(kUsage, verb == "--help" ? stdout : stderr);
        return verb == "--help" ? EXIT_SUCCESS : kWrongUse;
    }
    takeTurn();
    work();
    return EXIT_SUCCESS;
} catch (const std::exception& problem) {
    complain(problem.what());
    return EXIT_FAILURE;
}
