#pragma once

#include <sys/types.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

struct Outcome {
    std::string output; // standard output
    std::string errors; // standard error
    int status;         // exit status, or 128 and the signal
};

// Starts a program with these streams. Fails the test when it cannot.
pid_t start(const std::vector<std::string>& command, int output, int errors);

// The exit status of a started program, or 128 and the signal that ended it.
int waitFor(pid_t process);

Outcome run(const std::vector<std::string>& command);

std::string readFile(const std::filesystem::path& path);
void writeFile(const std::filesystem::path& path, const std::string& content);

// A folder that goes away with the test.
class TemporaryFolder {
  public:
    TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder();

    std::filesystem::path operator/(const std::string& name) const { return path_ / name; }
    const std::filesystem::path& path() const { return path_; }

  private:
    std::filesystem::path path_;
};

// All that is below a folder: path to type, mode and content, for comparing before with after.
std::map<std::string, std::string> snapshot(const std::filesystem::path& folder);
