#include "Process.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

namespace fs = std::filesystem;

pid_t start(const std::vector<std::string>& command, int output, int errors) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    const pid_t process = fork();
    if (process == 0) {
        dup2(output, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    EXPECT_GT(process, 0);
    return process;
}

int waitFor(pid_t process) {
    int status = 0;
    EXPECT_EQ(waitpid(process, &status, 0), process);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

Outcome run(const std::vector<std::string>& command) {
    std::FILE* output = std::tmpfile();
    std::FILE* errors = std::tmpfile();
    const int status = waitFor(start(command, fileno(output), fileno(errors)));
    const auto text = [](std::FILE* file) {
        std::string all;
        std::rewind(file);
        for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) {
            all += static_cast<char>(c);
        }
        std::fclose(file);
        return all;
    };
    return {text(output), text(errors), status};
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void writeFile(const fs::path& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    EXPECT_TRUE(out.flush().good()) << path;
}

namespace {

// In memory where that can run programs: each install waits until the disk has everything.
fs::path scratchParent() {
    const char* const memory = "/dev/shm";
    struct statvfs status {};
    return statvfs(memory, &status) == 0 && (status.f_flag & ST_NOEXEC) == 0 && access(memory, W_OK) == 0
               ? fs::path(memory)
               : fs::temp_directory_path();
}

} // namespace

TemporaryFolder::TemporaryFolder() {
    std::string name = (scratchParent() / "host-tests-XXXXXX").string();
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    path_ = name;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

std::map<std::string, std::string> snapshot(const fs::path& folder) {
    std::map<std::string, std::string> all;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(folder)) {
        struct stat status {};
        EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
        char mode[16];
        std::snprintf(mode, sizeof mode, "%o ", status.st_mode);
        std::string& text = all[entry.path().lexically_relative(folder).string()];
        text = mode;
        if (entry.is_symlink()) {
            text += fs::read_symlink(entry.path()).string();
        } else if (entry.is_regular_file()) {
            text += readFile(entry.path());
        }
    }
    return all;
}
