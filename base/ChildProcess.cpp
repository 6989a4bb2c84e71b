#include "base/ChildProcess.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
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

// Everything that needs memory is made ready first: after a fork, the child of a process with several
// threads may only make system calls.
class Spawn {
  public:
    explicit Spawn(const ChildProcess& child) : child_(child), arguments_(pointers(child.arguments)) {
        arguments_.insert(arguments_.begin(), const_cast<char*>(child.path.c_str()));
        if (child.environment) {
            environment_ = pointers(*child.environment);
        }
        posix_spawn_file_actions_init(&actions_);
        posix_spawnattr_init(&attributes_);
        connect(child.standardInput, STDIN_FILENO);
        connect(child.standardOutput, STDOUT_FILENO);
        connect(child.standardError, STDERR_FILENO);
        connect(child.passedOn.value_or(ChildProcess::kInherit), kPassedOn);
        note(posix_spawn_file_actions_addclosefrom_np(&actions_, child.passedOn ? kPassedOn + 1 : kPassedOn));
        if (!child.workingFolder.empty()) {
            note(posix_spawn_file_actions_addchdir_np(&actions_, child.workingFolder.c_str()));
        }
        sigset_t signals;
        sigemptyset(&signals);
        posix_spawnattr_setsigmask(&attributes_, &signals);
        sigfillset(&signals);
        posix_spawnattr_setsigdefault(&attributes_, &signals);
        const int session = child.ownSession ? POSIX_SPAWN_SETSID : 0;
        posix_spawnattr_setflags(
            &attributes_, static_cast<short>(POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | session));
    }
    Spawn(const Spawn&) = delete;
    Spawn& operator=(const Spawn&) = delete;
    ~Spawn() {
        posix_spawn_file_actions_destroy(&actions_);
        posix_spawnattr_destroy(&attributes_);
    }

    // 0, or the number of the error.
    int run(pid_t& process) const {
        return failure_ != 0
                   ? failure_
                   : posix_spawnp(&process, child_.path.c_str(), &actions_, &attributes_, arguments_.data(),
                                  child_.environment ? environment_.data() : environ);
    }

  private:
    static constexpr int kPassedOn = STDERR_FILENO + 1;

    void connect(int source, int target) {
        if (source == ChildProcess::kNull) {
            note(posix_spawn_file_actions_addopen(&actions_, target, "/dev/null", O_RDWR, 0));
        } else if (source >= 0) {
            note(posix_spawn_file_actions_adddup2(&actions_, source, target));
        }
    }

    void note(int failure) { failure_ = failure_ != 0 ? failure_ : failure; }

    const ChildProcess& child_;
    std::vector<char*> arguments_;
    std::vector<char*> environment_;
    posix_spawn_file_actions_t actions_{};
    posix_spawnattr_t attributes_{};
    int failure_ = 0;
};

} // namespace

pid_t ChildProcess::start() const {
    pid_t process = -1;
    errno = Spawn(*this).run(process);
    return errno == 0 ? process : -1;
}

bool ChildProcess::startDetached() const {
    const Spawn spawn(*this);
    pid_t process = fork();
    if (process == 0) {
        _exit(spawn.run(process));
    }
    if (process < 0) {
        return false;
    }
    const int status = waitUntilExit(process);
    errno = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
    return errno == 0;
}

int waitUntilExit(pid_t pid) {
    int status = -1;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

void reapEveryChild() {
    while (wait(nullptr) >= 0 || errno == EINTR) {
    }
}
