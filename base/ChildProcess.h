#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

/// How a child process is started. No signal is ignored or blocked in it. It inherits the three standard
/// descriptors and those of `passedOn`, no others.
struct ChildProcess {
    static constexpr int kInherit = -1;
    static constexpr int kNull = -2; ///< the null device

    std::string path;                   ///< of the executable; searched in PATH where it holds no slash
    std::vector<std::string> arguments; ///< without the program's own name

    std::optional<std::vector<std::string>> environment; ///< "NAME=value" entries; absent: inherited
    std::string workingFolder;                           ///< empty: inherited
    bool ownSession = false;                             ///< outlives our terminal and process group
    bool endsWithParent = false;                         ///< is killed when the thread that starts it ends
    std::vector<std::pair<int, rlim_t>> limits; ///< soft limits by RLIMIT_*, lowered to the hard ones
    int standardInput = kInherit;               ///< a descriptor of ours, kInherit or kNull; likewise below
    int standardOutput = kInherit;
    int standardError = kInherit;
    std::vector<int> passedOn; ///< descriptors of ours that the child has as 3, 4, …

    /// Starts it as our child: the caller reaps it. Returns its process id, or -1 with the cause in `failure`
    /// when the program could not be executed. Returns as soon as the program runs. Any thread.
    pid_t start(std::error_code& failure) const;

    /// Starts it as an orphan, which the system reaps: it leaves no zombie, and reapEveryChild does not wait
    /// for it. Returns the cause when it could not be executed. Any thread.
    [[nodiscard]] std::error_code startDetached() const;
};

/// Waits until the child `pid` has ended, or is found to have been reaped elsewhere.
void waitUntilExit(pid_t pid);

/// Waits until no child of this process is left, reaping each.
void reapEveryChild();
