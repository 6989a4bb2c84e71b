#include "installer/Scripts.h"

#include "base/FileDescriptor.h"
#include "base/RootEnvironment.h"
#include "installer/Descendants.h"
#include "installer/Tree.h"
#include "package/Contents.h"
#include "package/Failure.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <ctime>

namespace installer {

using namespace package;

namespace {

constexpr std::time_t kTimeLimit = 600; // seconds
constexpr int kPackageDescriptor = 3;

volatile pid_t running = 0; // NOLINT(*-avoid-non-const-global-variables): a signal handler has no other way

// Only calls that are safe between fork and exec.
[[noreturn]] void become(int folder, char* const* arguments, char* const* environment, int package,
                         pid_t parent) {
    constexpr int kCannotStart = 127;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(kCannotStart);
    }
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGUSR1}) {
        signal(number, SIG_DFL);
    }
    rlimit memory{};
    if (getrlimit(RLIMIT_AS, &memory) == 0) { // this program's own limit
        memory.rlim_cur = memory.rlim_max;
        setrlimit(RLIMIT_AS, &memory);
    }
    const int nothing = open("/dev/null", O_RDWR);
    if (nothing >= 0 && dup2(nothing, STDIN_FILENO) >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0 &&
        setsid() >= 0 && fchdir(folder) == 0 && dup2(package, kPackageDescriptor) >= 0) {
        execve(arguments[0], arguments, environment);
    }
    _exit(kCannotStart);
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

// For reading only, at a number that no other descriptor needed by the script has.
FileDescriptor openForScript(int package) {
    const std::string path = "/proc/self/fd/" + std::to_string(package);
    const FileDescriptor opened(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    FileDescriptor moved(fcntl(opened.get(), F_DUPFD_CLOEXEC, kPackageDescriptor + 1));
    if (!moved.isOpen()) {
        throw systemFailure("the package cannot be opened for a script");
    }
    return moved;
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
    std::array<std::string, 5> words{"./" + name, "/dev/fd/" + std::to_string(kPackageDescriptor),
                                     arguments.location, arguments.target, "/"};
    std::array<std::string, 4> settings{kRootPath, kRootHome, "SHELL=/bin/sh", "LANG=C.UTF-8"};
    std::array<char*, words.size() + 1> argv{};
    std::array<char*, settings.size() + 1> environment{};
    for (std::size_t i = 0; i < words.size(); ++i) {
        argv[i] = words[i].data();
    }
    for (std::size_t i = 0; i < settings.size(); ++i) {
        environment[i] = settings[i].data();
    }
    const FileDescriptor package = openForScript(arguments.package);
    const FileDescriptor movedFolder(fcntl(folder, F_DUPFD_CLOEXEC, kPackageDescriptor + 1));
    const pid_t self = getpid();
    const pid_t script = fork();
    if (script < 0) {
        throw systemFailure(what + " cannot be started");
    }
    if (script == 0) {
        become(movedFolder.get(), argv.data(), environment.data(), package.get(), self);
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
