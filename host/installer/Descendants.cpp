#include "host/installer/Descendants.h"

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace installer {

namespace {

// Only children: their own children become children of this process when they end.
void killChildren() {
    std::error_code problem;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", problem)) {
        const int process = std::atoi(entry.path().filename().c_str());
        if (process <= 0) {
            continue;
        }
        std::ifstream file(entry.path() / "stat");
        const std::string status{std::istreambuf_iterator<char>(file), {}};
        int parent = 0;
        const std::size_t nameEnd = status.rfind(')'); // the name may hold anything, line feeds too
        if (nameEnd != std::string::npos && std::sscanf(status.c_str() + nameEnd, ") %*c %d", &parent) == 1 &&
            parent == getpid()) {
            kill(process, SIGKILL);
        }
    }
}

} // namespace

void adoptOrphans() {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

void endDescendants() {
    constexpr timespec kInterval{0, 5'000'000};
    constexpr int kTries = 2'000;
    for (int i = 0; i < kTries; ++i) {
        killChildren();
        pid_t ended = 0;
        while ((ended = waitpid(-1, nullptr, WNOHANG)) > 0) {
        }
        if (ended < 0) {
            return;
        }
        ppoll(nullptr, 0, &kInterval, nullptr);
    }
}

} // namespace installer
