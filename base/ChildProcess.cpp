#include "base/ChildProcess.h"

#include "base/Pipe.h"
#include "base/ReadWrite.h"

#include <fcntl.h>
#include <linux/close_range.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>

namespace {

std::vector<char*> pointers(const std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (const std::string& text : texts) {
        result.push_back(const_cast<char*>(text.c_str()));
    }
    result.push_back(nullptr);
    return result;
}

// Everything that needs memory is made ready before the fork: the child of a process with several threads
// may only make system calls.
class Launch {
  public:
    explicit Launch(const ChildProcess& child)
        : child_(child), argumentTexts_(child.arguments),
          environmentTexts_(child.environment.value_or(std::vector<std::string>{})) {
        argumentTexts_.insert(argumentTexts_.begin(), child.path);
        arguments_ = pointers(argumentTexts_);
        environment_ = pointers(environmentTexts_);
        passedOn_ = child.passedOn;
    }

    pid_t run(bool detached, std::error_code& failure) {
        if (noReport_ != 0) {
            failure = {noReport_, std::system_category()};
            return -1;
        }
        const pid_t pid = fork();
        if (pid == 0) {
            if (detached) {
                const pid_t second = _Fork(); // fork() runs handlers, which may wait for other threads' locks
                if (second != 0) {
                    if (second < 0) {
                        reportFailure();
                    }
                    _exit(0);
                }
            }
            becomeProgram();
        }
        if (pid < 0) {
            failure = {errno, std::system_category()};
            return -1;
        }
        if (detached) {
            waitUntilExit(pid);
        }
        failure = awaitProgram();
        if (failure && !detached) {
            waitUntilExit(pid);
        }
        return failure ? -1 : pid;
    }

  private:
    static void connect(int source, int target) {
        if (source == ChildProcess::kNull) {
            source = open("/dev/null", O_RDWR);
        }
        if (source == target) {
            fcntl(target, F_SETFD, 0);
        } else if (source >= 0) {
            dup2(source, target);
        }
    }

    // The numbers that the child is to have may be in use here, by a descriptor that is passed on or reported
    // to.
    bool moveOutOfTheWay(int& descriptor) const {
        const int firstFree = STDERR_FILENO + 1 + static_cast<int>(passedOn_.size());
        const int moved = fcntl(descriptor, F_DUPFD_CLOEXEC, firstFree);
        descriptor = moved < 0 ? descriptor : moved; // the cause must still be reported
        return moved >= 0;
    }

    bool passDescriptorsOn() {
        if (passedOn_.empty()) {
            return true;
        }
        if (!moveOutOfTheWay(reportTo_) ||
            !std::ranges::all_of(passedOn_, [this](int& moved) { return moveOutOfTheWay(moved); })) {
            return false;
        }
        int number = STDERR_FILENO;
        for (const int descriptor : passedOn_) {
            if (dup2(descriptor, ++number) < 0) {
                return false;
            }
        }
        return true;
    }

    [[noreturn]] void becomeProgram() {
        if (child_.ownSession) {
            setsid();
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        for (int number = 1; number < NSIG; ++number) {
            signal(number, SIG_DFL);
        }
        if (child_.endsWithParent) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            if (getppid() != parent_) {
                _exit(127);
            }
        }
        for (const auto& [kind, soft] : child_.limits) {
            rlimit limit{};
            if (getrlimit(static_cast<__rlimit_resource>(kind), &limit) == 0) {
                limit.rlim_cur = std::min(soft, limit.rlim_max);
                setrlimit(static_cast<__rlimit_resource>(kind), &limit);
            }
        }
        connect(child_.standardInput, STDIN_FILENO);
        connect(child_.standardOutput, STDOUT_FILENO);
        connect(child_.standardError, STDERR_FILENO);
        close_range(STDERR_FILENO + 1, UINT_MAX, CLOSE_RANGE_CLOEXEC);
        if ((child_.workingFolder.empty() || chdir(child_.workingFolder.c_str()) == 0) &&
            passDescriptorsOn()) {
            execvpe(child_.path.c_str(), arguments_.data(),
                    child_.environment ? environment_.data() : environ);
        }
        reportFailure();
        _exit(127);
    }

    void reportFailure() const {
        const int cause = errno;
        writeAll(reportTo_, {reinterpret_cast<const char*>(&cause), sizeof cause});
    }

    // The pipe closes when the program is executed; a cause arrives on it when that failed.
    std::error_code awaitProgram() {
        report_.writeEnd.reset();
        int cause = 0;
        ssize_t count = 0;
        do {
            count = read(report_.readEnd.get(), &cause, sizeof cause);
        } while (count < 0 && errno == EINTR);
        return count == sizeof cause ? std::error_code(cause, std::system_category()) : std::error_code();
    }

    const ChildProcess& child_;
    const pid_t parent_ = getpid();
    std::vector<std::string> argumentTexts_;
    std::vector<std::string> environmentTexts_;
    std::vector<char*> arguments_;
    std::vector<char*> environment_;
    std::vector<int> passedOn_;
    Pipe report_; // open until the program is executed
    int noReport_ = report_.writeEnd.isOpen() ? 0 : errno;
    int reportTo_ = report_.writeEnd.get();
};

} // namespace

pid_t ChildProcess::start(std::error_code& failure) const {
    return Launch(*this).run(false, failure);
}

std::error_code ChildProcess::startDetached() const {
    std::error_code failure;
    Launch(*this).run(true, failure);
    return failure;
}

void waitUntilExit(pid_t pid) {
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
}

void reapEveryChild() {
    while (wait(nullptr) >= 0 || errno == EINTR) {
    }
}
