#include "installer/Supervisor.h"

#include "installer/Output.h"
#include "package/Failure.h"
#include "package/FileDescriptor.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <new>

namespace installer {

using namespace package;

namespace {

constexpr std::array kEndingSignals{SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU};
constexpr char kStopped[] = "stopped by a signal";

volatile pid_t worker = 0; // NOLINT(*-avoid-non-const-global-variables): a handler has no other way
volatile std::sig_atomic_t wasStopped = 0;

extern "C" void onEndingSignal(int) {
    if (worker <= 0) {
        printFailure(kStopped);
        _exit(EXIT_FAILURE);
    }
    wasStopped = 1;
    kill(worker, SIGKILL);
}

extern "C" void onParentDeath(int) {
    printFailure("the supervising process was killed");
    _exit(EXIT_FAILURE);
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
    // Whatever asks the whole group to end is the parent's to answer; a signal to this process alone is
    // seen by the parent.
    for (const int number : {SIGHUP, SIGINT, SIGQUIT}) {
        handle(number, SIG_IGN);
    }
    for (const int number : {SIGTERM, SIGXCPU}) {
        handle(number, SIG_DFL);
    }
    handle(SIGUSR1, onParentDeath);
    const sigset_t blocked = endingSignals();
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGUSR1);
    if (getppid() != parent) {
        onParentDeath(SIGUSR1);
    }
    const std::string cause = causeOf(work);
    // A pipe takes this much at once.
    (void)!write(causes, cause.data(), std::min<std::size_t>(cause.size(), 4096));
    _exit(cause.empty() ? EXIT_SUCCESS : EXIT_FAILURE);
}

int waitForWorker() {
    int status = 0;
    while (waitpid(worker, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

} // namespace

void sayWhenStopped() {
    handleEndingSignals(onEndingSignal);
}

Ending supervise(const std::function<void()>& work) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw systemFailure("cannot start");
    }
    const FileDescriptor reading(ends[0]);
    FileDescriptor writing(ends[1]);
    const sigset_t blocked = endingSignals();
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    const pid_t self = getpid();
    const pid_t child = fork();
    if (child == 0) {
        beWorker(work, writing.get(), self);
    }
    worker = child;
    sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
    if (child < 0) {
        throw systemFailure("cannot start");
    }
    writing = FileDescriptor();
    const int status = waitForWorker();
    handleEndingSignals(SIG_IGN);

    std::array<char, 4096> text{};
    const ssize_t size = read(reading.get(), text.data(), text.size());
    if (WIFEXITED(status) && WEXITSTATUS(status) == EXIT_SUCCESS) {
        return {true, {}};
    }
    if (size > 0) {
        return {false, {text.data(), static_cast<std::size_t>(size)}};
    }
    if (wasStopped) {
        return {false, kStopped};
    }
    return {false, WIFSIGNALED(status) ? "the worker was ended by signal " + std::to_string(WTERMSIG(status))
                                       : "the worker ended without a word"};
}

} // namespace installer
