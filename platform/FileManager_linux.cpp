#include "base/FileDescriptor.h"
#include "base/ReadWrite.h"
#include "platform/FileManager.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;

bool fileExists(const std::string& path) {
    std::error_code ignored;
    return fs::exists(path, ignored);
}

bool isFolder(const std::string& path) {
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

std::error_code createDirectory(const std::string& path) {
    std::error_code failed;
    fs::create_directories(path, failed);
    return failed;
}

std::error_code removeItem(const std::string& path) {
    std::error_code failed;
    if (fs::remove_all(path, failed) == 0 && !failed) {
        failed = std::make_error_code(std::errc::no_such_file_or_directory);
    }
    return failed;
}

std::error_code moveItem(const std::string& from, const std::string& to) {
    std::error_code failed;
    if (fs::exists(fs::symlink_status(to, failed))) {
        return std::make_error_code(std::errc::file_exists);
    }
    fs::rename(from, to, failed);
    return failed;
}

std::error_code createFile(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    return file.isOpen() ? std::error_code() : std::error_code(errno, std::generic_category());
}

std::optional<std::string> readFile(const std::string& path) {
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file.isOpen() ? readAll(file.get()) : std::nullopt;
}
