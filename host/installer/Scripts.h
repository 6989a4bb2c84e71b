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
/// standard error as its output. All processes that it has started are killed when it ends, when this process
/// ends, or after ten minutes. Throws Failure if it cannot be started, takes longer, is killed, or ends with
/// a status other than 0. Call adoptOrphans first; the process must have one thread.
void runScript(int folder, const std::string& name, const ScriptArguments& arguments);

/// Kills the script that is running, if any, and its process group. Safe in a signal handler.
void killRunningScript();

} // namespace installer
