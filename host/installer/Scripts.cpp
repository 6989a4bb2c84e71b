#include "installer/Scripts.h"

#include "installer/Tree.h"
#include "package/Contents.h"
#include "package/Failure.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

namespace installer {

using namespace package;

namespace {

// Only calls that are safe between fork and exec.
[[noreturn]] void become(int folder, char* const* arguments, char* const* environment, pid_t parent) {
    constexpr int kCannotStart = 127;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
        _exit(kCannotStart);
    }
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGPIPE, SIGXFSZ, SIGUSR1}) {
        signal(number, SIG_DFL);
    }
    const int nothing = open("/dev/null", O_RDWR);
    if (nothing >= 0 && dup2(nothing, STDIN_FILENO) >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0 &&
        setsid() >= 0 && fchdir(folder) == 0) {
        execve(arguments[0], arguments, environment);
    }
    _exit(kCannotStart);
}

} // namespace

void runScript(int folder, const std::string& name, const ScriptArguments& arguments) {
    const auto status = statusOf(folder, name);
    if (!status) {
        return;
    }
    const std::string what = "the package's " + name + " script";
    requireProgram(name, status->st_mode);
    std::array<std::string, 5> words{"./" + name, arguments.package, arguments.location, arguments.target,
                                     "/"};
    std::array<std::string, 4> settings{"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "HOME=/root", "SHELL=/bin/sh",
                                        "LANG=C.UTF-8"};
    std::array<char*, words.size() + 1> argv{};
    std::array<char*, settings.size() + 1> environment{};
    for (std::size_t i = 0; i < words.size(); ++i) {
        argv[i] = words[i].data();
    }
    for (std::size_t i = 0; i < settings.size(); ++i) {
        environment[i] = settings[i].data();
    }
    const pid_t self = getpid();
    const pid_t script = fork();
    if (script < 0) {
        throw systemFailure(what + " cannot be started");
    }
    if (script == 0) {
        become(folder, argv.data(), environment.data(), self);
    }
    int ending = 0;
    while (waitpid(script, &ending, 0) < 0) {
        if (errno != EINTR) {
            throw systemFailure(what + " cannot be waited for");
        }
    }
    if (WIFSIGNALED(ending)) {
        throw Failure(what + " was ended by signal " + std::to_string(WTERMSIG(ending)));
    }
    if (WEXITSTATUS(ending) != 0) {
        throw Failure(what + " failed with status " + std::to_string(WEXITSTATUS(ending)));
    }
}

} // namespace installer
