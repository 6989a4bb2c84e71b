#pragma once

#include <string>

namespace installer {

// What a script is told about the install, besides its own path.
struct ScriptArguments {
    std::string package;  // path of the package's file
    std::string location; // folder that the payload goes to
    std::string target;
};

// Runs `name` from the folder, if it is there, as the process that calls: with a clean environment, in a
// session of its own, with standard error for all that it prints. It ends when this process does. Returns
// once it has ended; what it left running in the background goes on. Throws Failure when it cannot be
// started, ends with another status than 0, or is killed.
void runScript(int folder, const std::string& name, const ScriptArguments& arguments);

} // namespace installer
