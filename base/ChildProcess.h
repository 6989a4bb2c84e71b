#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// How a child process is started. No signal is ignored or blocked in it. It has the three standard
/// descriptors and `passedOn`, no others.
struct ChildProcess {
    static constexpr int kInherit = -1;
    static constexpr int kNull = -2; ///< the null device

    std::string path;                   ///< of the executable; searched in PATH if it holds no slash
    std::vector<std::string> arguments; ///< without the program's own name

    std::optional<std::vector<std::string>> environment; ///< "NAME=value" entries; nothing: inherited
    std::string workingFolder;                           ///< empty: inherited
    bool ownSession = false;                             ///< outlives our terminal and process group
    int standardInput = kInherit; ///< a descriptor of ours, kInherit or kNull; likewise the next two
    int standardOutput = kInherit;
    int standardError = kInherit;
    std::optional<int> passedOn; ///< a descriptor of ours that the child has as 3

    /// Starts it as our child: the caller reaps it. Returns its process id as soon as the program runs, or -1
    /// with `errno` set if it could not be executed. Any thread.
    [[nodiscard]] pid_t start() const;

    /// Starts it as an orphan, which the system reaps: it leaves no zombie, and reapEveryChild does not wait
    /// for it. False, with `errno` set, if it could not be executed; that goes unnoticed while another thread
    /// is in reapEveryChild. Any thread.
    [[nodiscard]] bool startDetached() const;
};

/// Waits until the child `pid` has ended. Returns its status as waitpid does, or -1 if it was reaped
/// elsewhere, which is no status of any child.
int waitUntilExit(pid_t pid);

/// Waits until no child of this process is left, reaping each.
void reapEveryChild();
