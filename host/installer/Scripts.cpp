#include "installer/Scripts.h"

#include "base/ChildProcess.h"
#include "base/FileDescriptor.h"
#include "base/RootEnvironment.h"
#include "installer/Descendants.h"
#include "installer/Tree.h"
#include "package/Contents.h"
#include "package/Failure.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace installer {

using namespace package;

namespace {

constexpr std::time_t kTimeLimit = 600; // seconds

volatile pid_t running = 0; // NOLINT(*-avoid-non-const-global-variables): a signal handler has no other way

// Whether the process has ended within the time limit.
bool endsInTime(pid_t process) {
    const FileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
    if (!handle.isOpen()) {
        throw systemFailure("a script cannot be waited for");
    }
    const timespec limit{kTimeLimit, 0};
    int ready = -1;
    do {
        pollfd end{handle.get(), POLLIN, 0};
        ready = ppoll(&end, 1, &limit, nullptr);
    } while (ready < 0 && errno == EINTR);
    return ready > 0;
}

FileDescriptor openForReading(int package) {
    FileDescriptor opened(open(("/proc/self/fd/" + std::to_string(package)).c_str(), O_RDONLY | O_CLOEXEC));
    if (!opened.isOpen()) {
        throw systemFailure("the package cannot be opened for a script");
    }
    return opened;
}

} // namespace

void killRunningScript() {
    if (running > 0) {
        kill(-running, SIGKILL);
        kill(running, SIGKILL);
    }
}

void runScript(int folder, const std::string& name, const ScriptArguments& arguments) {
    const auto status = statusOf(folder, name);
    if (!status) {
        return;
    }
    const std::string what = "the package's " + name + " script";
    requireProgram(name, status->st_mode);
    const FileDescriptor package = openForReading(arguments.package);
    constexpr rlim_t kFiles =
        1024; // the usual limit; this program has raised its own, and limited its memory
    ChildProcess child;
    child.path = "./" + name;
    child.arguments = {"/dev/fd/3", arguments.location, arguments.target, "/"};
    child.environment = {kRootPath, kRootHome, "SHELL=/bin/sh", "LANG=C.UTF-8"};
    child.workingFolder = "/proc/self/fd/" + std::to_string(folder);
    child.ownSession = true;
    child.endsWithParent = true;
    child.limits = {{RLIMIT_AS, RLIM_INFINITY}, {RLIMIT_NOFILE, kFiles}};
    child.standardInput = ChildProcess::kNull;
    child.standardOutput = STDERR_FILENO;
    child.passedOn = {package.get()};
    std::error_code failure;
    const pid_t script = child.start(failure);
    if (failure) {
        throw Failure(what + " cannot be started: " + failure.message());
    }
    running = script;
    const bool isInTime = endsInTime(script);
    running = 0;
    if (!isInTime) {
        kill(script, SIGKILL);
    }
    int ending = 0;
    while (waitpid(script, &ending, 0) < 0) {
        if (errno != EINTR) {
            throw systemFailure(what + " cannot be waited for");
        }
    }
    endDescendants();
    if (!isInTime) {
        throw Failure(what + " took longer than " + std::to_string(kTimeLimit / 60) + " minutes");
    }
    if (WIFSIGNALED(ending)) {
        throw Failure(what + " was ended by signal " + std::to_string(WTERMSIG(ending)));
    }
    if (WEXITSTATUS(ending) != 0) {
        throw Failure(what + " failed with status " + std::to_string(WEXITSTATUS(ending)));
    }
}

} // namespace installer
