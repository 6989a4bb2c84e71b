#include "platform/FileManager.h"
#include "platform/Folders.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

std::string NSHomeDirectory() {
    if (const char* home = std::getenv("HOME"); home != nullptr && home[0] == '/') {
        return home;
    }
    std::vector<char> storage(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, storage.data(), storage.size(), &found) == 0 && found != nullptr) {
        return found->pw_dir;
    }
    return "/";
}

std::string createDocumentsDirectory() {
    std::string path = NSHomeDirectory() + "/Documents";
    static_cast<void>(createDirectory(path)); // if this fails, opening the log fails too
    return path;
}
