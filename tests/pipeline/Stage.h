#pragma once

#include <map>
#include <string>
#include <vector>

/// What a tool does when it is called for the first, the second, … time, each as lines of bash; the last also
/// stands for all later calls.
using Tool = std::vector<std::string>;

inline const Tool kMissing; ///< no such file

/// The machine that a run finds. Every tool traces its calls, and without an entry in `tools` does its work.
struct Machine {
    enum class OldCopy { None, Folder, PlainFile };

    std::map<std::string, Tool> tools = {}; ///< rm, installer, kextstat, VirtualBoxStartup.sh, killall
    OldCopy oldCopy = OldCopy::None;
    std::string systemVersion = {};          ///< empty: only the kernel tells one
    std::string home = "home";               ///< its folder's name
    std::vector<std::string> homeFiles = {}; ///< empty files, below the home
    bool asNobody = false;
};

/// What came of a run. The home's path reads ~.
struct Outcome {
    std::vector<std::string> trace;
    std::vector<std::string> opened; ///< by programs that nobody waits for, in the order of their starts
    std::string printed;             ///< standard output and standard error of the program and its tools
    std::string flag;                ///< "present", "absent"
    std::string ended;               ///< "with status 0"
};

/// The throw-away view as the stage of all runs: a display, a download server and, anew for each run, the
/// machine. Throws where something can't be set up.
class Stage {
  public:
    /// Whether it is safe to put tools of ours in the place of the machine's.
    static bool isInThrowAwayView();

    Stage();

    /// Sets the machine up, runs the driver to its end and waits for whatever it has started.
    [[nodiscard]] static Outcome run(const Machine& machine, const std::vector<std::string>& actions);
};
