#include "host/installer/Scripts.h"

#include "base/ChildProcess.h"
#include "base/FileDescriptor.h"
#include "base/Pipe.h"
#include "base/ReadWrite.h"
#include "base/RootEnvironment.h"
#include "host/installer/Descendants.h"
#include "host/installer/Tree.h"
#include "host/package/Contents.h"
#include "host/package/Failure.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

namespace installer {

using namespace package;

namespace {

constexpr std::time_t kTimeLimit = 600; // seconds

volatile pid_t running = 0; // NOLINT(*-avoid-non-const-global-variables): a signal handler has no other way

void setSoftLimit(__rlimit_resource kind, rlim_t wanted) {
    rlimit limit{};
    if (getrlimit(kind, &limit) == 0) {
        limit.rlim_cur = std::min(wanted, limit.rlim_max);
        setrlimit(kind, &limit);
    }
}

// Runs in the child process, as its only thread. Every descriptor of this program is closed when the script
// is executed, but for the standard ones and the package. The number of an error is written to `report`.
[[noreturn]] void becomeScript(int folder, const std::string& path, const ScriptArguments& arguments,
                               const Pipe& report, pid_t parent) {
    constexpr int kPackage = 3;
    constexpr rlim_t kFiles = 1024; // the usual limit; this program has raised its own
    setsid();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int number = 1; number < NSIG; ++number) {
        std::signal(number, SIG_DFL);
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) { // which ended before that
        _exit(EXIT_FAILURE);
    }
    setSoftLimit(RLIMIT_AS, RLIM_INFINITY);
    setSoftLimit(RLIMIT_NOFILE, kFiles);
    const std::string original = "/proc/self/fd/" + std::to_string(arguments.package);
    const FileDescriptor nothing(open("/dev/null", O_RDWR | O_CLOEXEC));
    const FileDescriptor package(open(original.c_str(), O_RDONLY | O_CLOEXEC));
    // Above the number that the script finds the package at.
    const FileDescriptor reportTo(fcntl(report.writeEnd.get(), F_DUPFD_CLOEXEC, kPackage + 1));
    const FileDescriptor copy(fcntl(package.get(), F_DUPFD_CLOEXEC, kPackage + 1));
    if (fchdir(folder) == 0 && dup2(nothing.get(), STDIN_FILENO) >= 0 &&
        dup2(STDERR_FILENO, STDOUT_FILENO) >= 0 && dup2(copy.get(), kPackage) >= 0) {
        const char* const words[] = {
            path.c_str(), "/dev/fd/3", arguments.location.c_str(), arguments.target.c_str(), "/", nullptr};
        const char* const environment[] = {kRootPath, kRootHome, "SHELL=/bin/sh", "LANG=C.UTF-8", nullptr};
        execve(path.c_str(), const_cast<char* const*>(words), const_cast<char* const*>(environment));
    }
    const int cause = errno;
    writeAll(reportTo.get(), {reinterpret_cast<const char*>(&cause), sizeof cause});
    _exit(EXIT_FAILURE);
}

pid_t startScript(int folder, const std::string& name, const ScriptArguments& arguments,
                  const std::string& what) {
    Pipe report;
    const pid_t self = getpid();
    const pid_t script = report.writeEnd.isOpen() ? fork() : -1;
    if (script == 0) {
        becomeScript(folder, "./" + name, arguments, report, self);
    }
    report.writeEnd.reset();
    int cause = errno;
    if (script > 0 && read(report.readEnd.get(), &cause, sizeof cause) == 0) { // closed by its execution
        return script;
    }
    if (script > 0) {
        waitUntilExit(script);
    }
    throw Failure(what + " cannot be started: " + std::generic_category().message(cause),
                  FailureKind::Script);
}

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
    const pid_t script = startScript(folder, name, arguments, what);
    running = script;
    const bool isInTime = endsInTime(script);
    running = 0;
    if (!isInTime) {
        kill(script, SIGKILL);
    }
    const int ending = waitUntilExit(script);
    endDescendants();
    if (!isInTime) {
        throw Failure(what + " took longer than " + std::to_string(kTimeLimit / 60) + " minutes",
                      FailureKind::Script);
    }
    if (WIFSIGNALED(ending)) {
        throw Failure(what + " was ended by signal " + std::to_string(WTERMSIG(ending)), FailureKind::Script);
    }
    if (WEXITSTATUS(ending) != 0) {
        throw Failure(what + " failed with status " + std::to_string(WEXITSTATUS(ending)),
                      FailureKind::Script);
    }
}

} // namespace installer
