#include "host/installer/Supervisor.h"

#include "base/ChildProcess.h"
#include "base/Pipe.h"
#include "base/ReadWrite.h"
#include "host/installer/Descendants.h"
#include "host/installer/Scripts.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <new>
#include <string>
#include <string_view>

namespace installer {

using namespace package;

namespace {

constexpr std::size_t kLongestCause = 4096; // that a pipe takes in one piece
constexpr std::array kEndingSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU};

volatile pid_t worker = 0; // NOLINT(*-avoid-non-const-global-variables): a signal handler has no other way
volatile std::sig_atomic_t wasStopped = 0;

// For signal handlers, which must not allocate: system calls only.
template <std::size_t size>
[[noreturn]] void endWith(const char (&line)[size]) {
    closefrom(STDERR_FILENO + 1); // the lock on the target, too: printing may take any time
    [[maybe_unused]] const ssize_t written = write(STDOUT_FILENO, line, size - 1);
    _exit(EXIT_FAILURE);
}

extern "C" void onEndingSignal(int) {
    if (worker <= 0) {
        endWith("installer: Error - stopped by a signal\n");
    }
    wasStopped = 1;
    kill(worker, SIGKILL);
}

extern "C" void onParentDeath(int) {
    killRunningScript();
    endWith("installer: Error - the supervising process was killed\n");
}

sigset_t endingSignals() {
    sigset_t set;
    sigemptyset(&set);
    for (const int number : kEndingSignals) {
        sigaddset(&set, number);
    }
    return set;
}

void handle(int number, void (*handler)(int)) {
    struct sigaction action{};
    action.sa_handler = handler;
    action.sa_mask = endingSignals();
    sigaction(number, &action, nullptr);
}

void handleEndingSignals(void (*handler)(int)) {
    for (const int number : kEndingSignals) {
        handle(number, handler);
    }
}

std::optional<Failure> failureOf(const std::function<void()>& work) {
    try {
        work();
        return std::nullopt;
    } catch (const Failure& failure) {
        return failure;
    } catch (const std::bad_alloc&) {
        return Failure("out of memory", FailureKind::System);
    } catch (const std::exception& problem) {
        return Failure(problem.what(), FailureKind::System);
    }
}

[[noreturn]] void beWorker(const std::function<void()>& work, int causes, pid_t parent) {
    // A signal to the whole process group is handled by the parent, which also sees one to this process
    // alone.
    for (const int number : {SIGHUP, SIGINT, SIGQUIT}) {
        handle(number, SIG_IGN);
    }
    for (const int number : {SIGALRM, SIGTERM, SIGXCPU}) {
        handle(number, SIG_DFL);
    }
    handle(SIGUSR1, onParentDeath);
    const sigset_t blocked = endingSignals();
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGUSR1);
    if (getppid() != parent) {
        onParentDeath(SIGUSR1);
    }
    adoptOrphans();
    const std::optional<Failure> failure = failureOf(work);
    if (!failure) {
        _exit(EXIT_SUCCESS);
    }
    const std::string_view cause = failure->what();
    writeAll(causes, cause.substr(0, kLongestCause));
    _exit(static_cast<int>(failure->kind()));
}

} // namespace

void reportWhenStopped() {
    handleEndingSignals(onEndingSignal);
}

std::optional<Failure> supervise(const std::function<void()>& work) {
    Pipe causes;
    if (!causes.readEnd.isOpen()) {
        throw systemFailure("cannot start");
    }
    const sigset_t blocked = endingSignals();
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    adoptOrphans(); // of a worker that is killed
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) {
        beWorker(work, causes.writeEnd.get(), self);
    }
    worker = child;
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    if (child < 0) {
        throw systemFailure("cannot start");
    }
    causes.writeEnd.reset();
    const int status = waitUntilExit(child);
    handleEndingSignals(SIG_IGN);
    endDescendants();

    std::array<char, kLongestCause> text{};
    const ssize_t size = read(causes.readEnd.get(), text.data(), text.size());
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) {
        return std::nullopt;
    }
    if (WIFEXITED(status) && size > 0) {
        return Failure({text.data(), static_cast<std::size_t>(size)},
                       static_cast<FailureKind>(WEXITSTATUS(status)));
    }
    std::string cause = "the worker ended without giving a cause";
    if (wasStopped != 0) {
        cause = "stopped by a signal";
    } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        cause = "the package's file system did not answer for a minute";
    } else if (WIFSIGNALED(status)) {
        cause = "the worker was ended by signal " + std::to_string(WTERMSIG(status));
    }
    return Failure(cause, FailureKind::System);
}

} // namespace installer
