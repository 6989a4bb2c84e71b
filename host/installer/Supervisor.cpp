#include "installer/Supervisor.h"

#include "base/ChildProcess.h"
#include "base/Pipe.h"
#include "installer/Descendants.h"
#include "installer/Scripts.h"
#include "package/Failure.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <new>

namespace installer {

using namespace package;

namespace {

constexpr std::array kEndingSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU};

volatile pid_t worker = 0; // NOLINT(*-avoid-non-const-global-variables): a signal handler has no other way
volatile std::sig_atomic_t wasStopped = 0;

// For signal handlers, which must not allocate: system calls only.
template <std::size_t size>
[[noreturn]] void endWith(const char (&line)[size]) {
    closefrom(STDERR_FILENO + 1); // the lock on the target, too: printing may take any time
    (void)!write(STDOUT_FILENO, line, size - 1);
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

std::string causeOf(const std::function<void()>& work) {
    try {
        work();
        return {};
    } catch (const std::bad_alloc&) {
        return "out of memory";
    } catch (const std::exception& problem) {
        return problem.what();
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
    const std::string cause = causeOf(work);
    // A pipe takes this much in one piece.
    (void)!write(causes, cause.data(), std::min<std::size_t>(cause.size(), 4096));
    _exit(cause.empty() ? EXIT_SUCCESS : EXIT_FAILURE);
}

} // namespace

void reportWhenStopped() {
    handleEndingSignals(onEndingSignal);
}

Ending supervise(const std::function<void()>& work) {
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

    std::array<char, 4096> text{};
    const ssize_t size = read(causes.readEnd.get(), text.data(), text.size());
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) {
        return {true, {}};
    }
    if (size > 0) {
        return {false, {text.data(), static_cast<std::size_t>(size)}};
    }
    if (wasStopped) {
        return {false, "stopped by a signal"};
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
        return {false, "the package's file system did not answer for a minute"};
    }
    return {false, WIFSIGNALED(status) ? "the worker was ended by signal " + std::to_string(WTERMSIG(status))
                                       : "the worker ended without giving a cause"};
}

} // namespace installer
