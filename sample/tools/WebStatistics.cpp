// The sample statistics tool: appends each event to a file as one line, and sends nothing.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>

namespace {

std::string timeStamp() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char seconds[32];
    char zone[16];
    std::strftime(seconds, sizeof seconds, "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(zone, sizeof zone, "%z", &local);
    char text[80];
    std::snprintf(text, sizeof text, "%s.%06ld%s", seconds, now.tv_nsec / 1000, zone);
    return text;
}

} // namespace

int main(int argc, char** argv) try {
    const char* home = std::getenv("HOME");
    if (argc < 2 || (home == nullptr) || (*home == 0)) {
        std::fprintf(stderr, "Usage: WebStatistics ARGUMENT...\n"
                             "Appends the time and the arguments as one line to\n"
                             "$HOME/Library/Logs/Pellomar/WebStatistics.log\n");
        return 2;
    }
    std::string line = timeStamp();
    for (int i = 1; i < argc; ++i) {
        line += std::string(" ") + argv[i];
    }
    line += '\n';

    const std::filesystem::path folder = std::filesystem::path(home) / "Library/Logs/Pellomar";
    std::filesystem::create_directories(folder);
    const int file =
        open((folder / "WebStatistics.log").c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    // One write per line keeps lines of concurrent runs apart.
    if (file < 0 || write(file, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        std::perror("WebStatistics: cannot write its log");
        return 1;
    }
    return close(file) == 0 ? 0 : 1;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "WebStatistics: %s\n", problem.what());
    return 1;
}
