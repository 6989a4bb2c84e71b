#pragma once

#include <string>

namespace installer {

/// A script's arguments, besides its own path.
struct ScriptArguments {
    int package = -1;     ///< the private copy, open; the script finds it at /dev/fd/3
    std::string location; ///< folder that the payload goes to
    std::string target;
};

/// Runs `name` from the folder, if it is there: with a clean environment, in a session of its own, with
/// standard error as its output. After ten minutes, when the script ends, or when this process does, all
/// processes that it has started are killed. Throws Failure when it cannot be started, exceeds the time, ends
/// with another status than 0, or is killed. To be called where adoptOrphans was called before.
void runScript(int folder, const std::string& name, const ScriptArguments& arguments);

/// Kills the script that is running, if any, and its process group. Safe in a signal handler.
void killRunningScript();

} // namespace installer
